// The gNB's UE-associated signalling going up: RAN UE contexts, NAS PDUs in
// InitialUEMessage and UplinkNASTransport, and the UE messages the gNB starts itself.
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "KsEngine_step.h"
#include "KsNGAP.h"
#include "KsTemplateEng.h"
#include "mv_amf_asn_procs.h"

namespace {
std::atomic<const KsNGAPNasEntry*> gNasEntry{nullptr};

MV_KsUECtx* sideOf(MV_KsUE* ue, uint8_t bearer) { return bearer == KS_BEARER__NON3GPP ? &ue->NTGPP : &ue->TGPP; }

// The record of a PDU, made so that the codec's memfree of the PDU takes it back.
template <class R>
R* newPdu(const MvAsnType& t) {
    return static_cast<R*>(__mv_asn_new_record(&t));
}

template <class Str>
Str* octets(int (*init)(Str**, const uint8_t*, uint32_t), const uint8_t* bytes, uint32_t len) {
    Str* s = nullptr;
    init(&s, bytes, len);
    return s;
}

// The connection's guards of every UE message the gNB sends: 0 when it may go, else the
// error the sender gives back.
int connGuard(const MV_KsRanAmfConnection* conn, const char* what, int notOk) {
    if (!conn) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "MV_KsRanAmfConnection is NULL, Unable to send %s %s|%s|%d", what,
                 __FILE_NAME__, "connGuard", __LINE__);
        return -ENOENT;
    }
    if (!KsNGAP__OkToSend(conn)) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "MV_KsRanAmfConnection is NotOk, Unable to send %s %s|%s|%d", what,
                 __FILE_NAME__, "connGuard", __LINE__);
        return notOk;
    }
    return 0;
}

// The pool ran dry: the limit of a test, which the operator sizes; the test cannot go on.
[[noreturn]] void poolExhausted() {
    printf("KsNGRanUeContext -> Allocation Failed %s|%s|%d\n", __FILE_NAME__, "KsNGAP__CreateRanUeContext", __LINE__);
    fflush(stdout);
    exit(0);
}

MV_KsNGRanUeContext* createLocked(MV_KsUE* ue, uint8_t bearer) {
    MV_KsUECtx* side = sideOf(ue, bearer);
    MV_KsRanAmfConnection* conn = side->ranAmfConnection;
    MV_KsNGRanUeContext* ctx = KsEngine__AllocateKsNGRanUeContext(conn ? conn->ran : nullptr);
    if (!ctx) poolExhausted();
    ctx->amf_id = 0;
    ctx->initialContextSetup = 0;
    ctx->ksUe = ue;
    ctx->ranAmfConn = conn;
    side->ranUeContext = ctx;
    return ctx;
}

void releaseLocked(MV_KsUECtx* side) {
    MV_KsNGRanUeContext* ctx = side->ranUeContext;
    side->ranUeContext = nullptr;
    side->CMStatus = CM_STATUS__IDLE;
    if (!ctx) return;
    ctx->ksUe = nullptr;
    ctx->ranAmfConn = nullptr;
    ctx->initialContextSetup = 0;
    ctx->amf_id = 0;
    KsEngine__ReleaseKsNGRanUeContext(ctx->ran, ctx);
}

// The RAN of a context, for its PLMN; the context keeps it, the connection is the fallback.
const uint8_t* plmnOf(const MV_KsNGRanUeContext* ctx) {
    static constexpr uint8_t kNone[3] = {0, 0, 0};
    if (ctx->ran) return ctx->ran->HexPlmn;
    if (ctx->ranAmfConn && ctx->ranAmfConn->ran) return ctx->ranAmfConn->ran->HexPlmn;
    return kNone;
}

// Where a UE message says the UE is: the RAN's PLMN, cell 1 and TAC 1 unless a template
// says otherwise; left out when the template's location is of another type.
struct Location {
    uint8_t plmn[3];
    uint32_t cell = 1, tac = 1;
    bool present = true;
};

// The template's elements of an UE message: 121 the location, 112 UEContextRequest, 90 the
// RRC establishment cause (the last two only when `r` is given).
void applyTemplate(const MV_Template* tpl, Location& loc, MV_AMF_DT_InitialUEMessage* r) {
    loc.present = false;
    if (r) r->rRCEstablishmentCause_isset = 0;
    for (MV_Element* e = KsTemplateEng__BeginIterator(tpl); e; e = KsTemplateEng__NextIterator(e)) {
        uint32_t vt = KsTemplateEng__GetValueType(e);
        switch (KsTemplateEng__GetID(e)) {
            case 121:
                if (vt == KsTMT__VALUE_TYPE__DEFAULT_0 || vt == KsTMT__VALUE_TYPE__DEFAULT) {
                    loc.present = true;
                    loc.cell = loc.tac = 1;
                } else if (vt == KsTMT__VALUE_TYPE__JSon) {
                    json_t* j = KsTemplateEng__GetJsonValue(e);
                    const char* type = json_string_value(json_object_get(j, "Type"));
                    if (type && strcmp(type, "ULINR") == 0) {
                        loc.present = true;
                        loc.cell = uint32_t(json_integer_value(json_object_get(j, "NRCellId")));
                        loc.tac = uint32_t(json_integer_value(json_object_get(j, "TAC")));
                    }
                }
                break;
            case 112:
                if (r) r->uEContextRequest_isset = 1;
                break;
            case 90:
                if (!r) break;
                r->rRCEstablishmentCause_isset = 1;
                r->rRCEstablishmentCause = vt == KsTMT__VALUE_TYPE__INT ? uint8_t(KsTemplateEng__GetIntValue(e)) : 0;
                break;
            default: break;
        }
    }
}

// The tracking area the console set for the UE replaces the PLMN and TAC; 1 when it did.
int overrideTai(const MV_KsUE* ue, Location& loc) {
    if (ue->TAI_TAC == 0) return 0;
    KsEngine__get_plmnHex(loc.plmn, ue->TAI_MCC, ue->TAI_MNC);
    loc.tac = ue->TAI_TAC;
    if (!loc.present) loc.cell = 1;
    loc.present = true;
    return 1;
}

MV_AMF_DT_UserLocationInformation* locationOf(MV_KsUE* ue, const MV_KsNGRanUeContext* ctx, const MV_Template* tpl,
                                              MV_AMF_DT_InitialUEMessage* r, int* overridden) {
    Location loc;
    memcpy(loc.plmn, plmnOf(ctx), 3);
    if (tpl) applyTemplate(tpl, loc, r);
    *overridden = overrideTai(ue, loc);
    MV_AMF_DT_UserLocationInformation* uli = nullptr;
    if (loc.present) KsNGAP___setUserLocationInformation(ue, &uli, loc.plmn, loc.cell, loc.tac);
    return uli;
}

MV_AMF_DT_FiveG_S_TMSI* sTmsiOf(const MV_KsUE* ue) {
    const uint8_t* g = ue->fgGuti.val;
    auto* t = static_cast<MV_AMF_DT_FiveG_S_TMSI*>(__mv_asn_alloc(sizeof(MV_AMF_DT_FiveG_S_TMSI)));
    const uint8_t set[2] = {g[4], uint8_t(g[5] & 0xC0)}, ptr = uint8_t(g[5] << 2);
    t->aMFSetID = octets(__mv_amf_init_AMFSetID2, set, 2);
    t->aMFSetID->bitslen = 10;
    t->aMFPointer = octets(__mv_amf_init_AMFPointer2, &ptr, 1);
    t->aMFPointer->bitslen = 6;
    t->fiveG_TMSI = octets(__mv_amf_init_FiveG_TMSI2, g + 6, 4);
    return t;
}

void sendingFailed(MV_KsUE* ue) {
    const KsNGAPNasEntry* e = gNasEntry.load();
    if (ue && e && e->SendingMessageFailed) e->SendingMessageFailed(ue);
}

}  // namespace

void KsNGAP__RegisterNasEntry(const KsNGAPNasEntry* entry) { gNasEntry.store(entry); }

const KsNGAPNasEntry* KsNGAP__GetNasEntry() { return gNasEntry.load(); }

// ---------------------------------------------------------------- contexts

MV_KsNGRanUeContext* KsNGAP__getRanUeContext(MV_KsUE* ue, uint8_t bearer) {
    return ue ? sideOf(ue, bearer)->ranUeContext : nullptr;
}

MV_KsNGRanUeContext* KsNGAP__CreateRanUeContext(MV_KsUE* ue, uint8_t bearer) {
    if (!ue) return nullptr;
    MV_KsNGRanUeContext* ctx;
    {
        std::lock_guard g(sideOf(ue, bearer)->ranUeContextLock);
        ctx = createLocked(ue, bearer);
    }
    KsEngine__RanAmf_AddUEContext(ue, bearer);
    return ctx;
}

int KsNGAP___releaseUeContext(MV_KsUE* ue, uint8_t bearer) {
    if (!ue) return -1;
    MV_KsUECtx* side = sideOf(ue, bearer);
    std::lock_guard g(side->ranUeContextLock);
    releaseLocked(side);
    return 1;
}

uint64_t KsNGAP___GetRANUEId(MV_KsUE* ue, uint8_t bearer) {
    MV_KsNGRanUeContext* ctx = KsNGAP__getRanUeContext(ue, bearer);
    return ctx ? KsNGAP___GetKsNGRanUeContext_UEId(ctx) : 0;
}

MV_KsUE* KsNGAP__Find_UE_By_RanUENgapId(MV_NGAPNode* node, uint64_t id) {
    MV_KsRanAmfConnection* conn = KsNGAP___ConnectionOfNode(node);
    MV_KsNGRanUeContext* ctx = conn ? KsNGAP___GetKsNGRanUeContext(conn->ran, id) : nullptr;
    return ctx ? ctx->ksUe : nullptr;
}

int64_t KsNGAP__Find_UEId_By_RanUENgapId(MV_NGAPNode* node, uint64_t id) {
    MV_KsUE* ue = KsNGAP__Find_UE_By_RanUENgapId(node, id);
    return ue ? int64_t(ue->ueId) : -1;
}

// ---------------------------------------------------------------- NAS up

int KsNGAP___sendNasMessage(MV_KsUE* ue, u_char* data, uint32_t len, uint8_t bearer, uint32_t nasMessageType,
                            uint32_t childNasMessageType, uint32_t childNasMessCateId, uint8_t) {
    if (!ue) return -1;
    MV_KsUECtx* side = sideOf(ue, bearer);
    MV_KsNGRanUeContext* ctx;
    bool initial = false;
    {
        std::lock_guard g(side->ranUeContextLock);
        ctx = side->ranUeContext;
        if (ctx && ctx->amf_id == 0) {
            // The core never answered on this id: a repeat starts again under a new one.
            releaseLocked(side);
            ctx = nullptr;
        }
        if (!ctx) {
            ctx = createLocked(ue, bearer);
            initial = true;
        }
    }
    if (initial) {
        KsEngine__RanAmf_AddUEContext(ue, bearer);
        return KsNGAP___send_InitialUEMessage(ctx, data, len, nasMessageType, childNasMessageType, childNasMessCateId);
    }
    return KsNGAP___send_UplinkNasTransport(ctx, data, len, nasMessageType, childNasMessageType, childNasMessCateId);
}

void KsNGAP___setUserLocationInformation(MV_KsUE* ue, MV_AMF_DT_UserLocationInformation** uli, const uint8_t* plmn,
                                         uint32_t cellId, uint32_t tac) {
    if (ue) KsEngine__SetUEsSNN2(ue, plmn);
    const uint8_t cell[5] = {uint8_t(cellId >> 24), uint8_t(cellId >> 16), uint8_t(cellId >> 8), uint8_t(cellId), 0};
    auto* nr = static_cast<MV_AMF_DT_UserLocationInformationNR*>(__mv_asn_alloc(sizeof(MV_AMF_DT_UserLocationInformationNR)));
    auto* cgi = static_cast<MV_AMF_DT_NR_CGI*>(__mv_asn_alloc(sizeof(MV_AMF_DT_NR_CGI)));
    MV_AMF_DT_PLMNIdentity* p = nullptr;
    MV_AMF_DT_NRCellIdentity* c = nullptr;
    MV_AMF_DT_TAI* t = nullptr;
    KsNGAP_utils_set_PLMNIdentity(&p, plmn);
    KsNGAP_utils_set_NRCellIdentity(&c, cell);
    KsNGAP_utils_set_TAI(&t, plmn, tac);
    cgi->pLMNIdentity = p;
    cgi->nRCellIdentity = c;
    nr->nR_CGI = cgi;
    nr->tAI = t;
    auto* l = static_cast<MV_AMF_DT_UserLocationInformation*>(__mv_asn_alloc(sizeof(MV_AMF_DT_UserLocationInformation)));
    l->SelectedChoice = 1;
    l->u.userLocationInformationNR = nr;
    *uli = l;
}

int KsNGAP___send_InitialUEMessage(MV_KsNGRanUeContext* ctx, u_char* data, uint32_t len, uint32_t nasMessageType,
                                   uint32_t childNasMessageType, uint32_t childNasMessCateId) {
    MV_KsUE* ue = ctx ? ctx->ksUe : nullptr;
    if (!ue) return -1;
    if (int g = connGuard(ctx->ranAmfConn, "InitialUEMessage", -ENOENT)) {
        sendingFailed(ue);
        KsNGAP___releaseUeContext(ue, KS_BEARER__3GPP);
        return g;
    }
    uint64_t ranId = KsNGAP___GetKsNGRanUeContext_UEId(ctx);
    auto* r = newPdu<MV_AMF_DT_InitialUEMessage>(mv_asn_amf::T_InitialUEMessage);
    r->rANUENGAPID = ranId;
    r->rANUENGAPID_isset = 1;
    r->rRCEstablishmentCause = 3;  // mo-Data
    r->rRCEstablishmentCause_isset = 1;
    const KsStep* step = KsScanario__GetKsExecutionStep(ue);
    const MV_Template* tpl = step ? step->ngap_initUEMessTemplate : nullptr;
    if (!tpl && step && step->UEContextRequest == 1) r->uEContextRequest_isset = 1;
    int overridden = 0;
    r->userLocationInformation = locationOf(ue, ctx, tpl, r, &overridden);
    r->userLocationInformation_isset = r->userLocationInformation ? 1 : 0;
    if (overridden) {
        const uint8_t* p = r->userLocationInformation->u.userLocationInformationNR->tAI->pLMNIdentity->data;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] Setting UE-ServingNetworkName=%02X%02X%02X %s|%s|%d",
                 KsUE__supi(ue), p[0], p[1], p[2], __FILE_NAME__, __func__, __LINE__);
    }
    if (ue->bInitialContextRequest == 1) {
        // Asked for one message only.
        r->uEContextRequest_isset = 1;
        ue->bInitialContextRequest = 0;
    }
    if (ue->fgGuti.isset && ue->Exclude5GSTMSI == 0) {
        r->fiveGSTMSI = sTmsiOf(ue);
        r->fiveGSTMSI_isset = 1;
    }
    r->nASPDU = octets(__mv_amf_init_NAS_PDU2, data, len);
    r->nASPDU_isset = 1;
    int sts = KsNGAP___sendRecord(uint8_t(NgapProc::InitialUEMessage), 0, r, ctx->ranAmfConn);
    __mv_amf_memfree_pdu_InitialUEMessage(r);
    if (sts > 0) {
        KsScanario__AddEvent(ue, 15, nasMessageType, childNasMessageType, childNasMessCateId);
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] Sent InitialUEMessage with RAN-ID=%lu  %s|%s|%d",
                 KsUE__supi(ue), (unsigned long)ranId, __FILE_NAME__, __func__, __LINE__);
    } else {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] Sending InitialUEMessage Failed/Released-UEContext for RAN-ID=%lu with sts=%d  %s|%s|%d",
                 KsUE__supi(ue), (unsigned long)ranId, sts, __FILE_NAME__, __func__, __LINE__);
        sendingFailed(ue);
        KsNGAP___releaseUeContext(ue, KS_BEARER__3GPP);
    }
    return 1;
}

int KsNGAP___send_UplinkNasTransport(MV_KsNGRanUeContext* ctx, u_char* data, uint32_t len, uint32_t nasMessageType,
                                     uint32_t childNasMessageType, uint32_t childNasMessCateId) {
    MV_KsUE* ue = ctx ? ctx->ksUe : nullptr;
    if (!ue) return -1;
    if (int g = connGuard(ctx->ranAmfConn, "UplinkNasTransport", -ESRCH)) {
        sendingFailed(ue);
        return g;
    }
    auto* r = newPdu<MV_AMF_DT_UplinkNASTransport>(mv_asn_amf::T_UplinkNASTransport);
    r->aMFUENGAPID = ctx->amf_id;
    r->aMFUENGAPID_isset = 1;
    r->rANUENGAPID = KsNGAP___GetKsNGRanUeContext_UEId(ctx);
    r->rANUENGAPID_isset = 1;
    r->nASPDU = octets(__mv_amf_init_NAS_PDU2, data, len);
    r->nASPDU_isset = 1;
    const KsStep* step = KsScanario__GetKsExecutionStep(ue);
    int overridden = 0;
    r->userLocationInformation = locationOf(ue, ctx, step ? step->ngap_uplinkNASTranTemplate : nullptr, nullptr,
                                            &overridden);
    r->userLocationInformation_isset = r->userLocationInformation ? 1 : 0;
    uint64_t amfId = ctx->amf_id;
    int sts = KsNGAP___sendRecord(uint8_t(NgapProc::UplinkNASTransport), 0, r, ctx->ranAmfConn);
    __mv_amf_memfree_pdu_UplinkNASTransport(r);
    if (sts > 0) {
        KsScanario__AddEvent(ue, 46, nasMessageType, childNasMessageType, childNasMessCateId);
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] Sending UplinkNasTransport AMF-NGAP-ID=%lu    %s|%s|%d",
                 KsUE__supi(ue), (unsigned long)amfId, __FILE_NAME__, __func__, __LINE__);
    } else {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] Sending UplinkNasTransport Failed AMF-NGAP-ID=%lu with sts=%d   %s|%s|%d", KsUE__supi(ue),
                 (unsigned long)amfId, sts, __FILE_NAME__, __func__, __LINE__);
        sendingFailed(ue);
    }
    return sts;
}

// ---------------------------------------------------------------- messages the gNB starts

int KsNGAP___send_UEContextReleaseRequest(MV_KsUE* ue, MV_KsNGRanUeContext* ctx, uint8_t) {
    if (!ue) return -1;
    if (!ctx) {
        ue->AppError = 3;
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] UEContext Not Found, Unable to send UEContextReleaseRequest  %s|%s|%d",
                 KsUE__supi(ue), __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    if (int g = connGuard(ctx->ranAmfConn, "UEContextReleaseRequest", -ENOENT)) {
        sendingFailed(ue);
        return g;
    }
    auto* r = newPdu<MV_AMF_DT_UEContextReleaseRequest>(mv_asn_amf::T_UEContextReleaseRequest);
    r->aMFUENGAPID = ctx->amf_id;
    r->aMFUENGAPID_isset = 1;
    r->rANUENGAPID = KsNGAP___GetKsNGRanUeContext_UEId(ctx);
    r->rANUENGAPID_isset = 1;
    r->cause = static_cast<MV_AMF_DT_Cause*>(__mv_asn_alloc(sizeof(MV_AMF_DT_Cause)));
    KsNGAP__setCause(r->cause, 2, 3);  // nas, unspecified
    r->cause_isset = 1;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] Sending UEContextReleaseRequest AMF-ID=%lu NGAP-ID=%lu   %s|%s|%d",
             KsUE__supi(ue), (unsigned long)r->aMFUENGAPID, (unsigned long)r->rANUENGAPID, __FILE_NAME__, __func__,
             __LINE__);
    KsScanario__AddEvent(ue, 42, 0, 0, 0);
    uint64_t ranId = r->rANUENGAPID;
    int sts = KsNGAP___sendRecord(uint8_t(NgapProc::UEContextReleaseRequest), 0, r, ctx->ranAmfConn);
    __mv_amf_memfree_pdu_UEContextReleaseRequest(r);
    if (sts > 0) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] Sent UEContextReleaseRequest RAN-ID=%lu  %s|%s|%d",
                 KsUE__supi(ue), (unsigned long)ranId, __FILE_NAME__, __func__, __LINE__);
    } else {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] Sending UEContextReleaseRequest Failed RAN-ID=%lu with sts=%d   %s|%s|%d", KsUE__supi(ue),
                 (unsigned long)ranId, sts, __FILE_NAME__, __func__, __LINE__);
        sendingFailed(ue);
    }
    if (KsTestExec* t = ue->testExec) __mv_counter_increment_request(&t->UEContextReleaseRequest);
    return sts;
}

int KsNGAP___send_ErrorIndication(uint64_t amfId, uint64_t ranId, uint8_t causeChoice, uint8_t cause,
                                  MV_KsRanAmfConnection* conn) {
    if (int g = connGuard(conn, "ErrorIndication", -ENOENT)) return g;
    auto* r = newPdu<MV_AMF_DT_ErrorIndication>(mv_asn_amf::T_ErrorIndication);
    if (amfId) {
        r->aMFUENGAPID = amfId;
        r->aMFUENGAPID_isset = 1;
    }
    if (ranId) {
        r->rANUENGAPID = ranId;
        r->rANUENGAPID_isset = 1;
    }
    r->cause = static_cast<MV_AMF_DT_Cause*>(__mv_asn_alloc(sizeof(MV_AMF_DT_Cause)));
    KsNGAP__setCause(r->cause, causeChoice, cause);
    r->cause_isset = 1;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "Sending ErrorIndication AMF-ID=%lu NGAP-ID=%lu   %s|%s|%d",
             (unsigned long)amfId, (unsigned long)ranId, __FILE_NAME__, __func__, __LINE__);
    int sts = KsNGAP___sendRecord(uint8_t(NgapProc::ErrorIndication), 0, r, conn);
    __mv_amf_memfree_pdu_ErrorIndication(r);
    if (sts <= 0)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "Sending ErrorIndication Failed RAN-ID=%lu with sts=%d   %s|%s|%d",
                 (unsigned long)ranId, sts, __FILE_NAME__, __func__, __LINE__);
    return sts;
}

int KsNGAP___send_CellTrafficTrace(MV_KsNGRanUeContext* ctx) {
    if (!ctx) return -1;
    if (int g = connGuard(ctx->ranAmfConn, "CellTrafficTrace", -ENOENT)) return g;
    auto* r = newPdu<MV_AMF_DT_CellTrafficTrace>(mv_asn_amf::T_CellTrafficTrace);
    r->aMFUENGAPID = ctx->amf_id;
    r->aMFUENGAPID_isset = 1;
    r->rANUENGAPID = KsNGAP___GetKsNGRanUeContext_UEId(ctx);
    r->rANUENGAPID_isset = 1;
    r->nGRANTraceID = octets(__mv_amf_init_NGRANTraceID2, reinterpret_cast<const uint8_t*>("12345678"), 8);
    r->nGRANTraceID_isset = 1;
    auto* cgi = static_cast<MV_AMF_DT_NGRAN_CGI*>(__mv_asn_alloc(sizeof(MV_AMF_DT_NGRAN_CGI)));
    cgi->SelectedChoice = 0;
    auto* nr = static_cast<MV_AMF_DT_NR_CGI*>(__mv_asn_alloc(sizeof(MV_AMF_DT_NR_CGI)));
    nr->pLMNIdentity = octets(__mv_amf_init_PLMNIdentity2, reinterpret_cast<const uint8_t*>("123"), 3);
    nr->nRCellIdentity = octets(__mv_amf_init_NRCellIdentity2, reinterpret_cast<const uint8_t*>("12345"), 5);
    nr->nRCellIdentity->bitslen = 36;
    cgi->u.nR_CGI = nr;
    r->nGRANCGI = cgi;
    r->nGRANCGI_isset = 1;
    r->traceCollectionEntityIPAddress =
        octets(__mv_amf_init_TransportLayerAddress2, reinterpret_cast<const uint8_t*>("1234"), 4);
    r->traceCollectionEntityIPAddress->bitslen = 32;
    r->traceCollectionEntityIPAddress_isset = 1;
    int sts = KsNGAP___sendRecord(uint8_t(NgapProc::CellTrafficTrace), 0, r, ctx->ranAmfConn);
    __mv_amf_memfree_pdu_CellTrafficTrace(r);
    __mv_log(MV_APP_LOG, sts > 0 ? LOG_CAT_APP : LOG_CAT_APP, sts > 0 ? MV_LOG_INFO : MV_LOG_ERROR,
             "Sending CellTrafficTrace AMF-ID=%lu sts=%d   %s|%s|%d", (unsigned long)ctx->amf_id, sts, __FILE_NAME__,
             __func__, __LINE__);
    return sts;
}
