// The runtime's base: the core record, the levelled file logger, the arena and the
// plain heap, thread creation, time helpers, queues and the one-second timer wheel.
// Nothing else in the process runs before __init_morva_core.
#pragma once

#include <pthread.h>
#include <sys/time.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <new>

#include "mv_sync.h"

// ---------------------------------------------------------------- logging

#define MV_STK_LOG 0
#define MV_PER_LOG 1
#define MV_APP_LOG 2
#define MV_CMN_LOG 3
#define MV_BUF_LOG1 3
#define MV_CUS_LOG2 4
#define MV_CUS_LOG3 5
#define MV_LOG_TYPE_COUNT 6

#define MV_LOG_CRITICAL 1
#define MV_LOG_ERROR 2
#define MV_LOG_WARNING 3
#define MV_LOG_INFO 4
#define MV_LOG_NORMAL 4
#define MV_LOG_DEBUG 5
#define MV_LOG_LOWER_LIMIT 1
#define MV_LOG_UPPER_LIMIT 5

#define LOG_CAT_CORE 0
#define LOG_CAT_STREAM 1
#define LOG_CAT_BUFFER 2
#define LOG_CAT_HTTP2 3
#define LOG_CAT_FG_INTERFACE 4
#define LOG_CAT_APP 5
#define MV_LOG_CAT_COUNT 30

#define LOGGER_BUFFER_SIZE 3000
#define LOG_MESSAGE_MAX_SIZE (LOGGER_BUFFER_SIZE - 100)
#define MV_LOG_LINES_PER_FILE 70000

struct MV_LogCat {
    uint8_t iCat;
    std::atomic<int> iEnabled;
    char sCatName[50];
};

struct MV_LogConfig {
    int iHandle;
    char Prefix[10];
    char Path[500];
    std::atomic<int> iLoggingThreshold;
    int PrintTimeStamp;
    int iFileIndex;
    std::atomic<int> Enabled;
    std::atomic<int> initalized;
    int LineCount;
    std::atomic<int> initnotified;
    MV_LogCat LogCat[MV_LOG_CAT_COUNT];
    MV_Mutex Lock;
};

void __mv_log(uint32_t mLogType, uint32_t mLogCat, uint32_t mLogLevel, const char* mLogMessage, ...)
    __attribute__((format(printf, 4, 5)));
void __mv_init_logger(const char* rootPath);
void __mv_configure_log(uint32_t mLogType, uint32_t mLogLevel, const char* logPrefix, const char* logPath,
                        int iPrintTimeStamp);
void __mv_configure_log2(uint32_t mLogType, uint32_t mLogLevel);
void __mv_set_log_level(uint32_t mLogType, uint32_t mLogLevel);
void __mv_set_log_enable_disable(uint32_t mLogType, int isEnabled);
void __mv_log_cat_enable_disable(uint32_t mLogType, uint32_t icat, int isEnabled);
void __mv_log_cat_setName(uint32_t mLogType, uint32_t icat, const char* catName);
void __mv_log_cat_enable_all(uint32_t mLogType);
void __mv_log_cat_disable_all(uint32_t mLogType);
void __mv_set_log_prefix(uint32_t mLogType, const char* logPrefix);
void __mv_setall_log_prefix(const char* logPrefix);
const char* __mv_get_logger_rootpath();
void __mv_set_logger_rootpath(const char* rootPath);
void __mv_log_delete_old_log_files(const char* dir_path, int keepCount, int maxFiles);
void __mv_log_buffer(const char* prefix, const uint8_t* buff, int len);
// Read-only view for tests and the performance thread.
int __mv_log_get_level(uint32_t mLogType);

// ---------------------------------------------------------------- memory

// Arena: lives as long as the process, no header, no free.
void* __mv_malloc(size_t size);
void __mv_malloc2(size_t size, void** dataPtr);
void __mv_initial_malloc_mb(int imb);
void __mv_initial_malloc();
void __mv_CoreDumpOnMemoryRequest();
int __mv_CoreDumpOnMemoryRequest_isEnabled();

// Plain heap, for slabs of pools and queue objects.
void* __mv_malloc_block(size_t size, const char* file, int line);
void __mv_LogMallocBlock();

// Constructs a zero-initialised record in the arena; records holding locks and
// atomics must be constructed, not memset.
template <class T>
T* __mv_arena_new() {
    return new (__mv_malloc(sizeof(T))) T{};
}
template <class T>
T* __mv_arena_new_array(size_t n) {
    T* p = static_cast<T*>(__mv_malloc(sizeof(T) * n));
    for (size_t i = 0; i < n; ++i) new (p + i) T{};
    return p;
}

// ---------------------------------------------------------------- threads and limits

typedef void* (*mv_thread_fn)(void*);
int __mv_create_pthread2(mv_thread_fn start_routine, void* arg, const char* funcName);
int __mv_create_pthread_oncore(mv_thread_fn start_routine, void* arg, const char* funcName, int cpu_id);
int __mv_set_pthread_on_core(int cpu_id);
void __mv_enable_coredump();
void __mv_core_set_max_fd(int iMaxFdCount);

// ---------------------------------------------------------------- time

struct MV_ExecTime {
    struct timeval before;
    struct timeval after;
    struct timeval lapsed;
};

void __mv_makeTimeStamp(char* datestring);
void __mv_makeDBTimeStamp(char* datestring);
void __mv_makeTimeStamp2(struct timeval* tv, char* datestring, int convertToLocal);
void __mv_makeIntFileName(char* mFileNameBuffer, const char* mPath, const char* mFilePrefix, int iFileIndex);
void __mv_makeDateTimeFileName(char* mFileNameBuffer, const char* mPath, const char* mFilePrefix, const char* ext);
void __mv_StartExecTime(MV_ExecTime* oExecTime);
void __mv_EndExecTime(MV_ExecTime* oExecTime);
int __mv_getLocalTimeValue();
void __mv_setLocalTimeValue(int ltv);
void __mv_nanosleep(long tv_nsec);
uint32_t __mv_core__get_start_time_as_u32(uint32_t addseconds);
void __mv_core_wait_secs(int secs);

int __mv_mkpath(const char* path, mode_t mode);
int __mv_do_mkdir(const char* path, mode_t mode);

// ---------------------------------------------------------------- queues

typedef void (*fnptr)(void* data, int threadIndex);
typedef void (*fnexec)(void* data);
typedef void (*fnhook)();

struct MV_CoreQueueRecord {
    void* Data;
    fnexec executor;
    MV_CoreQueueRecord* Next;
    int isReleased;
};

struct MV_CoreDataRecord {
    void* Data;
    MV_CoreDataRecord* Next;
};

struct MV_CoreQueue {
    MV_CoreQueueRecord* Head;
    MV_CoreQueueRecord* Current;
    int ThreadCount;
    int MaxQueueCount;
    int CurrentQueueCount;
    long TotalQueued;
    long TotalProcessed;
    int LastProcessed;
    std::atomic<int> MPS;
    int MPSCounter;  // only the queue's single paced worker touches it
    std::atomic<int> KeepAlive;
    MV_Mutex Lock;
    MV_Sem sem_lock;
};

struct __mv_core_routing_pointer {
    void* Routine;
    fnptr Routine2;
    MV_CoreQueue* queueObject;
    int iIndex;
};

struct __mv_core_fsm_queue {
    MV_CoreQueue** coreQueue;
    int ThreadCount;
    int MaxQueueCount;
    MV_Mutex Lock;
};

int __mv_core_create_queue(void** queuePoolObject, fnptr ptrCallBackHandler, int iNoOfThreads, int maxQueueItems);
int __mv_core_create_queueobject(void** queuePoolObject, int forAppWorkerThreads, int maxQueueItems);
int __mv_core_queue_item(void* queuePoolObject, void* dataItem);
int __mv_core_queue_item_force(void* queuePoolObject, void* dataItem, int force);
void __mv_core_queue_set_mps(void* queuePoolObject, int mps);
void __mv_set_mpscounter(fnhook Handler);
int __mv_core_queue_post(void* objQueue, void* item);
int __mv_core_queue_get(void* objQueue, void** dataItem);
int __mv_core_queue_wait(void* objQueue, void** dataItem);

int __mv_core_create_fsmqueue(void** fsmQueuePoolObject, fnptr ptrCallBackHandler, int iNoOfThreads, int maxQueueItems);
int __mv_core_queue_fsm2(void* fsmQueuePoolObject, uint32_t index, void* dataItem, fnexec executor);
int __mv_core_queue_fsm(void* fsmQueuePoolObject, uint32_t index, void* dataItem);

void __mv__per_log_pending_queuecount(const char* name, void* queue);
void __mv__per_log_pending_fsmqueuecount(const char* name, void* queue);
int __mv__queuecount(void* queue);

// Queue lines: one shared pool of call records served by a growing set of threads.
typedef void (*fnline)(void* data);

struct MV_Queue {
    MV_Queue* Next;
    uint32_t isReleased;
    void* data;
    fnline handler;
};

struct MV_Thread {
    MV_Thread* Next;
    pthread_t id;
    long LastTotalProcessedCount;
    long LastProcessedCount;
    long TotalProcessedCount;
    long TotalProcessedTime;
    long AvgProcessedTime;
    long MaxTimeTakenCounter;
    int isActive;
    long LastTimerTick;
};

#define __initial_queue_processing_thread_count 5
#define MV_QUEUE_LINE_MAX_THREADS 50

void __mv_core_queue(void* data, fnline handler);
void __mv_core_set_queue_processing_thread_count(int icount);
long __mv_core_get_last_processed_queue_count();
// Feeds the backlog average that decides thread growth (called once a second).
void __mv_core_queue_update_backlog();

// ---------------------------------------------------------------- timers

#define MV_TIMER_WHEEL_SLOTS 21600

struct MV_Timer {
    MV_Timer* Next;
    uint32_t isReleased;
    std::atomic<uint32_t> isCleared;
    void* data;
    fnline handler;
    // Changes at every arming, so that an owner holding a stale pointer cannot
    // clear the timer of whoever took the record after it.
    std::atomic<uint64_t> Generation;
};

struct MV_Timer_Tick {
    MV_Timer* Head;
    MV_Timer* Current;
    MV_Mutex Lock;
};

MV_Timer* __mv_core_start_timer(void* data, fnline handler, int seconds);
void __mv_core_clear_timer(MV_Timer* timer);
uint64_t __mv_core_timer_generation(MV_Timer* timer);
// Clears only when the record still belongs to the arming of that generation.
void __mv_core_clear_timer_gen(MV_Timer* timer, uint64_t generation);
int __mv_core_sch_timer(MV_Timer* timer, int seconds);
// The wheel slot a delay of `seconds` lands in when the present slot is `tickIndex`.
constexpr int __mv_core_timer_slot(int tickIndex, int seconds) {
    int slot = tickIndex + seconds;
    return slot >= MV_TIMER_WHEEL_SLOTS ? slot - MV_TIMER_WHEEL_SLOTS : slot;
}
MV_Timer* __mv_allocate_timer();
void __mv_release_timer(MV_Timer* timer);
int __mv_core_get_timer_tick();
long __mv_core_get_server_timer_tick();
int __mv_TotalTimerPoolCount();
int __mv_AvailableTimerPoolCount();
long __mv_UsedTimerPoolCount();

// ---------------------------------------------------------------- auxiliary pools (fuller forms live beside)

struct MV_MemoryPool;
struct MV_MemoryHead;
struct MV_Stream;
struct MV_Event;
struct MV_EventSet;
struct MV_Task;
struct MV_LinkedListItem;
struct MV_LinkedList;
struct MV_ServiceRequest;
struct MV_Activity;
struct MV_AppEventInfo;
struct mv_morva_pool_t;

typedef void (*fnevent)(int eventType, void* eventDataPtr);

struct MV_EventHandler {
    int eventType;
    fnevent handler;
};

struct MV_MemoryPool {
    uint32_t InitialPoolSize;
    uint32_t IncrementPoolSize;
    uint32_t size;
    uint32_t TotalPoolSize;
    uint32_t Available;
    uint64_t Used;
    uint32_t MemoryReservedCount;
    uint64_t Returned;
    MV_MemoryHead* Head;
    MV_MemoryHead* Current;
    MV_Mutex Lock;
};

#define MV_MEMORY_POOL_CLASSES 41
#define MV_EVENT_HANDLER_MAX 30

// ---------------------------------------------------------------- the core record

struct __mv_core {
    MV_CoreDataRecord* DataRecordHead;
    MV_CoreDataRecord* DataRecordCurrent;
    int DataRecordAvailableCount;
    int DataRecordCount;
    MV_Mutex DataRecordLock;

    MV_CoreQueueRecord* QueueRecordHead;
    MV_CoreQueueRecord* QueueRecordCurrent;
    int QueueRecordAvailableCount;
    int QueueRecordCount;
    MV_Mutex QueueRecordLock;

    MV_Mutex StreamLock;
    MV_Stream* StreamHead;
    MV_Stream* StreamCurrent;
    int StreamPoolAvailableCount;
    int StreamPoolCount;

    MV_Mutex EventLock;
    MV_Event* EventHead;
    MV_Event* EventCurrent;
    int EventPoolAvailableCount;
    int EventPoolCount;

    std::atomic<int> LocalTimeValue;
    std::atomic<uint64_t> UUID4SerialNumber;
    char LogRootPath[249];
    MV_LogConfig LogConfig[MV_LOG_TYPE_COUNT];
    MV_MemoryPool MemoryPool[MV_MEMORY_POOL_CLASSES];
    MV_Mutex MemoryFreeLock;
    MV_EventSet* eventSet;

    MV_Mutex TaskLock;
    MV_Task* TaskHead;
    MV_Task* TaskCurrent;
    int TaskPoolAvailableCount;
    int TaskPoolCount;

    MV_EventHandler EventHandler[MV_EVENT_HANDLER_MAX];
    int EventHandlerCount;

    // queue lines
    MV_Queue* QueueLineHead;
    MV_Queue* QueueLineCurrent;
    long QueueLineCount;
    long QueueLineLastProcessedCount;
    std::atomic<long> QueueLineTotalProcessedCount;
    long QueueLineLastQueuedCount;
    long QueueLineTotalQueuedCount;
    long QueueBacklog;
    long QueueBacklogTotal;
    long LastAvgQueueBacklog;
    int QueueLineThreadCount;
    long QueueUsedTimes;
    MV_Mutex QueueLineLock;
    time_t QueueLineThreadIncreasedTime;
    MV_Queue* QueueHead;
    MV_Queue* QueueCurrent;
    MV_Mutex QueueLock;
    int TotalQueuePoolCount;
    int AvailableQueuePoolCount;
    MV_Sem queue_sem_lock;

    // timers
    MV_Timer* TimerHead;
    MV_Timer* TimerCurrent;
    MV_Mutex TimerLock;
    int TotalTimerPoolCount;
    long UsedTimerPoolCount;
    int AvailableTimerPoolCount;
    MV_Timer_Tick* Timers;
    std::atomic<int> TimerTickIndex;
    std::atomic<long> SeverTimerTick;

    MV_LinkedList* LinkedListPoolHead;
    MV_LinkedList* LinkedListPoolCurrent;
    MV_Mutex LinkedListPoolLock;
    int TotalLinkedListPoolCount;
    int AvailableLinkedListPoolCount;

    MV_Thread* ThreadHead;
    MV_Thread* ThreadCurrent;

    MV_AppEventInfo* AppEventInfoHead;
    std::atomic<MV_AppEventInfo*> AppEventInfoCurrent;
    MV_Mutex AppEventInfoLock;

    MV_ServiceRequest* ServiceRequestHead;
    MV_ServiceRequest* ServiceRequestCurrent;
    MV_Mutex ServiceRequestLock;
    int ServiceRequestTotalPoolCount;
    int ServiceRequestAvailablePoolCount;

    MV_Activity* ActivityHead;
    MV_Activity* ActivityCurrent;
    MV_Mutex ActivityLock;
    int ActivityTotalPoolCount;
    int ActivityAvailablePoolCount;

    std::atomic<mv_morva_pool_t*> mv_buffPool;
    time_t startTime;
    std::atomic<uint32_t> enableStackPerLog;
};

extern __mv_core* __mvCore;

void __init_morva_core();

// Pools and services whose full forms stand beside the core; __init_morva_core fills them.
void __mv_createStreamPool(int count, int inLockMode);
void __mv_createEventPool(int count, int inLockMode);
void __mv_createTaskPool(int count, int inLockMode);
void __mv_queue_create(int count, int inLockMode);
void __mv_timer_create(int count, int inLockMode);
void* __mv_core_timer_thread(void* arg);
void __mv_core_timer_tick_once();
void __mv_initalize_MemoryPools();
void __mv_add_app_event_handler(fnhook handler);
uint8_t __mv_core_getU8RAND();
uint16_t __mv_core_getU16RAND();
uint32_t __mv_core_getU32RAND();
void* __mv_core_appevents_thread(void* arg);
void __mv_core_enable_perf_log();
void __mv_core_disable_perf_log();
void __mv_log_buffer_memory_stats();
uint64_t __mv_core_getU64RAND();
