// Sensitivity of the sub-channel chain on generated signals, as tables:
//  - by default, per mode, channel (AWGN, urban multipath) and sub-channel of
//    the "default" ensemble (UEP 3 at 128 kbit/s, EEP 3-A at 48 kbit/s), the
//    share of logical frames delivered bit-exactly against SNR;
//  - with --referee, the same share side by side with welle-cli on the very
//    same signals (mode I, UEP 3 at 128 kbit/s with the MP2 sample, AWGN),
//    each written to a file that scripts/referee_welle.sh plays to it, about
//    30 s per SNR. MVDAB_SAMPLES_DIR names the folder of the audio samples.
//
//   bench_subchannel_sensitivity [--referee] [seconds]
#include <algorithm>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <unistd.h>

#include "generator/channel_model.h"
#include "generator/ensemble_description.h"
#include "generator/frame_transmitter.h"
#include "generator/multiplex.h"
#include "mvxdab.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
// The benchmarks link the receiver core and the generator only; the
// thread-less harness is compiled into this one directly.
#include "tests/support/frame_harness.cpp"
#include "tests/support/generated_subchannels.cpp"

namespace {

using namespace mvdab;
namespace fs = std::filesystem;

// How many logical frames of `frameBytes` in `got` equal one that was sent.
// `got` is cut into frames from the first offset, within its first frame, at
// which a sent frame starts (a receiver's dump may begin mid-frame).
size_t ExactLogicalFrames(const std::vector<uint8_t>& sent, const std::vector<uint8_t>& got, size_t frameBytes) {
    if (frameBytes < sizeof(uint64_t)) return 0;
    // Sent frames by their first eight bytes; the payloads never repeat.
    std::unordered_map<uint64_t, size_t> index;
    for (size_t k = 0; (k + 1) * frameBytes <= sent.size(); ++k) {
        uint64_t key;
        std::memcpy(&key, sent.data() + k * frameBytes, sizeof key);
        index.emplace(key, k);
    }
    auto find = [&](size_t at) -> const uint8_t* {
        uint64_t key;
        std::memcpy(&key, got.data() + at, sizeof key);
        auto it = index.find(key);
        return it == index.end() ? nullptr : sent.data() + it->second * frameBytes;
    };
    size_t start = 0;
    while (start < frameBytes && start + frameBytes <= got.size() && find(start) == nullptr) ++start;
    size_t good = 0;
    for (size_t at = start; at + frameBytes <= got.size(); at += frameBytes) {
        const uint8_t* match = find(at);
        if (match != nullptr && std::memcmp(got.data() + at, match, frameBytes) == 0) ++good;
    }
    return good;
}

gen::EnsembleDescription Preset(int32_t mode, const std::string& mp2File = "") {
    gen::PresetOptions options;
    options.mode = mode;
    options.seed = 1;
    options.mp2File = mp2File;
    gen::EnsembleDescription d;
    std::string error;
    if (!gen::MakePresetDescription("default", options, &d, &error)) std::fprintf(stderr, "%s\n", error.c_str());
    return d;
}

std::vector<uint8_t> mscBytes;
void RecordMsc(uint8_t* bytes, int32_t length, int32_t) { mscBytes.insert(mscBytes.end(), bytes, bytes + length); }

// Plays `signal` (unsigned 8-bit I/Q) into the frame harness, adds
// sub-channel `id` of `d` once the FIC is locked, and returns the bytes
// delivered, or with `lockedAt` the second at which the service was added.
std::vector<uint8_t> Receive(const gen::EnsembleDescription& d, int32_t id, const std::vector<uint8_t>& signal,
                             double* addedAt = nullptr) {
    test::FrameHarness h;
    if (!h.ready() || h.Tune(227360) != 1) return {};
    mscBytes.clear();
    mscCallback.store(RecordMsc);
    test::SubChannelParameters p;
    if (!test::DescribeSubChannel(d, id, false, &p)) return {};
    bool added = false;
    for (size_t at = 0; at + kIqFrameBytes <= signal.size(); at += kIqFrameBytes) {
        h.PushIqFrame(signal.data() + at);
        if (!added && receiverStatus.syncState.load() >= 4) {
            added = MVDAB_AddServiceCom(0, int8_t(id), p.startAddress, p.longForm, p.tableIndex, p.optionAndLevel,
                                        p.size, 0, 0) == 1;
            if (added && addedAt != nullptr) *addedAt = double(at + kIqFrameBytes) / (2 * 2048000.0);
        }
    }
    mscCallback.store(nullptr);
    return mscBytes;
}

// `seconds` of the multiplex of `d` through `params`, as unsigned 8-bit I/Q;
// `d` gets its resolved start addresses, `sent` the payload of `id`.
std::vector<uint8_t> Transmit(gen::EnsembleDescription* d, int32_t id, const gen::ChannelParams& params,
                              double seconds, std::shared_ptr<std::vector<uint8_t>> sent) {
    for (auto& s : d->subChannels)
        if (s.id == id) s.record = sent;
    std::string error;
    auto multiplex = gen::Multiplex::Make(*d, &error);
    if (!multiplex) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return {};
    }
    *d = multiplex->Description();
    gen::FrameTransmitter tx(std::move(multiplex), d->mode);
    gen::ChannelModel channel(params, tx.MeanPower());
    std::vector<uint8_t> signal;
    std::vector<std::complex<float>> block(kIqFrameSamples);
    std::vector<uint8_t> bytes;
    for (double t = 0; t < seconds; t += kIqFrameSamples / 2048000.0) {
        tx.Read(block.data(), block.size());
        channel.ProcessU8(block.data(), block.size(), bytes);
        signal.insert(signal.end(), bytes.begin(), bytes.end());
    }
    return signal;
}

// Share of the logical frames of sub-channel `id` that arrive bit-exactly, of
// all those the transmitter sent from the first that could be delivered
// (the take-over plus the de-interleaver's fill) to the end; frames never
// delivered, for want of a lock or after a resynchronisation, count as lost.
double ExactShare(int32_t mode, double snrDb, const std::string& profile, int32_t id, double seconds) {
    gen::ChannelParams channel;
    channel.snrDb = snrDb;
    channel.seed = 11;
    if (profile != "awgn" && !gen::MultipathProfile(profile, &channel.taps)) return 0.0;
    gen::EnsembleDescription d = Preset(mode);
    auto sent = std::make_shared<std::vector<uint8_t>>();
    const std::vector<uint8_t> signal = Transmit(&d, id, channel, seconds + 3.0, sent);
    double addedAt = -1.0;
    const std::vector<uint8_t> got = Receive(d, id, signal, &addedAt);
    if (addedAt < 0) return 0.0;
    const double start = addedAt + 16 * 0.024 + 2 * kModeTable[mode - 1].framePeriod / 2048000.0;
    const double end = double(signal.size()) / (2 * 2048000.0);
    const size_t good = ExactLogicalFrames(*sent, got, size_t(3 * (id == 2 ? 128 : 48)));
    const double expected = (end - start) / 0.024;
    return expected > 0 ? std::min(1.0, double(good) / expected) : 0.0;
}

void SnrTable(double seconds) {
    std::printf("logical frames delivered bit-exactly, %% of those sent in %.0f s after the fill\n", seconds);
    std::printf("mode channel sub-channel  ");
    for (int32_t snr = 2; snr <= 14; ++snr) std::printf(" %3d dB", snr);
    std::printf("  99%% from\n");
    for (int32_t mode = 1; mode <= 4; ++mode) {
        for (const std::string profile : {"awgn", "urban"}) {
            for (int32_t id : {2, 1}) {
                std::printf("%-4d %-7s %-12s", mode, profile.c_str(), id == 2 ? "UEP 3" : "EEP 3-A");
                int32_t passFrom = -1;
                for (int32_t snr = 2; snr <= 14; ++snr) {
                    const double share = ExactShare(mode, snr, profile, id, seconds);
                    std::printf(" %6.1f", 100.0 * share);
                    if (share >= 0.99 && passFrom < 0) passFrom = snr;
                    if (share < 0.99) passFrom = -1;
                }
                if (passFrom >= 0) {
                    std::printf("  %d dB\n", passFrom);
                } else {
                    std::printf("  none\n");
                }
                std::fflush(stdout);
            }
        }
    }
}

std::vector<uint8_t> ReadFile(const fs::path& path) {
    std::ifstream f(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

int RefereeTable() {
    constexpr size_t kFrameBytes = 3 * 128;
    const fs::path root = fs::path(__FILE__).parent_path().parent_path();
    if (std::system("command -v welle-cli >/dev/null 2>&1") != 0) {
        std::fprintf(stderr, "welle-cli not installed\n");
        return 1;
    }
    const char* samplesEnv = std::getenv("MVDAB_SAMPLES_DIR");
    const fs::path samples = samplesEnv ? fs::path(samplesEnv) : root.parent_path() / "shared" / "samples";
    if (!fs::exists(samples / "speech-mp2-128k.mp2")) {
        std::fprintf(stderr, "no audio samples in %s\n", samples.c_str());
        return 1;
    }
    const fs::path dir = fs::temp_directory_path() / ("mvdab_msc_referee_" + std::to_string(::getpid()));
    fs::create_directories(dir);
    std::printf("mode I, AWGN, UEP 3 at 128 kbit/s: exact logical frames, %% of those each receiver put out\n");
    std::printf("SNR dB   MVXDAB    welle-cli\n");
    for (int snr = 5; snr <= 11; ++snr) {
        gen::EnsembleDescription d = Preset(1, (samples / "speech-mp2-128k.mp2").string());
        auto sent = std::make_shared<std::vector<uint8_t>>();
        gen::ChannelParams params;
        params.snrDb = snr;
        params.seed = 11;
        // 27 s: welle-cli plays 25 s of it in real time.
        const std::vector<uint8_t> signal = Transmit(&d, 2, params, 27.0, sent);
        const fs::path file = dir / "signal.u8";
        std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(signal.data()), std::streamsize(signal.size()));
        const std::vector<uint8_t> got = Receive(d, 2, signal);
        const size_t frames = got.size() / kFrameBytes;
        const double ours = frames > 0 ? double(ExactLogicalFrames(*sent, got, kFrameBytes)) / double(frames) : 0.0;

        const fs::path out = dir / ("welle" + std::to_string(snr));
        const std::string script = (root / "scripts" / "referee_welle.sh").string();
        if (std::system(("'" + script + "' '" + file.string() + "' '" + out.string() + "' 25 >/dev/null 2>&1").c_str()) != 0)
            return 1;
        const std::vector<uint8_t> dump = ReadFile(out / "MVX Classic.msc");
        const size_t dumped = dump.size() / kFrameBytes;
        const double welle = dumped > 0 ? double(ExactLogicalFrames(*sent, dump, kFrameBytes)) / double(dumped) : 0.0;
        std::printf("%3d     %6.1f    %6.1f   (%zu frames dumped)\n", snr, 100.0 * ours, 100.0 * welle, dumped);
        std::fflush(stdout);
        fs::remove(file);
    }
    fs::remove_all(dir);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    bool referee = false;
    double seconds = 8.0;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--referee") == 0) {
            referee = true;
        } else {
            seconds = std::atof(argv[i]);
        }
    }
    if (referee) return RefereeTable();
    SnrTable(seconds);
    return 0;
}
