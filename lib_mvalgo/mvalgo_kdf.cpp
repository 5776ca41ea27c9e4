// The generic KDF and the 5G and EPS key chains built on it.
#include <array>

#include "mvalgo_internal.h"
#include "mvalgo_prim.h"

using namespace mvalgo_detail;

namespace {

constexpr uint8_t FC_KAUSF = 0x6A;
constexpr uint8_t FC_RES_STAR = 0x6B;
constexpr uint8_t FC_KSEAF = 0x6C;
constexpr uint8_t FC_KAMF = 0x6D;
constexpr uint8_t FC_ALGO_KEY_5G = 0x69;
constexpr uint8_t FC_KASME = 0x10;
constexpr uint8_t FC_ALGO_KEY_EPS = 0x15;

std::span<const uint8_t> bytes(std::string_view s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

int kdfWith(std::span<const uint8_t> key, uint8_t fc, std::initializer_list<std::span<const uint8_t>> params,
            std::span<uint8_t, 32> out) {
    return __mv_algo__kdf(key, fc, std::span<const std::span<const uint8_t>>(params.begin(), params.size()), out);
}

// CK || IK as the key of the AKA derivations.
std::array<uint8_t, 32> ckik(std::span<const uint8_t, 16> ck, std::span<const uint8_t, 16> ik) {
    std::array<uint8_t, 32> k;
    memcpy(k.data(), ck.data(), 16);
    memcpy(k.data() + 16, ik.data(), 16);
    return k;
}

int low128(int status, const uint8_t full[32], std::span<uint8_t, 16> out) {
    if (status == 0) memcpy(out.data(), full + 16, 16);
    return status;
}

}  // namespace

int __mv_algo__kdf(std::span<const uint8_t> key, uint8_t fc, std::span<const std::span<const uint8_t>> params,
                   std::span<uint8_t, 32> out) {
    if (params.size() > 8) return MV_ALGO_ERR_ARG;
    for (auto p : params)
        if (p.size() > 0xFFFF) return MV_ALGO_ERR_ARG;
    HmacSha256 mac(key);
    bool ok = mac.update({&fc, 1});
    for (auto p : params) {
        const uint8_t len[2] = {uint8_t(p.size() >> 8), uint8_t(p.size())};
        ok = ok && mac.update(p) && mac.update(len);
    }
    return ok && mac.final(out.data()) ? 0 : MV_ALGO_ERR_CRYPTO;
}

int __mv_algo__kausf(std::span<const uint8_t, 16> ck, std::span<const uint8_t, 16> ik, std::string_view snn,
                     std::span<const uint8_t, 6> sqnXorAk, std::span<uint8_t, 32> kausf) {
    auto key = ckik(ck, ik);
    return kdfWith(key, FC_KAUSF, {bytes(snn), sqnXorAk}, kausf);
}

int __mv_algo__res_star(std::span<const uint8_t, 16> ck, std::span<const uint8_t, 16> ik, std::string_view snn,
                        std::span<const uint8_t, 16> rand, std::span<const uint8_t> res,
                        std::span<uint8_t, 16> resStar) {
    auto key = ckik(ck, ik);
    uint8_t full[32];
    return low128(kdfWith(key, FC_RES_STAR, {bytes(snn), rand, res}, full), full, resStar);
}

int __mv_algo__hxres_star(std::span<const uint8_t, 16> rand, std::span<const uint8_t, 16> resStar,
                          std::span<uint8_t, 16> hxresStar) {
    uint8_t in[32], full[32];
    memcpy(in, rand.data(), 16);
    memcpy(in + 16, resStar.data(), 16);
    return low128(sha256(in, full) ? 0 : MV_ALGO_ERR_CRYPTO, full, hxresStar);
}

int __mv_algo__kseaf(std::span<const uint8_t, 32> kausf, std::string_view snn, std::span<uint8_t, 32> kseaf) {
    return kdfWith(kausf, FC_KSEAF, {bytes(snn)}, kseaf);
}

int __mv_algo__kamf(std::span<const uint8_t, 32> kseaf, std::string_view supi, std::span<const uint8_t, 2> abba,
                    std::span<uint8_t, 32> kamf) {
    return kdfWith(kseaf, FC_KAMF, {bytes(supi), abba}, kamf);
}

int __mv_algo__knas_5g(std::span<const uint8_t, 32> kamf, uint8_t type, uint8_t algo, std::span<uint8_t, 16> key) {
    uint8_t full[32];
    return low128(kdfWith(kamf, FC_ALGO_KEY_5G, {{&type, 1}, {&algo, 1}}, full), full, key);
}

int __mv_algo__kasme(std::span<const uint8_t, 16> ck, std::span<const uint8_t, 16> ik,
                     std::span<const uint8_t, 3> plmn, std::span<const uint8_t, 6> sqnXorAk,
                     std::span<uint8_t, 32> kasme) {
    auto key = ckik(ck, ik);
    return kdfWith(key, FC_KASME, {plmn, sqnXorAk}, kasme);
}

int __mv_algo__knas_eps(std::span<const uint8_t, 32> kasme, uint8_t type, uint8_t algo, std::span<uint8_t, 16> key) {
    uint8_t full[32];
    return low128(kdfWith(kasme, FC_ALGO_KEY_EPS, {{&type, 1}, {&algo, 1}}, full), full, key);
}
