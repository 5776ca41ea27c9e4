// Counters of a test by application type, the engine-wide N1 counters and tallies,
// and the performance thread's once-a-second block.
#include "Kestrane_counters.h"

#include <cstdio>
#include <iterator>
#include <mutex>
#include <vector>

#include "KsPool.h"
#include "Kestrane.h"
#include "Kestrane_nodes.h"
#include "mv_socket_engine.h"

namespace {

using T = __mv_ks__test_exec;

constexpr const char* kDashes =
    "------------------------------------------------------------------------------------------------";
static_assert(std::char_traits<char>::length(kDashes) == 96);

constexpr long kCounterLimit = 10000000;

#define KS_NAME_ROW(field, name) {&T::field, name},
constexpr KsCounterName kNames[] = {KS_TEST_COUNTERS(KS_NAME_ROW)};
#undef KS_NAME_ROW

// ---------------------------------------------------------------- AMF (1)

constexpr KsCounterField kAmfPrinted[] = {
    &T::RegistrationRequest,        &T::RegistrationAccept,          &T::RegistrationComplete,
    &T::RegistrationReject,         &T::AuthenticationRequest,       &T::AuthenticationResult,
    &T::AuthenticationFailure,      &T::AuthenticationReject,        &T::SecurityModeCommand,
    &T::SecurityModeComplete,       &T::SecurityModeReject,          &T::IdentityRequest,
    &T::IdentityResponse,           &T::DeregistrationRequest,       &T::DeregistrationAccept,
    &T::ConfigurationUpdateCommand, &T::ConfigurationUpdateComplete, &T::ServiceRequest,
    &T::ServiceAccept,              &T::ServiceReject,               &T::InitailContextSetupRequest,
    &T::InitailContextSetupResponse, &T::UEContextReleaseRequest,    &T::UEContextReleaseCommand,
    &T::UEContextReleaseComplete,   &T::PDUSessionEstablishmentRequest, &T::PDUSessionEstablishmentAccept,
    &T::PDUSessionReleaseRequest,   &T::PDUSessionReleaseCommand,    &T::PDUSessionReleaseComplete,
    &T::ErrorIndication,
};

#define KS_AMF_ROW(id, field) {id, &T::field},
constexpr KsCounterRow kAmfConsole[] = {KS_CONSOLE_COUNTERS_AMF(KS_AMF_ROW)};
#undef KS_AMF_ROW

// Reset with types 1 and 2 but never printed.
constexpr KsCounterField kNasResetOnly[] = {
    &T::RegistrationTimeout,          &T::AuthenticationTimeout,   &T::ServiceTimeout,
    &T::SecurityModeTimeout,          &T::PDUSessionEstablishmentTimeout, &T::PDUSessionEstablishmentReject,
    &T::PDUSessionReleaseTimeout,     &T::NGAPSendFailed,
};

// ---------------------------------------------------------------- the others: print order is console order

template <size_t N>
struct Rows {
    KsCounterRow row[N];
    KsCounterField field[N];
};

constexpr const KsCounterNumbering& numberingOf(uint32_t type) {
    for (const KsCounterNumbering& n : kKsCounterNumbering)
        if (n.AppType == type) return n;
    return kKsCounterNumbering[0];
}

template <size_t N>
constexpr Rows<N> numbered(const KsCounterField (&fields)[N], uint32_t type) {
    Rows<N> r{};
    for (size_t i = 0; i < N; ++i) {
        r.row[i] = {KsCounterNumber(numberingOf(type), i), fields[i]};
        r.field[i] = fields[i];
    }
    return r;
}

#define KS_FIELD_ROW(field, name) &T::field,
constexpr KsCounterField kUpfFields[] = {KS_TEST_COUNTERS_UPF(KS_FIELD_ROW)};
constexpr KsCounterField kPgwFields[] = {KS_TEST_COUNTERS_PGW(KS_FIELD_ROW)};
constexpr KsCounterField kSgwFields[] = {KS_TEST_COUNTERS_SGW(KS_FIELD_ROW)};
constexpr KsCounterField kHssFields[] = {KS_TEST_COUNTERS_HSS(KS_FIELD_ROW)};
constexpr KsCounterField kEirFields[] = {KS_TEST_COUNTERS_EIR(KS_FIELD_ROW)};
constexpr KsCounterField kPcrfFields[] = {KS_TEST_COUNTERS_PCRF(KS_FIELD_ROW)};
constexpr KsCounterField kAaaFields[] = {KS_TEST_COUNTERS_AAA(KS_FIELD_ROW)};
constexpr KsCounterField kChfFields[] = {KS_TEST_COUNTERS_CHF(KS_FIELD_ROW)};
constexpr KsCounterField kGgsnFields[] = {KS_TEST_COUNTERS_GGSN(KS_FIELD_ROW)};
#undef KS_FIELD_ROW

constexpr auto kUpf = numbered(kUpfFields, 2);
constexpr auto kPgw = numbered(kPgwFields, 5);
constexpr auto kSgw = numbered(kSgwFields, 6);
constexpr auto kHss = numbered(kHssFields, 7);
constexpr auto kEir = numbered(kEirFields, 8);
constexpr auto kPcrf = numbered(kPcrfFields, 10);
constexpr auto kAaa = numbered(kAaaFields, 11);
constexpr auto kChf = numbered(kChfFields, 12);
constexpr auto kGgsn = numbered(kGgsnFields, 31);

static_assert(kHss.row[59].ID == 1044 && kPcrf.row[23].ID == 1104 && kAaa.row[11].ID == 1164 &&
              kChf.row[11].ID == 1134 && kPgw.row[8].ID == 1193 && kSgw.row[8].ID == 1323 && kGgsn.row[8].ID == 1409 &&
              kUpf.row[15].ID == 316 && kEir.row[3].ID == 604);

template <size_t N>
constexpr KsCounterBlock block(uint32_t type, const Rows<N>& r, const KsCounterField* resetOnly = nullptr,
                               size_t resetOnlyCount = 0) {
    return {type, r.field, N, r.row, N, resetOnly, resetOnlyCount};
}

constexpr KsCounterBlock kBlocks[] = {
    {1, kAmfPrinted, std::size(kAmfPrinted), kAmfConsole, std::size(kAmfConsole), kNasResetOnly,
     std::size(kNasResetOnly)},
    block(2, kUpf, kNasResetOnly, std::size(kNasResetOnly)),
    block(5, kPgw),
    block(6, kSgw),
    block(7, kHss),
    block(8, kEir),
    block(10, kPcrf),
    block(11, kAaa),
    block(12, kChf),
    block(31, kGgsn),
};

constexpr KsCounterBlock kEmptyBlock{0, nullptr, 0, nullptr, 0, nullptr, 0};

void printCounter(MV_Counter& c) { __mv_counter_plog4(&c, MV_PER_LOG); }

template <class F>
void forEachOfBlock(T* t, const KsCounterBlock& b, F&& f) {
    for (size_t i = 0; i < b.PrintedCount; ++i) f(t->*b.Printed[i]);
    // The console rows of type 1 hold its reset-only counters too; a second reset
    // of a counter changes nothing, so the union needs no care.
    for (size_t i = 0; i < b.ConsoleCount; ++i) f(t->*b.Console[i].Field);
    for (size_t i = 0; i < b.ResetOnlyCount; ++i) f(t->*b.ResetOnly[i]);
}

int64_t readLocked(const int64_t& v, MV_Mutex& m) {
    std::lock_guard g(m);
    return v;
}

}  // namespace

const KsCounterBlock& KsEngine__CounterBlock(uint32_t AppType) {
    for (const KsCounterBlock& b : kBlocks)
        if (b.AppType == AppType) return b;
    return kEmptyBlock;
}

const KsCounterName* KsEngine__CounterNames(size_t* count) {
    if (count) *count = std::size(kNames);
    return kNames;
}

void KsEngine__InitTestCounters(__mv_ks__test_exec* tstItem) {
    for (const KsCounterName& n : kNames) __mv_counter_init(&(tstItem->*n.Field), kCounterLimit, n.Name);
}

void KsEngine__ReInit_MVCounters(__mv_ks__test_exec* tstItem, int total) {
    forEachOfBlock(tstItem, KsEngine__CounterBlock(tstItem->AppType),
                   [total](MV_Counter& c) { __mv_counter_reinit(&c, total); });
    __mv_counter_reinit(&tstItem->ExecutionTimeout, total);
    __mv_counter_reinit(&tstItem->StepSendFailed, total);
    if (total == 1) tstItem->StepSendFailed.SendFailed = 0;
}

void Kestrane___writeTestStats(__mv_ks__test_exec* tstItem, int) {
    if (tstItem->Status != KS_TEST__RUNNING) return;
    char stamp[40];
    __mv_makeDBTimeStamp(stamp);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "%s", kDashes);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "%s   TestName=%s   AppType=%u    TPS=%d", stamp,
             tstItem->TestName, tstItem->AppType, int(tstItem->MPS * tstItem->NoOfTimes));
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "%s", kDashes);
    const KsCounterBlock& b = KsEngine__CounterBlock(tstItem->AppType);
    for (size_t i = 0; i < b.PrintedCount; ++i) printCounter(tstItem->*b.Printed[i]);
    printCounter(tstItem->ExecutionTimeout);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "%s", kDashes);
}

void KsEngine__CreateN1Counters() {
#define KS_CREATE_N1(field, name) __ksEngine->field = __mv_counter_create(kCounterLimit, name);
    KS_N1_COUNTERS(KS_CREATE_N1)
#undef KS_CREATE_N1
}

void KsEngine__IncrUERegistered() { ++__ksEngine->UERegistered; }
void KsEngine__IncrUEDeRegistered() { ++__ksEngine->UEDeRegistered; }
void KsEngine__IncrUERegistrationRejected() { ++__ksEngine->UERegRejected; }
void KsEngine__TimeOut() { ++__ksEngine->TestCaseTimeout; }

// ---------------------------------------------------------------- the performance block

void KsEngine__WritePerformanceBlock() {
    // Deltas of the step rate since the last block; only this thread reads them.
    static int64_t prevReceived = 0, prevSent = 0;
    __mv_ks__engine* e = __ksEngine;
    char stamp[40];
    __mv_makeDBTimeStamp(stamp);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "%s", stamp);
    __mv_log_buffer_memory_stats();

    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "%-40s   %-10s    %-10s     %-10s     %-10s", "Name",
             "Used Times", "Available", "Total", "InUse");
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "%s", kDashes);
    uint32_t ueTotal = e->ksUEPoolTotal, ueAvail = e->ksUEPoolAvailable;
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "%-40s   %-10d    %-10d     %-10d", "UE-Pool",
             int(ueTotal - ueAvail), int(ueAvail), int(ueTotal));
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "%-40s   %-10d", "Configured-UEs", int(e->ksUETotal));
    auto poolLine = [](const char* name, uint64_t used, uint32_t avail, uint32_t total, bool inUse) {
        if (inUse)
            __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "%-40s   %-10d    %-10d     %-10d     %-10d", name,
                     int(used), int(avail), int(total), int(total - avail));
        else
            __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "%-40s   %-10d    %-10d     %-10d", name, int(used),
                     int(avail), int(total));
    };
    if (auto* p = e->ksEventPool) poolLine("Event", p->used(), p->available(), p->total(), false);
    if (auto* p = e->ksStepExecutionPool) poolLine("StepExec", p->used(), p->available(), p->total(), true);
    {
        uint64_t used;
        uint32_t avail, total;
        {
            std::lock_guard g(e->ngRanUeContextLock);
            used = e->ngRanUeContextUsed;
            avail = e->ngRanUeContextAvailable;
            total = e->ngRanUeContextTotal;
        }
        poolLine("RanUEPool", used, avail, total, true);
    }
    poolLine("Timer", uint64_t(__mv_UsedTimerPoolCount()), uint32_t(__mv_AvailableTimerPoolCount()),
             uint32_t(__mv_TotalTimerPoolCount()), true);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "%s", kDashes);

    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "Registered : %-8lu    De-Registered : %-8lu    Rejected : %-8lu",
             (unsigned long)e->UERegistered.load(), (unsigned long)e->UEDeRegistered.load(),
             (unsigned long)e->UERegRejected.load());
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "ExecutingQ : %-8lu    Executed      : %-8lu    ",
             (unsigned long)readLocked(e->executngSteps, e->executngStepsLock),
             (unsigned long)readLocked(e->executedSteps, e->executedStepsLock));
    int64_t received = readLocked(e->lastReceived, e->lastReceivedLock);
    int64_t sent = readLocked(e->lastSent, e->lastSentLock);
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "Recv [T:%d L:%d]    Sent [T:%d L:%d] Waiting:%d", int(received),
             int(received - prevReceived), int(sent), int(sent - prevSent), int(sent - received));
    prevReceived = received;
    prevSent = sent;
    __mv_log(MV_PER_LOG, LOG_CAT_CORE, MV_LOG_CRITICAL, "NGAP: NGSetupResponseIncomplete=%lu",
             (unsigned long)e->NGSetupResponseIncomplete.load());

    for (int i = 0; i < KS_STEP_QUEUE_COUNT; ++i)
        if (e->M_MPS_Q[i]) __mv__per_log_pending_queuecount("MPS-Q", e->M_MPS_Q[i]);
    if (e->fsmNGAPProcessingQueue) __mv__per_log_pending_fsmqueuecount("FSM-Q", e->fsmNGAPProcessingQueue);
    __mv_socket_engine_print_stats();

    std::lock_guard g(e->tstExecLock);
    for (KsTestExec* t = e->tstExecHead; t; t = t->Next)
        if (t->Status == KS_TEST__RUNNING) Kestrane___writeTestStats(t, 0);
}

// ---------------------------------------------------------------- RAN statistics

namespace {

// The counts are rebuilt into a table by connection id and then stored into the
// connections, so that a reader of a connection's counts never sees one half built.
// Only the "rst" thread uses the table; it is never destroyed, since that thread runs
// until the process ends.
std::vector<KsRanStatsCounts>& registryCounts() {
    static auto& v = *new std::vector<KsRanStatsCounts>;
    return v;
}

void registryZero() {
    uint32_t next;
    {
        std::lock_guard g(__ksEngine->ranAMFConnLock);
        next = __ksEngine->ranAMFConnID;
    }
    registryCounts().assign(size_t(next) + 1, KsRanStatsCounts{});
}

// Connection ids run from 1 without gaps, so the table stands for KsEngine__FindRANByID
// without a walk of the connection list for every UE.
KsRanStatsCounts* registryFind(uint32_t id) {
    std::vector<KsRanStatsCounts>& v = registryCounts();
    return id >= 1 && id < v.size() ? &v[id] : nullptr;
}

// The UE words are written by the UEs' own threads and read here without their lines'
// order, as the statistics are meant to be: a count may lag a change by one rebuild
// (six seconds). The words are aligned and at most four bytes, so a read is never torn;
// the thread sanitizer is told so.
__attribute__((no_sanitize("thread"))) void registryForEachUE(void (*fn)(const KsRanStatsUE&, void*), void* arg) {
    // A loader may be appending to the list meanwhile.
    std::lock_guard g(__ksEngine->ksUELock);
    for (MV_KsUE* ue = __ksEngine->ksUEHead; ue; ue = ue->Next) {
        KsRanStatsUE u{};
        u.RMStatus = ue->TGPP.RMStatus;
        u.CMStatus = ue->TGPP.CMStatus;
        u.AMFConnId = ue->AMFConnId;
        u.Latched = ue->_initT3PP == 1 || ue->_initNT3PP == 1;
        for (const MV_KsUEPduSession& p : ue->pduSessions) u.StartedSessions += p.isStarted == 1;
        fn(u, arg);
    }
}

void registryPublish() {
    std::vector<KsRanStatsCounts>& v = registryCounts();
    for (MV_KsRanAmfConnection* c = __ksEngine->ranAMFConnHead.load(); c; c = c->ConnNext.load()) {
        KsRanStatsCounts n = c->ID < v.size() ? v[c->ID] : KsRanStatsCounts{};
        c->UEContexts = n.UEContexts;
        c->PDUSessions = n.PDUSessions;
        c->Registrations = n.Registrations;
    }
}

constexpr KsRanStatsSource kRegistry{registryZero, registryFind, registryForEachUE, registryPublish};
std::atomic<const KsRanStatsSource*> ranStatsSource{&kRegistry};

}  // namespace

void KsEngine__SetRanStatsSource(const KsRanStatsSource* source) { ranStatsSource = source ? source : &kRegistry; }

void KsEngine___rebuildRanStats(const KsRanStatsSource* src) {
    src->ZeroAll();
    src->ForEachUE(
        [](const KsRanStatsUE& ue, void* arg) {
            if (ue.RMStatus != 1 || ue.AMFConnId == 0 || !ue.Latched) return;
            KsRanStatsCounts* c = static_cast<const KsRanStatsSource*>(arg)->FindConnection(ue.AMFConnId);
            if (!c) return;
            ++c->Registrations;
            if (ue.CMStatus == 1) {
                ++c->UEContexts;
                c->PDUSessions += ue.StartedSessions;
            }
        },
        const_cast<KsRanStatsSource*>(src));
    if (src->Publish) src->Publish();
}

void KsEngine__doRanStats() {
    // The "rst" thread calls this once a second; the counts are rebuilt from the UEs
    // on every sixth call, not kept as UEs change.
    static std::atomic<int> call{0};
    int now = call.load();
    call = now == 5 ? 0 : now + 1;
    if (now == 0) KsEngine___rebuildRanStats(ranStatsSource.load());
}
