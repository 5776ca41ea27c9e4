#include "KsDiamDict.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <mutex>

MV_Dict_t* __mvDict = nullptr;

namespace {

std::once_flag initOnce;
std::once_flag dictOnce;

MV_Dict_t* dict() {
    std::call_once(dictOnce, [] { __mvDict = __mv_arena_new<MV_Dict_t>(); });
    return __mvDict;
}

void codeKey(uint32_t code, uint8_t key[4]) {
    key[0] = uint8_t(code >> 24);
    key[1] = uint8_t(code >> 16);
    key[2] = uint8_t(code >> 8);
    key[3] = uint8_t(code);
}

// Called with the dictionary's lock held.
__mv_DictDiamApp* findApp(uint32_t applicationId, bool create) {
    MV_Dict_t* d = dict();
    for (__mv_DictDiamApp* a = d->dictHead; a; a = a->Next)
        if (a->ApplicationId == applicationId) return a;
    if (!create) return nullptr;
    auto* a = __mv_arena_new<__mv_DictDiamApp>();
    a->ApplicationId = applicationId;
    if (d->dictCurrent) d->dictCurrent->Next = a;
    else d->dictHead = a;
    d->dictCurrent = a;
    return a;
}

__mv_DictDiamVendorId* findVendor(__mv_DictDiamApp* app, uint32_t vendorId, bool create) {
    for (__mv_DictDiamVendorId* v = app->dictVHead; v; v = v->Next)
        if (v->VendorId == vendorId) return v;
    if (!create) return nullptr;
    auto* v = __mv_arena_new<__mv_DictDiamVendorId>();
    v->VendorId = vendorId;
    v->powerTable = __mv_power_table_create();
    if (app->dictVCurrent) app->dictVCurrent->Next = v;
    else app->dictVHead = v;
    app->dictVCurrent = v;
    return v;
}

__mv_DictDiamAVP* findEntry(__mv_DictDiamVendorId* v, uint32_t code) {
    if (!v) return nullptr;
    uint8_t key[4];
    codeKey(code, key);
    void* p = nullptr;
    __mv_power_table_fnd(v->powerTable, key, 4, &p);
    return static_cast<__mv_DictDiamAVP*>(p);
}

json_int_t number(json_t* o, const char* key, json_int_t dflt) {
    json_t* v = json_object_get(o, key);
    return json_is_number(v) ? json_int_t(json_number_value(v)) : dflt;
}

}  // namespace

uint32_t KsDiamDict__TranslateDataType(const char* cDataType) {
    if (!cDataType) return 0;
    static constexpr struct {
        const char* text;
        uint32_t type;
    } kTypes[] = {{"OctetString", 1}, {"Int32", 2}, {"Int64", 3}, {"UInt32", 4}, {"UInt64", 5}, {"Grouped", 6}};
    for (const auto& t : kTypes)
        if (strcmp(cDataType, t.text) == 0) return t.type;
    return 0;
}

__mv_DictDiamApp* KsDiamDict__getByApplicationId(uint32_t applicationId) {
    std::lock_guard g(dict()->Lock);
    return findApp(applicationId, true);
}

__mv_DictDiamVendorId* KsDiamDict__FindDictDiamVendorId(__mv_DictDiamApp* appDicObj, uint32_t VendorId) {
    if (!appDicObj) return nullptr;
    std::lock_guard g(dict()->Lock);
    return findVendor(appDicObj, VendorId, true);
}

int KsDiamDict__LoadAppAVPDict(__mv_DictDiamApp* appDicObj, json_t* avpItem) {
    if (!appDicObj || !json_is_object(avpItem)) return 0;
    json_int_t code = number(avpItem, "Code", 0);
    json_int_t vendor = number(avpItem, "VendorId", 0);
    __mv_DictDiamVendorId* v = KsDiamDict__FindDictDiamVendorId(appDicObj, uint32_t(vendor));
    uint32_t type = KsDiamDict__TranslateDataType(json_string_value(json_object_get(avpItem, "DataType")));
    if (code < 1 || code > 0xFFFFFFFF || type == 0) return 0;
    std::lock_guard g(dict()->Lock);
    // The first entry for a code wins.
    if (findEntry(v, uint32_t(code))) return 0;
    auto* e = __mv_arena_new<__mv_DictDiamAVP>();
    e->avpCode = uint32_t(code);
    e->dataType = type;
    e->mandatory = number(avpItem, "Mandatory", 0) == 1 ? 1 : 0;
    e->vendorId = uint32_t(vendor);
    if (const char* name = json_string_value(json_object_get(avpItem, "Name")))
        snprintf(e->name, sizeof e->name, "%s", name);
    uint8_t key[4];
    codeKey(e->avpCode, key);
    __mv_power_table_add(v->powerTable, key, 4, e);
    return 1;
}

int KsDiamDict__LoadAppDict(json_t* appDict) {
    json_int_t appId = number(appDict, "ApplicationId", 0);
    if (appId <= 0 || appId > 0xFFFFFFFF) return 0;
    __mv_DictDiamApp* app = KsDiamDict__getByApplicationId(uint32_t(appId));
    json_t* avps = json_object_get(appDict, "AVPs");
    if (!json_is_array(avps)) {
        printf("AVPs got NULL %s|%d\n", __func__, __LINE__);
        return 0;
    }
    int loaded = 0;
    size_t i;
    json_t* item;
    json_array_foreach(avps, i, item) loaded += KsDiamDict__LoadAppAVPDict(app, item);
    return loaded;
}

int KsDiamDict__LoadFile(const char* path) {
    struct stat sb;
    int fsts = stat(path, &sb);
    if (fsts != 0) {
        printf("Diameter Dictinory File Not Found at %s  %s|%d\n", path, __func__, __LINE__);
        return 0;
    }
    json_error_t err;
    json_t* root = json_load_file(path, 0, &err);
    if (!root) {
        printf("Loading Diameter Dictinory Failed with error:[%s] line=%d column=%d position=%d source=[%s] fsts=%d %s|%d\n",
               err.text, err.line, err.column, err.position, err.source, fsts, __func__, __LINE__);
        return 0;
    }
    if (!json_is_array(root)) {
        printf("Diameter Dictinory, diamDict is NOT an Array %s|%d\n", __func__, __LINE__);
        json_decref(root);
        return 0;
    }
    size_t i;
    json_t* app;
    json_array_foreach(root, i, app) {
        if (json_is_object(app)) KsDiamDict__LoadAppDict(app);
    }
    json_decref(root);
    return 1;
}

void KsDiamDict__Init() {
    std::call_once(initOnce, [] { KsDiamDict__LoadFile(KS_DIAM_DICT_FILE); });
}

uint32_t KsDiamDict__GetDataType(uint32_t appId, uint32_t avpCode, uint32_t VendorId) {
    std::lock_guard g(dict()->Lock);
    __mv_DictDiamAVP* e = findEntry(findVendor(findApp(appId, true), VendorId, true), avpCode);
    return e ? e->dataType : 0;
}

const __mv_DictDiamAVP* KsDiamDict__FindAVP(uint32_t appId, uint32_t avpCode, uint32_t VendorId) {
    std::lock_guard g(dict()->Lock);
    __mv_DictDiamApp* app = findApp(appId, false);
    return app ? findEntry(findVendor(app, VendorId, false), avpCode) : nullptr;
}

// ---------------------------------------------------------------- the engine's handlers

uint32_t KsEngine__app_diam_dict_handler(uint32_t avpCode, uint32_t appId) {
    constexpr uint32_t kCx = 0x1000000, kS6a = 0x1000023, kSWx = 0x1000031;
    if (appId == kCx || appId == kS6a || appId == kSWx) {
        if (avpCode == 607 || avpCode == 613) return MV_DIAM_TYPE_UINT32;
        if (avpCode == 612) return MV_DIAM_TYPE_GROUPED;
        if (appId == kS6a && (avpCode == 1413 || avpCode == 1414)) return MV_DIAM_TYPE_GROUPED;
    }
    return MV_DIAM_TYPE_OCTETSTRING;
}

void KsEngine__diam_message_handler(MV_DiamMessage* msg) { __mv_diam_dispatch_by_application(msg); }

void KsDiamDict__RegisterHandlers() {
    __mv_diam_set_dict_post_handler(KsEngine__app_diam_dict_handler);
    __mv_diam_set_msg_handler(KsEngine__diam_message_handler);
}
