// The tunnel header and messages in memory: sums against a plain reference, every header form
// read back, and the decoder's refusals, each with its reason.
#include <random>

#include "gtpu_testlib.h"

namespace {

using namespace kgt;

// RFC 1071 the slow way: 16-bit words in order, the carries folded at the end.
uint16_t referenceChecksum(const uint8_t* p, size_t n) {
    uint64_t s = 0;
    for (size_t i = 0; i + 1 < n; i += 2) s += uint32_t(p[i]) << 8 | p[i + 1];
    if (n & 1) s += uint32_t(p[n - 1]) << 8;
    while (s >> 16) s = (s & 0xFFFF) + (s >> 16);
    return uint16_t(~s);
}

TEST(GtpuChecksum, AgreesWithTheWordByWordSumAtEveryLengthAndAlignment) {
    std::mt19937 rng(7);
    Bytes b(1600 + 3);  // the longest length at the largest offset
    for (auto& x : b) x = uint8_t(rng());
    // All-ones words carry on every addition: the end-around carry must come back in.
    Bytes ones(64, 0xFF);
    for (size_t n : {0, 1, 2, 3, 7, 8, 9, 15, 16, 17, 20, 40, 63, 64, 1399, 1400, 1599}) {
        for (size_t off : {0, 1, 3}) {
            SCOPED_TRACE("length " + std::to_string(n) + " at offset " + std::to_string(off));
            EXPECT_EQ(compute_checksum(b.data() + off, n), referenceChecksum(b.data() + off, n));
        }
    }
    EXPECT_EQ(compute_checksum(ones.data(), ones.size()), referenceChecksum(ones.data(), ones.size()));
    // The example of RFC 1071 section 3: 00 01 f2 03 f4 f5 f6 f7 sums to ddf2.
    const uint8_t rfc[] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
    EXPECT_EQ(compute_checksum(rfc, sizeof rfc), uint16_t(~0xddf2));
    // Pieces of even length summed in turn give the sum of the whole.
    uint32_t s = gtpu_csum_add(b.data(), 20);
    s = gtpu_csum_add(b.data() + 20, 501, s);
    EXPECT_EQ(gtpu_csum_fold(s), referenceChecksum(b.data(), 521));
}

TEST(GtpuBuilders, PacketsWithPayloadSumsEqualPacketsWithTheirBytes) {
    // A sender keeps one payload and gives its sum: the headers must come out as with the bytes.
    Bytes payload(333);
    for (size_t i = 0; i < payload.size(); i++) payload[i] = uint8_t(i * 7 + 1);
    for (uint8_t proto : {GTPU_IP_ICMP, GTPU_IP_UDP, GTPU_IP_TCP}) {
        for (uint8_t v : {4, 6}) {
            SCOPED_TRACE("protocol " + std::to_string(proto) + " IPv" + std::to_string(v));
            gtpu_inner f;
            f.ipVersion = v;
            f.protocol = proto;
            f.srcV4 = 0x0a2d0001;
            f.dstV4 = 0x08080808;
            f.srcV6[0] = 0x20;
            f.dstV6[15] = 9;
            Bytes whole(2000), heads(200);
            size_t n = gtpu_build_inner_packet(whole, f, payload);
            size_t h = gtpu_build_inner_headers(heads, f, payload.size(), gtpu_csum_add(payload.data(), payload.size()));
            ASSERT_GT(h, 0u);
            ASSERT_EQ(n, h + payload.size());
            EXPECT_EQ(toHex(whole.data(), h), toHex(heads.data(), h));
        }
    }
    gtpu_inner f;
    f.ipVersion = 5;
    Bytes out(100);
    EXPECT_EQ(gtpu_build_inner_headers(out, f, 0, 0), 0u);
    f.ipVersion = 4;
    EXPECT_EQ(gtpu_build_inner_headers(out, f, 65535, 0), 0u) << "past the IPv4 total length";
    EXPECT_EQ(gtpu_build_inner_headers(std::span<uint8_t>(out.data(), 27), f, 0, 0), 0u) << "no room for the headers";
}

TEST(GtpuCodec, EveryHeaderFormReadsBackWithItsTeidSequenceAndQfi) {
    Bytes inner(40, 0x45);
    struct Case {
        const char* name;
        gtpu_tpdu_hdr h;
        size_t len;
    };
    gtpu_tpdu_hdr ul;
    ul.teid = 0x01020304;
    ul.seq = 0xFFFF;
    ul.qfi = 9;
    gtpu_tpdu_hdr dl = ul;
    dl.pduType = GTPU_PDU_TYPE_DL;
    dl.rqi = 1;
    dl.qfi = 63;
    gtpu_tpdu_hdr seqOnly = ul;
    seqOnly.flags = GTPU_FLAG_S;
    gtpu_tpdu_hdr bare = ul;
    bare.flags = 0;
    for (const Case& c : {Case{"uplink container", ul, 16}, Case{"downlink container with RQI", dl, 16},
                          Case{"sequence only", seqOnly, 12}, Case{"bare", bare, 8}}) {
        SCOPED_TRACE(c.name);
        Bytes d(c.len + inner.size());
        ASSERT_EQ(gtpu_build_tpdu_header(d, c.h, inner.size()), c.len);
        std::copy(inner.begin(), inner.end(), d.begin() + long(c.len));
        gtpu_msg_t m;
        ASSERT_EQ(gtpu_decode(d, &m), 1);
        EXPECT_EQ(m.type, GTPU_TPDU);
        EXPECT_EQ(m.teid, c.h.teid);
        EXPECT_EQ(m.seq, c.h.flags & GTPU_FLAG_S ? c.h.seq : 0);
        EXPECT_EQ(m.hasContainer, c.len == 16);
        if (c.len == 16) {
            EXPECT_EQ(m.pduType, c.h.pduType);
            EXPECT_EQ(m.qfi, c.h.qfi);
            EXPECT_EQ(m.rqi, c.h.rqi);
        }
        EXPECT_EQ(m.payload.size(), inner.size());
    }

    // The header test steps' forms: lengths, flags, containers, and the sequence only in forms 2 and 4.
    const size_t lens[] = {8, 16, 20, 20, 20, 24};
    const uint8_t flags[] = {0x30, 0x36, 0x34, 0x36, 0x36, 0x36};
    const uint8_t exts[] = {0, 1, 2, 2, 1, 2};
    for (int t = 1; t <= 6; t++) {
        SCOPED_TRACE("form " + std::to_string(t));
        Bytes d(lens[t - 1] + inner.size());
        ASSERT_EQ(gtpu_build_form_header(d, t, 77, 0, inner.size()), lens[t - 1]);
        std::copy(inner.begin(), inner.end(), d.begin() + long(lens[t - 1]));
        EXPECT_EQ(d[0], flags[t - 1]);
        gtpu_msg_t m;
        ASSERT_EQ(gtpu_decode(d, &m), 1);
        EXPECT_EQ(m.teid, 77u);
        EXPECT_EQ(m.seq, (t == 2 || t == 4) ? inner.size() : 0u) << "a zero sequence becomes the payload size";
        EXPECT_EQ(m.extCount, exts[t - 1]);
        EXPECT_EQ(m.hasContainer, t != 1);
    }
    Bytes d(64);
    EXPECT_EQ(gtpu_build_form_header(d, 0, 1, 1, 1), 0u);
    EXPECT_EQ(gtpu_build_form_header(d, 7, 1, 1, 1), 0u);
}

TEST(GtpuCodec, SignallingMessagesCarryTheirSequenceAndElements) {
    Bytes b(64);
    b.resize(gtpu_build_echo_request(b, 4321));
    EXPECT_EQ(toHex(b), "320100040000000010e10000");
    b.resize(64);
    b.resize(gtpu_build_echo_response(b, 4321));
    EXPECT_EQ(toHex(b), "3202000600000000" "10e10000" "0e00");
    gtpu_msg_t m;
    gtpu_ies_t ies;
    ASSERT_EQ(gtpu_decode(b, &m), 1);
    ASSERT_EQ(gtpu_decode_ies(m.payload, &ies), 1);
    EXPECT_TRUE(ies.hasRecovery);
    b.resize(64);
    b.resize(gtpu_build_end_marker(b, 0xabcdef01));
    EXPECT_EQ(toHex(b), "30fe0000abcdef01");

    const uint8_t v4[] = {10, 200, 0, 1};
    uint8_t v6[16] = {0x20, 0x01, 0x0d, 0xb8};
    v6[15] = 1;
    for (uint16_t port : {uint16_t(0), uint16_t(2152)}) {
        for (std::span<const uint8_t> addr : {std::span<const uint8_t>(v4), std::span<const uint8_t>(v6)}) {
            SCOPED_TRACE(std::to_string(addr.size()) + "-octet address, port " + std::to_string(port));
            b.resize(64);
            b.resize(gtpu_build_error_indication(b, 0x11223344, addr, port));
            ASSERT_EQ(gtpu_decode(b, &m), 1);
            EXPECT_EQ(m.type, GTPU_ERROR_INDICATION);
            EXPECT_EQ(m.teid, 0u);
            EXPECT_EQ(m.hasUdpPort, port != 0);
            EXPECT_EQ(m.udpPort, port);
            ASSERT_EQ(gtpu_decode_ies(m.payload, &ies), 1);
            EXPECT_EQ(ies.teidDataI, 0x11223344u);
            ASSERT_EQ(ies.peerAddressLen, addr.size());
            EXPECT_EQ(toHex(ies.peerAddress, addr.size()), toHex(addr.data(), addr.size()));
        }
    }
    EXPECT_EQ(gtpu_build_error_indication(b, 1, std::span<const uint8_t>(v4, 3), 0), 0u);
}

TEST(GtpuCodec, MalformedHeadersAreRefusedWithTheirReason) {
    // A valid T-PDU with a sequence and one container: 36 01 00 0c 00 00 00 07 | 00 05 00 85 | 01 10 05 00 | 45 00 00 00
    const std::string good = "3601000c00000007" "00050085" "01100500" "45000000";
    gtpu_msg_t m;
    ASSERT_EQ(gtpu_decode(fromHex(good), &m), 1);
    ASSERT_EQ(m.qfi, 5);
    struct Case {
        const char* name;
        std::string hex;
        gtpu_rx_error err;
    };
    const std::vector<Case> cases = {
        {"empty", "", GTPU_RX_SHORT},
        {"flags alone", "36", GTPU_RX_SHORT},
        {"mandatory header cut", "3601000c000000", GTPU_RX_SHORT},
        {"version 2", "5601000c00000007" "00050085" "01100500" "45000000", GTPU_RX_VERSION},
        {"version 0", "1601000c00000007" "00050085" "01100500" "45000000", GTPU_RX_VERSION},
        {"GTP prime", "2601000c00000007" "00050085" "01100500" "45000000", GTPU_RX_PROTOCOL_TYPE},
        {"length past the datagram", "3601000d00000007" "00050085" "01100500" "45000000", GTPU_RX_LENGTH},
        {"length short of the datagram", "3601000b00000007" "00050085" "01100500" "45000000", GTPU_RX_LENGTH},
        {"optional fields cut", "36ff000200000007" "0005", GTPU_RX_SHORT},
        {"extension of length 0", "3601000c00000007" "00050085" "00100500" "45000000", GTPU_RX_EXTENSION},
        {"extension past the message", "34ff000800000007" "00000085" "02100500", GTPU_RX_EXTENSION},
        {"chain that does not end", "34ff000c00000007" "00000085" "01100585" "01100585", GTPU_RX_EXTENSION},
        {"extension the endpoint must understand", "34ff000c00000007" "000000c1" "01aabb00" "45000000",
         GTPU_RX_EXTENSION_UNSUPPORTED},
        {"T-PDU without a packet", "30ff000000000007", GTPU_RX_LENGTH},
        {"T-PDU with a header and no packet", "36ff000800000007" "00050085" "01100500", GTPU_RX_LENGTH},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        gtpu_rx_error e = GTPU_RX_OK;
        EXPECT_EQ(gtpu_decode(fromHex(c.hex), &m, &e), -1);
        EXPECT_EQ(e, c.err) << gtpu_rx_error_text(e);
    }
    // An extension header nobody must understand is stepped over; without E the next type means nothing.
    EXPECT_EQ(gtpu_decode(fromHex("34ff000c00000007" "00000001" "01aabb00" "45000000"), &m), 1);
    EXPECT_EQ(gtpu_decode(fromHex("32ff000800000007" "00050085" "45000000"), &m), 1);
    EXPECT_FALSE(m.hasContainer);
    EXPECT_EQ(m.payload.size(), 4u);
    // Unknown message types decode: the endpoint counts them.
    EXPECT_EQ(gtpu_decode(fromHex("30630000000000ff"), &m), 1);
}

TEST(GtpuCodec, InformationElementsCutShortOrUnknownAreRefused) {
    gtpu_ies_t ies;
    const std::vector<std::pair<const char*, std::string>> bad = {
        {"TEID cut short", "10000000"},
        {"unknown fixed-length type", "0e0007aa"},
        {"peer address length past the end", "850004c0a8"},
        {"peer address of 5 octets", "850005c0a8000101"},
        {"type list cut short", "8d0301"},
    };
    for (const auto& [name, hex] : bad) {
        SCOPED_TRACE(name);
        EXPECT_EQ(gtpu_decode_ies(fromHex(hex), &ies), -1);
    }
    // A private extension is skipped; a type list is kept.
    ASSERT_EQ(gtpu_decode_ies(fromHex("ff0003aabbcc" "8d02c085" "0e05"), &ies), 1);
    EXPECT_EQ(ies.extTypeCount, 2);
    EXPECT_EQ(ies.extTypes[1], 0x85);
    EXPECT_EQ(ies.recovery, 5);
}

}  // namespace
