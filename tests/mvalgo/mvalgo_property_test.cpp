// Properties over random inputs, where the vectors say nothing: every length
// (0, odd bit counts, long messages), every bit of a MAC's input, every bit of an
// AUTN, the SQN window at its edges, SUCI round trips and malformed keys.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <array>
#include <cstring>

#include "mvalgo.h"
#include "mvalgo_testutil.h"

using namespace mvt;

namespace {

using Key = std::array<uint8_t, 16>;
using Mac = std::array<uint8_t, 4>;

Mac mac(uint8_t algo, const Key& key, uint32_t count, uint8_t bearer, uint8_t dir, const Bytes& data, size_t bits) {
    Mac m{};
    EXPECT_EQ(__mv_algo__nia(algo, key, count, bearer, dir, data, bits, m), 0);
    return m;
}

bool bit(const Bytes& b, size_t i) { return b[i / 8] & (0x80 >> (i % 8)); }

// Lengths that catch word, block and byte edges, and random ones up to a few KiB.
std::vector<size_t> lengths(Rng& rng) {
    std::vector<size_t> l = {0, 1, 7, 8, 9, 31, 32, 33, 63, 64, 65, 127, 128, 129, 255, 256, 800, 1023};
    for (int i = 0; i < 40; ++i) l.push_back(rng.below(4096));
    l.push_back(8 * 70000 + 3);  // a long message, not whole bytes
    return l;
}

TEST(MvalgoProperties, CipheringRoundTripsOnEveryLengthAndLeavesTrailingBits) {
    Rng rng(1);
    for (uint8_t algo = 0; algo <= 3; ++algo)
        for (size_t bits : lengths(rng)) {
            SCOPED_TRACE("NEA" + std::to_string(algo) + " bits " + std::to_string(bits));
            Key key = rng.arr<16>();
            uint32_t count = rng.u32();
            uint8_t bearer = uint8_t(rng.below(32)), dir = uint8_t(rng.below(2));
            Bytes plain = rng.bytes((bits + 7) / 8 + 1), data = plain;  // one spare byte after
            ASSERT_EQ(__mv_algo__nea(algo, key, count, bearer, dir, data, bits), 0);
            for (size_t i = bits; i < data.size() * 8; ++i) ASSERT_EQ(bit(data, i), bit(plain, i)) << "bit " << i;
            if (algo && bits >= 64) {
                EXPECT_NE(data, plain);
            }
            // A shorter run is a prefix of the longer one: the keystream does not
            // depend on the length.
            if (bits > 0) {
                Bytes shorter = plain;
                size_t cut = rng.below(bits);
                ASSERT_EQ(__mv_algo__nea(algo, key, count, bearer, dir, shorter, cut), 0);
                for (size_t i = 0; i < cut; ++i) ASSERT_EQ(bit(shorter, i), bit(data, i)) << "bit " << i;
            }
            ASSERT_EQ(__mv_algo__nea(algo, key, count, bearer, dir, data, bits), 0);
            EXPECT_EQ(data, plain);
        }
}

TEST(MvalgoProperties, MacChangesWithEveryInputBitAndOnlyThose) {
    Rng rng(2);
    for (uint8_t algo = 1; algo <= 3; ++algo)
        for (size_t bits : {size_t(0), size_t(1), size_t(5), size_t(64), size_t(129), size_t(300), size_t(1000)}) {
            SCOPED_TRACE("NIA" + std::to_string(algo) + " bits " + std::to_string(bits));
            Key key = rng.arr<16>();
            uint32_t count = rng.u32();
            uint8_t bearer = uint8_t(rng.below(32)), dir = uint8_t(rng.below(2));
            Bytes msg = rng.bytes((bits + 7) / 8 + 1);
            Mac base = mac(algo, key, count, bearer, dir, msg, bits);
            for (size_t i = 0; i < msg.size() * 8; ++i) {
                Bytes flipped = msg;
                flipped[i / 8] ^= uint8_t(0x80 >> (i % 8));
                Mac m = mac(algo, key, count, bearer, dir, flipped, bits);
                if (i < bits)
                    ASSERT_NE(m, base) << "message bit " << i;
                else
                    ASSERT_EQ(m, base) << "bit " << i << " beyond the length";
            }
            for (int i = 0; i < 32; ++i) EXPECT_NE(mac(algo, key, count ^ (1u << i), bearer, dir, msg, bits), base);
            for (int i = 0; i < 5; ++i)
                EXPECT_NE(mac(algo, key, count, uint8_t(bearer ^ (1 << i)), dir, msg, bits), base);
            EXPECT_NE(mac(algo, key, count, bearer, uint8_t(dir ^ 1), msg, bits), base);
            for (int i = 0; i < 128; i += 7) {
                Key k2 = key;
                k2[i / 8] ^= uint8_t(0x80 >> (i % 8));
                EXPECT_NE(mac(algo, k2, count, bearer, dir, msg, bits), base);
            }
            if (bits < 1000) {
                EXPECT_NE(mac(algo, key, count, bearer, dir, msg, bits + 1), base);
            }
        }
}

// For whole bytes NIA2 is AES-CMAC over COUNT, BEARER and DIRECTION then the message:
// OpenSSL's own CMAC must agree with our bit-level one.
TEST(MvalgoProperties, Nia2AgreesWithOpenSslCmacOnWholeBytes) {
    Rng rng(3);
    EVP_MAC* cmac = EVP_MAC_fetch(nullptr, "CMAC", nullptr);
    ASSERT_NE(cmac, nullptr);
    for (int t = 0; t < 300; ++t) {
        Key key = rng.arr<16>();
        uint32_t count = rng.u32();
        uint8_t bearer = uint8_t(rng.below(32)), dir = uint8_t(rng.below(2));
        Bytes msg = rng.bytes(t < 40 ? size_t(t) : rng.below(2000));
        Bytes m = {uint8_t(count >> 24), uint8_t(count >> 16), uint8_t(count >> 8), uint8_t(count),
                   uint8_t(bearer << 3 | dir << 2), 0, 0, 0};
        m.insert(m.end(), msg.begin(), msg.end());
        EVP_MAC_CTX* ctx = EVP_MAC_CTX_new(cmac);
        char cipher[] = "AES-128-CBC";
        OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, cipher, 0), OSSL_PARAM_construct_end()};
        uint8_t tag[16];
        size_t n = 0;
        ASSERT_EQ(EVP_MAC_init(ctx, key.data(), 16, params), 1);
        ASSERT_EQ(EVP_MAC_update(ctx, m.data(), m.size()), 1);
        ASSERT_EQ(EVP_MAC_final(ctx, tag, &n, sizeof tag), 1);
        EVP_MAC_CTX_free(ctx);
        Mac ours = mac(2, key, count, bearer, dir, msg, msg.size() * 8);
        ASSERT_EQ(toHex(ours.data(), 4), toHex(tag, 4)) << "length " << msg.size();
    }
    EVP_MAC_free(cmac);
}

TEST(MvalgoProperties, BadArgumentsAreRefusedNotRead) {
    Key key{};
    Bytes data(4);
    Mac m{};
    EXPECT_EQ(__mv_algo__nea(1, key, 0, 0, 0, data, 33), MV_ALGO_ERR_ARG);  // longer than the buffer
    EXPECT_EQ(__mv_algo__nia(3, key, 0, 0, 0, data, 33, m), MV_ALGO_ERR_ARG);
    EXPECT_EQ(__mv_algo__nea(4, key, 0, 0, 0, data, 8), MV_ALGO_ERR_ARG);
    EXPECT_EQ(__mv_algo__nia(2, key, 0, 32, 0, data, 8, m), MV_ALGO_ERR_ARG);  // BEARER is 5 bits
    EXPECT_EQ(__mv_algo__nea(2, key, 0, 0, 2, data, 8), MV_ALGO_ERR_ARG);

    uint8_t mac4[4] = {1, 2, 3, 4};
    EXPECT_EQ(__mv_algo__nas_mac_calculate(0, key.data(), 7, 1, 0, nullptr, 0, mac4), 0);
    EXPECT_EQ(toHex(mac4, 4), "00000000");
    EXPECT_EQ(__mv_algo__nas_mac_calculate(2, key.data(), 7, 1, 0, nullptr, 0, mac4), 0);  // empty message
    EXPECT_EQ(__mv_algo__nas_mac_calculate(2, key.data(), 7, 1, 0, nullptr, 3, mac4), MV_ALGO_ERR_ARG);
    EXPECT_EQ(__mv_algo__nas_mac_calculate(2, nullptr, 7, 1, 0, data.data(), 4, mac4), MV_ALGO_ERR_ARG);
    Bytes plain = {0x7e, 0x00, 0x41};
    Bytes same = plain;
    EXPECT_EQ(__mv_algo__nas_encrypt(0, key.data(), 1, 1, 0, same.data(), 3), 0);
    EXPECT_EQ(same, plain);
    EXPECT_EQ(__mv_algo__nas_encrypt(3, key.data(), 1, 1, 0, nullptr, 0), 0);

    uint8_t out[32];
    uint64_t sqnAmf;
    std::string longName(300, 'x');
    EXPECT_EQ(__mv_algo__ue_authenticate2(key.data(), key.data(), 0, longName.c_str(), key.data(), key.data(), out, out,
                                          out, 1, &sqnAmf),
              MV_ALGO_ERR_ARG);
    EXPECT_EQ(__mv_algo__ue_authenticate2(key.data(), key.data(), 0, nullptr, key.data(), key.data(), out, out, out, 1,
                                          &sqnAmf),
              MV_ALGO_ERR_ARG);
    EXPECT_EQ(__mv_algo__ue_authenticate_lte(key.data(), nullptr, 0, nullptr, key.data(), key.data(), out, out, 0,
                                             &sqnAmf),
              MV_ALGO_ERR_ARG);
    EXPECT_EQ(__mv_algo__ue_setup_security_context2(nullptr, nullptr, out, "5G:x", nullptr, 1, 2, 2, out, out),
              MV_ALGO_ERR_ARG);
    EXPECT_EQ(ogs_kdf_nas_eps(1, 1, nullptr, out), MV_ALGO_ERR_ARG);
}

// A subscriber and the vector its home network makes at a given SQN.
struct Subscriber {
    Key k, opc;
    std::array<uint8_t, 16> rand;
    std::array<uint8_t, 2> amf = {0x80, 0x00};
    MV_AlgoVector vec;
    explicit Subscriber(Rng& rng) : k(rng.arr<16>()), opc(rng.arr<16>()), rand(rng.arr<16>()) {}
    void at(uint64_t sqn) { EXPECT_EQ(__mv_algo__milenage_generate(k, opc, rand, sqn, amf, vec), 0); }
    int lte(uint32_t ueSqn, int handle, uint8_t auts[14], uint64_t& sqnAmf) {
        uint8_t res[8];
        return __mv_algo__ue_authenticate_lte(k.data(), opc.data(), ueSqn, nullptr, rand.data(), vec.autn, auts, res,
                                              handle, &sqnAmf);
    }
};

TEST(MvalgoProperties, AnyFlippedBitOfAutnOrRandIsAMacFailure) {
    Rng rng(4);
    for (int t = 0; t < 10; ++t) {
        Subscriber s(rng);
        uint64_t sqn = rng.below(uint64_t(1) << 48);
        s.at(sqn);
        uint8_t auts[14];
        uint64_t sqnAmf = 0;
        ASSERT_EQ(s.lte(uint32_t(sqn), 0, auts, sqnAmf), 0);
        for (int i = 0; i < 128; ++i) {
            uint8_t saved = s.vec.autn[i / 8];
            s.vec.autn[i / 8] ^= uint8_t(0x80 >> (i % 8));
            ASSERT_EQ(s.lte(uint32_t(sqn), 1, auts, sqnAmf), MV_ALGO_AUTH_MAC_MISMATCH) << "AUTN bit " << i;
            s.vec.autn[i / 8] = saved;
        }
        s.rand[rng.below(16)] ^= 1;
        EXPECT_EQ(s.lte(uint32_t(sqn), 1, auts, sqnAmf), MV_ALGO_AUTH_MAC_MISMATCH);
    }
}

// The window of mvalgo.h at its edges: the caller's SQN against the network's, for
// both settings of the synchronisation flag, and the SQN_MS of each AUTS.
TEST(MvalgoProperties, SqnWindowAtItsEdges) {
    struct Case {
        uint64_t network;
        uint32_t ue;
        bool freshStrict, freshLoose;
    };
    const uint64_t base = 0x12345678A0ull;  // IND 0 of SEQ ...
    const Case cases[] = {
        {base, uint32_t(base), true, true},                                   // exactly expected
        {base + 32, uint32_t(base), true, true},                              // the network a step ahead
        {base + MV_ALGO_SQN_DELTA, uint32_t(base), true, true},               // as far ahead as allowed
        {base + MV_ALGO_SQN_DELTA + 1, uint32_t(base), false, false},         // further
        {base - 1, uint32_t(base), false, false},                             // a lower SEQ: a replay
        {base - 32, uint32_t(base), false, false},                            // the last vector again
        {base + 3, uint32_t(base + 9), false, true},                          // same SEQ, lower IND
        {base + 31, uint32_t(base + 32), false, false},                       // the SEQ below
        {0x100000000ull + 32, 0xFFFFFFE0u, true, true},                       // across 2^32
        {0x100000010ull, 0xFFFFFFF0u, true, true},
        {0xFFFFFFFFFFE0ull, 0xFFFFFFE0u, true, true},                         // top of the 48 bits
        {0x40, 0xFFFFFFE0u, true, true},                                      // past 2^48: wraps
    };
    Rng rng(5);
    Subscriber s(rng);
    for (const Case& c : cases) {
        s.at(c.network & 0xFFFFFFFFFFFFull);
        for (int handle : {0, 1}) {
            SCOPED_TRACE("network " + std::to_string(c.network) + " ue " + std::to_string(c.ue) + " handleSqnSync " +
                         std::to_string(handle));
            uint8_t auts[14];
            uint64_t sqnAmf = 0;
            int st = s.lte(c.ue, handle, auts, sqnAmf);
            EXPECT_EQ(sqnAmf, c.network & 0xFFFFFFFFFFFFull);
            bool fresh = handle ? c.freshLoose : c.freshStrict;
            ASSERT_EQ(st, fresh ? MV_ALGO_AUTH_OK : MV_ALGO_AUTH_SQN_OUT_OF_RANGE);
            if (fresh) continue;
            int32_t d = int32_t(uint32_t(sqnAmf) - c.ue);
            uint64_t expectMs = (sqnAmf - uint64_t(int64_t(d)) + MV_ALGO_SQN_MS_AHEAD) & 0xFFFFFFFFFFFFull;
            uint64_t ms = 0;
            ASSERT_EQ(__mv_algo__auts_recover(s.k, s.opc, s.rand, auts, ms), 0);
            EXPECT_EQ(ms, expectMs);
        }
    }
}

TEST(MvalgoProperties, SuciRoundTripsAndRefusesTamperingAndBadKeys) {
    Rng rng(6);
    for (uint8_t scheme : {MV_ALGO_SUCI_PROFILE_A, MV_ALGO_SUCI_PROFILE_B}) {
        SCOPED_TRACE("profile " + std::to_string(scheme));
        uint8_t priv[32], pub[33];
        int pubLen = 0;
        while (pubLen <= 0) {  // a random scalar may exceed the P-256 order
            Bytes r = rng.bytes(32);
            memcpy(priv, r.data(), 32);
            pubLen = __mv_algo__suci_public_key(scheme, priv, pub);
        }
        for (size_t len : {0, 1, 5, 16, 17, 64}) {
            Bytes input = rng.bytes(len);
            uint8_t out[128], out2[128], back[64];
            int n = __mv_algo__suci_conceal(scheme, {pub, size_t(pubLen)}, input, {}, out);
            ASSERT_GT(n, 0);
            ASSERT_EQ(__mv_algo__suci_conceal(scheme, {pub, size_t(pubLen)}, input, {}, out2), n);
            EXPECT_NE(toHex(out, size_t(n)), toHex(out2, size_t(n)));  // a fresh ephemeral key each time
            ASSERT_EQ(__mv_algo__suci_deconceal(scheme, priv, {out, size_t(n)}, back), int(len));
            EXPECT_EQ(toHex(back, len), toHex(input));
            for (int i = 0; i < n * 8; i += 5) {
                uint8_t bad[128];
                memcpy(bad, out, size_t(n));
                bad[i / 8] ^= uint8_t(0x80 >> (i % 8));
                int st = __mv_algo__suci_deconceal(scheme, priv, {bad, size_t(n)}, back);
                ASSERT_TRUE(st == MV_ALGO_ERR_MAC || st == MV_ALGO_ERR_ARG) << "bit " << i << " status " << st;
            }
            EXPECT_EQ(__mv_algo__suci_conceal(scheme, {pub, size_t(pubLen)}, input, {}, {out, size_t(n - 1)}),
                      MV_ALGO_ERR_ARG);
            EXPECT_EQ(__mv_algo__suci_deconceal(scheme, priv, {out, 20}, back), MV_ALGO_ERR_ARG);
        }
        // Keys that are not keys: wrong sizes, points off the curve, the zero scalar.
        uint8_t out[128];
        Bytes input = rng.bytes(5), zero(32, 0);
        EXPECT_EQ(__mv_algo__suci_conceal(scheme, {pub, 31}, input, {}, out), MV_ALGO_ERR_ARG);
        EXPECT_EQ(__mv_algo__suci_conceal(scheme, {pub, size_t(pubLen)}, input, {priv, 31}, out), MV_ALGO_ERR_ARG);
        if (scheme == MV_ALGO_SUCI_PROFILE_B) {
            EXPECT_EQ(__mv_algo__suci_conceal(scheme, {pub, size_t(pubLen)}, input, zero, out), MV_ALGO_ERR_ARG);
            int refused = 0;
            for (int t = 0; t < 50; ++t) {
                Bytes junk = rng.bytes(33);
                junk[0] = 0x02;
                refused += __mv_algo__suci_conceal(scheme, junk, input, {}, out) == MV_ALGO_ERR_ARG;
            }
            EXPECT_GT(refused, 10);  // about half of all x have no point
        } else {
            EXPECT_EQ(__mv_algo__suci_conceal(scheme, zero, input, {}, out), MV_ALGO_ERR_ARG);  // a low-order point
        }
        EXPECT_EQ(__mv_algo__suci_conceal(7, {pub, size_t(pubLen)}, input, {}, out), MV_ALGO_ERR_ARG);
    }
    Bytes in = {0x21, 0x43, 0xf5};
    uint8_t out[3];
    EXPECT_EQ(__mv_algo__suci_conceal(MV_ALGO_SUCI_NULL, {}, in, {}, out), 3);
    EXPECT_EQ(__mv_algo__suci_conceal(MV_ALGO_SUCI_NULL, {}, in, {}, {out, 2}), MV_ALGO_ERR_ARG);
}

}  // namespace
