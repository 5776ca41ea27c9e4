// PFCP transactions: every request the stack sends takes its sequence number from an index table
// row, which holds the request until its answer comes, is retransmitted, or gives up. A late answer
// finds a row whose id has moved on, so it never reaches the next request that took the row.
//
// Requests are retransmitted after T1 up to N1 times, then reported as failed; heartbeats are never
// retransmitted (the next heartbeat is the retry) and are forgotten after the heartbeat interval.
// Deadlines are kept in one first-in first-out list per class: every entry of a list has the same
// timeout, so a list is always in deadline order and expiry looks only at its heads.
#pragma once

#include <cstdint>

#include "mv_bytes.h"
#include "mv_sync.h"
#include "mv_tables.h"

struct __mv_pfcp_node;

#define PFCP_XACT_FREE 0
#define PFCP_XACT_RESERVED 1  // a sequence number handed out, not yet sent
#define PFCP_XACT_SENT 2

#define PFCP_XACT_CLASS_T1 0
#define PFCP_XACT_CLASS_HB 1
#define PFCP_XACT_CLASSES 2

struct __mv_pfcp_xact {
    __mv_pfcp_xact* prev;
    __mv_pfcp_xact* next;
    MV_IndexRow* row;
    uint32_t seq;
    uint8_t state;
    uint8_t type;
    uint8_t retries;
    uint8_t cls;
    __mv_pfcp_node* node;
    uint64_t seid;       // the header's SEID of the request
    uint64_t localSeid;  // the SEID its answer must carry, 0 when the sender did not say
    void* userData;
    __mv_buff_t* msg;    // the request as sent, for retransmission
    int64_t deadlineMs;
};

// A transaction that ended, as the stack reports it upward.
struct __mv_pfcp_xact_info {
    __mv_pfcp_node* node;
    uint32_t seq;
    uint8_t type;
    uint8_t retries;
    uint64_t seid;
    uint64_t localSeid;
    void* userData;
};

// Retransmits a request; returns the octets sent.
typedef int (*__mv_pfcp_xact_send)(__mv_pfcp_node* node, const uint8_t* data, int len);

class PfcpXactTable {
public:
    // Sequence numbers run from `base` within 24 bits; `count` requests may be open at once.
    bool init(uint32_t base, uint32_t count, int t1Ms, int n1, int heartbeatMs);

    // A sequence number for a request about to be built, or 0 when `count` are open. An unsent
    // reservation is given back after T1.
    [[nodiscard]] uint32_t reserve(int64_t nowMs);
    // The reservation `seq` was sent: the transaction keeps `msg` (freed when it ends). False, and
    // `msg` not taken, when `seq` is no open reservation.
    [[nodiscard]] bool sent(uint32_t seq, __mv_pfcp_node* node, uint8_t type, uint64_t seid, uint64_t localSeid,
                            void* userData, __mv_buff_t* msg, int64_t nowMs);

    enum Match { MATCHED, NONE, WRONG_SEID };
    // An answer of type `rspType` from `node`: MATCHED ends the transaction and fills `info`; NONE
    // when no open request of ours has that number, node and type (late, duplicate or stray);
    // WRONG_SEID when the request knew the SEID its answer must carry and this one carries another
    // (the transaction stays open). A type of 0 matches any request (an answer that says the peer
    // cannot read our version).
    Match match(uint32_t seq, __mv_pfcp_node* node, uint8_t rspType, uint64_t rspSeid, __mv_pfcp_xact_info& info);

    // Handles every deadline passed by `nowMs`: retransmits through `send`, fills `failed` with
    // requests that have had their retransmissions (at most `maxFailed`; call again while it is
    // full). Returns the number of failed entries written.
    int expire(int64_t nowMs, __mv_pfcp_xact_send send, __mv_pfcp_xact_info* failed, int maxFailed,
               int* retransmitted);

    uint32_t open() const;

private:
    __mv_pfcp_xact* of(MV_IndexRow* row) const;
    void append(__mv_pfcp_xact* x, int64_t nowMs);
    void unlink(__mv_pfcp_xact* x);
    void finish(__mv_pfcp_xact* x);

    MV_IndexTable* rows_ = nullptr;
    __mv_pfcp_xact* xacts_ = nullptr;
    uint32_t base_ = 0, count_ = 0, open_ = 0;
    int t1Ms_ = 3000, n1_ = 1, heartbeatMs_ = 13000;
    __mv_pfcp_xact* head_[PFCP_XACT_CLASSES] = {};
    __mv_pfcp_xact* tail_[PFCP_XACT_CLASSES] = {};
    mutable MV_Mutex lock_;
};
