// The generated signal stream: built from its description, the same bytes
// for the same description however it is read, frames back to back in the
// byte stream, the SNR as asked, and bad descriptions refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <complex>
#include <string>
#include <vector>

#include "generator/frame_transmitter.h"
#include "generator/signal_stream.h"
#include "tests/generator/ofdm_test_demodulator.h"

namespace {

std::vector<uint8_t> ReadAll(gen::SignalStream& s, size_t bytes, const std::vector<size_t>& pattern) {
    std::vector<uint8_t> out(bytes);
    for (size_t i = 0, done = 0, n; done < bytes; done += n, ++i)
        s.Read(out.data() + done, n = std::min(pattern[i % pattern.size()], bytes - done));
    return out;
}

std::unique_ptr<gen::SignalStream> Make(const std::string& description) {
    std::string error;
    auto s = gen::MakeSignalStream(description, &error);
    EXPECT_NE(s, nullptr) << description << ": " << error;
    return s;
}

TEST(SignalStream, SameDescriptionSameBytesWhateverTheReads) {
    const std::string d = "preset=random, mode=2, seed=4, snr=20, cfo=300, ppm=3, profile=urban";
    const size_t bytes = 2 * 3 * 49152 + 10;
    auto a = Make(d), b = Make(d), c = Make("preset=random,mode=2,seed=5,snr=20,cfo=300,ppm=3,profile=urban");
    ASSERT_TRUE(a && b && c);
    const std::vector<uint8_t> whole = ReadAll(*a, bytes, {bytes});
    EXPECT_TRUE(ReadAll(*b, bytes, {2, 1, 4096, 3, 32769, 98304, 0, 1000}) == whole);
    EXPECT_FALSE(ReadAll(*c, bytes, {bytes}) == whole);
    EXPECT_NE(a->Describe().find("random"), std::string::npos);
}

// Without impairments the null symbols are runs of the code for zero (128)
// exactly T_NULL long, one every T_F samples, and nowhere else.
TEST(SignalStream, FramesBackToBackInTheByteStream) {
    for (int mode : {3, 4}) {
        SCOPED_TRACE(mode);
        auto s = Make("preset=random,mode=" + std::to_string(mode));
        ASSERT_TRUE(s);
        const gen::ModeGeometry& g = gen::Geometry(mode);
        const size_t frames = 40;
        std::vector<uint8_t> bytes(2 * frames * static_cast<size_t>(g.frameSamples));
        s->Read(bytes.data(), bytes.size());
        // (start, length) of every run of at least 16 zero samples
        std::vector<std::pair<size_t, size_t>> runs, expected;
        for (size_t i = 0, run = 0; i <= bytes.size() / 2; ++i) {
            if (i < bytes.size() / 2 && bytes[2 * i] == 128 && bytes[2 * i + 1] == 128) {
                ++run;
                continue;
            }
            if (run >= 16) runs.push_back({i - run, run});
            run = 0;
        }
        for (size_t f = 0; f < frames; ++f)
            expected.push_back({f * static_cast<size_t>(g.frameSamples), static_cast<size_t>(g.nullSamples)});
        EXPECT_EQ(runs, expected);
    }
}

// The noise the description asks for reaches the carriers: differential
// QPSK at 9 dB per carrier loses about 1.68% of the bits (simulated), after
// 8-bit quantisation too; half a dB of SNR error moves that by a fifth.
TEST(SignalStream, SnrFromTheDescription) {
    auto s = Make("preset=random,mode=3,seed=8,snr=9");
    ASSERT_TRUE(s);
    const gen::ModeGeometry& g = gen::Geometry(3);
    auto source = gen::MakeRandomFrameBits(3, 8);
    ofdmtest::TestDemodulator demod(3);
    std::vector<uint8_t> bytes(2 * static_cast<size_t>(g.frameSamples));
    std::vector<std::complex<float>> frame(static_cast<size_t>(g.frameSamples));
    std::vector<uint8_t> sent;
    size_t errors = 0, total = 0;
    for (int f = 0; f < 8; ++f) {
        s->Read(bytes.data(), bytes.size());
        for (size_t i = 0; i < frame.size(); ++i)
            frame[i] = {static_cast<float>(bytes[2 * i]) - 127.5f, static_cast<float>(bytes[2 * i + 1]) - 127.5f};
        source->NextFrame(sent);
        errors += ofdmtest::CountDifferences(demod.DemodulateFrame(frame.data()), sent);
        total += sent.size();
    }
    const double ber = static_cast<double>(errors) / static_cast<double>(total);
    EXPECT_GT(ber, 0.0150);
    EXPECT_LT(ber, 0.0190);
}

TEST(SignalStream, BadDescriptionsAreRefused) {
    const char* bad[] = {
        "preset=no-such-ensemble", "mode=0", "mode=5", "mode=two", "mode=", "seed=-1", "seed=1x",
        "snr=loud", "snr=nan", "cfo=1e999", "ppm=2000", "profile=moon", "fading=-1", "cw=100", "cw=100:x",
        "cw=:3", "leadin=-1", "leadin=11", "randomstart=2", "colour=red", "snr", "=3", "preset=",
        "preset=random,mode=2,config=/nonexistent/ensemble.conf",
    };
    for (const char* d : bad) {
        std::string error;
        auto s = gen::MakeSignalStream(std::string("preset=random,") + d, &error);
        EXPECT_EQ(s, nullptr) << d;
        EXPECT_FALSE(error.empty()) << d;
        EXPECT_EQ(gen::MakeSignalStream(d), nullptr) << d;  // no error text wanted: no crash
    }
    const std::vector<std::string> names = gen::SignalPresetNames();
    EXPECT_NE(std::find(names.begin(), names.end(), "random"), names.end());
}

}  // namespace
