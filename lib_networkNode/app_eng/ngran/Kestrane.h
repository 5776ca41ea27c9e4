// The test engine: the engine record, tests, scenarios, steps and their executions,
// and the operations that start the process and run tests.
#pragma once

#include <jansson.h>

#include <atomic>
#include <cstdint>

#include "KsCommandSteps.h"
#include "KsUE.h"
#include "Kestrane_counters.h"
#include "mv_core.h"
#include "mv_pool.h"
#include "mv_tables.h"

#define KestraneVersion "2.30.12.04"

#define AMF_JSON_FILE_NAME "data/amf.json"
#define NOC_JSON_FILE_NAME "data/noc.json"
#define SET_JSON_FILE_NAME "data/set.json"
#define RAN_JSON_FILE_NAME "data/ran.json"
#define SCE_JSON_FILE_NAME "data/sce.json"
#define TST_JSON_FILE_NAME "data/tst.json"
#define UEL_JSON_FILE_NAME "data/uel.json"
#define MON_JSON_FILE_NAME "data/mon.json"

// The built-in UE capacity; MaximumUE can only lower the pool below it.
#define KS_BUILTIN_UE_CAPACITY 2000000u
#define KS_STEP_QUEUE_COUNT 5
#define KS_FSM_LINE_COUNT 30
#define KS_END_ACTION_FOREVER 999999999u
#define KS_STEP_CODE_FROM_UE 999999u

#define KS_BEARER__3GPP 1
#define KS_BEARER__NON3GPP 2

// Test states.
#define KS_TEST__IDLE 0
#define KS_TEST__QUEUED 1
#define KS_TEST__RUNNING 2
#define KS_TEST__NO_SCENARIO 5
#define KS_TEST__NO_STEPS 6
#define KS_TEST__QUEUED_ALT 8
#define KS_TEST__NO_UE 9
#define KS_TEST__UE_LIST_EMPTY 10
#define KS_TEST__SUPI_RANGE_EMPTY 11
#define KS_TEST__SUPI_MISSING 12
#define KS_TEST__NOT_CONFIGURED 13
#define KS_TEST__STOP 100

struct __ks_scanario;
struct __ks_step;
struct __mv_ks__ngran;
struct __mv_ks__amf;
struct __mv_ks__mme;
struct __ks_step_execution;
struct __mv_ks__test_exec;
typedef __ks_scanario KsScanario;
typedef __ks_step KsStep;
typedef __ks_step_execution KsStepExecution;
typedef __mv_ks__test_exec KsTestExec;

// ---------------------------------------------------------------- scenario records

struct __ks_pduSessionInfo {
    __ks_pduSessionInfo* Next;
    __ks_pduSessionInfo* PoolNext;
    uint8_t PDUSessionId;
    uint8_t PDUSessionType;
    uint8_t PDUSessionType_isset;
    char DNNName[150];
    uint32_t PDUSessionRequestType;
};

struct __ks_pduSessionSetupInfo {
    __ks_pduSessionSetupInfo* Next;
    __ks_pduSessionInfo* Info;
    uint8_t SetupCompleted;
};

struct MV_Template;

struct __ks_step {
    __ks_step* Next;
    __ks_step* PoolNext;
    uint32_t StepType, StepCode, StepIndex, RegistrationType, UEContextRequest, SleepTime, FoR, InitialContextRequest,
        SyncFailure, SyncFailureMaxCount, MACFailure, SecurityModeReject, ServiceType;
    uint8_t AuthenticationRequestIgnoreCount, SecurityModeCommandIgnoreCount, IdentityRequestIgnoreCount,
        RegistrationAcceptIgnoreCount;
    uint32_t EA0, EA1, EA2, IA0, IA1, IA2;
    char mcc[4], mnc[4];
    uint8_t AMFRegionId;
    uint16_t AMFSetID, AMFPointer;
    uint32_t Tmsi;
    uint8_t CauseGroup, Cause;
    uint16_t Flows;
    uint64_t UploadBytes;
    uint32_t PacketsPerSecond, NgKSI, PDUSessionId, PacketCount, PacketDuration;
    char ul_sn_mcc[4], ul_sn_mnc[4];
    uint32_t tac, tac_isset;
    json_t* UserLocationInformation;
    MV_Template* nas5G_regTemplate;
    MV_Template* ngap_initUEMessTemplate;
    MV_Template* ngap_uplinkNASTranTemplate;
    MV_Template* nas5G_pduSessionTemplate;
    MV_Template* nas5G_ulNASTransport;
    __ks_pduSessionInfo* pduSessionHead;
    __ks_pduSessionInfo* pduSessionCurrent;
    uint8_t isReleased;
};

struct __ks_scanario {
    __ks_scanario* Next;
    __ks_scanario* PoolNext;
    uint32_t id;
    char FileName[300];
    uint32_t IsDefault;
    __ks_step* stepHead;
    __ks_step* stepCurrent;
    int32_t totalSteps;
    uint8_t isReleased;
};

// One message event of a report.
struct __ks_step_child {
    __ks_step_child* Next;
    __ks_step_child* PoolNext;
    uint32_t Id;
    uint32_t MessageType;  // 1: sent by the UE
    uint32_t ProcedureCode;
    uint32_t NasMessageType;
    uint32_t ChildNasMessageType;
    uint32_t ChildNasMessageCategoryType;
    struct timeval Time;
    uint32_t NasCause;    // a 5GMM or 5GSM cause the answer carried, 0 for none
    uint32_t WhichCause;  // 2: NasCause is a 5GSM cause
    uint8_t isReleased;
};
typedef __ks_step_child KsStepChild;

struct __ks_step_execution {
    __ks_step_execution* Next;
    uint32_t Id;
    __ks_step* ksStep;
    uint32_t Executed;
    uint64_t RANUEId;
    uint32_t Result, Result_NGAP_MessageId, Result_NAS_MessageId, Result_NGAP_Cause, Result_NAS_Cause;
    MV_KsUE* ksUe;
    struct timeval stTime, edTime;
    uint8_t AuthenticationRequestIgnoreCounter, SecurityModeCommandIgnoreCounter, IdentityRequestIgnoreCounter,
        RegistrationAcceptIgnoreCounter, SyncFailureCounter;
    __ks_pduSessionSetupInfo* pduSessionSetupHead;
    __ks_pduSessionSetupInfo* pduSessionSetupCurrent;
    __ks_pduSessionSetupInfo* pduSessionSetupItem;
    uint32_t pduSessionCount;
    uint32_t RANAMFConnId;
    // pool bookkeeping
    __ks_step_execution* PoolNext;
    uint8_t isReleased;
};

// ---------------------------------------------------------------- tests

struct __mv_ks__test_exec {
    __mv_ks__test_exec* Next;
    uint32_t TestId;
    std::atomic<uint32_t> Status;  // written by console, execution and FSM threads
    uint32_t RanTimes;
    KsScanario* ksScanario;
    MV_KsUE* Head;
    MV_KsUE* Current;
    int32_t Count;
    char TestName[100];
    uint32_t MPS;
    uint32_t MPSCounter;
    uint32_t MPSIndex;
    uint32_t NoOfTimes;
    uint32_t AppType;
    uint32_t EndAction;
    MV_Mutex CurrentExecutionCountLock;
    uint32_t itercounter;
    int64_t Concurrent;
    std::atomic<int64_t> CurrentExecutionCount;  // read unlocked by the drive loop
    uint32_t ExecutionTicks;
    MV_ExecTime totalStartTime, loadStartTime, snapStartTime;
    std::atomic<int32_t> TotalAttachedUECount;  // read by the per-second progress line
    MV_Mutex CompletedExecutionUECountLock;
    std::atomic<int32_t> CompletedExecutionUECount;
    int32_t LastCompletedExecutionUECount;
    // counter block
    KS_TEST_COUNTERS(KS_TEST_COUNTER_FIELD)
    MV_KsUE* SHead;
    MV_KsUE* SCurrent;
    MV_Mutex SLock;
    char TestStartTime[30], TestEndTime[30];
    int32_t ExecutedNoOfTimes, TotalNoOfTimesToExecute, ExecutedTPS, TotalExecutedTPS, TotalCompletedExecutionUECount,
        ExecutedInSeconds, ExecutedInMilliSeconds, TotalExecutedInSeconds, TotalExecutedInMilliSeconds;
    uint32_t OnGoing;
    int32_t Percent, ExecutionCount, TotalTestSteps;
    std::atomic<int32_t> TotalExecSteps;
    int32_t LastTotalExecSteps;
    std::atomic<int32_t> WatchTotalExecSteps;  // zeroed by timer handlers, read by the test thread
    int32_t UEGotNULL;
    // what the test record was configured with, kept for the report
    int32_t SelectTest;
    uint32_t ScenarioID;
};

// ---------------------------------------------------------------- engine record

template <class T>
class KsFifoPool;

struct __mv_ks__engine {
    json_t* config;
    MV_PowerTable* imsiTable;        // IMSI digits as text
    MV_PowerTable* N2HandoverTable;  // AMF UE id, with the locking operations
    void* AMFConnections;
    uint32_t ConcurrentTestCase;
    uint32_t ExecutingTestCaseCount;
    MV_Mutex ExecutingTestCaseLock;
    uint32_t Executed_TestCases;
    uint64_t Executed_TestSteps;
    uint32_t EnableConsoleStats;
    uint32_t ConsoleStatsTick;
    int64_t executngSteps;
    MV_Mutex executngStepsLock;
    int64_t executedSteps;
    MV_Mutex executedStepsLock;
    int64_t lastReceived;
    MV_Mutex lastReceivedLock;
    int64_t lastSent;
    MV_Mutex lastSentLock;
    uint32_t localIPVersion;
    char localIP[10][50];
    uint32_t localIPCount;
    char localGTP_IPv4[17];
    char localGTP_IPv6[17];
    uint32_t localGTP_IPType;
    // Node lists (Kestrane_nodes.h): appended by the console thread, walked without a lock.
    std::atomic<__mv_ks__ngran*> ngRanHead;
    __mv_ks__ngran* ngRanCurrent;
    uint32_t ngRanCount;
    uint32_t maxRanUEIDs;
    std::atomic<__mv_ks__ngran*> eNodeBHead;
    __mv_ks__ngran* eNodeBCurrent;
    uint32_t eNodeBCount;
    // UE pool
    MV_KsUE* ksUEPool;
    MV_KsUE* ksUEPoolHead;
    MV_KsUE* ksUEPoolCurrent;
    uint32_t ksUEPoolTotal;
    uint32_t ksUEPoolAvailable;
    MV_Mutex ksUEPoolLock;
    uint32_t maxUEPool;
    // configured UEs
    MV_KsUE* ksUEHead;
    MV_KsUE* ksUECurrent;
    MV_KsUE* ksUELast;
    MV_Mutex ksUELock;
    int32_t ksUETotal;
    uint32_t allInit;
    std::atomic<__mv_ks__amf*> amfHead;
    __mv_ks__amf* amfCurrent;
    uint32_t amfCount;
    std::atomic<__mv_ks__mme*> mmeHead;
    __mv_ks__mme* mmeCurrent;
    uint32_t mmeCount;
    // the lists of data/
    json_t* node_config;
    json_t* prot_settings;
    json_t* amf_servers;
    json_t* rans;
    json_t* ueList;
    json_t* scenarios;
    json_t* tests;
    json_t* monitorList;
    // pools
    KsFifoPool<KsStepChild>* ksEventPool;
    KsFifoPool<KsStepExecution>* ksStepExecutionPool;
    // global tallies
    std::atomic<uint64_t> NASErrors, NGAPErrors, UERegistered, UERegRejected, UEDeRegistered, UEIdle, UEConnected,
        UEPduSessions, TestCaseTimeout;
    // NGSetupResponses that lacked a mandatory IE; shown in the performance log.
    std::atomic<uint64_t> NGSetupResponseIncomplete;
    uint32_t fsmNGAPProcessingThreadCount;
    void* fsmNGAPProcessingQueue;
    KsScanario* ksScanarioDefault;
    KsScanario* ksScanarioHead;
    KsScanario* ksScanarioCurrent;
    KsFifoPool<KsScanario>* ksScanarioPool;
    KsFifoPool<KsStep>* ksStepPool;
    KsTestExec* ExecutingTest;
    MV_Mutex ExecutingTestLock;
    KsTestExec* tstExecHead;
    KsTestExec* tstExecCurrent;
    uint32_t onGoingTest_PerfWritten;
    MV_Mutex tstExecLock;
    __mv_ks__uefile UEFiles[10];
    uint32_t UEFileCount;
    uint32_t UECPort;
    std::atomic<uint64_t> UPTime;
    uint32_t LatchPerSecond;
    uint32_t HandleSQNSync;
    uint32_t ranAMFConnID;
    std::atomic<__mv_ks__RanAmfConn*> ranAMFConnHead;
    __mv_ks__RanAmfConn* ranAMFConnCurrent;
    MV_Mutex ranAMFConnLock;
    uint32_t ranMMEConnID;
    std::atomic<__mv_ks__RanMMEConn*> ranMMEConnHead;
    __mv_ks__RanMMEConn* ranMMEConnCurrent;
    MV_Mutex ranMMEConnLock;
    uint32_t UEIDStartNo;
    // RAN UE contexts: one block indexed by id - 1, and a FIFO free list. Ids never
    // handed out yet are taken in order from ngRanUeContextFresh before the list.
    __mv_ks__ngran_UeContext* ngRanUeContextDB;
    __mv_ks__ngran_UeContext* ngRanUeContextHead;
    __mv_ks__ngran_UeContext* ngRanUeContextCurrent;
    MV_Mutex ngRanUeContextLock;
    uint32_t ngRanUeContextTotal;
    uint32_t ngRanUeContextAvailable;
    uint64_t ngRanUeContextUsed;
    uint32_t ngRanUeContextFresh;
    // step queues
    int32_t M_MPSCount;
    int32_t M_MPS[KS_STEP_QUEUE_COUNT];
    void* M_MPS_Q[KS_STEP_QUEUE_COUNT];
    mv_morva_pool_t* commandPool;
    MV_IndexTable* gIdp;
    uint32_t EnableUETimers;
    uint32_t RanSelectionMode;
    uint32_t RanLastSelected;
    MV_Mutex RanSelectionMode_lock;
    void* pcap_protocol_files;  // names of pcap_protocols/, in directory order
    MV_Mutex step_lock;
    // the prebuilt command steps, one field each
#define KS_COMMAND_STEP_FIELD(name, code) KsStep* name;
    KS_COMMAND_STEP_FIELDS(KS_COMMAND_STEP_FIELD)
#undef KS_COMMAND_STEP_FIELD
    KS_N1_COUNTERS(KS_N1_COUNTER_FIELD)
    uint32_t WriteReport;
    char cwd[250];
    uint32_t UseSCTPSendLock;
    void* cpTeidTable;
    uint32_t DataPlanePort;
    char DataPlaneIP[30], DataPlaneAccessIP[30];
    uint32_t uDataPlaneIP, uDataPlaneAccessIP;
    uint32_t AGF_Enabled, AGF_Port;
    char AGF_IP[30];
    uint32_t uAGF_IP;
    uint32_t UseNGAPProxy;
    uint32_t IMSIPrefixWithZERO;
    uint32_t DefaultTimeoutSeconds;
    uint32_t EnableMonitoringEngine;
    uint32_t DeleteLogFiles;
    uint32_t KeepLastLogFiles;
    uint32_t UPF_SRC_PORT, UPF_DST_PORT;
    uint32_t StartNGRAN;
};

extern __mv_ks__engine* __ksEngine;

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
const char* KsNAS_GetSettingValue(uint32_t id);
const char* KsPFCP_GetPFCPSettingValue(uint32_t id);
const char* KsPFCP_GetSGWSettingValue(uint32_t id);
const char* KsPFCP_GetPGWSettingValue(uint32_t id);
const char* KsGGSN_GetPGWSettingValue(uint32_t id);
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
void Kestrane___runStepFSM(void* v);
void Kestrane___runStepAsync(MV_KsUE* ksUe, uint8_t bearer);
void Kestrane___runStepAsync_timer(MV_KsUE* ksUe);
void Kestrane___runStepAsync_timeout(MV_KsUE* ksUe);
void Kestrane___completedScalingModeStep(MV_KsUE* ksUe, uint32_t StepCode, const char* funcName, const char* file,
                                         int line);
void Kestrane___execMarkAsComplete(MV_KsUE* ksUe);
int Kestrane___hasStepExecTemplate(MV_KsUE* ksUe);
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
void KsScanario__ReleaseUEExecutionSteps(MV_KsUE* ksUe);
void KsScanario__CompleteCurrentStepAndExecutionNextStep(MV_KsUE* ksUe, uint32_t StepCode, const char* funcName,
                                                         const char* file, int line);
KsStepExecution* KsScanario__GetCurrentExecutingStep(MV_KsUE* ksUe, uint32_t expected);
int KsScanario__CurrentStepEquals(MV_KsUE* ksUe, uint32_t StepCode);
KsStepExecution* KsScanario__GetKsExecution(MV_KsUE* ksUe);
KsStep* KsScanario__GetKsExecutionStep(MV_KsUE* ksUe);
void KsScanario__ReRunScanario(MV_KsUE* ksUe, int clearResult);
void KsScanario__UpdatePduSesssionStep(uint8_t pduSessionId, MV_KsUE* ksUe);
void KsScanario__PduNextStep(void* ue);

// Report events (written only while WriteReport is set).
void KsScanario__AddEvent(MV_KsUE* ksUe, uint32_t procedureCode, uint32_t nasMessageType, uint32_t childNasMessageType,
                          uint32_t childNasMessageCategoryType);
KsStepChild* KsScanario__AddRecvEvent(MV_KsUE* ksUe, uint32_t procedureCode, uint32_t nasMessageType);
void KsScanario__AddEvent_BYNGAPID(uint64_t ngapId, uint32_t procedureCode, uint32_t nasMessageType);
void KsScanario__ClearResult(MV_KsUE* ksUe);

// ---------------------------------------------------------------- the step catalogue

// What a scenario step id builds. `Kind` picks the defaults and the Dict keys the
// builder reads; the template columns say where Dict key 22 looks.
enum class KsStepKind : uint8_t {
    Plain,         // no Dict keys
    Registration,  // id 1
    PduSession,    // id 2
    Sleep,         // id 3
    ReleaseLogicalUEConnection,
    ServiceRequest,
    DeRegistration,
    DataTPDU,   // id 7: key 4 also sets InitialContextRequest
    PacketData, // ids 1004, 2006, 3006
    Template,   // key 22: a template by message type
    Template2,  // key 22: a template by interface and command
};

struct KsStepCatalogueEntry {
    uint32_t StepId;
    const char* Builder;
    uint32_t StepCode;
    uint32_t StepIndex;
    KsStepKind Kind;
    const char* TemplateType;      // interface of key 22, or null
    int32_t TemplateInterface;     // Template2 only
    uint32_t TemplateMessage;      // message type, or Diameter command
};

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
// The runner family a StepIndex dispatches to, by name, or null for a range without one.
const char* Kestrane___runnerNameOfStepIndex(uint32_t StepIndex);

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

#define KS_COMPLETE_STEP(ue, code) \
    KsScanario__CompleteCurrentStepAndExecutionNextStep((ue), (code), __func__, __FILE_NAME__, __LINE__)

// ---------------------------------------------------------------- step timer

void KsEngine__KsUE_SetTimerActionRetry(MV_KsUE* ksUe, uint8_t maxAttempts, uint32_t stepCode);
void KsEngine__KsUE_ClearDefaultTimer(MV_KsUE* ksUe, const char* funcName);
void KsEngine__KsUE_ReschduleTimer(MV_KsUE* ksUe, const char* reason);
void KsEngine_KsUE_TimerActionOnTimeout(uint8_t* u8Ue);

// ---------------------------------------------------------------- runners

void KsNAS__runStep_FQ(MV_KsUE* ksUe, int bearer);
void KsNAS__on_tgpp_sleep_complete(void* ue);
void KsNAS__on_ntgpp_sleep_complete(void* ue);
void KsNAS__on_sleep_complete_handler(void* ue);
void KsPFCP__runStep_FQ(MV_KsUE* ksUe);
void KsPGW__runStep_FQ(MV_KsUE* ksUe);
void KsSGW__runStep_FQ(MV_KsUE* ksUe);
void KsS1AP__runStep_FQ(MV_KsUE* ksUe);
void KsGGSN__runStep_FQ(MV_KsUE* ksUe);
void Ks4GEIR__runStep_FQ(MV_KsUE* ksUe);
void KsAAA__runStep_FQ(MV_KsUE* ksUe);
void KsCHF__runStep_FQ(MV_KsUE* ksUe);
void KsPCRF__runStep_FQ(MV_KsUE* ksUe);
void KsHSS__runStep_FQ(MV_KsUE* ksUe, int mode);
void KsSMF__runStep_FQ(MV_KsUE* ksUe);
void Ks5GEIR__runStep_FQ(MV_KsUE* ksUe);
// Timer callback of a PDU session step with several sessions: asks for the next one.
void KsNAS__send_pdusession_request_3gpp(void* ue);

// When set, every step goes to this runner instead of its family's: scripted runs
// and tests stand in for a protocol with it. Null restores the families.
typedef void (*KsStepRunner)(MV_KsUE* ksUe);
void KsEngine__SetRunnerOverride(KsStepRunner runner);

// A step whose runner is not built yet: counted as send-failed and completed at once.
void Kestrane___runnerNotAvailable(MV_KsUE* ksUe, const char* runner);
