// The PFCP stack against a scripted UPF (scripted_upf.py, scapy) over loopback: associations,
// heartbeats both ways, retransmission, answers to repeated requests, and bad input. Every datagram
// either side sent is read by tshark at the end of each test.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "ks_test_util.h"
#include "pfcp_node.h"
#include "pfcp_testlib.h"

namespace {

using namespace kpf;

std::string root;

// ---------------------------------------------------------------- what the handlers saw

struct SessionEvent {
    __mv_pfcp_node_t* node;
    uint8_t type;
    uint32_t seq;
    uint64_t seid;
    void* userData;
    int cause;  // -1 when the message has none
};
struct Failure {
    __mv_pfcp_node_t* node;
    uint8_t type;
    uint32_t seq;
    void* userData;
    int reason;
};
struct AssocEvent {
    __mv_pfcp_node_t* node;
    int state, cause;
};

struct Recorder {
    std::mutex m;
    std::vector<SessionEvent> sessions;
    std::vector<Failure> failures;
    std::vector<AssocEvent> assoc;
    // When set, answers a session report request as the emulation would.
    std::atomic<bool> answerReports{false};

    template <class T>
    std::vector<T> of(__mv_pfcp_node_t* node, std::vector<T>& v) {
        std::lock_guard g(m);
        std::vector<T> out;
        for (const T& e : v)
            if (e.node == node) out.push_back(e);
        return out;
    }
};
// Never destroyed: the stack's threads live until the process ends and may still report.
Recorder& rec = *new Recorder;

void onSession(pfcp_message_t* msg, __mv_pfcp_node_t* node, uint32_t seq, uint64_t seid, void* userData) {
    int cause = -1;
    if (msg->h.type == PFCP_SESSION_ESTABLISHMENT_RESPONSE_TYPE && msg->pfcp_session_establishment_response.cause.presence)
        cause = msg->pfcp_session_establishment_response.cause.u8;
    {
        std::lock_guard g(rec.m);
        rec.sessions.push_back({node, msg->h.type, seq, seid, userData, cause});
    }
    if (msg->h.type == PFCP_SESSION_REPORT_REQUEST_TYPE && rec.answerReports) {
        auto r = newMessage();
        r->h.type = PFCP_SESSION_REPORT_RESPONSE_TYPE;
        r->h.flags.seid_presence = 1;
        r->h.seid = 0xABCDEF;  // the UPF's SEID of the session
        r->pfcp_session_report_response.cause = {1, PFCP_CAUSE_REQUEST_ACCEPTED};
        __mv_pfcp__send_response(node, r.get(), seq);
    }
}
void onFailed(__mv_pfcp_node_t* node, uint8_t type, uint32_t seq, uint64_t, void* userData, int reason) {
    std::lock_guard g(rec.m);
    rec.failures.push_back({node, type, seq, userData, reason});
}
void onAssociation(__mv_pfcp_node_t* node, int state, int cause) {
    std::lock_guard g(rec.m);
    rec.assoc.push_back({node, state, cause});
}

// ---------------------------------------------------------------- the process's stack

using kst::waitFor;

// 127.x.y.z from this process's id: other developers run these tests at the same time.
std::string uniqueLoopback(int k) {
    int pid = int(getpid());
    return "127." + std::to_string(1 + (pid >> 8) % 250) + "." + std::to_string(pid & 0xff) + "." + std::to_string(k);
}

std::string stackIp() { return uniqueLoopback(1); }

// One stack per process, with timings short enough for a test: a heartbeat a second, a
// retransmission after 400 ms.
void startStack() {
    static bool started = [] {
        root = kst::makeTempDir("pfcp");
        __init_morva_core();
        __mv_init_logger((root + "/logs/").c_str());
        __mv_set_log_level(MV_STK_LOG, MV_LOG_INFO);
        __mv_pfcp_timers t;
        t.AssociationRetryMs = 1000;
        t.HeartbeatIntervalMs = 1000;
        t.HeartbeatMaxPending = 3;
        t.T1Ms = 400;
        t.N1 = 1;
        t.TickMs = 20;
        __mv_pfcp__set_timers(&t);
        __mv_pfcp_handlers h;
        h.OnSessionMessage = onSession;
        h.OnRequestFailed = onFailed;
        h.OnAssociation = onAssociation;
        __mv_pfcp__setHandlers(&h);
        return __mv_pfcp__initalize(PFCP_NODE_TYPE__GATWEAY, PFCP_DEFAULT_PORT, 4, stackIp().c_str(), 0,
                                    stackIp().c_str()) == 1;
    }();
    ASSERT_TRUE(started);
}

__mv_pfcp_stats stats() {
    __mv_pfcp_stats s;
    __mv_pfcp__get_stats(&s);
    return s;
}

std::string stackLog() { return kst::readLogDir(root + "/logs/stk"); }
std::string readAll(const std::string& path) { return kst::readFile(path); }

// ---------------------------------------------------------------- the scripted UPF

class Upf {
public:
    explicit Upf(const std::vector<std::string>& options) {
        static std::atomic<int> n{10};
        ip = uniqueLoopback(++n);
        out = root + "/upf_" + std::to_string(n) + ".out";
        record = root + "/upf_" + std::to_string(n) + ".rec";
        std::vector<std::string> argv = {"/usr/bin/python3", KS_PFCP_TEST_DIR "/scripted_upf.py", "--listen", ip,
                                         "--peer", stackIp(), "--record", record};
        argv.insert(argv.end(), options.begin(), options.end());
        pid = fork();
        if (pid == 0) {
            int fd = open(out.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
            dup2(fd, 1);
            dup2(fd, 2);
            std::vector<char*> args;
            for (auto& a : argv) args.push_back(a.data());
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
    }
    ~Upf() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    // The event lines starting with `prefix`.
    std::vector<std::string> lines(const std::string& prefix) const {
        std::vector<std::string> v;
        std::istringstream in(readAll(out));
        std::string l;
        while (std::getline(in, l))
            if (l.rfind(prefix, 0) == 0) v.push_back(l);
        return v;
    }
    bool waitLines(const std::string& prefix, size_t count, double seconds) const {
        return waitFor([&] { return lines(prefix).size() >= count; }, seconds);
    }
    // What it received (our datagrams) and what it sent well-formed.
    std::vector<Bytes> wire(const char* tag) const {
        std::vector<Bytes> v;
        std::istringstream in(readAll(record));
        std::string t, h;
        while (in >> t >> h)
            if (t == tag) v.push_back(fromHex(h));
        return v;
    }
    std::string ip, out, record;
    pid_t pid = -1;
};

int stateOf(__mv_pfcp_node_t* n) { return n->isAssociationStarted.load(); }

// tshark reads both directions clean, in one run.
void checkWire(const Upf& upf) {
    if (!tsharkAvailable()) return;
    std::vector<Bytes> d = upf.wire("rx");
    size_t ours = d.size();
    for (Bytes& b : upf.wire("tx")) d.push_back(std::move(b));
    TsharkRun run = runTshark(d, {"pfcp.msg_type"});
    EXPECT_EQ(run.rc, 0) << "packets 1 to " << ours << " are the stack's, the rest the UPF's: " << run.report;
}

__mv_pfcp_node_t* associate(Upf& upf) {
    EXPECT_TRUE(upf.waitLines("ready", 1, 30)) << readAll(upf.out);
    __mv_pfcp_node_t* node = __mv_pfcp__add_upf(upf.ip.c_str(), 4, PFCP_DEFAULT_PORT);
    EXPECT_NE(node, nullptr);
    return node;
}

// A Session Establishment Request as the emulation sends it, with our SEID in the CP F-SEID.
std::unique_ptr<pfcp_message_t> establishment(uint64_t cpSeid, uint8_t (&buf)[32]) {
    auto m = newMessage();
    m->h.type = PFCP_SESSION_ESTABLISHMENT_REQUEST_TYPE;
    m->h.flags.seid_presence = 1;
    auto& r = m->pfcp_session_establishment_request;
    int n = pfcp_node_id_ipv4(buf, __mv_pfcp__getIPv4_addr());
    r.node_id = {1, buf, uint32_t(n)};
    int f = pfcp_f_seid_ipv4(buf + 8, cpSeid, __mv_pfcp__getIPv4_addr());
    r.cp_f_seid = {1, buf + 8, uint32_t(f)};
    r.create_pdr[0].presence = 1;
    r.create_pdr[0].pdr_id = {1, 1};
    r.create_pdr[0].pdi.presence = 1;
    r.create_pdr[0].pdi.source_interface = {1, PFCP_INTERFACE_CORE};
    r.create_far[0].presence = 1;
    r.create_far[0].far_id = {1, 1};
    r.create_far[0].apply_action = {1, PFCP_APPLY_ACTION_FORW};
    return m;
}

// The logs stay for a look with KS_KEEP_LOGS set.
class Cleanup : public ::testing::Environment {
public:
    void TearDown() override {
        if (root.empty()) return;
        if (getenv("KS_KEEP_LOGS")) printf("logs kept in %s\n", root.c_str());
        else kst::removeTree(root);
    }
};
const auto* const kCleanup = ::testing::AddGlobalTestEnvironment(new Cleanup);

class PfcpStack : public ::testing::Test {
protected:
    void SetUp() override {
        static const bool scapy = runCommand("/usr/bin/python3 -c 'import scapy.contrib.pfcp' 2>/dev/null", nullptr) == 0;
        if (!scapy) GTEST_SKIP() << "python3-scapy is not installed: no scripted UPF";
        startStack();
    }
};

TEST_F(PfcpStack, AssociatesKeepsHeartbeatsBothWaysAndCarriesSessionMessages) {
    Upf upf({"--hb-interval", "0.3", "--assoc-req"});
    __mv_pfcp_node_t* node = associate(upf);
    ASSERT_TRUE(waitFor([&] { return stateOf(node) == PFCP_ASSOCIATION__ASSOCIATED; }, 20));
    // Ours answered; theirs answered by us; their own association request answered.
    EXPECT_TRUE(upf.waitLines("hb-req", 2, 20));
    EXPECT_TRUE(upf.waitLines("hb-rsp", 2, 20));
    EXPECT_TRUE(upf.waitLines("assoc-rsp", 1, 20));
    EXPECT_TRUE(waitFor([&] { return node->pending_heartbeat_response == 0; }, 5));

    // A session request through the stack's own sender: the answer comes back with its user data.
    uint8_t buf[32];
    int token = 0;
    auto est = establishment(502, buf);
    uint32_t seq = __mv_pfcp__send_request(node, est.get(), 502, &token);
    ASSERT_NE(seq, 0u);
    ASSERT_TRUE(waitFor([&] { return !rec.of(node, rec.sessions).empty(); }, 10));
    SessionEvent e = rec.of(node, rec.sessions)[0];
    EXPECT_EQ(e.type, PFCP_SESSION_ESTABLISHMENT_RESPONSE_TYPE);
    EXPECT_EQ(e.seq, seq);
    EXPECT_EQ(e.seid, 502u);
    EXPECT_EQ(e.userData, &token);
    EXPECT_EQ(e.cause, 1);

    // The design's calling order: a number, the body, the header in front of it, the send.
    auto del = newMessage();
    del->h.type = PFCP_SESSION_DELETION_REQUEST_TYPE;
    uint32_t seq2 = __mv_pfcp__get_seqno();
    __mv_buff_t* b = pfcp_build_msg(del.get());
    ASSERT_NE(b, nullptr);
    __mv_buff__pull(b, PFCP_HEADER_LEN, 1);
    pfcp__set_request_header(b, PFCP_SESSION_DELETION_REQUEST_TYPE, seq2, 1, 0xABC000 + seq);
    EXPECT_EQ(__mv_pfcp__send_msg(node, b), PFCP_HEADER_LEN);
    ASSERT_TRUE(waitFor([&] { return rec.of(node, rec.sessions).size() >= 2; }, 10));
    e = rec.of(node, rec.sessions)[1];
    EXPECT_EQ(e.type, PFCP_SESSION_DELETION_RESPONSE_TYPE);
    EXPECT_EQ(e.seq, seq2);
    EXPECT_EQ(e.seid, 502u);
    EXPECT_EQ(e.userData, nullptr);

    // Released on our side: no new association until asked for one.
    size_t before = upf.lines("assoc-req").size();
    EXPECT_EQ(__mv_pfcp__release_association(node), 1);
    ASSERT_TRUE(upf.waitLines("release-req", 1, 10));
    ASSERT_TRUE(waitFor([&] { return stateOf(node) == PFCP_ASSOCIATION__NOT_STARTED; }, 10));
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_EQ(upf.lines("assoc-req").size(), before);
    __mv_pfcp__associate(node);
    EXPECT_TRUE(waitFor([&] { return stateOf(node) == PFCP_ASSOCIATION__ASSOCIATED; }, 20));
    EXPECT_TRUE(rec.of(node, rec.failures).empty());
    checkWire(upf);
}

TEST_F(PfcpStack, RefusedAssociationIsRetriedUntilAccepted) {
    uint64_t refusedBefore = stats().associationsRefused;
    Upf upf({"--refuse", "2"});
    __mv_pfcp_node_t* node = associate(upf);
    ASSERT_TRUE(waitFor([&] { return stateOf(node) == PFCP_ASSOCIATION__ASSOCIATED; }, 30));
    std::vector<AssocEvent> ev = rec.of(node, rec.assoc);
    ASSERT_EQ(ev.size(), 3u);
    EXPECT_EQ(ev[0].cause, PFCP_DOWN__REFUSED);
    EXPECT_EQ(ev[1].cause, PFCP_DOWN__REFUSED);
    EXPECT_EQ(ev[2].state, PFCP_ASSOCIATION__ASSOCIATED);
    EXPECT_EQ(stats().associationsRefused - refusedBefore, 2u);
    std::vector<std::string> reqs = upf.lines("assoc-req");
    ASSERT_EQ(reqs.size(), 3u);
    EXPECT_NE(reqs[0], reqs[1]);  // each retry is a new request with a new number
    EXPECT_NE(reqs[1], reqs[2]);
    EXPECT_NE(stackLog().find("pfcp association refused by ip=" + upf.ip + " port=8805 cause=64"), std::string::npos);
    checkWire(upf);
}

TEST_F(PfcpStack, PeerThatStopsAnsweringHeartbeatsIsDeclaredDownAndAssociatedAgain) {
    Upf upf({"--hb-answers", "1"});
    __mv_pfcp_node_t* node = associate(upf);
    ASSERT_TRUE(waitFor([&] { return stateOf(node) == PFCP_ASSOCIATION__ASSOCIATED; }, 20));
    ASSERT_TRUE(waitFor(
        [&] {
            for (const AssocEvent& e : rec.of(node, rec.assoc))
                if (e.state == PFCP_ASSOCIATION__NOT_STARTED && e.cause == PFCP_DOWN__HEARTBEAT_LOST) return true;
            return false;
        },
        30));
    // Four unanswered heartbeats a second apart, then a new association.
    EXPECT_GE(upf.lines("hb-req").size(), 5u);
    EXPECT_TRUE(upf.waitLines("assoc-req", 2, 20));
    EXPECT_TRUE(waitFor([&] { return stateOf(node) == PFCP_ASSOCIATION__ASSOCIATED; }, 20));
    EXPECT_NE(stackLog().find("pfcp peer ip=" + upf.ip + " port=8805 declared down"), std::string::npos);
    checkWire(upf);
}

TEST_F(PfcpStack, RequestWithoutAnswerIsSentOnceMoreThenReportedUpward) {
    uint64_t retransBefore = stats().retransmissions;
    Upf upf({"--session", "silent"});
    __mv_pfcp_node_t* node = associate(upf);
    ASSERT_TRUE(waitFor([&] { return stateOf(node) == PFCP_ASSOCIATION__ASSOCIATED; }, 20));
    uint8_t buf[32];
    int token = 0;
    auto est = establishment(503, buf);
    uint32_t seq = __mv_pfcp__send_request(node, est.get(), 503, &token);
    ASSERT_NE(seq, 0u);
    ASSERT_TRUE(waitFor([&] { return !rec.of(node, rec.failures).empty(); }, 10));
    Failure f = rec.of(node, rec.failures)[0];
    EXPECT_EQ(f.type, PFCP_SESSION_ESTABLISHMENT_REQUEST_TYPE);
    EXPECT_EQ(f.seq, seq);
    EXPECT_EQ(f.userData, &token);
    EXPECT_EQ(f.reason, PFCP_FAILED__NO_RESPONSE);
    // The UPF saw the request twice, with one number: one retransmission.
    std::vector<std::string> seen = upf.lines("sess-req");
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_NE(seen[0].find(" seq=" + std::to_string(seq) + " "), std::string::npos) << seen[0];
    EXPECT_GE(stats().retransmissions - retransBefore, 1u);
    EXPECT_TRUE(rec.of(node, rec.sessions).empty());
    checkWire(upf);
}

TEST_F(PfcpStack, AnswerCarryingAnotherSeidIsRefusedAndTheRequestFails) {
    uint64_t wrongBefore = stats().rxWrongSeid;
    Upf upf({"--session", "wrong-seid"});
    __mv_pfcp_node_t* node = associate(upf);
    ASSERT_TRUE(waitFor([&] { return stateOf(node) == PFCP_ASSOCIATION__ASSOCIATED; }, 20));
    uint8_t buf[32];
    auto est = establishment(504, buf);
    ASSERT_NE(__mv_pfcp__send_request(node, est.get(), 504, nullptr), 0u);
    ASSERT_TRUE(waitFor([&] { return !rec.of(node, rec.failures).empty(); }, 10));
    EXPECT_EQ(stats().rxWrongSeid - wrongBefore, 2u);  // the answer to the request and to its retransmission
    EXPECT_TRUE(rec.of(node, rec.sessions).empty());
    EXPECT_NE(stackLog().find("for an unknown SEID=1504 from ip=" + upf.ip), std::string::npos);
    checkWire(upf);
}

TEST_F(PfcpStack, ReportRequestReachesTheHandlerOnceAndItsRepeatIsAnsweredFromTheCache) {
    rec.answerReports = true;
    uint64_t dupBefore = stats().rxDuplicateRequests;
    Upf upf({"--report"});
    __mv_pfcp_node_t* node = associate(upf);
    ASSERT_TRUE(upf.waitLines("report-rsp", 2, 20));
    std::vector<std::string> rsp = upf.lines("report-rsp");
    EXPECT_EQ(rsp[0], rsp[1]);
    EXPECT_NE(rsp[0].find("cause=1"), std::string::npos);
    std::vector<SessionEvent> got = rec.of(node, rec.sessions);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].type, PFCP_SESSION_REPORT_REQUEST_TYPE);
    EXPECT_EQ(got[0].seid, 502u);
    EXPECT_EQ(stats().rxDuplicateRequests - dupBefore, 1u);
    checkWire(upf);
}

TEST_F(PfcpStack, BadInputIsLoggedCountedAndDroppedWithTheAssociationUp) {
    __mv_pfcp_stats before = stats();
    Upf upf({"--flood", "100000", "--vns"});
    __mv_pfcp_node_t* node = associate(upf);
    ASSERT_TRUE(waitFor([&] { return stateOf(node) == PFCP_ASSOCIATION__ASSOCIATED; }, 20));
    ASSERT_TRUE(upf.waitLines("flood-done", 1, 180)) << readAll(upf.out);
    EXPECT_TRUE(upf.waitLines("vns seq=1911", 1, 5));
    // After the flood the peer is still associated and its heartbeats are still answered.
    uint64_t answered = stats().heartbeatsAnswered;
    ASSERT_TRUE(waitFor([&] { return stats().heartbeatsAnswered >= answered + 2; }, 20));
    EXPECT_EQ(stateOf(node), PFCP_ASSOCIATION__ASSOCIATED);
    for (const AssocEvent& e : rec.of(node, rec.assoc)) EXPECT_EQ(e.state, PFCP_ASSOCIATION__ASSOCIATED);
    __mv_pfcp_stats s = stats();
    // The kernel drops what the socket's buffer cannot hold; what came through was read or counted.
    printf("flood: %lu datagrams read, %lu dropped at a full queue\n", (unsigned long)(s.rxDatagrams - before.rxDatagrams),
           (unsigned long)(s.rxQueueFull - before.rxQueueFull));
    EXPECT_GT(s.rxDatagrams + s.rxQueueFull - before.rxDatagrams - before.rxQueueFull, 10000u);
    EXPECT_GT(s.rxBadVersion - before.rxBadVersion, 0u);
    EXPECT_GT(s.rxBadLength - before.rxBadLength, 0u);
    EXPECT_GT(s.rxBadType - before.rxBadType, 0u);
    EXPECT_GT(s.rxDecodeFailed - before.rxDecodeFailed, 0u);
    EXPECT_GT(s.rxUnexpectedIEs - before.rxUnexpectedIEs, 0u);
    EXPECT_GT(s.rxLateResponses - before.rxLateResponses, 0u);
    std::string log = stackLog();
    // A 64 KB datagram is larger than the socket engine's datagram buffer: dropped there, whole.
    EXPECT_NE(log.find(" dropped: larger than "), std::string::npos);
    EXPECT_NE(log.find("TLV type:21 at octet 10 of Created PDR has length 9, 0 left"), std::string::npos);
    EXPECT_NE(log.find("received unsupported pfcp version=2 from ip=" + upf.ip), std::string::npos);
    EXPECT_NE(log.find("more like it not logged"), std::string::npos);
    checkWire(upf);
}

}  // namespace
