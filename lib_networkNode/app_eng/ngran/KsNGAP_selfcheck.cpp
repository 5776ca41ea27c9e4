// The self check of the RAN UE contexts: every context of the first RAN found again by the
// RAN UE NGAP id derived from it.
#include "KsNGAP.h"
#include "KsUE.h"
#include "Kestrane_engine.h"
#include "Kestrane_nodes.h"

int KsTDD_runUeContextTest(void) {
    MV_KsNGRan* ran = __ksEngine->ngRanHead.load();
    if (!ran) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "__ksEngine->ngRanHead IS NULL <%s|%s|%d>", __FILE_NAME__,
                 __func__, __LINE__);
        return -1;
    }
    uint64_t total = __ksEngine->ngRanUeContextTotal;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "ngRanHead=%p Total=%lu Available=%lu <%s|%s|%d>", (void*)ran,
             (unsigned long)total, (unsigned long)__ksEngine->ngRanUeContextAvailable, __FILE_NAME__, __func__,
             __LINE__);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
             "ranUeContextDerived = %p SHOULD BE NULL RAN-UE-NGAP-ID=%lu <%s|%s|%d>",
             (void*)KsNGAP___GetKsNGRanUeContext(ran, 500), 500ul, __FILE_NAME__, __func__, __LINE__);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL,
             "ranUeContextDerived = %p SHOULD NOT BE NULL RAN-UE-NGAP-ID=%lu <%s|%s|%d>",
             (void*)KsNGAP___GetKsNGRanUeContext(ran, 501), 501ul, __FILE_NAME__, __func__, __LINE__);
    int missed = 0;
    for (uint64_t round = 0; round < 21 * total; ++round) {
        MV_KsNGRanUeContext* ctx = KsEngine__AllocateKsNGRanUeContext(ran);
        if (!ctx) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "RAN UE Context Allocation Failed <%s|%s|%d>",
                     __FILE_NAME__, __func__, __LINE__);
            return -1;
        }
        uint64_t id = KsNGAP___GetKsNGRanUeContext_UEId(ctx);
        MV_KsNGRanUeContext* derived = KsNGAP___GetKsNGRanUeContext(ran, id);
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG,
                 "ID=%lu  GenId=%lu  RAN-UE-NGAP-ID=%lu  ranUeContext=%p  ranUeContextDerived=%p ID=%lu  GenId=%lu   "
                 "<%s|%s|%d>",
                 (unsigned long)ctx->id, (unsigned long)ctx->GenId.load(), (unsigned long)id, (void*)ctx,
                 (void*)derived, derived ? (unsigned long)derived->id : 0ul,
                 derived ? (unsigned long)derived->GenId.load() : 0ul, __FILE_NAME__, __func__, __LINE__);
        missed += derived != ctx;
        KsEngine__ReleaseKsNGRanUeContext(ran, ctx);
    }
    return missed;
}

void KsTDD_run(int bRun) {
    if (!bRun) return;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "Begin <%s|%s|%d>", __FILE_NAME__, __func__, __LINE__);
    int missed = KsTDD_runUeContextTest();
    if (missed > 0)
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "%d derived RAN UE NGAP ids missed their context <%s|%s|%d>",
                 missed, __FILE_NAME__, __func__, __LINE__);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "End <%s|%s|%d>", __FILE_NAME__, __func__, __LINE__);
}
