// The engine as a protocol module sees it: the step records, the UE's line, the current
// step, the completion call, the step timer, report events, and the registrations a
// module makes when it starts (its runners, its start-up work, its rows of the step
// catalogue and of the console's command table). A module includes this and KsUE.h
// (a RAN emulation also Kestrane_nodes.h), never Kestrane.h, and links ks_engine_step.
#pragma once

#include "Kestrane_engine.h"

// ---------------------------------------------------------------- settings

// A protocol's setting of data/set.json by id ("AMF", "UPF", "SGW", "PGW", "GGSN"), or null.
const char* KsNAS_GetSettingValue(uint32_t id);
const char* KsPFCP_GetPFCPSettingValue(uint32_t id);
const char* KsPFCP_GetSGWSettingValue(uint32_t id);
const char* KsPFCP_GetPGWSettingValue(uint32_t id);
const char* KsGGSN_GetPGWSettingValue(uint32_t id);

// ---------------------------------------------------------------- the UE's line

// Runs work(ksUe) on the UE's FSM line, in order with everything else for that UE: the
// way back from a timer, a queue line or a receive thread. 1 posted, 0 when the lines do
// not run yet, -1 for a null UE.
int KsEngine__PostToUELine(MV_KsUE* ksUe, fnexec work);

// ---------------------------------------------------------------- the user plane

// What a RAN emulation asks of the user-plane module, which registers it at start (null when
// the build has none): the downlink TEIDs it hands the core, so that a T-PDU to one reaches
// its session, and the first packet of a session the core set up.
struct KsUserPlane {
    uint32_t (*AllocateDownlinkTEID)(MV_KsUEPduSession* session);  // 0 when none is free
    void (*ReleaseDownlinkTEID)(uint32_t teid);
    void (*SendFirstPacket)(MV_KsUE* ksUe, uint8_t pduSessionId, uint8_t qfi);
};
void KsEngine__RegisterUserPlane(const KsUserPlane* ops);
const KsUserPlane* KsEngine__UserPlane();

// ---------------------------------------------------------------- the current step

// The execution a runner works on (it takes the head when none is set yet), its step.
KsStepExecution* KsScanario__GetKsExecution(MV_KsUE* ksUe);
KsStep* KsScanario__GetKsExecutionStep(MV_KsUE* ksUe);
// The current execution when its step has code `expected` (0: any), else null.
KsStepExecution* KsScanario__GetCurrentExecutingStep(MV_KsUE* ksUe, uint32_t expected);
// 1 when the current step has that code, 0 when another; -ENOENT without an execution,
// -ESRCH for an execution without a step, -1 for a null UE.
int KsScanario__CurrentStepEquals(MV_KsUE* ksUe, uint32_t StepCode);
int Kestrane___hasStepExecTemplate(MV_KsUE* ksUe);

// Gives back every execution of the UE and clears its command and test ids.
void KsScanario__ReleaseUEExecutionSteps(MV_KsUE* ksUe);

// ---------------------------------------------------------------- console commands of a UE

// The UE's queue of console commands as a module that runs them on the UE's line sees it.
// The engine core registers it at start; null before.
struct KsCommandQueue {
    MV_KsTestCommand* (*New)();                             // zeroed, from the pool; null when it is gone
    void (*Queue)(MV_KsUE* ksUe, MV_KsTestCommand* command);  // appended, under commandLock
    MV_KsTestCommand* (*Pop)(MV_KsUE* ksUe);                // the head, under commandLock; null when empty
    void (*Add)(MV_KsTestCommand* command, MV_KsUE* ksUe);  // the command's steps appended, or the UE updated
    void (*Release)(MV_KsTestCommand* command);             // back to its pool
};
void KsEngine__RegisterCommandQueue(const KsCommandQueue* queue);
const KsCommandQueue* KsEngine__CommandQueue();

// ---------------------------------------------------------------- completion

// Ends the UE's current step, exactly once per step: counts it, and creates and posts the
// next one or counts the UE as done. StepCode KS_STEP_CODE_FROM_UE takes the UE's own.
void KsScanario__CompleteCurrentStepAndExecutionNextStep(MV_KsUE* ksUe, uint32_t StepCode, const char* funcName,
                                                         const char* file, int line);
#define KS_COMPLETE_STEP(ue, code) \
    KsScanario__CompleteCurrentStepAndExecutionNextStep((ue), (code), __func__, __FILE_NAME__, __LINE__)
// Ends the UE's whole run in its test (an error indication, for instance).
void Kestrane___execMarkAsComplete(MV_KsUE* ksUe);
// Starts the UE's first execution with the runner of its StepIndex, on the caller's thread,
// which must be the UE's line.
void Kestrane___runStepFSM(void* ksUe);
// Runs the UE's current step again, through its test's step queue.
void Kestrane___runStepAsync(MV_KsUE* ksUe, uint8_t bearer);
void Kestrane___runStepAsync_timer(MV_KsUE* ksUe);
void Kestrane___runStepAsync_timeout(MV_KsUE* ksUe);

// ---------------------------------------------------------------- step timer

// One timer per UE, of DefaultTimeoutSeconds: on expiry the step runs again while
// attempts remain, else it completes with `stepCode`.
void KsEngine__KsUE_SetTimerActionRetry(MV_KsUE* ksUe, uint8_t maxAttempts, uint32_t stepCode);
void KsEngine__KsUE_ClearDefaultTimer(MV_KsUE* ksUe, const char* funcName);
void KsEngine__KsUE_ReschduleTimer(MV_KsUE* ksUe, const char* reason);
void KsEngine_KsUE_TimerActionOnTimeout(uint8_t* u8Ue);

// ---------------------------------------------------------------- report events

// Written only while WriteReport is set.
void KsScanario__AddEvent(MV_KsUE* ksUe, uint32_t procedureCode, uint32_t nasMessageType, uint32_t childNasMessageType,
                          uint32_t childNasMessageCategoryType);
KsStepChild* KsScanario__AddRecvEvent(MV_KsUE* ksUe, uint32_t procedureCode, uint32_t nasMessageType);
void KsScanario__AddEvent_BYNGAPID(uint64_t ngapId, uint32_t procedureCode, uint32_t nasMessageType);

// ---------------------------------------------------------------- runners

// A family's step runner: starts the UE's current step, and later completes it exactly
// once (KS_COMPLETE_STEP) on the answer, a reject or its timer.
typedef void (*KsStepRunner)(MV_KsUE* ksUe);

// Makes `runner` the runner of every StepIndex in first..last; `name` is the family's
// runner as logs and tests name it ("KsPFCP__runStep_FQ"). Where ranges overlap the
// narrowest wins, and of two alike the later. 1 registered, -1 for a bad range or a null
// runner or name.
int KsEngine__RegisterRunner(uint32_t first, uint32_t last, const char* name, KsStepRunner runner);
// The runner a StepIndex dispatches to (registered or not), by name; null for a range
// without one.
const char* Kestrane___runnerNameOfStepIndex(uint32_t StepIndex);
// The registered runner of a StepIndex, or null when its family is not in this build.
KsStepRunner KsEngine__RunnerOfStepIndex(uint32_t StepIndex);
// When set, every step goes to this runner instead of its family's: scripted runs and
// tests stand in for a protocol with it. Null restores the families.
void KsEngine__SetRunnerOverride(KsStepRunner runner);
// A step whose family is not in this build: counted as send-failed and completed at once.
void Kestrane___runnerNotAvailable(MV_KsUE* ksUe, const char* runner);

// ---------------------------------------------------------------- modules

// A module's start: registers what the module brings. Runs once, on the main thread, at
// the beginning of start-up, before any list is loaded or any thread started.
typedef void (*KsModuleInit)(void);
// Called by the registration that ks_module() generates for each module, before main;
// a program has exactly the modules it links. 1, or -1 when the table is full.
int KsEngine__AddModule(const char* name, KsModuleInit init);
// Runs every module's init once, in link order; later calls do nothing. Start-up calls it.
void KsEngine__InitModules(void);
// Whether a module of that name is in this program.
bool KsEngine__HasModule(const char* name);

// Places in start-up where a module does its part, in start-up order. A slot nobody
// filled logs "<what> is not part of this build, skipped", as start-up always did.
enum class KsStartSlot : uint8_t {
    TemplateMgr,       // after the lists of data/ are loaded
    CpTeidTable,       // before the console opens
    Console,           // the console port: before the UEs exist
    DiamIdTable,       // with the NGAP id table
    DiamDict,          // after the prebuilt command steps
    TemplateEng,
    GTP,               // after the LOCAL_GTP_IP check
    DataPath,
    PFCP,
    AGF,
    NGAPHandlers,      // after the FSM lines exist, before any RAN starts
    S1APHandlers,
    DiamHandlers,      // after the UEs are configured
    TE,                // after the NG RANs started
    MonitoringEngine,  // last
    Count
};
// One step of start-up: 1 to go on, 0 when start-up must stop (it has said why).
typedef int (*KsStartStep)(json_t* cfg);
// Fills a slot; a second registration replaces the first. 1, or -1 for a bad slot.
int KsEngine__RegisterStartStep(KsStartSlot slot, KsStartStep step);
// Runs the slot's step: its result, or -ENOENT when nobody filled the slot.
int KsEngine__RunStartStep(KsStartSlot slot, json_t* cfg);

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

// Adds a row to the step catalogue, or replaces the row of its step id; the row must
// outlive the engine (a constexpr table). 1, or -1 for a step id outside 1..199999 or
// when the table is full.
int KsEngine__RegisterStepBuilder(const KsStepCatalogueEntry* entry);

// ---------------------------------------------------------------- console commands

// Adds a console command that runs one prebuilt step of this code and index (made at
// start with the others; StepIndex 0 lets dispatch resolve it). A registered number
// replaces a built-in one. 1, or -1 when the table is full or the number is 0.
int KsEngine__RegisterCommandStep(uint32_t command, uint32_t stepCode, uint32_t stepIndex);

// A templated command (9999) of one application type: `pick` chooses the prebuilt step
// from the command's fields, or logs and returns null; `templates`, when set, looks up
// the templates of the step the command was added with.
struct KsTemplatedCommand {
    uint32_t AppType;
    KsStep* (*pick)(const MV_KsTestCommand* command, MV_KsUE* ksUe);
    void (*templates)(const MV_KsTestCommand* command, KsStep* step);
};
// Registers the application type's templated command, replacing a built-in one.
// 1, or -1 when the table is full.
int KsEngine__RegisterTemplatedCommand(const KsTemplatedCommand* row);
