// Pieces shared by the library's sources and nothing else: the OpenSSL algorithms
// fetched once, RAII wrappers over their contexts, and bit-string helpers.
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace mvalgo_detail {

// Fetched once (first use or __mv_ogs_init_crypto_fun) and only read afterwards; the
// HMAC template carries the digest so that each use skips the name lookup.
struct Algos {
    EVP_CIPHER* aes128Ecb = nullptr;
    EVP_CIPHER* aes128Ctr = nullptr;
    EVP_CIPHER* aes128Cbc = nullptr;
    EVP_MD* sha256 = nullptr;
    EVP_MAC* hmac = nullptr;
    EVP_MAC_CTX* hmacSha256 = nullptr;
    EVP_KDF* x963 = nullptr;
    bool ok = false;
};
const Algos& algos();

// One AES-128 key schedule for single-block encryptions.
class AesBlock {
public:
    explicit AesBlock(const uint8_t key[16]);
    ~AesBlock();
    AesBlock(const AesBlock&) = delete;
    AesBlock& operator=(const AesBlock&) = delete;
    bool ok() const { return ok_; }
    [[nodiscard]] bool encrypt(const uint8_t in[16], uint8_t out[16]);

private:
    EVP_CIPHER_CTX* ctx_;
    bool ok_ = false;
};

// AES-128-CTR over n bytes, in place allowed.
[[nodiscard]] bool aesCtr(const uint8_t key[16], const uint8_t icb[16], const uint8_t* in, uint8_t* out, size_t n);

class HmacSha256 {
public:
    explicit HmacSha256(std::span<const uint8_t> key);
    ~HmacSha256();
    HmacSha256(const HmacSha256&) = delete;
    HmacSha256& operator=(const HmacSha256&) = delete;
    [[nodiscard]] bool update(std::span<const uint8_t> data);
    [[nodiscard]] bool final(uint8_t out[32]);

private:
    EVP_MAC_CTX* ctx_;
    bool ok_ = false;
};

[[nodiscard]] bool sha256(std::span<const uint8_t> data, uint8_t out[32]);

inline uint32_t load32(const uint8_t* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
inline void store32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
inline uint64_t load48(const uint8_t* p) {
    uint64_t v = 0;
    for (int i = 0; i < 6; ++i) v = v << 8 | p[i];
    return v;
}
inline void store48(uint8_t* p, uint64_t v) {
    for (int i = 5; i >= 0; --i, v >>= 8) p[i] = uint8_t(v);
}

inline size_t bytesFor(size_t bits) { return (bits + 7) / 8; }

// XORs the first `bits` bits of ks into data; the bits of the last byte beyond
// `bits` are left as they were.
inline void xorBits(uint8_t* data, const uint8_t* ks, size_t bits) {
    size_t whole = bits / 8;
    for (size_t i = 0; i < whole; ++i) data[i] ^= ks[i];
    if (unsigned rest = bits % 8) data[whole] ^= ks[whole] & uint8_t(0xFF00 >> rest);
}

}  // namespace mvalgo_detail
