// The FIC stage end to end: frames coded by the test transmitter go into
// FrameCarriers, and DecodeFic must return the FIBs, the CRC flags, the
// reception state and its counters, the reception line and the CIF count.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "acquisition/mode_buffers.h"
#include "channel/fic_decoder.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
#include "services/service_component.h"
#include "tests/core/fic_test_encoder.h"

namespace {

using namespace mvdab;
using fictest::Bytes;

struct CallbackRecord {
    int calls = 0;
    const uint8_t* bytes = nullptr;
    int32_t length = 0;
    int32_t flags = -1;
    Bytes copy;
};
CallbackRecord ficRecord;
CallbackRecord mwFicRecord;

void Record(CallbackRecord& r, uint8_t* bytes, int32_t length, int32_t flags) {
    ++r.calls;
    r.bytes = bytes;
    r.length = length;
    r.flags = flags;
    r.copy.assign(bytes, bytes + length);
}
void OnFic(uint8_t* bytes, int32_t length, int32_t flags) { Record(ficRecord, bytes, length, flags); }
void OnMwFic(uint8_t* bytes, int32_t length, int32_t flags) { Record(mwFicRecord, bytes, length, flags); }

// Each switch of the reception line, with the syncState of that moment.
struct LineEvent {
    int32_t level;
    int32_t syncState;
};
std::vector<LineEvent> lineEvents;
int32_t ObserveLine(int32_t level) {
    lineEvents.push_back({level, receiverStatus.syncState.load()});
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
        SetMode(0);
        receiverSettings.softBitMode = 2;
        receiverSettings.resyncOnFicErrors = 1;
        receiverStatus.syncState = 3;
        receiverStatus.signalQualityDb = 20.0f;
        pipeline.resyncRequest = 0;
        receptionLine.ledMode = 0;
        receptionLine.goodReceptionCount = 0;
        ficDecoder.ficErrorCount = 0;
        ficDecoder.cifCountValid = 0;
        ficDecoder.latestCifCountLow = 0;
        savedLine_ = ficDecoder.setReceptionLine;
        ficDecoder.setReceptionLine = ObserveLine;
        ficCallback = OnFic;
        mwFicCallback = OnMwFic;
        cifCountWanted = 0;
        ficRecord = CallbackRecord();
        mwFicRecord = CallbackRecord();
        lineEvents.clear();
    }

    void TearDown() override {
        ficDecoder.setReceptionLine = savedLine_;
        ficCallback = nullptr;
        mwFicCallback = nullptr;
        modeBuffers.frameCarriers = nullptr;
        modeBuffers.ficSoftBits = nullptr;
        modeBuffers.ficWords = nullptr;
        modeBuffers.ficBytes = nullptr;
    }

    int32_t FibsPerFrame() const { return mode.parameters.fibsPerCif * mode.parameters.cifsPerFrame; }

    // Codes the frame's FIBs into FrameCarriers, from row 1 on.
    void Transmit(const std::vector<Bytes>& fibs, float amplitude = 0.7071f, float noise = 0.0f) {
        const ModeParameters& p = mode.parameters;
        float* r = carriers_.data() + 2 * p.carrierCount;
        for (int32_t c = 0; c < p.cifsPerFrame; ++c) {
            Bytes cif;
            for (int32_t f = 0; f < p.fibsPerCif; ++f) {
                const Bytes& fib = fibs[c * p.fibsPerCif + f];
                cif.insert(cif.end(), fib.begin(), fib.end());
            }
            const fictest::Bits coded = fictest::EncodeFicCif(cif);
            ASSERT_EQ(int32_t(coded.size()), p.ficCodedBits);
            fictest::WriteSoftValues(coded, amplitude, noise, rng_, r);
            r += p.ficCodedBits;
        }
    }

    // A frame of random FIBs whose CRC is broken at the listed positions.
    std::vector<Bytes> Frame(const std::vector<int>& bad = {}) {
        std::vector<Bytes> fibs;
        for (int32_t i = 0; i < FibsPerFrame(); ++i)
            fibs.push_back(fictest::RandomFib(rng_, std::find(bad.begin(), bad.end(), i) != bad.end()));
        return fibs;
    }

    // The flags a frame must carry: the mode, and a bit per good FIB from bit 15 down.
    int32_t ExpectedFlags(const std::vector<int>& bad) const {
        int32_t flags = mode.transmissionMode + 1;
        for (int32_t i = 0; i < FibsPerFrame(); ++i)
            if (std::find(bad.begin(), bad.end(), i) == bad.end()) flags |= 0x8000 >> i;
        return flags;
    }

    void TransmitNoise() {
        std::normal_distribution<float> gauss(0.0f, 0.7f);
        const ModeParameters& p = mode.parameters;
        float* r = carriers_.data() + 2 * p.carrierCount;
        for (int32_t i = 0; i < p.cifsPerFrame * p.ficCodedBits; ++i) r[i] = gauss(rng_);
    }

    std::mt19937 rng_{12345};
    std::vector<float> carriers_;
    std::vector<uint8_t> softBits_;
    std::vector<SoftWord> words_;
    std::vector<uint8_t> bytes_;
    int32_t (*savedLine_)(int32_t) = nullptr;
};

TEST_F(FicDecoderTest, CleanFramesInEveryModeAndScale) {
    for (int32_t m = 0; m < 4; ++m) {
        for (uint8_t scale : {uint8_t(1), uint8_t(2)}) {
            SCOPED_TRACE(testing::Message() << "mode " << m + 1 << " softBitMode " << int(scale));
            SetMode(m);
            receiverSettings.softBitMode = scale;
            ficRecord = mwFicRecord = CallbackRecord();
            const std::vector<Bytes> fibs = Frame();
            Transmit(fibs, 0.7071f, 0.25f);
            ficDecoder.ficErrorCount = 9;
            EXPECT_EQ(DecodeFic(), 1);

            Bytes sent;
            for (const Bytes& f : fibs) sent.insert(sent.end(), f.begin(), f.end());
            EXPECT_EQ(bytes_, sent);
            EXPECT_EQ(receiverStatus.syncState.load(), 4);
            EXPECT_EQ(ficDecoder.ficErrorCount, 0);
            EXPECT_EQ(pipeline.resyncRequest, 0);
            ASSERT_EQ(ficRecord.calls, 1);
            ASSERT_EQ(mwFicRecord.calls, 1);
            EXPECT_EQ(ficRecord.bytes, bytes_.data());
            EXPECT_EQ(ficRecord.length, int32_t(sent.size()));
            EXPECT_EQ(ficRecord.flags, ExpectedFlags({}));
            EXPECT_EQ(mwFicRecord.flags, ficRecord.flags);
            EXPECT_EQ(mwFicRecord.copy, sent);
        }
    }
    // The lengths handed over: 384, 96, 128, 192 bytes.
    EXPECT_EQ(ficRecord.length, 192);
}

// Failed FIBs by position: the running count over the CIFs of a frame, the
// tolerance of each mode, and the sum that ficErrorCount builds from it.
TEST_F(FicDecoderTest, RunningErrorsAgainstTheModeThreshold) {
    struct Case {
        int32_t mode;
        std::vector<int> bad;
        int32_t syncState;
        int32_t errorCount;  // starting from 10
    };
    const Case cases[] = {
        {0, {}, 4, 0},
        {0, {0}, 5, 14},                 // 1 at each of four CIFs
        {0, {6}, 5, 2},                  // clean CIFs 0, 1 clear the count first
        {0, {3, 4, 5, 6}, 5, 11},        // 0, 3, 4, 4
        {0, {3, 4, 5, 6, 7}, 3, 13},     // 0, 3, 5, 5
        {0, {8, 9, 10, 11}, 5, 5},       // all four in the last two CIFs
        {1, {1}, 5, 11},
        {1, {0, 2}, 3, 12},
        {2, {3}, 5, 11},
        {2, {0, 3}, 3, 12},
        {3, {0, 1}, 5, 14},              // 2, 2
        {3, {0, 1, 5}, 3, 15},           // 2, 3
        {3, {4}, 5, 1},                  // 0, 1
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(testing::Message() << "mode " << k.mode + 1 << ", " << k.bad.size() << " bad");
        SetMode(k.mode);
        ficRecord = CallbackRecord();
        Transmit(Frame(k.bad));
        ficDecoder.ficErrorCount = 10;
        DecodeFic();
        EXPECT_EQ(receiverStatus.syncState.load(), k.syncState);
        EXPECT_EQ(ficDecoder.ficErrorCount, k.errorCount);
        EXPECT_EQ(ficRecord.flags, ExpectedFlags(k.bad));
        EXPECT_EQ(pipeline.resyncRequest, 0);
    }
}

// The state steps through the running totals within a frame: seen here at
// the moments the reception line switches.
TEST_F(FicDecoderTest, StateFollowsEachCifOfTheFrame) {
    receptionLine.ledMode = 1;
    receptionLine.goodReceptionCount = 39;
    Transmit(Frame({3, 4, 5, 6, 7}));
    DecodeFic();
    ASSERT_EQ(lineEvents.size(), 2u);
    EXPECT_EQ(lineEvents[0].level, 1);  // the clean first CIF completes 40
    EXPECT_EQ(lineEvents[0].syncState, 4);
    EXPECT_EQ(lineEvents[1].level, 0);  // three failed FIBs in the second CIF
    EXPECT_EQ(lineEvents[1].syncState, 5);
    EXPECT_EQ(receiverStatus.syncState.load(), 3);
}

TEST_F(FicDecoderTest, RestartComesAfterTheFramesTheCountPredicts) {
    // Frames of failing FIBs until the request: the per-frame sums are 30,
    // 3, 4 and 9, and 72 is reached inside the frame named here.
    const int32_t framesToRestart[4] = {3, 24, 18, 8};
    const int32_t countAfter[4] = {12, 0, 0, 0};  // what the CIFs after the restart add
    for (int32_t m = 0; m < 4; ++m) {
        SCOPED_TRACE(testing::Message() << "mode " << m + 1);
        SetMode(m);
        ficDecoder.ficErrorCount = 0;
        pipeline.resyncRequest = 0;
        int32_t frame = 0;
        while (pipeline.resyncRequest == 0 && frame < 100) {
            TransmitNoise();
            ficRecord = CallbackRecord();
            DecodeFic();
            ++frame;
            EXPECT_EQ(receiverStatus.syncState.load(), 3);
            // No good FIB: the flags hold the mode alone, and the callback still comes.
            EXPECT_EQ(ficRecord.calls, 1);
            EXPECT_EQ(ficRecord.flags, m + 1);
        }
        EXPECT_EQ(frame, framesToRestart[m]);
        EXPECT_EQ(ficDecoder.ficErrorCount, countAfter[m]);
    }
}

TEST_F(FicDecoderTest, NoRestartWhileItIsSwitchedOffAndACleanCifClears) {
    receiverSettings.resyncOnFicErrors = 0;
    SetMode(1);
    for (int i = 0; i < 40; ++i) {
        TransmitNoise();
        DecodeFic();
    }
    EXPECT_EQ(pipeline.resyncRequest, 0);
    EXPECT_EQ(ficDecoder.ficErrorCount, 120);
    Transmit(Frame());
    DecodeFic();
    EXPECT_EQ(ficDecoder.ficErrorCount, 0);
    EXPECT_EQ(receiverStatus.syncState.load(), 4);
}

TEST_F(FicDecoderTest, ReceptionLineCountsGoodCifs) {
    receptionLine.ledMode = 1;
    // Mode I: four CIFs a frame, so ten clean frames make 40 good CIFs.
    for (int i = 0; i < 9; ++i) {
        Transmit(Frame());
        DecodeFic();
    }
    EXPECT_TRUE(lineEvents.empty());
    EXPECT_EQ(receptionLine.goodReceptionCount.load(), 36);
    receiverStatus.signalQualityDb = 4.8f;  // exactly the limit still counts
    Transmit(Frame());
    DecodeFic();
    ASSERT_EQ(lineEvents.size(), 1u);
    EXPECT_EQ(lineEvents[0].level, 1);
    Transmit(Frame());
    DecodeFic();
    EXPECT_EQ(lineEvents.size(), 1u);
    EXPECT_EQ(receptionLine.goodReceptionCount.load(), 40);
    // One failed FIB in the last CIF switches it off.
    Transmit(Frame({11}));
    DecodeFic();
    ASSERT_EQ(lineEvents.size(), 2u);
    EXPECT_EQ(lineEvents[1].level, 0);
    EXPECT_EQ(receptionLine.goodReceptionCount.load(), 0);
    // Below 4.8 dB a clean CIF starts the count again.
    receiverStatus.signalQualityDb = 4.79f;
    Transmit(Frame());
    DecodeFic();
    EXPECT_EQ(receptionLine.goodReceptionCount.load(), 0);
    // With ledMode off nothing is counted or switched.
    receiverStatus.signalQualityDb = 20.0f;
    receptionLine.ledMode = 0;
    receptionLine.goodReceptionCount = 17;
    Transmit(Frame({0}));
    DecodeFic();
    Transmit(Frame());
    DecodeFic();
    EXPECT_EQ(receptionLine.goodReceptionCount.load(), 17);
    EXPECT_EQ(lineEvents.size(), 2u);
}

TEST_F(FicDecoderTest, CifCountIsTakenOnlyWhenWanted) {
    std::vector<Bytes> fibs = Frame({0});
    // A FIG 0/0 in a failed FIB is not trusted; the one behind other FIGs
    // in a good FIB of the second CIF is.
    fibs[0] = fictest::MakeFib(fictest::Fig00(0xE123, 1, 11), true);
    Bytes figs = {0x22, 0x10, 0x20, 0x23, 0x00, 0x01, 0x02};
    const Bytes info = fictest::Fig00(0xE123, 3, 201);
    figs.insert(figs.end(), info.begin(), info.end());
    fibs[4] = fictest::MakeFib(figs);
    Transmit(fibs);
    DecodeFic();
    EXPECT_EQ(ficDecoder.cifCountValid, 0);  // nothing asked for

    cifCountWanted = 1;
    DecodeFic();
    EXPECT_EQ(ficDecoder.cifCountValid, 1);
    EXPECT_EQ(ficDecoder.latestCifCountLow, 201);

    Transmit(Frame());
    DecodeFic();
    EXPECT_EQ(ficDecoder.cifCountValid, 0);
    EXPECT_EQ(ficDecoder.latestCifCountLow, 201);
}

TEST_F(FicDecoderTest, AnyFloatIsClippedIntoANibble) {
    // A boosted frame, one with infinities, and NaNs in place of some values
    // (neutral, as if punctured) all decode.
    for (float amplitude : {1000.0f, std::numeric_limits<float>::infinity(), 0.06f}) {
        SCOPED_TRACE(amplitude);
        const std::vector<Bytes> fibs = Frame();
        Transmit(fibs, amplitude);
        for (size_t i = 2 * 1536 + 5; i < 2 * 1536 + 9216; i += 97) carriers_[i] = std::nanf("");
        DecodeFic();
        EXPECT_EQ(ficRecord.flags, ExpectedFlags({}));
    }
}

TEST_F(FicDecoderTest, NothingHappensWithoutTheModeBuffers) {
    modeBuffers.ficBytes = nullptr;
    receiverStatus.syncState = 2;
    EXPECT_EQ(DecodeFic(), 1);
    EXPECT_EQ(receiverStatus.syncState.load(), 2);
    EXPECT_EQ(ficRecord.calls, 0);
}

}  // namespace
