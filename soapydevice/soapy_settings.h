// The SoapySDR device library's configuration. The device contract has no way
// to pass options, so everything comes from MVSOAPY_* environment variables,
// read afresh each time the device is opened (MVA_BDAFilterInit).
#pragma once

#include <cstdint>
#include <string>

namespace soapydev {

// Samples per second the receiver expects, and bytes (I and Q) per sample.
constexpr double kSampleRate = 2048000.0;
constexpr int32_t kBytesPerSample = 2;

// How the sample-rate offset register reaches the samples.
enum class ClockCorrection {
    Automatic,  // the device's frequency correction where it has one, else resampling
    Device,     // the device's frequency correction (fails to open without one)
    Resample,   // resampling in this library
    Off,        // the register is kept but has no effect
};

struct SoapySettings {
    std::string device;       // MVSOAPY_DEVICE: SoapySDR device arguments ("driver=x,serial=y"); empty = first device
    int32_t channel;          // MVSOAPY_CHANNEL: receive channel of the device
    std::string antenna;      // MVSOAPY_ANTENNA: antenna port; empty = the device's default
    bool automaticGain;       // MVSOAPY_GAIN "auto": the device's automatic gain, where it has one
    double gainDb;            // MVSOAPY_GAIN as a number: fixed overall gain, dB
    double levelDb;           // MVSOAPY_LEVEL_DB: digital gain of the conversion to bytes, dB
    double bandwidthKhz;      // MVSOAPY_BANDWIDTH_KHZ: analog filter bandwidth, kHz; 0 = the device's choice
    ClockCorrection clock;    // MVSOAPY_CLOCK: auto, device, resample or off
    int32_t tunerType;        // MVSOAPY_TUNER_TYPE: value reported by MVA_Get_TunerType
    int32_t stallMs;          // MVSOAPY_STALL_MS: streaming without a sample this long means the device is lost, ms
    int64_t fifoBytes;        // MVSOAPY_FIFO_KB (in KiB): buffer between the reader thread and MVA_GetData, bytes
    bool verbose;             // MVSOAPY_VERBOSE: report opening, tuning, corrections and overflows on stderr
};

// Reads the environment; a malformed value is reported on stderr and the
// default is used instead.
SoapySettings ReadSoapySettings();

}  // namespace soapydev
