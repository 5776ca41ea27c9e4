// The kernel's SCTP through libsctp. Kept compiled on machines whose kernel has no
// SCTP; there Socket fails and "auto" picks the userspace stack instead.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/sctp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "mv_sctp_backend.h"

namespace {

int kSocket(int family) { return socket(family, SOCK_STREAM, IPPROTO_SCTP); }

int kBindX(int fd, sockaddr* addrs, int count, int how) {
    return sctp_bindx(fd, addrs, count, how == MV_SCTP_BINDX_REM ? SCTP_BINDX_REM_ADDR : SCTP_BINDX_ADD_ADDR);
}

int kListen(int fd, int backlog) { return listen(fd, backlog); }

int kAccept(int fd, sockaddr* peer, socklen_t* len) { return accept(fd, peer, len); }

int kConnectX(int fd, sockaddr* addrs, int count) {
    sctp_assoc_t id = 0;
    return sctp_connectx(fd, addrs, count, &id);
}

int kSetReuseAddr(int fd) {
    int on = 1;
    return setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

int kSetInitMsg(int fd, uint16_t ostreams, uint16_t istreams, uint16_t attempts) {
    sctp_initmsg im{};
    im.sinit_num_ostreams = ostreams;
    im.sinit_max_instreams = istreams;
    im.sinit_max_attempts = attempts;
    return setsockopt(fd, IPPROTO_SCTP, SCTP_INITMSG, &im, sizeof im);
}

int kSetEvents(int fd) {
    sctp_event_subscribe ev{};
    ev.sctp_data_io_event = 1;
    ev.sctp_association_event = 1;
    ev.sctp_address_event = 1;
    ev.sctp_send_failure_event = 1;
    ev.sctp_peer_error_event = 1;
    ev.sctp_shutdown_event = 1;
    return setsockopt(fd, IPPROTO_SCTP, SCTP_EVENTS, &ev, sizeof ev);
}

int kSetNoDelay(int fd, int on) { return setsockopt(fd, IPPROTO_SCTP, SCTP_NODELAY, &on, sizeof on); }

int kSetNonBlocking(int fd, int on) {
    int fl = fcntl(fd, F_GETFL, 0);
    if (fl < 0) return -1;
    return fcntl(fd, F_SETFL, on ? (fl | O_NONBLOCK) : (fl & ~O_NONBLOCK));
}

int kGetStatus(int fd, MV_SctpStatus* status) {
    sctp_status st{};
    socklen_t len = sizeof st;
    if (sctp_opt_info(fd, 0, SCTP_STATUS, &st, &len) != 0) return -1;
    status->outstreams = st.sstat_outstrms;
    status->instreams = st.sstat_instrms;
    status->state = st.sstat_state;
    return 0;
}

int kSetHeartbeat(int fd, uint32_t intervalMs, uint32_t* inForce) {
    sctp_paddrparams pp{};
    pp.spp_flags = SPP_HB_ENABLE;
    pp.spp_hbinterval = intervalMs;
    if (setsockopt(fd, IPPROTO_SCTP, SCTP_PEER_ADDR_PARAMS, &pp, sizeof pp) != 0) return -1;
    sctp_paddrparams got{};
    socklen_t len = sizeof got;
    if (inForce) *inForce = sctp_opt_info(fd, 0, SCTP_PEER_ADDR_PARAMS, &got, &len) == 0 ? got.spp_hbinterval : 0;
    return 0;
}

ssize_t kRecvMsg(int fd, void* buf, size_t len, sockaddr* from, socklen_t* fromlen, MV_SctpRecvInfo* info,
                 int* msgFlags) {
    sctp_sndrcvinfo sinfo{};
    int flags = 0;
    int n = sctp_recvmsg(fd, buf, len, from, fromlen, &sinfo, &flags);
    if (msgFlags)
        *msgFlags = ((flags & MSG_NOTIFICATION) ? MV_SCTP_MSG_NOTIFICATION : 0) | ((flags & MSG_EOR) ? MV_SCTP_MSG_EOR : 0);
    if (!info) return n;
    *info = MV_SctpRecvInfo{};
    info->stream = sinfo.sinfo_stream;
    info->ppid = sinfo.sinfo_ppid;
    if (n < int(sizeof(sctp_notification::sn_header)) || !(flags & MSG_NOTIFICATION)) return n;
    const auto* sn = static_cast<const sctp_notification*>(buf);
    info->snType = sn->sn_header.sn_type;
    switch (sn->sn_header.sn_type) {
    case SCTP_ASSOC_CHANGE:
        if (size_t(n) >= sizeof(sctp_assoc_change)) {
            info->assocId = uint32_t(sn->sn_assoc_change.sac_assoc_id);
            info->outStreams = sn->sn_assoc_change.sac_outbound_streams;
            info->inStreams = sn->sn_assoc_change.sac_inbound_streams;
            info->state = sn->sn_assoc_change.sac_state;
        }
        break;
    case SCTP_SEND_FAILED:
        if (size_t(n) >= sizeof(sctp_send_failed)) info->assocId = uint32_t(sn->sn_send_failed.ssf_assoc_id);
        break;
    case SCTP_REMOTE_ERROR:
        if (size_t(n) >= sizeof(sctp_remote_error)) info->assocId = uint32_t(sn->sn_remote_error.sre_assoc_id);
        break;
    default:
        break;
    }
    return n;
}

ssize_t kSend(int fd, const void* buf, size_t len, uint16_t stream, uint32_t ppidNet, int flags) {
    sctp_sndrcvinfo sinfo{};
    sinfo.sinfo_stream = stream;
    sinfo.sinfo_ppid = ppidNet;
    return sctp_send(fd, buf, len, &sinfo, flags);
}

int kShutdown(int fd, int how) { return shutdown(fd, how); }

int kClose(int fd) { return close(fd); }

// A one-to-one socket takes no SCTP_ABORT flag; a zero linger makes the close that ends
// the process abort the association instead of shutting it down.
int kAbort(int fd) {
    linger lg{1, 0};
    return setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
}

int kLocalAddresses(int fd, sockaddr_storage* out, int max) {
    sockaddr* addrs = nullptr;
    int n = sctp_getladdrs(fd, 0, &addrs);
    if (n <= 0) return n;
    int count = __mv_sctp_unpack_addresses(addrs, n, out, max);
    sctp_freeladdrs(addrs);
    return count;
}

constexpr MV_SctpBackend kKernel = {
    "kernel",      MV_SctpBackendKind::Kernel, kSocket,        kBindX,         kListen,
    kAccept,       kConnectX,                  kSetReuseAddr,  kSetInitMsg,    kSetEvents,
    kSetNoDelay,   kSetNonBlocking,            kGetStatus,     kSetHeartbeat,  kRecvMsg,
    kSend,         kShutdown,                  kClose,         kAbort,         kLocalAddresses,
};

}  // namespace

const MV_SctpBackend* __mv_sctp_backend_kernel() { return &kKernel; }

bool __mv_sctp_kernel_available() {
    int fd = socket(AF_INET, SOCK_STREAM, IPPROTO_SCTP);
    if (fd < 0) return false;
    close(fd);
    return true;
}
