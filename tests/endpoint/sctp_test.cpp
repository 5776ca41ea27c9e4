// SCTP through the userspace stack between this process (namespace A) and a peer
// engine (namespace B): multi-homing, streams, PPID, the read models, reconnection,
// what is on the wire, and that every buffer goes back.
#include <sys/stat.h>

#include "endpoint_env.h"
#include "mv_socket_internal.h"
#include "netns.h"

namespace {

#define REQUIRE_NETNS()                                                               \
    do {                                                                              \
        if (!kse::Netns::get().skipReason.empty()) GTEST_SKIP() << kse::Netns::get().skipReason; \
    } while (0)

constexpr int kPeerPort = 38412;

std::atomic<kse::Recorder*> rec{nullptr};

void onConnected(MV_Socket*) {
    ++rec.load()->connects;
    rec.load()->addThread();
}
void onClose(MV_Socket*) { ++rec.load()->closes; }
void onMessage(MV_SocketSCTPBuffer* b) {
    {
        kse::Recorder* r = rec;
        std::lock_guard g(r->m);
        r->messages.emplace_back(reinterpret_cast<char*>(b->buff + b->pos), size_t(b->len - b->pos));
        r->streams.push_back(b->streamId);
        r->ppids.push_back(b->ppid);
        r->threads.insert(kse::threadName());
    }
    __mv_socket_engine_release_sctp_socket_buffer(b);
}

std::vector<std::string> peerArgs(int model) {
    std::string addrs;
    for (const char* a : kse::Netns::B) addrs += std::string(addrs.empty() ? "" : ",") + a;
    std::string logs = kse::root() + "/peer" + std::to_string(model) + "/";
    return {KS_SCTP_PEER, "--addrs", addrs, "--port", std::to_string(kPeerPort), "--istreams", "5", "--ostreams", "5",
            "--ppid", "60", "--model", std::to_string(model), "--logs", logs};
}

MV_Socket* makeClient(int model, int localCount) {
    MV_SctpSocketInfo info{};
    info.ipVersion = 4;
    info.ipCount = localCount;
    for (int i = 0; i < localCount; ++i) snprintf(info.IP[i], sizeof info.IP[i], "%s", kse::Netns::A[i]);
    info.Port = 0;
    info.RemotePort = kPeerPort;
    info.RemoteIpCount = 4;
    for (int i = 0; i < 4; ++i) snprintf(info.RemoteIP[i], sizeof info.RemoteIP[i], "%s", kse::Netns::B[i]);
    info.PPID = 60;
    info.UseEPoll = model;
    info.MaxOStreams = 16;
    info.MaxIStreams = 16;
    MV_Socket* s = __mv_socket_engine_create_sctp_client_socket(&info);
    s->OnConnected = onConnected;
    s->OnClose = onClose;
    s->OnBufferReceive = onMessage;
    return s;
}

using kse::Capture;

bool tsharkPresent() { return system("tshark -v >/dev/null 2>&1") == 0; }

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    size_t p = 0, nl;
    while ((nl = text.find('\n', p)) != std::string::npos) {
        out.push_back(text.substr(p, nl - p));
        p = nl + 1;
    }
    return out;
}

class Sctp : public ::testing::Test {
protected:
    void SetUp() override { rec = &r; }
    // Never freed: sockets of a finished test may still report a late close.
    kse::Recorder& r = *new kse::Recorder;
};

TEST_F(Sctp, MultiHomedAssociationCarriesPpid60OnRoundRobinStreamsAndIsStandardOnTheWire) {
    REQUIRE_NETNS();
    std::string capPath = kse::root() + "/assoc.pcapng";
    std::unique_ptr<Capture> cap;
    if (tsharkPresent()) cap = std::make_unique<Capture>(capPath);
    MV_SocketPoolCounts before = __mv_socket_engine_sctp_pool_counts();

    kse::Peer peer(peerArgs(2));
    ASSERT_EQ(peer.waitLine("READY", 10), "READY");
    MV_Socket* cli = makeClient(2, 5);
    EXPECT_EQ(cli->IPAddressCount, 4) << "a client with five local addresses takes four";
    ASSERT_EQ(__mv_socket_engine_sctp_client_socket_start_read_thread(cli), 1);
    ASSERT_TRUE(kst::waitFor([&] { return r.connects.load() == 1; }, 10));
    EXPECT_EQ(r.threadSet(), std::set<std::string>{"mv_sok_cc"}) << "the reconnection thread connected it";
    EXPECT_EQ(cli->peer_max_o_streams.load(), 5) << "the peer takes 5 inbound streams";
    std::string accept = peer.waitLine("ACCEPT", 5);
    EXPECT_NE(accept.find("10.231.0.1"), std::string::npos) << "the peer sees one of our addresses: " << accept;

    sockaddr_storage local[8];
    int bound = __mv_sctp_backend()->LocalAddresses(cli->fd, local, 8);
    EXPECT_EQ(bound, 4);

    // Two laps of the streams; the peer echoes each message on its own stream.
    std::vector<uint16_t> want;
    for (int i = 0; i < 10; ++i) {
        std::string m = "ngap-" + std::to_string(i);
        ASSERT_EQ(__mv_socket_engine_sctp_send_ngap(cli, m.data(), int(m.size())), int(m.size()));
        want.push_back(uint16_t((i + 1) % 5));
    }
    ASSERT_TRUE(kst::waitFor([&] { return r.messageCount() == 10; }, 10));
    {
        std::lock_guard g(r.m);
        EXPECT_EQ(r.streams, want);
        EXPECT_EQ(r.ppids, std::vector<uint32_t>(10, 60));
        EXPECT_EQ(r.messages.front(), "ngap-0");
        EXPECT_EQ(r.threads.count("app_thread"), 1u) << "messages arrive on the SCTP delivery thread";
    }
    EXPECT_EQ(peer.count("RX stream=1 ppid=60"), 2);
    // Paths to the peer's other addresses are confirmed with heartbeats.
    usleep(1500000);

    cli->disableClientAutoReConnect = 1;
    __mv_socket_engine_sctp__close_client_connection(cli);
    EXPECT_EQ(r.closes.load(), 1);
    EXPECT_TRUE(kst::waitFor([&] { return __mv_socket_engine_sctp_pool_counts().Available == before.Available +
                                                 (__mv_socket_engine_sctp_pool_counts().Total - before.Total); },
                             5))
        << "SCTP buffers not given back";

    if (!cap) GTEST_SKIP() << "tshark is not installed: the wire was not checked";
    ASSERT_TRUE(cap->ok()) << "tshark did not start capturing";
    std::string f = cap->fields();
    int bad = 0, init = 0, initAck = 0, cookieEcho = 0, cookieAck = 0, data60 = 0, heartbeat = 0, aborts = 0;
    std::string initAddrs;
    for (const std::string& l : lines(f)) {
        auto s1 = l.find('|'), s2 = l.find('|', s1 + 1), s3 = l.find('|', s2 + 1);
        if (s1 == std::string::npos || s2 == std::string::npos || s3 == std::string::npos) continue;
        std::string status = l.substr(0, s1), types = "," + l.substr(s1 + 1, s2 - s1 - 1) + ",";
        std::string ppids = l.substr(s2 + 1, s3 - s2 - 1), addrs = l.substr(s3 + 1);
        bad += status != "1";
        if (types.find(",1,") != std::string::npos) {
            ++init;
            initAddrs = addrs;
        }
        initAck += types.find(",2,") != std::string::npos;
        cookieEcho += types.find(",10,") != std::string::npos;
        cookieAck += types.find(",11,") != std::string::npos;
        heartbeat += types.find(",4,") != std::string::npos;
        aborts += types.find(",6,") != std::string::npos;
        if (types.find(",0,") != std::string::npos && ppids.find("60") == 0) ++data60;
    }
    EXPECT_EQ(bad, 0) << "packets whose CRC32c tshark rejects:\n" << f;
    EXPECT_GE(init, 1);
    EXPECT_GE(initAck, 1);
    EXPECT_GE(cookieEcho, 1);
    EXPECT_GE(cookieAck, 1);
    EXPECT_GE(data60, 20) << "ten messages each way with PPID 60";
    EXPECT_GE(heartbeat, 1);
    EXPECT_EQ(aborts, 0) << "neither stack aborts: the association ends with SHUTDOWN";
    for (int i = 0; i < 4; ++i) EXPECT_NE(initAddrs.find(kse::Netns::A[i]), std::string::npos) << initAddrs;
    EXPECT_EQ(initAddrs.find(kse::Netns::A[4]), std::string::npos) << "the fifth address is not bound: " << initAddrs;
}

class SctpModel : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override { rec = &r; }
    // Never freed: sockets of a finished test may still report a late close.
    kse::Recorder& r = *new kse::Recorder;
};

TEST_P(SctpModel, PeerShutdownFiresOnCloseOnceAndTheClientComesBack) {
    REQUIRE_NETNS();
    int model = GetParam();
    kse::Peer peer(peerArgs(model));
    ASSERT_EQ(peer.waitLine("READY", 10), "READY");
    MV_Socket* cli = makeClient(model, 2);
    ASSERT_EQ(__mv_socket_engine_sctp_client_socket_start_read_thread(cli), 1);
    ASSERT_TRUE(kst::waitFor([&] { return r.connects.load() == 1; }, 10));
    EXPECT_EQ(r.threadSet(), std::set<std::string>{model == 0 ? "mv_r_socket" : "mv_sok_cc"});
    ASSERT_FALSE(peer.waitLine("ACCEPT", 5).empty());
    ASSERT_EQ(__mv_socket_engine_sctp_send_ngap(cli, "one", 3), 3);
    ASSERT_TRUE(kst::waitFor([&] { return r.messageCount() == 1; }, 5));

    peer.send("close");
    ASSERT_TRUE(kst::waitFor([&] { return r.closes.load() == 1; }, 5)) << "the peer's SHUTDOWN closes the socket";
    auto closedAt = std::chrono::steady_clock::now();
    ASSERT_TRUE(kst::waitFor([&] { return r.connects.load() == 2; }, 6)) << "no reconnect while the peer listens";
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - closedAt).count();
    EXPECT_LT(secs, 4.5);
    EXPECT_EQ(r.closes.load(), 1) << "OnClose fires once";
    ASSERT_EQ(__mv_socket_engine_sctp_send_ngap(cli, "two", 3), 3);
    ASSERT_TRUE(kst::waitFor([&] { return r.messageCount() == 2; }, 5)) << "the new association carries data";
    EXPECT_NE(kse::stackLog().find("SCTP_SHUTDOWN_EVENT Notified, closing connection"), std::string::npos);

    cli->disableClientAutoReConnect = 1;
    __mv_socket_engine_sctp__close_client_connection(cli);
}

INSTANTIATE_TEST_SUITE_P(UseEPoll, SctpModel, ::testing::Values(0, 1, 2), [](const auto& i) {
    return "Model" + std::to_string(i.param);
});

// Both ends in this process, on one stack: the server side of the engine, with a
// long exchange to show that every buffer comes back.
std::atomic<int> serverAccepts{0};
std::set<std::string> acceptThreads;
std::mutex acceptLock;
void onServerAccept(MV_Socket*, MV_Socket*) {
    ++serverAccepts;
    std::lock_guard g(acceptLock);
    acceptThreads.insert(kse::threadName());
}
void onServerEcho(MV_SocketSCTPBuffer* b) {
    __mv_socket_engine_sctp_send2(b->siSocket, b->buff + b->pos, b->len - b->pos, b->streamId, 0);
    __mv_socket_engine_release_sctp_socket_buffer(b);
}

MV_Socket* oneAddressServer(const char* ip, int port, uint32_t ppid, int model) {
    MV_SctpSocketInfo info{};
    info.ipVersion = 4;
    info.ipCount = 1;
    snprintf(info.IP[0], sizeof info.IP[0], "%s", ip);
    info.Port = port;
    info.PPID = ppid;
    info.UseEPoll = model;
    MV_Socket* srv = __mv_socket_engine_create_sctp_server_socket(&info);
    srv->OnAccept = onServerAccept;
    srv->OnBufferReceive = onServerEcho;
    EXPECT_EQ(__mv_socket_engine_start_server_socket(srv), 1);
    return srv;
}

MV_Socket* oneAddressClient(const char* local, const char* remote, int port, uint32_t ppid, int model) {
    MV_SctpSocketInfo info{};
    info.ipVersion = 4;
    info.ipCount = 1;
    snprintf(info.IP[0], sizeof info.IP[0], "%s", local);
    info.RemotePort = port;
    info.RemoteIpCount = 1;
    snprintf(info.RemoteIP[0], sizeof info.RemoteIP[0], "%s", remote);
    info.PPID = ppid;
    info.UseEPoll = model;
    MV_Socket* cli = __mv_socket_engine_create_sctp_client_socket(&info);
    cli->OnConnected = onConnected;
    cli->OnClose = onClose;
    cli->OnBufferReceive = onMessage;
    return cli;
}

TEST_F(Sctp, ServerSideAcceptsEchoesAndGivesEveryBufferBack) {
    REQUIRE_NETNS();
    MV_Socket* srv = oneAddressServer(kse::Netns::A[0], 36412, 18, 1);
    ASSERT_TRUE(kst::waitFor([&] { return srv->isActive == 1; }, 5));
    MV_Socket* cli = oneAddressClient(kse::Netns::A[1], kse::Netns::A[0], 36412, 18, 0);
    ASSERT_EQ(__mv_socket_engine_sctp_client_socket_start_read_thread(cli), 1);
    ASSERT_TRUE(kst::waitFor([&] { return r.connects.load() == 1; }, 10));
    ASSERT_TRUE(kst::waitFor([&] { return serverAccepts.load() == 1; }, 5));
    {
        std::lock_guard g(acceptLock);
        EXPECT_EQ(acceptThreads, std::set<std::string>{"mv_s_socket"});
    }
    EXPECT_EQ(cli->peer_max_o_streams.load(), 3) << "no stream counts: both ends take 3";
    ASSERT_NE(srv->ChildHead, nullptr);
    EXPECT_NE(std::string(srv->ChildHead->ClientConnectionId).find(std::string(kse::Netns::A[1]) + "-132-"),
              std::string::npos);

    // A message too large for one buffer is dropped whole, not handed on in pieces.
    std::string big(MV_SOCKET_SCTP_BUFFER_SIZE + 1000, 'b');
    ASSERT_EQ(__mv_socket_engine_sctp_send(cli, big.data(), int(big.size())), int(big.size()));
    // Warm the pool, then count: a long exchange must leave the counts as they were.
    ASSERT_EQ(__mv_socket_engine_sctp_send(cli, "warm", 4), 4);
    ASSERT_TRUE(kst::waitFor([&] { return r.messageCount() == 1; }, 5));
    {
        std::lock_guard g(r.m);
        EXPECT_EQ(r.messages.front(), "warm");
    }
    EXPECT_NE(kse::stackLog().find("sctp message longer than 5000 bytes on stream=0 dropped"), std::string::npos);
    MV_SocketPoolCounts before = __mv_socket_engine_sctp_pool_counts();
    constexpr int kMessages = 3000;
    std::string payload(200, 'p');
    for (int i = 0; i < kMessages; ++i) {
        while (__mv_socket_engine_sctp_send(cli, payload.data(), int(payload.size())) != int(payload.size())) usleep(1000);
        if (i % 200 == 199) kst::waitFor([&] { return r.messageCount() >= size_t(i - 100); }, 5);
    }
    ASSERT_TRUE(kst::waitFor([&] { return r.messageCount() == kMessages + 1; }, 20));
    {
        std::lock_guard g(r.m);
        EXPECT_EQ(r.ppids.back(), 18u);
        EXPECT_EQ(r.streams.back(), 0);
    }
    ASSERT_TRUE(kst::waitFor(
        [&] {
            MV_SocketPoolCounts now = __mv_socket_engine_sctp_pool_counts();
            return now.Total - now.Available == before.Total - before.Available;
        },
        5))
        << "buffers in use grew over the exchange";

    cli->disableClientAutoReConnect = 1;
    __mv_socket_engine_sctp__close_client_connection(cli);
    EXPECT_TRUE(kst::waitFor([&] { return srv->ChildHead->isActive == 0; }, 5)) << "the child sees the shutdown";
    // The close marks the child inactive first and free after it has let go of it.
    EXPECT_TRUE(kst::waitFor([&] { return srv->ChildHead->isFree.load() == 1; }, 5)) << "the child is given back";
}

TEST_F(Sctp, UserspaceStackOverUdpEncapsulation) {
    REQUIRE_NETNS();
    if (__mv_socket_engine__set_sctp_backend("userspace", 9899) != 1)
        GTEST_SKIP() << "the stack already runs on raw IP in this process; ctest runs each test alone";
    EXPECT_STREQ(__mv_socket_engine__sctp_backend_name(), "userspace");
    std::unique_ptr<Capture> cap;
    std::string capPath = kse::root() + "/udp.pcapng";
    if (tsharkPresent()) cap = std::make_unique<Capture>(capPath, "lo", "udp port 9899");

    oneAddressServer(kse::Netns::A[0], 3868, 46, 2);
    // Over UDP the kernel picks the source address, the one its route prefers: bind
    // that one, or the peer's answers go to an address the association does not have.
    MV_Socket* cli = oneAddressClient(kse::Netns::A[0], kse::Netns::A[0], 3868, 46, 1);
    ASSERT_EQ(__mv_socket_engine_sctp_client_socket_start_read_thread(cli), 1);
    ASSERT_TRUE(kst::waitFor([&] { return r.connects.load() == 1; }, 10));
    for (int i = 0; i < 5; ++i) ASSERT_EQ(__mv_socket_engine_sctp_send2(cli, "diam", 4, uint16_t(i % 3), 0), 4);
    ASSERT_TRUE(kst::waitFor([&] { return r.messageCount() == 5; }, 5));
    {
        std::lock_guard g(r.m);
        EXPECT_EQ(r.streams, (std::vector<uint16_t>{0, 1, 2, 0, 1}));
        EXPECT_EQ(r.ppids, std::vector<uint32_t>(5, 46));
    }
    cli->disableClientAutoReConnect = 1;
    __mv_socket_engine_sctp__close_client_connection(cli);
    if (!cap) GTEST_SKIP() << "tshark is not installed: the wire was not checked";
    ASSERT_TRUE(cap->ok());
    std::string f = cap->fields();
    EXPECT_NE(f.find("|46"), std::string::npos) << "DATA with PPID 46 inside UDP:\n" << f;
    int bad = 0;
    for (const std::string& l : lines(f)) bad += l.rfind("1|", 0) != 0;
    EXPECT_EQ(bad, 0) << "packets whose CRC32c tshark rejects:\n" << f;
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Before any thread: every thread and stack socket of this process is then in A.
    if (!::testing::GTEST_FLAG(list_tests)) kse::Netns::get().enter();
    ::testing::AddGlobalTestEnvironment(new kse::EngineEnv);
    return RUN_ALL_TESTS();
}
