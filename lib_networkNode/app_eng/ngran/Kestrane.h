// The test engine: start-up and configuration, tests and their drive loop, scenarios,
// the step catalogue, scenario files and console commands. The records are in
// Kestrane_engine.h; what a protocol module may use is in KsEngine_step.h.
#pragma once

#include "KsEngine_step.h"

#define KestraneVersion "2.30.12.04"

#define AMF_JSON_FILE_NAME "data/amf.json"
#define NOC_JSON_FILE_NAME "data/noc.json"
#define SET_JSON_FILE_NAME "data/set.json"
#define RAN_JSON_FILE_NAME "data/ran.json"
#define SCE_JSON_FILE_NAME "data/sce.json"
#define TST_JSON_FILE_NAME "data/tst.json"
#define UEL_JSON_FILE_NAME "data/uel.json"
#define MON_JSON_FILE_NAME "data/mon.json"


// ---------------------------------------------------------------- start-up and configuration

// Runs start-up steps 1 to 37. Returns 1 when the engine is up; 0 when start-up
// printed its reason and the process is to end with status 0.
int KsEngine__Startup(int argc, char** argv);
[[noreturn]] void KsEngine__doEvents();
void KsEngine__signalhandler(int signum);
int KsEngine__SaveFile(json_t* jRoot, const char* path);
void KsEngine__LoadAMFList();
void KsEngine__LoadNOC();
void KsEngine__LoadSettings();
void KsEngine__LoadRANs();
void KsEngine__LoadScanarios();
void KsEngine__LoadTests();
void KsEngine__LoadUEL();
void KsEngine__LoadMonitorList();
void* KsEngine__TestPerformanceThread(void* arg);
void* KsEngine__RANStatsThread(void* arg);
void* KsEngine__TestExecutionThread(void* arg);
void KsEngine__sentmpscounter();

// ---------------------------------------------------------------- tests

[[nodiscard]] uint32_t KsEngine__AddTestToQueue(uint32_t TestId, int status);
uint32_t KsEngine__StopOnGoingTest(uint32_t TestId);
uint32_t KsEngine__GetTestStatus(uint32_t TestId);
KsTestExec* KsEngine__FindTest(uint32_t TestId);
void Kestrane___RunTest(KsTestExec* tstItem);
void Kestrane___execScalingModeTest(KsTestExec* tstItem, uint32_t* iterations);
void Kestrane___runStep(void* v, int index);
void Kestrane___completedScalingModeStep(MV_KsUE* ksUe, uint32_t StepCode, const char* funcName, const char* file,
                                         int line);
void KsEngine__ReInit_MVCounters(KsTestExec* tstItem, int total);
void Kestrane___writeTestStats(KsTestExec* tstItem, int completed);
// Drops the scenario a test record holds, so the next run builds it again from data/sce.json.
void KsEngine__ResetTestScenario(KsTestExec* tstItem);

// ---------------------------------------------------------------- scenarios and steps

KsScanario* Kestrane___createScanarioForKsTestExec(KsTestExec* tstItem, uint32_t ScanarioID);
KsScanario* KsScanario__NewScanario(uint32_t id);
void KsScanario__AddStep(KsScanario* scanario, KsStep* step);
KsStep* KsScanario__NewStep(uint32_t StepCode, uint32_t StepIndex);
void KsScanario__CreateKsStepExecutions(MV_KsUE* ksUe, int stepId);
// An execution of `st` with its PDU session entries, appended to the UE's list.
KsStepExecution* KsScanario__AppendExecution(MV_KsUE* ksUe, KsStep* st, uint32_t Id);
void KsScanario__ReRunScanario(MV_KsUE* ksUe, int clearResult);

void KsScanario__ClearResult(MV_KsUE* ksUe);

// ---------------------------------------------------------------- the step catalogue

// The catalogue row of a step id, or null when the id has no builder.
const KsStepCatalogueEntry* KsScanario__GetStepBuilder(uint32_t stepId);
// Every row, in step id order.
const KsStepCatalogueEntry* KsScanario__Catalogue(size_t* count);
// Builds the step of that row from a Dict (an array of {Key, Value}), applying the
// keys in array order, and appends it. Returns the step.
KsStep* Kestrane___ScanarioAddStep(KsScanario* scanario, const KsStepCatalogueEntry* entry, json_t* dict);
void Kestrane___ScanarioAddRegistrationStep(KsScanario* scanario, json_t* dict);
void Kestrane___ScanarioAddPDUSession(KsScanario* scanario, json_t* dict);
void Kestrane___ScanarioAddSleep(KsScanario* scanario, json_t* dict);
void Kestrane___ScanarioAddReleaseLogicalUEConnection(KsScanario* scanario, json_t* dict);
void Kestrane___ScanarioAddServiceRequest(KsScanario* scanario, json_t* dict);
void Kestrane___ScanarioAddDeRegistration(KsScanario* scanario, json_t* dict);
void Kestrane___ScanarioAddDataTPDU(KsScanario* scanario, json_t* dict);
// Template lookups of Dict keys: by name and message type, or by name, interface and
// command. The result goes to the slot the key names; null when nothing matches.
MV_Template* Kestrane___ScanarioSetTemplate(KsStep* ksStep, const char* name, const char* cType, uint32_t messageId);
MV_Template* Kestrane___ScanarioSetTemplate2(KsStep* ksStep, const char* name, const char* cType, int interface,
                                             uint32_t command);
void KsScanario__SetNASTemplate(KsStep* ksStep, MV_Template* t);
void KsScanario__SetSMNASTemplate(KsStep* ksStep, MV_Template* t);
void KsScanario__SetNGAPInitTemplate(KsStep* ksStep, MV_Template* t);
void KsScanario__SetUplinkNGAPTemplate(KsStep* ksStep, MV_Template* t);

// ---------------------------------------------------------------- scenario files

// Loads the files named by ScanarioFiles. Returns 0 when a file cannot be read: the
// text is printed and start-up stops.
int KsScanario__LoadScanarios();
int KsScanario__LoadScanarioFile(uint32_t id, const char* fileName, uint32_t isDefault);
KsScanario* KsScanario__getByScID(uint32_t id);
// Scenario 10001, made when the first UE is added and no default exists.
void KsScanario__CreateDefaultScanario();

// ---------------------------------------------------------------- console commands

void KsScanario__CreateCommandSteps();
// A zeroed command from commandPool, or null when the pool is gone.
MV_KsTestCommand* KsScanario__NewTestCommand();
void KsScanario__ReleaseTestCommand(MV_KsTestCommand* command);
// Appends to / takes the head of the UE's command queue, under commandLock.
void KsScanario__QueueTestCommand(MV_KsUE* ksUe, MV_KsTestCommand* command);
MV_KsTestCommand* KsScanario__PopTestCommand(MV_KsUE* ksUe);
void KsScanario__AddTestCommand(MV_KsTestCommand* command, MV_KsUE* ksUe);
void KsScanario__AddCommand(MV_KsTestCommand* command, MV_KsUE* ksUe, KsStep* ksStep);
void KsScanario__AddTemplatedTestCommand(MV_KsTestCommand* command, MV_KsUE* ksUe);
void KsScanario__AddTemplatedTestCommand2(MV_KsTestCommand* command, MV_KsUE* ksUe);
