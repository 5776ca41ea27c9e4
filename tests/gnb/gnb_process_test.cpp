// The engine binary's gNBs against the scripted AMF in a process of its own, each in
// its network namespace, seen from outside as a user sees them: the AMF's view of its
// associations, tshark on the AMF's side of the link, the engine's logs, standard
// output and exit status. A signal ends every association with an ABORT at once; a
// local address the host does not have never becomes an association that offers the
// host's addresses; a gNB with no local address says why in the log at its first try.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "engine_child.h"
#include "netns.h"

namespace {

using kse::Capture;
using kse::Netns;
using kse::Peer;

const std::string kEngine = KS_ENGINE_BINARY;
const std::string kAmfPeer = KS_AMF_PEER;

#define REQUIRE_NETNS()                                                                          \
    do {                                                                                         \
        if (!Netns::get().skipReason.empty()) GTEST_SKIP() << Netns::get().skipReason;           \
    } while (0)

const std::string kTaList =
    R"([{"TAC": 1, "BroadcastPLMNList": [{"MCC": "001", "MNC": "01", "TAISliceSupportList": [{"SST": 1}]}]}])";

// A JSON text as a JSON string (data/ran.json keeps the TA list as text).
std::string quoted(const std::string& text) {
    std::string q = "\"";
    for (char c : text) q += c == '"' ? std::string("\\\"") : std::string(1, c);
    return q + "\"";
}

// Three gNBs of 001/01 towards the AMF in namespace B.
std::map<std::string, std::string> ngData() {
    return {
        {"amf.json", std::string(R"([{"ID": 1, "IP1": ")") + Netns::B[0] +
                         R"(", "IP2": "", "Port": 38412, "Enabled": 1, "KsTE": 1}])"},
        {"ran.json", R"([{"ID": 703489, "MCC": "001", "MNC": "01", "Enabled": 1, "Name": "alpha", "RANCount": 3,
                          "KsTE": 1, "SupportedTAList": )" + quoted(kTaList) + "}]"},
    };
}

// Where the n-th `what` stands in `text` (1 the first), or npos.
size_t nth(const std::string& text, const std::string& what, int n) {
    size_t p = std::string::npos;
    for (int i = 0; i < n; ++i) {
        p = text.find(what, p == std::string::npos ? 0 : p + 1);
        if (p == std::string::npos) break;
    }
    return p;
}

// The level tag ("[C]", "[E]", ...) of the log line that holds `pos`.
std::string levelAt(const std::string& text, size_t pos) {
    if (pos == std::string::npos) return "";
    size_t start = text.rfind('\n', pos);
    return text.substr(start == std::string::npos ? 0 : start + 1, 3);
}

// An engine of these tests leaves no sanitizer report behind.
void expectCleanRun(const kst::EngineChild& e) {
    std::string o = e.out();
    EXPECT_EQ(o.find("Sanitizer"), std::string::npos) << o.substr(0, 4000);
    EXPECT_EQ(o.find("runtime error:"), std::string::npos) << o.substr(0, 4000);
}

std::vector<std::string> split(const std::string& text, char sep) {
    std::vector<std::string> out;
    std::string cur;
    for (char c : text) {
        if (c == sep) {
            out.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    out.push_back(cur);
    return out;
}

TEST(EngineOnTheWire, SigtermAbortsEveryAssociationAndALocalAddressNotOnTheHostNeverConnects) {
    REQUIRE_NETNS();
    if (!Capture::present()) GTEST_SKIP() << "tshark is not installed: the wire cannot be checked";
    std::string scratch = kst::makeTempDir("gnbend");
    Peer amf({kAmfPeer, Netns::B[0], "38412", scratch});
    ASSERT_EQ(amf.waitLine("READY", 10), "READY");
    Capture cap(scratch + "/amf.pcapng", "kvb", "sctp", true);
    ASSERT_TRUE(cap.ok()) << "tshark did not start capturing";

    // The three gNBs bind the engine's address; "ghost" one the host does not have.
    const std::string ghost = "10.231.0.99";
    kst::EngineChild e(kEngine, ngData(),
                       std::string(R"("CLIPort": 0, "StartNGRAN": 1, "SCTPBackend": "userspace", "MaxRANUEID": 1000,
                         "LogLevel": {"STACK": 2}, "LocalAddress": {"IPVersion": 4, "IP": [")") + Netns::A[1] +
                           R"("]}, "RANNodes": [{"Name": "ghost", "ID": 4242, "HexPLMN": "00F110", "IPVersion": 4,
                         "IP": [")" + ghost + R"("], "SupportedTAList": )" + kTaList + "}]",
                       false);
    // "OPEN <associations> SETUPS <answered>" as the AMF last reported.
    auto amfSays = [&](int* open, int* setups) {
        return sscanf(amf.last("OPEN ").c_str(), "OPEN %d SETUPS %d", open, setups) == 2;
    };
    int open = 0, setups = 0;
    ASSERT_TRUE(kst::waitFor([&] { return amfSays(&open, &setups) && setups >= 3; }, 40)) << e.out();
    // The ghost's bind fails at each try, and no try goes on unbound.
    std::string bindFailed = "[ error with sctp_bindx errno:99 (Cannot assign requested address) ] IP-Address:" + ghost;
    ASSERT_TRUE(kst::waitFor([&] { return kst::countOccurrences(e.log("stk"), bindFailed) >= 2; }, 20)) << e.log("stk");
    ASSERT_TRUE(amfSays(&open, &setups));
    EXPECT_EQ(open, 3) << "the ghost made no association";
    EXPECT_EQ(setups, 3);
    std::string stk = e.log("stk");
    EXPECT_EQ(levelAt(stk, nth(stk, bindFailed, 1)), "[C]") << "the first failure at critical level";
    EXPECT_EQ(levelAt(stk, nth(stk, bindFailed, 2)), "[E]") << "its repeats at error level";
    EXPECT_NE(stk.find("not made: none of its 1 local addresses could be bound"), std::string::npos);
    EXPECT_EQ(e.out().find("error with sctp_bindx"), std::string::npos) << "the reason is in the log, not on stdout";

    EXPECT_EQ(e.stop(SIGTERM), 0);
    EXPECT_FALSE(amf.waitLine("OPEN 0", 10).empty()) << "the AMF saw the associations end at once";
    for (const char* channel : {"stk", "app", "per", "cmn"})
        EXPECT_NE(e.log(channel).find("Received signal=15 exiting"), std::string::npos) << channel;
    EXPECT_NE(e.log("stk").find("ended 3 connections before exiting"), std::string::npos);
    // Line-buffered: what was printed is there although the process ended from outside.
    EXPECT_EQ(kst::countOccurrences(e.out(), "sctp connection success, connected to server at port :38412"), 3u)
        << e.out();

    // On the wire: an INIT from the engine's address offering only it, and an ABORT for
    // each association.
    int inits = 0, aborts = 0;
    std::string strayInit;
    for (const std::string& line : split(cap.fields("-e ip.src -e sctp.chunk_type -e sctp.parameter_ipv4_address"), '\n')) {
        std::vector<std::string> f = split(line, '|');
        if (f.size() < 3) continue;
        std::string types = "," + f[1] + ",";
        if (types.find(",1,") != std::string::npos) {
            ++inits;
            if (f[0] != Netns::A[1] || (!f[2].empty() && f[2] != Netns::A[1])) strayInit = line;
        }
        if (types.find(",6,") != std::string::npos && f[0] == Netns::A[1]) ++aborts;
    }
    EXPECT_GE(inits, 3);
    EXPECT_EQ(strayInit, "") << "an INIT that is not from the engine's one address";
    EXPECT_EQ(aborts, 3);
    expectCleanRun(e);
    kst::removeTree(scratch);
}

TEST(EngineOnTheWire, NoLocalAddressIsLoggedAtTheFirstConnectAndSigintEndsCleanly) {
    REQUIRE_NETNS();
    kst::EngineChild e(kEngine, ngData(),
                       R"("CLIPort": 0, "StartNGRAN": 1, "SCTPBackend": "userspace", "MaxRANUEID": 1000,
                          "LogLevel": {"STACK": 4})",
                       false);
    const std::string attempt = "connect to socket RemoteIPPort:38412", reason = "please set IPAddresses:0";
    ASSERT_TRUE(kst::waitFor([&] { return e.log("stk").find(reason) != std::string::npos; }, 20)) << e.out();
    std::string stk = e.log("stk");
    size_t firstTry = nth(stk, attempt, 1), firstReason = nth(stk, reason, 1), secondTry = nth(stk, attempt, 2);
    ASSERT_NE(firstTry, std::string::npos);
    EXPECT_LT(firstTry, firstReason);
    if (secondTry != std::string::npos) {
        EXPECT_LT(firstReason, secondTry) << "the reason comes with the first try";
    }
    EXPECT_EQ(levelAt(stk, firstReason), "[C]") << "at critical level, seen at any log level";
    EXPECT_NE(e.log("app").find("LocalAddress-IP Not Configured"), std::string::npos);

    // The first try comes before start-up has finished; the signal goes to an engine that is up.
    ASSERT_TRUE(kst::waitFor([&] { return e.out().find("Initalization of KsTest is completed") != std::string::npos; },
                             30))
        << e.out();
    EXPECT_EQ(e.stop(SIGINT), 0);
    for (const char* channel : {"stk", "app", "per", "cmn"})
        EXPECT_NE(e.log(channel).find("Received signal=2 exiting"), std::string::npos) << channel;
    std::string out = e.out();
    EXPECT_EQ(out.find(reason), std::string::npos) << "the reason is in the log, not on stdout";
    expectCleanRun(e);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Before any thread: the engines this test starts are then in namespace A.
    if (!::testing::GTEST_FLAG(list_tests)) Netns::get().enter();
    return RUN_ALL_TESTS();
}
