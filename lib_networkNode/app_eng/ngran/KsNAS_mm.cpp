// The UE's mobility management: registration, identity, authentication, the security mode
// command, deregistration both ways, service request, configuration update, and what a
// failed send does. Every handler runs on the UE's line; messages are built in local
// records and coding contexts.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "KsEngine_step.h"
#include "KsNAS.h"
#include "KsNAS_internal.h"
#include "KsNGAP.h"
#include "Kestrane_counters.h"
#include "mv_nas_util.h"

namespace {

void releaseViaGnb(MV_KsUE* ue, uint8_t bearer) { KsNGAP__ReleaseRanUeContext(ue, bearer); }

constexpr KsNASLower kGnb{KsNGAP___sendNasMessage, releaseViaGnb};
std::atomic<const KsNASLower*> gLower{&kGnb};

const char* supiOf(const MV_KsUE* ue) { return KsUE__supi(ue); }

void byteIe(__naspdu_ie_byte& ie, uint8_t v) {
    ie.Length = 1;
    ie.Value = v;
    ie.isset = 1;
}

// The message's type in a log line when the encoder refused it.
void logEncodeFailed(MV_KsUE* ue, const char* what) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s][%u] %s could not be encoded, not sent <%s|%s|%d>", supiOf(ue),
             unsigned(ue->ueId), what, __FILE_NAME__, __func__, __LINE__);
}

// Ignores a message while the step's count is above the execution's counter.
bool ignoreThis(MV_KsUE* ue, uint8_t count, uint8_t& counter, MV_Counter* n1, const char* reason) {
    if (count <= counter) return false;
    ++counter;
    ksnas::countN1(n1);
    KsEngine__KsUE_ReschduleTimer(ue, reason);
    return true;
}

void keepPayload(MV_KsUECtx* c, const __mv_asn_coding_context& ctx) {
    free(c->registrationReqPayload);
    c->registrationReqPayload = static_cast<uint8_t*>(malloc(ctx.pos));
    c->registrationReqPayloadLen = c->registrationReqPayload ? ctx.pos : 0;
    if (c->registrationReqPayload) memcpy(c->registrationReqPayload, ctx.buffer, ctx.pos);
}

void freePayload(MV_KsUECtx* c) {
    free(c->registrationReqPayload);
    c->registrationReqPayload = nullptr;
    c->registrationReqPayloadLen = 0;
}

// A 5G-GUTI IE of the network (type octet 0xF2 and ten octets) into the UE's record.
void takeGuti(MV_KsUE* ue, const __naspdu_fgs_mobile_identity& ie) {
    if (ie.isset != 1 || ie.Length < 11 || ie.data[0] != 0xF2) return;
    memcpy(ue->fgGuti.val, ie.data + 1, 10);
    ue->fgGuti.len = 10;
    ue->fgGuti.isset = 1;
}

void takeTimer(MV_KsNasTimer& t, const __naspdu_ie_byte& ie) {
    if (ie.isset != 1) return;
    t.Value = ie.Value & 0x1F;
    t.Unit = uint8_t(ie.Value >> 5);
    t.isset = 1;
}

KsStepExecution* currentExecution(MV_KsUE* ue) {
    KsStepExecution* e = ue->ksStepExecution;
    return e && e->ksStep ? e : nullptr;
}

}  // namespace

// ---------------------------------------------------------------- shared with the session side

namespace ksnas {

void countN1(MV_Counter* c) {
    if (c) __mv_counter_increment_request(c);
}

void countTest(MV_KsUE* ue, MV_Counter KsTestExec::*field) {
    if (KsTestExec* t = ue->testExec) {
        ++(t->*field).Request;
        ++(t->*field).Total;
    }
}

int send(MV_KsUE* ue, __mv_asn_coding_context& ctx, uint8_t bearer, bool protect, uint32_t type, uint32_t child,
         uint32_t category, uint8_t initial) {
    if (protect && KsNAS__encapulate_security_header(ue, &ctx, bearer) < 0) {
        KsNAS__NGAPSendingMessageFailed(ue);
        return -1;
    }
    const KsNASLower* l = gLower.load();
    return l->SendNas(ue, ctx.buffer, ctx.pos, bearer, type, child, category, initial);
}

void releaseRan(MV_KsUE* ue, uint8_t bearer) { gLower.load()->ReleaseRanUeContext(ue, bearer); }

}  // namespace ksnas

void KsNAS__SetLower(const KsNASLower* lower) { gLower.store(lower ? lower : &kGnb); }

#define N1(field) (__ksEngine ? __ksEngine->field : nullptr)

// ---------------------------------------------------------------- registration

void KsNAS__send_registration_request(MV_KsUE* ue, uint8_t bearer, int emergency) {
    KsStepExecution* e = currentExecution(ue);
    if (!e) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "ksStepExecution->ksStep is NULL for supi=%s %s|%s|%d",
                 supiOf(ue), __FILE_NAME__, __func__, __LINE__);
        return;
    }
    KsStep* st = e->ksStep;
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    NASPduFGMM_RegistrationRequest r;
    memset(static_cast<void*>(&r), 0, sizeof r);
    uint8_t ngksi = st->NgKSI ? uint8_t(st->NgKSI) : c->ngKSI;
    uint8_t foR = uint8_t(st->FoR & 1);
    if (ue->bFOR) {
        foR = 1;
        ue->bFOR = 0;
    }
    if (st->StepCode == KS_STEP__REGISTRATION_WITH_PEI) emergency = 1;
    uint8_t type = uint8_t(st->RegistrationType & 0x07);
    if (st->StepCode == KS_STEP__REGISTRATION_WITH_GUTI) type = 1;
    if (emergency) type = 4;
    r.b1 = uint8_t((ngksi & 0x07) << 4 | foR << 3 | type);
    int idOk;
    if (emergency)
        idOk = __mv_nas_util_encode_fg_imei(&r.mFGSMobileIdentity, reinterpret_cast<const char*>(ue->imei.val),
                                            int(strnlen(reinterpret_cast<const char*>(ue->imei.val), 20)));
    else if (ue->fgGuti.isset == 1)
        idOk = __mv_nas_util_encode_fg_guti(&r.mFGSMobileIdentity, ue->fgGuti.val, 10);
    else
        idOk = KsNAS__set_suci_identity(ue, bearer, st, &r.mFGSMobileIdentity);
    if (!emergency && ue->fgGuti.isset != 1 && c->security_context_available == 1) {
        // A context from a registration that never got its accept: no 5G-GUTI names it, so an
        // AMF cannot find it for a protected request with a SUCI and refuses the message. The
        // request goes in clear and a fresh authentication follows.
        c->security_context_available = 0;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                 "[%s] no 5G-GUTI for the security context of an unfinished registration, request sent in clear "
                 "%s|%s|%d",
                 supiOf(ue), __FILE_NAME__, __func__, __LINE__);
    }
    if (idOk < 0) return logEncodeFailed(ue, "RegistrationRequest (mobile identity)");
    c->NASErrorMessage = c->NASErrorCause = 0;

    if (st->tac_isset == 1) {
        memcpy(ue->TAI_MCC, st->ul_sn_mcc, sizeof ue->TAI_MCC);
        memcpy(ue->TAI_MNC, st->ul_sn_mnc, sizeof ue->TAI_MNC);
        ue->TAI_TAC = st->tac;
    }
    r.mLastVisitedRegisteredTAI.Length = 6;
    if (ue->TAI_MCC[0] && ue->TAI_MNC[0]) KsEngine__get_plmnHex2(r.mLastVisitedRegisteredTAI.data, ue->TAI_MCC, ue->TAI_MNC);
    r.mLastVisitedRegisteredTAI.data[3] = uint8_t(ue->TAI_TAC >> 16);
    r.mLastVisitedRegisteredTAI.data[4] = uint8_t(ue->TAI_TAC >> 8);
    r.mLastVisitedRegisteredTAI.data[5] = uint8_t(ue->TAI_TAC);
    r.mLastVisitedRegisteredTAI.isset = 1;

    if (st->nas5G_regTemplate) ksnas::applyRegistrationTemplate(st, st->nas5G_regTemplate, r);
    else ksnas::registrationDefaults(st, r, ksnas::kRegDefaultAll);

    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    if (__mv_naspdu_fgmm_encodeRegistrationRequest(&r, &ctx) != 0 || ctx.iError != 0)
        return logEncodeFailed(ue, "RegistrationRequest");
    keepPayload(c, ctx);
    if (c->security_context_available != 1) {
        // Without a security context the request goes in clear, and a standard AMF refuses
        // one that carries more than the cleartext elements (#95). The whole request is kept
        // above for the security mode complete's container, which the AMF then asks for.
        ksnas::keepCleartextOnly(r);
        __mv_asn_init_CodingContext(&ctx);
        if (__mv_naspdu_fgmm_encodeRegistrationRequest(&r, &ctx) != 0 || ctx.iError != 0)
            return logEncodeFailed(ue, "RegistrationRequest (cleartext elements)");
    }
    ksnas::countN1(N1(Sent_N1_Registration));
    ksnas::countTest(ue, &KsTestExec::RegistrationRequest);
    if (ksnas::send(ue, ctx, bearer, ue->PlainNasMessage == 0, 65, 0, 0, 1) < 1) return;
    KsEngine__KsUE_SetTimerActionRetry(ue, 1, KS_STEP__REGISTRATION);
}

void KsNAS__send_registration_request__for_3gpp(void* ue) {
    KsNAS__send_registration_request(static_cast<MV_KsUE*>(ue), KS_BEARER__3GPP, 0);
}

void KsNAS__handle__registration_accept(MV_KsUE* ue, __naspduDecode* d, uint8_t bearer, uint8_t ngapProcCode) {
    auto* a = static_cast<NASPduFGMM_RegistrationAccept*>(d->messageObj);
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    ue->RegistrationFailCounter = 0;
    ksnas::countN1(N1(Revd_N1_RegistrationAccept));
    ksnas::countTest(ue, &KsTestExec::RegistrationAccept);
    KsScanario__AddRecvEvent(ue, ngapProcCode, 66);
    if (KsStepExecution* e = currentExecution(ue)) {
        if (ue->bRegistrationAcceptOption) {
            e->ksStep->RegistrationAcceptIgnoreCount = uint8_t(ue->bRegistrationAcceptOption);
            ue->bRegistrationAcceptOption = 0;
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                     "%s  bRegistrationAcceptOption RegistrationAcceptIgnoreCount=%u %s|%s|%d", supiOf(ue),
                     e->ksStep->RegistrationAcceptIgnoreCount, __FILE_NAME__, __func__, __LINE__);
        }
        if (ignoreThis(ue, e->ksStep->RegistrationAcceptIgnoreCount, e->RegistrationAcceptIgnoreCounter,
                       N1(Ignr_N1_RegistrationAccept), "Registration Accept Ignore"))
            return;
    }
    freePayload(c);
    takeGuti(ue, a->mFGGUTI);
    takeTimer(c->T3512, a->mT3512Value);
    takeTimer(c->T3502, a->mT3502Value);
    c->RegistrationStatus = 1;
    NASPduFGMM_RegistrationComplete rc{};
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    if (__mv_naspdu_fgmm_encodeRegistrationComplete(&rc, &ctx) != 0) return logEncodeFailed(ue, "RegistrationComplete");
    if (ksnas::send(ue, ctx, bearer, true, 67, 0, 0, 0) < 1) return;
    c->RMStatus = RM_STATUS__REGISTERED;
    ksnas::countTest(ue, &KsTestExec::RegistrationComplete);
    KsEngine__IncrUERegistered();
    KS_COMPLETE_STEP(ue, KS_STEP__REGISTRATION);
}

void KsNAS__handle__registration_reject(MV_KsUE* ue, __naspduDecode* d, uint8_t bearer, uint8_t ngapProcCode) {
    auto* r = static_cast<NASPduFGMM_RegistrationReject*>(d->messageObj);
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    ue->RegistrationFailCounter = 0;
    if (r->mFGMMCause.isset == 1) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s][%u] Received Registration Reject With CauseValue=%u %s|%s|%d",
                 supiOf(ue), unsigned(ue->ueId), r->mFGMMCause.Value, __FILE_NAME__, __func__, __LINE__);
        c->NASErrorCause = r->mFGMMCause.Value;
    } else {
        c->NASErrorCause = 10000;
    }
    c->RMStatus = RM_STATUS__DEREGISTERED;
    c->NASErrorMessage = uint32_t(d->MessageType);
    freePayload(c);  // no security mode command will ask for it now
    ksnas::releaseRan(ue, bearer);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s][%u] Stop Testing, received registration reject %s|%s|%d",
             supiOf(ue), unsigned(ue->ueId), __FILE_NAME__, __func__, __LINE__);
    if (KsStepChild* ev = KsScanario__AddRecvEvent(ue, ngapProcCode, 68)) ev->NasCause = c->NASErrorCause;
    KsEngine__IncrUERegistrationRejected();
    ksnas::countN1(N1(Revd_N1_RegistrationReject));
    ksnas::countTest(ue, &KsTestExec::RegistrationReject);
    KS_COMPLETE_STEP(ue, KS_STEP__REGISTRATION);
}

// ---------------------------------------------------------------- identity and authentication

void KsNAS__handle__identity_request(MV_KsUE* ue, __naspduDecode* d, uint8_t bearer, uint8_t ngapProcCode,
                                     uint8_t outerSht) {
    auto* q = static_cast<NASPduFGMM_IdentityRequest*>(d->messageObj);
    ksnas::countN1(N1(Revd_N1_IdentityRequest));
    ksnas::countTest(ue, &KsTestExec::IdentityRequest);
    KsScanario__AddRecvEvent(ue, ngapProcCode, 91);
    KsStepExecution* e = currentExecution(ue);
    if (e && ignoreThis(ue, e->ksStep->IdentityRequestIgnoreCount, e->IdentityRequestIgnoreCounter,
                        N1(Ignr_N1_IdentityRequest), "Identity Request Ignore"))
        return;
    uint8_t type = q->b1 & 0x07;
    NASPduFGMM_IdentityResponse r;
    memset(static_cast<void*>(&r), 0, sizeof r);
    const char* imei = reinterpret_cast<const char*>(ue->imei.val);
    const char* imeisv = reinterpret_cast<const char*>(ue->imeisv.val);
    if (type == 1) {
        if (KsNAS__set_suci_identity(ue, bearer, e ? e->ksStep : nullptr, &r.mFGSMobileIdentity) < 0)
            return logEncodeFailed(ue, "IdentityResponse (SUCI)");
    } else if (type == 3 && imei[0]) {
        (void)__mv_nas_util_encode_fg_imei(&r.mFGSMobileIdentity, imei, int(strnlen(imei, 20)));
    } else if (type == 5 && imeisv[0]) {
        (void)__mv_nas_util_encode_fg_imeisv(&r.mFGSMobileIdentity, imeisv, int(strnlen(imeisv, 20)));
    } else {
        // No identity of that type: an empty one ("no identity", type 0).
        r.mFGSMobileIdentity.Length = 1;
        r.mFGSMobileIdentity.data[0] = 0;
        r.mFGSMobileIdentity.isset = 1;
    }
    ksnas::countN1(N1(Sent_N1_IdentityResponse));
    ksnas::countTest(ue, &KsTestExec::IdentityResponse);
    if (type != 1 && outerSht == 0) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] Cannot Sent MobileIdentity=%d in Plain Message <%s|%s|%d>",
                 supiOf(ue), type, __FILE_NAME__, __func__, __LINE__);
        return;
    }
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    if (__mv_naspdu_fgmm_encodeIdentityResponse(&r, &ctx) != 0) return logEncodeFailed(ue, "IdentityResponse");
    (void)ksnas::send(ue, ctx, bearer, outerSht != 0, 92, 0, 0, 0);
}

void KsNAS__handle__authentication_request(MV_KsUE* ue, __naspduDecode* d, uint8_t bearer, uint8_t ngapProcCode,
                                           uint8_t outerSht) {
    auto* a = static_cast<NASPduFGMM_AuthenticationRequest*>(d->messageObj);
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    ksnas::countN1(N1(Revd_N1_AuthenticationRequest));
    ksnas::countTest(ue, &KsTestExec::AuthenticationRequest);
    KsScanario__AddRecvEvent(ue, ngapProcCode, 86);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s][%u] Received Authentication Request <%s|%s|%d>", supiOf(ue),
             unsigned(ue->ueId), __FILE_NAME__, __func__, __LINE__);
    KsStepExecution* e = currentExecution(ue);
    if (e && ue->bAuthOptions) {
        KsStep* st = e->ksStep;
        uint16_t o = ue->bAuthOptions;
        if (o >= 1 && o <= 3) {
            st->SyncFailure = 1;
            st->SyncFailureMaxCount = o;
        } else if (o >= 4 && o <= 8) {
            st->AuthenticationRequestIgnoreCount = uint8_t(o - 3);
        } else if (o == 9 || o == 10) {
            st->AuthenticationRequestIgnoreCount = uint8_t(o - 2);
        }
        e->AuthenticationRequestIgnoreCounter = 0;
        ue->bAuthOptions = 0;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                 "%s  AuthOptions SyncFailure=%u MaxFailCount=%u AuthenticationRequestIgnoreCount=%u %s|%s|%d",
                 supiOf(ue), st->SyncFailure, st->SyncFailureMaxCount, st->AuthenticationRequestIgnoreCount,
                 __FILE_NAME__, __func__, __LINE__);
    }
    if (e && ignoreThis(ue, e->ksStep->AuthenticationRequestIgnoreCount, e->AuthenticationRequestIgnoreCounter,
                        N1(Ignr_N1_AuthenticationRequest), "authentication request ignore"))
        return;
    if (a->mRAND.isset != 1 || a->mAUTN.isset != 1) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s][%u] Authentication Request without RAND or AUTN, dropped <%s|%s|%d>", supiOf(ue),
                 unsigned(ue->ueId), __FILE_NAME__, __func__, __LINE__);
        return;
    }
    memcpy(c->rand, a->mRAND.data, 16);
    memcpy(c->autn, a->mAUTN.data, 16);

    NASPduFGMM_AuthenticationFailure f{};
    NASPduFGMM_AuthenticationResponse ok{};
    bool failed = true;
    if (e && e->ksStep->MACFailure == 1) {
        byteIe(f.mFGMMCause, KS_5GMM_CAUSE_MAC_FAILURE);
        memcpy(f.mAuthenticationFailureParameter.data, c->auts, 14);
        f.mAuthenticationFailureParameter.Length = 14;
        f.mAuthenticationFailureParameter.isset = 1;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s][%u] Sending MAC Failure (Step) <%s|%s|%d>", supiOf(ue),
                 unsigned(ue->ueId), __FILE_NAME__, __func__, __LINE__);
    } else {
        int force = 0;
        if (e && e->ksStep->SyncFailure == 1 && e->SyncFailureCounter < e->ksStep->SyncFailureMaxCount) {
            ++e->SyncFailureCounter;
            force = 1;
        }
        int st = KsNAS__authenticate(ue, bearer, uint8_t(a->b1 & 0x0F), force);
        if (st != 0) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s][%u] Authentication Failed with Status=%d <%s|%s|%d>",
                     supiOf(ue), unsigned(ue->ueId), st, __FILE_NAME__, __func__, __LINE__);
            uint8_t cause = KsNAS__authentication_failure_cause(st);
            byteIe(f.mFGMMCause, cause);
            if (cause == KS_5GMM_CAUSE_SYNCH_FAILURE) {
                memcpy(f.mAuthenticationFailureParameter.data, c->auts, 14);
                f.mAuthenticationFailureParameter.Length = 14;
                f.mAuthenticationFailureParameter.isset = 1;
            }
        } else {
            failed = false;
            memcpy(ok.mAuthenticationResponseParameter.data, c->xres_star, 16);
            ok.mAuthenticationResponseParameter.Length = 16;
            ok.mAuthenticationResponseParameter.isset = 1;
        }
    }
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    int rc = failed ? __mv_naspdu_fgmm_encodeAuthenticationFailure(&f, &ctx)
                    : __mv_naspdu_fgmm_encodeAuthenticationResponse(&ok, &ctx);
    if (rc != 0) return logEncodeFailed(ue, "AuthenticationResponse");
    ksnas::countN1(N1(Sent_N1_AuthenticationResponse));
    ksnas::countTest(ue, failed ? &KsTestExec::AuthenticationFailure : &KsTestExec::AuthenticationResult);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] Sending Authentication Response <%s|%s|%d>", supiOf(ue),
             __FILE_NAME__, __func__, __LINE__);
    (void)ksnas::send(ue, ctx, bearer, outerSht != 0 && ue->PlainNasMessage == 0, failed ? 89 : 87, 0, 0, 0);
}

void KsNAS__handle__authentication_reject(MV_KsUE* ue, __naspduDecode* d, uint8_t bearer, uint8_t ngapProcCode) {
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    c->NASErrorMessage = uint32_t(d->MessageType);
    freePayload(c);
    ksnas::countN1(N1(Revd_N1_AuthenticationReject));
    ksnas::countTest(ue, &KsTestExec::AuthenticationReject);
    KsScanario__AddRecvEvent(ue, ngapProcCode, 88);
    KS_COMPLETE_STEP(ue, KS_STEP__REGISTRATION);
}

// ---------------------------------------------------------------- security mode

void KsNAS__handle__security_mode_command_request(MV_KsUE* ue, __naspduDecode* d, uint8_t bearer, uint8_t ngapProcCode) {
    auto* s = static_cast<NASPduFGMM_SecurityModeCommand*>(d->messageObj);
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    ksnas::countN1(N1(Revd_N1_SecurityModeCommand));
    ksnas::countTest(ue, &KsTestExec::SecurityModeCommand);
    KsScanario__AddRecvEvent(ue, ngapProcCode, 93);
    KsStepExecution* e = currentExecution(ue);
    if (e) {
        if (ue->bSecurityModeCommandOption) {
            e->ksStep->SecurityModeCommandIgnoreCount = uint8_t(ue->bSecurityModeCommandOption);
            e->SecurityModeCommandIgnoreCounter = 0;
            ue->bSecurityModeCommandOption = 0;
        }
        if (e->ksStep->SecurityModeCommandIgnoreCount > e->SecurityModeCommandIgnoreCounter) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                     "%s  Ignoring SecurityModeCommand  IgnoreCounter=%u SecurityModeCommandIgnoreCounter=%u %s|%s|%d",
                     supiOf(ue), e->ksStep->SecurityModeCommandIgnoreCount, e->SecurityModeCommandIgnoreCounter,
                     __FILE_NAME__, __func__, __LINE__);
            (void)ignoreThis(ue, e->ksStep->SecurityModeCommandIgnoreCount, e->SecurityModeCommandIgnoreCounter,
                             N1(Ignr_N1_SecurityModeCommand), "SecurityModeCommand Ignore");
            return;
        }
    }
    ue->PlainNasMessage = 0;
    ue->Exclude5GSTMSI = 0;
    bool reject = e && e->ksStep->SecurityModeReject == 1;
    uint8_t ngksi = s->mNgKSI & 0x07;
    if (!reject && ngksi != c->ngKSI) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s][%u] ngKSI mismatch ue-ngksi=%u != network-ngksi=%u <%s|%s|%d>", supiOf(ue), unsigned(ue->ueId),
                 c->ngKSI, ngksi, __FILE_NAME__, __func__, __LINE__);
        reject = true;
    }
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    uint32_t type = 94, child = 0;
    if (reject) {
        NASPduFGMM_SecurityModeReject r{};
        byteIe(r.mFGMMCause, 24);
        type = 95;
        if (__mv_naspdu_fgmm_encodeSecurityModeReject(&r, &ctx) != 0) return logEncodeFailed(ue, "SecurityModeReject");
    } else {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s][%u] SecurityModeCommand int_algo=%u cip_algo=%u <%s|%s|%d>",
                 supiOf(ue), unsigned(ue->ueId), c->selected_integrity_algo, c->selected_ciphering_algo, __FILE_NAME__,
                 __func__, __LINE__);
        NASPduFGMM_SecurityModeComplete sc;
        memset(static_cast<void*>(&sc), 0, sizeof sc);
        const char* imeisv = reinterpret_cast<const char*>(ue->imeisv.val);
        if (s->mIMEISVRequest.isset == 1 && (s->mIMEISVRequest.Value & 0x07) == 1 && imeisv[0])
            (void)__mv_nas_util_encode_fg_imeisv(&sc.mIMEISV, imeisv, int(strnlen(imeisv, 20)));
        if (s->mAdditional5GSecurityInformation.isset == 1 && (s->mAdditional5GSecurityInformation.Value & 0x02) &&
            c->registrationReqPayload && c->registrationReqPayloadLen <= sizeof sc.mNASMessageContainer.data) {
            memcpy(sc.mNASMessageContainer.data, c->registrationReqPayload, c->registrationReqPayloadLen);
            sc.mNASMessageContainer.Length = uint16_t(c->registrationReqPayloadLen);
            sc.mNASMessageContainer.isset = 1;
            child = 65;
        }
        if (__mv_naspdu_fgmm_encodeSecurityModeComplete(&sc, &ctx) != 0)
            return logEncodeFailed(ue, "SecurityModeComplete");
    }
    ksnas::countN1(N1(Sent_N1_SecurityModeComplete));
    ksnas::countTest(ue, reject ? &KsTestExec::SecurityModeReject : &KsTestExec::SecurityModeComplete);
    (void)ksnas::send(ue, ctx, bearer, true, type, child, 0, 0);
}

// ---------------------------------------------------------------- deregistration

void KsNAS__stepDeRegistrationSwitchOff(void* ue) {
    KsEngine__PostToUELine(static_cast<MV_KsUE*>(ue), [](void* u) {
        auto* k = static_cast<MV_KsUE*>(u);
        // A late accept may have ended the step already.
        if (KsScanario__CurrentStepEquals(k, KS_STEP__DEREGISTRATION) == 1) KS_COMPLETE_STEP(k, KS_STEP__DEREGISTRATION);
    });
}

void KsNAS__send_deregistration_request(MV_KsUE* ue, uint8_t bearer) {
    KsStepExecution* e = currentExecution(ue);
    if (!e) return;
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    bool switchOff = (e->ksStep->Cause & 1) != 0;
    NASPduFGMM_DeregistrationRequestUEI r;
    memset(static_cast<void*>(&r), 0, sizeof r);
    r.b1 = uint8_t((switchOff ? 0x08 : 0) | (bearer & 0x03));
    if (switchOff) c->RMStatus = RM_STATUS__DEREGISTERED;
    int idOk = ue->fgGuti.isset == 1 ? __mv_nas_util_encode_fg_guti(&r.mFGSMobileIdentity, ue->fgGuti.val, 10)
                                     : KsNAS__set_suci_identity(ue, bearer, e->ksStep, &r.mFGSMobileIdentity);
    if (idOk < 0) return logEncodeFailed(ue, "DeregistrationRequest (mobile identity)");
    for (MV_KsUEPduSession& s : ue->pduSessions) s.PduAddress_SessionType = 0;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] sending deregistration request, released all pdu sessions %s|%s|%d",
             supiOf(ue), __FILE_NAME__, __func__, __LINE__);
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    if (__mv_naspdu_fgmm_encodeDeregistrationRequestUEI(&r, &ctx) != 0)
        return logEncodeFailed(ue, "DeregistrationRequest");
    ksnas::countN1(N1(Sent_N1_DeRegistration));
    ksnas::countTest(ue, &KsTestExec::DeregistrationRequest);
    if (!switchOff) keepPayload(c, ctx);
    uint8_t initial = c->ranUeContext ? 0 : 1;
    if (ksnas::send(ue, ctx, bearer, true, 69, 0, 0, initial) < 1) return;
    KsEngine__KsUE_SetTimerActionRetry(ue, 1, KS_STEP__DEREGISTRATION);
    if (switchOff && !__mv_core_start_timer(ue, KsNAS__stepDeRegistrationSwitchOff, 2))
        KS_COMPLETE_STEP(ue, KS_STEP__DEREGISTRATION);
}

void KsNAS__handle__deregistration_accept(MV_KsUE* ue, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode) {
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    KsScanario__AddRecvEvent(ue, ngapProcCode, 70);
    freePayload(c);
    c->RMStatus = RM_STATUS__DEREGISTERED;
    ksnas::countN1(N1(Revd_N1_DeRegistrationAccept));
    ksnas::countTest(ue, &KsTestExec::DeregistrationAccept);
    // After a switch-off the step may be over already: a late accept ends nothing.
    if (KsScanario__CurrentStepEquals(ue, KS_STEP__DEREGISTRATION) == 1) KS_COMPLETE_STEP(ue, KS_STEP__DEREGISTRATION);
}

void KsNAS__handle__deregistration_request(MV_KsUE* ue, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode) {
    KsScanario__AddRecvEvent(ue, ngapProcCode, 71);
    NASPduFGMM_DeregistrationAcceptUET a{};
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    if (__mv_naspdu_fgmm_encodeDeregistrationAcceptUET(&a, &ctx) != 0) return logEncodeFailed(ue, "DeregistrationAccept");
    KsNAS__getUECtx(ue, bearer)->RMStatus = RM_STATUS__DEREGISTERED;
    for (MV_KsUEPduSession& s : ue->pduSessions) s.PduAddress_SessionType = 0;
    if (ksnas::send(ue, ctx, bearer, true, 0, 0, 0, 0) < 1) return;
    if (ue->ksStepExecution) KS_COMPLETE_STEP(ue, KS_STEP_CODE_FROM_UE);
}

// ---------------------------------------------------------------- service request

void KsNAS__send_service_request(MV_KsUE* ue, uint8_t bearer) {
    KsStepExecution* e = currentExecution(ue);
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    uint8_t serviceType = e ? uint8_t(e->ksStep->ServiceType & 0x0F) : 0;
    if (ue->fgGuti.isset != 1) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] service request without a 5G-GUTI, not sent %s|%s|%d",
                 supiOf(ue), __FILE_NAME__, __func__, __LINE__);
        return;
    }
    NASPduFGMM_ServiceRequest r;
    memset(static_cast<void*>(&r), 0, sizeof r);
    r.b1 = uint8_t(serviceType << 4 | (c->ngKSI & 0x07));
    (void)__mv_nas_util_encode_fg_s_tmsi(&r.mFGSTMSI, ue->fgGuti.val + 4, 6);
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    if (__mv_naspdu_fgmm_encodeServiceRequest(&r, &ctx) != 0) return logEncodeFailed(ue, "ServiceRequest");
    keepPayload(c, ctx);
    ksnas::countN1(N1(Sent_N1_SendServiceRequest));
    ksnas::countTest(ue, &KsTestExec::ServiceRequest);
    if (ksnas::send(ue, ctx, bearer, true, 76, serviceType, 1, 1) < 1) return;
    KsEngine__KsUE_SetTimerActionRetry(ue, 1, KS_STEP__SERVICE_REQUEST);
}

void KsNAS__send_service_request_for_3gpp(void* ue) {
    KsNAS__send_service_request(static_cast<MV_KsUE*>(ue), KS_BEARER__3GPP);
}

void KsNAS__handle__service_accept(MV_KsUE* ue, __naspduDecode*, uint8_t bearer, uint8_t ngapProcCode) {
    KsScanario__AddRecvEvent(ue, ngapProcCode, 78);
    ksnas::countN1(N1(Revd_N1_ServiceAccept));
    ksnas::countTest(ue, &KsTestExec::ServiceAccept);
    freePayload(KsNAS__getUECtx(ue, bearer));
    if (KsScanario__CurrentStepEquals(ue, KS_STEP__SERVICE_REQUEST) != 1) {
        // The request was sent to reach connected mode for another step: run that one now.
        KsEngine__KsUE_ClearDefaultTimer(ue, __func__);
        if (ue->ksStepExecution) KsNAS__runStep_FQ(ue, KS_BEARER__3GPP);
        return;
    }
    KS_COMPLETE_STEP(ue, KS_STEP__SERVICE_REQUEST);
}

void KsNAS__handle__service_reject(MV_KsUE* ue, __naspduDecode* d, uint8_t bearer, uint8_t ngapProcCode) {
    auto* r = static_cast<NASPduFGMM_ServiceReject*>(d->messageObj);
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    c->NASErrorMessage = uint32_t(d->MessageType);
    c->NASErrorCause = r->mFGMMCause.Value;
    if (KsStepChild* ev = KsScanario__AddRecvEvent(ue, ngapProcCode, 77)) ev->NasCause = r->mFGMMCause.Value;
    ksnas::countN1(N1(Revd_N1_ServiceReject));
    ksnas::countTest(ue, &KsTestExec::ServiceReject);
    if (ue->ksStepExecution) KS_COMPLETE_STEP(ue, KS_STEP__SERVICE_REQUEST);
}

// ---------------------------------------------------------------- configuration update and status

void KsNAS__handle__configuration_update_command(MV_KsUE* ue, __naspduDecode* d, uint8_t bearer, uint8_t ngapProcCode) {
    auto* m = static_cast<NASPduFGMM_ConfigurationUpdateCommand*>(d->messageObj);
    ksnas::countN1(N1(Revd_N1_ConfigurationUpdateCommand));
    ksnas::countTest(ue, &KsTestExec::ConfigurationUpdateCommand);
    KsScanario__AddRecvEvent(ue, ngapProcCode, 84);
    takeGuti(ue, m->mFGGUTI);
    NASPduFGMM_ConfigurationUpdateComplete r{};
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    if (__mv_naspdu_fgmm_encodeConfigurationUpdateComplete(&r, &ctx) != 0)
        return logEncodeFailed(ue, "ConfigurationUpdateComplete");
    ksnas::countN1(N1(Sent_N1_ConfigurationUpdateCommpete));
    ksnas::countTest(ue, &KsTestExec::ConfigurationUpdateComplete);
    (void)ksnas::send(ue, ctx, bearer, true, 85, 0, 0, 0);
}

void KsNAS__handle__5GMM_cause(MV_KsUE* ue, __naspduDecode* d, uint8_t bearer, uint8_t) {
    auto* m = static_cast<NASPduFGMM_5GMMStatus*>(d->messageObj);
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] Received 5GMM Cause with Value=%u %s|%s|%d", supiOf(ue),
             m->mFGMMCause.Value, __FILE_NAME__, __func__, __LINE__);
    c->NASErrorMessage = uint32_t(d->MessageType);
    c->NASErrorCause = m->mFGMMCause.Value;
    freePayload(c);  // the step ends here: a later one sends its own
    if (ue->ksStepExecution) KS_COMPLETE_STEP(ue, KS_STEP_CODE_FROM_UE);
}

// ---------------------------------------------------------------- a send that failed

void KsNAS__NGAPSendingMessageFailed(MV_KsUE* ue) {
    if (!ue) return;
    ue->AppError = 2;
    ksnas::countTest(ue, &KsTestExec::NGAPSendFailed);
    uint32_t code = ue->StepCode;
    if (code == 1 || (code >= 3 && code <= 14))
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] NGAP-Sending Failed StepCode=%d %s|%s|%d", supiOf(ue),
                 int(code), __FILE_NAME__, __func__, __LINE__);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] NGAP-Sending Failed %s|%s|%d", supiOf(ue), __FILE_NAME__,
             __func__, __LINE__);
    ksnas::releaseRan(ue, KS_BEARER__3GPP);
    freePayload(&ue->TGPP);
    KsEngine__KsUE_ClearDefaultTimer(ue, __func__);
    if (!ue->testExec) ue->TestId = ue->CommandId = 0;
    Kestrane___execMarkAsComplete(ue);
}

// ---------------------------------------------------------------- dispatch

void KsNAS___dispatch5GMM(MV_KsUE* ue, __naspduDecode* d, uint8_t bearer, uint8_t ngapProcCode,
                          __ks_step_child* stepChild, uint8_t outerSht) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "[%s][%u] Processing MessageType=%u <%s|%s|%d>", supiOf(ue),
             unsigned(ue->ueId), unsigned(d->MessageType), __FILE_NAME__, __func__, __LINE__);
    switch (d->MessageType) {
        case 66: return KsNAS__handle__registration_accept(ue, d, bearer, ngapProcCode);
        case 68: return KsNAS__handle__registration_reject(ue, d, bearer, ngapProcCode);
        case 70: return KsNAS__handle__deregistration_accept(ue, d, bearer, ngapProcCode);
        case 71: return KsNAS__handle__deregistration_request(ue, d, bearer, ngapProcCode);
        case 77: return KsNAS__handle__service_reject(ue, d, bearer, ngapProcCode);
        case 78: return KsNAS__handle__service_accept(ue, d, bearer, ngapProcCode);
        case 84: return KsNAS__handle__configuration_update_command(ue, d, bearer, ngapProcCode);
        case 86: return KsNAS__handle__authentication_request(ue, d, bearer, ngapProcCode, outerSht);
        case 88: return KsNAS__handle__authentication_reject(ue, d, bearer, ngapProcCode);
        case 91: return KsNAS__handle__identity_request(ue, d, bearer, ngapProcCode, outerSht);
        case 93: return KsNAS__handle__security_mode_command_request(ue, d, bearer, ngapProcCode);
        case 100: return KsNAS__handle__5GMM_cause(ue, d, bearer, ngapProcCode);
        case 104: return KsNAS__handle__dl_nas_transport(ue, d, bearer, ngapProcCode, stepChild);
        default:
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "[%s][%u] DownlinkNASTransport with Unhandled MessageType=%u <%s|%s|%d>", supiOf(ue),
                     unsigned(ue->ueId), unsigned(d->MessageType), __FILE_NAME__, __func__, __LINE__);
            if (ue->ksStepExecution) KS_COMPLETE_STEP(ue, KS_STEP_CODE_FROM_UE);
    }
}
