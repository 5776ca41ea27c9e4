// The catalogue of scenario steps: which builder a scenario step id calls, and what
// each builder puts into the step.
#include <cerrno>
#include <cstdlib>

#include "Kestrane.h"
#include "Kestrane_util.h"

namespace {

// A Dict value for a key, or null: Dict is an array of {Key: number, Value: string}.
const char* dictValue(json_t* dict, long long key) {
    size_t i;
    json_t* e;
    json_array_foreach(dict, i, e) {
        if (KsJson::number(e, "Key", -1) == key) return json_string_value(json_object_get(e, "Value"));
    }
    return nullptr;
}

}  // namespace

void Kestrane___ScanarioAddSleep(KsScanario* scanario, json_t* dict) {
    KsStep* st = KsScanario__NewStep(KS_STEP__SLEEP, 3);
    st->SleepTime = 10;
    if (const char* v = dictValue(dict, 3)) {
        char* end = nullptr;
        errno = 0;
        unsigned long secs = strtoul(v, &end, 10);
        if (end != v && errno == 0 && secs < MV_TIMER_WHEEL_SLOTS) st->SleepTime = uint32_t(secs);
        else
            __mv_log(MV_APP_LOG, LOG_CAT_APP, MV_LOG_ERROR, "sleep step: Value=[%s] is not a number of seconds, using %u %s|%d",
                     v, st->SleepTime, __func__, __LINE__);
    }
    KsScanario__AddStep(scanario, st);
}

KsStepBuilder KsScanario__GetStepBuilder(uint32_t stepId) {
    switch (stepId) {
        case 3: return Kestrane___ScanarioAddSleep;
        default: return nullptr;
    }
}
