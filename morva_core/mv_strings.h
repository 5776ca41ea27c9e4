// Fixed-size strings with a length and a presence flag, as decoded protocol fields
// and the UE record hold them; MV_U32 and MV_U64 are numbers with a presence flag.
#pragma once

#include <sys/types.h>

#include <cstdint>

#define MV_FIXED_STRING(N)   \
    struct __mv_string##N##_t { \
        u_char val[N + 1];   \
        uint16_t len;        \
        uint16_t isset;      \
    };

MV_FIXED_STRING(5)
MV_FIXED_STRING(10)
MV_FIXED_STRING(20)
MV_FIXED_STRING(40)
MV_FIXED_STRING(60)
MV_FIXED_STRING(80)
MV_FIXED_STRING(100)
MV_FIXED_STRING(120)
MV_FIXED_STRING(140)
MV_FIXED_STRING(160)
MV_FIXED_STRING(180)
MV_FIXED_STRING(200)
#undef MV_FIXED_STRING

struct __mv_stringv_t {
    u_char* val;
    uint16_t len;
    uint16_t pos;
    uint16_t isset;
    char vType;  // 'd' an owned copy, 'r' a reference
};

struct MV_U32 {
    uint32_t val;
    uint32_t isset;
};

struct MV_U64 {
    uint64_t val;
    uint64_t isset;
};
