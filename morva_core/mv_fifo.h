// The free-list pattern of the fixed pools in the core record: records from the
// arena, a first-in first-out free list under the pool's lock, a fixed growth step,
// and an isReleased flag so that a second release does nothing.
#pragma once

#include <mutex>

#include "mv_core.h"

namespace mv_fifo {

// A view over the five fields that a core-record pool keeps for one record type.
template <class T, class Count = int>
struct CoreFifo {
    T*& Head;
    T*& Current;
    MV_Mutex& Lock;
    Count& Total;
    Count& Available;

    // Called with Lock held, or with inLockMode 0 by a caller that holds it.
    void appendNew(int count) {
        T* recs = __mv_arena_new_array<T>(size_t(count));
        for (int i = 0; i < count; ++i) {
            recs[i].isReleased = 1;
            recs[i].Next = (i + 1 < count) ? &recs[i + 1] : nullptr;
        }
        if (Current) Current->Next = recs;
        else Head = recs;
        Current = &recs[count - 1];
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

    T* allocate(int growth) {
        std::lock_guard g(Lock);
        if (!Head) appendNew(growth);
        T* r = Head;
        Head = r->Next;
        if (!Head) Current = nullptr;
        r->Next = nullptr;
        r->isReleased = 0;
        --Available;
        return r;
    }

    // Returns false when the record was already released.
    bool release(T* r) {
        std::lock_guard g(Lock);
        if (r->isReleased) return false;
        r->isReleased = 1;
        r->Next = nullptr;
        if (Current) Current->Next = r;
        else Head = r;
        Current = r;
        ++Available;
        return true;
    }
};

}  // namespace mv_fifo
