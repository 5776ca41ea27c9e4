// PDU sessions: establishment with an address of the type the UE asks for and the
// gNB resources of its user plane, modification, and release.
#include <arpa/inet.h>

#include <cstdarg>
#include <cstring>

#include "ca_amf.h"
#include "mv_core.h"

#define CA_LOG(level, conn, fmt, ...) \
    log(level, conn, fmt " <%s|%s|%d>", ##__VA_ARGS__, __FILE_NAME__, __func__, __LINE__)

namespace ca {

namespace {

// 5GSM causes used here
constexpr uint8_t kInsufficientResources = 26, kUnknownSessionType = 28, kRegularDeactivation = 36,
                  kInvalidPsi = 43, kMessageTypeUnknown = 97;

// A DNN text as the IE carries it: length-prefixed labels.
Bytes dnnLabels(const std::string& dnn) {
    Bytes out;
    size_t p = 0;
    while (p <= dnn.size()) {
        size_t d = dnn.find('.', p);
        std::string_view label = std::string_view(dnn).substr(p, d == std::string::npos ? std::string::npos : d - p);
        out.push_back(uint8_t(label.size()));
        out.insert(out.end(), label.begin(), label.end());
        if (d == std::string::npos) break;
        p = d + 1;
    }
    return out;
}

}  // namespace

uint32_t Amf::allocIpv4() {
    if (!poolFree_.empty()) {
        uint32_t a = poolFree_.back();
        poolFree_.pop_back();
        return a;
    }
    // the network's own address and the broadcast stay out; .1 is left to a gateway
    if (poolNext_ + 3 >= poolSize_) return 0;
    return poolBase_ + 2 + poolNext_++;
}

void Amf::freeSession(UeContext& ue, uint8_t psi) {
    for (size_t i = 0; i < ue.sessions.size(); ++i)
        if (ue.sessions[i].psi == psi) {
            if (ue.sessions[i].ipv4) poolFree_.push_back(ue.sessions[i].ipv4);
            ue.sessions.erase(ue.sessions.begin() + long(i));
            n_.add(Ev::SessionsReleased);
            return;
        }
}

bool Amf::sessionTransfer(const Session& s, Ctx& ctx) {
    UpTunnel upf = upf_;
    upf.teid = s.upfTeid;
    return buildSetupRequestTransfer(uint8_t(s.type - 1), upf, 1, o_.fiveQi, uint64_t(o_.sessionAmbrMbps) * 1000000, ctx);
}

void Amf::sendSm(Conn& c, const Ctx& sm, uint8_t psi) {
    Ctx ctx;
    if (buildDlNasTransport(psi, {sm.buffer, sm.pos}, ctx)) sendNas(c, ctx);
}

void Amf::ulNasTransport(Conn& c, const NasMessage& m) {
    if (!c.ue || !c.secActive) {
        n_.add(Ev::NasUnexpected);
        CA_LOG(MV_LOG_WARNING, &c, "ULNASTransport before security, dropped");
        return;
    }
    if ((m.b1 & 0x0F) != 1) {
        n_.add(Ev::NasUnexpected);
        CA_LOG(MV_LOG_WARNING, &c, "ULNASTransport with payload container type %u is not served, dropped", m.b1 & 0x0F);
        return;
    }
    NasMessage sm;
    NasParse pr = parseUplink(m.lv, sm);
    if (pr != NasParse::Ok || sm.epd != MV_5GS_SM_EPD) {
        n_.add(Ev::NasMalformed);
        CA_LOG(MV_LOG_WARNING, &c, "N1 SM information of %zu octets: %s, dropped", m.lv.size(),
               pr == NasParse::Ok ? "not a 5GSM message" : nasParseText(pr));
        if (pr == NasParse::UnknownType && m.lv.size() >= 3) {
            Ctx ctx;
            if (buildGsmStatus(m.lv[1], m.lv[2], kMessageTypeUnknown, ctx)) sendSm(c, ctx, m.lv[1]);
        }
        return;
    }
    if (const auto* id = m.find(0x12); id && id->value.size() == 1 && id->value[0] != sm.psi)
        CA_LOG(MV_LOG_WARNING, &c, "PDU session ID %u of the transport differs from %u of the message", id->value[0],
               sm.psi);
    n_.nasRx(MV_5GS_SM_EPD, sm.type);
    const char* kind = nasName(MV_5GS_SM_EPD, sm.type);
    if (ignored(&c, kind)) return;
    switch (sm.type) {
        case 193: return sessionEstablishment(c, sm, m);
        case 201: return sessionModification(c, sm);
        case 209: return sessionRelease(c, sm);
        case 212: return sessionReleaseComplete(c, sm);
        case 204: CA_LOG(MV_LOG_INFO, &c, "PDU session %u modified", sm.psi); return;
        default:
            n_.add(Ev::NasUnexpected);
            CA_LOG(MV_LOG_INFO, &c, "%s for PDU session %u (cause #%u) taken note of", kind, sm.psi, sm.cause);
            return;
    }
}

void Amf::sessionEstablishment(Conn& c, const NasMessage& sm, const NasMessage& mm) {
    UeContext& ue = *c.ue;
    uint32_t cause = 0;
    uint8_t type = 1;  // IPv4 when the UE leaves the choice to the network
    if (const auto* t = sm.find(0x9)) type = t->value[0] & 0x07;
    if (knobs_.take(KnobAction::Reject, "PDUSessionEstablishmentRequest", &cause))
        n_.add(Ev::KnobRejected);
    else if (sm.psi < 1 || sm.psi > 15)
        cause = kInvalidPsi;
    else if (type < 1 || type > 3)
        cause = kUnknownSessionType;
    Session s;
    s.psi = sm.psi;
    s.pti = sm.pti;
    s.type = type;
    if (!cause && (type == 1 || type == 3) && !(s.ipv4 = allocIpv4())) cause = kInsufficientResources;
    if (cause) {
        n_.add(Ev::SessionsRejected);
        CA_LOG(MV_LOG_INFO, &c, "PDU session %u rejected, 5GSM cause #%u", sm.psi, cause);
        Ctx ctx;
        if (buildSessionReject(sm.psi, sm.pti, uint8_t(cause), ctx)) sendSm(c, ctx, sm.psi);
        return;
    }
    if (ue.session(sm.psi)) {
        // A request for a session the network still has: that one is released here first.
        CA_LOG(MV_LOG_INFO, &c, "PDU session %u established again", sm.psi);
        freeSession(ue, sm.psi);
    }
    if (type != 1) {
        uint64_t iid = nextIid_++;
        for (int i = 0; i < 8; ++i) s.iid[i] = uint8_t(iid >> (56 - 8 * i));
    }
    s.upfTeid = nextTeid_++;
    if (!nextTeid_) nextTeid_ = 1;
    s.snssai = c.allowed.empty() ? o_.slices[0] : c.allowed[0];
    if (const auto* n = mm.find(0x22)) {
        SNssai want;
        if (readSnssai(n->value, want)) s.snssai = want;
    }
    if (const auto* d = mm.find(0x25); d && !d->value.empty())
        s.dnn.assign(d->value.begin(), d->value.end());
    else
        s.dnn = dnnLabels(o_.dnn);
    s.state = 1;

    SessionAccept a;
    a.psi = s.psi;
    a.pti = s.pti;
    a.type = s.type;
    uint32_t v4 = htonl(s.ipv4);
    memcpy(a.ipv4, &v4, 4);
    memcpy(a.iid, s.iid, 8);
    a.snssai = s.snssai;
    a.dnn = s.dnn;
    a.ambrMbps = o_.sessionAmbrMbps;
    Ctx acc, dl, transfer;
    Wrapped w;
    if (!buildSessionAccept(a, acc) || !buildDlNasTransport(s.psi, {acc.buffer, acc.pos}, dl) ||
        !sessionTransfer(s, transfer) || !wrap(c, dl, sht(c), w)) {
        CA_LOG(MV_LOG_ERROR, &c, "PDU session %u: the accept could not be encoded", s.psi);
        if (s.ipv4) poolFree_.push_back(s.ipv4);
        return;
    }
    ue.sessions.push_back(s);
    char addr[INET_ADDRSTRLEN] = "-";
    if (s.ipv4) inet_ntop(AF_INET, a.ipv4, addr, sizeof addr);
    CA_LOG(MV_LOG_INFO, &c, "PDU session %u: type %u, IPv4 %s, UPF TEID 0x%08x", s.psi, s.type, addr, s.upfTeid);
    std::vector<SessionItem> items{SessionItem{s.psi, s.snssai, w.bytes, {transfer.buffer, transfer.pos}}};
    if (!c.icsDone && !c.icsPending) {
        // No UE context in the gNB yet: the session goes with the context setup.
        contextSetup(c, {}, items);
        return;
    }
    Ctx ctx;
    if (buildSessionSetupRequest(c.amfId, c.ranId, items, 0, ctx))
        sendNgap(c.assoc, c.stream, ctx, "PDUSessionResourceSetupRequest", w.mm, w.sm);
}

void Amf::sessionRelease(Conn& c, const NasMessage& sm) {
    uint32_t cause = 0;
    Session* s = c.ue->session(sm.psi);
    if (knobs_.take(KnobAction::Reject, "PDUSessionReleaseRequest", &cause))
        n_.add(Ev::KnobRejected);
    else if (!s)
        cause = kInvalidPsi;
    if (cause) {
        CA_LOG(MV_LOG_INFO, &c, "release of PDU session %u rejected, 5GSM cause #%u", sm.psi, cause);
        Ctx ctx;
        if (buildSessionReleaseReject(sm.psi, sm.pti, uint8_t(cause), ctx)) sendSm(c, ctx, sm.psi);
        return;
    }
    s->state = 3;
    s->pti = sm.pti;
    Ctx cmd, dl, transfer;
    Wrapped w;
    if (!buildSessionReleaseCommand(sm.psi, sm.pti, kRegularDeactivation, cmd) ||
        !buildDlNasTransport(sm.psi, {cmd.buffer, cmd.pos}, dl) || !wrap(c, dl, sht(c), w) ||
        !buildReleaseCommandTransfer(nasCause("normal-release"), transfer))
        return;
    CA_LOG(MV_LOG_INFO, &c, "PDU session %u released by the UE", sm.psi);
    Ctx ctx;
    std::vector<std::pair<uint8_t, std::span<const uint8_t>>> list{{sm.psi, {transfer.buffer, transfer.pos}}};
    if (buildSessionReleaseCommand(c.amfId, c.ranId, w.bytes, list, ctx))
        sendNgap(c.assoc, c.stream, ctx, "PDUSessionResourceReleaseCommand", w.mm, w.sm);
}

void Amf::sessionReleaseComplete(Conn& c, const NasMessage& sm) {
    if (!c.ue->session(sm.psi)) {
        CA_LOG(MV_LOG_INFO, &c, "release complete for PDU session %u, which is gone already", sm.psi);
        return;
    }
    freeSession(*c.ue, sm.psi);
    CA_LOG(MV_LOG_INFO, &c, "PDU session %u gone", sm.psi);
}

void Amf::sessionModification(Conn& c, const NasMessage& sm) {
    uint32_t cause = 0;
    if (knobs_.take(KnobAction::Reject, "PDUSessionModificationRequest", &cause))
        n_.add(Ev::KnobRejected);
    else if (!c.ue->session(sm.psi))
        cause = kInvalidPsi;
    Ctx ctx;
    if (cause) {
        CA_LOG(MV_LOG_INFO, &c, "modification of PDU session %u rejected, 5GSM cause #%u", sm.psi, cause);
        if (buildSessionModificationReject(sm.psi, sm.pti, uint8_t(cause), ctx)) sendSm(c, ctx, sm.psi);
        return;
    }
    if (buildSessionModificationCommand(sm.psi, sm.pti, o_.sessionAmbrMbps, ctx)) sendSm(c, ctx, sm.psi);
}

}  // namespace ca
