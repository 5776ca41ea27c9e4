// An establishment request built and encoded for one session: the default rules against the same
// rules read from a message template (two PDRs with an SDF filter, two FARs, a URR and a QER),
// the per-UE work of a templated step.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>

#include "KsPFCP.h"
#include "KsTemplateEng.h"
#include "Kestrane.h"
#include "pfcp_codec.h"

namespace {

constexpr const char* kTemplate = R"({"Type": "PFCP", "Templates": [{"Name": "bench", "MessageType": 50, "Elements": [
 {"IEType": 1, "Elements": [{"IEType": 56, "ValueType": "Int", "Value": 1}, {"IEType": 29, "ValueType": "Int", "Value": 255},
   {"IEType": 2, "Elements": [{"IEType": 20, "ValueType": "Int", "Value": 1},
     {"IEType": 22, "ValueType": "String", "Value": "internet"}, {"IEType": 93, "ValueType": "Int", "Value": 1},
     {"IEType": 23, "ValueType": "String", "Value": "permit out 17 from %s %s to %s %s"}]},
   {"IEType": 108, "ValueType": "Int", "Value": 1}, {"IEType": 109, "ValueType": "Int", "Value": 1}]},
 {"IEType": 1, "Elements": [{"IEType": 56, "ValueType": "Int", "Value": 2}, {"IEType": 29, "ValueType": "Int", "Value": 255},
   {"IEType": 2, "Elements": [{"IEType": 20, "ValueType": "Int", "Value": 0}, {"IEType": 21, "ValueType": "Int", "Value": 1},
     {"IEType": 22, "ValueType": "String", "Value": "internet"}, {"IEType": 124, "ValueType": "Int", "Value": 1}]},
   {"IEType": 95, "ValueType": "Int", "Value": 0}, {"IEType": 108, "ValueType": "Int", "Value": 2},
   {"IEType": 109, "ValueType": "Int", "Value": 1}]},
 {"IEType": 3, "ValueType": "Int", "Value": 1, "Elements": [{"IEType": 44, "ValueType": "Int", "Value": 2},
   {"IEType": 4, "Elements": [{"IEType": 42, "ValueType": "Int", "Value": 0}]}]},
 {"IEType": 3, "ValueType": "Int", "Value": 2, "Elements": [{"IEType": 44, "ValueType": "Int", "Value": 2},
   {"IEType": 4, "Elements": [{"IEType": 42, "ValueType": "Int", "Value": 1}]}]},
 {"IEType": 6, "ValueType": "Int", "Value": 1, "Elements": [{"IEType": 62, "ValueType": "Int", "Value": 2},
   {"IEType": 73, "ValueType": "Json", "Value": {"TotalVolume": 4096}}]},
 {"IEType": 7, "ValueType": "Int", "Value": 1, "Elements": [{"IEType": 25, "ValueType": "Int", "Value": 0},
   {"IEType": 26, "ValueType": "Json", "Value": {"ULMBR": 10240, "DLMBR": 10240}},
   {"IEType": 124, "ValueType": "Int", "Value": 1}]}]}]})";

struct Fixture {
    pfcp_cp_ipv4_t v4{nullptr, 0x0a2d0001};
    pfcp_cp_ipv6_t v6{nullptr, {0x20, 0x01, 0x0d, 0xb8}};
    std::unique_ptr<pfcp_cp_sess_t> s = std::make_unique<pfcp_cp_sess_t>();
    const MV_Template* t = nullptr;
    Fixture() {
        // The builders read the protocol settings through the engine record: an empty one.
        if (!__ksEngine) __ksEngine = new __mv_ks__engine();
        s->cp_seid = 502;
        s->teid = 754;
        s->ipv4 = &v4;
        s->ipv6 = &v6;
        json_error_t e;
        json_t* j = json_loads(kTemplate, 0, &e);
        KsTemplateEng__LoadTemplate(j, "bench");
        t = KsTemplateEng__FindTemplateByMessageId("bench", "PFCP", 50);
    }
};
Fixture& fixture() {
    static Fixture f;
    return f;
}

template <bool kTemplated>
void BM_EstablishmentBuildAndEncode(benchmark::State& state) {
    Fixture& f = fixture();
    if (kTemplated && !f.t) {
        state.SkipWithError("template did not load");
        return;
    }
    auto m = std::make_unique<pfcp_message_t>();
    uint8_t out[4096];
    size_t bytes = 0;
    for (auto _ : state) {
        KsPFCPScratch scratch;
        if constexpr (kTemplated) KsPFCP__build_establishment_by_template(m.get(), f.s.get(), nullptr, f.t, scratch);
        else KsPFCP__build_establishment(m.get(), f.s.get(), nullptr, scratch);
        int n = pfcp_encode_message(m.get(), out);
        benchmark::DoNotOptimize(n);
        bytes = size_t(n);
    }
    state.counters["bytes"] = double(bytes);
    state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_EstablishmentBuildAndEncode<false>)->Name("BM_EstablishmentDefault");
BENCHMARK(BM_EstablishmentBuildAndEncode<true>)->Name("BM_EstablishmentFromTemplate");

}  // namespace

BENCHMARK_MAIN();
