// The GTP-U endpoint and the traffic generator over loopback: echo answered, T-PDUs delivered to the
// owner of their TEID, bad datagrams counted and dropped; the generator's packets read back by a plain
// socket, its goals, flows and ICMP override.
#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>

#include "gtpu_gen.h"
#include "gtpu_node.h"
#include "gtpu_testlib.h"
#include "gtpu_wire.h"

namespace {

using namespace kgt;
using kst::waitFor;

constexpr uint32_t kTeidOffset = 0x1000;

struct Delivered {
    std::mutex lock;
    std::map<void*, int> tpdus;
    std::map<void*, int> endMarkers;
    std::atomic<int> echoResponses{0};
    std::atomic<int> errorIndications{0};
    uint32_t lastErrorTeid = 0;
};
Delivered* gDelivered = nullptr;

__mv_gtpu_handlers handlers() {
    __mv_gtpu_handlers h;
    h.OnTPDU = [](void* owner, void*, const gtpu_msg_t*, const gtpu_peer*) {
        std::lock_guard lk(gDelivered->lock);
        gDelivered->tpdus[owner]++;
    };
    h.OnEndMarker = [](void* owner, void*, const gtpu_msg_t*, const gtpu_peer*) {
        std::lock_guard lk(gDelivered->lock);
        gDelivered->endMarkers[owner]++;
    };
    h.OnEchoResponse = [](uint16_t, const gtpu_peer*) { ++gDelivered->echoResponses; };
    h.OnErrorIndication = [](const gtpu_ies_t* ies, const gtpu_peer*) {
        gDelivered->lastErrorTeid = ies->teidDataI;
        ++gDelivered->errorIndications;
    };
    return h;
}

// An endpoint on a loopback address of this process, with a TEID table of its own.
struct Endpoint {
    Endpoint() {
        startRuntime();
        delivered = std::make_unique<Delivered>();
        gDelivered = delivered.get();
        teids = __mv_IndexTable_create(1, 64);
        __mv_gtpu_config cfg;
        ip = kst::uniqueLoopback();
        cfg.ip = ip.c_str();
        cfg.port = 0;
        cfg.teidTable = teids;
        cfg.teidOffset = kTeidOffset;
        cfg.handlers = handlers();
        node = __mv_gtpu__open(&cfg);
        EXPECT_NE(node, nullptr);
    }
    ~Endpoint() {
        __mv_gtpu__close(node);
        gDelivered = nullptr;
    }
    // A TEID given out to `owner`.
    uint32_t teidFor(void* owner) { return __mv_IndexTable_allocateRowId(teids, owner) + kTeidOffset; }
    __mv_gtpu_stats stats() const {
        __mv_gtpu_stats s;
        __mv_gtpu__get_stats(node, &s);
        return s;
    }
    std::string ip;
    MV_IndexTable* teids = nullptr;
    __mv_gtpu_node* node = nullptr;
    std::unique_ptr<Delivered> delivered;
};

Bytes tpdu(uint32_t teid, size_t payload = 40) {
    Bytes b(16 + payload, 0);
    gtpu_tpdu_hdr h;
    h.teid = teid;
    EXPECT_EQ(gtpu_build_tpdu_header(b, h, payload), 16u);
    b[16] = 0x45;
    return b;
}

TEST(GtpuNode, AnswersEchoAndDeliversTpdusAndEndMarkersToTheOwnerOfTheirTeid) {
    Endpoint ep;
    UdpPeer peer(ep.ip);
    int ueA = 0, ueB = 0;
    uint32_t ta = ep.teidFor(&ueA), tb = ep.teidFor(&ueB);
    ASSERT_NE(ta, tb);

    Bytes echo(12);
    ASSERT_EQ(gtpu_build_echo_request(echo, 0x4242), 12u);
    peer.send(*__mv_gtpu__local(ep.node), echo);
    Bytes rsp = peer.recv(10);
    gtpu_msg_t m;
    ASSERT_EQ(gtpu_decode(rsp, &m), 1) << toHex(rsp);
    EXPECT_EQ(m.type, GTPU_ECHO_RESPONSE);
    EXPECT_EQ(m.seq, 0x4242);
    EXPECT_EQ(m.teid, 0u);
    gtpu_ies_t ies;
    ASSERT_EQ(gtpu_decode_ies(m.payload, &ies), 1);
    EXPECT_TRUE(ies.hasRecovery);

    for (int i = 0; i < 3; i++) peer.send(*__mv_gtpu__local(ep.node), tpdu(ta));
    peer.send(*__mv_gtpu__local(ep.node), tpdu(tb));
    Bytes em(8);
    ASSERT_EQ(gtpu_build_end_marker(em, tb), 8u);
    peer.send(*__mv_gtpu__local(ep.node), em);
    ASSERT_TRUE(waitFor([&] { return ep.stats().rxEndMarker == 1; }, 10));
    {
        std::lock_guard lk(ep.delivered->lock);
        EXPECT_EQ(ep.delivered->tpdus[&ueA], 3);
        EXPECT_EQ(ep.delivered->tpdus[&ueB], 1);
        EXPECT_EQ(ep.delivered->endMarkers[&ueB], 1);
    }
    // Our own echo request, answered by the peer.
    gtpu_peer to = peer.addr;
    ASSERT_EQ(__mv_gtpu__send_echo_request(ep.node, to, 7), 12);
    Bytes req = peer.recv(10);
    ASSERT_EQ(gtpu_decode(req, &m), 1);
    EXPECT_EQ(m.type, GTPU_ECHO_REQUEST);
    Bytes answer(16);
    answer.resize(gtpu_build_echo_response(answer, m.seq));
    peer.send(*__mv_gtpu__local(ep.node), answer);
    // An error indication for a tunnel of ours.
    uint8_t addr[4] = {127, 0, 0, 1};
    Bytes ei(64);
    ei.resize(gtpu_build_error_indication(ei, ta, addr, 0));
    peer.send(*__mv_gtpu__local(ep.node), ei);
    ASSERT_TRUE(waitFor([&] { return ep.delivered->echoResponses == 1 && ep.delivered->errorIndications == 1; }, 10));
    EXPECT_EQ(ep.delivered->lastErrorTeid, ta);
    __mv_gtpu_stats s = ep.stats();
    EXPECT_EQ(s.rxTpdu, 4u);
    EXPECT_EQ(s.rxEchoRequest, 1u);
    EXPECT_EQ(s.txEchoResponse, 1u);
    EXPECT_EQ(s.dropped(), 0u);
}

TEST(GtpuNode, BadDatagramsAreCountedAndDroppedAndTheEndpointGoesOn) {
    Endpoint ep;
    UdpPeer peer(ep.ip);
    int ue = 0;
    uint32_t teid = ep.teidFor(&ue);
    const gtpu_peer& to = *__mv_gtpu__local(ep.node);

    Bytes good = tpdu(teid);
    peer.send(to, Bytes(good.begin(), good.begin() + 5));  // truncated header
    Bytes v2 = good;
    v2[0] = 0x56;  // version 2
    peer.send(to, v2);
    Bytes gtpPrime = good;
    gtpPrime[0] &= ~0x10;
    peer.send(to, gtpPrime);
    Bytes longer = good;
    longer[3] += 9;  // a length past the datagram
    peer.send(to, longer);
    Bytes endless = good;
    endless[15] = GTPU_EXT_PDU_SESSION_CONTAINER;  // another container that is not there
    peer.send(to, endless);
    Bytes zeroExt = good;
    zeroExt[12] = 0;  // an extension of length 0 would never end
    peer.send(to, zeroExt);
    Bytes mustKnow = good;
    mustKnow[11] = 0xC1;  // an extension the receiver must understand
    peer.send(to, mustKnow);
    peer.send(to, tpdu(teid + 77));  // no such tunnel
    Bytes unknownType = Bytes{0x30, 0x77, 0, 0, 0, 0, 0, 0};
    peer.send(to, unknownType);
    Bytes echoCut = {0x32, GTPU_ECHO_RESPONSE, 0, 5, 0, 0, 0, 0, 0, 1, 0, 0, 14};  // recovery without its value
    peer.send(to, echoCut);
    Bytes huge(GTPU_RX_MAX + 100, 0);
    peer.send(to, huge);
    peer.send(to, good);
    ASSERT_TRUE(waitFor([&] { return ep.stats().rxTpdu == 1; }, 10));
    __mv_gtpu_stats s = ep.stats();
    EXPECT_EQ(s.rxShort, 1u);
    EXPECT_EQ(s.rxBadVersion, 1u);
    EXPECT_EQ(s.rxProtocolType, 1u);
    EXPECT_EQ(s.rxBadLength, 1u);
    EXPECT_EQ(s.rxBadExtension, 2u);
    EXPECT_EQ(s.rxUnsupportedExtension, 1u);
    EXPECT_EQ(s.rxUnknownTeid, 1u);
    EXPECT_EQ(s.rxUnknownType, 1u);
    EXPECT_EQ(s.rxBadIE, 1u);
    EXPECT_EQ(s.rxTooLong, 1u);
    EXPECT_EQ(s.dropped(), 11u);
    EXPECT_EQ(s.rxDatagrams, 12u);
    std::lock_guard lk(ep.delivered->lock);
    EXPECT_EQ(ep.delivered->tpdus[&ue], 1);
}

// Sessions of fake UEs, as the engine's UE records hold them.
struct Ue {
    gtpu_session s[GTPU_GEN_SESSIONS + 1];
};
gtpu_session* sessionOf(void* owner, uint8_t id) { return &static_cast<Ue*>(owner)->s[id]; }

struct Generator {
    explicit Generator(Endpoint& ep, bool start) {
        gtpu_gen_config cfg;
        cfg.threads = 3;
        cfg.node = ep.node;
        cfg.dstPort = sink.addr.v4.sin_port ? ntohs(sink.addr.v4.sin_port) : 0;
        cfg.hooks.Session = sessionOf;
        cfg.start = start;
        gen = gtpu_gen_create(&cfg);
        EXPECT_NE(gen, nullptr);
    }
    ~Generator() { gtpu_gen_destroy(gen); }
    // A UE with session 1 up towards the sink.
    void up(Ue& ue, uint32_t teid, uint32_t ueIp) {
        gtpu_session& s = ue.s[1];
        s.UPF__UPTLA_ipv4_int = ntohl(sink.addr.v4.sin_addr.s_addr);
        s.gtpTEID = teid;
        s.u_pduAddress = ueIp;
        s.QosFlowIdentifier = 9;
        s.isStarted = 1;
    }
    UdpPeer sink{kst::uniqueLoopback()};
    gtpu_gen* gen = nullptr;
};

TEST(GtpuGenerator, SendsOnEveryFlowUntilTheGoalAndTheSinkReadsEachUesTunnel) {
    Endpoint ep;
    Generator g(ep, false);
    Ue a, b, idle;
    g.up(a, 0x111, 0x0a2d0001);
    g.up(b, 0x222, 0x0a2d0002);
    g.up(idle, 0x333, 0x0a2d0003);
    idle.s[1].isStarted = 0;  // its tunnel is not up: it sends nothing and stays active
    gtpu_gen_make_flows(&a.s[1], 1);  // one asked for makes two: TCP and UDP
    gtpu_gen_make_flows(&b.s[1], 4);
    gtpu_gen_make_flows(&idle.s[1], 2);
    EXPECT_EQ(a.s[1].FlowsCount.load(), 2u);
    EXPECT_EQ(a.s[1].ProtocolType[0], GTPU_IP_TCP);
    EXPECT_EQ(a.s[1].ProtocolType[1], GTPU_IP_UDP);
    // Three UEs on one thread (ids 0, 3, 6 of three threads).
    gtpu_gen_activation act;
    act.uploadBytes = 1000;
    gtpu_gen_activate(gtpu_gen_item_of(g.gen, &a, 0), act);
    gtpu_gen_activate(gtpu_gen_item_of(g.gen, &b, 3), act);
    gtpu_gen_activate(gtpu_gen_item_of(g.gen, &idle, 6), act);
    EXPECT_EQ(gtpu_gen_item_of(g.gen, &a, 0), gtpu_gen_find_item(g.gen, 0));

    int visits = 0;
    while (gtpu_gen_visit(g.gen, 0) > 0 && visits < 100) visits++;
    gtpu_gen_flush(g.gen, 0);
    gtpu_gen_item* ia = gtpu_gen_find_item(g.gen, 0);
    gtpu_gen_item* ib = gtpu_gen_find_item(g.gen, 3);
    gtpu_gen_item* ii = gtpu_gen_find_item(g.gen, 6);
    EXPECT_EQ(ia->isActive.load(), 0);
    EXPECT_EQ(ib->isActive.load(), 0);
    EXPECT_EQ(ii->isActive.load(), 1);
    EXPECT_GE(ia->UploadedBytes.load(), 1000u);
    EXPECT_LT(ia->UploadedBytes.load(), 1000u + 200);  // it stops within one packet of the goal
    EXPECT_EQ(ii->packets_sent.load(), 0u);

    // Every packet the sink reads is a T-PDU of a's or b's tunnel with its QFI and UE address.
    std::map<uint32_t, uint64_t> perTeid;
    std::vector<Bytes> received;
    uint64_t total = ia->packets_sent + ib->packets_sent;
    for (uint64_t i = 0; i < total; i++) {
        Bytes d = g.sink.recv(10);
        received.push_back(d);
        gtpu_msg_t m;
        ASSERT_EQ(gtpu_decode(d, &m), 1) << toHex(d);
        EXPECT_EQ(m.type, GTPU_TPDU);
        EXPECT_EQ(m.qfi, 9);
        EXPECT_EQ(m.pduType, GTPU_PDU_TYPE_UL);
        ASSERT_GE(m.payload.size(), 20u);
        uint32_t src = gtpu_wire::get32(m.payload.data() + 12);
        EXPECT_EQ(src, m.teid == 0x111 ? 0x0a2d0001u : 0x0a2d0002u);
        perTeid[m.teid]++;
    }
    // tshark agrees: every packet a clean T-PDU with the QFI, its TCP or UDP checksum right.
    if (kst::tsharkAvailable()) {
        kst::TsharkRun run = tshark(received, {"gtp.teid", "gtp.ext_hdr.pdu_ses_con.qos_flow_id", "ip.proto"});
        EXPECT_EQ(run.rc, 0) << run.report;
        ASSERT_EQ(run.fields.size(), received.size());
        for (const auto& f : run.fields) {
            EXPECT_EQ(f.at("gtp.ext_hdr.pdu_ses_con.qos_flow_id"), "9");
            EXPECT_TRUE(f.at("ip.proto") == "17,6" || f.at("ip.proto") == "17,17") << f.at("ip.proto");  // outer, inner
        }
    }
    EXPECT_EQ(perTeid[0x111], ia->packets_sent.load());
    EXPECT_EQ(perTeid[0x222], ib->packets_sent.load());
    EXPECT_EQ(a.s[1].PktsSentCount.load(), ia->packets_sent.load());
    EXPECT_EQ(a.s[1].GTPSequence[0] + a.s[1].GTPSequence[1], a.s[1].PktsSentCount.load());

    // A second activation raises the goal and goes on from what was sent; ICMP overrides the flows.
    uint64_t before = ia->UploadedBytes;
    act.sendICMP = 1;
    act.uploadBytes = 300;
    gtpu_gen_activate(ia, act);
    while (gtpu_gen_visit(g.gen, 0) > 0 && visits < 200) visits++;
    gtpu_gen_flush(g.gen, 0);
    EXPECT_EQ(ia->isActive.load(), 0);
    EXPECT_GE(ia->UploadedBytes.load(), 1300u);
    EXPECT_GT(ia->UploadedBytes.load(), before);
    EXPECT_EQ(ia->ver.load(), 2u);
    Bytes d = g.sink.recv(10);
    gtpu_msg_t m;
    ASSERT_EQ(gtpu_decode(d, &m), 1);
    EXPECT_EQ(m.payload[9], GTPU_IP_ICMP);
    gtpu_gen_stats st;
    gtpu_gen_get_stats(g.gen, &st);
    EXPECT_EQ(st.sendFailed + st.buildFailed, 0u);
    EXPECT_EQ(st.goalsReached, 3u);
}

TEST(GtpuGenerator, ProcessingThreadsSendAtTheirRateWithoutBeingDriven) {
    Endpoint ep;
    Generator g(ep, true);
    Ue ue;
    g.up(ue, 0x4444, 0x0a2e0001);
    gtpu_gen_make_flows(&ue.s[1], 2);
    gtpu_gen_item* it = gtpu_gen_item_of(g.gen, &ue, 5);
    gtpu_gen_set_thread_rate(g.gen, 5, 1000);
    gtpu_gen_activation act;
    act.uploadBytes = 5000;
    gtpu_gen_activate(it, act);
    ASSERT_TRUE(waitFor([&] { return it->isActive.load() == 0; }, 20));
    uint64_t n = it->packets_sent;
    for (uint64_t i = 0; i < n; i++) ASSERT_FALSE(g.sink.recv(10).empty()) << i << " of " << n;
    EXPECT_EQ(ep.stats().txPackets, n);
}

}  // namespace
