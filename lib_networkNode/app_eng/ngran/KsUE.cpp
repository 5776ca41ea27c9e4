// The UE table: one block of records indexed by ueId, the configured list and the
// IMSI index.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

#include "Kestrane.h"
#include "Kestrane_util.h"

// Stand-in for the byte-trie index until the engine's tables take over.
struct KsImsiIndex {
    MV_Mutex lock;
    std::unordered_map<std::string, MV_KsUE*> map;
};

KsImsiIndex* KsImsiIndex_create() { return new KsImsiIndex(); }

namespace {

MV_KsUE* imsiFind(KsImsiIndex* t, const char* imsi) {
    std::lock_guard g(t->lock);
    auto it = t->map.find(imsi);
    return it == t->map.end() ? nullptr : it->second;
}

void imsiAdd(KsImsiIndex* t, const char* imsi, MV_KsUE* ue) {
    std::lock_guard g(t->lock);
    t->map.emplace(imsi, ue);
}

// Reads an IMSI given as a JSON integer or a decimal string; false for any other form.
bool imsiNumber(json_t* v, uint64_t& out) {
    if (json_is_integer(v)) {
        if (json_integer_value(v) < 0) return false;
        out = uint64_t(json_integer_value(v));
        return true;
    }
    if (!json_is_string(v)) return false;
    const char* s = json_string_value(v);
    if (!*s || strlen(s) > 15 || strspn(s, "0123456789") != strlen(s)) return false;
    out = strtoull(s, nullptr, 10);
    return true;
}

}  // namespace

void KsEngine__IMSIText(uint64_t imsi, char* out, size_t cap) {
    if (__ksEngine && __ksEngine->IMSIPrefixWithZERO == 1) snprintf(out, cap, "%015" PRIu64, imsi);
    else snprintf(out, cap, "%" PRIu64, imsi);
}

int KsEngine__InitializeksUE_Pool(uint32_t count) {
    // Pages of the block are only touched when a record is taken, so a large pool
    // costs address space, not memory.
    void* block = calloc(count ? count : 1, sizeof(MV_KsUE));
    if (!block) {
        printf("memory allocation failed of size=%zu %s|%d\n", size_t(count) * sizeof(MV_KsUE), __func__, __LINE__);
        return 0;
    }
    __ksEngine->ksUEPool = static_cast<MV_KsUE*>(block);
    __ksEngine->ksUEPoolTotal = count;
    __ksEngine->ksUEPoolAvailable = count;
    __ksEngine->maxUEPool = count;
    return 1;
}

MV_KsUE* KsEngine__AllocateUE() {
    std::lock_guard g(__ksEngine->ksUEPoolLock);
    if (__ksEngine->ksUEPoolAvailable == 0) return nullptr;
    uint32_t idx = __ksEngine->ksUEPoolTotal - __ksEngine->ksUEPoolAvailable;
    --__ksEngine->ksUEPoolAvailable;
    MV_KsUE* ue = new (&__ksEngine->ksUEPool[idx]) MV_KsUE{};
    ue->ueId = idx;
    return ue;
}

void KsEngine__FindUEByIMSI(MV_KsUE** ksUe, const char* imsi) {
    if (!ksUe) return;
    *ksUe = (imsi && __ksEngine && __ksEngine->imsiTable) ? imsiFind(__ksEngine->imsiTable, imsi) : nullptr;
}

int KsEngine__ConfigureUEList(json_t* ueList) {
    if (!json_is_array(ueList)) return 0;
    int created = 0;
    size_t i;
    json_t* el;
    json_array_foreach(ueList, i, el) {
        uint64_t start = 0, end = 0;
        if (!json_is_object(el) || !imsiNumber(json_object_get(el, "MSINStart"), start) ||
            !imsiNumber(json_object_get(el, "MSINEnd"), end) || end < start) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                     "uel.json element %zu skipped: MSINStart and MSINEnd must be IMSI numbers, start <= end %s|%d", i,
                     __func__, __LINE__);
            printf("uel.json element %zu skipped: MSINStart and MSINEnd must be IMSI numbers, start <= end\n", i);
            continue;
        }
        char mcc[4] = {}, mnc[4] = {};
        KsJson::copyString(el, "MCC", mcc, sizeof mcc);
        KsJson::copyString(el, "MNC", mnc, sizeof mnc);
        for (uint64_t n = start; n <= end; ++n) {
            char imsi[24];
            KsEngine__IMSIText(n, imsi, sizeof imsi);
            MV_KsUE* existing = imsiFind(__ksEngine->imsiTable, imsi);
            if (existing) continue;
            MV_KsUE* ue = KsEngine__AllocateUE();
            if (!ue) {
                __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "UE pool exhausted at IMSI=%s %s|%d", imsi, __func__,
                         __LINE__);
                printf("UE pool exhausted at IMSI=%s\n", imsi);
                return created;
            }
            snprintf(ue->supi, sizeof ue->supi, "imsi-%s", imsi);
            ue->l_imsi = n;
            ue->msin = n;
            memcpy(ue->mcc, mcc, sizeof mcc);
            memcpy(ue->mnc, mnc, sizeof mnc);
            ue->EndOfTest = 1;
            imsiAdd(__ksEngine->imsiTable, imsi, ue);
            {
                std::lock_guard g(__ksEngine->ksUELock);
                if (__ksEngine->ksUECurrent) __ksEngine->ksUECurrent->Next = ue;
                else __ksEngine->ksUEHead = ue;
                __ksEngine->ksUECurrent = ue;
                __ksEngine->ksUELast = ue;
                ++__ksEngine->ksUETotal;
            }
            ++created;
        }
    }
    return created;
}

int KsEngine__LoadUEConfigs() { return KsEngine__ConfigureUEList(__ksEngine->ueList); }

// Latching binds UEs to RAN connections; with no RANs in this build there is nothing to bind.
void KsEngine__LatchUEs() {}
