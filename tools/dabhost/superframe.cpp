#include "superframe.h"

#include "tools/ficparse/fic_parser.h"

namespace dabplus {

namespace {

constexpr uint32_t kMaxFrameLength = 0x1FFF;  // LOAS and ADTS carry 13-bit lengths

// Writes bits most significant first; the last byte is padded with zeros.
class BitWriter {
public:
    explicit BitWriter(std::vector<uint8_t>* out) : out_(out) {}
    void Put(uint32_t value, int bits) {
        for (int i = bits - 1; i >= 0; --i) {
            if (used_ == 0) out_->push_back(0);
            if ((value >> i) & 1) out_->back() |= uint8_t(0x80 >> used_);
            used_ = (used_ + 1) & 7;
        }
    }
    void PutBytes(const uint8_t* bytes, int count) {
        for (int i = 0; i < count; ++i) Put(bytes[i], 8);
    }

private:
    std::vector<uint8_t>* out_;
    int used_ = 0;  // bits used of the last byte, 0 when it is full
};

// Sampling frequency index of MPEG-4 audio.
int FrequencyIndex(int rateHz) {
    switch (rateHz) {
    case 48000: return 3;
    case 32000: return 5;
    case 24000: return 6;
    default: return 8;  // 16000
    }
}

// The channel configuration of the AAC core: parametric stereo runs on a
// mono core.
int CoreChannels(const AudioParameters& a) { return a.stereo ? 2 : 1; }

// The AudioSpecificConfig fields, without padding, into `w`.
void PutAudioSpecificConfig(const AudioParameters& a, BitWriter& w) {
    w.Put(2, 5);                             // audioObjectType: AAC LC
    w.Put(uint32_t(FrequencyIndex(a.CoreRateHz())), 4);
    w.Put(uint32_t(CoreChannels(a)), 4);
    w.Put(0b100, 3);                         // 960-sample frames, no core coder, no extension
    if (!a.sbr) return;
    w.Put(0x2B7, 11);                        // sync extension: SBR
    w.Put(5, 5);
    w.Put(1, 1);
    w.Put(uint32_t(FrequencyIndex(a.OutputRateHz())), 4);
    if (!a.ps) return;
    w.Put(0x548, 11);                        // sync extension: PS
    w.Put(1, 1);
}

// The same configuration in the hierarchical form that LATM readers parse
// without looking for sync extensions: the SBR (or PS) object type first
// with the core rate and the output rate, then AAC LC with its
// GASpecificConfig.
void PutLatmAudioSpecificConfig(const AudioParameters& a, BitWriter& w) {
    if (!a.sbr) {
        PutAudioSpecificConfig(a, w);
        return;
    }
    w.Put(a.ps ? 29 : 5, 5);                 // audioObjectType: PS or SBR
    w.Put(uint32_t(FrequencyIndex(a.CoreRateHz())), 4);
    w.Put(uint32_t(CoreChannels(a)), 4);
    w.Put(uint32_t(FrequencyIndex(a.OutputRateHz())), 4);
    w.Put(2, 5);                             // the core: AAC LC
    w.Put(0b100, 3);                         // 960-sample frames
}

}  // namespace

int AudioParameters::AuCount() const {
    if (dac48k) return sbr ? 3 : 6;
    return sbr ? 2 : 4;
}

int AudioParameters::HeaderBytes() const {
    // Firecode and byte 2, then 12 bits per start address after the first,
    // rounded up to whole bytes.
    return 3 + (12 * (AuCount() - 1) + 7) / 8;
}

int AudioParameters::CoreRateHz() const { return OutputRateHz() / (sbr ? 2 : 1); }

uint16_t AuCrc(const uint8_t* bytes, int length) { return ficparse::FibCrc(bytes, length); }

bool ParseSuperframe(const uint8_t* bytes, int length, Superframe* out) {
    *out = Superframe{};
    if (bytes == nullptr || length < 3) return false;
    AudioParameters& a = out->audio;
    a.dac48k = (bytes[2] & 0x40) != 0;
    a.sbr = (bytes[2] & 0x20) != 0;
    a.stereo = (bytes[2] & 0x10) != 0;
    a.ps = (bytes[2] & 0x08) != 0;
    a.mpegSurround = bytes[2] & 0x07;
    const int count = a.AuCount();
    if (length < a.HeaderBytes()) return false;

    int starts[kMaxAus + 1];
    starts[0] = a.HeaderBytes();
    for (int k = 1; k < count; ++k) {
        // Field k - 1 begins at bit 24 + 12 (k - 1): on a byte boundary for
        // odd k, half way through a byte for even k.
        const int bit = 24 + 12 * (k - 1);
        const uint8_t* p = bytes + bit / 8;
        starts[k] = (bit % 8 == 0) ? (p[0] << 4) | (p[1] >> 4) : ((p[0] & 0x0F) << 8) | p[1];
    }
    starts[count] = length;
    for (int k = 0; k < count; ++k)
        if (starts[k + 1] - starts[k] < kAuCrcBytes) return false;

    for (int k = 0; k < count; ++k) {
        AccessUnit& au = out->aus[k];
        au.offset = starts[k];
        au.payloadBytes = starts[k + 1] - starts[k] - kAuCrcBytes;
        const uint8_t* crc = bytes + au.offset + au.payloadBytes;
        au.crcGood = AuCrc(bytes + au.offset, au.payloadBytes) == uint16_t((crc[0] << 8) | crc[1]);
    }
    out->auCount = count;
    return true;
}

std::vector<uint8_t> DecoderConfig(const AudioParameters& audio) {
    std::vector<uint8_t> out;
    BitWriter w(&out);
    PutAudioSpecificConfig(audio, w);
    return out;
}

bool AppendLoasFrame(const AudioParameters& audio, const uint8_t* payload, int payloadBytes,
                     std::vector<uint8_t>* out) {
    // AudioMuxElement with its StreamMuxConfig, then the payload length as a
    // run of 255s and a remainder, then the payload.
    if (payloadBytes < 0 || payloadBytes > int(kMaxFrameLength)) return false;
    std::vector<uint8_t> element;
    BitWriter w(&element);
    w.Put(0, 1);        // useSameStreamMux: the configuration follows
    w.Put(0, 1);        // audioMuxVersion 0
    w.Put(1, 1);        // allStreamsSameTimeFraming
    w.Put(0, 6);        // numSubFrames - 1
    w.Put(0, 4);        // numProgram - 1
    w.Put(0, 3);        // numLayer - 1
    PutLatmAudioSpecificConfig(audio, w);
    w.Put(0, 3);        // frameLengthType 0: payload lengths given per frame
    w.Put(0xFF, 8);     // latmBufferFullness: not given
    w.Put(0, 1);        // otherDataPresent
    w.Put(0, 1);        // crcCheckPresent
    int rest = payloadBytes;
    for (; rest >= 255; rest -= 255) w.Put(255, 8);
    w.Put(uint32_t(rest), 8);
    w.PutBytes(payload, payloadBytes);

    // AudioSyncStream: 11-bit sync word and the 13-bit length of the element.
    const uint32_t size = uint32_t(element.size());
    if (size > kMaxFrameLength) return false;
    out->push_back(0x56);
    out->push_back(uint8_t(0xE0 | ((size >> 8) & 0x1F)));
    out->push_back(uint8_t(size));
    out->insert(out->end(), element.begin(), element.end());
    return true;
}

bool AppendAdtsFrame(const AudioParameters& audio, const uint8_t* payload, int payloadBytes,
                     std::vector<uint8_t>* out) {
    const uint32_t frameBytes = uint32_t(7 + payloadBytes);
    if (payloadBytes < 0 || frameBytes > kMaxFrameLength) return false;
    const uint32_t index = uint32_t(FrequencyIndex(audio.CoreRateHz()));
    const uint32_t channels = uint32_t(CoreChannels(audio));
    const uint8_t header[7] = {
        0xFF,
        0xF1,  // MPEG-4, layer 0, no CRC
        uint8_t((1 << 6) | (index << 2) | (channels >> 2)),  // profile LC
        uint8_t(((channels & 3) << 6) | ((frameBytes >> 11) & 3)),
        uint8_t(frameBytes >> 3),
        uint8_t(((frameBytes & 7) << 5) | 0x1F),  // buffer fullness 0x7FF: not given
        0xFC,                                      // one raw data block
    };
    out->insert(out->end(), header, header + 7);
    out->insert(out->end(), payload, payload + payloadBytes);
    return true;
}

}  // namespace dabplus
