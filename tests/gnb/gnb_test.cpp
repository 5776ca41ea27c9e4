// The gNB's NG interface without sockets: what it builds for NG Setup, RAN
// configuration update and NG Reset (checked by tshark), what the AMF's answers do to
// a connection, the console's connection commands, and the dispatch of everything an
// AMF may send.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "Kestrane.h"
#include "KsNGAP.h"
#include "asn_testlib.h"
#include "ks_engine_env.h"
#include "mv_ngap.h"
#include "mv_socket_engine.h"

namespace {

struct Sent {
    uint8_t procedureCode, form;
    std::vector<uint8_t> bytes;
    MV_KsRanAmfConnection* conn;
};
std::vector<Sent> gSent;
int gCloses = 0;
int gSendResult = 0;  // 0: the encoded length

const MvAsnPdu* pduOf(uint8_t code, uint8_t form) {
    for (unsigned i = 0; i < mv_asn_amf::kPduCount; ++i)
        if (mv_asn_amf::kPdus[i].procedureCode == code && mv_asn_amf::kPdus[i].form == form) return &mv_asn_amf::kPdus[i];
    return nullptr;
}

int recordSend(uint8_t code, uint8_t form, void* rec, MV_KsRanAmfConnection* conn) {
    const MvAsnPdu* p = pduOf(code, form);
    std::vector<uint8_t> b = p ? encodePdu(p, rec) : std::vector<uint8_t>{};
    gSent.push_back({code, form, b, conn});
    if (gSendResult) return gSendResult;
    return b.empty() ? -1 : int(b.size());
}
int noStart(MV_KsRanAmfConnection*) { return 1; }
int recordClose(MV_KsRanAmfConnection*) {
    ++gCloses;
    return 0;
}
const KsNGAPPath kPath{noStart, recordSend, recordClose};
const bool kPathSet = (KsNGAP__SetPath(&kPath), true);

kst::EngineInDir* const gEnv = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(
    new kst::EngineInDir("gnb", {{"cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 10, "MaxRANUEID": 100,
                                                "LogLevel": {"APPLICATION": 5}})"}})));

// Runs tshark on the PDUs; returns its JSON, and fails the test on a malformed packet
// or an expert error.
std::string dissect(const std::vector<std::vector<uint8_t>>& pdus) {
    if (!haveProgram("tshark") || !haveProgram("text2pcap")) return "";
    std::string args;
    for (size_t i = 0; i < pdus.size(); ++i) {
        std::string f = ::testing::TempDir() + "/gnb_" + std::to_string(getpid()) + "_" + std::to_string(i) + ".hex";
        std::ofstream(f) << toHex(pdus[i]) << "\n";
        args += " " + f;
    }
    std::string out;
    int rc = runCommand(std::string("sh ") + KS_WSDECODE + " -j ngap" + args + " 2>&1", &out);
    EXPECT_EQ(rc, 0) << out;
    return out;
}

bool has(const std::string& out, const std::string& needle) { return out.find(needle) != std::string::npos; }

MV_KsNGRan* makeRan(uint32_t id, uint8_t access, const char* mcc, const char* mnc, const char* name, const char* tas) {
    auto* r = __mv_arena_new<MV_KsNGRan>();
    r->ID = id;
    r->AccessType = access;
    r->Enabled = 1;
    r->UEIDStartNo = 1;
    KsEngine__get_plmnHex(r->HexPlmn, mcc, mnc);
    snprintf(r->NodeName, sizeof r->NodeName, "%s", name);
    if (tas) r->SupportedTAList = json_loads(tas, 0, nullptr);
    return r;
}

[[maybe_unused]] MV_KsRanAmfConnection* makeConn(MV_KsNGRan* ran, MV_Socket* sock = nullptr) {
    auto* amf = __mv_arena_new<MV_KsAmf>();
    auto* c = __mv_arena_new<MV_KsRanAmfConnection>();
    c->ran = ran;
    c->amf = amf;
    c->siSocket = sock;
    return c;
}

const char* kTas = R"([
  {"TAC": 258, "BroadcastPLMNList": [{"MCC": "001", "MNC": "01", "TAISliceSupportList": [{"SST": 1}, {"SST": 2, "SD": "010203"}]},
                                     {"MCC": "310", "MNC": "410", "TAISliceSupportList": [{"SST": 3, "SD": "12"}]}]},
  {"HexTAC": "0A0B0C", "broadcastPLMNList": [{"HexPLMN": "13F084", "TAISliceSupportList": [{"HexSST": "01", "HexSD": "ABCDEF"}]}]}])";

TEST(NGSetup, RequestOfEachAccessTypeCarriesItsIdentity) {
    gSent.clear();
    MV_KsNGRan* gnb = makeRan(0x12ABCDEF, KS_ACCESS_TYPE__GNB, "001", "01", "gnb-one", kTas);
    gnb->UERetention = 1;
    MV_KsNGRan* enb = makeRan(0x00012345, KS_ACCESS_TYPE__ENB, "310", "410", "ngenb", kTas);
    MV_KsNGRan* n3 = makeRan(0x00004321, KS_ACCESS_TYPE__N3IWF, "208", "93", "n3iwf", kTas);
    std::vector<std::vector<uint8_t>> pdus;
    for (MV_KsNGRan* r : {gnb, enb, n3}) {
        MV_AMF_DT_NGSetupRequest* rec = KsNGAP___build_NGSetupRequest(r);
        EXPECT_EQ(rec->defaultPagingDRX, 2);
        EXPECT_EQ(rec->uERetentionInformation_isset, r == gnb ? 1 : 0);
        pdus.push_back(encodePdu(pduOf(21, 0), rec));
        __mv_amf_memfree_pdu_NGSetupRequest(rec);
        ASSERT_FALSE(pdus.back().empty());
    }
    std::string out = dissect(pdus);
    if (out.empty()) GTEST_SKIP() << "tshark is not installed";
    for (const char* f : {"\"ngap.gNB_ID\": \"ab:cd:ef\"", "\"ngap.RANNodeName\": \"gnb-one\"", "\"ngap.RANNodeName\": \"ngenb\"",
                          "\"ngap.RANNodeName\": \"n3iwf\"", "\"e212.mcc\": \"1\"", "\"e212.mnc\": \"1\"",
                          "\"e212.mcc\": \"310\"", "\"e212.mnc\": \"410\"", "\"e212.mnc\": \"93\"", "\"ngap.tAC\": \"258\"",
                          "\"ngap.tAC\": \"658188\"", "\"ngap.sD\": \"01:02:03\"", "\"ngap.sD\": \"ab:cd:ef\"",
                          "\"ngap.sD\": \"00:00:00\"", "\"ngap.shortMacroNgENB_ID\"", "\"ngap.n3IWF_ID\": \"43:21\"",
                          "\"ngap.UERetentionInformation\": \"0\"", "\"ngap.PagingDRX\": \"2\""})
        EXPECT_TRUE(has(out, f)) << f << "\n" << out.substr(out.size() > 20000 ? out.size() - 20000 : 0);
}
}  // namespace

namespace {

TEST(NGSetup, TaListEdgesAndTheOtherConnectionMessagesDissectClean) {
    gSent.clear();
    // A wrong HexTAC gives TAC 0; a PLMN without slices and a TA left without PLMNs are
    // left out, since the slice and PLMN lists have at least one item on the wire.
    const char* odd = R"([{"HexTAC": "0102", "broadcastPLMNList": [{"HexPLMN": "00F110", "TAISliceSupportList": [{"HexSST": "01"}]},
                                                                  {"HexPLMN": "00F120"}]},
                          {"TAC": 7, "BroadcastPLMNList": [{"MCC": "001", "MNC": "01", "TAISliceSupportList": []}, {"SST": 1}]}])";
    MV_KsNGRan* ran = makeRan(7, KS_ACCESS_TYPE__GNB, "001", "01", "odd", odd);
    KsNgapBuildNotes notes;
    testing::internal::CaptureStdout();
    MV_AMF_DT_NGSetupRequest* rec = KsNGAP___build_NGSetupRequest(ran, &notes);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "a builder prints nothing; it notes";
    ASSERT_EQ(notes.count, 4u);
    EXPECT_EQ(notes.notes[0].kind, KsNgapBuildNote::BadHexTAC);
    EXPECT_STREQ(notes.notes[0].text, "0102");
    EXPECT_EQ(notes.notes[1].kind, KsNgapBuildNote::PlmnWithoutSlice);
    EXPECT_EQ(notes.notes[1].plmn[2], 0x20);
    EXPECT_EQ(notes.notes[2].kind, KsNgapBuildNote::PlmnWithoutSlice);
    EXPECT_EQ(notes.notes[3].kind, KsNgapBuildNote::TaWithoutPlmn);
    EXPECT_EQ(notes.notes[3].tac[2], 7);
    testing::internal::CaptureStdout();
    KsNGAP___reportBuildNotes(notes);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("HexTAC for SupportedTAItem is not length-6 [0102]"),
              std::string::npos);
    ASSERT_EQ(rec->supportedTAList_isset, 1);
    EXPECT_EQ(rec->supportedTAList->SupportedTAItem->Count, 1u);
    auto* item = static_cast<MV_AMF_DT_SupportedTAItem*>(rec->supportedTAList->SupportedTAItem->Head->data);
    EXPECT_EQ(item->broadcastPLMNList->BroadcastPLMNItem->Count, 1u);
    EXPECT_EQ(std::vector<uint8_t>(item->tAC->data, item->tAC->data + 3), (std::vector<uint8_t>{0, 0, 0}));
    std::vector<std::vector<uint8_t>> pdus{encodePdu(pduOf(21, 0), rec)};
    __mv_amf_memfree_pdu_NGSetupRequest(rec);
    EXPECT_NE(gEnv->appLog().find("has no slice, left out"), std::string::npos);
    EXPECT_NE(gEnv->appLog().find("SupportedTAItem TAC 000007 has no broadcast PLMN, left out"), std::string::npos);

    MV_KsNGRan* bare = makeRan(8, KS_ACCESS_TYPE__GNB, "001", "01", "bare", "[]");
    rec = KsNGAP___build_NGSetupRequest(bare);
    EXPECT_EQ(rec->supportedTAList_isset, 0) << "an empty list leaves the IE out";
    __mv_amf_memfree_pdu_NGSetupRequest(rec);

    // The console's configuration update and reset go out through the path.
    MV_KsRanAmfConnection* conn = makeConn(makeRan(9, KS_ACCESS_TYPE__GNB, "310", "410", "cfg", kTas));
    EXPECT_EQ(KsNGAP__send_NGRanConfigurationUpdate(conn), 1);
    EXPECT_EQ(KsNGAP__send_NGReset_Request(conn), 1);
    ASSERT_EQ(gSent.size(), 2u);
    EXPECT_EQ(gSent[0].procedureCode, 35);
    EXPECT_EQ(gSent[1].procedureCode, 20);
    pdus.push_back(gSent[0].bytes);
    pdus.push_back(gSent[1].bytes);
    std::string out = dissect(pdus);
    if (out.empty()) GTEST_SKIP() << "tshark is not installed";
    EXPECT_TRUE(has(out, "\"ngap.RANNodeName\": \"cfg\"")) << out;
    EXPECT_TRUE(has(out, "\"ngap.misc\": \"5\"")) << out;
    EXPECT_TRUE(has(out, "\"ngap.nG_Interface\": \"0\"")) << out;
    EXPECT_NE(gEnv->appLog().find("Sent RANConfigurationUpdate"), std::string::npos);
    EXPECT_NE(gEnv->appLog().find("NGReset for ranAmfConn-ID=0"), std::string::npos);

    gSendResult = -1;
    EXPECT_EQ(KsNGAP__send_NGReset_Request(conn), 0);
    EXPECT_EQ(KsNGAP__send_NGRanConfigurationUpdate(conn), 0);
    gSendResult = 0;
    EXPECT_NE(gEnv->appLog().find("Sending NGReset Failed  with sts=-1"), std::string::npos);
    EXPECT_NE(gEnv->appLog().find("Sending RANConfigurationUpdate Failed  with sts=-1"), std::string::npos);
}

TEST(Builders, PlmnGutiCauseAndLocation) {
    struct Case {
        const char *mcc, *mnc;
        std::vector<uint8_t> engine, wire;
    };
    for (const Case& c : {Case{"001", "01", {0x00, 0xF1, 0x10}, {0x00, 0xF1, 0x10}},
                          Case{"310", "410", {0x13, 0x00, 0x14}, {0x13, 0x40, 0x01}},
                          Case{"208", "093", {0x02, 0x38, 0x90}, {0x02, 0xF8, 0x39}}}) {
        SCOPED_TRACE(std::string(c.mcc) + "/" + c.mnc);
        uint8_t p[3] = {0xAA, 0xAA, 0xAA}, w[3], back[3];
        KsNGAP_get_plmnHex(p, c.mcc, c.mnc);
        EXPECT_EQ(std::vector<uint8_t>(p, p + 3), c.engine);
        KsNGAP___plmnToWire(p, w);
        if (std::string(c.mnc) != "093") {
            EXPECT_EQ(std::vector<uint8_t>(w, w + 3), c.wire);
        }
        KsNGAP___plmnFromWire(w, back);
        EXPECT_EQ(std::vector<uint8_t>(back, back + 3), c.engine);
    }
    uint8_t keep[3] = {1, 2, 3};
    KsNGAP_get_plmnHex(keep, "01", "01");
    EXPECT_EQ(keep[0], 1) << "a short MCC leaves the bytes";

    uint8_t guti[10];
    KsNGAP_set_fgguti2(guti, "001", "01", 0xCA, 0x3FF, 0x3F, 0x01020304);
    EXPECT_EQ(std::vector<uint8_t>(guti, guti + 10),
              (std::vector<uint8_t>{0x00, 0xF1, 0x10, 0xCA, 0xFF, 0xFF, 0x01, 0x02, 0x03, 0x04}));

    MV_AMF_DT_Cause cause{};
    KsNGAP__setCause(&cause, 2, 3);
    EXPECT_EQ(cause.SelectedChoice, 2);
    EXPECT_EQ(cause.u.nas, 3);

    const uint8_t plmn[3] = {0x13, 0x00, 0x14};
    MV_AMF_DT_UserLocationInformation* uli = nullptr;
    KsNGAP_utils_set_UserLocationInformation(&uli, plmn);
    ASSERT_EQ(uli->SelectedChoice, 1);
    MV_AMF_DT_UserLocationInformationNR* nr = uli->u.userLocationInformationNR;
    EXPECT_EQ(nr->nR_CGI->nRCellIdentity->bitslen, 36);
    EXPECT_EQ(std::vector<uint8_t>(nr->nR_CGI->nRCellIdentity->data, nr->nR_CGI->nRCellIdentity->data + 5),
              (std::vector<uint8_t>{0, 0, 0, 0x34, 0x21}));
    EXPECT_EQ(std::vector<uint8_t>(nr->tAI->tAC->data, nr->tAI->tAC->data + 3), (std::vector<uint8_t>{0, 0, 1}));
    EXPECT_EQ(nr->isPresent_timeStamp, 0);
    __mv_amf_memfree_UserLocationInformation(uli);

    MV_KsUE ue{};
    json_t* j = json_loads(R"({"Type": 1, "ULINR": {"NRCGI": {"HexPLMN": "00F110", "HexNRCellID": "123456789F"},
                                                 "TAI": {"HexPLMN": "130014", "HexTAC": "00000A"}}})", 0, nullptr);
    ASSERT_EQ(KsNGAP_utils_set_UserLocationInformation_json(&uli, j, &ue), 1);
    nr = uli->u.userLocationInformationNR;
    EXPECT_EQ(nr->nR_CGI->nRCellIdentity->data[4], 0x90) << "the bits past 36 are cleared";
    EXPECT_EQ(nr->tAI->tAC->data[2], 0x0A);
    EXPECT_STREQ(ue.TGPP.snn, "5G:mnc410.mcc310.3gppnetwork.org") << "the TAI's PLMN names the serving network";
    __mv_amf_memfree_UserLocationInformation(uli);
    json_decref(j);
    j = json_loads(R"({"Type": 2})", 0, nullptr);
    uli = nullptr;
    EXPECT_EQ(KsNGAP_utils_set_UserLocationInformation_json(&uli, j, &ue), 0);
    EXPECT_FALSE(uli);
    json_decref(j);
}

// A decoded NGSetupResponse as the node layer would hand it over.
MV_AMF_DT_NGSetupResponse* response(bool name, bool guamis, bool capacity, int guamiCount = 1) {
    auto* r = static_cast<MV_AMF_DT_NGSetupResponse*>(__mv_asn_new_record(&mv_asn_amf::T_NGSetupResponse));
    if (name) {
        MV_AMF_DT_AMFName* n = nullptr;
        __mv_amf_init_AMFName2(&n, reinterpret_cast<const uint8_t*>("amf-under-test"), 14);
        r->aMFName = n;
        r->aMFName_isset = 1;
    }
    if (guamis) {
        r->servedGUAMIList = static_cast<MV_AMF_DT_ServedGUAMIList*>(__mv_asn_alloc(sizeof(MV_AMF_DT_ServedGUAMIList)));
        __mv_asn_list* l = nullptr;
        for (int i = 0; i < guamiCount; ++i) {
            auto* it = static_cast<MV_AMF_DT_ServedGUAMIItem*>(__mv_asn_alloc(sizeof(MV_AMF_DT_ServedGUAMIItem)));
            auto* g = static_cast<MV_AMF_DT_GUAMI*>(__mv_asn_alloc(sizeof(MV_AMF_DT_GUAMI)));
            const uint8_t plmn[3] = {0x13, 0x40, 0x01}, region = 0xCA, set[2] = {0xFF, 0xC0}, ptr = 0xFC;
            MV_AMF_DT_PLMNIdentity* pl = nullptr;
            MV_AMF_DT_AMFRegionID* rg = nullptr;
            MV_AMF_DT_AMFSetID* st = nullptr;
            MV_AMF_DT_AMFPointer* pt = nullptr;
            __mv_amf_init_PLMNIdentity2(&pl, plmn, 3);
            __mv_amf_init_AMFRegionID2(&rg, &region, 1);
            __mv_amf_init_AMFSetID2(&st, set, 2);
            __mv_amf_init_AMFPointer2(&pt, &ptr, 1);
            st->bitslen = 10;
            pt->bitslen = 6;
            g->pLMNIdentity = pl;
            g->aMFRegionID = rg;
            g->aMFSetID = st;
            g->aMFPointer = pt;
            it->gUAMI = g;
            __mv_asn_list_add(&l, it);
        }
        r->servedGUAMIList->ServedGUAMIItem = l;
        r->servedGUAMIList_isset = 1;
    }
    if (capacity) {
        r->relativeAMFCapacity = 200;
        r->relativeAMFCapacity_isset = 1;
    }
    return r;
}

TEST(NGSetup, AnswersSetTheConnectionState) {
    MV_Socket sock{};
    sock.isConnected = 1;
    sock.isActive = 1;
    MV_KsRanAmfConnection* conn = makeConn(makeRan(20, KS_ACCESS_TYPE__GNB, "001", "01", "st", kTas), &sock);
    sock.parentData1 = conn;

    // The full answer: ready, and the AMF's name, GUAMIs and capacity are kept.
    conn->ConnStatus = KS_NGCONN__SETUP_SENT;
    auto* r = response(true, true, true, 30);
    r->uERetentionInformation_isset = 1;
    KsNGAP__handle_NGSetupResponse(conn, r);
    __mv_amf_memfree_pdu_NGSetupResponse(r);
    EXPECT_EQ(conn->ConnStatus, KS_NGCONN__READY);
    EXPECT_TRUE(KsNGAP__OkToSend(conn));
    EXPECT_EQ(conn->RetainUEs, 1u);
    EXPECT_STREQ(conn->amf->AMFName, "amf-under-test");
    EXPECT_EQ(conn->amf->AMFName_len, 14);
    EXPECT_EQ(conn->amf->ServedGuamiCount, 25u) << "the record keeps 25";
    EXPECT_EQ(conn->amf->ServedGuami[0].amfSetId, 0x3FF);
    EXPECT_EQ(conn->amf->ServedGuami[0].amfPointer, 0x3F);
    EXPECT_EQ(conn->amf->ServedGuami[0].amfRegionId, 0xCA);
    EXPECT_EQ(std::vector<uint8_t>(conn->amf->ServedGuami[0].PLMN, conn->amf->ServedGuami[0].PLMN + 3),
              (std::vector<uint8_t>{0x13, 0x00, 0x14})) << "kept in the engine's PLMN order";
    EXPECT_EQ(conn->amf->relativeAMFCapacity, 200);

    // Each missing mandatory IE closes the association for good (state 5).
    struct Miss {
        bool name, guamis, capacity;
        const char* ie;
    };
    for (const Miss& m : {Miss{false, true, true, "AMFName"}, Miss{true, false, true, "servedGUAMIList"},
                          Miss{true, true, false, "relativeAMFCapacity"}}) {
        SCOPED_TRACE(m.ie);
        conn->ConnStatus = KS_NGCONN__SETUP_SENT;
        sock.disableClientAutoReConnect = 0;
        int closes = gCloses;
        uint64_t incomplete = __ksEngine->NGSetupResponseIncomplete;
        r = response(m.name, m.guamis, m.capacity);
        KsNGAP__handle_NGSetupResponse(conn, r);
        __mv_amf_memfree_pdu_NGSetupResponse(r);
        EXPECT_EQ(conn->ConnStatus, KS_NGCONN__SETUP_RESPONSE_INCOMPLETE);
        EXPECT_EQ(conn->isOKToRun, 0);
        EXPECT_EQ(sock.disableClientAutoReConnect, 1);
        EXPECT_EQ(gCloses, closes + 1);
        std::string log = gEnv->appLog();
        size_t at = log.rfind(std::string("Missing mandatory parameter ") + m.ie +
                              " in NGSetupResponse, Closing NGAP connection and disabling-auto-connect");
        ASSERT_NE(at, std::string::npos);
        size_t lineStart = log.rfind('\n', at);
        EXPECT_EQ(log.substr(lineStart == std::string::npos ? 0 : lineStart + 1, 3), "[E]") << "at error level";
        EXPECT_EQ(__ksEngine->NGSetupResponseIncomplete, incomplete + 1) << "counted";
        KsNGAP_on_amf_connection_close(&sock);
        EXPECT_EQ(conn->ConnStatus, KS_NGCONN__SETUP_RESPONSE_INCOMPLETE) << "the close keeps the state";
    }

    // Failure: state 3, the association stays, no retry until the console asks.
    sock.disableClientAutoReConnect = 0;
    auto* f = static_cast<MV_AMF_DT_NGSetupFailure*>(__mv_asn_new_record(&mv_asn_amf::T_NGSetupFailure));
    f->cause = static_cast<MV_AMF_DT_Cause*>(__mv_asn_alloc(sizeof(MV_AMF_DT_Cause)));
    KsNGAP__setCause(f->cause, 1, 1);
    f->cause_isset = 1;
    int closes = gCloses;
    KsNGAP__handle_NGSetupFailure(conn, nullptr, f);
    __mv_amf_memfree_pdu_NGSetupFailure(f);
    EXPECT_EQ(conn->ConnStatus, KS_NGCONN__SETUP_FAILED);
    EXPECT_FALSE(KsNGAP__OkToSend(conn));
    EXPECT_EQ(sock.disableClientAutoReConnect, 1);
    EXPECT_EQ(gCloses, closes);
    EXPECT_NE(gEnv->appLog().find("NGSetupFailure with transport=1"), std::string::npos);

    // The console's NG Setup sends at once on the open association; refused while busy.
    gSent.clear();
    conn->Busy = 1;
    EXPECT_EQ(KsNGAP__send_NGSetup(conn), 2);
    conn->Busy = 0;
    EXPECT_EQ(KsNGAP__send_NGSetup(conn), 1);
    EXPECT_EQ(sock.disableClientAutoReConnect, 0);
    ASSERT_EQ(gSent.size(), 1u);
    EXPECT_EQ(gSent[0].procedureCode, 21);
    EXPECT_EQ(conn->ConnStatus, KS_NGCONN__SETUP_SENT);
    sock.isConnected = 0;
    EXPECT_EQ(KsNGAP__send_NGSetup(conn), 1);
    EXPECT_EQ(gSent.size(), 1u) << "a closed association sends on its next connect";
    EXPECT_EQ(conn->ConnStatus, KS_NGCONN__SETUP_REQUESTED);

    // Close by the console: state 4, survives the close event.
    EXPECT_EQ(KsNGAP__close_NGConnection(conn), 1);
    EXPECT_EQ(conn->ConnStatus, KS_NGCONN__CLOSED_BY_CONSOLE);
    EXPECT_EQ(sock.disableClientAutoReConnect, 1);
    KsNGAP_on_amf_connection_close(&sock);
    EXPECT_EQ(conn->ConnStatus, KS_NGCONN__CLOSED_BY_CONSOLE);
    conn->ConnStatus = KS_NGCONN__READY;
    conn->isOKToRun = 1;
    KsNGAP_on_amf_connection_close(&sock);
    EXPECT_EQ(conn->ConnStatus, KS_NGCONN__NOT_CONNECTED);
    EXPECT_EQ(conn->isOKToRun, 0);
}

TEST(NGSetup, CloseKeepsOrDropsUEContextsByRetention) {
    MV_Socket sock{};
    MV_KsNGRan* ran = makeRan(30, KS_ACCESS_TYPE__GNB, "001", "01", "ret", kTas);
    MV_KsRanAmfConnection* conn = makeConn(ran, &sock);
    sock.parentData1 = conn;
    MV_KsUE ue{};
    ue.TGPP.ranAmfConnection = conn;
    ue.TGPP.ranUeContext = KsEngine__AllocateKsNGRanUeContext(ran);
    ue.TGPP.ranUeContext->ksUe = &ue;
    ue.TGPP.ranUeContext->ranAmfConn = conn;
    KsEngine__RanAmf_AddUEContext(&ue, 1);
    uint64_t id = KsNGAP___GetKsNGRanUeContext_UEId(ue.TGPP.ranUeContext);

    conn->RetainUEs = 1;
    KsNGAP_on_amf_connection_close(&sock);
    EXPECT_TRUE(ue.TGPP.ranUeContext) << "retained across the reconnect";
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext_UEId(ue.TGPP.ranUeContext), id);
    EXPECT_NE(gEnv->appLog().find("NGAP Closed/ AMF RetainUEs is Enabled, Not Releasing UEContext"), std::string::npos);

    conn->RetainUEs = 0;
    KsNGAP_on_amf_connection_close(&sock);
    EXPECT_FALSE(ue.TGPP.ranUeContext);
    EXPECT_EQ(conn->ksUE_Count, 0);
    EXPECT_NE(gEnv->appLog().find("NGAP Closed /  Removed  AllUEContext"), std::string::npos);
}

TEST(ErrorIndication, FindsTheUEByItsIdAndEndsItsStep) {
    MV_KsNGRan* ran = makeRan(40, KS_ACCESS_TYPE__GNB, "001", "01", "ei", kTas);
    MV_KsRanAmfConnection* conn = makeConn(ran);
    MV_KsRanAmfConnection* other = makeConn(ran);
    MV_KsUE* ue = kst::ueOf001(1) ? kst::ueOf001(1) : nullptr;
    MV_KsUE local{};
    if (!ue) ue = &local;
    ue->TGPP.ranAmfConnection = conn;
    MV_KsNGRanUeContext* ctx = KsEngine__AllocateKsNGRanUeContext(ran);
    ctx->ksUe = ue;
    ctx->ranAmfConn = conn;
    ue->TGPP.ranUeContext = ctx;
    KsEngine__RanAmf_AddUEContext(ue, 1);
    uint64_t id = KsNGAP___GetKsNGRanUeContext_UEId(ctx);

    auto make = [](bool withId, uint64_t ranId) {
        auto* m = static_cast<MV_AMF_DT_ErrorIndication*>(__mv_asn_new_record(&mv_asn_amf::T_ErrorIndication));
        m->rANUENGAPID = ranId;
        m->rANUENGAPID_isset = withId ? 1 : 0;
        m->cause = static_cast<MV_AMF_DT_Cause*>(__mv_asn_alloc(sizeof(MV_AMF_DT_Cause)));
        KsNGAP__setCause(m->cause, 3, 2);
        m->cause_isset = 1;
        return m;
    };
    // Unknown ids, no id, or the id of another association: nothing changes.
    for (auto [withId, rid, c] : {std::tuple{true, uint64_t(99999), conn}, std::tuple{false, uint64_t(0), conn},
                                  std::tuple{true, id, other}}) {
        auto* m = make(withId, rid);
        KsNGAP__handle_ErrorIndication(c, m);
        __mv_amf_memfree_pdu_ErrorIndication(m);
        EXPECT_EQ(ue->TGPP.ranUeContext, ctx);
    }
    EXPECT_NE(gEnv->appLog().find("ErrorIndication, UEContext Not Found with rANUENGAPID=99999"), std::string::npos);

    auto* m = make(true, id);
    KsNGAP__handle_ErrorIndication(conn, m);
    __mv_amf_memfree_pdu_ErrorIndication(m);
    EXPECT_FALSE(ue->TGPP.ranUeContext);
    EXPECT_EQ(ue->TGPP.NGAPErrorCauseType, 3u);
    EXPECT_EQ(ue->TGPP.NGAPErrorCause, 2u);
    EXPECT_EQ(conn->ksUE_Count, 0);
    EXPECT_NE(gEnv->appLog().find("ErrorIndication with protocol=2 rANUENGAPID=" + std::to_string(id)),
              std::string::npos);
}

// Input the node layer could not take is counted once and names the AMF of its association.
TEST(BadInput, IsCountedAndNamesTheAmf) {
    MV_Socket sock{};
    MV_KsRanAmfConnection* conn = makeConn(makeRan(30, KS_ACCESS_TYPE__GNB, "001", "01", "bad", kTas), &sock);
    sock.parentData1 = conn;
    conn->ID = 4242;
    conn->amf->ID = 17;
    snprintf(conn->amf->IP[0], sizeof conn->amf->IP[0], "%s", "127.0.0.9");
    conn->amf->Port = 38412;
    MV_NGAPNode node{};
    node.siSocket = &sock;
    uint64_t before = __ksEngine->NGAPErrors;
    KsNGAP__handle_bad_input(&node, 60, -1, "unknown procedure code");
    KsNGAP__handle_bad_input(nullptr, -1, -1, "no procedure code");
    EXPECT_EQ(__ksEngine->NGAPErrors, before + 2);
    std::string log = gEnv->appLog();
    EXPECT_NE(log.find("NGAP from AMF-ID[17]-IP[127.0.0.9]-PORT[38412] on ranAmfConn-ID=4242: unknown procedure code, "
                       "procedureCode=60 form=-1"),
              std::string::npos);
    EXPECT_NE(log.find("NGAP from AMF-ID[0]-IP[-]-PORT[0] on ranAmfConn-ID=0: no procedure code"), std::string::npos);
}

// Every message an AMF may send reaches the dispatch: each is freed (the leak checker
// of the sanitizer build watches), none changes a connection it cannot name.
TEST(Dispatch, EveryAmfMessageIsFreedAndUnknownFormsIgnored) {
    for (unsigned i = 0; i < mv_asn_amf::kPduCount; ++i) {
        const MvAsnPdu* p = &mv_asn_amf::kPdus[i];
        if (p->type->flags & MV_ASN_F_PRIVATE) continue;
        SCOPED_TRACE(p->name);
        AsnFiller fill(77 + i);
        fill.minimal = true;
        void* rec = fill.pdu(p);
        KsNGAP__handle_ngap_message(p->procedureCode, p->form, rec, nullptr);
    }
    KsNGAP__handle_ngap_message(60, 0, nullptr, nullptr);
    EXPECT_NE(gEnv->appLog().find("UE-associated NGAP handling is not part of this build, procedureCode=7 form=0"),
              std::string::npos);
}

}  // namespace
