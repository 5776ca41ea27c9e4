// Shared by the NAS security tests: a UE record on the heap, the app log of the test
// process, and the network's side of the security header written here from the
// standard (the COUNT a network rebuilds from the sequence number, the header layout,
// NIA2 and NEA2 straight from OpenSSL's AES), so that framing mistakes on our side do
// not cancel out.
#pragma once

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <array>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "KsNAS.h"
#include "ks_test_util.h"
#include "mvalgo.h"
#include "mvalgo_testutil.h"

namespace nst {

using Bytes = std::vector<uint8_t>;

inline std::string hex(const uint8_t* p, size_t n) { return mvt::toHex(p, n); }
inline std::string hex(const Bytes& b) { return mvt::toHex(b); }
inline Bytes unhex(const std::string& s) { return mvt::hex(s); }

struct UeDeleter {
    void operator()(MV_KsUE* u) const { delete u; }
};
using UePtr = std::unique_ptr<MV_KsUE, UeDeleter>;

// A zeroed UE record as the loader leaves one for IMSI 001 01 0000000001.
inline UePtr makeUe(const char* supi = "imsi-001010000000001", const char* mcc = "001", const char* mnc = "01") {
    UePtr ue(new MV_KsUE());
    snprintf(reinterpret_cast<char*>(ue->supi.val), sizeof ue->supi.val, "%s", supi);
    ue->supi.len = uint16_t(strlen(supi));
    ue->supi.isset = 1;
    snprintf(ue->mcc, sizeof ue->mcc, "%s", mcc);
    snprintf(ue->mnc, sizeof ue->mnc, "%s", mnc);
    for (MV_KsUECtx* c : {&ue->TGPP, &ue->NTGPP}) {
        c->ngKSI = 7;
        snprintf(c->snn, sizeof c->snn, "5G:mnc%03d.mcc%s.3gppnetwork.org", atoi(mnc), mcc);
    }
    return ue;
}

// ---------------------------------------------------------------- the network's side

inline void aesCtr(const uint8_t key[16], uint32_t count, uint8_t bearer, uint8_t dir, uint8_t* data, size_t n) {
    uint8_t iv[16] = {uint8_t(count >> 24), uint8_t(count >> 16), uint8_t(count >> 8), uint8_t(count),
                      uint8_t(bearer << 3 | dir << 2)};
    EVP_CIPHER_CTX* c = EVP_CIPHER_CTX_new();
    int outl = 0;
    EVP_EncryptInit_ex(c, EVP_aes_128_ctr(), nullptr, key, iv);
    EVP_EncryptUpdate(c, data, &outl, data, int(n));
    EVP_CIPHER_CTX_free(c);
}

inline std::array<uint8_t, 4> aesCmac(const uint8_t key[16], uint32_t count, uint8_t bearer, uint8_t dir,
                                      const uint8_t* m, size_t n) {
    Bytes in = {uint8_t(count >> 24), uint8_t(count >> 16), uint8_t(count >> 8), uint8_t(count),
                uint8_t(bearer << 3 | dir << 2), 0, 0, 0};
    in.insert(in.end(), m, m + n);
    EVP_MAC* mac = EVP_MAC_fetch(nullptr, "CMAC", nullptr);
    EVP_MAC_CTX* ctx = EVP_MAC_CTX_new(mac);
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string("cipher", const_cast<char*>("AES-128-CBC"), 0),
                           OSSL_PARAM_construct_end()};
    uint8_t out[16];
    size_t outl = 0;
    EVP_MAC_init(ctx, key, 16, params);
    EVP_MAC_update(ctx, in.data(), in.size());
    EVP_MAC_final(ctx, out, &outl, sizeof out);
    EVP_MAC_CTX_free(ctx);
    EVP_MAC_free(mac);
    return {out[0], out[1], out[2], out[3]};
}

// One AMF's security context for a UE. Algorithms 2 come from OpenSSL here; 1 and 3 from
// the library's primitives, which its own tests hold to the published vectors.
struct Network {
    uint8_t nia = 2, nea = 2, access = 1;
    uint8_t kint[16] = {}, kenc[16] = {};
    uint32_t dlCount = 0;
    uint32_t ulCount = 0;  // the next uplink COUNT the network expects

    std::array<uint8_t, 4> mac(uint32_t count, uint8_t dir, const uint8_t* m, size_t n) const {
        if (nia == 2) return aesCmac(kint, count, access, dir, m, n);
        std::array<uint8_t, 4> out{};
        EXPECT_EQ(__mv_algo__nia(nia, std::span<const uint8_t, 16>(kint, 16), count, access, dir, {m, n}, n * 8, out), 0);
        return out;
    }
    void cipher(uint32_t count, uint8_t dir, uint8_t* d, size_t n) const {
        if (nea == 2) return aesCtr(kenc, count, access, dir, d, n);
        EXPECT_EQ(__mv_algo__nea(nea, std::span<const uint8_t, 16>(kenc, 16), count, access, dir, {d, n}, n * 8), 0);
    }
    // A downlink message under this context, type 2 (or 3, never ciphered).
    Bytes protect(const Bytes& plain, uint8_t sht = 2) {
        Bytes b(7 + plain.size());
        b[0] = 0x7E;
        b[1] = sht;
        b[6] = uint8_t(dlCount);
        if (!plain.empty()) memcpy(b.data() + 7, plain.data(), plain.size());
        if (sht == 2) cipher(dlCount, 1, b.data() + 7, plain.size());
        auto m = mac(dlCount, 1, b.data() + 6, b.size() - 6);
        memcpy(b.data() + 2, m.data(), 4);
        ++dlCount;
        return b;
    }
    // An uplink message: checks the MAC at the COUNT rebuilt from the sequence number and
    // gives the plain message, or fails the test.
    bool open(const Bytes& in, Bytes& plain, uint8_t& sht) {
        if (in.size() < 8 || in[0] != 0x7E) return false;
        sht = in[1];
        uint32_t overflow = ulCount >> 8;
        if (in[6] < (ulCount & 0xFF)) ++overflow;
        uint32_t count = overflow << 8 | in[6];
        auto m = mac(count, 0, in.data() + 6, in.size() - 6);
        if (memcmp(m.data(), in.data() + 2, 4) != 0) return false;
        plain.assign(in.begin() + 7, in.end());
        cipher(count, 0, plain.data(), plain.size());
        ulCount = count + 1;
        return true;
    }
};

// Gives the UE's access the network's context as a security mode command would leave it.
inline void shareContext(MV_KsUE* ue, uint8_t bearer, const Network& n) {
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    memcpy(c->knas_int, n.kint, 16);
    memcpy(c->knas_enc, n.kenc, 16);
    c->selected_integrity_algo = n.nia;
    c->selected_ciphering_algo = n.nea;
    c->security_context_available = 1;
    c->ul_count = n.ulCount;
    c->ul_seq = uint8_t(n.ulCount);
    c->dl_count = n.dlCount;
    c->dl_seq = uint8_t(n.dlCount);
}

inline Network randomNetwork(std::mt19937& rng, uint8_t nia, uint8_t nea, uint8_t access = 1) {
    Network n;
    n.nia = nia;
    n.nea = nea;
    n.access = access;
    for (auto& x : n.kint) x = uint8_t(rng());
    for (auto& x : n.kenc) x = uint8_t(rng());
    return n;
}

// Protects a plain message through the coding context, as a sender does.
inline int protectUplink(MV_KsUE* ue, const Bytes& plain, Bytes& out, uint8_t bearer = 1) {
    __mv_asn_coding_context ctx{};
    memcpy(ctx.buffer, plain.data(), plain.size());
    ctx.pos = uint16_t(plain.size());
    int r = KsNAS__encapulate_security_header(ue, &ctx, bearer);
    out.assign(ctx.buffer, ctx.buffer + ctx.pos);
    return r;
}

// Unwraps a received message; the decode is freed with the result.
struct Received {
    Bytes msg;  // deciphered in place
    __naspduDecode d{};
    int rc = 0;
    ~Received() { __mv_naspdu_freeNASPduDecode(&d); }
    // The octets the decoder was given.
    Bytes decoded() const { return d.buffer ? Bytes(d.buffer, d.buffer + d.length) : Bytes(); }
};
inline void receive(MV_KsUE* ue, const Bytes& msg, Received& r, uint8_t bearer = 1) {
    r.msg = msg;
    r.rc = KsNAS__process_security_header(ue, r.msg.data(), uint32_t(r.msg.size()), bearer, 4, &r.d);
}

}  // namespace nst
