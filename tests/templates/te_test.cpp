// Element connections on their own: the pairing of noc.json's clients and servers, the
// lookups the protocol modules use, commands reaching the node registered for their
// application type, and the monitoring thread bringing up the pairs of mon.json.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "KsMonitoringEngine.h"
#include "KsTE.h"
#include "ks_test_util.h"
#include "mv_core.h"

namespace {

std::string gLogDir;

// A noc.json element.
std::string el(uint32_t id, int info, int type, const char* ip1, int port1, const char* ip2, const char* port2) {
    return "{\"ID\": " + std::to_string(id) + ", \"ConnInfoType\": " + std::to_string(info) +
           ", \"TEApplicationType\": " + std::to_string(type) + ", \"IP_1\": \"" + ip1 +
           "\", \"Port_1\": " + std::to_string(port1) + ", \"IP_2\": \"" + ip2 + "\", \"Port_2\": \"" + port2 +
           "\", \"TransportType\": 1, \"Enabled\": 1}";
}
std::string client(uint32_t id, int type, const char* ip2 = "ip2", const char* port2 = "2152") {
    return el(id, 2, type, "10.0.0.1", 1000 + int(id), ip2, port2);
}
std::string server(uint32_t id, int type, const char* ip2 = "ip2", const char* port2 = "2152") {
    return el(id, 1, type, "10.0.1.1", 2000 + int(id), ip2, port2);
}

json_t* parse(const std::string& text) {
    json_error_t e;
    json_t* j = json_loads(text.c_str(), 0, &e);
    EXPECT_NE(j, nullptr) << e.text << " in " << text;
    return j;
}

std::string appLog() { return kst::readLogDir(gLogDir + "/app"); }

// What the fake nodes were asked.
struct Call {
    uint32_t command;
    KsTEClient* client;
    KsTEServer* server;
    KsTEConnection* conn;
};
std::mutex gCallsLock;
std::vector<Call> gAdds, gRuns;
std::atomic<int> gStatusCalls{0};
std::atomic<int> gFailFirstAdds{0};  // adds that leave the connection without a node

void fakeAdd(uint32_t cmd, KsTEClient* c, KsTEServer* s, KsTEConnection* conn) {
    {
        std::lock_guard g(gCallsLock);
        gAdds.push_back({cmd, c, s, conn});
    }
    if (gFailFirstAdds.fetch_sub(1) > 0) return;
    s->ConnectionStatus = 3;
    s->ksTE = conn;
}
void fakeRun(uint32_t cmd, KsTEClient* c, KsTEServer* s, KsTEConnection* conn) {
    std::lock_guard g(gCallsLock);
    gRuns.push_back({cmd, c, s, conn});
}
void fakeStatus(KsTEServer* s, KsTEConnection*) {
    ++gStatusCalls;
    s->ConnectionStatus = s->ConnectionStatus + 10;
}
size_t adds() {
    std::lock_guard g(gCallsLock);
    return gAdds.size();
}

class TE : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        gLogDir = kst::makeTempDir("te") + "/logs/";
        __init_morva_core();
        __mv_init_logger(gLogDir.c_str());
        __mv_set_log_level(MV_APP_LOG, 5);
    }
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }
    static void reset() {
        KsMonitoringEngine___Stop();
        KsTE___Reset();
        KsTE__SetConfigSource(nullptr);
        gAdds.clear();
        gRuns.clear();
        gStatusCalls = 0;
        gFailFirstAdds = 0;
    }
    // Pairs the elements as start-up does; returns what it printed.
    static std::string load(const std::vector<std::string>& elements) {
        std::string text = "[";
        for (size_t i = 0; i < elements.size(); ++i) text += (i ? "," : "") + elements[i];
        json_t* noc = parse(text + "]");
        testing::internal::CaptureStdout();
        KsTE__InitConfig(noc);
        std::string out = testing::internal::GetCapturedStdout();
        json_decref(noc);  // the records hold copies
        return out;
    }
};

std::vector<KsTEServer*> serversOf(KsTEClient* c) {
    std::vector<KsTEServer*> v;
    for (KsTEServer* s = KsTE__GetKsTEServerHead(c); s; s = KsTE__GetKsTEServerNext(s)) v.push_back(s);
    return v;
}

TEST_F(TE, EveryClientPairsWithEveryServerOfItsTypeAndReadsItsSecondAddressByType) {
    std::string out = load({client(1, 2, "10.0.0.11", "2152"), server(10, 2, "10.0.1.10", "2153"), server(11, 2),
                            client(2, 2), server(12, 2), client(20, 7, "hss-client.test", "client.realm"),
                            server(21, 7, "hss.test", "server.realm"), client(30, 3, "smf.test", "smf.realm"),
                            server(31, 3, "nrf.test", "nrf.realm"), client(40, 5), server(41, 5, "pgw2"),
                            client(50, 1, "10.0.0.51"), server(51, 1, "10.0.1.51"), server(60, 12)});
    EXPECT_NE(out.find("noc_servers_size=14  KsTE__InitConfig|"), std::string::npos) << out;
    struct Want {
        uint32_t client;
        std::vector<uint32_t> servers, connectionIds;
    };
    const Want want[] = {{1, {10, 11, 12}, {1, 2, 3}}, {2, {10, 11, 12}, {4, 5, 6}}, {20, {21}, {7}},
                         {30, {31}, {8}},              {40, {41}, {9}},              {50, {51}, {10}}};
    KsTEClient* c = KsTE__GetKsTEClientHead();
    for (const Want& w : want) {
        SCOPED_TRACE("client " + std::to_string(w.client));
        ASSERT_NE(c, nullptr);
        EXPECT_EQ(c->ID, w.client);
        std::vector<uint32_t> ids, conns;
        for (KsTEServer* s : serversOf(c)) {
            ids.push_back(s->ID);
            conns.push_back(s->ConnectionId);
            EXPECT_EQ(s->ConnectionStatus.load(), 0u);
            EXPECT_EQ(s->ApplicationType, c->ApplicationType);
        }
        EXPECT_EQ(ids, w.servers);
        EXPECT_EQ(conns, w.connectionIds);
        EXPECT_EQ(c->ksServerCount.load(), w.servers.size());
        c = KsTE__GetKsTEClientNext(c);
    }
    EXPECT_EQ(c, nullptr) << "a server of a type without a client makes no record";
    EXPECT_EQ(KsTE__GetInstance()->ksTEClientCount.load(), 6u);

    KsTEClient* upf = KsTE__GetKsTEClientHead();
    KsTEServer* upf10 = serversOf(upf)[0];
    EXPECT_STREQ(upf->IP_1, "10.0.0.1");
    EXPECT_EQ(upf->Port_1, 1001);
    EXPECT_STREQ(upf->IP_2, "10.0.0.11");
    EXPECT_EQ(upf->Port_2, 2152);
    EXPECT_STREQ(upf10->IP_2, "10.0.1.10");
    EXPECT_EQ(upf10->Port_2, 2153);
    EXPECT_STREQ(upf->sHost, "");
    KsTEClient* hss = KsTE__GetClient(20, 0, nullptr, 0, nullptr, nullptr, 0, 0, 0);
    ASSERT_NE(hss, nullptr);
    EXPECT_STREQ(hss->sHost, "hss-client.test");
    EXPECT_STREQ(hss->sRealm, "client.realm");
    EXPECT_STREQ(serversOf(hss)[0]->sHost, "hss.test");
    EXPECT_STREQ(serversOf(hss)[0]->sRealm, "server.realm");
    EXPECT_STREQ(hss->IP_2, "") << "a Diameter element's second address is its host";
    KsTEClient* smf = KsTE__GetClient(30, 0, nullptr, 0, nullptr, nullptr, 0, 0, 0);
    EXPECT_STREQ(smf->sHost, "smf.test");
    EXPECT_STREQ(serversOf(smf)[0]->sHost, "") << "an SMF server keeps no host";
    KsTEClient* pgw = KsTE__GetClient(40, 0, nullptr, 0, nullptr, nullptr, 0, 0, 0);
    EXPECT_STREQ(pgw->IP_2, "");
    EXPECT_STREQ(serversOf(pgw)[0]->IP_2, "");
    EXPECT_STREQ(serversOf(pgw)[0]->sHost, "");
    KsTEClient* amf = KsTE__GetClient(50, 0, nullptr, 0, nullptr, nullptr, 0, 0, 0);
    EXPECT_STREQ(amf->IP_2, "10.0.0.51");
    EXPECT_EQ(amf->Port_2, 0) << "only the UPF's Port_2 is a port";
    EXPECT_EQ(KsTE__GetClient(99, 2, "x", 1, "", "", 0, 0, 0), nullptr);
    EXPECT_EQ(KsTE__GetKsTEClientNext(nullptr), nullptr);
    EXPECT_EQ(KsTE__GetKsTEServerNext(nullptr), nullptr);

    testing::internal::CaptureStdout();
    KsTE__PrintClient();
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("AppType=2       IP=[10.0.0.1]  Port_1=[1001  ]\n    AppType=2       IP=[10.0.1.1]  "
                           "Port_1=[2010  ]\n"),
              std::string::npos)
        << printed;
}

TEST_F(TE, MalformedNocElementsAreSkippedWithALine) {
    const std::string long52(52, 'a'), long104(104, 'h');
    const struct {
        std::string element, why;
    } cases[] = {
        {"3", "not an object"},
        {R"({"ConnInfoType": 2, "TEApplicationType": 2})", "ID is missing or not a number"},
        {R"({"ID": "7", "ConnInfoType": 2, "TEApplicationType": 2, "IP_1": "a", "Port_1": 1, "IP_2": "b",
            "Port_2": "1", "TransportType": 1, "Enabled": 1})",
         "ID is missing or not a number"},
        {el(5, 3, 2, "a", 1, "b", "1"), "ConnInfoType is neither 1 (server) nor 2 (client)"},
        {el(5, 2, 0, "a", 1, "b", "1"), "TEApplicationType is missing or not an application type"},
        {el(5, 2, 32, "a", 1, "b", "1"), "TEApplicationType is missing or not an application type"},
        {el(5, 2, 2, "a", 70000, "b", "1"), "Port_1 is missing or not a port"},
        {el(5, 2, 2, long52.c_str(), 1, "b", "1"), "IP_1 is missing or longer than 51 characters"},
        {el(5, 2, 7, "a", 1, long104.c_str(), "1"), "IP_2 is missing or longer than 103 characters"},
        {el(5, 2, 7, "a", 1, "b", long104.c_str()), "Port_2 is longer than 103 characters"},
        {el(5, 2, 2, "a", 1, long52.c_str(), "1"), "IP_2 is longer than 51 characters"},
        {el(5, 2, 2, "a", 1, "b", "abc"), "Port_2 is not a port"},
        {el(5, 2, 2, "a", 1, "b", "65536"), "Port_2 is not a port"},
        {R"({"ID": 5, "ConnInfoType": 2, "TEApplicationType": 2, "IP_1": "a", "Port_1": 1, "IP_2": "b",
            "TransportType": 1, "Enabled": 1})",
         "Port_2 is missing"},
        {R"({"ID": 5, "ConnInfoType": 2, "TEApplicationType": 2, "IP_1": "a", "Port_1": 1, "IP_2": "b",
            "Port_2": "1", "Enabled": 1})",
         "TransportType is missing or not a number"},
        {client(1, 7), "client ID=1 is a client of AppType=2 already"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why + ": " + c.element);
        reset();
        std::string out = load({client(1, 2), c.element, server(2, 2)});
        EXPECT_NE(out.find("noc.json element 1 skipped: " + c.why + " KsTE__InitConfig|"), std::string::npos) << out;
        KsTEClient* first = KsTE__GetKsTEClientHead();
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(KsTE__GetKsTEClientNext(first), nullptr) << "the bad element makes nothing";
        ASSERT_EQ(serversOf(first).size(), 1u) << "the good pair stands";
        EXPECT_EQ(serversOf(first)[0]->ConnectionId, 1u);
    }
    reset();
    std::string out = load({client(1, 2), el(2, 1, 2, "a", 1, "b", "9"), client(3, 2)});
    EXPECT_EQ(out.find("skipped"), std::string::npos) << "a UPF's Port_2 may be a number: " << out;
}

TEST_F(TE, LookupsByTypeIndexAndIdFindTheirConnectionAndNoOther) {
    load({client(1, 2), server(2, 2), client(3, 7), server(4, 7), server(5, 7), client(6, 9), server(7, 9)});
    EXPECT_EQ(KsTE__GetConnectionCountByTEApplicationType(2), 0) << "pairs are not connections until asked";
    EXPECT_EQ(KsTE__GetConnection(1), nullptr);
    ASSERT_EQ(KsTE__InitCommand(2, 1, 1), 1);
    ASSERT_EQ(KsTE__InitCommand(7, 2, 1), 1);
    ASSERT_EQ(KsTE__InitCommand(7, 3, 1), 1);
    EXPECT_EQ(KsTE__InitCommand(2, 99, 1), 0) << "no pair has that id";
    EXPECT_EQ(KsTE__InitCommand(7, 1, 1), 0) << "connection 1 is a UPF's";
    EXPECT_EQ(KsTE__InitCommand(2, 1, 1), 1);

    KsTEConnection* upf = KsTE__GetConnection(1);
    ASSERT_NE(upf, nullptr);
    EXPECT_EQ(upf->ApplicationType, 2u);
    EXPECT_EQ(upf->ksClient->ID, 1u);
    EXPECT_EQ(upf->ksServer->ID, 2u);
    EXPECT_EQ(KsTE__GetConnection(4), nullptr);
    EXPECT_EQ(KsTE__GetConnectionCountByTEApplicationType(2), 1) << "a second command finds the one record";
    EXPECT_EQ(KsTE__GetConnectionCountByTEApplicationType(7), 2);
    EXPECT_EQ(KsTE__GetConnectionCountByTEApplicationType(9), 0);
    EXPECT_EQ(KsTE__GetConnectionByTEApplicationType(2, 0), upf);
    EXPECT_EQ(KsTE__GetConnectionByTEApplicationType(2, 1), nullptr);
    EXPECT_EQ(KsTE__GetConnectionByTEApplicationType(7, 1)->ConnectionId, 3u);
    EXPECT_EQ(KsTE__GetConnectionByIDTEApplicationType(7, 2)->ksServer->ID, 4u);
    EXPECT_EQ(KsTE__GetConnectionByIDTEApplicationType(2, 2), nullptr);
    EXPECT_EQ(KsTE__GetNextConnectionByTEApplicationType(2, 1), nullptr) << "the only one is the one given";
    EXPECT_EQ(KsTE__GetNextConnectionByTEApplicationType(7, 2)->ConnectionId, 3u);
    EXPECT_EQ(KsTE__GetNextConnectionByTEApplicationType(7, 99)->ConnectionId, 2u);
    KsTEClient* c = nullptr;
    EXPECT_EQ(KsTE__FindServer(7, 3, &c)->ID, 5u);
    EXPECT_EQ(c->ID, 3u);
}

TEST_F(TE, CommandsReachTheNodeRegisteredForTheirType) {
    for (uint32_t type : {0u, 1u, 4u, 32u}) EXPECT_EQ(KsTE__RegisterNodeCommand(type, fakeAdd, fakeRun, fakeStatus), 0);
    ASSERT_EQ(KsTE__RegisterNodeCommand(2, fakeAdd, nullptr, fakeStatus), 1);
    ASSERT_EQ(KsTE__RegisterNodeCommand(13, fakeAdd, fakeRun, nullptr), 1);
    load({client(1, 2), server(2, 2), client(3, 13, "nrf.test", "realm"), server(4, 13, "nrf", "realm"), client(5, 7),
          server(6, 7), client(7, 1), server(8, 1)});

    KsTE__InitCommand(2, 1, 2);
    KsTEConnection* upf = KsTE__GetConnection(1);
    ASSERT_NE(upf, nullptr) << "any command makes the record";
    EXPECT_EQ(adds(), 0u) << "only command 1 adds a node";
    EXPECT_NE(appLog().find("CommandID=2 means nothing to a UPF node, ConnectionId=1"), std::string::npos);
    KsTE__InitCommand(2, 1, 1);
    ASSERT_EQ(adds(), 1u);
    EXPECT_EQ(gAdds[0].command, 1u);
    EXPECT_EQ(gAdds[0].client->ID, 1u);
    EXPECT_EQ(gAdds[0].server->ID, 2u);
    EXPECT_EQ(gAdds[0].conn, upf);
    EXPECT_EQ(upf->ksServer->ksTE.load(), upf);

    KsTE__InitCommand(13, 2, 7);
    ASSERT_EQ(gRuns.size(), 1u) << "an NRF node takes other commands";
    EXPECT_EQ(gRuns[0].command, 7u);

    KsTE__InitCommand(7, 3, 1);
    KsTEConnection* hss = KsTE__GetConnection(3);
    ASSERT_NE(hss, nullptr);
    EXPECT_EQ(hss->ksServer->ksTE.load(), nullptr);
    EXPECT_NE(appLog().find("HSS node is not part of this build: ConnectionId=3 stays without a node"),
              std::string::npos);
    EXPECT_NE(appLog().find("connection ConnectionId=3 AppType=HSS TD-5 DUT-6 made"), std::string::npos);

    KsTE__InitCommand(1, 4, 1);
    ASSERT_NE(KsTE__GetConnection(4), nullptr);
    EXPECT_EQ(appLog().find("AMF node is not part of this build"), std::string::npos)
        << "AMFs are connected by the RAN registry";

    KsTE__UpdateConnStatus(nullptr, 2);
    KsTE__UpdateConnStatus(hss, 7);
    EXPECT_EQ(gStatusCalls.load(), 0);
    KsTE__UpdateConnStatus(upf, 2);
    EXPECT_EQ(gStatusCalls.load(), 1);
    EXPECT_EQ(upf->ksServer->ConnectionStatus.load(), 13u);
}

TEST_F(TE, ConcurrentCommandsForOnePairMakeOneConnection) {
    ASSERT_EQ(KsTE__RegisterNodeCommand(2, fakeAdd, nullptr, nullptr), 1);
    load({client(1, 2), server(2, 2), server(3, 2)});
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) {
                KsTE__InitCommand(2, uint32_t(1 + (i + t) % 2), 1);
                KsTE__GetConnectionCountByTEApplicationType(2);
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(KsTE__GetConnectionCountByTEApplicationType(2), 2);
    EXPECT_EQ(adds(), 800u) << "the node operation is told every time and has to tolerate it";
}

// ---------------------------------------------------------------- monitoring

json_t* gNoc = nullptr;
json_t* gMon = nullptr;
uint32_t gMonitoring = 1;
constexpr KsTEConfigSource kSource{[] { return gNoc; }, [] { return gMon; }, [] { return gMonitoring; }};

TEST_F(TE, MonitoringBringsUpTheListedPairsAndTriesAgainUntilTheirNodeIsUp) {
    ASSERT_EQ(KsTE__RegisterNodeCommand(2, fakeAdd, nullptr, nullptr), 1);
    load({client(1, 2), server(2, 2), server(3, 2), client(4, 7), server(5, 7)});
    gMon = parse(R"([
      {"ID": 1, "AppType": 2, "ServerID": 2, "ClientID": 1, "Enabled": 1},
      {"ID": 2, "AppType": 7, "ServerID": 5, "ClientID": 4},
      {"ID": 3, "AppType": 2, "ServerID": 9, "ClientID": 1},
      {"ID": 4, "AppType": 2, "ServerID": "2", "ClientID": 1},
      {"ID": 5, "AppType": 40, "ServerID": 2, "ClientID": 1},
      "monitor"])");
    KsTE__SetConfigSource(&kSource);
    gMonitoring = 0;
    KsMonitoringEngine__Init();
    KsMonitoringEngine__LoadConfig();
    EXPECT_EQ(KsMonitoringEngine__FindNode(2, 1, 1), nullptr) << "disabled: no record, nothing runs";

    gMonitoring = 1;
    gFailFirstAdds = 2;
    KsMonitoringEngine__SetIntervalMicros(20000);
    KsMonitoringEngine__Init();
    KsTEServer* s2 = KsTE__FindServer(2, 1, nullptr);
    ASSERT_TRUE(kst::waitFor([s2] { return s2->ksTE.load() != nullptr; }, 30)) << "the pair came up";
    EXPECT_GE(adds(), 3u) << "a node that did not come up is tried again each round";
    ASSERT_TRUE(kst::waitFor([] { return KsTE__GetConnection(3) != nullptr; }, 30)) << "the HSS pair too";
    EXPECT_EQ(KsTE__GetConnection(3)->ksServer->ID, 5u);
    EXPECT_EQ(KsTE__GetConnection(2), nullptr) << "server 3 is not listed";
    KsMonitoringNode_s* unknown = KsMonitoringEngine__FindNode(9, 1, 0);
    ASSERT_NE(unknown, nullptr);
    EXPECT_EQ(unknown->ksServer, nullptr) << "an unknown server stays unconnected";
    KsMonitoringNode_s* up = KsMonitoringEngine__FindNode(2, 1, 0);
    ASSERT_NE(up, nullptr);
    EXPECT_EQ(up->ConnectionId, 1u);
    EXPECT_EQ(up->AppType, 2u);
    std::string log = appLog();
    for (const char* line : {"mon.json element 3 skipped: ServerID is missing or not a number",
                             "mon.json element 4 skipped: AppType is missing or not an application type",
                             "mon.json element 5 skipped: not an object"})
        EXPECT_NE(log.find(line), std::string::npos) << line;

    // A console edit of the list takes effect once the engine is told.
    json_array_append_new(gMon, parse(R"({"ID": 6, "AppType": 2, "ServerID": 3, "ClientID": 1})"));
    KsMonitoringEngine__LoadConfig();
    KsTEServer* s3 = KsTE__FindServer(2, 2, nullptr);
    ASSERT_TRUE(kst::waitFor([s3] { return s3->ksTE.load() != nullptr; }, 30));
    KsMonitoringEngine___Stop();
    json_decref(gMon);
    gMon = nullptr;
}

}  // namespace
