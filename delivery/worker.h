// The worker thread's side: outer decoding of DAB+ superframes, and the
// hand-over of sub-channel bytes from the demodulation thread to the worker.
#pragma once

#include <cstdint>

namespace mvdab {

struct ServiceComponent;

// One pass of the worker after workerEvent.
int32_t RunWorkerStep();
// Asks the worker to bring its decoders back to their start; does not wait.
void FlushWorker();
// The DAB+ ring and superframe buffer, allocated at open. 1 or 0.
int32_t AllocateSuperframeBuffers();
void FreeSuperframeBuffers();

// Demodulation thread, at the end of DecodeSubChannel for a component of
// type 3: queues the decoded bytes of this transmission frame (cifsPerFrame
// CIFs) into the worker's ring and wakes the worker. Drops the frame while a
// flush is pending.
void QueueFrameForWorker(ServiceComponent* component);

}  // namespace mvdab
