// Regions: the memory of a decoded PDU. A PDU lives and dies as a whole, so its records are bumped
// out of chunks that belong to its root record and go back together when the root is freed. The
// chunks are carved from one reserved address range, so a pointer is known to lie in a region by
// its address alone, and they are taken and given back without a lock: a cache per thread in front
// of a lock-free stack shared by all threads.
#include <sys/mman.h>

#include <atomic>
#include <cstring>
#include <mutex>

#include "mv_asn_internal.h"

constinit const uint8_t* mv_asn_region_base = nullptr;
constinit size_t mv_asn_region_size = 0;

namespace {

constexpr size_t kChunk = kMvAsnChunk;
constexpr size_t kPayload = kMvAsnPayload;
constexpr size_t kRedzone = kMvAsnRedzone;
constexpr size_t kCommitStep = size_t(2) << 20;
constexpr unsigned kCacheMax = 64;
// A chunk: its head, then the payload.
struct Chunk : MvAsnRegion {
    uint8_t* payload() { return reinterpret_cast<uint8_t*>(this) + kMvAsnChunkHead; }
};

struct Arena {
    uint8_t* base = nullptr;
    size_t size = 0;
    std::atomic<size_t> top{0};        // bytes carved into chunks
    std::atomic<size_t> committed{0};  // bytes made readable and writable
    std::mutex growLock;               // taken only to widen the committed part
    std::atomic<uint64_t> freeHead{0};  // a tag that changes at each update << 32 | index + 1
    std::atomic<uint64_t> carved{0};

    Arena() {
        // Address space only; pages are committed as the carving reaches them.
        for (size_t want : {size_t(32) << 30, size_t(4) << 30, size_t(512) << 20}) {
            void* p = mmap(nullptr, want, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
            if (p != MAP_FAILED) {
                base = static_cast<uint8_t*>(p);
                size = want;
                // nothing else is ever mapped inside the range, so a pointer in it is a region's
                mv_asn_region_base = base;
                mv_asn_region_size = size;
                break;
            }
        }
    }
};

Arena& arena() {
    static Arena a;
    return a;
}


Chunk* chunkAt(uint32_t index) { return reinterpret_cast<Chunk*>(arena().base + size_t(index) * kChunk); }
uint32_t indexOf(const Chunk* c) {
    return uint32_t((reinterpret_cast<const uint8_t*>(c) - arena().base) / kChunk);
}

Chunk* carve() {
    Arena& a = arena();
    if (!a.base) return nullptr;
    size_t off = a.top.fetch_add(kChunk, std::memory_order_relaxed);
    if (off + kChunk > a.size) return nullptr;
    if (off + kChunk > a.committed.load(std::memory_order_acquire)) {
        std::lock_guard g(a.growLock);
        size_t c = a.committed.load(std::memory_order_relaxed);
        if (off + kChunk > c) {
            size_t upTo = (off + kChunk + kCommitStep - 1) / kCommitStep * kCommitStep;
            if (upTo > a.size) upTo = a.size;
            if (mprotect(a.base + c, upTo - c, PROT_READ | PROT_WRITE) != 0) return nullptr;
            a.committed.store(upTo, std::memory_order_release);
        }
    }
    a.carved.fetch_add(1, std::memory_order_relaxed);
    auto* ch = reinterpret_cast<Chunk*>(a.base + off);
    ASAN_POISON_MEMORY_REGION(ch->payload(), kPayload);
    return ch;
}

void pushShared(Chunk* c) {
    Arena& a = arena();
    uint64_t old = a.freeHead.load(std::memory_order_relaxed);
    uint64_t next;
    do {
        c->nextFree.store(uint32_t(old), std::memory_order_relaxed);
        next = ((old >> 32) + 1) << 32 | (indexOf(c) + 1);
    } while (!a.freeHead.compare_exchange_weak(old, next, std::memory_order_release, std::memory_order_relaxed));
}

// The tag makes a head that was popped and pushed again in between compare unequal; a chunk's
// head stays mapped and is only written by this stack, so reading a stale one is harmless.
Chunk* popShared() {
    Arena& a = arena();
    uint64_t old = a.freeHead.load(std::memory_order_acquire);
    while (uint32_t(old)) {
        Chunk* c = chunkAt(uint32_t(old) - 1);
        uint64_t next = ((old >> 32) + 1) << 32 | c->nextFree.load(std::memory_order_relaxed);
        if (a.freeHead.compare_exchange_weak(old, next, std::memory_order_acquire, std::memory_order_acquire))
            return c;
    }
    return nullptr;
}

constinit thread_local Chunk* tCache[kCacheMax] = {};
constinit thread_local unsigned tCached = 0;
constinit thread_local int tFlush = 0;  // 0 not set up, 1 flushed at thread exit, 2 thread ending

struct Flusher {
    ~Flusher() {
        tFlush = 2;
        while (tCached) pushShared(tCache[--tCached]);
    }
};

Chunk* take() {
    if (tCached) return tCache[--tCached];
    if (Chunk* c = popShared()) return c;
    return carve();
}

void give(Chunk* c) {
    if (tFlush == 0) {
        static thread_local Flusher f;
        (void)f;
        tFlush = 1;
    }
    if (tFlush == 1 && tCached < kCacheMax)
        tCache[tCached++] = c;
    else
        pushShared(c);
}

Chunk* chunkOf(const void* p) {
    uintptr_t base = uintptr_t(mv_asn_region_base);
    return reinterpret_cast<Chunk*>(base + (uintptr_t(p) - base) / kChunk * kChunk);
}

uint8_t* bumpIn(Chunk* c, size_t need, size_t size) {
    if (c->used + need > kPayload) return nullptr;
    uint8_t* p = c->payload() + c->used;
    c->used += uint32_t(need);
    ASAN_UNPOISON_MEMORY_REGION(p, size);
    return p;
}

}  // namespace

MvAsnRegion* mv_asn_region_of(const void* root) {
    if (!root || !mv_asn_in_region(root)) return nullptr;
    Chunk* c = chunkOf(root);
    return c->root == root ? c : nullptr;
}


void* mv_asn_region_alloc_slow(MvAsnRegion* region, size_t size) {
    auto* first = static_cast<Chunk*>(region);
    size_t need = (size + 7) / 8 * 8 + kRedzone;
    if (need > kPayload) return nullptr;
    Chunk* c = take();
    if (!c) return nullptr;
    c->nextInRegion = first->nextInRegion;
    first->nextInRegion = c;
    first->current = c;
    return bumpIn(c, need, size);
}

void* mv_asn_region_new_root(size_t size) {
    Chunk* c = take();
    if (!c) return nullptr;
    c->current = c;
    c->nextInRegion = nullptr;
    void* root = bumpIn(c, (size + 7) / 8 * 8 + kRedzone, size);
    if (!root) {
        give(c);
        return nullptr;
    }
    memset(root, 0, size);
    c->root = root;
    return root;
}

bool mv_asn_region_release(void* p) {
    MvAsnRegion* r = mv_asn_region_of(p);
    if (!r) return false;
    for (Chunk* c = static_cast<Chunk*>(r); c;) {
        Chunk* next = static_cast<Chunk*>(c->nextInRegion);
        ASAN_POISON_MEMORY_REGION(c->payload(), kPayload);
        c->used = 0;
        c->decoded = 0;
        c->root = nullptr;
        c->current = nullptr;
        c->nextInRegion = nullptr;
        give(c);
        c = next;
    }
    return true;
}

MvAsnRegionStats __mv_asn_region_stats() {
    Arena& a = arena();
    MvAsnRegionStats s{};
    s.chunkSize = kChunk;
    s.carved = a.carved.load(std::memory_order_relaxed);
    s.cachedHere = tCached;
    for (uint64_t h = a.freeHead.load(std::memory_order_acquire); uint32_t(h);) {
        s.shared++;
        h = chunkAt(uint32_t(h) - 1)->nextFree.load(std::memory_order_relaxed);
    }
    return s;
}
