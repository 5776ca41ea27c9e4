// The TLV walker against a small protocol of its own, described by hand the way the generator
// writes tables, in every mode; expected octets are written out from the wire layouts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tlv.h"
#include "tlv_json.h"

namespace {

using Bytes = std::vector<uint8_t>;

// ---------------------------------------------------------------- the test protocol

struct group_t {
    tlv_presence_t presence;
    tlv_uint8_t a;
    tlv_octet_t b[2];
};
struct msg_t {
    tlv_uint8_t u8;
    tlv_uint16_t u16;
    tlv_uint24_t u24;
    tlv_uint32_t u32;
    tlv_octet_t var;
    tlv_octet_t fixed;
    tlv_null_t null;
    group_t group;
    tlv_octet_t list[3];
    tlv_uint8_t u8i1;  // tag 1 again, instance 1
    tlv_int24_t i24;
    tlv_octet_t twin1;  // two children of one tag: they fill in order
    tlv_octet_t twin2;
};

extern const tlv_desc_t dU8, dU16, dU24, dU32, dVar, dFixed, dNull, dGroup, dU8i1, dI24, dTwin;
const tlv_desc_t dU8 = {TLV_UINT8, "U8", 1, 1, 0, sizeof(tlv_uint8_t), nullptr, nullptr};
const tlv_desc_t dU16 = {TLV_UINT16, "U16", 2, 2, 0, sizeof(tlv_uint16_t), nullptr, nullptr};
const tlv_desc_t dU24 = {TLV_UINT24, "U24", 3, 3, 0, sizeof(tlv_uint24_t), nullptr, nullptr};
const tlv_desc_t dU32 = {TLV_UINT32, "U32", 4, 4, 0, sizeof(tlv_uint32_t), nullptr, nullptr};
const tlv_desc_t dVar = {TLV_VAR_STR, "Var", 5, 0, 0, sizeof(tlv_octet_t), nullptr, nullptr};
const tlv_desc_t dFixed = {TLV_FIXED_STR, "Fixed", 6, 3, 0, sizeof(tlv_octet_t), nullptr, nullptr};
const tlv_desc_t dNull = {TLV_NULL, "Null", 7, 0, 0, sizeof(tlv_null_t), nullptr, nullptr};
const tlv_desc_t* const kGroupKids[] = {&dU8, &dVar, &tlv_desc_more2, nullptr};
const char* const kGroupNames[] = {"a", "b", nullptr, nullptr};
const tlv_desc_t dGroup = {TLV_COMPOUND, "Group", 200, 0, 0, sizeof(group_t), kGroupKids, kGroupNames};
const tlv_desc_t dU8i1 = {TLV_UINT8, "U8", 1, 1, 1, sizeof(tlv_uint8_t), nullptr, nullptr};
const tlv_desc_t dI24 = {TLV_INT24, "I24", 9, 3, 0, sizeof(tlv_int24_t), nullptr, nullptr};
const tlv_desc_t dTwin = {TLV_VAR_STR, "Twin", 130, 0, 0, sizeof(tlv_octet_t), nullptr, nullptr};
const tlv_desc_t* const kMsgKids[] = {&dU8, &dU16, &dU24, &dU32, &dVar, &dFixed, &dNull, &dGroup,
                                      &dVar, &tlv_desc_more3, &dU8i1, &dI24, &dTwin, &dTwin, nullptr};
const char* const kMsgNames[] = {"u8", "u16", "u24", "u32", "var", "fixed", "null", "group",
                                 "list", nullptr, "u8i1", "i24", "twin1", "twin2", nullptr};
const tlv_desc_t dMsg = {TLV_MESSAGE, "Message", 0, 0, 0, sizeof(msg_t), kMsgKids, kMsgNames};

const uint8_t kAbc[] = {'a', 'b', 'c'};
const uint8_t kXy[] = {'x', 'y'};

void set(tlv_octet_t& o, const uint8_t* p, uint32_t n) {
    o.presence = 1;
    o.data = p;
    o.len = n;
}

msg_t sample() {
    msg_t m{};
    m.u8 = {1, 0x11};
    m.u16 = {1, 0x2233};
    m.u24 = {1, 0x010203};
    m.u32 = {1, 0x44556677};
    set(m.var, kXy, 2);
    set(m.fixed, kAbc, 3);
    m.null.presence = 1;
    m.group.presence = 1;
    m.group.a = {1, 0x55};
    set(m.group.b[0], kAbc, 3);
    set(m.list[0], kXy, 2);
    set(m.list[1], kAbc, 1);
    m.u8i1 = {1, 0x66};
    m.i24 = {1, -2};
    set(m.twin1, kAbc, 2);
    set(m.twin2, kXy, 1);
    return m;
}

Bytes encode(const tlv_desc_t* d, const void* rec, int mode, tlv_result_t* res = nullptr) {
    Bytes out(1000);
    int n = tlv_encode(d, rec, mode, out, res);
    if (n < 0) return {};
    out.resize(size_t(n));
    return out;
}

Bytes hex(const std::string& h) {
    Bytes b;
    for (size_t i = 0; i + 1 < h.size();) {
        if (h[i] == ' ') {
            i++;
            continue;
        }
        b.push_back(uint8_t(std::stoi(h.substr(i, 2), nullptr, 16)));
        i += 2;
    }
    return b;
}

// ---------------------------------------------------------------- round trips

struct ModeCase {
    int mode;
    const char* expected;  // the sample's octets
};

TEST(TlvWalker, EncodesTheSampleInEveryModeAndReadsItBack) {
    // Tags big-endian in their width, then the length, the instance where the mode has one, the value.
    const ModeCase cases[] = {
        {TLV_MODE_T2_L2,
         "0001 0001 11  0002 0002 2233  0003 0003 010203  0004 0004 44556677  0005 0002 7879  0006 0003 616263  "
         "0007 0000  00c8 000c 0001 0001 55 0005 0003 616263  0005 0002 7879 0005 0001 61  "
         "0009 0003 fffffe  0082 0002 6162  0082 0001 78"},
        {TLV_MODE_T1_L1,
         "01 01 11  02 02 2233  03 03 010203  04 04 44556677  05 02 7879  06 03 616263  07 00  c8 08 01 01 55 05 03 "
         "616263  05 02 7879 05 01 61  09 03 fffffe  82 02 6162  82 01 78"},
        {TLV_MODE_T1_L2_I1,
         "01 0001 00 11  02 0002 00 2233  03 0003 00 010203  04 0004 00 44556677  05 0002 00 7879  06 0003 00 616263  "
         "07 0000 00  c8 000c 00 01 0001 00 55 05 0003 00 616263  05 0002 00 7879 05 0001 00 61  01 0001 01 66  "
         "09 0003 00 fffffe  82 0002 00 6162  82 0001 00 78"},
    };
    for (const ModeCase& c : cases) {
        SCOPED_TRACE(c.mode);
        msg_t m = sample();
        if (c.mode != TLV_MODE_T1_L2_I1) m.u8i1.presence = 0;  // without instances it is a second U8
        Bytes got = encode(&dMsg, &m, c.mode);
        EXPECT_EQ(got, hex(c.expected));
        EXPECT_EQ(tlv_encoded_size(&dMsg, &m, c.mode), int(got.size()));
        msg_t back{};
        tlv_result_t r{};
        ASSERT_EQ(tlv_decode(&dMsg, &back, c.mode, got, &r), 1);
        EXPECT_EQ(r.unexpected + r.dropped, 0u);
        EXPECT_EQ(encode(&dMsg, &back, c.mode), got);
        EXPECT_EQ(back.u24.u24, 0x010203u);
        EXPECT_EQ(back.i24.i24, -2);
        EXPECT_EQ(back.group.b[0].len, 3u);
        EXPECT_TRUE(back.group.b[0].data >= got.data() && back.group.b[0].data < got.data() + got.size());
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(back.twin1.data), back.twin1.len), "ab");
        EXPECT_EQ(back.twin2.len, 1u);
        EXPECT_EQ(back.u8i1.presence != 0, c.mode == TLV_MODE_T1_L2_I1);
    }
}

TEST(TlvWalker, PresenceDecidesWhatGoesOut) {
    msg_t m{};
    // An array ends at its first absent slot; an empty group is its tag and a zero length.
    set(m.list[0], kXy, 2);
    set(m.list[2], kAbc, 3);
    m.group.presence = 1;
    EXPECT_EQ(encode(&dMsg, &m, TLV_MODE_T2_L2), hex("00c8 0000  0005 0002 7879"));
    // An empty variable string still goes out; a record is not changed by encoding.
    msg_t e{};
    set(e.var, nullptr, 0);
    e.u32 = {1, 0x01020304};
    EXPECT_EQ(encode(&dMsg, &e, TLV_MODE_T2_L2), hex("0004 0004 01020304  0005 0000"));
    EXPECT_EQ(e.u32.u32, 0x01020304u);
    msg_t none{};
    EXPECT_EQ(encode(&dMsg, &none, TLV_MODE_T2_L2), Bytes{});
}

// ---------------------------------------------------------------- bad input

struct BadCase {
    const char* name;
    const char* bytes;
    tlv_error_e error;
    uint32_t offset;
    uint16_t type;
    const char* text;  // a piece of tlv_format_error's line
};

TEST(TlvWalker, DecoderRefusesBadInputAndSaysWhere) {
    const BadCase cases[] = {
        {"header cut in the tag", "0001 0001 11 00", TLV_ERR_SHORT_HEADER, 5, 0, "ends inside an element header"},
        {"header cut in the length", "0001 0001 11 0002 00", TLV_ERR_SHORT_HEADER, 5, 2, "ends inside"},
        {"length past the block", "0002 0002 2233 0005 0009 7879", TLV_ERR_OVERRUN, 6, 5, "has length 9, 2 left"},
        {"child overruns its group", "00c8 0006 0005 0007 616263 0001 0001 11", TLV_ERR_OVERRUN, 4, 5, "of Group"},
        {"number of the wrong size", "0001 0002 1111", TLV_ERR_BAD_LENGTH, 0, 1, "Invalid TLV length 2. It should be 1"},
        {"short 32-bit number", "0004 0003 010203", TLV_ERR_BAD_LENGTH, 0, 4, "It should be 4"},
        {"fixed string of another size", "0006 0002 6162", TLV_ERR_BAD_LENGTH, 0, 6, "It should be 3"},
        {"null with a value", "0007 0001 00", TLV_ERR_BAD_LENGTH, 0, 7, "It should be 0"},
        {"bad number inside a group", "00c8 0006 0001 0002 5555", TLV_ERR_BAD_LENGTH, 4, 1, "It should be 1"},
    };
    for (const BadCase& c : cases) {
        SCOPED_TRACE(c.name);
        msg_t m{};
        tlv_result_t r{};
        Bytes in = hex(c.bytes);
        EXPECT_EQ(tlv_decode(&dMsg, &m, TLV_MODE_T2_L2, in, &r), -1);
        EXPECT_EQ(r.error, c.error);
        EXPECT_EQ(r.offset, c.offset);
        EXPECT_EQ(r.type, c.type);
        char line[200];
        tlv_format_error(&r, line, sizeof line);
        EXPECT_NE(std::string(line).find(c.text), std::string::npos) << line;
    }
}

TEST(TlvWalker, ElementsWithoutAPlaceAreCountedNotFatal) {
    // Type 99 is no child; the U16 comes twice into one field; the list takes three of four.
    Bytes in = hex("0063 0002 abcd  0002 0002 0001  0002 0002 0002  0005 0001 01 0005 0001 02 0005 0001 03 0005 0001 04  "
                   "0005 0001 05  00c8 0005 0063 0001 00");
    msg_t m{};
    tlv_result_t r{};
    ASSERT_EQ(tlv_decode(&dMsg, &m, TLV_MODE_T2_L2, in, &r), 1);
    EXPECT_EQ(r.unexpected, 2u);  // type 99 at the top and inside the group
    EXPECT_EQ(r.firstUnexpected, 99);
    EXPECT_EQ(r.dropped, 2u);     // the second U16 and the fifth Var
    EXPECT_EQ(m.u16.u16, 1);
    EXPECT_EQ(m.var.data[0], 1);
    EXPECT_EQ(m.list[0].data[0], 2);
    EXPECT_EQ(m.list[2].data[0], 4);
    EXPECT_TRUE(m.group.presence);
    msg_t strict{};
    EXPECT_EQ(tlv_decode(&dMsg, &strict, TLV_MODE_T2_L2, in, &r, TLV_DECODE_STRICT), -1);
    EXPECT_EQ(r.error, TLV_ERR_UNEXPECTED);
    EXPECT_EQ(r.type, 99);
}

TEST(TlvWalker, EncoderNeverWritesPastItsSpanAndRefusesWhatTheWireCannotSay) {
    msg_t m = sample();
    Bytes whole = encode(&dMsg, &m, TLV_MODE_T2_L2);
    for (size_t room = 0; room < whole.size(); room++) {
        Bytes out(whole.size() + 8, 0xEE);
        tlv_result_t r{};
        ASSERT_EQ(tlv_encode(&dMsg, &m, TLV_MODE_T2_L2, std::span<uint8_t>(out.data(), room), &r), -1) << room;
        EXPECT_EQ(r.error, TLV_ERR_NO_ROOM);
        for (size_t i = room; i < out.size(); i++) ASSERT_EQ(out[i], 0xEE) << room;
    }
    std::vector<uint8_t> big(300, 1);
    msg_t l{};
    set(l.var, big.data(), 300);
    tlv_result_t r{};
    EXPECT_TRUE(encode(&dMsg, &l, TLV_MODE_T1_L1, &r).empty());
    EXPECT_EQ(r.error, TLV_ERR_TOO_LONG);
    l.var.len = 200;
    l.group.presence = 1;
    set(l.group.b[0], big.data(), 100);  // a group of 102 octets and a Var of 200 fit one-octet lengths
    EXPECT_FALSE(encode(&dMsg, &l, TLV_MODE_T1_L1, &r).empty());
    set(l.group.b[1], big.data(), 200);  // now the group holds more than 255
    EXPECT_TRUE(encode(&dMsg, &l, TLV_MODE_T1_L1, &r).empty());
    EXPECT_EQ(r.error, TLV_ERR_TOO_LONG);
    EXPECT_EQ(r.type, 200);
    msg_t f{};
    set(f.fixed, kAbc, 2);  // a fixed string of the wrong size
    EXPECT_TRUE(encode(&dMsg, &f, TLV_MODE_T2_L2, &r).empty());
    EXPECT_EQ(r.error, TLV_ERR_BAD_VALUE);
    EXPECT_EQ(tlv_encode(&dMsg, &f, 9, std::span<uint8_t>(), &r), -1);
    EXPECT_EQ(r.error, TLV_ERR_BAD_MODE);
}

// ---------------------------------------------------------------- type-value mode

// A protocol whose tags below 128 carry fixed values with no length (as GTPv1 does).
struct tv_msg_t {
    tlv_uint8_t cause;
    tlv_uint32_t teid;
    tlv_octet_t imsi;   // fixed 8
    tlv_octet_t apn;    // TLV
};
const tlv_desc_t tvCause = {TLV_UINT8, "Cause", 1, 1, 0, sizeof(tlv_uint8_t), nullptr, nullptr};
const tlv_desc_t tvTeid = {TLV_UINT32, "TEID", 16, 4, 0, sizeof(tlv_uint32_t), nullptr, nullptr};
const tlv_desc_t tvImsi = {TLV_FIXED_STR, "IMSI", 2, 8, 0, sizeof(tlv_octet_t), nullptr, nullptr};
const tlv_desc_t tvApn = {TLV_VAR_STR, "APN", 131, 0, 0, sizeof(tlv_octet_t), nullptr, nullptr};
const tlv_desc_t* const kTvKids[] = {&tvCause, &tvTeid, &tvImsi, &tvApn, nullptr};
const tlv_desc_t tvMsg = {TLV_MESSAGE, "TV", 0, 0, 0, sizeof(tv_msg_t), kTvKids, nullptr};

TEST(TlvWalker, TypeValueModeUsesFixedLengthsAndStopsAtAnUnknownTypeValue) {
    const uint8_t imsi[8] = {0x21, 0x43, 0x65, 0x87, 0x09, 0x21, 0x43, 0xf5};
    tv_msg_t m{};
    m.cause = {1, 128};
    m.teid = {1, 0xA1B2C3D4};
    set(m.imsi, imsi, 8);
    set(m.apn, kAbc, 3);
    Bytes got = encode(&tvMsg, &m, TLV_MODE_T1_TV_L2);
    EXPECT_EQ(got, hex("01 80  10 a1b2c3d4  02 21436587092143f5  83 0003 616263"));
    tv_msg_t back{};
    ASSERT_EQ(tlv_decode(&tvMsg, &back, TLV_MODE_T1_TV_L2, got), 1);
    EXPECT_EQ(back.teid.u32, 0xA1B2C3D4u);
    EXPECT_EQ(back.apn.len, 3u);
    // An unknown TV type carries no length: the walk ends there, keeping what it read.
    Bytes stop = hex("01 80  0e 05  10 a1b2c3d4");
    tv_msg_t s{};
    tlv_result_t r{};
    ASSERT_EQ(tlv_decode(&tvMsg, &s, TLV_MODE_T1_TV_L2, stop, &r), 1);
    EXPECT_EQ(r.stoppedAt, 3u);
    EXPECT_TRUE(s.cause.presence);
    EXPECT_FALSE(s.teid.presence);
    // A TV value cut short is an overrun like any other.
    EXPECT_EQ(tlv_decode(&tvMsg, &s, TLV_MODE_T1_TV_L2, hex("10 a1b2"), &r), -1);
    EXPECT_EQ(r.error, TLV_ERR_OVERRUN);
}

// ---------------------------------------------------------------- JSON form

TEST(TlvJson, RecordsGoToJsonAndBackToTheSameOctets) {
    msg_t m = sample();
    std::string j;
    tlv_json_record(&dMsg, &m, j);
    EXPECT_NE(j.find("\"u24\":66051"), std::string::npos) << j;
    EXPECT_NE(j.find("\"group\":{\"a\":85,\"b\":[\"616263\"]}"), std::string::npos) << j;
    EXPECT_NE(j.find("\"list\":[\"7879\",\"61\"]"), std::string::npos) << j;
    EXPECT_NE(j.find("\"null\":true"), std::string::npos) << j;
    json_error_t e;
    json_t* obj = json_loads(j.c_str(), 0, &e);
    ASSERT_NE(obj, nullptr) << j;
    msg_t back{};
    tlv_json_store store;
    std::string err;
    ASSERT_TRUE(tlv_json_load(&dMsg, &back, obj, store, err)) << err;
    json_decref(obj);
    EXPECT_EQ(encode(&dMsg, &back, TLV_MODE_T1_L2_I1), encode(&dMsg, &m, TLV_MODE_T1_L2_I1));

    const std::pair<const char*, const char*> bad[] = {
        {R"({"nope":1})", "nope is no field of Message"},
        {R"({"u8":256})", "u8 is out of range"},
        {R"({"group":{"b":["00","01","02"]}})", "group.b has more items"},
        {R"({"fixed":"6162"})", "fixed is not 3 octets"},
        {R"({"var":"6g"})", "var is not hexadecimal"},
        {R"({"list":"00"})", "list is not an array"},
    };
    for (auto [text, want] : bad) {
        SCOPED_TRACE(text);
        json_t* o = json_loads(text, 0, &e);
        msg_t r{};
        EXPECT_FALSE(tlv_json_load(&dMsg, &r, o, store, err));
        EXPECT_NE(err.find(want), std::string::npos) << err;
        json_decref(o);
    }
}

}  // namespace
