// Id-indexed tables (tunnel ids, SEIDs, sequence numbers: ids that change at each
// reuse of a row, so a late answer finds nothing), the byte trie for keyed lookup,
// and the message counters.
#pragma once

#include <atomic>
#include <cstdint>

#include "mv_core.h"

// ---------------------------------------------------------------- index table

struct MV_IndexTable;
typedef void (*timer_handler)(void* data);

struct MV_IdProvider {
    uint32_t BaseNo;
    uint32_t MaximumNo;
    uint32_t Count;
};

struct MV_IndexRow {
    MV_IndexRow* Next;
    uint32_t id;                         // the first id of the row
    std::atomic<uint32_t> next_id;       // the id in force; lookups read it without a lock
    MV_IndexTable* Parent;
    std::atomic<void*> Object;           // read by lookups on other threads
    void* Object2;
    MV_Timer* timer;
    timer_handler handler;
    uint64_t timerGeneration;            // the arming `timer` belongs to
    uint32_t isReleased;                 // a second put would advance the id twice
};

struct MV_IndexTable {
    MV_IdProvider idProvider;
    MV_IndexRow** table;
    MV_IndexRow* rowHead;
    MV_IndexRow* rowCurrent;
    MV_Mutex Lock;
    uint32_t Total;
    uint32_t Available;
    uint64_t Used;
};

[[nodiscard]] MV_IndexTable* __mv_IndexTable_create(uint32_t baseId, uint32_t count);
[[nodiscard]] MV_IndexTable* __mv_IndexTable_create2(uint32_t baseId, uint32_t count, uint32_t max);
[[nodiscard]] MV_IndexRow* __mv_IndexTable_getRow(MV_IndexTable* indexTable);
// 0 when the table has no free row (ids start at the base, which callers keep above 0).
[[nodiscard]] uint32_t __mv_IndexTable_allocateRowId(MV_IndexTable* indexTable, void* obj);
void __mv_IndexTable_putRow(MV_IndexRow* iRow);
MV_IndexRow* __mv_IndexTable_FindRow(MV_IndexTable* indexTable, uint32_t id);
void* __mv_IndexTable_FindObject1(MV_IndexTable* indexTable, uint32_t id);
int __mv_IndexTable_FreeRow(MV_IndexTable* indexTable, uint32_t id);
void __mv_IndexTable_get_pool_availability(MV_IndexTable* indexTable, uint32_t* Total, uint32_t* Available,
                                           uint64_t* Used);
void __mv_IndexTable_plog(const char* name, MV_IndexTable* indexTable);

uint32_t __mv_indexRow_getId(MV_IndexRow* iRow);
void* __mv_indexRow_getObject(MV_IndexRow* iRow);
void __mv_indexRow_setObject(MV_IndexRow* iRow, void* obj);
void* __mv_indexRow_getObject2(MV_IndexRow* iRow);
void __mv_indexRow_setObject2(MV_IndexRow* iRow, void* obj);
timer_handler __mv_indexRow_getTimerHandler(MV_IndexRow* iRow);
void __mv_indexRow_setTimerHandler(MV_IndexRow* iRow, timer_handler handler);
// handler(row) runs on a queue line after about `seconds`; 1 armed, 0 not.
int __mv_indexRow_setTimer(MV_IndexRow* iRow, timer_handler handler, int seconds);
void __mv_indexRow_clearTimer(MV_IndexRow* iRow);

// ---------------------------------------------------------------- power table

struct MV_PowerTableItem {
    MV_PowerTableItem* PoolNext;   // every item of the table in order of creation
    MV_PowerTableItem* Next;       // next sibling
    MV_PowerTableItem* PrevLevel;  // parent
    MV_PowerTableItem* NextLevel;  // first child
    uint8_t Key;
    void* DataPtr;
};

struct MV_PowerTable {
    MV_PowerTableItem* Root;
    MV_PowerTableItem* PoolHead;
    MV_PowerTableItem* PoolCurrent;
    int KeyElementsCount;
    int DataItemCount;
    int DeletedCount;
    MV_Mutex Lock;
};

#define MV_POWER_TABLE_U64_KEYLEN 20

[[nodiscard]] MV_PowerTable* __mv_power_table_create();
int __mv_power_table_add(MV_PowerTable* pt, const void* key, int keylen, void* dataPtr);
int __mv_power_table_fnd(MV_PowerTable* pt, const void* key, int keylen, void** dataPtr);
int __mv_power_table_del(MV_PowerTable* pt, const void* key, int keylen);
int __mv_power_table_add_lk(MV_PowerTable* pt, uint64_t key, void* dataPtr);
int __mv_power_table_fnd_lk(MV_PowerTable* pt, uint64_t key, void** dataPtr);
int __mv_power_table_del_lk(MV_PowerTable* pt, uint64_t key);
int __mv_power_table_get_item_count(MV_PowerTable* pt);
MV_PowerTableItem* __mv_power_table_get_pending_ptr(MV_PowerTable* pt, MV_PowerTableItem* lastPtr);
void* __mv_power_table_get_ptr_dataitem(MV_PowerTableItem* pi_item_ptr);
void __mv_power_table_rebuild(MV_PowerTable* pt);
void __mv_power_table_release_all(MV_PowerTable* pt);
void __mv_power_table_swap(MV_PowerTable* pt, MV_PowerTable* ptNew);
void __mv_power_table_destroy(MV_PowerTable* pt);

// ---------------------------------------------------------------- counters

// Values are atomics so that readers outside the operations below (the console,
// the statistics thread) never race; the locks keep each group's fields together.
struct MV_Counter {
    MV_Counter* Next;
    char Name[100];
    MV_Mutex Lock;
    std::atomic<long> TotalProcessedCount;
    std::atomic<long> MaxLimit;
    std::atomic<long> CurrentCount;
    std::atomic<uint64_t> lastRequest;
    std::atomic<uint64_t> Request;
    MV_Mutex RequestLock;
    std::atomic<uint64_t> lastSendFailed;
    std::atomic<uint64_t> SendFailed;
    MV_Mutex SendFailedLock;
    std::atomic<uint64_t> Response;
    MV_Mutex ResponseLock;
    std::atomic<uint64_t> ErrorResponse;
    MV_Mutex ErrorResponseLock;
    std::atomic<uint64_t> Total;
    MV_Mutex TotalLock;
};

[[nodiscard]] MV_Counter* __mv_counter_create(long liMaxLimit, const char* name);
void __mv_counter_init(MV_Counter* siCounter, long liMaxLimit, const char* name);
int __mv_counter_increment_request(MV_Counter* siCounter);
int __mv_counter_increment_request2(MV_Counter* siCounter, uint64_t cnt);
int __mv_counter_increment_send_failed(MV_Counter* siCounter);
int __mv_counter_increment_response(MV_Counter* siCounter);
int __mv_counter_increment_error_response(MV_Counter* siCounter);
int __mv_counter_isMaxLimitReached(MV_Counter* siCounter);
void __mv_counter_reinit(MV_Counter* siCounter, int total);
void __mv_counter_plog(MV_Counter* siCounter);
void __mv_counter_plog2(MV_Counter* siCounter);
void __mv_counter_plog3(MV_Counter* siCounter);
void __mv_counter_plog4(MV_Counter* siCounter, uint32_t logType);
void __mv_counter_plog5(MV_Counter* siCounter);
