// Bulk queues, event sets, tasks, actors and stream buffers.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "ks_test_util.h"
#include "mv_alloc.h"
#include "mv_services.h"

namespace {

TEST(BulkQueue, PostsUpToTheBoundAndTakesInOrder) {
    void* q = nullptr;
    ASSERT_EQ(__mv_core_create_bulk_queue(&q, 3), 1);
    int v[5];
    void* items[5] = {&v[0], &v[1], &v[2], &v[3], &v[4]};
    int recsBefore;  // records in use elsewhere
    {
        std::lock_guard g(__mvCore->QueueRecordLock);
        recsBefore = __mvCore->QueueRecordCount - __mvCore->QueueRecordAvailableCount;
    }
    EXPECT_EQ(__mv_core_queue_bulk_items(q, items, 5), 3);
    EXPECT_EQ(__mv_core_queue_bulk_items_force(q, items + 3, 1, 2), 2);
    void* out[10] = {};
    EXPECT_EQ(__mv_core_queue_bulk_items_recv(q, out, 4), 4);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(out[i], items[i]);
    EXPECT_EQ(__mv_core_queue_bulk_items_recv(q, out, 10), 1);
    EXPECT_EQ(out[0], items[4]);
    EXPECT_EQ(__mv_core_queue_bulk_items_recv(q, out, 10), 0) << "does not wait";
    EXPECT_EQ(__mv__queuecount(q), 0);
    std::lock_guard g(__mvCore->QueueRecordLock);
    EXPECT_EQ(__mvCore->QueueRecordCount - __mvCore->QueueRecordAvailableCount, recsBefore) << "every record went back";
}

std::mutex gEvLock;
std::vector<std::pair<int, void*>> gEvents;
void onEvent(int type, void* data) {
    std::lock_guard g(gEvLock);
    gEvents.emplace_back(type, data);
}

TEST(EventSet, DeliversOnItsThreadsAndRefusesBadArguments) {
    MV_EventSet* set = nullptr;
    EXPECT_EQ(__mv_eventSetCreate1(&set, 0, onEvent), -ENOENT);
    EXPECT_EQ(__mv_eventSetCreate1(&set, 1, nullptr), -ESRCH);
    ASSERT_EQ(__mv_eventSetCreate1(&set, 2, onEvent), 0);
    int data = 0;
    for (int i = 0; i < 10; ++i) EXPECT_EQ(__mv_addEvent1(set, 7, &data), 1);
    EXPECT_TRUE(kst::waitFor([] {
        std::lock_guard g(gEvLock);
        return gEvents.size() == 10;
    }, 5.0));
    ASSERT_EQ(__mv_createDefaultEventSet1(1, onEvent), 0);
    EXPECT_EQ(__mv_addEvent1(nullptr, 8, nullptr), 1);
    EXPECT_TRUE(kst::waitFor([] {
        std::lock_guard g(gEvLock);
        return gEvents.size() == 11 && gEvents.back().first == 8;
    }, 5.0));

    EXPECT_EQ(__mv_core_EventHandler1(42, nullptr), 0);
    EXPECT_EQ(__mv_core_registerForEvent1(42, onEvent), 1);
    EXPECT_EQ(__mv_core_EventHandler1(42, &data), 1);
}

void bump(MV_Task* t) { ++*static_cast<int*>(t->data); }

TEST(Task, RunsAndReleasesOnce) {
    int n = 0;
    MV_Task* t = __mv_allocateTask();
    t->taskExec = bump;
    t->data = &n;
    EXPECT_EQ(__mv_execTask(t), 1);
    EXPECT_EQ(n, 1);
    int avail;
    __mv_releaseTask(t);
    {
        std::lock_guard g(__mvCore->TaskLock);
        avail = __mvCore->TaskPoolAvailableCount;
    }
    __mv_releaseTask(t);
    std::lock_guard g(__mvCore->TaskLock);
    EXPECT_EQ(__mvCore->TaskPoolAvailableCount, avail);
}

std::mutex gActLock;
std::vector<int> gActions;
int actorHandler(NG_FSMQ*, void* action) {
    int v = int(reinterpret_cast<intptr_t>(action));
    std::lock_guard g(gActLock);
    gActions.push_back(v);
    return v == 3 ? 200 : 0;
}

TEST(Actor, RunsActionsInOrderAndStopsAt200) {
    __ng_fsm_thread_t* th = velta_fsmq_create_thread(actorHandler, 3);
    auto* actor = new NG_FSMQ{};
    velta_fsmq_init(actor, nullptr, th);
    for (intptr_t i = 1; i <= 5; ++i)
        if (i != 3) velta_fsmq_addaction(actor, reinterpret_cast<void*>(i), nullptr);
    EXPECT_TRUE(kst::waitFor([] {
        std::lock_guard g(gActLock);
        return gActions.size() == 4;
    }, 5.0));
    {
        std::lock_guard g(gActLock);
        EXPECT_EQ(gActions, (std::vector<int>{1, 2, 4, 5}));
        gActions.clear();
    }
    // 3 ends the run; the next action is taken at its own post.
    velta_fsmq_addaction(actor, reinterpret_cast<void*>(3), nullptr);
    EXPECT_TRUE(kst::waitFor([] {
        std::lock_guard g(gActLock);
        return gActions.size() == 1;
    }, 5.0));
    EXPECT_EQ(actor->status.load(), 200);
    velta_fsmq_addaction(actor, reinterpret_cast<void*>(6), nullptr);
    EXPECT_TRUE(kst::waitFor([] {
        std::lock_guard g(gActLock);
        return gActions.size() == 2;
    }, 5.0));
    std::lock_guard g(gActLock);
    EXPECT_EQ(gActions, (std::vector<int>{3, 6}));
    // The actor stays alive: the queue workers may still hold it.
}

TEST(Stream, ChainsPastOneChunk) {
    int availBefore;
    {
        std::lock_guard g(__mvCore->StreamLock);
        availBefore = __mvCore->StreamPoolAvailableCount;
    }
    MV_Stream* s = __mv_allocateStream();
    std::string data(3000, 'x');
    for (size_t i = 0; i < data.size(); ++i) data[i] = char('a' + i % 26);
    EXPECT_EQ(__mv_addBufferToStream(s, data.data(), 1000), 1000);
    EXPECT_EQ(__mv_addBufferToStream(s, data.data() + 1000, 2000), 2000);
    EXPECT_EQ(__mv_getStreamLength(s), 3000);
    std::string out(3000, '\0');
    EXPECT_EQ(__mv_copyStreamBuffer(s, out.data()), 3000);
    EXPECT_EQ(out, data);
    __mv_releaseStream(s);
    __mv_releaseStream(s);
    std::lock_guard g(__mvCore->StreamLock);
    EXPECT_EQ(__mvCore->StreamPoolAvailableCount, availBefore);
}

}  // namespace
