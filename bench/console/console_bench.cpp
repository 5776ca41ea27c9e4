// The console and the performance block in a running engine (started in this
// process, console on a loopback address of its own):
//   - console round trips (ping, begin test, stats) on one connection and on eight;
//   - ping round trips while another console floods and reads nothing, its answers
//     waiting in the engine (latency percentiles as counters);
//   - the performance thread's once-a-second block with five running tests.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>

#include "Kestrane.h"
#include "mv_socket_engine.h"
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
        // Settings of about 10 KB an answer, for the flood.
        std::string items;
        for (int i = 1; i <= 20; ++i)
            items += std::string(i > 1 ? ", " : "") + "\"" + std::to_string(i) + "\": \"" + std::string(500, 'v') + "\"";
        write("data/set.json", "{\"AMF\": {" + items + "}}");
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

// The console child whose answers wait in the engine, if any.
MV_Socket* backlogged() {
    std::lock_guard g(__mv_socketEngine->SocketLock);
    for (MV_Socket* s = __mv_socketEngine->SocketHead; s; s = s->Next) {
        if (s->TransportType != MV_TRANSPORT_TCP || !s->isListner || s->IPPort != kPort) continue;
        std::lock_guard c(s->ChildLock);
        for (MV_Socket* k = s->ChildHead; k; k = k->Next)
            if (k->isActive && __mv_socket_engine_outbound_bytes(k) > 0) return k;
    }
    return nullptr;
}

// A console that asks for large answers and reads none, until the engine holds some.
int silentFlooder() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int small = 4096;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(kPort);
    inet_pton(AF_INET, kHost.c_str(), &a.sin_addr);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return -1;
    for (uint32_t no = 1; !backlogged() && no < 20000; no += 16) {
        uint8_t round[16 * 44] = {};
        for (uint32_t i = 0; i < 16; ++i) {
            uint32_t req[11] = {44, VELTA_UEC_MSG_TYP__SETTINGS_LOAD_REQUEST, no + i, 0, 0, 1, 0, 0, 0, 0, 0};
            memcpy(round + 44 * i, req, sizeof req);
        }
        if (send(fd, round, sizeof round, MSG_NOSIGNAL) != ssize_t(sizeof round)) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return fd;
}

// Ping round trips of one console while another holds a backlog of unread answers in
// the engine; the flooder closes after the run. Counters: percentiles in microseconds.
void BM_ConsolePingWhileAConsoleFloods(benchmark::State& state) {
    startEngine();
    int flooder = silentFlooder();
    if (flooder < 0 || !backlogged()) {
        state.SkipWithError("no backlog in the engine");
        if (flooder >= 0) close(flooder);
        return;
    }
    ksuec::Client c;
    if (c.connect(kHost, kPort, 1000) != ksuec::Ok) {
        state.SkipWithError("no connection");
        close(flooder);
        return;
    }
    std::vector<double> us;
    std::vector<uint8_t> answer;
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        if (c.call(VELTA_UEC_MSG_TYP__PING_REQUEST, {}, answer, 5000) != ksuec::Ok) {
            state.SkipWithError("no answer");
            break;
        }
        us.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
    }
    bool held = backlogged() != nullptr;
    close(flooder);
    if (!held) {
        state.SkipWithError("the backlog drained during the run");
        return;
    }
    std::sort(us.begin(), us.end());
    auto at = [&](double q) { return us.empty() ? 0.0 : us[std::min(us.size() - 1, size_t(q * double(us.size())))]; };
    state.counters["p50_us"] = at(0.5);
    state.counters["p99_us"] = at(0.99);
    state.counters["max_us"] = us.empty() ? 0.0 : us.back();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ConsolePingWhileAConsoleFloods)->UseRealTime();

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
