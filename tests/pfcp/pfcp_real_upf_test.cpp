// The PFCP stack against the UPF of the real core network (../shared/peers/README.md), started in
// its namespace for this test and stopped after it, under the machine's lock of the core. tshark
// captures the wire between them; the codec reads every datagram of it.
#include "ks_rig.h"
#include "pfcp_node.h"
#include "pfcp_testlib.h"

namespace {

using namespace kpf;

using kst::waitFor;

__mv_pfcp_stats stats() {
    __mv_pfcp_stats s;
    __mv_pfcp__get_stats(&s);
    return s;
}

TEST(PfcpRealUpf, AssociatesAndKeepsHeartbeatsWithTheCoresUpf) {
    if (std::string why = kst::rigMissing(); !why.empty()) GTEST_SKIP() << why << ": nothing to associate with";
    kst::RigLock lock;
    if (!lock.take(600)) GTEST_SKIP() << "the real core stayed in use by another run for 10 minutes (/tmp/ksrig.lock)";
    kst::RigCore core("pfcp");
    ASSERT_TRUE(core.start()) << kst::readFile(core.log());
    std::string pcap = ::testing::TempDir() + "/pfcp_real_" + std::to_string(getpid()) + ".pcapng";
    kst::RigCapture capture(pcap, "udp port 8805");
    ASSERT_TRUE(waitFor([&] { return kst::pathExists(pcap); }, 90)) << "tshark does not capture on ksrig0";

    std::string root = kst::makeTempDir("pfcpreal");
    __init_morva_core();
    __mv_init_logger((root + "/logs/").c_str());
    __mv_set_log_level(MV_STK_LOG, MV_LOG_INFO);
    __mv_pfcp_timers t;
    t.HeartbeatIntervalMs = 2000;  // the engine's 13 s would make a long test
    t.T1Ms = 1000;
    __mv_pfcp__set_timers(&t);
    ASSERT_EQ(__mv_pfcp__initalize(PFCP_NODE_TYPE__GATWEAY, PFCP_DEFAULT_PORT, 4, kst::kRigEngineIp, 0,
                                   kst::kRigEngineIp),
              1);
    __mv_pfcp_node_t* upf = __mv_pfcp__add_upf(kst::kRigUpfIp, 4, PFCP_DEFAULT_PORT);
    ASSERT_NE(upf, nullptr);
    ASSERT_TRUE(waitFor([&] { return upf->isAssociationStarted == PFCP_ASSOCIATION__ASSOCIATED; }, 30))
        << kst::readLogDir(root + "/logs/stk");
    EXPECT_EQ(upf->lastCause.load(), PFCP_CAUSE_REQUEST_ACCEPTED);
    EXPECT_NE(upf->peerRecoveryTimeStamp.load(), 0u);
    ASSERT_TRUE(waitFor([&] { return stats().heartbeatsAnswered >= 3; }, 30));
    EXPECT_EQ(upf->isAssociationStarted.load(), PFCP_ASSOCIATION__ASSOCIATED);
    EXPECT_LE(upf->pending_heartbeat_response.load(), 1);
    // The UPF's own heartbeats, if it sends them within the time, are answered.
    waitFor([&] { return stats().heartbeatsReceived >= 1; }, 15);
    __mv_pfcp_stats s = stats();
    printf("real UPF: associated, %lu heartbeats answered by it, %lu of its heartbeats answered by us\n",
           (unsigned long)s.heartbeatsAnswered, (unsigned long)s.heartbeatsReceived);
    EXPECT_EQ(s.rxDecodeFailed + s.rxBadLength + s.rxBadType + s.rxBadVersion, 0u);
    // This UPF does not answer a release (it logs the type as not implemented): after its
    // retransmission the release stands on our side anyway.
    EXPECT_EQ(__mv_pfcp__release_association(upf), 1);
    EXPECT_TRUE(waitFor([&] { return upf->isAssociationStarted == PFCP_ASSOCIATION__NOT_STARTED; }, 10));
    capture.stop();

    // The UPF took the association: its own log says so.
    std::string upfLog = kst::readFile("/var/lib/ksrig/log/upf.log");
    EXPECT_NE(upfLog.find(kst::kRigEngineIp), std::string::npos) << "the UPF's log does not name " << kst::kRigEngineIp;

    // Both sides on the wire: tshark finds nothing wrong, and the codec reads every datagram.
    if (tsharkAvailable()) {
        std::string out;
        EXPECT_EQ(runCommand("sh " KS_WSDECODE " -q -r " + pcap + " pfcp 2>&1", &out), 0) << out;
        out.clear();
        runCommand("tshark -n -r " + pcap + " -Y pfcp -T fields -e ip.src -e udp.payload 2>/dev/null", &out);
        std::istringstream lines(out);
        std::string src, hex;
        int fromUpf = 0;
        auto m = newMessage();
        while (lines >> src >> hex) {
            SCOPED_TRACE(src + " " + hex);
            pfcp_rx_result_t rx;
            EXPECT_EQ(pfcp_decode_datagram(fromHex(hex), m.get(), &rx), 1);
            EXPECT_EQ(rx.tlv.dropped, 0u);
            fromUpf += src == kst::kRigUpfIp;
        }
        EXPECT_GE(fromUpf, 4);  // the association's answer and three heartbeat answers at least
    }
    kst::removeTree(root);
}

}  // namespace
