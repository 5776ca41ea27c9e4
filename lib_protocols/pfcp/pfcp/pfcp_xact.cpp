// Request tracking, retransmission and time-outs for the whole stack, under one lock taken per
// operation; a retransmission is a non-blocking send made under it.
#include "pfcp_xact.h"

#include <mutex>

#include "pfcp_codec.h"

bool PfcpXactTable::init(uint32_t base, uint32_t count, int t1Ms, int n1, int heartbeatMs) {
    if (!count || base == 0 || uint64_t(base) + count > 0xFFFFFF) return false;
    // Ids move on by `count` at each reuse of a row and wrap within the 24 bits of the header.
    rows_ = __mv_IndexTable_create2(base, count, 0xFFFFFF);
    if (!rows_) return false;
    xacts_ = __mv_arena_new_array<__mv_pfcp_xact>(count);
    base_ = base;
    count_ = count;
    t1Ms_ = t1Ms;
    n1_ = n1;
    heartbeatMs_ = heartbeatMs;
    return true;
}

__mv_pfcp_xact* PfcpXactTable::of(MV_IndexRow* row) const { return &xacts_[(row->id - base_) % count_]; }

void PfcpXactTable::append(__mv_pfcp_xact* x, int64_t nowMs) {
    x->deadlineMs = nowMs + (x->cls == PFCP_XACT_CLASS_HB ? heartbeatMs_ : t1Ms_);
    x->next = nullptr;
    x->prev = tail_[x->cls];
    if (x->prev) x->prev->next = x;
    else head_[x->cls] = x;
    tail_[x->cls] = x;
}

void PfcpXactTable::unlink(__mv_pfcp_xact* x) {
    if (x->prev) x->prev->next = x->next;
    else head_[x->cls] = x->next;
    if (x->next) x->next->prev = x->prev;
    else tail_[x->cls] = x->prev;
    x->prev = x->next = nullptr;
}

void PfcpXactTable::finish(__mv_pfcp_xact* x) {
    unlink(x);
    if (x->msg) __mv_buff__free(x->msg);
    x->msg = nullptr;
    x->state = PFCP_XACT_FREE;
    x->userData = nullptr;
    x->node = nullptr;
    --open_;
    __mv_IndexTable_putRow(x->row);
}

uint32_t PfcpXactTable::reserve(int64_t nowMs) {
    if (!rows_) return 0;
    MV_IndexRow* row = __mv_IndexTable_getRow(rows_);
    if (!row) return 0;
    std::lock_guard g(lock_);
    __mv_pfcp_xact* x = of(row);
    *x = __mv_pfcp_xact{};
    x->row = row;
    x->seq = __mv_indexRow_getId(row);
    x->state = PFCP_XACT_RESERVED;
    x->cls = PFCP_XACT_CLASS_T1;
    ++open_;
    append(x, nowMs);
    return x->seq;
}

bool PfcpXactTable::sent(uint32_t seq, __mv_pfcp_node* node, uint8_t type, uint64_t seid, uint64_t localSeid,
                         void* userData, __mv_buff_t* msg, int64_t nowMs) {
    MV_IndexRow* row = rows_ && msg ? __mv_IndexTable_FindRow(rows_, seq) : nullptr;
    if (!row) return false;
    std::lock_guard g(lock_);
    __mv_pfcp_xact* x = of(row);
    if (x->seq != seq || x->state != PFCP_XACT_RESERVED) return false;
    unlink(x);
    x->state = PFCP_XACT_SENT;
    x->node = node;
    x->type = type;
    x->seid = seid;
    x->localSeid = localSeid;
    x->userData = userData;
    x->msg = msg;
    x->cls = type == PFCP_HEARTBEAT_REQUEST_TYPE ? PFCP_XACT_CLASS_HB : PFCP_XACT_CLASS_T1;
    append(x, nowMs);
    return true;
}

PfcpXactTable::Match PfcpXactTable::match(uint32_t seq, __mv_pfcp_node* node, uint8_t rspType, uint64_t rspSeid,
                                          __mv_pfcp_xact_info& info) {
    MV_IndexRow* row = rows_ ? __mv_IndexTable_FindRow(rows_, seq) : nullptr;
    if (!row) return NONE;
    std::lock_guard g(lock_);
    __mv_pfcp_xact* x = of(row);
    if (x->seq != seq || x->state != PFCP_XACT_SENT || x->node != node || (rspType && rspType != x->type + 1))
        return NONE;
    if (rspType && x->localSeid && rspSeid != x->localSeid) return WRONG_SEID;
    info = {x->node, x->seq, x->type, x->retries, x->seid, x->localSeid, x->userData};
    finish(x);
    return MATCHED;
}

int PfcpXactTable::expire(int64_t nowMs, __mv_pfcp_xact_send send, __mv_pfcp_xact_info* failed, int maxFailed,
                          int* retransmitted) {
    int n = 0;
    std::lock_guard g(lock_);
    for (int c = 0; c < PFCP_XACT_CLASSES; c++) {
        while (head_[c] && head_[c]->deadlineMs <= nowMs) {
            __mv_pfcp_xact* x = head_[c];
            if (x->state == PFCP_XACT_SENT && c == PFCP_XACT_CLASS_T1 && x->retries < n1_) {
                send(x->node, x->msg->data, int(x->msg->len));
                x->retries++;
                if (retransmitted) ++*retransmitted;
                unlink(x);
                append(x, nowMs);
                continue;
            }
            if (x->state == PFCP_XACT_SENT) {
                if (n == maxFailed) return n;
                failed[n++] = {x->node, x->seq, x->type, x->retries, x->seid, x->localSeid, x->userData};
            }
            finish(x);
        }
    }
    return n;
}

uint32_t PfcpXactTable::open() const {
    std::lock_guard g(lock_);
    return open_;
}
