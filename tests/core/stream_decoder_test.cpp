// T-DMB stream decoding on the worker, thread-less: each transmission frame
// of the sub-channel is queued as the demodulation thread queues it and the
// worker's step runs at once. The stream is the transmitter's own: transport
// packets, RS(204,188), the convolutional interleaver of 12 branches.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "delivery/reed_solomon.h"
#include "delivery/stream_decoder.h"
#include "delivery/superframe_sync.h"
#include "delivery/worker.h"
#include "generator/payload_sources.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
#include "services/service_commands.h"
#include "services/service_component.h"

namespace mvdab {
namespace {

struct Packet {
    std::vector<uint8_t> bytes;
    int32_t flags;
};
std::vector<Packet> packets;
void Capture(uint8_t* bytes, int32_t length, int32_t flags) { packets.push_back({{bytes, bytes + length}, flags}); }

constexpr int kCifs[4] = {4, 1, 1, 2};
constexpr int kId = 9;

// The transmitter's T-DMB sub-channel: `frames` transmission frames of mode
// m at `bitrate` kbit/s, and the transport packets it sent.
struct SentStream {
    std::vector<uint8_t> bytes;
    std::vector<std::vector<uint8_t>> ts;
    int frameBytes;

    SentStream(int m, int bitrate, int frames) : frameBytes(kCifs[m] * 3 * bitrate) {
        gen::TdmbStreamParams p;
        p.seed = 4;
        auto log = std::make_shared<std::vector<std::vector<uint8_t>>>();
        p.tsLog = log;
        gen::PayloadPtr source = gen::MakeTdmbPayload(bitrate, p);
        bytes.resize(size_t(frames) * frameBytes);
        for (size_t at = 0; at < bytes.size(); at += 3 * bitrate) source->NextLogicalFrame(&bytes[at], 3 * size_t(bitrate));
        ts = *log;
    }
    const uint8_t* Frame(int f) const { return bytes.data() + size_t(f) * frameBytes; }
    // Words whose every byte was sent: the last one's branch 11 comes 187
    // rows after its first byte.
    int CompleteWords() const { return int((bytes.size() / 12 - 187) / 17); }
};

struct StreamWorker : ::testing::Test {
    void SetUp() override {
        ASSERT_EQ(BuildGfTables(), 1);
        ASSERT_EQ(InitRs204(), 1);
        ASSERT_EQ(AllocateSuperframeBuffers(), 1);  // the hand-over's start values
        ASSERT_EQ(AllocateStreamBuffers(), 1);
        packets.clear();
        streamDataCallback = Capture;
    }
    void TearDown() override {
        FreeStreamBuffers();
        FreeSuperframeBuffers();
        FreeRs204();
        FreeGfTables();
    }
    void Push(const uint8_t* frame, int length) {
        QueueStreamBytes(kId, frame, length);
        RunWorkerStep();
    }
};

// Every transport packet comes out exactly, in order, the first being the
// one that starts at the sync, in every mode, at the data preset's 96 kbit/s
// and at 384 kbit/s; through the frame pipeline's entry. Up to 8
// byte errors in every word, anywhere in it, parity included, are corrected
// and flag nothing.
TEST_F(StreamWorker, EveryPacketInOrderInEveryMode) {
    for (int m = 0; m < 4; ++m) {
        for (int bitrate : {96, 384}) {
            SCOPED_TRACE("mode " + std::to_string(m + 1) + ", " + std::to_string(bitrate) + " kbit/s");
            mode.transmissionMode = m;
            mode.parameters = kModeTable[m];
            SentStream s(m, bitrate, 240 / kCifs[m]);
            // Interleaved byte i is on branch i mod 12 and belongs to word i/204 - branch.
            std::mt19937 rng(11);
            std::vector<int> errors(s.bytes.size() / 204 + 2, 0);
            for (size_t i = 408; i < s.bytes.size(); ++i) {  // the sync pair itself must survive
                const long word = long(i / 204) - long(i % 12);
                if (word < 0 || errors[word] == 8 || rng() % 10 != 0) continue;
                s.bytes[i] ^= uint8_t(1 + rng() % 255);
                ++errors[word];
            }
            std::vector<uint8_t> decoded(s.frameBytes);
            ServiceComponent c{};
            c.subChannelId = kId, c.bitsPerCif = uint16_t(24 * bitrate), c.decodedBytes = decoded.data();
            packets.clear();
            for (size_t f = 0; f < s.bytes.size() / s.frameBytes; ++f) {
                std::memcpy(decoded.data(), s.Frame(int(f)), decoded.size());
                QueueStreamFrame(&c);
                RunWorkerStep();
            }
            // From the first packet on, all words but those still in the de-interleaver.
            ASSERT_GE(int(packets.size()), s.CompleteWords() - 17);
            ASSERT_LE(packets.size(), s.ts.size());
            for (size_t i = 0; i < packets.size(); ++i) ASSERT_TRUE(packets[i].flags == kId && packets[i].bytes == s.ts[i]) << i;
            EXPECT_EQ(workerHandOver.workerActive, 2);
            FlushWorker();
            RunWorkerStep();
        }
    }
}

// The sync search: a pair only within one frame, its partner exactly 204
// further on; frames without one are dropped whole.
TEST_F(StreamWorker, SyncPairMustLieWithinTheFrame) {
    struct Case {
        int length;
        std::vector<int> syncs;
        int expected;
    };
    const Case cases[] = {
        {205, {0, 204}, 205},        // the pair ends on the frame's last byte
        {205, {1, 205}, 0},          // the partner is the byte after the frame
        {300, {1, 204}, 0},          // 203 apart
        {300, {150}, 0},             // a 0x47 in the last 204 bytes: its partner is outside
        {300, {10, 214, 250}, 290},  // the first pair counts
        {204, {0}, 0},
        {0, {}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.syncs) + " in " + std::to_string(c.length));
        ResetStreamState();
        std::vector<uint8_t> frame(c.length + 1, 0);
        for (int at : c.syncs) frame[at] = 0x47;
        EXPECT_EQ(FindStreamSync(frame.data(), c.length), c.expected);
        EXPECT_EQ(streamState.streamSynced, c.expected != 0);
    }
}

// One worker, two decoders: a frame for the other one restarts the worker,
// and the frame after its answer starts the other decoder.
TEST_F(StreamWorker, TheOtherDecoderRestartsTheWorker) {
    mode.transmissionMode = 0;
    mode.parameters = kModeTable[0];
    std::vector<uint8_t> decoded(4 * 24 * 4);
    ServiceComponent dabPlus{};
    dabPlus.type = kServiceDabPlus, dabPlus.subChannelId = 3, dabPlus.longForm = 1, dabPlus.protectionLevel = 2;
    dabPlus.subChannelSize = 6 * 4, dabPlus.bitsPerCif = 192 * 4, dabPlus.decodedBytes = decoded.data();
    const SentStream s(0, 192, 4);
    Push(s.Frame(0), s.frameBytes);
    ASSERT_EQ(workerHandOver.workerActive, 2);
    for (int round = 0; round < 2; ++round) {
        QueueFrameForWorker(&dabPlus);
        EXPECT_EQ(workerHandOver.flushState, 2);
        RunWorkerStep();
        QueueFrameForWorker(&dabPlus);
        RunWorkerStep();
        EXPECT_EQ(workerHandOver.workerActive, 1);
        Push(s.Frame(1), s.frameBytes);
        EXPECT_EQ(workerHandOver.workerActive, 0);  // the worker answered a flush
        Push(s.Frame(2), s.frameBytes);
        EXPECT_EQ(workerHandOver.workerActive, 2);
    }
}

// Random bytes of any length, through the ring and straight into the
// de-interleaver: nothing is read or written out of bounds (under the
// sanitizers), and every delivery is one 188-byte packet.
TEST_F(StreamWorker, RandomInputOfAnyLength) {
    std::mt19937 rng(3);
    std::vector<uint8_t> bytes(70000);
    const int lengths[] = {0, 1, 11, 12, 204, 205, 22127, 22128, 22129, 65535, 65536, 70000};
    for (int r = 0; r < 250; ++r) {
        const int length = r < 12 ? lengths[r] : int(rng() % (r % 5 == 0 ? 70001 : 3000));
        const bool dense = rng() % 2 == 0, direct = rng() % 3 == 0;
        for (int frames = 1 + int(rng() % 4); frames > 0; --frames) {  // as a sub-channel delivers them
            for (int i = 0; i < length; ++i) bytes[i] = dense && rng() % 8 == 0 ? 0x47 : uint8_t(rng());
            direct ? DeinterleaveStreamBlock(bytes.data(), length) : Push(bytes.data(), length);
        }
        if (rng() % 20 == 0) FlushWorker(), RunWorkerStep();
        ASSERT_TRUE(streamState.topRow >= kStreamFirstTopRow && streamState.topRow <= kStreamFirstTopRow + kStreamWordRows);
    }
    for (const Packet& p : packets) ASSERT_EQ(p.bytes.size(), size_t(kStreamPacketBytes));
}

}  // namespace
}  // namespace mvdab
