// A step family of the tests: its steps answer after a delay of SleepTime seconds (the
// UE's line answers a 0 at once), as a protocol peer would. It brings its own scenario
// step id and console command, and touches no engine file.
#pragma once

#include <atomic>
#include <cstdint>

#define KS_DELAY_STEP_ID 15001      // scenario step id: Dict key 3 gives the seconds
#define KS_DELAY_STEP_CODE 900      // outside the engine's own step codes
#define KS_DELAY_STEP_INDEX 15001   // inside the 5G runner's open range 12000 and above
#define KS_DELAY_COMMAND 15001      // the console command that runs one delayed step

void KsDelay__Init();

// What the family saw: steps started, and answers given on the UE's line.
struct KsDelayTally {
    std::atomic<uint32_t> Started{0};
    std::atomic<uint32_t> Answered{0};
    std::atomic<uint32_t> AnsweredOffLine{0};  // an answer that did not run on its UE's line
};
extern KsDelayTally ksDelayTally;
