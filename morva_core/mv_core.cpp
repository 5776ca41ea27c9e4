// Core record, arena, plain heap, threads, process limits, time and path helpers.
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "mv_core.h"

__mv_core* __mvCore = nullptr;

namespace {

std::mutex __mv_MallocLock;
char* __mv_globalMxMemory = nullptr;
size_t __mv_globalMxCurrPos = 0;
size_t __mv_globalMxAllocatedMem = 0;
int __mv_init_malloc_mb_size = 96;
std::atomic<int> coreDumpOnRequest{0};
std::atomic<int> logMallocBlock{0};
std::once_flag __init_morva;

constexpr size_t kArenaChunk = 0x1800000;

// Arena memory must stay valid for any record type placed in it; the arena hands
// out exactly what is asked, so the helpers below round up to keep alignment.
constexpr size_t kArenaAlign = alignof(std::max_align_t);

void takeChunk(size_t size, bool zeroed) {
    size_t chunk = size <= kArenaChunk ? kArenaChunk : size * 2;
    void* m = zeroed ? calloc(1, chunk) : malloc(chunk);
    if (!m) {
        printf("memory allocation failed of size=%d %s|%d\n", int(size), __func__, __LINE__);
        abort();
    }
    __mv_globalMxMemory = static_cast<char*>(m);
    __mv_globalMxCurrPos = 0;
    __mv_globalMxAllocatedMem = chunk;
}

}  // namespace

void __mv_initial_malloc_mb(int imb) {
    if (imb > 0) __mv_init_malloc_mb_size = imb;
}

void __mv_initial_malloc() {
    std::lock_guard g(__mv_MallocLock);
    if (__mv_globalMxMemory) return;
    size_t size = size_t(__mv_init_malloc_mb_size) * 1024 * 1024;
    void* m = calloc(1, size);
    if (!m) {
        printf("memory allocation failed of size=%d %s|%d\n", int(size), __func__, __LINE__);
        abort();
    }
    __mv_globalMxMemory = static_cast<char*>(m);
    __mv_globalMxCurrPos = 0;
    __mv_globalMxAllocatedMem = size;
}

void* __mv_malloc(size_t size) {
    if (coreDumpOnRequest) {
        printf("generating core 1.1\n");
        abort();
    }
    size = (size + kArenaAlign - 1) & ~(kArenaAlign - 1);
    std::lock_guard g(__mv_MallocLock);
    if (!__mv_globalMxMemory || __mv_globalMxCurrPos + size >= __mv_globalMxAllocatedMem) {
        takeChunk(size, false);
        printf("__mv_globalMxAllocatedMem=%lu  cp=%lu  %s|%d\n", (unsigned long)__mv_globalMxAllocatedMem,
               (unsigned long)__mv_globalMxCurrPos, __func__, __LINE__);
    }
    void* p = __mv_globalMxMemory + __mv_globalMxCurrPos;
    __mv_globalMxCurrPos += size;
    return p;
}

void __mv_malloc2(size_t size, void** dataPtr) {
    if (coreDumpOnRequest) {
        printf("generating core 1.0\n");
        abort();
    }
    if (dataPtr) *dataPtr = __mv_malloc(size);
}

void __mv_CoreDumpOnMemoryRequest() { coreDumpOnRequest = 1; }
int __mv_CoreDumpOnMemoryRequest_isEnabled() { return coreDumpOnRequest; }

void* __mv_malloc_block(size_t size, const char* file, int line) {
    if (logMallocBlock)
        printf("requesting memory with size=%ld requestor=[%s|%d]  %s|%d\n", long(size), file, line, __func__, __LINE__);
    return malloc(size);
}

void __mv_LogMallocBlock() { logMallocBlock = 1; }

// ---------------------------------------------------------------- threads

namespace {
struct ThreadStart {
    mv_thread_fn routine;
    void* arg;
    char name[16];
};

void* threadTrampoline(void* p) {
    ThreadStart s = *static_cast<ThreadStart*>(p);
    delete static_cast<ThreadStart*>(p);
    pthread_setname_np(pthread_self(), s.name);
    return s.routine(s.arg);
}

int startThread(mv_thread_fn start_routine, void* arg, const char* funcName, pthread_t* out) {
    auto* s = new ThreadStart{start_routine, arg, {}};
    // Linux limits thread names to 15 characters.
    snprintf(s->name, sizeof s->name, "%s", funcName ? funcName : "");
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t tid;
    int rc = pthread_create(&tid, &attr, threadTrampoline, s);
    pthread_attr_destroy(&attr);
    if (rc != 0) delete s;
    else if (out) *out = tid;
    return rc;
}

bool cpuInRange(int cpu_id) { return cpu_id >= 0 && cpu_id <= get_nprocs(); }
}  // namespace

int __mv_create_pthread2(mv_thread_fn start_routine, void* arg, const char* funcName) {
    return startThread(start_routine, arg, funcName, nullptr);
}

int __mv_create_pthread_oncore(mv_thread_fn start_routine, void* arg, const char* funcName, int cpu_id) {
    if (!cpuInRange(cpu_id)) {
        printf("thread creation failed\n");
        return 22;
    }
    pthread_t tid;
    int rc = startThread(start_routine, arg, funcName, &tid);
    if (rc != 0) return rc;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu_id, &set);
    pthread_setaffinity_np(tid, sizeof set, &set);
    return 0;
}

int __mv_set_pthread_on_core(int cpu_id) {
    if (!cpuInRange(cpu_id)) return 22;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu_id, &set);
    return pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

void __mv_enable_coredump() {
    struct rlimit rl;
    rl.rlim_cur = RLIM_INFINITY;
    rl.rlim_max = RLIM_INFINITY;
    setrlimit(RLIMIT_CORE, &rl);
}

void __mv_core_set_max_fd(int iMaxFdCount) {
    struct rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0) {
        if (errno == EPERM) printf("getrlimit() failed with errno=%d, requires sudo user\n", errno);
        else printf("getrlimit() failed with errno=%d\n", errno);
        return;
    }
    rlim_t want = rlim_t(iMaxFdCount);
    if (rl.rlim_cur >= want) return;  // never lowers
    rl.rlim_cur = want;
    if (rl.rlim_max < want) rl.rlim_max = want;
    if (setrlimit(RLIMIT_NOFILE, &rl) != 0) {
        printf("setrlimit() failed with errno=%d, unable to set max fd-to-%d\n", errno, iMaxFdCount);
        return;
    }
    printf("new fd soft limit is %lu\n", (unsigned long)rl.rlim_cur);
    printf("new fd hard limit is %lu\n", (unsigned long)rl.rlim_max);
}

// ---------------------------------------------------------------- time

namespace {
// Stamps are formatted wide and cut: a time-stamp buffer holds 28 bytes.
template <class... A>
void stamp28(char* out, const char* fmt, A... a) {
    char wide[128];
    snprintf(wide, sizeof wide, fmt, a...);
    memcpy(out, wide, 27);
    out[27] = 0;
}

void nowLocal(struct timeval* tv, struct tm* tm, bool local) {
    gettimeofday(tv, nullptr);
    time_t t = tv->tv_sec + (local ? __mv_getLocalTimeValue() : 0);
    gmtime_r(&t, tm);
}
}  // namespace

int __mv_getLocalTimeValue() { return __mvCore ? __mvCore->LocalTimeValue.load() : 0; }

void __mv_setLocalTimeValue(int ltv) {
    if (__mvCore) __mvCore->LocalTimeValue = ltv;
}

void __mv_makeTimeStamp(char* datestring) {
    struct timeval tv;
    struct tm tm;
    nowLocal(&tv, &tm, true);
    stamp28(datestring, "%02d-%02d-%d:%02d:%02d:%02d:%06lu", tm.tm_mday, tm.tm_mon + 1, tm.tm_year + 1900,
             tm.tm_hour, tm.tm_min, tm.tm_sec, (unsigned long)tv.tv_usec);
}

void __mv_makeDBTimeStamp(char* datestring) {
    struct timeval tv;
    struct tm tm;
    nowLocal(&tv, &tm, true);
    stamp28(datestring, "%d-%02d-%02d %02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
             tm.tm_min, tm.tm_sec);
}

void __mv_makeTimeStamp2(struct timeval* tv, char* datestring, int convertToLocal) {
    struct tm tm;
    time_t t = tv->tv_sec + (convertToLocal ? __mv_getLocalTimeValue() : 0);
    gmtime_r(&t, &tm);
    stamp28(datestring, "%02d-%02d-%02d %02d:%02d:%02d.%06ld", tm.tm_mon + 1, tm.tm_mday, tm.tm_year + 1900,
             tm.tm_hour, tm.tm_min, tm.tm_sec, long(tv->tv_usec));
}

void __mv_makeIntFileName(char* mFileNameBuffer, const char* mPath, const char* mFilePrefix, int iFileIndex) {
    (void)iFileIndex;
    struct timeval tv;
    struct tm tm;
    nowLocal(&tv, &tm, true);
    sprintf(mFileNameBuffer, "%s/%s_%02d_%02d_%d_%02d_%02d_%02d_%06lu.log", mPath, mFilePrefix, tm.tm_mday,
            tm.tm_mon + 1, tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec, (unsigned long)tv.tv_usec);
}

void __mv_makeDateTimeFileName(char* mFileNameBuffer, const char* mPath, const char* mFilePrefix, const char* ext) {
    struct timeval tv;
    struct tm tm;
    nowLocal(&tv, &tm, false);
    sprintf(mFileNameBuffer, "%s/%s_%02d_%02d_%d_%02d_%02d_%02d_%06lu.%s", mPath, mFilePrefix, tm.tm_mday,
            tm.tm_mon + 1, tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec, (unsigned long)tv.tv_usec, ext);
}

void __mv_StartExecTime(MV_ExecTime* o) {
    gettimeofday(&o->before, nullptr);
    o->after = {};
    o->lapsed = {};
}

void __mv_EndExecTime(MV_ExecTime* o) {
    gettimeofday(&o->after, nullptr);
    timersub(&o->after, &o->before, &o->lapsed);
}

void __mv_nanosleep(long tv_nsec) {
    if (tv_nsec < 0) return;
    if (tv_nsec > 999999999) tv_nsec = 999999999;
    struct timespec ts = {0, tv_nsec};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

uint32_t __mv_core__get_start_time_as_u32(uint32_t addseconds) {
    uint64_t start = __mvCore ? uint64_t(__mvCore->startTime) : uint64_t(time(nullptr));
    return uint32_t(start + addseconds + 2208988800ULL);
}

void __mv_core_wait_secs(int secs) {
    for (int i = 0; i < secs + 1; ++i) usleep(999999);
}

int __mv_do_mkdir(const char* path, mode_t mode) {
    struct stat st;
    if (stat(path, &st) != 0) {
        if (mkdir(path, mode) != 0 && errno != EEXIST) return -1;
    } else if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    return 0;
}

int __mv_mkpath(const char* path, mode_t mode) {
    if (!path || !*path) return -1;
    char copy[PATH_MAX];
    if (snprintf(copy, sizeof copy, "%s", path) >= int(sizeof copy)) return -1;
    for (char* p = copy + 1; *p; ++p) {
        if (*p != '/') continue;
        *p = 0;
        int rc = __mv_do_mkdir(copy, mode);
        *p = '/';
        if (rc != 0) return rc;
    }
    return __mv_do_mkdir(copy, mode);
}

// ---------------------------------------------------------------- start

namespace {
void initCore() {
    srand(unsigned(time(nullptr)));
    __mv_initial_malloc();

    __mvCore = __mv_arena_new<__mv_core>();
    __mvCore->startTime = time(nullptr);
    __mvCore->EventHandlerCount = 0;
    __mvCore->LocalTimeValue = 0;
    __mvCore->UUID4SerialNumber = __mv_core_getU64RAND();
    __mvCore->QueueLineThreadIncreasedTime = time(nullptr);

    __mv_log_cat_setName(MV_STK_LOG, LOG_CAT_CORE, "CORE");
    __mv_log_cat_setName(MV_STK_LOG, LOG_CAT_STREAM, "MV-STREAM");
    __mv_log_cat_setName(MV_CMN_LOG, LOG_CAT_BUFFER, "MV-BUFFER");
    __mv_log_cat_enable_disable(MV_CMN_LOG, LOG_CAT_BUFFER, 1);

    __mv_createStreamPool(500, 1);
    __mv_createEventPool(500, 1);
    __mv_createTaskPool(500, 1);
    __mv_queue_create(20000, 1);
    __mv_timer_create(1000, 1);

    __mvCore->Timers = __mv_arena_new_array<MV_Timer_Tick>(MV_TIMER_WHEEL_SLOTS);
    __mvCore->SeverTimerTick = 1;
    __mvCore->TimerTickIndex = 0;

    __mv_create_pthread2(__mv_core_timer_thread, nullptr, "mv_timer");
    __mv_create_pthread2(__mv_core_appevents_thread, nullptr, "mv_appevents");

    __mv_initalize_MemoryPools();
    __mvCore->mv_buffPool = nullptr;

    printf("available %d processors of %d\n", get_nprocs(), get_nprocs_conf());
}
}  // namespace

void __init_morva_core() { std::call_once(__init_morva, initCore); }
