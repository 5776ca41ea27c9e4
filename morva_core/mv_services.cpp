// Stream buffers, bulk queues, event sets, tasks and actors.
#include "mv_services.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "mv_alloc.h"
#include "mv_fifo.h"

// ---------------------------------------------------------------- stream buffers

namespace {

constexpr int kStreamGrowth = 1000;

mv_fifo::CoreFifo<MV_Stream, int, &MV_Stream::PoolNext> streamPool() {
    return {__mvCore->StreamHead, __mvCore->StreamCurrent, __mvCore->StreamLock, __mvCore->StreamPoolCount,
            __mvCore->StreamPoolAvailableCount};
}

}  // namespace

void __mv_createStreamPool(int count, int inLockMode) { streamPool().add(count, inLockMode); }

MV_Stream* __mv_allocateStream() {
    MV_Stream* s = streamPool().allocate(kStreamGrowth);
    s->StreamHead = s->StreamCurrent = s->Head = s->Current = nullptr;
    s->len = s->Type = s->Flags = s->EndStream = s->iWeight = 0;
    s->StreamId = 0;
    s->_conn = nullptr;
    return s;
}

int __mv_addBufferToStream(MV_Stream* stream, const void* data, int len) {
    if (!stream || !data || len < 0) return 0;
    auto* p = static_cast<const char*>(data);
    int done = 0;
    // The first record fills first; later bytes go to records chained behind it.
    MV_Stream* tail = stream->Current ? stream->Current : stream;
    while (done < len) {
        if (tail->len >= MV_STREAM_CHUNK) {
            MV_Stream* n = __mv_allocateStream();
            if (stream->Current) stream->Current->PoolNext = n;
            else stream->Head = n;
            stream->Current = n;
            tail = n;
        }
        int n = std::min(len - done, MV_STREAM_CHUNK - tail->len);
        memcpy(tail->buffer + tail->len, p + done, size_t(n));
        tail->len += n;
        done += n;
    }
    return done;
}

int __mv_getStreamLength(MV_Stream* stream) {
    if (!stream) return 0;
    int total = stream->len;
    for (MV_Stream* s = stream->Head; s; s = s->PoolNext) total += s->len;
    return total;
}

int __mv_copyStreamBuffer(MV_Stream* stream, void* out) {
    if (!stream || !out) return 0;
    auto* o = static_cast<char*>(out);
    int pos = 0;
    memcpy(o, stream->buffer, size_t(stream->len));
    pos += stream->len;
    for (MV_Stream* s = stream->Head; s; s = s->PoolNext) {
        memcpy(o + pos, s->buffer, size_t(s->len));
        pos += s->len;
    }
    return pos;
}

void __mv_releaseStream(MV_Stream* stream) {
    if (!stream) return;
    auto pool = streamPool();
    std::lock_guard g(pool.Lock);
    if (stream->isReleased) return;
    MV_Stream* s = stream->Head;
    while (s) {
        MV_Stream* next = s->PoolNext;
        pool.giveLocked(s);
        s = next;
    }
    stream->Head = stream->Current = nullptr;
    pool.giveLocked(stream);
}

// ---------------------------------------------------------------- bulk queues

namespace {
mv_fifo::CoreFifo<MV_CoreQueueRecord> queueRecords() {
    return {__mvCore->QueueRecordHead, __mvCore->QueueRecordCurrent, __mvCore->QueueRecordLock,
            __mvCore->QueueRecordCount, __mvCore->QueueRecordAvailableCount};
}
constexpr int kQueueRecordGrowth = 500;
}  // namespace

int __mv_core_create_bulk_queue(void** queuePoolObject, int maxQueueItems) {
    return __mv_core_create_queueobject(queuePoolObject, 0, maxQueueItems);
}

int __mv_core_queue_bulk_items(void* queuePoolObject, void** dataItem, int count) {
    return __mv_core_queue_bulk_items_force(queuePoolObject, dataItem, 0, count);
}

int __mv_core_queue_bulk_items_force(void* queuePoolObject, void** dataItem, int force, int count) {
    auto* q = static_cast<MV_CoreQueue*>(queuePoolObject);
    if (!q) {
        printf("[coding problem] invalid queue object %d|%s\n", __LINE__, __func__);
        return -1;
    }
    if (!dataItem || count < 1) return 0;
    int in = 0;
    {
        std::lock_guard g(q->Lock);
        auto recs = queueRecords();
        for (; in < count; ++in) {
            if (q->CurrentQueueCount >= q->MaxQueueCount && force != 1) break;
            MV_CoreQueueRecord* r = recs.allocate(kQueueRecordGrowth);
            r->Data = dataItem[in];
            r->executor = nullptr;
            if (q->Current) q->Current->Next = r;
            else q->Head = r;
            q->Current = r;
            ++q->CurrentQueueCount;
            ++q->TotalQueued;
        }
    }
    q->sem_lock.post();
    return in;
}

void __mv_core_release_queue_record_bulk(MV_CoreQueueRecord* head, MV_CoreQueueRecord* tail, int count) {
    if (!head || !tail || count < 1) return;
    auto pool = queueRecords();
    std::lock_guard g(pool.Lock);
    for (MV_CoreQueueRecord* r = head; r;) {
        MV_CoreQueueRecord* next = r == tail ? nullptr : r->Next;
        r->Data = nullptr;
        r->executor = nullptr;
        pool.giveLocked(r);
        r = next;
    }
}

int __mv_core_queue_bulk_items_recv(void* queuePoolObject, void** dataItem, int size) {
    auto* q = static_cast<MV_CoreQueue*>(queuePoolObject);
    if (!q || !dataItem || size < 1) return 0;
    MV_CoreQueueRecord* head = nullptr;
    MV_CoreQueueRecord* tail = nullptr;
    int n = 0;
    {
        std::lock_guard g(q->Lock);
        head = q->Head;
        for (MV_CoreQueueRecord* r = head; r && n < size; r = r->Next) {
            dataItem[n++] = r->Data;
            tail = r;
        }
        if (n == 0) return 0;
        q->Head = tail->Next;
        if (!q->Head) q->Current = nullptr;
        q->CurrentQueueCount -= n;
        q->TotalProcessed += n;
    }
    __mv_core_release_queue_record_bulk(head, tail, n);
    return n;
}

// ---------------------------------------------------------------- events

namespace {
mv_fifo::CoreFifo<MV_Event> eventPool() {
    return {__mvCore->EventHead, __mvCore->EventCurrent, __mvCore->EventLock, __mvCore->EventPoolCount,
            __mvCore->EventPoolAvailableCount};
}
constexpr int kEventGrowth = 1000;

void* eventSetThread(void* arg) {
    auto* set = static_cast<MV_EventSet*>(arg);
    for (;;) {
        set->sem_lock.wait();
        MV_Event* e;
        {
            std::lock_guard g(set->Lock);
            e = set->EventHead;
            if (!e) continue;
            set->EventHead = e->Next;
            if (!set->EventHead) set->EventCurrent = nullptr;
        }
        int type = e->eventType;
        void* data = e->eventDataPtr;
        eventPool().release(e);
        if (set->CallBack) set->CallBack(type, data);
    }
    return nullptr;
}
}  // namespace

void __mv_createEventPool(int count, int inLockMode) { eventPool().add(count, inLockMode); }

int __mv_eventSetCreate1(MV_EventSet** eventSetPtr, int iNoOfProcess, fnevent e_call_back) {
    if (iNoOfProcess < 1) return -ENOENT;
    if (!e_call_back) return -ESRCH;
    if (!eventSetPtr) return -1;
    auto* set = __mv_arena_new<MV_EventSet>();
    set->CallBack = e_call_back;
    *eventSetPtr = set;
    for (int i = 0; i < iNoOfProcess; ++i) __mv_create_pthread2(eventSetThread, set, "mv_eventNotify");
    return 0;
}

int __mv_createDefaultEventSet1(int iNoOfProcess, fnevent e_call_back) {
    MV_EventSet* set = nullptr;
    int rc = __mv_eventSetCreate1(&set, iNoOfProcess, e_call_back);
    if (rc == 0) __atomic_store_n(&__mvCore->eventSet, set, __ATOMIC_RELEASE);
    return rc;
}

int __mv_addEvent1(MV_EventSet* eventSetPtr, int eventType, void* eventDataPtr) {
    MV_EventSet* set = eventSetPtr ? eventSetPtr : __atomic_load_n(&__mvCore->eventSet, __ATOMIC_ACQUIRE);
    if (!set) return -1;
    MV_Event* e = eventPool().allocate(kEventGrowth);
    e->eventType = eventType;
    e->eventDataPtr = eventDataPtr;
    {
        std::lock_guard g(set->Lock);
        if (set->EventCurrent) set->EventCurrent->Next = e;
        else set->EventHead = e;
        set->EventCurrent = e;
    }
    set->sem_lock.post();
    return 1;
}

int __mv_core_registerForEvent1(int eventType, fnevent handler) {
    std::lock_guard g(__mvCore->EventLock);
    if (__mvCore->EventHandlerCount >= MV_EVENT_HANDLER_MAX) return 0;
    __mvCore->EventHandler[__mvCore->EventHandlerCount++] = {eventType, handler};
    return 1;
}

int __mv_core_EventHandler1(int eventType, void* eventDataPtr) {
    fnevent handler = nullptr;
    {
        std::lock_guard g(__mvCore->EventLock);
        for (int i = 0; i < __mvCore->EventHandlerCount; ++i) {
            if (__mvCore->EventHandler[i].eventType == eventType) {
                handler = __mvCore->EventHandler[i].handler;
                break;
            }
        }
    }
    if (!handler) {
        __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_DEBUG, "No Subscriptions Found for Event %d <%s|%s|%d>", eventType,
                 __FILE_NAME__, __func__, __LINE__);
        return 0;
    }
    handler(eventType, eventDataPtr);
    return 1;
}

// ---------------------------------------------------------------- tasks

namespace {
mv_fifo::CoreFifo<MV_Task> taskPool() {
    return {__mvCore->TaskHead, __mvCore->TaskCurrent, __mvCore->TaskLock, __mvCore->TaskPoolCount,
            __mvCore->TaskPoolAvailableCount};
}
}  // namespace

void __mv_createTaskPool(int count, int inLockMode) { taskPool().add(count, inLockMode); }

MV_Task* __mv_allocateTask() {
    MV_Task* t = taskPool().allocate(1000);
    t->taskExec = nullptr;
    t->data = nullptr;
    return t;
}

void __mv_releaseTask(MV_Task* task) {
    if (task) taskPool().release(task);
}

int __mv_execTask(MV_Task* task) {
    if (!task || !task->taskExec) return 0;
    task->taskExec(task);
    return 1;
}

// ---------------------------------------------------------------- actors

__ng_fsm_thread_t* velta_fsmq_create_thread(fn_fsmq_handler ptrCallBackHandler, int iNoOfThreads) {
    auto* t = __mv_arena_new<__ng_fsm_thread_t>();
    t->ptrCallBackHandler = ptrCallBackHandler;
    __mv_core_create_queue(&t->msgQueue, velta_fsmq_worker_thread, iNoOfThreads, 10000);
    return t;
}

void velta_fsmq_init(NG_FSMQ* fsmq, void* object, __ng_fsm_thread_t* fThread) {
    if (!fsmq) return;
    std::lock_guard g(fsmq->Lock);
    fsmq->object = object;
    fsmq->status = 0;
    fsmq->Head = fsmq->Current = nullptr;
    fsmq->fThread = fThread;
    fsmq->busy = 0;
}

int velta_fsmq_addaction(NG_FSMQ* fsmq, void* action, fn_fsmq_handler executor) {
    if (!fsmq || !fsmq->fThread) return -1;
    auto* a = static_cast<NG_FSM*>(__mv_allocM7(sizeof(NG_FSM), __FILE_NAME__, __LINE__, 0));
    if (!a) return 0;
    *a = {nullptr, action, executor};
    {
        std::lock_guard g(fsmq->Lock);
        if (fsmq->Current) fsmq->Current->Next = a;
        else fsmq->Head = a;
        fsmq->Current = a;
    }
    return __mv_core_queue_item(fsmq->fThread->msgQueue, fsmq);
}

void velta_fsmq_worker_thread(void* data, int) {
    auto* fsmq = static_cast<NG_FSMQ*>(data);
    if (!fsmq || fsmq->busy.exchange(1)) return;
    for (;;) {
        NG_FSM* a;
        {
            std::lock_guard g(fsmq->Lock);
            a = fsmq->Head;
            if (a) {
                fsmq->Head = a->Next;
                if (!fsmq->Head) fsmq->Current = nullptr;
            }
        }
        if (!a) {
            fsmq->busy = 0;
            // An action added while this worker was finishing found the actor busy.
            bool more;
            {
                std::lock_guard g(fsmq->Lock);
                more = fsmq->Head != nullptr;
            }
            if (more && !fsmq->busy.exchange(1)) continue;
            return;
        }
        fn_fsmq_handler fn = a->executor ? a->executor : fsmq->fThread->ptrCallBackHandler;
        int status = fn ? fn(fsmq, a->action) : 0;
        fsmq->status = status;
        __mv_freeM(a);
        if (status == 200) {
            fsmq->busy = 0;
            return;
        }
    }
}
