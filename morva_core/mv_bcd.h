// Telephone digits as TBCD, the form of IMSI, MSISDN and IMEI fields and of the SUCI's routing
// indicator: the first digit of a pair in the low nibble, an odd count closed by 0xF.
#pragma once

#include <cstdint>

// outStr holds (inLen + 1) / 2 bytes; *outLen receives the count. Result 1, 0 for bad arguments.
int __mv_convertStrToBCD(const char* inStr, int inLen, uint8_t* outStr, int* outLen);
// The number's decimal digits, the same way.
int __mv_convertLongToBCD2(uint64_t emergencyNumber, uint8_t* outStr, int* outLen);
