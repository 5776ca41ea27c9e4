// kestranectl from outside, against the real engine: a test run end to end with its
// counters in the performance log and a report, and every refusal and failure with
// its exit status.
#include <gtest/gtest.h>
#include <jansson.h>
#include <sys/wait.h>

#include <string>

#include "engine_child.h"

namespace {

const std::string kEngine = KS_ENGINE_BINARY;
const std::string kCtl = KS_CTL_BINARY;

std::map<std::string, std::string> data() {
    return {
        {"uel.json", R"([{"ID": 1, "MSINStart": "001010000000001", "MSINEnd": "001010000000040", "MCC": "001", "MNC": "01", "MSISDNBegin": "9000000001"}])"},
        {"sce.json", R"([{"ID": 1, "Name": "long", "Config": [{"ID": 3, "Dict": [{"Key": 3, "Value": "30"}]}]},
                         {"ID": 2, "Name": "short", "Config": [{"ID": 3, "Dict": [{"Key": 3, "Value": "1"}]},
                                                              {"ID": 3, "Dict": [{"Key": 3, "Value": "0"}]}]}])"},
        {"tst.json", R"([{"ID": 1, "Name": "one", "ScenarioID": 1, "SUPIStartNo": "001010000000031", "SUPIStartEnd": "001010000000032"},
                         {"ID": 3, "Name": "three", "ScenarioID": 2, "AppType": 2, "MPS": 10,
                          "SUPIStartNo": "001010000000001", "SUPIStartEnd": "001010000000020"},
                         {"ID": 4, "Name": "four", "ScenarioID": 77, "SUPIStartNo": "001010000000021", "SUPIStartEnd": "001010000000022"}])"},
    };
}

struct CtlRun {
    int status = -1;
    std::string out, err;
};

CtlRun ctl(const kst::EngineChild& e, const std::string& args, bool target = true) {
    std::string base = e.dir + "/ctl";
    std::string cmd = kCtl + (target ? " --host " + e.host + " --port " + std::to_string(e.port) : "") + " " + args +
                      " >" + base + ".out 2>" + base + ".err";
    int rc = system(cmd.c_str());
    CtlRun r;
    r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    r.out = kst::readFile(base + ".out");
    r.err = kst::readFile(base + ".err");
    return r;
}

json_t* parse(const std::string& text) {
    json_error_t err;
    json_t* j = json_loads(text.c_str(), 0, &err);
    EXPECT_NE(j, nullptr) << text;
    return j;
}

struct Engine : kst::EngineChild {
    Engine() : kst::EngineChild(kEngine, data()) {}
    ~Engine() { EXPECT_EQ(out().find("Sanitizer"), std::string::npos) << out().substr(0, 4000); }
};

TEST(Kestranectl, StartWaitStatusAndReportOfATestRun) {
    Engine e;
    ASSERT_TRUE(e.waitForConsole()) << e.out();
    CtlRun r = ctl(e, "ping");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("pong from " + e.host), std::string::npos);

    r = ctl(e, "start 3");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "test 3: queued (status 3)\n");
    r = ctl(e, "start 3");
    EXPECT_EQ(r.status, 1) << "a second start is refused";
    EXPECT_TRUE(r.err.find("already queued") != std::string::npos || r.err.find("already running") != std::string::npos)
        << r.err;

    r = ctl(e, "wait 3 --app-type 2 --interval 0.5 --max-seconds 60");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("test 3: running"), std::string::npos) << "a progress line while it runs: " << r.err;
    EXPECT_NE(r.out.find("test 3: idle (state 0)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("20 of 20 done this pass"), std::string::npos) << r.out;

    // Each second of the run printed the UPF block with ExecutionTimeout.
    std::string per = e.log("per");
    size_t blocks = kst::countOccurrences(per, "TestName=three   AppType=2    TPS=10");
    EXPECT_GE(blocks, 2u) << per.substr(0, 3000);
    EXPECT_EQ(kst::countOccurrences(per, "PFCPSessionEstablishmentRequest "), blocks);
    EXPECT_EQ(kst::countOccurrences(per, "PFCPRecvGTPPacket "), blocks);
    EXPECT_GE(kst::countOccurrences(per, "ExecutionTimeout "), blocks);

    r = ctl(e, "--json status 3 --app-type 2");
    EXPECT_EQ(r.status, 0);
    json_t* j = parse(r.out);
    EXPECT_EQ(json_integer_value(json_object_get(j, "state")), 0);
    EXPECT_EQ(json_integer_value(json_object_get(j, "completed_ues")), 20);
    EXPECT_EQ(json_integer_value(json_object_get(j, "ran_times")), 1);
    EXPECT_TRUE(json_is_array(json_object_get(j, "counters")));
    json_decref(j);

    r = ctl(e, "report");
    EXPECT_EQ(r.status, 0) << r.err;
    std::string report;
    ASSERT_TRUE(kst::waitFor(
        [&] {
            auto files = kst::listFiles(e.dir + "/reports");
            if (files.size() != 1) return false;
            report = kst::readFile(files[0]);
            return kst::countOccurrences(report, "IMSI ") == 20;
        },
        10))
        << report;
    std::string eq(162, '='), dash(162, '-');
    EXPECT_EQ(report.rfind("VELTA Networks\nKsTest Report,  Create Time: ", 0), 0u);
    size_t at = report.find("Create Time: ") + 13;
    EXPECT_TRUE(kst::hasShape(report.substr(at, 27), "##-##-####:##:##:##:######\n"));
    EXPECT_EQ(report.substr(at + 27, 168), eq + "\nIMSI ");
    EXPECT_EQ(kst::countOccurrences(report, dash + "\n" + eq + "\n"), 20u) << "each UE: header, rule, no events, rule";
}

TEST(Kestranectl, RefusalsAndFailuresHaveTheirExitStatus) {
    Engine e;
    ASSERT_TRUE(e.waitForConsole()) << e.out();
    struct Case {
        const char* args;
        int status;
        const char* text;  // in stdout or stderr
        bool target = true;  // --host and --port of the engine
    };
    const Case cases[] = {
        {"start 99", 1, "no such test"},
        {"stop 3", 1, "not running"},
        {"start 4", 0, "queued"},  // queued; it fails later for want of its scenario
        {"wait 4 --interval 0.2", 1, "no scenario"},
        {"start 0", 2, "start takes one TEST_ID"},
        {"status", 2, "status takes one TEST_ID"},
        {"stats extra", 2, "stats takes no operands"},
        {"launch 3", 2, "unknown command launch"},
        {"--port 0 ping", 2, "bad arguments"},
        {"--timeout x ping", 2, "bad arguments"},
        {"", 2, "usage:"},
        {"raw 75 --timeout 1", 4, "no answer in time"},
        {"raw 75 --no-answer --timeout 1", 0, "no answer, as expected"},
        {"raw 63 --no-answer --timeout 1", 1, "an answer came"},
        {"raw 63", 0, "answer type=63 size=20"},
        {"raw 35 0300000000000000", 0, "answer type=36 size=24"},
        {"raw 1 0g", 2, "hex digits"},
        {"--help", 0, "exit status: 0 done"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        CtlRun r = ctl(e, c.args, c.target);
        EXPECT_EQ(r.status, c.status) << r.out << r.err;
        EXPECT_NE((r.out + r.err).find(c.text), std::string::npos) << r.out << r.err;
    }
    CtlRun nobody = ctl(e, "--host " + kst::uniqueLoopback() + " ping", false);
    EXPECT_EQ(nobody.status, 3);
    EXPECT_NE(nobody.err.find("cannot connect"), std::string::npos);

    // A request above the engine's limit is refused unsent.
    std::string big = "raw 1 " + std::string(2 * 9981, '0');
    CtlRun r = ctl(e, big);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("above 10000 bytes"), std::string::npos);
    EXPECT_TRUE(e.running());
    r = ctl(e, "raw 1 " + std::string(2 * 9980, '0') + " --timeout 3");
    EXPECT_EQ(r.status, 0) << "10000 bytes are sent: " << r.err;

    // A wait that outlasts its limit, and a stop that ends the test.
    EXPECT_EQ(ctl(e, "start 1").status, 0);
    r = ctl(e, "wait 1 --interval 0.2 --max-seconds 2");
    EXPECT_EQ(r.status, 4);
    EXPECT_NE(r.err.find("still"), std::string::npos) << r.err;
    EXPECT_EQ(ctl(e, "stop 1").status, 0);
    EXPECT_EQ(ctl(e, "wait 1 --interval 0.2 --max-seconds 30").status, 0);

    // JSON answers say ok or why not.
    r = ctl(e, "--json start 99");
    json_t* j = parse(r.out);
    EXPECT_TRUE(json_is_false(json_object_get(j, "ok")));
    EXPECT_EQ(json_integer_value(json_object_get(j, "status")), 2);
    json_decref(j);
    r = ctl(e, "--json stats");
    EXPECT_EQ(r.status, 0);
    j = parse(r.out);
    EXPECT_EQ(json_integer_value(json_object_get(j, "LoadedUEs")), 40);
    EXPECT_GE(json_integer_value(json_object_get(j, "UPTime")), 1);
    json_decref(j);
    r = ctl(e, "--json --timeout 1 raw 2");
    EXPECT_EQ(r.status, 4);
    j = parse(r.out);
    EXPECT_STREQ(json_string_value(json_object_get(j, "error")), "no answer in time");
    json_decref(j);

    // The engine gone: unreachable.
    e.stop();
    r = ctl(e, "ping");
    EXPECT_EQ(r.status, 3);
}

}  // namespace
