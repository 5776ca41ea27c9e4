// The GTP-U module in a real engine started in-process: the user-plane steps on sessions filled
// the way the control plane fills them, a plain UDP socket standing in for the UPF, capture
// replay for several UEs read back by tshark, bad input on the GTP-U port, and the PFCP steps'
// senders.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "KsGTP.h"
#include "Kestrane.h"
#include "gtpu_testlib.h"
#include "ks_engine_env.h"

namespace {

using kgt::Bytes;

const std::string kEngineIp = kst::uniqueLoopback();
const std::string kUpfIp = kst::uniqueLoopback();

std::string imsi(int n) {
    char b[20];
    snprintf(b, sizeof b, "00101%010d", n);
    return b;
}

kst::EngineInDir* gEnv = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(new kst::EngineInDir(
    "gtpeng",
    {{"cfg.json", "{\"LOCAL_GTP_IP\": \"" + kEngineIp +
                      "\", \"MaximumUE\": 1000, \"IMSIPrefixWithZERO\": 1, \"CLIPort\": 0, "
                      "\"DefaultTimeoutSeconds\": 5, \"LogLevel\": {\"APPLICATION\": 4, \"COMMON\": 4}}"},
     {"data/uel.json", "[{\"ID\": 1, \"MSINStart\": \"" + imsi(1) + "\", \"MSINEnd\": \"" + imsi(100) +
                           "\", \"MCC\": \"001\", \"MNC\": \"01\", \"MSISDNBegin\": \"9000000001\"}]"},
     {"data/sce.json", "[{\"ID\": 1, \"Config\": [{\"ID\": 7}]}]"},
     {"data/tst.json", "[{\"ID\": 1, \"Name\": \"tpdu\", \"ScenarioID\": 1, \"MPS\": 100, \"SUPIStartNo\": \"" +
                           imsi(30) + "\", \"SUPIStartEnd\": \"" + imsi(39) + "\"}]"},
     {"pcap_protocols/ue_traffic.pcap", kst::readFile(std::string(KS_GTPU_DATA) + "/ue_traffic.pcap")}})));

uint32_t hostOrder(const std::string& ip) { return ntohl(inet_addr(ip.c_str())); }

// What the control plane writes when the tunnel is up.
MV_KsUE* withSession(int n, uint8_t id, uint32_t teid, uint8_t qfi) {
    MV_KsUE* u = kst::ueOf001(n);
    if (!u) return nullptr;
    MV_KsUEPduSession& s = u->pduSessions[id];
    s.UPF__UPTLA_ipv = 1;
    s.UPF__UPTLA_ipv4_int = hostOrder(kUpfIp);
    s.gtpTEID = teid;
    s.u_pduAddress = 0x0a2d0000u + uint32_t(n);  // 10.45.0.n
    s.QosFlowIdentifier = qfi;
    s.ksUe = u;
    __atomic_store_n(&s.isStarted, 1, __ATOMIC_RELEASE);
    return u;
}

// Runs one console command's step on the UE and waits for it to complete.
void runCommand(MV_KsUE* u, uint32_t command) {
    MV_KsTestCommand* c = KsScanario__NewTestCommand();
    ASSERT_NE(c, nullptr);
    c->Command = command;
    KsScanario__AddTestCommand(c, u);
    KsScanario__ReleaseTestCommand(c);
    ASSERT_EQ(u->CommandId, command);
    Kestrane___runStep(u, 0);
    ASSERT_TRUE(kst::waitFor([&] { return u->CommandId == 0; }, 10)) << "command " << command << " completed";
}

// Datagrams that reach the UPF's socket until `n` have come or none comes for a while.
std::vector<Bytes> collect(const kgt::UdpPeer& upf, size_t n, double quiet = 5) {
    std::vector<Bytes> v;
    while (v.size() < n) {
        Bytes b = upf.recv(quiet);
        if (b.empty()) break;
        v.push_back(std::move(b));
    }
    return v;
}

struct Seen {
    gtpu_msg_t m{};
    uint32_t innerSrc = 0;
    uint8_t innerProto = 0;
};
Seen decode(const Bytes& b) {
    Seen s;
    EXPECT_EQ(gtpu_decode(b, &s.m), 1);
    if (s.m.payload.size() >= 20 && (s.m.payload[0] >> 4) == 4) {
        s.innerSrc = uint32_t(s.m.payload[12]) << 24 | uint32_t(s.m.payload[13]) << 16 |
                     uint32_t(s.m.payload[14]) << 8 | s.m.payload[15];
        s.innerProto = s.m.payload[9];
    }
    return s;
}

gtpu_peer engineAt() {
    gtpu_peer p{};
    gtpu_peer_set(&p, kEngineIp.c_str(), GTPU_PORT);
    return p;
}

KsGTPStats stats() {
    KsGTPStats s;
    KsGTP__GetStats(&s);
    return s;
}

TEST(GtpEngine, TrafficStepSendsOnEachUEsTunnelUntilItsGoalAndAgainWhenRepeated) {
    kgt::UdpPeer upf(kUpfIp, GTPU_PORT);
    std::vector<MV_KsUE*> ues;
    for (int n = 1; n <= 5; ++n) ues.push_back(withSession(n, 1, 0x1000u + uint32_t(n), uint8_t(n)));
    for (MV_KsUE* u : ues) {
        ASSERT_NE(u, nullptr);
        runCommand(u, 14);  // five visits a second, two flows, 500 octets
    }
    for (MV_KsUE* u : ues) {
        const gtpu_gen_item* it = KsGTP__FindItem(u);
        ASSERT_NE(it, nullptr);
        ASSERT_TRUE(kst::waitFor([&] { return it->isActive.load() == 0; }, 20)) << KsUE__supi(u);
        EXPECT_GE(it->UploadedBytes.load(), 500u);
        EXPECT_EQ(it->UploadBytes.load(), 500u);
        EXPECT_EQ(u->pduSessions[1].FlowsCount, 2u) << "one flow asked for gives a TCP and a UDP flow";
        EXPECT_EQ(u->pduSessions[1].ProtocolType[0], GTPU_IP_TCP);
        EXPECT_EQ(u->pduSessions[1].ProtocolType[1], GTPU_IP_UDP);
    }
    size_t total = 0;
    for (MV_KsUE* u : ues) total += KsGTP__PacketsSent(u, 1);
    std::vector<Bytes> got = collect(upf, total);
    ASSERT_EQ(got.size(), total);
    std::map<uint32_t, uint64_t> perTeid;
    std::set<uint16_t> seqs;
    for (const Bytes& b : got) {
        Seen s = decode(b);
        ASSERT_GE(s.m.teid, 0x1001u);
        ASSERT_LE(s.m.teid, 0x1005u);
        uint32_t n = s.m.teid - 0x1000u;
        EXPECT_EQ(s.m.qfi, n) << "the UE's QFI";
        EXPECT_EQ(s.m.flags, 0x36);
        EXPECT_EQ(s.innerSrc, 0x0a2d0000u + n) << "the UE's address";
        ++perTeid[s.m.teid];
    }
    for (MV_KsUE* u : ues) {
        EXPECT_EQ(perTeid[u->pduSessions[1].gtpTEID], u->pduSessions[1].PktsSentCount) << KsUE__supi(u);
        EXPECT_GT(u->pduSessions[1].PktsSentCount, 0u);
    }
    // tshark reads the tunnels and every inner checksum.
    if (kst::tsharkAvailable()) {
        std::vector<Bytes> some(got.begin(), got.begin() + long(std::min<size_t>(got.size(), 40)));
        kst::TsharkRun run = kgt::tshark(some, {"gtp.teid", "gtp.ext_hdr.pdu_ses_con.qos_flow_id", "ip.src"});
        EXPECT_EQ(run.rc, 0) << run.report;
        ASSERT_EQ(run.fields.size(), some.size());
    }

    // Again on one UE: the goal doubles and sending goes on from what was sent.
    MV_KsUE* u = ues[0];
    const gtpu_gen_item* it = KsGTP__FindItem(u);
    uint64_t before = it->UploadedBytes.load();
    runCommand(u, 14);
    ASSERT_TRUE(kst::waitFor([&] { return it->isActive.load() == 0 && it->ver.load() == 2; }, 20));
    EXPECT_EQ(it->UploadBytes.load(), 1000u);
    EXPECT_GE(it->UploadedBytes.load(), 1000u);
    EXPECT_GT(it->UploadedBytes.load(), before);
}

TEST(GtpEngine, ATunnelNotYetUpSendsNothingAndStaysActiveUntilItIs) {
    kgt::UdpPeer upf(kUpfIp, GTPU_PORT);
    MV_KsUE* u = withSession(6, 1, 0x2006, 9);
    ASSERT_NE(u, nullptr);
    __atomic_store_n(&u->pduSessions[1].isStarted, 0, __ATOMIC_RELEASE);
    runCommand(u, 14);
    const gtpu_gen_item* it = KsGTP__FindItem(u);
    ASSERT_NE(it, nullptr);
    // Two rounds of every packet thread later, nothing has gone.
    uint64_t visits = stats().generator.visits;
    ASSERT_TRUE(kst::waitFor([&] { return stats().generator.visits > visits + 2; }, 20));
    EXPECT_EQ(it->isActive.load(), 1);
    EXPECT_EQ(it->packets_sent.load(), 0u);
    EXPECT_TRUE(upf.recv(0.2).empty());
    __atomic_store_n(&u->pduSessions[1].isStarted, 1, __ATOMIC_RELEASE);
    ASSERT_TRUE(kst::waitFor([&] { return it->isActive.load() == 0; }, 20));
    Seen s = decode(upf.recv(5));
    EXPECT_EQ(s.m.teid, 0x2006u);
    EXPECT_EQ(s.m.qfi, 9);
}

TEST(GtpEngine, IcmpStepSendsOneEchoAndRepliesAreCountedForTheirUE) {
    kgt::UdpPeer upf(kUpfIp, GTPU_PORT);
    std::map<uint32_t, MV_KsUE*> byTeid;
    std::map<MV_KsUE*, uint32_t> downlink;
    for (int n = 10; n <= 14; ++n) {
        MV_KsUE* u = withSession(n, 1, 0x3000u + uint32_t(n), 1);
        ASSERT_NE(u, nullptr);
        byTeid[0x3000u + uint32_t(n)] = u;
        downlink[u] = KsGTP__AllocateDownlinkTEID(&u->pduSessions[1]);
        ASSERT_NE(downlink[u], 0u);
        runCommand(u, 25);
    }
    std::vector<Bytes> got = collect(upf, 5);
    ASSERT_EQ(got.size(), 5u) << "one echo a UE";
    uint64_t matched = stats().TpduMatched;
    for (const Bytes& b : got) {
        Seen s = decode(b);
        ASSERT_EQ(s.innerProto, GTPU_IP_ICMP);
        EXPECT_EQ(s.m.payload[20], 8) << "echo request";
        MV_KsUE* u = byTeid.at(s.m.teid);
        EXPECT_EQ(s.innerSrc, u->pduSessions[1].u_pduAddress);
        // The UPF's reply: downlink, with the container, on the UE's downlink TEID.
        gtpu_inner f;
        f.protocol = GTPU_IP_ICMP;
        f.srcV4 = 0x08080808;
        f.dstV4 = s.innerSrc;
        Bytes inner(64);
        inner.resize(gtpu_build_inner_packet(inner, f, Bytes(20, 0)));
        inner[20] = 0;  // echo reply
        gtpu_tpdu_hdr h;
        h.teid = downlink[u];
        h.pduType = GTPU_PDU_TYPE_DL;
        Bytes d(16 + inner.size());
        gtpu_build_tpdu_header(d, h, inner.size());
        std::copy(inner.begin(), inner.end(), d.begin() + 16);
        upf.send(engineAt(), d);
    }
    ASSERT_TRUE(kst::waitFor([&] { return stats().TpduMatched == matched + 5; }, 10));
    for (auto& [u, teid] : downlink) {
        EXPECT_EQ(u->pduSessions[1].PktsRecvCount, 1u) << KsUE__supi(u);
        EXPECT_EQ(u->pduSessions[2].PktsRecvCount, 0u);
        KsGTP__ReleaseDownlinkTEID(teid);
    }
}

TEST(GtpEngine, BadInputOnTheGtpPortIsCountedAndDroppedAndTheEngineGoesOn) {
    kgt::UdpPeer upf(kUpfIp, GTPU_PORT);
    KsGTPStats before = stats();
    const gtpu_peer to = engineAt();
    upf.send(to, kgt::fromHex("32ff00"));                             // truncated header
    upf.send(to, kgt::fromHex("52ff000400000001 00000000"));          // version 2
    upf.send(to, kgt::fromHex("30ff00ff00000001 4500"));              // a length past the datagram
    upf.send(to, kgt::fromHex("30ff000400abcdef 45000000"));          // a TEID nobody holds
    upf.send(to, kgt::fromHex("34ff000800000001 0000008501100185"));  // a chain that does not end
    // An error indication for a tunnel a UE sends on stops that UE; one for no tunnel is counted.
    MV_KsUE* u = withSession(15, 1, 0x4015, 1);
    ASSERT_NE(u, nullptr);
    runCommand(u, 14);
    const gtpu_gen_item* it = KsGTP__FindItem(u);
    ASSERT_TRUE(kst::waitFor([&] { return it->packets_sent.load() > 0; }, 20));
    const uint8_t addr[4] = {10, 1, 1, 1};
    Bytes ei(64);
    ei.resize(gtpu_build_error_indication(ei, 0x4015, addr, 0));
    upf.send(to, ei);
    ei.resize(64);
    ei.resize(gtpu_build_error_indication(ei, 0x7777, addr, 0));
    upf.send(to, ei);
    // An end marker on a downlink TEID.
    uint32_t dl = KsGTP__AllocateDownlinkTEID(&u->pduSessions[1]);
    Bytes em(16);
    em.resize(gtpu_build_end_marker(em, dl));
    upf.send(to, em);
    // Still answering: an echo request gets its response.
    Bytes echo(16);
    echo.resize(gtpu_build_echo_request(echo, 77));
    upf.send(to, echo);
    Bytes resp;
    ASSERT_TRUE(kst::waitFor([&] {
        Bytes b = upf.recv(1);
        if (!b.empty() && b.size() > 1 && b[1] == GTPU_ECHO_RESPONSE) resp = b;
        return !resp.empty();
    }, 20));
    gtpu_msg_t m;
    ASSERT_EQ(gtpu_decode(resp, &m), 1);
    EXPECT_EQ(m.seq, 77);
    KsGTPStats after;
    ASSERT_TRUE(kst::waitFor([&] {
        after = stats();
        return after.ErrorIndicationRecv == before.ErrorIndicationRecv + 2 && after.EndMarkerRecv > before.EndMarkerRecv;
    }, 10));
    EXPECT_EQ(after.endpoint.rxShort, before.endpoint.rxShort + 1);
    EXPECT_EQ(after.endpoint.rxBadVersion, before.endpoint.rxBadVersion + 1);
    EXPECT_EQ(after.endpoint.rxBadLength, before.endpoint.rxBadLength + 1);
    EXPECT_EQ(after.endpoint.rxUnknownTeid, before.endpoint.rxUnknownTeid + 1);
    EXPECT_EQ(after.endpoint.rxBadExtension, before.endpoint.rxBadExtension + 1);
    EXPECT_EQ(after.ErrorIndicationNoTunnel, before.ErrorIndicationNoTunnel + 1);
    EXPECT_EQ(after.TpduMatched, before.TpduMatched) << "nothing bad reached a UE";
    EXPECT_EQ(it->isActive.load(), 0) << "the UE whose tunnel the peer does not know stopped";
    KsGTP__ReleaseDownlinkTEID(dl);
}

TEST(GtpEngine, CaptureReplayForSeveralUEsCarriesEachUEsAddressTunnelAndQfi) {
    kgt::UdpPeer upf(kUpfIp, GTPU_PORT);
    auto cap = gtpu_capture_load((std::string(KS_GTPU_DATA) + "/ue_traffic.pcap").c_str());
    ASSERT_TRUE(cap);
    size_t v4 = 0;
    for (const auto& p : cap->packets) v4 += p.ipVersion == 4;
    ASSERT_GT(v4, 0u);
    std::vector<MV_KsUE*> ues;
    for (int n = 20; n <= 23; ++n) {
        MV_KsUE* u = withSession(n, 1, 0x5000u + uint32_t(n), uint8_t(n - 18));
        ASSERT_NE(u, nullptr);
        u->PCAPFileId = 0;
        ues.push_back(u);
        runCommand(u, 16);
    }
    std::vector<Bytes> got = collect(upf, v4 * ues.size());
    ASSERT_EQ(got.size(), v4 * ues.size()) << "the IPv4 packets for each UE (none of them has IPv6)";
    std::map<uint32_t, std::vector<uint16_t>> seqByTeid;
    for (const Bytes& b : got) {
        Seen s = decode(b);
        uint32_t n = s.m.teid - 0x5000u;
        ASSERT_TRUE(n >= 20 && n <= 23);
        EXPECT_EQ(s.m.qfi, n - 18);
        EXPECT_EQ(s.innerSrc, 0x0a2d0000u + n);
        seqByTeid[s.m.teid].push_back(s.m.seq);
    }
    for (MV_KsUE* u : ues) EXPECT_EQ(u->pduSessions[1].PktsSentCount, v4) << "counted on the session";
    for (auto& [teid, seqs] : seqByTeid) {
        EXPECT_EQ(seqs.size(), v4);
        for (size_t i = 1; i < seqs.size(); ++i) EXPECT_EQ(uint16_t(seqs[i] - seqs[i - 1]), 1) << "in order";
    }
    if (kst::tsharkAvailable()) {
        kst::TsharkRun run = kgt::tshark(got, {"gtp.teid", "gtp.ext_hdr.pdu_ses_con.qos_flow_id", "ip.src",
                                               "ip.checksum.status", "udp.checksum.status", "tcp.checksum.status"});
        EXPECT_EQ(run.rc, 0) << run.report;
        ASSERT_EQ(run.fields.size(), got.size());
        for (size_t i = 0; i < got.size(); ++i) {
            Seen s = decode(got[i]);
            uint32_t n = s.m.teid - 0x5000u;
            char teid[16], src[20];
            snprintf(teid, sizeof teid, "0x%08x", s.m.teid);
            snprintf(src, sizeof src, "10.45.0.%u", n);
            EXPECT_EQ(run.fields[i].at("gtp.teid"), teid);
            EXPECT_EQ(run.fields[i].at("gtp.ext_hdr.pdu_ses_con.qos_flow_id"), std::to_string(n - 18));
            const std::string& ips = run.fields[i].at("ip.src");  // the outer one, then the UE's
            EXPECT_EQ(ips.substr(ips.rfind(',') + 1), src);
        }
    }
    EXPECT_NE(gEnv->appLog().find("PCAP Packet Sent with bytes="), std::string::npos);

    // A file index beyond the folder: said, and the step completes.
    MV_KsUE* bad = withSession(24, 1, 0x5024, 1);
    bad->PCAPFileId = 5;
    runCommand(bad, 16);
    EXPECT_NE(gEnv->appLog().find("Invalid PCAPFileId=5"), std::string::npos);
}

TEST(GtpEngine, ScenarioPacketStepRunsTheGeneratorForEveryUEOfTheTest) {
    kgt::UdpPeer upf(kUpfIp, GTPU_PORT);
    for (int n = 30; n <= 39; ++n) ASSERT_NE(withSession(n, 1, 0x6000u + uint32_t(n), 2), nullptr);
    ASSERT_EQ(KsEngine__AddTestToQueue(1, KS_TEST__QUEUED), 3u);
    ASSERT_TRUE(kst::waitFor([] {
        uint32_t s = KsEngine__GetTestStatus(1);
        return s != KS_TEST__QUEUED && s != KS_TEST__QUEUED_ALT && s != KS_TEST__RUNNING;
    }, 30));
    KsTestExec* t = KsEngine__FindTest(1);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->CompletedExecutionUECount.load(), 10);
    EXPECT_EQ(t->StepSendFailed.Total, 0u);
    std::set<uint32_t> teids;
    for (int n = 30; n <= 39; ++n) {
        MV_KsUE* u = kst::ueOf001(n);
        const gtpu_gen_item* it = KsGTP__FindItem(u);
        ASSERT_NE(it, nullptr);
        ASSERT_TRUE(kst::waitFor([&] { return it->isActive.load() == 0; }, 20));
    }
    for (const Bytes& b : collect(upf, 10000, 1)) teids.insert(decode(b).m.teid);
    EXPECT_EQ(teids.size(), 10u) << "every UE of the test sent on its own tunnel";
}

TEST(GtpEngine, PfcpStepSendersBuildEachHeaderFormAndInnerPacket) {
    kgt::UdpPeer upf(kUpfIp, 0);
    gtp_node_t* node = KsGTP_AddClientAndServerNode(kEngineIp.c_str(), 0, kUpfIp.c_str(), ntohs(upf.addr.v4.sin_port));
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(KsGTP_AddClientAndServerNode(kEngineIp.c_str(), 0, kUpfIp.c_str(), 1), node) << "one per server";
    const gtpu_peer to = upf.addr;
    auto base = [] {
        KsGTPDirectPacket p;
        p.teid = 0x700;
        p.seq = 3;
        p.inner.protocol = GTPU_IP_TCP;
        p.inner.srcV4 = 0x0a2d0001;
        p.inner.dstV4 = 0x0a0a0a0a;
        p.inner.srcPort = 7000;
        p.inner.dstPort = 8000;
        p.payloadLen = 300;
        return p;
    };
    std::vector<Bytes> sent;
    for (int form = 1; form <= 6; ++form) {
        KsGTPDirectPacket p = base();
        p.gtpType = form;
        ASSERT_GT(KsGTP__send_direct(node, to, p), 0);
    }
    KsGTPDirectPacket tcp = base();  // flags 0x34
    ASSERT_GT(KsGTP__send_direct(node, to, tcp), 0);
    KsGTPDirectPacket esp = base();
    esp.inner.protocol = GTPU_IP_ESP;
    esp.inner.espSpi = 0x700;
    ASSERT_GT(KsGTP__send_direct(node, to, esp), 0);
    KsGTPDirectPacket v6 = base();
    v6.inner.ipVersion = 6;
    v6.inner.protocol = GTPU_IP_UDP;
    v6.inner.srcV6[0] = 0x20;
    v6.inner.srcV6[15] = 1;
    v6.inner.dstV6[0] = 0xfc;
    ASSERT_GT(KsGTP__send_direct(node, to, v6), 0);
    KsGTPDirectPacket frag = base();
    frag.inner.protocol = GTPU_IP_UDP;
    frag.fragment = 1;
    ASSERT_GT(KsGTP__send_direct(node, to, frag), 0);
    ASSERT_EQ(KsGTP__send_direct_icmp(node, to, 0x700, 0x0a2d0001, 0x08080808, 100, 9000), 44);
    ASSERT_EQ(KsGTP__send_direct_echo(node, to, 0x700), 12);
    KsGTPDirectPacket huge = base();
    huge.payloadLen = 5000;
    EXPECT_EQ(KsGTP__send_direct(node, to, huge), 0) << "beyond one packet: refused";
    sent = collect(upf, 12);
    ASSERT_EQ(sent.size(), 12u);
    const uint8_t kFormFlags[6] = {0x30, 0x36, 0x34, 0x36, 0x36, 0x36};
    for (size_t i = 0; i < 6; ++i) EXPECT_EQ(sent[i][0], kFormFlags[i]) << "form " << i + 1;
    EXPECT_EQ(sent[6][0], 0x34);
    EXPECT_EQ(kgt::toHex(Bytes(sent[11].begin(), sent[11].begin() + 8)), "3201000400000700");
    Seen f = decode(sent[9]);
    EXPECT_EQ(f.m.payload[6], 0x20) << "more fragments";
    EXPECT_EQ(f.m.payload[4] << 8 | f.m.payload[5], 300) << "identification: the payload size";
    if (kst::tsharkAvailable()) {
        std::vector<Bytes> clean(sent.begin(), sent.begin() + 9);  // the fragment is left to its reassembly
        clean.push_back(sent[10]);
        kst::TsharkRun run = kgt::tshark(clean, {"gtp.teid", "esp.spi", "ipv6.src", "icmp.type"});
        EXPECT_EQ(run.rc, 0) << run.report;
        ASSERT_EQ(run.fields.size(), clean.size());
        EXPECT_EQ(run.fields[7].at("esp.spi"), "0x00000700");
        EXPECT_EQ(run.fields[8].at("ipv6.src"), "2000::1");
        EXPECT_EQ(run.fields[9].at("icmp.type"), "8");
    }
    // A PFCP capture replay: addresses rewritten, flags 0x34.
    gtpu_rewrite rw;
    rw.srcV4 = 0x0a2d0009;
    rw.dstV4 = 0x0a0a0a0b;
    rw.srcPort = 7001;
    rw.dstPort = 8001;
    uint64_t bytes = 0;
    int n = KsGTP__send_direct_capture(node, to, 0, 0x701, 1, rw, &bytes);
    ASSERT_GT(n, 0);
    EXPECT_GT(bytes, 0u);
    std::vector<Bytes> replayed = collect(upf, size_t(n));
    ASSERT_EQ(replayed.size(), size_t(n));
    for (const Bytes& b : replayed) {
        Seen s = decode(b);
        EXPECT_EQ(s.m.flags, 0x34);
        EXPECT_EQ(s.m.teid, 0x701u);
        if (s.innerSrc) {
            EXPECT_EQ(s.innerSrc, 0x0a2d0009u);
        }
    }
    EXPECT_EQ(KsGTP__send_direct_capture(node, to, 9, 0x701, 1, rw, &bytes), -1) << "no such file";
}

}  // namespace
