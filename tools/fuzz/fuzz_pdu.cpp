// libFuzzer target of the PDU decoders of one family (KS_FUZZ_S1AP selects S1AP, else NGAP). A
// frame reaches the decoder of its form and procedure code, as the node layers hand frames over,
// so every decoder of the family is one header away. Whatever decodes is dumped and printed as
// JSON; a frame that decodes whole must encode again, and that encoding must decode and encode to
// the same bytes, directly and through its JSON form.
#include <sanitizer/asan_interface.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "mv_asn.h"
#include "mv_core.h"
#ifdef KS_FUZZ_S1AP
#include "mv_mme_asn.h"
namespace fam = mv_asn_mme;
#else
#include "mv_amf_asn.h"
namespace fam = mv_asn_amf;
#endif

namespace {

// The dumps are formatted in full and dropped, so their code runs on every input.
void quietSink(int, const char*) {}

__mv_asn_coding_context gEnc, gDec;

bool encode(const MvAsnPdu* p, const void* rec, std::vector<uint8_t>& out) {
    __mv_asn_init_CodingContext(&gEnc);
    if (__mv_asn_encode_pdu(p, rec, &gEnc) < 1) return false;
    out.assign(gEnc.buffer, gEnc.buffer + gEnc.pos);
    return true;
}

void* decode(const MvAsnPdu* p, const uint8_t* data, size_t size, int* result) {
    void* rec = __mv_asn_new_record(p->type);
    *result = -1;
    if (__mv_asn_init_decode(&gDec, data, size)) {
        // the part of the buffer past the received bytes is off limits: a decoder that reads
        // there has missed a length check, and the address sanitizer says so
        ASAN_POISON_MEMORY_REGION(gDec.buffer + size, MV_ASN_BUFFER_SIZE - size);
        *result = __mv_asn_decode_pdu(p, rec, &gDec);
        ASAN_UNPOISON_MEMORY_REGION(gDec.buffer + size, MV_ASN_BUFFER_SIZE - size);
    }
    return rec;
}

// A broken promise of the codec: stop here so the fuzzer keeps the input.
[[noreturn]] void broken(const char* what, const MvAsnPdu* p) {
    fprintf(stderr, "%s: %s\n", p->name, what);
    abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = [] {
        __mv_asn_set_log_sink(quietSink, MV_LOG_DEBUG);
        return true;
    }();
    (void)ready;
    const MvAsnPdu* p = __mv_asn_find_pdu(fam::kPdus, fam::kPduCount, data, size);
    if (!p) return 0;
    int r = 0;
    void* rec = decode(p, data, size, &r);
    // a record that failed half way still reaches its owner, who may look at it
    __mv_asn_debug_pdu(p, rec);
    std::string json;
    __mv_asn_json_pdu(p, rec, json);
    std::vector<uint8_t> first, second, viaJson;
    if (r == 1 && encode(p, rec, first)) {
        int r2 = 0;
        void* again = decode(p, first.data(), first.size(), &r2);
        if (r2 != 1) broken("its own encoding does not decode", p);
        if (!encode(p, again, second) || second != first) broken("its own encoding does not encode to the same bytes", p);
        __mv_asn_memfree_pdu(p, again);

        void* fromJson = nullptr;
        std::string err;
        if (__mv_asn_pdu_from_json(fam::kPdus, fam::kPduCount, json.c_str(), &fromJson, &err) != p)
            broken(("its JSON form is refused: " + err).c_str(), p);
        if (!encode(p, fromJson, viaJson) || viaJson != first) broken("its JSON form encodes to other bytes", p);
        __mv_asn_memfree_pdu(p, fromJson);
    }
    __mv_asn_memfree_pdu(p, rec);
    return 0;
}
