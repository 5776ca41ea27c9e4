// Byte buffers, digit and hexadecimal text, names on the wire, IP text and strings.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "mv_alloc.h"
#include "mv_bytes.h"
#include "mv_pool.h"

namespace {

std::vector<uint8_t> bytes(std::initializer_list<int> l) {
    std::vector<uint8_t> v;
    for (int x : l) v.push_back(uint8_t(x));
    return v;
}

TEST(Bcd, TelephoneDigitForms) {
    struct Case {
        const char* digits;
        int oddEven;  // -1: __mv_convertStrToBCD
        std::vector<uint8_t> out;
    };
    const Case cases[] = {
        {"12345", -1, bytes({0x21, 0x43, 0xF5})},
        {"1234", -1, bytes({0x21, 0x43})},
        {"", -1, {}},
        {"12345", 0, bytes({0x12, 0x34, 0x5F})},
        {"12345", 1, bytes({0x19, 0x32, 0x54})},  // flags 0x9 kept in the first low nibble
        {"1234", 1, bytes({0x19, 0x32, 0xF4})},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.digits) + " form " + std::to_string(c.oddEven));
        uint8_t out[8] = {0x09, 0, 0, 0, 0, 0, 0, 0};
        int len = -1;
        if (c.oddEven < 0) ASSERT_EQ(__mv_convertStrToBCD(c.digits, int(strlen(c.digits)), out, &len), 1);
        else ASSERT_EQ(__mv_convertStringToBCD(c.digits, int(strlen(c.digits)), out, &len, c.oddEven), 1);
        ASSERT_EQ(len, int(c.out.size()));
        EXPECT_EQ(std::vector<uint8_t>(out, out + len), c.out);
    }
    uint8_t out[12];
    int len = 0;
    __mv_convertLongToBCD2(123, out, &len);
    EXPECT_EQ(std::vector<uint8_t>(out, out + len), bytes({0x21, 0xF3}));
    char text[16];
    EXPECT_EQ(__mv_buffer_to_bcd(out, len, text), 3);
    EXPECT_STREQ(text, "123");
    EXPECT_EQ(__mv_convertBCDToStr(bytes({0x21, 0xF3}).data(), 2, text, sizeof text), 3);
    EXPECT_STREQ(text, "123");
    EXPECT_EQ(__mv_convertBCDToStr(bytes({0x21, 0x43}).data(), 2, text, 3), 2) << "room for two and the terminator";
    EXPECT_STREQ(text, "12");
}

TEST(Hex, TextToBytesAndBack) {
    uint8_t out[8] = {};
    EXPECT_EQ(__mv_ascii_to_hex("0a B1\tff", 8, out, 8), 3);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 3), bytes({0x0A, 0xB1, 0xFF}));
    EXPECT_EQ(__mv_ascii_to_hex("001122", 6, out, 2), 2) << "stops at out_len";
    EXPECT_EQ(__mv_ascii_to_hex("abc", 3, out, 8), 2) << "a lone digit fills a high nibble";
    EXPECT_EQ(out[1], 0xC0);
    EXPECT_EQ(__mv_ascii_to_hex("12zz34", 6, out, 8), 1) << "stops at a foreign character";

    char text[8];
    EXPECT_EQ(__mv_hex_to_ascii(bytes({0xAB, 0x01, 0xFF}).data(), 3, text, 6), 4) << "room for two bytes only";
    EXPECT_STREQ(text, "ab01");
    char up[8];
    EXPECT_EQ(__mv_conver_hex_to_hexstr(up, bytes({0xAB, 0x01}).data(), 2), 2);
    EXPECT_STREQ(up, "AB01");
    EXPECT_EQ(__mv_conver_str_to_hex(out, "a1b2c"), 3);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 3), bytes({0xA1, 0xB2, 0x0C})) << "a lone last digit stands for itself";

    uint8_t plmn[3] = {1, 2, 3};
    EXPECT_EQ(__mv_str_to_plmn("00F110", plmn), 1);
    EXPECT_EQ(std::vector<uint8_t>(plmn, plmn + 3), bytes({0x00, 0xF1, 0x10}));
    char ps[7];
    __mv_plmn_to_str(ps, plmn);
    EXPECT_STREQ(ps, "00F110");
    EXPECT_EQ(__mv_str_to_plmn("00F1", plmn), 0) << "short text reads nothing past its end";
    EXPECT_EQ(plmn[2], 0x10);
}

TEST(WireNames, ApnLabelsBothWays) {
    uint8_t apn[32];
    EXPECT_EQ(__mv_build__apn(apn, "internet.mnc", 12), 13);
    EXPECT_EQ(std::vector<uint8_t>(apn, apn + 13), bytes({8, 'i', 'n', 't', 'e', 'r', 'n', 'e', 't', 3, 'm', 'n', 'c'}));
    char text[32];
    EXPECT_EQ(__mv_build__parse(text, apn, 13), 12);
    EXPECT_STREQ(text, "internet.mnc");
    EXPECT_EQ(__mv_build__parse(text, apn, 12), -EINVAL) << "the last label runs past the length";
    EXPECT_EQ(__mv_build__parse(text, bytes({9, 'a'}).data(), 2), -EINVAL);
}

TEST(IpText, VersionAndConversion) {
    struct Case {
        const char* text;
        int version;
    };
    const Case cases[] = {{"10.0.0.1", 4}, {"::1", 6}, {"fe80::1", 6}, {"localhost", -1}, {".x", -1}, {"", -1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(__mv_ip_get_version(c.text), c.version);
    }
    uint32_t ip = __mv_core_convert_ipv4toint("192.168.1.20");
    char out[16];
    __mv_core_convert_inttoipv4_2(ip, out);
    EXPECT_STREQ(out, "192.168.1.20");
    EXPECT_STREQ(__mv_core_convert_inttoipv4(ip), "192.168.1.20");
}

TEST(FixedWriters, BigEndianAndHalfByteForms) {
    uint8_t b[8] = {};
    __mv_encode_uint64_to5bytes(b, 0x1122334455ULL);
    EXPECT_EQ(__mv_get_u40(b), 0x1122334455ULL);
    __mv_encode_uint32_to3bytes(b, 0xABCDEF);
    EXPECT_EQ(__mv_get_u24(b), 0xABCDEFu);
    uint8_t h[5] = {0xA0, 0, 0, 0, 0x0B};
    __mv_encode_uint32_to45bytes(h, 0x12345678);
    EXPECT_EQ(std::vector<uint8_t>(h, h + 5), bytes({0xA1, 0x23, 0x45, 0x67, 0x8B})) << "outer nibbles kept";
    EXPECT_EQ(__mv_get_u36(h), 0x12345678u);
    uint8_t t[4] = {};
    __mv_encode_uint32_to35bytes(t, 0xABCDEF);
    EXPECT_EQ(std::vector<uint8_t>(t, t + 4), bytes({0x0A, 0xBC, 0xDE, 0xF0}));
    uint32_t v = 0x0102;
    __mv_encodeIntTo2Bytes(&v, b);
    EXPECT_EQ(__mv_get_u16(b), 0x0102);
    uint32_t back = 0;
    __mv_encode_uint32_to4bytes(b + 1, 0xDEADBEEF);
    EXPECT_EQ(__mv_decodeIntValueFrom4Bytes(&back, b, 1), 0xDEADBEEFu);
    uint8_t bit = 9;
    EXPECT_EQ(__mv_decodeBitVal(&bit, b, 1, 0), 0);  // 0xDE
    EXPECT_EQ(__mv_decodeBitVal(&bit, b, 1, 7), 1);
    uint16_t u = 0;
    __mv_bit__U16_setbit(&u, 15);
    __mv_bit__U16_setbit(&u, 16);
    EXPECT_EQ(u, 0x8000);
    EXPECT_EQ(__mv_bit__U16_isbitset(u, 15), 1);
    EXPECT_EQ(__mv_bit__U16_isbitset(u, 0), 0);
}

TEST(ByteBuffer, WritesReadsAndHeadRoom) {
    __mv_buff_t* b = __mv_buff__alloc(64);
    ASSERT_NE(b, nullptr);
    ASSERT_EQ(__mv_buff__reserve(b, 16), 1);
    EXPECT_EQ(__mv_buff__enc_uint16(b, 0x0102), 1);
    EXPECT_EQ(__mv_buff__enc_uint32(b, 0x03040506), 1);
    EXPECT_EQ(__mv_buff__get_len(b), 6);
    ASSERT_EQ(__mv_buff__pull(b, 8, 1), 1);
    EXPECT_EQ(b->len, 14u) << "the pulled header counts in the length";
    EXPECT_EQ(__mv_buff__enc_at_uint8(0, b, 0x20), 1);
    EXPECT_EQ(__mv_buff__get_datapointer(b)[0], 0x20);
    EXPECT_EQ(__mv_buff__get_datapointer(b)[8], 0x01);
    EXPECT_EQ(__mv_buff__pull(b, 9, 0), 0) << "never in front of the memory";
    __mv_buff__free(b);

    uint8_t wire[5] = {0x00, 0x07, 0xAA, 0xBB, 0xCC};
    __mv_buff_t* r = __mv_buff__alloc2(wire, sizeof wire);
    uint16_t v16 = 0;
    uint32_t v32 = 0;
    uint8_t v8 = 0;
    EXPECT_EQ(__mv_buff__dec_uint16(r, &v16), 1);
    EXPECT_EQ(v16, 7);
    EXPECT_EQ(__mv_buff__dec_uint32(r, &v32), 0) << "three bytes left";
    EXPECT_EQ(r->pos, 2u);
    EXPECT_EQ(__mv_buff__dec_uint8(r, &v8), 1);
    EXPECT_EQ(v8, 0xAA);
    EXPECT_EQ(__mv_buff__enc_at_uint32(2, r, 1), 0) << "past the end of external memory";
    __mv_buff__free(r);
}

TEST(Strings, FixedSetsAndGrowingText) {
    __mv_string5_t s5{};
    EXPECT_EQ(__mv_string5_set(&s5, "abcde", 5), 1);
    EXPECT_STREQ(reinterpret_cast<char*>(s5.val), "abcde");
    EXPECT_EQ(s5.isset, 1);
    EXPECT_EQ(__mv_string5_set(&s5, "abcdef", 6), -1);
    EXPECT_EQ(s5.len, 5) << "a refused set changes nothing";
    __mv_string200_t s200{};
    EXPECT_EQ(__mv_string200_set(&s200, "", 0), 1);
    EXPECT_EQ(s200.isset, 1) << "present but empty";

    __mv_stringv_t v{};
    ASSERT_EQ(__mv_stringv_init(&v, 8), 1);
    EXPECT_EQ(__mv_stringv_append(&v, "abc", 3), 1);
    EXPECT_EQ(__mv_stringv_appendline(&v, "%d", 1234), 1);
    EXPECT_EQ(__mv_stringv_append(&v, "x", 1), 0) << "text that would reach len is dropped";
    EXPECT_STREQ(reinterpret_cast<char*>(v.val), "abc1234");
    __mv_stringv_put(&v);
    EXPECT_EQ(v.isset, 0);
    EXPECT_EQ(__mv_stringv_set(&v, "hello", 5), 1);
    EXPECT_EQ(v.vType, 'd');
    __mv_stringv_put(&v);
}

TEST(Strings, CompareSearchAndSplit) {
    struct Cmp {
        const char *a, *b;
        int len, want;
    };
    const Cmp cmps[] = {{nullptr, "a", 1, -1},     {"a", nullptr, 1, -ENOENT}, {"ab", "ab", 3, -ESRCH},
                        {"abc", "ab", 3, -EINTR},  {"abc", "abc", 3, 0}};
    for (const Cmp& c : cmps) EXPECT_EQ(__mv_memcmp(c.a, c.b, c.len), c.want);
    EXPECT_EQ(__mv_memcmp2("abc", 0, "abc", 3), 0);
    EXPECT_EQ(__mv_memcmp2("abc", 0, "abd", 0), -1);
    EXPECT_EQ(__mv_memcmp2("abc", 0, "ab", 0), -EINTR);
    EXPECT_EQ(__mv_memcmp2("", 0, "ab", 0), -ESRCH);
    EXPECT_EQ(__mv_memcmp2("a", 0, nullptr, 0), -ENOENT);

    EXPECT_EQ(__mv_indexOf("a=b=c", 5, '='), 1);
    EXPECT_EQ(__mv_lastIndexOf("a=b=c", 5, '='), 3);
    EXPECT_EQ(__mv_indexOf2("xx\r\nyy", 6, "\r\n"), 2);
    EXPECT_EQ(__mv_indexOf3("abcabc", 6, "ca", 2), 2);
    EXPECT_EQ(__mv_indexOf3("ab", 2, "ab", 2), -1) << "needs data longer than what it finds";
    EXPECT_EQ(__mv_indexOf4("hello", "llo"), 2);

    char dst[4];
    EXPECT_EQ(__mv_memcpy(dst, 4, "abcdef", 0), 3) << "the terminator keeps its byte";
    EXPECT_STREQ(dst, "abc");

    struct Split {
        const char* text;
        const char* sep;
        std::vector<std::string> pieces;
    };
    const Split splits[] = {
        {"a,,bb,ccc", ",", {"a", "bb", "ccc"}},
        {"a,b,c", ",", {"a", "b"}},  // a last piece no longer than the separator is dropped
        {"k1::k2::", "::", {"k1", "k2"}},
        {",,,", ",", {}},
    };
    for (const Split& s : splits) {
        SCOPED_TRACE(s.text);
        MV_LinkedList* l = __mv_string_split(s.text, int(strlen(s.text)), s.sep);
        std::vector<std::string> got;
        while (auto* p = static_cast<__mv_stringv_t*>(__mv_linked_list_pop(l))) {
            got.emplace_back(reinterpret_cast<char*>(p->val), p->len);
            __mv_stringv_put(p);
            __mv_freeM(p);
        }
        __mv_linked_list_release(l);
        EXPECT_EQ(got, s.pieces);
    }

    char key[16], value[16];
    EXPECT_EQ(__mv_fill_KeyValPair("name=kes", 8, '=', key, value), 1);
    EXPECT_STREQ(key, "name");
    EXPECT_STREQ(value, "kes");
    char ext[10] = "none";
    int extLen = 0;
    __mv_file__get_extension("a.verylongext", ext, &extLen);
    EXPECT_STREQ(ext, "none");
    __mv_file__get_extension("dir/file.json", ext, &extLen);
    EXPECT_STREQ(ext, "json");
    EXPECT_EQ(extLen, 4);
}

TEST(Base64, StandardAlphabetWithPadding) {
    const std::string plain = "Aladdin:open sesame";
    std::vector<char> enc(size_t(Base64encode_len(int(plain.size()))));
    int n = Base64encode(enc.data(), plain.data(), int(plain.size()));
    EXPECT_STREQ(enc.data(), "QWxhZGRpbjpvcGVuIHNlc2FtZQ==");
    EXPECT_EQ(n, int(strlen(enc.data())) + 1);
    std::vector<char> dec(size_t(Base64decode_len(enc.data())));
    EXPECT_EQ(Base64decode(dec.data(), enc.data()), int(plain.size()));
    EXPECT_EQ(std::string(dec.data()), plain);
    char out[8];
    EXPECT_EQ(Base64decode(out, "YWI"), 2) << "unpadded input";
    EXPECT_STREQ(out, "ab");
}

}  // namespace
