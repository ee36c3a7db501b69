#include "audio_decoders.h"

#include <mpg123.h>
#include <neaacdec.h>

#include <cstring>

namespace {

mpg123_handle* Mpg(void* handle) { return static_cast<mpg123_handle*>(handle); }
NeAACDecHandle Faad(void* handle) { return static_cast<NeAACDecHandle>(handle); }

// Appends interleaved 16-bit samples, taking the block's format from the
// decoder's report.
void AppendPcm(const int16_t* samples, size_t count, int rateHz, int channels, PcmBlock* out) {
    out->rateHz = rateHz;
    out->channels = channels;
    out->samples.insert(out->samples.end(), samples, samples + count);
}

}  // namespace

Mp2Decoder::Mp2Decoder() {
    // Needed once before the first handle by libmpg123 versions before 1.27;
    // a no-op after.
    static const int initialised = mpg123_init();
    if (initialised != MPG123_OK) return;
    mpg123_handle* h = mpg123_new(nullptr, nullptr);
    if (h == nullptr) return;
    // 16-bit output at whatever rate and channel count the stream has; no
    // messages on stderr, which may be carrying nothing but progress.
    mpg123_param(h, MPG123_ADD_FLAGS, MPG123_QUIET, 0.0);
    if (mpg123_format_none(h) != MPG123_OK ||
        mpg123_format2(h, 0, MPG123_MONO | MPG123_STEREO, MPG123_ENC_SIGNED_16) != MPG123_OK ||
        mpg123_open_feed(h) != MPG123_OK) {
        mpg123_delete(h);
        return;
    }
    handle_ = h;
}

Mp2Decoder::~Mp2Decoder() {
    if (handle_ != nullptr) mpg123_delete(Mpg(handle_));
}

int Mp2Decoder::Decode(const uint8_t* bytes, int length, PcmBlock* out) {
    if (handle_ == nullptr || bytes == nullptr || length <= 0) return 0;
    mpg123_handle* h = Mpg(handle_);
    if (mpg123_feed(h, bytes, size_t(length)) != MPG123_OK) return 0;
    int frames = 0;
    for (;;) {
        off_t number = 0;
        unsigned char* audio = nullptr;
        size_t audioBytes = 0;
        const int result = mpg123_decode_frame(h, &number, &audio, &audioBytes);
        if (result == MPG123_NEW_FORMAT) continue;
        if (result != MPG123_OK) break;  // needs more input, or a frame it gave up on
        long rate = 0;
        int channels = 0;
        int encoding = 0;
        mpg123_getformat(h, &rate, &channels, &encoding);
        if (audio != nullptr && audioBytes > 0)
            AppendPcm(reinterpret_cast<const int16_t*>(audio), audioBytes / sizeof(int16_t), int(rate), channels, out);
        ++frames;
    }
    return frames;
}

AacDecoder::~AacDecoder() {
    if (handle_ != nullptr) NeAACDecClose(Faad(handle_));
}

bool AacDecoder::SetUp(const dabplus::AudioParameters& audio) {
    if (setUp_ && audio == audio_) return true;
    if (handle_ != nullptr) NeAACDecClose(Faad(handle_));
    setUp_ = false;
    handle_ = NeAACDecOpen();
    if (handle_ == nullptr) return false;
    NeAACDecConfigurationPtr config = NeAACDecGetCurrentConfiguration(Faad(handle_));
    config->outputFormat = FAAD_FMT_16BIT;
    config->downMatrix = 0;
    config->dontUpSampleImplicitSBR = 0;
    NeAACDecSetConfiguration(Faad(handle_), config);
    std::vector<uint8_t> asc = dabplus::DecoderConfig(audio);
    unsigned long rate = 0;
    unsigned char channels = 0;
    if (NeAACDecInit2(Faad(handle_), asc.data(), asc.size(), &rate, &channels) < 0) return false;
    audio_ = audio;
    setUp_ = true;
    return true;
}

bool AacDecoder::Decode(const dabplus::AudioParameters& audio, const uint8_t* payload, int payloadBytes,
                        PcmBlock* out) {
    if (payload == nullptr || payloadBytes <= 0 || !SetUp(audio)) return false;
    NeAACDecFrameInfo info;
    std::memset(&info, 0, sizeof info);
    // libfaad2 takes a non-const buffer but only reads it.
    void* pcm = NeAACDecDecode(Faad(handle_), &info, const_cast<uint8_t*>(payload), (unsigned long)payloadBytes);
    if (info.error != 0 || pcm == nullptr) return false;
    AppendPcm(static_cast<const int16_t*>(pcm), info.samples, int(info.samplerate), info.channels, out);
    return true;
}
