// Records from JSON: the inverse of __mv_asn_json_pdu, so that a PDU printed by the tool can be
// edited and encoded again, and test messages can be written as values rather than code.
#include <jansson.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "mv_asn.h"
#include "mv_asn_internal.h"

using namespace mv_asn_detail;

namespace {

bool hexBytes(const char* s, std::vector<uint8_t>& out) {
    auto nib = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    size_t n = strlen(s);
    if (n % 2) return false;
    out.clear();
    for (size_t i = 0; i < n; i += 2) {
        int hi = nib(s[i]), lo = nib(s[i + 1]);
        if (hi < 0 || lo < 0) return false;
        out.push_back(uint8_t(hi << 4 | lo));
    }
    return true;
}

// The JSON form writes each octet of a text as the character of that number, so that octets
// outside the printable set (a peer may send them) come back unchanged.
bool latin1(json_t* j, std::vector<uint8_t>& out) {
    const auto* u = reinterpret_cast<const uint8_t*>(json_string_value(j));
    size_t n = json_string_length(j);
    for (size_t i = 0; i < n; i++) {
        if (u[i] < 0x80) {
            out.push_back(u[i]);
        } else if ((u[i] == 0xC2 || u[i] == 0xC3) && i + 1 < n && (u[i + 1] & 0xC0) == 0x80) {
            out.push_back(uint8_t((u[i] & 0x03) << 6 | (u[i + 1] & 0x3F)));
            i++;
        } else {
            return false;
        }
    }
    return true;
}

class Loader {
public:
    std::string err;

    // Fills the slot of `t` from `j`. On failure the slot may hold a partial record, which the
    // free operations release like any other.
    bool load(const MvAsnType* t, json_t* j, void* slot) {
        switch (t->kind) {
            case MV_ASN_K_INT: {
                unsigned long long v;
                if (json_is_integer(j)) {
                    v = static_cast<unsigned long long>(json_integer_value(j));
                } else if (json_is_string(j) && *json_string_value(j) &&
                           strspn(json_string_value(j), "0123456789") == json_string_length(j) &&
                           json_string_length(j) <= 20) {
                    // large unsigned values travel as decimal text
                    v = strtoull(json_string_value(j), nullptr, 10);
                } else {
                    return fail("expected an integer");
                }
                st(slot, v);
                return true;
            }
            case MV_ASN_K_ENUM:
                return loadEnum(t, j, slot);
            case MV_ASN_K_BOOL:
                if (!json_is_boolean(j)) return fail("expected true or false");
                st(slot, uint8_t(json_is_true(j) ? 1 : 0));
                return true;
            case MV_ASN_K_NULL:
                st(slot, uint8_t(1));
                return true;
            case MV_ASN_K_SINGLE:
                if (!t->item) return fail("a value this codec cannot carry");
                return load(t->item, j, slot);
            case MV_ASN_K_EXTC:
                return fail("extension containers are not written");
            default:
                break;
        }
        void* rec = __mv_asn_new_record(t);
        st(slot, rec);
        switch (t->kind) {
            case MV_ASN_K_OCTSTR:
            case MV_ASN_K_OID:
                return loadOctets(t, j, static_cast<StrRec*>(rec));
            case MV_ASN_K_PRTSTR: {
                std::vector<uint8_t> bytes;
                if (!json_is_string(j) || !latin1(j, bytes)) return fail("expected a text of characters up to U+00FF");
                auto* s = static_cast<StrRec*>(rec);
                s->length = uint32_t(bytes.size());
                s->data = __mv_asn_alloc_n_copy(bytes.data(), s->length);
                return true;
            }
            case MV_ASN_K_BITSTR:
                return loadBits(j, static_cast<BitRec*>(rec));
            case MV_ASN_K_SEQ:
                return loadSeq(t, j, rec);
            case MV_ASN_K_SEQOF:
                return loadList(t, j, static_cast<ListRec*>(rec));
            case MV_ASN_K_CHOICE:
                return loadChoice(t, j, rec);
            case MV_ASN_K_MSG:
                return loadMsg(t, j, rec);
            default:
                return fail("a type this codec cannot carry");
        }
    }

private:
    std::string path_;

    bool fail(const std::string& why) {
        if (err.empty()) err = (path_.empty() ? std::string("(top)") : path_) + ": " + why;
        return false;
    }

    // Descends into `name` for the length of a call, so errors say where they are.
    template <class F>
    bool in(const std::string& name, F&& f) {
        size_t keep = path_.size();
        path_ += (path_.empty() || name[0] == '[' ? "" : ".") + name;
        bool ok = f();
        path_.resize(keep);
        return ok;
    }

    bool loadEnum(const MvAsnType* t, json_t* j, void* slot) {
        if (json_is_integer(j)) {
            json_int_t v = json_integer_value(j);
            if (v < 0 || v >= t->nAll) return fail("enumeration index out of range");
            st(slot, uint8_t(v));
            return true;
        }
        if (!json_is_string(j)) return fail("expected an enumeration name");
        for (unsigned i = 0; i < t->nAll && t->names; i++) {
            if (strcmp(t->names[i], json_string_value(j)) == 0) {
                st(slot, uint8_t(i));
                return true;
            }
        }
        return fail(std::string("no value '") + json_string_value(j) + "' in " + t->name);
    }

    bool loadOctets(const MvAsnType* t, json_t* j, StrRec* s) {
        std::vector<uint8_t> bytes;
        if (json_is_string(j)) {
            if (!hexBytes(json_string_value(j), bytes)) return fail("expected hex octets");
        } else if (t->item) {
            // An OCTET STRING (CONTAINING X) may be given as the value of X.
            void* inner = nullptr;
            bool ok = load(t->item, j, &inner);
            if (ok) {
                auto ctx = std::make_unique<__mv_asn_coding_context>();
                __mv_asn_init_CodingContext(ctx.get());
                if (__mv_asn_encode_type(t->item, &inner, 1, ctx.get()) == 1) {
                    __mv_asn_pad_bits(ctx.get());
                    bytes.assign(ctx->buffer, ctx->buffer + ctx->pos);
                } else {
                    ok = fail(std::string("the contained ") + t->item->name + " does not encode");
                }
            }
            __mv_asn_free_type(t->item, &inner);
            if (!ok) return false;
        } else {
            return fail("expected hex octets");
        }
        s->length = uint32_t(bytes.size());
        s->data = __mv_asn_alloc_n_copy(bytes.data(), s->length);
        return true;
    }

    bool loadBits(json_t* j, BitRec* b) {
        json_t* bits = json_object_get(j, "bits");
        json_t* len = json_object_get(j, "bitslen");
        std::vector<uint8_t> bytes;
        if (!json_is_string(bits) || !json_is_integer(len) || !hexBytes(json_string_value(bits), bytes))
            return fail("expected {\"bits\": hex, \"bitslen\": n}");
        json_int_t n = json_integer_value(len);
        if (n < 0 || uint64_t(n + 7) / 8 != bytes.size()) return fail("bitslen does not match the octets given");
        b->length = uint32_t(bytes.size());
        b->bitslen = int(n);
        b->data = __mv_asn_alloc_n_copy(bytes.data(), b->length);
        return true;
    }

    bool loadSeq(const MvAsnType* t, json_t* j, void* rec) {
        if (!json_is_object(j)) return fail(std::string("expected an object for ") + t->name);
        const char* key;
        json_t* v;
        json_object_foreach(j, key, v) {
            const MvAsnMember* m = nullptr;
            for (unsigned i = 0; i < t->nAll && !m; i++)
                if (t->members[i].type->kind != MV_ASN_K_EXTC && strcmp(t->members[i].name, key) == 0) m = &t->members[i];
            if (!m) return in(key, [&] { return fail(std::string("no member of that name in ") + t->name); });
            if (m->presOff >= 0) st(at(rec, uint32_t(m->presOff)), 1);
            if (!in(key, [&] { return load(m->type, v, at(rec, m->off)); })) return false;
        }
        return true;
    }

    bool loadList(const MvAsnType* t, json_t* j, ListRec* rec) {
        if (!json_is_array(j)) return fail(std::string("expected an array for ") + t->name);
        size_t i;
        json_t* v;
        json_array_foreach(j, i, v) {
            void* cell = nullptr;
            bool byPtr = itemByPtr(t);
            if (!byPtr) cell = __mv_asn_alloc(8);
            // the item joins the list before it is filled, so that a failure still frees it
            listAdd(rec, cell);
            void* slot = byPtr ? static_cast<void*>(&rec->list->Tail->data) : cell;
            if (!in("[" + std::to_string(i) + "]", [&] { return load(t->item, v, slot); })) return false;
        }
        return true;
    }

    bool loadChoice(const MvAsnType* t, json_t* j, void* rec) {
        if (!json_is_object(j) || json_object_size(j) != 1)
            return fail(std::string("expected an object with one alternative of ") + t->name);
        const char* key = json_object_iter_key(json_object_iter(j));
        for (unsigned i = 0; i < t->nAll; i++) {
            const MvAsnMember& m = t->members[i];
            if (strcmp(m.name, key) != 0) continue;
            st(rec, uint8_t(i));
            return in(key, [&] { return load(m.type, json_object_get(j, key), at(rec, m.off)); });
        }
        return in(key, [&] { return fail(std::string("no alternative of that name in ") + t->name); });
    }

    bool loadMsg(const MvAsnType* t, json_t* j, void* rec) {
        if (!json_is_object(j)) return fail("expected an object of IEs");
        const char* key;
        json_t* v;
        json_object_foreach(j, key, v) {
            const MvAsnIE* ie = nullptr;
            for (unsigned i = 0; i < t->nAll && !ie; i++)
                if (strcmp(t->ies[i].idName, key) == 0 || strcmp(t->ies[i].field, key) == 0) ie = &t->ies[i];
            if (!ie) return in(key, [&] { return fail(std::string("no IE of that name in ") + t->name); });
            st(at(rec, ie->issetOff), 1);
            if (!in(key, [&] { return load(ie->type, v, at(rec, ie->off)); })) return false;
        }
        return true;
    }
};

}  // namespace

const MvAsnPdu* __mv_asn_pdu_from_json(const MvAsnPdu* table, unsigned count, const char* text, void** rec,
                                       std::string* err) {
    *rec = nullptr;
    json_error_t jerr;
    json_t* doc = json_loads(text, JSON_ALLOW_NUL, &jerr);
    auto failWith = [&](const std::string& why) -> const MvAsnPdu* {
        if (err) *err = why;
        json_decref(doc);
        return nullptr;
    };
    if (!doc)
        return failWith(std::string("not JSON: ") + jerr.text + " at line " + std::to_string(jerr.line) + " column " +
                        std::to_string(jerr.column));
    const char* name = json_string_value(json_object_get(doc, "pdu"));
    if (!name) return failWith("no \"pdu\" name");
    const MvAsnPdu* p = nullptr;
    for (unsigned i = 0; i < count && !p; i++)
        if (strcmp(table[i].name, name) == 0) p = &table[i];
    if (!p) return failWith(std::string("no PDU named ") + name);
    json_t* ies = json_object_get(doc, "ies");
    if (!ies) return failWith("no \"ies\" object");
    Loader l;
    void* r = nullptr;
    if (!l.load(p->type, ies, &r)) {
        __mv_asn_memfree_pdu(p, r);
        return failWith(l.err);
    }
    json_decref(doc);
    *rec = r;
    return p;
}
