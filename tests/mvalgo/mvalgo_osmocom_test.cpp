// A second implementation as the home network: libosmocore's Milenage makes the
// authentication vectors and takes the resynchronisations, its EPS key derivation
// gives KASME and the NAS keys; our UE side must agree with all of it, and a UE that
// follows the engine's SQN bookkeeping must get back in step after a failure.
#include <gtest/gtest.h>

extern "C" {
#include <osmocom/crypt/auth.h>
#include <osmocom/crypt/kdf.h>
}

#include <array>
#include <cstring>
#include <string>

#include "mvalgo.h"
#include "mvalgo_testutil.h"

using namespace mvt;

namespace {

constexpr char kSnn[] = "5G:mnc001.mcc001.3gppnetwork.org";

// One subscriber in libosmocore's home network: SQN = SEQ || IND with a 5-bit IND.
struct HomeNetwork {
    osmo_sub_auth_data aud{};
    osmo_auth_vector vec{};

    HomeNetwork(Rng& rng, uint64_t sqn, unsigned ind) {
        aud.type = OSMO_AUTH_TYPE_UMTS;
        aud.algo = OSMO_AUTH_ALG_MILENAGE;
        auto k = rng.bytes(16), opc = rng.bytes(16), amf = rng.bytes(2);
        memcpy(aud.u.umts.k, k.data(), 16);
        memcpy(aud.u.umts.opc, opc.data(), 16);
        memcpy(aud.u.umts.amf, amf.data(), 2);
        aud.u.umts.opc_is_op = 0;
        aud.u.umts.ind_bitlen = 5;
        aud.u.umts.ind = ind;
        aud.u.umts.sqn = sqn;
    }
    const uint8_t* k() const { return aud.u.umts.k; }
    const uint8_t* opc() const { return aud.u.umts.opc; }
    uint64_t sqn() const { return aud.u.umts.sqn; }  // the SQN of the last vector
    bool next(Rng& rng) {
        auto rand = rng.bytes(16);
        return osmo_auth_gen_vec(&vec, &aud, rand.data()) == 0;
    }
    // The resynchronisation with the AUTS answered to the current vector; it makes
    // the next vector at once.
    bool resync(Rng& rng, const uint8_t auts[14]) {
        auto rand = rng.bytes(16);
        uint8_t oldRand[16];
        memcpy(oldRand, vec.rand, 16);
        return osmo_auth_gen_vec_auts(&vec, &aud, auts, oldRand, rand.data()) == 0;
    }
};

TEST(MvalgoOsmocom, ThousandSubscribersEpsVectorsKeysAndResynchronisation) {
    Rng rng(20240611);
    for (int sub = 0; sub < 1000; ++sub) {
        SCOPED_TRACE("subscriber " + std::to_string(sub));
        HomeNetwork hn(rng, rng.below(uint64_t(1) << 47), unsigned(rng.below(32)));
        ASSERT_TRUE(hn.next(rng));
        uint64_t n = hn.sqn();
        auto plmn = rng.bytes(3);

        // The UE expects exactly this SQN: accepted, RES, KASME and the NAS keys agree.
        uint8_t auts[14], res[8];
        uint64_t sqnAmf = 0;
        ASSERT_EQ(__mv_algo__ue_authenticate_lte(hn.k(), hn.opc(), uint32_t(n), plmn.data(), hn.vec.rand,
                                                 hn.vec.autn, auts, res, 0, &sqnAmf),
                  0);
        ASSERT_EQ(hn.vec.res_len, 8);
        EXPECT_EQ(toHex(res, 8), toHex(hn.vec.res, 8));
        EXPECT_EQ(sqnAmf, n);

        uint8_t kasme[32], theirKasme[32], sqnBytes[6], ak[6];
        for (int i = 5; i >= 0; --i) sqnBytes[i] = uint8_t(n >> (8 * (5 - i)));
        for (int i = 0; i < 6; ++i) ak[i] = hn.vec.autn[i] ^ sqnBytes[i];
        ASSERT_EQ(__mv_algo__lte__gen_kasme(hn.k(), hn.opc(), hn.vec.rand, hn.vec.autn, plmn.data(), kasme), 0);
        osmo_kdf_kasme(hn.vec.ck, hn.vec.ik, plmn.data(), sqnBytes, ak, theirKasme);
        ASSERT_EQ(toHex(kasme, 32), toHex(theirKasme, 32));
        for (uint8_t type = 1; type <= 2; ++type)
            for (uint8_t algo = 0; algo <= 3; ++algo) {
                uint8_t ours[16], theirs[16];
                ASSERT_EQ(ogs_kdf_nas_eps(type, algo, kasme, ours), 0);
                osmo_kdf_nas(type, algo, kasme, theirs);
                EXPECT_EQ(toHex(ours, 16), toHex(theirs, 16)) << "type " << int(type) << " algo " << int(algo);
            }

        // A UE some vectors ahead refuses with an AUTS; the home network recovers our
        // SQN_MS from it, and its next vector is fresh for the 4G UE (33 after the
        // failure, 32 before the check).
        uint32_t ahead = uint32_t(n) + MV_ALGO_SQN_STEP * uint32_t(1 + rng.below(1000));
        ASSERT_EQ(__mv_algo__ue_authenticate_lte(hn.k(), hn.opc(), ahead, plmn.data(), hn.vec.rand, hn.vec.autn, auts,
                                                 res, 0, &sqnAmf),
                  MV_ALGO_AUTH_SQN_OUT_OF_RANGE);
        uint64_t expectMs = (n - uint32_t(n) + ahead + MV_ALGO_SQN_MS_AHEAD) & ((uint64_t(1) << 48) - 1);
        uint64_t ours = 0;
        ASSERT_EQ(__mv_algo__auts_recover(std::span<const uint8_t, 16>(hn.k(), 16), std::span<const uint8_t, 16>(hn.opc(), 16),
                                          std::span<const uint8_t, 16>(hn.vec.rand, 16), auts, ours),
                  0);
        EXPECT_EQ(ours, expectMs);
        ASSERT_TRUE(hn.resync(rng, auts));
        EXPECT_EQ(hn.aud.u.umts.sqn_ms, expectMs);
        EXPECT_EQ(__mv_algo__ue_authenticate_lte(hn.k(), hn.opc(), ahead + 33 + 32, plmn.data(), hn.vec.rand,
                                                 hn.vec.autn, auts, res, 0, &sqnAmf),
                  0);
        EXPECT_EQ(toHex(res, 8), toHex(hn.vec.res, 8));
    }
}

// The engine's 5G UE: its SQN and the library's status, step by step as the UE
// handles an authentication request. With recall, a UE that takes the network's SQN
// asks the library again at once (one reading of the procedure); without, it answers
// the failure it has.
struct Ue5g {
    uint64_t sqn;
    bool sqnSyncFailed = false;
    bool ownSqnOnly = false;  // SQNHandlingType 1
    bool recall = false;

    int authenticate(const HomeNetwork& hn, bool forceSyncFailure, uint8_t auts[14]) {
        uint8_t resStar[16], kausf[32];
        uint64_t sqnAmf = 0;
        int handleSqnSync = ownSqnOnly ? 0 : 1;
        auto call = [&] {
            return __mv_algo__ue_authenticate2(hn.k(), hn.opc(), uint32_t(sqn), kSnn, hn.vec.rand, hn.vec.autn, resStar,
                                               auts, kausf, handleSqnSync, &sqnAmf);
        };
        int st = call();
        if (st == 0 && forceSyncFailure && sqn == sqnAmf) {
            sqn += 32;
            handleSqnSync = 0;
            st = call();
        }
        if (st != 0 && handleSqnSync == 1 && sqnAmf != sqn) {
            sqn = sqnAmf;
            if (recall) st = call();
        }
        if (st != 0) {
            sqn += 33;
            sqnSyncFailed = true;
            return st;
        }
        sqn += sqnSyncFailed ? 64 : 32;
        sqnSyncFailed = false;
        return st;
    }
};

// The engine's 4G UE: 32 before each check, 33 more after a failure, never the
// network's SQN.
struct Ue4g {
    uint64_t sqn;
    int authenticate(const HomeNetwork& hn, uint8_t auts[14]) {
        uint8_t res[8];
        uint64_t sqnAmf = 0;
        sqn += 32;
        int st = __mv_algo__ue_authenticate_lte(hn.k(), hn.opc(), uint32_t(sqn), nullptr, hn.vec.rand, hn.vec.autn, auts,
                                                res, 0, &sqnAmf);
        if (st == MV_ALGO_AUTH_SQN_OUT_OF_RANGE) sqn += 33;
        return st;
    }
};

// Runs `rounds` authentications, the home network resynchronising on each AUTS; the
// outcomes as a string, S for success and F for a failure.
template <class Auth>
std::string run(HomeNetwork& hn, Rng& rng, int rounds, Auth&& auth) {
    std::string out;
    EXPECT_TRUE(hn.next(rng));
    for (int r = 0; r < rounds; ++r) {
        uint8_t auts[14];
        int st = auth(r, auts);
        out += st == 0 ? 'S' : 'F';
        if (st == MV_ALGO_AUTH_SQN_OUT_OF_RANGE)
            EXPECT_TRUE(hn.resync(rng, auts));
        else
            EXPECT_TRUE(hn.next(rng));
        if (st != 0 && st != MV_ALGO_AUTH_SQN_OUT_OF_RANGE) ADD_FAILURE() << "status " << st;
    }
    return out;
}

TEST(MvalgoOsmocom, UeAndHomeNetworkConvergeAfterSynchronisationFailure) {
    Rng rng(77);
    for (int sub = 0; sub < 200; ++sub) {
        unsigned ind = unsigned(rng.below(32));
        uint64_t start = rng.below(uint64_t(1) << 40) & ~uint64_t(31);
        SCOPED_TRACE("subscriber " + std::to_string(sub) + " IND " + std::to_string(ind));
        for (bool recall : {false, true}) {
            SCOPED_TRACE(recall ? "the UE asks again after taking the network's SQN" : "one call per step");
            // In step, then one forced failure (SyncFailure with a count of 1).
            {
                HomeNetwork hn(rng, start, ind);
                Ue5g ue{start + 32 + ind};
                ue.recall = recall;
                EXPECT_EQ(run(hn, rng, 8, [&](int r, uint8_t* auts) { return ue.authenticate(hn, r == 0, auts); }),
                          "FSSSSSSS");
            }
            // A UE far ahead of the network fails once, then follows.
            {
                HomeNetwork hn(rng, start, ind);
                Ue5g ue{start + 32 * 500 + rng.below(32)};
                ue.recall = recall;
                std::string got = run(hn, rng, 8, [&](int, uint8_t* auts) { return ue.authenticate(hn, false, auts); });
                EXPECT_EQ(got, recall ? "SSSSSSSS" : "FSSSSSSS");
            }
            // A UE behind the network accepts at once.
            {
                HomeNetwork hn(rng, start + 32 * 100, ind);
                Ue5g ue{start};
                ue.recall = recall;
                EXPECT_EQ(run(hn, rng, 8, [&](int, uint8_t* auts) { return ue.authenticate(hn, false, auts); }),
                          "SSSSSSSS");
            }
        }
        // A UE that keeps its own SQN is brought back by the home network alone.
        {
            HomeNetwork hn(rng, start, ind);
            Ue5g ue{start + 32 * 500};
            ue.ownSqnOnly = true;
            EXPECT_EQ(run(hn, rng, 8, [&](int, uint8_t* auts) { return ue.authenticate(hn, false, auts); }), "FSSSSSSS");
        }
        // The 4G UE: in step it stays in step; ahead, it fails once.
        {
            HomeNetwork hn(rng, start, ind);
            Ue4g ue{start + ind};
            EXPECT_EQ(run(hn, rng, 8, [&](int, uint8_t* auts) { return ue.authenticate(hn, auts); }), "SSSSSSSS");
        }
        {
            HomeNetwork hn(rng, start, ind);
            Ue4g ue{start + 32 * 300 + rng.below(32)};
            EXPECT_EQ(run(hn, rng, 8, [&](int, uint8_t* auts) { return ue.authenticate(hn, auts); }), "FSSSSSSS");
        }
    }
}

}  // namespace
