// Where start-up reaches subsystems that are not part of this build yet. Each
// operation here logs that its subsystem is absent and does nothing else, so that
// start-up runs in its full order; each is replaced by the real call as the
// subsystem lands. The README's status table lists them.
#pragma once

#include <jansson.h>

#include <cstdint>

void KsSeam__socket_engine_init();
void KsSeam__TemplateMgr_Init();
void KsSeam__AddStaticAMF(json_t* amf);
void KsSeam__create_cpTeidTable();
void KsSeam__UECServer_Start(uint32_t port);
void KsSeam__LoadScanarioFiles();
void KsSeam__create_id_tables(uint32_t maxRanUEIDs);
void KsSeam__CreateNGRanUEContext();
void KsSeam__LoadUEFiles();
void KsSeam__create_commandPool();
void KsSeam__CreateCommandSteps();
void KsSeam__DiamDict_Init();
void KsSeam__TemplateEng_Init();
// The GTP-U start decides the local GTP address; returns 0 when start-up must stop.
int KsSeam__GTP_Init(json_t* cfg);
void KsSeam__DataPath_Init();
void KsSeam__PFCP_Init();
void KsSeam__AGF_Init();
void KsSeam__register_ngap_handlers();
void KsSeam__InitializeRanNode_Configs();
void KsSeam__register_diam_handlers();
void KsSeam__StartNGRANs();
void KsSeam__TE_Init();
void KsSeam__LoadUEAddlData(json_t* cfg);
void KsSeam__MonitoringEngine_Init();
