// Initial registrations (registration request, 5G-AKA, security mode, accept, complete)
// of the engine's UE through its step runner, one after the other, against the core
// answerer's procedures in memory: the UE's cost and the answerer's together, with no
// socket. UEs are reused, each forgetting its context first, so each run is a fresh
// initial registration with a SUCI.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "Kestrane.h"
#include "ks_engine_env.h"
#include "nas_net.h"

namespace {

constexpr int kUes = 1000;
MV_KsRanAmfConnection gConn{};

bool startEngine() {
    static int started = [] {
        std::string dir = kst::makeTempDir("bench_nasproc");
        mkdir((dir + "/data").c_str(), 0700);
        kst::writeFile(dir + "/cfg.json",
                       R"({"LOCAL_GTP_IP": "127.0.0.1", "MaximumUE": 1000, "IMSIPrefixWithZERO": 1, "CLIPort": 0,
                           "DefaultTimeoutSeconds": 30, "LogLevel": {"APPLICATION": 2, "COMMON": 2}})");
        kst::writeFile(dir + "/data/uel.json", kst::readFile(KS_UEL));
        std::string cfg = dir + "/cfg.json";
        char* argv[] = {const_cast<char*>("kestrane"), cfg.data(), nullptr};
        return chdir(dir.c_str()) == 0 && KsEngine__Startup(2, argv) == 1 ? 1 : 0;
    }();
    return started == 1;
}

void forget(MV_KsUE* ue) {
    MV_KsUECtx* c = &ue->TGPP;
    c->security_context_available = 0;
    c->ngKSI = 7;
    c->RMStatus = 0;
    ue->fgGuti.isset = 0;
}

void BM_Registration_InMemory(benchmark::State& state) {
    if (!startEngine()) return state.SkipWithError("the engine did not start");
    nsp::Net net({"--t3550", "0", "--t3560", "0", "--t3570", "0"});
    if (!net.ok) return state.SkipWithError(net.error.c_str());
    std::vector<MV_KsUE*> ues;
    const uint8_t plmn[3] = {0x00, 0xF1, 0x10};
    for (int i = 1; i <= kUes; ++i) {
        MV_KsUE* u = kst::ueOf001(i);
        if (!u) return state.SkipWithError("no UE");
        u->TGPP.ranAmfConnection = &gConn;
        KsEngine__SetUEsSNN2(u, plmn);
        ues.push_back(u);
    }
    KsStep st{};
    st.StepCode = KS_STEP__REGISTRATION;
    st.RegistrationType = 1;
    st.EA0 = st.EA1 = st.EA2 = st.IA0 = st.IA1 = st.IA2 = 1;
    KsStepExecution exec{};
    exec.ksStep = &st;
    size_t i = 0, failed = 0;
    for (auto _ : state) {
        MV_KsUE* u = ues[i++ % ues.size()];
        forget(u);
        exec.ksUe = u;
        u->ksStepExecution = u->ksStepExecutionHead = &exec;
        u->EndOfTest = 0;
        net.run([&] { KsNAS__runStep_FQ(u, KS_BEARER__3GPP); });
        if (u->TGPP.RMStatus != RM_STATUS__REGISTERED) ++failed;
        u->ksStepExecution = u->ksStepExecutionHead = nullptr;
        net.uplinkNas.clear();
        net.uplinkTypes.clear();
    }
    state.SetItemsProcessed(int64_t(state.iterations()));
    state.counters["failed"] = double(failed);
}
BENCHMARK(BM_Registration_InMemory)->Unit(benchmark::kMicrosecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
