// The userspace SCTP stack, for kernels without SCTP. It speaks SCTP straight on IP
// through raw sockets (root only) or inside UDP (RFC 6951).
//
// Each of its sockets is handed out as an eventfd, so that the engine's poll and
// epoll read threads serve both stacks alike: the stack's upcall makes the eventfd
// readable when the socket can be read or has failed, and a read that finds nothing
// drains it and looks once more, so no wake-up is lost between the two.
//
// A descriptor stays open while any call is inside the stack on its socket; the
// last one out closes the socket and the eventfd, so a close racing a send or a read
// never frees what the other still uses, and the number is not reused before then.
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <usrsctp.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "mv_core.h"
#include "mv_sctp_backend.h"

namespace {

struct UserSock {
    struct socket* so;
    int efd;
    std::atomic<int> refs;
};

constexpr int kMaxFd = 65536;
std::mutex tableLock;
UserSock* table[kMaxFd];

std::atomic<uint16_t> remoteEncapsPort{0};

UserSock* acquire(int fd) {
    if (fd < 0 || fd >= kMaxFd) return nullptr;
    std::lock_guard g(tableLock);
    UserSock* u = table[fd];
    if (u) u->refs.fetch_add(1);
    return u;
}

void releaseRef(UserSock* u) {
    if (u->refs.fetch_sub(1) != 1) return;
    usrsctp_close(u->so);
    close(u->efd);
    delete u;
}

// RAII over acquire/releaseRef; an unknown descriptor sets EBADF.
class Ref {
public:
    explicit Ref(int fd) : u_(acquire(fd)) {
        if (!u_) errno = EBADF;
    }
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    ~Ref() {
        if (u_) releaseRef(u_);
    }
    explicit operator bool() const { return u_ != nullptr; }
    UserSock* operator->() const { return u_; }

private:
    UserSock* u_;
};

void signal(int efd) {
    uint64_t one = 1;
    ssize_t w = write(efd, &one, sizeof one);
    (void)w;  // a full counter is still readable
}

void drain(int efd) {
    uint64_t v;
    ssize_t r = read(efd, &v, sizeof v);
    (void)r;
}

void upcall(struct socket* so, void* arg, int) {
    int events = usrsctp_get_events(so);
    if (!(events & (SCTP_EVENT_READ | SCTP_EVENT_ERROR))) return;
    int fd = int(reinterpret_cast<intptr_t>(arg));
    // Under the table lock the eventfd cannot be closed while we write to it; the
    // stack is never called with that lock held, so this cannot deadlock.
    std::lock_guard g(tableLock);
    if (fd >= 0 && fd < kMaxFd && table[fd] && table[fd]->so == so) signal(table[fd]->efd);
}

int setOpt(struct socket* so, int level, int name, const void* v, socklen_t len) {
    return usrsctp_setsockopt(so, level, name, v, len);
}

// Gives a stack socket its eventfd and table row; closes the socket on failure.
int adopt(struct socket* so, int family) {
    int efd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (efd < 0 || efd >= kMaxFd) {
        int e = efd < 0 ? errno : EMFILE;
        if (efd >= 0) close(efd);
        usrsctp_close(so);
        errno = e;
        return -1;
    }
    auto* u = new UserSock{so, efd, {1}};
    {
        std::lock_guard g(tableLock);
        table[efd] = u;
    }
    int on = 1;
    setOpt(so, IPPROTO_SCTP, SCTP_RECVRCVINFO, &on, sizeof on);
    if (uint16_t port = remoteEncapsPort.load()) {
        sctp_udpencaps enc{};
        enc.sue_address.ss_family = sa_family_t(family);  // the wildcard of the family: every path
        enc.sue_port = htons(port);
        if (setOpt(so, IPPROTO_SCTP, SCTP_REMOTE_UDP_ENCAPS_PORT, &enc, sizeof enc) != 0)
            __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_ERROR, "setting the remote UDP port %u failed errno=%d %s|%s|%d",
                     port, errno, __FILE_NAME__, __func__, __LINE__);
    }
    usrsctp_set_upcall(so, upcall, reinterpret_cast<void*>(intptr_t(efd)));
    // Anything that arrived before the upcall was set would otherwise wait unseen.
    signal(efd);
    return efd;
}

int uSocket(int family) {
    struct socket* so = usrsctp_socket(family, SOCK_STREAM, IPPROTO_SCTP, nullptr, nullptr, 0, nullptr);
    if (!so) return -1;
    return adopt(so, family);
}

int uBindX(int fd, sockaddr* addrs, int count, int how) {
    Ref r(fd);
    if (!r) return -1;
    return usrsctp_bindx(r->so, addrs, count, how == MV_SCTP_BINDX_REM ? SCTP_BINDX_REM_ADDR : SCTP_BINDX_ADD_ADDR);
}

int uListen(int fd, int backlog) {
    Ref r(fd);
    if (!r) return -1;
    return usrsctp_listen(r->so, backlog);
}

int uAccept(int fd, sockaddr* peer, socklen_t* len) {
    struct socket* so;
    {
        Ref r(fd);
        if (!r) return -1;
        so = usrsctp_accept(r->so, peer, len);
    }
    if (!so) return -1;
    return adopt(so, peer && len && *len >= sizeof(sockaddr_in6) ? AF_INET6 : AF_INET);
}

// The stack's connectx only starts the handshake; callers of a blocking socket
// expect it finished, as the kernel's is, so wait for the association to stand or
// to be given up (after the INIT attempts).
int uConnectX(int fd, sockaddr* addrs, int count) {
    Ref r(fd);
    if (!r) return -1;
    sctp_assoc_t id = 0;
    if (usrsctp_connectx(r->so, addrs, count, &id) != 0) return -1;
    if (usrsctp_get_non_blocking(r->so) == 1) {
        errno = EINPROGRESS;
        return -1;
    }
    for (;;) {
        sctp_status st{};
        socklen_t len = sizeof st;
        if (usrsctp_getsockopt(r->so, IPPROTO_SCTP, SCTP_STATUS, &st, &len) != 0) break;
        if (st.sstat_state == SCTP_ESTABLISHED) return 0;
        if (st.sstat_state == SCTP_CLOSED) break;
        usleep(2000);
    }
    errno = ECONNREFUSED;
    return -1;
}

// The stack frees its port when the socket closes; there is nothing to reuse.
int uSetReuseAddr(int fd) {
    Ref r(fd);
    return r ? 0 : -1;
}

int uSetInitMsg(int fd, uint16_t ostreams, uint16_t istreams, uint16_t attempts) {
    Ref r(fd);
    if (!r) return -1;
    sctp_initmsg im{};
    im.sinit_num_ostreams = ostreams;
    im.sinit_max_instreams = istreams;
    im.sinit_max_attempts = attempts;
    return setOpt(r->so, IPPROTO_SCTP, SCTP_INITMSG, &im, sizeof im);
}

int uSetEvents(int fd) {
    Ref r(fd);
    if (!r) return -1;
    constexpr uint16_t types[] = {SCTP_ASSOC_CHANGE, SCTP_PEER_ADDR_CHANGE, SCTP_SEND_FAILED_EVENT, SCTP_REMOTE_ERROR,
                                  SCTP_SHUTDOWN_EVENT};
    for (uint16_t t : types) {
        sctp_event ev{};
        ev.se_assoc_id = SCTP_FUTURE_ASSOC;
        ev.se_type = t;
        ev.se_on = 1;
        if (setOpt(r->so, IPPROTO_SCTP, SCTP_EVENT, &ev, sizeof ev) != 0) return -1;
    }
    int on = 1;
    return setOpt(r->so, IPPROTO_SCTP, SCTP_RECVRCVINFO, &on, sizeof on);
}

int uSetNoDelay(int fd, int on) {
    Ref r(fd);
    if (!r) return -1;
    return setOpt(r->so, IPPROTO_SCTP, SCTP_NODELAY, &on, sizeof on);
}

int uSetNonBlocking(int fd, int on) {
    Ref r(fd);
    if (!r) return -1;
    return usrsctp_set_non_blocking(r->so, on);
}

int uGetStatus(int fd, MV_SctpStatus* status) {
    Ref r(fd);
    if (!r) return -1;
    sctp_status st{};
    socklen_t len = sizeof st;
    if (usrsctp_getsockopt(r->so, IPPROTO_SCTP, SCTP_STATUS, &st, &len) != 0) return -1;
    status->outstreams = st.sstat_outstrms;
    status->instreams = st.sstat_instrms;
    status->state = st.sstat_state;
    return 0;
}

int uSetHeartbeat(int fd, uint32_t intervalMs, uint32_t* inForce) {
    Ref r(fd);
    if (!r) return -1;
    // The stack wants the wildcard address of a family for "every path"; which
    // family depends on the socket, so take the one it accepts.
    int rc = -1;
    sa_family_t fam = AF_INET;
    for (sa_family_t f : {AF_INET, AF_INET6}) {
        sctp_paddrparams pp{};
        pp.spp_address.ss_family = f;
        pp.spp_flags = SPP_HB_ENABLE;
        pp.spp_hbinterval = intervalMs;
        rc = setOpt(r->so, IPPROTO_SCTP, SCTP_PEER_ADDR_PARAMS, &pp, sizeof pp);
        fam = f;
        if (rc == 0 || errno != EAFNOSUPPORT) break;
    }
    if (rc != 0) return -1;
    if (inForce) {
        sctp_paddrparams got{};
        got.spp_address.ss_family = fam;
        socklen_t len = sizeof got;
        *inForce = usrsctp_getsockopt(r->so, IPPROTO_SCTP, SCTP_PEER_ADDR_PARAMS, &got, &len) == 0 ? got.spp_hbinterval
                                                                                                    : 0;
    }
    return 0;
}

// The stack numbers its notifications after RFC 6458; the engine uses the kernel's.
uint16_t kernelNumber(uint16_t t) {
    switch (t) {
    case SCTP_ASSOC_CHANGE: return MV_SCTP_SN_ASSOC_CHANGE;
    case SCTP_PEER_ADDR_CHANGE: return MV_SCTP_SN_PEER_ADDR_CHANGE;
    case SCTP_SEND_FAILED:
    case SCTP_SEND_FAILED_EVENT: return MV_SCTP_SN_SEND_FAILED;
    case SCTP_REMOTE_ERROR: return MV_SCTP_SN_REMOTE_ERROR;
    case SCTP_SHUTDOWN_EVENT: return MV_SCTP_SN_SHUTDOWN_EVENT;
    case SCTP_PARTIAL_DELIVERY_EVENT: return 32774;
    case SCTP_ADAPTATION_INDICATION: return 32775;
    case SCTP_AUTHENTICATION_EVENT: return 32776;
    case SCTP_SENDER_DRY_EVENT: return 32777;
    case SCTP_STREAM_RESET_EVENT: return 32778;
    case SCTP_ASSOC_RESET_EVENT: return 32779;
    case SCTP_STREAM_CHANGE_EVENT: return 32780;
    default: return uint16_t(0x8100 + t);  // no kernel counterpart
    }
}

void readNotification(const void* buf, ssize_t n, MV_SctpRecvInfo* info) {
    const auto* sn = static_cast<const sctp_notification*>(buf);
    if (n < ssize_t(sizeof(sn->sn_header))) return;
    uint16_t t = sn->sn_header.sn_type;
    info->snType = kernelNumber(t);
    if (t == SCTP_ASSOC_CHANGE && n >= ssize_t(sizeof(sctp_assoc_change))) {
        info->assocId = sn->sn_assoc_change.sac_assoc_id;
        info->outStreams = sn->sn_assoc_change.sac_outbound_streams;
        info->inStreams = sn->sn_assoc_change.sac_inbound_streams;
        info->state = sn->sn_assoc_change.sac_state;
    } else if (t == SCTP_SEND_FAILED_EVENT && n >= ssize_t(sizeof(sctp_send_failed_event))) {
        info->assocId = sn->sn_send_failed_event.ssfe_assoc_id;
    } else if (t == SCTP_REMOTE_ERROR && n >= ssize_t(sizeof(sctp_remote_error))) {
        info->assocId = sn->sn_remote_error.sre_assoc_id;
    }
}

ssize_t uRecvMsg(int fd, void* buf, size_t len, sockaddr* from, socklen_t* fromlen, MV_SctpRecvInfo* info,
                 int* msgFlags) {
    Ref r(fd);
    if (!r) return -1;
    for (int attempt = 0;; ++attempt) {
        sctp_rcvinfo rcv{};
        socklen_t infolen = sizeof rcv;
        unsigned int infotype = 0;
        int flags = MSG_DONTWAIT;
        socklen_t fl = fromlen ? *fromlen : 0;
        ssize_t n = usrsctp_recvv(r->so, buf, len, from, fromlen ? &fl : nullptr, &rcv, &infolen, &infotype, &flags);
        if (n >= 0) {
            if (fromlen) *fromlen = fl;
            if (msgFlags)
                *msgFlags =
                    ((flags & MSG_NOTIFICATION) ? MV_SCTP_MSG_NOTIFICATION : 0) | ((flags & MSG_EOR) ? MV_SCTP_MSG_EOR : 0);
            if (info) {
                *info = MV_SctpRecvInfo{};
                if (infotype == SCTP_RECVV_RCVINFO) {
                    info->stream = rcv.rcv_sid;
                    info->ppid = rcv.rcv_ppid;
                }
                if (flags & MSG_NOTIFICATION) readNotification(buf, n, info);
            }
            return n;
        }
        if ((errno != EAGAIN && errno != EWOULDBLOCK) || attempt == 1) return -1;
        drain(r->efd);
    }
}

ssize_t uSend(int fd, const void* buf, size_t len, uint16_t stream, uint32_t ppidNet, int flags) {
    Ref r(fd);
    if (!r) return -1;
    sctp_sndinfo si{};
    si.snd_sid = stream;
    si.snd_ppid = ppidNet;
    return usrsctp_sendv(r->so, buf, len, nullptr, 0, &si, sizeof si, SCTP_SENDV_SNDINFO, flags & MSG_DONTWAIT);
}

int uShutdown(int fd, int how) {
    Ref r(fd);
    if (!r) return -1;
    return usrsctp_shutdown(r->so, how);
}

int uClose(int fd) {
    UserSock* u;
    {
        std::lock_guard g(tableLock);
        u = (fd >= 0 && fd < kMaxFd) ? table[fd] : nullptr;
        if (u) table[fd] = nullptr;
    }
    if (!u) {
        errno = EBADF;
        return -1;
    }
    // Wakes a reader still polling the eventfd; it then finds the descriptor gone.
    signal(u->efd);
    releaseRef(u);
    return 0;
}

// An explicit ABORT, sent now on this thread; a zero linger too, so that a close
// still to come cannot start a SHUTDOWN instead.
int uAbort(int fd) {
    Ref r(fd);
    if (!r) return -1;
    linger lg{1, 0};
    setOpt(r->so, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    sctp_sndinfo si{};
    si.snd_flags = SCTP_ABORT;
    static const char none = 0;  // the stack wants a buffer even for no bytes
    ssize_t n = usrsctp_sendv(r->so, &none, 0, nullptr, 0, &si, sizeof si, SCTP_SENDV_SNDINFO, MSG_DONTWAIT);
    if (n < 0)
        __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_ERROR, "sctp abort on fd=%d failed errno=%d (%s) %s|%s|%d", fd, errno,
                 strerror(errno), __FILE_NAME__, __func__, __LINE__);
    return n < 0 ? -1 : 0;
}

int uLocalAddresses(int fd, sockaddr_storage* out, int max) {
    Ref r(fd);
    if (!r) return -1;
    sockaddr* addrs = nullptr;
    int n = usrsctp_getladdrs(r->so, 0, &addrs);
    if (n <= 0) return n;
    int count = __mv_sctp_unpack_addresses(addrs, n, out, max);
    usrsctp_freeladdrs(addrs);
    return count;
}

constexpr MV_SctpBackend kUser = {
    "userspace",   MV_SctpBackendKind::Userspace, uSocket,       uBindX,         uListen,
    uAccept,       uConnectX,                     uSetReuseAddr, uSetInitMsg,    uSetEvents,
    uSetNoDelay,   uSetNonBlocking,               uGetStatus,    uSetHeartbeat,  uRecvMsg,
    uSend,         uShutdown,                     uClose,        uAbort,         uLocalAddresses,
};

std::once_flag startOnce;
std::atomic<bool> started{false};

}  // namespace

const MV_SctpBackend* __mv_sctp_backend_userspace() { return &kUser; }

bool __mv_sctp_userspace_started() { return started.load(); }

bool __mv_sctp_userspace_start(uint16_t udpPort, uint16_t remoteUdpPort) {
    std::call_once(startOnce, [&] {
        if (udpPort == 0 && geteuid() != 0) {
            __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL,
                     "userspace SCTP on raw IP needs root; set SCTPUDPPort to carry SCTP in UDP %s|%s|%d", __FILE_NAME__,
                     __func__, __LINE__);
            return;
        }
        remoteEncapsPort = udpPort ? (remoteUdpPort ? remoteUdpPort : udpPort) : 0;
        usrsctp_init(udpPort, nullptr, nullptr);
        // Other SCTP speakers share the host: stay silent on packets that are not ours
        // (1 still answers INITs), and always write a real checksum so that strict
        // peers and analysers accept loopback traffic.
        usrsctp_sysctl_set_sctp_blackhole(2);
        usrsctp_sysctl_set_sctp_no_csum_on_loopback(0);
        started = true;
    });
    return started;
}
