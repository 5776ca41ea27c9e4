// The PFCP codec: every message through the walker and back, the header, and what the decoder
// refuses.
#include <random>

#include "pfcp_testlib.h"

namespace {

using namespace kpf;

const uint8_t kPool[32] = {0x10, 0x21, 0x32, 0x43, 0x54, 0x65, 0x76, 0x87, 0x98, 0xa9, 0xba,
                           0xcb, 0xdc, 0xed, 0xfe, 0x0f, 0x11, 0x22, 0x33, 0x44, 0x55};

// Every field of every child present, each with a value of its own, every array full.
void fillAll(const tlv_desc_t* d, uint8_t* base, unsigned& k) {
    tlv_entry_t e;
    for (bool more = tlv_first_entry(d, e); more; more = tlv_next_entry(d, e)) {
        for (unsigned s = 0; s < e.slots; s++) {
            uint8_t* f = base + e.off + size_t(s) * e.desc->vsize;
            *reinterpret_cast<tlv_presence_t*>(f) = 1;
            ++k;
            switch (e.desc->ctype) {
                case TLV_UINT8: reinterpret_cast<tlv_uint8_t*>(f)->u8 = uint8_t(k); break;
                case TLV_UINT16: reinterpret_cast<tlv_uint16_t*>(f)->u16 = uint16_t(k * 257); break;
                case TLV_UINT32: reinterpret_cast<tlv_uint32_t*>(f)->u32 = k * 16777259u; break;
                case TLV_VAR_STR: {
                    auto* o = reinterpret_cast<tlv_octet_t*>(f);
                    o->data = kPool + k % 16;
                    o->len = 1 + k % 7;
                    break;
                }
                case TLV_COMPOUND: fillAll(e.desc, f + sizeof(tlv_presence_t), k); break;
                default: FAIL() << "a kind the PFCP tables do not use: " << e.desc->name;
            }
        }
    }
}

TEST(PfcpCodec, EveryMessageWithEveryFieldComesBackAsItWent) {
    for (const tlv_desc_t* d : pfcp_msg_descs) {
        SCOPED_TRACE(d->name);
        auto m = newMessage();
        unsigned type = 1;
        while (pfcp_find_msg_desc(type) != d) type++;
        m->h.type = uint8_t(type);
        m->h.flags.seid_presence = pfcp_is_session_message(m->h.type);
        m->h.seid = 0x0102030405060708ull;
        m->h.sqn = 0xABCDEF;
        unsigned k = 0;
        fillAll(d, reinterpret_cast<uint8_t*>(&m->pfcp_heartbeat_request), k);
        Bytes wire = encode(m.get());
        ASSERT_FALSE(wire.empty());
        auto back = newMessage();
        pfcp_rx_result_t rx;
        ASSERT_EQ(pfcp_decode_datagram(wire, back.get(), &rx), 1);
        EXPECT_EQ(rx.tlv.unexpected + rx.tlv.dropped, 0u);
        EXPECT_EQ(json(back.get()), json(m.get()));
        EXPECT_EQ(encode(back.get()), wire);
    }
}

TEST(PfcpCodec, SamplesComeBackThroughTheJsonForm) {
    for (const Sample& s : samples()) {
        SCOPED_TRACE(s.name);
        Bytes wire = sampleBytes(s);
        auto m = newMessage();
        ASSERT_EQ(pfcp_decode_datagram(wire, m.get()), 1);
        std::string text = json(m.get());
        auto again = newMessage();
        tlv_json_store store;
        std::string err;
        ASSERT_TRUE(pfcp_message_from_json(text.c_str(), again.get(), store, err)) << err;
        EXPECT_EQ(encode(again.get()), wire);
    }
}

TEST(PfcpCodec, HeaderCarriesTheSeidOnlyWhenAskedAndWrapsTheSequenceAt24Bits) {
    auto m = newMessage();
    m->h.type = PFCP_SESSION_DELETION_REQUEST_TYPE;
    m->h.flags.seid_presence = 1;
    m->h.seid = 0x1122334455667788ull;
    m->h.sqn = 0x1234567;
    EXPECT_EQ(toHex(encode(m.get())), "2136000c1122334455667788" "23456700");
    m->h.type = PFCP_HEARTBEAT_REQUEST_TYPE;
    m->h.flags.seid_presence = 0;
    m->pfcp_heartbeat_request.recovery_time_stamp = {1, 0xE9228C01};
    Bytes hb = encode(m.get());
    EXPECT_EQ(toHex(hb), "2001000c23456700" "00600004e9228c01");

    // The design's calling order: body with room in front, pulled back, header written in it. The
    // buffers come from the runtime's size classes.
    static bool core = (__init_morva_core(), true);
    (void)core;
    __mv_buff_t* b = pfcp_build_msg(m.get());
    ASSERT_NE(b, nullptr);
    ASSERT_EQ(__mv_buff__pull(b, PFCP_NODE_HEADER_LEN, 1), 1);
    pfcp__set_request_header(b, PFCP_HEARTBEAT_REQUEST_TYPE, 0x1234567, 0, 0);
    EXPECT_EQ(toHex(b->data, b->len), toHex(hb));
    __mv_buff__free(b);
    auto del = newMessage();
    del->h.type = PFCP_SESSION_DELETION_REQUEST_TYPE;
    b = pfcp_build_msg(del.get());
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->len, 0u);
    ASSERT_EQ(__mv_buff__pull(b, PFCP_HEADER_LEN, 1), 1);
    pfcp__set_request_header(b, PFCP_SESSION_DELETION_REQUEST_TYPE, 7, 1, 0x1122334455667788ull);
    EXPECT_EQ(toHex(b->data, b->len), "2136000c112233445566778800000700");
    __mv_buff__free(b);
    del->h.type = 20;
    EXPECT_EQ(pfcp_build_msg(del.get()), nullptr);
}

struct Refusal {
    const char* name;
    std::string hex;
    int rc;
    pfcp_rx_error_e error;
    const char* text;
    bool fixLength = true;  // set the header's length to the datagram's
};

// The datagram of `hex` with a length field that matches it.
Bytes datagram(const std::string& hex, bool fixLength = true) {
    Bytes d = fromHex(hex);
    if (fixLength && d.size() >= 4) {
        d[2] = uint8_t((d.size() - 4) >> 8);
        d[3] = uint8_t(d.size() - 4);
    }
    return d;
}

TEST(PfcpCodec, DatagramsTheStackMustDropAreRefusedWithTheirReason) {
    const std::string hb = "00600004e9228c01";
    const Refusal cases[] = {
        {"empty", "", -1, PFCP_RX_SHORT, "shorter than its header"},
        {"version 2", "4001000c00000100" + hb, -1, PFCP_RX_VERSION, "unsupported pfcp version=2"},
        {"three octets", "200100", -1, PFCP_RX_SHORT, "shorter"},
        {"length past the datagram", "2001001000000100" + hb, -1, PFCP_RX_LENGTH, "expected=16 received=12", false},
        {"length short of the datagram", "2001000800000100" + hb, -1, PFCP_RX_LENGTH, "expected=8 received=12", false},
        {"SEID header cut short", "2136000011223344" "5566", -1, PFCP_RX_SHORT, "shorter"},
        {"type 0", "2000000000000100" + hb, -1, PFCP_RX_TYPE, "msg-type=0"},
        {"type 58", "203a000000000100" + hb, -1, PFCP_RX_TYPE, "msg-type=58"},
        {"type 16, in range but no message", "2010000000000100" + hb, 0, PFCP_RX_UNKNOWN, "msg-type=16"},
        {"element past the datagram", "2001000000000100" "00600009e9228c01", -1, PFCP_RX_BODY, "has length 9, 4 left"},
        {"element header cut", "2001000000000100" "006000", -1, PFCP_RX_BODY, "ends inside an element header"},
        {"grouped element overruns its parent",
         "2133000000000000000001f600000100" "0008000a" "0038000200020015000901" "0000", -1, PFCP_RX_BODY,
         "TLV type:21 at octet 10 of Created PDR has length 9, 0 left"},
        {"two-octet CP Function Features", "2005000000000100" "005900020101", -1, PFCP_RX_BODY,
         "Invalid TLV length 2. It should be 1"},
        {"five-octet Recovery Time Stamp", "2001000000000100" "00600005e9228c0100", -1, PFCP_RX_BODY, "It should be 4"},
    };
    for (const Refusal& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes d = datagram(c.hex, c.fixLength);
        auto m = newMessage();
        pfcp_rx_result_t r;
        EXPECT_EQ(pfcp_decode_datagram(d, m.get(), &r), c.rc);
        EXPECT_EQ(r.error, c.error);
        char line[300];
        pfcp_format_rx_error(&r, line, sizeof line);
        EXPECT_NE(std::string(line).find(c.text), std::string::npos) << line;
    }
}

TEST(PfcpCodec, ElementsOfNoKnownPlaceAndRepeatsBeyondRoomDoNotFailTheMessage) {
    // A heartbeat with an element type no table has, and one of a later release (Source IP Address).
    Bytes d = datagram("2001000000000100" "0fff0002abcd" "00600004e9228c01" "00c0000502c0a80001");
    auto m = newMessage();
    pfcp_rx_result_t r;
    ASSERT_EQ(pfcp_decode_datagram(d, m.get(), &r), 1);
    EXPECT_EQ(r.tlv.unexpected, 2u);
    EXPECT_EQ(r.tlv.firstUnexpected, 0x0fff);
    EXPECT_EQ(m->pfcp_heartbeat_request.recovery_time_stamp.u32, 0xE9228C01u);

    // Nine Create PDRs into eight slots; five resource informations into four.
    auto big = newMessage();
    big->h.type = PFCP_SESSION_ESTABLISHMENT_REQUEST_TYPE;
    big->h.flags.seid_presence = 1;
    Bytes wire = encode(big.get());
    for (int i = 0; i < 9; i++) {
        Bytes pdr = fromHex("00010006003800020000");
        pdr[9] = uint8_t(i + 1);
        wire.insert(wire.end(), pdr.begin(), pdr.end());
    }
    wire[2] = uint8_t((wire.size() - 4) >> 8);
    wire[3] = uint8_t(wire.size() - 4);
    ASSERT_EQ(pfcp_decode_datagram(wire, big.get(), &r), 1);
    EXPECT_EQ(r.tlv.dropped, 1u);
    EXPECT_EQ(big->pfcp_session_establishment_request.create_pdr[7].pdr_id.u16, 8);
}

TEST(PfcpCodec, ElementBodiesAreLaidOutAsTheStandardHasThem) {
    uint8_t b[16];
    auto hex = [&](int n) { return toHex(b, size_t(n)); };
    EXPECT_EQ(hex(pfcp_node_id_ipv4(b, 0x0AC80001)), "000ac80001");
    EXPECT_EQ(hex(pfcp_f_seid_ipv4(b, 0x1F6, 0x0AC80001)), "0200000000000001f60ac80001");
    EXPECT_EQ(hex(pfcp_f_teid_ipv4(b, 1000, 0x0AC80002)), "01000003e80ac80002");
    EXPECT_EQ(hex(pfcp_ue_ip_address_ipv4(b, 6, 0x0A2D0001)), "060a2d0001");
    EXPECT_EQ(hex(pfcp_outer_header_creation_gtpu_ipv4(b, 2000, 0x0AC80001)), "0100000007d00ac80001");
    EXPECT_EQ(hex(pfcp_bitrate(b, 10240, 10240)), "00000028000000002800");
    EXPECT_EQ(hex(pfcp_volume_quota_total(b, 4096)), "010000000000001000");
    uint64_t seid = 0;
    uint32_t ip = 0;
    tlv_octet_t f{1, b, 13};
    pfcp_f_seid_ipv4(b, 0xABCDEF, 0x0AC80002);
    EXPECT_TRUE(pfcp_read_f_seid(f, seid, ip));
    EXPECT_EQ(seid, 0xABCDEFu);
    EXPECT_EQ(ip, 0x0AC80002u);
    f.len = 12;  // says IPv4, has three of its octets
    EXPECT_FALSE(pfcp_read_f_seid(f, seid, ip));
    f.len = 5;
    pfcp_node_id_ipv4(b, 0x0A000001);
    EXPECT_TRUE(pfcp_read_node_id_ipv4(f, ip));
    EXPECT_EQ(ip, 0x0A000001u);
    b[0] = PFCP_NODE_ID_FQDN;
    EXPECT_FALSE(pfcp_read_node_id_ipv4(f, ip));
}

// Random octets and damaged samples: whatever decodes must encode again and decode to the same
// record; nothing may read out of bounds (the sanitizer build says so).
TEST(PfcpCodec, RandomAndDamagedDatagramsNeverBreakTheDecoder) {
    std::mt19937 rng(20240517);
    std::vector<Bytes> seeds;
    for (const Sample& s : samples()) seeds.push_back(sampleBytes(s));
    auto m = newMessage();
    auto again = newMessage();
    int decoded = 0;
    for (int i = 0; i < 100000; i++) {
        Bytes d;
        if (i % 2) {
            d.resize(rng() % 200);
            for (auto& x : d) x = uint8_t(rng());
            if (d.size() >= 4 && i % 4 == 1) {  // a plausible header over random elements
                d[0] = 0x20 | (rng() & 1);
                d[1] = uint8_t(rng() % 58);
                d[2] = uint8_t((d.size() - 4) >> 8);
                d[3] = uint8_t(d.size() - 4);
            }
        } else {
            d = seeds[rng() % seeds.size()];
            for (int k = 0, n = 1 + int(rng() % 4); k < n && !d.empty(); k++) d[rng() % d.size()] = uint8_t(rng());
        }
        if (pfcp_decode_datagram(d, m.get()) != 1) continue;
        ++decoded;
        Bytes re = encode(m.get());
        ASSERT_FALSE(re.empty()) << toHex(d);
        ASSERT_EQ(pfcp_decode_datagram(re, again.get()), 1) << toHex(d);
        ASSERT_EQ(json(again.get()), json(m.get())) << toHex(d);
    }
    EXPECT_GT(decoded, 1000);
}

TEST(PfcpCodec, A64KilobyteDatagramIsReadToItsEnd) {
    // The longest length field: one element that fills it, and one that runs a single octet past it.
    Bytes d(65536, 0);
    d[0] = 0x20;
    d[1] = PFCP_HEARTBEAT_REQUEST_TYPE;
    d[2] = 0xFF;
    d[3] = 0xFC;
    d[8] = 0x0F;  // type 0x0fff, of no table
    d[9] = 0xFF;
    d[10] = 0xFF;  // 65524 octets of value: exactly what is left
    d[11] = 0xF4;
    auto m = newMessage();
    pfcp_rx_result_t r;
    EXPECT_EQ(pfcp_decode_datagram(d, m.get(), &r), 1);
    EXPECT_EQ(r.tlv.unexpected, 1u);
    d[11] = 0xF5;
    EXPECT_EQ(pfcp_decode_datagram(d, m.get(), &r), -1);
    EXPECT_EQ(r.tlv.error, TLV_ERR_OVERRUN);
}

}  // namespace
