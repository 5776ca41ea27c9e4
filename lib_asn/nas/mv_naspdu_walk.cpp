// The one NAS encoder and the one NAS decoder: both walk a message's element table. Reading goes
// through the cursor and tests the octets left before every read, so no input reads past `length`.
#include <climits>
#include <cstring>

#include "mv_core.h"
#include "mv_naspdu_desc.h"

namespace {

constexpr size_t kSecHdr = sizeof(__naspduFGSecurityHeader);

bool isFG(uint8_t discriminator) { return discriminator == MV_5GS_MM_EPD || discriminator == MV_5GS_SM_EPD; }

// Offset of the value octets in a record of the plain shapes.
uint32_t dataOff(const NasIeType* t) { return t->wide ? 3 : 2; }

uint32_t getLength(const NasIeType* t, const uint8_t* p) {
    if (!t->wide) return p[1];
    uint16_t v;
    memcpy(&v, p + 1, 2);
    return v;
}

void setLength(const NasIeType* t, uint8_t* p, uint32_t v) {
    if (!t->wide) {
        p[1] = uint8_t(v);
        return;
    }
    uint16_t w = uint16_t(v);
    memcpy(p + 1, &w, 2);
}

int put(uint8_t b, __mv_asn_coding_context* c) { return __mv_asn_add_byte(b, c) < 1 ? -1 : 0; }
int putN(const uint8_t* p, uint32_t n, __mv_asn_coding_context* c) { return __mv_asn_add_bytes(p, int(n), 0, c) < 1 ? -1 : 0; }

int fail(__naspduDecode* d, int status, uint32_t line) {
    d->iStatus = status;
    d->errorLineNo = line;
    return -1;
}

int remaining(const __naspduDecode* d) { return d->length - d->pos; }

// Reads the length octets of an LV or LV-E IE and checks that its value is there.
int readLength(const NasIeType* t, __naspduDecode* d, uint32_t* len) {
    int w = t->fmt == NAS_F_LVE ? 2 : 1;
    if (remaining(d) < w) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
    const uint8_t* b = d->buffer + d->pos;
    *len = w == 2 ? uint32_t(b[0] << 8 | b[1]) : b[0];
    d->pos += w;
    if (uint32_t(remaining(d)) < *len) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
    return 1;
}

// An IE longer than its member: a mandatory one fails the message, an optional one is stepped over.
int tooLarge(const NasIeType* t, uint8_t iei, uint32_t len, bool mandatory, __naspduDecode* d) {
    if (mandatory) {
        __mv_asn_log(MV_LOG_WARNING, "NAS IE %s of %u octets is longer than its record holds (%u) (%s|%s|%d)",
                     t->name, len, t->cap, __FILE_NAME__, __func__, __LINE__);
        return fail(d, NAS_DECODE_IE_TOO_LARGE, __LINE__);
    }
    __mv_asn_log(MV_LOG_WARNING, "NAS IE %02X (%s) of %u octets is longer than its record holds (%u), skipped (%s|%s|%d)",
                 iei, t->name, len, t->cap, __FILE_NAME__, __func__, __LINE__);
    d->pos += int(len);
    return 0;
}

// Steps over an IE of a known type whose identifier was taken.
int skipIe(const NasIeType* t, __naspduDecode* d) {
    uint32_t len = 0;
    switch (t->fmt) {
        case NAS_F_HALF: return 1;
        case NAS_F_RAW8:
        case NAS_F_V:
            if (remaining(d) < t->n) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
            d->pos += t->n;
            return 1;
        default:
            if (readLength(t, d, &len) < 0) return -1;
            d->pos += int(len);
            return 1;
    }
}

// Steps over an IE the message does not know, by the identifier's form (TS 24.007 11.2.4): a high bit
// makes it one octet, 0111 in the high nibble a TLV-E, anything else a TLV.
int skipUnknown(uint8_t iei, __naspduDecode* d) {
    if (iei & 0x80) return 1;
    static const NasIeType tlv = {"TLV", NAS_F_LV, NAS_K_PLAIN, 0, 0, 0, 0};
    static const NasIeType tlve = {"TLV-E", NAS_F_LVE, NAS_K_PLAIN, 0, 0, 0, 1};
    return skipIe((iei & 0xF0) == 0x70 ? &tlve : &tlv, d);
}

const NasElem* findOptional(const NasMsgDesc* m, uint8_t b) {
    bool half = b & 0x80;
    for (uint16_t i = 0; i < m->nElems; i++) {
        const NasElem* e = &m->elems[i];
        if ((e->flags & NAS_EL_MAND) || !(e->flags & (NAS_EL_READ | NAS_EL_SKIP))) continue;
        if (half ? (e->type->fmt == NAS_F_HALF && e->iei == (b >> 4)) : (e->type->fmt != NAS_F_HALF && e->iei == b))
            return e;
    }
    return nullptr;
}

const char* familyName(uint8_t discriminator) {
    switch (discriminator) {
        case MV_5GS_MM_EPD: return "5GMM";
        case MV_5GS_SM_EPD: return "5GSM";
        case MV_EPS_MM_PD: return "EMM";
        default: return "ESM";
    }
}

void logFailure(const NasMsgDesc* m, const __naspduDecode* d) {
    __mv_asn_log(MV_LOG_WARNING,
                 "NAS %s %s: %s at octet %d of %d, mandatory part %s, last IE %02X (check %u) (%s|%s|%d)",
                 familyName(m->discriminator), m->name,
                 d->iStatus == NAS_DECODE_IE_TOO_LARGE ? "an IE longer than its record" : "the message ends inside an IE",
                 d->pos, d->length, d->iMandatoryDecoded ? "read" : "not read", d->iLastElementId, d->errorLineNo,
                 __FILE_NAME__, __func__, __LINE__);
}

}  // namespace

// ---------------------------------------------------------------- IEs

int __mv_naspdu_encode_ie(const NasIeType* t, uint8_t iei, const void* ie, __mv_asn_coding_context* c) {
    const auto* p = static_cast<const uint8_t*>(ie);
    if (t->fmt == NAS_F_RAW8) return put(p[0], c);
    if (t->fmt == NAS_F_HALF) {
        if (p[2] != 1) return 0;
        return put(uint8_t((iei & 0x0F) << 4 | (p[1] & 0x0F)), c);
    }
    if (p[t->size - 1] != 1) return 0;
    if (iei && put(iei, c) < 0) return -1;
    const uint8_t* data = p + dataOff(t);
    uint32_t len = getLength(t, p);
    switch (t->kind) {
        case NAS_K_FGMMCAP:
            // Length counts the octets behind the first, so a zeroed record still carries one octet.
            len = (len < t->cap ? len : t->cap - 1u) + 1;
            put(uint8_t(len), c);
            return putN(data, len, c);
        case NAS_K_UESECCAP:
            len = len < 4 ? len : 4;
            put(uint8_t(len), c);
            return putN(data, len, c);
        case NAS_K_PDUADDR: {
            const auto* a = static_cast<const __naspdu_pdu_address*>(ie);
            len = a->Length <= sizeof a->data + 1 ? a->Length : sizeof a->data + 1;
            put(uint8_t(len), c);
            if (len == 0) return 0;
            put(a->PDUSessionType, c);
            return putN(a->data, len - 1, c);
        }
        case NAS_K_AMBR: {
            const auto* a = static_cast<const __naspdu_session_ambr*>(ie);
            uint16_t dl = a->Downlink, ul = a->Uplink;
            const uint8_t v[7] = {6, a->DownlinkUnit, uint8_t(dl >> 8), uint8_t(dl), a->UplinkUnit, uint8_t(ul >> 8), uint8_t(ul)};
            return putN(v, 7, c);
        }
        default: break;
    }
    if (t->fmt == NAS_F_V) return putN(data, t->n, c);
    // A fixed length holds whatever Length says, so the IE keeps the form a peer expects.
    if (t->n) len = t->n;
    if (len > t->cap) len = t->cap;
    if (t->fmt == NAS_F_LVE) put(uint8_t(len >> 8), c);
    put(uint8_t(len), c);
    return putN(data, len, c);
}

int __mv_naspdu_decode_ie(const NasIeType* t, uint8_t iei, void* ie, bool mandatory, __naspduDecode* d) {
    auto* p = static_cast<uint8_t*>(ie);
    const uint8_t* b = d->buffer;
    if (t->fmt == NAS_F_RAW8) {
        if (remaining(d) < 1) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
        p[0] = b[d->pos++];
        return 1;
    }
    if (t->fmt == NAS_F_HALF) {
        p[0] = iei >> 4;
        p[1] = iei & 0x0F;
        p[2] = 1;
        return 1;
    }
    uint8_t* data = p + dataOff(t);
    if (t->fmt == NAS_F_V) {
        if (remaining(d) < t->n) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
        p[0] = mandatory ? 0 : iei;
        setLength(t, p, t->n);
        memcpy(data, b + d->pos, t->n);
        d->pos += t->n;
        p[t->size - 1] = 1;
        return 1;
    }
    uint32_t len = 0;
    if (readLength(t, d, &len) < 0) return -1;
    const uint8_t* v = b + d->pos;
    switch (t->kind) {
        case NAS_K_PDUADDR: {
            auto* a = static_cast<__naspdu_pdu_address*>(ie);
            if (len > sizeof a->data + 1) return tooLarge(t, iei, len, mandatory, d);
            a->Length = uint8_t(len);
            a->PDUSessionType = len ? v[0] : 0;
            if (len > 1) memcpy(a->data, v + 1, len - 1);
            break;
        }
        case NAS_K_AMBR: {
            auto* a = static_cast<__naspdu_session_ambr*>(ie);
            if (len < 6) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
            a->Length = uint8_t(len);
            a->DownlinkUnit = v[0];
            a->Downlink = uint16_t(v[1] << 8 | v[2]);
            a->UplinkUnit = v[3];
            a->Uplink = uint16_t(v[4] << 8 | v[5]);
            break;
        }
        default:
            if (t->cap == 1 && !t->wide) {
                // One-octet values: octets a later release adds behind it are ignored.
                p[1] = uint8_t(len);
                p[2] = len ? v[0] : 0;
                break;
            }
            if (len > t->cap) return tooLarge(t, iei, len, mandatory, d);
            memcpy(data, v, len);
            setLength(t, p, t->kind == NAS_K_FGMMCAP ? (len ? len - 1 : 0) : len);
            break;
    }
    p[0] = mandatory ? 0 : iei;
    p[t->size - 1] = 1;
    d->pos += int(len);
    return 1;
}

// ---------------------------------------------------------------- headers

int __mv_naspdu_encodeFGPlainHeader(const __naspduFGHeader* h, __mv_asn_coding_context* c) {
    put(h->ProtocolDiscriminator, c);
    if (h->ProtocolDiscriminator == MV_5GS_SM_EPD) {
        put(h->PDUSessionId, c);
        put(h->ProcedureTransactionIdentity, c);
    } else {
        put(h->PSIOrSHT, c);
    }
    return put(h->MessageType, c);
}

int __mv_naspdu_decodeFGPlainHeader(__naspduFGHeader* h, __naspduDecode* d) {
    if (remaining(d) < 1) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
    const uint8_t* b = d->buffer + d->pos;
    bool sm = b[0] == MV_5GS_SM_EPD;
    int need = sm ? 4 : 3;
    if (remaining(d) < need) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
    h->ProtocolDiscriminator = b[0];
    h->IsSMMsg = sm;
    if (sm) {
        h->PDUSessionId = b[1];
        h->ProcedureTransactionIdentity = b[2];
        h->ProcedureTransactionIdentity_isset = 1;
    } else {
        h->PSIOrSHT = b[1];
    }
    h->MessageType = b[need - 1];
    d->pos += need;
    return 1;
}

int __mv_naspdu_encodePlainHeader(const __naspduHeader* h, __mv_asn_coding_context* c) {
    put(h->ProtocolDiscriminator, c);
    if ((h->ProtocolDiscriminator & 0x0F) == MV_EPS_SM_PD) put(h->ProcedureTransactionIdentity, c);
    return put(h->MessageType, c);
}

int __mv_naspdu_decodeNASHeader(__naspduHeader* h, __naspduDecode* d) {
    if (remaining(d) < 1) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
    const uint8_t* b = d->buffer + d->pos;
    bool sm = (b[0] & 0x0F) == MV_EPS_SM_PD;
    int need = sm ? 3 : 2;
    if (remaining(d) < need) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
    h->ProtocolDiscriminator = b[0];
    if (sm) {
        h->ProcedureTransactionIdentity = b[1];
        h->ProcedureTransactionIdentity_isset = 1;
    }
    h->MessageType = b[need - 1];
    d->pos += need;
    return 1;
}

int __mv_naspdu_encodeSecurityHeader(const __naspduFGSecurityHeader* h, __mv_asn_coding_context* c) {
    if (h->ProtocolDiscriminator == MV_5GS_MM_EPD) {
        put(MV_5GS_MM_EPD, c);
        put(h->EPSBIOrSHT & 0x0F, c);
    } else {
        put(uint8_t((h->EPSBIOrSHT & 0x0F) << 4 | (h->ProtocolDiscriminator & 0x0F)), c);
    }
    putN(h->MAC, NAS_SECURITY_MAC_SIZE, c);
    return put(h->SequenceNumber, c);
}

int __mv_naspdu_decodeSecurityHeader(__naspduFGSecurityHeader* h, const uint8_t* data, uint32_t len) {
    if (!data || len < 1) return -1;
    // Session management messages travel inside a mobility management message and have no header.
    if (data[0] == MV_5GS_SM_EPD || (data[0] & 0x0F) == MV_EPS_SM_PD) {
        memset(static_cast<void*>(h), 0, sizeof *h);
        return 0;
    }
    int off;
    uint8_t sht;
    if (data[0] == MV_5GS_MM_EPD) {
        if (len < 2) return -1;
        sht = data[1] & 0x0F;
        off = 2;
    } else if ((data[0] & 0x0F) == MV_EPS_MM_PD) {
        sht = data[0] >> 4;
        off = 1;
    } else {
        return -1;
    }
    memset(static_cast<void*>(h), 0, sizeof *h);
    h->ProtocolDiscriminator = data[0] == MV_5GS_MM_EPD ? MV_5GS_MM_EPD : MV_EPS_MM_PD;
    h->EPSBIOrSHT = sht;
    // The EPS service request has a header of its own and no plain message behind it.
    if (sht == NAS_SECURITY_HEADER_PLAIN_NAS_MESSAGE || sht == NAS_SECURITY_HEADER_FOR_SERVICE_REQUEST_MESSAGE)
        return 0;
    if (len < uint32_t(off + NAS_SECURITY_MAC_SIZE + 1)) return -1;
    memcpy(h->MAC, data + off, NAS_SECURITY_MAC_SIZE);
    h->SequenceNumber = data[off + NAS_SECURITY_MAC_SIZE];
    return off + NAS_SECURITY_MAC_SIZE + 1;
}

// ---------------------------------------------------------------- messages

int __mv_naspdu_encode_message(const NasMsgDesc* m, void* record, __mv_asn_coding_context* c) {
    auto* r = static_cast<uint8_t*>(record);
    if (isFG(m->discriminator)) {
        auto* h = reinterpret_cast<__naspduFGHeader*>(r + kSecHdr);
        h->ProtocolDiscriminator = m->discriminator;
        h->IsSMMsg = m->discriminator == MV_5GS_SM_EPD;
        h->MessageType = m->type;
        __mv_naspdu_encodeFGPlainHeader(h, c);
    } else {
        auto* h = reinterpret_cast<__naspduHeader*>(r + kSecHdr);
        h->ProtocolDiscriminator = uint8_t((h->ProtocolDiscriminator & 0xF0) | m->discriminator);
        h->MessageType = m->type;
        __mv_naspdu_encodePlainHeader(h, c);
    }
    for (uint16_t i = 0; i < m->nElems; i++) {
        const NasElem* e = &m->elems[i];
        if (e->flags & NAS_EL_ENC) __mv_naspdu_encode_ie(e->type, e->iei, r + e->off, c);
    }
    return c->iError ? -1 : 0;
}

void __mv_naspdu_initNASPduDecode(int type, void* record, __naspduDecode* d, uint8_t mmType, uint8_t discriminator) {
    d->MessageType = type;
    d->messageObj = record;
    d->MMType = mmType;
    d->ProtocolDiscriminator = discriminator;
}

int __mv_naspdu_decode_message(const NasMsgDesc* m, __naspduDecode* d) {
    bool fg = isFG(m->discriminator);
    auto* r = static_cast<uint8_t*>(__mv_asn_alloc(m->size));
    __mv_naspdu_initNASPduDecode(m->type, r, d, fg ? 5 : 4, m->discriminator);
    d->pos = 0;
    d->iStatus = NAS_DECODE_OK;
    d->iMandatoryDecoded = 0;
    auto* sh = reinterpret_cast<__naspduFGSecurityHeader*>(r);
    sh->ProtocolDiscriminator = fg ? MV_5GS_MM_EPD : MV_EPS_MM_PD;
    sh->EPSBIOrSHT = d->SecurityHeaderType;
    int ok = fg ? __mv_naspdu_decodeFGPlainHeader(reinterpret_cast<__naspduFGHeader*>(r + kSecHdr), d)
                : __mv_naspdu_decodeNASHeader(reinterpret_cast<__naspduHeader*>(r + kSecHdr), d);
    if (ok < 1) {
        logFailure(m, d);
        return 0;
    }
    for (uint16_t i = 0; i < m->nElems; i++) {
        const NasElem* e = &m->elems[i];
        if (!(e->flags & NAS_EL_MAND)) continue;
        // The network's form of the message lacks it: nothing, or an octet no identity length can be.
        if ((e->flags & NAS_EL_UEONLY) && (remaining(d) < 1 || d->buffer[d->pos] > e->type->cap)) continue;
        if (__mv_naspdu_decode_ie(e->type, 0, r + e->off, true, d) < 1) {
            logFailure(m, d);
            return 0;
        }
    }
    d->iMandatoryDecoded = 1;
    while (d->pos < d->length) {
        uint8_t b = d->buffer[d->pos];
        const NasElem* e = findOptional(m, b);
        if (!e) {
            if (m->flags & NAS_MSG_SKIP_OCTETS) {
                d->pos++;
                continue;
            }
            d->iStatus = NAS_DECODE_IE_NOT_TAKEN;
            d->iUnSuccessfulElementId = b;
            __mv_asn_log(MV_LOG_DEBUG, "NAS %s %s: IE %02X not taken at octet %d of %d (%s|%s|%d)",
                         familyName(m->discriminator), m->name, b, d->pos, d->length, __FILE_NAME__, __func__, __LINE__);
            if (!(m->flags & NAS_MSG_CONTINUE)) break;
            d->pos++;
            if (skipUnknown(b, d) < 0) break;
            continue;
        }
        d->pos++;
        int r2 = (e->flags & NAS_EL_READ) ? __mv_naspdu_decode_ie(e->type, b, r + e->off, false, d) : skipIe(e->type, d);
        if (r2 < 0) break;
        if (r2 > 0 && (e->flags & NAS_EL_READ)) d->iLastElementId = b;
    }
    if (d->iStatus == NAS_DECODE_ENDED_INSIDE_IE || d->iStatus == NAS_DECODE_IE_TOO_LARGE) logFailure(m, d);
    return 0;
}

namespace {
int decodeByType(uint8_t discriminator, uint8_t type, __naspduDecode* d) {
    const NasMsgDesc* m = __mv_naspdu_find_message(discriminator, type);
    if (!m) {
        d->MessageType = type;
        __mv_asn_log(MV_LOG_WARNING, "NAS %s message type %u is not known (%s|%s|%d)", familyName(discriminator), type,
                     __FILE_NAME__, __func__, __LINE__);
        return -ESRCH;
    }
    return __mv_naspdu_decode_message(m, d);
}
}  // namespace

int __mv_naspdu_DecodeFGMessage(__naspduDecode* d, const uint8_t* data, uint32_t len) {
    if (!d) return -1;
    memset(static_cast<void*>(d), 0, sizeof *d);
    if (!data || len == 0) return -1;
    d->buffer = data;
    d->length = len > INT_MAX ? INT_MAX : int(len);
    uint8_t disc = data[0];
    if (disc != MV_5GS_MM_EPD && disc != MV_5GS_SM_EPD) {
        __mv_asn_log(MV_LOG_WARNING, "NAS 5GS message with discriminator %02X refused (%s|%s|%d)", disc,
                     __FILE_NAME__, __func__, __LINE__);
        return -ENOENT;
    }
    uint32_t typeAt = disc == MV_5GS_MM_EPD ? 2 : 3;
    if (len <= typeAt) {
        __mv_asn_log(MV_LOG_WARNING, "NAS 5GS message of %u octets has no message type (%s|%s|%d)", len,
                     __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    d->SecurityHeaderType = data[1] & 0x0F;
    return decodeByType(disc, data[typeAt], d);
}

int __mv_naspdu_DecodeMessage(__naspduDecode* d) {
    if (!d) return -1;
    const uint8_t* data = d->buffer;
    int len = d->length;
    memset(static_cast<void*>(d), 0, sizeof *d);
    d->buffer = data;
    d->length = len;
    if (!data || len <= 0) return -1;
    uint8_t pd = data[0] & 0x0F;
    if (pd != MV_EPS_MM_PD && pd != MV_EPS_SM_PD) {
        __mv_asn_log(MV_LOG_ERROR, "received invalid Protocol Dis %02X %s|%s|%d\n", data[0], __FILE_NAME__,
                     __func__, __LINE__);
        return -ENOENT;
    }
    int typeAt = pd == MV_EPS_MM_PD ? 1 : 2;
    if (len <= typeAt) {
        __mv_asn_log(MV_LOG_WARNING, "NAS EPS message of %d octets has no message type (%s|%s|%d)", len,
                     __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    if (pd == MV_EPS_MM_PD) d->SecurityHeaderType = data[0] >> 4;
    return decodeByType(pd, data[typeAt], d);
}

void __mv_naspdu_freeNASPduDecode(__naspduDecode* d) {
    if (!d) return;
    __mv_asn_free(d->messageObj);
    d->messageObj = nullptr;
}
