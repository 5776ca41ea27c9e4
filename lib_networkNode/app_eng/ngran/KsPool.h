// A record pool with a first-in first-out free list: a released record goes to the
// tail, so it stays unused as long as possible, and a double release does nothing.
// Records come from the arena and are never given back.
#pragma once

#include <cstdint>
#include <mutex>

#include "mv_core.h"

template <class T>
class KsFifoPool {
public:
    KsFifoPool(uint32_t initial, uint32_t growBy) : growBy_(growBy ? growBy : 1) { grow(initial); }

    T* allocate() {
        std::lock_guard g(lock_);
        if (!head_) grow(growBy_);
        T* r = head_;
        head_ = r->PoolNext;
        if (!head_) tail_ = nullptr;
        --available_;
        ++used_;
        r->~T();
        new (r) T{};
        r->isReleased = 0;
        return r;
    }

    void release(T* r) {
        if (!r) return;
        std::lock_guard g(lock_);
        if (r->isReleased) return;
        r->isReleased = 1;
        r->PoolNext = nullptr;
        if (tail_) tail_->PoolNext = r;
        else head_ = r;
        tail_ = r;
        ++available_;
    }

    uint32_t total() const { return total_; }
    uint32_t available() const { return available_; }
    uint64_t used() const { return used_; }

private:
    // Called with the lock held, or from the constructor.
    void grow(uint32_t n) {
        if (n == 0) return;
        T* recs = __mv_arena_new_array<T>(n);
        for (uint32_t i = 0; i < n; ++i) {
            recs[i].isReleased = 1;
            recs[i].PoolNext = i + 1 < n ? &recs[i + 1] : nullptr;
        }
        if (tail_) tail_->PoolNext = recs;
        else head_ = recs;
        tail_ = &recs[n - 1];
        total_ += n;
        available_ += n;
    }

    MV_Mutex lock_;
    T* head_ = nullptr;
    T* tail_ = nullptr;
    uint32_t growBy_;
    std::atomic<uint32_t> total_{0};
    std::atomic<uint32_t> available_{0};
    std::atomic<uint64_t> used_{0};
};
