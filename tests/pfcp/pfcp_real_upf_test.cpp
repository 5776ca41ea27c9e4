// The PFCP stack against the UPF of the real core network (../shared/peers/README.md), started in
// its namespace for this test and stopped after it, under the machine's lock of the core. tshark
// captures the wire between them; the codec reads every datagram of it.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>

#include <chrono>
#include <thread>

#include "ks_rig_dir.h"
#include "ks_test_util.h"
#include "pfcp_node.h"
#include "pfcp_testlib.h"

namespace {

using namespace kpf;

using kst::rigDir;
const char* const kEngineIp = "10.200.0.1";
const char* const kUpfIp = "10.200.0.2";

bool exists(const std::string& p) { return access(p.c_str(), F_OK) == 0; }

// A capture of the PFCP traffic on the engine's side of the veth.
class Capture {
public:
    explicit Capture(const std::string& file) : file_(file) {
        pid_ = fork();
        if (pid_ == 0) {
            int fd = open("/dev/null", O_WRONLY);
            dup2(fd, 1);
            dup2(fd, 2);
            execlp("tshark", "tshark", "-q", "-i", "ksrig0", "-f", "udp port 8805", "-w", file.c_str(), (char*)nullptr);
            _exit(127);
        }
    }
    void stop() {
        if (pid_ <= 0) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the last packets reach the file
        kill(pid_, SIGINT);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    ~Capture() {
        stop();
        unlink(file_.c_str());
    }

private:
    std::string file_;
    pid_t pid_ = -1;
};

using kst::waitFor;

__mv_pfcp_stats stats() {
    __mv_pfcp_stats s;
    __mv_pfcp__get_stats(&s);
    return s;
}

TEST(PfcpRealUpf, AssociatesAndKeepsHeartbeatsWithTheCoresUpf) {
    if (!exists("/opt/open5gs/bin/open5gs-upfd") || !exists(std::string(rigDir()) + "/start-core.sh"))
        GTEST_SKIP() << "the real core is not installed (install.sh of ../shared/peers/core): nothing to associate with";
    if (geteuid() != 0) GTEST_SKIP() << "the real core runs in a network namespace, which needs root";
    kst::RigLock lock;
    if (!lock.take(600)) GTEST_SKIP() << "the real core stayed in use by another run for 10 minutes (/tmp/ksrig.lock)";
    kst::RigCore core("WITH_4G=0", ::testing::TempDir() + "/pfcp_core_" + std::to_string(getpid()) + ".log");
    ASSERT_TRUE(core.start()) << kst::readFile(core.log());
    std::string pcap = ::testing::TempDir() + "/pfcp_real_" + std::to_string(getpid()) + ".pcapng";
    Capture capture(pcap);
    ASSERT_TRUE(waitFor([&] { return exists(pcap); }, 90)) << "tshark does not capture on ksrig0";

    std::string root = kst::makeTempDir("pfcpreal");
    __init_morva_core();
    __mv_init_logger((root + "/logs/").c_str());
    __mv_set_log_level(MV_STK_LOG, MV_LOG_INFO);
    __mv_pfcp_timers t;
    t.HeartbeatIntervalMs = 2000;  // the engine's 13 s would make a long test
    t.T1Ms = 1000;
    __mv_pfcp__set_timers(&t);
    ASSERT_EQ(__mv_pfcp__initalize(PFCP_NODE_TYPE__GATWEAY, PFCP_DEFAULT_PORT, 4, kEngineIp, 0, kEngineIp), 1);
    __mv_pfcp_node_t* upf = __mv_pfcp__add_upf(kUpfIp, 4, PFCP_DEFAULT_PORT);
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
    EXPECT_NE(upfLog.find(kEngineIp), std::string::npos) << "the UPF's log does not name " << kEngineIp;

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
            fromUpf += src == kUpfIp;
        }
        EXPECT_GE(fromUpf, 4);  // the association's answer and three heartbeat answers at least
    }
    kst::removeTree(root);
}

}  // namespace
