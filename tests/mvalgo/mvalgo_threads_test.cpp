// The library from several threads at once, from the first call on (no explicit
// initialisation): each thread must get exactly what one thread alone gets.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>
#include <vector>

#include "mvalgo.h"
#include "mvalgo_testutil.h"

using namespace mvt;

namespace {

struct Work {
    std::array<uint8_t, 16> k, opc, rand, key;
    std::array<uint8_t, 2> amf = {0x80, 0x00};
    uint64_t sqn;
    Bytes msg;
    std::array<uint8_t, 32> hnPriv, ephPriv;
};

// Everything one authentication and one protected message cost, folded into bytes.
Bytes runOnce(const Work& w) {
    Bytes out;
    MV_AlgoVector vec;
    if (__mv_algo__milenage_generate(w.k, w.opc, w.rand, w.sqn, w.amf, vec) != 0) return {};
    uint8_t resStar[16], auts[14], kausf[32], knasInt[16], knasEnc[16];
    uint64_t sqnAmf = 0;
    int st = __mv_algo__ue_authenticate2(w.k.data(), w.opc.data(), uint32_t(w.sqn), "5G:mnc001.mcc001.3gppnetwork.org",
                                         w.rand.data(), vec.autn, resStar, auts, kausf, 1, &sqnAmf);
    if (st != 0 || __mv_algo__ue_setup_security_context2(nullptr, nullptr, kausf, "5G:mnc001.mcc001.3gppnetwork.org",
                                                         "imsi-001010000000001", 1, 2, 1, knasInt, knasEnc) != 0)
        return {};
    out.insert(out.end(), resStar, resStar + 16);
    out.insert(out.end(), knasInt, knasInt + 16);
    for (uint8_t algo = 1; algo <= 3; ++algo) {
        Bytes data = w.msg;
        uint8_t mac[4];
        if (__mv_algo__nas_encrypt(algo, w.key.data(), 5, 1, 0, data.data(), uint32_t(data.size())) != 0 ||
            __mv_algo__nas_mac_calculate(algo, w.key.data(), 5, 1, 0, data.data(), uint32_t(data.size()), mac) != 0)
            return {};
        out.insert(out.end(), data.begin(), data.end());
        out.insert(out.end(), mac, mac + 4);
    }
    uint8_t hnPub[32], suci[256];
    int n = 0;
    if (__mv_algo__suci_public_key(MV_ALGO_SUCI_PROFILE_A, w.hnPriv, hnPub) != 32 ||
        (n = __mv_algo__suci_conceal(MV_ALGO_SUCI_PROFILE_A, hnPub, w.msg, w.ephPriv, suci)) <= 0)
        return {};
    out.insert(out.end(), suci, suci + n);
    return out;
}

TEST(MvalgoThreads, ConcurrentCallersGetWhatOneCallerGets) {
    constexpr int kThreads = 4, kPerThread = 150;
    Rng rng(9);
    std::vector<Work> work(kThreads * kPerThread);
    for (auto& w : work) w = {rng.arr<16>(), rng.arr<16>(), rng.arr<16>(), rng.arr<16>(), {0x80, 0x00},
                              rng.below(uint64_t(1) << 40), rng.bytes(1 + rng.below(120)), rng.arr<32>(), rng.arr<32>()};
    std::vector<Bytes> got(work.size());
    std::atomic<int> go{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            while (!go.load()) std::this_thread::yield();
            for (int i = 0; i < kPerThread; ++i) got[size_t(t * kPerThread + i)] = runOnce(work[size_t(t * kPerThread + i)]);
        });
    go = 1;
    for (auto& th : threads) th.join();
    for (size_t i = 0; i < work.size(); ++i) {
        Bytes alone = runOnce(work[i]);
        ASSERT_FALSE(alone.empty());
        ASSERT_EQ(toHex(got[i]), toHex(alone)) << "work " << i;
    }
}

}  // namespace
