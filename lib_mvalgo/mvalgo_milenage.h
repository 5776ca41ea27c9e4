// Milenage for one (K, OPc, RAND): the key schedule and TEMP are computed once and
// each function costs one more block. Internal to the library.
#pragma once

#include <cstdint>

#include "mvalgo_internal.h"

class MV_Milenage {
public:
    MV_Milenage(const uint8_t k[16], const uint8_t opc[16], const uint8_t rand[16]);
    bool ok() const { return ok_; }
    // MAC-A and MAC-S; either pointer may be null.
    [[nodiscard]] bool f1(const uint8_t sqn[6], const uint8_t amf[2], uint8_t macA[8], uint8_t macS[8]);
    // RES and AK; either pointer may be null.
    [[nodiscard]] bool f2f5(uint8_t res[8], uint8_t ak[6]);
    [[nodiscard]] bool f3(uint8_t ck[16]);
    [[nodiscard]] bool f4(uint8_t ik[16]);
    [[nodiscard]] bool f5star(uint8_t akStar[6]);
    // AUTS for SQN_MS: 0, or -2 when f5* failed, -5 when f1* failed.
    [[nodiscard]] static int buildAuts(MV_Milenage& m, uint64_t sqnMs, uint8_t auts[14]);

private:
    mvalgo_detail::AesBlock aes_;
    uint8_t opc_[16];
    uint8_t temp_[16];
    bool ok_ = false;
};
