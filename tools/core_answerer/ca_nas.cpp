#include "ca_nas.h"

#include <cstring>

#include "mv_nas_util.h"
#include "mvalgo_prim.h"

namespace ca {

// ---------------------------------------------------------------- security

namespace {
std::span<const uint8_t, 16> key16(const uint8_t* k) { return std::span<const uint8_t, 16>(k, 16); }
}  // namespace

void NasSecurity::protect(std::span<const uint8_t> plain, uint8_t sht, Bytes& out) {
    size_t n = plain.size();
    out.resize(7 + n);
    out[0] = MV_5GS_MM_EPD;
    out[1] = sht & 0x0F;
    out[6] = uint8_t(dl);
    if (n) memcpy(out.data() + 7, plain.data(), n);
    if (sht == 2 || sht == 4)
        (void)__mv_algo__nea(nea, key16(kenc), dl, bearer, 1, {out.data() + 7, n}, n * 8);
    std::array<uint8_t, 4> mac{};
    (void)__mv_algo__nia(nia, key16(kint), dl, bearer, 1, {out.data() + 6, n + 1}, (n + 1) * 8, mac);
    memcpy(out.data() + 2, mac.data(), 4);
    dl = (dl + 1) & 0xFFFFFF;
}

NasSecurity::Open NasSecurity::open(std::span<const uint8_t> in, Bytes& plain, uint32_t* countOut) {
    // A protected message holds at least a whole plain header behind its own.
    if (in.size() < 7 + 3) return Open::Short;
    uint8_t sht = in[1] & 0x0F, sn = in[6];
    uint32_t overflow = ul >> 8;
    if (sn < (ul & 0xFF)) ++overflow;
    uint32_t count = ((overflow << 8) | sn) & 0xFFFFFF;
    std::array<uint8_t, 4> mac{};
    (void)__mv_algo__nia(nia, key16(kint), count, bearer, 0, in.subspan(6), (in.size() - 6) * 8, mac);
    if (memcmp(mac.data(), in.data() + 2, 4) != 0) return Open::BadMac;
    plain.assign(in.begin() + 7, in.end());
    if (sht == 2 || sht == 4)
        (void)__mv_algo__nea(nea, key16(kenc), count, bearer, 0, {plain.data(), plain.size()}, plain.size() * 8);
    ul = (count + 1) & 0xFFFFFF;
    if (countOut) *countOut = count;
    return Open::Ok;
}

// ---------------------------------------------------------------- reading

namespace {

class Reader {
public:
    explicit Reader(std::span<const uint8_t> b) : b_(b) {}
    size_t left() const { return b_.size() - pos_; }
    bool u8(uint8_t& v) {
        if (left() < 1) return false;
        v = b_[pos_++];
        return true;
    }
    bool take(size_t n, std::span<const uint8_t>& out) {
        if (left() < n) return false;
        out = b_.subspan(pos_, n);
        pos_ += n;
        return true;
    }
    bool lv(std::span<const uint8_t>& out) {
        uint8_t l;
        return u8(l) && take(l, out);
    }
    bool lve(std::span<const uint8_t>& out) {
        uint8_t h, l;
        return u8(h) && u8(l) && take(size_t(h) << 8 | l, out);
    }

private:
    std::span<const uint8_t> b_;
    size_t pos_ = 0;
};

// What stands before the optional IEs of each message a UE sends, and its type 3 IEs
// (fixed length, counted with the IEI), which the IEI alone does not tell.
enum Mand : uint8_t { M_NONE, M_B1_LVE, M_LVE, M_CAUSE, M_V2 };
struct Layout {
    uint8_t epd, type;
    Mand mand;
    std::array<std::pair<uint8_t, uint8_t>, 3> tv;
};
constexpr Layout kLayouts[] = {
    {MV_5GS_MM_EPD, 65, M_B1_LVE, {{{0x52, 7}}}},  // registration request: last visited TAI
    {MV_5GS_MM_EPD, 67, M_NONE, {}},
    {MV_5GS_MM_EPD, 69, M_B1_LVE, {}},
    {MV_5GS_MM_EPD, 72, M_NONE, {}},
    {MV_5GS_MM_EPD, 76, M_B1_LVE, {}},
    {MV_5GS_MM_EPD, 85, M_NONE, {}},
    {MV_5GS_MM_EPD, 87, M_NONE, {}},
    {MV_5GS_MM_EPD, 89, M_CAUSE, {}},
    {MV_5GS_MM_EPD, 92, M_LVE, {}},
    {MV_5GS_MM_EPD, 94, M_NONE, {}},
    {MV_5GS_MM_EPD, 95, M_CAUSE, {}},
    {MV_5GS_MM_EPD, 100, M_CAUSE, {}},
    {MV_5GS_MM_EPD, 103, M_B1_LVE, {{{0x12, 2}, {0x59, 2}}}},  // PDU session ID, old PDU session ID
    {MV_5GS_SM_EPD, 193, M_V2, {{{0x55, 3}}}},  // maximum number of supported packet filters
    {MV_5GS_SM_EPD, 201, M_NONE, {{{0x59, 2}, {0x55, 3}, {0x13, 3}}}},
    {MV_5GS_SM_EPD, 204, M_NONE, {}},
    {MV_5GS_SM_EPD, 205, M_CAUSE, {}},
    {MV_5GS_SM_EPD, 209, M_NONE, {{{0x59, 2}}}},
    {MV_5GS_SM_EPD, 212, M_NONE, {{{0x59, 2}}}},
    {MV_5GS_SM_EPD, 214, M_CAUSE, {}},
};

const Layout* layoutOf(uint8_t epd, uint8_t type) {
    for (const Layout& l : kLayouts)
        if (l.epd == epd && l.type == type) return &l;
    return nullptr;
}

}  // namespace

const NasMessage::Ie* NasMessage::find(uint8_t iei) const {
    for (uint8_t i = 0; i < ieCount; ++i)
        if (ies[i].iei == iei) return &ies[i];
    return nullptr;
}

NasParse parseUplink(std::span<const uint8_t> plain, NasMessage& m) {
    m = NasMessage{};
    Reader r(plain);
    if (!r.u8(m.epd)) return NasParse::Short;
    uint8_t x;
    if (m.epd == MV_5GS_MM_EPD) {
        if (!r.u8(x) || !r.u8(m.type)) return NasParse::Short;
    } else if (m.epd == MV_5GS_SM_EPD) {
        if (!r.u8(m.psi) || !r.u8(m.pti) || !r.u8(m.type)) return NasParse::Short;
    } else {
        return NasParse::Malformed;
    }
    const Layout* l = layoutOf(m.epd, m.type);
    if (!l) return NasParse::UnknownType;
    switch (l->mand) {
        case M_B1_LVE:
            if (!r.u8(m.b1) || !r.lve(m.lv)) return NasParse::Short;
            break;
        case M_LVE:
            if (!r.lve(m.lv)) return NasParse::Short;
            break;
        case M_CAUSE:
            if (!r.u8(m.cause)) return NasParse::Short;
            break;
        case M_V2:
            if (!r.take(2, m.lv)) return NasParse::Short;
            break;
        case M_NONE: break;
    }
    while (r.left() > 0) {
        uint8_t iei;
        (void)r.u8(iei);
        NasMessage::Ie ie{iei, {}};
        uint8_t tvLen = 0;
        for (const auto& [t, n] : l->tv)
            if (t == iei && n) tvLen = n;
        bool ok;
        if (iei & 0x80) {  // a half-octet IE: identifier in the high nibble
            ie.iei = iei >> 4;
            ie.value = plain.subspan(plain.size() - r.left() - 1, 1);
            ok = true;
        } else if (tvLen) {
            ok = r.take(tvLen - 1u, ie.value);
        } else if ((iei & 0xF0) == 0x70) {
            ok = r.lve(ie.value);
        } else {
            ok = r.lv(ie.value);
        }
        if (!ok) return NasParse::Malformed;
        if (m.ieCount < m.ies.size()) m.ies[m.ieCount++] = ie;
    }
    return NasParse::Ok;
}

const char* nasParseText(NasParse p) {
    switch (p) {
        case NasParse::Ok: return "ok";
        case NasParse::Short: return "truncated";
        case NasParse::UnknownType: return "unknown message type";
        case NasParse::Malformed: return "malformed";
    }
    return "?";
}

namespace {
std::string bcdDigits(std::span<const uint8_t> b) {
    std::string s;
    for (uint8_t o : b) {
        for (uint8_t d : {uint8_t(o & 0x0F), uint8_t(o >> 4)}) {
            if (d > 9) return s;
            s += char('0' + d);
        }
    }
    return s;
}
}  // namespace

bool decodeIdentity(std::span<const uint8_t> v, MobileIdentity& out) {
    out = MobileIdentity{};
    if (v.empty()) return false;
    out.type = v[0] & 0x07;
    switch (out.type) {
        case 1:  // SUCI
            out.supiFormat = (v[0] >> 4) & 0x07;
            if (out.supiFormat != 0 || v.size() < 8) return false;
            memcpy(out.plmn, v.data() + 1, 3);
            out.scheme = v[6] & 0x0F;
            out.keyId = v[7];
            out.schemeOutput = v.subspan(8);
            return true;
        case 2:  // 5G-GUTI
            if (v.size() != 11) return false;
            memcpy(out.plmn, v.data() + 1, 3);
            out.region = v[4];
            out.set = uint16_t(v[5] << 2 | v[6] >> 6);
            out.pointer = v[6] & 0x3F;
            out.tmsi = uint32_t(v[7]) << 24 | uint32_t(v[8]) << 16 | uint32_t(v[9]) << 8 | v[10];
            return true;
        case 4:  // 5G-S-TMSI
            if (v.size() != 7) return false;
            out.set = uint16_t(v[1] << 2 | v[2] >> 6);
            out.pointer = v[2] & 0x3F;
            out.tmsi = uint32_t(v[3]) << 24 | uint32_t(v[4]) << 16 | uint32_t(v[5]) << 8 | v[6];
            return true;
        case 3:
        case 5:
            // the first digit stands in the high nibble of the type octet
            out.digits = std::string(1, char('0' + (v[0] >> 4))) + bcdDigits(v.subspan(1));
            return v[0] >> 4 <= 9;
        default: return false;
    }
}

std::string imsiDigits(const uint8_t plmn[3], std::span<const uint8_t> msinBcd) {
    char mcc[4] = {}, mnc[4] = {};
    __mv_nas_util__plmn_to_mccmnc(plmn, mcc, mnc);
    return std::string(mcc) + mnc + bcdDigits(msinBcd);
}

bool readSnssai(std::span<const uint8_t> v, SNssai& out) {
    out = SNssai{};
    if (v.empty()) return false;
    out.sst = v[0];
    if (v.size() >= 4) {
        out.hasSd = true;
        memcpy(out.sd, v.data() + 1, 3);
    }
    return v.size() == 1 || v.size() == 2 || v.size() == 4 || v.size() == 5 || v.size() == 8;
}

std::vector<SNssai> readNssai(std::span<const uint8_t> value) {
    std::vector<SNssai> out;
    Reader r(value);
    std::span<const uint8_t> item;
    while (r.left() > 0 && r.lv(item)) {
        SNssai s;
        if (!readSnssai(item, s)) break;
        out.push_back(s);
    }
    return out;
}

// ---------------------------------------------------------------- building

namespace {

void setByte(__naspdu_ie_byte& ie, uint8_t v) {
    ie.Length = 1;
    ie.Value = v;
    ie.isset = 1;
}

// The 5GSM messages that carry nothing but their cause.
template <class R>
bool smWithCause(int (*enc)(R*, Ctx*), uint8_t psi, uint8_t pti, uint8_t cause, Ctx& ctx) {
    R m{};
    setByte(m.mFGSMCause, cause);
    return encodeNasSm(enc, m, psi, pti, ctx);
}

void setPduStatus(NASPdu_PDUSessionStatus& ie, uint16_t bitsByPsi) {
    ie.Length = 2;
    ie.data[0] = uint8_t(bitsByPsi & 0xFE);  // PSI 0 is spare
    ie.data[1] = uint8_t(bitsByPsi >> 8);
    ie.isset = 1;
}

void setSnssai(NASPdu_SNSSAI& ie, const SNssai& s) {
    ie.data[0] = s.sst;
    ie.Length = 1;
    if (s.hasSd) {
        memcpy(ie.data + 1, s.sd, 3);
        ie.Length = 4;
    }
    ie.isset = 1;
}

}  // namespace

bool buildIdentityRequest(uint8_t identityType, Ctx& ctx) {
    NASPduFGMM_IdentityRequest m{};
    m.b1 = identityType & 0x07;
    return encodeNas(__mv_naspdu_fgmm_encodeIdentityRequest, m, ctx);
}

bool buildAuthenticationRequest(uint8_t ngksi, const uint8_t rand[16], const uint8_t autn[16], Ctx& ctx) {
    NASPduFGMM_AuthenticationRequest m{};
    m.b1 = ngksi & 0x0F;
    m.mABBA.Length = 2;  // ABBA 0x0000
    m.mABBA.isset = 1;
    memcpy(m.mRAND.data, rand, 16);
    m.mRAND.Length = 16;
    m.mRAND.isset = 1;
    memcpy(m.mAUTN.data, autn, 16);
    m.mAUTN.Length = 16;
    m.mAUTN.isset = 1;
    return encodeNas(__mv_naspdu_fgmm_encodeAuthenticationRequest, m, ctx);
}

bool buildAuthenticationReject(Ctx& ctx) {
    NASPduFGMM_AuthenticationReject m{};
    return encodeNas(__mv_naspdu_fgmm_encodeAuthenticationReject, m, ctx);
}

bool buildSecurityModeCommand(uint8_t nia, uint8_t nea, uint8_t ngksi, std::span<const uint8_t> ueSecCap,
                              bool imeisvRequest, bool rinmr, Ctx& ctx) {
    NASPduFGMM_SecurityModeCommand m{};
    m.mSelectedNASSecurityAlgorithms.Value = uint8_t((nea & 0x0F) << 4 | (nia & 0x0F));
    m.mSelectedNASSecurityAlgorithms.isset = 1;
    m.mNgKSI = ngksi & 0x0F;
    size_t n = ueSecCap.size() < sizeof m.mReplayedUESecurityCapabilities.data ? ueSecCap.size()
                                                                                : sizeof m.mReplayedUESecurityCapabilities.data;
    memcpy(m.mReplayedUESecurityCapabilities.data, ueSecCap.data(), n);
    m.mReplayedUESecurityCapabilities.Length = uint8_t(n);
    m.mReplayedUESecurityCapabilities.isset = 1;
    if (imeisvRequest) {
        m.mIMEISVRequest.Value = 1;
        m.mIMEISVRequest.isset = 1;
    }
    // RINMR asks the UE for its whole initial message, which it sent in clear
    setByte(m.mAdditional5GSecurityInformation, rinmr ? 0x02 : 0x00);
    return encodeNas(__mv_naspdu_fgmm_encodeSecurityModeCommand, m, ctx);
}

bool buildRegistrationAccept(const AcceptContents& a, Ctx& ctx) {
    NASPduFGMM_RegistrationAccept m{};
    setByte(m.mFGSRegistrationResult, 0x01);  // 3GPP access
    __mv_nas_util_encode_fg_guti(&m.mFGGUTI, a.guti, 10);
    if (!encodeNas(__mv_naspdu_fgmm_encodeRegistrationAccept, m, ctx)) return false;
    // The codec's accept ends with the GUTI here; the IEs behind it follow in the
    // standard's order.
    NASPdu_TrackingAreaIdentityList tai{};
    size_t n = a.taiList.size() < sizeof tai.data ? a.taiList.size() : sizeof tai.data;
    memcpy(tai.data, a.taiList.data(), n);
    tai.Length = uint8_t(n);
    tai.isset = n > 0;
    __mv_naspdu_encodeTrackingAreaIdentityList(0x54, &tai, &ctx);
    NASPdu_NSSAI allowed{};
    for (const SNssai& s : a.allowed) __mv_naspdu_addSNSSAI(&allowed, s.sst, s.hasSd ? s.sd : nullptr, nullptr, nullptr);
    __mv_naspdu_encodeNSSAI(0x15, &allowed, &ctx);
    if (a.hasPduStatus) {
        NASPdu_PDUSessionStatus st{};
        setPduStatus(st, a.pduStatus);
        __mv_naspdu_encodePDUSessionStatus(0x50, &st, &ctx);
    }
    NASPdu_GPRSTimer3 t{};
    setByte(t, a.t3512);
    __mv_naspdu_encodeGPRSTimer3(0x5E, &t, &ctx);
    return ctx.iError == 0;
}

bool buildRegistrationReject(uint8_t cause, Ctx& ctx) {
    NASPduFGMM_RegistrationReject m{};
    setByte(m.mFGMMCause, cause);
    return encodeNas(__mv_naspdu_fgmm_encodeRegistrationReject, m, ctx);
}

bool buildDeregistrationAccept(Ctx& ctx) {
    NASPduFGMM_DeregistrationAcceptUEI m{};
    return encodeNas(__mv_naspdu_fgmm_encodeDeregistrationAcceptUEI, m, ctx);
}

bool buildDeregistrationRequest(bool reregister, uint8_t cause, Ctx& ctx) {
    NASPduFGMM_DeregistrationRequestUET m{};
    m.b1 = uint8_t((reregister ? 0x04 : 0x00) | 0x01);  // 3GPP access
    if (!encodeNas(__mv_naspdu_fgmm_encodeDeregistrationRequestUET, m, ctx)) return false;
    if (cause) {
        NASPdu_FGMMCause c{};
        setByte(c, cause);
        __mv_naspdu_encodeFGMMCause(0x58, &c, &ctx);
    }
    return ctx.iError == 0;
}

bool buildServiceAccept(bool hasPduStatus, uint16_t pduStatus, bool hasReactivation, uint16_t reactivation,
                        Ctx& ctx) {
    NASPduFGMM_ServiceAccept m{};
    if (!encodeNas(__mv_naspdu_fgmm_encodeServiceAccept, m, ctx)) return false;
    if (hasPduStatus) {
        NASPdu_PDUSessionStatus st{};
        setPduStatus(st, pduStatus);
        __mv_naspdu_encodePDUSessionStatus(0x50, &st, &ctx);
    }
    if (hasReactivation) {  // same form as the status: one bit per PSI
        NASPdu_PDUSessionStatus st{};
        setPduStatus(st, reactivation);
        __mv_naspdu_encodePDUSessionStatus(0x26, &st, &ctx);
    }
    return ctx.iError == 0;
}

bool buildServiceReject(uint8_t cause, Ctx& ctx) {
    NASPduFGMM_ServiceReject m{};
    setByte(m.mFGMMCause, cause);
    return encodeNas(__mv_naspdu_fgmm_encodeServiceReject, m, ctx);
}

bool buildGmmStatus(uint8_t cause, Ctx& ctx) {
    NASPduFGMM_5GMMStatus m{};
    setByte(m.mFGMMCause, cause);
    return encodeNas(__mv_naspdu_fgmm_encode5GMMStatus, m, ctx);
}

bool buildDlNasTransport(uint8_t psi, std::span<const uint8_t> sm, Ctx& ctx) {
    // The record holds an 8 KiB container: keep one per thread rather than on the stack.
    static thread_local NASPduFGMM_DLNASTransport m;
    memset(static_cast<void*>(&m), 0, sizeof m);
    if (sm.size() > sizeof m.mPayloadContainer.data) return false;
    m.b1 = 0x01;  // N1 SM information
    memcpy(m.mPayloadContainer.data, sm.data(), sm.size());
    m.mPayloadContainer.Length = uint16_t(sm.size());
    m.mPayloadContainer.isset = 1;
    if (!encodeNas(__mv_naspdu_fgmm_encodeDLNASTransport, m, ctx)) return false;
    NASPdu_PDUSessionIdentity2 id{};
    setByte(id, psi);
    __mv_naspdu_encodePDUSessionIdentity2(0x12, &id, &ctx);
    return ctx.iError == 0;
}

bool buildSessionAccept(const SessionAccept& a, Ctx& ctx) {
    static thread_local NASPduFGSM_PDUSessionEstablishmentAccept m;
    memset(static_cast<void*>(&m), 0, sizeof m);
    m.b1 = uint8_t(0x10 | (a.type & 0x07));  // SSC mode 1
    // One default rule: match all, both directions, to the session's flow.
    const uint8_t rule[] = {0x01, 0x00, 0x06, 0x31, 0x31, 0x01, 0x01, 0xFF, uint8_t(a.qfi & 0x3F)};
    memcpy(m.mAuthorizedQoSRules.data, rule, sizeof rule);
    m.mAuthorizedQoSRules.Length = sizeof rule;
    m.mAuthorizedQoSRules.isset = 1;
    m.mSessionAMBR.DownlinkUnit = m.mSessionAMBR.UplinkUnit = 0x06;  // Mbps
    m.mSessionAMBR.Downlink = m.mSessionAMBR.Uplink = a.ambrMbps;
    m.mSessionAMBR.Length = 6;
    m.mSessionAMBR.isset = 1;
    if (a.cause) setByte(m.mFGSMCause, a.cause);
    m.mPDUAddress.PDUSessionType = a.type & 0x07;
    uint8_t* d = m.mPDUAddress.data;
    if (a.type == 1) {
        memcpy(d, a.ipv4, 4);
        m.mPDUAddress.Length = 5;
    } else if (a.type == 2) {
        memcpy(d, a.iid, 8);
        m.mPDUAddress.Length = 9;
    } else {
        memcpy(d, a.iid, 8);
        memcpy(d + 8, a.ipv4, 4);
        m.mPDUAddress.Length = 13;
    }
    m.mPDUAddress.isset = 1;
    setSnssai(m.mSNSSAI, a.snssai);
    if (!a.dnn.empty() && a.dnn.size() <= sizeof m.mDNN.data) {
        memcpy(m.mDNN.data, a.dnn.data(), a.dnn.size());
        m.mDNN.Length = uint8_t(a.dnn.size());
        m.mDNN.isset = 1;
    }
    return encodeNasSm(__mv_naspdu_fgsm_encodePDUSessionEstablishmentAccept, m, a.psi, a.pti, ctx);
}

bool buildSessionReject(uint8_t psi, uint8_t pti, uint8_t cause, Ctx& ctx) {
    return smWithCause(__mv_naspdu_fgsm_encodePDUSessionEstablishmentReject, psi, pti, cause, ctx);
}

bool buildSessionReleaseCommand(uint8_t psi, uint8_t pti, uint8_t cause, Ctx& ctx) {
    return smWithCause(__mv_naspdu_fgsm_encodePDUSessionReleaseCommand, psi, pti, cause, ctx);
}

bool buildSessionReleaseReject(uint8_t psi, uint8_t pti, uint8_t cause, Ctx& ctx) {
    return smWithCause(__mv_naspdu_fgsm_encodePDUSessionReleaseReject, psi, pti, cause, ctx);
}

bool buildSessionModificationCommand(uint8_t psi, uint8_t pti, uint16_t ambrMbps, Ctx& ctx) {
    static thread_local NASPduFGSM_PDUSessionModificationCommand m;
    memset(static_cast<void*>(&m), 0, sizeof m);
    m.mSessionAMBR.DownlinkUnit = m.mSessionAMBR.UplinkUnit = 0x06;
    m.mSessionAMBR.Downlink = m.mSessionAMBR.Uplink = ambrMbps;
    m.mSessionAMBR.Length = 6;
    m.mSessionAMBR.isset = 1;
    return encodeNasSm(__mv_naspdu_fgsm_encodePDUSessionModificationCommand, m, psi, pti, ctx);
}

bool buildSessionModificationReject(uint8_t psi, uint8_t pti, uint8_t cause, Ctx& ctx) {
    return smWithCause(__mv_naspdu_fgsm_encodePDUSessionModificationReject, psi, pti, cause, ctx);
}

bool buildGsmStatus(uint8_t psi, uint8_t pti, uint8_t cause, Ctx& ctx) {
    return smWithCause(__mv_naspdu_fgsm_encodeStatus, psi, pti, cause, ctx);
}

const char* nasName(uint8_t epd, uint8_t type) { return __mv_naspdu_message_name(epd, type); }

}  // namespace ca
