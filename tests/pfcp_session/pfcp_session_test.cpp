// The SMF's PFCP sessions in a real engine started in-process, towards a UPF answering from C++
// on loopback: the UPF node behind connection command 1, the scenario's establishment,
// modification and deletion steps for many UEs with their counters, and the answers a real UPF
// will not give on request (an error cause, none at all, another SEID), a report and its answer.
// tshark reads what the engine sent.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "KsPFCP.h"
#include "Kestrane.h"
#include "fast_upf.h"
#include "ks_engine_env.h"
#include "ks_tshark.h"
#include "pfcp_node.h"

namespace {

using kps::FastUpf;

struct Addresses {
    std::string smf = kst::uniqueLoopback();
    std::string upf = kst::uniqueLoopback();
};
const Addresses& addr() {
    static Addresses a;
    return a;
}

std::string imsi(int n) {
    char b[20];
    snprintf(b, sizeof b, "00101%010d", n);
    return b;
}

std::string testEntry(int id, int scenario, int from, int to) {
    return "{\"ID\": " + std::to_string(id) + ", \"Name\": \"t" + std::to_string(id) +
           "\", \"ScenarioID\": " + std::to_string(scenario) + ", \"MPS\": 500, \"SUPIStartNo\": \"" + imsi(from) +
           "\", \"SUPIStartEnd\": \"" + imsi(to) + "\"}";
}

std::string noc() {
    const Addresses& a = addr();
    return R"([{"ID": 1, "ConnInfoType": 2, "TEApplicationType": 2, "IP_1": ")" + a.smf +
           R"(", "Port_1": 8805, "IP_2": ")" + a.smf + R"(", "Port_2": "2152", "TransportType": 1, "Enabled": 1},
               {"ID": 2, "ConnInfoType": 1, "TEApplicationType": 2, "IP_1": ")" + a.upf +
           R"(", "Port_1": 8805, "IP_2": ")" + a.upf + R"(", "Port_2": "2152", "TransportType": 1, "Enabled": 1}])";
}

constexpr int kUEs = 300;

kst::EngineInDir* gEnv = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(new kst::EngineInDir(
    "pfcpsess",
    {{"cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "MaximumUE": 1000, "IMSIPrefixWithZERO": 1, "CLIPort": 0,
                      "DefaultTimeoutSeconds": 2, "LogLevel": {"APPLICATION": 4, "COMMON": 4}})"},
     {"data/uel.json", "[{\"ID\": 1, \"MSINStart\": \"" + imsi(1) + "\", \"MSINEnd\": \"" + imsi(kUEs) +
                           "\", \"MCC\": \"001\", \"MNC\": \"01\", \"MSISDNBegin\": \"9000000001\"}]"},
     {"data/set.json", R"({"UPF": {"1": "10.45.0.1/16"}})"},
     {"data/noc.json", noc()},
     // 1: a session's whole life. 2: only its establishment. 3: only its deletion. 4: a
     // session that lives for a few seconds.
     {"data/sce.json", R"([{"ID": 1, "Config": [{"ID": 1001}, {"ID": 1002}, {"ID": 1003}]},
                          {"ID": 2, "Config": [{"ID": 1001}]},
                          {"ID": 3, "Config": [{"ID": 1003}]},
                          {"ID": 4, "Config": [{"ID": 1001}, {"ID": 3, "Dict": [{"Key": 3, "Value": "4"}]},
                                               {"ID": 1003}]}])"},
     {"data/tst.json", "[" + testEntry(1, 1, 1, 200) + "," + testEntry(2, 2, 201, 210) + "," +
                           testEntry(3, 3, 201, 210) + "," + testEntry(4, 4, 211, 211) + "]"}})));

bool finished(uint32_t s) {
    return s != KS_TEST__QUEUED && s != KS_TEST__QUEUED_ALT && s != KS_TEST__RUNNING && s != KS_TEST__STOP;
}

KsTestExec* runToEnd(uint32_t id) {
    EXPECT_EQ(KsEngine__AddTestToQueue(id, KS_TEST__QUEUED), 3u);
    EXPECT_TRUE(kst::waitFor([id] { return KsEngine__GetTestStatus(id) != KS_TEST__QUEUED; }, 10));
    EXPECT_TRUE(kst::waitFor([id] { return finished(KsEngine__GetTestStatus(id)); }, 120)) << "test " << id;
    return KsEngine__FindTest(id);
}

void setting(const char* key, const char* value) {
    json_t* upf = json_object_get(__ksEngine->prot_settings, "UPF");
    json_object_set_new(upf, key, json_string(value));
}

pfcp_cp_sess_t* sessionOf(int n) {
    MV_KsUE* u = kst::ueOf001(n);
    return u ? static_cast<pfcp_cp_sess_t*>(u->pfcp_session) : nullptr;
}

class PfcpSession : public ::testing::Test {
protected:
    FastUpf upf{addr().upf, 8805};
    KsTEConnection* conn = nullptr;

    void SetUp() override {
        ASSERT_TRUE(upf.start()) << "cannot bind " << addr().upf << ":8805";
        ASSERT_EQ(KsTE__InitCommand(KS_APP_TYPE__UPF, 1, KS_TE_COMMAND__ADD_NODE), 1);
        conn = KsTE__GetConnectionByTEApplicationType(KS_APP_TYPE__UPF, 0);
        ASSERT_NE(conn, nullptr);
        ASSERT_NE(conn->ksServer_upf_node.load(), nullptr) << gEnv->appLog();
        ASSERT_TRUE(kst::waitFor(
            [&] { return conn->ksServer_upf_node.load()->isAssociationStarted == PFCP_ASSOCIATION__ASSOCIATED; }, 20));
        KsPFCP__UpdateConnStatus(conn->ksServer, conn);
        EXPECT_EQ(conn->ksServer->ConnectionStatus.load(), 2u);
    }

    // Decoded datagrams the UPF received, of one type.
    std::vector<std::vector<uint8_t>> receivedOfType(uint8_t type) {
        std::vector<std::vector<uint8_t>> out;
        for (auto& d : upf.received())
            if (d.size() > 1 && d[1] == type) out.push_back(d);
        return out;
    }
};

TEST_F(PfcpSession, EveryUEsSessionIsEstablishedModifiedAndDeletedWithItsCountersMatching) {
    setting("59", "1");  // the establishment is followed by the RAN's tunnel: a forwarding change
    uint32_t freeSessions = 0, freeV4 = 0;
    int size = KsPFCP__pool_availability(&freeSessions, &freeV4);
    ASSERT_EQ(size, kUEs) << "one session for every UE the engine has";
    KsTestExec* t = runToEnd(1);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 200);
    EXPECT_EQ(t->PFCPSessionEstablishmentRequest.Request.load(), 200u);
    EXPECT_EQ(t->PFCPSessionEstablishmentResponse.Request.load(), 200u);
    EXPECT_EQ(t->PFCPSessionEstablishmentErrorResponse.Request.load(), 0u);
    EXPECT_EQ(t->PFCPSessionModificationRequest.Request.load(), 400u) << "the RAN's tunnel, then the step's";
    EXPECT_EQ(t->PFCPSessionModificationResponse.Request.load(), 400u);
    EXPECT_EQ(t->PFCPSessionDeleteRequest.Request.load(), 200u);
    EXPECT_EQ(t->PFCPSessionDeleteResponse.Request.load(), 200u);
    EXPECT_EQ(t->ExecutionTimeout.Total.load(), 0u);
    EXPECT_EQ(upf.establishments.load(), 200u);
    EXPECT_EQ(upf.forwardingChanges.load(), 200u);
    EXPECT_EQ(upf.deletions.load(), 200u);
    EXPECT_EQ(upf.openSessions(), 0u);
    // Every session went back: records, addresses and ids.
    uint32_t s2 = 0, v2 = 0;
    KsPFCP__pool_availability(&s2, &v2);
    EXPECT_EQ(s2, freeSessions);
    EXPECT_EQ(v2, freeV4);
    for (int n : {1, 100, 200}) EXPECT_EQ(sessionOf(n), nullptr);
    EXPECT_EQ(ksPfcpTally.StaleAnswers.load() + ksPfcpTally.UnknownSeid.load(), 0u);

    // Every SMF SEID and every UE address was different, and tshark reads every request clean.
    auto est = receivedOfType(PFCP_SESSION_ESTABLISHMENT_REQUEST_TYPE);
    ASSERT_EQ(est.size(), 200u);
    std::set<std::string> seids, ues;
    auto m = std::make_unique<pfcp_message_t>();
    for (auto& d : est) {
        ASSERT_EQ(pfcp_decode_datagram(d, m.get()), 1);
        auto& r = m->pfcp_session_establishment_request;
        seids.insert(kst::toHex(r.cp_f_seid.data, r.cp_f_seid.len));
        ues.insert(kst::toHex(r.create_pdr[0].pdi.ue_ip_address.data, r.create_pdr[0].pdi.ue_ip_address.len));
    }
    EXPECT_EQ(seids.size(), 200u);
    EXPECT_EQ(ues.size(), 200u);
    if (!kst::tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    std::vector<std::vector<uint8_t>> sample;
    for (uint8_t type : {PFCP_ASSOCIATION_SETUP_REQUEST_TYPE, PFCP_SESSION_ESTABLISHMENT_REQUEST_TYPE,
                         PFCP_SESSION_MODIFICATION_REQUEST_TYPE, PFCP_SESSION_DELETION_REQUEST_TYPE}) {
        auto of = receivedOfType(type);
        for (size_t i = 0; i < of.size() && i < 4; ++i) sample.push_back(of[i]);
    }
    kst::TsharkRun run = kst::runTshark(KS_WSDECODE, "pfcp", 8805, "", sample,
                                        {"pfcp.msg_type", "pfcp.seid", "pfcp.f_teid.teid", "pfcp.pdr_id", "pfcp.far_id",
                                         "pfcp.qer_id", "pfcp.ue_ip_addr_ipv4", "pfcp.node_id_ipv4"});
    EXPECT_EQ(run.rc, 0) << run.report;
    ASSERT_EQ(run.fields.size(), sample.size());
    auto& first = run.fields[1];  // the first establishment
    EXPECT_EQ(first["pfcp.msg_type"], "50");
    EXPECT_EQ(first["pfcp.pdr_id"], "1,2");
    EXPECT_EQ(first["pfcp.far_id"], "1,2,1,2");
    EXPECT_NE(first["pfcp.ue_ip_addr_ipv4"].find("10.45.0."), std::string::npos) << first["pfcp.ue_ip_addr_ipv4"];
    EXPECT_EQ(first["pfcp.node_id_ipv4"], addr().smf);
    EXPECT_FALSE(first["pfcp.f_teid.teid"].empty());
}

TEST_F(PfcpSession, AnErrorCauseIsCountedTheUpfSeidKeptAndTheStepMovesOn) {
    upf.mode = FastUpf::Session::Reject;
    KsTestExec* t = runToEnd(2);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 10);
    EXPECT_EQ(t->PFCPSessionEstablishmentErrorResponse.Request.load(), 10u);
    EXPECT_EQ(t->PFCPSessionEstablishmentResponse.Request.load(), 0u);
    EXPECT_EQ(t->ExecutionTimeout.Total.load(), 0u) << "the answer ended each step, not its timer";
    pfcp_cp_sess_t* s = sessionOf(201);
    ASSERT_NE(s, nullptr) << "a refused session stays for the next try";
    EXPECT_EQ(s->Status.load(), uint32_t(KsPFCP__STATUS__RECV_ERROR__PFCP_ESTABLISHMENT));
    EXPECT_EQ(s->upf_seid.load(), upf.upfSeidOf(s->cp_seid));
    EXPECT_NE(s->upf_seid.load(), 0u);

    // Tried again, the session keeps its SEID, tunnel and address; an accepted answer ends it.
    uint64_t seid = s->cp_seid;
    uint32_t teid = s->teid, ip = s->ipv4->ipv4;
    upf.mode = FastUpf::Session::Accept;
    t = runToEnd(2);
    EXPECT_EQ(s->cp_seid, seid);
    EXPECT_EQ(s->teid, teid);
    EXPECT_EQ(s->ipv4->ipv4, ip);
    EXPECT_EQ(s->Status.load(), uint32_t(KsPFCP__STATUS__RECV__PFCP_ESTABLISHMENT_RESPONSE));
    EXPECT_EQ(t->PFCPSessionEstablishmentResponse.Request.load(), 10u);
}

TEST_F(PfcpSession, AnAnswerThatNeverComesRunsTheStepOnceMoreThenMovesOn) {
    upf.mode = FastUpf::Session::Silent;
    KsTestExec* t = runToEnd(2);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 10);
    EXPECT_EQ(t->PFCPSessionEstablishmentRequest.Request.load(), 20u) << "the step and its one retry";
    EXPECT_EQ(t->PFCPSessionEstablishmentResponse.Request.load(), 0u);
    // The retry is a new request (its own sequence number) of the same session.
    auto m = std::make_unique<pfcp_message_t>();
    std::map<std::string, std::set<uint32_t>> seqsOfSession;
    for (auto& d : receivedOfType(PFCP_SESSION_ESTABLISHMENT_REQUEST_TYPE)) {
        ASSERT_EQ(pfcp_decode_datagram(d, m.get()), 1);
        auto& f = m->pfcp_session_establishment_request.cp_f_seid;
        seqsOfSession[kst::toHex(f.data, f.len)].insert(m->h.sqn);
    }
    EXPECT_EQ(seqsOfSession.size(), 10u);
    for (auto& [seid, seqs] : seqsOfSession) EXPECT_EQ(seqs.size(), 2u) << seid;
    EXPECT_EQ(sessionOf(205)->Status.load(), uint32_t(KsPFCP__STATUS__SENT__PFCP_ESTABLISHMENT_REQUEST));

    // A deletion nobody answers: sent once, and its retry gives the session up without sending.
    uint32_t freeBefore = 0;
    KsPFCP__pool_availability(&freeBefore, nullptr);
    t = runToEnd(3);
    EXPECT_EQ(t->PFCPSessionDeleteRequest.Request.load(), 10u);
    EXPECT_EQ(t->PFCPSessionDeleteResponse.Request.load(), 0u);
    EXPECT_EQ(sessionOf(205), nullptr);
    uint32_t freeAfter = 0;
    KsPFCP__pool_availability(&freeAfter, nullptr);
    EXPECT_EQ(freeAfter, freeBefore + 10);
    EXPECT_NE(gEnv->appLog().find("pfcp-sesson-delete-request comprimised"), std::string::npos);
}

TEST_F(PfcpSession, AnswersCarryingAnotherSeidAreDroppedAndTheTimerMovesTheStepOn) {
    upf.mode = FastUpf::Session::WrongSeid;
    KsTestExec* t = runToEnd(2);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 10);
    EXPECT_EQ(t->PFCPSessionEstablishmentResponse.Request.load(), 0u);
    EXPECT_EQ(t->PFCPSessionEstablishmentErrorResponse.Request.load(), 0u);
    __mv_pfcp_stats st;
    __mv_pfcp__get_stats(&st);
    EXPECT_GE(st.rxWrongSeid, 10u);
    EXPECT_EQ(conn->ksServer_upf_node.load()->isAssociationStarted.load(), PFCP_ASSOCIATION__ASSOCIATED);
}

TEST_F(PfcpSession, AReportIsAnsweredAndItsUsageReportAsksForMoreQuota) {
    setting("9", "1");
    ASSERT_EQ(KsEngine__AddTestToQueue(4, KS_TEST__QUEUED), 3u);
    // While the session lives (the scenario sleeps), the UPF reports on it.
    ASSERT_TRUE(kst::waitFor(
        [] {
            pfcp_cp_sess_t* s = sessionOf(211);
            return s && s->Status == KsPFCP__STATUS__RECV__PFCP_ESTABLISHMENT_RESPONSE;
        },
        10));
    pfcp_cp_sess_t* s = sessionOf(211);
    KsTestExec* t = KsEngine__FindTest(4);
    ASSERT_NE(t, nullptr);
    uint64_t upfSeid = s->upf_seid;
    ASSERT_TRUE(upf.sendReport(s->cp_seid, 7));
    EXPECT_TRUE(kst::waitFor([&] { return upf.reportAnswers == 1 && upf.modifications == 1; }, 10));
    EXPECT_TRUE(kst::waitFor([&] { return t->PFCPSessionModificationResponse.Request == 1; }, 10));
    EXPECT_EQ(t->PFCPReceivedReportRequest.Request.load(), 1u);
    EXPECT_EQ(t->PFCPSentReportResponse.Request.load(), 1u);
    EXPECT_EQ(t->PFCPSessionModificationRequest.Request.load(), 1u);
    auto mods = receivedOfType(PFCP_SESSION_MODIFICATION_REQUEST_TYPE);
    ASSERT_EQ(mods.size(), 1u);
    auto m = std::make_unique<pfcp_message_t>();
    ASSERT_EQ(pfcp_decode_datagram(mods[0], m.get()), 1);
    EXPECT_EQ(m->h.seid, upfSeid);
    EXPECT_EQ(m->pfcp_session_modification_request.update_urr[0].urr_id.u32, 7u);
    // The modification no step waited for did not end the sleep: the scenario goes on to its end.
    EXPECT_TRUE(kst::waitFor([] { return finished(KsEngine__GetTestStatus(4)); }, 30));
    EXPECT_EQ(t->PFCPSessionDeleteResponse.Request.load(), 1u);
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 1);

    // A report of a session the SMF does not have is answered so: context not found.
    ASSERT_TRUE(upf.sendReport(0xFFFF0000u, 1));
    EXPECT_TRUE(kst::waitFor([&] { return upf.reportAnswers == 2; }, 10));
    auto answers = receivedOfType(PFCP_SESSION_REPORT_RESPONSE_TYPE);
    ASSERT_EQ(answers.size(), 2u);
    ASSERT_EQ(pfcp_decode_datagram(answers[1], m.get()), 1);
    EXPECT_EQ(m->pfcp_session_report_response.cause.u8, PFCP_CAUSE_SESSION_CONTEXT_NOT_FOUND);
    EXPECT_EQ(t->PFCPReceivedReportRequest.Request.load(), 1u);
    if (kst::tsharkAvailable()) {
        kst::TsharkRun run = kst::runTshark(KS_WSDECODE, "pfcp", 8805, "", {mods[0], answers[0], answers[1]},
                                            {"pfcp.cause", "pfcp.urr_id"});
        EXPECT_EQ(run.rc, 0) << run.report;
    }
}

}  // namespace
