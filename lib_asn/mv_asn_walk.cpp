// The one aligned-PER encoder and decoder of both families: they walk the generated descriptor
// tables. Records are packed, so every slot is read and written through memcpy.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "mv_asn.h"
#include "mv_asn_internal.h"
#include "mv_core.h"

using namespace mv_asn_detail;

namespace {

// Both containers this codec never fills are at most 65535 entries long.
constexpr int kMaxContainer = 65535;

int lengthType(const MvAsnType* t) {
    if (!(t->flags & MV_ASN_F_UB)) return 0;
    return t->lb == t->ub ? 1 : 2;
}

int enc(const MvAsnType* t, const void* slot, __mv_asn_coding_context* ctx);
int dec(const MvAsnType* t, void* slot, __mv_asn_coding_context* ctx);

int encOpen(const MvAsnType* t, const void* slot, __mv_asn_coding_context* ctx) {
    __mv_asn_pad_bits(ctx);
    uint16_t start = ctx->pos;
    if (__mv_asn_reserve_byte_for_length(ctx) < 0) return -1;
    if (enc(t, slot, ctx) < 0) return -1;
    return __mv_asn_set_length_at_pos(start, ctx);
}

// Decodes one open type within its own length and leaves the cursor at its end, whatever the
// value inside has read.
int decOpen(const MvAsnType* t, void* slot, __mv_asn_coding_context* ctx) {
    int l = __mv_asn_get_range_val_length(ctx);
    if (l < 0) return -1;
    if (!__mv_asn_has_required_bytes(ctx, l)) {
        if (!ctx->iError) ctx->iError = MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER;
        return -1;
    }
    uint16_t saved = ctx->len, start = ctx->pos;
    ctx->len = uint16_t(start + l);
    int r = t ? dec(t, slot, ctx) : 0;
    ctx->len = saved;
    ctx->pos = uint16_t(start + l);
    ctx->usedBits = 7;
    return r;
}

int skipOpen(__mv_asn_coding_context* ctx) { return decOpen(nullptr, nullptr, ctx); }

// A ProtocolExtensionContainer: entries of id, criticality and an open type, none of them read.
int skipExtensionContainer(__mv_asn_coding_context* ctx) {
    uint32_t n = 0;
    if (mv_asn_get_size(&n, 2, 1, kMaxContainer, 0, ctx) < 0) return -1;
    for (uint32_t i = 0; i < n; i++) {
        uint64_t v = 0;
        __mv_asn_pad_readbits(ctx);
        if (__mv_asn_get_bits(16, &v, ctx) < 0 || __mv_asn_get_bits(2, &v, ctx) < 0) return -1;
        if (skipOpen(ctx) < 0) return -1;
    }
    return 0;
}

// A PrivateIE-Container: the id is a CHOICE of a local number or an object identifier.
int skipPrivateContainer(__mv_asn_coding_context* ctx) {
    uint32_t n = 0;
    if (mv_asn_get_size(&n, 2, 1, kMaxContainer, 0, ctx) < 0) return -1;
    for (uint32_t i = 0; i < n; i++) {
        uint64_t v = 0;
        if (__mv_asn_get_bits(1, &v, ctx) < 0) return -1;
        if (v == 0) {
            __mv_asn_pad_readbits(ctx);
            if (__mv_asn_get_bits(16, &v, ctx) < 0) return -1;
        } else {
            if (skipOpen(ctx) < 0) return -1;  // an OID has the same length-and-octets form
        }
        if (__mv_asn_get_bits(2, &v, ctx) < 0) return -1;
        if (skipOpen(ctx) < 0) return -1;
    }
    return 0;
}

// An extensible fixed size takes any other length in its extension form, so only a size
// without the marker makes a wrong length an error.
void logFixedLength(const MvAsnType* t, uint32_t len) {
    if (lengthType(t) == 1 && !t->ext && int64_t(len) != t->lb)
        __mv_asn_log(MV_LOG_ERROR, "%s is Fixed Length=(%lld) which is set to invalid length=%u (%s|%s|%d)", t->name,
                     static_cast<long long>(t->lb), len, __FILE_NAME__, __func__, __LINE__);
}

int encMsg(const MvAsnType* t, const void* rec, __mv_asn_coding_context* ctx) {
    if (t->flags & MV_ASN_F_PRIVATE) {
        // A private container holds at least one IE and the record carries none to send.
        __mv_asn_log(MV_LOG_ERROR, "%s has no private IEs to send (%s|%s|%d)", t->name, __FILE_NAME__, __func__,
                     __LINE__);
        return -1;
    }
    if (t->ext && __mv_asn_add_bit(0, ctx) < 0) return -1;
    __mv_asn_pad_bits(ctx);
    uint16_t countPos = ctx->pos;
    if (__mv_asn_add_value_bits(0, 16, ctx) < 0) return -1;
    int count = 0;
    for (unsigned i = 0; i < t->nAll; i++) {
        const MvAsnIE& ie = t->ies[i];
        if (ld<int>(at(rec, ie.issetOff)) != 1) continue;
        count++;
        int r = __mv_asn_add_id_and_criticality(ie.id, ie.criticality, ctx);
        if (r == 0) r = encOpen(ie.type, at(rec, ie.off), ctx);
        if (r != 0) {
            __mv_asn_log(MV_LOG_ERROR, "error while encoding %s %d|%s|%s", valueType(ie.type)->name, r, __FILE_NAME__,
                         __func__);
            return r;
        }
    }
    ctx->buffer[countPos] = uint8_t(count >> 8);
    ctx->buffer[countPos + 1] = uint8_t(count);
    return 0;
}

int enc(const MvAsnType* t, const void* slot, __mv_asn_coding_context* ctx) {
    switch (t->kind) {
        case MV_ASN_K_INT: {
            uint64_t v = ld<uint64_t>(slot);
            if ((t->flags & MV_ASN_F_LB) && (t->flags & MV_ASN_F_UB)) {
                if (!t->ext && v - uint64_t(t->lb) > uint64_t(t->ub) - uint64_t(t->lb)) {
                    __mv_asn_log(MV_LOG_ERROR, "%s value %lld out of range %lld..%lld (%s|%s|%d)", t->name,
                                 static_cast<long long>(v), static_cast<long long>(t->lb),
                                 static_cast<long long>(t->ub), __FILE_NAME__, __func__, __LINE__);
                    return -1;
                }
                return __mv_asn_AddConstrainedInteger(v, 0, t->lb, t->ub, t->ext, ctx);
            }
            if (t->flags & MV_ASN_F_LB) {
                if (int64_t(v) < t->lb) return -1;
                uint64_t off = v - uint64_t(t->lb);
                int n = 1;
                while (n < 8 && (off >> (8 * n))) n++;
                if (__mv_asn_set_value_length(n, ctx) < 0) return -1;
                return __mv_asn_add_value_bits(off, 8 * n, ctx);
            }
            return mv_asn_add_unconstrained(int64_t(v), ctx);
        }
        case MV_ASN_K_ENUM: {
            int v = ld<uint8_t>(slot);
            if (v >= t->nAll) {
                __mv_asn_log(MV_LOG_ERROR, "%s has no value %d (%s|%s|%d)", t->name, v, __FILE_NAME__, __func__,
                             __LINE__);
                return -1;
            }
            return __mv_asn_AddEnum(v, t->ext, v >= t->nRoot, t->nRoot, t->nAll - t->nRoot, ctx);
        }
        case MV_ASN_K_BOOL:
            return __mv_asn_add_bit(ld<uint8_t>(slot) ? 1 : 0, ctx);
        case MV_ASN_K_NULL:
            return 0;
        case MV_ASN_K_OCTSTR:
        case MV_ASN_K_PRTSTR:
        case MV_ASN_K_OID: {
            auto* rec = ld<const StrRec*>(slot);
            const uint8_t* data = rec ? rec->data : nullptr;
            uint32_t len = rec && data ? rec->length : 0;
            logFixedLength(t, len);
            if (len > MV_ASN_BUFFER_SIZE) return -1;
            return __mv_asn_AddOctetString2(data, len, lengthType(t), int(t->lb), int(t->ub), t->ext, ctx, 0);
        }
        case MV_ASN_K_BITSTR: {
            auto* rec = ld<const BitRec*>(slot);
            int bits = rec && rec->data ? rec->bitslen : 0;
            logFixedLength(t, uint32_t(bits));
            if (bits < 0 || bits > 8 * MV_ASN_BUFFER_SIZE) return -1;
            return __mv_asn_AddBitString(rec ? rec->data : nullptr, bits, lengthType(t), int(t->lb), int(t->ub),
                                         t->ext, ctx);
        }
        case MV_ASN_K_SEQ: {
            const void* rec = ld<const void*>(slot);
            if (!rec) {
                __mv_asn_log(MV_LOG_ERROR, "%s is missing (%s|%s|%d)", t->name, __FILE_NAME__, __func__, __LINE__);
                return -1;
            }
            if (t->ext && __mv_asn_add_bit(0, ctx) < 0) return -1;
            for (unsigned i = 0; i < t->nRoot; i++) {
                const MvAsnMember& m = t->members[i];
                if (!m.optional) continue;
                int present = m.presOff >= 0 ? ld<int>(at(rec, uint32_t(m.presOff))) == 1 : 0;
                if (__mv_asn_add_bit(present, ctx) < 0) return -1;
            }
            for (unsigned i = 0; i < t->nRoot; i++) {
                const MvAsnMember& m = t->members[i];
                if (m.type->kind == MV_ASN_K_EXTC) continue;
                if (m.optional && (m.presOff < 0 || ld<int>(at(rec, uint32_t(m.presOff))) != 1)) continue;
                if (enc(m.type, at(rec, m.off), ctx) < 0) return -1;
            }
            return 0;
        }
        case MV_ASN_K_SEQOF: {
            auto* rec = ld<const ListRec*>(slot);
            __mv_asn_list* list = rec ? rec->list : nullptr;
            int count = __mv_asn_GetSIListCount(list);
            if ((t->flags & MV_ASN_F_LB) && count < t->lb && !t->ext) {
                __mv_asn_log(MV_LOG_ERROR, "%s should have min items=(%lld) which is having item-count=%d (%s|%s|%d)",
                             t->name, static_cast<long long>(t->lb), count, __FILE_NAME__, __func__, __LINE__);
                return -1;
            }
            if ((t->flags & MV_ASN_F_UB) && count > t->ub && !t->ext) {
                __mv_asn_log(MV_LOG_ERROR, "%s should have max items=(%lld) which is having item-count=%d (%s|%s|%d)",
                             t->name, static_cast<long long>(t->ub), count, __FILE_NAME__, __func__, __LINE__);
                return -ENOENT;
            }
            if (mv_asn_add_size(uint32_t(count), lengthType(t), int(t->lb), int(t->ub), t->ext, ctx) < 0) return -1;
            bool byPtr = itemByPtr(t);
            for (auto* it = list ? list->Head : nullptr; it; it = it->Next) {
                if (!byPtr && !it->data) return -1;
                int r = enc(t->item, byPtr ? static_cast<const void*>(&it->data) : it->data, ctx);
                if (r != 0) return r;
            }
            return 0;
        }
        case MV_ASN_K_CHOICE: {
            auto* rec = ld<const ChoiceRec*>(slot);
            if (!rec) return -1;
            int sel = rec->SelectedChoice;
            if (sel >= t->nAll) {
                __mv_asn_log(MV_LOG_ERROR, "%s has no alternative %d (%s|%s|%d)", t->name, sel, __FILE_NAME__,
                             __func__, __LINE__);
                return -1;
            }
            const MvAsnMember& m = t->members[sel];
            if (m.type->kind == MV_ASN_K_SINGLE && !m.type->item) return -1;
            bool isExt = sel >= t->nRoot;
            if (__mv_asn_AddChoice(t->ext, sel, t->nRoot, t->nAll - t->nRoot, isExt, ctx) < 0) return -1;
            return isExt ? encOpen(m.type, at(rec, m.off), ctx) : enc(m.type, at(rec, m.off), ctx);
        }
        case MV_ASN_K_MSG: {
            const void* rec = ld<const void*>(slot);
            if (!rec) return -1;
            return encMsg(t, rec, ctx);
        }
        case MV_ASN_K_SINGLE: {
            if (!t->item) return -1;
            if (__mv_asn_add_id_and_criticality(t->ies[0].id, t->ies[0].criticality, ctx) < 0) return -1;
            return encOpen(t->item, slot, ctx);
        }
        default:
            return -1;
    }
}

// Returns 1 when the IE was taken, 0 when skipped, -1 on error. Used for nested containers and PDUs.
int decMsgIEs(const MvAsnType* t, void* rec, __mv_asn_coding_context* ctx, bool pduLevel, int* lastResult);

int decStr(const MvAsnType* t, void* slot, __mv_asn_coding_context* ctx) {
    if (t->kind == MV_ASN_K_BITSTR) {
        auto* rec = static_cast<BitRec*>(__mv_asn_alloc(sizeof(BitRec)));
        st(slot, rec);
        uint8_t* data = nullptr;
        uint32_t length = 0;
        int bits = 0;
        if (__mv_asn_GetBitString(&data, &length, &bits, lengthType(t), int(t->lb), int(t->ub), t->ext, ctx) < 0)
            return -1;
        rec->data = data;
        rec->length = length;
        rec->bitslen = bits;
        return 0;
    }
    auto* rec = static_cast<StrRec*>(__mv_asn_alloc(sizeof(StrRec)));
    st(slot, rec);
    uint8_t* data = nullptr;
    uint32_t length = 0;
    if (__mv_asn_GetOctetString2(&data, &length, lengthType(t), int(t->lb), int(t->ub), t->ext, ctx) < 0) return -1;
    rec->data = data;
    rec->length = length;
    return 0;
}

int dec(const MvAsnType* t, void* slot, __mv_asn_coding_context* ctx) {
    if (ctx->iError) return -1;
    switch (t->kind) {
        case MV_ASN_K_INT: {
            uint64_t v = 0;
            if ((t->flags & MV_ASN_F_LB) && (t->flags & MV_ASN_F_UB)) {
                if (__mv_asn_GetConstrainedInteger(&v, nullptr, t->lb, t->ub, t->ext, ctx) < 0) return -1;
            } else if (t->flags & MV_ASN_F_LB) {
                int n = __mv_asn_get_range_val_length(ctx);
                if (n < 1 || n > 8) return -1;
                if (__mv_asn_get_bits(8 * n, &v, ctx) < 0) return -1;
                v += uint64_t(t->lb);
            } else {
                int64_t sv = 0;
                if (mv_asn_get_unconstrained(&sv, ctx) < 0) return -1;
                v = uint64_t(sv);
            }
            st(slot, v);
            return 0;
        }
        case MV_ASN_K_ENUM: {
            int isExt = 0;
            if (t->ext) isExt = __mv_asn_get_bit_val(ctx);
            int v = __mv_asn_GetEnum(isExt, t->nRoot, ctx);
            if (v < 0) return -1;
            if (v >= t->nAll) {
                // a value of a later release: nothing in the record can hold it
                if (!ctx->iError) ctx->iError = MV_ASN_DECODE_ERROR_ENUMERATOR;
                return -1;
            }
            st(slot, uint8_t(v));
            return 0;
        }
        case MV_ASN_K_BOOL: {
            st(slot, uint8_t(__mv_asn_get_bit_val(ctx)));
            return ctx->iError ? -1 : 0;
        }
        case MV_ASN_K_NULL:
            st(slot, uint8_t(1));
            return 0;
        case MV_ASN_K_OCTSTR:
        case MV_ASN_K_PRTSTR:
        case MV_ASN_K_OID:
        case MV_ASN_K_BITSTR:
            return decStr(t, slot, ctx);
        case MV_ASN_K_SEQ: {
            void* rec = __mv_asn_alloc(t->size);
            st(slot, rec);
            uint64_t extBit = 0;
            if (t->ext && __mv_asn_get_bits(1, &extBit, ctx) < 0) return -1;
            bool present[64] = {};
            for (unsigned i = 0, k = 0; i < t->nRoot && k < 64; i++) {
                if (!t->members[i].optional) continue;
                uint64_t b = 0;
                if (__mv_asn_get_bits(1, &b, ctx) < 0) return -1;
                present[i] = b;
                k++;
            }
            for (unsigned i = 0; i < t->nRoot; i++) {
                const MvAsnMember& m = t->members[i];
                if (m.optional && !present[i]) continue;
                if (m.type->kind == MV_ASN_K_EXTC) {
                    if (skipExtensionContainer(ctx) < 0) return -1;
                    continue;
                }
                if (dec(m.type, at(rec, m.off), ctx) < 0) return -1;
                if (m.presOff >= 0) st(at(rec, uint32_t(m.presOff)), 1);
            }
            if (extBit) {
                // additions of a later release: each an open type, taken where known, else skipped
                uint64_t n1 = 0;
                if (mv_asn_get_nsnn(&n1, ctx) < 0 || n1 > 63) return -1;
                bool addPresent[64] = {};
                for (unsigned i = 0; i <= n1; i++) {
                    uint64_t b = 0;
                    if (__mv_asn_get_bits(1, &b, ctx) < 0) return -1;
                    addPresent[i] = b;
                }
                for (unsigned i = 0; i <= n1; i++) {
                    if (!addPresent[i]) continue;
                    unsigned idx = t->nRoot + i;
                    if (idx < t->nAll) {
                        const MvAsnMember& m = t->members[idx];
                        if (decOpen(m.type, at(rec, m.off), ctx) < 0) return -1;
                        if (m.presOff >= 0) st(at(rec, uint32_t(m.presOff)), 1);
                    } else if (skipOpen(ctx) < 0) {
                        return -1;
                    }
                }
            }
            return 0;
        }
        case MV_ASN_K_SEQOF: {
            auto* rec = static_cast<ListRec*>(__mv_asn_alloc(sizeof(ListRec)));
            st(slot, rec);
            uint32_t n = 0;
            if (mv_asn_get_size(&n, lengthType(t), int(t->lb), int(t->ub), t->ext, ctx) < 0) return -1;
            bool byPtr = itemByPtr(t);
            for (uint32_t i = 0; i < n; i++) {
                if (byPtr) {
                    void* item = nullptr;
                    int r = dec(t->item, &item, ctx);
                    // a partly decoded item still joins the list, so that freeing finds it
                    if (item || r == 0) listAdd(rec, item);
                    if (r < 0) return -1;
                } else {
                    void* cell = __mv_asn_alloc(8);
                    listAdd(rec, cell);
                    if (dec(t->item, cell, ctx) < 0) return -1;
                }
            }
            return 0;
        }
        case MV_ASN_K_CHOICE: {
            auto* rec = static_cast<ChoiceRec*>(__mv_asn_alloc(t->size));
            st(slot, rec);
            int isExt = 0;
            int sel = __mv_asn_GetChoice(t->ext, t->nRoot, &isExt, ctx);
            if (sel < 0) return -1;
            if (sel >= t->nAll || (t->members[sel].type->kind == MV_ASN_K_SINGLE && !t->members[sel].type->item)) {
                __mv_asn_log(MV_LOG_ERROR, "%s has no alternative %d (%s|%s|%d)", t->name, sel, __FILE_NAME__,
                             __func__, __LINE__);
                if (!ctx->iError) ctx->iError = MV_ASN_DECODE_ERROR_CHOICE;
                return -1;
            }
            rec->SelectedChoice = uint8_t(sel);
            const MvAsnMember& m = t->members[sel];
            return isExt ? decOpen(m.type, at(rec, m.off), ctx) : dec(m.type, at(rec, m.off), ctx);
        }
        case MV_ASN_K_MSG: {
            void* rec = __mv_asn_alloc(t->size);
            st(slot, rec);
            int last = 1;
            return decMsgIEs(t, rec, ctx, false, &last);
        }
        case MV_ASN_K_SINGLE: {
            __mv_asn_pad_readbits(ctx);
            uint64_t v = 0;
            if (__mv_asn_get_bits(16, &v, ctx) < 0 || __mv_asn_get_bits(2, &v, ctx) < 0) return -1;
            if (!t->item) return skipOpen(ctx);
            return decOpen(t->item, slot, ctx);
        }
        default:
            return -1;
    }
}

const MvAsnIE* findIE(const MvAsnType* t, uint32_t id) {
    for (unsigned i = 0; i < t->nAll; i++)
        if (t->ies[i].id == id) return &t->ies[i];
    return nullptr;
}

int decMsgIEs(const MvAsnType* t, void* rec, __mv_asn_coding_context* ctx, bool pduLevel, int* lastResult) {
    uint64_t extBit = 0;
    if (t->ext && __mv_asn_get_bits(1, &extBit, ctx) < 0) return -1;
    if (t->flags & MV_ASN_F_PRIVATE) return skipPrivateContainer(ctx);
    __mv_asn_pad_readbits(ctx);
    uint64_t count = 0;
    if (__mv_asn_get_bits(16, &count, ctx) < 0) return -1;
    int processed = 3;
    uint16_t decoded = 0;
    for (uint64_t i = 0; i < count; i++) {
        uint64_t id = 0, crit = 0;
        __mv_asn_pad_readbits(ctx);
        if (__mv_asn_get_bits(16, &id, ctx) < 0 || __mv_asn_get_bits(2, &crit, ctx) < 0) {
            *lastResult = -1;
            break;
        }
        uint16_t bpos = ctx->pos;
        const MvAsnIE* ie = findIE(t, uint32_t(id));
        int r;
        if (ie) {
            void* slot = at(rec, ie->off);
            // a repeated IE replaces the first
            if (ld<int>(at(rec, ie->issetOff)) == 1) __mv_asn_free_type(ie->type, slot);
            int isset = 0;
            r = __mv_asn_decode_type(ie->type, slot, &isset, 0, ctx);
            st(at(rec, ie->issetOff), isset);
        } else {
            r = __mv_asn_move_unknown_field_length(ctx);
        }
        *lastResult = r;
        if (r < 1) {
            if (pduLevel) {
                static_cast<__mv_asn_pdu_head*>(rec)->decodingError = 1;
                __mv_asn_log(MV_LOG_ERROR, "Error while decoding IEId=%d, Criticality=%d, ie_processedlen=%d (%s|%s|%d)",
                             int(id), int(crit), processed, __FILE_NAME__, __func__, __LINE__);
            }
            break;
        }
        processed += r;
        decoded++;
        if (pduLevel && __mv_asn_log_enabled(MV_LOG_DEBUG)) {
            const char* name = nullptr;
            name = ie ? ie->idName : "unknown";
            __mv_asn_log(MV_LOG_DEBUG,
                         "IEId=%d, IEName=%s, Criticality=%d, usedBits=%d, bpos=%d, epos=%d, len=%d, processedlen=%d "
                         "(%s|%s|%d)",
                         int(id), name, int(crit), int(ctx->usedBits), int(bpos), int(ctx->pos), r, processed,
                         __FILE_NAME__, __func__, __LINE__);
            __mv_asn_dump_item("IE", ctx->buffer + bpos - 2, ctx->pos - bpos + 2);
        }
    }
    if (pduLevel) static_cast<__mv_asn_pdu_head*>(rec)->iECount = decoded;
    if (*lastResult < 1) return -1;
    if (extBit) {
        uint64_t n1 = 0;
        if (mv_asn_get_nsnn(&n1, ctx) < 0 || n1 > 63) return -1;
        unsigned present = 0;
        for (unsigned i = 0; i <= n1; i++) present += unsigned(__mv_asn_get_bit_val(ctx));
        for (unsigned i = 0; i < present; i++)
            if (skipOpen(ctx) < 0) return -1;
    }
    return ctx->iError ? -1 : 0;
}

}  // namespace

// ---------------------------------------------------------------- types

void* __mv_asn_new_record(const MvAsnType* t) { return __mv_asn_alloc(valueType(t)->size); }

int __mv_asn_encode_type(const MvAsnType* t, const void* slot, int level, __mv_asn_coding_context* ctx) {
    if (level != 0) return enc(t, slot, ctx) < 0 ? -1 : 0;
    if (__mv_asn_reserve_byte_for_length(ctx) < 0) return -1;
    uint16_t start = ctx->ieStartPos;
    int r = enc(t, slot, ctx);
    if (r != 0) return r;
    return __mv_asn_set_length_at_pos(start, ctx);
}

int __mv_asn_decode_type(const MvAsnType* t, void* slot, int* isset, int level, __mv_asn_coding_context* ctx) {
    if (isset) st(isset, 0);
    if (__mv_asn_has_decode_error(ctx)) return -1;
    if (level != 0) {
        if (dec(t, slot, ctx) < 0) {
            __mv_asn_free_type(t, slot);
            return -1;
        }
        if (isset) st(isset, 1);
        return 0;
    }
    int l = __mv_asn_get_range_val_length(ctx);
    if (l < 0) return -1;
    __mv_asn_set_max_read_bytes_for_ie(l, ctx);
    if (__mv_asn_has_decode_error(ctx)) return -1;
    uint16_t saved = ctx->len, start = ctx->pos;
    ctx->len = uint16_t(start + l);
    int r = dec(t, slot, ctx);
    ctx->len = saved;
    // whatever the value left unread (an extension of a later release) is skipped with the IE
    ctx->pos = uint16_t(start + l);
    ctx->usedBits = 7;
    if (r < 0) {
        __mv_asn_free_type(t, slot);
        return -1;
    }
    if (isset) st(isset, 1);
    return __mv_asn_get_total_used_length(l, ctx);
}

void __mv_asn_free_type(const MvAsnType* t, void* slot) {
    if (!slot) return;
    if (t->kind == MV_ASN_K_SINGLE) {
        if (t->item) __mv_asn_free_type(t->item, slot);
        return;
    }
    if (t->store != MV_ASN_S_PTR) return;
    void* rec = ld<void*>(slot);
    if (!rec) return;
    switch (t->kind) {
        case MV_ASN_K_OCTSTR:
        case MV_ASN_K_PRTSTR:
        case MV_ASN_K_OID:
        case MV_ASN_K_BITSTR:
            __mv_asn_free(static_cast<StrRec*>(rec)->data);
            break;
        case MV_ASN_K_SEQ:
            for (unsigned i = 0; i < t->nAll; i++)
                if (t->members[i].type->kind != MV_ASN_K_EXTC) __mv_asn_free_type(t->members[i].type, at(rec, t->members[i].off));
            break;
        case MV_ASN_K_SEQOF: {
            __mv_asn_list* list = static_cast<ListRec*>(rec)->list;
            bool byPtr = itemByPtr(t);
            for (auto* it = list ? list->Head : nullptr; it;) {
                auto* next = it->Next;
                if (byPtr)
                    __mv_asn_free_type(t->item, &it->data);
                else
                    __mv_asn_free(it->data);
                __mv_asn_free(it);
                it = next;
            }
            __mv_asn_free(list);
            break;
        }
        case MV_ASN_K_CHOICE: {
            int sel = static_cast<ChoiceRec*>(rec)->SelectedChoice;
            if (sel < t->nAll) __mv_asn_free_type(t->members[sel].type, at(rec, t->members[sel].off));
            break;
        }
        case MV_ASN_K_MSG:
            for (unsigned i = 0; i < t->nAll; i++)
                if (ld<int>(at(rec, t->ies[i].issetOff)) == 1) __mv_asn_free_type(t->ies[i].type, at(rec, t->ies[i].off));
            break;
        default:
            break;
    }
    __mv_asn_free(rec);
    st(slot, static_cast<void*>(nullptr));
}

void __mv_asn_debug_type(const char* key, const MvAsnType* t, const void* slot, int level) {
    if (!__mv_asn_log_enabled(MV_LOG_DEBUG)) return;
    switch (t->kind) {
        case MV_ASN_K_INT:
            __mv_asn_debug_integer(key, t->name, ld<long long>(slot), level);
            return;
        case MV_ASN_K_ENUM:
        case MV_ASN_K_BOOL:
        case MV_ASN_K_NULL:
            __mv_asn_debug_enum(key, t->name, ld<uint8_t>(slot), level);
            return;
        case MV_ASN_K_SINGLE:
            if (t->item) __mv_asn_debug_type(key, t->item, slot, level);
            return;
        default:
            break;
    }
    const void* rec = ld<const void*>(slot);
    if (!rec) return;
    switch (t->kind) {
        case MV_ASN_K_OCTSTR:
        case MV_ASN_K_OID: {
            auto* s = static_cast<const StrRec*>(rec);
            __mv_asn_debug_string(key, t->name, s->data, s->data ? s->length : 0, level);
            return;
        }
        case MV_ASN_K_PRTSTR: {
            auto* s = static_cast<const StrRec*>(rec);
            __mv_asn_debug_printablestring(key, t->name, s->data, s->data ? s->length : 0, level);
            return;
        }
        case MV_ASN_K_BITSTR: {
            auto* s = static_cast<const BitRec*>(rec);
            if (s->data) __mv_asn_debug_bitstring(key, t->name, s->data, s->length, s->bitslen, level);
            return;
        }
        case MV_ASN_K_SEQ:
            __mv_asn_log(MV_LOG_DEBUG, "%*s %s SEQ key=%s (%s|%s|%d)", level * 2, "", t->name, key, __FILE_NAME__,
                         __func__, __LINE__);
            for (unsigned i = 0; i < t->nAll; i++) {
                const MvAsnMember& m = t->members[i];
                if (m.type->kind == MV_ASN_K_EXTC) continue;
                if (m.presOff >= 0 && ld<int>(at(rec, uint32_t(m.presOff))) != 1) continue;
                __mv_asn_debug_type(m.name, m.type, at(rec, m.off), level + 1);
            }
            return;
        case MV_ASN_K_SEQOF: {
            __mv_asn_log(MV_LOG_DEBUG, "%*s %s SEQ-OF key=%s (%s|%s|%d)", level * 2, "", t->name, key, __FILE_NAME__,
                         __func__, __LINE__);
            __mv_asn_list* list = static_cast<const ListRec*>(rec)->list;
            bool byPtr = itemByPtr(t);
            for (auto* it = list ? list->Head : nullptr; it; it = it->Next)
                if (byPtr || it->data)
                    __mv_asn_debug_type(valueType(t->item)->name, t->item, byPtr ? static_cast<const void*>(&it->data) : it->data,
                                        level + 1);
            return;
        }
        case MV_ASN_K_CHOICE: {
            int sel = static_cast<const ChoiceRec*>(rec)->SelectedChoice;
            __mv_asn_debug_choice(key, t->name, unsigned(sel), level);
            if (sel < t->nAll) __mv_asn_debug_type(t->members[sel].name, t->members[sel].type, at(rec, t->members[sel].off), level + 1);
            return;
        }
        case MV_ASN_K_MSG:
            __mv_asn_log(MV_LOG_DEBUG, "%*s %s SEQ key=%s (%s|%s|%d)", level * 2, "", t->name, key, __FILE_NAME__,
                         __func__, __LINE__);
            for (unsigned i = 0; i < t->nAll; i++)
                if (ld<int>(at(rec, t->ies[i].issetOff)) == 1)
                    __mv_asn_debug_type(t->ies[i].idName, t->ies[i].type, at(rec, t->ies[i].off), level + 1);
            return;
        default:
            return;
    }
}

// ---------------------------------------------------------------- JSON

namespace {
void jsonHex(const uint8_t* d, uint32_t n, std::string& out) {
    static const char* hx = "0123456789abcdef";
    out += '"';
    for (uint32_t i = 0; i < n; i++) {
        out += hx[d[i] >> 4];
        out += hx[d[i] & 15];
    }
    out += '"';
}
void jsonText(const char* s, size_t n, std::string& out) {
    out += '"';
    for (size_t i = 0; i < n; i++) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c < 0x20 || c > 0x7e) {
            char b[8];
            snprintf(b, sizeof b, "\\u%04x", c);
            out += b;
        } else {
            out += char(c);
        }
    }
    out += '"';
}
}  // namespace

void __mv_asn_json_type(const MvAsnType* t, const void* slot, std::string& out) {
    switch (t->kind) {
        case MV_ASN_K_INT: {
            unsigned long long v = ld<unsigned long long>(slot);
            if (!(t->flags & MV_ASN_F_LB) || t->lb < 0)
                out += std::to_string(static_cast<long long>(v));
            else if (v > 9007199254740991ull)
                out += '"' + std::to_string(v) + '"';  // past what a JSON number holds exactly
            else
                out += std::to_string(v);
            return;
        }
        case MV_ASN_K_ENUM: {
            unsigned v = ld<uint8_t>(slot);
            if (v < t->nAll)
                jsonText(t->names[v], strlen(t->names[v]), out);
            else
                out += std::to_string(v);
            return;
        }
        case MV_ASN_K_BOOL:
            out += ld<uint8_t>(slot) ? "true" : "false";
            return;
        case MV_ASN_K_NULL:
            out += "null";
            return;
        case MV_ASN_K_SINGLE:
            if (t->item)
                __mv_asn_json_type(t->item, slot, out);
            else
                out += "null";
            return;
        default:
            break;
    }
    const void* rec = ld<const void*>(slot);
    if (!rec) {
        out += "null";
        return;
    }
    switch (t->kind) {
        case MV_ASN_K_OCTSTR:
        case MV_ASN_K_OID: {
            auto* s = static_cast<const StrRec*>(rec);
            jsonHex(s->data, s->data ? s->length : 0, out);
            return;
        }
        case MV_ASN_K_PRTSTR: {
            auto* s = static_cast<const StrRec*>(rec);
            jsonText(reinterpret_cast<const char*>(s->data), s->data ? s->length : 0, out);
            return;
        }
        case MV_ASN_K_BITSTR: {
            auto* s = static_cast<const BitRec*>(rec);
            out += "{\"bits\":";
            jsonHex(s->data, s->data ? uint32_t((s->bitslen + 7) / 8) : 0, out);
            out += ",\"bitslen\":" + std::to_string(s->bitslen) + "}";
            return;
        }
        case MV_ASN_K_SEQ: {
            out += '{';
            bool first = true;
            for (unsigned i = 0; i < t->nAll; i++) {
                const MvAsnMember& m = t->members[i];
                if (m.type->kind == MV_ASN_K_EXTC) continue;
                if (m.presOff >= 0 && ld<int>(at(rec, uint32_t(m.presOff))) != 1) continue;
                if (!first) out += ',';
                first = false;
                jsonText(m.name, strlen(m.name), out);
                out += ':';
                __mv_asn_json_type(m.type, at(rec, m.off), out);
            }
            out += '}';
            return;
        }
        case MV_ASN_K_SEQOF: {
            out += '[';
            __mv_asn_list* list = static_cast<const ListRec*>(rec)->list;
            bool byPtr = itemByPtr(t);
            for (auto* it = list ? list->Head : nullptr; it; it = it->Next) {
                if (it != list->Head) out += ',';
                if (!byPtr && !it->data)
                    out += "null";
                else
                    __mv_asn_json_type(t->item, byPtr ? static_cast<const void*>(&it->data) : it->data, out);
            }
            out += ']';
            return;
        }
        case MV_ASN_K_CHOICE: {
            int sel = static_cast<const ChoiceRec*>(rec)->SelectedChoice;
            out += '{';
            if (sel < t->nAll) {
                jsonText(t->members[sel].name, strlen(t->members[sel].name), out);
                out += ':';
                __mv_asn_json_type(t->members[sel].type, at(rec, t->members[sel].off), out);
            }
            out += '}';
            return;
        }
        case MV_ASN_K_MSG: {
            out += '{';
            bool first = true;
            for (unsigned i = 0; i < t->nAll; i++) {
                const MvAsnIE& ie = t->ies[i];
                if (ld<int>(at(rec, ie.issetOff)) != 1) continue;
                if (!first) out += ',';
                first = false;
                jsonText(ie.idName, strlen(ie.idName), out);
                out += ':';
                __mv_asn_json_type(ie.type, at(rec, ie.off), out);
            }
            out += '}';
            return;
        }
        default:
            out += "null";
    }
}

// ---------------------------------------------------------------- PDUs

int __mv_asn_encode_pdu(const MvAsnPdu* p, const void* rec, __mv_asn_coding_context* ctx) {
    ctx->pos = 0;
    ctx->usedBits = 0;
    ctx->iError = 0;
    if (!rec) return -1;
    // the PDU CHOICE (extensible, three forms), the procedure code, the criticality
    ctx->buffer[0] = uint8_t(p->form << 5);
    ctx->buffer[1] = p->procedureCode;
    ctx->buffer[2] = uint8_t(p->criticality << 6);
    ctx->buffer[3] = 0;
    ctx->pos = 4;
    int r = encMsg(p->type, rec, ctx);
    if (r != 0) return r;
    if (__mv_asn_set_buffer_length(ctx) < 0) return -1;
    return ctx->iError ? -1 : 0;
}

int __mv_asn_decode_pdu(const MvAsnPdu* p, void* rec, __mv_asn_coding_context* ctx) {
    auto* head = static_cast<__mv_asn_pdu_head*>(rec);
    if (!rec) return -1;
    uint64_t v = 0;
    if (__mv_asn_get_bits(1, &v, ctx) < 0) return -1;
    head->pduIEExtension = uint8_t(v);
    if (__mv_asn_get_bits(2, &v, ctx) < 0) return -1;
    head->pduMessageChoice = uint8_t(v);
    __mv_asn_pad_readbits(ctx);
    if (__mv_asn_get_bits(8, &v, ctx) < 0) return -1;
    head->messageId = uint8_t(v);
    if (__mv_asn_get_bits(2, &v, ctx) < 0) return -1;
    if (head->pduIEExtension || head->pduMessageChoice != p->form || head->messageId != p->procedureCode) {
        __mv_asn_log(MV_LOG_ERROR, "%s: received form %u procedure %u (%s|%s|%d)", p->name, head->pduMessageChoice,
                     head->messageId, __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    int l = __mv_asn_get_range_val_length(ctx);
    if (l < 0) return -1;
    if (int(ctx->pos) + l != int(ctx->len)) {
        __mv_asn_log(MV_LOG_ERROR, "%sinvalid length., expected len=%d received len=%d (%s|%s|%d)", p->name,
                     int(ctx->pos) + l, int(ctx->len), __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    int last = 1;
    int r = decMsgIEs(p->type, rec, ctx, true, &last);
    if (r < 0) return last < 1 ? last : -1;
    return 1;
}

void __mv_asn_debug_pdu(const MvAsnPdu* p, const void* rec) {
    if (!rec) return;
    __mv_asn_log(MV_LOG_DEBUG, "BEGIN DEBUG - %s (%s|%s|%d)", p->name, __FILE_NAME__, __func__, __LINE__);
    const MvAsnType* t = p->type;
    for (unsigned i = 0; i < t->nAll; i++) {
        const MvAsnIE& ie = t->ies[i];
        if (ld<int>(at(rec, ie.issetOff)) == 1)
            __mv_asn_debug_type(ie.idName, ie.type, at(rec, ie.off), 1);
        else if (ie.presence == 2)
            __mv_asn_log(MV_LOG_ERROR, "%s (%d) - Mandatory Parameter Not Set (%s|%s|%d)", ie.idName, ie.id,
                         __FILE_NAME__, __func__, __LINE__);
    }
    __mv_asn_log(MV_LOG_DEBUG, "END DEBUG - %s (%s|%s|%d)", p->name, __FILE_NAME__, __func__, __LINE__);
}

void __mv_asn_memfree_pdu(const MvAsnPdu* p, void* rec) { __mv_asn_free_type(p->type, &rec); }

void __mv_asn_json_pdu(const MvAsnPdu* p, const void* rec, std::string& out) {
    static const char* forms[] = {"initiatingMessage", "successfulOutcome", "unsuccessfulOutcome"};
    out += "{\"pdu\":\"";
    out += p->name;
    out += "\",\"form\":\"";
    out += forms[p->form % 3];
    out += "\",\"procedureCode\":" + std::to_string(p->procedureCode) + ",\"ies\":";
    __mv_asn_json_type(p->type, &rec, out);
    out += '}';
}

const MvAsnPdu* __mv_asn_find_pdu(const MvAsnPdu* table, unsigned count, const uint8_t* bytes, size_t len) {
    if (len < 2 || (bytes[0] & 0x80)) return nullptr;
    unsigned form = (bytes[0] >> 5) & 3;
    for (unsigned i = 0; i < count; i++)
        if (table[i].form == form && table[i].procedureCode == bytes[1]) return &table[i];
    return nullptr;
}
