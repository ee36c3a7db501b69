#include "soapydevice/soapy_device.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

namespace soapydev {

namespace {

// Reads of at most this many samples keep one transfer under the receiver's
// 240,640-byte gathering unit and the latency low.
constexpr size_t kLargestRead = 65536;
constexpr size_t kSmallestRead = 1024;

bool Failed(int status, const char* what) {
    if (status == 0) return false;
    std::fprintf(stderr, "soapydevice: %s failed: %s\n", what, SoapySDRDevice_lastError());
    return true;
}

bool SetUpGain(SoapyDevice* d) {
    const size_t ch = size_t(d->settings.channel);
    const bool hasAutomatic = SoapySDRDevice_hasGainMode(d->device, SOAPY_SDR_RX, ch);
    if (d->settings.automaticGain) {
        // Without automatic gain the device keeps the gain it has.
        if (!hasAutomatic) {
            if (d->settings.verbose) std::fprintf(stderr, "soapydevice: no automatic gain; gain left as it is\n");
            return true;
        }
        return !Failed(SoapySDRDevice_setGainMode(d->device, SOAPY_SDR_RX, ch, true), "automatic gain");
    }
    if (hasAutomatic && Failed(SoapySDRDevice_setGainMode(d->device, SOAPY_SDR_RX, ch, false), "manual gain"))
        return false;
    return !Failed(SoapySDRDevice_setGain(d->device, SOAPY_SDR_RX, ch, d->settings.gainDb), "setting the gain");
}

bool SetUpFormat(SoapyDevice* d) {
    const size_t ch = size_t(d->settings.channel);
    double fullScale = 0.0;
    char* native = SoapySDRDevice_getNativeStreamFormat(d->device, SOAPY_SDR_RX, ch, &fullScale);
    size_t count = 0;
    char** list = SoapySDRDevice_getStreamFormats(d->device, SOAPY_SDR_RX, ch, &count);
    std::vector<std::string> offered;
    for (size_t i = 0; list != nullptr && i < count; ++i) offered.emplace_back(list[i]);
    const std::string nativeName = native != nullptr ? native : "";
    SoapySDRStrings_clear(&list, count);
    SoapySDR_free(native);
    if (!ChooseStreamFormat(nativeName, fullScale, offered, &d->format)) {
        std::fprintf(stderr, "soapydevice: the device offers none of CS8, CS16, CF32, CU8 (native %s)\n",
                     nativeName.c_str());
        return false;
    }
    return true;
}

bool SetUpClockCorrection(SoapyDevice* d) {
    const bool has = SoapySDRDevice_hasFrequencyCorrection(d->device, SOAPY_SDR_RX, size_t(d->settings.channel));
    switch (d->settings.clock) {
    case ClockCorrection::Automatic:
        d->deviceCorrection = has;
        d->resample = !has;
        break;
    case ClockCorrection::Device:
        if (!has) {
            std::fprintf(stderr, "soapydevice: MVSOAPY_CLOCK=device, but the device has no frequency correction\n");
            return false;
        }
        d->deviceCorrection = true;
        break;
    case ClockCorrection::Resample:
        d->resample = true;
        break;
    case ClockCorrection::Off:
        break;
    }
    return true;
}

bool SetUp(SoapyDevice* d) {
    const SoapySettings& s = d->settings;
    const size_t ch = size_t(s.channel);
    if (SoapySDRDevice_getNumChannels(d->device, SOAPY_SDR_RX) <= ch) {
        std::fprintf(stderr, "soapydevice: the device has no receive channel %d\n", s.channel);
        return false;
    }
    if (Failed(SoapySDRDevice_setSampleRate(d->device, SOAPY_SDR_RX, ch, kSampleRate), "setting 2.048 MS/s"))
        return false;
    const double rate = SoapySDRDevice_getSampleRate(d->device, SOAPY_SDR_RX, ch);
    if (std::fabs(rate - kSampleRate) > 0.5) {
        std::fprintf(stderr, "soapydevice: the device runs at %.1f S/s, not 2048000\n", rate);
        return false;
    }
    if (!s.antenna.empty() &&
        Failed(SoapySDRDevice_setAntenna(d->device, SOAPY_SDR_RX, ch, s.antenna.c_str()), "choosing the antenna"))
        return false;
    if (!SetUpGain(d) || !SetUpFormat(d) || !SetUpClockCorrection(d)) return false;
    d->stream = SoapySDRDevice_setupStream(d->device, SOAPY_SDR_RX, d->format.name, &ch, 1, nullptr);
    if (d->stream == nullptr) {
        std::fprintf(stderr, "soapydevice: setting up the %s stream failed: %s\n", d->format.name,
                     SoapySDRDevice_lastError());
        return false;
    }
    d->readSamples = std::clamp(SoapySDRDevice_getStreamMTU(d->device, d->stream), kSmallestRead, kLargestRead);
    return true;
}

}  // namespace

int32_t OpenSoapyDevice(SoapyDevice* d) {
    d->device = SoapySDRDevice_makeStrArgs(d->settings.device.c_str());
    if (d->device == nullptr) {
        std::fprintf(stderr, "soapydevice: no SoapySDR device%s%s%s: %s\n", d->settings.device.empty() ? "" : " \"",
                     d->settings.device.c_str(), d->settings.device.empty() ? "" : "\"", SoapySDRDevice_lastError());
        return 0;
    }
    if (!SetUp(d)) {
        CloseSoapyDevice(d);
        return 0;
    }
    d->ring.assign(size_t(d->settings.fifoBytes), 0);
    if (d->settings.verbose) {
        char* label = SoapySDRDevice_getHardwareKey(d->device);
        std::fprintf(stderr, "soapydevice: opened %s, %s stream (full scale %g), %zu samples a read, clock by %s\n",
                     label != nullptr ? label : "?", d->format.name, d->format.fullScale, d->readSamples,
                     d->deviceCorrection ? "the device's correction" : (d->resample ? "resampling" : "nothing"));
        SoapySDR_free(label);
    }
    return 1;
}

void CloseSoapyDevice(SoapyDevice* d) {
    StopStreaming(d);
    if (d->device == nullptr) return;
    if (d->stream != nullptr) SoapySDRDevice_closeStream(d->device, d->stream);
    d->stream = nullptr;
    SoapySDRDevice_unmake(d->device);
    d->device = nullptr;
    if (d->settings.verbose && d->droppedBytes > 0)
        std::fprintf(stderr, "soapydevice: %lld bytes dropped in all\n", (long long)d->droppedBytes.load());
}

int32_t TuneSoapyDevice(SoapyDevice* d) {
    if (d->lost || d->device == nullptr || d->frequencyKhz <= 0) return 0;
    const size_t ch = size_t(d->settings.channel);
    std::lock_guard<std::mutex> hold(d->controlLock);
    const double hz = double(d->frequencyKhz.load()) * 1000.0;
    if (Failed(SoapySDRDevice_setFrequency(d->device, SOAPY_SDR_RX, ch, hz, nullptr), "tuning")) return 0;
    if (d->settings.bandwidthKhz > 0.0 &&
        Failed(SoapySDRDevice_setBandwidth(d->device, SOAPY_SDR_RX, ch, d->settings.bandwidthKhz * 1000.0),
               "setting the bandwidth"))
        return 0;
    if (d->settings.verbose)
        std::fprintf(stderr, "soapydevice: tuned %d kHz (bandwidth code %d)\n", d->frequencyKhz.load(),
                     d->bandwidthCode.load());
    return 1;
}

void MarkLost(SoapyDevice* d, const char* reason) {
    if (d->lost.exchange(true)) return;
    std::fprintf(stderr, "soapydevice: device lost: %s\n", reason);
}

}  // namespace soapydev
