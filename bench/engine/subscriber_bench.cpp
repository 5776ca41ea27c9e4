// Loading subscribers at start: 1,000,000 UEs from one SUPI range and 100,000 from a
// SUPI list file, each into a fresh pool and IMSI index. Reports the load time (file
// read and parse included), the memory the load made resident, and per UE the record
// and the index.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "Kestrane.h"
#include "mv_alloc.h"

namespace {

std::string gDir;

void startEngine() {
    static bool done = [] {
        char tmpl[] = "/tmp/ks_bench_subs_XXXXXX";
        gDir = mkdtemp(tmpl);
        mkdir((gDir + "/data").c_str(), 0700);
        auto write = [](const std::string& name, const std::string& text) { std::ofstream(gDir + "/" + name) << text; };
        write("cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 1000000, "IMSIPrefixWithZERO": 1})");
        write("range.json", R"({"Format": 1, "SupiRange": [{"MCC": "001", "MNC": "01",
            "SubKey": "465B5CE8B199B49FAA5F0A2EE238A6BC", "OPc": "E8ED289DEBA952E4283B54E88E6183CA",
            "MSINStart": 1010000000001, "MSINEnd": 1010001000000, "IMEI": 356938035643800}]})");
        std::string list = R"({"Format": 2, "MCC": "001", "MNC": "01", "SubKey": "465B5CE8B199B49FAA5F0A2EE238A6BC",
            "OPc": "E8ED289DEBA952E4283B54E88E6183CA", "IMEI_BASE_NO": 490154203237510, "SST": 1, "SD": "010203",
            "SupiList": [)";
        for (int i = 1; i <= 100000; ++i) {
            char item[160];
            snprintf(item, sizeof item, "%s{\"MSIN\": %lld, \"IMEI\": \"%lld\", \"SQN\": %d}", i > 1 ? "," : "",
                     1010002000000LL + i, 356938035000000LL + i, i % 64);
            list += item;
        }
        write("list.json", list + "]}");
        if (chdir(gDir.c_str()) != 0) return false;
        std::string cfg = gDir + "/cfg.json";
        char* argv[] = {const_cast<char*>("kestrane"), cfg.data(), nullptr};
        return KsEngine__Startup(2, argv) == 1;
    }();
    (void)done;
}

long residentBytes() {
    long pages = 0, resident = 0;
    if (FILE* f = fopen("/proc/self/statm", "r")) {
        if (fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        fclose(f);
    }
    return resident * sysconf(_SC_PAGESIZE);
}

void loadFile(benchmark::State& state, const char* file, int expected) {
    startEngine();
    double rssMB = 0;
    for (auto _ : state) {
        state.PauseTiming();
        KsEngine__DropUETable();
        KsEngine__InitializeksUE_Pool(KS_BUILTIN_UE_CAPACITY);
        snprintf(__ksEngine->UEFiles[0].FileName, sizeof __ksEngine->UEFiles[0].FileName, "%s", file);
        __ksEngine->UEFiles[0].Enabled = 1;
        __ksEngine->UEFileCount = 1;
        long before = residentBytes();
        state.ResumeTiming();
        if (KsEngine__LoadUEConfigs() != 1 || __ksEngine->ksUETotal != expected) state.SkipWithError("load failed");
        state.PauseTiming();
        rssMB = double(residentBytes() - before) / 1e6;
        state.ResumeTiming();
    }
    MV_PowerTable* t = __ksEngine->imsiTable;
    double itemBytes = double(sizeof(MV_MemoryHead) + __mv_allocM_block_size(t->Root));
    state.counters["UEs_per_s"] = benchmark::Counter(double(expected) * double(state.iterations()),
                                                     benchmark::Counter::kIsRate);
    state.counters["resident_MB"] = rssMB;
    state.counters["record_B_per_UE"] = double(sizeof(MV_KsUE));
    state.counters["index_B_per_UE"] = double(t->KeyElementsCount) * itemBytes / expected;
}

void BM_LoadRangeFile_1M(benchmark::State& state) { loadFile(state, "range.json", 1000000); }
BENCHMARK(BM_LoadRangeFile_1M)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_LoadListFile_100k(benchmark::State& state) { loadFile(state, "list.json", 100000); }
BENCHMARK(BM_LoadListFile_100k)->Iterations(1)->Unit(benchmark::kMillisecond);

// A test's start looks every IMSI of its range up in the index.
void BM_FindUEByIMSI_100k(benchmark::State& state) {
    startEngine();
    if (__ksEngine->ksUETotal != 100000) {
        KsEngine__DropUETable();
        KsEngine__InitializeksUE_Pool(KS_BUILTIN_UE_CAPACITY);
        snprintf(__ksEngine->UEFiles[0].FileName, sizeof __ksEngine->UEFiles[0].FileName, "%s", "list.json");
        __ksEngine->UEFiles[0].Enabled = 1;
        __ksEngine->UEFileCount = 1;
        if (KsEngine__LoadUEConfigs() != 1) state.SkipWithError("load failed");
    }
    uint64_t n = 0;
    for (auto _ : state) {
        char imsi[24];
        KsEngine__IMSIText(1010002000001ULL + (n * 7919) % 100000, imsi, sizeof imsi);
        MV_KsUE* u = nullptr;
        KsEngine__FindUEByIMSI(&u, imsi);
        benchmark::DoNotOptimize(u);
        ++n;
    }
}
BENCHMARK(BM_FindUEByIMSI_100k);

}  // namespace

BENCHMARK_MAIN();
