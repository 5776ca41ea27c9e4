// Where start-up reaches subsystems that modules bring. Each operation here runs what
// the module registered for its place in start-up or, when no module of this build
// did, logs that its subsystem is absent and does nothing else, so that start-up runs
// in its full order. The README's status table lists the absent ones.
#pragma once

#include <jansson.h>

#include <cstdint>

#include "KsEngine_step.h"


// Each runs what a module registered in its start-up slot (KsEngine__RegisterStartStep),
// or logs that the subsystem is absent. 1 to go on, 0 when start-up must stop.
int KsSeam__TemplateMgr_Init(json_t* cfg);
int KsSeam__create_cpTeidTable(json_t* cfg);
int KsSeam__Console_Start(json_t* cfg);
int KsSeam__create_diam_id_table(json_t* cfg);
int KsSeam__DiamDict_Init(json_t* cfg);
// The GTP-U start decides the local GTP address first; 0 when it has none.
int KsSeam__GTP_Init(json_t* cfg);
int KsSeam__DataPath_Init(json_t* cfg);
int KsSeam__PFCP_Init(json_t* cfg);
int KsSeam__AGF_Init(json_t* cfg);
int KsSeam__register_ngap_handlers(json_t* cfg);
int KsSeam__register_s1ap_handlers(json_t* cfg);
int KsSeam__register_diam_handlers(json_t* cfg);
