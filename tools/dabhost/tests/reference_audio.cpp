#include "reference_audio.h"

#include <mpg123.h>
#include <neaacdec.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace reference {

std::vector<uint8_t> ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string SamplePath(const std::string& name) {
    const char* dir = std::getenv("MVDAB_SAMPLES_DIR");
    return std::string(dir != nullptr ? dir : "../shared/samples") + "/" + name;
}

std::vector<uint8_t> TableConfig(uint8_t b) {
    struct Row {
        uint8_t bits;  // dac_rate, sbr, channel mode, ps
        std::vector<uint8_t> config;
    };
    static const Row rows[] = {
        {0b0000, {0x12, 0x8C}},
        {0b0010, {0x12, 0x94}},
        {0b0100, {0x14, 0x0C, 0x56, 0xE5, 0xA8}},
        {0b0110, {0x14, 0x14, 0x56, 0xE5, 0xA8}},
        {0b0101, {0x14, 0x0C, 0x56, 0xE5, 0xAD, 0x48, 0x80}},
        {0b1000, {0x11, 0x8C}},
        {0b1010, {0x11, 0x94}},
        {0b1100, {0x13, 0x0C, 0x56, 0xE5, 0x98}},
        {0b1110, {0x13, 0x14, 0x56, 0xE5, 0x98}},
        {0b1101, {0x13, 0x0C, 0x56, 0xE5, 0x9D, 0x48, 0x80}},
    };
    for (const Row& r : rows)
        if (r.bits == ((b >> 3) & 0x0F)) return r.config;
    return {};
}

Pcm DecodeMp2(const std::vector<uint8_t>& stream) {
    Pcm out;
    mpg123_init();
    mpg123_handle* h = mpg123_new(nullptr, nullptr);
    mpg123_param(h, MPG123_ADD_FLAGS, MPG123_QUIET, 0.0);
    mpg123_format_none(h);
    mpg123_format2(h, 0, MPG123_MONO | MPG123_STEREO, MPG123_ENC_SIGNED_16);
    mpg123_open_feed(h);
    std::vector<unsigned char> buffer(1 << 16);
    size_t done = 0;
    int result = mpg123_decode(h, stream.data(), stream.size(), buffer.data(), buffer.size(), &done);
    for (;;) {
        if (result == MPG123_NEW_FORMAT) {
            long rate = 0;
            int encoding = 0;
            mpg123_getformat(h, &rate, &out.channels, &encoding);
            out.rateHz = int(rate);
        }
        const int16_t* p = reinterpret_cast<const int16_t*>(buffer.data());
        out.samples.insert(out.samples.end(), p, p + done / 2);
        if (result != MPG123_OK && result != MPG123_NEW_FORMAT) break;
        result = mpg123_decode(h, nullptr, 0, buffer.data(), buffer.size(), &done);
    }
    mpg123_delete(h);
    return out;
}

namespace {

uint16_t Crc(const uint8_t* p, int n) {
    uint16_t reg = 0xFFFF;
    for (int i = 0; i < n; ++i)
        for (int bit = 7; bit >= 0; --bit) {
            const bool feedback = ((reg >> 15) ^ (p[i] >> bit)) & 1;
            reg = uint16_t(reg << 1);
            if (feedback) reg ^= 0x1021;
        }
    return uint16_t(~reg);
}

}  // namespace

Pcm DecodeSuperframes(const uint8_t* superframes, int count, int s) {
    Pcm out;
    NeAACDecHandle h = nullptr;
    for (int f = 0; f < count; ++f) {
        const uint8_t* sf = superframes + size_t(f) * 120 * s;
        const int audioBytes = 110 * s;
        if (h == nullptr) {
            h = NeAACDecOpen();
            NeAACDecConfigurationPtr c = NeAACDecGetCurrentConfiguration(h);
            c->outputFormat = FAAD_FMT_16BIT;
            NeAACDecSetConfiguration(h, c);
            std::vector<uint8_t> config = TableConfig(sf[2]);
            unsigned long rate = 0;
            unsigned char channels = 0;
            NeAACDecInit2(h, config.data(), (unsigned long)config.size(), &rate, &channels);
        }
        const bool dac = sf[2] & 0x40, sbr = sf[2] & 0x20;
        const int aus = dac ? (sbr ? 3 : 6) : (sbr ? 2 : 4);
        int start[7] = {dac ? (sbr ? 6 : 11) : (sbr ? 5 : 8)};
        for (int k = 1; k < aus; ++k) {
            const int bit = 24 + 12 * (k - 1);
            const uint32_t word = (uint32_t(sf[bit / 8]) << 8) | sf[bit / 8 + 1];
            start[k] = int((word >> (4 - bit % 8)) & 0xFFF);
        }
        start[aus] = audioBytes;
        for (int k = 0; k < aus; ++k) {
            const int length = start[k + 1] - start[k] - 2;
            const uint8_t* au = sf + start[k];
            if (length <= 0 || Crc(au, length) != ((au[length] << 8) | au[length + 1])) continue;
            NeAACDecFrameInfo info;
            std::memset(&info, 0, sizeof info);
            void* pcm = NeAACDecDecode(h, &info, const_cast<uint8_t*>(au), (unsigned long)length);
            if (info.error != 0 || pcm == nullptr) continue;
            out.rateHz = int(info.samplerate);
            out.channels = info.channels;
            const int16_t* p = static_cast<const int16_t*>(pcm);
            out.samples.insert(out.samples.end(), p, p + info.samples);
        }
    }
    if (h != nullptr) NeAACDecClose(h);
    return out;
}

bool ReadWav(const std::string& path, Pcm* out) {
    const std::vector<uint8_t> b = ReadFile(path);
    auto u16 = [&](size_t i) { return uint32_t(b[i] | (b[i + 1] << 8)); };
    if (b.size() < 44 || std::memcmp(b.data(), "RIFF", 4) != 0 || std::memcmp(b.data() + 36, "data", 4) != 0 ||
        u16(20) != 1 || u16(34) != 16)
        return false;
    out->channels = int(u16(22));
    out->rateHz = int(u16(24) | (u16(26) << 16));
    const size_t frames = (b.size() - 44) / (2 * size_t(out->channels));
    out->samples.resize(frames * size_t(out->channels));
    std::memcpy(out->samples.data(), b.data() + 44, out->samples.size() * 2);
    return true;
}

long FindFrames(const Pcm& whole, const Pcm& part, long partFrameOffset, long partFrames) {
    if (whole.channels != part.channels || part.channels == 0) return -1;
    const size_t c = size_t(part.channels);
    const size_t n = size_t(partFrames) * c;
    if (size_t(partFrameOffset) * c + n > part.samples.size() || n > whole.samples.size()) return -1;
    const int16_t* wanted = part.samples.data() + size_t(partFrameOffset) * c;
    for (size_t f = 0; (f * c) + n <= whole.samples.size(); ++f)
        if (std::memcmp(whole.samples.data() + f * c, wanted, n * 2) == 0) return long(f);
    return -1;
}

}  // namespace reference
