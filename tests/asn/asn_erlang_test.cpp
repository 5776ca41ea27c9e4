// Byte equality with an independent aligned-PER codec: Erlang's asn1 application compiles the same
// modules; it decodes each of our encodings (random ones of every PDU form and the golden set) and
// encodes the value again, and the bytes must agree.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "asn_testlib.h"
#include "mv_amf_asn.h"
#include "mv_mme_asn.h"

#ifndef KS_ASN_TEST_DIR
#define KS_ASN_TEST_DIR "."
#endif
#ifndef KS_ASN1_DIR
#define KS_ASN1_DIR "."
#endif

namespace {

// Compiles the modules of one protocol with asn1ct into dir; returns false when that fails.
bool compileSet(const std::string& proto, const std::string& set, const std::string& dir) {
    std::string cmd = "mkdir -p " + dir + " && cd " + dir + " && cp " + KS_ASN1_DIR + "/" + proto +
                      "/*.asn . && ls *-*.asn > " + set + ".set.asn && erl -noshell -eval '" +
                      "case asn1ct:compile(\"" + set + ".set.asn\", [per, {outdir, \".\"}]) of ok -> halt(0); _ -> halt(1) end.'" +
                      " >compile.log 2>&1 && erlc -o . " + KS_ASN_TEST_DIR + "/asn_erl_recode.erl";
    return runCommand(cmd, nullptr) == 0;
}

void crossCheck(const char* proto, const char* set, const MvAsnPdu* pdus, unsigned count) {
    std::string dir = ::testing::TempDir() + "/erl_" + proto;
    ASSERT_TRUE(compileSet(proto, set, dir)) << "asn1ct could not compile the " << proto << " modules";
    std::vector<std::string> names, ours;
    std::ofstream in(dir + "/in.hex");
    for (unsigned i = 0; i < count; i++) {
        const MvAsnPdu* p = &pdus[i];
        if (p->type->flags & MV_ASN_F_PRIVATE) continue;
        for (uint32_t k = 0; k < 6; k++) {
            AsnFiller fill(9000 + i * 17 + k);
            fill.allOptional = k % 3 == 1;
            fill.minimal = k % 3 == 2;
            void* rec = fill.pdu(p);
            std::vector<uint8_t> b = encodePdu(p, rec);
            __mv_asn_memfree_pdu(p, rec);
            if (b.empty()) continue;
            in << toHex(b) << "\n";
            names.push_back(p->name);
            ours.push_back(toHex(b));
        }
    }
    // and the golden set, every message of it
    std::ifstream golden(std::string(KS_ASN_TEST_DIR) + "/golden/" + proto + ".hex");
    std::string name, hex;
    size_t goldenCount = 0;
    while (golden >> name >> hex) {
        in << hex << "\n";
        names.push_back("golden " + name);
        ours.push_back(hex);
        goldenCount++;
    }
    EXPECT_GT(goldenCount, 10u);
    in.close();
    std::string out;
    ASSERT_EQ(runCommand("erl -noshell -pa " + dir + " -run asn_erl_recode main " + set + " " + set + "-PDU " + dir +
                             "/in.hex",
                         &out),
              0);
    std::istringstream lines(out);
    std::string line;
    size_t n = 0;
    while (std::getline(lines, line) && n < ours.size()) {
        SCOPED_TRACE(std::string(proto) + " " + names[n] + " " + ours[n]);
        EXPECT_EQ(line, "OK " + ours[n]);
        n++;
    }
    EXPECT_EQ(n, ours.size());
}

TEST(AsnErlang, IndependentCodecReencodesOurBytesUnchanged) {
    if (!haveProgram("erl") || !haveProgram("erlc")) GTEST_SKIP() << "erlang-asn1 is not installed";
    crossCheck("ngap", "NGAP", mv_asn_amf::kPdus, mv_asn_amf::kPduCount);
    crossCheck("s1ap", "S1AP", mv_asn_mme::kPdus, mv_asn_mme::kPduCount);
}

}  // namespace
