// The runtime's promises: log line formats and rolling, queue bounds and order,
// FSM lines, queue lines and the timer wheel.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ks_test_util.h"
#include "mv_core.h"

namespace {

std::string gRoot;

class CoreEnv : public ::testing::Environment {
public:
    void SetUp() override {
        gRoot = kst::makeTempDir("core");
        __init_morva_core();
        __mv_init_logger((gRoot + "/logs/").c_str());
    }
    void TearDown() override { kst::removeTree(gRoot); }
};

::testing::Environment* const env = ::testing::AddGlobalTestEnvironment(new CoreEnv);

std::string logDir(const char* sub) { return gRoot + "/logs//" + sub; }

// ---------------------------------------------------------------- logger

TEST(Logger, LineFormatsByChannel) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_WARNING, "app line %d", 7);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_INFO, "per line %d", 8);
    __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "stk line");

    std::string app = kst::readLogDir(logDir("app"));
    std::string per = kst::readLogDir(logDir("per"));
    std::string stk = kst::readLogDir(logDir("stk"));
    // tag|dd-mm-yyyy:hh:mm:ss:usec|thread|category|message
    EXPECT_NE(app.find("[W]|"), std::string::npos);
    EXPECT_NE(app.find("||app line 7\n"), std::string::npos) << app;
    EXPECT_NE(per.find("per line 8\n"), std::string::npos);
    EXPECT_EQ(per.find("[I]"), std::string::npos) << "the performance log carries neither tag nor stamp";
    EXPECT_NE(stk.find("|CORE|stk line\n"), std::string::npos) << stk;

    size_t bar = app.find('|');
    ASSERT_NE(bar, std::string::npos);
    std::string stamp = app.substr(bar + 1, 26);
    EXPECT_EQ(stamp[2], '-');
    EXPECT_EQ(stamp[5], '-');
    EXPECT_EQ(stamp[10], ':');
    EXPECT_EQ(stamp[19], ':');
}

TEST(Logger, FileNameCarriesPrefixAndTime) {
    __mv_log(MV_CMN_LOG, LOG_CAT_CORE, MV_LOG_ERROR, "name check");
    auto files = kst::listFiles(logDir("cmn"));
    ASSERT_FALSE(files.empty());
    std::string name = files[0].substr(files[0].rfind('/') + 1);
    // CMN_dd_mm_yyyy_hh_mm_ss_usec.log
    EXPECT_EQ(name.rfind("CMN_", 0), 0u) << name;
    EXPECT_EQ(name.size(), strlen("CMN_23_11_2026_03_02_20_931151.log")) << name;
}

TEST(Logger, ThresholdLengthAndCategories) {
    __mv_set_log_level(MV_CUS_LOG2, MV_LOG_WARNING);
    __mv_log(MV_CUS_LOG2, LOG_CAT_APP, MV_LOG_DEBUG, "below threshold");
    __mv_set_log_level(MV_CUS_LOG2, 9);  // out of range: ignored
    EXPECT_EQ(__mv_log_get_level(MV_CUS_LOG2), MV_LOG_WARNING);

    std::string fmt2901(2901, 'x');
    __mv_log(MV_CUS_LOG2, LOG_CAT_APP, MV_LOG_ERROR, fmt2901.c_str(), 0);
    std::string fmt2900(2900, 'y');
    __mv_log(MV_CUS_LOG2, LOG_CAT_APP, MV_LOG_ERROR, "%s%s", fmt2900.c_str(), "tail");

    __mv_log_cat_enable_disable(MV_CUS_LOG2, 7, 0);
    __mv_log(MV_CUS_LOG2, 7, MV_LOG_CRITICAL, "critical in a disabled category");
    __mv_log(MV_CUS_LOG2, 7, MV_LOG_ERROR, "error in a disabled category");
    __mv_log(MV_CUS_LOG2, 30, MV_LOG_CRITICAL, "category out of range");
    __mv_log(6, 0, MV_LOG_CRITICAL, "type out of range");

    std::string cmn = kst::readLogDir(logDir("cmn"));
    EXPECT_EQ(cmn.find("below threshold"), std::string::npos);
    EXPECT_EQ(cmn.find(std::string(100, 'x')), std::string::npos) << "a format of 2901 characters is dropped";
    size_t y = cmn.find(std::string(2900, 'y'));
    ASSERT_NE(y, std::string::npos) << "a message that expands past 2900 bytes is cut, not dropped";
    EXPECT_EQ(cmn.find("tail", y), std::string::npos);
    EXPECT_NE(cmn.find("critical in a disabled category"), std::string::npos);
    EXPECT_EQ(cmn.find("error in a disabled category"), std::string::npos);
    EXPECT_EQ(cmn.find("out of range"), std::string::npos);
}

TEST(Logger, RollsAtExactly70000Lines) {
    std::string dir = gRoot + "/roll";
    __mv_configure_log(MV_CUS_LOG3, MV_LOG_DEBUG, "ROLL", dir.c_str(), 0);
    for (int i = 1; i <= MV_LOG_LINES_PER_FILE + 1; ++i) __mv_log(MV_CUS_LOG3, LOG_CAT_CORE, MV_LOG_INFO, "%d", i);
    auto files = kst::listFiles(dir);
    ASSERT_EQ(files.size(), 2u);
    std::sort(files.begin(), files.end());
    std::string first = kst::readFile(files[0]), second = kst::readFile(files[1]);
    if (second.size() > first.size()) std::swap(first, second);
    EXPECT_EQ(kst::countOccurrences(first, "\n"), 70000u);
    EXPECT_EQ(second, "70001\n");
}

TEST(Logger, DeletePassKeepsTenNewestOfTwentyExamined) {
    std::string dir = kst::makeTempDir("prune");
    for (int i = 0; i < 25; ++i) {
        std::string p = dir + "/f" + std::to_string(i) + ".log";
        kst::writeFile(p, "x");
        struct timespec times[2] = {{1000000 + i, 0}, {1000000 + i, 0}};
        utimensat(AT_FDCWD, p.c_str(), times, 0);
    }
    __mv_log_delete_old_log_files(dir.c_str(), 10, 20);
    EXPECT_EQ(kst::listFiles(dir).size(), 15u) << "10 kept of the 20 examined, 5 not examined";
    __mv_log_delete_old_log_files(dir.c_str(), 10, 20);
    EXPECT_EQ(kst::listFiles(dir).size(), 10u);
    __mv_log_delete_old_log_files((dir + "/missing").c_str(), 10, 20);  // no directory: nothing happens
    kst::removeTree(dir);
}

// ---------------------------------------------------------------- generic queue

struct Collector {
    std::mutex m;
    std::vector<intptr_t> seen;
    std::set<std::string> threadNames;
    void add(void* d) {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        std::lock_guard g(m);
        seen.push_back(reinterpret_cast<intptr_t>(d));
        threadNames.insert(name);
    }
    size_t size() {
        std::lock_guard g(m);
        return seen.size();
    }
};

Collector gQueueSeen;
void collectHandler(void* d, int) { gQueueSeen.add(d); }

TEST(Queue, BoundRefusesUntilForced) {
    void* q = nullptr;
    ASSERT_EQ(__mv_core_create_queueobject(&q, 0, 1), 1);
    EXPECT_EQ(__mv_core_queue_item(q, reinterpret_cast<void*>(1)), 1);
    EXPECT_EQ(__mv_core_queue_item(q, reinterpret_cast<void*>(2)), 0);
    EXPECT_EQ(__mv_core_queue_item_force(q, reinterpret_cast<void*>(3), 1), 1);
    EXPECT_EQ(__mv_core_queue_item(nullptr, reinterpret_cast<void*>(4)), -1);
    EXPECT_EQ(__mv__queuecount(q), 2);
    void* got = nullptr;
    EXPECT_EQ(__mv_core_queue_get(q, &got), 1);
    EXPECT_EQ(got, reinterpret_cast<void*>(1));
    EXPECT_EQ(__mv_core_queue_wait(q, &got), 1);
    EXPECT_EQ(got, reinterpret_cast<void*>(3));
    EXPECT_EQ(__mv_core_queue_get(q, &got), 0);
    EXPECT_EQ(got, nullptr);
}

std::atomic<int> gHookCalls{0};
void countingHook() { ++gHookCalls; }

TEST(Queue, SingleWorkerIsFifoAndNullItemsRunNothing) {
    void* q = nullptr;
    ASSERT_EQ(__mv_core_create_queue(&q, collectHandler, 1, 100000), 1);
    __mv_set_mpscounter(countingHook);
    __mv_core_queue_set_mps(q, 1000000);  // paced, but never reaching the pause
    EXPECT_EQ(__mv_core_queue_item_force(q, nullptr, 1), 1);
    constexpr int kItems = 5000;
    for (intptr_t i = 1; i <= kItems; ++i) ASSERT_EQ(__mv_core_queue_item(q, reinterpret_cast<void*>(i)), 1);
    ASSERT_TRUE(kst::waitFor([] { return gQueueSeen.size() == kItems; }, 10));
    __mv_set_mpscounter(nullptr);
    std::lock_guard g(gQueueSeen.m);
    for (int i = 0; i < kItems; ++i) ASSERT_EQ(gQueueSeen.seen[size_t(i)], i + 1);
    EXPECT_EQ(gQueueSeen.threadNames, std::set<std::string>{"app_thread"});
    EXPECT_EQ(gHookCalls.load(), kItems + 1) << "the hook runs once per item, the null one included";
}

// ---------------------------------------------------------------- FSM lines

constexpr int kLines = 8;
std::atomic<int> gHandlerCalls{0};
void fsmHandler(void*, int) { ++gHandlerCalls; }

struct LineItem {
    int line;
    int seq;
};
std::vector<int> gLastSeq(kLines, 0);
std::atomic<int> gOutOfOrder{0};
std::atomic<int> gExecuted{0};
std::atomic<int> gWrongThread{0};
std::vector<pthread_t> gLineThread(kLines);
std::vector<std::atomic<int>> gLineThreadSet(kLines);

void lineExecutor(void* d) {
    auto* it = static_cast<LineItem*>(d);
    // Each line is served by one thread, so these plain per-line writes need no lock.
    if (it->seq != gLastSeq[size_t(it->line)] + 1) ++gOutOfOrder;
    gLastSeq[size_t(it->line)] = it->seq;
    if (gLineThreadSet[size_t(it->line)].exchange(1) == 0) gLineThread[size_t(it->line)] = pthread_self();
    else if (!pthread_equal(gLineThread[size_t(it->line)], pthread_self())) ++gWrongThread;
    delete it;
    ++gExecuted;
}

TEST(FsmQueue, EachLineRunsInOrderOnOneThreadWithItsExecutor) {
    void* f = nullptr;
    ASSERT_EQ(__mv_core_create_fsmqueue(&f, fsmHandler, kLines, 10), 1);
    constexpr int kPerLine = 2000;
    std::vector<std::thread> posters;
    // Several posters; each owns some lines so that per-line post order is defined.
    for (int p = 0; p < 4; ++p) {
        posters.emplace_back([f, p] {
            for (int s = 1; s <= kPerLine; ++s)
                for (int line = p; line < kLines; line += 4)
                    __mv_core_queue_fsm2(f, uint32_t(line), new LineItem{line, s}, lineExecutor);
        });
    }
    for (auto& t : posters) t.join();
    ASSERT_TRUE(kst::waitFor([] { return gExecuted.load() == kLines * kPerLine; }, 20));
    EXPECT_EQ(gOutOfOrder.load(), 0);
    EXPECT_EQ(gWrongThread.load(), 0);
    EXPECT_EQ(gHandlerCalls.load(), 0) << "an item with an executor never reaches the thread's handler";
    EXPECT_EQ(__mv_core_queue_fsm2(f, kLines, nullptr, nullptr), -1) << "an index past the lines is refused";
    EXPECT_EQ(__mv_core_queue_fsm2(nullptr, 0, nullptr, nullptr), -1);
}

// ---------------------------------------------------------------- queue lines and timers

Collector gLineSeen;
void lineHandler(void* d) { gLineSeen.add(d); }

TEST(QueueLines, RunEveryItemOnQueueLineThreads) {
    for (intptr_t i = 1; i <= 3000; ++i) __mv_core_queue(reinterpret_cast<void*>(i), lineHandler);
    ASSERT_TRUE(kst::waitFor([] { return gLineSeen.size() == 3000; }, 10));
    std::lock_guard g(gLineSeen.m);
    EXPECT_EQ(std::set<intptr_t>(gLineSeen.seen.begin(), gLineSeen.seen.end()).size(), 3000u);
    EXPECT_EQ(gLineSeen.threadNames, std::set<std::string>{"mv-q-exec"});
}

TEST(TimerWheel, SlotArithmeticWrapsOnce) {
    EXPECT_EQ(__mv_core_timer_slot(21599, 2), 1);
    EXPECT_EQ(__mv_core_timer_slot(0, 1), 1);
    EXPECT_EQ(__mv_core_timer_slot(100, 21500), 0);
    EXPECT_EQ(__mv_core_start_timer(nullptr, lineHandler, 0), nullptr);
    EXPECT_EQ(__mv_core_start_timer(nullptr, nullptr, 1), nullptr);
    EXPECT_EQ(__mv_core_start_timer(nullptr, lineHandler, MV_TIMER_WHEEL_SLOTS), nullptr) << "a full lap is refused";
}

std::atomic<int> gFired{0};
std::atomic<int> gFiredOnTimerThread{0};
void timerHandler(void*) {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    if (std::string(name) == "mv_timer") ++gFiredOnTimerThread;
    ++gFired;
}

TEST(TimerWheel, FiresOnceOnAQueueLineAndNeverAfterAClear) {
    long used0 = __mv_UsedTimerPoolCount();
    MV_Timer* fires = __mv_core_start_timer(nullptr, timerHandler, 1);
    MV_Timer* cleared = __mv_core_start_timer(nullptr, timerHandler, 1);
    ASSERT_NE(fires, nullptr);
    ASSERT_NE(cleared, nullptr);
    __mv_core_clear_timer(cleared);
    __mv_core_clear_timer(nullptr);
    EXPECT_EQ(__mv_UsedTimerPoolCount(), used0 + 2) << "a cleared timer stands in the wheel until its slot comes round";
    ASSERT_TRUE(kst::waitFor([] { return gFired.load() >= 1; }, 4));
    ASSERT_TRUE(kst::waitFor([&] { return __mv_UsedTimerPoolCount() == used0; }, 4));
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_EQ(gFired.load(), 1);
    EXPECT_EQ(gFiredOnTimerThread.load(), 0);
}

TEST(TimerWheel, StaleGenerationCannotClearTheNextOwnersTimer) {
    MV_Timer* t = __mv_core_start_timer(nullptr, timerHandler, 2);
    ASSERT_NE(t, nullptr);
    uint64_t gen = __mv_core_timer_generation(t);
    __mv_core_clear_timer_gen(t, gen + 1);
    EXPECT_EQ(t->isCleared.load(), 0u);
    __mv_core_clear_timer_gen(t, gen);
    EXPECT_EQ(t->isCleared.load(), 1u);
}

TEST(TimeHelpers, StampsAndStartTime) {
    char a[40], b[40];
    __mv_makeTimeStamp(a);
    __mv_makeDBTimeStamp(b);
    EXPECT_EQ(strlen(a), 26u);
    EXPECT_EQ(strlen(b), 19u);
    struct timeval tv = {0, 5};
    char c[40];
    __mv_makeTimeStamp2(&tv, c, 0);
    EXPECT_STREQ(c, "01-01-1970 00:00:00.000005");
    EXPECT_EQ(__mv_core__get_start_time_as_u32(0), uint32_t(uint64_t(__mvCore->startTime) + 2208988800ULL));
}

TEST(Paths, MkpathMakesEveryLevelAndRefusesAFile) {
    std::string dir = kst::makeTempDir("mkpath");
    EXPECT_EQ(__mv_mkpath((dir + "/a/b/c").c_str(), 0700), 0);
    struct stat st;
    ASSERT_EQ(stat((dir + "/a/b/c").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    kst::writeFile(dir + "/file", "x");
    EXPECT_NE(__mv_do_mkdir((dir + "/file").c_str(), 0700), 0);
    EXPECT_EQ(errno, ENOTDIR);
    kst::removeTree(dir);
}

}  // namespace
