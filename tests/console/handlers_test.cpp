// The console's framing and handlers in a running engine, with the transport
// replaced by one that keeps every answer: what a console would receive for each
// request, split, truncated, unknown or malformed.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "KsUECServer.h"
#include "Kestrane.h"
#include "ks_engine_env.h"

namespace {

// No console: these tests reach the engine's operations directly.
const char* const kNoConsole = R"({"LOCAL_GTP_IP": "127.0.0.1", "MaximumUE": 5000, "IMSIPrefixWithZERO": 1, "CLIPort": 0})";

kst::EngineInDir* gEngine = static_cast<kst::EngineInDir*>(::testing::AddGlobalTestEnvironment(
    new kst::EngineInDir(
        "console",
        {{"cfg.json", kNoConsole},
                             {"data/uel.json", R"([{"ID": 1, "MSINStart": "001010000000001", "MSINEnd": "001010000000020", "MCC": "001", "MNC": "01", "MSISDNBegin": "9000000001"}])"},
         {"data/sce.json", R"([{"ID": 1, "Name": "long", "Config": [{"ID": 3, "Dict": [{"Key": 3, "Value": "30"}]}]}])"},
         {"data/tst.json", R"([{"ID": 1, "Name": "one", "ScenarioID": 1, "SUPIStartNo": "001010000000001", "SUPIStartEnd": "001010000000002"},
                          {"ID": 2, "Name": "two", "ScenarioID": 1, "SUPIStartNo": "001010000000003", "SUPIStartEnd": "001010000000004"},
                          {"ID": 3, "Name": "three", "ScenarioID": 1, "AppType": 1, "SUPIStartNo": "001010000000005", "SUPIStartEnd": "001010000000005"}])"},
         {"data/set.json", R"({"AMF": {"12": "on", "7": "a longer value"}, "UPF": {}})"}})));

// Answers by connection, in the order they were sent.
struct Sent {
    void* socket;
    uint32_t generation;
    std::vector<uint8_t> bytes;
};
std::mutex gLock;
std::condition_variable gCv;
std::vector<Sent> gSent;
int gSendResult = 0;  // 0: as many bytes as given

int keep(void* socket, uint32_t generation, const void* bytes, int len) {
    std::lock_guard g(gLock);
    auto* b = static_cast<const uint8_t*>(bytes);
    gSent.push_back({socket, generation, std::vector<uint8_t>(b, b + len)});
    gCv.notify_all();
    return gSendResult ? gSendResult : len;
}
const KsUECTransport kKeep{keep};

class Console : public ::testing::Test {
protected:
    void SetUp() override {
        KsUECServer___setTransport(&kKeep);
        std::lock_guard g(gLock);
        gSent.clear();
        gSendResult = 0;
    }
    void TearDown() override { KsUECServer___setTransport(nullptr); }

public:
    static std::vector<Sent> answers() {
        std::lock_guard g(gLock);
        return gSent;
    }
    // Waits for n answers in all (handlers queued on queue lines answer later).
    static std::vector<Sent> awaitAnswers(size_t n) {
        std::unique_lock g(gLock);
        gCv.wait_for(g, std::chrono::seconds(5), [n] { return gSent.size() >= n; });
        return gSent;
    }
};

std::vector<uint8_t> message(uint32_t type, uint32_t requestNo, std::vector<uint8_t> body = {}, int sizeDelta = 0) {
    std::vector<uint8_t> m(20 + body.size());
    __uec_msg_header h{uint32_t(int(m.size()) + sizeDelta), type, requestNo, 0x1122334455667788ull};
    memcpy(m.data(), &h, sizeof h);
    if (!body.empty()) memcpy(m.data() + 20, body.data(), body.size());
    return m;
}

template <class... U>
std::vector<uint8_t> u32s(U... v) {
    const uint32_t values[] = {uint32_t(v)...};
    std::vector<uint8_t> out(sizeof values);
    memcpy(out.data(), values, sizeof values);
    return out;
}

std::vector<uint8_t> join(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> all;
    for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

template <class Rec>
Rec as(const Sent& s) {
    Rec r{};
    memcpy(&r, s.bytes.data(), std::min(sizeof r, s.bytes.size()));
    return r;
}

int feed(const std::vector<uint8_t>& bytes, void* socket = reinterpret_cast<void*>(0x10), uint32_t gen = 1) {
    return KsUECServer___feed(bytes, socket, gen);
}

uint32_t beginStatus(uint32_t requestNo, uint32_t testId, uint32_t stop) {
    size_t before = Console::answers().size();
    EXPECT_EQ(feed(message(VELTA_UEC_MSG_TYP__BEGIN_TEST, requestNo, u32s(testId, stop))), 28);
    auto all = Console::answers();
    EXPECT_EQ(all.size(), before + 1);
    auto r = as<__uec_begin_test_response>(all.back());
    EXPECT_EQ(r.Header.MessageType, uint32_t(VELTA_UEC_MSG_TYP__BEGIN_TEST_RESPONSE));
    EXPECT_EQ(r.Header.MessageSize, 24u);
    EXPECT_EQ(r.Header.RequestNo, requestNo);
    return r.Status;
}

// ---------------------------------------------------------------- framing

TEST(ConsoleFrame, DecidesOnTheHeaderAndTheBytesWaiting) {
    struct Case {
        const char* name;
        uint32_t size;
        size_t have;     // header bytes given
        uint32_t length; // bytes waiting in all
        KsUECFrameKind kind;
    };
    const Case cases[] = {
        {"nothing", 20, 0, 0, KsUECFrameKind::Wait},
        {"partial header", 20, 19, 19, KsUECFrameKind::Wait},
        {"size 0", 0, 20, 20, KsUECFrameKind::TooShort},
        {"size 5", 5, 20, 100, KsUECFrameKind::TooShort},
        {"size 19", 19, 20, 20, KsUECFrameKind::TooShort},
        {"header only", 20, 20, 20, KsUECFrameKind::Message},
        {"rest to come", 28, 20, 27, KsUECFrameKind::Wait},
        {"rest here", 28, 20, 28, KsUECFrameKind::Message},
        {"more behind it", 28, 20, 500, KsUECFrameKind::Message},
        {"the limit", 10000, 20, 10000, KsUECFrameKind::Message},
        {"the limit, waiting", 10000, 20, 9999, KsUECFrameKind::Wait},
        {"one past the limit", 10001, 20, 20, KsUECFrameKind::TooLong},
        {"far past", 0xffffffffu, 20, 20, KsUECFrameKind::TooLong},
        {"head longer than what waits", 20, 20, 10, KsUECFrameKind::Wait},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto m = message(63, 7);
        memcpy(m.data(), &c.size, 4);
        KsUECFrame f = KsUECServer___frame(std::span<const uint8_t>(m.data(), c.have), c.length);
        EXPECT_EQ(int(f.Kind), int(c.kind));
        if (c.have == 20 && c.length >= 20) {
            EXPECT_EQ(f.MessageSize, c.size);
            EXPECT_EQ(f.MessageType, 63u);
            EXPECT_EQ(f.RequestNo, 7u);
        }
    }
}

TEST_F(Console, PingComesBackAsItsOwnHeader) {
    auto ping = message(VELTA_UEC_MSG_TYP__PING_REQUEST, 0xabcdef01);
    EXPECT_EQ(feed(ping), 20);
    auto a = answers();
    ASSERT_EQ(a.size(), 1u);
    ASSERT_EQ(a[0].bytes.size(), 20u);
    EXPECT_EQ(0, memcmp(a[0].bytes.data(), ping.data(), 12)) << "size, type 63 and RequestNo as sent";
    EXPECT_EQ(uint64_t{as<__uec_msg_header>(a[0]).siSocket}, 0u) << "no reference of the server's leaves it";
    EXPECT_EQ(a[0].socket, reinterpret_cast<void*>(0x10));

    // A ping padded beyond its header says in its answer how long the answer is.
    EXPECT_EQ(feed(message(VELTA_UEC_MSG_TYP__PING_REQUEST, 9, std::vector<uint8_t>(80, 0xee))), 100);
    a = answers();
    ASSERT_EQ(a.size(), 2u);
    EXPECT_EQ(as<__uec_msg_header>(a[1]).MessageSize, 20u);
    EXPECT_EQ(a[1].bytes.size(), 20u);
}

TEST_F(Console, ASplitMessageIsAnsweredOnceWhenWhole) {
    auto begin = message(VELTA_UEC_MSG_TYP__BEGIN_TEST, 41, u32s(0, 0));
    // Three pieces, as they would wait on the connection after each arrival.
    for (size_t have : {size_t(7), size_t(23)}) {
        EXPECT_EQ(feed(std::vector<uint8_t>(begin.begin(), begin.begin() + long(have))), 0);
        EXPECT_TRUE(answers().empty());
    }
    EXPECT_EQ(feed(begin), 28);
    auto a = answers();
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(as<__uec_begin_test_response>(a[0]).Header.RequestNo, 41u);
}

TEST_F(Console, EveryWholeMessageWaitingIsTakenAndUnknownTypesAreDropped) {
    std::vector<uint8_t> stream;
    uint32_t no = 100;
    for (uint32_t type : {0u, 2u, 36u, 64u, 75u, 76u, 1000u, 0xffffffffu, 3u, 31u, 47u}) {
        auto m = message(type, no++, std::vector<uint8_t>(type % 7 * 5, 0x5a));
        stream.insert(stream.end(), m.begin(), m.end());
    }
    auto ping = message(VELTA_UEC_MSG_TYP__PING_REQUEST, 555);
    stream.insert(stream.end(), ping.begin(), ping.end());
    stream.insert(stream.end(), ping.begin(), ping.begin() + 5);  // the next message's first bytes
    EXPECT_EQ(feed(stream), int(stream.size() - 5));
    auto a = answers();
    ASSERT_EQ(a.size(), 1u) << "only the ping is answered";
    EXPECT_EQ(as<__uec_msg_header>(a[0]).RequestNo, 555u);
}

TEST_F(Console, FramesThatCannotBeFramedStopTheStream) {
    for (uint32_t size : {0u, 5u, 19u}) {
        auto m = message(VELTA_UEC_MSG_TYP__PING_REQUEST, 1);
        memcpy(m.data(), &size, 4);
        auto stream = join({message(VELTA_UEC_MSG_TYP__PING_REQUEST, 2), m, message(VELTA_UEC_MSG_TYP__PING_REQUEST, 3)});
        SCOPED_TRACE(size);
        EXPECT_EQ(feed(stream), -1);
    }
    auto big = message(VELTA_UEC_MSG_TYP__PING_REQUEST, 4);
    uint32_t over = 10001;
    memcpy(big.data(), &over, 4);
    EXPECT_EQ(feed(big), -2);
    auto a = answers();
    EXPECT_EQ(a.size(), 3u) << "the pings before each bad frame were answered";

    // The limit itself is a message.
    auto limit = message(VELTA_UEC_MSG_TYP__PING_REQUEST, 5, std::vector<uint8_t>(9980, 1));
    EXPECT_EQ(feed(limit), 10000);
    EXPECT_EQ(answers().size(), 4u);
}

// ---------------------------------------------------------------- test control

TEST_F(Console, BeginTestAnswersEveryStatus) {
    EXPECT_EQ(beginStatus(1, 0, 0), 1u) << "test id 0";
    EXPECT_EQ(beginStatus(2, 99, 0), 2u) << "not in data/tst.json";
    EXPECT_EQ(beginStatus(3, 99, 1), 2u);
    EXPECT_EQ(beginStatus(4, 2, 1), 101u) << "stop of a test that is not running";
    EXPECT_EQ(beginStatus(5, 1, 0), 3u) << "queued";
    uint32_t second = beginStatus(6, 1, 0);
    EXPECT_TRUE(second == 4u || second == 5u) << second;
    ASSERT_TRUE(kst::waitFor([] { return KsEngine__GetTestStatus(1) == KS_TEST__RUNNING; }, 10));
    EXPECT_EQ(beginStatus(7, 1, 0), 5u) << "running";
    EXPECT_EQ(beginStatus(8, 1, 1), 100u) << "stop requested";
    EXPECT_EQ(beginStatus(9, 1, 1), 101u) << "a stop already asked for";
    EXPECT_TRUE(kst::waitFor([] { return KsEngine__GetTestStatus(1) == KS_TEST__IDLE; }, 20));
    EXPECT_NE(kst::readLogDir(gEngine->dir() + "/logs/cmn").find("Received Begin Test Request With TestId=1 <"),
              std::string::npos);
}

TEST_F(Console, ShortRecordsReadAsZeroFilled) {
    // A begin test of the header alone asks for test 0; one without Stop starts.
    EXPECT_EQ(feed(message(VELTA_UEC_MSG_TYP__BEGIN_TEST, 11)), 20);
    EXPECT_EQ(feed(message(VELTA_UEC_MSG_TYP__BEGIN_TEST, 12, u32s(99))), 24);
    // A settings load of the header alone: type 0, command 0, nothing to list.
    EXPECT_EQ(feed(message(VELTA_UEC_MSG_TYP__SETTINGS_LOAD_REQUEST, 13)), 20);
    auto a = answers();
    ASSERT_EQ(a.size(), 3u);
    EXPECT_EQ(as<__uec_begin_test_response>(a[0]).Status, 1u);
    EXPECT_EQ(as<__uec_begin_test_response>(a[1]).Status, 2u);
    auto s = as<__uec_load_settings_response>(a[2]);
    EXPECT_EQ(s.Header.MessageSize, 32u);
    EXPECT_EQ(s.Count, 0u);
}

// ---------------------------------------------------------------- statistics and settings

TEST_F(Console, StatsReportTheEngine) {
    for (int i = 0; i < 3; ++i) __mv_counter_increment_request(__ksEngine->Sent_N1_Registration);
    __mv_counter_increment_request(__ksEngine->Sent_N1_DeRegistration);
    KsEngine__IncrUERegistrationRejected();
    EXPECT_EQ(feed(message(VELTA_UEC_MSG_TYP__STATS_REQUEST, 77)), 20);
    auto a = answers();
    ASSERT_EQ(a.size(), 1u);
    ASSERT_EQ(a[0].bytes.size(), 132u);
    auto s = as<__uec_stats_response>(a[0]);
    EXPECT_EQ(s.Header.MessageType, 2u);
    EXPECT_EQ(s.Header.MessageSize, 132u);
    EXPECT_EQ(s.Header.RequestNo, 77u);
    EXPECT_EQ(s.LoadedUEs, 20u);
    EXPECT_EQ(s.UEPoolTotal, 5000u);
    EXPECT_EQ(s.UEPoolAvailable, 4980u);
    EXPECT_EQ(s.UERegistered, uint32_t(__ksEngine->Sent_N1_Registration->Request.load()));
    EXPECT_GE(s.UERegistered, 3u);
    EXPECT_GE(s.UEDeRegistered, 1u);
    EXPECT_GE(s.UERegRejected, 1u);
    EXPECT_EQ(s.CMConnetced, 0u);
    EXPECT_EQ(s.CMIdle, 0u);
    EXPECT_EQ(uint64_t{s.UPTime}, __ksEngine->UPTime.load());
    std::string ds(s.ds, strnlen(s.ds, sizeof s.ds));
    EXPECT_EQ(ds.size(), 26u) << ds;
}

TEST_F(Console, SettingsLoadListsTheSettingsOfAType) {
    EXPECT_EQ(feed(message(VELTA_UEC_MSG_TYP__SETTINGS_LOAD_REQUEST, 5, u32s(1, 0, 0, 0, 0, 0))), 44);
    auto a = answers();
    ASSERT_EQ(a.size(), 1u);
    auto& b = a[0].bytes;
    auto r = as<__uec_load_settings_response>(a[0]);
    EXPECT_EQ(r.Header.MessageType, 50u);
    EXPECT_EQ(r.TEApplicationType, 1u);
    EXPECT_EQ(r.Count, 2u);
    // Items: id, length with the terminator, the text and its terminator.
    std::string items(b.begin() + 32, b.end());
    std::string expect = std::string("\x0c\0\0\0\x03\0\0\0on\0", 11) + std::string("\x07\0\0\0\x0f\0\0\0a longer value\0", 23);
    EXPECT_EQ(items.substr(0, expect.size()), expect);
    EXPECT_EQ(b.size() % 4, 0u);
    EXPECT_EQ(r.Header.MessageSize, 32u + 36u) << "34 bytes of items padded to 36";
    EXPECT_EQ(b.size(), r.Header.MessageSize);

    // A type no application has is refused with an empty answer.
    EXPECT_EQ(feed(message(VELTA_UEC_MSG_TYP__SETTINGS_LOAD_REQUEST, 6, u32s(32, 0, 0, 0, 0, 0))), 44);
    a = answers();
    ASSERT_EQ(a.size(), 2u);
    EXPECT_EQ(as<__uec_load_settings_response>(a[1]).Header.MessageSize, 32u);
}

TEST_F(Console, SettingsLoadReportsATestAndItsCounters) {
    // A test that never ran gets its record, idle, and no counter rows.
    EXPECT_EQ(feed(message(VELTA_UEC_MSG_TYP__SETTINGS_LOAD_REQUEST, 8, u32s(1, 1, 4242, 0, 0, 0))), 44);
    auto a = answers();
    ASSERT_EQ(a.size(), 1u);
    __uec_load_test_report head{};
    memcpy(&head, a[0].bytes.data() + 32, sizeof head);
    EXPECT_EQ(head.TestId, 4242u);
    EXPECT_EQ(head.TestStatus, 0u);
    EXPECT_EQ(head.CounterBufferSize, 0u);
    EXPECT_EQ(as<__uec_load_settings_response>(a[0]).Header.MessageSize, 32u + 132u);
    KsTestExec* t = KsEngine__FindTest(4242);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->Status.load(), 0u) << "the record is made, the test is not started";

    // Counters of type 1: rows in console order for those that counted, a total, then
    // ExecutionTimeout and NGAPSendFailed outside the total.
    t->AppType = 1;
    for (int i = 0; i < 4; ++i) __mv_counter_increment_request(&t->RegistrationAccept);
    __mv_counter_increment_request(&t->RegistrationRequest);
    KsEngine__ReInit_MVCounters(t, 0);  // a new pass: Request 0, Total stays
    __mv_counter_increment_request(&t->RegistrationRequest);
    t->ServiceAccept.CurrentCount = 9;  // only a current count: no row
    __mv_counter_increment_request(&t->ExecutionTimeout);
    __mv_counter_increment_request(&t->NGAPSendFailed);
    __mv_counter_increment_request(&t->PFCPSessionDeleteRequest);  // another type's
    t->ExecutedNoOfTimes = 3;
    t->Percent = 42;
    EXPECT_EQ(feed(message(VELTA_UEC_MSG_TYP__SETTINGS_LOAD_REQUEST, 9, u32s(1, 1, 4242, 0, 0, 0))), 44);
    a = answers();
    ASSERT_EQ(a.size(), 2u);
    auto& b = a[1].bytes;
    memcpy(&head, b.data() + 32, sizeof head);
    EXPECT_EQ(head.ExecutedNoOfTimes, 3);
    EXPECT_EQ(head.Percent, 42);
    ASSERT_EQ(head.CounterBufferSize, 5u * 24u);
    ASSERT_EQ(b.size(), 32u + 132u + 5u * 24u);
    __uec_mv_counter rows[5];
    memcpy(rows, b.data() + 32 + 132, sizeof rows);
    EXPECT_EQ(rows[0].ID, 1u);
    EXPECT_EQ(uint64_t{rows[0].Total}, 1u);
    EXPECT_EQ(uint64_t{rows[0].LTotal}, 2u);
    EXPECT_EQ(rows[1].ID, 3u);
    EXPECT_EQ(uint64_t{rows[1].Total}, 0u);
    EXPECT_EQ(uint64_t{rows[1].LTotal}, 4u);
    EXPECT_EQ(rows[2].ID, 0u) << "the total row";
    EXPECT_EQ(uint64_t{rows[2].Total}, 1u);
    EXPECT_EQ(uint64_t{rows[2].LTotal}, 6u);
    EXPECT_EQ(rows[3].ID, 50000u);
    EXPECT_EQ(rows[4].ID, 39u);
    EXPECT_EQ(as<__uec_load_settings_response>(a[1]).Count, 5u);

    // Type 2 of the same test: its own counter, no NGAPSendFailed row.
    EXPECT_EQ(feed(message(VELTA_UEC_MSG_TYP__SETTINGS_LOAD_REQUEST, 10, u32s(2, 1, 4242, 0, 0, 0))), 44);
    a = answers();
    memcpy(&head, a[2].bytes.data() + 32, sizeof head);
    ASSERT_EQ(head.CounterBufferSize, 3u * 24u);
    memcpy(rows, a[2].bytes.data() + 32 + 132, 3 * 24);
    EXPECT_EQ(rows[0].ID, 309u);
    EXPECT_EQ(rows[1].ID, 0u);
    EXPECT_EQ(rows[2].ID, 50000u);
}

TEST_F(Console, ASecondReportRequestIsRefusedWhileOneIsWritten) {
    MV_KsUE* first = __ksEngine->ksUEHead;
    ASSERT_NE(first, nullptr);
    size_t reportsBefore = kst::listFiles(gEngine->dir() + "/reports").size();
    {
        // The report stops at the first UE until this lock goes.
        std::lock_guard g(first->ChildLock);
        EXPECT_EQ(feed(join({message(VELTA_UEC_MSG_TYP__REPORT_REQUEST, 1, u32s(0)),
                             message(VELTA_UEC_MSG_TYP__REPORT_REQUEST, 2, u32s(0))})),
                  48);
        auto a = answers();
        ASSERT_EQ(a.size(), 2u);
        EXPECT_EQ(as<__uec_test_start_response>(a[0]).Header.MessageType, 12u);
        EXPECT_EQ(as<__uec_test_start_response>(a[0]).Status, 1u);
        EXPECT_EQ(as<__uec_test_start_response>(a[1]).Status, 2u);
    }
    EXPECT_TRUE(kst::waitFor(
        [&] { return kst::listFiles(gEngine->dir() + "/reports").size() == reportsBefore + 1; }, 10));
    EXPECT_TRUE(kst::waitFor(
        [&] {
            feed(message(VELTA_UEC_MSG_TYP__REPORT_REQUEST, 3, u32s(0)));
            return as<__uec_test_start_response>(answers().back()).Status == 1u;
        },
        10));
}

TEST_F(Console, AFailedSendIsLoggedAndTheWorkStands) {
    gSendResult = -1;
    EXPECT_EQ(beginStatus(61, 2, 0), 3u);
    EXPECT_TRUE(kst::waitFor(
        [] {
            return kst::readLogDir(gEngine->dir() + "/logs/cmn").find("Error Sending Response(UEC_NewTestResponse)  senBytes=-1") !=
                   std::string::npos;
        },
        5));
    ASSERT_TRUE(kst::waitFor([] { return KsEngine__GetTestStatus(2) == KS_TEST__RUNNING; }, 10));
    gSendResult = 0;
    EXPECT_EQ(beginStatus(62, 2, 1), 100u);
    EXPECT_TRUE(kst::waitFor([] { return KsEngine__GetTestStatus(2) == KS_TEST__IDLE; }, 20));
}

}  // namespace
