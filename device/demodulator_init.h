// Programming of the demodulator chip for raw sample output at 2.048 MS/s,
// with a part that depends on the tuner type.
#pragma once

#include <atomic>
#include <cstdint>

namespace mvdab {

// Tuner type delivered by the device at open (known: 1..6, 13, 14); 0 while
// the device is closed. Read without a lock by the tuner range query.
extern std::atomic<int32_t> tunerType;

// One register field: bits msb..lsb of register `addr` on `page`.
struct RegisterField {
    uint8_t page;
    uint8_t addr;
    uint8_t msb;
    uint8_t lsb;
};

// Replaces the bits of `field` by `value`: one read, then one write of the
// register. The 16-bit field (msb 15) spans `addr` and `addr + 1` and is read
// and written as two bytes, high byte first. A failed read skips the write, so
// that no guessed byte reaches the chip. 1, or 0 when an access failed.
int32_t WriteRegisterField(RegisterField field, uint32_t value);

// Writes the whole register set for the tuner type in `tunerType`. Every
// access is attempted even after a failure; 1 when all succeeded, else 0.
int32_t InitDemodulator();

// Bandwidth code handed to the tuner for a tuner type: 1 for type 2, else 6.
int32_t BandwidthCodeFor(int32_t type);
// 1 for the tuner types the chip set-up and the tuning know, else 0.
int32_t TunerTypeKnown(int32_t type);

}  // namespace mvdab
