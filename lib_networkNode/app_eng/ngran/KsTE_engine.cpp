#include "KsTE_engine.h"

#include "KsMonitoringEngine.h"
#include "KsTE.h"
#include "Kestrane.h"
#include "Kestrane_nodes.h"

namespace {

json_t* nodeConfig() { return __ksEngine ? __ksEngine->node_config : nullptr; }
json_t* monitorList() { return __ksEngine ? __ksEngine->monitorList : nullptr; }
uint32_t monitoringEnabled() { return __ksEngine ? __ksEngine->EnableMonitoringEngine : 0; }

constexpr KsTEConfigSource kEngineSource{nodeConfig, monitorList, monitoringEnabled};

}  // namespace

void KsTE__AttachEngine(void) { KsTE__SetConfigSource(&kEngineSource); }
