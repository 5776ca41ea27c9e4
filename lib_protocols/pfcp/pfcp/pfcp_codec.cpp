// PFCP header and message coding over the TLV walker.
#include "pfcp_codec.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <utility>

#include "mv_core.h"
#include "tlv_bytes.h"

namespace {

void* body(pfcp_message_t* m) { return &m->pfcp_heartbeat_request; }  // every member starts there
const void* body(const pfcp_message_t* m) { return &m->pfcp_heartbeat_request; }

uint8_t flagsByte(int seidPresence) { return uint8_t(PFCP_VERSION << 5 | (seidPresence ? 1 : 0)); }

}  // namespace

bool pfcp_is_request(uint8_t type) {
    switch (type) {
        case PFCP_HEARTBEAT_REQUEST_TYPE:
        case PFCP_PFD_MANAGEMENT_REQUEST_TYPE:
        case PFCP_ASSOCIATION_SETUP_REQUEST_TYPE:
        case PFCP_ASSOCIATION_UPDATE_REQUEST_TYPE:
        case PFCP_ASSOCIATION_RELEASE_REQUEST_TYPE:
        case PFCP_NODE_REPORT_REQUEST_TYPE:
        case PFCP_SESSION_SET_DELETION_REQUEST_TYPE:
        case PFCP_SESSION_ESTABLISHMENT_REQUEST_TYPE:
        case PFCP_SESSION_MODIFICATION_REQUEST_TYPE:
        case PFCP_SESSION_DELETION_REQUEST_TYPE:
        case PFCP_SESSION_REPORT_REQUEST_TYPE: return true;
        default: return false;
    }
}

const char* pfcp_message_name(uint8_t type) {
    const tlv_desc_t* d = pfcp_find_msg_desc(type);
    return d ? d->name : "unknown";
}

int pfcp_encode_record(uint8_t type, const void* record, int seid_presence, uint64_t seid, uint32_t sqn,
                       std::span<uint8_t> out, tlv_result_t* res) {
    tlv_result_t local{};
    tlv_result_t& r = res ? *res : local;
    r = tlv_result_t{};
    const tlv_desc_t* desc = record ? pfcp_find_msg_desc(type) : nullptr;
    if (!desc) {
        r.error = TLV_ERR_BAD_MODE;
        return -1;
    }
    size_t hlen = seid_presence ? PFCP_HEADER_LEN : PFCP_NODE_HEADER_LEN;
    if (out.size() < hlen) {
        r.error = TLV_ERR_NO_ROOM;
        return -1;
    }
    int n = tlv_encode(desc, record, TLV_MODE_T2_L2, out.subspan(hlen), &r);
    if (n < 0) return -1;
    size_t total = hlen + size_t(n);
    if (total - 4 > 0xFFFF) {
        r.error = TLV_ERR_TOO_LONG;
        return -1;
    }
    tlv::ByteWriter w(out.first(hlen));
    bool ok = w.u8(flagsByte(seid_presence)) && w.u8(type) && w.u16(uint16_t(total - 4)) &&
              (!seid_presence || w.u64(seid)) && w.u24(sqn & 0xFFFFFF) && w.u8(0);
    return ok ? int(total) : -1;
}

int pfcp_encode_message(const pfcp_message_t* msg, std::span<uint8_t> out, tlv_result_t* res) {
    if (!msg) return pfcp_encode_record(0, nullptr, 0, 0, 0, out, res);
    return pfcp_encode_record(msg->h.type, body(msg), msg->h.flags.seid_presence, msg->h.seid, msg->h.sqn, out, res);
}

int pfcp_decode_datagram(std::span<const uint8_t> datagram, pfcp_message_t* msg, pfcp_rx_result_t* res) {
    pfcp_rx_result_t local{};
    pfcp_rx_result_t& r = res ? *res : local;
    r = pfcp_rx_result_t{};
    tlv::ByteReader rd(datagram);
    uint8_t flags = 0, spare = 0;
    uint16_t length = 0;
    if (!rd.u8(flags)) {
        r.error = PFCP_RX_SHORT;
        return -1;
    }
    r.version = flags >> 5;
    if (r.version != PFCP_VERSION) {
        r.error = PFCP_RX_VERSION;
        return -1;
    }
    bool s = flags & 1;
    r.received = uint32_t(datagram.size() >= 4 ? datagram.size() - 4 : 0);
    uint64_t seid = 0;
    uint32_t sqn = 0;
    if (!rd.u8(r.type) || !rd.u16(length)) {
        r.error = PFCP_RX_SHORT;
        return -1;
    }
    r.length = length;
    if (length != r.received) {
        r.error = PFCP_RX_LENGTH;
        return -1;
    }
    if ((s && !rd.u64(seid)) || !rd.u24(sqn) || !rd.u8(spare)) {
        r.error = PFCP_RX_SHORT;
        return -1;
    }
    if (r.type < 1 || r.type > 57) {
        r.error = PFCP_RX_TYPE;
        return -1;
    }
    msg->h = pfcp_header_t{};
    msg->h.flags.version = PFCP_VERSION;
    msg->h.flags.mp = (flags >> 1) & 1;
    msg->h.flags.seid_presence = s;
    msg->h.type = r.type;
    msg->h.length = length;
    msg->h.seid = seid;
    msg->h.sqn = sqn;
    const tlv_desc_t* desc = pfcp_find_msg_desc(r.type);
    if (!desc) {
        r.error = PFCP_RX_UNKNOWN;
        return 0;
    }
    memset(body(msg), 0, desc->vsize);
    if (tlv_decode(desc, body(msg), TLV_MODE_T2_L2, datagram.subspan(rd.pos()), &r.tlv) != 1) {
        r.error = PFCP_RX_BODY;
        return -1;
    }
    return 1;
}

int pfcp_format_rx_error(const pfcp_rx_result_t* r, char* buf, size_t size) {
    if (!r || !buf || !size) return 0;
    switch (r->error) {
        case PFCP_RX_OK: return snprintf(buf, size, "no error");
        case PFCP_RX_SHORT: return snprintf(buf, size, "received pfcp datagram shorter than its header");
        case PFCP_RX_VERSION: return snprintf(buf, size, "received unsupported pfcp version=%u", r->version);
        case PFCP_RX_LENGTH:
            return snprintf(buf, size, "received invalid pfcp length expected=%u received=%u (after -4)", r->length,
                            r->received);
        case PFCP_RX_TYPE:
        case PFCP_RX_UNKNOWN: return snprintf(buf, size, "received invalid msg-type=%u", r->type);
        case PFCP_RX_BODY: {
            char why[200];
            tlv_format_error(&r->tlv, why, sizeof why);
            return snprintf(buf, size, "pfcp-message decodeding failed (%s: %s)", pfcp_message_name(r->type), why);
        }
    }
    return 0;
}

__mv_buff_t* pfcp_tlv_build_msg(const tlv_desc_t* desc, const void* msg, int mode) {
    // Most messages fit a small scratch area: one walk and a copy. A larger one is sized first.
    uint8_t scratch[4096];
    tlv_result_t r;
    int n = tlv_encode(desc, msg, mode, scratch, &r);
    bool sized = n < 0 && r.error == TLV_ERR_NO_ROOM;
    if (sized) n = tlv_encoded_size(desc, msg, mode);
    if (n < 0) return nullptr;
    __mv_buff_t* b = __mv_buff__alloc(uint32_t(n) + TLV_MAX_HEADROOM);
    if (!b) return nullptr;
    __mv_buff__reserve(b, TLV_MAX_HEADROOM);
    if (!sized) {
        memcpy(b->data, scratch, size_t(n));
    } else if (tlv_encode(desc, msg, mode, std::span<uint8_t>(b->data, size_t(n))) != n) {
        __mv_buff__free(b);
        return nullptr;
    }
    b->len = uint32_t(n);
    b->pos = uint32_t(n);
    return b;
}

__mv_buff_t* pfcp_build_msg(const pfcp_message_t* pfcp_message) {
    const tlv_desc_t* desc = pfcp_message ? pfcp_find_msg_desc(pfcp_message->h.type) : nullptr;
    if (!desc) {
        __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_ERROR, "Not implmeneted(type:%d) %s|%s|%d",
                 pfcp_message ? pfcp_message->h.type : -1, __FILE_NAME__, __func__, __LINE__);
        return nullptr;
    }
    return pfcp_tlv_build_msg(desc, body(pfcp_message), TLV_MODE_T2_L2);
}

__mv_buff_t* pfcp_build__pfcp_association_setup_request(const pfcp_association_setup_request_t* msg) {
    return pfcp_tlv_build_msg(&pfcp_msg_desc_association_setup_request, msg, TLV_MODE_T2_L2);
}

int tlv_parse_msg(void* msg, const tlv_desc_t* desc, __mv_buff_t* pmsg, int mode, tlv_result_t* res) {
    if (!pmsg) return -1;
    return tlv_decode(desc, msg, mode, std::span<const uint8_t>(pmsg->data, pmsg->len), res);
}

int pfcp_parse_msg(pfcp_message_t* pfcp_message, __mv_buff_t* pmsg, tlv_result_t* res) {
    const tlv_desc_t* desc = pfcp_message ? pfcp_find_msg_desc(pfcp_message->h.type) : nullptr;
    if (!desc) return 0;
    memset(body(pfcp_message), 0, desc->vsize);
    return tlv_parse_msg(body(pfcp_message), desc, pmsg, TLV_MODE_T2_L2, res);
}

void pfcp__set_request_header(__mv_buff_t* pmsg, uint8_t type, uint32_t seqNo, int seid_presence, uint64_t seid) {
    size_t hlen = seid_presence ? PFCP_HEADER_LEN : PFCP_NODE_HEADER_LEN;
    if (!pmsg || pmsg->len < hlen) return;
    tlv::ByteWriter w(std::span<uint8_t>(pmsg->data, hlen));
    bool ok = w.u8(flagsByte(seid_presence)) && w.u8(type) && w.u16(uint16_t(pmsg->len - 4)) &&
              (!seid_presence || w.u64(seid)) && w.u24(seqNo & 0xFFFFFF) && w.u8(0);
    (void)ok;  // the room was checked above
}

// ---------------------------------------------------------------- element bodies

namespace {
int put(uint8_t* out, size_t n, std::initializer_list<std::pair<uint64_t, int>> fields) {
    tlv::ByteWriter w(std::span<uint8_t>(out, n));
    for (auto [v, width] : fields) {
        bool ok = width == 1 ? w.u8(uint8_t(v)) : width == 2 ? w.u16(uint16_t(v)) : width == 4 ? w.u32(uint32_t(v))
                : width == 5 ? w.u8(uint8_t(v >> 32)) && w.u32(uint32_t(v)) : w.u64(v);
        if (!ok) return -1;
    }
    return int(w.pos());
}
}  // namespace

int pfcp_node_id_ipv4(uint8_t out[5], uint32_t ipv4) { return put(out, 5, {{PFCP_NODE_ID_IPV4, 1}, {ipv4, 4}}); }
int pfcp_f_seid_ipv4(uint8_t out[13], uint64_t seid, uint32_t ipv4) { return put(out, 13, {{0x02, 1}, {seid, 8}, {ipv4, 4}}); }
int pfcp_f_teid_ipv4(uint8_t out[9], uint32_t teid, uint32_t ipv4) { return put(out, 9, {{0x01, 1}, {teid, 4}, {ipv4, 4}}); }
int pfcp_ue_ip_address_ipv4(uint8_t out[5], uint8_t flags, uint32_t ipv4) { return put(out, 5, {{flags, 1}, {ipv4, 4}}); }
int pfcp_outer_header_creation_gtpu_ipv4(uint8_t out[10], uint32_t teid, uint32_t ipv4) {
    return put(out, 10, {{PFCP_OUTER_HEADER_CREATION_GTPU_UDP_IPV4, 2}, {teid, 4}, {ipv4, 4}});
}
int pfcp_bitrate(uint8_t out[PFCP_BITRATE_LEN], uint64_t ul, uint64_t dl) {
    return put(out, PFCP_BITRATE_LEN, {{ul & 0xFFFFFFFFFFull, 5}, {dl & 0xFFFFFFFFFFull, 5}});
}
int pfcp_volume_quota_total(uint8_t out[9], uint64_t total) { return put(out, 9, {{0x01, 1}, {total, 8}}); }

bool pfcp_read_f_seid(const tlv_octet_t& ie, uint64_t& seid, uint32_t& ipv4) {
    tlv::ByteReader rd(std::span<const uint8_t>(ie.data, ie.data ? ie.len : 0));
    uint8_t flags = 0;
    ipv4 = 0;
    if (!rd.u8(flags) || !rd.u64(seid)) return false;
    return !(flags & 0x02) || rd.u32(ipv4);
}

bool pfcp_read_node_id_ipv4(const tlv_octet_t& ie, uint32_t& ipv4) {
    tlv::ByteReader rd(std::span<const uint8_t>(ie.data, ie.data ? ie.len : 0));
    uint8_t type = 0;
    return rd.u8(type) && (type & 0x0F) == PFCP_NODE_ID_IPV4 && rd.u32(ipv4);
}
