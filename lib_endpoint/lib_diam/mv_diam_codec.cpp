// The message and AVP objects, the data-type lookup, and the one walker each way:
// records to bytes and bytes to records. No I/O, no node state.
#include <arpa/inet.h>

#include <algorithm>
#include <iterator>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "mv_alloc.h"
#include "mv_byteio.h"
#include "mv_diam_internal.h"

namespace {

bool usePools() {
    static const bool pools = __mvCore != nullptr && __mvCore->MemoryPool[0].size != 0;
    return pools;
}

std::atomic<fn_mv_diam_log_sink> logSink{nullptr};
std::atomic<fn_mv_diam_dict_handler> preHandler{nullptr};
std::atomic<fn_mv_diam_dict_handler> postHandler{nullptr};

struct TypeEntry {
    uint32_t code;
    uint8_t type;
};

// The codes every node meets, sorted by code for the search below.
constexpr TypeEntry kBuiltinTypes[] = {
    {1, 1},    {27, 4},   {85, 4},   {257, 1},  {258, 4},  {259, 4},  {260, 6},  {263, 1},  {264, 1},
    {265, 4},  {266, 4},  {267, 4},  {268, 4},  {269, 1},  {274, 4},  {277, 4},  {278, 4},  {279, 6},
    {281, 1},  {282, 1},  {283, 1},  {292, 1},  {293, 1},  {295, 2},  {296, 1},  {297, 6},  {298, 4},
    {299, 4},  {464, 1},  {600, 1},  {614, 2},  {1032, 4}, {1401, 6}, {1402, 1}, {1403, 1}, {1407, 1},
    {1408, 6}, {1410, 4}, {1412, 4}, {1445, 4}, {1447, 1}, {1448, 1}, {1449, 1}, {1450, 1},
};
static_assert(std::is_sorted(std::begin(kBuiltinTypes), std::end(kBuiltinTypes),
                             [](const TypeEntry& a, const TypeEntry& b) { return a.code < b.code; }));

uint8_t builtinType(uint32_t code) {
    auto it = std::lower_bound(std::begin(kBuiltinTypes), std::end(kBuiltinTypes), code,
                               [](const TypeEntry& e, uint32_t c) { return e.code < c; });
    return it != std::end(kBuiltinTypes) && it->code == code ? it->type : 0;
}

uint32_t get24(const uint8_t* p) { return uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2]; }
void put24(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v >> 16);
    p[1] = uint8_t(v >> 8);
    p[2] = uint8_t(v);
}

// ---------------------------------------------------------------- objects

MV_DiamAvp* newAvp(uint32_t code, uint32_t vendor, int mandatory, uint8_t type, const void* value, uint32_t len) {
    if (type < 1 || type > 6) type = MV_DIAM_TYPE_OCTETSTRING;
    size_t extra = type == MV_DIAM_TYPE_OCTETSTRING ? size_t(len) + 1 : 0;
    // One block: a string's bytes lie right behind their AVP.
    auto* a = static_cast<MV_DiamAvp*>(__mv_diam___alloc(sizeof(MV_DiamAvp) + extra));
    if (!a) return nullptr;
    memset(a, 0, sizeof(MV_DiamAvp) + extra);
    a->AvpCode = int32_t(code);
    a->VendorId = vendor;
    a->DataType = type;
    a->Flags = uint8_t((vendor ? MV_DIAM_AVP_FLAG_VENDOR : 0) | (mandatory ? MV_DIAM_AVP_FLAG_MANDATORY : 0));
    if (type == MV_DIAM_TYPE_OCTETSTRING) {
        a->data = reinterpret_cast<uint8_t*>(a + 1);
        if (value && len) memcpy(a->data, value, len);
        a->usInt64Val = len;
    }
    return a;
}

void appendToMessage(MV_DiamMessage* msg, MV_DiamAvp* a) {
    if (msg->Next) msg->Next->Next = a;
    else msg->Head = a;
    msg->Next = a;
    ++msg->AvpCount;
}

void appendToGroup(MV_DiamAvp* parent, MV_DiamAvp* a) {
    a->Head = parent;
    if (parent->GroupCurrent) parent->GroupCurrent->Next = a;
    else parent->GroupHead = a;
    parent->GroupCurrent = a;
    ++parent->AvpCount;
}

MV_DiamAvp* addToMessage(MV_DiamMessage* msg, MV_DiamAvp* a) {
    if (!msg || !a) {
        if (a) __mv_diam___free(a);
        return nullptr;
    }
    appendToMessage(msg, a);
    return a;
}

MV_DiamAvp* addToGroup(MV_DiamAvp* parent, MV_DiamAvp* a) {
    if (!parent || parent->DataType != MV_DIAM_TYPE_GROUPED || !a) {
        if (a) __mv_diam___free(a);
        return nullptr;
    }
    appendToGroup(parent, a);
    return a;
}

void freeAvps(MV_DiamAvp* a) {
    while (a) {
        MV_DiamAvp* next = a->Next;
        freeAvps(a->GroupHead);
        __mv_diam___free(a);
        a = next;
    }
}

// ---------------------------------------------------------------- encoding

// Lengths of an AVP and, for a group, of its children; false past the depth bound the
// decoder keeps (depth 0 at the top) or a length the 24-bit field cannot hold.
bool measure(MV_DiamAvp* a, int depth) {
    if (a->DataType == MV_DIAM_TYPE_GROUPED && depth + 1 > kMvDiamMaxGroupDepth) return false;
    a->HeaderLen = a->VendorId ? 12 : 8;
    uint64_t value = 0;
    switch (a->DataType) {
        case MV_DIAM_TYPE_INT32:
        case MV_DIAM_TYPE_UINT32: value = 4; break;
        case MV_DIAM_TYPE_INT64:
        case MV_DIAM_TYPE_UINT64: value = 8; break;
        case MV_DIAM_TYPE_GROUPED:
            for (MV_DiamAvp* c = a->GroupHead; c; c = c->Next) {
                if (!measure(c, depth + 1)) return false;
                value += c->AvpLength + c->Padding;
            }
            break;
        default: value = a->usInt64Val; break;
    }
    uint64_t len = a->HeaderLen + value;
    if (len > 0xFFFFFF) return false;
    a->AvpLength = uint32_t(len);
    a->Padding = (4 - a->AvpLength % 4) % 4;
    return true;
}

struct Writer {
    uint8_t* p;
    uint32_t cap;
    uint32_t pos = 0;
    bool room(uint32_t n) const { return cap - pos >= n; }
    void u8(uint8_t v) { p[pos++] = v; }
    void u24(uint32_t v) {
        put24(p + pos, v);
        pos += 3;
    }
    void u32(uint32_t v) {
        uint32_t n = htonl(v);
        memcpy(p + pos, &n, 4);
        pos += 4;
    }
    void u64(uint64_t v) {
        u32(uint32_t(v >> 32));
        u32(uint32_t(v));
    }
    void bytes(const void* b, uint32_t n) {
        if (n) memcpy(p + pos, b, n);
        pos += n;
    }
    void zeros(uint32_t n) {
        memset(p + pos, 0, n);
        pos += n;
    }
};

void write(Writer& w, const MV_DiamAvp* a) {
    // Room was checked against the measured total before the first byte.
    w.u32(uint32_t(a->AvpCode));
    uint8_t flags = uint8_t(a->Flags & ~MV_DIAM_AVP_FLAG_VENDOR);
    if (a->VendorId) flags |= MV_DIAM_AVP_FLAG_VENDOR;
    w.u8(flags);
    w.u24(a->AvpLength);
    if (a->VendorId) w.u32(a->VendorId);
    switch (a->DataType) {
        case MV_DIAM_TYPE_INT32: w.u32(uint32_t(a->intVal)); break;
        case MV_DIAM_TYPE_UINT32: w.u32(a->usIntVal); break;
        case MV_DIAM_TYPE_INT64: w.u64(uint64_t(a->int64Val)); break;
        case MV_DIAM_TYPE_UINT64: w.u64(a->usInt64Val); break;
        case MV_DIAM_TYPE_GROUPED:
            for (const MV_DiamAvp* c = a->GroupHead; c; c = c->Next) write(w, c);
            break;
        default: w.bytes(a->data, uint32_t(a->usInt64Val)); break;
    }
    w.zeros(a->Padding);
}

// ---------------------------------------------------------------- decoding

struct Decoder {
    uint32_t appId;
    MV_DiamDecodeStatus* st;

    bool fail(uint32_t code, size_t offset, uint32_t avpCode, uint32_t vendor, const char* reason) {
        *st = MV_DiamDecodeStatus{code, uint32_t(offset), avpCode, vendor, reason};
        return false;
    }

    // The AVPs of one extent (the message body or a group's value); base is its offset in
    // the message. Each AVP read goes to the group `parent`, or to `msg` at the top.
    bool avps(std::span<const uint8_t> extent, size_t base, int depth, MV_DiamMessage* msg, MV_DiamAvp* parent) {
        ByteReader r(extent);
        while (r.remaining() > 0) {
            size_t off = base + r.position();
            uint32_t code = 0, len = 0, vendor = 0;
            uint8_t flags = 0;
            if (r.remaining() < 8) {
                __mv_diam___codec_log(MV_LOG_ERROR, "buffer is less than 8 bytes while decoding, halted decoding <%s|%s|%d>",
                                      __FILE_NAME__, __func__, __LINE__);
                return fail(DIAMETER_INVALID_AVP_LENGTH, off, 0, 0, "fewer than 8 bytes left for an AVP header");
            }
            if (!r.u32(code) || !r.u8(flags) || !r.u24(len)) return fail(DIAMETER_INVALID_AVP_LENGTH, off, code, 0, "short AVP header");
            uint32_t hdr = 8;
            if (len < 8) return fail(DIAMETER_INVALID_AVP_LENGTH, off, code, 0, "AVP length below 8");
            if (flags & MV_DIAM_AVP_FLAG_VENDOR) {
                if (len < 12) return fail(DIAMETER_INVALID_AVP_LENGTH, off, code, 0, "vendor flag without a Vendor-Id");
                if (!r.u32(vendor)) return fail(DIAMETER_INVALID_AVP_LENGTH, off, code, 0, "AVP overruns its parent");
                hdr = 12;
            }
            std::span<const uint8_t> value;
            if (!r.view(len - hdr, value)) return fail(DIAMETER_INVALID_AVP_LENGTH, off, code, vendor, "AVP overruns its parent");
            // The last AVP of a group may come without its padding.
            (void)r.skip(std::min<size_t>((4 - len % 4) % 4, r.remaining()));
            uint8_t type = uint8_t(__mv_diam_get_data_type(code, appId));
            uint32_t n = uint32_t(value.size());
            // A fixed-size type whose length does not fit is kept as bytes: the type comes
            // from the code alone, and another vendor's AVP may share the code.
            if (((type == MV_DIAM_TYPE_INT32 || type == MV_DIAM_TYPE_UINT32) && n != 4) ||
                ((type == MV_DIAM_TYPE_INT64 || type == MV_DIAM_TYPE_UINT64) && n != 8))
                type = MV_DIAM_TYPE_OCTETSTRING;
            if (type == MV_DIAM_TYPE_GROUPED && depth + 1 > kMvDiamMaxGroupDepth)
                return fail(DIAMETER_UNABLE_TO_COMPLY, off, code, vendor, "grouped AVPs nested too deep");
            MV_DiamAvp* a = newAvp(code, vendor, 0, type, value.data(), type == MV_DIAM_TYPE_OCTETSTRING ? n : 0);
            if (!a) return fail(DIAMETER_UNABLE_TO_COMPLY, off, code, vendor, "no memory");
            a->Flags = flags;
            a->HeaderLen = hdr;
            a->AvpLength = len;
            a->Padding = (4 - len % 4) % 4;
            ByteReader v(value);
            switch (type) {
                case MV_DIAM_TYPE_INT32: {
                    uint32_t x = 0;
                    (void)v.u32(x);
                    a->intVal = int32_t(x);
                    break;
                }
                case MV_DIAM_TYPE_UINT32: (void)v.u32(a->usIntVal); break;
                case MV_DIAM_TYPE_INT64: {
                    uint64_t x = 0;
                    (void)v.u64(x);
                    a->int64Val = int64_t(x);
                    break;
                }
                case MV_DIAM_TYPE_UINT64: (void)v.u64(a->usInt64Val); break;
                default: break;
            }
            if (parent) appendToGroup(parent, a);
            else appendToMessage(msg, a);
            if (type == MV_DIAM_TYPE_GROUPED && !avps(value, off + hdr, depth + 1, msg, a)) return false;
        }
        return true;
    }
};

}  // namespace

// ---------------------------------------------------------------- memory and log

void* __mv_diam___alloc(size_t size) {
    if (size == 0) size = 1;
    return usePools() ? __mv_allocM(size) : malloc(size);
}

void __mv_diam___free(void* p) {
    if (!p) return;
    if (usePools()) __mv_freeM(p);
    else free(p);
}

void __mv_diam_set_log_sink(fn_mv_diam_log_sink sink) { logSink = sink; }

void __mv_diam___codec_log(int level, const char* fmt, ...) {
    char line[LOG_MESSAGE_MAX_SIZE];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    if (fn_mv_diam_log_sink s = logSink.load()) s(level, line);
    else MV_DIAM_LOG(uint32_t(level), "%s", line);
}

// ---------------------------------------------------------------- data types

void __mv_diam_set_dict_pre_handler(fn_mv_diam_dict_handler h) { preHandler = h; }
void __mv_diam_set_dict_post_handler(fn_mv_diam_dict_handler h) { postHandler = h; }

uint32_t __mv_diam_get_data_type(uint32_t avpCode, uint32_t applicationId) {
    if (fn_mv_diam_dict_handler pre = preHandler.load(std::memory_order_relaxed))
        if (uint32_t t = pre(avpCode, applicationId); t >= 1 && t <= 6) return t;
    if (uint8_t t = builtinType(avpCode)) return t;
    if (fn_mv_diam_dict_handler post = postHandler.load(std::memory_order_relaxed))
        if (uint32_t t = post(avpCode, applicationId); t >= 1 && t <= 6) return t;
    return MV_DIAM_TYPE_OCTETSTRING;
}

// ---------------------------------------------------------------- messages

MV_DiamMessage* __mv_diam_create_message2(uint32_t cmd, uint32_t app, uint32_t hbh, uint32_t e2e, int isRequest) {
    auto* m = static_cast<MV_DiamMessage*>(__mv_diam___alloc(sizeof(MV_DiamMessage)));
    if (!m) return nullptr;
    memset(m, 0, sizeof *m);
    m->Header.Version = 1;
    put24(m->Header.Length, MV_DIAM_HEADER_LEN);
    m->Header.Flags = isRequest ? uint8_t(MV_DIAM_FLAG_REQUEST | MV_DIAM_FLAG_PROXYABLE) : MV_DIAM_FLAG_PROXYABLE;
    put24(m->Header.CommandCode, cmd);
    m->Header.ApplicationId = htonl(app);
    m->Header.HBHId = htonl(hbh);
    m->Header.E2EId = htonl(e2e);
    return m;
}

MV_DiamMessage* __mv_diam_create_answer(MV_DiamMessage* request) {
    if (!request) return nullptr;
    MV_DiamMessage* a = __mv_diam_create_message2(__mv_diam_get_cmdcode(request), __mv_diam_get_applicationid(request),
                                                  ntohl(request->Header.HBHId), ntohl(request->Header.E2EId), 0);
    if (!a) return nullptr;
    // The answer's P bit is the request's.
    a->Header.Flags = uint8_t(request->Header.Flags & MV_DIAM_FLAG_PROXYABLE);
    return a;
}

void __mv_diam_freeMessage2(MV_DiamMessage* msg) {
    if (!msg) return;
    freeAvps(msg->Head);
    __mv_diam___free(msg);
}

uint32_t __mv_diam_get_cmdcode(const MV_DiamMessage* msg) { return msg ? get24(msg->Header.CommandCode) : 0; }
uint8_t __mv_diam_get_cmdflags(const MV_DiamMessage* msg) { return msg ? msg->Header.Flags : 0; }
uint32_t __mv_diam_get_applicationid(const MV_DiamMessage* msg) { return msg ? ntohl(msg->Header.ApplicationId) : 0; }
uint32_t __mv_diam_get_hbhid(const MV_DiamMessage* msg) { return msg ? msg->Header.HBHId : 0; }
uint32_t __mv_diam_get_e2eid(const MV_DiamMessage* msg) { return msg ? msg->Header.E2EId : 0; }
uint32_t __mv_diam_get_length(const MV_DiamMessage* msg) { return msg ? get24(msg->Header.Length) : 0; }

// ---------------------------------------------------------------- adding AVPs

MV_DiamAvp* __mv_diam_add_string_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory,
                                     const void* value, uint32_t len) {
    return msg ? addToMessage(msg, newAvp(code, vendor, mandatory, MV_DIAM_TYPE_OCTETSTRING, value, len)) : nullptr;
}

namespace {
template <class T>
MV_DiamAvp* numberAvp(uint32_t code, uint32_t vendor, int mandatory, uint8_t type, T value) {
    MV_DiamAvp* a = newAvp(code, vendor, mandatory, type, nullptr, 0);
    if (!a) return nullptr;
    switch (type) {
        case MV_DIAM_TYPE_INT32: a->intVal = int32_t(value); break;
        case MV_DIAM_TYPE_UINT32: a->usIntVal = uint32_t(value); break;
        case MV_DIAM_TYPE_INT64: a->int64Val = int64_t(value); break;
        default: a->usInt64Val = uint64_t(value); break;
    }
    return a;
}
}  // namespace

MV_DiamAvp* __mv_diam_add_int32_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory, int32_t value) {
    return msg ? addToMessage(msg, numberAvp(code, vendor, mandatory, MV_DIAM_TYPE_INT32, value)) : nullptr;
}
MV_DiamAvp* __mv_diam_add_int64_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory, int64_t value) {
    return msg ? addToMessage(msg, numberAvp(code, vendor, mandatory, MV_DIAM_TYPE_INT64, value)) : nullptr;
}
MV_DiamAvp* __mv_diam_add_uint32_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory,
                                     uint32_t value) {
    return msg ? addToMessage(msg, numberAvp(code, vendor, mandatory, MV_DIAM_TYPE_UINT32, value)) : nullptr;
}
MV_DiamAvp* __mv_diam_add_uint64_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory,
                                     uint64_t value) {
    return msg ? addToMessage(msg, numberAvp(code, vendor, mandatory, MV_DIAM_TYPE_UINT64, value)) : nullptr;
}

MV_DiamAvp* __mv_diam_add_string_avp_to_grpavp(MV_DiamAvp* parent, uint32_t code, uint32_t vendor, int mandatory,
                                               const void* value, uint32_t len) {
    return parent ? addToGroup(parent, newAvp(code, vendor, mandatory, MV_DIAM_TYPE_OCTETSTRING, value, len)) : nullptr;
}
MV_DiamAvp* __mv_diam_add_int32_avp_to_grpavp(MV_DiamAvp* parent, uint32_t code, uint32_t vendor, int mandatory,
                                              int32_t value) {
    return parent ? addToGroup(parent, numberAvp(code, vendor, mandatory, MV_DIAM_TYPE_INT32, value)) : nullptr;
}
MV_DiamAvp* __mv_diam_add_int64_avp_to_grpavp(MV_DiamAvp* parent, uint32_t code, uint32_t vendor, int mandatory,
                                              int64_t value) {
    return parent ? addToGroup(parent, numberAvp(code, vendor, mandatory, MV_DIAM_TYPE_INT64, value)) : nullptr;
}
MV_DiamAvp* __mv_diam_add_uint32_avp_to_grpavp(MV_DiamAvp* parent, uint32_t code, uint32_t vendor, int mandatory,
                                               uint32_t value) {
    return parent ? addToGroup(parent, numberAvp(code, vendor, mandatory, MV_DIAM_TYPE_UINT32, value)) : nullptr;
}
MV_DiamAvp* __mv_diam_add_uint64_avp_to_grpavp(MV_DiamAvp* parent, uint32_t code, uint32_t vendor, int mandatory,
                                               uint64_t value) {
    return parent ? addToGroup(parent, numberAvp(code, vendor, mandatory, MV_DIAM_TYPE_UINT64, value)) : nullptr;
}

MV_DiamAvp* __mv_diam_add_grouped_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory) {
    return msg ? addToMessage(msg, newAvp(code, vendor, mandatory, MV_DIAM_TYPE_GROUPED, nullptr, 0)) : nullptr;
}
MV_DiamAvp* __mv_diam_add_grouped_avp_toavp(MV_DiamAvp* parent, uint32_t code, uint32_t vendor, int mandatory) {
    return parent ? addToGroup(parent, newAvp(code, vendor, mandatory, MV_DIAM_TYPE_GROUPED, nullptr, 0)) : nullptr;
}

namespace {
MV_DiamAvp* addressAvp(uint32_t code, uint32_t vendor, int mandatory, uint8_t family, const void* addr, uint32_t n) {
    uint8_t v[18] = {0, family};
    if (addr) memcpy(v + 2, addr, n);
    return newAvp(code, vendor, mandatory, MV_DIAM_TYPE_OCTETSTRING, v, n + 2);
}
}  // namespace

MV_DiamAvp* __mv_diam_add_ipV4address_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory,
                                          const void* addr4) {
    return msg ? addToMessage(msg, addressAvp(code, vendor, mandatory, 1, addr4, 4)) : nullptr;
}
MV_DiamAvp* __mv_diam_add_ipV6address_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory,
                                          const void* addr16) {
    return msg ? addToMessage(msg, addressAvp(code, vendor, mandatory, 2, addr16, 16)) : nullptr;
}
MV_DiamAvp* __mv_diam_add_ipV6address_avp_to_grouped_avp(MV_DiamAvp* parent, uint32_t code, uint32_t vendor,
                                                         int mandatory, const void* addr16) {
    return parent ? addToGroup(parent, addressAvp(code, vendor, mandatory, 2, addr16, 16)) : nullptr;
}

MV_DiamAvp* __mv_diam_add_time_avp(MV_DiamMessage* msg, uint32_t code, uint32_t vendor, int mandatory,
                                   int64_t secondsFromNow) {
    // Seconds since 1900, cut to 32 bits as the Time format has them.
    uint32_t t = htonl(uint32_t(int64_t(time(nullptr)) + secondsFromNow + 2208988800LL));
    return __mv_diam_add_string_avp(msg, code, vendor, mandatory, &t, 4);
}

MV_DiamAvp* __mv_diam_add_vendor_specific_auth_applicationid_avp(MV_DiamMessage* msg, uint32_t vendorId,
                                                                  uint32_t authAppId) {
    MV_DiamAvp* g = __mv_diam_add_grouped_avp(msg, 260, 0, 1);
    __mv_diam_add_uint32_avp_to_grpavp(g, 266, 0, 1, vendorId);
    __mv_diam_add_uint32_avp_to_grpavp(g, 258, 0, 1, authAppId);
    return g;
}

MV_DiamAvp* __mv_diam_add_experimental_result_code_avp(MV_DiamMessage* msg, uint32_t vendor, uint32_t code) {
    MV_DiamAvp* g = __mv_diam_add_grouped_avp(msg, 297, 0, 1);
    __mv_diam_add_uint32_avp_to_grpavp(g, 266, 0, 1, vendor);
    __mv_diam_add_uint32_avp_to_grpavp(g, 298, 0, 1, code);
    return g;
}

namespace {
MV_DiamAvp* textAvp(MV_DiamMessage* msg, uint32_t code, const char* text) {
    return __mv_diam_add_string_avp(msg, code, 0, 1, text, uint32_t(strnlen(text, 200)));
}
}  // namespace

MV_DiamAvp* __mv_diam_add_host_name(MV_DiamMessage* msg, MV_DiamNode* node) {
    return node ? textAvp(msg, 264, node->sHostName) : nullptr;
}
MV_DiamAvp* __mv_diam_add_host_realm(MV_DiamMessage* msg, MV_DiamNode* node) {
    return node ? textAvp(msg, 296, node->sRealm) : nullptr;
}
MV_DiamAvp* __mv_diam_add_peer_name(MV_DiamMessage* msg, MV_DiamNode* node) {
    return node ? textAvp(msg, 293, node->sHostName) : nullptr;
}
MV_DiamAvp* __mv_diam_add_peer_realm(MV_DiamMessage* msg, MV_DiamNode* node) {
    return node ? textAvp(msg, 283, node->sRealm) : nullptr;
}

// ---------------------------------------------------------------- reading

namespace {
MV_DiamAvp* nth(MV_DiamAvp* a, uint32_t code, int index) {
    for (; a; a = a->Next)
        if (uint32_t(a->AvpCode) == code && index-- == 0) return a;
    return nullptr;
}
}  // namespace

MV_DiamAvp* __mv_diam_find_avp(uint32_t code, int index, const MV_DiamMessage* msg) {
    return msg && index >= 0 ? nth(msg->Head, code, index) : nullptr;
}

MV_DiamAvp* __mv_diam_find_avp_in_group(uint32_t code, int index, const MV_DiamAvp* avp) {
    return avp && index >= 0 ? nth(avp->GroupHead, code, index) : nullptr;
}

namespace {
// The value of the first top-level AVP of code when it has the type that field belongs to.
template <class T, class F>
int valueOf(const MV_DiamMessage* msg, uint32_t code, uint8_t type, F MV_DiamAvp::*field, T* value) {
    MV_DiamAvp* a = __mv_diam_find_avp(code, 0, msg);
    if (!a || a->DataType != type || !value) return 0;
    *value = T(a->*field);
    return 1;
}
}  // namespace

int __mv_diam_get_uint32_avp_value(const MV_DiamMessage* msg, uint32_t code, uint32_t* value) {
    return valueOf(msg, code, MV_DIAM_TYPE_UINT32, &MV_DiamAvp::usIntVal, value);
}
int __mv_diam_get_int32_avp_value(const MV_DiamMessage* msg, uint32_t code, int32_t* value) {
    return valueOf(msg, code, MV_DIAM_TYPE_INT32, &MV_DiamAvp::intVal, value);
}
int __mv_diam_get_uint64_avp_value(const MV_DiamMessage* msg, uint32_t code, uint64_t* value) {
    return valueOf(msg, code, MV_DIAM_TYPE_UINT64, &MV_DiamAvp::usInt64Val, value);
}
int __mv_diam_get_int64_avp_value(const MV_DiamMessage* msg, uint32_t code, int64_t* value) {
    return valueOf(msg, code, MV_DIAM_TYPE_INT64, &MV_DiamAvp::int64Val, value);
}
int __mv_diam_get_string_avp_value(const MV_DiamMessage* msg, uint32_t code, const uint8_t** value, uint32_t* len) {
    MV_DiamAvp* a = __mv_diam_find_avp(code, 0, msg);
    if (!a || a->DataType != MV_DIAM_TYPE_OCTETSTRING || !value || !len) return 0;
    *value = a->data;
    *len = uint32_t(a->usInt64Val);
    return 1;
}

uint32_t __mv_diam_validate_mandatory_avps(int count, const uint32_t* codes, const MV_DiamMessage* msg) {
    for (int i = 0; codes && i < count; ++i)
        if (!__mv_diam_find_avp(codes[i], 0, msg)) return codes[i];
    return 0;
}

uint32_t __mv_diam_get_result_code(const MV_DiamMessage* msg) {
    uint32_t v = 0;
    return __mv_diam_get_uint32_avp_value(msg, 268, &v) ? v : 0;
}

uint32_t __mv_diam_get_experimental_result_code(const MV_DiamMessage* msg) {
    MV_DiamAvp* er = __mv_diam_find_avp(297, 0, msg);
    MV_DiamAvp* code = __mv_diam_find_avp_in_group(298, 0, er);
    return code && code->DataType == MV_DIAM_TYPE_UINT32 ? code->usIntVal : 0;
}

// ---------------------------------------------------------------- the walkers

int __mv_diam_encodeMessage(MV_DiamMessage* msg, uint8_t* buf, uint32_t cap) {
    if (!msg || !buf) return -1;
    uint64_t total = MV_DIAM_HEADER_LEN;
    for (MV_DiamAvp* a = msg->Head; a; a = a->Next) {
        if (!measure(a, 0)) return -1;
        total += a->AvpLength + a->Padding;
    }
    if (total > cap || total > 0xFFFFFF) return -1;
    put24(msg->Header.Length, uint32_t(total));
    Writer w{buf, cap};
    w.bytes(&msg->Header, MV_DIAM_HEADER_LEN);
    for (const MV_DiamAvp* a = msg->Head; a; a = a->Next) write(w, a);
    return int(w.pos);
}

uint32_t __mv_diam_peek_length(std::span<const uint8_t> bytes) {
    return bytes.size() >= 4 ? get24(bytes.data() + 1) : 0;
}

MV_DiamMessage* __mv_diam_decodeMessage(std::span<const uint8_t> bytes, MV_DiamDecodeStatus* status) {
    MV_DiamDecodeStatus local{};
    MV_DiamDecodeStatus* st = status ? status : &local;
    *st = MV_DiamDecodeStatus{};
    if (bytes.size() < MV_DIAM_HEADER_LEN) {
        *st = {DIAMETER_INVALID_MESSAGE_LENGTH, 0, 0, 0, "message shorter than its header"};
        return nullptr;
    }
    auto* m = static_cast<MV_DiamMessage*>(__mv_diam___alloc(sizeof(MV_DiamMessage)));
    if (!m) return nullptr;
    memset(m, 0, sizeof *m);
    memcpy(&m->Header, bytes.data(), MV_DIAM_HEADER_LEN);
    uint32_t len = get24(m->Header.Length);
    if (m->Header.Version != 1) {
        *st = {DIAMETER_UNSUPPORTED_VERSION, 0, 0, 0, "version is not 1"};
        return m;
    }
    if (len != bytes.size() || len % 4 != 0) {
        *st = {DIAMETER_INVALID_MESSAGE_LENGTH, 1, 0, 0, "message length is not the bytes received or not a multiple of 4"};
        return m;
    }
    Decoder d{__mv_diam_get_applicationid(m), st};
    d.avps(bytes.subspan(MV_DIAM_HEADER_LEN), MV_DIAM_HEADER_LEN, 0, m, nullptr);
    return m;
}
