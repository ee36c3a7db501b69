#include "delivery/worker.h"

namespace mvdab {

int32_t RunWorkerStep() { return 1; }
void FlushWorker() {}
int32_t AllocateSuperframeBuffers() { return 1; }
void FreeSuperframeBuffers() {}
void QueueFrameForWorker(ServiceComponent*) {}

}  // namespace mvdab
