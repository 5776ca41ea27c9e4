// The engine binary's gNBs against the AMF of the real core network (../shared/peers), with the
// configuration and lists the README gives for it, taken from the README itself: three gNBs
// complete NG Setup (the AMF's log and tshark on the engine's side of the veth say so), and
// SIGTERM ends their associations with an ABORT each, so the AMF drops them at once rather
// than after its heartbeats fail. The core is started for this test and stopped after it,
// under the machine's lock of the core.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "engine_child.h"
#include "ks_rig.h"
#include "netns.h"

namespace {

const std::string kEngine = KS_ENGINE_BINARY;
const std::string kReadme = KS_README;
const char* const kEngineIp = "10.200.0.1";
const char* const kAmfIp = "10.200.0.2";
const char* const kAmfLog = "/var/lib/ksrig/log/amf.log";

bool exists(const std::string& p) { return access(p.c_str(), F_OK) == 0; }

// The text of the code block that follows "<!-- example:NAME -->" in the README.
std::string readmeExample(const std::string& readme, const std::string& name) {
    size_t mark = readme.find("<!-- example:" + name + " -->");
    if (mark == std::string::npos) return "";
    size_t open = readme.find("```", mark);
    size_t body = open == std::string::npos ? open : readme.find('\n', open);
    size_t close = body == std::string::npos ? body : readme.find("\n```", body);
    return close == std::string::npos ? "" : readme.substr(body + 1, close - body);
}

std::vector<std::string> split(const std::string& text, char sep) {
    std::vector<std::string> out(1);
    for (char c : text) {
        if (c == sep) out.emplace_back();
        else out.back() += c;
    }
    return out;
}

// The AMF's log from `from` on, and the gNB count it last reported there (-1 before any).
int gnbCount(size_t from) {
    std::string log = kst::readFile(kAmfLog);
    log = from < log.size() ? log.substr(from) : "";
    const std::string key = "Number of gNBs is now ";
    size_t p = log.rfind(key);
    return p == std::string::npos ? -1 : atoi(log.c_str() + p + key.size());
}

TEST(GnbRealCore, ReadmeExampleSetsUpThreeGnbsAndSigtermDropsThemAtTheAmfAtOnce) {
    if (!exists("/opt/open5gs/bin/open5gs-amfd") || !exists(kst::rigDir() + "/start-core.sh"))
        GTEST_SKIP() << "the real core is not installed (install.sh of ../shared/peers/core): no AMF to set up with";
    if (geteuid() != 0) GTEST_SKIP() << "the real core runs in a network namespace, which needs root";
    if (!kse::Capture::present()) GTEST_SKIP() << "tshark is not installed: the wire cannot be checked";

    std::string readme = kst::readFile(kReadme);
    std::string cfg = readmeExample(readme, "kestrane.json"), amfs = readmeExample(readme, "data/amf.json"),
                rans = readmeExample(readme, "data/ran.json");
    ASSERT_FALSE(cfg.empty() || amfs.empty() || rans.empty()) << "the README's example for the real core is missing";
    size_t first = cfg.find('{'), last = cfg.rfind('}');
    ASSERT_TRUE(first != std::string::npos && last != std::string::npos && first < last);

    kst::RigLock lock;
    if (!lock.take(600)) GTEST_SKIP() << "the real core stayed in use by another run for 10 minutes (/tmp/ksrig.lock)";
    auto t0 = std::chrono::steady_clock::now();
    auto since = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(); };
    kst::RigCore core("gnb");
    ASSERT_TRUE(core.start()) << kst::readFile(core.log());
    size_t logFrom = kst::readFile(kAmfLog).size();
    printf("core started in %.1f s\n", since());
    std::string scratch = kst::makeTempDir("gnbreal");
    kse::Capture cap(scratch + "/engine.pcapng", "ksrig0", "sctp");
    ASSERT_TRUE(cap.ok()) << "tshark does not capture on ksrig0";

    // The README's configuration as it stands (its members come after the child's defaults).
    kst::EngineChild e(kEngine, {{"amf.json", amfs}, {"ran.json", rans}}, cfg.substr(first + 1, last - first - 1),
                       false);
    ASSERT_TRUE(kst::waitFor([&] { return gnbCount(logFrom) == 3 || !e.running(); }, 30))
        << e.out() << "\n" << kst::readFile(kAmfLog).substr(logFrom);
    ASSERT_TRUE(e.running()) << e.out();
    printf("three gNBs set up at %.1f s\n", since());
    std::string amfLog = kst::readFile(kAmfLog).substr(logFrom);
    for (const char* id : {"0x1", "0x2", "0x3"})
        EXPECT_NE(amfLog.find(std::string("IP[") + kEngineIp + "] GNB_ID[" + id + "]"), std::string::npos)
            << "the AMF's NGSetupRequest of gNB " << id << "\n" << amfLog;
    EXPECT_EQ(kst::countOccurrences(amfLog, "NG-Setup response"), 3u) << amfLog;
    EXPECT_GE(kst::countOccurrences(amfLog, "PLMN_ID[MCC:1 MNC:1]"), 3u) << "the AMF read 001/01";
    EXPECT_EQ(kst::countOccurrences(e.out(), "sctp connection success, connected to server at port :38412"), 3u);

    // SIGTERM: an ABORT for each association, and the AMF's count falls to 0 at once,
    // not after its heartbeats fail (about 105 s).
    auto signalled = std::chrono::steady_clock::now();
    EXPECT_EQ(e.stop(SIGTERM), 0);
    ASSERT_TRUE(kst::waitFor([&] { return gnbCount(logFrom) == 0; }, 10))
        << kst::readFile(kAmfLog).substr(logFrom);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - signalled).count();
    printf("the AMF had dropped the three gNBs %.2f s after the signal\n", seconds);
    EXPECT_NE(e.log("stk").find("ended 3 connections before exiting"), std::string::npos) << e.log("stk");

    // On the wire: three NG Setup Requests from the engine, three answers from the AMF, an
    // ABORT from the engine per association, and nothing tshark finds malformed.
    int requests = 0, responses = 0, aborts = 0, malformed = 0;
    std::string all = cap.fields(
        "-e ip.src -e sctp.chunk_type -e ngap.NGSetupRequest_element -e ngap.NGSetupResponse_element -e _ws.malformed");
    ASSERT_FALSE(all.empty()) << "tshark read nothing from the capture";
    for (const std::string& line : split(all, '\n')) {
        std::vector<std::string> f = split(line, '|');
        if (f.size() < 5) continue;
        requests += f[0] == kEngineIp && !f[2].empty();
        responses += f[0] == kAmfIp && !f[3].empty();
        aborts += f[0] == kEngineIp && ("," + f[1] + ",").find(",6,") != std::string::npos;
        malformed += !f[4].empty();
    }
    EXPECT_EQ(requests, 3);
    EXPECT_EQ(responses, 3);
    EXPECT_EQ(aborts, 3);
    EXPECT_EQ(malformed, 0) << all;
    kst::removeTree(scratch);
    printf("checked at %.1f s; the core stops next\n", since());
}

}  // namespace
