// Hand-built records with known values, for checks that look at single fields (tshark's,
// or the handler's) and for the benchmarks.
#pragma once

#include <cstring>
#include <vector>

#include "mv_ngap.h"

namespace kng {

template <class T>
T* newRec(const MvAsnType& t) {
    return static_cast<T*>(__mv_asn_new_record(&t));
}

// The init operations fill a pointer; records are packed, so go through a local.
template <class R>
R* s2(int (*init)(R**, const uint8_t*, uint32_t), const uint8_t* bytes, uint32_t n) {
    R* r = nullptr;
    init(&r, bytes, n);
    return r;
}

inline __mv_asn_list* listOf(void* item) {
    __mv_asn_list* l = nullptr;
    __mv_asn_list_add(&l, item);
    return l;
}

// Session AMBR 1000000/500000, uplink tunnel 10.0.0.1 TEID 01020304, IPv4, one QoS flow
// QFI 9 of 5QI 9 with ARP priority 8.
inline MV_AMF_DT_PDUSessionResourceSetupRequestTransfer* handTransfer() {
    using namespace mv_asn_amf;
    auto* t = newRec<MV_AMF_DT_PDUSessionResourceSetupRequestTransfer>(T_PDUSessionResourceSetupRequestTransfer);
    auto* ambr = newRec<MV_AMF_DT_PDUSessionAggregateMaximumBitRate>(T_PDUSessionAggregateMaximumBitRate);
    ambr->pDUSessionAggregateMaximumBitRateDL = 1000000;
    ambr->pDUSessionAggregateMaximumBitRateUL = 500000;
    t->pDUSessionAggregateMaximumBitRate = ambr;
    t->pDUSessionAggregateMaximumBitRate_isset = 1;

    const uint8_t addr[4] = {10, 0, 0, 1}, teid[4] = {1, 2, 3, 4};
    auto* gtp = newRec<MV_AMF_DT_GTPTunnel>(T_GTPTunnel);
    gtp->transportLayerAddress = s2(__mv_amf_init_TransportLayerAddress2, addr, 4);
    gtp->gTP_TEID = s2(__mv_amf_init_GTP_TEID2, teid, 4);
    auto* ul = newRec<MV_AMF_DT_UPTransportLayerInformation>(T_UPTransportLayerInformation);
    ul->SelectedChoice = 0;
    ul->u.gTPTunnel = gtp;
    t->uLNGUUPTNLInformation = ul;
    t->uLNGUUPTNLInformation_isset = 1;

    t->pDUSessionType = 0;  // ipv4
    t->pDUSessionType_isset = 1;

    auto* nd = newRec<MV_AMF_DT_NonDynamic5QIDescriptor>(T_NonDynamic5QIDescriptor);
    nd->fiveQI = 9;
    auto* qc = newRec<MV_AMF_DT_QosCharacteristics>(T_QosCharacteristics);
    qc->SelectedChoice = 0;
    qc->u.nonDynamic5QI = nd;
    auto* arp = newRec<MV_AMF_DT_AllocationAndRetentionPriority>(T_AllocationAndRetentionPriority);
    arp->priorityLevelARP = 8;
    auto* qos = newRec<MV_AMF_DT_QosFlowLevelQosParameters>(T_QosFlowLevelQosParameters);
    qos->qosCharacteristics = qc;
    qos->allocationAndRetentionPriority = arp;
    auto* flow = newRec<MV_AMF_DT_QosFlowSetupRequestItem>(T_QosFlowSetupRequestItem);
    flow->qosFlowIdentifier = 9;
    flow->qosFlowLevelQosParameters = qos;
    auto* flows = newRec<MV_AMF_DT_QosFlowSetupRequestList>(T_QosFlowSetupRequestList);
    flows->QosFlowSetupRequestItem = listOf(flow);
    t->qosFlowSetupRequestList = flows;
    t->qosFlowSetupRequestList_isset = 1;
    return t;
}

// A PDUSessionResourceSetupRequest for session 5 whose item carries these transfer octets.
inline MV_AMF_DT_PDUSessionResourceSetupRequest* setupRequestWith(const std::vector<uint8_t>& transfer) {
    using namespace mv_asn_amf;
    auto* m = newRec<MV_AMF_DT_PDUSessionResourceSetupRequest>(T_PDUSessionResourceSetupRequest);
    m->aMFUENGAPID = 0x1122334455ull;
    m->aMFUENGAPID_isset = 1;
    m->rANUENGAPID = 7;
    m->rANUENGAPID_isset = 1;
    const uint8_t sst = 1;
    auto* item = newRec<MV_AMF_DT_PDUSessionResourceSetupItemSUReq>(T_PDUSessionResourceSetupItemSUReq);
    item->pDUSessionID = 5;
    item->s_NSSAI = newRec<MV_AMF_DT_S_NSSAI>(T_S_NSSAI);
    item->s_NSSAI->sST = s2(__mv_amf_init_SST2, &sst, 1);
    item->pDUSessionResourceSetupRequestTransfer =
        s2(__mv_amf_init_PDUSessionResourceSetupItemSUReq_pDUSessionResourceSetupRequestTransfer2, transfer.data(),
           uint32_t(transfer.size()));
    auto* list = newRec<MV_AMF_DT_PDUSessionResourceSetupListSUReq>(T_PDUSessionResourceSetupListSUReq);
    list->PDUSessionResourceSetupItemSUReq = listOf(item);
    m->pDUSessionResourceSetupListSUReq = list;
    m->pDUSessionResourceSetupListSUReq_isset = 1;
    return m;
}

// A PDUSessionResourceModifyRequest for session 5 whose item carries these transfer octets.
inline MV_AMF_DT_PDUSessionResourceModifyRequest* modifyRequestWith(const std::vector<uint8_t>& transfer) {
    using namespace mv_asn_amf;
    auto* m = newRec<MV_AMF_DT_PDUSessionResourceModifyRequest>(T_PDUSessionResourceModifyRequest);
    m->aMFUENGAPID = 99;
    m->aMFUENGAPID_isset = 1;
    m->rANUENGAPID = 7;
    m->rANUENGAPID_isset = 1;
    auto* item = newRec<MV_AMF_DT_PDUSessionResourceModifyItemModReq>(T_PDUSessionResourceModifyItemModReq);
    item->pDUSessionID = 5;
    item->pDUSessionResourceModifyRequestTransfer =
        s2(__mv_amf_init_PDUSessionResourceModifyItemModReq_pDUSessionResourceModifyRequestTransfer2, transfer.data(),
           uint32_t(transfer.size()));
    auto* list = newRec<MV_AMF_DT_PDUSessionResourceModifyListModReq>(T_PDUSessionResourceModifyListModReq);
    list->PDUSessionResourceModifyItemModReq = listOf(item);
    m->pDUSessionResourceModifyListModReq = list;
    m->pDUSessionResourceModifyListModReq_isset = 1;
    return m;
}

// The octets a transfer encoder leaves in its context, or none on failure.
template <class R>
std::vector<uint8_t> transferBytes(int (*encode)(R*, __mv_asn_coding_context*), R* rec) {
    static thread_local __mv_asn_coding_context ctx;
    if (encode(rec, &ctx) < 1) return {};
    return std::vector<uint8_t>(ctx.buffer, ctx.buffer + ctx.pos);
}

}  // namespace kng
