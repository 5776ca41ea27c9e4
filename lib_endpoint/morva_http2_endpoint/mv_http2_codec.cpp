// Frame headers, the stream-id map, pooled blocks and the flat form of decoded fields:
// bytes in, bytes out, no state.
#include <cstdlib>

#include "mv_alloc.h"
#include "mv_http2_internal.h"

// ---------------------------------------------------------------- frame header

int __mv_http2_frame_encode_header(uint8_t* out, int len, int type, int flags, int32_t streamId) {
    out[0] = uint8_t(len >> 16);
    out[1] = uint8_t(len >> 8);
    out[2] = uint8_t(len);
    out[3] = uint8_t(type);
    out[4] = uint8_t(flags);
    h2___put_u32(out + 5, uint32_t(streamId) & 0x7fffffffu);
    return MORVA_HTTP2_FRAME_HEADER_LEN;
}

void __mv_http2_frame_decode_header(const uint8_t* in, MV_Http2FrameHeader* h) {
    h->PayLoadLength = int(uint32_t(in[0]) << 16 | uint32_t(in[1]) << 8 | in[2]);
    h->Type = in[3];
    h->Flags = in[4];
    h->StreamId = int32_t(h2___get_u32(in + 5) & 0x7fffffffu);  // the reserved bit is ignored
    h->FrameFlags = MV_Http2FrameFlags{};
    uint8_t f = h->Flags;
    switch (h->Type) {
        case MORVA_HTTP2_DATA:
            h->FrameFlags.EndStream = f & MORVA_HTTP2_FLAG_END_STREAM;
            h->FrameFlags.Padded = (f & MORVA_HTTP2_FLAG_PADDED) != 0;
            break;
        case MORVA_HTTP2_HEADERS:
            h->FrameFlags.EndStream = f & MORVA_HTTP2_FLAG_END_STREAM;
            h->FrameFlags.EndHeaders = (f & MORVA_HTTP2_FLAG_END_HEADERS) != 0;
            h->FrameFlags.Padded = (f & MORVA_HTTP2_FLAG_PADDED) != 0;
            h->FrameFlags.Priority = (f & MORVA_HTTP2_FLAG_PRIORITY) != 0;
            break;
        case MORVA_HTTP2_PUSH_PROMISE:
            h->FrameFlags.EndHeaders = (f & MORVA_HTTP2_FLAG_END_HEADERS) != 0;
            h->FrameFlags.Padded = (f & MORVA_HTTP2_FLAG_PADDED) != 0;
            break;
        case MORVA_HTTP2_CONTINUATION:
            h->FrameFlags.EndHeaders = (f & MORVA_HTTP2_FLAG_END_HEADERS) != 0;
            break;
        case MORVA_HTTP2_SETTINGS:
        case MORVA_HTTP2_PING:
            h->FrameFlags.IsAck = f & MORVA_HTTP2_FLAG_ACK;
            break;
        default:
            break;
    }
}

const char* __mv_http2_error_name(int code) {
    static constexpr const char* kNames[MORVA_HTTP2_ERROR_CODE_COUNT] = {
        "NO_ERROR",         "PROTOCOL_ERROR", "INTERNAL_ERROR",    "FLOW_CONTROL_ERROR", "SETTINGS_TIMEOUT",
        "STREAM_CLOSED",    "FRAME_SIZE_ERROR", "REFUSED_STREAM",  "CANCEL",             "COMPRESSION_ERROR",
        "CONNECT_ERROR",    "ENHANCE_YOUR_CALM", "INADEQUATE_SECURITY", "HTTP_1_1_REQUIRED"};
    if (code == MORVA_HTTP2_CONNECTION_LOST) return "CONNECTION_LOST";
    return code >= 0 && code < MORVA_HTTP2_ERROR_CODE_COUNT ? kNames[code] : "UNKNOWN_ERROR";
}

const char* __mv_http2_frame_name(int type) {
    static constexpr const char* kNames[] = {"DATA",   "HEADERS", "PRIORITY",      "RST_STREAM",   "SETTINGS",
                                             "PUSH_PROMISE", "PING", "GOAWAY", "WINDOW_UPDATE", "CONTINUATION",
                                             "ALTSVC", "UNKNOWN", "ORIGIN"};
    return type >= 0 && type <= MORVA_HTTP2_ORIGIN ? kNames[type] : "UNKNOWN";
}

// ---------------------------------------------------------------- stream-id map

namespace {
inline uint32_t idHash(int32_t id) { return uint32_t(id) * 2654435761u; }
}  // namespace

void MV_Http2IdMap::grow() {
    std::vector<Slot> old;
    old.swap(slots_);
    slots_.assign(old.empty() ? 64 : old.size() * 2, Slot{});
    count_ = 0;
    for (const auto& s : old)
        if (s.id) insert(s.id, s.v);
}

void* MV_Http2IdMap::find(int32_t id) const {
    if (slots_.empty() || id <= 0) return nullptr;
    uint32_t mask = uint32_t(slots_.size()) - 1;
    for (uint32_t i = idHash(id) & mask;; i = (i + 1) & mask) {
        if (slots_[i].id == id) return slots_[i].v;
        if (slots_[i].id == 0) return nullptr;
    }
}

void MV_Http2IdMap::insert(int32_t id, void* v) {
    if (id <= 0) return;
    if ((count_ + 1) * 2 > slots_.size()) grow();
    uint32_t mask = uint32_t(slots_.size()) - 1;
    for (uint32_t i = idHash(id) & mask;; i = (i + 1) & mask) {
        if (slots_[i].id == id) {
            slots_[i].v = v;
            return;
        }
        if (slots_[i].id == 0) {
            slots_[i] = Slot{id, v};
            ++count_;
            return;
        }
    }
}

void* MV_Http2IdMap::erase(int32_t id) {
    if (slots_.empty() || id <= 0) return nullptr;
    uint32_t mask = uint32_t(slots_.size()) - 1;
    uint32_t i = idHash(id) & mask;
    for (;; i = (i + 1) & mask) {
        if (slots_[i].id == 0) return nullptr;
        if (slots_[i].id == id) break;
    }
    void* v = slots_[i].v;
    // Backward shift: the entries after the hole move up when their home allows it,
    // so lookups never need tombstones.
    for (uint32_t j = (i + 1) & mask;; j = (j + 1) & mask) {
        if (slots_[j].id == 0) break;
        uint32_t home = idHash(slots_[j].id) & mask;
        bool movable = (i <= j) ? (home <= i || home > j) : (home <= i && home > j);
        if (movable) {
            slots_[i] = slots_[j];
            i = j;
        }
    }
    slots_[i] = Slot{};
    --count_;
    return v;
}

// ---------------------------------------------------------------- blocks

namespace {
constexpr uint32_t kTagPooled = 0x48325031;  // "H2P1"
constexpr uint32_t kTagHeap = 0x48324831;    // "H2H1"
constexpr size_t kBlockHead = 16;

struct BlockHead {
    uint64_t size;
    uint32_t tag;
    uint32_t pad;
};
static_assert(sizeof(BlockHead) == kBlockHead);

BlockHead* headOf(void* p) { return reinterpret_cast<BlockHead*>(static_cast<char*>(p) - kBlockHead); }
}  // namespace

void* __mv_http2_block_alloc(size_t size) {
    size_t total = size + kBlockHead;
    void* raw = nullptr;
    uint32_t tag = kTagHeap;
    // Before the core exists (JSON at the very start of main) the heap serves.
    if (__mvCore && total < MV_ALLOCM_MAX_SIZE) {
        raw = __mv_allocM(total);
        tag = kTagPooled;
    }
    if (!raw) {
        raw = malloc(total);
        tag = kTagHeap;
    }
    if (!raw) return nullptr;
    auto* h = static_cast<BlockHead*>(raw);
    h->size = size;
    h->tag = tag;
    h->pad = 0;
    return static_cast<char*>(raw) + kBlockHead;
}

void __mv_http2_block_free(void* ptr) {
    if (!ptr) return;
    BlockHead* h = headOf(ptr);
    uint32_t tag = h->tag;
    h->tag = 0;  // a second free of a pooled block finds no tag and is refused
    if (tag == kTagPooled) __mv_freeM(h);
    else if (tag == kTagHeap) free(h);
    else
        __mv_log(MV_STK_LOG, LOG_CAT_HTTP2, MV_LOG_CRITICAL, "free of a block that is not one ptr=%p <%s|%s|%d>", ptr,
                 __FILE_NAME__, __func__, __LINE__);
}

void __mv_http2_block_set_used(void* ptr, uint32_t used) {
    if (ptr) headOf(ptr)->pad = used;
}

uint32_t __mv_http2_block_used(const void* ptr) {
    return ptr ? headOf(const_cast<void*>(ptr))->pad : 0;
}

void* __mv_http2_block_realloc(void* ptr, size_t size) {
    if (!ptr) return __mv_http2_block_alloc(size);
    BlockHead* h = headOf(ptr);
    if (h->tag == kTagPooled && size + kBlockHead < __mv_allocM_block_size(h)) {
        h->size = size;
        return ptr;
    }
    void* n = __mv_http2_block_alloc(size);
    if (!n) return nullptr;
    memcpy(n, ptr, size < h->size ? size : h->size);
    headOf(n)->pad = h->pad;
    __mv_http2_block_free(ptr);
    return n;
}

void* __mv_http2_malloc(size_t size, void*) { return __mv_http2_block_alloc(size); }
void __mv_http2_free(void* ptr, void*) { __mv_http2_block_free(ptr); }
void* __mv_http2_calloc(size_t nmemb, size_t size, void*) {
    if (size && nmemb > SIZE_MAX / size) return nullptr;
    void* p = __mv_http2_block_alloc(nmemb * size);
    if (p) memset(p, 0, nmemb * size);
    return p;
}
void* __mv_http2_realloc(void* ptr, size_t size, void*) { return __mv_http2_block_realloc(ptr, size); }

nghttp2_mem mem_http2 = {nullptr, __mv_http2_malloc, __mv_http2_free, __mv_http2_calloc, __mv_http2_realloc};

bool h2___append(uint8_t*& buf, long& len, long& cap, const uint8_t* p, long n) {
    if (n <= 0) return true;
    if (len + n > cap) {
        long want = cap ? cap : 1024;
        while (want < len + n) want *= 2;
        auto* nb = static_cast<uint8_t*>(__mv_http2_block_realloc(buf, size_t(want) + 1));
        if (!nb) return false;
        buf = nb;
        cap = want;
    }
    memcpy(buf + len, p, size_t(n));
    len += n;
    buf[len] = 0;  // a spare byte: text bodies can be read as strings
    return true;
}

// ---------------------------------------------------------------- flat header fields

// Each field: name length and value length as 4 bytes each, then the two texts, each
// followed by a zero so that they can be used as strings.
int __mv_http2_engine_put_header(uint8_t* block, int cap, int pos, const char* name, int namelen, const char* value,
                                 int valuelen) {
    if (namelen < 0 || valuelen < 0) return -1;
    long need = 8L + namelen + 1 + valuelen + 1;
    if (pos < 0 || pos + need > cap) return -1;
    h2___put_u32(block + pos, uint32_t(namelen));
    h2___put_u32(block + pos + 4, uint32_t(valuelen));
    uint8_t* p = block + pos + 8;
    memcpy(p, name, size_t(namelen));
    p[namelen] = 0;
    memcpy(p + namelen + 1, value, size_t(valuelen));
    p[namelen + 1 + valuelen] = 0;
    return int(pos + need);
}

int __mv_http2_engine_next_header(const uint8_t* block, int blocklen, int* pos, const char** name, int* namelen,
                                  const char** value, int* valuelen) {
    if (!block || !pos || *pos < 0 || *pos + 8 > blocklen) return 0;
    uint32_t nl = h2___get_u32(block + *pos), vl = h2___get_u32(block + *pos + 4);
    long end = long(*pos) + 8 + nl + 1 + vl + 1;
    if (nl > uint32_t(blocklen) || vl > uint32_t(blocklen) || end > blocklen) return 0;
    *name = reinterpret_cast<const char*>(block + *pos + 8);
    *namelen = int(nl);
    *value = reinterpret_cast<const char*>(block + *pos + 8 + nl + 1);
    *valuelen = int(vl);
    *pos = int(end);
    return 1;
}
