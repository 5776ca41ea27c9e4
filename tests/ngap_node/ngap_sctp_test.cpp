// NGAP over a real SCTP association of the userspace stack, both ends in this process (in
// a network namespace of its own): a gNB side and an AMF side, each with its node, both
// reading through __mv_ngap_on_buffer_recv. What arrives is compared with what was sent,
// the wire is read by tshark, and the buffer pool is counted.
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>

#include "ngap_samples.h"
#include "ngap_test_env.h"
#include "netns.h"

#ifndef KS_WSDECODE
#define KS_WSDECODE "wsdecode.sh"
#endif

namespace {

#define REQUIRE_NETNS()                                                                                 \
    do {                                                                                                \
        if (!kse::Netns::get().skipReason.empty()) GTEST_SKIP() << kse::Netns::get().skipReason;        \
    } while (0)

using kng::recorder;

constexpr int kPort = 38412;
// Sub-dissectors of octets that hold other protocols: random contents are not theirs to judge.
const char* kOpaque = "nas-5gs,nas-eps,nr-rrc,lte-rrc,rrc,ranap,x2ap,xnap,nrppa,lppa";

MV_NGAPNode gnbNode{}, amfNode{};
std::atomic<int> connects{0}, accepts{0};

void onGnbConnected(MV_Socket* s) {
    gnbNode.siSocket = s;
    gnbNode.CloseCause = 0;
    __mv_socket_engine__set_sendlock(s, 1);
    ++connects;
}
void onAmfAccept(MV_Socket* child, MV_Socket*) {
    amfNode.siSocket = child;
    child->transportEng = &amfNode;
    child->OnBufferReceive = __mv_ngap_on_buffer_recv;
    ++accepts;
}

// The transfer octets of a received PDUSessionResourceSetupRequest, decoded as the gNB does.
std::mutex transferLock;
std::vector<std::string> transfers;
void gnbHandler(uint8_t code, uint8_t form, void* msg, MV_NGAPNode* node) {
    if (code == 29 && form == 0 && node == &gnbNode) {
        auto* m = static_cast<MV_AMF_DT_PDUSessionResourceSetupRequest*>(msg);
        auto* item = static_cast<MV_AMF_DT_PDUSessionResourceSetupItemSUReq*>(
            m->pDUSessionResourceSetupListSUReq->PDUSessionResourceSetupItemSUReq->Head->data);
        auto* octets = item->pDUSessionResourceSetupRequestTransfer;
        __mv_asn_coding_context ctx;
        auto* t = kng::newRec<MV_AMF_DT_PDUSessionResourceSetupRequestTransfer>(
            mv_asn_amf::T_PDUSessionResourceSetupRequestTransfer);
        std::string json = "failed";
        if (__mv_asn_init_decode(&ctx, octets->data, octets->length) &&
            __mv_ngap_decode_pdu_PDUSessionResourceSetupRequestTransfer(t, &ctx) == 1) {
            json.clear();
            const void* rec = t;
            __mv_asn_json_type(&mv_asn_amf::T_PDUSessionResourceSetupRequestTransfer, &rec, json);
        }
        __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(t);
        std::lock_guard g(transferLock);
        transfers.push_back(json);
    }
    kng::recordingHandler(code, form, msg, node);
}

// The two ends: the AMF side listens on A[0], the gNB side connects from A[1] as the gNB
// does (round-robin poll readers, 16 streams, the send lock).
bool bringUp(int serverModel = 1) {
    MV_SctpSocketInfo s{};
    s.ipVersion = 4;
    s.ipCount = 1;
    snprintf(s.IP[0], sizeof s.IP[0], "%s", kse::Netns::A[0]);
    s.Port = kPort;
    s.PPID = MV_NGAP_PPID;
    s.UseEPoll = serverModel;
    s.MaxOStreams = s.MaxIStreams = 16;
    MV_Socket* srv = __mv_socket_engine_create_sctp_server_socket(&s);
    srv->OnAccept = onAmfAccept;
    srv->OnBufferReceive = __mv_ngap_on_buffer_recv;
    if (__mv_socket_engine_start_server_socket(srv) != 1) return false;

    MV_SctpSocketInfo c{};
    c.ipVersion = 4;
    c.ipCount = 1;
    snprintf(c.IP[0], sizeof c.IP[0], "%s", kse::Netns::A[1]);
    c.RemotePort = kPort;
    c.RemoteIpCount = 1;
    snprintf(c.RemoteIP[0], sizeof c.RemoteIP[0], "%s", kse::Netns::A[0]);
    c.PPID = MV_NGAP_PPID;
    c.UseEPoll = 2;
    MV_Socket* cli = __mv_socket_engine_create_sctp_client_socket(&c);
    cli->transportEng = &gnbNode;
    cli->max_o_streams = cli->max_i_streams = 16;
    cli->OnConnected = onGnbConnected;
    cli->OnBufferReceive = __mv_ngap_on_buffer_recv;
    __mv_socket_engine_sctp_client_socket_start_read_thread(cli);
    return kst::waitFor([] { return connects.load() == 1 && accepts.load() == 1; }, 15);
}

void closeGnb() {
    gnbNode.siSocket->disableClientAutoReConnect = 1;
    __mv_socket_engine_sctp__close_client_connection(gnbNode.siSocket);
}

// tshark on the loopback of this namespace, for as long as the object lives.
class Capture {
public:
    explicit Capture(const std::string& path) : path_(path) {
        std::string err = path + ".err";
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            int fd = open(err.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
            dup2(fd, 2);
            int null = open("/dev/null", O_WRONLY);
            dup2(null, 1);
            execlp("tshark", "tshark", "-i", "lo", "-f", "sctp", "-w", path.c_str(), nullptr);
            _exit(127);
        }
        ok_ = kst::waitFor([&] { return kst::readFile(err).find("Capturing on") != std::string::npos; }, 15);
        if (ok_) usleep(1000000);  // the line comes a little before packets are taken
    }
    ~Capture() { stop(); }
    void stop() {
        if (pid_ <= 0) return;
        usleep(500000);  // the capture lags the last packets a little
        kill(pid_, SIGINT);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    bool ok() const { return ok_; }
    // One line per packet of the fields asked for, separated by '|'.
    std::string fields(const std::string& filter, const std::string& fieldArgs) {
        stop();
        std::string out;
        runCommand("tshark -r " + path_ + " -o sctp.checksum:CRC-32C -Y '" + filter + "' -T fields -E separator='|' " +
                       fieldArgs + " 2>/dev/null",
                   &out);
        return out;
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
    pid_t pid_ = -1;
    bool ok_ = false;
};

// Every value of a field across all packets (tshark joins a packet's values with commas).
std::vector<std::string> values(const std::string& text) {
    std::vector<std::string> out;
    std::string cur;
    for (char c : text) {
        if (c == ',' || c == '\n' || c == '|') {
            if (!cur.empty()) out.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    if (!cur.empty()) out.push_back(cur);
    return out;
}

class NgapSctp : public ::testing::Test {
protected:
    void SetUp() override {
        recorder().clear();
        __mv_ngap_set_app_messahe_handler(gnbHandler);
    }
};

struct Sent {
    const MvAsnPdu* pdu;
    std::string json;
    MV_NGAPNode* to;
};

// Sends one record through its __mv_ngap_send_<PDU> and checks the result; the record is freed.
bool sendOne(const MvAsnPdu* p, void* rec, MV_NGAPNode* from, MV_NGAPNode* to, std::vector<Sent>& sent) {
    std::vector<uint8_t> bytes = encodePdu(p, rec);
    int r = kng::sendNamed(p->name)->send(rec, from);
    EXPECT_EQ(r, int(bytes.size())) << p->name;
    sent.push_back({p, kng::pduJson(p, rec), to});
    __mv_asn_memfree_pdu(p, rec);
    return r > 0;
}

TEST_F(NgapSctp, ExchangeReachesTheFarHandlerDecodedOnItsReadThreadWithPpid60) {
    REQUIRE_NETNS();
    std::unique_ptr<Capture> cap;
    if (haveProgram("tshark")) cap = std::make_unique<Capture>(kng::root() + "/exchange.pcapng");
    ASSERT_TRUE(bringUp());

    std::vector<Sent> sent;
    uint32_t seed = 1;
    for (const char* name : {"NGSetupRequest", "InitialUEMessage", "UplinkNASTransport", "InitialContextSetupResponse",
                             "PDUSessionResourceSetupResponse", "NGReset", "OverloadStop"}) {
        const MvAsnPdu* p = kng::pduNamed(name);
        ASSERT_TRUE(sendOne(p, kng::samplePdu(p, seed++, 1), &gnbNode, &amfNode, sent));
    }
    auto* stop = kng::newRec<MV_AMF_DT_OverloadStop>(mv_asn_amf::T_OverloadStop);
    EXPECT_EQ(__mv_ngap_send_OverloadStop(stop, &gnbNode), 7) << "seven octets of head and an empty container";
    sent.push_back({kng::pduNamed("OverloadStop"), kng::pduJson(kng::pduNamed("OverloadStop"), stop), &amfNode});
    __mv_amf_memfree_pdu_OverloadStop(stop);

    MV_AMF_DT_PDUSessionResourceSetupRequestTransfer* hand = kng::handTransfer();
    std::vector<uint8_t> handBytes =
        kng::transferBytes(__mv_ngap_encode_pdu_PDUSessionResourceSetupRequestTransfer, hand);
    std::string handJson;
    {
        const void* rec = hand;
        __mv_asn_json_type(&mv_asn_amf::T_PDUSessionResourceSetupRequestTransfer, &rec, handJson);
    }
    __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(hand);
    for (const char* name : {"NGSetupResponse", "DownlinkNASTransport", "NGSetupFailure", "OverloadStop"}) {
        const MvAsnPdu* p = kng::pduNamed(name);
        ASSERT_TRUE(sendOne(p, kng::samplePdu(p, seed++, 0), &amfNode, &gnbNode, sent));
    }
    ASSERT_TRUE(sendOne(kng::pduNamed("PDUSessionResourceSetupRequest"), kng::setupRequestWith(handBytes), &amfNode,
                        &gnbNode, sent));

    // Every other PDU the family has, with random contents, towards the AMF side.
    for (unsigned i = 0; i < mv_asn_amf::kPduCount; i++) {
        const MvAsnPdu* p = &mv_asn_amf::kPdus[i];
        if (p->type->flags & MV_ASN_F_PRIVATE) continue;
        ASSERT_TRUE(sendOne(p, kng::samplePdu(p, 500 + i, 0), &gnbNode, &amfNode, sent));
    }

    ASSERT_TRUE(kst::waitFor([&] { return recorder().size() == sent.size(); }, 15))
        << recorder().size() << " of " << sent.size();
    // Messages on different streams may overtake each other: compare each side's as a set.
    // A record's JSON names its PDU, form and procedure code, so equal sets mean each
    // message arrived with the code and form it was sent with.
    std::vector<kng::Delivery> got = recorder().all();
    for (MV_NGAPNode* side : {&amfNode, &gnbNode}) {
        std::vector<std::string> want, have;
        for (const Sent& s : sent)
            if (s.to == side) want.push_back(s.json);
        for (const kng::Delivery& d : got) {
            if (d.node != side) continue;
            have.push_back(d.json);
            SCOPED_TRACE(d.json.substr(0, 60));
            EXPECT_EQ(d.messageId, d.code);
            EXPECT_EQ(d.transport, side);
            EXPECT_EQ(d.decodingError, 0);
            EXPECT_EQ(d.thread, "app_thread") << "decoded on the thread that delivers the association's messages";
        }
        std::sort(want.begin(), want.end());
        std::sort(have.begin(), have.end());
        EXPECT_EQ(have, want);
    }
    {
        std::lock_guard g(transferLock);
        ASSERT_EQ(transfers.size(), 1u);
        EXPECT_EQ(transfers[0], handJson) << "the gNB side reads the transfer back";
    }
    EXPECT_NE(kng::stackLog().find("received buffer event for socket "), std::string::npos);
    EXPECT_NE(kng::stackLog().find("NGSetupRequest sentBytes="), std::string::npos);
    closeGnb();

    if (!cap) GTEST_SKIP() << "tshark is not installed: the wire was not checked";
    ASSERT_TRUE(cap->ok()) << "tshark did not start capturing";
    std::vector<std::string> ppids = values(cap->fields("sctp.data_payload_proto_id", "-e sctp.data_payload_proto_id"));
    EXPECT_EQ(ppids.size(), sent.size());
    for (const std::string& p : ppids) EXPECT_EQ(p, "60");
    EXPECT_EQ(cap->fields("sctp.data_payload_proto_id && !ngap", "-e frame.number"), "")
        << "packets with data that tshark does not read as NGAP";
    // Random contents make no sense inside the radio containers: those are left undissected.
    std::string out;
    int rc = runCommand(std::string("sh ") + KS_WSDECODE +
                            " -q -o sctp.checksum:CRC-32C -o ngap.dissect_container:FALSE -D " + kOpaque + " -r " +
                            cap->path() + " ngap 2>&1",
                        &out);
    EXPECT_EQ(rc, 0) << out;
    // The session transfer on the wire, read by tshark field by field.
    EXPECT_EQ(cap->fields("ngap.procedureCode == 29 && ngap.gTP_TEID == 01:02:03:04 && !_ws.malformed && "
                          "!(_ws.expert.severity >= error)",
                          "-e ngap.pDUSessionAggregateMaximumBitRateDL -e ngap.TransportLayerAddressIPv4 "
                          "-e ngap.gTP_TEID -e ngap.PDUSessionType -e ngap.qosFlowIdentifier -e ngap.fiveQI "
                          "-e ngap.priorityLevelARP"),
              "1000000|10.0.0.1|01020304|0|9|9|8\n");
}

TEST_F(NgapSctp, PdusAtAndPastTheBufferAndDamagedOnesLeaveTheAssociationRunning) {
    REQUIRE_NETNS();
    ASSERT_TRUE(bringUp());
    // Warm the pool, then count.
    auto* up = static_cast<MV_AMF_DT_UplinkNASTransport*>(kng::samplePdu(kng::pduNamed("UplinkNASTransport"), 3, 2));
    ASSERT_GT(__mv_ngap_send_UplinkNASTransport(up, &gnbNode), 0);
    ASSERT_TRUE(kst::waitFor([] { return recorder().size() == 1; }, 5));
    int inUse = kng::buffersInUse();

    // A DownlinkNASTransport of exactly 5000 octets, and one octet more.
    const MvAsnPdu* dl = kng::pduNamed("DownlinkNASTransport");
    auto* m = static_cast<MV_AMF_DT_DownlinkNASTransport*>(kng::samplePdu(dl, 4, 2));
    size_t base = encodePdu(dl, m).size();
    auto resize = [&](size_t total) {
        // the length fields around the NAS octets grow with them: try the sizes near the mark
        for (size_t nas = total - base - 16; nas < total - base + 4; nas++) {
            __mv_amf_memfree_NAS_PDU(m->nASPDU);
            std::vector<uint8_t> v(nas, 0x7e);
            m->nASPDU = kng::s2(__mv_amf_init_NAS_PDU2, v.data(), uint32_t(v.size()));
            std::vector<uint8_t> b = encodePdu(dl, m);
            if (b.size() == total) return b;
        }
        return std::vector<uint8_t>{};
    };
    std::vector<uint8_t> full = resize(MV_ASN_BUFFER_SIZE);
    ASSERT_EQ(full.size(), size_t(MV_ASN_BUFFER_SIZE));
    std::string fullJson = kng::pduJson(dl, m);
    EXPECT_EQ(__mv_ngap_send_DownlinkNASTransport(m, &amfNode), MV_ASN_BUFFER_SIZE);
    ASSERT_TRUE(kst::waitFor([] { return recorder().size() == 2; }, 5));
    EXPECT_EQ(recorder().last().json, fullJson);
    __mv_amf_memfree_pdu_DownlinkNASTransport(m);

    std::vector<uint8_t> over = full;
    over.push_back(0);  // one octet past the buffer: the socket engine drops it whole
    over[3] = 0x80 | uint8_t((over.size() - 5) >> 8);
    over[4] = uint8_t(over.size() - 5);
    EXPECT_EQ(__mv_socket_engine_sctp_send_ngap(amfNode.siSocket, over.data(), int(over.size())), int(over.size()));
    std::vector<uint8_t> truncated(full.begin(), full.begin() + 100);
    EXPECT_EQ(__mv_ngap_sendmsg(truncated.data(), int(truncated.size()), &amfNode), 100);
    const uint8_t unknown[] = {0x00, 60, 0x00, 0x03, 0x00, 0x00, 0x00}, form3[] = {0x60, 21, 0x00, 0x03, 0x00, 0x00, 0x00};
    EXPECT_EQ(__mv_ngap_sendmsg(unknown, sizeof unknown, &amfNode), 7);
    EXPECT_EQ(__mv_ngap_sendmsg(form3, sizeof form3, &amfNode), 7);
    ASSERT_GT(__mv_ngap_send_UplinkNASTransport(up, &gnbNode), 0);

    ASSERT_TRUE(kst::waitFor([] { return recorder().size() == 4; }, 5));
    // The two associations are read on different threads: look for each by its side.
    int truncatedUp = 0, laterUp = 0;
    for (const kng::Delivery& d : recorder().all()) {
        truncatedUp += d.node == &gnbNode && d.code == 4 && d.ieCount == 0;
        laterUp += d.node == &amfNode && d.code == 46;
    }
    EXPECT_EQ(truncatedUp, 1) << "the truncated PDU goes up as far as it decoded";
    EXPECT_EQ(laterUp, 2) << "the association goes on";
    usleep(200000);
    EXPECT_EQ(recorder().size(), 4u);
    std::string log = kng::stackLog();
    EXPECT_NE(log.find("sctp message longer than 5000 bytes"), std::string::npos);
    EXPECT_NE(log.find("DownlinkNASTransportinvalid length."), std::string::npos);
    EXPECT_NE(log.find("Unknown ProcedureCode=60, dropping request"), std::string::npos);
    EXPECT_NE(log.find("Unknown pduMessageChoice=3 for NGSetup, dropping request"), std::string::npos);
    EXPECT_TRUE(kst::waitFor([&] { return kng::buffersInUse() == inUse; }, 5));
    __mv_amf_memfree_pdu_UplinkNASTransport(up);
    closeGnb();
}

// The AMF side answers every UplinkNASTransport with a DownlinkNASTransport from its
// handler, on the delivering thread, as an application may.
MV_AMF_DT_DownlinkNASTransport* answer = nullptr;
std::atomic<long> answered{0}, downlinks{0};
void echoHandler(uint8_t code, uint8_t form, void* msg, MV_NGAPNode* node) {
    const MvAsnPdu* p = __mv_ngap___form_pdu(code, form);
    if (node == &amfNode && code == 46) {
        if (__mv_ngap_send_DownlinkNASTransport(answer, node) > 0) ++answered;
    } else if (node == &gnbNode && code == 4) {
        downlinks.fetch_add(1, std::memory_order_release);
        downlinks.notify_all();
    }
    __mv_asn_memfree_pdu(p, msg);
}

TEST_F(NgapSctp, LongExchangeGivesEveryBufferBackAndAClosedAssociationFailsTheSend) {
    REQUIRE_NETNS();
    __mv_set_log_level(MV_STK_LOG, MV_LOG_ERROR);  // keep the 6000 messages out of the log
    __mv_ngap_set_app_messahe_handler(echoHandler);
    answer = static_cast<MV_AMF_DT_DownlinkNASTransport*>(kng::samplePdu(kng::pduNamed("DownlinkNASTransport"), 8, 0));
    ASSERT_TRUE(bringUp());
    auto* up = static_cast<MV_AMF_DT_UplinkNASTransport*>(kng::samplePdu(kng::pduNamed("UplinkNASTransport"), 9, 0));
    auto exchange = [&](long n) {
        long start = downlinks.load();
        for (long i = 0; i < n; i++) {
            while (__mv_ngap_send_UplinkNASTransport(up, &gnbNode) < 1) usleep(1000);
            // a window of 50 in flight
            for (long now = downlinks.load(); now < start + i - 50; now = downlinks.load()) downlinks.wait(now);
        }
        return kst::waitFor([&] { return downlinks.load() == start + n; }, 20);
    };
    ASSERT_TRUE(exchange(200));
    int inUse = kng::buffersInUse();
    MV_SocketPoolCounts before = __mv_socket_engine_sctp_pool_counts();
    ASSERT_TRUE(exchange(3000));
    EXPECT_EQ(answered.load(), 3200);
    EXPECT_TRUE(kst::waitFor([&] { return kng::buffersInUse() == inUse; }, 5))
        << "in use " << kng::buffersInUse() << " against " << inUse << ", pool of " << before.Total;

    __mv_set_log_level(MV_STK_LOG, MV_LOG_DEBUG);
    closeGnb();
    size_t failed = kng::stackLines("UplinkNASTransport Send Failed sentBytes=-1");
    EXPECT_EQ(__mv_ngap_send_UplinkNASTransport(up, &gnbNode), -1);
    EXPECT_EQ(kng::stackLines("UplinkNASTransport Send Failed sentBytes=-1"), failed + 1);
    __mv_amf_memfree_pdu_UplinkNASTransport(up);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Before any thread: every thread and stack socket of this process is then in A.
    if (!::testing::GTEST_FLAG(list_tests)) kse::Netns::get().enter();
    ::testing::AddGlobalTestEnvironment(new kng::NgapEnv);
    return RUN_ALL_TESTS();
}
