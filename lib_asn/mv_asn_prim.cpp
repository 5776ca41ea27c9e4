// The bit buffer and the X.691 aligned-PER primitives on the coding context. Every write checks the
// room left in `buffer`, every read the bytes received (`len`), so neither passes an end.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mv_asn.h"
#include "mv_asn_internal.h"
#include "mv_alloc.h"
#include "mv_core.h"

// ---------------------------------------------------------------- memory, lists, log

namespace {
// Records come from the size classes once the runtime is up, as every message of the engine does;
// tools and tests that run the codec without the runtime use the system heap. The choice is made
// once, at the first record, so that each record goes back to the allocator it came from.
bool usePools() {
    static const bool pools = __mvCore != nullptr && __mvCore->MemoryPool[0].size != 0;
    return pools;
}
}  // namespace

void* __mv_asn_alloc(size_t size) {
    if (size == 0) size = 1;
    if (!usePools()) return calloc(1, size);
    void* p = __mv_allocM(size);
    if (p) memset(p, 0, size);
    return p;
}

void __mv_asn_free(void* p) {
    if (usePools())
        __mv_freeM(p);
    else
        free(p);
}

int __mv_asn_list_add(__mv_asn_list** list, void* data) {
    if (!list) return -1;
    if (!*list) *list = static_cast<__mv_asn_list*>(__mv_asn_alloc(sizeof(__mv_asn_list)));
    auto* it = static_cast<__mv_asn_list_item*>(__mv_asn_alloc(sizeof(__mv_asn_list_item)));
    it->data = data;
    if ((*list)->Tail)
        (*list)->Tail->Next = it;
    else
        (*list)->Head = it;
    (*list)->Tail = it;
    (*list)->Count++;
    return 1;
}

int __mv_asn_GetSIListCount(__mv_asn_list* list) { return list ? int(list->Count) : 0; }

void* __mv_asn_GetItemFromSIList(__mv_asn_list* list, int index) {
    if (!list || index < 0) return nullptr;
    for (auto* it = list->Head; it; it = it->Next)
        if (index-- == 0) return it->data;
    return nullptr;
}

uint8_t* __mv_asn_alloc_n_copy(const uint8_t* src, uint32_t len) {
    auto* p = static_cast<uint8_t*>(__mv_asn_alloc(size_t(len) + 1));
    if (src && len) memcpy(p, src, len);
    return p;
}

namespace {
__mv_asn_log_sink g_sink = nullptr;
int g_sinkLevel = 0;
}  // namespace

void __mv_asn_set_log_sink(__mv_asn_log_sink sink, int maxLevel) {
    g_sink = sink;
    g_sinkLevel = maxLevel;
}

bool __mv_asn_log_enabled(int level) {
    if (g_sink) return level <= g_sinkLevel;
    return level <= __mv_log_get_level(MV_STK_LOG);
}

void __mv_asn_log(int level, const char* fmt, ...) {
    if (!__mv_asn_log_enabled(level)) return;
    char line[LOG_MESSAGE_MAX_SIZE];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    if (g_sink)
        g_sink(level, line);
    else
        __mv_log(MV_STK_LOG, LOG_CAT_CORE, uint32_t(level), "%s", line);
}

// ---------------------------------------------------------------- context

void __mv_asn_memset(__mv_asn_coding_context* ctx) { memset(static_cast<void*>(ctx), 0, sizeof *ctx); }

void __mv_asn_init_CodingContext(__mv_asn_coding_context* ctx) {
    // Only the head: the encoder clears each byte as it starts it, so the 5000 bytes stay untouched.
    ctx->headerlen = 0;
    ctx->pos = 0;
    ctx->len = 0;
    ctx->usedBits = 0;
    ctx->ieStartPos = 0;
    ctx->ieLastLen = 0;
    ctx->iError = 0;
    ctx->ieMaxReadBytes = 0;
    ctx->ieCurrPos = 0;
}

int __mv_asn_init_decode(__mv_asn_coding_context* ctx, const uint8_t* bytes, size_t len) {
    __mv_asn_init_CodingContext(ctx);
    if (len > MV_ASN_BUFFER_SIZE) {
        __mv_asn_log(MV_LOG_ERROR, "PDU of %zu bytes is larger than the coding buffer (%d), dropped (%s|%s|%d)", len,
                     MV_ASN_BUFFER_SIZE, __FILE_NAME__, __func__, __LINE__);
        return 0;
    }
    if (len) memcpy(ctx->buffer, bytes, len);
    ctx->len = uint16_t(len);
    ctx->usedBits = 7;
    return 1;
}

static inline int enc_fail(__mv_asn_coding_context* ctx) {
    if (!ctx->iError) {
        ctx->iError = MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER;
        __mv_asn_log(MV_LOG_ERROR, "encoding does not fit the coding buffer of %d bytes (%s|%s|%d)",
                     MV_ASN_BUFFER_SIZE, __FILE_NAME__, __func__, __LINE__);
    }
    return -1;
}

static inline int dec_fail(__mv_asn_coding_context* ctx, uint32_t err) {
    if (!ctx->iError) ctx->iError = err;
    return -1;
}

void __mv_asn_pad_bits(__mv_asn_coding_context* ctx) {
    if (ctx->usedBits != 0) {
        ctx->usedBits = 0;
        ctx->pos++;
    }
}

void __mv_asn_pad_readbits(__mv_asn_coding_context* ctx) {
    if (ctx->usedBits != 7) {
        ctx->usedBits = 7;
        ctx->pos++;
    }
}

int __mv_asn_has_decode_error(__mv_asn_coding_context* ctx) {
    if (ctx->iError) return 1;
    if (ctx->pos > ctx->len) {
        ctx->iError = MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER;
        return 1;
    }
    return 0;
}

int __mv_asn_has_required_bytes(__mv_asn_coding_context* ctx, int bytes) {
    return bytes >= 0 && int(ctx->pos) + bytes <= int(ctx->len);
}

int __mv_asn_set_max_read_bytes_for_ie(int length, __mv_asn_coding_context* ctx) {
    ctx->ieCurrPos = int16_t(ctx->pos);
    ctx->ieMaxReadBytes = int16_t(length);
    if (int(ctx->pos) + length > int(ctx->len)) {
        dec_fail(ctx, MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER);
        return 0;
    }
    return 1;
}

int __mv_asn_copy_buffer(__mv_asn_coding_context* ctx, uint8_t** data, uint32_t* length) {
    uint32_t hl = ctx->headerlen > sizeof ctx->header ? sizeof ctx->header : ctx->headerlen;
    uint32_t n = hl + ctx->pos;
    auto* p = static_cast<uint8_t*>(__mv_asn_alloc(n + 1));
    memcpy(p, ctx->header, hl);
    memcpy(p + hl, ctx->buffer, ctx->pos);
    *data = p;
    *length = n;
    return 1;
}

// ---------------------------------------------------------------- reading

int __mv_asn_get_bits(int bits, uint64_t* value, __mv_asn_coding_context* ctx) {
    uint32_t off = 7u - ctx->usedBits;
    int64_t avail = (int64_t(ctx->len) - ctx->pos) * 8 - off;
    if (bits < 0 || bits > 64 || bits > avail) return dec_fail(ctx, MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER);
    uint64_t v = 0;
    while (bits > 0) {
        uint32_t take = 8 - off;
        if (take > uint32_t(bits)) take = uint32_t(bits);
        uint32_t b = (ctx->buffer[ctx->pos] >> (8 - off - take)) & ((1u << take) - 1);
        v = (v << take) | b;
        bits -= int(take);
        off += take;
        if (off == 8) {
            off = 0;
            ctx->pos++;
        }
    }
    ctx->usedBits = uint8_t(7 - off);
    *value = v;
    return 0;
}

int __mv_asn_get_bit_val(__mv_asn_coding_context* ctx) {
    uint64_t v = 0;
    if (__mv_asn_get_bits(1, &v, ctx) < 0) return 0;
    return int(v);
}

uint8_t __mv_asn_get_bit_val_uint8(int bits, __mv_asn_coding_context* ctx) {
    uint64_t v = 0;
    if (bits > 8 || __mv_asn_get_bits(bits, &v, ctx) < 0) return 0;
    return uint8_t(v);
}

uint64_t __mv_asn_get_uintmax(int bytes, __mv_asn_coding_context* ctx) {
    __mv_asn_pad_readbits(ctx);
    uint64_t v = 0;
    if (bytes > 8 || __mv_asn_get_bits(bytes * 8, &v, ctx) < 0) return 0;
    return v;
}
uint8_t __mv_asn_get_byte(__mv_asn_coding_context* ctx) { return uint8_t(__mv_asn_get_uintmax(1, ctx)); }
uint16_t __mv_asn_get_uint16val(__mv_asn_coding_context* ctx) { return uint16_t(__mv_asn_get_uintmax(2, ctx)); }
uint32_t __mv_asn_get_uint24(__mv_asn_coding_context* ctx) { return uint32_t(__mv_asn_get_uintmax(3, ctx)); }
uint32_t __mv_asn_get_uint32(__mv_asn_coding_context* ctx) { return uint32_t(__mv_asn_get_uintmax(4, ctx)); }

// Unconstrained length determinant; fragments (above 16383) are refused.
int __mv_asn_get_range_val_length(__mv_asn_coding_context* ctx) {
    __mv_asn_pad_readbits(ctx);
    uint64_t b = 0;
    if (__mv_asn_get_bits(8, &b, ctx) < 0) return -1;
    if (!(b & 0x80)) return int(b);
    if ((b & 0xC0) == 0xC0) return dec_fail(ctx, MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER);
    uint64_t lo = 0;
    if (__mv_asn_get_bits(8, &lo, ctx) < 0) return -1;
    return int(((b & 0x3F) << 8) | lo);
}

int __mv_asn_get_total_used_length(int length, __mv_asn_coding_context* ctx) {
    __mv_asn_pad_readbits(ctx);
    return length < 128 ? length + 4 : length + 5;
}

int __mv_asn_move_unknown_field_length(__mv_asn_coding_context* ctx) {
    int l = __mv_asn_get_range_val_length(ctx);
    if (l < 0) return -1;
    if (!__mv_asn_has_required_bytes(ctx, l)) return dec_fail(ctx, MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER);
    ctx->pos = uint16_t(ctx->pos + l);
    return l < 128 ? l + 4 : l + 5;
}

int __mv_asn_copy_bytes(uint8_t* dst, int count, __mv_asn_coding_context* ctx) {
    if (count < 0) return -1;
    if (ctx->usedBits == 7) {
        if (!__mv_asn_has_required_bytes(ctx, count)) return dec_fail(ctx, MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER);
        memcpy(dst, ctx->buffer + ctx->pos, size_t(count));
        ctx->pos = uint16_t(ctx->pos + count);
        return 0;
    }
    for (int i = 0; i < count; i++) {
        uint64_t v = 0;
        if (__mv_asn_get_bits(8, &v, ctx) < 0) return -1;
        dst[i] = uint8_t(v);
    }
    return 0;
}

int __mv_asn_copy_nbits(uint8_t* dst, int bits, __mv_asn_coding_context* ctx) {
    int full = bits / 8;
    if (__mv_asn_copy_bytes(dst, full, ctx) < 0) return -1;
    int rest = bits % 8;
    if (rest) {
        uint64_t v = 0;
        if (__mv_asn_get_bits(rest, &v, ctx) < 0) return -1;
        dst[full] = uint8_t(v << (8 - rest));
    }
    return 0;
}

// ---------------------------------------------------------------- writing

int __mv_asn_add_value_bits(uint64_t value, int count, __mv_asn_coding_context* ctx) {
    if (count <= 0) return 0;
    uint32_t need = (uint32_t(ctx->usedBits) + uint32_t(count) + 7) / 8;
    if (uint32_t(ctx->pos) + need > MV_ASN_BUFFER_SIZE) return enc_fail(ctx);
    while (count > 0) {
        if (ctx->usedBits == 0) ctx->buffer[ctx->pos] = 0;
        uint32_t room = 8u - ctx->usedBits;
        uint32_t take = room < uint32_t(count) ? room : uint32_t(count);
        uint32_t b = uint32_t(value >> (count - int(take))) & ((1u << take) - 1);
        ctx->buffer[ctx->pos] = uint8_t(ctx->buffer[ctx->pos] | (b << (room - take)));
        count -= int(take);
        ctx->usedBits = uint8_t(ctx->usedBits + take);
        if (ctx->usedBits == 8) {
            ctx->usedBits = 0;
            ctx->pos++;
        }
    }
    return 0;
}

int __mv_asn_add_bit(int bit, __mv_asn_coding_context* ctx) { return __mv_asn_add_value_bits(bit ? 1 : 0, 1, ctx); }

int __mv_asn_add_bits(const uint8_t* src, int srcMsbBitPos, int count, int pad, __mv_asn_coding_context* ctx) {
    if (pad) __mv_asn_pad_bits(ctx);
    if (srcMsbBitPos == 7 && count >= 8) {
        // whole source octets: one block copy on an aligned cursor, else an octet at a time
        int full = count / 8;
        if (ctx->usedBits == 0) {
            if (__mv_asn_add_bytes(src, full, 0, ctx) < 0) return -1;
        } else {
            for (int i = 0; i < full; i++)
                if (__mv_asn_add_value_bits(src[i], 8, ctx) < 0) return -1;
        }
        int rest = count % 8;
        return rest ? __mv_asn_add_value_bits(uint64_t(src[full] >> (8 - rest)), rest, ctx) : 0;
    }
    int bit = srcMsbBitPos;
    while (count > 0) {
        if (__mv_asn_add_value_bits((*src >> bit) & 1u, 1, ctx) < 0) return -1;
        count--;
        if (--bit < 0) {
            bit = 7;
            src++;
        }
    }
    return 0;
}

int __mv_asn_add_byte(uint8_t b, __mv_asn_coding_context* ctx) {
    __mv_asn_pad_bits(ctx);
    if (ctx->pos + 1u > MV_ASN_BUFFER_SIZE) return enc_fail(ctx);
    ctx->buffer[ctx->pos++] = b;
    return 0;
}

int __mv_asn_add_bytes(const uint8_t* src, int count, int pad, __mv_asn_coding_context* ctx) {
    if (count <= 0) return count < 0 ? -1 : 0;
    if (pad) __mv_asn_pad_bits(ctx);
    if (ctx->usedBits == 0) {
        if (uint32_t(ctx->pos) + uint32_t(count) > MV_ASN_BUFFER_SIZE) return enc_fail(ctx);
        memcpy(ctx->buffer + ctx->pos, src, size_t(count));
        ctx->pos = uint16_t(ctx->pos + count);
        return 0;
    }
    for (int i = 0; i < count; i++)
        if (__mv_asn_add_value_bits(src[i], 8, ctx) < 0) return -1;
    return 0;
}

int __mv_asn_add_length8(int length, __mv_asn_coding_context* ctx) {
    __mv_asn_pad_bits(ctx);
    return __mv_asn_add_value_bits(uint64_t(length) & 0xFF, 8, ctx);
}

int __mv_asn_add_length16(int length, __mv_asn_coding_context* ctx) {
    __mv_asn_pad_bits(ctx);
    return __mv_asn_add_value_bits(uint64_t(length) & 0xFFFF, 16, ctx);
}

int __mv_asn_set_value_length(int length, __mv_asn_coding_context* ctx) {
    __mv_asn_pad_bits(ctx);
    if (length < 0) return -1;
    if (length < 128) return __mv_asn_add_value_bits(uint64_t(length), 8, ctx);
    if (length < 16384) return __mv_asn_add_value_bits(0x8000u | uint64_t(length), 16, ctx);
    __mv_asn_log(MV_LOG_ERROR, "length not supported for more than 16383 ");
    return -1;
}

int __mv_asn_reserve_byte_for_length(__mv_asn_coding_context* ctx) {
    __mv_asn_pad_bits(ctx);
    if (ctx->pos + 1u > MV_ASN_BUFFER_SIZE) return enc_fail(ctx);
    ctx->ieStartPos = ctx->pos;
    ctx->buffer[ctx->pos++] = 0;
    return 0;
}

int __mv_asn_set_length_at_pos(uint16_t startPos, __mv_asn_coding_context* ctx) {
    __mv_asn_pad_bits(ctx);
    int l = int(ctx->pos) - int(startPos) - 1;
    if (l == 0) {
        // an empty open type is one zero octet
        if (ctx->pos + 1u > MV_ASN_BUFFER_SIZE) return enc_fail(ctx);
        ctx->buffer[ctx->pos++] = 0;
        l = 1;
    }
    if (l <= 127) {
        ctx->buffer[startPos] = uint8_t(l);
    } else if (l < 16384) {
        if (ctx->pos + 1u > MV_ASN_BUFFER_SIZE) return enc_fail(ctx);
        memmove(ctx->buffer + startPos + 2, ctx->buffer + startPos + 1, size_t(l));
        ctx->buffer[startPos] = uint8_t(0x80 | (l >> 8));
        ctx->buffer[startPos + 1] = uint8_t(l & 0xFF);
        ctx->pos++;
    } else {
        __mv_asn_log(MV_LOG_ERROR, "length not supported for more than 16383 ");
        return -1;
    }
    ctx->ieLastLen = uint16_t(l);
    return 0;
}

int __mv_asn_set_length_at_reserved(__mv_asn_coding_context* ctx) {
    return __mv_asn_set_length_at_pos(ctx->ieStartPos, ctx);
}

int __mv_asn_set_buffer_length(__mv_asn_coding_context* ctx) { return __mv_asn_set_length_at_pos(3, ctx); }

int __mv_asn_add_id_and_criticality(uint16_t id, int criticality, __mv_asn_coding_context* ctx) {
    __mv_asn_pad_bits(ctx);
    if (__mv_asn_add_value_bits(id, 16, ctx) < 0) return -1;
    return __mv_asn_add_value_bits(uint64_t(criticality & 3), 2, ctx);
}

// ---------------------------------------------------------------- whole numbers

// Bits of a bit-field able to hold 0..range: 0 for 0, 1 for 1, 2 for 2..3, ...
int __mv_asn_getRequiredBitCount(uint64_t range) {
    int n = 0;
    while (range) {
        n++;
        range >>= 1;
    }
    return n;
}

static int octets_of(uint64_t v) {
    int n = 1;
    while (n < 8 && (v >> (8 * n))) n++;
    return n;
}

// X.691 constrained whole number of v = value - lb over ub - lb (aligned variant).
static int add_cwn(uint64_t v, uint64_t span, __mv_asn_coding_context* ctx) {
    if (span == 0) return 0;
    if (span < 255) return __mv_asn_add_value_bits(v, __mv_asn_getRequiredBitCount(span), ctx);
    if (span <= 65535) {
        __mv_asn_pad_bits(ctx);
        return __mv_asn_add_value_bits(v, span == 255 ? 8 : 16, ctx);
    }
    // the octet count goes unaligned ahead of the aligned octets
    int n = octets_of(v);
    int maxn = octets_of(span);
    if (__mv_asn_add_value_bits(uint64_t(n - 1), __mv_asn_getRequiredBitCount(uint64_t(maxn - 1)), ctx) < 0)
        return -1;
    __mv_asn_pad_bits(ctx);
    return __mv_asn_add_value_bits(v, 8 * n, ctx);
}

static int get_cwn(uint64_t* v, uint64_t span, __mv_asn_coding_context* ctx) {
    *v = 0;
    if (span == 0) return 0;
    if (span < 255) return __mv_asn_get_bits(__mv_asn_getRequiredBitCount(span), v, ctx);
    if (span <= 65535) {
        __mv_asn_pad_readbits(ctx);
        return __mv_asn_get_bits(span == 255 ? 8 : 16, v, ctx);
    }
    int maxn = octets_of(span);
    uint64_t n1 = 0;
    if (__mv_asn_get_bits(__mv_asn_getRequiredBitCount(uint64_t(maxn - 1)), &n1, ctx) < 0) return -1;
    if (int(n1) + 1 > maxn) return dec_fail(ctx, MV_ASN_DECODE_ERROR_INTEGER);
    __mv_asn_pad_readbits(ctx);
    if (__mv_asn_get_bits(8 * (int(n1) + 1), v, ctx) < 0) return -1;
    if (*v > span) return dec_fail(ctx, MV_ASN_DECODE_ERROR_INTEGER);
    return 0;
}

// Two's complement in the fewest octets, behind a length octet (unconstrained whole number).
static int add_unconstrained(int64_t value, __mv_asn_coding_context* ctx) {
    int n = 1;
    while (n < 8 && !(value >= -(int64_t(1) << (8 * n - 1)) && value < (int64_t(1) << (8 * n - 1)))) n++;
    if (__mv_asn_set_value_length(n, ctx) < 0) return -1;
    return __mv_asn_add_value_bits(uint64_t(value) & (n == 8 ? ~0ull : ((1ull << (8 * n)) - 1)), 8 * n, ctx);
}

static int get_unconstrained(int64_t* value, __mv_asn_coding_context* ctx) {
    int n = __mv_asn_get_range_val_length(ctx);
    if (n < 0) return -1;
    if (n < 1 || n > 8) return dec_fail(ctx, MV_ASN_DECODE_ERROR_INTEGER);
    uint64_t v = 0;
    if (__mv_asn_get_bits(8 * n, &v, ctx) < 0) return -1;
    if (n < 8 && (v >> (8 * n - 1))) v |= ~0ull << (8 * n);
    *value = int64_t(v);
    return 0;
}

int __mv_asn_AddConstrainedInteger(uint64_t value, int isExt, int64_t lb, int64_t ub, int hasExt,
                                   __mv_asn_coding_context* ctx) {
    int64_t sv = int64_t(value);
    // offsets from lb in 64-bit unsigned arithmetic also cover a full 64-bit range
    bool outside = value - uint64_t(lb) > uint64_t(ub) - uint64_t(lb);
    if (hasExt) {
        if (__mv_asn_add_bit(outside || isExt, ctx) < 0) return -1;
        if (outside || isExt) return add_unconstrained(sv, ctx);
    } else if (outside) {
        return -1;
    }
    return add_cwn(value - uint64_t(lb), uint64_t(ub) - uint64_t(lb), ctx);
}

int __mv_asn_GetConstrainedInteger(uint64_t* value, int* isset, int64_t lb, int64_t ub, int hasExt,
                                   __mv_asn_coding_context* ctx) {
    if (hasExt && __mv_asn_get_bit_val(ctx)) {
        int64_t v = 0;
        if (get_unconstrained(&v, ctx) < 0) return -1;
        *value = uint64_t(v);
    } else {
        uint64_t v = 0;
        if (ctx->iError || get_cwn(&v, uint64_t(ub) - uint64_t(lb), ctx) < 0) return -1;
        *value = v + uint64_t(lb);
    }
    if (isset) *isset = 1;
    return 0;
}

// Normally small non-negative whole number (extension indexes).
static int add_nsnn(uint64_t n, __mv_asn_coding_context* ctx) {
    if (n < 64) return __mv_asn_add_value_bits(n, 7, ctx);
    if (__mv_asn_add_bit(1, ctx) < 0) return -1;
    int k = octets_of(n);
    if (__mv_asn_set_value_length(k, ctx) < 0) return -1;
    return __mv_asn_add_value_bits(n, 8 * k, ctx);
}

static int get_nsnn(uint64_t* n, __mv_asn_coding_context* ctx) {
    uint64_t b = 0;
    if (__mv_asn_get_bits(1, &b, ctx) < 0) return -1;
    if (!b) return __mv_asn_get_bits(6, n, ctx);
    int k = __mv_asn_get_range_val_length(ctx);
    if (k < 1 || k > 8) return dec_fail(ctx, MV_ASN_DECODE_ERROR_INTEGER);
    return __mv_asn_get_bits(8 * k, n, ctx);
}

// ---------------------------------------------------------------- strings

// Length of a string or list: fixed, constrained, extensible, or a length determinant.
// lengthType: 0 unconstrained, 1 fixed, 2 range.
static int add_size(uint32_t n, int lengthType, int min, int max, int hasExt, bool* unconstrained,
                    __mv_asn_coding_context* ctx) {
    *unconstrained = false;
    if (lengthType != 0 && hasExt) {
        bool out = int64_t(n) < min || int64_t(n) > max;
        if (__mv_asn_add_bit(out, ctx) < 0) return -1;
        if (out) lengthType = 0;
    }
    if (lengthType == 0 || max >= 65536) {
        *unconstrained = true;
        return __mv_asn_set_value_length(int(n), ctx);
    }
    if (int64_t(n) < min || int64_t(n) > max) return -1;
    if (lengthType == 1 || min == max) return 0;
    return add_cwn(uint64_t(n - uint32_t(min)), uint64_t(max - min), ctx);
}

static int get_size(uint32_t* n, int lengthType, int min, int max, int hasExt, bool* unconstrained,
                    __mv_asn_coding_context* ctx) {
    *unconstrained = false;
    if (lengthType != 0 && hasExt) {
        uint64_t b = 0;
        if (__mv_asn_get_bits(1, &b, ctx) < 0) return -1;
        if (b) lengthType = 0;
    }
    if (lengthType == 0 || max >= 65536) {
        *unconstrained = true;
        int l = __mv_asn_get_range_val_length(ctx);
        if (l < 0) return -1;
        *n = uint32_t(l);
        return 0;
    }
    if (lengthType == 1 || min == max) {
        *n = uint32_t(min);
        return 0;
    }
    uint64_t v = 0;
    if (get_cwn(&v, uint64_t(max - min), ctx) < 0) return -1;
    if (int64_t(v) + min > max) return dec_fail(ctx, MV_ASN_DECODE_ERROR_SEQUENCE_OF);
    *n = uint32_t(v) + uint32_t(min);
    return 0;
}

// Octets are aligned unless the size is fixed at two octets or fewer.
static bool octets_aligned(bool unconstrained, int min, int max, uint32_t unitBits) {
    if (unconstrained) return true;
    if (min == max) return uint32_t(max) * unitBits > 16;
    return true;
}

int __mv_asn_AddOctetString2(const uint8_t* data, uint32_t len, int lengthType, int min, int max, int hasExt,
                             __mv_asn_coding_context* ctx, int /*isDerived*/) {
    bool unc = false;
    if (add_size(len, lengthType, min, max, hasExt, &unc, ctx) < 0) return -1;
    if (!len) {
        if (octets_aligned(unc, min, max, 8)) __mv_asn_pad_bits(ctx);
        return 0;
    }
    return __mv_asn_add_bytes(data, int(len), octets_aligned(unc, min, max, 8), ctx);
}

int __mv_asn_GetOctetString2(uint8_t** data, uint32_t* len, int lengthType, int min, int max, int hasExt,
                             __mv_asn_coding_context* ctx) {
    bool unc = false;
    uint32_t n = 0;
    if (get_size(&n, lengthType, min, max, hasExt, &unc, ctx) < 0) return -1;
    if (octets_aligned(unc, min, max, 8)) __mv_asn_pad_readbits(ctx);
    if (!__mv_asn_has_required_bytes(ctx, int(n))) return dec_fail(ctx, MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER);
    auto* p = static_cast<uint8_t*>(__mv_asn_alloc(size_t(n) + 1));
    if (__mv_asn_copy_bytes(p, int(n), ctx) < 0) {
        __mv_asn_free(p);
        return -1;
    }
    *data = p;
    *len = n;
    return 1;
}

// PrintableString: eight bits a character in the aligned variant.
int __mv_asn_AddPrintableString(const uint8_t* data, uint32_t len, int lengthType, int min, int max, int hasExt,
                                __mv_asn_coding_context* ctx) {
    return __mv_asn_AddOctetString2(data, len, lengthType, min, max, hasExt, ctx, 0);
}

int __mv_asn_GetPrintableString(uint8_t** data, uint32_t* len, int lengthType, int min, int max, int hasExt,
                                __mv_asn_coding_context* ctx) {
    return __mv_asn_GetOctetString2(data, len, lengthType, min, max, hasExt, ctx);
}

int __mv_asn_AddBitString(const uint8_t* data, int bitslen, int lengthType, int min, int max, int hasExt,
                          __mv_asn_coding_context* ctx) {
    if (bitslen < 0) return -1;
    if (bitslen == 0 && lengthType == 2 && min > 0) {
        __mv_asn_log(MV_LOG_ERROR, "please set bitslen[%d] %s|%d\n", bitslen, __FILE_NAME__, __LINE__);
        return -1;
    }
    bool unc = false;
    if (add_size(uint32_t(bitslen), lengthType, min, max, hasExt, &unc, ctx) < 0) return -1;
    if (octets_aligned(unc, min, max, 1)) __mv_asn_pad_bits(ctx);
    if (bitslen == 0) return 0;
    return __mv_asn_add_bits(data, 7, bitslen, 0, ctx);
}

int __mv_asn_GetBitString(uint8_t** data, uint32_t* length, int* bitslen, int lengthType, int min, int max,
                          int hasExt, __mv_asn_coding_context* ctx) {
    bool unc = false;
    uint32_t n = 0;
    if (get_size(&n, lengthType, min, max, hasExt, &unc, ctx) < 0) return -1;
    if (octets_aligned(unc, min, max, 1)) __mv_asn_pad_readbits(ctx);
    if (int64_t(n) > (int64_t(ctx->len) - ctx->pos) * 8) return dec_fail(ctx, MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER);
    uint32_t bytes = n >= 8 ? n / 8 + 1 : 1;
    auto* p = static_cast<uint8_t*>(__mv_asn_alloc(size_t(bytes) + 1));
    if (__mv_asn_copy_nbits(p, int(n), ctx) < 0) {
        __mv_asn_free(p);
        return -1;
    }
    *data = p;
    *length = (n + 7) / 8;
    *bitslen = int(n);
    return 1;
}

// ---------------------------------------------------------------- CHOICE, ENUMERATED, lists

int __mv_asn_AddChoice(int hasExt, int selectedChoice, int nonExtElemCount, int /*extElemCount*/,
                       int isExtensionSelected, __mv_asn_coding_context* ctx) {
    if (hasExt && __mv_asn_add_bit(isExtensionSelected, ctx) < 0) return -1;
    if (isExtensionSelected) return add_nsnn(uint64_t(selectedChoice - nonExtElemCount), ctx);
    if (selectedChoice < 0 || selectedChoice >= nonExtElemCount) return -1;
    return add_cwn(uint64_t(selectedChoice), uint64_t(nonExtElemCount - 1), ctx);
}

// Returns the index in the standard's order (extension alternatives after the root), -1 on error.
int __mv_asn_GetChoice(int hasExt, int nonExtElemCount, int* isExtensionSelected, __mv_asn_coding_context* ctx) {
    uint64_t ext = 0, v = 0;
    if (hasExt && __mv_asn_get_bits(1, &ext, ctx) < 0) return -1;
    if (isExtensionSelected) *isExtensionSelected = int(ext);
    if (ext) {
        if (get_nsnn(&v, ctx) < 0) return -1;
        if (v > 255) return dec_fail(ctx, MV_ASN_DECODE_ERROR_CHOICE);
        return nonExtElemCount + int(v);
    }
    if (get_cwn(&v, uint64_t(nonExtElemCount - 1), ctx) < 0) return -1;
    return int(v);
}

int __mv_asn_AddEnum(int enumVal, int hasExt, int isExtSelected, int nonExtEnumCount, int /*extEnumCount*/,
                     __mv_asn_coding_context* ctx) {
    if (hasExt && __mv_asn_add_bit(isExtSelected, ctx) < 0) return -1;
    if (isExtSelected) return add_nsnn(uint64_t(enumVal - nonExtEnumCount), ctx);
    if (enumVal < 0 || enumVal >= nonExtEnumCount) return -1;
    return add_cwn(uint64_t(enumVal), uint64_t(nonExtEnumCount - 1), ctx);
}

// Reads the value after the extension bit; returns the index in the standard's order, -1 on error.
int __mv_asn_GetEnum(int isExt, int nonExtEnumCount, __mv_asn_coding_context* ctx) {
    uint64_t v = 0;
    if (isExt) {
        if (get_nsnn(&v, ctx) < 0) return -1;
        if (v > 255) return dec_fail(ctx, MV_ASN_DECODE_ERROR_ENUMERATOR);
        return nonExtEnumCount + int(v);
    }
    if (get_cwn(&v, uint64_t(nonExtEnumCount - 1), ctx) < 0) return -1;
    if (int(v) >= nonExtEnumCount) return dec_fail(ctx, MV_ASN_DECODE_ERROR_ENUMERATOR);
    return int(v);
}

int __mv_asn_listitem_count2(int count, int min, int max, int level, __mv_asn_coding_context* ctx) {
    if (level == 0) __mv_asn_pad_bits(ctx);
    bool unc = false;
    return add_size(uint32_t(count + min), 2, min, max, 0, &unc, ctx);
}

int __mv_asn_get_listitem_count(int min, int max, int level, __mv_asn_coding_context* ctx) {
    if (level == 0) __mv_asn_pad_readbits(ctx);
    bool unc = false;
    uint32_t n = 0;
    if (get_size(&n, 2, min, max, 0, &unc, ctx) < 0) return -1;
    return int(n);
}

// Used by the walker: sizes with an extension marker.
int mv_asn_add_size(uint32_t n, int lengthType, int min, int max, int hasExt, __mv_asn_coding_context* ctx) {
    bool unc = false;
    return add_size(n, lengthType, min, max, hasExt, &unc, ctx);
}
int mv_asn_get_size(uint32_t* n, int lengthType, int min, int max, int hasExt, __mv_asn_coding_context* ctx) {
    bool unc = false;
    return get_size(n, lengthType, min, max, hasExt, &unc, ctx);
}
int mv_asn_add_nsnn(uint64_t n, __mv_asn_coding_context* ctx) { return add_nsnn(n, ctx); }
int mv_asn_get_nsnn(uint64_t* n, __mv_asn_coding_context* ctx) { return get_nsnn(n, ctx); }
int mv_asn_add_unconstrained(int64_t v, __mv_asn_coding_context* ctx) { return add_unconstrained(v, ctx); }
int mv_asn_get_unconstrained(int64_t* v, __mv_asn_coding_context* ctx) { return get_unconstrained(v, ctx); }

// ---------------------------------------------------------------- debug

static void hex_text(const uint8_t* data, uint32_t len, uint32_t maxBytes, char* out, size_t outSize) {
    size_t w = 0;
    out[0] = 0;
    for (uint32_t i = 0; i < len && i < maxBytes && w + 6 < outSize; i++)
        w += size_t(snprintf(out + w, outSize - w, "0x%02X,", data[i]));
}

void __mv_asn_debug_enum(const char* key, const char* typeName, unsigned value, int level) {
    __mv_asn_log(MV_LOG_DEBUG, "%*s[%s] %u ENUM key=%s (%s|%s|%d)", level * 2, "", typeName, value, key,
                 __FILE_NAME__, __func__, __LINE__);
}

void __mv_asn_debug_choice(const char* key, const char* typeName, unsigned value, int level) {
    __mv_asn_log(MV_LOG_DEBUG, "%*s[%s] %u CHOICE key=%s (%s|%s|%d)", level * 2, "", typeName, value, key,
                 __FILE_NAME__, __func__, __LINE__);
}

void __mv_asn_debug_string(const char* key, const char* typeName, const uint8_t* data, uint32_t len, int level) {
    if (!__mv_asn_log_enabled(MV_LOG_DEBUG)) return;
    char hex[2048];
    hex_text(data, len, 300, hex, sizeof hex);
    __mv_asn_log(MV_LOG_DEBUG, "%*s[%s] %s len=%d STRING key=%s (%s|%s|%d)", level * 2, "", typeName, hex, int(len),
                 key, __FILE_NAME__, __func__, __LINE__);
}

void __mv_asn_debug_printablestring(const char* key, const char* typeName, const uint8_t* data, uint32_t len,
                                    int level) {
    __mv_asn_log(MV_LOG_DEBUG, "%*s[%s] %.*s len=%d STRING key=%s (%s|%s|%d)", level * 2, "", typeName, int(len),
                 data ? reinterpret_cast<const char*>(data) : "", int(len), key, __FILE_NAME__, __func__, __LINE__);
}

void __mv_asn_debug_bitstring(const char* key, const char* typeName, const uint8_t* data, uint32_t len,
                              int bitslen, int level) {
    if (!__mv_asn_log_enabled(MV_LOG_DEBUG)) return;
    char text[400];
    unsigned long long iv = 0;
    if (bitslen <= 64) {
        size_t w = 0;
        for (int i = 0; i < bitslen; i++) {
            int bit = (data[i / 8] >> (7 - i % 8)) & 1;
            iv = (iv << 1) | unsigned(bit);
            text[w++] = char('0' + bit);
            if (i % 4 == 3 && i + 1 < bitslen) text[w++] = ' ';
        }
        text[w] = 0;
    } else {
        hex_text(data, len, 30, text, sizeof text);
    }
    __mv_asn_log(MV_LOG_DEBUG, "%*s[%s] %s int=%llu len=%d bitslen=%d BITSTRING key=%s (%s|%s|%d)", level * 2, "",
                 typeName, text, iv, int(len), bitslen, key, __FILE_NAME__, __func__, __LINE__);
}

void __mv_asn_debug_integer(const char* key, const char* typeName, long long value, int level) {
    __mv_asn_log(MV_LOG_DEBUG, "%*s[%s] %lld INT key=%s (%s|%s|%d)", level * 2, "", typeName, value, key,
                 __FILE_NAME__, __func__, __LINE__);
}

void __mv_asn_dump_item(const char* prefix, const uint8_t* data, int len) {
    if (!__mv_asn_log_enabled(MV_LOG_DEBUG) || len < 0) return;
    char hex[1600];
    size_t w = 0;
    hex[0] = 0;
    for (int i = 0; i < len && w + 4 < sizeof hex; i++) w += size_t(snprintf(hex + w, sizeof hex - w, "%02X ", data[i]));
    __mv_asn_log(MV_LOG_DEBUG, "%s %s", prefix, hex);
}

void __mv_asn_dump_integer(const char* prefix, uint64_t value, int bits) {
    __mv_asn_log(MV_LOG_DEBUG, "%s %llu (%d bits)", prefix, static_cast<unsigned long long>(value), bits);
}

void __mv_asn_dump_string(const char* prefix, const uint8_t* data, int len) { __mv_asn_dump_item(prefix, data, len); }

void __mv_asn_log_buffer_range(const char* prefix, __mv_asn_coding_context* ctx, int from, int to) {
    if (from < 0 || to > MV_ASN_BUFFER_SIZE || from > to) return;
    __mv_asn_dump_item(prefix, ctx->buffer + from, to - from);
}

uint32_t __mv_asn_getTAC(const uint8_t* d) { return uint32_t(d[0]) << 8 | d[1]; }
uint32_t __mv_asn_getTAC3(const uint8_t* d) { return uint32_t(d[0]) << 16 | uint32_t(d[1]) << 8 | d[2]; }
uint32_t __mv_asn_cellId(const uint8_t* d) {
    return uint32_t(d[0]) << 24 | uint32_t(d[1]) << 16 | uint32_t(d[2]) << 8 | d[3];
}
