// DemodulateFrame on transmitter signals at a known frame position: the
// sign of every soft value against the bit that was sent, in every mode and
// with partial masks; the SNR estimate against the channel's SNR; and the
// blanking of a CW interferer in mode I.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "demod_setup.h"
#include "demod_signal.h"
#include "demodulation/symbol_demodulator.h"

namespace {

using namespace mvdab;

constexpr float kSentinel = -12345.0f;

// Feeds consecutive frames of a generated signal (no clock error) into the
// history so that each frame's phase reference starts half a guard after
// frameSamples, where the timing loop keeps a single path.
class KnownTimingFrames {
public:
    KnownTimingFrames(int32_t m, uint64_t seed, const gen::ChannelParams& channel)
        : signal_(m + 1, seed, channel), bytes_(static_cast<size_t>(demodtest::HistoryBytes())) {
        signal_.Read(bytes_.data(), bytes_.size());
    }

    // Puts frame `next_` into the history and returns its bits.
    const std::vector<uint8_t>& Load() {
        const gen::ModeGeometry& g = signal_.Geometry();
        const size_t frameBytes = 2 * static_cast<size_t>(g.frameSamples);
        if (next_ > 0) {
            std::memmove(bytes_.data(), bytes_.data() + frameBytes, bytes_.size() - frameBytes);
            signal_.Read(bytes_.data() + bytes_.size() - frameBytes, frameBytes);
        }
        std::memcpy(workBlocks.historyBase, bytes_.data(), bytes_.size());
        pipeline.frameSamples = 2 * (g.nullSamples - g.guardSamples / 2);
        bits_ = *signal_.BitsOfFrame(next_);
        ++next_;
        return bits_;
    }
    demodtest::GeneratedSignal& Signal() { return signal_; }

private:
    demodtest::GeneratedSignal signal_;
    std::vector<uint8_t> bytes_;
    std::vector<uint8_t> bits_;
    int64_t next_ = 0;
};

const float* Row(int32_t l) {
    return modeBuffers.frameCarriers + static_cast<int64_t>(l) * 2 * mode.parameters.carrierCount;
}

bool RowUntouched(int32_t l) {
    const float* r = Row(l);
    for (int32_t i = 0; i < 2 * mode.parameters.carrierCount; ++i)
        if (r[i] != kSentinel) return false;
    return true;
}

void FillFrameCarriers() {
    const ModeParameters& m = mode.parameters;
    std::fill(modeBuffers.frameCarriers, modeBuffers.frameCarriers + int64_t(m.symbolsPerFrame) * 2 * m.carrierCount,
              kSentinel);
}

double ErrorRate(const std::vector<uint8_t>& bits, int32_t first, int32_t count) {
    return demodtest::SoftBitErrorRate(modeBuffers.frameCarriers, mode.parameters.carrierCount, bits, first, count);
}

class DemodSignal : public ::testing::TestWithParam<int32_t> {
protected:
    void SetUp() override { ASSERT_TRUE(demodtest::SetUpMode(GetParam())); }
};

// A clean signal with a carrier offset the rotation takes out: every soft
// value of every data symbol has the sign of its bit (positive for 0) and a
// size near 0.7071. Then a FIC-only frame writes only the FIC rows, and a
// run in the MSC behind a reference-only symbol writes only the run's rows,
// each still right, although that frame comes at a lower level.
TEST_P(DemodSignal, SoftValuesCarryTheSentBitsUnderEveryMask) {
    gen::ChannelParams channel;
    channel.frequencyOffsetHz = 321.0;
    KnownTimingFrames frames(GetParam(), 7, channel);
    frequencyCorrection.samplePhaseIncrement = -kTwoPi * 321.0 / 2048000.0;
    const ModeParameters& m = mode.parameters;
    const int32_t k = m.carrierCount;

    for (int32_t l = 1; l < m.symbolsPerFrame; ++l) SymbolMask[l] = kMaskReference | kMaskData;
    const std::vector<uint8_t>& all = frames.Load();
    ASSERT_EQ(DemodulateFrame(), 1);
    double sum = 0.0;
    for (int32_t l = 1; l < m.symbolsPerFrame; ++l) {
        ASSERT_EQ(ErrorRate(all, l, 1), 0.0) << "symbol " << l;
        for (int32_t i = 0; i < 2 * k; ++i) sum += std::fabs(Row(l)[i]);
    }
    EXPECT_NEAR(sum / (2.0 * k * (m.symbolsPerFrame - 1)), 0.7071, 0.03);
    EXPECT_GT(receiverStatus.signalQualityDb.load(), 25.0f);

    FillFrameCarriers();
    ResetSymbolMask();
    const std::vector<uint8_t>& fic = frames.Load();
    ASSERT_EQ(DemodulateFrame(), 1);
    EXPECT_TRUE(RowUntouched(0));
    EXPECT_EQ(ErrorRate(fic, 1, m.firstMscSymbol - 1), 0.0);
    for (int32_t l = m.firstMscSymbol; l < m.symbolsPerFrame; ++l) ASSERT_TRUE(RowUntouched(l)) << l;

    // A sub-channel's run: symbol r only as reference, r+1 .. r+5 demodulated.
    FillFrameCarriers();
    const int32_t r = m.symbolsPerFrame - 8;
    for (int32_t l = 1; l < m.symbolsPerFrame; ++l) SymbolMask[l] = 0;
    SymbolMask[r] = kMaskReference;
    for (int32_t l = r + 1; l < r + 5; ++l) SymbolMask[l] = kMaskReference | kMaskData;
    SymbolMask[r + 5] = kMaskData;
    // This frame also comes at 0.4 of the level: its own phase reference
    // sets the scale, so the values keep their size at once.
    const std::vector<uint8_t>& run = frames.Load();
    for (int64_t i = 0; i < demodtest::HistoryBytes(); ++i) {
        uint8_t& b = workBlocks.historyBase[i];
        b = static_cast<uint8_t>(std::lround(127.5 + 0.4 * (b - 127.5)));
    }
    ASSERT_EQ(DemodulateFrame(), 1);
    EXPECT_EQ(ErrorRate(run, r + 1, 5), 0.0);
    sum = 0.0;
    for (int32_t l = r + 1; l <= r + 5; ++l)
        for (int32_t i = 0; i < 2 * k; ++i) sum += std::fabs(Row(l)[i]);
    EXPECT_NEAR(sum / (10.0 * k), 0.7071, 0.03);
    for (int32_t l = 0; l < m.symbolsPerFrame; ++l)
        if (l <= r || l > r + 5) {
            ASSERT_TRUE(RowUntouched(l)) << l;
        }
}

// signalQualityDb follows the channel's SNR: it rises with it, and from
// 6 dB to 24 dB it reads the SNR of a differential product, 3 dB below the
// channel's, within 2 dB. (Below, decisions on the nearest point make it
// read high; above, the 8-bit converter limits it.) Prints the table.
TEST_P(DemodSignal, SignalQualityFollowsTheChannelSnr) {
    std::vector<float> estimates;
    std::printf("    SNR dB -> signalQualityDb (mode %d)\n", GetParam() + 1);
    for (int snr = 0; snr <= 30; snr += 3) {
        ASSERT_TRUE(demodtest::SetUpMode(GetParam()));
        gen::ChannelParams channel;
        channel.snrDb = snr;
        channel.seed = 40 + snr;
        KnownTimingFrames frames(GetParam(), 3, channel);
        double mean = 0.0;
        constexpr int kFrames = 4;
        for (int f = 0; f < kFrames; ++f) {
            frames.Load();
            ASSERT_EQ(DemodulateFrame(), 1);
            mean += receiverStatus.signalQualityDb.load() / kFrames;
        }
        std::printf("    %6d -> %6.2f\n", snr, mean);
        if (!estimates.empty()) {
            EXPECT_GT(mean, estimates.back()) << "at " << snr << " dB";
        }
        if (snr >= 6 && snr <= 24) {
            EXPECT_NEAR(mean, snr - 3.0, 2.0) << "at " << snr << " dB";
        }
        estimates.push_back(static_cast<float>(mean));
    }
}

std::string ModeName(const ::testing::TestParamInfo<int32_t>& info) {
    const char* const names[4] = {"ModeI", "ModeII", "ModeIII", "ModeIV"};
    return names[info.param];
}

INSTANTIATE_TEST_SUITE_P(AllModes, DemodSignal, ::testing::Values(0, 1, 2, 3), ModeName);

// Soft values of the carriers within `span` of carrier index `centre`:
// decisions taken (non-zero values) with the wrong sign, and erasures.
struct CarrierStats {
    int64_t decisions = 0;
    int64_t wrong = 0;
    int64_t erased = 0;
};

CarrierStats StatsNear(const std::vector<uint8_t>& bits, int32_t centre, int32_t span) {
    const ModeParameters& m = mode.parameters;
    const int32_t k = m.carrierCount;
    CarrierStats s;
    for (int32_t l = 1; l < m.symbolsPerFrame; ++l) {
        const float* row = Row(l);
        const uint8_t* sent = bits.data() + int64_t(l - 1) * 2 * k;
        for (int32_t n = 0; n < k; ++n) {
            const int32_t carrier = modeBuffers.frequencyDeinterleave[n] / 2;
            if (std::abs(carrier - centre) > span) continue;
            for (int32_t part = 0; part < 2; ++part) {
                const float v = row[part * k + n];
                const bool one = sent[part * k + n] != 0;
                if (v == 0.0f) {
                    ++s.erased;
                } else {
                    ++s.decisions;
                    s.wrong += (v < 0.0f) != one;
                }
            }
        }
    }
    return s;
}

// A CW line 20 dB above a carrier in mode I, on carrier +200: the check
// blanks that carrier (weights 0, values 0) and leaves the rest at 1; the
// decisions left near the line are wrong less often than without the check,
// where the line's carrier gives confident values of either sign. In the
// other modes the weights stay at 1.
TEST(DemodExcision, ACwLineIsBlankedInModeIOnly) {
    const int32_t centre = 1536 / 2 + 199;  // carrier index of carrier +200
    gen::ChannelParams channel;
    channel.snrDb = 20.0;
    channel.cwOffsetHz = 200000.0;  // on carrier +200, carrier index 967
    channel.cwPowerDb = -12.0;      // about 20 dB above one carrier of 1,536

    CarrierStats with, without;
    for (int32_t pass = 0; pass < 2; ++pass) {
        ASSERT_TRUE(demodtest::SetUpMode(0));
        receiverSettings.excisionEnabled = pass == 0 ? 1 : 0;
        for (int32_t l = 1; l < mode.parameters.symbolsPerFrame; ++l) SymbolMask[l] = kMaskReference | kMaskData;
        KnownTimingFrames frames(0, 9, channel);
        CarrierStats& s = pass == 0 ? with : without;
        for (int32_t f = 0; f < 6; ++f) {
            const std::vector<uint8_t>& bits = frames.Load();
            ASSERT_EQ(DemodulateFrame(), 1);
            if (f < 2) continue;  // let the power average settle
            const CarrierStats now = StatsNear(bits, centre, 3);
            s.decisions += now.decisions;
            s.wrong += now.wrong;
            s.erased += now.erased;
        }
        if (pass == 0) {
            std::vector<int32_t> blanked;
            for (int32_t i = 0; i < 1536; ++i) {
                EXPECT_EQ(CarrierWeights[2 * i], CarrierWeights[2 * i + 1]);
                if (CarrierWeights[2 * i] == 0.0f) {
                    blanked.push_back(i);
                } else {
                    EXPECT_EQ(CarrierWeights[2 * i], 1.0f);
                }
            }
            std::printf("    blanked carrier indices:");
            for (int32_t i : blanked) std::printf(" %d", i);
            std::printf("\n");
            ASSERT_FALSE(blanked.empty());
            for (int32_t i : blanked) EXPECT_LE(std::abs(i - centre), 1) << i;
        }
    }
    const double rateWith = double(with.wrong) / double(with.decisions);
    const double rateWithout = double(without.wrong) / double(without.decisions);
    std::printf("    near the line: with check %lld erased, %.3f of %lld decisions wrong; without %.3f of %lld\n",
                static_cast<long long>(with.erased), rateWith, static_cast<long long>(with.decisions), rateWithout,
                static_cast<long long>(without.decisions));
    EXPECT_GT(with.erased, 0);
    EXPECT_EQ(without.erased, 0);
    EXPECT_LT(rateWith, rateWithout);

    for (int32_t m = 1; m <= 3; ++m) {
        ASSERT_TRUE(demodtest::SetUpMode(m));
        KnownTimingFrames frames(m, 9, channel);
        for (int32_t f = 0; f < 3; ++f) {
            frames.Load();
            ASSERT_EQ(DemodulateFrame(), 1);
        }
        for (int32_t j = 0; j < 2 * 1536; ++j) ASSERT_EQ(CarrierWeights[j], 1.0f) << "mode " << m + 1;
    }
}

}  // namespace
