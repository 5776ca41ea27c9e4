// Telephone digits as TBCD.
#include "mv_bcd.h"

#include <cstdio>

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
