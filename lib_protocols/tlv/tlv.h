// The table-driven tag-length-value walker: one encoder and one decoder for every protocol whose
// messages are lists of type-length(-instance)-value elements (PFCP, GTPv2-C, GTPv1-C). A protocol
// gives one static descriptor per element type and per message; message records mirror those
// descriptors field for field, so the walker moves between record and bytes with no other code.
//
// Records: every field of a message or a grouped element starts with a 64-bit presence word (0
// absent), then the value; a grouped element's record is its presence word and then its children in
// descriptor order. A child followed by a TLV_MORE marker is an array of that many slots. Numbers are
// held in host order; octet strings are a pointer and a length. Decoded octet strings point into the
// input, which must outlive the record's use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// How elements sit on the wire; every multi-octet tag and length is big-endian.
enum tlv_mode_e : uint8_t {
    TLV_MODE_T1_L1 = 1,     // tag 1, length 1
    TLV_MODE_T1_L2 = 2,     // tag 1, length 2
    TLV_MODE_T1_L2_I1 = 3,  // tag 1, length 2, then an octet whose low nibble is the instance
    TLV_MODE_T2_L2 = 4,     // tag 2, length 2
    TLV_MODE_T1_TV_L2 = 5,  // tag 1; tags below 128 carry a fixed-length value and no length, others length 2
};

enum tlv_type_e : uint8_t {
    TLV_UINT8 = 0,
    TLV_UINT16 = 1,
    TLV_UINT24 = 2,
    TLV_UINT32 = 3,
    TLV_INT8 = 4,
    TLV_INT16 = 5,
    TLV_INT24 = 6,
    TLV_INT32 = 7,
    TLV_FIXED_STR = 8,
    TLV_VAR_STR = 9,
    TLV_NULL = 10,
    TLV_MORE = 11,      // marker: the child before it is an array of `length` slots
    TLV_COMPOUND = 12,  // grouped element
    TLV_MESSAGE = 13,
};

#define TLV_VARIABLE_LEN 0
#define TLV_MAX_MORE 8
#define TLV_MAX_CHILD_DESC 128
#define TLV_MAX_HEADROOM 16

// One per element type or message; static, constant data.
struct tlv_desc_t {
    tlv_type_e ctype;
    const char* name;     // the standard's name, for messages and the JSON form
    uint16_t type;        // the tag; 0 for TLV_MORE and TLV_MESSAGE
    uint16_t length;      // fixed length of a fixed leaf, TLV_VARIABLE_LEN, or the slot count of TLV_MORE
    uint8_t instance;
    uint16_t vsize;       // size of this element's record: the walk steps through records by it
    const tlv_desc_t* const* child_descs;  // null-terminated, in record and wire order, with TLV_MORE markers
    const char* const* child_names;        // the record's field name of each entry of child_descs (null at markers)
};

extern const tlv_desc_t tlv_desc_more1, tlv_desc_more2, tlv_desc_more3, tlv_desc_more4, tlv_desc_more5,
    tlv_desc_more6, tlv_desc_more7, tlv_desc_more8, tlv_desc_more9, tlv_desc_more10, tlv_desc_more11;

typedef uint64_t tlv_presence_t;

struct tlv_uint8_s {
    tlv_presence_t presence;
    uint8_t u8;
};
struct tlv_uint16_s {
    tlv_presence_t presence;
    uint16_t u16;
};
struct tlv_uint24_s {
    tlv_presence_t presence;
    uint32_t u24;
};
struct tlv_uint32_s {
    tlv_presence_t presence;
    uint32_t u32;
};
struct tlv_int8_s {
    tlv_presence_t presence;
    int8_t i8;
};
struct tlv_int16_s {
    tlv_presence_t presence;
    int16_t i16;
};
struct tlv_int24_s {
    tlv_presence_t presence;
    int32_t i24;
};
struct tlv_int32_s {
    tlv_presence_t presence;
    int32_t i32;
};
// Every octet-string element, fixed or variable: the caller formats the body, the walker moves it whole.
struct tlv_octet_s {
    tlv_presence_t presence;
    const uint8_t* data;
    uint32_t len;
};
struct tlv_null_s {
    tlv_presence_t presence;
};
using tlv_uint8_t = tlv_uint8_s;
using tlv_uint16_t = tlv_uint16_s;
using tlv_uint24_t = tlv_uint24_s;
using tlv_uint32_t = tlv_uint32_s;
using tlv_int8_t = tlv_int8_s;
using tlv_int16_t = tlv_int16_s;
using tlv_int24_t = tlv_int24_s;
using tlv_int32_t = tlv_int32_s;
using tlv_octet_t = tlv_octet_s;
using tlv_null_t = tlv_null_s;

// One entry of a child list: a child, its slot count (an array's, or 1) and its offset in the
// parent's record. The walker, the JSON form and the tables' tests all step through lists with these.
struct tlv_entry_t {
    const tlv_desc_t* desc = nullptr;
    const char* name = nullptr;  // the record's field name
    unsigned index = 0;          // position in child_descs
    unsigned slots = 1;
    bool array = false;          // a TLV_MORE marker follows
    uint32_t off = 0;
};

inline void tlv_entry_at(const tlv_desc_t* parent, unsigned i, uint32_t off, tlv_entry_t& e) {
    const tlv_desc_t* const* list = parent->child_descs;
    e.desc = list[i];
    e.name = parent->child_names && parent->child_names[i] ? parent->child_names[i] : list[i]->name;
    e.index = i;
    e.array = list[i + 1] && list[i + 1]->ctype == TLV_MORE;
    e.slots = e.array ? list[i + 1]->length : 1;
    e.off = off;
}
// False for a list with no child.
inline bool tlv_first_entry(const tlv_desc_t* parent, tlv_entry_t& e) {
    e = tlv_entry_t{};
    if (!parent->child_descs || !parent->child_descs[0]) return false;
    tlv_entry_at(parent, 0, 0, e);
    return true;
}
// False at the end of the list.
inline bool tlv_next_entry(const tlv_desc_t* parent, tlv_entry_t& e) {
    unsigned i = e.index + (e.array ? 2 : 1);
    if (i >= TLV_MAX_CHILD_DESC || !parent->child_descs[i]) return false;
    tlv_entry_at(parent, i, e.off + e.slots * e.desc->vsize, e);
    return true;
}

// ---------------------------------------------------------------- walking

enum tlv_error_e : uint8_t {
    TLV_OK = 0,
    TLV_ERR_SHORT_HEADER,   // the block ends inside an element's tag, length or instance
    TLV_ERR_OVERRUN,        // an element's length runs past its block (the datagram or its parent)
    TLV_ERR_BAD_LENGTH,     // a fixed-size element of another length
    TLV_ERR_UNEXPECTED,     // an element that is no child of its parent, when the caller asked for strictness
    TLV_ERR_NO_ROOM,        // encoding: the output is too small
    TLV_ERR_TOO_LONG,       // encoding: a value or group longer than the length field can say
    TLV_ERR_BAD_VALUE,      // encoding: a tag wider than the mode's, a TV value of the wrong size
    TLV_ERR_BAD_MODE,
};

// What one walk met. Decoding stops at the first error; elements it could not place are counted.
struct tlv_result_t {
    tlv_error_e error;
    uint16_t type;              // the element at fault
    uint32_t length;            // its length as read
    uint32_t expected;          // the length its kind needs (TLV_ERR_BAD_LENGTH)
    uint32_t offset;            // octet offset of the element from the start of the walked block
    const tlv_desc_t* parent;   // the message or group being walked
    uint32_t unexpected;        // elements skipped: not children of their parent (later releases, other kinds)
    uint16_t firstUnexpected;   // the type of the first of them
    uint32_t dropped;           // repeats beyond the slots the record has
    uint32_t stoppedAt;         // TV mode: offset + 1 of an unknown TV element that ended the walk, else 0
};

#define TLV_DECODE_STRICT 1  // an unexpected element fails the walk instead of being skipped

// Encodes the children of `desc` (a message or a group) from `record` into `out`. Returns the octets
// written, or -1 with res->error set. The record is left unchanged.
[[nodiscard]] int tlv_encode(const tlv_desc_t* desc, const void* record, int mode, std::span<uint8_t> out,
                             tlv_result_t* res = nullptr);
// The octets tlv_encode would write, or -1.
[[nodiscard]] int tlv_encoded_size(const tlv_desc_t* desc, const void* record, int mode, tlv_result_t* res = nullptr);
// Decodes `in` as the children of `desc` into `record`, which the caller has zeroed (a group's own
// presence word is not touched). Returns 1, or -1 with res->error set; what was read before the fault
// stays in the record.
[[nodiscard]] int tlv_decode(const tlv_desc_t* desc, void* record, int mode, std::span<const uint8_t> in,
                             tlv_result_t* res = nullptr, unsigned flags = 0);

// One line about a failed walk, in the codec's words ("Invalid TLV length 2. It should be 1").
int tlv_format_error(const tlv_result_t* res, char* buf, size_t size);

