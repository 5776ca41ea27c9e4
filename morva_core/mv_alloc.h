// The pooled allocator: 41 size classes with a head in front of every block, a
// first-in first-out free list per class and a guard against double frees; the
// once-a-second memory lines; random numbers and UUIDs.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mv_core.h"

// Lies directly in front of the user bytes. Padded to 16 so that the user bytes
// keep the alignment malloc would give.
struct alignas(16) MV_MemoryHead {
    uint32_t isReleased;
    uint32_t index;
    uint32_t block_size;
    uint32_t alloc_size;
    MV_MemoryPool* parentPtr;
    void* memory;
    MV_MemoryHead* PoolNext;
};
static_assert(sizeof(MV_MemoryHead) == 48);

// Requests of this size or more have no class.
constexpr uint32_t MV_ALLOCM_MAX_SIZE = 9437184;

struct MV_SizeClass {
    uint32_t size;
    uint32_t initial;
    uint32_t increment;
};

// Slot order of __mvCore->MemoryPool: 50 upward in slots 0 to 39, the 21 class last.
inline constexpr MV_SizeClass kMvSizeClasses[MV_MEMORY_POOL_CLASSES] = {
    {50, 800000, 300},  {100, 10000, 300},   {200, 5000, 500},    {300, 5000, 300},    {400, 1000, 300},
    {500, 1000, 300},   {1000, 2000, 300},   {2100, 500, 100},    {3150, 500, 100},    {4200, 5000, 100},
    {5300, 5000, 100},  {6400, 500, 10},     {7400, 500, 10},     {8000, 500, 10},     {9000, 500, 10},
    {10000, 500, 5},    {20000, 1000, 500},  {30000, 10, 5},      {40000, 10, 5},      {50000, 10, 5},
    {60000, 10, 5},     {70000, 10, 5},      {80000, 10, 5},      {90000, 10, 5},      {95000, 10, 1},
    {102400, 10, 5},    {204800, 10, 5},     {307200, 10, 5},     {409600, 10, 5},     {512000, 10, 5},
    {614400, 10, 5},    {1048576, 10, 5},    {2097152, 10, 5},    {3145728, 1, 1},     {4194304, 1, 1},
    {5242880, 1, 1},    {6291456, 1, 1},     {7340032, 1, 1},     {8388608, 1, 1},     {9437184, 1, 1},
    {21, 10000, 1000},
};

// The slot of the first class strictly larger than `size`, or -1 when none is.
int __mv_memory_class_slot(size_t size);

void* __mv_allocM(size_t size);
void* __mv_allocMV(size_t size);
void* __mv_allocMV1(size_t size);
void* __mv_allocM7(size_t size, const char* file, int line, int id);
void __mv_allocMV2(size_t size, void** dataPtr);
void __mv_allocMX(size_t size, void** dataPtr);
void __mv_freeM(void* ptr);
void __mv_freeMV(void* ptr);
void* __mv_allocR(void* ptr, size_t size);

void* __mv_allocMemory(MV_MemoryPool* memoryPool, uint32_t alloc_size);
void __mv_allocate_Memory(MV_MemoryPool* memoryPool, uint32_t count, int inLockMode);

// The class size of a block handed out by __mv_allocM (0 for null).
uint32_t __mv_allocM_block_size(const void* ptr);

// A snapshot of one class, read under its lock.
struct MV_MemoryPoolStats {
    uint32_t size;
    uint32_t TotalPoolSize;
    uint32_t Available;
    uint64_t Used;
    uint32_t MemoryReservedCount;
    uint64_t Returned;
};
MV_MemoryPoolStats __mv_memory_pool_stats(int slot);

// Trace of allocations and frees of one class; no configuration key sets it.
extern std::atomic<int> debug__allocM__enable;
extern std::atomic<uint32_t> debug__allocM__size;

// ---------------------------------------------------------------- random numbers and UUIDs

uint8_t __mv_core_getU8RANDRange(uint8_t min, uint8_t max);
uint16_t __mv_core_getU16RANDRange(uint16_t min, uint16_t max);
uint32_t __mv_core_getU32RANDRange(uint32_t min, uint32_t max);
uint64_t __mv_core_getU64RANDRange(uint64_t min, uint64_t max);

// Writes 36 characters and a terminator: uuid4 holds at least 37 bytes.
void __mv_generate_uuid4(char* uuid4);
