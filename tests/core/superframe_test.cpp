// DAB+ superframe synchronisation on the worker, thread-less: each
// transmission frame of a sub-channel is queued as the demodulation thread
// queues it and the worker's step runs at once. The superframes come from the
// transmitter's own firecode and RS(120,110) encoder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "delivery/reed_solomon.h"
#include "delivery/worker.h"
#include "generator/payload_coding.h"
#include "generator/payload_dabplus.h"
#include "receiver/callback_slots.h"
#include "receiver/frame_step.h"
#include "receiver/receiver_state.h"
#include "services/protection_tables.h"
#include "services/service_commands.h"
#include "services/service_component.h"
#include "tests/support/frame_harness.h"

namespace mvdab {
namespace {

struct Delivery {
    std::vector<uint8_t> bytes;
    int32_t flags, frame;  // frame: the transmission frame whose step delivered it
};
std::vector<Delivery> deliveries;
int32_t currentFrame = 0;
void (*onDelivery)() = nullptr;

void Capture(uint8_t* bytes, int32_t length, int32_t flags) {
    deliveries.push_back({std::vector<uint8_t>(bytes, bytes + length), flags, currentFrame});
    if (onDelivery != nullptr) onDelivery();
}

// A sub-channel's bytes: consecutive superframes of random audio with the
// firecode and parity the transmitter writes.
struct Stream {
    int s;
    std::vector<uint8_t> bytes;  // 120*s per superframe

    Stream(int columns, int count, uint32_t seed) : s(columns), bytes(size_t(120) * columns * count) {
        std::mt19937 rng(seed);
        for (int k = 0; k < count; ++k) {
            uint8_t* sf = Superframe(k);
            for (int i = 2; i < 110 * s; ++i) sf[i] = uint8_t(rng());
            Seal(k);
        }
    }
    uint8_t* Superframe(int k) { return bytes.data() + size_t(120) * s * k; }
    std::vector<uint8_t> Audio(int k) { return {Superframe(k), Superframe(k) + 110 * s}; }
    // Firecode and parity of superframe k from its bytes 2..110s-1.
    void Seal(int k) {
        const uint16_t fire = gen::SuperframeFirecode(Superframe(k) + 2);
        Superframe(k)[0] = uint8_t(fire >> 8), Superframe(k)[1] = uint8_t(fire);
        gen::AddSuperframeParity(Superframe(k), s);
    }
};

constexpr int kCifs[4] = {4, 1, 1, 2};

struct SuperframeWorker : ::testing::Test {
    ServiceComponent component{};
    std::vector<uint8_t> decoded;
    int modeIndex = 0;

    void SetUp() override {
        ASSERT_EQ(BuildGfTables(), 1);
        ASSERT_EQ(InitRs120(), 1);
        ASSERT_EQ(AllocateSuperframeBuffers(), 1);
        deliveries.clear();
        currentFrame = 0;
        onDelivery = nullptr;
        mscCallback = Capture;
    }
    void TearDown() override {
        FreeSuperframeBuffers();
        FreeRs120();
        FreeGfTables();
        onDelivery = nullptr;
    }

    // A DAB+ component of s units (long form, set A, level 3: size 6*s) in
    // transmission mode m.
    void Select(int m, int s, int id = 5) {
        modeIndex = m;
        mode.transmissionMode = m;
        mode.parameters = kModeTable[m];
        decoded.assign(size_t(kCifs[m]) * 24 * s, 0);
        component = ServiceComponent{};
        component.type = kServiceDabPlus;
        component.subChannelId = int8_t(id);
        component.longForm = 1;
        component.protectionLevel = 2;
        component.subChannelSize = int16_t(6 * s);
        component.bitsPerCif = uint16_t(192 * s);
        component.decodedBytes = decoded.data();
    }

    // Transmission frames of the stream from logical frame `first` on, each
    // through the hand-over and one worker step.
    void PushStream(Stream& st, int first, int frames) {
        for (int f = 0; f < frames; ++f, ++currentFrame) {
            std::memcpy(decoded.data(), st.bytes.data() + size_t(first + f * kCifs[modeIndex]) * 24 * st.s, decoded.size());
            QueueFrameForWorker(&component);
            RunWorkerStep();
        }
    }
};

// Every superframe is delivered once, in order, with the transmission frame
// that brings its last logical frame: the first complete one included, from
// any starting CIF, in every mode. While tracking, logicalFramesHeld is the
// count of logical frames received since the last superframe boundary.
TEST_F(SuperframeWorker, DeliversEachSuperframeWithItsLastLogicalFrameFromAnyStart) {
    for (int m = 0; m < 4; ++m) {
        for (int s : {1, 11, 24}) {
            for (int start = 0; start < 5; ++start) {
                SCOPED_TRACE(testing::Message() << "mode " << m + 1 << " s " << s << " start " << start);
                ASSERT_EQ(AllocateSuperframeBuffers(), 1);
                deliveries.clear();
                currentFrame = 0;
                Select(m, s, 40 + s);
                Stream st(s, 14, uint32_t(97 * s + 13 * m + start));
                const int frames = 60 / kCifs[m];
                const int boundary = (5 - start) % 5;  // the first at or after the start
                for (int f = 0; f < frames; ++f) {
                    PushStream(st, start + f * kCifs[m], 1);
                    ASSERT_TRUE(superframeState.locked != 1 || superframeState.logicalFramesHeld == ((f + 1) * kCifs[m] - boundary) % 5) << f;
                }
                ASSERT_EQ(int(deliveries.size()), (frames * kCifs[m] - boundary) / 5);
                for (int k = 0; k < int(deliveries.size()); ++k) {
                    EXPECT_EQ(deliveries[k].bytes, st.Audio((start + boundary) / 5 + k)) << k;
                    EXPECT_EQ(deliveries[k].flags, 40 + s);
                    EXPECT_EQ(deliveries[k].frame, (boundary + 5 * k + 4) / kCifs[m]) << k;
                }
            }
        }
    }
}

// What comes out of damaged streams, superframe by superframe: the sent
// superframe (-1: the bytes are not compared) and the flags (sub-channel id
// 5, bit 7 for a failed firecode).
using Outs = std::vector<std::pair<int, int>>;
Outs Good(int from, int to, int flags = 5) {
    Outs out;
    for (int k = from; k <= to; ++k) out.push_back({k, flags});
    return out;
}
Outs Bad(int count) { return Outs(size_t(count), {-1, 0x85}); }
Outs operator+(Outs a, const Outs& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Damage to superframes 3..6 of a 4-column stream: every row of the first
// 12 of each column from `goodColumns` on.
void BreakColumns(Stream& st, int goodColumns) {
    for (int k = 3; k <= 6; ++k)
        for (int c = goodColumns; c < st.s; ++c)
            for (int row = 0; row < 12; ++row) st.Superframe(k)[row * st.s + c] ^= uint8_t(0x5A + row);
}

// Superframes with fewer than 2 good columns are bad: three in a row are
// delivered with bit 7, the fourth ends the lock and is dropped with the
// rest of its transmission frame, and the search starts again with the next
// frame, finding the first superframe that starts in it or later. Two good
// columns keep the lock; so does a wrong firecode on good columns (bit 7
// only). A wrong start whose firecode register ends with its low 8 bits
// clear but not all 16 is no superframe.
TEST_F(SuperframeWorker, DamagedSuperframes) {
    struct Case {
        const char* name;
        int m, start, frames;
        void (*damage)(Stream&);
        Outs expected;
    };
    const Case cases[] = {
        {"mode I, no good column", 0, 0, 20, [](Stream& st) { BreakColumns(st, 0); }, Good(0, 2) + Bad(3) + Good(8, 15)},
        {"mode II, one good column", 1, 0, 80, [](Stream& st) { BreakColumns(st, 1); }, Good(0, 2) + Bad(3) + Good(7, 15)},
        {"mode III, two good columns", 2, 0, 80, [](Stream& st) { BreakColumns(st, 2); }, Good(0, 2) + Bad(4) + Good(7, 15)},
        {"mode IV, wrong firecode on good columns", 3, 0, 40,
         [](Stream& st) {
             for (int k : {2, 3, 4, 5, 6}) st.Superframe(k)[1] ^= 0x01, gen::AddSuperframeParity(st.Superframe(k), st.s);
         },
         Good(0, 1) + Good(2, 6, 0x85) + Good(7, 15)},
        {"mode I, wrong start with a half-right firecode", 0, 4, 19,
         [](Stream& st) {
             // The stream starts with the last logical frame of superframe 0,
             // which the search tests (a wrong start) before superframe 1.
             uint8_t* wrong = st.bytes.data() + 4 * 24 * st.s;
             for (int pattern = 1; pattern < 65536; ++pattern) {
                 wrong[0] ^= uint8_t(pattern >> 8), wrong[1] ^= uint8_t(pattern);
                 const uint16_t r = FirecodeRemainder(wrong);
                 if ((r & 0xFF) == 0 && r != 0) return;
                 wrong[0] ^= uint8_t(pattern >> 8), wrong[1] ^= uint8_t(pattern);
             }
             FAIL() << "no such firecode";
         },
         Good(1, 15)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(AllocateSuperframeBuffers(), 1);
        deliveries.clear();
        Select(c.m, 4);
        Stream st(4, 17, 5);
        c.damage(st);
        PushStream(st, c.start, c.frames);
        ASSERT_EQ(deliveries.size(), c.expected.size());
        for (size_t k = 0; k < deliveries.size(); ++k) {
            EXPECT_EQ(deliveries[k].flags, c.expected[k].second) << k;
            EXPECT_TRUE(c.expected[k].first < 0 || deliveries[k].bytes == st.Audio(c.expected[k].first)) << k;
        }
    }
}

// A flush that arrives while the worker drains stops the drain before the
// next frame; after the answer the search starts afresh.
TEST_F(SuperframeWorker, FlushDuringADrainStopsBeforeTheNextFrame) {
    Select(1, 3);
    Stream st(3, 10, 8);
    PushStream(st, 0, 4);  // filling the search
    for (int f = 4; f < 7; ++f) {  // the first completes superframe 0
        std::memcpy(decoded.data(), st.bytes.data() + f * 72, 72);
        QueueFrameForWorker(&component);
    }
    onDelivery = [] { FlushWorker(); };
    RunWorkerStep();
    onDelivery = nullptr;
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(workerHandOver.flushState, 2);
    PushStream(st, 7, 8);  // the answer, then superframe 2 from its first logical frame
    ASSERT_EQ(deliveries.size(), 2u);
    EXPECT_EQ(deliveries[1].bytes, st.Audio(2));
}

// A worker that falls behind loses whole transmission frames, counted; after
// the gap it searches anew: superframe 2 (logical frames 10..14) comes first.
TEST_F(SuperframeWorker, FullRingRefusesWholeFramesAndRestartsTheSearch) {
    Select(1, 2);
    Stream st(2, 12, 4);
    for (int f = 0; f < 7; ++f) {  // four get in, three are refused
        std::memcpy(decoded.data(), st.bytes.data() + f * 48, 48);
        QueueFrameForWorker(&component);
    }
    EXPECT_EQ(subChannelRing.droppedFrames, 3);
    PushStream(st, 7, 53);
    ASSERT_EQ(deliveries.size(), 10u);
    for (size_t k = 0; k < deliveries.size(); ++k) EXPECT_EQ(deliveries[k].bytes, st.Audio(int(k) + 2));
}

// Random bytes in every mode and size, now and then with a true firecode so
// that the search locks onto noise and tracking runs too, with steps skipped
// and flushes between: every delivery is one audio part long (and the
// sanitizers see no bad access).
TEST_F(SuperframeWorker, RandomBytesAndSizes) {
    std::mt19937 rng(2024);
    for (int round = 0; round < 150; ++round) {
        const int m = int(rng() % 4), s = 1 + int(rng() % 24);
        Select(m, s, int(rng() % 64));
        deliveries.clear();
        for (int f = 0, frames = 5 + int(rng() % 40); f < frames; ++f) {
            for (auto& b : decoded) b = uint8_t(rng());
            if (rng() % 3 == 0) {
                uint8_t* at = decoded.data() + (rng() % kCifs[m]) * 24 * s;
                const uint16_t fire = gen::SuperframeFirecode(at + 2);
                at[0] = uint8_t(fire >> 8), at[1] = uint8_t(fire);
            }
            QueueFrameForWorker(&component);
            if (rng() % 4 != 0) RunWorkerStep();
            if (rng() % 50 == 0) FlushWorker();
        }
        for (const Delivery& d : deliveries) ASSERT_EQ(int(d.bytes.size()), 110 * s);
        FlushWorker();
        RunWorkerStep();
    }
}

// A DAB+ service selected after another of another size, without a retune:
// the first frame of the new one starts the flush and is dropped, and the
// search finds superframe 1 of the new sizes.
TEST_F(SuperframeWorker, NewSizesRestartTheWorker) {
    Select(0, 3, 7);
    Stream first(3, 6, 1);
    PushStream(first, 0, 5);
    Select(0, 20, 9);
    Stream second(20, 8, 2);
    PushStream(second, 0, 10);
    ASSERT_EQ(deliveries.size(), 11u);
    EXPECT_EQ(deliveries[4].flags, 9);
    EXPECT_EQ(deliveries[10].bytes, second.Audio(7));
}

// Components the worker cannot take are never queued: more than 24 units,
// or decoded bytes that are not 24 bytes per unit and CIF.
TEST_F(SuperframeWorker, OversizedOrInconsistentComponentsAreNotQueued) {
    Select(0, 28);
    QueueFrameForWorker(&component);
    EXPECT_EQ(subChannelRing.ringWrite, 0);
    EXPECT_EQ(workerHandOver.flushRequest, 1);
    Select(2, 8);
    component.bitsPerCif = uint16_t(192 * 8 - 8);
    QueueFrameForWorker(&component);
    EXPECT_EQ(subChannelRing.ringWrite, 0);
}

// DAB+ above 192 kbit/s is refused when it is asked for, added or announced
// as a change; plain sub-channels of that size are not affected.
TEST(DabPlusServices, MoreThanTwentyFourUnitsAreRefused) {
    test::FrameHarness h;
    ASSERT_TRUE(h.ready());
    receiverStatus.signalPresent = 1;
    mode.parameters = kModeTable[mode.transmissionMode = mode.configuredMode = 0];
    // 224 kbit/s in short form (row 48): 28 units; long form set A level 3
    // 150 / 6 = 25, set B 4 * (126 / 18) = 28; 149 / 6 leaves 24.
    auto request = [](int8_t type, int8_t longForm, int8_t index, int8_t optionAndLevel, int16_t size) {
        return ServiceRequest{type, 1, 0, longForm, index, optionAndLevel, size, 0};
    };
    ASSERT_EQ(kSubChannelTable[48].bitRate, 224);
    EXPECT_EQ(AddServiceRequest(request(3, 0, 48, 0, 0)), 0);
    EXPECT_EQ(AddServiceRequest(request(3, 1, 0, 0x2, 150)), 0);
    EXPECT_EQ(AddServiceRequest(request(3, 1, 0, 0x6, 126)), 0);
    for (const ServiceRequest& r : {request(3, 1, 0, 0x2, 149), request(0, 0, 48, 0, 0)}) {
        EXPECT_EQ(AddServiceRequest(r), 1);
        DeleteServiceRequest(1);
    }
    ASSERT_EQ(AddServiceRequest(request(3, 1, 0, 0x2, 96)), 1);
    h.PushSilentFrames(1);
    EXPECT_EQ(ChangeServiceOrganisation(request(3, 0, 48, 0, 0), 10), 0);
    EXPECT_EQ(ChangeServiceOrganisation(request(3, 1, 0, 0x2, 144), 10), 1);
}

}  // namespace
}  // namespace mvdab
