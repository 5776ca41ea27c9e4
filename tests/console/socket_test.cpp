// The console over TCP against the real engine in a child process: an independent
// prober, split and pipelined messages, two consoles at once, malformed frames, and
// the process ending on a frame above the size limit.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "engine_child.h"
#include "uec_client.h"

namespace {

const std::string kEngine = KS_ENGINE_BINARY;
const std::string kProbe = KS_PROBE_SCRIPT;

// Tests 1 and 2 run thirty seconds per UE, so that they can be caught running.
std::map<std::string, std::string> data() {
    return {
        {"uel.json", R"([{"ID": 1, "MSINStart": "001010000000001", "MSINEnd": "001010000000040", "MCC": "001", "MNC": "01", "MSISDNBegin": "9000000001"}])"},
        {"sce.json", R"([{"ID": 1, "Name": "long", "Config": [{"ID": 3, "Dict": [{"Key": 3, "Value": "30"}]}]}])"},
        {"tst.json", R"([{"ID": 1, "Name": "one", "ScenarioID": 1, "SUPIStartNo": "001010000000001", "SUPIStartEnd": "001010000000002"},
                         {"ID": 2, "Name": "two", "ScenarioID": 1, "SUPIStartNo": "001010000000003", "SUPIStartEnd": "001010000000004"}])"},
    };
}

std::vector<uint8_t> frame(uint32_t size, uint32_t type, uint32_t no, std::vector<uint8_t> body = {}) {
    std::vector<uint8_t> m(20 + body.size());
    __uec_msg_header h{size, type, no, 0};
    memcpy(m.data(), &h, sizeof h);
    if (!body.empty()) memcpy(m.data() + 20, body.data(), body.size());
    return m;
}

std::vector<uint8_t> msg(uint32_t type, uint32_t no, const std::vector<uint8_t>& body = {}) {
    return frame(uint32_t(20 + body.size()), type, no, body);
}

std::vector<uint8_t> beginBody(uint32_t test, uint32_t stop) {
    std::vector<uint8_t> b(8);
    memcpy(b.data(), &test, 4);
    memcpy(b.data() + 4, &stop, 4);
    return b;
}

uint32_t u32At(const std::vector<uint8_t>& b, size_t off) {
    uint32_t v = 0;
    if (b.size() >= off + 4) memcpy(&v, b.data() + off, 4);
    return v;
}

struct Engine : kst::EngineChild {
    explicit Engine(const std::string& config = "", bool console = true)
        : kst::EngineChild(kEngine, data(), config, console) {}
    ~Engine() {
        // No engine of these tests may leave a sanitizer report behind.
        std::string o = out();
        EXPECT_EQ(o.find("Sanitizer"), std::string::npos) << o.substr(0, 4000);
    }
    void connect(ksuec::Client& c) { ASSERT_EQ(c.connect(host, uint16_t(port), 3000), ksuec::Ok); }
    bool pingOk() {
        ksuec::Client c;
        if (c.connect(host, uint16_t(port), 3000) != ksuec::Ok) return false;
        std::vector<uint8_t> a;
        return c.call(VELTA_UEC_MSG_TYP__PING_REQUEST, {}, a, 3000) == ksuec::Ok && a.size() == 20;
    }
};

TEST(ConsoleSocket, IndependentProberChecksPingBeginStopAndStats) {
    Engine e;
    ASSERT_TRUE(e.waitForConsole()) << e.out();
    std::string cmd = "/usr/bin/python3 " + kProbe + " " + e.host + " " + std::to_string(e.port) + " 1 2 40 2>&1";
    FILE* p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::string out;
    char buf[512];
    while (fgets(buf, sizeof buf, p)) out += buf;
    int status = pclose(p);
    EXPECT_EQ(status, 0) << out;
    EXPECT_EQ(out, "ok\n");
    EXPECT_TRUE(e.running());
}

TEST(ConsoleSocket, ASplitMessageGetsExactlyOneAnswer) {
    Engine e(R"("LogLevel": {"COMMON": 5})");
    ASSERT_TRUE(e.waitForConsole()) << e.out();
    ksuec::Client c;
    e.connect(c);
    auto m = msg(VELTA_UEC_MSG_TYP__BEGIN_TEST, 4711, beginBody(0, 0));
    std::vector<uint8_t> a;
    for (auto [from, to] : {std::pair{0, 7}, std::pair{7, 23}, std::pair{23, 28}}) {
        ASSERT_EQ(c.sendBytes(std::span<const uint8_t>(m.data() + from, size_t(to - from))), ksuec::Ok);
        if (to < 28) {
            EXPECT_EQ(c.next(a, 300), ksuec::Timeout) << "nothing is answered before the last piece";
        }
    }
    ASSERT_EQ(c.next(a, 3000), ksuec::Ok);
    EXPECT_EQ(u32At(a, 8), 4711u);
    EXPECT_EQ(u32At(a, 20), 1u);
    EXPECT_EQ(c.next(a, 500), ksuec::Timeout) << "exactly one answer";
    EXPECT_TRUE(kst::waitFor([&] { return e.log("cmn").find("Not Received Sufficent Buffer expected=28 received=23") !=
                                          std::string::npos; },
                             5));
}

TEST(ConsoleSocket, UnknownTypesGetNoAnswerAndTheConnectionStaysUsable) {
    Engine e;
    ASSERT_TRUE(e.waitForConsole()) << e.out();
    ksuec::Client c;
    e.connect(c);
    for (uint32_t type : {0u, 2u, 4u, 36u, 64u, 75u, 9999u}) {
        auto m = msg(type, 100 + type, std::vector<uint8_t>(type % 5 * 4, 0x41));
        ASSERT_EQ(c.sendBytes(m), ksuec::Ok);
    }
    std::vector<uint8_t> a;
    EXPECT_EQ(c.next(a, 800), ksuec::Timeout);
    ASSERT_EQ(c.call(VELTA_UEC_MSG_TYP__PING_REQUEST, {}, a, 3000), ksuec::Ok);
    EXPECT_EQ(u32At(a, 4), 63u);
}

// Two consoles, each with 1000 pings and 100 test requests in flight: every answer on
// its own socket, with its own RequestNo, none lost or doubled.
TEST(ConsoleSocket, TwoConsolesEachGetTheirOwnAnswers) {
    Engine e;
    ASSERT_TRUE(e.waitForConsole()) << e.out();
    auto run = [&](uint32_t base, std::string* error) {
        ksuec::Client c;
        if (c.connect(e.host, uint16_t(e.port), 3000) != ksuec::Ok) {
            *error = "no connection";
            return;
        }
        std::vector<uint8_t> all;
        std::set<uint32_t> expected;
        for (uint32_t i = 0; i < 1100; ++i) {
            uint32_t no = base + i;
            auto m = i % 11 == 10 ? msg(VELTA_UEC_MSG_TYP__BEGIN_TEST, no, beginBody(i % 2 ? 99 : 2, 1))
                                  : msg(VELTA_UEC_MSG_TYP__PING_REQUEST, no);
            all.insert(all.end(), m.begin(), m.end());
            expected.insert(no);
        }
        // Sent in pieces of odd sizes, so messages straddle the segments.
        for (size_t off = 0; off < all.size(); off += 1337) {
            size_t n = std::min<size_t>(1337, all.size() - off);
            if (c.sendBytes(std::span<const uint8_t>(all.data() + off, n)) != ksuec::Ok) {
                *error = "send failed";
                return;
            }
        }
        std::vector<uint8_t> a;
        for (size_t k = 0; k < 1100; ++k) {
            if (c.next(a, 10000) != ksuec::Ok) {
                *error = "answer " + std::to_string(k) + " missing";
                return;
            }
            uint32_t no = u32At(a, 8), type = u32At(a, 4);
            if (!expected.erase(no)) {
                *error = "RequestNo " + std::to_string(no) + " not ours or twice";
                return;
            }
            uint32_t i = no - base;
            if (i % 11 == 10) {
                uint32_t want = i % 2 ? 2u : 101u;
                if (type != 36 || u32At(a, 20) != want) *error = "test request " + std::to_string(i) + " answered wrong";
            } else if (type != 63 || a.size() != 20) {
                *error = "ping " + std::to_string(i) + " answered wrong";
            }
        }
        if (c.next(a, 300) != ksuec::Timeout) *error = "an answer too many";
    };
    std::string errA, errB;
    std::thread ta(run, 1000, &errA), tb(run, 5000000, &errB);
    ta.join();
    tb.join();
    EXPECT_EQ(errA, "");
    EXPECT_EQ(errB, "");
}

TEST(ConsoleSocket, MalformedFramesCloseOnlyTheirConnection) {
    Engine e;
    ASSERT_TRUE(e.waitForConsole()) << e.out();
    for (uint32_t size : {0u, 5u, 19u}) {
        SCOPED_TRACE(size);
        ksuec::Client c;
        e.connect(c);
        ASSERT_EQ(c.sendBytes(frame(size, VELTA_UEC_MSG_TYP__PING_REQUEST, 1, std::vector<uint8_t>(40, 0))), ksuec::Ok);
        std::vector<uint8_t> a;
        EXPECT_EQ(c.next(a, 3000), ksuec::Unreachable) << "the engine closes that connection";
        EXPECT_TRUE(e.pingOk()) << "and goes on";
    }
    EXPECT_TRUE(kst::waitFor([&] { return kst::countOccurrences(e.log("cmn"), "is shorter than its header, closing") == 3; },
                             5));

    // Records shorter than their type read as zero-filled; the limit itself is a message.
    ksuec::Client c;
    e.connect(c);
    std::vector<uint8_t> a;
    ASSERT_EQ(c.call(VELTA_UEC_MSG_TYP__BEGIN_TEST, {}, a, 3000), ksuec::Ok);
    EXPECT_EQ(u32At(a, 20), 1u) << "a begin test of the header alone asks for test 0";
    std::vector<uint8_t> id2 = {2, 0, 0, 0};
    ASSERT_EQ(c.call(VELTA_UEC_MSG_TYP__BEGIN_TEST, id2, a, 3000), ksuec::Ok);
    EXPECT_EQ(u32At(a, 20), 3u) << "test 2 without Stop starts";
    ASSERT_EQ(c.call(VELTA_UEC_MSG_TYP__SETTINGS_LOAD_REQUEST, std::vector<uint8_t>{1, 0, 0, 0}, a, 3000), ksuec::Ok);
    EXPECT_EQ(u32At(a, 0), 32u);
    ASSERT_EQ(c.call(VELTA_UEC_MSG_TYP__PING_REQUEST, std::vector<uint8_t>(9980, 0x33), a, 3000), ksuec::Ok);
    EXPECT_EQ(a.size(), 20u);

    // Random frames of sizes the server frames, of every type.
    std::mt19937 rng(20251123);
    std::vector<uint8_t> noise;
    for (int i = 0; i < 300; ++i) {
        uint32_t len = 20 + rng() % 400, type = rng() % 80;
        if (type == VELTA_UEC_MSG_TYP__REPORT_REQUEST) type = 0;  // a report of every UE takes its time
        std::vector<uint8_t> body(len - 20);
        for (auto& b : body) b = uint8_t(rng());
        auto m = frame(len, type, 90000 + uint32_t(i), body);
        noise.insert(noise.end(), m.begin(), m.end());
    }
    ASSERT_EQ(c.sendBytes(noise), ksuec::Ok);
    ASSERT_EQ(c.call(VELTA_UEC_MSG_TYP__PING_REQUEST, {}, a, 10000), ksuec::Ok);
    EXPECT_TRUE(e.running());
}

TEST(ConsoleSocket, AFrameAboveTheLimitEndsTheEngine) {
    Engine e;
    ASSERT_TRUE(e.waitForConsole()) << e.out();
    ksuec::Client c;
    e.connect(c);
    ASSERT_EQ(c.sendBytes(frame(10001, VELTA_UEC_MSG_TYP__PING_REQUEST, 1, std::vector<uint8_t>(9981, 0))), ksuec::Ok);
    ASSERT_TRUE(e.waitForExit(10));
    EXPECT_EQ(e.exitStatus, 0);
    EXPECT_NE(e.out().find("message size exceeded to 10001\n"), std::string::npos) << e.out();
}

TEST(ConsoleSocket, PortZeroRunsWithoutAConsoleAndNoAddressStopsStartUp) {
    {
        Engine e(R"("CLIPort": 0)");
        EXPECT_TRUE(kst::waitFor([&] { return e.out().find("Initalization of KsTest is completed") != std::string::npos; },
                                 20));
        EXPECT_TRUE(e.running());
        EXPECT_NE(e.out().find("Cannot Start UE-Console on TCPPort=0"), std::string::npos);
        EXPECT_NE(e.log("cmn").find("UE-Console is off: CLIPort is 0"), std::string::npos);
        EXPECT_FALSE(e.pingOk());
        EXPECT_EQ(e.stop(), 0);
    }
    {
        Engine e("", false);
        ASSERT_TRUE(e.waitForExit(20));
        EXPECT_EQ(e.exitStatus, 0);
        EXPECT_NE(e.out().find("unable to identify IP version Type"), std::string::npos) << e.out();
    }
}

}  // namespace
