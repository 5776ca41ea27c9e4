// Hot paths of the containers: size classes against malloc, record pools, index
// tables, the power table at a million IMSIs, counters.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "mv_alloc.h"
#include "mv_pool.h"
#include "mv_tables.h"

namespace {

void BM_AllocM_FreeM(benchmark::State& state) {
    size_t size = size_t(state.range(0));
    for (auto _ : state) {
        void* p = __mv_allocM(size);
        benchmark::DoNotOptimize(p);
        __mv_freeM(p);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AllocM_FreeM)->Arg(64)->Arg(1000)->Arg(5000)->Threads(1)->Threads(2)->UseRealTime();

void BM_Malloc_Free(benchmark::State& state) {
    size_t size = size_t(state.range(0));
    for (auto _ : state) {
        void* p = malloc(size);
        benchmark::DoNotOptimize(p);
        free(p);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Malloc_Free)->Arg(64)->Arg(1000)->Arg(5000)->Threads(1)->Threads(2)->UseRealTime();

mv_morva_pool_t* gPool = nullptr;
void BM_Pool_AllocateRelease(benchmark::State& state) {
    for (auto _ : state) {
        void* p = __mv_pool_allocate(gPool);
        benchmark::DoNotOptimize(p);
        __mv_pool_release(p);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Pool_AllocateRelease)->Threads(1)->UseRealTime();

void BM_IndexTable_AllocFindFree(benchmark::State& state) {
    static MV_IndexTable* t = __mv_IndexTable_create(1502, 100000);
    int obj = 0;
    for (auto _ : state) {
        uint32_t id = __mv_IndexTable_allocateRowId(t, &obj);
        benchmark::DoNotOptimize(__mv_IndexTable_FindObject1(t, id));
        __mv_IndexTable_FreeRow(t, id);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_IndexTable_AllocFindFree);

void BM_IndexTable_Find(benchmark::State& state) {
    static MV_IndexTable* t = __mv_IndexTable_create(1502, 100000);
    static std::vector<uint32_t> ids = [] {
        std::vector<uint32_t> v;
        static int obj;
        for (int i = 0; i < 100000; ++i) v.push_back(__mv_IndexTable_allocateRowId(t, &obj));
        return v;
    }();
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(__mv_IndexTable_FindObject1(t, ids[i]));
        i = (i + 7919) % ids.size();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_IndexTable_Find);

constexpr int kImsis = 1000000;
std::vector<std::string> imsis() {
    std::vector<std::string> v;
    v.reserve(kImsis);
    char k[16];
    for (int i = 0; i < kImsis; ++i) {
        snprintf(k, sizeof k, "00101%010d", i);
        v.emplace_back(k);
    }
    return v;
}

void BM_PowerTable_Add1M(benchmark::State& state) {
    static std::vector<std::string> keys = imsis();
    static int value;
    for (auto _ : state) {
        MV_PowerTable* pt = __mv_power_table_create();
        for (const auto& k : keys) __mv_power_table_add(pt, k.data(), 15, &value);
        state.PauseTiming();
        state.counters["nodes"] = double(pt->KeyElementsCount);
        // Each node is one 50-class block: a 48-byte head and 64 bytes of record.
        state.counters["bytes_per_key"] = double(pt->KeyElementsCount) * 112.0 / kImsis;
        __mv_power_table_destroy(pt);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kImsis);
}
BENCHMARK(BM_PowerTable_Add1M)->Iterations(3)->Unit(benchmark::kMillisecond);

// Finds in a table of a million IMSIs, in scattered order (every 7919th key: each level a cache
// miss) and in the order of the keys, as a test walks its SUPI range.
void findLoop(benchmark::State& state, size_t stride) {
    static std::vector<std::string> keys = imsis();
    static int value;
    static MV_PowerTable* pt = [] {
        MV_PowerTable* t = __mv_power_table_create();
        for (const auto& k : keys) __mv_power_table_add(t, k.data(), 15, &value);
        return t;
    }();
    size_t i = 0;
    for (auto _ : state) {
        void* out;
        __mv_power_table_fnd(pt, keys[i].data(), 15, &out);
        benchmark::DoNotOptimize(out);
        i = (i + stride) % keys.size();
    }
    state.SetItemsProcessed(state.iterations());
}
void BM_PowerTable_Find1M(benchmark::State& state) { findLoop(state, 7919); }
BENCHMARK(BM_PowerTable_Find1M)->Threads(1)->Threads(2)->UseRealTime();
void BM_PowerTable_Find1M_InOrder(benchmark::State& state) { findLoop(state, 1); }
BENCHMARK(BM_PowerTable_Find1M_InOrder)->Threads(1)->UseRealTime();

MV_Counter* gCounter = nullptr;
void BM_Counter_Increment(benchmark::State& state) {
    for (auto _ : state) __mv_counter_increment_request(gCounter);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Counter_Increment)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    __init_morva_core();
    __mv_init_logger("/tmp/ks_bench_tables/logs/");
    // Set up before the threads start: the pool and counter are shared.
    gPool = __mv_pool_create("bench", 256, 10000, 1);
    gCounter = __mv_counter_create(10000000, "bench");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
