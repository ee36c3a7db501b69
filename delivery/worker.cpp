#include "delivery/worker.h"

#include <cstring>

#include "delivery/stream_decoder.h"
#include "receiver/receiver_state.h"
#include "receiver/sync_objects.h"
#include "services/protection_tables.h"
#include "services/service_component.h"

namespace mvdab {

WorkerHandOver workerHandOver;

namespace {

bool SameParameters(const SubChannelParameters& a, const SubChannelParameters& b) {
    return a.subChannelId == b.subChannelId && a.transmissionMode == b.transmissionMode &&
           a.ringFrameBytes == b.ringFrameBytes && a.columns == b.columns;
}

}  // namespace

int32_t SuperframeColumns(const ServiceComponent* c) {
    if (c->longForm == 0) return kSubChannelTable[c->tableIndex & 0x3F].bitRate / 8;
    const int32_t level = c->protectionLevel & 3;
    if (c->option == 0) return c->subChannelSize / kEepDivisorsA[level];
    return 4 * (c->subChannelSize / kEepDivisorsB[level]);
}

SubChannelParameters ParametersOf(const ServiceComponent* component) {
    SubChannelParameters p;
    p.subChannelId = component->subChannelId;
    p.transmissionMode = mode.transmissionMode;
    const int32_t cifs = mode.parameters.cifsPerFrame;
    p.ringFrameBytes = cifs * component->bitsPerCif / 8;
    p.columns = SuperframeColumns(component);
    // The worker assembles superframes from logical frames of 24*s bytes,
    // cifsPerFrame of them per ring slot; a sub-channel whose decoded bytes
    // are not exactly that, or beyond a slot, is not taken.
    if (p.columns < 1 || p.columns > kMaxColumns || p.ringFrameBytes != cifs * 24 * p.columns) p.columns = 0;
    return p;
}

void SetSubChannelParameters(const ServiceComponent* component) { subChannelParameters = ParametersOf(component); }

void FlushWorker() {
    WorkerHandOver& h = workerHandOver;
    h.flushState = 2;
    h.flushRequest = 1;
    platform::SetEvent(&workerEvent);
}

void QueueFrameForWorker(ServiceComponent* component) {
    WorkerHandOver& h = workerHandOver;
    SubChannelRing& ring = subChannelRing;
    if (h.flushState != 3 || ring.ringBuffer == nullptr || component->decodedBytes == nullptr) return;
    const SubChannelParameters wanted = ParametersOf(component);
    if (wanted.columns == 0) return;
    if (h.flushRequest == 1) {
        h.workerMode = 1;
        SetSubChannelParameters(component);
    } else if (h.workerMode != 1 || !SameParameters(wanted, subChannelParameters)) {
        // A service added after another was removed, or a reconfiguration of
        // the sizes: the worker restarts with the new ones. This frame is
        // dropped; the next one after the worker's answer starts it.
        FlushWorker();
        return;
    }
    EnterIfInitialised(&workerLock);
    const int32_t next = (ring.ringWrite + 1) % kRingSlots;
    if (next == ring.ringRead) {
        // Four frames wait and the worker decodes the one before them: the
        // slot it reads is never overwritten. This frame is lost, and the
        // worker learns of the gap with the next frame that gets in.
        ring.droppedFrames += 1;
        ring.gapPending = 1;
    } else {
        ring.ringWrite = next;
        std::memcpy(ring.ringBuffer + next * wanted.ringFrameBytes, component->decodedBytes, wanted.ringFrameBytes);
        ring.gapBefore[next] = ring.gapPending;
        ring.gapPending = 0;
    }
    LeaveIfInitialised(&workerLock);
    h.flushRequest = 0;
    platform::SetEvent(&workerEvent);
}

int32_t RunWorkerStep() {
    WorkerHandOver& h = workerHandOver;
    if (h.flushRequest == 1) {
        if (h.workerActive == 1) ResetSuperframeState();
        if (h.workerActive == 2) ResetStreamState();
        h.workerActive = 0;
        h.flushState = 3;
        return 1;
    }
    if (h.workerActive == 0 && h.workerMode == 1) {
        h.workerActive = 1;
        LoadSuperframeParameters();
    }
    if (h.workerActive == 0 && h.workerMode == 2) {
        h.workerActive = 2;
        LoadStreamParameters();
    }
    if (h.workerActive == 1) DrainSuperframeRing();
    if (h.workerActive == 2) DrainStreamRing();
    return 1;
}

}  // namespace mvdab
