// Element connections through the console of the engine binary: the list and command
// requests from an independent prober and from kestranectl, and the monitoring thread
// bringing up the pairs of data/mon.json.
#include <gtest/gtest.h>
#include <jansson.h>
#include <sys/wait.h>

#include <string>

#include "engine_child.h"

namespace {

const std::string kEngine = KS_ENGINE_BINARY;
const std::string kCtl = KS_CTL_BINARY;

// The pairs te_probe.py expects, and an element it must not see.
const std::string kNoc = R"([
  {"ID": 1, "ConnInfoType": 2, "TEApplicationType": 2, "IP_1": "127.0.0.1", "Port_1": 8805, "IP_2": "127.0.0.11", "Port_2": "2152", "TransportType": 1, "Enabled": 1},
  {"ID": 2, "ConnInfoType": 1, "TEApplicationType": 2, "IP_1": "127.0.0.2", "Port_1": 8805, "IP_2": "10.0.0.22", "Port_2": "2153", "TransportType": 1, "Enabled": 1},
  {"ID": 3, "ConnInfoType": 1, "TEApplicationType": 2, "IP_1": "::1", "Port_1": 8806, "IP_2": "10.0.0.33", "Port_2": "2154", "TransportType": 1, "Enabled": 1},
  {"ID": 4, "ConnInfoType": 2, "TEApplicationType": 7, "IP_1": "127.0.0.1", "Port_1": 3868, "IP_2": "hss-client", "Port_2": "realm", "TransportType": 1, "Enabled": 1},
  {"ID": 5, "ConnInfoType": 1, "TEApplicationType": 7, "IP_1": "10.0.0.5", "Port_1": 3868, "IP_2": "hss", "Port_2": "realm", "TransportType": 1, "Enabled": 1},
  {"ID": 6, "ConnInfoType": 2, "TEApplicationType": 5, "IP_1": "127.0.0.1", "Port_1": 2123, "IP_2": "", "Port_2": "", "TransportType": 1, "Enabled": 1},
  {"ID": 7, "ConnInfoType": 1, "TEApplicationType": 2, "IP_1": "10.0.0.7", "Port_1": 8805, "IP_2": "10.0.0.77", "Port_2": "many", "TransportType": 1, "Enabled": 1}
])";

struct CtlRun {
    int status = -1;
    std::string out, err;
};

CtlRun ctl(const kst::EngineChild& e, const std::string& args) {
    std::string base = e.dir + "/ctl";
    std::string cmd = kCtl + " --host " + e.host + " --port " + std::to_string(e.port) + " " + args + " >" + base +
                      ".out 2>" + base + ".err";
    int rc = system(cmd.c_str());
    CtlRun r;
    r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    r.out = kst::readFile(base + ".out");
    r.err = kst::readFile(base + ".err");
    return r;
}

struct Engine : kst::EngineChild {
    explicit Engine(const std::string& mon, const std::string& config = "")
        : kst::EngineChild(kEngine, {{"noc.json", kNoc}, {"mon.json", mon}},
                           R"("LogLevel": {"APPLICATION": 4})" + (config.empty() ? "" : ", " + config)) {}
    ~Engine() { EXPECT_EQ(out().find("Sanitizer"), std::string::npos) << out().substr(0, 4000); }
    // The console opens early in start-up; the pairs are made near its end.
    bool started() {
        return waitForConsole() &&
               kst::waitFor([this] { return out().find("Initalization of KsTest is completed") != std::string::npos; }, 30);
    }
    bool logged(const std::string& line, size_t times = 1) {
        return kst::waitFor([&] { return kst::countOccurrences(log("app"), line) >= times; }, 30);
    }
};

TEST(ConnectionConsole, AnIndependentConsoleListsAndCommandsConnections) {
    Engine e("[]");
    ASSERT_TRUE(e.started()) << e.out();
    EXPECT_NE(e.out().find("noc.json element 6 skipped: Port_2 is not a port KsTE__InitConfig|"), std::string::npos)
        << e.out();
    std::string cmd = "python3 " KS_TE_PROBE " " + e.host + " " + std::to_string(e.port) + " 2>&1";
    FILE* p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::string said;
    char buf[512];
    while (fgets(buf, sizeof buf, p)) said += buf;
    EXPECT_EQ(pclose(p), 0) << said;
    EXPECT_EQ(said, "ok\n");
    EXPECT_TRUE(e.logged("connection ConnectionId=1 AppType=UPF TD-1 DUT-2 made")) << e.log("app");
    EXPECT_TRUE(e.logged("UPF node of ConnectionId=1 towards 127.0.0.2:8805"));
    EXPECT_TRUE(e.logged("CommandID=5 means nothing to a UPF node, ConnectionId=2"));
    EXPECT_NE(e.log("cmn").find("UEC_NodeConnection-Command  TEApplicationType=2  ID=99  Command=1  MSize=36"),
              std::string::npos);
    EXPECT_NE(e.log("cmn").find("UEC_NodeConnection-Status  TEApplicationType=7  MSize=36"), std::string::npos);
    EXPECT_TRUE(e.running());
}

TEST(ConnectionConsole, KestranectlListsAndCommandsConnections) {
    Engine e("[]");
    ASSERT_TRUE(e.started()) << e.out();
    CtlRun all = ctl(e, "nodes");
    EXPECT_EQ(all.status, 0) << all.err;
    EXPECT_NE(all.out.find("1      UPF        0       TD-1 DUT-2           127.0.0.2:8805         127.0.0.1:8805"),
              std::string::npos)
        << all.out;
    EXPECT_NE(all.out.find("2      UPF        0       TD-1 DUT-3           (IPv6):8806"), std::string::npos) << all.out;
    EXPECT_NE(all.out.find("3      HSS        0       TD-4 DUT-5           10.0.0.5:3868"), std::string::npos) << all.out;

    CtlRun hss = ctl(e, "--json nodes hss");
    ASSERT_EQ(hss.status, 0) << hss.err;
    json_error_t err;
    json_t* j = json_loads(hss.out.c_str(), 0, &err);
    ASSERT_NE(j, nullptr) << hss.out;
    json_t* list = json_object_get(j, "connections");
    ASSERT_EQ(json_array_size(list), 1u) << hss.out;
    json_t* row = json_array_get(list, 0);
    EXPECT_EQ(json_integer_value(json_object_get(row, "id")), 3);
    EXPECT_STREQ(json_string_value(json_object_get(row, "type_name")), "HSS");
    EXPECT_STREQ(json_string_value(json_object_get(json_object_get(row, "server"), "ip")), "10.0.0.5");
    json_decref(j);

    EXPECT_EQ(ctl(e, "nodes PGW").out, "no connections of PGW\n");
    CtlRun up = ctl(e, "node UPF 2 1");
    EXPECT_EQ(up.status, 0) << up.err;
    EXPECT_EQ(up.out, "connection 2 (UPF TD-1 DUT-3): command 1 sent, status 0\n");
    EXPECT_TRUE(e.logged("connection ConnectionId=2 AppType=UPF TD-1 DUT-3 made")) << e.log("app");
    CtlRun none = ctl(e, "node 2 9 1");
    EXPECT_EQ(none.status, 1);
    EXPECT_NE(none.err.find("no connection 9 of UPF"), std::string::npos) << none.err;
    EXPECT_EQ(ctl(e, "node HSS 1 1").status, 1) << "connection 1 is a UPF's";
    for (const char* bad : {"nodes XYZ", "nodes 0", "nodes 32", "node UPF 1", "node UPF x 1", "nodes UPF HSS"})
        EXPECT_EQ(ctl(e, bad).status, 2) << bad;
}

TEST(ConnectionMonitoring, ThePairsOfMonJsonComeUpAndAreTriedAgainEachRound) {
    Engine e(R"([{"ID": 1, "AppType": 2, "ServerID": 2, "ClientID": 1, "Enabled": 1, "InvokeSeconds": 5},
                 {"ID": 2, "AppType": 2, "ClientID": 1},
                 {"ID": 3, "AppType": 7, "ServerID": 5, "ClientID": 4}])",
             R"("EnableMonitoringEngine": 1)");
    ASSERT_TRUE(e.started()) << e.out();
    EXPECT_TRUE(e.logged("connection ConnectionId=1 AppType=UPF TD-1 DUT-2 made")) << e.log("app");
    EXPECT_TRUE(e.logged("connection ConnectionId=3 AppType=HSS TD-4 DUT-5 made")) << e.log("app");
    EXPECT_TRUE(e.logged("mon.json element 1 skipped: ServerID is missing or not a number"));
    // The pair's node is made (its UPF never answers, so the association stays down).
    EXPECT_TRUE(e.logged("UPF node of ConnectionId=1 towards 127.0.0.2:8805"));
    EXPECT_EQ(kst::countOccurrences(e.log("app"), "ConnectionId=2 AppType"), 0u) << "server 3 is not listed";
}

}  // namespace
