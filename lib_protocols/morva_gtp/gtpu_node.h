// A GTP-U endpoint: one UDP socket on a local address, its receive thread, and what it does with
// what comes in. It answers echo requests itself; a T-PDU or an end marker finds its owner through
// the index table that gave out the TEID, in one step; error indications and echo responses go to
// the handlers. Whatever does not decode, or names a TEID nobody holds, is counted, logged (a few
// lines a second at most) and dropped. It holds no UE state.
//
// Threads:
//   "gtpu-rx"    reads in batches and calls the handlers, one datagram after another;
//   any thread   may send (__mv_gtpu__send_batch, __mv_gtpu__send_one, __mv_gtpu__send_echo_request).
// A decoded message and its payload are valid only during the handler's call.
#pragma once

#include <cstdint>
#include <span>

#include "gtpu_codec.h"
#include "gtpu_path.h"
#include "mv_tables.h"

struct __mv_gtpu_handlers {
    // A T-PDU on one of our TEIDs: the Object and Object2 of its row, the message (payload: the inner packet).
    void (*OnTPDU)(void* owner, void* owner2, const gtpu_msg_t* msg, const gtpu_peer* from) = nullptr;
    void (*OnEndMarker)(void* owner, void* owner2, const gtpu_msg_t* msg, const gtpu_peer* from) = nullptr;
    // The peer holds no tunnel for ies->teidDataI at ies->peerAddress (both present).
    void (*OnErrorIndication)(const gtpu_ies_t* ies, const gtpu_peer* from) = nullptr;
    // The answer to an echo request, by its sequence number.
    void (*OnEchoResponse)(uint16_t seq, const gtpu_peer* from) = nullptr;
};

struct __mv_gtpu_config {
    const char* ip = nullptr;  // IPv4 or IPv6 text
    uint16_t port = GTPU_PORT;
    // The TEIDs this side gave out are ids of this table's rows plus teidOffset.
    MV_IndexTable* teidTable = nullptr;
    uint32_t teidOffset = 0;
    __mv_gtpu_handlers handlers;
    // false: no receive thread; the owner hands datagrams to __mv_gtpu__handle_datagram.
    bool receiver = true;
};

// What the endpoint has seen and done since it opened.
#define GTPU_STATS_FIELDS(X)                                                                               \
    X(rxDatagrams) X(rxShort) X(rxBadVersion) X(rxProtocolType) X(rxBadLength) X(rxBadExtension)             \
    X(rxUnsupportedExtension) X(rxBadIE) X(rxTooLong) X(rxUnknownTeid) X(rxUnknownType) X(rxTpdu) X(rxTpduBytes) \
    X(rxEndMarker) X(rxEchoRequest) X(rxEchoResponse) X(rxErrorIndication) X(rxExtHeadersNotification)      \
    X(txPackets) X(txBytes) X(txFailed) X(txEchoRequest) X(txEchoResponse)
struct __mv_gtpu_stats {
#define GTPU_STAT_FIELD(name) uint64_t name;
    GTPU_STATS_FIELDS(GTPU_STAT_FIELD)
#undef GTPU_STAT_FIELD
    // Datagrams dropped for any reason.
    uint64_t dropped() const {
        return rxShort + rxBadVersion + rxProtocolType + rxBadLength + rxBadExtension + rxUnsupportedExtension +
               rxBadIE + rxTooLong + rxUnknownTeid + rxUnknownType;
    }
};

struct __mv_gtpu_node;

// Binds ip:port and starts the receive thread. Null, with a log line, for an address that is not
// IPv4 or IPv6 text or cannot be bound.
[[nodiscard]] __mv_gtpu_node* __mv_gtpu__open(const __mv_gtpu_config* cfg);
// Stops the receive thread, closes the socket and frees the node; no send may be running on it.
void __mv_gtpu__close(__mv_gtpu_node* node);
// The bound address (with the port the system chose for port 0).
const gtpu_peer* __mv_gtpu__local(const __mv_gtpu_node* node);

// Sends the batch and empties it; returns the packets sent and counts the rest as failed.
int __mv_gtpu__send_batch(__mv_gtpu_node* node, gtpu_tx_batch* batch);
// One datagram; the bytes sent, or -errno.
int __mv_gtpu__send_one(__mv_gtpu_node* node, const gtpu_peer& to, const void* buf, size_t len);
int __mv_gtpu__send_echo_request(__mv_gtpu_node* node, const gtpu_peer& to, uint16_t seq);

// The owner of a TEID we gave out (Object of its row, Object2 into *owner2), or null.
void* __mv_gtpu__teid_owner(const __mv_gtpu_node* node, uint32_t teid, void** owner2 = nullptr);
// What the receive thread does with one datagram.
void __mv_gtpu__handle_datagram(__mv_gtpu_node* node, std::span<const uint8_t> datagram, const gtpu_peer& from);

void __mv_gtpu__get_stats(const __mv_gtpu_node* node, __mv_gtpu_stats* out);
