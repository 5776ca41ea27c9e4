// The answerer's process in a network namespace of its own, the scripted gNB in
// another, over real SCTP associations of the userspace stack: raw IP, or SCTP in UDP
// when built with CA_SCTP_UDP. Control lines on the process's standard input, its
// counters on SIGUSR1, a lost association in the middle of a test.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <memory>

#include "ca_gnb.h"
#include "ks_test_util.h"
#include "mv_core.h"
#include "mv_socket_engine.h"
#include "mvalgo.h"
#include "netns.h"

#ifndef CA_ANSWERER
#define CA_ANSWERER "core_answerer"
#endif
#ifndef CA_SCTP_UDP
#define CA_SCTP_UDP 0
#endif

#define REQUIRE_NETNS() \
    if (!kse::Netns::get().skipReason.empty()) GTEST_SKIP() << kse::Netns::get().skipReason

namespace {

using cad::Driver;
using cat::Gnb;
using cad::Ue;
using kse::Netns;

std::string gDir;

class Env : public ::testing::Environment {
public:
    void SetUp() override {
        if (!Netns::get().skipReason.empty()) return;
        gDir = kst::makeTempDir("casctp");
        __init_morva_core();
        __mv_init_logger((gDir + "/").c_str());
        ASSERT_EQ(__mv_ogs_init_crypto_fun(), 0);
        __mv_socket_engine_init();
        __mv_socket_engine__set_sctp_backend("userspace", CA_SCTP_UDP);
    }
    void TearDown() override {
        if (getenv("KS_KEEP_LOGS")) printf("logs kept in %s\n", gDir.c_str());
        else if (!gDir.empty()) kst::removeTree(gDir);
    }
};

// The answerer's process in namespace B.
std::unique_ptr<kse::Peer> startAnswerer(int port, std::vector<std::string> extra = {}) {
    std::vector<std::string> argv = {CA_ANSWERER, "--bind", Netns::B[0], "--port", std::to_string(port), "--log-dir",
                                     gDir + "/answerer" + std::to_string(port) + "/"};
    if (CA_SCTP_UDP) argv.insert(argv.end(), {"--sctp-udp", std::to_string(CA_SCTP_UDP)});
    argv.insert(argv.end(), extra.begin(), extra.end());
    auto p = std::make_unique<kse::Peer>(argv);
    if (p->waitLine("READY", 30).empty()) return nullptr;
    return p;
}

// The value of a counter in the next block of counters the answerer prints (0 when
// the block has none, -1 when no block comes).
long nextBlock(kse::Peer& p, const std::string& name) {
    long v = 0;
    for (;;) {
        std::string l = p.waitLine("", 10);
        if (l.empty()) return -1;
        if (l == "END") return v;
        if (l.rfind("COUNTER " + name + " ", 0) == 0) v = atol(l.c_str() + 9 + name.size());
    }
}

// Asks for the counters until one shows `want`: the answerer counts a step when its
// last message arrives, which may be after the UE's side has seen the step done.
bool counterIs(kse::Peer& p, const std::string& name, long want) {
    for (int i = 0; i < 500; ++i) {
        p.send("counters");
        long v = nextBlock(p, name);
        if (v == want) return true;
        if (v < 0) return false;
        usleep(20000);
    }
    return false;
}

// Asks for the summary until it starts with `want`.
bool uesAre(kse::Peer& p, const std::string& want) {
    for (int i = 0; i < 500; ++i) {
        p.send("ues");
        std::string l = p.waitLine("UES ", 10);
        if (l.rfind(want, 0) == 0) return true;
        if (l.empty()) return false;
        usleep(20000);
    }
    return false;
}

TEST(Sctp, RegistersThroughTheAnswererProcess) {
    REQUIRE_NETNS();
    auto ans = startAnswerer(38412);
    ASSERT_TRUE(ans) << "the answerer did not start";
    Gnb g(38412);
    ASSERT_TRUE(g.up());
    for (size_t i = 0; i < 3; ++i) ASSERT_TRUE(g.registered(i)) << "UE " << i;
    for (uint8_t t = 1; t <= 3; ++t) {
        g.drv.establish(t - 1, 1, t);
        ASSERT_TRUE(g.drv.waitUe(t - 1, [](const Ue& u) { return u.sessions.count(1) && u.sessions.at(1).resources; }, 30));
    }
    g.drv.releaseSession(0, 1);
    ASSERT_TRUE(g.drv.waitUe(0, [](const Ue& u) { return u.sessions.at(1).released; }, 30));
    g.drv.releaseContext(1);
    ASSERT_TRUE(g.drv.waitUe(1, [](const Ue& u) { return u.contextReleases == 1; }, 30));
    g.drv.serviceRequest(1);
    ASSERT_TRUE(g.drv.waitUe(1, [](const Ue& u) { return u.serviceAccepts == 1 && u.sessions.at(1).resources; }, 30));
    g.drv.deregister(0, false);
    g.drv.deregister(2, true);
    ASSERT_TRUE(g.drv.waitUe(0, [](const Ue& u) { return u.deregAccepts == 1 && u.contextReleases == 1; }, 30));
    ASSERT_TRUE(g.drv.waitUe(2, [](const Ue& u) { return u.contextReleases == 1; }, 30));
    g.drv.with(1, [](Ue& u) {
        EXPECT_EQ(u.sessions.at(1).type, 2);
        EXPECT_EQ(u.sessions.at(1).iid.size(), 8u);
        EXPECT_EQ(u.macFailures, 0);
        return 0;
    });
    // The counters, on demand and on SIGUSR1.
    EXPECT_TRUE(counterIs(*ans, "ue.registered", 3));
    EXPECT_TRUE(counterIs(*ans, "ue.deregistered", 2));
    EXPECT_TRUE(counterIs(*ans, "pdu.established", 3));
    kill(ans->pid(), SIGUSR1);
    EXPECT_EQ(nextBlock(*ans, "ue.service_accepted"), 1);
    EXPECT_TRUE(uesAre(*ans, "UES associations=1 ng_setup=1 connections=1 known=3 registered=1 sessions=1"));
    std::string log = kst::readLogDir(gDir + "/answerer38412/app");
    EXPECT_NE(log.find("[imsi-001010000000002] PDU session 1: type 2"), std::string::npos);
    EXPECT_NE(log.find("[imsi-001010000000003] deregistered (switch off)"), std::string::npos);
}

TEST(Sctp, LostAssociationInTheMiddleOfATest) {
    REQUIRE_NETNS();
    auto ans = startAnswerer(38413);
    ASSERT_TRUE(ans);
    Gnb g(38413);
    ASSERT_TRUE(g.up());
    ASSERT_TRUE(g.registered(0));
    g.drv.establish(0, 1, 1);
    ASSERT_TRUE(g.drv.waitUe(0, [](const Ue& u) { return u.sessions.count(1) && u.sessions.at(1).resources; }, 30));
    int connects = g.connects.load();
    ans->send("abort");
    EXPECT_NE(ans->waitLine("OK closing 1 associations", 10), "");
    ASSERT_TRUE(kst::waitFor([&] { return g.closes.load() == 1; }, 30));
    // The gNB comes back on its own, sets up again, and UEs register afresh.
    ASSERT_TRUE(g.up(connects));
    ASSERT_TRUE(g.registered(1));
    ASSERT_TRUE(g.registered(0));
    EXPECT_TRUE(counterIs(*ans, "sctp.associations_lost", 1));
    EXPECT_TRUE(counterIs(*ans, "ue.registered", 3));
    EXPECT_TRUE(uesAre(*ans, "UES associations=1 ng_setup=1 connections=2 known=2 registered=2"));
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Before any thread: every thread and stack socket of this process is then in A.
    if (!::testing::GTEST_FLAG(list_tests)) Netns::get().enter();
    ::testing::AddGlobalTestEnvironment(new Env);
    return RUN_ALL_TESTS();
}
