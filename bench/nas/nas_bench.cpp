// NAS encode and decode rates of the registration request a UE sends and the registration accept a
// core answers with.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "mv_nas_util.h"
#include "mv_naspdu.h"

namespace {

__mv_asn_coding_context g_ctx;

void quiet(int, const char*) {}

// The registration request of a first registration: SUCI, capabilities, one S-NSSAI, last visited TAI.
void fillRequest(__naspduFGMM_RegistrationRequest& r) {
    memset(static_cast<void*>(&r), 0, sizeof r);
    r.b1 = 0x79;
    const uint8_t suci[] = {0x01, 0x02, 0xf8, 0x39, 0x21, 0x43, 0x00, 0x00, 0x10, 0x32, 0x54, 0x76, 0x98};
    __mv_nas_util_encode_fg_suci(&r.mFGSMobileIdentity, suci, sizeof suci);
    r.mFGMMCapability.isset = 1;
    r.mUESecurityCapability.data[0] = 0xe0;
    r.mUESecurityCapability.data[1] = 0xe0;
    r.mUESecurityCapability.Length = 2;
    r.mUESecurityCapability.isset = 1;
    const uint8_t sd[3] = {1, 2, 3};
    __mv_naspdu_addSNSSAI(&r.mRequestedNSSAI, 1, sd, nullptr, nullptr);
    const uint8_t tai[6] = {0x02, 0xf8, 0x39, 0, 0, 1};
    memcpy(r.mLastVisitedRegisteredTAI.data, tai, 6);
    r.mLastVisitedRegisteredTAI.isset = 1;
    r.mFGSUpdateType.Value = 1;
    r.mFGSUpdateType.isset = 1;
}

void fillAccept(__naspduFGMM_RegistrationAccept& r) {
    r.mFGSRegistrationResult.Value = 1;
    r.mFGSRegistrationResult.isset = 1;
    const uint8_t guti[10] = {0x02, 0xf8, 0x39, 0xca, 0xfe, 0x01, 0x12, 0x34, 0x56, 0x78};
    __mv_nas_util_encode_fg_guti(&r.mFGGUTI, guti, 10);
    r.mT3512Value.Value = 0x26;
    r.mT3512Value.isset = 1;
    r.mT3502Value.Value = 0x2c;
    r.mT3502Value.isset = 1;
}

template <class Rec>
std::vector<uint8_t> encoded(Rec& r, int (*enc)(Rec*, __mv_asn_coding_context*)) {
    __mv_asn_init_CodingContext(&g_ctx);
    enc(&r, &g_ctx);
    return {g_ctx.buffer, g_ctx.buffer + g_ctx.pos};
}

void BM_EncodeRegistrationRequest(benchmark::State& st) {
    static __naspduFGMM_RegistrationRequest r{};
    fillRequest(r);
    for (auto _ : st) {
        __mv_asn_init_CodingContext(&g_ctx);
        __mv_naspdu_fgmm_encodeRegistrationRequest(&r, &g_ctx);
        benchmark::DoNotOptimize(g_ctx.buffer[0]);
    }
    st.SetItemsProcessed(int64_t(st.iterations()));
    st.counters["octets"] = g_ctx.pos;
}
BENCHMARK(BM_EncodeRegistrationRequest);

// What the UE does per registration: a zeroed record on the stack, filled, then encoded.
void BM_BuildAndEncodeRegistrationRequest(benchmark::State& st) {
    for (auto _ : st) {
        __naspduFGMM_RegistrationRequest r;
        fillRequest(r);
        __mv_asn_init_CodingContext(&g_ctx);
        __mv_naspdu_fgmm_encodeRegistrationRequest(&r, &g_ctx);
        benchmark::DoNotOptimize(g_ctx.buffer[0]);
    }
    st.SetItemsProcessed(int64_t(st.iterations()));
    st.counters["recordBytes"] = sizeof(__naspduFGMM_RegistrationRequest);
}
BENCHMARK(BM_BuildAndEncodeRegistrationRequest);

void decodeLoop(benchmark::State& st, const std::vector<uint8_t>& b) {
    __naspduDecode d{};
    for (auto _ : st) {
        __mv_naspdu_DecodeFGMessage(&d, b.data(), uint32_t(b.size()));
        void* obj = d.messageObj;
        benchmark::DoNotOptimize(obj);
        __mv_naspdu_freeNASPduDecode(&d);
    }
    st.SetItemsProcessed(int64_t(st.iterations()));
    st.counters["octets"] = double(b.size());
}

// The decoder reads 10, 2F, 53, 70 and C- and stops at the UE security capability.
void BM_DecodeRegistrationRequest(benchmark::State& st) {
    static __naspduFGMM_RegistrationRequest r{};
    fillRequest(r);
    decodeLoop(st, encoded(r, __mv_naspdu_fgmm_encodeRegistrationRequest));
}
BENCHMARK(BM_DecodeRegistrationRequest);

void BM_EncodeRegistrationAccept(benchmark::State& st) {
    __naspduFGMM_RegistrationAccept r{};
    fillAccept(r);
    for (auto _ : st) {
        __mv_asn_init_CodingContext(&g_ctx);
        __mv_naspdu_fgmm_encodeRegistrationAccept(&r, &g_ctx);
        benchmark::DoNotOptimize(g_ctx.buffer[0]);
    }
    st.SetItemsProcessed(int64_t(st.iterations()));
    st.counters["octets"] = g_ctx.pos;
}
BENCHMARK(BM_EncodeRegistrationAccept);

// GUTI, T3512 and T3502: every IE is read.
void BM_DecodeRegistrationAccept(benchmark::State& st) {
    __naspduFGMM_RegistrationAccept r{};
    fillAccept(r);
    decodeLoop(st, encoded(r, __mv_naspdu_fgmm_encodeRegistrationAccept));
}
BENCHMARK(BM_DecodeRegistrationAccept);

// As a core sends it: GUTI, TAI list, allowed NSSAI, PDU session status, timers; the walk ends at the list.
void BM_DecodeRegistrationAcceptFromCore(benchmark::State& st) {
    const uint8_t b[] = {0x7e, 0x00, 0x42, 0x01, 0x01, 0x77, 0x00, 0x0b, 0xf2, 0x02, 0xf8, 0x39, 0xca, 0xfe, 0x01,
                         0x12, 0x34, 0x56, 0x78, 0x54, 0x07, 0x00, 0x02, 0xf8, 0x39, 0x00, 0x00, 0x01, 0x15, 0x02,
                         0x01, 0x01, 0x50, 0x02, 0x00, 0x00, 0x5e, 0x01, 0x06, 0x16, 0x01, 0x2c};
    decodeLoop(st, std::vector<uint8_t>(b, b + sizeof b));
}
BENCHMARK(BM_DecodeRegistrationAcceptFromCore);

}  // namespace

int main(int argc, char** argv) {
    __mv_asn_set_log_sink(quiet, 0);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
