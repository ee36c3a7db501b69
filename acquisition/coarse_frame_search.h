// State 0 of acquisition: finds the transmission mode from the power of the
// raw samples alone, by the spacing and length of the dips that the null
// symbols leave, and starts the null-position scans that state 1 finishes.
#pragma once

#include <cstdint>

namespace mvdab {

// Search state, carried across IqFrames until the next ResetAcquisition.
// Ends of the newest dips kept for the interval votes under fading.
constexpr int32_t kDipMemory = 32;

struct CoarseSearch {
    float fastPower;          // fast exponential average of the sample power, squared units
    float slowPower;          // slow exponential average of the sample power, squared units
    int32_t inDip;            // 1 while a dip is open
    int32_t samplesSinceDip;  // samples since the end of the previous dip
    int32_t dipSamples;       // samples of the open dip
    int32_t modeVotes[4];     // dip intervals credited to modes I..IV
    int64_t samplesSeen;      // power values run through the dip detector since the reset
    int64_t dipEnds[kDipMemory];  // samplesSeen index of the end of each kept dip, a ring
    int32_t dipMemoryCount;   // dips kept; the newest in slot (dipMemoryCount - 1) % kDipMemory
    int32_t scanFill;         // samples in PowerEnvelope beyond its first nullLength entries
    int32_t scanNeed;         // samples still missing for the next scan: framePeriod - scanFill
};
extern CoarseSearch coarseSearch;

// Results of the four newest null scans, newest first, in samples: r means the
// window of least energy covers values r+1..r+nullLength of the scan.
extern int32_t NullPositions[4];

// Longest dip, in samples, that still gets a vote.
constexpr int32_t kMaxDipSamples = 3000;
// Greatest running sum a scan accepts as a minimum.
constexpr float kScanStartBest = 10000000.0f;

// Runs on the newest IqFrame. 1 when a mode has been decided and the mode
// parameters are filled, else 0.
int32_t CoarseFrameSearch();
// Puts the search state (power averages, dips, votes, null positions,
// prefilter history) to its start values; part of ResetAcquisition.
void ResetCoarseSearch();

// Writes `count` power values of the bytes at `bytes` (count complex samples)
// to `power`: I^2 + Q^2 of b - 127.5, with I and Q first run through the
// 7-tap prefilter unless the tuning's bandwidth code is 1. The filter's six
// newest inputs of each rail carry over from one call to the next.
void ComputePowerEnvelope(const uint8_t* bytes, int32_t count, float* power);

// Runs the dip detector over `count` power values and counts votes. 0 while
// no mode leads, else 1..4 for modes I..IV or kModeIIorIII.
int32_t DetectTransmissionMode(const float* power, int32_t count);

// Vote of one dip interval: P samples from the end of the previous dip to
// the end of this one, D samples of this dip. 0..3 for modes I..IV, -1 none.
int32_t ClassifyDipInterval(int32_t interval, int32_t dipLength);

// Decision from votes c[0..3] for modes I..IV: 1..4, kModeIIorIII when the
// votes of modes II and III together lead but neither alone, or 0 without a
// lead.
constexpr int32_t kModeIIorIII = 5;
int32_t DecideTransmissionMode(const int32_t votes[4]);

// Tells mode II (2) from mode III (3) by the width of the null: of `count`
// power values (at least two periods of 49152) from a signal of either mode.
int32_t ModeFromNullWidth(const float* power, int32_t count);
// The measure behind it: least mean of 664 values minus least mean of 345,
// over the mean power, on the first two periods folded; 0 for too few values.
double NullWidthRise(const float* power, int32_t count);

// Fills mode.parameters from mode.transmissionMode and writes SymbolMask to
// its FIC-only form.
void ApplyTransmissionMode();

// Finds the window of nullLength values with the least energy among the
// framePeriod windows ending at nullLength..nullLength+framePeriod-1 of `power`,
// and pushes its start minus one onto NullPositions.
void ScanNullPosition(const float* power);

}  // namespace mvdab
