// The golden set: messages of the UE path, setup, release, mobility and reset of both families,
// written as values in golden/<family>.json. Their encodings are committed (golden/<family>.hex,
// also the fuzzers' seeds), and tshark must show every value of each record, in order, with the
// label and value the record holds.
#include <gtest/gtest.h>
#include <jansson.h>

#include <fstream>
#include <map>
#include <sstream>

#include "asn_testlib.h"
#include "mv_amf_asn.h"
#include "mv_asn_internal.h"
#include "mv_mme_asn.h"

#ifndef KS_ASN_TEST_DIR
#define KS_ASN_TEST_DIR "."
#endif

namespace {

struct Family {
    const char* name;
    const MvAsnPdu* pdus;
    unsigned count;
    const char* nasDissector;
};
const Family kFamilies[] = {{"ngap", mv_asn_amf::kPdus, mv_asn_amf::kPduCount, "nas-5gs"},
                            {"s1ap", mv_asn_mme::kPdus, mv_asn_mme::kPduCount, "nas-eps"}};

struct Golden {
    std::string name;
    const MvAsnPdu* pdu = nullptr;
    void* rec = nullptr;
    std::vector<uint8_t> bytes;
};

std::string goldenPath(const Family& f, const char* ext) {
    return std::string(KS_ASN_TEST_DIR) + "/golden/" + f.name + ext;
}

// Builds every record of a family's golden set and encodes it.
std::vector<Golden> loadGolden(const Family& f) {
    std::vector<Golden> out;
    json_error_t err;
    json_t* doc = json_load_file(goldenPath(f, ".json").c_str(), 0, &err);
    EXPECT_TRUE(json_is_array(doc)) << err.text << " line " << err.line;
    size_t i;
    json_t* el;
    json_array_foreach(doc, i, el) {
        Golden g;
        g.name = json_string_value(json_object_get(el, "name"));
        char* text = json_dumps(json_object_get(el, "pdu"), 0);
        std::string why;
        g.pdu = __mv_asn_pdu_from_json(f.pdus, f.count, text, &g.rec, &why);
        free(text);
        EXPECT_NE(g.pdu, nullptr) << g.name << ": " << why;
        if (g.pdu) g.bytes = encodePdu(g.pdu, g.rec);
        EXPECT_FALSE(g.bytes.empty()) << g.name << " does not encode";
        out.push_back(std::move(g));
    }
    json_decref(doc);
    return out;
}

void freeGolden(std::vector<Golden>& set) {
    for (Golden& g : set)
        if (g.pdu) __mv_asn_memfree_pdu(g.pdu, g.rec);
}

std::map<std::string, std::string> committedHex(const Family& f) {
    std::map<std::string, std::string> m;
    std::ifstream in(goldenPath(f, ".hex"));
    std::string name, hex;
    while (in >> name >> hex) m[name] = hex;
    return m;
}

TEST(AsnGolden, EncodingsAreTheCommittedBytesAndSurviveTheJsonForm) {
    for (const Family& f : kFamilies) {
        std::vector<Golden> set = loadGolden(f);
        std::map<std::string, std::string> hex = committedHex(f);
        EXPECT_EQ(hex.size(), set.size()) << goldenPath(f, ".hex") << " has a line per golden message";
        for (const Golden& g : set) {
            SCOPED_TRACE(std::string(f.name) + " " + g.name);
            if (!g.pdu) continue;
            EXPECT_EQ(toHex(g.bytes), hex[g.name]) << "update the line: " << g.name << " " << toHex(g.bytes);
            // decoded, printed as JSON and read back, the message encodes to the same bytes
            void* back = nullptr;
            ASSERT_EQ(decodePdu(g.pdu, g.bytes, &back), 1);
            std::string json;
            __mv_asn_json_pdu(g.pdu, back, json);
            __mv_asn_memfree_pdu(g.pdu, back);
            void* again = nullptr;
            std::string why;
            ASSERT_EQ(__mv_asn_pdu_from_json(f.pdus, f.count, json.c_str(), &again, &why), g.pdu) << why;
            EXPECT_EQ(toHex(encodePdu(g.pdu, again)), toHex(g.bytes)) << json;
            __mv_asn_memfree_pdu(g.pdu, again);
        }
        freeGolden(set);
    }
}

// ---------------------------------------------------------------- what tshark must show

std::string hexOf(const uint8_t* d, uint32_t n) { return toHex(std::vector<uint8_t>(d, d + n)); }

using mv_asn_detail::at;
using mv_asn_detail::itemByPtr;
using mv_asn_detail::ld;
using mv_asn_detail::valueType;

// The lines tshark's tree shows for a value, in order: "label: value" for leaves, the bare label
// for a SEQUENCE, the alternative for a CHOICE, the item count for a SEQUENCE OF. Dissected
// OCTET STRING (CONTAINING X) values are followed into X.
void expectedLines(const MvAsnType* t, const void* slot, const std::string& label, std::vector<std::string>& out) {
    switch (t->kind) {
        case MV_ASN_K_INT:
            out.push_back(label + ": " + std::to_string(ld<unsigned long long>(slot)));
            return;
        case MV_ASN_K_ENUM: {
            unsigned v = ld<uint8_t>(slot);
            out.push_back(label + ": " + t->names[v] + " (" + std::to_string(v) + ")");
            return;
        }
        case MV_ASN_K_SINGLE:
            if (t->item) expectedLines(t->item, slot, t->item->name, out);
            return;
        case MV_ASN_K_BOOL:
        case MV_ASN_K_NULL:
        case MV_ASN_K_EXTC:
            return;
        default:
            break;
    }
    const void* rec = ld<const void*>(slot);
    if (!rec) return;
    switch (t->kind) {
        case MV_ASN_K_OCTSTR: {
            const uint8_t* d = ld<const uint8_t*>(rec);
            uint32_t n = ld<uint32_t>(at(rec, 8));
            if (std::string(t->name) == "TAC") {
                // shown as a number with its hex form
                unsigned long v = 0;
                for (uint32_t i = 0; i < n; i++) v = v << 8 | d[i];
                out.push_back(label + ": " + std::to_string(v) + " (0x" + hexOf(d, n) + ")");
                return;
            }
            out.push_back(label + ": " + hexOf(d, n < 24 ? n : 24));
            if (t->item) {
                // the dissector opens the contained value
                void* inner = nullptr;
                __mv_asn_coding_context c;
                int isset = 0;
                if (__mv_asn_init_decode(&c, d, n) == 1 && __mv_asn_decode_type(t->item, &inner, &isset, 1, &c) == 1) {
                    expectedLines(t->item, &inner, t->item->name, out);
                    __mv_asn_free_type(t->item, &inner);
                } else {
                    ADD_FAILURE() << label << ": the contained " << t->item->name << " does not decode";
                }
            }
            return;
        }
        case MV_ASN_K_PRTSTR:
            out.push_back(label + ": " +
                          std::string(reinterpret_cast<const char*>(ld<const uint8_t*>(rec)), ld<uint32_t>(at(rec, 8))));
            return;
        case MV_ASN_K_BITSTR: {
            const uint8_t* d = ld<const uint8_t*>(rec);
            uint32_t n = ld<uint32_t>(at(rec, 8));
            int bits = ld<int>(at(rec, 12));
            std::string type = t->name;
            if (type == "CellIdentity" || type == "NRCellIdentity" || type == "EUTRACellIdentity") {
                // cell identities are shown as the number the bits make
                unsigned long long v = 0;
                for (uint32_t i = 0; i < n; i++) v = v << 8 | d[i];
                char b[40];
                snprintf(b, sizeof b, "0x%0*llx", int(n * 2), v >> (n * 8 - uint32_t(bits)));
                out.push_back(label + ": " + b);
                return;
            }
            out.push_back(label + ": " + hexOf(d, n) + " [bit length " + std::to_string(bits));
            return;
        }
        case MV_ASN_K_SEQ:
            out.push_back(label);
            for (unsigned i = 0; i < t->nAll; i++) {
                const MvAsnMember& m = t->members[i];
                if (m.type->kind == MV_ASN_K_EXTC) continue;
                if (m.presOff >= 0 && ld<int>(at(rec, uint32_t(m.presOff))) != 1) continue;
                expectedLines(m.type, at(rec, m.off), m.name, out);
            }
            return;
        case MV_ASN_K_SEQOF: {
            auto* list = ld<__mv_asn_list*>(rec);
            uint32_t n = list ? list->Count : 0;
            out.push_back(label + ": " + std::to_string(n) + (n == 1 ? " item" : " items"));
            bool byPtr = itemByPtr(t);
            const MvAsnType* shown = valueType(t->item);
            for (auto* it = list ? list->Head : nullptr; it; it = it->Next)
                expectedLines(t->item, byPtr ? static_cast<const void*>(&it->data) : it->data, shown->name, out);
            return;
        }
        case MV_ASN_K_CHOICE: {
            unsigned sel = ld<uint8_t>(rec);
            const MvAsnMember& m = t->members[sel];
            out.push_back(label + ": " + m.name + " (" + std::to_string(sel) + ")");
            expectedLines(m.type, at(rec, m.off), m.name, out);
            return;
        }
        case MV_ASN_K_MSG:
            for (unsigned i = 0; i < t->nAll; i++) {
                const MvAsnIE& ie = t->ies[i];
                if (ld<int>(at(rec, ie.issetOff)) != 1) continue;
                expectedLines(ie.type, at(rec, ie.off), valueType(ie.type)->name, out);
            }
            return;
        default:
            return;
    }
}

// tshark's text tree, one list of trimmed lines per frame.
std::vector<std::vector<std::string>> frames(const std::string& text) {
    std::vector<std::vector<std::string>> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("Frame ", 0) == 0) out.emplace_back();
        if (out.empty()) continue;
        size_t s = line.find_first_not_of(' ');
        if (s != std::string::npos) out.back().push_back(line.substr(s));
    }
    return out;
}

TEST(AsnGolden, TsharkShowsEveryValueOfTheRecord) {
    if (!haveProgram("tshark") || !haveProgram("text2pcap")) GTEST_SKIP() << "tshark is not installed";
    for (const Family& f : kFamilies) {
        std::vector<Golden> set = loadGolden(f);
        std::string args;
        for (size_t i = 0; i < set.size(); i++) {
            std::string file = ::testing::TempDir() + "/golden_" + f.name + "_" + std::to_string(i) + ".hex";
            std::ofstream(file) << toHex(set[i].bytes) << "\n";
            args += " " + file;
        }
        // NAS and RRC containers are other codecs' bytes: they are compared as octets here
        std::string cmd = std::string("sh ") + KS_ASN_TEST_DIR + "/wsdecode.sh -D " + f.nasDissector + " -o " + f.name +
                          ".dissect_container:FALSE " + f.name + args + " 2>&1";
        std::string out;
        EXPECT_EQ(runCommand(cmd, &out), 0) << out;
        auto tree = frames(out);
        ASSERT_EQ(tree.size(), set.size()) << out;
        for (size_t i = 0; i < set.size(); i++) {
            SCOPED_TRACE(std::string(f.name) + " " + set[i].name);
            std::vector<std::string> want;
            expectedLines(set[i].pdu->type, &set[i].rec, "", want);
            EXPECT_GE(want.size(), 2u);
            size_t pos = 0;
            for (const std::string& w : want) {
                while (pos < tree[i].size() && tree[i][pos].rfind(w, 0) != 0) pos++;
                if (pos == tree[i].size()) {
                    std::string shown;
                    for (const auto& l : tree[i]) shown += l + "\n";
                    ADD_FAILURE() << "tshark does not show, at its place: \"" << w << "\"\n" << shown;
                    break;
                }
                pos++;
            }
        }
        freeGolden(set);
    }
}

}  // namespace
