// core_answerer: the answerer as a process. SCTP through the socket engine (userspace
// stack, raw IP or inside UDP), control lines on standard input and optionally a UDP
// port, the counters on SIGUSR1 and at the end.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

#include "ca_amf.h"
#include "mv_bytes.h"
#include "mv_sctp_backend.h"
#include "mv_socket_engine.h"
#include "mvalgo.h"

#ifndef CA_DEFAULT_SUBSCRIBERS
#define CA_DEFAULT_SUBSCRIBERS "config/data/uel.json"
#endif

namespace {

ca::Amf* g_amf = nullptr;
bool g_bundle = false;
std::mutex g_out;
std::atomic<bool> g_quit{false};

void say(const std::string& s) {
    if (s.empty()) return;
    std::lock_guard g(g_out);
    fputs(s.c_str(), stdout);
    fflush(stdout);
}

void onBuffer(MV_SocketSCTPBuffer* b) {
    if (g_amf && b->siSocket && b->len > b->pos)
        g_amf->onMessage(b->siSocket, b->streamId,
                         std::span<const uint8_t>(b->buff + b->pos, size_t(b->len - b->pos)));
    __mv_socket_engine_release_sctp_socket_buffer(b);
}

void onClose(MV_Socket* s) {
    if (g_amf) g_amf->onClose(s);
}

void onAccept(MV_Socket* child, MV_Socket*) {
    child->OnBufferReceive = onBuffer;
    child->OnClose = onClose;
    // Under load, messages waiting for an acknowledgement go out together in one packet.
    if (g_bundle) __mv_sctp_backend()->SetNoDelay(child->fd, 0);
    char ip[64] = "";
    int port = 0;
    __mv_socket_engine__get_client_ip_port(child, ip, &port);
    if (g_amf) g_amf->onAccept(child, std::string(ip) + ":" + std::to_string(port));
}

// Answers one control line through `reply`; "quit" ends the process after the answer.
template <class Reply>
void controlLine(const std::string& line, Reply&& reply) {
    bool quit = false;
    reply(g_amf->control(line, &quit));
    if (quit) {
        g_quit = true;
        kill(getpid(), SIGTERM);
    }
}

void stdinLoop() {
    std::string line;
    while (!g_quit && std::getline(std::cin, line)) controlLine(line, say);
}

void udpLoop(int fd) {
    char buf[2048];
    while (!g_quit) {
        sockaddr_storage from{};
        socklen_t len = sizeof from;
        ssize_t n = recvfrom(fd, buf, sizeof buf - 1, 0, reinterpret_cast<sockaddr*>(&from), &len);
        if (n <= 0) continue;
        controlLine(std::string(buf, size_t(n)), [&](std::string answer) {
            if (answer.empty()) answer = "OK\n";
            if (sendto(fd, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&from), len) < 0) {
            }
        });
    }
}

int udpControl(const std::string& ip, int port) {
    sockaddr_storage a{};
    socklen_t len;
    int family = ip.find(':') != std::string::npos ? AF_INET6 : AF_INET;
    if (family == AF_INET) {
        auto* a4 = reinterpret_cast<sockaddr_in*>(&a);
        a4->sin_family = AF_INET;
        a4->sin_port = htons(uint16_t(port));
        if (inet_pton(AF_INET, ip.c_str(), &a4->sin_addr) != 1) return -1;
        len = sizeof *a4;
    } else {
        auto* a6 = reinterpret_cast<sockaddr_in6*>(&a);
        a6->sin6_family = AF_INET6;
        a6->sin6_port = htons(uint16_t(port));
        if (inet_pton(AF_INET6, ip.c_str(), &a6->sin6_addr) != 1) return -1;
        len = sizeof *a6;
    }
    int fd = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), len) != 0) {
        if (fd >= 0) close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    ca::Options o;
    std::string err;
    if (!ca::parseOptions(argc, argv, o, err)) {
        bool help = err == ca::usageText();
        fprintf(help ? stdout : stderr, "%s%s", err.c_str(), help ? "" : "\n");
        return help ? 0 : 2;
    }
    // Signals go to the main thread's sigwait alone: block them before any thread starts.
    sigset_t sigs;
    sigemptyset(&sigs);
    sigaddset(&sigs, SIGUSR1);
    sigaddset(&sigs, SIGTERM);
    sigaddset(&sigs, SIGINT);
    pthread_sigmask(SIG_BLOCK, &sigs, nullptr);

    ca::Subscribers subs;
    std::string path = o.subscribers;
    if (path.empty()) path = access("config/data/uel.json", R_OK) == 0 ? "config/data/uel.json" : CA_DEFAULT_SUBSCRIBERS;
    if (!subs.load(path, o.sqn, err)) {
        fprintf(stderr, "core_answerer: %s\n", err.c_str());
        return 2;
    }

    __mv_mkpath(o.logDir.c_str(), 0755);
    __init_morva_core();
    __mv_init_logger(o.logDir.c_str());
    __mv_set_log_level(MV_APP_LOG, uint32_t(o.logLevel));
    __mv_set_log_level(MV_STK_LOG, uint32_t(o.logLevel < MV_LOG_WARNING ? o.logLevel : MV_LOG_WARNING));
    if (__mv_ogs_init_crypto_fun() != 0) {
        fprintf(stderr, "core_answerer: the crypto library is not usable (OpenSSL)\n");
        return 2;
    }
    __mv_socket_engine_init();
    __mv_socket_engine__set_sctp_backend2("userspace", o.sctpUdpPort, o.sctpUdpRemotePort);

    ca::Counters counters;
    ca::Knobs knobs;
    ca::Timers timers;
    ca::Transport t;
    t.send = [](ca::AssocKey a, uint16_t stream, const uint8_t* p, size_t n) {
        return __mv_socket_engine_sctp_send_ngap2(const_cast<MV_Socket*>(static_cast<const MV_Socket*>(a)), p, int(n),
                                                  stream);
    };
    t.close = [](ca::AssocKey a) {
        __mv_socket_engine_sctp__close_client_connection(const_cast<MV_Socket*>(static_cast<const MV_Socket*>(a)));
    };
    static ca::Amf amf(o, subs, counters, knobs, timers, t);
    if (!amf.init(err)) {
        fprintf(stderr, "core_answerer: %s\n", err.c_str());
        return 2;
    }
    g_amf = &amf;
    g_bundle = o.sctpBundle;
    timers.start();

    MV_SctpSocketInfo info{};
    info.ipCount = int(o.bind.size() < 4 ? o.bind.size() : 4);
    for (int i = 0; i < info.ipCount; ++i) snprintf(info.IP[i], sizeof info.IP[i], "%s", o.bind[size_t(i)].c_str());
    info.ipVersion = o.bind[0].find(':') != std::string::npos ? 6 : 4;
    info.Port = o.port;
    info.PPID = ca::kNgapPpid;
    info.UseEPoll = 1;
    info.MaxOStreams = info.MaxIStreams = 16;
    MV_Socket* srv = __mv_socket_engine_create_sctp_server_socket(&info);
    if (!srv) {
        fprintf(stderr, "core_answerer: no SCTP server on %s port %d (root is needed for SCTP on raw IP)\n",
                o.bind[0].c_str(), o.port);
        return 2;
    }
    srv->OnAccept = onAccept;
    srv->OnBufferReceive = onBuffer;
    srv->OnClose = onClose;
    if (__mv_socket_engine_start_server_socket(srv) != 1) {
        fprintf(stderr, "core_answerer: the SCTP server on %s port %d did not start\n", o.bind[0].c_str(), o.port);
        return 2;
    }
    for (int i = 0; i < 500 && !srv->isActive; ++i) usleep(10000);
    if (!srv->isActive) {
        fprintf(stderr, "core_answerer: the SCTP server on %s port %d is not listening\n", o.bind[0].c_str(), o.port);
        return 2;
    }
    int udp = -1;
    if (o.controlPort && (udp = udpControl(o.bind[0], o.controlPort)) < 0) {
        fprintf(stderr, "core_answerer: no UDP control port %d on %s\n", o.controlPort, o.bind[0].c_str());
        return 2;
    }
    say("READY " + o.bind[0] + " port " + std::to_string(o.port) + " subscribers " + std::to_string(subs.count()) +
        " from " + path + "\n");
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "core answerer ready on %s port %d, %zu subscribers <%s|%s|%d>",
             o.bind[0].c_str(), o.port, subs.count(), __FILE_NAME__, __func__, __LINE__);
    if (o.stdinControl) std::thread(stdinLoop).detach();
    if (udp >= 0) std::thread(udpLoop, udp).detach();

    for (;;) {
        int sig = 0;
        if (sigwait(&sigs, &sig) != 0) continue;
        if (sig == SIGUSR1) {
            say(counters.text());
            continue;
        }
        break;
    }
    g_quit = true;
    say(amf.summary() + counters.text());
    // The socket engine's threads run to the end of the process; leave without
    // tearing down what they use.
    _exit(0);
}
