// Tests run by the real engine, started in-process in a scratch directory: the test
// queue, passes, pacing, the ceiling, stop, busy UEs, every failure state and the
// step timer. What is checked is what a user sees: states, counters, log lines.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Kestrane.h"
#include "ks_test_util.h"

namespace {

std::string gDir;

std::string imsi(int n) {
    char b[20];
    snprintf(b, sizeof b, "00101%010d", n);
    return b;
}

std::string testEntry(int id, int scenario, int from, int to, const std::string& extra = "") {
    std::string s = "{\"ID\": " + std::to_string(id) + ", \"Name\": \"t" + std::to_string(id) +
                    "\", \"ScenarioID\": " + std::to_string(scenario);
    if (from) s += ", \"SUPIStartNo\": \"" + imsi(from) + "\"";
    if (to) s += ", \"SUPIStartEnd\": \"" + imsi(to) + "\"";
    if (!extra.empty()) s += ", " + extra;
    return s + "}";
}

std::string sleepStep(int secs) {
    return "{\"ID\": 3, \"Dict\": [{\"Key\": 3, \"Value\": \"" + std::to_string(secs) + "\"}]}";
}

class EngineEnv : public ::testing::Environment {
public:
    void SetUp() override {
        gDir = kst::makeTempDir("engine");
        mkdir((gDir + "/data").c_str(), 0700);
        kst::writeFile(gDir + "/cfg.json",
                       R"({"LOCAL_GTP_IP": "127.0.0.1", "MaximumUE": 5000, "IMSIPrefixWithZERO": 1, "DefaultTimeoutSeconds": 2, "CLIPort": 0,
                           "LogLevel": {"APPLICATION": 4, "STACK": 3, "COMMON": 5}})");
        kst::writeFile(gDir + "/data/uel.json", "[{\"ID\": 1, \"MSINStart\": \"" + imsi(1) + "\", \"MSINEnd\": \"" +
                                                    imsi(2000) + "\", \"MCC\": \"001\", \"MNC\": \"01\", \"MSISDNBegin\": \"9000000001\"}, " +
                                                    "{\"ID\": 2, \"MSINStart\": 5, \"MSINEnd\": \"x\"}]");
        kst::writeFile(gDir + "/data/sce.json",
                       "[{\"ID\": 1, \"Config\": [" + sleepStep(0) + "]}," +                             //
                           "{\"ID\": 2, \"Config\": [" + sleepStep(0) + "," + sleepStep(0) + "," + sleepStep(0) + "]}," +
                           "{\"ID\": 3, \"Config\": [" + sleepStep(30) + "]}," +
                           "{\"ID\": 4, \"Config\": [{\"ID\": 0}, {\"ID\": 200000}, {\"ID\": 50}]}," +
                           "{\"ID\": 5, \"Config\": [" + sleepStep(1) + "," + sleepStep(0) + "]}," +
                           "{\"ID\": 6, \"Config\": [" + sleepStep(1) + "]}]");
        std::string tests = "[" + testEntry(1, 1, 1, 200, "\"MPS\": 1000") + "," +
                            testEntry(2, 2, 201, 250, "\"MPS\": 1000, \"EndAction\": 1") + "," +
                            testEntry(3, 1, 251, 280, "\"MPS\": 10") + "," +
                            testEntry(4, 1, 281, 290, "\"Concurrent\": 0") + "," +
                            testEntry(5, 3, 301, 310) + "," +  //
                            testEntry(7, 3, 401, 410) + "," +  //
                            testEntry(8, 1, 405, 415) + "," +  //
                            testEntry(9, 1, 401, 404) + "," +  //
                            testEntry(20, 999, 1, 10) + "," +  //
                            testEntry(21, 4, 1, 10) + "," +    //
                            testEntry(22, 1, 0, 10) + "," +    //
                            testEntry(23, 1, 20, 10) + "," +   //
                            testEntry(24, 1, 1900000, 1900010) + "," +
                            testEntry(25, 1, 501, 505, "\"AppType\": 1") + "," +
                            testEntry(30, 1, 601, 605) + "," +  //
                            testEntry(31, 5, 701, 710, "\"MPS\": 2, \"NoOfTimes\": 101") + "," +
                            testEntry(32, 6, 801, 803, "\"Concurrent\": 1") + "]";
        kst::writeFile(gDir + "/data/tst.json", tests);
        std::string cfg = gDir + "/cfg.json";
        char* argv[] = {const_cast<char*>("kestrane"), cfg.data(), nullptr};
        // A failed environment would mark every test skipped, which ctest passes.
        if (chdir(gDir.c_str()) != 0 || KsEngine__Startup(2, argv) != 1) {
            fprintf(stderr, "the engine did not start in %s\n", gDir.c_str());
            std::_Exit(1);
        }
    }
    void TearDown() override { kst::removeTree(gDir); }
};

::testing::Environment* const env = ::testing::AddGlobalTestEnvironment(new EngineEnv);

std::string cmnLog() { return kst::readLogDir(gDir + "/logs//cmn"); }

bool finished(uint32_t s) {
    return s != KS_TEST__QUEUED && s != KS_TEST__QUEUED_ALT && s != KS_TEST__RUNNING && s != KS_TEST__STOP;
}

// Queues a test and waits until it has left the running states.
uint32_t runToEnd(uint32_t id, double seconds) {
    EXPECT_EQ(KsEngine__AddTestToQueue(id, KS_TEST__QUEUED), 3u);
    EXPECT_TRUE(kst::waitFor([id] { return KsEngine__GetTestStatus(id) != KS_TEST__QUEUED; }, 5));
    EXPECT_TRUE(kst::waitFor([id] { return finished(KsEngine__GetTestStatus(id)); }, seconds)) << "test " << id;
    return KsEngine__GetTestStatus(id);
}

MV_KsUE* ue(int n) {
    MV_KsUE* u = nullptr;
    KsEngine__FindUEByIMSI(&u, imsi(n).c_str());
    return u;
}

TEST(TestExecution, UEsOfTheRangeWalkTheScenarioToTheEnd) {
    ASSERT_NE(ue(1), nullptr);
    EXPECT_STREQ(KsUE__supi(ue(1)), ("imsi-" + imsi(1)).c_str());
    EXPECT_EQ(__ksEngine->ksUETotal, 2000) << "the malformed second range is skipped";

    EXPECT_EQ(runToEnd(1, 20), KS_TEST__IDLE);
    KsTestExec* t = KsEngine__FindTest(1);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->TotalAttachedUECount, 200);
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 200);
    EXPECT_EQ(t->TotalExecSteps.load(), 200);
    EXPECT_EQ(t->CurrentExecutionCount.load(), 0);
    EXPECT_EQ(t->RanTimes, 1u);
    for (int n : {1, 100, 200}) {
        EXPECT_EQ(ue(n)->TestId, 0u);
        EXPECT_EQ(ue(n)->testExec, nullptr);
        EXPECT_EQ(ue(n)->ksStepExecutionHead, nullptr);
    }
    std::string log = cmnLog();
    EXPECT_NE(log.find("Starting Test (1 Of 1)"), std::string::npos);
    EXPECT_NE(log.find("End Of ScalingModeTest=1 TestName=t1   CompletedUEs=200"), std::string::npos);
    EXPECT_NE(log.find("Completed TestId=1 "), std::string::npos);
    EXPECT_EQ(KsEngine__AddTestToQueue(1, KS_TEST__IDLE), 3u) << "a finished test can be queued again";
}

TEST(TestExecution, EndActionRunsPassesOfEveryStep) {
    EXPECT_EQ(runToEnd(2, 30), KS_TEST__IDLE);
    KsTestExec* t = KsEngine__FindTest(2);
    EXPECT_EQ(t->TotalCompletedExecutionUECount, 100) << "two passes of 50 UEs";
    EXPECT_EQ(t->TotalExecSteps.load(), 150) << "three steps for each UE of the last pass";
    std::string log = cmnLog();
    EXPECT_NE(log.find("Starting Test (1 Of 2)"), std::string::npos);
    EXPECT_NE(log.find("Starting Test (2 Of 2)"), std::string::npos);
}

TEST(TestExecution, StartBudgetPerTickAndCeiling) {
    EXPECT_EQ(runToEnd(3, 30), KS_TEST__IDLE);
    KsTestExec* t = KsEngine__FindTest(3);
    EXPECT_EQ(t->Concurrent, 50) << "MPS x NoOfTimes x 5 when Concurrent is absent";
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 30);
    std::string log = cmnLog();
    EXPECT_NE(log.find("C[10*<01|"), std::string::npos);
    // No tick completes more than its budget of 10 starts.
    size_t p = 0;
    int ticks = 0;
    while ((p = log.find("TestId=3 1 ", p)) != std::string::npos) {
        size_t e = log.find("E=", p);
        int completed = atoi(log.c_str() + e + 2);
        EXPECT_LE(completed, 10);
        ++ticks;
        p = e;
    }
    EXPECT_GE(ticks, 3);
}

TEST(TestExecution, NoOfTimesAboveHundredActsAsOneAndLaterStepsPassTheQueue) {
    EXPECT_EQ(runToEnd(31, 30), KS_TEST__IDLE);
    KsTestExec* t = KsEngine__FindTest(31);
    EXPECT_EQ(t->NoOfTimes, 1u);
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 10);
    EXPECT_EQ(t->TotalExecSteps.load(), 20);
    std::lock_guard g(__ksEngine->lastSentLock);
    EXPECT_GE(__ksEngine->lastSent, 10) << "each paced item of the step queue is counted as sent";
}

TEST(TestExecution, CeilingOfOneAdmitsTheNextUEAtEachCompletion) {
    EXPECT_EQ(runToEnd(32, 20), KS_TEST__IDLE);
    EXPECT_EQ(KsEngine__FindTest(32)->CompletedExecutionUECount.load(), 3);
    std::string log = cmnLog();
    EXPECT_GE(kst::countOccurrences(log, "< Concurrent 1]"), 3u) << "one UE at a time: a tick or more each";
    for (const char* over : {"[Current 2 < Concurrent 1]", "[Current 3 < Concurrent 1]"})
        EXPECT_EQ(log.find(over), std::string::npos) << over;
}

TEST(TestExecution, CeilingZeroEndsByTheNoProgressWatch) {
    EXPECT_EQ(runToEnd(4, 30), KS_TEST__IDLE);
    KsTestExec* t = KsEngine__FindTest(4);
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 0);
    EXPECT_NE(cmnLog().find("No Progress in Test Cases Execution Since Last 8 Seconds"), std::string::npos);
}

TEST(TestExecution, StopEndsARunningTestAndOnlyARunningOne) {
    EXPECT_EQ(KsEngine__StopOnGoingTest(5), 101u) << "no record yet";
    // Queued as already claimed (8), which no execution thread takes, so the
    // "already queued" answer cannot race a thread that starts the test first.
    ASSERT_EQ(KsEngine__AddTestToQueue(5, KS_TEST__QUEUED_ALT), 3u);
    EXPECT_EQ(KsEngine__AddTestToQueue(5, KS_TEST__QUEUED), 4u) << "already queued";
    KsEngine__FindTest(5)->Status = KS_TEST__QUEUED;
    ASSERT_TRUE(kst::waitFor([] { return KsEngine__GetTestStatus(5) == KS_TEST__RUNNING; }, 5));
    EXPECT_EQ(KsEngine__AddTestToQueue(5, KS_TEST__QUEUED), 5u) << "running";
    EXPECT_EQ(KsEngine__StopOnGoingTest(5), 100u);
    ASSERT_TRUE(kst::waitFor([] { return KsEngine__GetTestStatus(5) == KS_TEST__IDLE; }, 10));
    EXPECT_NE(cmnLog().find("Interrupted/Stopped TestId=5 "), std::string::npos);
    EXPECT_EQ(KsEngine__StopOnGoingTest(5), 101u);
    EXPECT_EQ(ue(301)->TestId, 0u) << "a stopped test frees its UEs";
}

TEST(TestExecution, BusyUEsAreSkippedAndAllBusyIsNoUE) {
    ASSERT_EQ(KsEngine__AddTestToQueue(7, KS_TEST__QUEUED), 3u);
    ASSERT_TRUE(kst::waitFor([] { return KsEngine__GetTestStatus(7) == KS_TEST__RUNNING; }, 5));
    ASSERT_TRUE(kst::waitFor([] { return KsEngine__FindTest(7)->TotalAttachedUECount == 10; }, 5));

    EXPECT_EQ(runToEnd(8, 20), KS_TEST__IDLE);
    EXPECT_EQ(KsEngine__FindTest(8)->TotalAttachedUECount, 5) << "411..415 run, 405..410 belong to test 7";
    EXPECT_NE(cmnLog().find("UE is already running TestId=7 "), std::string::npos);

    EXPECT_EQ(runToEnd(9, 20), KS_TEST__NO_UE);
    EXPECT_NE(cmnLog().find("UE Not Found For Executing TestId=9 "), std::string::npos);

    EXPECT_EQ(KsEngine__StopOnGoingTest(7), 100u);
    ASSERT_TRUE(kst::waitFor([] { return KsEngine__GetTestStatus(7) == KS_TEST__IDLE; }, 10));
}

TEST(TestExecution, EveryFailureStateByItsCause) {
    struct Case {
        uint32_t id;
        uint32_t state;
        const char* text;
    };
    const Case cases[] = {
        {13, KS_TEST__NOT_CONFIGURED, "Test Configuration NOT Found=13 "},
        {20, KS_TEST__NO_SCENARIO, "Test Scenario Creation Failed for TestId=20 "},
        {21, KS_TEST__NO_STEPS, "Test Scenario Creation, No TestSteps Found for TestId=21 "},
        {22, KS_TEST__SUPI_MISSING, "SUPI Start Or End Number is having 0/negative value"},
        {23, KS_TEST__SUPI_RANGE_EMPTY, "Unable to start test for TestID=23 "},
        {24, KS_TEST__NO_UE, "UE Not Found For Executing TestId=24 "},
        {25, KS_TEST__NO_UE, "UE Attached Failed TestId=25 Attempted=10"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.id);
        EXPECT_EQ(runToEnd(c.id, 10), c.state);
        EXPECT_NE(cmnLog().find(c.text), std::string::npos) << c.text;
    }
    EXPECT_NE(kst::readLogDir(gDir + "/logs//app").find("StepID NOT-IN-RANGE"), std::string::npos);
    EXPECT_EQ(ue(501)->TestId, 0u) << "UEs of a failed attach are free again";
}

// A runner that sends nothing and waits on the step timer.
std::mutex gRunsLock;
std::map<uint64_t, int> gRuns;
void silentRunner(MV_KsUE* u) {
    {
        std::lock_guard g(gRunsLock);
        ++gRuns[u->ueId];
    }
    if (!u->ksStepExecution) u->ksStepExecution = u->ksStepExecutionHead;
    u->StepCode = u->ksStepExecution->ksStep->StepCode;
    KsEngine__KsUE_SetTimerActionRetry(u, 4, u->StepCode);
}

TEST(StepTimer, RetriesThenMovesOnAndTimeoutsCountAsProgress) {
    KsEngine__SetRunnerOverride(silentRunner);
    uint32_t state = runToEnd(30, 40);
    KsEngine__SetRunnerOverride(nullptr);
    EXPECT_EQ(state, KS_TEST__IDLE);
    KsTestExec* t = KsEngine__FindTest(30);
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 5) << "timeouts move the UEs on; they do not fail the test";
    EXPECT_EQ(t->ExecutionTimeout.Total.load(), 25u) << "one expiry per run, five runs per UE";
    {
        std::lock_guard g(gRunsLock);
        ASSERT_EQ(gRuns.size(), 5u);
        for (auto& [id, runs] : gRuns) EXPECT_EQ(runs, 5) << "maxAttempts 4: the first run and four retries";
    }
    std::string log = cmnLog();
    EXPECT_EQ(log.find("No Progress", log.find("for Test-Id=30 ")), std::string::npos)
        << "more than 8 ticks without a completion, yet the expiries kept the watch at zero";
    EXPECT_NE(kst::readLogDir(gDir + "/logs//app").find("Timeout Happened for current step, moving next"),
              std::string::npos);
}

TEST(DataLists, SaveWritesWholeFilesAndNeverHalfOfOne) {
    json_t* list = json_pack("[{s:i, s:s}]", "ID", 9, "Name", "saved");
    ASSERT_EQ(KsEngine__SaveFile(list, "data/saved.json"), 1);
    std::string text = kst::readFile(gDir + "/data/saved.json");
    EXPECT_NE(text.find("\n        \"ID\": 9"), std::string::npos) << "indent of 4: " << text;
    for (const auto& f : kst::listFiles(gDir + "/data")) EXPECT_EQ(f.find(".tmp"), std::string::npos) << f;

    EXPECT_EQ(KsEngine__SaveFile(list, "missing-dir/saved.json"), 0);
    EXPECT_EQ(KsEngine__SaveFile(nullptr, "data/saved.json"), 0);
    EXPECT_EQ(kst::readFile(gDir + "/data/saved.json"), text) << "a failed save leaves the old file as it was";
    json_decref(list);

    EXPECT_EQ(KsNAS_GetSettingValue(1), nullptr) << "a missing set.json reads as an empty object";
}

// Console handlers save from several queue-line threads at once: each save is whole, never
// another's half file.
TEST(DataLists, ConcurrentSavesOfOneFileLeaveAWholeFile) {
    std::vector<json_t*> lists;
    for (int t = 0; t < 2; t++) {
        json_t* l = json_array();
        for (int i = 0; i < 300; i++) json_array_append_new(l, json_pack("{s:i, s:s}", "ID", i, "Name", t ? "bbbb" : "a"));
        lists.push_back(l);
    }
    std::atomic<int> failed{0};
    std::vector<std::thread> savers;
    for (int t = 0; t < 2; t++)
        savers.emplace_back([&, t] {
            for (int i = 0; i < 150; i++)
                if (KsEngine__SaveFile(lists[size_t(t)], "data/race.json") != 1) ++failed;
        });
    for (auto& th : savers) th.join();
    EXPECT_EQ(failed.load(), 0);
    json_error_t err;
    json_t* back = json_load_file((gDir + "/data/race.json").c_str(), 0, &err);
    ASSERT_NE(back, nullptr) << err.text;
    EXPECT_TRUE(json_equal(back, lists[0]) || json_equal(back, lists[1]));
    json_decref(back);
    for (const auto& f : kst::listFiles(gDir + "/data")) EXPECT_EQ(f.find(".tmp"), std::string::npos) << f;
    for (json_t* l : lists) json_decref(l);
}

TEST(Completion, StaleCodeOnAnIdleUEChangesNothing) {
    MV_KsUE* u = ue(1999);
    ASSERT_NE(u, nullptr);
    u->StepCode = 77;
    KsScanario__CompleteCurrentStepAndExecutionNextStep(u, 5, __func__, __FILE__, __LINE__);
    EXPECT_EQ(u->CompletedKsStep, 0);
    EXPECT_EQ(u->TestId, 0u);
    EXPECT_EQ(KsScanario__CurrentStepEquals(u, 2), -ENOENT);
    EXPECT_EQ(KsScanario__CurrentStepEquals(nullptr, 2), -1);
}

}  // namespace
