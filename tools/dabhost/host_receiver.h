// The receiver as both front ends of dabhost (console and web page) use it:
// the queues its callbacks fill, one look at its signal state, and passing
// an announced reconfiguration on.
#pragma once

#include <chrono>
#include <cstdint>

#include "fic_queue.h"
#include "host_report.h"
#include "service_output.h"
#include "service_select.h"
#include "tools/ficparse/ensemble.h"

using Clock = std::chrono::steady_clock;

extern FicQueue ficQueue;  // filled by the FIC callback on the receiver's thread
extern MscQueue mscQueue;  // filled by the MSC callback on the demodulation or worker thread

// The callbacks: a copy under a short lock, nothing more.
void OnFic(uint8_t* bytes, int32_t length, int32_t flags);
void OnMsc(uint8_t* bytes, int32_t length, int32_t flags);

double Seconds(Clock::duration d);
void Sleep(double seconds);

// Signal present, lock, quality and frequency as the receiver answers now,
// with the FIC callback's counts.
StatusSnapshot ReadStatus(double elapsedSeconds);

// Passes an announced change of the selected sub-channel on to the receiver.
// A refusal (the receiver was busy with a retune, say) is tried again at the
// next poll and shown once.
void PassOnChange(const ficparse::Ensemble& ensemble, ServiceKind kind, bool quiet,
                  ReconfigurationFollower& follower, bool* refusalShown);
