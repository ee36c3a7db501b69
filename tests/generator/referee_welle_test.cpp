// An independent receiver as referee: a mode I "default" ensemble carrying
// real DAB+ and MP2 audio is written to a u8 file, played to welle-cli, and
// what it reports and dumps is checked against what was sent: the ensemble
// and service labels, the sub-channel bytes of each programme, and a decoded
// MP2 programme. Opt-in (MVDAB_LONG_TESTS=1) and skipped without welle-cli.
//
// MVDAB_REFEREE_DIR=PATH keeps the signal and welle-cli's output there.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include "generator/channel_model.h"
#include "generator/ensemble_description.h"
#include "generator/frame_transmitter.h"
#include "generator/multiplex.h"
#include "tests/generator/coding_checks.h"

namespace {

namespace fs = std::filesystem;

const fs::path kSourceRoot = fs::path(__FILE__).parent_path().parent_path().parent_path();

std::string RunCommand(const std::string& command) {
    std::string out;
    std::unique_ptr<FILE, int (*)(FILE*)> p(popen(command.c_str(), "r"), pclose);
    if (!p) return out;
    std::array<char, 4096> buf;
    for (size_t n; (n = fread(buf.data(), 1, buf.size(), p.get())) > 0;) out.append(buf.data(), n);
    return out;
}

std::vector<uint8_t> ReadFile(const fs::path& path) {
    std::ifstream f(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), {});
}

// Length of the longest prefix of `got` found in `sent`, and where: a dump
// must be a stretch of what was sent (welle-cli starts some frames in).
// Repetitive content (the FIB carousel) gives many candidate starts.
size_t BytesFoundInOrder(const std::vector<uint8_t>& sent, const std::vector<uint8_t>& got, size_t* offset) {
    size_t best = 0;
    const size_t probe = std::min<size_t>(32, got.size());
    for (size_t start = 0; probe > 0 && start + probe <= sent.size() && best < got.size(); ++start) {
        if (!std::equal(got.begin(), got.begin() + static_cast<ptrdiff_t>(probe), sent.begin() + static_cast<ptrdiff_t>(start)))
            continue;
        size_t n = probe;
        while (n < got.size() && start + n < sent.size() && sent[start + n] == got[n]) ++n;
        if (n > best) {
            best = n;
            *offset = start;
        }
    }
    return best;
}

TEST(RefereeWelle, DecodesTheDefaultEnsemble) {
    if (const char* v = std::getenv("MVDAB_LONG_TESTS"); !v || std::string(v) != "1") GTEST_SKIP() << "set MVDAB_LONG_TESTS=1";
    if (RunCommand("command -v welle-cli").empty()) GTEST_SKIP() << "welle-cli not installed";
    const fs::path samples = check::SamplesDir();
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
    for (auto& s : description.subChannels) s.record = std::make_shared<std::vector<uint8_t>>();
    auto multiplex = gen::Multiplex::Make(description, &error);
    ASSERT_TRUE(multiplex) << error;
    auto fibs = std::make_shared<std::vector<uint8_t>>();
    multiplex->RecordFibs(fibs);

    // 27 s of signal, clean apart from the 8-bit quantisation: welle-cli
    // plays it in real time for 25 s and never reaches the end, where it
    // would start again from the beginning.
    gen::FrameTransmitter tx(std::move(multiplex), 1);
    gen::ChannelModel channel(gen::ChannelParams{}, tx.MeanPower());
    const fs::path signal = dir / "ensemble.u8";
    {
        std::ofstream f(signal, std::ios::binary);
        std::vector<std::complex<float>> block(2048 * 100);
        std::vector<uint8_t> bytes;
        for (int i = 0; i < 270; ++i) {
            tx.Read(block.data(), block.size());
            channel.ProcessU8(block.data(), block.size(), bytes);
            f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        }
    }

    const std::string script = (kSourceRoot / "scripts" / "referee_welle.sh").string();
    RunCommand("'" + script + "' '" + signal.string() + "' '" + (dir / "welle").string() + "' 25 2>/dev/null");
    const std::vector<uint8_t> logBytes = ReadFile(dir / "welle" / "welle.log");
    const std::string log(logBytes.begin(), logBytes.end());

    EXPECT_NE(log.find(description.label), std::string::npos) << "ensemble label not reported";
    // A data service with a 32-bit id is sent without a label.
    for (const auto& s : description.services) {
        if (!s.label.empty() && s.sid <= 0xFFFF) {
            EXPECT_NE(log.find(s.label), std::string::npos) << s.label << " not listed";
        }
    }
    // The FIBs welle-cli decoded, bit for bit as sent.
    const std::vector<uint8_t> fic = ReadFile(dir / "welle" / "dump.fic");
    size_t offset = 0;
    EXPECT_GT(fic.size(), 32u * 1000);
    EXPECT_EQ(BytesFoundInOrder(*fibs, fic, &offset), fic.size());
    EXPECT_EQ(offset % 32, 0u);

    // Each audio programme's dump against the bytes its sub-channel carried.
    for (const auto& s : description.services) {
        if (s.components.empty()) continue;
        const gen::ComponentDesc& c = s.components[0];
        if (c.kind != gen::ComponentKind::kAudioMp2 && c.kind != gen::ComponentKind::kAudioDabPlus) continue;
        SCOPED_TRACE(s.label);
        const fs::path msc = dir / "welle" / (s.label + ".msc");
        ASSERT_TRUE(fs::exists(msc)) << msc;
        const std::vector<uint8_t> got = ReadFile(msc);
        std::shared_ptr<std::vector<uint8_t>> sent;
        for (const auto& sc : description.subChannels)
            if (sc.id == c.subChannel) sent = sc.record;
        ASSERT_TRUE(sent);
        EXPECT_GT(got.size(), 1000u);
        EXPECT_EQ(BytesFoundInOrder(*sent, got, &offset), got.size());
        std::cout << s.label << ": " << got.size() << " bytes dumped, all as sent from offset " << offset << "\n";
        // Decoded audio (MP2 and HE-AAC alike): more than a second of it.
        const fs::path wav = dir / "welle" / (s.label + ".wav");
        ASSERT_TRUE(fs::exists(wav)) << wav;
        EXPECT_GT(fs::file_size(wav), 48000u * 4) << "less than a second of audio";
    }
    if (!keep) fs::remove_all(dir);
}

}  // namespace
