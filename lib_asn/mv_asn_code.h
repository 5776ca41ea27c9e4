// The one aligned-PER encoder and decoder of both families, written once as templates over the
// descriptors. The generated tables are constant, so each descriptor instantiates its own coder
// with its bounds, members and IEs folded in, and names it in its `enc` and `dec`. Included only
// by the generated tables.
#pragma once

#include <cerrno>
#include <utility>

#include "mv_asn.h"
#include "mv_asn_internal.h"
#include "mv_core.h"

namespace mv_asn_detail {

template <const MvAsnType& t>
int encT(const void* slot, Writer& w);
template <const MvAsnType& t>
int decT(void* slot, Reader& r);

constexpr int lengthTypeOf(const MvAsnType& t) {
    if (!(t.flags & MV_ASN_F_UB)) return 0;
    return t.lb == t.ub ? 1 : 2;
}
constexpr bool byPtrOf(const MvAsnType& t) {
    return t.item->store == MV_ASN_S_PTR || t.item->kind == MV_ASN_K_SINGLE;
}
// Named so that a descriptor known to be there raises no warning where the test folds away.
constexpr bool absent(const MvAsnType* t) { return t == nullptr; }
constexpr bool emptySingle(const MvAsnType& t) { return t.kind == MV_ASN_K_SINGLE && absent(t.item); }
constexpr const MvAsnType& valueTypeOf(const MvAsnType& t) {
    return t.kind == MV_ASN_K_SINGLE && !absent(t.item) ? valueTypeOf(*t.item) : t;
}

// Calls f(std::integral_constant<unsigned, I>) for I in 0..N-1, in order, while it returns true.
template <unsigned N, class F>
bool forEach(F&& f) {
    return [&]<unsigned... I>(std::integer_sequence<unsigned, I...>) {
        return (f(std::integral_constant<unsigned, I>{}) && ...);
    }(std::make_integer_sequence<unsigned, N>{});
}

// ---------------------------------------------------------------- encoding

template <const MvAsnType& t>
int encOpenT(const void* slot, Writer& w) {
    uint32_t start = 0;
    if (!w.openStart(&start)) return -1;
    int r = encT<t>(slot, w);
    if (r != 0) return r;
    return w.openEnd(start) ? 0 : -1;
}

// An extensible fixed size takes any other length in its extension form, so only a size
// without the marker makes a wrong length an error.
template <const MvAsnType& t>
void logFixedLengthT(uint32_t len) {
    if constexpr (lengthTypeOf(t) == 1 && !t.ext) {
        if (int64_t(len) != t.lb)
            __mv_asn_log(MV_LOG_ERROR, "%s is Fixed Length=(%lld) which is set to invalid length=%u (%s|%s|%d)",
                         t.name, static_cast<long long>(t.lb), len, __FILE_NAME__, __func__, __LINE__);
    }
}

template <const MvAsnType& t>
int encMsgT(const void* rec, Writer& w) {
    if constexpr (t.flags & MV_ASN_F_PRIVATE) {
        // A private container holds at least one IE and the record carries none to send.
        __mv_asn_log(MV_LOG_ERROR, "%s has no private IEs to send (%s|%s|%d)", t.name, __FILE_NAME__, __func__,
                     __LINE__);
        return -1;
    } else {
        if (t.ext && !w.put(0, 1)) return -1;
        w.align();
        uint32_t countPos = w.pos();
        if (!w.put(0, 16)) return -1;
        int count = 0, r = 0;
        forEach<t.nAll>([&](auto I) {
            constexpr const MvAsnIE& ie = t.ies[I];
            if (ld<int>(at(rec, ie.issetOff)) != 1) return true;
            count++;
            w.align();
            r = w.put(ie.id, 16) && w.put(ie.criticality & 3u, 2) ? 0 : -1;
            if (r == 0) r = encOpenT<*ie.type>(at(rec, ie.off), w) < 0 ? -1 : 0;
            if (r != 0) {
                __mv_asn_log(MV_LOG_ERROR, "error while encoding %s %d|%s|%s", valueTypeOf(*ie.type).name, r,
                             __FILE_NAME__, __func__);
                return false;
            }
            return true;
        });
        if (r != 0) return r;
        w.buf[countPos] = uint8_t(count >> 8);
        w.buf[countPos + 1] = uint8_t(count);
        return 0;
    }
}

template <const MvAsnType& t>
int encIntT(uint64_t v, Writer& w) {
    if constexpr ((t.flags & MV_ASN_F_LB) && (t.flags & MV_ASN_F_UB)) {
        if (!t.ext && v - uint64_t(t.lb) > uint64_t(t.ub) - uint64_t(t.lb)) {
            __mv_asn_log(MV_LOG_ERROR, "%s value %lld out of range %lld..%lld (%s|%s|%d)", t.name,
                         static_cast<long long>(v), static_cast<long long>(t.lb), static_cast<long long>(t.ub),
                         __FILE_NAME__, __func__, __LINE__);
            return -1;
        }
        return mv_asn_put_cint(w, v, 0, t.lb, t.ub, t.ext) ? 0 : -1;
    } else if constexpr (t.flags & MV_ASN_F_LB) {
        if (int64_t(v) < t.lb) return -1;
        uint64_t off = v - uint64_t(t.lb);
        int n = octetsOf(off);
        return w.length(uint32_t(n)) && w.put(off, unsigned(8 * n)) ? 0 : -1;
    } else {
        return w.unconstrained(int64_t(v)) ? 0 : -1;
    }
}

template <const MvAsnType& t>
int encSeqT(const void* rec, Writer& w) {
    if (t.ext && !w.put(0, 1)) return -1;
    bool ok = forEach<t.nRoot>([&](auto I) {
        constexpr const MvAsnMember& m = t.members[I];
        if constexpr (!m.optional) {
            return true;
        } else {
            int present = m.presOff >= 0 ? ld<int>(at(rec, uint32_t(m.presOff))) == 1 : 0;
            return w.put(uint64_t(present), 1);
        }
    });
    if (!ok) return -1;
    ok = forEach<t.nRoot>([&](auto I) {
        constexpr const MvAsnMember& m = t.members[I];
        if constexpr (m.type->kind == MV_ASN_K_EXTC) {
            return true;
        } else {
            if (m.optional && (m.presOff < 0 || ld<int>(at(rec, uint32_t(m.presOff))) != 1)) return true;
            return encT<*m.type>(at(rec, m.off), w) >= 0;
        }
    });
    return ok ? 0 : -1;
}

template <const MvAsnType& t>
int encListT(const ListRec* rec, Writer& w) {
    __mv_asn_list* list = rec ? rec->list : nullptr;
    int count = list ? int(list->Count) : 0;
    if ((t.flags & MV_ASN_F_LB) && count < t.lb && !t.ext) {
        __mv_asn_log(MV_LOG_ERROR, "%s should have min items=(%lld) which is having item-count=%d (%s|%s|%d)", t.name,
                     static_cast<long long>(t.lb), count, __FILE_NAME__, __func__, __LINE__);
        return -1;
    }
    if ((t.flags & MV_ASN_F_UB) && count > t.ub && !t.ext) {
        __mv_asn_log(MV_LOG_ERROR, "%s should have max items=(%lld) which is having item-count=%d (%s|%s|%d)", t.name,
                     static_cast<long long>(t.ub), count, __FILE_NAME__, __func__, __LINE__);
        return -ENOENT;
    }
    bool unc = false;
    if (!w.size(uint32_t(count), lengthTypeOf(t), int(t.lb), int(t.ub), t.ext, &unc)) return -1;
    for (auto* it = list ? list->Head : nullptr; it; it = it->Next) {
        int r;
        if constexpr (byPtrOf(t)) {
            r = encT<*t.item>(&it->data, w);
        } else {
            if (!it->data) return -1;
            r = encT<*t.item>(it->data, w);
        }
        if (r != 0) return r;
    }
    return 0;
}

template <const MvAsnType& t>
int encChoiceT(const ChoiceRec* rec, Writer& w) {
    if (!rec) return -1;
    int sel = rec->SelectedChoice;
    if (sel >= t.nAll) {
        __mv_asn_log(MV_LOG_ERROR, "%s has no alternative %d (%s|%s|%d)", t.name, sel, __FILE_NAME__, __func__,
                     __LINE__);
        return -1;
    }
    int r = -1;
    forEach<t.nAll>([&](auto I) {
        if (sel != int(I)) return true;
        constexpr const MvAsnMember& m = t.members[I];
        if constexpr (emptySingle(*m.type)) {
            r = -1;
        } else {
            constexpr bool isExt = I >= t.nRoot;
            if (!mv_asn_put_index(w, t.ext, int(I), t.nRoot, isExt))
                r = -1;
            else if constexpr (isExt)
                r = encOpenT<*m.type>(at(rec, m.off), w);
            else
                r = encT<*m.type>(at(rec, m.off), w);
        }
        return false;
    });
    return r;
}

template <const MvAsnType& t>
int encT(const void* slot, Writer& w) {
    if constexpr (t.kind == MV_ASN_K_INT) {
        return encIntT<t>(ld<uint64_t>(slot), w);
    } else if constexpr (t.kind == MV_ASN_K_ENUM) {
        int v = ld<uint8_t>(slot);
        if (v >= t.nAll) {
            __mv_asn_log(MV_LOG_ERROR, "%s has no value %d (%s|%s|%d)", t.name, v, __FILE_NAME__, __func__, __LINE__);
            return -1;
        }
        return mv_asn_put_index(w, t.ext, v, t.nRoot, v >= t.nRoot) ? 0 : -1;
    } else if constexpr (t.kind == MV_ASN_K_BOOL) {
        return w.put(ld<uint8_t>(slot) ? 1 : 0, 1) ? 0 : -1;
    } else if constexpr (t.kind == MV_ASN_K_NULL) {
        return 0;
    } else if constexpr (t.kind == MV_ASN_K_OCTSTR || t.kind == MV_ASN_K_PRTSTR || t.kind == MV_ASN_K_OID) {
        auto* rec = ld<const StrRec*>(slot);
        const uint8_t* data = rec ? rec->data : nullptr;
        uint32_t len = rec && data ? rec->length : 0;
        logFixedLengthT<t>(len);
        if (len > MV_ASN_BUFFER_SIZE) return -1;
        return mv_asn_put_octets(w, data, len, lengthTypeOf(t), int(t.lb), int(t.ub), t.ext) ? 0 : -1;
    } else if constexpr (t.kind == MV_ASN_K_BITSTR) {
        auto* rec = ld<const BitRec*>(slot);
        int bits = rec && rec->data ? rec->bitslen : 0;
        logFixedLengthT<t>(uint32_t(bits));
        if (bits < 0 || bits > 8 * MV_ASN_BUFFER_SIZE) return -1;
        return mv_asn_put_bits(w, rec ? rec->data : nullptr, bits, lengthTypeOf(t), int(t.lb), int(t.ub), t.ext) ? 0
                                                                                                                : -1;
    } else if constexpr (t.kind == MV_ASN_K_SEQ) {
        const void* rec = ld<const void*>(slot);
        if (!rec) {
            __mv_asn_log(MV_LOG_ERROR, "%s is missing (%s|%s|%d)", t.name, __FILE_NAME__, __func__, __LINE__);
            return -1;
        }
        return encSeqT<t>(rec, w);
    } else if constexpr (t.kind == MV_ASN_K_SEQOF) {
        return encListT<t>(ld<const ListRec*>(slot), w);
    } else if constexpr (t.kind == MV_ASN_K_CHOICE) {
        return encChoiceT<t>(ld<const ChoiceRec*>(slot), w);
    } else if constexpr (t.kind == MV_ASN_K_MSG) {
        const void* rec = ld<const void*>(slot);
        if (!rec) return -1;
        return encMsgT<t>(rec, w);
    } else if constexpr (t.kind == MV_ASN_K_SINGLE) {
        if constexpr (absent(t.item)) {
            return -1;
        } else {
            w.align();
            if (!w.put(t.ies[0].id, 16) || !w.put(t.ies[0].criticality & 3u, 2)) return -1;
            return encOpenT<*t.item>(slot, w);
        }
    } else {
        return -1;
    }
}

// ---------------------------------------------------------------- decoding

// Decodes one open type within its own length and leaves the cursor at its end, whatever the
// value inside has read. A null type only skips it.
template <const MvAsnType* t>
int decOpenT(void* slot, Reader& r) {
    uint32_t l = 0;
    if (!r.length(&l)) return -1;
    if (r.bit > r.end || uint64_t(l) * 8 > r.end - r.bit) {
        r.fail(MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER);
        return -1;
    }
    uint32_t saved = r.end, start = r.bit;
    r.end = start + 8 * l;
    int res = 0;
    if constexpr (!absent(t)) res = decT<*t>(slot, r);
    r.end = saved;
    r.bit = start + 8 * l;
    return res;
}

template <const MvAsnType& t>
int decStrT(void* slot, Reader& r) {
    if constexpr (t.kind == MV_ASN_K_BITSTR) {
        auto* rec = static_cast<BitRec*>(r.alloc(sizeof(BitRec)));
        st(slot, rec);
        uint8_t* data = nullptr;
        uint32_t length = 0;
        int bits = 0;
        if (!mv_asn_get_bits_string(r, &data, &length, &bits, lengthTypeOf(t), int(t.lb), int(t.ub), t.ext)) return -1;
        rec->data = data;
        rec->length = length;
        rec->bitslen = bits;
        return 0;
    } else {
        auto* rec = static_cast<StrRec*>(r.alloc(sizeof(StrRec)));
        st(slot, rec);
        uint8_t* data = nullptr;
        uint32_t length = 0;
        if (!mv_asn_get_octets(r, &data, &length, lengthTypeOf(t), int(t.lb), int(t.ub), t.ext)) return -1;
        rec->data = data;
        rec->length = length;
        return 0;
    }
}

template <const MvAsnType& t>
int decIntT(void* slot, Reader& r) {
    uint64_t v = 0;
    if constexpr ((t.flags & MV_ASN_F_LB) && (t.flags & MV_ASN_F_UB)) {
        if (!mv_asn_get_cint(r, &v, t.lb, t.ub, t.ext)) return -1;
    } else if constexpr (t.flags & MV_ASN_F_LB) {
        uint32_t n = 0;
        if (!r.length(&n)) return -1;
        if (n < 1 || n > 8) return -1;
        if (!r.get(8 * n, &v)) return -1;
        v += uint64_t(t.lb);
    } else {
        int64_t sv = 0;
        if (!r.unconstrained(&sv)) return -1;
        v = uint64_t(sv);
    }
    st(slot, v);
    return 0;
}

template <const MvAsnType& t>
int decSeqT(void* slot, Reader& r) {
    void* rec = r.alloc(t.size);
    st(slot, rec);
    uint64_t extBit = 0;
    if (t.ext && !r.get(1, &extBit)) return -1;
    uint64_t present = 0;  // bit i: optional member i is there
    bool ok = forEach<t.nRoot>([&](auto I) {
        if constexpr (!t.members[I].optional || I >= 64) {
            return true;
        } else {
            uint64_t b = 0;
            if (!r.get(1, &b)) return false;
            present |= b << I;
            return true;
        }
    });
    if (!ok) return -1;
    ok = forEach<t.nRoot>([&](auto I) {
        constexpr const MvAsnMember& m = t.members[I];
        if constexpr (m.optional) {
            if (I >= 64 || !(present >> I & 1)) return true;
        }
        if constexpr (m.type->kind == MV_ASN_K_EXTC) {
            return mv_asn_skip_extension_container(r) >= 0;
        } else {
            if (decT<*m.type>(at(rec, m.off), r) < 0) return false;
            if constexpr (m.presOff >= 0) st(at(rec, uint32_t(m.presOff)), 1);
            return true;
        }
    });
    if (!ok) return -1;
    if (extBit) {
        // additions of a later release: each an open type, taken where known, else skipped
        unsigned n = 0;
        uint64_t addPresent = 0;
        if (!mv_asn_get_additions(r, &n, &addPresent)) return -1;
        for (unsigned i = 0; i < n; i++) {
            if (!(addPresent >> i & 1)) continue;
            unsigned idx = t.nRoot + i;
            int res = 0;
            bool known = !forEach<t.nAll - t.nRoot>([&](auto K) {
                if (idx != t.nRoot + K) return true;
                constexpr const MvAsnMember& m = t.members[t.nRoot + K];
                res = decOpenT<m.type>(at(rec, m.off), r);
                if (res >= 0 && m.presOff >= 0) st(at(rec, uint32_t(m.presOff)), 1);
                return false;
            });
            if (!known) res = decOpenT<nullptr>(nullptr, r);
            if (res < 0) return -1;
        }
    }
    return 0;
}

template <const MvAsnType& t>
int decListT(void* slot, Reader& r) {
    auto* rec = static_cast<ListRec*>(r.alloc(sizeof(ListRec)));
    st(slot, rec);
    uint32_t n = 0;
    bool unc = false;
    if (!r.size(&n, lengthTypeOf(t), int(t.lb), int(t.ub), t.ext, &unc)) return -1;
    for (uint32_t i = 0; i < n; i++) {
        if constexpr (byPtrOf(t)) {
            void* item = nullptr;
            int res = decT<*t.item>(&item, r);
            // a partly decoded item still joins the list, so that freeing finds it
            if (item || res == 0) mv_asn_list_add_from(r, rec, item);
            if (res < 0) return -1;
        } else {
            void* cell = r.alloc(8);
            mv_asn_list_add_from(r, rec, cell);
            if (decT<*t.item>(cell, r) < 0) return -1;
        }
    }
    return 0;
}

template <const MvAsnType& t>
int decChoiceT(void* slot, Reader& r) {
    auto* rec = static_cast<ChoiceRec*>(r.alloc(t.size));
    st(slot, rec);
    int isExt = 0, sel = -1;
    if (!mv_asn_get_choice(r, t.ext, t.nRoot, &isExt, &sel)) return -1;
    int res = -2;
    forEach<t.nAll>([&](auto I) {
        if (sel != int(I)) return true;
        constexpr const MvAsnMember& m = t.members[I];
        if constexpr (!emptySingle(*m.type)) {
            rec->SelectedChoice = uint8_t(I);
            res = isExt ? decOpenT<m.type>(at(rec, m.off), r) : decT<*m.type>(at(rec, m.off), r);
        }
        return false;
    });
    if (res == -2) {
        __mv_asn_log(MV_LOG_ERROR, "%s has no alternative %d (%s|%s|%d)", t.name, sel, __FILE_NAME__, __func__,
                     __LINE__);
        r.fail(MV_ASN_DECODE_ERROR_CHOICE);
        return -1;
    }
    return res;
}

// The IEs of a container, in whatever order they come; returns 0, or -1 with the last IE's
// result in *lastResult. At PDU level the head's count and error mark are set.
template <const MvAsnType& t>
int decMsgIEsT(void* rec, Reader& r, bool pduLevel, int* lastResult) {
    uint64_t extBit = 0;
    if (t.ext && !r.get(1, &extBit)) return -1;
    if constexpr (t.flags & MV_ASN_F_PRIVATE) {
        return mv_asn_skip_private_container(r);
    } else {
        r.align();
        uint64_t count = 0;
        if (!r.get(16, &count)) return -1;
        int processed = 3;
        uint16_t decoded = 0;
        bool trace = pduLevel && __mv_asn_log_enabled(MV_LOG_DEBUG);
        for (uint64_t i = 0; i < count; i++) {
            uint64_t id = 0, crit = 0;
            r.align();
            if (!r.get(16, &id) || !r.get(2, &crit)) {
                *lastResult = -1;
                break;
            }
            uint32_t bpos = r.pos();
            const char* name = "unknown";
            int res = 0;
            bool known = !forEach<t.nAll>([&](auto I) {
                constexpr const MvAsnIE& ie = t.ies[I];
                if (id != ie.id) return true;
                void* slot = at(rec, ie.off);
                // a repeated IE replaces the first
                if (ld<int>(at(rec, ie.issetOff)) == 1) __mv_asn_free_type(ie.type, slot);
                int isset = 0;
                res = decodeIE(ie.type, slot, &isset, r, [](void* s, Reader& rd) { return decT<*ie.type>(s, rd); });
                st(at(rec, ie.issetOff), isset);
                name = ie.idName;
                return false;
            });
            if (!known) res = mv_asn_skip_ie(r);
            *lastResult = res;
            if (res < 1) {
                if (pduLevel) {
                    static_cast<__mv_asn_pdu_head*>(rec)->decodingError = 1;
                    __mv_asn_log(MV_LOG_ERROR,
                                 "Error while decoding IEId=%d, Criticality=%d, ie_processedlen=%d (%s|%s|%d)",
                                 int(id), int(crit), processed, __FILE_NAME__, __func__, __LINE__);
                }
                break;
            }
            processed += res;
            decoded++;
            if (trace) mv_asn_trace_ie(int(id), name, int(crit), bpos, res, processed, r);
        }
        if (pduLevel) static_cast<__mv_asn_pdu_head*>(rec)->iECount = decoded;
        if (*lastResult < 1) return -1;
        return mv_asn_skip_message_additions(extBit, r);
    }
}

template <const MvAsnType& t>
int decT(void* slot, Reader& r) {
    if (r.ctx->iError) return -1;
    if constexpr (t.kind == MV_ASN_K_INT) {
        return decIntT<t>(slot, r);
    } else if constexpr (t.kind == MV_ASN_K_ENUM) {
        uint64_t isExt = 0;
        if (t.ext && !r.get(1, &isExt)) return -1;
        int v = -1;
        if (!mv_asn_get_enum(r, int(isExt), t.nRoot, &v)) return -1;
        if (v >= t.nAll) {
            // a value of a later release: nothing in the record can hold it
            r.fail(MV_ASN_DECODE_ERROR_ENUMERATOR);
            return -1;
        }
        st(slot, uint8_t(v));
        return 0;
    } else if constexpr (t.kind == MV_ASN_K_BOOL) {
        uint64_t b = 0;
        if (!r.get(1, &b)) return -1;
        st(slot, uint8_t(b));
        return 0;
    } else if constexpr (t.kind == MV_ASN_K_NULL) {
        st(slot, uint8_t(1));
        return 0;
    } else if constexpr (t.kind == MV_ASN_K_OCTSTR || t.kind == MV_ASN_K_PRTSTR || t.kind == MV_ASN_K_OID ||
                         t.kind == MV_ASN_K_BITSTR) {
        return decStrT<t>(slot, r);
    } else if constexpr (t.kind == MV_ASN_K_SEQ) {
        return decSeqT<t>(slot, r);
    } else if constexpr (t.kind == MV_ASN_K_SEQOF) {
        return decListT<t>(slot, r);
    } else if constexpr (t.kind == MV_ASN_K_CHOICE) {
        return decChoiceT<t>(slot, r);
    } else if constexpr (t.kind == MV_ASN_K_MSG) {
        void* rec = r.alloc(t.size);
        st(slot, rec);
        int last = 1;
        return decMsgIEsT<t>(rec, r, false, &last);
    } else if constexpr (t.kind == MV_ASN_K_SINGLE) {
        r.align();
        uint64_t v = 0;
        if (!r.get(16, &v) || !r.get(2, &v)) return -1;
        return decOpenT<t.item>(slot, r);
    } else {
        return -1;
    }
}

// The entry points a descriptor names: its value, and for a message or container its IEs into a
// record that is already there.
template <const MvAsnType& t>
int mvAsnEncode(const void* slot, Writer& w) {
    return encT<t>(slot, w);
}
template <const MvAsnType& t>
int mvAsnDecode(void* slot, Reader& r) {
    return decT<t>(slot, r);
}
template <const MvAsnType& t>
int mvAsnDecodeIEs(void* rec, Reader& r, int* lastResult) {
    return decMsgIEsT<t>(rec, r, true, lastResult);
}

}  // namespace mv_asn_detail
