// Start-up of the real engine binary with N configured UEs (one data/uel.json range): time from
// exec to "Initalization of KsTest is completed", resident memory then, and the state each UE
// adds over an engine with none.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <fcntl.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#ifndef KS_ENGINE_BINARY
#define KS_ENGINE_BINARY "kestrane"
#endif

namespace {

struct StartResult {
    double seconds = 0;
    double rssKiB = 0;
    bool ok = false;
};

std::string readAll(const std::string& path) {
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

double rssKiB(pid_t pid) {
    std::string s = readAll("/proc/" + std::to_string(pid) + "/status");
    size_t p = s.find("VmRSS:");
    return p == std::string::npos ? 0 : atof(s.c_str() + p + 6);
}

StartResult startWith(long ues) {
    StartResult r;
    char tmpl[] = "/tmp/ks_bench_start_XXXXXX";
    if (!mkdtemp(tmpl)) return r;
    std::string dir = tmpl;
    mkdir((dir + "/data").c_str(), 0700);
    std::ofstream(dir + "/cfg.json") << R"({"LOCAL_GTP_IP": "127.0.0.1", "IMSIPrefixWithZERO": 1, "MaximumUE": )"
                                     << (ues > 0 ? ues : 1) << "}";
    if (ues > 0) {
        char last[32];
        snprintf(last, sizeof last, "00101%010ld", ues);
        std::ofstream(dir + "/data/uel.json") << R"([{"ID": 1, "MSINStart": "001010000000001", "MSINEnd": ")" << last
                                              << R"(", "MCC": "001", "MNC": "01"}])";
    }
    std::string out = dir + "/stdout";
    auto t0 = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        if (chdir(dir.c_str()) != 0) _exit(127);
        int fd = open(out.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
        dup2(fd, 1);
        execl(KS_ENGINE_BINARY, "kestrane", (dir + "/cfg.json").c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 120000; i++) {
        if (readAll(out).find("Initalization of KsTest is completed") != std::string::npos) {
            r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            r.rssKiB = rssKiB(pid);
            r.ok = true;
            break;
        }
        if (waitpid(pid, nullptr, WNOHANG) == pid) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    if (std::system(("rm -rf '" + dir + "'").c_str()) != 0) {
    }
    return r;
}

void BM_EngineStartup(benchmark::State& state) {
    static const StartResult empty = startWith(0);
    long ues = state.range(0);
    StartResult r;
    for (auto _ : state) {
        r = startWith(ues);
        if (!r.ok) {
            state.SkipWithError("the engine did not start");
            return;
        }
        state.SetIterationTime(r.seconds);
    }
    state.counters["rss_MiB"] = r.rssKiB / 1024.0;
    if (ues > 0) state.counters["bytes_per_ue"] = (r.rssKiB - empty.rssKiB) * 1024.0 / double(ues);
}
BENCHMARK(BM_EngineStartup)->Arg(0)->Arg(100000)->Arg(1000000)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
