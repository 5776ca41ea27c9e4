// The monitoring engine: a thread ("mtreng") that brings up the client and server pairs
// listed in data/mon.json, and tries again each round for a pair whose node is not up.
#pragma once

#include <atomic>
#include <cstdint>

#include "KsTE.h"

struct KsMonitoringNode_s {
    KsMonitoringNode_s* Next;
    int ServerId;
    int ClientId;
    uint32_t AppType;
    KsTEClient* ksClient;
    KsTEServer* ksServer;
    uint32_t ConnectionId;
};

struct KsMonitoringPairs;  // the usable elements of the monitor list

struct KsMonitoringEngine_s {
    std::atomic<int> loadConfig;
    KsMonitoringNode_s* HeadNode;  // touched by the thread (and FindNode's callers) under Lock
    KsMonitoringNode_s* CurrNode;
    MV_Mutex Lock;
    KsMonitoringPairs* pairs;  // the list as last read, under Lock
};

// Starts the thread when the engine's configuration asks for it; once.
void KsMonitoringEngine__Init(void);
// Reads the monitor list again (after a console edit). Safe, and without effect, when
// the monitoring engine does not run.
void KsMonitoringEngine__LoadConfig(void);
// The node of that pair; with Add 1 a missing one is made, and the call that makes it
// gives null: the pair counts from the next round on.
KsMonitoringNode_s* KsMonitoringEngine__FindNode(int serverId, int clientId, int Add);
// One round: every pair of the list to its client and server, and up when it is not.
void KsMonitoringEngine__ConfigureNodes(void);
void* KsMonitoringEngine__Start(void* arg);

// The pause between rounds, about a second unless a test shortens it.
void KsMonitoringEngine__SetIntervalMicros(uint32_t micros);
// Ends the thread and drops the record, so that a test can start again.
void KsMonitoringEngine___Stop(void);
