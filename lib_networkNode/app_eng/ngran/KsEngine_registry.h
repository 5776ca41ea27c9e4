// What modules registered, as the engine core reads it back: rows of the step catalogue
// and of the console's command tables. Not for modules: they register through
// KsEngine_step.h.
#pragma once

#include "KsEngine_step.h"

// The registered catalogue row of a step id (the latest), or null.
const KsStepCatalogueEntry* KsEngine___registeredStepBuilder(uint32_t stepId);

// A console command a module added, with the prebuilt step start-up made for it.
struct KsCommandStepRow {
    uint32_t Command;
    uint32_t StepCode;
    uint32_t StepIndex;
    KsStep* Step;
};
// The registered rows, oldest first: start-up fills in their steps.
KsCommandStepRow* KsEngine___registeredCommandSteps(size_t* count);
// The latest registered row of a command number, or null.
const KsCommandStepRow* KsEngine___registeredCommandStep(uint32_t command);

// The latest registered templated command of an application type, or null.
const KsTemplatedCommand* KsEngine___registeredTemplatedCommand(uint32_t appType);
