// Checks what dabhost wrote against what the transmitter sent, for the
// end-to-end tests on the emulated device:
//
//   reception_match mp2 RECEIVED.wav SENT.mp2
//       the WAV equals libmpg123's PCM of the looping MP2 file over the
//       stretch received (from the WAV's second frame: the first one of a
//       decoder started mid-stream differs while its synthesis filter fills)
//   reception_match dabp RECEIVED.wav SENT.dabp S
//       the WAV equals libfaad2's PCM of the sent superframes, decoded from
//       the superframe where reception began, sample for sample
//   reception_match bytes RECEIVED SENT
//       the received bytes are one unbroken run of the looping SENT file
//   reception_match random RECEIVED SEED KBPS [THROUGH]
//       every logical frame received is one of the transmitter's random
//       payload of that seed and bit rate, in rising order, none doubled,
//       with at most one gap (a reconfiguration's), reaching at least to
//       logical frame THROUGH
//
// Prints what it compared; exit status 0 on a match, 1 otherwise.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "generator/payload_sources.h"
#include "reference_audio.h"

namespace {

using reference::Pcm;

constexpr int kMp2FrameSamples = 1152;
constexpr int kLoops = 4;  // the transmitter loops its file; the reference does the same

std::vector<uint8_t> Looped(const std::vector<uint8_t>& file) {
    std::vector<uint8_t> out;
    for (int i = 0; i < kLoops; ++i) out.insert(out.end(), file.begin(), file.end());
    return out;
}

int Report(bool ok, const std::string& text) {
    std::printf("%s: %s\n", ok ? "MATCH" : "MISMATCH", text.c_str());
    return ok ? 0 : 1;
}

long Frames(const Pcm& p) { return p.channels > 0 ? long(p.samples.size()) / p.channels : 0; }

int MatchMp2(const char* wavPath, const char* sentPath) {
    Pcm received;
    if (!reference::ReadWav(wavPath, &received)) return Report(false, std::string(wavPath) + " is no WAV file");
    const Pcm sent = reference::DecodeMp2(Looped(reference::ReadFile(sentPath)));
    const long frames = Frames(received) - kMp2FrameSamples;
    if (frames <= 0) return Report(false, "the WAV holds less than two MP2 frames");
    const long at = reference::FindFrames(sent, received, kMp2FrameSamples, frames);
    return Report(at >= 0, std::to_string(frames) + " sample frames (" + std::to_string(double(frames) / 48000.0) +
                               " s at 48 kHz) after the first MP2 frame" +
                               (at >= 0 ? ", from sample frame " + std::to_string(at) + " of the sent stream" : ""));
}

int MatchDabPlus(const char* wavPath, const char* sentPath, int s) {
    Pcm received;
    if (!reference::ReadWav(wavPath, &received)) return Report(false, std::string(wavPath) + " is no WAV file");
    const std::vector<uint8_t> file = reference::ReadFile(sentPath);
    const int bytes = 120 * s;
    if (s < 1 || file.empty() || file.size() % size_t(bytes) != 0) return Report(false, "not a file of superframes");
    const std::vector<uint8_t> sent = Looped(file);
    const int perLoop = int(file.size()) / bytes;
    // The superframe where reception began: the one whose decoding, started
    // afresh, gives the WAV's first two superframes.
    for (int k = 0; k < perLoop; ++k) {
        const Pcm start = reference::DecodeSuperframes(sent.data() + size_t(k) * bytes, 2, s);
        if (start.channels != received.channels || start.samples.size() > received.samples.size() ||
            std::memcmp(start.samples.data(), received.samples.data(), start.samples.size() * 2) != 0)
            continue;
        const long perSuperframe = long(received.rateHz) * 120 / 1000;  // 120 ms
        const int count = std::min(kLoops * perLoop - k, int(Frames(received) / perSuperframe) + 2);
        Pcm all = reference::DecodeSuperframes(sent.data() + size_t(k) * bytes, count, s);
        all.samples.resize(std::min(all.samples.size(), received.samples.size()));
        const bool same = all.samples == received.samples;
        return Report(same, std::to_string(Frames(received)) + " sample frames (" +
                                std::to_string(double(Frames(received)) / received.rateHz) +
                                " s) from superframe " + std::to_string(k) + " of the file");
    }
    return Report(false, "no superframe of the file starts the received audio");
}

int MatchBytes(const std::vector<uint8_t>& received, const std::vector<uint8_t>& sent, const std::string& what) {
    if (received.empty()) return Report(false, "nothing received");
    for (size_t at = 0; at + received.size() <= sent.size(); ++at)
        if (std::memcmp(sent.data() + at, received.data(), received.size()) == 0)
            return Report(true, std::to_string(received.size()) + " bytes, from byte " + std::to_string(at) + " of " +
                                    what);
    return Report(false, std::to_string(received.size()) + " bytes are no unbroken run of " + what);
}

int MatchRandom(const char* receivedPath, uint32_t seed, int kbps, long through) {
    const std::vector<uint8_t> received = reference::ReadFile(receivedPath);
    const size_t frame = size_t(3 * kbps);
    if (received.empty() || received.size() % frame != 0)
        return Report(false, "not a whole number of logical frames");
    // Enough of the payload for the receiver's whole run: 30 000 logical
    // frames are 12 minutes.
    std::map<std::string, long> sent;
    gen::PayloadPtr payload = gen::MakeRandomPayload(seed);
    std::string bytes(frame, '\0');
    for (long f = 0; f < 30000; ++f) {
        payload->NextLogicalFrame(reinterpret_cast<uint8_t*>(bytes.data()), frame);
        sent.emplace(bytes, f);
    }
    // Every logical frame received was sent, in rising order, none twice.
    // A reconfiguration may leave one gap: the frames the transmitter's
    // interleaver, restarted for the new organisation, never completes.
    long previous = -1, gaps = 0;
    for (size_t at = 0; at < received.size(); at += frame) {
        const auto it = sent.find(std::string(reinterpret_cast<const char*>(received.data() + at), frame));
        if (it == sent.end() || it->second <= previous)
            return Report(false, "received logical frame " + std::to_string(at / frame) + " was never sent, or out of order");
        gaps += previous >= 0 && it->second != previous + 1;
        previous = it->second;
    }
    return Report(gaps <= 1 && previous >= through, std::to_string(received.size() / frame) + " logical frames, " +
                                                        std::to_string(gaps) + " gaps, up to " + std::to_string(previous));
}

}  // namespace

int main(int argc, char** argv) {
    const std::string how = argc > 1 ? argv[1] : "";
    if (how == "mp2" && argc == 4) return MatchMp2(argv[2], argv[3]);
    if (how == "dabp" && argc == 5) return MatchDabPlus(argv[2], argv[3], std::atoi(argv[4]));
    if (how == "bytes" && argc == 4)
        return MatchBytes(reference::ReadFile(argv[2]), Looped(reference::ReadFile(argv[3])), argv[3]);
    if (how == "random" && (argc == 5 || argc == 6))
        return MatchRandom(argv[2], uint32_t(std::strtoul(argv[3], nullptr, 0)), std::atoi(argv[4]),
                           argc == 6 ? std::atol(argv[5]) : 0);
    std::fprintf(stderr,
                 "usage: reception_match mp2 RECEIVED.wav SENT.mp2 | dabp RECEIVED.wav SENT.dabp S |\n"
                 "       bytes RECEIVED SENT | random RECEIVED SEED KBPS [THROUGH]\n");
    return 2;
}
