// Channel and payload coding steps of the transmitter against published check
// values: convolutional code, energy dispersal, FIB CRC, puncturing and
// protection profiles, time interleaving, CRC, firecode and Reed-Solomon.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "generator/conv_encoder.h"
#include "generator/energy_dispersal_prbs.h"
#include "generator/fib_crc.h"
#include "generator/fig_writer.h"
#include "generator/payload_coding.h"
#include "generator/protection_profiles.h"
#include "generator/puncturing.h"
#include "generator/time_interleaver.h"
#include "tests/generator/coding_checks.h"

namespace {

using check::Hex;

std::string BitString(const std::vector<uint8_t>& bits) {
    std::string s;
    for (uint8_t b : bits) s += static_cast<char>('0' + b);
    return s;
}

int InfoBlocks(const gen::SubChannelProfile& p) {
    int blocks = 0;
    for (const gen::PunctureRun& r : p.runs) blocks += r.blocks;
    return blocks;
}

TEST(ConvEncoder, CheckValuesAndTail) {
    std::vector<uint8_t> out;
    const uint8_t one[1] = {1}, a5[8] = {1, 0, 1, 0, 0, 1, 0, 1};
    gen::ConvEncode(one, 1, out);
    EXPECT_EQ(BitString(out), "1111011011011101001010011111");
    gen::ConvEncode(a5, 8, out);
    ASSERT_EQ(out.size(), 4u * (8 + 6));
    EXPECT_EQ(BitString(out).substr(0, 56), "11110110001010111111101110111011010011110100110110011111");
    // Zero input keeps the register at zero: all-zero output, tail included.
    const std::vector<uint8_t> zeros(40, 0);
    gen::ConvEncode(zeros.data(), zeros.size(), out);
    EXPECT_EQ(out, std::vector<uint8_t>(4 * 46, 0));
}

TEST(EnergyDispersal, FirstBytesAndPeriod) {
    const std::vector<uint8_t> seq = gen::DispersalSequence(1022);
    const std::vector<uint8_t> bytes = check::PackBits(seq);
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 32),
              Hex("07 BE 2E 64 12 9D A3 CF 9B 15 23 8D AB 89 88 80 42 30 9C AB 0D E9 B9 14 2B 4F D9 25 BF 26 A6 60"));
    int ones = 0;
    for (int i = 0; i < 511; ++i) {
        ones += seq[i];
        EXPECT_EQ(seq[i], seq[i + 511]);
    }
    EXPECT_EQ(ones, 256);
    // A long block is dispersed with one unbroken sequence.
    std::vector<uint8_t> data(3000, 1), reference = data;
    gen::DisperseBits(data.data(), data.size());
    check::Descramble(reference);
    EXPECT_EQ(data, reference);
}

TEST(Crc, WorkedFibEmptyFibAndCheckValues) {
    uint8_t fib[32] = {};
    size_t used = 0;
    for (const gen::Fig& f : {gen::EnsembleInformationFig(0xE123, 0, false, 1234, 0),
                              gen::EnsembleLabelFig(0xE123, "TEST ENSEMBLE", 0xFF00)}) {
        std::copy(f.begin(), f.end(), fib + used);
        used += f.size();
    }
    fib[used] = 0xFF;
    gen::SealFib(fib);
    EXPECT_EQ(std::vector<uint8_t>(fib, fib + 32),
              Hex("05 00 E1 23 04 EA 35 00 E1 23 54 45 53 54 20 45 4E 53 45 4D 42 4C 45 20 20 20 FF 00 FF 00 F5 A2"));
    uint8_t empty[32] = {0xFF};
    gen::SealFib(empty);
    EXPECT_EQ(empty[30], 0xA8);
    EXPECT_EQ(empty[31], 0xA8);
    const uint8_t digits[] = "123456789", zeros[22] = {};
    EXPECT_EQ(gen::CrcCcitt16(digits, 9), 0xD64E);
    EXPECT_EQ(gen::CrcCcitt16(zeros, 22), 0x604B);  // the 24-byte padding packet
}

TEST(Puncturing, VectorsAreNestedAndMatchTheMask) {
    for (int pi = 1; pi <= 24; ++pi) {
        const uint32_t v = gen::PuncturingVector(pi);
        EXPECT_EQ(__builtin_popcount(v), pi + 8) << "PI " << pi;
        if (pi < 24) {
            EXPECT_EQ(v & ~gen::PuncturingVector(pi + 1), 0u) << "PI " << pi;
        }
        // Puncturing a counting sequence keeps exactly the masked positions.
        std::vector<uint8_t> mother(128 + 24), out, expected;
        for (size_t i = 0; i < mother.size(); ++i) mother[i] = static_cast<uint8_t>(i);
        ASSERT_TRUE(gen::Puncture(mother, {{1, pi}}, out));
        const std::vector<uint8_t> mask = check::PunctureMask({{1, pi}});
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
    const std::map<int, size_t> coded = {{0, 1024}, {4, 2236}, {13, 3320}, {23, 5372}, {47, 13312}, {63, 26616}};
    gen::SubChannelProfile p;
    for (int i = 0; i < 64; ++i) {
        ASSERT_TRUE(gen::UepProfile(i, &p));
        EXPECT_EQ(InfoBlocks(p) * 32, 24 * p.bitrateKbps) << "row " << i;
        EXPECT_EQ(gen::PuncturedLength(p.runs) + static_cast<size_t>(p.paddingBits), 64u * p.sizeCu) << "row " << i;
        EXPECT_TRUE(p.paddingBits == 0 || p.paddingBits == 4 || p.paddingBits == 8) << "row " << i;
        EXPECT_EQ(gen::FindUepIndex(p.bitrateKbps, gen::UepTableRow(i).level), i);
        if (coded.count(i)) {
            EXPECT_EQ(gen::PuncturedLength(p.runs), coded.at(i)) << "row " << i;
        }
    }
    EXPECT_FALSE(gen::UepProfile(64, &p));
    ASSERT_TRUE(gen::UepProfile(1, &p));  // (3, 11), (3, 6), (18, 5)
    ASSERT_EQ(p.runs.size(), 3u);
    EXPECT_EQ(p.runs[0].pi, 11);
    EXPECT_EQ(p.runs[2].blocks, 18);
    EXPECT_EQ(gen::FindUepIndex(56, 1), -1);
    EXPECT_EQ(gen::FindUepIndex(384, 1), 63);
}

TEST(Protection, EepSetsFillTheSubChannelExactly) {
    const struct { gen::ProtectionKind kind; int rateStep, steps, cuPerStep[4]; } sets[] = {
        {gen::ProtectionKind::kEepA, 8, 64, {12, 8, 6, 4}}, {gen::ProtectionKind::kEepB, 32, 32, {27, 21, 18, 15}}};
    gen::SubChannelProfile p;
    for (const auto& s : sets)
        for (int level = 1; level <= 4; ++level)
            for (int n = 1; n <= s.steps; ++n) {
                ASSERT_TRUE(gen::EepProfile(s.kind, level, s.rateStep * n, &p));
                EXPECT_EQ(p.sizeCu, s.cuPerStep[level - 1] * n);
                EXPECT_EQ(gen::PuncturedLength(p.runs), 64u * p.sizeCu) << level << " n=" << n;
                EXPECT_EQ(InfoBlocks(p) * 32, 24 * s.rateStep * n);
            }
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
    gen::TimeInterleaver ti(64);
    std::vector<uint8_t> in(64), out(64);
    for (int t = 0; t < 40; ++t) {
        std::fill(in.begin(), in.end(), static_cast<uint8_t>(t + 1));
        ti.Process(in.data(), out.data());
        for (size_t i = 0; i < 64; ++i) {
            const int source = t - expected[i % 16];
            ASSERT_EQ(out[i], source < 0 ? 0 : source + 1) << "CIF " << t << " bit " << i;
        }
    }
}

TEST(Firecode, ExampleAndEverySingleBitError) {
    uint8_t sf[11] = {0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(gen::SuperframeFirecode(sf + 2), 0x38D4);
    std::mt19937 rng(5);
    for (int trial = 0; trial < 200; ++trial) {
        for (int i = 2; i < 11; ++i) sf[i] = static_cast<uint8_t>(rng());
        const uint16_t f = gen::SuperframeFirecode(sf + 2);
        sf[0] = static_cast<uint8_t>(f >> 8);
        sf[1] = static_cast<uint8_t>(f);
        ASSERT_EQ(check::FirecodeResidue(sf), 0u);
        sf[2 + trial % 9] ^= static_cast<uint8_t>(1 << (trial % 8));
        ASSERT_NE(check::FirecodeResidue(sf), 0u);
    }
}

TEST(ReedSolomon, GeneratorsAndExamples) {
    const gen::RsEncoder rs10(10), rs16(16);
    EXPECT_EQ(rs10.Generator(), Hex("C1 9D 71 5F 5E C7 6F 9F C2 D8 01"));
    EXPECT_EQ(rs16.Generator(), Hex("3B 24 32 62 E5 29 41 A3 08 1E D1 44 BD 68 0D 3B 01"));
    uint8_t data[188], parity[16];
    for (int i = 0; i < 110; ++i) data[i] = static_cast<uint8_t>(i);
    rs10.Encode(data, 110, 1, parity, 1);
    EXPECT_EQ(std::vector<uint8_t>(parity, parity + 10), Hex("A2 8A 69 0C EA 30 BD D4 A3 5C"));
    data[0] = 0x47;
    for (int i = 1; i < 188; ++i) data[i] = static_cast<uint8_t>(7 * i);
    rs16.Encode(data, 188, 1, parity, 1);
    EXPECT_EQ(std::vector<uint8_t>(parity, parity + 16), Hex("78 96 7B F8 AF BD 8E 9C DE 78 69 D1 D8 C7 38 57"));
}

}  // namespace
