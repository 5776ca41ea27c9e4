// A module added from outside the engine: the delay family of this folder, registered by
// its ks_module() target, runs in a real engine started in-process. Its steps answer on
// the UE's line after their delay, beside the engine's own sleep step and a step whose
// family is not in the build.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "KsDelay.h"
#include "Kestrane.h"
#include "ks_engine_env.h"

namespace {

std::string imsi(int n) {
    char b[20];
    snprintf(b, sizeof b, "00101%010d", n);
    return b;
}

std::string step(int id, int seconds) {
    return "{\"ID\": " + std::to_string(id) + ", \"Dict\": [{\"Key\": 3, \"Value\": \"" + std::to_string(seconds) +
           "\"}]}";
}

std::string testEntry(int id, int scenario, int from, int to) {
    return "{\"ID\": " + std::to_string(id) + ", \"Name\": \"t" + std::to_string(id) +
           "\", \"ScenarioID\": " + std::to_string(scenario) + ", \"MPS\": 1000, \"SUPIStartNo\": \"" + imsi(from) +
           "\", \"SUPIStartEnd\": \"" + imsi(to) + "\"}";
}

kst::EngineInDir* gEnv = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(new kst::EngineInDir(
    "delay",
    {{"cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "MaximumUE": 1000, "IMSIPrefixWithZERO": 1, "CLIPort": 0,
                      "DefaultTimeoutSeconds": 5, "LogLevel": {"APPLICATION": 4, "COMMON": 5}})"},
     {"data/uel.json", "[{\"ID\": 1, \"MSINStart\": \"" + imsi(1) + "\", \"MSINEnd\": \"" + imsi(100) +
                           "\", \"MCC\": \"001\", \"MNC\": \"01\", \"MSISDNBegin\": \"9000000001\"}]"},
     // 1: a delayed step, the engine's sleep, a delayed step at once. 2: an SGW step, whose
     // family is not in this build, then a delayed one.
     {"data/sce.json", "[{\"ID\": 1, \"Config\": [" + step(KS_DELAY_STEP_ID, 1) + "," + step(3, 0) + "," +
                           step(KS_DELAY_STEP_ID, 0) + "]}, {\"ID\": 2, \"Config\": [{\"ID\": 2001}," +
                           step(KS_DELAY_STEP_ID, 0) + "]}]"},
     {"data/tst.json", "[" + testEntry(1, 1, 1, 40) + "," + testEntry(2, 2, 41, 60) + "]"}})));

bool finished(uint32_t s) {
    return s != KS_TEST__QUEUED && s != KS_TEST__QUEUED_ALT && s != KS_TEST__RUNNING && s != KS_TEST__STOP;
}

uint32_t runToEnd(uint32_t id) {
    EXPECT_EQ(KsEngine__AddTestToQueue(id, KS_TEST__QUEUED), 3u);
    EXPECT_TRUE(kst::waitFor([id] { return KsEngine__GetTestStatus(id) != KS_TEST__QUEUED; }, 10));
    EXPECT_TRUE(kst::waitFor([id] { return finished(KsEngine__GetTestStatus(id)); }, 60)) << "test " << id;
    return KsEngine__GetTestStatus(id);
}

TEST(ModuleFromOutside, RegistersItsRunnerCatalogueRowAndCommandAtStart) {
    EXPECT_TRUE(KsEngine__HasModule("KsDelay"));
    EXPECT_TRUE(KsEngine__HasModule("KsNAS"));
    EXPECT_NE(gEnv->appLog().find("module KsDelay started"), std::string::npos);
    // Its range lies inside the 5G runner's open one: the narrower range is dispatched to,
    // whichever module started first.
    EXPECT_STREQ(Kestrane___runnerNameOfStepIndex(KS_DELAY_STEP_INDEX), "KsDelay__runStep_FQ");
    EXPECT_STREQ(Kestrane___runnerNameOfStepIndex(12000), "KsNAS__runStep_FQ");
    EXPECT_STREQ(Kestrane___runnerNameOfStepIndex(16000), "KsNAS__runStep_FQ");
    const KsStepCatalogueEntry* row = KsScanario__GetStepBuilder(KS_DELAY_STEP_ID);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->StepCode, uint32_t(KS_DELAY_STEP_CODE));
    EXPECT_EQ(row->StepIndex, uint32_t(KS_DELAY_STEP_INDEX));
    ASSERT_NE(KsScanario__GetStepBuilder(3), nullptr) << "the engine's own rows stay";
}

TEST(ModuleFromOutside, ItsStepsAnswerOnTheUEsLineAfterTheirDelay) {
    uint32_t answeredBefore = ksDelayTally.Answered;
    EXPECT_EQ(runToEnd(1), KS_TEST__IDLE);
    KsTestExec* t = KsEngine__FindTest(1);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 40);
    EXPECT_EQ(t->TotalExecSteps.load(), 120) << "three steps for each of 40 UEs";
    EXPECT_EQ(ksDelayTally.Answered - answeredBefore, 80u) << "two delayed steps for each UE, each answered once";
    EXPECT_EQ(ksDelayTally.AnsweredOffLine.load(), 0u);
    EXPECT_EQ(t->StepSendFailed.Total, 0u);
    EXPECT_EQ(t->ExecutionTimeout.Total, 0u) << "answered before the step timer";
}

TEST(ModuleFromOutside, AStepOfAnAbsentFamilyStillCompletesAsSendFailed) {
    EXPECT_EQ(runToEnd(2), KS_TEST__IDLE);
    KsTestExec* t = KsEngine__FindTest(2);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 20);
    EXPECT_EQ(t->StepSendFailed.SendFailed, 20u);
    EXPECT_NE(gEnv->appLog().find("has no runner in this build (KsSGW__runStep_FQ), counted as send-failed"),
              std::string::npos);
}

TEST(ModuleFromOutside, ItsConsoleCommandRunsOneDelayedStep) {
    MV_KsUE* u = kst::ueOf001(90);
    ASSERT_NE(u, nullptr);
    MV_KsTestCommand* c = KsScanario__NewTestCommand();
    ASSERT_NE(c, nullptr);
    c->Command = KS_DELAY_COMMAND;
    uint32_t answeredBefore = ksDelayTally.Answered;
    KsScanario__AddTestCommand(c, u);
    KsScanario__ReleaseTestCommand(c);
    ASSERT_EQ(u->CommandId, uint32_t(KS_DELAY_COMMAND));
    ASSERT_NE(u->ksStepExecutionHead, nullptr);
    EXPECT_EQ(u->ksStepExecutionHead->ksStep->StepCode, uint32_t(KS_DELAY_STEP_CODE));
    Kestrane___runStep(u, 0);
    EXPECT_TRUE(kst::waitFor([&] { return ksDelayTally.Answered == answeredBefore + 1; }, 10));
    EXPECT_TRUE(kst::waitFor([&] { return u->CommandId == 0; }, 10)) << "the command completed";
}

// What a module cannot register is refused, and a templated command a module brings
// takes its application type from the engine's table.
TEST(ModuleFromOutside, RegistrationsRefuseWhatCannotBeAndTemplatedCommandsTakeTheirType) {
    auto runner = [](MV_KsUE*) {};
    EXPECT_EQ(KsEngine__RegisterRunner(5, 4, "KsBad__runStep_FQ", runner), -1);
    EXPECT_EQ(KsEngine__RegisterRunner(1, 2, nullptr, runner), -1);
    EXPECT_EQ(KsEngine__RegisterRunner(1, 2, "KsBad__runStep_FQ", nullptr), -1);
    static constexpr KsStepCatalogueEntry kZero = {0, "none", 1, 1, KsStepKind::Plain, nullptr, 0, 0};
    static constexpr KsStepCatalogueEntry kTooHigh = {200000, "none", 1, 1, KsStepKind::Plain, nullptr, 0, 0};
    EXPECT_EQ(KsEngine__RegisterStepBuilder(&kZero), -1);
    EXPECT_EQ(KsEngine__RegisterStepBuilder(&kTooHigh), -1);
    EXPECT_EQ(KsEngine__RegisterCommandStep(0, 900, 15001), -1);
    EXPECT_EQ(KsEngine__RunStartStep(KsStartSlot::AGF, nullptr), -ENOENT) << "no module fills the AGF place";
    static constexpr KsTemplatedCommand kNoPick = {25, nullptr, nullptr};
    EXPECT_EQ(KsEngine__RegisterTemplatedCommand(&kNoPick), -1);

    // Application type 25 has no templated command of the engine's own.
    static constexpr KsTemplatedCommand kN26 = {
        25, [](const MV_KsTestCommand*, MV_KsUE* ue) { return ue->ksStepExecutionHead ? nullptr : __ksEngine->step_lteEIR; },
        nullptr};
    ASSERT_EQ(KsEngine__RegisterTemplatedCommand(&kN26), 1);
    MV_KsUE* u = kst::ueOf001(91);
    ASSERT_NE(u, nullptr);
    MV_KsTestCommand* c = KsScanario__NewTestCommand();
    ASSERT_NE(c, nullptr);
    c->Command = 9999;
    c->EA0 = 25;
    KsScanario__AddTemplatedTestCommand2(c, u);
    KsScanario__ReleaseTestCommand(c);
    ASSERT_NE(u->ksStepExecutionHead, nullptr);
    EXPECT_EQ(u->ksStepExecutionHead->ksStep, __ksEngine->step_lteEIR);
    KsScanario__ReleaseUEExecutionSteps(u);
}

}  // namespace
