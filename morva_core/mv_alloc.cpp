// Size-class pools: every message of the process takes its memory here, so the hot
// path is a class lookup and one list pop under the class's own lock.
#include "mv_alloc.h"
#include "mv_fifo.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

std::atomic<int> debug__allocM__enable{0};
std::atomic<uint32_t> debug__allocM__size{21};

namespace {

// Growth lines are printed only after the start fill, which would print 41 of them.
std::atomic<int> logMemoryReservedCount{0};

constexpr size_t kHead = sizeof(MV_MemoryHead);

constexpr size_t blockStride(uint32_t size) { return kHead + ((size_t(size) + 15) & ~size_t(15)); }

// Classes 0 to 39 ascend, so the first one strictly larger is an upper bound.
constexpr std::array<uint32_t, MV_MEMORY_POOL_CLASSES - 1> kAscending = [] {
    std::array<uint32_t, MV_MEMORY_POOL_CLASSES - 1> a{};
    for (int i = 0; i < MV_MEMORY_POOL_CLASSES - 1; ++i) a[i] = kMvSizeClasses[i].size;
    return a;
}();

mv_fifo::FreeList<MV_MemoryHead, &MV_MemoryHead::PoolNext> freeList(MV_MemoryPool* pool) {
    return {pool->Head, pool->Current};
}

MV_MemoryHead* headOf(void* ptr) { return reinterpret_cast<MV_MemoryHead*>(static_cast<char*>(ptr) - kHead); }

bool isOurPool(const MV_MemoryPool* p) {
    const MV_MemoryPool* first = &__mvCore->MemoryPool[0];
    return p >= first && p < first + MV_MEMORY_POOL_CLASSES;
}

// Called with the class lock held.
void carve(MV_MemoryPool* pool, uint32_t count) {
    size_t stride = blockStride(pool->size);
    auto* slab = static_cast<char*>(__mv_malloc_block(stride * count, __FILE_NAME__, __LINE__));
    if (!slab) {
        printf("memory allocation failed %s|%s|%d\n", __FILE_NAME__, __func__, __LINE__);
        return;
    }
    for (uint32_t i = 0; i < count; ++i) {
        auto* h = reinterpret_cast<MV_MemoryHead*>(slab + stride * i);
        h->index = pool->TotalPoolSize++;
        h->block_size = pool->size;
        h->alloc_size = 0;
        h->parentPtr = pool;
        h->memory = h + 1;
        freeList(pool).pushTail(h);
    }
    pool->Available += count;
    ++pool->MemoryReservedCount;
}

void trace(const char* what, MV_MemoryHead* h) {
    if (debug__allocM__enable.load(std::memory_order_relaxed) == 1 &&
        h->block_size == debug__allocM__size.load(std::memory_order_relaxed))
        printf("%s size=%u index=%u alloc_size=%u ptr=%p\n", what, h->block_size, h->index, h->alloc_size, h->memory);
}

}  // namespace

int __mv_memory_class_slot(size_t size) {
    if (size < 21) return MV_MEMORY_POOL_CLASSES - 1;
    auto it = std::upper_bound(kAscending.begin(), kAscending.end(), size);
    return it == kAscending.end() ? -1 : int(it - kAscending.begin());
}

void __mv_allocate_Memory(MV_MemoryPool* memoryPool, uint32_t count, int inLockMode) {
    if (!memoryPool || count == 0) return;
    uint32_t reservedBefore = memoryPool->MemoryReservedCount;
    std::unique_lock g(memoryPool->Lock, std::defer_lock);
    if (inLockMode == 1) g.lock();
    // Another thread grew the class while this one waited for the lock.
    if (memoryPool->Head && memoryPool->MemoryReservedCount != reservedBefore) return;
    if (logMemoryReservedCount.load(std::memory_order_relaxed)) {
        printf("size=%d element-count=%d TotalPoolSize=%d  %s|%s|%d\n", int(memoryPool->size), int(count),
               int(memoryPool->TotalPoolSize), __FILE_NAME__, __func__, __LINE__);
        __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "MEMORY-POOL size=%d element-count=%d TotalPoolSize=%d  %s|%s|%d",
                 int(memoryPool->size), int(count), int(memoryPool->TotalPoolSize), __FILE_NAME__, __func__, __LINE__);
    }
    carve(memoryPool, count);
}

void* __mv_allocMemory(MV_MemoryPool* memoryPool, uint32_t alloc_size) {
    MV_MemoryHead* h;
    {
        std::lock_guard g(memoryPool->Lock);
        if (!memoryPool->Head) __mv_allocate_Memory(memoryPool, memoryPool->IncrementPoolSize, 0);
        h = freeList(memoryPool).popHead();
        if (!h) return nullptr;
        h->alloc_size = alloc_size;
        --memoryPool->Available;
        ++memoryPool->Used;
    }
    trace("allocM", h);
    return h->memory;
}

void* __mv_allocM(size_t size) {
    int slot = __mv_memory_class_slot(size);
    if (slot < 0) return nullptr;
    return __mv_allocMemory(&__mvCore->MemoryPool[slot], uint32_t(size));
}

void* __mv_allocMV(size_t size) { return __mv_allocM(size); }
void* __mv_allocMV1(size_t size) { return __mv_allocM(size); }
void* __mv_allocM7(size_t size, const char*, int, int) { return __mv_allocM(size); }

void __mv_allocMV2(size_t size, void** dataPtr) {
    if (dataPtr) *dataPtr = __mv_allocM(size);
}

void __mv_allocMX(size_t size, void** dataPtr) {
    if (!dataPtr) return;
    if (void* p = __mv_allocM(size)) *dataPtr = p;
}

void __mv_freeM(void* ptr) {
    if (!ptr) return;
    MV_MemoryHead* h = headOf(ptr);
    MV_MemoryPool* pool = h->parentPtr;
    // A pointer that did not come from the classes is refused rather than linked in.
    if (!isOurPool(pool) || h->memory != ptr) {
        __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "free of a foreign block ptr=%p %s|%s|%d", ptr,
                 __FILE_NAME__, __func__, __LINE__);
        return;
    }
    trace("freeM", h);
    std::lock_guard g(pool->Lock);
    if (freeList(pool).give(h)) ++pool->Available;
    ++pool->Returned;
}

void __mv_freeMV(void* ptr) { __mv_freeM(ptr); }

uint32_t __mv_allocM_block_size(const void* ptr) {
    if (!ptr) return 0;
    return headOf(const_cast<void*>(ptr))->block_size;
}

void* __mv_allocR(void* ptr, size_t size) {
    if (!ptr) return __mv_allocM(size);
    MV_MemoryHead* h = headOf(ptr);
    if (size < h->block_size) {
        h->alloc_size = uint32_t(size);
        return ptr;
    }
    void* n = __mv_allocM(size);
    if (!n) return nullptr;  // the old block stays valid, as with realloc
    memcpy(n, ptr, h->block_size);
    __mv_freeM(ptr);
    return n;
}

void __mv_initalize_MemoryPools() {
    for (int i = 0; i < MV_MEMORY_POOL_CLASSES; ++i) {
        MV_MemoryPool& p = __mvCore->MemoryPool[i];
        std::lock_guard g(p.Lock);
        p.InitialPoolSize = kMvSizeClasses[i].initial;
        p.IncrementPoolSize = kMvSizeClasses[i].increment;
        p.size = kMvSizeClasses[i].size;
        // One slab per class keeps the start fill to a single pass over the heads.
        carve(&p, p.InitialPoolSize);
        p.Used = 0;
        p.Returned = 0;
    }
    logMemoryReservedCount = 1;
}

MV_MemoryPoolStats __mv_memory_pool_stats(int slot) {
    MV_MemoryPoolStats s{};
    if (slot < 0 || slot >= MV_MEMORY_POOL_CLASSES) return s;
    MV_MemoryPool& p = __mvCore->MemoryPool[slot];
    std::lock_guard g(p.Lock);
    s = {p.size, p.TotalPoolSize, p.Available, p.Used, p.MemoryReservedCount, p.Returned};
    return s;
}

void __mv_log_buffer_memory_stats() {
    if (!__mvCore->enableStackPerLog.load()) return;
    for (int i = 0; i < MV_MEMORY_POOL_CLASSES; ++i) {
        MV_MemoryPoolStats s = __mv_memory_pool_stats(i);
        __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL,
                 "size=%10d  Available=%6d  Total=%6d Used=%6ld Returned=%6ld MRC=%6ld Pending=%6d  |%d", int(s.size),
                 int(s.Available), int(s.TotalPoolSize), long(s.Used), long(s.Returned), long(s.MemoryReservedCount),
                 int(s.TotalPoolSize - s.Available), i);
    }
    __mv_core_queue_update_backlog();

    auto pair = [](MV_Mutex& m, const int& a, const int& b) {
        std::lock_guard g(m);
        return std::pair<int, int>(a, b);
    };
    auto [sp, sa] = pair(__mvCore->StreamLock, __mvCore->StreamPoolCount, __mvCore->StreamPoolAvailableCount);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "Core: StreamPoolCount=%6d  StreamPoolAvailableCount=%6d", sp, sa);
    auto [ep, ea] = pair(__mvCore->EventLock, __mvCore->EventPoolCount, __mvCore->EventPoolAvailableCount);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "Core: EventPoolCount=%6d  EventPoolAvailableCount=%6d", ep, ea);
    auto [qp, qa] = pair(__mvCore->QueueLock, __mvCore->TotalQueuePoolCount, __mvCore->AvailableQueuePoolCount);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "Core: QueuePoolCount=%6d  AvailableQueuePoolCount=%6d", qp, qa);
    long lineCount, lastProcessed, queued, backlog, avgBacklog;
    int lineThreads;
    {
        std::lock_guard g(__mvCore->QueueLineLock);
        lineCount = __mvCore->QueueLineCount;
        lineThreads = __mvCore->QueueLineThreadCount;
        lastProcessed = __mvCore->QueueLineLastProcessedCount;
        queued = __mvCore->QueueLineTotalQueuedCount;
        backlog = __mvCore->QueueBacklog;
        avgBacklog = __mvCore->LastAvgQueueBacklog;
    }
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "Core: QueueLineCount=%6d  QueueLineThreadCount=%6d",
             int(lineCount), lineThreads);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL,
             "Core: LastProcessedCount=%6ld QueuedCount=%6ld QueueBacklog=%6d LastAvgQBacklog=%d", lastProcessed, queued,
             int(backlog), int(avgBacklog));
    auto [rp, ra] = pair(__mvCore->ServiceRequestLock, __mvCore->ServiceRequestTotalPoolCount,
                         __mvCore->ServiceRequestAvailablePoolCount);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL,
             "Core: ServiceRequestTotalPoolCount=%6d  ServiceRequestAvailablePoolCount=%6d", rp, ra);
    auto [ap, aa] = pair(__mvCore->ActivityLock, __mvCore->ActivityTotalPoolCount, __mvCore->ActivityAvailablePoolCount);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "Core: ActivityTotalPoolCount=%6d  ActivityAvailablePoolCount=%6d",
             ap, aa);
    char dashes[168];
    memset(dashes, '-', 167);
    dashes[167] = 0;
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "%s", dashes);
}

// ---------------------------------------------------------------- random numbers

namespace {
// An inverted or full range would divide by zero; it yields min instead.
template <class T>
T randRange(T min, T max) {
    if (max < min) return min;
    uint64_t span = uint64_t(max) - uint64_t(min) + 1;
    if (span == 0) return T(min + T(rand()));
    return T(min + T(uint64_t(rand()) % span));
}
}  // namespace

uint8_t __mv_core_getU8RANDRange(uint8_t min, uint8_t max) { return randRange<uint8_t>(min, max); }
uint16_t __mv_core_getU16RANDRange(uint16_t min, uint16_t max) { return randRange<uint16_t>(min, max); }
uint32_t __mv_core_getU32RANDRange(uint32_t min, uint32_t max) { return randRange<uint32_t>(min, max); }
uint64_t __mv_core_getU64RANDRange(uint64_t min, uint64_t max) {
    if (min == 0 && max == UINT64_MAX) min = 100000000;
    return randRange<uint64_t>(min, max);
}

// ---------------------------------------------------------------- UUID

namespace {
uint64_t xorshift128plus(uint64_t s[2]) {
    uint64_t s1 = s[0];
    const uint64_t s0 = s[1];
    s[0] = s0;
    s1 ^= s1 << 23;
    s[1] = s1 ^ s0 ^ (s1 >> 18) ^ (s0 >> 5);
    return s[1] + s0;
}
}  // namespace

void __mv_generate_uuid4(char* uuid4) {
    if (!uuid4) return;
    uint64_t serial = ++__mvCore->UUID4SerialNumber;
    uint8_t seed[16];
    memcpy(seed, &serial, 8);
    seed[8] = '0';
    seed[9] = '1';
    time_t now = time(nullptr);
    struct tm tm;
    gmtime_r(&now, &tm);
    seed[10] = uint8_t(tm.tm_sec + '0');
    seed[11] = uint8_t(tm.tm_min + '0');
    seed[12] = uint8_t(tm.tm_hour + '0');
    seed[13] = uint8_t(tm.tm_mday + '0');
    seed[14] = uint8_t(tm.tm_mon + 1 + '0');
    seed[15] = uint8_t(tm.tm_year + '0');
    uint64_t s[2];
    memcpy(s, seed, 16);
    uint64_t r[2] = {xorshift128plus(s), xorshift128plus(s)};
    uint8_t bytes[16];
    memcpy(bytes, r, 16);

    static constexpr char kTemplate[] = "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx";
    static constexpr char kDigits[] = "0123456789abcdef";
    int nib = 0;
    for (int i = 0; i < 36; ++i) {
        char c = kTemplate[i];
        if (c == 'x' || c == 'y') {
            uint8_t b = bytes[nib / 2];
            uint8_t v = (nib % 2 == 0) ? (b & 0x0F) : (b >> 4);
            ++nib;
            if (c == 'y') v = uint8_t(0x8 | (v & 0x3));
            uuid4[i] = kDigits[v];
        } else {
            uuid4[i] = c;
        }
    }
    uuid4[36] = 0;
}
