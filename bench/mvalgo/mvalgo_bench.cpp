// The library's hot paths: a 5G authentication with every key the UE derives, an EPS
// one, and each NAS algorithm over a 100-octet message (the size of a typical
// registration exchange), with a 1500-octet point for throughput.
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>

#include "mvalgo.h"

namespace {

constexpr char kSnn[] = "5G:mnc001.mcc001.3gppnetwork.org";

struct Subscriber {
    std::array<uint8_t, 16> k{}, opc{}, rand{};
    std::array<uint8_t, 2> amf = {0x80, 0x00};
    MV_AlgoVector vec{};
    uint64_t sqn = 0x12340;
    Subscriber() {
        for (int i = 0; i < 16; ++i) {
            k[i] = uint8_t(i * 7 + 1);
            opc[i] = uint8_t(i * 13 + 5);
            rand[i] = uint8_t(i * 29 + 3);
        }
        if (__mv_algo__milenage_generate(k, opc, rand, sqn, amf, vec) != 0) abort();
    }
};

// What the UE computes for one 5G registration: AUTN check, RES*, KAUSF, then KSEAF,
// KAMF, KNASint and KNASenc at the security mode command.
void BM_5gAuthenticationWithKeys(benchmark::State& state) {
    Subscriber s;
    uint8_t resStar[16], auts[14], kausf[32], knasInt[16], knasEnc[16];
    uint64_t sqnAmf = 0;
    for (auto _ : state) {
        int st = __mv_algo__ue_authenticate2(s.k.data(), s.opc.data(), uint32_t(s.sqn), kSnn, s.rand.data(),
                                             s.vec.autn, resStar, auts, kausf, 1, &sqnAmf);
        st |= __mv_algo__ue_setup_security_context2(s.rand.data(), resStar, kausf, kSnn, "imsi-001010000000001", 1, 2,
                                                    2, knasInt, knasEnc);
        if (st != 0) state.SkipWithError("authentication failed");
        benchmark::DoNotOptimize(knasEnc);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_5gAuthenticationWithKeys);

// The EPS counterpart: AUTN check and RES, KASME, both NAS keys.
void BM_EpsAuthenticationWithKeys(benchmark::State& state) {
    Subscriber s;
    uint8_t res[8], auts[14], kasme[32], knasInt[16], knasEnc[16], plmn[3] = {0x00, 0xf1, 0x10};
    uint64_t sqnAmf = 0;
    for (auto _ : state) {
        int st = __mv_algo__ue_authenticate_lte(s.k.data(), s.opc.data(), uint32_t(s.sqn), plmn, s.rand.data(),
                                                s.vec.autn, auts, res, 0, &sqnAmf);
        st |= __mv_algo__lte__gen_kasme(s.k.data(), s.opc.data(), s.rand.data(), s.vec.autn, plmn, kasme);
        st |= ogs_kdf_nas_eps(2, 2, kasme, knasInt) | ogs_kdf_nas_eps(1, 2, kasme, knasEnc);
        if (st != 0) state.SkipWithError("authentication failed");
        benchmark::DoNotOptimize(knasEnc);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EpsAuthenticationWithKeys);

void BM_Nea(benchmark::State& state) {
    uint8_t key[16] = {0x2b, 0xd6, 0x45, 0x9f, 0x82, 0xc5, 0xb3, 0x00, 0x95, 0x2c, 0x49, 0x10, 0x48, 0x81, 0xff, 0x48};
    std::vector<uint8_t> msg(size_t(state.range(1)), 0x5a);
    uint32_t count = 0;
    for (auto _ : state) {
        if (__mv_algo__nas_encrypt(uint8_t(state.range(0)), key, count++, 1, 0, msg.data(), uint32_t(msg.size())) != 0)
            state.SkipWithError("encrypt failed");
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(1));
}
BENCHMARK(BM_Nea)->ArgNames({"algo", "bytes"})->ArgsProduct({{1, 2, 3}, {100, 1500}});

void BM_Nia(benchmark::State& state) {
    uint8_t key[16] = {0x2b, 0xd6, 0x45, 0x9f, 0x82, 0xc5, 0xb3, 0x00, 0x95, 0x2c, 0x49, 0x10, 0x48, 0x81, 0xff, 0x48};
    std::vector<uint8_t> msg(size_t(state.range(1)), 0x5a);
    uint8_t mac[4];
    uint32_t count = 0;
    for (auto _ : state) {
        if (__mv_algo__nas_mac_calculate(uint8_t(state.range(0)), key, count++, 1, 0, msg.data(), uint32_t(msg.size()),
                                         mac) != 0)
            state.SkipWithError("mac failed");
        benchmark::DoNotOptimize(mac);
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(1));
}
BENCHMARK(BM_Nia)->ArgNames({"algo", "bytes"})->ArgsProduct({{1, 2, 3}, {100, 1500}});

void BM_SuciConceal(benchmark::State& state) {
    uint8_t scheme = uint8_t(state.range(0)), priv[32], pub[33], out[64];
    for (int i = 0; i < 32; ++i) priv[i] = uint8_t(i + 1);
    int pubLen = __mv_algo__suci_public_key(scheme, priv, pub);
    const uint8_t msin[5] = {0x00, 0x01, 0x20, 0x80, 0xf6};
    for (auto _ : state) {
        if (__mv_algo__suci_conceal(scheme, {pub, size_t(pubLen)}, msin, {}, out) <= 0) state.SkipWithError("conceal");
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SuciConceal)->ArgName("profile")->Arg(1)->Arg(2);

}  // namespace

BENCHMARK_MAIN();
