// The UE's NAS security on its hot paths: protecting an uplink message and unwrapping a
// downlink one under NIA2/NEA2 (typical sizes, and a large one), the security mode
// command with its key derivation, and the SUCI under each scheme.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "KsNAS.h"
#include "mv_core.h"
#include "mvalgo.h"

namespace {

struct Setup {
    Setup() {
        __mv_init_logger("/tmp/ks_bench_nassec_logs");  // one folder, reused by every run
        for (uint32_t t = 0; t < MV_LOG_TYPE_COUNT; ++t) __mv_set_log_level(t, MV_LOG_CRITICAL);
        if (__mv_ogs_init_crypto_fun() != 0) abort();
    }
};
const Setup gSetup;

MV_KsUE* newUe(uint8_t nia, uint8_t nea) {
    auto* ue = new MV_KsUE();
    snprintf(reinterpret_cast<char*>(ue->supi.val), sizeof ue->supi.val, "imsi-001010123456789");
    snprintf(ue->mcc, sizeof ue->mcc, "001");
    snprintf(ue->mnc, sizeof ue->mnc, "01");
    MV_KsUECtx* c = &ue->TGPP;
    for (int i = 0; i < 16; ++i) {
        c->knas_int[i] = uint8_t(i * 7 + 1);
        c->knas_enc[i] = uint8_t(i * 13 + 5);
    }
    for (int i = 0; i < 32; ++i) c->kausf[i] = uint8_t(i * 3);
    snprintf(c->snn, sizeof c->snn, "5G:mnc001.mcc001.3gppnetwork.org");
    c->selected_integrity_algo = nia;
    c->selected_ciphering_algo = nea;
    c->security_context_available = 1;
    return ue;
}

std::vector<uint8_t> plainMessage(size_t n) {
    std::vector<uint8_t> m(n);
    for (size_t i = 0; i < n; ++i) m[i] = uint8_t(i * 31);
    m[0] = 0x7E;
    m[1] = 0;
    m[2] = 0x67;  // an uplink NAS transport
    return m;
}

void BM_ProtectUplink(benchmark::State& state) {
    MV_KsUE* ue = newUe(2, 2);
    std::vector<uint8_t> plain = plainMessage(size_t(state.range(0)));
    __mv_asn_coding_context ctx{};
    for (auto _ : state) {
        memcpy(ctx.buffer, plain.data(), plain.size());
        ctx.pos = uint16_t(plain.size());
        if (KsNAS__encapulate_security_header(ue, &ctx, 1) != 1) state.SkipWithError("not protected");
        benchmark::DoNotOptimize(ctx.buffer[2]);
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * state.range(0));
    delete ue;
}
BENCHMARK(BM_ProtectUplink)->Arg(60)->Arg(1000);

// A DL NAS transport with a PDU session establishment accept in it, as the network sends
// it at the UE's next COUNT.
std::vector<uint8_t> downlink(const MV_KsUECtx* c, size_t pad) {
    std::vector<uint8_t> plain = {0x7E, 0x00, 0x68, 0x01, 0x00, 0x15, 0x2E, 0x05, 0x01, 0xC2, 0x11, 0x00, 0x00,
                                  0x06, 0x06, 0x00, 0x64, 0x06, 0x00, 0x32, 0x29, 0x05, 0x01, 0x09, 0x08, 0x07,
                                  0x06, 0x12, 0x05};
    if (pad) {  // a larger payload container
        size_t n = 0x15 + pad;
        plain[4] = uint8_t(n >> 8);
        plain[5] = uint8_t(n);
        plain.insert(plain.begin() + 27, pad, 0);
    }
    std::vector<uint8_t> m(7 + plain.size());
    m[0] = 0x7E;
    m[1] = 2;
    m[6] = c->dl_seq;
    memcpy(m.data() + 7, plain.data(), plain.size());
    if (__mv_algo__nas_encrypt(2, c->knas_enc, c->dl_count, 1, 1, m.data() + 7, uint32_t(plain.size())) != 0 ||
        __mv_algo__nas_mac_calculate(2, c->knas_int, c->dl_count, 1, 1, m.data() + 6, uint32_t(m.size() - 6),
                                     m.data() + 2) != 0)
        abort();
    return m;
}

void BM_UnwrapDownlink(benchmark::State& state) {
    MV_KsUE* ue = newUe(2, 2);
    std::vector<uint8_t> msg = downlink(&ue->TGPP, size_t(state.range(0))), work(msg.size());
    for (auto _ : state) {
        work = msg;
        ue->TGPP.dl_count = 0;
        ue->TGPP.dl_seq = 0;
        __naspduDecode d{};
        if (KsNAS__process_security_header(ue, work.data(), uint32_t(work.size()), 1, 4, &d) != 1 ||
            d.iMandatoryDecoded != 1)
            state.SkipWithError("not accepted");
        __mv_naspdu_freeNASPduDecode(&d);
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * int64_t(msg.size()));
    delete ue;
}
BENCHMARK(BM_UnwrapDownlink)->Arg(0)->Arg(1000);

// A security mode command: KSEAF, KAMF and both NAS keys, then the MAC.
void BM_SecurityModeCommand(benchmark::State& state) {
    MV_KsUE* ue = newUe(2, 2);
    MV_KsUECtx* c = &ue->TGPP;
    uint8_t kint[16], knull[16];
    if (__mv_algo__ue_setup_security_context2(nullptr, nullptr, c->kausf, c->snn, "imsi-001010123456789", 1, 2, 2,
                                              kint, knull) != 0)
        abort();
    std::vector<uint8_t> smc = {0x7E, 0x03, 0, 0, 0, 0, 0, 0x7E, 0x00, 0x5D, 0x22, 0x01, 0x02, 0xE0, 0xE0};
    if (__mv_algo__nas_mac_calculate(2, kint, 0, 1, 1, smc.data() + 6, uint32_t(smc.size() - 6), smc.data() + 2) != 0)
        abort();
    std::vector<uint8_t> work(smc.size());
    for (auto _ : state) {
        work = smc;
        __naspduDecode d{};
        if (KsNAS__process_security_header(ue, work.data(), uint32_t(work.size()), 1, 4, &d) != 1)
            state.SkipWithError("not accepted");
        __mv_naspdu_freeNASPduDecode(&d);
    }
    state.SetItemsProcessed(state.iterations());
    delete ue;
}
BENCHMARK(BM_SecurityModeCommand);

void BM_Suci(benchmark::State& state) {
    static const uint8_t kPubA[32] = {0x5a, 0x8d, 0x38, 0x86, 0x48, 0x20, 0x19, 0x7c, 0x33, 0x94, 0xb9,
                                      0x26, 0x13, 0xb2, 0x0b, 0x91, 0x63, 0x3c, 0xbd, 0x89, 0x71, 0x19,
                                      0x27, 0x3b, 0xf8, 0xe4, 0xa6, 0xf4, 0xee, 0xc0, 0xa6, 0x50};
    static const uint8_t kPubB[33] = {0x02, 0x72, 0xda, 0x71, 0x97, 0x62, 0x34, 0xce, 0x83, 0x3a, 0x69,
                                      0x07, 0x42, 0x58, 0x67, 0xb8, 0x2e, 0x07, 0x4d, 0x44, 0xef, 0x90,
                                      0x7d, 0xfb, 0x4b, 0x3e, 0x21, 0xc1, 0xc2, 0x25, 0x6e, 0xbc, 0xd1};
    MV_KsUE* ue = newUe(2, 2);
    ue->SuciProtectionScheme = uint8_t(state.range(0));
    ue->SuciHomeNetworkKeyId = 1;
    ue->SuciHomeNetworkPublicKeyLen = ue->SuciProtectionScheme == 1 ? 32 : 33;
    memcpy(ue->SuciHomeNetworkPublicKey, ue->SuciProtectionScheme == 1 ? kPubA : kPubB,
           ue->SuciHomeNetworkPublicKeyLen);
    uint8_t suci[KS_SUCI_MAX_LEN];
    int len = 0;
    for (auto _ : state) {
        if (KsNAS__build_suci(ue, 1, nullptr, suci, &len) != 1) state.SkipWithError("no SUCI");
        benchmark::DoNotOptimize(suci[len - 1]);
    }
    state.SetItemsProcessed(state.iterations());
    delete ue;
}
BENCHMARK(BM_Suci)->Arg(0)->Arg(1)->Arg(2);

}  // namespace

BENCHMARK_MAIN();
