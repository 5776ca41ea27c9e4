#include "Kestrane_seams.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Kestrane.h"

namespace {
void absent(const char* what, const char* func) {
    __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_INFO, "%s is not part of this build, skipped %s|%d", what, func, __LINE__);
}
}  // namespace

namespace {

// The module's step in that slot, or the absent line; 0 only when the module stops start-up.
int slot(KsStartSlot which, json_t* cfg, const char* what, const char* func) {
    int r = KsEngine__RunStartStep(which, cfg);
    if (r != -ENOENT) return r == 0 ? 0 : 1;
    absent(what, func);
    return 1;
}

}  // namespace

int KsSeam__TemplateMgr_Init(json_t* cfg) { return slot(KsStartSlot::TemplateMgr, cfg, "template manager", __func__); }
int KsSeam__create_cpTeidTable(json_t* cfg) {
    return slot(KsStartSlot::CpTeidTable, cfg, "control-plane TEID table", __func__);
}
int KsSeam__Console_Start(json_t* cfg) { return slot(KsStartSlot::Console, cfg, "console", __func__); }
int KsSeam__create_diam_id_table(json_t* cfg) {
    return slot(KsStartSlot::DiamIdTable, cfg, "Diameter id table", __func__);
}
int KsSeam__DiamDict_Init(json_t* cfg) { return slot(KsStartSlot::DiamDict, cfg, "Diameter dictionaries", __func__); }

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
    return slot(KsStartSlot::GTP, cfg, "GTP-U traffic engine", __func__);
}

int KsSeam__DataPath_Init(json_t* cfg) { return slot(KsStartSlot::DataPath, cfg, "data-path peer", __func__); }
int KsSeam__PFCP_Init(json_t* cfg) { return slot(KsStartSlot::PFCP, cfg, "PFCP", __func__); }
int KsSeam__AGF_Init(json_t* cfg) { return slot(KsStartSlot::AGF, cfg, "access gateway client", __func__); }
int KsSeam__register_ngap_handlers(json_t* cfg) {
    return slot(KsStartSlot::NGAPHandlers, cfg, "NGAP handlers", __func__);
}
int KsSeam__register_s1ap_handlers(json_t* cfg) {
    return slot(KsStartSlot::S1APHandlers, cfg, "S1AP handlers", __func__);
}
int KsSeam__register_diam_handlers(json_t* cfg) {
    return slot(KsStartSlot::DiamHandlers, cfg, "Diameter handlers", __func__);
}
