// The session transfer containers carried in octet strings of the session PDUs. They are
// plain IE containers (an extension bit, the IE count, the IEs) with no PDU head, so that
// what is encoded here is what a peer's decoder of the octet string expects.
#include <cstring>

#include "mv_ngap_internal.h"

namespace {

template <class R>
int encodeTransfer(const char* name, R* record, __mv_asn_coding_context* ctx,
                   int (*encode)(const R*, int, __mv_asn_coding_context*)) {
    if (!ctx) return -1;
    __mv_asn_init_CodingContext(ctx);
    if (!record) {
        MV_NGAP_LOG(MV_LOG_ERROR, "encoding failed for %s: no record <%s|%s|%d>", name, __FILE_NAME__, __func__,
                    __LINE__);
        return -1;
    }
    // Level 1: the container is the whole value, with no open-type length of its own.
    int sts = encode(record, 1, ctx);
    if (sts < 1) {
        MV_NGAP_LOG(MV_LOG_ERROR, "encoding failed for %s sts=%d <%s|%s|%d>", name, sts, __FILE_NAME__, __func__,
                    __LINE__);
        ctx->pos = 0;
        return sts < 0 ? sts : -1;
    }
    __mv_asn_pad_bits(ctx);
    return ctx->pos;
}

const MvAsnIE* findIE(const MvAsnType& t, uint64_t id) {
    for (unsigned i = 0; i < t.nAll; i++)
        if (t.ies[i].id == id) return &t.ies[i];
    return nullptr;
}

}  // namespace

int __mv_ngap_encode_pdu_PDUSessionResourceSetupRequestTransfer(MV_AMF_DT_PDUSessionResourceSetupRequestTransfer* record,
                                                                __mv_asn_coding_context* context) {
    return encodeTransfer("PDUSessionResourceSetupRequestTransfer", record, context,
                          __mv_amf_Encode_PDUSessionResourceSetupRequestTransfer);
}

int __mv_ngap_encode_pdu_PDUSessionResourceModifyRequestTransfer(
    MV_AMF_DT_PDUSessionResourceModifyRequestTransfer* record, __mv_asn_coding_context* context) {
    return encodeTransfer("PDUSessionResourceModifyRequestTransfer", record, context,
                          __mv_amf_Encode_PDUSessionResourceModifyRequestTransfer);
}

int __mv_ngap_decode_pdu_PDUSessionResourceSetupRequestTransfer(MV_AMF_DT_PDUSessionResourceSetupRequestTransfer* record,
                                                                __mv_asn_coding_context* context) {
    if (!record || !context) return -1;
    const MvAsnType& t = mv_asn_amf::T_PDUSessionResourceSetupRequestTransfer;
    auto* rec = reinterpret_cast<uint8_t*>(record);
    uint64_t ext = 0, count = 0;
    if (__mv_asn_get_bits(1, &ext, context) < 1) {
        record->decodingError = 1;
        return -1;
    }
    record->pduIEExtension = uint8_t(ext);
    __mv_asn_pad_readbits(context);
    if (__mv_asn_get_bits(16, &count, context) < 1) {
        record->decodingError = 1;
        return -1;
    }
    // The IEs run to the end of the octets; each step consumes at least its id and length.
    int processed = 3, last = 1;
    uint16_t decoded = 0;
    while (context->pos < context->len) {
        uint64_t id = 0, crit = 0;
        __mv_asn_pad_readbits(context);
        if (__mv_asn_get_bits(16, &id, context) < 1 || __mv_asn_get_bits(2, &crit, context) < 1) {
            last = -1;
        } else if (const MvAsnIE* ie = findIE(t, id)) {
            uint8_t* slot = rec + ie->off;
            int isset = 0;
            memcpy(&isset, rec + ie->issetOff, sizeof isset);
            if (isset == 1) __mv_asn_free_type(ie->type, slot);  // a repeated IE replaces the first
            last = __mv_asn_decode_type(ie->type, slot, &isset, 0, context);
            memcpy(rec + ie->issetOff, &isset, sizeof isset);
        } else {
            last = __mv_asn_move_unknown_field_length(context);
        }
        if (last < 1) {
            record->decodingError = 1;
            MV_NGAP_LOG(MV_LOG_ERROR,
                        "Error while decoding IEId=%d, Criticality=%d, ie_processedlen=%d "
                        "in PDUSessionResourceSetupRequestTransfer (%s|%s|%d)",
                        int(id), int(crit), processed, __FILE_NAME__, __func__, __LINE__);
            break;
        }
        processed += last;
        decoded++;
    }
    record->iECount = decoded;
    if (last < 1) return last;
    // Octets cut at an IE's end look whole; only the count tells.
    if (decoded != count) {
        record->decodingError = 1;
        MV_NGAP_LOG(MV_LOG_ERROR, "PDUSessionResourceSetupRequestTransfer counts %u IEs and holds %u (%s|%s|%d)",
                    unsigned(count), unsigned(decoded), __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    return 1;
}

void __mv_ngap_free_pdu_PDUSessionResourceSetupRequestTransfer(MV_AMF_DT_PDUSessionResourceSetupRequestTransfer* record) {
    __mv_amf_memfree_PDUSessionResourceSetupRequestTransfer(record);
}
