// The AMF's UE-associated messages: the read thread only tests the mandatory ids and
// picks the UE's line; everything that touches the UE runs there, in order with the
// UE's own steps.
#include <arpa/inet.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>

#include "KsEngine_step.h"
#include "KsNGAP.h"
#include "mv_amf_asn_procs.h"
#include "mv_ngap.h"

namespace {

constexpr uint32_t kStepUEContextReleaseRequest = 5;
constexpr uint32_t kCommandInitialRegistration = 1;
constexpr size_t kMaxSessionsPerMessage = 16;

std::atomic<uint64_t> gDropped{0};

struct MessageFree {
    void operator()(KsNGAPUeMessage* m) const {
        KsNGAP___freeRecord(m->Code, m->Form, m->Record);
        delete m;
    }
};
using OwnedMessage = std::unique_ptr<KsNGAPUeMessage, MessageFree>;

template <class R>
R* recordOf(const OwnedMessage& m) {
    return static_cast<R*>(m->Record);
}

// The list of a message's session ids, for its answer.
struct SessionIds {
    uint8_t id[kMaxSessionsPerMessage];
    uint32_t count = 0;
    void add(uint8_t v) {
        if (count < kMaxSessionsPerMessage) id[count++] = v;
    }
};

void dropped(const KsNGAPUeMessage& m, const char* reason) {
    ++gDropped;
    KsNGAP__handle_bad_input(m.Node, m.Code, m.Form, reason);
}

// The context the AMF names on this association; a slot of the pool that another
// association holds is not the one meant.
MV_KsNGRanUeContext* contextOf(MV_KsRanAmfConnection* conn, uint64_t ranId) {
    if (!conn) return nullptr;
    MV_KsNGRanUeContext* ctx = KsNGAP___GetKsNGRanUeContext(conn->ran, ranId);
    if (ctx && ctx->ranAmfConn && ctx->ranAmfConn != conn) return nullptr;
    return ctx;
}

// The UE of a message's RAN id on its connection; without one, the "not found" line in the
// handler's name and a drop.
template <class R>
MV_KsUE* ueOf(MV_KsRanAmfConnection* conn, const R* r, const char* func) {
    MV_KsNGRanUeContext* ctx = contextOf(conn, r->rANUENGAPID);
    if (ctx && ctx->ksUe) return ctx->ksUe;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "UEContext Not Found For AMF-UE-Id=%lu RAN-UE-Id=%lu <%s|%s|%d>",
             (unsigned long)r->aMFUENGAPID, (unsigned long)r->rANUENGAPID, __FILE_NAME__, func, __LINE__);
    ++gDropped;
    return nullptr;
}

uint8_t bearerOf(const MV_KsRanAmfConnection* conn) {
    return conn && conn->ran && conn->ran->AccessType == KS_ACCESS_TYPE__N3IWF ? KS_BEARER__NON3GPP : KS_BEARER__3GPP;
}

void toNas(MV_KsUE* ue, const MV_AMF_DT_NAS_PDU* nas, uint8_t bearer, uint8_t procedureCode) {
    if (!nas || !nas->data || nas->length == 0) return;
    const KsNGAPNasEntry* e = KsNGAP__GetNasEntry();
    if (e && e->ProcessNasMessage) e->ProcessNasMessage(ue, nas->data, nas->length, bearer, procedureCode);
}

void sendingFailed(MV_KsUE* ue) {
    const KsNGAPNasEntry* e = KsNGAP__GetNasEntry();
    if (ue && e && e->SendingMessageFailed) e->SendingMessageFailed(ue);
}

template <class Str>
Str* octets(int (*init)(Str**, const uint8_t*, uint32_t), const uint8_t* bytes, uint32_t len) {
    Str* s = nullptr;
    init(&s, bytes, len);
    return s;
}

template <class R>
R* make(int (*init)(R**)) {
    R* r = nullptr;
    init(&r);
    return r;
}

template <class Holder>
void append(Holder* holder, __mv_asn_list* Holder::*member, void* item) {
    __mv_asn_list* l = holder->*member;
    __mv_asn_list_add(&l, item);
    holder->*member = l;
}

// ---------------------------------------------------------------- transfers

// One session of a setup message: the transfer decoded into the UE's session record. The
// id joins `ids` when the core's tunnel was taken.
void applySetupItem(MV_KsUE* ue, uint64_t sessionId, const uint8_t* octets_, uint32_t len, bool logFailure,
                    SessionIds& ids) {
    if (sessionId < 1 || sessionId > 15) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] PDU session id=%llu outside 1..15, item skipped %s|%d",
                 KsUE__supi(ue), (unsigned long long)sessionId, __FILE_NAME__, __LINE__);
        return;
    }
    __mv_asn_coding_context ctx;
    auto* t = make(__mv_amf_init_PDUSessionResourceSetupRequestTransfer);
    int sts = octets_ && len && __mv_asn_init_decode(&ctx, octets_, len) == 1
                  ? __mv_ngap_decode_pdu_PDUSessionResourceSetupRequestTransfer(t, &ctx)
                  : -1;
    if (sts != 1) {
        if (logFailure)
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "decoding of PDUSessionResourceSetupRequestTransfer failed in InitialContextSetup sts=%d   %s|%d",
                     sts, __FILE_NAME__, __LINE__);
        ++gDropped;
        __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(t);
        return;
    }
    uint8_t id = uint8_t(sessionId);
    if (t->pDUSessionAggregateMaximumBitRate_isset == 1 && t->pDUSessionAggregateMaximumBitRate)
        KsNGAP__set_pdusession_ambr(id, ue, t->pDUSessionAggregateMaximumBitRate->pDUSessionAggregateMaximumBitRateDL,
                                    t->pDUSessionAggregateMaximumBitRate->pDUSessionAggregateMaximumBitRateUL);
    const MV_AMF_DT_UPTransportLayerInformation* up = t->uLNGUUPTNLInformation_isset == 1 ? t->uLNGUUPTNLInformation : nullptr;
    const MV_AMF_DT_GTPTunnel* g = up && up->SelectedChoice == 0 ? up->u.gTPTunnel : nullptr;
    if (g && g->gTP_TEID && g->transportLayerAddress &&
        KsNGAP__set_pdusession_transport_info(id, ue, t->pDUSessionType, g->gTP_TEID->data, g->gTP_TEID->length,
                                              g->transportLayerAddress->data, g->transportLayerAddress->length) == 1)
        ids.add(id);
    if (t->qosFlowSetupRequestList_isset == 1 && t->qosFlowSetupRequestList) {
        __mv_asn_list* l = t->qosFlowSetupRequestList->QosFlowSetupRequestItem;
        if (l && l->Head && l->Head->data)
            KsNGAP__set_pdusession_qosFlowIdentifier(
                id, ue, uint8_t(static_cast<MV_AMF_DT_QosFlowSetupRequestItem*>(l->Head->data)->qosFlowIdentifier));
    }
    __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(t);
}

// The first packet of a session the core just set up, so that its uplink tunnel is used at once.
void firstPacket(MV_KsUE* ue, uint64_t sessionId) {
    if (sessionId < 1 || sessionId > 15) return;
    const MV_KsUEPduSession& s = ue->pduSessions[sessionId];
    if (s.pduSessionId != sessionId) return;
    if (__ksEngine->DataPlanePort > 0) {
        static std::atomic<bool> told{false};
        if (!told.exchange(true))
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_WARNING,
                     "[%s] DataPlanePort=%d: the data-path peer is not part of this build, no first packet on PDU "
                     "session %u  %s|%s|%d",
                     KsUE__supi(ue), int(__ksEngine->DataPlanePort), unsigned(sessionId), __FILE_NAME__, __func__,
                     __LINE__);
        return;
    }
    // Without a user plane the fallback TEID's line has said so already.
    const KsUserPlane* up = KsEngine__UserPlane();
    if (up && up->SendFirstPacket) up->SendFirstPacket(ue, uint8_t(sessionId), s.QosFlowIdentifier);
}

// The gNB's downlink tunnel of a session as the octets of its setup response transfer;
// 0 octets when it cannot be encoded.
uint32_t responseTransfer(MV_KsUE* ue, uint8_t id, __mv_asn_coding_context& ctx) {
    auto* t = make(__mv_amf_init_PDUSessionResourceSetupResponseTransfer);
    auto* dl = make(__mv_amf_init_QosFlowPerTNLInformation);
    auto* up = make(__mv_amf_init_UPTransportLayerInformation);
    auto* g = make(__mv_amf_init_GTPTunnel);
    uint8_t addr[16] = {};
    uint32_t alen = 4;
    // Start-up keeps the IPv4 address as a host-order number, the IPv6 one as its octets.
    if (__ksEngine->localGTP_IPType == 6) {
        alen = 16;
        memcpy(addr, __ksEngine->localGTP_IPv6, 16);
    } else {
        uint32_t host = 0;
        memcpy(&host, __ksEngine->localGTP_IPv4, sizeof host);
        const uint32_t net = htonl(host);
        memcpy(addr, &net, 4);
    }
    g->transportLayerAddress = octets(__mv_amf_init_TransportLayerAddress2, addr, alen);
    g->transportLayerAddress->bitslen = int(alen * 8);
    uint32_t teid = KsNGAP__get_pdusession_ran_teid(id, ue);
    const uint8_t te[4] = {uint8_t(teid >> 24), uint8_t(teid >> 16), uint8_t(teid >> 8), uint8_t(teid)};
    g->gTP_TEID = octets(__mv_amf_init_GTP_TEID2, te, 4);
    up->SelectedChoice = 0;
    up->u.gTPTunnel = g;
    dl->uPTransportLayerInformation = up;
    dl->associatedQosFlowList = make(__mv_amf_init_AssociatedQosFlowList);
    auto* f = make(__mv_amf_init_AssociatedQosFlowItem);
    const MV_KsUEPduSession* s = KsNGAP___sessionOf(ue, id);
    f->qosFlowIdentifier = s && s->QosFlowIdentifier ? s->QosFlowIdentifier : 1;
    append(dl->associatedQosFlowList, &MV_AMF_DT_AssociatedQosFlowList::AssociatedQosFlowItem, f);
    t->dLQosFlowPerTNLInformation = dl;
    __mv_asn_init_CodingContext(&ctx);
    int sts = __mv_amf_Encode_PDUSessionResourceSetupResponseTransfer(t, 1, &ctx);
    __mv_amf_memfree_PDUSessionResourceSetupResponseTransfer(t);
    if (sts < 1 || ctx.iError) return 0;
    __mv_asn_pad_bits(&ctx);
    return ctx.pos;
}

// The answer's list of set-up sessions, for either answer's item type.
template <class List, class Item, class Transfer>
List* setupList(MV_KsUE* ue, const SessionIds& ids, __mv_asn_list* List::*member, Transfer* Item::*transfer,
                int (*initTransfer)(Transfer**, const uint8_t*, uint32_t)) {
    auto* list = static_cast<List*>(__mv_asn_alloc(sizeof(List)));
    __mv_asn_coding_context ctx;
    for (uint32_t i = 0; i < ids.count; ++i) {
        auto* item = static_cast<Item*>(__mv_asn_alloc(sizeof(Item)));
        item->pDUSessionID = ids.id[i];
        uint32_t n = responseTransfer(ue, ids.id[i], ctx);
        item->*transfer = octets(initTransfer, ctx.buffer, n);
        append(list, member, item);
    }
    return list;
}

// ---------------------------------------------------------------- twins on the UE's line

void downlinkNasTransportFSM(void* p) {
    OwnedMessage m(static_cast<KsNGAPUeMessage*>(p));
    auto* r = recordOf<MV_AMF_DT_DownlinkNASTransport>(m);
    MV_KsNGRanUeContext* ctx = contextOf(m->Conn, r->rANUENGAPID);
    if (!ctx) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "UEContext Not Found For AMF-UE-Id=%lu RAN-UE-Id=%lu <%s|%s|%d>",
                 (unsigned long)r->aMFUENGAPID, (unsigned long)r->rANUENGAPID, __FILE_NAME__, __func__, __LINE__);
        ++gDropped;
        return;
    }
    MV_KsUE* ue = ctx->ksUe;
    if (!ue) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "UE Not Found For AMF-UE-Id=%lu RAN-UE-Id=%lu <%s|%s|%d>",
                 (unsigned long)r->aMFUENGAPID, (unsigned long)r->rANUENGAPID, __FILE_NAME__, __func__, __LINE__);
        ++gDropped;
        return;
    }
    ctx->amf_id = r->aMFUENGAPID;
    toNas(ue, r->nASPDU, KS_BEARER__3GPP, 4);
}

void initialContextSetupFSM(void* p) {
    OwnedMessage m(static_cast<KsNGAPUeMessage*>(p));
    auto* r = recordOf<MV_AMF_DT_InitialContextSetupRequest>(m);
    MV_KsNGRanUeContext* ctx = contextOf(m->Conn, r->rANUENGAPID);
    if (!ctx) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "No RAN-UE-Context while processing InitialContextSetup %s|%d",
                 __FILE_NAME__, __LINE__);
        ++gDropped;
        return;
    }
    MV_KsUE* ue = ctx->ksUe;
    if (!ue) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "No KsUE in RAN-UE-Context while processing InitialContextSetup %s|%d", __FILE_NAME__, __LINE__);
        ++gDropped;
        return;
    }
    KsScanario__AddRecvEvent(ue, 14, 0);
    if (KsTestExec* t = ue->testExec) __mv_counter_increment_request(&t->InitailContextSetupRequest);
    uint8_t bearer = bearerOf(m->Conn);
    char key[2 * 64 + 1] = "";
    if (r->securityKey_isset == 1 && r->securityKey)
        for (uint32_t i = 0; i < r->securityKey->length && i < 64; ++i)
            snprintf(key + 2 * i, 3, "%02X", r->securityKey->data[i]);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "InitialContextSetupRequest SecurityKey=%s   %s|%s|%d", key,
             __FILE_NAME__, __func__, __LINE__);
    SessionIds ids;
    if (r->pDUSessionResourceSetupListCxtReq_isset == 1 && r->pDUSessionResourceSetupListCxtReq) {
        __mv_asn_list* l = r->pDUSessionResourceSetupListCxtReq->PDUSessionResourceSetupItemCxtReq;
        for (auto* it = l ? l->Head : nullptr; it; it = it->Next) {
            auto* item = static_cast<MV_AMF_DT_PDUSessionResourceSetupItemCxtReq*>(it->data);
            if (!item) continue;
            auto* tr = item->pDUSessionResourceSetupRequestTransfer;
            applySetupItem(ue, item->pDUSessionID, tr ? tr->data : nullptr, tr ? tr->length : 0, true, ids);
            if (item->isPresent_nAS_PDU == 1) toNas(ue, item->nAS_PDU, bearer, 14);
            firstPacket(ue, item->pDUSessionID);
        }
    }
    MV_KsUECtx* side = bearer == KS_BEARER__NON3GPP ? &ue->NTGPP : &ue->TGPP;
    side->ueContextSetupCompleted = 1;
    side->CMStatus = CM_STATUS__CONNECTED;
    ctx->amf_id = r->aMFUENGAPID;
    ctx->initialContextSetup = 1;
    if (r->nASPDU_isset == 1) {
        toNas(ue, r->nASPDU, bearer, 14);
        // The NAS procedure may have moved the UE to idle; the context stands.
        side->CMStatus = CM_STATUS__CONNECTED;
    }
    // The NAS side may have released the context while it ran.
    if (KsNGAP__getRanUeContext(ue, bearer) == ctx)
        KsNGAP___send_InitialContextSetupResponse(ctx, ids.id, ids.count);
    if (KsTestExec* t = ue->testExec) __mv_counter_increment_request(&t->InitailContextSetupResponse);
}

void pduSessionResourceSetupFSM(void* p) {
    OwnedMessage m(static_cast<KsNGAPUeMessage*>(p));
    auto* r = recordOf<MV_AMF_DT_PDUSessionResourceSetupRequest>(m);
    MV_KsNGRanUeContext* ctx = contextOf(m->Conn, r->rANUENGAPID);
    MV_KsUE* ue = ctx ? ctx->ksUe : nullptr;
    if (!ue) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "Already Context Released for RAN-UE-ID[%lu] while processing PDUSessionResourceSetup <%s|%s|%d>",
                 (unsigned long)r->rANUENGAPID, __FILE_NAME__, __func__, __LINE__);
        ++gDropped;
        return;
    }
    KsScanario__AddRecvEvent(ue, 29, 0);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "Received PDUSessionResourceSetupRequest RAN-UE-ID[%lu] <%s|%s|%d>",
             (unsigned long)r->rANUENGAPID, __FILE_NAME__, __func__, __LINE__);
    uint8_t bearer = bearerOf(m->Conn);
    SessionIds ids;
    if (r->pDUSessionResourceSetupListSUReq_isset == 1 && r->pDUSessionResourceSetupListSUReq) {
        __mv_asn_list* l = r->pDUSessionResourceSetupListSUReq->PDUSessionResourceSetupItemSUReq;
        for (auto* it = l ? l->Head : nullptr; it; it = it->Next) {
            auto* item = static_cast<MV_AMF_DT_PDUSessionResourceSetupItemSUReq*>(it->data);
            if (!item) continue;
            auto* tr = item->pDUSessionResourceSetupRequestTransfer;
            applySetupItem(ue, item->pDUSessionID, tr ? tr->data : nullptr, tr ? tr->length : 0, false, ids);
            if (item->isPresent_pDUSessionNAS_PDU == 1) toNas(ue, item->pDUSessionNAS_PDU, bearer, 0);
            firstPacket(ue, item->pDUSessionID);
        }
    }
    if (KsNGAP__getRanUeContext(ue, bearer) != ctx) return;
    if (bearer == KS_BEARER__3GPP) ue->TGPP.CMStatus = CM_STATUS__CONNECTED;
    auto* a = static_cast<MV_AMF_DT_PDUSessionResourceSetupResponse*>(
        __mv_asn_new_record(&mv_asn_amf::T_PDUSessionResourceSetupResponse));
    a->aMFUENGAPID = ctx->amf_id ? ctx->amf_id : r->aMFUENGAPID;
    a->aMFUENGAPID_isset = 1;
    a->rANUENGAPID = r->rANUENGAPID;
    a->rANUENGAPID_isset = 1;
    if (ids.count) {
        a->pDUSessionResourceSetupListSURes = setupList<MV_AMF_DT_PDUSessionResourceSetupListSURes,
                                                        MV_AMF_DT_PDUSessionResourceSetupItemSURes>(
            ue, ids, &MV_AMF_DT_PDUSessionResourceSetupListSURes::PDUSessionResourceSetupItemSURes,
            &MV_AMF_DT_PDUSessionResourceSetupItemSURes::pDUSessionResourceSetupResponseTransfer,
            __mv_amf_init_PDUSessionResourceSetupItemSURes_pDUSessionResourceSetupResponseTransfer2);
        a->pDUSessionResourceSetupListSURes_isset = 1;
    }
    int sts = KsNGAP___sendRecord(uint8_t(NgapProc::PDUSessionResourceSetup), 1, a, m->Conn);
    __mv_amf_memfree_pdu_PDUSessionResourceSetupResponse(a);
    if (sts > 0) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] Sent PDUSessionResourceSetupResponse RAN-ID=%lu  %s|%s|%d",
                 KsUE__supi(ue), (unsigned long)r->rANUENGAPID, __FILE_NAME__, __func__, __LINE__);
    } else {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] Sending PDUSessionResourceSetupResponse Failed RAN-ID=%lu with sts=%d   %s|%s|%d", KsUE__supi(ue),
                 (unsigned long)r->rANUENGAPID, sts, __FILE_NAME__, __func__, __LINE__);
        sendingFailed(ue);
    }
}

// Nothing is answered: the emulation keeps no radio resources to modify.
void pduSessionResourceModifyFSM(void* p) {
    OwnedMessage m(static_cast<KsNGAPUeMessage*>(p));
    auto* r = recordOf<MV_AMF_DT_PDUSessionResourceModifyRequest>(m);
    MV_KsUE* ue = ueOf(m->Conn, r, __func__);
    if (!ue) return;
    KsScanario__AddRecvEvent(ue, 26, 0);
    uint8_t bearer = bearerOf(m->Conn);
    if (r->pDUSessionResourceModifyListModReq_isset != 1 || !r->pDUSessionResourceModifyListModReq) return;
    __mv_asn_list* l = r->pDUSessionResourceModifyListModReq->PDUSessionResourceModifyItemModReq;
    for (auto* it = l ? l->Head : nullptr; it; it = it->Next) {
        auto* item = static_cast<MV_AMF_DT_PDUSessionResourceModifyItemModReq*>(it->data);
        if (item && item->isPresent_nAS_PDU == 1) toNas(ue, item->nAS_PDU, bearer, 0);
    }
}

void pduSessionResourceReleaseFSM(void* p) {
    OwnedMessage m(static_cast<KsNGAPUeMessage*>(p));
    auto* r = recordOf<MV_AMF_DT_PDUSessionResourceReleaseCommand>(m);
    MV_KsUE* ue = ueOf(m->Conn, r, __func__);
    if (!ue) return;
    MV_KsNGRanUeContext* ctx = contextOf(m->Conn, r->rANUENGAPID);  // the answer names it
    KsScanario__AddRecvEvent(ue, 28, 0);
    SessionIds ids;
    if (r->pDUSessionResourceToReleaseListRelCmd_isset == 1 && r->pDUSessionResourceToReleaseListRelCmd) {
        __mv_asn_list* l = r->pDUSessionResourceToReleaseListRelCmd->PDUSessionResourceToReleaseItemRelCmd;
        for (auto* it = l ? l->Head : nullptr; it; it = it->Next) {
            auto* item = static_cast<MV_AMF_DT_PDUSessionResourceToReleaseItemRelCmd*>(it->data);
            auto* tr = item ? item->pDUSessionResourceReleaseCommandTransfer : nullptr;
            if (!tr || !tr->data || tr->length == 0 || item->pDUSessionID < 1 || item->pDUSessionID > 15) {
                ++gDropped;
                continue;
            }
            __mv_asn_coding_context c;
            MV_AMF_DT_PDUSessionResourceReleaseCommandTransfer* t = nullptr;
            int isset = 0;
            int sts = __mv_asn_init_decode(&c, tr->data, tr->length) == 1
                          ? __mv_amf_Decode_PDUSessionResourceReleaseCommandTransfer(&t, &isset, 1, &c)
                          : -1;
            if (sts >= 1 && !c.iError && isset && t && t->cause) {
                KsNGAP__set_pdusession_release_transport_info(ue, uint8_t(item->pDUSessionID));
                ids.add(uint8_t(item->pDUSessionID));
            } else {
                ++gDropped;
            }
            if (t) __mv_amf_memfree_PDUSessionResourceReleaseCommandTransfer(t);
        }
    }
    KsNGAP___send_PDUSessionResourceReleaseResponse(ctx, r->aMFUENGAPID, r->rANUENGAPID, ids.id, ids.count, m->Conn);
    if (r->nASPDU_isset == 1) toNas(ue, r->nASPDU, bearerOf(m->Conn), 0);
}

void sendReleaseComplete(MV_KsRanAmfConnection* conn, uint64_t amfId, uint64_t ranId, MV_KsUE* ue) {
    auto* a = static_cast<MV_AMF_DT_UEContextReleaseComplete*>(
        __mv_asn_new_record(&mv_asn_amf::T_UEContextReleaseComplete));
    a->aMFUENGAPID = amfId;
    a->aMFUENGAPID_isset = 1;
    a->rANUENGAPID = ranId;
    a->rANUENGAPID_isset = 1;
    int sts = KsNGAP___sendRecord(uint8_t(NgapProc::UEContextRelease), 1, a, conn);
    __mv_amf_memfree_pdu_UEContextReleaseComplete(a);
    const char* supi = ue ? KsUE__supi(ue) : "-";
    if (sts > 0) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] Sent UEContextReleaseComplete RAN-ID=%lu  %s|%s|%d", supi,
                 (unsigned long)ranId, __FILE_NAME__, __func__, __LINE__);
    } else {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] Sending UEContextReleaseComplete Failed RAN-ID=%lu with sts=%d   %s|%s|%d", supi,
                 (unsigned long)ranId, sts, __FILE_NAME__, __func__, __LINE__);
        sendingFailed(ue);
    }
}

void ueContextReleaseFSM(void* p) {
    OwnedMessage m(static_cast<KsNGAPUeMessage*>(p));
    auto* r = recordOf<MV_AMF_DT_UEContextReleaseCommand>(m);
    const MV_AMF_DT_UE_NGAP_ID_pair* pair = r->uENGAPIDs->u.uE_NGAP_ID_pair;
    uint64_t ranId = pair->rAN_UE_NGAP_ID, amfIdOfMessage = pair->aMF_UE_NGAP_ID;
    MV_KsNGRanUeContext* ctx = contextOf(m->Conn, ranId);
    if (!ctx) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "ranUeContext is NULL for rAN_UE_NGAP_ID[%lu] <%s|%s|%d>",
                 (unsigned long)ranId, __FILE_NAME__, __func__, __LINE__);
        ++gDropped;
        return;
    }
    MV_KsUE* ue = ctx->ksUe;
    if (!ue) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "KsUE is NULL in UEContextReleaseCommandFSM RAN-UE-ID[%lu] AMF-UE-ID[%lu] rAN_UE_NGAP_ID[%lu] "
                 "<%s|%s|%d>",
                 (unsigned long)KsNGAP___GetKsNGRanUeContext_UEId(ctx), (unsigned long)ctx->amf_id,
                 (unsigned long)ranId, __FILE_NAME__, __func__, __LINE__);
        // The source side of a handover, or a UE that already let its context go (after a
        // deregistration): either way the AMF holds its side until it hears the release is done.
        sendReleaseComplete(m->Conn, amfIdOfMessage, ranId, nullptr);
        ctx->LastReleasedForN2Handover = 0;
        return;
    }
    KsScanario__AddRecvEvent(ue, 41, 0);
    KsScanario__AddEvent(ue, 41, 0, 0, 0);
    uint8_t bearer = bearerOf(m->Conn);
    uint64_t amfId = ctx->amf_id;
    KsNGAP___releaseUeContext(ue, bearer);
    (bearer == KS_BEARER__NON3GPP ? ue->NTGPP : ue->TGPP).ueContextSetupCompleted = 0;
    if (KsTestExec* t = ue->testExec) __mv_counter_increment_request(&t->UEContextReleaseCommand);
    sendReleaseComplete(m->Conn, amfId, ranId, ue);
    if (KsTestExec* t = ue->testExec) __mv_counter_increment_request(&t->UEContextReleaseComplete);
    if (KsScanario__CurrentStepEquals(ue, kStepUEContextReleaseRequest) == 1)
        KS_COMPLETE_STEP(ue, kStepUEContextReleaseRequest);
}

void rerouteNasRequestFSM(void* p) {
    OwnedMessage m(static_cast<KsNGAPUeMessage*>(p));
    auto* r = recordOf<MV_AMF_DT_RerouteNASRequest>(m);
    MV_KsUE* ue = ueOf(m->Conn, r, __func__);
    if (!ue) return;
    const uint8_t* s = r->aMFSetID->data;
    uint16_t setId = r->aMFSetID->length >= 2 ? uint16_t((s[0] << 8 | s[1]) >> 6) : 0;
    MV_KsRanAmfConnection* found = nullptr;
    MV_KsNGRan* ran = m->Conn ? m->Conn->ran : nullptr;
    for (MV_KsRanAmfConnection* c = ran ? ran->ranAMFHead.load() : nullptr; c && !found; c = c->Next.load()) {
        if (c->isOKToRun != 1 || c->ConnStatus != KS_NGCONN__READY || !c->amf) continue;
        std::lock_guard g(c->amf->InfoLock);
        for (uint32_t i = 0; i < c->amf->ServedGuamiCount && !found; ++i)
            if (c->amf->ServedGuami[i].amfSetId == setId) found = c;
    }
    if (!found) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "Connected Not Found For RerouteNASRequestFSM with ConnID[%u] <%s|%s|%d>", unsigned(setId),
                 __FILE_NAME__, __func__, __LINE__);
        return;
    }
    KsNGAP__ReleaseRanUeContext(ue, KS_BEARER__3GPP);
    // What ran towards the old AMF is over: a fresh initial registration towards the new one
    // takes its place, as if the console had asked for it.
    KsEngine__KsUE_ClearDefaultTimer(ue, __func__);
    KsScanario__ReleaseUEExecutionSteps(ue);
    ue->TGPP.ranAmfConnection = found;
    ue->AMFConnId = found->ID;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "RerouteNASRequest to ConnID[%u] <%s|%s|%d>", found->ID,
             __FILE_NAME__, __func__, __LINE__);
    const KsCommandQueue* q = KsEngine__CommandQueue();
    MV_KsTestCommand* c = q ? q->New() : nullptr;
    if (!c) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] no console command could be made, registration towards ConnID[%u] not started <%s|%s|%d>",
                 KsUE__supi(ue), found->ID, __FILE_NAME__, __func__, __LINE__);
        return;
    }
    c->Command = kCommandInitialRegistration;
    c->EA0 = c->EA1 = c->EA2 = c->IA0 = c->IA1 = c->IA2 = 1;
    c->TAC = 1;
    snprintf(c->MCC, sizeof c->MCC, "%.3s", ue->mcc);
    snprintf(c->MNC, sizeof c->MNC, "%.3s", ue->mnc);
    c->RANAMFConnId = found->ID;
    q->Queue(ue, c);
    KsNGAP__run_command(ue);
}

// The answer needs no UE state: the two ids echoed.
void answerContextModification(const KsNGAPUeMessage& m) {
    auto* r = static_cast<MV_AMF_DT_UEContextModificationRequest*>(m.Record);
    auto* a = static_cast<MV_AMF_DT_UEContextModificationResponse*>(
        __mv_asn_new_record(&mv_asn_amf::T_UEContextModificationResponse));
    a->aMFUENGAPID = r->aMFUENGAPID;
    a->aMFUENGAPID_isset = 1;
    a->rANUENGAPID = r->rANUENGAPID;
    a->rANUENGAPID_isset = 1;
    int sts = KsNGAP___sendRecord(uint8_t(NgapProc::UEContextModification), 1, a, m.Conn);
    __mv_amf_memfree_pdu_UEContextModificationResponse(a);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, sts > 0 ? MV_LOG_INFO : MV_LOG_ERROR,
             "Sent UEContextModificationResponse AMF-ID=%lu RAN-ID=%lu sts=%d  %s|%s|%d", (unsigned long)r->aMFUENGAPID,
             (unsigned long)r->rANUENGAPID, sts, __FILE_NAME__, __func__, __LINE__);
}

// Both ids present, with the message's own log text when one is missing.
template <class R>
bool bothIds(const KsNGAPUeMessage& m, const char* what) {
    auto* r = static_cast<R*>(m.Record);
    if (r->rANUENGAPID_isset == 1 && r->aMFUENGAPID_isset == 1) return true;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
             "received %s without RAN UE NGAP ID=%llu and AMF UE NGAP ID=%llu <%s|%s|%d>", what,
             (unsigned long long)r->rANUENGAPID, (unsigned long long)r->aMFUENGAPID, __FILE_NAME__,
             "KsNGAP__handle_ue_message", __LINE__);
    dropped(m, "UE message without its ids");
    return false;
}

// Both ids present: the RAN id into `ranId`.
template <class R>
bool ranIdOf(const KsNGAPUeMessage& m, const char* what, uint64_t& ranId) {
    if (!bothIds<R>(m, what)) return false;
    ranId = static_cast<R*>(m.Record)->rANUENGAPID;
    return true;
}

bool nasPresent(const MV_AMF_DT_NAS_PDU* nas) { return nas && nas->data && nas->length > 0; }

}  // namespace

uint64_t KsNGAP__DroppedUeMessages() { return gDropped.load(); }

int KsNGAP__run_thread(void* obj, uint64_t key, fnexec fn) {
    void* lines = __ksEngine ? __ksEngine->fsmNGAPProcessingQueue : nullptr;
    if (!lines || __ksEngine->fsmNGAPProcessingThreadCount == 0) return 0;
    return __mv_core_queue_fsm2(lines, uint32_t(key % __ksEngine->fsmNGAPProcessingThreadCount), obj, fn) == 1 ? 1 : 0;
}

int KsNGAP__handle_ue_message(const KsNGAPUeMessage& m) {
    if (!m.Record) return 0;
    uint64_t ranId = 0;
    fnexec twin = nullptr;
    switch (NgapProc(m.Code)) {
        case NgapProc::DownlinkNASTransport: {
            auto* r = static_cast<MV_AMF_DT_DownlinkNASTransport*>(m.Record);
            const char* missing = nullptr;
            if (r->rANUENGAPID_isset != 1) {
                __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                         "received DownlinkNASTransport without RAN UE NGAP ID=%llu <%s|%s|%d>",
                         (unsigned long long)r->rANUENGAPID, __FILE_NAME__, __func__, __LINE__);
                missing = "DownlinkNASTransport without RAN UE NGAP ID";
            } else if (r->aMFUENGAPID_isset != 1) {
                __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                         "received DownlinkNASTransport without AMF UE NGAP ID=%llu <%s|%s|%d>",
                         (unsigned long long)r->aMFUENGAPID, __FILE_NAME__, __func__, __LINE__);
                missing = "DownlinkNASTransport without AMF UE NGAP ID";
            } else if (r->nASPDU_isset != 1 || !nasPresent(r->nASPDU)) {
                __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "received DownlinkNASTransport without NASPDU <%s|%s|%d>",
                         __FILE_NAME__, __func__, __LINE__);
                missing = "DownlinkNASTransport without NAS PDU";
            }
            if (missing) {
                dropped(m, missing);
                return 0;
            }
            ranId = r->rANUENGAPID;
            twin = downlinkNasTransportFSM;
            break;
        }
        case NgapProc::InitialContextSetup:
            if (!ranIdOf<MV_AMF_DT_InitialContextSetupRequest>(m, "InitialContextSetupRequest", ranId)) return 0;
            twin = initialContextSetupFSM;
            break;
        case NgapProc::PDUSessionResourceSetup:
            if (!ranIdOf<MV_AMF_DT_PDUSessionResourceSetupRequest>(m, "PDUSessionResourceSetup", ranId)) return 0;
            twin = pduSessionResourceSetupFSM;
            break;
        case NgapProc::PDUSessionResourceRelease:
            if (!ranIdOf<MV_AMF_DT_PDUSessionResourceReleaseCommand>(m, "PDUSessionResourceReleaseCommand", ranId)) return 0;
            twin = pduSessionResourceReleaseFSM;
            break;
        case NgapProc::PDUSessionResourceModify:
            if (!ranIdOf<MV_AMF_DT_PDUSessionResourceModifyRequest>(m, "PDUSessionResourceReleaseCommand", ranId)) return 0;
            twin = pduSessionResourceModifyFSM;
            break;
        case NgapProc::UEContextRelease: {
            auto* r = static_cast<MV_AMF_DT_UEContextReleaseCommand*>(m.Record);
            if (r->uENGAPIDs_isset != 1 || !r->uENGAPIDs || r->uENGAPIDs->SelectedChoice != 0 ||
                !r->uENGAPIDs->u.uE_NGAP_ID_pair) {
                __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                         "received UEContextReleaseCommand without RAN UE NGAP ID <%s|%s|%d>", __FILE_NAME__, __func__,
                         __LINE__);
                dropped(m, "UEContextReleaseCommand without RAN UE NGAP ID");
                return 0;
            }
            ranId = r->uENGAPIDs->u.uE_NGAP_ID_pair->rAN_UE_NGAP_ID;
            twin = ueContextReleaseFSM;
            break;
        }
        case NgapProc::RerouteNASRequest: {
            auto* r = static_cast<MV_AMF_DT_RerouteNASRequest*>(m.Record);
            if (r->rANUENGAPID_isset != 1 || r->aMFSetID_isset != 1 || !r->aMFSetID || !r->aMFSetID->data) {
                __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                         "received RerouteNASRequest without RAN UE NGAP ID=%llu  <%s|%s|%d>",
                         (unsigned long long)r->rANUENGAPID, __FILE_NAME__, __func__, __LINE__);
                dropped(m, "RerouteNASRequest without RAN UE NGAP ID or AMF set");
                return 0;
            }
            ranId = r->rANUENGAPID;
            twin = rerouteNasRequestFSM;
            break;
        }
        case NgapProc::UEContextModification:
            if (bothIds<MV_AMF_DT_UEContextModificationRequest>(m, "UEContextModificationRequest"))
                answerContextModification(m);
            return 0;
        default:
            return 0;
    }
    int64_t ueId = KsNGAP__Find_UEId_By_RanUENgapId(m.Node, ranId);
    auto* carried = new KsNGAPUeMessage(m);
    if (KsNGAP__run_thread(carried, ueId >= 0 ? uint64_t(ueId) : ranId, twin) == 1) return 1;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "UE lines not running, procedureCode=%u dropped <%s|%s|%d>", m.Code,
             __FILE_NAME__, __func__, __LINE__);
    delete carried;
    return 0;
}

// ---------------------------------------------------------------- answers

int KsNGAP___send_InitialContextSetupResponse(MV_KsNGRanUeContext* ctx, const uint8_t* pduSessionIdList,
                                              uint32_t count) {
    MV_KsUE* ue = ctx ? ctx->ksUe : nullptr;
    if (!ue) return -1;
    MV_KsRanAmfConnection* conn = ctx->ranAmfConn;
    if (!conn || !KsNGAP__OkToSend(conn)) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 conn ? "MV_KsRanAmfConnection is NotOk, Unable to send InitialContextSetupResponse %s|%s|%d"
                      : "MV_KsRanAmfConnection is NULL, Unable to send InitialContextSetupResponse %s|%s|%d",
                 __FILE_NAME__, __func__, __LINE__);
        sendingFailed(ue);
        return -1;
    }
    auto* a = static_cast<MV_AMF_DT_InitialContextSetupResponse*>(
        __mv_asn_new_record(&mv_asn_amf::T_InitialContextSetupResponse));
    a->aMFUENGAPID = ctx->amf_id;
    a->aMFUENGAPID_isset = 1;
    a->rANUENGAPID = KsNGAP___GetKsNGRanUeContext_UEId(ctx);
    a->rANUENGAPID_isset = 1;
    if (count > 0) {
        SessionIds ids;
        for (uint32_t i = 0; i < count; ++i) ids.add(pduSessionIdList[i]);
        a->pDUSessionResourceSetupListCxtRes = setupList<MV_AMF_DT_PDUSessionResourceSetupListCxtRes,
                                                         MV_AMF_DT_PDUSessionResourceSetupItemCxtRes>(
            ue, ids, &MV_AMF_DT_PDUSessionResourceSetupListCxtRes::PDUSessionResourceSetupItemCxtRes,
            &MV_AMF_DT_PDUSessionResourceSetupItemCxtRes::pDUSessionResourceSetupResponseTransfer,
            __mv_amf_init_PDUSessionResourceSetupItemCxtRes_pDUSessionResourceSetupResponseTransfer2);
        a->pDUSessionResourceSetupListCxtRes_isset = 1;
    }
    uint64_t ranId = a->rANUENGAPID;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] Sending InitialContextSetupResponse AMF-ID=%lu NGAP-ID=%lu   %s|%s|%d",
             KsUE__supi(ue), (unsigned long)ctx->amf_id, (unsigned long)ranId, __FILE_NAME__, __func__, __LINE__);
    KsScanario__AddEvent(ue, 14, 0, 0, 0);
    int sts = KsNGAP___sendRecord(uint8_t(NgapProc::InitialContextSetup), 1, a, conn);
    __mv_amf_memfree_pdu_InitialContextSetupResponse(a);
    if (sts > 0) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] Sent InitialContextSetupResponse RAN-ID=%lu  %s|%s|%d",
                 KsUE__supi(ue), (unsigned long)ranId, __FILE_NAME__, __func__, __LINE__);
    } else {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] Sending InitialContextSetupResponse Failed RAN-ID=%lu with sts=%d   %s|%s|%d", KsUE__supi(ue),
                 (unsigned long)ranId, sts, __FILE_NAME__, __func__, __LINE__);
        sendingFailed(ue);
    }
    return sts;
}

int KsNGAP___send_PDUSessionResourceReleaseResponse(MV_KsNGRanUeContext* ctx, uint64_t amfId, uint64_t ranId,
                                                    const uint8_t* pduSessionIdList, uint32_t count,
                                                    MV_KsRanAmfConnection* conn) {
    MV_KsUE* ue = ctx ? ctx->ksUe : nullptr;
    if (!ue) return -1;
    auto* a = static_cast<MV_AMF_DT_PDUSessionResourceReleaseResponse*>(
        __mv_asn_new_record(&mv_asn_amf::T_PDUSessionResourceReleaseResponse));
    a->aMFUENGAPID = amfId;
    a->aMFUENGAPID_isset = 1;
    a->rANUENGAPID = ranId;
    a->rANUENGAPID_isset = 1;
    auto* list = static_cast<MV_AMF_DT_PDUSessionResourceReleasedListRelRes*>(
        __mv_asn_alloc(sizeof(MV_AMF_DT_PDUSessionResourceReleasedListRelRes)));
    // The response transfer has only extensions: its encoding is the one byte 0.
    static constexpr uint8_t kEmptyTransfer = 0;
    for (uint32_t i = 0; i < count; ++i) {
        auto* item = static_cast<MV_AMF_DT_PDUSessionResourceReleasedItemRelRes*>(
            __mv_asn_alloc(sizeof(MV_AMF_DT_PDUSessionResourceReleasedItemRelRes)));
        item->pDUSessionID = pduSessionIdList[i];
        item->pDUSessionResourceReleaseResponseTransfer = octets(
            __mv_amf_init_PDUSessionResourceReleasedItemRelRes_pDUSessionResourceReleaseResponseTransfer2,
            &kEmptyTransfer, 1);
        append(list, &MV_AMF_DT_PDUSessionResourceReleasedListRelRes::PDUSessionResourceReleasedItemRelRes, item);
    }
    a->pDUSessionResourceReleasedListRelRes = list;
    a->pDUSessionResourceReleasedListRelRes_isset = count > 0 ? 1 : 0;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
             "[%s] Sending PDUSessionResourceReleaseResponse AMF-ID=%lu NGAP-ID=%lu pduSessionCount=%u  %s|%s|%d",
             KsUE__supi(ue), (unsigned long)amfId, (unsigned long)ranId, count, __FILE_NAME__, __func__, __LINE__);
    KsScanario__AddEvent_BYNGAPID(ranId, 28, 0);
    int sts = KsNGAP___sendRecord(uint8_t(NgapProc::PDUSessionResourceRelease), 1, a, conn);
    __mv_amf_memfree_pdu_PDUSessionResourceReleaseResponse(a);
    if (sts > 0)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] Sent PDUSessionResourceReleaseResponse RAN-ID=%lu  %s|%s|%d",
                 KsUE__supi(ue), (unsigned long)ranId, __FILE_NAME__, __func__, __LINE__);
    else
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] Sending PDUSessionResourceReleaseResponse Failed RAN-ID=%lu with sts=%d   %s|%s|%d",
                 KsUE__supi(ue), (unsigned long)ranId, sts, __FILE_NAME__, __func__, __LINE__);
    return sts;
}
