// libFuzzer target of the NAS decoders, built once for 5GS (fuzz_nas5g) and once for EPS (fuzz_naseps):
// the entry point, every message decoder of the family run on its own, the security header reader, every
// IE decoder into a record of exactly its size, and the identity and NSSAI readers. Whatever decodes is
// described and encoded again. Inputs sit in blocks of exactly their size, so that the address sanitizer
// catches any read past them.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mv_nas_util.h"
#include "mv_naspdu_desc.h"

#ifndef KS_FUZZ_EPS
#define KS_FUZZ_EPS 0
#endif

namespace {

void quiet(int, const char*) {}

void check(bool ok) {
    if (!ok) abort();
}

#define NAS_IE_PTR(Name, CType, fmt, kind, n) &kNasIe_##Name,
const NasIeType* const kIes[] = {NAS_IE_TYPES(NAS_IE_PTR)};
constexpr unsigned kIeCount = sizeof kIes / sizeof kIes[0];

// What every decode must leave: the cursor inside the message, a known status, and a record that encodes.
void afterDecode(__naspduDecode& d, int rc) {
    check(rc == 0 || rc == -1 || rc == -ENOENT || rc == -ESRCH);
    check(d.pos >= 0 && d.pos <= d.length);
    check(d.iStatus == 0 || d.iStatus == 3 || d.iStatus == 4 || d.iStatus == 5);
    if (d.messageObj) {
        std::string text;
        __mv_naspdu_describe(&d, text, false);
        __mv_naspdu_describe(&d, text, true);
        const NasMsgDesc* m = __mv_naspdu_find_message(d.ProtocolDiscriminator, uint8_t(d.MessageType));
        check(m != nullptr);
        static __mv_asn_coding_context c;
        __mv_asn_init_CodingContext(&c);
        int e = __mv_naspdu_encode_message(m, d.messageObj, &c);
        check(e == 0 || e == -1);
        check(c.pos <= MV_ASN_BUFFER_SIZE);
    }
    __mv_naspdu_freeNASPduDecode(&d);
}

void entry(const uint8_t* p, size_t n) {
    __naspduDecode d{};
    int rc;
    if (!KS_FUZZ_EPS) {
        rc = __mv_naspdu_DecodeFGMessage(&d, p, uint32_t(n));
    } else {
        d.buffer = p;
        d.length = int(n);
        rc = __mv_naspdu_DecodeMessage(&d);
    }
    afterDecode(d, rc);
}

void protectedMessage(const uint8_t* p, size_t n) {
    __naspduFGSecurityHeader h{};
    int off = __mv_naspdu_decodeSecurityHeader(&h, p, uint32_t(n));
    check(off >= -1 && off <= int(n));
    if (off >= 0) entry(p + off, n - size_t(off));
}

void oneMessage(uint8_t which, const uint8_t* p, size_t n) {
    const NasFamily& f = kNasFamilies[(KS_FUZZ_EPS ? 2 : 0) + (which & 1)];
    const NasMsgDesc* m = f.msgs[(which >> 1) % f.count];
    __naspduDecode d{};
    d.buffer = p;
    d.length = int(n);
    check(__mv_naspdu_decode_message(m, &d) == 0);
    afterDecode(d, 0);
}

void oneIe(uint8_t which, const uint8_t* p, size_t n) {
    if (n < 1) return;
    const NasIeType* t = kIes[which % kIeCount];
    std::vector<uint8_t> rec(t->size);
    __naspduDecode d{};
    d.buffer = p + 1;
    d.length = int(n - 1);
    int r = __mv_naspdu_decode_ie(t, p[0], rec.data(), p[0] & 1, &d);
    check(r >= -1 && r <= 1 && d.pos <= d.length);
    static __mv_asn_coding_context c;
    __mv_asn_init_CodingContext(&c);
    rec[t->size - 1] = 1;
    check(__mv_naspdu_encode_ie(t, p[0], rec.data(), &c) <= 0);
}

void helpers(const uint8_t* p, size_t n) {
    __naspdu_snssai_item items[16];
    int k = __mv_naspdu_getSNSSAI(p, uint32_t(n), items, 16);
    check(k >= -ENOENT && k <= 16);
    __naspdu_fgs_mobile_identity id{};
    id.Length = uint16_t(n);  // a length the record cannot hold must be refused, not read
    if (n) memcpy(id.data, p, n < sizeof id.data ? n : sizeof id.data);
    char digits[600];
    check(__mv_nas_util_decode_fg_imei(&id, digits, int(sizeof digits)) < int(sizeof digits));
    check(__mv_nas_util_decode_fg_imeisv(&id, digits, 9) < 9);
    if (n >= 3) {
        char mcc[4], mnc[4];
        uint16_t a, b;
        __mv_nas_util__plmn_to_mccmnc(p, mcc, mnc);
        __mv_nas_util__plmn_to_mccmnc2(p, &a, &b);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __mv_asn_set_log_sink(quiet, 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > 8192) return 0;
    uint8_t op = data[0], which = data[1];
    size_t n = size - 2;
    std::vector<uint8_t> exact(data + 2, data + size);  // exactly n octets on the heap
    const uint8_t* p = n ? exact.data() : nullptr;
    switch (op % 5) {
        case 0: entry(p, n); break;
        case 1: protectedMessage(p, n); break;
        case 2: oneMessage(which, p, n); break;
        case 3: oneIe(which, p, n); break;
        default: helpers(p, n); break;
    }
    return 0;
}
