// The X.691 aligned-PER forms on the two cursors, and the primitives on the coding context that run
// them. Every write checks the room left in `buffer`, every read the bytes received (`len`), so
// neither passes an end.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mv_asn.h"
#include "mv_asn_internal.h"
#include "mv_alloc.h"
#include "mv_core.h"

using namespace mv_asn_detail;

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
    // a record of a decoded PDU goes back with its whole region, and only through its root
    if (!p || mv_asn_in_region(p)) {
        mv_asn_region_release(p);
        return;
    }
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
    // Only the head: the encoder clears each byte as it reaches it, so the buffer stays untouched.
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
        if (!ctx->iError) ctx->iError = MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER;
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

// ---------------------------------------------------------------- the cursors

bool Writer::overflow() {
    if (!ctx->iError) {
        ctx->iError = MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER;
        __mv_asn_log(MV_LOG_ERROR, "encoding does not fit the coding buffer of %d bytes (%s|%s|%d)",
                     MV_ASN_BUFFER_SIZE, __FILE_NAME__, __func__, __LINE__);
    }
    return false;
}

// Near the end of the buffer, and for 57 bits or more: a byte at a time.
bool Writer::putSlow(uint64_t v, unsigned n) {
    if (n == 0) return true;
    if (n > 64) return false;
    uint32_t off = bit & 7;
    if ((bit >> 3) + (off + n + 7) / 8 > MV_ASN_BUFFER_SIZE) return overflow();
    while (n > 0) {
        uint32_t byte = bit >> 3;
        off = bit & 7;
        if (off == 0) buf[byte] = 0;
        uint32_t room = 8 - off;
        uint32_t take = room < n ? room : n;
        uint32_t b = uint32_t(v >> (n - take)) & ((1u << take) - 1);
        buf[byte] = uint8_t(buf[byte] | (b << (room - take)));
        n -= take;
        bit += take;
    }
    return true;
}






// A value of 128 octets or more: its length takes two octets, so the value moves up by one.
bool Writer::openEndLong(uint32_t start, int l) {
    if (l >= 16384) {
        __mv_asn_log(MV_LOG_ERROR, "length not supported for more than 16383 ");
        return false;
    }
    if (pos() + 1 > MV_ASN_BUFFER_SIZE) return overflow();
    memmove(buf + start + 2, buf + start + 1, size_t(l));
    buf[start] = uint8_t(0x80 | (l >> 8));
    buf[start + 1] = uint8_t(l & 0xFF);
    bit += 8;
    ctx->ieLastLen = uint16_t(l);
    return true;
}

// Near the end of what may be read: a byte at a time.
bool Reader::getSlow(unsigned n, uint64_t* v) {
    uint64_t r = 0;
    while (n > 0) {
        uint32_t off = bit & 7;
        uint32_t take = 8 - off < n ? 8 - off : n;
        uint32_t b = (buf[bit >> 3] >> (8 - off - take)) & ((1u << take) - 1);
        r = (r << take) | b;
        n -= take;
        bit += take;
    }
    *v = r;
    return true;
}

bool Reader::copyBits(uint8_t* dst, uint32_t n) {
    if (!copyBytes(dst, n / 8)) return false;
    if (uint32_t rest = n % 8) {
        uint64_t v = 0;
        if (!get(rest, &v)) return false;
        dst[n / 8] = uint8_t(v << (8 - rest));
    }
    return true;
}






// ---------------------------------------------------------------- the primitives on a context

namespace {
// Runs one cursor operation on the context and writes the cursor back.
template <class F>
int onWriter(__mv_asn_coding_context* ctx, F f) {
    Writer w(ctx);
    bool ok = f(w);
    w.sync();
    return ok ? 1 : -1;
}
template <class F>
int onReader(__mv_asn_coding_context* ctx, F f) {
    Reader r(ctx);
    bool ok = f(r);
    r.sync();
    return ok ? 1 : -1;
}
}  // namespace

// reading

int __mv_asn_get_bits(int bits, uint64_t* value, __mv_asn_coding_context* ctx) {
    return onReader(ctx, [&](Reader& r) { return bits >= 0 && r.get(unsigned(bits), value); });
}

int __mv_asn_get_bit_val(__mv_asn_coding_context* ctx) {
    uint64_t v = 0;
    if (__mv_asn_get_bits(1, &v, ctx) < 1) return 0;
    return int(v);
}

uint8_t __mv_asn_get_bit_val_uint8(int bits, __mv_asn_coding_context* ctx) {
    uint64_t v = 0;
    if (bits > 8 || __mv_asn_get_bits(bits, &v, ctx) < 1) return 0;
    return uint8_t(v);
}

uint64_t __mv_asn_get_uintmax(int bytes, __mv_asn_coding_context* ctx) {
    __mv_asn_pad_readbits(ctx);
    uint64_t v = 0;
    if (bytes > 8 || __mv_asn_get_bits(bytes * 8, &v, ctx) < 1) return 0;
    return v;
}
uint8_t __mv_asn_get_byte(__mv_asn_coding_context* ctx) { return uint8_t(__mv_asn_get_uintmax(1, ctx)); }
uint16_t __mv_asn_get_uint16val(__mv_asn_coding_context* ctx) { return uint16_t(__mv_asn_get_uintmax(2, ctx)); }
uint32_t __mv_asn_get_uint24(__mv_asn_coding_context* ctx) { return uint32_t(__mv_asn_get_uintmax(3, ctx)); }
uint32_t __mv_asn_get_uint32(__mv_asn_coding_context* ctx) { return uint32_t(__mv_asn_get_uintmax(4, ctx)); }

int __mv_asn_get_range_val_length(__mv_asn_coding_context* ctx) {
    uint32_t n = 0;
    return onReader(ctx, [&](Reader& r) { return r.length(&n); }) < 0 ? -1 : int(n);
}

int __mv_asn_get_total_used_length(int length, __mv_asn_coding_context* ctx) {
    __mv_asn_pad_readbits(ctx);
    return length < 128 ? length + 4 : length + 5;
}

int __mv_asn_move_unknown_field_length(__mv_asn_coding_context* ctx) {
    int l = __mv_asn_get_range_val_length(ctx);
    if (l < 0) return -1;
    if (!__mv_asn_has_required_bytes(ctx, l)) {
        if (!ctx->iError) ctx->iError = MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER;
        return -1;
    }
    ctx->pos = uint16_t(ctx->pos + l);
    return l < 128 ? l + 4 : l + 5;
}

int __mv_asn_copy_bytes(uint8_t* dst, int count, __mv_asn_coding_context* ctx) {
    if (count < 0) return -1;
    return onReader(ctx, [&](Reader& r) { return r.copyBytes(dst, uint32_t(count)); });
}

int __mv_asn_copy_nbits(uint8_t* dst, int bits, __mv_asn_coding_context* ctx) {
    if (bits < 0) return -1;
    return onReader(ctx, [&](Reader& r) { return r.copyBits(dst, uint32_t(bits)); });
}

// writing

int __mv_asn_add_value_bits(uint64_t value, int count, __mv_asn_coding_context* ctx) {
    if (count <= 0) return count < 0 ? -1 : 1;
    return onWriter(ctx, [&](Writer& w) { return w.put(value, unsigned(count)); });
}

int __mv_asn_add_bit(int bit, __mv_asn_coding_context* ctx) { return __mv_asn_add_value_bits(bit ? 1 : 0, 1, ctx); }

int __mv_asn_add_bits(const uint8_t* src, int srcMsbBitPos, int count, int pad, __mv_asn_coding_context* ctx) {
    if (count <= 0) return count < 0 ? -1 : 1;
    return onWriter(ctx, [&](Writer& w) {
        if (pad) w.align();
        if (srcMsbBitPos == 7) {
            // whole source octets at once, then the bits of the last
            uint32_t full = uint32_t(count) / 8, rest = uint32_t(count) % 8;
            return w.putBytes(src, full) && (!rest || w.put(uint64_t(src[full] >> (8 - rest)), rest));
        }
        const uint8_t* s = src;
        for (int bit = srcMsbBitPos; count > 0; count--) {
            if (!w.put((*s >> bit) & 1u, 1)) return false;
            if (--bit < 0) {
                bit = 7;
                s++;
            }
        }
        return true;
    });
}

int __mv_asn_add_byte(uint8_t b, __mv_asn_coding_context* ctx) {
    return onWriter(ctx, [&](Writer& w) {
        w.align();
        return w.put(b, 8);
    });
}

int __mv_asn_add_bytes(const uint8_t* src, int count, int pad, __mv_asn_coding_context* ctx) {
    if (count <= 0) return count < 0 ? -1 : 1;
    return onWriter(ctx, [&](Writer& w) {
        if (pad) w.align();
        return w.putBytes(src, uint32_t(count));
    });
}

int __mv_asn_add_length8(int length, __mv_asn_coding_context* ctx) {
    return onWriter(ctx, [&](Writer& w) {
        w.align();
        return w.put(uint64_t(length) & 0xFF, 8);
    });
}

int __mv_asn_add_length16(int length, __mv_asn_coding_context* ctx) {
    return onWriter(ctx, [&](Writer& w) {
        w.align();
        return w.put(uint64_t(length) & 0xFFFF, 16);
    });
}

int __mv_asn_set_value_length(int length, __mv_asn_coding_context* ctx) {
    if (length < 0) {
        __mv_asn_pad_bits(ctx);
        return -1;
    }
    return onWriter(ctx, [&](Writer& w) { return w.length(uint32_t(length)); });
}

int __mv_asn_reserve_byte_for_length(__mv_asn_coding_context* ctx) {
    uint32_t start = 0;
    return onWriter(ctx, [&](Writer& w) { return w.openStart(&start); });
}

int __mv_asn_set_length_at_pos(uint16_t startPos, __mv_asn_coding_context* ctx) {
    return onWriter(ctx, [&](Writer& w) { return w.openEnd(startPos); });
}

int __mv_asn_set_length_at_reserved(__mv_asn_coding_context* ctx) {
    return __mv_asn_set_length_at_pos(ctx->ieStartPos, ctx);
}

int __mv_asn_set_buffer_length(__mv_asn_coding_context* ctx) { return __mv_asn_set_length_at_pos(3, ctx); }

int __mv_asn_add_id_and_criticality(uint16_t id, int criticality, __mv_asn_coding_context* ctx) {
    return onWriter(ctx, [&](Writer& w) {
        w.align();
        return w.put(id, 16) && w.put(uint64_t(criticality & 3), 2);
    });
}

// ---------------------------------------------------------------- whole numbers

int __mv_asn_getRequiredBitCount(uint64_t range) { return bitsFor(range); }

int __mv_asn_AddConstrainedInteger(uint64_t value, int isExt, int64_t lb, int64_t ub, int hasExt,
                                   __mv_asn_coding_context* ctx) {
    return onWriter(ctx, [&](Writer& w) { return mv_asn_put_cint(w, value, isExt, lb, ub, hasExt); });
}

int __mv_asn_GetConstrainedInteger(uint64_t* value, int* isset, int64_t lb, int64_t ub, int hasExt,
                                   __mv_asn_coding_context* ctx) {
    int r = onReader(ctx, [&](Reader& rd) { return !rd.ctx->iError && mv_asn_get_cint(rd, value, lb, ub, hasExt); });
    if (r == 1 && isset) *isset = 1;
    return r;
}

// ---------------------------------------------------------------- strings

int __mv_asn_AddOctetString2(const uint8_t* data, uint32_t len, int lengthType, int min, int max, int hasExt,
                             __mv_asn_coding_context* ctx, int /*isDerived*/) {
    return onWriter(ctx, [&](Writer& w) { return mv_asn_put_octets(w, data, len, lengthType, min, max, hasExt); });
}

int __mv_asn_GetOctetString2(uint8_t** data, uint32_t* len, int lengthType, int min, int max, int hasExt,
                             __mv_asn_coding_context* ctx) {
    int r = onReader(ctx, [&](Reader& rd) { return mv_asn_get_octets(rd, data, len, lengthType, min, max, hasExt); });
    return r < 0 ? -1 : 1;
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
    return onWriter(ctx, [&](Writer& w) { return mv_asn_put_bits(w, data, bitslen, lengthType, min, max, hasExt); });
}

int __mv_asn_GetBitString(uint8_t** data, uint32_t* length, int* bitslen, int lengthType, int min, int max,
                          int hasExt, __mv_asn_coding_context* ctx) {
    int r = onReader(ctx, [&](Reader& rd) {
        return mv_asn_get_bits_string(rd, data, length, bitslen, lengthType, min, max, hasExt);
    });
    return r < 0 ? -1 : 1;
}

// ---------------------------------------------------------------- CHOICE, ENUMERATED, lists

int __mv_asn_AddChoice(int hasExt, int selectedChoice, int nonExtElemCount, int /*extElemCount*/,
                       int isExtensionSelected, __mv_asn_coding_context* ctx) {
    return onWriter(ctx, [&](Writer& w) {
        return mv_asn_put_index(w, hasExt, selectedChoice, nonExtElemCount, isExtensionSelected);
    });
}

// Returns the index in the standard's order (extension alternatives after the root), -1 on error.
int __mv_asn_GetChoice(int hasExt, int nonExtElemCount, int* isExtensionSelected, __mv_asn_coding_context* ctx) {
    int v = -1;
    onReader(ctx, [&](Reader& r) { return mv_asn_get_choice(r, hasExt, nonExtElemCount, isExtensionSelected, &v); });
    return v;
}

int __mv_asn_AddEnum(int enumVal, int hasExt, int isExtSelected, int nonExtEnumCount, int /*extEnumCount*/,
                     __mv_asn_coding_context* ctx) {
    return onWriter(ctx,
                    [&](Writer& w) { return mv_asn_put_index(w, hasExt, enumVal, nonExtEnumCount, isExtSelected); });
}

// Reads the value after the extension bit; returns the index in the standard's order, -1 on error.
int __mv_asn_GetEnum(int isExt, int nonExtEnumCount, __mv_asn_coding_context* ctx) {
    int v = -1;
    onReader(ctx, [&](Reader& r) { return mv_asn_get_enum(r, isExt, nonExtEnumCount, &v); });
    return v;
}

int __mv_asn_listitem_count2(int count, int min, int max, int level, __mv_asn_coding_context* ctx) {
    return onWriter(ctx, [&](Writer& w) {
        if (level == 0) w.align();
        bool unc = false;
        return w.size(uint32_t(count + min), 2, min, max, 0, &unc);
    });
}

int __mv_asn_get_listitem_count(int min, int max, int level, __mv_asn_coding_context* ctx) {
    uint32_t n = 0;
    int r = onReader(ctx, [&](Reader& rd) {
        if (level == 0) rd.align();
        bool unc = false;
        return rd.size(&n, 2, min, max, 0, &unc);
    });
    return r < 0 ? -1 : int(n);
}

int mv_asn_add_size(uint32_t n, int lengthType, int min, int max, int hasExt, __mv_asn_coding_context* ctx) {
    bool unc = false;
    return onWriter(ctx, [&](Writer& w) { return w.size(n, lengthType, min, max, hasExt, &unc); });
}
int mv_asn_get_size(uint32_t* n, int lengthType, int min, int max, int hasExt, __mv_asn_coding_context* ctx) {
    bool unc = false;
    return onReader(ctx, [&](Reader& r) { return r.size(n, lengthType, min, max, hasExt, &unc); });
}

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
