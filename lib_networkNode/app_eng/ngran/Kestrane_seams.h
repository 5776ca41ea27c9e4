// Where start-up reaches subsystems that are not part of this build yet. Each
// operation here logs that its subsystem is absent and does nothing else, so that
// start-up runs in its full order; each is replaced by the real call as the
// subsystem lands. The README's status table lists them.
#pragma once

#include <jansson.h>

#include <cstdint>

void KsSeam__TemplateMgr_Init();
void KsSeam__create_cpTeidTable();
void KsSeam__create_diam_id_table(uint32_t maxRanUEIDs);
void KsSeam__DiamDict_Init();
// The GTP-U start decides the local GTP address; returns 0 when start-up must stop.
int KsSeam__GTP_Init(json_t* cfg);
void KsSeam__DataPath_Init();
void KsSeam__PFCP_Init();
void KsSeam__AGF_Init();
void KsSeam__register_s1ap_handlers();
void KsSeam__register_diam_handlers();
