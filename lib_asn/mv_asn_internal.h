// Helpers shared by the primitives and the walker; not part of the codec's interface.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "mv_asn.h"
#include "mv_core.h"

// ---------------------------------------------------------------- regions (mv_asn_region.cpp)

// gcc says so with __SANITIZE_ADDRESS__, clang (the fuzz builds) through __has_feature.
#if defined(__SANITIZE_ADDRESS__)
#define MV_ASN_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MV_ASN_ASAN 1
#endif
#endif
#ifdef MV_ASN_ASAN
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(a, n) ((void)(a), (void)(n))
#define ASAN_UNPOISON_MEMORY_REGION(a, n) ((void)(a), (void)(n))
#endif

// The head of a chunk of a region: the memory of a decoded PDU, bumped out of chunks that belong
// to its root record and released with it. A region is named by its first chunk.
struct MvAsnRegion {
    std::atomic<uint32_t> nextFree;  // index + 1 of the next chunk on the shared free stack, 0 at its end
    uint32_t used;                   // payload bytes handed out
    uint32_t decoded;                // first chunk: every record below the root is the decoder's
    MvAsnRegion* nextInRegion;       // the region's other chunks, from its first one
    MvAsnRegion* current;            // first chunk: the one allocations come from
    void* root;                      // first chunk: the record the region belongs to
};
// The messages of the UE path take 200 to 1000 bytes of records; a string longer than a chunk's
// payload comes from the allocator, and its PDU is then freed record by record.
constexpr size_t kMvAsnChunk = 2048;
constexpr size_t kMvAsnChunkHead = 64;
constexpr size_t kMvAsnPayload = kMvAsnChunk - kMvAsnChunkHead;
static_assert(sizeof(MvAsnRegion) <= kMvAsnChunkHead);
#ifdef MV_ASN_ASAN
// Poisoned bytes between records, so that the address sanitizer sees a record overrun.
constexpr size_t kMvAsnRedzone = 16;
#else
constexpr size_t kMvAsnRedzone = 0;
#endif

// A new region whose first record (zeroed, `size` bytes) is its root; nullptr when none can be had.
void* mv_asn_region_new_root(size_t size);
// The region whose root record p is, or nullptr.
MvAsnRegion* mv_asn_region_of(const void* root);
// Bytes of the region, from a new chunk when the current one is full (those are cleared); nullptr
// when too large or no chunk can be had.
void* mv_asn_region_alloc_slow(MvAsnRegion* region, size_t size);
// Bytes of the region, not cleared: the caller writes all of them.
inline __attribute__((always_inline)) void* mv_asn_region_take(MvAsnRegion* region, size_t size) {
    MvAsnRegion* c = region->current;
    size_t need = (size + 7) / 8 * 8 + kMvAsnRedzone;
    if (c->used + need > kMvAsnPayload) return mv_asn_region_alloc_slow(region, size);
    uint8_t* p = reinterpret_cast<uint8_t*>(c) + kMvAsnChunkHead + c->used;
    c->used += uint32_t(need);
    ASAN_UNPOISON_MEMORY_REGION(p, size);
    return p;
}
inline __attribute__((always_inline)) void* mv_asn_region_alloc(MvAsnRegion* region, size_t size) {
    void* p = mv_asn_region_take(region, size);
    if (p) memset(p, 0, size);
    return p;
}
// Whether p lies in any region: such memory is never freed on its own. Nothing else is ever
// mapped inside the range the regions are carved from.
extern const uint8_t* mv_asn_region_base;
extern size_t mv_asn_region_size;
inline bool mv_asn_in_region(const void* p) {
    return size_t(static_cast<const uint8_t*>(p) - mv_asn_region_base) < mv_asn_region_size;
}
// A region filled by a decode holds nothing else, and is released without a walk of its records.
inline void mv_asn_region_mark_decoded(MvAsnRegion* region) { region->decoded = 1; }
inline bool mv_asn_region_decoded(const MvAsnRegion* region) { return region->decoded; }
// Releases the region p is the root of; false when p is not a root.
bool mv_asn_region_release(void* p);

// The forms are folded into each descriptor's coder with its constants, so they are always inlined.
#define MV_ASN_INLINE inline __attribute__((always_inline))

namespace mv_asn_detail {

inline uint64_t loadBe64(const uint8_t* p) {
    uint64_t v;
    memcpy(&v, p, sizeof v);
    return __builtin_bswap64(v);
}
inline void storeBe64(uint8_t* p, uint64_t v) {
    v = __builtin_bswap64(v);
    memcpy(p, &v, sizeof v);
}
inline uint64_t lowBits(uint64_t v, unsigned n) { return n >= 64 ? v : v & ((uint64_t(1) << n) - 1); }

// Bits of a bit-field able to hold 0..range: 0 for 0, 1 for 1, 2 for 2..3, ...
inline int bitsFor(uint64_t range) { return range ? 64 - __builtin_clzll(range) : 0; }
inline int octetsOf(uint64_t v) { return v >> 8 ? (71 - __builtin_clzll(v)) / 8 : 1; }

// The cursor of an encode, kept in one absolute bit offset while the walker runs and written
// back to the context (pos, usedBits counted from the top) when it returns. Bytes at and past
// the cursor are cleared as the writing reaches them, so the buffer needs no clearing first.
struct Writer {
    __mv_asn_coding_context* ctx;
    uint8_t* buf;
    uint32_t bit;

    explicit Writer(__mv_asn_coding_context* c)
        : ctx(c), buf(c->buffer), bit(uint32_t(c->pos) * 8 + (c->usedBits & 7)) {}
    void sync() const {
        ctx->pos = uint16_t(bit >> 3);
        ctx->usedBits = uint8_t(bit & 7);
    }
    uint32_t pos() const { return bit >> 3; }
    void align() { bit = (bit + 7) & ~7u; }

    // n bits of v, the last bit lowest; false (logged once, iError set) when the buffer is full.
    MV_ASN_INLINE bool put(uint64_t v, unsigned n) {
        uint32_t byte = bit >> 3, off = bit & 7;
        if (n <= 56 && byte + 8 <= MV_ASN_BUFFER_SIZE) {
            if (n == 0) return true;
            uint64_t w = uint64_t(buf[byte] & uint8_t(0xFF00u >> off)) << 56;
            w |= lowBits(v, n) << (64 - off - n);
            storeBe64(buf + byte, w);
            bit += n;
            return true;
        }
        return putSlow(v, n);
    }
    MV_ASN_INLINE bool putBytes(const uint8_t* src, uint32_t n) {
        if ((bit & 7) == 0) {
            uint32_t byte = bit >> 3;
            if (byte + n > MV_ASN_BUFFER_SIZE) return overflow();
            if (n) memcpy(buf + byte, src, n);
            bit += 8 * n;
            return true;
        }
        for (uint32_t i = 0; i < n; i++)
            if (!put(src[i], 8)) return false;
        return true;
    }
    bool putSlow(uint64_t v, unsigned n);
    bool overflow();
    // The X.691 forms; each returns false when it cannot be written.
    bool length(uint32_t n);                          // length determinant, 0 to 16383
    bool cwn(uint64_t v, uint64_t span);               // constrained whole number v of 0..span
    bool unconstrained(int64_t v);                     // length octet and two's complement
    bool nsnn(uint64_t n);                             // normally small non-negative number
    bool size(uint32_t n, int lengthType, int min, int max, int hasExt, bool* unconstrained);
    // Reserves the length octet of an open type, and writes it when the value is there.
    MV_ASN_INLINE bool openStart(uint32_t* start) {
        align();
        *start = pos();
        ctx->ieStartPos = uint16_t(*start);
        return put(0, 8);
    }
    MV_ASN_INLINE bool openEnd(uint32_t start) {
        align();
        int l = int(pos()) - int(start) - 1;
        if (l == 0) {
            // an empty open type is one zero octet
            if (!put(0, 8)) return false;
            l = 1;
        }
        if (l > 127) return openEndLong(start, l);
        buf[start] = uint8_t(l);
        ctx->ieLastLen = uint16_t(l);
        return true;
    }
    bool openEndLong(uint32_t start, int l);
};

// The cursor of a decode: an absolute bit offset and the end of what may be read (the received
// bytes, or the open type being read), written back to the context (pos, usedBits counted from
// 7 down) when the walker returns. Records come from the region when there is one.
struct Reader {
    __mv_asn_coding_context* ctx;
    const uint8_t* buf;
    uint32_t bit;
    uint32_t end;
    uint32_t bytes;  // received bytes: no read, not even a wide one, passes them
    MvAsnRegion* region = nullptr;

    explicit Reader(__mv_asn_coding_context* c)
        : ctx(c), buf(c->buffer), bit(uint32_t(c->pos) * 8 + (7 - (c->usedBits & 7))), end(uint32_t(c->len) * 8),
          bytes(c->len) {}
    void sync() const {
        ctx->pos = uint16_t(bit >> 3);
        ctx->usedBits = uint8_t(7 - (bit & 7));
    }
    uint32_t pos() const { return bit >> 3; }
    void align() { bit = (bit + 7) & ~7u; }
    bool fail(uint32_t err) {
        if (!ctx->iError) ctx->iError = err;
        return false;
    }
    MV_ASN_INLINE bool get(unsigned n, uint64_t* v) {
        if (n > 64 || bit > end || n > end - bit) return fail(MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER);
        uint32_t byte = bit >> 3;
        if (n <= 57 && byte + 8 <= wideLimit()) {
            *v = n ? (loadBe64(buf + byte) << (bit & 7)) >> (64 - n) : 0;
            bit += n;
            return true;
        }
        return getSlow(n, v);
    }
    bool getSlow(unsigned n, uint64_t* v);
    // Eight bytes are read at a time anywhere in the buffer: the bits past the end are never
    // used. The sanitizer builds read no byte past the received ones, so that the fuzzer sees
    // any read that a length check should have stopped.
    uint32_t wideLimit() const {
#ifdef MV_ASN_ASAN
        return bytes;
#else
        return MV_ASN_BUFFER_SIZE;
#endif
    }
    MV_ASN_INLINE bool copyBytes(uint8_t* dst, uint32_t n) {
        if ((bit & 7) == 0) {
            if (bit > end || uint64_t(n) * 8 > end - bit) return fail(MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER);
            if (n) memcpy(dst, buf + (bit >> 3), n);
            bit += 8 * n;
            return true;
        }
        for (uint32_t i = 0; i < n; i++) {
            uint64_t v = 0;
            if (!get(8, &v)) return false;
            dst[i] = uint8_t(v);
        }
        return true;
    }
    bool copyBits(uint8_t* dst, uint32_t n);
    bool length(uint32_t* n);
    bool cwn(uint64_t span, uint64_t* v);
    bool unconstrained(int64_t* v);
    bool nsnn(uint64_t* n);
    bool size(uint32_t* n, int lengthType, int min, int max, int hasExt, bool* unconstrained);
    // Zeroed memory for a record: from the region, else from the codec's allocator.
    MV_ASN_INLINE void* alloc(size_t size) {
        if (region) {
            if (void* p = mv_asn_region_alloc(region, size)) return p;
            heapInRegion();
        }
        return __mv_asn_alloc(size);
    }
    // A record the region could not take comes from the allocator: the region then needs the
    // walk that frees such records before it is released.
    void heapInRegion() { region->decoded = 0; }
    // Memory for octets that the decode then writes, all but the last, which is cleared.
    MV_ASN_INLINE uint8_t* allocOctets(size_t size) {
        if (region) {
            if (void* p = mv_asn_region_take(region, size)) {
                static_cast<uint8_t*>(p)[size - 1] = 0;
                return static_cast<uint8_t*>(p);
            }
            heapInRegion();
        }
        return static_cast<uint8_t*>(__mv_asn_alloc(size));
    }
};

// Octets are aligned unless the size is fixed at two octets or fewer.
inline bool octetsAligned(bool unconstrained, int min, int max, uint32_t unitBits) {
    if (unconstrained) return true;
    if (min == max) return uint32_t(max) * unitBits > 16;
    return true;
}

// ---------------------------------------------------------------- the X.691 forms

MV_ASN_INLINE bool Writer::length(uint32_t n) {
    align();
    if (n < 128) return put(n, 8);
    if (n < 16384) return put(0x8000u | n, 16);
    __mv_asn_log(MV_LOG_ERROR, "length not supported for more than 16383 ");
    return false;
}

MV_ASN_INLINE bool Writer::cwn(uint64_t v, uint64_t span) {
    if (span == 0) return true;
    if (span < 255) return put(v, unsigned(bitsFor(span)));
    if (span <= 65535) {
        align();
        return put(v, span == 255 ? 8 : 16);
    }
    // the octet count goes unaligned ahead of the aligned octets
    int n = octetsOf(v);
    if (!put(uint64_t(n - 1), unsigned(bitsFor(uint64_t(octetsOf(span) - 1))))) return false;
    align();
    return put(v, unsigned(8 * n));
}

MV_ASN_INLINE bool Writer::unconstrained(int64_t value) {
    int n = 1;
    while (n < 8 && !(value >= -(int64_t(1) << (8 * n - 1)) && value < (int64_t(1) << (8 * n - 1)))) n++;
    return length(uint32_t(n)) && put(uint64_t(value), unsigned(8 * n));
}

MV_ASN_INLINE bool Writer::nsnn(uint64_t n) {
    if (n < 64) return put(n, 7);
    int k = octetsOf(n);
    return put(1, 1) && length(uint32_t(k)) && put(n, unsigned(8 * k));
}

// Length of a string or list: fixed, constrained, extensible, or a length determinant.
MV_ASN_INLINE bool Writer::size(uint32_t n, int lengthType, int min, int max, int hasExt, bool* unc) {
    *unc = false;
    if (lengthType != 0 && hasExt) {
        bool out = int64_t(n) < min || int64_t(n) > max;
        if (!put(out, 1)) return false;
        if (out) lengthType = 0;
    }
    if (lengthType == 0 || max >= 65536) {
        *unc = true;
        return length(n);
    }
    if (int64_t(n) < min || int64_t(n) > max) return false;
    if (lengthType == 1 || min == max) return true;
    return cwn(uint64_t(n - uint32_t(min)), uint64_t(max - min));
}

// Length determinant; fragments (above 16383) are refused.
MV_ASN_INLINE bool Reader::length(uint32_t* n) {
    align();
    uint64_t b = 0;
    if (!get(8, &b)) return false;
    if (!(b & 0x80)) {
        *n = uint32_t(b);
        return true;
    }
    if ((b & 0xC0) == 0xC0) return fail(MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER);
    uint64_t lo = 0;
    if (!get(8, &lo)) return false;
    *n = uint32_t((b & 0x3F) << 8 | lo);
    return true;
}

MV_ASN_INLINE bool Reader::cwn(uint64_t span, uint64_t* v) {
    *v = 0;
    if (span == 0) return true;
    if (span < 255) return get(unsigned(bitsFor(span)), v);
    if (span <= 65535) {
        align();
        return get(span == 255 ? 8 : 16, v);
    }
    int maxn = octetsOf(span);
    uint64_t n1 = 0;
    if (!get(unsigned(bitsFor(uint64_t(maxn - 1))), &n1)) return false;
    if (int(n1) + 1 > maxn) return fail(MV_ASN_DECODE_ERROR_INTEGER);
    align();
    if (!get(unsigned(8 * (n1 + 1)), v)) return false;
    if (*v > span) return fail(MV_ASN_DECODE_ERROR_INTEGER);
    return true;
}

MV_ASN_INLINE bool Reader::unconstrained(int64_t* value) {
    uint32_t n = 0;
    if (!length(&n)) return false;
    if (n < 1 || n > 8) return fail(MV_ASN_DECODE_ERROR_INTEGER);
    uint64_t v = 0;
    if (!get(8 * n, &v)) return false;
    if (n < 8 && (v >> (8 * n - 1))) v |= ~0ull << (8 * n);
    *value = int64_t(v);
    return true;
}

MV_ASN_INLINE bool Reader::nsnn(uint64_t* n) {
    uint64_t b = 0;
    if (!get(1, &b)) return false;
    if (!b) return get(6, n);
    uint32_t k = 0;
    if (!length(&k)) return false;
    if (k < 1 || k > 8) return fail(MV_ASN_DECODE_ERROR_INTEGER);
    return get(8 * k, n);
}

MV_ASN_INLINE bool Reader::size(uint32_t* n, int lengthType, int min, int max, int hasExt, bool* unc) {
    *unc = false;
    if (lengthType != 0 && hasExt) {
        uint64_t b = 0;
        if (!get(1, &b)) return false;
        if (b) lengthType = 0;
    }
    if (lengthType == 0 || max >= 65536) {
        *unc = true;
        return length(n);
    }
    if (lengthType == 1 || min == max) {
        *n = uint32_t(min);
        return true;
    }
    uint64_t v = 0;
    if (!cwn(uint64_t(max - min), &v)) return false;
    if (int64_t(v) + min > max) return fail(MV_ASN_DECODE_ERROR_SEQUENCE_OF);
    *n = uint32_t(v) + uint32_t(min);
    return true;
}

// ---------------------------------------------------------------- the typed forms on a cursor

// The presence bits of the extension additions of a SEQUENCE: how many bits, and which are set.
MV_ASN_INLINE bool mv_asn_get_additions(Reader& r, unsigned* count, uint64_t* present) {
    uint64_t n1 = 0;
    if (!r.nsnn(&n1) || n1 > 63) return false;
    *present = 0;
    for (unsigned i = 0; i <= n1; i++) {
        uint64_t b = 0;
        if (!r.get(1, &b)) return false;
        *present |= b << i;
    }
    *count = unsigned(n1) + 1;
    return true;
}


// Constrained whole number lb..ub, with an extension marker: beyond the root it is unconstrained.
MV_ASN_INLINE bool mv_asn_put_cint(Writer& w, uint64_t value, int isExt, int64_t lb, int64_t ub, int hasExt) {
    // offsets from lb in 64-bit unsigned arithmetic also cover a full 64-bit range
    bool outside = value - uint64_t(lb) > uint64_t(ub) - uint64_t(lb);
    if (hasExt) {
        if (!w.put(outside || isExt, 1)) return false;
        if (outside || isExt) return w.unconstrained(int64_t(value));
    } else if (outside) {
        return false;
    }
    return w.cwn(value - uint64_t(lb), uint64_t(ub) - uint64_t(lb));
}

MV_ASN_INLINE bool mv_asn_get_cint(Reader& r, uint64_t* value, int64_t lb, int64_t ub, int hasExt) {
    uint64_t ext = 0;
    if (hasExt && !r.get(1, &ext)) return false;
    if (ext) {
        int64_t v = 0;
        if (!r.unconstrained(&v)) return false;
        *value = uint64_t(v);
        return true;
    }
    uint64_t v = 0;
    if (!r.cwn(uint64_t(ub) - uint64_t(lb), &v)) return false;
    *value = v + uint64_t(lb);
    return true;
}

MV_ASN_INLINE bool mv_asn_put_octets(Writer& w, const uint8_t* data, uint32_t len, int lengthType, int min, int max,
                              int hasExt) {
    bool unc = false;
    if (!w.size(len, lengthType, min, max, hasExt, &unc)) return false;
    if (octetsAligned(unc, min, max, 8)) w.align();
    return w.putBytes(data, len);
}

MV_ASN_INLINE bool mv_asn_get_octets(Reader& r, uint8_t** data, uint32_t* len, int lengthType, int min, int max,
                              int hasExt) {
    bool unc = false;
    uint32_t n = 0;
    if (!r.size(&n, lengthType, min, max, hasExt, &unc)) return false;
    if (octetsAligned(unc, min, max, 8)) r.align();
    if (r.bit > r.end || uint64_t(n) * 8 > r.end - r.bit) return r.fail(MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER);
    uint8_t* p = r.allocOctets(size_t(n) + 1);
    if (!r.copyBytes(p, n)) {
        __mv_asn_free(p);
        return false;
    }
    *data = p;
    *len = n;
    return true;
}

MV_ASN_INLINE bool mv_asn_put_bits(Writer& w, const uint8_t* data, int bitslen, int lengthType, int min, int max,
                            int hasExt) {
    if (bitslen < 0) return false;
    if (bitslen == 0 && lengthType == 2 && min > 0) {
        __mv_asn_log(MV_LOG_ERROR, "please set bitslen[%d] %s|%d\n", bitslen, __FILE_NAME__, __LINE__);
        return false;
    }
    bool unc = false;
    if (!w.size(uint32_t(bitslen), lengthType, min, max, hasExt, &unc)) return false;
    if (octetsAligned(unc, min, max, 1)) w.align();
    uint32_t full = uint32_t(bitslen) / 8, rest = uint32_t(bitslen) % 8;
    return w.putBytes(data, full) && (!rest || w.put(uint64_t(data[full] >> (8 - rest)), rest));
}

MV_ASN_INLINE bool mv_asn_get_bits_string(Reader& r, uint8_t** data, uint32_t* length, int* bitslen, int lengthType,
                                   int min, int max, int hasExt) {
    bool unc = false;
    uint32_t n = 0;
    if (!r.size(&n, lengthType, min, max, hasExt, &unc)) return false;
    if (octetsAligned(unc, min, max, 1)) r.align();
    if (r.bit > r.end || n > r.end - r.bit) return r.fail(MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER);
    uint32_t bytes = n >= 8 ? n / 8 + 1 : 1;
    auto* p = static_cast<uint8_t*>(r.alloc(size_t(bytes) + 1));
    if (!r.copyBits(p, n)) {
        __mv_asn_free(p);
        return false;
    }
    *data = p;
    *length = (n + 7) / 8;
    *bitslen = int(n);
    return true;
}

// The index of a CHOICE alternative or an ENUMERATED value.
MV_ASN_INLINE bool mv_asn_put_index(Writer& w, int hasExt, int index, int nRoot, int isExt) {
    if (hasExt && !w.put(isExt ? 1 : 0, 1)) return false;
    if (isExt) return w.nsnn(uint64_t(index - nRoot));
    if (index < 0 || index >= nRoot) return false;
    return w.cwn(uint64_t(index), uint64_t(nRoot - 1));
}

MV_ASN_INLINE bool mv_asn_get_choice(Reader& r, int hasExt, int nRoot, int* isExtOut, int* index) {
    uint64_t ext = 0, v = 0;
    if (hasExt && !r.get(1, &ext)) return false;
    if (isExtOut) *isExtOut = int(ext);
    if (ext) {
        if (!r.nsnn(&v)) return false;
        if (v > 255) return r.fail(MV_ASN_DECODE_ERROR_CHOICE);
        *index = nRoot + int(v);
        return true;
    }
    if (!r.cwn(uint64_t(nRoot - 1), &v)) return false;
    *index = int(v);
    return true;
}

MV_ASN_INLINE bool mv_asn_get_enum(Reader& r, int isExt, int nRoot, int* index) {
    uint64_t v = 0;
    if (isExt) {
        if (!r.nsnn(&v)) return false;
        if (v > 255) return r.fail(MV_ASN_DECODE_ERROR_ENUMERATOR);
        *index = nRoot + int(v);
        return true;
    }
    if (!r.cwn(uint64_t(nRoot - 1), &v)) return false;
    if (int(v) >= nRoot) return r.fail(MV_ASN_DECODE_ERROR_ENUMERATOR);
    *index = int(v);
    return true;
}

}  // namespace mv_asn_detail

// Size of a string or list (lengthType 0 unconstrained, 1 fixed, 2 range), with an extension marker.
int mv_asn_add_size(uint32_t n, int lengthType, int min, int max, int hasExt, __mv_asn_coding_context* ctx);
int mv_asn_get_size(uint32_t* n, int lengthType, int min, int max, int hasExt, __mv_asn_coding_context* ctx);

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

// A list cell of the decode: from the region with the records.
MV_ASN_INLINE void mv_asn_list_add_from(Reader& r, ListRec* rec, void* data) {
    if (!r.region) return listAdd(rec, data);
    auto* l = rec->list;
    if (!l) {
        l = static_cast<__mv_asn_list*>(r.alloc(sizeof(__mv_asn_list)));
        rec->list = l;
    }
    auto* it = static_cast<__mv_asn_list_item*>(r.alloc(sizeof(__mv_asn_list_item)));
    it->data = data;
    if (l->Tail)
        l->Tail->Next = it;
    else
        l->Head = it;
    l->Tail = it;
    l->Count++;
}

// Resolves a SINGLE to the type that gives its record.
inline const MvAsnType* valueType(const MvAsnType* t) {
    while (t->kind == MV_ASN_K_SINGLE && t->item) t = t->item;
    return t;
}

// Whether a list item is held as a record pointer (else as a heap cell with the value).
inline bool itemByPtr(const MvAsnType* seqOf) {
    return seqOf->item->store == MV_ASN_S_PTR || seqOf->item->kind == MV_ASN_K_SINGLE;
}

// The parts that need no constants of a type (mv_asn_walk.cpp).
int mv_asn_skip_extension_container(Reader& r);
int mv_asn_skip_private_container(Reader& r);
// An IE's value at level 0, an open type: its size in the container (id, criticality and length
// included), or -1 with the value freed and nothing set. `dec` decodes the value.
template <class Dec>
MV_ASN_INLINE int decodeIE(const MvAsnType* t, void* slot, int* isset, Reader& r, Dec&& dec) {
    if (isset) st(isset, 0);
    if (r.ctx->iError || r.bit > r.end) return (r.fail(MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER), -1);
    uint32_t l = 0;
    if (!r.length(&l)) return -1;
    r.ctx->ieCurrPos = int16_t(r.pos());
    r.ctx->ieMaxReadBytes = int16_t(l);
    if (uint64_t(l) * 8 > r.end - r.bit) return (r.fail(MV_ASN_DECODE_ERROR_INSUFFICENT_BUFFER), -1);
    uint32_t saved = r.end, start = r.bit;
    r.end = start + 8 * l;
    int res = dec(slot, r);
    r.end = saved;
    // whatever the value left unread (an extension of a later release) is skipped with the IE
    r.bit = start + 8 * l;
    if (res < 0) {
        __mv_asn_free_type(t, slot);
        return -1;
    }
    if (isset) st(isset, 1);
    return l < 128 ? int(l) + 4 : int(l) + 5;
}
int mv_asn_decode_ie(const MvAsnType* t, void* slot, int* isset, Reader& r);
// Skips an IE the container does not have: its size in the container, or -1.
int mv_asn_skip_ie(Reader& r);
void mv_asn_trace_ie(int id, const char* name, int crit, uint32_t bpos, int size, int processed, const Reader& r);
int mv_asn_skip_message_additions(uint64_t extBit, Reader& r);

}  // namespace mv_asn_detail
