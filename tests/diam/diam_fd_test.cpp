// Against a real Diameter peer from Debian (freeDiameterd), on loopback at a port of its
// own: capability exchange, watchdogs both ways, a request for an application the peer
// does not serve, disconnect by DPR, a peer that goes away and comes back. tshark
// reads every message of the connection.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include "diam_env.h"

namespace {

constexpr const char* kRealm = "ksdiam.realm";
constexpr const char* kPeerIdentity = "fd.ksdiam.realm";

class FreeDiameterd {
public:
    FreeDiameterd(const std::string& dir, int port, int twTimer) : dir_(dir), port_(port) {
        kst::writeFile(dir + "/acl.conf", std::string("ALLOW_IPSEC *.") + kRealm + "\n");
        std::string conf = std::string("Identity = \"") + kPeerIdentity + "\";\nRealm = \"" + kRealm +
                           "\";\nPort = " + std::to_string(port) +
                           ";\nSecPort = 0;\nNo_SCTP;\nNo_IPv6;\nTcTimer = 5;\nTwTimer = " + std::to_string(twTimer) +
                           ";\nLoadExtension = \"/usr/lib/freeDiameter/acl_wl.fdx\" : \"" + dir +
                           "/acl.conf\";\nLoadExtension = \"/usr/lib/freeDiameter/dict_nasreq.fdx\";\n";
        kst::writeFile(dir + "/fd.conf", conf);
    }
    ~FreeDiameterd() { stop(SIGKILL); }

    static bool present() { return access("/usr/bin/freeDiameterd", X_OK) == 0 && access("/usr/lib/freeDiameter/acl_wl.fdx", R_OK) == 0; }

    bool start() {
        size_t from = kst::readFile(logPath()).size();
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            int fd = open(logPath().c_str(), O_CREAT | O_WRONLY | O_APPEND, 0644);
            dup2(fd, 1);
            dup2(fd, 2);
            execl("/usr/bin/freeDiameterd", "freeDiameterd", "-c", (dir_ + "/fd.conf").c_str(), nullptr);
            _exit(127);
        }
        return kst::waitFor([&] { return kst::readFile(logPath()).find("daemon initialized", from) != std::string::npos; },
                            30);
    }
    void stop(int sig) {
        if (pid_ <= 0) return;
        kill(pid_, sig);
        for (int i = 0; i < 1500; ++i) {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
                pid_ = -1;
                return;
            }
            usleep(10000);
        }
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    std::string log() const { return kst::readFile(logPath()); }
    int port() const { return port_; }

private:
    std::string logPath() const { return dir_ + "/fd.log"; }
    std::string dir_;
    int port_;
    pid_t pid_ = -1;
};

ksd::Recorder* recorder = nullptr;

void onS6a(MV_DiamMessage* msg) {
    ksd::Seen s{__mv_diam_get_cmdcode(msg), __mv_diam_get_applicationid(msg), ntohl(__mv_diam_get_e2eid(msg)),
                __mv_diam_get_result_code(msg), __mv_diam_get_cmdflags(msg), nullptr};
    if (!(s.flags & MV_DIAM_FLAG_REQUEST)) s.object = __mv_diam_answer_object(msg);
    recorder->add(s);
    __mv_diam_freeMessage2(msg);
}

std::atomic<int> timeouts{0};
void onTimeout(void*) { ++timeouts; }

// An Update-Location-Request of the shape the HSS client sends.
MV_DiamMessage* ulr(MV_DiamNode* host, MV_DiamNode* peer, void* ue, bool withHost) {
    MV_DiamMessage* m = __mv_diam_create_request3(316, ksd::kS6a, ue, onTimeout, 10);
    char sid[MV_DIAM_SESSIONID_SIZE];
    int n = __mv_diam_generate_sessionid2(sid, host);
    __mv_diam_add_string_avp(m, 263, 0, 1, sid, uint32_t(n));
    __mv_diam_add_vendor_specific_auth_applicationid_avp(m, MV_DIAM_VENDOR_3GPP, ksd::kS6a);
    __mv_diam_add_uint32_avp(m, 277, 0, 1, 1);
    __mv_diam_add_host_name(m, host);
    __mv_diam_add_host_realm(m, host);
    if (withHost) __mv_diam_add_peer_name(m, peer);
    __mv_diam_add_peer_realm(m, peer);
    __mv_diam_add_string_avp(m, 1, 0, 1, "001010000000001", 15);
    __mv_diam_add_uint32_avp(m, 1032, MV_DIAM_VENDOR_3GPP, 1, 1004);
    __mv_diam_add_uint32_avp(m, 1405, MV_DIAM_VENDOR_3GPP, 1, 0x22);
    uint8_t plmn[3] = {0x00, 0xf1, 0x10};
    __mv_diam_add_string_avp(m, 1407, MV_DIAM_VENDOR_3GPP, 1, plmn, 3);
    return m;
}

class FreeDiameterPeer : public ::testing::Test {
protected:
    void SetUp() override {
        if (!FreeDiameterd::present()) GTEST_SKIP() << "freeDiameterd is not installed (Debian freediameter, freediameter-extensions)";
        recorder = &rec;
        __mv_diam_register_app_handler(ksd::kS6a, onS6a);
        dir = kst::makeTempDir("fd");
        port = ksd::freeTcpPort();
    }
    void TearDown() override {
        if (peer) __mv_diam_disable_peer(peer);
        if (peer) ksd::waitStatus(peer, 8, 10);
        fd.reset();
        if (!dir.empty() && !getenv("KS_KEEP_LOGS")) kst::removeTree(dir);
    }
    // Our node towards freeDiameterd: a host identity in the peer's realm and the peer itself.
    void connect(int twTimer, int dwr) {
        fd = std::make_unique<FreeDiameterd>(dir, port, twTimer);
        ASSERT_TRUE(fd->start()) << fd->log();
        std::string tag = "fd" + std::to_string(port);
        host = ksd::makeHost(tag, "ks" + std::to_string(port) + "." + kRealm, kRealm, "127.0.0.1", 0);
        peer = ksd::makePeer(host, kPeerIdentity, kRealm, "127.0.0.1", port, dwr);
        ASSERT_EQ(__mv_diam_start_peer(peer), 1);
        ASSERT_TRUE(ksd::waitStatus(peer, 20, 30)) << "status " << __mv_diam__get_peer_status(peer) << "\n" << fd->log();
    }
    std::string decodeAs() const { return "-d tcp.port==" + std::to_string(port) + ",diameter"; }

    ksd::Recorder& rec = *new ksd::Recorder;  // handlers of a finished test may still report
    std::string dir;
    int port = 0;
    std::unique_ptr<FreeDiameterd> fd;
    MV_DiamNode* host = nullptr;
    MV_DiamNode* peer = nullptr;
};

TEST_F(FreeDiameterPeer, CapabilitiesWatchdogsBothWaysAndAnUnservedApplicationTrackedToItsAnswer) {
    std::unique_ptr<ksd::Capture> cap;
    if (ksd::tsharkPresent()) cap = std::make_unique<ksd::Capture>(dir + "/fd.pcapng", "lo", "tcp port " + std::to_string(port));
    connect(6, 2);
    EXPECT_NE(ksd::stackLog().find("Received CEA with result code=2001"), std::string::npos);

    // Each side sends DWR after its own interval of silence, so the shorter one speaks:
    // ours first (2 s), then, with ours made longer, the peer's (6 +- 2 s). Both answered.
    ASSERT_TRUE(kst::waitFor([&] { return peer->ReceivedDWA >= 3; }, 30)) << "DWA received " << peer->ReceivedDWA;
    peer->DWRTimer = 60;
    ASSERT_TRUE(kst::waitFor([&] { return peer->ReceivedDWR >= 2; }, 40)) << "DWR received " << peer->ReceivedDWR;
    EXPECT_EQ(__mv_diam__get_peer_status(peer), 20);
    EXPECT_LE(peer->MissedDWA.load(), 1);

    // S6a is served by no one there: with Destination-Host 3007, with the realm alone 3002.
    int ue1 = 1, ue2 = 2;
    MV_DiamMessage* m = ulr(host, peer, &ue1, true);
    uint32_t e2e1 = ntohl(__mv_diam_get_e2eid(m));
    ASSERT_GT(__mv_diam_send_message(m, peer), 0);
    __mv_diam_freeMessage2(m);
    m = ulr(host, peer, &ue2, false);
    uint32_t e2e2 = ntohl(__mv_diam_get_e2eid(m));
    ASSERT_GT(__mv_diam_send_message(m, peer), 0);
    __mv_diam_freeMessage2(m);
    ASSERT_TRUE(kst::waitFor([&] { return rec.count() >= 2; }, 15));
    for (size_t i = 0; i < 2; ++i) {
        ksd::Seen s = rec.at(i);
        SCOPED_TRACE(i);
        EXPECT_EQ(s.cmd, 316u);
        EXPECT_EQ(s.app, ksd::kS6a);
        EXPECT_TRUE(s.flags & MV_DIAM_FLAG_ERROR);
        if (s.e2e == e2e1) {
            EXPECT_EQ(s.resultCode, uint32_t(DIAMETER_APPLICATION_UNSUPPORTED));
            EXPECT_EQ(s.object, &ue1);
        } else {
            EXPECT_EQ(s.e2e, e2e2);
            EXPECT_EQ(s.resultCode, uint32_t(DIAMETER_UNABLE_TO_DELIVER));
            EXPECT_EQ(s.object, &ue2);
        }
    }
    // Each row was taken by its answer: nothing is left for a late copy.
    EXPECT_EQ(__mv_diam_create_request3_getobject(e2e1), nullptr);
    EXPECT_EQ(timeouts.load(), 0);

    if (!cap) GTEST_SKIP() << "tshark is not installed: the wire was not checked";
    ASSERT_TRUE(cap->ok());
    std::string seen = cap->summary(decodeAs());
    for (const char* want : {"1 257", "0 257 0 2001", "1 280", "0 280 0 2001", "1 316 16777251", "0 316 16777251 3007",
                             "0 316 16777251 3002"})
        EXPECT_NE(seen.find(want), std::string::npos) << want << " not on the wire:\n" << seen;
    EXPECT_EQ(ksd::wsdecode(decodeAs() + " -r " + cap->path() + " diameter"), "");
}

TEST_F(FreeDiameterPeer, DisconnectByDprAndAPeerThatGoesAwayAndComesBack) {
    connect(6, 2);
    uint64_t connects = peer->Connects;

    // Ours: DPR, the peer's DPA, the connection closed; enabled again, a new exchange.
    __mv_diam_disable_peer(peer);
    ASSERT_TRUE(ksd::waitStatus(peer, 8, 15));
    EXPECT_NE(ksd::stackLog().find("DPA received from"), std::string::npos);
    __mv_diam_enable_peer(peer);
    ASSERT_TRUE(ksd::waitStatus(peer, 20, 20));
    EXPECT_EQ(peer->Connects, connects + 1);

    // The peer's: a stopping peer sends DPR, which is answered; the peer comes back and we with it.
    fd->stop(SIGTERM);
    ASSERT_TRUE(kst::waitFor([&] { return __mv_diam__get_peer_status(peer) != 20; }, 20));
    EXPECT_TRUE(kst::waitFor([&] { return ksd::stackLog().find("DPR received from") != std::string::npos; }, 5));
    ASSERT_TRUE(fd->start()) << fd->log();
    ASSERT_TRUE(ksd::waitStatus(peer, 20, 30)) << fd->log();

    // A peer that dies without a word: the next watchdog finds the connection gone.
    fd->stop(SIGKILL);
    ASSERT_TRUE(kst::waitFor([&] { return __mv_diam__get_peer_status(peer) != 20; }, 20));
    ASSERT_TRUE(fd->start()) << fd->log();
    ASSERT_TRUE(ksd::waitStatus(peer, 20, 30)) << fd->log();
    EXPECT_GE(peer->Connects, connects + 3);
}

// A minute of watchdogs both ways (KS_DIAM_WATCHDOG_SECONDS=60); the suite's own run is short.
TEST_F(FreeDiameterPeer, WatchdogsBothWaysForALongRun) {
    const char* env = getenv("KS_DIAM_WATCHDOG_SECONDS");
    int seconds = env ? atoi(env) : 0;
    if (seconds <= 0) GTEST_SKIP() << "set KS_DIAM_WATCHDOG_SECONDS to run";
    // The first half ours every 3 s, the second half the peer's every 6 +- 2 s.
    connect(6, 3);
    uint64_t conns = peer->Connects;
    sleep(unsigned(seconds / 2));
    peer->DWRTimer = 100;
    sleep(unsigned(seconds - seconds / 2));
    EXPECT_EQ(__mv_diam__get_peer_status(peer), 20);
    EXPECT_EQ(peer->Connects, conns);
    EXPECT_GE(peer->ReceivedDWA, uint64_t(seconds / 2 / 4));
    EXPECT_GE(peer->ReceivedDWR, uint64_t(seconds / 2 / 9));
    printf("after %d s: DWR sent %lu, DWA received %lu, DWR received %lu, missed %d\n", seconds,
           (unsigned long)peer->SentDWR.load(), (unsigned long)peer->ReceivedDWA.load(),
           (unsigned long)peer->ReceivedDWR.load(), peer->MissedDWA.load());
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new ksd::DiamEnv);
    return RUN_ALL_TESTS();
}
