// The engine's main job end to end, as the default run does it: the engine binary's gNB and
// UEs against the core answerer's process over SCTP, each in a network namespace of its own.
// A test of 200 UEs registers with 5G-AKA and security mode, opens a PDU session, sleeps and
// deregisters; the engine's counters, the answerer's own counters and tshark on the veth
// must all agree that every UE did so, and nothing on the wire may be malformed. NEA0 keeps
// the NAS readable to tshark.
#include <gtest/gtest.h>
#include <jansson.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "e2e_ctl.h"
#include "engine_child.h"
#include "netns.h"

namespace {

using kse::Netns;
constexpr int kUes = 200;

// The engine's console of this test.
std::string ctl(const std::string& args, int* status = nullptr) { return kse2e::ctl(Netns::A[0], args, status); }
long stat(const std::string& name) { return kse2e::stat(Netns::A[0], name); }
using kse2e::counters;

// The answerer's counter block printed at its end.
long answererCounter(const std::string& out, const std::string& name) {
    std::string key = "COUNTER " + name + " ";
    size_t p = out.rfind(key);
    return p == std::string::npos ? -1 : atol(out.c_str() + p + key.size());
}

// How many of the comma-separated values of a tshark field are `value`.
int count(const std::string& field, const std::string& value) {
    int n = 0;
    std::string all = "," + field + ",";
    for (size_t p = all.find("," + value + ","); p != std::string::npos; p = all.find("," + value + ",", p + 1)) ++n;
    return n;
}

TEST(UeLife, RegistrationSessionAndDeregistrationOfEveryUeAgainstTheCoreAnswererOverSctp) {
    if (!Netns::get().skipReason.empty()) GTEST_SKIP() << Netns::get().skipReason;
    std::string dir = kst::makeTempDir("uelife");
    kse::Peer core({CA_ANSWERER, "--bind", Netns::B[0], "--nea", "0", "--log-dir", dir + "/core/"});
    ASSERT_FALSE(core.waitLine("READY", 30).empty()) << "the core answerer did not start";
    std::unique_ptr<kse::Capture> cap;
    if (kse::Capture::present()) cap = std::make_unique<kse::Capture>(dir + "/n2.pcapng", "kva", "sctp");

    std::string a = Netns::A[0], b = Netns::B[0];
    kst::EngineChild e(
        KS_ENGINE_BINARY,
        {{"amf.json", R"([{"ID": 1, "IP1": ")" + b + R"(", "IP2": "", "Port": 38412, "Enabled": 1, "KsTE": 1}])"},
         {"ran.json", R"([{"ID": 1, "Name": "gnb", "MCC": "001", "MNC": "01", "Enabled": 1, "RANCount": 1, "KsTE": 1,
            "SupportedTAList": "[{\"TAC\": 1, \"BroadcastPLMNList\": [{\"MCC\": \"001\", \"MNC\": \"01\", \"TAISliceSupportList\": [{\"SST\": 1}]}]}]"}])"},
         {"sce.json", R"([{"ID": 1, "Name": "life", "AppType": 0, "Config": [{"ID": 1},
            {"ID": 2, "Dict": [{"Key": 4, "Value": "1"}, {"Key": 12, "Value": "internet"}]},
            {"ID": 3, "Dict": [{"Key": 3, "Value": "1"}]}, {"ID": 6}]}])"},
         {"tst.json", R"([{"ID": 1, "Name": "life", "AppType": 0, "ScenarioID": 1, "EndAction": 0, "MPS": 200,
            "NoOfTimes": 1, "SUPIStartNo": "001010000000001", "SUPIStartEnd": "001010000000200"}])"},
         {"uel.json", kst::readFile(KS_UEL)}},
        R"("LocalAddress": {"IPVersion": 4, "IP": [")" + a + R"("]}, "CLIPort": 9119, "StartNGRAN": 1,
            "SCTPBackend": "userspace", "MaximumUE": 1000)",
        false);
    e.host = a;
    ASSERT_TRUE(e.waitForConsole(30)) << e.out();
    // The gNB's NG Setup, then the UEs bound to it before the test starts.
    ASSERT_TRUE(kst::waitFor([&] { return kst::readLogDir(dir + "/core/app").find("NG Setup of") != std::string::npos; }, 30))
        << e.out();
    int st = -1;
    EXPECT_NE(ctl("latch 10000", &st).find("latching"), std::string::npos);
    EXPECT_EQ(st, 0);
    ctl("latch 5", &st);
    EXPECT_EQ(st, 1) << "the first rate stays for the life of the engine";
    ASSERT_TRUE(kst::waitFor([&] { return stat("ExecutingTestCaseCount") >= kUes; }, 30)) << ctl("stats");
    ctl("start 1", &st);
    ASSERT_EQ(st, 0);
    ctl("wait 1 --max-seconds 120", &st);
    ASSERT_EQ(st, 0) << e.out() << e.log("app");
    std::map<std::string, long> c = counters(ctl("--json status 1 --app-type 1"));
    for (const char* name : {"RegistrationRequest", "AuthenticationResponse", "SecurityModeComplete", "RegistrationAccept",
                             "RegistrationComplete", "PDUSessionEstablishmentRequest", "PDUSessionEstablishmentAccept",
                             "DeregistrationRequest", "DeregistrationAccept"})
        EXPECT_EQ(c[name], kUes) << name;
    EXPECT_EQ(c["PDUSessionEstablishmentReject"], 0);
    EXPECT_EQ(c["RegistrationReject"], 0);
    EXPECT_EQ(stat("UERegistered"), kUes);
    EXPECT_EQ(stat("UEDeRegistered"), kUes);
    EXPECT_EQ(stat("NGAPErrors"), 0);
    EXPECT_EQ(stat("NASErrors"), 0);

    // The answerer's own account.
    e.stop(SIGTERM);
    core.send("quit");
    std::string tail;
    for (std::string l; !(l = core.waitLine("", 10)).empty() && l != "END";) tail += l + "\n";
    EXPECT_EQ(answererCounter(tail, "ue.registered"), kUes) << tail;
    EXPECT_EQ(answererCounter(tail, "pdu.established"), kUes) << tail;
    EXPECT_EQ(answererCounter(tail, "ue.deregistered"), kUes) << tail;

    if (cap) {
        std::string all = cap->fields("-o nas-5gs.null_decipher:TRUE -e nas_5gs.mm.message_type -e nas_5gs.sm.message_type -e _ws.malformed "
                                      "-e _ws.expert.severity");
        ASSERT_FALSE(all.empty()) << "tshark read nothing";
        int registrations = 0, sessions = 0, malformed = 0, errors = 0;
        for (size_t pos = 0; pos < all.size();) {
            size_t end = all.find('\n', pos);
            std::string line = all.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
            pos = end == std::string::npos ? all.size() : end + 1;
            std::vector<std::string> f(1);
            for (char ch : line) {
                if (ch == '|') f.emplace_back();
                else f.back().push_back(ch);
            }
            if (f.size() < 4) continue;
            // A packet may bundle several messages: a field holds a value for each.
            registrations += count(f[0], "0x41");
            sessions += count(f[1], "0xc2");
            malformed += !f[2].empty();
            // 8 is an error-level expert item (4 is a warning).
            errors += ("," + f[3] + ",").find(",8388608,") != std::string::npos;
        }
        // The security mode complete carries the request again in its container.
        EXPECT_GE(registrations, kUes) << "registration requests tshark read";
        EXPECT_EQ(sessions, kUes) << "PDU session establishment accepts tshark read";
        EXPECT_EQ(malformed, 0);
        EXPECT_EQ(errors, 0);
    }
    kst::removeTree(dir);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    signal(SIGPIPE, SIG_IGN);  // the answerer may be gone when its control line is written
    if (!::testing::GTEST_FLAG(list_tests)) Netns::get().enter();
    return RUN_ALL_TESTS();
}
