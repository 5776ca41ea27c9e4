#include "KsTemplateEng_step.h"

#include <cstdio>

#include "Kestrane.h"
#include "KsTemplateEng.h"

namespace {

// The candidate at a position; null at or beyond the count, which sets nothing.
MV_Template* at(const __mv_template_list& list, uint32_t position) {
    return position < list.Count ? list.templates[position] : nullptr;
}

void setAt(const __mv_template_list& list, uint32_t position, KsStep* st, void (*setter)(KsStep*, MV_Template*)) {
    if (MV_Template* t = at(list, position)) setter(st, t);
}

}  // namespace

void KsTemplateEng__FindTemplatesFotRequestByTemplateFor5G(uint32_t, uint32_t nasId, uint32_t ngapInitId,
                                                          uint32_t ngapUplinkId, KsStep* ksStep) {
    if (!ksStep) return;
    __mv_template_list list{};
    KsTemplateEng__CollectTemplates("NAS5G", nullptr, &list);
    KsTemplateEng__CollectTemplates("NGAP", nullptr, &list);
    if (MV_Template* t = at(list, nasId)) {
        bool sm = t->MessageType == 193 || t->MessageType == 201 || t->MessageType == 209;
        (sm ? KsScanario__SetSMNASTemplate : KsScanario__SetNASTemplate)(ksStep, t);
    }
    setAt(list, ngapInitId, ksStep, KsScanario__SetNGAPInitTemplate);
    setAt(list, ngapUplinkId, ksStep, KsScanario__SetUplinkNGAPTemplate);
}

void KsTemplateEng__FindTemplatesForRequestByTemplateForPFCP(uint32_t request, uint32_t reqTemplateId,
                                                            KsStep* ksStep) {
    KsTemplateEng__FindTemplatesForRequestByTemplateByAppType("PFCP", request, reqTemplateId, ksStep);
}

void KsTemplateEng__FindTemplatesForRequestByTemplateByAppType(const char* appTypeName, uint32_t,
                                                              uint32_t reqTemplateId, KsStep* ksStep) {
    if (!ksStep) return;
    __mv_template_list list{};
    KsTemplateEng__CollectTemplates(appTypeName, nullptr, &list);
    setAt(list, reqTemplateId, ksStep, KsScanario__SetNASTemplate);
}

void KsTemplateEng__FindTemplatesForRequestByTemplateForDiam(int appType, const char* appName,
                                                            uint32_t SubAppTypeOrInterface, uint32_t,
                                                            uint32_t reqTemplateId, KsStep* ksStep) {
    if (!ksStep) return;
    const char* prefix = KsTemplateEng__DiamPrefix(appType, SubAppTypeOrInterface);
    if (!prefix) {
        printf("Not Implemented for AppType=%u  %s|%s|%d\n", unsigned(appType), __FILE_NAME__, __func__, __LINE__);
        prefix = "";
    }
    __mv_template_list list{};
    KsTemplateEng__CollectTemplates(appName, prefix, &list);
    setAt(list, reqTemplateId, ksStep, KsScanario__SetNASTemplate);
}
