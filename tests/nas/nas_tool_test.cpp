// kestrane-pdu's NAS commands from the outside.
#include <gtest/gtest.h>

#include "nas_testlib.h"

#ifndef KS_PDU_TOOL
#define KS_PDU_TOOL "kestrane-pdu"
#endif

namespace {

TEST(KestranePduNas, DecodesBothFamiliesAndRefusesBadInput) {
    struct Case {
        std::string args;
        int rc;
        std::string expect;
    };
    const std::string accept = "7e0042 0101 77000bf202f839cafe0112345678 54070002f839000001";
    const Case cases[] = {
        {"decode nas5g " + accept, 0, "mFGGUTI                                  77 f202f839cafe0112345678"},
        {"decode nas5g " + accept, 0, "stopped at IE 54"},
        {"decode nas5g --json 7e03a1b2c3d4007e005d0202 04e0e0c0c0 e1 360102", 0,
         "{\"securityHeader\":{\"type\":3,\"mac\":\"a1b2c3d4\",\"sequenceNumber\":0},\"family\":\"5GMM\","
         "\"message\":\"SecurityModeCommand\""},
        {"decode nas5g --json 7e03a1b2c3d4007e005d0202 04e0e0c0c0 e1 360102", 0,
         "\"mIMEISVRequest\":1,\"mAdditional5GSecurityInformation\":2}}"},
        {"decode nas5g 2e0501c2 11 0000 06060064060032 29050109080706", 0, "PDU session id 5, PTI 1"},
        {"decode nas5g 2e0501c2 11 0000 06060064060032 29050109080706", 0, "mPDUAddress                              29 type 1, address 09080706"},
        {"decode naseps 27cafef00d09 0741020809101010325476980700f0c0400100000005 0201d031d1", 0,
         "security header type 2, MAC cafef00d, sequence number 9"},
        {"decode naseps 0201d9", 0, "ESM ESM_information_request (type 217)"},
        {"decode naseps c7000000", 0, "EPS service request"},
        {"decode nas5g 7e005602 0200", 1, "does not decode (status 3)"},
        {"decode nas5g 41", 1, "41 is not a 5GS NAS message"},
        {"decode naseps 7e0042", 1, "7e is not a EPS NAS message"},
        {"decode nas5g 7e00ff", 1, "a message type the codec does not know"},
        {"recode nas5g 7e0043", 2, "usage"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        std::string out;
        EXPECT_EQ(runCommand(std::string(KS_PDU_TOOL) + " " + c.args + " 2>&1", &out), c.rc);
        EXPECT_NE(out.find(c.expect), std::string::npos) << out;
    }
}

}  // namespace
