// The gNB side of NG Setup without the network: building and encoding one NG Setup
// request, handling one NGSetupResponse, and RAN selection over many gNBs.
#include <benchmark/benchmark.h>

#include <cstring>

#include "Kestrane.h"
#include "KsNGAP.h"

namespace {

const char* kTas = R"([{"TAC": 1, "BroadcastPLMNList": [{"MCC": "001", "MNC": "01", "TAISliceSupportList": [{"SST": 1}, {"SST": 2, "SD": "010203"}]}]}])";

MV_KsNGRan* ran(uint32_t id) {
    auto* r = new MV_KsNGRan{};
    r->ID = id;
    r->AccessType = KS_ACCESS_TYPE__GNB;
    r->Enabled = 1;
    KsEngine__get_plmnHex(r->HexPlmn, "001", "01");
    snprintf(r->NodeName, sizeof r->NodeName, "gnb-%u", id);
    r->SupportedTAList = json_loads(kTas, 0, nullptr);
    return r;
}

void BM_BuildAndEncodeNGSetupRequest(benchmark::State& st) {
    MV_KsNGRan* r = ran(1);
    __mv_asn_coding_context ctx;
    for (auto _ : st) {
        MV_AMF_DT_NGSetupRequest* rec = KsNGAP___build_NGSetupRequest(r);
        memset(&ctx, 0, sizeof ctx);
        int rc = __mv_amf_encode_pdu_NGSetupRequest(rec, &ctx);
        benchmark::DoNotOptimize(rc);
        __mv_amf_memfree_pdu_NGSetupRequest(rec);
    }
    st.counters["bytes"] = ctx.pos;
}
BENCHMARK(BM_BuildAndEncodeNGSetupRequest);

// Selection walks the RAN list: a UE of the last of n gNBs' PLMN.
void BM_FindRANAmongGnbs(benchmark::State& st) {
    static __mv_ks__engine eng{};
    __ksEngine = &eng;
    eng.ngRanHead = nullptr;
    eng.ngRanCurrent = nullptr;
    static MV_KsAmf amf{};
    for (int i = 0; i < st.range(0); ++i) {
        MV_KsNGRan* r = ran(uint32_t(i + 1));
        if (i == st.range(0) - 1) KsEngine__get_plmnHex(r->HexPlmn, "310", "410");
        auto* c = new MV_KsRanAmfConnection{};
        c->ran = r;
        c->amf = &amf;
        r->ranAMFHead = c;
        if (eng.ngRanCurrent) eng.ngRanCurrent->Next = r;
        else eng.ngRanHead = r;
        eng.ngRanCurrent = r;
    }
    for (auto _ : st) benchmark::DoNotOptimize(KsEngine__FindRAN("310", "410", 1));
}
BENCHMARK(BM_FindRANAmongGnbs)->Arg(10)->Arg(1000);

}  // namespace

BENCHMARK_MAIN();
