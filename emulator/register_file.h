// The device's registers as bytes: demodulator pages 0 and 1 and the system
// registers, 256 of each. Every access takes one lock, so that the host's
// thread and the receiver's demodulation thread may call at the same time.
//
// Reset state (after MVA_BDAFilterInit): every register 0x00, except system
// register 4, which holds 0x04: the pin of the good-reception line starts in
// its other function and drives nothing.
//
// Registers with an effect:
//   page 1, 0x3E..0x3F  sample-rate offset, 14-bit two's complement, high byte
//                       first, ppm x 2^24 / 10^6: added to the rate of the
//                       converter's sample clock (see ClockResampler)
//   page 1, 0x01 bit 2  soft reset, counted on its falling edge
//   system 4, 3, 1 bit 2: the good-reception line is an output when bit 2 of
//                       addr 4 is clear and bit 2 of addr 3 set; its level is
//                       then bit 2 of addr 1, else it is low.
// All others are stored and read back only.
#pragma once

#include <cstdint>
#include <mutex>

namespace emu {

// Called with the new level when the good-reception line changes.
using LineObserver = void (*)(int32_t level);

class RegisterFile {
public:
    RegisterFile();
    // Back to the reset state.
    void Reset();

    // `count` consecutive registers from `addr`; 0 for a page other than 0 or
    // 1, a range outside 0..255, a null buffer or a count below 1.
    int32_t ReadDemod(int32_t page, int32_t addr, int32_t count, uint8_t* buffer);
    int32_t WriteDemod(int32_t page, int32_t addr, int32_t count, const uint8_t* buffer);
    int32_t ReadSystem(int32_t addr, int32_t count, uint8_t* buffer);
    int32_t WriteSystem(int32_t addr, int32_t count, const uint8_t* buffer);

    // The sample-rate offset register, ppm added to the converter's clock rate.
    double SampleRateCorrectionPpm();
    // Level of the good-reception line, 0 or 1.
    int32_t GoodReceptionLine();
    // Falling edges of the soft reset bit since the reset state.
    int32_t SoftResets();

    void SetLineObserver(LineObserver observer) { observer_ = observer; }

private:
    int32_t LineLevelLocked() const;

    std::mutex lock_;
    uint8_t demod_[2][256];    // demodulator registers by page
    uint8_t system_[256];      // system registers
    int32_t softResets_ = 0;   // soft reset pulses seen
    LineObserver observer_ = nullptr;
};

// The 14-bit two's complement code of the sample-rate register as ppm.
double SampleRateCodeToPpm(uint8_t high, uint8_t low);

}  // namespace emu
