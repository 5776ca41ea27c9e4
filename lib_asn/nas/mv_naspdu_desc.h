// The descriptor tables behind the NAS codec: one per IE type and one per message. The walker encodes
// and decodes every message from them; tests and tools read them to reach every message and IE.
#pragma once

#include <cstdint>

#include "mv_naspdu.h"

struct NasIeType {
    const char* name;
    uint8_t fmt;   // NasFmt
    uint8_t kind;  // NasKind
    uint16_t n;    // fixed number of value octets, 0 when Length says
    uint16_t cap;  // value octets the record holds
    uint16_t size; // record size; isset is its last octet
    uint8_t wide;  // two length octets in the record
};

#define NAS_EL_MAND 1    // mandatory, in order, no identifier
#define NAS_EL_ENC 2     // written by the encoder
#define NAS_EL_READ 4    // taken by the decoder
#define NAS_EL_SKIP 8    // stepped over by the decoder
#define NAS_EL_UEONLY 16 // mandatory in the UE's form only

struct NasElem {
    const char* name;
    const NasIeType* type;
    uint32_t off;  // offset of the member in the record
    uint8_t iei;   // 0 for a mandatory element; the nibble for a half-octet IE
    uint8_t flags;
};

#define NAS_MSG_CONTINUE 1    // after an IE it does not take, the decoder steps over it and goes on
#define NAS_MSG_SKIP_OCTETS 2 // an unknown octet is skipped alone, without an error

struct NasMsgDesc {
    const char* name;
    uint8_t type;
    uint8_t discriminator;  // 0x7E, 0x2E, 7, 2
    uint8_t flags;
    uint32_t size;          // record size
    const NasElem* elems;
    uint16_t nElems;
};

#define NAS_IE_DESC(Name, CType, fmt, kind, n) extern const NasIeType kNasIe_##Name;
NAS_IE_TYPES(NAS_IE_DESC)
#undef NAS_IE_DESC

// Every message of a family, in the order of its list.
struct NasFamily {
    const char* name;
    uint8_t discriminator;
    const NasMsgDesc* const* msgs;
    uint16_t count;
};
extern const NasFamily kNasFamilies[4];  // 5GMM, 5GSM, EMM, ESM

// The message of a family by type, or null.
const NasMsgDesc* __mv_naspdu_find_message(uint8_t discriminator, uint8_t type);
// The generic encoder and decoder behind the named operations.
int __mv_naspdu_encode_message(const NasMsgDesc* m, void* record, __mv_asn_coding_context* context);
int __mv_naspdu_decode_message(const NasMsgDesc* m, __naspduDecode* decode);
int __mv_naspdu_encode_ie(const NasIeType* t, uint8_t iei, const void* ie, __mv_asn_coding_context* context);
int __mv_naspdu_decode_ie(const NasIeType* t, uint8_t iei, void* ie, bool mandatory, __naspduDecode* decode);
// An optional IE at the cursor, its identifier just taken by the caller.
int __mv_naspdu_decode_taken_ie(const NasIeType* t, void* ie, __naspduDecode* decode);
