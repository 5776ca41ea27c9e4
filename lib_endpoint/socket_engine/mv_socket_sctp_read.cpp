// The three SCTP read models and the notifications. Every data message goes by
// force to the one SCTP delivery queue, whose single thread keeps arrival order.
//   UseEPoll 0: a thread "mv_r_socket" per socket, which also connects a client.
//   UseEPoll 1: InitialSCTPEPollThreads edge-triggered epoll threads.
//   UseEPoll 2: InitialPollThreads threads taking sockets by round robin.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "mv_socket_internal.h"

namespace {

constexpr int kSctpEpollEvents = 20;
constexpr int kUnknownEventLimit = 10;

const MV_SctpBackend* backend() { return __mv_sctp_backend(); }

bool isClient(const MV_Socket* s) { return !s->isHost && !s->Parent; }

// ---------------------------------------------------------------- UseEPoll 0

void* ownReader(void* arg) {
    auto* t = static_cast<MV_SocketThread*>(arg);
    MV_Socket* s = t->usiSocket;
    bool wasConnected = s->isConnected;
    for (;;) {
        if (isClient(s) && !s->isConnected) {
            if (s->disableClientAutoReConnect) {
                usleep(999999);
                continue;
            }
            // After a lost association wait a round, so a peer that just shut down
            // is not hammered.
            if (wasConnected) usleep(999999);
            wasConnected = false;
            if (__mv_socket_engine_sctp_connect_socket(s) != 1) {
                for (int i = 0; i < 5 && !s->isConnected; ++i) usleep(999999);
                continue;
            }
        }
        if (!isClient(s)) {
            // A child's reader ends with its association; the decision is taken under
            // the lock that the next accept's attach takes, so the child is never left
            // with no reader or with two.
            std::lock_guard g(__mv_socketEngine->lkSctpThreadLock);
            if (!s->isActive) {
                t->count = 0;
                return nullptr;
            }
        }
        int fd = s->fd;
        if (fd < 1 || !s->isActive) {
            usleep(10000);
            continue;
        }
        wasConnected = true;
        pollfd pf{fd, POLLIN, 0};
        int r = poll(&pf, 1, 1000);
        if (r <= 0 || (pf.revents & POLLNVAL)) continue;
        if (s->fd != fd) continue;
        __mv_socket_engine___sctp_read_one(s, t, 0);
    }
    return nullptr;
}

void startOwnReader(MV_Socket* s) {
    auto* e = __mv_socketEngine;
    MV_SocketThread* t;
    {
        std::lock_guard g(e->lkSctpThreadLock);
        // count is 1 while the thread runs (connect clears isActive for its own reasons).
        if (s->clientReadThread && s->clientReadThread->count) return;
        t = __mv_arena_new<MV_SocketThread>();
        t->usiSocket = s;
        t->isActive = 1;
        t->count = 1;
        t->fd = s->fd.load();
        int index = 0;
        for (MV_SocketThread* x = e->lkSctpThreadHead; x; x = x->Next) ++index;
        t->index = index;
        if (e->lkSctpThreadCurrent) e->lkSctpThreadCurrent->Next = t;
        else e->lkSctpThreadHead = t;
        e->lkSctpThreadCurrent = t;
        s->clientReadThread = t;
    }
    __mv_create_pthread2(ownReader, t, "mv_r_socket");
}

// ---------------------------------------------------------------- UseEPoll 1

void* epollReader(void* arg) {
    auto* t = static_cast<MV_SocketThread*>(arg);
    epoll_event events[kSctpEpollEvents];
    for (;;) {
        int n = epoll_wait(t->epoll_fd, events, kSctpEpollEvents, 1000);
        for (int i = 0; i < n; ++i) {
            auto* s = static_cast<MV_Socket*>(events[i].data.ptr);
            uint32_t ev = events[i].events;
            if (ev & EPOLLIN) {
                // Edge triggered: read until the socket has nothing more.
                while (s->isActive && __mv_socket_engine___sctp_read_one(s, t, 1) == 1) {
                }
            } else if (ev & EPOLLHUP) {
                MV_SOK_LOG(MV_LOG_CRITICAL, "SCTP EPOLLHUP  %s|%s|%d", __FILE_NAME__, __func__, __LINE__);
            } else if (ev & EPOLLERR) {
                MV_SOK_LOG(MV_LOG_CRITICAL, "SCTP EPOLLERR  %s|%s|%d", __FILE_NAME__, __func__, __LINE__);
            } else {
                MV_SOK_LOG(MV_LOG_CRITICAL, "SCTP RECV NOT-SPECIFIC  %s|%s|%d", __FILE_NAME__, __func__, __LINE__);
            }
        }
    }
    return nullptr;
}

// Called with lkEpollSctpThreadLock held.
void startEpollReaders() {
    auto* e = __mv_socketEngine;
    for (int i = 0; i < e->InitialSCTPEPollThreads; ++i) {
        auto* t = __mv_arena_new<MV_SocketThread>();
        t->is_epoll_thread = 1;
        t->epoll_fd = epoll_create1(EPOLL_CLOEXEC);
        t->index = i;
        t->isActive = 1;
        if (e->lkEpollSctpThreadCurrent) e->lkEpollSctpThreadCurrent->Next = t;
        else e->lkEpollSctpThreadHead = t;
        e->lkEpollSctpThreadCurrent = t;
        ++e->EPollThreadsCount;
        __mv_create_pthread2(epollReader, t, "mv_r_socket");
    }
}

void attachEpoll(MV_Socket* s) {
    auto* e = __mv_socketEngine;
    MV_SocketThread* chosen = nullptr;
    {
        std::lock_guard g(e->lkEpollSctpThreadLock);
        if (!e->lkEpollSctpThreadHead) startEpollReaders();
        for (MV_SocketThread* t = e->lkEpollSctpThreadHead; t; t = t->Next)
            if (!chosen || t->epollSocketFdCount < chosen->epollSocketFdCount) chosen = t;
        if (!chosen) return;
        std::lock_guard c(chosen->epollSocketFdCountLock);
        ++chosen->epollSocketFdCount;
    }
    s->epollThread = chosen;
    s->epoll_fd = chosen->epoll_fd;
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLERR | EPOLLHUP | EPOLLET;
    ev.data.ptr = s;
    {
        // A close between the connect and here may have given the number to another socket.
        std::shared_lock f(s->FdLock);
        int fd = s->fd;
        if (fd > 0 && epoll_ctl(chosen->epoll_fd, EPOLL_CTL_ADD, fd, &ev) != 0)
            MV_SOK_LOG(MV_LOG_ERROR, "attach failed for sctp socket fd=%d to epoll index=%d errno=%d <%s|%s|%d>", fd,
                       chosen->index, errno, __FILE_NAME__, __func__, __LINE__);
    }
    ++e->TotalSocketsCount;
}

// ---------------------------------------------------------------- UseEPoll 2

// The sockets of the poll model, in order of first attach; never shrinks, and
// never destroyed, since poll threads read it until the process ends.
std::vector<MV_Socket*>& pollSockets = *new std::vector<MV_Socket*>;
size_t pollNext = 0;

// Takes the next free socket after the last one taken. A socket is held by one
// poll thread at a time (through epollThread, unused in this model), so that its
// messages are read, and delivered, in order.
MV_Socket* takePollSocket(MV_SocketThread* t) {
    auto* e = __mv_socketEngine;
    std::lock_guard g(e->lkPollSctpThreadLock);
    size_t n = pollSockets.size();
    for (size_t k = 0; k < n; ++k) {
        size_t i = (pollNext + k) % n;
        MV_Socket* s = pollSockets[i];
        if (s->UseEPoll != 2 || !s->isActive || s->isListner || s->fd < 1 || s->epollThread) continue;
        s->epollThread = t;
        pollNext = i + 1;
        e->lkPollLastPolledSocket = s;
        return s;
    }
    return nullptr;
}

void givePollSocket(MV_Socket* s) {
    std::lock_guard g(__mv_socketEngine->lkPollSctpThreadLock);
    s->epollThread = nullptr;
}

void* pollReader(void* arg) {
    auto* t = static_cast<MV_SocketThread*>(arg);
    MV_Socket* s = nullptr;
    for (;;) {
        if (!s) s = takePollSocket(t);
        if (!s) {
            __mv_nanosleep(16666666);
            continue;
        }
        int fd = s->fd;
        bool stay = false;
        if (fd > 0 && s->isActive) {
            pollfd pf{fd, POLLIN, 0};
            int r = poll(&pf, 1, 1000);
            if (r > 0 && !(pf.revents & POLLNVAL) && s->fd == fd)
                stay = __mv_socket_engine___sctp_read_one(s, t, 2) == 1;
        }
        if (!stay) {
            givePollSocket(s);
            s = nullptr;
        }
    }
    return nullptr;
}

void attachPoll(MV_Socket* s) {
    auto* e = __mv_socketEngine;
    bool start = false;
    {
        std::lock_guard g(e->lkPollSctpThreadLock);
        bool known = false;
        for (MV_Socket* x : pollSockets) known = known || x == s;
        if (!known) pollSockets.push_back(s);
        start = e->lkPollSctpThreadHead == nullptr;
        if (start) {
            for (int i = 0; i < e->InitialPollThreads; ++i) {
                auto* t = __mv_arena_new<MV_SocketThread>();
                t->is_poll_thread = 1;
                t->index = i;
                t->isActive = 1;
                if (e->lkPollSctpThreadCurrent) e->lkPollSctpThreadCurrent->Next = t;
                else e->lkPollSctpThreadHead = t;
                e->lkPollSctpThreadCurrent = t;
                ++e->PollThreadsCount;
            }
        }
    }
    if (start)
        for (MV_SocketThread* t = e->lkPollSctpThreadHead; t; t = t->Next) __mv_create_pthread2(pollReader, t, "mv_r_socket");
    ++e->TotalSocketsCount;
}

}  // namespace

void __mv_socket_engine___sctp_attach(MV_Socket* s) {
    switch (s->UseEPoll) {
    case 1: attachEpoll(s); break;
    case 2: attachPoll(s); break;
    default: startOwnReader(s); break;
    }
}

int __mv_socket_engine_sctp_client_socket_start_read_thread(MV_Socket* siSocket) {
    if (!siSocket) return -1;
    int expected = 0;
    if (!siSocket->isStarted.compare_exchange_strong(expected, 1)) return 0;
    if (siSocket->UseEPoll == 1 || siSocket->UseEPoll == 2) {
        __mv_socket_engine___wake_reconnect();
        return 1;
    }
    startOwnReader(siSocket);
    return 1;
}

int __mv_socket_engine___sctp_on_notification(MV_Socket* s, const MV_SctpRecvInfo& info, int len, int epollModel) {
    switch (info.snType) {
    case MV_SCTP_SN_ASSOC_CHANGE:
        s->peer_max_o_streams = info.outStreams;
        s->peer_max_i_streams = info.inStreams;
        MV_SOK_LOG(MV_LOG_INFO,
                   "SCTP_ASSOC_CHANGE Event Received sac_assoc_id=%d  sac_outbound_streams=%d  sac_inbound_streams=%d "
                   "<%s|%s|%d>",
                   int(info.assocId), info.outStreams, info.inStreams, __FILE_NAME__, __func__, __LINE__);
        return 0;
    case MV_SCTP_SN_PEER_ADDR_CHANGE:
        MV_SOK_LOG(MV_LOG_INFO, "SCTP_PEER_ADDR_CHANGE Notified <%s|%s|%d>", __FILE_NAME__, __func__, __LINE__);
        return 0;
    case MV_SCTP_SN_SEND_FAILED:
        MV_SOK_LOG(MV_LOG_ERROR, "SCTP_SEND_FAILED_EVENT Event Received ssf_assoc_id=%d closing connection  <%s|%s|%d>",
                   int(info.assocId), __FILE_NAME__, __func__, __LINE__);
        __mv_socket_engine___sctp_close(s, 0);
        return 1;
    case MV_SCTP_SN_REMOTE_ERROR:
        MV_SOK_LOG(MV_LOG_ERROR, "SCTP_REMOTE_ERROR Event Received sre_assoc_id=%d closing=%d  <%s|%s|%d>",
                   int(info.assocId), 1, __FILE_NAME__, __func__, __LINE__);
        __mv_socket_engine___sctp_close(s, 0);
        return 1;
    case MV_SCTP_SN_SHUTDOWN_EVENT:
        MV_SOK_LOG(MV_LOG_ERROR, "SCTP_SHUTDOWN_EVENT Notified, closing connection <%s|%s|%d>", __FILE_NAME__, __func__,
                   __LINE__);
        __mv_socket_engine___sctp_close(s, 0);
        return 1;
    default: {
        int count = ++s->UnknownSCTPEventCount;
        if (epollModel == 1)
            MV_SOK_LOG(MV_LOG_ERROR, "Unknown Event Received %d with len=%d  <%s|%s|%d>", info.snType, len, __FILE_NAME__,
                       __func__, __LINE__);
        else
            MV_SOK_LOG(MV_LOG_ERROR, "SCTP MSG_NOTIFICATION - Event Received with event=%d, Closing Socket  <%s|%s|%d>",
                       info.snType, __FILE_NAME__, __func__, __LINE__);
        if (count <= kUnknownEventLimit) return 0;
        if (epollModel != 1)
            MV_SOK_LOG(MV_LOG_ERROR, "SCTP unknownNotification=%d exceeded closing=%d  <%s|%s|%d>", count, 1,
                       __FILE_NAME__, __func__, __LINE__);
        __mv_socket_engine___sctp_close(s, 0);
        return 1;
    }
    }
}

int __mv_socket_engine___sctp_read_one(MV_Socket* s, MV_SocketThread* t, int epollModel) {
    const MV_SctpBackend* be = backend();
    if (!be) return -1;
    MV_SocketSCTPBuffer* b = __mv_socket_engine_get_sctp_socket_buffer();
    sockaddr_storage from{};
    socklen_t flen = sizeof from;
    MV_SctpRecvInfo info{};
    int flags = 0, fd, err;
    ssize_t n;
    {
        std::shared_lock f(s->FdLock);
        fd = s->fd;
        if (fd < 1) {
            __mv_socket_engine_release_sctp_socket_buffer(b);
            return -1;
        }
        n = be->RecvMsg(fd, b->buff, MV_SOCKET_SCTP_BUFFER_SIZE, reinterpret_cast<sockaddr*>(&from), &flen, &info,
                        &flags);
        err = errno;
    }
    if (n < 0 && (err == EAGAIN || err == EWOULDBLOCK || err == EINTR)) {
        __mv_socket_engine_release_sctp_socket_buffer(b);
        return 0;
    }
    if (n <= 0) {
        __mv_socket_engine_release_sctp_socket_buffer(b);
        // A descriptor closed under us by a sender or the owner is no read failure.
        if (s->fd != fd) return -1;
        MV_SOK_LOG(MV_LOG_ERROR, "SCTP error ret=%d n=%d, closing connection <%s|%s|%d>", int(n), err, __FILE_NAME__,
                   __func__, __LINE__);
        __mv_socket_engine___sctp_close(s, int(n));
        return -1;
    }
    if (flags & MV_SCTP_MSG_NOTIFICATION) {
        __mv_socket_engine_release_sctp_socket_buffer(b);
        return __mv_socket_engine___sctp_on_notification(s, info, int(n), epollModel) ? -1 : 1;
    }
    // A message larger than the buffer comes in pieces; a piece handed on as a
    // message would be decoded as one, so the whole message is dropped instead.
    bool eor = flags & MV_SCTP_MSG_EOR;
    if (s->SctpDiscardToEOR || !eor) {
        if (!s->SctpDiscardToEOR)
            MV_SOK_LOG(MV_LOG_ERROR, "sctp message longer than %d bytes on stream=%u dropped fd=%d <%s|%s|%d>",
                       MV_SOCKET_SCTP_BUFFER_SIZE, unsigned(info.stream), fd, __FILE_NAME__, __func__, __LINE__);
        s->SctpDiscardToEOR = eor ? 0 : 1;
        __mv_socket_engine_release_sctp_socket_buffer(b);
        return 1;
    }
    b->pos = 0;
    b->len = int(n);
    b->ppid = ntohl(info.ppid);
    b->streamId = info.stream;
    b->siThread = t;
    b->siSocket = s;
    b->clientlen = flen;
    if (from.ss_family == AF_INET6) memcpy(&b->clientaddr6, &from, sizeof b->clientaddr6);
    else memcpy(&b->clientaddr, &from, sizeof b->clientaddr);
    ++s->TotalReads;
    ++s->ReceivedMessages;
    if (t) ++t->TotalReads;
    s->UnknownSCTPEventCount = 0;
    __mv_core_queue_item_force(__mv_socketEngine->queueSctpSocketBufferPoolObject, b, 1);
    return 1;
}
