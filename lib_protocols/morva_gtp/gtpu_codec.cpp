#include "gtpu_codec.h"

#include <cstring>

#include "gtpu_wire.h"
#include "tlv_bytes.h"

using gtpu_wire::put16;
using gtpu_wire::put32;

namespace {

// flags, type, length (all behind the first 8 octets), TEID
size_t putHeader(uint8_t* p, uint8_t flags, uint8_t type, size_t length, uint32_t teid) {
    p[0] = GTPU_FLAGS_V1 | flags;
    p[1] = type;
    put16(p + 2, uint16_t(length));
    put32(p + 4, teid);
    return GTPU_HEADER_LEN;
}

// One header form of the test steps: the flags, the octets from the N-PDU number's successor on,
// and whether the sequence is written.
struct Form {
    uint8_t flags;
    uint8_t len;         // whole header
    uint8_t extLen;      // octets from offset 11
    uint8_t ext[13];
    bool writesSeq;
};
constexpr Form kForms[] = {
    {0, 8, 0, {}, false},
    {GTPU_FLAG_S | GTPU_FLAG_E, 16, 5, {0x85, 0x01, 0x10, 0x01, 0x00}, true},
    {GTPU_FLAG_E, 20, 9, {0x85, 0x01, 0x10, 0x01, 0x85, 0x01, 0x10, 0x01, 0x00}, false},
    {GTPU_FLAG_S | GTPU_FLAG_E, 20, 9, {0x85, 0x01, 0x10, 0x01, 0x85, 0x01, 0x10, 0x01, 0x00}, true},
    {GTPU_FLAG_S | GTPU_FLAG_E, 20, 9, {0x85, 0x02, 0x10, 0x01, 0x85, 0x01, 0x10, 0x01, 0x00}, false},
    {GTPU_FLAG_S | GTPU_FLAG_E, 24, 13, {0x85, 0x02, 0x10, 0x01, 0x85, 0x01, 0x10, 0x01, 0x85, 0x01, 0x10, 0x01, 0x00},
     false},
};
static_assert(sizeof kForms / sizeof kForms[0] == 6);

}  // namespace

size_t gtpu_build_tpdu_header(std::span<uint8_t> out, const gtpu_tpdu_hdr& h, size_t payloadLen) {
    const uint8_t flags = h.flags & (GTPU_FLAG_S | GTPU_FLAG_E);
    const size_t len = (flags & GTPU_FLAG_E) ? 16 : flags ? 12 : 8;
    if (out.size() < len || payloadLen + len - GTPU_HEADER_LEN > 0xFFFF) return 0;
    uint8_t* p = out.data();
    putHeader(p, flags, GTPU_TPDU, payloadLen + len - GTPU_HEADER_LEN, h.teid);
    if (len == 8) return len;
    put16(p + 8, h.seq);
    p[10] = 0;
    p[11] = GTPU_EXT_NONE;
    if (len == 12) return len;
    p[11] = GTPU_EXT_PDU_SESSION_CONTAINER;
    p[12] = 1;  // in four-octet words
    if (h.pduType == GTPU_PDU_TYPE_UL) {
        p[13] = GTPU_PDU_TYPE_UL << 4;
        p[14] = h.qfi & 0x3F;
    } else {
        p[13] = GTPU_PDU_TYPE_DL << 4;
        p[14] = uint8_t((h.rqi ? 0x40 : 0) | (h.qfi & 0x3F));
    }
    p[15] = GTPU_EXT_NONE;
    return len;
}

size_t gtpu_build_form_header(std::span<uint8_t> out, int gtpType, uint32_t teid, uint16_t seq, size_t payloadLen) {
    if (gtpType < 1 || gtpType > 6) return 0;
    const Form& f = kForms[gtpType - 1];
    if (out.size() < f.len || payloadLen + f.len - GTPU_HEADER_LEN > 0xFFFF) return 0;
    uint8_t* p = out.data();
    putHeader(p, f.flags, GTPU_TPDU, payloadLen + f.len - GTPU_HEADER_LEN, teid);
    if (f.len == GTPU_HEADER_LEN) return f.len;
    put16(p + 8, f.writesSeq ? (seq ? seq : uint16_t(payloadLen)) : 0);
    p[10] = 0;
    memcpy(p + 11, f.ext, f.extLen);
    return f.len;
}

size_t gtpu_build_echo_request(std::span<uint8_t> out, uint16_t seq) {
    if (out.size() < 12) return 0;
    uint8_t* p = out.data();
    putHeader(p, GTPU_FLAG_S, GTPU_ECHO_REQUEST, GTPU_OPTIONAL_LEN, 0);
    put16(p + 8, seq);
    p[10] = p[11] = 0;
    return 12;
}

size_t gtpu_build_echo_response(std::span<uint8_t> out, uint16_t seq) {
    if (out.size() < 14) return 0;
    uint8_t* p = out.data();
    putHeader(p, GTPU_FLAG_S, GTPU_ECHO_RESPONSE, GTPU_OPTIONAL_LEN + 2, 0);
    put16(p + 8, seq);
    p[10] = p[11] = 0;
    p[12] = GTPU_IE_RECOVERY;
    p[13] = 0;  // a GTP-U restart counter is always 0
    return 14;
}

size_t gtpu_build_end_marker(std::span<uint8_t> out, uint32_t teid) {
    if (out.size() < GTPU_HEADER_LEN) return 0;
    return putHeader(out.data(), 0, GTPU_END_MARKER, 0, teid);
}

size_t gtpu_build_error_indication(std::span<uint8_t> out, uint32_t teid, std::span<const uint8_t> address,
                                   uint16_t udpPort) {
    if (address.size() != 4 && address.size() != 16) return 0;
    const size_t ext = udpPort ? 4 : 0;
    const size_t len = GTPU_HEADER_LEN + GTPU_OPTIONAL_LEN + ext + 5 + 3 + address.size();
    if (out.size() < len) return 0;
    uint8_t* p = out.data();
    putHeader(p, GTPU_FLAG_S | (udpPort ? GTPU_FLAG_E : 0), GTPU_ERROR_INDICATION, len - GTPU_HEADER_LEN, 0);
    put16(p + 8, 0);
    p[10] = 0;
    p[11] = udpPort ? GTPU_EXT_UDP_PORT : GTPU_EXT_NONE;
    uint8_t* q = p + 12;
    if (udpPort) {
        q[0] = 1;
        put16(q + 1, udpPort);
        q[3] = GTPU_EXT_NONE;
        q += 4;
    }
    q[0] = GTPU_IE_TEID_DATA_I;
    put32(q + 1, teid);
    q[5] = GTPU_IE_PEER_ADDRESS;
    put16(q + 6, uint16_t(address.size()));
    memcpy(q + 8, address.data(), address.size());
    return len;
}

// ---------------------------------------------------------------- decoding

namespace {

int refuse(gtpu_rx_error* err, gtpu_rx_error why) {
    if (err) *err = why;
    return -1;
}

// One extension header's content (its length octet and next-type octet left out).
gtpu_rx_error readExtension(uint8_t type, std::span<const uint8_t> c, gtpu_msg_t* m) {
    switch (type) {
        case GTPU_EXT_PDU_SESSION_CONTAINER:
            if (m->hasContainer) return GTPU_RX_OK;  // the first one counts; more are allowed
            m->hasContainer = 1;
            m->pduType = c[0] >> 4;
            m->qfi = c[1] & 0x3F;
            m->rqi = m->pduType == GTPU_PDU_TYPE_DL ? (c[1] >> 6) & 1 : 0;
            return GTPU_RX_OK;
        case GTPU_EXT_UDP_PORT:
            if (c.size() != 2) return GTPU_RX_EXTENSION;
            m->hasUdpPort = 1;
            m->udpPort = uint16_t(c[0] << 8 | c[1]);
            return GTPU_RX_OK;
        default:
            return (type & 0x80) ? GTPU_RX_EXTENSION_UNSUPPORTED : GTPU_RX_OK;
    }
}

}  // namespace

int gtpu_decode(std::span<const uint8_t> datagram, gtpu_msg_t* m, gtpu_rx_error* err) {
    *m = gtpu_msg_t{};
    if (err) *err = GTPU_RX_OK;
    tlv::ByteReader rd(datagram);
    if (!rd.u8(m->flags)) return refuse(err, GTPU_RX_SHORT);
    if ((m->flags >> 5) != GTPU_VERSION) return refuse(err, GTPU_RX_VERSION);
    if (!(m->flags & 0x10)) return refuse(err, GTPU_RX_PROTOCOL_TYPE);
    if (!rd.u8(m->type) || !rd.u16(m->length) || !rd.u32(m->teid)) return refuse(err, GTPU_RX_SHORT);
    if (m->length != rd.remaining()) return refuse(err, GTPU_RX_LENGTH);
    if (m->flags & (GTPU_FLAG_E | GTPU_FLAG_S | GTPU_FLAG_PN)) {
        uint8_t next = 0;
        if (!rd.u16(m->seq) || !rd.u8(m->npdu) || !rd.u8(next)) return refuse(err, GTPU_RX_SHORT);
        if (!(m->flags & GTPU_FLAG_S)) m->seq = 0;
        if (!(m->flags & GTPU_FLAG_PN)) m->npdu = 0;
        // Without E the next-type octet means nothing.
        while ((m->flags & GTPU_FLAG_E) && next != GTPU_EXT_NONE) {
            uint8_t words = 0, following = 0;
            std::span<const uint8_t> content;
            if (!rd.u8(words) || words == 0 || !rd.bytes(size_t(words) * 4 - 2, content) || !rd.u8(following))
                return refuse(err, GTPU_RX_EXTENSION);
            gtpu_rx_error e = readExtension(next, content, m);
            if (e != GTPU_RX_OK) return refuse(err, e);
            if (m->extCount < 255) ++m->extCount;
            next = following;
        }
    }
    if (!rd.bytes(rd.remaining(), m->payload)) return refuse(err, GTPU_RX_SHORT);
    if (m->type == GTPU_TPDU && m->payload.empty()) return refuse(err, GTPU_RX_LENGTH);
    return 1;
}

int gtpu_decode_ies(std::span<const uint8_t> ies, gtpu_ies_t* out) {
    *out = gtpu_ies_t{};
    tlv::ByteReader rd(ies);
    while (rd.remaining()) {
        uint8_t type = 0;
        if (!rd.u8(type)) return -1;
        size_t len = 0;
        if (type < 128) {  // TV: the type decides the length
            if (type == GTPU_IE_RECOVERY) len = 1;
            else if (type == GTPU_IE_TEID_DATA_I) len = 4;
            else return -1;
        } else if (type == GTPU_IE_EXT_HEADER_TYPE_LIST) {
            uint8_t l8 = 0;
            if (!rd.u8(l8)) return -1;
            len = l8;
        } else {
            uint16_t l16 = 0;
            if (!rd.u16(l16)) return -1;
            len = l16;
        }
        std::span<const uint8_t> v;
        if (!rd.bytes(len, v)) return -1;
        switch (type) {
            case GTPU_IE_RECOVERY:
                out->hasRecovery = 1;
                out->recovery = v[0];
                break;
            case GTPU_IE_TEID_DATA_I:
                out->hasTeidDataI = 1;
                out->teidDataI = gtpu_wire::get32(v.data());
                break;
            case GTPU_IE_PEER_ADDRESS:
                if (len != 4 && len != 16) return -1;
                out->peerAddressLen = uint8_t(len);
                memcpy(out->peerAddress, v.data(), len);
                break;
            case GTPU_IE_EXT_HEADER_TYPE_LIST:
                out->extTypeCount = uint8_t(len < sizeof out->extTypes ? len : sizeof out->extTypes);
                memcpy(out->extTypes, v.data(), out->extTypeCount);
                break;
            default:  // private extensions and newer elements: skipped
                break;
        }
    }
    return 1;
}

const char* gtpu_message_name(uint8_t type) {
    switch (type) {
        case GTPU_ECHO_REQUEST: return "Echo Request";
        case GTPU_ECHO_RESPONSE: return "Echo Response";
        case GTPU_ERROR_INDICATION: return "Error Indication";
        case GTPU_SUPPORTED_EXT_HEADERS_NOTIFICATION: return "Supported Extension Headers Notification";
        case GTPU_END_MARKER: return "End Marker";
        case GTPU_TPDU: return "T-PDU";
        default: return "unknown";
    }
}

const char* gtpu_rx_error_text(gtpu_rx_error err) {
    switch (err) {
        case GTPU_RX_OK: return "ok";
        case GTPU_RX_SHORT: return "truncated header";
        case GTPU_RX_VERSION: return "not version 1";
        case GTPU_RX_PROTOCOL_TYPE: return "protocol type GTP'";
        case GTPU_RX_LENGTH: return "length disagrees with the datagram";
        case GTPU_RX_EXTENSION: return "extension headers do not end inside the message";
        case GTPU_RX_EXTENSION_UNSUPPORTED: return "extension header that must be understood";
        case GTPU_RX_IE: return "bad information element";
        default: return "unknown";
    }
}
