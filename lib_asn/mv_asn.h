// Aligned PER (X.691) coding for NGAP and S1AP: the coding context, the bit primitives, and the one
// encoder and one decoder that walk the generated descriptor tables of both families.
//
// Results: an operation that reports how it went returns 1, or a count where it has one (the bytes
// of an encoded PDU, the size of an IE in its container), when it went well, and 0 or a negative
// status (-1, -ENOENT) when it did not; a caller tests for a value below 1. Operations that return
// a value (a bit, a length, an index) say so and give -1 or 0 for none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Large enough for any PDU the SCTP read path hands over; encoders refuse to pass it.
#define MV_ASN_BUFFER_SIZE 5000

// Decode errors held in iError.
#define MV_ASN_DECODE_ERROR_OCTET_STRING 1001
#define MV_ASN_DECODE_ERROR_PRINTABLE_STRING 1002
#define MV_ASN_DECODE_ERROR_BIT_STRING 1003
#define MV_ASN_DECODE_ERROR_INTEGER 1004
#define MV_ASN_DECODE_ERROR_ENUMERATOR 1005
#define MV_ASN_DECODE_ERROR_CHOICE 1006
#define MV_ASN_DECODE_ERROR_SEQUENCE 1007
#define MV_ASN_DECODE_ERROR_SEQUENCE_OF 1008
#define MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER 2010

// One per encode or decode. Encoding: usedBits counts the bits used in buffer[pos] from the top
// (0 = aligned). Decoding: usedBits is the index of the next bit, 7 (top) down to 0 (7 = aligned).
struct __attribute__((packed)) __mv_asn_coding_context {
    uint8_t header[40];
    uint16_t headerlen;
    uint8_t buffer[MV_ASN_BUFFER_SIZE];
    uint16_t pos;
    uint16_t len;
    uint8_t usedBits;
    uint16_t ieStartPos;
    uint16_t ieLastLen;
    uint32_t iError;
    int16_t ieMaxReadBytes;
    int16_t ieCurrPos;
};

// The list behind every SEQUENCE OF: items hold pointers to records or, for value types, to a
// heap cell with the value.
struct __mv_asn_list_item {
    void* data;
    __mv_asn_list_item* Next;
};
struct __mv_asn_list {
    __mv_asn_list_item* Head;
    __mv_asn_list_item* Tail;
    uint32_t Count;
};
int __mv_asn_list_add(__mv_asn_list** list, void* data);

// Record memory of the codec, zeroed: __mv_allocM and __mv_freeM once the runtime is up (the
// engine), the system heap in a process that never starts it (the tool, codec-only tests).
// __mv_asn_free also takes the record of a PDU or container made by __mv_asn_new_record: that
// record roots a region, where its decode puts every record below it, and freeing the root
// releases the region whole. Freeing a record inside a region on its own does nothing.
void* __mv_asn_alloc(size_t size);
void __mv_asn_free(void* p);

// Chunks of the regions: made so far, on the shared free stack, in this thread's cache. The
// chunks in use are carved - shared - every thread's cache.
struct MvAsnRegionStats {
    size_t chunkSize;
    uint64_t carved;
    uint64_t shared;
    uint64_t cachedHere;
};
MvAsnRegionStats __mv_asn_region_stats();

// Logging: one seam, so the tool can print the dumps and the engine can send them to its logger.
typedef void (*__mv_asn_log_sink)(int level, const char* line);
void __mv_asn_set_log_sink(__mv_asn_log_sink sink, int maxLevel);
bool __mv_asn_log_enabled(int level);
void __mv_asn_log(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// ---------------------------------------------------------------- descriptors

enum MvAsnKind : uint8_t {
    MV_ASN_K_INT,
    MV_ASN_K_ENUM,
    MV_ASN_K_BOOL,
    MV_ASN_K_NULL,
    MV_ASN_K_OCTSTR,
    MV_ASN_K_BITSTR,
    MV_ASN_K_PRTSTR,
    MV_ASN_K_OID,
    MV_ASN_K_SEQ,
    MV_ASN_K_SEQOF,
    MV_ASN_K_CHOICE,
    MV_ASN_K_MSG,     // SEQUENCE { protocolIEs ProtocolIE-Container {...}, ... } flattened into IE slots
    MV_ASN_K_SINGLE,  // ProtocolIE-SingleContainer: id, criticality and the value as an open type
    MV_ASN_K_EXTC,    // ProtocolExtensionContainer: never sent, skipped when received
};
// How a value sits in its parent: a pointer to a record, or the value itself.
enum MvAsnStore : uint8_t { MV_ASN_S_PTR, MV_ASN_S_U64, MV_ASN_S_U8, MV_ASN_S_NONE };
#define MV_ASN_F_LB 1
#define MV_ASN_F_UB 2
#define MV_ASN_F_PRIVATE 4

struct MvAsnType;
namespace mv_asn_detail {
struct Writer;
struct Reader;
}  // namespace mv_asn_detail
// The coder each descriptor instantiates from the templates of mv_asn_code.h.
typedef int (*MvAsnEncFn)(const void* slot, mv_asn_detail::Writer& w);
typedef int (*MvAsnDecFn)(void* slot, mv_asn_detail::Reader& r);
typedef int (*MvAsnDecIEsFn)(void* rec, mv_asn_detail::Reader& r, int* lastResult);
struct MvAsnMember {
    const char* name;
    const MvAsnType* type;
    uint32_t off;
    int32_t presOff;  // isPresent_x of an optional member, -1 if none
    uint8_t optional;
    uint8_t extAddition;
};
struct MvAsnIE {
    const char* field;
    const char* idName;
    const MvAsnType* type;
    uint32_t off;
    uint32_t issetOff;
    uint16_t id;
    uint8_t criticality;  // 0 reject, 1 ignore, 2 notify
    uint8_t presence;     // 0 optional, 1 conditional, 2 mandatory
};
struct MvAsnType {
    const char* name;
    uint8_t kind;
    uint8_t store;
    uint8_t ext;
    uint8_t flags;
    int64_t lb;  // value bounds of INTEGER, size bounds of strings and lists
    int64_t ub;
    uint32_t size;   // record size of pointer-stored types
    uint16_t nRoot;  // root members, alternatives or enumerations
    uint16_t nAll;   // with the extension additions; IEs of a message
    const MvAsnMember* members;
    const MvAsnIE* ies;
    const MvAsnType* item;  // SEQUENCE OF item, SINGLE value, type CONTAINED in an OCTET STRING
    const char* const* names;
    MvAsnEncFn enc;        // the value at a slot
    MvAsnDecFn dec;        // the value into a slot, records allocated
    MvAsnDecIEsFn decIEs;  // a message or container: its IEs into the record given
};
struct MvAsnPdu {
    const char* name;
    const MvAsnType* type;
    uint8_t procedureCode;
    uint8_t form;  // 0 initiatingMessage, 1 successfulOutcome, 2 unsuccessfulOutcome
    uint8_t criticality;
};

// Head shared by every PDU record.
struct __attribute__((packed)) __mv_asn_pdu_head {
    uint8_t pduIEExtension;
    uint8_t pduMessageChoice;
    uint8_t messageId;
    void* transportObject;
    uint16_t iECount;
    uint8_t decodingError;
};

// The walker. A slot is where a value sits in its parent: the address of a record pointer, or of
// the value itself (unsigned long long for integers, uint8_t for enumerations).
void* __mv_asn_new_record(const MvAsnType* t);
// A value at a slot: at level 0 wrapped as an open type, below that bare. Encoding returns 1;
// decoding returns the IE's size in its container at level 0, 1 below it.
[[nodiscard]] int __mv_asn_encode_type(const MvAsnType* t, const void* slot, int level, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_decode_type(const MvAsnType* t, void* slot, int* isset, int level, __mv_asn_coding_context* ctx);
void __mv_asn_free_type(const MvAsnType* t, void* slot);
void __mv_asn_debug_type(const char* key, const MvAsnType* t, const void* slot, int level);
void __mv_asn_json_type(const MvAsnType* t, const void* slot, std::string& out);

// A PDU: encoding returns the bytes it wrote (pos), decoding 1 when every IE decoded; what a
// failed decode took in stays in the record, which its owner frees.
[[nodiscard]] int __mv_asn_encode_pdu(const MvAsnPdu* p, const void* rec, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_decode_pdu(const MvAsnPdu* p, void* rec, __mv_asn_coding_context* ctx);
void __mv_asn_debug_pdu(const MvAsnPdu* p, const void* rec);
void __mv_asn_memfree_pdu(const MvAsnPdu* p, void* rec);
void __mv_asn_json_pdu(const MvAsnPdu* p, const void* rec, std::string& out);
// Builds a PDU record from the JSON form __mv_asn_json_pdu writes; an OCTET STRING (CONTAINING X)
// may also be given as the value of X. Returns the PDU with its record (the caller frees it), or
// nullptr with the reason in err.
const MvAsnPdu* __mv_asn_pdu_from_json(const MvAsnPdu* table, unsigned count, const char* text, void** rec,
                                       std::string* err);
// Finds the PDU of a received frame by its first two bytes; nullptr when the family has none.
const MvAsnPdu* __mv_asn_find_pdu(const MvAsnPdu* table, unsigned count, const uint8_t* bytes, size_t len);

// ---------------------------------------------------------------- primitives

void __mv_asn_pad_bits(__mv_asn_coding_context* ctx);
void __mv_asn_pad_readbits(__mv_asn_coding_context* ctx);
void __mv_asn_memset(__mv_asn_coding_context* ctx);
void __mv_asn_init_CodingContext(__mv_asn_coding_context* ctx);
// Sets up a context for decoding `len` received bytes; 0 (and nothing copied) when they do not fit.
[[nodiscard]] int __mv_asn_init_decode(__mv_asn_coding_context* ctx, const uint8_t* bytes, size_t len);
int __mv_asn_has_decode_error(__mv_asn_coding_context* ctx);
int __mv_asn_has_required_bytes(__mv_asn_coding_context* ctx, int bytes);
[[nodiscard]] int __mv_asn_set_max_read_bytes_for_ie(int length, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_copy_buffer(__mv_asn_coding_context* ctx, uint8_t** data, uint32_t* length);

// reading: the value read (the bit, the byte, the length), 0 or -1 for none
int __mv_asn_get_bit_val(__mv_asn_coding_context* ctx);
uint8_t __mv_asn_get_bit_val_uint8(int bits, __mv_asn_coding_context* ctx);
uint8_t __mv_asn_get_byte(__mv_asn_coding_context* ctx);
uint16_t __mv_asn_get_uint16val(__mv_asn_coding_context* ctx);
uint32_t __mv_asn_get_uint24(__mv_asn_coding_context* ctx);
uint32_t __mv_asn_get_uint32(__mv_asn_coding_context* ctx);
uint64_t __mv_asn_get_uintmax(int bytes, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_get_bits(int bits, uint64_t* value, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_get_range_val_length(__mv_asn_coding_context* ctx);
int __mv_asn_get_total_used_length(int length, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_move_unknown_field_length(__mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_copy_bytes(uint8_t* dst, int count, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_copy_nbits(uint8_t* dst, int bits, __mv_asn_coding_context* ctx);

// writing
[[nodiscard]] int __mv_asn_add_bit(int bit, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_add_bits(const uint8_t* src, int srcMsbBitPos, int count, int pad, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_add_value_bits(uint64_t value, int count, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_add_byte(uint8_t b, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_add_bytes(const uint8_t* src, int count, int pad, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_add_length8(int length, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_add_length16(int length, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_set_value_length(int length, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_reserve_byte_for_length(__mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_set_length_at_reserved(__mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_set_length_at_pos(uint16_t startPos, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_set_buffer_length(__mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_add_id_and_criticality(uint16_t id, int criticality, __mv_asn_coding_context* ctx);

// types
int __mv_asn_getRequiredBitCount(uint64_t range);
[[nodiscard]] int __mv_asn_AddConstrainedInteger(uint64_t value, int isExt, int64_t lb, int64_t ub, int hasExt,
                                   __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_GetConstrainedInteger(uint64_t* value, int* isset, int64_t lb, int64_t ub, int hasExt,
                                   __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_AddOctetString2(const uint8_t* data, uint32_t len, int lengthType, int min, int max, int hasExt,
                             __mv_asn_coding_context* ctx, int isDerived);
[[nodiscard]] int __mv_asn_GetOctetString2(uint8_t** data, uint32_t* len, int lengthType, int min, int max, int hasExt,
                             __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_AddPrintableString(const uint8_t* data, uint32_t len, int lengthType, int min, int max, int hasExt,
                                __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_GetPrintableString(uint8_t** data, uint32_t* len, int lengthType, int min, int max, int hasExt,
                                __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_AddBitString(const uint8_t* data, int bitslen, int lengthType, int min, int max, int hasExt,
                          __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_GetBitString(uint8_t** data, uint32_t* length, int* bitslen, int lengthType, int min, int max,
                          int hasExt, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_AddChoice(int hasExt, int selectedChoice, int nonExtElemCount, int extElemCount,
                       int isExtensionSelected, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_GetChoice(int hasExt, int nonExtElemCount, int* isExtensionSelected, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_AddEnum(int enumVal, int hasExt, int isExtSelected, int nonExtEnumCount, int extEnumCount,
                     __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_GetEnum(int isExt, int nonExtEnumCount, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_listitem_count2(int count, int min, int max, int level, __mv_asn_coding_context* ctx);
[[nodiscard]] int __mv_asn_get_listitem_count(int min, int max, int level, __mv_asn_coding_context* ctx);
int __mv_asn_GetSIListCount(__mv_asn_list* list);
void* __mv_asn_GetItemFromSIList(__mv_asn_list* list, int index);
uint8_t* __mv_asn_alloc_n_copy(const uint8_t* src, uint32_t len);

// debug
void __mv_asn_debug_enum(const char* key, const char* typeName, unsigned value, int level);
void __mv_asn_debug_choice(const char* key, const char* typeName, unsigned value, int level);
void __mv_asn_debug_string(const char* key, const char* typeName, const uint8_t* data, uint32_t len, int level);
void __mv_asn_debug_printablestring(const char* key, const char* typeName, const uint8_t* data, uint32_t len,
                                    int level);
void __mv_asn_debug_bitstring(const char* key, const char* typeName, const uint8_t* data, uint32_t len,
                              int bitslen, int level);
void __mv_asn_debug_integer(const char* key, const char* typeName, long long value, int level);
void __mv_asn_dump_item(const char* prefix, const uint8_t* data, int len);
void __mv_asn_dump_integer(const char* prefix, uint64_t value, int bits);
void __mv_asn_dump_string(const char* prefix, const uint8_t* data, int len);
void __mv_asn_log_buffer_range(const char* prefix, __mv_asn_coding_context* ctx, int from, int to);

// field helpers
uint32_t __mv_asn_getTAC(const uint8_t* data);
uint32_t __mv_asn_getTAC3(const uint8_t* data);
uint32_t __mv_asn_cellId(const uint8_t* data);
