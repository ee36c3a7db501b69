// The library's own reading of FIBs: the CRC check with its running mask, and
// the search for the CIF count of FIG 0/0 in the good FIBs of a frame.
#include <gtest/gtest.h>

#include "channel/fic_decoder.h"
#include "receiver/receiver_state.h"
#include "tests/core/fic_test_encoder.h"

namespace {

using fictest::Bytes;
using mvdab::FindEnsembleInfo;

// FIG 0/0 (count 4/234) and FIG 1/0 of a published example, CRC F5 A2.
const Bytes kWorkedFib = {0x05, 0x00, 0xE1, 0x23, 0x04, 0xEA, 0x35, 0x00, 0xE1, 0x23, 0x54,
                          0x45, 0x53, 0x54, 0x20, 0x45, 0x4E, 0x53, 0x45, 0x4D, 0x42, 0x4C,
                          0x45, 0x20, 0x20, 0x20, 0xFF, 0x00, 0xFF, 0x00, 0xF5, 0xA2};

Bytes Concat(std::initializer_list<Bytes> fibs) {
    Bytes all;
    for (const Bytes& f : fibs) all.insert(all.end(), f.begin(), f.end());
    return all;
}

TEST(CheckFibCrc, CountsFailuresAndShiftsTheMask) {
    Bytes empty(32, 0x00);
    empty[0] = 0xFF;
    empty[30] = empty[31] = 0xA8;
    Bytes broken = kWorkedFib;
    broken[12] ^= 0x04;
    const Bytes cif = Concat({kWorkedFib, broken, empty, broken});
    for (int32_t m : {2, 0}) {  // four FIBs a CIF, then three
        mvdab::mode.transmissionMode = m;
        mvdab::mode.parameters = mvdab::kModeTable[m];
        uint32_t mask = 1;
        EXPECT_EQ(mvdab::CheckFibCrc(cif.data(), &mask), m == 2 ? 2 : 1);
        EXPECT_EQ(mask, m == 2 ? 0b11010u : 0b1101u);
    }
    // Any single flipped bit, data or CRC, fails the check.
    for (int bit = 0; bit < 256; ++bit) {
        Bytes flipped = Concat({kWorkedFib, kWorkedFib, kWorkedFib});
        flipped[bit / 8] ^= uint8_t(0x80 >> bit % 8);
        uint32_t mask = 0;
        EXPECT_EQ(mvdab::CheckFibCrc(flipped.data(), &mask), 1) << "bit " << bit;
        EXPECT_EQ(mask, 0b011u) << "bit " << bit;
    }
}

TEST(FindEnsembleInfo, WalksTheGoodFibsOfTheFrame) {
    std::mt19937 rng(3);
    Bytes frame;
    for (int i = 0; i < 12; ++i) frame = Concat({frame, fictest::RandomFib(rng)});
    auto find = [&](uint16_t flags) {
        uint8_t low = 0;
        return FindEnsembleInfo(frame.data(), flags, &low) ? int(low) : -1;
    };
    EXPECT_EQ(find(0xFFF1), -1);
    // FIG 0/0 behind two other FIGs in the last FIB of mode I, count low 77.
    const Bytes last = fictest::MakeFib({0x24, 1, 2, 3, 4, 0x21, 9, 0x05, 0x00, 0xE1, 0x23, 0x02, 77});
    std::copy(last.begin(), last.end(), frame.begin() + 11 * 32);
    EXPECT_EQ(find(0xFFF1), 77);
    int32_t fibIndex = -1;
    uint8_t low = 0;
    EXPECT_EQ(FindEnsembleInfo(frame.data(), 0xFFF1, &low, &fibIndex), 1);
    EXPECT_EQ(fibIndex, 11) << "the FIB, and so the CIF, that carried the count";
    EXPECT_EQ(find(0xFFE1), -1);  // that FIB failed its CRC
    EXPECT_EQ(find(0xFFF4), -1);  // mode IV has six FIBs
    // The first good FIB that holds one wins; mode bits that name no mode find nothing.
    std::copy(kWorkedFib.begin(), kWorkedFib.end(), frame.begin() + 2 * 32);
    EXPECT_EQ(find(0xFFF1), 234);
    EXPECT_EQ(find(0xDFF1), 77);
    for (uint16_t m : {0, 5, 6, 7}) EXPECT_EQ(find(uint16_t(0xFFF0 | m)), -1);
}

TEST(FindEnsembleInfo, FibsThatHoldNone) {
    // A FIB of zeros with the given bytes set.
    auto fib = [](std::initializer_list<std::pair<int, uint8_t>> set) {
        Bytes f(32, 0x00);
        for (auto [i, b] : set) f[i] = b;
        return f;
    };
    const std::pair<Bytes, int> cases[] = {
        // The end marker first, with a FIG 0/0 behind it.
        {fictest::MakeFib({0xFF, 0x05, 0x00, 0x12, 0x34, 0x00, 5}), -1},
        // Type 1 FIGs of 27 and 0 bytes walk to byte 29: a FIG 0/0 header there is no FIG.
        {fib({{0, 0x3B}, {28, 0x20}, {29, 0x05}}), -1},
        // FIG 0/0 at 25 would hold its count past the data field; at 24 it fits.
        {fib({{0, 0x37}, {24, 0x20}, {25, 0x05}, {29, 42}}), -1},
        {fib({{0, 0x37}, {24, 0x05}, {29, 42}}), 42},
    };
    for (const auto& [bytes, want] : cases) {
        uint8_t low = 0;
        EXPECT_EQ(FindEnsembleInfo(bytes.data(), 0x8002, &low) ? int(low) : -1, want);
    }
}

}  // namespace
