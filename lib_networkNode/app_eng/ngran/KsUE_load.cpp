// Subscribers from files: the UEFiles of the configuration in their two formats
// (SUPI ranges and SUPI lists), the ranges of data/uel.json and the UEAddlData file.
#include <arpa/inet.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Kestrane.h"
#include "Kestrane_util.h"
#include "mv_bytes.h"

namespace {

// A whole number given as a JSON integer or as decimal text.
bool wholeNumber(json_t* v, uint64_t& out) {
    if (json_is_integer(v)) {
        if (json_integer_value(v) < 0) return false;
        out = uint64_t(json_integer_value(v));
        return true;
    }
    const char* s = json_string_value(v);
    if (!s || !*s || strlen(s) > 19 || strspn(s, "0123456789") != strlen(s)) return false;
    out = strtoull(s, nullptr, 10);
    return true;
}

uint64_t wholeNumberOr(json_t* obj, const char* key, uint64_t def) {
    uint64_t v;
    return wholeNumber(json_object_get(obj, key), v) ? v : def;
}

const char* text(json_t* obj, const char* key, const char* def = "") {
    const char* s = json_string_value(json_object_get(obj, key));
    return s ? s : def;
}

// The SUCI settings of an item, each falling back to the file's: "ProtectionScheme" (0 null, 1 profile A,
// 2 profile B), "HomeNetworkPublicKeyId", "HomeNetworkPublicKey" (hexadecimal) and "RoutingIndicator" (up
// to four digits). A scheme whose key has the wrong size leaves the UE on the null scheme.
void setSuci(MV_KsUE* ue, json_t* item, json_t* file) {
    auto pick = [&](const char* key) {
        json_t* v = item ? json_object_get(item, key) : nullptr;
        return v ? v : (file ? json_object_get(file, key) : nullptr);
    };
    uint64_t ri = 0;
    if (json_t* v = pick("RoutingIndicator")) {
        if (wholeNumber(v, ri) && ri <= 9999) ue->uRoutingIndicator = uint16_t(ri);
        else __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "[%s] RoutingIndicator is not a number of up to 4 digits, 0 used %s|%d",
                      KsUE__supi(ue), __func__, __LINE__);
    }
    uint64_t scheme = 0, keyId = 0;
    if (!wholeNumber(pick("ProtectionScheme"), scheme) || scheme == 0) return;
    wholeNumber(pick("HomeNetworkPublicKeyId"), keyId);
    const char* key = json_string_value(pick("HomeNetworkPublicKey"));
    size_t digits = key ? strlen(key) : 0;
    size_t n = digits / 2;
    bool hex = key && digits % 2 == 0 && strspn(key, "0123456789abcdefABCDEF") == digits;
    bool sized = scheme == 1 ? n == 32 : scheme == 2 && (n == 33 || n == 65);
    if (!hex || !sized || keyId > 255) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
                 "[%s] ProtectionScheme=%lu needs HomeNetworkPublicKeyId 0..255 and a HomeNetworkPublicKey of %s octets, "
                 "null scheme used %s|%d",
                 KsUE__supi(ue), (unsigned long)scheme, scheme == 1 ? "32" : "33 or 65", __func__, __LINE__);
        return;
    }
    __mv_ascii_to_hex(key, int(digits), ue->SuciHomeNetworkPublicKey, int(n));
    ue->SuciHomeNetworkPublicKeyLen = uint8_t(n);
    ue->SuciHomeNetworkKeyId = uint8_t(keyId);
    ue->SuciProtectionScheme = uint8_t(scheme);
}

// One code of a list item, or the file's when the item has none; a bad one is refused with a line.
bool itemCode(json_t* item, const char* key, const char* fileCode, char* out, const char* where) {
    KsJson::PlmnRead r = KsJson::plmnCode(item, key, !strcmp(key, "MNC"), out);
    if (r == KsJson::PlmnRead::Absent) snprintf(out, 4, "%s", fileCode);
    if (r != KsJson::PlmnRead::Bad) return true;
    KsJson::refusePlmn(item, where);
    return false;
}

void fileFailed(const char* name, const json_error_t& err) {
    printf("\n\n ***** error loading ue-config file:%s  error:[%s] line=%d column=%d position=%d source=[%s] ***** \n\n",
           name, err.text, err.line, err.column, err.position, err.source);
    fflush(stdout);
}

}  // namespace

// ---------------------------------------------------------------- format 1: SUPI ranges

int KsEngine__LoadSupiRangeFormat(UEFile* ueFile, json_t* root) {
    json_t* ranges = json_object_get(root, "SupiRange");
    if (!json_is_array(ranges)) {
        printf("SupiRange array not found in ue-config file:%s, nothing loaded\n", ueFile->FileName);
        return 0;
    }
    int total = 0;
    size_t i;
    json_t* r;
    json_array_foreach(ranges, i, r) {
        uint64_t start = 0, end = 0;
        if (!wholeNumber(json_object_get(r, "MSINStart"), start) || !wholeNumber(json_object_get(r, "MSINEnd"), end)) {
            printf("SupiRange element %zu of %s skipped: MSINStart and MSINEnd must be IMSI numbers\n", i,
                   ueFile->FileName);
            continue;
        }
        char mcc[4], mnc[4], where[400];
        snprintf(where, sizeof where, "SupiRange element %zu of %s skipped", i, ueFile->FileName);
        if (KsJson::plmn(r, mcc, mnc, where) == KsJson::PlmnRead::Bad) continue;
        uint64_t imei = wholeNumberOr(r, "IMEI", 0);
        uint32_t scID = uint32_t(KsJson::number(r, "ScID", 0));
        long added = 0;
        for (uint64_t n = start; n <= end; ++n) {
            MV_KsUE* ue = KsEngine__AddUE(ueFile, mcc, mnc, text(r, "SubKey"), text(r, "OPc"),
                                          imei + uint64_t(added), n, scID, 1, 0, "");
            if (!ue) {
                printf("Adding UE Failed after=%ld %s|%d\n", added, __func__, __LINE__);
                break;
            }
            setSuci(ue, r, root);
            ++added;
            if (n == UINT64_MAX) break;
        }
        total += int(added);
    }
    return total;
}

// ---------------------------------------------------------------- format 2: SUPI lists

int KsEngine__LoadListFormat(UEFile* ueFile, json_t* root) {
    __mv_ks__ue_file_config& fc = ueFile->ueFileConfig;
    fc.ConcurrentSessions = uint32_t(KsJson::number(root, "ConcurrentSessions", 1));
    char where[400];
    snprintf(where, sizeof where, "ue-config file:%s, the file's code not used", ueFile->FileName);
    itemCode(root, "MCC", "", fc.MCC, where);
    itemCode(root, "MNC", "", fc.MNC, where);
    const char* fileKey = text(root, "SubKey");
    const char* fileOpc = text(root, "OPc");
    __mv_ascii_to_hex(fileKey, int(strlen(fileKey)), fc.SubKey, 16);
    __mv_ascii_to_hex(fileOpc, int(strlen(fileOpc)), fc.OPc, 16);
    fc.SQN = wholeNumberOr(root, "SQN", 0);
    fc.IMEI = wholeNumberOr(root, "IMEI_BASE_NO", 0);
    fc.Delay = wholeNumberOr(root, "Delay", 0);
    fc.SST = uint32_t(KsJson::number(root, "SST", 0));
    long long usage = KsJson::number(root, "UEUsageSettings", 1);
    fc.UEUsageSettings = (usage == 1 || usage == 2) ? uint32_t(usage) : 1;
    fc.scID = uint32_t(KsJson::number(root, "ScID", 0));
    const char* sd = json_string_value(json_object_get(root, "SD"));
    if (sd && strlen(sd) == 6 && strspn(sd, "0123456789abcdefABCDEF") == 6) {
        __mv_ascii_to_hex(sd, 6, fc.SD, 3);
        fc.SD_isset = 1;
    } else if (sd) {
        printf("SD=[%s] of ue-config file:%s is not 6 hexadecimal digits, ignored\n", sd, ueFile->FileName);
    }
    snprintf(fc.IMEI_SV, sizeof fc.IMEI_SV, "%.2s", text(root, "IMEI_SV"));

    json_t* list = json_object_get(root, "SupiList");
    if (!json_is_array(list)) {
        printf("SupiList array not found in ue-config file:%s, nothing loaded\n", ueFile->FileName);
        return 0;
    }
    int added = 0;
    size_t pos;
    json_t* item;
    json_array_foreach(list, pos, item) {
        // A disabled item still takes its position for the IMEI base.
        if (KsJson::number(item, "E", 1) != 1) continue;
        uint64_t msin = wholeNumberOr(item, "MSIN", 0);
        uint64_t imei = fc.IMEI + pos;
        wholeNumber(json_object_get(item, "IMEI"), imei);
        uint32_t scID = uint32_t(KsJson::number(item, "ScID", 0));
        if (scID == 0) scID = fc.scID;
        char mcc[4], mnc[4];
        snprintf(where, sizeof where, "SupiList item %zu of %s skipped", pos, ueFile->FileName);
        if (!itemCode(item, "MCC", fc.MCC, mcc, where) || !itemCode(item, "MNC", fc.MNC, mnc, where)) continue;
        MV_KsUE* ue = KsEngine__AddUE(ueFile, mcc, mnc,
                                      text(item, "SubKey", fileKey), text(item, "OPc", fileOpc), imei, msin, scID, 1, 0,
                                      "");
        if (!ue) {
            printf("Adding UE Failed after=%d %s|%d\n", added, __func__, __LINE__);
            break;
        }
        uint64_t sqn = wholeNumberOr(item, "SQN", fc.SQN);
        ue->TGPP.sqn = ue->NTGPP.sqn = sqn;
        setSuci(ue, item, root);
        // The file's slice is the one the UE asks for.
        if (fc.SST > 0 && ue->sNssaisCount == 0) {
            MV_KsNssai_t& s = ue->sNssais[0];
            s.sst = uint8_t(fc.SST);
            memcpy(s.sd, fc.SD, sizeof s.sd);
            s.sd_isset = fc.SD_isset;
            ue->sNssaisCount = 1;
        }
        ++added;
    }
    return added;
}

int KsEngine__LoadUEConfigs() {
    for (uint32_t i = 0; i < __ksEngine->UEFileCount; ++i) {
        UEFile* uf = &__ksEngine->UEFiles[i];
        if (uf->Enabled != 1) continue;
        json_error_t err{};
        json_t* root = json_load_file(uf->FileName, 0, &err);
        if (!json_is_object(root)) {
            if (root) snprintf(err.text, sizeof err.text, "%s", "not a JSON object");
            fileFailed(uf->FileName, err);
            json_decref(root);
            return 0;
        }
        long long format = KsJson::number(root, "Format", 0);
        int added = 0;
        if (format == 1) added = KsEngine__LoadSupiRangeFormat(uf, root);
        else if (format == 2) added = KsEngine__LoadListFormat(uf, root);
        else printf("ue-config file:%s has Format=%lld, neither 1 (SupiRange) nor 2 (SupiList): nothing loaded\n",
                    uf->FileName, format);
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_CRITICAL, "ue-config file:%s Format=%lld UEs=%d %s|%d", uf->FileName,
                 format, added, __func__, __LINE__);
        json_decref(root);
    }
    return 1;
}

// ---------------------------------------------------------------- data/uel.json

int KsEngine__ConfigureUEListEntry(json_t* el) {
    uint64_t start = 0, end = 0, msisdnBase = 0;
    const char* why = nullptr;
    if (!json_is_object(el)) why = "not an object";
    else if (!wholeNumber(json_object_get(el, "MSINStart"), start) || !wholeNumber(json_object_get(el, "MSINEnd"), end))
        why = "MSINStart and MSINEnd must be IMSI numbers";
    else if (!wholeNumber(json_object_get(el, "MSISDNBegin"), msisdnBase))
        why = "MSISDNBegin is required";
    if (why) {
        __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "uel.json element ID=%lld skipped: %s %s|%d",
                 KsJson::number(el, "ID", -1), why, __func__, __LINE__);
        printf("uel.json element ID=%lld skipped: %s\n", KsJson::number(el, "ID", -1), why);
        return 0;
    }
    uint64_t imeiBase = wholeNumberOr(el, "IMEIBegin", 0);
    char mcc[4], mnc[4], where[120];
    snprintf(where, sizeof where, "uel.json element ID=%lld skipped", KsJson::number(el, "ID", -1));
    if (KsJson::plmn(el, mcc, mnc, where) == KsJson::PlmnRead::Bad) return 0;
    int count = 0;
    for (uint64_t n = start; n <= end; ++n) {
        MV_KsUE* ue = KsEngine__AddUE(nullptr, mcc, mnc, text(el, "SubKey"), text(el, "OPC"),
                                      imeiBase + uint64_t(count), n, 0, 1, long(msisdnBase + uint64_t(count)),
                                      text(el, "APN"));
        if (!ue) {
            printf("Adding UE Failed after=%d %s|%d\n", count, __func__, __LINE__);
            break;
        }
        // The SUCI keys of the subscriber files, where an element gives them.
        setSuci(ue, el, nullptr);
        ++count;
        if (n == UINT64_MAX) break;
    }
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO,
             "adding UE from uel.json  MCC=%s  MNC=%s  MSINStart=%lu MSINEnd=%lu count=%d %s|%d", mcc, mnc,
             (unsigned long)start, (unsigned long)end, count, __func__, __LINE__);
    return count;
}

int KsEngine__ConfigureUEList(json_t* ueList) {
    if (!json_is_array(ueList)) return 0;
    int created = 0;
    size_t i;
    json_t* el;
    json_array_foreach(ueList, i, el) created += KsEngine__ConfigureUEListEntry(el);
    return created;
}

// ---------------------------------------------------------------- UEAddlData

void KsEngine__LoadUEAddlData(json_t* cfg) {
    const char* path = json_string_value(json_object_get(cfg, "UEAddlData"));
    if (!path) return;
    json_error_t err{};
    json_t* root = json_load_file(path, 0, &err);
    if (!json_is_array(root)) {
        if (root) snprintf(err.text, sizeof err.text, "%s", "not a JSON array");
        printf("Loading UEAddlData=[%s] Config Failed error:[%s] line=%d column=%d position=%d source=[%s]\n", path,
               err.text, err.line, err.column, err.position, err.source);
        json_decref(root);
        return;
    }
    size_t i;
    json_t* item;
    json_array_foreach(root, i, item) {
        const char* imsi = json_string_value(json_object_get(item, "IMSI"));
        const char* ip = json_string_value(json_object_get(item, "UEIPv4"));
        MV_KsUE* ue = nullptr;
        KsEngine__FindUEByIMSI(&ue, imsi);
        if (!ue || !ip) continue;
        struct in_addr a;
        if (inet_pton(AF_INET, ip, &a) != 1) {
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "UEAddlData IMSI=%s UEIPv4=[%s] is not an IPv4 address %s|%d",
                     imsi, ip, __func__, __LINE__);
            continue;
        }
        ue->static_UEIPv4 = ntohl(a.s_addr);
    }
    json_decref(root);
}
