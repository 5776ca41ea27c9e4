// A step family of the load tests: each step notes when it arrived and how many of its steps
// were then in progress, and answers at once or after SleepTime seconds. What the tests judge
// the engine's pacing by is what this family saw, not the engine's own counters.
#pragma once

#include <atomic>
#include <cstdint>

#define KS_PROBE_STEP_ID 15101     // scenario step id: Dict key 3 gives the seconds
#define KS_PROBE_STEP_CODE 901     // outside the engine's own step codes
#define KS_PROBE_STEP_INDEX 15101  // inside the 5G runner's open range

void KsLoadProbe__Init();

struct KsProbeArrival {
    int64_t atNs;          // steady clock
    uint64_t ueId;
    uint32_t completedSteps;  // the UE's steps done before this one: 0 for its first
};

struct KsProbeTally {
    static constexpr uint32_t kMax = 20000;
    KsProbeArrival arrivals[kMax];
    std::atomic<uint32_t> count{0};
    std::atomic<int32_t> inProgress{0};
    std::atomic<int32_t> maxInProgress{0};
    // Microseconds a step keeps its UE's line before answering: a peer that takes a moment.
    std::atomic<int32_t> holdUs{0};
};
extern KsProbeTally ksProbe;
