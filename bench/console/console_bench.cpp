// The console and the performance block in a running engine (started in this
// process, console on a loopback address of its own):
//   - console round trips (ping, begin test, stats) on one connection and on eight;
//   - the performance thread's once-a-second block with five running tests.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Kestrane.h"
#include "uec_client.h"

namespace {

const std::string kHost = "127.77." + std::to_string(getpid() & 0xff) + ".1";
constexpr uint16_t kPort = 9121;

void startEngine() {
    static bool done = [] {
        char tmpl[] = "/tmp/ks_bench_console_XXXXXX";
        std::string dir = mkdtemp(tmpl);
        mkdir((dir + "/data").c_str(), 0700);
        auto write = [&](const std::string& name, const std::string& text) { std::ofstream(dir + "/" + name) << text; };
        write("cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "MaximumUE": 20000, "IMSIPrefixWithZERO": 1, "CLIPort": )" +
                              std::to_string(kPort) + R"(, "LocalAddress": {"IP": [")" + kHost + R"("]}})");
        write("data/uel.json", R"([{"ID": 1, "MSINStart": "001010000000001", "MSINEnd": "001010000005000", "MSISDNBegin": "1"}])");
        write("data/sce.json", R"([{"ID": 1, "Config": [{"ID": 3, "Dict": [{"Key": 3, "Value": "600"}]}]}])");
        // Five tests of 1000 UEs each, every UE asleep for ten minutes: running all along.
        std::string tests = "[";
        const char* types[] = {"2", "7", "10", "12", "31"};  // type 1 would wait for RANs
        for (int i = 0; i < 5; ++i) {
            char range[200];
            snprintf(range, sizeof range, R"("SUPIStartNo": "00101%010d", "SUPIStartEnd": "00101%010d")", i * 1000 + 1,
                     i * 1000 + 1000);
            tests += std::string(i ? "," : "") + "{\"ID\": " + std::to_string(i + 1) +
                     ", \"Name\": \"bench\", \"ScenarioID\": 1, \"MPS\": 5000, \"AppType\": " + types[i] + ", " +
                     range + "}";
        }
        write("data/tst.json", tests + "]");
        if (chdir(dir.c_str()) != 0) return false;
        std::string cfg = dir + "/cfg.json";
        char* argv[] = {const_cast<char*>("kestrane"), cfg.data(), nullptr};
        return KsEngine__Startup(2, argv) == 1;
    }();
    (void)done;
}

void roundTrips(benchmark::State& state, uint32_t type, std::vector<uint8_t> body) {
    startEngine();
    ksuec::Client c;
    for (int i = 0; i < 100 && c.connect(kHost, kPort, 1000) != ksuec::Ok; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::vector<uint8_t> answer;
    for (auto _ : state) {
        if (c.call(type, body, answer, 5000) != ksuec::Ok) {
            state.SkipWithError("no answer");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_ConsolePing(benchmark::State& state) { roundTrips(state, VELTA_UEC_MSG_TYP__PING_REQUEST, {}); }
// One connection per thread: 1 and 8 consoles at once.
BENCHMARK(BM_ConsolePing)->Threads(1)->Threads(8)->UseRealTime();

void BM_ConsoleStats(benchmark::State& state) { roundTrips(state, VELTA_UEC_MSG_TYP__STATS_REQUEST, {}); }
BENCHMARK(BM_ConsoleStats)->Threads(1)->Threads(8)->UseRealTime();

// A stop of a test that is not running: the begin-test path without changing anything.
void BM_ConsoleBeginTest(benchmark::State& state) {
    roundTrips(state, VELTA_UEC_MSG_TYP__BEGIN_TEST, {9, 0, 0, 0, 1, 0, 0, 0});
}
BENCHMARK(BM_ConsoleBeginTest)->Threads(1)->Threads(8)->UseRealTime();

// What the performance thread spends each second with five tests running: the block
// of pools, step rate, queues, sockets and the counters of every running test.
void BM_PerformanceBlockFiveTests(benchmark::State& state) {
    startEngine();
    static bool running = [] {
        for (uint32_t id = 1; id <= 5; ++id) (void)KsEngine__AddTestToQueue(id, KS_TEST__QUEUED);
        for (int i = 0; i < 200; ++i) {
            int n = 0;
            for (uint32_t id = 1; id <= 5; ++id) n += KsEngine__GetTestStatus(id) == KS_TEST__RUNNING;
            if (n == 5) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }();
    if (!running) {
        state.SkipWithError("the five tests did not start");
        return;
    }
    // Called once a second in the engine: the time of one call is the share of a core.
    for (auto _ : state) KsEngine__WritePerformanceBlock();
}
BENCHMARK(BM_PerformanceBlockFiveTests)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
