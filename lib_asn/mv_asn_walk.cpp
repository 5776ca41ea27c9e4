// The parts of the coder that need no constants of a type, and the entry points on a context;
// the coders themselves are the templates of mv_asn_code.h, one instance per descriptor. The
// other walks (free, debug, JSON) go over the descriptors at run time. Records are packed, so
// every slot is read and written through memcpy.
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

// Skips an open type, whatever it holds.
int skipOpen(Reader& r) {
    uint32_t l = 0;
    if (!r.length(&l)) return -1;
    if (r.bit > r.end || uint64_t(l) * 8 > r.end - r.bit) {
        r.fail(MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER);
        return -1;
    }
    r.bit += 8 * l;
    return int(l);
}

}  // namespace

// A ProtocolExtensionContainer: entries of id, criticality and an open type, none of them read.
int mv_asn_detail::mv_asn_skip_extension_container(Reader& r) {
    uint32_t n = 0;
    bool unc = false;
    if (!r.size(&n, 2, 1, kMaxContainer, 0, &unc)) return -1;
    for (uint32_t i = 0; i < n; i++) {
        uint64_t v = 0;
        r.align();
        if (!r.get(16, &v) || !r.get(2, &v)) return -1;
        if (skipOpen(r) < 0) return -1;
    }
    return 0;
}

// A PrivateIE-Container: the id is a CHOICE of a local number or an object identifier.
int mv_asn_detail::mv_asn_skip_private_container(Reader& r) {
    uint32_t n = 0;
    bool unc = false;
    if (!r.size(&n, 2, 1, kMaxContainer, 0, &unc)) return -1;
    for (uint32_t i = 0; i < n; i++) {
        uint64_t v = 0;
        if (!r.get(1, &v)) return -1;
        if (v == 0) {
            r.align();
            if (!r.get(16, &v)) return -1;
        } else {
            if (skipOpen(r) < 0) return -1;  // an OID has the same length-and-octets form
        }
        if (!r.get(2, &v)) return -1;
        if (skipOpen(r) < 0) return -1;
    }
    return 0;
}

int mv_asn_detail::mv_asn_decode_ie(const MvAsnType* t, void* slot, int* isset, Reader& r) {
    return decodeIE(t, slot, isset, r, [t](void* s, Reader& rd) { return t->dec(s, rd); });
}

int mv_asn_detail::mv_asn_skip_ie(Reader& r) {
    int l = skipOpen(r);
    if (l < 0) return -1;
    return l < 128 ? l + 4 : l + 5;
}

void mv_asn_detail::mv_asn_trace_ie(int id, const char* name, int crit, uint32_t bpos, int size, int processed,
                                    const Reader& r) {
    __mv_asn_log(MV_LOG_DEBUG,
                 "IEId=%d, IEName=%s, Criticality=%d, usedBits=%d, bpos=%d, epos=%d, len=%d, processedlen=%d "
                 "(%s|%s|%d)",
                 id, name, crit, int(7 - (r.bit & 7)), int(bpos), int(r.pos()), size, processed, __FILE_NAME__,
                 __func__, __LINE__);
    __mv_asn_dump_item("IE", r.buf + bpos - 2, int(r.pos() - bpos + 2));
}

// The extension additions of a message of a later release: skipped.
int mv_asn_detail::mv_asn_skip_message_additions(uint64_t extBit, Reader& r) {
    if (extBit) {
        unsigned n = 0;
        uint64_t present = 0;
        if (!mv_asn_get_additions(r, &n, &present)) return -1;
        for (int i = __builtin_popcountll(present); i > 0; i--)
            if (skipOpen(r) < 0) return -1;
    }
    return r.ctx->iError ? -1 : 0;
}

// ---------------------------------------------------------------- types

void* __mv_asn_new_record(const MvAsnType* t) {
    t = valueType(t);
    // a PDU's or container's record roots a region, which its decode fills
    if (t->kind == MV_ASN_K_MSG)
        if (void* p = mv_asn_region_new_root(t->size)) return p;
    return __mv_asn_alloc(t->size);
}

int __mv_asn_encode_type(const MvAsnType* t, const void* slot, int level, __mv_asn_coding_context* ctx) {
    Writer w(ctx);
    int r;
    if (level != 0) {
        r = t->enc(slot, w) < 0 ? -1 : 1;
    } else {
        uint32_t start = 0;
        r = w.openStart(&start) ? t->enc(slot, w) : -1;
        if (r == 0) r = w.openEnd(start) ? 1 : -1;
    }
    w.sync();
    return r;
}

int __mv_asn_decode_type(const MvAsnType* t, void* slot, int* isset, int level, __mv_asn_coding_context* ctx) {
    if (isset) st(isset, 0);
    if (__mv_asn_has_decode_error(ctx)) return -1;
    Reader r(ctx);
    int res;
    if (level != 0) {
        res = t->dec(slot, r) < 0 ? -1 : 1;
        if (res < 0)
            __mv_asn_free_type(t, slot);
        else if (isset)
            st(isset, 1);
    } else {
        res = mv_asn_decode_ie(t, slot, isset, r);
    }
    r.sync();
    return res;
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
    if (MvAsnRegion* g = mv_asn_region_of(rec); g && mv_asn_region_decoded(g)) {
        // a decoded PDU holds nothing but its region's records
        mv_asn_region_release(rec);
        st(slot, static_cast<void*>(nullptr));
        return;
    }
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

namespace {

int decodePdu(const MvAsnPdu* p, __mv_asn_pdu_head* head, Reader& r) {
    uint64_t v = 0;
    if (!r.get(1, &v)) return -1;
    head->pduIEExtension = uint8_t(v);
    if (!r.get(2, &v)) return -1;
    head->pduMessageChoice = uint8_t(v);
    r.align();
    if (!r.get(8, &v)) return -1;
    head->messageId = uint8_t(v);
    if (!r.get(2, &v)) return -1;
    if (head->pduIEExtension || head->pduMessageChoice != p->form || head->messageId != p->procedureCode) {
        __mv_asn_log(MV_LOG_ERROR, "%s: received form %u procedure %u (%s|%s|%d)", p->name, head->pduMessageChoice,
                     head->messageId, __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    uint32_t l = 0;
    if (!r.length(&l)) return -1;
    if (r.pos() + l != r.bytes) {
        __mv_asn_log(MV_LOG_ERROR, "%sinvalid length., expected len=%d received len=%d (%s|%s|%d)", p->name,
                     int(r.pos() + l), int(r.bytes), __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    int last = 1;
    if (p->type->decIEs(head, r, &last) < 0) return last < 1 ? last : -1;
    return 1;
}

}  // namespace

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
    Writer w(ctx);
    int r = p->type->enc(&rec, w);
    if (r == 0 && !w.openEnd(3)) r = -1;
    w.sync();
    if (r != 0) return r;
    return ctx->iError ? -1 : int(ctx->pos);
}

int __mv_asn_decode_pdu(const MvAsnPdu* p, void* rec, __mv_asn_coding_context* ctx) {
    auto* head = static_cast<__mv_asn_pdu_head*>(rec);
    if (!rec) return -1;
    Reader r(ctx);
    // the records go to the region the PDU's record roots, when it roots one
    r.region = mv_asn_region_of(rec);
    if (r.region) mv_asn_region_mark_decoded(r.region);
    int res = decodePdu(p, head, r);
    r.sync();
    return res;
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
