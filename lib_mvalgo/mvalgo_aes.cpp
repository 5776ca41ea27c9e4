// The AES-based algorithms: 128-NEA2 (AES-CTR) and 128-NIA2 (AES-CMAC). The CMAC is
// bit-granular, as the algorithm is defined on bit strings; OpenSSL's CMAC only
// takes whole bytes.
#include "mvalgo_internal.h"
#include "mvalgo_prim.h"

using namespace mvalgo_detail;

namespace {

void dbl(const uint8_t in[16], uint8_t out[16]) {
    uint8_t carry = in[0] >> 7;
    for (int i = 0; i < 15; ++i) out[i] = uint8_t(in[i] << 1 | in[i + 1] >> 7);
    out[15] = uint8_t(in[15] << 1) ^ (carry ? 0x87 : 0);
}

// The message of the CMAC: an 8-octet prefix (COUNT, BEARER, DIRECTION) then the
// data, read 16 octets at a time with the bits beyond the end as 0.
struct CmacInput {
    uint8_t prefix[8];
    const uint8_t* data;
    size_t dataBits;
    size_t totalBits() const { return 64 + dataBits; }
    void block(size_t index, uint8_t out[16]) const {
        size_t dataBytes = bytesFor(dataBits);
        for (size_t i = 0; i < 16; ++i) {
            size_t pos = index * 16 + i;
            out[i] = pos < 8 ? prefix[pos] : (pos - 8 < dataBytes ? data[pos - 8] : 0);
        }
        size_t start = index * 128, total = totalBits();
        if (total < start + 128) {
            size_t keep = total - start;  // 1..127 bits of this block belong to the message
            for (size_t b = keep; b < 128; ++b) out[b / 8] &= uint8_t(~(0x80 >> (b % 8)));
        }
    }
};

bool cmac(AesBlock& aes, const CmacInput& m, uint8_t tag[16]) {
    uint8_t l[16] = {}, k1[16], k2[16];
    if (!aes.encrypt(l, l)) return false;
    dbl(l, k1);
    dbl(k1, k2);
    size_t total = m.totalBits();  // at least 64, so at least one block
    size_t n = (total + 127) / 128;
    uint8_t c[16] = {}, blk[16];
    for (size_t i = 0; i + 1 < n; ++i) {
        m.block(i, blk);
        for (int j = 0; j < 16; ++j) c[j] ^= blk[j];
        if (!aes.encrypt(c, c)) return false;
    }
    m.block(n - 1, blk);
    size_t lastBits = total - (n - 1) * 128;
    if (lastBits == 128) {
        for (int j = 0; j < 16; ++j) blk[j] ^= k1[j];
    } else {
        blk[lastBits / 8] |= uint8_t(0x80 >> (lastBits % 8));
        for (int j = 0; j < 16; ++j) blk[j] ^= k2[j];
    }
    for (int j = 0; j < 16; ++j) c[j] ^= blk[j];
    return aes.encrypt(c, tag);
}

}  // namespace

int __mv_algo__nea2(std::span<const uint8_t, 16> key, uint32_t count, uint8_t bearer, uint8_t direction,
                    std::span<uint8_t> data, size_t bits) {
    if (bits > data.size() * 8 || bearer > 31 || direction > 1) return MV_ALGO_ERR_ARG;
    size_t n = bytesFor(bits);
    if (n == 0) return 0;
    uint8_t icb[16] = {};
    store32(icb, count);
    icb[4] = uint8_t(bearer << 3 | direction << 2);
    uint8_t last = data[n - 1];
    if (!aesCtr(key.data(), icb, data.data(), data.data(), n)) return MV_ALGO_ERR_CRYPTO;
    if (unsigned rest = bits % 8) {
        uint8_t mask = uint8_t(0xFF00 >> rest);
        data[n - 1] = uint8_t((data[n - 1] & mask) | (last & ~mask));
    }
    return 0;
}

int __mv_algo__nia2(std::span<const uint8_t, 16> key, uint32_t count, uint8_t bearer, uint8_t direction,
                    std::span<const uint8_t> data, size_t bits, std::span<uint8_t, 4> mac) {
    if (bits > data.size() * 8 || bearer > 31 || direction > 1) return MV_ALGO_ERR_ARG;
    CmacInput m{{}, data.data(), bits};
    store32(m.prefix, count);
    m.prefix[4] = uint8_t(bearer << 3 | direction << 2);
    AesBlock aes(key.data());
    uint8_t tag[16];
    if (!cmac(aes, m, tag)) return MV_ALGO_ERR_CRYPTO;
    memcpy(mac.data(), tag, 4);
    return 0;
}
