// GF(256) tables and the two Reed-Solomon decoders against the transmitter's
// own encoder (generator/payload_coding.h), which shares no table with them.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "delivery/reed_solomon.h"
#include "generator/payload_coding.h"

namespace mvdab {
namespace {

struct RsTables : ::testing::Test {
    static void SetUpTestSuite() {
        ASSERT_EQ(BuildGfTables(), 1);
        ASSERT_EQ(InitRs120(), 1);
        ASSERT_EQ(InitRs204(), 1);
    }
    static void TearDownTestSuite() {
        FreeRs204();
        FreeRs120();
        FreeGfTables();
    }
};

TEST_F(RsTables, FieldTablesAgreeWithTheTransmittersArithmetic) {
    const GfTables& g = gfTables;
    EXPECT_EQ(g.mulTable[0x80 * 256 + 2], 0x1D);
    EXPECT_EQ(g.divTable[0x1D * 256 + 2], 0x80);
    EXPECT_EQ(g.divTable[1 * 256 + 2], 0x8E);
    for (int a = 0; a < 256; ++a) {
        for (int b = 0; b < 256; ++b) {
            ASSERT_EQ(g.mulTable[a * 256 + b], gen::GfMultiply(uint8_t(a), uint8_t(b))) << a << "*" << b;
            // a / 0 and 0 / b read as 0; otherwise the quotient undoes the product.
            const uint8_t q = g.divTable[a * 256 + b];
            ASSERT_EQ(a == 0 || b == 0 ? q : gen::GfMultiply(q, uint8_t(b)), a == 0 || b == 0 ? 0 : a) << a << "/" << b;
        }
    }
}

// A code under test: its decoder, applied to a contiguous word of n bytes.
struct CodeCase {
    const char* name;
    int length;     // n
    int parity;     // n - k
    int capability; // t
    bool correctsParity;
};
constexpr CodeCase kRs120 = {"RS(120,110)", 120, 10, 5, true};
constexpr CodeCase kRs204 = {"RS(204,188)", 204, 16, 8, false};

int DecodeWord(const CodeCase& c, uint8_t* word) {
    if (c.length == 120) return DecodeRs120Column(word, word + 110, 1);
    return DecodeRs204Packet(word, word + 188);
}

std::vector<uint8_t> Encode(const CodeCase& c, std::vector<uint8_t> info) {
    const gen::RsEncoder encoder(c.parity);
    info.resize(c.length);
    encoder.Encode(info.data(), c.length - c.parity, 1, info.data() + c.length - c.parity, 1);
    return info;
}

// The generator's coefficients, highest first, are the parity of a single 1
// in the last information place; a second word per code from counting bytes.
TEST_F(RsTables, PublishedParityDecodesCleanAndUnchanged) {
    struct Vector {
        CodeCase code;
        int ramp;  // information byte i is ramp * i, or only the last one is 1
        std::vector<uint8_t> parity;
    };
    const Vector vectors[] = {
        {kRs120, 0, {0xD8, 0xC2, 0x9F, 0x6F, 0xC7, 0x5E, 0x5F, 0x71, 0x9D, 0xC1}},
        {kRs120, 1, {0xA2, 0x8A, 0x69, 0x0C, 0xEA, 0x30, 0xBD, 0xD4, 0xA3, 0x5C}},
        {kRs204, 0, {0x3B, 0x0D, 0x68, 0xBD, 0x44, 0xD1, 0x1E, 0x08, 0xA3, 0x41, 0x29, 0xE5, 0x62, 0x32, 0x24, 0x3B}},
        {kRs204, 7, {0x78, 0x96, 0x7B, 0xF8, 0xAF, 0xBD, 0x8E, 0x9C, 0xDE, 0x78, 0x69, 0xD1, 0xD8, 0xC7, 0x38, 0x57}},
    };
    for (const Vector& v : vectors) {
        const int k = v.code.length - v.code.parity;
        std::vector<uint8_t> word(k, 0);
        for (int i = 0; i < k; ++i) word[i] = uint8_t(v.ramp * i);
        if (v.ramp == 0) word.back() = 1;
        if (v.ramp == 7) word[0] = 0x47;
        word.insert(word.end(), v.parity.begin(), v.parity.end());
        const std::vector<uint8_t> sent = word;
        EXPECT_EQ(DecodeWord(v.code, word.data()), 0) << v.code.name;
        EXPECT_EQ(word, sent) << v.code.name;
        // One flipped parity byte is found.
        word[k + 3] ^= 0x40;
        EXPECT_EQ(DecodeWord(v.code, word.data()), 0) << v.code.name;
        EXPECT_TRUE(!v.code.correctsParity || word == sent) << v.code.name;
    }
}

// Random words with 1 .. t + 3 errors at distinct places: up to t always
// correct; beyond t the decoder fails with the word untouched, or (rarely)
// lands on another codeword within t of the received word, never on a word
// that is not one. RS(204,188) leaves the parity as received, RS(120,110)
// corrects it too.
TEST_F(RsTables, UpToTErrorsAlwaysCorrectBeyondFailOrLandOnACodeword) {
    constexpr int kWords = 300;
    for (const CodeCase& c : {kRs120, kRs204}) {
        const int k = c.length - c.parity;
        for (int errors = 1; errors <= c.capability + 3; ++errors) {
            SCOPED_TRACE(std::string(c.name) + ", " + std::to_string(errors) + " errors");
            std::mt19937 rng(1000u * errors + c.length);
            int miscorrected = 0;
            for (int n = 0; n < kWords; ++n) {
                std::vector<uint8_t> info(k);
                for (auto& b : info) b = uint8_t(rng());
                const std::vector<uint8_t> sent = Encode(c, info);
                std::vector<uint8_t> word = sent;
                std::vector<int> positions(word.size());
                std::iota(positions.begin(), positions.end(), 0);
                std::shuffle(positions.begin(), positions.end(), rng);
                for (int e = 0; e < errors; ++e) word[positions[e]] ^= uint8_t(1 + rng() % 255);
                const std::vector<uint8_t> received = word;
                if (DecodeWord(c, word.data()) != 0) {
                    ASSERT_GT(errors, c.capability);
                    ASSERT_EQ(word, received) << "a failed word was changed";
                    continue;
                }
                // The decoded information re-encoded is the codeword decided on.
                const std::vector<uint8_t> decided = Encode(c, std::vector<uint8_t>(word.begin(), word.begin() + k));
                int distance = 0;
                for (size_t i = 0; i < decided.size(); ++i) distance += decided[i] != received[i];
                ASSERT_LE(distance, c.capability);
                ASSERT_TRUE(c.correctsParity ? word == decided : std::equal(word.begin() + k, word.end(), received.begin() + k));
                if (decided != sent) ++miscorrected;
            }
            // Beyond t a miscorrection needs the received word within t of
            // another codeword: a few in ten thousand at most.
            EXPECT_LE(miscorrected * 100, errors <= c.capability ? 0 : kWords);
        }
    }
}

}  // namespace
}  // namespace mvdab
