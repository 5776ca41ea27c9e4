// With the runtime up, as in the engine, the codec's records come from the size classes and every
// block goes back: decoding and freeing the golden set leaves each class as it found it.
#include <gtest/gtest.h>

#include <fstream>

#include "asn_testlib.h"
#include "mv_alloc.h"
#include "mv_amf_asn.h"
#include "mv_mme_asn.h"

#ifndef KS_ASN_TEST_DIR
#define KS_ASN_TEST_DIR "."
#endif

namespace {

struct Snapshot {
    uint64_t used = 0;
    uint64_t available = 0;
};
Snapshot pools() {
    Snapshot s;
    for (int i = 0; i < MV_MEMORY_POOL_CLASSES; i++) {
        MV_MemoryPoolStats p = __mv_memory_pool_stats(i);
        s.used += p.Used;
        s.available += p.Available;
    }
    return s;
}

TEST(AsnPools, RecordsComeFromTheSizeClassesAndAllGoBack) {
    __init_morva_core();
    struct Family {
        const char* name;
        const MvAsnPdu* pdus;
        unsigned count;
    };
    for (const Family& f : {Family{"ngap", mv_asn_amf::kPdus, mv_asn_amf::kPduCount},
                            Family{"s1ap", mv_asn_mme::kPdus, mv_asn_mme::kPduCount}}) {
        std::ifstream in(std::string(KS_ASN_TEST_DIR) + "/golden/" + f.name + ".hex");
        std::string name, hex;
        int messages = 0;
        Snapshot before = pools();
        while (in >> name >> hex) {
            SCOPED_TRACE(name);
            std::vector<uint8_t> bytes = fromHex(hex);
            const MvAsnPdu* p = __mv_asn_find_pdu(f.pdus, f.count, bytes.data(), bytes.size());
            ASSERT_NE(p, nullptr);
            void* rec = nullptr;
            ASSERT_EQ(decodePdu(p, bytes, &rec), 1);
            EXPECT_GT(__mv_allocM_block_size(rec), 0u) << "the record is a block of a size class";
            EXPECT_EQ(toHex(encodePdu(p, rec)), hex);
            __mv_asn_memfree_pdu(p, rec);
            messages++;
        }
        Snapshot after = pools();
        EXPECT_GT(messages, 10);
        EXPECT_GT(after.used, before.used + uint64_t(messages)) << "more than a block per message";
        EXPECT_EQ(after.available, before.available) << "every block went back";
    }
}

}  // namespace
