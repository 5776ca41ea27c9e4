// The gNB's UE side without sockets: RAN UE NGAP ids, NAS PDUs up and down, context
// setup, PDU session resources and UE context release, against AMF messages that went
// through the codec, with a recording NAS side. Everything the gNB sends is dissected by
// tshark.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "Kestrane.h"
#include "KsNGAP.h"
#include "gtpu_codec.h"
#include "asn_testlib.h"
#include "ca_ngap.h"
#include "KsTemplateEng.h"
#include "ks_engine_env.h"
#include "mv_ngap.h"
#include "mv_socket_engine.h"

namespace {

struct Sent {
    uint8_t code, form;
    std::vector<uint8_t> bytes;
    MV_KsRanAmfConnection* conn;
};
std::mutex gLock;
std::vector<Sent> gSent;
std::vector<std::vector<uint8_t>> gAllSent;  // for tshark at the end of each test

const MvAsnPdu* pduOf(uint8_t code, uint8_t form) {
    for (unsigned i = 0; i < mv_asn_amf::kPduCount; ++i)
        if (mv_asn_amf::kPdus[i].procedureCode == code && mv_asn_amf::kPdus[i].form == form) return &mv_asn_amf::kPdus[i];
    return nullptr;
}

int recordSend(uint8_t code, uint8_t form, void* rec, MV_KsRanAmfConnection* conn) {
    const MvAsnPdu* p = pduOf(code, form);
    std::vector<uint8_t> b = p ? encodePdu(p, rec) : std::vector<uint8_t>{};
    std::lock_guard g(gLock);
    gSent.push_back({code, form, b, conn});
    if (!b.empty()) gAllSent.push_back(b);
    return b.empty() ? -1 : int(b.size());
}
int noStart(MV_KsRanAmfConnection*) { return 1; }
int noClose(MV_KsRanAmfConnection*) { return 0; }
const KsNGAPPath kPath{noStart, recordSend, noClose};

struct NasSeen {
    MV_KsUE* ue;
    std::vector<uint8_t> nas;
    uint8_t proc;
};
std::vector<NasSeen> gNas;
std::atomic<int> gSendFailed{0};
void nasIn(MV_KsUE* ue, u_char* d, uint32_t len, uint8_t, uint8_t proc) {
    std::lock_guard g(gLock);
    gNas.push_back({ue, std::vector<uint8_t>(d, d + len), proc});
}
void nasFailed(MV_KsUE*) { ++gSendFailed; }
const KsNGAPNasEntry kNas{nasIn, nasFailed};

// The GTP-U socket of this process, and the UPF the sessions' first packets go to, on addresses
// of their own.
const std::string kGtpIp = kst::uniqueLoopback();
const std::string kUpfIp = kst::uniqueLoopback();
std::vector<uint8_t> upfAddr() {
    in_addr a{};
    inet_pton(AF_INET, kUpfIp.c_str(), &a);
    const auto* b = reinterpret_cast<const uint8_t*>(&a);
    return {b[0], b[1], b[2], b[3]};
}

kst::EngineInDir* const gEnv = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(new kst::EngineInDir(
    "ngapue", {{"cfg.json", R"({"LOCAL_GTP_IP": ")" + kGtpIp + R"(", "CLIPort": 0, "MaximumUE": 10, "MaxRANUEID": 100,
                                "LogLevel": {"APPLICATION": 5}})"}})));

size_t sentCount() {
    std::lock_guard g(gLock);
    return gSent.size();
}
Sent sentAt(size_t i) {
    std::lock_guard g(gLock);
    return gSent.at(i);
}
size_t nasCount() {
    std::lock_guard g(gLock);
    return gNas.size();
}

// Waits for a state the UE's line reaches; the bound is only a safety net.
template <class F>
bool waitFor(F done) {
    for (int i = 0; i < 30000; ++i) {
        if (done()) return true;
        usleep(1000);
    }
    return done();
}

template <class R>
R* newRec(const MvAsnType& t) {
    return static_cast<R*>(__mv_asn_new_record(&t));
}
template <class Str>
Str* octets(int (*init)(Str**, const uint8_t*, uint32_t), const std::vector<uint8_t>& b) {
    Str* s = nullptr;
    init(&s, b.data(), uint32_t(b.size()));
    return s;
}

// One gNB with a ready association and its node, as the read thread would see it.
struct Gnb {
    MV_Socket sock{};
    MV_NGAPNode node{};
    MV_KsRanAmfConnection* conn;
    explicit Gnb(uint32_t id) {
        auto* ran = __mv_arena_new<MV_KsNGRan>();
        ran->ID = id;
        ran->AccessType = KS_ACCESS_TYPE__GNB;
        ran->UEIDStartNo = 1;
        KsEngine__get_plmnHex(ran->HexPlmn, "001", "01");
        conn = __mv_arena_new<MV_KsRanAmfConnection>();
        conn->ran = ran;
        conn->amf = __mv_arena_new<MV_KsAmf>();
        conn->ID = id;
        conn->isOKToRun = 1;
        conn->ConnStatus = KS_NGCONN__READY;
        sock.parentData1 = conn;
        node.siSocket = &sock;
    }
    // An AMF message through the codec and into the gNB's dispatch, as the node layer hands it.
    void deliver(uint8_t code, uint8_t form, void* rec) {
        const MvAsnPdu* p = pduOf(code, form);
        std::vector<uint8_t> b = encodePdu(p, rec);
        __mv_asn_memfree_pdu(p, rec);
        ASSERT_FALSE(b.empty()) << p->name;
        void* out = nullptr;
        ASSERT_EQ(decodePdu(p, b, &out), 1) << p->name;
        KsNGAP__handle_ngap_message(code, form, out, &node);
    }
};

MV_KsUE* newUe(Gnb& g, int n) {
    MV_KsUE* ue = KsEngine__AllocateKsUE();
    snprintf(reinterpret_cast<char*>(ue->supi.val), sizeof ue->supi.val, "imsi-0010100000%05d", n);
    ue->TGPP.ranAmfConnection = g.conn;
    return ue;
}

const std::vector<uint8_t> kNasUp = {0x7e, 0x00, 0x43}, kNasDown = {0x7e, 0x00, 0x56, 0x01};

void downlinkNas(Gnb& g, uint64_t amfId, uint64_t ranId, const std::vector<uint8_t>& nas) {
    auto* r = newRec<MV_AMF_DT_DownlinkNASTransport>(mv_asn_amf::T_DownlinkNASTransport);
    r->aMFUENGAPID = amfId;
    r->aMFUENGAPID_isset = 1;
    r->rANUENGAPID = ranId;
    r->rANUENGAPID_isset = 1;
    r->nASPDU = octets(__mv_amf_init_NAS_PDU2, nas);
    r->nASPDU_isset = 1;
    g.deliver(4, 0, r);
}

std::string dissectAll() {
    if (!haveProgram("tshark") || !haveProgram("text2pcap")) return "";
    std::vector<std::vector<uint8_t>> pdus;
    {
        std::lock_guard g(gLock);
        pdus.swap(gAllSent);
    }
    std::string args;
    for (size_t i = 0; i < pdus.size(); ++i) {
        std::string f = ::testing::TempDir() + "/ngapue_" + std::to_string(getpid()) + "_" + std::to_string(i) + ".hex";
        std::ofstream(f) << toHex(pdus[i]) << "\n";
        args += " " + f;
    }
    std::string out;
    int rc = runCommand(std::string("sh ") + KS_WSDECODE + " -j ngap" + args + " 2>&1", &out);
    EXPECT_EQ(rc, 0) << out.substr(out.size() > 4000 ? out.size() - 4000 : 0);
    if (const char* dump = getenv("NGAPUE_DUMP")) std::ofstream(dump, std::ios::app) << out;
    return out;
}
bool has(const std::string& out, const std::string& needle) { return out.find(needle) != std::string::npos; }

// Every slot goes round once, so that each has its number and ids carry generation 1.
void cyclePool(MV_KsNGRan* ran) {
    std::vector<MV_KsNGRanUeContext*> all;
    while (MV_KsNGRanUeContext* c = KsEngine__AllocateKsNGRanUeContext(ran)) all.push_back(c);
    for (MV_KsNGRanUeContext* c : all) KsEngine__ReleaseKsNGRanUeContext(c->ran, c);
}

class NgapUe : public ::testing::Test {
protected:
    void SetUp() override {
        KsNGAP__SetPath(&kPath);
        KsNGAP__RegisterNasEntry(&kNas);
        std::lock_guard g(gLock);
        gSent.clear();
        gNas.clear();
    }
};

// ---------------------------------------------------------------- ids

TEST_F(NgapUe, IdsCarryTheGenerationAndStaleOnesAreRefused) {
    ASSERT_EQ(__ksEngine->ngRanUeContextTotal, 100u);
    MV_KsNGRan ran{};
    ran.UEIDStartNo = 1;
    cyclePool(&ran);
    MV_KsNGRanUeContext* five = KsEngine__GetNGRanUeContextById(5);
    MV_KsNGRanUeContext* last = KsEngine__GetNGRanUeContextById(100);
    ASSERT_TRUE(five && last);
    uint32_t keepFive = five->GenId, keepLast = last->GenId;
    MV_KsNGRan* keepRan = five->ran;
    five->ran = &ran;
    five->GenId = 0;
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext_UEId(five), 6u);
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(&ran, 6), five);
    five->GenId = 1;
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext_UEId(five), 106u);
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(&ran, 106), five);
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(&ran, 6), five) << "generation 0 is not compared";
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(&ran, 206), nullptr) << "a later generation than the slot's";
    EXPECT_NE(gEnv->appLog().find("Version Not Found ueContext->GenId=1 ,derived_GenId=2"), std::string::npos);
    // The start number itself, and below it, belong to no context.
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(&ran, 1), nullptr);
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(&ran, 0), nullptr);
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(nullptr, 6), nullptr);
    // A remainder of 0 is the last slot of the generation below.
    last->GenId = 0;
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(&ran, 101), last);
    last->GenId = 1;
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(&ran, 201), last);
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext(&ran, 301), nullptr);
    EXPECT_EQ(KsNGAP___GetKsNGRanUeContext_UEId(nullptr), 0u);
    five->GenId = keepFive;
    five->ran = keepRan;
    last->GenId = keepLast;
}

// ---------------------------------------------------------------- NAS up and down

TEST_F(NgapUe, NasGoesUpInitialThenUplinkAndComesDownOnTheUesLine) {
    Gnb g(1);
    MV_KsUE* ue = newUe(g, 1);
    // A GUTI with AMF set 0x3FF, pointer 0x3F.
    const uint8_t guti[10] = {0x00, 0xF1, 0x10, 0xCA, 0xFF, 0xFF, 0x01, 0x02, 0x03, 0x04};
    memcpy(ue->fgGuti.val, guti, 10);
    ue->fgGuti.len = 10;
    ue->fgGuti.isset = 1;
    ue->bInitialContextRequest = 1;
    std::vector<uint8_t> nas = kNasUp;

    ASSERT_EQ(KsNGAP___sendNasMessage(ue, nas.data(), uint32_t(nas.size()), 1, 0, 0, 0, 0), 1);
    uint64_t first = KsNGAP___GetRANUEId(ue, 1);
    ASSERT_NE(first, 0u);
    // Repeated before any answer: a new context and a new id, still initial.
    ue->Exclude5GSTMSI = 1;
    ASSERT_EQ(KsNGAP___sendNasMessage(ue, nas.data(), uint32_t(nas.size()), 1, 0, 0, 0, 1), 1);
    uint64_t second = KsNGAP___GetRANUEId(ue, 1);
    EXPECT_NE(second, first);
    EXPECT_EQ(g.conn->ksUE_Count, 1) << "the UE stands once in the connection's list";
    ASSERT_EQ(sentCount(), 2u);
    EXPECT_EQ(sentAt(0).code, 15);
    EXPECT_EQ(sentAt(1).code, 15);

    void* rec = nullptr;
    ASSERT_EQ(decodePdu(pduOf(15, 0), sentAt(0).bytes, &rec), 1);
    auto* im = static_cast<MV_AMF_DT_InitialUEMessage*>(rec);
    EXPECT_EQ(im->rANUENGAPID, first);
    EXPECT_EQ(im->uEContextRequest_isset, 1);
    ASSERT_EQ(im->fiveGSTMSI_isset, 1);
    EXPECT_EQ(im->fiveGSTMSI->aMFSetID->data[0], 0xFF);
    EXPECT_EQ(im->fiveGSTMSI->aMFSetID->data[1], 0xC0);
    EXPECT_EQ(im->fiveGSTMSI->aMFPointer->data[0], 0xFC);
    __mv_asn_memfree_pdu(pduOf(15, 0), rec);
    ASSERT_EQ(decodePdu(pduOf(15, 0), sentAt(1).bytes, &rec), 1);
    im = static_cast<MV_AMF_DT_InitialUEMessage*>(rec);
    EXPECT_EQ(im->uEContextRequest_isset, 0) << "the request holds for one message";
    EXPECT_EQ(im->fiveGSTMSI_isset, 0) << "excluded";
    __mv_asn_memfree_pdu(pduOf(15, 0), rec);

    // The AMF answers on the second id; the NAS side gets it on the UE's line.
    downlinkNas(g, 777, second, kNasDown);
    ASSERT_TRUE(waitFor([] { return nasCount() == 1; }));
    {
        std::lock_guard l(gLock);
        EXPECT_EQ(gNas[0].ue, ue);
        EXPECT_EQ(gNas[0].nas, kNasDown);
        EXPECT_EQ(gNas[0].proc, 4);
    }
    EXPECT_EQ(KsNGAP__getRanUeContext(ue, 1)->amf_id, 777u);

    // With the TAC the console set, the UE's own tracking area goes up.
    ue->TAI_TAC = 0x0A0B0C;
    snprintf(ue->TAI_MCC, sizeof ue->TAI_MCC, "310");
    snprintf(ue->TAI_MNC, sizeof ue->TAI_MNC, "410");
    ASSERT_GT(KsNGAP___sendNasMessage(ue, nas.data(), uint32_t(nas.size()), 1, 0, 0, 0, 0), 0);
    ASSERT_EQ(sentCount(), 3u);
    EXPECT_EQ(sentAt(2).code, 46);
    ASSERT_EQ(decodePdu(pduOf(46, 0), sentAt(2).bytes, &rec), 1);
    auto* ul = static_cast<MV_AMF_DT_UplinkNASTransport*>(rec);
    EXPECT_EQ(ul->aMFUENGAPID, 777u);
    EXPECT_EQ(ul->rANUENGAPID, second);
    __mv_asn_memfree_pdu(pduOf(46, 0), rec);
    ue->TAI_TAC = 0;

    // A connection that is not ready refuses, and the NAS side hears of it.
    int failed = gSendFailed;
    g.conn->isOKToRun = 0;
    EXPECT_EQ(KsNGAP___sendNasMessage(ue, nas.data(), uint32_t(nas.size()), 1, 0, 0, 0, 0), -ESRCH);
    EXPECT_EQ(gSendFailed, failed + 1);
    g.conn->isOKToRun = 1;

    std::string out = dissectAll();
    if (out.empty()) GTEST_SKIP() << "tshark is not installed";
    for (const char* f : {"\"ngap.RAN_UE_NGAP_ID\": \"", "\"ngap.AMF_UE_NGAP_ID\": \"777\"", "\"ngap.tAC\": \"658188\"",
                          "\"ngap.fiveG_TMSI\"", "\"ngap.UEContextRequest\": \"0\"", "\"e212.5gstai.mcc\": \"310\""})
        EXPECT_TRUE(has(out, f)) << f << "\n" << out.substr(0, 6000);
    EXPECT_FALSE(has(out, "_ws.malformed")) << out;
    EXPECT_FALSE(has(out, "\"_ws.expert.severity\": \"8388608\"")) << out;
    KsNGAP___releaseUeContext(ue, 1);
}

// A step's template picks the location, UEContextRequest and the RRC cause; the console's
// tracking area still wins over the location's PLMN and TAC.
TEST_F(NgapUe, TemplatesShapeInitialUEMessageAndUplinkLocation) {
    json_t* t = json_loads(R"({"Type": "NGAP", "Templates": [
        {"Name": "ue16-init", "ProcedureCode": 15, "ProtocolIEs": [
            {"ID": 121, "ValueType": "Json", "Value": {"Type": "ULINR", "NRCellId": 4660, "TAC": 77}},
            {"ID": 112}, {"ID": 90, "ValueType": "Int", "Value": 7}]},
        {"Name": "ue16-none", "ProcedureCode": 15, "ProtocolIEs": [
            {"ID": 121, "ValueType": "Json", "Value": {"Type": "ULIEUTRA"}}, {"ID": 90, "ValueType": "String", "Value": "x"}]}]})",
                           0, nullptr);
    ASSERT_TRUE(t);
    KsTemplateEng__LoadTemplate(t, "ue16.json");
    json_decref(t);
    MV_Template* init = KsTemplateEng__FindTemplate("ue16-init", "NGAP", 0);
    MV_Template* none = KsTemplateEng__FindTemplate("ue16-none", "NGAP", 0);
    ASSERT_TRUE(init && none);
    Gnb g(5);
    MV_KsUE* ue = newUe(g, 5);
    KsStep step{};
    KsStepExecution exec{};
    exec.ksStep = &step;
    ue->ksStepExecution = &exec;
    std::vector<uint8_t> nas = kNasUp;
    struct Case {
        MV_Template* tpl;
        uint32_t taiTac;
        int uli, ctxReq, cause;
        uint32_t tac;
        uint8_t cellByte3;
    };
    for (const Case& c : {Case{init, 0, 1, 1, 7, 77, 0x12}, Case{none, 0, 0, 0, 0, 0, 0}, Case{none, 99, 1, 0, 0, 99, 0x00},
                          Case{init, 99, 1, 1, 7, 99, 0x12}}) {
        SCOPED_TRACE(KsTemplateEng__GetTemplateName(c.tpl) + std::string(" tac=") + std::to_string(c.taiTac));
        step.ngap_initUEMessTemplate = c.tpl;
        ue->TAI_TAC = c.taiTac;
        snprintf(ue->TAI_MCC, sizeof ue->TAI_MCC, "001");
        snprintf(ue->TAI_MNC, sizeof ue->TAI_MNC, "01");
        size_t before = sentCount();
        ASSERT_EQ(KsNGAP___sendNasMessage(ue, nas.data(), uint32_t(nas.size()), 1, 0, 0, 0, 0), 1);
        ASSERT_EQ(sentCount(), before + 1);
        void* rec = nullptr;
        ASSERT_EQ(decodePdu(pduOf(15, 0), sentAt(before).bytes, &rec), 1);
        auto* im = static_cast<MV_AMF_DT_InitialUEMessage*>(rec);
        EXPECT_EQ(im->userLocationInformation_isset, c.uli);
        EXPECT_EQ(im->uEContextRequest_isset, c.ctxReq);
        EXPECT_EQ(im->rRCEstablishmentCause_isset, 1);
        EXPECT_EQ(im->rRCEstablishmentCause, c.cause);
        if (c.uli == 1) {
            auto* nr = im->userLocationInformation->u.userLocationInformationNR;
            EXPECT_EQ(nr->tAI->tAC->data[2], uint8_t(c.tac));
            EXPECT_EQ(nr->nR_CGI->nRCellIdentity->data[2], c.cellByte3) << "cell 4660 is 00 00 12 34 00";
        }
        __mv_asn_memfree_pdu(pduOf(15, 0), rec);
    }
    ue->ksStepExecution = nullptr;
    ue->TAI_TAC = 0;
    KsNGAP___releaseUeContext(ue, 1);
    std::string out = dissectAll();
    if (out.empty()) GTEST_SKIP() << "tshark is not installed";
    EXPECT_TRUE(has(out, "\"ngap.RRCEstablishmentCause\": \"7\"")) << out.substr(0, 4000);
    EXPECT_FALSE(has(out, "_ws.malformed")) << out;
}

// ---------------------------------------------------------------- context setup and sessions

std::vector<uint8_t> setupTransfer(uint32_t teid, std::vector<uint8_t> addr, uint8_t qfi) {
    ca::UpTunnel t;
    memcpy(t.addr, addr.data(), addr.size());
    t.addrLen = uint8_t(addr.size());
    t.teid = teid;
    ca::Ctx ctx;
    EXPECT_TRUE(ca::buildSetupRequestTransfer(1, t, qfi, 9, 2000000, ctx));
    return std::vector<uint8_t>(ctx.buffer, ctx.buffer + ctx.pos);
}

void addCxtItem(MV_AMF_DT_InitialContextSetupRequest* r, uint64_t id, const std::vector<uint8_t>& transfer) {
    if (!r->pDUSessionResourceSetupListCxtReq)
        r->pDUSessionResourceSetupListCxtReq = static_cast<MV_AMF_DT_PDUSessionResourceSetupListCxtReq*>(
            __mv_asn_alloc(sizeof(MV_AMF_DT_PDUSessionResourceSetupListCxtReq)));
    auto* it = static_cast<MV_AMF_DT_PDUSessionResourceSetupItemCxtReq*>(
        __mv_asn_alloc(sizeof(MV_AMF_DT_PDUSessionResourceSetupItemCxtReq)));
    it->pDUSessionID = id;
    const std::vector<uint8_t> sst = {1};
    it->s_NSSAI = static_cast<MV_AMF_DT_S_NSSAI*>(__mv_asn_alloc(sizeof(MV_AMF_DT_S_NSSAI)));
    it->s_NSSAI->sST = octets(__mv_amf_init_SST2, sst);
    it->pDUSessionResourceSetupRequestTransfer =
        octets(__mv_amf_init_PDUSessionResourceSetupItemCxtReq_pDUSessionResourceSetupRequestTransfer2, transfer);
    __mv_asn_list* l = r->pDUSessionResourceSetupListCxtReq->PDUSessionResourceSetupItemCxtReq;
    __mv_asn_list_add(&l, it);
    r->pDUSessionResourceSetupListCxtReq->PDUSessionResourceSetupItemCxtReq = l;
    r->pDUSessionResourceSetupListCxtReq_isset = 1;
}

// A TEID as tshark shows it: four octets in hexadecimal with colons.
std::string teidText(uint32_t teid) {
    char b[16];
    snprintf(b, sizeof b, "%02x:%02x:%02x:%02x", teid >> 24, (teid >> 16) & 0xff, (teid >> 8) & 0xff, teid & 0xff);
    return b;
}

MV_AMF_DT_InitialContextSetupRequest* contextSetup(uint64_t amfId, uint64_t ranId) {
    auto* r = newRec<MV_AMF_DT_InitialContextSetupRequest>(mv_asn_amf::T_InitialContextSetupRequest);
    r->aMFUENGAPID = amfId;
    r->aMFUENGAPID_isset = 1;
    r->rANUENGAPID = ranId;
    r->rANUENGAPID_isset = 1;
    return r;
}

TEST_F(NgapUe, ContextSetupAndSessionResourcesFillTheSessionsAndAnswer) {
    Gnb g(2);
    MV_KsUE* ue = newUe(g, 2);
    std::vector<uint8_t> nas = kNasUp;
    ASSERT_EQ(KsNGAP___sendNasMessage(ue, nas.data(), uint32_t(nas.size()), 1, 0, 0, 0, 0), 1);
    uint64_t ranId = KsNGAP___GetRANUEId(ue, 1);

    // Without sessions: answered without a session list.
    g.deliver(14, 0, contextSetup(900, ranId));
    ASSERT_TRUE(waitFor([] { return sentCount() == 2; }));
    void* rec = nullptr;
    ASSERT_EQ(decodePdu(pduOf(14, 1), sentAt(1).bytes, &rec), 1);
    auto* rsp = static_cast<MV_AMF_DT_InitialContextSetupResponse*>(rec);
    EXPECT_EQ(rsp->aMFUENGAPID, 900u);
    EXPECT_EQ(rsp->rANUENGAPID, ranId);
    EXPECT_EQ(rsp->pDUSessionResourceSetupListCxtRes_isset, 0);
    __mv_asn_memfree_pdu(pduOf(14, 1), rec);
    EXPECT_EQ(ue->TGPP.CMStatus, 1u);
    EXPECT_EQ(KsNGAP__getRanUeContext(ue, 1)->initialContextSetup, 1);

    // With a NAS PDU and sessions: 1 IPv4, 2 IPv4 and IPv6, 3 a transfer that does not
    // decode, 16 outside the range. The answer lists 1 and 2.
    auto* r = contextSetup(901, ranId);
    addCxtItem(r, 1, setupTransfer(0x11223344, upfAddr(), 5));
    std::vector<uint8_t> both = upfAddr();  // IPv4 and IPv6
    for (int i = 0; i < 16; ++i) both.push_back(uint8_t(0x20 + i));
    addCxtItem(r, 2, setupTransfer(0x55667788, both, 6));
    addCxtItem(r, 3, {0xFF, 0xFF, 0xFF});
    addCxtItem(r, 16, setupTransfer(0x99, upfAddr(), 7));
    r->nASPDU = octets(__mv_amf_init_NAS_PDU2, kNasDown);
    r->nASPDU_isset = 1;
    size_t nasBefore = nasCount();
    g.deliver(14, 0, r);
    ASSERT_TRUE(waitFor([] { return sentCount() == 3; }));
    EXPECT_EQ(nasCount(), nasBefore + 1);
    ASSERT_EQ(decodePdu(pduOf(14, 1), sentAt(2).bytes, &rec), 1);
    rsp = static_cast<MV_AMF_DT_InitialContextSetupResponse*>(rec);
    ASSERT_EQ(rsp->pDUSessionResourceSetupListCxtRes_isset, 1);
    __mv_asn_list* l = rsp->pDUSessionResourceSetupListCxtRes->PDUSessionResourceSetupItemCxtRes;
    ASSERT_EQ(l->Count, 2u);
    auto* item = static_cast<MV_AMF_DT_PDUSessionResourceSetupItemCxtRes*>(l->Head->data);
    EXPECT_EQ(item->pDUSessionID, 1u);
    ca::UpTunnel gnb;
    ASSERT_TRUE(ca::readSetupResponseTransfer(
        std::span<const uint8_t>(item->pDUSessionResourceSetupResponseTransfer->data,
                                 item->pDUSessionResourceSetupResponseTransfer->length),
        gnb));
    EXPECT_NE(gnb.teid, 0u);
    EXPECT_EQ(gnb.teid, KsNGAP___sessionOf(ue, 1)->ranTEID) << "the tunnel the user plane handed out";
    in_addr gtpIp{};
    inet_pton(AF_INET, kGtpIp.c_str(), &gtpIp);
    EXPECT_EQ(0, memcmp(gnb.addr, &gtpIp, 4));
    EXPECT_EQ(gnb.addrLen, 4);
    const uint32_t teid1 = gnb.teid;
    __mv_asn_memfree_pdu(pduOf(14, 1), rec);

    const MV_KsUEPduSession* s1 = KsNGAP___sessionOf(ue, 1);
    const MV_KsUEPduSession* s2 = KsNGAP___sessionOf(ue, 2);
    ASSERT_TRUE(s1 && s2);
    EXPECT_EQ(s1->gtpTEID, 0x11223344u);
    EXPECT_EQ(s1->QosFlowIdentifier, 5);
    EXPECT_EQ(s1->ambrDL, 2000000u);
    EXPECT_STREQ(s1->UPF__UPTLA_ipv4, kUpfIp.c_str());
    EXPECT_EQ(s1->UPF__UPTLA_ipv, 1);
    EXPECT_EQ(s1->isStarted, 1);
    EXPECT_EQ(s2->UPF__UPTLA_ipv, 3);
    EXPECT_EQ(s2->UPF__UPTLA_ipv6[0], 0x20);
    EXPECT_EQ(KsNGAP___sessionOf(ue, 3)->isStarted, 0) << "the bad transfer spoils only its own item";
    if (auto* t = static_cast<MV_PowerTable*>(__ksEngine->cpTeidTable)) {
        void* found = nullptr;
        EXPECT_EQ(__mv_power_table_fnd_lk(t, 0x11223344u, &found), 1);
        EXPECT_EQ(found, s1);
    }

    // PDU session resource setup of session 5: answered with its tunnel.
    auto* su = newRec<MV_AMF_DT_PDUSessionResourceSetupRequest>(mv_asn_amf::T_PDUSessionResourceSetupRequest);
    su->aMFUENGAPID = 901;
    su->aMFUENGAPID_isset = 1;
    su->rANUENGAPID = ranId;
    su->rANUENGAPID_isset = 1;
    su->pDUSessionResourceSetupListSUReq = static_cast<MV_AMF_DT_PDUSessionResourceSetupListSUReq*>(
        __mv_asn_alloc(sizeof(MV_AMF_DT_PDUSessionResourceSetupListSUReq)));
    auto* si = static_cast<MV_AMF_DT_PDUSessionResourceSetupItemSUReq*>(
        __mv_asn_alloc(sizeof(MV_AMF_DT_PDUSessionResourceSetupItemSUReq)));
    si->pDUSessionID = 5;
    si->s_NSSAI = static_cast<MV_AMF_DT_S_NSSAI*>(__mv_asn_alloc(sizeof(MV_AMF_DT_S_NSSAI)));
    si->s_NSSAI->sST = octets(__mv_amf_init_SST2, std::vector<uint8_t>{1});
    si->pDUSessionResourceSetupRequestTransfer = octets(
        __mv_amf_init_PDUSessionResourceSetupItemSUReq_pDUSessionResourceSetupRequestTransfer2,
        setupTransfer(0xABCD0000, upfAddr(), 9));
    si->pDUSessionNAS_PDU = octets(__mv_amf_init_NAS_PDU2, kNasDown);
    si->isPresent_pDUSessionNAS_PDU = 1;
    l = nullptr;
    __mv_asn_list_add(&l, si);
    su->pDUSessionResourceSetupListSUReq->PDUSessionResourceSetupItemSUReq = l;
    su->pDUSessionResourceSetupListSUReq_isset = 1;
    g.deliver(29, 0, su);
    ASSERT_TRUE(waitFor([] { return sentCount() == 4; }));
    EXPECT_EQ(sentAt(3).code, 29);
    EXPECT_EQ(sentAt(3).form, 1);
    EXPECT_EQ(KsNGAP___sessionOf(ue, 5)->gtpTEID, 0xABCD0000u);
    const uint32_t teid5 = KsNGAP___sessionOf(ue, 5)->ranTEID;
    EXPECT_NE(teid5, 0u);
    EXPECT_NE(teid5, teid1);

    // Modify: the NAS PDU goes up, nothing is answered.
    auto* mo = newRec<MV_AMF_DT_PDUSessionResourceModifyRequest>(mv_asn_amf::T_PDUSessionResourceModifyRequest);
    mo->aMFUENGAPID = 901;
    mo->aMFUENGAPID_isset = 1;
    mo->rANUENGAPID = ranId;
    mo->rANUENGAPID_isset = 1;
    mo->pDUSessionResourceModifyListModReq = static_cast<MV_AMF_DT_PDUSessionResourceModifyListModReq*>(
        __mv_asn_alloc(sizeof(MV_AMF_DT_PDUSessionResourceModifyListModReq)));
    auto* mi = static_cast<MV_AMF_DT_PDUSessionResourceModifyItemModReq*>(
        __mv_asn_alloc(sizeof(MV_AMF_DT_PDUSessionResourceModifyItemModReq)));
    mi->pDUSessionID = 5;
    mi->nAS_PDU = octets(__mv_amf_init_NAS_PDU2, kNasDown);
    mi->isPresent_nAS_PDU = 1;
    mi->pDUSessionResourceModifyRequestTransfer = octets(
        __mv_amf_init_PDUSessionResourceModifyItemModReq_pDUSessionResourceModifyRequestTransfer2,
        std::vector<uint8_t>{0x00, 0x00, 0x00});
    l = nullptr;
    __mv_asn_list_add(&l, mi);
    mo->pDUSessionResourceModifyListModReq->PDUSessionResourceModifyItemModReq = l;
    mo->pDUSessionResourceModifyListModReq_isset = 1;
    nasBefore = nasCount();
    g.deliver(26, 0, mo);
    ASSERT_TRUE(waitFor([&] { return nasCount() == nasBefore + 1; }));

    // Release of session 1 (and of 7, whose transfer does not decode): answered with 1 only.
    auto* rel = newRec<MV_AMF_DT_PDUSessionResourceReleaseCommand>(mv_asn_amf::T_PDUSessionResourceReleaseCommand);
    rel->aMFUENGAPID = 901;
    rel->aMFUENGAPID_isset = 1;
    rel->rANUENGAPID = ranId;
    rel->rANUENGAPID_isset = 1;
    rel->pDUSessionResourceToReleaseListRelCmd = static_cast<MV_AMF_DT_PDUSessionResourceToReleaseListRelCmd*>(
        __mv_asn_alloc(sizeof(MV_AMF_DT_PDUSessionResourceToReleaseListRelCmd)));
    ca::Ctx c;
    ASSERT_TRUE(ca::buildReleaseCommandTransfer(ca::NgCause{2, 0}, c));
    l = nullptr;
    for (uint64_t id : {1, 7}) {
        auto* ri = static_cast<MV_AMF_DT_PDUSessionResourceToReleaseItemRelCmd*>(
            __mv_asn_alloc(sizeof(MV_AMF_DT_PDUSessionResourceToReleaseItemRelCmd)));
        ri->pDUSessionID = id;
        std::vector<uint8_t> t = id == 1 ? std::vector<uint8_t>(c.buffer, c.buffer + c.pos) : std::vector<uint8_t>{0xFF};
        ri->pDUSessionResourceReleaseCommandTransfer =
            octets(__mv_amf_init_PDUSessionResourceToReleaseItemRelCmd_pDUSessionResourceReleaseCommandTransfer2, t);
        __mv_asn_list_add(&l, ri);
    }
    rel->pDUSessionResourceToReleaseListRelCmd->PDUSessionResourceToReleaseItemRelCmd = l;
    rel->pDUSessionResourceToReleaseListRelCmd_isset = 1;
    g.deliver(28, 0, rel);
    ASSERT_TRUE(waitFor([] { return sentCount() == 5; }));
    ASSERT_EQ(decodePdu(pduOf(28, 1), sentAt(4).bytes, &rec), 1);
    auto* rr = static_cast<MV_AMF_DT_PDUSessionResourceReleaseResponse*>(rec);
    ASSERT_EQ(rr->pDUSessionResourceReleasedListRelRes_isset, 1);
    EXPECT_EQ(rr->pDUSessionResourceReleasedListRelRes->PDUSessionResourceReleasedItemRelRes->Count, 1u);
    __mv_asn_memfree_pdu(pduOf(28, 1), rec);
    EXPECT_EQ(s1->isStarted, 0);
    EXPECT_EQ(s1->ranTEID, 0u) << "the released session's tunnel is given back";

    std::string out = dissectAll();
    if (out.empty()) GTEST_SKIP() << "tshark is not installed";
    const std::string fields[] = {"\"ngap.AMF_UE_NGAP_ID\": \"900\"",
                                  "\"ngap.AMF_UE_NGAP_ID\": \"901\"",
                                  "\"ngap.TransportLayerAddressIPv4\": \"" + kGtpIp + "\"",
                                  "\"ngap.gTP_TEID\": \"" + teidText(teid1) + "\"",
                                  "\"ngap.gTP_TEID\": \"" + teidText(teid5) + "\"",
                                  "\"ngap.pDUSessionID\": \"2\""};
    for (const std::string& f : fields)
        EXPECT_TRUE(has(out, f)) << f << "\n" << out.substr(0, 8000);
    EXPECT_FALSE(has(out, "_ws.malformed")) << out;
    EXPECT_FALSE(has(out, "\"_ws.expert.severity\": \"8388608\"")) << out;
    KsNGAP___releaseUeContext(ue, 1);
}

// A T-PDU from a UPF's socket to the gNB's GTP-U address on `teid`.
void sendTpdu(uint32_t teid) {
    std::vector<uint8_t> d(64, 0);
    gtpu_tpdu_hdr h;
    h.teid = teid;
    h.pduType = GTPU_PDU_TYPE_DL;
    const size_t payload = 28;
    size_t n = gtpu_build_tpdu_header(d, h, payload);
    ASSERT_GT(n, 0u);
    d.resize(n + payload);
    d[n] = 0x45;  // an IPv4 header's first octet, as a UPF's payload would begin
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(GTPU_PORT);
    inet_pton(AF_INET, kGtpIp.c_str(), &to.sin_addr);
    EXPECT_EQ(sendto(fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to), ssize_t(d.size()));
    close(fd);
}

// The UPF's GTP-U socket: counts the ICMP echoes that come in T-PDUs on `teid`.
struct UpfSocket {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    UpfSocket() {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(GTPU_PORT);
        inet_pton(AF_INET, kUpfIp.c_str(), &a.sin_addr);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    }
    ~UpfSocket() { close(fd); }
    int echoesOn(uint32_t teid, int wanted) {
        int n = 0;
        pollfd pf{fd, POLLIN, 0};
        while (n < wanted && poll(&pf, 1, 20000) == 1) {
            uint8_t b[2048];
            ssize_t len = recv(fd, b, sizeof b, 0);
            gtpu_msg_t m{};
            if (len > 0 && gtpu_decode(std::span<const uint8_t>(b, size_t(len)), &m) == 1 && m.type == 0xFF &&
                m.teid == teid && m.payload.size() > 20 && m.payload[9] == 1 && m.payload[20] == 8)
                ++n;
        }
        return n;
    }
};

uint32_t cxtResponseTeid(const Sent& s, uint64_t sessionId) {
    void* rec = nullptr;
    if (decodePdu(pduOf(14, 1), s.bytes, &rec) != 1) return 0;
    auto* rsp = static_cast<MV_AMF_DT_InitialContextSetupResponse*>(rec);
    uint32_t teid = 0;
    __mv_asn_list* l = rsp->pDUSessionResourceSetupListCxtRes_isset == 1
                           ? rsp->pDUSessionResourceSetupListCxtRes->PDUSessionResourceSetupItemCxtRes
                           : nullptr;
    for (auto* it = l ? l->Head : nullptr; it; it = it->Next) {
        auto* item = static_cast<MV_AMF_DT_PDUSessionResourceSetupItemCxtRes*>(it->data);
        ca::UpTunnel gnb;
        if (item->pDUSessionID == sessionId &&
            ca::readSetupResponseTransfer(
                std::span<const uint8_t>(item->pDUSessionResourceSetupResponseTransfer->data,
                                         item->pDUSessionResourceSetupResponseTransfer->length),
                gnb))
            teid = gnb.teid;
    }
    __mv_asn_memfree_pdu(pduOf(14, 1), rec);
    return teid;
}

TEST_F(NgapUe, DownlinkTunnelIsTheUserPlanesAndItsTpdusReachTheSession) {
    UpfSocket upf;
    Gnb g(8);
    MV_KsUE* a = newUe(g, 8);
    MV_KsUE* b = newUe(g, 9);
    std::vector<uint8_t> nas = kNasUp;
    for (MV_KsUE* u : {a, b}) ASSERT_EQ(KsNGAP___sendNasMessage(u, nas.data(), uint32_t(nas.size()), 1, 0, 0, 0, 0), 1);
    // The same core TEID for both: the gNB's tunnels must still differ.
    uint32_t teid[2] = {};
    for (int i = 0; i < 2; ++i) {
        MV_KsUE* u = i ? b : a;
        u->pduSessions[1].u_pduAddress = 0x0a2d0001u + uint32_t(i);  // as the NAS side learnt it
        size_t before = sentCount();
        auto* r = contextSetup(950 + uint64_t(i), KsNGAP___GetRANUEId(u, 1));
        addCxtItem(r, 1, setupTransfer(0x0BADF00D, upfAddr(), 1));
        g.deliver(14, 0, r);
        ASSERT_TRUE(waitFor([&] { return sentCount() == before + 1; }));
        teid[i] = cxtResponseTeid(sentAt(before), 1);
        EXPECT_EQ(teid[i], u->pduSessions[1].ranTEID);
    }
    ASSERT_NE(teid[0], 0u);
    ASSERT_NE(teid[0], teid[1]);
    EXPECT_NE(teid[0], 0x0BADF00Du + 5);
    EXPECT_EQ(upf.echoesOn(0x0BADF00D, 2), 2) << "each session's first packet, an echo request to the core's tunnel";

    sendTpdu(teid[1]);
    sendTpdu(teid[1]);
    sendTpdu(teid[0]);
    ASSERT_TRUE(waitFor([&] { return b->pduSessions[1].PktsRecvCount == 2 && a->pduSessions[1].PktsRecvCount == 1; }))
        << a->pduSessions[1].PktsRecvCount << " " << b->pduSessions[1].PktsRecvCount;

    // Without a user plane the answer still carries a tunnel, the core's TEID + 5, counted.
    const KsUserPlane* up = KsEngine__UserPlane();
    KsEngine__RegisterUserPlane(nullptr);
    uint64_t fallbacks = KsNGAP__FallbackDownlinkTeids();
    size_t before = sentCount();
    auto* r = contextSetup(950, KsNGAP___GetRANUEId(a, 1));
    addCxtItem(r, 1, setupTransfer(0x0BADF00D, upfAddr(), 1));
    addCxtItem(r, 2, setupTransfer(0x00C0FFEE, upfAddr(), 1));
    g.deliver(14, 0, r);
    ASSERT_TRUE(waitFor([&] { return sentCount() == before + 1; }));
    KsEngine__RegisterUserPlane(up);
    EXPECT_EQ(cxtResponseTeid(sentAt(before), 2), 0x00C0FFEEu + 5);
    EXPECT_EQ(cxtResponseTeid(sentAt(before), 1), teid[0]) << "a session set up again keeps its tunnel";
    EXPECT_EQ(KsNGAP__FallbackDownlinkTeids(), fallbacks + 1);

    std::string out = dissectAll();
    for (MV_KsUE* u : {a, b}) KsNGAP___releaseUeContext(u, 1);
    if (out.empty()) GTEST_SKIP() << "tshark is not installed";
    EXPECT_TRUE(has(out, "\"ngap.gTP_TEID\": \"" + teidText(teid[1]) + "\"")) << out.substr(0, 4000);
    EXPECT_FALSE(has(out, "_ws.malformed")) << out;
    EXPECT_FALSE(has(out, "\"_ws.expert.severity\": \"8388608\"")) << out;
}

// ---------------------------------------------------------------- release

MV_AMF_DT_UEContextReleaseCommand* releaseCommand(uint64_t amfId, uint64_t ranId, bool pair) {
    auto* r = newRec<MV_AMF_DT_UEContextReleaseCommand>(mv_asn_amf::T_UEContextReleaseCommand);
    r->uENGAPIDs = static_cast<MV_AMF_DT_UE_NGAP_IDs*>(__mv_asn_alloc(sizeof(MV_AMF_DT_UE_NGAP_IDs)));
    if (pair) {
        r->uENGAPIDs->SelectedChoice = 0;
        r->uENGAPIDs->u.uE_NGAP_ID_pair =
            static_cast<MV_AMF_DT_UE_NGAP_ID_pair*>(__mv_asn_alloc(sizeof(MV_AMF_DT_UE_NGAP_ID_pair)));
        r->uENGAPIDs->u.uE_NGAP_ID_pair->aMF_UE_NGAP_ID = amfId;
        r->uENGAPIDs->u.uE_NGAP_ID_pair->rAN_UE_NGAP_ID = ranId;
    } else {
        r->uENGAPIDs->SelectedChoice = 1;
        r->uENGAPIDs->u.aMF_UE_NGAP_ID = amfId;
    }
    r->uENGAPIDs_isset = 1;
    r->cause = static_cast<MV_AMF_DT_Cause*>(__mv_asn_alloc(sizeof(MV_AMF_DT_Cause)));
    KsNGAP__setCause(r->cause, 2, 0);
    r->cause_isset = 1;
    return r;
}

TEST_F(NgapUe, ReleaseFromTheAmfAndFromAStepAndLateMessagesAreDropped) {
    Gnb g(3);
    cyclePool(g.conn->ran);
    MV_KsUE* ue = newUe(g, 3);
    std::vector<uint8_t> nas = kNasUp;
    ASSERT_EQ(KsNGAP___sendNasMessage(ue, nas.data(), uint32_t(nas.size()), 1, 0, 0, 0, 0), 1);
    uint64_t ranId = KsNGAP___GetRANUEId(ue, 1);
    downlinkNas(g, 55, ranId, kNasDown);
    ASSERT_TRUE(waitFor([] { return nasCount() == 1; }));

    // From a step: the request with nas / unspecified.
    ASSERT_GT(KsNGAP___send_UEContextReleaseRequest(ue, KsNGAP__getRanUeContext(ue, 1), 1), 0);
    EXPECT_EQ(sentAt(1).code, 42);
    EXPECT_EQ(KsNGAP___send_UEContextReleaseRequest(ue, nullptr, 1), -1);
    EXPECT_EQ(ue->AppError, 3u);

    // The AMF's command with the AMF id alone is dropped unanswered.
    uint64_t dropped = KsNGAP__DroppedUeMessages();
    g.deliver(41, 0, releaseCommand(55, 0, false));
    EXPECT_EQ(KsNGAP__DroppedUeMessages(), dropped + 1);
    EXPECT_TRUE(KsNGAP__getRanUeContext(ue, 1));

    g.deliver(41, 0, releaseCommand(55, ranId, true));
    ASSERT_TRUE(waitFor([] { return sentCount() == 3; }));
    EXPECT_EQ(sentAt(2).code, 41);
    EXPECT_EQ(sentAt(2).form, 1);
    EXPECT_EQ(KsNGAP__getRanUeContext(ue, 1), nullptr);
    EXPECT_EQ(ue->TGPP.CMStatus, 0u);

    // A late message for the old id: its slot moved to the next generation.
    dropped = KsNGAP__DroppedUeMessages();
    downlinkNas(g, 55, ranId, kNasDown);
    ASSERT_TRUE(waitFor([&] { return KsNGAP__DroppedUeMessages() == dropped + 1; }));
    EXPECT_EQ(nasCount(), 1u);
    EXPECT_NE(gEnv->appLog().find("Version Not Found"), std::string::npos);

    // The gNB's own senders: error indication and cell traffic trace.
    ASSERT_EQ(KsNGAP___sendNasMessage(ue, nas.data(), uint32_t(nas.size()), 1, 0, 0, 0, 0), 1);
    KsNGAP__getRanUeContext(ue, 1)->amf_id = 66;
    EXPECT_GT(KsNGAP___send_ErrorIndication(66, KsNGAP___GetRANUEId(ue, 1), 3, 1, g.conn), 0);
    EXPECT_GT(KsNGAP___send_CellTrafficTrace(KsNGAP__getRanUeContext(ue, 1)), 0);

    std::string out = dissectAll();
    if (out.empty()) GTEST_SKIP() << "tshark is not installed";
    for (const char* f : {"\"ngap.AMF_UE_NGAP_ID\": \"55\"", "\"ngap.nas\": \"3\"", "\"ngap.protocol\": \"1\"",
                          "\"ngap.NGRANTraceID\"", "\"ngap.AMF_UE_NGAP_ID\": \"66\""})
        EXPECT_TRUE(has(out, f)) << f << "\n" << out.substr(0, 8000);
    EXPECT_FALSE(has(out, "_ws.malformed")) << out;
    EXPECT_FALSE(has(out, "\"_ws.expert.severity\": \"8388608\"")) << out;
    KsNGAP___releaseUeContext(ue, 1);
}

// Reroute moves the UE to the connection whose AMF serves the named set; context
// modification is answered at once with the two ids.
// ---------------------------------------------------------------- console commands

// Stands in for the step families: notes the step and the thread it ran on, and leaves the
// step running until the test completes it.
std::atomic<int> gRuns{0};
std::atomic<uint32_t> gRunStepCode{0};
std::atomic<pthread_t> gRunThread{}, gLineThread{};
std::atomic<int> gLineVisits{0};
void recordingRunner(MV_KsUE* ue) {
    ue->ksStepExecution = KsScanario__GetKsExecution(ue);
    KsStep* st = KsScanario__GetKsExecutionStep(ue);
    gRunStepCode = st ? st->StepCode : 0;
    gRunThread = pthread_self();
    ++gRuns;
}
void visitLine(void*) {
    gLineThread = pthread_self();
    ++gLineVisits;
}
// The registration's NAS side: its first message goes up at once.
void registeringRunner(MV_KsUE* ue) {
    recordingRunner(ue);
    std::vector<uint8_t> nas = kNasUp;
    KsNGAP___sendNasMessage(ue, nas.data(), uint32_t(nas.size()), 1, 0, 0, 0, 0);
}
void completeOnLine(void* p) { KS_COMPLETE_STEP(static_cast<MV_KsUE*>(p), KS_STEP_CODE_FROM_UE); }

// Everything posted to the UE's line before now has run.
void drainLine(MV_KsUE* ue) {
    int visits = gLineVisits.load();
    ASSERT_EQ(KsEngine__PostToUELine(ue, visitLine), 1);
    ASSERT_TRUE(waitFor([&] { return gLineVisits.load() > visits; }));
}

void queueCommand(MV_KsUE* ue, uint32_t number) {
    MV_KsTestCommand* c = KsScanario__NewTestCommand();
    ASSERT_NE(c, nullptr);
    c->Command = number;
    c->TAC = 7;
    KsScanario__QueueTestCommand(ue, c);
}

TEST_F(NgapUe, ConsoleCommandsRunOnTheUesLineOneAtATime) {
    Gnb g(10);
    MV_KsUE* ue = newUe(g, 10);
    KsEngine__SetRunnerOverride(recordingRunner);
    int runs = gRuns.load();

    // Not latched, and no RAN serves the UE: the command waits in the queue.
    queueCommand(ue, 1);
    KsNGAP__run_command(ue);
    drainLine(ue);
    EXPECT_EQ(gRuns.load(), runs);
    EXPECT_NE(ue->commandHead, nullptr);

    // Latched: the registration runs on the UE's line.
    ue->_initT3PP = 1;
    KsNGAP__run_command(ue);
    ASSERT_TRUE(waitFor([&] { return gRuns.load() == runs + 1; }));
    EXPECT_EQ(gRunStepCode.load(), __ksEngine->step_initialRegistration->StepCode);
    EXPECT_EQ(ue->commandHead, nullptr);
    drainLine(ue);
    EXPECT_TRUE(pthread_equal(gRunThread.load(), gLineThread.load())) << "the step ran on the UE's line";

    // A command that comes while that step runs stays queued, and runs once the step completes.
    queueCommand(ue, 4);
    KsNGAP__run_command(ue);
    drainLine(ue);
    EXPECT_EQ(gRuns.load(), runs + 1);
    ASSERT_NE(ue->commandHead, nullptr);
    EXPECT_EQ(ue->commandHead->Command, 4u);
    ASSERT_EQ(KsEngine__PostToUELine(ue, completeOnLine), 1);
    ASSERT_TRUE(waitFor([&] { return ue->CommandId == 0 && ue->ksStepExecutionHead == nullptr; }));
    KsNGAP__run_command(ue);
    ASSERT_TRUE(waitFor([&] { return gRuns.load() == runs + 2; }));
    EXPECT_EQ(gRunStepCode.load(), __ksEngine->step_deRegistration->StepCode);
    ASSERT_EQ(KsEngine__PostToUELine(ue, completeOnLine), 1);
    ASSERT_TRUE(waitFor([&] { return ue->CommandId == 0 && ue->ksStepExecutionHead == nullptr; }));

    // An update of the UE runs no step.
    queueCommand(ue, 17);
    KsNGAP__run_command(ue);
    drainLine(ue);
    EXPECT_EQ(ue->TAI_TAC, 7u);
    EXPECT_EQ(gRuns.load(), runs + 2);
    EXPECT_EQ(ue->commandHead, nullptr);
    KsEngine__SetRunnerOverride(nullptr);
}

TEST_F(NgapUe, RerouteMovesTheUeAndModificationIsEchoed) {
    Gnb g(6);
    auto* other = __mv_arena_new<MV_KsRanAmfConnection>();
    other->ID = 61;
    other->ran = g.conn->ran;
    other->amf = __mv_arena_new<MV_KsAmf>();
    other->amf->ServedGuamiCount = 1;
    other->amf->ServedGuami[0].amfSetId = 0x3FF;
    other->isOKToRun = 1;
    other->ConnStatus = KS_NGCONN__READY;
    g.conn->ran->ranAMFHead = g.conn;
    g.conn->Next = other;
    MV_KsUE* ue = newUe(g, 6);
    std::vector<uint8_t> nas = kNasUp;
    ASSERT_EQ(KsNGAP___sendNasMessage(ue, nas.data(), uint32_t(nas.size()), 1, 0, 0, 0, 0), 1);
    uint64_t ranId = KsNGAP___GetRANUEId(ue, 1);

    auto* mod = newRec<MV_AMF_DT_UEContextModificationRequest>(mv_asn_amf::T_UEContextModificationRequest);
    mod->aMFUENGAPID = 31;
    mod->aMFUENGAPID_isset = 1;
    mod->rANUENGAPID = ranId;
    mod->rANUENGAPID_isset = 1;
    g.deliver(40, 0, mod);
    ASSERT_EQ(sentCount(), 2u) << "answered on the read thread";
    void* rec = nullptr;
    ASSERT_EQ(decodePdu(pduOf(40, 1), sentAt(1).bytes, &rec), 1);
    EXPECT_EQ(static_cast<MV_AMF_DT_UEContextModificationResponse*>(rec)->aMFUENGAPID, 31u);
    EXPECT_EQ(static_cast<MV_AMF_DT_UEContextModificationResponse*>(rec)->rANUENGAPID, ranId);
    __mv_asn_memfree_pdu(pduOf(40, 1), rec);

    auto rerouteTo = [&](uint16_t set) {
        auto* r = newRec<MV_AMF_DT_RerouteNASRequest>(mv_asn_amf::T_RerouteNASRequest);
        r->rANUENGAPID = ranId;
        r->rANUENGAPID_isset = 1;
        r->aMFUENGAPID = 31;
        r->aMFUENGAPID_isset = 1;
        r->nGAPMessage = octets(__mv_amf_init_RerouteNASRequest_NGAP_Message2, sentAt(0).bytes);
        r->nGAPMessage_isset = 1;
        const std::vector<uint8_t> b = {uint8_t(set >> 2), uint8_t(set << 6)};
        r->aMFSetID = octets(__mv_amf_init_AMFSetID2, b);
        r->aMFSetID->bitslen = 10;
        r->aMFSetID_isset = 1;
        g.deliver(36, 0, r);
    };
    uint64_t dropped = KsNGAP__DroppedUeMessages();
    // The UE registers afresh towards the AMF of the set: its NAS side sends on the new connection.
    ue->_initT3PP = 1;
    KsEngine__SetRunnerOverride(registeringRunner);
    int runs = gRuns.load();
    size_t sent = sentCount();
    rerouteTo(0x3FF);
    ASSERT_TRUE(waitFor([&] { return gRuns.load() == runs + 1 && sentCount() == sent + 1; }));
    KsEngine__SetRunnerOverride(nullptr);
    EXPECT_EQ(ue->TGPP.ranAmfConnection, other);
    EXPECT_EQ(ue->AMFConnId, 61u);
    EXPECT_EQ(gRunStepCode.load(), __ksEngine->step_initialRegistration->StepCode);
    Sent initial = sentAt(sent);
    EXPECT_EQ(initial.code, 15) << "a fresh InitialUEMessage";
    EXPECT_EQ(initial.conn, other);
    EXPECT_NE(KsNGAP___GetRANUEId(ue, 1), ranId);
    ASSERT_EQ(KsEngine__PostToUELine(ue, completeOnLine), 1);
    ASSERT_TRUE(waitFor([&] { return ue->CommandId == 0 && ue->ksStepExecutionHead == nullptr; }));
    KsNGAP___releaseUeContext(ue, 1);
    ue->TGPP.ranAmfConnection = g.conn;
    // No connection serves set 5, and the old id is stale now.
    rerouteTo(5);
    ASSERT_TRUE(waitFor([&] { return KsNGAP__DroppedUeMessages() == dropped + 1; }));
    g.conn->Next = nullptr;
    g.conn->ran->ranAMFHead = nullptr;
    std::string out = dissectAll();
    if (out.empty()) GTEST_SKIP() << "tshark is not installed";
    EXPECT_TRUE(has(out, "\"ngap.AMF_UE_NGAP_ID\": \"31\"")) << out.substr(0, 4000);
    EXPECT_FALSE(has(out, "_ws.malformed")) << out;
}

// ---------------------------------------------------------------- bad input

TEST_F(NgapUe, BadInputIsDroppedAndTheUesGoOn) {
    Gnb g(4);
    MV_KsUE* ue = newUe(g, 4);
    std::vector<uint8_t> nas = kNasUp;
    ASSERT_EQ(KsNGAP___sendNasMessage(ue, nas.data(), uint32_t(nas.size()), 1, 0, 0, 0, 0), 1);
    uint64_t ranId = KsNGAP___GetRANUEId(ue, 1);
    uint64_t errors = __ksEngine->NGAPErrors, dropped = KsNGAP__DroppedUeMessages();

    // Missing ids, an empty NAS PDU, each kind of message without its ids.
    auto* d = newRec<MV_AMF_DT_DownlinkNASTransport>(mv_asn_amf::T_DownlinkNASTransport);
    d->aMFUENGAPID = 1;
    d->aMFUENGAPID_isset = 1;
    d->nASPDU = octets(__mv_amf_init_NAS_PDU2, kNasDown);
    d->nASPDU_isset = 1;
    KsNGAP__handle_ngap_message(4, 0, d, &g.node);
    d = newRec<MV_AMF_DT_DownlinkNASTransport>(mv_asn_amf::T_DownlinkNASTransport);
    d->rANUENGAPID = ranId;
    d->rANUENGAPID_isset = 1;
    d->nASPDU = octets(__mv_amf_init_NAS_PDU2, kNasDown);
    d->nASPDU_isset = 1;
    KsNGAP__handle_ngap_message(4, 0, d, &g.node);
    d = newRec<MV_AMF_DT_DownlinkNASTransport>(mv_asn_amf::T_DownlinkNASTransport);
    d->rANUENGAPID = ranId;
    d->rANUENGAPID_isset = 1;
    d->aMFUENGAPID_isset = 1;
    d->nASPDU = octets(__mv_amf_init_NAS_PDU2, std::vector<uint8_t>{});
    d->nASPDU_isset = 1;
    KsNGAP__handle_ngap_message(4, 0, d, &g.node);
    auto* ics = newRec<MV_AMF_DT_InitialContextSetupRequest>(mv_asn_amf::T_InitialContextSetupRequest);
    KsNGAP__handle_ngap_message(14, 0, ics, &g.node);
    auto* su = newRec<MV_AMF_DT_PDUSessionResourceSetupRequest>(mv_asn_amf::T_PDUSessionResourceSetupRequest);
    KsNGAP__handle_ngap_message(29, 0, su, &g.node);
    auto* rr = newRec<MV_AMF_DT_RerouteNASRequest>(mv_asn_amf::T_RerouteNASRequest);
    KsNGAP__handle_ngap_message(36, 0, rr, &g.node);
    EXPECT_EQ(KsNGAP__DroppedUeMessages(), dropped + 6);
    EXPECT_EQ(__ksEngine->NGAPErrors, errors + 6);
    std::string log = gEnv->appLog();
    for (const char* l : {"received DownlinkNASTransport without RAN UE NGAP ID=0",
                          "received DownlinkNASTransport without AMF UE NGAP ID=0",
                          "received DownlinkNASTransport without NASPDU",
                          "received InitialContextSetupRequest without RAN UE NGAP ID=0 and AMF UE NGAP ID=0",
                          "received PDUSessionResourceSetup without RAN UE NGAP ID=0",
                          "received RerouteNASRequest without RAN UE NGAP ID=0", "NGAP from AMF-ID[0]"})
        EXPECT_NE(log.find(l), std::string::npos) << l;

    // Unknown ids: on the line, dropped.
    dropped = KsNGAP__DroppedUeMessages();
    downlinkNas(g, 1, 99999, kNasDown);
    g.deliver(14, 0, contextSetup(1, 1000));
    ASSERT_TRUE(waitFor([&] { return KsNGAP__DroppedUeMessages() == dropped + 2; }));

    // A burst for one UE reaches the NAS side whole and in order.
    std::vector<uint8_t> pdu = kNasDown;
    for (int i = 0; i < 100; ++i) {
        pdu.back() = uint8_t(i);
        downlinkNas(g, 8, ranId, pdu);
    }
    ASSERT_TRUE(waitFor([] { return nasCount() == 100; }));
    {
        std::lock_guard l(gLock);
        for (int i = 0; i < 100; ++i) EXPECT_EQ(gNas[i].nas.back(), uint8_t(i));
    }
    // And the UE goes on.
    ASSERT_GT(KsNGAP___sendNasMessage(ue, nas.data(), uint32_t(nas.size()), 1, 0, 0, 0, 0), 0);
    EXPECT_EQ(sentAt(sentCount() - 1).code, 46);
    KsNGAP___releaseUeContext(ue, 1);
}

}  // namespace
