// With the runtime up, as in the engine: a decoded PDU takes its records from its own region and
// no block of the size classes, and freeing it gives every chunk back, whichever thread frees it
// and however many chunks it took. Records built by hand still come from the size classes.
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "asn_testlib.h"
#include "mv_alloc.h"
#include "mv_amf_asn.h"
#include "mv_mme_asn.h"

#ifndef KS_ASN_TEST_DIR
#define KS_ASN_TEST_DIR "."
#endif

namespace {

using namespace mv_asn_amf;

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

// Chunks held by regions; right whenever no other thread keeps chunks in its cache.
int64_t chunksInUse() {
    MvAsnRegionStats s = __mv_asn_region_stats();
    return int64_t(s.carved) - int64_t(s.shared) - int64_t(s.cachedHere);
}

class AsnPools : public ::testing::Test {
protected:
    static void SetUpTestSuite() { __init_morva_core(); }
};

TEST_F(AsnPools, DecodedPdusTakeNoBlockOfTheSizeClassesAndGiveEveryChunkBack) {
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
        int64_t chunks = chunksInUse();
        while (in >> name >> hex) {
            SCOPED_TRACE(name);
            std::vector<uint8_t> bytes = fromHex(hex);
            const MvAsnPdu* p = __mv_asn_find_pdu(f.pdus, f.count, bytes.data(), bytes.size());
            ASSERT_NE(p, nullptr);
            void* rec = nullptr;
            ASSERT_EQ(decodePdu(p, bytes, &rec), 1);
            EXPECT_EQ(toHex(encodePdu(p, rec)), hex);
            EXPECT_GT(chunksInUse(), chunks);
            __mv_asn_memfree_pdu(p, rec);
            EXPECT_EQ(chunksInUse(), chunks);
            messages++;
        }
        EXPECT_GT(messages, 10);
        Snapshot after = pools();
        EXPECT_EQ(after.used, before.used) << "no block of a size class";
        EXPECT_EQ(after.available, before.available);
    }
}

TEST_F(AsnPools, RecordsBuiltByHandComeFromTheSizeClassesAndGoBack) {
    Snapshot before = pools();
    int64_t chunks = chunksInUse();
    AsnFiller fill(7);
    fill.allOptional = true;
    const MvAsnPdu* p = &kPdus[0];
    void* rec = fill.pdu(p);
    EXPECT_GT(pools().used, before.used);
    EXPECT_FALSE(encodePdu(p, rec).empty());
    __mv_asn_memfree_pdu(p, rec);
    EXPECT_EQ(pools().available, before.available) << "every member went back";
    EXPECT_EQ(chunksInUse(), chunks);
}

// An NG Setup request with 256 tracking areas decodes into records of several chunks; it is freed
// on another thread, as a handler that hands a message to a UE's line does, and every chunk of it
// is back once that thread has ended.
TEST_F(AsnPools, ALargePduFreedOnAnotherThreadGivesAllItsChunksBack) {
    const MvAsnPdu* setup = nullptr;
    for (unsigned i = 0; i < kPduCount; i++)
        if (std::string(kPdus[i].name) == "NGSetupRequest") setup = &kPdus[i];
    ASSERT_NE(setup, nullptr);
    AsnFiller fill(3);
    fill.minimal = true;
    auto* m = static_cast<__mv_amf_dt_NGSetupRequest*>(fill.pdu(setup));
    for (int i = 1; i < 256; i++) {
        void* item = nullptr;
        fill.fill(&T_SupportedTAItem, &item);
        __mv_asn_list* list = m->supportedTAList->SupportedTAItem;
        ASSERT_EQ(__mv_asn_list_add(&list, item), 1);
        m->supportedTAList->SupportedTAItem = list;
    }
    std::vector<uint8_t> bytes = encodePdu(setup, m);
    __mv_amf_memfree_pdu_NGSetupRequest(m);
    ASSERT_FALSE(bytes.empty());

    int64_t chunks = chunksInUse();
    void* rec = nullptr;
    ASSERT_EQ(decodePdu(setup, bytes, &rec), 1);
    EXPECT_GT(chunksInUse(), chunks + 2) << "the records span several chunks";
    auto* got = static_cast<__mv_amf_dt_NGSetupRequest*>(rec);
    EXPECT_EQ(__mv_asn_GetSIListCount(got->supportedTAList->SupportedTAItem), 256);
    EXPECT_EQ(toHex(encodePdu(setup, rec)), toHex(bytes));
    std::thread([&] { __mv_asn_memfree_pdu(setup, rec); }).join();
    EXPECT_EQ(chunksInUse(), chunks);
}

// A NAS-PDU longer than a chunk's payload cannot be bumped out of the region: it takes a block of a
// size class, and the PDU's free still gives back that block and every chunk.
TEST_F(AsnPools, AStringLongerThanAChunkComesFromTheSizeClassesAndGoesBack) {
    for (size_t len : {size_t(100), size_t(__mv_asn_region_stats().chunkSize) + 1, size_t(4000)}) {
        SCOPED_TRACE(len);
        __mv_amf_dt_DownlinkNASTransport* m = nullptr;
        __mv_amf_init_DownlinkNASTransport(&m);
        m->aMFUENGAPID = 1;
        m->aMFUENGAPID_isset = 1;
        m->rANUENGAPID = 2;
        m->rANUENGAPID_isset = 1;
        std::vector<uint8_t> nas(len, 0x7e);
        __mv_amf_dt_NAS_PDU* pdu = nullptr;
        ASSERT_EQ(__mv_amf_init_NAS_PDU2(&pdu, nas.data(), uint32_t(nas.size())), 1);
        m->nASPDU = pdu;
        m->nASPDU_isset = 1;
        const MvAsnPdu* p = nullptr;
        for (unsigned i = 0; i < kPduCount; i++)
            if (std::string(kPdus[i].name) == "DownlinkNASTransport") p = &kPdus[i];
        ASSERT_NE(p, nullptr);
        std::vector<uint8_t> bytes = encodePdu(p, m);
        ASSERT_FALSE(bytes.empty());
        __mv_amf_memfree_pdu_DownlinkNASTransport(m);

        Snapshot before = pools();
        int64_t chunks = chunksInUse();
        void* rec = nullptr;
        ASSERT_EQ(decodePdu(p, bytes, &rec), 1);
        auto* got = static_cast<__mv_amf_dt_DownlinkNASTransport*>(rec);
        ASSERT_EQ(got->nASPDU_isset, 1);
        EXPECT_EQ(std::vector<uint8_t>(got->nASPDU->data, got->nASPDU->data + got->nASPDU->length), nas);
        EXPECT_EQ(pools().used - before.used, len > __mv_asn_region_stats().chunkSize ? 1u : 0u);
        __mv_asn_memfree_pdu(p, rec);
        EXPECT_EQ(pools().available, before.available) << "the block went back";
        EXPECT_EQ(chunksInUse(), chunks);
    }
}

}  // namespace
