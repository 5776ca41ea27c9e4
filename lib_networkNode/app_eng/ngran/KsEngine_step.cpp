// The registrations of modules and the road of a step to its runner: the step queue
// hands a UE to its line, the line to the runner its StepIndex names. Tables here are
// filled while modules start and only appended to; readers take the count with acquire
// and walk newest first, so a later registration wins and no reader sees a half row.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "KsEngine_registry.h"
#include "Kestrane.h"

namespace {

// Rows appended under a lock, read without one.
template <class Row, size_t N>
struct AppendOnly {
    Row rows[N]{};
    std::atomic<size_t> count{0};
    std::mutex lock;

    bool add(const Row& r) {
        std::lock_guard g(lock);
        size_t n = count.load(std::memory_order_relaxed);
        if (n >= N) return false;
        rows[n] = r;
        count.store(n + 1, std::memory_order_release);
        return true;
    }
    // The newest row that `match` accepts, or null.
    template <class F>
    const Row* latest(F match) const {
        for (size_t i = count.load(std::memory_order_acquire); i-- > 0;)
            if (match(rows[i])) return &rows[i];
        return nullptr;
    }
};

struct RunnerRow {
    uint32_t first, last;
    const char* name;
    KsStepRunner run;
};

// The runner family of each StepIndex range as dispatch names it, whether or not the
// family is in this build: a step of an absent family completes under this name. The 5G
// EIR step (6001) reaches the 5G EIR runner.
constexpr RunnerRow kFamilies[] = {
    {0, 999, "KsNAS__runStep_FQ", nullptr},
    {1000, 1999, "KsPFCP__runStep_FQ", nullptr},
    {2000, 2999, "KsPGW__runStep_FQ", nullptr},
    {3000, 3999, "KsSGW__runStep_FQ", nullptr},
    {4000, 4900, "KsS1AP__runStep_FQ", nullptr},
    {4901, 4903, "KsGGSN__runStep_FQ", nullptr},
    {4904, 4999, "KsS1AP__runStep_FQ", nullptr},
    {5000, 5999, "Ks4GEIR__runStep_FQ", nullptr},
    {6000, 6999, "Ks5GEIR__runStep_FQ", nullptr},
    {7000, 7999, "KsAAA__runStep_FQ", nullptr},
    {8000, 8999, "KsCHF__runStep_FQ", nullptr},
    {9000, 9999, "KsPCRF__runStep_FQ", nullptr},
    {10000, 10999, "KsHSS__runStep_FQ", nullptr},
    {11000, 11999, "KsSMF__runStep_FQ", nullptr},
    {12000, UINT32_MAX, "KsNAS__runStep_FQ", nullptr},
};

AppendOnly<RunnerRow, 64> runners;
std::atomic<KsStepRunner> runnerOverride{nullptr};

// The narrowest registered range that holds the index, the later of two alike: a family
// of its own wins over a broad range, in whatever order the modules started.
const RunnerRow* registeredRunner(uint32_t stepIndex) {
    const RunnerRow* best = nullptr;
    for (size_t i = runners.count.load(std::memory_order_acquire); i-- > 0;) {
        const RunnerRow& r = runners.rows[i];
        if (stepIndex < r.first || stepIndex > r.last) continue;
        if (!best || r.last - r.first < best->last - best->first) best = &r;
    }
    return best;
}

const RunnerRow* family(uint32_t stepIndex) {
    for (const RunnerRow& r : kFamilies)
        if (stepIndex >= r.first && stepIndex <= r.last) return &r;
    return nullptr;
}

// Runs the runner of a StepIndex, or completes the step as one whose family is absent.
void runIndex(MV_KsUE* ksUe, uint32_t stepIndex) {
    if (const RunnerRow* r = registeredRunner(stepIndex)) {
        r->run(ksUe);
        return;
    }
    if (const RunnerRow* f = family(stepIndex)) Kestrane___runnerNotAvailable(ksUe, f->name);
}

struct ModuleRow {
    const char* name;
    KsModuleInit init;
};
// Filled before main by the generated registrations, which run before any thread.
ModuleRow modules[64];
size_t moduleCount = 0;
std::once_flag modulesStarted;

std::atomic<KsStartStep> startSteps[size_t(KsStartSlot::Count)];

AppendOnly<const KsStepCatalogueEntry*, 256> stepBuilders;
AppendOnly<KsCommandStepRow, 256> commandSteps;
AppendOnly<const KsTemplatedCommand*, 64> templatedCommands;

// A setting of data/set.json: the member of the application type name, the value of the
// setting id as text.
const char* settingValue(const char* member, uint32_t id) {
    json_t* m = json_object_get(__ksEngine->prot_settings, member);
    if (!json_is_object(m)) return nullptr;
    char key[16];
    snprintf(key, sizeof key, "%u", id);
    const char* k;
    json_t* v;
    json_object_foreach(m, k, v) {
        if (strcmp(k, key) == 0) return json_is_string(v) ? json_string_value(v) : nullptr;
    }
    return nullptr;
}

}  // namespace

// ---------------------------------------------------------------- settings

const char* KsNAS_GetSettingValue(uint32_t id) { return settingValue("AMF", id); }
const char* KsPFCP_GetPFCPSettingValue(uint32_t id) { return settingValue("UPF", id); }
const char* KsPFCP_GetSGWSettingValue(uint32_t id) { return settingValue("SGW", id); }
const char* KsPFCP_GetPGWSettingValue(uint32_t id) { return settingValue("PGW", id); }
const char* KsGGSN_GetPGWSettingValue(uint32_t id) { return settingValue("GGSN", id); }

// ---------------------------------------------------------------- the UE's line

int KsEngine__PostToUELine(MV_KsUE* ksUe, fnexec work) {
    if (!ksUe) return -1;
    void* lines = __ksEngine ? __ksEngine->fsmNGAPProcessingQueue : nullptr;
    if (!lines || __ksEngine->fsmNGAPProcessingThreadCount == 0) return 0;
    return __mv_core_queue_fsm2(lines, uint32_t(ksUe->ueId % __ksEngine->fsmNGAPProcessingThreadCount), ksUe, work) == 1
               ? 1
               : 0;
}

// ---------------------------------------------------------------- registered operations

namespace {
std::atomic<const KsUserPlane*> gUserPlane{nullptr};
std::atomic<const KsCommandQueue*> gCommandQueue{nullptr};
}  // namespace

void KsEngine__RegisterCommandQueue(const KsCommandQueue* queue) {
    gCommandQueue.store(queue, std::memory_order_release);
}
const KsCommandQueue* KsEngine__CommandQueue() { return gCommandQueue.load(std::memory_order_acquire); }

void KsEngine__RegisterUserPlane(const KsUserPlane* ops) { gUserPlane.store(ops, std::memory_order_release); }
const KsUserPlane* KsEngine__UserPlane() { return gUserPlane.load(std::memory_order_acquire); }

// ---------------------------------------------------------------- the road to a runner

void Kestrane___runStep(void* v, int index) {
    (void)index;
    if (auto* ue = static_cast<MV_KsUE*>(v)) KsEngine__PostToUELine(ue, Kestrane___runStepFSM);
}

void Kestrane___runStepFSM(void* v) {
    auto* ksUe = static_cast<MV_KsUE*>(v);
    KsStepExecution* head = ksUe->ksStepExecutionHead;
    KsStep* st = head ? head->ksStep : nullptr;
    if (!st) {
        if (head)
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "  ksUe=%p  ksStepExecutionHead=%p  ksStep=%p   %s|%s|%d",
                     (void*)ksUe, (void*)head, (void*)st, __FILE_NAME__, __func__, __LINE__);
        // The 5G runner finds nothing to run, or stops on the broken execution.
        if (const RunnerRow* r = registeredRunner(0)) r->run(ksUe);
        return;
    }
    if (st->StepIndex == 0) {
        switch (st->StepCode) {
            case 39: st->StepIndex = 1001; break;
            case 40: st->StepIndex = 1002; break;
            case 41: st->StepIndex = 1003; break;
            // The console's user-plane steps run where the scenario's do.
            case 7: case 12: case 13: case 14: case 24: case 25: case 26: case 27: case 28:
                st->StepIndex = 7;
                break;
            default:
                __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "StepIndex Not Coded for StepCode=%d  %s|%s|%d",
                         int(st->StepCode), __FILE_NAME__, __func__, __LINE__);
        }
    }
    if (KsStepRunner r = runnerOverride.load(std::memory_order_relaxed)) {
        r(ksUe);
        return;
    }
    runIndex(ksUe, st->StepIndex);
}

// ---------------------------------------------------------------- runners

int KsEngine__RegisterRunner(uint32_t first, uint32_t last, const char* name, KsStepRunner runner) {
    if (first > last || !name || !runner) return -1;
    return runners.add({first, last, name, runner}) ? 1 : -1;
}

KsStepRunner KsEngine__RunnerOfStepIndex(uint32_t StepIndex) {
    const RunnerRow* r = registeredRunner(StepIndex);
    return r ? r->run : nullptr;
}

const char* Kestrane___runnerNameOfStepIndex(uint32_t StepIndex) {
    if (const RunnerRow* r = registeredRunner(StepIndex)) return r->name;
    const RunnerRow* f = family(StepIndex);
    return f ? f->name : nullptr;
}

void KsEngine__SetRunnerOverride(KsStepRunner runner) { runnerOverride = runner; }

void Kestrane___runnerNotAvailable(MV_KsUE* ksUe, const char* runner) {
    if (!ksUe->ksStepExecution) ksUe->ksStepExecution = ksUe->ksStepExecutionHead;
    KsStep* st = ksUe->ksStepExecution ? ksUe->ksStepExecution->ksStep : nullptr;
    uint32_t code = st ? st->StepCode : ksUe->StepCode;
    ksUe->StepCode = code;
    if (KsTestExec* t = ksUe->testExec) {
        ++t->StepSendFailed.SendFailed;
        ++t->StepSendFailed.Total;
    }
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] StepCode=%u has no runner in this build (%s), counted as send-failed %s|%d",
             KsUE__supi(ksUe), code, runner, __func__, __LINE__);
    KS_COMPLETE_STEP(ksUe, code);
}

// ---------------------------------------------------------------- modules

int KsEngine__AddModule(const char* name, KsModuleInit init) {
    if (!name || !init || moduleCount >= std::size(modules)) return -1;
    modules[moduleCount++] = {name, init};
    return 1;
}

void KsEngine__InitModules(void) {
    std::call_once(modulesStarted, [] {
        for (size_t i = 0; i < moduleCount; ++i) {
            modules[i].init();
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "module %s started %s|%d", modules[i].name, __func__,
                     __LINE__);
        }
    });
}

bool KsEngine__HasModule(const char* name) {
    for (size_t i = 0; name && i < moduleCount; ++i)
        if (strcmp(modules[i].name, name) == 0) return true;
    return false;
}

int KsEngine__RegisterStartStep(KsStartSlot slot, KsStartStep step) {
    if (slot >= KsStartSlot::Count) return -1;
    startSteps[size_t(slot)] = step;
    return 1;
}

int KsEngine__RunStartStep(KsStartSlot slot, json_t* cfg) {
    if (slot >= KsStartSlot::Count) return -1;
    KsStartStep step = startSteps[size_t(slot)].load();
    return step ? step(cfg) : -ENOENT;
}

// ---------------------------------------------------------------- catalogue and command rows

int KsEngine__RegisterStepBuilder(const KsStepCatalogueEntry* entry) {
    if (!entry || entry->StepId == 0 || entry->StepId > 199999) return -1;
    return stepBuilders.add(entry) ? 1 : -1;
}

const KsStepCatalogueEntry* KsEngine___registeredStepBuilder(uint32_t stepId) {
    const auto* const* r = stepBuilders.latest([&](const KsStepCatalogueEntry* e) { return e->StepId == stepId; });
    return r ? *r : nullptr;
}

int KsEngine__RegisterCommandStep(uint32_t command, uint32_t stepCode, uint32_t stepIndex) {
    if (command == 0) return -1;
    return commandSteps.add({command, stepCode, stepIndex, nullptr}) ? 1 : -1;
}

KsCommandStepRow* KsEngine___registeredCommandSteps(size_t* count) {
    *count = commandSteps.count.load(std::memory_order_acquire);
    return commandSteps.rows;
}

const KsCommandStepRow* KsEngine___registeredCommandStep(uint32_t command) {
    return commandSteps.latest([&](const KsCommandStepRow& r) { return r.Command == command; });
}

int KsEngine__RegisterTemplatedCommand(const KsTemplatedCommand* row) {
    if (!row || !row->pick) return -1;
    return templatedCommands.add(row) ? 1 : -1;
}

const KsTemplatedCommand* KsEngine___registeredTemplatedCommand(uint32_t appType) {
    const auto* const* r = templatedCommands.latest([&](const KsTemplatedCommand* c) { return c->AppType == appType; });
    return r ? *r : nullptr;
}
