// The FIC stage end to end: frames coded by the transmitter's FIC encoder go
// into FrameCarriers, and DecodeFic must return the FIBs, the CRC flags, the
// reception state and its counters, the reception line and the CIF count.
// Then the library's own reading of FIBs: the CRC check with its running
// mask, and the search for the CIF count of FIG 0/0 in the good FIBs.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "acquisition/mode_buffers.h"
#include "channel/fic_decoder.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
#include "services/service_component.h"
#include "generator/fib_crc.h"
#include "generator/fic_encoder.h"

namespace {

using namespace mvdab;
using Bytes = std::vector<uint8_t>;

// A FIB of the given FIG bytes, end marker, padding and CRC (made wrong on request).
Bytes MakeFib(Bytes fib, bool breakCrc = false) {
    if (fib.size() < 30) fib.push_back(0xFF);
    fib.resize(32, 0x00);
    gen::SealFib(fib.data());
    fib[30] ^= breakCrc ? 1 : 0;
    return fib;
}

// A FIB of type 1 FIGs with random bodies.
Bytes RandomFib(std::mt19937& rng, bool breakCrc = false) {
    Bytes figs;
    while (figs.size() < 24) {
        const int length = 1 + int(rng() % 5);
        figs.push_back(uint8_t(0x20 | length));
        for (int i = 0; i < length; ++i) figs.push_back(uint8_t(rng()));
    }
    return MakeFib(figs, breakCrc);
}

struct Delivery {
    int calls = 0;
    int32_t flags = -1;
};
Delivery fic, mwFic;
void OnFic(uint8_t*, int32_t, int32_t f) { fic = {fic.calls + 1, f}; }
void OnMwFic(uint8_t*, int32_t, int32_t f) { mwFic = {mwFic.calls + 1, f}; }

// Each switch of the reception line, with the syncState of that moment.
std::vector<std::pair<int32_t, int32_t>> lineEvents;
int32_t ObserveLine(int32_t level) {
    lineEvents.emplace_back(level, receiverStatus.syncState.load());
    return 1;
}

class FicDecoderTest : public ::testing::Test {
protected:
    void SetMode(int32_t m) {
        mode.transmissionMode = m;
        mode.parameters = kModeTable[m];
        const ModeParameters& p = mode.parameters;
        carriers_.assign(size_t(p.symbolsPerFrame) * 2 * p.carrierCount, 0.0f);
        softBits_.assign(p.ficCodedBits, 0xEE);
        words_.assign(p.ficDecodedBits + 2, 0xEEEE);
        bytes_.assign(size_t(p.ficBytesPerCif) * p.cifsPerFrame, 0xEE);
        modeBuffers.frameCarriers = carriers_.data();
        modeBuffers.ficSoftBits = softBits_.data();
        modeBuffers.ficWords = words_.data();
        modeBuffers.ficBytes = bytes_.data();
    }
    void SetUp() override {
        savedBuffers_ = modeBuffers;
        savedLine_ = ficDecoder.setReceptionLine;
        SetMode(0);
        receiverSettings.softBitMode = 2;
        receiverSettings.resyncOnFicErrors = 1;
        receiverStatus.syncState = 3;
        receiverStatus.signalQualityDb = 20.0f;
        pipeline.resyncRequest = receptionLine.ledMode = receptionLine.goodReceptionCount = 0;
        ficDecoder.ficErrorCount = ficDecoder.cifCountValid = cifCountWanted = 0;
        ficDecoder.setReceptionLine = ObserveLine;
        ficCallback = OnFic;
        mwFicCallback = OnMwFic;
        fic = mwFic = Delivery();
        lineEvents.clear();
    }
    void TearDown() override {
        ficDecoder.setReceptionLine = savedLine_;
        modeBuffers = savedBuffers_;
    }

    int32_t Fibs() const { return mode.parameters.fibsPerCif * mode.parameters.cifsPerFrame; }
    static bool Has(const std::vector<int>& v, int i) { return std::find(v.begin(), v.end(), i) != v.end(); }

    // Codes a frame of FIBs into FrameCarriers from row 1 on: `fib(i)` where
    // given, random FIBs with broken CRCs at the `bad` positions otherwise.
    // Returns the FIBs.
    Bytes Transmit(const std::vector<int>& bad = {}, Bytes (*fib)(int, std::mt19937&) = nullptr) {
        const ModeParameters& p = mode.parameters;
        Bytes all;
        for (int32_t i = 0; i < Fibs(); ++i) {
            const Bytes f = fib ? fib(i, rng_) : RandomFib(rng_, Has(bad, i));
            all.insert(all.end(), f.begin(), f.end());
        }
        // +0.7071 for a 0 bit, -0.7071 for a 1.
        std::vector<uint8_t> coded;
        for (int32_t c = 0; c < p.cifsPerFrame; ++c) gen::EncodeFicBlock(&all[c * p.ficBytesPerCif], mode.transmissionMode + 1, coded);
        for (size_t i = 0; i < coded.size(); ++i)
            carriers_[2 * p.carrierCount + i] = coded[i] ? -0.7071f : 0.7071f;
        return all;
    }
    int32_t Frame(const std::vector<int>& bad = {}) { return Transmit(bad), DecodeFic(); }
    // The mode, and a bit per good FIB from bit 15 down.
    int32_t Flags(const std::vector<int>& bad = {}) const {
        int32_t flags = mode.transmissionMode + 1;
        for (int32_t i = 0; i < Fibs(); ++i) flags |= Has(bad, i) ? 0 : 0x8000 >> i;
        return flags;
    }

    std::mt19937 rng_{12345};
    std::vector<float> carriers_;
    std::vector<uint8_t> softBits_, bytes_;
    std::vector<SoftWord> words_;
    int32_t (*savedLine_)(int32_t) = nullptr;
    ModeBuffers savedBuffers_;
};

// Failed FIBs by position: the count running over the CIFs of a frame, the
// tolerance of each mode, and the sum ficErrorCount builds from it.
TEST_F(FicDecoderTest, RunningErrorsAgainstTheModeThreshold) {
    struct Case {
        int32_t mode;
        std::vector<int> bad;
        int32_t syncState, errorCount;  // count from a start of 10
    } const cases[] = {
        {0, {}, 4, 0},
        {0, {0}, 5, 14},              // 1 at each of four CIFs
        {0, {6}, 5, 2},               // clean CIFs 0, 1 clear the count first
        {0, {3, 4, 5, 6}, 5, 11},     // 0, 3, 4, 4
        {0, {3, 4, 5, 6, 7}, 3, 13},  // 0, 3, 5, 5
        {1, {1}, 5, 11},   {1, {0, 2}, 3, 12},
        {2, {3}, 5, 11},   {2, {0, 3}, 3, 12},
        {3, {0, 1}, 5, 14}, {3, {0, 1, 5}, 3, 15}, {3, {4}, 5, 1},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(testing::Message() << "mode " << k.mode + 1 << ", " << k.bad.size() << " bad");
        SetMode(k.mode);
        ficDecoder.ficErrorCount = 10;
        EXPECT_EQ(Frame(k.bad), 1);
        EXPECT_EQ(receiverStatus.syncState.load(), k.syncState);
        EXPECT_EQ(ficDecoder.ficErrorCount, k.errorCount);
        EXPECT_EQ(fic.flags, Flags(k.bad));
        EXPECT_EQ(mwFic.flags, Flags(k.bad));
    }
    // Within a frame the state steps through the running totals, seen here
    // when the line switches: on at a clean first CIF, off at the second.
    SetMode(0);
    receptionLine.ledMode = 1;
    receptionLine.goodReceptionCount = 39;
    Frame({3, 4, 5, 6, 7});
    EXPECT_EQ(lineEvents, (std::vector<std::pair<int32_t, int32_t>>{{1, 4}, {0, 5}}));
}

TEST_F(FicDecoderTest, ReceptionLineCountsGoodCifs) {
    receptionLine.ledMode = 1;
    // Mode I: ten clean frames are the 40 good CIFs that switch the line on.
    for (int i = 0; i < 9; ++i) Frame();
    EXPECT_TRUE(lineEvents.empty());
    receiverStatus.signalQualityDb = 4.8f;  // exactly the limit still counts
    Frame();
    Frame();
    EXPECT_EQ(lineEvents.size(), 1u);
    EXPECT_EQ(receptionLine.goodReceptionCount.load(), 40);
    Frame({11});  // one failed FIB in the last CIF switches it off
    ASSERT_EQ(lineEvents.size(), 2u);
    EXPECT_EQ(lineEvents[1].first, 0);
    EXPECT_EQ(receptionLine.goodReceptionCount.load(), 0);
    receiverStatus.signalQualityDb = 4.79f;  // below the limit a clean CIF restarts the count
    Frame();
    EXPECT_EQ(receptionLine.goodReceptionCount.load(), 0);
    receptionLine.ledMode = 0;  // off: nothing counted or switched
    receptionLine.goodReceptionCount = 17;
    Frame({0});
    EXPECT_EQ(receptionLine.goodReceptionCount.load(), 17);
    EXPECT_EQ(lineEvents.size(), 2u);
}

TEST_F(FicDecoderTest, CifCountIsTakenOnlyWhenWanted) {
    // FIB 0 holds a FIG 0/0 but fails its CRC; FIB 4 holds one behind two
    // other FIGs. The count is 3 * 250 + 201, that of the second CIF (FIB 4
    // of mode I), so the frame's first CIF has the low part 200.
    Transmit({}, [](int i, std::mt19937& rng) {
        return i == 0   ? MakeFib({0x05, 0x00, 0xE1, 0x23, 0x01, 11}, true)
               : i == 4 ? MakeFib({0x22, 0x10, 0x20, 0x23, 0x00, 0x01, 0x02, 0x05, 0x00, 0xE1, 0x23, 0x03, 201})
                        : RandomFib(rng);
    });
    DecodeFic();
    EXPECT_EQ(ficDecoder.cifCountValid, 0);
    cifCountWanted = 1;
    DecodeFic();
    EXPECT_EQ(ficDecoder.cifCountValid, 1);
    EXPECT_EQ(ficDecoder.latestCifCountLow, 200);
    Frame();
    EXPECT_EQ(ficDecoder.cifCountValid, 0);
    EXPECT_EQ(ficDecoder.latestCifCountLow, 200);
}

// FIG 0/0 (count 4/234) and FIG 1/0 of a published example, CRC F5 A2.
const Bytes kWorkedFib = {0x05, 0x00, 0xE1, 0x23, 0x04, 0xEA, 0x35, 0x00, 0xE1, 0x23, 0x54,
                          0x45, 0x53, 0x54, 0x20, 0x45, 0x4E, 0x53, 0x45, 0x4D, 0x42, 0x4C,
                          0x45, 0x20, 0x20, 0x20, 0xFF, 0x00, 0xFF, 0x00, 0xF5, 0xA2};

Bytes Concat(std::initializer_list<Bytes> fibs) {
    Bytes all;
    for (const Bytes& f : fibs) all.insert(all.end(), f.begin(), f.end());
    return all;
}

TEST(CheckFibCrc, CountsFailuresAndShiftsTheMask) {
    Bytes empty(32, 0x00), broken = kWorkedFib;
    empty[0] = 0xFF;
    empty[30] = empty[31] = 0xA8;
    broken[12] ^= 0x04;
    const Bytes cif = Concat({kWorkedFib, broken, empty, broken});
    for (int32_t m : {2, 0}) {  // four FIBs a CIF, then three
        mode.transmissionMode = m;
        mode.parameters = kModeTable[m];
        uint32_t mask = 1;
        EXPECT_EQ(CheckFibCrc(cif.data(), &mask), m == 2 ? 2 : 1);
        EXPECT_EQ(mask, m == 2 ? 0b11010u : 0b1101u);
    }
}

TEST(FindEnsembleInfo, WalksTheGoodFibsOfTheFrameAndFigsThatHoldNone) {
    std::mt19937 rng(3);
    Bytes frame;
    for (int i = 0; i < 12; ++i) frame = Concat({frame, RandomFib(rng)});
    auto find = [](const Bytes& fibs, uint16_t flags) {
        uint8_t low = 0;
        return FindEnsembleInfo(fibs.data(), flags, &low) ? int(low) : -1;
    };
    EXPECT_EQ(find(frame, 0xFFF1), -1);
    // FIG 0/0 behind two other FIGs in the last FIB of mode I, count low 77.
    const Bytes last = MakeFib({0x24, 1, 2, 3, 4, 0x21, 9, 0x05, 0x00, 0xE1, 0x23, 0x02, 77});
    std::copy(last.begin(), last.end(), frame.begin() + 11 * 32);
    int32_t fibIndex = -1;
    uint8_t low = 0;
    EXPECT_EQ(FindEnsembleInfo(frame.data(), 0xFFF1, &low, &fibIndex), 1);
    EXPECT_EQ(std::pair(int(low), fibIndex), std::pair(77, 11)) << "the FIB, and so the CIF, that carried the count";
    EXPECT_EQ(find(frame, 0xFFE1), -1);  // that FIB failed its CRC
    EXPECT_EQ(find(frame, 0xFFF4), -1);  // mode IV has six FIBs
    // The first good FIB that holds one wins; mode bits that name no mode find nothing.
    std::copy(kWorkedFib.begin(), kWorkedFib.end(), frame.begin() + 2 * 32);
    EXPECT_EQ(find(frame, 0xFFF1), 234);
    EXPECT_EQ(find(frame, 0xDFF1), 77);
    for (uint16_t m : {0, 5, 6, 7}) EXPECT_EQ(find(frame, uint16_t(0xFFF0 | m)), -1);
    // Single FIBs of zeros with the given bytes set, in mode II.
    auto fib = [](std::initializer_list<std::pair<int, uint8_t>> set) {
        Bytes f(32, 0x00);
        for (auto [i, b] : set) f[i] = b;
        return f;
    };
    // The end marker first, with a FIG 0/0 behind it.
    EXPECT_EQ(find(MakeFib({0xFF, 0x05, 0x00, 0x12, 0x34, 0x00, 5}), 0x8002), -1);
    // Type 1 FIGs of 27 and 0 bytes walk to byte 29: a FIG 0/0 header there is no FIG.
    EXPECT_EQ(find(fib({{0, 0x3B}, {28, 0x20}, {29, 0x05}}), 0x8002), -1);
    // FIG 0/0 at 25 would hold its count past the data field; at 24 it fits.
    EXPECT_EQ(find(fib({{0, 0x37}, {24, 0x20}, {25, 0x05}, {29, 42}}), 0x8002), -1);
    EXPECT_EQ(find(fib({{0, 0x37}, {24, 0x05}, {29, 42}}), 0x8002), 42);
}

}  // namespace
