// Sensitivity of the sub-channel chain side by side with an independent
// receiver, welle-cli, on the very same generated signals: the "default"
// ensemble in mode I with the MP2 sample in sub-channel 2 (UEP level 3,
// 128 kbit/s), AWGN at a range of SNRs. Each signal is written to a file that
// scripts/referee_welle.sh plays to welle-cli, and pushed through the frame
// harness; both outputs are cut into logical frames and compared with what
// was sent. Opt-in (MVDAB_LONG_TESTS=1, welle-cli installed): about 30 s per
// SNR.
#include <gtest/gtest.h>

#include <complex>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
#include "mvxdab.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
#include "tests/support/frame_harness.h"
#include "tests/support/generated_subchannels.h"

namespace mvdab {
namespace {

namespace fs = std::filesystem;
const fs::path kSourceRoot = fs::path(__FILE__).parent_path().parent_path().parent_path();
constexpr size_t kFrameBytes = 3 * 128;  // one logical frame of 128 kbit/s

std::vector<uint8_t> mscBytes;
void RecordMsc(uint8_t* bytes, int32_t length, int32_t) { mscBytes.insert(mscBytes.end(), bytes, bytes + length); }

std::vector<uint8_t> ReadFile(const fs::path& path) {
    std::ifstream f(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

TEST(SubChannelReferee, ExactFrameShareBesideWelleCli) {
    if (const char* v = std::getenv("MVDAB_LONG_TESTS"); !v || std::string(v) != "1") GTEST_SKIP() << "set MVDAB_LONG_TESTS=1";
    if (std::system("command -v welle-cli >/dev/null 2>&1") != 0) GTEST_SKIP() << "welle-cli not installed";
    const char* samplesEnv = std::getenv("MVDAB_SAMPLES_DIR");
    const fs::path samples = samplesEnv ? fs::path(samplesEnv) : kSourceRoot.parent_path() / "shared" / "samples";
    if (!fs::exists(samples / "speech-mp2-128k.mp2")) GTEST_SKIP() << "no audio samples in " << samples;
    const fs::path dir = fs::temp_directory_path() / ("mvdab_msc_referee_" + std::to_string(::getpid()));
    fs::create_directories(dir);

    std::printf("    mode I, AWGN, UEP 3 at 128 kbit/s: exact logical frames, %% of those each receiver put out\n");
    std::printf("    SNR dB   MVXDAB    welle-cli\n");
    for (int snr = 5; snr <= 11; ++snr) {
        gen::PresetOptions options;
        options.mode = 1;
        options.seed = 1;
        options.mp2File = (samples / "speech-mp2-128k.mp2").string();
        gen::EnsembleDescription d;
        std::string error;
        ASSERT_TRUE(gen::MakePresetDescription("default", options, &d, &error)) << error;
        auto sent = std::make_shared<std::vector<uint8_t>>();
        for (auto& s : d.subChannels)
            if (s.id == 2) s.record = sent;
        auto multiplex = gen::Multiplex::Make(d, &error);
        ASSERT_TRUE(multiplex) << error;
        d = multiplex->Description();
        gen::FrameTransmitter tx(std::move(multiplex), 1);
        gen::ChannelParams params;
        params.snrDb = snr;
        params.seed = 11;
        gen::ChannelModel channel(params, tx.MeanPower());
        // 27 s: welle-cli plays 25 s of it in real time.
        std::vector<uint8_t> signal;
        std::vector<std::complex<float>> block(kIqFrameSamples);
        std::vector<uint8_t> bytes;
        for (int i = 0; i < 460; ++i) {
            tx.Read(block.data(), block.size());
            channel.ProcessU8(block.data(), block.size(), bytes);
            signal.insert(signal.end(), bytes.begin(), bytes.end());
        }
        const fs::path file = dir / "signal.u8";
        {
            std::ofstream f(file, std::ios::binary);
            f.write(reinterpret_cast<const char*>(signal.data()), std::streamsize(signal.size()));
        }

        // Ours: the same bytes through the frame harness, the service added
        // once the FIC is locked.
        double ours = 0.0;
        {
            test::FrameHarness h;
            ASSERT_TRUE(h.ready());
            ASSERT_EQ(h.Tune(227360), 1);
            mscBytes.clear();
            mscCallback.store(RecordMsc);
            test::SubChannelParameters p;
            ASSERT_TRUE(test::DescribeSubChannel(d, 2, false, &p));
            bool added = false;
            for (size_t at = 0; at + kIqFrameBytes <= signal.size(); at += kIqFrameBytes) {
                h.PushIqFrame(signal.data() + at);
                if (!added && receiverStatus.syncState.load() >= 4)
                    added = MVDAB_AddServiceCom(0, 2, p.startAddress, p.longForm, p.tableIndex, p.optionAndLevel,
                                                p.size, 0, 0) == 1;
            }
            mscCallback.store(nullptr);
            const size_t frames = mscBytes.size() / kFrameBytes;
            ours = frames > 0 ? double(test::ExactLogicalFrames(*sent, mscBytes, kFrameBytes)) / double(frames) : 0.0;
        }

        const fs::path out = dir / ("welle" + std::to_string(snr));
        const std::string script = (kSourceRoot / "scripts" / "referee_welle.sh").string();
        ASSERT_EQ(std::system(("'" + script + "' '" + file.string() + "' '" + out.string() + "' 25 >/dev/null 2>&1").c_str()), 0);
        const std::vector<uint8_t> dump = ReadFile(out / "MVX Classic.msc");
        const size_t dumped = dump.size() / kFrameBytes;
        const double welle = dumped > 0 ? double(test::ExactLogicalFrames(*sent, dump, kFrameBytes)) / double(dumped) : 0.0;
        std::printf("    %3d     %6.1f    %6.1f   (%zu frames dumped)\n", snr, 100.0 * ours, 100.0 * welle, dumped);
        std::fflush(stdout);
        fs::remove(file);
    }
    fs::remove_all(dir);
}

}  // namespace
}  // namespace mvdab
