// Console commands of one UE: latched to a RAN on the console's thread while no test runs
// for it, then turned into steps and started on the UE's line, in order with the rest of
// that UE's work.
#include <cstring>
#include <mutex>

#include "KsEngine_step.h"
#include "KsNGAP.h"

namespace {

constexpr uint32_t kCommandUpdateUE = 17;
constexpr uint32_t kCommandSqnHandling = 18;

// Leftovers of a finished test, or executions no runner ever started, are in the way of a
// new command; a step still running is not.
bool executionsDone(const MV_KsUE* ue) {
    return (!ue->ksStepExecution && ue->EndOfTest == 0) || (ue->ksStepExecutionHead && ue->EndOfTest == 1);
}

}  // namespace

void KsNGAP__deleteKsStepExecution(MV_KsUE* ue) {
    if (!ue || !executionsDone(ue)) return;
    KsScanario__ReleaseUEExecutionSteps(ue);
    ue->EndOfTest = 0;
    ue->TotalKsSteps = 0;
}

void KsNGAP__run_command(MV_KsUE* ue) {
    if (!ue) return;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "[%s] 3GPP-Latch-Status=%u to <%s|%s|%d>", KsUE__supi(ue),
             ue->_initT3PP, __FILE_NAME__, __func__, __LINE__);
    if (ue->_initT3PP == 0) {
        KsNGAP__deleteKsStepExecution(ue);
        uint32_t number = 0, connId = 0;
        char mcc[4] = "", mnc[4] = "";
        {
            // The console may be appending behind the head meanwhile.
            std::lock_guard g(ue->commandLock);
            if (const MV_KsTestCommand* c = ue->commandHead) {
                number = c->Command;
                connId = c->RANAMFConnId;
                memcpy(mcc, c->MCC, sizeof mcc);
                memcpy(mnc, c->MNC, sizeof mnc);
            }
        }
        if (number == kCommandUpdateUE) {
            memcpy(ue->TAI_MCC, mcc, sizeof mcc);
            memcpy(ue->TAI_MNC, mnc, sizeof mnc);
            ue->TAI_MCC[3] = ue->TAI_MNC[3] = 0;
            if (connId) ue->AMFConnId = connId;
        }
        // Registration and the handovers name the connection they start on.
        bool named = number == 12 || number == 13 || number == 9;
        uint32_t status = 0;
        KsEngine__FindRANAndLatch(ue, KS_ACCESS__3GPP, &status, named ? connId : 0);
    }
    if (ue->_initT3PP == 1) {
        if (KsNGAP__run_thread(ue, ue->ueId, KsNGAP__run_command_async) != 1)
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "[%s] UE lines not running, command stays queued <%s|%s|%d>",
                     KsUE__supi(ue), __FILE_NAME__, __func__, __LINE__);
        return;
    }
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] UE Latching Failed _initT3PP=%u <%s|%s|%d>", KsUE__supi(ue),
             ue->_initT3PP, __FILE_NAME__, __func__, __LINE__);
}

void KsNGAP__run_command_async(void* obj) {
    auto* ue = static_cast<MV_KsUE*>(obj);
    if (!ue) return;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
             "[%s] command-exec-async TestNotStarted=%d TestCompleted=%d  EndOfTest=%d  <%s|%s|%d>", KsUE__supi(ue),
             ue->ksStepExecutionHead == nullptr, ue->CompletedKsStep >= ue->TotalKsSteps, int(ue->EndOfTest),
             __FILE_NAME__, __func__, __LINE__);
    if (executionsDone(ue)) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                 "[%s] command-exec-async deleteKsStepExecution ksStepExecution=%p ksStepExecutionHead=%p EndOfTest=%u   "
                 "<%s|%s|%d>",
                 KsUE__supi(ue), (void*)ue->ksStepExecution, (void*)ue->ksStepExecutionHead, ue->EndOfTest,
                 __FILE_NAME__, __func__, __LINE__);
        KsNGAP__deleteKsStepExecution(ue);
    }
    if (ue->ksStepExecutionHead || ue->ksStepExecution) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "cannot run step, previous command execuction not completed supi=[%s]  <%s|%s|%d>\n", KsUE__supi(ue),
                 __FILE_NAME__, __func__, __LINE__);
        return;
    }
    const KsCommandQueue* q = KsEngine__CommandQueue();
    MV_KsTestCommand* c = q ? q->Pop(ue) : nullptr;
    if (!c) return;
    ue->CompletedKsStep = 0;
    ue->ksStepExecutionItemCount = 0;
    q->Add(c, ue);
    if (c->RANAMFConnId) ue->AMFConnId = c->RANAMFConnId;
    const uint32_t number = c->Command;
    q->Release(c);
    // Updates of the UE are done by now; a number without a step (300, no block) adds none.
    if (number == kCommandUpdateUE || number == kCommandSqnHandling || !ue->ksStepExecutionHead) return;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "%s Running Command=%d %s|%s|%d", KsUE__supi(ue), int(number),
             __FILE_NAME__, __func__, __LINE__);
    Kestrane___runStepFSM(ue);
}
