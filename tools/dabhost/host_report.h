// What dabhost prints: status lines while it waits, the ensemble of one
// frequency, and the result of a scan, as text and as JSON.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ensemble_wait.h"
#include "fic_queue.h"
#include "service_output.h"
#include "tools/ficparse/ensemble.h"

// The signal quality answer with the SNR range it stands for.
std::string QualityText(int32_t quality);
// Transmission mode 1..4 as "I".."IV", "?" otherwise.
const char* ModeText(int mode);
// "227360 kHz (12C)", or "227360 kHz" off the block raster.
std::string FrequencyText(int32_t frequencyKhz);

// One look at the receiver for a progress line.
struct StatusSnapshot {
    double elapsedSeconds = 0.0;  // s since tuning
    int32_t frequencyKhz = 0;     // kHz, as the receiver reports it
    int32_t present = 0;          // -1, 0, 1
    bool lockKnown = false;
    bool locked = false;
    int32_t quality = 0;          // 0, 30, 50, 80, 100
    FicCounts fic;
};
std::string StatusLine(const StatusSnapshot& status);

// The outcome on one tuned frequency.
struct TunedResult {
    int32_t frequencyKhz = 0;      // kHz
    WaitOutcome outcome = WaitOutcome::Waiting;
    int32_t quality = 0;           // at the decision
    double lockSeconds = -1.0;     // s from tuning to lock; -1 never
    double decidedSeconds = -1.0;  // s from tuning to the decision
    FicCounts fic;                 // what the callback saw
    ficparse::Ensemble ensemble;   // as parsed at the decision
    ficparse::FicStatistics statistics;
};
// Heading with frequency, mode, quality, times and FIB figures, then the
// ensemble listing (or why there is none).
std::string TunedResultText(const TunedResult& result);
// One JSON object: "reception" (the heading's figures) followed by the
// members of the ensemble's own JSON.
std::string TunedResultJson(const TunedResult& result);

// A scan: the text table lists the frequencies that hold an ensemble and a
// count of the others; the JSON lists all.
std::string ScanProgressLine(const TunedResult& result);
std::string ScanTableText(const std::vector<TunedResult>& results);
std::string ScanJson(const std::vector<TunedResult>& results);

// Progress of a selected service since its selection: deliveries and bytes,
// decoded audio frames, and for DAB+ the superframe and AU figures.
std::string ServiceStatusLine(double secondsSinceSelection, ServiceKind kind, const ServiceCounts& counts,
                              uint64_t dropped);
