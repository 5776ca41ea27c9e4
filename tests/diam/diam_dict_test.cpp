// The engine's dictionary file: its rules, its texts for bad files, the default file the
// engine ships, and the type table the engine gives the stack.
#include <fcntl.h>

#include <fstream>
#include <sstream>

#include "KsDiamDict.h"
#include "diam_env.h"

namespace {

// What a call prints on standard output.
template <class F>
std::string printed(F f) {
    std::string path = ksd::root() + "/stdout.txt";
    fflush(stdout);
    int saved = dup(1);
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    dup2(fd, 1);
    close(fd);
    f();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    return kst::readFile(path);
}

std::string file(const std::string& name, const std::string& text) {
    std::string p = ksd::root() + "/" + name;
    kst::writeFile(p, text);
    return p;
}

TEST(KsDiamDict, BadFilesPrintTheirLineAndLeaveTheTableAsItWas) {
    struct Case {
        const char* name;
        std::string path;
        const char* text;
    };
    const Case cases[] = {
        {"missing", ksd::root() + "/none.json", "Diameter Dictinory File Not Found at"},
        {"not JSON", file("broken.json", "[{\"ApplicationId\": 5,"), "Loading Diameter Dictinory Failed with error:["},
        {"not an array", file("object.json", "{\"ApplicationId\": 5}"), "Diameter Dictinory, diamDict is NOT an Array"},
        {"no AVPs", file("noavps.json", "[{\"ApplicationId\": 5}]"), "AVPs got NULL"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string out = printed([&] { KsDiamDict__LoadFile(c.path.c_str()); });
        EXPECT_NE(out.find(c.text), std::string::npos) << out;
    }
    EXPECT_EQ(KsDiamDict__FindAVP(5, 1, 0), nullptr);
}

TEST(KsDiamDict, EntriesAreKeptByApplicationAndVendorAndTheFirstForACodeWins) {
    std::string p = file("rules.json", R"([
      {"ApplicationId": 77, "AVPs": [
        {"Code": 0, "DataType": "UInt32"},
        {"Code": 10, "DataType": "Grouped"},
        {"Code": 11, "DataType": "Float32"},
        {"Code": 12},
        {"Code": 13, "VendorId": 10415, "Mandatory": 1, "DataType": "Int64", "Name": "vendor-13"},
        {"Code": 13, "DataType": "UInt64"},
        {"Code": 14, "DataType": "Int32"},
        {"Code": 14, "DataType": "OctetString"}
      ]},
      {"ApplicationId": 0, "AVPs": [{"Code": 20, "DataType": "UInt32"}]},
      {"ApplicationId": 78, "AVPs": [{"Code": 14, "DataType": "UInt32"}]},
      {"ApplicationId": 77, "AVPs": [{"Code": 14, "DataType": "Grouped"}, {"Code": 15, "DataType": "OctetString"}]},
      "not an object"
    ])");
    ASSERT_EQ(KsDiamDict__LoadFile(p.c_str()), 1);
    struct Want {
        uint32_t app, code, vendor, type;
    };
    const Want wants[] = {
        {77, 0, 0, 0},   {77, 10, 0, 6}, {77, 11, 0, 0},     {77, 12, 0, 0}, {77, 13, 10415, 3},
        {77, 13, 0, 5},  {77, 14, 0, 2}, {77, 15, 0, 1},     {78, 14, 0, 4}, {0, 20, 0, 0},
        {77, 13, 7, 0},  {79, 14, 0, 0},
    };
    for (const Want& w : wants) {
        SCOPED_TRACE(std::to_string(w.app) + "/" + std::to_string(w.code) + "/" + std::to_string(w.vendor));
        EXPECT_EQ(KsDiamDict__GetDataType(w.app, w.code, w.vendor), w.type);
    }
    const __mv_DictDiamAVP* e = KsDiamDict__FindAVP(77, 13, 10415);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->mandatory, 1u);
    EXPECT_STREQ(e->name, "vendor-13");
    EXPECT_EQ(KsDiamDict__TranslateDataType(nullptr), 0u);
    EXPECT_EQ(KsDiamDict__TranslateDataType("UInt32"), 4u);
    // A lookup makes the application and vendor it asked for.
    EXPECT_NE(KsDiamDict__FindDictDiamVendorId(KsDiamDict__getByApplicationId(79), 0), nullptr);
}

TEST(KsDiamDict, TheShippedDictionaryLoadsWholeAndAgreesWithTheStack) {
    std::string path = std::string(KS_SOURCE_DIR) + "/config/resources/dictionary/diam.json";
    json_error_t err;
    json_t* root = json_load_file(path.c_str(), 0, &err);
    ASSERT_NE(root, nullptr) << err.text;
    std::string out = printed([&] { EXPECT_EQ(KsDiamDict__LoadFile(path.c_str()), 1); });
    EXPECT_EQ(out, "");
    size_t i, j;
    json_t *app, *avp;
    int entries = 0;
    json_array_foreach(root, i, app) {
        uint32_t appId = uint32_t(json_integer_value(json_object_get(app, "ApplicationId")));
        json_array_foreach(json_object_get(app, "AVPs"), j, avp) {
            ++entries;
            uint32_t code = uint32_t(json_integer_value(json_object_get(avp, "Code")));
            uint32_t vendor = uint32_t(json_integer_value(json_object_get(avp, "VendorId")));
            const char* dt = json_string_value(json_object_get(avp, "DataType"));
            SCOPED_TRACE(std::to_string(appId) + "/" + std::to_string(code) + "/" + std::to_string(vendor));
            // Every entry names its type, so that the template engine's loader never carries one over.
            uint32_t type = KsDiamDict__TranslateDataType(dt);
            ASSERT_NE(type, 0u);
            EXPECT_EQ(KsDiamDict__FindAVP(appId, code, vendor)->dataType, type);
            // Where the stack types a code by itself, the file says the same (4-byte types alike).
            uint32_t stack = __mv_diam_get_data_type(code, appId);
            uint32_t stackVendor = code == 600 || code == 614 || code >= 1000 ? 10415u : 0u;
            if (stack != 1 && vendor == stackVendor) {
                EXPECT_EQ(stack == 2 ? 4u : stack, type == 2 ? 4u : type);
            }
        }
    }
    EXPECT_GT(entries, 500);
    // The engine's own table for received AVPs is in the file too.
    for (uint32_t app : {0x1000000u, 0x1000031u})
        for (uint32_t code : {607u, 612u, 613u})
            EXPECT_EQ(KsDiamDict__GetDataType(app, code, 10415), KsEngine__app_diam_dict_handler(code, app));
    EXPECT_EQ(KsDiamDict__GetDataType(0x1000023, 1413, 10415), 6u);
    EXPECT_EQ(KsDiamDict__GetDataType(0x1000023, 1414, 10415), 6u);
    json_decref(root);
}

std::atomic<int> s6aAnswers{0};
void onS6a(MV_DiamMessage* m) {
    ++s6aAnswers;
    __mv_diam_freeMessage2(m);
}

TEST(KsEngineDiamHandlers, ReceivedS6aVectorsDecodeAsGroupsAndMessagesGoToTheirApplication) {
    EXPECT_EQ(KsEngine__app_diam_dict_handler(613, 0x1000000), 4u);
    EXPECT_EQ(KsEngine__app_diam_dict_handler(1413, 0x1000000), 1u);
    EXPECT_EQ(KsEngine__app_diam_dict_handler(612, 16777238), 1u);
    KsDiamDict__RegisterHandlers();
    // An AIA with Authentication-Info holding an E-UTRAN-Vector.
    ksd::Bytes vec;
    vec.avp(1447, 0xC0, std::vector<uint8_t>(16, 1), 10415).avp(1448, 0xC0, std::vector<uint8_t>(8, 2), 10415);
    ksd::Bytes info;
    info.avp(1414, 0xC0, vec.b, 10415);
    auto aia = ksd::Bytes::header(0x40, 318, 0x1000023, 1, 2)
                   .avp(268, 0x40, ksd::u32v(2001))
                   .avp(1413, 0xC0, info.b, 10415)
                   .done();
    MV_DiamDecodeStatus st{};
    MV_DiamMessage* m = __mv_diam_decodeMessage(aia, &st);
    ASSERT_EQ(st.Code, 0u);
    MV_DiamAvp* ai = __mv_diam_find_avp(1413, 0, m);
    ASSERT_EQ(ai->DataType, MV_DIAM_TYPE_GROUPED);
    MV_DiamAvp* ev = __mv_diam_find_avp_in_group(1414, 0, ai);
    ASSERT_NE(ev, nullptr);
    EXPECT_EQ(__mv_diam_find_avp_in_group(1448, 0, ev)->usInt64Val, 8u);
    __mv_diam_register_app_handler(0x1000023, onS6a);
    KsEngine__diam_message_handler(m);
    EXPECT_EQ(s6aAnswers.load(), 1);
    __mv_diam_set_dict_post_handler(nullptr);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new ksd::DiamEnv);
    return RUN_ALL_TESTS();
}
