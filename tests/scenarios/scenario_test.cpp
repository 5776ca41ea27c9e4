// The step catalogue as a user writes it: every scenario step id of data/sce.json
// with its code, runner index, defaults and Dict keys, the runner it reaches, the
// scenario files of the configuration, the prebuilt command steps and the commands
// that run them, and report events.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "Kestrane.h"
#include "KsTemplateEng.h"
#include "ks_engine_env.h"

namespace {

const std::string kRegFile = R"([
  {"Step": "Registration", "RegistrationType": "PerodicUpdate", "UserLocationInformation": {"TAC": 7},
   "AuthReqIgnCount": 2, "SecModeIgnCount": 3, "IdenReqIgnCount": 4, "5GSMobileId": 1, "MCC": "310", "MNC": "410",
   "FoR": 5, "TMSI": 123456, "AMFRegionId": 202, "AMFSetID": 1023, "AMFPointer": 63, "SyncFailure": 2,
   "MACFailure": 1, "SecurityModeReject": 9},
  {"Step": "Registration", "RegistrationType": "Emergency", "UEContextRequest": 0},
  {"Step": "Registration", "RegistrationType": "Weird"},
  {"Step": "Sleep"}, {"Step": "Sleep", "Time": 3}, {"Step": "Sleep", "Time": 1, "E": 0},
  {"Step": "ServiceRequest", "ServiceType": 2},
  {"Step": "UEContextReleaseRequest", "Cause": 5}, {"Step": "UEContextReleaseRequest", "CauseGroup": 1, "Cause": 5},
  {"Step": "DeRegistration", "SwitchOff": 2}, {"Step": "DeRegistration", "SwitchOff": 1},
  {"Step": "DeRegistration", "SwitchOff": 3},
  {"Step": "PDUSession"},
  {"Step": "PDUSession", "PDUSessions": [{"PDUSessionId": 1, "DNN": "internet"}, {"PDUSessionId": 2, "DNN": "ims",
   "ReqType": 2}, {"PDUSessionId": 3, "DNN": "x", "ReqType": 0}, {"PDUSessionId": 4}]},
  {"Step": "Dance"}])";

const std::string kCfg = R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 100, "IMSIPrefixWithZERO": 1, "LogLevel": {"APPLICATION": 5},
  "ScanarioFiles": [{"ID": 50, "File": "sc50.json"}, {"ID": 51, "File": "sc51.json", "Default": 1},
                    {"ID": 52, "File": "sc52.json", "Default": 1}, {"File": "noid.json"}]})";

const std::string kUel = R"([{"ID": 1, "MSINStart": "001010000000001", "MSINEnd": "001010000000020",
  "MSISDNBegin": "1", "MCC": "001", "MNC": "01"}])";

// A template for each Dict key that names one, and some that must not be found.
const std::string kTemplates = R"([
  {"Type": "NAS5G", "Templates": [
    {"Name": "reg", "MessageType": 65, "Elements": [{"ID": "2F", "ValueType": "Hex", "Value": "0101"}]},
    {"Name": "complete", "MessageType": 67, "Elements": [{"ID": "73"}]},
    {"Name": "est", "MessageType": 193, "Elements": [{"ID": "9-"}]},
    {"Name": "mod", "MessageType": 201, "Elements": [{"ID": "28"}]},
    {"Name": "rel", "MessageType": 209, "Elements": [{"ID": "59"}]},
    {"Name": "ul", "MessageType": 103, "Elements": [{"ID": "12"}]}]},
  {"Type": "NGAP", "Templates": [
    {"Name": "init", "ProcedureCode": 15, "ProtocolIEs": [{"ID": 85}]},
    {"Name": "up", "ProcedureCode": 46, "ProtocolIEs": [{"ID": 10}]}]},
  {"Type": "PFCP", "Templates": [
    {"Name": "p50", "MessageType": 50, "Elements": [{"IEType": 60}]},
    {"Name": "p52", "MessageType": 52, "Elements": [{"IEType": 57}]}]},
  {"Type": "PGW", "Templates": [
    {"Name": "g32", "MessageType": 32, "Elements": [{"IEType": 1}]},
    {"Name": "g34", "MessageType": 34, "Elements": [{"IEType": 1}]},
    {"Name": "g36", "MessageType": 36, "Elements": [{"IEType": 1}]}]},
  {"Type": "AAA", "Templates": [
    {"Name": "AAA-SWm-eap", "CmdCode": 268, "AVPs": [{"Code": 1}]},
    {"Name": "AAA-SWm-aa", "CmdCode": 265, "AVPs": [{"Code": 1}]},
    {"Name": "AAA-SWm-st", "CmdCode": 275, "AVPs": [{"Code": 1}]}]},
  {"Type": "CHF", "Templates": [{"Name": "CHF-Gy-ccr", "CmdCode": 272, "AVPs": [{"Code": 1}]}]},
  {"Type": "PCRF", "Templates": [{"Name": "PCRF-Gx-ccr", "CmdCode": 272, "AVPs": [{"Code": 1}]}]},
  {"Type": "HSS", "Templates": [
    {"Name": "HSS-S6a-ulr", "CmdCode": 316, "AVPs": [{"Code": 1}]},
    {"Name": "HSS-S6a-nr", "CmdCode": 323, "AVPs": [{"Code": 1}]},
    {"Name": "HSS-Sh-pur", "CmdCode": 307, "AVPs": [{"Code": 1}]},
    {"Name": "HSS-Cx-uar", "CmdCode": 300, "AVPs": [{"Code": 1}]},
    {"Name": "HSS-Cx-mar", "CmdCode": 303, "AVPs": [{"Code": 1}]}]}
])";

kst::EngineInDir* const gEnv = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(
    new kst::EngineInDir("scen", {{"cfg.json", kCfg},
                                  {"sc50.json", R"([{"Step": "Sleep", "Time": 0}])"},
                                  {"sc51.json", kRegFile},
                                  {"sc52.json", "[]"},
                                  {"resources/templates/steps.json", kTemplates},
                                  {"data/uel.json", kUel}})));

MV_KsUE* ue(int n) { return kst::ueOf001(n); }

// Builds a scenario of data/sce.json through the test path and returns it.
KsScanario* buildScenario(const std::string& config) {
    static uint32_t nextId = 70000;
    uint32_t id = ++nextId;
    json_error_t err;
    json_t* sc = json_loads(("{\"ID\": " + std::to_string(id) + ", \"Config\": " + config + "}").c_str(), 0, &err);
    EXPECT_NE(sc, nullptr) << err.text << " in " << config;
    json_array_append_new(__ksEngine->scenarios, sc);
    static KsTestExec tst{};
    tst.TestId = id;
    tst.ksScanario = nullptr;
    return Kestrane___createScanarioForKsTestExec(&tst, id);
}

KsStep* buildStep(uint32_t stepId, const std::string& dict = "[]") {
    KsScanario* sc = buildScenario("[{\"ID\": " + std::to_string(stepId) + ", \"Dict\": " + dict + "}]");
    EXPECT_NE(sc, nullptr);
    EXPECT_EQ(sc->totalSteps, 1) << stepId;
    return sc->stepHead;
}

std::string dict(std::initializer_list<std::pair<int, const char*>> kv) {
    std::string s = "[";
    for (const auto& [k, v] : kv) s += std::string(s.size() > 1 ? "," : "") + "{\"Key\": " + std::to_string(k) +
                                      ", \"Value\": \"" + v + "\"}";
    return s + "]";
}

// ---------------------------------------------------------------- the catalogue walk

struct Block {
    uint32_t firstId, count, firstCode, firstIndex;
    const char* runner;
};

// Scenario step ids, codes and runner indexes as a user's reference gives them.
const Block kBlocks[] = {
    {1, 1, 1, 1, "KsNAS__runStep_FQ"},         {2, 1, 6, 2, "KsNAS__runStep_FQ"},
    {3, 1, 2, 3, "KsNAS__runStep_FQ"},         {4, 1, 5, 1, "KsNAS__runStep_FQ"},
    {5, 1, 3, 5, "KsNAS__runStep_FQ"},         {6, 1, 4, 6, "KsNAS__runStep_FQ"},
    {7, 1, 27, 7, "KsNAS__runStep_FQ"},        {1001, 3, 39, 1001, "KsPFCP__runStep_FQ"},
    {1004, 1, 43, 1004, "KsPFCP__runStep_FQ"}, {2001, 5, 119, 3001, "KsSGW__runStep_FQ"},
    {2006, 1, 124, 3006, "KsSGW__runStep_FQ"}, {3001, 5, 95, 2001, "KsPGW__runStep_FQ"},
    {3006, 1, 116, 2006, "KsPGW__runStep_FQ"}, {4001, 6, 29, 4001, "KsS1AP__runStep_FQ"},
    {4901, 3, 200, 4901, "KsGGSN__runStep_FQ"}, {5001, 1, 87, 5001, "Ks4GEIR__runStep_FQ"},
    {6001, 1, 88, 6001, "Ks5GEIR__runStep_FQ"}, {7001, 17, 128, 7001, "KsAAA__runStep_FQ"},
    {8001, 4, 145, 8001, "KsCHF__runStep_FQ"}, {9001, 6, 89, 9001, "KsPCRF__runStep_FQ"},
    {10001, 14, 71, 10001, "KsHSS__runStep_FQ"}, {11001, 3, 125, 11001, "KsSMF__runStep_FQ"},
};

// Runs the UE's one step through the FSM dispatch on this thread.
void dispatch(MV_KsUE* u, KsScanario* sc) {
    u->ksScanario = sc;
    KsScanario__CreateKsStepExecutions(u, 0);
    Kestrane___runStepFSM(u);
}

TEST(Catalogue, EveryStepIdBuildsItsStepAndReachesItsRunner) {
    size_t count = 0;
    KsScanario__Catalogue(&count);
    size_t expected = 0;
    MV_KsUE* u = ue(1);
    for (const Block& b : kBlocks) {
        for (uint32_t i = 0; i < b.count; ++i, ++expected) {
            uint32_t id = b.firstId + i;
            SCOPED_TRACE("step id " + std::to_string(id));
            // A sleep of 0 seconds completes at once instead of waiting for a timer.
            KsScanario* sc = buildScenario("[{\"ID\": " + std::to_string(id) + (id == 3 ? R"(, "Dict": [{"Key": 3, "Value": "0"}]})" : "}") + "]");
            ASSERT_NE(sc, nullptr);
            ASSERT_EQ(sc->totalSteps, 1);
            KsStep* st = sc->stepHead;
            EXPECT_EQ(st->StepCode, b.firstCode + i);
            EXPECT_EQ(st->StepIndex, b.firstIndex + i);
            EXPECT_STREQ(Kestrane___runnerNameOfStepIndex(st->StepIndex), b.runner);
            for (MV_Template* t : {st->nas5G_regTemplate, st->ngap_initUEMessTemplate, st->ngap_uplinkNASTranTemplate,
                                   st->nas5G_pduSessionTemplate, st->nas5G_ulNASTransport})
                EXPECT_EQ(t, nullptr);
            // A family whose module is in this build runs the step itself; the others say so.
            if (id == 3 || KsEngine__RunnerOfStepIndex(st->StepIndex)) continue;
            dispatch(u, sc);
            std::string line = "StepCode=" + std::to_string(st->StepCode) + " has no runner in this build (" + b.runner + ")";
            EXPECT_NE(gEnv->appLog().find(line), std::string::npos) << line;
        }
    }
    EXPECT_EQ(count, expected) << "no builder beyond these";
    size_t withBuilder = 0;
    for (uint32_t id = 0; id <= 200000; ++id) withBuilder += KsScanario__GetStepBuilder(id) != nullptr;
    EXPECT_EQ(withBuilder, expected);
}

TEST(Catalogue, DefaultsOfTheStepsThatHaveThem) {
    KsStep* reg = buildStep(1);
    EXPECT_EQ(reg->RegistrationType, 1u);
    EXPECT_EQ(reg->FoR, 0u);
    EXPECT_EQ(reg->UEContextRequest, 0u);
    for (uint32_t f : {reg->EA0, reg->EA1, reg->EA2, reg->IA0, reg->IA1, reg->IA2}) EXPECT_EQ(f, 1u);
    KsStep* pdu = buildStep(2);
    ASSERT_NE(pdu->pduSessionHead, nullptr);
    EXPECT_EQ(pdu->pduSessionHead->Next, nullptr) << "one session entry";
    EXPECT_EQ(pdu->pduSessionHead->PDUSessionRequestType, uint32_t(KS_STEP__PDU_SESSION_ESTABLISHMENT_REQUEST));
    EXPECT_EQ(buildStep(3)->SleepTime, 10u);
    KsStep* rel = buildStep(4);
    EXPECT_EQ(rel->CauseGroup, 2);
    EXPECT_EQ(rel->Cause, 0);
    EXPECT_EQ(buildStep(5)->ServiceType, 0u);
    EXPECT_EQ(buildStep(6)->Cause, 0);
    KsStep* data = buildStep(7);
    EXPECT_EQ(data->PacketCount, 0u);
    EXPECT_EQ(data->PacketDuration, 0u);
}

// ---------------------------------------------------------------- Dict keys

// The template a slot holds, by name; "" for none.
std::string named(const MV_Template* t) { return t ? KsTemplateEng__GetTemplateName(t) : ""; }

TEST(Catalogue, DictKeysOverrideDefaultsInArrayOrder) {
    struct Case {
        const char* what;
        uint32_t id;
        std::string dict;
        std::function<void(KsStep*)> check;
    };
    const std::vector<Case> cases = {
        {"registration type 2 is 3", 1, dict({{1, "2"}}), [](KsStep* s) { EXPECT_EQ(s->RegistrationType, 3u); }},
        {"registration type 3 is 2", 1, dict({{1, "3"}}), [](KsStep* s) { EXPECT_EQ(s->RegistrationType, 2u); }},
        {"registration type 7 is 1", 1, dict({{1, "7"}}), [](KsStep* s) { EXPECT_EQ(s->RegistrationType, 1u); }},
        {"FoR", 1, dict({{5, "1"}}), [](KsStep* s) { EXPECT_EQ(s->FoR, 1u); }},
        {"FoR only for 1", 1, dict({{5, "2"}}), [](KsStep* s) { EXPECT_EQ(s->FoR, 0u); }},
        {"context request", 1, dict({{16, "1"}}),
         [](KsStep* s) {
             EXPECT_EQ(s->InitialContextRequest, 1u);
             EXPECT_EQ(s->UEContextRequest, 1u);
         }},
        {"unknown key ignored", 1, dict({{99, "5"}}), [](KsStep* s) { EXPECT_EQ(s->RegistrationType, 1u); }},
        {"last of a key wins", 3, dict({{3, "5"}, {3, "7"}}), [](KsStep* s) { EXPECT_EQ(s->SleepTime, 7u); }},
        {"sleep seconds", 3, dict({{3, "0"}}), [](KsStep* s) { EXPECT_EQ(s->SleepTime, 0u); }},
        {"sleep not a number", 3, dict({{3, "abc"}}), [](KsStep* s) { EXPECT_EQ(s->SleepTime, 10u); }},
        {"sleep past the wheel", 3, dict({{3, "21600"}}), [](KsStep* s) { EXPECT_EQ(s->SleepTime, 10u); }},
        {"numeric Key and Value", 3, R"([{"Key": "3", "Value": 4}])", [](KsStep* s) { EXPECT_EQ(s->SleepTime, 4u); }},
        {"release causes", 4, dict({{8, "1"}, {9, "3"}}),
         [](KsStep* s) {
             EXPECT_EQ(s->CauseGroup, 1);
             EXPECT_EQ(s->Cause, 3);
         }},
        {"service type", 5, dict({{7, "2"}}), [](KsStep* s) { EXPECT_EQ(s->ServiceType, 2u); }},
        {"deregistration 0", 6, dict({{6, "0"}}), [](KsStep* s) { EXPECT_EQ(s->Cause, 0); }},
        {"deregistration 1", 6, dict({{6, "1"}}), [](KsStep* s) { EXPECT_EQ(s->Cause, 0); }},
        {"deregistration 2 switches off", 6, dict({{6, "2"}}), [](KsStep* s) { EXPECT_EQ(s->Cause, 1); }},
        {"deregistration 3", 6, dict({{6, "3"}}), [](KsStep* s) { EXPECT_EQ(s->Cause, 0); }},
        {"PDU session entry", 2, dict({{4, "5"}, {12, "internet"}, {2, "3"}}),
         [](KsStep* s) {
             EXPECT_EQ(s->pduSessionHead->PDUSessionId, 5);
             EXPECT_STREQ(s->pduSessionHead->DNNName, "internet");
             EXPECT_EQ(s->pduSessionHead->PDUSessionRequestType, 3u);
         }},
        {"PDU request kind out of range", 2, dict({{2, "9"}}),
         [](KsStep* s) { EXPECT_EQ(s->pduSessionHead->PDUSessionRequestType, 1u); }},
        {"data TPDU session and count", 7, dict({{4, "3"}, {24, "7"}}),
         [](KsStep* s) {
             EXPECT_EQ(s->PDUSessionId, 3u);
             EXPECT_EQ(s->InitialContextRequest, 3u);
             EXPECT_EQ(s->PacketCount, 7u);
         }},
        {"data TPDU duration", 7, dict({{23, "1"}, {24, "60"}}),
         [](KsStep* s) {
             EXPECT_EQ(s->PacketDuration, 60u);
             EXPECT_EQ(s->PacketCount, 0u);
         }},
        {"data TPDU selector 2 sets nothing", 7, dict({{23, "2"}, {24, "9"}}),
         [](KsStep* s) {
             EXPECT_EQ(s->PacketDuration, 0u);
             EXPECT_EQ(s->PacketCount, 0u);
         }},
        {"PFCP packets: key 4 is the session only", 1004, dict({{4, "2"}, {24, "11"}}),
         [](KsStep* s) {
             EXPECT_EQ(s->PDUSessionId, 2u);
             EXPECT_EQ(s->InitialContextRequest, 0u);
             EXPECT_EQ(s->PacketCount, 11u);
         }},
        {"SGW packets", 2006, dict({{4, "1"}, {23, "1"}, {24, "30"}}),
         [](KsStep* s) { EXPECT_EQ(s->PacketDuration, 30u); }},
        {"PGW packets", 3006, dict({{4, "4"}}), [](KsStep* s) { EXPECT_EQ(s->PDUSessionId, 4u); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        c.check(buildStep(c.id, c.dict));
    }
}

TEST(Catalogue, TemplateKeysFindTheirTemplateByInterfaceAndMessage) {
    struct Case {
        uint32_t id;
        std::string dict;
        const char* want;  // in nas5G_regTemplate, unless check says otherwise
        std::function<void(KsStep*)> check;
    };
    const std::vector<Case> cases = {
        {1, dict({{17, "reg"}, {18, "init"}, {19, "up"}}), "reg",
         [](KsStep* s) {
             EXPECT_EQ(named(s->ngap_initUEMessTemplate), "init");
             EXPECT_EQ(named(s->ngap_uplinkNASTranTemplate), "up");
         }},
        {1, dict({{17, "complete"}}), "", nullptr},  // a NAS template of another message
        {1, dict({{18, "reg"}, {19, "init"}}), "",
         [](KsStep* s) {
             EXPECT_EQ(s->ngap_initUEMessTemplate, nullptr) << "reg is no NGAP template";
             EXPECT_EQ(s->ngap_uplinkNASTranTemplate, nullptr) << "init is not an uplink NAS transport";
         }},
        {2, dict({{2, "2"}, {20, "mod"}, {21, "ul"}}), "",
         [](KsStep* s) {
             EXPECT_EQ(named(s->nas5G_pduSessionTemplate), "mod");
             EXPECT_EQ(named(s->nas5G_ulNASTransport), "ul");
         }},
        {2, dict({{2, "1"}, {20, "est"}}), "", [](KsStep* s) { EXPECT_EQ(named(s->nas5G_pduSessionTemplate), "est"); }},
        {2, dict({{2, "3"}, {20, "rel"}}), "", [](KsStep* s) { EXPECT_EQ(named(s->nas5G_pduSessionTemplate), "rel"); }},
        {2, dict({{2, "1"}, {20, "mod"}}), "", [](KsStep* s) { EXPECT_EQ(s->nas5G_pduSessionTemplate, nullptr); }},
        {2, dict({{20, "est"}, {2, "1"}}), "", [](KsStep* s) { EXPECT_EQ(s->nas5G_pduSessionTemplate, nullptr); }},
        {1001, dict({{22, "p50"}}), "p50", nullptr},
        {1001, dict({{22, "p52"}}), "", nullptr},
        {1002, dict({{22, "p52"}}), "p52", nullptr},
        {1003, dict({{22, "p50"}}), "", nullptr},
        {3001, dict({{22, "g32"}}), "g32", nullptr},
        {3002, dict({{22, "g32"}}), "", nullptr},
        {3003, dict({{22, "g34"}}), "g34", nullptr},
        {3005, dict({{22, "g36"}}), "g36", nullptr},
        {3005, dict({{22, "p50"}}), "", nullptr},  // a PFCP template is no PGW template
        {7004, dict({{22, "AAA-SWm-eap"}}), "", nullptr},
        {7005, dict({{22, "AAA-SWm-eap"}}), "AAA-SWm-eap", nullptr},
        {7006, dict({{22, "AAA-SWm-aa"}}), "AAA-SWm-aa", nullptr},
        {7007, dict({{22, "AAA-SWm-st"}}), "AAA-SWm-st", nullptr},
        {8001, dict({{22, "CHF-Gy-ccr"}}), "CHF-Gy-ccr", nullptr},
        {8002, dict({{22, "CHF-Gy-ccr"}}), "", nullptr},
        {9001, dict({{22, "PCRF-Gx-ccr"}}), "PCRF-Gx-ccr", nullptr},
        {9004, dict({{22, "PCRF-Gx-ccr"}}), "PCRF-Gx-ccr", nullptr},
        {9002, dict({{22, "PCRF-Gx-ccr"}}), "", nullptr},
        {10001, dict({{22, "HSS-S6a-ulr"}}), "HSS-S6a-ulr", nullptr},
        {10001, dict({{22, "HSS-Cx-uar"}}), "", nullptr},
        {10004, dict({{22, "HSS-S6a-nr"}}), "HSS-S6a-nr", nullptr},
        {10006, dict({{22, "HSS-Sh-pur"}}), "HSS-Sh-pur", nullptr},
        {10009, dict({{22, "HSS-Cx-uar"}}), "HSS-Cx-uar", nullptr},
        {10012, dict({{22, "HSS-Cx-mar"}}), "HSS-Cx-mar", nullptr},
        {10013, dict({{22, "HSS-Cx-mar"}}), "", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("step id " + std::to_string(c.id) + " " + c.dict);
        KsStep* st = buildStep(c.id, c.dict);
        EXPECT_EQ(named(st->nas5G_regTemplate), c.want);
        if (c.check) c.check(st);
    }
    EXPECT_NE(gEnv->appLog().find("Template=[complete] Interface=NAS5G SubType=-1 MessageType=65 not found"),
              std::string::npos);
    EXPECT_NE(gEnv->appLog().find("Template=[HSS-Cx-uar] Interface=HSS SubType=1 MessageType=316 not found"),
              std::string::npos);
}

TEST(Catalogue, IdsOutOfRangeOrWithoutBuilderAreSkippedWithTheirLines) {
    KsScanario* sc = buildScenario(R"([{"ID": 0}, {"ID": 200000}, {"ID": 8}, {"ID": 3}, {"ID": 12000}, {"ID": 199999},
                                       {"Dict": []}, {"ID": 6}])");
    ASSERT_NE(sc, nullptr);
    ASSERT_EQ(sc->totalSteps, 2);
    EXPECT_EQ(sc->stepHead->StepCode, uint32_t(KS_STEP__SLEEP));
    EXPECT_EQ(sc->stepHead->Next->StepCode, uint32_t(KS_STEP__DEREGISTRATION)) << "steps keep the array order";
    std::string log = gEnv->appLog();
    for (const char* id : {"0", "200000"})
        EXPECT_NE(log.find(std::string("Creating Scanario for StepID=") + id + " Failed, StepID NOT-IN-RANGE"),
                  std::string::npos)
            << id;
    for (const char* id : {"8", "12000", "199999"})
        EXPECT_NE(log.find(std::string("Creating Scanario for StepID=") + id + " Failed, no step builder"),
                  std::string::npos)
            << id;
}

TEST(Catalogue, StepNamesForTheLogs) {
    EXPECT_STREQ(step_names[0], "INVALID_STEP-0");
    EXPECT_STREQ(step_names[1], "KS_STEP__REGISTRATION");
    EXPECT_STREQ(step_names[8], "CLEAR_GUTI");
    EXPECT_STREQ(step_names[11], "XN_HANDOVER");
    EXPECT_STREQ(step_names[12], "KS_STEP__TEST_TPDU");
    EXPECT_STREQ(step_names[22], "22");
    EXPECT_STREQ(step_names[74], "KS_STEP__HSS_NOTIFY_REQUEST");
    EXPECT_STREQ(step_names[75], "KS_STEP__HSS_SH_User-Data-Request");
    EXPECT_STREQ(step_names[84], "KS_STEP__HSS_Cx_Push-Profile-Request");
    EXPECT_STREQ(step_names[85], "KS_STEP__HSS_SWx_MAR");
    EXPECT_STREQ(step_names[206], "KS_STEP__GGSN_CLEAR_ALL_SESSIONS");
    EXPECT_STREQ(KsScanario__StepName(207), "INVALID_STEP-0");
}

// ---------------------------------------------------------------- scenario files

TEST(ScenarioFiles, LoadedByIdWithTheFirstDefault) {
    KsScanario* sc50 = KsScanario__getByScID(50);
    KsScanario* sc51 = KsScanario__getByScID(51);
    KsScanario* sc52 = KsScanario__getByScID(52);
    ASSERT_NE(sc50, nullptr);
    ASSERT_NE(sc51, nullptr);
    ASSERT_NE(sc52, nullptr);
    EXPECT_STREQ(sc51->FileName, "sc51.json");
    EXPECT_EQ(sc50->IsDefault, 0u);
    EXPECT_EQ(__ksEngine->ksScanarioDefault, sc51) << "the first default of the list";
    EXPECT_EQ(sc52->IsDefault, 1u);
    EXPECT_EQ(sc52->totalSteps, 0);
    EXPECT_EQ(KsScanario__getByScID(10001), nullptr) << "a default exists, so no built-in one is made";
    EXPECT_EQ(sc50->totalSteps, 1);
    EXPECT_EQ(sc50->stepHead->SleepTime, 0u);
}

TEST(ScenarioFiles, EveryStepKindWithItsKeys) {
    KsScanario* sc = KsScanario__getByScID(51);
    std::vector<KsStep*> s;
    for (KsStep* st = sc->stepHead; st; st = st->Next) s.push_back(st);
    // E 0, a PDU step without its array and an unknown kind add nothing.
    ASSERT_EQ(s.size(), 12u);
    KsStep* r = s[0];
    EXPECT_EQ(r->StepCode, uint32_t(KS_STEP__REGISTRATION));
    EXPECT_EQ(r->StepIndex, 1u);
    EXPECT_EQ(r->RegistrationType, 3u);
    ASSERT_NE(r->UserLocationInformation, nullptr);
    EXPECT_EQ(json_integer_value(json_object_get(r->UserLocationInformation, "TAC")), 7);
    EXPECT_EQ(r->AuthenticationRequestIgnoreCount, 2);
    EXPECT_EQ(r->SecurityModeCommandIgnoreCount, 3);
    EXPECT_EQ(r->IdentityRequestIgnoreCount, 4);
    EXPECT_STREQ(r->mcc, "310");
    EXPECT_STREQ(r->mnc, "410");
    EXPECT_EQ(r->FoR, 1u) << "a flag: non-zero is 1";
    EXPECT_EQ(r->Tmsi, 123456u);
    EXPECT_EQ(r->AMFRegionId, 202);
    EXPECT_EQ(r->AMFSetID, 1023);
    EXPECT_EQ(r->AMFPointer, 63);
    EXPECT_EQ(r->UEContextRequest, 1u) << "default 1";
    EXPECT_EQ(r->SyncFailure, 1u);
    EXPECT_EQ(r->MACFailure, 1u);
    EXPECT_EQ(r->SecurityModeReject, 1u);
    EXPECT_EQ(s[1]->RegistrationType, 4u);
    EXPECT_EQ(s[1]->UEContextRequest, 0u);
    EXPECT_EQ(s[2]->RegistrationType, 1u) << "an unsupported type is reported and read as initial";
    EXPECT_EQ(s[3]->SleepTime, 10u);
    EXPECT_EQ(s[4]->SleepTime, 3u);
    EXPECT_EQ(s[5]->StepCode, uint32_t(KS_STEP__SERVICE_REQUEST));
    EXPECT_EQ(s[5]->ServiceType, 2u);
    EXPECT_EQ(s[6]->StepCode, uint32_t(KS_STEP__UE_CONTEXT_RELEASE_REQUEST));
    EXPECT_EQ(s[6]->CauseGroup, 2);
    EXPECT_EQ(s[6]->Cause, 0) << "Cause is read only with CauseGroup";
    EXPECT_EQ(s[7]->CauseGroup, 1);
    EXPECT_EQ(s[7]->Cause, 5);
    EXPECT_EQ(s[8]->Cause, 1);
    EXPECT_EQ(s[9]->Cause, 0);
    EXPECT_EQ(s[10]->Cause, 0);
    EXPECT_EQ(s[10]->StepCode, uint32_t(KS_STEP__DEREGISTRATION));
    KsStep* pdu = s[11];
    EXPECT_EQ(pdu->StepCode, uint32_t(KS_STEP__PDU_SESSION));
    std::vector<std::tuple<int, std::string, uint32_t>> entries;
    for (__ks_pduSessionInfo* p = pdu->pduSessionHead; p; p = p->Next)
        entries.emplace_back(p->PDUSessionId, p->DNNName, p->PDUSessionRequestType);
    EXPECT_EQ(entries, (std::vector<std::tuple<int, std::string, uint32_t>>{
                           {1, "internet", 1}, {2, "ims", 2}, {3, "x", 1}}))
        << "an entry without DNN is left out";
}

const std::string kBinary = KS_ENGINE_BINARY;

TEST(ScenarioFiles, BrokenFileStopsStartUpWithItsText) {
    struct Case {
        const char* name;
        std::string content;
        const char* text;
    };
    const Case cases[] = {
        {"broken JSON", "[{\"Step\": ", "error loading scanario-config id=7 file:bad.json  error:["},
        {"not an array", "{}", "error loading scanario-config id=7 file:bad.json  error:[not a JSON array of steps]"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto r = kst::runEngineBinary(
            kBinary,
            {{"cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 10, "ScanarioFiles": [{"ID": 7, "File": "bad.json"}]})"},
             {"bad.json", c.content}}, 60);
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.exitStatus, 0);
        EXPECT_NE(r.out.find(c.text), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find("Initalization of KsTest is completed"), std::string::npos);
    }
    auto missing = kst::runEngineBinary(
        kBinary, {{"cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 10, "ScanarioFiles": [{"ID": 8, "File": "no.json"}]})"}}, 60);
    EXPECT_EQ(missing.exitStatus, 0);
    EXPECT_NE(missing.out.find("error loading scanario-config id=8 file:no.json  error:[unable to open"), std::string::npos);
}

TEST(ScenarioFiles, UnknownStepsAndMissingArraysAreReported) {
    auto r = kst::runEngineBinary(kBinary,
                                  {{"cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 10,
                                     "ScanarioFiles": [{"ID": 51, "File": "sc.json"}, {"File": "noid.json"}]})"},
                                   {"sc.json", kRegFile}}, 60);
    EXPECT_NE(r.out.find("Unsupported RegistrationType configured for step=[2] in scanario file=[sc.json]"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("PDUSessions TAG not configured, unable to load this step"), std::string::npos);
    EXPECT_NE(r.out.find("Step[Dance] NOT implemented in scanario file[sc.json]"), std::string::npos);
    EXPECT_NE(r.out.find("ScanarioFiles element 1 skipped: ID and File are required"), std::string::npos);
    EXPECT_NE(r.out.find("Initalization of KsTest is completed"), std::string::npos);
}

}  // namespace
