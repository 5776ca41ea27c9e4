// Templates and connections in a started engine: the default templates and dictionaries
// of config/resources, a registration step whose template changes the requested NSSAI
// and the 5GMM capability encoded by the NAS codec and read back by tshark, templates
// picked by position for console commands, a bad template file stopping start-up, and
// the RAN context self check.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "KsNAS.h"
#include "KsNGAP.h"
#include "KsTE_engine.h"
#include "KsTemplateEng.h"
#include "Kestrane.h"
#include "Kestrane_nodes.h"
#include "ks_engine_env.h"
#include "nas_testlib.h"

namespace {

const std::string kConfigDir = KS_SOURCE_DIR "/config/resources";

const std::string kOwn = R"([
  {"Type": "NAS5G", "Templates": [
    {"Name": "regSlice", "MessageType": 65, "Elements": [
      {"ID": "ngKSI", "ValueType": "UEProperty"},
      {"ID": "5GSMobileIdentity", "ValueType": "UEProperty"},
      {"ID": "10", "Name": "5GMM capability: S1 mode, LPP", "ValueType": "Hex", "Value": "05"},
      {"ID": "2E", "ValueType": "UEProperty"},
      {"ID": "2F", "Name": "SST 1 SD 0a0b0c, SST 2", "ValueType": "Hex", "Value": "04010a0b0c0102"}]}]},
  {"Type": "PFCP", "Templates": [
    {"Name": "est-a", "MessageType": 50, "Elements": [{"IEType": 60}]},
    {"Name": "est-b", "MessageType": 50, "Elements": [{"IEType": 60}]}]},
  {"Type": "HSS", "Templates": [
    {"Name": "HSS-S6a-ulr", "CmdCode": 316, "AVPs": [{"Code": 1}]},
    {"Name": "HSS-Cx-uar", "CmdCode": 300, "AVPs": [{"Code": 1}]},
    {"Name": "HSS-Cx-uar2", "CmdCode": 300, "AVPs": [{"Code": 1}]}]}
])";

std::map<std::string, std::string> files() {
    std::map<std::string, std::string> f = {
        {"cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 100, "IMSIPrefixWithZERO": 1,
                       "MaxRANUEID": 40, "LogLevel": {"APPLICATION": 5},
                       "RANNodes": [{"Type": "gNodeB", "Name": "gnb", "ID": 1, "HexPLMN": "00f110"}]})"},
        {"data/uel.json", R"([{"ID": 1, "MSINStart": "001010000000001", "MSINEnd": "001010000000020",
                             "MSISDNBegin": "1", "MCC": "001", "MNC": "01"}])"},
        {"resources/templates/zz_own.json", kOwn},
    };
    for (const char* name : {"templates/nas5g.json", "templates/ngap.json"})
        f[std::string("resources/") + name] = kst::readFile(kConfigDir + "/" + name);
    for (const auto& path : kst::listFiles(kConfigDir + "/dictionary"))
        f["resources/dictionary/" + path.substr(path.rfind('/') + 1)] = kst::readFile(path);
    return f;
}

kst::EngineInDir* const gEnv =
    static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(new kst::EngineInDir("tplrun", files())));

KsStep* buildStep(uint32_t stepId, const std::string& dict) {
    static uint32_t nextId = 80000;
    uint32_t id = ++nextId;
    json_error_t err;
    json_t* sc = json_loads(("{\"ID\": " + std::to_string(id) + ", \"Config\": [{\"ID\": " + std::to_string(stepId) +
                             ", \"Dict\": " + dict + "}]}")
                                .c_str(),
                            0, &err);
    json_array_append_new(__ksEngine->scenarios, sc);
    static KsTestExec tst{};
    tst.TestId = id;
    tst.ksScanario = nullptr;
    KsScanario* scanario = Kestrane___createScanarioForKsTestExec(&tst, id);
    return scanario ? scanario->stepHead : nullptr;
}

TEST(DefaultResources, EveryTemplateAndDictionaryOfTheConfigurationLoads) {
    for (const char* name : {"nas5g.json", "ngap.json"}) {
        SCOPED_TRACE(name);
        json_error_t err;
        json_t* doc = json_load_file((kConfigDir + "/templates/" + name).c_str(), 0, &err);
        ASSERT_NE(doc, nullptr) << err.text;
        const char* type = json_string_value(json_object_get(doc, "Type"));
        size_t i;
        json_t* t;
        json_array_foreach(json_object_get(doc, "Templates"), i, t) {
            const char* n = json_string_value(json_object_get(t, "Name"));
            json_t* id = json_object_get(t, "MessageType");
            if (!id) id = json_object_get(t, "ProcedureCode");
            EXPECT_NE(KsTemplateEng__FindTemplateByMessageId(n, type, uint32_t(json_integer_value(id))), nullptr) << n;
        }
        json_decref(doc);
    }
    // The message of each slot a step names has its template.
    const struct {
        const char* name;
        const char* iface;
        uint32_t message;
    } named[] = {{"RegistrationRequest", "NAS5G", 65},       {"InitialUEMessage", "NGAP", 15},
                 {"UplinkNASTransport", "NGAP", 46},         {"PDUSessionEstablishmentRequest", "NAS5G", 193},
                 {"PDUSessionModificationRequest", "NAS5G", 201}, {"PDUSessionReleaseRequest", "NAS5G", 209},
                 {"ULNASTransport", "NAS5G", 103}};
    for (const auto& n : named) EXPECT_NE(KsTemplateEng__FindTemplateByMessageId(n.name, n.iface, n.message), nullptr) << n.name;
    const MV_Template* reg = KsTemplateEng__FindTemplate("RegistrationRequest", "NAS5G", 0);
    std::vector<int32_t> index;
    for (const MV_Element* e = KsTemplateEng__BeginIterator(reg); e; e = KsTemplateEng__NextIterator(e))
        index.push_back(KsTemplateEng__GetIndex(e));
    EXPECT_EQ(index, (std::vector<int32_t>{0, 1, 3, 4, 5, 24})) << "the enabled elements, indexed";

    const struct {
        uint32_t app, code, type;
    } avps[] = {{16777251, 1407, KS_DIAM_TYPE__OCTET_STRING}, {16777251, 1400, KS_DIAM_TYPE__GROUPED},
                {16777251, 268, KS_DIAM_TYPE__UINT32},        {16777216, 614, KS_DIAM_TYPE__INT32},
                {16777238, 1001, KS_DIAM_TYPE__GROUPED},      {4, 412, KS_DIAM_TYPE__UINT64},
                {16777272, 493, KS_DIAM_TYPE__OCTET_STRING},  {3, 480, KS_DIAM_TYPE__INT32}};
    for (const auto& a : avps) {
        uint32_t type = 0, found = 0;
        KsTemplateEng__GetAVPDataType(a.app, a.code, &type, &found);
        EXPECT_EQ(found, 1u) << a.app << "/" << a.code;
        EXPECT_EQ(type, a.type) << a.app << "/" << a.code;
    }
    // The Diameter stack's diam.json shares the folder and names some of the same
    // applications: count each application once.
    std::set<uint32_t> apps;
    for (const MV_DiamApp* a = KsTemplateEng__GetDictAppHead(); a; a = a->Next) apps.insert(a->applicationId);
    EXPECT_GE(apps.size(), 12u);
}

// What a registration request builder does with its template: a literal value is sent
// as the template gives it, a UE property is taken from the UE; the element's Index
// says which IE it is.
void applyRegistrationTemplate(const MV_Template* t, MV_KsUE* ue, const KsStep* st, __naspduFGMM_RegistrationRequest& r) {
    for (const MV_Element* e = KsTemplateEng__BeginIterator(t); e; e = KsTemplateEng__NextIterator(e)) {
        bool literal = KsTemplateEng__GetValueType(e) == KsTMT__VALUE_TYPE__Hex;
        switch (KsTemplateEng__GetIndex(e)) {
            case 0: r.b1 = 0x71; break;  // ngKSI 7, initial registration
            case 1: ASSERT_EQ(KsNAS__set_suci_identity(ue, 1, st, &r.mFGSMobileIdentity), 1); break;
            case 3: {
                ASSERT_TRUE(literal);
                int n = KsTemplateEng__GetHexValue(e, r.mFGMMCapability.data, sizeof r.mFGMMCapability.data);
                ASSERT_GT(n, 0);
                r.mFGMMCapability.Length = uint8_t(n - 1);  // the codec counts the octets after the first
                r.mFGMMCapability.isset = 1;
                break;
            }
            case 4: KsNAS__set_ue_security_capability(st, &r.mUESecurityCapability); break;
            case 5: {
                ASSERT_TRUE(literal);
                int n = KsTemplateEng__GetHexValue(e, r.mRequestedNSSAI.data, sizeof r.mRequestedNSSAI.data);
                ASSERT_GT(n, 0);
                r.mRequestedNSSAI.Length = uint8_t(n);
                r.mRequestedNSSAI.isset = 1;
                break;
            }
        }
    }
}

TEST(TemplatedRegistration, TheStepsTemplateSetsRequestedNssaiAndCapabilityOnTheWire) {
    if (!tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    KsStep* st = buildStep(1, R"([{"Key": 17, "Value": "regSlice"}])");
    ASSERT_NE(st, nullptr);
    ASSERT_NE(st->nas5G_regTemplate, nullptr);
    ASSERT_STREQ(KsTemplateEng__GetTemplateName(st->nas5G_regTemplate), "regSlice");
    MV_KsUE* ue = kst::ueOf001(3);
    ASSERT_NE(ue, nullptr);

    __naspduFGMM_RegistrationRequest r{};
    applyRegistrationTemplate(st->nas5G_regTemplate, ue, st, r);
    __mv_asn_coding_context c;
    __mv_asn_init_CodingContext(&c);
    ASSERT_EQ(__mv_naspdu_fgmm_encodeRegistrationRequest(&r, &c), 0);
    std::vector<uint8_t> bytes(c.buffer, c.buffer + c.pos);
    std::string hex = toHex(bytes);
    EXPECT_NE(hex.find("100105"), std::string::npos) << "5GMM capability as the template gives it: " << hex;
    EXPECT_NE(hex.find("2f0704010a0b0c0102"), std::string::npos) << "requested NSSAI as the template gives it: " << hex;

    TsharkRun run = runTshark("nas-5gs", {bytes});
    ASSERT_EQ(run.rc, 0) << run.report << " " << hex;
    ASSERT_EQ(run.packets.size(), 1u);
    const TsharkFields& f = run.packets[0];
    EXPECT_EQ(tsharkIeis(f), (std::vector<std::string>{"10", "2E", "2F"}));
    EXPECT_EQ(fieldValues(f, "nas_5gs.mm.message_type"), std::vector<std::string>{"0x41"});
    EXPECT_EQ(fieldValues(f, "nas_5gs.mm.sst"), (std::vector<std::string>{"1", "2"}));
    EXPECT_EQ(fieldValues(f, "nas_5gs.mm.mm_sd"), std::vector<std::string>{"658188"});
    EXPECT_EQ(fieldValues(f, "nas_5gs.mm.s1_mode_b0"), std::vector<std::string>{"1"});
    EXPECT_EQ(fieldValues(f, "nas_5gs.mm.ho_attach_b1"), std::vector<std::string>{"0"});
    EXPECT_EQ(fieldValues(f, "nas_5gs.mm.lpp_cap_b2"), std::vector<std::string>{"1"});
    EXPECT_EQ(fieldValues(f, "nas_5gs.mm.suci.msin"), std::vector<std::string>{"0000000003"}) << "the UE's own identity";
}

MV_KsTestCommand command(uint32_t n) {
    MV_KsTestCommand c{};
    c.Command = n;
    return c;
}

KsStep* run(MV_KsUE* u, MV_KsTestCommand c) {
    KsScanario__ReleaseUEExecutionSteps(u);
    u->TotalKsSteps = 0;
    KsScanario__AddTestCommand(&c, u);
    return u->ksStepExecutionHead ? u->ksStepExecutionHead->ksStep : nullptr;
}

std::string named(const MV_Template* t) { return t ? KsTemplateEng__GetTemplateName(t) : ""; }

TEST(TemplatedCommands, PositionsPickFromTheInterfacesListsInLoadOrder) {
    MV_KsUE* u = kst::ueOf001(4);
    ASSERT_NE(u, nullptr);
    __mv_template_list nas{};
    KsTemplateEng__CollectTemplates("NAS5G", nullptr, &nas);
    const uint32_t count = nas.Count + 2;  // and the two NGAP templates behind them
    ASSERT_EQ(nas.Count, 21u);

    // Positions in NAS5G then NGAP: a session message goes to the session slot.
    MV_KsTestCommand c = command(23);
    c.IdentityRequestOption = 0;
    c.InitialContextRequest = 14;  // PDUSessionEstablishmentRequest
    c.FOR = nas.Count;             // InitialUEMessage
    c.AuthOptions = nas.Count + 1; // UplinkNASTransport
    KsStep* st = run(u, c);
    ASSERT_EQ(st, __ksEngine->step_initialRegistration);
    EXPECT_EQ(named(st->nas5G_pduSessionTemplate), "PDUSessionEstablishmentRequest");
    EXPECT_EQ(named(st->ngap_initUEMessTemplate), "InitialUEMessage");
    EXPECT_EQ(named(st->ngap_uplinkNASTranTemplate), "UplinkNASTransport");
    c.InitialContextRequest = 20;  // regSlice, last of NAS5G
    c.FOR = c.AuthOptions = count;  // one past the end: sets nothing
    run(u, c);
    EXPECT_EQ(named(st->nas5G_regTemplate), "regSlice");
    EXPECT_EQ(st->ngap_initUEMessTemplate, nullptr) << "a command starts from no templates";
    EXPECT_EQ(st->ngap_uplinkNASTranTemplate, nullptr);

    MV_KsTestCommand p = command(9999);
    p.EA0 = 2;
    p.IdentityRequestOption = 0;
    p.InitialContextRequest = 1;
    st = run(u, p);
    ASSERT_EQ(st, __ksEngine->step_pfcpSessionEstablishmentRequest);
    EXPECT_EQ(named(st->nas5G_regTemplate), "est-b");

    MV_KsTestCommand h = command(9999);
    h.EA0 = 7;
    h.EA1 = 3;  // Cx: only the HSS templates named HSS-Cx... are candidates
    h.FOR = 300;
    h.InitialContextRequest = 1;
    st = run(u, h);
    ASSERT_EQ(st, __ksEngine->step_hssCxUAR);
    EXPECT_EQ(named(st->nas5G_regTemplate), "HSS-Cx-uar2");
    h.InitialContextRequest = 2;
    run(u, h);
    EXPECT_EQ(st->nas5G_regTemplate, nullptr) << "position 2 of two sets nothing";
}

TEST(StartUp, ATemplateFileThatDoesNotParseEndsTheProcessWithItsPosition) {
    kst::ChildResult r = kst::runEngineBinary(
        KS_ENGINE_BINARY,
        {{"cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 10})"},
         {"resources/templates/good.json", kst::readFile(kConfigDir + "/templates/ngap.json")},
         {"resources/templates/worse.json", "[{\"Type\": \"NGAP\", \"Templates\": [1, 2,]}]"}},
        60);
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_FALSE(r.timedOut);
    EXPECT_NE(r.out.find("Loading Template File Failed with error:[unexpected token near ']'] line=1 column=38 "
                         "position=38 source=[<stream>] File=./resources/templates/worse.json"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(r.out.find("Initalization of KsTest is completed"), std::string::npos) << "start-up stopped";
}

TEST(SelfCheck, EveryDerivedRanUeNgapIdFindsItsContextAcrossTwentyOneRounds) {
    uint32_t available = __ksEngine->ngRanUeContextAvailable;
    EXPECT_EQ(KsTDD_runUeContextTest(), 0);
    EXPECT_EQ(__ksEngine->ngRanUeContextAvailable, available) << "every context went back";
    KsTDD_run(0);
    KsTDD_run(1);
    std::string log = gEnv->appLog();
    EXPECT_NE(log.find("Total=40 Available=40 <KsNGAP_selfcheck.cpp|KsTDD_runUeContextTest|"), std::string::npos);
    EXPECT_NE(log.find("SHOULD BE NULL RAN-UE-NGAP-ID=500"), std::string::npos);
    EXPECT_NE(log.find("SHOULD NOT BE NULL RAN-UE-NGAP-ID=501"), std::string::npos);
    EXPECT_EQ(kst::countOccurrences(log, "ranUeContextDerived=0x"), 2u * 21 * 40) << "every round logged, none null";
    EXPECT_EQ(kst::countOccurrences(log, "Begin <KsNGAP_selfcheck.cpp|KsTDD_run|"), 1u) << "0 does nothing";
    EXPECT_NE(log.find("End <KsNGAP_selfcheck.cpp|KsTDD_run|"), std::string::npos);
    EXPECT_EQ(log.find("missed their context"), std::string::npos);
}

}  // namespace
