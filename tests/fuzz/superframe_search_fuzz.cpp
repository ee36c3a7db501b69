// libFuzzer entry for the DAB+ worker: the superframe search, tracking and
// Reed-Solomon correction of whatever a sub-channel delivers. The first byte
// chooses the transmission mode, the second the sub-channel's size s (1 to
// 24 units of 8 kbit/s); the rest is cut into transmission frames of that
// mode and size, each queued as the demodulation thread queues it and
// followed by one worker step. Every delivery must be 110*s bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "delivery/gf_tables.h"
#include "delivery/reed_solomon.h"
#include "delivery/superframe_sync.h"
#include "delivery/worker.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
#include "services/service_component.h"

namespace {

int32_t expectedLength = 0;
void Msc(uint8_t* bytes, int32_t length, int32_t) {
    if (length != expectedLength || bytes == nullptr) __builtin_trap();
}

constexpr int32_t kCifsPerFrame[4] = {4, 1, 1, 2};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    using namespace mvdab;
    if (BuildGfTables() != 1 || InitRs120() != 1 || AllocateSuperframeBuffers() != 1) __builtin_trap();
    mscCallback = Msc;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace mvdab;
    if (size < 2) return 0;
    const int32_t m = data[0] & 3;
    const int32_t s = 1 + data[1] % 24;
    data += 2;
    size -= 2;
    mode.transmissionMode = m;
    mode.parameters = kModeTable[m];
    expectedLength = 110 * s;
    ServiceComponent component{};
    component.type = kServiceDabPlus;
    component.subChannelId = 5;
    component.longForm = 1;
    component.protectionLevel = 2;  // set A, level 3: 6 capacity units a unit of s
    component.subChannelSize = 6 * s;
    component.bitsPerCif = uint16_t(192 * s);
    // An exact-size buffer per frame, so that a read past its end is caught.
    const size_t frameBytes = size_t(kCifsPerFrame[m]) * 24 * size_t(s);
    std::vector<uint8_t> frame(frameBytes);
    component.decodedBytes = frame.data();
    for (size_t at = 0; at < size; at += frameBytes) {
        const size_t n = size - at < frameBytes ? size - at : frameBytes;
        std::memset(frame.data(), 0, frameBytes);
        std::memcpy(frame.data(), data + at, n);
        QueueFrameForWorker(&component);
        RunWorkerStep();
    }
    // The next input starts from nothing.
    FlushWorker();
    RunWorkerStep();
    return 0;
}
