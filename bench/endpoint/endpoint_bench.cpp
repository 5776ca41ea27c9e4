// The socket engine against the plainest loop of the same transport, in the same
// run: round trips (latency) and pipelined messages (rate), 100 and 1400 bytes, one
// connection and several. SCTP runs on the userspace stack in a private network
// namespace (root only); without root those benchmarks report an error and the rest run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>
#include <usrsctp.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "mv_sctp_backend.h"
#include "mv_socket_engine.h"

namespace {

bool inPrivateNetns = false;

// Waiters sleep on the counters (futex), as the plain loops sleep in read.
struct Counter {
    std::atomic<long> bytes{0};
    std::atomic<long> messages{0};
};
void bump(std::atomic<long>& v, long n) {
    v.fetch_add(n, std::memory_order_release);
    v.notify_all();
}

// ---------------------------------------------------------------- engine ends

void tcpEcho(MV_Socket* s) {
    uint8_t buf[16384];
    int n;
    while ((n = __mv_socket_engine_tcp_get_buffer(s, buf, sizeof buf)) > 0) {
        if (s->parentData1) bump(static_cast<Counter*>(s->parentData1)->bytes, n);
        else __mv_socket_engine_tcp_send_socket_data(s, buf, n, 0);
    }
    __mv_socket_engine_tcp_release_used_buffer(s);
}

// A server child echoes; a server with a counter only counts (the rate runs).
Counter* sinkCounter = nullptr;
void tcpAcceptSink(MV_Socket* child, MV_Socket*) { child->parentData1 = sinkCounter; }
void tcpAcceptEcho(MV_Socket* child, MV_Socket*) { child->parentData1 = nullptr; }

// A socket bound to a free loopback port, whose address lands in a.
int boundLoopback(int type, sockaddr_in* a) {
    int fd = socket(AF_INET, type, 0);
    *a = sockaddr_in{};
    a->sin_family = AF_INET;
    a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof *a;
    bind(fd, reinterpret_cast<sockaddr*>(a), len);
    getsockname(fd, reinterpret_cast<sockaddr*>(a), &len);
    return fd;
}

int freePort(int type) {
    sockaddr_in a;
    close(boundLoopback(type, &a));
    return ntohs(a.sin_port);
}

void waitAtLeast(std::atomic<long>& v, long target) {
    for (long now = v.load(std::memory_order_acquire); now < target; now = v.load(std::memory_order_acquire))
        v.wait(now, std::memory_order_acquire);
}

void setup() {
    static bool done = false;
    if (done) return;
    done = true;
    // A private namespace with its own loopback keeps the userspace stack away from
    // every other SCTP speaker of the host.
    if (geteuid() == 0 && unshare(CLONE_NEWNET) == 0 && system("ip link set lo up") == 0) inPrivateNetns = true;
    __init_morva_core();
    __mv_init_logger("/tmp/ks_bench_endpoint/");
    __mv_socket_engine_init();
    __mv_socket_engine_start();
}

MV_Socket* engineTcpServer(bool sink) {
    int port = freePort(SOCK_STREAM);
    MV_Socket* srv = __mv_socket_engine_create_server_socket("127.0.0.1", 4, MV_TRANSPORT_TCP, port, 0, nullptr, nullptr);
    srv->OnAccept = sink ? tcpAcceptSink : tcpAcceptEcho;
    srv->OnBufferReceive = tcpEcho;
    __mv_socket_engine_start_server_socket(srv);
    return srv;
}

MV_Socket* engineTcpClient(MV_Socket* srv, Counter* c) {
    MV_Socket* cli = __mv_socket_engine_create_client_socket("127.0.0.1", 4, MV_TRANSPORT_TCP, int(srv->IPPort), 0, nullptr);
    cli->parentData1 = c;
    cli->OnBufferReceive = tcpEcho;
    cli->Connect(cli);
    return cli;
}

// ---------------------------------------------------------------- TCP

void BM_TcpEngineRoundTrip(benchmark::State& st) {
    setup();
    size_t size = size_t(st.range(0));
    static MV_Socket* srv = engineTcpServer(false);
    Counter c;
    MV_Socket* cli = engineTcpClient(srv, &c);
    std::string msg(size, 'm');
    long want = 0;
    for (auto _ : st) {
        cli->Send(cli, msg.data(), int(size), 0);
        want += long(size);
        waitAtLeast(c.bytes, want);
    }
    st.SetItemsProcessed(st.iterations());
    cli->Close(cli);
}

void BM_TcpPlainRoundTrip(benchmark::State& st) {
    setup();
    size_t size = size_t(st.range(0));
    sockaddr_in a{};
    socklen_t len = sizeof a;
    int lfd = boundLoopback(SOCK_STREAM, &a);
    listen(lfd, 1);
    std::thread echo([&] {
        int c = accept(lfd, nullptr, nullptr);
        int on = 1;
        setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        char buf[16384];
        ssize_t n;
        while ((n = read(c, buf, sizeof buf)) > 0)
            if (write(c, buf, size_t(n)) != n) break;
        close(c);
    });
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    connect(fd, reinterpret_cast<sockaddr*>(&a), len);
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::string msg(size, 'm');
    std::vector<char> in(size);
    for (auto _ : st) {
        if (write(fd, msg.data(), size) != ssize_t(size)) break;
        size_t got = 0;
        while (got < size) {
            ssize_t n = read(fd, in.data() + got, size - got);
            if (n <= 0) break;
            got += size_t(n);
        }
    }
    st.SetItemsProcessed(st.iterations());
    close(fd);
    echo.join();
    close(lfd);
}

constexpr int kBatch = 1000;

void BM_TcpEngineRate(benchmark::State& st) {
    setup();
    size_t size = size_t(st.range(0));
    int conns = int(st.range(1));
    Counter sink;
    sinkCounter = &sink;
    MV_Socket* srv = engineTcpServer(true);
    std::vector<MV_Socket*> clients;
    for (int i = 0; i < conns; ++i) clients.push_back(engineTcpClient(srv, nullptr));
    std::string msg(size, 'r');
    long want = 0;
    for (auto _ : st) {
        for (int i = 0; i < kBatch; ++i) {
            MV_Socket* cli = clients[size_t(i % conns)];
            cli->Send(cli, msg.data(), int(size), 0);
        }
        want += long(size) * kBatch;
        waitAtLeast(sink.bytes, want);
    }
    st.SetItemsProcessed(st.iterations() * kBatch);
    for (MV_Socket* c : clients) c->Close(c);
}

// The CPU a sender spends in one Send, with the receiver keeping up: the part of the
// path that is the engine's own (the rate runs above are bound by their threads'
// turns on a busy machine). Manual time: the sending thread's CPU clock over a batch.
void BM_TcpEngineSendCost(benchmark::State& st) {
    setup();
    size_t size = size_t(st.range(0));
    Counter sink;
    sinkCounter = &sink;
    MV_Socket* srv = engineTcpServer(true);
    MV_Socket* cli = engineTcpClient(srv, nullptr);
    std::string msg(size, 'c');
    long want = 0;
    for (auto _ : st) {
        timespec t0, t1;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t0);
        for (int i = 0; i < kBatch; ++i) cli->Send(cli, msg.data(), int(size), 0);
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t1);
        st.SetIterationTime(double(t1.tv_sec - t0.tv_sec) + double(t1.tv_nsec - t0.tv_nsec) * 1e-9);
        want += long(size) * kBatch;
        waitAtLeast(sink.bytes, want);
    }
    st.SetItemsProcessed(st.iterations() * kBatch);
    cli->Close(cli);
}

void BM_TcpPlainRate(benchmark::State& st) {
    setup();
    size_t size = size_t(st.range(0));
    int conns = int(st.range(1));
    sockaddr_in a{};
    socklen_t len = sizeof a;
    int lfd = boundLoopback(SOCK_STREAM, &a);
    listen(lfd, 64);
    std::atomic<long> got{0};
    std::vector<std::thread> readers;
    std::vector<int> fds;
    for (int i = 0; i < conns; ++i) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        connect(fd, reinterpret_cast<sockaddr*>(&a), len);
        int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        fds.push_back(fd);
        int c = accept(lfd, nullptr, nullptr);
        readers.emplace_back([c, &got] {
            char buf[65536];
            ssize_t n;
            while ((n = read(c, buf, sizeof buf)) > 0) bump(got, n);
            close(c);
        });
    }
    std::string msg(size, 'r');
    long want = 0;
    for (auto _ : st) {
        for (int i = 0; i < kBatch; ++i)
            if (write(fds[size_t(i % conns)], msg.data(), size) != ssize_t(size)) break;
        want += long(size) * kBatch;
        waitAtLeast(got, want);
    }
    st.SetItemsProcessed(st.iterations() * kBatch);
    for (int fd : fds) close(fd);
    for (auto& t : readers) t.join();
    close(lfd);
}

// ---------------------------------------------------------------- UDP

Counter udpReplies;
void udpServerEcho(MV_SocketUdpBuffer* b) {
    __mv_socket_engine_udp_send2(b->siSocket, reinterpret_cast<sockaddr*>(&b->clientaddr), b->clientlen, b->buff,
                                 b->len);
    __mv_socket_engine_release_socket_udp_buffer(b);
}
void udpClientCount(MV_SocketUdpBuffer* b) {
    bump(udpReplies.messages, 1);
    __mv_socket_engine_release_socket_udp_buffer(b);
}

void BM_UdpEngineRoundTrip(benchmark::State& st) {
    setup();
    size_t size = size_t(st.range(0));
    int port = freePort(SOCK_DGRAM);
    static MV_Socket* srv = nullptr;
    static int srvPort = 0;
    if (!srv) {
        srvPort = port;
        srv = __mv_socket_engine__udp4_start_socket("127.0.0.1", srvPort, udpServerEcho);
    }
    MV_Socket* cli = __mv_socket_engine_create_client_socket("127.0.0.1", 4, MV_TRANSPORT_UDP, srvPort, 0, nullptr);
    cli->OnUdpPacketReceive = udpClientCount;
    while (!cli->isConnected) usleep(1000);
    std::string msg(size, 'u');
    long base = udpReplies.messages;
    long want = base;
    for (auto _ : st) {
        cli->Send(cli, msg.data(), int(size), 0);
        ++want;
        waitAtLeast(udpReplies.messages, want);
    }
    st.SetItemsProcessed(st.iterations());
    cli->Close(cli);
}

void BM_UdpPlainRoundTrip(benchmark::State& st) {
    setup();
    size_t size = size_t(st.range(0));
    sockaddr_in a{};
    socklen_t len = sizeof a;
    int sfd = boundLoopback(SOCK_DGRAM, &a);
    std::atomic<bool> stop{false};
    std::thread echo([&] {
        char buf[2048];
        sockaddr_in from{};
        socklen_t flen = sizeof from;
        while (!stop) {
            ssize_t n = recvfrom(sfd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &flen);
            if (n > 0) sendto(sfd, buf, size_t(n), 0, reinterpret_cast<sockaddr*>(&from), flen);
        }
    });
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    connect(fd, reinterpret_cast<sockaddr*>(&a), len);
    std::string msg(size, 'u');
    char in[2048];
    for (auto _ : st) {
        if (send(fd, msg.data(), size, 0) != ssize_t(size)) break;
        if (recv(fd, in, sizeof in, 0) <= 0) break;
    }
    st.SetItemsProcessed(st.iterations());
    stop = true;
    send(fd, "x", 1, 0);
    echo.join();
    close(fd);
    close(sfd);
}

// ---------------------------------------------------------------- SCTP

Counter sctpCount;
std::atomic<int> sctpConnected{0};
void sctpOnConnected(MV_Socket*) { ++sctpConnected; }
void sctpClientCount(MV_SocketSCTPBuffer* b) {
    bump(sctpCount.messages, 1);
    __mv_socket_engine_release_sctp_socket_buffer(b);
}
std::atomic<bool> sctpServerSinks{false};
void sctpServerEcho(MV_SocketSCTPBuffer* b) {
    if (sctpServerSinks) bump(sctpCount.messages, 1);
    else __mv_socket_engine_sctp_send2(b->siSocket, b->buff, b->len, b->streamId, 0);
    __mv_socket_engine_release_sctp_socket_buffer(b);
}

MV_Socket* sctpServer() {
    static MV_Socket* srv = nullptr;
    if (srv) return srv;
    MV_SctpSocketInfo info{};
    info.ipVersion = 4;
    info.ipCount = 1;
    snprintf(info.IP[0], sizeof info.IP[0], "127.0.0.1");
    info.Port = 38412;
    info.PPID = 60;
    info.UseEPoll = 1;
    info.MaxOStreams = info.MaxIStreams = 16;
    srv = __mv_socket_engine_create_sctp_server_socket(&info);
    srv->OnBufferReceive = sctpServerEcho;
    __mv_socket_engine_start_server_socket(srv);
    return srv;
}

MV_Socket* sctpClient() {
    MV_SctpSocketInfo info{};
    info.ipVersion = 4;
    info.ipCount = 1;
    snprintf(info.IP[0], sizeof info.IP[0], "127.0.0.1");
    info.RemotePort = 38412;
    info.RemoteIpCount = 1;
    snprintf(info.RemoteIP[0], sizeof info.RemoteIP[0], "127.0.0.1");
    info.PPID = 60;
    info.UseEPoll = 2;
    info.MaxOStreams = info.MaxIStreams = 16;
    MV_Socket* cli = __mv_socket_engine_create_sctp_client_socket(&info);
    cli->OnBufferReceive = sctpClientCount;
    cli->OnConnected = sctpOnConnected;
    int before = sctpConnected;
    __mv_socket_engine_sctp_client_socket_start_read_thread(cli);
    for (int i = 0; i < 500 && sctpConnected == before; ++i) usleep(10000);
    return cli;
}

bool sctpReady(benchmark::State& st) {
    if (!inPrivateNetns) {
        st.SkipWithError("needs root for a private network namespace and raw SCTP sockets");
        return false;
    }
    return true;
}

void BM_SctpEngineRoundTrip(benchmark::State& st) {
    setup();
    if (!sctpReady(st)) return;
    size_t size = size_t(st.range(0));
    sctpServerSinks = false;
    sctpServer();
    MV_Socket* cli = sctpClient();
    std::string msg(size, 's');
    long want = sctpCount.messages;
    for (auto _ : st) {
        __mv_socket_engine_sctp_send_ngap(cli, msg.data(), int(size));
        ++want;
        waitAtLeast(sctpCount.messages, want);
    }
    st.SetItemsProcessed(st.iterations());
    cli->disableClientAutoReConnect = 1;
    __mv_socket_engine_sctp__close_client_connection(cli);
}

void BM_SctpEngineRate(benchmark::State& st) {
    setup();
    if (!sctpReady(st)) return;
    size_t size = size_t(st.range(0));
    int conns = int(st.range(1));
    sctpServerSinks = true;
    sctpServer();
    std::vector<MV_Socket*> clients;
    for (int i = 0; i < conns; ++i) clients.push_back(sctpClient());
    std::string msg(size, 's');
    long want = sctpCount.messages;
    for (auto _ : st) {
        for (int i = 0; i < kBatch; ++i) {
            MV_Socket* cli = clients[size_t(i % conns)];
            __mv_socket_engine_sctp_send_ngap(cli, msg.data(), int(size));
        }
        want += kBatch;
        waitAtLeast(sctpCount.messages, want);
    }
    st.SetItemsProcessed(st.iterations() * kBatch);
    for (MV_Socket* c : clients) {
        c->disableClientAutoReConnect = 1;
        __mv_socket_engine_sctp__close_client_connection(c);
    }
}

// The sender's CPU per NGAP send on one association, as for TCP above.
void BM_SctpEngineSendCost(benchmark::State& st) {
    setup();
    if (!sctpReady(st)) return;
    size_t size = size_t(st.range(0));
    sctpServerSinks = true;
    sctpServer();
    MV_Socket* cli = sctpClient();
    std::string msg(size, 's');
    long want = sctpCount.messages;
    for (auto _ : st) {
        timespec t0, t1;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t0);
        for (int i = 0; i < kBatch; ++i) __mv_socket_engine_sctp_send_ngap(cli, msg.data(), int(size));
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t1);
        st.SetIterationTime(double(t1.tv_sec - t0.tv_sec) + double(t1.tv_nsec - t0.tv_nsec) * 1e-9);
        want += kBatch;
        waitAtLeast(sctpCount.messages, want);
    }
    st.SetItemsProcessed(st.iterations() * kBatch);
    cli->disableClientAutoReConnect = 1;
    __mv_socket_engine_sctp__close_client_connection(cli);
}

// The plainest loop on the same stack: blocking sockets, one reader thread.
struct PlainSctp {
    struct socket* listener = nullptr;
    std::vector<struct socket*> clients;
    std::vector<std::thread> readers;
    std::atomic<long> got{0};
    bool echo;

    PlainSctp(int conns, bool echoBack) : echo(echoBack) {
        __mv_sctp_backend();  // starts the stack
        listener = usrsctp_socket(AF_INET, SOCK_STREAM, IPPROTO_SCTP, nullptr, nullptr, 0, nullptr);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        static uint16_t port = 38500;
        a.sin_port = htons(port++);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        usrsctp_bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a);
        usrsctp_listen(listener, 16);
        for (int i = 0; i < conns; ++i) {
            struct socket* c = usrsctp_socket(AF_INET, SOCK_STREAM, IPPROTO_SCTP, nullptr, nullptr, 0, nullptr);
            int on = 1;
            usrsctp_setsockopt(c, IPPROTO_SCTP, SCTP_NODELAY, &on, sizeof on);
            usrsctp_connect(c, reinterpret_cast<sockaddr*>(&a), sizeof a);
            clients.push_back(c);
            struct socket* s = usrsctp_accept(listener, nullptr, nullptr);
            usrsctp_setsockopt(s, IPPROTO_SCTP, SCTP_NODELAY, &on, sizeof on);
            readers.emplace_back([this, s] {
                char buf[5000];
                for (;;) {
                    sctp_rcvinfo rcv{};
                    socklen_t il = sizeof rcv;
                    unsigned int it = 0;
                    int flags = 0;
                    ssize_t n = usrsctp_recvv(s, buf, sizeof buf, nullptr, nullptr, &rcv, &il, &it, &flags);
                    if (n <= 0) break;
                    if (echo) {
                        sctp_sndinfo si{};
                        si.snd_ppid = htonl(60);
                        usrsctp_sendv(s, buf, size_t(n), nullptr, 0, &si, sizeof si, SCTP_SENDV_SNDINFO, 0);
                    } else {
                        bump(got, 1);
                    }
                }
                usrsctp_close(s);
            });
        }
    }
    ~PlainSctp() {
        for (struct socket* c : clients) usrsctp_shutdown(c, SHUT_RDWR);
        for (auto& t : readers) t.join();
        for (struct socket* c : clients) usrsctp_close(c);
        usrsctp_close(listener);
    }
    void send(size_t i, const std::string& msg) {
        sctp_sndinfo si{};
        si.snd_ppid = htonl(60);
        usrsctp_sendv(clients[i], msg.data(), msg.size(), nullptr, 0, &si, sizeof si, SCTP_SENDV_SNDINFO, 0);
    }
    void recv(size_t i) {
        char buf[5000];
        sctp_rcvinfo rcv{};
        socklen_t il = sizeof rcv;
        unsigned int it = 0;
        int flags = 0;
        usrsctp_recvv(clients[i], buf, sizeof buf, nullptr, nullptr, &rcv, &il, &it, &flags);
    }
};

void BM_SctpPlainRoundTrip(benchmark::State& st) {
    setup();
    if (!sctpReady(st)) return;
    size_t size = size_t(st.range(0));
    PlainSctp p(1, true);
    std::string msg(size, 's');
    for (auto _ : st) {
        p.send(0, msg);
        p.recv(0);
    }
    st.SetItemsProcessed(st.iterations());
}

void BM_SctpPlainRate(benchmark::State& st) {
    setup();
    if (!sctpReady(st)) return;
    size_t size = size_t(st.range(0));
    int conns = int(st.range(1));
    PlainSctp p(conns, false);
    std::string msg(size, 's');
    long want = 0;
    for (auto _ : st) {
        for (int i = 0; i < kBatch; ++i) p.send(size_t(i % conns), msg);
        want += kBatch;
        waitAtLeast(p.got, want);
    }
    st.SetItemsProcessed(st.iterations() * kBatch);
}

void sizes(benchmark::internal::Benchmark* b) { b->Arg(100)->Arg(1400)->UseRealTime(); }
void sizesConns(benchmark::internal::Benchmark* b) {
    for (int s : {100, 1400})
        for (int c : {1, 8}) b->Args({s, c});
    b->UseRealTime();
}

BENCHMARK(BM_TcpEngineRoundTrip)->Apply(sizes);
BENCHMARK(BM_TcpPlainRoundTrip)->Apply(sizes);
BENCHMARK(BM_TcpEngineRate)->Apply(sizesConns);
BENCHMARK(BM_TcpPlainRate)->Apply(sizesConns);
BENCHMARK(BM_TcpEngineSendCost)->Arg(100)->Arg(1400)->UseManualTime();
BENCHMARK(BM_UdpEngineRoundTrip)->Apply(sizes);
BENCHMARK(BM_UdpPlainRoundTrip)->Apply(sizes);
BENCHMARK(BM_SctpEngineRoundTrip)->Apply(sizes);
BENCHMARK(BM_SctpPlainRoundTrip)->Apply(sizes);
BENCHMARK(BM_SctpEngineRate)->Apply(sizesConns);
BENCHMARK(BM_SctpPlainRate)->Apply(sizesConns);
BENCHMARK(BM_SctpEngineSendCost)->Arg(100)->Arg(1400)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
