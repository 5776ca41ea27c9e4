// The answerer's procedures against the scripted gNB and UEs, in memory.
#include <gtest/gtest.h>

#include "ca_loop.h"
#include "ks_test_util.h"
#include "mv_core.h"
#include "mvalgo.h"

namespace {

std::string gLogs;

class Env : public ::testing::Environment {
public:
    void SetUp() override {
        gLogs = kst::makeTempDir("caflow");
        __init_morva_core();
        __mv_init_logger((gLogs + "/").c_str());
        __mv_set_log_level(MV_APP_LOG, MV_LOG_DEBUG);
        __mv_set_log_level(MV_STK_LOG, MV_LOG_WARNING);
        ASSERT_EQ(__mv_ogs_init_crypto_fun(), 0);
    }
    void TearDown() override {
        if (getenv("KS_KEEP_LOGS")) printf("logs kept in %s\n", gLogs.c_str());
        else kst::removeTree(gLogs);
    }
};

using cat::Loop;
using cad::Ue;

TEST(Flow, RegisterSessionReleaseDeregister) {
    Loop l({});
    ASSERT_TRUE(l.ok) << l.error;
    ASSERT_TRUE(l.setup());
    l.drv.registerUe(0);
    ASSERT_TRUE(l.drv.waitUe(0, [](const Ue& u) { return u.registered; }, 10));
    l.drv.establish(0, 1, 1);
    ASSERT_TRUE(l.drv.waitUe(0, [](const Ue& u) { return u.sessions.count(1) && u.sessions.at(1).accepted; }, 10));
    l.drv.releaseSession(0, 1);
    ASSERT_TRUE(l.drv.waitUe(0, [](const Ue& u) { return u.sessions.at(1).released; }, 10));
    l.drv.deregister(0, false);
    ASSERT_TRUE(l.drv.waitUe(0, [](const Ue& u) { return u.deregAccepts == 1 && u.contextReleases == 1; }, 10));
    l.settle();
    EXPECT_EQ(l.counter("ue.registered"), 1u);
    EXPECT_EQ(l.counter("ue.deregistered"), 1u);
    l.drv.with(0, [](Ue& u) {
        for (auto& e : u.events) printf("%s\n", e.c_str());
        return 0;
    });
    printf("%s", l.counters.text().c_str());
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new Env);
    return RUN_ALL_TESTS();
}
