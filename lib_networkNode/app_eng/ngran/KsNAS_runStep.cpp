// The 5G UE's step runner: decides from the UE's state whether a step can start (an idle
// registered UE first asks for service), then starts it. The module registers the runner
// for its StepIndex ranges when it starts.
#include <cstdio>
#include <cstdlib>

#include "KsEngine_step.h"
#include "KsNAS.h"
#include "KsNAS_internal.h"
#include "KsNGAP.h"
#include "Kestrane_counters.h"

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

namespace {

const char* rmName(uint32_t v) {
    static constexpr const char* kNames[] = {"RM_STATUS__DEREGISTERED", "RM_STATUS__REGISTERED",
                                             "RM_STATUS__INPROGRESS", "RM_STATUS__REJECTED"};
    return v < 4 ? kNames[v] : "RM_STATUS__UNKNOWN";
}

const char* cmName(uint32_t v) { return v == CM_STATUS__CONNECTED ? "CM_STATUS__CONNECTED" : "CM_STATUS__IDLE"; }

void startSleep(MV_KsUE* ksUe, KsStep* st, int bearer) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "[StepExecution][%d] Sleep for supi=[%s] for KsStep=%p Time=%d <%s|%s|%d>",
             int(ksUe->ueId), KsUE__supi(ksUe), static_cast<void*>(st), int(st->SleepTime), __FILE_NAME__, __func__,
             __LINE__);
    if (bearer == KS_BEARER__3GPP && st->SleepTime == 0) {
        sleepComplete(ksUe);
    } else if (!__mv_core_start_timer(ksUe,
                                      bearer == KS_BEARER__3GPP ? KsNAS__on_tgpp_sleep_complete
                                                                : KsNAS__on_ntgpp_sleep_complete,
                                      int(st->SleepTime))) {
        // A zero sleep on the other access has no timer to wait for.
        sleepComplete(ksUe);
    }
}

}  // namespace

void KsNAS__runStep_FQ(MV_KsUE* ksUe, int bearer) {
    uint8_t b = uint8_t(bearer);
    MV_KsUECtx* c = KsNAS__getUECtx(ksUe, b);
    // A sleep needs no RAN: a scenario may wait before its UEs are attached.
    const KsStepExecution* cur = ksUe->ksStepExecution ? ksUe->ksStepExecution : ksUe->ksStepExecutionHead;
    bool sleeping = cur && cur->ksStep && cur->ksStep->StepCode == KS_STEP__SLEEP;
    if (!c->ranAmfConnection && !sleeping) {
        if (ksUe->_initT3PP == 0) {
            uint32_t status = 0;
            KsEngine__FindRANAndLatch(ksUe, KS_ACCESS__3GPP, &status, 0);
        }
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] UE Not Attached to RAN UE[MCC=%s MNC=%s] 3GPP=%d N3GPP=%d bearer=%d, Cannot Execute Command "
                 "<%s|%s|%d>",
                 KsUE__supi(ksUe), ksUe->mcc, ksUe->mnc, ksUe->TGPP.ranAmfConnection != nullptr,
                 ksUe->NTGPP.ranAmfConnection != nullptr, bearer, __FILE_NAME__, __func__, __LINE__);
        return;
    }
    if (ksUe->EndOfTest == 1) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "Testing already Ended EndOfTest[%d] <%s|%s|%d>",
                 int(ksUe->EndOfTest), __FILE_NAME__, __func__, __LINE__);
        return;
    }
    KsEngine__KsUE_ClearDefaultTimer(ksUe, __func__);
    MV_KsUECtx* g = &ksUe->TGPP;
    g->NASErrorMessage = g->NASErrorCause = g->NGAPErrorMessage = g->NGAPErrorCauseType = g->NGAPErrorCause = 0;
    ksUe->AppError = 0;
    if (!ksUe->ksStepExecution) ksUe->ksStepExecution = ksUe->ksStepExecutionHead;
    KsStepExecution* e = ksUe->ksStepExecution;
    if (!e) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "Test Step Got NULL, halting test for this supi=[%s] <%s|%s|%d>",
                 KsUE__supi(ksUe), __FILE_NAME__, __func__, __LINE__);
        return;
    }
    KsStep* st = e->ksStep;
    if (!st) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "ksStep is NULL, coding issue %s|%s|%d", __FILE_NAME__, __func__,
                 __LINE__);
        abort();
    }
    uint32_t code = st->StepCode;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG,
             "[StepExecution][%d][%s] StepCode[%u|%s] RMStatus[%s] CMStatus[%s] ksStep=%p ksStepExecution=%p "
             "ksScanario=%p <%s|%s|%d>",
             int(ksUe->ueId), KsUE__supi(ksUe), code, "", rmName(c->RMStatus), cmName(c->CMStatus),
             static_cast<void*>(st), static_cast<void*>(e), static_cast<void*>(ksUe->ksScanario), __FILE_NAME__,
             __func__, __LINE__);
    if (code > KS_STEP__DEREGISTRATION && !c->ranUeContext && c->CMStatus == CM_STATUS__IDLE &&
        c->RMStatus == RM_STATUS__REGISTERED) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                 "[StepExecution][%d][%s] Sending Service Request as per CMState StepCode[%u] RMStatus[%s] "
                 "CMStatus[%s]  <%s|%s|%d>",
                 int(ksUe->ueId), KsUE__supi(ksUe), code, rmName(c->RMStatus), cmName(c->CMStatus), __FILE_NAME__,
                 __func__, __LINE__);
        KsNAS__send_service_request(ksUe, b);
        return;
    }
    if (c->RMStatus == RM_STATUS__INPROGRESS) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                 "[StepExecution][%d] Ignoring Step for supi=[%s] as RM_STATUS__INPROGRESS <%s|%s|%d>", int(ksUe->ueId),
                 KsUE__supi(ksUe), __FILE_NAME__, __func__, __LINE__);
        return;
    }
    ksUe->StepCode = code;
    switch (code) {
        case KS_STEP__REGISTRATION:
        case KS_STEP__REGISTRATION_WITH_GUTI:
            return KsNAS__send_registration_request(ksUe, b, 0);
        case KS_STEP__REGISTRATION_WITH_PEI:
            return KsNAS__send_registration_request(ksUe, b, 1);
        case KS_STEP__SLEEP:
            return startSleep(ksUe, st, bearer);
        case KS_STEP__SERVICE_REQUEST:
            return KsNAS__send_service_request(ksUe, b);
        case KS_STEP__DEREGISTRATION:
            return KsNAS__send_deregistration_request(ksUe, b);
        case KS_STEP__PDU_SESSION:
            return KsNAS__send_pdusession_request(ksUe, b);
        case KS_STEP__UE_CONTEXT_RELEASE_REQUEST:
            // Ends when the AMF's release command arrives, or by the step timer.
            KsNGAP___send_UEContextReleaseRequest(ksUe, c->ranUeContext, b);
            KsEngine__KsUE_SetTimerActionRetry(ksUe, 1, KS_STEP__UE_CONTEXT_RELEASE_REQUEST);
            return;
        case KS_STEP__CLEAR_GUTI:
            c->security_context_available = 0;
            ksUe->fgGuti.isset = 0;
            ksUe->fgGuti.len = 0;
            KS_COMPLETE_STEP(ksUe, code);
            return;
        case KS_STEP__RELEASE_UE_LOGICAL_CONNECTION:
            ksnas::releaseRan(ksUe, b);
            KS_COMPLETE_STEP(ksUe, code);
            return;
        default:
            // Handovers and the data plane join with their modules.
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s][%u] Unhandled StepId[%d]  StepCode=[%d] %s|%s|%d",
                     KsUE__supi(ksUe), unsigned(ksUe->ueId), int(st->StepIndex), int(code), __FILE_NAME__, __func__,
                     __LINE__);
            Kestrane___runnerNotAvailable(ksUe, "KsNAS__runStep_FQ");
    }
}

// ---------------------------------------------------------------- time-outs and start

void KsNAS__stepTGPPTimeOut(void* execution) {
    auto* e = static_cast<KsStepExecution*>(execution);
    MV_KsUE* ue = e ? e->ksUe : nullptr;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "TGPPTimeOut [%p][%p] Executed[%d] ksUe[%p] <%s|%s|%d>", execution,
             e ? static_cast<void*>(e->ksStep) : nullptr, e ? int(e->Executed) : 0, static_cast<void*>(ue),
             __FILE_NAME__, __func__, __LINE__);
    if (!e || e->Executed != 0 || !ue) return;
    KsEngine__TimeOut();
    KS_COMPLETE_STEP(ue, 0);
}

void KsNAS__stepNTGPPTimeOut(void* execution) {
    auto* e = static_cast<KsStepExecution*>(execution);
    MV_KsUE* ue = e ? e->ksUe : nullptr;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "NTGPPTimeOut [%p][%p][%d][%p] <%s|%s|%d>", execution,
             e ? static_cast<void*>(e->ksStep) : nullptr, e ? int(e->Executed) : 0, static_cast<void*>(ue),
             __FILE_NAME__, __func__, __LINE__);
    if (!e || e->Executed != 0 || !ue) return;
    ue->TimeOut = 1;
    KsEngine__TimeOut();
    KS_COMPLETE_STEP(ue, 0);
}

void __KsNAS__Connect(MV_KsUE* ksUe, uint8_t) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "Starting Execution for SUPI=[%s] PEI=[%s] TotalSteps=[%d] %s|%s|%d",
             KsUE__supi(ksUe), reinterpret_cast<const char*>(ksUe->imeisv.val), int(ksUe->TotalKsSteps), __FILE_NAME__,
             __func__, __LINE__);
    Kestrane___runStepAsync(ksUe, 1);
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

// The next session of a PDU session step, from a timer: asked for on the UE's line.
void KsNAS__send_pdusession_request_3gpp(void* ue) {
    KsEngine__PostToUELine(static_cast<MV_KsUE*>(ue), [](void* u) {
        auto* k = static_cast<MV_KsUE*>(u);
        if (KsScanario__CurrentStepEquals(k, KS_STEP__PDU_SESSION) == 1)
            KsNAS__send_pdusession_request(k, KS_BEARER__3GPP);
    });
}

// ---------------------------------------------------------------- start

void KsNAS__Init() {
    // Downlink NAS PDUs reach the UE through the gNB's registration.
    static constexpr KsNGAPNasEntry kEntry{KsNAS__processNasMessage, KsNAS__NGAPSendingMessageFailed};
    KsNGAP__RegisterNasEntry(&kEntry);
    KsEngine__RegisterRunner(0, 999, "KsNAS__runStep_FQ", runOn3gpp);
    KsEngine__RegisterRunner(12000, UINT32_MAX, "KsNAS__runStep_FQ", runOn3gpp);
}
