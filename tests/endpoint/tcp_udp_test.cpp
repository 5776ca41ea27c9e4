// TCP and UDP through the engine on loopback: what arrives, in what order, on which
// thread, what a close looks like, and that every buffer goes back to its pool.
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "endpoint_env.h"
#include "mv_socket_internal.h"

namespace {

::testing::Environment* const env = ::testing::AddGlobalTestEnvironment(new kse::EngineEnv);

// Threads of earlier tests' sockets may still call in while a test sets these.
std::atomic<kse::Recorder*> rec{nullptr};
std::atomic<MV_Socket*> lastChild{nullptr};
std::atomic<bool> echo{false};

void onAccept(MV_Socket* child, MV_Socket*) {
    lastChild = child;
    ++rec.load()->accepts;
    rec.load()->addThread();
}

// Closes of one socket, counted apart: late closes of earlier tests' sockets reach rec.
std::atomic<MV_Socket*> watched{nullptr};
std::atomic<int> watchedCloses{0};

void onClose(MV_Socket* s) {
    ++rec.load()->closes;
    if (s == watched.load()) ++watchedCloses;
}

// Takes every byte waiting, the way a framing owner would, and gives the buffers back.
void onTcpData(MV_Socket* s) {
    rec.load()->addThread();
    ++rec.load()->deliveries;
    uint8_t chunk[4096];
    for (;;) {
        int n = __mv_socket_engine_tcp_get_buffer(s, chunk, sizeof chunk);
        if (n <= 0) break;
        {
            std::lock_guard g(rec.load()->m);
            rec.load()->bytes.append(reinterpret_cast<char*>(chunk), size_t(n));
        }
        if (echo && s->Parent) __mv_socket_engine_tcp_send_socket_data(s, chunk, n, 0);
    }
    __mv_socket_engine_tcp_release_used_buffer(s);
}

MV_Socket* startTcpServer(int port) {
    MV_Socket* srv = __mv_socket_engine_create_server_socket("127.0.0.1", 4, MV_TRANSPORT_TCP, port, 0, nullptr, nullptr);
    srv->OnAccept = onAccept;
    srv->OnClose = onClose;
    srv->OnBufferReceive = onTcpData;
    EXPECT_EQ(__mv_socket_engine_start_server_socket(srv), 1);
    // The start waits a moment for the listener; on a loaded machine that may not be enough.
    EXPECT_TRUE(kst::waitFor([&] { return srv->isActive == 1; }, 10));
    return srv;
}

// An independent peer: a plain blocking socket.
int plainConnect(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

class Tcp : public ::testing::Test {
protected:
    void SetUp() override {
        rec = &r;
        lastChild = nullptr;
        echo = false;
    }
    // Never freed: sockets of a finished test may still report a late close.
    kse::Recorder& r = *new kse::Recorder;
};

TEST_F(Tcp, DataLargerThanOneBufferArrivesWholeInOrderOnTheDeliveryThread) {
    MV_SocketPoolCounts before = __mv_socket_engine_tcp_pool_counts();
    int port = kse::freePort();
    MV_Socket* srv = startTcpServer(port);
    EXPECT_EQ(__mv_socket_engine_start_server_socket(srv), 0) << "a second start starts no second thread";

    int fd = plainConnect(port);
    ASSERT_GE(fd, 0);
    std::string sent;
    for (int i = 0; sent.size() < 300000; ++i) sent += std::to_string(i) + ",";
    size_t off = 0;
    while (off < sent.size()) {
        ssize_t n = write(fd, sent.data() + off, sent.size() - off);
        ASSERT_GT(n, 0);
        off += size_t(n);
    }
    ASSERT_TRUE(kst::waitFor([&] { return r.byteCount() >= sent.size(); }, 10));
    {
        std::lock_guard g(r.m);
        EXPECT_TRUE(r.bytes == sent) << "bytes differ or are out of order";
    }
    EXPECT_EQ(r.accepts.load(), 1);
    auto threads = r.threadSet();
    EXPECT_TRUE(threads.count("mv_s_socket")) << "OnAccept runs on the server thread";
    EXPECT_TRUE(threads.count("app_thread")) << "OnBufferReceive runs on the delivery thread";
    MV_Socket* child = lastChild;
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(__mv_socket_engine_buffer_data_length(child), 0);

    EXPECT_EQ(child->Close(child), 1);
    EXPECT_EQ(r.closes.load(), 1);
    close(fd);
    kst::waitFor([&] { return __mv_socket_engine_tcp_pool_counts().Available == before.Available; }, 5);
    MV_SocketPoolCounts after = __mv_socket_engine_tcp_pool_counts();
    EXPECT_EQ(after.Available - after.Total, before.Available - before.Total) << "buffers not given back";
}

TEST_F(Tcp, ReadOfZeroLeavesTheSocketOpenAndSendToAClosedPeerCloses) {
    int port = kse::freePort();
    startTcpServer(port);
    int fd = plainConnect(port);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(kst::waitFor([&] { return lastChild.load() && lastChild.load()->isActive; }, 5));
    MV_Socket* child = lastChild;

    // A half close: the engine reads 0 bytes and keeps the socket.
    shutdown(fd, SHUT_WR);
    usleep(200000);
    EXPECT_EQ(child->isActive.load(), 1);
    EXPECT_EQ(child->isConnected.load(), 1);
    EXPECT_EQ(r.closes.load(), 0);
    EXPECT_EQ(__mv_socket_engine_tcp_send_socket_data(child, "still here", 10, 0), 10);
    char got[16] = {};
    EXPECT_EQ(read(fd, got, sizeof got), 10);

    close(fd);
    int rc = 1;
    for (int i = 0; i < 50 && rc > 0; ++i) {
        rc = __mv_socket_engine_tcp_send_socket_data(child, "ping", 4, 0);
        usleep(20000);
    }
    EXPECT_LT(rc, 0);
    EXPECT_EQ(r.closes.load(), 1) << "OnClose fires once";
    EXPECT_EQ(child->isActive.load(), 0);
    EXPECT_EQ(child->isFree.load(), 1);
    std::string log = kse::stackLog();
    EXPECT_NE(log.find("error while sending data, closing tcp socket fd="), std::string::npos);
    EXPECT_NE(log.find("closed tcp socket connection fd="), std::string::npos);
    EXPECT_EQ(__mv_socket_engine_tcp_send_socket_data(child, "late", 4, 0), -1) << "not connected any more";
}

TEST_F(Tcp, EngineClientEchoCloseAndReconnectReusesTheChild) {
    int port = kse::freePort();
    echo = true;
    startTcpServer(port);

    // The client's own recorder is the same one: the echo comes back to it.
    MV_Socket* cli = __mv_socket_engine_create_client_socket("127.0.0.1", 4, MV_TRANSPORT_TCP, port, 0, nullptr);
    cli->OnBufferReceive = onTcpData;
    cli->OnClose = onClose;
    EXPECT_EQ(cli->Connect(cli), 1);
    EXPECT_EQ(cli->Connect(cli), 1) << "already connected";
    ASSERT_TRUE(kst::waitFor([&] { return lastChild.load() && lastChild.load()->isActive; }, 5));
    MV_Socket* child = lastChild;
    int childId = child->id, gen = child->GenId;

    ASSERT_EQ(cli->Send(cli, "hello", 5, 0), 5);
    // "hello" reaches the server, its echo reaches the client: ten bytes in all.
    ASSERT_TRUE(kst::waitFor([&] { return r.byteCount() == 10; }, 5));

    EXPECT_EQ(cli->Close(cli), 1);
    EXPECT_EQ(cli->Close(cli), 0) << "a second close only tidies up";
    ASSERT_TRUE(kst::waitFor([&] { return child->isActive == 0; }, 5)) << "the reset reaches the child";
    EXPECT_EQ(r.closes.load(), 2);

    ASSERT_EQ(cli->Connect(cli), 1);
    ASSERT_TRUE(kst::waitFor([&] { return r.accepts.load() == 2 && child->isActive == 1; }, 5));
    EXPECT_EQ(lastChild.load(), child) << "the free child is reused";
    EXPECT_EQ(child->id, childId);
    EXPECT_EQ(child->GenId, gen + 1);
    ASSERT_EQ(cli->Send(cli, "again", 5, 0), 5);
    ASSERT_TRUE(kst::waitFor([&] { return r.byteCount() == 20; }, 5));
    cli->Close(cli);
}

// A reader of a plain socket that takes everything until the peer closes.
std::string readAll(int fd, size_t atLeast) {
    std::string got;
    char buf[65536];
    while (got.size() < atLeast) {
        pollfd pf{fd, POLLIN, 0};
        if (poll(&pf, 1, 10000) <= 0) break;
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) break;
        got.append(buf, size_t(n));
    }
    return got;
}

// A peer that stops reading: sends never wait for it, what the kernel cannot take waits
// on the socket and follows in order once the peer reads, and past its bound the
// connection is closed with a log line naming the peer and a count.
TEST_F(Tcp, ASlowReaderHoldsNoSenderGetsEveryByteInOrderAndPastItsBoundIsDropped) {
    int port = kse::freePort();
    MV_Socket* srv = startTcpServer(port);
    constexpr long kBound = 4L << 20;
    __mv_socket_engine__set_max_outbound_bytes(srv, kBound);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int small = 4096;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_TRUE(kst::waitFor([&] { return lastChild.load() && lastChild.load()->isActive; }, 5));
    MV_Socket* child = lastChild;
    watchedCloses = 0;
    watched = child;
    EXPECT_EQ(child->MaxOutboundBytes, kBound) << "the listener's bound";

    // Numbered lines until some wait in the engine: every send returned at once.
    std::string sent;
    for (int i = 0; __mv_socket_engine_outbound_bytes(child) == 0 && sent.size() < (256u << 20); ++i) {
        std::string line = std::to_string(i) + std::string(1000, '.') + "\n";
        ASSERT_EQ(__mv_socket_engine_tcp_send_socket_data(child, line.data(), int(line.size()), 0), int(line.size()));
        sent += line;
    }
    ASSERT_GT(__mv_socket_engine_outbound_bytes(child), 0) << "the kernel never filled";
    for (int i = 0; i < 100; ++i) {
        std::string line = "more" + std::to_string(i) + "\n";
        ASSERT_EQ(__mv_socket_engine_tcp_send_socket_data(child, line.data(), int(line.size()), 0), int(line.size()));
        sent += line;
    }
    std::string got = readAll(fd, sent.size());
    EXPECT_EQ(got.size(), sent.size());
    EXPECT_TRUE(got == sent) << "bytes lost or out of order";
    EXPECT_TRUE(kst::waitFor([&] { return __mv_socket_engine_outbound_bytes(child) == 0; }, 5));

    // Past the bound: closed once, counted, and the sender told.
    int before = __mv_socketEngine->OutboundLimitCloseCount;
    std::string block(64 * 1024, 'x');
    int rc = 1;
    for (long n = 0; rc > 0 && n < (512L << 20); n += long(block.size()))
        rc = __mv_socket_engine_tcp_send_socket_data(child, block.data(), int(block.size()), 0);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(__mv_socketEngine->OutboundLimitCloseCount - before, 1);
    EXPECT_EQ(child->isActive.load(), 0);
    EXPECT_EQ(__mv_socket_engine_outbound_bytes(child), 0) << "what waited went with the connection";
    EXPECT_EQ(watchedCloses.load(), 1);
    char peer[64];
    sockaddr_in me{};
    socklen_t len = sizeof me;
    getsockname(fd, reinterpret_cast<sockaddr*>(&me), &len);
    snprintf(peer, sizeof peer, "of peer 127.0.0.1:%d: it reads too slowly", ntohs(me.sin_port));
    EXPECT_NE(kse::stackLog().find(peer), std::string::npos) << peer;
    close(fd);
}

// A record serves the next connection once its last one closed; whoever still holds
// the old generation reaches neither the new peer nor its connection.
TEST_F(Tcp, AStaleGenerationReachesNeitherTheNextPeerNorItsConnection) {
    int port = kse::freePort();
    startTcpServer(port);
    int first = plainConnect(port);
    ASSERT_GE(first, 0);
    ASSERT_TRUE(kst::waitFor([&] { return lastChild.load() && lastChild.load()->isActive; }, 5));
    MV_Socket* child = lastChild;
    int gen = __mv_socket_engine_get_generation(child);
    EXPECT_EQ(__mv_socket_engine_send_on_connection(child, gen, "one", 3), 3);
    char got[8] = {};
    EXPECT_EQ(read(first, got, sizeof got), 3);

    EXPECT_EQ(__mv_socket_engine_close_connection(child, gen), 1);
    close(first);
    lastChild = nullptr;
    int second = plainConnect(port);
    ASSERT_GE(second, 0);
    ASSERT_TRUE(kst::waitFor([&] { return lastChild.load() && lastChild.load()->isActive; }, 5));
    ASSERT_EQ(lastChild.load(), child) << "the free record is reused";
    ASSERT_NE(__mv_socket_engine_get_generation(child), gen);

    EXPECT_EQ(__mv_socket_engine_send_on_connection(child, gen, "stale", 5), -ESRCH);
    EXPECT_EQ(__mv_socket_engine_close_connection(child, gen), 0);
    uint8_t buf[8];
    EXPECT_EQ(__mv_socket_engine_tcp_get_buffer_gen(child, gen, buf, sizeof buf), -ESRCH);
    EXPECT_EQ(child->isActive.load(), 1) << "the new connection stays";
    int now = __mv_socket_engine_get_generation(child);
    EXPECT_EQ(__mv_socket_engine_send_on_connection(child, now, "two", 3), 3);
    memset(got, 0, sizeof got);
    EXPECT_EQ(read(second, got, sizeof got), 3);
    EXPECT_STREQ(got, "two") << "only what was sent for this connection";
    close(second);
}

TEST(TcpClient, RefusedConnectLogsAndReturnsMinusOne) {
    int port = kse::freePort();
    MV_Socket* cli = __mv_socket_engine_create_client_socket("127.0.0.1", 4, MV_TRANSPORT_TCP, port, 0, nullptr);
    EXPECT_EQ(__mv_socket_engine_tcp_connect_socket(cli), -1);
    EXPECT_EQ(cli->isConnected.load(), 0);
    EXPECT_EQ(__mv_socket_engine_tcp_send_socket_data(cli, "x", 1, 0), -1);
    EXPECT_NE(kse::stackLog().find("connection failed with fd="), std::string::npos);
}

// ---------------------------------------------------------------- UDP

std::mutex udpLock;
std::vector<std::string> serverGot, clientGot;
std::set<std::string> udpThreads;

void onServerDatagram(MV_SocketUdpBuffer* b) {
    {
        std::lock_guard g(udpLock);
        serverGot.emplace_back(reinterpret_cast<char*>(b->buff + b->pos), size_t(b->len));
        udpThreads.insert(kse::threadName());
    }
    const sockaddr* to = b->clientaddr6.sin6_family == AF_INET6 ? reinterpret_cast<sockaddr*>(&b->clientaddr6)
                                                                : reinterpret_cast<sockaddr*>(&b->clientaddr);
    std::string reply = "re:" + std::string(reinterpret_cast<char*>(b->buff), size_t(b->len));
    __mv_socket_engine_udp_send2(b->siSocket, to, b->clientlen, reply.data(), int(reply.size()));
    __mv_socket_engine_release_socket_udp_buffer(b);
}

void onClientDatagram(MV_SocketUdpBuffer* b) {
    {
        std::lock_guard g(udpLock);
        clientGot.emplace_back(reinterpret_cast<char*>(b->buff + b->pos), size_t(b->len));
    }
    __mv_socket_engine_release_socket_udp_buffer(b);
    // A second release of the same buffer does nothing.
    __mv_socket_engine_release_socket_udp_buffer(b);
}

class Udp : public ::testing::TestWithParam<int> {};

TEST_P(Udp, ServerAndClientExchangeOnQueueLineThreads) {
    int v = GetParam();
    {
        std::lock_guard g(udpLock);
        serverGot.clear();
        clientGot.clear();
        udpThreads.clear();
    }
    MV_SocketPoolCounts before = __mv_socket_engine_udp_pool_counts();
    int port = kse::freePort(SOCK_DGRAM, v == 6 ? AF_INET6 : AF_INET);
    MV_Socket* srv;
    if (v == 4) {
        srv = __mv_socket_engine__udp4_start_socket("127.0.0.1", port, onServerDatagram);
    } else {
        srv = __mv_socket_engine_create_server_socket(nullptr, 6, MV_TRANSPORT_UDP, port, 0, nullptr, nullptr);
        srv->OnUdpPacketReceive = onServerDatagram;
        __mv_socket_engine_start_server_socket(srv);
    }
    ASSERT_TRUE(kst::waitFor([&] { return srv->isActive == 1; }, 3));
    EXPECT_EQ(__mv_socket_engine_udp_send_socket_data(srv, "x", 1, 0), -1) << "a host socket has no peer";

    MV_Socket* cli = __mv_socket_engine_create_client_socket(v == 6 ? "::1" : "127.0.0.1", v, MV_TRANSPORT_UDP, port,
                                                             0, nullptr);
    cli->OnUdpPacketReceive = onClientDatagram;
    ASSERT_TRUE(kst::waitFor([&] { return cli->isConnected == 1; }, 3));
    EXPECT_EQ(cli->ai_family, v == 6 ? AF_INET6 : AF_INET);
    for (int i = 0; i < 20; ++i) {
        std::string m = "m" + std::to_string(i);
        ASSERT_EQ(cli->Send(cli, m.data(), int(m.size()), 0), int(m.size()));
    }
    ASSERT_TRUE(kst::waitFor(
        [&] {
            std::lock_guard g(udpLock);
            return clientGot.size() == 20;
        },
        5));
    std::lock_guard g(udpLock);
    EXPECT_EQ(serverGot.size(), 20u);
    EXPECT_EQ(udpThreads, std::set<std::string>{"mv-q-exec"});
    std::set<std::string> replies(clientGot.begin(), clientGot.end());
    EXPECT_TRUE(replies.count("re:m0") && replies.count("re:m19"));
    MV_SocketPoolCounts after = __mv_socket_engine_udp_pool_counts();
    EXPECT_EQ(after.Total - after.Available, before.Total - before.Available) << "datagram buffers not given back";
}

INSTANTIATE_TEST_SUITE_P(Family, Udp, ::testing::Values(4, 6), [](const auto& i) {
    return "IPv" + std::to_string(i.param);
});

std::atomic<int> plainDatagrams{0};
void countDatagram(MV_SocketUdpBuffer* b) {
    ++plainDatagrams;
    __mv_socket_engine_release_socket_udp_buffer(b);
}

TEST(UdpSend, UnusableAddressAndBareDescriptor) {
    int port = kse::freePort(SOCK_DGRAM);
    MV_Socket* srv = __mv_socket_engine__udp4_start_socket("127.0.0.1", port, countDatagram);
    ASSERT_TRUE(kst::waitFor([&] { return srv->isActive == 1; }, 3));
    EXPECT_EQ(__mv_socket_engine_udp_send(srv, "not-an-ip", port, 4, "x", 1), -1000);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(__mv_socket_engine_udp_send_response(fd, reinterpret_cast<sockaddr*>(&a), sizeof a, "abc", 3), 3);
    EXPECT_TRUE(kst::waitFor([] { return plainDatagrams.load() == 1; }, 3));
    close(fd);
}

std::mutex sizesLock;
std::vector<int> datagramSizes;
void keepSize(MV_SocketUdpBuffer* b) {
    {
        std::lock_guard g(sizesLock);
        datagramSizes.push_back(b->len);
    }
    __mv_socket_engine_release_socket_udp_buffer(b);
}

// A control-plane answer larger than an Ethernet frame arrives whole; one larger than a buffer
// is dropped and counted rather than handed on cut short.
TEST(UdpReceive, DatagramsLargerThanAFrameArriveWholeAndOversizedOnesAreDropped) {
    int port = kse::freePort(SOCK_DGRAM);
    MV_Socket* srv = __mv_socket_engine__udp4_start_socket("127.0.0.1", port, keepSize);
    ASSERT_TRUE(kst::waitFor([&] { return srv->isActive == 1; }, 3));
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(uint16_t(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::vector<uint8_t> big(60000, 0x21);
    for (int n : {4000, 60000, MV_SOCKET_UDP_BUFFER_SIZE, 1600})
        ASSERT_EQ(sendto(fd, big.data(), size_t(n), 0, reinterpret_cast<sockaddr*>(&a), sizeof a), n);
    EXPECT_TRUE(kst::waitFor([] {
        std::lock_guard g(sizesLock);
        return datagramSizes.size() == 3;
    }, 5));
    EXPECT_TRUE(kst::waitFor([&] { return srv->TruncatedDatagrams.load() == 1; }, 5));
    std::lock_guard g(sizesLock);
    std::multiset<int> got(datagramSizes.begin(), datagramSizes.end());
    EXPECT_EQ(got, (std::multiset<int>{1600, 4000, MV_SOCKET_UDP_BUFFER_SIZE}));
    close(fd);
}

// ---------------------------------------------------------------- engine-wide pieces

TEST(Streams, RoundRobinOverThePeersOutboundStreams) {
    struct Case {
        uint16_t peerMax;
        int skipzero;
        std::vector<uint16_t> want;
    };
    const Case cases[] = {
        {3, 0, {1, 2, 0, 1, 2}},
        {1, 0, {0, 0, 0}},
        {1, 1, {1, 1}},
        {16, 1, {1, 2, 3}},
        {3, 1, {1, 2, 1, 2}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "peer_max_o_streams=" << c.peerMax << " skipzero=" << c.skipzero);
        MV_Socket s;
        s.peer_max_o_streams = c.peerMax;
        s.last_o_streams = 0;
        std::vector<uint16_t> got;
        for (size_t i = 0; i < c.want.size(); ++i) got.push_back(__mv_socket_sctp_next_streamid(c.skipzero, &s));
        EXPECT_EQ(got, c.want);
    }
}

std::atomic<int> sctpCloses{0};
void countSctpClose(MV_Socket*) { ++sctpCloses; }

MV_Socket* connectedLookingSctpSocket() {
    MV_SctpSocketInfo info{};
    info.ipCount = 1;
    info.ipVersion = 4;
    snprintf(info.IP[0], sizeof info.IP[0], "127.0.0.1");
    info.UseEPoll = 2;
    info.PPID = 60;
    MV_Socket* s = __mv_socket_engine_create_sctp_client_socket(&info);
    // No association behind it: fd 0 keeps the close away from any stack, and the
    // reconnection thread leaves sockets alone whose reconnect is disabled.
    s->disableClientAutoReConnect = 1;
    s->isActive = 1;
    s->isConnected = 1;
    s->OnClose = countSctpClose;
    return s;
}

TEST(SctpNotifications, UnknownTypeClosesOnlyAtTheEleventh) {
    for (int model : {0, 1, 2}) {
        SCOPED_TRACE(testing::Message() << "UseEPoll " << model);
        sctpCloses = 0;
        MV_Socket* s = connectedLookingSctpSocket();
        MV_SctpRecvInfo info{};
        info.snType = 32790;
        for (int i = 1; i <= 10; ++i) EXPECT_EQ(__mv_socket_engine___sctp_on_notification(s, info, 8, model), 0) << i;
        EXPECT_EQ(s->isActive.load(), 1);
        EXPECT_EQ(__mv_socket_engine___sctp_on_notification(s, info, 8, model), 1);
        EXPECT_EQ(s->isActive.load(), 0);
        EXPECT_EQ(sctpCloses.load(), 1);
    }
    std::string log = kse::stackLog();
    EXPECT_NE(log.find("Unknown Event Received 32790 with len=8"), std::string::npos);
    EXPECT_NE(log.find("SCTP unknownNotification=11 exceeded closing=1"), std::string::npos);
}

TEST(SctpNotifications, AssociationChangeStoresStreamsAndClosingEventsFireOnCloseOnce) {
    MV_Socket* s = connectedLookingSctpSocket();
    MV_SctpRecvInfo assoc{};
    assoc.snType = MV_SCTP_SN_ASSOC_CHANGE;
    assoc.outStreams = 7;
    assoc.inStreams = 5;
    EXPECT_EQ(__mv_socket_engine___sctp_on_notification(s, assoc, 20, 2), 0);
    EXPECT_EQ(s->peer_max_o_streams.load(), 7);
    EXPECT_EQ(s->peer_max_i_streams.load(), 5);

    for (uint16_t type : {MV_SCTP_SN_SHUTDOWN_EVENT, MV_SCTP_SN_SEND_FAILED, MV_SCTP_SN_REMOTE_ERROR}) {
        SCOPED_TRACE(type);
        sctpCloses = 0;
        s->isActive = 1;
        s->isConnected = 1;
        s->OnCloseFired = 0;
        MV_SctpRecvInfo ev{};
        ev.snType = type;
        EXPECT_EQ(__mv_socket_engine___sctp_on_notification(s, ev, 16, 2), 1);
        // A sender seeing EPIPE on the same association closes again: no second OnClose.
        __mv_socket_engine_sctp__close_client_connection(s);
        EXPECT_EQ(sctpCloses.load(), 1);
    }
    EXPECT_EQ(__mv_socket_engine_sctp_send_ngap(s, "x", 1), -1);
    EXPECT_NE(kse::stackLog().find("sending data on not-connected sctp socket"), std::string::npos);
}

TEST(Stats, LinesGoToThePerformanceLog) {
    __mv_socket_engine_print_stats();
    std::string per = kst::readLogDir(kse::root() + "/logs//per");
    EXPECT_NE(per.find("Socket: AvailableBufferPoolCount="), std::string::npos);
    EXPECT_NE(per.find("Socket: TotalSocketsCount="), std::string::npos);
    EXPECT_NE(per.find("SCTP "), std::string::npos);
}

}  // namespace
