// The SMF's PFCP sessions against the UPF of the real core network (../shared/peers), under the
// machine's lock of the core: the UPF node comes up through connection command 1, then 1,000 UEs
// establish a session, have their downlink moved into the RAN's tunnel, change their quota and
// delete the session, at 100 UEs a second with at most 50 at a time. tshark captures the wire; the
// UPF's log shows the sessions. The UPF answers about 900 requests a second on a quiet machine and
// drops what overflows its socket: the load stays well under that on a busy one, and a step's
// timeout outlasts a request sent twice, so a lost datagram costs a retransmission, not the UE.
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>

#include "KsPFCP.h"
#include "Kestrane.h"
#include "ks_engine_env.h"
#include "ks_rig.h"
#include "ks_tshark.h"
#include "pfcp_codec.h"
#include "pfcp_node.h"

namespace {

constexpr int kUEs = 1000;

std::string imsi(int n) {
    char b[20];
    snprintf(b, sizeof b, "00101%010d", n);
    return b;
}

std::string noc() {
    std::string smf = kst::kRigEngineIp, upf = kst::kRigUpfIp;
    return R"([{"ID": 1, "ConnInfoType": 2, "TEApplicationType": 2, "IP_1": ")" + smf +
           R"(", "Port_1": 8805, "IP_2": ")" + smf + R"(", "Port_2": "2152", "TransportType": 1, "Enabled": 1},
               {"ID": 2, "ConnInfoType": 1, "TEApplicationType": 2, "IP_1": ")" + upf +
           R"(", "Port_1": 8805, "IP_2": ")" + upf + R"(", "Port_2": "2152", "TransportType": 1, "Enabled": 1}])";
}

kst::EngineInDir* gEnv = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(new kst::EngineInDir(
    "pfcpreal",
    {{"cfg.json", R"({"LOCAL_GTP_IP": "10.200.0.1", "MaximumUE": 2000, "IMSIPrefixWithZERO": 1, "CLIPort": 0,
                      "DefaultTimeoutSeconds": 15, "LogLevel": {"APPLICATION": 3, "STACK": 3}})"},
     {"data/uel.json", "[{\"ID\": 1, \"MSINStart\": \"" + imsi(1) + "\", \"MSINEnd\": \"" + imsi(kUEs) +
                           "\", \"MCC\": \"001\", \"MNC\": \"01\", \"MSISDNBegin\": \"9000000001\"}]"},
     // Addresses of the UE pool the core's UPF routes, away from those its own SMF hands out.
     {"data/set.json", R"({"UPF": {"1": "10.45.200.1/16", "59": "1"}})"},
     {"data/noc.json", noc()},
     {"data/sce.json", R"([{"ID": 1, "Config": [{"ID": 1001}, {"ID": 1002}, {"ID": 1003}]}])"},
     {"data/tst.json", "[{\"ID\": 1, \"Name\": \"upf\", \"ScenarioID\": 1, \"MPS\": 100, \"Concurrent\": 50, \"SUPIStartNo\": \"" +
                           imsi(1) + "\", \"SUPIStartEnd\": \"" + imsi(kUEs) + "\"}]"}})));

bool finished(uint32_t s) {
    return s != KS_TEST__QUEUED && s != KS_TEST__QUEUED_ALT && s != KS_TEST__RUNNING && s != KS_TEST__STOP;
}

TEST(PfcpSessionRealUpf, ThousandUEsEstablishModifyAndDeleteTheirSessionsAllAccepted) {
    if (std::string why = kst::rigMissing(); !why.empty()) GTEST_SKIP() << why << ": no UPF to hold sessions";
    kst::RigLock lock;
    if (!lock.take(600)) GTEST_SKIP() << "the real core stayed in use by another run for 10 minutes (/tmp/ksrig.lock)";
    kst::RigCore core("pfcpsess");
    ASSERT_TRUE(core.start()) << kst::readFile(core.log());
    std::string pcap = ::testing::TempDir() + "/pfcp_sess_real_" + std::to_string(getpid()) + ".pcapng";
    kst::RigCapture capture(pcap, "udp port 8805");
    ASSERT_TRUE(kst::waitFor([&] { return kst::pathExists(pcap); }, 90)) << "tshark does not capture on ksrig0";

    ASSERT_EQ(KsTE__InitCommand(KS_APP_TYPE__UPF, 1, KS_TE_COMMAND__ADD_NODE), 1);
    KsTEConnection* conn = KsTE__GetConnectionByTEApplicationType(KS_APP_TYPE__UPF, 0);
    ASSERT_NE(conn, nullptr);
    ASSERT_NE(conn->ksServer_upf_node.load(), nullptr) << gEnv->appLog();
    ASSERT_TRUE(kst::waitFor(
        [&] { return conn->ksServer_upf_node.load()->isAssociationStarted == PFCP_ASSOCIATION__ASSOCIATED; }, 30))
        << kst::readLogDir(gEnv->dir() + "/logs/stk");

    auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(KsEngine__AddTestToQueue(1, KS_TEST__QUEUED), 3u);
    ASSERT_TRUE(kst::waitFor([] { return finished(KsEngine__GetTestStatus(1)); }, 300));
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    KsTestExec* t = KsEngine__FindTest(1);
    ASSERT_NE(t, nullptr);
    printf("real UPF: %.1f s, %.0f UEs a second; %lu establishments, %lu modifications, %lu deletions accepted; "
           "%lu timeouts\n", seconds, kUEs / seconds,
           (unsigned long)t->PFCPSessionEstablishmentResponse.Request.load(),
           (unsigned long)t->PFCPSessionModificationResponse.Request.load(),
           (unsigned long)t->PFCPSessionDeleteResponse.Request.load(), (unsigned long)t->ExecutionTimeout.Total.load());
    EXPECT_EQ(t->CompletedExecutionUECount.load(), kUEs);
    EXPECT_EQ(t->PFCPSessionEstablishmentRequest.Request.load(), uint64_t(kUEs));
    EXPECT_EQ(t->PFCPSessionEstablishmentResponse.Request.load(), uint64_t(kUEs));
    EXPECT_EQ(t->PFCPSessionEstablishmentErrorResponse.Request.load(), 0u);
    EXPECT_EQ(t->PFCPSessionModificationRequest.Request.load(), uint64_t(2 * kUEs)) << "the RAN's tunnel, the quota";
    EXPECT_EQ(t->PFCPSessionModificationResponse.Request.load(), uint64_t(2 * kUEs));
    EXPECT_EQ(t->PFCPSessionModificationErrorResponse.Request.load(), 0u);
    EXPECT_EQ(t->PFCPSessionDeleteRequest.Request.load(), uint64_t(kUEs));
    EXPECT_EQ(t->PFCPSessionDeleteResponse.Request.load(), uint64_t(kUEs));
    EXPECT_EQ(t->ExecutionTimeout.Total.load(), 0u);
    EXPECT_EQ(ksPfcpTally.UnknownSeid.load() + ksPfcpTally.StaleAnswers.load(), 0u);
    __mv_pfcp_stats st;
    __mv_pfcp__get_stats(&st);
    printf("stack: %lu requests, %lu retransmissions, %lu failed, %lu late answers, %lu wrong SEIDs\n",
           (unsigned long)st.txRequests, (unsigned long)st.retransmissions, (unsigned long)st.requestsFailed,
           (unsigned long)st.rxLateResponses, (unsigned long)st.rxWrongSeid);
    EXPECT_EQ(st.rxDecodeFailed + st.rxBadLength + st.rxBadType + st.rxBadVersion + st.rxWrongSeid, 0u);
    EXPECT_EQ(conn->ksServer_upf_node.load()->isAssociationStarted.load(), PFCP_ASSOCIATION__ASSOCIATED);
    capture.stop();

    // The UPF's own log shows the sessions come and go.
    std::string upfLog = kst::readFile("/var/lib/ksrig/log/upf.log");
    EXPECT_NE(upfLog.find("10.45.200."), std::string::npos) << "the UPF's log names no UE of the engine's pool";

    // tshark finds nothing wrong in either direction, and the codec reads every datagram.
    if (!kst::tsharkAvailable()) return;
    std::string out;
    EXPECT_EQ(kst::runCommand("sh " KS_WSDECODE " -q -r " + pcap + " pfcp 2>&1", &out), 0) << out.substr(0, 4000);
    out.clear();
    kst::runCommand("tshark -n -r " + pcap + " -Y pfcp -T fields -e udp.payload 2>/dev/null", &out);
    std::istringstream lines(out);
    std::string hex;
    size_t n = 0, bad = 0;
    auto m = std::make_unique<pfcp_message_t>();
    while (lines >> hex) {
        ++n;
        if (pfcp_decode_datagram(kst::fromHex(hex), m.get()) != 1) ++bad;
    }
    EXPECT_GE(n, size_t(8 * kUEs)) << "four requests and four answers a UE";
    EXPECT_EQ(bad, 0u);
}

}  // namespace
