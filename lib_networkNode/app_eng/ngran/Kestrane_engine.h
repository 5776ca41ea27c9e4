// The engine's records: the one engine record, tests, scenarios, steps and a UE's step
// executions. Data only: no operation is declared here, so any part of the engine can
// name a field without taking in the operations of another.
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
