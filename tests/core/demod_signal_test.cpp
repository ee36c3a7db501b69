// DemodulateFrame on transmitter signals at a known frame position: the
// sign of every soft value against the bit that was sent, in every mode and
// with partial masks, and the SNR estimate against the channel's SNR. (The
// blanking of a CW line is tested on constructed carriers, and end to end
// under a CW as strong as the ensemble.)
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <deque>
#include <vector>

#include "demod_setup.h"
#include "demodulation/symbol_demodulator.h"
#include "generator/channel_model.h"
#include "generator/frame_transmitter.h"

namespace {

using namespace mvdab;

using namespace demodtest;

// Feeds consecutive frames of random channel bits into the history so that
// each frame's phase reference starts half a guard after frameSamples, where
// the timing loop keeps a single path.
class KnownTimingFrames {
public:
    KnownTimingFrames(int32_t m, uint64_t seed, const gen::ChannelParams& channel)
        : tx_(gen::MakeRandomFrameBits(m + 1, seed), m + 1), channel_(channel, tx_.MeanPower()),
          samples_(4096), bytes_(size_t(demodtest::HistoryBytes())) {
        tx_.SetFrameObserver([this](uint64_t, const std::vector<uint8_t>& bits) { bits_.push_back(bits); });
        Read(bytes_.data(), bytes_.size());
    }

    // Puts the next frame into the history and returns its bits.
    const std::vector<uint8_t>& Load() {
        const gen::ModeGeometry& g = tx_.Geometry();
        const size_t frameBytes = 2 * size_t(g.frameSamples);
        if (next_ > 0) {
            std::memmove(bytes_.data(), bytes_.data() + frameBytes, bytes_.size() - frameBytes);
            Read(bytes_.data() + bytes_.size() - frameBytes, frameBytes);
        }
        std::memcpy(workBlocks.historyBase, bytes_.data(), bytes_.size());
        pipeline.frameSamples = 2 * (g.nullSamples - g.guardSamples / 2);
        return bits_[next_++];
    }

private:
    void Read(uint8_t* out, size_t count) {
        while (pending_.size() < count) {
            tx_.Read(samples_.data(), samples_.size());
            channel_.ProcessU8(samples_.data(), samples_.size(), piece_);
            pending_.insert(pending_.end(), piece_.begin(), piece_.end());
        }
        std::memcpy(out, pending_.data(), count);
        pending_.erase(pending_.begin(), pending_.begin() + std::ptrdiff_t(count));
    }

    gen::FrameTransmitter tx_;
    gen::ChannelModel channel_;
    std::vector<std::complex<float>> samples_;
    std::vector<uint8_t> bytes_, pending_, piece_;
    std::deque<std::vector<uint8_t>> bits_;  // of every frame begun
    size_t next_ = 0;
};


// Mean |soft value| over rows first..last.
double MeanSize(int32_t first, int32_t last) {
    const int32_t k = mode.parameters.carrierCount;
    double sum = 0.0;
    for (int32_t l = first; l <= last; ++l)
        for (int32_t i = 0; i < 2 * k; ++i) sum += std::fabs(Row(l)[i]);
    return sum / (2.0 * k * (last - first + 1));
}

// Rows outside first..last still hold the sentinel.
void ExpectOnlyRowsWritten(int32_t first, int32_t last) {
    for (int32_t l = 0; l < mode.parameters.symbolsPerFrame; ++l) {
        if (l >= first && l <= last) continue;
        ASSERT_TRUE(RowUntouched(l)) << "row " << l;
    }
}


// Share of the soft values of rows first.. whose sign disagrees with the sent
// bit (positive means 0); data symbol d is row d, values of 0 count as errors.
double ErrorRate(const std::vector<uint8_t>& bits, int32_t first, int32_t count) {
    const int64_t perRow = 2 * int64_t(mode.parameters.carrierCount);
    int64_t errors = 0;
    for (int32_t d = first; d < first + count; ++d)
        for (int64_t i = 0; i < perRow; ++i)
            errors += (bits[size_t((d - 1) * perRow + i)] != 0) != (Row(d)[i] < 0.0f) || Row(d)[i] == 0.0f;
    return double(errors) / double(perRow * count);
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

    for (int32_t l = 1; l < m.symbolsPerFrame; ++l) SymbolMask[l] = kMaskReference | kMaskData;
    const std::vector<uint8_t>& all = frames.Load();
    ASSERT_EQ(DemodulateFrame(), 1);
    for (int32_t l = 1; l < m.symbolsPerFrame; ++l) ASSERT_EQ(ErrorRate(all, l, 1), 0.0) << "symbol " << l;
    EXPECT_NEAR(MeanSize(1, m.symbolsPerFrame - 1), 0.7071, 0.03);
    EXPECT_GT(receiverStatus.signalQualityDb.load(), 25.0f);

    FillFrameCarriers();
    ResetSymbolMask();
    const std::vector<uint8_t>& fic = frames.Load();
    ASSERT_EQ(DemodulateFrame(), 1);
    EXPECT_EQ(ErrorRate(fic, 1, m.firstMscSymbol - 1), 0.0);
    ExpectOnlyRowsWritten(1, m.firstMscSymbol - 1);

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
    EXPECT_NEAR(MeanSize(r + 1, r + 5), 0.7071, 0.03);
    ExpectOnlyRowsWritten(r + 1, r + 5);
}

// signalQualityDb rises with the channel's SNR, and from 9 dB to 21 dB it
// reads the SNR of a differential product, 3 dB below the channel's, within
// 2 dB. (Below, decisions on the nearest point make it read high; above, the
// 8-bit converter limits it.)
TEST_P(DemodSignal, SignalQualityFollowsTheChannelSnr) {
    double previous = -1e9;
    for (int snr = 3; snr <= 27; snr += 6) {
        ASSERT_TRUE(demodtest::SetUpMode(GetParam()));
        gen::ChannelParams channel;
        channel.snrDb = snr;
        channel.seed = 40 + snr;
        KnownTimingFrames frames(GetParam(), 3, channel);
        double mean = 0.0;
        for (int f = 0; f < 2; ++f) {
            frames.Load();
            ASSERT_EQ(DemodulateFrame(), 1);
            mean += receiverStatus.signalQualityDb.load() / 2.0;
        }
        EXPECT_GT(mean, previous) << "at " << snr << " dB";
        if (snr >= 9 && snr <= 21) {
            EXPECT_NEAR(mean, snr - 3.0, 2.0) << "at " << snr << " dB";
        }
        previous = mean;
    }
}

INSTANTIATE_TEST_SUITE_P(AllModes, DemodSignal, ::testing::Values(0, 1, 2, 3), demodtest::ModeName);

}  // namespace
