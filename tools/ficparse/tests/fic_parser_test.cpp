#include <gtest/gtest.h>

#include <cstring>

#include "tools/ficparse/fic_parser.h"
#include "tools/ficparse/tests/fig_writer.h"

using namespace figwriter;
using ficparse::FicParser;
using ficparse::Transport;

namespace {

// FIG 0/0 and FIG 1/0 of a published example, with its CRC F5 A2.
const uint8_t kWorkedFib[32] = {0x05, 0x00, 0xE1, 0x23, 0x04, 0xEA, 0x35, 0x00, 0xE1, 0x23, 0x54,
                                0x45, 0x53, 0x54, 0x20, 0x45, 0x4E, 0x53, 0x45, 0x4D, 0x42, 0x4C,
                                0x45, 0x20, 0x20, 0x20, 0xFF, 0x00, 0xFF, 0x00, 0xF5, 0xA2};

void PushGood(FicParser& parser, const std::vector<Bytes>& fibs) {
    for (const Bytes& fib : fibs) parser.PushFib(fib.data(), true);
}

}  // namespace

TEST(FibCrc, KnownValues) {
    const uint8_t digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(ficparse::FibCrc(digits, 9), 0xD64E);
    EXPECT_TRUE(ficparse::FibCrcGood(kWorkedFib));
    uint8_t empty[32] = {0xFF};
    empty[30] = 0xA8;
    empty[31] = 0xA8;
    EXPECT_TRUE(ficparse::FibCrcGood(empty));
    uint8_t broken[32];
    std::memcpy(broken, kWorkedFib, 32);
    broken[7] ^= 0x10;
    EXPECT_FALSE(ficparse::FibCrcGood(broken));
}

TEST(FicParser, WorkedFib) {
    FicParser parser;
    parser.PushFibsCheckingCrc(kWorkedFib, 32);
    const auto& e = parser.ensemble();
    EXPECT_TRUE(e.idKnown);
    EXPECT_EQ(e.id, 0xE123);
    EXPECT_EQ(e.cifCountHigh, 4);
    EXPECT_EQ(e.cifCountLow, 234);
    EXPECT_EQ(e.changeFlags, 0);
    EXPECT_EQ(e.occurrenceChange, -1);
    EXPECT_TRUE(e.label.known);
    EXPECT_EQ(e.label.text, "TEST ENSEMBLE");
    EXPECT_EQ(e.label.shortText, "TEST ENS");
    EXPECT_EQ(parser.statistics().SeenText(), "0/0 1/0");
    EXPECT_EQ(parser.statistics().fibsGood, 1u);
}

// An ensemble of every kind of entry the parser decodes, sent in an order
// that puts labels and packet data before the services they belong to.
TEST(FicParser, WholeEnsemble) {
    const std::vector<Bytes> figs = {
        Fig1(1, 0xC221, "Radio One", 0xF000),
        Fig03({{17, false, false, 5, 9, 513}}),
        Fig00(0x4FFF, 3, true, 19, 249, 17),
        Fig01({{1, 0, false, 63, 0, 0, 0}, {2, 416, true, 0, 0, 3, 84}}),
        Fig01({{3, 500, true, 0, 1, 4, 45}, {9, 863, true, 0, 0, 2, 8}, {63, 0, true, 0, 1, 1, 1023}}),
        Fig02({{0xC221, 0, {{0, 63, 1, true, false}}},
               {0xC222, 2, {{0, 0, 2, true, false}, {1, 24, 3, false, true}}}},
              false),
        Fig02({{0xE0C12345u, 0, {{3, 17, 0, true, false}, {3, 4095, 0, false, false}}}}, true),
        Fig1(0, 0x4FFF, "Ensemble \"X\"", 0x0000),
        Fig1(1, 0xC222, "Two", 0x0000),
        Fig1(5, 0xE0C12345u, "Data", 0x8000),
        Fig03({{4095, true, true, 60, 63, 1023}}),
    };
    FicParser parser;
    PushGood(parser, PackFibs(figs));
    const auto& e = parser.ensemble();

    EXPECT_EQ(e.id, 0x4FFF);
    EXPECT_EQ(e.changeFlags, 3);
    EXPECT_TRUE(e.alarm);
    EXPECT_EQ(e.cifCountHigh, 19);
    EXPECT_EQ(e.cifCountLow, 249);
    EXPECT_EQ(e.occurrenceChange, 17);
    EXPECT_EQ(e.label.text, "Ensemble \"X\"");

    ASSERT_EQ(e.subChannels.size(), 5u);
    const auto& uep = e.subChannels.at(1);
    EXPECT_FALSE(uep.longForm);
    EXPECT_EQ(uep.tableIndex, 63);
    EXPECT_EQ(uep.size, 416);
    EXPECT_EQ(uep.protectionLevel, 1);
    EXPECT_EQ(uep.bitRate, 384);
    EXPECT_EQ(uep.ProtectionText(), "UEP 1");
    const auto& eepA = e.subChannels.at(2);
    EXPECT_EQ(eepA.startAddress, 416);
    EXPECT_EQ(eepA.size, 84);
    EXPECT_EQ(eepA.bitRate, 112);  // 84 / 6 * 8
    EXPECT_EQ(eepA.ProtectionText(), "EEP 3-A");
    const auto& eepB = e.subChannels.at(3);
    EXPECT_EQ(eepB.bitRate, 96);  // 45 / 15 * 32
    EXPECT_EQ(eepB.ProtectionText(), "EEP 4-B");
    const auto& smallest = e.subChannels.at(9);
    EXPECT_EQ(smallest.startAddress, 863);
    EXPECT_EQ(smallest.bitRate, 8);
    const auto& odd = e.subChannels.at(63);
    EXPECT_EQ(odd.size, 1023);
    EXPECT_EQ(odd.bitRate, 0);  // 1023 is no multiple of 27

    ASSERT_EQ(e.services.size(), 3u);
    const auto& one = e.services.at(0xC221);
    EXPECT_FALSE(one.longId);
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
    EXPECT_FALSE(two.components[1].primary);
    EXPECT_TRUE(two.components[1].conditionalAccess);

    const auto& data = e.services.at(0xE0C12345u);
    EXPECT_TRUE(data.longId);
    EXPECT_EQ(data.label.text, "Data");
    ASSERT_EQ(data.components.size(), 2u);
    // Packet data that came before the service ...
    EXPECT_EQ(data.components[0].serviceComponentId, 17);
    EXPECT_TRUE(data.components[0].packetInfoKnown);
    EXPECT_EQ(data.components[0].subChannelId, 9);
    EXPECT_EQ(data.components[0].packetAddress, 513);
    EXPECT_EQ(data.components[0].type, 5);
    EXPECT_TRUE(data.components[0].dataGroups);
    // ... and after it, with the CA organisation field to step over.
    EXPECT_EQ(data.components[1].serviceComponentId, 4095);
    EXPECT_TRUE(data.components[1].packetInfoKnown);
    EXPECT_EQ(data.components[1].subChannelId, 63);
    EXPECT_EQ(data.components[1].packetAddress, 1023);
    EXPECT_FALSE(data.components[1].dataGroups);

    EXPECT_TRUE(e.Complete()) << e.Missing().front();
    EXPECT_EQ(parser.statistics().SeenText(), "0/0 0/1 0/2 0/3 1/0 1/1 1/5");
    EXPECT_EQ(parser.statistics().figsMalformed, 0u);
}

TEST(FicParser, CrcFlagsSelectFibs) {
    // Twelve FIBs, each holding a different ensemble label; only the FIB
    // flagged good may be read, and the flags hold no more than twelve.
    Bytes frame;
    for (int i = 0; i < 13; ++i) {
        const Bytes fib = Fib({Fig1(0, 0x1000, "L" + std::to_string(i), 0)});
        frame.insert(frame.end(), fib.begin(), fib.end());
    }
    for (int i = 0; i < 12; ++i) {
        FicParser parser;
        parser.PushFibs(frame.data(), int32_t(frame.size()), (0x8000 >> i) | 1);
        EXPECT_EQ(parser.ensemble().label.text, "L" + std::to_string(i));
        EXPECT_EQ(parser.statistics().fibsGood, 1u);
        EXPECT_EQ(parser.statistics().fibsBad, 11u);
    }
    FicParser parser;
    parser.PushFibs(frame.data(), int32_t(frame.size()), 0xFFFF);
    EXPECT_EQ(parser.ensemble().label.text, "L11");
    // A frame with no good FIB leaves nothing, and partial FIBs are not read.
    FicParser none;
    none.PushFibs(frame.data(), int32_t(frame.size()), 0x0001);
    none.PushFibs(frame.data(), 31, 0xFFFF);
    none.PushFibs(nullptr, 384, 0xFFFF);
    none.PushFibs(frame.data(), -32, 0xFFFF);
    EXPECT_FALSE(none.ensemble().label.known);
    EXPECT_EQ(none.statistics().fibsGood, 0u);
}

TEST(FicParser, BadCrcIgnoredWhenChecking) {
    Bytes fib = Fib({Fig00(0x1234, 0, false, 1, 2)});
    fib[3] ^= 0x01;
    FicParser parser;
    parser.PushFibsCheckingCrc(fib.data(), 32);
    EXPECT_FALSE(parser.ensemble().idKnown);
    EXPECT_EQ(parser.statistics().fibsBad, 1u);
}

TEST(FicParser, WalkStopsAtMarkersAndMalformedFigs) {
    // Unknown FIG types and extensions are stepped over.
    {
        const Bytes fib = Fib({WithHeader(2, {0x01, 0xAA, 0xBB}), WithHeader(5, {0x12}), WithHeader(0, {0x1F, 0x01}),
                               Fig00(0x5555, 0, false, 0, 7)});
        FicParser parser;
        parser.PushFib(fib.data(), true);
        EXPECT_EQ(parser.ensemble().id, 0x5555);
        EXPECT_EQ(parser.statistics().SeenText(), "0/0 0/31 2/1 5");
    }
    // A FIB that starts with the end marker holds nothing.
    {
        Bytes fib = Fib({});
        fib[1] = Fig00(0x5555, 0, false, 0, 7)[0];
        FicParser parser;
        parser.PushFib(fib.data(), true);
        EXPECT_FALSE(parser.ensemble().idKnown);
        EXPECT_TRUE(parser.statistics().figCounts.empty());
    }
    // A length that runs past byte 29 ends the walk; what came before stays.
    {
        Bytes fib(32, 0);
        const Bytes f = Fig00(0x0101, 0, false, 0, 1);
        std::copy(f.begin(), f.end(), fib.begin());
        fib[6] = 0x18;  // type 0, 24 bytes from byte 7: one byte too many
        FicParser parser;
        parser.PushFib(fib.data(), true);
        EXPECT_EQ(parser.ensemble().id, 0x0101);
        EXPECT_EQ(parser.statistics().figsMalformed, 1u);
    }
    // FIGs that fill all 30 bytes need no end marker.
    {
        const Bytes fib = Fib({Fig1(0, 0x2222, "Full", 0), Fig00(0x2222, 0, false, 0, 3), WithHeader(0, {0x1E})});
        ASSERT_NE(fib[29], 0xFF);
        FicParser parser;
        parser.PushFib(fib.data(), true);
        EXPECT_EQ(parser.ensemble().label.text, "Full");
        EXPECT_EQ(parser.ensemble().cifCountLow, 3);
        EXPECT_EQ(parser.statistics().figsMalformed, 0u);
    }
}

TEST(FicParser, TruncatedEntriesKeepWholeOnes) {
    FicParser parser;
    // A sub-channel entry in long form with its last byte missing.
    Bytes sub = Fig01({{5, 10, false, 3, 0, 0, 0}});
    const Bytes longEntry = SubChannelBytes({6, 20, true, 0, 0, 1, 12});
    sub.insert(sub.end(), longEntry.begin(), longEntry.end() - 1);
    sub[0] = uint8_t(sub.size() - 1);
    // A service that announces three components but carries one.
    Bytes svc = Fig02({{0xC001, 0, {{0, 0, 5, true, false}}}}, false);
    svc[4] = 0x03;
    // FIG 0/0 without its occurrence change, and a label two bytes short.
    const Bytes info = WithHeader(0, {0x00, 0x12, 0x34, 0x40, 0x05});
    Bytes label = Fig1(0, 0x1234, "Short", 0);
    label.resize(label.size() - 2);
    label[0] = uint8_t((1 << 5) | (label.size() - 1));
    PushGood(parser, PackFibs({sub, svc, info, label}));

    const auto& e = parser.ensemble();
    EXPECT_EQ(e.subChannels.count(5), 1u);
    EXPECT_EQ(e.subChannels.count(6), 0u);
    EXPECT_EQ(e.services.count(0xC001), 0u);
    EXPECT_TRUE(e.idKnown);
    EXPECT_EQ(e.changeFlags, 1);
    EXPECT_EQ(e.occurrenceChange, -1);
    EXPECT_FALSE(e.label.known);
    EXPECT_EQ(parser.statistics().figsMalformed, 4u);
}

TEST(FicParser, OtherEnsembleAndNextConfigurationStayOut) {
    FicParser parser;
    PushGood(parser, PackFibs({
                         Fig01({{7, 0, false, 0, 0, 0, 0}}, 0x81),              // C/N = 1
                         Fig01({{8, 0, false, 0, 0, 0, 0}}, 0x41),              // OE = 1
                         Fig02({{0xC100, 0, {{0, 0, 1, true, false}}}}, false, 0x80),
                         Fig1(1, 0xC200, "Elsewhere", 0, 0, true),
                         Fig1(1, 0xC300, "Orphan", 0),                        // no service of its own
                     }));
    EXPECT_TRUE(parser.ensemble().subChannels.empty());
    EXPECT_TRUE(parser.ensemble().services.empty());
    EXPECT_EQ(parser.statistics().SeenText(), "0/1 0/2 1/1");
}

TEST(FicParser, LatestEntryWinsAndResetForgets) {
    FicParser parser;
    PushGood(parser, PackFibs({Fig01({{4, 10, false, 5, 0, 0, 0}}),
                               Fig02({{0xC400, 0, {{0, 0, 4, true, false}, {1, 5, 4, false, false}}}}, false),
                               Fig1(1, 0xC400, "Old", 0)}));
    PushGood(parser, PackFibs({Fig01({{4, 99, true, 0, 0, 2, 16}}),
                               Fig02({{0xC400, 0, {{0, 63, 4, true, false}}}}, false),
                               Fig1(1, 0xC400, "New", 0)}));
    const auto& e = parser.ensemble();
    EXPECT_EQ(e.subChannels.at(4).startAddress, 99);
    EXPECT_TRUE(e.subChannels.at(4).longForm);
    ASSERT_EQ(e.services.at(0xC400).components.size(), 1u);
    EXPECT_EQ(e.services.at(0xC400).components[0].type, 63);
    EXPECT_EQ(e.services.at(0xC400).label.text, "New");
    parser.Reset();
    EXPECT_TRUE(parser.ensemble().services.empty());
    EXPECT_EQ(parser.statistics().fibsGood, 0u);
}

TEST(FicParser, MissingNamesWhatIsNotYetKnown) {
    FicParser parser;
    EXPECT_FALSE(parser.ensemble().Complete());
    PushGood(parser, PackFibs({Fig00(0x1111, 0, false, 0, 0), Fig1(0, 0x1111, "E", 0),
                               Fig02({{0xC500, 0, {{0, 0, 2, true, false}, {3, 77, 0, false, false}}}}, false)}));
    std::vector<std::string> missing = parser.ensemble().Missing();
    ASSERT_EQ(missing.size(), 3u);
    EXPECT_EQ(missing[0], "label of service 0xC500");
    EXPECT_EQ(missing[1], "sub-channel 2 of service 0xC500");
    EXPECT_EQ(missing[2], "packet data of component 77 of service 0xC500");
    PushGood(parser, PackFibs({Fig1(1, 0xC500, "S", 0), Fig01({{2, 0, false, 1, 0, 0, 0}}),
                               Fig03({{77, false, false, 1, 2, 0}})}));
    EXPECT_TRUE(parser.ensemble().Complete());
}

TEST(LabelText, CharacterSets) {
    FicParser parser;
    // UTF-8 with a two-byte character, and one cut off at the end.
    const std::string utf8 = "Caf\xC3\xA9 \xE2\x82\xAC 1234\xE2\x82";
    // UCS-2: "Ab" and a lone surrogate.
    const std::string ucs2("\x00\x41\x00\x62\xD8\x00\x00\x20\x00\x20\x00\x20\x00\x20\x00\x20", 16);
    PushGood(parser, PackFibs({Fig1(0, 0x1, utf8, 0xF000, 15), Fig02({{0xC600, 0, {}}}, false),
                               Fig1(1, 0xC600, ucs2, 0xC000, 6), Fig02({{0xC601, 0, {}}}, false),
                               Fig1(1, 0xC601, "Tab\tX\x80\xFF", 0x0000, 0)}));
    const auto& e = parser.ensemble();
    EXPECT_EQ(e.label.text, "Caf\xC3\xA9 \xE2\x82\xAC 1234??");
    EXPECT_EQ(e.label.shortText, "Caf\xC3\xA9");
    EXPECT_EQ(e.services.at(0xC600).label.text, "Ab?");
    EXPECT_EQ(e.services.at(0xC600).label.shortText, "Ab");
    EXPECT_EQ(e.services.at(0xC601).label.text, "Tab?X??");
}
