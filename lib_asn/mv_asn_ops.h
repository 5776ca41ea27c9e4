// The per-type and per-PDU operations of both families are thin wrappers over the walker; the
// generated sources instantiate these macros once per type and once per PDU.
#pragma once

#include "mv_asn.h"

#define MV_ASN_COMMON_RECORD_OPS(fam, N)                                                                      \
    int __mv_##fam##_init_##N(__mv_##fam##_dt_##N** rec) {                                                   \
        *rec = static_cast<__mv_##fam##_dt_##N*>(__mv_asn_new_record(&T_##N));                               \
        return 1;                                                                                             \
    }                                                                                                         \
    void __mv_##fam##_debug_##N(const char* key, const __mv_##fam##_dt_##N* rec, int level) {                \
        __mv_asn_debug_type(key, &T_##N, &rec, level);                                                        \
    }                                                                                                         \
    void __mv_##fam##_memfree_##N(__mv_##fam##_dt_##N* rec) { __mv_asn_free_type(&T_##N, &rec); }           \
    int __mv_##fam##_Encode_##N(const __mv_##fam##_dt_##N* rec, int level, __mv_asn_coding_context* ctx) {   \
        if (!rec) return 1;                                                                                   \
        return __mv_asn_encode_type(&T_##N, &rec, level, ctx);                                                \
    }                                                                                                         \
    int __mv_##fam##_Decode_##N(__mv_##fam##_dt_##N** out, int* isset, int level, __mv_asn_coding_context* ctx) { \
        return __mv_asn_decode_type(&T_##N, out, isset, level, ctx);                                          \
    }

#define MV_ASN_RECORD_OPS(fam, N) MV_ASN_COMMON_RECORD_OPS(fam, N)

#define MV_ASN_STRING_OPS(fam, N)                                                                             \
    MV_ASN_COMMON_RECORD_OPS(fam, N)                                                                          \
    int __mv_##fam##_init_##N##2(__mv_##fam##_dt_##N** rec, const uint8_t* bytes, uint32_t length) {         \
        *rec = static_cast<__mv_##fam##_dt_##N*>(__mv_asn_new_record(&T_##N));                               \
        (*rec)->data = __mv_asn_alloc_n_copy(bytes, length);                                                  \
        (*rec)->length = length;                                                                              \
        return 1;                                                                                             \
    }

#define MV_ASN_BITSTRING_OPS(fam, N)                                                                          \
    MV_ASN_COMMON_RECORD_OPS(fam, N)                                                                          \
    int __mv_##fam##_init_##N##2(__mv_##fam##_dt_##N** rec, const uint8_t* bytes, uint32_t length) {         \
        *rec = static_cast<__mv_##fam##_dt_##N*>(__mv_asn_new_record(&T_##N));                               \
        (*rec)->data = __mv_asn_alloc_n_copy(bytes, length);                                                  \
        (*rec)->length = length;                                                                              \
        (*rec)->bitslen = int(length * 8);                                                                    \
        return 1;                                                                                             \
    }

#define MV_ASN_VALUE_OPS(fam, N)                                                                              \
    void __mv_##fam##_debug_##N(const char* key, __mv_##fam##_dt_##N value, int level) {                     \
        __mv_asn_debug_type(key, &T_##N, &value, level);                                                      \
    }                                                                                                         \
    int __mv_##fam##_Encode_##N(__mv_##fam##_dt_##N value, int level, __mv_asn_coding_context* ctx) {        \
        return __mv_asn_encode_type(&T_##N, &value, level, ctx);                                              \
    }                                                                                                         \
    int __mv_##fam##_Decode_##N(__mv_##fam##_dt_##N* out, int* isset, int level, __mv_asn_coding_context* ctx) { \
        return __mv_asn_decode_type(&T_##N, out, isset, level, ctx);                                          \
    }

#define MV_ASN_PDU_OPS(fam, N, idx)                                                                           \
    int __mv_##fam##_encode_pdu_##N(__mv_##fam##_dt_##N* rec, __mv_asn_coding_context* ctx) {                \
        return __mv_asn_encode_pdu(&kPdus[idx], rec, ctx);                                                    \
    }                                                                                                         \
    int __mv_##fam##_decode_pdu_##N(__mv_##fam##_dt_##N* rec, __mv_asn_coding_context* ctx) {                \
        return __mv_asn_decode_pdu(&kPdus[idx], rec, ctx);                                                    \
    }                                                                                                         \
    void __mv_##fam##_debug_pdu_##N(const __mv_##fam##_dt_##N* rec) { __mv_asn_debug_pdu(&kPdus[idx], rec); } \
    void __mv_##fam##_memfree_pdu_##N(__mv_##fam##_dt_##N* rec) { __mv_asn_memfree_pdu(&kPdus[idx], rec); }
