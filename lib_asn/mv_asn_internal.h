// Helpers shared by the primitives and the walker; not part of the codec's interface.
#pragma once

#include <cstdint>

#include "mv_asn.h"

// Size of a string or list (lengthType 0 unconstrained, 1 fixed, 2 range), with an extension marker.
int mv_asn_add_size(uint32_t n, int lengthType, int min, int max, int hasExt, __mv_asn_coding_context* ctx);
int mv_asn_get_size(uint32_t* n, int lengthType, int min, int max, int hasExt, __mv_asn_coding_context* ctx);
// Normally small non-negative whole number: the index of an extension alternative or value.
int mv_asn_add_nsnn(uint64_t n, __mv_asn_coding_context* ctx);
int mv_asn_get_nsnn(uint64_t* n, __mv_asn_coding_context* ctx);
// Unconstrained whole number: a length octet and two's complement octets.
int mv_asn_add_unconstrained(int64_t v, __mv_asn_coding_context* ctx);
int mv_asn_get_unconstrained(int64_t* v, __mv_asn_coding_context* ctx);

#include <cstring>

// The shapes every record of both families shares, for the walker and the JSON reader. Records
// are packed, so slots are read and written through memcpy.
namespace mv_asn_detail {

template <class T>
T ld(const void* p) {
    T v;
    memcpy(&v, p, sizeof v);
    return v;
}
template <class T>
void st(void* p, T v) {
    memcpy(p, &v, sizeof v);
}
inline const uint8_t* at(const void* rec, uint32_t off) { return static_cast<const uint8_t*>(rec) + off; }
inline uint8_t* at(void* rec, uint32_t off) { return static_cast<uint8_t*>(rec) + off; }

// Records of strings share this head.
struct __attribute__((packed)) StrRec {
    uint8_t* data;
    uint32_t length;
};
struct __attribute__((packed)) BitRec {
    uint8_t* data;
    uint32_t length;
    int bitslen;
};
struct __attribute__((packed)) ListRec {
    __mv_asn_list* list;
};
inline void listAdd(ListRec* rec, void* data) {
    __mv_asn_list* l = rec->list;
    __mv_asn_list_add(&l, data);
    rec->list = l;
}
struct __attribute__((packed)) ChoiceRec {
    uint8_t SelectedChoice;
};

// Resolves a SINGLE to the type that gives its record.
inline const MvAsnType* valueType(const MvAsnType* t) {
    while (t->kind == MV_ASN_K_SINGLE && t->item) t = t->item;
    return t;
}

// Whether a list item is held as a record pointer (else as a heap cell with the value).
inline bool itemByPtr(const MvAsnType* seqOf) {
    return seqOf->item->store == MV_ASN_S_PTR || seqOf->item->kind == MV_ASN_K_SINGLE;
}

}  // namespace mv_asn_detail
