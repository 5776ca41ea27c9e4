// Queue objects with their own workers, the FSM queue (one ordered line per index)
// and the shared queue lines.
#include <unistd.h>

#include <cstdio>
#include <mutex>

#include "mv_core.h"
#include "mv_fifo.h"

namespace {

std::atomic<fnhook> mpsCounterHook{nullptr};
std::atomic<int> initialQueueLineThreads{__initial_queue_processing_thread_count};

constexpr int kQueueRecordGrowth = 500;
constexpr int kQueueLineGrowth = 1000;

mv_fifo::CoreFifo<MV_CoreQueueRecord> queueRecords() {
    return {__mvCore->QueueRecordHead, __mvCore->QueueRecordCurrent, __mvCore->QueueRecordLock,
            __mvCore->QueueRecordCount, __mvCore->QueueRecordAvailableCount};
}

MV_CoreQueueRecord* takeQueueRecord() { return queueRecords().allocate(kQueueRecordGrowth); }

void giveQueueRecord(MV_CoreQueueRecord* r) {
    queueRecords().release(r, [](MV_CoreQueueRecord* q) {
        q->Data = nullptr;
        q->executor = nullptr;
    });
}

// Pops the head; returns false when the queue is empty.
bool popItem(MV_CoreQueue* q, void** data, fnexec* executor) {
    MV_CoreQueueRecord* r;
    {
        std::lock_guard g(q->Lock);
        r = q->Head;
        if (!r) return false;
        q->Head = r->Next;
        if (!q->Head) q->Current = nullptr;
        --q->CurrentQueueCount;
        ++q->TotalProcessed;
        *data = r->Data;
        if (executor) *executor = r->executor;
    }
    giveQueueRecord(r);
    return true;
}

int postItem(MV_CoreQueue* q, void* data, fnexec executor, bool ignoreBound, bool countQueued) {
    int result = 0;
    {
        std::lock_guard g(q->Lock);
        if (q->CurrentQueueCount < q->MaxQueueCount || ignoreBound) {
            MV_CoreQueueRecord* r = takeQueueRecord();
            r->Data = data;
            r->executor = executor;
            if (q->Current) q->Current->Next = r;
            else q->Head = r;
            q->Current = r;
            ++q->CurrentQueueCount;
            if (countQueued) ++q->TotalQueued;
            result = 1;
        }
    }
    q->sem_lock.post();
    return result;
}

void* queueWorker(void* arg) {
    auto* rp = static_cast<__mv_core_routing_pointer*>(arg);
    MV_CoreQueue* q = rp->queueObject;
    for (;;) {
        q->sem_lock.wait();
        int ka = q->KeepAlive.load(std::memory_order_relaxed) + 1;
        q->KeepAlive.store(ka > 999999 ? 0 : ka, std::memory_order_relaxed);

        void* data = nullptr;
        fnexec executor = nullptr;
        if (popItem(q, &data, &executor) && data) {
            if (executor) executor(data);
            else if (rp->Routine2) rp->Routine2(data, rp->iIndex);
        }
        int mps = q->MPS.load(std::memory_order_relaxed);
        if (mps > 0) {
            ++q->MPSCounter;
            if (fnhook h = mpsCounterHook.load(std::memory_order_relaxed)) h();
            if (q->MPSCounter >= mps) {
                q->MPSCounter = 0;
                __mv_nanosleep(99999999);
            }
        }
    }
    return nullptr;
}

MV_CoreQueue* newQueue(int maxQueueItems) {
    // Queue objects are made at start-up and never given back.
    void* mem = __mv_malloc_block(sizeof(MV_CoreQueue), __FILE_NAME__, __LINE__);
    auto* q = new (mem) MV_CoreQueue{};
    q->MaxQueueCount = maxQueueItems;
    return q;
}

void startWorkers(MV_CoreQueue* q, fnptr handler, int count, int firstIndex, const char* name) {
    for (int i = 0; i < count; ++i) {
        auto* rp = new __mv_core_routing_pointer{nullptr, handler, q, firstIndex + i};
        __mv_create_pthread2(queueWorker, rp, name);
    }
}

}  // namespace

int __mv_core_create_queue(void** queuePoolObject, fnptr ptrCallBackHandler, int iNoOfThreads, int maxQueueItems) {
    if (!queuePoolObject) return -1;
    MV_CoreQueue* q = newQueue(maxQueueItems);
    *queuePoolObject = q;
    if (ptrCallBackHandler) startWorkers(q, ptrCallBackHandler, iNoOfThreads, 0, "app_thread");
    return 1;
}

int __mv_core_create_queueobject(void** queuePoolObject, int forAppWorkerThreads, int maxQueueItems) {
    (void)forAppWorkerThreads;
    if (!queuePoolObject) return -1;
    *queuePoolObject = newQueue(maxQueueItems);
    return 1;
}

int __mv_core_queue_item(void* queuePoolObject, void* dataItem) {
    return __mv_core_queue_item_force(queuePoolObject, dataItem, 0);
}

int __mv_core_queue_item_force(void* queuePoolObject, void* dataItem, int force) {
    if (!queuePoolObject) {
        printf("[coding problem] invalid queue object %d|%s\n", __LINE__, __func__);
        return -1;
    }
    return postItem(static_cast<MV_CoreQueue*>(queuePoolObject), dataItem, nullptr, force == 1, true);
}

void __mv_core_queue_set_mps(void* queuePoolObject, int mps) {
    if (queuePoolObject) static_cast<MV_CoreQueue*>(queuePoolObject)->MPS = mps;
}

void __mv_set_mpscounter(fnhook Handler) { mpsCounterHook = Handler; }

int __mv_core_queue_post(void* objQueue, void* item) {
    if (!objQueue) return 0;
    return postItem(static_cast<MV_CoreQueue*>(objQueue), item, nullptr, false, false);
}

int __mv_core_queue_get(void* objQueue, void** dataItem) {
    if (dataItem) *dataItem = nullptr;
    if (!objQueue || !dataItem) return 0;
    auto* q = static_cast<MV_CoreQueue*>(objQueue);
    // Keep the semaphore in step with the items so a later wait does not wake for nothing.
    if (!popItem(q, dataItem, nullptr)) return 0;
    q->sem_lock.try_wait();
    return 1;
}

int __mv_core_queue_wait(void* objQueue, void** dataItem) {
    if (dataItem) *dataItem = nullptr;
    if (!objQueue || !dataItem) return 0;
    auto* q = static_cast<MV_CoreQueue*>(objQueue);
    q->sem_lock.wait();
    return popItem(q, dataItem, nullptr) ? 1 : 0;
}

// ---------------------------------------------------------------- FSM queue

int __mv_core_create_fsmqueue(void** fsmQueuePoolObject, fnptr ptrCallBackHandler, int iNoOfThreads, int maxQueueItems) {
    if (!fsmQueuePoolObject || iNoOfThreads < 1) return -1;
    void* mem = __mv_malloc_block(sizeof(__mv_core_fsm_queue), __FILE_NAME__, __LINE__);
    auto* f = new (mem) __mv_core_fsm_queue{};
    f->ThreadCount = iNoOfThreads;
    f->MaxQueueCount = maxQueueItems;
    f->coreQueue = static_cast<MV_CoreQueue**>(
        __mv_malloc_block(sizeof(MV_CoreQueue*) * size_t(iNoOfThreads), __FILE_NAME__, __LINE__));
    for (int i = 0; i < iNoOfThreads; ++i) {
        f->coreQueue[i] = newQueue(maxQueueItems);
        startWorkers(f->coreQueue[i], ptrCallBackHandler, 1, i, "fsm_thread");
    }
    *fsmQueuePoolObject = f;
    return 1;
}

int __mv_core_queue_fsm2(void* fsmQueuePoolObject, uint32_t index, void* dataItem, fnexec executor) {
    auto* f = static_cast<__mv_core_fsm_queue*>(fsmQueuePoolObject);
    if (!f) {
        printf("[coding problem] invalid queue object %d|%s\n", __LINE__, __func__);
        return -1;
    }
    // An index past the lines would post to memory that is not a queue.
    if (index >= uint32_t(f->ThreadCount) || !f->coreQueue[index]) return -1;
    // The bound is not enforced on FSM lines: a UE's work is never refused.
    return postItem(f->coreQueue[index], dataItem, executor, true, true);
}

int __mv_core_queue_fsm(void* fsmQueuePoolObject, uint32_t index, void* dataItem) {
    return __mv_core_queue_fsm2(fsmQueuePoolObject, index, dataItem, nullptr);
}

// ---------------------------------------------------------------- statistics

void __mv__per_log_pending_queuecount(const char* name, void* queue) {
    auto* q = static_cast<MV_CoreQueue*>(queue);
    if (!q) return;
    long total, totalProcessed;
    int pending, processed;
    {
        std::lock_guard g(q->Lock);
        totalProcessed = q->TotalProcessed;
        total = q->TotalQueued;
        pending = q->CurrentQueueCount;
        processed = int(totalProcessed - q->LastProcessed);
        q->LastProcessed = int(totalProcessed);
    }
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_DEBUG,
             "%-30s     Processed %-5d TotalProcessed %-8ld PendingQueueCount %-4d Total %-8ld KeepAlive %-6d MPS %d",
             name, processed, totalProcessed, pending, total, q->KeepAlive.load(), q->MPS.load());
}

void __mv__per_log_pending_fsmqueuecount(const char* name, void* queue) {
    auto* f = static_cast<__mv_core_fsm_queue*>(queue);
    if (!f) return;
    for (int i = 0; i < f->ThreadCount; ++i) {
        MV_CoreQueue* q = f->coreQueue[i];
        long total, totalProcessed;
        int pending, processed;
        {
            std::lock_guard g(q->Lock);
            totalProcessed = q->TotalProcessed;
            total = q->TotalQueued;
            pending = q->CurrentQueueCount;
            processed = int(totalProcessed - q->LastProcessed);
            q->LastProcessed = int(totalProcessed);
        }
        __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_DEBUG,
                 "%-30s  %-2d Processed %-5d TotalProcessed %-8ld PendingQueueCount %-4d Total %-8ld KeepAlive %-6d", name,
                 i, processed, totalProcessed, pending, total, q->KeepAlive.load());
    }
}

int __mv__queuecount(void* queue) {
    auto* q = static_cast<MV_CoreQueue*>(queue);
    if (!q) return 0;
    std::lock_guard g(q->Lock);
    return q->CurrentQueueCount;
}

// ---------------------------------------------------------------- queue lines

namespace {

mv_fifo::CoreFifo<MV_Queue> lineRecords() {
    return {__mvCore->QueueHead, __mvCore->QueueCurrent, __mvCore->QueueLock, __mvCore->TotalQueuePoolCount,
            __mvCore->AvailableQueuePoolCount};
}

}  // namespace

void __mv_queue_create(int count, int inLockMode) {
    (void)inLockMode;
    lineRecords().add(count, 1);
}

namespace {

MV_Queue* takeLineRecord() {
    return lineRecords().allocate(kQueueLineGrowth, [](MV_Queue*) { ++__mvCore->QueueUsedTimes; });
}

void giveLineRecord(MV_Queue* r) {
    lineRecords().release(r, [](MV_Queue* q) {
        q->data = nullptr;
        q->handler = nullptr;
    });
}

void* queueLineThread(void*) {
    auto* t = __mv_arena_new<MV_Thread>();
    t->id = pthread_self();
    t->isActive = 1;
    {
        std::lock_guard g(__mvCore->QueueLineLock);
        if (__mvCore->ThreadCurrent) __mvCore->ThreadCurrent->Next = t;
        else __mvCore->ThreadHead = t;
        __mvCore->ThreadCurrent = t;
    }
    for (;;) {
        __mvCore->queue_sem_lock.wait();
        MV_Queue* r;
        {
            std::lock_guard g(__mvCore->QueueLineLock);
            r = __mvCore->QueueLineHead;
            if (!r) continue;
            __mvCore->QueueLineHead = r->Next;
            if (!__mvCore->QueueLineHead) __mvCore->QueueLineCurrent = nullptr;
            --__mvCore->QueueLineCount;
        }
        if (r->handler) {
            r->handler(r->data);
            ++__mvCore->QueueLineTotalProcessedCount;
            __atomic_add_fetch(&t->TotalProcessedCount, 1, __ATOMIC_RELAXED);
        }
        giveLineRecord(r);
    }
    return nullptr;
}

// Called with QueueLineLock held.
void addLineThreads(int n) {
    for (int i = 0; i < n; ++i) {
        if (__mv_create_pthread2(queueLineThread, nullptr, "mv-q-exec") == 0) ++__mvCore->QueueLineThreadCount;
    }
}

}  // namespace

void __mv_core_set_queue_processing_thread_count(int icount) {
    if (icount > 0) initialQueueLineThreads = icount;
}

void __mv_core_queue(void* data, fnline handler) {
    MV_Queue* r = takeLineRecord();
    r->data = data;
    r->handler = handler;
    {
        std::lock_guard g(__mvCore->QueueLineLock);
        if (__mvCore->QueueLineCurrent) __mvCore->QueueLineCurrent->Next = r;
        else __mvCore->QueueLineHead = r;
        __mvCore->QueueLineCurrent = r;
        ++__mvCore->QueueLineCount;
        ++__mvCore->QueueLineTotalQueuedCount;
        if (__mvCore->QueueLineThreadCount == 0) addLineThreads(initialQueueLineThreads);
        time_t now = time(nullptr);
        if (now - __mvCore->QueueLineThreadIncreasedTime > 30) {
            if (__mvCore->QueueBacklogTotal > 0) __mvCore->LastAvgQueueBacklog = __mvCore->QueueBacklogTotal / 30;
            __mvCore->QueueBacklogTotal = 0;
            if (__mvCore->LastAvgQueueBacklog > 500 && __mvCore->QueueLineThreadCount < MV_QUEUE_LINE_MAX_THREADS) {
                __mvCore->QueueLineThreadIncreasedTime = now;
                addLineThreads(1);
            }
        }
    }
    __mvCore->queue_sem_lock.post();
}

long __mv_core_get_last_processed_queue_count() {
    long sum = 0;
    std::lock_guard g(__mvCore->QueueLineLock);
    for (MV_Thread* t = __mvCore->ThreadHead; t; t = t->Next) {
        long total = __atomic_load_n(&t->TotalProcessedCount, __ATOMIC_RELAXED);
        t->LastProcessedCount = total - t->LastTotalProcessedCount;
        t->LastTotalProcessedCount = total;
        sum += t->LastProcessedCount;
    }
    return sum;
}

void __mv_core_queue_update_backlog() {
    std::lock_guard g(__mvCore->QueueLineLock);
    long processedTotal = __mvCore->QueueLineTotalProcessedCount.load();
    long d = processedTotal - __mvCore->QueueLineLastProcessedCount;
    long q = __mvCore->QueueLineTotalQueuedCount - __mvCore->QueueLineLastQueuedCount;
    __mvCore->QueueBacklog = q >= 1 ? q - d : __mvCore->QueueLineTotalQueuedCount - processedTotal;
    __mvCore->QueueBacklogTotal += __mvCore->QueueBacklog;
    __mvCore->QueueLineLastProcessedCount = processedTotal;
    __mvCore->QueueLineLastQueuedCount = __mvCore->QueueLineTotalQueuedCount;
}
