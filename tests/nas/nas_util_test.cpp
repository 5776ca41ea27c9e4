// Mobile identities and PLMN octets of the NAS utilities.
#include <gtest/gtest.h>

#include "mv_nas_util.h"
#include "nas_testlib.h"

namespace {

TEST(NasUtil, ImeiAndImeisvDigitsAndBack) {
    __naspdu_fgs_mobile_identity ie{};
    char digits[32];
    ASSERT_EQ(__mv_nas_util_encode_fg_imei(&ie, "490154203237518", 15), 1);
    EXPECT_EQ(toHex({ie.data, ie.data + ie.Length}), "4b09512430325781");  // odd count: bit 3 set
    EXPECT_EQ(__mv_nas_util_decode_fg_imei(&ie, digits, sizeof digits), 15);
    EXPECT_STREQ(digits, "490154203237518");
    ASSERT_EQ(__mv_nas_util_encode_fg_imeisv(&ie, "4901542032375181", 16), 1);
    EXPECT_EQ(toHex({ie.data, ie.data + ie.Length}), "4509512430325781f1");  // even: clear, 0xF at the end
    EXPECT_EQ(__mv_nas_util_decode_fg_imeisv(&ie, digits, sizeof digits), 16);
    EXPECT_STREQ(digits, "4901542032375181");
    EXPECT_EQ(__mv_nas_util_decode_fg_imeisv(&ie, digits, 5), 4);  // bounded by the caller's room
    EXPECT_STREQ(digits, "4901");
    EXPECT_EQ(__mv_nas_util_encode_fg_imei(&ie, "49015x", 6), -1);
    EXPECT_EQ(__mv_nas_util_encode_fg_imei(&ie, "", 0), -1);
}

TEST(NasUtil, GutiSTmsiAndSuciOctets) {
    const uint8_t guti[10] = {0x02, 0xf8, 0x39, 0xca, 0xfe, 0x01, 0x12, 0x34, 0x56, 0x78};
    __naspdu_fgs_mobile_identity ie{};
    ASSERT_EQ(__mv_nas_util_encode_fg_guti(&ie, guti, 10), 1);
    EXPECT_EQ(ie.Length, 11);
    EXPECT_EQ(toHex({ie.data, ie.data + ie.Length}), "f202f839cafe0112345678");
    ASSERT_EQ(__mv_nas_util_encode_fg_s_tmsi(&ie, guti + 4, 6), 1);
    EXPECT_EQ(toHex({ie.data, ie.data + ie.Length}), "f4fe0112345678");
    ASSERT_EQ(__mv_nas_util_encode_fg_suci(&ie, guti, 10), 1);
    EXPECT_EQ(ie.Length, 10);
    EXPECT_EQ(__mv_nas_util_encode_fg_guti(&ie, guti, 255), -1);
    EXPECT_EQ(__mv_nas_util_encode_fg_suci(&ie, guti, 256), -1);
}

TEST(NasUtil, PlmnOctetsBothWays) {
    struct Case {
        uint16_t mcc, mnc;
        int len;
        const char* hex;
        const char* mccText;
        const char* mncText;
    } cases[] = {{208, 93, 2, "02f839", "208", "93"},
                 {1, 1, 2, "00f110", "001", "01"},
                 {310, 260, 3, "130062", "310", "260"},
                 {405, 854, 3, "044558", "405", "854"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.hex);
        uint8_t p[3];
        ASSERT_EQ(__mv_nas_util__mccmnc_to_plmn(p, c.mcc, c.mnc, c.len), 1);
        EXPECT_EQ(toHex({p, p + 3}), c.hex);
        char mcc[4], mnc[4];
        EXPECT_EQ(__mv_nas_util__plmn_to_mccmnc(p, mcc, mnc), c.len);
        EXPECT_STREQ(mcc, c.mccText);
        EXPECT_STREQ(mnc, c.mncText);
        uint16_t a, b;
        EXPECT_EQ(__mv_nas_util__plmn_to_mccmnc2(p, &a, &b), c.len);
        EXPECT_EQ(a, c.mcc);
        EXPECT_EQ(b, c.mnc);
    }
    uint8_t p[3];
    EXPECT_EQ(__mv_nas_util__mccmnc_to_plmn(p, 1000, 1, 2), -1);
    EXPECT_EQ(__mv_nas_util__mccmnc_to_plmn(p, 1, 100, 2), -1);
    EXPECT_EQ(__mv_nas_util__mccmnc_to_plmn(p, 1, 1, 4), -1);
}

}  // namespace
