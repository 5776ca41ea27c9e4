// Mobile identity and PLMN helpers of the NAS messages.
#include "mv_nas_util.h"

#include <cstring>

#include "mv_byteio.h"

namespace {

int prefixed(__naspdu_fgs_mobile_identity* ie, uint8_t first, const uint8_t* value, int len) {
    if (!ie || len < 0 || (len && !value) || len + 1 > int(sizeof ie->data)) return -1;
    ie->data[0] = first;
    if (len) memcpy(ie->data + 1, value, size_t(len));
    ie->Length = uint16_t(len + 1);
    ie->isset = 1;
    return 1;
}

// Identity type in bits 0 to 2, odd count in bit 3, the first digit in the high nibble, then the others
// two to an octet with the first of a pair in the low nibble.
int digitsIdentity(__naspdu_fgs_mobile_identity* ie, uint8_t type, const char* digits, int n) {
    if (!ie || !digits || n < 1 || (n + 2) / 2 > int(sizeof ie->data)) return -1;
    for (int i = 0; i < n; i++)
        if (digits[i] < '0' || digits[i] > '9') return -1;
    ie->data[0] = uint8_t((digits[0] - '0') << 4 | (n % 2 ? 8 : 0) | type);
    int len = 1;
    for (int i = 1; i < n; i += 2) {
        uint8_t lo = uint8_t(digits[i] - '0');
        uint8_t hi = i + 1 < n ? uint8_t(digits[i + 1] - '0') : 0xF;
        ie->data[len++] = uint8_t(hi << 4 | lo);
    }
    ie->Length = uint16_t(len);
    ie->isset = 1;
    return 1;
}

int digitsOf(const __naspdu_fgs_mobile_identity* ie, char* out, int outLen) {
    if (!out || outLen < 1) return 0;
    int n = 0;
    auto add = [&](uint8_t nib) {
        if (nib > 9 || n >= outLen - 1) return false;
        out[n++] = char('0' + nib);
        return true;
    };
    ByteReader r(ie && ie->Length <= sizeof ie->data ? std::span<const uint8_t>(ie->data, ie->Length)
                                                     : std::span<const uint8_t>());
    uint8_t o;
    if (r.u8(o) && add(o >> 4))
        while (r.u8(o))
            if (!add(o & 0x0F) || !add(o >> 4)) break;
    out[n] = 0;
    return n;
}

char digitChar(uint8_t nib) { return "0123456789ABCDEF"[nib & 15]; }

}  // namespace

int __mv_nas_util_encode_fg_guti(__naspdu_fgs_mobile_identity* ie, const uint8_t* guti, int len) {
    return prefixed(ie, 0xF2, guti, len);
}

int __mv_nas_util_encode_fg_s_tmsi(__naspdu_fgs_mobile_identity* ie, const uint8_t* tmsi, int len) {
    return prefixed(ie, 0xF4, tmsi, len);
}

int __mv_nas_util_encode_fg_suci(__naspdu_fgs_mobile_identity* ie, const uint8_t* suci, int len) {
    if (!ie || !suci || len < 1 || len > int(sizeof ie->data)) return -1;
    memcpy(ie->data, suci, size_t(len));
    ie->Length = uint16_t(len);
    ie->isset = 1;
    return 1;
}

int __mv_nas_util_encode_fg_imei(__naspdu_fgs_mobile_identity* ie, const char* digits, int n) {
    return digitsIdentity(ie, 3, digits, n);
}

int __mv_nas_util_encode_fg_imeisv(__naspdu_fgs_mobile_identity* ie, const char* digits, int n) {
    return digitsIdentity(ie, 5, digits, n);
}

int __mv_nas_util_decode_fg_imei(const __naspdu_fgs_mobile_identity* ie, char* out, int outLen) {
    return digitsOf(ie, out, outLen);
}

int __mv_nas_util_decode_fg_imeisv(const __naspdu_fgs_mobile_identity* ie, char* out, int outLen) {
    return digitsOf(ie, out, outLen);
}

int __mv_nas_util__plmn_to_mccmnc(const uint8_t* plmn, char* mcc, char* mnc) {
    mcc[0] = digitChar(plmn[0]);
    mcc[1] = digitChar(plmn[0] >> 4);
    mcc[2] = digitChar(plmn[1]);
    mcc[3] = 0;
    mnc[0] = digitChar(plmn[2]);
    mnc[1] = digitChar(plmn[2] >> 4);
    if ((plmn[1] >> 4) == 0xF) {
        mnc[2] = 0;
        return 2;
    }
    mnc[2] = digitChar(plmn[1] >> 4);
    mnc[3] = 0;
    return 3;
}

int __mv_nas_util__plmn_to_mccmnc2(const uint8_t* plmn, uint16_t* mcc, uint16_t* mnc) {
    auto d = [](uint8_t nib) { return nib > 9 ? 0 : nib; };
    *mcc = uint16_t(d(plmn[0] & 15) * 100 + d(plmn[0] >> 4) * 10 + d(plmn[1] & 15));
    uint16_t two = uint16_t(d(plmn[2] & 15) * 10 + d(plmn[2] >> 4));
    if ((plmn[1] >> 4) == 0xF) {
        *mnc = two;
        return 2;
    }
    *mnc = uint16_t(two * 10 + d(plmn[1] >> 4));
    return 3;
}

int __mv_nas_util__mccmnc_to_plmn(uint8_t* plmn, uint16_t mcc, uint16_t mnc, int mnclen) {
    if (mcc > 999 || (mnclen != 2 && mnclen != 3) || mnc >= (mnclen == 2 ? 100 : 1000)) return -1;
    uint8_t m1, m2, m3;
    if (mnclen == 2) {
        m1 = uint8_t(mnc / 10);
        m2 = uint8_t(mnc % 10);
        m3 = 0xF;
    } else {
        m1 = uint8_t(mnc / 100);
        m2 = uint8_t(mnc / 10 % 10);
        m3 = uint8_t(mnc % 10);
    }
    plmn[0] = uint8_t((mcc / 10 % 10) << 4 | mcc / 100);
    plmn[1] = uint8_t(m3 << 4 | mcc % 10);
    plmn[2] = uint8_t(m2 << 4 | m1);
    return 1;
}
