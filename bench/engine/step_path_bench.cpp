// The whole step path in a running engine: a test over 100,000 UEs, each walking a
// scenario of sleep-0 steps (test queue, start loop, FSM line, runner, completion,
// and for later steps the paced step queue). Reports steps per second end to end.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "Kestrane.h"

namespace {

constexpr int kUEs = 100000;

void startEngine() {
    static bool done = [] {
        char tmpl[] = "/tmp/ks_bench_engine_XXXXXX";
        std::string dir = mkdtemp(tmpl);
        mkdir((dir + "/data").c_str(), 0700);
        auto write = [&](const std::string& name, const std::string& text) { std::ofstream(dir + "/" + name) << text; };
        write("cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "MaximumUE": 200000, "IMSIPrefixWithZERO": 1, "CLIPort": 0})");
        write("data/uel.json", R"([{"ID": 1, "MSINStart": "001010000000001", "MSINEnd": "001010000100000", "MSISDNBegin": "1",
                                     "MCC": "001", "MNC": "01"}])");
        std::string s0 = R"({"ID": 3, "Dict": [{"Key": 3, "Value": "0"}]})";
        write("data/sce.json", "[{\"ID\": 1, \"Config\": [" + s0 + "]}, {\"ID\": 2, \"Config\": [" + s0 + "," + s0 +
                                   "," + s0 + "]}]");
        write("data/tst.json",
              R"([{"ID": 1, "ScenarioID": 1, "MPS": 1000000, "SUPIStartNo": "001010000000001", "SUPIStartEnd": "001010000100000"},
                  {"ID": 2, "ScenarioID": 2, "MPS": 1000000, "SUPIStartNo": "001010000000001", "SUPIStartEnd": "001010000100000"}])");
        if (chdir(dir.c_str()) != 0) return false;
        std::string cfg = dir + "/cfg.json";
        char* argv[] = {const_cast<char*>("kestrane"), cfg.data(), nullptr};
        FILE* saved = stdout;
        (void)saved;
        return KsEngine__Startup(2, argv) == 1;
    }();
    (void)done;
}

void runOnce(benchmark::State& state, uint32_t testId, int steps) {
    // The figures of the last run would satisfy the waits below at once: clear them while the
    // test is idle and nothing else writes them.
    if (KsTestExec* last = KsEngine__FindTest(testId)) {
        last->ExecutedNoOfTimes = 0;
        last->TotalAttachedUECount = 0;
        last->TotalExecSteps = 0;
    }
    if (KsEngine__AddTestToQueue(testId, KS_TEST__QUEUED) != 3) {
        state.SkipWithError("test not queued");
        return;
    }
    KsTestExec* t = nullptr;
    while (!(t = KsEngine__FindTest(testId))) std::this_thread::sleep_for(std::chrono::microseconds(100));
    // The clock starts when the pass begins driving UEs, after the range is built.
    while (t->ExecutedNoOfTimes != 1 || t->TotalAttachedUECount != kUEs)
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    auto t0 = std::chrono::steady_clock::now();
    while (t->TotalExecSteps.load() < kUEs * steps) std::this_thread::sleep_for(std::chrono::microseconds(50));
    auto t1 = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
    while (KsEngine__GetTestStatus(testId) != KS_TEST__IDLE) std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

void BM_StepPath_OneStep_100kUEs(benchmark::State& state) {
    startEngine();
    for (auto _ : state) runOnce(state, 1, 1);
    state.counters["steps_per_s"] = benchmark::Counter(double(kUEs) * double(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_StepPath_OneStep_100kUEs)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_StepPath_ThreeSteps_100kUEs(benchmark::State& state) {
    startEngine();
    for (auto _ : state) runOnce(state, 2, 3);
    state.counters["steps_per_s"] =
        benchmark::Counter(3.0 * kUEs * double(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_StepPath_ThreeSteps_100kUEs)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
