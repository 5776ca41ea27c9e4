// UDP: the server loop, the client's reader thread "ucsr", and the send family.
// Every datagram goes to its owner through the queue lines.
#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <shared_mutex>

#include "mv_socket_internal.h"

namespace {

int udpSend(MV_Socket* s, const void* buff, int len, int tryCount) {
    return __mv_socket_engine_udp_send_socket_data(s, buff, len, tryCount);
}
int udpConnect(MV_Socket* s) { return __mv_socket_engine_udp_connect_socket(s); }

int udpClose(MV_Socket* s) {
    int fd;
    {
        std::lock_guard g(s->CloseLock);
        if (!s->isActive && !s->isConnected) return 0;
        std::unique_lock f(s->FdLock);
        fd = s->fd.exchange(-1);
        s->isActive = 0;
        s->isConnected = 0;
        if (fd >= 0) close(fd);
    }
    ++__mv_socketEngine->SocketClosedCount;
    if (s->OnClose) s->OnClose(s);
    return 1;
}

void deliverUdp(void* data) {
    auto* b = static_cast<MV_SocketUdpBuffer*>(data);
    fn_mv_on_udp_packet cb = b->siSocket ? b->siSocket->OnUdpPacketReceive.load() : nullptr;
    if (cb) cb(b);
    else __mv_socket_engine_release_socket_udp_buffer(b);
}

// Waits on the socket's descriptor and hands each datagram on; returns when the
// descriptor is closed.
void readLoop(MV_Socket* s) {
    for (;;) {
        int fd = s->fd;
        if (fd < 0 || !s->isActive) return;
        pollfd pf{fd, POLLIN, 0};
        int r = poll(&pf, 1, 1000);
        if (r <= 0) continue;
        if (pf.revents & POLLNVAL) return;
        MV_SocketUdpBuffer* b = __mv_socket_engine_get_socket_udp_buffer();
        sockaddr_storage from{};
        socklen_t flen = sizeof from;
        ssize_t n = -1;
        {
            std::shared_lock f(s->FdLock);
            if (s->fd == fd)
                n = recvfrom(fd, b->buff, MV_SOCKET_UDP_BUFFER_SIZE, MSG_DONTWAIT | MSG_TRUNC,
                             reinterpret_cast<sockaddr*>(&from), &flen);
        }
        if (n > MV_SOCKET_UDP_BUFFER_SIZE) {
            // Cut short it would read as another, shorter message.
            ++s->TruncatedDatagrams;
            __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_ERROR, "UDP datagram of %ld octets on port %u dropped: larger than %d",
                     long(n), unsigned(s->IPPort), MV_SOCKET_UDP_BUFFER_SIZE);
            __mv_socket_engine_release_socket_udp_buffer(b);
            continue;
        }
        if (n <= 0 || !s->OnUdpPacketReceive.load()) {
            __mv_socket_engine_release_socket_udp_buffer(b);
            continue;
        }
        if (from.ss_family == AF_INET6) memcpy(&b->clientaddr6, &from, sizeof b->clientaddr6);
        else memcpy(&b->clientaddr, &from, sizeof b->clientaddr);
        b->clientlen = flen;
        b->pos = 0;
        b->len = int(n);
        b->siSocket = s;
        ++s->TotalReads;
        ++s->ReceivedMessages;
        __mv_core_queue(b, deliverUdp);
    }
}

}  // namespace

void __mv_socket_engine___set_udp_operations(MV_Socket* s) {
    s->Send = udpSend;
    s->Connect = udpConnect;
    s->Close = udpClose;
    s->Read = nullptr;
    s->Accept = nullptr;
    s->AddBuffer = nullptr;
}

void __mv_socket_engine___udp_server_loop(MV_Socket* s) {
    int fd = __mv_socket_engine___server_descriptor(s, SOCK_DGRAM, "UDP", "UCP");
    sockaddr_storage addr;
    socklen_t alen;
    // IPv6 servers listen on every address.
    const char* ip = (s->IPVersion == 4 && s->IPAddressCount) ? s->IPAddresses[0].IP : nullptr;
    if (!__mv_socket_engine___make_addr(ip, s->IPVersion, int(s->IPPort), &addr, &alen) ||
        bind(fd, reinterpret_cast<sockaddr*>(&addr), alen) != 0) {
        if (s->IPVersion == 6)
            __mv_socket_engine___startup_fault("Server Bind Failed for UDP-V6 Server Socket = %d Server/Port = %d\n", fd,
                                               int(s->IPPort));
        else
            __mv_socket_engine___startup_fault("Server Bind Failed for UDP-V4 Server Socket = %d Server-IP=%s Port = %d\n",
                                               fd, ip ? ip : "", int(s->IPPort));
        exit(0);
    }
    s->fd = fd;
    s->isActive = 1;
    s->isConnected = 1;
    readLoop(s);
}

void* __mv_socket_engine___udp_client_thread(void* arg) {
    auto* s = static_cast<MV_Socket*>(arg);
    for (;;) {
        while (!s->isConnected) {
            if (__mv_socket_engine_udp_connect_socket(s) == 1) break;
            usleep(999999);
        }
        readLoop(s);
        usleep(999999);
    }
    return nullptr;
}

int __mv_socket_engine_udp_connect_socket(MV_Socket* siSocket) {
    MV_Socket* s = siSocket;
    std::lock_guard g(s->ConnectLock);
    if (s->isConnected) return 1;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* res = nullptr;
    char portText[12];
    snprintf(portText, sizeof portText, "%d", int(s->IPPort));
    int rc = getaddrinfo(s->IPAddresses[0].IP, portText, &hints, &res);
    if (rc != 0 || !res) {
        MV_SOK_LOG(__mv_socket_engine___connect_fail_level(s, 200000 + rc),
                   "getaddrinfo failed for UDP connection IP=%s Port=%d error=%d %s|%s|%d", s->IPAddresses[0].IP,
                   int(s->IPPort), rc, __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    s->ai_family = res->ai_family;
    s->cli_len = res->ai_addrlen;
    if (res->ai_family == AF_INET6) memcpy(&s->cli_addr6, res->ai_addr, sizeof s->cli_addr6);
    else memcpy(&s->cli_addr, res->ai_addr, sizeof s->cli_addr);
    freeaddrinfo(res);
    int fd = socket(s->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    bool ipSet = s->ClientIP.IP[0] && strcmp(s->ClientIP.IP, "127.0.0.1") != 0;
    if (s->ai_family == AF_INET && (ipSet || s->CIPPort)) {
        sockaddr_storage local;
        socklen_t llen;
        bool ok = __mv_socket_engine___make_addr(ipSet ? s->ClientIP.IP : nullptr, 4, int(s->CIPPort), &local, &llen) &&
                  bind(fd, reinterpret_cast<sockaddr*>(&local), llen) == 0;
        if (!ok) {
            // Sent from any other address, the datagrams would not be the ones asked for.
            int err = errno;
            MV_SOK_LOG(__mv_socket_engine___connect_fail_level(s, 100000 + err),
                       "binding udp to localip=%s port=%d failed errno=%d (%s) <%s|%s|%d>", s->ClientIP.IP,
                       int(s->CIPPort), err, strerror(err), __FILE_NAME__, __func__, __LINE__);
            close(fd);
            return -1;
        }
        MV_SOK_LOG(MV_LOG_INFO, "binding udp to localip=%s port=%d success <%s|%s|%d>", s->ClientIP.IP, int(s->CIPPort),
                   __FILE_NAME__, __func__, __LINE__);
    }
    __mv_socket_engine___connect_fail_level(s, 0);
    {
        std::unique_lock f(s->FdLock);
        s->fd = fd;
        ++s->GenId;
    }
    s->isActive = 1;
    s->isConnected = 1;
    return 1;
}

int __mv_socket_engine_udp_send(MV_Socket* siSocket, const char* ip, int port, int, const void* buff, int len) {
    if (!siSocket || siSocket->fd < 0) return -1;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(uint16_t(port));
    if (!ip || inet_pton(AF_INET, ip, &to.sin_addr) != 1) return -1000;
    std::shared_lock f(siSocket->FdLock);
    ssize_t n = sendto(siSocket->fd, buff, size_t(len), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&to), sizeof to);
    if (n > 0) ++siSocket->AfterMessageSent;
    return int(n);
}

int __mv_socket_engine_udp_send2(MV_Socket* siSocket, const sockaddr* servaddr, socklen_t slen, const void* buff,
                                 int len) {
    if (!siSocket || siSocket->fd < 0 || !servaddr) return -1;
    std::shared_lock f(siSocket->FdLock);
    ssize_t n = sendto(siSocket->fd, buff, size_t(len), MSG_DONTWAIT, servaddr, slen);
    if (n > 0) ++siSocket->AfterMessageSent;
    return int(n);
}

int __mv_socket_engine_udp_send_response(int fd, const sockaddr* saddr, socklen_t slen, const void* buff, int len) {
    return int(sendto(fd, buff, size_t(len), 0, saddr, slen));
}

int __mv_socket_engine___udp_send_gen(MV_Socket* siSocket, int genId, const void* buff, int len) {
    if (!siSocket || siSocket->isHost || siSocket->fd < 1) return -1;
    const sockaddr* to = siSocket->ai_family == AF_INET6 ? reinterpret_cast<const sockaddr*>(&siSocket->cli_addr6)
                                                         : reinterpret_cast<const sockaddr*>(&siSocket->cli_addr);
    std::shared_lock f(siSocket->FdLock);
    if (genId >= 0 && siSocket->GenId != genId) return -ESRCH;
    ++siSocket->BeforeMessageSend;
    ssize_t n = sendto(siSocket->fd, buff, size_t(len), MSG_DONTWAIT, to, siSocket->cli_len);
    if (n > 0) ++siSocket->AfterMessageSent;
    return int(n);
}

int __mv_socket_engine_udp_send_socket_data(MV_Socket* siSocket, const void* buff, int len, int) {
    return __mv_socket_engine___udp_send_gen(siSocket, -1, buff, len);
}
