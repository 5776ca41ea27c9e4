// A record pool of the engine: the runtime's first-in first-out free list over records
// that live in the arena and are never given back, with its own lock and tallies. A
// record comes back value-initialised.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "mv_core.h"
#include "mv_fifo.h"

template <class T>
class KsFifoPool {
public:
    KsFifoPool(uint32_t initial, uint32_t growBy) : growBy_(growBy ? growBy : 1) {
        if (initial) fifo().appendNew(int(initial));
    }

    T* allocate() {
        T* r = fifo().allocate(int(growBy_));
        ++used_;
        r->~T();
        new (r) T{};
        return r;
    }

    void release(T* r) {
        if (r) fifo().release(r);
    }

    uint32_t total() const { return total_; }
    uint32_t available() const { return available_; }
    uint64_t used() const { return used_; }

private:
    mv_fifo::CoreFifo<T, std::atomic<uint32_t>, &T::PoolNext> fifo() {
        return {head_, tail_, lock_, total_, available_};
    }

    MV_Mutex lock_;
    T* head_ = nullptr;
    T* tail_ = nullptr;
    uint32_t growBy_;
    std::atomic<uint32_t> total_{0};
    std::atomic<uint32_t> available_{0};
    std::atomic<uint64_t> used_{0};
};
