// SNOW 3G and the algorithms on it: 128-NEA1 (the f8 construction) and 128-NIA1 (f9,
// with FRESH taken from BEARER). The S-boxes and the alpha tables are generated at
// compile time from their definitions rather than copied.
#include <array>

#include "mvalgo_internal.h"
#include "mvalgo_prim.h"
#include "mvalgo_stream.h"

using namespace mvalgo_detail;

namespace {

constexpr uint8_t mulx(uint8_t v, uint8_t c) { return uint8_t(v << 1) ^ ((v & 0x80) ? c : 0); }

constexpr uint8_t mulxPow(uint8_t v, int i, uint8_t c) {
    for (; i > 0; --i) v = mulx(v, c);
    return v;
}

// Multiplication in GF(2^8) modulo the given polynomial (low 8 bits of it).
constexpr uint8_t gfMul(uint8_t a, uint8_t b, uint8_t poly) {
    uint8_t r = 0;
    for (; b; b >>= 1, a = mulx(a, poly))
        if (b & 1) r ^= a;
    return r;
}

constexpr uint8_t gfPow(uint8_t x, int e, uint8_t poly) {
    uint8_t r = 1;
    for (; e > 0; --e) r = gfMul(r, x, poly);
    return r;
}

constexpr uint8_t rotl8(uint8_t x, int n) { return uint8_t(x << n | x >> (8 - n)); }

// SR: the Rijndael S-box, inverse in GF(2^8)/0x11B then the affine map.
constexpr std::array<uint8_t, 256> makeSR() {
    std::array<uint8_t, 256> t{};
    for (int x = 0; x < 256; ++x) {
        uint8_t inv = x ? gfPow(uint8_t(x), 254, 0x1B) : 0;
        t[x] = inv ^ rotl8(inv, 1) ^ rotl8(inv, 2) ^ rotl8(inv, 3) ^ rotl8(inv, 4) ^ 0x63;
    }
    return t;
}

// SQ: the Dickson polynomial g49 over GF(2^8)/0x169, xor 0x25.
constexpr std::array<uint8_t, 256> makeSQ() {
    std::array<uint8_t, 256> t{};
    constexpr int exps[] = {1, 9, 13, 15, 33, 41, 45, 47, 49};
    for (int x = 0; x < 256; ++x) {
        uint8_t g = 0;
        for (int e : exps) g ^= gfPow(uint8_t(x), e, 0x69);
        t[x] = g ^ 0x25;
    }
    return t;
}

// S1 and S2 are a byte substitution followed by a MixColumn-like map; folding the map
// into four tables makes each a lookup per byte.
constexpr std::array<std::array<uint32_t, 256>, 4> makeSTables(const std::array<uint8_t, 256>& sub, uint8_t c) {
    std::array<std::array<uint32_t, 256>, 4> t{};
    for (int x = 0; x < 256; ++x) {
        uint32_t a = sub[x], m = mulx(sub[x], c);
        t[0][x] = m << 24 | (m ^ a) << 16 | a << 8 | a;
        t[1][x] = a << 24 | m << 16 | (m ^ a) << 8 | a;
        t[2][x] = a << 24 | a << 16 | m << 8 | (m ^ a);
        t[3][x] = (m ^ a) << 24 | a << 16 | a << 8 | m;
    }
    return t;
}

constexpr std::array<uint32_t, 256> makeAlpha(bool div) {
    std::array<uint32_t, 256> t{};
    for (int c = 0; c < 256; ++c) {
        uint8_t v = uint8_t(c);
        if (div)
            t[c] = uint32_t(mulxPow(v, 16, 0xA9)) << 24 | uint32_t(mulxPow(v, 39, 0xA9)) << 16 |
                   uint32_t(mulxPow(v, 6, 0xA9)) << 8 | mulxPow(v, 64, 0xA9);
        else
            t[c] = uint32_t(mulxPow(v, 23, 0xA9)) << 24 | uint32_t(mulxPow(v, 245, 0xA9)) << 16 |
                   uint32_t(mulxPow(v, 48, 0xA9)) << 8 | mulxPow(v, 239, 0xA9);
    }
    return t;
}

constexpr auto kSR = makeSR();
constexpr auto kSQ = makeSQ();
static_assert(kSR[0] == 0x63 && kSR[1] == 0x7C && kSR[0x53] == 0xED, "Rijndael S-box");
static_assert(kSQ[0] == 0x25 && kSQ[1] == 0x24, "SNOW 3G SQ");
constexpr auto kS1 = makeSTables(kSR, 0x1B);
constexpr auto kS2 = makeSTables(kSQ, 0x69);
constexpr auto kMulAlpha = makeAlpha(false);
constexpr auto kDivAlpha = makeAlpha(true);

[[gnu::always_inline]] inline uint32_t sbox(const std::array<std::array<uint32_t, 256>, 4>& t, uint32_t w) {
    return t[0][w >> 24] ^ t[1][(w >> 16) & 0xFF] ^ t[2][(w >> 8) & 0xFF] ^ t[3][w & 0xFF];
}

class Snow3g {
public:
    // k is the key as transmitted (its first word is k3); iv = IV0..IV3.
    Snow3g(const uint8_t key[16], const uint32_t iv[4]) {
        uint32_t k0 = load32(key + 12), k1 = load32(key + 8), k2 = load32(key + 4), k3 = load32(key);
        const uint32_t one = 0xFFFFFFFF;
        s_[15] = k3 ^ iv[0];
        s_[14] = k2;
        s_[13] = k1;
        s_[12] = k0 ^ iv[1];
        s_[11] = k3 ^ one;
        s_[10] = k2 ^ one ^ iv[2];
        s_[9] = k1 ^ one ^ iv[3];
        s_[8] = k0 ^ one;
        s_[7] = k3;
        s_[6] = k2;
        s_[5] = k1;
        s_[4] = k0;
        s_[3] = k3 ^ one;
        s_[2] = k2 ^ one;
        s_[1] = k1 ^ one;
        s_[0] = k0 ^ one;
        for (int i = 0; i < 32; ++i) clockLfsr(clockFsm());
        clockFsm();
        clockLfsr(0);
    }

    uint32_t next() {
        uint32_t z = clockFsm() ^ s_[0];
        clockLfsr(0);
        return z;
    }

private:
    uint32_t clockFsm() {
        uint32_t f = (s_[15] + r1_) ^ r2_;
        uint32_t r = r2_ + (r3_ ^ s_[5]);
        r3_ = sbox(kS2, r2_);
        r2_ = sbox(kS1, r1_);
        r1_ = r;
        return f;
    }
    // In keystream mode the FSM output is not fed back: f is 0.
    void clockLfsr(uint32_t f) {
        uint32_t v = (s_[0] << 8) ^ kMulAlpha[s_[0] >> 24] ^ s_[2] ^ (s_[11] >> 8) ^ kDivAlpha[s_[11] & 0xFF] ^ f;
        memmove(s_, s_ + 1, 15 * sizeof(uint32_t));
        s_[15] = v;
    }

    uint32_t s_[16];
    uint32_t r1_ = 0, r2_ = 0, r3_ = 0;
};

// Multiplication in GF(2^64) modulo x^64 + x^4 + x^3 + x + 1.
uint64_t mul64(uint64_t v, uint64_t p) {
    uint64_t r = 0;
    for (int i = 0; i < 64; ++i, p >>= 1) {  // branch-free: the bits of P are data
        r ^= v & (0 - (p & 1));
        v = (v << 1) ^ (0x1B & (0 - (v >> 63)));
    }
    return r;
}

// x^64 reduced, for the 4 bits shifted out of a product: h * (x^4 + x^3 + x + 1).
constexpr std::array<uint64_t, 16> makeReduce4() {
    std::array<uint64_t, 16> t{};
    for (unsigned h = 0; h < 16; ++h)
        for (int b = 0; b < 4; ++b)
            if (h >> b & 1) t[h] ^= uint64_t(0x1B) << b;
    return t;
}
constexpr auto kReduce4 = makeReduce4();

// Multiplication by a fixed P, four bits of the other operand at a time: the MAC
// multiplies every message block by the same P.
class Mul64ByP {
public:
    explicit Mul64ByP(uint64_t p) {
        t_[0] = 0;
        t_[1] = p;
        for (unsigned j = 2; j < 16; j <<= 1) t_[j] = (t_[j / 2] << 1) ^ (0x1B & (0 - (t_[j / 2] >> 63)));
        for (unsigned j = 3; j < 16; ++j)
            if (j & (j - 1)) t_[j] = t_[j & (j - 1)] ^ t_[j & (0 - j)];
    }
    uint64_t operator()(uint64_t v) const {
        uint64_t r = 0;
        for (int k = 60; k >= 0; k -= 4) r = (r << 4) ^ kReduce4[r >> 60] ^ t_[(v >> k) & 15];
        return r;
    }

private:
    uint64_t t_[16];
};

}  // namespace

int __mv_algo__nea1(std::span<const uint8_t, 16> key, uint32_t count, uint8_t bearer, uint8_t direction,
                    std::span<uint8_t> data, size_t bits) {
    if (bits > data.size() * 8 || bearer > 31 || direction > 1) return MV_ALGO_ERR_ARG;
    uint32_t bd = uint32_t(bearer) << 27 | uint32_t(direction) << 26;
    const uint32_t iv[4] = {bd, count, bd, count};
    Snow3g g(key.data(), iv);
    xorKeystream([&g] { return g.next(); }, data.data(), bits);
    return 0;
}

int __mv_algo__nia1(std::span<const uint8_t, 16> key, uint32_t count, uint8_t bearer, uint8_t direction,
                    std::span<const uint8_t> data, size_t bits, std::span<uint8_t, 4> mac) {
    if (bits > data.size() * 8 || bearer > 31 || direction > 1) return MV_ALGO_ERR_ARG;
    uint32_t fresh = uint32_t(bearer) << 27;
    const uint32_t iv[4] = {fresh ^ (uint32_t(direction) << 15), count ^ (uint32_t(direction) << 31), fresh, count};
    Snow3g g(key.data(), iv);
    uint32_t z[5];
    for (auto& w : z) w = g.next();
    uint64_t p = uint64_t(z[0]) << 32 | z[1], q = uint64_t(z[2]) << 32 | z[3];
    uint64_t eval = 0;
    Mul64ByP byP(p);
    for (size_t off = 0; off < bits; off += 64) eval = byP(eval ^ readBits64(data.data(), bits, off));
    eval = mul64(eval ^ uint64_t(bits), q);
    store32(mac.data(), uint32_t(eval >> 32) ^ z[4]);
    return 0;
}
