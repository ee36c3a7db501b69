// What the tests can see of the test module's newest device: the module
// exports it as the symbol mvxtest_state.
#pragma once

#include <atomic>
#include <cstdint>

struct MvxTestState {
    std::atomic<double> correctionPpm{0.0};  // last frequency correction set
    std::atomic<int64_t> samples{0};         // samples delivered by the newest device
    std::atomic<int32_t> automaticGain{0};   // automatic gain switched on
    std::atomic<double> frequencyHz{0.0};    // last tuning
};
