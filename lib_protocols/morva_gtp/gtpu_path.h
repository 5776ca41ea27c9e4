// The one place GTP-U touches a descriptor: a UDP socket on the local GTP-U address, sends in
// batches (sendmmsg) and receives in batches (recvmmsg).
//
// The user plane goes straight to its descriptor rather than through the socket engine's records:
// the engine's UDP road costs a pooled buffer, a queue-line hand-off and a system call per datagram,
// which the signalling protocols can afford and a traffic generator at a million packets a second
// cannot. A packet here is two pieces, its head (the tunnel header and the inner headers, built per
// packet) and a tail that is shared and never written (a payload, or the body of a captured packet),
// so nothing is copied before the kernel's own copy.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#define GTPU_BATCH 64
#define GTPU_SLOT_HEAD 256  // tunnel header and inner headers of one packet
#define GTPU_RX_MAX 9216    // a jumbo frame's datagram; a longer one is counted and dropped

// An IPv4 or IPv6 UDP endpoint.
union gtpu_peer {
    sockaddr sa;
    sockaddr_in v4;
    sockaddr_in6 v6;
};
socklen_t gtpu_peer_len(const gtpu_peer& p);
// From text ("10.0.0.1", "fd00::1"); false for anything else.
bool gtpu_peer_set(gtpu_peer* p, const char* ip, uint16_t port);
void gtpu_peer_set_v4(gtpu_peer* p, uint32_t hostOrderAddr, uint16_t port);
void gtpu_peer_set_v6(gtpu_peer* p, const uint8_t* addr, uint16_t port);
// "ip port" text for log lines; returns buf.
const char* gtpu_peer_text(const gtpu_peer& p, char* buf, size_t size);
// Its address as 4 or 16 octets; returns the count.
size_t gtpu_peer_address(const gtpu_peer& p, uint8_t* out16);

struct gtpu_tx_slot {
    uint8_t head[GTPU_SLOT_HEAD];
    uint16_t headLen;
    const uint8_t* tail;  // shared, read only; may be null with tailLen 0
    uint32_t tailLen;
    gtpu_peer to;
};

// Packets waiting for one send. Fill with next() until it returns null or the burst is over, then
// hand it to gtpu_path_send, which empties it.
struct gtpu_tx_batch {
    gtpu_tx_slot slot[GTPU_BATCH];
    mmsghdr msg[GTPU_BATCH];
    iovec iov[GTPU_BATCH][2];
    unsigned count = 0;
    gtpu_tx_slot* next() { return count < GTPU_BATCH ? &slot[count++] : nullptr; }
    // Gives back the slot next() handed out last, when its packet could not be built.
    void drop_last() {
        if (count) --count;
    }
};

struct gtpu_rx_batch {
    uint8_t buf[GTPU_BATCH][GTPU_RX_MAX];
    gtpu_peer from[GTPU_BATCH];
    mmsghdr msg[GTPU_BATCH];
    iovec iov[GTPU_BATCH];
};

struct gtpu_path {
    int fd = -1;
    int wakeFd = -1;  // an eventfd that ends a wait in gtpu_path_recv
    gtpu_peer local{};
};

// Binds a UDP socket to ip:port (port 0: one the system picks, read back into `local`). 1, or a
// negative errno value: -EINVAL for an address that is not IPv4 or IPv6 text.
[[nodiscard]] int gtpu_path_open(gtpu_path* p, const char* ip, uint16_t port);
void gtpu_path_close(gtpu_path* p);
// Sends every packet of the batch, in order, and empties it. Returns the number sent; a packet the
// kernel refuses is skipped (the difference is the failures). `firstErrno` gets the first refusal's.
int gtpu_path_send(gtpu_path* p, gtpu_tx_batch* b, int* firstErrno = nullptr);
// One datagram from one buffer; the bytes sent, or -errno.
int gtpu_path_send_one(gtpu_path* p, const gtpu_peer& to, const void* buf, size_t len);
// Waits up to timeoutMs (-1 for ever) and reads what has come, up to GTPU_BATCH datagrams:
// b->msg[i].msg_len octets in b->buf[i] from b->from[i]; MSG_TRUNC in msg_flags marks one longer
// than GTPU_RX_MAX. Returns the count, 0 on a time-out or a wake-up, -1 when the socket is gone.
int gtpu_path_recv(gtpu_path* p, gtpu_rx_batch* b, int timeoutMs);
// Ends a wait of gtpu_path_recv on another thread.
void gtpu_path_wake(gtpu_path* p);
