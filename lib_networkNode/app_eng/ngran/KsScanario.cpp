// Scenarios of a test, a UE's step executions, the road of a step to its runner,
// the completion contract and the step timer.
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "KsPool.h"
#include "Kestrane.h"
#include "Kestrane_util.h"

namespace {

std::atomic<KsStepRunner> runnerOverride{nullptr};

void incr(int64_t& v, MV_Mutex& m, int64_t by) {
    std::lock_guard g(m);
    v += by;
}

// Which runner family serves a StepIndex. The 5G EIR step (6001) reaches the 5G EIR
// runner; the ranges are otherwise those the step ids were numbered for.
struct RunnerRange {
    uint32_t first, last;
    const char* name;
    void (*run)(MV_KsUE*);
};

constexpr RunnerRange kRunners[] = {
    {0, 999, "KsNAS__runStep_FQ", [](MV_KsUE* u) { KsNAS__runStep_FQ(u, 1); }},
    {1000, 1999, "KsPFCP__runStep_FQ", KsPFCP__runStep_FQ},
    {2000, 2999, "KsPGW__runStep_FQ", KsPGW__runStep_FQ},
    {3000, 3999, "KsSGW__runStep_FQ", KsSGW__runStep_FQ},
    {4000, 4900, "KsS1AP__runStep_FQ", KsS1AP__runStep_FQ},
    {4901, 4903, "KsGGSN__runStep_FQ", KsGGSN__runStep_FQ},
    {4904, 4999, "KsS1AP__runStep_FQ", KsS1AP__runStep_FQ},
    {5000, 5999, "Ks4GEIR__runStep_FQ", Ks4GEIR__runStep_FQ},
    {6000, 6999, "Ks5GEIR__runStep_FQ", Ks5GEIR__runStep_FQ},
    {7000, 7999, "KsAAA__runStep_FQ", KsAAA__runStep_FQ},
    {8000, 8999, "KsCHF__runStep_FQ", KsCHF__runStep_FQ},
    {9000, 9999, "KsPCRF__runStep_FQ", KsPCRF__runStep_FQ},
    {10000, 10999, "KsHSS__runStep_FQ", [](MV_KsUE* u) { KsHSS__runStep_FQ(u, 0); }},
    {11000, 11999, "KsSMF__runStep_FQ", KsSMF__runStep_FQ},
    {12000, UINT32_MAX, "KsNAS__runStep_FQ", [](MV_KsUE* u) { KsNAS__runStep_FQ(u, 1); }},
};

const RunnerRange* runnerOf(uint32_t stepIndex) {
    for (const RunnerRange& r : kRunners)
        if (stepIndex >= r.first && stepIndex <= r.last) return &r;
    return nullptr;
}

}  // namespace

// ---------------------------------------------------------------- scenarios

KsScanario* KsScanario__NewScanario(uint32_t id) {
    KsScanario* scanario = __ksEngine->ksScanarioPool->allocate();
    scanario->id = id;
    return scanario;
}

KsStep* KsScanario__NewStep(uint32_t StepCode, uint32_t StepIndex) {
    KsStep* st = __ksEngine->ksStepPool->allocate();
    st->StepCode = StepCode;
    st->StepIndex = StepIndex;
    return st;
}

void KsScanario__AddStep(KsScanario* scanario, KsStep* step) {
    if (!scanario || !step) return;
    step->Next = nullptr;
    if (scanario->stepCurrent) scanario->stepCurrent->Next = step;
    else scanario->stepHead = step;
    scanario->stepCurrent = step;
    ++scanario->totalSteps;
}

KsScanario* Kestrane___createScanarioForKsTestExec(KsTestExec* tstItem, uint32_t ScanarioID) {
    if (tstItem->ksScanario) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "Scenario Object already exists for tstItem=%p %p ScanarioID=%u %s|%d",
                 (void*)tstItem, (void*)tstItem->ksScanario, ScanarioID, __func__, __LINE__);
        return tstItem->ksScanario;
    }
    json_t* found = nullptr;
    size_t i;
    json_t* sc;
    json_array_foreach(__ksEngine->scenarios, i, sc) {
        if (KsJson::number(sc, "ID", -1) == (long long)ScanarioID) {
            found = sc;
            break;
        }
    }
    if (!found) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
                 "creating scenario failed for tstItem=%p, ScanarioID=%u Configuration NOT found for TestItem, "
                 "reconfigure TestItem with Scenario %s|%d",
                 (void*)tstItem, ScanarioID, __func__, __LINE__);
        return nullptr;
    }
    KsScanario* scanario = KsScanario__NewScanario(tstItem->TestId + 200001);
    json_t* steps = json_object_get(found, "Config");
    json_t* step;
    json_array_foreach(steps, i, step) {
        long long id = KsJson::number(step, "ID", 0);
        if (id <= 0 || id > 199999) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "Creating Scanario for StepID=%u Failed, StepID NOT-IN-RANGE tstItem=%p ScanarioID=%u %s|%d",
                     uint32_t(id), (void*)tstItem, ScanarioID, __func__, __LINE__);
            continue;
        }
        const KsStepCatalogueEntry* entry = KsScanario__GetStepBuilder(uint32_t(id));
        if (!entry) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "Creating Scanario for StepID=%u Failed, no step builder for StepID tstItem=%p ScanarioID=%u %s|%d",
                     uint32_t(id), (void*)tstItem, ScanarioID, __func__, __LINE__);
            continue;
        }
        Kestrane___ScanarioAddStep(scanario, entry, json_object_get(step, "Dict"));
    }
    tstItem->ksScanario = scanario;
    return scanario;
}

// ---------------------------------------------------------------- executions

void KsScanario__ReleaseUEExecutionSteps(MV_KsUE* ksUe) {
    std::lock_guard g(ksUe->pduSessionsRecvCountLock);
    KsStepExecution* e = ksUe->ksStepExecutionHead;
    while (e) {
        KsStepExecution* next = e->Next;
        __ks_pduSessionSetupInfo* p = e->pduSessionSetupHead;
        while (p) {
            __ks_pduSessionSetupInfo* pn = p->Next;
            delete p;
            p = pn;
        }
        __ksEngine->ksStepExecutionPool->release(e);
        e = next;
    }
    ksUe->ksStepExecutionHead = ksUe->ksStepExecutionCurrent = nullptr;
    ksUe->ksStepExecution = nullptr;
    ksUe->ksStepExecutionItemCount = 0;
    ksUe->CommandId = 0;
    ksUe->TestId = 0;
}

KsStepExecution* KsScanario__AppendExecution(MV_KsUE* ksUe, KsStep* st, uint32_t Id) {
    KsStepExecution* e = __ksEngine->ksStepExecutionPool->allocate();
    e->Id = Id;
    e->ksStep = st;
    e->ksUe = ksUe;
    for (__ks_pduSessionInfo* info = st->pduSessionHead; info; info = info->Next) {
        auto* setup = new __ks_pduSessionSetupInfo{nullptr, info, 0};
        if (e->pduSessionSetupCurrent) e->pduSessionSetupCurrent->Next = setup;
        else e->pduSessionSetupHead = setup;
        e->pduSessionSetupCurrent = setup;
        ++e->pduSessionCount;
    }
    e->pduSessionSetupItem = e->pduSessionSetupHead;
    std::lock_guard g(ksUe->pduSessionsRecvCountLock);
    if (ksUe->ksStepExecutionCurrent) ksUe->ksStepExecutionCurrent->Next = e;
    else ksUe->ksStepExecutionHead = e;
    ksUe->ksStepExecutionCurrent = e;
    ++ksUe->ksStepExecutionItemCount;
    return e;
}

void KsScanario__CreateKsStepExecutions(MV_KsUE* ksUe, int stepId) {
    if (!ksUe->ksScanario) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "Scanario Not Configured for the SUPI=%s <%s|%s|%d>", KsUE__supi(ksUe),
                 __FILE_NAME__, __func__, __LINE__);
        return;
    }
    // Releasing the list frees the UE's owner ids; the UE stays with its test.
    uint32_t testId = ksUe->TestId, commandId = ksUe->CommandId;
    KsScanario__ReleaseUEExecutionSteps(ksUe);
    ksUe->TestId = testId;
    ksUe->CommandId = commandId;

    int pos = 0;
    uint32_t taken = 0;
    for (KsStep* st = ksUe->ksScanario->stepHead; st; st = st->Next, ++pos) {
        if (stepId != -1 && pos != stepId) continue;
        KsScanario__AppendExecution(ksUe, st, ++taken);
        ksUe->StepCode = st->StepCode;
    }
    if (taken == 0) {
        // Only reachable with a position past the scenario's end; the UE then has nothing to run.
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "[%s] ksStep got NULL  <%s|%s|%d>", KsUE__supi(ksUe), __FILE_NAME__,
                 __func__, __LINE__);
    }
    ksUe->TotalKsSteps = int32_t(taken);
}

KsStepExecution* KsScanario__GetKsExecution(MV_KsUE* ksUe) {
    if (!ksUe) return nullptr;
    return ksUe->ksStepExecution ? ksUe->ksStepExecution : ksUe->ksStepExecutionHead;
}

KsStep* KsScanario__GetKsExecutionStep(MV_KsUE* ksUe) {
    KsStepExecution* e = KsScanario__GetKsExecution(ksUe);
    return e ? e->ksStep : nullptr;
}

KsStepExecution* KsScanario__GetCurrentExecutingStep(MV_KsUE* ksUe, uint32_t expected) {
    KsStepExecution* e = KsScanario__GetKsExecution(ksUe);
    if (!e || expected == 0) return e;
    return e->ksStep && e->ksStep->StepCode == expected ? e : nullptr;
}

int KsScanario__CurrentStepEquals(MV_KsUE* ksUe, uint32_t StepCode) {
    if (!ksUe) return -1;
    KsStepExecution* e = KsScanario__GetKsExecution(ksUe);
    if (!e) return -ENOENT;
    if (!e->ksStep) return -ESRCH;
    return e->ksStep->StepCode == StepCode ? 1 : 0;
}

int Kestrane___hasStepExecTemplate(MV_KsUE* ksUe) {
    KsStep* st = KsScanario__GetKsExecutionStep(ksUe);
    return st && st->nas5G_regTemplate ? 1 : 0;
}

// ---------------------------------------------------------------- the road to a runner

void Kestrane___runStep(void* v, int index) {
    (void)index;
    auto* ue = static_cast<MV_KsUE*>(v);
    if (!ue) return;
    __mv_core_queue_fsm2(__ksEngine->fsmNGAPProcessingQueue, uint32_t(ue->ueId % __ksEngine->fsmNGAPProcessingThreadCount),
                         ue, Kestrane___runStepFSM);
}

void Kestrane___runStepFSM(void* v) {
    auto* ksUe = static_cast<MV_KsUE*>(v);
    KsStepExecution* head = ksUe->ksStepExecutionHead;
    KsStep* st = head ? head->ksStep : nullptr;
    if (!st) {
        if (head)
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "  ksUe=%p  ksStepExecutionHead=%p  ksStep=%p   %s|%s|%d",
                     (void*)ksUe, (void*)head, (void*)st, __FILE_NAME__, __func__, __LINE__);
        KsNAS__runStep_FQ(ksUe, 1);
        return;
    }
    if (st->StepIndex == 0) {
        switch (st->StepCode) {
            case 39: st->StepIndex = 1001; break;
            case 40: st->StepIndex = 1002; break;
            case 41: st->StepIndex = 1003; break;
            default:
                __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "StepIndex Not Coded for StepCode=%d  %s|%s|%d",
                         int(st->StepCode), __FILE_NAME__, __func__, __LINE__);
        }
    }
    if (KsStepRunner r = runnerOverride.load(std::memory_order_relaxed)) {
        r(ksUe);
        return;
    }
    if (const RunnerRange* rr = runnerOf(st->StepIndex)) rr->run(ksUe);
}

const char* Kestrane___runnerNameOfStepIndex(uint32_t StepIndex) {
    const RunnerRange* rr = runnerOf(StepIndex);
    return rr ? rr->name : nullptr;
}

void KsEngine__SetRunnerOverride(KsStepRunner runner) { runnerOverride = runner; }

void Kestrane___runStepAsync(MV_KsUE* ksUe, uint8_t bearer) {
    (void)bearer;
    KsTestExec* t = ksUe->testExec;
    void* q = __ksEngine->M_MPS_Q[t ? t->MPSIndex : 0];
    __mv_core_queue_item_force(q, ksUe, 1);
}

void Kestrane___runStepAsync_timer(MV_KsUE* ksUe) { Kestrane___runStepAsync(ksUe, 1); }
void Kestrane___runStepAsync_timeout(MV_KsUE* ksUe) { Kestrane___runStepAsync(ksUe, 1); }

// ---------------------------------------------------------------- completion

void KsScanario__CompleteCurrentStepAndExecutionNextStep(MV_KsUE* ksUe, uint32_t StepCode, const char* funcName,
                                                         const char* file, int line) {
    if (!ksUe) return;
    KsEngine__KsUE_ClearDefaultTimer(ksUe, funcName);
    if (StepCode == KS_STEP_CODE_FROM_UE) StepCode = ksUe->ksScanario ? ksUe->StepCode : 0;
    if (ksUe->ksScanario) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG,
                 "%s|Completed StepCode=[%u|%u|%s] CurrentStepCount=%d TotalSteps=%d   %s|%s|%d  SRC=%s|%d", KsUE__supi(ksUe),
                 StepCode, ksUe->StepCode, funcName ? funcName : "", ksUe->CompletedKsStep, ksUe->TotalKsSteps, __FILE_NAME__,
                 __func__, __LINE__, file ? file : "", line);
    } else if (ksUe->CommandId) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "%s|Completed Command[%d] Execution   %s|%s|%d  SRC=%s|%d",
                 KsUE__supi(ksUe), int(ksUe->CommandId), __FILE_NAME__, __func__, __LINE__, file ? file : "", line);
        KsScanario__ReleaseUEExecutionSteps(ksUe);
        ksUe->CommandId = 0;
        return;
    }
    Kestrane___completedScalingModeStep(ksUe, StepCode, funcName, file, line);
}

void Kestrane___completedScalingModeStep(MV_KsUE* ksUe, uint32_t StepCode, const char* funcName, const char* file,
                                         int line) {
    (void)funcName;
    (void)file;
    (void)line;
    if (StepCode != ksUe->StepCode) {
        if (StepCode == KS_STEP__SERVICE_REQUEST) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "executing step=%u after service request <%s|%s|%d>",
                     ksUe->StepCode, __FILE_NAME__, __func__, __LINE__);
            Kestrane___runStepAsync_timer(ksUe);
            return;
        }
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] expected step code=%u, got step code=%u  CompletedKsStep=%u  TotalKsSteps=%u  "
                 "ksStepExecutionHead=%p  <%s|%s|%d>",
                 KsUE__supi(ksUe), ksUe->StepCode, StepCode, uint32_t(ksUe->CompletedKsStep), uint32_t(ksUe->TotalKsSteps),
                 (void*)ksUe->ksStepExecutionHead, __FILE_NAME__, __func__, __LINE__);
        if (!ksUe->ksStepExecutionHead) return;
    }
    KsTestExec* t = ksUe->testExec;
    KsScanario* scanario = t ? t->ksScanario : nullptr;
    if (!t || !ksUe->ksScanario || !scanario) {
        ++ksUe->CompletedKsStep;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] KsTestExec got NULL  tstItem=%p ksScanario=%p TestId=%d CommandId=%d  CompletedKsStep=%u  "
                 "TotalKsSteps=%u <%s|%s|%d>",
                 KsUE__supi(ksUe), (void*)t, (void*)ksUe->ksScanario, int(ksUe->TestId), int(ksUe->CommandId),
                 uint32_t(ksUe->CompletedKsStep), uint32_t(ksUe->TotalKsSteps), __FILE_NAME__, __func__, __LINE__);
        ksUe->CompletedKsStep = 0;
        ksUe->EndOfTest = 1;
        return;
    }
    ++ksUe->CompletedKsStep;
    {
        std::lock_guard g(t->CompletedExecutionUECountLock);
        ++t->TotalExecSteps;
    }
    uint32_t testId = ksUe->TestId;
    KsScanario__ReleaseUEExecutionSteps(ksUe);
    incr(__ksEngine->executngSteps, __ksEngine->executngStepsLock, -1);
    incr(__ksEngine->executedSteps, __ksEngine->executedStepsLock, 1);
    incr(__ksEngine->lastReceived, __ksEngine->lastReceivedLock, 1);
    ksUe->ksStepExecution = nullptr;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "[%s] CompletedKsStep=%u  TotalKsSteps=%u SEC=%d <%s|%s|%d>",
             KsUE__supi(ksUe), uint32_t(ksUe->CompletedKsStep), uint32_t(ksUe->TotalKsSteps), 0, __FILE_NAME__, __func__, __LINE__);

    if (ksUe->CompletedKsStep < scanario->totalSteps && t->Status != KS_TEST__STOP) {
        ksUe->TestId = testId;  // still this test's UE between steps
        ksUe->ksScanario = scanario;
        KsScanario__CreateKsStepExecutions(ksUe, ksUe->CompletedKsStep);
        incr(__ksEngine->executngSteps, __ksEngine->executngStepsLock, 1);
        Kestrane___runStepAsync_timer(ksUe);
    } else if (t->Status == KS_TEST__STOP) {
        ksUe->TestId = testId;
        return;
    } else {
        ksUe->TestId = testId;
        ksUe->CompletedKsStep = 0;
        ksUe->ksScanario = nullptr;
        ksUe->ksStepExecutionItemCount = 0;
        std::lock_guard g(t->CompletedExecutionUECountLock);
        ++t->CompletedExecutionUECount;
    }
    std::lock_guard g(t->CurrentExecutionCountLock);
    if (t->CurrentExecutionCount > 0) --t->CurrentExecutionCount;
}

void Kestrane___execMarkAsComplete(MV_KsUE* ksUe) {
    if (!ksUe) return;
    if (KsTestExec* t = ksUe->testExec) {
        {
            std::lock_guard g(t->CurrentExecutionCountLock);
            if (t->CurrentExecutionCount > 0) --t->CurrentExecutionCount;
        }
        std::lock_guard g(t->CompletedExecutionUECountLock);
        ++t->CompletedExecutionUECount;
        ++t->TotalExecSteps;
    }
    KsEngine__KsUE_ClearDefaultTimer(ksUe, __func__);
    KsScanario__CompleteCurrentStepAndExecutionNextStep(ksUe, ksUe->StepCode, __func__, __FILE_NAME__, __LINE__);
}

// ---------------------------------------------------------------- step timer

namespace {

// Runs on a queue line: hands the expiry to the UE's own line, where all its step work runs.
void defTimerExpired(void* data) {
    auto* ksUe = static_cast<MV_KsUE*>(data);
    __mv_core_queue_fsm2(__ksEngine->fsmNGAPProcessingQueue, uint32_t(ksUe->ueId % __ksEngine->fsmNGAPProcessingThreadCount),
                         ksUe, [](void* ue) { KsEngine_KsUE_TimerActionOnTimeout(static_cast<uint8_t*>(ue)); });
}

void armDefTimer(MV_KsUE* ksUe) {
    ksUe->defTimerSeq.fetch_add(1);
    ksUe->defTimer = __mv_core_start_timer(ksUe, defTimerExpired, int(__ksEngine->DefaultTimeoutSeconds));
    ksUe->defTimerGen = __mv_core_timer_generation(ksUe->defTimer);
    ksUe->defTimerFiredSeq = ksUe->defTimerSeq.load();
}

void clearDefTimer(MV_KsUE* ksUe) {
    if (!ksUe->defTimer) return;
    __mv_core_clear_timer_gen(ksUe->defTimer, ksUe->defTimerGen);
    ksUe->defTimer = nullptr;
    ksUe->defTimerSeq.fetch_add(1);  // an expiry already on its way is now stale
}

}  // namespace

void KsEngine__KsUE_SetTimerActionRetry(MV_KsUE* ksUe, uint8_t maxAttempts, uint32_t stepCode) {
    clearDefTimer(ksUe);
    armDefTimer(ksUe);
    if (!ksUe->defTimer) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "%s Timer Allocation Failed  %s|%s|%d", KsUE__supi(ksUe), __FILE_NAME__,
                 __func__, __LINE__);
        abort();
    }
    if (stepCode != ksUe->defStepCode) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "%s defStepCode=%u stepCode=%u  %s|%s|%d", KsUE__supi(ksUe),
                 ksUe->defStepCode, stepCode, __FILE_NAME__, __func__, __LINE__);
        ksUe->defTimerCounter = 0;
    }
    ksUe->defTimerMaxAttempts = maxAttempts;
    ksUe->defTimerOnTimeout = 1;
    ksUe->defStepCode = stepCode;
}

void KsEngine__KsUE_ClearDefaultTimer(MV_KsUE* ksUe, const char* funcName) {
    if (ksUe->defTimer) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "%s cleared step timer SRC=%s %s|%d", KsUE__supi(ksUe),
                 funcName ? funcName : "", __func__, __LINE__);
        clearDefTimer(ksUe);
    }
    if (ksUe->defTimerCounter == 0) {
        ksUe->defTimerMaxAttempts = 0;
        ksUe->defTimerOnTimeout = 0;
    }
}

void KsEngine__KsUE_ReschduleTimer(MV_KsUE* ksUe, const char* reason) {
    if (!ksUe->defTimer) return;
    clearDefTimer(ksUe);
    armDefTimer(ksUe);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "%s Reschduled Timer for %s %s|%s|%d", KsUE__supi(ksUe),
             reason ? reason : "", __FILE_NAME__, __func__, __LINE__);
}

void KsEngine_KsUE_TimerActionOnTimeout(uint8_t* u8Ue) {
    auto* ksUe = reinterpret_cast<MV_KsUE*>(u8Ue);
    // Only the arming the UE still holds may act; a cleared or re-armed timer's late expiry is dropped.
    if (!ksUe->defTimer || ksUe->defTimerFiredSeq.load() != ksUe->defTimerSeq.load()) return;
    ksUe->defTimer = nullptr;  // the record went back to the wheel's pool at expiry
    if (KsTestExec* t = ksUe->testExec) {
        t->WatchTotalExecSteps = 0;
        ++t->ExecutionTimeout.Request;
        ++t->ExecutionTimeout.Total;
    }
    if (ksUe->defTimerOnTimeout == 1 && ksUe->defTimerCounter < ksUe->defTimerMaxAttempts) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                 "%s Timeout Happened for current step, attempting again  defTimerCounter=%u defTimerMaxAttempts=%u   "
                 "ksScanario=%p  %s|%s|%d",
                 KsUE__supi(ksUe), ksUe->defTimerCounter, ksUe->defTimerMaxAttempts, (void*)ksUe->ksScanario, __FILE_NAME__,
                 __func__, __LINE__);
        ++ksUe->defTimerCounter;
        Kestrane___runStepAsync_timer(ksUe);
        return;
    }
    ksUe->defTimerCounter = 0;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
             "%s Timeout Happened for current step, moving next  ksScanario=%p   %s|%s|%d", KsUE__supi(ksUe),
             (void*)ksUe->ksScanario, __FILE_NAME__, __func__, __LINE__);
    KsScanario__CompleteCurrentStepAndExecutionNextStep(ksUe, ksUe->defStepCode, __func__, __FILE_NAME__, __LINE__);
}

// ---------------------------------------------------------------- re-running and PDU session steps

void KsScanario__ReRunScanario(MV_KsUE* ksUe, int clearResult) {
    if (!ksUe) return;
    if (clearResult == 1) KsScanario__ClearResult(ksUe);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "ReRun Schuduled for SUPI[%s] ksUe[%p] EndOfTest=%u <%s|%s|%d>",
             KsUE__supi(ksUe), (void*)ksUe, ksUe->EndOfTest, __FILE_NAME__, __func__, __LINE__);
    if (ksUe->EndOfTest == 1) {
        ksUe->EndOfTest = 0;
        ksUe->ksStepExecution = nullptr;
        Kestrane___runStepAsync(ksUe, KS_BEARER__3GPP);
        return;
    }
    // Still running: one more run is booked.
    ksUe->TotalExecutedCount = ksUe->TotalExecutedCount == 0 ? 2 : ksUe->TotalExecutedCount + 1;
}

namespace {

void pduNextStepOnLine(void* ue) {
    auto* ksUe = static_cast<MV_KsUE*>(ue);
    // The UE may have moved on (a timeout) while the timer ran: only step 6 is ours to end.
    if (KsScanario__CurrentStepEquals(ksUe, KS_STEP__PDU_SESSION) != 1) return;
    KS_COMPLETE_STEP(ksUe, KS_STEP__PDU_SESSION);
}

}  // namespace

// Timer expiries arrive on a queue line; the UE's own line runs the completion.
void KsScanario__PduNextStep(void* ue) {
    auto* ksUe = static_cast<MV_KsUE*>(ue);
    __mv_core_queue_fsm2(__ksEngine->fsmNGAPProcessingQueue, uint32_t(ksUe->ueId % __ksEngine->fsmNGAPProcessingThreadCount),
                         ksUe, pduNextStepOnLine);
}

void KsScanario__UpdatePduSesssionStep(uint8_t pduSessionId, MV_KsUE* ksUe) {
    KsStepExecution* e = KsScanario__GetKsExecution(ksUe);
    if (!e || !e->ksStep || e->ksStep->StepCode != KS_STEP__PDU_SESSION) {
        printf("Step Not matched %s|%s|%d\n", __FILE_NAME__, __func__, __LINE__);
        return;
    }
    int pending = 0;
    __ks_pduSessionSetupInfo* next = nullptr;
    for (__ks_pduSessionSetupInfo* p = e->pduSessionSetupHead; p; p = p->Next) {
        if (p->Info && p->Info->PDUSessionId == pduSessionId) {
            p->SetupCompleted = 1;
        } else if (!p->SetupCompleted) {
            ++pending;
            if (!next) next = p;
        }
    }
    printf("hasPendingPduSessions=%d %s|%s|%d\n", pending, __FILE_NAME__, __func__, __LINE__);
    if (pending > 0) {
        e->pduSessionSetupItem = next;
        if (!__mv_core_start_timer(ksUe, KsNAS__send_pdusession_request_3gpp, 1))
            KsNAS__send_pdusession_request_3gpp(ksUe);
        return;
    }
    if (!__mv_core_start_timer(ksUe, KsScanario__PduNextStep, 1)) pduNextStepOnLine(ksUe);
}

// ---------------------------------------------------------------- report events

void KsScanario__AddEvent(MV_KsUE* ksUe, uint32_t procedureCode, uint32_t nasMessageType, uint32_t childNasMessageType,
                          uint32_t childNasMessageCategoryType) {
    if (!ksUe || !__ksEngine->WriteReport) return;
    KsStepChild* c = __ksEngine->ksEventPool->allocate();
    if (!c) return;
    c->MessageType = 1;
    c->ProcedureCode = procedureCode;
    c->NasMessageType = nasMessageType;
    c->ChildNasMessageType = childNasMessageType;
    c->ChildNasMessageCategoryType = childNasMessageCategoryType;
    gettimeofday(&c->Time, nullptr);
    std::lock_guard g(ksUe->ChildLock);
    c->Id = ++ksUe->ChildStepCounter;
    c->Next = nullptr;
    if (ksUe->ChildCurrent) ksUe->ChildCurrent->Next = c;
    else ksUe->ChildHead = c;
    ksUe->ChildCurrent = c;
}

// The receive paths report nothing.
KsStepChild* KsScanario__AddRecvEvent(MV_KsUE*, uint32_t, uint32_t) { return nullptr; }
void KsScanario__AddEvent_BYNGAPID(uint64_t, uint32_t, uint32_t) {}

void KsScanario__ClearResult(MV_KsUE* ksUe) {
    if (!ksUe) return;
    std::lock_guard g(ksUe->ChildLock);
    for (KsStepChild* c = ksUe->ChildHead; c;) {
        KsStepChild* next = c->Next;
        __ksEngine->ksEventPool->release(c);
        c = next;
    }
    ksUe->ChildHead = ksUe->ChildCurrent = nullptr;
    ksUe->ChildStepCounter = 0;
}
