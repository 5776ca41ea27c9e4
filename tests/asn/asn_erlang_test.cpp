// Byte equality with an independent aligned-PER codec: Erlang's asn1 application compiles the same
// modules. It decodes each of our encodings (random ones of every PDU form and the golden set) and
// encodes the value again, and the bytes must agree. It also builds values of its own from the
// type definitions it compiled, at the ends of every size and range: we must decode them, say
// nothing about them, and encode them to its bytes; tshark must read them clean.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <unistd.h>

#include "asn_testlib.h"
#include "mv_core.h"
#include "mv_amf_asn.h"
#include "mv_mme_asn.h"

#ifndef KS_ASN_TEST_DIR
#define KS_ASN_TEST_DIR "."
#endif
#ifndef KS_ASN1_DIR
#define KS_ASN1_DIR "."
#endif

namespace {

// Compiles the modules of one protocol and the helpers with asn1ct into a directory named after
// their checksum, once: tests running at the same time wait on a lock and share it. Returns the
// directory, or "" when compiling fails.
std::string compileSet(const std::string& proto, const std::string& set) {
    std::string sources = std::string(KS_ASN1_DIR) + "/" + proto + "/*.asn " + KS_ASN_TEST_DIR + "/asn_erl_*.erl";
    std::string sum;
    if (runCommand("cat " + sources + " | cksum | cut -d' ' -f1", &sum) != 0 || sum.size() < 2) return "";
    sum.pop_back();
    std::string dir = ::testing::TempDir() + "/erl_" + proto + "_" + sum;
    std::string script = ::testing::TempDir() + "/erl_compile_" + std::to_string(getpid()) + ".sh";
    std::ofstream(script) << "cd " << dir << " && cp " << KS_ASN1_DIR << "/" << proto << "/*.asn . && ls *-*.asn > "
                          << set << ".set.asn && erl -noshell -eval 'case asn1ct:compile(\"" << set
                          << ".set.asn\", [per, {outdir, \".\"}]) of ok -> halt(0); _ -> halt(1) end.'"
                          << " >compile.log 2>&1 && erlc -o . " << KS_ASN_TEST_DIR << "/asn_erl_*.erl && touch done\n";
    int rc = runCommand("mkdir -p " + dir + " && flock " + dir + ".lock sh -c 'test -f " + dir + "/done || sh " +
                            script + "'",
                        nullptr);
    unlink(script.c_str());
    return rc == 0 ? dir : "";
}

void crossCheck(const char* proto, const char* set, const MvAsnPdu* pdus, unsigned count) {
    std::string dir = compileSet(proto, set);
    ASSERT_FALSE(dir.empty()) << "asn1ct could not compile the " << proto << " modules";
    std::string inFile = ::testing::TempDir() + "/erl_recode_" + proto + "_" + std::to_string(getpid()) + ".hex";
    std::vector<std::string> names, ours;
    std::ofstream in(inFile);
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
    ASSERT_EQ(runCommand("erl -noshell -pa " + dir + " -run asn_erl_recode main " + set + " " + set + "-PDU " + inFile,
                         &out),
              0);
    unlink(inFile.c_str());
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

struct ErlValue {
    std::string message, variant, hex;
};

// The values the independent codec builds of every message form. A value its own encoder refused
// is a fault of the builder, and fails the test.
std::vector<ErlValue> erlangValues(const char* proto, const char* set) {
    std::string dir = compileSet(proto, set);
    if (dir.empty()) {
        ADD_FAILURE() << "asn1ct could not compile the " << proto << " modules";
        return {};
    }
    std::string file = ::testing::TempDir() + "/erl_values_" + proto + "_" + std::to_string(getpid()) + ".txt";
    EXPECT_EQ(runCommand("erl -noshell -pa " + dir + " -run asn_erl_gen main " + set + " " + dir + "/" + set +
                             ".asn1db " + file + " 2>&1",
                         nullptr),
              0);
    std::vector<ErlValue> values;
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream f(line);
        ErlValue v;
        f >> v.message >> v.variant >> v.hex;
        if (v.message == "ERR")
            ADD_FAILURE() << proto << ": the independent encoder refused " << line;
        else
            values.push_back(v);
    }
    unlink(file.c_str());
    return values;
}

std::vector<std::string> gLogged;
void keepLine(int, const char* line) { gLogged.push_back(line); }

void boundaryCheck(const char* proto, const char* set, const MvAsnPdu* pdus, unsigned count) {
    std::vector<ErlValue> values = erlangValues(proto, set);
    std::map<std::string, int> perForm;
    int failures = 0;
    __mv_asn_set_log_sink(keepLine, MV_LOG_WARNING);
    for (const ErlValue& v : values) {
        std::vector<uint8_t> bytes = fromHex(v.hex);
        const MvAsnPdu* p = __mv_asn_find_pdu(pdus, count, bytes.data(), bytes.size());
        std::string why;
        gLogged.clear();
        if (!p) {
            why = "no PDU of this form";
        } else if (p->name != v.message) {
            why = std::string("read as ") + p->name;
        } else {
            void* rec = nullptr;
            int r = decodePdu(p, bytes, &rec);
            std::string again = r == 1 ? toHex(encodePdu(p, rec)) : "";
            __mv_asn_memfree_pdu(p, rec);
            if (r != 1)
                why = "does not decode: " + std::to_string(r);
            else if (again != v.hex)
                why = "encodes to " + again;
            else if (!gLogged.empty())
                why = "logged: " + gLogged[0];
        }
        if (why.empty())
            perForm[v.message]++;
        else if (++failures <= 20)
            ADD_FAILURE() << proto << " " << v.message << " " << v.variant << " " << v.hex << "\n" << why;
    }
    __mv_asn_set_log_sink(nullptr, 0);
    EXPECT_EQ(failures, 0) << "of " << values.size() << " values";
    // every form is there (a private message has no IEs to fill), most in many shapes
    for (unsigned i = 0; i < count; i++) {
        if (!(pdus[i].type->flags & MV_ASN_F_PRIVATE)) {
            EXPECT_GE(perForm[pdus[i].name], 1) << pdus[i].name;
        }
    }
    EXPECT_GT(values.size(), size_t(count) * 8);
}

TEST(AsnErlang, IndependentValuesAtEveryBoundDecodeQuietlyAndReencodeUnchanged) {
    if (!haveProgram("erl") || !haveProgram("erlc")) GTEST_SKIP() << "erlang-asn1 is not installed";
    boundaryCheck("ngap", "NGAP", mv_asn_amf::kPdus, mv_asn_amf::kPduCount);
    boundaryCheck("s1ap", "S1AP", mv_asn_mme::kPdus, mv_asn_mme::kPduCount);
}

// IEs whose octets tshark parses as another protocol or judges by their content (a page count, a
// whole PDU of the protocol, a classmark): an empty or patterned value of them is good PER but not
// good content, so tshark is not asked about the values that carry one.
const std::set<std::string> kContentJudged = {
    "id-ENDC-SONConfigurationTransferDL", "id-ENDC-SONConfigurationTransferUL", "id-UERadioCapabilityForPaging",
    "id-NASSecurityParametersFromNGRAN",  "id-NASSecurityParameterstoE-UTRAN",  "id-NASSecurityParametersfromE-UTRAN",
    "id-WarningMessageContents",          "id-NGAP-Message",                    "id-S1-Message",
    "id-MSClassmark2",                    "id-cdma2000SectorID"};

bool carriesContentJudged(const MvAsnPdu* p, const std::vector<uint8_t>& bytes) {
    void* rec = nullptr;
    bool judged = false;
    if (decodePdu(p, bytes, &rec) == 1) {
        for (unsigned i = 0; i < p->type->nAll; i++) {
            const MvAsnIE& ie = p->type->ies[i];
            int isset = 0;
            memcpy(&isset, static_cast<const uint8_t*>(rec) + ie.issetOff, sizeof isset);
            if (isset == 1 && kContentJudged.count(ie.idName)) judged = true;
        }
    }
    __mv_asn_memfree_pdu(p, rec);
    return judged;
}

void tsharkCheck(const char* proto, const char* set, const MvAsnPdu* pdus, unsigned count, const char* wrap) {
    std::vector<ErlValue> values = erlangValues(proto, set);
    std::string base = ::testing::TempDir() + "/erl_tshark_" + proto + "_" + std::to_string(getpid());
    std::ofstream dump(base + ".txt");
    std::vector<std::string> names;
    for (const ErlValue& v : values) {
        std::vector<uint8_t> bytes = fromHex(v.hex);
        const MvAsnPdu* p = __mv_asn_find_pdu(pdus, count, bytes.data(), bytes.size());
        if (!p || carriesContentJudged(p, bytes)) continue;
        dump << "000000";
        for (uint8_t b : bytes) dump << ' ' << "0123456789abcdef"[b >> 4] << "0123456789abcdef"[b & 15];
        dump << "\n";
        names.push_back(v.message + " " + v.variant + " " + v.hex);
    }
    dump.close();
    EXPECT_GT(names.size(), values.size() * 3 / 4) << "most values go to tshark";
    std::string out;
    ASSERT_EQ(runCommand("text2pcap -q -l 101 " + std::string(wrap) + " " + base + ".txt " + base + ".pcapng", nullptr), 0);
    int rc = runCommand(std::string("sh ") + KS_ASN_TEST_DIR + "/wsdecode.sh -q -o " + proto +
                            ".dissect_container:FALSE -D " + kTsharkOpaque + " -r " + base + ".pcapng " + proto + " 2>&1",
                        &out);
    if (rc != 0) ADD_FAILURE() << out << "\n" << namePackets(out, names);
    unlink((base + ".txt").c_str());
    unlink((base + ".pcapng").c_str());
}

TEST(AsnErlang, TsharkReadsTheIndependentValuesClean) {
    if (!haveProgram("erl") || !haveProgram("erlc")) GTEST_SKIP() << "erlang-asn1 is not installed";
    if (!haveProgram("tshark") || !haveProgram("text2pcap")) GTEST_SKIP() << "tshark is not installed";
    tsharkCheck("ngap", "NGAP", mv_asn_amf::kPdus, mv_asn_amf::kPduCount, "-S 40000,38412,60");
    tsharkCheck("s1ap", "S1AP", mv_asn_mme::kPdus, mv_asn_mme::kPduCount, "-S 40000,36412,18");
}

}  // namespace
