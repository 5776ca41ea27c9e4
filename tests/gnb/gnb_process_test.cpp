// The engine binary's gNBs against the scripted AMF in a process of its own, each in
// its network namespace, seen from outside as a user sees them: the AMF's view of its
// associations, tshark on the AMF's side of the link, the engine's logs, standard
// output and exit status. A signal ends every association with an ABORT at once; a
// local address the host does not have never becomes an association that offers the
// host's addresses; a gNB with no local address says why in the log at its first try.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
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

// The PLMN of each NG Setup Request's Global gNB ID by the RAN node name it carries, as tshark
// reads them: "<octets> <MCC>/<MNC>".
std::map<std::string, std::string> globalIdPlmns(Capture& cap) {
    std::map<std::string, std::string> out;
    for (const std::string& line : split(cap.fields("-Y ngap.NGSetupRequest_element -e ngap.RANNodeName "
                                                    "-e ngap.pLMNIdentity -e e212.mcc -e e212.mnc"),
                                         '\n')) {
        std::vector<std::string> f = split(line, '|');
        if (f.size() < 4 || f[0].empty()) continue;
        // The Global RAN node ID is the request's first IE, so its PLMN comes first.
        std::string hex, octets = split(f[1], ',')[0];
        for (char c : octets)
            if (c != ':') hex += char(toupper(c));
        out[f[0]] = hex + " " + split(f[2], ',')[0] + "/" + split(f[3], ',')[0];
    }
    return out;
}

// MCC and MNC as text or as numbers, in the configuration's RANNodes and in data/ran.json,
// reach the wire with their leading zeros and a three-digit MNC; anything else, and a
// list element without a mandatory key, is refused with a line that says which.
TEST(EngineOnTheWire, MccAndMncAsTextOrNumbersReachTheGlobalGnbIdAndOthersAreRefusedByName) {
    REQUIRE_NETNS();
    if (!Capture::present()) GTEST_SKIP() << "tshark is not installed: the wire cannot be checked";
    std::string scratch = kst::makeTempDir("gnbplmn");
    Peer amf({kAmfPeer, Netns::B[0], "38412", scratch});
    ASSERT_EQ(amf.waitLine("READY", 10), "READY");
    Capture cap(scratch + "/amf.pcapng", "kvb", "sctp", true);
    ASSERT_TRUE(cap.ok()) << "tshark did not start capturing";

    auto ran = [](const std::string& fields) {
        return "{" + fields + R"(, "Enabled": 1, "RANCount": 1, "KsTE": 1, "SupportedTAList": )" + quoted(kTaList) +
               "}";
    };
    std::map<std::string, std::string> data = {
        {"amf.json", std::string(R"([{"ID": 1, "IP1": ")") + Netns::B[0] +
                         R"(", "IP2": "", "Port": 38412, "Enabled": 1, "KsTE": 1},
                         {"ID": 2, "IP1": "10.231.0.22", "IP2": "", "Enabled": 1, "KsTE": 1}])"},
        {"ran.json", "[" + ran(R"("ID": 100, "Name": "dynnum", "MCC": 208, "MNC": 93)") + ", " +
                         ran(R"("ID": 101, "Name": "dyntext", "MCC": "001", "MNC": "001")") + ", " +
                         ran(R"("ID": 102, "Name": "dynshort", "MCC": "01", "MNC": "01")") + ", " +
                         ran(R"("ID": 103, "Name": "dynbig", "MCC": 1000, "MNC": 1)") + ", " +
                         R"({"ID": 104, "Name": "dynhalf", "MCC": "001", "Enabled": 1, "RANCount": 1,
                             "SupportedTAList": "[]"}])"},
    };
    auto node = [](const std::string& name, int id, const std::string& plmn) {
        return R"({"Name": ")" + name + R"(", "ID": )" + std::to_string(id) + ", " + plmn +
               R"(, "SupportedTAList": )" + kTaList + "}";
    };
    kst::EngineChild e(kEngine, data,
                       std::string(R"("CLIPort": 0, "StartNGRAN": 1, "SCTPBackend": "userspace", "MaxRANUEID": 1000,
                         "LogLevel": {"APPLICATION": 2}, "LocalAddress": {"IPVersion": 4, "IP": [")") + Netns::A[1] +
                           R"("]}, "RANNodes": [)" + node("cfgtext", 200, R"("MCC": "001", "MNC": "01")") + ", " +
                           node("cfgnum", 201, R"("MCC": 310, "MNC": 410)") + ", " +
                           node("cfgmnc3", 202, R"("MCC": 1, "MNC": "001")") + ", " +
                           node("cfgbad", 203, R"("MCC": "0a1", "MNC": 1)") + ", " +
                           node("cfgneg", 204, R"("MCC": 310, "MNC": -1)") + "]",
                       false);
    int open = 0, setups = 0;
    auto amfSays = [&] { return sscanf(amf.last("OPEN ").c_str(), "OPEN %d SETUPS %d", &open, &setups) == 2; };
    ASSERT_TRUE(kst::waitFor([&] { return amfSays() && setups >= 5; }, 40)) << e.out() << e.log("app");
    ASSERT_TRUE(kst::waitFor([&] { return e.out().find("Initalization of KsTest is completed") != std::string::npos; },
                             30));
    EXPECT_EQ(e.stop(SIGTERM), 0);

    std::map<std::string, std::string> plmns = globalIdPlmns(cap);
    EXPECT_EQ(plmns.size(), 5u) << "only the five good nodes set up";
    // tshark shows the codes as numbers; the octets tell a two-digit MNC (the F filler) from three.
    EXPECT_EQ(plmns["dynnum"], "02F839 208/93") << "from numbers";
    EXPECT_EQ(plmns["dyntext"], "000110 1/1") << "001/001: a three-digit MNC with its leading zeros";
    EXPECT_EQ(plmns["cfgtext"], "00F110 1/1") << "001/01 as text in RANNodes";
    EXPECT_EQ(plmns["cfgnum"], "134001 310/410") << "numbers in RANNodes";
    EXPECT_EQ(plmns["cfgmnc3"], "000110 1/1") << "MCC 1 is 001, MNC \"001\" stays three digits";
    for (const char* refused : {"dynshort", "dynbig", "dynhalf", "cfgbad", "cfgneg"})
        EXPECT_EQ(plmns.count(refused), 0u) << refused;
    EXPECT_EQ(setups, 5);

    std::string app = e.log("app");
    for (const char* line : {
             R"(ran.json element @ 2 (ID=102 Name=dynshort), skipped: MCC="01" MNC="01" refused: an MCC is 3 digits)",
             R"(ran.json element @ 3 (ID=103 Name=dynbig), skipped: MCC=1000 MNC=1 refused)",
             R"(RANNodes[3] [cfgbad]: MCC="0a1" MNC=1 refused)",
             R"(RANNodes[4] [cfgneg]: MCC=310 MNC=-1 refused)",
             "missing mandatory parameter for dynamic-ran @ 4: MNC, KsTE",
             "missing mandatory parameter for dynamic-amf @ 1: Port",
         }) {
        EXPECT_NE(app.find(line), std::string::npos) << line << "\n" << app;
        EXPECT_NE(e.out().find(line), std::string::npos) << "also where a user running it by hand looks: " << line;
    }
    EXPECT_EQ(app.find("MCC=-1 MNC=-1"), std::string::npos);
    expectCleanRun(e);
    kst::removeTree(scratch);
}

// The README names every key of the node lists of the configuration and of each data list,
// in the section a user reads for them.
TEST(ReadmeKeys, EveryKeyOfTheNodesAndTheDataListsIsDocumented) {
    std::string readme = kst::readFile(KS_README);
    size_t from = readme.find("### Nodes and the data lists"), to = readme.find("### Codec tools");
    ASSERT_TRUE(from != std::string::npos && to != std::string::npos && from < to);
    std::string section = readme.substr(from, to - from);
    std::string tests = readme.substr(readme.find("### Tests and scenarios"));
    auto documented = [](const std::string& text, const std::string& k) {
        return text.find("`" + k + "`") != std::string::npos || text.find("\"" + k + "\"") != std::string::npos;
    };
    const std::map<std::string, std::vector<std::string>> keys = {
        {"AMFNodes", {"ID", "IP", "Port", "Version", "Enabled"}},
        {"RANNodes", {"Name", "Type", "ID", "Enabled", "IPVersion", "IP", "PortNo", "HexPLMN", "MCC", "MNC",
                      "MaxRANUEID", "RANUEIDStartNo", "KsTE", "SupportedTAList", "SupportedUePLMN", "TAC",
                      "BroadcastPLMNList", "TAISliceSupportList", "SST", "SD", "HexTAC", "broadcastPLMNList",
                      "HexSST", "HexSD"}},
        {"data/amf.json", {"ID", "IP1", "IP2", "Port", "Enabled", "KsTE"}},
        {"data/ran.json", {"ID", "Name", "IID", "MCC", "MNC", "UEIDStartNo", "Enabled", "RANCount", "UERetention",
                           "KsTE", "SupportedTAList", "RanType"}},
        {"data/uel.json", {"ID", "MSINStart", "MSINEnd", "IMEI", "MCC", "MNC", "SubKey", "OPC", "MSISDNBegin",
                           "IMEIBegin", "APN"}},
        {"data/noc.json", {"ID", "ConnInfoType", "TEApplicationType", "IP_1", "Port_1", "IP_2", "Port_2",
                           "TransportType", "Enabled"}},
        {"data/mon.json", {"ID", "AppType", "ServerID", "ClientID", "Enabled", "InvokeSeconds", "NotifyOnConnLost",
                           "IMSI", "AdminEmailId", "TeamEmailId", "Config"}},
        {"data/set.json", {"AMF", "UPF", "SGW", "PGW", "GGSN"}},
    };
    for (const auto& [list, names] : keys) {
        EXPECT_NE(section.find("`" + list + "`"), std::string::npos) << list;
        for (const std::string& k : names)
            EXPECT_TRUE(documented(section, k)) << list << " key " << k;
    }
    for (const char* k : {"ID", "Name", "AppType", "ScenarioID", "EndAction", "MPS", "NoOfTimes", "Concurrent",
                          "SelectTest", "SUPIStartNo", "SUPIStartEnd", "TestStatus", "Config", "Dict", "Key", "Value"})
        EXPECT_TRUE(documented(tests, k)) << "tst.json or sce.json key " << k;
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Before any thread: the engines this test starts are then in namespace A.
    if (!::testing::GTEST_FLAG(list_tests)) Netns::get().enter();
    return RUN_ALL_TESTS();
}
