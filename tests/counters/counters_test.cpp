// Counters, the performance block, RAN statistics and text reports, in a running
// engine: what the performance log and ./reports/ show.
#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "KsPool.h"
#include "KsTextReport.h"
#include "Kestrane.h"
#include "ks_engine_env.h"
#include "mv_naspdu.h"

namespace {

std::string imsi(int n) {
    char b[20];
    snprintf(b, sizeof b, "00101%010d", n);
    return b;
}

// No console: these tests reach the engine's operations directly.
const char* const kNoConsole = R"({"LOCAL_GTP_IP": "127.0.0.1", "MaximumUE": 5000, "IMSIPrefixWithZERO": 1, "CLIPort": 0})";

kst::EngineInDir* gEngine = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(
    new kst::EngineInDir("counters",
                             {{"cfg.json", kNoConsole},
                             {"data/uel.json", "[{\"ID\": 1, \"MSINStart\": \"" + imsi(1) + "\", \"MSINEnd\": \"" + imsi(50) +
                                               "\", \"MCC\": \"001\", \"MNC\": \"01\", \"MSISDNBegin\": \"9000000001\"}]"},
                              {"data/sce.json", R"([{"ID": 4, "Name": "walk", "Config": [{"ID": 3, "Dict": [{"Key": 3, "Value": "0"}]}]}])"},
                              {"data/tst.json", R"([{"ID": 7, "Name": "seven", "ScenarioID": 4, "MPS": 50,
                                               "SUPIStartNo": "001010000000001", "SUPIStartEnd": "001010000000003"}])"}})));

std::string perLog() { return kst::readLogDir(gEngine->dir() + "/logs/per"); }

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// A test record of its own per call, so that counts never leak between tests.
KsTestExec* newTest(uint32_t appType) {
    static uint32_t next = 1000;
    uint32_t id = next++;
    EXPECT_EQ(KsEngine__AddTestToQueue(id, KS_TEST__IDLE), 3u);
    KsTestExec* t = KsEngine__FindTest(id);
    t->AppType = appType;
    snprintf(t->TestName, sizeof t->TestName, "block-%u", id);
    return t;
}

// The counter names of the last block the test printed, in order; the performance
// thread is kept out while the block is written.
std::vector<std::string> printedNames(KsTestExec* t) {
    {
        std::lock_guard g(__ksEngine->tstExecLock);
        t->Status = KS_TEST__RUNNING;
        Kestrane___writeTestStats(t, 0);
        t->Status = KS_TEST__IDLE;
    }
    std::vector<std::string> all = lines(perLog()), names;
    std::string title = std::string("TestName=") + t->TestName + "   AppType=";
    size_t at = all.size();
    for (size_t i = 0; i < all.size(); ++i)
        if (all[i].find(title) != std::string::npos) at = i;
    EXPECT_LT(at, all.size());
    // Title, a dashed line, the counters, a dashed line. The performance thread writes
    // the head of its own block without that lock, and its lines may fall among the
    // counters: only counter lines (name, current, total) are taken.
    size_t want = KsEngine__CounterBlock(t->AppType).PrintedCount + 1;
    for (size_t i = at + 2; i < all.size() && names.size() < want; ++i) {
        std::istringstream w(all[i].substr(all[i].find('|') == std::string::npos ? 0 : all[i].rfind('|') + 1));
        std::string name, extra;
        long cur = 0, total = 0;
        if (w >> name >> cur >> total && !(w >> extra)) names.push_back(name);
    }
    return names;
}

TEST(CounterBlock, PrintsTheCountersOfItsAppTypeInOrderThenExecutionTimeout) {
    const std::vector<std::string> amf = {
        "RegistrationRequest", "RegistrationAccept", "RegistrationComplete", "RegistrationReject",
        "AuthenticationRequest", "AuthenticationResponse", "AuthenticationFailure", "AuthenticationReject",
        "SecurityModeCommand", "SecurityModeComplete", "SecurityModeReject", "IdentityRequest", "IdentityResponse",
        "DeregistrationRequest", "DeregistrationAccept", "ConfigurationUpdateCommand", "ConfigurationUpdateComplete",
        "ServiceRequest", "ServiceAccept", "ServiceReject", "InitailContextSetupRequest", "InitailContextSetupResponse",
        "UEContextReleaseRequest", "UEContextReleaseCommand", "UEContextReleaseComplete",
        "PDUSessionEstablishmentRequest", "PDUSessionEstablishmentAccept", "PDUSessionReleaseRequest",
        "PDUSessionReleaseCommand", "PDUSessionReleaseComplete", "ErrorIndication", "ExecutionTimeout"};
    EXPECT_EQ(printedNames(newTest(1)), amf);

    const std::vector<std::string> upf = {
        "PFCPSessionEstablishmentRequest", "PFCPSessionEstablishmentResponse", "PFCPSessionEstablishmentErrorResponse",
        "PFCPSessionEstablishmentSendFailed", "PFCPSessionModificationRequest", "PFCPSessionModificationResponse",
        "PFCPSessionModificationErrorResponse", "PFCPSessionModificationSendFailed", "PFCPSessionDeleteRequest",
        "PFCPSessionDeleteResponse", "PFCPSessionDeleteErrorResponse", "PFCPSessionDeleteSendFailed",
        "PFCPReceivedReportRequest", "PFCPSentReportResponse", "PFCPSentGTPPacket", "PFCPRecvGTPPacket",
        "ExecutionTimeout"};
    EXPECT_EQ(printedNames(newTest(2)), upf);

    const std::vector<std::string> sgw = {"SGW_CreateSesssionRequest", "SGW_CreateSesssionResponse",
                                          "SGW_CreateSesssionErrorResponse", "SGW_ModifyBearerRequest",
                                          "SGW_ModifyBearerResponse", "SGW_ModifyBearerErrorResponse",
                                          "SGW_DeleteSessionRequest", "SGW_DeleteSessionResponse",
                                          "SGW_DeleteSessionErrorResponse", "ExecutionTimeout"};
    EXPECT_EQ(printedNames(newTest(6)), sgw);

    struct Sized {
        uint32_t type;
        size_t count;
        const char* first;
        const char* last;
    };
    for (const Sized& s : std::vector<Sized>{{5, 10, "PGW_CreateSesssionRequest", "PGW_DeleteSessionErrorResponse"},
                                             {7, 61, "HSSS6A_ULRequest", "HSSSWx_ServerAssignmentRequestTimeout"},
                                             {8, 5, "EIR4GRequest", "EIR4GRequestTimeout"},
                                             {10, 25, "PCRFGx_CreditControlRequestInitial",
                                              "PCRFRx_CreditControlRequestTerminateTimeout"},
                                             {11, 13, "AAASWm_Diameter_EAP_Request", "AAASWm_Session_Teminate_Timeout"},
                                             {12, 13, "CHFGy_CreditControlRequestInitial",
                                              "CHFGy_CreditControlRequestTerminateTimeout"},
                                             {31, 10, "GGSN_CreatePDPContextRequest",
                                              "GGSN_DeletePDPContextErrorResponse"}}) {
        SCOPED_TRACE(s.type);
        auto names = printedNames(newTest(s.type));
        ASSERT_EQ(names.size(), s.count);
        EXPECT_EQ(names.front(), s.first);
        EXPECT_EQ(names[names.size() - 2], s.last);
        EXPECT_EQ(names.back(), "ExecutionTimeout");
    }
    for (uint32_t type : {0u, 3u, 4u, 9u, 13u, 18u, 24u, 30u}) {
        SCOPED_TRACE(type);
        EXPECT_EQ(printedNames(newTest(type)), std::vector<std::string>{"ExecutionTimeout"});
    }
}

TEST(CounterBlock, LinesShowTheDeltaSinceTheLastPrintAndThePassCount) {
    KsTestExec* t = newTest(1);
    for (int i = 0; i < 7; ++i) __mv_counter_increment_request(&t->RegistrationRequest);
    printedNames(t);
    for (int i = 0; i < 3; ++i) __mv_counter_increment_request(&t->RegistrationRequest);
    printedNames(t);
    EXPECT_EQ(t->RegistrationRequest.CurrentCount.load(), 3);
    auto all = lines(perLog());
    std::vector<std::string> mine;
    for (const auto& l : all)
        if (l.find("RegistrationRequest ") != std::string::npos) mine.push_back(l);
    ASSERT_GE(mine.size(), 2u);
    char expect[120];
    snprintf(expect, sizeof expect, "%-40s   %-10ld   %-10lu", "RegistrationRequest", 3L, 10UL);
    EXPECT_NE(mine.back().find(expect), std::string::npos) << mine.back();
    EXPECT_NE(all[0].size(), 0u);
}

TEST(CounterBlock, RequestIsPerPassAndTotalPerTest) {
    KsTestExec* t = newTest(2);
    KsEngine__ReInit_MVCounters(t, 1);
    auto count = [](MV_Counter& c, int n) {
        for (int i = 0; i < n; ++i) __mv_counter_increment_request(&c);
    };
    // pass 1
    KsEngine__ReInit_MVCounters(t, 0);
    count(t->PFCPSessionEstablishmentRequest, 5);
    count(t->RegistrationTimeout, 2);  // reset with type 2, never printed
    count(t->ExecutionTimeout, 1);
    count(t->PGW_CreateSesssionRequest, 4);  // another type's counter: untouched
    printedNames(t);
    KsEngine__ReInit_MVCounters(t, 2);
    EXPECT_EQ(t->PFCPSessionEstablishmentRequest.CurrentCount.load(), 0);
    EXPECT_EQ(t->PFCPSessionEstablishmentRequest.lastRequest.load(), 0u);
    // pass 2
    KsEngine__ReInit_MVCounters(t, 0);
    EXPECT_EQ(t->PFCPSessionEstablishmentRequest.Request.load(), 0u);
    EXPECT_EQ(t->PFCPSessionEstablishmentRequest.Total.load(), 5u);
    EXPECT_EQ(t->RegistrationTimeout.Request.load(), 0u);
    EXPECT_EQ(t->ExecutionTimeout.Total.load(), 1u);
    count(t->PFCPSessionEstablishmentRequest, 2);
    EXPECT_EQ(t->PFCPSessionEstablishmentRequest.Request.load(), 2u);
    EXPECT_EQ(t->PFCPSessionEstablishmentRequest.Total.load(), 7u);
    EXPECT_EQ(t->PGW_CreateSesssionRequest.Request.load(), 4u);
    // a new test
    KsEngine__ReInit_MVCounters(t, 1);
    EXPECT_EQ(t->PFCPSessionEstablishmentRequest.Total.load(), 0u);
    EXPECT_EQ(t->RegistrationTimeout.Total.load(), 0u);
    EXPECT_EQ(t->ExecutionTimeout.Total.load(), 0u);
    EXPECT_EQ(t->PGW_CreateSesssionRequest.Total.load(), 4u);
}

TEST(CounterBlock, EveryCounterHasItsNameAndLimit) {
    KsTestExec* t = newTest(0);
    size_t n = 0;
    const KsCounterName* names = KsEngine__CounterNames(&n);
    EXPECT_EQ(n, 196u) << "194 protocol counters, ExecutionTimeout and the step send-failed counter";
    std::set<std::string> seen;
    for (size_t i = 0; i < n; ++i) {
        MV_Counter& c = t->*names[i].Field;
        EXPECT_STREQ(c.Name, names[i].Name);
        EXPECT_EQ(c.MaxLimit.load(), 10000000);
        EXPECT_TRUE(seen.insert(names[i].Name).second) << names[i].Name;
    }
    EXPECT_STREQ(t->AuthenticationResult.Name, "AuthenticationResponse");
    EXPECT_STREQ(t->ServiceTimeout.Name, "ServiceRequestTimeout");
    EXPECT_STREQ(t->SecurityModeTimeout.Name, "SecurityModeCommandTimeout");
}

// The console's numbers, from its table; each names the counter the engine sends.
TEST(CounterBlock, ConsoleNumbersNameTheirCounters) {
    struct Row {
        uint32_t type, id;
        const char* name;
    };
    const Row rows[] = {
        {1, 1, "RegistrationRequest"},  {1, 2, "RegistrationReject"},     {1, 7, "AuthenticationResponse"},
        {1, 14, "ServiceRequestTimeout"}, {1, 18, "SecurityModeCommandTimeout"}, {1, 30, "ErrorIndication"},
        {1, 34, "PDUSessionEstablishmentReject"}, {1, 38, "PDUSessionReleaseTimeout"}, {1, 39, "NGAPSendFailed"},
        {2, 301, "PFCPSessionEstablishmentRequest"}, {2, 312, "PFCPSessionDeleteSendFailed"},
        {2, 316, "PFCPRecvGTPPacket"}, {5, 1171, "PGW_CreateSesssionRequest"}, {5, 1183, "PGW_ModifyBearerErrorResponse"},
        {5, 1193, "PGW_DeleteSessionErrorResponse"}, {6, 1311, "SGW_ModifyBearerRequest"},
        {6, 1323, "SGW_DeleteSessionErrorResponse"}, {7, 901, "HSSS6A_ULRequest"}, {7, 933, "HSSS6A_NRSendFailed"},
        {7, 943, "HSSSh_UDRSendFailed"}, {7, 954, "HSSSh_ProfileUpdateRequestTimeout"},
        {7, 1023, "HSSCx_RegistrationTerminationRquestSendFailed"}, {7, 1044, "HSSSWx_ServerAssignmentRequestTimeout"},
        {8, 601, "EIR4GRequest"}, {8, 604, "EIR4GRequestTimeout"}, {10, 1051, "PCRFGx_CreditControlRequestInitial"},
        {10, 1072, "PCRFGx_CreditControlRequestTerminateAnswer"}, {10, 1104, "PCRFRx_CreditControlRequestTerminateTimeout"},
        {11, 1141, "AAASWm_Diameter_EAP_Request"}, {11, 1153, "AAASWm_AA_RequestSendFailed"},
        {11, 1164, "AAASWm_Session_Teminate_Timeout"}, {12, 1111, "CHFGy_CreditControlRequestInitial"},
        {12, 1134, "CHFGy_CreditControlRequestTerminateTimeout"}, {31, 1401, "GGSN_CreatePDPContextRequest"},
        {31, 1406, "GGSN_UpdatePDPContextErrorResponse"}, {31, 1409, "GGSN_DeletePDPContextErrorResponse"},
        {3, 50000, "ExecutionTimeout"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(std::to_string(r.type) + "/" + std::to_string(r.id));
        const char* n = KsEngine__CounterNameByID(r.type, r.id);
        ASSERT_NE(n, nullptr);
        EXPECT_STREQ(n, r.name);
    }
    EXPECT_EQ(KsEngine__CounterNameByID(1, 40), nullptr);
    EXPECT_EQ(KsEngine__CounterNameByID(2, 39), nullptr);
    EXPECT_EQ(KsEngine__CounterNameByID(7, 905), nullptr);

    // Every console row of every type: a unique number naming the counter it reads.
    size_t n = 0;
    const KsCounterName* names = KsEngine__CounterNames(&n);
    for (uint32_t type = 0; type < 32; ++type) {
        const KsCounterBlock& b = KsEngine__CounterBlock(type);
        std::set<uint32_t> ids;
        for (size_t i = 0; i < b.ConsoleCount; ++i) {
            EXPECT_TRUE(ids.insert(b.Console[i].ID).second);
            const char* byField = nullptr;
            for (size_t k = 0; k < n; ++k)
                if (names[k].Field == b.Console[i].Field) byField = names[k].Name;
            EXPECT_STREQ(KsEngine__CounterNameByID(type, b.Console[i].ID), byField) << type << "/" << b.Console[i].ID;
        }
    }
}

TEST(EngineCounters, N1CountersAndTallies) {
    EXPECT_STREQ(__ksEngine->Sent_N1_Registration->Name, "Sent_N1_Registration");
    EXPECT_STREQ(__ksEngine->Sent_N1_SendServiceRequest->Name, "Sent_N1_ServiceRequest");
    EXPECT_STREQ(__ksEngine->Revd_N1_DeRegistrationAccept->Name, "Revd_N1_DeRegistrationAccept");
    EXPECT_STREQ(__ksEngine->Sent_N1_ConfigurationUpdateCommpete->Name, "Sent_N1_ConfigurationUpdateCommpete");
    EXPECT_EQ(__ksEngine->Ignr_N1_RegistrationAccept->MaxLimit.load(), 10000000);
    uint64_t reg = __ksEngine->UERegistered, dereg = __ksEngine->UEDeRegistered, rej = __ksEngine->UERegRejected,
             to = __ksEngine->TestCaseTimeout;
    KsEngine__IncrUERegistered();
    KsEngine__IncrUERegistered();
    KsEngine__IncrUEDeRegistered();
    KsEngine__IncrUERegistrationRejected();
    KsEngine__TimeOut();
    EXPECT_EQ(__ksEngine->UERegistered - reg, 2u);
    EXPECT_EQ(__ksEngine->UEDeRegistered - dereg, 1u);
    EXPECT_EQ(__ksEngine->UERegRejected - rej, 1u);
    EXPECT_EQ(__ksEngine->TestCaseTimeout - to, 1u);
}

TEST(PerformanceBlock, PoolsStepRateQueuesAndRunningTests) {
    KsTestExec* t = newTest(1);
    {
        std::lock_guard g(__ksEngine->tstExecLock);
        t->Status = KS_TEST__RUNNING;
    }
    KsEngine__WritePerformanceBlock();
    {
        std::lock_guard g(__ksEngine->tstExecLock);
        t->Status = KS_TEST__IDLE;
    }
    // The performance thread writes its own blocks meanwhile: take the block that
    // holds this test.
    std::string log = perLog();
    size_t mine = log.rfind(std::string("TestName=") + t->TestName);
    ASSERT_NE(mine, std::string::npos);
    size_t head = log.rfind("Name                                       Used Times    Available      Total          InUse", mine);
    ASSERT_NE(head, std::string::npos);
    std::string block = log.substr(head, mine - head + 100);
    std::vector<std::string> expected = {"UE-Pool", "Configured-UEs", "Event", "StepExec", "RanUEPool", "Timer",
                                         "Registered : ", "ExecutingQ : ", "Recv [T:", "MPS-Q", "FSM-Q",
                                         std::string("TestName=") + t->TestName};
    size_t at = 0;
    for (const auto& e : expected) {
        size_t p = block.find(e, at);
        EXPECT_NE(p, std::string::npos) << e;
        if (p != std::string::npos) at = p;
    }
    char configured[80];
    snprintf(configured, sizeof configured, "%-40s   %-10d", "Configured-UEs", 50);
    EXPECT_NE(block.find(configured), std::string::npos);
}

// ---------------------------------------------------------------- RAN statistics

struct FakeRans {
    static inline KsRanStatsCounts conn[3];  // ids 1 and 2; conn[0] unused
    static inline std::vector<KsRanStatsUE> ues;
    static void zero() {
        for (auto& c : conn) c = {};
    }
    static KsRanStatsCounts* find(uint32_t id) { return id >= 1 && id <= 2 ? &conn[id] : nullptr; }
    static void each(void (*fn)(const KsRanStatsUE&, void*), void* arg) {
        for (const auto& u : ues) fn(u, arg);
    }
};

TEST(RanStats, CountsAreRebuiltFromRegisteredLatchedUEs) {
    const KsRanStatsSource src{FakeRans::zero, FakeRans::find, FakeRans::each, nullptr};
    FakeRans::ues = {
        {1, 1, 1, 1, 3},  // registered, connected, 3 sessions
        {1, 0, 1, 1, 5},  // registered, idle: sessions not counted
        {1, 1, 2, 1, 1},
        {0, 1, 1, 1, 2},  // not registered
        {1, 1, 0, 1, 2},  // no connection
        {1, 1, 2, 0, 2},  // not latched
        {1, 1, 7, 1, 2},  // a connection that is not there
    };
    FakeRans::conn[1] = {1000, 1000, 1000};
    FakeRans::conn[2] = {1000, 1000, 1000};
    KsEngine___rebuildRanStats(&src);
    EXPECT_EQ(FakeRans::conn[1].Registrations, 2u);
    EXPECT_EQ(FakeRans::conn[1].UEContexts, 1u);
    EXPECT_EQ(FakeRans::conn[1].PDUSessions, 3u);
    EXPECT_EQ(FakeRans::conn[2].Registrations, 1u);
    EXPECT_EQ(FakeRans::conn[2].UEContexts, 1u);
    EXPECT_EQ(FakeRans::conn[2].PDUSessions, 1u);
    KsEngine___rebuildRanStats(&src);
    EXPECT_EQ(FakeRans::conn[1].Registrations, 2u) << "rebuilt, not added to";
}

// ---------------------------------------------------------------- text reports

MV_KsUE* ue(int n) {
    MV_KsUE* u = nullptr;
    KsEngine__FindUEByIMSI(&u, imsi(n).c_str());
    return u;
}

void addEvent(MV_KsUE* u, uint32_t dir, uint32_t proc, uint32_t nas, uint32_t child, uint32_t cause, uint32_t which) {
    KsStepChild* e = __ksEngine->ksEventPool->allocate();
    e->MessageType = dir;
    e->ProcedureCode = proc;
    e->NasMessageType = nas;
    e->ChildNasMessageType = child;
    e->NasCause = cause;
    e->WhichCause = which;
    e->Time = {1700000000, 123456};
    std::lock_guard g(u->ChildLock);
    if (u->ChildCurrent) static_cast<KsStepChild*>(u->ChildCurrent)->Next = e;
    else u->ChildHead = e;
    u->ChildCurrent = e;
}

std::vector<std::string> reportFiles() {
    std::vector<std::string> out;
    for (const auto& f : kst::listFiles(gEngine->dir() + "/reports")) out.push_back(f);
    std::sort(out.begin(), out.end());
    return out;
}

TEST(TextReport, HeaderUEBlocksAndEventLinesAndEventsAreDrained) {
    MV_KsUE* a = ue(10);
    MV_KsUE* b = ue(11);
    ASSERT_TRUE(a && b);
    a->TestNext = b;
    b->TestNext = nullptr;
    addEvent(a, 1, 15, 0x41, 0, 0, 0);        // plain
    addEvent(a, 2, 14, 0x68, 0xc2, 0, 0);     // a carried 5GSM message
    addEvent(a, 2, 4, 0x44, 0, 22, 1);        // 5GMM cause
    addEvent(b, 2, 4, 0x68, 0xc3, 27, 2);     // 5GSM cause
    addEvent(b, 1, 46, 0x45, 0, 0, 0);        // UE-originated deregistration
    uint32_t availBefore = __ksEngine->ksEventPool->available();

    auto before = reportFiles();
    ASSERT_EQ(KsReport__CreateTextReport(0, a, 1, 0), 1);
    auto after = reportFiles();
    ASSERT_EQ(after.size(), before.size() + 1);
    std::string path;
    for (const auto& f : after)
        if (std::find(before.begin(), before.end(), f) == before.end()) path = f;
    std::string base = path.substr(path.rfind('/') + 1);
    EXPECT_TRUE(kst::hasShape(base, "report_##_##_####_##_##_##_######.txt")) << base;

    auto l = lines(kst::readFile(path));
    std::string eq(162, '='), dash(162, '-');
    ASSERT_EQ(l.size(), 14u) << kst::readFile(path);
    EXPECT_EQ(l[0], "VELTA Networks");
    EXPECT_TRUE(kst::hasShape(l[1], "KsTest Report,  Create Time: ##-##-####:##:##:##:######")) << l[1];
    EXPECT_EQ(l[2], eq);
    auto header = [](MV_KsUE* u) { return "IMSI " + std::string(u->mcc) + u->mnc + std::to_string(u->msin); };
    EXPECT_EQ(l[3], header(a)) << "mcc, mnc and msin";
    EXPECT_EQ(l[4], dash);
    char when[40];
    timeval tv{1700000000, 123456};
    __mv_makeTimeStamp2(&tv, when, 1);
    char expect[400];
    snprintf(expect, sizeof expect, "%-30s %-40s %s", when, "InitialUEMessage", "Registration Request");
    EXPECT_EQ(l[5], expect);
    snprintf(expect, sizeof expect, "%-30s %-40s %s, (%u) %s", when, "InitialContextSetupRequest", "DL NAS Transport",
             0xc2u, "PDU Session Establishment Accept");
    EXPECT_EQ(l[6], expect);
    EXPECT_NE(l[7].find("DownlinkNASTransport"), std::string::npos);
    EXPECT_NE(l[7].find(std::string("Registration Reject, , MMCause(#22) ") + __mv_naspdu_get5GMMCause(22)),
              std::string::npos)
        << l[7];
    EXPECT_EQ(l[8], eq);
    EXPECT_EQ(l[9], header(b));
    EXPECT_EQ(l[10], dash);
    EXPECT_NE(l[11].find(std::string("DL NAS Transport, PDU Session Establishment Reject, SMCause(#27) ") +
                         __mv_naspdu_get5GSMCause(27)),
              std::string::npos)
        << l[11];
    snprintf(expect, sizeof expect, "%-30s %-40s %s", when, "UplinkNASTransport", "(UE Origin) DeRegistration Request");
    EXPECT_EQ(l[12], expect);
    EXPECT_EQ(l[13], eq);

    EXPECT_EQ(__ksEngine->ksEventPool->available(), availBefore + 5) << "every event written goes back to the pool";
    EXPECT_EQ(a->ChildHead, nullptr);
    ASSERT_EQ(KsReport__CreateTextReport(0, a, 1, 0), 1);
    auto again = reportFiles();
    EXPECT_EQ(lines(kst::readFile(again.back())).size(), 9u) << "a second report of the same UEs has headers only";
}

TEST(TextReport, ByTestIdNamesTheTestAndWalksNext) {
    ASSERT_EQ(KsReport__CreateTextReport(3, ue(48), 0, 7), 1);
    std::string text = kst::readFile(gEngine->dir() + "/reports/test_7.txt");
    auto l = lines(text);
    ASSERT_GE(l.size(), 4u);
    EXPECT_EQ(l[2], "Test-Name: seven,  Scenario-Name: walk,  MPS: 50");
    EXPECT_EQ(l[3], std::string(162, '='));
    EXPECT_EQ(kst::countOccurrences(text, "IMSI 001"), 3u) << "UEs 48, 49 and 50 along Next";
    EXPECT_EQ(kst::countOccurrences(kst::readLogDir(gEngine->dir() + "/logs/app"),
                                    "Received Request To Generate Report., ReportType=3"),
              1u);
}

TEST(TextReport, NamesOfProceduresAndNasMessages) {
    EXPECT_STREQ(KsReport__SetProcCode(21, 1), "NGSetup");
    EXPECT_STREQ(KsReport__SetProcCode(14, 2), "InitialContextSetupRequest");
    EXPECT_STREQ(KsReport__SetProcCode(14, 1), "InitialContextSetupResponse");
    EXPECT_STREQ(KsReport__SetProcCode(52, 1), "SecondaryRATDataUsageReport");
    EXPECT_STREQ(KsReport__SetProcCode(53, 1), "");
    EXPECT_STREQ(KsReport__NasMMMessageType(0x45, 1), "(UE Origin) DeRegistration Request");
    EXPECT_STREQ(KsReport__NasMMMessageType(0x47, 2), "TDeRegistration Request");
    EXPECT_STREQ(KsReport__NasMMMessageType(0x5a, 2), "Authentication Result");
    EXPECT_STREQ(KsReport__NasMMMessageType(0xd4, 1), "PDU Session Release Complete");
    EXPECT_STREQ(KsReport__NasMMMessageType(0x00, 1), "");
}

}  // namespace
