// The engine binary's UEs against the real 5G core of the machine (under its lock): 300 UEs, a
// hundred with each SUCI scheme (null, profile A, profile B), register with 5G-AKA and the
// security mode command, open a PDU session for DNN internet and deregister. The registration
// template asks for SST 1 alone, a slice the core's subscribers have.
//
// The core's service-based interfaces open a TCP connection per request against a listen queue
// of five, so some of its internal requests fail under any load: a UE whose registration or
// deregistration the core drops retries after its step timer, and a few may still fail on the
// core's side. The test holds the engine to what it controls (every accept answered, no NGAP
// error, nothing malformed on the wire, every scheme accepted) and the core to nine in ten.
#include <gtest/gtest.h>
#include <jansson.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "e2e_ctl.h"
#include "engine_child.h"
#include "ks_rig.h"
#include "ks_tshark.h"

namespace {

constexpr int kUes = 300;
const std::string kEngineIp = kst::kRigEngineIp;

// The engine's console of this test.
std::string ctl(const std::string& args, int* status = nullptr) { return kse2e::ctl(kEngineIp, args, status); }
long stat(const std::string& name) { return kse2e::stat(kEngineIp, name); }
using kse2e::counters;

// UEs of one SUCI scheme: IMSIs first..first+99.
std::string ueRange(int id, int first, int scheme, int keyId, const char* key) {
    char b[700];
    snprintf(b, sizeof b,
             R"({"ID": %d, "MSINStart": "00101%010d", "MSINEnd": "00101%010d", "IMEI": "356938035643800",
                 "MCC": "001", "MNC": "01", "SubKey": "465B5CE8B199B49FAA5F0A2EE238A6BC",
                 "OPC": "E8ED289DEBA952E4283B54E88E6183CA", "MSISDNBegin": "9000000001", "APN": "internet",
                 "ProtectionScheme": %d, "HomeNetworkPublicKeyId": %d, "HomeNetworkPublicKey": "%s"})",
             id, first, first + 99, scheme, keyId, key);
    return b;
}

// The home network keys the core's UDM holds: id 1 profile A, id 2 profile B (compressed).
constexpr const char* kProfileAKey = "e421686f6fb2d70e3fa28d940494095686c3179fef53514667a6ed106b8a7d3d";
constexpr const char* kProfileBKey = "03adefcd1317d1ce8562ec25b91b4800120e1236d6e2661ea4235a84e3c85da244";

// Registrations the AMF logged complete for IMSIs first..first+99.
int completedAtAmf(const std::string& log, int first) {
    int n = 0;
    for (int i = first; i < first + 100; ++i) {
        char imsi[64];
        snprintf(imsi, sizeof imsi, "[imsi-00101%010d] Registration complete", i);
        n += log.find(imsi) != std::string::npos;
    }
    return n;
}

// The error lines of a log, at most 40 of them.
std::string errorsOf(const std::string& log) {
    std::string out;
    int n = 0;
    for (size_t p = 0; p < log.size() && n < 40;) {
        size_t end = log.find('\n', p);
        if (end == std::string::npos) end = log.size();
        if (log.compare(p, 3, "[E]") == 0) out += log.substr(p, end - p + 1), ++n;
        p = end + 1;
    }
    return out;
}

TEST(UeRealCore, RegistrationSessionAndDeregistrationWithEverySuciScheme) {
    if (std::string why = kst::rigMissing(); !why.empty()) GTEST_SKIP() << why << ": no AMF to register with";
    kst::RigLock lock;
    if (!lock.take(600)) GTEST_SKIP() << "the real core stayed in use by another run for 10 minutes (/tmp/ksrig.lock)";
    kst::RigCore core("uereal");
    ASSERT_TRUE(core.start()) << kst::readFile(core.log());
    std::string pcap = ::testing::TempDir() + "/ue_real_" + std::to_string(getpid()) + ".pcapng";
    kst::RigCapture capture(pcap, "sctp");
    ASSERT_TRUE(kst::waitFor([&] { return kst::pathExists(pcap); }, 90)) << "tshark does not capture on ksrig0";

    std::string templates = R"({"Type": "NAS5G", "Templates": [{"Name": "reg-sst1", "MessageType": 65, "Elements": [
        {"ID": "10", "ValueType": "UEProperty"}, {"ID": "2E", "ValueType": "UEProperty"},
        {"ID": "2F", "ValueType": "Json", "Value": {"Hex": "0101"}}, {"ID": "53", "ValueType": "Hex", "Value": "01"}]}]})";
    kst::EngineChild e(
        KS_ENGINE_BINARY,
        {{"amf.json", R"([{"ID": 1, "IP1": ")" + std::string(kst::kRigUpfIp) +
                          R"(", "IP2": "", "Port": 38412, "Enabled": 1, "KsTE": 1}])"},
         {"ran.json", R"([{"ID": 1, "Name": "gnb", "MCC": "001", "MNC": "01", "Enabled": 1, "RANCount": 1, "KsTE": 1,
            "SupportedTAList": "[{\"TAC\": 1, \"BroadcastPLMNList\": [{\"MCC\": \"001\", \"MNC\": \"01\", \"TAISliceSupportList\": [{\"SST\": 1}]}]}]"}])"},
         {"sce.json", R"([{"ID": 1, "Name": "life", "AppType": 0, "Config": [
            {"ID": 1, "Dict": [{"Key": 17, "Value": "reg-sst1"}]},
            {"ID": 2, "Dict": [{"Key": 4, "Value": "1"}, {"Key": 12, "Value": "internet"}]}, {"ID": 6}]}])"},
         // One UE at a time: a burst of registrations overflows the core's listen queues.
         {"tst.json", R"([{"ID": 1, "Name": "life", "AppType": 0, "ScenarioID": 1, "EndAction": 0, "MPS": 100,
            "Concurrent": 1, "NoOfTimes": 1, "SUPIStartNo": "001010000000001", "SUPIStartEnd": "001010000000300"}])"},
         {"uel.json", "[" + ueRange(1, 1, 0, 0, "") + "," + ueRange(2, 101, 1, 1, kProfileAKey) + "," +
                          ueRange(3, 201, 2, 2, kProfileBKey) + "]"},
         {"../resources/templates/nas5g.json", templates}},
        R"("LocalAddress": {"IPVersion": 4, "IP": [")" + kEngineIp + R"("]}, "CLIPort": 9119, "StartNGRAN": 1,
            "SCTPBackend": "userspace", "MaximumUE": 1000, "DefaultTimeoutSeconds": 7)",
        false);
    e.host = kEngineIp;
    ASSERT_TRUE(e.waitForConsole(30)) << e.out();
    int st = -1;
    ctl("latch 10000", &st);
    ASSERT_EQ(st, 0);
    ASSERT_TRUE(kst::waitFor([&] { return stat("ExecutingTestCaseCount") >= kUes; }, 60)) << ctl("stats");
    auto t0 = std::chrono::steady_clock::now();
    ctl("start 1", &st);
    ASSERT_EQ(st, 0);
    ctl("wait 1 --max-seconds 400", &st);
    ASSERT_EQ(st, 0) << e.out() << e.log("app");
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::map<std::string, long> c = counters(ctl("--json status 1 --app-type 1"));
    printf("real core: %d UEs in %.1f s (%.0f a second); registrations accepted %ld, sessions %ld, deregistrations "
           "%ld, step time-outs %ld, registration requests %ld\n",
           kUes, seconds, kUes / seconds, c["RegistrationAccept"], c["PDUSessionEstablishmentAccept"],
           c["DeregistrationAccept"], c["ExecutionTimeout"], c["RegistrationRequest"]);

    // What the engine controls.
    EXPECT_EQ(c["RegistrationComplete"], c["RegistrationAccept"]) << "every accept answered";
    EXPECT_EQ(c["SecurityModeComplete"], c["SecurityModeCommand"]);
    EXPECT_EQ(stat("NGAPErrors"), 0);
    // NAS input the UE could not take comes from the core's own failures (a transport carrying a
    // cause instead of the message); shown, not held against the engine.
    if (long n = stat("NASErrors"); n != 0) printf("NAS input dropped: %ld\n%s", n, errorsOf(e.log("app")).c_str());
    EXPECT_EQ(c["PDUSessionEstablishmentReject"], 0);
    // What the core managed.
    EXPECT_GE(c["RegistrationAccept"], kUes * 9 / 10);
    EXPECT_GE(c["PDUSessionEstablishmentAccept"], kUes * 9 / 10);
    EXPECT_GE(c["DeregistrationAccept"], kUes * 9 / 10);
    e.stop(SIGTERM);
    capture.stop();

    // The AMF's own log: each SUCI scheme's UEs registered.
    std::string amf = kst::readFile("/var/lib/ksrig/log/amf.log");
    EXPECT_GE(completedAtAmf(amf, 1), 80) << "null scheme";
    EXPECT_GE(completedAtAmf(amf, 101), 80) << "profile A";
    EXPECT_GE(completedAtAmf(amf, 201), 80) << "profile B";

    // tshark: nothing malformed either way; the SUCIs of all three schemes and the DNN on the wire.
    if (!kst::tsharkAvailable()) return;
    std::string out;
    EXPECT_EQ(kst::runCommand("sh " KS_WSDECODE " -q -o nas-5gs.null_decipher:TRUE -r " + pcap + " ngap 2>&1", &out), 0)
        << out.substr(0, 4000);
    out.clear();
    kst::runCommand("tshark -n -r " + pcap +
                        " -o nas-5gs.null_decipher:TRUE -Y nas-5gs -T fields -E occurrence=f"
                        " -e nas_5gs.mm.suci.scheme_id -e nas_5gs.cmn.dnn 2>/dev/null",
                    &out);
    for (const char* scheme : {"\n0\t", "\n1\t", "\n2\t"})
        EXPECT_NE(("\n" + out).find(scheme), std::string::npos) << "SUCI scheme " << scheme[1] << " on the wire";
    EXPECT_NE(out.find("internet"), std::string::npos);
}

}  // namespace
