// The UE side of 5G AKA and EPS AKA, the key derivations the engine asks for, and
// the library's start-up check.
#include <strings.h>

#include "mv_core.h"
#include "mvalgo.h"
#include "mvalgo_internal.h"
#include "mvalgo_milenage.h"

using namespace mvalgo_detail;

namespace {

constexpr uint64_t kSqnMask = (uint64_t(1) << 48) - 1;
constexpr size_t kMaxSnn = 255;

int failedAt(int status, const char* text, const char* func, int line) {
    __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_ERROR, "%s <%s|%s|%d>", text, __FILE_NAME__, func, line);
    return status;
}
#define MV_ALGO_FAILED(status, text) failedAt(status, text, __func__, __LINE__)

// The freshness rule of mvalgo.h. x48 is the caller's counter completed with the
// network's high bits.
bool fresh(uint64_t sqnNet, uint32_t sqn, int handleSqnSync, uint64_t& x48) {
    int32_t d = int32_t(uint32_t(sqnNet) - sqn);
    x48 = (sqnNet - uint64_t(int64_t(d))) & kSqnMask;
    if (d > int32_t(MV_ALGO_SQN_DELTA)) return false;
    int32_t lowest = handleSqnSync ? -int32_t(x48 % MV_ALGO_SQN_STEP) : 0;
    return d >= lowest;
}

// Verifies AUTN; on 0 res, ck and ik hold RES, CK and IK; on -4 auts is filled.
int verifyAutn(MV_Milenage& m, const uint8_t autn[16], uint32_t sqn, int handleSqnSync, uint8_t res[8], uint8_t ck[16],
               uint8_t ik[16], uint8_t* auts, uint64_t* sqnAmf) {
    uint8_t ak[6], sqnNet[6], xmac[8];
    if (!m.f2f5(res, ak)) return MV_ALGO_FAILED(MV_ALGO_AUTH_F2345_FAILED, "milenage_f2345-1 failed");
    for (int i = 0; i < 6; ++i) sqnNet[i] = autn[i] ^ ak[i];
    uint64_t n = load48(sqnNet);
    *sqnAmf = n;
    if (!m.f1(sqnNet, autn + 6, xmac, nullptr)) return MV_ALGO_FAILED(MV_ALGO_AUTH_F1_FAILED, "milenage_f1-1 failed");
    if (memcmp(xmac, autn + 8, 8) != 0) return MV_ALGO_FAILED(MV_ALGO_AUTH_MAC_MISMATCH, "autn mismatch");
    uint64_t x48 = 0;
    if (!fresh(n, sqn, handleSqnSync, x48)) {
        if (!auts) return MV_ALGO_AUTH_SQN_OUT_OF_RANGE;
        int st = MV_Milenage::buildAuts(m, (x48 + MV_ALGO_SQN_MS_AHEAD) & kSqnMask, auts);
        if (st == -2) return MV_ALGO_FAILED(MV_ALGO_AUTH_F5STAR_FAILED, "milenage_f2345-2 failed");
        if (st == -5) return MV_ALGO_FAILED(MV_ALGO_AUTH_F1STAR_FAILED, "milenage_f1-2 failed");
        return MV_ALGO_AUTH_SQN_OUT_OF_RANGE;
    }
    if ((ck && !m.f3(ck)) || (ik && !m.f4(ik))) return MV_ALGO_FAILED(MV_ALGO_AUTH_F2345_FAILED, "milenage_f2345-1 failed");
    return MV_ALGO_AUTH_OK;
}

bool textLen(const char* s, size_t& n) {
    if (!s) return false;
    n = strnlen(s, kMaxSnn + 1);
    return n <= kMaxSnn;
}

// The SUPI as the KAMF derivation takes it: the IMSI digits or the NAI.
std::string_view supiValue(const char* supi) {
    std::string_view s(supi, strnlen(supi, 256));
    if (s.size() >= 5 && strncasecmp(supi, "imsi-", 5) == 0) return s.substr(5);
    if (s.size() >= 4 && strncasecmp(supi, "nai-", 4) == 0) return s.substr(4);
    return s;
}

template <size_t N>
std::span<const uint8_t, N> in(const uint8_t* p) {
    return std::span<const uint8_t, N>(p, N);
}
template <size_t N>
std::span<uint8_t, N> out(uint8_t* p) {
    return std::span<uint8_t, N>(p, N);
}

}  // namespace

int __mv_algo__ue_authenticate2(const uint8_t* K, const uint8_t* OPc, uint32_t sqn, const char* snn,
                                const uint8_t* rand, const uint8_t* autn, uint8_t* xres_star, uint8_t* auts,
                                uint8_t* kausf, int handleSqnSync, uint64_t* sqnAmf) {
    size_t snnLen = 0;
    if (!K || !OPc || !rand || !autn || !xres_star || !auts || !kausf || !sqnAmf || !textLen(snn, snnLen))
        return MV_ALGO_ERR_ARG;
    MV_Milenage m(K, OPc, rand);
    uint8_t res[8], ck[16], ik[16];
    int st = verifyAutn(m, autn, sqn, handleSqnSync, res, ck, ik, auts, sqnAmf);
    if (st != MV_ALGO_AUTH_OK) return st;
    std::string_view name(snn, snnLen);
    if (__mv_algo__res_star(ck, ik, name, in<16>(rand), res, out<16>(xres_star)) != 0 ||
        __mv_algo__kausf(ck, ik, name, in<6>(autn), out<32>(kausf)) != 0)
        return MV_ALGO_FAILED(MV_ALGO_AUTH_F2345_FAILED, "milenage_f2345-1 failed");
    return MV_ALGO_AUTH_OK;
}

int __mv_algo__ue_setup_security_context2(const uint8_t*, const uint8_t*, const uint8_t* kausf, const char* snn,
                                          const char* supi, uint8_t, uint8_t intAlgo, uint8_t encAlgo,
                                          uint8_t* knasInt, uint8_t* knasEnc) {
    size_t snnLen = 0;
    if (!kausf || !supi || !knasInt || !knasEnc || !textLen(snn, snnLen)) return MV_ALGO_ERR_ARG;
    static constexpr uint8_t kAbba[2] = {0, 0};
    uint8_t kseaf[32], kamf[32];
    int st = __mv_algo__kseaf(in<32>(kausf), {snn, snnLen}, kseaf);
    if (st == 0) st = __mv_algo__kamf(kseaf, supiValue(supi), kAbba, kamf);
    if (st == 0) st = __mv_algo__knas_5g(kamf, MV_ALGO_KEY_NAS_INT, intAlgo, out<16>(knasInt));
    if (st == 0) st = __mv_algo__knas_5g(kamf, MV_ALGO_KEY_NAS_ENC, encAlgo, out<16>(knasEnc));
    return st;
}

int __mv_algo__ue_authenticate_lte(const uint8_t* K, const uint8_t* OPc, uint32_t sqn, const uint8_t*,
                                   const uint8_t* rand, const uint8_t* autn, uint8_t* auts, uint8_t* res,
                                   int handleSqnSync, uint64_t* sqnAmf) {
    if (!K || !OPc || !rand || !autn || !auts || !res || !sqnAmf) return MV_ALGO_ERR_ARG;
    MV_Milenage m(K, OPc, rand);
    return verifyAutn(m, autn, sqn, handleSqnSync, res, nullptr, nullptr, auts, sqnAmf);
}

int __mv_algo__lte__gen_kasme(const uint8_t* K, const uint8_t* OPc, const uint8_t* rand, const uint8_t* autn,
                              const uint8_t* plmn, uint8_t* kasme) {
    if (!K || !OPc || !rand || !autn || !plmn || !kasme) return MV_ALGO_ERR_ARG;
    MV_Milenage m(K, OPc, rand);
    uint8_t ck[16], ik[16];
    if (!m.f3(ck) || !m.f4(ik)) return MV_ALGO_FAILED(MV_ALGO_AUTH_F2345_FAILED, "milenage_f2345-1 failed");
    return __mv_algo__kasme(ck, ik, in<3>(plmn), in<6>(autn), out<32>(kasme));
}

int ogs_kdf_nas_eps(uint8_t type, uint8_t algo, const uint8_t* kasme, uint8_t* key) {
    if (!kasme || !key) return MV_ALGO_ERR_ARG;
    return __mv_algo__knas_eps(in<32>(kasme), type, algo, out<16>(key));
}

int __mv_ogs_init_crypto_fun() {
    // Milenage test set 1 and the KAUSF it gives: proves AES, HMAC and SHA-256 are there.
    static constexpr uint8_t k[16] = {0x46, 0x5b, 0x5c, 0xe8, 0xb1, 0x99, 0xb4, 0x9f,
                                      0xaa, 0x5f, 0x0a, 0x2e, 0xe2, 0x38, 0xa6, 0xbc};
    static constexpr uint8_t opc[16] = {0xcd, 0x63, 0xcb, 0x71, 0x95, 0x4a, 0x9f, 0x4e,
                                        0x48, 0xa5, 0x99, 0x4e, 0x37, 0xa0, 0x2b, 0xaf};
    static constexpr uint8_t rand[16] = {0x23, 0x55, 0x3c, 0xbe, 0x96, 0x37, 0xa8, 0x9d,
                                         0x21, 0x8a, 0xe6, 0x4d, 0xae, 0x47, 0xbf, 0x35};
    static constexpr uint8_t sqn[6] = {0xff, 0x9b, 0xb4, 0xd0, 0xb6, 0x07};
    static constexpr uint8_t amf[2] = {0xb9, 0xb9};
    static constexpr uint8_t macA[8] = {0x4a, 0x9f, 0xfa, 0xc3, 0x54, 0xdf, 0xaf, 0xb3};
    static constexpr uint8_t kausfHead[4] = {0x47, 0x46, 0x98, 0xca};

    bool ok = algos().ok;
    MV_Milenage m(k, opc, rand);
    uint8_t mac[8], ak[6], ck[16], ik[16], sqnXorAk[6], kausf[32];
    ok = ok && m.f1(sqn, amf, mac, nullptr) && memcmp(mac, macA, 8) == 0 && m.f2f5(nullptr, ak) && m.f3(ck) &&
         m.f4(ik);
    for (int i = 0; i < 6; ++i) sqnXorAk[i] = sqn[i] ^ ak[i];
    ok = ok && __mv_algo__kausf(ck, ik, "5G:mnc001.mcc001.3gppnetwork.org", sqnXorAk, kausf) == 0 &&
         memcmp(kausf, kausfHead, 4) == 0;
    if (!ok) return MV_ALGO_FAILED(MV_ALGO_ERR_CRYPTO, "libmvalgo self-test failed, OpenSSL lacks AES, HMAC or SHA-256");
    __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_INFO, "libmvalgo ready <%s|%s|%d>", __FILE_NAME__, __func__, __LINE__);
    return 0;
}
