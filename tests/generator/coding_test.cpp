// Channel coding steps of the transmitter against the data sheet's facts.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "generator/conv_encoder.h"
#include "generator/energy_dispersal_prbs.h"
#include "generator/fib_crc.h"
#include "generator/fig_writer.h"
#include "generator/protection_profiles.h"
#include "generator/puncturing.h"
#include "generator/time_interleaver.h"
#include "tests/generator/coding_checks.h"

namespace {

std::string BitString(const std::vector<uint8_t>& bits) {
    std::string s;
    for (uint8_t b : bits) s += static_cast<char>('0' + b);
    return s;
}

TEST(ConvEncoder, CheckValuesAndTail) {
    std::vector<uint8_t> out;
    const uint8_t one[1] = {1};
    gen::ConvEncode(one, 1, out);
    EXPECT_EQ(BitString(out), "1111011011011101001010011111");
    const uint8_t a5[8] = {1, 0, 1, 0, 0, 1, 0, 1};
    gen::ConvEncode(a5, 8, out);
    EXPECT_EQ(BitString(out).substr(0, 56), "11110110001010111111101110111011010011110100110110011111");
    ASSERT_EQ(out.size(), 4u * (8 + 6));
    // Zero input keeps the register at zero: all-zero output, tail included.
    const std::vector<uint8_t> zeros(40, 0);
    gen::ConvEncode(zeros.data(), zeros.size(), out);
    EXPECT_EQ(out, std::vector<uint8_t>(4 * 46, 0));
}

TEST(EnergyDispersal, FirstBytesAndPeriod) {
    const std::vector<uint8_t> seq = gen::DispersalSequence(1022);
    const std::vector<uint8_t> bytes = check::PackBits(seq);
    const uint8_t expected[32] = {0x07, 0xBE, 0x2E, 0x64, 0x12, 0x9D, 0xA3, 0xCF, 0x9B, 0x15, 0x23,
                                  0x8D, 0xAB, 0x89, 0x88, 0x80, 0x42, 0x30, 0x9C, 0xAB, 0x0D, 0xE9,
                                  0xB9, 0x14, 0x2B, 0x4F, 0xD9, 0x25, 0xBF, 0x26, 0xA6, 0x60};
    for (int i = 0; i < 32; ++i) EXPECT_EQ(bytes[i], expected[i]) << "byte " << i;
    int ones = 0;
    for (int i = 0; i < 511; ++i) {
        ones += seq[i];
        EXPECT_EQ(seq[i], seq[i + 511]);
    }
    EXPECT_EQ(ones, 256);
    // Dispersing twice restores the data; a long block restarts nowhere.
    std::vector<uint8_t> data(3000, 1), copy = data;
    gen::DisperseBits(data.data(), data.size());
    std::vector<uint8_t> reference = copy;
    check::Descramble(reference);
    EXPECT_EQ(data, reference);
}

TEST(FibCrc, WorkedFibAndEmptyFib) {
    uint8_t fib[32] = {};
    size_t used = 0;
    for (const gen::Fig& f : {gen::EnsembleInformationFig(0xE123, 0, false, 1234, 0),
                              gen::EnsembleLabelFig(0xE123, "TEST ENSEMBLE", 0xFF00)}) {
        std::copy(f.begin(), f.end(), fib + used);
        used += f.size();
    }
    fib[used] = 0xFF;
    gen::SealFib(fib);
    const uint8_t expected[32] = {0x05, 0x00, 0xE1, 0x23, 0x04, 0xEA, 0x35, 0x00, 0xE1, 0x23, 0x54,
                                  0x45, 0x53, 0x54, 0x20, 0x45, 0x4E, 0x53, 0x45, 0x4D, 0x42, 0x4C,
                                  0x45, 0x20, 0x20, 0x20, 0xFF, 0x00, 0xFF, 0x00, 0xF5, 0xA2};
    for (int i = 0; i < 32; ++i) EXPECT_EQ(fib[i], expected[i]) << "byte " << i;
    uint8_t empty[32] = {0xFF};
    gen::SealFib(empty);
    EXPECT_EQ(empty[30], 0xA8);
    EXPECT_EQ(empty[31], 0xA8);
}

TEST(Puncturing, VectorsAreNestedAndMatchTheMask) {
    for (int pi = 1; pi <= 24; ++pi) {
        const uint32_t v = gen::PuncturingVector(pi);
        EXPECT_EQ(__builtin_popcount(v), pi + 8) << "PI " << pi;
        if (pi < 24) {
            EXPECT_EQ(v & ~gen::PuncturingVector(pi + 1), 0u) << "PI " << pi;
        }
        // Puncturing a counting sequence keeps exactly the masked positions.
        std::vector<uint8_t> mother(128 + 24), out;
        for (size_t i = 0; i < mother.size(); ++i) mother[i] = static_cast<uint8_t>(i);
        ASSERT_TRUE(gen::Puncture(mother, {{1, pi}}, out));
        const std::vector<uint8_t> mask = check::PunctureMask({{1, pi}});
        std::vector<uint8_t> expected;
        for (size_t i = 0; i < mask.size(); ++i)
            if (mask[i]) expected.push_back(static_cast<uint8_t>(i));
        EXPECT_EQ(out, expected) << "PI " << pi;
    }
    std::vector<uint8_t> wrong(100), out;
    EXPECT_FALSE(gen::Puncture(wrong, {{1, 8}}, out));
}

// Every short-form row fills its sub-channel within its slack, carries
// 24 * bitrate bits and follows the table's order of rates and levels.
TEST(Protection, AllUepRows) {
    // Coded bits per the data sheet's "coded" column, for a spot check.
    const std::pair<int, int> coded[] = {{0, 1024}, {4, 2236}, {13, 3320}, {23, 5372}, {47, 13312}, {63, 26616}};
    for (int i = 0; i < 64; ++i) {
        gen::SubChannelProfile p;
        ASSERT_TRUE(gen::UepProfile(i, &p));
        int infoBlocks = 0;
        for (const gen::PunctureRun& r : p.runs) infoBlocks += r.blocks;
        EXPECT_EQ(infoBlocks * 32, 24 * p.bitrateKbps) << "row " << i;
        EXPECT_EQ(gen::PuncturedLength(p.runs) + static_cast<size_t>(p.paddingBits), 64u * p.sizeCu) << "row " << i;
        EXPECT_TRUE(p.paddingBits == 0 || p.paddingBits == 4 || p.paddingBits == 8) << "row " << i;
        EXPECT_EQ(gen::FindUepIndex(p.bitrateKbps, gen::UepTableRow(i).level), i);
    }
    for (auto [row, bits] : coded) {
        gen::SubChannelProfile p;
        gen::UepProfile(row, &p);
        EXPECT_EQ(gen::PuncturedLength(p.runs), static_cast<size_t>(bits)) << "row " << row;
    }
    gen::SubChannelProfile p;
    EXPECT_FALSE(gen::UepProfile(64, &p));
    ASSERT_TRUE(gen::UepProfile(1, &p));  // (3, 11), (3, 6), (18, 5)
    ASSERT_EQ(p.runs.size(), 3u);
    EXPECT_EQ(p.runs[0].pi, 11);
    EXPECT_EQ(p.runs[2].blocks, 18);
    EXPECT_EQ(gen::FindUepIndex(56, 1), -1);
    EXPECT_EQ(gen::FindUepIndex(384, 1), 63);
}

TEST(Protection, EepSetsFillTheSubChannelExactly) {
    const int sizePerStepA[4] = {12, 8, 6, 4}, sizePerStepB[4] = {27, 21, 18, 15};
    for (int level = 1; level <= 4; ++level) {
        for (int n = 1; n <= 64; ++n) {
            gen::SubChannelProfile p;
            ASSERT_TRUE(gen::EepProfile(gen::ProtectionKind::kEepA, level, 8 * n, &p));
            EXPECT_EQ(p.sizeCu, sizePerStepA[level - 1] * n);
            EXPECT_EQ(gen::PuncturedLength(p.runs), 64u * p.sizeCu) << level << "-A n=" << n;
            int blocks = 0;
            for (const gen::PunctureRun& r : p.runs) blocks += r.blocks;
            EXPECT_EQ(blocks * 32, 24 * 8 * n);
        }
        for (int n = 1; n <= 32; ++n) {
            gen::SubChannelProfile p;
            ASSERT_TRUE(gen::EepProfile(gen::ProtectionKind::kEepB, level, 32 * n, &p));
            EXPECT_EQ(p.sizeCu, sizePerStepB[level - 1] * n);
            EXPECT_EQ(gen::PuncturedLength(p.runs), 64u * p.sizeCu) << level << "-B n=" << n;
        }
    }
    gen::SubChannelProfile p;
    ASSERT_TRUE(gen::EepProfile(gen::ProtectionKind::kEepA, 2, 8, &p));  // the special case
    ASSERT_EQ(p.runs.size(), 2u);
    EXPECT_EQ(p.runs[0].blocks, 5);
    EXPECT_EQ(p.runs[0].pi, 13);
    EXPECT_EQ(p.runs[1].pi, 12);
    EXPECT_FALSE(gen::EepProfile(gen::ProtectionKind::kEepB, 1, 48, &p));
    EXPECT_FALSE(gen::EepProfile(gen::ProtectionKind::kEepA, 5, 48, &p));
    gen::Protection prot;
    EXPECT_TRUE(gen::ParseProtection("eep-b:4", &prot));
    EXPECT_EQ(gen::ProtectionText(prot), "eep-b:4");
    EXPECT_FALSE(gen::ParseProtection("eep-a:5", &prot));
    EXPECT_FALSE(gen::ParseProtection("uep:0", &prot));
}

TEST(TimeInterleaver, BitReversedDelaysFromZeroLines) {
    const int expected[16] = {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15};
    for (int r = 0; r < 16; ++r) EXPECT_EQ(gen::InterleaverDelay(r), expected[r]);
    // Codeword of CIF c holds the value c + 1 in every bit: the output bit i of
    // CIF t must come from CIF t - d(i mod 16), or be 0 before the start.
    const size_t bits = 64;
    gen::TimeInterleaver ti(bits);
    std::vector<uint8_t> in(bits), out(bits);
    for (int t = 0; t < 40; ++t) {
        std::fill(in.begin(), in.end(), static_cast<uint8_t>(t + 1));
        ti.Process(in.data(), out.data());
        for (size_t i = 0; i < bits; ++i) {
            const int source = t - expected[i % 16];
            ASSERT_EQ(out[i], source < 0 ? 0 : source + 1) << "CIF " << t << " bit " << i;
        }
    }
}

}  // namespace
