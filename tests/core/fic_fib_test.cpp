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
    EXPECT_EQ(find(0xFFE1), -1);  // that FIB failed its CRC
    EXPECT_EQ(find(0xFFF4), -1);  // mode IV has six FIBs
    // The first good FIB that holds one wins; mode bits that name no mode find nothing.
    std::copy(kWorkedFib.begin(), kWorkedFib.end(), frame.begin() + 2 * 32);
    EXPECT_EQ(find(0xFFF1), 234);
    EXPECT_EQ(find(0xDFF1), 77);
    for (uint16_t m : {0, 5, 6, 7}) EXPECT_EQ(find(uint16_t(0xFFF0 | m)), -1);
}

TEST(FindEnsembleInfo, FibsThatHoldNone) {
    auto find = [](const Bytes& fib) {
        uint8_t low = 0;
        return FindEnsembleInfo(fib.data(), 0x8002, &low) ? int(low) : -1;
    };
    // The end marker first, with a FIG 0/0 behind it.
    EXPECT_EQ(find(fictest::MakeFib({0xFF, 0x05, 0x00, 0x12, 0x34, 0x00, 5})), -1);
    // Lengths that walk to byte 29: a FIG 0/0 header there is no FIG.
    Bytes fib(32, 0x00);
    fib[0] = 0x3B;  // type 1, 27 bytes: next header at 28
    fib[28] = 0x20; // type 1, empty: next at 29
    fib[29] = 0x05;
    EXPECT_EQ(find(fib), -1);
    // FIG 0/0 at 25 would hold its count past the data field; at 24 it fits.
    fib.assign(32, 0x00);
    fib[0] = 0x37;  // type 1, 23 bytes: next header at 24
    fib[24] = 0x20;
    fib[25] = 0x05;
    fib[29] = 42;
    EXPECT_EQ(find(fib), -1);
    fib[24] = 0x05;
    fib[25] = 0x00;
    EXPECT_EQ(find(fib), 42);
}

}  // namespace
