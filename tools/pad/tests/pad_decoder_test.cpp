// The PAD reader against the transmitter's PAD encoder: labels and pictures
// sent through PAD fields of several sizes, MP2 frames and DAB+ AUs come out
// byte for byte; damaged and random input is dropped without harm.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "generator/pad_encoder.h"
#include "generator/payload_sources.h"
#include "superframe.h"
#include "tools/pad/pad_decoder.h"

namespace {

std::vector<uint8_t> Picture(size_t bytes, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> v(bytes);
    for (uint8_t& b : v) b = static_cast<uint8_t>(rng());
    return v;
}

// Runs `frames` PAD fields of up to `maxXpad` X-PAD bytes, with `gap` bytes
// between X-PAD and F-PAD, from the encoder into the decoder.
void Carry(gen::PadEncoder& encoder, pad::PadDecoder& decoder, int frames, int maxXpad, int gap,
           std::vector<pad::MotObject>* objects) {
    for (int f = 0; f < frames; ++f) {
        const gen::PadField field = encoder.Next(maxXpad);
        // Audio bytes in front of the field, as in a frame.
        std::vector<uint8_t> bytes(20 + gen::PadEncoder::PadBytes(field, gap), 0x5A);
        gen::PadEncoder::Write(field, gap, bytes.data() + bytes.size());
        decoder.PushField(bytes.data(), bytes.size(), static_cast<size_t>(gap));
        for (auto& o : decoder.TakeObjects()) objects->push_back(std::move(o));
    }
}

TEST(PadRoundTrip, LabelsAndSlidesThroughFieldsOfEverySize) {
    const std::string longAscii(128, 'x');
    struct Case {
        std::string label;
        int maxXpad, gap;
    } cases[] = {
        {"Now playing: a song", 56, 4},
        {"Grüße aus Köln – ¡Olé!", 24, 2},   // UTF-8 sent as such (no en dash in EBU Latin)
        {"Ö1 Café: 5 € or $5", 16, 2},       // sent in EBU Latin
        {longAscii, 6, 0},                    // 8 segments through the smallest field
        {"A", 13, 4},
    };
    const gen::PadSlide slides[] = {{"first.jpg", 1, Picture(3000, 1)}, {"second.png", 3, Picture(777, 2)}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label + " max " + std::to_string(c.maxXpad));
        gen::PadEncoder encoder(c.label, {slides[0], slides[1]});
        pad::PadDecoder decoder;
        std::vector<pad::MotObject> objects;
        Carry(encoder, decoder, 6000, c.maxXpad, c.gap, &objects);
        EXPECT_EQ(decoder.label(), c.label);
        EXPECT_EQ(decoder.labelVersion(), 1u);
        EXPECT_EQ(gen::PadEncoder::LabelGroups(c.label, false)[0][1] >> 4, &c == &cases[1] ? 15 : 0);  // charset
        ASSERT_GE(objects.size(), 2u);
        for (size_t k = 0; k < 2; ++k) {
            EXPECT_EQ(objects[k].name, slides[k].name);
            EXPECT_EQ(objects[k].contentType, 2);
            EXPECT_EQ(objects[k].contentSubType, slides[k].contentSubType);
            EXPECT_EQ(objects[k].body, slides[k].bytes);
        }
        EXPECT_EQ(decoder.counts().labelCrcFailures + decoder.counts().groupCrcFailures + decoder.counts().malformed,
                  0u);
    }
}

TEST(PadRoundTrip, ToggleAndClearChangeTheLabel) {
    pad::PadDecoder decoder;
    auto send = [&](const std::vector<std::vector<uint8_t>>& groups) {
        for (const auto& g : groups) {
            // One 24-byte subfield starting a label data group (at most 20 bytes), then filler.
            gen::PadField field;
            field.xpad.assign(2 + 24, 0);
            field.xpad[0] = static_cast<uint8_t>(5 << 5 | 2);
            std::copy(g.begin(), g.end(), field.xpad.begin() + 2);
            field.fpad[0] = 0x20, field.fpad[1] = 0x02;
            std::vector<uint8_t> bytes(gen::PadEncoder::PadBytes(field, 0));
            gen::PadEncoder::Write(field, 0, bytes.data() + bytes.size());
            decoder.PushField(bytes.data(), bytes.size(), 0);
        }
    };
    send(gen::PadEncoder::LabelGroups("first text, two segments", false));
    EXPECT_EQ(decoder.label(), "first text, two segments");
    // A new toggle discards the old segments: the new text's last segment,
    // arriving first, must not complete a mix of old and new.
    auto groups = gen::PadEncoder::LabelGroups("second text, in two parts", true);
    send({groups[1]});
    EXPECT_EQ(decoder.label(), "first text, two segments");
    send({groups[0]});
    EXPECT_EQ(decoder.label(), "second text, in two parts");
    send(gen::PadEncoder::LabelGroups("", false));
    EXPECT_EQ(decoder.label(), "");
    EXPECT_EQ(decoder.labelVersion(), 3u);
}

TEST(PadRoundTrip, DamagedGroupsAreDroppedAndCounted) {
    gen::PadEncoder encoder("Damaged?", {{"p.jpg", 1, Picture(500, 3)}});
    pad::PadDecoder decoder;
    for (int f = 0; f < 400; ++f) {
        const gen::PadField field = encoder.Next(56);
        std::vector<uint8_t> bytes(gen::PadEncoder::PadBytes(field, 0));
        gen::PadEncoder::Write(field, 0, bytes.data() + bytes.size());
        // Every X-PAD gets one bit flipped in its last data byte (first byte of the area).
        if (bytes.size() > 8) bytes[0] ^= 0x01;
        decoder.PushField(bytes.data(), bytes.size(), 0);
    }
    EXPECT_EQ(decoder.label(), "");
    EXPECT_TRUE(decoder.TakeObjects().empty());
    EXPECT_GT(decoder.counts().labelCrcFailures + decoder.counts().groupCrcFailures, 0u);
}

TEST(PadRoundTrip, Mp2FramesCarryLabelAndSlideLeavingTheRestOfTheFrame) {
    const char* dir = std::getenv("MVDAB_SAMPLES_DIR");
    if (!dir) GTEST_SKIP() << "MVDAB_SAMPLES_DIR not set";
    const std::string path = std::string(dir) + "/speech-mp2-128k.mp2";
    auto plain = gen::MakeMp2Payload(path, 128);
    auto withPad = gen::MakeMp2Payload(path, 128);
    ASSERT_TRUE(plain && withPad);
    const gen::PadSlide slide{"slide.png", 3, Picture(2500, 4)};
    ASSERT_TRUE(withPad->AttachPad(std::make_shared<gen::PadEncoder>("MP2 label", std::vector{slide})));
    pad::PadDecoder decoder;
    std::vector<pad::MotObject> objects;
    std::vector<uint8_t> a(384), b(384);
    for (int f = 0; f < 200; ++f) {
        plain->NextLogicalFrame(a.data(), a.size());
        withPad->NextLogicalFrame(b.data(), b.size());
        // Header and the audio before the X-PAD (at most 56 bytes) are the file's; so is the ScF-CRC.
        ASSERT_EQ(std::memcmp(a.data(), b.data(), 384 - 62), 0);
        ASSERT_EQ(std::memcmp(a.data() + 378, b.data() + 378, 4), 0);
        decoder.PushMp2Frame(b.data(), b.size());
        for (auto& o : decoder.TakeObjects()) objects.push_back(std::move(o));
    }
    EXPECT_EQ(decoder.label(), "MP2 label");
    ASSERT_FALSE(objects.empty());
    EXPECT_EQ(objects[0].body, slide.bytes);
}

TEST(PadRoundTrip, DabPlusAusCarryLabelAndSlide) {
    gen::DabPlusAudio audio;  // HE-AAC 48 kHz stereo: 3 AUs per superframe
    const int kbps = 48, s = kbps / 8;
    auto payload = gen::MakeDabPlusSyntheticPayload(kbps, audio, 7);
    ASSERT_TRUE(payload);
    const gen::PadSlide slide{"plus.jpg", 1, Picture(1800, 5)};
    ASSERT_TRUE(payload->AttachPad(std::make_shared<gen::PadEncoder>("DAB+ label ÄÖÜ", std::vector{slide})));
    pad::PadDecoder decoder;
    std::vector<pad::MotObject> objects;
    std::vector<uint8_t> sf(120 * s);
    for (int k = 0; k < 60; ++k) {
        for (int part = 0; part < 5; ++part) payload->NextLogicalFrame(sf.data() + part * 24 * s, 24 * s);
        dabplus::Superframe parsed;
        ASSERT_TRUE(dabplus::ParseSuperframe(sf.data(), 110 * s, &parsed));
        for (int i = 0; i < parsed.auCount; ++i) {
            ASSERT_TRUE(parsed.aus[i].crcGood);
            decoder.PushAu(sf.data() + parsed.aus[i].offset, static_cast<size_t>(parsed.aus[i].payloadBytes));
        }
        for (auto& o : decoder.TakeObjects()) objects.push_back(std::move(o));
    }
    EXPECT_EQ(decoder.label(), "DAB+ label ÄÖÜ");
    ASSERT_FALSE(objects.empty());
    EXPECT_EQ(objects[0].body, slide.bytes);
    EXPECT_EQ(objects[0].name, "plus.jpg");
}

TEST(PadDecoderRobustness, RandomAndMutatedInputNeverReadsOutOfBounds) {
    const int rounds = 20000;
    std::mt19937 rng(11);
    gen::PadEncoder encoder("robust", {{"r.png", 3, Picture(4000, 6)}});
    pad::PadDecoder decoder;
    for (int r = 0; r < rounds; ++r) {
        std::vector<uint8_t> bytes;
        if (r % 2 == 0) {
            // A real field with a few bytes changed: reaches the deeper parsers.
            const gen::PadField field = encoder.Next(6 + static_cast<int>(rng() % 51));
            bytes.resize(gen::PadEncoder::PadBytes(field, 0));
            gen::PadEncoder::Write(field, 0, bytes.data() + bytes.size());
            for (int m = static_cast<int>(rng() % 3); m > 0; --m) bytes[rng() % bytes.size()] ^= uint8_t(1u << (rng() % 8));
        } else {
            bytes.resize(rng() % 80);
            for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
        }
        switch (r % 3) {
        case 0: decoder.PushField(bytes.data(), bytes.size(), 0); break;
        case 1: decoder.PushAu(bytes.data(), bytes.size()); break;
        default: decoder.PushMp2Frame(bytes.data(), bytes.size()); break;
        }
        decoder.TakeObjects();
    }
}

TEST(PadLabelText, CharacterSets) {
    const uint8_t latin[] = {'A', 0x0A, 'B', 0x1F, 0x8E, 'C', 0x0B, 0x00, 0x97, 0x24, 0xA9};
    EXPECT_EQ(pad::LabelText(latin, sizeof latin, 0), "A B¡C?öł€");
    const uint8_t badUtf8[] = {'x', 0xC3, 0x28, 0xE2, 0x82, 0xAC};
    EXPECT_EQ(pad::LabelText(badUtf8, sizeof badUtf8, 15), "x?(€");
    const uint8_t ucs2[] = {0x00, 'a', 0x20, 0xAC, 0xD8, 0x00, 0x00};
    EXPECT_EQ(pad::LabelText(ucs2, sizeof ucs2, 6), "a€?");
}

}  // namespace
