// Encode and decode of a Session Establishment Request with 2 PDRs, 2 FARs and a QER, one core, with
// the runtime up as in the engine. sys_bytes and sys_calls count what each message takes from the
// system allocator (malloc and friends are counted here); blocks from the runtime's size classes are
// not system allocations once their pools are filled.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "mv_core.h"
#include "pfcp_codec.h"
#include "tlv_json.h"

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
}

namespace {
std::atomic<uint64_t> gSysBytes{0}, gSysCalls{0};
}

extern "C" void* malloc(size_t n) {
    gSysBytes.fetch_add(n, std::memory_order_relaxed);
    gSysCalls.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(n);
}
extern "C" void* calloc(size_t a, size_t b) {
    gSysBytes.fetch_add(a * b, std::memory_order_relaxed);
    gSysCalls.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(a, b);
}
extern "C" void* realloc(void* p, size_t n) {
    gSysBytes.fetch_add(n, std::memory_order_relaxed);
    gSysCalls.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(p, n);
}
extern "C" void free(void* p) { __libc_free(p); }

namespace {

// The default establishment of a UE's session: the core-side and the access-side PDR, their FARs,
// one QER; bodies as the engine formats them.
const char* const kEstablishment = R"({"type":50,"sequence":109,"seid":0,"ies":{"node_id":"000ac80001",
  "cp_f_seid":"0200000000000001f60ac80001",
  "create_pdr":[
    {"pdr_id":1,"precedence":255,"pdi":{"source_interface":1,"network_instance":"20696e7465726e6574",
     "ue_ip_address":"060a2d0001"},"far_id":1,"qer_id":1},
    {"pdr_id":2,"precedence":255,"pdi":{"source_interface":0,"local_f_teid":"01000003e80ac80002",
     "network_instance":"20696e7465726e6574","qfi":1},"outer_header_removal":"00","far_id":2,"qer_id":1}],
  "create_far":[
    {"far_id":1,"apply_action":2,"forwarding_parameters":{"destination_interface":0,
     "outer_header_creation":"0100000007d00ac80001"}},
    {"far_id":2,"apply_action":2,"forwarding_parameters":{"destination_interface":1}}],
  "create_qer":[{"qer_id":1,"gate_status":0,"mbr":"00000028000000002800","qfi":1}],
  "pdn_type":1}})";

struct Fixture {
    std::unique_ptr<pfcp_message_t> msg = std::make_unique<pfcp_message_t>();
    tlv_json_store store;
    std::vector<uint8_t> wire;
    Fixture() {
        __init_morva_core();
        std::string err;
        if (!pfcp_message_from_json(kEstablishment, msg.get(), store, err)) abort();
        wire.resize(4096);
        int n = pfcp_encode_message(msg.get(), wire);
        if (n < 0) abort();
        wire.resize(size_t(n));
    }
};
Fixture& fx() {
    static Fixture f;
    return f;
}

void report(benchmark::State& state, uint64_t bytes0, uint64_t calls0) {
    double n = double(state.iterations());
    state.counters["sys_bytes"] = double(gSysBytes.load() - bytes0) / n;
    state.counters["sys_calls"] = double(gSysCalls.load() - calls0) / n;
    state.counters["msgs_per_s"] = benchmark::Counter(n, benchmark::Counter::kIsRate);
}

// Record to octets in the caller's buffer.
void BM_EncodeEstablishment(benchmark::State& state) {
    Fixture& f = fx();
    uint8_t out[2048];
    uint64_t b0 = gSysBytes, c0 = gSysCalls;
    for (auto _ : state) {
        int n = pfcp_encode_message(f.msg.get(), out);
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(out);
    }
    report(state, b0, c0);
    state.counters["octets"] = double(f.wire.size());
}
BENCHMARK(BM_EncodeEstablishment);

// The design's path: a buffer of the exact size from the size classes, the header written in front.
void BM_BuildEstablishmentBuffer(benchmark::State& state) {
    Fixture& f = fx();
    uint64_t b0 = gSysBytes, c0 = gSysCalls;
    for (auto _ : state) {
        __mv_buff_t* b = pfcp_build_msg(f.msg.get());
        __mv_buff__pull(b, PFCP_HEADER_LEN, 1);
        pfcp__set_request_header(b, PFCP_SESSION_ESTABLISHMENT_REQUEST_TYPE, 109, 1, 0);
        benchmark::DoNotOptimize(b->data);
        __mv_buff__free(b);
    }
    report(state, b0, c0);
}
BENCHMARK(BM_BuildEstablishmentBuffer);

// Octets to a record, the header's checks and the zeroing of the record included.
void BM_DecodeEstablishment(benchmark::State& state) {
    Fixture& f = fx();
    auto m = std::make_unique<pfcp_message_t>();
    uint64_t b0 = gSysBytes, c0 = gSysCalls;
    for (auto _ : state) {
        int rc = pfcp_decode_datagram(f.wire, m.get());
        benchmark::DoNotOptimize(rc);
        benchmark::DoNotOptimize(m->pfcp_session_establishment_request.create_pdr[1].pdr_id.u16);
    }
    report(state, b0, c0);
}
BENCHMARK(BM_DecodeEstablishment);

}  // namespace

BENCHMARK_MAIN();
