// Hexadecimal text: configuration values (PLMN, TAC, keys) in, keys and identities out to logs.
#pragma once

#include <cstdint>

// Bytes written; reads digits of either case, skips white space, stops at in_len characters,
// out_len bytes or another character. A lone last digit fills a high nibble.
int __mv_ascii_to_hex(const char* in, int in_len, uint8_t* out, int out_len);
// Upper-case digits, two per byte, no terminator: uOut holds 2 * len characters.
void __mv_hexArray_to_hexString(const uint8_t* uIn, int len, char* uOut);
