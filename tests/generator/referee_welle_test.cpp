// An independent receiver as referee: a mode I "default" ensemble carrying
// real DAB+ and MP2 audio is written to a u8 file, played to welle-cli, and
// what it reports and dumps is checked against what was sent: the ensemble
// and service labels, the FIBs, the sub-channel bytes of each programme and
// its decoded audio. Opt-in (MVDAB_LONG_TESTS=1) and skipped without welle-cli.
//
// MVDAB_REFEREE_DIR=PATH keeps the signal and welle-cli's output there.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include "generator/channel_model.h"
#include "generator/ensemble_description.h"
#include "generator/frame_transmitter.h"
#include "generator/multiplex.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

const fs::path kSourceRoot = fs::path(__FILE__).parent_path().parent_path().parent_path();

std::string RunCommand(const std::string& command) {
    std::string out;
    std::unique_ptr<FILE, int (*)(FILE*)> p(popen(command.c_str(), "r"), pclose);
    char buf[4096];
    for (size_t n; p && (n = fread(buf, 1, sizeof buf, p.get())) > 0;) out.append(buf, n);
    return out;
}

Bytes ReadFile(const fs::path& path) {
    std::ifstream f(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), {});
}

// True if `got` is one unbroken stretch of `sent` (welle-cli starts some
// frames in); repetitive content (the FIB carousel) gives many candidate starts.
bool IsStretchOf(const Bytes& sent, const Bytes& got) {
    for (auto at = sent.begin(); got.size() >= 32 && (at = std::search(at, sent.end(), got.begin(), got.begin() + 32)) != sent.end(); ++at)
        if (sent.end() - at >= std::ssize(got) && std::equal(got.begin(), got.end(), at)) return true;
    return false;
}

TEST(RefereeWelle, DecodesTheDefaultEnsemble) {
    if (const char* v = std::getenv("MVDAB_LONG_TESTS"); !v || std::string(v) != "1") GTEST_SKIP() << "set MVDAB_LONG_TESTS=1";
    if (RunCommand("command -v welle-cli").empty()) GTEST_SKIP() << "welle-cli not installed";
    const char* env = std::getenv("MVDAB_SAMPLES_DIR");
    const fs::path samples = env ? fs::path(env) : kSourceRoot.parent_path() / "shared" / "samples";
    if (!fs::exists(samples / "speech-mp2-128k.mp2")) GTEST_SKIP() << "no audio samples in " << samples;
    const char* keep = std::getenv("MVDAB_REFEREE_DIR");
    const fs::path dir = keep ? fs::path(keep) : fs::temp_directory_path() / ("mvdab_referee_" + std::to_string(::getpid()));
    fs::create_directories(dir);

    gen::PresetOptions options;
    options.mode = 1, options.seed = 1, options.dabplusKbps = 48;
    options.dabplusFile = (samples / "speech-heaac-48k.dabp").string();
    options.mp2File = (samples / "speech-mp2-128k.mp2").string();
    gen::EnsembleDescription description;
    std::string error;
    ASSERT_TRUE(gen::MakePresetDescription("default", options, &description, &error)) << error;
    for (auto& s : description.subChannels) s.record = std::make_shared<Bytes>();
    auto multiplex = gen::Multiplex::Make(description, &error);
    ASSERT_TRUE(multiplex) << error;
    auto fibs = std::make_shared<Bytes>();
    multiplex->RecordFibs(fibs);

    // 27 s of signal, clean apart from the 8-bit quantisation: welle-cli
    // plays it in real time for 25 s and never reaches the end.
    gen::FrameTransmitter tx(std::move(multiplex), 1);
    gen::ChannelModel channel(gen::ChannelParams{}, tx.MeanPower());
    const fs::path signal = dir / "ensemble.u8";
    std::ofstream file(signal, std::ios::binary);
    std::vector<std::complex<float>> block(2048 * 100);
    Bytes bytes;
    for (int i = 0; i < 270; ++i) {
        tx.Read(block.data(), block.size());
        channel.ProcessU8(block.data(), block.size(), bytes);
        file.write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
    }
    file.close();
    const std::string script = (kSourceRoot / "scripts" / "referee_welle.sh").string();
    RunCommand("'" + script + "' '" + signal.string() + "' '" + (dir / "welle").string() + "' 25 2>/dev/null");
    const Bytes logBytes = ReadFile(dir / "welle" / "welle.log");
    const std::string log(logBytes.begin(), logBytes.end());

    EXPECT_NE(log.find(description.label), std::string::npos) << "ensemble label not reported";
    const Bytes fic = ReadFile(dir / "welle" / "dump.fic");
    EXPECT_GT(fic.size(), 32u * 1000);
    EXPECT_TRUE(IsStretchOf(*fibs, fic)) << "FIBs not as sent";
    for (const auto& s : description.services) {
        EXPECT_TRUE(s.label.empty() || s.sid > 0xFFFF || log.find(s.label) != std::string::npos) << s.label << " not listed";
        const auto kind = s.components.at(0).kind;
        if (kind != gen::ComponentKind::kAudioMp2 && kind != gen::ComponentKind::kAudioDabPlus) continue;
        // Each audio programme's dump against the bytes its sub-channel carried,
        // and more than a second of decoded audio.
        const Bytes got = ReadFile(dir / "welle" / (s.label + ".msc"));
        for (const auto& sc : description.subChannels)
            EXPECT_TRUE(sc.id != s.components[0].subChannel || IsStretchOf(*sc.record, got)) << s.label << " not as sent";
        const fs::path wav = dir / "welle" / (s.label + ".wav");
        EXPECT_TRUE(fs::exists(wav) && fs::file_size(wav) > 48000u * 4) << s.label << ": less than a second of audio";
    }
    if (!keep) fs::remove_all(dir);
}

}  // namespace
