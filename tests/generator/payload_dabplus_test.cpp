// DAB+ superframes: the worked example byte for byte, round trips through an
// independent parser, and the sample superframe files.
#include <gtest/gtest.h>

#include <fstream>

#include "generator/payload_dabplus.h"
#include "tests/generator/coding_checks.h"

namespace {

// Parses and checks a superframe of 120 * s bytes: firecode, RS columns, AU
// layout and AU CRCs. Returns the AU payloads, or an empty list on any fault.
std::vector<std::vector<uint8_t>> ParseSuperframe(const uint8_t* sf, int s, std::string* why) {
    auto fail = [&](const std::string& w) { *why = w; return std::vector<std::vector<uint8_t>>{}; };
    if (check::FirecodeResidue(sf) != 0) return fail("firecode");
    for (int c = 0; c < s; ++c)
        if (!check::SyndromesZero(sf + c, 120, static_cast<size_t>(s), 10)) return fail("RS column " + std::to_string(c));
    const bool dac = sf[2] & 0x40, sbr = sf[2] & 0x20;
    const int numAus = dac ? (sbr ? 3 : 6) : (sbr ? 2 : 4);
    std::vector<int> start = {dac ? (sbr ? 6 : 11) : (sbr ? 5 : 8)};
    for (int k = 1; k < numAus; ++k) {
        const int bit = 24 + 12 * (k - 1), byte = bit / 8;
        const int v = (sf[byte] << 8 | sf[byte + 1]);
        start.push_back(bit % 8 == 0 ? v >> 4 : v & 0xFFF);
    }
    start.push_back(110 * s);
    std::vector<std::vector<uint8_t>> aus;
    for (int k = 0; k < numAus; ++k) {
        if (start[k + 1] - start[k] < 2) return fail("AU " + std::to_string(k) + " too short");
        if (!check::CrcResidueOk(sf + start[k], static_cast<size_t>(start[k + 1] - start[k])))
            return fail("AU CRC " + std::to_string(k));
        aus.emplace_back(sf + start[k], sf + start[k + 1] - 2);
    }
    return aus;
}

TEST(DabPlusSuperframe, WorkedExampleBitExact) {
    gen::DabPlusAudio audio;  // 48 kHz, SBR, stereo: 3 AUs
    const std::vector<std::vector<uint8_t>> aus = {std::vector<uint8_t>(200, 0x11), std::vector<uint8_t>(210, 0x22),
                                                   std::vector<uint8_t>(238, 0x33)};
    uint8_t sf[720];
    ASSERT_TRUE(gen::BuildDabPlusSuperframe(audio, 6, aus, sf));
    // Header and first AU, the two AU CRCs, the end of the last AU, and the
    // parity of RS columns 0 and 5.
    const auto bytes = [&](size_t from, size_t n, size_t stride = 1) {
        std::vector<uint8_t> v;
        for (size_t i = 0; i < n; ++i) v.push_back(sf[from + i * stride]);
        return v;
    };
    EXPECT_EQ(bytes(0, 16), check::Hex("44 7D 70 0D 01 A4 11 11 11 11 11 11 11 11 11 11"));
    EXPECT_EQ(bytes(206, 2), check::Hex("00 24"));
    EXPECT_EQ(bytes(418, 2), check::Hex("36 FC"));
    EXPECT_EQ(bytes(654, 18), check::Hex("33 33 33 33 B6 64 69 35 70 2C 26 D8 FA 92 86 F7 60 01"));
    EXPECT_EQ(bytes(660, 10, 6), check::Hex("69 FA 2F 01 84 C1 C0 E0 9A 24"));
    EXPECT_EQ(bytes(665, 10, 6), check::Hex("D8 01 31 A6 69 C0 E0 75 8A C4"));
    // One byte too many does not fit; a wrong AU count is refused.
    auto big = aus;
    big[2].push_back(0);
    EXPECT_FALSE(gen::BuildDabPlusSuperframe(audio, 6, big, sf));
    big.pop_back();
    EXPECT_FALSE(gen::BuildDabPlusSuperframe(audio, 6, big, sf));
}

// Every audio mode and sizes around the firecode's reach (s < 11 puts the
// header in several rows) round-trip through the independent parser.
TEST(DabPlusSuperframe, SyntheticSourceRoundTrip) {
    for (int mode = 0; mode < 4; ++mode) {
        gen::DabPlusAudio audio;
        audio.dac48k = mode & 1, audio.sbr = mode & 2, audio.stereo = mode != 2, audio.ps = mode == 2;
        const gen::DabPlusLayout layout = gen::DabPlusLayoutFor(audio);
        EXPECT_EQ(layout.numAus, audio.dac48k ? (audio.sbr ? 3 : 6) : (audio.sbr ? 2 : 4));
        for (int s : {1, 4, 6, 11, 12, 24}) {
            auto src = gen::MakeDabPlusSyntheticPayload(8 * s, audio, 3);
            ASSERT_TRUE(src);
            const auto bytes = check::Pull(*src, 24 * static_cast<size_t>(s), 15);
            for (int k = 0; k < 3; ++k) {
                std::string why;
                const auto aus = ParseSuperframe(&bytes[static_cast<size_t>(120 * s * k)], s, &why);
                ASSERT_EQ(aus.size(), static_cast<size_t>(layout.numAus)) << "mode " << mode << " s " << s << ": " << why;
                EXPECT_EQ(bytes[static_cast<size_t>(120 * s * k) + 2] & 0x78, (audio.dac48k ? 0x40 : 0) |
                          (audio.sbr ? 0x20 : 0) | (audio.stereo ? 0x10 : 0) | (audio.ps ? 0x08 : 0));
            }
            EXPECT_EQ(bytes, check::Pull(*gen::MakeDabPlusSyntheticPayload(8 * s, audio, 3), 24 * static_cast<size_t>(s), 15));
            EXPECT_NE(bytes, check::Pull(*gen::MakeDabPlusSyntheticPayload(8 * s, audio, 4), 24 * static_cast<size_t>(s), 15));
        }
    }
    EXPECT_FALSE(gen::MakeDabPlusSyntheticPayload(44, gen::DabPlusAudio{}, 1));
}

// Units from a file come back unchanged, the last of each superframe padded
// with zeros; a trailing incomplete group is left out of the loop.
TEST(DabPlusSuperframe, AccessUnitFileRoundTrip) {
    const std::string path = testing::TempDir() + "aus.bin";
    std::vector<std::vector<uint8_t>> aus;
    std::ofstream f(path, std::ios::binary);
    for (int k = 0; k < 7; ++k) {
        aus.emplace_back(static_cast<size_t>(150 + 10 * k), static_cast<uint8_t>(k + 1));
        const char len[2] = {0, static_cast<char>(aus.back().size())};
        f.write(len, 2).write(reinterpret_cast<const char*>(aus.back().data()), static_cast<std::streamsize>(aus.back().size()));
    }
    f.close();
    std::string error, why;
    auto src = gen::MakeDabPlusAuFilePayload(path, 48, gen::DabPlusAudio{}, &error);
    ASSERT_TRUE(src) << error;
    const auto bytes = check::Pull(*src, 144, 15);
    for (int k = 0; k < 3; ++k) {
        const auto got = ParseSuperframe(&bytes[static_cast<size_t>(720 * k)], 6, &why);
        ASSERT_EQ(got.size(), 3u) << why;
        for (int a = 0; a < 3; ++a) {
            auto want = aus[static_cast<size_t>((k % 2) * 3 + a)];
            if (a == 2) want.resize(got[a].size(), 0);
            EXPECT_EQ(got[a], want) << k << " " << a;
        }
    }
    EXPECT_FALSE(gen::MakeDabPlusAuFilePayload(path, 32, gen::DabPlusAudio{}, &error));  // too big at 32 kbit/s
}

// The sample files: every superframe passes the checks, and the file source
// sends the file unchanged, looping.
TEST(DabPlusSuperframe, SampleFilesPassTheChecks) {
    const struct { const char* name; int kbps; } files[] = {
        {"speech-heaac-48k.dabp", 48}, {"speech-heaacv2-32k.dabp", 32}, {"tones-aaclc-96k.dabp", 96}};
    int found = 0;
    for (const auto& f : files) {
        const std::string path = check::SamplesDir() + "/" + f.name;
        std::ifstream in(path, std::ios::binary);
        if (!in) continue;
        ++found;
        const std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const int s = f.kbps / 8;
        const size_t count = file.size() / static_cast<size_t>(120 * s);
        ASSERT_GT(count, 0u);
        for (size_t k = 0; k < count; ++k) {
            std::string why;
            ASSERT_FALSE(ParseSuperframe(&file[k * 120 * s], s, &why).empty()) << f.name << " superframe " << k << ": " << why;
        }
        std::string error;
        auto src = gen::MakeDabPlusSuperframeFilePayload(path, f.kbps, &error);
        ASSERT_TRUE(src) << error;
        const auto sent = check::Pull(*src, 24 * static_cast<size_t>(s), 5 * static_cast<int>(count) + 5);
        EXPECT_TRUE(std::equal(file.begin(), file.end(), sent.begin()));
        EXPECT_TRUE(std::equal(file.begin(), file.begin() + 120 * s, sent.end() - 120 * s));
        if (file.size() % static_cast<size_t>(120 * (s + 1)) != 0) {
            EXPECT_FALSE(gen::MakeDabPlusSuperframeFilePayload(path, f.kbps + 8, &error));
        }
    }
    if (found == 0) GTEST_SKIP() << "no sample files in " << check::SamplesDir();
}

}  // namespace
