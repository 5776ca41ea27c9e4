#include "KsDelay.h"

#include <pthread.h>

#include <cstring>

#include "KsEngine_step.h"

KsDelayTally ksDelayTally;

namespace {

// The line a UE's work runs on, told by the thread's name and nothing of the engine's
// inside: the family checks that its answers come back where the UE's steps run.
bool onFsmLine() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return strcmp(name, "fsm_thread") == 0;
}

void answer(void* ue) {
    auto* ksUe = static_cast<MV_KsUE*>(ue);
    if (!onFsmLine()) ++ksDelayTally.AnsweredOffLine;
    // The UE may have moved on (its step timer) while the delay ran.
    if (KsScanario__CurrentStepEquals(ksUe, KS_DELAY_STEP_CODE) != 1) return;
    ++ksDelayTally.Answered;
    KS_COMPLETE_STEP(ksUe, KS_DELAY_STEP_CODE);
}

// A timer expiry runs on a queue line: the answer goes to the UE's line.
void delayOver(void* ue) { KsEngine__PostToUELine(static_cast<MV_KsUE*>(ue), answer); }

void runStep(MV_KsUE* ksUe) {
    KsStep* st = KsScanario__GetKsExecutionStep(ksUe);
    if (!st) return;
    ksUe->ksStepExecution = KsScanario__GetKsExecution(ksUe);
    ksUe->StepCode = st->StepCode;
    ++ksDelayTally.Started;
    // The step timer stands behind the answer, as for a real peer.
    KsEngine__KsUE_SetTimerActionRetry(ksUe, 0, st->StepCode);
    if (st->SleepTime == 0 || !__mv_core_start_timer(ksUe, delayOver, int(st->SleepTime)))
        KsEngine__PostToUELine(ksUe, answer);
}

constexpr KsStepCatalogueEntry kDelayStep = {KS_DELAY_STEP_ID, "KsDelay__AddDelayedStep", KS_DELAY_STEP_CODE,
                                             KS_DELAY_STEP_INDEX, KsStepKind::Sleep, nullptr, 0, 0};

}  // namespace

void KsDelay__Init() {
    KsEngine__RegisterRunner(15000, 15999, "KsDelay__runStep_FQ", runStep);
    KsEngine__RegisterStepBuilder(&kDelayStep);
    KsEngine__RegisterCommandStep(KS_DELAY_COMMAND, KS_DELAY_STEP_CODE, KS_DELAY_STEP_INDEX);
}
