// The prebuilt steps that console commands run, as an X-macro so the engine record
// holds one field each and start-up can walk them all.
#pragma once

#define KS_COMMAND_STEP_FIELDS(X)
