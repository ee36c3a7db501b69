// A SoapySDR driver module of the tests ("driver=mvxtest"): one receive
// channel that plays a generated DAB signal or a file at 2.048 MS/s, paced in
// real time, through a converter clock with an error of its own. Its
// frequency correction acts on that clock as a real device's does: the
// correction declares the reference's error in ppm, and the samples come with
// clock error (error - correction). It is loaded by SoapySDR's ordinary
// module search (SOAPY_SDR_PLUGIN_PATH), so that the device library is tested
// through the real SoapySDR machinery.
//
// Configured by environment variables, read when a device is made:
//   MVXTEST_SOURCE      generated:DESC (default generated:preset=default) or file:PATH (raw u8 I/Q, looped)
//   MVXTEST_CLOCK_PPM   sample-clock error of the converter, ppm (default 0)
//   MVXTEST_FORMAT      the one stream format offered: CS16 (default) or CF32
//   MVXTEST_CORRECTION  0: no frequency correction (default 1)
//   MVXTEST_SPEED       pacing as a multiple of real time (default 1)
//   MVXTEST_UNPLUG_MS   the device fails its stream (readStream: stream error)
//                       after this many ms of samples, as when it is unplugged
//   MVXTEST_STALL_MS    the same, but the stream only stops (time-outs)
// A test "plugs the device back in" by clearing the variable and making a new one.
//
// Tests read the module's state through mvxtest_state (test_module_state.h).
#include <SoapySDR/Device.hpp>
#include <SoapySDR/Errors.hpp>
#include <SoapySDR/Formats.hpp>
#include <SoapySDR/Registry.hpp>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "emulator/clock_resampler.h"
#include "emulator/sample_sources.h"
#include "tests/soapy/test_module_state.h"

// The state the tests read (dlopen with RTLD_NOLOAD, dlsym).
extern "C" __attribute__((visibility("default"))) MvxTestState mvxtest_state;
MvxTestState mvxtest_state;

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kRate = 2048000.0;
constexpr size_t kMtu = 16384;


double EnvNumber(const char* name, double fallback) {
    const char* t = std::getenv(name);
    return t != nullptr && *t != '\0' ? std::atof(t) : fallback;
}

std::string EnvText(const char* name, const char* fallback) {
    const char* t = std::getenv(name);
    return t != nullptr && *t != '\0' ? t : fallback;
}

class TestDevice : public SoapySDR::Device {
public:
    TestDevice() {
        const std::string source = EnvText("MVXTEST_SOURCE", "generated:preset=default");
        std::string error;
        if (source.rfind("file:", 0) == 0) {
            source_ = emu::FileSource::Open(source.substr(5), true, &error);
        } else if (source.rfind("generated:", 0) == 0) {
            source_ = emu::MakeGeneratedSource(source.substr(10), &error);
        } else {
            error = "MVXTEST_SOURCE is neither generated: nor file:";
        }
        if (source_ == nullptr) throw std::runtime_error("mvxtest: " + error);
        clockPpm_ = EnvNumber("MVXTEST_CLOCK_PPM", 0.0);
        format_ = EnvText("MVXTEST_FORMAT", "CS16");
        correction_ = EnvNumber("MVXTEST_CORRECTION", 1.0) != 0.0;
        speed_ = EnvNumber("MVXTEST_SPEED", 1.0);
        unplugSamples_ = int64_t(EnvNumber("MVXTEST_UNPLUG_MS", -1.0) * kRate / 1000.0);
        stallSamples_ = int64_t(EnvNumber("MVXTEST_STALL_MS", -1.0) * kRate / 1000.0);
        mvxtest_state.samples = 0;
        mvxtest_state.correctionPpm = 0.0;
        mvxtest_state.automaticGain = 0;
    }

    std::string getHardwareKey() const override { return "mvxtest"; }
    size_t getNumChannels(const int direction) const override { return direction == SOAPY_SDR_RX ? 1 : 0; }

    std::vector<std::string> getStreamFormats(const int, const size_t) const override { return {format_}; }
    std::string getNativeStreamFormat(const int, const size_t, double& fullScale) const override {
        fullScale = format_ == "CF32" ? 1.0 : 32768.0;
        return format_;
    }

    SoapySDR::Stream* setupStream(const int, const std::string&, const std::vector<size_t>&,
                                  const SoapySDR::Kwargs&) override {
        return reinterpret_cast<SoapySDR::Stream*>(this);
    }
    void closeStream(SoapySDR::Stream*) override { active_ = false; }
    size_t getStreamMTU(SoapySDR::Stream*) const override { return kMtu; }

    int activateStream(SoapySDR::Stream*, const int, const long long, const size_t) override {
        start_ = Clock::now();
        paced_ = 0;
        active_ = true;
        return 0;
    }
    int deactivateStream(SoapySDR::Stream*, const int, const long long) override {
        active_ = false;
        return 0;
    }

    int readStream(SoapySDR::Stream*, void* const* buffs, const size_t numElems, int& flags, long long&,
                   const long timeoutUs) override {
        flags = 0;
        const auto timeout = std::chrono::microseconds(timeoutUs);
        const int64_t delivered = mvxtest_state.samples.load();
        if (unplugSamples_ >= 0 && delivered >= unplugSamples_) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            return SOAPY_SDR_STREAM_ERROR;
        }
        if (!active_ || (stallSamples_ >= 0 && delivered >= stallSamples_)) {
            std::this_thread::sleep_for(timeout);
            return SOAPY_SDR_TIMEOUT;
        }
        // Paced: the block is due (paced_ + want) / (rate x speed) after activation.
        const size_t want = std::min(numElems, kMtu);
        if (speed_ > 0.0)
            std::this_thread::sleep_until(start_ + std::chrono::duration_cast<Clock::duration>(
                                                       std::chrono::duration<double>((paced_ + want) / (kRate * speed_))));
        bytes_.resize(want * 2);
        const size_t got = resampler_.Produce(source_.get(), clockPpm_ - mvxtest_state.correctionPpm.load(), bytes_.data(), want);
        Convert(got, buffs[0]);
        paced_ += int64_t(want);
        mvxtest_state.samples += int64_t(got);
        return int(got);
    }

    void setSampleRate(const int, const size_t, const double rate) override {
        if (rate != kRate) throw std::runtime_error("mvxtest: only 2048000 S/s");
    }
    double getSampleRate(const int, const size_t) const override { return kRate; }

    void setFrequency(const int, const size_t, const double frequency, const SoapySDR::Kwargs&) override {
        mvxtest_state.frequencyHz = frequency;
    }

    bool hasGainMode(const int, const size_t) const override { return true; }
    void setGainMode(const int, const size_t, const bool automatic) override { mvxtest_state.automaticGain = automatic; }

    bool hasFrequencyCorrection(const int, const size_t) const override { return correction_; }
    void setFrequencyCorrection(const int, const size_t, const double value) override {
        if (!correction_) throw std::runtime_error("mvxtest: no frequency correction");
        mvxtest_state.correctionPpm = value;
    }

private:
    // Bytes b (value b - 127.5) to the stream format, so that a receiver
    // taking floor(x * 128 / fullScale) + 128 gets b back.
    void Convert(size_t samples, void* out) const {
        const size_t values = samples * 2;
        if (format_ == "CS16") {
            for (size_t i = 0; i < values; ++i) static_cast<int16_t*>(out)[i] = int16_t((int32_t(bytes_[i]) - 128) * 256);
        } else {
            for (size_t i = 0; i < values; ++i) static_cast<float*>(out)[i] = (float(bytes_[i]) - 128.0f) / 128.0f;
        }
    }

    std::unique_ptr<emu::SampleSource> source_;
    emu::ClockResampler resampler_;
    std::vector<uint8_t> bytes_;
    double clockPpm_ = 0.0;
    std::string format_;
    bool correction_ = true;
    double speed_ = 1.0;
    int64_t unplugSamples_ = -1;
    int64_t stallSamples_ = -1;
    bool active_ = false;
    Clock::time_point start_;
    int64_t paced_ = 0;  // samples of the schedule since activation
};

SoapySDR::KwargsList FindTestDevice(const SoapySDR::Kwargs& args) {
    const auto driver = args.find("driver");
    if (driver != args.end() && driver->second != "mvxtest") return {};
    SoapySDR::Kwargs found = args;
    found["driver"] = "mvxtest";
    found["label"] = "MVX test signal";
    return {found};
}

SoapySDR::Device* MakeTestDevice(const SoapySDR::Kwargs&) { return new TestDevice(); }

const SoapySDR::Registry registration("mvxtest", &FindTestDevice, &MakeTestDevice, SOAPY_SDR_ABI_VERSION);

}  // namespace
