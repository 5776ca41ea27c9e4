// Runtime hot paths: posting and running queue items, FSM lines, queue lines,
// timer arm and clear, logger lines written and filtered.
#include <benchmark/benchmark.h>

#include <atomic>
#include <string>
#include <thread>

#include "mv_core.h"

namespace {

void ensureCore() {
    static bool done = [] {
        __init_morva_core();
        std::string root = "/tmp/ks_bench_core_logs/";
        __mv_init_logger(root.c_str());
        return true;
    }();
    (void)done;
}

std::atomic<long> gRan{0};
void countHandler(void*, int) { gRan.fetch_add(1, std::memory_order_relaxed); }
void countExecutor(void*) { gRan.fetch_add(1, std::memory_order_relaxed); }
void countLine(void*) { gRan.fetch_add(1, std::memory_order_relaxed); }

void waitRan(long target) {
    while (gRan.load(std::memory_order_relaxed) < target) std::this_thread::yield();
}

void BM_QueuePostAndRun(benchmark::State& state) {
    ensureCore();
    static void* q = [] {
        void* p = nullptr;
        __mv_core_create_queue(&p, countHandler, 1, 1 << 30);
        return p;
    }();
    const long batch = 10000;
    for (auto _ : state) {
        long target = gRan.load() + batch;
        for (long i = 0; i < batch; ++i) __mv_core_queue_item(q, reinterpret_cast<void*>(1));
        waitRan(target);
    }
    state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_QueuePostAndRun)->UseRealTime();

void BM_FsmQueue30Lines(benchmark::State& state) {
    ensureCore();
    static void* f = [] {
        void* p = nullptr;
        __mv_core_create_fsmqueue(&p, countHandler, 30, 10000);
        return p;
    }();
    const long batch = 30000;
    for (auto _ : state) {
        long target = gRan.load() + batch;
        for (long i = 0; i < batch; ++i) __mv_core_queue_fsm2(f, uint32_t(i % 30), reinterpret_cast<void*>(1), countExecutor);
        waitRan(target);
    }
    state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_FsmQueue30Lines)->UseRealTime();

void BM_QueueLines(benchmark::State& state) {
    ensureCore();
    const long batch = 10000;
    for (auto _ : state) {
        long target = gRan.load() + batch;
        for (long i = 0; i < batch; ++i) __mv_core_queue(nullptr, countLine);
        waitRan(target);
    }
    state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_QueueLines)->UseRealTime();

void BM_TimerArmAndClear(benchmark::State& state) {
    ensureCore();
    for (auto _ : state) {
        MV_Timer* t = __mv_core_start_timer(nullptr, countLine, 600);
        __mv_core_clear_timer_gen(t, __mv_core_timer_generation(t));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimerArmAndClear);

void BM_LogLineWritten(benchmark::State& state) {
    ensureCore();
    __mv_set_log_level(MV_APP_LOG, MV_LOG_DEBUG);
    for (auto _ : state)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] CompletedKsStep=%u  TotalKsSteps=%u <%s|%s|%d>",
                 "imsi-001010000000001", 1u, 3u, __FILE_NAME__, __func__, __LINE__);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogLineWritten);

void BM_LogLineBelowThreshold(benchmark::State& state) {
    ensureCore();
    __mv_set_log_level(MV_APP_LOG, MV_LOG_CRITICAL);
    for (auto _ : state)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "[%s] CompletedKsStep=%u  TotalKsSteps=%u <%s|%s|%d>",
                 "imsi-001010000000001", 1u, 3u, __FILE_NAME__, __func__, __LINE__);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogLineBelowThreshold);

}  // namespace

BENCHMARK_MAIN();
