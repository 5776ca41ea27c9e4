// Registrations a second through the core answerer, and where the time goes.
//   InMemory:     the answerer and the scripted UEs joined by a queue, one thread: the
//                 cost of the protocols and crypto on each side, per registration.
//   OverSctp:     the answerer's process in a network namespace, the UEs in another,
//                 over the userspace SCTP stack on raw IP; with the CPU of each of the
//                 answerer's threads.
//   NgSetupOverSctp: NG Setup exchanges pipelined through the same process: the raw
//                 rate of SCTP messages through the answerer, for the ratio.
// Needs root for the namespaces. Run: build/bench/core_answerer/bench_core_answerer
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "ca_gnb.h"
#include "ca_loop.h"
#include "ks_test_util.h"
#include "mv_core.h"
#include "mv_socket_engine.h"
#include "mvalgo.h"
#include "netns.h"

namespace {

using Clock = std::chrono::steady_clock;
using kse::Netns;

std::string gDir;

double since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

// A subscriber file of n UEs with the default range's keys.
std::string subscribers(size_t n) {
    std::string path = gDir + "/ues" + std::to_string(n) + ".json";
    char last[16];
    snprintf(last, sizeof last, "%015llu", 1010000000000ull + n);
    kst::writeFile(path, std::string(R"([{"MSINStart": "001010000000001", "MSINEnd": ")") + last +
                             R"(", "MCC": "001", "MNC": "01", "SubKey": "465B5CE8B199B49FAA5F0A2EE238A6BC",
                             "OPC": "E8ED289DEBA952E4283B54E88E6183CA"}])");
    return path;
}

// The scripted UEs keep no record of what they received: a benchmark runs long.
cad::Driver::Config quiet() {
    cad::Driver::Config c;
    c.keepPdus = false;
    return c;
}

// ---------------------------------------------------------------- in memory

void InMemory(benchmark::State& state) {
    size_t n = size_t(state.range(0)), window = size_t(state.range(1));
    double amfUs = 0, drvUs = 0;
    for (auto _ : state) {
        cat::Loop l({"--subscribers", subscribers(n), "--log-level", "2"}, quiet());
        if (!l.setup()) state.SkipWithError("no NG Setup");
        l.amfNs = l.drvNs = 0;
        auto t0 = Clock::now();
        l.drv.registerMany(0, n, window);
        while (l.drv.registeredCount() < n) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        state.SetIterationTime(since(t0));
        amfUs = double(l.amfNs) / 1000.0 / double(n);
        drvUs = double(l.drvNs) / 1000.0 / double(n);
    }
    state.counters["regs_per_s"] = benchmark::Counter(double(n), benchmark::Counter::kIsIterationInvariantRate);
    state.counters["answerer_us_per_reg"] = amfUs;
    state.counters["ues_us_per_reg"] = drvUs;
}
BENCHMARK(InMemory)->Args({10000, 200})->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

// ---------------------------------------------------------------- over SCTP

struct Answerer {
    std::unique_ptr<kse::Peer> p;
    bool start(size_t ues) {
        std::vector<std::string> argv{CA_ANSWERER,     "--bind",       Netns::B[0], "--log-dir", gDir + "/answerer/",
                                      "--log-level",   "2",            "--subscribers", subscribers(ues)};
        if (getenv("CA_BUNDLE")) argv.push_back("--sctp-bundle");
        p = std::make_unique<kse::Peer>(argv);
        return !p->waitLine("READY", 60).empty();
    }
    // CPU seconds of each thread of the process, by name.
    std::map<std::string, double> threads() {
        std::map<std::string, double> out;
        std::string dir = "/proc/" + std::to_string(p->pid()) + "/task";
        DIR* d = opendir(dir.c_str());
        while (dirent* e = d ? readdir(d) : nullptr) {
            if (e->d_name[0] == '.') continue;
            std::string stat = kst::readFile(dir + "/" + e->d_name + "/stat");
            size_t l = stat.find('('), r = stat.rfind(')');
            if (l == std::string::npos || r == std::string::npos) continue;
            std::istringstream in(stat.substr(r + 2));
            std::string f;
            unsigned long ut = 0, st = 0;
            for (int i = 3; i <= 15 && in >> f; ++i) {
                if (i == 14) ut = std::stoul(f);
                if (i == 15) st = std::stoul(f);
            }
            out[stat.substr(l + 1, r - l - 1)] += double(ut + st) / double(sysconf(_SC_CLK_TCK));
        }
        if (d) closedir(d);
        return out;
    }
};
Answerer* gAnswerer = nullptr;
size_t gAnswererUes = 0;

Answerer& answerer(size_t ues) {
    if (!gAnswerer || gAnswererUes < ues) {
        delete gAnswerer;
        gAnswerer = new Answerer;
        gAnswererUes = ues;
        if (!gAnswerer->start(ues)) fprintf(stderr, "the answerer did not start\n");
    }
    return *gAnswerer;
}

double cpuOfThisProcess() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

void OverSctp(benchmark::State& state) {
    if (!Netns::get().skipReason.empty()) return state.SkipWithError(Netns::get().skipReason.c_str());
    size_t n = size_t(state.range(0)), window = size_t(state.range(1));
    Answerer& a = answerer(n);
    std::map<std::string, double> cpu;
    double wall = 0, ueCpu = 0;
    for (auto _ : state) {
        cat::Gnb g(38412, quiet());
        if (!g.up()) return state.SkipWithError("no NG Setup");
        auto before = a.threads();
        double c0 = cpuOfThisProcess();
        auto t0 = Clock::now();
        g.drv.registerMany(0, n, window);
        while (g.drv.registeredCount() < n) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            if (since(t0) > 600) return state.SkipWithError("registrations stalled");
        }
        wall = since(t0);
        state.SetIterationTime(wall);
        ueCpu = cpuOfThisProcess() - c0;
        cpu.clear();
        for (auto& [name, s] : a.threads()) cpu[name] = s - before[name];
    }
    state.counters["regs_per_s"] = benchmark::Counter(double(n), benchmark::Counter::kIsIterationInvariantRate);
    double total = 0;
    for (auto& [name, s] : cpu) total += s;
    state.counters["answerer_cpu_us_per_reg"] = total * 1e6 / double(n);
    state.counters["ues_cpu_us_per_reg"] = ueCpu * 1e6 / double(n);
    fprintf(stderr, "answerer threads, CPU seconds in the last run of %zu registrations (%.2f s wall):\n", n, wall);
    for (auto& [name, s] : cpu)
        if (s > 0.005) fprintf(stderr, "  %-16s %6.2f s  %4.0f%%\n", name.c_str(), s, 100.0 * s / total);
}
BENCHMARK(OverSctp)
    ->Args({10000, 100})
    ->Args({10000, 1000})
    ->Args({100000, 1000})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

void NgSetupOverSctp(benchmark::State& state) {
    if (!Netns::get().skipReason.empty()) return state.SkipWithError(Netns::get().skipReason.c_str());
    size_t n = size_t(state.range(0)), window = size_t(state.range(1));
    answerer(10000);
    for (auto _ : state) {
        cat::Gnb g(38412, quiet());
        if (!g.up()) return state.SkipWithError("no NG Setup");
        size_t start = g.drv.setupCount();
        auto t0 = Clock::now();
        g.drv.ngSetupMany(n, window);
        while (g.drv.setupCount() < start + n) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        state.SetIterationTime(since(t0));
    }
    state.counters["messages_per_s"] = benchmark::Counter(2.0 * double(n), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(NgSetupOverSctp)->Args({100000, 100})->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Netns::get().enter();
    gDir = kst::makeTempDir("cabench");
    __init_morva_core();
    __mv_init_logger((gDir + "/").c_str());
    __mv_set_log_level(MV_APP_LOG, MV_LOG_ERROR);
    __mv_set_log_level(MV_STK_LOG, MV_LOG_ERROR);
    if (__mv_ogs_init_crypto_fun() != 0) return 1;
    __mv_socket_engine_init();
    __mv_socket_engine__set_sctp_backend("userspace", 0);
    benchmark::RunSpecifiedBenchmarks();
    delete gAnswerer;
    kst::removeTree(gDir);
    _exit(0);
}
