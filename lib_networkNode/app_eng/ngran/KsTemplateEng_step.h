// Templates chosen by position for the templated console commands: the candidates of an
// interface in load order, and the one at the command's position goes into a slot of
// the command's step.
#pragma once

#include <cstdint>

struct __ks_step;

void KsTemplateEng__FindTemplatesFotRequestByTemplateFor5G(uint32_t option, uint32_t nasId, uint32_t ngapInitId,
                                                          uint32_t ngapUplinkId, __ks_step* ksStep);
void KsTemplateEng__FindTemplatesForRequestByTemplateForPFCP(uint32_t request, uint32_t reqTemplateId,
                                                            __ks_step* ksStep);
void KsTemplateEng__FindTemplatesForRequestByTemplateByAppType(const char* appTypeName, uint32_t request,
                                                              uint32_t reqTemplateId, __ks_step* ksStep);
void KsTemplateEng__FindTemplatesForRequestByTemplateForDiam(int appType, const char* appName,
                                                            uint32_t SubAppTypeOrInterface, uint32_t CmdCode,
                                                            uint32_t reqTemplateId, __ks_step* ksStep);
