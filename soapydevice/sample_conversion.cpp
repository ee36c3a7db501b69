#include "soapydevice/sample_conversion.h"

#include <cmath>
#include <cstring>

namespace soapydev {

namespace {

struct KnownFormat {
    SampleFormat format;
    const char* name;
    double fullScale;      // used when the device gives none
    int32_t bytesPerSample;
};

// In the order of preference for a device whose native format isn't among them.
constexpr KnownFormat kKnownFormats[] = {
    {SampleFormat::CS8, "CS8", 128.0, 2},
    {SampleFormat::CS16, "CS16", 32768.0, 4},
    {SampleFormat::CF32, "CF32", 1.0, 8},
    {SampleFormat::CU8, "CU8", 128.0, 2},
};

uint8_t Clip(float v) {
    // v is the byte's value - 128 before rounding down.
    const float b = std::floor(v) + 128.0f;
    if (!(b >= 0.0f)) return 0;  // also a NaN from a float stream
    return b > 255.0f ? 255 : uint8_t(b);
}

}  // namespace

bool ChooseStreamFormat(const std::string& native, double nativeFullScale,
                        const std::vector<std::string>& offered, StreamFormat* chosen) {
    for (const KnownFormat& k : kKnownFormats) {
        if (native == k.name) {
            *chosen = {k.format, k.name, nativeFullScale > 0.0 ? nativeFullScale : k.fullScale, k.bytesPerSample};
            return true;
        }
    }
    for (const KnownFormat& k : kKnownFormats) {
        for (const std::string& o : offered) {
            if (o == k.name) {
                *chosen = {k.format, k.name, k.fullScale, k.bytesPerSample};
                return true;
            }
        }
    }
    return false;
}

void ConvertToBytes(const StreamFormat& format, double gain, const void* in, size_t samples, uint8_t* out) {
    const size_t values = samples * 2;
    const float scale = float(gain * 128.0 / format.fullScale);
    switch (format.format) {
    case SampleFormat::CU8: {
        const uint8_t* u = static_cast<const uint8_t*>(in);
        if (scale == 1.0f) {
            std::memcpy(out, u, values);
        } else {
            for (size_t i = 0; i < values; ++i) out[i] = Clip((float(u[i]) - 128.0f) * scale);
        }
        break;
    }
    case SampleFormat::CS8: {
        const int8_t* s = static_cast<const int8_t*>(in);
        if (scale == 1.0f) {
            for (size_t i = 0; i < values; ++i) out[i] = uint8_t(int32_t(s[i]) + 128);
        } else {
            for (size_t i = 0; i < values; ++i) out[i] = Clip(float(s[i]) * scale);
        }
        break;
    }
    case SampleFormat::CS16: {
        const int16_t* s = static_cast<const int16_t*>(in);
        for (size_t i = 0; i < values; ++i) out[i] = Clip(float(s[i]) * scale);
        break;
    }
    case SampleFormat::CF32: {
        const float* f = static_cast<const float*>(in);
        for (size_t i = 0; i < values; ++i) out[i] = Clip(f[i] * scale);
        break;
    }
    }
}

}  // namespace soapydev
