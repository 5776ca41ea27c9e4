// Message templates of the UE's NAS requests: a step's template replaces the defaults of a
// registration request or a PDU session establishment request with the IEs it names, and adds to
// a modification request and a UL NAS transport. Elements are read from the loaded tree without a
// lock; a value that does not fit its IE is logged and the IE left out, never cut.
#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <span>
#include <string_view>

#include "KsNAS_internal.h"
#include "KsTemplateEng.h"

namespace {

using Bytes = std::span<const uint8_t>;

void badValue(const MV_Template* t, const MV_Element* e) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
             "template [%s] element [%s] gives no value that fits its IE, left out <%s|%s|%d>",
             KsTemplateEng__GetTemplateName(t), KsTemplateEng__GetName(e), __FILE_NAME__, __func__, __LINE__);
}

// Raw value octets into an IE record of each shape; false when they do not fit.
bool setRaw(__naspdu_ie_half& ie, Bytes b) {
    if (b.empty()) return false;
    ie.Value = b[0] & 0x0F;
    ie.isset = 1;
    return true;
}
bool setRaw(__naspdu_ie_byte& ie, Bytes b) {
    if (b.empty()) return false;
    ie.Length = 1;
    ie.Value = b[0];
    ie.isset = 1;
    return true;
}
template <unsigned N>
bool setRaw(__naspdu_ie_l8<N>& ie, Bytes b) {
    if (b.size() > N) return false;
    if (!b.empty()) memcpy(ie.data, b.data(), b.size());
    ie.Length = uint8_t(b.size());
    ie.isset = 1;
    return true;
}
template <unsigned N>
bool setRaw(__naspdu_ie_l16<N>& ie, Bytes b) {
    if (b.size() > N) return false;
    if (!b.empty()) memcpy(ie.data, b.data(), b.size());
    ie.Length = uint16_t(b.size());
    ie.isset = 1;
    return true;
}

// Present with `len` zero octets, as the elements that carry no value of their own ask.
template <class IE>
void present(IE& ie, unsigned len = 0) {
    uint8_t zero[16] = {};
    setRaw(ie, Bytes(zero, len < sizeof zero ? len : sizeof zero));
}

// The element's octets (a Json element's "Hex" or a Hex element), or an empty span.
struct ElementBytes {
    uint8_t buf[1024];
    int n = -1;
    explicit ElementBytes(const MV_Element* e) { n = KsTemplateEng__GetHexValue(e, buf, sizeof buf); }
    bool ok() const { return n >= 0; }
    Bytes bytes() const { return Bytes(buf, n > 0 ? size_t(n) : 0); }
};

// A Json element's bytes into an IE that takes exactly `want` of them, or at least 1 when 0.
template <class IE>
void fromHex(const MV_Template* t, const MV_Element* e, IE& ie, size_t want = 0) {
    ElementBytes v(e);
    if (!v.ok() || (want ? size_t(v.n) < want : v.n < 1) || !setRaw(ie, want ? v.bytes().first(want) : v.bytes()))
        badValue(t, e);
}

// Exactly n octets from 2n hex digits.
bool hexOctets(const char* text, uint8_t* out, size_t n) {
    if (strlen(text) != 2 * n) return false;
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        c = char(c | 0x20);
        return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    };
    for (size_t i = 0; i < n; ++i) {
        int hi = nibble(text[2 * i]), lo = nibble(text[2 * i + 1]);
        if (hi < 0 || lo < 0) return false;
        out[i] = uint8_t(hi << 4 | lo);
    }
    return true;
}

bool isValueOf(const MV_Element* e, uint32_t type) { return KsTemplateEng__GetValueType(e) == type; }

// The UE's own value: the element names the IE without giving one.
bool fromUe(const MV_Element* e) {
    uint32_t vt = KsTemplateEng__GetValueType(e);
    return vt == KsTMT__VALUE_TYPE__UEProperty || vt == KsTMT__VALUE_TYPE__DEFAULT ||
           vt == KsTMT__VALUE_TYPE__DEFAULT_0;
}

}  // namespace

namespace ksnas {

void registrationDefaults(KsStep* st, NASPduFGMM_RegistrationRequest& r, unsigned which) {
    if (which & kRegDefaultFGMMCapability) {
        r.mFGMMCapability.Length = 0;  // the encoder writes Length + 1 octets: one octet of 0
        r.mFGMMCapability.data[0] = 0;
        r.mFGMMCapability.isset = 1;
    }
    if (which & kRegDefaultSecurityCapability) KsNAS__set_ue_security_capability(st, &r.mUESecurityCapability);
    if (which & kRegDefaultUpdateType) {
        r.mFGSUpdateType.Length = 1;
        r.mFGSUpdateType.Value = 1;
        r.mFGSUpdateType.isset = 1;
    }
    if (which & kRegDefaultNssai) {
        const uint8_t sd[3] = {1, 2, 3};
        __mv_naspdu_addSNSSAI(&r.mRequestedNSSAI, 1, sd, nullptr, nullptr);
    }
}

void applyRegistrationTemplate(KsStep* st, const MV_Template* t, NASPduFGMM_RegistrationRequest& r) {
    for (MV_Element* e = KsTemplateEng__BeginIterator(t); e; e = KsTemplateEng__NextIterator(e)) {
        std::string_view id = KsTemplateEng__GetName(e);
        if (id == "ngKSI") {
            if (isValueOf(e, KsTMT__VALUE_TYPE__INT))
                r.b1 = uint8_t((r.b1 & 0x8F) | (uint8_t(KsTemplateEng__GetIntValue(e)) & 0x07) << 4);
        } else if (id == "10") {
            if (fromUe(e)) {
                registrationDefaults(st, r, kRegDefaultFGMMCapability);
            } else {
                ElementBytes v(e);
                if (v.n < 1) {
                    badValue(t, e);
                    continue;
                }
                r.mFGMMCapability.data[0] = v.buf[0];
                r.mFGMMCapability.Length = 0;
                r.mFGMMCapability.isset = 1;
            }
        } else if (id == "2E") {
            if (fromUe(e)) {
                registrationDefaults(st, r, kRegDefaultSecurityCapability);
            } else {
                ElementBytes v(e);
                if (v.n < 1 || v.n > 4 || !setRaw(r.mUESecurityCapability, v.bytes())) badValue(t, e);
            }
        } else if (id == "2F") {
            if (fromUe(e)) registrationDefaults(st, r, kRegDefaultNssai);
            else fromHex(t, e, r.mRequestedNSSAI);
        } else if (id == "52") {
            if (fromUe(e)) continue;  // the UE's last visited TAI stays
            json_t* j = KsTemplateEng__GetJsonValue(e);
            const char* plmn = json_string_value(json_object_get(j, "HexPLMN"));
            json_t* tac = json_object_get(j, "TAC");
            uint8_t p[3];
            if (!plmn || !json_is_integer(tac) || !hexOctets(plmn, p, sizeof p)) {
                badValue(t, e);
                continue;
            }
            uint32_t v = uint32_t(json_integer_value(tac));
            const uint8_t tai[6] = {p[0], p[1], p[2], uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
            setRaw(r.mLastVisitedRegisteredTAI, Bytes(tai, 6));
        } else if (id == "17") {
            present(r.mS1UENetworkCapability, 4);
        } else if (id == "40") {
            fromHex(t, e, r.mUplinkDataStatus, 2);
        } else if (id == "50") {
            fromHex(t, e, r.mPDUSessionStatus, 2);
        } else if (id == "B-") {
            fromHex(t, e, r.mMICOIndication);
        } else if (id == "2B") {
            fromHex(t, e, r.mUEStatus);
        } else if (id == "77") {
            fromHex(t, e, r.mAdditionalGUTI);
        } else if (id == "25") {
            fromHex(t, e, r.mAllowedPDUSessionStatus, 2);
        } else if (id == "18") {
            fromHex(t, e, r.mUEUsageSetting);
        } else if (id == "51") {
            fromHex(t, e, r.mRequestedDRXParameters);
        } else if (id == "70") {
            present(r.mEPSNASMessageContainer);
        } else if (id == "74") {
            static constexpr uint8_t kLadn[10] = {9, 'i', 'n', 't', 'e', 'r', 'n', 'e', 't', '1'};
            setRaw(r.mLADNIndication, Bytes(kLadn));
        } else if (id == "8-") {
            const uint8_t one = 1;
            setRaw(r.mPayloadContainerType, Bytes(&one, 1));
        } else if (id == "7B") {
            present(r.mPayloadContainer);
        } else if (id == "9-") {
            const uint8_t three = 3;
            setRaw(r.mNetworkSlicingIndication, Bytes(&three, 1));
        } else if (id == "53") {
            const uint8_t bits = 0x03;
            setRaw(r.mFGSUpdateType, Bytes(&bits, 1));
        } else if (id == "41") {
            present(r.mMobileStationClassmark2, 3);
        } else if (id == "42") {
            present(r.mSupportedCodecs, 2);
        } else if (id == "71") {
            present(r.mNASMessageContainer);
        } else if (id == "60") {
            present(r.mEPSBearerContextStatus, 2);
        } else if (id == "6E") {
            present(r.mRequestedExtendedDRXParameters, 1);
        } else if (id == "6A") {
            present(r.mT3324Value, 1);
        } else if (id == "67") {
            present(r.mUERadioCapabilityID);
        } else if (id == "A-") {
            if (isValueOf(e, KsTMT__VALUE_TYPE__INT)) {
                const uint8_t bit = uint8_t(KsTemplateEng__GetIntValue(e) & 1);
                setRaw(r.mN5GCIndication, Bytes(&bit, 1));
            }
        }
        // "5GSMobileIdentity", "C-", "35", "48", "1A" and "30" are known and change nothing.
    }
}

void keepCleartextOnly(NASPduFGMM_RegistrationRequest& r) {
    // The cleartext IEs of an initial NAS message, what a standard AMF reads before it has a
    // security context: the mandatory ones, UE security capability, additional GUTI, UE status and
    // the EPS NAS message container. The rest travels in the security mode complete's container.
    auto clear = [](auto& member, unsigned iei) {
        if constexpr (requires { member.isset; })
            if (iei != 0 && iei != 0x2E && iei != 0x77 && iei != 0x2B && iei != 0x70) member.isset = 0;
    };
#define KS_NAS_CLEARTEXT(kind, type, member, iei) clear(r.member, iei);
    NAS_FGMM_RegistrationRequest(KS_NAS_CLEARTEXT)
#undef KS_NAS_CLEARTEXT
}

// ---------------------------------------------------------------- sessions

namespace {

int64_t intOf(const MV_Element* e) { return KsTemplateEng__GetIntValue(e); }

// "Uplink" and "Downlink" of a Json element, one octet each, 0 when absent.
void dataRate(const MV_Element* e, __naspdu_ie_l8<2>& ie) {
    json_t* j = KsTemplateEng__GetJsonValue(e);
    const uint8_t v[2] = {uint8_t(json_integer_value(json_object_get(j, "Uplink"))),
                          uint8_t(json_integer_value(json_object_get(j, "Downlink")))};
    setRaw(ie, Bytes(v, 2));
}

// The extended protocol configuration options a Json element asks for, member by member.
void epco(const MV_Element* e, __naspdu_ie_l16<1024>& ie) {
    struct Option {
        const char* member;
        std::initializer_list<uint8_t> bytes;
    };
    static const Option kOptions[] = {
        {"PC8021", {0x80, 0x21, 0x10, 0x01, 0x00, 0x00, 0x10, 0x81, 0x06, 0x00, 0x00, 0x00, 0x00, 0x83, 0x06, 0x00, 0x00,
                    0x00, 0x00}},
        {"PC000D", {0x00, 0x0D, 0x00}}, {"PC000A", {0x00, 0x0A, 0x00}}, {"PC0005", {0x00, 0x05, 0x00}},
        {"PC0010", {0x00, 0x10, 0x00}}, {"PC0011", {0x00, 0x11, 0x00}}, {"PC0017", {0x00, 0x17, 0x01, 0x01}},
        {"PC0023", {0x00, 0x23, 0x00}}, {"PC0024", {0x00, 0x24, 0x00}},
    };
    json_t* j = KsTemplateEng__GetJsonValue(e);
    uint8_t out[64];
    size_t n = 0;
    out[n++] = 0x80;
    for (const Option& o : kOptions) {
        if (json_integer_value(json_object_get(j, o.member)) != 1) continue;
        for (uint8_t b : o.bytes) out[n++] = b;
    }
    setRaw(ie, Bytes(out, n));
}

void setHalf(__naspdu_ie_half& ie, uint8_t v) { setRaw(ie, Bytes(&v, 1)); }

bool isMessage(const MV_Template* t, uint32_t type) { return t && t->MessageType == type; }

}  // namespace

bool applyEstablishmentTemplate(const MV_Template* t, NASPduFGSM_PDUSessionEstablishmentRequest& r) {
    if (!isMessage(t, 193)) return false;
    for (MV_Element* e = KsTemplateEng__BeginIterator(t); e; e = KsTemplateEng__NextIterator(e)) {
        bool isInt = isValueOf(e, KsTMT__VALUE_TYPE__INT), isJson = isValueOf(e, KsTMT__VALUE_TYPE__JSon);
        uint8_t v = isInt ? uint8_t(intOf(e)) : 0;
        switch (KsTemplateEng__GetIndex(e)) {
            case 0:
                if (isJson) dataRate(e, r.mIntegrityProtectionMaximumDataRate);
                break;
            case 1:
                if (isInt) setHalf(r.mPDUSessionType, uint8_t(v & 0x07));
                break;
            case 2:
                if (isInt) setHalf(r.mSSCMode, uint8_t(v & 0x07));
                break;
            case 3:
                if (isJson) {
                    ElementBytes b(e);
                    if (b.n >= 1) setRaw(r.mFGSMCapability, b.bytes());
                }
                break;
            case 4:
                if (isInt) {
                    const uint8_t f[2] = {uint8_t(intOf(e) >> 8), uint8_t(intOf(e))};
                    setRaw(r.mMaximumNumberOfSupportedPacketFilters, Bytes(f, 2));
                }
                break;
            case 5:
                if (isInt) setHalf(r.mAlwaysOnPDUSessionRequested, uint8_t(v & 0x01));
                break;
            case 7:
                if (isJson) epco(e, r.mExtendedProtocolConfigurationOptions);
                break;
            default: break;
        }
    }
    return true;
}

void applyModificationTemplate(const MV_Template* t, NASPduFGSM_PDUSessionModificationRequest& r) {
    if (!isMessage(t, 201)) return;
    for (MV_Element* e = KsTemplateEng__BeginIterator(t); e; e = KsTemplateEng__NextIterator(e)) {
        bool isInt = isValueOf(e, KsTMT__VALUE_TYPE__INT), isJson = isValueOf(e, KsTMT__VALUE_TYPE__JSon);
        uint8_t v = isInt ? uint8_t(intOf(e)) : 0;
        switch (KsTemplateEng__GetIndex(e)) {
            case 0:
                if (isJson) {
                    ElementBytes b(e);
                    if (b.n >= 1) setRaw(r.mFGSMCapability, b.bytes());
                }
                break;
            case 1:
                if (isInt) setRaw(r.mFGSMCause, Bytes(&v, 1));
                break;
            case 2:
                if (isInt) {
                    const uint8_t f[2] = {uint8_t(intOf(e) >> 8), uint8_t(intOf(e))};
                    setRaw(r.mMaximumNumberOfSupportedPacketFilters, Bytes(f, 2));
                }
                break;
            case 3:
                if (isInt) setHalf(r.mAlwaysOnPDUSessionRequested, uint8_t(v & 0x01));
                break;
            case 4:
                if (isJson) dataRate(e, r.mIntegrityProtectionMaximumDataRate);
                break;
            default: break;
        }
    }
}

void applyUlTransportTemplate(const MV_Template* t, NASPduFGMM_ULNASTransport& x) {
    if (!isMessage(t, 103)) return;
    x.mDNN.isset = 0;  // the template's DNN or none
    for (MV_Element* e = KsTemplateEng__BeginIterator(t); e; e = KsTemplateEng__NextIterator(e)) {
        switch (KsTemplateEng__GetIndex(e)) {
            case 4:
                if (isValueOf(e, KsTMT__VALUE_TYPE__INT)) {
                    uint8_t v = uint8_t(intOf(e) & 0x07);
                    setRaw(x.mRequestType, Bytes(&v, 1));
                }
                break;
            case 5: {
                ElementBytes b(e);
                if (isValueOf(e, KsTMT__VALUE_TYPE__JSon) && b.n >= 1 && !setRaw(x.mSNSSAI, b.bytes())) badValue(t, e);
                break;
            }
            case 6:
                // The DNN as the template writes it, labels and all.
                if (isValueOf(e, KsTMT__VALUE_TYPE__String)) {
                    const char* text = KsTemplateEng__GetStrValue(e);
                    size_t n = std::min<size_t>(size_t(KsTemplateEng__GetStrLen(e)), sizeof x.mDNN.data);
                    setRaw(x.mDNN, Bytes(reinterpret_cast<const uint8_t*>(text), n));
                }
                break;
            default: break;
        }
    }
}

}  // namespace ksnas
