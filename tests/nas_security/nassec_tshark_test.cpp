// Protected uplink messages as the UE sends them, read by tshark: the security header
// type, the MAC and the sequence number across the wrap of the sequence byte, for every
// pair of algorithms, and under NEA0 the registration request inside.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "Kestrane.h"
#include "nas_testlib.h"
#include "nassec_log.h"
#include "nassec_testlib.h"

using namespace nst;

namespace {

// One line of fields per packet, after wsdecode has found every packet clean.
struct Dissected {
    int rc = -1;
    std::string report;
    std::vector<std::vector<std::string>> rows;  // type, MAC, sequence, message types
};

Dissected dissect(const std::vector<Bytes>& packets, bool nullDecipher) {
    Dissected out;
    std::string dir = kst::makeTempDir("nassec_ws");
    std::string args;
    for (size_t i = 0; i < packets.size(); ++i) {
        std::string f = dir + "/p" + std::to_string(i) + ".hex";
        kst::writeFile(f, hex(packets[i]) + "\n");
        args += " " + f;
    }
    std::string pcap = dir + "/all.pcapng", err = dir + "/err";
    std::string opt = nullDecipher ? " -o nas-5gs.null_decipher:TRUE" : "";
    out.rc = runCommand(std::string("sh ") + KS_WSDECODE + " -q -k " + pcap + opt + " pdu:nas-5gs" + args + " 2>" + err,
                        nullptr);
    out.report = kst::readFile(err);
    std::string text;
    runCommand("tshark -n -r " + pcap + opt +
                   " -T fields -E separator='|' -E occurrence=a -E aggregator=, -e nas_5gs.security_header_type"
                   " -e nas_5gs.msg_auth_code -e nas_5gs.seq_no -e nas_5gs.mm.message_type 2>/dev/null",
               &text);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> row;
        std::istringstream cells(line);
        for (std::string cell; std::getline(cells, cell, '|');) row.push_back(cell);
        row.resize(4);
        out.rows.push_back(row);
    }
    kst::removeTree(dir);
    return out;
}

// A registration request as the UE builds one without a template.
Bytes registrationRequest(MV_KsUE* ue) {
    KsStep step{};
    step.EA0 = step.EA1 = step.EA2 = step.IA0 = step.IA1 = step.IA2 = 1;
    NASPduFGMM_RegistrationRequest msg{};
    msg.b1 = 0x79;  // ngKSI 7, follow-on request, initial registration
    EXPECT_EQ(KsNAS__set_suci_identity(ue, 1, &step, &msg.mFGSMobileIdentity), 1);
    KsNAS__set_ue_security_capability(&step, &msg.mUESecurityCapability);
    __mv_asn_coding_context ctx{};
    EXPECT_EQ(__mv_naspdu_fgmm_encodeRegistrationRequest(&msg, &ctx), 0);
    return Bytes(ctx.buffer, ctx.buffer + ctx.pos);
}

TEST(ProtectedUplinkInTshark, HeaderTypeMacAndSequenceForEveryAlgorithmPair) {
    if (!tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    std::mt19937 rng(41);
    struct Sent {
        Bytes bytes;
        int nea;
        int sht;
        int seq;
    };
    std::vector<Sent> sent;
    for (uint8_t nia = 0; nia <= 3; ++nia)
        for (uint8_t nea = 0; nea <= 3; ++nea) {
            UePtr ue = makeUe();
            Network net = randomNetwork(rng, nia, nea);
            net.ulCount = 254;
            shareContext(ue.get(), 1, net);
            ue->TGPP.is_new_sec_context = 1;
            Bytes plain = registrationRequest(ue.get());
            for (int i = 0; i < 3; ++i) {
                Bytes out;
                ASSERT_EQ(protectUplink(ue.get(), plain, out), 1);
                sent.push_back({out, nea, i == 0 ? 4 : 2, (254 + i) % 256});
            }
        }
    std::vector<Bytes> clear, ciphered;
    for (const Sent& s : sent) (s.nea == 0 ? clear : ciphered).push_back(s.bytes);
    Dissected dc = dissect(clear, true), dx = dissect(ciphered, false);
    ASSERT_EQ(dc.rc, 0) << dc.report;
    ASSERT_EQ(dx.rc, 0) << dx.report;
    ASSERT_EQ(dc.rows.size(), clear.size());
    ASSERT_EQ(dx.rows.size(), ciphered.size());
    size_t ic = 0, ix = 0;
    for (const Sent& s : sent) {
        const std::vector<std::string>& row = s.nea == 0 ? dc.rows[ic++] : dx.rows[ix++];
        char mac[16];
        snprintf(mac, sizeof mac, "0x%02x%02x%02x%02x", s.bytes[2], s.bytes[3], s.bytes[4], s.bytes[5]);
        SCOPED_TRACE(hex(s.bytes).substr(0, 20));
        // Under NEA0 the plain message follows with its own header of type 0.
        EXPECT_EQ(row[0], std::to_string(s.sht) + (s.nea == 0 ? ",0" : ""));
        EXPECT_EQ(row[1], mac);
        EXPECT_EQ(row[2], std::to_string(s.seq));
        EXPECT_EQ(row[3], s.nea == 0 ? "0x41" : "");
    }
}

}  // namespace
