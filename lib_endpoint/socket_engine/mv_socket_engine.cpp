// The engine record, its buffer pools and delivery queues, the socket lists, the
// statistics lines, the reconnection thread and the small helpers.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "mv_fifo.h"
#include "mv_socket_internal.h"

__mv_socket_engine* __mv_socketEngine = nullptr;

namespace {

std::once_flag initOnce;
std::atomic<int> socketIds{0};
std::atomic<bool> ending{false};
std::atomic<fn_mv_is_ip_allowed> isIpAllowed{nullptr};

// Threads wait on these until the process ends, so they are never destroyed:
// destroying a condition variable with a waiter blocks the exit.
struct ReconnectWake {
    std::mutex lock;
    std::condition_variable cv;
    bool pending = false;
};
ReconnectWake& wake() {
    static auto* w = new ReconnectWake;
    return *w;
}

constexpr int kTcpPoolStart = 10000;
constexpr int kTcpPoolGrowth = 1500;
constexpr int kUdpPoolGrowth = 1500;
constexpr int kSctpPoolGrowth = 500;

mv_fifo::CoreFifo<MV_SocketBuffer> tcpPool() {
    auto* e = __mv_socketEngine;
    return {e->BufferPoolHead, e->BufferPoolCurrent, e->BufferPoolLock, e->TotalBufferPoolCount,
            e->AvailableBufferPoolCount};
}
mv_fifo::CoreFifo<MV_SocketUdpBuffer> udpPool() {
    auto* e = __mv_socketEngine;
    return {e->UdpBufferPoolHead, e->UdpBufferPoolCurrent, e->UdpBufferPoolLock, e->TotalUdpBufferPoolCount,
            e->AvailableUdpBufferPoolCount};
}
mv_fifo::CoreFifo<MV_SocketSCTPBuffer> sctpPool() {
    auto* e = __mv_socketEngine;
    return {e->SctpBufferPoolHead, e->SctpBufferPoolCurrent, e->SctpBufferPoolLock, e->TotalSctpBufferPoolCount,
            e->AvailableSctpBufferPoolCount};
}

void onSigPipe(int sig) {
    __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "Socket: Received SIGPIPE=%d No Action Taken %s|%s|%d", sig,
             __FILE_NAME__, __func__, __LINE__);
}

// The TCP delivery thread: the owner reads the socket's bytes itself.
void deliverTcp(void* data, int) {
    auto* s = static_cast<MV_Socket*>(data);
    if (s->OnBufferReceive.handlesSocket()) s->OnBufferReceive(s);
}

// The SCTP delivery thread: one thread for every association keeps arrival order.
void deliverSctp(void* data, int) {
    auto* b = static_cast<MV_SocketSCTPBuffer*>(data);
    MV_Socket* s = b->siSocket;
    if (s && s->OnBufferReceive.handlesSctpBuffer()) {
        s->OnBufferReceive(b);
        return;
    }
    MV_SOK_LOG(MV_LOG_ERROR, "sctp message of len=%d dropped: socket has no buffer handler %s|%s|%d", b->len,
               __FILE_NAME__, __func__, __LINE__);
    __mv_socket_engine_release_sctp_socket_buffer(b);
}

void* reconnectThread(void*) {
    for (;;) {
        {
            std::unique_lock lk(wake().lock);
            wake().cv.wait_for(lk, std::chrono::microseconds(3 * 999999), [] { return wake().pending; });
            wake().pending = false;
        }
        if (ending) continue;
        long now = __mv_core_get_server_timer_tick();
        std::vector<MV_Socket*> due;
        {
            // Held for the walk only; a connect can take seconds.
            std::lock_guard g(__mv_socketEngine->SocketLock);
            for (MV_Socket* s = __mv_socketEngine->SocketHead; s; s = s->Next)
                if (s->TransportType == MV_TRANSPORT_SCTP && !s->isHost && (s->UseEPoll == 1 || s->UseEPoll == 2))
                    due.push_back(s);
        }
        for (MV_Socket* s : due) {
            if (s->isActive || s->isConnected || s->disableClientAutoReConnect) continue;
            // A socket its owner has not started yet may still lack its callbacks;
            // leave it a second before connecting it on our own.
            if (!s->isStarted && now - s->TimerTick < 2) continue;
            if (__mv_socket_engine_sctp_connect_socket(s) == 1) __mv_socket_engine___sctp_attach(s);
        }
    }
    return nullptr;
}

void initEngine() {
    signal(SIGPIPE, onSigPipe);
    __init_morva_core();
    auto* e = __mv_arena_new<__mv_socket_engine>();
    __mv_socketEngine = e;
    __mv_core_create_queue(&e->queueSctpSocketBufferPoolObject, deliverSctp, 1, 1000);
    __mv_core_create_queue(&e->bufferQueue, deliverTcp, 1, 1000);

    e->CreateServerSocket = __mv_socket_engine_create_server_socket;
    e->CreateClientSocket = __mv_socket_engine_create_client_socket;
    e->Start = __mv_socket_engine_start_server_socket;
    e->StartEngine = __mv_socket_engine_start;
    e->ReadLock = __mv_socket_engine_socket_read_lock;
    e->ReadUnLock = __mv_socket_engine_socket_read_unlock;
    e->GetBufferLength = __mv_socket_engine_buffer_data_length;
    e->GetBuffer = __mv_socket_engine_tcp_get_buffer;
    e->GetInspectionBuffer = __mv_socket_engine_tcp_get_sample_buffer;
    e->ReleaseUsedBuffer = __mv_socket_engine_tcp_release_used_buffer;

    e->InitialEPollThreads = 3;
    e->InitialSCTPEPollThreads = 10;
    e->InitialPollThreads = 25;
    e->MaxSocketsPerEPoll = 10;

    __mv_create_pthread2(reconnectThread, nullptr, "mv_sok_cc");
    tcpPool().add(kTcpPoolStart, 1);
    __mv_sctp_backend_choose("auto", 0, 0);
}

}  // namespace

void __mv_socket_engine_init() { std::call_once(initOnce, initEngine); }

void __mv_socket_engine___set_sctp_epoll_thread_count(int num) {
    if (num > 0) __mv_socketEngine->InitialSCTPEPollThreads = num;
}
int __mv_socket_engine___get_sctp_epoll_thread_count() { return __mv_socketEngine->InitialSCTPEPollThreads; }

void __mv_socket_engine__set_is_ip_allowed_cb(fn_mv_is_ip_allowed p_is_ip_allowed) { isIpAllowed = p_is_ip_allowed; }

int __mv_socket_engine___is_ip_allowed(const char* ip, int version, int port) {
    fn_mv_is_ip_allowed f = isIpAllowed.load();
    return f ? f(ip, int(strlen(ip)), version, port) : 0;
}

int __mv_socket_engine__set_sctp_backend(const char* backend, int udpPort) {
    return __mv_socket_engine__set_sctp_backend2(backend, udpPort, 0);
}

int __mv_socket_engine__set_sctp_backend2(const char* backend, int udpPort, int remoteUdpPort) {
    if (udpPort < 0 || udpPort > 65535 || remoteUdpPort < 0 || remoteUdpPort > 65535) return -1;
    // The running stack keeps its mode and ports until the process ends.
    if (__mv_sctp_userspace_started()) {
        MV_SOK_LOG(MV_LOG_CRITICAL, "SCTP backend already running as %s, SCTPBackend=%s ignored %s|%s|%d",
                   __mv_socket_engine__sctp_backend_name(), backend ? backend : "", __FILE_NAME__, __func__, __LINE__);
        return 0;
    }
    __mv_sctp_backend_choose(backend, uint16_t(udpPort), uint16_t(remoteUdpPort));
    return 1;
}

const char* __mv_socket_engine__sctp_backend_name() {
    switch (__mv_sctp_backend_kind()) {
    case MV_SctpBackendKind::Kernel: return "kernel";
    case MV_SctpBackendKind::Userspace: return "userspace";
    default: return "";
    }
}

// ---------------------------------------------------------------- socket records

int __mv_socket_engine___next_socket_id() { return ++socketIds; }

MV_Socket* __mv_socket_engine___new_socket() {
    auto* s = __mv_arena_new<MV_Socket>();
    s->id = __mv_socket_engine___next_socket_id();
    s->TimerTick = __mv_core_get_server_timer_tick();
    s->peer_max_o_streams = 1;
    s->peer_max_i_streams = 1;
    return s;
}

void __mv_socket_engine___add_socket(MV_Socket* s) {
    auto* e = __mv_socketEngine;
    std::lock_guard g(e->SocketLock);
    if (MV_Socket* cur = e->SocketCurrent.load()) cur->Next = s;
    else e->SocketHead = s;
    e->SocketCurrent = s;
}

void __mv_socket_engine___add_child(MV_Socket* s) {
    auto* e = __mv_socketEngine;
    std::lock_guard g(e->SocketAyncWriteLock);
    if (e->SocketEPollAyncWriteCurrent) e->SocketEPollAyncWriteCurrent->SENext = s;
    else e->SocketEPollAyncWriteHead = s;
    e->SocketEPollAyncWriteCurrent = s;
}

MV_Socket* __mv_socket_engine___take_child(MV_Socket* parent) {
    for (MV_Socket* c = parent->ChildHead; c; c = c->Next)
        if (c->isActive == 0 && c->isFree == 1) return c;
    MV_Socket* child = __mv_socket_engine___new_socket();
    child->Parent = parent;
    if (parent->ChildCurrent) parent->ChildCurrent->Next = child;
    else parent->ChildHead = child;
    parent->ChildCurrent = child;
    ++parent->ChildSocketCount;
    __mv_socket_engine___add_child(child);
    return child;
}

void __mv_socket_engine___hand_child_over(MV_Socket* parent, MV_Socket* child, int connFd, bool copyOnConnected) {
    child->parentData1 = child->transportEng = nullptr;
    child->OnBufferReceive = nullptr;
    child->OnClose = nullptr;
    child->OnConnected = nullptr;
    {
        // The descriptor and its generation change together: a sender of the record's
        // last connection sees either its own pair or the new one, and refuses the new one.
        std::unique_lock f(child->FdLock);
        child->fd = connFd;
        ++child->GenId;
    }
    if (parent->OnAccept) parent->OnAccept(child, parent);
    if (!child->OnBufferReceive) child->OnBufferReceive = parent->OnBufferReceive;
    if (!child->OnClose) child->OnClose = parent->OnClose;
    if (copyOnConnected && !child->OnConnected) child->OnConnected = parent->OnConnected;
    child->isFree = 0;
    child->isActive = 1;
    child->isConnected = 1;
}

int __mv_socket_engine___server_descriptor(MV_Socket* s, int type, const char* kind, const char* reuseKind) {
    int fd = socket(s->IPVersion == 6 ? AF_INET6 : AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        __mv_socket_engine___startup_fault("%s Host Server Socket Creation Failed (Host Process) for Port=%d\n", kind,
                                           int(s->IPPort));
        exit(0);
    }
    int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        __mv_socket_engine___startup_fault("%s setsockopt SO_REUSEADDR failed", reuseKind);
        exit(0);
    }
    return fd;
}

void __mv_socket_engine___wake_reconnect() {
    {
        std::lock_guard g(wake().lock);
        wake().pending = true;
    }
    wake().cv.notify_one();
}

// ---------------------------------------------------------------- buffers

MV_SocketBuffer* __mv_socket_engine_get_socket_buffer() {
    MV_SocketBuffer* b = tcpPool().allocate(kTcpPoolGrowth);
    b->pos = b->len = 0;
    b->siSocket = nullptr;
    __atomic_add_fetch(&__mv_socketEngine->UsedBufferPoolCount, 1, __ATOMIC_RELAXED);
    return b;
}

MV_SocketUdpBuffer* __mv_socket_engine_get_socket_udp_buffer() {
    MV_SocketUdpBuffer* b = udpPool().allocate(kUdpPoolGrowth);
    b->pos = b->len = 0;
    b->clientlen = 0;
    b->siSocket = nullptr;
    __atomic_add_fetch(&__mv_socketEngine->UsedUdpBufferPoolCount, 1, __ATOMIC_RELAXED);
    return b;
}

MV_SocketSCTPBuffer* __mv_socket_engine_get_sctp_socket_buffer() {
    MV_SocketSCTPBuffer* b = sctpPool().allocate(kSctpPoolGrowth);
    b->pos = b->len = 0;
    b->clientlen = 0;
    b->siSocket = nullptr;
    b->siThread = nullptr;
    b->streamId = 0;
    b->ppid = 0;
    __atomic_add_fetch(&__mv_socketEngine->UsedSctpBufferPoolCount, 1, __ATOMIC_RELAXED);
    return b;
}

void __mv_socket_engine_release_socket_buffer(MV_SocketBuffer* buffer) {
    if (buffer) tcpPool().release(buffer);
}
void __mv_socket_engine_release_socket_udp_buffer(MV_SocketUdpBuffer* buffer) {
    if (buffer) udpPool().release(buffer);
}
void __mv_socket_engine_release_sctp_socket_buffer(MV_SocketSCTPBuffer* buffer) {
    if (buffer) sctpPool().release(buffer);
}

MV_SocketPoolCounts __mv_socket_engine_tcp_pool_counts() {
    std::lock_guard g(__mv_socketEngine->BufferPoolLock);
    return {__mv_socketEngine->TotalBufferPoolCount, __mv_socketEngine->AvailableBufferPoolCount};
}
MV_SocketPoolCounts __mv_socket_engine_udp_pool_counts() {
    std::lock_guard g(__mv_socketEngine->UdpBufferPoolLock);
    return {__mv_socketEngine->TotalUdpBufferPoolCount, __mv_socketEngine->AvailableUdpBufferPoolCount};
}
MV_SocketPoolCounts __mv_socket_engine_sctp_pool_counts() {
    std::lock_guard g(__mv_socketEngine->SctpBufferPoolLock);
    return {__mv_socketEngine->TotalSctpBufferPoolCount, __mv_socketEngine->AvailableSctpBufferPoolCount};
}

// ---------------------------------------------------------------- statistics

namespace {
void printSocketLine(const char* kind, MV_Socket* s, int children) {
    uint64_t before = s->BeforeMessageSend, after = s->AfterMessageSent, recv = s->ReceivedMessages;
    uint64_t lastSent = after - s->LastMessageSent, lastRecv = recv - s->LastReceivedMessages;
    s->LastMessageSent = after;
    s->LastReceivedMessages = recv;
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL,
             "Socket: %s ChildSocketCount=%d Port=%d v=%d Sent=%lu|%lu Received=%lu Delta=%ld Last[Sent=%lu Recv=%lu "
             "Delta=%ld]",
             kind, children, int(s->IPPort), s->IPVersion, (unsigned long)before, (unsigned long)after,
             (unsigned long)recv, long(after - recv), (unsigned long)lastSent, (unsigned long)lastRecv,
             long(lastSent - lastRecv));
}
}  // namespace

void __mv_socket_engine_print_stats() {
    auto* e = __mv_socketEngine;
    if (!e) return;
    MV_SocketPoolCounts tcp = __mv_socket_engine_tcp_pool_counts();
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL,
             "Socket: AvailableBufferPoolCount=%d TotalBufferPoolCount=%d Used=%d Pending=%d %s|%d", tcp.Available,
             tcp.Total, int(__atomic_load_n(&e->UsedBufferPoolCount, __ATOMIC_RELAXED)), __mv__queuecount(e->bufferQueue),
             __func__, __LINE__);
    int threads = 0;
    {
        std::lock_guard g(e->ThreadLock);
        for (MV_SocketThread* t = e->ThreadHead; t; t = t->Next) ++threads;
        for (MV_SocketThread* t = e->ThreadHead; t; t = t->Next) {
            long total = t->TotalReads;
            t->LastReads = int(total - t->LastTotalReads);
            t->LastTotalReads = total;
            __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL,
                     "Socket: SocketThread index=%d fd-count=%d total-reads=%010ld last-reads=%06d TT=%d", t->index,
                     t->count.load(), total, t->LastReads.load(), threads);
        }
    }
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "Socket: TotalSocketsCount=%d SocketClosedCount=%d",
             e->TotalSocketsCount.load(), e->SocketClosedCount.load());
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "Socket: OutboundLimitCloseCount=%d",
             e->OutboundLimitCloseCount.load());
    __mv__per_log_pending_queuecount("SCTP ", e->queueSctpSocketBufferPoolObject);
    std::vector<MV_Socket*> all;
    {
        std::lock_guard g(e->SocketLock);
        for (MV_Socket* s = e->SocketHead; s; s = s->Next) all.push_back(s);
    }
    for (MV_Socket* s : all) {
        printSocketLine("Server", s, s->ChildSocketCount);
        std::lock_guard g(s->ChildLock);
        for (MV_Socket* c = s->ChildHead; c; c = c->Next) printSocketLine("SerChi", c, s->ChildSocketCount);
    }
}

// ---------------------------------------------------------------- helpers

int __mv_socket_engine_get_fd(MV_Socket* siSocket) { return siSocket ? siSocket->fd.load() : -1; }
int __mv_socket_engine_is_connected(MV_Socket* siSocket) { return siSocket ? siSocket->isConnected.load() : 0; }
int __mv_socket_engine_is_active(MV_Socket* siSocket) { return siSocket ? siSocket->isActive.load() : 0; }
int __mv_socket_engine_is_alpn_negotiated(MV_Socket*) { return 1; }

int __mv_socket_engine__get_client_ip_port(MV_Socket* socket, char* str, int* port) {
    if (!socket || !str) return 0;
    if (socket->ai_family == AF_INET6) {
        inet_ntop(AF_INET6, &socket->cli_addr6.sin6_addr, str, INET6_ADDRSTRLEN);
        if (port) *port = ntohs(socket->cli_addr6.sin6_port);
        return 6;
    }
    if (socket->ai_family == AF_INET) {
        inet_ntop(AF_INET, &socket->cli_addr.sin_addr, str, INET_ADDRSTRLEN);
        if (port) *port = ntohs(socket->cli_addr.sin_port);
        return 4;
    }
    str[0] = 0;
    return 0;
}

int __mv_socket_engine_socket_error_code(MV_Socket* siSocket) {
    int err = 0;
    socklen_t len = sizeof err;
    if (!siSocket || getsockopt(siSocket->fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) return errno;
    return err;
}

uint32_t __mv_socket__get_sin6_scope_id(const in6_addr* addr) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return 0;
    uint32_t scope = 0;
    for (ifaddrs* i = list; i; i = i->ifa_next) {
        if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET6) continue;
        auto* a6 = reinterpret_cast<sockaddr_in6*>(i->ifa_addr);
        if (memcmp(&a6->sin6_addr, addr, sizeof *addr) == 0) {
            scope = if_nametoindex(i->ifa_name);
            break;
        }
    }
    freeifaddrs(list);
    return scope;
}

bool __mv_socket_engine___make_addr(const char* ip, int version, int port, sockaddr_storage* out, socklen_t* len) {
    memset(out, 0, sizeof *out);
    if (version == 6) {
        auto* a6 = reinterpret_cast<sockaddr_in6*>(out);
        a6->sin6_family = AF_INET6;
        a6->sin6_port = htons(uint16_t(port));
        if (ip && *ip && inet_pton(AF_INET6, ip, &a6->sin6_addr) != 1) return false;
        if (ip && *ip && IN6_IS_ADDR_LINKLOCAL(&a6->sin6_addr)) a6->sin6_scope_id = __mv_socket__get_sin6_scope_id(&a6->sin6_addr);
        *len = sizeof(sockaddr_in6);
        return true;
    }
    auto* a4 = reinterpret_cast<sockaddr_in*>(out);
    a4->sin_family = AF_INET;
    a4->sin_port = htons(uint16_t(port));
    if (ip && *ip && inet_pton(AF_INET, ip, &a4->sin_addr) != 1) return false;
    *len = sizeof(sockaddr_in);
    return true;
}

bool __mv_socket_engine___ending() { return ending.load(); }

void __mv_socket_engine___startup_fault(const char* fmt, ...) {
    char text[600];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    fputs(text, stdout);
    fflush(stdout);
    size_t n = strlen(text);
    while (n && text[n - 1] == '\n') text[--n] = 0;
    __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "%s", text);
}

int __mv_socket_engine___connect_fail_level(MV_Socket* s, int reason) {
    int last = s->LastConnectError.exchange(reason);
    return last == reason ? MV_LOG_ERROR : MV_LOG_CRITICAL;
}

int __mv_socket_engine_get_generation(MV_Socket* siSocket) { return siSocket ? siSocket->GenId.load() : -1; }

int __mv_socket_engine_send_on_connection(MV_Socket* siSocket, int genId, const void* buff, int len) {
    if (!siSocket || genId < 0) return -1;
    switch (siSocket->TransportType) {
    case MV_TRANSPORT_TCP: return __mv_socket_engine___tcp_send(siSocket, genId, buff, len);
    case MV_TRANSPORT_SCTP: return __mv_socket_engine___sctp_send_gen(siSocket, genId, buff, len);
    case MV_TRANSPORT_UDP: return __mv_socket_engine___udp_send_gen(siSocket, genId, buff, len);
    default: return -1;
    }
}

int __mv_socket_engine_close_connection(MV_Socket* siSocket, int genId) {
    if (!siSocket || genId < 0) return -1;
    if (siSocket->TransportType == MV_TRANSPORT_TCP) return __mv_socket_engine___tcp_close(siSocket, genId);
    // SCTP and UDP records change their descriptor only under FdLock, with the generation.
    {
        std::shared_lock f(siSocket->FdLock);
        if (siSocket->GenId != genId) return 0;
    }
    return siSocket->Close ? siSocket->Close(siSocket) : -1;
}

int __mv_socket_engine_abort_all() {
    auto* e = __mv_socketEngine;
    if (!e) return 0;
    // First, so that a connect finishing meanwhile either is seen below or sees this.
    ending = true;
    std::vector<MV_Socket*> all;
    {
        std::lock_guard g(e->SocketLock);
        for (MV_Socket* s = e->SocketHead; s; s = s->Next) all.push_back(s);
    }
    for (size_t i = 0, n = all.size(); i < n; ++i) {
        std::lock_guard g(all[i]->ChildLock);
        for (MV_Socket* c = all[i]->ChildHead; c; c = c->Next) all.push_back(c);
    }
    int ended = 0;
    for (MV_Socket* s : all) {
        if (s->isListner) continue;
        if (s->TransportType == MV_TRANSPORT_TCP) ended += __mv_socket_engine___tcp_abort(s);
        else if (s->TransportType == MV_TRANSPORT_SCTP) ended += __mv_socket_engine___sctp_abort(s);
    }
    return ended;
}

void __mv_socket_engine_socket_read_lock(MV_Socket* siSocket) { siSocket->BufferReadLock.lock(); }
void __mv_socket_engine_socket_read_unlock(MV_Socket* siSocket) { siSocket->BufferReadLock.unlock(); }

void __mv_socket_engine__set_sendlock(MV_Socket* siSocket, int i) {
    if (siSocket) siSocket->UseSendLock = i;
}

// ---------------------------------------------------------------- servers

namespace {
void* serverThread(void* arg) {
    auto* s = static_cast<MV_Socket*>(arg);
    switch (s->TransportType) {
    case MV_TRANSPORT_TCP: __mv_socket_engine___tcp_server_loop(s); break;
    case MV_TRANSPORT_UDP: __mv_socket_engine___udp_server_loop(s); break;
    case MV_TRANSPORT_SCTP: __mv_socket_engine___sctp_server_loop(s); break;
    default: break;
    }
    return nullptr;
}
}  // namespace

MV_Socket* __mv_socket_engine_create_server_socket(const char* ip, int ipversion, int transportType, int port, int tls,
                                                   const char*, const char*) {
    MV_Socket* s = __mv_socket_engine___new_socket();
    s->isHost = 1;
    s->isListner = 1;
    s->TransportType = uint8_t(transportType);
    s->IPVersion = ipversion == 6 ? 6 : 4;
    s->IPPort = uint32_t(port);
    s->TlsEnabled = tls;
    if (ip && *ip) {
        snprintf(s->IPAddresses[0].IP, sizeof s->IPAddresses[0].IP, "%s", ip);
        copyHost(s, ip);
        s->IPAddressCount = 1;
    }
    if (transportType == MV_TRANSPORT_TCP) __mv_socket_engine___set_tcp_operations(s);
    else if (transportType == MV_TRANSPORT_UDP) __mv_socket_engine___set_udp_operations(s);
    else if (transportType == MV_TRANSPORT_SCTP) __mv_socket_engine___set_sctp_operations(s);
    __mv_socket_engine___add_socket(s);
    return s;
}

int __mv_socket_engine_start_server_socket(MV_Socket* siSocket) {
    if (!siSocket) return -1;
    if (siSocket->TransportType < MV_TRANSPORT_TCP || siSocket->TransportType > MV_TRANSPORT_SCTP) {
        printf("invalid transport type\n");
        return -1;
    }
    int expected = 0;
    if (!siSocket->isStarted.compare_exchange_strong(expected, 1)) return 0;
    __mv_create_pthread2(serverThread, siSocket, "mv_s_socket");
    usleep(100000);
    return 1;
}

MV_Socket* __mv_socket_engine__udp4_start_socket(const char* ip, int port, fn_mv_on_udp_packet OnUdpPacketReceive) {
    MV_Socket* s = __mv_socket_engine_create_server_socket(ip, 4, MV_TRANSPORT_UDP, port, 0, nullptr, nullptr);
    s->OnUdpPacketReceive = OnUdpPacketReceive;
    __mv_socket_engine_start_server_socket(s);
    return s;
}
