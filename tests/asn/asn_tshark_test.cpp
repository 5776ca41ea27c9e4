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

// Sub-dissectors of octet strings that hold other protocols: random contents are not theirs to judge.
const char* kOpaque = "nas-5gs,nas-eps,nr-rrc,lte-rrc,rrc,ranap,x2ap,xnap,nrppa,lppa,bssgp,gcsna,gsm_a_rr,gsm_a_dtap,gsm_a_bssmap,gsm_a_common";

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
    std::string cmd = std::string("sh ") + KS_ASN_TEST_DIR + "/wsdecode.sh -q -o ngap.dissect_container:FALSE -o s1ap.dissect_container:FALSE -D " + kOpaque + " " + proto + args + " 2>&1";
    int rc = runCommand(cmd, &out);
    if (rc != 0) {
        // name the packets tshark did not accept
        std::string report;
        size_t p = out.find("packet(s): ");
        if (p != std::string::npos) {
            size_t e = out.find(" (", p);
            std::string list = out.substr(p + 11, e - p - 11);
            size_t s = 0;
            while (s < list.size()) {
                size_t q = list.find(' ', s);
                if (q == std::string::npos) q = list.size();
                std::string num = list.substr(s, q - s);
                if (!num.empty() && isdigit(static_cast<unsigned char>(num[0])))
                    report += names[size_t(std::stoi(num) - 1)] + "\n";
                s = q + 1;
            }
        }
        ADD_FAILURE() << out << "\n" << report;
    }
}

TEST(AsnTshark, EveryPduFormDissectsClean) {
    if (!haveProgram("tshark") || !haveProgram("text2pcap")) GTEST_SKIP() << "tshark is not installed";
    checkFamily("ngap", mv_asn_amf::kPdus, mv_asn_amf::kPduCount, 1000);
    checkFamily("s1ap", mv_asn_mme::kPdus, mv_asn_mme::kPduCount, 5000);
}

}  // namespace
