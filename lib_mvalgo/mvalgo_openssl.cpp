// The OpenSSL side of the library: algorithms fetched once, and thin RAII wrappers
// that keep every per-call context on the caller's stack frame.
#include <openssl/core_names.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include "mvalgo_internal.h"

namespace mvalgo_detail {

namespace {
Algos fetchAll() {
    Algos a;
    a.aes128Ecb = EVP_CIPHER_fetch(nullptr, "AES-128-ECB", nullptr);
    a.aes128Ctr = EVP_CIPHER_fetch(nullptr, "AES-128-CTR", nullptr);
    a.aes128Cbc = EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr);
    a.sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    a.hmac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    a.x963 = EVP_KDF_fetch(nullptr, "X963KDF", nullptr);
    if (a.hmac) {
        a.hmacSha256 = EVP_MAC_CTX_new(a.hmac);
        char digest[] = "SHA256";
        OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                               OSSL_PARAM_construct_end()};
        if (a.hmacSha256 && EVP_MAC_CTX_set_params(a.hmacSha256, params) != 1) {
            EVP_MAC_CTX_free(a.hmacSha256);
            a.hmacSha256 = nullptr;
        }
    }
    a.ok = a.aes128Ecb && a.aes128Ctr && a.aes128Cbc && a.sha256 && a.hmacSha256 && a.x963;
    return a;
}
}  // namespace

const Algos& algos() {
    // Kept for the life of the process: worker threads may still be inside an
    // operation while static destructors run at exit.
    static const Algos* a = new Algos(fetchAll());
    return *a;
}

AesBlock::AesBlock(const uint8_t key[16]) : ctx_(EVP_CIPHER_CTX_new()) {
    const Algos& a = algos();
    ok_ = ctx_ && a.aes128Ecb && EVP_EncryptInit_ex2(ctx_, a.aes128Ecb, key, nullptr, nullptr) == 1 &&
          EVP_CIPHER_CTX_set_padding(ctx_, 0) == 1;
}

AesBlock::~AesBlock() { EVP_CIPHER_CTX_free(ctx_); }

bool AesBlock::encrypt(const uint8_t in[16], uint8_t out[16]) {
    int n = 0;
    return ok_ && EVP_EncryptUpdate(ctx_, out, &n, in, 16) == 1 && n == 16;
}

bool aesCtr(const uint8_t key[16], const uint8_t icb[16], const uint8_t* in, uint8_t* out, size_t n) {
    if (n == 0) return true;
    const Algos& a = algos();
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    bool ok = ctx && a.aes128Ctr && EVP_EncryptInit_ex2(ctx, a.aes128Ctr, key, icb, nullptr) == 1;
    // EVP takes int lengths: feed long inputs in slices.
    while (ok && n > 0) {
        int chunk = n > (1u << 30) ? (1 << 30) : int(n), got = 0;
        ok = EVP_EncryptUpdate(ctx, out, &got, in, chunk) == 1 && got == chunk;
        in += chunk;
        out += chunk;
        n -= size_t(chunk);
    }
    EVP_CIPHER_CTX_free(ctx);
    return ok;
}

HmacSha256::HmacSha256(std::span<const uint8_t> key) : ctx_(nullptr) {
    const Algos& a = algos();
    if (a.hmacSha256) ctx_ = EVP_MAC_CTX_dup(a.hmacSha256);
    ok_ = ctx_ && EVP_MAC_init(ctx_, key.data(), key.size(), nullptr) == 1;
}

HmacSha256::~HmacSha256() { EVP_MAC_CTX_free(ctx_); }

bool HmacSha256::update(std::span<const uint8_t> data) {
    ok_ = ok_ && EVP_MAC_update(ctx_, data.data(), data.size()) == 1;
    return ok_;
}

bool HmacSha256::final(uint8_t out[32]) {
    size_t n = 0;
    return ok_ && EVP_MAC_final(ctx_, out, &n, 32) == 1 && n == 32;
}

bool sha256(std::span<const uint8_t> data, uint8_t out[32]) {
    const Algos& a = algos();
    unsigned n = 0;
    return a.sha256 && EVP_Digest(data.data(), data.size(), out, &n, a.sha256, nullptr) == 1 && n == 32;
}

}  // namespace mvalgo_detail
