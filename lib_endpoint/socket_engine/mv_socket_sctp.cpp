// SCTP: creation, the server loop and its children, the multi-homed client
// connect, the send family with stream round robin, and the close.
#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <shared_mutex>

#include "mv_socket_internal.h"

namespace {

constexpr uint16_t kDefaultStreams = 3;
constexpr uint16_t kInitAttempts = 4;
constexpr uint32_t kHeartbeatMs = 6000;
// Reasons of a failed connect that are no errno, for the log's first-time rule.
constexpr int kNoLocalAddress = -1;
constexpr int kNoRemoteAddress = -2;
constexpr int kNothingBound = -3;
constexpr int kBindFailed = 100000;  // + errno

int sctpSend(MV_Socket* s, const void* buff, int len, int) { return __mv_socket_engine_sctp_send(s, buff, len); }
int sctpClose(MV_Socket* s) { return __mv_socket_engine___sctp_close(s, 0); }
int sctpConnect(MV_Socket* s) { return __mv_socket_engine_sctp_connect_socket(s); }

// Our stream counts, or the default, which the socket then keeps.
void initMsg(MV_Socket* s, uint16_t* o, uint16_t* i) {
    if (s->max_o_streams == 0) s->max_o_streams = kDefaultStreams;
    if (s->max_i_streams == 0) s->max_i_streams = kDefaultStreams;
    *o = s->max_o_streams;
    *i = s->max_i_streams;
}

void copyAddresses(MV_IPAddress* dst, uint8_t* count, char src[][50], int n) {
    int take = n < 0 ? 0 : (n > MV_SOCKET_MAX_ADDRESSES ? MV_SOCKET_MAX_ADDRESSES : n);
    for (int i = 0; i < take; ++i) snprintf(dst[i].IP, sizeof dst[i].IP, "%s", src[i]);
    *count = uint8_t(take);
}

MV_Socket* fromInfo(const MV_SctpSocketInfo* info, int isHost) {
    MV_Socket* s = __mv_socket_engine___new_socket();
    s->TransportType = MV_TRANSPORT_SCTP;
    s->isHost = isHost;
    s->isListner = isHost;
    s->IPVersion = info->ipVersion == 6 ? 6 : 4;
    s->IPPort = uint32_t(info->Port);
    s->RemoteIPPort = uint32_t(info->RemotePort);
    copyAddresses(s->IPAddresses, &s->IPAddressCount, const_cast<char(*)[50]>(info->IP), info->ipCount);
    copyAddresses(s->RemoteIPAddresses, &s->RemoteIPAddressCount, const_cast<char(*)[50]>(info->RemoteIP),
                  info->RemoteIpCount);
    if (s->IPAddressCount) copyHost(s, s->IPAddresses[0].IP);
    s->PPID = info->PPID;
    s->UseEPoll = info->UseEPoll;
    s->max_o_streams = info->MaxOStreams;
    s->max_i_streams = info->MaxIStreams;
    __mv_socket_engine___set_sctp_operations(s);
    __mv_socket_engine___add_socket(s);
    return s;
}

void readStatus(const MV_SctpBackend* be, MV_Socket* s, int fd) {
    MV_SctpStatus st{};
    if (be->GetStatus(fd, &st) == 0) {
        s->peer_max_o_streams = st.outstreams ? st.outstreams : 1;
        s->peer_max_i_streams = st.instreams ? st.instreams : 1;
    } else {
        s->peer_max_o_streams = 1;
        s->peer_max_i_streams = 1;
    }
}

// Builds one address for a bind or a connect; a bad IPv6 text ends the process for
// a server (start-up) and only this attempt for a client.
bool sctpAddr(const char* ip, int version, int port, sockaddr_storage* out, socklen_t* len, bool server) {
    if (__mv_socket_engine___make_addr(ip, version, port, out, len)) {
        if (version == 6) {
            auto* a6 = reinterpret_cast<sockaddr_in6*>(out);
            a6->sin6_scope_id = __mv_socket__get_sin6_scope_id(&a6->sin6_addr);
        }
        return true;
    }
    if (version == 6) {
        if (server) {
            __mv_socket_engine___startup_fault("configured IPv6=%s Address Is Not Valid\n", ip);
            exit(0);
        }
        MV_SOK_LOG(MV_LOG_CRITICAL, "configured IPv6=%s Address Is Not Valid %s|%d", ip, __func__, __LINE__);
    }
    return false;
}

int sctpAccept(MV_Socket* parent, int connFd, sockaddr_storage* peer, socklen_t peerLen) {
    const MV_SctpBackend* be = __mv_sctp_backend();
    MV_Socket* child;
    {
        std::lock_guard g(parent->ChildLock);
        child = __mv_socket_engine___take_child(parent);
        child->TransportType = MV_TRANSPORT_SCTP;
        child->UseSendLock = parent->UseSendLock;
        child->UseEPoll = parent->UseEPoll;
        child->PPID = parent->PPID;
        child->IPVersion = parent->IPVersion;
        child->IPPort = parent->IPPort;
        child->max_o_streams = parent->max_o_streams;
        child->max_i_streams = parent->max_i_streams;
        child->ai_family = peer->ss_family;
        child->cli_len = peerLen;
        char ip[INET6_ADDRSTRLEN] = "";
        int port = 0;
        if (peer->ss_family == AF_INET6) {
            memcpy(&child->cli_addr6, peer, sizeof child->cli_addr6);
            inet_ntop(AF_INET6, &child->cli_addr6.sin6_addr, ip, sizeof ip);
            port = ntohs(child->cli_addr6.sin6_port);
        } else {
            memcpy(&child->cli_addr, peer, sizeof child->cli_addr);
            inet_ntop(AF_INET, &child->cli_addr.sin_addr, ip, sizeof ip);
            port = ntohs(child->cli_addr.sin_port);
        }
        snprintf(child->ClientConnectionId, sizeof child->ClientConnectionId, "%s-132-%d", ip, port);
        copyHost(child, ip);
        readStatus(be, child, connFd);
        child->last_o_streams = 0;
        child->BeforeMessageSend = child->AfterMessageSent = child->ReceivedMessages = 0;
        child->LastMessageSent = child->LastReceivedMessages = 0;
        child->UnknownSCTPEventCount = 0;
        child->SctpDiscardToEOR = 0;
        child->OnCloseFired = 0;
        child->epollThread = nullptr;
        __mv_socket_engine___set_sctp_operations(child);
        __mv_socket_engine___hand_child_over(parent, child, connFd, true);
    }
    // An association that came up while the process ends is ended with the others.
    if (__mv_socket_engine___ending()) {
        __mv_socket_engine___sctp_abort(child);
        return 1;
    }
    if (child->StateFull) {
        MV_SOK_LOG(MV_LOG_INFO,
                   "sctp accepted new socket, configured to manage attachment by protocol-connector fd=%d pfd=%d "
                   "port=%d genId=%d StateFull=%d",
                   connFd, parent->fd.load(), int(parent->IPPort), child->GenId.load(), child->StateFull);
        return 1;
    }
    __mv_socket_engine___sctp_attach(child);
    return 1;
}

}  // namespace

void __mv_socket_engine___set_sctp_operations(MV_Socket* s) {
    s->Send = sctpSend;
    s->Close = sctpClose;
    s->Connect = sctpConnect;
    s->Accept = sctpAccept;
    s->Read = nullptr;
    s->AddBuffer = nullptr;
}

MV_Socket* __mv_socket_engine_create_sctp_server_socket(MV_SctpSocketInfo* sctpSocketInfo) {
    return sctpSocketInfo ? fromInfo(sctpSocketInfo, 1) : nullptr;
}

MV_Socket* __mv_socket_engine_create_sctp_client_socket(MV_SctpSocketInfo* sctpSocketInfo) {
    return sctpSocketInfo ? fromInfo(sctpSocketInfo, 0) : nullptr;
}

void __mv_socket_engine___sctp_server_loop(MV_Socket* s) {
    const MV_SctpBackend* be = __mv_sctp_backend();
    int family = s->IPVersion == 6 ? AF_INET6 : AF_INET;
    int fd = be ? be->Socket(family) : -1;
    if (fd < 0) {
        __mv_socket_engine___startup_fault("SCTP Host Server Socket Creation Failed (Host Process) for Port=%d\n",
                                           int(s->IPPort));
        exit(0);
    }
    if (be->SetReuseAddr(fd) != 0) {
        __mv_socket_engine___startup_fault("SCTP setsockopt SO_REUSEADDR failed");
        exit(0);
    }
    if (s->IPAddressCount == 0) {
        sockaddr_storage any;
        socklen_t len;
        __mv_socket_engine___make_addr(nullptr, s->IPVersion, int(s->IPPort), &any, &len);
        if (be->BindX(fd, reinterpret_cast<sockaddr*>(&any), 1, MV_SCTP_BINDX_ADD) != 0)
            __mv_socket_engine___startup_fault("[ error with sctp_bindx errno:%d (%s) ] IP-Address:%s port[%d] %s|%d\n",
                                               errno, strerror(errno), "any", int(s->IPPort), __func__, __LINE__);
    }
    for (int i = 0; i < s->IPAddressCount; ++i) {
        sockaddr_storage a;
        socklen_t len;
        if (!sctpAddr(s->IPAddresses[i].IP, s->IPVersion, int(s->IPPort), &a, &len, true)) continue;
        if (be->BindX(fd, reinterpret_cast<sockaddr*>(&a), 1, MV_SCTP_BINDX_ADD) != 0)
            __mv_socket_engine___startup_fault("[ error with sctp_bindx errno:%d (%s) ] IP-Address:%s port[%d] %s|%d\n",
                                               errno, strerror(errno), s->IPAddresses[i].IP, int(s->IPPort), __func__,
                                               __LINE__);
    }
    uint16_t o, in;
    initMsg(s, &o, &in);
    if (be->SetInitMsg(fd, o, in, kInitAttempts) != 0) {
        __mv_socket_engine___startup_fault("setsockopt( IPPROTO_SCTP, SCTP_INITMSG) failed");
        exit(0);
    }
    // Children inherit the listener's subscriptions, so even their first message
    // arrives with its stream and payload protocol id.
    be->SetEvents(fd);
    if (be->Listen(fd, 10) != 0) {
        __mv_socket_engine___startup_fault("listen() failed");
        exit(0);
    }
    s->fd = fd;
    s->isActive = 1;
    for (;;) {
        sockaddr_storage peer{};
        socklen_t plen = sizeof peer;
        int c = be->Accept(fd, reinterpret_cast<sockaddr*>(&peer), &plen);
        if (c < 1) {
            MV_SOK_LOG(MV_LOG_ERROR, "accept failed with fd=%d for port=%d<%s|%s|%d>", c, int(s->IPPort), __FILE_NAME__,
                       __func__, __LINE__);
            if (c < 0) usleep(10000);
            continue;
        }
        be->SetEvents(c);
        be->SetNoDelay(c, 1);
        if (s->UseEPoll == 1) be->SetNonBlocking(c, 1);
        char ip[INET6_ADDRSTRLEN] = "";
        int port = 0, v = 4;
        if (peer.ss_family == AF_INET6) {
            auto* a6 = reinterpret_cast<sockaddr_in6*>(&peer);
            inet_ntop(AF_INET6, &a6->sin6_addr, ip, sizeof ip);
            port = ntohs(a6->sin6_port);
            v = 6;
        } else {
            auto* a4 = reinterpret_cast<sockaddr_in*>(&peer);
            inet_ntop(AF_INET, &a4->sin_addr, ip, sizeof ip);
            port = ntohs(a4->sin_port);
        }
        if (__mv_socket_engine___is_ip_allowed(ip, v, port) != 0) {
            MV_SOK_LOG(MV_LOG_ERROR, "connection rejected from ipv%d-client, fd=%d client-ip=%s port=%d <%s|%s|%d>", v, c,
                       ip, port, __FILE_NAME__, __func__, __LINE__);
            be->Close(c);
            continue;
        }
        s->Accept(s, c, &peer, plen);
    }
}

int __mv_socket_engine_sctp_connect_socket(MV_Socket* siSocket) {
    MV_Socket* s = siSocket;
    std::lock_guard g(s->ConnectLock);
    if (s->isConnected) return 1;
    if (__mv_socket_engine___ending()) return -1;
    MV_SOK_LOG(MV_LOG_INFO, "connect to socket RemoteIPPort:%d <%s|%s|%d>", int(s->RemoteIPPort), __FILE_NAME__,
               __func__, __LINE__);
    const char* firstRemote = s->RemoteIPAddressCount ? s->RemoteIPAddresses[0].IP : "";
    // Configuration faults first: they need no socket, and the log says why nothing
    // connects (at critical level the first time, so a user sees it at any level).
    if (s->IPAddressCount == 0) {
        MV_SOK_LOG(__mv_socket_engine___connect_fail_level(s, kNoLocalAddress), "please set IPAddresses:%d %s|%s|%d",
                   s->IPAddressCount, __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    if (s->RemoteIPAddressCount == 0) {
        MV_SOK_LOG(__mv_socket_engine___connect_fail_level(s, kNoRemoteAddress),
                   "please set RemoteIPAddressses:%d %s|%s|%d", s->RemoteIPAddressCount, __FILE_NAME__, __func__,
                   __LINE__);
        return -1;
    }
    const MV_SctpBackend* be = __mv_sctp_backend();
    int fd = be ? be->Socket(s->IPVersion == 6 ? AF_INET6 : AF_INET) : -1;
    if (fd < 0) {
        int err = be ? errno : EPROTONOSUPPORT;
        MV_SOK_LOG(__mv_socket_engine___connect_fail_level(s, err),
                   "connection to sctp peer-server failed for IP=%s Port[%d] errno=[%d|%s] <%s|%s|%d>", firstRemote,
                   int(s->RemoteIPPort), err, strerror(err), __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    if (be->SetEvents(fd) != 0) {
        MV_SOK_LOG(MV_LOG_ERROR,
                   "set socket options SCTP_EVENTS failed for sctp peer-connection for IP=%s Port[%d] <%s|%s|%d>",
                   firstRemote, int(s->RemoteIPPort), __FILE_NAME__, __func__, __LINE__);
        be->Close(fd);
        return -1;
    }
    uint16_t o, in;
    initMsg(s, &o, &in);
    s->peer_max_i_streams = 1;
    s->peer_max_o_streams = 1;
    s->BeforeMessageSend = s->AfterMessageSent = s->ReceivedMessages = 0;
    s->LastMessageSent = s->LastReceivedMessages = 0;
    if (be->SetInitMsg(fd, o, in, kInitAttempts) != 0) {
        MV_SOK_LOG(MV_LOG_ERROR,
                   "set socket options SCTP_INITMSG failed for sctp peer-connection for IP=%s Port[%d] <%s|%s|%d>",
                   firstRemote, int(s->RemoteIPPort), __FILE_NAME__, __func__, __LINE__);
        be->Close(fd);
        return -1;
    }
    sockaddr_storage local[MV_SOCKET_MAX_ADDRESSES];
    int localCount = 0, bindLevel = 0;
    for (int i = 0; i < s->IPAddressCount && i < MV_SOCKET_MAX_ADDRESSES; ++i) {
        socklen_t len;
        if (!sctpAddr(s->IPAddresses[i].IP, s->IPVersion, int(s->IPPort), &local[localCount], &len, false)) continue;
        uint32_t scope = s->IPVersion == 6 ? reinterpret_cast<sockaddr_in6*>(&local[localCount])->sin6_scope_id : 0;
        MV_SOK_LOG(MV_LOG_INFO, "sctp socket binding local[%d] IP-Address=%s Client-Port=%d sin6_scope_id=%u  <%s|%s|%d>",
                   i, s->IPAddresses[i].IP, int(s->IPPort), scope, __FILE_NAME__, __func__, __LINE__);
        if (be->BindX(fd, reinterpret_cast<sockaddr*>(&local[localCount]), 1, MV_SCTP_BINDX_ADD) != 0) {
            int err = errno;
            // One level for every line of this try: a repeat of the same failure is not news.
            if (!bindLevel) bindLevel = __mv_socket_engine___connect_fail_level(s, kBindFailed + err);
            MV_SOK_LOG(bindLevel, "[ error with sctp_bindx errno:%d (%s) ] IP-Address:%s port[%d] %s|%d", err,
                       strerror(err), s->IPAddresses[i].IP, int(s->IPPort), __func__, __LINE__);
            continue;
        }
        ++localCount;
    }
    // Unbound, the association would offer every address of the host to the peer.
    if (localCount == 0) {
        MV_SOK_LOG(bindLevel ? bindLevel : __mv_socket_engine___connect_fail_level(s, kNothingBound),
                   "sctp connection to IP=%s Port[%d] not made: none of its %d local addresses could be bound <%s|%s|%d>",
                   firstRemote, int(s->RemoteIPPort), int(s->IPAddressCount), __FILE_NAME__, __func__, __LINE__);
        be->Close(fd);
        return -1;
    }
    // The peer array is packed: sctp_connectx walks it by each address's own size.
    uint8_t peers[MV_SOCKET_MAX_ADDRESSES * sizeof(sockaddr_in6)];
    size_t used = 0;
    int peerCount = 0;
    for (int i = 0; i < s->RemoteIPAddressCount && i < MV_SOCKET_MAX_ADDRESSES; ++i) {
        sockaddr_storage a;
        socklen_t len;
        if (!sctpAddr(s->RemoteIPAddresses[i].IP, s->IPVersion, int(s->RemoteIPPort), &a, &len, false)) continue;
        memcpy(peers + used, &a, len);
        used += len;
        ++peerCount;
    }
    if (peerCount == 0) {
        be->Close(fd);
        return -1;
    }
    s->isFree = 0;
    if (MV_SocketThread* t = s->clientReadThread) {
        t->fd = 0;
        t->isActive = 0;
    }
    MV_SOK_LOG(MV_LOG_INFO, "calling sctp sctp_connectx %s:%d RemoteIPAddressCount=%d <%s|%s|%d>", firstRemote,
               int(s->RemoteIPPort), peerCount, __FILE_NAME__, __func__, __LINE__);
    if (be->ConnectX(fd, reinterpret_cast<sockaddr*>(peers), peerCount) != 0) {
        int err = errno;
        MV_SOK_LOG(__mv_socket_engine___connect_fail_level(s, err),
                   "connection to sctp peer-server failed for IP=%s Port[%d] errno=[%d|%s] <%s|%s|%d>", firstRemote,
                   int(s->RemoteIPPort), err, strerror(err), __FILE_NAME__, __func__, __LINE__);
        if (s->IPPort)
            for (int i = 0; i < localCount; ++i)
                be->BindX(fd, reinterpret_cast<sockaddr*>(&local[i]), 1, MV_SCTP_BINDX_REM);
        be->Close(fd);
        s->fd = 0;
        s->isConnected = 0;
        s->isActive = 0;
        return -1;
    }
    __mv_socket_engine___connect_fail_level(s, 0);
    s->UnknownSCTPEventCount = 0;
    s->SctpDiscardToEOR = 0;
    s->last_o_streams = 0;
    {
        std::lock_guard c(s->OnCloseLock);
        s->OnCloseFired = 0;
    }
    {
        std::unique_lock f(s->FdLock);
        s->fd = fd;
        ++s->GenId;
    }
    // The process began to end while the handshake ran: this association goes too.
    if (__mv_socket_engine___ending()) {
        __mv_socket_engine___sctp_abort(s);
        return -1;
    }
    s->isConnected = 1;
    s->isActive = 1;
    if (MV_SocketThread* t = s->clientReadThread) {
        t->fd = fd;
        t->isActive = 1;
        t->sem_lock.post();
    }
    be->SetNoDelay(fd, 1);
    if (s->UseEPoll == 1) be->SetNonBlocking(fd, 1);
    if (s->OnConnected) s->OnConnected(s);
    MV_SctpStatus st{};
    int sts = be->GetStatus(fd, &st);
    if (sts == 0 && st.outstreams) s->peer_max_o_streams = st.outstreams;
    uint32_t hb = 0;
    be->SetHeartbeat(fd, kHeartbeatMs, &hb);
    MV_SOK_LOG(MV_LOG_INFO,
               "sctp connection success, connected to server at port :%d  connect_sts=%d peer_max_o_streams=%u "
               "hbinterval=%u  %s|%d",
               int(s->RemoteIPPort), sts, unsigned(s->peer_max_o_streams), hb, __func__, __LINE__);
    printf("sctp connection success, connected to server at port :%d  connect_sts=%d peer_max_o_streams=%u "
           "hbinterval=%u  %s|%d\n",
           int(s->RemoteIPPort), sts, unsigned(s->peer_max_o_streams), hb, __func__, __LINE__);
    return 1;
}

// ---------------------------------------------------------------- close

int __mv_socket_engine___sctp_close(MV_Socket* s, int ret) {
    int fd;
    {
        std::lock_guard g(s->CloseLock);
        std::unique_lock f(s->FdLock);
        fd = s->fd.exchange(0);
        s->isConnected = 0;
        s->isActive = 0;
        // Shut down before closing: after the close the number may already name
        // another socket.
        if (const MV_SctpBackend* be = fd > 0 ? __mv_sctp_backend() : nullptr) {
            be->Shutdown(fd, SHUT_RDWR);
            be->Close(fd);
            ++__mv_socketEngine->SocketClosedCount;
        }
    }
    if (s->UseEPoll == 1) {
        if (MV_SocketThread* t = s->epollThread.exchange(nullptr)) {
            std::lock_guard c(t->epollSocketFdCountLock);
            --t->epollSocketFdCount;
            --__mv_socketEngine->TotalSocketsCount;
        }
    } else if (s->UseEPoll == 2 && fd > 0 && !s->StateFull) {
        --__mv_socketEngine->TotalSocketsCount;
    }
    {
        std::lock_guard c(s->OnCloseLock);
        if (s->OnCloseFired) return 0;
        s->OnCloseFired = 1;
    }
    // The process is ending: owners are not to start work on the way out.
    if (__mv_socket_engine___ending()) return 1;
    if (ret) MV_SOK_LOG(MV_LOG_ERROR, "sctp closed socket fd=%d ret=%d calling OnClose %s|%s|%d", fd, ret, __FILE_NAME__, __func__, __LINE__);
    else MV_SOK_LOG(MV_LOG_ERROR, "sctp closed socket fd=%d calling OnClose %s|%s|%d", fd, __FILE_NAME__, __func__, __LINE__);
    if (s->OnClose) s->OnClose(s);
    // A child is reused by the next accept; a client keeps its record for the reconnect.
    if (s->UseEPoll == 1 || s->Parent) s->isFree = 1;
    return 1;
}

int __mv_socket_engine___sctp_abort(MV_Socket* s) {
    int fd = s->fd.load();
    if (fd < 1) return 0;
    const MV_SctpBackend* be = __mv_sctp_backend();
    // No FdLock: a sender may wait inside the stack on a peer that does not read, and
    // the process must end all the same. The stack keeps the socket alive while in use.
    if (!be || be->Abort(fd) != 0) return 0;
    s->isConnected = 0;
    s->isActive = 0;
    return 1;
}

int __mv_socket_engine_sctp__close_client_connection(MV_Socket* siSocket) {
    if (!siSocket) return -1;
    return __mv_socket_engine___sctp_close(siSocket, 0);
}

// ---------------------------------------------------------------- send

uint16_t __mv_socket_sctp_next_streamid(int skipzero, MV_Socket* siSocket) {
    // Unlocked on purpose: a race only changes which stream a message takes.
    uint16_t v = uint16_t(siSocket->last_o_streams.load(std::memory_order_relaxed) + 1);
    if (v >= siSocket->peer_max_o_streams.load(std::memory_order_relaxed)) v = skipzero == 1 ? 1 : 0;
    siSocket->last_o_streams.store(v, std::memory_order_relaxed);
    return v;
}

namespace {

enum class SendKind { Ngap, Plain, Stream };

int sctpSendCommon(MV_Socket* s, const void* buffer, int len, uint16_t stream, SendKind kind, int genId = -1) {
    if (!s) return -1;
    uint32_t ppid = htonl(s->PPID);
    if (!s->isConnected) {
        MV_SOK_LOG(MV_LOG_ERROR, "sending data on not-connected sctp socket %s|%s|%d", __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    ssize_t n;
    int fd, err;
    {
        std::shared_lock f(s->FdLock);
        fd = s->fd;
        if (genId >= 0 && s->GenId != genId) return -ESRCH;
        if (fd < 1) {
            MV_SOK_LOG(MV_LOG_ERROR, "sending data failed fd=%d already closed sctp socket %s|%s|%d", fd,
                       __FILE_NAME__, __func__, __LINE__);
            return -1;
        }
        const MV_SctpBackend* be = __mv_sctp_backend();
        ++s->BeforeMessageSend;
        if (kind == SendKind::Ngap && s->UseSendLock == 1) {
            std::lock_guard g(s->SendLock);
            n = be->Send(fd, buffer, size_t(len), stream, ppid, MSG_NOSIGNAL);
        } else {
            n = be->Send(fd, buffer, size_t(len), stream, ppid, MSG_NOSIGNAL);
        }
        err = errno;
    }
    ++s->AfterMessageSent;
    if (n > 0) {
        s->TotalWrites += n;
        return int(n);
    }
    if (err == EPIPE) {
        const char* fmt =
            kind == SendKind::Ngap
                ? "SCTP: socket error while sending data, closing sctp socket fd=%d as sentBytes=%d is < 0 errorno=%d "
                  "strerror=%s EPIPE(%d) ip=%s port=%d  <%s|%s|%d>"
            : kind == SendKind::Plain
                ? "SCTP: error while sending data, closing sctp socket fd=%d as sentBytes=%d is < 0 errorno=%d "
                  "strerror=%s EPIPE(%d) ip=%s port=%d  <%s|%s|%d>"
                : "error while sending data, closing sctp socket fd=%d as sentBytes=%d is < 0 errorno=%d strerror=%s "
                  "EPIPE(%d) ip=%s port=%d  <%s|%s|%d>";
        __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_ERROR, fmt, fd, int(n), err, strerror(err), EPIPE, s->host,
                 int(s->RemoteIPPort), __FILE_NAME__, __func__, __LINE__);
        __mv_socket_engine___sctp_close(s, int(n));
    } else {
        MV_SOK_LOG(MV_LOG_ERROR,
                   "SCTP: socket error while sending data fd=%d as sentBytes=%d is < 0 errorno=%d strerror=%s ip=%s "
                   "port=%d  <%s|%s|%d>",
                   fd, int(n), err, strerror(err), s->host, int(s->RemoteIPPort), __FILE_NAME__, __func__, __LINE__);
    }
    return int(n);
}

}  // namespace

int __mv_socket_engine_sctp_send_ngap(MV_Socket* siSocket, const void* buffer, int len) {
    if (!siSocket) return -1;
    return sctpSendCommon(siSocket, buffer, len, __mv_socket_sctp_next_streamid(0, siSocket), SendKind::Ngap);
}

int __mv_socket_engine_sctp_send_ngap2(MV_Socket* siSocket, const void* buffer, int len, uint16_t streamId) {
    if (!siSocket) return -1;
    // A stream the association does not have would fail the send: fold it into the range.
    uint16_t n = siSocket->peer_max_o_streams.load(std::memory_order_relaxed);
    if (n == 0 || streamId >= n) streamId = n > 1 ? uint16_t(streamId % n) : 0;
    return sctpSendCommon(siSocket, buffer, len, streamId, SendKind::Ngap);
}

int __mv_socket_engine_sctp_send(MV_Socket* siSocket, const void* buffer, int len) {
    return sctpSendCommon(siSocket, buffer, len, 0, SendKind::Plain);
}

int __mv_socket_engine___sctp_send_gen(MV_Socket* s, int genId, const void* buff, int len) {
    return sctpSendCommon(s, buff, len, 0, SendKind::Plain, genId);
}

int __mv_socket_engine_sctp_send2(MV_Socket* siSocket, const void* buffer, int len, uint16_t streamInfo, uint32_t) {
    return sctpSendCommon(siSocket, buffer, len, streamInfo, SendKind::Stream);
}
