// The PAD reader against the transmitter's PAD encoder: labels and pictures
// sent through PAD fields of several sizes come out byte for byte (in MP2
// frames and DAB+ AUs: the end-to-end runs); damaged input is dropped and
// counted; all the host's readers of broadcast bytes on random input.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "generator/pad_encoder.h"
#include "generator/payload_sources.h"
#include "superframe.h"
#include "tools/ficparse/ensemble_print.h"
#include "tools/ficparse/tests/fig_writer.h"
#include "tools/pad/pad_decoder.h"

namespace {

using figwriter::Bytes;

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

// Every reader of broadcast bytes on the host side (FIC parser, PAD reader,
// DAB+ superframe reader) on random bytes and on real input with a few bytes
// changed, which reaches the deeper parsers: nothing impossible enters the
// FIC model, the printers cope and escape control bytes, found AUs tile the
// superframe; under ASan this also proves every read in range.
TEST(ParserRobustness, RandomAndMutatedInputStaysInBounds) {
    using figwriter::Fig02;
    const std::vector<Bytes> fibs = figwriter::PackFibs(
        {figwriter::Fig00(0x4FFF, 3, true, 19, 249, 17),
         figwriter::Fig01({{2, 416, true, 0, 0, 3, 84}, {1, 0, false, 63, 0, 0, 0}}),
         Fig02({{0xC222, 2, {{0, 0, 2, true, false}, {3, 24, 3, false, true}}}}, false),
         figwriter::Fig03({{4095, true, true, 60, 63, 1023}}), figwriter::Fig1(1, 0xC222, "Two", 0)});
    gen::PadEncoder encoder("robust", {{"r.png", 3, Picture(4000, 6)}});
    auto superframes = gen::MakeDabPlusSyntheticPayload(48, gen::DabPlusAudio(), 7);
    ASSERT_TRUE(superframes);
    std::mt19937 rng(11);
    ficparse::FicParser fic;
    pad::PadDecoder decoder;
    int superframesRead = 0;
    for (int r = 0; r < 40000; ++r) {
        const int reader = r % 4;  // FIB, PAD field, AU or MP2 frame, superframe
        Bytes bytes;
        if ((r / 4) % 2 == 1) {
            bytes.resize(reader == 0 ? 32 : rng() % (reader == 3 ? 2700 : 80));
            for (uint8_t& b : bytes) b = uint8_t(rng());
        } else {
            if (reader == 0) {
                bytes = fibs[rng() % fibs.size()];
            } else if (reader == 3) {
                bytes.resize(120 * 6);
                for (int part = 0; part < 5; ++part) superframes->NextLogicalFrame(bytes.data() + part * 144, 144);
                bytes.resize(110 * 6);
            } else {
                const gen::PadField field = encoder.Next(6 + int(rng() % 51));
                bytes.resize(gen::PadEncoder::PadBytes(field, 0));
                gen::PadEncoder::Write(field, 0, bytes.data() + bytes.size());
            }
            for (int m = 1 + int(rng() % 3); m > 0; --m) bytes[rng() % (reader == 0 ? 30 : bytes.size())] ^= uint8_t(rng());
        }
        if (reader == 0) fic.PushFib(bytes.data(), true);
        if (reader == 1) decoder.PushField(bytes.data(), bytes.size(), 0);
        if (reader == 2) r % 8 == 2 ? decoder.PushAu(bytes.data(), bytes.size()) : decoder.PushMp2Frame(bytes.data(), bytes.size());
        decoder.TakeObjects();
        dabplus::Superframe out;
        if (reader == 3 && dabplus::ParseSuperframe(bytes.data(), int(bytes.size()), &out)) {
            ++superframesRead;
            int end = out.audio.HeaderBytes();
            for (int k = 0; k < out.auCount; ++k, end += out.aus[k - 1].payloadBytes + dabplus::kAuCrcBytes)
                ASSERT_TRUE(out.aus[k].offset == end && out.aus[k].payloadBytes >= 0);
            ASSERT_EQ(end, int(bytes.size()));
        }
        if (r % 3989 != 0) continue;
        for (const auto& [id, s] : fic.ensemble().subChannels) ASSERT_TRUE(id < 64 && s.startAddress < 1024 && s.size < 1024);
        for (const auto& [id, s] : fic.ensemble().services) ASSERT_LE(s.components.size(), 15u);
        for (const char c : ficparse::EnsembleJson(fic.ensemble(), &fic.statistics())) ASSERT_GE(uint8_t(c), 0x20);
        ASSERT_FALSE(ficparse::EnsembleText(fic.ensemble(), &fic.statistics()).empty());
        if (r % 5 == 0) fic.Reset();
    }
    EXPECT_GT(superframesRead, 1000);
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
