#include "ca_ngap.h"

#include <cstdio>

namespace ca {

using namespace mv_asn_amf;

// ---------------------------------------------------------------- causes

NgCause radioCause(const char* name) { return {0, enumValue(T_CauseRadioNetwork, name)}; }
NgCause nasCause(const char* name) { return {2, enumValue(T_CauseNas, name)}; }
NgCause protocolCause(const char* name) { return {3, enumValue(T_CauseProtocol, name)}; }
NgCause miscCause(const char* name) { return {4, enumValue(T_CauseMisc, name)}; }

std::string causeText(NgCause c) {
    static const MvAsnType* const groups[] = {&T_CauseRadioNetwork, &T_CauseTransport, &T_CauseNas, &T_CauseProtocol,
                                              &T_CauseMisc};
    static const char* const groupNames[] = {"radioNetwork", "transport", "nas", "protocol", "misc"};
    if (c.group > 4) return "?";
    const MvAsnType* t = groups[c.group];
    std::string v = c.value < t->nAll && t->names ? t->names[c.value] : std::to_string(c.value);
    return std::string(groupNames[c.group]) + "/" + v;
}

namespace {

__mv_amf_dt_Cause* makeCause(NgCause c) {
    auto* r = make(__mv_amf_init_Cause);
    r->SelectedChoice = c.group;
    r->u.radioNetwork = c.value;  // every group's value is the one byte of the union
    return r;
}

__mv_amf_dt_PLMNIdentity* plmnRec(const uint8_t plmn[3]) { return octets(__mv_amf_init_PLMNIdentity2, plmn, 3); }

__mv_amf_dt_S_NSSAI* snssaiRec(const SNssai& s) {
    auto* r = make(__mv_amf_init_S_NSSAI);
    r->sST = octets(__mv_amf_init_SST2, &s.sst, 1);
    if (s.hasSd) {
        r->sD = octets(__mv_amf_init_SD2, s.sd, 3);
        r->isPresent_sD = 1;
    }
    return r;
}

__mv_amf_dt_GUAMI* guamiRec(const Guami& g) {
    auto* r = make(__mv_amf_init_GUAMI);
    r->pLMNIdentity = plmnRec(g.plmn);
    r->aMFRegionID = bits(__mv_amf_init_AMFRegionID2, &g.region, 1, 8);
    const uint8_t set[2] = {uint8_t(g.set >> 2), uint8_t((g.set & 3) << 6)};
    r->aMFSetID = bits(__mv_amf_init_AMFSetID2, set, 2, 10);
    const uint8_t ptr = uint8_t(g.pointer << 2);
    r->aMFPointer = bits(__mv_amf_init_AMFPointer2, &ptr, 1, 6);
    return r;
}

__mv_amf_dt_AllowedNSSAI* allowedRec(const std::vector<SNssai>& slices) {
    auto* r = make(__mv_amf_init_AllowedNSSAI);
    for (const SNssai& s : slices) {
        auto* it = make(__mv_amf_init_AllowedNSSAI_Item);
        it->s_NSSAI = snssaiRec(s);
        r->AllowedNSSAI_Item = appended(r->AllowedNSSAI_Item, it);
    }
    return r;
}

__mv_amf_dt_UEAggregateMaximumBitRate* ambrRec(uint64_t bps) {
    auto* r = make(__mv_amf_init_UEAggregateMaximumBitRate);
    r->uEAggregateMaximumBitRateDL = bps;
    r->uEAggregateMaximumBitRateUL = bps;
    return r;
}

}  // namespace

// ---------------------------------------------------------------- interface management

bool buildNgSetupResponse(const std::string& amfName, const Guami& g, uint8_t capacity, const uint8_t plmn[3],
                          const std::vector<SNssai>& slices, Ctx& ctx) {
    auto* m = make(__mv_amf_init_NGSetupResponse);
    m->aMFName = text(__mv_amf_init_AMFName2, amfName);
    m->aMFName_isset = 1;
    m->servedGUAMIList = make(__mv_amf_init_ServedGUAMIList);
    auto* item = make(__mv_amf_init_ServedGUAMIItem);
    item->gUAMI = guamiRec(g);
    m->servedGUAMIList->ServedGUAMIItem = appended(m->servedGUAMIList->ServedGUAMIItem, item);
    m->servedGUAMIList_isset = 1;
    m->relativeAMFCapacity = capacity;
    m->relativeAMFCapacity_isset = 1;
    m->pLMNSupportList = make(__mv_amf_init_PLMNSupportList);
    auto* ps = make(__mv_amf_init_PLMNSupportItem);
    ps->pLMNIdentity = plmnRec(plmn);
    ps->sliceSupportList = make(__mv_amf_init_SliceSupportList);
    for (const SNssai& s : slices) {
        auto* si = make(__mv_amf_init_SliceSupportItem);
        si->s_NSSAI = snssaiRec(s);
        ps->sliceSupportList->SliceSupportItem = appended(ps->sliceSupportList->SliceSupportItem, si);
    }
    m->pLMNSupportList->PLMNSupportItem = appended(m->pLMNSupportList->PLMNSupportItem, ps);
    m->pLMNSupportList_isset = 1;
    return encodeAndFree(pdu("NGSetupResponse"), m, ctx);
}

bool buildNgSetupFailure(NgCause c, Ctx& ctx) {
    auto* m = make(__mv_amf_init_NGSetupFailure);
    m->cause = makeCause(c);
    m->cause_isset = 1;
    return encodeAndFree(pdu("NGSetupFailure"), m, ctx);
}

bool buildNgResetAcknowledge(const std::vector<std::pair<uint64_t, uint64_t>>& ids, bool partial, Ctx& ctx) {
    auto* m = make(__mv_amf_init_NGResetAcknowledge);
    if (partial && !ids.empty()) {
        m->uEassociatedLogicalNGconnectionList = make(__mv_amf_init_UE_associatedLogicalNG_connectionList);
        for (const auto& [amf, ran] : ids) {
            auto* it = make(__mv_amf_init_UE_associatedLogicalNG_connectionItem);
            it->aMF_UE_NGAP_ID = amf;
            it->isPresent_aMF_UE_NGAP_ID = amf != 0;
            it->rAN_UE_NGAP_ID = ran;
            it->isPresent_rAN_UE_NGAP_ID = 1;
            m->uEassociatedLogicalNGconnectionList->UE_associatedLogicalNG_connectionItem = appended(m->uEassociatedLogicalNGconnectionList->UE_associatedLogicalNG_connectionItem, it);
        }
        m->uEassociatedLogicalNGconnectionList_isset = 1;
    }
    return encodeAndFree(pdu("NGResetAcknowledge"), m, ctx);
}

bool buildErrorIndication(uint64_t amfId, bool hasAmf, uint64_t ranId, bool hasRan, NgCause c, Ctx& ctx) {
    auto* m = make(__mv_amf_init_ErrorIndication);
    m->aMFUENGAPID = amfId;
    m->aMFUENGAPID_isset = hasAmf;
    m->rANUENGAPID = ranId;
    m->rANUENGAPID_isset = hasRan;
    m->cause = makeCause(c);
    m->cause_isset = 1;
    return encodeAndFree(pdu("ErrorIndication"), m, ctx);
}

// ---------------------------------------------------------------- UE-associated

bool buildDownlinkNasTransport(uint64_t amfId, uint64_t ranId, std::span<const uint8_t> nas, Ctx& ctx) {
    auto* m = make(__mv_amf_init_DownlinkNASTransport);
    m->aMFUENGAPID = amfId;
    m->aMFUENGAPID_isset = 1;
    m->rANUENGAPID = ranId;
    m->rANUENGAPID_isset = 1;
    m->nASPDU = octets(__mv_amf_init_NAS_PDU2, nas.data(), nas.size());
    m->nASPDU_isset = 1;
    return encodeAndFree(pdu("DownlinkNASTransport"), m, ctx);
}

bool buildInitialContextSetupRequest(const ContextSetup& c, Ctx& ctx) {
    auto* m = make(__mv_amf_init_InitialContextSetupRequest);
    m->aMFUENGAPID = c.amfId;
    m->aMFUENGAPID_isset = 1;
    m->rANUENGAPID = c.ranId;
    m->rANUENGAPID_isset = 1;
    if (!c.sessions.empty()) {  // the UE AMBR goes with the first sessions of a UE
        m->uEAggregateMaximumBitRate = ambrRec(c.ueAmbrBps);
        m->uEAggregateMaximumBitRate_isset = 1;
    }
    m->gUAMI = guamiRec(c.guami);
    m->gUAMI_isset = 1;
    if (!c.sessions.empty()) {
        m->pDUSessionResourceSetupListCxtReq = make(__mv_amf_init_PDUSessionResourceSetupListCxtReq);
        for (const SessionItem& s : c.sessions) {
            auto* it = make(__mv_amf_init_PDUSessionResourceSetupItemCxtReq);
            it->pDUSessionID = s.psi;
            if (!s.nas.empty()) {
                it->nAS_PDU = octets(__mv_amf_init_NAS_PDU2, s.nas.data(), s.nas.size());
                it->isPresent_nAS_PDU = 1;
            }
            it->s_NSSAI = snssaiRec(s.snssai);
            it->pDUSessionResourceSetupRequestTransfer = octets(
                __mv_amf_init_PDUSessionResourceSetupItemCxtReq_pDUSessionResourceSetupRequestTransfer2,
                s.transfer.data(), s.transfer.size());
            m->pDUSessionResourceSetupListCxtReq->PDUSessionResourceSetupItemCxtReq = appended(m->pDUSessionResourceSetupListCxtReq->PDUSessionResourceSetupItemCxtReq, it);
        }
        m->pDUSessionResourceSetupListCxtReq_isset = 1;
    }
    m->allowedNSSAI = allowedRec(c.allowed);
    m->allowedNSSAI_isset = 1;
    m->uESecurityCapabilities = make(__mv_amf_init_UESecurityCapabilities);
    m->uESecurityCapabilities->nRencryptionAlgorithms = bits(__mv_amf_init_NRencryptionAlgorithms2, c.nrEnc, 2, 16);
    m->uESecurityCapabilities->nRintegrityProtectionAlgorithms =
        bits(__mv_amf_init_NRintegrityProtectionAlgorithms2, c.nrInt, 2, 16);
    m->uESecurityCapabilities->eUTRAencryptionAlgorithms =
        bits(__mv_amf_init_EUTRAencryptionAlgorithms2, c.eutraEnc, 2, 16);
    m->uESecurityCapabilities->eUTRAintegrityProtectionAlgorithms =
        bits(__mv_amf_init_EUTRAintegrityProtectionAlgorithms2, c.eutraInt, 2, 16);
    m->uESecurityCapabilities_isset = 1;
    m->securityKey = bits(__mv_amf_init_SecurityKey2, c.kgnb, 32, 256);
    m->securityKey_isset = 1;
    if (!c.nas.empty()) {
        m->nASPDU = octets(__mv_amf_init_NAS_PDU2, c.nas.data(), c.nas.size());
        m->nASPDU_isset = 1;
    }
    return encodeAndFree(pdu("InitialContextSetupRequest"), m, ctx);
}

bool buildSessionSetupRequest(uint64_t amfId, uint64_t ranId, const std::vector<SessionItem>& sessions,
                              uint64_t ueAmbrBps, Ctx& ctx) {
    auto* m = make(__mv_amf_init_PDUSessionResourceSetupRequest);
    m->aMFUENGAPID = amfId;
    m->aMFUENGAPID_isset = 1;
    m->rANUENGAPID = ranId;
    m->rANUENGAPID_isset = 1;
    m->pDUSessionResourceSetupListSUReq = make(__mv_amf_init_PDUSessionResourceSetupListSUReq);
    for (const SessionItem& s : sessions) {
        auto* it = make(__mv_amf_init_PDUSessionResourceSetupItemSUReq);
        it->pDUSessionID = s.psi;
        if (!s.nas.empty()) {
            it->pDUSessionNAS_PDU = octets(__mv_amf_init_NAS_PDU2, s.nas.data(), s.nas.size());
            it->isPresent_pDUSessionNAS_PDU = 1;
        }
        it->s_NSSAI = snssaiRec(s.snssai);
        it->pDUSessionResourceSetupRequestTransfer =
            octets(__mv_amf_init_PDUSessionResourceSetupItemSUReq_pDUSessionResourceSetupRequestTransfer2,
                   s.transfer.data(), s.transfer.size());
        m->pDUSessionResourceSetupListSUReq->PDUSessionResourceSetupItemSUReq = appended(m->pDUSessionResourceSetupListSUReq->PDUSessionResourceSetupItemSUReq, it);
    }
    m->pDUSessionResourceSetupListSUReq_isset = 1;
    if (ueAmbrBps) {
        m->uEAggregateMaximumBitRate = ambrRec(ueAmbrBps);
        m->uEAggregateMaximumBitRate_isset = 1;
    }
    return encodeAndFree(pdu("PDUSessionResourceSetupRequest"), m, ctx);
}

bool buildSessionReleaseCommand(uint64_t amfId, uint64_t ranId, std::span<const uint8_t> nas,
                                const std::vector<std::pair<uint8_t, std::span<const uint8_t>>>& transfers, Ctx& ctx) {
    auto* m = make(__mv_amf_init_PDUSessionResourceReleaseCommand);
    m->aMFUENGAPID = amfId;
    m->aMFUENGAPID_isset = 1;
    m->rANUENGAPID = ranId;
    m->rANUENGAPID_isset = 1;
    if (!nas.empty()) {
        m->nASPDU = octets(__mv_amf_init_NAS_PDU2, nas.data(), nas.size());
        m->nASPDU_isset = 1;
    }
    m->pDUSessionResourceToReleaseListRelCmd = make(__mv_amf_init_PDUSessionResourceToReleaseListRelCmd);
    for (const auto& [psi, t] : transfers) {
        auto* it = make(__mv_amf_init_PDUSessionResourceToReleaseItemRelCmd);
        it->pDUSessionID = psi;
        it->pDUSessionResourceReleaseCommandTransfer = octets(
            __mv_amf_init_PDUSessionResourceToReleaseItemRelCmd_pDUSessionResourceReleaseCommandTransfer2, t.data(),
            t.size());
        m->pDUSessionResourceToReleaseListRelCmd->PDUSessionResourceToReleaseItemRelCmd = appended(m->pDUSessionResourceToReleaseListRelCmd->PDUSessionResourceToReleaseItemRelCmd, it);
    }
    m->pDUSessionResourceToReleaseListRelCmd_isset = 1;
    return encodeAndFree(pdu("PDUSessionResourceReleaseCommand"), m, ctx);
}

bool buildUeContextReleaseCommand(uint64_t amfId, uint64_t ranId, NgCause c, Ctx& ctx) {
    auto* m = make(__mv_amf_init_UEContextReleaseCommand);
    m->uENGAPIDs = make(__mv_amf_init_UE_NGAP_IDs);
    m->uENGAPIDs->SelectedChoice = 0;
    m->uENGAPIDs->u.uE_NGAP_ID_pair = make(__mv_amf_init_UE_NGAP_ID_pair);
    m->uENGAPIDs->u.uE_NGAP_ID_pair->aMF_UE_NGAP_ID = amfId;
    m->uENGAPIDs->u.uE_NGAP_ID_pair->rAN_UE_NGAP_ID = ranId;
    m->uENGAPIDs_isset = 1;
    m->cause = makeCause(c);
    m->cause_isset = 1;
    return encodeAndFree(pdu("UEContextReleaseCommand"), m, ctx);
}

// ---------------------------------------------------------------- session transfers

bool buildSetupRequestTransfer(uint8_t pduType, const UpTunnel& upf, uint8_t qfi, uint8_t fiveQi, uint64_t ambrBps,
                               Ctx& ctx) {
    auto* t = make(__mv_amf_init_PDUSessionResourceSetupRequestTransfer);
    t->pDUSessionAggregateMaximumBitRate = make(__mv_amf_init_PDUSessionAggregateMaximumBitRate);
    t->pDUSessionAggregateMaximumBitRate->pDUSessionAggregateMaximumBitRateDL = ambrBps;
    t->pDUSessionAggregateMaximumBitRate->pDUSessionAggregateMaximumBitRateUL = ambrBps;
    t->pDUSessionAggregateMaximumBitRate_isset = 1;
    t->uLNGUUPTNLInformation = make(__mv_amf_init_UPTransportLayerInformation);
    t->uLNGUUPTNLInformation->SelectedChoice = 0;
    auto* g = make(__mv_amf_init_GTPTunnel);
    g->transportLayerAddress = bits(__mv_amf_init_TransportLayerAddress2, upf.addr, upf.addrLen, upf.addrLen * 8);
    const uint8_t teid[4] = {uint8_t(upf.teid >> 24), uint8_t(upf.teid >> 16), uint8_t(upf.teid >> 8), uint8_t(upf.teid)};
    g->gTP_TEID = octets(__mv_amf_init_GTP_TEID2, teid, 4);
    t->uLNGUUPTNLInformation->u.gTPTunnel = g;
    t->uLNGUUPTNLInformation_isset = 1;
    t->pDUSessionType = pduType;
    t->pDUSessionType_isset = 1;
    t->qosFlowSetupRequestList = make(__mv_amf_init_QosFlowSetupRequestList);
    auto* f = make(__mv_amf_init_QosFlowSetupRequestItem);
    f->qosFlowIdentifier = qfi;
    f->qosFlowLevelQosParameters = make(__mv_amf_init_QosFlowLevelQosParameters);
    f->qosFlowLevelQosParameters->qosCharacteristics = make(__mv_amf_init_QosCharacteristics);
    f->qosFlowLevelQosParameters->qosCharacteristics->SelectedChoice = 0;
    f->qosFlowLevelQosParameters->qosCharacteristics->u.nonDynamic5QI = make(__mv_amf_init_NonDynamic5QIDescriptor);
    f->qosFlowLevelQosParameters->qosCharacteristics->u.nonDynamic5QI->fiveQI = fiveQi;
    f->qosFlowLevelQosParameters->allocationAndRetentionPriority = make(__mv_amf_init_AllocationAndRetentionPriority);
    f->qosFlowLevelQosParameters->allocationAndRetentionPriority->priorityLevelARP = 8;
    t->qosFlowSetupRequestList->QosFlowSetupRequestItem = appended(t->qosFlowSetupRequestList->QosFlowSetupRequestItem, f);
    t->qosFlowSetupRequestList_isset = 1;
    bool ok = encodeValue(__mv_amf_Encode_PDUSessionResourceSetupRequestTransfer, t, ctx);
    __mv_amf_memfree_PDUSessionResourceSetupRequestTransfer(t);
    return ok;
}

bool buildReleaseCommandTransfer(NgCause c, Ctx& ctx) {
    auto* t = make(__mv_amf_init_PDUSessionResourceReleaseCommandTransfer);
    t->cause = makeCause(c);
    bool ok = encodeValue(__mv_amf_Encode_PDUSessionResourceReleaseCommandTransfer, t, ctx);
    __mv_amf_memfree_PDUSessionResourceReleaseCommandTransfer(t);
    return ok;
}

bool readSetupResponseTransfer(std::span<const uint8_t> bytes, UpTunnel& gnb) {
    auto* t = decodeValue(__mv_amf_Decode_PDUSessionResourceSetupResponseTransfer,
                          __mv_amf_memfree_PDUSessionResourceSetupResponseTransfer, bytes);
    if (!t) return false;
    bool ok = false;
    const auto* dl = t->dLQosFlowPerTNLInformation;
    if (dl && dl->uPTransportLayerInformation && dl->uPTransportLayerInformation->SelectedChoice == 0) {
        const auto* g = dl->uPTransportLayerInformation->u.gTPTunnel;
        auto addr = g ? view(g->transportLayerAddress) : std::span<const uint8_t>{};
        auto teid = g ? view(g->gTP_TEID) : std::span<const uint8_t>{};
        if (teid.size() == 4 && !addr.empty() && addr.size() <= sizeof gnb.addr) {
            gnb.teid = uint32_t(teid[0]) << 24 | uint32_t(teid[1]) << 16 | uint32_t(teid[2]) << 8 | teid[3];
            memcpy(gnb.addr, addr.data(), addr.size());
            gnb.addrLen = uint8_t(addr.size());
            ok = true;
        }
    }
    __mv_amf_memfree_PDUSessionResourceSetupResponseTransfer(t);
    return ok;
}

// ---------------------------------------------------------------- reading

bool readNrTai(const __mv_amf_dt_UserLocationInformation* uli, uint8_t plmn[3], uint8_t tac[3]) {
    if (!uli || uli->SelectedChoice != 1 || !uli->u.userLocationInformationNR) return false;
    const auto* tai = uli->u.userLocationInformationNR->tAI;
    if (!tai) return false;
    auto p = view(tai->pLMNIdentity), t = view(tai->tAC);
    if (p.size() != 3 || t.size() != 3) return false;
    memcpy(plmn, p.data(), 3);
    memcpy(tac, t.data(), 3);
    return true;
}

bool readFiveGSTmsi(const __mv_amf_dt_FiveG_S_TMSI* s, uint16_t& set, uint8_t& pointer, uint32_t& tmsi) {
    if (!s) return false;
    auto st = view(s->aMFSetID), p = view(s->aMFPointer), t = view(s->fiveG_TMSI);
    if (st.size() < 2 || p.empty() || t.size() != 4) return false;
    set = uint16_t(st[0] << 2 | st[1] >> 6);
    pointer = uint8_t(p[0] >> 2);
    tmsi = uint32_t(t[0]) << 24 | uint32_t(t[1]) << 16 | uint32_t(t[2]) << 8 | t[3];
    return true;
}

std::vector<std::array<uint8_t, 3>> readBroadcastPlmns(const __mv_amf_dt_SupportedTAList* list) {
    std::vector<std::array<uint8_t, 3>> out;
    if (!list) return out;
    forEach(list->SupportedTAItem, [&](void* p) {
        auto* ta = static_cast<__mv_amf_dt_SupportedTAItem*>(p);
        if (!ta->broadcastPLMNList) return;
        forEach(ta->broadcastPLMNList->BroadcastPLMNItem, [&](void* q) {
            auto v = view(static_cast<__mv_amf_dt_BroadcastPLMNItem*>(q)->pLMNIdentity);
            if (v.size() == 3) out.push_back({v[0], v[1], v[2]});
        });
    });
    return out;
}

std::string ranNodeText(const __mv_amf_dt_NGSetupRequest* m) {
    std::string s;
    if (m->rANNodeName_isset && m->rANNodeName) {
        auto v = view(m->rANNodeName);
        s.assign(v.begin(), v.end());
    }
    const auto* g = m->globalRANNodeID;
    if (g && g->SelectedChoice == 0 && g->u.globalGNB_ID && g->u.globalGNB_ID->gNB_ID &&
        g->u.globalGNB_ID->gNB_ID->SelectedChoice == 0) {
        auto id = view(g->u.globalGNB_ID->gNB_ID->u.gNB_ID);
        char hex[24] = "";
        for (size_t i = 0; i < id.size() && i < 8; ++i) snprintf(hex + 2 * i, 3, "%02X", id[i]);
        s += std::string(s.empty() ? "" : " ") + "gNB-ID=" + hex;
    }
    return s.empty() ? "unnamed" : s;
}

}  // namespace ca
