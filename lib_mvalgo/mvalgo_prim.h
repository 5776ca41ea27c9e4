// The building blocks of libmvalgo, over byte views: Milenage, the key derivation
// function and the key chains built on it, the NAS ciphering and integrity
// algorithms, and SUCI concealment. mvalgo.h builds the engine-facing operations
// from these. 128-EEAn/128-EIAn and 128-NEAn/128-NIAn are the same algorithms; the
// functions carry the 5G names.
//
// Every operation is reentrant and keeps its state on the caller's stack; they
// return 0 on success, MV_ALGO_ERR_ARG for a bad argument and MV_ALGO_ERR_CRYPTO
// when OpenSSL fails, unless said otherwise.
//
// Bit strings follow the 3GPP convention: bit 0 is the most significant bit of the
// first byte. Lengths given in bits may be any value, including 0 and values that
// are not a multiple of 8; the bits of the last byte beyond the length are neither
// read nor changed.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

constexpr int MV_ALGO_ERR_ARG = -EINVAL;
constexpr int MV_ALGO_ERR_CRYPTO = -EIO;
constexpr int MV_ALGO_ERR_MAC = -EBADMSG;  // a received MAC or tag does not verify

// ---------------------------------------------------------------- Milenage

// OPc = E_K(OP) xor OP.
[[nodiscard]] int __mv_algo__milenage_opc(std::span<const uint8_t, 16> k, std::span<const uint8_t, 16> op,
                                          std::span<uint8_t, 16> opc);
// f1 (MAC-A) and f1* (MAC-S) over SQN and AMF; either output may be empty.
[[nodiscard]] int __mv_algo__milenage_f1(std::span<const uint8_t, 16> k, std::span<const uint8_t, 16> opc,
                                         std::span<const uint8_t, 16> rand, std::span<const uint8_t, 6> sqn,
                                         std::span<const uint8_t, 2> amf, std::span<uint8_t> macA,
                                         std::span<uint8_t> macS);
// f2 (RES), f3 (CK), f4 (IK), f5 (AK), f5* (AK for resynchronisation): res 8, ck 16,
// ik 16, ak 6, akStar 6 octets. An empty output is not computed, so a caller asks
// only for what it needs; another size is MV_ALGO_ERR_ARG.
[[nodiscard]] int __mv_algo__milenage_f2345(std::span<const uint8_t, 16> k, std::span<const uint8_t, 16> opc,
                                            std::span<const uint8_t, 16> rand, std::span<uint8_t> res,
                                            std::span<uint8_t> ck, std::span<uint8_t> ik, std::span<uint8_t> ak,
                                            std::span<uint8_t> akStar);

// Home-network side of one authentication vector: AUTN = SQN xor AK || AMF || MAC-A,
// with XRES, CK and IK. Used by tests, benchmarks and network emulations.
struct MV_AlgoVector {
    uint8_t autn[16];
    uint8_t xres[8];
    uint8_t ck[16];
    uint8_t ik[16];
    uint8_t ak[6];
};
[[nodiscard]] int __mv_algo__milenage_generate(std::span<const uint8_t, 16> k, std::span<const uint8_t, 16> opc,
                                               std::span<const uint8_t, 16> rand, uint64_t sqn,
                                               std::span<const uint8_t, 2> amf, MV_AlgoVector& out);

// AUTS = SQN_MS xor AK* || MAC-S, MAC-S over the dummy AMF 0x0000.
[[nodiscard]] int __mv_algo__auts_build(std::span<const uint8_t, 16> k, std::span<const uint8_t, 16> opc,
                                        std::span<const uint8_t, 16> rand, uint64_t sqnMs,
                                        std::span<uint8_t, 14> auts);
// Home-network side: recovers SQN_MS from an AUTS; MV_ALGO_ERR_MAC when MAC-S fails.
[[nodiscard]] int __mv_algo__auts_recover(std::span<const uint8_t, 16> k, std::span<const uint8_t, 16> opc,
                                          std::span<const uint8_t, 16> rand, std::span<const uint8_t, 14> auts,
                                          uint64_t& sqnMs);

// ---------------------------------------------------------------- key derivation

// The generic KDF: HMAC-SHA-256(key, FC || P0 || L0 || P1 || L1 ...), Li two octets.
// At most 8 parameters of at most 65535 octets each.
[[nodiscard]] int __mv_algo__kdf(std::span<const uint8_t> key, uint8_t fc,
                                 std::span<const std::span<const uint8_t>> params, std::span<uint8_t, 32> out);

// 5G AKA chain. snn is the serving network name text, supi the SUPI without its
// "imsi-"/"nai-" prefix (the IMSI digits, or the NAI), abba two octets (0x0000 by
// default).
[[nodiscard]] int __mv_algo__kausf(std::span<const uint8_t, 16> ck, std::span<const uint8_t, 16> ik,
                                   std::string_view snn, std::span<const uint8_t, 6> sqnXorAk,
                                   std::span<uint8_t, 32> kausf);
[[nodiscard]] int __mv_algo__res_star(std::span<const uint8_t, 16> ck, std::span<const uint8_t, 16> ik,
                                      std::string_view snn, std::span<const uint8_t, 16> rand,
                                      std::span<const uint8_t> res, std::span<uint8_t, 16> resStar);
// HRES* / HXRES*: the 128 low bits of SHA-256(RAND || RES*).
[[nodiscard]] int __mv_algo__hxres_star(std::span<const uint8_t, 16> rand, std::span<const uint8_t, 16> resStar,
                                        std::span<uint8_t, 16> hxresStar);
[[nodiscard]] int __mv_algo__kseaf(std::span<const uint8_t, 32> kausf, std::string_view snn,
                                   std::span<uint8_t, 32> kseaf);
[[nodiscard]] int __mv_algo__kamf(std::span<const uint8_t, 32> kseaf, std::string_view supi,
                                  std::span<const uint8_t, 2> abba, std::span<uint8_t, 32> kamf);

// Algorithm keys: type 1 NAS ciphering, 2 NAS integrity (3 to 6 the RRC and UP keys
// for the 5G chain); the 128 low bits of the KDF output.
constexpr uint8_t MV_ALGO_KEY_NAS_ENC = 1;
constexpr uint8_t MV_ALGO_KEY_NAS_INT = 2;
[[nodiscard]] int __mv_algo__knas_5g(std::span<const uint8_t, 32> kamf, uint8_t type, uint8_t algo,
                                     std::span<uint8_t, 16> key);

// EPS chain: plmn is the 3-octet PLMN identity of the serving network.
[[nodiscard]] int __mv_algo__kasme(std::span<const uint8_t, 16> ck, std::span<const uint8_t, 16> ik,
                                   std::span<const uint8_t, 3> plmn, std::span<const uint8_t, 6> sqnXorAk,
                                   std::span<uint8_t, 32> kasme);
[[nodiscard]] int __mv_algo__knas_eps(std::span<const uint8_t, 32> kasme, uint8_t type, uint8_t algo,
                                      std::span<uint8_t, 16> key);

// ---------------------------------------------------------------- NAS ciphering and integrity

// Ciphers (or deciphers: it is the same) the first `bits` bits of data in place.
// bearer is 5 bits, direction 1 bit (0 uplink, 1 downlink).
[[nodiscard]] int __mv_algo__nea1(std::span<const uint8_t, 16> key, uint32_t count, uint8_t bearer, uint8_t direction,
                                  std::span<uint8_t> data, size_t bits);
[[nodiscard]] int __mv_algo__nea2(std::span<const uint8_t, 16> key, uint32_t count, uint8_t bearer, uint8_t direction,
                                  std::span<uint8_t> data, size_t bits);
[[nodiscard]] int __mv_algo__nea3(std::span<const uint8_t, 16> key, uint32_t count, uint8_t bearer, uint8_t direction,
                                  std::span<uint8_t> data, size_t bits);
// The 32-bit MAC over the first `bits` bits of data.
[[nodiscard]] int __mv_algo__nia1(std::span<const uint8_t, 16> key, uint32_t count, uint8_t bearer, uint8_t direction,
                                  std::span<const uint8_t> data, size_t bits, std::span<uint8_t, 4> mac);
[[nodiscard]] int __mv_algo__nia2(std::span<const uint8_t, 16> key, uint32_t count, uint8_t bearer, uint8_t direction,
                                  std::span<const uint8_t> data, size_t bits, std::span<uint8_t, 4> mac);
[[nodiscard]] int __mv_algo__nia3(std::span<const uint8_t, 16> key, uint32_t count, uint8_t bearer, uint8_t direction,
                                  std::span<const uint8_t> data, size_t bits, std::span<uint8_t, 4> mac);
// By algorithm number 0 to 3; 0 leaves the data as it is and gives a MAC of zeros.
[[nodiscard]] int __mv_algo__nea(uint8_t algo, std::span<const uint8_t, 16> key, uint32_t count, uint8_t bearer,
                                 uint8_t direction, std::span<uint8_t> data, size_t bits);
[[nodiscard]] int __mv_algo__nia(uint8_t algo, std::span<const uint8_t, 16> key, uint32_t count, uint8_t bearer,
                                 uint8_t direction, std::span<const uint8_t> data, size_t bits,
                                 std::span<uint8_t, 4> mac);

// ---------------------------------------------------------------- SUCI

// Protection schemes: 0 null, 1 profile A (X25519), 2 profile B (P-256).
constexpr uint8_t MV_ALGO_SUCI_NULL = 0;
constexpr uint8_t MV_ALGO_SUCI_PROFILE_A = 1;
constexpr uint8_t MV_ALGO_SUCI_PROFILE_B = 2;
// Scheme output of the ECIES profiles: ephemeral public key (32 raw octets for A, a
// 33-octet compressed point for B) || ciphertext || 8-octet MAC tag.
constexpr size_t MV_ALGO_SUCI_OVERHEAD_A = 32 + 8;
constexpr size_t MV_ALGO_SUCI_OVERHEAD_B = 33 + 8;

// Conceals the scheme input (the MSIN in BCD, or a NAI username) under the home
// network public key: 32 raw octets for A; for B a compressed (33) or uncompressed
// (65) point. ephPrivate, 32 octets, fixes the ephemeral key (for known-answer
// tests); empty draws a fresh one. Returns the length of the scheme output, or
// MV_ALGO_ERR_ARG for an unknown scheme, a bad key or an output too small.
[[nodiscard]] int __mv_algo__suci_conceal(uint8_t scheme, std::span<const uint8_t> hnPublicKey,
                                          std::span<const uint8_t> schemeInput, std::span<const uint8_t> ephPrivate,
                                          std::span<uint8_t> out);
// Home-network side: recovers the scheme input with the 32-octet private key. Returns
// its length, MV_ALGO_ERR_MAC when the tag fails, MV_ALGO_ERR_ARG for malformed input.
[[nodiscard]] int __mv_algo__suci_deconceal(uint8_t scheme, std::span<const uint8_t> hnPrivateKey,
                                            std::span<const uint8_t> schemeOutput, std::span<uint8_t> out);
// The public key of a home network private key, in the form conceal takes (B:
// compressed). Returns its length.
[[nodiscard]] int __mv_algo__suci_public_key(uint8_t scheme, std::span<const uint8_t> hnPrivateKey,
                                             std::span<uint8_t> out);
