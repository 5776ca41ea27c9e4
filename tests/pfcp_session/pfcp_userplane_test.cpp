// The user-plane steps of PFCP sessions in an engine started in-process with its GTP-U module:
// a session set up with a UPF answering from C++, then the console's packet commands on it, read
// at a plain UDP socket standing in for the UPF's GTP-U side (and by tshark); packets back on the
// session's tunnel counted on their flows; the console's view of the session.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "KsGTP.h"
#include "KsPFCP.h"
#include "KsUECServer_wire.h"
#include "Kestrane.h"
#include "fast_upf.h"
#include "gtpu_testlib.h"
#include "ks_engine_env.h"
#include "pfcp_node.h"

namespace {

using kgt::Bytes;
using kps::FastUpf;

const std::string kSmf = kst::uniqueLoopback();
const std::string kUpf = kst::uniqueLoopback();
const std::string kGtpLocal = kst::uniqueLoopback();

std::string imsi(int n) {
    char b[20];
    snprintf(b, sizeof b, "00101%010d", n);
    return b;
}

std::string noc() {
    return R"([{"ID": 1, "ConnInfoType": 2, "TEApplicationType": 2, "IP_1": ")" + kSmf +
           R"(", "Port_1": 8805, "IP_2": ")" + kSmf + R"(", "Port_2": "2152", "TransportType": 1, "Enabled": 1},
               {"ID": 2, "ConnInfoType": 1, "TEApplicationType": 2, "IP_1": ")" + kUpf +
           R"(", "Port_1": 8805, "IP_2": ")" + kUpf + R"(", "Port_2": "2152", "TransportType": 1, "Enabled": 1}])";
}

#define KS_INT(t, v) "{\"IEType\": " #t ", \"ValueType\": \"Int\", \"Value\": " #v "}"
const std::string kTemplates = R"({"Type": "PFCP", "Templates": [
 {"Name": "est-sdf", "MessageType": 50, "Elements": [
  {"IEType": 1, "Elements": [)" KS_INT(56, 77) "," KS_INT(29, 200) R"(,
    {"IEType": 2, "Elements": [)" KS_INT(20, 0) "," KS_INT(21, 1) R"(,
      {"IEType": 22, "ValueType": "String", "Value": "internet"},
      {"IEType": 23, "ValueType": "String", "Value": "permit out 17 from %s %s to %s %s"},
      )" KS_INT(93, 1) "," KS_INT(124, 5) R"(]},
    )" KS_INT(95, 0) "," KS_INT(108, 2) "," KS_INT(109, 1) R"(]},
  {"IEType": 1, "Elements": [)" KS_INT(56, 1) "," KS_INT(29, 100) R"(,
    {"IEType": 2, "Elements": [)" KS_INT(20, 1) "," KS_INT(93, 1) R"(]}, )" KS_INT(108, 1) R"(]},
  {"IEType": 3, "ValueType": "Int", "Value": 1, "Elements": [)" KS_INT(44, 2) R"(,
    {"IEType": 4, "Elements": [)" KS_INT(42, 0) "," KS_INT(84, 256) R"(]}]},
  {"IEType": 3, "ValueType": "Int", "Value": 2, "Elements": [)" KS_INT(44, 2) R"(,
    {"IEType": 4, "Elements": [)" KS_INT(42, 1) "," KS_INT(84, 5) R"(]}]},
  {"IEType": 6, "ValueType": "Int", "Value": 3, "Elements": [)" KS_INT(62, 2) R"(,
    {"IEType": 73, "ValueType": "Json", "Value": {"TotalVolume": 100000, "DownlinkVolume": 60000}}]},
  {"IEType": 7, "ValueType": "Int", "Value": 4, "Elements": [)" KS_INT(25, 0) R"(,
    {"IEType": 26, "ValueType": "Json", "Value": {"ULMBR": 2000, "DLMBR": 4000}}, )" KS_INT(124, 5) R"(]},
  )" KS_INT(113, 1) R"(]},
 {"Name": "mod-far", "MessageType": 52, "Elements": [
  {"IEType": 10, "ValueType": "Int", "Value": 1, "Elements": [)" KS_INT(44, 2) R"(,
    {"IEType": 4, "Elements": [)" KS_INT(84, 256) R"(]}]},
  {"IEType": 13, "ValueType": "Int", "Value": 3, "Elements": [
    {"IEType": 31, "ValueType": "Json", "Value": {"TotalVolume": 5000}}]}]}]})";
#undef KS_INT

kst::EngineInDir* gEnv = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(new kst::EngineInDir(
    "pfcpup",
    {{"cfg.json", "{\"LOCAL_GTP_IP\": \"" + kGtpLocal +
                      "\", \"MaximumUE\": 1000, \"IMSIPrefixWithZERO\": 1, \"CLIPort\": 0, "
                      "\"DefaultTimeoutSeconds\": 2, \"LogLevel\": {\"APPLICATION\": 4, \"COMMON\": 4}}"},
     {"data/uel.json", "[{\"ID\": 1, \"MSINStart\": \"" + imsi(1) + "\", \"MSINEnd\": \"" + imsi(20) +
                           "\", \"MCC\": \"001\", \"MNC\": \"01\", \"MSISDNBegin\": \"9000000001\"}]"},
     {"data/set.json", R"({"UPF": {"1": "10.45.0.1/16", "6": "9.9.9.9"}})"},
     {"data/noc.json", noc()},
     // A session's rules from templates: an establishment and a forwarding change.
     {"data/sce.json", R"([{"ID": 1, "Config": [{"ID": 1001, "Dict": [{"Key": 22, "Value": "est-sdf"}]},
                                               {"ID": 1002, "Dict": [{"Key": 22, "Value": "mod-far"}]},
                                               {"ID": 1003}]}])"},
     {"data/tst.json", "[{\"ID\": 1, \"Name\": \"tmpl\", \"ScenarioID\": 1, \"MPS\": 100, \"SUPIStartNo\": \"" +
                           imsi(11) + "\", \"SUPIStartEnd\": \"" + imsi(12) + "\"}]"},
     {"resources/templates/pfcp.json", kTemplates},
     {"pcap_protocols/ue_traffic.pcap", kst::readFile(std::string(KS_GTPU_DATA) + "/ue_traffic.pcap")}})));

uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

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

std::vector<Bytes> collect(const kgt::UdpPeer& p, size_t n, double quiet) {
    std::vector<Bytes> v;
    while (v.size() < n) {
        Bytes b = p.recv(quiet);
        if (b.empty()) break;
        v.push_back(std::move(b));
    }
    return v;
}

// UEs 1 and 2 hold a session the UPF accepted; one fixture for the whole process, as the
// UPF node is added once.
class PfcpUserPlane : public ::testing::Test {
protected:
    static FastUpf* upf;
    static kgt::UdpPeer* gtp;
    static KsTEConnection* conn;

    static void SetUpTestSuite() {
        upf = new FastUpf(kUpf, 8805);
        ASSERT_TRUE(upf->start());
        gtp = new kgt::UdpPeer(kUpf, GTPU_PORT);
        ASSERT_EQ(KsTE__InitCommand(KS_APP_TYPE__UPF, 1, KS_TE_COMMAND__ADD_NODE), 1);
        conn = KsTE__GetConnectionByTEApplicationType(KS_APP_TYPE__UPF, 0);
        ASSERT_NE(conn, nullptr);
        ASSERT_NE(conn->upf_gtp_client_node.load(), nullptr) << gEnv->appLog();
        ASSERT_TRUE(kst::waitFor(
            [] { return conn->ksServer_upf_node.load()->isAssociationStarted == PFCP_ASSOCIATION__ASSOCIATED; }, 20));
        // Sessions set up by the console's command, so that the UEs stay outside any test.
        for (int n : {1, 2}) {
            runCommand(kst::ueOf001(n), 3001);
            ASSERT_NE(session(n), nullptr);
            ASSERT_EQ(session(n)->Status.load(), uint32_t(KsPFCP__STATUS__RECV__PFCP_ESTABLISHMENT_RESPONSE));
        }
    }
    static void TearDownTestSuite() {
        delete gtp;
        delete upf;
    }

    static pfcp_cp_sess_t* session(int n) { return static_cast<pfcp_cp_sess_t*>(kst::ueOf001(n)->pfcp_session); }
    static uint32_t packetsSent(const pfcp_cp_sess_t* s) {
        uint32_t t = 0;
        for (const auto& f : s->flows) t += f.packets_sent;
        return t;
    }
};
FastUpf* PfcpUserPlane::upf = nullptr;
kgt::UdpPeer* PfcpUserPlane::gtp = nullptr;
KsTEConnection* PfcpUserPlane::conn = nullptr;

TEST_F(PfcpUserPlane, EachPacketStepSendsOnTheSessionsTunnelFromItsFlowAndAccountsIt) {
    MV_KsUE* ue = kst::ueOf001(1);
    pfcp_cp_sess_t* s = session(1);
    ASSERT_NE(s, nullptr);
    s->last_sent_flow_id = 9;
    uint64_t bytesBefore = s->bytes_sent;
    uint32_t sentBefore = packetsSent(s);
    // Command, step: what goes out.
    const uint32_t commands[] = {3006, 3004, 3008, 3009, 3010, 3011, 3012, 3014, 3015, 3016, 3017, 3018, 3019,
                                 3020, 3021, 3022, 3023, 3024, 3025, 3029, 3028, 3027, 3026, 3031, 3032};
    for (uint32_t c : commands) runCommand(ue, c);
    // 3012 (no second internet server) and 3024/3025 (counted only) send nothing.
    std::vector<Bytes> got = collect(*gtp, 22, 5);
    ASSERT_EQ(got.size(), 22u);
    EXPECT_TRUE(gtp->recv(0.3).empty());
    EXPECT_EQ(s->last_sent_flow_id, 0u) << "the rotating step wrapped from the last flow to the first";
    EXPECT_NE(gEnv->appLog().find("InternetServer IP-NotConfigured at Index=2"), std::string::npos);

    uint64_t bytes = 0;
    const uint32_t ueIp = s->ipv4->ipv4;
    const pfcp_cp_sess_flow_t& f0 = s->flows[0];
    for (size_t i = 0; i < got.size(); ++i) {
        const Bytes& b = got[i];
        bytes += b.size();
        ASSERT_GE(b.size(), 12u);
        EXPECT_EQ(be32(&b[4]), s->teid) << "packet " << i;
    }
    EXPECT_EQ(s->bytes_sent - bytesBefore, bytes);
    EXPECT_EQ(packetsSent(s) - sentBefore, 22u);

    auto inner = [](const Bytes& b, size_t hl) { return std::span<const uint8_t>(b).subspan(hl); };
    // Rotate then plain: both on flow 0, TCP in IPv4 from the UE's address, flags 0x34.
    for (int i : {0, 1}) {
        auto ip = inner(got[i], 16);
        EXPECT_EQ(got[i][0], 0x34);
        EXPECT_EQ(ip[9], GTPU_IP_TCP);
        EXPECT_EQ(be32(&ip[12]), ueIp);
        EXPECT_EQ(be32(&ip[16]), f0.dst_ip);
        uint32_t payload = uint32_t(ip[2] << 8 | ip[3]) - 40;
        EXPECT_GE(payload, 200u);
        EXPECT_LE(payload, 400u);
    }
    // DNS: a 28-octet query to 8.8.8.8:53; DNS over TLS: TCP to 853.
    auto dns = inner(got[2], 16);
    EXPECT_EQ(be32(&dns[16]), 0x08080808u);
    EXPECT_EQ(dns[22] << 8 | dns[23], 53);
    EXPECT_EQ(got[2].size(), 16u + 20 + 8 + 28);
    EXPECT_EQ(inner(got[3], 16)[22] << 8 | inner(got[3], 16)[23], 853);
    // The echo: 12 octets with the session's TEID; the ping to internet server 1.
    EXPECT_EQ(got[4].size(), 12u);
    EXPECT_EQ(got[4][1], GTPU_ECHO_REQUEST);
    EXPECT_EQ(got[5].size(), 44u);
    EXPECT_EQ(be32(&inner(got[5], 16)[16]), 0x09090909u);
    // IPv6 from the UE's IPv6 address to fc00::/96 plus the flow's address.
    auto v6 = inner(got[6], 16);
    EXPECT_EQ(v6[0] >> 4, 6);
    EXPECT_EQ(0, memcmp(&v6[8], s->ipv6->ip6, 16));
    EXPECT_EQ(v6[24], 0xfc);
    EXPECT_EQ(be32(&v6[36]), f0.dst_ip);
    EXPECT_EQ(inner(got[7], 16)[9], GTPU_IP_SCTP);
    EXPECT_EQ(inner(got[7], 16)[2] << 8 | inner(got[7], 16)[3], 84);
    EXPECT_EQ(inner(got[8], 16)[9], GTPU_IP_ESP);
    // Fragments: first with more-fragments and offset 0, middle with more-fragments, last without.
    EXPECT_EQ(inner(got[9], 16)[6], 0x20);
    EXPECT_EQ(inner(got[10], 16)[6] & 0x20, 0x20);
    EXPECT_EQ(inner(got[11], 16)[6] & 0x20, 0);
    // Full payloads: 1350 octets behind the transport header.
    EXPECT_EQ(got[12].size(), 16u + 40 + 1350);
    EXPECT_EQ(got[13].size(), 16u + 28 + 1350);
    // The header forms: flags and header length as the test steps name them.
    const uint8_t kFlags[6] = {0x30, 0x36, 0x34, 0x36, 0x36, 0x36};
    for (int k = 0; k < 6; ++k) EXPECT_EQ(got[16 + k][0], kFlags[k]) << "form " << k + 1;

    if (!kst::tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    // Random flow ports carry plain data, whatever protocol tshark knows on them (the sample's
    // inner UDP is DNS alone: a UDP range would take the outer datagram's port too).
    kst::TsharkRun run = kst::runTshark(KS_WSDECODE, "gtpu", GTPU_PORT,
                                        "-o ip.check_checksum:TRUE -o udp.check_checksum:TRUE "
                                        "-o tcp.check_checksum:TRUE -d tcp.port==9000-50000,data "
                                        "-d tcp.port==853,data",
                                        {got[0], got[2], got[5], got[6], got[8], got[12], got[16], got[21]},
                                        {"gtp.teid", "ip.src", "dns.qry.name", "icmp.type", "ipv6.src", "esp.spi"});
    EXPECT_EQ(run.rc, 0) << run.report;
    ASSERT_EQ(run.fields.size(), 8u);
    char teid[16];
    snprintf(teid, sizeof teid, "0x%08x", s->teid);
    for (auto& f : run.fields) EXPECT_NE(f["gtp.teid"].find(teid), std::string::npos) << f["gtp.teid"];
    EXPECT_EQ(run.fields[1]["dns.qry.name"], "google.com");
    EXPECT_EQ(run.fields[2]["icmp.type"], "8");
}

TEST_F(PfcpUserPlane, BurstsCaptureReplayAndStepsWithoutASessionComplete) {
    MV_KsUE* ue = kst::ueOf001(2);
    pfcp_cp_sess_t* s = session(2);
    ASSERT_NE(s, nullptr);
    s->last_sent_flow_id = 0;
    runCommand(ue, 3007);  // 100 packets, each on the next flow
    std::vector<Bytes> got = collect(*gtp, 100, 5);
    ASSERT_EQ(got.size(), 100u);
    std::map<uint32_t, int> perDst;
    for (const Bytes& b : got) ++perDst[be32(&b[16 + 16])];
    EXPECT_EQ(perDst.size(), 10u);
    for (auto& [dst, n] : perDst) EXPECT_EQ(n, 10) << dst;
    for (const auto& f : s->flows) EXPECT_EQ(f.packets_sent, 10u);

    runCommand(ue, 3005);  // 100 on the current flow
    got = collect(*gtp, 100, 5);
    ASSERT_EQ(got.size(), 100u);
    for (const Bytes& b : got) EXPECT_EQ(be32(&b[16 + 16]), s->flows[s->last_sent_flow_id].dst_ip);

    runCommand(ue, 3030);  // the capture, from the UE's address
    got = collect(*gtp, 1000, 2);
    ASSERT_FALSE(got.empty());
    for (const Bytes& b : got) {
        EXPECT_EQ(be32(&b[4]), s->teid);
        EXPECT_EQ(be32(&b[16 + 12]), s->ipv4->ipv4);
    }

    MV_KsUE* bare = kst::ueOf001(10);
    ASSERT_EQ(bare->pfcp_session, nullptr);
    uint64_t without = ksPfcpTally.StepsWithoutSession;
    runCommand(bare, 3004);
    runCommand(bare, 3010);
    EXPECT_EQ(ksPfcpTally.StepsWithoutSession.load(), without + 2);
    EXPECT_TRUE(gtp->recv(0.3).empty());
}

// A T-PDU from the UPF on the session's tunnel: TEID as the UPF was told for the access side.
Bytes tpdu(uint32_t teid, uint32_t src, uint32_t dst, uint8_t proto, uint8_t icmpType) {
    gtpu_inner in;
    in.protocol = proto;
    in.srcV4 = src;
    in.dstV4 = dst;
    if (proto == GTPU_IP_ICMP) in.icmpId = 1;
    uint8_t ip[256];
    size_t il = gtpu_build_inner_packet(ip, in, std::span<const uint8_t>());
    if (proto == GTPU_IP_ICMP) ip[20] = icmpType;
    Bytes b(8 + il);
    const uint8_t h[8] = {0x30, 0xFF, uint8_t(il >> 8), uint8_t(il), uint8_t(teid >> 24), uint8_t(teid >> 16),
                          uint8_t(teid >> 8), uint8_t(teid)};
    memcpy(b.data(), h, 8);
    memcpy(b.data() + 8, ip, il);
    return b;
}

TEST_F(PfcpUserPlane, PacketsBackAreCountedOnTheirFlowAndTheConsoleSeesTheSession) {
    MV_KsUE* ue = kst::ueOf001(1);
    pfcp_cp_sess_t* s = session(1);
    ASSERT_NE(s, nullptr);
    gtpu_peer engine{};
    gtpu_peer_set(&engine, kSmf.c_str(), GTPU_PORT);
    const uint32_t downTeid = s->teid + KsPFCP__max_ran_ue_ids();
    uint32_t before3 = s->flows[3].packets_recv, before0 = s->flows[0].packets_recv;
    uint64_t bytesBefore = s->bytes_recv;
    Bytes fromServer = tpdu(downTeid, s->flows[3].dst_ip, s->ipv4->ipv4, GTPU_IP_UDP, 0);
    Bytes echo = tpdu(downTeid, 0x09090909, s->ipv4->ipv4, GTPU_IP_ICMP, 8);
    gtp->send(engine, fromServer);
    gtp->send(engine, echo);
    gtp->send(engine, tpdu(downTeid + 77, s->flows[3].dst_ip, s->ipv4->ipv4, GTPU_IP_UDP, 0));  // nobody's tunnel
    ASSERT_TRUE(kst::waitFor([&] { return s->flows[3].packets_recv == before3 + 1; }, 10));
    ASSERT_TRUE(kst::waitFor([&] { return s->flows[0].packets_recv == before0 + 1; }, 10));
    EXPECT_EQ(s->bytes_recv - bytesBefore, fromServer.size() - 8 + echo.size() - 8);

    __uec_simulated_ue row{};
    KsPFCP__ProvideUE_PFCP_Status(&row, ue);
    EXPECT_EQ(row.U32_1, uint32_t(KsPFCP__STATUS__RECV__PFCP_ESTABLISHMENT_RESPONSE));
    EXPECT_EQ(row.U32_5, uint32_t(VELTA_UEC_SUB_MSG_TYP__PFCP_STATS));
    EXPECT_EQ(row.U32_6, 52u);
    EXPECT_EQ(row.datalen, 52u);
    __uec_pfcp_sess_data d;
    memcpy(&d, row.data, sizeof d);
    // The record is packed: its fields are read by value, never bound to a reference.
    auto val = [](auto field) { return field; };
    EXPECT_EQ(val(d.ue_ip), s->ipv4->ipv4);
    EXPECT_EQ(val(d.access_teid), s->teid);
    EXPECT_EQ(val(d.upf_teid), downTeid);
    EXPECT_EQ(val(d.cp_seid), s->cp_seid);
    EXPECT_EQ(val(d.up_seid), s->upf_seid.load());
    EXPECT_EQ(val(d.up_seid), upf->upfSeidOf(s->cp_seid));
    uint32_t recv = 0;
    for (const auto& f : s->flows) recv += f.packets_recv;
    EXPECT_EQ(val(d.pkts_recv), recv);
    EXPECT_EQ(val(d.pkts_sent), packetsSent(s));
    EXPECT_EQ(val(d.bytes_recv), s->bytes_recv);

    // While a request is outstanding the row shows the status alone.
    __uec_simulated_ue row2{};
    uint32_t kept = s->Status;
    s->Status = KsPFCP__STATUS__SENT__PFCP_MODIFICATION_REQUEST;
    KsPFCP__ProvideUE_PFCP_Status(&row2, ue);
    s->Status = kept;
    EXPECT_EQ(row2.U32_1, uint32_t(KsPFCP__STATUS__SENT__PFCP_MODIFICATION_REQUEST));
    EXPECT_EQ(row2.datalen, 0u);
    __uec_simulated_ue row3{};
    KsPFCP__ProvideUE_PFCP_Status(&row3, kst::ueOf001(10));
    EXPECT_EQ(row3.U32_1, 0u) << "no session, nothing filled";
}

TEST_F(PfcpUserPlane, TemplatedRequestsCarryTheTemplatesRulesWithTheSessionsOwnIds) {
    size_t before = upf->received().size();
    ASSERT_EQ(KsEngine__AddTestToQueue(1, KS_TEST__QUEUED), 3u);
    ASSERT_TRUE(kst::waitFor(
        [] {
            uint32_t st = KsEngine__GetTestStatus(1);
            return st != KS_TEST__QUEUED && st != KS_TEST__QUEUED_ALT && st != KS_TEST__RUNNING && st != KS_TEST__STOP;
        },
        30));
    KsTestExec* t = KsEngine__FindTest(1);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->PFCPSessionEstablishmentResponse.Request.load(), 2u);
    EXPECT_EQ(t->PFCPSessionModificationResponse.Request.load(), 2u);
    EXPECT_EQ(t->PFCPSessionDeleteResponse.Request.load(), 2u);
    EXPECT_EQ(t->ExecutionTimeout.Total.load(), 0u);

    std::vector<Bytes> est, mod;
    auto all = upf->received();
    for (size_t i = before; i < all.size(); ++i) {
        if (all[i][1] == PFCP_SESSION_ESTABLISHMENT_REQUEST_TYPE) est.push_back(all[i]);
        if (all[i][1] == PFCP_SESSION_MODIFICATION_REQUEST_TYPE) mod.push_back(all[i]);
    }
    ASSERT_EQ(est.size(), 2u);
    ASSERT_EQ(mod.size(), 2u);
    auto m = std::make_unique<pfcp_message_t>();
    ASSERT_EQ(pfcp_decode_datagram(est[0], m.get()), 1);
    auto& r = m->pfcp_session_establishment_request;
    // Ids by slot, not by the template's number; the F-TEID is the session's own.
    EXPECT_EQ(r.create_pdr[0].pdr_id.u16, 1);
    EXPECT_EQ(r.create_pdr[1].pdr_id.u16, 2);
    EXPECT_EQ(r.create_pdr[0].precedence.u32, 200u);
    EXPECT_EQ(r.create_pdr[0].pdi.qfi.u8, 5);
    EXPECT_EQ(r.create_pdr[0].pdi.local_f_teid.len, 9u);
    EXPECT_EQ(r.create_far[1].far_id.u32, 2u);
    EXPECT_EQ(r.create_far[1].forwarding_parameters.outer_header_creation.presence, 0u) << "only GTP-U/IPv4 is built";
    EXPECT_EQ(r.create_far[0].forwarding_parameters.outer_header_creation.len, 10u);
    EXPECT_EQ(r.create_urr[0].urr_id.u32, 3u);
    EXPECT_EQ(r.create_urr[0].volume_quota.len, 17u) << "flags, total and downlink";
    EXPECT_EQ(r.create_qer[0].qer_id.u32, 4u);
    EXPECT_EQ(r.pdn_type.u8, 1);
    std::string sdf(reinterpret_cast<const char*>(r.create_pdr[0].pdi.sdf_filter[0].data) + 4,
                    r.create_pdr[0].pdi.sdf_filter[0].len - 4);
    EXPECT_EQ(sdf.find("permit out 17 from 10.45.0."), 0u) << sdf;
    EXPECT_NE(sdf.find(" 88888 to 11.11.11.11 99999"), std::string::npos) << sdf;

    ASSERT_EQ(pfcp_decode_datagram(mod[0], m.get()), 1);
    auto& q = m->pfcp_session_modification_request;
    EXPECT_EQ(q.update_far[0].far_id.u32, 1u);
    EXPECT_EQ(q.update_far[0].update_forwarding_parameters.outer_header_creation.len, 10u);
    EXPECT_EQ(q.update_urr[0].volume_threshold.len, 9u);

    if (!kst::tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    kst::TsharkRun run = kst::runTshark(KS_WSDECODE, "pfcp", 8805, "", {est[0], mod[0]},
                                        {"pfcp.pdr_id", "pfcp.far_id", "pfcp.urr_id", "pfcp.qer_id", "pfcp.qfi_value",
                                         "pfcp.flow_desc", "pfcp.ul_mbr", "pfcp.dl_mbr", "pfcp.apply_action.forw"});
    EXPECT_EQ(run.rc, 0) << run.report;
    ASSERT_EQ(run.fields.size(), 2u);
    EXPECT_EQ(run.fields[0]["pfcp.pdr_id"], "1,2");
    EXPECT_EQ(run.fields[0]["pfcp.far_id"], "2,1,1,2");
    EXPECT_EQ(run.fields[0]["pfcp.urr_id"], "3");
    EXPECT_EQ(run.fields[0]["pfcp.ul_mbr"], "2000");
    EXPECT_EQ(run.fields[0]["pfcp.dl_mbr"], "4000");
    EXPECT_EQ(run.fields[0]["pfcp.flow_desc"], sdf);
    EXPECT_EQ(run.fields[1]["pfcp.far_id"], "1");
}

}  // namespace
