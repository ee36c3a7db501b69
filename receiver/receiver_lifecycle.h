// Opening and closing the device, starting and stopping the samples, and the
// receiver's three threads.
#pragma once

#include <cstdint>

namespace mvdab {

// The lifecycle rule. Open and close are serialised against each other: the
// receiver is closed, opening, open or closing, and only open and close move
// it. An open that finds another open running or done returns 0 and changes
// nothing; an open that finds a close running waits for it and then opens.
// A close that finds an open running waits for it and then closes; one that
// finds another close running waits for it and returns 1.
//
// Exported calls that reach the device library or the receiver's records
// (start, stop, tuning, the debug line, the service commands) run between
// EnterReceiverCall and LeaveReceiverCall. A close first turns new calls
// away, then waits for those inside, and only then unwinds: no call can run
// into an unloaded device library or a freed record. The guard never blocks,
// so calls from a callback can't deadlock with a close that is joining the
// callback's thread: they are refused instead. The status queries need no
// guard: they read static words that stay valid across a close.
//
// 1 (true) when the receiver is open: it then stays open until the matching
// LeaveReceiverCall. False when it is closed, opening or closing: the call
// must do nothing and give its closed answer.
bool EnterReceiverCall();
void LeaveReceiverCall();

// Runs `call` under the guard; `refused` when the receiver isn't open.
template <typename Call>
int32_t WhileOpen(int32_t refused, Call call) {
    if (!EnterReceiverCall()) return refused;
    const int32_t result = call();
    LeaveReceiverCall();
    return result;
}

// Results of OpenReceiver.
constexpr int32_t kOpenRunning = 1;
constexpr int32_t kOpenFailed = 0;
constexpr int32_t kOpenNoDevice = 2;

// MVDAB_OpenDevice: binds the device library, starts streaming, programs the
// chip, creates the threads and work blocks. 1 running, 2 no device, 0 any
// other failure; a failure leaves nothing behind. A second open while
// another is running or done is refused with 0 and changes nothing; so is
// an open from a callback.
int32_t OpenReceiver();

// MVDAB_CloseDevice: ends the threads, frees everything and releases the
// device. 1; also when nothing is open, and after waiting for a close that
// another thread runs. From a callback (a receiver thread) it would wait for
// itself: there it does nothing and returns 0.
int32_t CloseReceiver();

// For a receiver run without threads (the frame step driven directly, as
// the thread-less test harness and the benchmarks do): declares it open, so
// that the exported commands reach it, or closed again. Never used beside
// OpenReceiver and CloseReceiver.
void DeclareThreadlessReceiverOpen(bool open);

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
