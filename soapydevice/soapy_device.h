// One open SoapySDR device behind the 13 entry points: the SoapySDR device
// and its receive stream, the register model the receiver programs, and a
// reader thread of its own that turns the stream into unsigned 8-bit I/Q.
//
//   SoapySDR stream --readStream--> conversion to bytes --(resampler)--> ring --MVA_GetData--> receiver
//        (CS8/CU8/CS16/CF32)        (sample_conversion.h)                  |
//                                                       eventfd signalled after each transfer
//
// The ring holds `fifoBytes`; when the receiver falls behind, the oldest bytes
// are dropped, whole samples at a time, and counted.
//
// The sample-rate offset register (page 1, 0x3E-0x3F) is read by the reader
// thread before each transfer. A change reaches the samples through the
// device's frequency correction, or through the resampler shared with the
// emulated device (emulator/clock_resampler.h), as chosen at open.
//
// A device that fails (a stream error, no sample for `stallMs`) is lost: the
// reason goes to stderr once, the event is not signalled any more, and every
// entry but the two releases fails until the device is opened again.
#pragma once

#include <SoapySDR/Device.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "emulator/register_file.h"
#include "soapydevice/sample_conversion.h"
#include "soapydevice/soapy_settings.h"

namespace soapydev {

struct SoapyDevice {
    SoapySettings settings;
    SoapySDRDevice* device = nullptr;   // null until opened
    SoapySDRStream* stream = nullptr;   // receive stream, set up at open
    StreamFormat format{};              // the stream's sample format
    size_t readSamples = 0;             // samples asked of each readStream
    bool deviceCorrection = false;      // the register acts through the device's frequency correction
    bool resample = false;              // the register acts through the resampler
    emu::RegisterFile registers;        // demodulator and system registers
    std::mutex controlLock;             // serialises SoapySDR control calls (tuning, correction)
    std::atomic<bool> lost{false};      // the device failed; see above
    std::atomic<int32_t> frequencyKhz{0};   // recorded by MVA_Set_Frequency, kHz; 0 none
    std::atomic<int32_t> bandwidthCode{0};  // recorded by MVA_Set_Bandwidth

    // Ring between the reader thread and MVA_GetData, under ringLock.
    std::mutex ringLock;
    std::vector<uint8_t> ring;          // fifoBytes
    size_t ringHead = 0;                // index of the oldest byte
    size_t ringSize = 0;                // bytes held
    int eventFd = -1;                   // receiver's event while streaming, else -1

    std::thread reader;                 // runs while streaming
    std::atomic<bool> stopping{false};  // asks the reader to end
    std::atomic<int64_t> deliveredBytes{0};  // bytes put into the ring since open
    std::atomic<int64_t> droppedBytes{0};    // bytes lost to a full ring since open
    std::atomic<int64_t> overflows{0};       // overflows reported by the device since open
};

// Opens the device named by settings.device (or the first one), sets it up
// at 2.048 MS/s with its stream, gain and clock correction. 1, or 0 with the
// reason on stderr (the device is then closed again).
int32_t OpenSoapyDevice(SoapyDevice* d);
// Stops streaming, closes the stream and releases the device. Always completes.
void CloseSoapyDevice(SoapyDevice* d);

// Activates the stream and starts the reader thread, which signals the
// eventfd `eventFd` after each transfer. A running stream is stopped first.
int32_t StartStreaming(SoapyDevice* d, int eventFd);
// Ends the reader thread and deactivates the stream: once this returns the
// event is not signalled any more. Buffered bytes are discarded.
void StopStreaming(SoapyDevice* d);
// Takes up to `capacity` buffered bytes (whole samples); the count.
int32_t TakeBytes(SoapyDevice* d, uint8_t* buffer, int32_t capacity);

// Tunes the recorded frequency (and the configured analog bandwidth). 1 or 0.
int32_t TuneSoapyDevice(SoapyDevice* d);

// Marks the device lost, with the reason on stderr (once).
void MarkLost(SoapyDevice* d, const char* reason);

}  // namespace soapydev
