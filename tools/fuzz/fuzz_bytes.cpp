// libFuzzer target for the helpers that parse outside text and bytes: hexadecimal,
// BCD, PLMN, names on the wire, IP text, base64, splitting and the buffer readers.
// Output buffers are sized exactly as each helper promises, so that the address
// sanitizer catches any write past them.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mv_alloc.h"
#include "mv_bytes.h"
#include "mv_pool.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __init_morva_core();
    __mv_init_logger("/tmp/ks_fuzz_bytes/logs/");
    __mv_set_log_enable_disable(MV_STK_LOG, 0);
    return 0;
}

namespace {

void check(bool ok) {
    if (!ok) abort();
}

void fuzzHex(const char* s, int n, uint8_t sel) {
    std::vector<uint8_t> out(size_t(sel % 40) + 1);
    int w = __mv_ascii_to_hex(s, n, out.data(), int(out.size()));
    check(w >= 0 && w <= int(out.size()));
    std::vector<char> text(size_t(sel % 17) + 1);
    int c = __mv_hex_to_ascii(out.data(), w, text.data(), int(text.size()));
    check(c < int(text.size()) && text[size_t(c)] == 0);
    std::string z(s, size_t(n));
    std::vector<uint8_t> hex(strlen(z.c_str()) / 2 + 1);
    __mv_conver_str_to_hex(hex.data(), z.c_str());
    uint8_t plmn[3];
    if (__mv_str_to_plmn(z.c_str(), plmn) == 1) {
        char p[7];
        __mv_plmn_to_str(p, plmn);
        check(strncasecmp(p, z.c_str(), 6) == 0);
    }
}

void fuzzBcd(const char* s, int n, uint8_t sel) {
    std::vector<uint8_t> out(size_t(n + 1) / 2 + 1);
    int len = 0;
    __mv_convertStrToBCD(s, n, out.data(), &len);
    check(len == (n + 1) / 2);
    out.assign(out.size(), 0);
    __mv_convertStringToBCD(s, n, out.data(), &len, sel & 1);
    check(len <= int(out.size()));
    const auto* b = reinterpret_cast<const uint8_t*>(s);
    std::vector<char> text(size_t(2 * n) + 1);
    int d = __mv_buffer_to_bcd(b, n, text.data());
    check(d <= 2 * n);
    std::vector<char> small(size_t(sel % 9) + 1);
    __mv_convertBCDToStr(b, n, small.data(), int(small.size()));
    __mv_convertBCDToBCDStr(b, n, small.data(), int(small.size()));
    std::vector<uint8_t> packed(size_t(sel % 5) + 1);
    __mv_convertBCDStrToBCD(s, n, packed.data(), int(packed.size()));
    // Digits survive the round trip.
    std::string digits;
    for (int i = 0; i < n; ++i)
        if (s[i] >= '0' && s[i] <= '9') digits += s[i];
    std::vector<uint8_t> bcd(digits.size() / 2 + 1);
    __mv_convertStrToBCD(digits.data(), int(digits.size()), bcd.data(), &len);
    std::vector<char> back(size_t(2 * len) + 1);
    __mv_buffer_to_bcd(bcd.data(), len, back.data());
    check(digits == back.data());
}

void fuzzNames(const char* s, int n) {
    const auto* b = reinterpret_cast<const uint8_t*>(s);
    std::vector<char> text(size_t(n) + 1);
    int r = __mv_build__parse(text.data(), b, n);
    check(r == -EINVAL || (r >= 0 && r < n + 1));
    std::vector<uint8_t> apn(size_t(n) + 1);
    check(__mv_build__apn(apn.data(), s, n) == n + 1);
    std::string z(s, size_t(n));
    __mv_ip_get_version(z.c_str());
    char ip[16];
    __mv_core_convert_inttoipv4_2(__mv_core_convert_ipv4toint(z.c_str()), ip);
}

void fuzzReaders(const uint8_t* d, size_t n, uint8_t sel) {
    std::vector<uint8_t> copy(d, d + n);
    __mv_buff_t* b = __mv_buff__alloc2(copy.data(), uint32_t(copy.size()));
    if (!b) return;
    for (int i = 0; i < 64; ++i) {
        uint8_t v8;
        uint16_t v16;
        uint32_t v32;
        uint64_t v64;
        int ok;
        switch ((sel + i) % 4) {
            case 0: ok = __mv_buff__dec_uint8(b, &v8); break;
            case 1: ok = __mv_buff__dec_uint16(b, &v16); break;
            case 2: ok = __mv_buff__dec_uint32(b, &v32); break;
            default: ok = __mv_buff__dec_uint64(b, &v64); break;
        }
        check(b->pos <= b->len);
        if (!ok && b->pos == b->len) break;
    }
    __mv_buff__free(b);
}

void fuzzText(const char* s, int n, uint8_t sel) {
    std::string z(s, size_t(n));
    std::vector<char> plain(size_t(Base64decode_len(z.c_str())));
    int d = Base64decode(plain.data(), z.c_str());
    check(d >= 0 && d < int(plain.size()));
    char sep[3] = {char(sel % 3 == 0 ? ',' : ':'), char(sel % 2 ? ':' : 0), 0};
    MV_LinkedList* l = __mv_string_split(s, n, sep);
    while (auto* p = static_cast<__mv_stringv_t*>(__mv_linked_list_pop(l))) {
        __mv_stringv_put(p);
        __mv_freeM(p);
    }
    __mv_linked_list_release(l);
    __mv_indexOf3(s, n, sep, int(strlen(sep)));
    __mv_memcmp2(z.c_str(), 0, "imsi-", 0);
    std::vector<char> dst(size_t(sel % 11) + 1);
    __mv_memcpy(dst.data(), int(dst.size()), z.c_str(), n);  // a zero length reads up to the terminator
    __mv_ltrim_copy(z.c_str(), dst.data(), int(dst.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > 4096) return 0;
    uint8_t op = data[0], sel = data[1];
    const char* s = reinterpret_cast<const char*>(data + 2);
    int n = int(size - 2);
    switch (op % 5) {
        case 0: fuzzHex(s, n, sel); break;
        case 1: fuzzBcd(s, n, sel); break;
        case 2: fuzzNames(s, n); break;
        case 3: fuzzReaders(data + 2, size - 2, sel); break;
        default: fuzzText(s, n, sel); break;
    }
    return 0;
}
