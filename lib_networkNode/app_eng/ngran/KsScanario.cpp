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

void incr(int64_t& v, MV_Mutex& m, int64_t by) {
    std::lock_guard g(m);
    v += by;
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

// ---------------------------------------------------------------- running a step again

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
    KsEngine__PostToUELine(static_cast<MV_KsUE*>(data),
                           [](void* ue) { KsEngine_KsUE_TimerActionOnTimeout(static_cast<uint8_t*>(ue)); });
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

// ---------------------------------------------------------------- re-running

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
