// The UE table: the block of UE records, the IMSI and N2 handover indexes, adding a
// subscriber, the PLMN and serving network name helpers, and latching UEs to RANs.
#include "KsUE.h"

#include <arpa/inet.h>
#include <sys/mman.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "Kestrane.h"
#include "Kestrane_nodes.h"
#include "Kestrane_seams.h"
#include "Kestrane_util.h"
#include "mv_bytes.h"
#include "mv_fifo.h"

namespace {

// Records below this index have been handed out at least once and hold a live
// object; the rest of the block is untouched zero pages. Written under ksUEPoolLock.
std::atomic<uint32_t> nextFresh{0};
size_t poolBytes = 0;

bool isDigits(const char* s, size_t minLen, size_t maxLen) {
    if (!s) return false;
    size_t n = strlen(s);
    return n >= minLen && n <= maxLen && strspn(s, "0123456789") == n;
}

template <class S>
void setString(S& s, const char* text) {
    size_t n = strnlen(text, sizeof s.val - 1);
    memcpy(s.val, text, n);
    s.val[n] = 0;
    s.len = uint16_t(n);
    s.isset = 1;
}

MV_KsUE* imsiFind(const char* imsi) {
    void* p = nullptr;
    if (!imsi || !*imsi || !__ksEngine || !__ksEngine->imsiTable) return nullptr;
    __mv_power_table_fnd(__ksEngine->imsiTable, imsi, int(strlen(imsi)), &p);
    return static_cast<MV_KsUE*>(p);
}

void appendConfigured(MV_KsUE* ue) {
    ue->Next = nullptr;
    if (__ksEngine->ksUECurrent) __ksEngine->ksUECurrent->Next = ue;
    else __ksEngine->ksUEHead = ue;
    __ksEngine->ksUECurrent = ue;
    __ksEngine->ksUELast = ue;
    ++__ksEngine->ksUETotal;
}

// Serialises adds, so that two loaders never add one IMSI twice.
MV_Mutex addLock;

mv_fifo::CoreFifo<MV_KsUE, uint32_t> uePool() {
    return {__ksEngine->ksUEPoolHead, __ksEngine->ksUEPoolCurrent, __ksEngine->ksUEPoolLock, __ksEngine->ksUEPoolTotal,
            __ksEngine->ksUEPoolAvailable};
}

}  // namespace

// ---------------------------------------------------------------- the pool

void KsEngine__IMSIText(uint64_t imsi, char* out, size_t cap) {
    if (__ksEngine && __ksEngine->IMSIPrefixWithZERO == 1) snprintf(out, cap, "%015" PRIu64, imsi);
    else snprintf(out, cap, "%" PRIu64, imsi);
}

int KsEngine__InitializeksUE_Pool(uint32_t iMaximumUE) {
    uint64_t maximumUE = uint64_t(KsJson::number(__ksEngine->config, "MaximumUE", 1000000));
    uint32_t count = maximumUE < iMaximumUE ? uint32_t(maximumUE) : iMaximumUE;
    // The block is taken from the kernel untouched: a record costs memory only once it
    // is handed out, so a pool of millions costs address space until it is used. Huge
    // pages make the first touch of a million records a few thousand faults, not millions.
    size_t bytes = size_t(count ? count : 1) * sizeof(MV_KsUE);
    void* block = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (block == MAP_FAILED) block = nullptr;
    if (block) madvise(block, bytes, MADV_HUGEPAGE);
    if (!block) {
        printf("memory allocation failed of size=%zu %s|%d\n", size_t(count) * sizeof(MV_KsUE), __func__, __LINE__);
        return 0;
    }
    std::lock_guard g(__ksEngine->ksUEPoolLock);
    __ksEngine->ksUEPool = static_cast<MV_KsUE*>(block);
    poolBytes = bytes;
    __ksEngine->ksUEPoolHead = __ksEngine->ksUEPoolCurrent = nullptr;
    __ksEngine->ksUEPoolTotal = count;
    __ksEngine->ksUEPoolAvailable = count;
    __ksEngine->maxUEPool = count;
    nextFresh = 0;
    return 1;
}

void KsEngine__DropUETable() {
    std::lock_guard a(addLock);
    std::lock_guard l(__ksEngine->ksUELock);
    std::lock_guard g(__ksEngine->ksUEPoolLock);
    for (uint32_t i = 0; i < nextFresh; ++i) __ksEngine->ksUEPool[i].~MV_KsUE();
    if (__ksEngine->ksUEPool) munmap(__ksEngine->ksUEPool, poolBytes);
    __ksEngine->ksUEPool = __ksEngine->ksUEPoolHead = __ksEngine->ksUEPoolCurrent = nullptr;
    __ksEngine->ksUEPoolTotal = __ksEngine->ksUEPoolAvailable = 0;
    nextFresh = 0;
    __ksEngine->ksUEHead = __ksEngine->ksUECurrent = __ksEngine->ksUELast = nullptr;
    __ksEngine->ksUETotal = 0;
    __mv_power_table_destroy(__ksEngine->imsiTable);
    __ksEngine->imsiTable = __mv_power_table_create();
}

void KsEngine__CreateksUE_Pool(int size, int) { KsEngine__InitializeksUE_Pool(uint32_t(size < 0 ? 0 : size)); }

MV_KsUE* KsEngine__AllocateKsUE() {
    auto pool = uePool();
    std::lock_guard g(pool.Lock);
    MV_KsUE* ue;
    if ((ue = pool.takeLocked())) {
        // A released record: it was constructed once and keeps its locks for life.
        uint64_t id = ue->ueId;
        ue->~MV_KsUE();
        new (ue) MV_KsUE{};
        ue->ueId = id;
    } else if (nextFresh < __ksEngine->ksUEPoolTotal) {
        uint32_t idx = nextFresh;
        ue = new (&__ksEngine->ksUEPool[idx]) MV_KsUE{};
        ue->ueId = idx;
        nextFresh = idx + 1;
        --__ksEngine->ksUEPoolAvailable;
    }
    return ue;
}

void KsEngine__ReleaseKsUE(MV_KsUE* ksUe) {
    if (!ksUe) return;
    if (ksUe->supi.isset && imsiFind(KsUE__supi(ksUe) + 5) == ksUe) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] is a configured UE and stays configured: release refused <%s|%s|%d>", KsUE__supi(ksUe),
                 __FILE_NAME__, __func__, __LINE__);
        return;
    }
    uePool().release(ksUe);
}

uint64_t KsEngine__GetUEId(MV_KsUE* ksUe) { return ksUe ? ksUe->ueId : 0; }

MV_KsUE* KsEngine__FindUEByUEId(uint64_t ueId) {
    if (!__ksEngine || ueId >= nextFresh.load()) return nullptr;
    return &__ksEngine->ksUEPool[ueId];
}

// ---------------------------------------------------------------- the IMSI index

void KsEngine__FindUEByIMSI(MV_KsUE** ksUe, const char* imsi) {
    if (ksUe) *ksUe = imsiFind(imsi);
}

int KsEngine__FindUEByIMSIExists(const char* imsi) { return imsiFind(imsi) ? 1 : 0; }

void KsEngine__AddUEByIMSI(MV_KsUE* ksUe, const char* imsi) {
    if (ksUe && imsi && *imsi) __mv_power_table_add(__ksEngine->imsiTable, imsi, int(strlen(imsi)), ksUe);
}

// ---------------------------------------------------------------- PLMN and serving network

void KsEngine__get_plmnHex(uint8_t* out, const char* mcc, const char* mnc) {
    if (!out || !mcc || !mnc) return;
    size_t lc = strlen(mcc), ln = strlen(mnc);
    if (lc < 3 || ln < 2) return;
    auto d = [](char c) { return uint8_t(uint8_t(c - '0') & 0x0F); };
    out[0] = uint8_t(d(mcc[1]) << 4 | d(mcc[0]));
    // The third MNC digit sits beside the third MCC digit; a 2-digit MNC has a filler there.
    out[1] = uint8_t((ln >= 3 ? d(mnc[2]) : 0x0F) << 4 | d(mcc[2]));
    out[2] = uint8_t(d(mnc[1]) << 4 | d(mnc[0]));
}

void KsEngine__get_plmnHex2(uint8_t* out, const char* mcc, const char* mnc) { KsEngine__get_plmnHex(out, mcc, mnc); }

void KsEngine__get_mcc_mnc(const uint8_t* plmn, char* mcc, char* mnc) {
    auto c = [](uint8_t n) { return n <= 9 ? char('0' + n) : char('A' + n - 10); };
    mcc[0] = c(plmn[0] & 0x0F);
    mcc[1] = c(plmn[0] >> 4);
    mcc[2] = c(plmn[1] & 0x0F);
    mcc[3] = 0;
    mnc[0] = c(plmn[2] & 0x0F);
    mnc[1] = c(plmn[2] >> 4);
    mnc[2] = (plmn[1] >> 4) == 0x0F ? 0 : c(plmn[1] >> 4);
    mnc[3] = 0;
}

void KsEngine__BuildSNN(char* out, size_t cap, const char* mcc, const char* mnc) {
    // TS 24.501 serving network name: a 2-digit MNC is written with a leading 0.
    if (strlen(mnc) == 2) snprintf(out, cap, "5G:mnc0%s.mcc%s.3gppnetwork.org", mnc, mcc);
    else snprintf(out, cap, "5G:mnc%s.mcc%s.3gppnetwork.org", mnc, mcc);
}

void KsEngine__SetUEsSNN2(MV_KsUE* ksUe, const uint8_t* plmn) {
    if (!ksUe || !plmn) return;
    char mcc[4], mnc[4];
    KsEngine__get_mcc_mnc(plmn, mcc, mnc);
    size_t lc = strlen(mcc), ln = strlen(mnc);
    if (!isDigits(mcc, 3, 3) || !isDigits(mnc, 2, 3)) {
        printf("Invalid RANs PLMN %02X%02X%02X  mcc=%s|%ld  mnc=%s|%ld\n", plmn[0], plmn[1], plmn[2], mcc, long(lc), mnc,
               long(ln));
        return;
    }
    if (strcmp(mcc, ksUe->snn_mcc) == 0 && strcmp(mnc, ksUe->snn_mnc) == 0) return;
    memcpy(ksUe->snn_mcc, mcc, sizeof mcc);
    memcpy(ksUe->snn_mnc, mnc, sizeof mnc);
    for (MV_KsUECtx* ctx : {&ksUe->TGPP, &ksUe->NTGPP}) {
        memcpy(ctx->snn_mcc, mcc, sizeof mcc);
        memcpy(ctx->snn_mnc, mnc, sizeof mnc);
        KsEngine__BuildSNN(ctx->snn, sizeof ctx->snn, mcc, mnc);
    }
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "Updated SNN=%s for SUPI=%s AMFConnId=%d  <%s|%s|%d>", ksUe->TGPP.snn,
             KsUE__supi(ksUe), int(ksUe->AMFConnId), __FILE_NAME__, __func__, __LINE__);
}

void KsEngine__SetUEsSNN(MV_KsUE* ksUe, uint8_t, MV_KsRanAmfConnection* conn) {
    if (conn && conn->ran) KsEngine__SetUEsSNN2(ksUe, conn->ran->HexPlmn);
}

// ---------------------------------------------------------------- adding subscribers

namespace {

// 32 hex digits into 16 bytes; anything else leaves the bytes alone and returns false.
bool hex16(const char* text, uint8_t* out) {
    uint8_t tmp[16];
    if (!text || strlen(text) != 32 || strspn(text, "0123456789abcdefABCDEF") != 32) return false;
    if (__mv_ascii_to_hex(text, 32, tmp, 16) != 16) return false;
    memcpy(out, tmp, 16);
    return true;
}

void setKeys(MV_KsUE* ue, const char* subKey, const char* opc, int asciiToHex) {
    if (asciiToHex != 1) {
        // Binary keys of 16 bytes, as the console hands them over.
        if (subKey) memcpy(ue->K, subKey, 16);
        if (opc) memcpy(ue->OPc, opc, 16);
        return;
    }
    if (!hex16(subKey, ue->K))
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] SubKey=[%s] is not 32 hexadecimal digits, K left zero %s|%d",
                 KsUE__supi(ue), subKey ? subKey : "", __func__, __LINE__);
    if (!hex16(opc, ue->OPc))
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] OPc=[%s] is not 32 hexadecimal digits, OPc left zero %s|%d",
                 KsUE__supi(ue), opc ? opc : "", __func__, __LINE__);
}

}  // namespace

MV_KsUE* KsEngine__AddUE(UEFile* ueFile, const char* mcc, const char* mnc, const char* subKey, const char* opc,
                         uint64_t imei, uint64_t msin, uint32_t scID, int asciiToHex, long int msisdn,
                         const char* apn) {
    (void)ueFile;
    (void)scID;  // a UE carries no scenario after load; tests and commands give it one
    char imsi[24];
    KsEngine__IMSIText(msin, imsi, sizeof imsi);
    MV_KsUE* ue;
    {
        std::lock_guard g(addLock);
        if (MV_KsUE* existing = imsiFind(imsi)) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_DEBUG, "IMSI=%s Found, No Adding Again  <%s|%s|%d>", imsi,
                     __FILE_NAME__, __func__, __LINE__);
            return existing;
        }
        ue = KsEngine__AllocateKsUE();
        if (!ue) return nullptr;

        // The record is fresh and zero: state, latch flags, links, bearers, counters.
        memset(ue->AGF_MAC, 0xFF, sizeof ue->AGF_MAC);
        uint32_t idBE = htonl(uint32_t(ue->ueId + 1));
        memcpy(ue->AGF_RG_MAC + 2, &idBE, sizeof idBE);

        snprintf(ue->mcc, sizeof ue->mcc, "%.3s", mcc ? mcc : "");
        snprintf(ue->mnc, sizeof ue->mnc, "%.3s", mnc ? mnc : "");
        char text[64];
        snprintf(text, sizeof text, "imsi-%s", imsi);
        setString(ue->supi, text);
        ue->l_imsi = msin;
        ue->msin = msin;
        if (!isDigits(ue->mcc, 3, 3) || !isDigits(ue->mnc, 2, 3))
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] MCC=[%s] MNC=[%s] is not a PLMN, plmnId left zero %s|%d",
                     text, ue->mcc, ue->mnc, __func__, __LINE__);
        KsEngine__get_plmnHex(ue->plmnId.val, ue->mcc, ue->mnc);
        ue->plmnId.len = 3;
        ue->plmnId.isset = 1;
        ue->SC_EA0 = ue->SC_EA1 = ue->SC_EA2 = ue->SC_EA3 = 1;
        ue->SC_IA0 = ue->SC_IA1 = ue->SC_IA2 = ue->SC_IA3 = 1;
        memcpy(ue->TAI_MCC, ue->mcc, sizeof ue->TAI_MCC);
        memcpy(ue->TAI_MNC, ue->mnc, sizeof ue->TAI_MNC);
        ue->TAI_TAC = 1;
        ue->TAI_CellID = 1;
        setKeys(ue, subKey, opc, asciiToHex);
        for (MV_KsUECtx* ctx : {&ue->TGPP, &ue->NTGPP}) {
            ctx->ngKSI = 7;
            KsEngine__BuildSNN(ctx->snn, sizeof ctx->snn, ue->mcc, ue->mnc);
        }
        snprintf(text, sizeof text, "%" PRIu64, imei);
        setString(ue->imei, text);
        snprintf(text, sizeof text, "%" PRIu64 "1", imei);
        setString(ue->imeisv, text);
        snprintf(text, sizeof text, "%lu", (unsigned long)msisdn);
        setString(ue->msisdn, text);
        if (apn && *apn) setString(ue->apn, apn);
        for (int i = 0; i < KS_UE_PDU_SESSIONS; ++i) {
            ue->pduSessions[i].pduSessionId = uint8_t(i);
            ue->pduSessions[i].ksUe = ue;
        }

        KsEngine__AddUEByIMSI(ue, imsi);
        std::lock_guard l(__ksEngine->ksUELock);
        appendConfigured(ue);
    }
    if (!__ksEngine->ksScanarioDefault) KsScanario__CreateDefaultScanario();
    return ue;
}

int KsEngine__UpdateOPCSubKey(const char* imsi, const char* OPC, const char* SubKey) {
    MV_KsUE* ue = imsiFind(imsi);
    if (!ue) return 0;
    uint8_t k[16], o[16];
    if (!hex16(SubKey, k) || !hex16(OPC, o)) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] SubKey and OPc must be 32 hexadecimal digits each, keys unchanged %s|%d", KsUE__supi(ue), __func__,
                 __LINE__);
        return 0;
    }
    memcpy(ue->K, k, 16);
    memcpy(ue->OPc, o, 16);
    return 1;
}

// ---------------------------------------------------------------- N2 handover index

void KsEngine__AddUEToN2Handover(MV_KsUE* ksUe, uint64_t amf_id) {
    if (ksUe) __mv_power_table_add_lk(__ksEngine->N2HandoverTable, amf_id, ksUe);
}

void KsEngine__RemoveUEFromN2Handover(uint64_t amf_id) { __mv_power_table_del_lk(__ksEngine->N2HandoverTable, amf_id); }

MV_KsUE* KsEngine__FindFromN2Handover(uint64_t amf_id) {
    void* p = nullptr;
    __mv_power_table_fnd_lk(__ksEngine->N2HandoverTable, amf_id, &p);
    return static_cast<MV_KsUE*>(p);
}

// ---------------------------------------------------------------- latching

void KsEngine__IncrExecTestCasesCount() {
    std::lock_guard g(__ksEngine->ExecutingTestCaseLock);
    ++__ksEngine->ExecutingTestCaseCount;
}

void KsEngine__DecrExecTestCasesCount() {
    std::lock_guard g(__ksEngine->ExecutingTestCaseLock);
    if (__ksEngine->ExecutingTestCaseCount > 0) --__ksEngine->ExecutingTestCaseCount;
}

uint32_t KsEngine__getExecTestCasesCount() {
    std::lock_guard g(__ksEngine->ExecutingTestCaseLock);
    return __ksEngine->ExecutingTestCaseCount;
}

namespace {

// Round robin over the matching RANs' connections.
MV_KsRanAmfConnection* selectRoundRobin(MV_KsUE* ue, uint8_t accessType) {
    static thread_local MV_KsRanAmfConnectionList_t list;
    KsEngine__FindRANList(ue->mcc, ue->mnc, accessType, &list);
    if (list.Count == 0) return nullptr;
    // The pick and the advance happen together, so two threads never take one turn.
    std::lock_guard g(__ksEngine->RanSelectionMode_lock);
    if (__ksEngine->RanLastSelected >= list.Count) __ksEngine->RanLastSelected = 0;
    return list.List[__ksEngine->RanLastSelected++];
}

}  // namespace

void KsEngine__FindRANAndLatch(MV_KsUE* ksUe, uint8_t accessType, uint32_t* attached, uint32_t amfRanConnId) {
    uint32_t dummy = 0;
    if (!attached) attached = &dummy;
    *attached = 0;
    if (!ksUe) return;
    if (amfRanConnId == 0 && ksUe->AMFConnId) amfRanConnId = ksUe->AMFConnId;
    MV_KsRanAmfConnection* conn;
    if (amfRanConnId) conn = KsEngine__FindRANByID(amfRanConnId);
    else if (__ksEngine->RanSelectionMode == 0) conn = KsEngine__FindRAN(ksUe->mcc, ksUe->mnc, accessType);
    else conn = selectRoundRobin(ksUe, accessType);
    if (!conn) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "RAN Not Found with MCC=[%s] MNC=[%s] for SUPI=[%s] AccessType[%u] amfRanConnId[%u] <%s|%s|%d>",
                 ksUe->mcc, ksUe->mnc, KsUE__supi(ksUe), accessType, amfRanConnId, __FILE_NAME__, __func__, __LINE__);
        ksUe->AppError = 1;
        return;
    }
    ksUe->AMFConnId = conn->ID;
    if (accessType == KS_ACCESS__NON3GPP) {
        ksUe->NTGPP.ranAmfConnection = conn;
        ksUe->_initNT3PP = 1;
    } else {
        ksUe->TGPP.ranAmfConnection = conn;
        ksUe->_initT3PP = 1;
    }
    if (conn->ran) {
        char mcc[4], mnc[4];
        KsEngine__get_mcc_mnc(conn->ran->HexPlmn, mcc, mnc);
        memcpy(ksUe->TAI_MCC, mcc, sizeof mcc);
        memcpy(ksUe->TAI_MNC, mnc, sizeof mnc);
    }
    KsEngine__SetUEsSNN(ksUe, accessType, conn);
    *attached = 1;
    KsEngine__IncrExecTestCasesCount();
}

void KsEngine__LatchUEs() {
    uint32_t limit = std::atomic_ref<uint32_t>(__ksEngine->LatchPerSecond).load();  // set by the console
    if (limit == 0) return;
    uint32_t latched = 0;
    // Held for the walk: a loader may be appending to the list meanwhile.
    std::lock_guard g(__ksEngine->ksUELock);
    for (MV_KsUE* ue = __ksEngine->ksUEHead; ue && latched < limit; ue = ue->Next) {
        uint32_t attached = 0;
        if (ue->_initT3PP == 0) {
            KsEngine__FindRANAndLatch(ue, KS_ACCESS__3GPP, &attached, 0);
            latched += attached;
            if (latched >= limit) break;
        }
        if (ue->_initNT3PP == 0) {
            KsEngine__FindRANAndLatch(ue, KS_ACCESS__NON3GPP, &attached, 0);
            latched += attached;
        }
    }
}
