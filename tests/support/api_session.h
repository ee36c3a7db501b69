// What the black-box tests of the sub-channel paths share: the opt-in long
// runs, sanitizer builds, frame sizes by transmission mode (indexed 1..4),
// and the emulated device playing a generated signal.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "mvxdab.h"

namespace mvdab::test {

inline bool LongTestsWanted() {
    const char* v = std::getenv("MVDAB_LONG_TESTS");
    return v != nullptr && std::strcmp(v, "1") == 0;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

inline constexpr int32_t kCifsPerFrame[5] = {0, 4, 1, 1, 2};
inline constexpr double kFrameSeconds[5] = {0, 0.096, 0.024, 0.024, 0.048};
// Transmission frames that one IqFrame of 58.75 ms can hold, at most.
inline constexpr int32_t kFramesPerStep[5] = {0, 1, 3, 3, 2};

// The emulated device plays at `speed` times real time (0: as fast as the
// receiver reads), without faults or clock error.
inline void SetDevicePace(double speed) {
    setenv("MVC900_SPEED", std::to_string(speed).c_str(), 1);
    unsetenv("MVC900_FAULT");
    unsetenv("MVC900_CLOCK_PPM");
    unsetenv("MVC900_GENERATED");
}

// Opens the device on the emulator's `source`, tunes and waits up to 5 s for
// a DAB signal: 1 found, 0 not found, -1 the device could not be opened.
inline int32_t OpenOnSignal(const std::string& source) {
    setenv("MVC900_SOURCE", source.c_str(), 1);
    if (MVDAB_OpenDevice() != 1) return -1;
    if (MVDAB_SetFreqAndBW(227360) != 1) return 0;
    int32_t present = 0;
    for (int32_t i = 0; i < 500 && present != 1; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        MVDAB_GetSignalPresent(&present);
    }
    return present == 1 ? 1 : 0;
}

}  // namespace mvdab::test
