#include "gtpu_path.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

socklen_t gtpu_peer_len(const gtpu_peer& p) {
    return p.sa.sa_family == AF_INET6 ? socklen_t(sizeof(sockaddr_in6)) : socklen_t(sizeof(sockaddr_in));
}

bool gtpu_peer_set(gtpu_peer* p, const char* ip, uint16_t port) {
    *p = gtpu_peer{};
    if (!ip) return false;
    if (inet_pton(AF_INET, ip, &p->v4.sin_addr) == 1) {
        p->v4.sin_family = AF_INET;
        p->v4.sin_port = htons(port);
        return true;
    }
    if (inet_pton(AF_INET6, ip, &p->v6.sin6_addr) == 1) {
        p->v6.sin6_family = AF_INET6;
        p->v6.sin6_port = htons(port);
        return true;
    }
    return false;
}

void gtpu_peer_set_v4(gtpu_peer* p, uint32_t hostOrderAddr, uint16_t port) {
    *p = gtpu_peer{};
    p->v4.sin_family = AF_INET;
    p->v4.sin_port = htons(port);
    p->v4.sin_addr.s_addr = htonl(hostOrderAddr);
}

void gtpu_peer_set_v6(gtpu_peer* p, const uint8_t* addr, uint16_t port) {
    *p = gtpu_peer{};
    p->v6.sin6_family = AF_INET6;
    p->v6.sin6_port = htons(port);
    memcpy(&p->v6.sin6_addr, addr, 16);
}

const char* gtpu_peer_text(const gtpu_peer& p, char* buf, size_t size) {
    char ip[INET6_ADDRSTRLEN] = "?";
    int port = 0;
    if (p.sa.sa_family == AF_INET6) {
        inet_ntop(AF_INET6, &p.v6.sin6_addr, ip, sizeof ip);
        port = ntohs(p.v6.sin6_port);
    } else if (p.sa.sa_family == AF_INET) {
        inet_ntop(AF_INET, &p.v4.sin_addr, ip, sizeof ip);
        port = ntohs(p.v4.sin_port);
    }
    snprintf(buf, size, "ip=%s port=%d", ip, port);
    return buf;
}

size_t gtpu_peer_address(const gtpu_peer& p, uint8_t* out16) {
    if (p.sa.sa_family == AF_INET6) {
        memcpy(out16, &p.v6.sin6_addr, 16);
        return 16;
    }
    memcpy(out16, &p.v4.sin_addr, 4);
    return 4;
}

int gtpu_path_open(gtpu_path* p, const char* ip, uint16_t port) {
    gtpu_peer local;
    if (!gtpu_peer_set(&local, ip, port)) return -EINVAL;
    int fd = socket(local.sa.sa_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -errno;
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    // Bursts of a whole second's packets meet the kernel at once; deep buffers keep them. The forced
    // form passes the system's ceiling when the process may.
    int bytes = 8 << 20;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes) != 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    socklen_t len = gtpu_peer_len(local);
    if (bind(fd, &local.sa, len) != 0 || getsockname(fd, &local.sa, &len) != 0) {
        int e = errno;
        close(fd);
        return -e;
    }
    int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake < 0) {
        int e = errno;
        close(fd);
        return -e;
    }
    p->fd = fd;
    p->wakeFd = wake;
    p->local = local;
    return 1;
}

void gtpu_path_close(gtpu_path* p) {
    if (p->fd >= 0) close(p->fd);
    if (p->wakeFd >= 0) close(p->wakeFd);
    p->fd = p->wakeFd = -1;
}

int gtpu_path_send(gtpu_path* p, gtpu_tx_batch* b, int* firstErrno) {
    const unsigned n = b->count;
    b->count = 0;
    if (firstErrno) *firstErrno = 0;
    for (unsigned i = 0; i < n; i++) {
        gtpu_tx_slot& s = b->slot[i];
        b->iov[i][0] = iovec{s.head, s.headLen};
        b->iov[i][1] = iovec{const_cast<uint8_t*>(s.tail), s.tailLen};
        msghdr& h = b->msg[i].msg_hdr;
        h = msghdr{};
        h.msg_name = &s.to;
        h.msg_namelen = gtpu_peer_len(s.to);
        h.msg_iov = b->iov[i];
        h.msg_iovlen = s.tailLen ? 2 : 1;
    }
    int sent = 0;
    unsigned at = 0;
    while (at < n) {
        int r = sendmmsg(p->fd, b->msg + at, n - at, 0);
        if (r > 0) {
            sent += r;
            at += unsigned(r);
            continue;
        }
        if (r < 0 && errno == EINTR) continue;
        // The packet at `at` was refused (sendmmsg reports an error only for the first of a call).
        if (firstErrno && !*firstErrno) *firstErrno = r < 0 ? errno : EIO;
        ++at;
    }
    return sent;
}

int gtpu_path_send_one(gtpu_path* p, const gtpu_peer& to, const void* buf, size_t len) {
    ssize_t r;
    do r = sendto(p->fd, buf, len, 0, &to.sa, gtpu_peer_len(to));
    while (r < 0 && errno == EINTR);
    return r < 0 ? -errno : int(r);
}

int gtpu_path_recv(gtpu_path* p, gtpu_rx_batch* b, int timeoutMs) {
    if (p->fd < 0) return -1;
    pollfd pf[2] = {{p->fd, POLLIN, 0}, {p->wakeFd, POLLIN, 0}};
    int r = poll(pf, 2, timeoutMs);
    if (r < 0) return errno == EINTR ? 0 : -1;
    if (pf[1].revents & POLLIN) {
        uint64_t v;
        if (read(p->wakeFd, &v, sizeof v) < 0) {
        }
        return 0;
    }
    if (pf[0].revents & POLLNVAL) return -1;
    if (!(pf[0].revents & (POLLIN | POLLERR))) return 0;
    for (unsigned i = 0; i < GTPU_BATCH; i++) {
        b->iov[i] = iovec{b->buf[i], GTPU_RX_MAX};
        msghdr& h = b->msg[i].msg_hdr;
        h = msghdr{};
        h.msg_name = &b->from[i];
        h.msg_namelen = sizeof b->from[i];
        h.msg_iov = &b->iov[i];
        h.msg_iovlen = 1;
    }
    int n = recvmmsg(p->fd, b->msg, GTPU_BATCH, MSG_DONTWAIT, nullptr);
    // A pending error (an ICMP answer to an earlier send) is cleared by the read that reports it.
    if (n < 0) return errno == EBADF || errno == ENOTSOCK ? -1 : 0;
    return n;
}

void gtpu_path_wake(gtpu_path* p) {
    uint64_t one = 1;
    if (write(p->wakeFd, &one, sizeof one) < 0) {
    }
}
