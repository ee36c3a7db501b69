// Energy dispersal against the published sequence and against the bit
// recurrence p(i) = p(i-5) XOR p(i-9) over blocks longer than its period.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "channel/energy_dispersal.h"

namespace mvdab {
namespace {

TEST(EnergyDisperse, ZeroBlockGivesThePublishedSequence) {
    const std::vector<uint8_t> expected = {
        0x07, 0xBE, 0x2E, 0x64, 0x12, 0x9D, 0xA3, 0xCF, 0x9B, 0x15, 0x23, 0x8D, 0xAB, 0x89, 0x88, 0x80,
        0x42, 0x30, 0x9C, 0xAB, 0x0D, 0xE9, 0xB9, 0x14, 0x2B, 0x4F, 0xD9, 0x25, 0xBF, 0x26, 0xA6, 0x60};
    std::vector<uint8_t> block(32, 0);
    EnergyDisperse(block.data(), 32);
    EXPECT_EQ(block, expected);
}

TEST(EnergyDisperse, MatchesTheRecurrenceAcrossPeriodsAndRestartsPerCall) {
    // 5,472 bytes: one CIF of the largest sub-channel, ten periods of 511 bytes.
    // The recurrence starts from nine ones.
    const int count = 5472;
    std::mt19937 rng(1);
    std::vector<uint8_t> data(count), block(count);
    std::vector<int> p(9, 1);
    for (int i = 0; i < 8 * count; ++i) p.push_back(p[p.size() - 5] ^ p[p.size() - 9]);
    for (auto& b : data) b = static_cast<uint8_t>(rng());
    block = data;
    EnergyDisperse(block.data(), count);
    for (int i = 0; i < count; ++i) {
        uint8_t prbs = 0;
        for (int k = 0; k < 8; ++k) prbs = static_cast<uint8_t>(prbs << 1 | p[9 + 8 * i + k]);
        ASSERT_EQ(block[i], data[i] ^ prbs) << "byte " << i;
    }
    // A second call starts the sequence afresh and so restores the data;
    // empty blocks are left alone.
    EnergyDisperse(block.data(), count);
    EXPECT_EQ(block, data);
    EnergyDisperse(block.data(), 0);
    EnergyDisperse(block.data(), -5);
    EnergyDisperse(nullptr, 10);
    EXPECT_EQ(block, data);
}

}  // namespace
}  // namespace mvdab
