// libmvalgo: the emulated UE's authentication and NAS security. These are the
// operations the engine calls, over plain pointers and integers; they take no engine
// record. The building blocks they are made of are in mvalgo_prim.h.
//
// Threads: every operation is reentrant. The library fetches its OpenSSL algorithms
// once (at __mv_ogs_init_crypto_fun, or at first use) and after that keeps no
// mutable state outside the caller's stack.
//
// Results: 0 is success; a negative value says what failed. Bad pointers give
// MV_ALGO_ERR_ARG (-EINVAL).
//
// Authentication status (__mv_algo__ue_authenticate2 and __mv_algo__ue_authenticate_lte):
//    0  AUTN verified; RES (LTE) or RES* and KAUSF (5G) are filled
//   -1  "milenage_f2345-1 failed"   f2..f5 could not be computed
//   -2  "milenage_f2345-2 failed"   f5* could not be computed for the AUTS
//   -3  "milenage_f1-1 failed"      XMAC could not be computed
//   -4  SQN out of range; the 14-octet AUTS is filled
//   -5  "milenage_f1-2 failed"      MAC-S could not be computed for the AUTS
//   -6  "autn mismatch"             the MAC in AUTN is not ours
// sqnAmf always receives the SQN carried in AUTN (SQN xor AK, xor AK), even when the
// MAC fails. The library never returns -10 (it keeps no key set state: the ngKSI
// checks that map to 5GMM cause 71 belong to the caller) nor -11.
//
// SQN freshness. SQN = SEQ || IND with a 5-bit IND, so that the engine's step of 32
// per authentication is one SEQ. The caller passes the low 32 bits of the SQN its UE
// expects next (the engine keeps it so: the 5G UE adds 32 after a success, the 4G UE
// adds 32 before each check). The library completes it to 48 bits with the high bits
// of the network's SQN and takes the distance d = SQN_net - sqn as a signed 32-bit
// number, so that a counter wrapping at 2^32 is still ordered right.
//  - handleSqnSync 1: freshness as a USIM with an array of SEQ per IND judges it. The
//    vector is fresh when its SEQ is not below SEQ(sqn), whatever IND it carries,
//    and it is at most 2^28 ahead. A vector of an earlier SEQ is a replay.
//  - handleSqnSync 0: the UE keeps to its own counter: fresh only when
//    0 <= d <= 2^28, the whole SQN, IND included, not below sqn. This is what the
//    forced synchronisation failure relies on (the caller sets sqn one step past the
//    network and gets -4).
//  - A stale vector gives -4 and the AUTS carries SQN_MS = sqn + 64, two steps past
//    the caller's counter. A standard home network sets SQN_HE to SQN_MS and sends
//    its next vector one SEQ later, at sqn + 65 or above, which both UE flows
//    accept: the 5G UE checks next at sqn + 33 (it adds 33 after a failure), the 4G
//    UE at sqn + 65 (33 after the failure and 32 before the check), and both then
//    stay in step with the network. Reporting the bare counter would leave the home
//    network's next vector just below the UE's and the UE failing at every attempt.
// The AUTS itself is SQN_MS xor AK* || MAC-S, MAC-S over the resynchronisation AMF
// 0x0000. No AMF separation bit is checked: the UE takes what the network sends.
#pragma once

#include <cstdint>

#include "mvalgo_prim.h"

constexpr int MV_ALGO_AUTH_OK = 0;
constexpr int MV_ALGO_AUTH_F2345_FAILED = -1;
constexpr int MV_ALGO_AUTH_F5STAR_FAILED = -2;
constexpr int MV_ALGO_AUTH_F1_FAILED = -3;
constexpr int MV_ALGO_AUTH_SQN_OUT_OF_RANGE = -4;
constexpr int MV_ALGO_AUTH_F1STAR_FAILED = -5;
constexpr int MV_ALGO_AUTH_MAC_MISMATCH = -6;

// The step of the UE's SQN per authentication, and the offset of SQN_MS in an AUTS.
constexpr uint32_t MV_ALGO_SQN_STEP = 32;
constexpr uint64_t MV_ALGO_SQN_MS_AHEAD = 2 * MV_ALGO_SQN_STEP;
constexpr uint32_t MV_ALGO_SQN_DELTA = 1u << 28;

// Fetches the OpenSSL algorithms and checks them on Milenage test set 1; 0 when the
// library is ready, MV_ALGO_ERR_CRYPTO when OpenSSL lacks something. Call once at
// start, before any other.
int __mv_ogs_init_crypto_fun();

// 5G AKA on the UE: verifies AUTN and, on 0, fills xres_star (16) with RES* and kausf
// (32). On -4 fills auts (14). sqn is the low 32 bits of the UE's SQN, snn the
// serving network name text.
[[nodiscard]] int __mv_algo__ue_authenticate2(const uint8_t* K, const uint8_t* OPc, uint32_t sqn, const char* snn,
                                              const uint8_t* rand, const uint8_t* autn, uint8_t* xres_star,
                                              uint8_t* auts, uint8_t* kausf, int handleSqnSync, uint64_t* sqnAmf);

// KSEAF from KAUSF and the serving network name, KAMF from KSEAF, the SUPI (the text;
// an "imsi-" or "nai-" prefix is dropped) and ABBA 0x0000, then KNASint (16) for
// intAlgo and KNASenc (16) for encAlgo. rand, xres_star and bearer are not inputs of
// these keys and may be null or anything.
[[nodiscard]] int __mv_algo__ue_setup_security_context2(const uint8_t* rand, const uint8_t* xres_star,
                                                        const uint8_t* kausf, const char* snn, const char* supi,
                                                        uint8_t bearer, uint8_t intAlgo, uint8_t encAlgo,
                                                        uint8_t* knasInt, uint8_t* knasEnc);

// The 4-octet NAS MAC with NIA/EIA algo (0 to 3) over len octets. bearer is the
// 5-bit BEARER (the NAS connection identifier: 1 for 3GPP access, 2 for non-3GPP,
// and 0 in EPS), direction 0 uplink, 1 downlink.
[[nodiscard]] int __mv_algo__nas_mac_calculate(uint8_t algo, const uint8_t* key, uint32_t count, uint8_t bearer,
                                               uint8_t direction, const uint8_t* data, uint32_t len, uint8_t* mac);
// Ciphers or deciphers len octets in place with NEA/EEA algo (0 to 3).
[[nodiscard]] int __mv_algo__nas_encrypt(uint8_t algo, const uint8_t* key, uint32_t count, uint8_t bearer,
                                         uint8_t direction, uint8_t* data, uint32_t len);

// EPS AKA on the UE: as the 5G one, with RES (8) in res. plmn (3 octets) is not an
// input of RES; it is taken for symmetry with __mv_algo__lte__gen_kasme.
[[nodiscard]] int __mv_algo__ue_authenticate_lte(const uint8_t* K, const uint8_t* OPc, uint32_t sqn,
                                                 const uint8_t* plmn, const uint8_t* rand, const uint8_t* autn,
                                                 uint8_t* auts, uint8_t* res, int handleSqnSync, uint64_t* sqnAmf);

// KASME (32) from K, OPc, RAND, the SQN xor AK of AUTN and the serving PLMN.
[[nodiscard]] int __mv_algo__lte__gen_kasme(const uint8_t* K, const uint8_t* OPc, const uint8_t* rand,
                                            const uint8_t* autn, const uint8_t* plmn, uint8_t* kasme);

// An EPS NAS key (16) from KASME: type 1 ciphering, 2 integrity; algo the EEA/EIA number.
int ogs_kdf_nas_eps(uint8_t type, uint8_t algo, const uint8_t* kasme, uint8_t* key);
