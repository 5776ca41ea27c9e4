// Services that share the core record: stream buffers, bulk queues, event sets,
// tasks and the small actor layer over a queue object.
#pragma once

#include <atomic>
#include <cstdint>

#include "mv_core.h"

// ---------------------------------------------------------------- stream buffers

#define MV_STREAM_BUFFER_SIZE 2050
#define MV_STREAM_CHUNK 1024

// A chain of records: the first holds up to 1024 bytes and the rest hang from its
// Head/Current, linked through PoolNext while they are in use.
struct MV_Stream {
    int len;
    int Type;
    int Flags;
    uint32_t StreamId;
    int EndStream;
    int iWeight;
    int isReleased;
    char buffer[MV_STREAM_BUFFER_SIZE];
    void* _conn;
    MV_Stream* PoolNext;
    MV_Stream* StreamHead;
    MV_Stream* StreamCurrent;
    MV_Stream* Head;
    MV_Stream* Current;
};
using __mv_stream = MV_Stream;

[[nodiscard]] MV_Stream* __mv_allocateStream();
int __mv_addBufferToStream(MV_Stream* stream, const void* data, int len);
int __mv_getStreamLength(MV_Stream* stream);
// `out` holds at least __mv_getStreamLength bytes; returns the count copied.
int __mv_copyStreamBuffer(MV_Stream* stream, void* out);
void __mv_releaseStream(MV_Stream* stream);

// ---------------------------------------------------------------- bulk queues

int __mv_core_create_bulk_queue(void** queuePoolObject, int maxQueueItems);
int __mv_core_queue_bulk_items(void* queuePoolObject, void** dataItem, int count);
int __mv_core_queue_bulk_items_force(void* queuePoolObject, void** dataItem, int force, int count);
int __mv_core_queue_bulk_items_recv(void* queuePoolObject, void** dataItem, int size);
// Gives a chain of `count` records linked through Next back in one locked pass.
void __mv_core_release_queue_record_bulk(MV_CoreQueueRecord* head, MV_CoreQueueRecord* tail, int count);

// ---------------------------------------------------------------- event sets

struct MV_Event {
    MV_Event* Next;
    int eventType;
    void* eventDataPtr;
    int isReleased;
};

struct MV_EventSet {
    MV_Event* EventHead;
    MV_Event* EventCurrent;
    MV_Sem sem_lock;
    MV_Mutex Lock;
    fnevent CallBack;
};

int __mv_eventSetCreate1(MV_EventSet** eventSetPtr, int iNoOfProcess, fnevent e_call_back);
int __mv_createDefaultEventSet1(int iNoOfProcess, fnevent e_call_back);
int __mv_addEvent1(MV_EventSet* eventSetPtr, int eventType, void* eventDataPtr);
int __mv_core_registerForEvent1(int eventType, fnevent handler);
int __mv_core_EventHandler1(int eventType, void* eventDataPtr);

// ---------------------------------------------------------------- tasks

typedef void (*fn_task)(MV_Task* task);

struct MV_Task {
    MV_Task* Next;
    int isReleased;
    fn_task taskExec;
    void* data;
};

[[nodiscard]] MV_Task* __mv_allocateTask();
void __mv_releaseTask(MV_Task* task);
int __mv_execTask(MV_Task* task);

// ---------------------------------------------------------------- actors

struct NG_FSMQ;
// The thread's handler: its result is the actor's status; 200 ends the run.
typedef int (*fn_fsmq_handler)(NG_FSMQ* fsmq, void* action);

struct NG_FSM {
    NG_FSM* Next;
    void* action;
    fn_fsmq_handler executor;  // runs instead of the thread's handler when set
};

struct __ng_fsm_thread_t {
    void* msgQueue;
    fn_fsmq_handler ptrCallBackHandler;
};

struct NG_FSMQ {
    void* object;
    std::atomic<int> status;
    NG_FSM* Head;
    NG_FSM* Current;
    MV_Mutex Lock;
    __ng_fsm_thread_t* fThread;
    // One worker drains an actor at a time, so its actions never run at once.
    std::atomic<int> busy;
};

[[nodiscard]] __ng_fsm_thread_t* velta_fsmq_create_thread(fn_fsmq_handler ptrCallBackHandler, int iNoOfThreads);
void velta_fsmq_init(NG_FSMQ* fsmq, void* object, __ng_fsm_thread_t* fThread);
int velta_fsmq_addaction(NG_FSMQ* fsmq, void* action, fn_fsmq_handler executor);
void velta_fsmq_worker_thread(void* fsmq, int index);
