// Every PDU form of both families: random in-range values encode, decode to the same values and
// encode again to the same bytes; a PDU one byte short or long is refused.
#include <gtest/gtest.h>

#include "asn_testlib.h"
#include "mv_amf_asn.h"
#include "mv_mme_asn.h"

namespace {

struct Family {
    const char* name;
    const MvAsnPdu* pdus;
    unsigned count;
};
const Family kFamilies[] = {{"ngap", mv_asn_amf::kPdus, mv_asn_amf::kPduCount},
                            {"s1ap", mv_asn_mme::kPdus, mv_asn_mme::kPduCount}};

TEST(AsnRoundTrip, EveryPduFormReencodesToTheSameBytes) {
    for (const Family& f : kFamilies) {
        for (unsigned i = 0; i < f.count; i++) {
            const MvAsnPdu* p = &f.pdus[i];
            SCOPED_TRACE(std::string(f.name) + " " + p->name);
            if (p->type->flags & MV_ASN_F_PRIVATE) {
                // nothing in the record can fill a private container, which needs one IE at least
                AsnFiller fill(1);
                void* rec = fill.pdu(p);
                EXPECT_TRUE(encodePdu(p, rec).empty());
                __mv_asn_memfree_pdu(p, rec);
                continue;
            }
            int encoded = 0;
            for (uint32_t seed = 1; seed <= 40; seed++) {
                AsnFiller fill(seed * 7919 + i);
                fill.allOptional = seed % 4 == 0;
                fill.minimal = seed % 4 == 1;
                void* rec = fill.pdu(p);
                std::vector<uint8_t> a = encodePdu(p, rec);
                std::string sent;
                __mv_asn_json_pdu(p, rec, sent);
                __mv_asn_memfree_pdu(p, rec);
                if (a.empty()) continue;  // larger than the coding buffer
                encoded++;
                void* back = nullptr;
                ASSERT_EQ(decodePdu(p, a, &back), 1) << "seed " << seed << " " << toHex(a);
                std::string received;
                __mv_asn_json_pdu(p, back, received);
                ASSERT_EQ(received, sent) << "seed " << seed << ": the decoded record differs from the one encoded";
                std::vector<uint8_t> b = encodePdu(p, back);
                __mv_asn_memfree_pdu(p, back);
                ASSERT_EQ(toHex(a), toHex(b)) << "seed " << seed;
                for (int delta : {-1, 1}) {
                    std::vector<uint8_t> c = a;
                    if (delta < 0)
                        c.pop_back();
                    else
                        c.push_back(0);
                    void* r = nullptr;
                    EXPECT_EQ(decodePdu(p, c, &r), -1);
                    __mv_asn_memfree_pdu(p, r);
                }
            }
            EXPECT_GT(encoded, 10);
        }
    }
}

TEST(AsnRoundTrip, FamiliesHaveTheStandardsPduCounts) {
    EXPECT_EQ(mv_asn_amf::kPduCount, 79u);
    EXPECT_EQ(mv_asn_mme::kPduCount, 93u);
    EXPECT_EQ(MV_AMF_PDU_COUNT, 79);
    EXPECT_EQ(MV_MME_PDU_COUNT, 93);
}

}  // namespace
