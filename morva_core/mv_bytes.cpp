// Byte and string helpers. Readers of outside input check lengths before they read.
#include "mv_bytes.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <string>

#include "mv_alloc.h"
#include "mv_pool.h"

// ---------------------------------------------------------------- byte buffer

namespace {

std::mutex buffPoolInit;

// The bytes a writer may use from data.
uint64_t capacity(const __mv_buff_t* b) {
    if (b->at == MV_BUFF_OWNED) return uint64_t(__mv_allocM_block_size(b->head)) - uint64_t(b->data - b->head);
    return b->len;
}

bool room(const __mv_buff_t* b, uint64_t at, uint64_t n) { return at + n <= capacity(b); }

template <class T>
void putBE(uint8_t* p, T v) {
    for (int i = int(sizeof(T)) - 1; i >= 0; --i) {
        p[i] = uint8_t(v & 0xFF);
        v = T(v >> 8);
    }
}

template <class T>
T getBE(const uint8_t* p, int n) {
    T v = 0;
    for (int i = 0; i < n; ++i) v = T((v << 8) | p[i]);
    return v;
}

template <class T>
int encAppend(__mv_buff_t* b, T v) {
    if (!b || !room(b, b->pos, sizeof(T))) return 0;
    putBE<T>(b->data + b->pos, v);
    b->pos += sizeof(T);
    if (b->pos > b->len) b->len = b->pos;
    return 1;
}

template <class T>
int encAt(uint32_t pos, __mv_buff_t* b, T v) {
    if (!b || !room(b, pos, sizeof(T))) return 0;
    putBE<T>(b->data + pos, v);
    return 1;
}

template <class T>
int decNext(__mv_buff_t* b, T* v) {
    if (!b || !v || uint64_t(b->pos) + sizeof(T) > b->len) return 0;
    *v = getBE<T>(b->data + b->pos, sizeof(T));
    b->pos += sizeof(T);
    return 1;
}

}  // namespace

int __mv_buff__init() {
    std::lock_guard g(buffPoolInit);
    if (!__mvCore->mv_buffPool.load()) __mvCore->mv_buffPool = __mv_pool_create("mv_buff", sizeof(__mv_buff_t), 1000, 1);
    return __mvCore->mv_buffPool.load() ? 1 : 0;
}

namespace {
__mv_buff_t* newBuffRecord() {
    if (!__mvCore->mv_buffPool.load(std::memory_order_acquire)) __mv_buff__init();
    return static_cast<__mv_buff_t*>(__mv_pool_allocate(__mvCore->mv_buffPool.load(std::memory_order_acquire)));
}
}  // namespace

__mv_buff_t* __mv_buff__alloc(uint32_t msize) {
    auto* mem = static_cast<uint8_t*>(__mv_allocM(msize));
    if (!mem) return nullptr;
    __mv_buff_t* b = newBuffRecord();
    if (!b) {
        __mv_freeM(mem);
        return nullptr;
    }
    *b = {mem, mem, MV_BUFF_OWNED, 0, 0};
    return b;
}

__mv_buff_t* __mv_buff__alloc2(uint8_t* data, uint32_t len) {
    __mv_buff_t* b = newBuffRecord();
    if (!b) return nullptr;
    *b = {data, data, MV_BUFF_EXTERNAL, len, 0};
    return b;
}

void __mv_buff__free(__mv_buff_t* b) {
    if (!b) return;
    if (b->at == MV_BUFF_OWNED) __mv_freeM(b->head);
    b->head = b->data = nullptr;
    __mv_pool_release(b);
}

int __mv_buff__reserve(__mv_buff_t* b, uint32_t pos) {
    if (!b || !room(b, 0, pos)) return 0;
    b->data += pos;
    if (b->at == MV_BUFF_EXTERNAL) b->len = b->len >= pos ? b->len - pos : 0;
    return 1;
}

int __mv_buff__pull(__mv_buff_t* b, uint32_t pos, int setlength) {
    // Never in front of the memory the buffer started with.
    if (!b || uint64_t(b->data - b->head) < pos) return 0;
    b->data -= pos;
    if (setlength == 1) b->len += pos;
    return 1;
}

uint8_t* __mv_buff__get_head(__mv_buff_t* b) { return b ? b->head : nullptr; }
uint8_t* __mv_buff__get_datapointer(__mv_buff_t* b) { return b ? b->data : nullptr; }
uint8_t* __mv_buff__get_current_datapointer(__mv_buff_t* b) { return b ? b->data + b->pos : nullptr; }
uint16_t __mv_buff__get_len(__mv_buff_t* b) { return b ? uint16_t(b->pos) : 0; }

int __mv_buff__copy(__mv_buff_t* b, const void* buff, uint32_t len) {
    if (!b || (!buff && len) || !room(b, b->pos, len)) return 0;
    if (len) memcpy(b->data + b->pos, buff, len);
    b->pos += len;
    if (b->pos > b->len) b->len = b->pos;
    return 1;
}

int __mv_buff__enc_uint8(__mv_buff_t* b, uint8_t v) { return encAppend(b, v); }
int __mv_buff__enc_uint16(__mv_buff_t* b, uint16_t v) { return encAppend(b, v); }
int __mv_buff__enc_uint32(__mv_buff_t* b, uint32_t v) { return encAppend(b, v); }
int __mv_buff__enc_uint64(__mv_buff_t* b, uint64_t v) { return encAppend(b, v); }
int __mv_buff__enc_at_uint8(uint32_t pos, __mv_buff_t* b, uint8_t v) { return encAt(pos, b, v); }
int __mv_buff__enc_at_uint16(uint32_t pos, __mv_buff_t* b, uint16_t v) { return encAt(pos, b, v); }
int __mv_buff__enc_at_uint32(uint32_t pos, __mv_buff_t* b, uint32_t v) { return encAt(pos, b, v); }
int __mv_buff__enc_at_uint64(uint32_t pos, __mv_buff_t* b, uint64_t v) { return encAt(pos, b, v); }
int __mv_buff__dec_uint8(__mv_buff_t* b, uint8_t* v) { return decNext(b, v); }
int __mv_buff__dec_uint16(__mv_buff_t* b, uint16_t* v) { return decNext(b, v); }
int __mv_buff__dec_uint32(__mv_buff_t* b, uint32_t* v) { return decNext(b, v); }
int __mv_buff__dec_uint64(__mv_buff_t* b, uint64_t* v) { return decNext(b, v); }

// ---------------------------------------------------------------- fixed-size writers and readers

int __mv_encode_uint64(uint8_t* d, uint64_t v) {
    putBE<uint64_t>(d, v);
    return 8;
}
int __mv_encode_uint64_to5bytes(uint8_t* d, uint64_t v) {
    for (int i = 4; i >= 0; --i, v >>= 8) d[i] = uint8_t(v);
    return 5;
}
int __mv_encode_uint32_to4bytes(uint8_t* d, uint32_t v) {
    putBE<uint32_t>(d, v);
    return 4;
}
int __mv_encode_int32_to4bytes(uint8_t* d, int32_t v) { return __mv_encode_uint32_to4bytes(d, uint32_t(v)); }
int __mv_encode_uint32_to3bytes(uint8_t* d, uint32_t v) {
    d[0] = uint8_t(v >> 16);
    d[1] = uint8_t(v >> 8);
    d[2] = uint8_t(v);
    return 3;
}
int __mv_encode_uint16_to2bytes(uint8_t* d, uint16_t v) {
    putBE<uint16_t>(d, v);
    return 2;
}
int __mv_encode_int16_to2bytes(uint8_t* d, int16_t v) { return __mv_encode_uint16_to2bytes(d, uint16_t(v)); }

int __mv_encode_uint32_to45bytes(uint8_t* d, uint32_t v) {
    d[0] = uint8_t((d[0] & 0xF0) | ((v >> 28) & 0x0F));
    d[1] = uint8_t(v >> 20);
    d[2] = uint8_t(v >> 12);
    d[3] = uint8_t(v >> 4);
    d[4] = uint8_t(((v & 0x0F) << 4) | (d[4] & 0x0F));
    return 5;
}

int __mv_encode_uint32_to35bytes(uint8_t* d, uint32_t v) {
    d[0] = uint8_t((d[0] & 0xF0) | ((v >> 20) & 0x0F));
    d[1] = uint8_t(v >> 12);
    d[2] = uint8_t(v >> 4);
    d[3] = uint8_t(((v & 0x0F) << 4) | (d[3] & 0x0F));
    return 4;
}

uint16_t __mv_get_u16(const uint8_t* b) { return getBE<uint16_t>(b, 2); }
uint32_t __mv_get_u24(const uint8_t* b) { return getBE<uint32_t>(b, 3); }
uint32_t __mv_get_u32(const uint8_t* b) { return getBE<uint32_t>(b, 4); }
uint64_t __mv_get_u40(const uint8_t* b) { return getBE<uint64_t>(b, 5); }
uint64_t __mv_get_u48(const uint8_t* b) { return getBE<uint64_t>(b, 6); }
uint64_t __mv_get_u64(const uint8_t* b) { return getBE<uint64_t>(b, 8); }
uint32_t __mv_get_u36(const uint8_t* b) {
    return (uint32_t(b[0] & 0x0F) << 28) | (uint32_t(b[1]) << 20) | (uint32_t(b[2]) << 12) | (uint32_t(b[3]) << 4) |
           (uint32_t(b[4]) >> 4);
}

int __mv_encodeIntTo2Bytes(const uint32_t* val, uint8_t* d) {
    d[0] = uint8_t(*val >> 8);
    d[1] = uint8_t(*val);
    return 2;
}
int __mv_encodeIntTo3Bytes(const uint32_t* val, uint8_t* d) { return __mv_encode_uint32_to3bytes(d, *val); }
int __mv_encodeIntTo4Bytes(const uint32_t* val, uint8_t* d) { return __mv_encode_uint32_to4bytes(d, *val); }

uint32_t __mv_decodeIntValueFrom3Bytes(uint32_t* iInt, const uint8_t* nwByte, int iFromIndex) {
    uint32_t v = __mv_get_u24(nwByte + iFromIndex);
    if (iInt) *iInt = v;
    return v;
}
uint32_t __mv_decodeIntValueFrom4Bytes(uint32_t* iInt, const uint8_t* nwByte, int iFromIndex) {
    uint32_t v = __mv_get_u32(nwByte + iFromIndex);
    if (iInt) *iInt = v;
    return v;
}
uint8_t __mv_decodeBitVal(uint8_t* bVal, const uint8_t* nwByte, int iFromIndex, int bitNumber) {
    uint8_t v = (bitNumber >= 0 && bitNumber < 8) ? uint8_t((nwByte[iFromIndex] >> bitNumber) & 1) : 0;
    if (bVal) *bVal = v;
    return v;
}

namespace {
template <class T>
void setBit(T* v, int i) {
    if (v && i >= 0 && i < int(sizeof(T) * 8)) *v = T(*v | (T(1) << i));
}
template <class T>
int isBit(T v, int i) {
    return (i >= 0 && i < int(sizeof(T) * 8)) ? int((v >> i) & 1) : 0;
}
}  // namespace

void __mv_bit__U8_setbit(uint8_t* u8, int i) { setBit(u8, i); }
void __mv_bit__U16_setbit(uint16_t* u16, int i) { setBit(u16, i); }
void __mv_bit__U32_setbit(uint32_t* u32, int i) { setBit(u32, i); }
int __mv_bit__U8_isbitset(uint8_t u8, int i) { return isBit(u8, i); }
int __mv_bit__U16_isbitset(uint16_t u16, int i) { return isBit(u16, i); }
int __mv_bit__U32_isbitset(uint32_t u32, int i) { return isBit(u32, i); }

// ---------------------------------------------------------------- hexadecimal text

namespace {
int nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
bool blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }
constexpr char kUpper[] = "0123456789ABCDEF";
constexpr char kLower[] = "0123456789abcdef";
}  // namespace

int __mv_ascii_to_hex(const char* in, int in_len, uint8_t* out, int out_len) {
    if (!in || !out || in_len < 1 || out_len < 1) return 0;
    int n = 0;
    bool high = true;
    for (int i = 0; i < in_len; ++i) {
        char c = in[i];
        if (blank(c)) continue;
        int v = nibble(c);
        if (v < 0) break;
        if (high) {
            if (n >= out_len) break;
            out[n++] = uint8_t(v << 4);
        } else {
            out[n - 1] = uint8_t(out[n - 1] | v);
        }
        high = !high;
    }
    return n;
}

int __mv_hex_to_ascii(const uint8_t* in, int in_len, char* out, int out_len) {
    if (!in || !out || out_len < 1) return 0;
    int bytes = std::min(in_len, (out_len - 1) / 2);
    if (bytes < 0) bytes = 0;
    for (int i = 0; i < bytes; ++i) {
        out[2 * i] = kLower[in[i] >> 4];
        out[2 * i + 1] = kLower[in[i] & 0x0F];
    }
    out[2 * bytes] = 0;
    return 2 * bytes;
}

int __mv_conver_hex_to_hexstr(char* hexstrout, const uint8_t* hexin, int inlen) {
    if (!hexstrout || !hexin || inlen < 0) return 0;
    for (int i = 0; i < inlen; ++i) {
        hexstrout[2 * i] = kUpper[hexin[i] >> 4];
        hexstrout[2 * i + 1] = kUpper[hexin[i] & 0x0F];
    }
    hexstrout[2 * inlen] = 0;
    return inlen;
}

int __mv_conver_str_to_hex(uint8_t* hexout, const char* hexstrin) {
    if (!hexout || !hexstrin) return 0;
    int n = 0;
    for (const char* p = hexstrin; *p;) {
        int hi = nibble(p[0]);
        if (hi < 0) break;
        if (!p[1]) {
            hexout[n++] = uint8_t(hi);  // a lone last digit stands for itself
            break;
        }
        int lo = nibble(p[1]);
        if (lo < 0) break;
        hexout[n++] = uint8_t(hi << 4 | lo);
        p += 2;
    }
    return n;
}

void __mv_hexArray_to_hexString(const uint8_t* uIn, int len, char* uOut) {
    if (!uIn || !uOut) return;
    for (int i = 0; i < len; ++i) {
        uOut[2 * i] = kUpper[uIn[i] >> 4];
        uOut[2 * i + 1] = kUpper[uIn[i] & 0x0F];
    }
}

void __mv_print_buffer(const uint8_t* buff, int len) {
    if (!buff) return;
    for (int i = 0; i < len; ++i) printf("%02X ", buff[i]);
    printf("\n");
}

// ---------------------------------------------------------------- BCD

namespace {
// Digits map to their value; the other telephone characters to their TBCD codes.
uint8_t tbcd(char c) {
    if (c >= '0' && c <= '9') return uint8_t(c - '0');
    switch (c) {
        case '*': return 0xA;
        case '#': return 0xB;
        case 'a': case 'A': return 0xC;
        case 'b': case 'B': return 0xD;
        case 'c': case 'C': return 0xE;
        default: return 0xF;
    }
}
}  // namespace

int __mv_convertStrToBCD(const char* inStr, int inLen, uint8_t* outStr, int* outLen) {
    if (!inStr || !outStr || inLen < 0) return 0;
    int n = 0;
    for (int i = 0; i < inLen; i += 2) {
        uint8_t lo = tbcd(inStr[i]);
        uint8_t hi = (i + 1 < inLen) ? tbcd(inStr[i + 1]) : 0xF;
        outStr[n++] = uint8_t(hi << 4 | lo);
    }
    if (outLen) *outLen = n;
    return 1;
}

int __mv_convertLongToBCD2(uint64_t num, uint8_t* outStr, int* outLen) {
    char text[24];
    int len = snprintf(text, sizeof text, "%lu", (unsigned long)num);
    return __mv_convertStrToBCD(text, len, outStr, outLen);
}

int __mv_convertStringToBCD(const char* inStr, int inLen, uint8_t* outStr, int* outLen, int OddEvenIndication) {
    if (!inStr || !outStr || inLen < 0) return 0;
    int n = 0;
    if (OddEvenIndication != 1) {
        for (int i = 0; i < inLen; i += 2) {
            uint8_t hi = tbcd(inStr[i]);
            uint8_t lo = (i + 1 < inLen) ? tbcd(inStr[i + 1]) : 0xF;
            outStr[n++] = uint8_t(hi << 4 | lo);
        }
    } else if (inLen > 0) {
        // The low nibble of the first byte carries the caller's flags.
        outStr[0] = uint8_t(outStr[0] | (tbcd(inStr[0]) << 4));
        n = 1;
        for (int i = 1; i < inLen; i += 2) {
            uint8_t lo = tbcd(inStr[i]);
            uint8_t hi = (i + 1 < inLen) ? tbcd(inStr[i + 1]) : 0xF;
            outStr[n++] = uint8_t(hi << 4 | lo);
        }
    }
    if (outLen) *outLen = n;
    return 1;
}

int __mv_convertLongToBCD(uint64_t num, uint8_t* outStr, int* outLen, int OddEvenIndication) {
    char text[24];
    int len = snprintf(text, sizeof text, "%lu", (unsigned long)num);
    return __mv_convertStringToBCD(text, len, outStr, outLen, OddEvenIndication);
}

int __mv_bcd_to_buffer(const char* str, uint8_t* out, int* outLen) {
    if (!str) return 0;
    return __mv_convertStrToBCD(str, int(strlen(str)), out, outLen);
}

int __mv_buffer_to_bcd(const uint8_t* in, int inLen, char* out) {
    if (!in || !out || inLen < 0) return 0;
    int n = 0;
    for (int i = 0; i < inLen; ++i) {
        out[n++] = kUpper[in[i] & 0x0F];
        uint8_t hi = in[i] >> 4;
        if (hi == 0xF && i == inLen - 1) break;
        out[n++] = kUpper[hi];
    }
    out[n] = 0;
    return n;
}

int __mv_convertBCDToStr(const uint8_t* in, int inLen, char* out, int outLen) {
    if (!in || !out || outLen < 1) return 0;
    int n = 0;
    for (int i = 0; i < inLen && n < outLen - 1; ++i) {
        uint8_t lo = in[i] & 0x0F, hi = in[i] >> 4;
        if (lo > 9) break;
        out[n++] = char('0' + lo);
        if (hi > 9 || n >= outLen - 1) break;
        out[n++] = char('0' + hi);
    }
    out[n] = 0;
    return n;
}

int __mv_convertBCDToBCDStr(const uint8_t* in, int inLen, char* out, int outLen) {
    if (!in || !out || outLen < 1) return 0;
    int bytes = std::max(0, std::min(inLen, (outLen - 1) / 2));
    __mv_conver_hex_to_hexstr(out, in, bytes);
    return 2 * bytes;
}

int __mv_convertBCDStrToBCD(const char* in, int inLen, uint8_t* out, int outLen) {
    if (!in || !out || outLen < 1 || inLen < 0) return 0;
    int n = 0;
    for (int i = 0; i + 1 < inLen + 1 && n < outLen; i += 2) {
        int hi = nibble(in[i]);
        if (hi < 0) break;
        int lo = (i + 1 < inLen) ? nibble(in[i + 1]) : -1;
        if (lo < 0) {
            out[n++] = uint8_t(hi << 4 | 0xF);
            break;
        }
        out[n++] = uint8_t(hi << 4 | lo);
    }
    return n;
}

int __mv_str_to_plmn(const char* str, uint8_t* plmn) {
    if (!str || !plmn) return 0;
    int v[6];
    for (int i = 0; i < 6; ++i) {
        if (!str[i] || (v[i] = nibble(str[i])) < 0) return 0;
    }
    for (int i = 0; i < 3; ++i) plmn[i] = uint8_t(v[2 * i] << 4 | v[2 * i + 1]);
    return 1;
}

void __mv_plmn_to_str(char* dst, const uint8_t* plmn) {
    if (dst && plmn) snprintf(dst, 7, "%02X%02X%02X", plmn[0], plmn[1], plmn[2]);
}

// ---------------------------------------------------------------- names on the wire

int __mv_build__apn(uint8_t* dst, const char* src, int length) {
    if (!dst || !src || length < 0) return 0;
    int lenPos = 0, count = 0;
    for (int i = 0; i < length; ++i) {
        if (src[i] == '.') {
            dst[lenPos] = uint8_t(count);
            lenPos = i + 1;
            count = 0;
        } else {
            dst[i + 1] = uint8_t(src[i]);
            ++count;
        }
    }
    dst[lenPos] = uint8_t(count);
    return length + 1;
}

int __mv_build__parse(char* dst, const uint8_t* src, int length) {
    if (!dst || !src || length < 0) return -EINVAL;
    if (length == 0) return 0;
    int i = 0, n = 0;
    while (i < length) {
        int l = src[i];
        if (i + 1 + l > length) {
            dst[0] = 0;
            return -EINVAL;
        }
        if (n) dst[n++] = '.';
        memcpy(dst + n, src + i + 1, size_t(l));
        n += l;
        i += 1 + l;
    }
    // The dots take the places of the length bytes, so n < length always.
    dst[n] = 0;
    return n;
}

int __mv_convertApnToGtpApn(const char* in, int inLen, uint8_t* out, int* outLen) {
    int n = __mv_build__apn(out, in, inLen);
    if (outLen) *outLen = n;
    return n > 0 ? 1 : 0;
}

int __mv_convertGtpApnToApn(const uint8_t* in, int inLen, char* out, int* outLen) {
    int n = __mv_build__parse(out, in, inLen);
    if (n < 0) return n;
    if (outLen) *outLen = n;
    return 1;
}

int __mv_ip_get_version(const char* ipAddr) {
    if (!ipAddr) return -1;
    const char* dot = strchr(ipAddr, '.');
    if (dot && dot > ipAddr) return 4;
    if (strchr(ipAddr, ':')) return 6;
    return -1;
}

uint32_t __mv_core_convert_ipv4toint(const char* ipaddress) { return ipaddress ? inet_addr(ipaddress) : INADDR_NONE; }

const char* __mv_core_convert_inttoipv4(uint32_t ipv4) {
    static thread_local char text[16];
    __mv_core_convert_inttoipv4_2(ipv4, text);
    return text;
}

void __mv_core_convert_inttoipv4_2(uint32_t ipv4, char* ip) {
    if (!ip) return;
    // Network order in memory, as inet_addr gives it.
    const auto* b = reinterpret_cast<const uint8_t*>(&ipv4);
    snprintf(ip, 16, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
}

// ---------------------------------------------------------------- strings

char* __mv_strdup2(const char* pstr, int len) {
    if (!pstr || len < 0) return nullptr;
    // A class is always strictly larger than the request: the terminator fits.
    auto* p = static_cast<char*>(__mv_allocM(size_t(len)));
    if (!p) return nullptr;
    memcpy(p, pstr, size_t(len));
    p[len] = 0;
    return p;
}

char* __mv_strdup(const char* pstr) { return pstr ? __mv_strdup2(pstr, int(strlen(pstr))) : nullptr; }

char* __mv_strdup3(const char* pstr, int startPos, int len) {
    if (!pstr || startPos < 0) return nullptr;
    return __mv_strdup2(pstr + startPos, len);
}

void __mv_strncpy(char* dest, const char* src, int len) {
    if (!dest || !src || len < 0) return;
    memcpy(dest, src, size_t(len));
    dest[len] = 0;
}

int __mv_memcpy(void* dst, int dlen, const void* src, int slen) {
    if (!dst || !src || dlen <= 0) return 0;
    if (slen == 0) slen = int(strlen(static_cast<const char*>(src)));
    if (slen <= 0) return 0;
    // The terminator needs its own byte inside dlen.
    int n = std::min(dlen - 1, slen);
    memcpy(dst, src, size_t(n));
    static_cast<char*>(dst)[n] = 0;
    return n;
}

int __mv_memcmp(const char* src1, const char* src2, int len) {
    if (!src1) return -1;
    if (!src2) return -ENOENT;
    if (int(strlen(src1)) != len) return -ESRCH;
    if (int(strlen(src2)) != len) return -EINTR;
    return memcmp(src1, src2, size_t(len));
}

int __mv_memcmp2(const char* str1, int str1_len, const char* str2, int str2_len) {
    if (!str1) return -1;
    if (!str2) return -ENOENT;
    if (str1_len == 0) str1_len = int(strlen(str1));
    if (str2_len == 0) str2_len = int(strlen(str2));
    if (str1_len <= 0 || str2_len <= 0) return -ESRCH;
    if (str1_len != str2_len) return -EINTR;
    return memcmp(str1, str2, size_t(str1_len)) == 0 ? 0 : -1;
}

int __mv_indexOf(const char* data, int datalen, char cchar) {
    if (!data) return -1;
    for (int i = 0; i < datalen; ++i)
        if (data[i] == cchar) return i;
    return -1;
}

int __mv_lastIndexOf(const char* data, int datalen, char cchar) {
    if (!data) return -1;
    for (int i = datalen - 1; i >= 0; --i)
        if (data[i] == cchar) return i;
    return -1;
}

int __mv_indexOf2(const char* data, int datalen, const char* str) {
    if (!data || !str || !str[0] || !str[1]) return -1;
    for (int i = 0; i + 1 < datalen; ++i)
        if (data[i] == str[0] && data[i + 1] == str[1]) return i;
    return -1;
}

int __mv_indexOf3(const char* data, int datalen, const char* find, int findlen) {
    if (!data || !find || findlen < 1 || datalen <= findlen) return -1;
    for (int i = 0; i + findlen <= datalen; ++i)
        if (memcmp(data + i, find, size_t(findlen)) == 0) return i;
    return -1;
}

int __mv_indexOf4(const char* data, const char* find) {
    if (!data || !find) return -1;
    const char* p = strstr(data, find);
    return p ? int(p - data) : -1;
}

MV_LinkedList* __mv_string_split(const char* data, int len, const char* cspliter) {
    MV_LinkedList* list = __mv_linked_list_allocate();
    if (!data || !cspliter || !*cspliter || len < 1) return list;
    int sl = int(strlen(cspliter));
    auto addPiece = [&](int from, int to) {
        if (to <= from) return;  // empty pieces are dropped
        auto* s = static_cast<__mv_stringv_t*>(__mv_allocM(sizeof(__mv_stringv_t)));
        if (!s) return;
        *s = {};
        if (__mv_stringv_set(s, data + from, to - from) != 1) {
            __mv_freeM(s);
            return;
        }
        __mv_linked_list_add(list, s);
    };
    int start = 0;
    for (int i = 0; i + sl <= len;) {
        if (memcmp(data + i, cspliter, size_t(sl)) == 0) {
            addPiece(start, i);
            i += sl;
            start = i;
        } else {
            ++i;
        }
    }
    if (len - start > sl) addPiece(start, len);
    return list;
}

int __mv_substr(const char* data, char* outdata, int bPos, int ePos) {
    if (!data || !outdata || bPos < 0 || ePos < bPos) return 0;
    int n = ePos - bPos;
    memcpy(outdata, data + bPos, size_t(n));
    outdata[n] = 0;
    return n;
}

namespace {
bool trimmable(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
}  // namespace

char* __mv_ltrim(char* data) {
    if (!data) return nullptr;
    while (*data && trimmable(*data)) ++data;
    return data;
}

int __mv_ltrim_copy(const char* data, char* dst, int len) {
    if (!data || !dst || len < 1) return 0;
    while (*data && trimmable(*data)) ++data;
    int n = 0;
    while (data[n] && n < len - 1) {
        dst[n] = data[n];
        ++n;
    }
    dst[n] = 0;
    return n;
}

const char* __mv_get_keypair_val(const char* data, const char* key) {
    if (!data || !key) return nullptr;
    const char* p = strstr(data, key);
    return p ? p + strlen(key) : nullptr;
}

int __mv_fill_KeyValPair(const char* data, int len, char splitter, char* key, char* val) {
    if (!data || !key || !val || len < 1) return 0;
    int at = __mv_indexOf(data, len, splitter);
    if (at < 0) return 0;
    memcpy(key, data, size_t(at));
    key[at] = 0;
    memcpy(val, data + at + 1, size_t(len - at - 1));
    val[len - at - 1] = 0;
    return 1;
}

void __mv_file__get_extension(const char* filename, char* ext, int* extLen) {
    if (!filename || !ext || !extLen) return;
    const char* dot = strrchr(filename, '.');
    if (!dot || dot == filename) return;
    size_t n = strlen(dot + 1);
    if (n > 9) return;
    memcpy(ext, dot + 1, n + 1);
    *extLen = int(n);
}

namespace {
template <class S>
int fixedSet(S* s, const void* val, int len) {
    constexpr int cap = int(sizeof(s->val)) - 1;
    if (!s || len < 0 || len > cap || (!val && len)) return -1;
    if (len) memcpy(s->val, val, size_t(len));
    s->val[len] = 0;
    s->len = uint16_t(len);
    s->isset = 1;
    return 1;
}
}  // namespace

#define MV_DEFINE_STRING_SET(N)                                                       \
    int __mv_string##N##_set(__mv_string##N##_t* ptr_string, const void* val, int len) { \
        return fixedSet(ptr_string, val, len);                                        \
    }
MV_DEFINE_STRING_SET(5)
MV_DEFINE_STRING_SET(10)
MV_DEFINE_STRING_SET(20)
MV_DEFINE_STRING_SET(40)
MV_DEFINE_STRING_SET(60)
MV_DEFINE_STRING_SET(80)
MV_DEFINE_STRING_SET(100)
MV_DEFINE_STRING_SET(120)
MV_DEFINE_STRING_SET(140)
MV_DEFINE_STRING_SET(160)
MV_DEFINE_STRING_SET(180)
MV_DEFINE_STRING_SET(200)
#undef MV_DEFINE_STRING_SET

int __mv_stringv_set(__mv_stringv_t* s, const void* val, int len) {
    if (!s || len < 0 || len > 0xFFFF || (!val && len)) return -1;
    auto* p = static_cast<u_char*>(__mv_allocM(size_t(len) + 1));
    if (!p) return 0;
    if (len) memcpy(p, val, size_t(len));
    p[len] = 0;
    s->val = p;
    s->len = uint16_t(len);
    s->pos = 0;
    s->isset = 1;
    s->vType = 'd';
    return 1;
}

int __mv_stringv_setr(__mv_stringv_t* s, const void* val, int len) {
    if (!s || len < 0 || len > 0xFFFF) return -1;
    s->val = static_cast<u_char*>(const_cast<void*>(val));
    s->len = uint16_t(len);
    s->pos = 0;
    s->isset = 1;
    s->vType = 'r';
    return 1;
}

int __mv_stringv_init(__mv_stringv_t* s, int maxlen) {
    if (!s || maxlen < 1 || maxlen > 0xFFFF) return -1;
    auto* p = static_cast<u_char*>(__mv_allocM(size_t(maxlen)));
    if (!p) return 0;
    p[0] = 0;
    s->val = p;
    s->len = uint16_t(maxlen);
    s->pos = 0;
    s->isset = 1;
    s->vType = 'd';
    return 1;
}

int __mv_stringv_append(__mv_stringv_t* s, const char* mLine, int len) {
    if (!s || !s->val || !mLine || len < 0) return 0;
    // Text that would reach len is dropped, so the terminator always fits.
    if (int(s->pos) + len >= int(s->len)) return 0;
    memcpy(s->val + s->pos, mLine, size_t(len));
    s->pos = uint16_t(s->pos + len);
    s->val[s->pos] = 0;
    return 1;
}

int __mv_stringv_appendline(__mv_stringv_t* s, const char* mLine, ...) {
    if (!s || !s->val || !mLine) return 0;
    char stackBuf[1024];
    va_list ap;
    va_start(ap, mLine);
    int n = vsnprintf(stackBuf, sizeof stackBuf, mLine, ap);
    va_end(ap);
    if (n < 0) return 0;
    if (n < int(sizeof stackBuf)) return __mv_stringv_append(s, stackBuf, n);
    std::string big(size_t(n) + 1, '\0');
    va_start(ap, mLine);
    vsnprintf(big.data(), big.size(), mLine, ap);
    va_end(ap);
    return __mv_stringv_append(s, big.data(), n);
}

void __mv_stringv_memset(__mv_stringv_t* s) {
    if (!s || !s->val) return;
    if (s->vType == 'd') memset(s->val, 0, s->len);
    s->pos = 0;
}

void __mv_stringv_put(__mv_stringv_t* s) {
    if (!s) return;
    if (s->vType == 'd') __mv_freeM(s->val);
    s->val = nullptr;
    s->isset = 0;
    s->len = 0;
    s->pos = 0;
}

void __mv_u32_set(MV_U32* p, uint32_t val) {
    if (!p) return;
    p->val = val;
    p->isset = 1;
}

void __mv_u64_set(MV_U64* p, uint64_t val) {
    if (!p) return;
    p->val = val;
    p->isset = 1;
}

// ---------------------------------------------------------------- base64

int Base64encode_len(int len) { return ((len + 2) / 3 * 4) + 1; }

int Base64encode(char* encoded, const char* string, int len) {
    if (!encoded || (!string && len) || len < 0) return 0;
    int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded), reinterpret_cast<const unsigned char*>(string),
                            len);
    encoded[n] = 0;
    return n + 1;
}

namespace {
bool b64char(char c) { return isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '/'; }
// The alphabet characters up to the first other one, as a decoder of this form reads them.
int b64body(const char* s) {
    int n = 0;
    while (s[n] && b64char(s[n])) ++n;
    return n;
}
}  // namespace

int Base64decode_len(const char* bufcoded) {
    if (!bufcoded) return 0;
    int n = b64body(bufcoded);
    return ((n + 3) / 4) * 3 + 1;
}

int Base64decode(char* bufplain, const char* bufcoded) {
    if (!bufplain || !bufcoded) return 0;
    int n = b64body(bufcoded);
    if (n % 4 == 1) --n;  // a single trailing character carries no whole byte
    std::string padded(bufcoded, size_t(n));
    int pad = (4 - n % 4) % 4;
    padded.append(size_t(pad), '=');
    int out = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bufplain),
                              reinterpret_cast<const unsigned char*>(padded.data()), int(padded.size()));
    if (out < 0) {
        bufplain[0] = 0;
        return 0;
    }
    out -= pad;
    bufplain[out] = 0;
    return out;
}

// ---------------------------------------------------------------- files

MV_LinkedList* __mv_readdir(const char* dir) {
    MV_LinkedList* list = __mv_linked_list_allocate();
    DIR* d = dir ? opendir(dir) : nullptr;
    if (!d) return list;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        bool regular = e->d_type == DT_REG;
        if (e->d_type == DT_UNKNOWN) {
            std::string full = std::string(dir) + "/" + e->d_name;
            struct stat st;
            regular = stat(full.c_str(), &st) == 0 && S_ISREG(st.st_mode);
        }
        if (regular) {
            if (char* name = __mv_strdup(e->d_name)) __mv_linked_list_add(list, name);
        }
    }
    closedir(d);
    return list;
}

int __mv_fileExists(const char* fileName) {
    struct stat st;
    return (fileName && stat(fileName, &st) == 0) ? 1 : 0;
}

int __mv_file__init(const char* path, MV_FileInfo* fi) {
    if (!path || !fi) return 0;
    fi->fd = open(path, O_RDONLY | O_CLOEXEC);
    fi->pos = 0;
    fi->size = 0;
    if (fi->fd < 0) return 0;
    struct stat st;
    if (fstat(fi->fd, &st) != 0) {
        close(fi->fd);
        fi->fd = -1;
        return 0;
    }
    fi->size = long(st.st_size);
    return 1;
}

void __mv_file__close(MV_FileInfo* fi) {
    if (!fi || fi->fd < 0) return;
    close(fi->fd);
    fi->fd = -1;
}

int __mv_file__hasdata(MV_FileInfo* fi) { return (fi && fi->fd >= 0 && fi->pos < fi->size) ? 1 : 0; }

int __mv_file__read(MV_FileInfo* fi, void* buff, int readSize, long* pending) {
    if (!fi || fi->fd < 0 || !buff || readSize < 1) return 0;
    ssize_t n = pread(fi->fd, buff, size_t(readSize), fi->pos);
    if (n < 0) n = 0;
    fi->pos += n;
    if (pending) *pending = fi->size - fi->pos;
    return int(n);
}

int __mv_file__readdata(const char* fileName, long pos, void* buff, int readSize) {
    if (!fileName || !buff || readSize < 1 || pos < 0) return 0;
    int fd = open(fileName, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    ssize_t n = pread(fd, buff, size_t(readSize), pos);
    close(fd);
    return n < 0 ? 0 : int(n);
}

int __mv_file__createf(const char* cFileName, int deleteExisting) {
    if (!cFileName) return -1;
    if (deleteExisting) unlink(cFileName);
    mode_t old = umask(022);
    int fd = open(cFileName, O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0644);
    umask(old);
    return fd;
}

int __mv_file__writeln(int fhd, const char* contents, ...) {
    if (fhd < 0 || !contents) return 0;
    char line[1001];
    va_list ap;
    va_start(ap, contents);
    int n = vsnprintf(line, 1000, contents, ap);
    va_end(ap);
    if (n < 0) return 0;
    if (n > 999) n = 999;
    line[n++] = '\n';
    return int(write(fhd, line, size_t(n)));
}

int __mv_file__writef(int fhd, const void* contents, int len) {
    if (fhd < 0 || !contents || len < 1) return 0;
    return int(write(fhd, contents, size_t(len)));
}

void __mv_file__closef(int fhd) {
    if (fhd >= 0) close(fhd);
}
