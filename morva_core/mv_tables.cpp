// Index tables, power tables and counters.
#include "mv_tables.h"

#include <sys/time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "mv_alloc.h"
#include "mv_fifo.h"

// ---------------------------------------------------------------- index table

namespace {
mv_fifo::FreeList<MV_IndexRow> rowList(MV_IndexTable* t) { return {t->rowHead, t->rowCurrent}; }
}  // namespace

MV_IndexTable* __mv_IndexTable_create2(uint32_t baseId, uint32_t count, uint32_t max) {
    if (count == 0) return nullptr;
    auto* t = __mv_arena_new<MV_IndexTable>();
    t->idProvider = {baseId, max, count};
    t->table = static_cast<MV_IndexRow**>(__mv_malloc_block(sizeof(MV_IndexRow*) * count, __FILE_NAME__, __LINE__));
    if (!t->table) return nullptr;
    MV_IndexRow* rows = __mv_arena_new_array<MV_IndexRow>(count);
    for (uint32_t r = 0; r < count; ++r) {
        MV_IndexRow& row = rows[r];
        row.id = baseId + r;
        row.next_id.store(baseId + r, std::memory_order_relaxed);
        row.Parent = t;
        t->table[r] = &row;
    }
    rowList(t).pushArray(rows, count);
    t->Total = count;
    t->Available = count;
    t->Used = 0;
    return t;
}

MV_IndexTable* __mv_IndexTable_create(uint32_t baseId, uint32_t count) {
    return __mv_IndexTable_create2(baseId, count, UINT32_MAX - count);
}

MV_IndexRow* __mv_IndexTable_getRow(MV_IndexTable* t) {
    if (!t) return nullptr;
    std::lock_guard g(t->Lock);
    MV_IndexRow* row = rowList(t).popHead();
    if (row) --t->Available;
    return row;
}

uint32_t __mv_IndexTable_allocateRowId(MV_IndexTable* t, void* obj) {
    MV_IndexRow* row = __mv_IndexTable_getRow(t);
    if (!row) return 0;
    row->Object.store(obj, std::memory_order_release);
    return row->next_id.load(std::memory_order_relaxed);
}

namespace {
// Gives the row back if it is in use and, when expectedId is not 0, still holds that
// id: two frees of one id must not free the row's next holder.
bool putRowIf(MV_IndexRow* row, uint32_t expectedId) {
    MV_IndexTable* t = row->Parent;
    std::lock_guard g(t->Lock);
    uint32_t cur = row->next_id.load(std::memory_order_relaxed);
    if (row->isReleased || (expectedId && cur != expectedId)) return false;
    const MV_IdProvider& p = t->idProvider;
    uint64_t next = uint64_t(cur) + p.Count;
    uint32_t moved = next > p.MaximumNo ? p.BaseNo + (cur - p.BaseNo) % p.Count : uint32_t(next);
    row->Object.store(nullptr, std::memory_order_relaxed);
    row->Object2 = nullptr;
    row->next_id.store(moved, std::memory_order_release);
    rowList(t).pushTail(row);
    ++t->Available;
    return true;
}
}  // namespace

void __mv_IndexTable_putRow(MV_IndexRow* iRow) {
    if (!iRow || !iRow->Parent) return;
    // A timer left armed would fire for whoever takes the row next.
    __mv_indexRow_clearTimer(iRow);
    putRowIf(iRow, 0);
}

MV_IndexRow* __mv_IndexTable_FindRow(MV_IndexTable* t, uint32_t id) {
    if (!t || id < t->idProvider.BaseNo) return nullptr;
    uint32_t r = (id - t->idProvider.BaseNo) % t->idProvider.Count;
    if (r >= t->Total) return nullptr;
    MV_IndexRow* row = t->table[r];
    return row->next_id.load(std::memory_order_acquire) == id ? row : nullptr;
}

void* __mv_IndexTable_FindObject1(MV_IndexTable* t, uint32_t id) {
    MV_IndexRow* row = __mv_IndexTable_FindRow(t, id);
    return row ? row->Object.load(std::memory_order_acquire) : nullptr;
}

int __mv_IndexTable_FreeRow(MV_IndexTable* t, uint32_t id) {
    MV_IndexRow* row = __mv_IndexTable_FindRow(t, id);
    if (!row || id == 0) return 0;
    MV_Timer* timer = row->timer;
    uint64_t gen = row->timerGeneration;
    if (!putRowIf(row, id)) return 0;
    if (timer) __mv_core_clear_timer_gen(timer, gen);
    return 1;
}

void __mv_IndexTable_get_pool_availability(MV_IndexTable* t, uint32_t* Total, uint32_t* Available, uint64_t* Used) {
    if (!t) return;
    std::lock_guard g(t->Lock);
    if (Total) *Total = t->Total;
    if (Available) *Available = t->Available;
    if (Used) *Used = t->Used;
}

void __mv_IndexTable_plog(const char* name, MV_IndexTable* t) {
    if (!t) return;
    uint32_t total = 0, avail = 0;
    uint64_t used = 0;
    __mv_IndexTable_get_pool_availability(t, &total, &avail, &used);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_DEBUG, "%-29s   Total=%-8u   Available=%-8u   Used=%-8lu", name ? name : "",
             total, avail, (unsigned long)used);
}

uint32_t __mv_indexRow_getId(MV_IndexRow* r) { return r ? r->next_id.load(std::memory_order_acquire) : 0; }
void* __mv_indexRow_getObject(MV_IndexRow* r) { return r ? r->Object.load(std::memory_order_acquire) : nullptr; }
void __mv_indexRow_setObject(MV_IndexRow* r, void* obj) {
    if (r) r->Object.store(obj, std::memory_order_release);
}
void* __mv_indexRow_getObject2(MV_IndexRow* r) { return r ? r->Object2 : nullptr; }
void __mv_indexRow_setObject2(MV_IndexRow* r, void* obj) {
    if (r) r->Object2 = obj;
}
timer_handler __mv_indexRow_getTimerHandler(MV_IndexRow* r) { return r ? r->handler : nullptr; }
void __mv_indexRow_setTimerHandler(MV_IndexRow* r, timer_handler handler) {
    if (r) r->handler = handler;
}

int __mv_indexRow_setTimer(MV_IndexRow* r, timer_handler handler, int seconds) {
    if (!r || !handler || seconds <= 0 || seconds >= MV_TIMER_WHEEL_SLOTS) return 0;
    __mv_indexRow_clearTimer(r);
    // The generation is read before the timer is in the wheel: once there it may
    // fire and go to another user at once.
    MV_Timer* t = __mv_allocate_timer();
    uint64_t gen = __mv_core_timer_generation(t);
    t->data = r;
    t->handler = handler;
    r->handler = handler;
    r->timer = t;
    r->timerGeneration = gen;
    __mv_core_sch_timer(t, seconds);
    return 1;
}

void __mv_indexRow_clearTimer(MV_IndexRow* r) {
    if (!r || !r->timer) return;
    __mv_core_clear_timer_gen(r->timer, r->timerGeneration);
    r->timer = nullptr;
}

// ---------------------------------------------------------------- power table

namespace {

MV_PowerTableItem* newItem(MV_PowerTable* pt, MV_PowerTableItem* parent, uint8_t key) {
    auto* it = static_cast<MV_PowerTableItem*>(__mv_allocM(sizeof(MV_PowerTableItem)));
    if (!it) return nullptr;
    *it = MV_PowerTableItem{nullptr, nullptr, parent, nullptr, key, nullptr};
    if (pt->PoolCurrent) pt->PoolCurrent->PoolNext = it;
    else pt->PoolHead = it;
    pt->PoolCurrent = it;
    return it;
}

// All below are called with the table's lock held.
MV_PowerTableItem* ensureRoot(MV_PowerTable* pt) {
    if (!pt->Root) pt->Root = newItem(pt, nullptr, 255);
    return pt->Root;
}

MV_PowerTableItem* child(MV_PowerTableItem* node, uint8_t key, MV_PowerTableItem** last) {
    MV_PowerTableItem* prev = nullptr;
    for (MV_PowerTableItem* c = node->NextLevel; c; c = c->Next) {
        if (c->Key == key) return c;
        prev = c;
    }
    if (last) *last = prev;
    return nullptr;
}

MV_PowerTableItem* walk(MV_PowerTable* pt, const uint8_t* key, int keylen) {
    MV_PowerTableItem* node = ensureRoot(pt);
    for (int i = 0; node && i < keylen; ++i) node = child(node, key[i], nullptr);
    return node;
}

int addLocked(MV_PowerTable* pt, const uint8_t* key, int keylen, void* dataPtr) {
    MV_PowerTableItem* node = ensureRoot(pt);
    if (!node) return 0;
    for (int i = 0; i < keylen; ++i) {
        MV_PowerTableItem* last = nullptr;
        MV_PowerTableItem* c = child(node, key[i], &last);
        if (!c) {
            c = newItem(pt, node, key[i]);
            if (!c) return 0;
            if (last) last->Next = c;
            else node->NextLevel = c;
            ++pt->KeyElementsCount;
        }
        node = c;
    }
    // Overwriting a key keeps the count of keys.
    if (!node->DataPtr) ++pt->DataItemCount;
    node->DataPtr = dataPtr;
    return 1;
}

void freeItems(MV_PowerTableItem* head) {
    for (MV_PowerTableItem* it = head; it;) {
        MV_PowerTableItem* next = it->PoolNext;
        __mv_freeM(it);
        it = next;
    }
}

void swapContents(MV_PowerTable* a, MV_PowerTable* b) {
    std::swap(a->Root, b->Root);
    std::swap(a->PoolHead, b->PoolHead);
    std::swap(a->PoolCurrent, b->PoolCurrent);
    std::swap(a->KeyElementsCount, b->KeyElementsCount);
    std::swap(a->DataItemCount, b->DataItemCount);
    std::swap(a->DeletedCount, b->DeletedCount);
}

void u64Key(uint64_t key, uint8_t (&buf)[MV_POWER_TABLE_U64_KEYLEN + 1]) {
    memset(buf, 0, sizeof buf);
    snprintf(reinterpret_cast<char*>(buf), sizeof buf, "%lu", (unsigned long)key);
}

void elapsed(const struct timeval& start, long* sec, long* usec) {
    struct timeval now, d;
    gettimeofday(&now, nullptr);
    timersub(&now, &start, &d);
    *sec = d.tv_sec;
    *usec = d.tv_usec;
}

}  // namespace

MV_PowerTable* __mv_power_table_create() {
    void* mem = __mv_allocM(sizeof(MV_PowerTable));
    if (!mem) return nullptr;
    return new (mem) MV_PowerTable{};
}

int __mv_power_table_add(MV_PowerTable* pt, const void* key, int keylen, void* dataPtr) {
    if (!pt || !key || keylen < 1 || !dataPtr) return 0;
    std::lock_guard g(pt->Lock);
    return addLocked(pt, static_cast<const uint8_t*>(key), keylen, dataPtr);
}

int __mv_power_table_fnd(MV_PowerTable* pt, const void* key, int keylen, void** dataPtr) {
    if (dataPtr) *dataPtr = nullptr;
    if (!pt || !key || keylen < 1 || !dataPtr) return 0;
    std::lock_guard g(pt->Lock);
    MV_PowerTableItem* node = walk(pt, static_cast<const uint8_t*>(key), keylen);
    if (!node || !node->DataPtr) return 0;
    *dataPtr = node->DataPtr;
    return 1;
}

int __mv_power_table_del(MV_PowerTable* pt, const void* key, int keylen) {
    if (!pt || !key || keylen < 1) return 0;
    std::lock_guard g(pt->Lock);
    MV_PowerTableItem* node = walk(pt, static_cast<const uint8_t*>(key), keylen);
    if (!node || !node->DataPtr) return 0;
    node->DataPtr = nullptr;
    --pt->DataItemCount;
    ++pt->DeletedCount;
    return 1;
}

int __mv_power_table_add_lk(MV_PowerTable* pt, uint64_t key, void* dataPtr) {
    uint8_t buf[MV_POWER_TABLE_U64_KEYLEN + 1];
    u64Key(key, buf);
    return __mv_power_table_add(pt, buf, MV_POWER_TABLE_U64_KEYLEN, dataPtr);
}

int __mv_power_table_fnd_lk(MV_PowerTable* pt, uint64_t key, void** dataPtr) {
    uint8_t buf[MV_POWER_TABLE_U64_KEYLEN + 1];
    u64Key(key, buf);
    return __mv_power_table_fnd(pt, buf, MV_POWER_TABLE_U64_KEYLEN, dataPtr);
}

int __mv_power_table_del_lk(MV_PowerTable* pt, uint64_t key) {
    uint8_t buf[MV_POWER_TABLE_U64_KEYLEN + 1];
    u64Key(key, buf);
    return __mv_power_table_del(pt, buf, MV_POWER_TABLE_U64_KEYLEN);
}

int __mv_power_table_get_item_count(MV_PowerTable* pt) {
    if (!pt) return 0;
    std::lock_guard g(pt->Lock);
    return pt->DataItemCount;
}

MV_PowerTableItem* __mv_power_table_get_pending_ptr(MV_PowerTable* pt, MV_PowerTableItem* lastPtr) {
    if (!pt) return nullptr;
    std::lock_guard g(pt->Lock);
    MV_PowerTableItem* it = lastPtr ? lastPtr->PoolNext : pt->PoolHead;
    while (it && !it->DataPtr) it = it->PoolNext;
    return it;
}

void* __mv_power_table_get_ptr_dataitem(MV_PowerTableItem* pi_item_ptr) {
    return pi_item_ptr ? pi_item_ptr->DataPtr : nullptr;
}

void __mv_power_table_rebuild(MV_PowerTable* pt) {
    if (!pt) return;
    struct timeval start;
    gettimeofday(&start, nullptr);
    MV_PowerTable* fresh = __mv_power_table_create();
    if (!fresh) return;
    bool complete = true;
    {
        std::lock_guard g(pt->Lock);
        std::vector<uint8_t> key;
        for (MV_PowerTableItem* it = pt->PoolHead; it && complete; it = it->PoolNext) {
            if (!it->DataPtr) continue;
            // The path up to the root, below it: every byte of the key, 255 included.
            key.clear();
            for (MV_PowerTableItem* n = it; n->PrevLevel; n = n->PrevLevel) key.push_back(n->Key);
            std::reverse(key.begin(), key.end());
            if (key.empty() || !addLocked(fresh, key.data(), int(key.size()), it->DataPtr)) complete = false;
        }
        // A copy cut short by a failed allocation would lose keys: keep the old table.
        if (complete) {
            swapContents(pt, fresh);
            pt->DeletedCount = 0;
        }
    }
    long s, us;
    elapsed(start, &s, &us);
    if (complete) printf("rebuilt-in %ld.%06ld <%s|%s|%d>\n", s, us, __FILE_NAME__, __func__, __LINE__);
    __mv_power_table_destroy(fresh);
    elapsed(start, &s, &us);
    printf("destroyed-in %ld.%06ld <%s|%s|%d>\n", s, us, __FILE_NAME__, __func__, __LINE__);
}

void __mv_power_table_release_all(MV_PowerTable* pt) {
    if (!pt) return;
    {
        std::lock_guard g(pt->Lock);
        for (MV_PowerTableItem* it = pt->PoolHead; it; it = it->PoolNext) {
            if (!it->DataPtr) continue;
            __mv_freeM(it->DataPtr);
            it->DataPtr = nullptr;
            --pt->DataItemCount;
            ++pt->DeletedCount;
        }
    }
    __mv_power_table_rebuild(pt);
}

void __mv_power_table_swap(MV_PowerTable* pt, MV_PowerTable* ptNew) {
    if (!pt || !ptNew || pt == ptNew) return;
    std::scoped_lock g(pt->Lock, ptNew->Lock);
    swapContents(pt, ptNew);
}

void __mv_power_table_destroy(MV_PowerTable* pt) {
    if (!pt) return;
    {
        std::lock_guard g(pt->Lock);
        freeItems(pt->PoolHead);
        pt->Root = pt->PoolHead = pt->PoolCurrent = nullptr;
    }
    pt->~MV_PowerTable();
    __mv_freeM(pt);
}

// ---------------------------------------------------------------- counters

void __mv_counter_init(MV_Counter* c, long liMaxLimit, const char* name) {
    if (!c) return;
    snprintf(c->Name, sizeof c->Name, "%s", name ? name : "");
    c->MaxLimit = liMaxLimit;
    c->TotalProcessedCount = 0;
    c->CurrentCount = 0;
    c->lastRequest = 0;
    c->Request = 0;
    c->lastSendFailed = 0;
    c->SendFailed = 0;
    c->Response = 0;
    c->ErrorResponse = 0;
    c->Total = 0;
}

MV_Counter* __mv_counter_create(long liMaxLimit, const char* name) {
    auto* c = __mv_arena_new<MV_Counter>();
    __mv_counter_init(c, liMaxLimit, name);
    return c;
}

int __mv_counter_increment_request(MV_Counter* c) { return __mv_counter_increment_request2(c, 1); }

int __mv_counter_increment_request2(MV_Counter* c, uint64_t cnt) {
    if (!c) return -1;
    std::lock_guard g(c->RequestLock);
    c->Request.fetch_add(cnt, std::memory_order_relaxed);
    c->Total.fetch_add(cnt, std::memory_order_relaxed);
    return 0;
}

int __mv_counter_increment_send_failed(MV_Counter* c) {
    if (!c) return -1;
    std::lock_guard g(c->SendFailedLock);
    c->SendFailed.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

int __mv_counter_increment_response(MV_Counter* c) {
    if (!c) return -1;
    std::lock_guard g(c->ResponseLock);
    c->Response.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

int __mv_counter_increment_error_response(MV_Counter* c) {
    if (!c) return -1;
    std::lock_guard g(c->ErrorResponseLock);
    c->ErrorResponse.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

int __mv_counter_isMaxLimitReached(MV_Counter* c) {
    if (!c) return 0;
    return c->CurrentCount.load() >= c->MaxLimit.load() ? 1 : 0;
}

void __mv_counter_reinit(MV_Counter* c, int total) {
    if (!c) return;
    if (total == 0 || total == 1) {
        {
            std::lock_guard g(c->RequestLock);
            c->Request = 0;
            c->lastRequest = 0;
            if (total == 1) c->Total = 0;
        }
        std::lock_guard g(c->ResponseLock);
        c->Response = 0;
    } else if (total == 2) {
        std::lock_guard g(c->RequestLock);
        c->lastRequest = 0;
        c->CurrentCount = 0;
    }
}

namespace {
// Requests since the last line; moves lastRequest on.
long sinceLast(MV_Counter* c, uint64_t* request) {
    std::lock_guard g(c->RequestLock);
    uint64_t req = c->Request.load();
    long d = long(req - c->lastRequest.load());
    c->lastRequest = req;
    if (request) *request = req;
    return d;
}
}  // namespace

void __mv_counter_plog(MV_Counter* c) {
    if (!c) return;
    uint64_t req;
    long cur = sinceLast(c, &req);
    uint64_t resp = c->Response.load(), err = c->ErrorResponse.load(), sum = resp + err;
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_DEBUG,
             "%-30s Request[Current %6ld  Total %6lu] Response[Success %6lu  Error %6lu  Total %6lu] Difference %6ld",
             c->Name, cur, (unsigned long)req, (unsigned long)resp, (unsigned long)err, (unsigned long)sum,
             long(req - sum));
}

void __mv_counter_plog2(MV_Counter* c) {
    if (!c) return;
    long cur = sinceLast(c, nullptr);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_DEBUG, "%s Current=%ld Total=%lu", c->Name, cur,
             (unsigned long)c->Total.load());
}

void __mv_counter_plog3(MV_Counter* c) {
    if (!c) return;
    uint64_t req;
    long cur = sinceLast(c, &req);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_DEBUG, "%-40s   %-10ld   %-10lu", c->Name, cur, (unsigned long)req);
}

void __mv_counter_plog4(MV_Counter* c, uint32_t logType) {
    if (!c) return;
    uint64_t req;
    long cur;
    {
        std::lock_guard g(c->RequestLock);
        req = c->Request.load();
        cur = long(req - c->lastRequest.load());
        c->CurrentCount = cur;
        c->lastRequest = req;
    }
    __mv_log(logType, LOG_CAT_CORE, MV_LOG_DEBUG, "%-40s   %-10ld   %-10lu", c->Name, cur, (unsigned long)req);
}

void __mv_counter_plog5(MV_Counter* c) {
    if (!c) return;
    uint64_t req;
    long cur = sinceLast(c, &req);
    uint64_t failed;
    long curFailed;
    {
        std::lock_guard g(c->SendFailedLock);
        failed = c->SendFailed.load();
        curFailed = long(failed - c->lastSendFailed.load());
        c->lastSendFailed = failed;
    }
    uint64_t resp = c->Response.load(), err = c->ErrorResponse.load(), sum = resp + err;
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_DEBUG,
             "%-30s Request[Current=%-10ld Total=%-10lu SendFailed=%-10ld Total=%-10lu ] Response[Success=%-10lu "
             "Error=%-10lu Total=%-10lu] Difference=%-10ld",
             c->Name, cur, (unsigned long)req, curFailed, (unsigned long)failed, (unsigned long)resp,
             (unsigned long)err, (unsigned long)sum, long(req - sum));
}
