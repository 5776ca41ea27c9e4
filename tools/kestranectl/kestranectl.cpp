// kestranectl: drives a running engine over its console port.
//
//   kestranectl [--host H] [--port P] [--timeout SECONDS] [--json] COMMAND [ARGS]
//
// Exit status: 0 done, 1 the engine refused, 2 bad arguments, 3 engine unreachable,
// 4 no answer in time, 5 malformed answer.
#include <arpa/inet.h>
#include <jansson.h>
#include <strings.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "KsTE_appTypes.h"
#include "Kestrane_counters.h"
#include "uec_client.h"

namespace {

using namespace ksuec;

constexpr const char* kUsage =
    "usage: kestranectl [--host H] [--port P] [--timeout SECONDS] [--json] COMMAND [ARGS]\n"
    "\n"
    "commands:\n"
    "  ping                          round trip to the engine\n"
    "  start TEST_ID                 queue a test of data/tst.json\n"
    "  stop TEST_ID                  ask a running test to stop\n"
    "  status TEST_ID [--app-type N] the test's state, progress and counters of type N\n"
    "  wait TEST_ID [--app-type N] [--interval SECONDS] [--max-seconds SECONDS]\n"
    "                                until the test is no longer queued or running\n"
    "  stats                         the engine's statistics\n"
    "  report                        ask for a text report in the engine's ./reports/\n"
    "  latch UES_PER_SECOND          start binding UEs to RANs at that rate (once per engine)\n"
    "  nodes [APPTYPE]               the element connections of a type (name or number), or of all\n"
    "  node APPTYPE ID COMMAND       a command to connection ID (1 brings its node up)\n"
    "  raw TYPE [HEX...]             send a request of any type, print the answer\n"
    "        [--no-answer]           succeed only when no answer comes\n"
    "\n"
    "defaults: --host 127.0.0.1 --port 9119 --timeout 3\n"
    "exit status: 0 done, 1 refused, 2 bad arguments, 3 unreachable, 4 timeout, 5 malformed answer\n";

struct Options {
    std::string host = "127.0.0.1";
    uint16_t port = 9119;
    int timeoutMs = 3000;
    bool json = false;
    uint32_t appType = 0;
    double interval = 1.0;
    double maxSeconds = 0;
    bool noAnswer = false;
    std::vector<std::string> args;  // the command and its operands
};

int usage(const char* why) {
    if (why) fprintf(stderr, "kestranectl: %s\n", why);
    fputs(kUsage, stderr);
    return BadArgs;
}

bool parseNumber(const std::string& s, double& out) {
    char* end = nullptr;
    errno = 0;
    out = strtod(s.c_str(), &end);
    return !s.empty() && end && *end == 0 && errno == 0 && out >= 0;
}

bool parseU32(const std::string& s, uint32_t& out) {
    if (s.empty() || s.size() > 10 || s.find_first_not_of("0123456789") != std::string::npos) return false;
    unsigned long long v = strtoull(s.c_str(), nullptr, 10);
    if (v > 0xffffffffull) return false;
    out = uint32_t(v);
    return true;
}

// Prints a JSON object and takes it back.
void emit(json_t* o) {
    char* text = json_dumps(o, JSON_COMPACT | JSON_PRESERVE_ORDER);
    if (text) printf("%s\n", text);
    free(text);
    json_decref(o);
}

// The failure of a request: a line on stderr, or a JSON object with the reason.
int fail(const Options& o, const char* command, int result, const std::string& detail = "") {
    std::string text = detail.empty() ? resultText(result) : detail;
    if (o.json) {
        json_t* j = json_object();
        json_object_set_new(j, "command", json_string(command));
        json_object_set_new(j, "ok", json_false());
        json_object_set_new(j, "error", json_string(resultText(result)));
        json_object_set_new(j, "detail", json_string(text.c_str()));
        emit(j);
    } else {
        fprintf(stderr, "kestranectl %s: %s (%s:%u)\n", command, text.c_str(), o.host.c_str(), o.port);
    }
    return result;
}

std::string fixedText(const char* p, size_t n) { return std::string(p, strnlen(p, n)); }

const char* stateName(uint32_t s) {
    switch (s) {
        case 0: return "idle";
        case 1: return "queued";
        case 2: return "running";
        case 5: return "no scenario";
        case 6: return "scenario without steps";
        case 8: return "starting";
        case 9: return "no UE could be taken";
        case 10: return "UE list empty";
        case 11: return "SUPI range empty";
        case 12: return "SUPI range missing";
        case 13: return "not configured";
        case 100: return "stopping";
        case 999999: return "unknown test";
    }
    return "state";
}

bool busy(uint32_t s) { return s == 1 || s == 2 || s == 8 || s == 100; }
bool failedState(uint32_t s) { return s != 0 && !busy(s); }

// ---------------------------------------------------------------- commands

int cmdPing(Client& c, const Options& o) {
    auto t0 = std::chrono::steady_clock::now();
    std::vector<uint8_t> answer;
    uint32_t no = 0;
    int r = c.send(VELTA_UEC_MSG_TYP__PING_REQUEST, {}, &no);
    if (r == Ok) r = c.await(no, answer, o.timeoutMs);
    if (r != Ok) return fail(o, "ping", r);
    double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    if (o.json) {
        json_t* j = json_object();
        json_object_set_new(j, "command", json_string("ping"));
        json_object_set_new(j, "ok", json_true());
        json_object_set_new(j, "rtt_ms", json_real(ms));
        emit(j);
    } else {
        printf("pong from %s:%u in %.3f ms\n", o.host.c_str(), o.port, ms);
    }
    return Ok;
}

int cmdBegin(Client& c, const Options& o, bool stop) {
    const char* cmd = stop ? "stop" : "start";
    uint32_t id = 0;
    parseU32(o.args[1], id);
    __uec_begin_test req{};
    req.TestID = id;
    req.Stop = stop ? 1 : 0;
    __uec_begin_test_response ans{};
    int r = c.callRecord(VELTA_UEC_MSG_TYP__BEGIN_TEST, req, ans, o.timeoutMs);
    if (r != Ok) return fail(o, cmd, r);
    const char* text = "unexpected status";
    bool ok = false;
    switch (ans.Status) {
        case VELTA_UEC_BEGIN__NO_TEST_ID: text = "0 is not a test id"; break;
        case VELTA_UEC_BEGIN__UNKNOWN_TEST: text = "no such test in data/tst.json"; break;
        case VELTA_UEC_BEGIN__QUEUED: text = "queued", ok = true; break;
        case VELTA_UEC_BEGIN__ALREADY_QUEUED: text = "already queued"; break;
        case VELTA_UEC_BEGIN__ALREADY_RUNNING: text = "already running"; break;
        case VELTA_UEC_BEGIN__STOP_REQUESTED: text = "stop requested", ok = true; break;
        case VELTA_UEC_BEGIN__NOT_RUNNING: text = "not running"; break;
    }
    if (o.json) {
        json_t* j = json_object();
        json_object_set_new(j, "command", json_string(cmd));
        json_object_set_new(j, "ok", json_boolean(ok));
        json_object_set_new(j, "test", json_integer(id));
        json_object_set_new(j, "status", json_integer(ans.Status));
        json_object_set_new(j, "result", json_string(text));
        emit(j);
    } else {
        fprintf(ok ? stdout : stderr, "test %u: %s (status %u)\n", id, text, ans.Status);
    }
    return ok ? Ok : Refused;
}

struct TestReport {
    __uec_load_test_report head{};
    std::vector<__uec_mv_counter> rows;
};

int queryTest(Client& c, const Options& o, uint32_t id, TestReport& out) {
    __uec_load_settings_request req{};
    req.TEApplicationType = o.appType;
    req.Command = 1;
    req.Option1 = id;
    std::vector<uint8_t> raw;
    auto* body = reinterpret_cast<const uint8_t*>(&req) + sizeof(__uec_msg_header);
    int r = c.call(VELTA_UEC_MSG_TYP__SETTINGS_LOAD_REQUEST,
                   std::span<const uint8_t>(body, sizeof req - sizeof(__uec_msg_header)), raw, o.timeoutMs);
    if (r != Ok) return r;
    constexpr size_t at = offsetof(__uec_load_settings_response, buffer);
    if (raw.size() < at + sizeof out.head) return Protocol;
    memcpy(&out.head, raw.data() + at, sizeof out.head);
    size_t rows = out.head.CounterBufferSize / sizeof(__uec_mv_counter);
    if (raw.size() < at + sizeof out.head + rows * sizeof(__uec_mv_counter)) return Protocol;
    out.rows.resize(rows);
    if (rows) memcpy(out.rows.data(), raw.data() + at + sizeof out.head, rows * sizeof(__uec_mv_counter));
    return Ok;
}

std::string counterName(uint32_t appType, uint32_t id) {
    if (id == 0) return "total";
    const char* n = KsEngine__CounterNameByID(appType, id);
    return n ? n : "counter-" + std::to_string(id);
}

json_t* reportJson(const Options& o, uint32_t id, const TestReport& t) {
    const __uec_load_test_report& h = t.head;
    json_t* j = json_object();
    json_object_set_new(j, "test", json_integer(id));
    json_object_set_new(j, "state", json_integer(h.TestStatus));
    json_object_set_new(j, "state_name", json_string(stateName(h.TestStatus)));
    json_object_set_new(j, "start_time", json_string(fixedText(h.TestStartTime, sizeof h.TestStartTime).c_str()));
    json_object_set_new(j, "end_time", json_string(fixedText(h.TestEndTime, sizeof h.TestEndTime).c_str()));
    json_object_set_new(j, "pass", json_integer(h.ExecutedNoOfTimes));
    json_object_set_new(j, "passes", json_integer(h.TotalNoOfTimesToExecute));
    json_object_set_new(j, "percent", json_integer(h.Percent));
    json_object_set_new(j, "completed_ues", json_integer(h.CompletedExecutionUECount));
    json_object_set_new(j, "attached_ues", json_integer(h.TotalAttachedUECount));
    json_object_set_new(j, "total_completed_ues", json_integer(h.TotalCompletedExecutionUECount));
    json_object_set_new(j, "tps", json_integer(h.ExecutedTPS));
    json_object_set_new(j, "total_tps", json_integer(h.TotalExecutedTPS));
    json_object_set_new(j, "ongoing", json_integer(h.OnGoing));
    json_object_set_new(j, "ran_times", json_integer(h.RanTimes));
    json_object_set_new(j, "seconds", json_integer(h.TotalExecutedInSeconds));
    json_t* counters = json_array();
    for (const __uec_mv_counter& r : t.rows) {
        json_t* c = json_object();
        json_object_set_new(c, "id", json_integer(r.ID));
        json_object_set_new(c, "name", json_string(counterName(o.appType, r.ID).c_str()));
        json_object_set_new(c, "current", json_integer(r.Current));
        json_object_set_new(c, "pass", json_integer(json_int_t(r.Total)));
        json_object_set_new(c, "total", json_integer(json_int_t(r.LTotal)));
        json_array_append_new(counters, c);
    }
    json_object_set_new(j, "counters", counters);
    return j;
}

std::string passesText(const __uec_load_test_report& h) {
    if (h.TotalNoOfTimesToExecute == 0x7fffffff) return std::to_string(h.ExecutedNoOfTimes) + "/until stopped";
    return std::to_string(h.ExecutedNoOfTimes) + "/" + std::to_string(h.TotalNoOfTimesToExecute);
}

void printReport(const Options& o, uint32_t id, const TestReport& t) {
    const __uec_load_test_report& h = t.head;
    printf("test %u: %s (state %u)\n", id, stateName(h.TestStatus), h.TestStatus);
    printf("  started      %s\n", fixedText(h.TestStartTime, sizeof h.TestStartTime).c_str());
    printf("  ended        %s\n", fixedText(h.TestEndTime, sizeof h.TestEndTime).c_str());
    printf("  pass         %s\n", passesText(h).c_str());
    printf("  UEs          %u of %u done this pass, %u in all passes, %u in flight\n", h.CompletedExecutionUECount,
           h.TotalAttachedUECount, h.TotalCompletedExecutionUECount, h.OnGoing);
    printf("  progress     %d%%, %d UEs/s now, %d UEs/s over the test\n", h.Percent, h.ExecutedTPS, h.TotalExecutedTPS);
    if (!t.rows.empty()) {
        printf("  %-44s %12s %12s %12s\n", "counter", "last second", "this pass", "whole test");
        for (const __uec_mv_counter& r : t.rows)
            printf("  %-44s %12u %12llu %12llu\n", counterName(o.appType, r.ID).c_str(), r.Current,
                   (unsigned long long)r.Total, (unsigned long long)r.LTotal);
    }
}

int cmdStatus(Client& c, const Options& o) {
    uint32_t id = 0;
    parseU32(o.args[1], id);
    TestReport t;
    int r = queryTest(c, o, id, t);
    if (r != Ok) return fail(o, "status", r);
    if (o.json) {
        json_t* j = reportJson(o, id, t);
        json_object_set_new(j, "command", json_string("status"));
        json_object_set_new(j, "ok", json_true());
        emit(j);
    } else {
        printReport(o, id, t);
    }
    return Ok;
}

int cmdWait(Client& c, const Options& o) {
    uint32_t id = 0;
    parseU32(o.args[1], id);
    auto t0 = std::chrono::steady_clock::now();
    TestReport t;
    bool tty = isatty(2);
    for (;;) {
        int r = queryTest(c, o, id, t);
        if (r != Ok) return fail(o, "wait", r);
        if (!busy(t.head.TestStatus)) break;
        double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        fprintf(stderr, "%stest %u: %-8s %3d%%  %u/%u UEs  pass %s  %d UEs/s  %.0fs%s", tty ? "\r" : "", id,
                stateName(t.head.TestStatus), t.head.Percent, t.head.CompletedExecutionUECount,
                t.head.TotalAttachedUECount, passesText(t.head).c_str(), t.head.ExecutedTPS, waited, tty ? "   " : "\n");
        fflush(stderr);
        if (o.maxSeconds > 0 && waited >= o.maxSeconds) {
            if (tty) fputc('\n', stderr);
            return fail(o, "wait", Timeout, "test " + std::to_string(id) + " still " + stateName(t.head.TestStatus));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(int(o.interval * 1000)));
    }
    if (tty) fputc('\n', stderr);
    bool ok = !failedState(t.head.TestStatus);
    if (o.json) {
        json_t* j = reportJson(o, id, t);
        json_object_set_new(j, "command", json_string("wait"));
        json_object_set_new(j, "ok", json_boolean(ok));
        emit(j);
    } else {
        printReport(o, id, t);
    }
    return ok ? Ok : Refused;
}

int cmdStats(Client& c, const Options& o) {
    __uec_stats_request req{};
    __uec_stats_response s{};
    int r = c.callRecord(VELTA_UEC_MSG_TYP__STATS_REQUEST, req, s, o.timeoutMs);
    if (r != Ok) return fail(o, "stats", r);
    struct Field {
        const char* name;
        uint64_t value;
    };
    const Field fields[] = {
        {"ConfiguredAMFCount", s.ConfiguredAMFCount}, {"ConfiguredRanCount", s.ConfiguredRanCount},
        {"ConnectedToAMF", s.ConnectedToAMF},         {"LoadedUEs", s.LoadedUEs},
        {"UEPoolAvailable", s.UEPoolAvailable},       {"UEPoolTotal", s.UEPoolTotal},
        {"UERegistered", s.UERegistered},             {"UEDeRegistered", s.UEDeRegistered},
        {"UERegRejected", s.UERegRejected},           {"CMConnetced", s.CMConnetced},
        {"CMIdle", s.CMIdle},                         {"NGAPErrors", s.NGAPErrors},
        {"NASErrors", s.NASErrors},                   {"UEPduSessions", s.UEPduSessions},
        {"ExecutingTestCaseCount", s.ExecutingTestCaseCount}, {"TestCaseTimeout", s.TestCaseTimeout},
        {"Executed_TestCases", s.Executed_TestCases}, {"Executed_TestSteps", s.Executed_TestSteps},
        {"LatchPerSecond", s.LatchPerSecond},         {"UPTime", s.UPTime},
    };
    std::string ds = fixedText(s.ds, sizeof s.ds);
    if (o.json) {
        json_t* j = json_object();
        json_object_set_new(j, "command", json_string("stats"));
        json_object_set_new(j, "ok", json_true());
        for (const Field& f : fields) json_object_set_new(j, f.name, json_integer(json_int_t(f.value)));
        json_object_set_new(j, "ds", json_string(ds.c_str()));
        emit(j);
    } else {
        for (const Field& f : fields) printf("%-24s %llu\n", f.name, (unsigned long long)f.value);
        printf("%-24s %s\n", "ds", ds.c_str());
    }
    return Ok;
}

int cmdLatch(Client& c, const Options& o, uint32_t perSecond) {
    __uec_test_start_request req{};
    req.LatchPerSecond = perSecond;
    __uec_test_start_response ans{};
    int r = c.callRecord(VELTA_UEC_MSG_TYP__TEST_START_REQUEST, req, ans, o.timeoutMs);
    if (r != Ok) return fail(o, "latch", r);
    bool ok = ans.Status == 1;
    if (o.json) {
        json_t* j = json_object();
        json_object_set_new(j, "command", json_string("latch"));
        json_object_set_new(j, "ok", json_boolean(ok));
        json_object_set_new(j, "status", json_integer(ans.Status));
        emit(j);
    } else if (ok) {
        printf("latching %u UEs a second to their RANs\n", perSecond);
    } else {
        fprintf(stderr, "the engine latches at the rate it was given first (status %u)\n", ans.Status);
    }
    return ok ? Ok : Refused;
}

int cmdReport(Client& c, const Options& o) {
    __uec_test_start_request req{};
    __uec_test_start_response ans{};
    int r = c.callRecord(VELTA_UEC_MSG_TYP__REPORT_REQUEST, req, ans, o.timeoutMs);
    if (r != Ok) return fail(o, "report", r);
    bool ok = ans.Status == 1;
    if (o.json) {
        json_t* j = json_object();
        json_object_set_new(j, "command", json_string("report"));
        json_object_set_new(j, "ok", json_boolean(ok));
        json_object_set_new(j, "status", json_integer(ans.Status));
        emit(j);
    } else if (ok) {
        printf("report requested: the engine writes it to reports/ in its working directory\n");
    } else {
        fprintf(stderr, "a report is being written already (status %u)\n", ans.Status);
    }
    return ok ? Ok : Refused;
}

// An application type given by name (any case) or number.
bool parseAppType(const std::string& s, uint32_t& out) {
    if (parseU32(s, out)) return out >= 1 && out <= 31;
    for (uint32_t i = 1; i < 32; ++i)
        if (strcasecmp(KsTE__AppTypeName(i), s.c_str()) == 0) return (out = i), true;
    return false;
}

std::string appTypeText(uint32_t t) {
    const char* n = KsTE__AppTypeName(t);
    return n ? n : std::to_string(t);
}

// The connections of one type, as the engine lists them.
int listConnections(Client& c, const Options& o, uint32_t type, std::vector<__uec_node_connection_status>& rows) {
    __uec_node_connection req{};
    req.TEApplicationType = type;
    std::vector<uint8_t> raw;
    auto* body = reinterpret_cast<const uint8_t*>(&req) + sizeof(__uec_msg_header);
    int r = c.call(VELTA_UEC_MSG_TYP__NODE_CONNECTION_REQUEST,
                   std::span<const uint8_t>(body, sizeof req - sizeof(__uec_msg_header)), raw, o.timeoutMs);
    if (r != Ok) return r;
    constexpr size_t at = offsetof(__uec_node_connection_status_list, buffer);
    if (raw.size() < at) return Protocol;
    uint32_t count;
    memcpy(&count, raw.data() + offsetof(__uec_node_connection_status_list, Count), sizeof count);
    if (count > kUecRowsNodeConnStatus || raw.size() < at + count * sizeof(__uec_node_connection_status)) return Protocol;
    size_t first = rows.size();
    rows.resize(first + count);
    if (count) memcpy(&rows[first], raw.data() + at, count * sizeof(__uec_node_connection_status));
    return Ok;
}

std::string addressText(const uint8_t (&ip)[16], uint16_t type) {
    if (type == 6) return "(IPv6)";
    if (type != 4) return "-";
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, ip, text, sizeof text);
    return text;
}

std::string endText(const uint8_t (&ip)[16], uint16_t type, uint16_t port) {
    return type ? addressText(ip, type) + ":" + std::to_string(port) : "-";
}

json_t* endJson(const uint8_t (&ip1)[16], uint16_t type1, uint16_t port1, const uint8_t (&ip2)[16], uint16_t type2,
                uint16_t port2) {
    json_t* j = json_object();
    json_object_set_new(j, "ip", json_string(addressText(ip1, type1).c_str()));
    json_object_set_new(j, "port", json_integer(port1));
    json_object_set_new(j, "ip2", json_string(addressText(ip2, type2).c_str()));
    json_object_set_new(j, "port2", json_integer(port2));
    return j;
}

json_t* connectionJson(const __uec_node_connection_status& r) {
    json_t* j = json_object();
    json_object_set_new(j, "id", json_integer(r.ConnectionId));
    json_object_set_new(j, "type", json_integer(r.TEApplicationType));
    json_object_set_new(j, "type_name", json_string(appTypeText(r.TEApplicationType).c_str()));
    json_object_set_new(j, "status", json_integer(r.ConnectionStatus));
    json_object_set_new(j, "pair", json_string(fixedText(r.ConnString, sizeof r.ConnString).c_str()));
    json_object_set_new(j, "server", endJson(r.ServerIP_1, r.ServerIP_1Type, r.Server_1Port, r.ServerIP_2,
                                              r.ServerIP_2Type, r.Server_2Port));
    json_object_set_new(j, "client", endJson(r.ClientIP_1, r.ClientIP_1Type, r.Client_1Port, r.ClientIP_2,
                                              r.ClientIP_2Type, r.Client_2Port));
    return j;
}

int cmdNodes(Client& c, const Options& o) {
    std::vector<uint32_t> types;
    uint32_t t = 0;
    if (o.args.size() == 2) {
        parseAppType(o.args[1], t);
        types.push_back(t);
    } else {
        for (t = 1; t < 32; ++t) types.push_back(t);
    }
    std::vector<__uec_node_connection_status> rows;
    for (uint32_t type : types)
        if (int r = listConnections(c, o, type, rows); r != Ok) return fail(o, "nodes", r);
    if (o.json) {
        json_t* j = json_object();
        json_object_set_new(j, "command", json_string("nodes"));
        json_object_set_new(j, "ok", json_true());
        json_t* list = json_array();
        for (const auto& r : rows) json_array_append_new(list, connectionJson(r));
        json_object_set_new(j, "connections", list);
        emit(j);
        return Ok;
    }
    if (rows.empty()) {
        printf("no connections%s\n", types.size() == 1 ? (" of " + appTypeText(types[0])).c_str() : "");
        return Ok;
    }
    printf("%-6s %-10s %-7s %-20s %-22s %s\n", "CONN", "TYPE", "STATUS", "PAIR", "SERVER", "CLIENT");
    for (const auto& r : rows)
        printf("%-6u %-10s %-7u %-20s %-22s %s\n", r.ConnectionId, appTypeText(r.TEApplicationType).c_str(),
               r.ConnectionStatus, fixedText(r.ConnString, sizeof r.ConnString).c_str(),
               endText(r.ServerIP_1, r.ServerIP_1Type, r.Server_1Port).c_str(),
               endText(r.ClientIP_1, r.ClientIP_1Type, r.Client_1Port).c_str());
    return Ok;
}

int cmdNode(Client& c, const Options& o) {
    uint32_t type = 0, id = 0, command = 0;
    parseAppType(o.args[1], type);
    parseU32(o.args[2], id);
    parseU32(o.args[3], command);
    // The engine's answer does not tell an unknown connection from a known one: ask first.
    std::vector<__uec_node_connection_status> rows;
    if (int r = listConnections(c, o, type, rows); r != Ok) return fail(o, "node", r);
    const __uec_node_connection_status* row = nullptr;
    for (const auto& x : rows)
        if (x.ConnectionId == id) row = &x;
    if (!row)
        return fail(o, "node", Refused, "no connection " + std::to_string(id) + " of " + appTypeText(type));
    __uec_node_connection req{};
    req.ID = id;
    req.TEApplicationType = type;
    req.Command = command;
    __uec_node_command_response ans{};
    if (int r = c.callRecord(VELTA_UEC_MSG_TYP__NODE_CONNECTION_COMMAND_REQUEST, req, ans, o.timeoutMs); r != Ok)
        return fail(o, "node", r);
    std::string pair = fixedText(row->ConnString, sizeof row->ConnString);
    if (o.json) {
        json_t* j = json_object();
        json_object_set_new(j, "command", json_string("node"));
        json_object_set_new(j, "ok", json_true());
        json_object_set_new(j, "id", json_integer(ans.ConnectionId));
        json_object_set_new(j, "type", json_integer(ans.TEApplicationType));
        json_object_set_new(j, "type_name", json_string(appTypeText(ans.TEApplicationType).c_str()));
        json_object_set_new(j, "pair", json_string(pair.c_str()));
        json_object_set_new(j, "node_command", json_integer(command));
        json_object_set_new(j, "status", json_integer(ans.ConnectionStatus));
        json_object_set_new(j, "command_status", json_integer(ans.CommandStatus));
        emit(j);
    } else {
        printf("connection %u (%s %s): command %u sent, status %u\n", ans.ConnectionId,
               appTypeText(ans.TEApplicationType).c_str(), pair.c_str(), command, ans.ConnectionStatus);
    }
    return Ok;
}

int hexValue(char ch) {
    if (ch >= '0' && ch <= '9') return ch - '0';
    if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
    if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
    return -1;
}

// The operands after TYPE, joined, as hex.
bool rawBody(const Options& o, std::vector<uint8_t>& body) {
    std::string hex;
    for (size_t i = 2; i < o.args.size(); ++i) hex += o.args[i];
    body.clear();
    for (size_t i = 0; i < hex.size(); i += 2) {
        int hi = hexValue(hex[i]), lo = i + 1 < hex.size() ? hexValue(hex[i + 1]) : -1;
        if (hi < 0 || lo < 0) return false;
        body.push_back(uint8_t(hi << 4 | lo));
    }
    return true;
}

int cmdRaw(Client& c, const Options& o) {
    uint32_t type = 0;
    parseU32(o.args[1], type);
    std::vector<uint8_t> body;
    rawBody(o, body);
    std::vector<uint8_t> answer;
    int r = c.call(type, body, answer, o.timeoutMs);
    if (o.noAnswer) {
        if (r == Timeout) {
            if (o.json) {
                json_t* j = json_object();
                json_object_set_new(j, "command", json_string("raw"));
                json_object_set_new(j, "ok", json_true());
                json_object_set_new(j, "answered", json_false());
                emit(j);
            } else {
                printf("no answer, as expected\n");
            }
            return Ok;
        }
        if (r == Ok) return fail(o, "raw", Refused, "an answer came");
        return fail(o, "raw", r);
    }
    if (r != Ok) return fail(o, "raw", r);
    __uec_msg_header h;
    memcpy(&h, answer.data(), sizeof h);
    std::string hexOut;
    char b[4];
    for (uint8_t x : answer) {
        snprintf(b, sizeof b, "%02x", x);
        hexOut += b;
    }
    if (o.json) {
        json_t* j = json_object();
        json_object_set_new(j, "command", json_string("raw"));
        json_object_set_new(j, "ok", json_true());
        json_object_set_new(j, "type", json_integer(h.MessageType));
        json_object_set_new(j, "size", json_integer(h.MessageSize));
        json_object_set_new(j, "request_no", json_integer(h.RequestNo));
        json_object_set_new(j, "hex", json_string(hexOut.c_str()));
        emit(j);
    } else {
        printf("answer type=%u size=%u RequestNo=%u\n", h.MessageType, h.MessageSize, h.RequestNo);
        for (size_t i = 0; i < hexOut.size(); i += 64) printf("  %s\n", hexOut.substr(i, 64).c_str());
    }
    return Ok;
}

// Options may stand anywhere; the first other word is the command.
int parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char* what) -> const char* {
            if (i + 1 >= argc) return nullptr;
            (void)what;
            return argv[++i];
        };
        double d;
        uint32_t u;
        if (a == "-h" || a == "--help") return -1;
        if (a == "--json") {
            o.json = true;
        } else if (a == "--no-answer") {
            o.noAnswer = true;
        } else if (a == "--host") {
            const char* v = value("host");
            if (!v || !*v) return BadArgs;
            o.host = v;
        } else if (a == "--port") {
            const char* v = value("port");
            if (!v || !parseU32(v, u) || u == 0 || u > 65535) return BadArgs;
            o.port = uint16_t(u);
        } else if (a == "--timeout") {
            const char* v = value("timeout");
            if (!v || !parseNumber(v, d) || d <= 0 || d > 3600) return BadArgs;
            o.timeoutMs = int(d * 1000);
        } else if (a == "--app-type") {
            const char* v = value("app-type");
            if (!v || !parseU32(v, u) || u > 31) return BadArgs;
            o.appType = u;
        } else if (a == "--interval") {
            const char* v = value("interval");
            if (!v || !parseNumber(v, d) || d < 0.05 || d > 3600) return BadArgs;
            o.interval = d;
        } else if (a == "--max-seconds") {
            const char* v = value("max-seconds");
            if (!v || !parseNumber(v, d)) return BadArgs;
            o.maxSeconds = d;
        } else if (a.size() > 1 && a[0] == '-') {
            return BadArgs;
        } else {
            o.args.push_back(a);
        }
    }
    return o.args.empty() ? BadArgs : Ok;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    int p = parse(argc, argv, o);
    if (p == -1) {
        fputs(kUsage, stdout);
        return Ok;
    }
    if (p != Ok) return usage("bad arguments");
    const std::string& cmd = o.args[0];
    static const char* const kCommands[] = {"ping", "start",  "stop", "status", "wait",
                                            "stats", "report", "raw", "nodes", "node", "latch"};
    bool known = false;
    for (const char* k : kCommands) known = known || cmd == k;
    if (!known) return usage(("unknown command " + cmd).c_str());
    if ((cmd == "ping" || cmd == "stats" || cmd == "report") && o.args.size() != 1)
        return usage((cmd + " takes no operands").c_str());

    if (cmd == "start" || cmd == "stop" || cmd == "status" || cmd == "wait") {
        uint32_t id = 0;
        if (o.args.size() != 2 || !parseU32(o.args[1], id) || id == 0)
            return usage((cmd + " takes one TEST_ID, 1 or more").c_str());
    }
    uint32_t appType = 0, u = 0;
    if (cmd == "latch" && (o.args.size() != 2 || !parseU32(o.args[1], u) || u == 0))
        return usage("latch takes UES_PER_SECOND, 1 or more");
    if (cmd == "nodes" && (o.args.size() > 2 || (o.args.size() == 2 && !parseAppType(o.args[1], appType))))
        return usage("nodes takes at most one APPTYPE, a name such as UPF or a number from 1 to 31");
    if (cmd == "node" && (o.args.size() != 4 || !parseAppType(o.args[1], appType) || !parseU32(o.args[2], u) ||
                          !parseU32(o.args[3], u)))
        return usage("node takes APPTYPE (a name such as UPF or a number from 1 to 31), a connection ID and a COMMAND");
    if (cmd == "raw") {
        uint32_t type = 0;
        if (o.args.size() < 2 || !parseU32(o.args[1], type)) return usage("raw needs a message TYPE");
        std::vector<uint8_t> body;
        if (!rawBody(o, body)) return usage("the body is hex digits, two per byte");
        if (body.size() + sizeof(__uec_msg_header) > VELTA_UEC_MAX_MESSAGE_SIZE)
            return fail(o, "raw", BadArgs, "a request above 10000 bytes is refused by the engine; not sent");
    }

    Client c;
    int r = c.connect(o.host, o.port, o.timeoutMs);
    if (r != Ok) return fail(o, cmd.c_str(), r, "cannot connect to the engine's console port");
    if (cmd == "ping") return cmdPing(c, o);
    if (cmd == "start") return cmdBegin(c, o, false);
    if (cmd == "stop") return cmdBegin(c, o, true);
    if (cmd == "status") return cmdStatus(c, o);
    if (cmd == "wait") return cmdWait(c, o);
    if (cmd == "stats") return cmdStats(c, o);
    if (cmd == "report") return cmdReport(c, o);
    if (cmd == "latch") return cmdLatch(c, o, u);
    if (cmd == "nodes") return cmdNodes(c, o);
    if (cmd == "node") return cmdNode(c, o);
    return cmdRaw(c, o);
}
