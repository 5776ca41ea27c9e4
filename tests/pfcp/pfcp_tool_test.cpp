// kestrane-pdu on PFCP: what a user types, what comes out, and the exit status.
#include "pfcp_testlib.h"

namespace {

using namespace kpf;

struct ToolCase {
    std::string args;
    int status;
    std::string out;  // a piece of standard output and standard error together
};

TEST(PfcpTool, DecodesEncodesAndRecodesTheWayTheNgapCommandsDo) {
    const Sample& est = samples()[15];
    std::string estHex = toHex(sampleBytes(est));
    std::string hbHex = toHex(sampleBytes(samples()[0]));
    std::string jsonFile = ::testing::TempDir() + "/pfcp_est_" + std::to_string(getpid()) + ".json";
    std::ofstream(jsonFile) << est.json << "\n";
    const ToolCase cases[] = {
        {"decode pfcp --json " + hbHex, 0,
         R"({"message":"PFCP Heartbeat Request","type":1,"sequence":101,"ies":{"recovery_time_stamp":3911484801}})"},
        {"decode pfcp " + hbHex, 0, "PFCP Heartbeat Request (1), sequence 101\n  recovery_time_stamp: 3911484801\n"},
        {"decode pfcp " + estHex, 0, "    pdi (PDI)\n      source_interface: 1\n"},
        {"decode pfcp --json 0x" + estHex.substr(0, 8) + " " + estHex.substr(8), 0, "\"seid\":0,"},
        {"encode pfcp -f " + jsonFile, 0, estHex + "\n"},
        {"encode pfcp - < " + jsonFile, 0, estHex + "\n"},
        {"recode pfcp " + estHex, 0, estHex + "\n"},
        {"decode pfcp 2001000c0000650000600004e9228c0", 1, "bad input: odd number of hex digits"},
        {"decode pfcp 2001000d0000650000600004e9228c01", 1, "received invalid pfcp length expected=13 received=12"},
        {"decode pfcp 2001000c0000650000600003e9228c01", 1, "Invalid TLV length 3. It should be 4"},
        {"decode pfcp 2001001200006500" "0fff0002abcd" "00600004e9228c01", 0,
         "1 element(s) with no place in PFCP Heartbeat Request skipped (first of type 4095)"},
        {"encode pfcp '{\"type\":1,\"ies\":{\"cause\":1}}'", 1, "bad input: cause is no field of PFCP Heartbeat Request"},
        {"encode pfcp '{\"type\":99}'", 1, "bad input: no PFCP message"},
        {"encode pfcp '{\"message\":\"PFCP Session Deletion Request\",\"seid\":\"0xffffffffffffffff\",\"sequence\":5}'",
         0, "2136000cffffffffffffffff00000500\n"},
    };
    for (const ToolCase& c : cases) {
        SCOPED_TRACE(c.args);
        std::string out;
        int rc = runCommand(std::string(KS_PDU_TOOL) + " " + c.args + " 2>&1", &out);
        EXPECT_EQ(rc, c.status) << out;
        EXPECT_NE(out.find(c.out), std::string::npos) << out;
    }
    unlink(jsonFile.c_str());
}

}  // namespace
