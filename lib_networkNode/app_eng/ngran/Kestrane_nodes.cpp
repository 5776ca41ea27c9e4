// The node registry: AMF, MME and RAN records from the configuration and from
// data/amf.json and data/ran.json, their connection records, RAN selection for UEs,
// and the RAN UE context pool.
#include "Kestrane_nodes.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <mutex>
#include <string>

#include "Kestrane.h"
#include "Kestrane_util.h"
#include "mv_bytes.h"
#include "mv_fifo.h"

const char* const applicationType_kv_pair[32] = {
    "INVALID-0", "AMF",  "UPF",  "SMF",  "MME",  "PGW",      "SGW", "HSS",  "FourGEIR", "FiveGEIR", "PCRF",
    "AAA",       "CHF",  "NRF",  "UDM",  "NSSF", "PCF",      "AMFS", "AUSF", "SMSF",     "BSF",      "FiveGCHF",
    "LMF",       "NEF",  "NWDAF", "N26", "AGF",  "GNB_CU_CP", "GNB_CU_UP", "XNAP", "E2AP", "GGSN"};
const char* const rm_satus_names[4] = {"RM_STATUS__DEREGISTERED", "RM_STATUS__REGISTERED", "RM_STATUS__INPROGRESS",
                                       "RM_STATUS__REJECTED"};
const char* const cm_satus_names[2] = {"CM_STATUS__IDLE", "CM_STATUS__CONNECTED"};

namespace {

std::atomic<KsRanAmfConnector> ranAmfConnector{nullptr};

// Appends to a grow-only list: the link is published last, so a reader that walks
// without the lock sees either the old end or the whole new record.
template <class T>
void appendPublished(std::atomic<T*>& head, T*& current, std::atomic<T*> T::*link, T* item) {
    if (current) (current->*link).store(item, std::memory_order_release);
    else head.store(item, std::memory_order_release);
    current = item;
}

template <class T, class F>
T* findIn(const std::atomic<T*>& head, std::atomic<T*> T::*link, F pred) {
    for (T* p = head.load(std::memory_order_acquire); p; p = (p->*link).load(std::memory_order_acquire))
        if (pred(p)) return p;
    return nullptr;
}

bool isDigitText(const char* s, size_t lo, size_t hi) {
    if (!s) return false;
    size_t n = strlen(s);
    if (n < lo || n > hi) return false;
    for (size_t i = 0; i < n; ++i)
        if (s[i] < '0' || s[i] > '9') return false;
    return true;
}

bool hexPlmn(const char* text, uint8_t* out) {
    if (!text || strlen(text) != 6 || strspn(text, "0123456789abcdefABCDEF") != 6) return false;
    return __mv_ascii_to_hex(text, 6, out, 3) == 3;
}

// The PLMNs of a supported TA list, in either of its forms (MCC and MNC texts in
// BroadcastPLMNList, or HexPLMN in broadcastPLMNList).
void cacheBroadcastPlmns(MV_KsNGRan* ran) {
    ran->BroadcastPlmnCount = 0;
    if (!json_is_array(ran->SupportedTAList)) return;
    size_t i, j;
    json_t *ta, *item;
    json_array_foreach(ran->SupportedTAList, i, ta) {
        for (const char* key : {"BroadcastPLMNList", "broadcastPLMNList"}) {
            json_t* list = json_object_get(ta, key);
            if (!json_is_array(list)) continue;
            json_array_foreach(list, j, item) {
                if (ran->BroadcastPlmnCount >= KS_MAX_BROADCAST_PLMN) return;
                uint8_t plmn[3] = {0, 0, 0};
                char mcc[4], mnc[4], where[200];
                snprintf(where, sizeof where, "RAN [%s] SupportedTAList[%zu] %s[%zu]", ran->NodeName, i, key, j);
                KsJson::PlmnRead r = KsJson::plmn(item, mcc, mnc, where);
                bool ok = false;
                if (r == KsJson::PlmnRead::Ok) {
                    KsEngine__get_plmnHex(plmn, mcc, mnc);
                    ok = true;
                } else if (r == KsJson::PlmnRead::Absent) {
                    ok = hexPlmn(json_string_value(json_object_get(item, "HexPLMN")), plmn);
                }
                if (ok) memcpy(ran->BroadcastPlmn[ran->BroadcastPlmnCount++], plmn, 3);
            }
        }
    }
}

bool ranServesPlmn(const MV_KsNGRan* ran, const uint8_t* plmn) {
    if (memcmp(ran->HexPlmn, plmn, 3) == 0) return true;
    for (uint32_t i = 0; i < ran->BroadcastPlmnCount; ++i)
        if (memcmp(ran->BroadcastPlmn[i], plmn, 3) == 0) return true;
    return false;
}

void linkRan(MV_KsNGRan* ran) {
    if (ran->KsTE == KS_TE__MME) {
        appendPublished(__ksEngine->eNodeBHead, __ksEngine->eNodeBCurrent, &MV_KsNGRan::Next, ran);
        ++__ksEngine->eNodeBCount;
    } else {
        appendPublished(__ksEngine->ngRanHead, __ksEngine->ngRanCurrent, &MV_KsNGRan::Next, ran);
        ++__ksEngine->ngRanCount;
    }
}

void readSupportedUePLMN(MV_KsNGRan* ran, json_t* list) {
    if (!list) {
        printf("SupportedUePLMN, Not Configured %s|%d\n", __func__, __LINE__);
        return;
    }
    size_t i;
    json_t* p;
    json_array_foreach(list, i, p) {
        char mcc[4], mnc[4], where[200];
        snprintf(where, sizeof where, "invalid configuration RANNodes->SupportedUePLMN[%d] of RAN [%s]", int(i),
                 ran->NodeName);
        if (KsJson::plmn(p, mcc, mnc, where) != KsJson::PlmnRead::Ok) {
            if (!json_object_get(p, "MCC") && !json_object_get(p, "MNC"))
                printf("%s: neither MCC nor MNC given, skipped\n", where);
            continue;
        }
        auto* e = __mv_arena_new<__mv_ks__ngran_plmn>();
        snprintf(e->mcc, sizeof e->mcc, "%s", mcc);
        snprintf(e->mnc, sizeof e->mnc, "%s", mnc);
        if (ran->supported_plmn_current) ran->supported_plmn_current->Next = e;
        else ran->supported_plmn_head = e;
        ran->supported_plmn_current = e;
    }
}

template <class Node>
void copyAddresses(Node* n, json_t* ips) {
    size_t i;
    json_t* ip;
    json_array_foreach(ips, i, ip) {
        if (n->IPCount >= 10) break;
        if (json_is_string(ip)) snprintf(n->IP[n->IPCount++], 50, "%s", json_string_value(ip));
    }
}

}  // namespace

// ---------------------------------------------------------------- configuration

void KsEngine__AddStaticAMFNode(json_t* a) {
    auto* amf = __mv_arena_new<MV_KsAmf>();
    amf->ID = uint32_t(KsJson::number(a, "ID", 0));
    amf->Port = uint32_t(KsJson::number(a, "Port", 0));
    amf->IPVersion = uint32_t(KsJson::number(a, "Version", 4));
    amf->Enabled = uint32_t(KsJson::number(a, "Enabled", 1));
    copyAddresses(amf, json_object_get(a, "IP"));
    appendPublished(__ksEngine->amfHead, __ksEngine->amfCurrent, &MV_KsAmf::Next, amf);
    ++__ksEngine->amfCount;
}

void KsEngine__InitializeRanNode_Configs(void) {
    json_t* nodes = json_object_get(__ksEngine->config, "RANNodes");
    if (!json_is_array(nodes)) {
        printf("RANNodes - configuration not found %s|%d\n", __func__, __LINE__);
        return;
    }
    size_t i;
    json_t* n;
    json_array_foreach(nodes, i, n) {
        const char* name = json_string_value(json_object_get(n, "Name"));
        if (!name) {
            printf("RANNodes[%d] has no Name, skipped %s|%d\n", int(i), __func__, __LINE__);
            continue;
        }
        if (KsJson::number(n, "Enabled", 1) != 1) continue;
        // MCC and MNC, text or numbers, stand for the PLMN only without HexPLMN.
        char mcc[4] = "", mnc[4] = "", where[160];
        snprintf(where, sizeof where, "RANNodes[%d] [%s]", int(i), name);
        KsJson::PlmnRead plmn =
            json_object_get(n, "HexPLMN") ? KsJson::PlmnRead::Absent : KsJson::plmn(n, mcc, mnc, where);
        if (plmn == KsJson::PlmnRead::Bad) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "%s skipped: its PLMN is refused %s|%d", where, __func__,
                     __LINE__);
            continue;
        }
        auto* ran = __mv_arena_new<MV_KsNGRan>();
        const char* type = KsJson::string(n, "Type", "");
        ran->AccessType = !strcmp(type, "eNodeB") ? KS_ACCESS_TYPE__ENB
                          : !strcmp(type, "N3IWF") ? KS_ACCESS_TYPE__N3IWF
                                                   : KS_ACCESS_TYPE__GNB;
        snprintf(ran->NodeName, sizeof ran->NodeName, "%s", name);
        ran->ID = uint32_t(KsJson::number(n, "ID", 0));
        ran->Enabled = 1;
        ran->localIPVersion = uint32_t(KsJson::number(n, "IPVersion", 0));
        ran->localPort = uint32_t(KsJson::number(n, "PortNo", 0));
        if (json_t* ips = json_object_get(n, "IP"); json_is_array(ips)) {
            size_t k;
            json_t* ip;
            json_array_foreach(ips, k, ip) {
                if (ran->localIPCount >= 10) break;
                if (json_is_string(ip)) snprintf(ran->localIP[ran->localIPCount++], 50, "%s", json_string_value(ip));
            }
        }
        if (const char* hex = json_string_value(json_object_get(n, "HexPLMN"))) {
            if (!hexPlmn(hex, ran->HexPlmn)) printf("HexPLMN for RAN is not length-6 [%s]\n", hex);
        } else if (plmn == KsJson::PlmnRead::Ok) {
            KsEngine__get_plmnHex(ran->HexPlmn, mcc, mnc);
        }
        ran->maxRanUEs = uint32_t(KsJson::number(n, "MaxRANUEID", __ksEngine->maxRanUEIDs));
        ran->UEIDStartNo = uint32_t(KsJson::number(n, "RANUEIDStartNo", 1));
        ran->KsTE = uint32_t(KsJson::number(n, "KsTE", KS_TE__AMF));
        if (json_t* ta = json_object_get(n, "SupportedTAList"); json_is_array(ta)) ran->SupportedTAList = json_incref(ta);
        cacheBroadcastPlmns(ran);
        readSupportedUePLMN(ran, json_object_get(n, "SupportedUePLMN"));
        appendPublished(__ksEngine->ngRanHead, __ksEngine->ngRanCurrent, &MV_KsNGRan::Next, ran);
        ++__ksEngine->ngRanCount;
    }
}

namespace {

// Names every mandatory key an element of a data list lacks, in the application log and on standard output.
bool missingKeys(json_t* e, std::initializer_list<const char*> keys, const char* list, size_t pos) {
    std::string missing;
    for (const char* k : keys)
        if (!json_object_get(e, k)) missing += std::string(missing.empty() ? "" : ", ") + k;
    if (missing.empty()) return false;
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "missing mandatory parameter for %s @ %d: %s %s|%d", list,
             int(pos), missing.c_str(), __func__, __LINE__);
    printf("missing mandatory parameter for %s @ %d: %s\n", list, int(pos), missing.c_str());
    return true;
}

template <class Node>
void configureDynamicCore(std::atomic<Node*>& head, Node*& current, uint32_t& count, uint32_t ksTE) {
    json_t* list = __ksEngine->amf_servers;
    if (!json_is_array(list)) return;
    size_t i;
    json_t* e;
    json_array_foreach(list, i, e) {
        if (missingKeys(e, {"ID", "IP1", "IP2", "Port", "Enabled", "KsTE"}, "dynamic-amf", i)) continue;
        if (KsJson::number(e, "KsTE", 0) != ksTE) continue;
        uint32_t id = uint32_t(KsJson::number(e, "ID", 0));
        uint32_t enabled = uint32_t(KsJson::number(e, "Enabled", 0));
        if (Node* old = findIn(head, &Node::Next, [&](Node* n) { return n->ID == id; })) {
            old->Enabled = enabled;
            continue;
        }
        auto* n = __mv_arena_new<Node>();
        n->ID = id;
        n->IPVersion = 4;
        n->Port = uint32_t(KsJson::number(e, "Port", 0));
        n->Enabled = enabled;
        KsJson::copyString(e, "IP1", n->IP[0], sizeof n->IP[0]);
        KsJson::copyString(e, "IP2", n->IP[1], sizeof n->IP[1]);
        n->IPCount = 2;
        appendPublished(head, current, &Node::Next, n);
        ++count;
        printf("AMF-Config-%d: Id=%u port=%u cIP1=%s cIP2=%s\n", int(i), n->ID, n->Port, n->IP[0], n->IP[1]);
    }
}

}  // namespace

void KsEngine__ConfigureDynamicAMfNodes(void) {
    configureDynamicCore(__ksEngine->amfHead, __ksEngine->amfCurrent, __ksEngine->amfCount, KS_TE__AMF);
}

void KsEngine__ConfigureDynamicMMENodes(void) {
    configureDynamicCore(__ksEngine->mmeHead, __ksEngine->mmeCurrent, __ksEngine->mmeCount, KS_TE__MME);
}

void KsEngine__ConfigureDynamicRanNodes(void) {
    json_t* list = __ksEngine->rans;
    if (!json_is_array(list)) return;
    size_t i;
    json_t* e;
    json_array_foreach(list, i, e) {
        if (missingKeys(e, {"ID", "MCC", "MNC", "Enabled", "Name", "RANCount", "SupportedTAList", "KsTE"}, "dynamic-ran",
                        i))
            continue;
        long long ranType = KsJson::number(e, "RanType", -1);
        uint8_t accessType = KS_ACCESS_TYPE__GNB;
        if (ranType >= 0 && ranType + 1 <= 6) accessType = uint8_t(ranType + 1);
        uint32_t firstId = uint32_t(KsJson::number(e, "ID", 0));
        long long ranCount = KsJson::number(e, "RANCount", 1);
        uint32_t ksTE = uint32_t(KsJson::number(e, "KsTE", KS_TE__AMF));
        uint8_t enabled = KsJson::number(e, "Enabled", 0) == 1 ? 1 : 0;
        uint32_t retention = KsJson::number(e, "UERetention", 0) == 1 ? 1 : 0;
        const char* name = KsJson::string(e, "Name", "");
        char mcc[4], mnc[4], where[160];
        snprintf(where, sizeof where, "ran.json element @ %d (ID=%u Name=%s), skipped", int(i), firstId, name);
        if (KsJson::plmn(e, mcc, mnc, where) != KsJson::PlmnRead::Ok) continue;
        uint8_t plmn[4] = {0, 0, 0, 0};
        KsEngine__get_plmnHex(plmn, mcc, mnc);
        for (long long k = 0; k < ranCount; ++k) {
            uint32_t id = firstId + uint32_t(k);
            if (MV_KsNGRan* old = KsEngine__FindRAN2(plmn, int(id), ksTE)) {
                old->Enabled = enabled;
                old->UERetention = retention;
                continue;
            }
            auto* ran = __mv_arena_new<MV_KsNGRan>();
            ran->AccessType = accessType;
            ran->Enabled = enabled;
            ran->ID = id;
            memcpy(ran->HexPlmn, plmn, 3);
            if (ranCount < 2) snprintf(ran->NodeName, sizeof ran->NodeName, "%s", name);
            else snprintf(ran->NodeName, sizeof ran->NodeName, "%s-%d", name, int(k));
            ran->maxRanUEs = __ksEngine->maxRanUEIDs;
            ran->UEIDStartNo = 1;
            ran->UERetention = retention;
            ran->KsTE = ksTE;
            json_t* ta = json_object_get(e, "SupportedTAList");
            if (json_is_string(ta)) {
                json_error_t err{};
                ran->SupportedTAList = json_loads(json_string_value(ta), 0, &err);
                if (!ran->SupportedTAList)
                    printf("error loading SupportedTAList for RANConfig:%s  error:[%s] line=%d column=%d position=%d "
                           "source=[%s]\n",
                           ran->NodeName, err.text, err.line, err.column, err.position, err.source);
            } else if (json_is_array(ta)) {
                ran->SupportedTAList = json_incref(ta);
            }
            cacheBroadcastPlmns(ran);
            linkRan(ran);
            if (ran->Enabled == 1) {
                if (ksTE == KS_TE__AMF) __KsEngine_InitRANAMFConnection(ran);
                else if (ksTE == KS_TE__MME) __KsEngine_InitRANMMEConnection(ran);
            }
        }
    }
}

void __KsEngine_InitRANAMFConnection(MV_KsNGRan* ran) {
    if (!ran) return;
    for (MV_KsAmf* amf = __ksEngine->amfHead.load(); amf; amf = amf->Next.load()) {
        if (amf->Enabled != 1 || KsEngine_FindRanAMFConnection(ran, amf)) continue;
        auto* conn = __mv_arena_new<MV_KsRanAmfConnection>();
        conn->ran = ran;
        conn->amf = amf;
        conn->RANType = ran->AccessType;
        {
            std::lock_guard g(ran->ranAMFLock);
            appendPublished(ran->ranAMFHead, ran->ranAMFCurrent, &MV_KsRanAmfConnection::Next, conn);
        }
        {
            std::lock_guard g(__ksEngine->ranAMFConnLock);
            conn->ID = __ksEngine->ranAMFConnID++;
            appendPublished(__ksEngine->ranAMFConnHead, __ksEngine->ranAMFConnCurrent, &MV_KsRanAmfConnection::ConnNext,
                            conn);
        }
        if (KsRanAmfConnector start = ranAmfConnector.load()) start(conn);
        else
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
                     "NGAP is not part of this build, ranAmfConn-ID=%u not started %s|%d", conn->ID, __func__, __LINE__);
    }
}

void KsEngine__SetRanAmfConnector(KsRanAmfConnector connector) { ranAmfConnector = connector; }

void __KsEngine_InitRANMMEConnection(MV_KsNGRan* ran) {
    if (!ran) return;
    for (MV_KsMME* mme = __ksEngine->mmeHead.load(); mme; mme = mme->Next.load()) {
        if (mme->Enabled != 1 || KsEngine_FindRanMMEConnection(ran, mme)) continue;
        auto* conn = __mv_arena_new<MV_KsRanMMEConnection>();
        conn->ran = ran;
        conn->mme = mme;
        {
            std::lock_guard g(ran->ranMMELock);
            appendPublished(ran->ranMMEHead, ran->ranMMECurrent, &MV_KsRanMMEConnection::Next, conn);
        }
        std::lock_guard g(__ksEngine->ranMMEConnLock);
        conn->ID = __ksEngine->ranMMEConnID++;
        appendPublished(__ksEngine->ranMMEConnHead, __ksEngine->ranMMEConnCurrent, &MV_KsRanMMEConnection::ConnNext,
                        conn);
    }
}

void KsEngine__StartNGRANs(void) {
    printf("Starting RAN Nodes ... ");
    uint32_t count = 0;
    for (MV_KsNGRan* ran = __ksEngine->ngRanHead.load(); ran; ran = ran->Next.load()) {
        if (ran->Enabled != 1) continue;
        __KsEngine_InitRANAMFConnection(ran);
        ++count;
    }
    if (count) printf("Started NG-RAN Count=%u\n", count);
    else printf("No NG-Ran has been Enabled");
    fflush(stdout);
}

// ---------------------------------------------------------------- lookups

MV_KsAmf* KsEngine__FindAmfByID(int id) {
    return findIn(__ksEngine->amfHead, &MV_KsAmf::Next, [&](MV_KsAmf* a) { return a->ID == uint32_t(id); });
}

MV_KsMME* KsEngine__FindMMEByID(int id) {
    return findIn(__ksEngine->mmeHead, &MV_KsMME::Next, [&](MV_KsMME* a) { return a->ID == uint32_t(id); });
}

MV_KsNGRan* KsEngine__FindRAN2(const uint8_t* plmn, int ranId, uint32_t ksTE) {
    auto& head = ksTE == KS_TE__MME ? __ksEngine->eNodeBHead : __ksEngine->ngRanHead;
    return findIn(head, &MV_KsNGRan::Next,
                  [&](MV_KsNGRan* r) { return r->ID == uint32_t(ranId) && memcmp(r->HexPlmn, plmn, 3) == 0; });
}

MV_KsRanAmfConnection* KsEngine_FindRanAMFConnection(MV_KsNGRan* ran, MV_KsAmf* amf) {
    if (!ran) return nullptr;
    return findIn(ran->ranAMFHead, &MV_KsRanAmfConnection::Next, [&](MV_KsRanAmfConnection* c) { return c->amf == amf; });
}

MV_KsRanMMEConnection* KsEngine_FindRanMMEConnection(MV_KsNGRan* ran, MV_KsMME* mme) {
    if (!ran) return nullptr;
    return findIn(ran->ranMMEHead, &MV_KsRanMMEConnection::Next,
                  [&](MV_KsRanMMEConnection* c) { return c->mme == mme; });
}

MV_KsRanAmfConnection* KsEngine__FindRANByID(uint32_t id) {
    if (id == 0) return nullptr;
    return findIn(__ksEngine->ranAMFConnHead, &MV_KsRanAmfConnection::ConnNext,
                  [&](MV_KsRanAmfConnection* c) { return c->ID == id; });
}

MV_KsRanMMEConnection* KsEngine__FindRanMMEConnectionByID(uint32_t id) {
    if (id == 0) return nullptr;
    return findIn(__ksEngine->ranMMEConnHead, &MV_KsRanMMEConnection::ConnNext,
                  [&](MV_KsRanMMEConnection* c) { return c->ID == id; });
}

namespace {

template <class F>
void forEachQualifyingRan(const char* mcc, const char* mnc, uint8_t accessType, F f) {
    uint8_t plmn[3] = {0, 0, 0};
    if (!isDigitText(mcc, 3, 3) || !isDigitText(mnc, 2, 3)) return;
    KsEngine__get_plmnHex(plmn, mcc, mnc);
    for (MV_KsNGRan* ran = __ksEngine->ngRanHead.load(); ran; ran = ran->Next.load()) {
        MV_KsRanAmfConnection* first = ran->ranAMFHead.load();
        if (ran->AccessType != accessType || ran->Enabled != 1 || !first) continue;
        if (ranServesPlmn(ran, plmn) && !f(first)) return;
    }
}

}  // namespace

MV_KsRanAmfConnection* KsEngine__FindRAN(const char* mcc, const char* mnc, uint8_t accessType) {
    MV_KsRanAmfConnection* found = nullptr;
    forEachQualifyingRan(mcc, mnc, accessType, [&](MV_KsRanAmfConnection* c) {
        found = c;
        return false;
    });
    return found;
}

void KsEngine__FindRANList(const char* mcc, const char* mnc, uint8_t accessType, MV_KsRanAmfConnectionList_t* ranList) {
    if (!ranList) return;
    ranList->Count = 0;
    // A RAN has one first connection and each RAN is visited once, so no entry repeats.
    forEachQualifyingRan(mcc, mnc, accessType, [&](MV_KsRanAmfConnection* c) {
        ranList->List[ranList->Count++] = c;
        return ranList->Count < KS_MAX_RAN_LIST;
    });
}

MV_KsRanMMEConnection* KsEngine__FindMMERAN(const char* mcc, const char* mnc) {
    if (!isDigitText(mcc, 3, 3) || !isDigitText(mnc, 2, 3)) return nullptr;
    uint8_t plmn[3];
    KsEngine__get_plmnHex(plmn, mcc, mnc);
    return findIn(__ksEngine->ranMMEConnHead, &MV_KsRanMMEConnection::ConnNext, [&](MV_KsRanMMEConnection* c) {
        return c->ran && memcmp(c->ran->HexPlmn, plmn, 3) == 0 && c->ConnStatus == KS_NGCONN__READY &&
               c->isOKToRun == 1;
    });
}

MV_KsRanAmfConnection* KsEngine__getRanAmfConnection(MV_KsUE* ue, uint8_t bearer) {
    if (!ue) return nullptr;
    if (bearer == KS_BEARER__3GPP) return ue->TGPP.ranAmfConnection;
    if (bearer == KS_BEARER__NON3GPP) return ue->NTGPP.ranAmfConnection;
    return nullptr;
}

uint32_t KsEngine__AMFConnectionCount(void) {
    uint32_t n = 0;
    for (MV_KsNGRan* ran = __ksEngine->ngRanHead.load(); ran; ran = ran->Next.load())
        if (MV_KsRanAmfConnection* c = ran->ranAMFHead.load(); c && c->isOKToRun == 1) ++n;
    return n;
}

// ---------------------------------------------------------------- UEs on a connection

namespace {

bool linkedIn(MV_KsRanAmfConnection* conn, MV_KsUE* ue) { return ue->RanAmf_Prev || conn->ksUE_Head == ue; }

void unlink(MV_KsRanAmfConnection* conn, MV_KsUE* ue) {
    if (ue->RanAmf_Prev) ue->RanAmf_Prev->RanAmf_Next = ue->RanAmf_Next;
    else conn->ksUE_Head = ue->RanAmf_Next;
    if (ue->RanAmf_Next) ue->RanAmf_Next->RanAmf_Prev = ue->RanAmf_Prev;
    else conn->ksUE_Current = ue->RanAmf_Prev;
    ue->RanAmf_Next = ue->RanAmf_Prev = nullptr;
    --conn->ksUE_Count;
}

}  // namespace

void KsEngine__RanAmf_AddUEContext(MV_KsUE* ue, uint8_t bearer) {
    MV_KsRanAmfConnection* conn = KsEngine__getRanAmfConnection(ue, bearer);
    if (!conn) return;
    std::lock_guard g(conn->ksUE_Lock);
    if (linkedIn(conn, ue)) return;
    ue->RanAmf_Next = nullptr;
    ue->RanAmf_Prev = conn->ksUE_Current;
    if (conn->ksUE_Current) conn->ksUE_Current->RanAmf_Next = ue;
    else conn->ksUE_Head = ue;
    conn->ksUE_Current = ue;
    ++conn->ksUE_Count;
}

void KsEngine__RanAmf_RemoveUEContext(MV_KsUE* ue, uint8_t bearer) {
    MV_KsRanAmfConnection* conn = KsEngine__getRanAmfConnection(ue, bearer);
    if (!conn) return;
    std::lock_guard g(conn->ksUE_Lock);
    if (linkedIn(conn, ue)) unlink(conn, ue);
}

void KsEngine__RanAmf_RemoveAllUEContext(MV_KsRanAmfConnection* conn) {
    if (!conn) return;
    MV_KsUE* list;
    {
        // The list is taken whole under the lock and worked on outside it: the context
        // release takes each UE's ranUeContextLock, which senders hold while they add
        // the UE to this list.
        std::lock_guard g(conn->ksUE_Lock);
        conn->Busy = 1;
        list = conn->ksUE_Head;
        conn->ksUE_Head = conn->ksUE_Current = nullptr;
        conn->ksUE_Count = 0;
    }
    while (list) {
        MV_KsUE* ue = list;
        list = ue->RanAmf_Next;
        ue->RanAmf_Next = ue->RanAmf_Prev = nullptr;
        MV_KsNGRanUeContext* ctx;
        {
            std::lock_guard g(ue->TGPP.ranUeContextLock);
            ctx = ue->TGPP.ranUeContext;
            ue->TGPP.ranUeContext = nullptr;
            ue->TGPP.CMStatus = CM_STATUS__IDLE;
        }
        if (ctx) KsEngine__ReleaseKsNGRanUeContext(conn->ran, ctx);
    }
    conn->Busy = 0;
}

// ---------------------------------------------------------------- RAN UE contexts

void KsEngine__CreateNGRanUEContext(int) {
    std::lock_guard g(__ksEngine->ngRanUeContextLock);
    if (__ksEngine->ngRanUeContextDB) return;
    uint32_t n = __ksEngine->maxRanUEIDs;
    // Zeroed pages come from the system as they are first touched, so a large pool
    // costs memory only for the ids a test really uses.
    __ksEngine->ngRanUeContextDB = static_cast<MV_KsNGRanUeContext*>(calloc(n ? n : 1, sizeof(MV_KsNGRanUeContext)));
    if (!__ksEngine->ngRanUeContextDB) {
        printf("RAN UE context pool of %u could not be had\n", n);
        return;
    }
    __ksEngine->ngRanUeContextTotal = n;
    __ksEngine->ngRanUeContextAvailable = n;
    __ksEngine->ngRanUeContextFresh = 0;
    __ksEngine->ngRanUeContextHead = __ksEngine->ngRanUeContextCurrent = nullptr;
}

namespace {

mv_fifo::CoreFifo<MV_KsNGRanUeContext, uint32_t> contextPool() {
    return {__ksEngine->ngRanUeContextHead, __ksEngine->ngRanUeContextCurrent, __ksEngine->ngRanUeContextLock,
            __ksEngine->ngRanUeContextTotal, __ksEngine->ngRanUeContextAvailable};
}

}  // namespace

MV_KsNGRanUeContext* KsEngine__AllocateKsNGRanUeContext(MV_KsNGRan* ran) {
    MV_KsNGRanUeContext* ctx = nullptr;
    {
        auto pool = contextPool();
        std::lock_guard g(pool.Lock);
        // Ids never used come first, in order: the same order as a list built whole at
        // start, with released contexts behind them.
        if (__ksEngine->ngRanUeContextFresh < __ksEngine->ngRanUeContextTotal) {
            ctx = &__ksEngine->ngRanUeContextDB[__ksEngine->ngRanUeContextFresh++];
            ctx->id = __ksEngine->ngRanUeContextFresh;
            ctx->isReleased = 0;
            --__ksEngine->ngRanUeContextAvailable;
        } else if (!(ctx = pool.takeLocked())) {
            return nullptr;
        }
        ++__ksEngine->ngRanUeContextUsed;
    }
    ctx->ran = ran;
    ctx->src_amf_id = 0;
    ctx->LastReleasedForN2Handover = 0;
    return ctx;
}

void KsEngine__ReleaseKsNGRanUeContext(MV_KsNGRan*, MV_KsNGRanUeContext* ctx) {
    if (!ctx) return;
    auto pool = contextPool();
    std::lock_guard g(pool.Lock);
    if (ctx->isReleased || ctx->id == 0) return;
    ctx->ksUe = nullptr;
    ctx->ranAmfConn = nullptr;
    ctx->ranMMEConn = nullptr;
    ctx->ran = nullptr;
    uint32_t gen = ctx->GenId + 1;
    ctx->GenId = gen > 1999 ? 0 : gen;
    pool.giveLocked(ctx);
}

MV_KsNGRanUeContext* KsEngine__GetNGRanUeContextById(uint64_t id) {
    if (id == 0 || id > __ksEngine->ngRanUeContextTotal || !__ksEngine->ngRanUeContextDB) return nullptr;
    return &__ksEngine->ngRanUeContextDB[id - 1];
}

// ---------------------------------------------------------------- texts

const char* KsEngine__GetAccessType(int accessType) {
    switch (accessType) {
        case KS_ACCESS_TYPE__GNB: return "gNodeB";
        case KS_ACCESS_TYPE__ENB: return "eNodeB";
        case KS_ACCESS_TYPE__N3IWF: return "N3IWF";
        default: return "";
    }
}

const char* KsEngine__EnabledString(int enabled) { return enabled == 1 ? "Enabled" : "Disabled"; }
