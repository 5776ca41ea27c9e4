// kestrane-pdu for Diameter from the outside: the JSON form to bytes that tshark reads and
// back to the same form, the text view with a dictionary, and clear refusals of bad input.
#include <sys/wait.h>

#include "diam_env.h"

namespace {

const std::string kTool = KS_PDU_TOOL;

int run(const std::string& cmd, std::string* out) {
    std::string path = ksd::root() + "/tool.out";
    int st = system((cmd + " >" + path + " 2>&1").c_str());
    *out = kst::readFile(path);
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

// An Update-Location-Request with a group, a vendor AVP, 64-bit and signed values.
const std::string kUlr = R"({"version":1,"flags":"RP","commandCode":316,"applicationId":16777251,"hopByHop":7,"endToEnd":9,)"
                         R"("avps":[{"code":263,"flags":"M","type":"OctetString","text":"ks;1;2"},)"
                         R"({"code":264,"flags":"M","type":"OctetString","text":"mme.ks.realm"},)"
                         R"({"code":296,"flags":"M","type":"OctetString","text":"ks.realm"},)"
                         R"({"code":283,"flags":"M","type":"OctetString","text":"hss.realm"},)"
                         R"({"code":260,"flags":"M","type":"Grouped","avps":[{"code":266,"flags":"M","type":"UInt32","value":10415},)"
                         R"({"code":258,"flags":"M","type":"UInt32","value":16777251}]},)"
                         R"({"code":277,"flags":"M","type":"UInt32","value":1},)"
                         R"({"code":1,"flags":"M","type":"OctetString","text":"001010123456789"},)"
                         R"({"code":1032,"vendorId":10415,"flags":"M","type":"UInt32","value":1004},)"
                         R"({"code":1405,"vendorId":10415,"flags":"M","type":"UInt32","value":34},)"
                         R"({"code":1407,"vendorId":10415,"flags":"M","type":"OctetString","hex":"00f110"}]})";

TEST(KestranePduDiameter, TheJsonFormEncodesToCleanBytesAndDecodesBackToItself) {
    std::string file = ksd::root() + "/ulr.json";
    kst::writeFile(file, kUlr);
    std::string hex, json, again;
    ASSERT_EQ(run(kTool + " encode diameter -f " + file, &hex), 0) << hex;
    hex = hex.substr(0, hex.find('\n'));
    std::string dict = std::string(" --dict ") + KS_SOURCE_DIR + "/config/resources/dictionary/diam.json ";
    ASSERT_EQ(run(kTool + " decode diameter --json" + dict + hex, &json), 0) << json;
    EXPECT_EQ(json, kUlr + "\n");
    ASSERT_EQ(run("echo '" + json.substr(0, json.size() - 1) + "' | " + kTool + " encode diameter -", &again), 0);
    EXPECT_EQ(again, hex + "\n");
    ASSERT_EQ(run(kTool + " recode diameter " + hex, &again), 0);
    EXPECT_EQ(again, hex + "\n");
    std::string text;
    ASSERT_EQ(run(kTool + " decode diameter" + dict + hex, &text), 0);
    EXPECT_NE(text.find("Diameter request 316 [RP] Application-Id 16777251 Hop-by-Hop 7 End-to-End 9"), std::string::npos) << text;
    EXPECT_NE(text.find("AVP 1405 ULR-Flags vendor 10415 [M] length 16 UInt32: 34"), std::string::npos) << text;
    EXPECT_NE(text.find("    AVP 258 Auth-Application-Id [M] length 12 UInt32: 16777251"), std::string::npos) << text;
    if (ksd::tsharkPresent()) {
        EXPECT_EQ(ksd::wsdecode("diameter " + hex), "");
    }
}

TEST(KestranePduDiameter, BadInputIsRefusedWithItsReason) {
    struct Case {
        std::string args;
        int rc;
        std::string expect;
    };
    const Case cases[] = {
        {"decode diameter 0100", 1, "message shorter than its header"},
        {"decode diameter 0x0100001c8000011000000000000000010000000100000107400000", 1, "not a multiple of 4"},
        {"decode diameter 0100001c800001100000000000000001000000010000010700000004", 1, "AVP length below 8"},
        {"decode diameter zz", 1, "not a hex digit"},
        {"encode diameter '{\"commandCode\":16777216}'", 1, "out of range"},
        {"encode diameter '{\"commandCode\":1,\"avps\":[{\"code\":1,\"type\":\"Float\"}]}'", 1, "unknown \"type\" Float"},
        {"encode diameter '{\"commandCode\":1,\"avps\":[{\"code\":1,\"hex\":\"abc\"}]}'", 1, "even number of hex digits"},
        {"encode diameter '{\"commandCode\":1,\"avps\":[{\"code\":268,\"value\":\"x\"}]}'", 1, "not a whole number"},
        {"encode diameter '[1]'", 1, "not a JSON object"},
        {"decode diameter --dict /nonexistent.json 01000014800001100000000000000001000000 01", 1, "Diameter Dictinory File Not Found"},
        {"encode ngap --dict x '{}'", 2, "usage"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        std::string out;
        EXPECT_EQ(run(kTool + " " + c.args, &out), c.rc);
        EXPECT_NE(out.find(c.expect), std::string::npos) << out;
    }
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new ksd::DiamEnv);
    return RUN_ALL_TESTS();
}
