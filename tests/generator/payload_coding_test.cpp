// CRC, firecode and Reed-Solomon encoder against published values.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "generator/payload_coding.h"
#include "tests/generator/payload_checks.h"

namespace {

std::vector<uint8_t> Hex(const char* text) {
    std::vector<uint8_t> out;
    for (const char* p = text; *p;) {
        if (*p == ' ') { ++p; continue; }
        out.push_back(static_cast<uint8_t>(std::strtoul(std::string(p, 2).c_str(), nullptr, 16)));
        p += 2;
    }
    return out;
}

TEST(PayloadCoding, CrcCheckValues) {
    const uint8_t digits[] = "123456789";
    EXPECT_EQ(gen::CrcCcitt16(digits, 9), 0xD64E);
    // A FIB with FIG 0/0 and FIG 1/0 "TEST ENSEMBLE", and an empty one.
    const auto fib = Hex("05 00 E1 23 04 EA 35 00 E1 23 54 45 53 54 20 45 4E 53 45 4D 42 4C 45 20 20 20 FF 00 FF 00");
    EXPECT_EQ(gen::CrcCcitt16(fib.data(), 30), 0xF5A2);
    uint8_t empty[30] = {0xFF};
    EXPECT_EQ(gen::CrcCcitt16(empty, 30), 0xA8A8);
    // The 24-byte padding packet: 22 zero bytes.
    const uint8_t zeros[22] = {};
    EXPECT_EQ(gen::CrcCcitt16(zeros, 22), 0x604B);
}

TEST(PayloadCoding, FirecodeExampleAndResidue) {
    uint8_t sf[11] = {0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(gen::SuperframeFirecode(sf + 2), 0x38D4);
    std::mt19937 rng(5);
    for (int trial = 0; trial < 200; ++trial) {
        for (int i = 2; i < 11; ++i) sf[i] = static_cast<uint8_t>(rng());
        const uint16_t f = gen::SuperframeFirecode(sf + 2);
        sf[0] = static_cast<uint8_t>(f >> 8);
        sf[1] = static_cast<uint8_t>(f);
        ASSERT_EQ(check::FirecodeResidue(sf), 0u);
        sf[2 + trial % 9] ^= static_cast<uint8_t>(1 << (trial % 8));
        ASSERT_NE(check::FirecodeResidue(sf), 0u);  // any single bit error shows
    }
}

TEST(PayloadCoding, ReedSolomonGeneratorsAndExamples) {
    const gen::RsEncoder rs10(10), rs16(16);
    EXPECT_EQ(rs10.Generator(), Hex("C1 9D 71 5F 5E C7 6F 9F C2 D8 01"));
    EXPECT_EQ(rs16.Generator(), Hex("3B 24 32 62 E5 29 41 A3 08 1E D1 44 BD 68 0D 3B 01"));

    uint8_t data[188], parity[16];
    for (int i = 0; i < 110; ++i) data[i] = static_cast<uint8_t>(i);
    rs10.Encode(data, 110, 1, parity, 1);
    EXPECT_EQ(std::vector<uint8_t>(parity, parity + 10), Hex("A2 8A 69 0C EA 30 BD D4 A3 5C"));

    data[0] = 0x47;
    for (int i = 1; i < 188; ++i) data[i] = static_cast<uint8_t>(7 * i);
    rs16.Encode(data, 188, 1, parity, 1);
    EXPECT_EQ(std::vector<uint8_t>(parity, parity + 16), Hex("78 96 7B F8 AF BD 8E 9C DE 78 69 D1 D8 C7 38 57"));
}

}  // namespace
