// NG Setup of many gNBs at once against the scripted AMF, over real associations of the
// userspace SCTP stack, both ends in this process in a network namespace of its own
// (root). Each iteration adds a fresh range of gNBs, as the console does, waits until
// every one of them has had its NGSetupResponse, and closes them again.
//
//   bench_gnb_ngsetup --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "Kestrane.h"
#include "KsNGAP.h"
#include "mv_ngap.h"
#include "scripted_amf.h"

namespace {

bool inPrivateNetns = false;
kgt::ScriptedAmf* gAmf = nullptr;
uint32_t gNextId = 1;

long rssBytes() {
    long pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

bool startEngine() {
    char dir[] = "/tmp/ks_bench_gnb_XXXXXX";
    if (!mkdtemp(dir)) return false;
    std::string d = dir;
    mkdir((d + "/data").c_str(), 0700);
    std::ofstream(d + "/cfg.json") << R"({"LOCAL_GTP_IP": "127.0.0.1", "CLIPort": 0, "MaximumUE": 10,
        "MaxRANUEID": 1000, "StartNGRAN": 1, "SCTPBackend": "userspace", "SCTPSendLock": 1,
        "LocalAddress": {"IPVersion": 4, "IP": ["127.0.0.1"]}, "LogLevel": {"APPLICATION": 1, "STACK": 1}})";
    std::ofstream(d + "/data/amf.json")
        << R"([{"ID": 1, "IP1": "127.0.0.1", "IP2": "", "Port": 38412, "Enabled": 1, "KsTE": 1}])";
    std::ofstream(d + "/data/ran.json") << "[]";
    if (chdir(dir) != 0) return false;
    __init_morva_core();
    __mv_init_logger((d + "/logs/").c_str());
    __mv_socket_engine_init();
    __mv_socket_engine__set_sctp_backend("userspace", 0);
    gAmf = new kgt::ScriptedAmf("127.0.0.1", 38412, "amf-bench");
    gAmf->keepBytes(false);
    if (!gAmf->start()) return false;
    std::string cfg = d + "/cfg.json";
    char* argv[] = {const_cast<char*>("kestrane"), cfg.data(), nullptr};
    return KsEngine__Startup(2, argv) == 1;
}

// The gNBs of ids [first, first + n) that are ready.
size_t readyOf(uint32_t first, uint32_t n) {
    size_t ready = 0;
    for (MV_KsNGRan* r = __ksEngine->ngRanHead.load(); r; r = r->Next.load())
        if (r->ID >= first && r->ID < first + n) ready += KsNGAP__OkToSend(r->ranAMFHead.load());
    return ready;
}

void BM_NGSetupOfGnbs(benchmark::State& st) {
    if (!inPrivateNetns) {
        st.SkipWithError("needs root for a network namespace of its own");
        return;
    }
    const auto n = uint32_t(st.range(0));
    double seconds = 0;
    long bytes = 0;
    for (auto _ : st) {
        uint32_t first = gNextId;
        gNextId += n;
        char tas[] = R"([{"TAC": 1, "BroadcastPLMNList": [{"MCC": "001", "MNC": "01", "TAISliceSupportList": [{"SST": 1}]}]}])";
        json_array_append_new(__ksEngine->rans,
                              json_pack("{s:i, s:s, s:s, s:i, s:s, s:i, s:i, s:s}", "ID", int(first), "MCC", "001",
                                        "MNC", "01", "Enabled", 1, "Name", "gnb", "RANCount", int(n), "KsTE", 1,
                                        "SupportedTAList", tas));
        long rss0 = rssBytes();
        auto t0 = std::chrono::steady_clock::now();
        KsEngine__ConfigureDynamicRanNodes();
        auto deadline = t0 + std::chrono::minutes(10);
        while (readyOf(first, n) < n && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        if (readyOf(first, n) < n) {
            st.SkipWithError("not every gNB became ready within 10 minutes");
            return;
        }
        st.SetIterationTime(s);
        seconds += s;
        bytes += rssBytes() - rss0;
        // The round-robin poll readers visit every open association in turn: close this
        // range so that each iteration starts from the same number of open ones.
        for (MV_KsNGRan* r = __ksEngine->ngRanHead.load(); r; r = r->Next.load())
            if (r->ID >= first && r->ID < first + n) KsNGAP__close_NGConnection(r->ranAMFHead.load());
        for (int i = 0; i < 6000 && gAmf->openAssociations() > 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    double iters = double(st.iterations());
    st.counters["gnbs_per_s"] = double(n) * iters / seconds;
    // Both ends of each association live in this process: the figure holds the AMF's side too.
    st.counters["rss_bytes_per_gnb_both_ends"] = double(bytes) / iters / n;
    st.counters["record_bytes_per_gnb"] =
        double(sizeof(MV_KsNGRan) + sizeof(MV_KsRanAmfConnection) + sizeof(MV_Socket) + sizeof(MV_NGAPNode));
}
BENCHMARK(BM_NGSetupOfGnbs)->Arg(100)->Arg(1000)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
    // Before any thread: the stack's raw sockets then see only this namespace.
    if (geteuid() == 0 && unshare(CLONE_NEWNET) == 0 && system("ip link set lo up") == 0) inPrivateNetns = true;
    if (inPrivateNetns && !startEngine()) {
        fprintf(stderr, "the engine or the scripted AMF did not start\n");
        return 1;
    }
    ::benchmark::Initialize(&argc, argv);
    ::benchmark::RunSpecifiedBenchmarks();
    ::benchmark::Shutdown();
    // The engine has no orderly shutdown.
    std::_Exit(0);
}
