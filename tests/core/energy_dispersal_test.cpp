// Energy dispersal against the published sequence, over blocks longer than
// its period.
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace mvdab
