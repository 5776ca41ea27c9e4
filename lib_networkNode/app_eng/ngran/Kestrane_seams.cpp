#include "Kestrane_seams.h"

#include <arpa/inet.h>

#include <cstdio>
#include <atomic>
#include <cstring>

#include "Kestrane.h"
#include "KsDiamDict.h"

namespace {
void absent(const char* what, const char* func) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "%s is not part of this build, skipped %s|%d", what, func, __LINE__);
}
}  // namespace

void KsSeam__TemplateMgr_Init() { absent("template manager", __func__); }
void KsSeam__create_cpTeidTable() { absent("control-plane TEID table", __func__); }

void KsSeam__create_diam_id_table(uint32_t maxRanUEIDs) { __mv_diam_create_IndexTable(1552, maxRanUEIDs); }
void KsSeam__DiamDict_Init() { KsDiamDict__Init(); }
void KsSeam__TemplateEng_Init() { absent("template engine", __func__); }

int KsSeam__GTP_Init(json_t* cfg) {
    const char* ip = json_string_value(json_object_get(cfg, "LOCAL_GTP_IP"));
    const char* dot = ip ? strchr(ip, '.') : nullptr;
    if (dot && dot > ip) {
        __ksEngine->localGTP_IPType = 4;
        struct in_addr a;
        if (inet_pton(AF_INET, ip, &a) == 1) {
            uint32_t host = ntohl(a.s_addr);
            memcpy(__ksEngine->localGTP_IPv4, &host, sizeof host);
        }
    } else if (ip && strchr(ip, ':')) {
        __ksEngine->localGTP_IPType = 6;
        struct in6_addr a6;
        if (inet_pton(AF_INET6, ip, &a6) == 1) memcpy(__ksEngine->localGTP_IPv6, &a6, 16);
    } else {
        printf("unable to identify an_ip=%s version in GTP %s|%d\n", ip ? ip : "", __func__, __LINE__);
        return 0;
    }
    absent("GTP-U traffic engine", __func__);
    return 1;
}

void KsSeam__DataPath_Init() { absent("data-path peer", __func__); }
void KsSeam__PFCP_Init() { absent("PFCP", __func__); }
void KsSeam__AGF_Init() { absent("access gateway client", __func__); }
void KsSeam__register_s1ap_handlers() { absent("S1AP handlers", __func__); }
void KsSeam__register_diam_handlers() { KsDiamDict__RegisterHandlers(); }
void KsSeam__TE_Init() { absent("test-element connections", __func__); }
void KsSeam__MonitoringEngine_Init() { absent("monitoring engine", __func__); }

namespace {

std::atomic<KsTemplateLookup> templateLookup{nullptr};

MV_Template* lookupTemplate(const char* name, const char* cType, int appSubType, uint32_t messageId) {
    if (!name || !*name) return nullptr;
    if (KsTemplateLookup f = templateLookup.load()) return f(name, cType, appSubType, messageId);
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR,
             "template engine is not part of this build: Template=[%s] Interface=%s SubType=%d MessageType=%u not found "
             "%s|%d",
             name, cType ? cType : "", appSubType, messageId, __func__, __LINE__);
    return nullptr;
}

}  // namespace

// ---------------------------------------------------------------- template engine

void KsSeam__SetTemplateLookup(KsTemplateLookup lookup) { templateLookup = lookup; }

MV_Template* KsSeam__FindTemplateByMessageId(const char* name, const char* cType, uint32_t messageId) {
    return lookupTemplate(name, cType, -1, messageId);
}

MV_Template* KsSeam__FindTemplateByMessageId2(const char* name, const char* cType, int appSubType, uint32_t messageId) {
    return lookupTemplate(name, cType, appSubType, messageId);
}

void KsSeam__FindTemplatesFotRequestByTemplateFor5G(uint32_t, uint32_t, uint32_t, uint32_t, __ks_step*) {
    absent("template engine", __func__);
}
void KsSeam__FindTemplatesForRequestByTemplateForPFCP(uint32_t, uint32_t, __ks_step*) {
    absent("template engine", __func__);
}
void KsSeam__FindTemplatesForRequestByTemplateByAppType(const char*, uint32_t, uint32_t, __ks_step*) {
    absent("template engine", __func__);
}
void KsSeam__FindTemplatesForRequestByTemplateForDiam(int, const char*, uint32_t, uint32_t, uint32_t, __ks_step*) {
    absent("template engine", __func__);
}
