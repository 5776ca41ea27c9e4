// Consoles that flood the engine and never read, against the real engine over TCP:
// their answers never reach another console, not when a flooder closes and the next
// console takes its socket record, nor over a thousand connect/close cycles; they stall
// neither other consoles nor a running test's step timers; and one that holds too much
// is dropped with a log line and a count.
//
// The floods ask for the settings of a large data/set.json, about 10 KB an answer, so
// that a flooder fills the kernel's send buffer (twice net.core.wmem_max) with a few
// hundred requests.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "KsUECServer.h"
#include "engine_child.h"
#include "uec_client.h"

namespace {

const std::string kEngine = KS_ENGINE_BINARY;

constexpr uint32_t kSettingsLoad = VELTA_UEC_MSG_TYP__SETTINGS_LOAD_REQUEST;
constexpr uint32_t kSettingsAnswer = VELTA_UEC_MSG_TYP__SETTINGS_LOAD_RESPONSE;

// Twenty items of 500 characters: an answer of 32 + 20 * (8 + 501) bytes.
constexpr uint32_t kLoadAnswerSize = 32 + 20 * 509;

std::map<std::string, std::string> data() {
    std::string items;
    for (int i = 1; i <= 20; ++i)
        items += std::string(i > 1 ? ", " : "") + "\"" + std::to_string(i) + "\": \"" + std::string(500, char('a' + i)) + "\"";
    return {
        {"set.json", "{\"AMF\": {" + items + "}}"},
        {"uel.json", R"([{"ID": 1, "MSINStart": "001010000000001", "MSINEnd": "001010000000004", "MCC": "001", "MNC": "01", "MSISDNBegin": "9000000001"}])"},
        {"sce.json", R"([{"ID": 1, "Name": "nap", "Config": [{"ID": 3, "Dict": [{"Key": 3, "Value": "1"}]}]}])"},
        {"tst.json", R"([{"ID": 1, "Name": "nap", "AppType": 2, "ScenarioID": 1, "SUPIStartNo": "001010000000001", "SUPIStartEnd": "001010000000002"}])"},
    };
}

std::vector<uint8_t> frame(uint32_t type, uint32_t no, std::vector<uint32_t> body = {}) {
    std::vector<uint8_t> m(20 + 4 * body.size());
    __uec_msg_header h{uint32_t(m.size()), type, no, 0};
    memcpy(m.data(), &h, sizeof h);
    if (!body.empty()) memcpy(m.data() + 20, body.data(), 4 * body.size());
    return m;
}

// The settings of the AMF application type: one large answer.
std::vector<uint8_t> settingsLoad(uint32_t no) { return frame(kSettingsLoad, no, {1, 0, 0, 0, 0, 0}); }

uint32_t u32At(const std::vector<uint8_t>& b, size_t off) {
    uint32_t v = 0;
    if (b.size() >= off + 4) memcpy(&v, b.data() + off, 4);
    return v;
}

// What the kernel may hold of a connection's unsent bytes.
size_t kernelSendBuffer() {
    long v = std::stol("0" + kst::readFile("/proc/sys/net/core/wmem_max"));
    return size_t(2 * (v > 0 ? v : 212992));
}

// A console as a script would make one: a plain socket, with a small receive buffer
// where asked, set before the connect as the window is agreed there.
class RawConsole {
public:
    RawConsole(const std::string& host, int port, int rcvbuf = 0) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (rcvbuf) setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(uint16_t(port));
        inet_pton(AF_INET, host.c_str(), &a.sin_addr);
        if (connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    RawConsole(const RawConsole&) = delete;
    ~RawConsole() { shut(); }
    bool ok() const { return fd_ >= 0; }
    // Unread answers make the close a reset, as when a console is killed.
    void shut() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }
    void resetOnClose() {
        linger lg{1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    }
    // False once the engine has closed the connection.
    bool send(const std::vector<uint8_t>& bytes) {
        size_t off = 0;
        while (off < bytes.size()) {
            ssize_t n = ::send(fd_, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
            if (n <= 0) return false;
            off += size_t(n);
        }
        return true;
    }
    // Up to n bytes: fewer at the end of the stream or of the time.
    std::vector<uint8_t> read(size_t n, int timeoutMs) {
        std::vector<uint8_t> out;
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (out.size() < n) {
            int left = int(std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count());
            pollfd pf{fd_, POLLIN, 0};
            if (poll(&pf, 1, left < 0 ? 0 : left) <= 0) break;
            uint8_t buf[65536];
            ssize_t k = recv(fd_, buf, std::min(sizeof buf, n - out.size()), 0);
            if (k <= 0) break;
            out.insert(out.end(), buf, buf + k);
        }
        return out;
    }
    // "ip:port" as the engine names this console.
    std::string name() const {
        sockaddr_in a{};
        socklen_t len = sizeof a;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
        char ip[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &a.sin_addr, ip, sizeof ip);
        return std::string(ip) + ":" + std::to_string(ntohs(a.sin_port));
    }

private:
    int fd_ = -1;
};

struct Engine : kst::EngineChild {
    explicit Engine(const std::string& config = "") : kst::EngineChild(kEngine, data(), config) {}
    ~Engine() {
        std::string o = out();
        EXPECT_EQ(o.find("Sanitizer"), std::string::npos) << o.substr(0, 4000);
    }
    // From a console of its own, with a RequestNo of the caller's.
    bool ping(uint32_t no, int timeoutMs = 5000) {
        RawConsole c(host, port);
        if (!c.ok() || !c.send(frame(VELTA_UEC_MSG_TYP__PING_REQUEST, no))) return false;
        std::vector<uint8_t> a = c.read(20, timeoutMs);
        return a.size() == 20 && u32At(a, 4) == VELTA_UEC_MSG_TYP__PING_REQUEST && u32At(a, 8) == no;
    }
    std::string stk() const { return log("stk"); }
    bool holdsBacklogOf(const RawConsole& c) const {
        return stk().find("of peer " + c.name() + " has no room in the kernel") != std::string::npos;
    }
    bool sentBacklogOf(const RawConsole& c) const {
        return stk().find("of peer " + c.name() + " has sent the bytes that waited") != std::string::npos;
    }
};

// Floods in rounds, each handled (its answers logged as sent) before the next goes,
// until the engine says the flooder's answers wait for room: what then waits in the
// engine is at most a round, well below a console's bound.
uint32_t floodUntilBacklog(Engine& e, RawConsole& f, uint32_t base) {
    constexpr uint32_t kRound = 24;
    uint32_t sent = 0;
    size_t limit = 3 * kernelSendBuffer() / kLoadAnswerSize + 100;
    while (sent < limit && !e.holdsBacklogOf(f)) {
        std::vector<uint8_t> round;
        for (uint32_t i = 0; i < kRound; ++i) {
            auto m = settingsLoad(base + sent + i);
            round.insert(round.end(), m.begin(), m.end());
        }
        if (!f.send(round)) return 0;
        sent += kRound;
        if (!kst::waitFor([&] { return kst::countOccurrences(e.log("cmn"), "Type=50 RequestNo=") >= sent; }, 20)) return 0;
    }
    return e.holdsBacklogOf(f) ? sent : 0;
}

// Reads every answer a flooder is owed: each of its own RequestNos once, nothing else.
std::string drainFlooder(RawConsole& f, uint32_t base, uint32_t count) {
    std::set<uint32_t> owed;
    for (uint32_t i = 0; i < count; ++i) owed.insert(base + i);
    while (!owed.empty()) {
        std::vector<uint8_t> head = f.read(20, 10000);
        if (head.size() < 20) return std::to_string(owed.size()) + " answers never came";
        uint32_t size = u32At(head, 0), type = u32At(head, 4), no = u32At(head, 8);
        if (type != kSettingsAnswer || size != kLoadAnswerSize) return "a foreign answer of type " + std::to_string(type);
        if (!owed.erase(no)) return "RequestNo " + std::to_string(no) + " not asked or twice";
        if (f.read(size - 20, 10000).size() != size - 20) return "a cut answer";
    }
    return f.read(1, 200).empty() ? "" : "an answer too many";
}

// An engine logging what the flood needs, and a flooder whose answers wait in it.
class ConsoleUnderFlood : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(e.waitForConsole()) << e.out();
        flooder = std::make_unique<RawConsole>(e.host, e.port, 4096);
        ASSERT_TRUE(f().ok());
        flooded = floodUntilBacklog(e, f(), 1);
        ASSERT_GT(flooded, 0u) << "the engine never held the flooder's answers";
    }
    RawConsole& f() { return *flooder; }
    Engine e{R"("LogLevel": {"COMMON": 5, "STACK": 4})"};
    std::unique_ptr<RawConsole> flooder;  // connects once the console listens
    uint32_t flooded = 0;
};

TEST_F(ConsoleUnderFlood, ASilentFlooderStallsNeitherOtherConsolesNorStepTimers) {

    // Answered while the flooder's answers wait in the engine.
    EXPECT_TRUE(e.ping(7)) << "a ping of another console";
    ksuec::Client c;
    ASSERT_EQ(c.connect(e.host, uint16_t(e.port), 3000), ksuec::Ok);
    std::vector<uint8_t> a;
    ASSERT_EQ(c.call(VELTA_UEC_MSG_TYP__BEGIN_TEST, std::vector<uint8_t>{1, 0, 0, 0, 0, 0, 0, 0}, a, 5000), ksuec::Ok);
    EXPECT_EQ(u32At(a, 20), 3u) << "test 1 queued";
    // Its one-second sleep ends by a timer on the queue lines the flood's answers use.
    EXPECT_TRUE(kst::waitFor([&] { return e.log("cmn").find("Completed TestId=1") != std::string::npos; }, 30))
        << "the test's step timers never fired";
    ASSERT_EQ(c.call(VELTA_UEC_MSG_TYP__PING_REQUEST, {}, a, 5000), ksuec::Ok);
    EXPECT_FALSE(e.sentBacklogOf(f())) << "all of this happened while the flooder held its backlog";

    // Nothing of the flood was lost or went elsewhere.
    EXPECT_EQ(drainFlooder(f(), 1, flooded), "");
    EXPECT_TRUE(kst::waitFor([&] { return e.sentBacklogOf(f()); }, 10));
    EXPECT_TRUE(e.running());
}

// The issue's road: an answer for a flooder, delayed in the engine, went on after the
// flooder closed, to the next console on the same socket record.
TEST(ConsoleFlood, AnswersOfAClosedFlooderNeverReachTheNextConsole) {
    Engine e;
    ASSERT_TRUE(e.waitForConsole()) << e.out();
    // More answers than the kernel and the console's bound hold together.
    uint32_t loads = uint32_t((kernelSendBuffer() + 2 * KS_UEC_MAX_UNSENT_BYTES) / kLoadAnswerSize) + 100;
    std::vector<uint8_t> flood;
    for (uint32_t i = 0; i < loads; ++i) {
        auto m = settingsLoad(0xAAAA0000 + i);
        flood.insert(flood.end(), m.begin(), m.end());
    }
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        {
            RawConsole a(e.host, e.port, 4096);
            ASSERT_TRUE(a.ok());
            a.send(flood);  // the engine may drop it before it is all sent
            EXPECT_TRUE(e.ping(0x99)) << "another console is answered during the flood";
        }
        RawConsole b(e.host, e.port);
        ASSERT_TRUE(b.ok());
        ASSERT_TRUE(b.send(frame(VELTA_UEC_MSG_TYP__PING_REQUEST, 0x1234)));
        std::vector<uint8_t> got = b.read(20, 5000);
        ASSERT_EQ(got.size(), 20u);
        EXPECT_EQ(u32At(got, 0), 20u);
        EXPECT_EQ(u32At(got, 4), 63u) << "B got another console's answer";
        EXPECT_EQ(u32At(got, 8), 0x1234u);
        EXPECT_TRUE(b.read(1, 300).empty()) << "and nothing else";
    }
    EXPECT_TRUE(e.running());
}

// A thousand consoles close with answers still due while the next ones connect, and a
// flooder holds its backlog all along: every console gets its own answers only.
TEST_F(ConsoleUnderFlood, AThousandConnectCloseCyclesUnderAFloodGetOnlyTheirOwnAnswers) {

    std::atomic<int> wrong{0}, lost{0};
    std::string firstWrong;
    std::mutex firstLock;
    auto cycles = [&](uint32_t thread) {
        for (uint32_t k = 0; k < 500; ++k) {
            uint32_t tag = (thread << 24) | (k << 4);
            {
                // Leaves with five answers due; half of them reset, half end in order.
                RawConsole x(e.host, e.port, 4096);
                if (!x.ok()) {
                    ++lost;
                    continue;
                }
                if (k % 2) x.resetOnClose();
                std::vector<uint8_t> asks;
                for (uint32_t i = 0; i < 5; ++i) {
                    auto m = i % 2 ? settingsLoad(tag | i) : frame(VELTA_UEC_MSG_TYP__STATS_REQUEST, tag | i);
                    asks.insert(asks.end(), m.begin(), m.end());
                }
                x.send(asks);
            }
            RawConsole y(e.host, e.port);
            if (!y.ok() || !y.send(frame(VELTA_UEC_MSG_TYP__PING_REQUEST, tag | 0xF))) {
                ++lost;
                continue;
            }
            std::vector<uint8_t> got = y.read(20, 5000);
            bool mine = got.size() == 20 && u32At(got, 4) == 63 && u32At(got, 8) == (tag | 0xF);
            bool extra = mine && !y.read(1, 0).empty();
            if (got.size() < 20) {
                ++lost;
            } else if (!mine || extra) {
                ++wrong;
                std::lock_guard g(firstLock);
                if (firstWrong.empty())
                    firstWrong = "cycle " + std::to_string(k) + " got type " + std::to_string(u32At(got, 4)) +
                                 " RequestNo " + std::to_string(u32At(got, 8)) + (extra ? " and more" : "");
            }
        }
    };
    std::thread t1(cycles, 1), t2(cycles, 2);
    t1.join();
    t2.join();
    EXPECT_EQ(wrong.load(), 0) << firstWrong;
    EXPECT_EQ(lost.load(), 0) << "every console connected and was answered";
    EXPECT_FALSE(e.sentBacklogOf(f())) << "the flooder held its backlog all along";
    EXPECT_EQ(drainFlooder(f(), 1, flooded), "");
}

TEST(ConsoleFlood, AConsolePastItsUnsentBoundIsDroppedWithALogLineAndACount) {
    Engine e;
    ASSERT_TRUE(e.waitForConsole()) << e.out();
    RawConsole f(e.host, e.port, 4096);
    ASSERT_TRUE(f.ok());
    std::string name = f.name();
    uint32_t loads = uint32_t((kernelSendBuffer() + 2 * KS_UEC_MAX_UNSENT_BYTES) / kLoadAnswerSize) + 100;
    std::vector<uint8_t> flood;
    for (uint32_t i = 0; i < loads; ++i) {
        auto m = settingsLoad(i);
        flood.insert(flood.end(), m.begin(), m.end());
    }
    f.send(flood);
    ASSERT_TRUE(kst::waitFor([&] { return e.stk().find("of peer " + name + ": it reads too slowly") != std::string::npos; },
                             30))
        << "the engine never dropped the flooder";
    EXPECT_EQ(kst::countOccurrences(e.stk(), "it reads too slowly"), 1u) << e.stk();
    EXPECT_TRUE(kst::waitFor([&] { return e.log("per").find("Socket: OutboundLimitCloseCount=1\n") != std::string::npos; },
                             10));
    // What reaches the flooder before the close is its own answers, whole or cut by the reset.
    std::vector<uint8_t> head = f.read(20, 5000);
    ASSERT_EQ(head.size(), 20u);
    EXPECT_EQ(u32At(head, 4), kSettingsAnswer);
    while (f.read(65536, 5000).size() > 0) {
    }
    EXPECT_TRUE(e.ping(1)) << "the others go on";
}

}  // namespace
