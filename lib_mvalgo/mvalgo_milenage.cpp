// Milenage (f1, f1*, f2 to f5, f5*) with the standard constants r1..r5 and c1..c5.
#include "mvalgo_milenage.h"

#include "mvalgo_internal.h"
#include "mvalgo_prim.h"

using namespace mvalgo_detail;

namespace {

// OUTn = E_K(rot(X xor OPc, r) xor c) xor OPc, with r in whole bytes and c a 1-bit
// constant in the last byte (c1 = 0).
bool milenageOut(AesBlock& aes, const uint8_t opc[16], const uint8_t x[16], unsigned rBytes, uint8_t c,
                 uint8_t out[16]) {
    uint8_t in[16];
    for (unsigned i = 0; i < 16; ++i) in[i] = x[(i + rBytes) % 16] ^ opc[(i + rBytes) % 16];
    in[15] ^= c;
    if (!aes.encrypt(in, out)) return false;
    for (unsigned i = 0; i < 16; ++i) out[i] ^= opc[i];
    return true;
}

}  // namespace

MV_Milenage::MV_Milenage(const uint8_t k[16], const uint8_t opc[16], const uint8_t rand[16]) : aes_(k) {
    memcpy(opc_, opc, 16);
    uint8_t in[16];
    for (int i = 0; i < 16; ++i) in[i] = rand[i] ^ opc[i];
    ok_ = aes_.encrypt(in, temp_);
}

bool MV_Milenage::f1(const uint8_t sqn[6], const uint8_t amf[2], uint8_t macA[8], uint8_t macS[8]) {
    if (!ok_) return false;
    // TEMP xor rot(IN1 xor OPc, r1) xor c1 with IN1 = SQN || AMF || SQN || AMF, r1 = 64.
    uint8_t in1[16], rot[16], out[16];
    memcpy(in1, sqn, 6);
    memcpy(in1 + 6, amf, 2);
    memcpy(in1 + 8, sqn, 6);
    memcpy(in1 + 14, amf, 2);
    for (int i = 0; i < 16; ++i) rot[(i + 8) % 16] = in1[i] ^ opc_[i];
    for (int i = 0; i < 16; ++i) rot[i] ^= temp_[i];
    if (!aes_.encrypt(rot, out)) return false;
    for (int i = 0; i < 16; ++i) out[i] ^= opc_[i];
    if (macA) memcpy(macA, out, 8);
    if (macS) memcpy(macS, out + 8, 8);
    return true;
}

bool MV_Milenage::f2f5(uint8_t res[8], uint8_t ak[6]) {
    uint8_t out[16];
    if (!ok_ || !milenageOut(aes_, opc_, temp_, 0, 1, out)) return false;
    if (ak) memcpy(ak, out, 6);
    if (res) memcpy(res, out + 8, 8);
    return true;
}

bool MV_Milenage::f3(uint8_t ck[16]) { return ok_ && milenageOut(aes_, opc_, temp_, 4, 2, ck); }

bool MV_Milenage::f4(uint8_t ik[16]) { return ok_ && milenageOut(aes_, opc_, temp_, 8, 4, ik); }

bool MV_Milenage::f5star(uint8_t akStar[6]) {
    uint8_t out[16];
    if (!ok_ || !milenageOut(aes_, opc_, temp_, 12, 8, out)) return false;
    memcpy(akStar, out, 6);
    return true;
}

int __mv_algo__milenage_opc(std::span<const uint8_t, 16> k, std::span<const uint8_t, 16> op,
                            std::span<uint8_t, 16> opc) {
    AesBlock aes(k.data());
    uint8_t e[16];
    if (!aes.encrypt(op.data(), e)) return MV_ALGO_ERR_CRYPTO;
    for (int i = 0; i < 16; ++i) opc[i] = e[i] ^ op[i];
    return 0;
}

int __mv_algo__milenage_f1(std::span<const uint8_t, 16> k, std::span<const uint8_t, 16> opc,
                           std::span<const uint8_t, 16> rand, std::span<const uint8_t, 6> sqn,
                           std::span<const uint8_t, 2> amf, std::span<uint8_t> macA, std::span<uint8_t> macS) {
    if ((!macA.empty() && macA.size() != 8) || (!macS.empty() && macS.size() != 8)) return MV_ALGO_ERR_ARG;
    MV_Milenage m(k.data(), opc.data(), rand.data());
    if (!m.f1(sqn.data(), amf.data(), macA.empty() ? nullptr : macA.data(), macS.empty() ? nullptr : macS.data()))
        return MV_ALGO_ERR_CRYPTO;
    return 0;
}

int __mv_algo__milenage_f2345(std::span<const uint8_t, 16> k, std::span<const uint8_t, 16> opc,
                              std::span<const uint8_t, 16> rand, std::span<uint8_t> res, std::span<uint8_t> ck,
                              std::span<uint8_t> ik, std::span<uint8_t> ak, std::span<uint8_t> akStar) {
    auto wanted = [](std::span<uint8_t> o, size_t n) { return o.empty() || o.size() == n; };
    if (!wanted(res, 8) || !wanted(ck, 16) || !wanted(ik, 16) || !wanted(ak, 6) || !wanted(akStar, 6))
        return MV_ALGO_ERR_ARG;
    MV_Milenage m(k.data(), opc.data(), rand.data());
    bool ok = m.f2f5(res.empty() ? nullptr : res.data(), ak.empty() ? nullptr : ak.data());
    if (ok && !ck.empty()) ok = m.f3(ck.data());
    if (ok && !ik.empty()) ok = m.f4(ik.data());
    if (ok && !akStar.empty()) ok = m.f5star(akStar.data());
    return ok ? 0 : MV_ALGO_ERR_CRYPTO;
}

int __mv_algo__milenage_generate(std::span<const uint8_t, 16> k, std::span<const uint8_t, 16> opc,
                                 std::span<const uint8_t, 16> rand, uint64_t sqn, std::span<const uint8_t, 2> amf,
                                 MV_AlgoVector& out) {
    MV_Milenage m(k.data(), opc.data(), rand.data());
    uint8_t sqnBytes[6];
    store48(sqnBytes, sqn);
    if (!m.f2f5(out.xres, out.ak) || !m.f3(out.ck) || !m.f4(out.ik) || !m.f1(sqnBytes, amf.data(), out.autn + 8, nullptr))
        return MV_ALGO_ERR_CRYPTO;
    for (int i = 0; i < 6; ++i) out.autn[i] = sqnBytes[i] ^ out.ak[i];
    memcpy(out.autn + 6, amf.data(), 2);
    return 0;
}

int __mv_algo__auts_build(std::span<const uint8_t, 16> k, std::span<const uint8_t, 16> opc,
                          std::span<const uint8_t, 16> rand, uint64_t sqnMs, std::span<uint8_t, 14> auts) {
    MV_Milenage m(k.data(), opc.data(), rand.data());
    return MV_Milenage::buildAuts(m, sqnMs, auts.data()) == 0 ? 0 : MV_ALGO_ERR_CRYPTO;
}

int MV_Milenage::buildAuts(MV_Milenage& m, uint64_t sqnMs, uint8_t auts[14]) {
    static constexpr uint8_t kResyncAmf[2] = {0, 0};
    uint8_t akStar[6], sqnBytes[6];
    store48(sqnBytes, sqnMs);
    if (!m.f5star(akStar)) return -2;
    if (!m.f1(sqnBytes, kResyncAmf, nullptr, auts + 6)) return -5;
    for (int i = 0; i < 6; ++i) auts[i] = sqnBytes[i] ^ akStar[i];
    return 0;
}

int __mv_algo__auts_recover(std::span<const uint8_t, 16> k, std::span<const uint8_t, 16> opc,
                            std::span<const uint8_t, 16> rand, std::span<const uint8_t, 14> auts, uint64_t& sqnMs) {
    static constexpr uint8_t kResyncAmf[2] = {0, 0};
    MV_Milenage m(k.data(), opc.data(), rand.data());
    uint8_t akStar[6], sqnBytes[6], macS[8];
    if (!m.f5star(akStar)) return MV_ALGO_ERR_CRYPTO;
    for (int i = 0; i < 6; ++i) sqnBytes[i] = auts[i] ^ akStar[i];
    if (!m.f1(sqnBytes, kResyncAmf, nullptr, macS)) return MV_ALGO_ERR_CRYPTO;
    if (memcmp(macS, auts.data() + 6, 8) != 0) return MV_ALGO_ERR_MAC;
    sqnMs = load48(sqnBytes);
    return 0;
}
