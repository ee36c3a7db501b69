// The worker thread's side: outer decoding of DAB+ superframes.
#pragma once

#include <cstdint>

namespace mvdab {

// One pass of the worker after workerEvent.
int32_t RunWorkerStep();
// Asks the worker to bring its decoders back to their start; does not wait.
void FlushWorker();
// The DAB+ ring and superframe buffer, allocated at open. 1 or 0.
int32_t AllocateSuperframeBuffers();
void FreeSuperframeBuffers();

}  // namespace mvdab
