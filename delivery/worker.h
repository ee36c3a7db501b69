// The worker thread's side and its hand-over with the demodulation thread.
//
// The demodulation thread queues each transmission frame of a DAB+
// sub-channel into the ring (QueueFrameForWorker) and wakes the worker; the
// worker (RunWorkerStep) finds, corrects and delivers the superframes. A
// flush (FlushWorker) brings the worker back to its start: it is asked for
// by setting flushState 2 and flushRequest 1; the worker answers at its next
// wake-up by dropping its state and setting flushState 3; until then every
// delivery is dropped. The first delivery after the answer hands over the
// sub-channel's parameters and clears flushRequest, which starts the worker.
#pragma once

#include <atomic>
#include <cstdint>

#include "delivery/superframe_sync.h"

namespace mvdab {

struct ServiceComponent;

struct WorkerHandOver {
    std::atomic<uint8_t> flushRequest;  // 1: the worker is to drop its state; the next delivery restarts it
    std::atomic<uint8_t> flushState;    // 2 a flush is pending; 3 answered, deliveries may go on
    std::atomic<int32_t> workerMode;    // what the next start runs: 1 superframes, 2 T-DMB stream
    std::atomic<uint8_t> workerActive;  // what the worker runs now: 0 nothing, 1 superframes, 2 stream
};
extern WorkerHandOver workerHandOver;

// One pass of the worker after workerEvent. Returns 1.
int32_t RunWorkerStep();
// Demodulation thread: asks the worker to bring its decoders back to their
// start; does not wait.
void FlushWorker();

// Demodulation thread, at the end of DecodeSubChannel for a component of
// type 3: queues the decoded bytes of this transmission frame (cifsPerFrame
// CIFs) into the worker's ring and wakes the worker. Drops the frame while a
// flush is pending. A component whose sizes differ from those the worker
// runs with (a service added after another, a reconfiguration) starts a
// flush instead, so that the worker restarts with the new sizes; a
// component beyond 24 units of 8 kbit/s is never queued.
void QueueFrameForWorker(ServiceComponent* component);
// s of a component: its bit rate in units of 8 kbit/s (the divisions of the
// long form truncate).
int32_t SuperframeColumns(const ServiceComponent* component);
// The parameters the worker would run with for this component; columns 0
// for one it cannot take.
SubChannelParameters ParametersOf(const ServiceComponent* component);
void SetSubChannelParameters(const ServiceComponent* component);

}  // namespace mvdab
