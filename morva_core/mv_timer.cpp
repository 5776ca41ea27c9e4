// The one-second timer wheel: 21600 slots, one lap, expiries handed to the queue lines.
#include <unistd.h>

#include <mutex>

#include "mv_core.h"
#include "mv_fifo.h"

namespace {

mv_fifo::CoreFifo<MV_Timer> timerPool() {
    return {__mvCore->TimerHead, __mvCore->TimerCurrent, __mvCore->TimerLock, __mvCore->TotalTimerPoolCount,
            __mvCore->AvailableTimerPoolCount};
}

}  // namespace

void __mv_timer_create(int count, int inLockMode) {
    (void)inLockMode;
    timerPool().add(count, 1);
}

MV_Timer* __mv_allocate_timer() {
    // The generation changes under the pool's lock, where a stale owner's clear looks at it.
    return timerPool().allocate(1000, [](MV_Timer* t) {
        ++__mvCore->UsedTimerPoolCount;
        t->isCleared = 0;
        t->Generation.fetch_add(1);
    });
}

void __mv_release_timer(MV_Timer* timer) {
    if (!timer) return;
    timerPool().release(timer, [](MV_Timer* t) {
        t->data = nullptr;
        t->handler = nullptr;
        --__mvCore->UsedTimerPoolCount;
    });
}

int __mv_core_sch_timer(MV_Timer* timer, int seconds) {
    // The wheel has one lap: a delay of a full lap or more would fire a lap early.
    if (!timer || seconds < 1 || seconds >= MV_TIMER_WHEEL_SLOTS) return 0;
    int slot = __mv_core_timer_slot(__mvCore->TimerTickIndex.load(), seconds);
    MV_Timer_Tick& tick = __mvCore->Timers[slot];
    std::lock_guard g(tick.Lock);
    timer->Next = nullptr;
    if (tick.Current) tick.Current->Next = timer;
    else tick.Head = timer;
    tick.Current = timer;
    return 1;
}

MV_Timer* __mv_core_start_timer(void* data, fnline handler, int seconds) {
    if (!handler || seconds <= 0 || seconds >= MV_TIMER_WHEEL_SLOTS) return nullptr;
    MV_Timer* t = __mv_allocate_timer();
    t->data = data;
    t->handler = handler;
    __mv_core_sch_timer(t, seconds);
    return t;
}

void __mv_core_clear_timer(MV_Timer* timer) {
    if (timer) timer->isCleared = 1;
}

uint64_t __mv_core_timer_generation(MV_Timer* timer) { return timer ? timer->Generation.load() : 0; }

void __mv_core_clear_timer_gen(MV_Timer* timer, uint64_t generation) {
    if (!timer) return;
    std::lock_guard g(__mvCore->TimerLock);
    if (!timer->isReleased && timer->Generation.load() == generation) timer->isCleared = 1;
}

int __mv_core_get_timer_tick() { return __mvCore->TimerTickIndex.load(); }
long __mv_core_get_server_timer_tick() { return __mvCore->SeverTimerTick.load(); }

int __mv_TotalTimerPoolCount() {
    std::lock_guard g(__mvCore->TimerLock);
    return __mvCore->TotalTimerPoolCount;
}
int __mv_AvailableTimerPoolCount() {
    std::lock_guard g(__mvCore->TimerLock);
    return __mvCore->AvailableTimerPoolCount;
}
long __mv_UsedTimerPoolCount() {
    std::lock_guard g(__mvCore->TimerLock);
    return __mvCore->UsedTimerPoolCount;
}

// One turn of the wheel; the thread below calls it about once a second.
void __mv_core_timer_tick_once() {
    int idx = __mvCore->TimerTickIndex.load() + 1;
    if (idx > MV_TIMER_WHEEL_SLOTS - 1) idx = 0;
    __mvCore->TimerTickIndex = idx;
    ++__mvCore->SeverTimerTick;

    MV_Timer_Tick& tick = __mvCore->Timers[idx];
    std::lock_guard g(tick.Lock);
    MV_Timer* t = tick.Head;
    while (t) {
        MV_Timer* next = t->Next;
        if (!t->isCleared) __mv_core_queue(t->data, t->handler);
        t->data = nullptr;
        __mv_release_timer(t);
        t = next;
    }
    tick.Head = tick.Current = nullptr;
}

void* __mv_core_timer_thread(void*) {
    for (;;) {
        __mv_core_timer_tick_once();
        usleep(999900);
    }
    return nullptr;
}
