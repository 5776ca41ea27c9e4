// tshark, an independent dissector, reads every PDU form the codec writes with no malformed mark
// and no expert error.
#include <gtest/gtest.h>

#include <fstream>

#include "asn_testlib.h"
#include "mv_amf_asn.h"
#include "mv_mme_asn.h"

#ifndef KS_ASN_TEST_DIR
#define KS_ASN_TEST_DIR "."
#endif

namespace {

void checkFamily(const char* proto, const MvAsnPdu* pdus, unsigned count, uint32_t seedBase) {
    std::string dir = ::testing::TempDir();
    std::string file = dir + "/pdus_" + proto + ".hex";
    std::vector<std::string> names;
    std::string args;
    for (unsigned i = 0; i < count; i++) {
        const MvAsnPdu* p = &pdus[i];
        if (p->type->flags & MV_ASN_F_PRIVATE) continue;
        // its mandatory sector id is a cdma2000 structure the dissector parses; round trips cover it
        if (std::string(p->name) == "UplinkS1cdma2000tunnelling") continue;
        for (uint32_t k = 0; k < 3; k++) {
            AsnFiller fill(seedBase + i * 31 + k);
            fill.allOptional = k == 1;
            fill.minimal = k == 2;
            fill.skipOptional = {"EN-DCSONConfigurationTransfer", "NAS-PDU", "NASSecurityParameterstoE-UTRAN",
                                 "NASSecurityParametersfromE-UTRAN"};
            void* rec = fill.pdu(p);
            std::vector<uint8_t> b = encodePdu(p, rec);
            __mv_asn_memfree_pdu(p, rec);
            if (b.empty()) continue;
            std::string f = dir + "/pdu_" + proto + "_" + std::to_string(names.size()) + ".hex";
            std::ofstream(f) << toHex(b) << "\n";
            args += " " + f;
            names.push_back(std::string(p->name) + " " + toHex(b));
        }
    }
    std::string out;
    std::string cmd = std::string("sh ") + KS_ASN_TEST_DIR + "/wsdecode.sh -q -o ngap.dissect_container:FALSE -o s1ap.dissect_container:FALSE -D " + kTsharkOpaque + " " + proto + args + " 2>&1";
    int rc = runCommand(cmd, &out);
    if (rc != 0) ADD_FAILURE() << out << "\n" << namePackets(out, names);
}

TEST(AsnTshark, EveryPduFormDissectsClean) {
    if (!haveProgram("tshark") || !haveProgram("text2pcap")) GTEST_SKIP() << "tshark is not installed";
    checkFamily("ngap", mv_asn_amf::kPdus, mv_asn_amf::kPduCount, 1000);
    checkFamily("s1ap", mv_asn_mme::kPdus, mv_asn_mme::kPduCount, 5000);
}

}  // namespace
