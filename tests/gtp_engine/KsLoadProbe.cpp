#include "KsLoadProbe.h"

#include <chrono>
#include <thread>

#include "KsEngine_step.h"

KsProbeTally ksProbe;

namespace {

void answer(void* ue) {
    auto* ksUe = static_cast<MV_KsUE*>(ue);
    if (KsScanario__CurrentStepEquals(ksUe, KS_PROBE_STEP_CODE) != 1) return;
    // Out of progress before the engine hears of it: what the probe counts never lags behind.
    --ksProbe.inProgress;
    KS_COMPLETE_STEP(ksUe, KS_PROBE_STEP_CODE);
}

void holdOver(void* ue) { KsEngine__PostToUELine(static_cast<MV_KsUE*>(ue), answer); }

void runStep(MV_KsUE* ksUe) {
    KsStep* st = KsScanario__GetKsExecutionStep(ksUe);
    if (!st) return;
    ksUe->ksStepExecution = KsScanario__GetKsExecution(ksUe);
    ksUe->StepCode = st->StepCode;
    int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                      std::chrono::steady_clock::now().time_since_epoch())
                      .count();
    uint32_t i = ksProbe.count++;
    if (i < KsProbeTally::kMax) ksProbe.arrivals[i] = {now, ksUe->ueId, uint32_t(ksUe->CompletedKsStep)};
    int32_t n = ++ksProbe.inProgress;
    for (int32_t m = ksProbe.maxInProgress.load(); n > m && !ksProbe.maxInProgress.compare_exchange_weak(m, n);) {
    }
    KsEngine__KsUE_SetTimerActionRetry(ksUe, 0, st->StepCode);
    if (int32_t us = ksProbe.holdUs.load()) std::this_thread::sleep_for(std::chrono::microseconds(us));
    if (st->SleepTime == 0 || !__mv_core_start_timer(ksUe, holdOver, int(st->SleepTime))) answer(ksUe);
}

constexpr KsStepCatalogueEntry kProbeStep = {KS_PROBE_STEP_ID, "KsLoadProbe__AddStep", KS_PROBE_STEP_CODE,
                                             KS_PROBE_STEP_INDEX, KsStepKind::Sleep, nullptr, 0, 0};

}  // namespace

void KsLoadProbe__Init() {
    KsEngine__RegisterRunner(KS_PROBE_STEP_INDEX, KS_PROBE_STEP_INDEX, "KsLoadProbe__runStep_FQ", runStep);
    KsEngine__RegisterStepBuilder(&kProbeStep);
}
