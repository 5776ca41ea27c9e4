// Engine start-up, configuration, the lists of data/, the maintenance loop and the
// engine's long-lived threads.
#include "Kestrane.h"

#include "Kestrane_nodes.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "KsMonitoringEngine.h"
#include "KsPool.h"
#include "KsTE.h"
#include "KsTE_engine.h"
#include "KsTemplateEng.h"
#include "Kestrane_seams.h"
#include "mv_socket_engine.h"
#include "Kestrane_util.h"
#include "mvalgo.h"

namespace {

int started_app = 0;

struct ListFile {
    const char* file;
    json_t* __mv_ks__engine::*field;
    bool isObject;
    const char* failText;
};

constexpr ListFile kListFiles[] = {
    {AMF_JSON_FILE_NAME, &__mv_ks__engine::amf_servers, false, "Loading AMF Config Failed"},
    {NOC_JSON_FILE_NAME, &__mv_ks__engine::node_config, false, "Loading NOC Config Failed"},
    {SET_JSON_FILE_NAME, &__mv_ks__engine::prot_settings, true, "Loading SETTINGS Config Failed"},
    {RAN_JSON_FILE_NAME, &__mv_ks__engine::rans, false, "Loading RAN Config Failed"},
    {SCE_JSON_FILE_NAME, &__mv_ks__engine::scenarios, false, "Loading SCENARIOs Config Failed"},
    {TST_JSON_FILE_NAME, &__mv_ks__engine::tests, false, "Loading TESTs Config Failed"},
    {UEL_JSON_FILE_NAME, &__mv_ks__engine::ueList, false, "Loading UEList Config Failed"},
    {MON_JSON_FILE_NAME, &__mv_ks__engine::monitorList, false, "Loading MONITOR-List Config Failed"},
};

// A missing or unreadable file, or one of the wrong shape, leaves an empty container:
// the engine never runs with a null list.
void loadList(const ListFile& lf) {
    char path[600];
    snprintf(path, sizeof path, "%s/%s", __ksEngine->cwd, lf.file);
    struct stat st;
    int fsts = stat(path, &st);
    json_error_t err{};
    json_t* doc = json_load_file(path, 0, &err);
    bool shapeOk = doc && (lf.isObject ? json_is_object(doc) : json_is_array(doc));
    if (!shapeOk) {
        if (doc) snprintf(err.text, sizeof err.text, "%s", lf.isObject ? "not an object" : "not an array");
        printf("%s error:[%s] line=%d column=%d position=%d source=[%s] fsts=%d\n", lf.failText, err.text, err.line,
               err.column, err.position, err.source, fsts);
        json_decref(doc);
        doc = lf.isObject ? json_object() : json_array();
    }
    json_t* old = __ksEngine->*lf.field;
    __ksEngine->*lf.field = doc;
    json_decref(old);
}

void readScalarKeys(json_t* cfg) {
    uint32_t t = uint32_t(KsJson::number(cfg, "DefaultTimeoutSeconds", 7));
    __ksEngine->DefaultTimeoutSeconds = t < 2 ? 2 : t;
    __ksEngine->UseSCTPSendLock = uint32_t(KsJson::number(cfg, "SCTPSendLock", 0));
    char sctpBackend[16] = "auto";
    KsJson::copyString(cfg, "SCTPBackend", sctpBackend, sizeof sctpBackend);
    __mv_socket_engine__set_sctp_backend(sctpBackend, int(KsJson::number(cfg, "SCTPUDPPort", 0)));
    __ksEngine->DataPlanePort = uint32_t(KsJson::number(cfg, "DataPlanePort", 0));
    KsJson::copyString(cfg, "DataPlaneIP", __ksEngine->DataPlaneIP, sizeof __ksEngine->DataPlaneIP);
    KsJson::copyString(cfg, "DataPlaneAccessIP", __ksEngine->DataPlaneAccessIP, sizeof __ksEngine->DataPlaneAccessIP);
    __ksEngine->uDataPlaneIP = KsUtil::ipv4HostOrder(__ksEngine->DataPlaneIP);
    __ksEngine->uDataPlaneAccessIP = KsUtil::ipv4HostOrder(__ksEngine->DataPlaneAccessIP);
    __ksEngine->DeleteLogFiles = uint32_t(KsJson::number(cfg, "DeleteLogFiles", 0));
    __ksEngine->KeepLastLogFiles = uint32_t(KsJson::number(cfg, "KeepLastLogFiles", 10));
    __ksEngine->IMSIPrefixWithZERO = uint32_t(KsJson::number(cfg, "IMSIPrefixWithZERO", 0));
    __ksEngine->UseNGAPProxy = uint32_t(KsJson::number(cfg, "UseNGAPProxy", 0));
    __ksEngine->AGF_Enabled = uint32_t(KsJson::number(cfg, "AGF_Enabled", 0));
    __ksEngine->AGF_Port = uint32_t(KsJson::number(cfg, "AGF_Port", 0));
    KsJson::copyString(cfg, "AGF_IP", __ksEngine->AGF_IP, sizeof __ksEngine->AGF_IP);
    __ksEngine->uAGF_IP = KsUtil::ipv4HostOrder(__ksEngine->AGF_IP);
    __mv_setLocalTimeValue(int(KsJson::number(cfg, "TimeZoneSeconds", 0)));
    if (KsJson::number(cfg, "EnableCoreMemLog", 0) == 1) __mv_core_enable_perf_log();
    __ksEngine->UPF_SRC_PORT = uint32_t(KsJson::number(cfg, "UPF_SRC_PORT", 2152));
    __ksEngine->UPF_DST_PORT = uint32_t(KsJson::number(cfg, "UPF_DST_PORT", 2152));
    __ksEngine->StartNGRAN = uint32_t(KsJson::number(cfg, "StartNGRAN", 0));
    // Report events are kept only when asked for: they cost an event record per message.
    __ksEngine->WriteReport = KsJson::number(cfg, "WriteReport", 0) == 1 ? 1 : 0;
    printf("AGF  Enabled=%u IP=%s AGF_Port=%d\n", __ksEngine->AGF_Enabled, __ksEngine->AGF_IP,
           int(__ksEngine->AGF_Port));
}

void applyLogLevels(json_t* cfg) {
    __mv_set_log_level(MV_APP_LOG, 1);
    __mv_set_log_level(MV_CMN_LOG, 1);
    __mv_set_log_level(MV_STK_LOG, 1);
    json_t* ll = json_object_get(cfg, "LogLevel");
    if (!json_is_object(ll)) return;
    // __mv_set_log_level ignores values outside 1..5, which leaves that channel at 1.
    __mv_set_log_level(MV_APP_LOG, uint32_t(KsJson::number(ll, "APPLICATION", 1)));
    __mv_set_log_level(MV_STK_LOG, uint32_t(KsJson::number(ll, "STACK", 1)));
    __mv_set_log_level(MV_CMN_LOG, uint32_t(KsJson::number(ll, "COMMON", 1)));
}

// Returns 0 when start-up must stop.
int KsEngine__InitializeApp_Config(json_t* cfg) {
    __ksEngine->localIPCount = 0;
    __ksEngine->localIPVersion = 4;
    __ksEngine->amfCount = 0;
    __ksEngine->UEFileCount = 0;
    __ksEngine->imsiTable = __mv_power_table_create();
    __ksEngine->N2HandoverTable = __mv_power_table_create();

    if (json_t* la = json_object_get(cfg, "LocalAddress"); la) {
        __ksEngine->localIPVersion = KsJson::number(la, "IPVersion", 4) == 6 ? 6 : 4;
        json_t* ips = json_object_get(la, "IP");
        if (!ips || (json_is_array(ips) && json_array_size(ips) == 0)) {
            printf("please configure LocalAddress-IP %s|%d\n", __func__, __LINE__);
            return 0;
        }
        if (!json_is_array(ips)) {
            printf("LocalAddress-IP should be an array %s|%d\n", __func__, __LINE__);
            return 0;
        }
        size_t i;
        json_t* ip;
        json_array_foreach(ips, i, ip) {
            if (__ksEngine->localIPCount >= 10) break;
            if (!json_is_string(ip)) continue;
            snprintf(__ksEngine->localIP[__ksEngine->localIPCount++], 50, "%s", json_string_value(ip));
        }
    }

    if (json_t* amfs = json_object_get(cfg, "AMFNodes"); json_is_array(amfs)) {
        size_t i;
        json_t* a;
        json_array_foreach(amfs, i, a) {
            if (!json_object_get(a, "ID")) {
                printf("ID is missing in AMF Configuration\n");
                continue;
            }
            if (!json_object_get(a, "Port")) {
                printf("Port is missing in AMF Configuration\n");
                continue;
            }
            if (!json_object_get(a, "IP")) {
                printf("IP is missing in AMF Configuration\n");
                continue;
            }
            KsEngine__AddStaticAMFNode(a);
        }
    }

    if (json_t* files = json_object_get(cfg, "UEFiles"); json_is_array(files)) {
        size_t i;
        json_t* f;
        json_array_foreach(files, i, f) {
            if (__ksEngine->UEFileCount >= 10) break;
            const char* name = json_string_value(json_object_get(f, "Name"));
            if (!name) continue;
            __mv_ks__uefile& uf = __ksEngine->UEFiles[__ksEngine->UEFileCount++];
            snprintf(uf.FileName, sizeof uf.FileName, "%s", name);
            uf.Enabled = int32_t(KsJson::number(f, "Enabled", 1));
        }
    }

    __ksEngine->UECPort = uint32_t(KsJson::number(cfg, "CLIPort", 9119));
    return 1;
}

void* testExecutionThreadEntry(void* arg) { return KsEngine__TestExecutionThread(arg); }

sigset_t endingSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGQUIT);
    return set;
}

void unblockEndingSignals() {
    sigset_t set = endingSignals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void blockEndingSignals() {
    sigset_t set = endingSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    // A program started from here (a capture, a helper) gets them as any process does.
    static std::once_flag once;
    std::call_once(once, [] { pthread_atfork(nullptr, nullptr, unblockEndingSignals); });
}

// Logging and ending connections are not safe in a signal handler; this thread may.
void* signalThread(void*) {
    sigset_t set = endingSignals();
    for (;;) {
        int sig = 0;
        if (sigwait(&set, &sig) == 0) KsEngine__signalhandler(sig);
    }
    return nullptr;
}

void startSignalThread() {
    static std::once_flag once;
    std::call_once(once, [] { __mv_create_pthread2(signalThread, nullptr, "mv_signal"); });
}

void readPcapNames() {
    char path[600];
    snprintf(path, sizeof path, "%s/pcap_protocols", __ksEngine->cwd);
    json_t* names = json_array();
    if (DIR* d = opendir(path)) {
        while (struct dirent* e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            json_array_append_new(names, json_string(e->d_name));
        }
        closedir(d);
    }
    __ksEngine->pcap_protocol_files = names;
}

// ---------------------------------------------------------------- start-up phases, in order

// The working directory, the runtime, the logger, the socket engine and crypto. 0 when
// start-up must stop.
int startRuntime(char* cwd, size_t cap) {
    if (!getcwd(cwd, cap)) {
        printf("cannot get current directory informtion");
        return 0;
    }
    printf("current working directory:%s\n", cwd);

    char logRoot[300];
    snprintf(logRoot, sizeof logRoot, "%s/logs/", cwd);
    __init_morva_core();
    __mv_init_logger(logRoot);
    __mv_socket_engine_init();
    __mv_ogs_init_crypto_fun();
    printf("logs path:%s\n", logRoot);
    startSignalThread();

    if (started_app == 1) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Application is already in start state  %s|%d", __func__,
                 __LINE__);
        return 0;
    }
    return 1;
}

// The configuration file as a JSON object, or null when start-up must stop.
json_t* loadConfiguration(const char* path) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "---------------- Kestrane %s ----------------",
             KestraneVersion);
    json_error_t err{};
    json_t* cfg = json_load_file(path, 0, &err);
    if (cfg && !json_is_object(cfg)) {
        snprintf(err.text, sizeof err.text, "%s", "configuration is not a JSON object");
        json_decref(cfg);
        cfg = nullptr;
    }
    if (!cfg) {
        printf("error loading config file:%s  error:[%s] line=%d column=%d position=%d source=[%s]\n", path, err.text,
               err.line, err.column, err.position, err.source);
        return nullptr;
    }
    started_app = 1;
    return cfg;
}

// The engine record, data/ and the capture names.
int createEngineRecord(const char* cwd, json_t* cfg) {
    __ksEngine = __mv_arena_new<__mv_ks__engine>();
    snprintf(__ksEngine->cwd, sizeof __ksEngine->cwd, "%s", cwd);
    __ksEngine->DefaultTimeoutSeconds = 7;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Starting Kestrane %s %s|%d", KestraneVersion, __func__,
             __LINE__);

    char dataDir[300];
    snprintf(dataDir, sizeof dataDir, "%s/data", cwd);
    if (__mv_do_mkdir(dataDir, 0700) != 0) {
        printf("creating 'data' folder failed, please provide file and folder create permissions");
        return 0;
    }

    readPcapNames();
    __ksEngine->config = cfg;
    __ksEngine->UPTime = 0;
    __ksEngine->WriteReport = 0;
    return 1;
}

void loadLists(json_t* cfg) {
    KsEngine__LoadAMFList();
    KsEngine__LoadNOC();
    KsEngine__LoadSettings();
    KsEngine__LoadRANs();
    KsEngine__LoadScanarios();
    KsEngine__LoadTests();
    KsEngine__LoadUEL();
    KsEngine__LoadMonitorList();
    KsSeam__TemplateMgr_Init(cfg);
}

void createStepQueues() {
    for (int i = 0; i < KS_STEP_QUEUE_COUNT; ++i) {
        __ksEngine->M_MPS[i] = 0;
        __mv_core_create_queue(&__ksEngine->M_MPS_Q[i], Kestrane___runStep, 1, 10000);
    }
    __ksEngine->M_MPSCount = KS_STEP_QUEUE_COUNT;
}

// Local addresses, static AMFs, UE files and the console port. 0 when start-up must stop.
int readAppConfig(json_t* cfg) {
    __ksEngine->ranAMFConnID = 1;
    __ksEngine->ranMMEConnID = 1;
    __ksEngine->mmeHead = __ksEngine->mmeCurrent = nullptr;
    __ksEngine->mmeCount = 0;
    if (!KsEngine__InitializeApp_Config(cfg)) return 0;

    if (__ksEngine->UECPort != 0 && (__ksEngine->UECPort < 9118 || __ksEngine->UECPort > 9130)) {
        printf("\nKestrane: CLI Port is out of Range=%u, should be between 9118 and 9130.\n", __ksEngine->UECPort);
        return 0;
    }
    return 1;
}

// The console port opens before UEs exist; the scenario files follow.
int openConsoleAndScenarios(json_t* cfg) {
    __ksEngine->fsmNGAPProcessingThreadCount = KS_FSM_LINE_COUNT;
    KsSeam__create_cpTeidTable(cfg);

    if (!KsSeam__Console_Start(cfg)) return 0;
    // The scenario and step pools exist before anything builds a scenario: the files
    // here, the default scenario with the first UE, the prebuilt command steps.
    __ksEngine->ksScanarioPool = new (__mv_malloc(sizeof(KsFifoPool<KsScanario>))) KsFifoPool<KsScanario>(200, 200);
    __ksEngine->ksStepPool = new (__mv_malloc(sizeof(KsFifoPool<KsStep>))) KsFifoPool<KsStep>(500, 500);
    return KsScanario__LoadScanarios() ? 1 : 0;
}

// The UE pool, the event and execution pools, and the id spaces of RAN UEs.
int createUEPoolsAndIds(json_t* cfg) {
    uint32_t capacity = KS_BUILTIN_UE_CAPACITY;
    uint32_t maxUE = uint32_t(KsJson::number(cfg, "MaximumUE", 1000000));
    uint32_t poolSize = maxUE < capacity ? maxUE : capacity;
    printf("creating ue-pool with count=%u\n", poolSize);
    if (!KsEngine__InitializeksUE_Pool(capacity)) return 0;
    printf("creatd ue-pool with count=%u\n", poolSize);

    __ksEngine->ksEventPool = new (__mv_malloc(sizeof(KsFifoPool<KsStepChild>))) KsFifoPool<KsStepChild>(1000, 1000);
    __ksEngine->ksStepExecutionPool =
        new (__mv_malloc(sizeof(KsFifoPool<KsStepExecution>))) KsFifoPool<KsStepExecution>(10000, 1000);

    __ksEngine->maxRanUEIDs = capacity;
    if (json_t* m = json_object_get(cfg, "MaxRANUEID"); json_is_integer(m)) {
        json_int_t v = json_integer_value(m);
        if (v > 0 && uint64_t(v) < capacity) {
            __ksEngine->maxRanUEIDs = uint32_t(v);
            printf("Configured to Initalize %ld UE\n", long(v));
        }
    }
    __mv_core_set_max_fd(51200);

    __ksEngine->gIdp = __mv_IndexTable_create(1502, __ksEngine->maxRanUEIDs);
    KsSeam__create_diam_id_table(cfg);
    __ksEngine->UEIDStartNo = uint32_t(KsJson::number(cfg, "RANUEIDStartNo", 1));
    KsEngine__CreateNGRanUEContext(0);
    return 1;
}

// Subscriber files, the command pool, the N1 counters and the prebuilt command steps.
int loadSubscribersAndCommands(json_t* cfg) {
    if (!KsEngine__LoadUEConfigs()) return 0;

    __mv_set_mpscounter(KsEngine__sentmpscounter);

    __ksEngine->RanSelectionMode = 0;
    __ksEngine->RanLastSelected = 0;
    __ksEngine->commandPool = __mv_pool_create("commandPool", KS_COMMAND_POOL_ITEM_SIZE, 1000, 1);
    KsEngine__CreateN1Counters();

    KsScanario__CreateCommandSteps();
    static constexpr KsCommandQueue kCommandQueue{KsScanario__NewTestCommand, KsScanario__QueueTestCommand,
                                                  KsScanario__PopTestCommand, KsScanario__AddTestCommand,
                                                  KsScanario__ReleaseTestCommand};
    KsEngine__RegisterCommandQueue(&kCommandQueue);
    return KsSeam__DiamDict_Init(cfg);
}

// The protocol subsystems in their fixed order, the UEs' lines, and the RAN nodes.
int startProtocols(json_t* cfg) {
    if (!KsTemplateEng__Init()) return 0;
    if (!KsSeam__GTP_Init(cfg)) return 0;
    if (!KsSeam__DataPath_Init(cfg) || !KsSeam__PFCP_Init(cfg) || !KsSeam__AGF_Init(cfg)) return 0;

    __mv_core_create_fsmqueue(&__ksEngine->fsmNGAPProcessingQueue, KsUtil::dummy_1, KS_FSM_LINE_COUNT, 10000);
    if (!KsSeam__register_ngap_handlers(cfg) || !KsSeam__register_s1ap_handlers(cfg)) return 0;
    KsEngine__InitializeRanNode_Configs();
    KsEngine__ConfigureDynamicMMENodes();
    return 1;
}

void configureUEs() {
    int files = int(json_array_size(__ksEngine->ueList));
    printf("Configuring UEs , please wait... %d file(s) |%d\n", files, __LINE__);
    int created = KsEngine__ConfigureUEList(__ksEngine->ueList);
    (void)created;
    printf("Configured Total UEs count=%d|%d\n", __ksEngine->ksUETotal, __LINE__);
}

void startNodes(json_t* cfg) {
    KsSeam__register_diam_handlers(cfg);
    if (__ksEngine->StartNGRAN == 1) {
        KsEngine__ConfigureDynamicAMfNodes();
        KsEngine__ConfigureDynamicRanNodes();
        KsEngine__StartNGRANs();
    }
    KsTE__AttachEngine();
    KsTE__Init();
    __mv_enable_coredump();
}

void startThreads() {
    for (int i = 0; i < KS_STEP_QUEUE_COUNT; ++i) {
        int* idx = new int(i);
        __mv_create_pthread2(testExecutionThreadEntry, idx, "t-e-t");
    }
    __mv_create_pthread2(KsEngine__TestPerformanceThread, nullptr, "t-e-t");
    __mv_create_pthread2(KsEngine__RANStatsThread, nullptr, "rst");
}

void finishStartup(json_t* cfg) {
    KsEngine__LoadUEAddlData(cfg);
    __ksEngine->EnableMonitoringEngine = uint32_t(KsJson::number(cfg, "EnableMonitoringEngine", 0));
    KsMonitoringEngine__Init();
    // Tests named here are queued as soon as the engine is up, for runs without a console.
    if (json_t* auto_ = json_object_get(cfg, "AutoStartTests"); json_is_array(auto_)) {
        size_t i;
        json_t* id;
        json_array_foreach(auto_, i, id) {
            if (json_is_integer(id) && json_integer_value(id) > 0)
                (void)KsEngine__AddTestToQueue(uint32_t(json_integer_value(id)), KS_TEST__QUEUED);
        }
    }
    printf("Initalization of KsTest is completed|%d\n", __LINE__);
    printf("----------------------------------------------------------------\n");
    fflush(stdout);
}

}  // namespace

void KsEngine__LoadAMFList() { loadList(kListFiles[0]); }
void KsEngine__LoadNOC() { loadList(kListFiles[1]); }
void KsEngine__LoadSettings() { loadList(kListFiles[2]); }
void KsEngine__LoadRANs() { loadList(kListFiles[3]); }
void KsEngine__LoadScanarios() { loadList(kListFiles[4]); }
void KsEngine__LoadTests() { loadList(kListFiles[5]); }
void KsEngine__LoadUEL() { loadList(kListFiles[6]); }
void KsEngine__LoadMonitorList() { loadList(kListFiles[7]); }

int KsEngine__SaveFile(json_t* jRoot, const char* path) {
    if (!jRoot || !path) return 0;
    char full[600];
    snprintf(full, sizeof full, "%s/%s", __ksEngine ? __ksEngine->cwd : ".", path);
    return KsUtil::saveJsonAtomically(jRoot, full) ? 1 : 0;
}

void KsEngine__signalhandler(int signum) {
    for (uint32_t channel : {MV_STK_LOG, MV_APP_LOG, MV_PER_LOG, MV_CMN_LOG})
        __mv_log(channel, channel == MV_APP_LOG ? LOG_CAT_APP : LOG_CAT_CORE, MV_LOG_CRITICAL,
                 "Received signal=%d exiting %s|%s|%d", signum, __FILE_NAME__, __func__, __LINE__);
    // The userspace SCTP stack dies with the process and tells no peer: without an
    // ABORT an AMF would keep our gNBs until its heartbeats fail.
    int ended = __mv_socket_engine_abort_all();
    __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "ended %d connections before exiting %s|%s|%d", ended,
             __FILE_NAME__, __func__, __LINE__);
    fflush(stdout);
    _exit(0);
}

void KsEngine__sentmpscounter() {
    std::lock_guard g(__ksEngine->lastSentLock);
    ++__ksEngine->lastSent;
}

int KsEngine__Startup(int argc, char** argv) {
    const char* prog = argc > 0 && argv && argv[0] ? argv[0] : "kestrane";
    // Line by line, so that what was printed is there when the output is a file and
    // the process is ended from outside.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    printf("\n----------------------------------------------------------------\n");
    printf("%s %s\n", prog, KestraneVersion);
    printf("----------------------------------------------------------------\n");
    // Blocked in every thread started from here on, and taken by a thread of their own.
    blockEndingSignals();

    if (argc < 2 || !argv[1] || !*argv[1]) {
        printf("please provide configuration file with full path., syntax: %s ./config.json\n", prog);
        return 0;
    }

    char cwd[250];
    if (!startRuntime(cwd, sizeof cwd)) return 0;
    json_t* cfg = loadConfiguration(argv[1]);
    if (!cfg) return 0;
    KsEngine__InitModules();
    if (!createEngineRecord(cwd, cfg)) return 0;
    loadLists(cfg);
    applyLogLevels(cfg);
    readScalarKeys(cfg);
    createStepQueues();
    if (!readAppConfig(cfg)) return 0;
    if (!openConsoleAndScenarios(cfg)) return 0;
    if (!createUEPoolsAndIds(cfg)) return 0;
    if (!loadSubscribersAndCommands(cfg)) return 0;
    if (!startProtocols(cfg)) return 0;
    configureUEs();
    startNodes(cfg);
    startThreads();
    finishStartup(cfg);
    return 1;
}

void KsEngine__doEvents() {
    for (;;) {
        ++__ksEngine->UPTime;
        KsEngine__LatchUEs();
        usleep(999999);
    }
}

void* KsEngine__RANStatsThread(void*) {
    for (;;) {
        KsEngine__doRanStats();
        usleep(999900);
    }
    return nullptr;
}

void* KsEngine__TestPerformanceThread(void*) {
    static const char* kDirs[] = {"stk", "per", "app", "cmn"};
    for (;;) {
        KsEngine__WritePerformanceBlock();
        const char* root = __mv_get_logger_rootpath();
        if (__ksEngine->DeleteLogFiles == 1 && __ksEngine->KeepLastLogFiles >= 2 && root && *root) {
            for (const char* d : kDirs) {
                char dir[600];
                snprintf(dir, sizeof dir, "%s/%s", root, d);
                __mv_log_delete_old_log_files(dir, 10, 20);
            }
        }
        sleep(1);
    }
    return nullptr;
}
