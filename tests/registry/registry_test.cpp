// The node registry as start-up builds it from the configuration and data/: RAN,
// AMF and MME records, one connection per pair, RAN selection for UEs, and the RAN
// UE context pool with its identifiers.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "Kestrane.h"
#include "KsNGAP.h"
#include "ks_engine_env.h"

namespace {

// No association is opened here: connections are records only.
std::vector<uint32_t> gStarted;
int recordStart(MV_KsRanAmfConnection* c) {
    gStarted.push_back(c->ID);
    return 1;
}
int noSend(uint8_t, uint8_t, void*, MV_KsRanAmfConnection*) { return -1; }
int noClose(MV_KsRanAmfConnection*) { return 0; }
const KsNGAPPath kRecordingPath{recordStart, noSend, noClose};
const bool kPathSet = (KsNGAP__SetPath(&kRecordingPath), true);

const std::string kCfg = R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 100, "MaxRANUEID": 100, "StartNGRAN": 1,
  "LogLevel": {"APPLICATION": 5},
  "AMFNodes": [{"ID": 1, "Port": 38412, "IP": ["10.1.0.1", "10.1.0.2"]},
               {"ID": 2, "Port": 38412, "IP": ["10.1.0.3"], "Enabled": 0}],
  "RANNodes": [
    {"Name": "g1", "ID": 1, "HexPLMN": "00F110",
     "SupportedTAList": [{"TAC": 1, "BroadcastPLMNList": [{"MCC": "404", "MNC": "26", "TAISliceSupportList": [{"SST": 1}]}]}],
     "SupportedUePLMN": [{"MCC": "001", "MNC": "01"}, {"MCC": "01", "MNC": "1"}, {"MCC": "404", "MNC": "260"}]},
    {"Name": "n3", "ID": 2, "MCC": 310, "MNC": 410, "Type": "N3IWF", "MaxRANUEID": 50, "RANUEIDStartNo": 7,
     "IP": ["10.0.0.9"], "PortNo": 38413, "IPVersion": 4},
    {"Name": "off", "ID": 3, "Enabled": 0, "HexPLMN": "00F110"},
    {"Name": "enb", "ID": 4, "HexPLMN": "00f1", "Type": "eNodeB", "MCC": 1, "MNC": 1}]})";

const std::string kAmfs = R"([
  {"ID": 10, "IP1": "10.2.0.1", "IP2": "10.2.0.2", "Port": 38412, "Enabled": 1, "KsTE": 1},
  {"ID": 11, "IP1": "10.3.0.1", "IP2": "", "Port": 36412, "Enabled": 1, "KsTE": 4},
  {"ID": 12, "Port": 1},
  {"ID": 13, "IP1": "10.2.0.3", "IP2": "", "Port": 38412, "Enabled": 0, "KsTE": 1}])";

const std::string kRans = R"([
  {"ID": 100, "MCC": "001", "MNC": "01", "Enabled": 1, "Name": "gnb", "RANCount": 3, "KsTE": 1, "RanType": 6,
   "UERetention": 1,
   "SupportedTAList": "[{\"HexTAC\": \"000002\", \"broadcastPLMNList\": [{\"HexPLMN\": \"13F084\", \"TAISliceSupportList\": [{\"HexSST\": \"01\"}]}]}]"},
  {"ID": 200, "MCC": "208", "MNC": "93", "Enabled": 0, "Name": "solo", "RANCount": 1, "KsTE": 1, "RanType": 2,
   "SupportedTAList": "[{"},
  {"ID": 300, "MCC": "001", "MNC": "01", "Enabled": 1, "Name": "enb", "RANCount": 1, "KsTE": 4, "SupportedTAList": "[]"},
  {"ID": 5}])";

kst::EngineInDir* const gEnv = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(
    new kst::EngineInDir("reg", {{"cfg.json", kCfg}, {"data/amf.json", kAmfs}, {"data/ran.json", kRans}})));

std::vector<MV_KsNGRan*> gnbs() {
    std::vector<MV_KsNGRan*> v;
    for (MV_KsNGRan* r = __ksEngine->ngRanHead; r; r = r->Next) v.push_back(r);
    return v;
}

std::vector<uint8_t> plmn(const MV_KsNGRan* r) { return {r->HexPlmn[0], r->HexPlmn[1], r->HexPlmn[2]}; }

TEST(Registry, StartUpBuildsNodesFromConfigurationAndDataLists) {
    auto rans = gnbs();
    // Static RANs first (the disabled one dropped), then the three of the dynamic range
    // and the disabled dynamic one, which is kept so that the console can enable it.
    ASSERT_EQ(rans.size(), 7u);
    EXPECT_STREQ(rans[0]->NodeName, "g1");
    EXPECT_EQ(rans[0]->AccessType, KS_ACCESS_TYPE__GNB);
    EXPECT_EQ(plmn(rans[0]), (std::vector<uint8_t>{0x00, 0xF1, 0x10}));
    EXPECT_EQ(rans[0]->maxRanUEs, 100u) << "MaxRANUEID of the engine by default";
    EXPECT_EQ(rans[0]->UEIDStartNo, 1u);
    ASSERT_TRUE(rans[0]->supported_plmn_head);
    EXPECT_STREQ(rans[0]->supported_plmn_head->mcc, "001");
    ASSERT_TRUE(rans[0]->supported_plmn_head->Next) << "the malformed entry is skipped, the next one kept";
    EXPECT_STREQ(rans[0]->supported_plmn_head->Next->mnc, "260");

    EXPECT_STREQ(rans[1]->NodeName, "n3");
    EXPECT_EQ(rans[1]->AccessType, KS_ACCESS_TYPE__N3IWF);
    EXPECT_EQ(plmn(rans[1]), (std::vector<uint8_t>{0x13, 0x00, 0x14})) << "310/410 from numbers";
    EXPECT_EQ(rans[1]->maxRanUEs, 50u);
    EXPECT_EQ(rans[1]->UEIDStartNo, 7u);
    EXPECT_STREQ(rans[1]->localIP[0], "10.0.0.9");
    EXPECT_EQ(rans[1]->localPort, 38413u);

    EXPECT_EQ(rans[2]->AccessType, KS_ACCESS_TYPE__ENB);
    EXPECT_EQ(plmn(rans[2]), (std::vector<uint8_t>{0, 0, 0})) << "a HexPLMN of the wrong length leaves zero";

    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        MV_KsNGRan* r = rans[size_t(3 + i)];
        EXPECT_EQ(r->ID, uint32_t(100 + i));
        EXPECT_EQ(std::string(r->NodeName), "gnb-" + std::to_string(i));
        EXPECT_EQ(r->AccessType, KS_ACCESS_TYPE__GNB) << "RanType 6 is beyond the access types";
        EXPECT_EQ(r->UERetention, 1u);
        EXPECT_EQ(r->maxRanUEs, __ksEngine->maxRanUEIDs);
        EXPECT_TRUE(json_is_array(r->SupportedTAList));
    }
    EXPECT_STREQ(rans[6]->NodeName, "solo");
    EXPECT_EQ(rans[6]->Enabled, 0u);
    EXPECT_EQ(rans[6]->AccessType, 3u);
    EXPECT_FALSE(rans[6]->SupportedTAList) << "its TA list is not JSON";
    EXPECT_FALSE(rans[6]->ranAMFHead.load()) << "a disabled RAN gets no connection";
    // The eNodeB of the data list goes to its own list.
    MV_KsNGRan* enb = __ksEngine->eNodeBHead;
    ASSERT_TRUE(enb);
    EXPECT_STREQ(enb->NodeName, "enb");
    EXPECT_FALSE(enb->Next.load());

    // AMFs: two static (one disabled), then the dynamic ones of KsTE 1; the MME list.
    std::vector<uint32_t> amfs;
    for (MV_KsAmf* a = __ksEngine->amfHead; a; a = a->Next) amfs.push_back(a->ID);
    EXPECT_EQ(amfs, (std::vector<uint32_t>{1, 2, 10, 13}));
    MV_KsAmf* a10 = KsEngine__FindAmfByID(10);
    ASSERT_TRUE(a10);
    EXPECT_STREQ(a10->IP[1], "10.2.0.2");
    EXPECT_EQ(a10->IPCount, 2u);
    EXPECT_EQ(KsEngine__FindAmfByID(1)->IPCount, 2u);
    ASSERT_TRUE(KsEngine__FindMMEByID(11));
    EXPECT_EQ(KsEngine__FindMMEByID(11)->Port, 36412u);
    EXPECT_FALSE(KsEngine__FindMMEByID(10));
}

TEST(Registry, OneConnectionPerEnabledPairWithIdsFromOne) {
    // Enabled gNB-list RANs g1, n3, enb(static) and gnb-0..2, times AMFs 1 and 10.
    std::vector<std::pair<uint32_t, uint32_t>> pairs;
    std::vector<uint32_t> ids;
    for (MV_KsRanAmfConnection* c = __ksEngine->ranAMFConnHead; c; c = c->ConnNext) {
        pairs.emplace_back(c->ran->ID, c->amf->ID);
        ids.push_back(c->ID);
        EXPECT_EQ(KsEngine__FindRANByID(c->ID), c);
        EXPECT_EQ(KsEngine_FindRanAMFConnection(c->ran, c->amf), c);
        EXPECT_EQ(c->RANType, c->ran->AccessType);
    }
    ASSERT_EQ(pairs.size(), 12u);
    for (size_t i = 0; i < ids.size(); ++i) EXPECT_EQ(ids[i], i + 1);
    std::set<std::pair<uint32_t, uint32_t>> unique(pairs.begin(), pairs.end());
    EXPECT_EQ(unique.size(), 12u);
    EXPECT_EQ(gStarted, ids) << "each connection is started once, as it is made";
    EXPECT_EQ(__ksEngine->ranAMFConnID, 13u);

    // A second start and a second dynamic pass add nothing; the pass refreshes flags.
    KsEngine__StartNGRANs();
    json_object_set_new(json_array_get(__ksEngine->rans, 0), "Enabled", json_integer(0));
    KsEngine__ConfigureDynamicRanNodes();
    KsEngine__ConfigureDynamicAMfNodes();
    EXPECT_EQ(__ksEngine->ranAMFConnID, 13u);
    EXPECT_EQ(gnbs().size(), 7u);
    EXPECT_EQ(gnbs()[3]->Enabled, 0u);

    // An AMF added later (the console's change) is paired with every enabled RAN.
    json_array_append_new(__ksEngine->amf_servers,
                          json_pack("{s:i, s:s, s:s, s:i, s:i, s:i}", "ID", 20, "IP1", "10.4.0.1", "IP2", "", "Port",
                                    38412, "Enabled", 1, "KsTE", 1));
    KsEngine__ConfigureDynamicAMfNodes();
    KsEngine__StartNGRANs();
    EXPECT_EQ(__ksEngine->ranAMFConnID, 13u + 3u) << "g1, n3 and enb: the range is disabled now";

    // The MME side: the eNodeB with the one MME; no socket is opened for it.
    MV_KsRanMMEConnection* m = __ksEngine->ranMMEConnHead;
    ASSERT_TRUE(m);
    EXPECT_EQ(m->ID, 1u);
    EXPECT_EQ(m->mme, KsEngine__FindMMEByID(11));
    EXPECT_EQ(KsEngine__FindRanMMEConnectionByID(1), m);
    EXPECT_FALSE(KsEngine__FindMMERAN("001", "01")) << "not ready until S1 Setup";
    m->ConnStatus = KS_NGCONN__READY;
    m->isOKToRun = 1;
    EXPECT_EQ(KsEngine__FindMMERAN("001", "01"), m);
    EXPECT_FALSE(KsEngine__FindMMERAN("001", "02"));
}

TEST(Registry, RanSelectionByPlmnBroadcastListAndAccessType) {
    auto rans = gnbs();
    for (size_t i = 3; i < 6; ++i) rans[i]->Enabled = 1;
    // g1 is 001/01 and broadcasts 404/26; gnb-0..2 are 001/01 and broadcast 310/48.
    EXPECT_EQ(KsEngine__FindRAN("001", "01", 1), rans[0]->ranAMFHead.load());
    EXPECT_EQ(KsEngine__FindRAN("404", "26", 1), rans[0]->ranAMFHead.load());
    EXPECT_EQ(KsEngine__FindRAN("310", "48", 1), rans[3]->ranAMFHead.load());
    EXPECT_EQ(KsEngine__FindRAN("310", "410", 3), rans[1]->ranAMFHead.load());
    EXPECT_FALSE(KsEngine__FindRAN("310", "410", 1)) << "the N3IWF does not serve the 3GPP access";
    EXPECT_FALSE(KsEngine__FindRAN("999", "99", 1));
    EXPECT_FALSE(KsEngine__FindRAN("0x1", "01", 1)) << "not a PLMN";

    MV_KsRanAmfConnectionList_t list;
    KsEngine__FindRANList("001", "01", 1, &list);
    ASSERT_EQ(list.Count, 4u) << "one first connection per RAN: g1 and gnb-0..2";
    EXPECT_EQ(list.List[0], rans[0]->ranAMFHead.load());
    EXPECT_EQ(list.List[3], rans[5]->ranAMFHead.load());
    rans[4]->Enabled = 0;
    KsEngine__FindRANList("001", "01", 1, &list);
    EXPECT_EQ(list.Count, 3u) << "a disabled RAN is skipped";
    rans[4]->Enabled = 1;

    const uint8_t p[3] = {0x00, 0xF1, 0x10};
    EXPECT_EQ(KsEngine__FindRAN2(p, 101, 1), rans[4]);
    EXPECT_FALSE(KsEngine__FindRAN2(p, 101, 4));
    EXPECT_EQ(KsEngine__FindRAN2(p, 300, 4), __ksEngine->eNodeBHead.load());

    EXPECT_EQ(KsEngine__AMFConnectionCount(), 0u);
    rans[0]->ranAMFHead.load()->isOKToRun = 1;
    EXPECT_EQ(KsEngine__AMFConnectionCount(), 1u);
    rans[0]->ranAMFHead.load()->isOKToRun = 0;

    MV_KsUE ue{};
    ue.TGPP.ranAmfConnection = rans[0]->ranAMFHead;
    ue.NTGPP.ranAmfConnection = rans[1]->ranAMFHead;
    EXPECT_EQ(KsEngine__getRanAmfConnection(&ue, 1), rans[0]->ranAMFHead.load());
    EXPECT_EQ(KsEngine__getRanAmfConnection(&ue, 2), rans[1]->ranAMFHead.load());
    EXPECT_FALSE(KsEngine__getRanAmfConnection(&ue, 3));
}

TEST(RanUeContextPool, FifoReuseGenerationsAndIdentifiers) {
    MV_KsNGRan* ran = gnbs()[0];
    ASSERT_EQ(__ksEngine->ngRanUeContextTotal, 100u);
    std::vector<MV_KsNGRanUeContext*> all;
    for (int i = 0; i < 100; ++i) {
        MV_KsNGRanUeContext* c = KsEngine__AllocateKsNGRanUeContext(ran);
        ASSERT_TRUE(c);
        EXPECT_EQ(c->id, uint64_t(i + 1));
        EXPECT_EQ(c->ran, ran);
        all.push_back(c);
    }
    EXPECT_FALSE(KsEngine__AllocateKsNGRanUeContext(ran)) << "an empty pool gives null";
    EXPECT_EQ(__ksEngine->ngRanUeContextAvailable, 0u);

    // UEIDStartNo 1, 100 contexts: slot 5 is id 6, and 106 after one release.
    MV_KsNGRanUeContext* five = all[4];
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext_UEId(five), 6u);
    KsEngine__ReleaseKsNGRanUeContext(ran, five);
    KsEngine__ReleaseKsNGRanUeContext(ran, five);
    EXPECT_EQ(__ksEngine->ngRanUeContextAvailable, 1u) << "a double release does nothing";
    EXPECT_EQ(five->GenId, 1u);
    EXPECT_FALSE(five->ran);
    KsEngine__ReleaseKsNGRanUeContext(ran, all[1]);
    EXPECT_EQ(KsEngine__AllocateKsNGRanUeContext(ran), five) << "released first, taken first";
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext_UEId(five), 106u);
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(ran, 106), five);
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(ran, 6), five) << "generation 0 is not compared";
    EXPECT_FALSE(KsNGAP___GetKsNGRanUeContext(ran, 206)) << "a stale generation";
    EXPECT_NE(gEnv->appLog().find("Version Not Found ueContext->GenId=1 ,derived_GenId=2"), std::string::npos);
    // A remainder of 0 is the last slot of the generation below.
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(ran, 101), all[99]);
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(ran, 1), nullptr) << "UEIDStartNo itself is no id";
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(ran, 0), nullptr);
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(nullptr, 6), nullptr);

    // The generation wraps from 1999 to 0.
    MV_KsNGRanUeContext* c = KsEngine__AllocateKsNGRanUeContext(ran);
    ASSERT_EQ(c, all[1]);
    c->GenId = 1999;
    KsEngine__ReleaseKsNGRanUeContext(ran, c);
    EXPECT_EQ(c->GenId, 0u);
    for (MV_KsNGRanUeContext* x : all) KsEngine__ReleaseKsNGRanUeContext(ran, x);
    EXPECT_EQ(__ksEngine->ngRanUeContextAvailable, 100u);
    EXPECT_EQ(__ksEngine->ngRanUeContextUsed, 102u);
}

TEST(RanUeContextPool, ConnectionListAndItsRemovalOnClose) {
    MV_KsNGRan* ran = gnbs()[0];
    MV_KsRanAmfConnection* conn = ran->ranAMFHead;
    std::vector<MV_KsUE*> ues;
    for (int i = 0; i < 4; ++i) {
        auto* u = new MV_KsUE{};
        u->TGPP.ranAmfConnection = conn;
        u->TGPP.ranUeContext = KsEngine__AllocateKsNGRanUeContext(ran);
        u->TGPP.ranUeContext->ksUe = u;
        u->TGPP.CMStatus = CM_STATUS__CONNECTED;
        KsEngine__RanAmf_AddUEContext(u, 1);
        KsEngine__RanAmf_AddUEContext(u, 1);
        ues.push_back(u);
    }
    EXPECT_EQ(conn->ksUE_Count, 4) << "a UE stands once in the list";
    KsEngine__RanAmf_RemoveUEContext(ues[1], 1);
    KsEngine__RanAmf_RemoveUEContext(ues[1], 1);
    KsEngine__RanAmf_RemoveUEContext(ues[3], 1);
    EXPECT_EQ(conn->ksUE_Count, 2);
    std::vector<MV_KsUE*> left;
    for (MV_KsUE* u = conn->ksUE_Head; u; u = u->RanAmf_Next) left.push_back(u);
    EXPECT_EQ(left, (std::vector<MV_KsUE*>{ues[0], ues[2]}));
    EXPECT_EQ(conn->ksUE_Current, ues[2]);

    uint32_t before = __ksEngine->ngRanUeContextAvailable;
    KsEngine__RanAmf_RemoveAllUEContext(conn);
    EXPECT_EQ(conn->ksUE_Count, 0);
    EXPECT_FALSE(conn->ksUE_Head);
    EXPECT_EQ(conn->Busy, 0u);
    EXPECT_EQ(__ksEngine->ngRanUeContextAvailable, before + 2);
    for (MV_KsUE* u : {ues[0], ues[2]}) {
        EXPECT_FALSE(u->TGPP.ranUeContext);
        EXPECT_EQ(u->TGPP.CMStatus, 0u);
        EXPECT_FALSE(u->RanAmf_Next);
    }
    EXPECT_TRUE(ues[1]->TGPP.ranUeContext) << "a UE off the list keeps its context";
    for (MV_KsUE* u : ues) {
        if (u->TGPP.ranUeContext) KsEngine__ReleaseKsNGRanUeContext(ran, u->TGPP.ranUeContext);
        delete u;
    }
}

TEST(Registry, NamesOfTypesAndStates) {
    EXPECT_STREQ(KsEngine__GetAccessType(1), "gNodeB");
    EXPECT_STREQ(KsEngine__GetAccessType(2), "eNodeB");
    EXPECT_STREQ(KsEngine__GetAccessType(3), "N3IWF");
    EXPECT_STREQ(KsEngine__GetAccessType(7), "");
    EXPECT_STREQ(KsEngine__EnabledString(1), "Enabled");
    EXPECT_STREQ(KsEngine__EnabledString(2), "Disabled");
    EXPECT_STREQ(applicationType_kv_pair[0], "INVALID-0");
    EXPECT_STREQ(applicationType_kv_pair[25], "N26");
    EXPECT_STREQ(applicationType_kv_pair[31], "GGSN");
    EXPECT_STREQ(rm_satus_names[3], "RM_STATUS__REJECTED");
    EXPECT_STREQ(cm_satus_names[1], "CM_STATUS__CONNECTED");
}

// What start-up prints about bad node configuration, seen from outside.
TEST(RegistryStartup, ConfigurationFaultsArePrintedAndSkipped) {
    // No AMF is enabled, so the engine binary opens no association.
    std::string cfg = R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 10, "MaxRANUEID": 10, "StartNGRAN": 1,
      "RANNodes": [{"Name": "a", "ID": 1, "HexPLMN": "00F1"},
                   {"Name": "b", "ID": 2, "HexPLMN": "00F110", "SupportedUePLMN": [{"MCC": "1", "MNC": "01"}]}]})";
    std::string amfs = R"([{"ID": 1, "IP1": "10.0.0.1", "IP2": "", "Port": 1, "Enabled": 0, "KsTE": 1},
                           {"ID": 2, "IP1": "10.0.0.2", "IP2": "", "Port": 2, "Enabled": 1, "KsTE": 4}, {"ID": 3}])";
    std::string rans = R"([{"ID": 1}, {"ID": 9, "MCC": "001", "MNC": "01", "Enabled": 1, "Name": "x", "RANCount": 1,
                            "KsTE": 1, "SupportedTAList": "[{"}])";
    auto r = kst::runEngineBinary(KS_ENGINE_BINARY, {{"cfg.json", cfg}, {"data/amf.json", amfs}, {"data/ran.json", rans}},
                                  60);
    for (const char* text : {"HexPLMN for RAN is not length-6 [00F1]\n", "SupportedUePLMN, Not Configured ",
                             "invalid configuration RANNodes->SupportedUePLMN[0] of RAN [b]: MCC=\"1\" MNC=\"01\" "
                             "refused: an MCC is 3 digits",
                             "missing mandatory parameter for dynamic-amf @ 2: IP1, IP2, Port, Enabled, KsTE\n",
                             "AMF-Config-0: Id=1 port=1 cIP1=10.0.0.1 cIP2=\n",
                             "AMF-Config-1: Id=2 port=2 cIP1=10.0.0.2 cIP2=\n",
                             "missing mandatory parameter for dynamic-ran @ 0: MCC, MNC, Enabled, Name, RANCount, "
                             "SupportedTAList, KsTE\n",
                             "error loading SupportedTAList for RANConfig:x  error:[", "Starting RAN Nodes ... ",
                             "Started NG-RAN Count=3\n", "Initalization of KsTest is completed"})
        EXPECT_NE(r.out.find(text), std::string::npos) << text << "\n" << r.out;

    auto none = kst::runEngineBinary(KS_ENGINE_BINARY, {{"cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 10,
        "MaxRANUEID": 10, "StartNGRAN": 1})"}}, 60);
    EXPECT_NE(none.out.find("RANNodes - configuration not found "), std::string::npos) << none.out;
    EXPECT_NE(none.out.find("No NG-Ran has been Enabled"), std::string::npos) << none.out;
}

}  // namespace
