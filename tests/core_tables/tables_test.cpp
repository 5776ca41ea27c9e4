// Index tables, power tables, record pools, linked lists and counters.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ks_test_util.h"
#include "mv_alloc.h"
#include "mv_pool.h"
#include "mv_tables.h"

namespace {

// ---------------------------------------------------------------- index table

TEST(IndexTable, StaleIdIsRefusedAfterReuse) {
    MV_IndexTable* t = __mv_IndexTable_create(100, 2);
    ASSERT_NE(t, nullptr);
    int a = 1, b = 2;
    uint32_t id0 = __mv_IndexTable_allocateRowId(t, &a);
    uint32_t id1 = __mv_IndexTable_allocateRowId(t, &b);
    EXPECT_EQ(id0, 100u);
    EXPECT_EQ(id1, 101u);
    EXPECT_EQ(__mv_IndexTable_allocateRowId(t, &a), 0u) << "no free row";
    EXPECT_EQ(__mv_IndexTable_getRow(t), nullptr);

    EXPECT_EQ(__mv_IndexTable_FreeRow(t, id0), 1);
    EXPECT_EQ(__mv_IndexTable_FreeRow(t, id0), 0) << "a second free of one id does nothing";
    EXPECT_EQ(__mv_IndexTable_FindRow(t, 100), nullptr);
    MV_IndexRow* row0 = __mv_IndexTable_FindRow(t, 102);
    ASSERT_NE(row0, nullptr);
    EXPECT_EQ(__mv_indexRow_getObject(row0), nullptr) << "a free row holds no object";

    uint32_t again = __mv_IndexTable_allocateRowId(t, &b);
    EXPECT_EQ(again, 102u);
    EXPECT_EQ(__mv_IndexTable_FindObject1(t, 100), nullptr);
    EXPECT_EQ(__mv_IndexTable_FindObject1(t, 102), &b);
    EXPECT_EQ(__mv_IndexTable_FindObject1(t, 101), &b);
    EXPECT_EQ(__mv_IndexTable_FindObject1(t, 99), nullptr) << "below the base";
    for (uint32_t id : {again, id1}) EXPECT_EQ(__mv_IndexTable_FindRow(t, id), t->table[(id - 100) % 2]);
    // An id freed once cannot free the row's next holder.
    EXPECT_EQ(__mv_IndexTable_FreeRow(t, id0), 0);
    EXPECT_EQ(__mv_IndexTable_FindObject1(t, again), &b);
}

TEST(IndexTable, FreedRowComesBackLast) {
    MV_IndexTable* t = __mv_IndexTable_create(1, 3);
    MV_IndexRow* r[3];
    for (auto& x : r) x = __mv_IndexTable_getRow(t);
    __mv_IndexTable_putRow(r[1]);
    __mv_IndexTable_putRow(r[0]);
    __mv_IndexTable_putRow(r[0]);  // a second put changes nothing
    uint32_t total = 0, avail = 0;
    __mv_IndexTable_get_pool_availability(t, &total, &avail, nullptr);
    EXPECT_EQ(total, 3u);
    EXPECT_EQ(avail, 2u);
    EXPECT_EQ(__mv_IndexTable_getRow(t), r[1]);
    EXPECT_EQ(__mv_IndexTable_getRow(t), r[0]);
    EXPECT_EQ(__mv_indexRow_getId(r[0]), 1u + 3u) << "moved on once, not twice";
    EXPECT_EQ(__mv_IndexTable_getRow(t), nullptr);
}

TEST(IndexTable, IdReturnsToFirstUseAtTheBound) {
    // Base 10, 2 rows, bound 13: row 0 runs 10, 12, then back to 10.
    MV_IndexTable* t = __mv_IndexTable_create2(10, 2, 13);
    MV_IndexRow* a = __mv_IndexTable_getRow(t);
    MV_IndexRow* b = __mv_IndexTable_getRow(t);
    const uint32_t expect[] = {12, 10, 12, 10};
    for (uint32_t want : expect) {
        __mv_IndexTable_putRow(a);
        EXPECT_EQ(__mv_indexRow_getId(a), want);
        ASSERT_EQ(__mv_IndexTable_getRow(t), a);
    }
    __mv_IndexTable_putRow(b);
    EXPECT_EQ(__mv_indexRow_getId(b), 13u);
    ASSERT_EQ(__mv_IndexTable_getRow(t), b);
    __mv_IndexTable_putRow(b);
    EXPECT_EQ(__mv_indexRow_getId(b), 11u);
}

std::atomic<int> gRowFires{0};
std::atomic<int> gRowFiresOnLine{0};
void rowTimerHandler(void* data) {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    if (std::string(name) == "mv-q-exec") ++gRowFiresOnLine;
    if (data) ++gRowFires;
}

TEST(IndexTable, RowTimerFiresOnceOnQueueLineAndNotAfterClear) {
    MV_IndexTable* t = __mv_IndexTable_create(5000, 4);
    MV_IndexRow* armed = __mv_IndexTable_getRow(t);
    MV_IndexRow* cleared = __mv_IndexTable_getRow(t);
    MV_IndexRow* put = __mv_IndexTable_getRow(t);
    gRowFires = 0;
    gRowFiresOnLine = 0;
    EXPECT_EQ(__mv_indexRow_setTimer(armed, rowTimerHandler, 0), 0) << "no delay, no timer";
    ASSERT_EQ(__mv_indexRow_setTimer(armed, rowTimerHandler, 1), 1);
    ASSERT_EQ(__mv_indexRow_setTimer(cleared, rowTimerHandler, 1), 1);
    ASSERT_EQ(__mv_indexRow_setTimer(put, rowTimerHandler, 1), 1);
    __mv_indexRow_clearTimer(cleared);
    __mv_IndexTable_putRow(put);  // a row given back takes its timer with it
    EXPECT_EQ(__mv_indexRow_getTimerHandler(armed), rowTimerHandler);

    EXPECT_TRUE(kst::waitFor([] { return gRowFires.load() >= 1; }, 4.0));
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_EQ(gRowFires.load(), 1);
    EXPECT_EQ(gRowFiresOnLine.load(), 1);
    // The fired record went back to the pool: clearing through the row must not
    // touch whoever holds that record now.
    MV_Timer* other = __mv_core_start_timer(&gRowFires, rowTimerHandler, 2);
    __mv_indexRow_clearTimer(armed);
    EXPECT_EQ(other->isCleared.load(), 0u);
    __mv_core_clear_timer(other);
}

TEST(IndexTable, ConcurrentLookupsNeverSeeAnotherHoldersObject) {
    constexpr uint32_t kRows = 64;
    MV_IndexTable* t = __mv_IndexTable_create(1000, kRows);
    std::atomic<bool> stop{false};
    std::atomic<long> wrong{0};
    // Each holder stores its own id as the object; a lookup by id must see that id or nothing.
    auto worker = [&] {
        std::vector<uint32_t> held;
        for (int i = 0; i < 20000; ++i) {
            MV_IndexRow* r = __mv_IndexTable_getRow(t);
            if (r) {
                uint32_t id = __mv_indexRow_getId(r);
                __mv_indexRow_setObject(r, reinterpret_cast<void*>(uintptr_t(id)));
                held.push_back(id);
            }
            if (held.size() > 8 || (!r && !held.empty())) {
                __mv_IndexTable_FreeRow(t, held.front());
                held.erase(held.begin());
            }
        }
        for (uint32_t id : held) __mv_IndexTable_FreeRow(t, id);
    };
    auto reader = [&] {
        while (!stop) {
            for (uint32_t id = 1000; id < 1000 + kRows * 40; ++id) {
                void* o = __mv_IndexTable_FindObject1(t, id);
                if (o && uintptr_t(o) != id) ++wrong;
            }
        }
    };
    std::thread r1(reader);
    std::thread w1(worker), w2(worker);
    w1.join();
    w2.join();
    stop = true;
    r1.join();
    EXPECT_EQ(wrong.load(), 0);
    uint32_t avail = 0;
    __mv_IndexTable_get_pool_availability(t, nullptr, &avail, nullptr);
    EXPECT_EQ(avail, kRows);
}

// ---------------------------------------------------------------- power table

int* val(int v) {
    auto* p = static_cast<int*>(__mv_allocM(sizeof(int)));
    *p = v;
    return p;
}

void* find(MV_PowerTable* pt, const std::string& k) {
    void* out = reinterpret_cast<void*>(1);
    __mv_power_table_fnd(pt, k.data(), int(k.size()), &out);
    return out;
}

TEST(PowerTable, FindsExactlyWhatWasAdded) {
    MV_PowerTable* pt = __mv_power_table_create();
    std::map<std::string, int> added = {{"123", 1}, {"124", 2}, {"12", 3}, {"1234", 4}, {std::string("\0\1", 2), 5},
                                        {"001010000000001", 6}, {std::string(1, char(255)) + "x", 7}};
    std::map<std::string, void*> data;
    for (auto& [k, v] : added) {
        data[k] = val(v);
        ASSERT_EQ(__mv_power_table_add(pt, k.data(), int(k.size()), data[k]), 1);
    }
    EXPECT_EQ(__mv_power_table_get_item_count(pt), int(added.size()));
    for (auto& [k, v] : added) {
        SCOPED_TRACE(k);
        EXPECT_EQ(find(pt, k), data[k]);
    }
    for (std::string absent : {"1", "125", "12345", "0", "00101000000000", "0010100000000011", "x"}) {
        SCOPED_TRACE(absent);
        EXPECT_EQ(find(pt, absent), nullptr);
    }
    // Refused arguments change nothing.
    EXPECT_EQ(__mv_power_table_add(pt, "9", 0, data["12"]), 0);
    EXPECT_EQ(__mv_power_table_add(pt, "9", 1, nullptr), 0);
    EXPECT_EQ(find(pt, "9"), nullptr);
    // Overwriting keeps the count.
    int other = 0;
    EXPECT_EQ(__mv_power_table_add(pt, "123", 3, &other), 1);
    EXPECT_EQ(find(pt, "123"), &other);
    EXPECT_EQ(__mv_power_table_get_item_count(pt), int(added.size()));
    __mv_power_table_add(pt, "123", 3, data["123"]);
    __mv_power_table_release_all(pt);
    EXPECT_EQ(__mv_power_table_get_item_count(pt), 0);
    EXPECT_EQ(pt->KeyElementsCount, 0);
    __mv_power_table_destroy(pt);
}

TEST(PowerTable, DeleteLeavesPathAndRebuildReclaimsIt) {
    MV_PowerTable* pt = __mv_power_table_create();
    int a = 1, b = 2;
    __mv_power_table_add(pt, "123", 3, &a);
    __mv_power_table_add(pt, "124", 3, &b);
    EXPECT_EQ(pt->KeyElementsCount, 4) << "the two keys share two nodes";
    EXPECT_EQ(__mv_power_table_del(pt, "123", 3), 1);
    EXPECT_EQ(__mv_power_table_del(pt, "123", 3), 0);
    EXPECT_EQ(find(pt, "123"), nullptr);
    EXPECT_EQ(pt->DataItemCount, 1);
    EXPECT_EQ(pt->DeletedCount, 1);
    EXPECT_EQ(pt->KeyElementsCount, 4) << "a deleted key's path stays";
    __mv_power_table_rebuild(pt);
    EXPECT_EQ(find(pt, "124"), &b);
    EXPECT_EQ(find(pt, "123"), nullptr);
    EXPECT_EQ(pt->KeyElementsCount, 3);
    EXPECT_EQ(pt->DeletedCount, 0);
    __mv_power_table_destroy(pt);
}

TEST(PowerTable, EmptyFindLeavesRoot) {
    MV_PowerTable* pt = __mv_power_table_create();
    EXPECT_EQ(find(pt, "1"), nullptr);
    EXPECT_NE(pt->Root, nullptr);
    EXPECT_EQ(pt->Root->Key, 255);
    __mv_power_table_destroy(pt);
}

TEST(PowerTable, U64KeysAreTwentyLevels) {
    MV_PowerTable* pt = __mv_power_table_create();
    const uint64_t keys[] = {0, 1, 10, 42, 4294967296ULL, UINT64_MAX};
    int vals[6];
    for (int i = 0; i < 6; ++i) ASSERT_EQ(__mv_power_table_add_lk(pt, keys[i], &vals[i]), 1);
    for (int i = 0; i < 6; ++i) {
        void* out = nullptr;
        EXPECT_EQ(__mv_power_table_fnd_lk(pt, keys[i], &out), 1);
        EXPECT_EQ(out, &vals[i]);
    }
    void* out = &vals[0];
    EXPECT_EQ(__mv_power_table_fnd_lk(pt, 43, &out), 0);
    EXPECT_EQ(out, nullptr);
    // "1" and "10" differ only by the digit against a zero byte.
    EXPECT_EQ(__mv_power_table_del_lk(pt, 1), 1);
    EXPECT_EQ(__mv_power_table_fnd_lk(pt, 10, &out), 1);
    EXPECT_EQ(__mv_power_table_fnd_lk(pt, 1, &out), 0);
    __mv_power_table_destroy(pt);
}

std::vector<void*> iterate(MV_PowerTable* pt) {
    std::vector<void*> out;
    for (MV_PowerTableItem* it = __mv_power_table_get_pending_ptr(pt, nullptr); it;
         it = __mv_power_table_get_pending_ptr(pt, it))
        out.push_back(__mv_power_table_get_ptr_dataitem(it));
    return out;
}

TEST(PowerTable, IteratesInCreationOrderAndSurvivesRebuildAndSwap) {
    MV_PowerTable* pt = __mv_power_table_create();
    std::vector<std::string> keys;
    // Five digits each, so that no key ends on a node an earlier key made.
    for (int i = 0; i < 2000; ++i) {
        char k[8];
        snprintf(k, sizeof k, "%05d", (i * 7919) % 100000);
        keys.push_back(k);
    }
    std::vector<int> vals(keys.size());
    for (size_t i = 0; i < keys.size(); ++i) __mv_power_table_add(pt, keys[i].data(), int(keys[i].size()), &vals[i]);
    EXPECT_EQ(find(pt, "0791"), nullptr) << "a prefix alone is not a key";
    std::vector<void*> order = iterate(pt);
    ASSERT_EQ(order.size(), keys.size());
    for (size_t i = 0; i < keys.size(); ++i) EXPECT_EQ(order[i], &vals[i]) << i;

    std::set<size_t> gone;
    for (size_t i = 0; i < keys.size(); i += 3) {
        __mv_power_table_del(pt, keys[i].data(), int(keys[i].size()));
        gone.insert(i);
    }
    __mv_power_table_rebuild(pt);
    for (size_t i = 0; i < keys.size(); ++i) {
        SCOPED_TRACE(keys[i]);
        EXPECT_EQ(find(pt, keys[i]), gone.count(i) ? nullptr : &vals[i]);
    }
    std::vector<void*> after = iterate(pt);
    std::vector<void*> want;
    for (size_t i = 0; i < keys.size(); ++i)
        if (!gone.count(i)) want.push_back(&vals[i]);
    EXPECT_EQ(after, want) << "a rebuild keeps the order";

    MV_PowerTable* other = __mv_power_table_create();
    int x = 9;
    __mv_power_table_add(other, "x", 1, &x);
    __mv_power_table_swap(pt, other);
    EXPECT_EQ(find(pt, "x"), &x);
    EXPECT_EQ(find(pt, keys[1]), nullptr);
    EXPECT_EQ(find(other, keys[1]), &vals[1]);
    EXPECT_EQ(__mv_power_table_get_item_count(other), int(want.size()));
    __mv_power_table_destroy(other);
    __mv_power_table_destroy(pt);
}

TEST(PowerTable, ConcurrentAddAndFind) {
    MV_PowerTable* pt = __mv_power_table_create();
    std::vector<int> vals(4000);
    auto adder = [&](int from) {
        for (int i = from; i < from + 2000; ++i) {
            std::string k = std::to_string(1000000 + i);
            __mv_power_table_add(pt, k.data(), int(k.size()), &vals[size_t(i)]);
        }
    };
    std::thread a(adder, 0), b(adder, 2000);
    a.join();
    b.join();
    EXPECT_EQ(__mv_power_table_get_item_count(pt), 4000);
    for (int i = 0; i < 4000; i += 97) EXPECT_EQ(find(pt, std::to_string(1000000 + i)), &vals[size_t(i)]);
    __mv_power_table_destroy(pt);
}

// ---------------------------------------------------------------- record pool

TEST(Pool, ReleaseOfReleasedItemChangesNothing) {
    mv_morva_pool_t* p = __mv_pool_create("t", 24, 3, 0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(__mv_pool_create("t", 0, 3, 0), nullptr);
    EXPECT_EQ(__mv_pool_create("t", 8, 0, 0), nullptr);
    void* a = __mv_pool_allocate(p);
    void* b = __mv_pool_allocate(p);
    void* c = __mv_pool_allocate(p);
    EXPECT_EQ(__mv_pool_allocate(p), nullptr) << "exhausted without Extend";
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 16, 0u);
    __mv_pool_release(b);
    __mv_pool_release(b);
    __mv_pool_release(a);
    uint32_t total, avail;
    uint64_t used;
    __mv_pool_get_availability(p, &total, &avail, &used);
    EXPECT_EQ(avail, 2u);
    EXPECT_EQ(total, 3u);
    EXPECT_EQ(__mv_pool_allocate(p), b) << "first released, first reused";
    EXPECT_EQ(__mv_pool_allocate(p), a);
    EXPECT_EQ(__mv_pool_index(c), 2u);
    EXPECT_EQ(__mv_pool_fsm_index(c, 2), 0u);
    ASSERT_EQ(__mv_pool_create_index(p), 1);
    for (void* x : {a, b, c}) EXPECT_EQ(__mv_pool__find(p, __mv_pool_index(x)), x);
    EXPECT_EQ(__mv_pool__find(p, 3), nullptr);
}

TEST(Pool, ExtendAddsFiveHundredTwelve) {
    mv_morva_pool_t* p = __mv_pool_create("ext", 100, 2, 1);
    for (int i = 0; i < 3; ++i) ASSERT_NE(__mv_pool_allocate(p), nullptr);
    uint32_t total, avail;
    __mv_pool_get_availability(p, &total, &avail, nullptr);
    EXPECT_EQ(total, 2u + 512u);
    EXPECT_EQ(avail, 511u);
    EXPECT_EQ(__mv_pool_create_index(p), 0);
}

TEST(Pool, TypedPoolUnderTwoThreads) {
    struct Rec {
        std::atomic<int> owner;
        uint64_t a;
    };
    MV_TypedPool<Rec> pool("typed", 16, 1);
    std::atomic<int> sharedAtOnce{0};
    // A record handed to both threads at once would show up as the other's mark.
    auto work = [&](int me) {
        Rec* held[4];
        for (int i = 0; i < 5000; ++i) {
            for (auto& r : held) {
                r = pool.allocate();
                r->owner.store(me);
                r->a = uint64_t(i);
            }
            for (auto& r : held) {
                if (r->owner.load() != me) ++sharedAtOnce;
                pool.release(r);
            }
        }
    };
    std::thread t1(work, 1), t2(work, 2);
    t1.join();
    t2.join();
    EXPECT_EQ(sharedAtOnce.load(), 0);
    uint32_t total, avail;
    __mv_pool_get_availability(pool.pool(), &total, &avail, nullptr);
    EXPECT_EQ(total, avail);
}

// ---------------------------------------------------------------- linked list

TEST(LinkedList, FifoAndRemovalKeepEnds) {
    MV_LinkedList* ll = __mv_linked_list_allocate();
    int v[4];
    for (auto& x : v) __mv_linked_list_add(ll, &x);
    EXPECT_EQ(__mv_linked_list_count(ll), 4);
    EXPECT_EQ(__mv_linked_list_get_item(ll, 2), &v[2]);
    EXPECT_EQ(__mv_linked_list_get_item(ll, 4), nullptr);
    EXPECT_EQ(__mv_linked_list_remove_item(ll, &v[3]), 1) << "the tail";
    EXPECT_EQ(__mv_linked_list_remove_item(ll, &v[3]), 0);
    __mv_linked_list_push(ll, &v[3]);
    EXPECT_EQ(__mv_linked_list_get_item(ll, 3), &v[3]) << "the tail moved back correctly";
    EXPECT_EQ(__mv_linked_list_remove_itemAt(ll, 0), 1) << "the head";
    EXPECT_EQ(__mv_linked_list_pop(ll), &v[1]);
    EXPECT_EQ(__mv_linked_list_pop(ll), &v[2]);
    EXPECT_EQ(__mv_linked_list_pop(ll), &v[3]);
    EXPECT_EQ(__mv_linked_list_pop(ll), nullptr);
    __mv_linked_list_add(ll, &v[0]);
    EXPECT_EQ(__mv_linked_list_pop(ll), &v[0]) << "an emptied list takes items again";
    __mv_linked_list_add(ll, &v[0]);
    __mv_linked_list_removeAll(ll);
    EXPECT_EQ(__mv_linked_list_count(ll), 0);
    int availBefore = __mvCore->AvailableLinkedListPoolCount;
    __mv_linked_list_release(ll);
    __mv_linked_list_release(ll);
    EXPECT_EQ(__mvCore->AvailableLinkedListPoolCount, availBefore + 1);
}

// ---------------------------------------------------------------- counters

TEST(Counter, ExactUnderConcurrentIncrements) {
    MV_Counter* c = __mv_counter_create(10000000, "Sent_N1_Registration");
    constexpr int kThreads = 4, kEach = 50000;
    std::vector<std::thread> ts;
    for (int i = 0; i < kThreads; ++i)
        ts.emplace_back([c] {
            for (int k = 0; k < kEach; ++k) {
                __mv_counter_increment_request(c);
                __mv_counter_increment_response(c);
                if (k % 2) __mv_counter_increment_error_response(c);
                if (k % 5 == 0) __mv_counter_increment_send_failed(c);
                if (k % 1000 == 0) __mv_counter_plog4(c, MV_PER_LOG);
            }
        });
    for (auto& t : ts) t.join();
    EXPECT_EQ(c->Request.load(), uint64_t(kThreads) * kEach);
    EXPECT_EQ(c->Total.load(), uint64_t(kThreads) * kEach);
    EXPECT_EQ(c->Response.load(), uint64_t(kThreads) * kEach);
    EXPECT_EQ(c->ErrorResponse.load(), uint64_t(kThreads) * kEach / 2);
    EXPECT_EQ(c->SendFailed.load(), uint64_t(kThreads) * kEach / 5);
}

TEST(Counter, ReinitAndSinceLast) {
    MV_Counter c;
    std::string longName(150, 'n');
    __mv_counter_init(&c, 3, longName.c_str());
    EXPECT_EQ(strlen(c.Name), 99u);
    __mv_counter_increment_request2(&c, 5);
    __mv_counter_increment_response(&c);
    __mv_counter_plog4(&c, MV_PER_LOG);
    EXPECT_EQ(c.CurrentCount.load(), 5);
    EXPECT_EQ(c.lastRequest.load(), 5u);
    EXPECT_EQ(__mv_counter_isMaxLimitReached(&c), 1);
    __mv_counter_increment_request(&c);
    __mv_counter_plog4(&c, MV_PER_LOG);
    EXPECT_EQ(c.CurrentCount.load(), 1);

    struct Case {
        int total;
        uint64_t request, response, last, totalField;
        long current;
    };
    const Case cases[] = {{0, 0, 0, 0, 6, 1}, {1, 0, 0, 0, 0, 1}, {2, 6, 1, 0, 6, 0}};
    for (const Case& k : cases) {
        SCOPED_TRACE(k.total);
        MV_Counter d;
        __mv_counter_init(&d, 10, "d");
        __mv_counter_increment_request2(&d, 6);
        __mv_counter_increment_response(&d);
        __mv_counter_plog4(&d, MV_PER_LOG);
        d.CurrentCount = 1;
        __mv_counter_reinit(&d, k.total);
        EXPECT_EQ(d.Request.load(), k.request);
        EXPECT_EQ(d.Response.load(), k.response);
        EXPECT_EQ(d.lastRequest.load(), k.last);
        EXPECT_EQ(d.Total.load(), k.totalField);
        EXPECT_EQ(d.CurrentCount.load(), k.current);
    }
}

}  // namespace
