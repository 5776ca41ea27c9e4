// SUCI concealment: the null scheme and the ECIES profiles A (X25519) and B (P-256):
// ECDH with an ephemeral key, ANSI X9.63 KDF with SHA-256 over the ephemeral public
// key as sent, AES-128-CTR, and an HMAC-SHA-256 tag cut to 8 octets.
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/rand.h>

#include <memory>

#include "mvalgo_internal.h"
#include "mvalgo_prim.h"

using namespace mvalgo_detail;

namespace {

template <class T, void (*F)(T*)>
struct Deleter {
    void operator()(T* p) const { F(p); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using GroupPtr = std::unique_ptr<EC_GROUP, Deleter<EC_GROUP, EC_GROUP_free>>;
using PointPtr = std::unique_ptr<EC_POINT, Deleter<EC_POINT, EC_POINT_free>>;
using BnPtr = std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_clear_free>>;
using BnCtxPtr = std::unique_ptr<BN_CTX, Deleter<BN_CTX, BN_CTX_free>>;
using KdfCtxPtr = std::unique_ptr<EVP_KDF_CTX, Deleter<EVP_KDF_CTX, EVP_KDF_CTX_free>>;

constexpr size_t kTagLen = 8;

// An empty view may have no storage at all, which memmove must not be given.
void moveBytes(uint8_t* to, std::span<const uint8_t> from) {
    if (!from.empty()) memmove(to, from.data(), from.size());
}

struct SchemeKeys {
    uint8_t enc[16];
    uint8_t icb[16];
    uint8_t mac[32];
};

bool x963(std::span<const uint8_t> shared, std::span<const uint8_t> info, SchemeKeys& out) {
    const Algos& a = algos();
    if (!a.x963) return false;
    KdfCtxPtr ctx(EVP_KDF_CTX_new(a.x963));
    char digest[] = "SHA256";
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, const_cast<uint8_t*>(shared.data()), shared.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, const_cast<uint8_t*>(info.data()), info.size()),
        OSSL_PARAM_construct_end()};
    uint8_t k[64];
    if (!ctx || EVP_KDF_derive(ctx.get(), k, sizeof k, params) != 1) return false;
    memcpy(out.enc, k, 16);
    memcpy(out.icb, k + 16, 16);
    memcpy(out.mac, k + 32, 32);
    return true;
}

bool tag(const SchemeKeys& keys, std::span<const uint8_t> ciphertext, uint8_t out[kTagLen]) {
    HmacSha256 h(keys.mac);
    uint8_t full[32];
    if (!h.update(ciphertext) || !h.final(full)) return false;
    memcpy(out, full, kTagLen);
    return true;
}

// ---- profile A

PkeyPtr x25519Private(std::span<const uint8_t> priv) {
    if (priv.size() != 32) return nullptr;
    return PkeyPtr(EVP_PKEY_new_raw_private_key(EVP_PKEY_X25519, nullptr, priv.data(), 32));
}

bool x25519Shared(EVP_PKEY* priv, std::span<const uint8_t> peerPub, uint8_t shared[32]) {
    if (peerPub.size() != 32) return false;
    PkeyPtr peer(EVP_PKEY_new_raw_public_key(EVP_PKEY_X25519, nullptr, peerPub.data(), 32));
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, priv, nullptr));
    size_t n = 32;
    return peer && ctx && EVP_PKEY_derive_init(ctx.get()) == 1 && EVP_PKEY_derive_set_peer(ctx.get(), peer.get()) == 1 &&
           EVP_PKEY_derive(ctx.get(), shared, &n) == 1 && n == 32;
}

bool x25519Public(EVP_PKEY* priv, uint8_t pub[32]) {
    size_t n = 32;
    return EVP_PKEY_get_raw_public_key(priv, pub, &n) == 1 && n == 32;
}

// ---- profile B

struct P256 {
    GroupPtr group{EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1)};
    BnCtxPtr bn{BN_CTX_new()};
    bool ok() const { return group && bn; }

    BnPtr scalar(std::span<const uint8_t> priv) {
        if (priv.size() != 32) return nullptr;
        BnPtr d(BN_bin2bn(priv.data(), 32, nullptr));
        if (!d || BN_is_zero(d.get()) || BN_cmp(d.get(), EC_GROUP_get0_order(group.get())) >= 0) return nullptr;
        return d;
    }
    PointPtr point(std::span<const uint8_t> enc) {
        PointPtr p(EC_POINT_new(group.get()));
        if (!p || enc.empty() || EC_POINT_oct2point(group.get(), p.get(), enc.data(), enc.size(), bn.get()) != 1 ||
            EC_POINT_is_at_infinity(group.get(), p.get()))
            return nullptr;
        return p;
    }
    // d * P, or d * G without P; the compressed encoding into pub (33) and/or the
    // x-coordinate into x (32).
    bool mul(const BIGNUM* d, const EC_POINT* p, uint8_t* pub, uint8_t* x) {
        PointPtr r(EC_POINT_new(group.get()));
        if (!r || EC_POINT_mul(group.get(), r.get(), p ? nullptr : d, p, p ? d : nullptr, bn.get()) != 1 ||
            EC_POINT_is_at_infinity(group.get(), r.get()))
            return false;
        if (pub && EC_POINT_point2oct(group.get(), r.get(), POINT_CONVERSION_COMPRESSED, pub, 33, bn.get()) != 33)
            return false;
        if (x) {
            BnPtr bx(BN_new());
            if (!bx || EC_POINT_get_affine_coordinates(group.get(), r.get(), bx.get(), nullptr, bn.get()) != 1 ||
                BN_bn2binpad(bx.get(), x, 32) != 32)
                return false;
        }
        return true;
    }
};

// The ephemeral public key (as sent) and the shared secret for a UE-side conceal.
int ecdhUe(uint8_t scheme, std::span<const uint8_t> hnPub, std::span<const uint8_t> ephPriv, uint8_t ephPub[33],
           size_t& ephPubLen, uint8_t shared[32]) {
    uint8_t drawn[32];
    if (ephPriv.empty()) {
        if (scheme == MV_ALGO_SUCI_PROFILE_A) {
            if (RAND_priv_bytes(drawn, 32) != 1) return MV_ALGO_ERR_CRYPTO;
        } else {
            BnPtr d(BN_new());
            P256 c;
            if (!c.ok() || !d || BN_priv_rand_range(d.get(), EC_GROUP_get0_order(c.group.get())) != 1 ||
                BN_is_zero(d.get()) || BN_bn2binpad(d.get(), drawn, 32) != 32)
                return MV_ALGO_ERR_CRYPTO;
        }
        ephPriv = drawn;
    }
    if (scheme == MV_ALGO_SUCI_PROFILE_A) {
        PkeyPtr k = x25519Private(ephPriv);
        ephPubLen = 32;
        if (!k) return MV_ALGO_ERR_ARG;
        if (!x25519Public(k.get(), ephPub)) return MV_ALGO_ERR_CRYPTO;
        return x25519Shared(k.get(), hnPub, shared) ? 0 : MV_ALGO_ERR_ARG;
    }
    P256 c;
    if (!c.ok()) return MV_ALGO_ERR_CRYPTO;
    BnPtr d = c.scalar(ephPriv);
    PointPtr q = c.point(hnPub);
    ephPubLen = 33;
    if (!d || !q) return MV_ALGO_ERR_ARG;
    if (!c.mul(d.get(), nullptr, ephPub, nullptr) || !c.mul(d.get(), q.get(), nullptr, shared)) return MV_ALGO_ERR_ARG;
    return 0;
}

}  // namespace

int __mv_algo__suci_conceal(uint8_t scheme, std::span<const uint8_t> hnPublicKey, std::span<const uint8_t> schemeInput,
                            std::span<const uint8_t> ephPrivate, std::span<uint8_t> out) {
    if (scheme == MV_ALGO_SUCI_NULL) {
        if (out.size() < schemeInput.size()) return MV_ALGO_ERR_ARG;
        moveBytes(out.data(), schemeInput);
        return int(schemeInput.size());
    }
    if (scheme != MV_ALGO_SUCI_PROFILE_A && scheme != MV_ALGO_SUCI_PROFILE_B) return MV_ALGO_ERR_ARG;
    if (!ephPrivate.empty() && ephPrivate.size() != 32) return MV_ALGO_ERR_ARG;
    size_t overhead = scheme == MV_ALGO_SUCI_PROFILE_A ? MV_ALGO_SUCI_OVERHEAD_A : MV_ALGO_SUCI_OVERHEAD_B;
    if (schemeInput.size() > 0xFFFF || out.size() < overhead + schemeInput.size()) return MV_ALGO_ERR_ARG;

    uint8_t ephPub[33], shared[32];
    size_t ephLen = 0;
    if (int st = ecdhUe(scheme, hnPublicKey, ephPrivate, ephPub, ephLen, shared); st != 0) return st;
    SchemeKeys keys;
    if (!x963({shared, 32}, {ephPub, ephLen}, keys)) return MV_ALGO_ERR_CRYPTO;
    uint8_t* ct = out.data() + ephLen;
    // The input may lie in `out`: move it into place before anything overwrites it.
    moveBytes(ct, schemeInput);
    memcpy(out.data(), ephPub, ephLen);
    if (!aesCtr(keys.enc, keys.icb, ct, ct, schemeInput.size()) ||
        !tag(keys, {ct, schemeInput.size()}, ct + schemeInput.size()))
        return MV_ALGO_ERR_CRYPTO;
    return int(overhead + schemeInput.size());
}

int __mv_algo__suci_deconceal(uint8_t scheme, std::span<const uint8_t> hnPrivateKey,
                              std::span<const uint8_t> schemeOutput, std::span<uint8_t> out) {
    if (scheme == MV_ALGO_SUCI_NULL) {
        if (out.size() < schemeOutput.size()) return MV_ALGO_ERR_ARG;
        moveBytes(out.data(), schemeOutput);
        return int(schemeOutput.size());
    }
    if (scheme != MV_ALGO_SUCI_PROFILE_A && scheme != MV_ALGO_SUCI_PROFILE_B) return MV_ALGO_ERR_ARG;
    size_t ephLen = scheme == MV_ALGO_SUCI_PROFILE_A ? 32 : 33;
    if (schemeOutput.size() < ephLen + kTagLen || schemeOutput.size() - ephLen - kTagLen > 0xFFFF)
        return MV_ALGO_ERR_ARG;
    std::span<const uint8_t> eph = schemeOutput.first(ephLen);
    std::span<const uint8_t> ct = schemeOutput.subspan(ephLen, schemeOutput.size() - ephLen - kTagLen);
    std::span<const uint8_t> rxTag = schemeOutput.last(kTagLen);
    if (out.size() < ct.size()) return MV_ALGO_ERR_ARG;

    uint8_t shared[32];
    if (scheme == MV_ALGO_SUCI_PROFILE_A) {
        PkeyPtr k = x25519Private(hnPrivateKey);
        if (!k || !x25519Shared(k.get(), eph, shared)) return MV_ALGO_ERR_ARG;
    } else {
        P256 c;
        if (!c.ok()) return MV_ALGO_ERR_CRYPTO;
        BnPtr d = c.scalar(hnPrivateKey);
        PointPtr q = c.point(eph);
        if (!d || !q || !c.mul(d.get(), q.get(), nullptr, shared)) return MV_ALGO_ERR_ARG;
    }
    SchemeKeys keys;
    uint8_t expect[kTagLen];
    if (!x963({shared, 32}, eph, keys) || !tag(keys, ct, expect)) return MV_ALGO_ERR_CRYPTO;
    if (CRYPTO_memcmp(expect, rxTag.data(), kTagLen) != 0) return MV_ALGO_ERR_MAC;
    moveBytes(out.data(), ct);
    if (!aesCtr(keys.enc, keys.icb, out.data(), out.data(), ct.size())) return MV_ALGO_ERR_CRYPTO;
    return int(ct.size());
}

int __mv_algo__suci_public_key(uint8_t scheme, std::span<const uint8_t> hnPrivateKey, std::span<uint8_t> out) {
    if (scheme == MV_ALGO_SUCI_PROFILE_A) {
        PkeyPtr k = x25519Private(hnPrivateKey);
        if (!k || out.size() < 32) return MV_ALGO_ERR_ARG;
        return x25519Public(k.get(), out.data()) ? 32 : MV_ALGO_ERR_CRYPTO;
    }
    if (scheme != MV_ALGO_SUCI_PROFILE_B || out.size() < 33) return MV_ALGO_ERR_ARG;
    P256 c;
    if (!c.ok()) return MV_ALGO_ERR_CRYPTO;
    BnPtr d = c.scalar(hnPrivateKey);
    if (!d) return MV_ALGO_ERR_ARG;
    return c.mul(d.get(), nullptr, out.data(), nullptr) ? 33 : MV_ALGO_ERR_CRYPTO;
}
