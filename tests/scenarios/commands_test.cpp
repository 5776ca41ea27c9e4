// Console commands on a UE: the prebuilt steps, each command number's step, the
// options a command writes into its step and its UE, templated commands, the UE's
// command queue, re-runs, PDU session bookkeeping and report events.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "KsNAS.h"
#include "Kestrane.h"
#include "Kestrane_seams.h"
#include "ks_engine_env.h"

namespace {

kst::EngineInDir* const gEnv = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(new kst::EngineInDir(
    "cmd", {{"cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 100, "IMSIPrefixWithZERO": 1, "LogLevel": {"APPLICATION": 5, "COMMON": 5}})"},
            {"data/uel.json", R"([{"ID": 1, "MSINStart": "001010000000001", "MSINEnd": "001010000000020",
                                   "MSISDNBegin": "1", "MCC": "001", "MNC": "01"}])"}})));

MV_KsUE* ue(int n) { return kst::ueOf001(n); }

MV_KsTestCommand command(uint32_t n) {
    MV_KsTestCommand c{};
    c.Command = n;
    return c;
}

// Runs one command on a UE with no executions and returns the step it queued, or null.
KsStep* run(MV_KsUE* u, MV_KsTestCommand c) {
    KsScanario__ReleaseUEExecutionSteps(u);
    u->TotalKsSteps = 0;
    KsScanario__AddTestCommand(&c, u);
    return u->ksStepExecutionHead ? u->ksStepExecutionHead->ksStep : nullptr;
}

TEST(CommandSteps, PrebuiltStepsAndTheirSettings) {
    int made = 0;
    std::vector<std::string> null;
#define KS_COUNT_STEP(name, code)                      \
    if (__ksEngine->name) {                            \
        ++made;                                        \
        EXPECT_EQ(__ksEngine->name->StepIndex, 0u);    \
    } else {                                           \
        null.push_back(#name);                         \
    }
    KS_COMMAND_STEP_FIELDS(KS_COUNT_STEP)
#undef KS_COUNT_STEP
    EXPECT_EQ(made, 207);
    EXPECT_EQ(null, (std::vector<std::string>{"step_release_ue_logicol_connection", "step_chfRoCCRI", "step_chfRoCCRU",
                                              "step_chfRoCCRT"}));
    __mv_ks__engine* e = __ksEngine;
    struct Reg {
        KsStep* st;
        uint32_t type, ueContextRequest;
    };
    for (const Reg& r : {Reg{e->step_initialRegistration, 1, 0}, Reg{e->step_initialRegistration2, 1, 1},
                         Reg{e->step_updateRegistration, 2, 0}, Reg{e->step_perodicRegistration, 3, 0},
                         Reg{e->step_emergencyRegistration, 4, 0}}) {
        EXPECT_EQ(r.st->StepCode, uint32_t(KS_STEP__REGISTRATION));
        EXPECT_EQ(r.st->RegistrationType, r.type);
        EXPECT_EQ(r.st->UEContextRequest, r.ueContextRequest);
        for (uint32_t f : {r.st->EA0, r.st->EA1, r.st->EA2, r.st->IA0, r.st->IA1, r.st->IA2}) EXPECT_EQ(f, 1u);
    }
    EXPECT_EQ(e->step_deRegistration->Cause, 0);
    EXPECT_EQ(e->step_deRegistration_switchOff->Cause, 1);
    struct Pdu {
        KsStep* st;
        int id;
        uint32_t kind;
    };
    for (const Pdu& p : {Pdu{e->step_pdu_session_1, 1, 1}, Pdu{e->step_pdu_session_2, 2, 1},
                         Pdu{e->step_pdu_session_1_modification, 1, 2}, Pdu{e->step_pdu_session_2_modification, 2, 2},
                         Pdu{e->step_pdu_session_1_release, 1, 3}, Pdu{e->step_pdu_session_2_release, 2, 3}}) {
        ASSERT_NE(p.st->pduSessionHead, nullptr);
        EXPECT_EQ(p.st->pduSessionHead->PDUSessionId, p.id);
        EXPECT_EQ(p.st->pduSessionHead->PDUSessionRequestType, p.kind);
        EXPECT_EQ(p.st->pduSessionHead->Next, nullptr);
    }
    struct Traffic {
        KsStep* st;
        uint32_t pps;
    };
    for (const Traffic& t : {Traffic{e->step_sendTPDU, 5}, Traffic{e->step_sendTPDU2, 5}, Traffic{e->step_sendTPDU_ICMP, 3},
                             Traffic{e->step_sendTPDU2_ICMP, 3}, Traffic{e->step_sendTPDUPackets, 3},
                             Traffic{e->step_sendPCAP_TPDU_1_Packet, 1}, Traffic{e->step_sendPCAP_TPDU_All_Packet, 1}}) {
        EXPECT_EQ(t.st->PacketsPerSecond, t.pps);
        EXPECT_EQ(t.st->Flows, 1);
        EXPECT_EQ(t.st->UploadBytes, 500u);
    }
}

TEST(Commands, EachNumberQueuesItsStep) {
    struct Row {
        uint32_t command, code;
    };
    // Step codes by command number, as the console's reference gives them.
    const Row rows[] = {
        {1, 1},       {2, 1},       {3, 1},       {4, 4},       {5, 9},       {6, 5},       {9, 1},       {10, 8},
        {11, 4},      {12, 10},     {13, 11},     {14, 12},     {15, 13},     {16, 14},     {19, 17},     {20, 18},
        {21, 19},     {22, 20},     {24, 24},     {25, 25},     {26, 26},     {27, 27},     {28, 28},     {301, 29},
        {307, 35},    {310, 38},    {601, 128},   {617, 144},   {901, 125},   {903, 127},   {1201, 119},  {1204, 123},
        {1205, 122},  {1501, 95},   {1504, 99},   {1505, 98},   {1506, 103},  {1509, 100},  {1512, 106},  {1513, 107},
        {1520, 114},  {1521, 115},  {1522, 117},  {1523, 118},  {1801, 89},   {1806, 94},   {2101, 88},   {2401, 87},
        {2701, 71},   {2714, 84},   {2715, 85},   {2716, 86},   {3001, 39},   {3002, 40},   {3013, 51},   {3020, 58},
        {3026, 67},   {3027, 66},   {3028, 65},   {3029, 64},   {3030, 68},   {3032, 70},   {3301, 145},  {3304, 148},
        {3601, 149},  {3606, 154},  {3901, 155},  {3903, 157},  {4201, 158},  {4236, 193},  {4501, 194},  {4506, 199},
        {4901, 200},  {4902, 201},  {4903, 202},  {4905, 203},  {4908, 206},
    };
    MV_KsUE* u = ue(1);
    for (const Row& r : rows) {
        SCOPED_TRACE("command " + std::to_string(r.command));
        KsStep* st = run(u, command(r.command));
        ASSERT_NE(st, nullptr);
        EXPECT_EQ(st->StepCode, r.code);
        EXPECT_EQ(u->CommandId, r.command);
        EXPECT_EQ(u->ksStepExecutionItemCount, 1u);
    }
    for (uint32_t n : {0u, 29u, 300u, 311u, 618u, 4904u, 4909u, 5000u}) {
        SCOPED_TRACE("no row " + std::to_string(n));
        u->CommandId = 0;
        EXPECT_EQ(run(u, command(n)), nullptr);
        EXPECT_EQ(u->CommandId, 0u);
    }
    EXPECT_NE(gEnv->appLog().find("executing command=4908 for SUPI=imsi-001010000000001"), std::string::npos);
}

TEST(Commands, OptionsOfARegistrationCommandGoIntoItsStep) {
    MV_KsUE* u = ue(2);
    MV_KsTestCommand c = command(2);
    c.InitialContextRequest = 1;
    c.AuthOptions = 2;
    c.IdentityRequestOption = 3;
    c.SecurityModeCommandOption = 4;
    c.RegistrationAcceptOption = 7;
    c.EA0 = 0, c.EA1 = 1, c.EA2 = 0, c.IA0 = 1, c.IA1 = 0, c.IA2 = 1;
    memcpy(c.MCC, "310", 4);
    memcpy(c.MNC, "410", 4);
    c.TAC = 77;
    c.NgKSI = 3;
    c.RANAMFConnId = 4;
    u->TotalKsSteps = 5;
    KsScanario__ReleaseUEExecutionSteps(u);
    KsScanario__AddTestCommand(&c, u);
    KsStepExecution* ex = u->ksStepExecutionHead;
    ASSERT_NE(ex, nullptr);
    KsStep* st = ex->ksStep;
    EXPECT_EQ(st, __ksEngine->step_updateRegistration);
    EXPECT_EQ(ex->Id, 5u) << "the execution's id is the UE's step count before it";
    EXPECT_EQ(u->TotalKsSteps, 6);
    EXPECT_EQ(ex->RANAMFConnId, 4u);
    EXPECT_EQ(st->RegistrationType, 2u);
    EXPECT_EQ(st->UEContextRequest, 1u);
    EXPECT_EQ(st->InitialContextRequest, 1u);
    EXPECT_EQ(st->SyncFailure, 1u);
    EXPECT_EQ(st->SyncFailureMaxCount, 2u);
    EXPECT_EQ(st->IdentityRequestIgnoreCount, 1);
    EXPECT_EQ(st->SecurityModeCommandIgnoreCount, 4);
    EXPECT_EQ(st->RegistrationAcceptIgnoreCount, 7);
    EXPECT_EQ(std::vector<uint32_t>({st->EA0, st->EA1, st->EA2, st->IA0, st->IA1, st->IA2}),
              std::vector<uint32_t>({0, 1, 0, 1, 0, 1}));
    EXPECT_STREQ(st->ul_sn_mcc, "310");
    EXPECT_STREQ(st->ul_sn_mnc, "410");
    EXPECT_EQ(st->tac, 77u);
    EXPECT_EQ(st->tac_isset, 1u);
    EXPECT_EQ(st->NgKSI, 3u);
    EXPECT_NE(gEnv->appLog().find("Added Command=2 KsStepCode=1 to UE=imsi-001010000000002  TotalKsSteps=5"),
              std::string::npos);

    struct Auth {
        uint16_t option;
        uint32_t sync, syncMax, ignore;
    };
    for (const Auth& a : {Auth{4, 0, 0, 1}, Auth{8, 0, 0, 5}, Auth{9, 0, 0, 7}, Auth{10, 0, 0, 8}, Auth{11, 0, 0, 0}}) {
        SCOPED_TRACE("AuthOptions " + std::to_string(a.option));
        MV_KsTestCommand nine = command(9);
        nine.AuthOptions = a.option;
        KsStep* s = run(u, nine);
        EXPECT_EQ(s, __ksEngine->step_initialRegistration2);
        EXPECT_EQ(s->RegistrationType, 1u);
        EXPECT_EQ(s->SyncFailure, a.sync);
        EXPECT_EQ(s->AuthenticationRequestIgnoreCount, a.ignore);
        EXPECT_EQ(s->IdentityRequestIgnoreCount, 0) << "options of the last command do not linger";
        EXPECT_EQ(s->tac_isset, 0u) << "no MCC in the command";
    }

    // Other commands offer the UE's own algorithms.
    u->SC_EA0 = 0;
    u->SC_IA2 = 0;
    KsStep* one = run(u, command(1));
    EXPECT_EQ(one->EA0, 0u);
    EXPECT_EQ(one->EA1, 1u);
    EXPECT_EQ(one->IA2, 0u);
    u->SC_EA0 = u->SC_IA2 = 1;
    MV_KsTestCommand c1521 = command(1521);
    c1521.RANAMFConnId = 12;
    EXPECT_EQ(run(u, c1521)->ServiceType, 12u);
    MV_KsTestCommand c27 = command(27);
    c27.AuthOptions = 6;
    c27.FOR = 1;
    KsStep* s27 = run(u, c27);
    EXPECT_EQ(s27->EA0, 6u);
    EXPECT_EQ(s27->FoR, 1u);
}

TEST(Commands, SpecialNumbers) {
    MV_KsUE* u = ue(3);
    struct Pdu {
        uint32_t command;
        uint16_t auth;
        KsStep* step;
    };
    for (const Pdu& p : {Pdu{7, 1, __ksEngine->step_pdu_session_1}, Pdu{8, 1, __ksEngine->step_pdu_session_2},
                         Pdu{7, 3, __ksEngine->step_pdu_session_1_release},
                         Pdu{8, 3, __ksEngine->step_pdu_session_2_release}, Pdu{8, 2, nullptr}, Pdu{7, 0, nullptr}}) {
        SCOPED_TRACE(std::to_string(p.command) + " AuthOptions " + std::to_string(p.auth));
        MV_KsTestCommand c = command(p.command);
        c.AuthOptions = p.auth;
        EXPECT_EQ(run(u, c), p.step);
    }
    KsStepExecution* ex = (run(u, [] {
                              MV_KsTestCommand c = command(7);
                              c.AuthOptions = 1;
                              return c;
                          }()),
                           u->ksStepExecutionHead);
    ASSERT_NE(ex->pduSessionSetupItem, nullptr);
    EXPECT_EQ(ex->pduSessionSetupItem->Info->PDUSessionId, 1);
    EXPECT_EQ(ex->pduSessionCount, 1u);

    MV_KsTestCommand c17 = command(17);
    c17.SQN = 4242;
    c17.EA0 = 0, c17.EA1 = 1, c17.EA2 = 1, c17.IA0 = 0, c17.IA1 = 1, c17.IA2 = 0;
    c17.TAC = 9;
    memcpy(c17.GUTI, "0102030405060708090A", 20);
    c17.InitialContextRequest = 1;
    c17.FOR = 1;
    c17.ScanarioId = 51;
    c17.RANAMFConnId = 6;
    c17.PlainNasMessage = 1;
    c17.Exclude5GSTMSI = 1;
    c17.IdentityRequestOption = 2;
    EXPECT_EQ(run(u, c17), nullptr) << "17 adds no step";
    EXPECT_EQ(u->TGPP.sqn, 4242u);
    EXPECT_EQ(std::vector<uint16_t>({u->SC_EA0, u->SC_EA1, u->SC_EA2, u->SC_IA0, u->SC_IA1, u->SC_IA2}),
              std::vector<uint16_t>({0, 1, 1, 0, 1, 0}));
    EXPECT_EQ(u->TAI_TAC, 9u);
    EXPECT_EQ(u->fgGuti.isset, 1);
    EXPECT_EQ(u->fgGuti.len, 10);
    EXPECT_EQ(u->fgGuti.val[0], 0x01);
    EXPECT_EQ(u->fgGuti.val[9], 0x0A);
    EXPECT_EQ(u->bInitialContextRequest, 1);
    EXPECT_EQ(u->bFOR, 1);
    EXPECT_EQ(u->bIdentityRequestOption, 2);
    EXPECT_EQ(u->AMFScanarioId, 51u);
    EXPECT_EQ(u->AMFConnId, 6u);
    EXPECT_EQ(u->PlainNasMessage, 1u);
    EXPECT_EQ(u->Exclude5GSTMSI, 1u);
    memcpy(c17.GUTI, "-1020304050607080900", 20);
    c17.SQN = 1;
    run(u, c17);
    EXPECT_EQ(u->fgGuti.val[0], 0x01) << "a GUTI that begins with - is kept as it was";
    EXPECT_EQ(u->TGPP.sqn, 1u);

    MV_KsTestCommand c18 = command(18);
    c18.InitialContextRequest = 1;
    EXPECT_EQ(run(u, c18), nullptr);
    EXPECT_EQ(u->SQNHandlingType, 1u);
}

TEST(Commands, TemplatedCommandsPickTheirStep) {
    MV_KsUE* u = ue(4);
    const KsStep* by23[] = {__ksEngine->step_initialRegistration,       __ksEngine->step_updateRegistration,
                            __ksEngine->step_perodicRegistration,       __ksEngine->step_emergencyRegistration,
                            __ksEngine->step_deRegistration,            __ksEngine->step_deRegistration_switchOff,
                            __ksEngine->step_release_ue_context,        __ksEngine->step_pdu_session_1,
                            __ksEngine->step_pdu_session_1_modification, __ksEngine->step_pdu_session_1_release,
                            __ksEngine->step_service_request};
    for (uint16_t opt = 0; opt < 11; ++opt) {
        MV_KsTestCommand c = command(23);
        c.IdentityRequestOption = opt;
        EXPECT_EQ(run(u, c), by23[opt]) << opt;
    }
    MV_KsTestCommand bad = command(23);
    bad.IdentityRequestOption = 11;
    EXPECT_EQ(run(u, bad), nullptr);
    EXPECT_NE(gEnv->appLog().find("imsi-001010000000004 InvalidOption=11 ExecuteByTemplate <"), std::string::npos);

    struct Node {
        uint16_t app, request, itf, sub, cmd;
        KsStep* step;
    };
    __mv_ks__engine* e = __ksEngine;
    const Node nodes[] = {
        {2, 0, 0, 0, 0, e->step_pfcpSessionEstablishmentRequest}, {2, 3, 0, 0, 0, e->step_pfcpSessionEstablishmentRequest},
        {2, 1, 0, 0, 0, e->step_pfcpSessionUpdateRequest},        {2, 2, 0, 0, 0, e->step_pfcpSessionDeleteRequest},
        {2, 4, 0, 0, 0, nullptr},                                 {5, 1, 0, 0, 0, e->step_pgwModifyBearerRequest},
        {5, 2, 0, 0, 0, e->step_pgwDeleteSessionRequest},         {7, 0, 1, 0, 318, e->step_hssAIR},
        {7, 0, 2, 0, 309, e->step_hssShPNR},                      {7, 0, 3, 0, 302, e->step_hssCxLIR},
        {7, 0, 4, 0, 301, e->step_hssSWxSAR},                     {7, 0, 4, 0, 304, e->step_hssCxRTR},
        {7, 0, 4, 0, 305, e->step_hssCxPPR},                      {7, 0, 1, 0, 300, nullptr},
        {10, 0, 0, 2, 0, e->step_pcrfRxCCRI},                     {10, 0, 0, 1, 0, e->step_pcrfGxCCRI},
        {11, 0, 2, 0, 265, e->step_aaaSWm_AA_Request},            {11, 0, 2, 0, 268, e->step_aaaSWm_Diameter_EAP_Request},
        {11, 0, 2, 0, 275, e->step_aaaSWm_Session_Termination_Request},
        {11, 0, 1, 0, 265, nullptr},                              {12, 0, 0, 1, 0, e->step_chfGyCCRI},
        {12, 0, 0, 2, 0, nullptr},                                {31, 0, 0, 0, 0, e->step_ggsn_CreatePDPContextRequest},
        {31, 1, 0, 0, 0, e->step_ggsn_UpdatePDPContextRequest},   {31, 2, 0, 0, 0, e->step_ggsn_DeletePDPContextRequest},
        {25, 0, 0, 0, 0, nullptr},
    };
    for (const Node& n : nodes) {
        SCOPED_TRACE("app " + std::to_string(n.app) + " request " + std::to_string(n.request) + " itf " +
                     std::to_string(n.itf) + " cmd " + std::to_string(n.cmd));
        MV_KsTestCommand c = command(9999);
        c.EA0 = n.app;
        c.IdentityRequestOption = n.request;
        c.EA1 = n.itf;
        c.AuthOptions = n.sub;
        c.FOR = n.cmd;
        EXPECT_EQ(run(u, c), n.step);
    }
    std::string log = gEnv->appLog();
    EXPECT_NE(log.find("InvalidOption=4 ExecuteByTemplate2"), std::string::npos);
    EXPECT_NE(log.find("InvalidOption=300 ExecuteByTemplate2"), std::string::npos);
    EXPECT_NE(log.find("Cannot Add Command ksStep is NULL"), std::string::npos) << "the CHF Ro steps are null";
    EXPECT_NE(log.find("unhandled TEMPLATE command for KsTEAppId=25"), std::string::npos);
    EXPECT_NE(kst::readLogDir(gEnv->dir() + "/logs//cmn").find("unhandled TEMPLATE command for KsTEAppId=25"),
              std::string::npos);
    EXPECT_NE(log.find("request=1  templateId=0  regTemplate=(nil) [-]"), std::string::npos);
}

// ---------------------------------------------------------------- queue, re-runs, PDU sessions, events

TEST(CommandQueue, FirstInFirstOutFromThePool) {
    MV_KsUE* u = ue(5);
    EXPECT_EQ(KsScanario__PopTestCommand(u), nullptr);
    MV_KsTestCommand* a = KsScanario__NewTestCommand();
    MV_KsTestCommand* b = KsScanario__NewTestCommand();
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(a->Command, 0u) << "zeroed";
    a->Command = 1;
    b->Command = 2;
    KsScanario__QueueTestCommand(u, a);
    KsScanario__QueueTestCommand(u, b);
    EXPECT_EQ(KsScanario__PopTestCommand(u), a);
    EXPECT_EQ(KsScanario__PopTestCommand(u), b);
    EXPECT_EQ(KsScanario__PopTestCommand(u), nullptr);
    EXPECT_EQ(u->commandCurrent, nullptr);
    uint32_t total, avail;
    uint64_t used;
    __mv_pool_get_availability(__ksEngine->commandPool, &total, &avail, &used);
    KsScanario__ReleaseTestCommand(a);
    KsScanario__ReleaseTestCommand(b);
    KsScanario__ReleaseTestCommand(b);
    uint32_t avail2;
    __mv_pool_get_availability(__ksEngine->commandPool, &total, &avail2, &used);
    EXPECT_EQ(avail2, avail + 2);
}

TEST(ReRun, AFinishedUERunsAgainAndARunningOneBooksARun) {
    MV_KsUE* u = ue(6);
    u->EndOfTest = 0;
    KsScanario__ReRunScanario(u, 0);
    EXPECT_EQ(u->TotalExecutedCount, 2u);
    KsScanario__ReRunScanario(u, 0);
    EXPECT_EQ(u->TotalExecutedCount, 3u);
    u->EndOfTest = 1;
    KsScanario__ReRunScanario(u, 1);
    EXPECT_EQ(u->EndOfTest, 0u);
    EXPECT_EQ(u->ksStepExecution, nullptr);
    EXPECT_NE(gEnv->appLog().find("ReRun Schuduled for SUPI[imsi-001010000000006]"), std::string::npos);
}

TEST(PduSessionStep, LastSessionSetUpCompletesTheStep) {
    MV_KsUE* u = ue(7);
    MV_KsTestCommand c = command(7);
    c.AuthOptions = 1;
    run(u, c);
    KsStepExecution* ex = u->ksStepExecutionHead;
    ASSERT_NE(ex, nullptr);
    KsScanario__UpdatePduSesssionStep(1, u);
    EXPECT_EQ(ex->pduSessionSetupHead->SetupCompleted, 1);
    // No other session is pending: a second later the step completes on the UE's line.
    ASSERT_TRUE(kst::waitFor([u] { return u->CommandId == 0; }, 5));
    EXPECT_EQ(u->ksStepExecutionHead, nullptr);
    EXPECT_NE(gEnv->appLog().find("imsi-001010000000007|Completed Command[7] Execution"), std::string::npos);
}

TEST(PduSessionStep, PendingSessionsMoveTheCurrentEntry) {
    KsScanario* sc = KsScanario__NewScanario(60);
    KsStep* st = KsScanario__NewStep(KS_STEP__PDU_SESSION, 2);
    for (uint8_t id : {3, 4, 5}) {
        auto* info = __mv_arena_new<__ks_pduSessionInfo>();
        info->PDUSessionId = id;
        info->Next = nullptr;
        if (st->pduSessionCurrent) st->pduSessionCurrent->Next = info;
        else st->pduSessionHead = info;
        st->pduSessionCurrent = info;
    }
    KsScanario__AddStep(sc, st);
    MV_KsUE* u = ue(8);
    u->ksScanario = sc;
    KsScanario__CreateKsStepExecutions(u, 0);
    KsStepExecution* ex = u->ksStepExecutionHead;
    ASSERT_EQ(ex->pduSessionCount, 3u);
    KsScanario__UpdatePduSesssionStep(4, u);
    EXPECT_EQ(ex->pduSessionSetupHead->Next->SetupCompleted, 1);
    EXPECT_EQ(ex->pduSessionSetupItem, ex->pduSessionSetupHead) << "the first pending entry is next";
    KsScanario__UpdatePduSesssionStep(3, u);
    EXPECT_EQ(ex->pduSessionSetupItem->Info->PDUSessionId, 5);

    MV_KsUE* other = ue(9);
    KsScanario__ReleaseUEExecutionSteps(other);
    KsScanario__UpdatePduSesssionStep(1, other);  // no PDU step: nothing changes
    EXPECT_EQ(other->ksStepExecutionHead, nullptr);
}

TEST(ReportEvents, RecordedOnlyWhileReportsAreOn) {
    MV_KsUE* u = ue(10);
    __ksEngine->WriteReport = 0;
    KsScanario__AddEvent(u, 15, 65, 0, 0);
    EXPECT_EQ(u->ChildHead, nullptr);
    __ksEngine->WriteReport = 1;
    KsScanario__AddEvent(u, 15, 65, 0, 0);
    KsScanario__AddEvent(u, 46, 67, 1, 2);
    __ksEngine->WriteReport = 0;
    ASSERT_NE(u->ChildHead, nullptr);
    EXPECT_EQ(u->ChildHead->Id, 1u);
    EXPECT_EQ(u->ChildHead->MessageType, 1u);
    EXPECT_EQ(u->ChildHead->ProcedureCode, 15u);
    EXPECT_EQ(u->ChildHead->NasMessageType, 65u);
    KsStepChild* second = u->ChildHead->Next;
    ASSERT_EQ(second, u->ChildCurrent);
    EXPECT_EQ(second->Id, 2u);
    EXPECT_EQ(second->ChildNasMessageType, 1u);
    EXPECT_EQ(second->ChildNasMessageCategoryType, 2u);
    EXPECT_GT(second->Time.tv_sec, 0);
    EXPECT_EQ(KsScanario__AddRecvEvent(u, 4, 66), nullptr);
    KsScanario__ClearResult(u);
    EXPECT_EQ(u->ChildHead, nullptr);
    EXPECT_EQ(u->ChildStepCounter, 0u);
}

}  // namespace
