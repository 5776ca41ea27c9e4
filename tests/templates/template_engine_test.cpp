// The template engine on its own: directories of template and dictionary files loaded
// into the tree, what is refused or skipped and the line that says so, the lookups, the
// NAS indexing, and a file of ten megabytes.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "KsTemplateEng.h"
#include "ks_test_util.h"

namespace {

// Loads the given files ("templates/..." and "dictionary/..." of a scratch directory)
// into a fresh tree and keeps what start-up printed.
struct Loaded {
    Loaded(std::initializer_list<std::pair<const std::string, std::string>> files) {
        KsTemplateEng___Reset();
        dir = kst::makeTempDir("tpl");
        for (const auto& [name, text] : files) kst::writeFile(dir + "/" + name, text);
        testing::internal::CaptureStdout();
        rc = KsTemplateEng__InitFrom((dir + "/templates").c_str(), (dir + "/dictionary").c_str());
        out = testing::internal::GetCapturedStdout();
    }
    ~Loaded() {
        KsTemplateEng___Reset();
        kst::removeTree(dir);
    }
    bool said(const std::string& text) const { return out.find(text) != std::string::npos; }

    std::string dir, out;
    int rc = -1;
};

std::vector<const MV_Element*> elementsOf(const MV_Element* first) {
    std::vector<const MV_Element*> v;
    for (const MV_Element* e = first; e; e = KsTemplateEng__NextIterator(e)) v.push_back(e);
    return v;
}
std::vector<const MV_Element*> elementsOf(const MV_Template* t) { return elementsOf(KsTemplateEng__BeginIterator(t)); }

std::string infoOf(const char* type, const char* type2 = nullptr, int cap = 8192) {
    std::vector<char> buf(size_t(cap) + 1, 0);
    int len = 0;
    if (type2) KsTemplateEng__GetTemplateInfo2(buf.data(), &len, cap, type, type2);
    else KsTemplateEng__GetTemplateInfo(buf.data(), &len, cap, type);
    EXPECT_EQ(size_t(len), strlen(buf.data()));
    return std::string(buf.data(), size_t(len));
}

const std::string kEveryType = R"([
 {"Type": "NAS5G", "Templates": [{"Name": "reg", "MessageType": 65, "Elements": [
   {"ID": "ngKSI", "Name": "not kept"},
   {"ID": "10", "ValueType": "default"},
   {"ID": "2E", "ValueType": "System"},
   {"ID": "2F", "ValueType": "Hex", "Value": "04010A0b0c"},
   {"ID": "52", "ValueType": "Int", "Value": -7},
   {"ID": "17", "ValueType": "String", "Value": "abc"},
   {"ID": "40", "ValueType": "Json", "Value": {"a": [1, 2]}},
   {"ID": "50", "ValueType": "Other", "Value": 9},
   {"ID": "B-", "ValueType": "UEProperty", "Enabled": 2},
   {"ID": "2B", "Enabled": 0},
   {"ID": 7, "ValueType": "Int", "Value": 5},
   {"Name": "no ID at all", "ValueType": "UEProperty"}]}]},
 {"Type": "NGAP", "Templates": [{"Name": "init", "ProcedureCode": 15, "ProtocolIEs": [
   {"ID": 85, "ValueType": "UEProperty"}, {"ID": 38, "ValueType": "Hex", "Value": "7e00"}]}]},
 {"Type": "PFCP", "Templates": [{"Name": "est", "MessageType": 50, "Elements": [
   {"IEType": 1, "IEName": "Create PDR and a name far longer than forty-nine characters", "ValueType": "System",
    "InstanceId": 2, "Enabled": 2, "Elements": [
      {"IEType": 56, "IEName": "PDR ID", "ValueType": "Int", "Value": 1},
      {"IEType": 21, "Enabled": 0, "Elements": [{"IEType": 99}]},
      {"IEType": 20, "Elements": [{"IEType": 42, "ValueType": "Hex", "Value": "0a"}]}]},
   {"IEType": 60, "ValueType": "default"}]}]},
 {"Type": "PGW", "Templates": [{"Name": "csr", "MessageType": 32, "Elements": [
   {"IEType": 1, "ValueType": "Json", "Value": [1]}]}]},
 {"Type": "GGSN", "Templates": [{"Name": "cpdp", "MessageType": 16, "Elements": [
   {"IEType": 2, "ValueType": "String", "Value": "x"}]}]},
 {"Type": "HSS", "Templates": [
   {"Name": "HSS-S6a-ulr", "ApplicationId": 16777251, "CmdCode": 316, "AVPs": [
     {"Code": 263, "Name": "Session-Id", "ValueType": "System", "Mandatory": 1},
     {"Code": 1400, "VendorId": 10415, "Mandatory": 1, "Enabled": 2,
      "Name": "Subscription-Data, with a name that runs on and on beyond the ninety-nine characters an element keeps",
      "AVPs": [{"Code": 1424, "ValueType": "Int", "Value": 0, "VendorId": 10415}]}]},
   {"Name": "HSS-S6a-off", "CmdCode": 318, "Enabled": 0, "AVPs": [{"Code": 1}]},
   {"Name": "HSS-Cx-uar", "CmdCode": 300, "AVPs": [{"Code": 1}]}]},
 {"Type": "AAA", "Templates": [{"Name": "AAA-SWm-der", "CmdCode": 268, "AVPs": [{"Code": 462, "ValueType": "Hex", "Value": ""}]}]},
 {"Type": "PCRF", "Templates": [{"Name": "PCRF-Gx-ccr", "CmdCode": 272, "AVPs": [{"Code": 416, "ValueType": "Int", "Value": 1}]}]},
 {"Type": "CHF", "Templates": [{"Name": "CHF-Ro-ccr", "CmdCode": 272, "AVPs": [{"Code": 461, "ValueType": "String", "Value": "c"}]}]},
 {"Type": "NAS4G", "Templates": [{"Name": "attach"}]},
 {"Type": "S1AP", "Templates": [{"Name": "setup"}]}
])";

TEST(TemplateTree, EveryValueTypeAndBuilderLoadsIntoTheTree) {
    Loaded l({{"templates/all.json", kEveryType}});
    ASSERT_EQ(l.rc, 1) << l.out;
    EXPECT_FALSE(l.said("skipped")) << l.out;
    EXPECT_FALSE(l.said("Invalid Template Type")) << "NAS4G and S1AP pass in silence: " << l.out;

    std::vector<std::string> ifaces;
    for (const char* n : {"NAS5G", "NGAP", "PFCP", "PGW", "GGSN", "HSS", "AAA", "PCRF", "CHF"})
        EXPECT_NE(KsTemplateEng__FindInterface(n)->templateHead.load(), nullptr) << n;

    auto nas = elementsOf(KsTemplateEng__FindTemplate("reg", "NAS5G", 0));
    ASSERT_EQ(nas.size(), 10u) << "Enabled 2 and 0 are off in a NAS template";
    struct Want {
        const char* id;
        int32_t num;
        uint32_t type;
        int64_t intVal;
        const char* str;
    };
    const Want want[] = {
        {"ngKSI", 1, KsTMT__VALUE_TYPE__DEFAULT_0, 0, nullptr}, {"10", 1, KsTMT__VALUE_TYPE__UEProperty, 0, nullptr},
        {"2E", 1, KsTMT__VALUE_TYPE__UEProperty, 0, nullptr},   {"2F", 1, KsTMT__VALUE_TYPE__Hex, 10, "04010A0b0c"},
        {"52", 1, KsTMT__VALUE_TYPE__INT, -7, nullptr},         {"17", 1, KsTMT__VALUE_TYPE__String, 3, "abc"},
        {"40", 1, KsTMT__VALUE_TYPE__JSon, 0, nullptr},         {"50", 1, KsTMT__VALUE_TYPE__DEFAULT, 0, nullptr},
        {"", 7, KsTMT__VALUE_TYPE__INT, 5, nullptr},            {"", 1, KsTMT__VALUE_TYPE__UEProperty, 0, nullptr},
    };
    for (size_t i = 0; i < nas.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_STREQ(KsTemplateEng__GetName(nas[i]), want[i].id);
        EXPECT_EQ(KsTemplateEng__GetID(nas[i]), want[i].num);
        EXPECT_EQ(KsTemplateEng__GetValueType(nas[i]), want[i].type);
        EXPECT_EQ(KsTemplateEng__GetIntValue(nas[i]), want[i].intVal);
        if (want[i].str) {
            EXPECT_STREQ(KsTemplateEng__GetStrValue(nas[i]), want[i].str);
        }
        EXPECT_EQ(KsTemplateEng__GetChildElement(nas[i]), nullptr) << "NAS templates are flat";
    }
    json_t* j = KsTemplateEng__GetJsonValue(nas[6]);
    ASSERT_TRUE(json_is_object(j)) << "the document goes, the value stays";
    EXPECT_EQ(json_array_size(json_object_get(j, "a")), 2u);
    EXPECT_EQ(json_integer_value(KsTemplateEng__GetJsonValue(nas[7])), 9) << "every element keeps its Value";
    uint8_t bytes[8];
    ASSERT_EQ(KsTemplateEng__GetHexValue(nas[3], bytes, sizeof bytes), 5);
    EXPECT_EQ(memcmp(bytes, "\x04\x01\x0a\x0b\x0c", 5), 0);
    EXPECT_EQ(KsTemplateEng__GetHexValue(nas[3], bytes, 4), -1) << "more bytes than room";
    EXPECT_EQ(KsTemplateEng__GetHexValue(nas[4], bytes, sizeof bytes), -1) << "not a Hex element";

    auto ngap = elementsOf(KsTemplateEng__FindTemplate("init", "NGAP", 0));
    ASSERT_EQ(ngap.size(), 2u);
    EXPECT_EQ(KsTemplateEng__GetID(ngap[0]), 85);
    EXPECT_EQ(KsTemplateEng__GetStrLen(ngap[1]), 4);

    const MV_Template* est = KsTemplateEng__FindTemplate("est", "PFCP", 0);
    auto pfcp = elementsOf(est);
    ASSERT_EQ(pfcp.size(), 2u);
    EXPECT_EQ(strlen(KsTemplateEng__GetName(pfcp[0])), 49u) << "an IE name is cut at 49 characters";
    EXPECT_EQ(KsTemplateEng__GetValueType(pfcp[0]), uint32_t(KsTMT__VALUE_TYPE__DEFAULT)) << "System is the engine's default";
    EXPECT_EQ(KsTemplateEng__InstanceId(pfcp[0]), 2u);
    EXPECT_EQ(KsTemplateEng__GetValueType(pfcp[1]), uint32_t(KsTMT__VALUE_TYPE__DEFAULT));
    auto pdr = elementsOf(KsTemplateEng__GetChildElement(pfcp[0]));
    ASSERT_EQ(pdr.size(), 2u) << "Enabled 0 drops an IE with its children";
    EXPECT_EQ(KsTemplateEng__GetID(pdr[0]), 56);
    EXPECT_EQ(KsTemplateEng__GetIntValue(pdr[0]), 1);
    auto far = elementsOf(KsTemplateEng__GetChildElement(pdr[1]));
    ASSERT_EQ(far.size(), 1u);
    EXPECT_EQ(KsTemplateEng__GetID(far[0]), 42);

    auto pgw = elementsOf(KsTemplateEng__FindTemplate("csr", "PGW", 0));
    ASSERT_EQ(pgw.size(), 1u);
    EXPECT_TRUE(json_is_array(KsTemplateEng__GetJsonValue(pgw[0])));
    EXPECT_STREQ(KsTemplateEng__GetStrValue(elementsOf(KsTemplateEng__FindTemplate("cpdp", "GGSN", 0))[0]), "x");

    auto hss = elementsOf(KsTemplateEng__FindTemplate("HSS-S6a-ulr", "HSS", 0));
    ASSERT_EQ(hss.size(), 2u);
    EXPECT_EQ(KsTemplateEng__GetValueType(hss[0]), uint32_t(KsTMT__VALUE_TYPE__DEFAULT)) << "System in Diameter";
    EXPECT_EQ(KsTemplateEng__GetMandatory(hss[0]), 1u);
    EXPECT_EQ(KsTemplateEng__GetVendorId(hss[1]), 10415u) << "Enabled 2 keeps an AVP";
    EXPECT_EQ(strlen(KsTemplateEng__GetName(hss[1])), 99u);
    auto sub = elementsOf(KsTemplateEng__GetChildElement(hss[1]));
    ASSERT_EQ(sub.size(), 1u);
    EXPECT_EQ(KsTemplateEng__GetID(sub[0]), 1424);
    EXPECT_EQ(KsTemplateEng__FindTemplate("HSS-S6a-off", "HSS", 0), nullptr) << "a Diameter template with Enabled 0";
    EXPECT_EQ(KsTemplateEng__GetStrLen(elementsOf(KsTemplateEng__FindTemplate("AAA-SWm-der", "AAA", 0))[0]), 0);
    EXPECT_EQ(KsTemplateEng__FindTemplate("PCRF-Gx-ccr", "PCRF", 0)->MessageType, 272u);
    EXPECT_NE(KsTemplateEng__FindTemplate("CHF-Ro-ccr", "CHF", 0), nullptr);
}

TEST(TemplateTree, LookupsFindWhatTheyShouldAndNothingElse) {
    Loaded l({{"templates/all.json", kEveryType},
              {"templates/more.json", R"({"Type": "NAS5G", "Templates": [
                 {"Name": "est", "MessageType": 193, "Elements": [{"ID": "9-"}]}]})"}});
    ASSERT_EQ(l.rc, 1) << l.out;
    const MV_Template* reg = KsTemplateEng__FindTemplate("reg", "NAS5G", 0);
    ASSERT_NE(reg, nullptr);
    EXPECT_EQ(KsTemplateEng__FindTemplateByMessageId("reg", "NAS5G", 65), reg);
    EXPECT_EQ(KsTemplateEng__FindTemplateByMessageId2("reg", "NAS5G", 3, 65), reg) << "the sub type takes no part";
    const struct {
        const char* name;
        const char* iface;
        uint32_t message;
    } none[] = {{"reg", "NAS5G", 66}, {"reg", "NGAP", 65},   {"Reg", "NAS5G", 65}, {"", "NAS5G", 65},
                {nullptr, "NAS5G", 65}, {"reg", nullptr, 65}, {"re", "NAS5G", 65}, {"init", "NGAP", 46}};
    for (const auto& n : none) {
        SCOPED_TRACE(std::string(n.name ? n.name : "(null)") + " in " + (n.iface ? n.iface : "(null)"));
        EXPECT_EQ(KsTemplateEng__FindTemplateByMessageId(n.name, n.iface, n.message), nullptr);
    }
    // One name in two interfaces is two templates.
    const MV_Template* nasEst = KsTemplateEng__FindTemplateByMessageId("est", "NAS5G", 193);
    const MV_Template* pfcpEst = KsTemplateEng__FindTemplateByMessageId("est", "PFCP", 50);
    ASSERT_NE(nasEst, nullptr);
    ASSERT_NE(pfcpEst, nullptr);
    EXPECT_NE(nasEst, pfcpEst);

    EXPECT_STREQ(KsTemplateEng__GetTemplateName(reg), "reg");
    EXPECT_STREQ(KsTemplateEng__GetTemplateName(nullptr), "-");
    EXPECT_EQ(KsTemplateEng__FindTemplate("fresh", "NAS5G", 0), nullptr);
    MV_Template* fresh = KsTemplateEng__FindTemplate("fresh", "NAS5G", 1);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(KsTemplateEng__FindTemplate("fresh", "NAS5G", 1), fresh);
    MV_TemplateInterface* x = KsTemplateEng__FindInterface("X");
    ASSERT_NE(x, nullptr);
    EXPECT_EQ(KsTemplateEng__FindInterface("X"), x);
    EXPECT_EQ(x->templateHead.load(), nullptr);

    __mv_template_list list{};
    EXPECT_EQ(KsTemplateEng__CollectTemplates("NAS5G", nullptr, &list), 3u);
    EXPECT_EQ(KsTemplateEng__CollectTemplates("HSS", "HSS-Cx", &list), 1u);
    ASSERT_EQ(list.Count, 4u);
    EXPECT_EQ(list.templates[0], reg) << "load order";
    EXPECT_EQ(list.templates[1], nasEst);
    EXPECT_EQ(list.templates[2], fresh);
    EXPECT_STREQ(list.templates[3]->sTemplateName, "HSS-Cx-uar");
    EXPECT_STREQ(KsTemplateEng__DiamPrefix(7, 3), "HSS-Cx");
    EXPECT_STREQ(KsTemplateEng__DiamPrefix(5, 1), "") << "PGW takes every template";
    EXPECT_EQ(KsTemplateEng__DiamPrefix(13, 1), nullptr);

    EXPECT_EQ(infoOf("NAS5G"), "1#65#reg|1#193#est|1#0#fresh");
    EXPECT_EQ(infoOf("PFCP"), "3#50#est");
    EXPECT_EQ(infoOf("GGSN"), "31#16#cpdp");
    EXPECT_EQ(infoOf("HSS"), "5#316#HSS-S6a-ulr|5#300#HSS-Cx-uar");
    EXPECT_EQ(infoOf("HSS", "3"), "5#300#HSS-Cx-uar");
    EXPECT_EQ(infoOf("HSS", "2"), "");
    EXPECT_EQ(infoOf("HSS", "7"), "5#316#HSS-S6a-ulr|5#300#HSS-Cx-uar") << "no prefix: all of them";
    EXPECT_EQ(infoOf("AAA", "2"), "6#268#AAA-SWm-der");
    EXPECT_EQ(infoOf("CHF", "2"), "8#272#CHF-Ro-ccr");
    EXPECT_EQ(infoOf("X"), "") << "an interface without templates adds nothing";
    EXPECT_EQ(infoOf("unknown"), "");
    EXPECT_EQ(infoOf("NAS5G", nullptr, 20), "1#65#reg|1#193#est") << "an entry that does not fit is left out";
}

TEST(TemplateTree, NasElementsGetThePositionOfTheirMessagesTable) {
    Loaded l({{"templates/nas.json", R"([
      {"Type": "NAS5G", "Templates": [
        {"Name": "reg", "MessageType": 65, "Elements": [{"ID": "ngKSI"}, {"ID": "C-"}, {"ID": "2F"}, {"ID": "30"},
                                                        {"ID": "ZZ"}, {"ID": "2f"}]},
        {"Name": "ul", "MessageType": 103, "Elements": [{"ID": "PayloadContainer"}, {"ID": "F-"}]},
        {"Name": "est", "MessageType": 193, "Elements": [{"ID": "29"}, {"ID": "IntegrityProtectionMaximumDatarate"}]},
        {"Name": "relc", "MessageType": 212, "Elements": [{"ID": "7B"}]},
        {"Name": "other", "MessageType": 66, "Elements": [{"ID": "2F"}]}]},
      {"Type": "NGAP", "Templates": [{"Name": "ngap", "ProcedureCode": 15, "ProtocolIEs": [{"ID": "2F"}]}]}])"}});
    ASSERT_EQ(l.rc, 1) << l.out;
    const struct {
        const char* name;
        const char* iface;
        std::vector<int32_t> index;
    } cases[] = {
        {"reg", "NAS5G", {0, 2, 5, 33, 0, 0}}, {"ul", "NAS5G", {1, 9}},   {"est", "NAS5G", {13, 0}},
        {"relc", "NAS5G", {1}},                {"other", "NAS5G", {0}},  {"ngap", "NGAP", {0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<int32_t> got;
        for (const MV_Element* e : elementsOf(KsTemplateEng__FindTemplate(c.name, c.iface, 0)))
            got.push_back(KsTemplateEng__GetIndex(e));
        EXPECT_EQ(got, c.index);
    }
}

TEST(TemplateLoading, IncompleteGroupsAndTemplatesAreReportedAndTheRestLoads) {
    struct Case {
        const char* what;
        std::string file;
        std::vector<std::string> lines;
        std::function<void()> check;
    };
    const std::vector<Case> cases = {
        {"a group without Type", R"({"Templates": []})", {"Template Type Not Found in File={file} KsTemplateEng__LoadTemplate|"}, nullptr},
        {"a group without Templates", R"({"Type": "NAS5G"})", {"Templates Not Found in File={file} KsTemplateEng__LoadTemplate|"}, nullptr},
        {"Templates not an array", R"({"Type": "NAS5G", "Templates": {}})", {"Templates Not An Array, in File="}, nullptr},
        {"an unknown Type, once per template", R"({"Type": "X2AP", "Templates": [{}, {}]})",
         {"Invalid Template Type=X2AP  KsTemplateEng__LoadTemplate|"}, nullptr},
        {"a root that is neither", R"("text")", {}, nullptr},
        {"nor", "7", {}, nullptr},
        {"PFCP refuses message 51, PGW takes it", R"([
           {"Type": "PFCP", "Templates": [{"Name": "p", "MessageType": 51, "Elements": [{"IEType": 1}]},
                                          {"Name": "q", "MessageType": 56, "Elements": [{"IEType": 1}]}]},
           {"Type": "PGW", "Templates": [{"Name": "p", "MessageType": 51, "Elements": [{"IEType": 1}]}]}])",
         {"PFCP Item Template - Invalid-MessageType Found in File="},
         [] {
             EXPECT_EQ(KsTemplateEng__FindTemplate("p", "PFCP", 0), nullptr);
             EXPECT_NE(KsTemplateEng__FindTemplate("q", "PFCP", 0), nullptr);
             EXPECT_NE(KsTemplateEng__FindTemplate("p", "PGW", 0), nullptr);
         }},
        {"NAS refuses 256 and takes 255", R"({"Type": "NAS5G", "Templates": [
           {"Name": "a", "MessageType": 256, "Elements": [{"ID": "2F"}]},
           {"Name": "b", "MessageType": 255, "Elements": [{"ID": "2F"}]},
           {"Name": "c", "MessageType": "65", "Elements": [{"ID": "2F"}]}]})",
         {"NAS-5G Item Template - Invalid-MessageType Found in File="},
         [] {
             EXPECT_EQ(KsTemplateEng__FindTemplate("a", "NAS5G", 0), nullptr);
             EXPECT_NE(KsTemplateEng__FindTemplate("b", "NAS5G", 0), nullptr);
             EXPECT_EQ(KsTemplateEng__FindTemplate("c", "NAS5G", 0), nullptr);
         }},
        {"missing names and elements", R"([
           {"Type": "NAS5G", "Templates": [{"MessageType": 65}, {"Name": "n", "MessageType": 65}]},
           {"Type": "NGAP", "Templates": [{"ProcedureCode": 15}, {"Name": "n", "ProcedureCode": 15}]},
           {"Type": "GGSN", "Templates": [{"MessageType": 16}, {"Name": "n", "MessageType": 16, "Elements": 3}]},
           {"Type": "CHF", "Templates": [{"CmdCode": 272}, {"Name": "n", "CmdCode": 272}]}])",
         {"NAS-5G Item Template - Name Not Found in File=", "NAS-5G Item Template - Elements Not Found in File=",
          "NGAP Item Template - Name Not Found in File=", "NGAP Item Template - ProtocolIEs Not Found in File=",
          "PFCP Item Template - Name Not Found in File=", "PFCP Item Template - Elements Tag Not Found in File=",
          "HSS/AAA Template - Name Not Found in File=", "HSS/AAA Template - AVPs Tag Not Found in File="},
         nullptr},
        {"an empty element array leaves no trace", R"({"Type": "NAS5G", "Templates": [
           {"Name": "e", "MessageType": 65, "Elements": []},
           {"Name": "e", "MessageType": 67, "Elements": [{"ID": "73"}]}]})",
         {},
         [] { EXPECT_EQ(KsTemplateEng__FindTemplate("e", "NAS5G", 0)->MessageType, 67u); }},
        {"a second template of one name is ignored", R"({"Type": "NGAP", "Templates": [
           {"Name": "d", "ProcedureCode": 15, "ProtocolIEs": [{"ID": 85}]},
           {"Name": "d", "ProcedureCode": 46, "ProtocolIEs": [{"ID": 10}]}]})",
         {"Template alreay exists, ignoring Template with Name=NGAP-d   KsTemplateEng__LoadTemplate_NGAP|"},
         [] { EXPECT_EQ(KsTemplateEng__FindTemplate("d", "NGAP", 0)->MessageType, 15u); }},
        {"a name longer than the record holds",
         R"({"Type": "NAS5G", "Templates": [{"Name": ")" + std::string(100, 'n') +
             R"(", "MessageType": 65, "Elements": [{"ID": "2F"}]}]})",
         {"NAS-5G Item Template - Name longer than 99 characters in File="}, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Loaded l({{"templates/t.json", c.file}});
        EXPECT_EQ(l.rc, 1) << l.out;
        for (std::string line : c.lines) {
            if (size_t at = line.find("{file}"); at != std::string::npos)
                line.replace(at, 6, l.dir + "/templates/t.json");
            EXPECT_TRUE(l.said(line)) << line << "\n" << l.out;
        }
        if (c.lines.empty()) {
            EXPECT_EQ(l.out, "") << "nothing to say";
        }
        if (c.check) c.check();
    }
}

TEST(TemplateLoading, FilesAreChosenByNameAndReadInNameOrder) {
    auto group = [](const char* name, int type) {
        return R"({"Type": "NGAP", "Templates": [{"Name": ")" + std::string(name) + R"(", "ProcedureCode": )" +
               std::to_string(type) + R"(, "ProtocolIEs": [{"ID": 1}]}]})";
    };
    Loaded l({{"templates/.json", group("hidden", 1)},
              {"templates/a.json", group("a", 2)},
              {"templates/b.json.bak", group("bak", 3)},
              {"templates/z.json", group("same", 9)},
              {"templates/m.json", group("same", 8)},
              {"templates/sub.json/inner.json", group("inner", 4)}});
    ASSERT_EQ(l.rc, 1) << l.out;
    EXPECT_EQ(infoOf("NGAP"), "2#2#a|2#8#same") << "only regular files named <name>.json, in name order";
    EXPECT_TRUE(l.said("Template alreay exists, ignoring Template with Name=NGAP-same")) << l.out;
}

TEST(TemplateLoading, MalformedElementsAreSkippedWithALineAndTheRestLoads) {
    std::string deep = R"({"IEType": 1})";
    for (int i = 0; i < KS_TEMPLATE_MAX_LEVEL; ++i) deep = R"({"IEType": 1, "Elements": [)" + deep + "]}";
    Loaded l({{"templates/bad.json", R"([
      {"Type": "NAS5G", "Templates": [{"Name": "reg", "MessageType": 65, "Elements": [
        {"ID": "ngKSI"}, 3, {"ID": "52", "ValueType": "Int", "Value": "7"}, {"ID": "52", "ValueType": "Int"},
        {"ID": "2F", "ValueType": "Hex", "Value": "0A0"}, {"ID": "2F", "ValueType": "Hex", "Value": "zz"},
        {"ID": "17", "ValueType": "String", "Value": 5}, {"ID": "40", "ValueType": "Json"},
        {"ID": "40", "ValueType": 6}, {"ID": ")" + std::string(100, 'x') + R"("}, {"ID": 0}, {"ID": [1]},
        {"ID": "10"}]}]},
      {"Type": "PFCP", "Templates": [{"Name": "est", "MessageType": 50, "Elements": [
        {"IEType": "1"}, {"IEType": 2, "IEName": 5}, {"IEType": 3, "InstanceId": "1"}, {"IEType": 4, "Elements": {}},
        {"IEType": 5, "Elements": [{"IEType": 6, "ValueType": "Int", "Value": 1.5}, {"IEType": 7}]},
        )" + deep + R"(]}]},
      {"Type": "HSS", "Templates": [{"Name": "HSS-x", "CmdCode": 316, "AVPs": [
        {"Code": -1}, {"Code": 1, "VendorId": "10415"}, {"Code": 2, "Mandatory": [1]}, {"Code": 263}]}]}])"}});
    ASSERT_EQ(l.rc, 1) << l.out;
    auto nas = elementsOf(KsTemplateEng__FindTemplate("reg", "NAS5G", 0));
    ASSERT_EQ(nas.size(), 2u) << l.out;
    EXPECT_STREQ(KsTemplateEng__GetName(nas[0]), "ngKSI");
    EXPECT_STREQ(KsTemplateEng__GetName(nas[1]), "10");
    for (const char* why : {"(not an object)", "(an Int element needs an integer Value)",
                            "(a Hex element needs a Value of an even number of hex digits)",
                            "(a String element needs a text Value)", "(a Json element needs a Value)",
                            "(ValueType is not text)", "(ID longer than 99 characters)",
                            "(a number ID below 1 or above 2147483647)", "(ID is neither text nor a number)",
                            "(its id is not a number from 0)", "(its name is not text)",
                            "(InstanceId is not a number)", "(its children are not an array)",
                            "(nested deeper than the loader takes)", "(VendorId is not a number)",
                            "(Mandatory is not a number)"})
        EXPECT_TRUE(l.said(std::string("Template Element skipped ") + why)) << why << "\n" << l.out;
    EXPECT_TRUE(l.said("in Template=NAS5G-reg File=" + l.dir + "/templates/bad.json KsTemplateEng__AddElement|"));
    EXPECT_EQ(kst::countOccurrences(l.out, "Template Element skipped"), 20u) << l.out;

    auto pfcp = elementsOf(KsTemplateEng__FindTemplate("est", "PFCP", 0));
    ASSERT_EQ(pfcp.size(), 2u);
    EXPECT_EQ(elementsOf(KsTemplateEng__GetChildElement(pfcp[0])).size(), 1u) << "the bad child alone goes";
    // The deepest chain keeps the levels the loader takes and loses the one below.
    int depth = 0;
    for (const MV_Element* e = pfcp[1]; e; e = KsTemplateEng__GetChildElement(e)) ++depth;
    EXPECT_EQ(depth, KS_TEMPLATE_MAX_LEVEL);
    auto hss = elementsOf(KsTemplateEng__FindTemplate("HSS-x", "HSS", 0));
    ASSERT_EQ(hss.size(), 1u);
    EXPECT_EQ(KsTemplateEng__GetID(hss[0]), 263);
}

TEST(TemplateLoading, AFileThatDoesNotParseStopsStartUpNamingItsPosition) {
    for (const char* folder : {"templates", "dictionary"}) {
        SCOPED_TRACE(folder);
        std::string bad = std::string(folder) + "/a_bad.json";
        Loaded l({{bad, "{\"Type\": \"NAS5G\",\n  \"Templates\": [ }\n"},
                  {"templates/b_good.json",
                   R"({"Type": "NGAP", "Templates": [{"Name": "g", "ProcedureCode": 1, "ProtocolIEs": [{"ID": 1}]}]})"}});
        EXPECT_EQ(l.rc, 0);
        EXPECT_TRUE(l.said("Loading Template File Failed with error:[")) << l.out;
        EXPECT_TRUE(l.said("line=2 column=18 position=36 source=[<stream>] File=" + l.dir + "/" + bad))
            << l.out;
        EXPECT_EQ(KsTemplateEng__Init(), 0) << "a second call gives the first result";
    }
    std::string tooDeep(3000, '[');
    Loaded l({{"templates/deep.json", tooDeep + std::string(3000, ']')}});
    EXPECT_EQ(l.rc, 0) << "nesting beyond the parser's depth is refused, not recursed into";
    EXPECT_TRUE(l.said("maximum parsing depth reached")) << l.out;
}

TEST(TemplateLoading, MissingDirectoriesLeaveAnEngineWithoutTemplates) {
    Loaded l({{"dictionary/d.json", R"([{"ApplicationId": 4, "AVPs": [{"Code": 416, "DataType": "Int32"}]}])"}});
    EXPECT_EQ(l.rc, 1);
    EXPECT_TRUE(l.said("Unable to read template directory KsTemplateEng__Init|")) << l.out;
    EXPECT_TRUE(l.said("fileWithPath=" + l.dir + "/dictionary/d.json")) << "the dictionaries are read all the same";
    EXPECT_EQ(KsTemplateEng__FindTemplateByMessageId("x", "NAS5G", 65), nullptr);
    EXPECT_EQ(KsTemplateEng__BeginIterator(nullptr), nullptr);
}

TEST(TemplateDictionary, TypesByApplicationAndCode) {
    Loaded l({{"dictionary/a.json", R"([
       {"ApplicationId": 16777251, "AVPs": [
         {"Code": 1400, "DataType": "Grouped"}, {"Code": 1401, "DataType": "Float32"}, {"Code": 0, "DataType": "Int32"},
         {"Code": 1402}, {"Code": 1403, "DataType": "UInt64"}, {"Code": 1403, "DataType": "Int64"}, "x",
         {"Code": "5", "DataType": "Int32"}]},
       {"ApplicationId": 16777251, "AVPs": [{"Code": 1403, "DataType": "OctetString"}, {"Code": 1404, "DataType": "UInt32"}]},
       {"ApplicationId": 4, "AVPs": [{"Code": 416}, {"Code": 415, "DataType": "UInt32"}]},
       {"ApplicationId": 0, "AVPs": [{"Code": 1, "DataType": "OctetString"}]},
       {"ApplicationId": 7, "AVPs": []}, 5])"},
              {"dictionary/b.json", R"({"ApplicationId": 9})"}});
    ASSERT_EQ(l.rc, 1) << l.out;
    const struct {
        uint32_t app, code, found, type;
    } cases[] = {
        {16777251, 1400, 1, KS_DIAM_TYPE__GROUPED},
        {16777251, 1401, 1, KS_DIAM_TYPE__GROUPED},  // an unknown type takes the one before it
        {16777251, 1402, 1, KS_DIAM_TYPE__INT32},    // the Code 0 entry still set the type
        {16777251, 1403, 1, KS_DIAM_TYPE__UINT64},   // the first entry of a code wins
        {16777251, 1404, 1, KS_DIAM_TYPE__UINT32},   // a second block of one application adds its own
        {16777251, 0, 0, 0},
        {16777251, 5, 0, 0},
        {4, 416, 0, 0},  // no type yet
        {4, 415, 1, KS_DIAM_TYPE__UINT32},
        {16777216, 1400, 0, 0},
        {0, 1, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.app) + "/" + std::to_string(c.code));
        uint32_t type = 77, found = 77;
        KsTemplateEng__GetAVPDataType(c.app, c.code, &type, &found);
        EXPECT_EQ(found, c.found);
        if (c.found) {
            EXPECT_EQ(type, c.type);
        }
    }
    int apps = 0;
    for (const MV_DiamApp* a = KsTemplateEng__GetDictAppHead(); a; a = a->Next) ++apps;
    EXPECT_EQ(apps, 3) << "two blocks of one application are two entries";
    EXPECT_TRUE(l.said("Dictionary application skipped: no ApplicationId above 0")) << l.out;
    EXPECT_TRUE(l.said("Dictionary application 7 skipped: no AVPs")) << l.out;
    EXPECT_TRUE(l.said("Dictionary entry 6 of application 16777251 skipped")) << l.out;
    EXPECT_TRUE(l.said("Dictionary File is not an array, skipped File=" + l.dir + "/dictionary/b.json")) << l.out;
}

// Kilobytes of the process's peak resident memory so far.
long peakKb() {
    std::string s = kst::readFile("/proc/self/status");
    size_t at = s.find("VmHWM:");
    return at == std::string::npos ? 0 : atol(s.c_str() + at + 6);
}

TEST(TemplateLoading, TenMegabytesLoadInBoundedMemoryAndAboveTheLimitAreRefusedUnread) {
    std::string file = "[{\"Type\": \"NAS5G\", \"Templates\": [";
    int templates = 0;
    while (file.size() < 10u * 1000 * 1000) {
        if (templates) file += ",";
        file += "{\"Name\": \"t" + std::to_string(templates) + "\", \"MessageType\": 65, \"Elements\": [";
        for (int e = 0; e < 100; ++e)
            file += std::string(e ? "," : "") + R"({"ID": "2F", "Name": "requested NSSAI", "ValueType": "Hex", "Value": "0401)" +
                    std::to_string(100000 + e) + "\"}";
        file += "]}";
        ++templates;
    }
    file += "]}]";
    size_t heapBefore = mallinfo2().uordblks;
    long peakBefore = peakKb();
    {
        Loaded l({{"templates/big.json", file}});
        ASSERT_EQ(l.rc, 1) << l.out.substr(0, 2000);
        __mv_template_list list{};
        EXPECT_EQ(KsTemplateEng__CollectTemplates("NAS5G", nullptr, &list), uint32_t(KS_TEMPLATE_LIST_SIZE))
            << "a scan stops at the list's size";
        const MV_Template* last = KsTemplateEng__FindTemplate(("t" + std::to_string(templates - 1)).c_str(), "NAS5G", 0);
        ASSERT_NE(last, nullptr);
        EXPECT_EQ(elementsOf(last).size(), 100u);
        EXPECT_EQ(KsTemplateEng__GetIndex(elementsOf(last)[0]), 5);
        size_t kept = mallinfo2().uordblks - heapBefore;
        long peak = peakKb() - peakBefore;
        RecordProperty("file_bytes", std::to_string(file.size()));
        RecordProperty("kept_bytes", std::to_string(kept));
        RecordProperty("peak_growth_kb", std::to_string(peak));
#ifndef KS_SANITIZED  // a sanitizer's own bookkeeping says nothing of the loader's
        // The parsed document goes once its elements are built; what stays is the tree
        // and the values, a few times the text.
        EXPECT_LT(kept, 6 * file.size()) << "kept " << kept;
        EXPECT_LT(size_t(peak) * 1024, 40 * file.size()) << "peak grew by " << peak << " kB";
#endif
    }
#ifndef KS_SANITIZED
    EXPECT_LT(mallinfo2().uordblks, heapBefore + 1024 * 1024) << "a reset gives it all back";
#endif

    KsTemplateEng___Reset();
    std::string dir = kst::makeTempDir("tpl");
    mkdir((dir + "/templates").c_str(), 0700);
    std::string huge = dir + "/templates/huge.json";
    ASSERT_EQ(truncate((kst::writeFile(huge, "["), huge.c_str()), off_t(KS_TEMPLATE_FILE_LIMIT) + 1), 0);
    long before = peakKb();
    testing::internal::CaptureStdout();
    EXPECT_EQ(KsTemplateEng__InitFrom((dir + "/templates").c_str(), (dir + "/dictionary").c_str()), 0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Loading Template File Failed: size=33554433 is above the limit of 33554432 bytes File=" + huge),
              std::string::npos)
        << out;
    EXPECT_LT(peakKb() - before, 4096) << "refused before it is read";
    KsTemplateEng___Reset();
    kst::removeTree(dir);
}

}  // namespace
