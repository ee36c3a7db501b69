// The host's FIC parser: the CRC, the short-form table, every FIG type it
// reads into the ensemble model, malformed and unknown FIGs (random ones:
// the PAD tests' robustness loop), what is kept out of the model, completeness, the
// label character sets and the printers.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <tuple>

#include "tools/ficparse/ebu_latin.h"
#include "tools/ficparse/ensemble_print.h"
#include "tools/ficparse/fic_parser.h"
#include "tools/ficparse/label_text.h"
#include "tools/ficparse/tests/fig_writer.h"

using namespace figwriter;
using ficparse::Ensemble;
using ficparse::FicParser;
using ficparse::Transport;

namespace {

// FIG 0/0 and FIG 1/0 of a published example, with its CRC F5 A2.
const Bytes kWorkedFib = {0x05, 0x00, 0xE1, 0x23, 0x04, 0xEA, 0x35, 0x00, 0xE1, 0x23, 0x54,
                          0x45, 0x53, 0x54, 0x20, 0x45, 0x4E, 0x53, 0x45, 0x4D, 0x42, 0x4C,
                          0x45, 0x20, 0x20, 0x20, 0xFF, 0x00, 0xFF, 0x00, 0xF5, 0xA2};

void Push(FicParser& parser, const std::vector<Bytes>& figs) {
    for (const Bytes& fib : PackFibs(figs)) parser.PushFib(fib.data(), true);
}
FicParser Parsed(const std::vector<Bytes>& figs) {
    FicParser parser;
    Push(parser, figs);
    return parser;
}

// transport, type, sub-channel, SCId, packet address, data groups, primary, CA
using ComponentFields = std::tuple<Transport, int, int, int, int, bool, bool, bool>;
ComponentFields Fields(const ficparse::Component& c) {
    return {c.transport, c.type, c.subChannelId, c.serviceComponentId, c.packetAddress, c.dataGroups, c.primary,
            c.conditionalAccess};
}

}  // namespace

TEST(FicParser, WorkedFibAndCrc) {
    const uint8_t digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(ficparse::FibCrc(digits, 9), 0xD64E);
    FicParser parser;
    parser.PushFibsCheckingCrc(kWorkedFib.data(), 32);
    const auto& e = parser.ensemble();
    EXPECT_EQ(e.id, 0xE123);
    EXPECT_EQ(e.cifCountHigh * 250 + e.cifCountLow, 1234);
    EXPECT_EQ(e.occurrenceChange, -1);
    EXPECT_EQ(e.label.text, "TEST ENSEMBLE");
    EXPECT_EQ(e.label.shortText, "TEST ENS");
    EXPECT_EQ(parser.statistics().SeenText(), "0/0 1/0");
    // Any single flipped bit and the FIB is not read.
    for (int bit = 0; bit < 256; ++bit) {
        Bytes broken = kWorkedFib;
        broken[bit / 8] ^= uint8_t(0x80 >> bit % 8);
        FicParser other;
        other.PushFibsCheckingCrc(broken.data(), 32);
        EXPECT_FALSE(other.ensemble().idKnown) << "bit " << bit;
        EXPECT_EQ(other.statistics().fibsBad, 1u) << "bit " << bit;
    }
}

// Every kind of entry, with labels and packet data sent before their services.
TEST(FicParser, WholeEnsemble) {
    const FicParser parser = Parsed({
        Fig1(1, 0xC221, "Radio One", 0xF000),
        Fig03({{17, false, false, 5, 9, 513}}),
        Fig00(0x4FFF, 3, true, 19, 249, 17),
        Fig01({{1, 0, false, 63, 0, 0, 0}, {2, 416, true, 0, 0, 3, 84}}),
        Fig01({{3, 500, true, 0, 1, 4, 45}, {9, 863, true, 0, 0, 2, 8}, {63, 0, true, 0, 1, 1, 1023}}),
        Fig02({{0xC221, 0, {{0, 63, 1, true, false}}}, {0xC222, 2, {{0, 0, 2, true, false}, {1, 24, 3, false, true}}}},
              false),
        Fig02({{0xE0C12345u, 0, {{3, 17, 0, true, false}, {3, 4095, 0, false, false}}}}, true),
        Fig1(0, 0x4FFF, "Ensemble \"X\"", 0),
        Fig1(1, 0xC222, "Two", 0),
        Fig1(5, 0xE0C12345u, "Data", 0x8000),
        Fig03({{4095, true, true, 60, 63, 1023}}),
    });
    const auto& e = parser.ensemble();
    EXPECT_EQ(std::tuple(e.id, e.changeFlags, e.alarm, e.cifCountHigh * 250 + e.cifCountLow, e.occurrenceChange),
              std::tuple(0x4FFF, 3, true, 4999, 17));
    EXPECT_EQ(e.label.text, "Ensemble \"X\"");

    struct Want {
        int id, start, size;
        const char* protection;
        int bitRate;
    };
    EXPECT_EQ(e.subChannels.size(), 5u);
    for (const Want& w : {Want{1, 0, 416, "UEP 1", 384}, Want{2, 416, 84, "EEP 3-A", 112}, Want{3, 500, 45, "EEP 4-B", 96},
                          Want{9, 863, 8, "EEP 2-A", 8}, Want{63, 0, 1023, "EEP 1-B", 0}}) {
        ASSERT_EQ(e.subChannels.count(w.id), 1u) << w.id;
        const auto& s = e.subChannels.at(w.id);
        EXPECT_EQ(std::tuple(s.startAddress, s.size, s.ProtectionText(), s.bitRate),
                  std::tuple(w.start, w.size, std::string(w.protection), w.bitRate))
            << w.id;
    }

    ASSERT_EQ(e.services.size(), 3u);
    const auto& one = e.services.at(0xC221);
    EXPECT_EQ(one.label.text, "Radio One");
    EXPECT_EQ(one.label.shortText, "Radi");
    const auto& two = e.services.at(0xC222);
    EXPECT_EQ(two.conditionalAccessId, 2);
    const auto& data = e.services.at(0xE0C12345u);
    EXPECT_TRUE(data.longId);
    EXPECT_EQ(data.label.text, "Data");
    ASSERT_EQ(one.components.size(), 1u);
    ASSERT_EQ(two.components.size(), 2u);
    ASSERT_EQ(data.components.size(), 2u);
    EXPECT_EQ(Fields(one.components[0]), ComponentFields(Transport::StreamAudio, 63, 1, -1, -1, false, true, false));
    EXPECT_EQ(Fields(two.components[1]), ComponentFields(Transport::StreamData, 24, 3, -1, -1, false, false, true));
    // Packet data from before the service, and from after it behind a CA field.
    EXPECT_EQ(Fields(data.components[0]), ComponentFields(Transport::PacketData, 5, 9, 17, 513, true, true, false));
    EXPECT_EQ(Fields(data.components[1]),
              ComponentFields(Transport::PacketData, 60, 63, 4095, 1023, false, false, false));

    EXPECT_TRUE(e.Complete());
    EXPECT_EQ(parser.statistics().SeenText(), "0/0 0/1 0/2 0/3 1/0 1/1 1/5");
    EXPECT_EQ(parser.statistics().figsMalformed, 0u);
}

// The short-form sub-channel table, row by row as published: size in CU,
// protection level and bit rate.
TEST(FicParser, ShortFormTable) {
    const int sizes[64] = {16,  21,  24,  29,  35,  24,  29,  35,  42,  52,  29,  35,  42,  52,  32,  42,
                           48,  58,  70,  40,  52,  58,  70,  84,  48,  58,  70,  84,  104, 58,  70,  84,
                           104, 64,  84,  96,  116, 140, 80,  104, 116, 140, 168, 96,  116, 140, 168, 208,
                           116, 140, 168, 208, 232, 128, 168, 192, 232, 280, 160, 208, 280, 192, 280, 416};
    const int levels[64] = {5, 4, 3, 2, 1, 5, 4, 3, 2, 1, 5, 4, 3, 2, 5, 4, 3, 2, 1, 5, 4, 3, 2, 1, 5, 4, 3, 2, 1, 5, 4, 3,
                            2, 5, 4, 3, 2, 1, 5, 4, 3, 2, 1, 5, 4, 3, 2, 1, 5, 4, 3, 2, 1, 5, 4, 3, 2, 1, 5, 4, 2, 5, 3, 1};
    const int rates[] = {32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384};
    const int perRate[] = {5, 5, 4, 5, 5, 5, 4, 5, 5, 5, 5, 5, 3, 3};  // rows of each bit rate, in order
    for (int i = 0, r = 0, k = 0; i < 64; ++i, k == perRate[r] - 1 ? (++r, k = 0) : ++k) {
        const ficparse::UepRow row = ficparse::UepTableRow(i);
        EXPECT_EQ(std::tuple(row.size, row.level, row.bitRate), std::tuple(sizes[i], levels[i], rates[r])) << i;
    }
}

TEST(FicParser, MalformedAndUnknownFigs) {
    // Unknown types and extensions are stepped over.
    FicParser skip = Parsed({WithHeader(2, {0x01, 0xAA}), WithHeader(5, {0x12}), WithHeader(0, {0x1F, 0x01}),
                             Fig00(0x5555, 0, false, 0, 7)});
    EXPECT_EQ(skip.ensemble().id, 0x5555);
    EXPECT_EQ(skip.statistics().SeenText(), "0/0 0/31 2/1 5");
    // A FIB that starts with the end marker holds nothing; a length past byte
    // 29 ends the walk, and what came before stays.
    Bytes marker = Fib({}), overrun = Fib({Fig00(0x0101, 0, false, 0, 1)});
    marker[1] = 0x05;
    overrun[6] = 0x18;
    FicParser empty, cut;
    empty.PushFib(marker.data(), true);
    cut.PushFib(overrun.data(), true);
    EXPECT_TRUE(empty.statistics().figCounts.empty());
    EXPECT_EQ(cut.ensemble().id, 0x0101);
    EXPECT_EQ(cut.statistics().figsMalformed, 1u);
    // Truncated entries: a long-form sub-channel a byte short, a service with
    // three components announced and one sent, FIG 0/0 without its
    // occurrence change, a label two bytes short.
    Bytes sub = Fig01({{5, 10, false, 3, 0, 0, 0}});
    const Bytes longEntry = SubChannelBytes({6, 20, true, 0, 0, 1, 12});
    sub.insert(sub.end(), longEntry.begin(), longEntry.end() - 1);
    sub[0] = uint8_t(sub.size() - 1);
    Bytes svc = Fig02({{0xC001, 0, {{0, 0, 5, true, false}}}}, false);
    svc[4] = 0x03;
    Bytes label = Fig1(0, 0x1234, "Short", 0);
    label.resize(label.size() - 2);
    label[0] = uint8_t(0x20 | (label.size() - 1));
    const FicParser parser = Parsed({sub, svc, WithHeader(0, {0x00, 0x12, 0x34, 0x40, 0x05}), label});
    const auto& e = parser.ensemble();
    EXPECT_EQ(e.subChannels.count(5), 1u);
    EXPECT_EQ(e.subChannels.count(6), 0u);
    EXPECT_TRUE(e.services.empty());
    EXPECT_EQ(e.changeFlags, 1);
    EXPECT_EQ(e.occurrenceChange, -1);
    EXPECT_FALSE(e.label.known);
    EXPECT_EQ(parser.statistics().figsMalformed, 4u);
    // Frames that are too short, missing or of negative length are not read.
    FicParser none;
    none.PushFibs(marker.data(), 31, 0xFFFF);
    none.PushFibs(nullptr, 384, 0xFFFF);
    none.PushFibs(marker.data(), -32, 0xFFFF);
    EXPECT_EQ(none.statistics().fibsGood + none.statistics().fibsBad, 0u);
}

// Next configuration, other ensembles and orphan labels stay out of the
// model; the latest entry wins; Reset forgets.
TEST(FicParser, WhatEntersTheModel) {
    FicParser parser = Parsed({Fig01({{7, 0, false, 0, 0, 0, 0}}, 0x81), Fig01({{8, 0, false, 0, 0, 0, 0}}, 0x41),
                               Fig02({{0xC100, 0, {{0, 0, 1, true, false}}}}, false, 0x80),
                               Fig1(1, 0xC200, "Elsewhere", 0, 0, true), Fig1(1, 0xC300, "Orphan", 0)});
    const Ensemble& e = parser.ensemble();
    EXPECT_TRUE(e.subChannels.empty() && e.services.empty());
    EXPECT_EQ(e.nextSubChannels.size(), 1u);
    Push(parser, {Fig01({{4, 10, false, 5, 0, 0, 0}}),
                  Fig02({{0xC400, 0, {{0, 0, 4, true, false}, {1, 5, 4, false, false}}}}, false), Fig1(1, 0xC400, "Old", 0),
                  Fig01({{4, 99, true, 0, 0, 2, 16}}), Fig02({{0xC400, 0, {{0, 63, 4, true, false}}}}, false),
                  Fig1(1, 0xC400, "New", 0)});
    EXPECT_EQ(e.subChannels.at(4).startAddress, 99);
    ASSERT_EQ(e.services.at(0xC400).components.size(), 1u);
    EXPECT_EQ(e.services.at(0xC400).label.text, "New");
    parser.Reset();
    EXPECT_TRUE(e.services.empty());
    EXPECT_EQ(parser.statistics().fibsGood, 0u);
}

TEST(FicParser, LabelCharacterSets) {
    // UTF-8 with a sequence cut off at the end; UCS-2 with a lone surrogate;
    // control and non-ASCII bytes of the Latin set.
    const std::string utf8 = "Caf\xC3\xA9 \xE2\x82\xAC 1234\xE2\x82";
    const std::string ucs2("\x00\x41\x00\x62\xD8\x00\x00\x20\x00\x20\x00\x20\x00\x20\x00\x20", 16);
    const FicParser parser = Parsed({Fig1(0, 0x1, utf8, 0xF000, 15), Fig02({{0xC600, 0, {}}, {0xC601, 0, {}}}, false),
                                     Fig1(1, 0xC600, ucs2, 0xC000, 6), Fig1(1, 0xC601, "Tab\x0BX\x80\xFF", 0)});
    const auto& e = parser.ensemble();
    EXPECT_EQ(e.label.text, "Caf\xC3\xA9 \xE2\x82\xAC 1234??");
    EXPECT_EQ(e.label.shortText, "Caf\xC3\xA9");
    EXPECT_EQ(e.services.at(0xC600).label.text, "Ab?");
    EXPECT_EQ(e.services.at(0xC600).label.shortText, "Ab");
    EXPECT_EQ(e.services.at(0xC601).label.text, "Tab?Xáħ");
}

TEST(FicParser, EbuLatinLabels) {
    // Known answers read off the published EBU Latin code table, including the
    // codes where it differs from ASCII; control codes never reach the text.
    const struct {
        const char* raw;
        const char* text;
    } cases[] = {
        {"Radio Fr\x97hlich", "Radio Fröhlich"},
        {"\xC2lan \xD7\xD1\xD9 \x8D\x82", "Élan ÖÄÜ ßé"},
        {"\x91\x99 \xA9\xAB\x24\x60\x7E\x7F", "äü €$łĄĽĦ"},
        {"\x01\x1E\x5C\x5E\x7B\x7C\x7D\xEE\xFF", "ĘżŮŁ«ů»Ťħ"},
        {"\xA8\xB7 \xCA\xDB\x0A\x0B\x1F", "Őű Řč???"},
    };
    for (const auto& c : cases) {
        uint8_t raw[16];
        std::memset(raw, ' ', sizeof raw);
        std::memcpy(raw, c.raw, std::strlen(c.raw));
        ficparse::Label label;
        ficparse::DecodeLabel(raw, 0, 0x03FC, label);
        EXPECT_EQ(label.text, c.text) << c.raw;
        if (&c == &cases[0]) {
            EXPECT_EQ(label.shortText, "Fröhlich");
        }
    }
    // No two codes of the set stand for the same character.
    const std::set<uint16_t> distinct(std::begin(ficparse::kEbuLatin), std::end(ficparse::kEbuLatin));
    EXPECT_EQ(distinct.size(), 256u);
}

// The text form line by line; the JSON form with escapes and nulls.
TEST(EnsemblePrint, TextAndJson) {
    const FicParser parser = Parsed({
        Fig00(0xE123, 1, false, 4, 234, 240),
        Fig1(0, 0xE123, "Quote\" \\ Back", 0xF800, 15),  // UTF-8, which has a backslash
        Fig01({{1, 0, false, 5, 0, 0, 0}, {2, 24, true, 0, 1, 3, 18}}),
        Fig02({{0xC221, 0, {{0, 63, 2, true, false}}}, {0xC222, 0, {{0, 0, 1, true, false}}}}, false),
        Fig02({{0xE0C12345u, 0, {{3, 9, 0, true, false}}}}, true),
        Fig1(1, 0xC221, "Plus", 0),
        Fig01({{2, 400, true, 0, 0, 2, 32}}, 0x81),
    });
    const std::string text = ficparse::EnsembleText(parser.ensemble(), &parser.statistics());
    for (const char* line : {
             "Ensemble 0xE123 \"Quote\" \\ Back\" (short \"Quote\")\n",
             "  CIF count 1234 (4/234), change 1 announced at CIF 240\n",
             "  0xC221 \"Plus\"\n    audio, ASCTy 63 (DAB+), sub-channel 2, primary\n",
             "  0xC222 (no label)\n    audio, ASCTy 0 (MPEG Layer II), sub-channel 1, primary\n",
             "  0xE0C12345 (no label)\n    packet, SCId 9, packet data not yet known, primary\n",
             "   2: start  24, size  18 CU, EEP 3-B, 32 kbit/s\n",
             "Next configuration, from CIF 240: 1\n   2: start 400, size  32 CU, EEP 2-A, 32 kbit/s\n",
             "Incomplete, missing: label of service 0xC222; packet data of component 9 of service 0xE0C12345\n",
         })
        EXPECT_NE(text.find(line), std::string::npos) << line << "in\n" << text;

    const std::string json = ficparse::EnsembleJson(parser.ensemble(), &parser.statistics());
    for (const char* part : {
             "\"label\": \"Quote\\\" \\\\ Back\"",
             "{\"id\": 2, \"start\": 24, \"size\": 18, \"form\": \"long\", \"option\": 1, \"protectionLevel\": 3, "
             "\"protection\": \"EEP 3-B\", \"bitRate\": 32}",
             "\"nextSubChannels\": [{\"id\": 2, \"start\": 400,",
             "{\"transport\": \"packet\", \"type\": null, \"subChannel\": null, \"serviceComponentId\": 9, "
             "\"packetAddress\": null, \"dataGroups\": null, \"primary\": true",
         })
        EXPECT_NE(json.find(part), std::string::npos) << part << " in\n" << json;
    const std::string empty = ficparse::EnsembleJson(ficparse::Ensemble());
    EXPECT_NE(empty.find("\"id\": null"), std::string::npos) << empty;
}
