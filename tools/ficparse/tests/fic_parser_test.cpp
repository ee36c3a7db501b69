#include <gtest/gtest.h>

#include "tools/ficparse/fic_parser.h"
#include "tools/ficparse/tests/fig_writer.h"

using namespace figwriter;
using ficparse::FicParser;
using ficparse::Transport;

namespace {

// FIG 0/0 and FIG 1/0 of a published example, with its CRC F5 A2.
const Bytes kWorkedFib = {0x05, 0x00, 0xE1, 0x23, 0x04, 0xEA, 0x35, 0x00, 0xE1, 0x23, 0x54,
                          0x45, 0x53, 0x54, 0x20, 0x45, 0x4E, 0x53, 0x45, 0x4D, 0x42, 0x4C,
                          0x45, 0x20, 0x20, 0x20, 0xFF, 0x00, 0xFF, 0x00, 0xF5, 0xA2};

FicParser Parsed(const std::vector<Bytes>& figs) {
    FicParser parser;
    for (const Bytes& fib : PackFibs(figs)) parser.PushFib(fib.data(), true);
    return parser;
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
    // One changed bit and the FIB is not read.
    Bytes broken = kWorkedFib;
    broken[7] ^= 0x10;
    FicParser other;
    other.PushFibsCheckingCrc(broken.data(), 32);
    EXPECT_FALSE(other.ensemble().idKnown);
    EXPECT_EQ(other.statistics().fibsBad, 1u);
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
    EXPECT_EQ(e.id, 0x4FFF);
    EXPECT_EQ(e.changeFlags, 3);
    EXPECT_TRUE(e.alarm);
    EXPECT_EQ(e.cifCountHigh * 250 + e.cifCountLow, 4999);
    EXPECT_EQ(e.occurrenceChange, 17);
    EXPECT_EQ(e.label.text, "Ensemble \"X\"");

    // Sub-channels: (start, size, protection, bit rate).
    struct Want {
        int id, start, size;
        const char* protection;
        int bitRate;
    };
    for (const Want& w : {Want{1, 0, 416, "UEP 1", 384}, Want{2, 416, 84, "EEP 3-A", 112}, Want{3, 500, 45, "EEP 4-B", 96},
                          Want{9, 863, 8, "EEP 2-A", 8}, Want{63, 0, 1023, "EEP 1-B", 0}}) {
        ASSERT_EQ(e.subChannels.count(w.id), 1u) << w.id;
        const auto& s = e.subChannels.at(w.id);
        EXPECT_EQ(s.startAddress, w.start);
        EXPECT_EQ(s.size, w.size);
        EXPECT_EQ(s.ProtectionText(), w.protection);
        EXPECT_EQ(s.bitRate, w.bitRate) << w.id;
    }
    EXPECT_EQ(e.subChannels.size(), 5u);

    ASSERT_EQ(e.services.size(), 3u);
    const auto& one = e.services.at(0xC221);
    EXPECT_EQ(one.label.text, "Radio One");
    EXPECT_EQ(one.label.shortText, "Radi");
    ASSERT_EQ(one.components.size(), 1u);
    EXPECT_EQ(one.components[0].transport, Transport::StreamAudio);
    EXPECT_EQ(one.components[0].type, 63);
    EXPECT_EQ(one.components[0].subChannelId, 1);
    EXPECT_TRUE(one.components[0].primary);
    const auto& two = e.services.at(0xC222);
    EXPECT_EQ(two.conditionalAccessId, 2);
    ASSERT_EQ(two.components.size(), 2u);
    EXPECT_EQ(two.components[1].transport, Transport::StreamData);
    EXPECT_EQ(two.components[1].type, 24);
    EXPECT_EQ(two.components[1].subChannelId, 3);
    EXPECT_TRUE(two.components[1].conditionalAccess);
    const auto& data = e.services.at(0xE0C12345u);
    EXPECT_TRUE(data.longId);
    EXPECT_EQ(data.label.text, "Data");
    ASSERT_EQ(data.components.size(), 2u);
    // Packet data from before the service, and from after it behind a CA field.
    const auto& early = data.components[0];
    EXPECT_EQ(early.serviceComponentId, 17);
    EXPECT_EQ(early.subChannelId, 9);
    EXPECT_EQ(early.packetAddress, 513);
    EXPECT_EQ(early.type, 5);
    EXPECT_TRUE(early.dataGroups);
    const auto& late = data.components[1];
    EXPECT_EQ(late.serviceComponentId, 4095);
    EXPECT_EQ(late.subChannelId, 63);
    EXPECT_EQ(late.packetAddress, 1023);
    EXPECT_FALSE(late.dataGroups);

    EXPECT_TRUE(e.Complete());
    EXPECT_EQ(parser.statistics().SeenText(), "0/0 0/1 0/2 0/3 1/0 1/1 1/5");
    EXPECT_EQ(parser.statistics().figsMalformed, 0u);
}

TEST(FicParser, CrcFlagsSelectFibs) {
    // Thirteen FIBs with different labels: only a flagged FIB is read, and
    // the flags cover twelve.
    Bytes frame;
    for (int i = 0; i < 13; ++i) {
        const Bytes fib = Fib({Fig1(0, 0x1000, "L" + std::to_string(i), 0)});
        frame.insert(frame.end(), fib.begin(), fib.end());
    }
    for (int i = 0; i < 12; ++i) {
        FicParser parser;
        parser.PushFibs(frame.data(), int32_t(frame.size()), (0x8000 >> i) | 1);
        EXPECT_EQ(parser.ensemble().label.text, "L" + std::to_string(i));
        EXPECT_EQ(parser.statistics().fibsBad, 11u);
    }
    FicParser all;
    all.PushFibs(frame.data(), int32_t(frame.size()), 0xFFFF);
    EXPECT_EQ(all.ensemble().label.text, "L11");
    FicParser none;
    none.PushFibs(frame.data(), int32_t(frame.size()), 0x0001);
    none.PushFibs(frame.data(), 31, 0xFFFF);
    none.PushFibs(nullptr, 384, 0xFFFF);
    none.PushFibs(frame.data(), -32, 0xFFFF);
    EXPECT_FALSE(none.ensemble().label.known);
    EXPECT_EQ(none.statistics().fibsGood, 0u);
}

TEST(FicParser, MalformedAndUnknownFigs) {
    // Unknown types and extensions are stepped over.
    FicParser skip = Parsed({WithHeader(2, {0x01, 0xAA}), WithHeader(5, {0x12}), WithHeader(0, {0x1F, 0x01}),
                             Fig00(0x5555, 0, false, 0, 7)});
    EXPECT_EQ(skip.ensemble().id, 0x5555);
    EXPECT_EQ(skip.statistics().SeenText(), "0/0 0/31 2/1 5");
    // A FIB that starts with the end marker holds nothing.
    Bytes marker = Fib({});
    marker[1] = 0x05;
    FicParser empty;
    empty.PushFib(marker.data(), true);
    EXPECT_TRUE(empty.statistics().figCounts.empty());
    // A length past byte 29 ends the walk; what came before stays.
    Bytes overrun = Fib({Fig00(0x0101, 0, false, 0, 1)});
    overrun[6] = 0x18;
    FicParser cut;
    cut.PushFib(overrun.data(), true);
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
}

TEST(FicParser, WhatEntersTheModel) {
    // Next configuration, other ensembles and orphan labels stay out.
    const FicParser out = Parsed({Fig01({{7, 0, false, 0, 0, 0, 0}}, 0x81), Fig01({{8, 0, false, 0, 0, 0, 0}}, 0x41),
                                  Fig02({{0xC100, 0, {{0, 0, 1, true, false}}}}, false, 0x80),
                                  Fig1(1, 0xC200, "Elsewhere", 0, 0, true), Fig1(1, 0xC300, "Orphan", 0)});
    EXPECT_TRUE(out.ensemble().subChannels.empty());
    EXPECT_TRUE(out.ensemble().services.empty());
    // The latest entry wins; Reset forgets.
    FicParser parser = Parsed({Fig01({{4, 10, false, 5, 0, 0, 0}}),
                               Fig02({{0xC400, 0, {{0, 0, 4, true, false}, {1, 5, 4, false, false}}}}, false),
                               Fig1(1, 0xC400, "Old", 0)});
    for (const Bytes& fib : PackFibs({Fig01({{4, 99, true, 0, 0, 2, 16}}), Fig02({{0xC400, 0, {{0, 63, 4, true, false}}}}, false),
                                      Fig1(1, 0xC400, "New", 0)}))
        parser.PushFib(fib.data(), true);
    EXPECT_EQ(parser.ensemble().subChannels.at(4).startAddress, 99);
    ASSERT_EQ(parser.ensemble().services.at(0xC400).components.size(), 1u);
    EXPECT_EQ(parser.ensemble().services.at(0xC400).label.text, "New");
    parser.Reset();
    EXPECT_TRUE(parser.ensemble().services.empty());
    EXPECT_EQ(parser.statistics().fibsGood, 0u);
}

TEST(FicParser, MissingNamesWhatIsNotYetKnown) {
    FicParser parser = Parsed({Fig00(0x1111, 0, false, 0, 0), Fig1(0, 0x1111, "E", 0),
                               Fig02({{0xC500, 0, {{0, 0, 2, true, false}, {3, 77, 0, false, false}}}}, false)});
    const std::vector<std::string> missing = parser.ensemble().Missing();
    ASSERT_EQ(missing.size(), 3u);
    EXPECT_EQ(missing[0], "label of service 0xC500");
    EXPECT_EQ(missing[1], "sub-channel 2 of service 0xC500");
    EXPECT_EQ(missing[2], "packet data of component 77 of service 0xC500");
    for (const Bytes& fib : PackFibs({Fig1(1, 0xC500, "S", 0), Fig01({{2, 0, false, 1, 0, 0, 0}}),
                                      Fig03({{77, false, false, 1, 2, 0}})}))
        parser.PushFib(fib.data(), true);
    EXPECT_TRUE(parser.ensemble().Complete());
    // A data service without a label leaves it complete; one whose
    // sub-channel is unknown does not.
    for (const Bytes& fib : PackFibs({Fig02({{0xE0C12345u, 0, {{1, 5, 2, true, false}}}}, true)}))
        parser.PushFib(fib.data(), true);
    EXPECT_TRUE(parser.ensemble().Complete());
    for (const Bytes& fib : PackFibs({Fig02({{0xE0C12346u, 0, {{1, 5, 9, true, false}}}}, true)}))
        parser.PushFib(fib.data(), true);
    EXPECT_EQ(parser.ensemble().Missing(), std::vector<std::string>{"sub-channel 9 of service 0xE0C12346"});
}

TEST(FicParser, LabelCharacterSets) {
    // UTF-8 with a sequence cut off at the end; UCS-2 with a lone surrogate;
    // control and non-ASCII bytes of the Latin set.
    const std::string utf8 = "Caf\xC3\xA9 \xE2\x82\xAC 1234\xE2\x82";
    const std::string ucs2("\x00\x41\x00\x62\xD8\x00\x00\x20\x00\x20\x00\x20\x00\x20\x00\x20", 16);
    const FicParser parser = Parsed({Fig1(0, 0x1, utf8, 0xF000, 15), Fig02({{0xC600, 0, {}}, {0xC601, 0, {}}}, false),
                                     Fig1(1, 0xC600, ucs2, 0xC000, 6), Fig1(1, 0xC601, "Tab\tX\x80\xFF", 0)});
    const auto& e = parser.ensemble();
    EXPECT_EQ(e.label.text, "Caf\xC3\xA9 \xE2\x82\xAC 1234??");
    EXPECT_EQ(e.label.shortText, "Caf\xC3\xA9");
    EXPECT_EQ(e.services.at(0xC600).label.text, "Ab?");
    EXPECT_EQ(e.services.at(0xC600).label.shortText, "Ab");
    EXPECT_EQ(e.services.at(0xC601).label.text, "Tab?X??");
}
