// The emulated device's parts on their own: configuration texts, faults,
// registers, noise, files and the clock resampler.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <complex>
#include <cstdio>
#include <string>
#include <vector>

#include "emulator/clock_resampler.h"
#include "emulator/emulator_settings.h"
#include "emulator/fault_plan.h"
#include "emulator/register_file.h"
#include "emulator/sample_sources.h"

namespace emu {
namespace {

TEST(EmulatorSettings, SourcePlans) {
    SourcePlan p;
    std::string error;
    ASSERT_EQ(ParseSourcePlan("generated-default", "", &p, &error), 1);
    EXPECT_EQ(p.kind, SourceKind::Noise);
    ASSERT_EQ(p.generatedByFrequency.count(227360), 1u);
    EXPECT_EQ(p.generatedByFrequency.size(), 2u);
    // Per-frequency descriptions replace the built-in entry of the same frequency.
    ASSERT_EQ(ParseSourcePlan("generated-default", "227360=preset=default,mode=2; 1000=x", &p, &error), 1);
    EXPECT_EQ(p.generatedByFrequency[227360], "preset=default,mode=2");
    EXPECT_EQ(p.generatedByFrequency.size(), 3u);

    ASSERT_EQ(ParseSourcePlan("perfreq:/d", "", &p, &error), 1);
    EXPECT_EQ(p.path, "/d");
    ASSERT_EQ(ParseSourcePlan("perfreq:227360=/a.u8,222064=/b.u8", "", &p, &error), 1);
    EXPECT_TRUE(p.path.empty());
    EXPECT_EQ(p.filesByFrequency[222064], "/b.u8");
    for (const char* bad : {"file:", "perfreq:", "perfreq:12.5=/a", "radio", "perfreq:abc=/a"}) {
        EXPECT_EQ(ParseSourcePlan(bad, "", &p, &error), 0) << bad;
    }
    EXPECT_EQ(ParseSourcePlan("noise", "227360", &p, &error), 0);
}

TEST(EmulatorFaults, ParsingAndRegisterFaults) {
    FaultPlan f;
    std::string error;
    ASSERT_EQ(ParseFaultPlan("no-device, update-after=2,demod-write=1:3E,sys-read=0x04,sys-write-after=1,stream-stop=100",
                             &f, &error),
              1)
        << error;
    EXPECT_TRUE(f.noDevice);
    EXPECT_EQ(f.streamStopBytes, 100);
    EXPECT_FALSE(f.deviceUpdate.Fails());
    EXPECT_FALSE(f.deviceUpdate.Fails());
    EXPECT_TRUE(f.deviceUpdate.Fails());
    // An address fault hits any access whose range covers the register.
    EXPECT_TRUE(RegisterAccessFails(&f, RegisterAccessKind::DemodWrite, 1, 0x3E, 1));
    EXPECT_TRUE(RegisterAccessFails(&f, RegisterAccessKind::DemodWrite, 1, 0x3C, 4));
    EXPECT_FALSE(RegisterAccessFails(&f, RegisterAccessKind::DemodWrite, 1, 0x3F, 1));
    EXPECT_FALSE(RegisterAccessFails(&f, RegisterAccessKind::DemodWrite, 0, 0x3E, 1));
    EXPECT_FALSE(RegisterAccessFails(&f, RegisterAccessKind::DemodRead, 1, 0x3E, 1));
    EXPECT_TRUE(RegisterAccessFails(&f, RegisterAccessKind::SysRead, -1, 4, 1));
    EXPECT_FALSE(RegisterAccessFails(&f, RegisterAccessKind::SysWrite, -1, 1, 1));
    EXPECT_TRUE(RegisterAccessFails(&f, RegisterAccessKind::SysWrite, -1, 1, 1));

    for (const char* bad : {"explode", "update-after=x", "demod-read=2:10", "demod-read=1:100", "sys-write=1:02"}) {
        FaultPlan g;
        EXPECT_EQ(ParseFaultPlan(bad, &g, &error), 0) << bad;
    }
    // A bad item doesn't cost the others.
    FaultPlan g;
    error.clear();
    EXPECT_EQ(ParseFaultPlan("explode,tuner-type", &g, &error), 0);
    EXPECT_TRUE(g.tunerType);
    EXPECT_NE(error.find("explode"), std::string::npos);
}

TEST(EmulatorRegisters, ResetStateRangesAndLine) {
    RegisterFile r;
    uint8_t b[4] = {9, 9, 9, 9};
    ASSERT_EQ(r.ReadDemod(1, 0x3E, 2, b), 1);
    EXPECT_EQ(b[0], 0);
    EXPECT_EQ(b[1], 0);
    ASSERT_EQ(r.ReadSystem(4, 1, b), 1);
    EXPECT_EQ(b[0], 0x04);
    EXPECT_EQ(r.ReadDemod(2, 0, 1, b), 0);
    EXPECT_EQ(r.ReadDemod(0, 255, 2, b), 0);
    EXPECT_EQ(r.WriteDemod(0, -1, 1, b), 0);
    EXPECT_EQ(r.ReadSystem(0, 0, b), 0);
    EXPECT_EQ(r.ReadDemod(0, 0, 1, nullptr), 0);
    EXPECT_EQ(r.ReadDemod(0, 0xFC, 4, b), 1);

    // The line drives only once it is configured as an output.
    const uint8_t on = 0x04;
    const uint8_t off = 0x00;
    ASSERT_EQ(r.WriteSystem(1, 1, &on), 1);
    EXPECT_EQ(r.GoodReceptionLine(), 0);
    r.WriteSystem(4, 1, &off);
    EXPECT_EQ(r.GoodReceptionLine(), 0);
    r.WriteSystem(3, 1, &on);
    EXPECT_EQ(r.GoodReceptionLine(), 1);
    r.WriteSystem(1, 1, &off);
    EXPECT_EQ(r.GoodReceptionLine(), 0);

    // Soft reset: counted on the falling edge of bit 2 of page 1, 0x01.
    const uint8_t set = 0x05;
    const uint8_t clear = 0x01;
    r.WriteDemod(1, 0x01, 1, &set);
    EXPECT_EQ(r.SoftResets(), 0);
    r.WriteDemod(1, 0x01, 1, &clear);
    EXPECT_EQ(r.SoftResets(), 1);
    r.Reset();
    EXPECT_EQ(r.SoftResets(), 0);
    EXPECT_EQ(r.GoodReceptionLine(), 0);
}

TEST(EmulatorRegisters, SampleRateCode) {
    EXPECT_DOUBLE_EQ(SampleRateCodeToPpm(0x3F, 0xFF), -1.0e6 / 16777216.0);
    EXPECT_DOUBLE_EQ(SampleRateCodeToPpm(0x20, 0x00), -8192.0e6 / 16777216.0);
    EXPECT_DOUBLE_EQ(SampleRateCodeToPpm(0x1F, 0xFF), 8191.0e6 / 16777216.0);
    EXPECT_DOUBLE_EQ(SampleRateCodeToPpm(0xC0, 0x10), 16.0e6 / 16777216.0) << "top bits are not part of the code";
    RegisterFile r;
    const uint8_t code[2] = {0x06, 0x8D};  // floor(100 ppm x 16.777216) = 1677
    r.WriteDemod(1, 0x3E, 2, code);
    EXPECT_NEAR(r.SampleRateCorrectionPpm(), 100.0, 0.06);
}

TEST(EmulatorSources, NoiseIsSeededGaussianAroundTheMiddle) {
    NoiseSource a(7, 20.0);
    NoiseSource b(7, 20.0);
    NoiseSource c(8, 20.0);
    std::vector<uint8_t> x(400000), y(400000), z(400000);
    a.Read(x.data(), x.size());
    b.Read(y.data(), y.size());
    c.Read(z.data(), z.size());
    EXPECT_EQ(x, y);
    EXPECT_NE(x, z);
    double sum = 0.0;
    double squares = 0.0;
    double correlation = 0.0;
    for (size_t i = 0; i < x.size(); ++i) {
        const double v = x[i] - 127.5;
        sum += v;
        squares += v * v;
        if (i + 1 < x.size()) correlation += v * (x[i + 1] - 127.5);
    }
    const double n = double(x.size());
    EXPECT_NEAR(sum / n, 0.0, 0.2);
    // Rounding to bytes adds 1/12 to the variance.
    EXPECT_NEAR(std::sqrt(squares / n), std::sqrt(400.0 + 1.0 / 12.0), 0.2);
    EXPECT_NEAR(correlation / squares, 0.0, 0.01) << "I and Q are independent";
}

std::string WriteTempFile(const std::vector<uint8_t>& bytes) {
    char name[] = "/tmp/emulator_test_XXXXXX";
    const int fd = mkstemp(name);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size()));
    close(fd);
    return name;
}

TEST(EmulatorSources, FileLoopsOrEndsAndNeverSplitsASample) {
    const std::string path = WriteTempFile({1, 2, 3, 4, 5});
    std::string error;
    std::unique_ptr<FileSource> loop = FileSource::Open(path, true, &error);
    ASSERT_NE(loop, nullptr) << error;
    std::vector<uint8_t> out(10, 0);
    EXPECT_EQ(loop->Read(out.data(), 10), 10u);
    EXPECT_EQ(out, (std::vector<uint8_t>{1, 2, 3, 4, 1, 2, 3, 4, 1, 2}));
    std::unique_ptr<FileSource> once = FileSource::Open(path, false, &error);
    EXPECT_EQ(once->Read(out.data(), 10), 4u);
    EXPECT_EQ(once->Read(out.data(), 10), 0u);
    std::remove(path.c_str());
    EXPECT_EQ(FileSource::Open(path, true, &error), nullptr);
    const std::string tiny = WriteTempFile({1});
    EXPECT_EQ(FileSource::Open(tiny, true, &error), nullptr);
    std::remove(tiny.c_str());
}

// A source of a complex tone, `cycles` per sample, amplitude 60.
class ToneSource : public SampleSource {
public:
    explicit ToneSource(double cycles) : cycles_(cycles) {}
    size_t Read(uint8_t* out, size_t count) override {
        for (size_t i = 0; i < count / 2; ++i, ++n_) {
            const double phase = 2.0 * M_PI * cycles_ * double(n_);
            out[2 * i] = uint8_t(std::lround(127.5 + 60.0 * std::cos(phase)));
            out[2 * i + 1] = uint8_t(std::lround(127.5 + 60.0 * std::sin(phase)));
        }
        return count & ~size_t(1);
    }

private:
    double cycles_;
    int64_t n_ = 0;
};

// Error power of `bytes` against the tone at times n / (1 + ppm 1e-6),
// relative to the tone's power, in dB.
double ToneErrorDb(const std::vector<uint8_t>& bytes, double cycles, double ppm, size_t skip) {
    double error = 0.0;
    double power = 0.0;
    for (size_t n = skip; n < bytes.size() / 2; ++n) {
        const double t = double(n) / (1.0 + ppm * 1.0e-6);
        const std::complex<double> want = 60.0 * std::polar(1.0, 2.0 * M_PI * cycles * t);
        const std::complex<double> got(bytes[2 * n] - 127.5, bytes[2 * n + 1] - 127.5);
        error += std::norm(got - want);
        power += std::norm(want);
    }
    return 10.0 * std::log10(error / power);
}

TEST(EmulatorClock, ResamplesAccuratelyAcrossTheBand) {
    // Tones inside the DAB band (up to 0.375 cycles per sample), at clock
    // errors of both signs and a large one, in blocks as the stream asks.
    for (double cycles : {0.01, 0.2, -0.37}) {
        for (double ppm : {150.0, -40.0, 3000.0}) {
            ToneSource tone(cycles);
            ClockResampler r;
            std::vector<uint8_t> out(2 * 60000);
            size_t done = 0;
            while (done < 60000) {
                const size_t block = std::min<size_t>(60000 - done, 7001);
                ASSERT_EQ(r.Produce(&tone, ppm, out.data() + done * 2, block), block);
                done += block;
            }
            // Rounding to bytes on the way in and out alone gives about -40 dB
            // at this amplitude.
            EXPECT_LT(ToneErrorDb(out, cycles, ppm, 16), -38.5) << cycles << " cycles, " << ppm << " ppm";
            // Without the clock error modelled the drift would show.
            if (std::abs(ppm) >= 150.0) {
                EXPECT_GT(ToneErrorDb(out, cycles, 0.0, 16), -30.0);
            }
        }
    }
}

}  // namespace
}  // namespace emu
