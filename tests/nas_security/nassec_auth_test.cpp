// Authentication on the UE: the status-to-cause table, the ngKSI check, and the SQN
// procedure against libosmocore as a standard home network, through the engine's own
// operation, from the authentication request to protected traffic.
#include <gtest/gtest.h>

extern "C" {
#include <osmocom/crypt/auth.h>
}

#include "nassec_log.h"
#include "nassec_testlib.h"

using namespace nst;

namespace {

constexpr char kSupiDigits[] = "001010000000001";

TEST(AuthenticationCause, StatusMapsToTheCauseOfTheFailure) {
    const struct {
        int status;
        uint8_t cause;
    } table[] = {
        {0, 0},     {-4, 21},  // SQN out of range: synch failure with the AUTS
        {-10, 71},             // ngKSI already in use
        {-11, 111},            // the request's ngKSI is not one
        {-6, 20},   {-1, 20}, {-2, 20}, {-3, 20}, {-5, 20}, {-22, 20}, {-5000, 20}, {1, 20},
    };
    for (const auto& t : table) EXPECT_EQ(KsNAS__authentication_failure_cause(t.status), t.cause) << "status " << t.status;
}

// One subscriber in libosmocore's home network: SQN = SEQ || IND with a 5-bit IND.
struct HomeNetwork {
    osmo_sub_auth_data aud{};
    osmo_auth_vector vec{};
    std::mt19937_64 rng;

    HomeNetwork(uint64_t seed, uint64_t sqn, unsigned ind) : rng(seed) {
        aud.type = OSMO_AUTH_TYPE_UMTS;
        aud.algo = OSMO_AUTH_ALG_MILENAGE;
        for (auto& x : aud.u.umts.k) x = uint8_t(rng());
        for (auto& x : aud.u.umts.opc) x = uint8_t(rng());
        aud.u.umts.amf[0] = 0x80;
        aud.u.umts.ind_bitlen = 5;
        aud.u.umts.ind = ind;
        aud.u.umts.sqn = sqn;
    }
    void newRand(uint8_t r[16]) {
        for (int i = 0; i < 16; ++i) r[i] = uint8_t(rng());
    }
    bool next() {
        uint8_t r[16];
        newRand(r);
        return osmo_auth_gen_vec(&vec, &aud, r) == 0;
    }
    bool resync(const uint8_t auts[14]) {
        uint8_t oldRand[16], r[16];
        memcpy(oldRand, vec.rand, 16);
        newRand(r);
        return osmo_auth_gen_vec_auts(&vec, &aud, auts, oldRand, r) == 0;
    }
    // The network's XRES* for the current vector and the UE's serving network name.
    std::string xresStar(const char* snn) const {
        uint8_t out[16];
        EXPECT_EQ(__mv_algo__res_star(std::span<const uint8_t, 16>(vec.ck, 16), std::span<const uint8_t, 16>(vec.ik, 16),
                                      snn, std::span<const uint8_t, 16>(vec.rand, 16), {vec.res, vec.res_len}, out),
                  0);
        return hex(out, 16);
    }
    std::string kausf(const char* snn) const {
        uint8_t out[32];
        EXPECT_EQ(__mv_algo__kausf(std::span<const uint8_t, 16>(vec.ck, 16), std::span<const uint8_t, 16>(vec.ik, 16),
                                   snn, std::span<const uint8_t, 6>(vec.autn, 6), out),
                  0);
        return hex(out, 32);
    }
};

UePtr subscriberOf(const HomeNetwork& hn, uint64_t sqn) {
    UePtr ue = makeUe();
    memcpy(ue->K, hn.aud.u.umts.k, 16);
    memcpy(ue->OPc, hn.aud.u.umts.opc, 16);
    ue->TGPP.sqn = sqn;
    return ue;
}

// The authentication request as the UE's handler takes it in: RAND and AUTN stored, then
// the engine's operation.
int authenticate(MV_KsUE* ue, const HomeNetwork& hn, bool forceSyncFailure, uint8_t ngKSI = 1) {
    memcpy(ue->TGPP.rand, hn.vec.rand, 16);
    memcpy(ue->TGPP.autn, hn.vec.autn, 16);
    return KsNAS__authenticate(ue, 1, ngKSI, forceSyncFailure ? 1 : 0);
}

// `rounds` authentications, the home network resynchronising on each AUTS; S for a
// success (with RES* and KAUSF as the network has them), F for a synchronisation failure.
std::string run(HomeNetwork& hn, MV_KsUE* ue, int rounds, int forcedRounds = 0) {
    std::string out;
    EXPECT_TRUE(hn.next());
    for (int r = 0; r < rounds; ++r) {
        int st = authenticate(ue, hn, r < forcedRounds);
        out += st == 0 ? 'S' : 'F';
        if (st == 0) {
            EXPECT_EQ(hex(ue->TGPP.xres_star, 16), hn.xresStar(ue->TGPP.snn));
            EXPECT_EQ(hex(ue->TGPP.kausf, 32), hn.kausf(ue->TGPP.snn));
            EXPECT_TRUE(hn.next());
        } else {
            EXPECT_EQ(st, MV_ALGO_AUTH_SQN_OUT_OF_RANGE);
            EXPECT_EQ(KsNAS__authentication_failure_cause(st), KS_5GMM_CAUSE_SYNCH_FAILURE);
            EXPECT_TRUE(hn.resync(ue->TGPP.auts));
        }
    }
    return out;
}

TEST(Authentication, ConvergesWithAStandardHomeNetworkAfterASynchronisationFailure) {
    std::mt19937_64 rng(77);
    for (int sub = 0; sub < 100; ++sub) {
        unsigned ind = unsigned(rng() % 32);
        uint64_t start = (rng() % (uint64_t(1) << 40)) & ~uint64_t(31);
        SCOPED_TRACE("subscriber " + std::to_string(sub) + " IND " + std::to_string(ind));
        {
            SCOPED_TRACE("in step, one forced failure");
            HomeNetwork hn(rng(), start, ind);
            UePtr ue = subscriberOf(hn, start + 32 + ind);
            EXPECT_EQ(run(hn, ue.get(), 8, 1), "FSSSSSSS");
        }
        {
            SCOPED_TRACE("in step, forced failures asked for three steps");
            HomeNetwork hn(rng(), start, ind);
            UePtr ue = subscriberOf(hn, start + 32 + ind);
            EXPECT_EQ(run(hn, ue.get(), 8, 3), "FSSSSSSS");
        }
        {
            SCOPED_TRACE("far ahead of the network");
            HomeNetwork hn(rng(), start, ind);
            UePtr ue = subscriberOf(hn, start + 32 * 500 + rng() % 32);
            EXPECT_EQ(run(hn, ue.get(), 8), "FSSSSSSS");
        }
        {
            SCOPED_TRACE("behind the network");
            HomeNetwork hn(rng(), start + 32 * 100, ind);
            UePtr ue = subscriberOf(hn, start);
            EXPECT_EQ(run(hn, ue.get(), 8), "SSSSSSSS");
        }
        {
            SCOPED_TRACE("SQNHandlingType 1, far ahead");
            HomeNetwork hn(rng(), start, ind);
            UePtr ue = subscriberOf(hn, start + 32 * 500);
            ue->SQNHandlingType = 1;
            EXPECT_EQ(run(hn, ue.get(), 8), "FSSSSSSS");
        }
    }
}

TEST(Authentication, SqnStepsAndLogLinesOfAForcedFailure) {
    HomeNetwork hn(5, 0x1000, 3);
    ASSERT_TRUE(hn.next());
    uint64_t sqn = 0x1000 + 32 + 3;
    UePtr ue = subscriberOf(hn, sqn);
    size_t mark = logMark();
    EXPECT_EQ(authenticate(ue.get(), hn, true), MV_ALGO_AUTH_SQN_OUT_OF_RANGE);
    // 32 to fail, then 33 for the failure.
    EXPECT_EQ(ue->TGPP.sqn, sqn + 32 + 33);
    EXPECT_EQ(ue->TGPP.sqn_sync_failed, 1);
    std::string log = logSince(mark);
    EXPECT_NE(log.find("[imsi-001010000000001][0] Updated SQN to fail forcely <"), std::string::npos) << log;
    EXPECT_NE(log.find("[imsi-001010000000001][0] Authentication Status=-4 SQN-UE=" + std::to_string(sqn + 32) +
                       " SQN-AMF=" + std::to_string(sqn) + " HandleSQNSync=0 <"),
              std::string::npos)
        << log;
    ASSERT_TRUE(hn.resync(ue->TGPP.auts));
    EXPECT_EQ(authenticate(ue.get(), hn, false), 0);
    EXPECT_EQ(ue->TGPP.sqn, sqn + 32 + 33 + 64);  // the success after a failure adds 64
    EXPECT_EQ(ue->TGPP.sqn_sync_failed, 0);
    ASSERT_TRUE(hn.next());
    EXPECT_EQ(authenticate(ue.get(), hn, false), 0);
    EXPECT_EQ(ue->TGPP.sqn, sqn + 32 + 33 + 64 + 32);
}

// A forged AUTN: the MAC fails, and the SQN the UE reads out of it is still the network's.
int authenticateForged(MV_KsUE* ue, const HomeNetwork& hn) {
    memcpy(ue->TGPP.rand, hn.vec.rand, 16);
    memcpy(ue->TGPP.autn, hn.vec.autn, 16);
    ue->TGPP.autn[15] ^= 1;
    return KsNAS__authenticate(ue, 1, 1, 0);
}

TEST(Authentication, ForgedAutnFailsWithMacCauseAndTheUeTakesTheNetworksSqn) {
    HomeNetwork hn(6, 0x2000, 0);
    ASSERT_TRUE(hn.next());
    UePtr ue = subscriberOf(hn, 0x40);
    size_t mark = logMark();
    int st = authenticateForged(ue.get(), hn);
    EXPECT_EQ(st, MV_ALGO_AUTH_MAC_MISMATCH);
    EXPECT_EQ(KsNAS__authentication_failure_cause(st), KS_5GMM_CAUSE_MAC_FAILURE);
    EXPECT_EQ(ue->TGPP.sqn, 0x2020u + 33);
    EXPECT_EQ(ue->TGPP.sqn_sync_failed, 1);
    EXPECT_NE(logSince(mark).find("Updated SQN From Network in SQN-UE=64 in SQN-AMF=8224 <"), std::string::npos);

    // A UE that keeps its own SQN does not take it.
    UePtr own = subscriberOf(hn, 0x40);
    own->SQNHandlingType = 1;
    EXPECT_EQ(authenticateForged(own.get(), hn), MV_ALGO_AUTH_MAC_MISMATCH);
    EXPECT_EQ(own->TGPP.sqn, 0x40u + 33);
}

TEST(Authentication, NgKsiAboveSevenNeverReachesTheLibrary) {
    HomeNetwork hn(7, 0x3000, 0);
    ASSERT_TRUE(hn.next());
    UePtr ue = subscriberOf(hn, 0x3020);
    size_t mark = logMark();
    EXPECT_EQ(authenticate(ue.get(), hn, false, 9), KS_AUTH_STATUS_INVALID_NGKSI);
    EXPECT_EQ(KsNAS__authentication_failure_cause(KS_AUTH_STATUS_INVALID_NGKSI), KS_5GMM_CAUSE_PROTOCOL_ERROR);
    EXPECT_EQ(ue->TGPP.sqn, 0x3020u);
    EXPECT_EQ(ue->TGPP.ngKSI, 7);
    std::string log = logSince(mark);
    EXPECT_NE(log.find("[imsi-001010000000001][0] Received Invalid ngKSI=9 in Authentication Request <"), std::string::npos);
    EXPECT_EQ(log.find("Authentication Status="), std::string::npos);

    EXPECT_EQ(authenticate(ue.get(), hn, false, 3), 0);
    EXPECT_EQ(ue->TGPP.ngKSI, 3);
}

// The whole road: a vector from the home network, the security mode command of an AMF
// holding the keys the network derives, and protected traffic both ways.
TEST(Authentication, ThroughTheSecurityModeCommandToProtectedTraffic) {
    HomeNetwork hn(8, 0x5000, 7);
    ASSERT_TRUE(hn.next());
    UePtr ue = subscriberOf(hn, 0x5000 + 32 + 7);
    ASSERT_EQ(authenticate(ue.get(), hn, false), 0);

    Network amf;
    amf.nia = 2;
    amf.nea = 1;
    uint8_t kausf[32], kseaf[32], kamf[32];
    const uint8_t abba[2] = {0, 0};
    ASSERT_EQ(__mv_algo__kausf(std::span<const uint8_t, 16>(hn.vec.ck, 16), std::span<const uint8_t, 16>(hn.vec.ik, 16),
                               ue->TGPP.snn, std::span<const uint8_t, 6>(hn.vec.autn, 6), kausf),
              0);
    ASSERT_EQ(__mv_algo__kseaf(kausf, ue->TGPP.snn, kseaf), 0);
    ASSERT_EQ(__mv_algo__kamf(kseaf, kSupiDigits, abba, kamf), 0);
    ASSERT_EQ(__mv_algo__knas_5g(kamf, MV_ALGO_KEY_NAS_INT, 2, std::span<uint8_t, 16>(amf.kint, 16)), 0);
    ASSERT_EQ(__mv_algo__knas_5g(kamf, MV_ALGO_KEY_NAS_ENC, 1, std::span<uint8_t, 16>(amf.kenc, 16)), 0);

    Received smc;
    receive(ue.get(), amf.protect({0x7E, 0x00, 0x5D, 0x12, 0x01, 0x02, 0xE0, 0xE0}, 3), smc);
    ASSERT_EQ(smc.rc, 1);
    EXPECT_EQ(ue->TGPP.security_context_available, 1u);

    Bytes complete = {0x7E, 0x00, 0x5E}, out, opened;
    uint8_t sht = 0;
    ASSERT_EQ(protectUplink(ue.get(), complete, out), 1);
    ASSERT_TRUE(amf.open(out, opened, sht));
    EXPECT_EQ(sht, 4);
    EXPECT_EQ(hex(opened), hex(complete));

    Received accept;
    receive(ue.get(), amf.protect({0x7E, 0x00, 0x42, 0x01, 0x01}), accept);
    ASSERT_EQ(accept.rc, 1);
    EXPECT_EQ(accept.d.MessageType, 0x42);
    EXPECT_EQ(accept.d.iMandatoryDecoded, 1);
}

}  // namespace
