// The one face of SCTP that the socket engine sees. Two stacks stand behind it: the
// kernel's (through libsctp) and a userspace stack for kernels without SCTP. Both
// hand out int descriptors that poll and epoll understand: the kernel's are its
// sockets, the userspace stack's are eventfds that turn readable whenever the
// association has something to read or has failed.
//
// The two stacks' headers cannot share a translation unit, so this header names no
// type of either: addresses are sockaddr, notification types are given in the
// kernel's numbering (MV_SCTP_SN_*) whichever stack delivered them.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <cstring>

// Notification types as the kernel numbers them; the userspace backend renumbers its own.
constexpr uint16_t MV_SCTP_SN_ASSOC_CHANGE = 32769;
constexpr uint16_t MV_SCTP_SN_PEER_ADDR_CHANGE = 32770;
constexpr uint16_t MV_SCTP_SN_SEND_FAILED = 32771;
constexpr uint16_t MV_SCTP_SN_REMOTE_ERROR = 32772;
constexpr uint16_t MV_SCTP_SN_SHUTDOWN_EVENT = 32773;

// Set in RecvMsg's flags when the message is a notification, not data, and when
// the read ends a message (a message larger than the buffer comes in pieces).
constexpr int MV_SCTP_MSG_NOTIFICATION = 0x8000;
constexpr int MV_SCTP_MSG_EOR = 0x4000;

constexpr int MV_SCTP_BINDX_ADD = 1;
constexpr int MV_SCTP_BINDX_REM = 2;

enum class MV_SctpBackendKind : int { None = 0, Kernel = 1, Userspace = 2 };

// What came with a message. For a notification the backend also reads the parts of
// it the engine acts on, so that the engine never parses either stack's records.
struct MV_SctpRecvInfo {
    uint16_t stream;
    uint32_t ppid;  // as it was on the wire (network order)
    uint16_t snType;  // notification type in MV_SCTP_SN_ numbering, 0 for data
    uint32_t assocId;
    uint16_t outStreams;  // of an association change
    uint16_t inStreams;
    uint16_t state;
};

struct MV_SctpStatus {
    uint16_t outstreams;  // streams this end may send on
    uint16_t instreams;
    int32_t state;
};

// Every operation returns what the system call it stands for would, and sets errno.
struct MV_SctpBackend {
    const char* Name;
    MV_SctpBackendKind Kind;
    int (*Socket)(int family);
    int (*BindX)(int fd, struct sockaddr* addrs, int count, int how);
    int (*Listen)(int fd, int backlog);
    int (*Accept)(int fd, struct sockaddr* peer, socklen_t* len);
    int (*ConnectX)(int fd, struct sockaddr* addrs, int count);
    int (*SetReuseAddr)(int fd);
    int (*SetInitMsg)(int fd, uint16_t ostreams, uint16_t istreams, uint16_t attempts);
    // Data I/O, association, address, send failure, peer error and shutdown events.
    int (*SetEvents)(int fd);
    int (*SetNoDelay)(int fd, int on);
    int (*SetNonBlocking)(int fd, int on);
    int (*GetStatus)(int fd, MV_SctpStatus* status);
    // Heartbeat on every path of the association; returns 0 and the interval in force.
    int (*SetHeartbeat)(int fd, uint32_t intervalMs, uint32_t* inForce);
    // One message or notification; -1 with EAGAIN when nothing is waiting.
    ssize_t (*RecvMsg)(int fd, void* buf, size_t len, struct sockaddr* from, socklen_t* fromlen,
                       MV_SctpRecvInfo* info, int* msgFlags);
    ssize_t (*Send)(int fd, const void* buf, size_t len, uint16_t stream, uint32_t ppidNet, int flags);
    int (*Shutdown)(int fd, int how);
    int (*Close)(int fd);
    // Ends the association with an ABORT at once (the descriptor stays open); for the
    // end of the process, where no SHUTDOWN handshake can finish.
    int (*Abort)(int fd);
    // The local addresses of the association (or of the socket before it has one).
    int (*LocalAddresses)(int fd, struct sockaddr_storage* out, int max);
};

// Chosen by name: "auto" (the kernel if it has SCTP, else userspace), "kernel" or
// "userspace". udpPort 0 puts the userspace stack straight on IP; another value
// carries its packets in UDP on that port (RFC 6951). Returns the kind chosen.
MV_SctpBackendKind __mv_sctp_backend_choose(const char* name, uint16_t udpPort, uint16_t remoteUdpPort);
// The backend in force; the first call starts the userspace stack if that is the one.
const MV_SctpBackend* __mv_sctp_backend();
MV_SctpBackendKind __mv_sctp_backend_kind();
bool __mv_sctp_kernel_available();

// Copies n addresses packed one after the other (each by its own size, as both
// stacks list them) into out; returns how many it copied.
inline int __mv_sctp_unpack_addresses(const struct sockaddr* packed, int n, struct sockaddr_storage* out, int max) {
    int count = 0;
    const auto* p = reinterpret_cast<const uint8_t*>(packed);
    for (int i = 0; i < n && count < max; ++i) {
        const auto* sa = reinterpret_cast<const struct sockaddr*>(p);
        size_t sz = sa->sa_family == AF_INET6 ? sizeof(struct sockaddr_in6) : sizeof(struct sockaddr_in);
        memset(&out[count], 0, sizeof out[count]);
        memcpy(&out[count], sa, sz);
        ++count;
        p += sz;
    }
    return count;
}

// Defined by the two backends.
const MV_SctpBackend* __mv_sctp_backend_kernel();
const MV_SctpBackend* __mv_sctp_backend_userspace();
// Starts the userspace stack once; false when it cannot run (raw mode needs root).
bool __mv_sctp_userspace_start(uint16_t udpPort, uint16_t remoteUdpPort);
bool __mv_sctp_userspace_started();
