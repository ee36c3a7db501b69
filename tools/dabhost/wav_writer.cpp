#include "wav_writer.h"

#include <cmath>
#include <cstdlib>
#include <vector>

#include "tools/ficparse/ensemble_print.h"

namespace {

constexpr int kHeaderBytes = 44;
constexpr uint32_t kStreamingDataBytes = 0xFFFFFFFFu - 36;  // the most a RIFF size field holds

void Put16(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
}
void Put32(uint8_t* p, uint32_t v) {
    Put16(p, v & 0xFFFF);
    Put16(p + 2, v >> 16);
}

double Dbfs(double ratio) { return ratio > 0.0 ? 20.0 * std::log10(ratio) : -999.0; }

}  // namespace

double WavFigures::RmsDbfs() const {
    const uint64_t samples = frames * uint64_t(channels);
    return samples == 0 ? -999.0 : Dbfs(std::sqrt(sumSquares / double(samples)));
}

double WavFigures::PeakDbfs() const { return Dbfs(peak / 32768.0); }

std::string WavFigures::Text() const {
    return ficparse::Format("%.2f s, %d Hz, %d channel%s, RMS %.1f dBFS, peak %.1f dBFS", Seconds(), rateHz, channels,
                            channels == 1 ? "" : "s", RmsDbfs(), PeakDbfs());
}

bool WavWriter::WriteHeader(uint32_t dataBytes) {
    uint8_t h[kHeaderBytes] = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' '};
    const uint32_t blockAlign = uint32_t(figures_.channels) * 2;
    Put32(h + 4, 36 + dataBytes);
    Put32(h + 16, 16);                      // fmt chunk size
    Put16(h + 20, 1);                       // PCM
    Put16(h + 22, uint32_t(figures_.channels));
    Put32(h + 24, uint32_t(figures_.rateHz));
    Put32(h + 28, uint32_t(figures_.rateHz) * blockAlign);
    Put16(h + 32, blockAlign);
    Put16(h + 34, 16);                      // bits per sample
    h[36] = 'd', h[37] = 'a', h[38] = 't', h[39] = 'a';
    Put32(h + 40, dataBytes);
    return std::fwrite(h, 1, kHeaderBytes, file_) == size_t(kHeaderBytes);
}

bool WavWriter::Write(const PcmBlock& block) {
    if (file_ == nullptr || block.samples.empty() || block.rateHz <= 0 || block.channels < 1 || block.channels > 2)
        return true;
    if (!headerWritten_) {
        figures_.rateHz = block.rateHz;
        figures_.channels = block.channels;
        if (!WriteHeader(kStreamingDataBytes)) return false;
        headerWritten_ = true;
    }
    if (block.rateHz != figures_.rateHz) {
        ++figures_.blocksDropped;
        return true;
    }
    const size_t frames = block.samples.size() / size_t(block.channels);
    std::vector<int16_t> out;
    const std::vector<int16_t>* samples = &block.samples;
    if (block.channels != figures_.channels) {
        out.resize(frames * size_t(figures_.channels));
        for (size_t i = 0; i < frames; ++i) {
            if (figures_.channels == 2) {
                out[2 * i] = out[2 * i + 1] = block.samples[i];
            } else {
                out[i] = int16_t((block.samples[2 * i] + block.samples[2 * i + 1]) / 2);
            }
        }
        samples = &out;
    }
    for (int16_t s : *samples) {
        figures_.sumSquares += (s / 32768.0) * (s / 32768.0);
        if (std::abs(int(s)) > figures_.peak) figures_.peak = std::abs(int(s));
    }
    // Little-endian samples, as the machine holds them on every target of
    // this program.
    if (std::fwrite(samples->data(), sizeof(int16_t), samples->size(), file_) != samples->size()) return false;
    figures_.frames += frames;
    return true;
}

void WavWriter::Close() {
    if (file_ == nullptr || !headerWritten_) return;
    const uint64_t dataBytes = figures_.frames * uint64_t(figures_.channels) * 2;
    if (dataBytes <= kStreamingDataBytes && std::fseek(file_, 0, SEEK_SET) == 0) {
        WriteHeader(uint32_t(dataBytes));
        std::fseek(file_, 0, SEEK_END);
    }
    std::fflush(file_);
}
