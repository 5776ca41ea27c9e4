// libFuzzer target of the GTP-U decoder: a datagram as the endpoint's receive path takes it. What
// decodes must lie inside the input, name no more than it holds, and, for a T-PDU, come back
// through the builder with the same tunnel, sequence and QoS flow; signalling messages' elements are
// read too. The input is exactly its size, so the address sanitizer catches any read past it.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "gtpu_codec.h"

namespace {

[[noreturn]] void broken(const char* what, uint8_t type) {
    fprintf(stderr, "%s: %s\n", gtpu_message_name(type), what);
    abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::span<const uint8_t> in(data, size);
    gtpu_msg_t m;
    gtpu_rx_error err = GTPU_RX_OK;
    int rc = gtpu_decode(in, &m, &err);
    (void)gtpu_rx_error_text(err);
    if (rc != 1) {
        if (rc != -1 || err == GTPU_RX_OK || err >= GTPU_RX_ERROR_COUNT) broken("a refusal without its reason", 0);
        return 0;
    }
    if (err != GTPU_RX_OK) broken("decodes with a reason to refuse", m.type);
    if (m.payload.data() < data || m.payload.data() + m.payload.size() != data + size)
        broken("the payload is not the end of the datagram", m.type);
    if (size_t(m.length) + 8 != size) broken("the length disagrees with the datagram", m.type);
    if (m.type == GTPU_TPDU) {
        if (m.payload.empty()) broken("an empty T-PDU", m.type);
        gtpu_tpdu_hdr h;
        h.teid = m.teid;
        h.seq = m.seq;
        h.flags = uint8_t((m.flags & GTPU_FLAG_S) | (m.hasContainer ? GTPU_FLAG_E : 0));
        h.pduType = m.pduType;
        h.qfi = m.qfi;
        h.rqi = m.rqi;
        std::vector<uint8_t> again(GTPU_HEADER_MAX + m.payload.size());
        size_t hl = gtpu_build_tpdu_header(again, h, m.payload.size());
        if (!hl) broken("its header does not build again", m.type);
        std::copy(m.payload.begin(), m.payload.end(), again.begin() + long(hl));
        again.resize(hl + m.payload.size());
        gtpu_msg_t m2;
        if (gtpu_decode(again, &m2) != 1) broken("its rebuilt header does not decode", m.type);
        if (m2.teid != m.teid || m2.seq != m.seq || m2.hasContainer != m.hasContainer ||
            (m.hasContainer && (m2.qfi != m.qfi || m2.pduType != (m.pduType == GTPU_PDU_TYPE_UL ? GTPU_PDU_TYPE_UL : GTPU_PDU_TYPE_DL))) ||
            !std::equal(m2.payload.begin(), m2.payload.end(), m.payload.begin(), m.payload.end()))
            broken("its rebuilt header reads otherwise", m.type);
    } else {
        gtpu_ies_t ies;
        if (gtpu_decode_ies(m.payload, &ies) == 1) {
            if (ies.peerAddressLen != 0 && ies.peerAddressLen != 4 && ies.peerAddressLen != 16)
                broken("a peer address of another length", m.type);
            if (ies.extTypeCount > sizeof ies.extTypes) broken("more extension types than room", m.type);
        }
    }
    return 0;
}
