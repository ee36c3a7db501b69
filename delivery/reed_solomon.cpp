#include "delivery/reed_solomon.h"

#include <array>
#include <bit>
#include <cstdlib>
#include <cstring>

namespace mvdab {

RsContext rs120Context;
RsContext rs204Context;

namespace {

static_assert(std::endian::native == std::endian::little, "the registers are read as little-endian words");

// Generator polynomial (x + alpha^0)(x + alpha^1)...(x + alpha^(n-1)),
// coefficient of x^0 first, the leading 1 not stored.
template <int32_t N>
constexpr std::array<uint8_t, N> MakeGenerator() {
    std::array<uint8_t, N + 1> g{};
    g[0] = 1;
    for (int32_t i = 0; i < N; ++i) {
        // g = g * (x + alpha^i)
        const uint8_t root = kExpTable[i];
        for (int32_t k = i + 1; k > 0; --k) {
            uint8_t product = 0;
            if (g[k] != 0 && root != 0) product = kExpTable[(kLogTable[g[k]] + kLogTable[root]) % 255];
            g[k] = uint8_t(g[k - 1] ^ product);
        }
        g[0] = g[0] == 0 ? 0 : kExpTable[(kLogTable[g[0]] + i) % 255];
    }
    std::array<uint8_t, N> low{};
    for (int32_t k = 0; k < N; ++k) low[k] = g[k];
    return low;
}

constexpr std::array<uint8_t, 10> kGenerator120 = MakeGenerator<10>();
constexpr std::array<uint8_t, 16> kGenerator204 = MakeGenerator<16>();
static_assert(kGenerator120[0] == 0xC1 && kGenerator120[1] == 0x9D && kGenerator120[9] == 0xD8,
              "RS(120,110) generator C1 9D 71 5F 5E C7 6F 9F C2 D8");
static_assert(kGenerator204[0] == 0x3B && kGenerator204[1] == 0x24 && kGenerator204[14] == 0x0D,
              "RS(204,188) generator 3B 24 32 62 E5 29 41 A3 08 1E D1 44 BD 68 0D 3B");

// The two codes. T is the index of the locator's last coefficient: the
// locator holds T + 1 coefficients.
struct Code {
    int32_t parityBytes;     // n
    int32_t infoBytes;       // K
    int32_t lastLocator;     // T
    int32_t rowBytes;        // width of a generatorRows row
    int32_t capability;      // byte errors the code corrects
};
constexpr Code kCode120 = {10, 110, 7, 12, 5};
constexpr Code kCode204 = {16, 188, 10, 16, 8};

constexpr int32_t kMaxParity = 16;
constexpr int32_t kMaxLocator = 11;

// chienTable of RS(120,110): 10 blocks of 256 rows of 128 bytes. Byte
// (k-1)*32768 + v*128 + p, for p in 0..119, holds v * alpha^(k*(p+136)):
// the k-th term of the locator at the inverse locator alpha^(p+136) of word
// position p (136 = 255 - 119). Bytes 120..127 of a row pad it to a power of
// two and are never read.
constexpr int32_t kChienBlockBytes = 32768;
constexpr int32_t kChienRowBytes = 128;
constexpr int32_t kChienTableBytes = 10 * kChienBlockBytes;
constexpr int32_t kRs120InverseBase = 136;

uint64_t Load64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}
uint32_t Load32(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

// Where a decode reads and writes: information byte i at data[i*dataStride],
// parity byte m at parity[m*parityStride].
struct Word {
    uint8_t* data;
    int32_t dataStride;
    uint8_t* parity;
    int32_t parityStride;
};

// Step 1 and 2: the remainder of the received information bytes through the
// encoder, met with the received parity. r[k] is the coefficient of x^k of
// received(x) mod g(x); all zero for a codeword. The register is held in two
// 64-bit words and shifted up one byte per information byte.
bool Remainder(const RsContext& ctx, const Code& code, const Word& w, uint8_t* r) {
    uint64_t lo = 0;
    uint64_t hi = 0;
    const int32_t topShift = 8 * (code.parityBytes - 1 - 8);  // bit position of r[n-1] in hi
    const uint8_t* rows = ctx.generatorRows;
    const uint8_t* in = w.data;
    for (int32_t i = 0; i < code.infoBytes; ++i, in += w.dataStride) {
        const uint32_t v = uint8_t(*in ^ uint8_t(hi >> topShift));
        hi = (hi << 8) | (lo >> 56);
        lo <<= 8;
        const uint8_t* row = rows + v * code.rowBytes;
        lo ^= Load64(row);
        hi ^= code.rowBytes == 16 ? Load64(row + 8) : Load32(row + 8);
    }
    uint8_t reg[16];
    std::memcpy(reg, &lo, 8);
    std::memcpy(reg + 8, &hi, 8);
    uint8_t any = 0;
    const int32_t n = code.parityBytes;
    for (int32_t k = 0; k < n; ++k) {
        r[k] = uint8_t(reg[k] ^ w.parity[(n - 1 - k) * w.parityStride]);
        any |= r[k];
    }
    return any != 0;
}

// Step 3: S[j] = sum over k of r[k] * alpha^(k*j), j = 0..15, one row of
// powerProductTable per remainder byte.
void Syndromes(const RsContext& ctx, const Code& code, const uint8_t* r, uint8_t* syndromes) {
    uint64_t s0 = 0;
    uint64_t s1 = 0;
    for (int32_t k = 0; k < code.parityBytes; ++k) {
        const uint8_t* row = ctx.powerProductTable + k * 4096 + r[k] * 16;
        s0 ^= Load64(row);
        s1 ^= Load64(row + 8);
    }
    std::memcpy(syndromes, &s0, 8);
    std::memcpy(syndromes + 8, &s1, 8);
}

// Step 4 and 5: inversionless Berlekamp-Massey. Writes the locator into
// lambda[0..T] and returns its degree D, or a failure code.
int32_t SolveKeyEquation(const RsContext& ctx, const Code& code, const uint8_t* S, uint8_t* lambda) {
    const uint8_t* mul = ctx.mulTable;
    const int32_t T = code.lastLocator;
    uint8_t B[kMaxLocator] = {};
    for (int32_t k = 0; k <= T; ++k) lambda[k] = 0;
    lambda[0] = 1;
    B[0] = 1;
    uint8_t gamma = 1;
    int32_t L = 0;
    for (int32_t r = 0; r < code.parityBytes; ++r) {
        uint8_t d = 0;
        const int32_t top = r < T ? r : T;
        for (int32_t k = 0; k <= top; ++k) d ^= mul[lambda[k] * 256 + S[r - k]];
        if (B[T] != 0 && d != 0) return kRsAuxiliaryFull;
        for (int32_t k = T; k > 0; --k) B[k] = B[k - 1];
        B[0] = 0;
        const bool keep = d == 0 || r < 2 * L;
        for (int32_t k = 0; k <= T; ++k) {
            const uint8_t t = uint8_t(mul[d * 256 + B[k]] ^ mul[gamma * 256 + lambda[k]]);
            if (!keep) B[k] = lambda[k];
            lambda[k] = t;
        }
        if (!keep) {
            gamma = d;
            L = r - L + 1;
        }
    }
    int32_t D = T;
    while (D > 0 && lambda[D] == 0) --D;
    if (D != L) return kRsDegreeMismatch;
    return D;
}

// Omega = Lambda * S mod x^(T+1).
void Evaluator(const RsContext& ctx, const Code& code, const uint8_t* lambda, const uint8_t* S, uint8_t* omega) {
    const uint8_t* mul = ctx.mulTable;
    for (int32_t i = 0; i <= code.lastLocator; ++i) {
        uint8_t v = 0;
        for (int32_t k = 0; k <= i; ++k) v ^= mul[lambda[k] * 256 + S[i - k]];
        omega[i] = v;
    }
}

// Omega at x by Horner's rule from coefficient D down.
uint8_t EvaluateAt(const uint8_t* mul, const uint8_t* omega, int32_t D, uint8_t x) {
    uint8_t acc = 0;
    for (int32_t i = D; i >= 0; --i) acc = uint8_t(mul[acc * 256 + x] ^ omega[i]);
    return acc;
}

// The roots found, with what the error values need.
struct Roots {
    int32_t count;
    int32_t logLocator[kMaxLocator];  // log of the locator X of each error position
    uint8_t oddSum[kMaxLocator];      // X^-1 * Lambda'(X^-1)
    uint8_t inverse[kMaxLocator];     // X^-1
};

// The error pattern must reproduce every syndrome: sum over the errors of
// e * X^j = S[j] for j in 0..n-1. The locator and evaluator checks above
// already hold for any word within the code's capability; beyond it, the
// 8- and 11-coefficient locators can describe a pattern that is no error
// pattern of this word at all, and correcting it would hand back a word that
// is not a codeword. This check turns that case into a failure.
bool PatternExplainsSyndromes(const RsContext& ctx, const Code& code, const Roots& roots, const uint8_t* values,
                              const uint8_t* S) {
    const uint8_t* mul = ctx.mulTable;
    uint8_t sum[kMaxParity] = {};
    for (int32_t e = 0; e < roots.count; ++e) {
        const uint8_t x = kExpTable[roots.logLocator[e]];
        uint8_t term = values[e];
        for (int32_t j = 0; j < code.parityBytes; ++j) {
            sum[j] ^= term;
            term = mul[term * 256 + x];
        }
    }
    return std::memcmp(sum, S, code.parityBytes) == 0;
}

// Step 7 for RS(120,110): the four-positions-at-a-time search over the 120
// real positions through chienTable.
void FindRoots120(const RsContext& ctx, const uint8_t* lambda, int32_t D, Roots* roots) {
    const uint8_t* chien = ctx.chienTable;
    const uint32_t base = uint32_t(lambda[0]) * 0x01010101u;
    roots->count = 0;
    for (int32_t p4 = 0; p4 < 120; p4 += 4) {
        uint32_t sum = base;
        for (int32_t k = 1; k <= D; ++k) sum ^= Load32(chien + (k - 1) * kChienBlockBytes + lambda[k] * kChienRowBytes + p4);
        // A zero byte anywhere in the word.
        if (((sum - 0x01010101u) & ~sum & 0x80808080u) == 0) continue;
        for (int32_t b = 0; b < 4; ++b) {
            if (((sum >> (8 * b)) & 0xFF) != 0) continue;
            const int32_t p = p4 + b;
            if (roots->count == kMaxLocator) {
                ++roots->count;  // more roots than any locator holds: counted, never stored
                return;
            }
            uint8_t odd = 0;
            for (int32_t k = 1; k <= D; k += 2) odd ^= chien[(k - 1) * kChienBlockBytes + lambda[k] * kChienRowBytes + p];
            const int32_t logInverse = (p + kRs120InverseBase) % 255;
            roots->logLocator[roots->count] = (255 - logInverse) % 255;
            roots->inverse[roots->count] = kExpTable[logInverse];
            roots->oddSum[roots->count] = odd;
            ++roots->count;
        }
    }
}

// Step 7 for RS(204,188): a step-by-step search over the 255 positions of
// the unshortened word, the locator's terms multiplied on by alpha^k per
// step. Coefficients 9 and 10 are dropped first, so no locator beyond the
// code's 8 errors can find enough roots. Returns 0 or kRsRootShortened.
int32_t FindRoots204(const RsContext& ctx, const uint8_t* lambdaIn, Roots* roots) {
    const uint8_t* mul = ctx.mulTable;
    static constexpr uint8_t kStart[kMaxLocator] = {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80, 0x1D, 0x00, 0x00};
    uint8_t term[kMaxLocator];
    for (int32_t k = 0; k < kMaxLocator; ++k) term[k] = mul[lambdaIn[k] * 256 + kStart[k]];
    roots->count = 0;
    for (int32_t p = 0; p < 255; ++p) {
        const uint8_t even = uint8_t(term[0] ^ term[2] ^ term[4] ^ term[6] ^ term[8] ^ term[10]);
        const uint8_t odd = uint8_t(term[1] ^ term[3] ^ term[5] ^ term[7] ^ term[9]);
        if (even == odd) {
            if (p < 51) return kRsRootShortened;
            if (roots->count < kMaxLocator) {
                roots->logLocator[roots->count] = 254 - p;
                roots->inverse[roots->count] = kExpTable[(p + 1) % 255];
                roots->oddSum[roots->count] = odd;
            }
            ++roots->count;
        }
        for (int32_t k = 1; k < kMaxLocator; ++k) term[k] = mul[term[k] * 256 + kExpTable[k]];
    }
    return 0;
}

enum class Variant { Rs120, Rs204Packet, Rs204Column };

int32_t Decode(const RsContext& ctx, Variant variant, const Word& w) {
    const Code& code = variant == Variant::Rs120 ? kCode120 : kCode204;
    if (ctx.generatorRows == nullptr || ctx.mulTable == nullptr) return kRsAuxiliaryFull;
    if (variant == Variant::Rs120 && ctx.chienTable == nullptr) return kRsAuxiliaryFull;
    uint8_t r[kMaxParity];
    if (!Remainder(ctx, code, w, r)) return 0;

    uint8_t S[16];
    Syndromes(ctx, code, r, S);
    uint8_t lambda[kMaxLocator];
    const int32_t D = SolveKeyEquation(ctx, code, S, lambda);
    if (D < 0) return D;
    uint8_t omega[kMaxLocator];
    Evaluator(ctx, code, lambda, S, omega);
    if (variant == Variant::Rs204Column && omega[10] != 0) return kRsEvaluatorTop;

    Roots roots;
    if (variant == Variant::Rs120) {
        FindRoots120(ctx, lambda, D, &roots);
    } else {
        const int32_t result = FindRoots204(ctx, lambda, &roots);
        if (result != 0) return result;
    }
    if (roots.count != D) return kRsRootCount;

    // Forney: with the first root alpha^0 the value is
    // Omega(X^-1) / (X^-1 * Lambda'(X^-1)).
    uint8_t values[kMaxLocator];
    for (int32_t e = 0; e < roots.count; ++e) {
        values[e] = ctx.divTable[EvaluateAt(ctx.mulTable, omega, D, roots.inverse[e]) * 256 + roots.oddSum[e]];
    }
    if (!PatternExplainsSyndromes(ctx, code, roots, values, S)) return kRsSyndromeMismatch;

    // Word position of each error: RS(120,110) counts 0..119 from the first
    // byte (locator alpha^(119-p)), RS(204,188) 0..203 behind the 51
    // shortened positions. Parity bytes of RS(204,188) are not corrected.
    const int32_t length = code.infoBytes + code.parityBytes;
    for (int32_t e = 0; e < roots.count; ++e) {
        const int32_t position = length - 1 - roots.logLocator[e];
        if (position < code.infoBytes) {
            w.data[position * w.dataStride] ^= values[e];
        } else if (variant == Variant::Rs120) {
            w.parity[(position - code.infoBytes) * w.parityStride] ^= values[e];
        }
    }
    return 0;
}

int32_t TakeTables(RsContext* ctx) {
    ctx->powerProductTable = gfTables.powerProductTable;
    ctx->mulTable = gfTables.mulTable;
    ctx->divTable = gfTables.divTable;
    return ctx->powerProductTable != nullptr && ctx->mulTable != nullptr && ctx->divTable != nullptr;
}

template <size_t N>
int32_t FillGeneratorRows(RsContext* ctx, const std::array<uint8_t, N>& generator, int32_t rowBytes) {
    if (ctx->generatorRows == nullptr) ctx->generatorRows = static_cast<uint8_t*>(std::malloc(256 * rowBytes));
    if (ctx->generatorRows == nullptr) return 0;
    std::memset(ctx->generatorRows, 0, 256 * rowBytes);
    for (int32_t v = 0; v < 256; ++v) {
        for (size_t k = 0; k < N; ++k) ctx->generatorRows[v * rowBytes + k] = ctx->mulTable[v * 256 + generator[k]];
    }
    return 1;
}

void Release(uint8_t** p) {
    std::free(*p);
    *p = nullptr;
}

void ClearContext(RsContext* ctx) {
    ctx->data = nullptr;
    ctx->parity = nullptr;
    ctx->powerProductTable = nullptr;
    ctx->mulTable = nullptr;
    ctx->divTable = nullptr;
}

}  // namespace

int32_t InitRs120() {
    RsContext& c = rs120Context;
    if (TakeTables(&c) == 0) return 0;
    if (FillGeneratorRows(&c, kGenerator120, kCode120.rowBytes) == 0) return 0;
    if (c.chienTable == nullptr) c.chienTable = static_cast<uint8_t*>(std::calloc(kChienTableBytes, 1));
    if (c.chienTable == nullptr) return 0;
    for (int32_t k = 1; k <= 10; ++k) {
        for (int32_t v = 0; v < 256; ++v) {
            uint8_t* row = c.chienTable + (k - 1) * kChienBlockBytes + v * kChienRowBytes;
            for (int32_t p = 0; p < 120; ++p) {
                row[p] = c.mulTable[v * 256 + kExpTable[(k * (p + kRs120InverseBase)) % 255]];
            }
        }
    }
    return 1;
}

void FreeRs120() {
    Release(&rs120Context.generatorRows);
    Release(&rs120Context.chienTable);
    ClearContext(&rs120Context);
}

int32_t InitRs204() {
    RsContext& c = rs204Context;
    if (TakeTables(&c) == 0) return 0;
    return FillGeneratorRows(&c, kGenerator204, kCode204.rowBytes);
}

void FreeRs204() {
    Release(&rs204Context.generatorRows);
    ClearContext(&rs204Context);
}

int32_t DecodeRs120Column(uint8_t* data, uint8_t* parity, int32_t stride) {
    return Decode(rs120Context, Variant::Rs120, Word{data, stride, parity, stride});
}

int32_t DecodeRs120Columns(uint8_t* data, uint8_t* flags, int32_t stride, int32_t count) {
    int32_t anyFailed = 0;
    for (int32_t c = 0; c < count; ++c) {
        const int32_t failed = DecodeRs120Column(data + c, data + 110 * stride + c, stride) != 0;
        flags[c] = uint8_t(failed);
        anyFailed |= failed;
    }
    return anyFailed;
}

int32_t DecodeRs204Packet(uint8_t* data, uint8_t* parity) {
    return Decode(rs204Context, Variant::Rs204Packet, Word{data, 1, parity, 1});
}

int32_t DecodeRs204Column(RsContext* context) {
    return Decode(*context, Variant::Rs204Column, Word{context->data, 12, context->parity, 12});
}

void DecodeRs204Table(uint8_t* data, uint8_t* parity, uint8_t* flags) {
    for (int32_t c = 0; c < 12; ++c) {
        rs204Context.data = data + c;
        rs204Context.parity = parity + c;
        flags[c] = uint8_t(DecodeRs204Column(&rs204Context) != 0);
    }
}

}  // namespace mvdab
