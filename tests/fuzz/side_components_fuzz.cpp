// libFuzzer entry for the two outer decoders that take broadcast bytes as
// they come: the T-DMB stream decoder and the packet-mode extractor. The
// first byte chooses the component and its options, the next ones the
// lengths of the pieces into which the rest is cut, as a sub-channel
// delivers it frame by frame. Both run on their real buffers, set up once as
// the open sequence sets them up.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "delivery/gf_tables.h"
#include "delivery/packet_extraction.h"
#include "delivery/reed_solomon.h"
#include "delivery/stream_decoder.h"
#include "delivery/superframe_sync.h"
#include "delivery/worker.h"
#include "receiver/callback_slots.h"

namespace {

size_t delivered = 0;
void Stream(uint8_t* bytes, int32_t length, int32_t) { delivered += bytes[0] + bytes[length - 1]; }
void Packet(uint8_t* packet, int32_t size, int32_t, int32_t) { delivered += packet[0] + packet[size - 1]; }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    using namespace mvdab;
    if (BuildGfTables() != 1 || InitRs204() != 1 || AllocateSuperframeBuffers() != 1 ||
        AllocateStreamBuffers() != 1 || AllocatePacketDecoders() != 1) {
        __builtin_trap();
    }
    streamDataCallback = Stream;
    packetCallback = Packet;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace mvdab;
    if (size < 3) return 0;
    const uint8_t how = data[0];
    const size_t piece = 1 + ((size_t(data[1]) << 8 | data[2]) % 4000);
    data += 3;
    size -= 3;
    // Each piece an exact-size copy, so that a read past its end is caught.
    std::vector<uint8_t> copy;
    const uint16_t addresses[3] = {uint16_t(how & 0x3F), 1022, 5};
    for (size_t at = 0; at < size; at += piece) {
        const size_t n = size - at < piece ? size - at : piece;
        copy.assign(data + at, data + at + n);
        switch (how & 3) {
            case 0: QueueStreamBytes(9, copy.data(), int32_t(n)); RunWorkerStep(); break;
            case 1: DeinterleaveStreamBlock(copy.data(), int32_t(n)); break;
            case 2: ExtractPackets((how >> 2) & 1, copy.data(), 3, int32_t(n), addresses, 3, (how >> 3) & 1); break;
            default: ProbePacketFec(copy.data(), int32_t(n), (how >> 2) & 1); break;
        }
    }
    // The next input starts from the same point.
    FlushWorker();
    RunWorkerStep();
    for (int32_t i = 0; i < kPacketInstances; ++i) {
        ResetPacketProbe(i);
        ResetPacketDecoder(i);
        RestartPacketSearch(i);
    }
    return 0;
}
