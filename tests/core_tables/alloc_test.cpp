// The size classes, the memory statistics lines, random numbers and UUIDs.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ks_test_util.h"
#include "mv_alloc.h"
#include "tables_env.h"

namespace {

int slotOfSize(uint32_t size) {
    for (int i = 0; i < MV_MEMORY_POOL_CLASSES; ++i)
        if (kMvSizeClasses[i].size == size) return i;
    return -1;
}

TEST(Allocator, PicksFirstClassStrictlyLarger) {
    struct Case {
        size_t request;
        uint32_t block;  // 0: refused
    };
    const Case cases[] = {{0, 21},          {20, 21},           {21, 50},           {49, 50},
                          {50, 100},        {99, 100},          {100, 200},         {1000, 2100},
                          {94999, 95000},   {95000, 102400},    {9437183, 9437184}, {9437184, 0},
                          {9437185, 0},     {size_t(1) << 33, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.request);
        void* p = __mv_allocM(c.request);
        if (c.block == 0) {
            EXPECT_EQ(p, nullptr);
            continue;
        }
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(__mv_allocM_block_size(p), c.block);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
        memset(p, 0xAB, c.request);
        __mv_freeM(p);
    }
    void* keep = reinterpret_cast<void*>(0x1);
    __mv_allocMX(9437184, &keep);
    EXPECT_EQ(keep, reinterpret_cast<void*>(0x1)) << "__mv_allocMX leaves the out pointer alone on refusal";
    __mv_allocMV2(9437184, &keep);
    EXPECT_EQ(keep, nullptr);
    __mv_freeM(nullptr);
}

TEST(Allocator, DoubleFreeChangesNothingButReturned) {
    int slot = slotOfSize(300);
    MV_MemoryPoolStats before = __mv_memory_pool_stats(slot);
    void* p = __mv_allocM(250);
    __mv_freeM(p);
    __mv_freeM(p);
    MV_MemoryPoolStats after = __mv_memory_pool_stats(slot);
    EXPECT_EQ(after.Available, before.Available);
    EXPECT_EQ(after.Used, before.Used + 1);
    EXPECT_EQ(after.Returned, before.Returned + 2);
    // A freed block is reused last: the next two allocations are other blocks.
    void* a = __mv_allocM(250);
    void* b = __mv_allocM(250);
    EXPECT_NE(a, p);
    EXPECT_NE(b, p);
    __mv_freeM(a);
    __mv_freeM(b);
}

TEST(Allocator, GrowsByIncrementWhenEmpty) {
    int slot = slotOfSize(95000);
    MV_MemoryPoolStats s0 = __mv_memory_pool_stats(slot);
    std::vector<void*> held;
    for (uint32_t i = 0; i < s0.Available + 1; ++i) held.push_back(__mv_allocM(94000));
    MV_MemoryPoolStats s1 = __mv_memory_pool_stats(slot);
    EXPECT_EQ(s1.MemoryReservedCount, s0.MemoryReservedCount + 1);
    EXPECT_EQ(s1.TotalPoolSize, s0.TotalPoolSize + 1);
    EXPECT_EQ(s1.Available, 0u);
    for (void* p : held) ASSERT_NE(p, nullptr);
    std::set<void*> distinct(held.begin(), held.end());
    EXPECT_EQ(distinct.size(), held.size());
    for (void* p : held) __mv_freeM(p);
    EXPECT_EQ(__mv_memory_pool_stats(slot).Available, s1.TotalPoolSize);
}

TEST(Allocator, GrowMovesAtTheClassSize) {
    auto* p = static_cast<char*>(__mv_allocM(40));  // the 50 class
    strcpy(p, "kept across a move");
    EXPECT_EQ(__mv_allocR(p, 49), p) << "below the class size stays";
    char* q = static_cast<char*>(__mv_allocR(p, 50));
    EXPECT_NE(q, p);
    EXPECT_STREQ(q, "kept across a move");
    EXPECT_EQ(__mv_allocM_block_size(q), 100u);
    __mv_freeM(q);
}

TEST(Allocator, TwoThreadsKeepCountsRight) {
    int slot = slotOfSize(1000);
    MV_MemoryPoolStats s0 = __mv_memory_pool_stats(slot);
    auto work = [] {
        std::vector<void*> held;
        for (int i = 0; i < 20000; ++i) {
            held.push_back(__mv_allocM(600));
            if (held.size() == 16) {
                for (void* p : held) __mv_freeM(p);
                held.clear();
            }
        }
        for (void* p : held) __mv_freeM(p);
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    MV_MemoryPoolStats s1 = __mv_memory_pool_stats(slot);
    EXPECT_EQ(s1.Available, s1.TotalPoolSize);
    EXPECT_EQ(s1.Used - s0.Used, 40000u);
}

TEST(Allocator, ABlockHasRoomPastItsRequest) {
    // Text copies write their terminator one past the length they ask for.
    for (int len : {0, 20, 21, 49, 50, 99}) {
        SCOPED_TRACE(len);
        auto* d = static_cast<char*>(__mv_allocM(size_t(len)));
        ASSERT_NE(d, nullptr);
        EXPECT_GT(__mv_allocM_block_size(d), uint32_t(len));
        d[len] = 0;
        __mv_freeM(d);
    }
}

TEST(Allocator, MemoryStatsLinesWhenEnabled) {
    __mv_core_disable_perf_log();
    __mv_log_buffer_memory_stats();
    std::string per = kst::readLogDir(kst_tables::root() + "/logs//per");
    EXPECT_EQ(per.find("StreamPoolCount"), std::string::npos);

    __mv_core_enable_perf_log();
    __mv_log_buffer_memory_stats();
    __mv_core_disable_perf_log();
    per = kst::readLogDir(kst_tables::root() + "/logs//per");
    EXPECT_NE(per.find("size=        50  Available="), std::string::npos) << per.substr(0, 400);
    EXPECT_NE(per.find("size=        21  Available="), std::string::npos);
    EXPECT_NE(per.find("|40\n"), std::string::npos);
    EXPECT_NE(per.find("Core: StreamPoolCount=   500  StreamPoolAvailableCount="), std::string::npos);
    EXPECT_NE(per.find("Core: ActivityTotalPoolCount="), std::string::npos);
    EXPECT_NE(per.find(std::string(167, '-') + "\n"), std::string::npos);
}

TEST(Random, RangesIncludeBothEnds) {
    std::set<int> seen;
    for (int i = 0; i < 2000; ++i) {
        uint8_t v = __mv_core_getU8RANDRange(3, 5);
        ASSERT_GE(v, 3);
        ASSERT_LE(v, 5);
        seen.insert(v);
    }
    EXPECT_EQ(seen.size(), 3u);
    EXPECT_EQ(__mv_core_getU16RANDRange(7, 7), 7);
    EXPECT_EQ(__mv_core_getU32RANDRange(9, 2), 9u) << "an inverted range gives min";
    for (int i = 0; i < 100; ++i) {
        EXPECT_GE(__mv_core_getU64RANDRange(0, UINT64_MAX), 100000000u);
        uint32_t v = __mv_core_getU32RANDRange(0, UINT32_MAX);
        (void)v;
    }
}

TEST(Uuid, VersionFourFormAndUnique) {
    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        char u[37];
        __mv_generate_uuid4(u);
        std::string s(u);
        ASSERT_EQ(s.size(), 36u);
        for (int k : {8, 13, 18, 23}) EXPECT_EQ(s[size_t(k)], '-');
        EXPECT_EQ(s[14], '4');
        EXPECT_NE(std::string("89ab").find(s[19]), std::string::npos) << s;
        for (char c : s) EXPECT_TRUE(c == '-' || isdigit(c) || (c >= 'a' && c <= 'f')) << s;
        seen.insert(s);
    }
    EXPECT_EQ(seen.size(), 2000u);
}

}  // namespace
