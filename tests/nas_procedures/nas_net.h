// The UE's NAS against the core answerer in memory: a small gNB of the test's own takes
// the NAS module's uplink (InitialUEMessage or UplinkNASTransport to the answerer), and
// hands what the answerer sends down to the UE (DownlinkNASTransport, the NAS PDUs of
// InitialContextSetupRequest and the session resource requests), answering the NGAP part
// itself. Everything runs on the test's thread: pump() delivers until nothing is left.
#pragma once

#include <arpa/inet.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "KsEngine_step.h"
#include "KsNAS.h"
#include "Kestrane_nodes.h"
#include "ca_amf.h"
#include "ca_asn.h"
#include "ca_driver.h"

namespace nsp {

using Bytes = std::vector<uint8_t>;
using Ctx = __mv_asn_coding_context;
using ca::appended;
using ca::bits;
using ca::make;
using ca::octets;
using ca::view;

struct Link {
    uint64_t ranId = 0, amfId = 0;
    bool connected = false;
    MV_KsNGRanUeContext ctx{};  // the UE's RAN context while connected; only its address is used
};

class Net {
public:
    explicit Net(std::vector<std::string> args = {}) : setupDrv_(cad::Driver::Config{}) {
        std::vector<char*> argv{const_cast<char*>("core_answerer")};
        for (auto& a : args) argv.push_back(a.data());
        std::string err;
        ok = ca::parseOptions(int(argv.size()), argv.data(), opt, err) && subs.load(KS_UEL, opt.sqn, err);
        ca::Transport t;
        t.send = [this](ca::AssocKey, uint16_t, const uint8_t* p, size_t n) {
            std::lock_guard g(m_);
            down_.emplace_back(p, p + n);
            return int(n);
        };
        t.close = [](ca::AssocKey) {};
        amf = std::make_unique<ca::Amf>(opt, subs, counters, knobs, timers, t);
        ok = ok && amf->init(err);
        error = err;
        timers.start();
        amf->onAccept(this, "memory");
        setupDrv_.send = [this](uint16_t stream, const uint8_t* p, size_t n) {
            amf->onMessage(this, stream, {p, n});
            return int(n);
        };
        setupDrv_.ngSetup();
        pump();
        self() = this;
        static constexpr KsNASLower kLower{sendNas, releaseRan};
        KsNAS__SetLower(&kLower);
    }
    Net(const Net&) = delete;
    Net& operator=(const Net&) = delete;
    ~Net() {
        KsNAS__SetLower(nullptr);
        self() = nullptr;
        timers.stop();
        amf.reset();
    }

    // Delivers everything the answerer sent, and what that makes the UE send in turn.
    void pump() {
        for (;;) {
            Bytes b;
            {
                std::lock_guard g(m_);
                if (down_.empty()) return;
                b = std::move(down_.front());
                down_.pop_front();
            }
            std::lock_guard big(big_);
            downlink(b);
        }
    }
    // Runs f as the UE's line would: never beside a delivery or a send from a timer.
    template <class F>
    void run(F&& f) {
        std::lock_guard big(big_);
        f();
        pump();
    }
    // The same, leaving what the answerer sent on the queue.
    template <class F>
    void runOnly(F&& f) {
        std::lock_guard big(big_);
        f();
    }
    // The gNB asks for the UE's context to be released (user inactivity): the UE goes idle.
    void releaseForTest(MV_KsUE* ue) {
        std::lock_guard big(big_);
        Link& l = links_[ue];
        auto* m = make(__mv_amf_init_UEContextReleaseRequest);
        m->aMFUENGAPID = l.amfId;
        m->aMFUENGAPID_isset = 1;
        m->rANUENGAPID = l.ranId;
        m->rANUENGAPID_isset = 1;
        m->cause = make(__mv_amf_init_Cause);
        m->cause->SelectedChoice = 0;
        m->cause->u.radioNetwork = ca::enumValue(mv_asn_amf::T_CauseRadioNetwork, "user-inactivity");
        m->cause_isset = 1;
        Ctx ctx;
        if (ca::encodeAndFree(ca::pdu("UEContextReleaseRequest"), m, ctx)) toAmf(ctx);
        pump();
    }
    // Pumps until pred holds (the answerer's timers may add messages); false at the deadline.
    template <class F>
    bool pumpUntil(F&& pred, double seconds = 20) {
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(int(seconds * 1000));
        for (;;) {
            pump();
            if (pred()) return true;
            if (std::chrono::steady_clock::now() >= end) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    std::string control(const std::string& line) {
        bool quit = false;
        return amf->control(line, &quit);
    }
    uint64_t counter(const std::string& name) {
        std::string text = control("counters");
        std::string key = "COUNTER " + name + " ";
        size_t p = text.find(key);
        return p == std::string::npos ? 0 : std::stoull(text.substr(p + key.size()));
    }
    Link& link(MV_KsUE* ue) { return links_[ue]; }

    bool ok = false;
    std::string error;
    ca::Options opt;
    ca::Subscribers subs;
    ca::Counters counters;
    ca::Knobs knobs;
    ca::Timers timers;
    std::unique_ptr<ca::Amf> amf;
    std::vector<Bytes> uplinkNas;   // every NAS PDU the UE sent, as sent
    std::vector<uint32_t> uplinkTypes;
    std::atomic<int> failSends{0};  // the next sends that fail, as a lost association would

private:
    static Net*& self() {
        static Net* n = nullptr;
        return n;
    }
    static int sendNas(MV_KsUE* ue, u_char* data, uint32_t len, uint8_t, uint32_t type, uint32_t, uint32_t,
                       uint8_t initial) {
        Net* n = self();
        if (!n) return -1;
        std::lock_guard big(n->big_);
        if (n->failSends > 0) {
            --n->failSends;
            KsNAS__NGAPSendingMessageFailed(ue);
            return -1;
        }
        n->uplinkNas.emplace_back(data, data + len);
        n->uplinkTypes.push_back(type);
        n->uplink(ue, data, len, initial);
        return int(len);
    }
    static void releaseRan(MV_KsUE* ue, uint8_t) {
        if (Net* n = self()) n->disconnect(ue);
    }

    void disconnect(MV_KsUE* ue) {
        Link& l = links_[ue];
        if (l.connected) byRan_.erase(l.ranId);
        l.connected = false;
        ue->TGPP.ranUeContext = nullptr;
        ue->TGPP.CMStatus = CM_STATUS__IDLE;
    }

    static __mv_amf_dt_PLMNIdentity* plmnRec(const uint8_t* p) { return octets(__mv_amf_init_PLMNIdentity2, p, 3); }

    static __mv_amf_dt_UserLocationInformation* location() {
        static const uint8_t plmn[3] = {0x00, 0xF1, 0x10};
        auto* uli = make(__mv_amf_init_UserLocationInformation);
        uli->SelectedChoice = 1;
        auto* nr = make(__mv_amf_init_UserLocationInformationNR);
        nr->nR_CGI = make(__mv_amf_init_NR_CGI);
        nr->nR_CGI->pLMNIdentity = plmnRec(plmn);
        const uint8_t id[5] = {0, 0, 1, 0x01, 0};
        nr->nR_CGI->nRCellIdentity = bits(__mv_amf_init_NRCellIdentity2, id, 5, 36);
        nr->tAI = make(__mv_amf_init_TAI);
        nr->tAI->pLMNIdentity = plmnRec(plmn);
        const uint8_t t[3] = {0, 0, 1};
        nr->tAI->tAC = octets(__mv_amf_init_TAC2, t, 3);
        uli->u.userLocationInformationNR = nr;
        return uli;
    }

    void toAmf(const Ctx& ctx) { amf->onMessage(this, 1, {ctx.buffer, ctx.pos}); }

    void uplink(MV_KsUE* ue, const uint8_t* nas, size_t n, uint8_t initial) {
        Link& l = links_[ue];
        Ctx ctx;
        if (initial || !l.connected) {
            if (l.connected) byRan_.erase(l.ranId);
            l.ranId = nextRan_++;
            l.amfId = 0;
            l.connected = true;
            byRan_[l.ranId] = ue;
            ue->TGPP.ranUeContext = &l.ctx;
            ue->TGPP.CMStatus = CM_STATUS__CONNECTED;
            auto* m = make(__mv_amf_init_InitialUEMessage);
            m->rANUENGAPID = l.ranId;
            m->rANUENGAPID_isset = 1;
            m->nASPDU = octets(__mv_amf_init_NAS_PDU2, nas, n);
            m->nASPDU_isset = 1;
            m->userLocationInformation = location();
            m->userLocationInformation_isset = 1;
            m->rRCEstablishmentCause = 3;
            m->rRCEstablishmentCause_isset = 1;
            if (ue->fgGuti.isset == 1 && !ue->Exclude5GSTMSI) {
                const uint8_t* g = ue->fgGuti.val;
                m->fiveGSTMSI = make(__mv_amf_init_FiveG_S_TMSI);
                const uint8_t set[2] = {g[4], uint8_t(g[5] & 0xC0)};
                const uint8_t ptr = uint8_t(g[5] << 2);
                m->fiveGSTMSI->aMFSetID = bits(__mv_amf_init_AMFSetID2, set, 2, 10);
                m->fiveGSTMSI->aMFPointer = bits(__mv_amf_init_AMFPointer2, &ptr, 1, 6);
                m->fiveGSTMSI->fiveG_TMSI = octets(__mv_amf_init_FiveG_TMSI2, g + 6, 4);
                m->fiveGSTMSI_isset = 1;
            }
            if (ca::encodeAndFree(ca::pdu("InitialUEMessage"), m, ctx)) toAmf(ctx);
            return;
        }
        auto* m = make(__mv_amf_init_UplinkNASTransport);
        m->aMFUENGAPID = l.amfId;
        m->aMFUENGAPID_isset = 1;
        m->rANUENGAPID = l.ranId;
        m->rANUENGAPID_isset = 1;
        m->nASPDU = octets(__mv_amf_init_NAS_PDU2, nas, n);
        m->nASPDU_isset = 1;
        m->userLocationInformation = location();
        m->userLocationInformation_isset = 1;
        if (ca::encodeAndFree(ca::pdu("UplinkNASTransport"), m, ctx)) toAmf(ctx);
    }

    void nasUp(MV_KsUE* ue, std::span<const uint8_t> nas, uint8_t procCode) {
        Bytes b(nas.begin(), nas.end());
        KsNAS__processNasMessage(ue, b.data(), uint32_t(b.size()), KS_BEARER__3GPP, procCode);
    }

    MV_KsUE* ueOf(uint64_t ran, uint64_t amfId) {
        auto it = byRan_.find(ran);
        if (it == byRan_.end()) return nullptr;
        links_[it->second].amfId = amfId;
        return it->second;
    }

    static Bytes responseTransfer(uint32_t teid) {
        auto* t = make(__mv_amf_init_PDUSessionResourceSetupResponseTransfer);
        t->dLQosFlowPerTNLInformation = make(__mv_amf_init_QosFlowPerTNLInformation);
        auto* up = make(__mv_amf_init_UPTransportLayerInformation);
        up->SelectedChoice = 0;
        up->u.gTPTunnel = make(__mv_amf_init_GTPTunnel);
        const uint8_t a[4] = {10, 231, 0, 1};
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

    void downlink(const Bytes& pdu) {
        ca::NgapRecord r;
        if (r.decode(pdu) != 1) return;
        std::string_view name = r.pdu()->name;
        Ctx ctx;
        if (name == "DownlinkNASTransport") {
            auto* m = r.as<__mv_amf_dt_DownlinkNASTransport>();
            if (MV_KsUE* ue = ueOf(m->rANUENGAPID, m->aMFUENGAPID)) nasUp(ue, view(m->nASPDU), 4);
        } else if (name == "InitialContextSetupRequest") {
            auto* m = r.as<__mv_amf_dt_InitialContextSetupRequest>();
            MV_KsUE* ue = ueOf(m->rANUENGAPID, m->aMFUENGAPID);
            if (!ue) return;
            auto* res = make(__mv_amf_init_InitialContextSetupResponse);
            res->aMFUENGAPID = m->aMFUENGAPID;
            res->aMFUENGAPID_isset = 1;
            res->rANUENGAPID = m->rANUENGAPID;
            res->rANUENGAPID_isset = 1;
            std::vector<Bytes> nas;
            if (m->pDUSessionResourceSetupListCxtReq_isset && m->pDUSessionResourceSetupListCxtReq) {
                res->pDUSessionResourceSetupListCxtRes = make(__mv_amf_init_PDUSessionResourceSetupListCxtRes);
                ca::forEach(m->pDUSessionResourceSetupListCxtReq->PDUSessionResourceSetupItemCxtReq, [&](void* p) {
                    auto* it = static_cast<__mv_amf_dt_PDUSessionResourceSetupItemCxtReq*>(p);
                    if (it->isPresent_nAS_PDU) nas.emplace_back(view(it->nAS_PDU).begin(), view(it->nAS_PDU).end());
                    Bytes tr = responseTransfer(uint32_t(m->rANUENGAPID << 4 | it->pDUSessionID));
                    auto* item = make(__mv_amf_init_PDUSessionResourceSetupItemCxtRes);
                    item->pDUSessionID = it->pDUSessionID;
                    item->pDUSessionResourceSetupResponseTransfer = octets(
                        __mv_amf_init_PDUSessionResourceSetupItemCxtRes_pDUSessionResourceSetupResponseTransfer2,
                        tr.data(), tr.size());
                    res->pDUSessionResourceSetupListCxtRes->PDUSessionResourceSetupItemCxtRes =
                        appended(res->pDUSessionResourceSetupListCxtRes->PDUSessionResourceSetupItemCxtRes, item);
                });
                res->pDUSessionResourceSetupListCxtRes_isset = 1;
            }
            if (ca::encodeAndFree(ca::pdu("InitialContextSetupResponse"), res, ctx)) toAmf(ctx);
            for (const Bytes& b : nas) nasUp(ue, b, 14);
            if (m->nASPDU_isset && m->nASPDU) nasUp(ue, view(m->nASPDU), 14);
        } else if (name == "PDUSessionResourceSetupRequest") {
            auto* m = r.as<__mv_amf_dt_PDUSessionResourceSetupRequest>();
            MV_KsUE* ue = ueOf(m->rANUENGAPID, m->aMFUENGAPID);
            if (!ue) return;
            auto* res = make(__mv_amf_init_PDUSessionResourceSetupResponse);
            res->aMFUENGAPID = m->aMFUENGAPID;
            res->aMFUENGAPID_isset = 1;
            res->rANUENGAPID = m->rANUENGAPID;
            res->rANUENGAPID_isset = 1;
            res->pDUSessionResourceSetupListSURes = make(__mv_amf_init_PDUSessionResourceSetupListSURes);
            std::vector<Bytes> nas;
            if (m->pDUSessionResourceSetupListSUReq)
                ca::forEach(m->pDUSessionResourceSetupListSUReq->PDUSessionResourceSetupItemSUReq, [&](void* p) {
                    auto* it = static_cast<__mv_amf_dt_PDUSessionResourceSetupItemSUReq*>(p);
                    if (it->isPresent_pDUSessionNAS_PDU)
                        nas.emplace_back(view(it->pDUSessionNAS_PDU).begin(), view(it->pDUSessionNAS_PDU).end());
                    Bytes tr = responseTransfer(uint32_t(m->rANUENGAPID << 4 | it->pDUSessionID));
                    auto* item = make(__mv_amf_init_PDUSessionResourceSetupItemSURes);
                    item->pDUSessionID = it->pDUSessionID;
                    item->pDUSessionResourceSetupResponseTransfer = octets(
                        __mv_amf_init_PDUSessionResourceSetupItemSURes_pDUSessionResourceSetupResponseTransfer2,
                        tr.data(), tr.size());
                    res->pDUSessionResourceSetupListSURes->PDUSessionResourceSetupItemSURes =
                        appended(res->pDUSessionResourceSetupListSURes->PDUSessionResourceSetupItemSURes, item);
                });
            res->pDUSessionResourceSetupListSURes_isset = 1;
            if (ca::encodeAndFree(ca::pdu("PDUSessionResourceSetupResponse"), res, ctx)) toAmf(ctx);
            for (const Bytes& b : nas) nasUp(ue, b, 29);
        } else if (name == "PDUSessionResourceReleaseCommand") {
            auto* m = r.as<__mv_amf_dt_PDUSessionResourceReleaseCommand>();
            MV_KsUE* ue = ueOf(m->rANUENGAPID, m->aMFUENGAPID);
            if (!ue) return;
            auto* res = make(__mv_amf_init_PDUSessionResourceReleaseResponse);
            res->aMFUENGAPID = m->aMFUENGAPID;
            res->aMFUENGAPID_isset = 1;
            res->rANUENGAPID = m->rANUENGAPID;
            res->rANUENGAPID_isset = 1;
            res->pDUSessionResourceReleasedListRelRes = make(__mv_amf_init_PDUSessionResourceReleasedListRelRes);
            if (m->pDUSessionResourceToReleaseListRelCmd)
                ca::forEach(m->pDUSessionResourceToReleaseListRelCmd->PDUSessionResourceToReleaseItemRelCmd, [&](void* p) {
                    auto* it = static_cast<__mv_amf_dt_PDUSessionResourceToReleaseItemRelCmd*>(p);
                    auto* item = make(__mv_amf_init_PDUSessionResourceReleasedItemRelRes);
                    item->pDUSessionID = it->pDUSessionID;
                    const uint8_t empty = 0;
                    item->pDUSessionResourceReleaseResponseTransfer = octets(
                        __mv_amf_init_PDUSessionResourceReleasedItemRelRes_pDUSessionResourceReleaseResponseTransfer2,
                        &empty, 1);
                    res->pDUSessionResourceReleasedListRelRes->PDUSessionResourceReleasedItemRelRes =
                        appended(res->pDUSessionResourceReleasedListRelRes->PDUSessionResourceReleasedItemRelRes, item);
                });
            res->pDUSessionResourceReleasedListRelRes_isset = 1;
            if (ca::encodeAndFree(ca::pdu("PDUSessionResourceReleaseResponse"), res, ctx)) toAmf(ctx);
            if (m->nASPDU_isset && m->nASPDU) nasUp(ue, view(m->nASPDU), 28);
        } else if (name == "UEContextReleaseCommand") {
            auto* m = r.as<__mv_amf_dt_UEContextReleaseCommand>();
            if (!m->uENGAPIDs || m->uENGAPIDs->SelectedChoice != 0 || !m->uENGAPIDs->u.uE_NGAP_ID_pair) return;
            uint64_t amfId = m->uENGAPIDs->u.uE_NGAP_ID_pair->aMF_UE_NGAP_ID;
            uint64_t ran = m->uENGAPIDs->u.uE_NGAP_ID_pair->rAN_UE_NGAP_ID;
            auto* res = make(__mv_amf_init_UEContextReleaseComplete);
            res->aMFUENGAPID = amfId;
            res->aMFUENGAPID_isset = 1;
            res->rANUENGAPID = ran;
            res->rANUENGAPID_isset = 1;
            if (MV_KsUE* ue = ueOf(ran, amfId)) disconnect(ue);
            if (ca::encodeAndFree(ca::pdu("UEContextReleaseComplete"), res, ctx)) toAmf(ctx);
        }
    }

    cad::Driver setupDrv_;
    std::recursive_mutex big_;  // the test's thread and the UE line's timers take turns
    std::mutex m_;
    std::deque<Bytes> down_;
    std::map<MV_KsUE*, Link> links_;
    std::map<uint64_t, MV_KsUE*> byRan_;
    uint64_t nextRan_ = 1;
};

}  // namespace nsp
