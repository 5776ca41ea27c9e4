// The one-second timer wheel: 21600 slots, one lap, expiries handed to the queue lines.
#include <unistd.h>

#include <mutex>

#include "mv_core.h"

namespace {

void appendTimers(MV_Timer* recs, int count) {
    for (int i = 0; i < count; ++i) {
        recs[i].isReleased = 1;
        recs[i].Next = (i + 1 < count) ? &recs[i + 1] : nullptr;
    }
    if (__mvCore->TimerCurrent) __mvCore->TimerCurrent->Next = recs;
    else __mvCore->TimerHead = recs;
    __mvCore->TimerCurrent = &recs[count - 1];
    __mvCore->TotalTimerPoolCount += count;
    __mvCore->AvailableTimerPoolCount += count;
}

}  // namespace

void __mv_timer_create(int count, int inLockMode) {
    (void)inLockMode;
    if (count < 1) return;
    auto* recs = __mv_arena_new_array<MV_Timer>(size_t(count));
    std::lock_guard g(__mvCore->TimerLock);
    appendTimers(recs, count);
}

MV_Timer* __mv_allocate_timer() {
    for (;;) {
        {
            std::lock_guard g(__mvCore->TimerLock);
            if (MV_Timer* t = __mvCore->TimerHead) {
                __mvCore->TimerHead = t->Next;
                if (!__mvCore->TimerHead) __mvCore->TimerCurrent = nullptr;
                --__mvCore->AvailableTimerPoolCount;
                ++__mvCore->UsedTimerPoolCount;
                t->Next = nullptr;
                t->isReleased = 0;
                t->isCleared = 0;
                t->Generation.fetch_add(1);
                return t;
            }
        }
        __mv_timer_create(1000, 1);
    }
}

void __mv_release_timer(MV_Timer* timer) {
    if (!timer) return;
    std::lock_guard g(__mvCore->TimerLock);
    if (timer->isReleased) return;
    timer->isReleased = 1;
    timer->data = nullptr;
    timer->handler = nullptr;
    timer->Next = nullptr;
    if (__mvCore->TimerCurrent) __mvCore->TimerCurrent->Next = timer;
    else __mvCore->TimerHead = timer;
    __mvCore->TimerCurrent = timer;
    ++__mvCore->AvailableTimerPoolCount;
    --__mvCore->UsedTimerPoolCount;
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
