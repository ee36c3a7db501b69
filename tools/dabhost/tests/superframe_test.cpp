// The DAB+ superframe reader and the AU framings: the worked superframe of
// the format, the four header layouts, the decoder configuration of every
// listed parameter set (random bytes: the PAD tests' robustness loop).
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "reference_audio.h"
#include "superframe.h"

namespace {

using dabplus::AudioParameters;
using dabplus::Superframe;

// 48 kbit/s, 48 kHz output, SBR, stereo: three AUs of 200, 210 and 238
// payload bytes of 0x11, 0x22, 0x33, each followed by its CRC.
std::vector<uint8_t> WorkedSuperframe() {
    std::vector<uint8_t> sf(660);
    const uint8_t header[6] = {0x44, 0x7D, 0x70, 0x0D, 0x01, 0xA4};
    std::copy(header, header + 6, sf.begin());
    const int starts[4] = {6, 208, 420, 660};
    for (int k = 0; k < 3; ++k) {
        const int payload = starts[k + 1] - starts[k] - 2;
        std::fill(sf.begin() + starts[k], sf.begin() + starts[k] + payload, uint8_t(0x11 * (k + 1)));
        const uint16_t crc = dabplus::AuCrc(sf.data() + starts[k], payload);
        sf[size_t(starts[k] + payload)] = uint8_t(crc >> 8);
        sf[size_t(starts[k] + payload + 1)] = uint8_t(crc);
    }
    return sf;
}

// Writes the 12-bit start address of AU k (k >= 1) into a header.
void PutStart(std::vector<uint8_t>& sf, int k, int start) {
    const size_t byte = size_t(24 + 12 * (k - 1)) / 8;
    if (k % 2 == 1) {
        sf[byte] = uint8_t(start >> 4);
        sf[byte + 1] = uint8_t((sf[byte + 1] & 0x0F) | ((start & 0x0F) << 4));
    } else {
        sf[byte] = uint8_t((sf[byte] & 0xF0) | (start >> 8));
        sf[byte + 1] = uint8_t(start);
    }
}

TEST(Superframe, WorkedExampleAndEveryCrcByteChecked) {
    std::vector<uint8_t> sf = WorkedSuperframe();
    // The CRCs the format gives for the three AUs.
    EXPECT_EQ(sf[206] << 8 | sf[207], 0x0024);
    EXPECT_EQ(sf[418] << 8 | sf[419], 0x36FC);
    EXPECT_EQ(sf[658] << 8 | sf[659], 0xB664);

    Superframe out;
    ASSERT_TRUE(dabplus::ParseSuperframe(sf.data(), int(sf.size()), &out));
    EXPECT_TRUE(out.audio.dac48k && out.audio.sbr && out.audio.stereo && !out.audio.ps);
    ASSERT_EQ(out.auCount, 3);
    const int offsets[3] = {6, 208, 420}, payloads[3] = {200, 210, 238};
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(out.aus[k].offset, offsets[k]);
        EXPECT_EQ(out.aus[k].payloadBytes, payloads[k]);
        EXPECT_TRUE(out.aus[k].crcGood);
    }
    // A flipped bit anywhere in an AU, CRC included, fails that AU alone.
    for (int pos : {6, 205, 206, 207, 208, 419, 420, 659}) {
        std::vector<uint8_t> bad = sf;
        bad[size_t(pos)] ^= 0x80;
        ASSERT_TRUE(dabplus::ParseSuperframe(bad.data(), int(bad.size()), &out));
        for (int k = 0; k < 3; ++k)
            EXPECT_EQ(out.aus[k].crcGood, pos < offsets[k] || pos >= (k < 2 ? offsets[k + 1] : 660))
                << "byte " << pos << " AU " << k;
    }
}

TEST(Superframe, HeaderLayoutsAndStartAddressesThatDoNotFit) {
    struct Case {
        uint8_t byte2;
        int aus;
        int headerBytes;
        int coreRate;
    } cases[] = {{0x00, 4, 8, 32000}, {0x20, 2, 5, 16000}, {0x40, 6, 11, 48000}, {0x60, 3, 6, 24000}};
    for (const Case& c : cases) {
        // AUs of 20 bytes each after the header, addresses packed 12 bits each.
        std::vector<uint8_t> sf(size_t(c.headerBytes + 20 * c.aus), 0);
        sf[2] = c.byte2;
        for (int k = 1; k < c.aus; ++k) PutStart(sf, k, c.headerBytes + 20 * k);
        Superframe out;
        ASSERT_TRUE(dabplus::ParseSuperframe(sf.data(), int(sf.size()), &out)) << int(c.byte2);
        EXPECT_EQ(out.auCount, c.aus);
        EXPECT_EQ(out.audio.CoreRateHz(), c.coreRate);
        for (int k = 0; k < c.aus; ++k) EXPECT_EQ(out.aus[k].offset, c.headerBytes + 20 * k);
        // The last AU may not hold less than its CRC; the header must be whole.
        EXPECT_FALSE(dabplus::ParseSuperframe(sf.data(), c.headerBytes + 20 * (c.aus - 1) + 1, &out));
        EXPECT_EQ(out.auCount, 0);
        EXPECT_FALSE(dabplus::ParseSuperframe(sf.data(), c.headerBytes - 1, &out));
    }
    // Start addresses that fall back, or coincide, make the header unusable.
    std::vector<uint8_t> sf = WorkedSuperframe();
    Superframe out;
    sf[4] = 0x00, sf[5] = 0xC0;  // AU 2 at 0x0C0, before AU 1 at 0x0D0
    EXPECT_FALSE(dabplus::ParseSuperframe(sf.data(), int(sf.size()), &out));
    sf[5] = 0xD0;  // AU 2 where AU 1 starts
    EXPECT_FALSE(dabplus::ParseSuperframe(sf.data(), int(sf.size()), &out));
}

TEST(Superframe, DecoderConfigurationMatchesTheTableForEveryListedSet) {
    int listed = 0;
    for (int bits = 0; bits < 16; ++bits) {
        const uint8_t byte2 = uint8_t(bits << 3);
        const std::vector<uint8_t> table = reference::TableConfig(byte2);
        if (table.empty()) continue;
        ++listed;
        AudioParameters a;
        a.dac48k = byte2 & 0x40, a.sbr = byte2 & 0x20, a.stereo = byte2 & 0x10, a.ps = byte2 & 0x08;
        EXPECT_EQ(dabplus::DecoderConfig(a), table) << "byte 2 = " << int(byte2);
    }
    EXPECT_EQ(listed, 10);
}

TEST(Superframe, FramingsCarryTheirLengths) {
    AudioParameters a;
    a.dac48k = true, a.sbr = true, a.stereo = true;
    const std::vector<uint8_t> payload(300, 0xAB);
    std::vector<uint8_t> adts;
    ASSERT_TRUE(dabplus::AppendAdtsFrame(a, payload.data(), int(payload.size()), &adts));
    // Sync, MPEG-4 without CRC, LC at the 24 kHz core (index 6), 2 channels, 307 bytes.
    EXPECT_EQ(std::vector<uint8_t>(adts.begin(), adts.begin() + 7),
              (std::vector<uint8_t>{0xFF, 0xF1, 0x58, 0x80, 0x26, 0x7F, 0xFC}));
    std::vector<uint8_t> loas;
    ASSERT_TRUE(dabplus::AppendLoasFrame(a, payload.data(), int(payload.size()), &loas));
    EXPECT_EQ(loas[0], 0x56);
    EXPECT_EQ(((loas[1] & 0x1F) << 8 | loas[2]) + 3, int(loas.size()));
    // The stream configuration with the 25-bit hierarchical SBR
    // configuration (SBR object type, core rate index 6, 2 channels, output
    // rate index 3, AAC LC, 960-sample frames), then the length as 255 + 45
    // and the payload: 1 + 1 + 1 + 6 + 4 + 3 + 25 + 3 + 8 + 1 + 1 = 54 bits.
    EXPECT_EQ(loas.size(), 3 + (54 + 16 + 8 * 300 + 7) / 8u);
    // Bits 16..40 of the element hold the configuration: 00101 0110 0010 0011 00010 100.
    uint64_t bits = 0;
    for (int i = 3; i < 9; ++i) bits = (bits << 8) | loas[size_t(i)];
    EXPECT_EQ((bits >> (48 - 16 - 25)) & 0x1FFFFFF, 0b0010101100010001100010100u);
    EXPECT_FALSE(dabplus::AppendLoasFrame(a, payload.data(), 9000, &loas));
    EXPECT_FALSE(dabplus::AppendAdtsFrame(a, payload.data(), 8190, &adts));
}

}  // namespace
