// Error-only Reed-Solomon decoders of the outer codes, on the tables of
// gf_tables.h: RS(120,110) for the columns of a DAB+ superframe and
// RS(204,188) for transport packets and 12-column FEC tables.
//
// Word layout: position 0 is the word's first byte and the coefficient of the
// highest power of x. The information bytes come first, the parity bytes
// follow, highest power first, so the last parity byte is the coefficient of
// x^0. Both codes are shortened from length 255 and have the first root
// alpha^0.
//
// Every decoder works in place and reports 0 (clean or corrected) or a
// negative failure code. A failed word is left exactly as received.
#pragma once

#include <cstdint>

#include "delivery/gf_tables.h"

namespace mvdab {

// Failure codes; callers test only zero or not zero.
constexpr int32_t kRsAuxiliaryFull = -2;     // the auxiliary polynomial ran out of room
constexpr int32_t kRsDegreeMismatch = -3;    // locator degree differs from the iteration's length
constexpr int32_t kRsEvaluatorTop = -4;      // top evaluator coefficient not zero (RS(204,188) columns)
constexpr int32_t kRsRootCount = -5;         // roots found differ from the locator's degree
constexpr int32_t kRsRootShortened = -6;     // a root lies in the shortened part (RS(204,188))
constexpr int32_t kRsSyndromeMismatch = -7;  // the error pattern found does not explain the syndromes

// One per code. The table pointers are copied from gfTables by the init
// operation; the decoders fail if they are missing.
struct RsContext {
    uint8_t* data;                     // RS(204,188) column decode: the word's first byte (stride 12)
    uint8_t* parity;                   // the same word's first parity byte (stride 12)
    uint8_t* generatorRows;            // owned: 256 rows, row v holds v*c_k at byte k (12 or 16 bytes a row)
    const uint8_t* powerProductTable;  // gfTables, not owned
    const uint8_t* mulTable;           // gfTables, not owned
    const uint8_t* divTable;           // gfTables, not owned
    uint8_t* chienTable;               // RS(120,110) only, owned, see reed_solomon.cpp
};
extern RsContext rs120Context;
extern RsContext rs204Context;

// Allocate and fill what the context owns. 1, or 0 if an allocation fails or
// the GF(256) tables are missing (what was allocated stays until the free).
int32_t InitRs120();
void FreeRs120();
int32_t InitRs204();
void FreeRs204();

// RS(120,110) on a column whose bytes lie `stride` apart: 110 information
// bytes from `data`, 10 parity bytes from `parity`. Corrects up to 5 byte
// errors anywhere, parity included.
int32_t DecodeRs120Column(uint8_t* data, uint8_t* parity, int32_t stride);
// Columns 0..count-1 of a superframe of `stride` columns (120 rows of
// `stride` bytes): flags[c] = 1 if column c failed, else 0. Returns 1 if any
// column failed. A count of 0 or less touches nothing and returns 0.
int32_t DecodeRs120Columns(uint8_t* data, uint8_t* flags, int32_t stride, int32_t count);

// RS(204,188) on 188 contiguous bytes and their 16 parity bytes. Corrects up
// to 8 byte errors; errors in the parity bytes are found but left in place.
int32_t DecodeRs204Packet(uint8_t* data, uint8_t* parity);
// RS(204,188) on the word named by context->data and context->parity, bytes
// 12 apart (one column of a 12-column table).
int32_t DecodeRs204Column(RsContext* context);
// All 12 columns of a table: flags[c] = 1 if column c failed, else 0.
void DecodeRs204Table(uint8_t* data, uint8_t* parity, uint8_t* flags);

}  // namespace mvdab
