// Hexadecimal text.
#include "mv_hex.h"

namespace {

int nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

constexpr char kUpper[] = "0123456789ABCDEF";

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

void __mv_hexArray_to_hexString(const uint8_t* uIn, int len, char* uOut) {
    if (!uIn || !uOut) return;
    for (int i = 0; i < len; ++i) {
        uOut[2 * i] = kUpper[uIn[i] >> 4];
        uOut[2 * i + 1] = kUpper[uIn[i] & 0x0F];
    }
}
