// The 5G UE's step runner. Only the sleep step stands here so far; the protocol
// steps join with the NAS procedures.
#include <cstdlib>

#include "Kestrane.h"

namespace {

void sleepComplete(MV_KsUE* ksUe) {
    if (KsScanario__CurrentStepEquals(ksUe, KS_STEP__SLEEP) != 1) return;
    if (ksUe->TGPP.ranUeContext) {
        // Completion then runs in order with the UE's protocol events.
        __mv_core_queue_fsm2(__ksEngine->fsmNGAPProcessingQueue,
                             uint32_t(ksUe->ueId % __ksEngine->fsmNGAPProcessingThreadCount), ksUe,
                             KsNAS__on_sleep_complete_handler);
        return;
    }
    KS_COMPLETE_STEP(ksUe, KS_STEP__SLEEP);
}

}  // namespace

void KsNAS__on_sleep_complete_handler(void* ue) { KS_COMPLETE_STEP(static_cast<MV_KsUE*>(ue), KS_STEP__SLEEP); }

// Timer expiries arrive on a queue line; the UE's own line runs the completion.
void KsNAS__on_tgpp_sleep_complete(void* ue) {
    auto* ksUe = static_cast<MV_KsUE*>(ue);
    __mv_core_queue_fsm2(__ksEngine->fsmNGAPProcessingQueue, uint32_t(ksUe->ueId % __ksEngine->fsmNGAPProcessingThreadCount),
                         ksUe, [](void* u) { sleepComplete(static_cast<MV_KsUE*>(u)); });
}

void KsNAS__on_ntgpp_sleep_complete(void* ue) { KsNAS__on_tgpp_sleep_complete(ue); }

void KsNAS__runStep_FQ(MV_KsUE* ksUe, int bearer) {
    if (!ksUe->ksStepExecution) ksUe->ksStepExecution = ksUe->ksStepExecutionHead;
    KsStepExecution* e = ksUe->ksStepExecution;
    if (!e) return;  // nothing to run
    KsStep* st = e->ksStep;
    if (!st) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "ksStep is NULL, coding issue %s|%s|%d", __FILE_NAME__, __func__,
                 __LINE__);
        abort();
    }
    ksUe->StepCode = st->StepCode;
    switch (st->StepCode) {
        case KS_STEP__SLEEP:
            if (bearer == KS_BEARER__3GPP && st->SleepTime == 0) {
                sleepComplete(ksUe);
            } else if (!__mv_core_start_timer(ksUe,
                                              bearer == KS_BEARER__3GPP ? KsNAS__on_tgpp_sleep_complete
                                                                        : KsNAS__on_ntgpp_sleep_complete,
                                              int(st->SleepTime))) {
                // A zero sleep on the other access has no timer to wait for.
                sleepComplete(ksUe);
            }
            return;
        default:
            Kestrane___runnerNotAvailable(ksUe, "KsNAS__runStep_FQ");
    }
}

void Kestrane___runnerNotAvailable(MV_KsUE* ksUe, const char* runner) {
    if (!ksUe->ksStepExecution) ksUe->ksStepExecution = ksUe->ksStepExecutionHead;
    KsStep* st = ksUe->ksStepExecution ? ksUe->ksStepExecution->ksStep : nullptr;
    uint32_t code = st ? st->StepCode : ksUe->StepCode;
    ksUe->StepCode = code;
    if (KsTestExec* t = ksUe->testExec) {
        ++t->StepSendFailed.SendFailed;
        ++t->StepSendFailed.Total;
    }
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] StepCode=%u has no runner in this build (%s), counted as send-failed %s|%d",
             KsUE__supi(ksUe), code, runner, __func__, __LINE__);
    KS_COMPLETE_STEP(ksUe, code);
}

void KsPFCP__runStep_FQ(MV_KsUE* ksUe) { Kestrane___runnerNotAvailable(ksUe, __func__); }
void KsPGW__runStep_FQ(MV_KsUE* ksUe) { Kestrane___runnerNotAvailable(ksUe, __func__); }
void KsSGW__runStep_FQ(MV_KsUE* ksUe) { Kestrane___runnerNotAvailable(ksUe, __func__); }
void KsS1AP__runStep_FQ(MV_KsUE* ksUe) { Kestrane___runnerNotAvailable(ksUe, __func__); }
void KsGGSN__runStep_FQ(MV_KsUE* ksUe) { Kestrane___runnerNotAvailable(ksUe, __func__); }
void Ks4GEIR__runStep_FQ(MV_KsUE* ksUe) { Kestrane___runnerNotAvailable(ksUe, __func__); }
void KsAAA__runStep_FQ(MV_KsUE* ksUe) { Kestrane___runnerNotAvailable(ksUe, __func__); }
void KsCHF__runStep_FQ(MV_KsUE* ksUe) { Kestrane___runnerNotAvailable(ksUe, __func__); }
void KsPCRF__runStep_FQ(MV_KsUE* ksUe) { Kestrane___runnerNotAvailable(ksUe, __func__); }
void KsHSS__runStep_FQ(MV_KsUE* ksUe, int) { Kestrane___runnerNotAvailable(ksUe, __func__); }
void KsSMF__runStep_FQ(MV_KsUE* ksUe) { Kestrane___runnerNotAvailable(ksUe, __func__); }
void Ks5GEIR__runStep_FQ(MV_KsUE* ksUe) { Kestrane___runnerNotAvailable(ksUe, __func__); }

// The next session of a PDU session step is asked for by the 5G session procedures,
// which are not part of this build: the step ends as a step without a runner does.
void KsNAS__send_pdusession_request_3gpp(void* ue) {
    auto* ksUe = static_cast<MV_KsUE*>(ue);
    __mv_core_queue_fsm2(__ksEngine->fsmNGAPProcessingQueue, uint32_t(ksUe->ueId % __ksEngine->fsmNGAPProcessingThreadCount),
                         ksUe, [](void* u) {
                             auto* k = static_cast<MV_KsUE*>(u);
                             if (KsScanario__CurrentStepEquals(k, KS_STEP__PDU_SESSION) == 1)
                                 Kestrane___runnerNotAvailable(k, "KsNAS__send_pdusession_request_3gpp");
                         });
}
