// Services that share the core record: periodic handlers, random numbers and the
// once-a-second core statistics.
#include <unistd.h>

#include <cstdlib>
#include <mutex>

#include "mv_core.h"

struct MV_AppEventInfo {
    MV_AppEventInfo* Next;
    fnhook handler;
};

void __mv_add_app_event_handler(fnhook handler) {
    auto* e = __mv_arena_new<MV_AppEventInfo>();
    e->handler = handler;
    std::lock_guard g(__mvCore->AppEventInfoLock);
    if (MV_AppEventInfo* cur = __mvCore->AppEventInfoCurrent.load()) {
        // Published last so the reader never sees a half-linked record.
        __atomic_store_n(&cur->Next, e, __ATOMIC_RELEASE);
    } else {
        __atomic_store_n(&__mvCore->AppEventInfoHead, e, __ATOMIC_RELEASE);
    }
    __mvCore->AppEventInfoCurrent = e;
}

void* __mv_core_appevents_thread(void*) {
    for (;;) {
        // Handlers are only appended, never removed: the walk needs no lock.
        for (MV_AppEventInfo* e = __atomic_load_n(&__mvCore->AppEventInfoHead, __ATOMIC_ACQUIRE); e;
             e = __atomic_load_n(&e->Next, __ATOMIC_ACQUIRE)) {
            if (e->handler) e->handler();
        }
        usleep(999999);
    }
    return nullptr;
}

uint8_t __mv_core_getU8RAND() { return uint8_t(rand() % 255); }
uint16_t __mv_core_getU16RAND() { return uint16_t(rand() % 65535); }
uint32_t __mv_core_getU32RAND() { return uint32_t(uint64_t(rand()) % 4294967295ULL); }
uint64_t __mv_core_getU64RAND() { return uint64_t(rand()) % 9223372036854775807ULL; }

void __mv_core_enable_perf_log() { __mvCore->enableStackPerLog = 1; }
void __mv_core_disable_perf_log() { __mvCore->enableStackPerLog = 0; }
