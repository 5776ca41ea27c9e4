// tshark, with every checksum checked, reads what the library builds: each inner packet kind in
// both IP versions and several payload sizes, every tunnel header form, the signalling messages,
// and captures replayed for several UEs with each UE's address and TEID.
#include <random>

#include "gtpu_pcap.h"
#include "gtpu_testlib.h"

namespace {

using namespace kgt;

const std::vector<std::string> kFields = {"gtp.teid",
                                          "gtp.ext_hdr.pdu_ses_con.qos_flow_id",
                                          "gtp.ext_hdr.pdu_ses_con.pdu_type",
                                          "gtp.seq_number",
                                          "ip.src",
                                          "ipv6.src",
                                          "ip.checksum.status",
                                          "udp.checksum.status",
                                          "tcp.checksum.status",
                                          "icmp.checksum.status",
                                          "icmpv6.checksum.status",
                                          "tcp.flags.syn",
                                          "frame.protocols"};

// The last of a field's values: the inner packet's where the outer one has the field too.
std::string last(const std::string& values) {
    size_t c = values.rfind(',');
    return c == std::string::npos ? values : values.substr(c + 1);
}

// Good checksums show as 1 once tshark checks them; the outer UDP of text2pcap carries none.
void expectGoodChecksums(const std::map<std::string, std::string>& f, uint8_t proto) {
    EXPECT_EQ(last(f.at("ip.checksum.status")), f.at("ip.src").empty() ? "" : "1");
    if (proto == GTPU_IP_TCP) {
        EXPECT_EQ(f.at("tcp.checksum.status"), "1");
    }
    if (proto == GTPU_IP_UDP) {
        EXPECT_EQ(last(f.at("udp.checksum.status")), "1");
    }
    if (proto == GTPU_IP_ICMP) {
        EXPECT_EQ(f.at("icmp.checksum.status"), "1");
    }
    if (proto == GTPU_IP_ICMPV6) {
        EXPECT_EQ(f.at("icmpv6.checksum.status"), "1");
    }
}

struct Built {
    std::string name;
    Bytes bytes;
    uint32_t teid;
    uint8_t qfi;
    uint8_t proto;
    std::string src;
    bool syn;
};

TEST(GtpuTshark, EveryInnerPacketKindDissectsWithItsTeidQfiAndGoodChecksums) {
    if (!kst::tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    std::mt19937 rng(18);
    std::vector<Built> built;
    uint32_t teid = 0x1000;
    for (uint8_t v : {4, 6}) {
        for (int proto : {GTPU_IP_ICMP, GTPU_IP_UDP, GTPU_IP_TCP, 0}) {  // 0: a TCP SYN
            for (size_t size : {0, 1, 64, 1400}) {
                for (bool zeros : {false, true}) {
                    gtpu_inner f;
                    f.ipVersion = v;
                    f.protocol = proto ? uint8_t(proto) : uint8_t(GTPU_IP_TCP);
                    if (!proto) f.tcpFlags = GTPU_TCP_SYN;
                    f.srcV4 = 0x0a2d0000 + uint32_t(built.size());
                    f.dstV4 = 0x0a0a0a0a;
                    f.srcV6[0] = 0x20, f.srcV6[1] = 0x01, f.srcV6[2] = 0x0d, f.srcV6[3] = 0xb8;
                    f.srcV6[15] = uint8_t(built.size());
                    f.dstV6[0] = 0xfc, f.dstV6[15] = 1;
                    // Ports no dissector claims: random payloads stay payloads.
                    f.srcPort = uint16_t(50000 + built.size());
                    f.dstPort = 52000;
                    f.tcpSeq = rng();
                    f.icmpSeq = uint16_t(built.size());
                    Bytes payload(size);
                    if (!zeros)
                        for (auto& x : payload) x = uint8_t(rng());
                    gtpu_tpdu_hdr h;
                    h.teid = ++teid;
                    h.seq = uint16_t(teid);
                    h.qfi = uint8_t(teid % 64);
                    Bytes d(16 + GTPU_INNER_HEADERS_MAX + size);
                    size_t n;
                    if (zeros) {  // headers from the payload's sum, the payload sent from elsewhere
                        n = gtpu_build_inner_headers(std::span<uint8_t>(d).subspan(16), f, size, 0);
                        std::fill(d.begin() + 16 + long(n), d.end(), 0);
                        n += size;
                    } else {
                        n = gtpu_build_inner_packet(std::span<uint8_t>(d).subspan(16), f, payload);
                    }
                    ASSERT_GT(n, 0u);
                    d.resize(16 + n);
                    ASSERT_EQ(gtpu_build_tpdu_header(d, h, n), 16u);
                    const uint8_t p = f.protocol == GTPU_IP_ICMP && v == 6 ? GTPU_IP_ICMPV6 : f.protocol;
                    char src[64];
                    if (v == 4) snprintf(src, sizeof src, "10.45.0.%u", unsigned(f.srcV4 & 0xff));
                    else snprintf(src, sizeof src, "2001:db8::%x", unsigned(f.srcV6[15]));
                    built.push_back({"IPv" + std::to_string(v) + " protocol " + std::to_string(proto) + " payload " +
                                         std::to_string(size) + (zeros ? " zeros" : " random"),
                                     d, h.teid, h.qfi, p, src, !proto});
                }
            }
        }
    }
    std::vector<Bytes> packets;
    for (const Built& b : built) packets.push_back(b.bytes);
    kst::TsharkRun run = tshark(packets, kFields);
    EXPECT_EQ(run.rc, 0) << run.report;
    ASSERT_EQ(run.fields.size(), built.size());
    for (size_t i = 0; i < built.size(); i++) {
        const Built& b = built[i];
        const auto& f = run.fields[i];
        SCOPED_TRACE(b.name + ": " + f.at("frame.protocols"));
        EXPECT_EQ(f.at("gtp.teid"), "0x" + toHex(Bytes{uint8_t(b.teid >> 24), uint8_t(b.teid >> 16),
                                                        uint8_t(b.teid >> 8), uint8_t(b.teid)}));
        EXPECT_EQ(f.at("gtp.ext_hdr.pdu_ses_con.qos_flow_id"), std::to_string(b.qfi));
        EXPECT_EQ(f.at("gtp.ext_hdr.pdu_ses_con.pdu_type"), "1");
        EXPECT_EQ(b.proto == GTPU_IP_ICMPV6 || b.src.find(':') != std::string::npos ? f.at("ipv6.src")
                                                                                     : last(f.at("ip.src")),
                  b.src);
        expectGoodChecksums(f, b.proto);
        if (b.proto == GTPU_IP_TCP) {
            EXPECT_EQ(f.at("tcp.flags.syn"), b.syn ? "1" : "0");
        }
    }
}

TEST(GtpuTshark, EveryHeaderFormAndSignallingMessageDissectsClean) {
    if (!kst::tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    gtpu_inner f;
    f.srcV4 = 0x0a2d0001;
    f.dstV4 = 0x08080808;
    f.protocol = GTPU_IP_ICMP;
    Bytes inner(64);
    inner.resize(gtpu_build_inner_packet(inner, f, Bytes(20, 0x61)));
    std::vector<Bytes> packets;
    std::vector<std::string> names;
    auto add = [&](const std::string& name, Bytes b) {
        names.push_back(name);
        packets.push_back(std::move(b));
    };
    for (int t = 1; t <= 6; t++) {
        Bytes d(GTPU_HEADER_MAX + inner.size());
        size_t hl = gtpu_build_form_header(d, t, 0x55, 0, inner.size());
        std::copy(inner.begin(), inner.end(), d.begin() + long(hl));
        d.resize(hl + inner.size());
        add("form " + std::to_string(t), d);
    }
    gtpu_tpdu_hdr dl;
    dl.teid = 0x66;
    dl.pduType = GTPU_PDU_TYPE_DL;
    dl.qfi = 7;
    dl.rqi = 1;
    Bytes d(16 + inner.size());
    gtpu_build_tpdu_header(d, dl, inner.size());
    std::copy(inner.begin(), inner.end(), d.begin() + 16);
    add("downlink container", d);
    Bytes b(64);
    b.resize(gtpu_build_echo_request(b, 1));
    add("echo request", b);
    b.resize(64);
    b.resize(gtpu_build_echo_response(b, 1));
    add("echo response", b);
    b.resize(64);
    b.resize(gtpu_build_end_marker(b, 0x66));
    add("end marker", b);
    const uint8_t v4[] = {10, 200, 0, 1};
    b.resize(64);
    b.resize(gtpu_build_error_indication(b, 0x77, v4, 40000));
    add("error indication", b);

    kst::TsharkRun run = tshark(packets, {"gtp.message", "gtp.teid", "gtp.ext_hdr.pdu_ses_con.qos_flow_id",
                                          "gtp.ext_hdr.pdu_ses_cont.rqi", "gtp.teid_data", "gtp.ext_hdr.udp_port",
                                          "icmp.checksum.status"});
    EXPECT_EQ(run.rc, 0) << run.report;
    ASSERT_EQ(run.fields.size(), packets.size());
    for (size_t i = 0; i < 7; i++) {
        SCOPED_TRACE(names[i]);
        EXPECT_EQ(run.fields[i].at("gtp.message"), "0xff");
        EXPECT_EQ(run.fields[i].at("icmp.checksum.status"), "1") << "the T-PDU is dissected to its end";
    }
    EXPECT_EQ(run.fields[1].at("gtp.ext_hdr.pdu_ses_con.qos_flow_id"), "1");
    EXPECT_EQ(run.fields[5].at("gtp.ext_hdr.pdu_ses_con.qos_flow_id"), "1,1") << "a long container and one more";
    EXPECT_EQ(run.fields[6].at("gtp.ext_hdr.pdu_ses_con.qos_flow_id"), "7");
    EXPECT_EQ(run.fields[6].at("gtp.ext_hdr.pdu_ses_cont.rqi"), "1");
    EXPECT_EQ(run.fields[7].at("gtp.message"), "0x01");
    EXPECT_EQ(run.fields[8].at("gtp.message"), "0x02");
    EXPECT_EQ(run.fields[9].at("gtp.message"), "0xfe");
    EXPECT_EQ(run.fields[10].at("gtp.message"), "0x1a");
    EXPECT_EQ(run.fields[10].at("gtp.teid_data"), "0x00000077");
    EXPECT_EQ(run.fields[10].at("gtp.ext_hdr.udp_port"), "40000");
}

// A capture's packets replayed for three UEs, each with its own addresses and TEID.
TEST(GtpuTshark, ReplayedCapturesCarryEachUesAddressAndTeidWithGoodChecksums) {
    if (!kst::tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    startRuntime();
    struct Ue {
        uint32_t v4;
        uint8_t v6[16];
        uint32_t teid;
        uint8_t qfi;
    };
    std::vector<Ue> ues;
    for (uint8_t i = 1; i <= 3; i++) {
        Ue u{0x0a2d0000u + i, {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, i}, 0x100u * i, uint8_t(i + 4)};
        u.v6[15] = 1;
        ues.push_back(u);
    }
    std::vector<Bytes> packets;
    std::vector<std::pair<const Ue*, uint8_t>> expect;  // UE and IP version of each packet
    for (const char* file : {"ue_traffic.pcap", "raw_ip.pcap", "sll.pcap"}) {
        auto cap = gtpu_capture_load((std::string(KS_GTPU_DATA) + "/" + file).c_str());
        ASSERT_TRUE(cap) << file;
        for (const Ue& u : ues) {
            for (const gtpu_capture_packet& p : cap->packets) {
                gtpu_tpdu_hdr h;
                h.teid = u.teid;
                h.qfi = u.qfi;
                gtpu_rewrite rw;
                rw.srcV4 = u.v4;
                rw.srcV6 = u.v6;
                gtpu_tx_slot slot;
                ASSERT_TRUE(gtpu_replay_slot(&slot, *cap, p, h, rw));
                packets.push_back(slotBytes(slot));
                expect.emplace_back(&u, p.ipVersion);
            }
        }
    }
    kst::TsharkRun run = tshark(packets, kFields);
    EXPECT_EQ(run.rc, 0) << run.report;
    ASSERT_EQ(run.fields.size(), packets.size());
    for (size_t i = 0; i < packets.size(); i++) {
        const auto& f = run.fields[i];
        const Ue& u = *expect[i].first;
        SCOPED_TRACE(std::to_string(i) + ": " + f.at("frame.protocols"));
        char want[64];
        if (expect[i].second == 4) {
            snprintf(want, sizeof want, "10.45.0.%u", unsigned(u.v4 & 0xff));
            EXPECT_EQ(last(f.at("ip.src")), want);
        } else {
            snprintf(want, sizeof want, "2001:db8:0:%x::1", unsigned(u.v6[7]));
            EXPECT_EQ(f.at("ipv6.src"), want);
        }
        EXPECT_EQ(f.at("gtp.teid"), "0x" + toHex(Bytes{0, 0, uint8_t(u.teid >> 8), uint8_t(u.teid)}));
        EXPECT_EQ(f.at("gtp.ext_hdr.pdu_ses_con.qos_flow_id"), std::to_string(u.qfi));
        const std::string& protos = f.at("frame.protocols");
        uint8_t proto = protos.find(":tcp") != std::string::npos      ? GTPU_IP_TCP
                        : protos.find(":icmpv6") != std::string::npos ? GTPU_IP_ICMPV6
                        : protos.find(":icmp") != std::string::npos   ? GTPU_IP_ICMP
                                                                      : GTPU_IP_UDP;
        expectGoodChecksums(f, proto);
    }
}

}  // namespace
