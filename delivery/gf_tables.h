// The field GF(256) of the outer codes: field polynomial x^8 + x^4 + x^3 +
// x^2 + 1 (0x11D), primitive element alpha = 2. Every product and quotient of
// the Reed-Solomon decoders is one byte fetched from these tables; no field
// arithmetic happens at decode time.
//
//   mulTable[a*256 + b]            a * b            (row 0 and column 0 are 0)
//   divTable[a*256 + b]            a / b            (a / 0 reads as 0)
//   powerProductTable[i*4096 + v*16 + j]
//                                  v * alpha^(i*j)  for i, j in 0..15
//
// A block i of powerProductTable turns the coefficient v of x^i into its
// contributions to the values of a polynomial at alpha^0 .. alpha^15: the
// exclusive or of 16 such rows evaluates a polynomial of degree 15 at 16
// points in 16 row fetches.
#pragma once

#include <array>
#include <cstdint>

namespace mvdab {

constexpr uint32_t kFieldPolynomial = 0x11D;

// expTable[i] = alpha^i for i in 0..254; expTable[255] = 1.
constexpr std::array<uint8_t, 256> MakeExpTable() {
    std::array<uint8_t, 256> t{};
    uint32_t x = 1;
    for (int32_t i = 0; i < 255; ++i) {
        t[i] = uint8_t(x);
        x <<= 1;
        if (x & 0x100) x ^= kFieldPolynomial;
    }
    t[255] = 1;
    return t;
}
inline constexpr std::array<uint8_t, 256> kExpTable = MakeExpTable();

// logTable[alpha^i] = i; logTable[0] = 255, a filler never read as a logarithm.
constexpr std::array<uint8_t, 256> MakeLogTable() {
    std::array<uint8_t, 256> t{};
    t[0] = 255;
    for (int32_t i = 0; i < 255; ++i) t[kExpTable[i]] = uint8_t(i);
    return t;
}
inline constexpr std::array<uint8_t, 256> kLogTable = MakeLogTable();

static_assert(kExpTable[8] == 0x1D && kExpTable[11] == 0xE8, "alpha^8 reduces by the field polynomial");
static_assert(kLogTable[2] == 1 && kLogTable[0x8E] == 254, "alpha^-1 = 0x8E");

constexpr int32_t kGfTableBytes = 65536;

// One instance for the library; the large tables are owned from open to close
// and read-only in between.
struct GfTables {
    const uint8_t* expTable;       // 256 bytes, constant data
    const uint8_t* logTable;       // 256 bytes, constant data
    uint8_t* mulTable;             // 65,536 bytes, heap
    uint8_t* divTable;             // 65,536 bytes, heap
    uint8_t* powerProductTable;    // 65,536 bytes, heap
};
extern GfTables gfTables;

// Allocates and fills the three large tables. 1, or 0 if an allocation fails
// (what was allocated stays until FreeGfTables).
int32_t BuildGfTables();
// Releases powerProductTable, divTable, mulTable; empty pointers are skipped.
void FreeGfTables();

}  // namespace mvdab
