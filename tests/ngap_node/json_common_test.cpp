// The JSON accessors at their edges: present zeros, missing members, the node's own value,
// hex text of every bad form, and copies that stop at the destination's end.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "json_common.h"
#include "ngap_test_env.h"

namespace {

struct Json {
    json_t* j;
    explicit Json(const char* text) : j(json_loads(text, 0, nullptr)) {}
    ~Json() { json_decref(j); }
};

TEST(JsonCommon, NumbersTellAPresentZeroFromAMissingMember) {
    Json doc(R"({"zero":0,"n":42,"neg":-7,"big":1099511627775,"real":3.9,"text":"5","null":null})");
    struct Case {
        const char* key;
        json_int_t one, two;  // __json__getnumber, __json__getnumber2 with default 99
        int hasTag;
    } cases[] = {
        {"zero", 0, 0, 1},   {"n", 42, 42, 1},   {"neg", -7, -7, 1}, {"big", 1099511627775, 1099511627775, 1},
        {"real", 3, 3, 1},   {"text", -1, 99, 1}, {"null", -1, 99, 1}, {"absent", -1, 99, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.key);
        EXPECT_EQ(__json__getnumber(doc.j, c.key), c.one);
        EXPECT_EQ(__json__getnumber2(doc.j, c.key, 99), c.two);
        int tag = -5;
        EXPECT_EQ(__json__getnumber3(doc.j, c.key, 99, &tag), c.two);
        EXPECT_EQ(tag, c.hasTag);
    }
    int tag = -5;
    EXPECT_EQ(__json__getnumber2(nullptr, "n", 12), 12);
    EXPECT_EQ(__json__getnumber3(nullptr, "n", 12, &tag), 12);
    EXPECT_EQ(tag, 0);
    EXPECT_EQ(__json__getnumber(nullptr, "n"), -1);
    EXPECT_EQ(__json__getnumber3(doc.j, "n", 12, nullptr), 42);
    json_t* own = json_integer(17);
    EXPECT_EQ(__json__getnumber(own, nullptr), 17) << "no key: the node's own value";
    EXPECT_EQ(__json__getnumber2(own, nullptr, 3), 17);
    json_decref(own);
}

TEST(JsonCommon, StringsAreTheNodesOwnText) {
    Json doc(R"({"name":"gnb-1","n":1,"empty":""})");
    const char* s = __json__getstring(doc.j, "name");
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "gnb-1");
    EXPECT_EQ(s, json_string_value(json_object_get(doc.j, "name"))) << "not a copy";
    EXPECT_STREQ(__json__getstring(doc.j, "empty"), "");
    EXPECT_EQ(__json__getstring(doc.j, "n"), nullptr);
    EXPECT_EQ(__json__getstring(doc.j, "absent"), nullptr);
    EXPECT_EQ(__json__getstring(nullptr, "name"), nullptr);
    EXPECT_STREQ(__json__getstring(json_object_get(doc.j, "name"), nullptr), "gnb-1");
}

TEST(JsonCommon, HexTextDecodesWithinItsDestinationOrNotAtAll) {
    Json doc(R"({"plmn":"02F839","mixed":"aBcD","empty":"","odd":"123","bad":"12G4","long":"0011223344","n":5})");
    struct Case {
        const char* key;
        int result;
        std::vector<uint8_t> bytes;
    } cases[] = {
        {"plmn", 1, {0x02, 0xF8, 0x39}},
        {"mixed", 1, {0xAB, 0xCD}},
        {"absent", -ENOENT, {}},
        {"empty", -1, {}},
        {"odd", -1, {}},
        {"bad", -1, {}},
        {"long", -1, {}},  // five octets, four of room
        {"n", -1, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.key);
        uint8_t out[6];
        memset(out, 0xEE, sizeof out);
        int len = -3;
        EXPECT_EQ(__json__hexstring(doc.j, c.key, out, &len, 4), c.result);
        if (c.result == 1) {
            EXPECT_EQ(len, int(c.bytes.size()));
            EXPECT_EQ(std::vector<uint8_t>(out, out + len), c.bytes);
            EXPECT_EQ(out[len], 0xEE);
        } else {
            EXPECT_EQ(len, -3);
            EXPECT_EQ(out[0], 0xEE) << "nothing written";
        }
    }
    uint8_t out[5];
    int len = 0;
    EXPECT_EQ(__json__hexstring(doc.j, "long", out, &len, 5), 1) << "exactly its room";
    EXPECT_EQ(len, 5);
    EXPECT_EQ(__json__hexstring(nullptr, "plmn", out, &len, 5), -ENOENT);
    EXPECT_NE(kng::commonLog().find("JSON KEY=bad is not hexadecimal text [12G4]"), std::string::npos);
}

TEST(JsonCommon, CopiesStopAtTheDestinationsEndWithANul) {
    Json doc(R"({"name":"abcdef","empty":"","n":3})");
    char dst[8];
    memset(dst, 'x', sizeof dst);
    EXPECT_EQ(__json__copystring(doc.j, "name", dst, 4), 3);
    EXPECT_STREQ(dst, "abc");
    EXPECT_EQ(dst[4], 'x') << "nothing past dstMaxLen";
    EXPECT_NE(kng::commonLog().find("JSON KEY=name text of 6 bytes cut to 3"), std::string::npos);
    EXPECT_EQ(__json__copystring(doc.j, "name", dst, 8), 6);
    EXPECT_STREQ(dst, "abcdef");
    EXPECT_EQ(__json__copystring(doc.j, "name", dst, 7), 6) << "text and NUL fit exactly";
    EXPECT_STREQ(dst, "abcdef");

    int len = -1;
    EXPECT_EQ(__json__copystring2(doc.j, "empty", dst, &len, 8), 0);
    EXPECT_EQ(len, 0);
    EXPECT_STREQ(dst, "");
    EXPECT_EQ(__json__copystring2(doc.j, "name", dst, &len, 3), 2);
    EXPECT_EQ(len, 2);
    EXPECT_STREQ(dst, "ab");

    strcpy(dst, "keep");
    testing::internal::CaptureStdout();
    EXPECT_EQ(__json__copystring(doc.j, "absent", dst, 8), -ENOENT);
    EXPECT_EQ(__json__copystring2(doc.j, "n", dst, &len, 8), -ENOENT);
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("JSON KEY=absent is NULL "), std::string::npos) << printed;
    EXPECT_STREQ(dst, "keep") << "a missing member leaves the destination as it was";
    EXPECT_EQ(len, 0);
    EXPECT_EQ(__json__copystring(doc.j, "name", dst, 0), -1);
    EXPECT_EQ(__json__copystring(doc.j, "name", nullptr, 8), -1);

    char field[4];
    memset(field, 'x', sizeof field);
    EXPECT_EQ(__json__copystring3("abcdef", field, 4), 4);
    EXPECT_EQ(std::string(field, 4), "abcd") << "a fixed field: no NUL";
    memset(field, 'x', sizeof field);
    EXPECT_EQ(__json__copystring3("ab", field, 4), 2);
    EXPECT_EQ(std::string(field, 4), "abxx");
    EXPECT_EQ(__json__copystring3(nullptr, field, 4), 0);
    EXPECT_EQ(std::string(field, 4), "abxx");
}

TEST(JsonCommon, ParsingReadsOnlyTheGivenLength) {
    json_error_t err;
    memset(&err, 0x5A, sizeof err);
    const char text[] = "{\"a\":1}garbage";
    json_t* j = __ctj(text, 7, &err);
    ASSERT_NE(j, nullptr);
    EXPECT_EQ(__json__getnumber(j, "a"), 1);
    EXPECT_EQ(err.text[0], 0) << "error cleared";
    json_decref(j);
    EXPECT_EQ(__ctj(text, sizeof text - 1, &err), nullptr);
    EXPECT_NE(err.text[0], 0);
    EXPECT_EQ(__ctj(nullptr, 3, &err), nullptr);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new kng::NgapEnv(false));
    return RUN_ALL_TESTS();
}
