// The start rate, the ceiling on UEs in progress and the step queue's pause, judged by what a
// step family saw arrive: when each step came and how many were in progress then. Only lower
// bounds of time are asserted, the ones the engine's own sleeps guarantee; the rate is taken
// over the engine's ticks, whose length is the engine's pacing.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "KsLoadProbe.h"
#include "Kestrane.h"
#include "ks_engine_env.h"

namespace {

std::string imsi(int n) {
    char b[20];
    snprintf(b, sizeof b, "00101%010d", n);
    return b;
}

std::string probe(int seconds) {
    return "{\"ID\": " + std::to_string(KS_PROBE_STEP_ID) + ", \"Dict\": [{\"Key\": 3, \"Value\": \"" +
           std::to_string(seconds) + "\"}]}";
}

std::string testEntry(int id, int scenario, int from, int to, int mps, int times, int concurrent) {
    return "{\"ID\": " + std::to_string(id) + ", \"Name\": \"load" + std::to_string(id) +
           "\", \"ScenarioID\": " + std::to_string(scenario) + ", \"MPS\": " + std::to_string(mps) +
           ", \"NoOfTimes\": " + std::to_string(times) + ", \"Concurrent\": " + std::to_string(concurrent) +
           ", \"SUPIStartNo\": \"" + imsi(from) + "\", \"SUPIStartEnd\": \"" + imsi(to) + "\"}";
}

kst::EngineInDir* gEnv = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(new kst::EngineInDir(
    "load",
    {{"cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "MaximumUE": 6000, "IMSIPrefixWithZERO": 1, "CLIPort": 0,
                      "DefaultTimeoutSeconds": 20, "LogLevel": {"APPLICATION": 3, "COMMON": 5}})"},
     {"data/uel.json", "[{\"ID\": 1, \"MSINStart\": \"" + imsi(1) + "\", \"MSINEnd\": \"" + imsi(5000) +
                           "\", \"MCC\": \"001\", \"MNC\": \"01\", \"MSISDNBegin\": \"9000000001\"}]"},
     // 1: answered at once. 2: held two seconds. 3: two steps, the second through the step queue.
     {"data/sce.json", "[{\"ID\": 1, \"Config\": [" + probe(0) + "]}, {\"ID\": 2, \"Config\": [" + probe(2) +
                           "]}, {\"ID\": 3, \"Config\": [" + probe(0) + "," + probe(0) + "]}]"},
     {"data/tst.json", "[" + testEntry(1, 1, 1, 4000, 500, 2, 300) + "," + testEntry(2, 2, 4001, 4600, 500, 2, 300) +
                           "," + testEntry(3, 3, 4701, 5000, 100, 3, -1) + "]"}})));

bool finished(uint32_t s) {
    return s != KS_TEST__QUEUED && s != KS_TEST__QUEUED_ALT && s != KS_TEST__RUNNING && s != KS_TEST__STOP;
}

// Runs the test; returns the arrivals it caused, in time order.
std::vector<KsProbeArrival> run(uint32_t id) {
    uint32_t before = ksProbe.count;
    ksProbe.maxInProgress = 0;
    EXPECT_EQ(KsEngine__AddTestToQueue(id, KS_TEST__QUEUED), 3u);
    EXPECT_TRUE(kst::waitFor([id] { return KsEngine__GetTestStatus(id) != KS_TEST__QUEUED; }, 10));
    EXPECT_TRUE(kst::waitFor([id] { return finished(KsEngine__GetTestStatus(id)); }, 120)) << "test " << id;
    uint32_t after = std::min<uint32_t>(ksProbe.count, KsProbeTally::kMax);
    std::vector<KsProbeArrival> v(ksProbe.arrivals + before, ksProbe.arrivals + after);
    std::sort(v.begin(), v.end(), [](const auto& a, const auto& b) { return a.atNs < b.atNs; });
    return v;
}

TEST(LoadControl, StartsAtTheBudgetPerTickWithTheCeilingBelowIt) {
    // Each answer takes 2 ms of its UE's line: the ceiling is reached within a round of the
    // drive loop, and the budget must still be spent as UEs complete.
    ksProbe.holdUs = 2000;
    std::vector<KsProbeArrival> a = run(1);
    ksProbe.holdUs = 0;
    ASSERT_EQ(a.size(), 4000u);
    KsTestExec* t = KsEngine__FindTest(1);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 4000);
    EXPECT_LE(ksProbe.maxInProgress.load(), 300);
    // Budget 500 x 2 a tick. The test's first tick is a part of one (its budget is spent at once,
    // and the next tick refills it whenever it comes), so the rate is taken over the two whole
    // ticks after it: from the 1001st start to the 3001st. More than the budget a tick puts the
    // 3001st earlier, a ceiling that starves the budget later.
    double seconds = double(a[3000].atNs - a[1000].atNs) / 1e9;
    // Only the bound is the engine's: a loaded machine may see a tick late, never early.
    double rate = 2000 / seconds;
    EXPECT_LE(rate, 1020.0) << "starts per second over two ticks: " << rate;
    // Every tick spent exactly its budget: the long gaps fall after the 2000th and the 3000th start.
    EXPECT_GT(a[2000].atNs - a[1999].atNs, 200'000'000);
    EXPECT_GT(a[3000].atNs - a[2999].atNs, 200'000'000);
    // The progress line shows the budget and the ceiling.
    EXPECT_TRUE(kst::waitFor([] {
        return gEnv->appLog().size() > 0 &&
               kst::readLogDir(gEnv->dir() + "/logs//cmn").find("C[500*<02|") != std::string::npos;
    }, 10));
    std::string cmn = kst::readLogDir(gEnv->dir() + "/logs//cmn");
    EXPECT_NE(cmn.find("< Concurrent 300]"), std::string::npos);
    EXPECT_NE(cmn.find(">=1000"), std::string::npos);
    EXPECT_GE(t->ExecutionTicks, 3u);
}

TEST(LoadControl, NeverMoreInProgressThanTheCeiling) {
    std::vector<KsProbeArrival> a = run(2);
    ASSERT_EQ(a.size(), 600u);
    KsTestExec* t = KsEngine__FindTest(2);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 600);
    // Each step is held two seconds: the ceiling is reached, and never passed.
    EXPECT_EQ(ksProbe.maxInProgress.load(), 300);
    EXPECT_EQ(t->CurrentExecutionCount.load(), 0);
    EXPECT_EQ(t->ExecutionTimeout.Total, 0u);
}

TEST(LoadControl, LaterStepsPassTheQueueInBurstsOfMPSWithAPauseBetween) {
    int64_t sentBefore = __ksEngine->lastSent;
    std::vector<KsProbeArrival> a = run(3);
    ASSERT_EQ(a.size(), 600u);
    std::vector<int64_t> later;
    for (const auto& x : a)
        if (x.completedSteps == 1) later.push_back(x.atNs);
    ASSERT_EQ(later.size(), 300u) << "one later step a UE";
    // Bursts of 100, each followed by a pause of a tenth of a second: any 101 later steps in a
    // row straddle a pause, and the 300 span two.
    for (size_t i = 0; i + 100 < later.size(); ++i)
        ASSERT_GE(later[i + 100] - later[i], 80'000'000) << "at " << i;
    EXPECT_GE(later.back() - later.front(), 180'000'000);
    // The counter of paced items grew by the later steps, and only by them.
    EXPECT_TRUE(kst::waitFor([&] { return __ksEngine->lastSent - sentBefore >= 300; }, 10));
    EXPECT_EQ(__ksEngine->lastSent - sentBefore, 300);
}

}  // namespace
