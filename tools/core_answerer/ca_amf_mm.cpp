// NAS security on the connection and the 5GMM procedures: registration with identity,
// 5G-AKA and the security mode command, registration complete, deregistration both
// ways, service request, and the network's timers of these procedures.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "ca_amf.h"
#include "mv_core.h"
#include "mvalgo_prim.h"

#define CA_LOG(level, conn, fmt, ...) \
    log(level, conn, fmt " <%s|%s|%d>", ##__VA_ARGS__, __FILE_NAME__, __func__, __LINE__)

namespace ca {

namespace {

constexpr uint8_t T3550 = 50, T3560 = 60, T3570 = 70, T3522 = 22;

const char* timerName(uint8_t t) {
    switch (t) {
        case T3550: return "T3550";
        case T3560: return "T3560";
        case T3570: return "T3570";
        case T3522: return "T3522";
    }
    return "timer";
}

template <size_t N>
std::span<const uint8_t, N> fixed(const uint8_t* p) {
    return std::span<const uint8_t, N>(p, N);
}
template <size_t N>
std::span<uint8_t, N> fixedOut(uint8_t* p) {
    return std::span<uint8_t, N>(p, N);
}

// Messages a UE may send in clear once security is in use (the identity response
// only answers a request for the SUCI, which a UE without a context is asked for).
bool plainAllowed(uint8_t type) {
    switch (type) {
        case 65: case 69: case 72: case 76: case 87: case 89: case 92: case 95: return true;
        default: return false;
    }
}

}  // namespace

Amf::~Amf() {
    for (uint32_t i = 0; i < subs_.count(); ++i) {
        delete subs_.state(i).ue;
        subs_.state(i).ue = nullptr;
    }
}

UeContext& Amf::contextOf(uint32_t sub) {
    SubscriberState& st = subs_.state(sub);
    if (!st.ue) {
        st.ue = new UeContext;
        st.ue->sub = sub;
        st.ue->imsi = subs_.imsi(sub);
        st.ue->sec.bearer = o_.nasBearer;
    }
    return *st.ue;
}

UeContext* Amf::ueByTmsi(uint32_t tmsi) {
    uint32_t idx = tmsi & 0xFFFFFF;
    if (idx >= subs_.count()) return nullptr;
    UeContext* u = subs_.state(idx).ue;
    return u && u->hasGuti && u->tmsi == tmsi ? u : nullptr;
}

void Amf::attach(Conn& c, UeContext& ue) {
    if (ue.conn && ue.conn != c.amfId) {
        // The UE is here on a new connection: the old one is of no more use.
        auto old = conns_.find(ue.conn);
        if (old != conns_.end()) {
            Conn& o = *old->second;
            o.ue = nullptr;
            CA_LOG(MV_LOG_INFO, &c, "replaces its NG connection amf-ue-id=%llu", (unsigned long long)o.amfId);
            releaseContext(o, radioCause("release-due-to-5gc-generated-reason"));
        }
    }
    c.ue = &ue;
    ue.conn = c.amfId;
}

// ---------------------------------------------------------------- NAS security on the connection

bool Amf::wrap(Conn& c, const Ctx& plainCtx, uint8_t shtIn, Wrapped& out) {
    std::span<const uint8_t> msg(plainCtx.buffer, plainCtx.pos);
    Ctx status;
    uint8_t type = msg.size() > 2 ? msg[2] : 0;
    out.mm = nasName(MV_5GS_MM_EPD, type);
    out.sm = type == 104 && msg.size() > 9 ? nasName(MV_5GS_SM_EPD, msg[9]) : "";
    uint32_t cause = 0;
    for (const char* kind : {out.mm, out.sm}) {
        if (*kind && knobs_.take(KnobAction::Status, kind, &cause)) {
            CA_LOG(MV_LOG_INFO, &c, "knob: 5GMM STATUS #%u instead of %s", cause, kind);
            n_.add(Ev::KnobStatus);
            if (!buildGmmStatus(uint8_t(cause), status)) return false;
            msg = {status.buffer, status.pos};
            out.mm = nasName(MV_5GS_MM_EPD, 100);
            out.sm = "";
            break;
        }
    }
    n_.nasTx(MV_5GS_MM_EPD, msg[2]);
    if (*out.sm) n_.nasTx(MV_5GS_SM_EPD, msg[9]);
    NasSecurity* sec = shtIn == 3 ? &c.pendingSec : c.ue && c.ue->secValid ? &c.ue->sec : nullptr;
    bool plain = shtIn == 0 || !sec;
    if (!plain && (knobs_.take(KnobAction::Plain, out.mm) || (*out.sm && knobs_.take(KnobAction::Plain, out.sm)))) {
        CA_LOG(MV_LOG_INFO, &c, "knob: %s sent without protection", out.mm);
        n_.add(Ev::KnobPlain);
        plain = true;
    }
    if (plain) {
        out.bytes.assign(msg.begin(), msg.end());
        return true;
    }
    sec->protect(msg, shtIn, out.bytes);
    if (knobs_.take(KnobAction::BadMac, out.mm) || (*out.sm && knobs_.take(KnobAction::BadMac, out.sm))) {
        CA_LOG(MV_LOG_INFO, &c, "knob: %s sent with a wrong MAC", out.mm);
        n_.add(Ev::KnobBadMac);
        out.bytes[2] ^= 0x5A;
    }
    return true;
}

void Amf::sendNas(Conn& c, const Ctx& plain, uint8_t retxTimer, int shtOverride) {
    uint8_t s = shtOverride >= 0 ? uint8_t(shtOverride) : sht(c);
    Wrapped w;
    if (!wrap(c, plain, s, w)) return;
    Ctx ctx;
    if (!buildDownlinkNasTransport(c.amfId, c.ranId, w.bytes, ctx)) return;
    sendToUe(c, ctx, "DownlinkNASTransport", &w);
    if (retxTimer) armRetx(c, retxTimer, plain, s, true);
}

void Amf::armRetx(Conn& c, uint8_t timer, const Ctx& plain, uint8_t s, bool fresh) {
    uint32_t ms = timer == T3550 ? o_.t3550 : timer == T3560 ? o_.t3560 : timer == T3570 ? o_.t3570 : o_.t3522;
    if (fresh) {
        ++c.retxGen;
        c.retxLeft = o_.retransmissions;
        c.retxPlain.assign(plain.buffer, plain.buffer + plain.pos);
        c.retxSht = s;
    }
    c.retxTimer = ms ? timer : 0;
    if (!ms) return;
    uint64_t id = c.amfId;
    uint32_t gen = c.retxGen;
    c.retxTimerId = timers_.after(ms, [this, id, gen] { onRetx(id, gen); });
}

void Amf::stopRetx(Conn& c) {
    if (c.retxTimerId) timers_.cancel(c.retxTimerId);
    c.retxTimerId = 0;
    c.retxTimer = 0;
    ++c.retxGen;
}

void Amf::onRetx(uint64_t amfId, uint32_t gen) {
    std::lock_guard g(mu_);
    drainEvents();
    auto it = conns_.find(amfId);
    if (it == conns_.end()) return;
    Conn& c = *it->second;
    if (c.retxGen != gen || !c.retxTimer) return;
    c.retxTimerId = 0;
    uint8_t timer = c.retxTimer;
    if (c.retxLeft > 0) {
        --c.retxLeft;
        n_.add(Ev::Retransmissions);
        Ctx plain;
        __mv_asn_init_CodingContext(&plain);
        memcpy(plain.buffer, c.retxPlain.data(), c.retxPlain.size());
        plain.pos = uint16_t(c.retxPlain.size());
        CA_LOG(MV_LOG_INFO, &c, "%s expired: %s sent again (%d more)", timerName(timer),
               nasName(MV_5GS_MM_EPD, plain.buffer[2]), c.retxLeft);
        // Nothing was received under the new context yet: it starts at COUNT 0 again.
        if (c.retxSht == 3) c.pendingSec.dl = 0;
        Wrapped w;
        Ctx ctx;
        if (wrap(c, plain, c.retxSht, w) && buildDownlinkNasTransport(c.amfId, c.ranId, w.bytes, ctx))
            sendToUe(c, ctx, "DownlinkNASTransport", &w);
        armRetx(c, timer, plain, c.retxSht, false);
        return;
    }
    n_.add(Ev::ProceduresAbandoned);
    c.retxTimer = 0;
    CA_LOG(MV_LOG_WARNING, &c, "%s expired for the last time: procedure abandoned", timerName(timer));
    if (timer == T3550 && c.ue) {
        // Without a complete the UE is registered all the same.
        c.phase = Phase::Registered;
        c.ue->registered = true;
        n_.add(Ev::Registered);
        return;
    }
    if (timer == T3522 && c.ue) {
        c.ue->registered = false;
        releaseSessionsLocally(*c.ue);
        n_.add(Ev::Deregistered);
    }
    releaseContext(c, timer == T3522 ? nasCause("deregister") : nasCause("unspecified"));
}

// ---------------------------------------------------------------- receiving

bool Amf::ignored(const Conn* c, const char* kind) {
    if (!knobs_.take(KnobAction::Ignore, kind)) return false;
    n_.add(Ev::KnobIgnored);
    CA_LOG(MV_LOG_INFO, c, "knob: %s ignored", kind);
    return true;
}

void Amf::uplinkNas(Conn& c, std::span<const uint8_t> pdu, bool initial, const uint32_t* ngapTmsi) {
    if (pdu.size() < 3 || pdu[0] != MV_5GS_MM_EPD) {
        n_.add(Ev::NasMalformed);
        CA_LOG(MV_LOG_WARNING, &c, "NAS PDU of %zu octets is not a 5GMM message, dropped", pdu.size());
        return;
    }
    uint8_t shtIn = pdu[1] & 0x0F;
    Bytes opened;
    std::span<const uint8_t> plain = pdu;
    bool verified = false, viaNew = false;
    if (shtIn != 0) {
        if (shtIn > 4 || pdu.size() < 10) {
            n_.add(Ev::NasMalformed);
            CA_LOG(MV_LOG_WARNING, &c, "protected NAS PDU of %zu octets with header type %u, dropped", pdu.size(), shtIn);
            return;
        }
        UeContext* ue = c.ue;
        if (!ue && initial) {
            // An initial message finds its context by the 5G-S-TMSI of the gNB, or by
            // the identity that an integrity-only message shows in clear.
            NasMessage inner;
            MobileIdentity id;
            if (ngapTmsi)
                ue = ueByTmsi(*ngapTmsi);
            else if (shtIn == 1 && parseUplink(pdu.subspan(7), inner) == NasParse::Ok && !inner.lv.empty() &&
                     decodeIdentity(inner.lv, id) && (id.type == 2 || id.type == 4))
                ue = ueByTmsi(id.tmsi);
        }
        NasSecurity* sec = nullptr;
        if (c.phase == Phase::Smc && (shtIn == 4 || shtIn == 2)) {
            sec = &c.pendingSec;
            viaNew = true;
        } else if (ue && ue->secValid) {
            sec = &ue->sec;
        }
        if (sec && sec->open(pdu, opened, &c.lastUlCount) == NasSecurity::Open::Ok) {
            plain = opened;
            verified = true;
        } else if (initial && shtIn == 1) {
            plain = pdu.subspan(7);  // taken as if it came in clear
        } else {
            n_.add(Ev::NasMacFailed);
            CA_LOG(MV_LOG_WARNING, &c, "NAS message (header type %u, SN %u) fails its integrity check%s, dropped", shtIn,
                   pdu[6], sec ? "" : " (no security context)");
            return;
        }
        if (verified && !viaNew && ue && c.ue != ue) attach(c, *ue);
        if (verified && !viaNew) c.secActive = true;
    }
    NasMessage m;
    NasParse pr = parseUplink(plain, m);
    if (pr != NasParse::Ok || m.epd != MV_5GS_MM_EPD) {
        n_.add(Ev::NasMalformed);
        CA_LOG(MV_LOG_WARNING, &c, "NAS message type %u of %zu octets: %s, dropped", plain.size() > 2 ? plain[2] : 0,
               plain.size(), pr == NasParse::Ok ? "a 5GSM message outside a transport" : nasParseText(pr));
        if (pr == NasParse::UnknownType) gmmStatus(c, 97);  // message type non-existent or not implemented
        return;
    }
    n_.nasRx(MV_5GS_MM_EPD, m.type);
    const char* kind = nasName(MV_5GS_MM_EPD, m.type);
    if (ignored(&c, kind)) return;
    if (!verified && c.secActive && !plainAllowed(m.type)) {
        n_.add(Ev::NasPlainRefused);
        CA_LOG(MV_LOG_WARNING, &c, "%s in clear on a protected connection, dropped", kind);
        return;
    }
    CA_LOG(MV_LOG_DEBUG, &c, "received %s", kind);
    switch (m.type) {
        case 65: return registrationRequest(c, m, plain, verified);
        case 67: return registrationComplete(c);
        case 69: return deregistrationRequest(c, m);
        case 72:
            if (c.retxTimer == T3522 && c.ue) {
                stopRetx(c);
                c.ue->registered = false;
                releaseSessionsLocally(*c.ue);
                n_.add(Ev::Deregistered);
                CA_LOG(MV_LOG_INFO, &c, "deregistered by the network");
                releaseContext(c, nasCause("deregister"));
            }
            return;
        case 76: return serviceRequest(c, m, verified);
        case 87: return authenticationResponse(c, m);
        case 89: return authenticationFailure(c, m);
        case 92: return identityResponse(c, m);
        case 94:
            if (!viaNew) {
                n_.add(Ev::NasMacFailed);
                CA_LOG(MV_LOG_WARNING, &c, "SecurityModeComplete not under the new security context, dropped");
                return;
            }
            return securityModeComplete(c, m);
        case 95: return securityModeReject(c, m);
        case 100: CA_LOG(MV_LOG_WARNING, &c, "5GMM STATUS from the UE, cause #%u", m.cause); return;
        case 103: return ulNasTransport(c, m);
        default:
            n_.add(Ev::NasUnexpected);
            CA_LOG(MV_LOG_INFO, &c, "%s taken note of", kind);
            return;
    }
}

// ---------------------------------------------------------------- registration

int Amf::resolveIdentity(Conn& c, const MobileIdentity& id) {
    if (id.type == 2) {
        UeContext* u = nullptr;
        if (!memcmp(id.plmn, plmn_, 3) && id.region == guami_.region && id.set == guami_.set && id.pointer == guami_.pointer)
            u = ueByTmsi(id.tmsi);
        if (!u) return 0;
        attach(c, *u);
        return 1;
    }
    if (id.type != 1) return 0;
    uint8_t msin[64];
    std::span<const uint8_t> bcd;
    if (id.scheme == 0) {
        bcd = id.schemeOutput;
    } else {
        int n = -1;
        for (const HomeNetworkKey& k : o_.hnKeys)
            if (k.id == id.keyId && k.scheme == id.scheme)
                n = __mv_algo__suci_deconceal(k.scheme, k.priv, id.schemeOutput, msin);
        if (n < 0) {
            CA_LOG(MV_LOG_WARNING, &c, "SUCI of scheme %u with key %u cannot be de-concealed", id.scheme, id.keyId);
            rejectRegistration(c, 9);  // UE identity cannot be derived by the network
            return -1;
        }
        bcd = {msin, size_t(n)};
    }
    std::string imsi = imsiDigits(id.plmn, bcd);
    int64_t sub = subs_.find(imsi);
    if (sub < 0) {
        n_.add(Ev::UnknownSubscriber);
        CA_LOG(MV_LOG_WARNING, &c, "IMSI %s is not a subscriber here", imsi.c_str());
        rejectRegistration(c, 7);  // 5GS services not allowed
        return -1;
    }
    attach(c, contextOf(uint32_t(sub)));
    return 1;
}

void Amf::registrationRequest(Conn& c, const NasMessage& m, std::span<const uint8_t>, bool verified) {
    uint32_t cause = 0;
    if (knobs_.take(KnobAction::Reject, "RegistrationRequest", &cause)) {
        n_.add(Ev::KnobRejected);
        c.secActive = false;  // a reject before authentication goes in clear
        return rejectRegistration(c, uint8_t(cause));
    }
    stopRetx(c);
    c.regType = m.b1 & 0x07;
    c.followOn = m.b1 & 0x08;
    c.initialPlain = !verified;
    c.authAttempts = 0;
    c.suciAsked = false;
    c.requested.clear();
    if (const auto* ie = m.find(0x2F)) c.requested = readNssai(ie->value);
    c.hasPduStatus = false;
    if (const auto* ie = m.find(0x50); ie && ie->value.size() >= 2) {
        c.hasPduStatus = true;
        c.pduStatus = uint16_t(ie->value[0] | ie->value[1] << 8);
    }
    const auto* cap = m.find(0x2E);
    MobileIdentity id;
    if (!decodeIdentity(m.lv, id) || !cap || cap->value.size() < 2) {
        n_.add(Ev::NasMalformed);
        CA_LOG(MV_LOG_WARNING, &c, "RegistrationRequest without a readable %s",
               cap && cap->value.size() >= 2 ? "5GS mobile identity" : "UE security capability");
        return gmmStatus(c, 96);  // invalid mandatory information
    }
    c.ueSecCapLen = uint8_t(cap->value.size() < sizeof c.ueSecCap ? cap->value.size() : sizeof c.ueSecCap);
    memcpy(c.ueSecCap, cap->value.data(), c.ueSecCapLen);
    // A new registration is authenticated afresh: the old context is not used to answer.
    c.secActive = false;
    if (resolveIdentity(c, id) < 0) return;
    CA_LOG(MV_LOG_INFO, &c, "RegistrationRequest type %u with %s", c.regType,
           id.type == 1 ? "SUCI" : id.type == 2 ? (c.ue ? "known 5G-GUTI" : "unknown 5G-GUTI") : "another identity");
    nextRegistrationStep(c);
}

void Amf::nextRegistrationStep(Conn& c) {
    if (!c.ue || (o_.identityRequest == "suci" && !c.suciAsked)) {
        c.suciAsked = true;
        c.phase = Phase::Identity;
        Ctx ctx;
        if (buildIdentityRequest(1, ctx)) sendNas(c, ctx, T3570);
        return;
    }
    startAuthentication(c);
}

void Amf::identityResponse(Conn& c, const NasMessage& m) {
    MobileIdentity id;
    bool ok = decodeIdentity(m.lv, id);
    if (c.phase == Phase::Identity) {
        stopRetx(c);
        if (!ok || id.type != 1) {
            CA_LOG(MV_LOG_WARNING, &c, "IdentityResponse without a SUCI");
            return rejectRegistration(c, 9);
        }
        int r = resolveIdentity(c, id);
        if (r < 0) return;
        if (r == 0) return rejectRegistration(c, 9);
        return startAuthentication(c);
    }
    if (c.phase == Phase::Pei) {
        stopRetx(c);
        if (ok && (id.type == 3 || id.type == 5)) c.ue->pei = id.digits;
        CA_LOG(MV_LOG_INFO, &c, "PEI %s", c.ue->pei.c_str());
        return sendAccept(c);
    }
    n_.add(Ev::NasUnexpected);
    gmmStatus(c, 98);  // not compatible with the protocol state
}

void Amf::startAuthentication(Conn& c) {
    stopRetx(c);
    UeContext& ue = *c.ue;
    if (++c.authAttempts > o_.maxAuthAttempts) {
        CA_LOG(MV_LOG_WARNING, &c, "%d authentications without success", o_.maxAuthAttempts);
        return authenticationReject(c);
    }
    SubscriberState& st = subs_.state(ue.sub);
    const SubscriberRange& r = subs_.range(ue.sub);
    // The next SEQ, IND 0: one step of 32 past the last SQN used or reported by the UE.
    st.sqn = (((st.sqn >> 5) + 1) << 5) & 0xFFFFFFFFFFFFull;
    for (int i = 0; i < 16; i += 8) {
        uint64_t v = rng_();
        memcpy(c.rand + i, &v, 8);
    }
    static const uint8_t amf[2] = {0x80, 0x00};  // the separation bit of 5G vectors
    MV_AlgoVector v;
    c.snn = servingNetworkName(c.hasTai ? c.plmn : plmn_);
    uint8_t sqnXorAk[6];
    bool ok = __mv_algo__milenage_generate(fixed<16>(r.k), fixed<16>(r.opc), fixed<16>(c.rand), st.sqn,
                                           fixed<2>(amf), v) == 0;
    memcpy(sqnXorAk, v.autn, 6);
    ok = ok &&
         __mv_algo__res_star(fixed<16>(v.ck), fixed<16>(v.ik), c.snn, fixed<16>(c.rand), std::span<const uint8_t>(v.xres, 8),
                             fixedOut<16>(c.resStar)) == 0 &&
         __mv_algo__kausf(fixed<16>(v.ck), fixed<16>(v.ik), c.snn, fixed<6>(sqnXorAk), fixedOut<32>(c.kausf)) == 0;
    if (!ok) {
        CA_LOG(MV_LOG_ERROR, &c, "authentication vector could not be made");
        return authenticationReject(c);
    }
    memcpy(c.autn, v.autn, 16);
    c.pendingKsi = ue.ngksi >= 6 ? 0 : uint8_t(ue.ngksi + 1);
    c.phase = Phase::Auth;
    CA_LOG(MV_LOG_DEBUG, &c, "AuthenticationRequest SQN=%llu ngKSI=%u", (unsigned long long)st.sqn, c.pendingKsi);
    Ctx ctx;
    if (buildAuthenticationRequest(c.pendingKsi, c.rand, c.autn, ctx)) sendNas(c, ctx, T3560);
}

void Amf::authenticationResponse(Conn& c, const NasMessage& m) {
    if (c.phase != Phase::Auth) {
        n_.add(Ev::NasUnexpected);
        return gmmStatus(c, 98);
    }
    stopRetx(c);
    if (knobs_.take(KnobAction::Reject, "AuthenticationResponse")) {
        n_.add(Ev::KnobRejected);
        CA_LOG(MV_LOG_INFO, &c, "knob: authentication rejected");
        return authenticationReject(c);
    }
    const auto* res = m.find(0x2D);
    if (!res || res->value.size() != 16 || memcmp(res->value.data(), c.resStar, 16) != 0) {
        CA_LOG(MV_LOG_WARNING, &c, "RES* %s", res ? "does not match" : "missing");
        return authenticationReject(c);
    }
    UeContext& ue = *c.ue;
    // The UE's algorithms: octet 1 of its capability for ciphering, 2 for integrity, EA0/IA0 in the top bit.
    auto pick = [&](const std::vector<uint8_t>& pref, uint8_t octet, uint8_t& out) {
        for (uint8_t a : pref)
            if (octet & (0x80 >> a)) {
                out = a;
                return true;
            }
        return false;
    };
    NasSecurity& s = c.pendingSec;
    s = NasSecurity{};
    s.bearer = o_.nasBearer;
    if (!pick(o_.nia, c.ueSecCap[1], s.nia) || !pick(o_.nea, c.ueSecCap[0], s.nea)) {
        CA_LOG(MV_LOG_WARNING, &c, "no algorithm in common with the UE (EA %02X, IA %02X)", c.ueSecCap[0], c.ueSecCap[1]);
        return rejectRegistration(c, 23);  // UE security capabilities mismatch
    }
    uint8_t kseaf[32];
    static const uint8_t abba[2] = {0, 0};
    bool ok = __mv_algo__kseaf(fixed<32>(c.kausf), c.snn, fixedOut<32>(kseaf)) == 0 &&
              __mv_algo__kamf(fixed<32>(kseaf), ue.imsi, fixed<2>(abba), fixedOut<32>(c.pendingKamf)) == 0 &&
              __mv_algo__knas_5g(fixed<32>(c.pendingKamf), MV_ALGO_KEY_NAS_INT, s.nia, fixedOut<16>(s.kint)) == 0 &&
              __mv_algo__knas_5g(fixed<32>(c.pendingKamf), MV_ALGO_KEY_NAS_ENC, s.nea, fixedOut<16>(s.kenc)) == 0;
    if (!ok) {
        CA_LOG(MV_LOG_ERROR, &c, "key derivation failed");
        return authenticationReject(c);
    }
    CA_LOG(MV_LOG_DEBUG, &c, "authenticated; security mode NIA%u NEA%u", s.nia, s.nea);
    c.phase = Phase::Smc;
    Ctx ctx;
    if (buildSecurityModeCommand(s.nia, s.nea, c.pendingKsi, {c.ueSecCap, c.ueSecCapLen}, o_.imeisvInSmc, c.initialPlain,
                                 ctx))
        sendNas(c, ctx, T3560, 3);
}

void Amf::authenticationFailure(Conn& c, const NasMessage& m) {
    if (c.phase != Phase::Auth) {
        n_.add(Ev::NasUnexpected);
        return gmmStatus(c, 98);
    }
    stopRetx(c);
    if (m.cause == 21) {  // synch failure
        const auto* auts = m.find(0x30);
        const SubscriberRange& r = subs_.range(c.ue->sub);
        uint64_t sqnMs = 0;
        if (auts && auts->value.size() == 14 &&
            __mv_algo__auts_recover(fixed<16>(r.k), fixed<16>(r.opc), fixed<16>(c.rand), fixed<14>(auts->value.data()),
                                    sqnMs) == 0) {
            subs_.state(c.ue->sub).sqn = sqnMs;
            n_.add(Ev::AuthResync);
            CA_LOG(MV_LOG_INFO, &c, "SQN resynchronised to %llu", (unsigned long long)sqnMs);
            return startAuthentication(c);
        }
        CA_LOG(MV_LOG_WARNING, &c, "synch failure with %s", auts ? "an AUTS that fails its MAC" : "no AUTS");
        return authenticationReject(c);
    }
    if (m.cause == 71) {  // ngKSI already in use: the next vector takes another
        CA_LOG(MV_LOG_INFO, &c, "ngKSI %u already in use", c.pendingKsi);
        c.ue->ngksi = c.pendingKsi;
        return startAuthentication(c);
    }
    CA_LOG(MV_LOG_WARNING, &c, "AuthenticationFailure cause #%u", m.cause);
    authenticationReject(c);
}

void Amf::securityModeComplete(Conn& c, const NasMessage& m) {
    stopRetx(c);
    UeContext& ue = *c.ue;
    ue.sec = c.pendingSec;
    ue.secValid = true;
    memcpy(ue.kamf, c.pendingKamf, 32);
    ue.ngksi = c.pendingKsi;
    memcpy(ue.ueSecCap, c.ueSecCap, sizeof ue.ueSecCap);
    ue.ueSecCapLen = c.ueSecCapLen;
    c.secActive = true;
    if (const auto* ie = m.find(0x77)) {
        MobileIdentity id;
        if (decodeIdentity(ie->value, id) && id.type == 5) ue.pei = id.digits;
    }
    if (const auto* ie = m.find(0x71)) {  // the whole registration request, asked for by RINMR
        NasMessage inner;
        if (parseUplink(ie->value, inner) == NasParse::Ok && inner.type == 65) {
            if (const auto* n = inner.find(0x2F)) c.requested = readNssai(n->value);
            if (const auto* s = inner.find(0x50); s && s->value.size() >= 2) {
                c.hasPduStatus = true;
                c.pduStatus = uint16_t(s->value[0] | s->value[1] << 8);
            }
        } else {
            CA_LOG(MV_LOG_WARNING, &c, "NAS message container of the SecurityModeComplete is not a RegistrationRequest");
        }
    }
    uint32_t cause = 0;
    if (knobs_.take(KnobAction::Reject, "SecurityModeComplete", &cause)) {
        n_.add(Ev::KnobRejected);
        return rejectRegistration(c, uint8_t(cause));
    }
    if ((o_.identityRequest == "imei" || o_.identityRequest == "imeisv") && ue.pei.empty()) {
        c.phase = Phase::Pei;
        Ctx ctx;
        if (buildIdentityRequest(o_.identityRequest == "imei" ? 3 : 5, ctx)) sendNas(c, ctx, T3570);
        return;
    }
    sendAccept(c);
}

void Amf::securityModeReject(Conn& c, const NasMessage& m) {
    if (c.phase != Phase::Smc) {
        n_.add(Ev::NasUnexpected);
        return gmmStatus(c, 98);
    }
    stopRetx(c);
    n_.add(Ev::SecurityModeRejected);
    CA_LOG(MV_LOG_WARNING, &c, "SecurityModeReject cause #%u", m.cause);
    rejectRegistration(c, m.cause ? m.cause : 24);
}

void Amf::kgnb(const Conn& c, uint8_t out[32]) {
    const uint8_t count[4] = {uint8_t(c.lastUlCount >> 24), uint8_t(c.lastUlCount >> 16), uint8_t(c.lastUlCount >> 8),
                              uint8_t(c.lastUlCount)};
    static const uint8_t access = 0x01;  // 3GPP access
    const std::span<const uint8_t> params[] = {count, {&access, 1}};
    (void)__mv_algo__kdf(fixed<32>(c.ue->kamf), 0x6E, params, fixedOut<32>(out));
}

void Amf::contextSetup(Conn& c, std::span<const uint8_t> nas, const std::vector<SessionItem>& sessions) {
    ContextSetup cs;
    cs.amfId = c.amfId;
    cs.ranId = c.ranId;
    cs.guami = guami_;
    cs.allowed = c.allowed.empty() ? o_.slices : c.allowed;
    const uint8_t* cap = c.ue->ueSecCap;
    // NGAP's first bit is algorithm 1; NAS starts at 0.
    cs.nrEnc[0] = uint8_t(cap[0] << 1) & 0xE0;
    cs.nrInt[0] = uint8_t(cap[1] << 1) & 0xE0;
    if (c.ue->ueSecCapLen > 3) {
        cs.eutraEnc[0] = uint8_t(cap[2] << 1) & 0xE0;
        cs.eutraInt[0] = uint8_t(cap[3] << 1) & 0xE0;
    }
    kgnb(c, cs.kgnb);
    cs.nas = nas;
    cs.sessions = sessions;
    cs.ueAmbrBps = o_.ueAmbrBps;
    Ctx ctx;
    if (!buildInitialContextSetupRequest(cs, ctx)) {
        CA_LOG(MV_LOG_ERROR, &c, "InitialContextSetupRequest could not be encoded");
        return;
    }
    c.icsPending = true;
    sendNgap(c.assoc, c.stream, ctx, "InitialContextSetupRequest");
}

void Amf::sendAccept(Conn& c) {
    UeContext& ue = *c.ue;
    if (c.regType == 1) releaseSessionsLocally(ue);  // an initial registration starts without sessions
    SubscriberState& st = subs_.state(ue.sub);
    ++st.tmsiGen;
    ue.tmsi = uint32_t(st.tmsiGen) << 24 | ue.sub;
    ue.hasGuti = true;
    AcceptContents a;
    memcpy(a.guti, plmn_, 3);
    a.guti[3] = guami_.region;
    a.guti[4] = uint8_t(guami_.set >> 2);
    a.guti[5] = uint8_t((guami_.set & 3) << 6 | (guami_.pointer & 0x3F));
    a.guti[6] = uint8_t(ue.tmsi >> 24);
    a.guti[7] = uint8_t(ue.tmsi >> 16);
    a.guti[8] = uint8_t(ue.tmsi >> 8);
    a.guti[9] = uint8_t(ue.tmsi);
    // TAI list of one element: one PLMN, the UE's tracking area
    uint8_t tai[7] = {0x00};
    memcpy(tai + 1, c.hasTai ? c.plmn : plmn_, 3);
    if (c.hasTai) memcpy(tai + 4, c.tac, 3);
    else tai[6] = 1;
    a.taiList = tai;
    c.allowed.clear();
    for (const SNssai& r : c.requested)
        for (const SNssai& s : o_.slices)
            if (r == s) c.allowed.push_back(s);
    if (c.allowed.empty()) c.allowed = o_.slices;
    a.allowed = c.allowed;
    a.t3512 = o_.t3512;
    if (c.hasPduStatus) {
        a.hasPduStatus = true;
        for (const Session& s : ue.sessions) a.pduStatus |= uint16_t(1u << s.psi);
    }
    Ctx plain;
    if (!buildRegistrationAccept(a, plain)) return;
    c.phase = Phase::Accept;
    bool viaIcs = !c.icsDone && (o_.acceptIn == Options::AcceptIn::Ics ||
                                 (o_.acceptIn == Options::AcceptIn::Auto && c.contextRequested));
    if (!viaIcs) return sendNas(c, plain, T3550);
    Wrapped w;
    if (!wrap(c, plain, sht(c), w)) return;
    contextSetup(c, w.bytes, {});
    armRetx(c, T3550, plain, sht(c), true);
}

void Amf::registrationComplete(Conn& c) {
    if (c.phase == Phase::Registered) return;  // an answer to a retransmitted accept
    if (c.phase != Phase::Accept) {
        n_.add(Ev::NasUnexpected);
        return gmmStatus(c, 98);
    }
    stopRetx(c);
    c.phase = Phase::Registered;
    c.ue->registered = true;
    n_.add(Ev::Registered);
    CA_LOG(MV_LOG_INFO, &c, "registered, 5G-TMSI %08X", c.ue->tmsi);
}

void Amf::rejectRegistration(Conn& c, uint8_t cause) {
    stopRetx(c);
    n_.add(Ev::RegistrationRejected);
    CA_LOG(MV_LOG_INFO, &c, "RegistrationReject cause #%u", cause);
    Ctx ctx;
    if (buildRegistrationReject(cause, ctx)) sendNas(c, ctx);
    if (c.ue) c.ue->registered = false;
    releaseContext(c, nasCause("unspecified"));
}

void Amf::authenticationReject(Conn& c) {
    stopRetx(c);
    n_.add(Ev::AuthRejected);
    CA_LOG(MV_LOG_INFO, &c, "AuthenticationReject");
    Ctx ctx;
    if (buildAuthenticationReject(ctx)) sendNas(c, ctx);
    if (c.ue) c.ue->registered = false;
    releaseContext(c, nasCause("authentication-failure"));
}

void Amf::gmmStatus(Conn& c, uint8_t cause) {
    Ctx ctx;
    if (buildGmmStatus(cause, ctx)) sendNas(c, ctx);
}

// ---------------------------------------------------------------- deregistration and service

void Amf::releaseSessionsLocally(UeContext& ue) {
    while (!ue.sessions.empty()) freeSession(ue, ue.sessions.back().psi);
}

void Amf::deregistrationRequest(Conn& c, const NasMessage& m) {
    bool switchOff = m.b1 & 0x08;
    stopRetx(c);
    if (c.ue) {
        releaseSessionsLocally(*c.ue);
        if (c.ue->registered) n_.add(Ev::Deregistered);
        c.ue->registered = false;
    }
    CA_LOG(MV_LOG_INFO, &c, "deregistered%s", switchOff ? " (switch off)" : "");
    if (!switchOff) {
        Ctx ctx;
        if (buildDeregistrationAccept(ctx)) sendNas(c, ctx);
    }
    releaseContext(c, nasCause("deregister"));
}

void Amf::networkDeregistration(Conn& c, bool reregister) {
    Ctx ctx;
    if (!buildDeregistrationRequest(reregister, 0, ctx)) return;
    CA_LOG(MV_LOG_INFO, &c, "network-initiated deregistration%s", reregister ? ", re-registration required" : "");
    sendNas(c, ctx, T3522);
}

void Amf::serviceRequest(Conn& c, const NasMessage& m, bool verified) {
    uint32_t cause = 0;
    if (knobs_.take(KnobAction::Reject, "ServiceRequest", &cause)) {
        n_.add(Ev::KnobRejected);
    } else if (!c.ue || !verified) {
        cause = 9;  // UE identity cannot be derived by the network
    } else if (!c.ue->registered) {
        cause = 10;  // implicitly de-registered
    }
    if (cause) {
        n_.add(Ev::ServiceRejected);
        CA_LOG(MV_LOG_INFO, &c, "ServiceReject cause #%u%s", cause, c.ue ? "" : " (no context for its 5G-S-TMSI)");
        Ctx ctx;
        if (buildServiceReject(uint8_t(cause), ctx)) sendNas(c, ctx);
        releaseContext(c, nasCause("normal-release"));
        return;
    }
    UeContext& ue = *c.ue;
    c.phase = Phase::Registered;
    uint8_t type = m.b1 >> 4;
    uint16_t uplink = 0, status = 0;
    const auto* ud = m.find(0x40);
    const auto* ps = m.find(0x50);
    if (ud && ud->value.size() >= 2) uplink = uint16_t(ud->value[0] | ud->value[1] << 8);
    if (ps && ps->value.size() >= 2) status = uint16_t(ps->value[0] | ps->value[1] << 8);
    // Sessions the UE has dropped are gone here too.
    if (ps)
        for (size_t i = ue.sessions.size(); i-- > 0;)
            if (!(status & (1u << ue.sessions[i].psi))) freeSession(ue, ue.sessions[i].psi);
    std::vector<SessionItem> items;
    std::vector<Bytes> transfers;
    transfers.reserve(ue.sessions.size());
    uint16_t active = 0;
    for (Session& s : ue.sessions) {
        active |= uint16_t(1u << s.psi);
        bool want = ud ? (uplink & (1u << s.psi)) != 0 : type == 1;  // data: every session
        if (!want || s.state != 2) continue;
        Ctx t;
        if (!sessionTransfer(s, t)) continue;
        transfers.emplace_back(t.buffer, t.buffer + t.pos);
        items.push_back(SessionItem{s.psi, s.snssai, {}, transfers.back()});
        s.state = 4;
    }
    Ctx plain;
    if (!buildServiceAccept(ps != nullptr, active, ud != nullptr, 0, plain)) return;
    Wrapped w;
    if (!wrap(c, plain, sht(c), w)) return;
    n_.add(Ev::ServiceAccepted);
    CA_LOG(MV_LOG_INFO, &c, "ServiceAccept, service type %u, %zu sessions reactivated", type, items.size());
    contextSetup(c, w.bytes, items);
}

}  // namespace ca
