// The one NAS encoder and the one NAS decoder: both walk a message's element table. Every octet
// of a message is read through a ByteReader over its `length` octets, and the cursor record takes
// the reader's position back, so no input is read past its end.
#include <climits>
#include <cstring>

#include "mv_byteio.h"
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

// A reader of the whole message, at the record's cursor; false for a cursor outside the message.
bool readerAt(const __naspduDecode* d, int pos, ByteReader& r) {
    if ((!d->buffer && d->length != 0) || d->length < 0 || pos < 0) return false;
    r = d->buffer ? ByteReader(d->buffer, size_t(d->length)) : ByteReader();
    return r.skip(size_t(pos));
}

// The length octets of an LV or LV-E IE.
int readLength(const NasIeType* t, ByteReader& r, __naspduDecode* d, uint32_t* len) {
    if (t->fmt == NAS_F_LVE) {
        uint16_t v;
        if (!r.u16(v)) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
        *len = v;
        return 1;
    }
    uint8_t v;
    if (!r.u8(v)) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
    *len = v;
    return 1;
}

// An IE longer than its member: a mandatory one fails the message, an optional one is stepped over.
int tooLarge(const NasIeType* t, uint8_t iei, uint32_t len, bool mandatory, ByteReader& r, __naspduDecode* d) {
    if (mandatory) {
        __mv_asn_log(MV_LOG_WARNING, "NAS IE %s of %u octets is longer than its record holds (%u) (%s|%s|%d)",
                     t->name, len, t->cap, __FILE_NAME__, __func__, __LINE__);
        return fail(d, NAS_DECODE_IE_TOO_LARGE, __LINE__);
    }
    __mv_asn_log(MV_LOG_WARNING, "NAS IE %02X (%s) of %u octets is longer than its record holds (%u), skipped (%s|%s|%d)",
                 iei, t->name, len, t->cap, __FILE_NAME__, __func__, __LINE__);
    if (!r.skip(len)) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
    return 0;
}

// Steps over an IE of a known type whose identifier was taken.
int skipIe(const NasIeType* t, ByteReader& r, __naspduDecode* d) {
    uint32_t len = 0;
    switch (t->fmt) {
        case NAS_F_HALF: return 1;
        case NAS_F_RAW8:
        case NAS_F_V:
            if (!r.skip(t->n)) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
            return 1;
        default:
            if (readLength(t, r, d, &len) < 0) return -1;
            if (!r.skip(len)) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
            return 1;
    }
}

// Steps over an IE the message does not know, by the identifier's form (TS 24.007 11.2.4): a high bit
// makes it one octet, 0111 in the high nibble a TLV-E, anything else a TLV.
int skipUnknown(uint8_t iei, ByteReader& r, __naspduDecode* d) {
    if (iei & 0x80) return 1;
    static const NasIeType tlv = {"TLV", NAS_F_LV, NAS_K_PLAIN, 0, 0, 0, 0};
    static const NasIeType tlve = {"TLV-E", NAS_F_LVE, NAS_K_PLAIN, 0, 0, 0, 1};
    return skipIe((iei & 0xF0) == 0x70 ? &tlve : &tlv, r, d);
}

// The optional element of a message by its identifier, from the first element behind the mandatory part.
const NasElem* findOptional(const NasMsgDesc* m, uint16_t first, uint8_t b) {
    bool half = b & 0x80;
    for (uint16_t i = first; i < m->nElems; i++) {
        const NasElem* e = &m->elems[i];
        if (!(e->flags & (NAS_EL_READ | NAS_EL_SKIP))) continue;
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

namespace {

int decodeIe(const NasIeType* t, uint8_t iei, void* ie, bool mandatory, ByteReader& r, __naspduDecode* d) {
    auto* p = static_cast<uint8_t*>(ie);
    if (t->fmt == NAS_F_RAW8) {
        if (!r.u8(p[0])) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
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
        if (!r.bytes(data, t->n)) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
        p[0] = mandatory ? 0 : iei;
        setLength(t, p, t->n);
        p[t->size - 1] = 1;
        return 1;
    }
    uint32_t len = 0;
    if (readLength(t, r, d, &len) < 0) return -1;
    // The value is there whole before any of it is taken; a value the message fails on leaves the
    // cursor at it, where the report points.
    if (r.remaining() < len) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
    ByteReader v;
    switch (t->kind) {
        case NAS_K_PDUADDR: {
            auto* a = static_cast<__naspdu_pdu_address*>(ie);
            if (len > sizeof a->data + 1) return tooLarge(t, iei, len, mandatory, r, d);
            uint8_t type = 0;
            if (!r.sub(len, v) || (len && !(v.u8(type) && v.bytes(a->data, len - 1))))
                return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
            a->Length = uint8_t(len);
            a->PDUSessionType = type;
            break;
        }
        case NAS_K_AMBR: {
            auto* a = static_cast<__naspdu_session_ambr*>(ie);
            uint8_t dlUnit, ulUnit;
            uint16_t dl, ul;
            if (len < 6) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
            if (!(r.sub(len, v) && v.u8(dlUnit) && v.u16(dl) && v.u8(ulUnit) && v.u16(ul)))
                return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
            a->Length = uint8_t(len);
            a->DownlinkUnit = dlUnit;
            a->Downlink = dl;
            a->UplinkUnit = ulUnit;
            a->Uplink = ul;
            break;
        }
        default:
            if (t->cap == 1 && !t->wide) {
                // One-octet values: octets a later release adds behind it are ignored.
                if (!r.sub(len, v)) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
                p[1] = uint8_t(len);
                if (!v.peek(p[2])) p[2] = 0;
                break;
            }
            if (len > t->cap) return tooLarge(t, iei, len, mandatory, r, d);
            if (!r.bytes(data, len)) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
            setLength(t, p, t->kind == NAS_K_FGMMCAP ? (len ? len - 1 : 0) : len);
            break;
    }
    p[0] = mandatory ? 0 : iei;
    p[t->size - 1] = 1;
    return 1;
}

int readFGHeader(__naspduFGHeader* h, ByteReader& r, __naspduDecode* d) {
    uint8_t b[4];
    if (!r.peek(b[0])) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
    bool sm = b[0] == MV_5GS_SM_EPD;
    size_t need = sm ? 4 : 3;
    if (!(sm ? r.bytes(b, 4) : r.bytes(b, 3))) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
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
    return 1;
}

int readEPSHeader(__naspduHeader* h, ByteReader& r, __naspduDecode* d) {
    uint8_t b[3];
    if (!r.peek(b[0])) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
    bool sm = (b[0] & 0x0F) == MV_EPS_SM_PD;
    size_t need = sm ? 3 : 2;
    if (!(sm ? r.bytes(b, 3) : r.bytes(b, 2))) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
    h->ProtocolDiscriminator = b[0];
    if (sm) {
        h->ProcedureTransactionIdentity = b[1];
        h->ProcedureTransactionIdentity_isset = 1;
    }
    h->MessageType = b[need - 1];
    return 1;
}

// Runs one of the readers above at the record's cursor and moves the cursor on.
template <class Read>
int atCursor(__naspduDecode* d, Read read) {
    ByteReader r;
    if (!readerAt(d, d->pos, r)) return fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
    int rc = read(r);
    d->pos = int(r.position());
    return rc;
}

}  // namespace

int __mv_naspdu_decode_ie(const NasIeType* t, uint8_t iei, void* ie, bool mandatory, __naspduDecode* d) {
    return atCursor(d, [&](ByteReader& r) { return decodeIe(t, iei, ie, mandatory, r, d); });
}

int __mv_naspdu_decode_taken_ie(const NasIeType* t, void* ie, __naspduDecode* d) {
    // A half-octet IE's value is in the identifier octet the caller has taken, just behind the cursor.
    uint8_t iei = 0;
    ByteReader back;
    bool half = t->fmt == NAS_F_HALF && d->pos > 0 && readerAt(d, d->pos - 1, back);
    if (!half || !back.u8(iei)) iei = 0;
    return __mv_naspdu_decode_ie(t, iei, ie, false, d);
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
    return atCursor(d, [&](ByteReader& r) { return readFGHeader(h, r, d); });
}

int __mv_naspdu_encodePlainHeader(const __naspduHeader* h, __mv_asn_coding_context* c) {
    put(h->ProtocolDiscriminator, c);
    if ((h->ProtocolDiscriminator & 0x0F) == MV_EPS_SM_PD) put(h->ProcedureTransactionIdentity, c);
    return put(h->MessageType, c);
}

int __mv_naspdu_decodeNASHeader(__naspduHeader* h, __naspduDecode* d) {
    return atCursor(d, [&](ByteReader& r) { return readEPSHeader(h, r, d); });
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
    if (!data) return -1;
    ByteReader r(data, len);
    uint8_t pd, sht;
    if (!r.u8(pd)) return -1;
    // Session management messages travel inside a mobility management message and have no header.
    if (pd == MV_5GS_SM_EPD || (pd & 0x0F) == MV_EPS_SM_PD) {
        memset(static_cast<void*>(h), 0, sizeof *h);
        return 0;
    }
    if (pd == MV_5GS_MM_EPD) {
        if (!r.u8(sht)) return -1;
        sht &= 0x0F;
    } else if ((pd & 0x0F) == MV_EPS_MM_PD) {
        sht = pd >> 4;
    } else {
        return -1;
    }
    memset(static_cast<void*>(h), 0, sizeof *h);
    h->ProtocolDiscriminator = pd == MV_5GS_MM_EPD ? MV_5GS_MM_EPD : MV_EPS_MM_PD;
    h->EPSBIOrSHT = sht;
    // The EPS service request has a header of its own and no plain message behind it.
    if (sht == NAS_SECURITY_HEADER_PLAIN_NAS_MESSAGE || sht == NAS_SECURITY_HEADER_FOR_SERVICE_REQUEST_MESSAGE)
        return 0;
    uint8_t mac[NAS_SECURITY_MAC_SIZE], sqn;
    if (!r.bytes(mac, sizeof mac) || !r.u8(sqn)) return -1;
    memcpy(h->MAC, mac, sizeof mac);
    h->SequenceNumber = sqn;
    return int(r.position());
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

namespace {

// The walk of one message; returns where it ended, for the record's cursor.
size_t walkMessage(const NasMsgDesc* m, uint8_t* r, ByteReader& in, __naspduDecode* d) {
    bool fg = isFG(m->discriminator);
    int ok = fg ? readFGHeader(reinterpret_cast<__naspduFGHeader*>(r + kSecHdr), in, d)
                : readEPSHeader(reinterpret_cast<__naspduHeader*>(r + kSecHdr), in, d);
    if (ok < 1) return in.position();
    uint16_t i = 0;
    for (; i < m->nElems; i++) {
        const NasElem* e = &m->elems[i];
        if (!(e->flags & NAS_EL_MAND)) break;  // the tables put the mandatory part first
        // The network's form of the message lacks it: nothing, or an octet no identity length can be.
        uint8_t next;
        if ((e->flags & NAS_EL_UEONLY) && (!in.peek(next) || next > e->type->cap)) continue;
        if (decodeIe(e->type, 0, r + e->off, true, in, d) < 1) return in.position();
    }
    d->iMandatoryDecoded = 1;
    uint8_t b;
    while (in.u8(b)) {
        const NasElem* e = findOptional(m, i, b);
        if (!e) {
            if (m->flags & NAS_MSG_SKIP_OCTETS) continue;
            d->iStatus = NAS_DECODE_IE_NOT_TAKEN;
            d->iUnSuccessfulElementId = b;
            __mv_asn_log(MV_LOG_DEBUG, "NAS %s %s: IE %02X not taken at octet %zu of %d (%s|%s|%d)",
                         familyName(m->discriminator), m->name, b, in.position() - 1, d->length, __FILE_NAME__,
                         __func__, __LINE__);
            // The refused identifier counts as unread.
            if (!(m->flags & NAS_MSG_CONTINUE)) return in.position() - 1;
            if (skipUnknown(b, in, d) < 0) break;
            continue;
        }
        int r2 = (e->flags & NAS_EL_READ) ? decodeIe(e->type, b, r + e->off, false, in, d) : skipIe(e->type, in, d);
        if (r2 < 0) break;
        if (r2 > 0 && (e->flags & NAS_EL_READ)) d->iLastElementId = b;
    }
    return in.position();
}

}  // namespace

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
    ByteReader in;
    if (readerAt(d, 0, in)) d->pos = int(walkMessage(m, r, in, d));
    else fail(d, NAS_DECODE_ENDED_INSIDE_IE, __LINE__);
    if (!d->iMandatoryDecoded || d->iStatus == NAS_DECODE_ENDED_INSIDE_IE || d->iStatus == NAS_DECODE_IE_TOO_LARGE)
        logFailure(m, d);
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
    ByteReader r(data, size_t(d->length));
    uint8_t disc, sht, type;
    if (!r.u8(disc)) return -1;
    if (disc != MV_5GS_MM_EPD && disc != MV_5GS_SM_EPD) {
        __mv_asn_log(MV_LOG_WARNING, "NAS 5GS message with discriminator %02X refused (%s|%s|%d)", disc,
                     __FILE_NAME__, __func__, __LINE__);
        return -ENOENT;
    }
    // The type follows the security header type octet (5GMM) or the session id and PTI (5GSM).
    if (!r.u8(sht) || !r.skip(disc == MV_5GS_MM_EPD ? 0 : 1) || !r.u8(type)) {
        __mv_asn_log(MV_LOG_WARNING, "NAS 5GS message of %u octets has no message type (%s|%s|%d)", len,
                     __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    d->SecurityHeaderType = sht & 0x0F;
    return decodeByType(disc, type, d);
}

int __mv_naspdu_DecodeMessage(__naspduDecode* d) {
    if (!d) return -1;
    const uint8_t* data = d->buffer;
    int len = d->length;
    memset(static_cast<void*>(d), 0, sizeof *d);
    d->buffer = data;
    d->length = len;
    if (!data || len <= 0) return -1;
    ByteReader r(data, size_t(len));
    uint8_t first, type;
    if (!r.u8(first)) return -1;
    uint8_t pd = first & 0x0F;
    if (pd != MV_EPS_MM_PD && pd != MV_EPS_SM_PD) {
        __mv_asn_log(MV_LOG_ERROR, "received invalid Protocol Dis %02X %s|%s|%d\n", first, __FILE_NAME__,
                     __func__, __LINE__);
        return -ENOENT;
    }
    // An ESM message has its PTI in front of the type.
    if (!r.skip(pd == MV_EPS_MM_PD ? 0 : 1) || !r.u8(type)) {
        __mv_asn_log(MV_LOG_WARNING, "NAS EPS message of %d octets has no message type (%s|%s|%d)", len,
                     __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    if (pd == MV_EPS_MM_PD) d->SecurityHeaderType = first >> 4;
    return decodeByType(pd, type, d);
}

void __mv_naspdu_freeNASPduDecode(__naspduDecode* d) {
    if (!d) return;
    __mv_asn_free(d->messageObj);
    d->messageObj = nullptr;
}
