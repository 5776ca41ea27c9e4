// The Diameter stack's part of the engine's start-up: the session id table beside the NGAP
// one, the AVP dictionaries of ./resources/dictionary, and the engine's message handlers.
#include "Kestrane_engine.h"
#include "KsDiamDict.h"
#include "KsEngine_step.h"

void KsDiam__Init();

namespace {

// End-to-End Identifiers start above the NGAP ids' table, one row per RAN UE id.
constexpr uint32_t kDiamIdTableBase = 1552;

int createIdTable(json_t*) {
    __mv_diam_create_IndexTable(kDiamIdTableBase, __ksEngine->maxRanUEIDs);
    return 1;
}
int loadDictionaries(json_t*) {
    KsDiamDict__Init();
    return 1;
}
int registerHandlers(json_t*) {
    KsDiamDict__RegisterHandlers();
    return 1;
}

}  // namespace

void KsDiam__Init() {
    KsEngine__RegisterStartStep(KsStartSlot::DiamIdTable, createIdTable);
    KsEngine__RegisterStartStep(KsStartSlot::DiamDict, loadDictionaries);
    KsEngine__RegisterStartStep(KsStartSlot::DiamHandlers, registerHandlers);
}
