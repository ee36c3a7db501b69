// The demodulator's register set-up for every tuner type, access by access,
// and the register formats of the sample-rate and frequency offsets.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "device/access_library.h"
#include "device/demodulator_init.h"
#include "device/tuning.h"
#include "tests/support/frame_harness.h"

namespace mvdab {
namespace {

using test::Device;

// The expected accesses, built with a model of the chip's registers (all 0
// after reset), in the fake device's log format.
class Expect {
public:
    std::vector<test::RegisterAccess> log;
    void Write(int page, int addr, std::initializer_list<int> bytes) {
        std::vector<uint8_t> b(bytes.begin(), bytes.end());
        for (size_t i = 0; i < b.size(); ++i) regs_[page][size_t(addr) + i] = b[i];
        log.push_back({'W', page, addr, b});
    }
    // Read-modify-write of bits msb..lsb; msb 15 is a 16-bit field over two
    // registers, written whole.
    void Field(int page, int addr, int msb, int lsb, int value) {
        if (msb == 15) {
            log.push_back({'R', page, addr, {regs_[page][addr], regs_[page][addr + 1]}});
            Write(page, addr, {value >> 8 & 0xFF, value & 0xFF});
            return;
        }
        const int mask = ((1 << (msb - lsb + 1)) - 1) << lsb;
        Bits(page, addr, mask, (value << lsb) & mask);
    }
    void Bits(int page, int addr, int clear, int set) {
        const int old = regs_[page][addr];
        log.push_back({'R', page, addr, {uint8_t(old)}});
        Write(page, addr, {(old & ~clear) | set});
    }

private:
    uint8_t regs_[2][256] = {};
};

// Read-modify-writes of {addr, msb, lsb, value} on one page, in order.
void Fields(Expect& e, int page, std::initializer_list<std::array<int, 4>> rows) {
    for (const auto& r : rows) e.Field(page, r[0], r[1], r[2], r[3]);
}

// The shared head of the IF profiles; `v` fills the rows that differ.
void ProfileHead(Expect& e, const int (&v)[6], bool rows19and20) {
    Fields(e, 1, {{0x12, 7, 0, v[0]}, {0x02, 0, 0, 0},    {0x03, 7, 0, v[1]}, {0xC7, 5, 1, v[2]},
                  {0x04, 4, 1, v[3]}, {0x05, 7, 7, 1},    {0xC8, 4, 0, v[4]}, {0x06, 5, 0, 0x35},
                  {0xC9, 5, 0, 0x21}, {0xCA, 5, 0, 0x21}, {0xCB, 7, 0, 0x00}, {0x07, 7, 0, 0x40},
                  {0xCD, 7, 0, 0x10}, {0xCE, 7, 0, 0x10}, {0x08, 7, 0, 0x80}, {0x09, 7, 0, 0x7F},
                  {0x0A, 7, 0, v[5]}, {0x0B, 7, 0, 0x7F}});
    if (rows19and20) Fields(e, 0, {{0x0E, 1, 1, 0}, {0x0E, 0, 0, 0}});
}

void ProfileTail(Expect& e, int x, int y) {
    e.Field(1, 0xE5, 0, 0, 0);
    e.Write(1, 0xD9, {0});
    e.Write(1, 0xDB, {0});
    Fields(e, 1, {{0xDD, 7, 0, x}, {0xDE, 7, 0, y}, {0xD8, 3, 0, 0x0C}, {0xE6, 3, 3, 0}, {0xD7, 0, 0, 1}});
}

std::string ExpectedSequence(int type) {
    Expect e;
    if (type == 1 || type == 2 || type == 3 || type == 5) {  // zero-IF tuners
        e.Write(0, 0x08, {0xCD});
        e.Write(1, 0xB1, {0x1F});
    }
    e.Write(1, 0x3E, {0, 0});
    e.Write(1, 0x15, {0});
    e.Write(1, 0x16, {0, 0, 0});
    if (type == 4) {
        e.Write(1, 0x19, {0x35, 0xD8, 0x2E});
    } else if (type == 14) {
        e.Write(1, 0x19, {0x38, 0x11, 0x12});
        e.Write(1, 0x15, {0x01});
    } else if ((type >= 1 && type <= 6) || type == 13) {
        e.Write(1, 0x19, {0, 0, 0});
    }
    e.Write(1, 0x9F, {0x03, 0x84, 0x00, 0x00});
    const int coefficients[20] = {0xCA, 0xDC, 0xD7, 0xD8, 0xE0, 0xF2, 0x0E, 0x35, 0x06, 0x50,
                                  0x9C, 0x0D, 0x71, 0x11, 0x14, 0x71, 0x74, 0x19, 0x41, 0xA5};
    for (int i = 0; i < 20; ++i) e.Write(1, 0x1C + i, {coefficients[i]});
    const int singles[9][3] = {{0, 0x17, 0x11}, {0, 0x18, 0x10}, {0, 0x19, 0x25}, {1, 0x92, 0x00}, {1, 0x93, 0xF0},
                               {1, 0x94, 0x0F}, {0, 0x61, 0x60}, {0, 0x20, 0x40}, {0, 0x06, type == 3 ? 0x90 : 0x80}};
    for (const auto& s : singles) e.Write(s[0], s[1], {s[2]});
    switch (type) {
        case 1:
            e.Bits(0, 0x0E, 0, 3);
            for (auto [addr, value] : std::vector<std::pair<int, int>>{
                     {0x08, 0x80}, {0x09, 0xB0}, {0x04, 0xDE}, {0xCB, 0x38}, {0x06, 0x20}, {0xC9, 0x80}, {0xCA, 0x80}})
                e.Write(1, addr, {value});
            break;
        case 2: e.Bits(0, 0x0E, 3, 0); break;
        case 3:
            e.Bits(0, 0x0E, 3, 0);
            e.Bits(0, 0x09, 0x0F, 0);
            ProfileHead(e, {0x39, 0x5A, 0x16, 0x06, 0x16, 0x9C}, false);
            e.Write(0, 0x11, {0xE9});
            e.Write(0, 0x12, {0xF4});
            break;
        case 4:
            ProfileHead(e, {0x39, 0x32, 0x16, 0x06, 0x16, 0x80}, true);
            Fields(e, 0, {{0x11, 15, 0, 0xE9D4}, {0x08, 6, 6, 0}, {0xB9, 3, 3, 0}});
            break;
        case 5:
            ProfileHead(e, {0x5A, 0x5A, 0x18, 0x08, 0x18, 0x80}, true);
            e.Field(0, 0x11, 15, 0, 0xE9D4);
            ProfileTail(e, 0x14, 0xEC);
            Fields(e, 0, {{0x0D, 7, 7, 1}, {0x10, 0, 0, 1}, {0x0D, 2, 2, 1}, {0x0D, 1, 0, 1}, {0x13, 0, 0, 0}});
            break;
        case 6:
        case 13:
            ProfileHead(e, {0x5A, 0x5A, 0x16, 0x06, 0x16, 0x80}, true);
            ProfileTail(e, 0x11, 0xEF);
            Fields(e, 0, {{0x08, 7, 7, 1}, {0x08, 6, 6, 1}});
            break;
        case 14:
            ProfileHead(e, {0x39, 0x40, 0x16, 0x08, 0x18, 0x80}, true);
            e.Field(0, 0x11, 15, 0, 0xE9F4);
            break;
        default: break;
    }
    e.Bits(1, 0x01, 0, 0x04);
    e.Write(1, 0x01, {0x00});
    return test::FormatLog(e.log);
}

class DeviceRegisters : public ::testing::Test {
protected:
    void Use(int32_t type) {
        test::ResetFakeDevice(type);
        test::InstallFakeDevice();
        Device().logAccesses = true;
        tunerType = type;
    }
    std::string Log() {
        std::string text = test::FormatLog(Device().log);
        Device().log.clear();
        return text;
    }
    void TearDown() override {
        UnbindAccessLibrary();
        tunerType = 0;
    }
};

TEST_F(DeviceRegisters, InitDemodulatorWritesTheSequenceOfEachTunerType) {
    for (int type : {1, 2, 3, 4, 5, 6, 13, 14, 7, 12, 15, 0}) {
        Use(type);
        EXPECT_EQ(InitDemodulator(), 1) << "type " << type;
        EXPECT_EQ(Log(), ExpectedSequence(type)) << "type " << type;
    }
}

TEST_F(DeviceRegisters, FailingWritesStillAttemptEveryLaterAccess) {
    Use(6);
    ASSERT_EQ(InitDemodulator(), 1);
    const size_t normalAccesses = Device().log.size();
    Use(6);
    Device().failWritePage = 1;
    Device().failWriteAddr = 0x3E;  // the first write after the zero-IF block
    EXPECT_EQ(InitDemodulator(), 0);
    EXPECT_EQ(Device().log.size(), normalAccesses);
}

TEST_F(DeviceRegisters, SampleRateAndFrequencyOffsetFormats) {
    // 14-bit two's complement of floor(ppm * 16.777216).
    const std::pair<float, int32_t> rates[] = {{0.0f, 0}, {1.0f, 16}, {-1.0f, 0x3FEF}, {-0.05f, 0x3FFF}, {-0.06f, 0x3FFE}};
    for (auto [ppm, code] : rates) EXPECT_EQ(SampleRateOffsetCode(ppm), code) << ppm;
    // 22-bit two's complement of floor(kHz * 145.6355...).
    const std::pair<float, int32_t> offsets[] = {{0.0f, 0}, {1.0f, 145}, {-1.0f, 0x3FFF6E}};
    for (auto [khz, word] : offsets) EXPECT_EQ(FrequencyOffsetWord(khz), word) << khz;
}

TEST_F(DeviceRegisters, OffsetsAreWrittenHighByteFirstWithASoftReset) {
    Use(1);
    Device().demod[1][0x01] = 0x41;
    clockWritten = 1;
    ASSERT_EQ(SetDemodulatorOffsets(-1.0f, -0.05f), 1);
    EXPECT_EQ(Log(), "W1:16=3F FF 6E\nW1:3E=3F FF\nR1:01=41\nW1:01=45\nW1:01=41\n");
    EXPECT_EQ(clockWritten, 0);
    // A failure leaves clockWritten as it was.
    clockWritten = 1;
    Device().failWritePage = 1;
    Device().failWriteAddr = 0x16;
    EXPECT_EQ(SetDemodulatorOffsets(0.0f, 3.0f), 0);
    EXPECT_EQ(clockWritten, 1);
    EXPECT_EQ(test::SampleRateRegister(), 50) << "the later writes were still made";
}

TEST_F(DeviceRegisters, ApplySampleRateOffsetWritesOnlyWhatChanges) {
    Use(1);
    Device().demod[1][0x3F] = 100;
    clockWritten = 0;
    // 0.05 ppm rounds to nothing.
    ASSERT_EQ(ApplySampleRateOffset(true, 0.05f), 1);
    EXPECT_EQ(clockWritten, 0);
    EXPECT_EQ(Log(), "R1:3E=00 64\n");
    ASSERT_EQ(ApplySampleRateOffset(true, 1.0f), 1);
    EXPECT_EQ(clockWritten, 1);
    EXPECT_EQ(Log(), "R1:3E=00 64\nW1:3F=74\n");
    // Below zero the 14 bits wrap in two's complement, and both bytes change.
    Device().demod[1][0x3F] = 5;
    ASSERT_EQ(ApplySampleRateOffset(true, -1.0f), 1);
    EXPECT_EQ(test::SampleRateRegister(), 5 - 17);
    EXPECT_EQ(Log(), "R1:3E=00 05\nW1:3E=3F\nW1:3F=F4\n");
}

TEST_F(DeviceRegisters, GoodReceptionLineUsesBitTwoOfThreeSystemRegisters) {
    Use(1);
    Device().system[4] = 0xFF;
    Device().system[1] = 0x01;
    ASSERT_EQ(SetGoodReceptionLine(1), 1);
    EXPECT_EQ(Device().system[4], 0xFB);
    EXPECT_EQ(Device().system[3], 0x04);
    EXPECT_EQ(Device().system[1], 0x05);
    ASSERT_EQ(SetGoodReceptionLine(0), 1);
    EXPECT_EQ(Device().system[1], 0x01);
    Device().failAllWrites = true;
    Device().log.clear();
    EXPECT_EQ(SetGoodReceptionLine(1), 0);
    EXPECT_EQ(Device().log.size(), 2u) << "stops at the first failed step";
}

TEST_F(DeviceRegisters, MissingEntriesAndBadArgumentsFailWithoutACall) {
    UnbindAccessLibrary();
    uint8_t b[4] = {};
    EXPECT_EQ(ReadDemodRegisters(1, 0x3E, 2, b), 0);
    EXPECT_EQ(WriteDemodRegister(1, 0x3E, 0), 0);
    EXPECT_EQ(SetGoodReceptionLine(1), 0);
    EXPECT_EQ(InitDemodulator(), 0);
    EXPECT_EQ(TuneDevice(227360, 6), 1);
    Use(1);
    EXPECT_EQ(ReadDemodRegisters(1, 0x3E, 2, nullptr), 0);
    EXPECT_EQ(ReadDemodRegisters(1, -1, 2, b), 0);
    EXPECT_EQ(ReadDemodRegisters(1, 0x3E, 0, b), 0);
    EXPECT_EQ(WriteRegisterField({1, 0x3E, 8, 0}, 0), 0) << "no bit 8 in a byte";
    EXPECT_EQ(WriteRegisterField({1, 0x3E, 2, 3}, 0), 0) << "lsb above msb";
    EXPECT_TRUE(Device().log.empty());
}

}  // namespace
}  // namespace mvdab
