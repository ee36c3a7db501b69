// Opening and closing the device, starting and stopping the samples, and the
// receiver's three threads.
#pragma once

#include <cstdint>

namespace mvdab {

// Results of OpenReceiver.
constexpr int32_t kOpenRunning = 1;
constexpr int32_t kOpenFailed = 0;
constexpr int32_t kOpenNoDevice = 2;

// MVDAB_OpenDevice: binds the device library, starts streaming, programs the
// chip, creates the threads and work blocks. 1 running, 2 no device, 0 any
// other failure; a failure leaves nothing behind. A second open while the
// receiver runs is refused with 0 and changes nothing.
int32_t OpenReceiver();

// MVDAB_CloseDevice: ends the threads, frees everything and releases the
// device. 1; also when nothing is open. From a callback (a receiver thread)
// it would wait for itself: there it does nothing and returns 0.
int32_t CloseReceiver();

// MVDAB_Start and MVDAB_Stop.
int32_t StartSamples();
int32_t StopSamples();

// Writes the start values of ReceiverStatus and clears cifCountWanted.
// Records still in the lists are freed first (at open they are empty).
// Callers make sure that no frame step runs beside it.
int32_t ResetReceiverStatus();

// Brings stopped samples back: ReceiverStatus to its start (under
// frameStepLock and requestMailbox), register deviceEvent, InitDemodulator.
// 1, or 0 when the device refused; on a receiver thread (inside a callback,
// where the frame step can't be waited for) 0 without doing anything.
int32_t ResumeSamples();

// The thread routines.
uint32_t CaptureThread();
uint32_t DemodulationThread();
uint32_t WorkerThread();

}  // namespace mvdab
