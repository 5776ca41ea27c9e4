// The one first-in first-out free list of the process's record pools: a released record
// goes to the tail, so it stays unused as long as possible, and an isReleased flag makes a
// second release do nothing. FreeList is the list alone, under a lock its owner holds;
// CoreFifo adds the lock, the two tallies and growth from the arena, as the core record's
// pools keep them. Every pool of records (queue records, queue lines, timers, index rows,
// size classes, UEs, RAN UE contexts, the engine's step pools) is one of these.
#pragma once

#include <cstddef>
#include <mutex>

#include "mv_core.h"

namespace mv_fifo {

// A view over a pool's head and tail, linked through the member Link.
template <class T, auto Link = &T::Next>
struct FreeList {
    T*& Head;
    T*& Current;

    // Appends r at the tail, marked free.
    void pushTail(T* r) {
        r->isReleased = 1;
        r->*Link = nullptr;
        if (Current) Current->*Link = r;
        else Head = r;
        Current = r;
    }
    // Appends the n records of an array, in order.
    void pushArray(T* recs, size_t n) {
        for (size_t i = 0; i < n; ++i) pushTail(&recs[i]);
    }
    // Takes the head, marked in use; null when the list is empty.
    T* popHead() {
        T* r = Head;
        if (!r) return nullptr;
        Head = r->*Link;
        if (!Head) Current = nullptr;
        r->*Link = nullptr;
        r->isReleased = 0;
        return r;
    }
    // Gives r back; false, and nothing changes, when it is free already.
    bool give(T* r) {
        if (r->isReleased) return false;
        pushTail(r);
        return true;
    }
};

struct NoHook {
    template <class T>
    void operator()(T*) const {}
};

// A view over the five fields a pool of the core record keeps for one record type.
template <class T, class Count = int, auto Link = &T::Next>
struct CoreFifo {
    T*& Head;
    T*& Current;
    MV_Mutex& Lock;
    Count& Total;
    Count& Available;

    FreeList<T, Link> list() const { return {Head, Current}; }

    // Called with Lock held, or before the pool is shared.
    void appendNew(int count) {
        T* recs = __mv_arena_new_array<T>(size_t(count));
        list().pushArray(recs, size_t(count));
        Total += count;
        Available += count;
    }

    void add(int count, int inLockMode) {
        if (count < 1) return;
        if (inLockMode == 1) {
            std::lock_guard g(Lock);
            appendNew(count);
        } else {
            appendNew(count);
        }
    }

    // With Lock held: the head, or null when the list is empty.
    T* takeLocked() {
        T* r = list().popHead();
        if (r) --Available;
        return r;
    }
    // With Lock held: false when r is free already.
    bool giveLocked(T* r) {
        if (!list().give(r)) return false;
        ++Available;
        return true;
    }

    // Grows by `growth` records when empty (0: never, and null comes back). onTake runs
    // under the lock on the record taken.
    template <class OnTake = NoHook>
    T* allocate(int growth, OnTake onTake = {}) {
        std::lock_guard g(Lock);
        if (!Head && growth > 0) appendNew(growth);
        T* r = takeLocked();
        if (r) onTake(r);
        return r;
    }

    // Returns false when the record was already released. onGive runs under the lock, and
    // only when the record goes back.
    template <class OnGive = NoHook>
    bool release(T* r, OnGive onGive = {}) {
        std::lock_guard g(Lock);
        if (r->isReleased) return false;
        onGive(r);
        return giveLocked(r);
    }
};

}  // namespace mv_fifo
