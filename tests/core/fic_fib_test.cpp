// The library's own reading of FIBs: the CRC check with its running mask, and
// the search for the CIF count of FIG 0/0 in the good FIBs of a frame.
#include <gtest/gtest.h>

#include <vector>

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

Bytes Concat(const std::vector<Bytes>& fibs) {
    Bytes all;
    for (const Bytes& f : fibs) all.insert(all.end(), f.begin(), f.end());
    return all;
}

TEST(CheckFibCrc, CountsFailuresAndShiftsTheMask) {
    mvdab::mode.transmissionMode = 2;
    mvdab::mode.parameters = mvdab::kModeTable[2];  // four FIBs a CIF
    Bytes empty(32, 0x00);
    empty[0] = 0xFF;
    empty[30] = empty[31] = 0xA8;
    Bytes broken = kWorkedFib;
    broken[12] ^= 0x04;
    const Bytes cif = Concat({kWorkedFib, broken, empty, broken});
    uint32_t mask = 1;
    EXPECT_EQ(mvdab::CheckFibCrc(cif.data(), &mask), 2);
    EXPECT_EQ(mask, 0b11010u);
    mvdab::mode.transmissionMode = 0;
    mvdab::mode.parameters = mvdab::kModeTable[0];  // three
    mask = 0;
    EXPECT_EQ(mvdab::CheckFibCrc(cif.data(), &mask), 1);
    EXPECT_EQ(mask, 0b101u);
}

TEST(FindEnsembleInfo, WalksTheGoodFibsOfTheFrame) {
    std::mt19937 rng(3);
    std::vector<Bytes> fibs;
    for (int i = 0; i < 12; ++i) fibs.push_back(fictest::RandomFib(rng));
    uint8_t low = 0;

    // No FIG 0/0 anywhere.
    EXPECT_EQ(FindEnsembleInfo(Concat(fibs).data(), 0xFFF1, &low), 0);

    // Behind other FIGs, in the last FIB of mode I.
    Bytes figs = {0x24, 1, 2, 3, 4, 0x21, 9};
    const Bytes info = fictest::Fig00(0xE123, 2, 77);
    figs.insert(figs.end(), info.begin(), info.end());
    fibs[11] = fictest::MakeFib(figs);
    EXPECT_EQ(FindEnsembleInfo(Concat(fibs).data(), 0xFFF1, &low), 1);
    EXPECT_EQ(low, 77);
    // Not if that FIB failed its CRC, nor if it lies beyond the mode's FIBs.
    EXPECT_EQ(FindEnsembleInfo(Concat(fibs).data(), 0xFFE1, &low), 0);
    EXPECT_EQ(FindEnsembleInfo(Concat(fibs).data(), 0xFFF4, &low), 0);  // mode IV: six FIBs
    // The first good FIB that holds one wins.
    fibs[2] = kWorkedFib;
    EXPECT_EQ(FindEnsembleInfo(Concat(fibs).data(), 0xFFF1, &low), 1);
    EXPECT_EQ(low, 234);
    EXPECT_EQ(FindEnsembleInfo(Concat(fibs).data(), 0xDFF1, &low), 1);
    EXPECT_EQ(low, 77);
    // Mode bits that name no mode find nothing.
    for (uint16_t m : {0, 5, 6, 7}) EXPECT_EQ(FindEnsembleInfo(Concat(fibs).data(), uint16_t(0xFFF0 | m), &low), 0);
}

TEST(FindEnsembleInfo, FibsThatHoldNone) {
    uint8_t low = 99;
    // A FIB whose first byte is the end marker, with a FIG 0/0 behind it.
    Bytes marker = fictest::MakeFib({0xFF});
    const Bytes info = fictest::Fig00(0x1234, 0, 5);
    std::copy(info.begin(), info.end(), marker.begin() + 1);
    EXPECT_EQ(FindEnsembleInfo(marker.data(), 0x8002, &low), 0);
    // Lengths that walk to byte 29: a FIG 0/0 header there is no FIG.
    Bytes late(32, 0x00);
    late[0] = 0x3B;   // type 1, 27 bytes: next header at 28
    late[28] = 0x20;  // type 1, no bytes: next header at 29
    late[29] = 0x05;  // would read as FIG 0/0 with byte 30 as its extension
    late[30] = 0x00;
    EXPECT_EQ(FindEnsembleInfo(late.data(), 0x8002, &low), 0);
    // A FIG 0/0 header whose count would lie past the data field.
    Bytes cut(32, 0x00);
    cut[0] = 0x37;    // type 1, 23 bytes: next header at 24
    cut[24] = 0x20;   // type 1, no bytes: next at 25
    cut[25] = 0x05;
    cut[26] = 0x00;
    EXPECT_EQ(FindEnsembleInfo(cut.data(), 0x8002, &low), 0);
    cut[24] = 0x05;   // now FIG 0/0 at 24: its count at byte 29
    cut[25] = 0x00;
    cut[29] = 42;
    EXPECT_EQ(FindEnsembleInfo(cut.data(), 0x8002, &low), 1);
    EXPECT_EQ(low, 42);
}

}  // namespace
