// DAB+ payloads: superframes from finished files, from access unit files and
// from synthetic access units.
#include "generator/payload_dabplus.h"

#include <algorithm>
#include <cstring>

#include "generator/pad_encoder.h"
#include "generator/payload_coding.h"
#include "generator/payload_file.h"
#include "generator/payload_rng.h"

namespace gen {

DabPlusLayout DabPlusLayoutFor(const DabPlusAudio& audio) {
    // AAC core rate: 48 or 32 kHz, halved with SBR; an AU is 960 core samples,
    // and a superframe lasts 120 ms.
    const int numAus = audio.dac48k ? (audio.sbr ? 3 : 6) : (audio.sbr ? 2 : 4);
    // Two bytes of firecode, one of flags, 12 bits per AU start after the
    // first, padded to a whole byte.
    const int startBits = 12 * (numAus - 1);
    return {numAus, 3 + (startBits + 7) / 8};
}

void AddSuperframeParity(uint8_t* superframe, int s) {
    static const RsEncoder rs(10);
    for (int column = 0; column < s; ++column)
        rs.Encode(superframe + column, 110, static_cast<size_t>(s), superframe + 110 * s + column, static_cast<size_t>(s));
}

bool BuildDabPlusSuperframe(const DabPlusAudio& audio, int s, const std::vector<std::vector<uint8_t>>& payloads,
                            uint8_t* out) {
    const DabPlusLayout layout = DabPlusLayoutFor(audio);
    if (s < 1 || s > 37 || static_cast<int>(payloads.size()) != layout.numAus) return false;
    const int audioBytes = 110 * s;
    std::vector<int> start(layout.numAus + 1);
    start[0] = layout.firstAuStart;
    for (int k = 0; k < layout.numAus; ++k) start[k + 1] = start[k] + static_cast<int>(payloads[k].size()) + 2;
    if (start[layout.numAus] > audioBytes) return false;
    start[layout.numAus] = audioBytes;  // the last AU fills the rest

    std::vector<uint8_t> sf(static_cast<size_t>(120 * s), 0);
    sf[2] = static_cast<uint8_t>((audio.dac48k ? 0x40 : 0) | (audio.sbr ? 0x20 : 0) | (audio.stereo ? 0x10 : 0) |
                                 (audio.ps ? 0x08 : 0) | (audio.mpegSurround & 7));
    // AU start addresses 1..numAus-1, 12 bits each, from the top of byte 3.
    int bit = 24;
    for (int k = 1; k < layout.numAus; ++k) {
        for (int b = 11; b >= 0; --b, ++bit)
            if ((start[k] >> b) & 1) sf[bit / 8] |= static_cast<uint8_t>(0x80 >> (bit % 8));
    }
    for (int k = 0; k < layout.numAus; ++k) {
        uint8_t* au = sf.data() + start[k];
        std::copy(payloads[k].begin(), payloads[k].end(), au);
        const int payloadBytes = start[k + 1] - start[k] - 2;  // with the last AU's zero padding
        const uint16_t crc = CrcCcitt16(au, static_cast<size_t>(payloadBytes));
        au[payloadBytes] = static_cast<uint8_t>(crc >> 8);
        au[payloadBytes + 1] = static_cast<uint8_t>(crc);
    }
    const uint16_t fire = SuperframeFirecode(sf.data() + 2);
    sf[0] = static_cast<uint8_t>(fire >> 8);
    sf[1] = static_cast<uint8_t>(fire);
    AddSuperframeParity(sf.data(), s);
    std::memcpy(out, sf.data(), sf.size());
    return true;
}

namespace {

bool CheckBitrate(int bitrateKbps, std::string* error) {
    if (bitrateKbps < 8 || bitrateKbps % 8 != 0 || bitrateKbps / 8 > 37) {
        if (error) *error = "DAB+ needs a bit rate that is a multiple of 8 kbit/s up to 296, not " + std::to_string(bitrateKbps);
        return false;
    }
    return true;
}

std::string AudioText(const DabPlusAudio& a) {
    std::string t = a.dac48k ? "48 kHz" : "32 kHz";
    if (a.sbr) t += " SBR";
    if (a.ps) t += " PS";
    t += a.stereo ? " stereo" : " mono";
    return t;
}

// The data stream element that opens an AU carrying PAD: element id 4 and
// instance tag 0, not byte-aligned (the element starts on a byte anyway),
// its count (with the escape byte from 255 on), then the PAD field: X-PAD
// reversed and the F-PAD. At most `room` bytes in all (X-PAD up to 56);
// nothing if the room is too small to carry any X-PAD.
void AppendPadElement(PadEncoder& encoder, int room, std::vector<uint8_t>* out) {
    const int maxXpad = std::min(56, room - 4 - 2);
    if (maxXpad < 6) return;
    const PadField field = encoder.Next(maxXpad);
    const int count = PadEncoder::PadBytes(field, 0);
    out->push_back(0x80);
    out->push_back(static_cast<uint8_t>(std::min(count, 255)));
    if (count >= 255) out->push_back(static_cast<uint8_t>(count - 255));
    out->resize(out->size() + static_cast<size_t>(count));
    PadEncoder::Write(field, 0, out->data() + out->size());
}

// Serves superframes of 120 * s bytes as five logical frames each; the
// derived class makes superframe number k on request.
class SuperframeSource : public PayloadSource {
public:
    explicit SuperframeSource(int s) : s_(s), superframe_(static_cast<size_t>(120 * s)) {}
    void NextLogicalFrame(uint8_t* out, size_t length) override {
        const size_t frameBytes = static_cast<size_t>(24 * s_);
        if (part_ == 0) MakeSuperframe(count_++, superframe_.data());
        if (length == frameBytes)
            std::memcpy(out, superframe_.data() + part_ * frameBytes, frameBytes);
        else
            std::memset(out, 0, length);
        part_ = (part_ + 1) % 5;
    }

protected:
    virtual void MakeSuperframe(uint64_t index, uint8_t* out) = 0;
    int s_;

private:
    std::vector<uint8_t> superframe_;
    uint64_t count_ = 0;
    size_t part_ = 0;
};

class SuperframeFileSource final : public SuperframeSource {
public:
    SuperframeFileSource(int s, std::string path, std::vector<uint8_t> bytes)
        : SuperframeSource(s), path_(std::move(path)), bytes_(std::move(bytes)) {}
    std::string Describe() const override {
        return "DAB+ file " + path_ + " (" + std::to_string(bytes_.size() / (120 * s_)) + " superframes, looping)";
    }

protected:
    void MakeSuperframe(uint64_t index, uint8_t* out) override {
        const size_t size = static_cast<size_t>(120 * s_);
        const size_t count = bytes_.size() / size;
        std::memcpy(out, bytes_.data() + (index % count) * size, size);
    }

private:
    std::string path_;
    std::vector<uint8_t> bytes_;
};

class AuListSource final : public SuperframeSource {
public:
    AuListSource(int s, const DabPlusAudio& audio, std::vector<std::vector<uint8_t>> aus, std::string what)
        : SuperframeSource(s), audio_(audio), aus_(std::move(aus)), what_(std::move(what)) {}
    std::string Describe() const override { return (pad_ ? "PAD in " : "") + what_; }
    bool AttachPad(std::shared_ptr<PadEncoder> pad) override { return pad_ = std::move(pad), true; }

protected:
    void MakeSuperframe(uint64_t index, uint8_t* out) override {
        const size_t n = static_cast<size_t>(DabPlusLayoutFor(audio_).numAus);
        const size_t groups = aus_.size() / n;
        const size_t first = (index % groups) * n;
        std::vector<std::vector<uint8_t>> group(aus_.begin() + first, aus_.begin() + first + n);
        if (pad_) {
            // The room the AUs leave, shared out: each AU grows by its PAD.
            int free = 110 * s_ - DabPlusLayoutFor(audio_).firstAuStart;
            for (const auto& au : group) free -= static_cast<int>(au.size()) + 2;
            const int share = free / static_cast<int>(n) - 3;
            for (auto& au : group) {
                std::vector<uint8_t> pad;
                AppendPadElement(*pad_, share, &pad);
                au.insert(au.begin(), pad.begin(), pad.end());
            }
        }
        BuildDabPlusSuperframe(audio_, s_, group, out);  // checked at construction, PAD within the room
    }

private:
    std::shared_ptr<PadEncoder> pad_;
    DabPlusAudio audio_;
    std::vector<std::vector<uint8_t>> aus_;
    std::string what_;
};

class SyntheticAuSource final : public SuperframeSource {
public:
    SyntheticAuSource(int s, const DabPlusAudio& audio, uint32_t seed)
        : SuperframeSource(s), audio_(audio), seed_(seed), rng_(0xDAB0'0000'0000'0000ull ^ seed) {}
    bool AttachPad(std::shared_ptr<PadEncoder> pad) override { return pad_ = std::move(pad), true; }
    std::string Describe() const override {
        return std::string(pad_ ? "PAD in " : "") + "DAB+ synthetic AUs, " + AudioText(audio_) + ", seed " + std::to_string(seed_);
    }

protected:
    // AU sizes vary by +-30 % around an even share of the superframe, as an
    // encoder's bit reservoir makes them; the last AU takes what is left.
    void MakeSuperframe(uint64_t, uint8_t* out) override {
        const DabPlusLayout layout = DabPlusLayoutFor(audio_);
        const int room = 110 * s_ - layout.firstAuStart - 2 * layout.numAus;
        std::vector<double> weight(layout.numAus);
        double total = 0;
        for (double& w : weight) total += (w = 0.7 + 0.6 * rng_.Uniform());
        std::vector<std::vector<uint8_t>> aus(layout.numAus);
        int used = 0;
        for (int k = 0; k < layout.numAus; ++k) {
            const int size = k + 1 < layout.numAus ? static_cast<int>(weight[k] / total * room) : room - used;
            used += size;
            aus[k].resize(static_cast<size_t>(size));
            for (uint8_t& b : aus[k]) b = rng_.Byte();
            if (pad_) {
                // The PAD element takes the place of the first bytes.
                std::vector<uint8_t> pad;
                AppendPadElement(*pad_, size / 3, &pad);
                std::copy(pad.begin(), pad.end(), aus[k].begin());
            }
        }
        BuildDabPlusSuperframe(audio_, s_, aus, out);
    }

private:
    std::shared_ptr<PadEncoder> pad_;
    DabPlusAudio audio_;
    uint32_t seed_;
    Rng rng_;
};

}  // namespace

PayloadPtr MakeDabPlusSuperframeFilePayload(const std::string& path, int bitrateKbps, std::string* error) {
    if (!CheckBitrate(bitrateKbps, error)) return nullptr;
    const int s = bitrateKbps / 8;
    std::vector<uint8_t> bytes;
    if (!ReadWholeFile(path, &bytes, error)) return nullptr;
    if (bytes.empty() || bytes.size() % static_cast<size_t>(120 * s) != 0) {
        if (error)
            *error = path + ": " + std::to_string(bytes.size()) + " bytes is not a whole number of " +
                     std::to_string(120 * s) + "-byte superframes (" + std::to_string(bitrateKbps) + " kbit/s)";
        return nullptr;
    }
    return std::make_unique<SuperframeFileSource>(s, path, std::move(bytes));
}

PayloadPtr MakeDabPlusAuFilePayload(const std::string& path, int bitrateKbps, const DabPlusAudio& audio,
                                    std::string* error) {
    if (!CheckBitrate(bitrateKbps, error)) return nullptr;
    const int s = bitrateKbps / 8;
    std::vector<uint8_t> bytes;
    if (!ReadWholeFile(path, &bytes, error)) return nullptr;
    std::vector<std::vector<uint8_t>> aus;
    for (size_t pos = 0; pos < bytes.size();) {
        if (pos + 2 > bytes.size()) break;
        const size_t len = (static_cast<size_t>(bytes[pos]) << 8) | bytes[pos + 1];
        if (pos + 2 + len > bytes.size()) {
            if (error) *error = path + ": access unit at byte " + std::to_string(pos) + " runs past the end";
            return nullptr;
        }
        aus.emplace_back(bytes.begin() + static_cast<long>(pos + 2), bytes.begin() + static_cast<long>(pos + 2 + len));
        pos += 2 + len;
    }
    const size_t n = static_cast<size_t>(DabPlusLayoutFor(audio).numAus);
    aus.resize(aus.size() / n * n);
    if (aus.empty()) {
        if (error) *error = path + ": fewer than " + std::to_string(n) + " access units";
        return nullptr;
    }
    std::vector<uint8_t> scratch(static_cast<size_t>(120 * s));
    for (size_t g = 0; g < aus.size(); g += n) {
        std::vector<std::vector<uint8_t>> group(aus.begin() + static_cast<long>(g), aus.begin() + static_cast<long>(g + n));
        if (!BuildDabPlusSuperframe(audio, s, group, scratch.data())) {
            if (error)
                *error = path + ": access units " + std::to_string(g) + ".." + std::to_string(g + n - 1) +
                         " do not fit a superframe of " + std::to_string(bitrateKbps) + " kbit/s";
            return nullptr;
        }
    }
    const std::string what = "DAB+ AU file " + path + ", " + AudioText(audio) + " (" + std::to_string(aus.size()) +
                             " AUs, looping)";
    return std::make_unique<AuListSource>(s, audio, std::move(aus), what);
}

PayloadPtr MakeDabPlusSyntheticPayload(int bitrateKbps, const DabPlusAudio& audio, uint32_t seed, std::string* error) {
    if (!CheckBitrate(bitrateKbps, error)) return nullptr;
    return std::make_unique<SyntheticAuSource>(bitrateKbps / 8, audio, seed);
}

}  // namespace gen
