// Where the engine meets the element connections: the lists they read.
#pragma once

// Gives KsTE and the monitoring engine data/noc.json, data/mon.json and
// EnableMonitoringEngine of the engine record. Called before KsTE__Init.
void KsTE__AttachEngine(void);
