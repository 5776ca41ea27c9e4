// kestrane-pdu from the outside: decode, JSON, recode, encode from JSON, input from a file and
// standard input, and clear refusals of bad input.
#include <gtest/gtest.h>

#include <fstream>

#include "asn_testlib.h"

#ifndef KS_PDU_TOOL
#define KS_PDU_TOOL "kestrane-pdu"
#endif

namespace {

const std::string kTool = KS_PDU_TOOL;
// DownlinkNASTransport: RAN-UE-NGAP-ID 1 and a one-octet NAS-PDU
const std::string kDownlink = "0004400f00000200550002000100260002017e";
const std::string kDownlinkJson = R"({"pdu":"DownlinkNASTransport","ies":{"id-RAN-UE-NGAP-ID":1,"id-NAS-PDU":"7e"}})";

TEST(KestranePdu, DecodesRecodesAndRefuses) {
    struct Case {
        std::string args;
        int rc;
        std::string expect;
    };
    std::string file = ::testing::TempDir() + "/pdu.hex";
    std::ofstream(file) << "0x" << kDownlink.substr(0, 10) << " " << kDownlink.substr(10) << "\n";
    std::string jsonFile = ::testing::TempDir() + "/pdu.json";
    std::ofstream(jsonFile) << kDownlinkJson << "\n";
    const Case cases[] = {
        {"decode ngap " + kDownlink, 0, "BEGIN DEBUG - DownlinkNASTransport"},
        {"decode ngap " + kDownlink, 0, "[NAS-PDU] 0x7E, len=1 STRING key=id-NAS-PDU"},
        {"decode ngap --json " + kDownlink, 0, "\"id-RAN-UE-NGAP-ID\":1,\"id-NAS-PDU\":\"7e\""},
        {"recode ngap -f " + file, 0, kDownlink},
        {"recode ngap - < " + file, 0, kDownlink},
        {"decode ngap 00zz", 1, "not a hex digit"},
        {"decode ngap 000", 1, "odd number of hex digits"},
        {"decode s1ap 00ff4001", 1, "no message of form 0 with procedure code 255"},
        {"decode ngap " + kDownlink.substr(0, kDownlink.size() - 2), 1, "does not decode"},
        {"decode x2ap " + kDownlink, 2, "usage"},
        {"encode ngap '" + kDownlinkJson + "'", 0, kDownlink},
        {"encode ngap - < " + jsonFile, 0, kDownlink},
        {"encode ngap '{\"pdu\":\"DownlinkNASTransport\",\"ies\":{\"id-NAS-PDU\":\"7g\"}}'", 1,
         "bad input: id-NAS-PDU: expected hex octets"},
        {"encode ngap '{\"pdu\":\"NoSuchMessage\",\"ies\":{}}'", 1, "no PDU named NoSuchMessage"},
        {"encode ngap '{\"pdu\":\"DownlinkNASTransport\",\"ies\":{\"id-RAN-UE-NGAP-ID\":4294967296}}'", 1,
         "DownlinkNASTransport does not encode"},
        {"encode s1ap '{\"pdu\":'", 1, "not JSON"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        std::string out;
        EXPECT_EQ(runCommand(kTool + " " + c.args + " 2>&1", &out), c.rc);
        EXPECT_NE(out.find(c.expect), std::string::npos) << out;
    }
}

// Inputs built by hand that tshark reads as well-formed: an IE whose value is an empty OCTET STRING
// (mandatory or not, NGAP and S1AP), and a BIT STRING of SIZE(16, ...) with 17 bits. Each comes
// back unchanged, with nothing on standard error.
TEST(KestranePdu, ValidEdgeValuesRecodeUnchangedAndQuietly) {
    const std::pair<const char*, const char*> cases[] = {
        {"ngap", "00044014000003000a000200010055000200010026000100"},      // NAS-PDU empty
        {"ngap", "002f400e0000020059000100002e000201ab"},                  // RoutingID empty
        {"ngap", "200c0019000004000a00020001005500020001001d000100006a000100"},  // container empty
        {"s1ap", "000b4014000003000000020001000800020001001a000100"},      // NAS-PDU empty
        {"s1ap", "002d401900000400000002000100080002000100940001000093000100"},  // LPPa-PDU empty
        {"ngap", "0028001e000003000a000200010055000200010077000b2011000000000000000000"},
    };
    for (const auto& [proto, hex] : cases) {
        SCOPED_TRACE(hex);
        std::string out;
        EXPECT_EQ(runCommand(kTool + " recode " + proto + " " + hex + " 2>&1", &out), 0);
        EXPECT_EQ(out, std::string(hex) + "\n");
    }
}

}  // namespace
