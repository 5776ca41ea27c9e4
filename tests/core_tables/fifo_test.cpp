// The one free list every record pool of the process uses: the order records come back
// in, a second release, growth, and the hooks that run under the pool's lock.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "mv_fifo.h"

namespace {

struct Rec {
    Rec* Next;
    Rec* PoolNext;
    uint32_t isReleased;
    int value;
};

struct Pool {
    Rec* head = nullptr;
    Rec* tail = nullptr;
    MV_Mutex lock;
    int total = 0, available = 0;
    mv_fifo::CoreFifo<Rec> fifo() { return {head, tail, lock, total, available}; }
};

TEST(FreeList, ReleasedRecordsComeBackLastAndASecondReleaseDoesNothing) {
    Pool p;
    p.fifo().add(3, 1);
    EXPECT_EQ(p.total, 3);
    EXPECT_EQ(p.available, 3);
    Rec* a = p.fifo().allocate(0);
    Rec* b = p.fifo().allocate(0);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->isReleased, 0u);
    EXPECT_EQ(p.available, 1);
    EXPECT_TRUE(p.fifo().release(a));
    EXPECT_FALSE(p.fifo().release(a)) << "a second release";
    EXPECT_EQ(p.available, 2);
    Rec* c = p.fifo().allocate(0);
    EXPECT_NE(c, a) << "the record never used comes before the one just released";
    EXPECT_EQ(p.fifo().allocate(0), a);
    EXPECT_EQ(p.fifo().allocate(0), nullptr) << "no growth asked for";
    EXPECT_EQ(p.available, 0);
    EXPECT_NE(p.fifo().allocate(4), nullptr) << "grows by 4 when empty";
    EXPECT_EQ(p.total, 7);
    EXPECT_EQ(p.available, 3);
}

TEST(FreeList, HooksRunUnderTheLockOnlyWhenARecordMoves) {
    Pool p;
    p.fifo().add(1, 1);
    int takes = 0, gives = 0;
    Rec* r = p.fifo().allocate(0, [&](Rec* x) {
        ++takes;
        x->value = 7;
    });
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->value, 7);
    EXPECT_EQ(p.fifo().allocate(0, [&](Rec*) { ++takes; }), nullptr);
    EXPECT_EQ(takes, 1) << "nothing taken, no hook";
    auto give = [&](Rec* x) {
        ++gives;
        x->value = 0;
    };
    EXPECT_TRUE(p.fifo().release(r, give));
    EXPECT_FALSE(p.fifo().release(r, give));
    EXPECT_EQ(gives, 1);
    EXPECT_EQ(r->value, 0);
}

TEST(FreeList, AnotherLinkMemberAndRecordsOfTwoThreads) {
    Rec* head = nullptr;
    Rec* tail = nullptr;
    MV_Mutex lock;
    std::atomic<uint32_t> total{0}, available{0};
    mv_fifo::CoreFifo<Rec, std::atomic<uint32_t>, &Rec::PoolNext> f{head, tail, lock, total, available};
    f.add(10, 1);
    std::vector<std::thread> ts;
    for (int t = 0; t < 2; ++t)
        ts.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                Rec* r = f.allocate(10);
                ASSERT_NE(r, nullptr);
                f.release(r);
            }
        });
    for (auto& t : ts) t.join();
    EXPECT_EQ(available.load(), total.load()) << "every record back";
    size_t n = 0;
    for (Rec* r = head; r; r = r->PoolNext) ++n;
    EXPECT_EQ(n, total.load()) << "the list holds each record once";
}

}  // namespace
