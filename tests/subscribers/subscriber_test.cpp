// Subscribers as a user configures them: both file formats with their optional keys
// present and absent, data/uel.json ranges, UEAddlData, the IMSI index and pool, the
// PLMN and serving network name, and latching UEs to RANs through a stand-in registry.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Kestrane.h"
#include "Kestrane_seams.h"
#include "ks_engine_env.h"
#include "KsNGAP.h"

namespace {

const char* K1 = "465B5CE8B199B49FAA5F0A2EE238A6BC";
const char* O1 = "E8ED289DEBA952E4283B54E88E6183CA";
const char* K3 = "000102030405060708090a0b0c0d0e0f";
const char* O3 = "f0e0d0c0b0a090807060504030201000";
const char* K4 = "fec86ba6eb707ed08905757b1bb44b8f";
const char* O4 = "5f1d289c5d354d0a140c2548f5f3e3ba";

std::string quoted(const char* s) { return std::string("\"") + s + "\""; }

const std::string kRange = std::string(R"({"Format": 1, "SupiRange": [
  {"MCC": "404", "MNC": "26", "SubKey": )") + quoted(K1) + R"(, "OPc": )" + quoted(O1) + R"(,
   "MSINStart": 404260000000001, "MSINEnd": 404260000000100, "IMEI": 356938035643800, "ScID": 7},
  {"MCC": "310", "MNC": "410", "SubKey": )" + quoted(K3) + R"(, "OPc": )" + quoted(O3) + R"(,
   "MSINStart": "310410000000001", "MSINEnd": "310410000000003"},
  {"MCC": "404", "MNC": "26", "MSINStart": "x", "MSINEnd": 5},
  {"MCC": "404", "MNC": "26", "MSINStart": 404260000000050, "MSINEnd": 404260000000060},
  {"MCC": "4040", "MNC": "26", "MSINStart": 404260000000200, "MSINEnd": 404260000000201}]})";

const std::string kList = std::string(R"({"Format": 2, "ConcurrentSessions": 4, "MCC": 1, "MNC": "01",
  "SubKey": )") + quoted(K3) + R"(, "OPc": )" + quoted(O3) + R"(, "SQN": 64, "IMEI_BASE_NO": 490154203237510,
  "Delay": 3, "SST": 1, "UEUsageSettings": 2, "ScID": 9, "SD": "0A0B0C", "IMEI_SV": "47x",
  "SupiList": [
    {"MSIN": 1010000000001},
    {"MSIN": 1010000000002, "IMEI": "356938035643809", "SQN": 96, "SubKey": )" + quoted(K4) + R"(, "OPc": )" +
                          quoted(O4) + R"(, "MCC": "208", "MNC": "093"},
    {"MSIN": 1010000000003, "E": 0},
    {"MSIN": 1010000000004},
    {"MSIN": 12345},
    {"MSIN": 1010000000005, "MNC": "1"}]})";

const std::string kBare = R"({"Format": 2, "MCC": "001", "MNC": "01", "UEUsageSettings": 5,
  "SupiList": [{"MSIN": 1010000000100}]})";

const std::string kUel = std::string(R"([
  {"ID": 1, "MSINStart": "001010000000500", "MSINEnd": "001010000000502", "IMEIBegin": "356938035640000",
   "APN": "internet", "MSISDNBegin": "919800000001", "MCC": "001", "MNC": "01", "SubKey": )") + quoted(K1) +
                          R"(, "OPC": )" + quoted(O1) + R"(},
  {"ID": 2, "MSINStart": "001010000000600", "MSINEnd": "001010000000600", "MSISDNBegin": "5", "MCC": "001", "MNC": "01"},
  {"ID": 3, "MSINStart": "001010000000700", "MSINEnd": "001010000000701", "MCC": "001", "MNC": "01"},
  {"ID": 4, "MSINStart": "001010000000800", "MSINEnd": "001010000000800", "MSISDNBegin": "7", "MCC": 1, "MNC": 1},
  {"ID": 5, "MSINStart": "001010000000900", "MSINEnd": "001010000000900", "MSISDNBegin": "8", "MCC": "001",
   "MNC": 1000}])";

const std::string kAddl = R"([{"IMSI": "001010000000500", "UEIPv4": "10.45.0.7"}, {"IMSI": "999", "UEIPv4": "10.0.0.1"},
  {"IMSI": "001010000000501", "UEIPv4": "not-an-ip"}, {"IMSI": "001010000000502"}])";

const std::string kCfg = R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 3000, "IMSIPrefixWithZERO": 1,
  "LogLevel": {"APPLICATION": 5, "COMMON": 4},
  "UEFiles": [{"Name": "range.json"}, {"Name": "list.json"}, {"Name": "bare.json"}, {"Name": "off.json", "Enabled": 0},
              {"Name": "fmt9.json"}],
  "UEAddlData": "addl.json"})";

kst::EngineInDir* const gEnv = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(
    new kst::EngineInDir("subs", {{"cfg.json", kCfg},
                                  {"range.json", kRange},
                                  {"list.json", kList},
                                  {"bare.json", kBare},
                                  {"fmt9.json", R"({"Format": 9})"},
                                  {"addl.json", kAddl},
                                  {"data/uel.json", kUel}})));

MV_KsUE* ue(const std::string& imsi) {
    MV_KsUE* u = nullptr;
    KsEngine__FindUEByIMSI(&u, imsi.c_str());
    return u;
}

std::vector<uint8_t> bytes(const char* hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; hex[i] && hex[i + 1]; i += 2) out.push_back(uint8_t(std::stoi(std::string(hex + i, 2), nullptr, 16)));
    return out;
}

std::vector<uint8_t> bytes(const uint8_t* p, size_t n) { return std::vector<uint8_t>(p, p + n); }

template <class S>
std::string str(const S& s) {
    return std::string(reinterpret_cast<const char*>(s.val), s.len);
}

// ---------------------------------------------------------------- loading

TEST(SubscriberFiles, RangeFormatGivesIdentityKeysPlmnAndServingName) {
    MV_KsUE* u = ue("404260000000001");
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(str(u->supi), "imsi-404260000000001");
    EXPECT_EQ(u->supi.isset, 1);
    EXPECT_EQ(u->l_imsi, 404260000000001u);
    EXPECT_EQ(u->msin, 404260000000001u);
    EXPECT_STREQ(u->mcc, "404");
    EXPECT_STREQ(u->mnc, "26");
    EXPECT_EQ(bytes(u->plmnId.val, 3), (std::vector<uint8_t>{0x04, 0xF4, 0x62})) << "2-digit MNC: filler F";
    EXPECT_EQ(u->plmnId.len, 3);
    EXPECT_EQ(bytes(u->K, 16), bytes(K1));
    EXPECT_EQ(bytes(u->OPc, 16), bytes(O1));
    EXPECT_STREQ(u->TGPP.snn, "5G:mnc026.mcc404.3gppnetwork.org");
    EXPECT_STREQ(u->NTGPP.snn, "5G:mnc026.mcc404.3gppnetwork.org");
    EXPECT_EQ(u->TGPP.ngKSI, 7);
    EXPECT_EQ(u->NTGPP.ngKSI, 7);
    EXPECT_EQ(str(u->imei), "356938035643800");
    EXPECT_EQ(str(u->imeisv), "3569380356438001");
    EXPECT_EQ(str(u->msisdn), "0");
    EXPECT_EQ(u->apn.isset, 0);
    EXPECT_STREQ(u->TAI_MCC, "404");
    EXPECT_STREQ(u->TAI_MNC, "26");
    EXPECT_EQ(u->TAI_TAC, 1u);
    EXPECT_EQ(u->TAI_CellID, 1);
    for (uint16_t sc : {u->SC_EA0, u->SC_EA1, u->SC_EA2, u->SC_EA3, u->SC_IA0, u->SC_IA1, u->SC_IA2, u->SC_IA3})
        EXPECT_EQ(sc, 1);
    for (int i = 0; i < KS_UE_PDU_SESSIONS; ++i) {
        EXPECT_EQ(u->pduSessions[i].pduSessionId, i);
        EXPECT_EQ(u->pduSessions[i].isStarted, 0);
    }
    EXPECT_EQ(u->ksScanario, nullptr) << "ScID does not give a UE a scenario at load";
    EXPECT_EQ(bytes(u->AGF_MAC, 6), (std::vector<uint8_t>(6, 0xFF)));
    uint32_t id = uint32_t(u->ueId + 1);
    EXPECT_EQ(bytes(u->AGF_RG_MAC, 6),
              (std::vector<uint8_t>{0, 0, uint8_t(id >> 24), uint8_t(id >> 16), uint8_t(id >> 8), uint8_t(id)}));

    EXPECT_EQ(str(ue("404260000000100")->imei), "356938035643899") << "the IMEI grows by one per UE";

    MV_KsUE* three = ue("310410000000002");
    ASSERT_NE(three, nullptr) << "MSINStart and MSINEnd may be decimal text";
    EXPECT_EQ(bytes(three->plmnId.val, 3), (std::vector<uint8_t>{0x13, 0x00, 0x14}));
    EXPECT_STREQ(three->TGPP.snn, "5G:mnc410.mcc310.3gppnetwork.org");
    EXPECT_EQ(str(three->imei), "1") << "no IMEI: 0, then one per UE";
    EXPECT_EQ(str(three->imeisv), "11");
    EXPECT_EQ(bytes(three->K, 16), bytes(K3));
    EXPECT_EQ(ue("310410000000004"), nullptr);
}

TEST(SubscriberFiles, ListFormatFileKeysAndItemOverrides) {
    const __mv_ks__ue_file_config& fc = __ksEngine->UEFiles[1].ueFileConfig;
    EXPECT_EQ(fc.ConcurrentSessions, 4u);
    EXPECT_STREQ(fc.MCC, "001") << "the number 1 as an MCC";
    EXPECT_STREQ(fc.MNC, "01");
    EXPECT_EQ(bytes(fc.SubKey, 16), bytes(K3));
    EXPECT_EQ(fc.SQN, 64u);
    EXPECT_EQ(fc.IMEI, 490154203237510u);
    EXPECT_EQ(fc.Delay, 3u);
    EXPECT_EQ(fc.SST, 1u);
    EXPECT_EQ(bytes(fc.SD, 3), (std::vector<uint8_t>{0x0A, 0x0B, 0x0C}));
    EXPECT_EQ(fc.SD_isset, 1);
    EXPECT_EQ(fc.UEUsageSettings, 2u);
    EXPECT_EQ(fc.scID, 9u);
    EXPECT_STREQ(fc.IMEI_SV, "47") << "first 2 characters";

    MV_KsUE* first = ue("001010000000001");
    ASSERT_NE(first, nullptr) << "IMSIPrefixWithZERO pads the 13-digit MSIN";
    EXPECT_STREQ(first->mcc, "001");
    EXPECT_EQ(bytes(first->plmnId.val, 3), (std::vector<uint8_t>{0x00, 0xF1, 0x10}));
    EXPECT_EQ(bytes(first->K, 16), bytes(K3));
    EXPECT_EQ(bytes(first->OPc, 16), bytes(O3));
    EXPECT_EQ(str(first->imei), "490154203237510") << "IMEI_BASE_NO plus the position";
    EXPECT_EQ(first->TGPP.sqn, 64u) << "the file's SQN when the item has none";
    EXPECT_EQ(first->NTGPP.sqn, 64u);
    ASSERT_EQ(first->sNssaisCount, 1u);
    EXPECT_EQ(first->sNssais[0].sst, 1);
    EXPECT_EQ(bytes(first->sNssais[0].sd, 3), (std::vector<uint8_t>{0x0A, 0x0B, 0x0C}));
    EXPECT_EQ(first->sNssais[0].sd_isset, 1);

    MV_KsUE* over = ue("001010000000002");
    ASSERT_NE(over, nullptr);
    EXPECT_STREQ(over->mcc, "208");
    EXPECT_STREQ(over->mnc, "093");
    EXPECT_EQ(bytes(over->plmnId.val, 3), (std::vector<uint8_t>{0x02, 0x38, 0x90}));
    EXPECT_STREQ(over->TGPP.snn, "5G:mnc093.mcc208.3gppnetwork.org");
    EXPECT_EQ(bytes(over->K, 16), bytes(K4));
    EXPECT_EQ(bytes(over->OPc, 16), bytes(O4));
    EXPECT_EQ(str(over->imei), "356938035643809");
    EXPECT_EQ(over->TGPP.sqn, 96u);

    EXPECT_EQ(ue("001010000000003"), nullptr) << "E 0 adds nothing";
    EXPECT_EQ(str(ue("001010000000004")->imei), "490154203237513") << "the skipped item keeps its position";
    ASSERT_NE(ue("000000000012345"), nullptr);
    EXPECT_EQ(str(ue("000000000012345")->supi), "imsi-000000000012345");

    const __mv_ks__ue_file_config& bare = __ksEngine->UEFiles[2].ueFileConfig;
    EXPECT_EQ(bare.ConcurrentSessions, 1u);
    EXPECT_EQ(bare.UEUsageSettings, 1u) << "5 is neither 1 nor 2";
    EXPECT_EQ(bare.SST, 0u);
    EXPECT_EQ(bare.SD_isset, 0);
    MV_KsUE* b = ue("001010000000100");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->sNssaisCount, 0u);
    EXPECT_EQ(str(b->imei), "0");
    EXPECT_EQ(b->TGPP.sqn, 0u);
    EXPECT_EQ(bytes(b->K, 16), std::vector<uint8_t>(16, 0));
    EXPECT_NE(gEnv->appLog().find("[imsi-001010000000100] SubKey=[] is not 32 hexadecimal digits"), std::string::npos);
}

TEST(SubscriberFiles, UEListRangesAndAdditionalData) {
    for (int i = 0; i < 3; ++i) {
        MV_KsUE* u = ue("00101000000050" + std::to_string(i));
        ASSERT_NE(u, nullptr);
        EXPECT_EQ(str(u->msisdn), "91980000000" + std::to_string(i + 1));
        EXPECT_EQ(str(u->imei), "35693803564000" + std::to_string(i));
        EXPECT_EQ(str(u->apn), "internet");
        EXPECT_EQ(u->apn.len, 8);
        EXPECT_EQ(bytes(u->K, 16), bytes(K1));
    }
    MV_KsUE* bare = ue("001010000000600");
    ASSERT_NE(bare, nullptr);
    EXPECT_EQ(str(bare->msisdn), "5");
    EXPECT_EQ(bare->apn.isset, 0);
    EXPECT_EQ(ue("001010000000700"), nullptr);
    EXPECT_NE(gEnv->appLog().find("uel.json element ID=3 skipped: MSISDNBegin is required"), std::string::npos);

    EXPECT_EQ(ue("001010000000500")->static_UEIPv4, 0x0A2D0007u);
    EXPECT_EQ(ue("001010000000501")->static_UEIPv4, 0u);
    EXPECT_EQ(ue("001010000000502")->static_UEIPv4, 0u);
    EXPECT_NE(gEnv->appLog().find("UEIPv4=[not-an-ip] is not an IPv4 address"), std::string::npos);

    MV_KsUE* numbers = ue("001010000000800");
    ASSERT_NE(numbers, nullptr);
    EXPECT_STREQ(numbers->mcc, "001");
    EXPECT_STREQ(numbers->mnc, "01");
    EXPECT_EQ(bytes(numbers->plmnId.val, 3), (std::vector<uint8_t>{0x00, 0xF1, 0x10}));
    EXPECT_EQ(ue("001010000000900"), nullptr);
    EXPECT_NE(gEnv->appLog().find("uel.json element ID=5 skipped: MCC=\"001\" MNC=1000 refused: an MCC is 3 digits"),
              std::string::npos);
    EXPECT_EQ(ue("404260000000200"), nullptr);
    EXPECT_NE(gEnv->appLog().find("SupiRange element 4 of range.json skipped: MCC=\"4040\" MNC=\"26\" refused"),
              std::string::npos);
    EXPECT_EQ(ue("001010000000005"), nullptr);
    EXPECT_NE(gEnv->appLog().find("SupiList item 5 of list.json skipped: MCC=(absent) MNC=\"1\" refused"),
              std::string::npos);

    EXPECT_EQ(__ksEngine->ksUETotal, 103 + 4 + 1 + 5)
        << "ranges, list, bare list, uel.json; duplicates and refused MCC or MNC add nothing";
}

TEST(SubscriberFiles, FirstUEMakesTheDefaultScenario) {
    KsScanario* sc = __ksEngine->ksScanarioDefault;
    ASSERT_NE(sc, nullptr);
    EXPECT_EQ(sc->id, 10001u);
    EXPECT_EQ(sc->IsDefault, 1u);
    EXPECT_EQ(KsScanario__getByScID(10001), sc);
    const uint32_t want[][2] = {{KS_STEP__REGISTRATION, 1}, {KS_STEP__SLEEP, 5}, {KS_STEP__REGISTRATION, 3},
                                {KS_STEP__SLEEP, 5},        {KS_STEP__REGISTRATION, 2}};
    ASSERT_EQ(sc->totalSteps, 5);
    KsStep* st = sc->stepHead;
    for (const auto& w : want) {
        ASSERT_NE(st, nullptr);
        EXPECT_EQ(st->StepCode, w[0]);
        if (w[0] == KS_STEP__SLEEP) {
            EXPECT_EQ(st->SleepTime, w[1]);
        } else {
            EXPECT_EQ(st->RegistrationType, w[1]);
            for (uint32_t f : {st->EA0, st->EA1, st->EA2, st->IA0, st->IA1, st->IA2}) EXPECT_EQ(f, 1u);
        }
        st = st->Next;
    }
}

// ---------------------------------------------------------------- the table

TEST(SubscriberTable, DuplicatesPaddingAndIds) {
    int total = __ksEngine->ksUETotal;
    MV_KsUE* u = ue("404260000000001");
    EXPECT_EQ(KsEngine__AddUE(nullptr, "404", "26", K1, O1, 1, 404260000000001, 0, 1, 0, ""), u);
    EXPECT_EQ(__ksEngine->ksUETotal, total);
    EXPECT_NE(gEnv->appLog().find("IMSI=404260000000001 Found, No Adding Again"), std::string::npos);

    __ksEngine->IMSIPrefixWithZERO = 0;
    MV_KsUE* plain = KsEngine__AddUE(nullptr, "001", "01", K1, O1, 1, 777, 0, 1, 0, "");
    __ksEngine->IMSIPrefixWithZERO = 1;
    MV_KsUE* padded = KsEngine__AddUE(nullptr, "001", "01", K1, O1, 1, 777, 0, 1, 0, "");
    ASSERT_NE(plain, nullptr);
    ASSERT_NE(padded, nullptr);
    EXPECT_NE(plain, padded);
    EXPECT_EQ(str(plain->supi), "imsi-777");
    EXPECT_EQ(str(padded->supi), "imsi-000000000000777");
    EXPECT_EQ(__ksEngine->ksUETotal, total + 2);
    EXPECT_EQ(__ksEngine->ksUECurrent, padded) << "the configured list is in load order";

    EXPECT_EQ(KsEngine__FindUEByUEId(padded->ueId), padded);
    EXPECT_EQ(KsEngine__GetUEId(padded), padded->ueId);
    EXPECT_EQ(KsEngine__FindUEByUEId(padded->ueId + 1), nullptr) << "no record has had that id yet";
    EXPECT_EQ(KsEngine__FindUEByUEId(uint64_t(1) << 40), nullptr);
    EXPECT_EQ(KsEngine__FindUEByIMSIExists("000000000000777"), 1);
    EXPECT_EQ(KsEngine__FindUEByIMSIExists("0777"), 0);

    uint32_t avail = __ksEngine->ksUEPoolAvailable;
    KsEngine__ReleaseKsUE(padded);
    EXPECT_EQ(__ksEngine->ksUEPoolAvailable, avail) << "a configured UE stays configured";
    EXPECT_EQ(ue("000000000000777"), padded);
    MV_KsUE* spare = KsEngine__AllocateKsUE();
    ASSERT_NE(spare, nullptr);
    uint64_t spareId = spare->ueId;
    KsEngine__ReleaseKsUE(spare);
    KsEngine__ReleaseKsUE(spare);
    EXPECT_EQ(__ksEngine->ksUEPoolAvailable, avail) << "a second release does nothing";
    MV_KsUE* again = KsEngine__AllocateKsUE();
    EXPECT_EQ(again, spare) << "a released record is handed out again, zeroed";
    EXPECT_EQ(again->ueId, spareId);
    EXPECT_EQ(again->isReleased, 0);
}

TEST(SubscriberTable, FullPoolReturnsNullAndKeepsWhatItHas) {
    uint32_t room = __ksEngine->ksUEPoolAvailable;
    ASSERT_GT(room, 0u);
    uint32_t added = 0;
    for (uint64_t n = 1; n <= room + 5; ++n) {
        if (!KsEngine__AddUE(nullptr, "999", "99", K1, O1, n, 999990000000000 + n, 0, 1, 0, "")) break;
        ++added;
    }
    EXPECT_EQ(added, room);
    EXPECT_EQ(__ksEngine->ksUEPoolAvailable, 0u);
    EXPECT_EQ(KsEngine__AddUE(nullptr, "999", "99", K1, O1, 0, 999991111111111, 0, 1, 0, ""), nullptr);
    EXPECT_EQ(KsEngine__AllocateKsUE(), nullptr);
    EXPECT_NE(KsEngine__AddUE(nullptr, "404", "26", K1, O1, 1, 404260000000001, 0, 1, 0, ""), nullptr)
        << "an existing IMSI is still found";
}

TEST(SubscriberTable, KeysAreUpdatedOnlyForKnownIMSIsAndWholeHex) {
    MV_KsUE* u = ue("404260000000002");
    EXPECT_EQ(KsEngine__UpdateOPCSubKey("404260000000002", O3, K3), 1);
    EXPECT_EQ(bytes(u->K, 16), bytes(K3));
    EXPECT_EQ(bytes(u->OPc, 16), bytes(O3));
    EXPECT_EQ(KsEngine__UpdateOPCSubKey("404269999999999", O1, K1), 0);
    EXPECT_EQ(KsEngine__UpdateOPCSubKey("404260000000002", "12", K1), 0) << "a short key changes nothing";
    EXPECT_EQ(bytes(u->K, 16), bytes(K3));
    EXPECT_EQ(KsEngine__UpdateOPCSubKey("404260000000002", O1, "zz5B5CE8B199B49FAA5F0A2EE238A6BC"), 0);
    EXPECT_EQ(bytes(u->OPc, 16), bytes(O3));
}

TEST(SubscriberTable, N2HandoverIndexByAmfUeId) {
    MV_KsUE* a = ue("404260000000003");
    MV_KsUE* b = ue("404260000000004");
    KsEngine__AddUEToN2Handover(a, 1);
    KsEngine__AddUEToN2Handover(b, 0xFFFFFFFFFFull);
    EXPECT_EQ(KsEngine__FindFromN2Handover(1), a);
    EXPECT_EQ(KsEngine__FindFromN2Handover(0xFFFFFFFFFFull), b);
    EXPECT_EQ(KsEngine__FindFromN2Handover(10), nullptr) << "1 is a prefix of 10 in text; it must not match";
    KsEngine__RemoveUEFromN2Handover(1);
    EXPECT_EQ(KsEngine__FindFromN2Handover(1), nullptr);
    EXPECT_EQ(KsEngine__FindFromN2Handover(0xFFFFFFFFFFull), b);
}

// ---------------------------------------------------------------- PLMN and serving network

TEST(ServingNetwork, PlmnCodingBothWays) {
    struct Case {
        const char *mcc, *mnc;
        std::vector<uint8_t> plmn;
    };
    const Case cases[] = {{"001", "01", {0x00, 0xF1, 0x10}},
                          {"404", "26", {0x04, 0xF4, 0x62}},
                          {"310", "410", {0x13, 0x00, 0x14}},
                          {"208", "093", {0x02, 0x38, 0x90}},
                          {"999", "999", {0x99, 0x99, 0x99}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.mcc) + "/" + c.mnc);
        uint8_t p[3] = {}, p2[3] = {};
        KsEngine__get_plmnHex(p, c.mcc, c.mnc);
        KsEngine__get_plmnHex2(p2, c.mcc, c.mnc);
        EXPECT_EQ(bytes(p, 3), c.plmn);
        EXPECT_EQ(bytes(p2, 3), c.plmn);
        char mcc[4], mnc[4];
        KsEngine__get_mcc_mnc(c.plmn.data(), mcc, mnc);
        EXPECT_STREQ(mcc, c.mcc);
        EXPECT_STREQ(mnc, c.mnc);
    }
    uint8_t untouched[3] = {0xAA, 0xAA, 0xAA};
    KsEngine__get_plmnHex(untouched, "01", "01");
    EXPECT_EQ(bytes(untouched, 3), (std::vector<uint8_t>(3, 0xAA))) << "a short MCC writes nothing";
}

// The PLMN bytes inside a SUCI of a registration request, as tshark reads them.
TEST(ServingNetwork, PlmnBytesReadBackByAnIndependentDecoder) {
    if (system("command -v tshark >/dev/null 2>&1") != 0) GTEST_SKIP() << "tshark is not installed";
    for (auto [mcc, mnc] : {std::pair{"310", "410"}, std::pair{"208", "093"}, std::pair{"404", "26"}, std::pair{"001", "01"}}) {
        SCOPED_TRACE(std::string(mcc) + "/" + mnc);
        uint8_t p[3] = {};
        KsEngine__get_plmnHex(p, mcc, mnc);
        char hex[80];
        snprintf(hex, sizeof hex, "7E004179000D01%02X%02X%02XF0FF0000000000000010", p[0], p[1], p[2]);
        std::string cmd = std::string("bash ") + KS_WSDECODE + " -j pdu:nas-5gs " + hex + " 2>&1";
        std::string out;
        if (FILE* f = popen(cmd.c_str(), "r")) {
            char buf[4096];
            size_t n;
            while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
            pclose(f);
        }
        // tshark writes the codes as numbers, without leading zeros.
        EXPECT_NE(out.find("\"e212.mcc\": \"" + std::to_string(atoi(mcc)) + "\""), std::string::npos) << out;
        EXPECT_NE(out.find("\"e212.mnc\": \"" + std::to_string(atoi(mnc)) + "\""), std::string::npos) << out;
    }
}

TEST(ServingNetwork, NameFollowsThePlmnTheUEIsPresentedOn) {
    MV_KsUE* u = ue("404260000000005");
    const uint8_t ran[3] = {0x13, 0x00, 0x14};
    KsEngine__SetUEsSNN2(u, ran);
    EXPECT_STREQ(u->TGPP.snn, "5G:mnc410.mcc310.3gppnetwork.org");
    EXPECT_STREQ(u->NTGPP.snn, "5G:mnc410.mcc310.3gppnetwork.org");
    EXPECT_STREQ(u->snn_mcc, "310");
    EXPECT_STREQ(u->snn_mnc, "410");
    EXPECT_NE(gEnv->appLog().find("Updated SNN=5G:mnc410.mcc310.3gppnetwork.org for SUPI=imsi-404260000000005"),
              std::string::npos);
    const uint8_t bad[3] = {0xAB, 0xFF, 0xFF};
    KsEngine__SetUEsSNN2(u, bad);
    EXPECT_STREQ(u->TGPP.snn, "5G:mnc410.mcc310.3gppnetwork.org") << "an invalid PLMN changes nothing";
    EXPECT_STREQ(u->mcc, "404") << "the home network stays";
}

// ---------------------------------------------------------------- latching

// Three gNBs of their own PLMNs, each broadcasting 404/26, on one AMF whose
// association is never opened.
int quietStart(MV_KsRanAmfConnection*) { return 1; }
int quietSend(uint8_t, uint8_t, void*, MV_KsRanAmfConnection*) { return -1; }
int quietClose(MV_KsRanAmfConnection*) { return 0; }
const KsNGAPPath kQuietPath{quietStart, quietSend, quietClose};

struct ThreeRans {
    uint32_t ids[3];
    MV_KsRanAmfConnection* conns[3];
};

const ThreeRans& threeRans() {
    static ThreeRans t = [] {
        ThreeRans r{};
        KsNGAP__SetPath(&kQuietPath);
        json_t* amf = json_pack("{s:i, s:i, s:[s]}", "ID", 77, "Port", 38412, "IP", "10.0.0.77");
        KsEngine__AddStaticAMFNode(amf);
        json_decref(amf);
        const char* plmns[3][2] = {{"310", "410"}, {"001", "01"}, {"404", "46"}};
        for (int i = 0; i < 3; ++i) {
            auto* ran = __mv_arena_new<MV_KsNGRan>();
            ran->ID = uint32_t(500 + i);
            ran->AccessType = KS_ACCESS_TYPE__GNB;
            ran->Enabled = 1;
            ran->KsTE = KS_TE__AMF;
            KsEngine__get_plmnHex(ran->HexPlmn, plmns[i][0], plmns[i][1]);
            ran->SupportedTAList = json_loads(R"([{"TAC": 1, "BroadcastPLMNList": [{"MCC": "404", "MNC": "26",
                "TAISliceSupportList": [{"SST": 1}]}]}])", 0, nullptr);
            // Linked as the dynamic pass links a RAN, so the selection sees it.
            ran->BroadcastPlmnCount = 1;
            KsEngine__get_plmnHex(ran->BroadcastPlmn[0], "404", "26");
            if (__ksEngine->ngRanCurrent) __ksEngine->ngRanCurrent->Next = ran;
            else __ksEngine->ngRanHead = ran;
            __ksEngine->ngRanCurrent = ran;
            __KsEngine_InitRANAMFConnection(ran);
            r.conns[i] = ran->ranAMFHead.load();
            r.ids[i] = r.conns[i]->ID;
        }
        KsNGAP__SetPath(nullptr);
        return r;
    }();
    return t;
}

TEST(Latching, FirstMatchingRanTakesTheUEAndItsTrackingArea) {
    const ThreeRans& r = threeRans();
    MV_KsUE* u = ue("404260000000010");
    uint32_t before = KsEngine__getExecTestCasesCount();
    uint32_t attached = 9;
    KsEngine__FindRANAndLatch(u, KS_ACCESS__3GPP, &attached, 0);
    EXPECT_EQ(attached, 1u);
    EXPECT_EQ(u->AMFConnId, r.ids[0]);
    EXPECT_EQ(u->TGPP.ranAmfConnection, r.conns[0]);
    EXPECT_EQ(u->_initT3PP, 1u);
    EXPECT_EQ(u->_initNT3PP, 0u);
    EXPECT_STREQ(u->TAI_MCC, "310") << "the RAN's PLMN replaces the home one";
    EXPECT_STREQ(u->TAI_MNC, "410");
    EXPECT_STREQ(u->TGPP.snn, "5G:mnc410.mcc310.3gppnetwork.org");
    EXPECT_EQ(KsEngine__getExecTestCasesCount(), before + 1);

    // Latched once, the UE goes back to its own connection by id.
    // No N3IWF serves 404/26: only the connection id can bind the other access.
    KsEngine__FindRANAndLatch(u, KS_ACCESS__NON3GPP, &attached, 0);
    EXPECT_EQ(attached, 1u);
    EXPECT_EQ(u->NTGPP.ranAmfConnection, r.conns[0]);
    EXPECT_EQ(u->_initNT3PP, 1u);

    KsEngine__FindRANAndLatch(u, KS_ACCESS__3GPP, &attached, r.ids[2]);
    EXPECT_EQ(u->AMFConnId, r.ids[2]) << "an id given by the caller wins";
    EXPECT_STREQ(u->TAI_MCC, "404");
    EXPECT_STREQ(u->TAI_MNC, "46");
    KsEngine__FindRANAndLatch(u, KS_ACCESS__3GPP, &attached, 99);
    EXPECT_EQ(attached, 0u);
    EXPECT_EQ(u->AppError, 1u);
    EXPECT_NE(gEnv->appLog().find("RAN Not Found with MCC=[404] MNC=[26] for SUPI=[imsi-404260000000010] AccessType[1] "
                                  "amfRanConnId[99]"),
              std::string::npos);
}

TEST(Latching, RoundRobinOverMatchingRans) {
    const ThreeRans& r = threeRans();
    __ksEngine->RanSelectionMode = 1;
    __ksEngine->RanLastSelected = 0;
    std::vector<uint32_t> got;
    for (int i = 20; i < 26; ++i) {
        MV_KsUE* u = ue("4042600000000" + std::to_string(i));
        uint32_t attached = 0;
        KsEngine__FindRANAndLatch(u, KS_ACCESS__3GPP, &attached, 0);
        EXPECT_EQ(attached, 1u);
        got.push_back(u->AMFConnId);
    }
    __ksEngine->RanSelectionMode = 0;
    EXPECT_EQ(got, (std::vector<uint32_t>{r.ids[0], r.ids[1], r.ids[2], r.ids[0], r.ids[1], r.ids[2]}));
}

TEST(Latching, WithoutAMatchingRanNoUELatches) {
    threeRans();
    MV_KsUE* u = ue("404260000000030");
    uint32_t attached = 1;
    KsEngine__FindRANAndLatch(u, KS_ACCESS__NON3GPP, &attached, 0);
    EXPECT_EQ(attached, 0u);
    EXPECT_EQ(u->_initNT3PP, 0u);
    EXPECT_EQ(u->AppError, 1u);
}

TEST(Latching, PerSecondBudgetWalksTheListInOrder) {
    threeRans();
    __ksEngine->LatchPerSecond = 0;
    KsEngine__LatchUEs();
    EXPECT_EQ(KsEngine__getExecTestCasesCount(), 0u) << "LatchPerSecond 0 never latches";

    // Only the 404/26 UEs find a RAN, at the head of the list. Once latched on 3GPP a
    // UE has a connection id, and the non-3GPP access latches through it: two a UE.
    auto latched = [](int n) {
        MV_KsUE* u = ue("4042600000000" + std::string(n < 10 ? "0" : "") + std::to_string(n));
        return std::make_pair(u->_initT3PP, u->_initNT3PP);
    };
    __ksEngine->LatchPerSecond = 5;
    KsEngine__LatchUEs();
    EXPECT_EQ(KsEngine__getExecTestCasesCount(), 5u);
    EXPECT_EQ(latched(2), std::make_pair(1u, 1u));
    EXPECT_EQ(latched(3), std::make_pair(1u, 0u)) << "the budget ends inside a UE";
    EXPECT_EQ(latched(4), std::make_pair(0u, 0u));
    KsEngine__LatchUEs();
    EXPECT_EQ(KsEngine__getExecTestCasesCount(), 10u);
    EXPECT_EQ(latched(3), std::make_pair(1u, 1u));
    EXPECT_EQ(latched(5), std::make_pair(1u, 1u));
    EXPECT_EQ(latched(6), std::make_pair(0u, 0u));
    __ksEngine->LatchPerSecond = 0;
}

}  // namespace

// ---------------------------------------------------------------- start-up seen from outside

namespace {

const std::string kBinary = KS_ENGINE_BINARY;

std::string cfgWithFiles(const std::string& files, int maximumUE = 1000) {
    return R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": )" + std::to_string(maximumUE) + R"(, "UEFiles": [)" + files +
           "]}";
}

TEST(SubscriberStartup, UnreadableFileStopsStartUpWithItsText) {
    struct Case {
        const char* name;
        std::map<std::string, std::string> files;
        const char* text;
    };
    const Case cases[] = {
        {"broken JSON",
         {{"cfg.json", cfgWithFiles(R"({"Name": "broken.json"})")}, {"broken.json", R"({"Format": 1, "SupiRange": [)"}},
         "\n\n ***** error loading ue-config file:broken.json  error:["},
        {"missing file", {{"cfg.json", cfgWithFiles(R"({"Name": "nowhere.json"})")}},
         "\n\n ***** error loading ue-config file:nowhere.json  error:[unable to open nowhere.json"},
        {"not an object",
         {{"cfg.json", cfgWithFiles(R"({"Name": "list.json"})")}, {"list.json", "[1, 2]"}},
         " ***** error loading ue-config file:list.json  error:[not a JSON object] line="},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto r = kst::runEngineBinary(kBinary, c.files, 60);
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.exitStatus, 0);
        EXPECT_NE(r.out.find(c.text), std::string::npos) << r.out;
        EXPECT_NE(r.out.find(" ***** \n\n"), std::string::npos);
        EXPECT_EQ(r.out.find("Initalization of KsTest is completed"), std::string::npos);
    }
}

TEST(SubscriberStartup, FullPoolEndsEachLoaderWithItsLine) {
    std::string range = R"({"Format": 1, "SupiRange": [{"MCC": "001", "MNC": "01", "MSINStart": 1010000000001,
        "MSINEnd": 1010000000050}, {"MCC": "001", "MNC": "01", "MSINStart": 1010000000100, "MSINEnd": 1010000000101}]})";
    std::string list = R"({"Format": 2, "MCC": "001", "MNC": "01", "SupiList": [{"MSIN": 1010000000200}]})";
    std::string uel = R"([{"ID": 1, "MSINStart": "1010000000300", "MSINEnd": "1010000000301", "MSISDNBegin": "1",
        "MCC": "001", "MNC": "01"}])";
    auto r = kst::runEngineBinary(kBinary,
                                  {{"cfg.json", cfgWithFiles(R"({"Name": "r.json"}, {"Name": "l.json"},
                                                             {"Name": "f.json"})",
                                                             30)},
                                   {"r.json", range},
                                   {"l.json", list},
                                   {"f.json", R"({"Format": 9})"},
                                   {"data/uel.json", uel}}, 60);
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_NE(r.out.find("creatd ue-pool with count=30"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Adding UE Failed after=30 KsEngine__LoadSupiRangeFormat|"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Adding UE Failed after=0 KsEngine__LoadSupiRangeFormat|"), std::string::npos)
        << "each range ends on its own";
    EXPECT_NE(r.out.find("Adding UE Failed after=0 KsEngine__LoadListFormat|"), std::string::npos);
    EXPECT_NE(r.out.find("Adding UE Failed after=0 KsEngine__ConfigureUEListEntry|"), std::string::npos);
    EXPECT_NE(r.out.find("ue-config file:f.json has Format=9"), std::string::npos);
    EXPECT_NE(r.out.find("Configured Total UEs count=30|"), std::string::npos);
    EXPECT_NE(r.out.find("Initalization of KsTest is completed"), std::string::npos) << "a full pool is not fatal";
}

TEST(SubscriberStartup, BrokenAdditionalDataIsReportedAndStartUpGoesOn) {
    auto r = kst::runEngineBinary(
        kBinary, {{"cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 10, "UEAddlData": "addl.json"})"},
                  {"addl.json", "[{\"IMSI\": "}}, 60);
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_NE(r.out.find("Loading UEAddlData=[addl.json] Config Failed error:["), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Initalization of KsTest is completed"), std::string::npos);
}

}  // namespace
