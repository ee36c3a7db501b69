// Text and JSON renderings of an ensemble, for the host's output.
#pragma once

#include <cstdio>
#include <string>

#include "tools/ficparse/ensemble.h"

namespace ficparse {

// A human-readable listing: ensemble id and label, each service with its id,
// label and components, each sub-channel with id, start, size, protection and
// bit rate, and what is still missing. With `statistics`, also the FIB counts
// and the FIGs seen.
std::string EnsembleText(const Ensemble& ensemble, const FicStatistics* statistics = nullptr);
void PrintEnsembleText(const Ensemble& ensemble, FILE* out, const FicStatistics* statistics = nullptr);

// One JSON object (UTF-8, no trailing newline) with members "ensemble",
// "services", "subChannels", "complete", "missing", and with `statistics`
// also "statistics". Ids are numbers, with hex strings beside them; unknown
// values are null.
std::string EnsembleJson(const Ensemble& ensemble, const FicStatistics* statistics = nullptr);
void PrintEnsembleJson(const Ensemble& ensemble, FILE* out, const FicStatistics* statistics = nullptr);

// printf into a string (at most 511 characters), and a string as a quoted
// JSON string with its quotes, backslashes and control characters escaped:
// helpers for hosts that add their own lines around the ensemble.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string JsonString(const std::string& s);

}  // namespace ficparse
