// The gNBs of the real engine against scripted AMFs over real SCTP associations (the
// userspace stack, both ends in this process, in a network namespace of its own): NG
// Setup of several RANs with one AMF and with two, the AMF's answers and procedures, a
// lost association, bad input, streams, RAN statistics. Every message the engine sends
// reaches the scripted AMF as bytes, and tshark reads them.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Kestrane.h"
#include "Kestrane_counters.h"
#include "KsNGAP.h"
#include "asn_testlib.h"
#include "ks_engine_env.h"
#include "mv_ngap_internal.h"
#include "netns.h"
#include "scripted_amf.h"

#ifndef KS_WSDECODE
#define KS_WSDECODE "wsdecode.sh"
#endif

namespace {

using kgt::ScriptedAmf;
using kgt::SetupAnswer;
using kse::Netns;

// alpha: three gNBs of 001/01; beta: two ng-eNBs of 310/410 that ask to retain UEs;
// gamma: one N3IWF of 208/93 with local addresses of its own.
const std::string kCfg = R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 10, "MaxRANUEID": 1000,
  "StartNGRAN": 1, "SCTPBackend": "userspace", "SCTPSendLock": 1, "IMSIPrefixWithZERO": 1,
  "LocalAddress": {"IPVersion": 4, "IP": ["10.231.0.11", "10.231.0.12"]},
  "LogLevel": {"APPLICATION": 5, "STACK": 5},
  "UEFiles": [{"Name": "ues.json"}],
  "RANNodes": [{"Name": "gamma", "ID": 17185, "HexPLMN": "02F839", "Type": "N3IWF", "IP": ["10.231.0.13", ""],
                "IPVersion": 4,
                "SupportedTAList": [{"TAC": 9, "BroadcastPLMNList": [{"MCC": "208", "MNC": "93",
                                                                     "TAISliceSupportList": [{"SST": 3}]}]}]}]})";

const std::string kAmfs = R"([{"ID": 1, "IP1": "10.231.0.1", "IP2": "", "Port": 38412, "Enabled": 1, "KsTE": 1}])";

const std::string kRans = R"([
  {"ID": 703489, "MCC": "001", "MNC": "01", "Enabled": 1, "Name": "alpha", "RANCount": 3, "KsTE": 1,
   "SupportedTAList": "[{\"TAC\": 258, \"BroadcastPLMNList\": [{\"MCC\": \"001\", \"MNC\": \"01\", \"TAISliceSupportList\": [{\"SST\": 1}, {\"SST\": 2, \"SD\": \"010203\"}]}]}]"},
  {"ID": 74565, "MCC": "310", "MNC": "410", "Enabled": 1, "Name": "beta", "RANCount": 2, "KsTE": 1, "RanType": 1,
   "UERetention": 1,
   "SupportedTAList": "[{\"HexTAC\": \"0A0B0C\", \"broadcastPLMNList\": [{\"HexPLMN\": \"13F014\", \"TAISliceSupportList\": [{\"HexSST\": \"01\", \"HexSD\": \"ABCDEF\"}]}]}]"}])";

const std::string kUes = R"({"Format": 1, "SupiRange": [{"MCC": "001", "MNC": "01",
  "SubKey": "465b5ce8b199b49faa5f0a2ee238a6bc", "OPc": "cd63cb71954a9f4e48a5994e37a02baf",
  "MSINStart": 1010000000001, "MSINEnd": 1010000000004}]})";

const char* const kRanNames[] = {"gamma", "alpha-0", "alpha-1", "alpha-2", "beta-0", "beta-1"};
constexpr size_t kRanCount = 6;

ScriptedAmf* gAmf1 = nullptr;
ScriptedAmf* gAmf2 = nullptr;
std::string gDir;

// The AMFs listen before the engine starts, so that the gNBs' first connects succeed.
class GnbAmfEnv : public ::testing::Environment {
public:
    void SetUp() override {
        if (!Netns::get().skipReason.empty()) return;
        gDir = kst::makeTempDir("gnbamf");
        mkdir((gDir + "/data").c_str(), 0700);
        kst::writeFile(gDir + "/cfg.json", kCfg);
        kst::writeFile(gDir + "/data/amf.json", kAmfs);
        kst::writeFile(gDir + "/data/ran.json", kRans);
        kst::writeFile(gDir + "/ues.json", kUes);
        if (chdir(gDir.c_str()) != 0) fail("no scratch directory");
        __init_morva_core();
        __mv_init_logger((gDir + "/logs/").c_str());
        __mv_socket_engine_init();
        __mv_socket_engine__set_sctp_backend("userspace", 0);
        gAmf1 = new ScriptedAmf(Netns::A[0], 38412, "amf-one");
        gAmf2 = new ScriptedAmf(Netns::A[0], 38413, "amf-two");
        if (!gAmf1->start() || !gAmf2->start()) fail("the scripted AMFs do not listen");
        std::string cfg = gDir + "/cfg.json";
        char* argv[] = {const_cast<char*>("kestrane"), cfg.data(), nullptr};
        if (KsEngine__Startup(2, argv) != 1) fail("the engine did not start");
    }
    void TearDown() override {
        if (!gDir.empty() && !getenv("KS_KEEP_LOGS")) kst::removeTree(gDir);
    }

private:
    // GoogleTest would report the tests after a failed environment as skipped.
    [[noreturn]] static void fail(const char* why) {
        fprintf(stderr, "%s in %s\n", why, gDir.c_str());
        std::_Exit(1);
    }
};

std::string appLog() { return kst::readLogDir(gDir + "/logs//app"); }
std::string stackLog() { return kst::readLogDir(gDir + "/logs//stk"); }
bool has(const std::string& text, const std::string& needle) { return text.find(needle) != std::string::npos; }

MV_KsRanAmfConnection* conn(const std::string& ranName, uint32_t amfId) {
    for (MV_KsRanAmfConnection* c = __ksEngine->ranAMFConnHead.load(); c; c = c->ConnNext.load())
        if (c->amf && c->amf->ID == amfId && c->ran && ranName == c->ran->NodeName) return c;
    return nullptr;
}

size_t readyCount(uint32_t amfId) {
    size_t n = 0;
    for (const char* name : kRanNames) {
        MV_KsRanAmfConnection* c = conn(name, amfId);
        n += c && KsNGAP__OkToSend(c);
    }
    return n;
}

MV_NGAPNode* nodeOf(MV_KsRanAmfConnection* c) {
    MV_Socket* s = c->siSocket.load();
    return s ? static_cast<MV_NGAPNode*>(s->transportEng) : nullptr;
}

MV_KsUE* ue(int n) { return kst::ueOf001(n); }

// A RAN UE context for the UE on the connection, as the UE-associated signalling makes it.
MV_KsNGRanUeContext* attachUe(MV_KsUE* u, MV_KsRanAmfConnection* c) {
    uint32_t attached = 0;
    KsEngine__FindRANAndLatch(u, KS_ACCESS__3GPP, &attached, c->ID);
    MV_KsNGRanUeContext* ctx = KsEngine__AllocateKsNGRanUeContext(c->ran);
    if (!ctx) return nullptr;
    ctx->ksUe = u;
    ctx->ranAmfConn = c;
    {
        std::lock_guard g(u->TGPP.ranUeContextLock);
        u->TGPP.ranUeContext = ctx;
        u->TGPP.CMStatus = CM_STATUS__CONNECTED;
    }
    KsEngine__RanAmf_AddUEContext(u, KS_BEARER__3GPP);
    return ctx;
}

// Messages the AMF got on one association since the first `from`.
std::vector<kgt::AmfReceived> from(ScriptedAmf* amf, MV_Socket* assoc, size_t skip = 0) {
    std::vector<kgt::AmfReceived> out;
    for (kgt::AmfReceived& r : amf->received())
        if (r.assoc == assoc) out.push_back(std::move(r));
    out.erase(out.begin(), out.begin() + long(std::min(skip, out.size())));
    return out;
}

// tshark over PDUs: 0 when none is malformed or carries an expert error; the JSON
// dissection in *json when asked for.
int dissect(const std::vector<std::vector<uint8_t>>& pdus, std::string* json = nullptr) {
    std::string args;
    for (size_t i = 0; i < pdus.size(); ++i) {
        std::string f = gDir + "/pdu_" + std::to_string(i) + ".hex";
        std::ofstream(f) << toHex(pdus[i]) << "\n";
        args += " " + f;
    }
    std::string out;
    int rc = runCommand(std::string("sh ") + KS_WSDECODE + (json ? " -j" : " -q") + " ngap" + args + " 2>&1", &out);
    if (json) *json = out;
    else if (rc != 0) fprintf(stderr, "%s\n", out.c_str());
    return rc;
}

#define REQUIRE_NETNS()                                                                          \
    do {                                                                                         \
        if (!Netns::get().skipReason.empty()) GTEST_SKIP() << Netns::get().skipReason;           \
    } while (0)

class GnbAmf : public ::testing::Test {
protected:
    void SetUp() override {
        REQUIRE_NETNS();
        ASSERT_TRUE(kst::waitFor([] { return readyCount(1) == kRanCount; }, 40))
            << readyCount(1) << " of " << kRanCount << " gNBs ready";
    }
    // Everything the engine sent in the test, and what the AMFs answered, through tshark.
    // A sanitizer does not change tshark's verdict on the bytes: those builds leave it out.
    void TearDown() override {
#if !defined(__SANITIZE_ADDRESS__)
        if (!gAmf1 || !haveProgram("tshark") || !haveProgram("text2pcap")) return;
        std::vector<std::vector<uint8_t>> pdus;
        for (ScriptedAmf* a : {gAmf1, gAmf2}) {
            for (const kgt::AmfReceived& r : a->received()) pdus.push_back(r.bytes);
            for (const std::vector<uint8_t>& b : a->sent()) pdus.push_back(b);
        }
        EXPECT_EQ(dissect(pdus), 0) << "tshark finds fault with a message of this test";
#endif
    }
};

TEST_F(GnbAmf, GnbsOfSeveralRansCompleteNGSetupWithOneAmfAndThenWithTwo) {
    MV_KsAmf* a1 = KsEngine__FindAmfByID(1);
    ASSERT_TRUE(a1);
    EXPECT_STREQ(a1->AMFName, "amf-one");
    EXPECT_EQ(a1->AMFName_len, 7);
    ASSERT_EQ(a1->ServedGuamiCount, 1u);
    EXPECT_EQ(a1->ServedGuami[0].amfRegionId, 0xCA);
    EXPECT_EQ(a1->ServedGuami[0].amfSetId, 0x3FF);
    EXPECT_EQ(a1->ServedGuami[0].amfPointer, 0x3F);
    EXPECT_EQ(a1->relativeAMFCapacity, 200);
    EXPECT_EQ(KsEngine__AMFConnectionCount(), kRanCount);

    // One NG Setup per gNB, each on stream 0 with PPID 60, from the addresses its RAN binds.
    EXPECT_EQ(gAmf1->count(21, 0), kRanCount);
    EXPECT_EQ(gAmf1->setupsAnswered(), kRanCount);
    for (const kgt::AmfReceived& r : gAmf1->received()) {
        EXPECT_EQ(r.stream, 0) << "non-UE-associated signalling on stream 0";
        EXPECT_EQ(r.ppid, uint32_t(MV_NGAP_PPID));
    }
    for (const char* name : kRanNames) {
        SCOPED_TRACE(name);
        MV_KsRanAmfConnection* c = conn(name, 1);
        ASSERT_TRUE(c);
        EXPECT_EQ(c->ConnStatus, uint32_t(KS_NGCONN__READY));
        EXPECT_EQ(c->RetainUEs, 0u);
        MV_Socket* s = c->siSocket.load();
        ASSERT_TRUE(s);
        EXPECT_EQ(s->PPID, uint32_t(MV_NGAP_PPID));
        EXPECT_EQ(s->UseEPoll, 2);
        EXPECT_EQ(s->max_o_streams, 16);
        EXPECT_EQ(s->UseSendLock, 1) << "SCTPSendLock 1";
        EXPECT_EQ(s->peer_max_o_streams, 16) << "16 streams each way";
        // The association is multi-homed over the engine's two addresses: either may be the primary.
        std::string peer = gAmf1->peerOf(gAmf1->association(name));
        if (std::string(name) == "gamma") EXPECT_EQ(peer.rfind("10.231.0.13-132-", 0), 0u) << peer;
        else EXPECT_TRUE(peer.rfind("10.231.0.11-132-", 0) == 0 || peer.rfind("10.231.0.12-132-", 0) == 0) << peer;
    }
    std::string log = appLog();
    for (const char* line : {"Connecting RAN-703489-[alpha-0] to AMF-ID[1]-IP[10.231.0.1]-PORT[38412]",
                             "Started RAN=", "RAN-ID=17185 RAN-Name[gamma]", "Sent NGSetupRequest with bytes[",
                             "Sent NGSetupRequest with bytes=",
                             "received NGSetupResponse aMFName_isset=1 servedGUAMIList_isset=1"})
        EXPECT_TRUE(has(log, line)) << line;

    // A second AMF, added as the console adds one: every RAN gets a connection to it too.
    json_array_append_new(__ksEngine->amf_servers,
                          json_pack("{s:i, s:s, s:s, s:i, s:i, s:i}", "ID", 2, "IP1", Netns::A[0], "IP2", "", "Port",
                                    38413, "Enabled", 1, "KsTE", 1));
    KsEngine__ConfigureDynamicAMfNodes();
    KsEngine__StartNGRANs();
    ASSERT_TRUE(kst::waitFor([] { return readyCount(2) == kRanCount; }, 40)) << readyCount(2);
    EXPECT_STREQ(KsEngine__FindAmfByID(2)->AMFName, "amf-two");
    EXPECT_EQ(gAmf2->count(21, 0), kRanCount);
    EXPECT_EQ(gAmf1->count(21, 0), kRanCount) << "the first AMF's associations were left alone";
    EXPECT_EQ(readyCount(1), kRanCount);

    // The sockets' counts agree with what each AMF saw.
    for (uint32_t id : {1u, 2u}) {
        ScriptedAmf* amf = id == 1 ? gAmf1 : gAmf2;
        uint64_t sent = 0, received = 0;
        for (const char* name : kRanNames) {
            MV_Socket* s = conn(name, id)->siSocket.load();
            sent += s->AfterMessageSent;
            received += s->ReceivedMessages;
        }
        EXPECT_EQ(sent, amf->receivedTotal());
        EXPECT_EQ(received, amf->sent().size());
    }
}

TEST_F(GnbAmf, RanStatisticsCountTheRegisteredUEsOfEachConnection) {
    MV_KsRanAmfConnection* a0 = conn("alpha-0", 1);
    MV_KsRanAmfConnection* b0 = conn("beta-0", 1);
    struct Case {
        int ue;
        MV_KsRanAmfConnection* c;
        uint32_t rm, cm;
        int sessions;
    };
    for (const Case& k : {Case{1, a0, 1, 1, 2}, Case{2, a0, 1, 0, 1}, Case{3, a0, 0, 1, 3}, Case{4, b0, 1, 1, 1}}) {
        MV_KsUE* u = ue(k.ue);
        ASSERT_TRUE(u) << k.ue;
        uint32_t attached = 0;
        KsEngine__FindRANAndLatch(u, KS_ACCESS__3GPP, &attached, k.c->ID);
        ASSERT_EQ(u->AMFConnId, k.c->ID);
        for (int i = 0; i < k.sessions; ++i) u->pduSessions[i * 3].isStarted = 1;
        u->TGPP.CMStatus = k.cm;
        u->TGPP.RMStatus = k.rm;
    }
    // Rebuilt every sixth second on the statistics thread.
    ASSERT_TRUE(kst::waitFor([&] { return a0->Registrations == 2 && b0->Registrations == 1; }, 20));
    EXPECT_EQ(a0->UEContexts, 1u) << "UE 2 is idle";
    EXPECT_EQ(a0->PDUSessions, 2u) << "the sessions of the connected UE only";
    EXPECT_EQ(b0->UEContexts, 1u);
    EXPECT_EQ(b0->PDUSessions, 1u);
    for (const char* name : {"alpha-1", "beta-1", "gamma"}) EXPECT_EQ(conn(name, 1)->Registrations, 0u) << name;

    ue(1)->TGPP.RMStatus = RM_STATUS__DEREGISTERED;
    EXPECT_TRUE(kst::waitFor([&] { return a0->Registrations == 1 && a0->UEContexts == 0; }, 20))
        << "counts follow the UEs, not the past";
}

TEST_F(GnbAmf, SetupFailureKeepsTheAssociationInState3UntilTheConsoleAsksAgain) {
    MV_KsRanAmfConnection* c = conn("alpha-1", 1);
    MV_Socket* s = c->siSocket.load();
    size_t setups = gAmf1->count(21, 0);
    gAmf1->setSetupAnswer(SetupAnswer::Failure);
    EXPECT_EQ(KsNGAP__send_NGSetup(c), 1);
    ASSERT_TRUE(kst::waitFor([&] { return c->ConnStatus == KS_NGCONN__SETUP_FAILED; }, 15)) << c->ConnStatus;
    EXPECT_EQ(c->isOKToRun, 0);
    EXPECT_FALSE(KsNGAP__OkToSend(c));
    EXPECT_EQ(s->isConnected, 1) << "the association stays";
    EXPECT_EQ(s->disableClientAutoReConnect, 1);
    EXPECT_EQ(nodeOf(c)->CloseCause, 1);
    EXPECT_TRUE(has(appLog(), "NGSetupFailure with misc=5"));
    EXPECT_EQ(gAmf1->count(21, 0), setups + 1) << "the console's request went out on the live association";

    // A close in state 3 leaves it, and nothing reconnects.
    gAmf1->drop(gAmf1->association("alpha-1"));
    ASSERT_TRUE(kst::waitFor([&] { return s->isConnected == 0; }, 15));
    EXPECT_FALSE(kst::waitFor([&] { return s->isConnected == 1; }, 5)) << "no reconnection after a refusal";
    EXPECT_EQ(c->ConnStatus, uint32_t(KS_NGCONN__SETUP_FAILED));
    EXPECT_EQ(readyCount(1), kRanCount - 1) << "the other gNBs stay ready";

    // The console's NG Setup is the way back: state 6, a reconnect, a new NG Setup.
    gAmf1->setSetupAnswer(SetupAnswer::Response);
    EXPECT_EQ(KsNGAP__send_NGSetup(c), 1);
    EXPECT_EQ(c->ConnStatus, uint32_t(KS_NGCONN__SETUP_REQUESTED));
    ASSERT_TRUE(kst::waitFor([&] { return KsNGAP__OkToSend(c); }, 20)) << c->ConnStatus;
    EXPECT_EQ(gAmf1->count(21, 0), setups + 2);
    EXPECT_TRUE(has(appLog(), "NGSetup Request Connection for ranAmfConn="));

    // The console's close: state 4, which survives the close it causes.
    EXPECT_EQ(KsNGAP__close_NGConnection(c), 1);
    ASSERT_TRUE(kst::waitFor([&] { return s->isConnected == 0 && !gAmf1->association("alpha-1"); }, 15));
    EXPECT_EQ(c->ConnStatus, uint32_t(KS_NGCONN__CLOSED_BY_CONSOLE));
    EXPECT_TRUE(has(appLog(), "NGSetup Close Connection for ranAmfConn-ID="));
}

TEST_F(GnbAmf, SetupResponseWithoutCapacityClosesTheAssociationForGood) {
    MV_KsRanAmfConnection* c = conn("beta-1", 1);
    MV_Socket* s = c->siSocket.load();
    gAmf1->setSetupAnswer(SetupAnswer::ResponseWithoutCapacity);
    EXPECT_EQ(KsNGAP__send_NGSetup(c), 1);
    ASSERT_TRUE(kst::waitFor([&] { return c->ConnStatus == KS_NGCONN__SETUP_RESPONSE_INCOMPLETE && !s->isConnected; },
                             15))
        << c->ConnStatus;
    std::string app = appLog();
    size_t at = app.find("Missing mandatory parameter relativeAMFCapacity in NGSetupResponse, Closing NGAP "
                         "connection and disabling-auto-connect");
    ASSERT_NE(at, std::string::npos);
    size_t lineStart = app.rfind('\n', at);
    EXPECT_EQ(app.substr(lineStart == std::string::npos ? 0 : lineStart + 1, 3), "[E]") << "at error level";
    EXPECT_TRUE(kst::waitFor(
        [] { return has(kst::readLogDir(gDir + "/logs//per"), "NGAP: NGSetupResponseIncomplete=1\n"); }, 10))
        << "counted in the performance log";
    EXPECT_STREQ(c->amf->AMFName, "amf-one") << "what came before the missing IE is stored";
    EXPECT_FALSE(kst::waitFor([&] { return s->isConnected == 1; }, 5));
    EXPECT_EQ(c->ConnStatus, uint32_t(KS_NGCONN__SETUP_RESPONSE_INCOMPLETE));
}

TEST_F(GnbAmf, LostAssociationComesBackWithANewNGSetupWithinSeconds) {
    MV_KsRanAmfConnection* c = conn("alpha-2", 1);
    MV_KsUE* u1 = ue(1);
    ASSERT_TRUE(attachUe(u1, c));
    ASSERT_EQ(c->ksUE_Count, 1);
    size_t setups = gAmf1->count(21, 0);

    auto t0 = std::chrono::steady_clock::now();
    gAmf1->drop(gAmf1->association("alpha-2"));
    ASSERT_TRUE(kst::waitFor([&] { return !u1->TGPP.ranUeContext && c->ksUE_Count == 0; }, 15))
        << "the close removes the UE contexts when the AMF does not retain them";
    ASSERT_TRUE(kst::waitFor([&] { return KsNGAP__OkToSend(c) && gAmf1->association("alpha-2"); }, 20));
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_LT(seconds, 15.0);
    EXPECT_EQ(gAmf1->count(21, 0), setups + 1);
    EXPECT_EQ(u1->TGPP.CMStatus, uint32_t(CM_STATUS__IDLE));
    std::string log = appLog();
    EXPECT_TRUE(has(log, "NGAP Closed ,  Removing AllUEContext: ngNode="));
    EXPECT_TRUE(has(log, "NGAP Closed /  Removed  AllUEContext: ngNode="));

    // An AMF that retains UEs: the contexts and their ids outlive the association.
    gAmf1->setSetupAnswer(SetupAnswer::ResponseRetainingUEs);
    EXPECT_EQ(KsNGAP__send_NGSetup(c), 1);
    ASSERT_TRUE(kst::waitFor([&] { return c->RetainUEs == 1 && KsNGAP__OkToSend(c); }, 15));
    MV_KsUE* u2 = ue(2);
    MV_KsNGRanUeContext* ctx = attachUe(u2, c);
    ASSERT_TRUE(ctx);
    uint64_t id = KsNGAP___GetKsNGRanUeContext_UEId(ctx);
    gAmf1->drop(gAmf1->association("alpha-2"));
    ASSERT_TRUE(kst::waitFor([&] { return has(appLog(), "NGAP Closed/ AMF RetainUEs is Enabled"); }, 15));
    ASSERT_TRUE(kst::waitFor([&] { return KsNGAP__OkToSend(c) && gAmf1->association("alpha-2"); }, 20));
    EXPECT_EQ(u2->TGPP.ranUeContext, ctx);
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext_UEId(ctx), id);
    EXPECT_EQ(c->ksUE_Count, 1);
}

TEST_F(GnbAmf, AmfProceduresTheGnbIgnoresChangeNothingAndGetNoAnswer) {
    MV_KsRanAmfConnection* c = conn("alpha-0", 1);
    MV_Socket* a = gAmf1->association("alpha-0");
    ASSERT_TRUE(a);
    MV_KsUE *u3 = ue(3), *u4 = ue(4);
    MV_KsNGRanUeContext* ctx3 = attachUe(u3, c);
    ASSERT_TRUE(ctx3);
    ASSERT_TRUE(attachUe(u4, c));
    uint64_t id3 = KsNGAP___GetKsNGRanUeContext_UEId(ctx3);
    size_t before = from(gAmf1, a).size();

    for (const std::string& m : {ScriptedAmf::ngReset(), ScriptedAmf::amfConfigurationUpdate("amf-renamed"),
                                 ScriptedAmf::overloadStart(), ScriptedAmf::overloadStop(),
                                 ScriptedAmf::amfStatusIndication(),
                                 std::string(R"({"pdu": "NGResetAcknowledge", "ies": {}})")})
        ASSERT_GT(gAmf1->sendJson(a, m), 0) << m;
    // The error indication names UE 3: its context goes, its cause is kept.
    ASSERT_GT(gAmf1->sendJson(a, ScriptedAmf::errorIndication(id3, R"({"protocol": "semantic-error"})")), 0);
    ASSERT_TRUE(kst::waitFor([&] { return !u3->TGPP.ranUeContext; }, 15));
    EXPECT_EQ(u3->TGPP.NGAPErrorCauseType, 3u);
    EXPECT_EQ(u3->TGPP.NGAPErrorCause, 4u);
    EXPECT_TRUE(u4->TGPP.ranUeContext) << "an NG Reset from the AMF leaves the contexts";
    EXPECT_EQ(c->ksUE_Count, 1);
    EXPECT_TRUE(KsNGAP__OkToSend(c));
    EXPECT_STREQ(c->amf->AMFName, "amf-one") << "the configuration update is not taken";
    std::string log = appLog();
    EXPECT_TRUE(has(log, "ErrorIndication with protocol=4 rANUENGAPID=" + std::to_string(id3)));
    for (int code : {0, 1, 20, 22, 23})
        EXPECT_TRUE(has(log, "initiating message procedureCode=" + std::to_string(code) + " from the AMF, no action"))
            << code;

    // Nothing was answered: the next message from this gNB is the console's own.
    EXPECT_EQ(KsNGAP__send_NGRanConfigurationUpdate(c), 1);
    EXPECT_EQ(KsNGAP__send_NGReset_Request(c), 1);
    ASSERT_TRUE(kst::waitFor([&] { return from(gAmf1, a).size() == before + 2; }, 15));
    std::vector<kgt::AmfReceived> after = from(gAmf1, a, before);
    EXPECT_EQ(after[0].code, 35);
    EXPECT_EQ(after[1].code, 20);
    for (const kgt::AmfReceived& r : after) EXPECT_EQ(r.stream, 0);
    EXPECT_TRUE(has(appLog(), "NGReset for ranAmfConn-ID=" + std::to_string(c->ID)));
}

TEST_F(GnbAmf, BadInputFromTheAmfIsLoggedAndDroppedAndTheAssociationGoesOn) {
    MV_KsRanAmfConnection* c = conn("beta-0", 1);
    MV_Socket* a = gAmf1->association("beta-0");
    ASSERT_TRUE(a);
    std::vector<uint8_t> reset = ScriptedAmf::encode(ScriptedAmf::ngReset());
    std::vector<uint8_t> dl = ScriptedAmf::encode(ScriptedAmf::downlinkNasTransport(7, 5));
    std::vector<uint8_t> setupRequest = ScriptedAmf::encode(
        R"({"pdu": "NGSetupRequest", "ies": {"id-GlobalRANNodeID": {"globalGNB-ID": {"pLMNIdentity": "00f110",
            "gNB-ID": {"gNB-ID": {"bits": "000104", "bitslen": 22}}}},
            "id-SupportedTAList": [{"tAC": "000001", "broadcastPLMNList": [{"pLMNIdentity": "00f110",
            "tAISliceSupportList": [{"s-NSSAI": {"sST": "01"}}]}]}], "id-DefaultPagingDRX": "v128"}})");
    ASSERT_FALSE(reset.empty());
    ASSERT_FALSE(setupRequest.empty());
    const std::vector<std::vector<uint8_t>> bad = {
        {reset.begin(), reset.begin() + 9},         // truncated NG Reset
        {dl.begin(), dl.end() - 6},                 // truncated DownlinkNASTransport
        {0x00, 60, 0x00, 0x03, 0x00, 0x00, 0x00},   // unknown procedure code
        {0x60, 21, 0x00, 0x03, 0x00, 0x00, 0x00},   // message form 3
        {0x20, 0x04, 0x00, 0x03, 0x00, 0x00, 0x00}, // a successful outcome DownlinkNASTransport has not
        setupRequest,                               // an AMF's NG Setup request
        dl,                                         // a downlink for a UE the gNB does not know
        {0x00},                                     // no procedure code
        std::vector<uint8_t>(40, 0xFF),             // noise
    };
    uint64_t errorsBefore = __ksEngine->NGAPErrors;
    for (const auto& b : bad) ASSERT_GT(gAmf1->sendBytes(a, b), 0);
    ASSERT_GT(gAmf1->sendJson(a, ScriptedAmf::errorIndication(424242, R"({"misc": "unspecified"})")), 0);
    ASSERT_TRUE(kst::waitFor([] { return has(appLog(), "UEContext Not Found with rANUENGAPID=424242"); }, 15))
        << "messages behind the bad ones are still handled";
    std::string stk = stackLog(), app = appLog();
    for (const char* line : {"NGReset decoded with sts=", "DownlinkNASTransport decoded with sts=",
                             "Unknown ProcedureCode=60, dropping request",
                             "Unknown pduMessageChoice=3 for NGSetup, dropping request",
                             "invalid message received (no message defination)",
                             "NGAP PDU of len=1 has no procedure code", "Unknown ProcedureCode=255, dropping request"})
        EXPECT_TRUE(has(stk, line)) << line;
    EXPECT_TRUE(kst::waitFor([] { return has(appLog(), "Found For AMF-UE-Id=7 RAN-UE-Id=5"); }, 15))
        << "the downlink for an unknown UE is dropped on its line";
    // Two truncated, the unknown code, form 3, the form DownlinkNASTransport lacks, one
    // octet, and the noise (an unknown code); the truncated downlink also lacks its RAN id.
    EXPECT_EQ(__ksEngine->NGAPErrors - errorsBefore, 8u);
    EXPECT_TRUE(has(app, "on ranAmfConn-ID=" + std::to_string(c->ID) + ": unknown procedure code, procedureCode=60"));

    EXPECT_TRUE(KsNGAP__OkToSend(c));
    EXPECT_EQ(c->siSocket.load()->isConnected, 1);
    EXPECT_EQ(gAmf1->association("beta-0"), a);
    EXPECT_EQ(readyCount(1), kRanCount);
    size_t updates = gAmf1->count(35, 0);
    EXPECT_EQ(KsNGAP__send_NGRanConfigurationUpdate(c), 1);
    EXPECT_TRUE(kst::waitFor([&] { return gAmf1->count(35, 0) == updates + 1; }, 15)) << "the gNB still sends";
}

// A record from the codec's JSON form; the caller frees it.
template <class R>
R* recordFromJson(const std::string& json) {
    void* rec = nullptr;
    std::string err;
    EXPECT_TRUE(__mv_asn_pdu_from_json(mv_asn_amf::kPdus, mv_asn_amf::kPduCount, json.c_str(), &rec, &err)) << err;
    return static_cast<R*>(rec);
}

std::string uplinkJson(uint64_t ranId) {
    return R"({"pdu": "UplinkNASTransport", "ies": {"id-AMF-UE-NGAP-ID": 9, "id-RAN-UE-NGAP-ID": )" +
           std::to_string(ranId) + R"(, "id-NAS-PDU": "7e004300", "id-UserLocationInformation": {"userLocationInformationNR":
           {"nR-CGI": {"pLMNIdentity": "00f110", "nRCellIdentity": {"bits": "0000003420", "bitslen": 36}},
            "tAI": {"pLMNIdentity": "00f110", "tAC": "000102"}}}}})";
}

TEST_F(GnbAmf, EachUEKeepsToOneStreamAndTheInterfaceToStreamZero) {
    MV_KsRanAmfConnection* c = conn("alpha-0", 1);
    MV_NGAPNode* node = nodeOf(c);
    MV_Socket* a = gAmf1->association("alpha-0");
    ASSERT_TRUE(node && a);
    size_t before = from(gAmf1, a).size();
    // Two UEs, three messages each, interleaved with the interface's own.
    for (int round = 0; round < 3; ++round) {
        for (uint64_t id : {5u, 6u}) {
            auto* up = recordFromJson<MV_AMF_DT_UplinkNASTransport>(uplinkJson(id));
            ASSERT_TRUE(up);
            EXPECT_GT(__mv_ngap_send_UplinkNASTransport(up, node), 0);
            __mv_amf_memfree_pdu_UplinkNASTransport(up);
        }
        EXPECT_EQ(KsNGAP__send_NGRanConfigurationUpdate(c), 1);
    }
    ASSERT_TRUE(kst::waitFor([&] { return from(gAmf1, a).size() == before + 9; }, 15));
    uint16_t s5 = __mv_ngap_ue_stream(node, 5), s6 = __mv_ngap_ue_stream(node, 6);
    EXPECT_EQ(s5, 1 + 5 % 15);
    EXPECT_NE(s5, s6);
    int ups = 0;
    for (const kgt::AmfReceived& r : from(gAmf1, a, before)) {
        if (r.code != 46) {
            EXPECT_EQ(r.stream, 0) << int(r.code);
            continue;
        }
        ++ups;
        void* rec = nullptr;
        ASSERT_EQ(decodePdu(__mv_ngap___form_pdu(46, 0), r.bytes, &rec), 1);
        uint64_t id = static_cast<MV_AMF_DT_UplinkNASTransport*>(rec)->rANUENGAPID;
        __mv_asn_memfree_pdu(__mv_ngap___form_pdu(46, 0), rec);
        EXPECT_EQ(r.stream, id == 5 ? s5 : s6) << id;
    }
    EXPECT_EQ(ups, 6);
}

// What each RAN put in its NG Setup, as tshark reads it.
using GnbAmfWire = GnbAmf;

TEST_F(GnbAmfWire, NGSetupOfEachRanCarriesItsPlmnTacIdentityAndName) {
    if (!haveProgram("tshark") || !haveProgram("text2pcap")) GTEST_SKIP() << "tshark is not installed";
    std::vector<std::vector<uint8_t>> pdus;
    for (const kgt::AmfReceived& r : gAmf1->received()) pdus.push_back(r.bytes);
    ASSERT_EQ(pdus.size(), kRanCount);
    std::string json;
    ASSERT_EQ(dissect(pdus, &json), 0) << json;
    for (const char* f : {"\"ngap.RANNodeName\": \"alpha-0\"", "\"ngap.RANNodeName\": \"alpha-2\"",
                          "\"ngap.RANNodeName\": \"beta-1\"", "\"ngap.RANNodeName\": \"gamma\"",
                          "\"ngap.gNB_ID\": \"0a:bc:01\"", "\"ngap.gNB_ID\": \"0a:bc:03\"", "\"ngap.shortMacroNgENB_ID\"",
                          "\"ngap.n3IWF_ID\": \"43:21\"", "\"e212.mcc\": \"1\"", "\"e212.mnc\": \"1\"",
                          "\"e212.mcc\": \"310\"", "\"e212.mnc\": \"410\"", "\"e212.mcc\": \"208\"",
                          "\"e212.mnc\": \"93\"", "\"ngap.tAC\": \"258\"", "\"ngap.tAC\": \"658188\"",
                          "\"ngap.tAC\": \"9\"", "\"ngap.sD\": \"01:02:03\"", "\"ngap.sD\": \"ab:cd:ef\"",
                          "\"ngap.UERetentionInformation\": \"0\"", "\"ngap.PagingDRX\": \"2\""})
        EXPECT_TRUE(has(json, f)) << f;
    EXPECT_EQ(kst::countOccurrences(json, "\"ngap.RANNodeName\":"), kRanCount);
    EXPECT_EQ(kst::countOccurrences(json, "\"ngap.UERetentionInformation\""), 2u) << "the two of beta";
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Before any thread: every thread and stack socket of this process is then in A.
    if (!::testing::GTEST_FLAG(list_tests)) Netns::get().enter();
    ::testing::AddGlobalTestEnvironment(new GnbAmfEnv);
    return RUN_ALL_TESTS();
}
