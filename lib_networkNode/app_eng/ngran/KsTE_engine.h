// Where the engine meets the federation layer: the lists it reads, and the self check of
// the RAN UE contexts.
#pragma once

// Gives KsTE and the monitoring engine data/noc.json, data/mon.json and
// EnableMonitoringEngine of the engine record. Called before KsTE__Init.
void KsTE__AttachEngine(void);

// The self check; 0 does nothing (start-up passes 0).
void KsTDD_run(int bRun);
// Allocates, looks up by the derived RAN UE NGAP id and releases 21 rounds of the whole
// context pool on the first RAN, logging each. Returns how many lookups missed their
// context, or -1 when there is no RAN or a context could not be had.
int KsTDD_runUeContextTest(void);
