// TCP: the server loop, accepted children, the client connect, the edge-triggered
// epoll readers, the socket's byte list and the close.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "mv_socket_internal.h"

namespace {

constexpr int kEpollEvents = 20;
// An idle reader still wakes this often to visit the async write list.
constexpr int kEpollIdleMs = 11;
constexpr int kMaxTcpEpollThreads = 3;
// A peer that reads nothing may hold this much of ours before it is dropped.
constexpr long kDefaultMaxOutbound = 16L << 20;
// Buffers handed to the kernel in one call when a backlog drains.
constexpr int kDrainIov = 64;

int tcpAccept(MV_Socket* parent, int connFd, sockaddr_storage* peer, socklen_t peerLen);
int tcpSend(MV_Socket* s, const void* buff, int len, int tryCount) {
    return __mv_socket_engine_tcp_send_socket_data(s, buff, len, tryCount);
}
int tcpRead(MV_Socket* s);
int tcpClose(MV_Socket* s) { return __mv_socket_engine_tcp_close_socket(s); }
int tcpConnect(MV_Socket* s) { return __mv_socket_engine_tcp_connect_socket(s); }
int tcpAddBuffer(MV_Socket* s, MV_SocketBuffer* b);

void peerText(const sockaddr_storage* a, char* ip, size_t cap, int* port, int* version) {
    if (a->ss_family == AF_INET6) {
        auto* a6 = reinterpret_cast<const sockaddr_in6*>(a);
        inet_ntop(AF_INET6, &a6->sin6_addr, ip, socklen_t(cap));
        *port = ntohs(a6->sin6_port);
        *version = 6;
    } else {
        auto* a4 = reinterpret_cast<const sockaddr_in*>(a);
        inet_ntop(AF_INET, &a4->sin_addr, ip, socklen_t(cap));
        *port = ntohs(a4->sin_port);
        *version = 4;
    }
}

// The options every connected TCP socket gets, accepted or connected.
void setConnectedOptions(MV_Socket* s, int fd) {
    linger lg{1, 0};  // a close sends a reset
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    if (!s->TlsEnabled || s->noDelay) {
        int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL, 0) | O_NONBLOCK);
    int sndbuf = -1;  // the system's maximum
    int rc = setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
    if (rc != 0)
        MV_SOK_LOG(MV_LOG_ERROR, "unable to set SO_SNDBUF to socket withc rc=%d, error=%s, errno=%d connSocketFD=%d", rc,
                   strerror(errno), errno, fd);
}

void releaseChain(MV_SocketBuffer* b) {
    while (b) {
        MV_SocketBuffer* next = b->Next;
        __mv_socket_engine_release_socket_buffer(b);
        b = next;
    }
}

void releaseWaitingBuffers(MV_Socket* s) {
    std::lock_guard g(s->BufferLock);
    releaseChain(s->BufferHead);
    s->BufferHead = s->BufferCurrent = nullptr;
    s->BufferLength = 0;
    s->BufferPacketCount = 0;
}

// Under OutboundLock.
void dropOutbound(MV_Socket* s) {
    releaseChain(s->OutboundHead);
    s->OutboundHead = s->OutboundTail = nullptr;
    s->OutboundBytes = 0;
}

// Under OutboundLock: copies what the kernel did not take behind what already waits.
void appendOutbound(MV_Socket* s, const uint8_t* p, int len) {
    while (len > 0) {
        MV_SocketBuffer* tail = s->OutboundTail;
        if (!tail || tail->len == MV_SOCKET_BUFFER_SIZE) {
            tail = __mv_socket_engine_get_socket_buffer();
            tail->Next = nullptr;
            tail->siSocket = s;
            if (s->OutboundTail) s->OutboundTail->Next = tail;
            else s->OutboundHead = tail;
            s->OutboundTail = tail;
        }
        int n = MV_SOCKET_BUFFER_SIZE - tail->len < len ? MV_SOCKET_BUFFER_SIZE - tail->len : len;
        memcpy(tail->buff + tail->len, p, size_t(n));
        tail->len += n;
        p += n;
        len -= n;
        s->OutboundBytes += n;
    }
}

// Under OutboundLock and FdLock: hands waiting bytes to the kernel until it has no
// room. Returns 0, or the errno of a failed send.
int flushOutbound(MV_Socket* s, int fd) {
    while (s->OutboundHead) {
        iovec iov[kDrainIov];
        int count = 0;
        for (MV_SocketBuffer* b = s->OutboundHead; b && count < kDrainIov; b = b->Next, ++count) {
            iov[count].iov_base = b->buff + b->pos;
            iov[count].iov_len = size_t(b->len - b->pos);
        }
        msghdr mh{};
        mh.msg_iov = iov;
        mh.msg_iovlen = size_t(count);
        ssize_t n = sendmsg(fd, &mh, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : errno;
        }
        s->OutboundBytes -= n;
        s->TotalWrites += n;
        while (n > 0) {
            MV_SocketBuffer* b = s->OutboundHead;
            int left = b->len - b->pos;
            if (n < left) {
                b->pos += int(n);
                break;
            }
            n -= left;
            s->OutboundHead = b->Next;
            if (!s->OutboundHead) s->OutboundTail = nullptr;
            __mv_socket_engine_release_socket_buffer(b);
        }
    }
    return 0;
}

void peerOf(MV_Socket* s, char* out, size_t cap) {
    char ip[INET6_ADDRSTRLEN] = "";
    int port = 0;
    __mv_socket_engine__get_client_ip_port(s, ip, &port);
    snprintf(out, cap, "%s:%d", ip, port);
}

void visitAsyncWrites(int epollFd) {
    auto* e = __mv_socketEngine;
    // The sockets of this thread; the list lock is held for the walk alone, never
    // while buffers go back.
    std::vector<MV_Socket*> mine;
    {
        std::lock_guard g(e->SocketAyncWriteLock);
        for (MV_Socket* s = e->SocketEPollAyncWriteHead; s; s = s->SENext)
            if (s->epoll_fd == epollFd) mine.push_back(s);
    }
    for (MV_Socket* s : mine) {
        MV_SocketBuffer* b;
        {
            std::lock_guard g(s->AsyncWriteLock);
            b = s->AyncWriteBufferHead;
            s->AyncWriteBufferHead = s->AyncWriteBufferCurrent = nullptr;
        }
        // No cipher work is done here, so what was queued is given back unwritten.
        while (b) {
            MV_SocketBuffer* next = b->Next;
            __mv_socket_engine_release_socket_buffer(b);
            b = next;
        }
    }
}

void* epollThread(void* arg) {
    auto* t = static_cast<MV_SocketThread*>(arg);
    epoll_event events[kEpollEvents];
    for (;;) {
        int n = epoll_wait(t->epoll_fd, events, kEpollEvents, kEpollIdleMs);
        for (int i = 0; i < n; ++i) {
            auto* s = static_cast<MV_Socket*>(events[i].data.ptr);
            // A hang-up or error alone comes once with edge triggering: read to see it.
            if (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) s->Read(s);
            if (events[i].events & EPOLLOUT) __mv_socket_engine___tcp_drain(s);
        }
        visitAsyncWrites(t->epoll_fd);
    }
    return nullptr;
}

// Called with ThreadLock held.
MV_SocketThread* newEpollThread() {
    auto* e = __mv_socketEngine;
    auto* t = __mv_arena_new<MV_SocketThread>();
    t->is_epoll_thread = 1;
    t->epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    t->isActive = 1;
    int index = 0;
    for (MV_SocketThread* x = e->ThreadHead; x; x = x->Next) ++index;
    t->index = index;
    if (e->ThreadCurrent) e->ThreadCurrent->Next = t;
    else e->ThreadHead = t;
    e->ThreadCurrent = t;
    ++e->EPollThreadsCount;
    __mv_create_pthread2(epollThread, t, "mv_epoll");
    return t;
}

int tcpAddBuffer(MV_Socket* s, MV_SocketBuffer* b) {
    {
        std::lock_guard g(s->BufferLock);
        b->Next = nullptr;
        if (s->BufferCurrent) s->BufferCurrent->Next = b;
        else s->BufferHead = b;
        s->BufferCurrent = b;
        ++s->BufferPacketCount;
        s->BufferLength += b->len - b->pos;
    }
    if (s->ReadInProgress == 0) {
        __mv_core_queue_item_force(__mv_socketEngine->bufferQueue, s, 1);
    } else {
        int v = s->ReadSignal.load() + 1;
        s->ReadSignal = v > 10000000 ? 1 : v;
    }
    return 1;
}

int tcpRead(MV_Socket* s) {
    int icount = 0, fd, err = 0, gen;
    bool failed = false;
    {
        std::shared_lock g(s->FdLock);
        fd = s->fd;
        gen = s->GenId;
        if (!s->isActive || fd < 1) return 0;
        for (;;) {
            MV_SocketBuffer* b = __mv_socket_engine_get_socket_buffer();
            ssize_t n = read(fd, b->buff, MV_SOCKET_BUFFER_SIZE);
            if (n > 0) {
                b->pos = 0;
                b->len = int(n);
                b->siSocket = s;
                ++icount;
                ++s->TotalReads;
                if (MV_SocketThread* t = s->epollThread) {
                    ++t->TotalReads;
                    ++t->LastReads;
                }
                s->AddBuffer(s, b);
                continue;
            }
            err = errno;
            __mv_socket_engine_release_socket_buffer(b);
            // Nothing to read yet is no failure; a read of 0 closes nothing either: an
            // orderly close by the peer shows at the next failing send.
            failed = n < 0 && icount == 0 && err != EAGAIN && err != EWOULDBLOCK && err != EINTR && !s->TlsEnabled;
            break;
        }
    }
    if (failed) {
        MV_SOK_LOG(MV_LOG_ERROR,
                   "closing socket fd=%d as ReadTimes=0 isSocketErorCode=%d icount=%d errno=%d err=%s EPIPE(%d) "
                   "<%s|%s|%d>",
                   fd, __mv_socket_engine_socket_error_code(s), icount, err, strerror(err), EPIPE, __FILE_NAME__,
                   __func__, __LINE__);
        // Only the connection that failed: the record may already serve the next one.
        __mv_socket_engine___tcp_close(s, gen);
    }
    return icount;
}

int tcpAccept(MV_Socket* parent, int connFd, sockaddr_storage* peer, socklen_t peerLen) {
    MV_Socket* child;
    int gen;
    {
        std::lock_guard g(parent->ChildLock);
        child = __mv_socket_engine___take_child(parent);
        setConnectedOptions(child, connFd);
        child->TransportType = MV_TRANSPORT_TCP;
        child->TlsEnabled = parent->TlsEnabled;
        child->IPVersion = parent->IPVersion;
        child->IPPort = parent->IPPort;
        child->ai_family = peer->ss_family;
        child->cli_len = peerLen;
        if (peer->ss_family == AF_INET6) memcpy(&child->cli_addr6, peer, sizeof child->cli_addr6);
        else memcpy(&child->cli_addr, peer, sizeof child->cli_addr);
        char ip[INET6_ADDRSTRLEN];
        int port = 0, v = 4;
        peerText(peer, ip, sizeof ip, &port, &v);
        copyHost(child, ip);
        child->BufferHead = child->BufferCurrent = nullptr;
        child->BufferLength = child->BufferPacketCount = 0;
        child->ReadInProgress = 0;
        child->ReadSignal = 0;
        child->MaxOutboundBytes = parent->MaxOutboundBytes;
        __mv_socket_engine___set_tcp_operations(child);
        __mv_socket_engine___hand_child_over(parent, child, connFd, false);
        gen = child->GenId;
    }
    if (!child->StateFull) __mv_socket_engine___attach_to_epoll(child, gen);
    return 1;
}

bool resolve(const char* ip, int version, int port, int socktype, sockaddr_storage* out, socklen_t* len) {
    if (__mv_socket_engine___make_addr(ip, version, port, out, len)) return true;
    addrinfo hints{};
    hints.ai_family = version == 6 ? AF_INET6 : AF_INET;
    hints.ai_socktype = socktype;
    addrinfo* res = nullptr;
    char portText[12];
    snprintf(portText, sizeof portText, "%d", port);
    if (getaddrinfo(ip, portText, &hints, &res) != 0 || !res) return false;
    memcpy(out, res->ai_addr, res->ai_addrlen);
    *len = res->ai_addrlen;
    freeaddrinfo(res);
    return true;
}

}  // namespace

void __mv_socket_engine___set_tcp_operations(MV_Socket* s) {
    s->Accept = tcpAccept;
    s->Send = tcpSend;
    s->Read = tcpRead;
    s->Close = tcpClose;
    s->Connect = tcpConnect;
    s->AddBuffer = tcpAddBuffer;
}

void __mv_socket_engine_start() {
    auto* e = __mv_socketEngine;
    std::lock_guard g(e->ThreadLock);
    for (int i = 0; i < e->InitialEPollThreads; ++i) newEpollThread();
}

void __mv_socket_engine_attach_to_epoll(MV_Socket* siSocket) {
    __mv_socket_engine___attach_to_epoll(siSocket, siSocket->GenId);
}

void __mv_socket_engine___attach_to_epoll(MV_Socket* siSocket, int genId) {
    auto* e = __mv_socketEngine;
    // The connection may close, and its number go to another socket, before it is
    // attached: under FdLock a closed or later connection is left alone.
    std::shared_lock f(siSocket->FdLock);
    int fd = siSocket->fd;
    if (fd < 0 || siSocket->GenId != genId) return;
    MV_SocketThread* chosen = nullptr;
    std::lock_guard g(e->ThreadLock);
    int threads = 0;
    long lastReads = 0;
    for (MV_SocketThread* t = e->ThreadHead; t; t = t->Next) {
        ++threads;
        lastReads += t->LastReads;
    }
    if (threads == 0 || (threads == 2 && lastReads > 5000 && threads < kMaxTcpEpollThreads)) {
        chosen = newEpollThread();
    } else {
        for (MV_SocketThread* t = e->ThreadHead; t; t = t->Next)
            if (!chosen || t->count < chosen->count) chosen = t;
    }
    epoll_event ev{};
    // EPOLLOUT comes when a full send queue has room again: the socket's waiting bytes go then.
    ev.events = EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP | EPOLLET;
    ev.data.ptr = siSocket;
    siSocket->epollThread = chosen;
    siSocket->epoll_fd = chosen->epoll_fd;
    if (epoll_ctl(chosen->epoll_fd, EPOLL_CTL_ADD, fd, &ev) != 0) {
        siSocket->epollThread = nullptr;
        MV_SOK_LOG(MV_LOG_ERROR, "attach failed for new tcp scoket sfd=%d to epoll index=%d with efd=%d (%s|%s|%d)", fd,
                   chosen->index, chosen->epoll_fd, __FILE_NAME__, __func__, __LINE__);
        return;
    }
    ++chosen->count;
    ++e->TotalSocketsCount;
    MV_SOK_LOG(MV_LOG_INFO, "attached new tcp scoket sfd=%d to epoll index=%d with efd=%d (%s|%s|%d)", fd, chosen->index,
               chosen->epoll_fd, __FILE_NAME__, __func__, __LINE__);
}

void __mv_socket_engine___tcp_server_loop(MV_Socket* s) {
    int fd = __mv_socket_engine___server_descriptor(s, SOCK_STREAM, "TCP", "TCP");
    sockaddr_storage addr;
    socklen_t alen;
    const char* ip = s->IPAddressCount ? s->IPAddresses[0].IP : nullptr;
    if (!__mv_socket_engine___make_addr(ip, s->IPVersion, int(s->IPPort), &addr, &alen)) {
        if (s->IPVersion == 6) __mv_socket_engine___startup_fault("configured IPv6=%s Address Is Not Valid\n", ip);
        exit(0);
    }
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), alen) != 0) {
        if (s->IPVersion == 6)
            __mv_socket_engine___startup_fault("Server Bind Failed for TCP-V6 Server Socket = %d Server/Port = %d\n", fd,
                                               int(s->IPPort));
        else
            __mv_socket_engine___startup_fault("Server Bind Failed for TCP-V4 Server Socket = %d Server/Port = %d\n", fd,
                                               int(s->IPPort));
        exit(0);
    }
    if (listen(fd, 5) != 0) {
        __mv_socket_engine___startup_fault("listen() failed");
        exit(0);
    }
    s->fd = fd;
    s->isActive = 1;
    for (;;) {
        sockaddr_storage peer{};
        socklen_t plen = sizeof peer;
        int c = accept4(fd, reinterpret_cast<sockaddr*>(&peer), &plen, SOCK_CLOEXEC);
        if (c < 1) {
            MV_SOK_LOG(MV_LOG_ERROR, "accept failed with fd=%d for port=%d<%s|%s|%d>", c, int(s->IPPort), __FILE_NAME__,
                       __func__, __LINE__);
            if (c == 0) close(c);
            continue;
        }
        char ip[INET6_ADDRSTRLEN];
        int port = 0, v = 4;
        peerText(&peer, ip, sizeof ip, &port, &v);
        if (__mv_socket_engine___is_ip_allowed(ip, v, port) != 0) {
            MV_SOK_LOG(MV_LOG_ERROR, "connection rejected from ipv%d-client, fd=%d client-ip=%s port=%d <%s|%s|%d>", v, c,
                       ip, port, __FILE_NAME__, __func__, __LINE__);
            close(c);
            continue;
        }
        MV_SOK_LOG(MV_LOG_INFO, "accepted conn from ipv%d-client, fd=%d client-ip=%s port=%d <%s|%s|%d>", v, c, ip, port,
                   __FILE_NAME__, __func__, __LINE__);
        s->Accept(s, c, &peer, plen);
    }
}

// ---------------------------------------------------------------- clients

namespace {
MV_Socket* fillClient(MV_Socket* s, const char* ip, int ipversion, int transportType, int port, int tls) {
    if (!s) s = __mv_socket_engine___new_socket();
    s->TransportType = uint8_t(transportType);
    s->IPVersion = ipversion == 6 ? 6 : 4;
    s->IPPort = uint32_t(port);
    s->TlsEnabled = tls;
    s->isHost = 0;
    snprintf(s->IPAddresses[0].IP, sizeof s->IPAddresses[0].IP, "%s", ip ? ip : "");
    copyHost(s, ip ? ip : "");
    s->IPAddressCount = 1;
    if (transportType == MV_TRANSPORT_TCP) __mv_socket_engine___set_tcp_operations(s);
    else if (transportType == MV_TRANSPORT_UDP) __mv_socket_engine___set_udp_operations(s);
    return s;
}
}  // namespace

MV_Socket* __mv_socket_create_client_object(const char* ip, int ipversion, int transportType, int port, int tls,
                                            MV_Socket* cSocket) {
    return fillClient(cSocket, ip, ipversion, transportType, port, tls);
}

MV_Socket* __mv_socket_engine_create_client_socket(const char* ip, int ipversion, int transportType, int port, int tls,
                                                   MV_Socket* cSocket) {
    return __mv_socket_engine_create_client_socket2(ip, ipversion, transportType, port, tls, cSocket, nullptr, 0);
}

MV_Socket* __mv_socket_engine_create_client_socket2(const char* ip, int ipversion, int transportType, int port, int tls,
                                                    MV_Socket* cSocket, const char* cip, int cport) {
    bool fresh = cSocket == nullptr;
    MV_Socket* s = fillClient(cSocket, ip, ipversion, transportType, port, tls);
    if (cip && *cip) snprintf(s->ClientIP.IP, sizeof s->ClientIP.IP, "%s", cip);
    s->CIPPort = uint32_t(cport > 0 ? cport : 0);
    if (fresh) __mv_socket_engine___add_socket(s);
    if (transportType == MV_TRANSPORT_UDP) __mv_create_pthread2(__mv_socket_engine___udp_client_thread, s, "ucsr");
    return s;
}

int __mv_socket_engine_tcp_connect_socket(MV_Socket* siSocket) {
    MV_Socket* s = siSocket;
    int gen;
    {
        std::lock_guard g(s->ConnectLock);
        if (s->isConnected) return 1;
        if (__mv_socket_engine___ending()) return -1;
        sockaddr_storage addr;
        socklen_t alen;
        if (!resolve(s->IPAddresses[0].IP, s->IPVersion, int(s->IPPort), SOCK_STREAM, &addr, &alen)) {
            MV_SOK_LOG(__mv_socket_engine___connect_fail_level(s, EADDRNOTAVAIL),
                       "connection failed with fd=%d for ip=%s port=%d<%s|%s|%d>", -1, s->IPAddresses[0].IP,
                       int(s->IPPort), __FILE_NAME__, __func__, __LINE__);
            return -1;
        }
        int fd = socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) return -1;
        // For a TCP client these two fields name the local end; a connection from any
        // other address is not the one asked for.
        if (addr.ss_family == AF_INET && s->RemoteIPPort) {
            sockaddr_storage local;
            socklen_t llen;
            int on = 1;
            setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
            if (!__mv_socket_engine___make_addr(s->RemoteIPAddresses[0].IP, 4, int(s->RemoteIPPort), &local, &llen) ||
                bind(fd, reinterpret_cast<sockaddr*>(&local), llen) != 0) {
                int err = errno;
                MV_SOK_LOG(__mv_socket_engine___connect_fail_level(s, 100000 + err),
                           "binding tcp client to local ip=%s port=%d failed errno=%d (%s), not connecting to ip=%s "
                           "port=%d <%s|%s|%d>",
                           s->RemoteIPAddresses[0].IP, int(s->RemoteIPPort), err, strerror(err), s->IPAddresses[0].IP,
                           int(s->IPPort), __FILE_NAME__, __func__, __LINE__);
                close(fd);
                return -1;
            }
        }
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), alen) != 0) {
            int err = errno;
            MV_SOK_LOG(__mv_socket_engine___connect_fail_level(s, err),
                       "connection failed with fd=%d for ip=%s port=%d errno=%d (%s)<%s|%s|%d>", fd,
                       s->IPAddresses[0].IP, int(s->IPPort), err, strerror(err), __FILE_NAME__, __func__, __LINE__);
            close(fd);
            return -1;
        }
        __mv_socket_engine___connect_fail_level(s, 0);
        setConnectedOptions(s, fd);
        s->ai_family = addr.ss_family;
        s->cli_len = alen;
        if (addr.ss_family == AF_INET6) memcpy(&s->cli_addr6, &addr, sizeof s->cli_addr6);
        else memcpy(&s->cli_addr, &addr, sizeof s->cli_addr);
        {
            std::lock_guard b(s->BufferLock);
            s->BufferHead = s->BufferCurrent = nullptr;
            s->BufferLength = s->BufferPacketCount = 0;
        }
        {
            // A sender of the last connection sees either the old descriptor with the
            // old generation or the new pair, never the new descriptor with its old name.
            std::unique_lock f(s->FdLock);
            s->fd = fd;
            ++s->GenId;
        }
        s->isFree = 0;
        s->isActive = 1;
        s->isConnected = 1;
        gen = s->GenId;
    }
    if (!s->StateFull) __mv_socket_engine___attach_to_epoll(s, gen);
    return 1;
}

// ---------------------------------------------------------------- close and send

int __mv_socket_engine___tcp_close(MV_Socket* s, int genId) {
    int fd, bpc;
    {
        std::lock_guard g(s->CloseLock);
        if (!s->isActive && !s->isConnected) {
            releaseWaitingBuffers(s);
            return 0;
        }
        // GenId changes only when a free record takes a new descriptor, and a record is
        // free only after its close: under CloseLock it names the connection we would close.
        if (genId >= 0 && s->GenId != genId) return 0;
        {
            std::lock_guard o(s->OutboundLock);
            std::unique_lock f(s->FdLock);
            fd = s->fd.exchange(-1);
            s->isActive = 0;
            s->isConnected = 0;
            if (fd >= 0) close(fd);
            // What waits for this connection must never reach the next one on the record.
            dropOutbound(s);
        }
        ++__mv_socketEngine->SocketClosedCount;
        if (MV_SocketThread* t = s->epollThread.exchange(nullptr)) {
            --t->count;
            --__mv_socketEngine->TotalSocketsCount;
        }
        {
            std::lock_guard b(s->BufferLock);
            bpc = s->BufferPacketCount;
        }
        releaseWaitingBuffers(s);
    }
    if (__mv_socket_engine___ending()) return 1;
    if (s->OnClose) s->OnClose(s);
    else printf("[%s,%s,%d] parent not registered to onclose event of socket\n", __FILE_NAME__, __func__, __LINE__);
    s->isFree = 1;
    MV_SOK_LOG(MV_LOG_INFO, "closed tcp socket connection fd=%d genId=%d BPC=%d isActive=%d ip=%s port=%d  <%s|%d>", fd,
               s->GenId.load(), bpc, s->isActive.load(), s->host, int(s->IPPort), __func__, __LINE__);
    return 1;
}

int __mv_socket_engine_tcp_close_socket(MV_Socket* siSocket) { return __mv_socket_engine___tcp_close(siSocket, -1); }

int __mv_socket_engine___tcp_abort(MV_Socket* s) {
    std::lock_guard o(s->OutboundLock);
    std::unique_lock f(s->FdLock);
    int fd = s->fd.exchange(-1);
    if (fd < 0) return 0;
    s->isActive = 0;
    s->isConnected = 0;
    // The zero linger of every connected socket makes this a reset, as at the process's end.
    close(fd);
    dropOutbound(s);
    return 1;
}

namespace {
// A backlog's start and end are the two moments a slow reader shows in the log.
void logBacklog(MV_Socket* s, int fd, long waiting, bool starts) {
    char peer[INET6_ADDRSTRLEN + 8];
    peerOf(s, peer, sizeof peer);
    if (starts)
        MV_SOK_LOG(MV_LOG_INFO, "tcp socket fd=%d of peer %s has no room in the kernel, %ld bytes wait <%s|%s|%d>", fd,
                   peer, waiting, __FILE_NAME__, __func__, __LINE__);
    else
        MV_SOK_LOG(MV_LOG_INFO, "tcp socket fd=%d of peer %s has sent the bytes that waited <%s|%s|%d>", fd, peer,
                   __FILE_NAME__, __func__, __LINE__);
}
}  // namespace

void __mv_socket_engine___tcp_drain(MV_Socket* s) {
    if (s->OutboundBytes.load() == 0) return;
    int err, gen, fd;
    bool drained;
    {
        std::lock_guard o(s->OutboundLock);
        std::shared_lock f(s->FdLock);
        fd = s->fd;
        if (fd < 0 || !s->OutboundHead) return;
        gen = s->GenId;
        err = flushOutbound(s, fd);
        drained = !s->OutboundHead;
    }
    if (drained) logBacklog(s, fd, 0, false);
    if (err == EPIPE || err == ECONNRESET) {
        MV_SOK_LOG(MV_LOG_ERROR,
                   "error while sending waiting data, closing tcp socket fd=%d errorno=%d strerror=%s ip=%s port=%d "
                   "<%s|%s|%d>",
                   fd, err, strerror(err), s->host, int(s->IPPort), __FILE_NAME__, __func__, __LINE__);
        __mv_socket_engine___tcp_close(s, gen);
    }
}

int __mv_socket_engine___tcp_send(MV_Socket* s, int genId, const void* buff, int len) {
    if (!s || !s->isConnected) return -1;
    if (!buff || len < 0) return -1;
    const auto* p = static_cast<const uint8_t*>(buff);
    int sent = 0, fd, err = 0, gen;
    ssize_t n = 0;
    long waiting = 0, bound = 0;
    bool overflow = false, starts = false, drained = false;
    {
        std::lock_guard o(s->OutboundLock);
        std::shared_lock g(s->FdLock);
        fd = s->fd;
        gen = s->GenId;
        if (genId >= 0 && gen != genId) return -ESRCH;
        if (fd < 0) return -1;
        ++s->BeforeMessageSend;
        // Bytes already waiting go first; a message may not pass them.
        if (s->OutboundHead) {
            err = flushOutbound(s, fd);
            drained = !s->OutboundHead;
        }
        while (!err && !s->OutboundHead && sent < len) {
            n = send(fd, p + sent, size_t(len - sent), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n > 0) {
                sent += int(n);
                s->TotalWrites += n;
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            // No room: the rest waits for EPOLLOUT. A send of 0 bytes is no room either.
            if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) err = errno;
            break;
        }
        if (!err && sent < len) {
            bound = s->MaxOutboundBytes > 0 ? s->MaxOutboundBytes : kDefaultMaxOutbound;
            waiting = s->OutboundBytes.load();
            if (waiting + (len - sent) > bound) {
                overflow = true;
            } else {
                starts = waiting == 0;
                appendOutbound(s, p + sent, len - sent);
                drained = false;
            }
        }
    }
    if (drained) logBacklog(s, fd, 0, false);
    if (starts) logBacklog(s, fd, len - sent, true);
    if (err) {
        MV_SOK_LOG(MV_LOG_ERROR,
                   "error while sending data, closing tcp socket fd=%d as iSentBytes=%d is <= 0 errorno=%d strerror=%s "
                   "EPIPE(%d) ip=%s port=%d  <%s|%s|%d>",
                   fd, int(n), err, strerror(err), EPIPE, s->host, int(s->IPPort), __FILE_NAME__, __func__, __LINE__);
        if (err == EPIPE || err == ECONNRESET) __mv_socket_engine___tcp_close(s, gen);
        return n < 0 ? int(n) : -1;
    }
    if (overflow) {
        char peer[INET6_ADDRSTRLEN + 8];
        peerOf(s, peer, sizeof peer);
        // Two senders can pass the bound at once: the one whose close ends the connection tells it.
        if (__mv_socket_engine___tcp_close(s, gen) == 1) {
            int count = ++__mv_socketEngine->OutboundLimitCloseCount;
            MV_SOK_LOG(MV_LOG_CRITICAL,
                       "closing tcp connection fd=%d of peer %s: it reads too slowly, %ld bytes wait and %d more would "
                       "pass the bound of %ld (closed for this %d times) <%s|%s|%d>",
                       fd, peer, waiting, len - sent, bound, count, __FILE_NAME__, __func__, __LINE__);
        }
        return -1;
    }
    ++s->AfterMessageSent;
    return len;
}

int __mv_socket_engine_tcp_send_socket_data(MV_Socket* siSocket, const void* buff, int len, int) {
    return __mv_socket_engine___tcp_send(siSocket, -1, buff, len);
}

void __mv_socket_engine__set_max_outbound_bytes(MV_Socket* siSocket, long bytes) {
    if (siSocket) siSocket->MaxOutboundBytes = bytes > 0 ? bytes : 0;
}

long __mv_socket_engine_outbound_bytes(MV_Socket* siSocket) { return siSocket ? siSocket->OutboundBytes.load() : 0; }

int __mv_socket_engine_tcp_send_socket_data_aync(MV_Socket* siSocket, const void* buff, int len) {
    if (!siSocket || !buff || len < 0) return -1;
    const auto* p = static_cast<const uint8_t*>(buff);
    int done = 0;
    while (done < len) {
        MV_SocketBuffer* b = __mv_socket_engine_get_socket_buffer();
        int n = len - done < MV_SOCKET_BUFFER_SIZE ? len - done : MV_SOCKET_BUFFER_SIZE;
        memcpy(b->buff, p + done, size_t(n));
        b->len = n;
        b->siSocket = siSocket;
        std::lock_guard g(siSocket->AsyncWriteLock);
        if (siSocket->AyncWriteBufferCurrent) siSocket->AyncWriteBufferCurrent->Next = b;
        else siSocket->AyncWriteBufferHead = b;
        siSocket->AyncWriteBufferCurrent = b;
        done += n;
    }
    return len;
}

// ---------------------------------------------------------------- the owner's reads

int __mv_socket_engine_buffer_data_length(MV_Socket* siSocket) {
    if (!siSocket || !siSocket->isActive) return 0;
    std::lock_guard g(siSocket->BufferLock);
    return siSocket->BufferLength;
}

namespace {
// A record's bytes are those of its connection of the moment: a close releases them
// before the record can take its next descriptor and generation. genId -1 takes any.
int copyOut(MV_Socket* s, uint8_t* data, int length, bool consume, int genId = -1) {
    if (!s || !data || length <= 0) return 0;
    std::lock_guard g(s->BufferLock);
    if (genId >= 0 && s->GenId != genId) return -ESRCH;
    int copied = 0;
    for (MV_SocketBuffer* b = s->BufferHead; b && copied < length; b = b->Next) {
        int avail = b->len - b->pos;
        if (avail <= 0) continue;
        int n = avail < length - copied ? avail : length - copied;
        memcpy(data + copied, b->buff + b->pos, size_t(n));
        copied += n;
        if (consume) b->pos += n;
    }
    if (consume) s->BufferLength -= copied;
    return copied;
}
}  // namespace

int __mv_socket_engine_tcp_get_sample_buffer(MV_Socket* siSocket, uint8_t* data, int length) {
    return copyOut(siSocket, data, length, false);
}

int __mv_socket_engine_tcp_get_buffer(MV_Socket* siSocket, uint8_t* data, int length) {
    return copyOut(siSocket, data, length, true);
}

int __mv_socket_engine_tcp_get_sample_buffer_gen(MV_Socket* siSocket, int genId, uint8_t* data, int length) {
    return genId < 0 ? -1 : copyOut(siSocket, data, length, false, genId);
}

int __mv_socket_engine_tcp_get_buffer_gen(MV_Socket* siSocket, int genId, uint8_t* data, int length) {
    return genId < 0 ? -1 : copyOut(siSocket, data, length, true, genId);
}

void __mv_socket_engine_tcp_release_used_buffer(MV_Socket* siSocket) {
    if (!siSocket) return;
    std::lock_guard g(siSocket->BufferLock);
    while (MV_SocketBuffer* b = siSocket->BufferHead) {
        if (b->pos < b->len) break;
        siSocket->BufferHead = b->Next;
        if (!siSocket->BufferHead) siSocket->BufferCurrent = nullptr;
        --siSocket->BufferPacketCount;
        __mv_socket_engine_release_socket_buffer(b);
    }
}
