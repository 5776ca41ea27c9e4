// Records to JSON and back over the descriptors: what the walker does between records and octets,
// done between records and text.
#include "tlv_json.h"

#include "mv_bytes.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace {

tlv_presence_t presence(const uint8_t* f) { return *reinterpret_cast<const tlv_presence_t*>(f); }

void appendString(std::string& out, const char* s) {
    out += '"';
    for (; *s; s++) {
        if (*s == '"' || *s == '\\') out += '\\';
        out += *s;
    }
    out += '"';
}

void value(const tlv_desc_t* d, const uint8_t* f, std::string& out);

void children(const tlv_desc_t* d, const uint8_t* base, std::string& out) {
    out += '{';
    bool first = true;
    tlv_entry_t e;
    for (bool more = tlv_first_entry(d, e); more; more = tlv_next_entry(d, e)) {
        const uint8_t* f = base + e.off;
        if (!presence(f)) continue;
        if (!first) out += ',';
        first = false;
        appendString(out, e.name);
        out += ':';
        if (!e.array) {
            value(e.desc, f, out);
            continue;
        }
        out += '[';
        for (unsigned k = 0; k < e.slots && presence(f + size_t(k) * e.desc->vsize); k++) {
            if (k) out += ',';
            value(e.desc, f + size_t(k) * e.desc->vsize, out);
        }
        out += ']';
    }
    out += '}';
}

void value(const tlv_desc_t* d, const uint8_t* f, std::string& out) {
    char num[24];
    switch (d->ctype) {
        case TLV_UINT8: snprintf(num, sizeof num, "%u", reinterpret_cast<const tlv_uint8_s*>(f)->u8); break;
        case TLV_UINT16: snprintf(num, sizeof num, "%u", reinterpret_cast<const tlv_uint16_s*>(f)->u16); break;
        case TLV_UINT24: snprintf(num, sizeof num, "%u", reinterpret_cast<const tlv_uint24_s*>(f)->u24 & 0xFFFFFFu); break;
        case TLV_UINT32: snprintf(num, sizeof num, "%u", reinterpret_cast<const tlv_uint32_s*>(f)->u32); break;
        case TLV_INT8: snprintf(num, sizeof num, "%d", reinterpret_cast<const tlv_int8_s*>(f)->i8); break;
        case TLV_INT16: snprintf(num, sizeof num, "%d", reinterpret_cast<const tlv_int16_s*>(f)->i16); break;
        case TLV_INT24: snprintf(num, sizeof num, "%d", reinterpret_cast<const tlv_int24_s*>(f)->i24); break;
        case TLV_INT32: snprintf(num, sizeof num, "%d", reinterpret_cast<const tlv_int32_s*>(f)->i32); break;
        case TLV_NULL: out += "true"; return;
        case TLV_FIXED_STR:
        case TLV_VAR_STR: {
            const auto* o = reinterpret_cast<const tlv_octet_s*>(f);
            uint32_t len = d->ctype == TLV_FIXED_STR && !o->len ? d->length : o->len;
            static const char hex[] = "0123456789abcdef";
            out += '"';
            for (uint32_t i = 0; o->data && i < len; i++) {
                out += hex[o->data[i] >> 4];
                out += hex[o->data[i] & 15];
            }
            out += '"';
            return;
        }
        case TLV_COMPOUND: children(d, f + sizeof(tlv_presence_t), out); return;
        default: out += "null"; return;
    }
    out += num;
}

void text(const tlv_desc_t* d, const uint8_t* base, int indent, std::string& out) {
    tlv_entry_t e;
    for (bool more = tlv_first_entry(d, e); more; more = tlv_next_entry(d, e)) {
        for (unsigned k = 0; k < e.slots; k++) {
            const uint8_t* f = base + e.off + size_t(k) * e.desc->vsize;
            if (!presence(f)) break;
            out.append(size_t(indent), ' ');
            out += e.name;
            if (e.array) out += "[" + std::to_string(k) + "]";
            out += e.desc->ctype == TLV_COMPOUND ? " (" : ": ";
            if (e.desc->ctype == TLV_COMPOUND) {
                out += e.desc->name;
                out += ")\n";
                text(e.desc, f + sizeof(tlv_presence_t), indent + 2, out);
                continue;
            }
            value(e.desc, f, out);
            out += '\n';
        }
    }
}

// Strictly pairs of hexadecimal digits; the runtime's reader does the rest.
bool hexBytes(const char* s, std::vector<uint8_t>& out) {
    size_t n = strlen(s);
    if (n % 2 || strspn(s, "0123456789abcdefABCDEF") != n) return false;
    out.assign(n / 2, 0);
    return n == 0 || __mv_ascii_to_hex(s, int(n), out.data(), int(out.size())) == int(out.size());
}

class Loader {
public:
    Loader(tlv_json_store& store, std::string& err) : store_(store), err_(err) {}

    bool children(const tlv_desc_t* d, uint8_t* base, json_t* obj, const std::string& path) {
        if (!json_is_object(obj)) return bad(path, "is not an object");
        const char* key;
        json_t* v;
        json_object_foreach(obj, key, v) {
            tlv_entry_t e;
            bool more = tlv_first_entry(d, e);
            for (; more && strcmp(key, e.name) != 0; more = tlv_next_entry(d, e)) {
            }
            std::string p = path + "." + key;
            if (!more) return bad(p, "is no field of " + std::string(d->name));
            uint8_t* f = base + e.off;
            if (!e.array) {
                if (!field(e.desc, f, v, p)) return false;
                continue;
            }
            if (!json_is_array(v)) return bad(p, "is not an array");
            if (json_array_size(v) > e.slots) return bad(p, "has more items than the record's slots");
            for (size_t k = 0; k < json_array_size(v); k++)
                if (!field(e.desc, f + k * e.desc->vsize, json_array_get(v, k), p + "[" + std::to_string(k) + "]"))
                    return false;
        }
        return true;
    }

private:
    bool bad(const std::string& path, const std::string& what) {
        err_ = path.substr(path.size() && path[0] == '.' ? 1 : 0) + " " + what;
        return false;
    }

    bool number(json_t* v, const std::string& p, int64_t lo, int64_t hi, int64_t& n) {
        if (!json_is_integer(v)) return bad(p, "is not an integer");
        n = json_integer_value(v);
        if (n < lo || n > hi) return bad(p, "is out of range");
        return true;
    }

    bool field(const tlv_desc_t* d, uint8_t* f, json_t* v, const std::string& p) {
        int64_t n = 0;
        switch (d->ctype) {
            case TLV_UINT8: if (!number(v, p, 0, 0xFF, n)) return false; reinterpret_cast<tlv_uint8_s*>(f)->u8 = uint8_t(n); break;
            case TLV_UINT16: if (!number(v, p, 0, 0xFFFF, n)) return false; reinterpret_cast<tlv_uint16_s*>(f)->u16 = uint16_t(n); break;
            case TLV_UINT24: if (!number(v, p, 0, 0xFFFFFF, n)) return false; reinterpret_cast<tlv_uint24_s*>(f)->u24 = uint32_t(n); break;
            case TLV_UINT32: if (!number(v, p, 0, 0xFFFFFFFF, n)) return false; reinterpret_cast<tlv_uint32_s*>(f)->u32 = uint32_t(n); break;
            case TLV_INT8: if (!number(v, p, INT8_MIN, INT8_MAX, n)) return false; reinterpret_cast<tlv_int8_s*>(f)->i8 = int8_t(n); break;
            case TLV_INT16: if (!number(v, p, INT16_MIN, INT16_MAX, n)) return false; reinterpret_cast<tlv_int16_s*>(f)->i16 = int16_t(n); break;
            case TLV_INT24: if (!number(v, p, -0x800000, 0x7FFFFF, n)) return false; reinterpret_cast<tlv_int24_s*>(f)->i24 = int32_t(n); break;
            case TLV_INT32: if (!number(v, p, INT32_MIN, INT32_MAX, n)) return false; reinterpret_cast<tlv_int32_s*>(f)->i32 = int32_t(n); break;
            case TLV_NULL: if (!json_is_true(v)) return bad(p, "is not true"); break;
            case TLV_FIXED_STR:
            case TLV_VAR_STR: {
                std::vector<uint8_t> b;
                if (!json_is_string(v) || !hexBytes(json_string_value(v), b)) return bad(p, "is not hexadecimal octets");
                if (d->ctype == TLV_FIXED_STR && b.size() != d->length)
                    return bad(p, "is not " + std::to_string(d->length) + " octets");
                if (b.size() > 0xFFFF) return bad(p, "is longer than an element holds");
                auto* o = reinterpret_cast<tlv_octet_s*>(f);
                o->len = uint32_t(b.size());
                o->data = store_.keep(std::move(b));
                break;
            }
            case TLV_COMPOUND:
                if (!children(d, f + sizeof(tlv_presence_t), v, p)) return false;
                break;
            default: return bad(p, "has a kind the JSON form does not hold");
        }
        *reinterpret_cast<tlv_presence_t*>(f) = 1;
        return true;
    }

    tlv_json_store& store_;
    std::string& err_;
};

}  // namespace

void tlv_json_record(const tlv_desc_t* desc, const void* record, std::string& out) {
    const auto* base = static_cast<const uint8_t*>(record);
    if (desc->ctype == TLV_COMPOUND) base += sizeof(tlv_presence_t);
    children(desc, base, out);
}

void tlv_text_record(const tlv_desc_t* desc, const void* record, int indent, std::string& out) {
    const auto* base = static_cast<const uint8_t*>(record);
    if (desc->ctype == TLV_COMPOUND) base += sizeof(tlv_presence_t);
    text(desc, base, indent, out);
}

bool tlv_json_load(const tlv_desc_t* desc, void* record, json_t* obj, tlv_json_store& store, std::string& err) {
    auto* base = static_cast<uint8_t*>(record);
    if (desc->ctype == TLV_COMPOUND) base += sizeof(tlv_presence_t);
    Loader l(store, err);
    return l.children(desc, base, obj, "");
}
