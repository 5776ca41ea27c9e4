// The UE's session management: PDU session establishment, modification and release
// requests of a step's sessions, one at a time, and the network's 5GSM answers inside DL
// NAS transports, which leave the session's address for the data plane.
#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "KsEngine_step.h"
#include "KsNAS.h"
#include "KsNAS_internal.h"

namespace {

#define N1(field) (__ksEngine ? __ksEngine->field : nullptr)

const char* supiOf(const MV_KsUE* ue) { return KsUE__supi(ue); }

void byteIe(__naspdu_ie_byte& ie, uint8_t v) {
    ie.Length = 1;
    ie.Value = v;
    ie.isset = 1;
}

void halfIe(__naspdu_ie_half& ie, uint8_t v) {
    ie.Value = v;
    ie.isset = 1;
}

// A setting of the "AMF" member for session ids 1..5 from its first key; null when unset.
const char* sessionSetting(uint32_t firstKey, uint8_t psi) {
    if (psi < 1 || psi > 5) return nullptr;
    const char* v = KsNAS_GetSettingValue(firstKey + psi - 1);
    return v && v[0] ? v : nullptr;
}

uint8_t sessionNumber(uint32_t firstKey, uint8_t psi, uint8_t dflt) {
    const char* v = sessionSetting(firstKey, psi);
    return v ? uint8_t(strtoul(v, nullptr, 10)) : dflt;
}

// A DNN as labels: "internet.apn" -> 8 internet 3 apn. The length written, 0 when it does
// not fit.
uint8_t dnnLabels(const char* text, uint8_t* out, size_t cap) {
    size_t n = 0;
    const char* p = text;
    while (*p) {
        const char* dot = strchr(p, '.');
        size_t l = dot ? size_t(dot - p) : strlen(p);
        if (l == 0 || l > 63 || n + 1 + l > cap) return 0;
        out[n++] = uint8_t(l);
        memcpy(out + n, p, l);
        n += l;
        p += l + (dot ? 1 : 0);
    }
    return uint8_t(n);
}

__ks_pduSessionSetupInfo* pendingEntry(KsStepExecution* e, uint8_t psi) {
    for (__ks_pduSessionSetupInfo* p = e ? e->pduSessionSetupHead : nullptr; p; p = p->Next)
        if (p->Info && p->Info->PDUSessionId == psi && !p->SetupCompleted) return p;
    return nullptr;
}

// The session's entry of the UE's current PDU session step, if it is waiting for it.
__ks_pduSessionSetupInfo* askedFor(MV_KsUE* ue, uint8_t psi) {
    KsStepExecution* e = KsScanario__GetCurrentExecutingStep(ue, KS_STEP__PDU_SESSION);
    return pendingEntry(e, psi);
}

void completeSession(MV_KsUE* ue, uint8_t psi) {
    if (KsScanario__CurrentStepEquals(ue, KS_STEP__PDU_SESSION) == 1) KsScanario__UpdatePduSesssionStep(psi, ue);
}

template <class R>
bool encodeSm(int (*enc)(R*, __mv_asn_coding_context*), R& rec, uint8_t psi, uint8_t pti,
              __mv_asn_coding_context& ctx) {
    rec.pHeader.PDUSessionId = psi;
    rec.pHeader.ProcedureTransactionIdentity = pti;
    rec.pHeader.ProcedureTransactionIdentity_isset = 1;
    __mv_asn_init_CodingContext(&ctx);
    return enc(&rec, &ctx) == 0 && ctx.iError == 0 && ctx.pos > 0;
}

// Carries an encoded 5GSM message in a UL NAS transport and sends it.
int sendUlTransport(MV_KsUE* ue, uint8_t bearer, uint8_t psi, const __mv_asn_coding_context& sm, uint8_t smType,
                    int requestType, const char* dnn, const MV_Template* tpl = nullptr) {
    static thread_local NASPduFGMM_ULNASTransport t;
    memset(static_cast<void*>(&t), 0, sizeof t);
    t.b1 = 0x01;  // N1 SM information
    memcpy(t.mPayloadContainer.data, sm.buffer, sm.pos);
    t.mPayloadContainer.Length = sm.pos;
    t.mPayloadContainer.isset = 1;
    byteIe(t.mPDUSessionID, psi);
    if (requestType > 0) halfIe(t.mRequestType, uint8_t(requestType & 0x07));
    if (dnn && dnn[0]) {
        t.mDNN.Length = dnnLabels(dnn, t.mDNN.data, sizeof t.mDNN.data);
        t.mDNN.isset = t.mDNN.Length ? 1 : 0;
    }
    if (tpl) ksnas::applyUlTransportTemplate(tpl, t);
    __mv_asn_coding_context ctx;
    __mv_asn_init_CodingContext(&ctx);
    if (__mv_naspdu_fgmm_encodeULNASTransport(&t, &ctx) != 0 || ctx.iError != 0) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] ULNASTransport could not be encoded, not sent %s|%s|%d",
                 supiOf(ue), __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    return ksnas::send(ue, ctx, bearer, true, 103, smType, 2, 0);
}

void fillEstablishment(MV_KsUE*, const __ks_pduSessionInfo* info, NASPduFGSM_PDUSessionEstablishmentRequest& r) {
    r.mIntegrityProtectionMaximumDataRate.data[0] = r.mIntegrityProtectionMaximumDataRate.data[1] = 0xFF;
    r.mIntegrityProtectionMaximumDataRate.Length = 2;
    r.mIntegrityProtectionMaximumDataRate.isset = 1;
    // The step's own session type wins over the per-id setting, so one step can ask for
    // sessions of several types.
    uint8_t type = info->PDUSessionType_isset ? info->PDUSessionType : KsNAS__getPDNType(info->PDUSessionId);
    halfIe(r.mPDUSessionType, uint8_t(type & 0x07));
}

}  // namespace

// ---------------------------------------------------------------- settings

const char* KsNAS__getDNN(uint8_t psi) { return sessionSetting(38, psi); }
uint8_t KsNAS__getFQI(uint8_t psi) { return sessionNumber(43, psi, 9); }
uint8_t KsNAS__getPDNType(uint8_t psi) { return sessionNumber(48, psi, 1); }
uint8_t KsNAS__getRATType(uint8_t psi) { return sessionNumber(53, psi, 9); }
uint8_t KsNAS__getRANProtoVersion() {
    const char* v = KsNAS_GetSettingValue(58);
    return v && v[0] ? uint8_t(strtoul(v, nullptr, 10)) : 1;
}

MV_KsUEPduSession* KsNAS__getKsUEPduSession(MV_KsUE* ue, uint8_t psi, const char* file, const char* func, int line) {
    if (psi == 0) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "Received PduSessionId is 0 - %s|%s|%d", file, func, line);
        return nullptr;
    }
    if (psi >= KS_UE_PDU_SESSIONS) return nullptr;
    MV_KsUEPduSession* s = &ue->pduSessions[psi];
    s->pduSessionId = psi;
    s->ksUe = ue;
    return s;
}

// ---------------------------------------------------------------- requests

void KsNAS__send_pdusession_request(MV_KsUE* ue, uint8_t bearer) {
    KsStepExecution* e = ue->ksStepExecution;
    if (!e || !e->ksStep) return;
    __ks_pduSessionSetupInfo* entry = nullptr;
    for (__ks_pduSessionSetupInfo* p = e->pduSessionSetupHead; p; p = p->Next)
        if (!p->SetupCompleted && p->Info) {
            entry = p;
            break;
        }
    if (!entry) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s][%u] PduSessionSetupInfo is null %s|%s|%d", supiOf(ue),
                 unsigned(ue->ueId), __FILE_NAME__, __func__, __LINE__);
        return;
    }
    const __ks_pduSessionInfo* info = entry->Info;
    uint8_t psi = info->PDUSessionId;
    uint8_t pti = ++ue->ProcedureTransactionIdentity;
    __mv_asn_coding_context sm;
    uint8_t smType = 0;
    int requestType = 0;
    const char* dnn = nullptr;
    bool ok = false;
    switch (info->PDUSessionRequestType) {
        case 2: {  // modification
            NASPduFGSM_PDUSessionModificationRequest r;
            memset(static_cast<void*>(&r), 0, sizeof r);
            halfIe(r.mAlwaysOnPDUSessionRequested, 1);
            ksnas::applyModificationTemplate(e->ksStep->nas5G_pduSessionTemplate, r);
            smType = 201;
            requestType = 5;
            ok = encodeSm(__mv_naspdu_fgsm_encodePDUSessionModificationRequest, r, psi, pti, sm);
            ksnas::countN1(N1(Sent_N1_SessionModificationRequest));
            break;
        }
        case 3: {  // release
            NASPduFGSM_PDUSessionReleaseRequest r;
            memset(static_cast<void*>(&r), 0, sizeof r);
            byteIe(r.mFGSMCause, 36);  // regular deactivation
            smType = 209;
            requestType = 2;
            ok = encodeSm(__mv_naspdu_fgsm_encodePDUSessionReleaseRequest, r, psi, pti, sm);
            ksnas::countN1(N1(Sent_N1_SessionReleaseRequest));
            ksnas::countTest(ue, &KsTestExec::PDUSessionReleaseRequest);
            break;
        }
        default: {
            NASPduFGSM_PDUSessionEstablishmentRequest r;
            memset(static_cast<void*>(&r), 0, sizeof r);
            if (!ksnas::applyEstablishmentTemplate(e->ksStep->nas5G_pduSessionTemplate, r)) fillEstablishment(ue, info, r);
            smType = 193;
            requestType = 1;
            dnn = KsNAS__getDNN(psi);
            if (!dnn && info->DNNName[0]) dnn = info->DNNName;
            ok = encodeSm(__mv_naspdu_fgsm_encodePDUSessionEstablishmentRequest, r, psi, pti, sm);
            ksnas::countN1(N1(Sent_N1_SessionEstablishmentRequest));
            ksnas::countTest(ue, &KsTestExec::PDUSessionEstablishmentRequest);
            break;
        }
    }
    if (!ok) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] 5GSM message %u could not be encoded, not sent %s|%s|%d",
                 supiOf(ue), smType, __FILE_NAME__, __func__, __LINE__);
        return;
    }
    if (sendUlTransport(ue, bearer, psi, sm, smType, requestType, dnn, e->ksStep->nas5G_ulNASTransport) < 1) return;
    KsEngine__KsUE_SetTimerActionRetry(ue, 1, KS_STEP__PDU_SESSION);
}

static void sendComplete(MV_KsUE* ue, uint8_t psi, uint8_t bearer, bool release) {
    __mv_asn_coding_context sm;
    uint8_t pti = ++ue->ProcedureTransactionIdentity;
    bool ok;
    if (release) {
        NASPduFGSM_PDUSessionReleaseComplete r;
        memset(static_cast<void*>(&r), 0, sizeof r);
        ok = encodeSm(__mv_naspdu_fgsm_encodePDUSessionReleaseComplete, r, psi, pti, sm);
        ksnas::countN1(N1(Sent_N1_SessionReleaseComplete));
        ksnas::countTest(ue, &KsTestExec::PDUSessionReleaseComplete);
    } else {
        NASPduFGSM_PDUSessionModificationComplete r;
        memset(static_cast<void*>(&r), 0, sizeof r);
        ok = encodeSm(__mv_naspdu_fgsm_encodePDUSessionModificationComplete, r, psi, pti, sm);
        ksnas::countN1(N1(Sent_N1_SessionModificationComplete));
    }
    if (ok) (void)sendUlTransport(ue, bearer, psi, sm, release ? 212 : 204, 0, nullptr);
}

void KsNAS__send_pdusession_modification_complete(MV_KsUE* ue, uint8_t psi, uint8_t bearer) {
    sendComplete(ue, psi, bearer, false);
}

void KsNAS__send_pdusession_release_complete(MV_KsUE* ue, uint8_t psi, uint8_t bearer) {
    sendComplete(ue, psi, bearer, true);
}

// ---------------------------------------------------------------- the network's answers

namespace {

void establishmentAccept(MV_KsUE* ue, const __naspduDecode& d, uint8_t psi, KsStepChild* ev) {
    if (ev) ev->ChildNasMessageType = 194;
    auto* a = static_cast<NASPduFGSM_PDUSessionEstablishmentAccept*>(d.messageObj);
    __ks_pduSessionSetupInfo* entry = askedFor(ue, psi);
    MV_KsUEPduSession* s = entry ? KsNAS__getKsUEPduSession(ue, psi, __FILE_NAME__, __func__, __LINE__) : nullptr;
    if (!s) {
        // Not a session this UE is waiting for: the step goes on waiting for its own.
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] PDUSessionEstablishmentAccept for PduSessionId=%u that was not asked for, dropped %s|%s|%d",
                 supiOf(ue), psi, __FILE_NAME__, __func__, __LINE__);
        return;
    }
    if (a->mPDUAddress.isset == 1) {
        uint8_t type = a->mPDUAddress.PDUSessionType & 0x07;
        uint8_t asked = entry->Info->PDUSessionType_isset ? entry->Info->PDUSessionType : KsNAS__getPDNType(psi);
        // An IPv4v6 request may be given either family; any other must get what it asked.
        if (type < 1 || type > 3 || (asked != 3 && type != asked)) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "[%s] PDUSessionEstablishmentAccept PduSessionId=%u with address type %u, requested %u, dropped "
                     "%s|%s|%d",
                     supiOf(ue), psi, type, asked, __FILE_NAME__, __func__, __LINE__);
            return;
        }
        const uint8_t* v4 = type == 1 ? a->mPDUAddress.data : type == 3 ? a->mPDUAddress.data + 8 : nullptr;
        if (type != 1) {
            memset(s->PduAddressIPv6, 0, sizeof s->PduAddressIPv6);
            s->PduAddressIPv6[0] = 0xFE;
            s->PduAddressIPv6[1] = 0x80;
            memcpy(s->PduAddressIPv6 + 8, a->mPDUAddress.data, 8);
        }
        if (v4) {
            s->u_pduAddress = uint32_t(v4[0]) << 24 | uint32_t(v4[1]) << 16 | uint32_t(v4[2]) << 8 | v4[3];
            snprintf(reinterpret_cast<char*>(s->PduAddress), sizeof s->PduAddress, "%u.%u.%u.%u", v4[0], v4[1], v4[2],
                     v4[3]);
        }
        s->PduAddress_SessionType = type;
    }
    char dnn[103] = {};
    if (a->mDNN.isset == 1 && a->mDNN.Length > 1)
        snprintf(dnn, sizeof dnn, "%.*s", int(a->mDNN.Length - 1), reinterpret_cast<const char*>(a->mDNN.data + 1));
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
             "[%s] PDUSessionEstablishmentAccept IPA=[%s|%u|%02X] PDUSessionType=%u PduSessionId=%u "
             "mAuthorizedQoSRules[len=%u|%u] mSessionAMBR[len=%u|%d] DNN[%s|%d] iStatus[%d] UEId[%d] len=%d pos=%d "
             "mPDUAddress[Length=%u isset=%u]  %s|%s|%d",
             supiOf(ue), reinterpret_cast<const char*>(s->PduAddress), s->u_pduAddress, s->PduAddress_SessionType,
             a->b1 & 0x07u, psi, a->mAuthorizedQoSRules.Length, a->mAuthorizedQoSRules.isset, a->mSessionAMBR.Length,
             a->mSessionAMBR.isset, dnn, a->mDNN.isset, d.iStatus, int(ue->ueId), d.length, d.pos,
             a->mPDUAddress.Length, a->mPDUAddress.isset, __FILE_NAME__, __func__, __LINE__);
    ksnas::countTest(ue, &KsTestExec::PDUSessionEstablishmentAccept);
    completeSession(ue, psi);
}

void establishmentReject(MV_KsUE* ue, const __naspduDecode& d, uint8_t psi) {
    auto* r = static_cast<NASPduFGSM_PDUSessionEstablishmentReject*>(d.messageObj);
    if (!askedFor(ue, psi)) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] PDUSessionEstablishmentReject for PduSessionId=%u that was not asked for, dropped %s|%s|%d",
                 supiOf(ue), psi, __FILE_NAME__, __func__, __LINE__);
        return;
    }
    ksnas::countTest(ue, &KsTestExec::PDUSessionEstablishmentReject);
    KsEngine__KsUE_ClearDefaultTimer(ue, __func__);
    MV_KsUECtx* c = KsNAS__getUECtx(ue, KS_BEARER__3GPP);
    c->NASErrorMessage = uint32_t(d.MessageType);
    c->NASErrorCause = r->mFGSMCause.isset == 1 ? r->mFGSMCause.Value : 1000;
    KS_COMPLETE_STEP(ue, KS_STEP__PDU_SESSION);
}

void modificationCommand(MV_KsUE* ue, const __naspduDecode& d, uint8_t psi, uint8_t pti, KsStepChild* ev) {
    if (ev) ev->ChildNasMessageType = 203;
    auto* m = static_cast<NASPduFGSM_PDUSessionModificationCommand*>(d.messageObj);
    if (!KsNAS__getKsUEPduSession(ue, psi, __FILE_NAME__, __func__, __LINE__)) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "Processing PDUSessionModificationCommand, ksUEPduSession not found with PDUSessionId=%u  %s|%s|%d", psi,
                 __FILE_NAME__, __func__, __LINE__);
        return;
    }
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
             "PDUSessionModificationCommand PDUSessionId=%u ProcedureTransactionIdentity=%u CauseValue=%u %s|%s|%d", psi,
             pti, m->mFGSMCause.Value, __FILE_NAME__, __func__, __LINE__);
    KsNAS__send_pdusession_modification_complete(ue, psi, KS_BEARER__3GPP);
    completeSession(ue, psi);
}

void releaseCommand(MV_KsUE* ue, const __naspduDecode& d, uint8_t psi, uint8_t pti, KsStepChild* ev) {
    if (ev) ev->ChildNasMessageType = 211;
    auto* m = static_cast<NASPduFGSM_PDUSessionReleaseCommand*>(d.messageObj);
    MV_KsUEPduSession* s = KsNAS__getKsUEPduSession(ue, psi, __FILE_NAME__, __func__, __LINE__);
    if (!s) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "Processing PDUSessionReleaseCommand, ksUEPduSession not found with PDUSessionId=%u  %s|%s|%d", psi,
                 __FILE_NAME__, __func__, __LINE__);
        return;
    }
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
             "PDUSessionReleaseCommand PDUSessionId=%u ProcedureTransactionIdentity=%u CauseValue=%u %s|%s|%d", psi, pti,
             m->mFGSMCause.Value, __FILE_NAME__, __func__, __LINE__);
    if (m->mFGSMCause.isset == 1 && ev) {
        ev->NasCause = m->mFGSMCause.Value;
        ev->WhichCause = 2;
    }
    s->PduAddress_SessionType = 0;
    ksnas::countTest(ue, &KsTestExec::PDUSessionReleaseCommand);
    KsNAS__send_pdusession_release_complete(ue, psi, KS_BEARER__3GPP);
    completeSession(ue, psi);
}

}  // namespace

void KsNAS__handle__dl_nas_transport(MV_KsUE* ue, __naspduDecode* decode, uint8_t, uint8_t ngapProcCode,
                                     __ks_step_child* stepChild) {
    auto* t = static_cast<NASPduFGMM_DLNASTransport*>(decode->messageObj);
    KsStepChild* ev = stepChild ? stepChild : KsScanario__AddRecvEvent(ue, ngapProcCode, 104);
    if (ev) ev->NasMessageType = 104;
    uint8_t containerType = t->b1 & 0x0F;
    if (containerType != 1) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s][%u] Unhandled Message Received in dl-nas-transport PayloadContainerType=%u %s|%s|%d", supiOf(ue),
                 unsigned(ue->ueId), containerType, __FILE_NAME__, __func__, __LINE__);
        return;
    }
    const uint8_t* sm = t->mPayloadContainer.data;
    uint32_t n = t->mPayloadContainer.Length;
    __naspduDecode d{};
    (void)__mv_naspdu_DecodeFGMessage(&d, sm, n);
    if (d.iMandatoryDecoded != 1 || n < 4) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] Decoding NASMessage Failed NGAP-ProcCode=%u NASMessageType=%u %s|%s|%d", supiOf(ue), ngapProcCode,
                 unsigned(decode->MessageType), __FILE_NAME__, __func__, __LINE__);
        __mv_naspdu_freeNASPduDecode(&d);
        return;
    }
    uint8_t psi = sm[1], pti = sm[2];
    switch (d.MessageType) {
        case 193:
            if (KsStepChild* e2 = KsScanario__AddRecvEvent(ue, ngapProcCode, 193))
                if (t->mFGMMCause.isset == 1) e2->NasCause = t->mFGMMCause.Value;
            break;
        case 194: establishmentAccept(ue, d, psi, ev); break;
        case 195: establishmentReject(ue, d, psi); break;
        case 203: modificationCommand(ue, d, psi, pti, ev); break;
        case 211: releaseCommand(ue, d, psi, pti, ev); break;
        default:
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "[%s] Unhandled Message NGAP-ProcCode=%u NASMessageType=%u DecodedMessageType=%u %s|%s|%d",
                     supiOf(ue), ngapProcCode, unsigned(decode->MessageType), unsigned(d.MessageType), __FILE_NAME__,
                     __func__, __LINE__);
            if (ue->ksStepExecution) KS_COMPLETE_STEP(ue, KS_STEP_CODE_FROM_UE);
    }
    __mv_naspdu_freeNASPduDecode(&d);
}
