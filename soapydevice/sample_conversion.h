// Samples as the SoapySDR device delivers them, turned into the unsigned 8-bit
// I/Q bytes of the device contract (value = byte - 127.5).
//
// A sample x of a format with full scale F becomes
//     byte = floor(x * gain * 128 / F) + 128, clipped to 0..255,
// so that 8-bit devices pass bit-exact (CS8: s + 128; CU8: unchanged) and a
// CS16 full scale of 32768 keeps the top byte (s >> 8) + 128.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace soapydev {

enum class SampleFormat { CU8, CS8, CS16, CF32 };

struct StreamFormat {
    SampleFormat format;   // what the stream is set up with
    const char* name;      // its SoapySDR name ("CS16")
    double fullScale;      // largest magnitude of a sample in that format
    int32_t bytesPerSample;  // I and Q together
};

// The stream format to ask for: the device's native format when it is one of
// CU8, CS8, CS16, CF32 (with the full scale the device gives for it), else
// the first of CS8, CS16, CF32, CU8 that the device lists (full scale 128,
// 32768, 1.0, 128). False when none of them is offered.
bool ChooseStreamFormat(const std::string& native, double nativeFullScale,
                        const std::vector<std::string>& offered, StreamFormat* chosen);

// Converts `samples` complex samples of `format` at `in` into 2 * samples
// bytes at `out`, scaled by `gain` (linear, 1.0 = full scale to full scale).
void ConvertToBytes(const StreamFormat& format, double gain, const void* in, size_t samples, uint8_t* out);

}  // namespace soapydev
