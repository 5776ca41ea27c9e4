// Cause texts, NSSAI items, multiple-payload entries and the readable account of a decoded message.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "mv_byteio.h"
#include "mv_naspdu_desc.h"

namespace {

struct CauseText {
    int value;
    const char* text;
};

constexpr CauseText k5GMMCauses[] = {
    {3, "Illegal_UE"},
    {5, "PEI_Not_accepted"},
    {6, "Illegal_ME"},
    {7, "5GS_services_not_allowed"},
    {9, "UE_identity_cannot_be_derived_by_the_network"},
    {10, "Implicitly_de_registered"},
    {11, "PLMN_not_allowed"},
    {12, "Tracking_area_not_allowed"},
    {13, "Roaming_not_allowed_in_this_tracking_area"},
    {15, "No_suitable_cells_in_tracking_area"},
    {20, "MAC_failure"},
    {21, "Synch_failure"},
    {22, "Congestion"},
    {23, "UE_security_capabilities_mismatch"},
    {24, "Security_mode_rejected_unspecified"},
    {26, "Non_5G_authentication_unacceptable"},
    {27, "N1_mode_not_allowed"},
    {28, "Restricted_service_area"},
    {43, "LADN_not_available"},
    {65, "Maximum_number_of_PDU_sessions_reached"},
    {67, "Insufficient_resources_for_specific_slice_and_DNN"},
    {69, "Insufficient_resources_for_specific_slice"},
    {71, "ngKSI_already_in_use"},
    {72, "Non_3GPP_access_to_5GCN_not_allowed"},
    {73, "Serving_network_not_authorized"},
    {90, "Payload_was_not_forwarded"},
    {91, "DNN_not_supported_or_not_subscribed_in_the_slice"},
    {92, "Insufficient_user_plane_resources_for_the_PDU_sessions"},
    {95, "Semantically_incorrect_message"},
    {96, "Invalid_mandatory_information"},
    {97, "Message_type_non_existent_or_not_implemented"},
    {98, "Message type not compatible with the protocol state"},
    {99, "Information element non existent or not implemented"},
    {100, "Conditional IE error"},
    {101, "Message not compatible with the protocol state"},
    {111, "Protocol error unspecified"},
};

constexpr CauseText k5GSMCauses[] = {
    {8, "Operator_determined_barring"},
    {26, "Insufficient_resources"},
    {27, "Missing_or_unknown_DNN"},
    {28, "Unknown_PDU_session_type"},
    {29, "User_authentication_or_authorization_failed"},
    {31, "Request_rejected__unspecified"},
    {32, "Service_option_not_supported"},
    {33, "Requested_service_option_not_subscribed"},
    {34, "Service_option_temporarily_out_of_order"},
    {35, "PTI_already_in_use"},
    {36, "Regular_deactivation"},
    {38, "Network_failure"},
    {39, "Reactivation_requested"},
    {43, "Invalid_PDU_session_identity"},
    {44, "Semantic_errors_in_packet_filters"},
    {45, "Syntactical_error_in_packet_filters"},
    {46, "Out_of_LADN_service_area"},
    {47, "PTI_mismatch"},
    {50, "PDU_session_type_IPv4_only_allowed"},
    {51, "PDU_session_type_IPv6_only_allowed"},
    {54, "PDU_session_does_not_exist"},
    {67, "Insufficient_resources_for_specific_slice_and_DNN"},
    {68, "Not_supported_SSC_mode"},
    {69, "Insufficient_resources_for_specific_slice"},
    {70, "Missing_or_unknown_DNN_in_a_slice"},
    {81, "Invalid_PTI_value"},
    {82, "Maximum_data_rate_per_UE_for_user_plane_integrity_protection_is_too_low"},
    {83, "Semantic_error_in_the_QoS_operation"},
    {84, "Syntactical_error_in_the_QoS_operation"},
    {85, "Invalid_mapped_EPS_bearer_identity"},
    {95, "Semantically_incorrect_message"},
    {96, "Invalid_mandatory_information"},
    {97, "Message_type_non_existent_or_not_implemented"},
    {98, "Message_type_not_compatible_with_the_protocol_state"},
    {99, "Information_element_non_existent_or_not_implemented"},
    {100, "Conditional_IE_error"},
    {101, "Message_not_compatible_with_the_protocol_state"},
    {111, "Protocol_error__unspecified"},
};

template <size_t N>
const char* lookup(const CauseText (&table)[N], int value) {
    for (const CauseText& c : table)
        if (c.value == value) return c.text;
    return "";
}

}  // namespace

const char* __mv_naspdu_get5GMMCause(int value) { return lookup(k5GMMCauses, value); }
const char* __mv_naspdu_get5GSMCause(int value) { return lookup(k5GSMCauses, value); }

// ---------------------------------------------------------------- NSSAI and payload entries

int __mv_naspdu_addSNSSAI(__naspdu_nssai* nssai, uint8_t sst, const uint8_t* sd, const uint8_t* mappedSst,
                          const uint8_t* mappedSd) {
    if (!nssai || nssai->Length >= 245) return 0;
    uint8_t item[9];
    uint8_t n = 0;
    item[++n] = sst;
    if (sd) {
        memcpy(item + n + 1, sd, 3);
        n += 3;
    }
    if (mappedSst) item[++n] = *mappedSst;
    if (sd && mappedSst && mappedSd) {
        memcpy(item + n + 1, mappedSd, 3);
        n += 3;
    }
    item[0] = n;
    memcpy(nssai->data + nssai->Length, item, size_t(n) + 1);
    nssai->Length = uint8_t(nssai->Length + n + 1);
    nssai->isset = 1;
    return 1;
}

int __mv_naspdu_getSNSSAI(const uint8_t* data, uint32_t len, __naspdu_snssai_item* items, int maxItems) {
    ByteReader r(data, data ? len : 0);
    int count = 0;
    uint8_t n;
    while (count < maxItems && r.u8(n)) {
        if (n != 1 && n != 2 && n != 4 && n != 5 && n != 8) return -1;
        ByteReader v;
        if (!r.sub(n, v)) return -ENOENT;
        __naspdu_snssai_item& it = items[count++];
        memset(&it, 0, sizeof it);
        // The item's length says which fields follow the SST, in this order.
        bool ok = v.u8(it.sst);
        if (n >= 4) {
            it.sd_isset = 1;
            ok = ok && v.bytes(it.sd, 3);
        }
        if (n == 2 || n == 5 || n == 8) {
            it.mappedSst_isset = 1;
            ok = ok && v.u8(it.mappedSst);
        }
        if (n == 8) {
            it.mappedSd_isset = 1;
            ok = ok && v.bytes(it.mappedSd, 3);
        }
        if (!ok) return -ENOENT;
    }
    return count;
}

int __mv_naspdu_addPayload(uint8_t type, uint16_t len, const uint8_t* data, __naspdu_payload_container* c) {
    if (!c) return 0;
    uint32_t used = c->Length ? c->Length : 1;  // the count octet
    if (used + 3u + len > sizeof c->data || (c->Length && c->data[0] == 255)) return 0;
    if (!c->Length) c->data[0] = 0;
    uint16_t entryLen = uint16_t(len + 3);
    c->data[used] = uint8_t(entryLen >> 8);
    c->data[used + 1] = uint8_t(entryLen);
    c->data[used + 2] = type & 0x0F;
    if (len) memcpy(c->data + used + 3, data, len);
    c->data[0]++;
    c->Length = uint16_t(used + 3u + len);
    c->isset = 1;
    return 1;
}

// ---------------------------------------------------------------- readable account

namespace {

void appendf(std::string& out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string& out, const char* fmt, ...) {
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    out.append(line, n < 0 ? 0 : size_t(n) < sizeof line ? size_t(n) : sizeof line - 1);
}

void hex(std::string& out, const uint8_t* p, uint32_t n) {
    static const char digits[] = "0123456789abcdef";
    for (uint32_t i = 0; i < n; i++) {
        out += digits[p[i] >> 4];
        out += digits[p[i] & 15];
    }
}

// The value of a taken element as JSON: a number for one-octet values, hexadecimal text otherwise.
void value(std::string& out, const NasElem* e, const uint8_t* p, bool json) {
    const NasIeType* t = e->type;
    if (t->fmt == NAS_F_RAW8) {
        appendf(out, "%u", p[0]);
        return;
    }
    if (t->fmt == NAS_F_HALF || (t->cap == 1 && t->kind == NAS_K_PLAIN)) {
        appendf(out, "%u", t->fmt == NAS_F_HALF ? p[1] : p[2]);
        return;
    }
    const char* q = json ? "\"" : "";
    if (t->kind == NAS_K_AMBR) {
        const auto* a = reinterpret_cast<const __naspdu_session_ambr*>(p);
        appendf(out, json ? "{\"downlinkUnit\":%u,\"downlink\":%u,\"uplinkUnit\":%u,\"uplink\":%u}"
                          : "downlink unit %u rate %u, uplink unit %u rate %u",
                a->DownlinkUnit, a->Downlink, a->UplinkUnit, a->Uplink);
        return;
    }
    if (t->kind == NAS_K_PDUADDR) {
        const auto* a = reinterpret_cast<const __naspdu_pdu_address*>(p);
        appendf(out, json ? "{\"type\":%u,\"address\":\"" : "type %u, address ", a->PDUSessionType);
        hex(out, a->data, a->Length ? a->Length - 1u : 0);
        out += json ? "\"}" : "";
        return;
    }
    uint32_t len = t->wide ? uint32_t(p[1] | p[2] << 8) : p[1];
    if (t->fmt == NAS_F_V) len = t->n;
    if (t->kind == NAS_K_FGMMCAP) len++;
    if (len > t->cap) len = t->cap;
    out += q;
    hex(out, p + (t->wide ? 3 : 2), len);
    out += q;
}

bool taken(const NasElem* e, const uint8_t* p) {
    if (!(e->flags & NAS_EL_READ) || !e->off) return false;
    if (e->type->fmt == NAS_F_RAW8) return true;
    return p[e->type->fmt == NAS_F_HALF ? 2 : e->type->size - 1] == 1;
}

}  // namespace

void __mv_naspdu_describe(const __naspduDecode* d, std::string& out, bool json) {
    const NasMsgDesc* m = d->messageObj ? __mv_naspdu_find_message(d->ProtocolDiscriminator, uint8_t(d->MessageType)) : nullptr;
    const auto* r = static_cast<const uint8_t*>(d->messageObj);
    const char* family = "";
    for (const NasFamily& f : kNasFamilies)
        if (f.discriminator == d->ProtocolDiscriminator) family = f.name;
    // A session management message has no security header type of its own.
    bool mm = d->ProtocolDiscriminator == MV_5GS_MM_EPD || d->ProtocolDiscriminator == MV_EPS_MM_PD;
    unsigned sht = mm ? d->SecurityHeaderType : 0;
    if (json) {
        appendf(out, "{\"family\":\"%s\",\"message\":\"%s\",\"type\":%d,\"securityHeaderType\":%u,", family,
                m ? m->name : "", d->MessageType, sht);
        appendf(out, "\"mandatoryDecoded\":%u,\"status\":%d,\"pos\":%d,\"length\":%d,", d->iMandatoryDecoded,
                d->iStatus, d->pos, d->length);
        appendf(out, "\"lastElementId\":\"%02x\",\"refusedElementId\":\"%02x\",\"ies\":{", d->iLastElementId,
                d->iUnSuccessfulElementId);
    } else {
        appendf(out, "%s %s (type %d), security header type %u\n", family, m ? m->name : "?", d->MessageType, sht);
        appendf(out, "  mandatory part %s, status %d, read %d of %d octets", d->iMandatoryDecoded ? "read" : "NOT read",
                d->iStatus, d->pos, d->length);
        if (d->iStatus == NAS_DECODE_IE_NOT_TAKEN) appendf(out, ", stopped at IE %02X", d->iUnSuccessfulElementId);
        if (d->iStatus == NAS_DECODE_ENDED_INSIDE_IE) appendf(out, ", ends inside an IE (check %u)", d->errorLineNo);
        if (d->iStatus == NAS_DECODE_IE_TOO_LARGE) appendf(out, ", an IE too large for its record (check %u)", d->errorLineNo);
        out += "\n";
    }
    if (!m || !r) {
        if (json) out += "}}";
        return;
    }
    bool first = true;
    if (m->discriminator == MV_5GS_SM_EPD) {
        const auto* h = reinterpret_cast<const __naspduFGHeader*>(r + sizeof(__naspduFGSecurityHeader));
        if (json) {
            appendf(out, "\"pduSessionId\":%u,\"pti\":%u", h->PDUSessionId, h->ProcedureTransactionIdentity);
            first = false;
        } else {
            appendf(out, "  PDU session id %u, PTI %u\n", h->PDUSessionId, h->ProcedureTransactionIdentity);
        }
    } else if (m->discriminator == MV_EPS_SM_PD) {
        const auto* h = reinterpret_cast<const __naspduHeader*>(r + sizeof(__naspduFGSecurityHeader));
        if (json) {
            appendf(out, "\"epsBearerIdentity\":%u,\"pti\":%u", h->ProtocolDiscriminator >> 4,
                    h->ProcedureTransactionIdentity);
            first = false;
        } else {
            appendf(out, "  EPS bearer identity %u, PTI %u\n", h->ProtocolDiscriminator >> 4,
                    h->ProcedureTransactionIdentity);
        }
    }
    for (uint16_t i = 0; i < m->nElems; i++) {
        const NasElem* e = &m->elems[i];
        const uint8_t* p = r + e->off;
        if (!taken(e, p)) continue;
        if (json) {
            appendf(out, "%s\"%s\":", first ? "" : ",", e->name);
            value(out, e, p, true);
            first = false;
        } else {
            if (e->iei)
                appendf(out, e->type->fmt == NAS_F_HALF ? "  %-40s %X- " : "  %-40s %02X ", e->name, e->iei);
            else
                appendf(out, "  %-40s    ", e->name);
            value(out, e, p, false);
            out += "\n";
        }
    }
    if (json) out += "}}";
}
