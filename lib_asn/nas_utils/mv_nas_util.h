// Mobile identities and PLMN octets for the NAS messages: the 5G-GUTI, 5G-S-TMSI, SUCI, IMEI and IMEISV
// forms of the 5GS mobile identity, and the BCD PLMN of TS 24.008 (MNC digit 3 in the high nibble of the
// second octet, 0xF there for a two-digit MNC).
#pragma once

#include <cstdint>

#include "mv_naspdu.h"

// Identity encoders fill the IE, set isset and return 1; -1 when the input does not fit or is not digits.
// 5G-GUTI: 0xF2 and the ten value octets (PLMN, AMF region, set and pointer, 5G-TMSI); Length len + 1.
int __mv_nas_util_encode_fg_guti(__naspdu_fgs_mobile_identity* ie, const uint8_t* guti, int len);
// 5G-S-TMSI: 0xF4 and the six octets from octet 4 of the GUTI value; Length len + 1.
int __mv_nas_util_encode_fg_s_tmsi(__naspdu_fgs_mobile_identity* ie, const uint8_t* tmsi, int len);
// A ready-made SUCI, copied as it stands.
int __mv_nas_util_encode_fg_suci(__naspdu_fgs_mobile_identity* ie, const uint8_t* suci, int len);
// IMEI (type 3) and IMEISV (type 5) from n decimal digits.
int __mv_nas_util_encode_fg_imei(__naspdu_fgs_mobile_identity* ie, const char* digits, int n);
int __mv_nas_util_encode_fg_imeisv(__naspdu_fgs_mobile_identity* ie, const char* digits, int n);
// The digits of an IMEI or IMEISV identity as text, ending at the first nibble above 9; the digit count.
// out holds at most outLen - 1 digits and a terminator.
int __mv_nas_util_decode_fg_imei(const __naspdu_fgs_mobile_identity* ie, char* out, int outLen);
int __mv_nas_util_decode_fg_imeisv(const __naspdu_fgs_mobile_identity* ie, char* out, int outLen);

// Three PLMN octets to MCC and MNC text (mcc and mnc hold 4 characters each); the MNC's digit count.
int __mv_nas_util__plmn_to_mccmnc(const uint8_t* plmn, char* mcc, char* mnc);
// The same as numbers.
int __mv_nas_util__plmn_to_mccmnc2(const uint8_t* plmn, uint16_t* mcc, uint16_t* mnc);
// MCC and MNC numbers to the three octets; mnclen 2 or 3. 1, or -1 for values out of range.
int __mv_nas_util__mccmnc_to_plmn(uint8_t* plmn, uint16_t mcc, uint16_t mnc, int mnclen);
