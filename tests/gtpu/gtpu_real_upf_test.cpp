// The GTP-U endpoint against the N3 of the real core's UPF (../shared/peers/README.md), started for
// this test under the machine's lock of the core: our echo requests answered, and a T-PDU on a tunnel the UPF
// never gave out. tshark reads the wire between them.
#include <sstream>

#include "gtpu_node.h"
#include "gtpu_testlib.h"
#include "ks_rig.h"

namespace {

using namespace kgt;
using kst::waitFor;

std::atomic<int> gEchoResponses{0};
std::atomic<int> gErrorIndications{0};

TEST(GtpuRealUpf, AnswersOurEchoAndEveryDatagramOnTheWireDecodes) {
    if (std::string why = kst::rigMissing(); !why.empty()) GTEST_SKIP() << why << ": no UPF to meet";
    kst::RigLock lock;
    if (!lock.take(600)) GTEST_SKIP() << "the real core stayed in use by another run for 10 minutes (/tmp/ksrig.lock)";
    kst::RigCore core("gtpu");
    ASSERT_TRUE(core.start()) << kst::readFile(core.log());
    std::string pcap = ::testing::TempDir() + "/gtpu_real_" + std::to_string(getpid()) + ".pcapng";
    kst::RigCapture capture(pcap, "udp port 2152");
    ASSERT_TRUE(waitFor([&] { return kst::pathExists(pcap); }, 90)) << "tshark does not capture on ksrig0";

    const std::string& root = startRuntime();
    __mv_gtpu_config cfg;
    cfg.ip = kst::kRigEngineIp;
    cfg.port = GTPU_PORT;
    cfg.handlers.OnEchoResponse = [](uint16_t, const gtpu_peer*) { ++gEchoResponses; };
    cfg.handlers.OnErrorIndication = [](const gtpu_ies_t*, const gtpu_peer*) { ++gErrorIndications; };
    __mv_gtpu_node* node = __mv_gtpu__open(&cfg);
    ASSERT_NE(node, nullptr) << kst::readLogDir(root + "/logs/stk");
    gtpu_peer upf;
    ASSERT_TRUE(gtpu_peer_set(&upf, kst::kRigUpfIp, GTPU_PORT));

    // Its answers to our echo requests.
    for (uint16_t seq = 1; seq <= 3; seq++) ASSERT_EQ(__mv_gtpu__send_echo_request(node, upf, seq), 12);
    EXPECT_TRUE(waitFor([&] { return gEchoResponses >= 3; }, 30)) << gEchoResponses.load() << " echo responses";

    // A T-PDU on a TEID it never gave out: it may answer with an error indication (this one drops it
    // silently), which must decode.
    Bytes t(16 + 28);
    gtpu_tpdu_hdr h;
    h.teid = 0x7ffffff1;
    ASSERT_EQ(gtpu_build_tpdu_header(t, h, 28), 16u);
    gtpu_inner f;
    f.protocol = GTPU_IP_ICMP;
    f.srcV4 = 0x0a2d0063;
    f.dstV4 = 0x0a2d0001;
    ASSERT_EQ(gtpu_build_inner_packet(std::span<uint8_t>(t.data() + 16, 28), f, {}), 28u);
    ASSERT_EQ(__mv_gtpu__send_one(node, upf, t.data(), t.size()), int(t.size()));
    waitFor([&] { return gErrorIndications >= 1; }, 5);
    capture.stop();
    __mv_gtpu_stats s;
    __mv_gtpu__get_stats(node, &s);
    printf("real UPF: %d echo responses, %d error indications, %lu datagrams dropped\n", gEchoResponses.load(),
           gErrorIndications.load(), (unsigned long)s.dropped());
    EXPECT_EQ(s.dropped(), 0u) << kst::readLogDir(root + "/logs/stk");
    __mv_gtpu__close(node);

    // Both sides on the wire: tshark finds nothing wrong, and the decoder reads every datagram.
    if (kst::tsharkAvailable()) {
        std::string out;
        EXPECT_EQ(kst::runCommand("sh " KS_WSDECODE " -q -r " + pcap + " gtpu 2>&1", &out), 0) << out;
        out.clear();
        kst::runCommand("tshark -n -r " + pcap + " -Y gtp -T fields -e ip.src -e udp.payload 2>/dev/null", &out);
        std::istringstream lines(out);
        std::string src, hex;
        int fromUpf = 0;
        while (lines >> src >> hex) {
            SCOPED_TRACE(src + " " + hex);
            gtpu_msg_t m;
            EXPECT_EQ(gtpu_decode(fromHex(hex), &m), 1);
            fromUpf += src == kst::kRigUpfIp;
        }
        EXPECT_GE(fromUpf, 3);
    }
}

}  // namespace
