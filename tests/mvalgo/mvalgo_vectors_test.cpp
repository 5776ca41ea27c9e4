// Every published (and independently recomputed) vector of tests/mvalgo/vectors,
// bit for bit, through the building blocks and through the engine-facing operations.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <map>

#include "mvalgo.h"
#include "mvalgo_testutil.h"

using namespace mvt;

namespace {

template <size_t N>
std::span<const uint8_t, N> fixed(const Bytes& b) {
    EXPECT_EQ(b.size(), N);
    return std::span<const uint8_t, N>(b.data(), N);
}

int algoNumber(const std::string& name) { return name.back() - '0'; }  // "128-EEA2" -> 2

TEST(MvalgoVectors, MilenageAllTwentySets) {
    VectorFile f("milenage.json");
    json_t* sets = f.list();
    ASSERT_EQ(json_array_size(sets), 20u);
    size_t i;
    json_t* s;
    json_array_foreach(sets, i, s) {
        SCOPED_TRACE("test set " + std::to_string(num(s, "test_set")));
        Bytes k = hexOf(s, "k"), rand = hexOf(s, "rand"), sqn = hexOf(s, "sqn"), amf = hexOf(s, "amf");
        std::array<uint8_t, 16> opc, ck, ik;
        std::array<uint8_t, 8> macA, macS, res;
        std::array<uint8_t, 6> ak, akStar;
        ASSERT_EQ(__mv_algo__milenage_opc(fixed<16>(k), fixed<16>(hexOf(s, "op")), opc), 0);
        EXPECT_EQ(toHex(opc.data(), 16), str(s, "opc"));
        ASSERT_EQ(__mv_algo__milenage_f1(fixed<16>(k), opc, fixed<16>(rand), fixed<6>(sqn), fixed<2>(amf), macA, macS), 0);
        ASSERT_EQ(__mv_algo__milenage_f2345(fixed<16>(k), opc, fixed<16>(rand), res, ck, ik, ak, akStar), 0);
        EXPECT_EQ(toHex(macA.data(), 8), str(s, "f1"));
        EXPECT_EQ(toHex(macS.data(), 8), str(s, "f1_star"));
        EXPECT_EQ(toHex(res.data(), 8), str(s, "f2"));
        EXPECT_EQ(toHex(ck.data(), 16), str(s, "f3"));
        EXPECT_EQ(toHex(ik.data(), 16), str(s, "f4"));
        EXPECT_EQ(toHex(ak.data(), 6), str(s, "f5"));
        EXPECT_EQ(toHex(akStar.data(), 6), str(s, "f5_star"));

        // The same set through the UE's EPS authentication: AUTN built from the set.
        Bytes autn(16);
        for (int j = 0; j < 6; ++j) autn[j] = sqn[j] ^ ak[j];
        memcpy(&autn[6], amf.data(), 2);
        memcpy(&autn[8], macA.data(), 8);
        uint64_t sqnNet = 0;
        for (uint8_t b : sqn) sqnNet = sqnNet << 8 | b;
        uint8_t auts[14], ueRes[8];
        uint64_t sqnAmf = 0;
        EXPECT_EQ(__mv_algo__ue_authenticate_lte(k.data(), opc.data(), uint32_t(sqnNet), nullptr, rand.data(), autn.data(),
                                                 auts, ueRes, 0, &sqnAmf),
                  0);
        EXPECT_EQ(toHex(ueRes, 8), str(s, "f2"));
        EXPECT_EQ(sqnAmf, sqnNet);
    }
}

struct NasCase {
    int algo;
    Bytes key;
    uint32_t count;
    uint8_t bearer, direction;
    size_t bits;
};

NasCase nasCase(json_t* s) {
    return {algoNumber(str(s, "algorithm")), hexOf(s, "key"), uint32_t(std::stoul(str(s, "count"), nullptr, 16)),
            uint8_t(num(s, "bearer")), uint8_t(num(s, "direction")), size_t(num(s, "length_bits"))};
}

// Runs check on every set of a NAS algorithm file; the sets seen per algorithm.
template <class Check>
std::map<int, int> forEachNasSet(const char* file, Check&& check) {
    VectorFile f(file);
    std::map<int, int> perAlgo;
    size_t i;
    json_t* s;
    json_array_foreach(f.list(), i, s) {
        NasCase c = nasCase(s);
        SCOPED_TRACE(str(s, "algorithm") + " set " + std::to_string(num(s, "test_set")) + " bits " +
                     std::to_string(c.bits));
        check(s, c);
        ++perAlgo[c.algo];
    }
    return perAlgo;
}

TEST(MvalgoVectors, NasCipheringAllSetsBothWays) {
    auto perAlgo = forEachNasSet("nas_ciphering.json", [](json_t* s, const NasCase& c) {
        Bytes data = hexOf(s, "plaintext");
        ASSERT_EQ(__mv_algo__nea(uint8_t(c.algo), fixed<16>(c.key), c.count, c.bearer, c.direction, data, c.bits), 0);
        EXPECT_EQ(toHex(data), str(s, "ciphertext"));
        ASSERT_EQ(__mv_algo__nea(uint8_t(c.algo), fixed<16>(c.key), c.count, c.bearer, c.direction, data, c.bits), 0);
        EXPECT_EQ(toHex(data), str(s, "plaintext"));
    });
    EXPECT_EQ(perAlgo, (std::map<int, int>{{1, 6}, {2, 6}, {3, 5}}));
}

TEST(MvalgoVectors, NasIntegrityAllSets) {
    auto perAlgo = forEachNasSet("nas_integrity.json", [](json_t* s, const NasCase& c) {
        Bytes msg = hexOf(s, "message");
        std::array<uint8_t, 4> mac{};
        ASSERT_EQ(__mv_algo__nia(uint8_t(c.algo), fixed<16>(c.key), c.count, c.bearer, c.direction, msg, c.bits, mac), 0);
        EXPECT_EQ(toHex(mac.data(), 4), str(s, "mac"));
        if (c.bits % 8 == 0) {  // the engine's byte-length entry point agrees
            std::array<uint8_t, 4> mac2{};
            ASSERT_EQ(__mv_algo__nas_mac_calculate(uint8_t(c.algo), c.key.data(), c.count, c.bearer, c.direction,
                                                   msg.data(), uint32_t(msg.size()), mac2.data()),
                      0);
            EXPECT_EQ(mac2, mac);
        }
    });
    EXPECT_EQ(perAlgo, (std::map<int, int>{{1, 7}, {2, 8}, {3, 5}}));
}

TEST(MvalgoVectors, SuciNullAndBothProfiles) {
    VectorFile f("suci.json");
    ASSERT_EQ(json_array_size(f.list()), 6u);
    size_t i;
    json_t* s;
    json_array_foreach(f.list(), i, s) {
        SCOPED_TRACE(str(s, "name"));
        uint8_t scheme = uint8_t(num(s, "protection_scheme_id"));
        bool nai = str(s, "supi_type") == "NAI";
        Bytes input = scheme ? hexOf(s, "plaintext_block") : hexOf(s, "scheme_input");
        uint8_t out[128];
        if (scheme == MV_ALGO_SUCI_NULL) {
            int n = __mv_algo__suci_conceal(scheme, {}, input, {}, out);
            ASSERT_EQ(n, int(input.size()));
            if (nai)
                EXPECT_EQ("userid" + std::string(out, out + n), str(s, "scheme_output_text"));
            else
                EXPECT_EQ(toHex(out, size_t(n)), str(s, "scheme_output"));
            continue;
        }
        Bytes hnPriv = hexOf(s, "home_network_private_key"), hnPub = hexOf(s, "home_network_public_key");
        uint8_t pub[33];
        ASSERT_EQ(__mv_algo__suci_public_key(scheme, hnPriv, pub), int(hnPub.size()));
        EXPECT_EQ(toHex(pub, hnPub.size()), toHex(hnPub));

        std::vector<Bytes> pubForms = {hnPub};
        if (scheme == MV_ALGO_SUCI_PROFILE_B) pubForms.push_back(hexOf(s, "home_network_public_key_uncompressed"));
        for (const Bytes& key : pubForms) {
            int n = __mv_algo__suci_conceal(scheme, key, input, hexOf(s, "eph_private_key"), out);
            size_t ephLen = scheme == MV_ALGO_SUCI_PROFILE_A ? 32 : 33;
            ASSERT_EQ(n, int(ephLen + input.size() + 8));
            if (nai) {
                std::string text = "ecckey" + toHex(out, ephLen) + ".cip" + toHex(out + ephLen, input.size()) +
                                   ".mac" + toHex(out + ephLen + input.size(), 8);
                EXPECT_EQ(text, str(s, "scheme_output_text"));
            } else {
                EXPECT_EQ(toHex(out, size_t(n)), str(s, "scheme_output"));
            }
            uint8_t back[64];
            ASSERT_EQ(__mv_algo__suci_deconceal(scheme, hnPriv, {out, size_t(n)}, back), int(input.size()));
            EXPECT_EQ(toHex(back, input.size()), toHex(input));
        }
    }
}

// Each KDF entry by its generic form, and by the named derivation where there is one.
TEST(MvalgoVectors, KdfEveryEntry) {
    VectorFile f("kdf.json");
    ASSERT_EQ(json_array_size(f.list()), 34u);
    size_t i, named = 0;
    json_t* e;
    json_array_foreach(f.list(), i, e) {
        SCOPED_TRACE(str(e, "name"));
        std::string result = str(e, "result");
        if (str(e, "fc").empty()) {  // HXRES*: a plain SHA-256
            Bytes input = hexOf(e, "input");
            std::array<uint8_t, 16> h;
            ASSERT_EQ(__mv_algo__hxres_star(fixed<16>({input.begin(), input.begin() + 16}),
                                            fixed<16>({input.begin() + 16, input.end()}), h),
                      0);
            EXPECT_EQ(toHex(h.data(), 16), result);
            ++named;
            continue;
        }
        Bytes key = hexOf(e, "key");
        uint8_t fc = hex(str(e, "fc"))[0];
        std::vector<Bytes> values;
        std::vector<std::span<const uint8_t>> params;
        size_t j;
        json_t* p;
        json_array_foreach(json_object_get(e, "parameters"), j, p) values.push_back(hexOf(p, "value"));
        for (auto& v : values) params.push_back(v);
        std::array<uint8_t, 32> out{};
        ASSERT_EQ(__mv_algo__kdf(key, fc, params, out), 0);
        EXPECT_EQ(toHex(out.data(), 32), str(e, "kdf_output"));

        std::array<uint8_t, 32> full{};
        std::array<uint8_t, 16> low{};
        std::string got;
        auto text = [&](size_t n) { return std::string_view(reinterpret_cast<const char*>(values[n].data()), values[n].size()); };
        if (key.size() == 32 && (fc == 0x6A || fc == 0x6B || fc == 0x10)) {
            Bytes ck(key.begin(), key.begin() + 16), ik(key.begin() + 16, key.end());
            if (fc == 0x6A) {
                ASSERT_EQ(__mv_algo__kausf(fixed<16>(ck), fixed<16>(ik), text(0), fixed<6>(values[1]), full), 0);
                got = toHex(full.data(), 32);
            } else if (fc == 0x6B) {
                ASSERT_EQ(__mv_algo__res_star(fixed<16>(ck), fixed<16>(ik), text(0), fixed<16>(values[1]), values[2], low), 0);
                got = toHex(low.data(), 16);
            } else {
                ASSERT_EQ(__mv_algo__kasme(fixed<16>(ck), fixed<16>(ik), fixed<3>(values[0]), fixed<6>(values[1]), full), 0);
                got = toHex(full.data(), 32);
            }
        } else if (fc == 0x6C) {
            ASSERT_EQ(__mv_algo__kseaf(fixed<32>(key), text(0), full), 0);
            got = toHex(full.data(), 32);
        } else if (fc == 0x6D) {
            ASSERT_EQ(__mv_algo__kamf(fixed<32>(key), text(0), fixed<2>(values[1]), full), 0);
            got = toHex(full.data(), 32);
        } else if (fc == 0x69 || fc == 0x15) {
            auto derive = fc == 0x69 ? __mv_algo__knas_5g : __mv_algo__knas_eps;
            ASSERT_EQ(derive(fixed<32>(key), values[0][0], values[1][0], low), 0);
            got = toHex(low.data(), 16);
        }
        if (!got.empty()) {
            EXPECT_EQ(got, result);
            ++named;
        }
    }
    EXPECT_EQ(named, 26u);  // all but CK'/IK', KgNB, KN3IWF, the two NH, KNG-RAN*, KeNB, KeNB*
}

// The whole 5G and EPS chains through the engine's operations, from Milenage test
// set 1 to the NAS keys of kdf.json.
TEST(MvalgoVectors, EngineOperationsReproduceTheChains) {
    ASSERT_EQ(__mv_ogs_init_crypto_fun(), 0);
    Bytes k = hex("465b5ce8b199b49faa5f0a2ee238a6bc"), opc = hex("cd63cb71954a9f4e48a5994e37a02baf");
    Bytes rand = hex("23553cbe9637a89d218ae64dae47bf35");
    Bytes autn = hex("55f328b43577b9b94a9ffac354dfafb3");  // SQN xor AK || AMF || MAC-A of set 1
    const char* snn = "5G:mnc001.mcc001.3gppnetwork.org";
    uint8_t resStar[16], auts[14], kausf[32], knasInt[16], knasEnc[16];
    uint64_t sqnAmf = 0;
    ASSERT_EQ(__mv_algo__ue_authenticate2(k.data(), opc.data(), 0xb4d0b607, snn, rand.data(), autn.data(), resStar,
                                          auts, kausf, 1, &sqnAmf),
              0);
    EXPECT_EQ(sqnAmf, 0xff9bb4d0b607u);
    EXPECT_EQ(toHex(resStar, 16), "f236a7417272bfb2d66d4d670733b527");
    EXPECT_EQ(toHex(kausf, 32), "474698caf02cc715db2ec0726510cfee6caa5bb1a649cb01224f2e23af94de1b");

    struct {
        uint8_t intAlgo, encAlgo;
        const char* knasInt;
        const char* knasEnc;
    } const keys[] = {{1, 1, "fc1ba5eaa4f21928dded772c740683d3", "7943e309e4cb693046814df55f80abed"},
                      {2, 2, "06c661bdcb505f1690bea90685d939f5", "d4c73a6303aa6b0cae734c0518134f1e"},
                      {3, 3, "0d04707842520dc782dc740f25e5a75a", "9d2f20cc3d60601ef76ee99eefe6f280"}};
    for (const char* supi : {"imsi-001010000000001", "001010000000001"})
        for (auto& kk : keys) {
            SCOPED_TRACE(std::string(supi) + " algo " + std::to_string(kk.intAlgo));
            ASSERT_EQ(__mv_algo__ue_setup_security_context2(rand.data(), resStar, kausf, snn, supi, 1, kk.intAlgo,
                                                            kk.encAlgo, knasInt, knasEnc),
                      0);
            EXPECT_EQ(toHex(knasInt, 16), kk.knasInt);
            EXPECT_EQ(toHex(knasEnc, 16), kk.knasEnc);
        }

    uint8_t kasme[32], key[16];
    Bytes plmn = hex("00f110");
    ASSERT_EQ(__mv_algo__lte__gen_kasme(k.data(), opc.data(), rand.data(), autn.data(), plmn.data(), kasme), 0);
    EXPECT_EQ(toHex(kasme, 32), "48579af8781c742d5120e6ed8ccac13193f38c53ab7aa69396f49ca6e1b0562d");
    const char* eps[2][3] = {{"19d0d29d65c012d95264356451b17f25", "e183be270c6611b50efdfb106184d03c",
                              "8ad70d4ceaa9227d6e6d181d6e3a41a1"},
                             {"8a882867a02f0cac58a00ae499b83f86", "3d6da7d07a29c8a36527b36eeda82364",
                              "8654849376e7b6abb9b0f0435a4e28b6"}};
    for (uint8_t type = 1; type <= 2; ++type)
        for (uint8_t algo = 1; algo <= 3; ++algo) {
            ASSERT_EQ(ogs_kdf_nas_eps(type, algo, kasme, key), 0);
            EXPECT_EQ(toHex(key, 16), eps[type - 1][algo - 1]) << "type " << int(type) << " algo " << int(algo);
        }
}

}  // namespace
