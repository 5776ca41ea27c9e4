// The SUCI of UEs as the subscriber files give them: the null scheme and both ECIES
// profiles against the published vectors and the home network's deconcealment, the
// octet layout rules, and tshark reading each scheme inside an identity response.
#include <gtest/gtest.h>

#include "Kestrane.h"
#include "Kestrane_nodes.h"
#include "Kestrane_seams.h"
#include "ks_engine_env.h"
#include "mv_nas_util.h"
#include "mvalgo_testutil.h"
#include "nas_testlib.h"
#include "nassec_testlib.h"

using nst::hex;
using nst::unhex;

namespace {

const char* kKey = "000102030405060708090a0b0c0d0e0f";
const char* kOpc = "f0e0d0c0b0a090807060504030201000";

// The home network keys of the published sets.
const char* kPubA = "5a8d38864820197c3394b92613b20b91633cbd897119273bf8e4a6f4eec0a650";
const char* kPrivA = "c53c22208b61860b06c62e5406a7b330c2b577aa5558981510d128247d38bd1d";
const char* kPubB = "0272da71976234ce833a6907425867b82e074d44ef907dfb4b3e21c1c2256ebcd1";
const char* kPubBLong =
    "0472da71976234ce833a6907425867b82e074d44ef907dfb4b3e21c1c2256ebcd15a7ded52fcbb097a4ed250e036c7b9c8c7004c4eedc4f068c"
    "d7bf8d3f900e3b4";
const char* kPrivB = "f1ab1074477ebcc7f554ea1c5fc368b1616730155e0041ac447d6301975fecda";

std::string q(const char* s) { return std::string("\"") + s + "\""; }

const std::string kList = std::string(R"({"Format": 2, "MCC": "274", "MNC": "012", "SubKey": )") + q(kKey) +
                          R"(, "OPc": )" + q(kOpc) + R"(, "RoutingIndicator": 1234,
  "SupiList": [
    {"MSIN": 274012001002086},
    {"MSIN": 274012001002087, "ProtectionScheme": 1, "HomeNetworkPublicKeyId": 10, "HomeNetworkPublicKey": )" +
                          q(kPubA) + R"(},
    {"MSIN": 274012001002088, "ProtectionScheme": 2, "HomeNetworkPublicKeyId": 11, "HomeNetworkPublicKey": )" +
                          q(kPubB) + R"(},
    {"MSIN": 274012001002089, "ProtectionScheme": 2, "HomeNetworkPublicKeyId": 12, "HomeNetworkPublicKey": )" +
                          q(kPubBLong) + R"(},
    {"MSIN": 274012001002090, "ProtectionScheme": 1, "HomeNetworkPublicKey": "5a8d3886"},
    {"MSIN": 274012001002091, "ProtectionScheme": 2, "HomeNetworkPublicKeyId": 300, "HomeNetworkPublicKey": )" +
                          q(kPubB) + R"(},
    {"MSIN": 274012001002092, "RoutingIndicator": 12345}]})";

const std::string kRange = std::string(R"({"Format": 1, "SupiRange": [
  {"MCC": "001", "MNC": "01", "SubKey": )") + q(kKey) + R"(, "OPc": )" + q(kOpc) + R"(,
   "MSINStart": 1010123456789, "MSINEnd": 1010123456790, "RoutingIndicator": 7,
   "ProtectionScheme": 1, "HomeNetworkPublicKeyId": 3, "HomeNetworkPublicKey": )" + q(kPubA) + R"(}]})";

const std::string kCfg = R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 100, "IMSIPrefixWithZERO": 1,
  "LogLevel": {"APPLICATION": 5}, "UEFiles": [{"Name": "list.json"}, {"Name": "range.json"}]})";

kst::EngineInDir* const gEnv = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(
    new kst::EngineInDir("suci", {{"cfg.json", kCfg}, {"list.json", kList}, {"range.json", kRange}})));

MV_KsUE* ue(const char* imsi) {
    MV_KsUE* u = nullptr;
    KsEngine__FindUEByIMSI(&u, imsi);
    return u;
}

json_t* vectorSet(const mvt::VectorFile& f, int scheme, const char* supiType) {
    size_t i;
    json_t* s;
    json_array_foreach(f.list(), i, s) {
        if (mvt::num(s, "protection_scheme_id") == scheme && mvt::str(s, "supi_type") == supiType) return s;
    }
    ADD_FAILURE() << "no set for scheme " << scheme;
    return nullptr;
}

std::vector<uint8_t> suciOf(MV_KsUE* u, std::span<const uint8_t> eph = {}) {
    uint8_t out[KS_SUCI_MAX_LEN];
    int len = 0;
    EXPECT_EQ(KsNAS__build_suci(u, 1, nullptr, out, &len, eph), 1);
    return {out, out + len};
}

TEST(SuciFromUEs, PublishedVectorsForEveryScheme) {
    mvt::VectorFile f("suci.json");
    // The null scheme: the loaded UE of the vector's SUPI.
    json_t* null = vectorSet(f, 0, "IMSI");
    MV_KsUE* plain = ue("274012001002086");
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(hex(suciOf(plain)), "01722410" "2143" "00" "00" + mvt::str(null, "scheme_output"));

    // The profiles: a UE of that SUPI with the keys of the loaded UEs.
    struct Case {
        const char* keyFrom;
        int scheme;
        uint8_t keyId;
    } cases[] = {{"274012001002087", 1, 10}, {"274012001002088", 2, 11}, {"274012001002089", 2, 12}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.keyFrom);
        MV_KsUE* from = ue(c.keyFrom);
        ASSERT_NE(from, nullptr);
        ASSERT_EQ(from->SuciProtectionScheme, c.scheme);
        EXPECT_EQ(from->uRoutingIndicator, 1234);
        json_t* v = vectorSet(f, c.scheme, "IMSI");
        nst::UePtr u = nst::makeUe("imsi-274012001002086", "274", "012");
        u->uRoutingIndicator = from->uRoutingIndicator;
        u->SuciProtectionScheme = from->SuciProtectionScheme;
        u->SuciHomeNetworkKeyId = from->SuciHomeNetworkKeyId;
        u->SuciHomeNetworkPublicKeyLen = from->SuciHomeNetworkPublicKeyLen;
        memcpy(u->SuciHomeNetworkPublicKey, from->SuciHomeNetworkPublicKey, sizeof u->SuciHomeNetworkPublicKey);
        std::vector<uint8_t> eph = mvt::hexOf(v, "eph_private_key");
        char head[32];
        snprintf(head, sizeof head, "017224102143%02x%02x", c.scheme, c.keyId);
        EXPECT_EQ(hex(suciOf(u.get(), eph)), head + mvt::str(v, "scheme_output"));
    }
}

TEST(SuciFromUEs, FreshEphemeralKeysDeconcealAtTheHomeNetwork) {
    struct Case {
        const char* imsi;
        uint8_t scheme;
        const char* priv;
        const char* msinBcd;
    } cases[] = {
        {"274012001002087", 1, kPrivA, "00012080f7"},
        {"274012001002088", 2, kPrivB, "00012080f8"},
        {"274012001002089", 2, kPrivB, "00012080f9"},
        {"001010123456789", 1, kPrivA, "1032547698"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.imsi);
        MV_KsUE* u = ue(c.imsi);
        ASSERT_NE(u, nullptr);
        std::vector<uint8_t> a = suciOf(u), b = suciOf(u);
        ASSERT_GT(a.size(), 8u);
        EXPECT_EQ(a[6], c.scheme);
        EXPECT_NE(hex(a), hex(b));  // a new ephemeral key each time
        for (const auto& s : {a, b}) {
            uint8_t msin[16];
            std::vector<uint8_t> priv = unhex(c.priv);
            int n = __mv_algo__suci_deconceal(c.scheme, priv, {s.data() + 8, s.size() - 8}, msin);
            ASSERT_GT(n, 0);
            EXPECT_EQ(hex(msin, size_t(n)), c.msinBcd);
        }
    }
}

TEST(SuciFromUEs, KeysOfTheWrongSizeLeaveTheNullSchemeWithALogLine) {
    std::string log = gEnv->appLog();
    for (const char* imsi : {"274012001002090", "274012001002091"}) {
        SCOPED_TRACE(imsi);
        MV_KsUE* u = ue(imsi);
        ASSERT_NE(u, nullptr);
        EXPECT_EQ(u->SuciProtectionScheme, 0);
        EXPECT_EQ(hex(suciOf(u)).substr(12, 4), "0000");
        EXPECT_NE(log.find(std::string("[imsi-") + imsi + "] ProtectionScheme="), std::string::npos);
    }
    MV_KsUE* badRi = ue("274012001002092");
    ASSERT_NE(badRi, nullptr);
    EXPECT_EQ(badRi->uRoutingIndicator, 0);
    EXPECT_NE(log.find("[imsi-274012001002092] RoutingIndicator is not a number of up to 4 digits"), std::string::npos);
}

// ---------------------------------------------------------------- layout

TEST(SuciLayout, RoutingIndicatorMsinAndPlmnRules) {
    struct Case {
        const char* what;
        const char* supi;
        const char* mcc;
        const char* mnc;
        uint16_t ri;
        const char* stepMcc;
        const char* stepMnc;
        bool ran;
        const char* want;  // hex, or "" when refused
    } cases[] = {
        {"imsi- and a 2-digit MNC: 10 MSIN digits", "imsi-001010123456789", "001", "01", 0, "", "", false,
         "0100f110" "00f0" "0000" "1032547698"},
        {"imsi- and a 3-digit MNC: 9 MSIN digits", "imsi-310410123456789", "310", "410", 1234, "", "", false,
         "01130014" "2143" "0000" "21436587f9"},
        {"15 bare digits", "001010123456789", "001", "01", 12, "", "", false, "0100f110" "0021" "0000" "1032547698"},
        {"any other SUPI whole", "0123456", "001", "01", 123, "", "", false, "0100f110" "21f3" "0000" "103254f6"},
        {"the largest routing indicator", "imsi-001010123456789", "001", "01", 9999, "", "", false,
         "0100f110" "9999" "0000" "1032547698"},
        {"a routing indicator of five digits", "imsi-001010123456789", "001", "01", 10000, "", "", false, ""},
        {"a SUPI that is not digits", "imsi-00101abc", "001", "01", 0, "", "", false, ""},
        {"the step's PLMN comes first", "imsi-001010123456789", "001", "01", 0, "208", "93", true,
         "0102f839" "00f0" "0000" "1032547698"},
        {"then the UE's", "imsi-001010123456789", "001", "01", 0, "208", "", true, "0100f110" "00f0" "0000" "1032547698"},
        {"then the RAN's, whose MNC cuts a UE without one", "imsi-310450123456789", "", "", 0, "", "", true,
         "0113f054" "00f0" "0000" "1032547698"},
        {"no PLMN at all", "imsi-001010123456789", "", "", 0, "", "", false, ""},
    };
    MV_KsNGRan ran{};
    const uint8_t ranPlmn[3] = {0x13, 0xF0, 0x54};  // MCC 310, MNC 45
    memcpy(ran.HexPlmn, ranPlmn, 3);
    MV_KsRanAmfConnection conn{};
    conn.ran = &ran;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        nst::UePtr u = nst::makeUe(c.supi, c.mcc, c.mnc);
        u->uRoutingIndicator = c.ri;
        if (c.ran) u->TGPP.ranAmfConnection = &conn;
        KsStep step{};
        snprintf(step.mcc, sizeof step.mcc, "%s", c.stepMcc);
        snprintf(step.mnc, sizeof step.mnc, "%s", c.stepMnc);
        uint8_t out[KS_SUCI_MAX_LEN];
        int len = 0;
        int rc = KsNAS__build_suci(u.get(), 1, &step, out, &len);
        if (!*c.want) {
            EXPECT_EQ(rc, -1);
            continue;
        }
        ASSERT_EQ(rc, 1);
        EXPECT_EQ(hex(out, size_t(len)), c.want);
    }
}

TEST(SuciLayout, OfferedAlgorithmsFollowTheStep) {
    KsStep step{};
    step.EA0 = step.EA2 = step.IA1 = step.IA2 = 1;
    NASPdu_FGUESecurityCapability ie{};
    KsNAS__set_ue_security_capability(&step, &ie);
    EXPECT_EQ(ie.isset, 1);
    ASSERT_EQ(ie.Length, 2);
    EXPECT_EQ(ie.data[0], 0xA0);
    EXPECT_EQ(ie.data[1], 0x60);
}

// ---------------------------------------------------------------- tshark

TEST(SuciTshark, IdentityResponsesOfEverySchemeDissect) {
    if (!tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    struct Case {
        const char* imsi;
        const char* mnc;
        const char* ri;
        const char* scheme;
        const char* pki;
        int ecc;  // octets of the ephemeral key, 0 for the null scheme
    } cases[] = {
        {"274012001002086", "12", "1234", "0", "0", 0},  {"274012001002087", "12", "1234", "1", "10", 32},
        {"274012001002088", "12", "1234", "2", "11", 33}, {"274012001002089", "12", "1234", "2", "12", 33},
        {"001010123456789", "1", "007", "1", "3", 32},
    };
    std::vector<std::vector<uint8_t>> packets;
    for (const Case& c : cases) {
        NASPduFGMM_IdentityResponse msg{};
        ASSERT_EQ(KsNAS__set_suci_identity(ue(c.imsi), 1, nullptr, &msg.mFGSMobileIdentity), 1);
        __mv_asn_coding_context ctx{};
        ASSERT_EQ(__mv_naspdu_fgmm_encodeIdentityResponse(&msg, &ctx), 0);
        packets.emplace_back(ctx.buffer, ctx.buffer + ctx.pos);
    }
    TsharkRun run = runTshark("nas-5gs", packets);
    ASSERT_EQ(run.rc, 0) << run.report;
    ASSERT_EQ(run.packets.size(), packets.size());
    for (size_t i = 0; i < packets.size(); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(c.imsi);
        const TsharkFields& f = run.packets[i];
        EXPECT_EQ(fieldValues(f, "nas_5gs.mm.type_id"), std::vector<std::string>{"1"});
        EXPECT_EQ(fieldValues(f, "e212.mcc"), std::vector<std::string>{std::string(c.imsi, 3) == "274" ? "274" : "1"});
        EXPECT_EQ(fieldValues(f, "e212.mnc"), std::vector<std::string>{c.mnc});
        EXPECT_EQ(fieldValues(f, "nas_5gs.mm.suci.routing_indicator"), std::vector<std::string>{c.ri});
        EXPECT_EQ(fieldValues(f, "nas_5gs.mm.suci.scheme_id"), std::vector<std::string>{c.scheme});
        EXPECT_EQ(fieldValues(f, "nas_5gs.mm.suci.pki"), std::vector<std::string>{c.pki});
        if (c.ecc == 0) {
            std::string imsi = c.imsi;
            EXPECT_EQ(fieldValues(f, "nas_5gs.mm.suci.msin"), std::vector<std::string>{imsi.substr(imsi[0] == '2' ? 6 : 5)});
            continue;
        }
        std::vector<std::string> key = fieldValues(f, "nas_5gs.mm.suci.scheme_output.ecc_public_key");
        ASSERT_EQ(key.size(), 1u);
        EXPECT_EQ(key[0].size(), size_t(c.ecc) * 3 - 1);  // "aa:bb:..."
        std::vector<std::string> ct = fieldValues(f, "nas_5gs.mm.suci.scheme_output.ciphertext");
        ASSERT_EQ(ct.size(), 1u);
        EXPECT_EQ(ct[0].size(), 5u * 3 - 1);
        EXPECT_EQ(fieldValues(f, "nas_5gs.mm.suci.scheme_output.mac_tag").size(), 1u);
    }
}

}  // namespace
