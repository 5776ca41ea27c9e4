// The test queue, the five execution threads, a test's passes and the drive loop
// that starts UEs at the test's rate and ceiling.
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "KsPool.h"
#include "Kestrane.h"
#include "Kestrane_util.h"

namespace {

// Shared by all tests: whichever test sees a fresh server tick first handles it.
std::atomic<long> ilogCtr{0};
std::atomic<uint32_t> iTotalTicker{0};

void logBoth(uint32_t type, const char* text) { __mv_log(type, LOG_CAT_APP, MV_LOG_CRITICAL, "%s", text); }

// Reads a SUPI bound given as a decimal string (or, leniently, a JSON integer).
bool supiBound(json_t* v, uint64_t& out) {
    if (json_is_integer(v)) {
        if (json_integer_value(v) <= 0) return false;
        out = uint64_t(json_integer_value(v));
        return true;
    }
    const char* s = json_string_value(v);
    if (!s || !*s || strspn(s, "0123456789") != strlen(s) || strlen(s) > 19) return false;
    out = strtoull(s, nullptr, 10);
    return out > 0;
}

json_t* findTestConfig(uint32_t testId) {
    size_t i;
    json_t* t;
    json_array_foreach(__ksEngine->tests, i, t) {
        if (KsJson::number(t, "ID", -1) == (long long)testId) return t;
    }
    return nullptr;
}

void freeUEOfList(MV_KsUE* ue) {
    ue->ksScanario = nullptr;
    ue->CompletedKsStep = 0;
    ue->EndOfTest = 1;
    ue->CommandId = 0;
    ue->TestId = 0;
    ue->testExec = nullptr;
}

}  // namespace

// ---------------------------------------------------------------- test queue

KsTestExec* KsEngine__FindTest(uint32_t TestId) {
    std::lock_guard g(__ksEngine->tstExecLock);
    for (KsTestExec* t = __ksEngine->tstExecHead; t; t = t->Next)
        if (t->TestId == TestId) return t;
    return nullptr;
}

uint32_t KsEngine__AddTestToQueue(uint32_t TestId, int status) {
    std::lock_guard g(__ksEngine->tstExecLock);
    for (KsTestExec* t = __ksEngine->tstExecHead; t; t = t->Next) {
        if (t->TestId != TestId) continue;
        uint32_t s = t->Status;
        if (s == KS_TEST__QUEUED || s == KS_TEST__QUEUED_ALT) return 4;
        if (s == KS_TEST__RUNNING) return 5;
        t->Status = uint32_t(status);
        return 3;
    }
    KsTestExec* t = __mv_arena_new<KsTestExec>();
    t->TestId = TestId;
    t->Status = uint32_t(status);
    KsEngine__InitTestCounters(t);
    if (__ksEngine->tstExecCurrent) __ksEngine->tstExecCurrent->Next = t;
    else __ksEngine->tstExecHead = t;
    __ksEngine->tstExecCurrent = t;
    return 3;
}

uint32_t KsEngine__StopOnGoingTest(uint32_t TestId) {
    KsTestExec* t = KsEngine__FindTest(TestId);
    if (!t) return 101;
    uint32_t running = KS_TEST__RUNNING;
    if (!t->Status.compare_exchange_strong(running, KS_TEST__STOP)) return 101;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Request Received to Stop Test with TestID=%u  %s|%s|%d", TestId,
             __FILE_NAME__, __func__, __LINE__);
    return 100;
}

uint32_t KsEngine__GetTestStatus(uint32_t TestId) {
    KsTestExec* t = KsEngine__FindTest(TestId);
    return t ? t->Status.load() : 0;
}

void KsEngine__ResetTestScenario(KsTestExec* tstItem) {
    if (tstItem) tstItem->ksScanario = nullptr;
}

void* KsEngine__TestExecutionThread(void* arg) {
    int index = *static_cast<int*>(arg);
    delete static_cast<int*>(arg);
    for (;;) {
        KsTestExec* found = nullptr;
        {
            // The claim is made under the lock and marks the test 8, which the queue
            // already treats as queued, so no second thread takes it and its step
            // queue index stays the claimer's.
            std::lock_guard g(__ksEngine->tstExecLock);
            for (KsTestExec* t = __ksEngine->tstExecHead; t; t = t->Next) {
                uint32_t queued = KS_TEST__QUEUED;
                if (t->TestId != 0 && t->Status.compare_exchange_strong(queued, KS_TEST__QUEUED_ALT)) {
                    found = t;
                    found->MPSIndex = uint32_t(index);
                    break;
                }
            }
        }
        if (found) {
            __ksEngine->onGoingTest_PerfWritten = 0;
            Kestrane___RunTest(found);
            sleep(2);
        }
        sleep(1);
    }
    return nullptr;
}

// ---------------------------------------------------------------- a test's run, by phase

namespace {

// Takes the test from queued to running; false when another thread runs it already.
bool claimRun(KsTestExec* tstItem) {
    __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "begin Test=%p for Test-Id=%u %s|%d", (void*)tstItem,
             tstItem->TestId, "Kestrane___RunTest", __LINE__);
    uint32_t expect = tstItem->Status;
    if (expect == KS_TEST__RUNNING || !tstItem->Status.compare_exchange_strong(expect, KS_TEST__RUNNING)) {
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Test Already In Progress  Test=%p for Test-Id=%u %s|%d",
                 (void*)tstItem, tstItem->TestId, "Kestrane___RunTest", __LINE__);
        return false;
    }
    iTotalTicker = 0;
    tstItem->Count = 0;
    return true;
}

// The test's element of data/tst.json into the record, with its tallies reset; null (and
// state 13) when the test is not configured.
json_t* readTestConfig(KsTestExec* tstItem) {
    json_t* cfg = findTestConfig(tstItem->TestId);
    if (!cfg) {
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
                 "Test Configuration NOT Found=%u with item=%p for TestId=%u, unable to run test, Status=3 %s|%d",
                 tstItem->TestId, (void*)tstItem, tstItem->TestId, "Kestrane___RunTest", __LINE__);
        tstItem->Status = KS_TEST__NOT_CONFIGURED;
        return nullptr;
    }
    KsJson::copyString(cfg, "Name", tstItem->TestName, sizeof tstItem->TestName);
    long long mps = KsJson::number(cfg, "MPS", 100);
    tstItem->MPS = uint32_t(mps <= 0 ? 1 : mps);
    long long times = KsJson::number(cfg, "NoOfTimes", 1);
    tstItem->NoOfTimes = uint32_t(times <= 0 || times > 100 ? 1 : times);
    tstItem->AppType = uint32_t(KsJson::number(cfg, "AppType", 0));
    tstItem->EndAction = uint32_t(KsJson::number(cfg, "EndAction", 0));
    long long conc = KsJson::number(cfg, "Concurrent", -1);
    tstItem->Concurrent = conc == -1 ? int64_t(tstItem->MPS) * tstItem->NoOfTimes * 5 : conc;
    tstItem->SelectTest = int32_t(KsJson::number(cfg, "SelectTest", -1));
    tstItem->ScenarioID = uint32_t(KsJson::number(cfg, "ScenarioID", 0));
    tstItem->ExecutedNoOfTimes = tstItem->TotalNoOfTimesToExecute = 0;
    tstItem->ExecutedTPS = tstItem->TotalExecutedTPS = tstItem->TotalCompletedExecutionUECount = 0;
    tstItem->ExecutedInSeconds = tstItem->ExecutedInMilliSeconds = 0;
    tstItem->TotalExecutedInSeconds = tstItem->TotalExecutedInMilliSeconds = 0;
    tstItem->Percent = tstItem->ExecutionCount = tstItem->TotalTestSteps = 0;
    tstItem->TotalExecSteps = 0;
    tstItem->LastTotalExecSteps = 0;
    tstItem->WatchTotalExecSteps = 0;
    tstItem->UEGotNULL = 0;
    tstItem->CompletedExecutionUECount = 0;
    tstItem->TotalAttachedUECount = 0;
    tstItem->RanTimes = 0;
    tstItem->OnGoing = 0;
    tstItem->MPSCounter = 0;
    __mv_core_queue_set_mps(__ksEngine->M_MPS_Q[tstItem->MPSIndex], int(tstItem->MPS));
    return cfg;
}

// The test's scenario with at least one step; false (states 5 and 6) otherwise.
bool buildScenario(KsTestExec* tstItem) {
    Kestrane___createScanarioForKsTestExec(tstItem, tstItem->ScenarioID);
    if (!tstItem->ksScanario) {
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Test Scenario Creation Failed for TestId=%u %s|%d",
                 tstItem->TestId, "Kestrane___RunTest", __LINE__);
        tstItem->Status = KS_TEST__NO_SCENARIO;
        return false;
    }
    if (tstItem->ksScanario->totalSteps < 1) {
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Test Scenario Creation, No TestSteps Found for TestId=%u %s|%d",
                 tstItem->TestId, "Kestrane___RunTest", __LINE__);
        tstItem->Status = KS_TEST__NO_STEPS;
        return false;
    }
    return true;
}

// The free UEs of the test's SUPI range become its list; false (states 9, 11, 12) when
// there are none.
bool takeUEsOfRange(KsTestExec* tstItem, json_t* cfg) {
    uint64_t supiStart = 0, supiEnd = 0;
    bool haveStart = supiBound(json_object_get(cfg, "SUPIStartNo"), supiStart);
    bool haveEnd = supiBound(json_object_get(cfg, "SUPIStartEnd"), supiEnd);
    if (!haveStart || !haveEnd) {
        tstItem->Status = KS_TEST__SUPI_MISSING;
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
                 "SUPI Start Or End Number is having 0/negative value, testSUPIStartNo=%lu testSUPIEndNo=%lu unable to "
                 "run test for TestId=%u Status=5 %s|%d",
                 (unsigned long)supiStart, (unsigned long)supiEnd, tstItem->TestId, "Kestrane___RunTest", __LINE__);
        return false;
    }
    int64_t count = supiEnd >= supiStart ? int64_t(supiEnd - supiStart) + 1 : 0;
    tstItem->Count = int32_t(count > INT32_MAX ? INT32_MAX : count);
    if (count < 1) {
        tstItem->Status = KS_TEST__SUPI_RANGE_EMPTY;
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
                 "UECount for  testSUPIStartNo=%lu testSUPIEndNo=%lu is Count=%u, Unable to start test for TestID=%u  "
                 "Status=6  %s|%d",
                 (unsigned long)supiStart, (unsigned long)supiEnd, uint32_t(count < 0 ? 0 : count), tstItem->TestId,
                 "Kestrane___RunTest", __LINE__);
        return false;
    }

    tstItem->Head = tstItem->Current = nullptr;
    for (uint64_t n = supiStart; n <= supiEnd; ++n) {
        char imsi[24];
        KsEngine__IMSIText(n, imsi, sizeof imsi);
        MV_KsUE* ue = nullptr;
        KsEngine__FindUEByIMSI(&ue, imsi);
        if (!ue) continue;
        if (ue->TestId != 0) {
            __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_ERROR, "UE is already running TestId=%u %s|%d", ue->TestId,
                     "Kestrane___RunTest", __LINE__);
            continue;
        }
        if (ue->CommandId != 0) {
            __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_ERROR, "UE is running CommandId=%u %s|%d", ue->CommandId,
                     "Kestrane___RunTest", __LINE__);
            continue;
        }
        ue->TestNext = nullptr;
        if (tstItem->Current) tstItem->Current->TestNext = ue;
        else tstItem->Head = ue;
        tstItem->Current = ue;
        ue->TestId = tstItem->TestId;
        ue->testExec = tstItem;
        ++tstItem->TotalAttachedUECount;
    }
    if (!tstItem->Head) {
        tstItem->Status = KS_TEST__NO_UE;
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "UE Not Found For Executing TestId=%u %s|%d", tstItem->TestId,
                 "Kestrane___RunTest", __LINE__);
        return false;
    }
    return true;
}

// What an earlier run left on the UEs goes: executions and report events. The UE count.
uint32_t cleanUEs(KsTestExec* tstItem) {
    uint32_t ueCount = 0;
    for (MV_KsUE* ue = tstItem->Head; ue; ue = ue->TestNext) {
        ue->EndOfTest = 1;
        ue->_initT3PP = 0;
        KsScanario__ReleaseUEExecutionSteps(ue);
        ue->TestId = tstItem->TestId;  // the release above frees the UE; it still belongs to this test
        KsScanario__ClearResult(ue);
        ++ueCount;
    }
    __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_INFO,
             "CleanedUp all cached ksStepExecution with UE count=%u for TestId=%u %s|%d", ueCount, tstItem->TestId,
             "Kestrane___RunTest", __LINE__);
    __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_INFO, "CleanedUp Previous Report Data UE count=%u for TestId=%u %s|%d",
             ueCount, tstItem->TestId, "Kestrane___RunTest", __LINE__);
    return ueCount;
}

// A test of application type 1 latches its UEs to RANs first, in up to ten rounds; false
// (state 9, the UEs freed) when they do not all latch.
bool attachUEs(KsTestExec* tstItem, uint32_t ueCount) {
    if (tstItem->AppType != 1) return true;
    uint32_t attempts = 0;
    uint32_t attachedTotal = 0;
    for (;;) {
        uint32_t failed = 0, pending = 0;
        for (MV_KsUE* ue = tstItem->Head; ue; ue = ue->TestNext) {
            if (ue->_initT3PP != 0) continue;
            ++pending;
            ue->EndOfTest = 0;
            uint32_t attached = 0;
            KsEngine__FindRANAndLatch(ue, KS_ACCESS__3GPP, &attached, 0);
            if (attached == 1) ++attachedTotal;
            else ++failed;
        }
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
                 "attaching UE to Test Execution is in progress attached=%u attached_failed=%u attached_pending=%u "
                 "for UE count=%u for TestId=%u %s|%d",
                 attachedTotal, failed, pending, ueCount, tstItem->TestId, "Kestrane___RunTest", __LINE__);
        ++attempts;
        if (attempts > 9) {
            // The UEs are free before the state says the run is over.
            for (MV_KsUE* ue = tstItem->Head; ue; ue = ue->TestNext) freeUEOfList(ue);
            __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "UE Attached Failed TestId=%u Attempted=%u  %s|%d",
                     tstItem->TestId, attempts, "Kestrane___RunTest", __LINE__);
            tstItem->Status = KS_TEST__NO_UE;
            return false;
        }
        if (pending == 0 || attachedTotal >= ueCount) return true;
    }
}

void preparePasses(KsTestExec* tstItem) {
    if (tstItem->EndAction == 6) tstItem->EndAction = KS_END_ACTION_FOREVER;
    tstItem->ExecutedNoOfTimes = 0;
    tstItem->TotalNoOfTimesToExecute = int32_t(tstItem->EndAction == KS_END_ACTION_FOREVER ? INT32_MAX
                                                                                             : tstItem->EndAction + 1);
    __mv_makeTimeStamp(tstItem->TestStartTime);
    tstItem->ExecutionTicks = 0;
    KsEngine__ReInit_MVCounters(tstItem, 1);
}

// Every UE of the list back to the start of the scenario, on the start list.
void startPass(KsTestExec* tstItem, KsScanario* scanario, uint32_t pass, uint32_t ueCount) {
    KsEngine__ReInit_MVCounters(tstItem, 0);
    {
        std::lock_guard g(tstItem->SLock);
        tstItem->SHead = tstItem->SCurrent = nullptr;
        for (MV_KsUE* ue = tstItem->Head; ue; ue = ue->TestNext) {
            ue->ksScanario = scanario;
            ue->CompletedKsStep = 0;
            ue->EndOfTest = 0;
            ue->TotalKsSteps = scanario->totalSteps;
            ue->TestId = tstItem->TestId;
            ue->testExec = tstItem;
            ue->STestNext = nullptr;
            if (tstItem->SCurrent) tstItem->SCurrent->STestNext = ue;
            else tstItem->SHead = ue;
            tstItem->SCurrent = ue;
        }
    }
    tstItem->TotalTestSteps = scanario->totalSteps * int32_t(ueCount);
    tstItem->CompletedExecutionUECount = 0;
    tstItem->LastCompletedExecutionUECount = 0;
    tstItem->ExecutedInSeconds = tstItem->ExecutedInMilliSeconds = 0;
    if (pass == 1) __mv_StartExecTime(&tstItem->totalStartTime);
    __mv_StartExecTime(&tstItem->loadStartTime);
    __mv_StartExecTime(&tstItem->snapStartTime);
    __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
             "Starting Test (%u Of %u): tstItem=%p  TestId=%u  ksScanario=%p  CompletedKsStep=%u  "
             "Total-Steps-Count=%u %s|%d",
             pass, uint32_t(tstItem->TotalNoOfTimesToExecute), (void*)tstItem, tstItem->TestId, (void*)scanario, 0u,
             uint32_t(scanario->totalSteps), "Kestrane___RunTest", __LINE__);
    tstItem->WatchTotalExecSteps = 0;
    tstItem->LastTotalExecSteps = 0;
    tstItem->TotalExecSteps = 0;
    tstItem->CurrentExecutionCount = 0;
    tstItem->UEGotNULL = 0;
    tstItem->itercounter = 0;
    tstItem->MPSCounter = 0;
    tstItem->ExecutedNoOfTimes = int32_t(pass);
}

// The wait between two rounds of the drive loop. While the ceiling holds back starts that the
// tick's budget still allows, the loop looks again every millisecond within the period, so that
// the budget is spent as UEs complete rather than at the next round: otherwise a test whose
// ceiling is below its budget starts only a ceiling's worth a round and never reaches its rate.
void sleepOrRefill(KsTestExec* tstItem, long periodNs) {
    using clock = std::chrono::steady_clock;
    const auto end = clock::now() + std::chrono::nanoseconds(periodNs);
    const uint64_t budget = uint64_t(tstItem->NoOfTimes) * tstItem->MPS;
    for (;;) {
        auto now = clock::now();
        if (now >= end) return;
        bool heldBack = tstItem->MPSCounter < budget && !tstItem->UEGotNULL &&
                        tstItem->CurrentExecutionCount.load() >= tstItem->Concurrent && tstItem->Concurrent > 0 &&
                        tstItem->Status != KS_TEST__STOP;
        if (!heldBack) {
            __mv_nanosleep(long(std::chrono::duration_cast<std::chrono::nanoseconds>(end - now).count()));
            return;
        }
        __mv_nanosleep(1000000L);
        Kestrane___execScalingModeTest(tstItem, &tstItem->itercounter);
    }
}

// The drive loop: UEs start at the test's rate until all have completed, the test is
// stopped or the no-progress watch ends the pass.
void drivePass(KsTestExec* tstItem) {
    long periodNs = 999999999L / long(tstItem->NoOfTimes);
    while (tstItem->CompletedExecutionUECount < tstItem->TotalAttachedUECount) {
        Kestrane___execScalingModeTest(tstItem, &tstItem->itercounter);
        ++tstItem->itercounter;
        if (tstItem->WatchTotalExecSteps > 7) {
            __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
                     "No Progress in Test Cases Execution Since Last %d Seconds, Exiting Test Execution   "
                     "LastTotalExecSteps=%d, TotalExecSteps=%d   %s|%s|%d",
                     int(tstItem->WatchTotalExecSteps), tstItem->LastTotalExecSteps, int(tstItem->TotalExecSteps),
                     __FILE_NAME__, "Kestrane___RunTest", __LINE__);
            break;
        }
        if (tstItem->Status == KS_TEST__STOP) break;
        sleepOrRefill(tstItem, periodNs);
    }
    if (tstItem->EndAction != KS_END_ACTION_FOREVER) {
        ilogCtr = __mv_core_get_server_timer_tick() - 1;
        Kestrane___execScalingModeTest(tstItem, &tstItem->itercounter);
        ++tstItem->itercounter;
    }
}

// The pass's figures and its end lines; the UEs are freed. True when another pass follows.
bool endPass(KsTestExec* tstItem, uint32_t pass) {
    __mv_EndExecTime(&tstItem->loadStartTime);
    long secs = tstItem->loadStartTime.lapsed.tv_sec ? tstItem->loadStartTime.lapsed.tv_sec : 1;
    int32_t completed = tstItem->CompletedExecutionUECount;
    tstItem->ExecutedTPS = int32_t(completed / secs);
    tstItem->TotalCompletedExecutionUECount += completed;
    __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
             "End Of ScalingModeTest=%d TestName=%s   CompletedUEs=%d with TPS=%3d in %ld.%ld seconds, "
             "TotalAttachedUECount=%d  TotalTestSteps=%d  TotalExecSteps=%d WriteReport=%d   %s|%d",
             int(tstItem->TestId), tstItem->TestName, completed, tstItem->ExecutedTPS,
             long(tstItem->loadStartTime.lapsed.tv_sec), long(tstItem->loadStartTime.lapsed.tv_usec / 1000),
             tstItem->TotalAttachedUECount.load(), tstItem->TotalTestSteps, int(tstItem->TotalExecSteps),
             int(__ksEngine->WriteReport), "Kestrane___RunTest", __LINE__);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL,
             "End Of ScalingModeTest=%d TestName=%s   CompletedUEs=%d with TPS=%3d in %ld.%ld seconds,",
             int(tstItem->TestId), tstItem->TestName, completed, tstItem->ExecutedTPS,
             long(tstItem->loadStartTime.lapsed.tv_sec), long(tstItem->loadStartTime.lapsed.tv_usec / 1000));
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL,
             "TotalAttachedUECount=%d  TotalTestSteps=%d  TotalExecSteps=%d   %s|%d", tstItem->TotalAttachedUECount.load(),
             tstItem->TotalTestSteps, int(tstItem->TotalExecSteps), "Kestrane___RunTest", __LINE__);
    logBoth(MV_PER_LOG, "------------------------------------------------------------------------------------------------");

    tstItem->Percent = 100;
    tstItem->ExecutedInSeconds = int32_t(tstItem->loadStartTime.lapsed.tv_sec);
    tstItem->ExecutedInMilliSeconds = int32_t(tstItem->loadStartTime.lapsed.tv_usec / 1000);
    tstItem->TotalExecutedInSeconds += tstItem->ExecutedInSeconds;
    tstItem->TotalExecutedInMilliSeconds += tstItem->ExecutedInMilliSeconds;
    int32_t totalSecs = tstItem->TotalExecutedInSeconds ? tstItem->TotalExecutedInSeconds : 1;
    tstItem->TotalExecutedTPS = tstItem->TotalCompletedExecutionUECount / totalSecs;
    KsEngine__ReInit_MVCounters(tstItem, 2);
    Kestrane___writeTestStats(tstItem, 0);

    for (MV_KsUE* ue = tstItem->Head; ue; ue = ue->TestNext) freeUEOfList(ue);

    bool another = pass < tstItem->EndAction + 1u && tstItem->Status != KS_TEST__STOP && tstItem->EndAction != 7;
    if (!another) return false;
    // The next pass takes the UEs again.
    for (MV_KsUE* ue = tstItem->Head; ue; ue = ue->TestNext) {
        ue->TestId = tstItem->TestId;
        ue->testExec = tstItem;
    }
    return true;
}

// The run's totals, the UEs of a stopped test freed, the state back to idle, and the
// chained test queued.
void finishRun(KsTestExec* tstItem) {
    tstItem->RanTimes = 1;
    __mv_EndExecTime(&tstItem->totalStartTime);
    long totalSecs = tstItem->totalStartTime.lapsed.tv_sec ? tstItem->totalStartTime.lapsed.tv_sec : 1;
    tstItem->TotalExecutedTPS = int32_t(tstItem->TotalCompletedExecutionUECount / totalSecs);
    __mv_makeTimeStamp(tstItem->TestEndTime);
    __mv_core_wait_secs(2);

    if (tstItem->Status == KS_TEST__STOP) {
        for (MV_KsUE* ue = tstItem->Head; ue; ue = ue->TestNext) {
            if (ue->TestId) ue->TestId = 0;
            else ue->CommandId = 0;
            ue->CompletedKsStep = 0;
            ue->ksScanario = nullptr;
            ue->ksStepExecutionItemCount = 0;
        }
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Interrupted/Stopped TestId=%u  %s|%d", tstItem->TestId,
                 "Kestrane___RunTest", __LINE__);
    } else {
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Completed TestId=%u  %s|%d", tstItem->TestId,
                 "Kestrane___RunTest", __LINE__);
    }
    tstItem->Status = KS_TEST__IDLE;

    if (tstItem->EndAction == 7 && tstItem->SelectTest >= 0) {
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
                 "Configured Next Test [TestId=%d] to Run, will run in 5 seconds   %s|%d", tstItem->SelectTest,
                 "Kestrane___RunTest", __LINE__);
        for (int i = 0; i < 5; ++i) usleep(999999);
        (void)KsEngine__AddTestToQueue(uint32_t(tstItem->SelectTest), KS_TEST__QUEUED);
    }
}

}  // namespace

void Kestrane___RunTest(KsTestExec* tstItem) {
    if (!claimRun(tstItem)) return;
    json_t* cfg = readTestConfig(tstItem);
    if (!cfg || !buildScenario(tstItem) || !takeUEsOfRange(tstItem, cfg)) return;
    uint32_t ueCount = cleanUEs(tstItem);
    if (!attachUEs(tstItem, ueCount)) return;
    preparePasses(tstItem);
    KsScanario* scanario = tstItem->ksScanario;
    uint32_t pass = 0;
    do {
        startPass(tstItem, scanario, ++pass, ueCount);
        drivePass(tstItem);
    } while (endPass(tstItem, pass));
    finishRun(tstItem);
}

// ---------------------------------------------------------------- the drive loop's body

void Kestrane___execScalingModeTest(KsTestExec* tstItem, uint32_t* iterations) {
    long tick = __mv_core_get_server_timer_tick();
    if (tick != ilogCtr.load()) {
        uint32_t ticker = ++iTotalTicker;
        int32_t completedNow = tstItem->CompletedExecutionUECount;
        int32_t thisTick = completedNow - tstItem->LastCompletedExecutionUECount;
        __mv_EndExecTime(&tstItem->snapStartTime);
        __mv_EndExecTime(&tstItem->totalStartTime);
        double percent = 0;
        if (thisTick > 0 && tstItem->TotalAttachedUECount > 0)
            percent = double(int64_t(completedNow) * 100 / tstItem->TotalAttachedUECount);
        uint32_t h = ticker / 3600, m = (ticker % 3600) / 60, s = ticker % 60;
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
                 "TestId=%u %u %02d:%02d:%02d E=%-4u %-3.1f%% [Completed %u Of %u] [Current %u < Concurrent %u] "
                 "C[%u*<%02u|%02u>=%d]   %s|%s|%d",
                 tstItem->TestId, uint32_t(tstItem->ExecutedNoOfTimes), int(h), int(m), int(s), uint32_t(thisTick),
                 percent, uint32_t(completedNow), uint32_t(tstItem->TotalAttachedUECount),
                 uint32_t(tstItem->CurrentExecutionCount.load()), uint32_t(tstItem->Concurrent), tstItem->MPS,
                 tstItem->NoOfTimes, *iterations, int(tstItem->MPS * tstItem->NoOfTimes), __FILE_NAME__, __func__, __LINE__);
        *iterations = 0;
        tstItem->Percent = int32_t(percent);
        tstItem->ExecutionCount = thisTick;
        tstItem->OnGoing = uint32_t(tstItem->CurrentExecutionCount.load());
        tstItem->ExecutedInSeconds += int32_t(tstItem->snapStartTime.lapsed.tv_sec);
        tstItem->ExecutedInMilliSeconds += int32_t(tstItem->snapStartTime.lapsed.tv_usec / 1000);
        tstItem->ExecutedTPS = 0;
        if (thisTick > 0 && tstItem->snapStartTime.lapsed.tv_sec >= 1)
            tstItem->ExecutedTPS = int32_t(thisTick / tstItem->snapStartTime.lapsed.tv_sec);
        tstItem->LastCompletedExecutionUECount = completedNow;
        ++tstItem->ExecutionTicks;
        __mv_StartExecTime(&tstItem->snapStartTime);
        int32_t total = tstItem->TotalExecSteps;
        if (tstItem->LastTotalExecSteps == total) {
            ++tstItem->WatchTotalExecSteps;
        } else {
            tstItem->LastTotalExecSteps = total;
            tstItem->WatchTotalExecSteps = 0;
        }
        tstItem->MPSCounter = 0;
        ilogCtr = tick;
    }

    if (tstItem->Status == KS_TEST__STOP) {
        __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Stopping Test with TestID=%u  %s|%s|%d", tstItem->TestId,
                 __FILE_NAME__, __func__, __LINE__);
        return;
    }
    uint64_t budget = uint64_t(tstItem->NoOfTimes) * tstItem->MPS;
    KsScanario* scanario = tstItem->ksScanario;
    while (tstItem->MPSCounter < budget && tstItem->CurrentExecutionCount.load() < tstItem->Concurrent) {
        ++tstItem->MPSCounter;
        MV_KsUE* ue;
        {
            std::lock_guard g(tstItem->SLock);
            ue = tstItem->SHead;
            if (ue) {
                tstItem->SHead = ue->STestNext;
                if (!tstItem->SHead) tstItem->SCurrent = nullptr;
                ue->STestNext = nullptr;
            }
        }
        if (!ue) {
            tstItem->UEGotNULL = 1;
            __mv_log(MV_CMN_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "LoadTest UE Got NULL for TestId=%u  %s|%s|%d",
                     tstItem->TestId, __FILE_NAME__, __func__, __LINE__);
            return;
        }
        if (ue->CompletedKsStep >= scanario->totalSteps) continue;
        ue->ksScanario = scanario;
        KsScanario__CreateKsStepExecutions(ue, ue->CompletedKsStep);
        {
            std::lock_guard g(__ksEngine->executngStepsLock);
            ++__ksEngine->executngSteps;
        }
        {
            std::lock_guard g(tstItem->CurrentExecutionCountLock);
            ++tstItem->CurrentExecutionCount;
        }
        Kestrane___runStep(ue, 0);
    }
}
