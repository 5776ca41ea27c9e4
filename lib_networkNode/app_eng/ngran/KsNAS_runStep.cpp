// The 5G UE's step runner. Only the sleep step stands here so far; the protocol
// steps join with the NAS procedures. The module registers the runner for its
// StepIndex ranges when it starts.
#include <cstdio>
#include <cstdlib>

#include "KsEngine_step.h"
#include "KsNAS.h"
#include "KsNGAP.h"

namespace {

void sleepComplete(MV_KsUE* ksUe) {
    if (KsScanario__CurrentStepEquals(ksUe, KS_STEP__SLEEP) != 1) return;
    if (ksUe->TGPP.ranUeContext) {
        // Completion then runs in order with the UE's protocol events.
        KsEngine__PostToUELine(ksUe, KsNAS__on_sleep_complete_handler);
        return;
    }
    KS_COMPLETE_STEP(ksUe, KS_STEP__SLEEP);
}

void pduNextStepOnLine(void* ue) {
    auto* ksUe = static_cast<MV_KsUE*>(ue);
    // The UE may have moved on (a timeout) while the timer ran: only step 6 is ours to end.
    if (KsScanario__CurrentStepEquals(ksUe, KS_STEP__PDU_SESSION) != 1) return;
    KS_COMPLETE_STEP(ksUe, KS_STEP__PDU_SESSION);
}

void runOn3gpp(MV_KsUE* ksUe) { KsNAS__runStep_FQ(ksUe, KS_BEARER__3GPP); }

}  // namespace

void KsNAS__on_sleep_complete_handler(void* ue) { KS_COMPLETE_STEP(static_cast<MV_KsUE*>(ue), KS_STEP__SLEEP); }

// Timer expiries arrive on a queue line; the UE's own line runs the completion.
void KsNAS__on_tgpp_sleep_complete(void* ue) {
    KsEngine__PostToUELine(static_cast<MV_KsUE*>(ue), [](void* u) { sleepComplete(static_cast<MV_KsUE*>(u)); });
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

// ---------------------------------------------------------------- PDU session steps

// Timer expiries arrive on a queue line; the UE's own line runs the completion.
void KsScanario__PduNextStep(void* ue) { KsEngine__PostToUELine(static_cast<MV_KsUE*>(ue), pduNextStepOnLine); }

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

// The next session of a PDU session step is asked for by the 5G session procedures,
// which are not part of this build: the step ends as a step without a runner does.
void KsNAS__send_pdusession_request_3gpp(void* ue) {
    KsEngine__PostToUELine(static_cast<MV_KsUE*>(ue), [](void* u) {
        auto* k = static_cast<MV_KsUE*>(u);
        if (KsScanario__CurrentStepEquals(k, KS_STEP__PDU_SESSION) == 1)
            Kestrane___runnerNotAvailable(k, "KsNAS__send_pdusession_request_3gpp");
    });
}

// ---------------------------------------------------------------- start

void KsNAS__Init() {
    // Downlink NAS PDUs reach the UE through the gNB's registration.
    static constexpr KsNGAPNasEntry kEntry{KsNAS__processNasMessage, nullptr};
    KsNGAP__RegisterNasEntry(&kEntry);
    KsEngine__RegisterRunner(0, 999, "KsNAS__runStep_FQ", runOn3gpp);
    KsEngine__RegisterRunner(12000, UINT32_MAX, "KsNAS__runStep_FQ", runOn3gpp);
}
