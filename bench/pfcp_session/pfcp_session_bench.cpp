// Session establishments per second for 100,000 UEs, the engine in-process towards a UPF
// answering from C++ on loopback: each UE's step builds and sends the request, the answer comes
// back through the stack's receive thread to the UE's line, which completes the step. The CPU the
// UPF's one thread used and the engine's share of the process tell which side bounds the rate.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "KsPFCP.h"
#include "Kestrane.h"
#include "fast_upf.h"
#include "pfcp_node.h"

namespace {

constexpr int kUEs = 100000;

std::string loopback(int last) {
    int pid = int(getpid());
    return "127." + std::to_string(1 + (pid >> 8) % 250) + "." + std::to_string(pid & 0xff) + "." + std::to_string(last);
}

kps::FastUpf* upf() {
    static kps::FastUpf* u = [] {
        auto* f = new kps::FastUpf(loopback(3), 8805);
        f->keepAtMost = 0;
        return f->start() ? f : nullptr;
    }();
    return u;
}

bool startEngine() {
    static bool done = [] {
        if (!upf()) return false;
        char tmpl[] = "/tmp/ks_bench_pfcp_XXXXXX";
        std::string dir = mkdtemp(tmpl);
        mkdir((dir + "/data").c_str(), 0700);
        auto write = [&](const std::string& name, const std::string& text) { std::ofstream(dir + "/" + name) << text; };
        write("cfg.json", R"({"LOCAL_GTP_IP": "127.0.0.1", "MaximumUE": 200000, "IMSIPrefixWithZERO": 1, "CLIPort": 0,
                             "DefaultTimeoutSeconds": 30})");
        write("data/uel.json", R"([{"ID": 1, "MSINStart": "001010000000001", "MSINEnd": "001010000100000", "MSISDNBegin": "1",
                                     "MCC": "001", "MNC": "01"}])");
        write("data/set.json", R"({"UPF": {"1": "10.45.0.1/16"}})");
        std::string smf = loopback(2), up = loopback(3);
        write("data/noc.json", R"([{"ID": 1, "ConnInfoType": 2, "TEApplicationType": 2, "IP_1": ")" + smf +
                                   R"(", "Port_1": 8805, "IP_2": ")" + smf +
                                   R"(", "Port_2": "2152", "TransportType": 1, "Enabled": 1},
                                   {"ID": 2, "ConnInfoType": 1, "TEApplicationType": 2, "IP_1": ")" + up +
                                   R"(", "Port_1": 8805, "IP_2": ")" + up +
                                   R"(", "Port_2": "2152", "TransportType": 1, "Enabled": 1}])");
        write("data/sce.json", R"([{"ID": 1, "Config": [{"ID": 1001}]}, {"ID": 2, "Config": [{"ID": 1003}]}])");
        write("data/tst.json",
              R"([{"ID": 1, "ScenarioID": 1, "MPS": 1000000, "Concurrent": 8000, "SUPIStartNo": "001010000000001", "SUPIStartEnd": "001010000100000"},
                  {"ID": 2, "ScenarioID": 2, "MPS": 1000000, "Concurrent": 8000, "SUPIStartNo": "001010000000001", "SUPIStartEnd": "001010000100000"}])");
        if (chdir(dir.c_str()) != 0) return false;
        std::string cfg = dir + "/cfg.json";
        char* argv[] = {const_cast<char*>("kestrane"), cfg.data(), nullptr};
        if (KsEngine__Startup(2, argv) != 1) return false;
        if (KsTE__InitCommand(KS_APP_TYPE__UPF, 1, KS_TE_COMMAND__ADD_NODE) != 1) return false;
        KsTEConnection* conn = KsTE__GetConnectionByTEApplicationType(KS_APP_TYPE__UPF, 0);
        __mv_pfcp_node* node = conn ? conn->ksServer_upf_node.load() : nullptr;
        for (int i = 0; node && i < 2000 && node->isAssociationStarted != PFCP_ASSOCIATION__ASSOCIATED; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return node && node->isAssociationStarted == PFCP_ASSOCIATION__ASSOCIATED;
    }();
    return done;
}

double processCpu() {
    rusage r;
    getrusage(RUSAGE_SELF, &r);
    return double(r.ru_utime.tv_sec + r.ru_stime.tv_sec) + double(r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
}

void runToIdle(uint32_t testId) {
    if (KsEngine__AddTestToQueue(testId, KS_TEST__QUEUED) != 3) return;
    while (KsEngine__GetTestStatus(testId) == KS_TEST__QUEUED) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    while (KsEngine__GetTestStatus(testId) != KS_TEST__IDLE) std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

void BM_PfcpEstablishments_100kUEs(benchmark::State& state) {
    if (!startEngine()) {
        state.SkipWithError("engine or UPF did not start");
        return;
    }
    double upfCpu = 0, engineCpu = 0, wall = 0;
    uint64_t answered = 0;
    for (auto _ : state) {
        KsTestExec* last = KsEngine__FindTest(1);
        uint64_t before = last ? last->PFCPSessionEstablishmentResponse.Request.load() : 0;
        int64_t upf0 = upf()->cpuNs;
        double cpu0 = processCpu();
        auto t0 = std::chrono::steady_clock::now();
        runToIdle(1);
        auto t1 = std::chrono::steady_clock::now();
        double w = std::chrono::duration<double>(t1 - t0).count();
        double u = double(upf()->cpuNs - upf0) / 1e9;
        state.SetIterationTime(w);
        wall += w;
        upfCpu += u;
        engineCpu += processCpu() - cpu0 - u;
        KsTestExec* t = KsEngine__FindTest(1);
        answered += t ? t->PFCPSessionEstablishmentResponse.Request.load() - before : 0;
        runToIdle(2);  // the sessions go, so that the next pass establishes new ones
    }
    state.counters["establishments_per_s"] = double(answered) / wall;
    state.counters["answered"] = double(answered) / double(state.iterations());
    state.counters["upf_cpu_share"] = upfCpu / wall;        // of one core
    state.counters["engine_cpu_share"] = engineCpu / wall;  // of one core; 2 cores here
}
BENCHMARK(BM_PfcpEstablishments_100kUEs)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
