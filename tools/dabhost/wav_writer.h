// 16-bit PCM WAV output to a file or a pipe.
//
// The format (rate, channels) is that of the first block written. Later
// blocks with another channel count are converted (mono doubled, stereo
// averaged); blocks at another rate cannot be joined and are dropped and
// counted. On a pipe the header carries the largest sizes, since they cannot
// be patched; on a file Close writes the real ones.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "audio_decoders.h"

// Loudness of what was written.
struct WavFigures {
    int rateHz = 0;                 // Hz; 0 nothing written yet
    int channels = 0;
    uint64_t frames = 0;            // sample frames written
    uint64_t blocksDropped = 0;     // blocks at a rate other than the file's
    double sumSquares = 0.0;        // of all samples, full scale = 1
    int peak = 0;                   // largest magnitude, 0..32768

    double Seconds() const { return rateHz > 0 ? double(frames) / rateHz : 0.0; }
    double RmsDbfs() const;         // -inf (printed as -999) for silence
    double PeakDbfs() const;
    std::string Text() const;       // "5.04 s, 48000 Hz, 2 channels, RMS -18.2 dBFS, peak -2.1 dBFS"
};

class WavWriter {
public:
    // `file` stays owned by the caller; Close flushes but does not close it.
    explicit WavWriter(std::FILE* file) : file_(file) {}
    // False when the file refused the write (e.g. the pipe's reader is gone).
    bool Write(const PcmBlock& block);
    // Patches the header's sizes where the file can seek.
    void Close();
    const WavFigures& figures() const { return figures_; }

private:
    bool WriteHeader(uint32_t dataBytes);
    std::FILE* file_;
    WavFigures figures_;
    bool headerWritten_ = false;
};
