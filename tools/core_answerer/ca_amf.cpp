// Associations, the NGAP messages of gNBs, sending, and the control channel.
#include "ca_amf.h"

#include <arpa/inet.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "mv_core.h"

#define CA_LOG(level, conn, fmt, ...) \
    log(level, conn, fmt " <%s|%s|%d>", ##__VA_ARGS__, __FILE_NAME__, __func__, __LINE__)

namespace ca {

namespace {

std::string hexPrefix(std::span<const uint8_t> b, size_t max = 24) {
    std::string s;
    char x[3];
    for (size_t i = 0; i < b.size() && i < max; ++i) {
        snprintf(x, sizeof x, "%02x", b[i]);
        s += x;
    }
    if (b.size() > max) s += "...";
    return s;
}

bool parseCidr(const std::string& s, uint32_t& base, uint32_t& size) {
    size_t slash = s.find('/');
    in_addr a{};
    if (slash == std::string::npos || inet_pton(AF_INET, s.substr(0, slash).c_str(), &a) != 1) return false;
    int bits = atoi(s.c_str() + slash + 1);
    if (bits < 8 || bits > 30) return false;
    size = 1u << (32 - bits);
    base = ntohl(a.s_addr) & ~(size - 1);
    return true;
}

}  // namespace

std::string servingNetworkName(const uint8_t plmn[3]) {
    char mcc[4] = {}, mnc[4] = {};
    plmnDigits(plmn, mcc, mnc);
    std::string m = mnc;
    if (m.size() == 2) m = "0" + m;
    return "5G:mnc" + m + ".mcc" + mcc + ".3gppnetwork.org";
}

Session* UeContext::session(uint8_t psi) {
    for (Session& s : sessions)
        if (s.psi == psi) return &s;
    return nullptr;
}

Amf::Amf(const Options& o, Subscribers& subs, Counters& counters, Knobs& knobs, Timers& timers, Transport t)
    : o_(o), subs_(subs), n_(counters), knobs_(knobs), timers_(timers), t_(std::move(t)), rng_(std::random_device{}()) {}

bool Amf::init(std::string& err) {
    std::string mcc = o_.mcc, mnc = o_.mnc;
    if (mcc.empty() && !subs_.ranges().empty()) {
        mcc = subs_.ranges()[0].mcc;
        mnc = subs_.ranges()[0].mnc;
    }
    if (!plmnFromDigits(mcc, mnc, plmn_)) {
        err = "bad PLMN " + mcc + "/" + mnc;
        return false;
    }
    memcpy(guami_.plmn, plmn_, 3);
    guami_.region = o_.region;
    guami_.set = o_.set;
    guami_.pointer = o_.pointer;
    snnDefault_ = servingNetworkName(plmn_);
    std::string upf = o_.upfAddress.empty() ? o_.bind[0] : o_.upfAddress;
    if (inet_pton(AF_INET, upf.c_str(), upf_.addr) == 1) {
        upf_.addrLen = 4;
    } else if (inet_pton(AF_INET6, upf.c_str(), upf_.addr) == 1) {
        upf_.addrLen = 16;
    } else {
        err = "bad UPF address " + upf;
        return false;
    }
    if (!parseCidr(o_.uePool, poolBase_, poolSize_)) {
        err = "bad UE address pool " + o_.uePool + " (IPv4, /8 to /30)";
        return false;
    }
    for (const std::string& k : o_.knobs)
        if (!knobs_.add(k, err)) {
            err = "knob '" + k + "': " + err;
            return false;
        }
    return true;
}

void Amf::log(int level, const Conn* c, const char* fmt, ...) {
    if (level > __mv_log_get_level(MV_APP_LOG)) return;
    char line[LOG_MESSAGE_MAX_SIZE - 64];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    if (c && c->ue)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, uint32_t(level), "[imsi-%s] %s", c->ue->imsi.c_str(), line);
    else if (c)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, uint32_t(level), "[amf-ue-id=%llu] %s", (unsigned long long)c->amfId, line);
    else
        __mv_log(MV_APP_LOG, LOG_CAT_APP, uint32_t(level), "%s", line);
}

// ---------------------------------------------------------------- associations

void Amf::onAccept(AssocKey a, const std::string& peer) {
    {
        std::lock_guard g(evMu_);
        accepted_.emplace_back(a, peer);
    }
    events_ = true;
}

void Amf::onClose(AssocKey a) {
    // The socket layer may call this from inside a send made under mu_: keep it for
    // the next entry rather than take the lock here.
    {
        std::lock_guard g(evMu_);
        closed_.push_back(a);
    }
    events_ = true;
}

void Amf::drainEvents() {
    if (!events_.exchange(false)) return;
    std::vector<std::pair<AssocKey, std::string>> acc;
    std::vector<AssocKey> cl;
    {
        std::lock_guard g(evMu_);
        acc.swap(accepted_);
        cl.swap(closed_);
    }
    // A record reused for a new association is closed before it is accepted again.
    for (AssocKey a : cl) dropAssoc(a);
    for (auto& [a, peer] : acc) {
        if (auto it = assocs_.find(a); it != assocs_.end()) {  // its first message came first
            it->second->peer = peer;
            continue;
        }
        auto as = std::make_unique<Assoc>();
        as->key = a;
        as->peer = peer;
        assocs_[a] = std::move(as);
        n_.add(Ev::AssociationsUp);
        CA_LOG(MV_LOG_INFO, nullptr, "association from %s", peer.c_str());
    }
}

void Amf::dropAssoc(AssocKey a) {
    auto it = assocs_.find(a);
    if (it == assocs_.end()) return;
    std::vector<uint64_t> ids;
    for (auto& [ran, amf] : it->second->byRan) ids.push_back(amf);
    for (uint64_t id : ids) dropConn(id, "association lost");
    CA_LOG(MV_LOG_INFO, nullptr, "association of %s (%s) ended, %zu UE connections dropped", it->second->peer.c_str(),
           it->second->ran.c_str(), ids.size());
    n_.add(Ev::AssociationsLost);
    assocs_.erase(it);
}

void Amf::dropConn(uint64_t amfId, const char* why) {
    auto it = conns_.find(amfId);
    if (it == conns_.end()) return;
    Conn& c = *it->second;
    auto as = assocs_.find(c.assoc);
    if (as != assocs_.end()) {
        auto r = as->second->byRan.find(c.ranId);
        if (r != as->second->byRan.end() && r->second == amfId) as->second->byRan.erase(r);
    }
    if (c.retxTimerId) timers_.cancel(c.retxTimerId);
    if (c.ue && c.ue->conn == amfId) {
        c.ue->conn = 0;
        // the user plane ends with the gNB's UE context; the sessions stay
        for (Session& s : c.ue->sessions) {
            s.gnb = UpTunnel{};
            if (s.state == 4) s.state = 2;
        }
    }
    CA_LOG(MV_LOG_DEBUG, &c, "NG connection ended: %s", why);
    conns_.erase(it);
}

size_t Amf::connections() {
    std::lock_guard g(mu_);
    drainEvents();
    return conns_.size();
}

size_t Amf::registeredUes() {
    std::lock_guard g(mu_);
    size_t n = 0;
    for (uint32_t i = 0; i < subs_.count(); ++i)
        if (subs_.state(i).ue && subs_.state(i).ue->registered) ++n;
    return n;
}

std::string Amf::summary() {
    std::lock_guard g(mu_);
    drainEvents();
    size_t reg = 0, sessions = 0, known = 0;
    for (uint32_t i = 0; i < subs_.count(); ++i) {
        UeContext* u = subs_.state(i).ue;
        if (!u) continue;
        ++known;
        reg += u->registered;
        sessions += u->sessions.size();
    }
    size_t setup = 0;
    for (auto& [k, a] : assocs_) setup += a->setup;
    return "UES associations=" + std::to_string(assocs_.size()) + " ng_setup=" + std::to_string(setup) +
           " connections=" + std::to_string(conns_.size()) + " known=" + std::to_string(known) +
           " registered=" + std::to_string(reg) + " sessions=" + std::to_string(sessions) +
           " timers=" + std::to_string(timers_.pending()) + "\n";
}

// ---------------------------------------------------------------- sending

void Amf::sendNgap(AssocKey a, uint16_t stream, const Ctx& ctx, const char* pdu, const char* mm, const char* sm) {
    const MvAsnPdu* p = __mv_asn_find_pdu(mv_asn_amf::kPdus, mv_asn_amf::kPduCount, ctx.buffer, ctx.pos);
    for (const char* kind : {pdu, mm, sm}) {
        if (!kind || !*kind) continue;
        if (knobs_.take(KnobAction::Drop, kind)) {
            n_.add(Ev::KnobDropped);
            CA_LOG(MV_LOG_INFO, nullptr, "knob: %s (%s%s%s) dropped", pdu, mm, *sm ? "/" : "", sm);
            return;
        }
        uint32_t ms = 0;
        if (knobs_.take(KnobAction::Delay, kind, &ms)) {
            n_.add(Ev::KnobDelayed);
            CA_LOG(MV_LOG_INFO, nullptr, "knob: %s (%s%s%s) delayed by %u ms", pdu, mm, *sm ? "/" : "", sm, ms);
            auto bytes = std::make_shared<Bytes>(ctx.buffer, ctx.buffer + ctx.pos);
            unsigned idx = p ? ngapIndex(p) : 0;
            timers_.after(ms, [this, a, stream, bytes, idx, hasPdu = p != nullptr] {
                std::lock_guard g(mu_);
                drainEvents();
                if (!assocs_.count(a)) return;
                if (t_.send(a, stream, bytes->data(), bytes->size()) < 1)
                    n_.add(Ev::SendFailed);
                else if (hasPdu)
                    n_.ngapTx(idx);
            });
            return;
        }
    }
    if (t_.send(a, stream, ctx.buffer, ctx.pos) < 1) {
        n_.add(Ev::SendFailed);
        CA_LOG(MV_LOG_WARNING, nullptr, "sending %s failed", pdu);
        return;
    }
    if (p) n_.ngapTx(ngapIndex(p));
}

void Amf::sendToUe(Conn& c, const Ctx& ctx, const char* pdu, const Wrapped* nas) {
    sendNgap(c.assoc, c.stream, ctx, pdu, nas ? nas->mm : "", nas ? nas->sm : "");
}

void Amf::errorIndication(Assoc& as, uint16_t stream, uint64_t amfId, bool hasAmf, uint64_t ranId, bool hasRan,
                          NgCause cause) {
    Ctx ctx;
    if (buildErrorIndication(amfId, hasAmf, ranId, hasRan, cause, ctx)) sendNgap(as.key, stream, ctx, "ErrorIndication");
}

void Amf::releaseContext(Conn& c, NgCause cause) {
    stopRetx(c);
    c.phase = Phase::Releasing;
    Ctx ctx;
    if (buildUeContextReleaseCommand(c.amfId, c.ranId, cause, ctx)) sendToUe(c, ctx, "UEContextReleaseCommand");
}

// ---------------------------------------------------------------- receiving

void Amf::onMessage(AssocKey a, uint16_t stream, std::span<const uint8_t> pdu) {
    std::lock_guard g(mu_);
    drainEvents();
    auto it = assocs_.find(a);
    if (it == assocs_.end()) {
        // the accept may still be on its way from the server thread
        auto as = std::make_unique<Assoc>();
        as->key = a;
        as->peer = "?";
        it = assocs_.emplace(a, std::move(as)).first;
        n_.add(Ev::AssociationsUp);
    }
    handleNgap(*it->second, stream, pdu);
}

void Amf::handleNgap(Assoc& as, uint16_t stream, std::span<const uint8_t> pdu) {
    NgapRecord r;
    int rc = r.decode(pdu);
    if (rc == 0) {
        n_.add(Ev::NgapUnhandled);
        CA_LOG(MV_LOG_WARNING, nullptr, "%s: an NGAP message of no known procedure and form, %zu octets %s, dropped",
               as.peer.c_str(), pdu.size(), hexPrefix(pdu).c_str());
        return;
    }
    if (rc < 0) {
        n_.add(Ev::NgapMalformed);
        CA_LOG(MV_LOG_WARNING, nullptr, "%s: malformed %s, %zu octets %s, dropped", as.peer.c_str(),
               r.pdu() ? r.pdu()->name : "NGAP message", pdu.size(), hexPrefix(pdu).c_str());
        errorIndication(as, 0, 0, false, 0, false, protocolCause("transfer-syntax-error"));
        return;
    }
    const char* name = r.pdu()->name;
    n_.ngapRx(ngapIndex(r.pdu()));
    if (ignored(nullptr, name)) return;
    std::string_view n = name;
    if (n == "NGSetupRequest") return ngSetup(as, r.as<__mv_amf_dt_NGSetupRequest>());
    if (!as.setup) {
        CA_LOG(MV_LOG_WARNING, nullptr, "%s: %s before NG Setup, dropped", as.peer.c_str(), name);
        errorIndication(as, stream, 0, false, 0, false, protocolCause("message-not-compatible-with-receiver-state"));
        return;
    }
    if (n == "InitialUEMessage") return initialUe(as, stream, r.as<__mv_amf_dt_InitialUEMessage>());
    if (n == "NGReset") return ngReset(as, r.as<__mv_amf_dt_NGReset>());
    if (n == "ErrorIndication") {
        const auto* m = r.as<__mv_amf_dt_ErrorIndication>();
        NgCause c{};
        if (m->cause_isset && m->cause) c = {m->cause->SelectedChoice, m->cause->u.radioNetwork};
        CA_LOG(MV_LOG_WARNING, nullptr, "%s: ErrorIndication amf-ue-id=%llu ran-ue-id=%llu cause=%s", as.peer.c_str(),
               m->aMFUENGAPID_isset ? (unsigned long long)m->aMFUENGAPID : 0ull,
               m->rANUENGAPID_isset ? (unsigned long long)m->rANUENGAPID : 0ull,
               m->cause_isset ? causeText(c).c_str() : "none");
        return;
    }
#define CA_UE_MSG(T, var)                                                                                             \
    const auto* var = r.as<__mv_amf_dt_##T>();                                                                         \
    Conn* c = ueConn(as, name, var->aMFUENGAPID, var->aMFUENGAPID_isset, var->rANUENGAPID, var->rANUENGAPID_isset); \
    if (!c) return;                                                                                                    \
    if (stream) c->stream = stream
    if (n == "UplinkNASTransport") {
        CA_UE_MSG(UplinkNASTransport, m);
        if (!m->nASPDU_isset || !m->nASPDU) {
            n_.add(Ev::NgapMalformed);
            CA_LOG(MV_LOG_WARNING, c, "UplinkNASTransport without NAS-PDU, dropped");
            return;
        }
        uint8_t plmn[3], tac[3];
        if (m->userLocationInformation_isset && readNrTai(m->userLocationInformation, plmn, tac)) {
            memcpy(c->plmn, plmn, 3);
            memcpy(c->tac, tac, 3);
            c->hasTai = true;
        }
        return uplinkNas(*c, view(m->nASPDU), false, nullptr);
    }
    if (n == "InitialContextSetupResponse") {
        CA_UE_MSG(InitialContextSetupResponse, m);
        return contextSetupResponse(*c, m);
    }
    if (n == "InitialContextSetupFailure") {
        CA_UE_MSG(InitialContextSetupFailure, m);
        return contextSetupFailure(*c, m);
    }
    if (n == "PDUSessionResourceSetupResponse") {
        CA_UE_MSG(PDUSessionResourceSetupResponse, m);
        return sessionSetupResponse(*c, m);
    }
    if (n == "PDUSessionResourceReleaseResponse") {
        CA_UE_MSG(PDUSessionResourceReleaseResponse, m);
        CA_LOG(MV_LOG_DEBUG, c, "PDUSessionResourceReleaseResponse");
        return;
    }
    if (n == "UEContextReleaseRequest") {
        CA_UE_MSG(UEContextReleaseRequest, m);
        return releaseRequest(*c, m);
    }
    if (n == "UEContextReleaseComplete") {
        CA_UE_MSG(UEContextReleaseComplete, m);
        (void)m;
        return releaseComplete(*c);
    }
    if (n == "UERadioCapabilityInfoIndication" || n == "UEContextModificationResponse" ||
        n == "PDUSessionResourceModifyResponse" || n == "PDUSessionResourceNotify") {
        CA_LOG(MV_LOG_DEBUG, nullptr, "%s: %s taken note of", as.peer.c_str(), name);
        return;
    }
#undef CA_UE_MSG
    n_.add(Ev::NgapUnhandled);
    CA_LOG(MV_LOG_WARNING, nullptr, "%s: %s is not served here, dropped", as.peer.c_str(), name);
}

Conn* Amf::ueConn(Assoc& as, const char* what, uint64_t amfId, int amfSet, uint64_t ranId, int ranSet) {
    if (!amfSet || !ranSet) {
        n_.add(Ev::NgapMalformed);
        CA_LOG(MV_LOG_WARNING, nullptr, "%s: %s without %s, dropped", as.peer.c_str(), what,
               amfSet ? "RAN UE NGAP ID" : "AMF UE NGAP ID");
        return nullptr;
    }
    auto it = conns_.find(amfId);
    if (it == conns_.end() || it->second->assoc != as.key) {
        n_.add(Ev::NgapUnknownUe);
        CA_LOG(MV_LOG_WARNING, nullptr, "%s: %s for unknown AMF UE NGAP ID=%llu (RAN UE NGAP ID=%llu), dropped",
               as.peer.c_str(), what, (unsigned long long)amfId, (unsigned long long)ranId);
        errorIndication(as, 0, amfId, true, ranId, true, radioCause("unknown-local-UE-NGAP-ID"));
        return nullptr;
    }
    if (it->second->ranId != ranId) {
        n_.add(Ev::NgapUnknownUe);
        CA_LOG(MV_LOG_WARNING, it->second.get(), "%s: %s with RAN UE NGAP ID=%llu, the connection has %llu, dropped",
               as.peer.c_str(), what, (unsigned long long)ranId, (unsigned long long)it->second->ranId);
        errorIndication(as, 0, amfId, true, ranId, true, radioCause("inconsistent-remote-UE-NGAP-ID"));
        return nullptr;
    }
    return it->second.get();
}

void Amf::ngSetup(Assoc& as, const __mv_amf_dt_NGSetupRequest* m) {
    as.ran = ranNodeText(m);
    bool served = false;
    for (const auto& p : readBroadcastPlmns(m->supportedTAList_isset ? m->supportedTAList : nullptr))
        served = served || memcmp(p.data(), plmn_, 3) == 0;
    Ctx ctx;
    if (!m->globalRANNodeID_isset || !served) {
        CA_LOG(MV_LOG_WARNING, nullptr, "%s: NG Setup of %s refused: %s", as.peer.c_str(), as.ran.c_str(),
               m->globalRANNodeID_isset ? "it broadcasts none of our PLMN" : "no Global RAN Node ID");
        if (buildNgSetupFailure(m->globalRANNodeID_isset ? miscCause("unknown-PLMN") : protocolCause("semantic-error"),
                                ctx))
            sendNgap(as.key, 0, ctx, "NGSetupFailure");
        return;
    }
    if (!buildNgSetupResponse(o_.name, guami_, o_.capacity, plmn_, o_.slices, ctx)) return;
    as.setup = true;
    CA_LOG(MV_LOG_INFO, nullptr, "%s: NG Setup of %s", as.peer.c_str(), as.ran.c_str());
    sendNgap(as.key, 0, ctx, "NGSetupResponse");
}

void Amf::ngReset(Assoc& as, const __mv_amf_dt_NGReset* m) {
    std::vector<std::pair<uint64_t, uint64_t>> ids;
    bool partial = m->resetType_isset && m->resetType && m->resetType->SelectedChoice == 1;
    if (partial) {
        forEach(m->resetType->u.partOfNG_Interface ? m->resetType->u.partOfNG_Interface->UE_associatedLogicalNG_connectionItem
                                                   : nullptr,
                [&](void* p) {
                    auto* it = static_cast<__mv_amf_dt_UE_associatedLogicalNG_connectionItem*>(p);
                    uint64_t amf = it->isPresent_aMF_UE_NGAP_ID ? it->aMF_UE_NGAP_ID : 0;
                    if (!amf && it->isPresent_rAN_UE_NGAP_ID) {
                        auto r = as.byRan.find(it->rAN_UE_NGAP_ID);
                        if (r != as.byRan.end()) amf = r->second;
                    }
                    ids.emplace_back(amf, it->isPresent_rAN_UE_NGAP_ID ? it->rAN_UE_NGAP_ID : 0);
                });
        for (const auto& [amf, ran] : ids) dropConn(amf, "NG reset");
    } else {
        std::vector<uint64_t> all;
        for (auto& [ran, amf] : as.byRan) all.push_back(amf);
        for (uint64_t amf : all) dropConn(amf, "NG reset");
    }
    CA_LOG(MV_LOG_INFO, nullptr, "%s: NG Reset (%s)", as.peer.c_str(), partial ? "part of the interface" : "all");
    Ctx ctx;
    if (buildNgResetAcknowledge(ids, partial, ctx)) sendNgap(as.key, 0, ctx, "NGResetAcknowledge");
}

void Amf::initialUe(Assoc& as, uint16_t stream, const __mv_amf_dt_InitialUEMessage* m) {
    if (!m->rANUENGAPID_isset || !m->nASPDU_isset || !m->nASPDU) {
        n_.add(Ev::NgapMalformed);
        CA_LOG(MV_LOG_WARNING, nullptr, "%s: InitialUEMessage without %s, dropped", as.peer.c_str(),
               m->rANUENGAPID_isset ? "NAS-PDU" : "RAN UE NGAP ID");
        return;
    }
    // A gNB that reuses a RAN UE NGAP ID has let go of the connection that had it.
    auto old = as.byRan.find(m->rANUENGAPID);
    if (old != as.byRan.end()) dropConn(old->second, "its RAN UE NGAP ID came again in an InitialUEMessage");
    auto c = std::make_unique<Conn>();
    c->amfId = nextAmfId_++;
    if (nextAmfId_ >= (1ull << 40)) nextAmfId_ = 1;
    c->ranId = m->rANUENGAPID;
    c->assoc = as.key;
    c->stream = stream;
    c->contextRequested = m->uEContextRequest_isset != 0;
    c->hasTai = m->userLocationInformation_isset && readNrTai(m->userLocationInformation, c->plmn, c->tac);
    uint32_t tmsi = 0;
    uint16_t set = 0;
    uint8_t ptr = 0;
    bool hasTmsi = m->fiveGSTMSI_isset && readFiveGSTmsi(m->fiveGSTMSI, set, ptr, tmsi) && set == guami_.set &&
                   ptr == guami_.pointer;
    Conn& ref = *c;
    as.byRan[c->ranId] = c->amfId;
    conns_[c->amfId] = std::move(c);
    uplinkNas(ref, view(m->nASPDU), true, hasTmsi ? &tmsi : nullptr);
}

void Amf::contextSetupResponse(Conn& c, const __mv_amf_dt_InitialContextSetupResponse* m) {
    c.icsDone = true;
    c.icsPending = false;
    if (m->pDUSessionResourceSetupListCxtRes_isset && m->pDUSessionResourceSetupListCxtRes && c.ue)
        forEach(m->pDUSessionResourceSetupListCxtRes->PDUSessionResourceSetupItemCxtRes, [&](void* p) {
            auto* it = static_cast<__mv_amf_dt_PDUSessionResourceSetupItemCxtRes*>(p);
            Session* s = c.ue->session(uint8_t(it->pDUSessionID));
            if (s && readSetupResponseTransfer(view(it->pDUSessionResourceSetupResponseTransfer), s->gnb)) {
                if (s->state == 1) n_.add(Ev::SessionsUp);
                if (s->state == 1 || s->state == 4) s->state = 2;
            }
        });
    CA_LOG(MV_LOG_DEBUG, &c, "InitialContextSetupResponse");
}

void Amf::contextSetupFailure(Conn& c, const __mv_amf_dt_InitialContextSetupFailure* m) {
    c.icsPending = false;
    NgCause cause{};
    if (m->cause_isset && m->cause) cause = {m->cause->SelectedChoice, m->cause->u.radioNetwork};
    CA_LOG(MV_LOG_WARNING, &c, "InitialContextSetupFailure cause=%s", causeText(cause).c_str());
}

void Amf::sessionSetupResponse(Conn& c, const __mv_amf_dt_PDUSessionResourceSetupResponse* m) {
    if (!c.ue) return;
    if (m->pDUSessionResourceSetupListSURes_isset && m->pDUSessionResourceSetupListSURes)
        forEach(m->pDUSessionResourceSetupListSURes->PDUSessionResourceSetupItemSURes, [&](void* p) {
            auto* it = static_cast<__mv_amf_dt_PDUSessionResourceSetupItemSURes*>(p);
            Session* s = c.ue->session(uint8_t(it->pDUSessionID));
            if (!s) return;
            if (!readSetupResponseTransfer(view(it->pDUSessionResourceSetupResponseTransfer), s->gnb)) {
                CA_LOG(MV_LOG_WARNING, &c, "PDU session %u: setup response transfer unreadable", s->psi);
                return;
            }
            if (s->state == 1) n_.add(Ev::SessionsUp);
            s->state = 2;
            CA_LOG(MV_LOG_INFO, &c, "PDU session %u up, gNB TEID 0x%08x", s->psi, s->gnb.teid);
        });
    if (m->pDUSessionResourceFailedToSetupListSURes_isset && m->pDUSessionResourceFailedToSetupListSURes)
        forEach(m->pDUSessionResourceFailedToSetupListSURes->PDUSessionResourceFailedToSetupItemSURes, [&](void* p) {
            uint8_t psi = uint8_t(static_cast<__mv_amf_dt_PDUSessionResourceFailedToSetupItemSURes*>(p)->pDUSessionID);
            CA_LOG(MV_LOG_WARNING, &c, "PDU session %u: the gNB failed to set it up", psi);
            n_.add(Ev::SessionsRejected);
            freeSession(*c.ue, psi);
        });
}

void Amf::releaseRequest(Conn& c, const __mv_amf_dt_UEContextReleaseRequest* m) {
    NgCause cause = radioCause("user-inactivity");
    if (m->cause_isset && m->cause) cause = {m->cause->SelectedChoice, m->cause->u.radioNetwork};
    CA_LOG(MV_LOG_INFO, &c, "UE context release requested, cause %s", causeText(cause).c_str());
    releaseContext(c, cause);
}

void Amf::releaseComplete(Conn& c) {
    n_.add(Ev::ContextsReleased);
    CA_LOG(MV_LOG_INFO, &c, "UE context released");
    dropConn(c.amfId, "UE context release complete");
}

// ---------------------------------------------------------------- control

std::string Amf::control(std::string_view line, bool* quit) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' ')) line.remove_suffix(1);
    while (!line.empty() && line.front() == ' ') line.remove_prefix(1);
    if (line.empty()) return "";
    size_t sp = line.find(' ');
    std::string_view cmd = line.substr(0, sp), rest = sp == line.npos ? "" : line.substr(sp + 1);
    if (cmd == "knob") {
        std::string err;
        return knobs_.add(rest, err) ? "OK knob " + std::string(rest) + "\n" : "ERR " + err + "\n";
    }
    if (cmd == "knobs") return knobs_.list() + "END\n";
    if (cmd == "clear") {
        knobs_.clear();
        return "OK knobs cleared\n";
    }
    if (cmd == "counters") return n_.text();
    if (cmd == "ues") return summary();
    if (cmd == "quit") {
        if (quit) *quit = true;
        return "OK quit\n";
    }
    std::lock_guard g(mu_);
    drainEvents();
    if (cmd == "abort") {
        size_t n = assocs_.size();
        for (auto& [k, a] : assocs_) t_.close(k);
        return "OK closing " + std::to_string(n) + " associations\n";
    }
    if (cmd == "dereg") {
        bool rereg = rest.find(" rereg") != rest.npos;
        std::string_view who = rest.substr(0, rest.find(' '));
        size_t sent = 0, idle = 0;
        std::vector<uint64_t> ids;
        for (auto& [id, c] : conns_)
            if (c->ue && c->ue->registered && (who == "all" || who == c->ue->imsi)) ids.push_back(id);
        for (uint32_t i = 0; i < subs_.count(); ++i) {
            UeContext* u = subs_.state(i).ue;
            if (u && u->registered && !u->conn && (who == "all" || who == u->imsi)) ++idle;
        }
        for (uint64_t id : ids) {
            networkDeregistration(*conns_[id], rereg);
            ++sent;
        }
        return "OK deregistration sent to " + std::to_string(sent) + " connected UEs; " + std::to_string(idle) +
               " idle UEs left (no paging here)\n";
    }
    return "ERR unknown command '" + std::string(cmd) + "' (knob, knobs, clear, counters, ues, abort, dereg, quit)\n";
}

}  // namespace ca
