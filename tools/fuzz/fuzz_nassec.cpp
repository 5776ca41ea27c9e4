// libFuzzer target of the UE's downlink unwrapping: random bytes as a received NAS PDU
// against a UE that holds a security context. The first octet chooses the context
// (integrity and ciphering algorithm, whether the context is on, the access); the rest
// is the PDU, in a block of exactly its size so that the address sanitizer catches any
// read past it. Under NIA0 the MAC is zeros, so the fuzzer also gets past the MAC into
// deciphering, key derivation and the decoder. The same octets are then protected as
// an uplink message.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "KsNAS.h"
#include "mv_core.h"
#include "mvalgo.h"

namespace {

void check(bool ok) {
    if (!ok) abort();
}

MV_KsUE* theUe() {
    static MV_KsUE* ue = [] {
        __mv_init_logger("fuzz_logs");  // beside the fuzzer, in its build folder
        // Lines are formatted up to the level test, but not written: a file per input
        // would measure the disk.
        for (uint32_t t = 0; t < MV_LOG_TYPE_COUNT; ++t) __mv_set_log_level(t, MV_LOG_CRITICAL);
        check(__mv_ogs_init_crypto_fun() == 0);
        auto* u = new MV_KsUE();
        snprintf(reinterpret_cast<char*>(u->supi.val), sizeof u->supi.val, "imsi-001010000000001");
        return u;
    }();
    return ue;
}

void resetContext(MV_KsUECtx* c, uint8_t choice) {
    for (int i = 0; i < 16; ++i) {
        c->knas_int[i] = uint8_t(0x10 + i);
        c->knas_enc[i] = uint8_t(0x40 + i);
        c->rand[i] = uint8_t(i);
        c->xres_star[i] = uint8_t(0x80 + i);
    }
    for (int i = 0; i < 32; ++i) c->kausf[i] = uint8_t(0xA0 + i);
    snprintf(c->snn, sizeof c->snn, "5G:mnc001.mcc001.3gppnetwork.org");
    c->selected_integrity_algo = choice & 3;
    c->selected_ciphering_algo = (choice >> 2) & 3;
    c->security_context_available = (choice >> 4) & 1;
    c->is_new_sec_context = (choice >> 7) & 1;
    c->ngKSI = 1;
    // Also start at the wrap of the sequence byte.
    c->dl_count = c->ul_count = (choice & 0x40) ? 255 : 0;
    c->dl_seq = c->ul_seq = uint8_t(c->dl_count);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    MV_KsUE* ue = theUe();
    uint8_t choice = data[0];
    uint8_t bearer = (choice & 0x20) ? 2 : 1;
    MV_KsUECtx* c = KsNAS__getUECtx(ue, bearer);
    resetContext(c, choice);
    size_t n = size - 1;

    std::unique_ptr<uint8_t[]> pdu(new uint8_t[n ? n : 1]);
    if (n) memcpy(pdu.get(), data + 1, n);
    uint32_t dlBefore = c->dl_count;
    __naspduDecode d{};
    int rc = KsNAS__process_security_header(ue, n ? pdu.get() : nullptr, uint32_t(n), bearer, 4, &d);
    check(rc == 0 || rc == 1);
    if (rc == 1) {
        check(d.pos >= 0 && d.pos <= d.length);
        check(d.buffer == nullptr || (d.buffer >= pdu.get() && d.buffer + d.length <= pdu.get() + n));
    } else {
        check(d.messageObj == nullptr);
    }
    // Counted once, or restarted by a security mode command.
    check(c->dl_count == dlBefore || c->dl_count == dlBefore + 1 || c->dl_count <= 1);
    __mv_naspdu_freeNASPduDecode(&d);
    check(c->dl_seq == uint8_t(c->dl_count));

    // The same octets as an uplink message of this context.
    auto ctx = std::make_unique<__mv_asn_coding_context>();
    size_t take = n < MV_ASN_BUFFER_SIZE ? n : MV_ASN_BUFFER_SIZE;
    memcpy(ctx->buffer, data + 1, take);
    ctx->pos = uint16_t(take);
    uint32_t ulBefore = c->ul_count;
    int up = KsNAS__encapulate_security_header(ue, ctx.get(), bearer);
    check(up >= -1 && up <= 1);
    if (up == 1) check(ctx->pos == take + 7 && c->ul_count == ulBefore + 1 && ctx->buffer[0] == 0x7E);
    else check(ctx->pos == take);
    return 0;
}
