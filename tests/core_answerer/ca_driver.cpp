#include "ca_driver.h"

#include <arpa/inet.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "ca_asn.h"
#include "ca_nas.h"
#include "mv_naspdu.h"
#include "mv_nas_util.h"
#include "mvalgo.h"

namespace cad {

using ca::appended;
using ca::bits;
using ca::make;
using ca::octets;
using ca::view;
using Ctx = __mv_asn_coding_context;

namespace {

bool hex(const std::string& s, uint8_t* out, size_t n) {
    if (s.size() != 2 * n) return false;
    for (size_t i = 0; i < n; ++i) out[i] = uint8_t(std::stoul(s.substr(2 * i, 2), nullptr, 16));
    return true;
}

void byteIe(__naspdu_ie_byte& ie, uint8_t v) {
    ie.Length = 1;
    ie.Value = v;
    ie.isset = 1;
}

// The UE's view of COUNT: the last one seen, moved on by the sequence number.
uint32_t estimate(uint32_t next, uint8_t sn) {
    uint32_t overflow = next >> 8;
    if (sn < (next & 0xFF)) ++overflow;
    return ((overflow << 8) | sn) & 0xFFFFFF;
}

const char* mmName(uint8_t t) { return __mv_naspdu_message_name(0x7E, t); }
const char* smName(uint8_t t) { return __mv_naspdu_message_name(0x2E, t); }

__mv_amf_dt_PLMNIdentity* plmnRec(const uint8_t* p) { return octets(__mv_amf_init_PLMNIdentity2, p, 3); }

__mv_amf_dt_UserLocationInformation* location(const uint8_t* plmn, uint32_t tac, uint32_t cell) {
    auto* uli = make(__mv_amf_init_UserLocationInformation);
    uli->SelectedChoice = 1;
    auto* nr = make(__mv_amf_init_UserLocationInformationNR);
    nr->nR_CGI = make(__mv_amf_init_NR_CGI);
    nr->nR_CGI->pLMNIdentity = plmnRec(plmn);
    const uint8_t id[5] = {uint8_t(cell >> 24), uint8_t(cell >> 16), uint8_t(cell >> 8), uint8_t(cell), 0};
    nr->nR_CGI->nRCellIdentity = bits(__mv_amf_init_NRCellIdentity2, id, 5, 36);
    nr->tAI = make(__mv_amf_init_TAI);
    nr->tAI->pLMNIdentity = plmnRec(plmn);
    const uint8_t t[3] = {uint8_t(tac >> 16), uint8_t(tac >> 8), uint8_t(tac)};
    nr->tAI->tAC = octets(__mv_amf_init_TAC2, t, 3);
    uli->u.userLocationInformationNR = nr;
    return uli;
}

// The gNB's downlink tunnel of a session, as its setup response transfer.
Bytes responseTransfer(const std::string& addr, uint32_t teid) {
    auto* t = make(__mv_amf_init_PDUSessionResourceSetupResponseTransfer);
    t->dLQosFlowPerTNLInformation = make(__mv_amf_init_QosFlowPerTNLInformation);
    auto* up = make(__mv_amf_init_UPTransportLayerInformation);
    up->SelectedChoice = 0;
    up->u.gTPTunnel = make(__mv_amf_init_GTPTunnel);
    uint8_t a[4] = {};
    inet_pton(AF_INET, addr.c_str(), a);
    up->u.gTPTunnel->transportLayerAddress = bits(__mv_amf_init_TransportLayerAddress2, a, 4, 32);
    const uint8_t te[4] = {uint8_t(teid >> 24), uint8_t(teid >> 16), uint8_t(teid >> 8), uint8_t(teid)};
    up->u.gTPTunnel->gTP_TEID = octets(__mv_amf_init_GTP_TEID2, te, 4);
    t->dLQosFlowPerTNLInformation->uPTransportLayerInformation = up;
    t->dLQosFlowPerTNLInformation->associatedQosFlowList = make(__mv_amf_init_AssociatedQosFlowList);
    auto* f = make(__mv_amf_init_AssociatedQosFlowItem);
    f->qosFlowIdentifier = 1;
    t->dLQosFlowPerTNLInformation->associatedQosFlowList->AssociatedQosFlowItem =
        appended(t->dLQosFlowPerTNLInformation->associatedQosFlowList->AssociatedQosFlowItem, f);
    Ctx ctx;
    Bytes out;
    if (ca::encodeValue(__mv_amf_Encode_PDUSessionResourceSetupResponseTransfer, t, ctx))
        out.assign(ctx.buffer, ctx.buffer + ctx.pos);
    __mv_amf_memfree_PDUSessionResourceSetupResponseTransfer(t);
    return out;
}

}  // namespace

Driver::Driver(Config c) : c_(std::move(c)) {
    hex(c_.k, k_, 16);
    hex(c_.opc, opc_, 16);
    ca::plmnFromDigits(c_.mcc, c_.mnc, plmn_);
    firstImsi_ = std::stoull(c_.firstImsi);
}

Bytes Driver::suciOf(const Ue& u) const {
    Bytes suci = {0x01, plmn_[0], plmn_[1], plmn_[2], 0xF0, 0xFF, u.b.suciScheme, u.b.hnKeyId};  // routing indicator 0
    Bytes bcd;
    for (size_t d = 3 + c_.mnc.size(); d < u.imsi.size(); d += 2) {
        uint8_t lo = uint8_t(u.imsi[d] - '0'), hi = d + 1 < u.imsi.size() ? uint8_t(u.imsi[d + 1] - '0') : 0x0F;
        bcd.push_back(uint8_t(hi << 4 | lo));
    }
    if (u.b.suciScheme == 0) {
        suci.insert(suci.end(), bcd.begin(), bcd.end());
        return suci;
    }
    uint8_t out[128];
    int n = __mv_algo__suci_conceal(u.b.suciScheme, u.b.hnPublicKey, bcd, {}, out);
    if (n > 0) suci.insert(suci.end(), out, out + n);
    return suci;
}

Ue& Driver::ue(size_t i) {
    auto it = ues_.find(i);
    if (it != ues_.end()) return it->second;
    Ue& u = ues_[i];
    u.index = i;
    u.imsi = std::to_string(firstImsi_ + i);
    if (u.imsi.size() < c_.firstImsi.size()) u.imsi.insert(0, c_.firstImsi.size() - u.imsi.size(), '0');
    u.stream = uint16_t(1 + i % 15);
    std::string mnc = c_.mnc.size() == 2 ? "0" + c_.mnc : c_.mnc;
    u.snn = "5G:mnc" + mnc + ".mcc" + c_.mcc + ".3gppnetwork.org";
    return u;
}

Ue* Driver::ueByRan(uint64_t ran) {
    auto it = byRan_.find(ran);
    return it == byRan_.end() ? nullptr : &ues_[it->second];
}

void Driver::note(Ue& u, const std::string& e) {
    if (c_.keepPdus) u.events.push_back(e);
}

void Driver::sendPdu(uint16_t stream, const void* p) {
    const Ctx& ctx = *static_cast<const Ctx*>(p);
    if (send) send(stream, ctx.buffer, ctx.pos);
}

// ---------------------------------------------------------------- gNB

Bytes Driver::setupRequest() {
    auto* m = make(__mv_amf_init_NGSetupRequest);
    m->globalRANNodeID = make(__mv_amf_init_GlobalRANNodeID);
    m->globalRANNodeID->SelectedChoice = 0;
    auto* gnb = make(__mv_amf_init_GlobalGNB_ID);
    gnb->pLMNIdentity = plmnRec(plmn_);
    gnb->gNB_ID = make(__mv_amf_init_GNB_ID);
    gnb->gNB_ID->SelectedChoice = 0;
    const uint8_t id[4] = {uint8_t(c_.gnbId >> 24), uint8_t(c_.gnbId >> 16), uint8_t(c_.gnbId >> 8), uint8_t(c_.gnbId)};
    gnb->gNB_ID->u.gNB_ID = bits(__mv_amf_init_GNB_ID_gNB_ID2, id, 4, 32);
    m->globalRANNodeID->u.globalGNB_ID = gnb;
    m->globalRANNodeID_isset = 1;
    m->rANNodeName = ca::text(__mv_amf_init_RANNodeName2, "ca-driver");
    m->rANNodeName_isset = 1;
    m->supportedTAList = make(__mv_amf_init_SupportedTAList);
    auto* ta = make(__mv_amf_init_SupportedTAItem);
    const uint8_t tac[3] = {uint8_t(c_.tac >> 16), uint8_t(c_.tac >> 8), uint8_t(c_.tac)};
    ta->tAC = octets(__mv_amf_init_TAC2, tac, 3);
    ta->broadcastPLMNList = make(__mv_amf_init_BroadcastPLMNList);
    auto* bp = make(__mv_amf_init_BroadcastPLMNItem);
    bp->pLMNIdentity = plmnRec(plmn_);
    bp->tAISliceSupportList = make(__mv_amf_init_SliceSupportList);
    auto* sl = make(__mv_amf_init_SliceSupportItem);
    sl->s_NSSAI = make(__mv_amf_init_S_NSSAI);
    const uint8_t sst = 1;
    sl->s_NSSAI->sST = octets(__mv_amf_init_SST2, &sst, 1);
    bp->tAISliceSupportList->SliceSupportItem = appended(bp->tAISliceSupportList->SliceSupportItem, sl);
    ta->broadcastPLMNList->BroadcastPLMNItem = appended(ta->broadcastPLMNList->BroadcastPLMNItem, bp);
    m->supportedTAList->SupportedTAItem = appended(m->supportedTAList->SupportedTAItem, ta);
    m->supportedTAList_isset = 1;
    m->defaultPagingDRX = 2;  // v128
    m->defaultPagingDRX_isset = 1;
    Ctx ctx;
    if (!ca::encodeAndFree(ca::pdu("NGSetupRequest"), m, ctx)) return {};
    return Bytes(ctx.buffer, ctx.buffer + ctx.pos);
}

void Driver::ngSetup() {
    std::lock_guard g(mu_);
    Bytes b = setupRequest();
    if (send && !b.empty()) send(0, b.data(), b.size());
}

void Driver::ngSetupMany(size_t count, size_t window) {
    std::lock_guard g(mu_);
    if (setupPdu_.empty()) setupPdu_ = setupRequest();
    setupsLeft_ = count;
    for (size_t i = 0; i < window && setupsLeft_ > 0; ++i, --setupsLeft_) send(0, setupPdu_.data(), setupPdu_.size());
}


bool Driver::setupDone() {
    std::lock_guard g(mu_);
    return setup_;
}

bool Driver::setupFailed() {
    std::lock_guard g(mu_);
    return setupFailed_;
}

void Driver::sendUplink(Ue& u, const uint8_t* nas, size_t n, bool initial, bool contextRequest) {
    Ctx ctx;
    if (initial || !u.connected) {
        if (u.connected) byRan_.erase(u.ranId);
        u.ranId = nextRan_++;
        u.amfId = 0;
        u.connected = true;
        byRan_[u.ranId] = u.index;
        auto* m = make(__mv_amf_init_InitialUEMessage);
        m->rANUENGAPID = u.ranId;
        m->rANUENGAPID_isset = 1;
        m->nASPDU = octets(__mv_amf_init_NAS_PDU2, nas, n);
        m->nASPDU_isset = 1;
        m->userLocationInformation = location(plmn_, c_.tac, uint32_t(c_.gnbId << 4 | 1));
        m->userLocationInformation_isset = 1;
        m->rRCEstablishmentCause = 3;  // mo-Signalling
        m->rRCEstablishmentCause_isset = 1;
        if (u.hasGuti) {  // the gNB learns it over RRC
            m->fiveGSTMSI = make(__mv_amf_init_FiveG_S_TMSI);
            const uint8_t set[2] = {u.guti[4], uint8_t(u.guti[5] & 0xC0)};
            const uint8_t ptr = uint8_t(u.guti[5] << 2);
            m->fiveGSTMSI->aMFSetID = bits(__mv_amf_init_AMFSetID2, set, 2, 10);
            m->fiveGSTMSI->aMFPointer = bits(__mv_amf_init_AMFPointer2, &ptr, 1, 6);
            m->fiveGSTMSI->fiveG_TMSI = octets(__mv_amf_init_FiveG_TMSI2, u.guti + 6, 4);
            m->fiveGSTMSI_isset = 1;
        }
        if (contextRequest) {
            m->uEContextRequest = 0;  // requested
            m->uEContextRequest_isset = 1;
        }
        if (ca::encodeAndFree(ca::pdu("InitialUEMessage"), m, ctx)) sendPdu(u.stream, &ctx);
        return;
    }
    auto* m = make(__mv_amf_init_UplinkNASTransport);
    m->aMFUENGAPID = u.amfId;
    m->aMFUENGAPID_isset = 1;
    m->rANUENGAPID = u.ranId;
    m->rANUENGAPID_isset = 1;
    m->nASPDU = octets(__mv_amf_init_NAS_PDU2, nas, n);
    m->nASPDU_isset = 1;
    m->userLocationInformation = location(plmn_, c_.tac, uint32_t(c_.gnbId << 4 | 1));
    m->userLocationInformation_isset = 1;
    if (ca::encodeAndFree(ca::pdu("UplinkNASTransport"), m, ctx)) sendPdu(u.stream, &ctx);
}

// ---------------------------------------------------------------- UE security

void Driver::protectInto(Ue& u, const uint8_t* plain, size_t n, uint8_t sht, Bytes& out) {
    out.assign(7 + n, 0);
    out[0] = 0x7E;
    out[1] = sht;
    out[6] = uint8_t(u.ul);
    memcpy(out.data() + 7, plain, n);
    if (sht == 2 || sht == 4)
        (void)__mv_algo__nas_encrypt(u.nea, u.kenc, u.ul, c_.nasBearer, 0, out.data() + 7, uint32_t(n));
    uint8_t mac[4];
    (void)__mv_algo__nas_mac_calculate(u.nia, u.kint, u.ul, c_.nasBearer, 0, out.data() + 6, uint32_t(n + 1), mac);
    memcpy(out.data() + 2, mac, 4);
    u.ul = (u.ul + 1) & 0xFFFFFF;
}

void Driver::sendMm(Ue& u, const uint8_t* plain, size_t n, bool initial) {
    u.rx[std::string("tx ") + mmName(plain[2])]++;
    if (!u.sec) return sendUplink(u, plain, n, initial);
    Bytes out;
    // The first message under a new context says so; an initial message is integrity protected only.
    uint8_t sht = u.newCtx ? 4 : initial && !u.b.cipherInitial ? 1 : 2;
    u.newCtx = false;
    protectInto(u, plain, n, sht, out);
    sendUplink(u, out.data(), out.size(), initial);
}

Bytes Driver::protect(size_t i, const Bytes& plain) {
    std::lock_guard g(mu_);
    Ue& u = ue(i);
    Bytes out;
    protectInto(u, plain.data(), plain.size(), 2, out);
    return out;
}

// ---------------------------------------------------------------- UE procedures

void Driver::registerUe(size_t i, const UeBehaviour& b) {
    std::lock_guard g(mu_);
    Ue& u = ue(i);
    u.b = b;
    u.sqn = b.sqn ? b.sqn : u.sqn;
    startRegistration(u);
}

void Driver::startRegistration(Ue& u) {
    u.syncLeft = u.b.syncFailures;
    u.authIgnoreLeft = u.b.ignoreAuth;
    u.smcIgnoreLeft = u.b.ignoreSmc;
    u.identityIgnoreLeft = u.b.ignoreIdentity;
    u.registered = false;
    u.rejectCause = -1;
    static thread_local NASPduFGMM_RegistrationRequest r;
    memset(static_cast<void*>(&r), 0, sizeof r);
    bool guti = u.hasGuti && u.b.useGuti;
    r.b1 = uint8_t((guti && u.sec ? u.ngksi : 7) << 4 | 0x01);  // initial registration
    if (guti) {
        __mv_nas_util_encode_fg_guti(&r.mFGSMobileIdentity, u.guti, 10);
    } else {
        Bytes suci = suciOf(u);
        __mv_nas_util_encode_fg_suci(&r.mFGSMobileIdentity, suci.data(), int(suci.size()));
    }
    r.mFGMMCapability.isset = 1;
    r.mUESecurityCapability.Length = 2;
    r.mUESecurityCapability.data[0] = u.b.ea;
    r.mUESecurityCapability.data[1] = u.b.ia;
    r.mUESecurityCapability.isset = 1;
    const uint8_t sd[3] = {1, 2, 3};
    __mv_naspdu_addSNSSAI(&r.mRequestedNSSAI, 1, sd, nullptr, nullptr);
    Ctx ctx;
    if (!ca::encodeNas(__mv_naspdu_fgmm_encodeRegistrationRequest, r, ctx)) return;
    u.regPlain.assign(ctx.buffer, ctx.buffer + ctx.pos);
    note(u, "tx RegistrationRequest");
    u.rx["tx RegistrationRequest"]++;
    // A registration with a context goes protected; the first one, in clear.
    if (guti && u.sec) {
        Bytes out;
        protectInto(u, ctx.buffer, ctx.pos, 1, out);
        sendUplink(u, out.data(), out.size(), true, u.b.contextRequest);
    } else {
        sendUplink(u, ctx.buffer, ctx.pos, true, u.b.contextRequest);
    }
}

void Driver::registerMany(size_t first, size_t count, size_t window) {
    std::lock_guard g(mu_);
    manyNext_ = first;
    manyEnd_ = first + count;
    for (size_t i = 0; i < window && manyNext_ < manyEnd_; ++i) startRegistration(ue(manyNext_++));
}

void Driver::registeredNow(Ue& u) {
    u.registered = true;
    ++registered_;
    if (manyNext_ < manyEnd_) startRegistration(ue(manyNext_++));
}

void Driver::smRequest(Ue& u, uint8_t psi, const uint8_t* sm, size_t n, uint8_t requestType, const std::string& dnn) {
    static thread_local NASPduFGMM_ULNASTransport t;
    memset(static_cast<void*>(&t), 0, sizeof t);
    t.b1 = 0x01;  // N1 SM information
    memcpy(t.mPayloadContainer.data, sm, n);
    t.mPayloadContainer.Length = uint16_t(n);
    t.mPayloadContainer.isset = 1;
    byteIe(t.mPDUSessionID, psi);
    if (requestType) {
        t.mRequestType.Value = requestType;
        t.mRequestType.isset = 1;
    }
    if (!dnn.empty()) {
        t.mDNN.data[0] = uint8_t(dnn.size());
        memcpy(t.mDNN.data + 1, dnn.data(), dnn.size());
        t.mDNN.Length = uint8_t(dnn.size() + 1);
        t.mDNN.isset = 1;
    }
    Ctx ctx;
    if (ca::encodeNas(__mv_naspdu_fgmm_encodeULNASTransport, t, ctx)) sendMm(u, ctx.buffer, ctx.pos);
}

void Driver::establish(size_t i, uint8_t psi, uint8_t type, const std::string& dnn) {
    std::lock_guard g(mu_);
    Ue& u = ue(i);
    u.sessions[psi] = SessionState{};
    NASPduFGSM_PDUSessionEstablishmentRequest r{};
    r.mIntegrityProtectionMaximumDataRate.data[0] = r.mIntegrityProtectionMaximumDataRate.data[1] = 0xFF;
    r.mIntegrityProtectionMaximumDataRate.Length = 2;
    r.mIntegrityProtectionMaximumDataRate.isset = 1;
    if (type) {
        r.mPDUSessionType.Value = type;
        r.mPDUSessionType.isset = 1;
    }
    Ctx ctx;
    note(u, "tx PDUSessionEstablishmentRequest");
    if (ca::encodeNasSm(__mv_naspdu_fgsm_encodePDUSessionEstablishmentRequest, r, psi, ++u.pti, ctx))
        smRequest(u, psi, ctx.buffer, ctx.pos, 1, dnn);
}

void Driver::modify(size_t i, uint8_t psi) {
    std::lock_guard g(mu_);
    Ue& u = ue(i);
    NASPduFGSM_PDUSessionModificationRequest r{};
    Ctx ctx;
    if (ca::encodeNasSm(__mv_naspdu_fgsm_encodePDUSessionModificationRequest, r, psi, ++u.pti, ctx))
        smRequest(u, psi, ctx.buffer, ctx.pos, 0, "");
}

void Driver::releaseSession(size_t i, uint8_t psi) {
    std::lock_guard g(mu_);
    Ue& u = ue(i);
    NASPduFGSM_PDUSessionReleaseRequest r{};
    byteIe(r.mFGSMCause, 36);  // regular deactivation
    Ctx ctx;
    note(u, "tx PDUSessionReleaseRequest");
    if (ca::encodeNasSm(__mv_naspdu_fgsm_encodePDUSessionReleaseRequest, r, psi, ++u.pti, ctx))
        smRequest(u, psi, ctx.buffer, ctx.pos, 0, "");
}

void Driver::deregister(size_t i, bool switchOff) {
    std::lock_guard g(mu_);
    Ue& u = ue(i);
    NASPduFGMM_DeregistrationRequestUEI r{};
    r.b1 = uint8_t(u.ngksi << 4 | (switchOff ? 0x08 : 0) | 0x01);
    __mv_nas_util_encode_fg_guti(&r.mFGSMobileIdentity, u.guti, 10);
    Ctx ctx;
    note(u, switchOff ? "tx DeregistrationRequest switch-off" : "tx DeregistrationRequest");
    if (switchOff) u.registered = false;
    if (ca::encodeNas(__mv_naspdu_fgmm_encodeDeregistrationRequestUEI, r, ctx)) sendMm(u, ctx.buffer, ctx.pos, !u.connected);
}

void Driver::releaseContext(size_t i) {
    std::lock_guard g(mu_);
    Ue& u = ue(i);
    auto* m = make(__mv_amf_init_UEContextReleaseRequest);
    m->aMFUENGAPID = u.amfId;
    m->aMFUENGAPID_isset = 1;
    m->rANUENGAPID = u.ranId;
    m->rANUENGAPID_isset = 1;
    m->cause = make(__mv_amf_init_Cause);
    m->cause->SelectedChoice = 0;
    m->cause->u.radioNetwork = ca::enumValue(mv_asn_amf::T_CauseRadioNetwork, "user-inactivity");
    m->cause_isset = 1;
    Ctx ctx;
    note(u, "tx UEContextReleaseRequest");
    if (ca::encodeAndFree(ca::pdu("UEContextReleaseRequest"), m, ctx)) sendPdu(u.stream, &ctx);
}

void Driver::serviceRequest(size_t i, uint8_t serviceType) {
    std::lock_guard g(mu_);
    Ue& u = ue(i);
    NASPduFGMM_ServiceRequest r{};
    r.b1 = uint8_t(serviceType << 4 | (u.ngksi & 0x0F));
    __mv_nas_util_encode_fg_s_tmsi(&r.mFGSTMSI, u.guti + 4, 6);
    Ctx ctx;
    if (!ca::encodeNas(__mv_naspdu_fgmm_encodeServiceRequest, r, ctx)) return;
    // PDU session status: every session the UE holds
    uint16_t status = 0;
    for (auto& [psi, s] : u.sessions)
        if (s.accepted && !s.released) status |= uint16_t(1u << psi);
    const uint8_t ie[4] = {0x50, 2, uint8_t(status), uint8_t(status >> 8)};
    memcpy(ctx.buffer + ctx.pos, ie, 4);
    ctx.pos = uint16_t(ctx.pos + 4);
    note(u, "tx ServiceRequest");
    sendMm(u, ctx.buffer, ctx.pos, true);
}

void Driver::sendRaw(const Bytes& ngap, uint16_t stream) {
    std::lock_guard g(mu_);
    if (send) send(stream, ngap.data(), ngap.size());
}

void Driver::sendNas(size_t i, const Bytes& nas, uint64_t amfIdOverride, uint64_t ranIdOverride) {
    std::lock_guard g(mu_);
    Ue& u = ue(i);
    auto* m = make(__mv_amf_init_UplinkNASTransport);
    m->aMFUENGAPID = amfIdOverride ? amfIdOverride : u.amfId;
    m->aMFUENGAPID_isset = 1;
    m->rANUENGAPID = ranIdOverride ? ranIdOverride : u.ranId;
    m->rANUENGAPID_isset = 1;
    m->nASPDU = octets(__mv_amf_init_NAS_PDU2, nas.data(), nas.size());
    m->nASPDU_isset = 1;
    Ctx ctx;
    if (ca::encodeAndFree(ca::pdu("UplinkNASTransport"), m, ctx)) sendPdu(u.stream, &ctx);
}

// ---------------------------------------------------------------- receiving

void Driver::receive(uint16_t, std::span<const uint8_t> pdu) {
    std::lock_guard g(mu_);
    if (c_.keepPdus) received_.emplace_back(pdu.begin(), pdu.end());
    ca::NgapRecord r;
    if (r.decode(pdu) != 1) {
        counts_["undecodable"]++;
        return;
    }
    std::string_view name = r.pdu()->name;
    counts_[std::string(name)]++;
    if (name == "NGSetupResponse") {
        setup_ = true;
        ++setups_;
        if (setupsLeft_ > 0) {
            --setupsLeft_;
            send(0, setupPdu_.data(), setupPdu_.size());
        }
        return;
    }
    if (name == "NGSetupFailure") {
        setupFailed_ = true;
        return;
    }
    if (name == "UEContextReleaseCommand") return releaseCommand(r.as<void>());
    if (name == "ErrorIndication") return;
    // Every other message of the AMF names both ids first.
    uint64_t ranId = 0, amfId = 0;
    if (name == "DownlinkNASTransport") {
        auto* m = r.as<__mv_amf_dt_DownlinkNASTransport>();
        ranId = m->rANUENGAPID, amfId = m->aMFUENGAPID;
        Ue* u = ueByRan(ranId);
        if (!u) return;
        u->amfId = amfId;
        u->rx[std::string(name)]++;
        return downlinkNas(*u, view(m->nASPDU));
    }
    if (name == "InitialContextSetupRequest") {
        auto* m = r.as<__mv_amf_dt_InitialContextSetupRequest>();
        if (Ue* u = ueByRan(m->rANUENGAPID)) {
            u->amfId = m->aMFUENGAPID;
            u->rx[std::string(name)]++;
            contextSetupRequest(*u, m);
        }
        return;
    }
    if (name == "PDUSessionResourceSetupRequest") {
        auto* m = r.as<__mv_amf_dt_PDUSessionResourceSetupRequest>();
        if (Ue* u = ueByRan(m->rANUENGAPID)) {
            u->rx[std::string(name)]++;
            sessionSetupRequest(*u, m);
        }
        return;
    }
    if (name == "PDUSessionResourceReleaseCommand") {
        auto* m = r.as<__mv_amf_dt_PDUSessionResourceReleaseCommand>();
        if (Ue* u = ueByRan(m->rANUENGAPID)) {
            u->rx[std::string(name)]++;
            sessionReleaseCommand(*u, m);
        }
        return;
    }
}

void Driver::downlinkNas(Ue& u, std::span<const uint8_t> pdu) {
    if (pdu.size() < 3 || pdu[0] != 0x7E) return note(u, "rx not 5GMM");
    uint8_t sht = pdu[1] & 0x0F;
    Bytes plain(pdu.begin(), pdu.end());
    if (sht != 0) {
        if (pdu.size() < 10) return note(u, "rx short protected message");
        if (sht == 3) {
            // a new context: the keys come from the last authentication and its algorithms
            uint8_t algos = pdu[10];
            u.nia = algos & 0x0F;
            u.nea = algos >> 4;
            if (__mv_algo__ue_setup_security_context2(u.rand, u.resStar, u.kausf, u.snn.c_str(), u.imsi.c_str(),
                                                      c_.nasBearer, u.nia, u.nea, u.kint, u.kenc) != 0)
                return note(u, "rx SMC: no keys");
            u.dl = 0;
            u.ul = 0;
        }
        uint32_t count = estimate(u.dl, pdu[6]);
        uint8_t mac[4];
        (void)__mv_algo__nas_mac_calculate(u.nia, u.kint, count, c_.nasBearer, 1, pdu.data() + 6,
                                           uint32_t(pdu.size() - 6), mac);
        if (memcmp(mac, pdu.data() + 2, 4) != 0) {
            ++u.macFailures;
            return note(u, "rx MAC failure");
        }
        plain.assign(pdu.begin() + 7, pdu.end());
        if (sht == 2 || sht == 4)
            (void)__mv_algo__nas_encrypt(u.nea, u.kenc, count, c_.nasBearer, 1, plain.data(), uint32_t(plain.size()));
        u.dl = (count + 1) & 0xFFFFFF;
        if (sht == 3) {
            u.sec = true;
            u.newCtx = true;
        }
    } else if (u.sec) {
        ++u.plainAfterSecurity;
    }
    __naspduDecode d{};
    int rc = __mv_naspdu_DecodeFGMessage(&d, plain.data(), uint32_t(plain.size()));
    if (rc != 0 || !d.iMandatoryDecoded) {
        __mv_naspdu_freeNASPduDecode(&d);
        u.rx["undecodable"]++;
        return note(u, "rx undecodable NAS");
    }
    handleMm(u, uint8_t(d.MessageType), d.messageObj, plain);
    __mv_naspdu_freeNASPduDecode(&d);
}

void Driver::handleMm(Ue& u, uint8_t type, void* rec, std::span<const uint8_t> plain) {
    std::string name = mmName(type);
    u.rx[name]++;
    counts_[name]++;
    note(u, "rx " + name);
    Ctx ctx;
    switch (type) {
        case 91: {  // identity request
            if (u.identityIgnoreLeft > 0) {
                --u.identityIgnoreLeft;
                return;
            }
            uint8_t t = static_cast<NASPduFGMM_IdentityRequest*>(rec)->b1 & 0x07;
            NASPduFGMM_IdentityResponse r{};
            if (t == 1) {
                Bytes suci = suciOf(u);
                __mv_nas_util_encode_fg_suci(&r.mFGSMobileIdentity, suci.data(), int(suci.size()));
            } else if (t == 5) {
                __mv_nas_util_encode_fg_imeisv(&r.mFGSMobileIdentity, (c_.imei.substr(0, 14) + "01").c_str(), 16);
            } else {
                __mv_nas_util_encode_fg_imei(&r.mFGSMobileIdentity, c_.imei.c_str(), int(c_.imei.size()));
            }
            if (ca::encodeNas(__mv_naspdu_fgmm_encodeIdentityResponse, r, ctx)) sendMm(u, ctx.buffer, ctx.pos);
            return;
        }
        case 86: return authenticationRequest(u, rec);
        case 88: u.authRejected = true; return;
        case 93: return securityModeCommand(u, rec);
        case 66: {  // registration accept
            auto* a = static_cast<NASPduFGMM_RegistrationAccept*>(rec);
            if (a->mFGGUTI.isset && a->mFGGUTI.Length == 11 && a->mFGGUTI.data[0] == 0xF2) {
                memcpy(u.guti, a->mFGGUTI.data + 1, 10);
                u.hasGuti = true;
            }
            NASPduFGMM_RegistrationComplete c{};
            if (ca::encodeNas(__mv_naspdu_fgmm_encodeRegistrationComplete, c, ctx)) sendMm(u, ctx.buffer, ctx.pos);
            if (!u.registered) registeredNow(u);
            return;
        }
        case 68:
            u.rejectCause = static_cast<NASPduFGMM_RegistrationReject*>(rec)->mFGMMCause.Value;
            u.registered = false;
            return;
        case 70: ++u.deregAccepts; u.registered = false; return;
        case 71: {
            u.deregisteredByNetwork = true;
            u.registered = false;
            NASPduFGMM_DeregistrationAcceptUET a{};
            if (ca::encodeNas(__mv_naspdu_fgmm_encodeDeregistrationAcceptUET, a, ctx)) sendMm(u, ctx.buffer, ctx.pos);
            return;
        }
        case 77: u.serviceRejectCause = static_cast<NASPduFGMM_ServiceReject*>(rec)->mFGMMCause.Value; return;
        case 78: ++u.serviceAccepts; return;
        case 100: u.statusCause = static_cast<NASPduFGMM_5GMMStatus*>(rec)->mFGMMCause.Value; return;
        case 104: {
            auto* t = static_cast<NASPduFGMM_DLNASTransport*>(rec);
            if ((t->b1 & 0x0F) == 1) handleSm(u, {t->mPayloadContainer.data, t->mPayloadContainer.Length});
            return;
        }
        default: (void)plain; return;
    }
}

void Driver::authenticationRequest(Ue& u, void* rec) {
    auto* a = static_cast<NASPduFGMM_AuthenticationRequest*>(rec);
    if (u.authIgnoreLeft > 0) {
        --u.authIgnoreLeft;
        return;
    }
    u.ngksi = a->b1 & 0x07;
    memcpy(u.rand, a->mRAND.data, 16);
    Ctx ctx;
    auto failure = [&](uint8_t cause, const uint8_t* auts) {
        NASPduFGMM_AuthenticationFailure f{};
        byteIe(f.mFGMMCause, cause);
        if (auts) {
            memcpy(f.mAuthenticationFailureParameter.data, auts, 14);
            f.mAuthenticationFailureParameter.Length = 14;
            f.mAuthenticationFailureParameter.isset = 1;
        }
        if (ca::encodeNas(__mv_naspdu_fgmm_encodeAuthenticationFailure, f, ctx)) sendMm(u, ctx.buffer, ctx.pos);
    };
    if (u.b.macFailure) return failure(20, nullptr);
    uint8_t auts[16] = {};
    uint64_t sqnAmf = 0;
    int st = __mv_algo__ue_authenticate2(k_, opc_, u.sqn, u.snn.c_str(), u.rand, a->mAUTN.data, u.resStar, auts, u.kausf,
                                         1, &sqnAmf);
    if (st == 0 && u.syncLeft > 0) {
        // Pretend to be further on than this vector: the network has to resynchronise.
        --u.syncLeft;
        u.sqn = uint32_t(sqnAmf) + 64;
        st = __mv_algo__ue_authenticate2(k_, opc_, u.sqn, u.snn.c_str(), u.rand, a->mAUTN.data, u.resStar, auts,
                                         u.kausf, 0, &sqnAmf);
    }
    if (st == MV_ALGO_AUTH_SQN_OUT_OF_RANGE) {
        note(u, "tx AuthenticationFailure synch");
        return failure(21, auts);
    }
    if (st != 0) return failure(20, nullptr);
    u.sqn = uint32_t(sqnAmf) + 32;
    NASPduFGMM_AuthenticationResponse r{};
    memcpy(r.mAuthenticationResponseParameter.data, u.resStar, 16);
    if (u.b.wrongRes) r.mAuthenticationResponseParameter.data[0] ^= 0xFF;
    r.mAuthenticationResponseParameter.Length = 16;
    r.mAuthenticationResponseParameter.isset = 1;
    if (ca::encodeNas(__mv_naspdu_fgmm_encodeAuthenticationResponse, r, ctx)) sendMm(u, ctx.buffer, ctx.pos);
}

void Driver::securityModeCommand(Ue& u, void* rec) {
    auto* s = static_cast<NASPduFGMM_SecurityModeCommand*>(rec);
    ++u.smcCount;
    if (u.smcIgnoreLeft > 0) {
        --u.smcIgnoreLeft;
        return;
    }
    Ctx ctx;
    const auto& cap = s->mReplayedUESecurityCapabilities;
    bool replayed = cap.Length >= 2 && cap.data[0] == u.b.ea && cap.data[1] == u.b.ia;
    if (u.b.rejectSmc || !replayed || (s->mNgKSI & 0x07) != u.ngksi) {
        NASPduFGMM_SecurityModeReject r{};
        byteIe(r.mFGMMCause, replayed ? 24 : 23);
        u.sec = false;  // the new context is not taken: the reject goes in clear
        if (ca::encodeNas(__mv_naspdu_fgmm_encodeSecurityModeReject, r, ctx)) sendMm(u, ctx.buffer, ctx.pos);
        return;
    }
    NASPduFGMM_SecurityModeComplete c{};
    if (s->mIMEISVRequest.isset && (s->mIMEISVRequest.Value & 0x07) == 1)
        __mv_nas_util_encode_fg_imeisv(&c.mIMEISV, (c_.imei.substr(0, 14) + "01").c_str(), 16);
    if (s->mAdditional5GSecurityInformation.isset && (s->mAdditional5GSecurityInformation.Value & 0x02)) {
        memcpy(c.mNASMessageContainer.data, u.regPlain.data(), u.regPlain.size());
        c.mNASMessageContainer.Length = uint16_t(u.regPlain.size());
        c.mNASMessageContainer.isset = 1;
    }
    if (ca::encodeNas(__mv_naspdu_fgmm_encodeSecurityModeComplete, c, ctx)) sendMm(u, ctx.buffer, ctx.pos);
}

void Driver::handleSm(Ue& u, std::span<const uint8_t> sm) {
    __naspduDecode d{};
    int rc = __mv_naspdu_DecodeFGMessage(&d, sm.data(), uint32_t(sm.size()));
    if (rc != 0 || !d.iMandatoryDecoded || sm.size() < 4) {
        __mv_naspdu_freeNASPduDecode(&d);
        u.rx["undecodable 5GSM"]++;
        return;
    }
    uint8_t psi = sm[1], pti = sm[2], type = uint8_t(d.MessageType);
    std::string name = smName(type);
    u.rx[name]++;
    counts_[name]++;
    note(u, "rx " + name);
    SessionState& s = u.sessions[psi];
    Ctx ctx;
    switch (type) {
        case 194: {
            auto* a = static_cast<NASPduFGSM_PDUSessionEstablishmentAccept*>(d.messageObj);
            s.accepted = true;
            if (a->mPDUAddress.isset) {
                s.type = a->mPDUAddress.PDUSessionType & 0x07;
                const uint8_t* v4 = s.type == 1 ? a->mPDUAddress.data : s.type == 3 ? a->mPDUAddress.data + 8 : nullptr;
                if (v4) {
                    char t[INET_ADDRSTRLEN];
                    inet_ntop(AF_INET, v4, t, sizeof t);
                    s.ipv4 = t;
                }
                if (s.type == 2 || s.type == 3) s.iid.assign(a->mPDUAddress.data, a->mPDUAddress.data + 8);
            }
            if (a->mDNN.isset && a->mDNN.Length > 1) s.dnn.assign(a->mDNN.data + 1, a->mDNN.data + a->mDNN.Length);
            break;
        }
        case 195: s.rejectCause = static_cast<NASPduFGSM_PDUSessionEstablishmentReject*>(d.messageObj)->mFGSMCause.Value; break;
        case 202: s.rejectCause = static_cast<NASPduFGSM_PDUSessionModificationReject*>(d.messageObj)->mFGSMCause.Value; break;
        case 210: s.rejectCause = static_cast<NASPduFGSM_PDUSessionReleaseReject*>(d.messageObj)->mFGSMCause.Value; break;
        case 203: {
            s.modified = true;
            NASPduFGSM_PDUSessionModificationComplete c{};
            if (ca::encodeNasSm(__mv_naspdu_fgsm_encodePDUSessionModificationComplete, c, psi, pti, ctx))
                smRequest(u, psi, ctx.buffer, ctx.pos, 0, "");
            break;
        }
        case 211: {
            s.released = true;
            NASPduFGSM_PDUSessionReleaseComplete c{};
            if (ca::encodeNasSm(__mv_naspdu_fgsm_encodePDUSessionReleaseComplete, c, psi, pti, ctx))
                smRequest(u, psi, ctx.buffer, ctx.pos, 0, "");
            break;
        }
        default: break;
    }
    __mv_naspdu_freeNASPduDecode(&d);
}

// ---------------------------------------------------------------- the gNB's side of UE procedures

Bytes Driver::takeSession(Ue& u, uint8_t psi, std::span<const uint8_t> requestTransfer) {
    if (auto* t = ca::decodeValue(__mv_amf_Decode_PDUSessionResourceSetupRequestTransfer,
                                  __mv_amf_memfree_PDUSessionResourceSetupRequestTransfer, requestTransfer)) {
        auto teid = t->uLNGUUPTNLInformation && t->uLNGUUPTNLInformation->SelectedChoice == 0
                        ? view(t->uLNGUUPTNLInformation->u.gTPTunnel->gTP_TEID)
                        : std::span<const uint8_t>{};
        if (teid.size() == 4) u.sessions[psi].upfTeid = uint32_t(teid[0]) << 24 | teid[1] << 16 | teid[2] << 8 | teid[3];
        u.sessions[psi].resources = true;
        __mv_amf_memfree_PDUSessionResourceSetupRequestTransfer(t);
    }
    return responseTransfer(c_.gnbAddress, uint32_t(u.ranId << 4 | psi));
}

void Driver::contextSetupRequest(Ue& u, void* rec) {
    auto* m = static_cast<__mv_amf_dt_InitialContextSetupRequest*>(rec);
    auto* r = make(__mv_amf_init_InitialContextSetupResponse);
    r->aMFUENGAPID = m->aMFUENGAPID;
    r->aMFUENGAPID_isset = 1;
    r->rANUENGAPID = m->rANUENGAPID;
    r->rANUENGAPID_isset = 1;
    std::vector<std::pair<uint8_t, Bytes>> nas;
    if (m->pDUSessionResourceSetupListCxtReq_isset && m->pDUSessionResourceSetupListCxtReq) {
        r->pDUSessionResourceSetupListCxtRes = make(__mv_amf_init_PDUSessionResourceSetupListCxtRes);
        ca::forEach(m->pDUSessionResourceSetupListCxtReq->PDUSessionResourceSetupItemCxtReq, [&](void* p) {
            auto* it = static_cast<__mv_amf_dt_PDUSessionResourceSetupItemCxtReq*>(p);
            uint8_t psi = uint8_t(it->pDUSessionID);
            if (it->isPresent_nAS_PDU) nas.emplace_back(psi, Bytes(view(it->nAS_PDU).begin(), view(it->nAS_PDU).end()));
            Bytes tr = takeSession(u, psi, view(it->pDUSessionResourceSetupRequestTransfer));
            auto* res = make(__mv_amf_init_PDUSessionResourceSetupItemCxtRes);
            res->pDUSessionID = psi;
            res->pDUSessionResourceSetupResponseTransfer = octets(
                __mv_amf_init_PDUSessionResourceSetupItemCxtRes_pDUSessionResourceSetupResponseTransfer2, tr.data(),
                tr.size());
            r->pDUSessionResourceSetupListCxtRes->PDUSessionResourceSetupItemCxtRes =
                appended(r->pDUSessionResourceSetupListCxtRes->PDUSessionResourceSetupItemCxtRes, res);
        });
        r->pDUSessionResourceSetupListCxtRes_isset = 1;
    }
    Ctx ctx;
    if (ca::encodeAndFree(ca::pdu("InitialContextSetupResponse"), r, ctx)) sendPdu(u.stream, &ctx);
    for (auto& [psi, n] : nas) downlinkNas(u, n);
    if (m->nASPDU_isset && m->nASPDU) {
        u.acceptInIcs = true;
        downlinkNas(u, view(m->nASPDU));
    }
}

void Driver::sessionSetupRequest(Ue& u, void* rec) {
    auto* m = static_cast<__mv_amf_dt_PDUSessionResourceSetupRequest*>(rec);
    auto* r = make(__mv_amf_init_PDUSessionResourceSetupResponse);
    r->aMFUENGAPID = m->aMFUENGAPID;
    r->aMFUENGAPID_isset = 1;
    r->rANUENGAPID = m->rANUENGAPID;
    r->rANUENGAPID_isset = 1;
    r->pDUSessionResourceSetupListSURes = make(__mv_amf_init_PDUSessionResourceSetupListSURes);
    std::vector<Bytes> nas;
    if (m->pDUSessionResourceSetupListSUReq)
        ca::forEach(m->pDUSessionResourceSetupListSUReq->PDUSessionResourceSetupItemSUReq, [&](void* p) {
            auto* it = static_cast<__mv_amf_dt_PDUSessionResourceSetupItemSUReq*>(p);
            uint8_t psi = uint8_t(it->pDUSessionID);
            if (it->isPresent_pDUSessionNAS_PDU)
                nas.emplace_back(view(it->pDUSessionNAS_PDU).begin(), view(it->pDUSessionNAS_PDU).end());
            Bytes tr = takeSession(u, psi, view(it->pDUSessionResourceSetupRequestTransfer));
            auto* res = make(__mv_amf_init_PDUSessionResourceSetupItemSURes);
            res->pDUSessionID = psi;
            res->pDUSessionResourceSetupResponseTransfer = octets(
                __mv_amf_init_PDUSessionResourceSetupItemSURes_pDUSessionResourceSetupResponseTransfer2, tr.data(),
                tr.size());
            r->pDUSessionResourceSetupListSURes->PDUSessionResourceSetupItemSURes =
                appended(r->pDUSessionResourceSetupListSURes->PDUSessionResourceSetupItemSURes, res);
        });
    r->pDUSessionResourceSetupListSURes_isset = 1;
    Ctx ctx;
    if (ca::encodeAndFree(ca::pdu("PDUSessionResourceSetupResponse"), r, ctx)) sendPdu(u.stream, &ctx);
    for (const Bytes& n : nas) downlinkNas(u, n);
}

void Driver::sessionReleaseCommand(Ue& u, void* rec) {
    auto* m = static_cast<__mv_amf_dt_PDUSessionResourceReleaseCommand*>(rec);
    auto* r = make(__mv_amf_init_PDUSessionResourceReleaseResponse);
    r->aMFUENGAPID = m->aMFUENGAPID;
    r->aMFUENGAPID_isset = 1;
    r->rANUENGAPID = m->rANUENGAPID;
    r->rANUENGAPID_isset = 1;
    r->pDUSessionResourceReleasedListRelRes = make(__mv_amf_init_PDUSessionResourceReleasedListRelRes);
    if (m->pDUSessionResourceToReleaseListRelCmd)
        ca::forEach(m->pDUSessionResourceToReleaseListRelCmd->PDUSessionResourceToReleaseItemRelCmd, [&](void* p) {
            auto* it = static_cast<__mv_amf_dt_PDUSessionResourceToReleaseItemRelCmd*>(p);
            auto* res = make(__mv_amf_init_PDUSessionResourceReleasedItemRelRes);
            res->pDUSessionID = it->pDUSessionID;
            const uint8_t empty = 0;  // an empty release response transfer
            res->pDUSessionResourceReleaseResponseTransfer = octets(
                __mv_amf_init_PDUSessionResourceReleasedItemRelRes_pDUSessionResourceReleaseResponseTransfer2, &empty, 1);
            r->pDUSessionResourceReleasedListRelRes->PDUSessionResourceReleasedItemRelRes =
                appended(r->pDUSessionResourceReleasedListRelRes->PDUSessionResourceReleasedItemRelRes, res);
            u.sessions[uint8_t(it->pDUSessionID)].resources = false;
        });
    r->pDUSessionResourceReleasedListRelRes_isset = 1;
    Ctx ctx;
    if (ca::encodeAndFree(ca::pdu("PDUSessionResourceReleaseResponse"), r, ctx)) sendPdu(u.stream, &ctx);
    if (m->nASPDU_isset && m->nASPDU) downlinkNas(u, view(m->nASPDU));
}

void Driver::releaseCommand(void* rec) {
    auto* m = static_cast<__mv_amf_dt_UEContextReleaseCommand*>(rec);
    if (!m->uENGAPIDs || m->uENGAPIDs->SelectedChoice != 0 || !m->uENGAPIDs->u.uE_NGAP_ID_pair) return;
    uint64_t amf = m->uENGAPIDs->u.uE_NGAP_ID_pair->aMF_UE_NGAP_ID, ran = m->uENGAPIDs->u.uE_NGAP_ID_pair->rAN_UE_NGAP_ID;
    auto* r = make(__mv_amf_init_UEContextReleaseComplete);
    r->aMFUENGAPID = amf;
    r->aMFUENGAPID_isset = 1;
    r->rANUENGAPID = ran;
    r->rANUENGAPID_isset = 1;
    Ctx ctx;
    uint16_t stream = 1;
    if (Ue* u = ueByRan(ran)) {
        stream = u->stream;
        u->rx["UEContextReleaseCommand"]++;
        ++u->contextReleases;
        u->connected = false;
        for (auto& [psi, s] : u->sessions) s.resources = false;
        byRan_.erase(ran);
    }
    if (ca::encodeAndFree(ca::pdu("UEContextReleaseComplete"), r, ctx)) sendPdu(stream, &ctx);
}

// ---------------------------------------------------------------- observing

bool Driver::waitUe(size_t i, const std::function<bool(const Ue&)>& pred, double seconds) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(int(seconds * 1000));
    for (;;) {
        {
            std::lock_guard g(mu_);
            if (pred(ue(i))) return true;
        }
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::vector<Bytes> Driver::received() {
    std::lock_guard g(mu_);
    return received_;
}

size_t Driver::count(const std::string& name) {
    std::lock_guard g(mu_);
    auto it = counts_.find(name);
    return it == counts_.end() ? 0 : it->second;
}

}  // namespace cad
