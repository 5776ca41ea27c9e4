// The one TLV encoder and the one TLV decoder. Both walk a descriptor's children in order, stepping
// through the record by each child's vsize; a group recurses into its children with the record
// advanced past its presence word. Nothing is allocated: the encoder writes straight into the
// caller's span (a group's length is patched once its children are out), the decoder points octet
// strings into the input.
#include <cstdio>
#include <type_traits>

#include "tlv.h"
#include "tlv_bytes.h"

namespace {

using tlv::ByteReader;
using tlv::ByteWriter;

struct Mode {
    uint8_t tag, len, inst;
    bool tv;  // tags below 128 are type-value with the descriptor's fixed length
};

bool modeOf(int mode, Mode& m) {
    switch (mode) {
        case TLV_MODE_T1_L1: m = {1, 1, 0, false}; return true;
        case TLV_MODE_T1_L2: m = {1, 2, 0, false}; return true;
        case TLV_MODE_T1_L2_I1: m = {1, 2, 1, false}; return true;
        case TLV_MODE_T2_L2: m = {2, 2, 0, false}; return true;
        case TLV_MODE_T1_TV_L2: m = {1, 2, 0, true}; return true;
        default: return false;
    }
}

tlv_presence_t presence(const uint8_t* field) { return *reinterpret_cast<const tlv_presence_t*>(field); }
void setPresent(uint8_t* field) { *reinterpret_cast<tlv_presence_t*>(field) = 1; }

// The fixed value size of a number kind, 0 for the others.
uint32_t numberSize(tlv_type_e k) {
    switch (k) {
        case TLV_UINT8: case TLV_INT8: return 1;
        case TLV_UINT16: case TLV_INT16: return 2;
        case TLV_UINT24: case TLV_INT24: return 3;
        case TLV_UINT32: case TLV_INT32: return 4;
        default: return 0;
    }
}

using Entry = tlv_entry_t;

bool firstEntry(const tlv_desc_t* parent, Entry& e) { return tlv_first_entry(parent, e); }
bool nextEntry(const tlv_desc_t* parent, Entry& e) { return tlv_next_entry(parent, e); }

class Walk {
public:
    Walk(Mode m, tlv_result_t& r) : m_(m), r_(r) {}

protected:
    bool fail(tlv_error_e e, const tlv_desc_t* parent, uint16_t type, size_t offset, uint32_t length = 0,
              uint32_t expected = 0) {
        r_.error = e;
        r_.parent = parent;
        r_.type = type;
        r_.offset = uint32_t(offset);
        r_.length = length;
        r_.expected = expected;
        return false;
    }
    Mode m_;
    tlv_result_t& r_;
};

class Encoder : public Walk {
public:
    Encoder(Mode m, tlv_result_t& r, ByteWriter& w) : Walk(m, r), w_(w) {}

    bool children(const tlv_desc_t* parent, const uint8_t* base) {
        Entry e;
        for (bool more = firstEntry(parent, e); more; more = nextEntry(parent, e)) {
            for (unsigned k = 0; k < e.slots; k++) {
                const uint8_t* f = base + e.off + size_t(k) * e.desc->vsize;
                if (!presence(f)) {
                    if (e.array) break;  // an array ends at its first absent slot
                    continue;
                }
                if (!element(parent, e.desc, f)) return false;
            }
        }
        return true;
    }

private:
    bool element(const tlv_desc_t* parent, const tlv_desc_t* d, const uint8_t* f) {
        size_t start = w_.pos();
        if ((m_.tag == 1 && d->type > 0xFF) || !(m_.tag == 1 ? w_.u8(uint8_t(d->type)) : w_.u16(d->type)))
            return fail(d->type > 0xFF ? TLV_ERR_BAD_VALUE : TLV_ERR_NO_ROOM, parent, d->type, start);
        const uint8_t* value = nullptr;
        uint32_t len = 0;
        uint8_t num[4];
        if (d->ctype != TLV_COMPOUND && !leafValue(d, f, num, value, len)) return fail(TLV_ERR_BAD_VALUE, parent, d->type, start);
        bool tv = m_.tv && d->type < 128;
        if (tv && (d->ctype == TLV_COMPOUND || len != d->length))
            return fail(TLV_ERR_BAD_VALUE, parent, d->type, start, len, d->length);
        size_t lenAt = w_.pos();
        if (!tv && !(m_.len == 1 ? w_.u8(uint8_t(len)) : w_.u16(uint16_t(len))))
            return fail(TLV_ERR_NO_ROOM, parent, d->type, start);
        if (m_.inst && !w_.u8(d->instance & 0x0F)) return fail(TLV_ERR_NO_ROOM, parent, d->type, start);
        if (d->ctype != TLV_COMPOUND) {
            if (len > (m_.len == 1 ? 0xFFu : 0xFFFFu)) return fail(TLV_ERR_TOO_LONG, parent, d->type, start, len);
            return w_.bytes(value, len) || fail(TLV_ERR_NO_ROOM, parent, d->type, start);
        }
        size_t body = w_.pos();
        if (!children(d, f + sizeof(tlv_presence_t))) return false;
        size_t glen = w_.pos() - body;
        if (glen > (m_.len == 1 ? 0xFFu : 0xFFFFu)) return fail(TLV_ERR_TOO_LONG, parent, d->type, start, uint32_t(glen));
        return m_.len == 1 ? w_.patch8(lenAt, uint8_t(glen)) : w_.patch16(lenAt, uint16_t(glen));
    }

    // The octets of a leaf: numbers big-endian into `num`, strings from the record.
    static bool leafValue(const tlv_desc_t* d, const uint8_t* f, uint8_t* num, const uint8_t*& value, uint32_t& len) {
        uint32_t v = 0;
        switch (d->ctype) {
            case TLV_UINT8: v = reinterpret_cast<const tlv_uint8_s*>(f)->u8; break;
            case TLV_INT8: v = uint8_t(reinterpret_cast<const tlv_int8_s*>(f)->i8); break;
            case TLV_UINT16: v = reinterpret_cast<const tlv_uint16_s*>(f)->u16; break;
            case TLV_INT16: v = uint16_t(reinterpret_cast<const tlv_int16_s*>(f)->i16); break;
            case TLV_UINT24: v = reinterpret_cast<const tlv_uint24_s*>(f)->u24; break;
            case TLV_INT24: v = uint32_t(reinterpret_cast<const tlv_int24_s*>(f)->i24); break;
            case TLV_UINT32: v = reinterpret_cast<const tlv_uint32_s*>(f)->u32; break;
            case TLV_INT32: v = uint32_t(reinterpret_cast<const tlv_int32_s*>(f)->i32); break;
            case TLV_NULL: value = num; len = 0; return true;
            case TLV_FIXED_STR: {
                const auto* o = reinterpret_cast<const tlv_octet_s*>(f);
                // A fixed string with no length set is the descriptor's length, as the record was written.
                if (o->len && o->len != d->length) return false;
                len = d->length;
                value = o->data;
                return value || len == 0;
            }
            case TLV_VAR_STR: {
                const auto* o = reinterpret_cast<const tlv_octet_s*>(f);
                len = o->len;
                value = o->data;
                return value || len == 0;
            }
            default: return false;
        }
        len = numberSize(d->ctype);
        for (uint32_t i = 0; i < len; i++) num[i] = uint8_t(v >> (8 * (len - 1 - i)));
        value = num;
        return true;
    }

    ByteWriter& w_;
};

class Decoder : public Walk {
public:
    Decoder(Mode m, tlv_result_t& r, unsigned flags) : Walk(m, r), flags_(flags) {}

    // `at` is the block's offset in the walked input, for the error's offset.
    bool children(const tlv_desc_t* parent, uint8_t* base, std::span<const uint8_t> block, size_t at) {
        ByteReader rd(block);
        Entry cursor;
        firstEntry(parent, cursor);
        while (rd.remaining()) {
            size_t start = at + rd.pos();
            uint16_t tag = 0;
            uint8_t inst = 0;
            uint32_t len = 0;
            uint8_t t8;
            if (!(m_.tag == 1 ? (rd.u8(t8) && (tag = t8, true)) : rd.u16(tag)))
                return fail(TLV_ERR_SHORT_HEADER, parent, 0, start, uint32_t(rd.remaining()));
            if (m_.tv && tag < 128) {
                const tlv_desc_t* d = findChild(parent, tag);
                if (!d) {
                    // A type-value element carries no length: past an unknown one nothing can be read.
                    r_.stoppedAt = uint32_t(start) + 1;
                    return true;
                }
                len = d->length;
            } else {
                uint16_t l16;
                uint8_t l8;
                if (!(m_.len == 1 ? (rd.u8(l8) && (len = l8, true)) : (rd.u16(l16) && (len = l16, true))))
                    return fail(TLV_ERR_SHORT_HEADER, parent, tag, start, uint32_t(rd.remaining()));
                if (m_.inst) {
                    if (!rd.u8(inst)) return fail(TLV_ERR_SHORT_HEADER, parent, tag, start);
                    inst &= 0x0F;  // the high nibble is spare (or flags of the element)
                }
            }
            std::span<const uint8_t> value;
            if (!rd.bytes(len, value))
                return fail(TLV_ERR_OVERRUN, parent, tag, start, len, uint32_t(rd.remaining()));
            const tlv_desc_t* d = nullptr;
            bool full = false;
            uint8_t* f = findSlot(parent, base, tag, inst, cursor, d, full);
            if (!f) {
                if (full) {
                    r_.dropped++;
                    continue;
                }
                if (flags_ & TLV_DECODE_STRICT) return fail(TLV_ERR_UNEXPECTED, parent, tag, start, len);
                if (!r_.unexpected++) r_.firstUnexpected = tag;
                continue;
            }
            size_t valueAt = at + rd.pos() - len;
            if (d->ctype == TLV_COMPOUND) {
                if (!children(d, f + sizeof(tlv_presence_t), value, valueAt)) return false;
            } else if (!leaf(parent, d, f, value, start)) {
                return false;
            }
            setPresent(f);
        }
        return true;
    }

private:
    static const tlv_desc_t* findChild(const tlv_desc_t* parent, uint16_t tag) {
        Entry e;
        for (bool more = firstEntry(parent, e); more; more = nextEntry(parent, e))
            if (e.desc->type == tag) return e.desc;
        return nullptr;
    }

    // The first free slot of a child with this tag and instance, searched from the cursor on and then
    // from the start, since elements mostly come in descriptor order. Several children may share a
    // tag (seven FQ-CSIDs): they fill in order. `full` says a child matched but had no free slot.
    static uint8_t* findSlot(const tlv_desc_t* parent, uint8_t* base, uint16_t tag, uint8_t inst, Entry& cursor,
                             const tlv_desc_t*& d, bool& full) {
        if (!cursor.desc) return nullptr;
        Entry e = cursor;
        for (int pass = 0; pass < 2; pass++) {
            for (bool more = true; more; more = nextEntry(parent, e)) {
                if (pass == 1 && e.index >= cursor.index) break;
                if (e.desc->type != tag || e.desc->instance != inst || e.desc->ctype == TLV_MORE) continue;
                for (unsigned k = 0; k < e.slots; k++) {
                    uint8_t* f = base + e.off + size_t(k) * e.desc->vsize;
                    if (!presence(f)) {
                        cursor = e;
                        d = e.desc;
                        return f;
                    }
                }
                full = true;
            }
            firstEntry(parent, e);
        }
        return nullptr;
    }

    bool leaf(const tlv_desc_t* parent, const tlv_desc_t* d, uint8_t* f, std::span<const uint8_t> v, size_t start) {
        uint32_t len = uint32_t(v.size());
        uint32_t want = numberSize(d->ctype);
        if (d->ctype == TLV_FIXED_STR) want = d->length;
        bool fixed = want || d->ctype == TLV_NULL;
        if (fixed && len != want) return fail(TLV_ERR_BAD_LENGTH, parent, d->type, start, len, want);
        uint32_t n = 0;
        for (uint32_t i = 0; i < want && d->ctype != TLV_FIXED_STR; i++) n = n << 8 | v[i];
        switch (d->ctype) {
            case TLV_UINT8: reinterpret_cast<tlv_uint8_s*>(f)->u8 = uint8_t(n); break;
            case TLV_INT8: reinterpret_cast<tlv_int8_s*>(f)->i8 = int8_t(n); break;
            case TLV_UINT16: reinterpret_cast<tlv_uint16_s*>(f)->u16 = uint16_t(n); break;
            case TLV_INT16: reinterpret_cast<tlv_int16_s*>(f)->i16 = int16_t(n); break;
            case TLV_UINT24: reinterpret_cast<tlv_uint24_s*>(f)->u24 = n; break;
            case TLV_INT24: reinterpret_cast<tlv_int24_s*>(f)->i24 = int32_t(n << 8) >> 8; break;
            case TLV_UINT32: reinterpret_cast<tlv_uint32_s*>(f)->u32 = n; break;
            case TLV_INT32: reinterpret_cast<tlv_int32_s*>(f)->i32 = int32_t(n); break;
            case TLV_FIXED_STR:
            case TLV_VAR_STR: {
                auto* o = reinterpret_cast<tlv_octet_s*>(f);
                o->data = v.data();
                o->len = len;
                break;
            }
            default: break;
        }
        return true;
    }

    unsigned flags_;
};

}  // namespace

namespace {

// What the three walks share: the result, the mode, the start of the children in the record.
template <class Record, class Body>
int walk(const tlv_desc_t* desc, Record* record, int mode, tlv_result_t* res, Body body) {
    tlv_result_t local{};
    tlv_result_t& r = res ? *res : local;
    r = tlv_result_t{};
    Mode m;
    if (!desc || !record || !modeOf(mode, m)) {
        r.error = TLV_ERR_BAD_MODE;
        return -1;
    }
    auto* base = static_cast<std::conditional_t<std::is_const_v<Record>, const uint8_t, uint8_t>*>(record);
    if (desc->ctype == TLV_COMPOUND) base += sizeof(tlv_presence_t);
    return body(m, r, base);
}

}  // namespace

int tlv_encode(const tlv_desc_t* desc, const void* record, int mode, std::span<uint8_t> out, tlv_result_t* res) {
    return walk(desc, record, mode, res, [&](Mode m, tlv_result_t& r, const uint8_t* base) {
        ByteWriter w(out);
        Encoder e(m, r, w);
        return e.children(desc, base) ? int(w.pos()) : -1;
    });
}

int tlv_encoded_size(const tlv_desc_t* desc, const void* record, int mode, tlv_result_t* res) {
    return walk(desc, record, mode, res, [&](Mode m, tlv_result_t& r, const uint8_t* base) {
        ByteWriter w = ByteWriter::counter();
        Encoder e(m, r, w);
        return e.children(desc, base) ? int(w.pos()) : -1;
    });
}

int tlv_decode(const tlv_desc_t* desc, void* record, int mode, std::span<const uint8_t> in, tlv_result_t* res,
               unsigned flags) {
    return walk(desc, record, mode, res, [&](Mode m, tlv_result_t& r, uint8_t* base) {
        Decoder d(m, r, flags);
        return d.children(desc, base, in, 0) ? 1 : -1;
    });
}

int tlv_format_error(const tlv_result_t* r, char* buf, size_t size) {
    if (!r || !buf || !size) return 0;
    const char* in = r->parent && r->parent->name ? r->parent->name : "?";
    switch (r->error) {
        case TLV_OK: return snprintf(buf, size, "no error");
        case TLV_ERR_SHORT_HEADER:
            return snprintf(buf, size, "Can't parse TLV message: %s ends inside an element header at octet %u", in,
                            r->offset);
        case TLV_ERR_OVERRUN:
            return snprintf(buf, size, "Can't parse TLV message: TLV type:%u at octet %u of %s has length %u, %u left",
                            r->type, r->offset, in, r->length, r->expected);
        case TLV_ERR_BAD_LENGTH:
            return snprintf(buf, size, "Invalid TLV length %u. It should be %u (TLV type:%u in %s)", r->length,
                            r->expected, r->type, in);
        case TLV_ERR_UNEXPECTED: return snprintf(buf, size, "Unexpected TLV type:%u in %s", r->type, in);
        case TLV_ERR_NO_ROOM: return snprintf(buf, size, "no room for TLV type:%u of %s", r->type, in);
        case TLV_ERR_TOO_LONG:
            return snprintf(buf, size, "TLV type:%u of %s is %u octets, more than its length field holds", r->type,
                            in, r->length);
        case TLV_ERR_BAD_VALUE: return snprintf(buf, size, "TLV type:%u of %s has no value of its kind", r->type, in);
        case TLV_ERR_BAD_MODE: return snprintf(buf, size, "bad TLV mode or descriptor");
    }
    return 0;
}

#define TLV_MORE_DESC(n) const tlv_desc_t tlv_desc_more##n = {TLV_MORE, "More", 0, n, 0, 0, nullptr, nullptr};
TLV_MORE_DESC(1)
TLV_MORE_DESC(2)
TLV_MORE_DESC(3)
TLV_MORE_DESC(4)
TLV_MORE_DESC(5)
TLV_MORE_DESC(6)
TLV_MORE_DESC(7)
TLV_MORE_DESC(8)
TLV_MORE_DESC(9)
TLV_MORE_DESC(10)
TLV_MORE_DESC(11)
#undef TLV_MORE_DESC
