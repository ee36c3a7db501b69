#include "device/demodulator_init.h"

#include "device/access_library.h"

namespace mvdab {

std::atomic<int32_t> tunerType;

namespace {

// One step of a tuner profile: a plain write of a whole register, or a field
// write (read, change the bits, write back).
struct ProfileStep {
    bool plain;            // true: write `value` without reading
    RegisterField field;   // for a plain write only page and addr count
    uint16_t value;
};

constexpr ProfileStep Plain(uint8_t page, uint8_t addr, uint8_t value) {
    return {true, {page, addr, 7, 0}, value};
}
constexpr ProfileStep Field(uint8_t page, uint8_t addr, uint8_t msb, uint8_t lsb, uint16_t value) {
    return {false, {page, addr, msb, lsb}, value};
}

// Profile 1: seven plain writes on page 1.
constexpr ProfileStep kProfile1[] = {
    Plain(1, 0x08, 0x80), Plain(1, 0x09, 0xB0), Plain(1, 0x04, 0xDE), Plain(1, 0xCB, 0x38),
    Plain(1, 0x06, 0x20), Plain(1, 0xC9, 0x80), Plain(1, 0xCA, 0x80),
};

// The head shared by profiles 3, 4, 5, 6 and 14: the values of rows 1, 3, 4,
// 5, 7 and 17 differ; profile 3 stops before the last two rows.
struct HeadValues {
    uint8_t row1, row3, row4, row5, row7, row17;
    bool bothSelectBits;  // rows 19 and 20 (page 0, 0x0E bits 1 and 0) are written
};

constexpr int32_t HeadSteps(const HeadValues& v, ProfileStep* out) {
    const ProfileStep steps[] = {
        Field(1, 0x12, 7, 0, v.row1), Field(1, 0x02, 0, 0, 0),    Field(1, 0x03, 7, 0, v.row3),
        Field(1, 0xC7, 5, 1, v.row4), Field(1, 0x04, 4, 1, v.row5), Field(1, 0x05, 7, 7, 1),
        Field(1, 0xC8, 4, 0, v.row7), Field(1, 0x06, 5, 0, 0x35),  Field(1, 0xC9, 5, 0, 0x21),
        Field(1, 0xCA, 5, 0, 0x21),   Field(1, 0xCB, 7, 0, 0x00),  Field(1, 0x07, 7, 0, 0x40),
        Field(1, 0xCD, 7, 0, 0x10),   Field(1, 0xCE, 7, 0, 0x10),  Field(1, 0x08, 7, 0, 0x80),
        Field(1, 0x09, 7, 0, 0x7F),   Field(1, 0x0A, 7, 0, v.row17), Field(1, 0x0B, 7, 0, 0x7F),
        Field(0, 0x0E, 1, 1, 0),      Field(0, 0x0E, 0, 0, 0),
    };
    const int32_t n = v.bothSelectBits ? 20 : 18;
    for (int32_t i = 0; i < n; ++i) out[i] = steps[i];
    return n;
}

// The tail of profiles 5 and 6, with its two values x and y.
constexpr int32_t TailSteps(uint8_t x, uint8_t y, ProfileStep* out) {
    const ProfileStep steps[] = {
        Field(1, 0xE5, 0, 0, 0), Plain(1, 0xD9, 0),          Plain(1, 0xDB, 0),
        Field(1, 0xDD, 7, 0, x), Field(1, 0xDE, 7, 0, y),    Field(1, 0xD8, 3, 0, 0x0C),
        Field(1, 0xE6, 3, 3, 0), Field(1, 0xD7, 0, 0, 1),
    };
    for (int32_t i = 0; i < 8; ++i) out[i] = steps[i];
    return 8;
}

constexpr int32_t kMaxProfileSteps = 40;
struct Profile {
    ProfileStep steps[kMaxProfileSteps];
    int32_t count;
};

constexpr Profile BuildProfile(int32_t number) {
    Profile p{};
    int32_t& n = p.count;
    switch (number) {
        case 3:
            n += HeadSteps({0x39, 0x5A, 0x16, 0x06, 0x16, 0x9C, false}, p.steps + n);
            p.steps[n++] = Plain(0, 0x11, 0xE9);
            p.steps[n++] = Plain(0, 0x12, 0xF4);
            break;
        case 4:
            n += HeadSteps({0x39, 0x32, 0x16, 0x06, 0x16, 0x80, true}, p.steps + n);
            p.steps[n++] = Field(0, 0x11, 15, 0, 0xE9D4);
            p.steps[n++] = Field(0, 0x08, 6, 6, 0);
            p.steps[n++] = Field(0, 0xB9, 3, 3, 0);
            break;
        case 5:
            n += HeadSteps({0x5A, 0x5A, 0x18, 0x08, 0x18, 0x80, true}, p.steps + n);
            p.steps[n++] = Field(0, 0x11, 15, 0, 0xE9D4);
            n += TailSteps(0x14, 0xEC, p.steps + n);
            p.steps[n++] = Field(0, 0x0D, 7, 7, 1);
            p.steps[n++] = Field(0, 0x10, 0, 0, 1);
            p.steps[n++] = Field(0, 0x0D, 2, 2, 1);
            p.steps[n++] = Field(0, 0x0D, 1, 0, 1);
            p.steps[n++] = Field(0, 0x13, 0, 0, 0);
            break;
        case 6:
            n += HeadSteps({0x5A, 0x5A, 0x16, 0x06, 0x16, 0x80, true}, p.steps + n);
            n += TailSteps(0x11, 0xEF, p.steps + n);
            p.steps[n++] = Field(0, 0x08, 7, 7, 1);
            p.steps[n++] = Field(0, 0x08, 6, 6, 1);
            break;
        case 14:
            n += HeadSteps({0x39, 0x40, 0x16, 0x08, 0x18, 0x80, true}, p.steps + n);
            p.steps[n++] = Field(0, 0x11, 15, 0, 0xE9F4);
            break;
        default:
            break;
    }
    return p;
}

constexpr Profile kProfile3 = BuildProfile(3);
constexpr Profile kProfile4 = BuildProfile(4);
constexpr Profile kProfile5 = BuildProfile(5);
constexpr Profile kProfile6 = BuildProfile(6);
constexpr Profile kProfile14 = BuildProfile(14);
static_assert(kProfile3.count == 20 && kProfile4.count == 23 && kProfile5.count == 34 &&
                  kProfile6.count == 30 && kProfile14.count == 21,
              "profile lengths");

// Runs the steps to their end; the AND of all results.
int32_t RunSteps(const ProfileStep* steps, int32_t count) {
    int32_t ok = 1;
    for (int32_t i = 0; i < count; ++i) {
        const ProfileStep& s = steps[i];
        const int32_t r = s.plain ? WriteDemodRegister(s.field.page, s.field.addr, uint8_t(s.value))
                                  : WriteRegisterField(s.field, s.value);
        ok &= r;
    }
    return ok;
}

// Read-change-write of bits of one register: clear `clear`, then set `set`.
int32_t ChangeBits(int32_t page, int32_t addr, uint8_t clear, uint8_t set) {
    uint8_t b = 0;
    if (ReadDemodRegisters(page, addr, 1, &b) != 1) return 0;
    return WriteDemodRegister(page, addr, uint8_t((b & ~clear) | set));
}

// The IF word of the tuner types that use a low IF, as the chip takes it.
constexpr uint8_t kIfWordZero[3] = {0x00, 0x00, 0x00};
constexpr uint8_t kIfWordType4[3] = {0x35, 0xD8, 0x2E};   // about -4,570 kHz
constexpr uint8_t kIfWordType14[3] = {0x38, 0x11, 0x12};  // about -3,570 kHz

// Resampler ratio 28.8 MHz / 2.048 MHz x 2^22, high byte first.
constexpr uint32_t kResamplerRatio = uint32_t(28800ull * (1ull << 22) / 2048ull);
static_assert(kResamplerRatio == 0x03840000u, "resampler ratio");
constexpr uint8_t kResamplerBytes[4] = {uint8_t(kResamplerRatio >> 24), uint8_t(kResamplerRatio >> 16),
                                        uint8_t(kResamplerRatio >> 8), uint8_t(kResamplerRatio)};

// Filter coefficients of page 1, 0x1C .. 0x2F.
constexpr uint8_t kFilterCoefficients[20] = {0xCA, 0xDC, 0xD7, 0xD8, 0xE0, 0xF2, 0x0E, 0x35, 0x06, 0x50,
                                             0x9C, 0x0D, 0x71, 0x11, 0x14, 0x71, 0x74, 0x19, 0x41, 0xA5};

bool ZeroIfType(int32_t type) { return type == 1 || type == 2 || type == 3 || type == 5; }

}  // namespace

int32_t TunerTypeKnown(int32_t type) {
    return (type >= 1 && type <= 6) || type == 13 || type == 14 ? 1 : 0;
}

int32_t BandwidthCodeFor(int32_t type) { return type == 2 ? 1 : 6; }

int32_t WriteRegisterField(RegisterField field, uint32_t value) {
    if (field.msb == 15 && field.lsb == 0) {
        uint8_t pair[2] = {0, 0};
        if (ReadDemodRegisters(field.page, field.addr, 2, pair) != 1) return 0;
        const uint8_t bytes[2] = {uint8_t(value >> 8), uint8_t(value)};
        return WriteDemodRegisters(field.page, field.addr, 2, bytes);
    }
    if (field.msb > 7 || field.lsb > field.msb) return 0;
    const uint8_t mask = uint8_t(((1u << (field.msb - field.lsb + 1)) - 1u) << field.lsb);
    uint8_t b = 0;
    if (ReadDemodRegisters(field.page, field.addr, 1, &b) != 1) return 0;
    b = uint8_t((b & ~mask) | ((value << field.lsb) & mask));
    return WriteDemodRegister(field.page, field.addr, b);
}

int32_t InitDemodulator() {
    const int32_t type = tunerType;
    const bool known = TunerTypeKnown(type) == 1;
    int32_t ok = 1;
    if (ZeroIfType(type)) {
        ok &= WriteDemodRegister(0, 0x08, 0xCD);
        ok &= WriteDemodRegister(1, 0xB1, 0x1F);
    }
    const uint8_t zeros[3] = {0, 0, 0};
    ok &= WriteDemodRegisters(1, 0x3E, 2, zeros);  // sample-rate offset
    ok &= WriteDemodRegister(1, 0x15, 0x00);
    ok &= WriteDemodRegisters(1, 0x16, 3, zeros);  // frequency offset word
    if (known) {
        const uint8_t* ifWord = type == 4 ? kIfWordType4 : type == 14 ? kIfWordType14 : kIfWordZero;
        ok &= WriteDemodRegisters(1, 0x19, 3, ifWord);
        if (type == 14) ok &= WriteDemodRegister(1, 0x15, 0x01);
    }
    ok &= WriteDemodRegisters(1, 0x9F, 4, kResamplerBytes);
    for (int32_t i = 0; i < 20; ++i) ok &= WriteDemodRegister(1, 0x1C + i, kFilterCoefficients[i]);
    ok &= WriteDemodRegister(0, 0x17, 0x11);
    ok &= WriteDemodRegister(0, 0x18, 0x10);
    ok &= WriteDemodRegister(0, 0x19, 0x25);
    ok &= WriteDemodRegister(1, 0x92, 0x00);
    ok &= WriteDemodRegister(1, 0x93, 0xF0);
    ok &= WriteDemodRegister(1, 0x94, 0x0F);
    ok &= WriteDemodRegister(0, 0x61, 0x60);
    ok &= WriteDemodRegister(0, 0x20, 0x40);
    // A type without a row of its own gets the common value.
    ok &= WriteDemodRegister(0, 0x06, type == 3 ? 0x90 : 0x80);

    switch (type) {
        case 1:
            ok &= ChangeBits(0, 0x0E, 0, 0x03);
            ok &= RunSteps(kProfile1, int32_t(sizeof kProfile1 / sizeof kProfile1[0]));
            break;
        case 2:
            ok &= ChangeBits(0, 0x0E, 0x03, 0);
            break;
        case 3:
            ok &= ChangeBits(0, 0x0E, 0x03, 0);
            ok &= ChangeBits(0, 0x09, 0x0F, 0);
            ok &= RunSteps(kProfile3.steps, kProfile3.count);
            break;
        case 4: ok &= RunSteps(kProfile4.steps, kProfile4.count); break;
        case 5: ok &= RunSteps(kProfile5.steps, kProfile5.count); break;
        case 6:
        case 13: ok &= RunSteps(kProfile6.steps, kProfile6.count); break;
        case 14: ok &= RunSteps(kProfile14.steps, kProfile14.count); break;
        default: break;
    }

    // Soft reset: pulse bit 2 of page 1, 0x01. After a failed read the
    // pulse is left out rather than written from a guessed byte.
    uint8_t control = 0;
    if (ReadDemodRegisters(1, 0x01, 1, &control) == 1) {
        ok &= WriteDemodRegister(1, 0x01, uint8_t(control | 0x04));
        ok &= WriteDemodRegister(1, 0x01, uint8_t(control & ~0x04));
    } else {
        ok = 0;
    }
    return ok;
}

}  // namespace mvdab
