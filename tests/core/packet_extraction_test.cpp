// Packet-mode extraction against the transmitter's packet streams, with and
// without FEC frames, fed in pieces of one transmission frame as the
// sub-channel decoder delivers them; and the recovery rules on crafted
// packets.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "delivery/gf_tables.h"
#include "delivery/packet_extraction.h"
#include "delivery/reed_solomon.h"
#include "generator/payload_coding.h"
#include "generator/payload_sources.h"
#include "receiver/callback_slots.h"

namespace mvdab {
namespace {

struct Delivered {
    std::vector<uint8_t> bytes;
    int32_t address, subChannelId;
};
std::vector<Delivered> delivered;
void Capture(uint8_t* packet, int32_t size, int32_t address, int32_t id) { delivered.push_back({{packet, packet + size}, address, id}); }

constexpr uint16_t kWanted = 5;
constexpr uint16_t kOther = 300;
constexpr uint8_t kId = 7;
constexpr int kFecFrameBytes = kFecDataBytes + kFecPacketsPerFrame * kFecPacketBytes;  // 2,472

// The transmitter's packet sub-channel at 64 kbit/s: 96-byte packets of
// address 5, 24-byte packets of address 300, padding.
struct SentPackets {
    std::vector<uint8_t> bytes;
    std::vector<std::vector<uint8_t>> log;  // ordinary packets in stream order

    SentPackets(bool fec, int logicalFrames) {
        gen::PacketStreamParams p;
        p.components = {{kWanted, 96, true, 2}, {kOther, 24, true, 1}};
        p.fec = fec;
        p.seed = 5;
        auto log = std::make_shared<std::vector<std::vector<uint8_t>>>();
        p.packetLog = log;
        gen::PayloadPtr source = gen::MakePacketPayload(64, p);
        bytes.resize(size_t(logicalFrames) * 192);
        for (size_t at = 0; at < bytes.size(); at += 192) source->NextLogicalFrame(&bytes[at], 192);
        this->log = *log;
    }
    static int Address(const std::vector<uint8_t>& packet) { return (packet[0] & 3) << 8 | packet[1]; }
    // The logged packets of `address` from logged packet `first` on.
    std::vector<std::vector<uint8_t>> Of(int address, size_t first = 0) const {
        std::vector<std::vector<uint8_t>> out;
        for (size_t i = first; i < log.size(); ++i)
            if (Address(log[i]) == address) out.push_back(log[i]);
        return out;
    }
    // Index in the log of the first packet of FEC frame `frame`.
    size_t FirstOfFrame(int frame) const {
        size_t i = 0;
        for (int at = 0; at < frame * kFecDataBytes; ++i) at += int(log[i].size());
        return i;
    }
};

struct PacketExtraction : ::testing::Test {
    uint16_t wanted[2] = {kWanted, 1022};

    void SetUp() override {
        ASSERT_EQ(BuildGfTables(), 1);
        ASSERT_EQ(InitRs204(), 1);
        ASSERT_EQ(AllocatePacketDecoders(), 1);
        delivered.clear();
        packetCallback = Capture;
    }
    void TearDown() override {
        FreePacketDecoders();
        FreeRs204();
        FreeGfTables();
    }
    // The first `count` bytes in pieces of `piece` bytes (the last one shorter).
    void Feed(const std::vector<uint8_t>& bytes, int piece, uint8_t fec, size_t count = SIZE_MAX) {
        count = std::min(count, bytes.size());
        for (size_t at = 0; at < count; at += piece)
            ASSERT_EQ(ExtractPackets(0, &bytes[at], kId, int(std::min<size_t>(piece, count - at)), wanted, 2, fec), 1);
    }
    // A fresh decoder on instance 0.
    void Restart() {
        delivered.clear();
        ResetPacketProbe(0);
        ResetPacketDecoder(0);
        RestartPacketSearch(0);
    }
    // Delivered packets equal `expected` from its start, with at most `missing`
    // left at the end (still held), and all under their own address.
    static void ExpectPrefixOf(const std::vector<std::vector<uint8_t>>& expected, size_t missing) {
        ASSERT_LE(delivered.size(), expected.size());
        ASSERT_GE(delivered.size() + missing, expected.size());
        for (size_t i = 0; i < delivered.size(); ++i) {
            ASSERT_EQ(delivered[i].bytes, expected[i]) << "packet " << i;
            ASSERT_TRUE(delivered[i].address == kWanted && delivered[i].subChannelId == kId);
        }
    }
};

// One transmission frame of 64 kbit/s in modes I, IV and II/III.
constexpr int kPieces[] = {768, 384, 192, 1, 1000};

// With FEC and byte errors within its power, at most 8 per column of a table
// anywhere in its data and parity: the search finds the end of the first FEC
// frame on the FEC packets 6, 7, 8; from the second frame on every packet of
// the wanted address comes out exactly, in order, whatever the pieces, and
// the FEC packets never do.
TEST_F(PacketExtraction, FecStreamWithByteErrorsDeliversEveryWantedPacket) {
    SentPackets s(true, 400);
    const int frames = int(s.bytes.size()) / kFecFrameBytes;
    std::mt19937 rng(17);
    for (int f = 2; f < frames; ++f) {
        uint8_t* frame = &s.bytes[size_t(f) * kFecFrameBytes];
        // The table as a column store: data byte 12j + c, parity byte 2,256 + 12j + c.
        for (int c = 0; c < 12; ++c) {
            for (int e = 0; e < 8; ++e) {
                const int at = c + 12 * int(rng() % 204);
                uint8_t* byte = at < kFecDataBytes ? frame + at
                                                   : frame + kFecDataBytes + 24 * ((at - kFecDataBytes) / 22) + 2 + (at - kFecDataBytes) % 22;
                *byte ^= uint8_t(1 + rng() % 255);
            }
        }
    }
    for (int piece : kPieces) {
        SCOPED_TRACE("pieces of " + std::to_string(piece));
        Restart();
        Feed(s.bytes, piece, 1);
        ExpectPrefixOf(s.Of(kWanted, s.FirstOfFrame(1)), s.Of(kWanted, s.FirstOfFrame(frames - 1)).size() + 24);
        EXPECT_GT(delivered.size(), 500u);
        EXPECT_EQ(packetDecoders[0].state, 3);
    }
}

// Without FEC, an FEC stream read as one without (the FEC packets stepped
// over), and FEC expected but not sent (after 500 packets the decoder falls
// back to no FEC at the next call and delivers from that call on): every
// wanted packet from the first delivered on, whatever the pieces.
TEST_F(PacketExtraction, StreamReadWithoutFecDeliversEveryWantedPacket) {
    struct Case {
        bool sentFec;
        uint8_t expectFec;
    };
    for (const Case c : {Case{false, 0}, Case{true, 0}, Case{false, 1}}) {
        const SentPackets s(c.sentFec, c.expectFec ? 600 : 200);
        const auto all = s.Of(kWanted);
        size_t seen = 0;  // wanted packets among the first 500
        for (size_t i = 0; i < 500; ++i) seen += SentPackets::Address(s.log[i]) == kWanted;
        for (int piece : kPieces) {
            SCOPED_TRACE(std::to_string(c.sentFec) + std::to_string(c.expectFec) + ", pieces of " + std::to_string(piece));
            Restart();
            Feed(s.bytes, piece, c.expectFec);
            ASSERT_FALSE(delivered.empty());
            const size_t first = size_t(std::find(all.begin(), all.end(), delivered[0].bytes) - all.begin());
            EXPECT_EQ(first >= (piece == 768 ? seen : 1), c.expectFec == 1);
            // The transmitter logs whole FEC frames, the last one partly sent.
            const int frames = int(s.bytes.size()) / kFecFrameBytes;
            ExpectPrefixOf({all.begin() + long(first), all.end()}, 3 + (c.sentFec ? s.Of(kWanted, s.FirstOfFrame(frames)).size() : 0));
            EXPECT_TRUE(packetDecoders[0].state == 6 && packetDecoders[0].noFec == c.expectFec);
        }
    }
    RestartPacketSearch(0);
    EXPECT_TRUE(packetDecoders[0].state == 0 && packetDecoders[0].noFec == 0);
}

// How many FEC packets of a damaged table are in place decides whether the
// decoder keeps the frame alignment: with 6 it fills the next table, with 5
// it searches again; a clean table keeps it whatever its FEC packets. The
// table itself is delivered either way.
TEST_F(PacketExtraction, FewFecPacketsInPlaceRestartTheSearch) {
    struct Case {
        int inPlace;
        bool damaged;
        int state;
    };
    for (const Case c : {Case{6, true, 3}, Case{5, true, 0}, Case{5, false, 3}}) {
        SCOPED_TRACE(std::to_string(c.inPlace) + (c.damaged ? " in place, damaged" : " in place"));
        SentPackets s(true, 60);
        uint8_t* frame2 = &s.bytes[size_t(2) * kFecFrameBytes];
        if (c.damaged) frame2[100] ^= 0x55;
        for (int k = c.inPlace; k < 9; ++k) frame2[kFecDataBytes + 24 * k + 1] ^= 0x10;  // not address 1022
        Restart();
        Feed(s.bytes, 768, 1, 3 * kFecFrameBytes);
        EXPECT_EQ(packetDecoders[0].state, c.state);
        // Tables 1 and 2 (the damaged one, repaired) come out whole.
        auto expected = s.Of(kWanted, s.FirstOfFrame(1));
        expected.resize(expected.size() - s.Of(kWanted, s.FirstOfFrame(3)).size());
        ExpectPrefixOf(expected, 0);
    }
}

// Builds a packet of `size` bytes with a good CRC.
std::vector<uint8_t> MakePacket(int size, int address, int firstLast, int useful, uint8_t fill) {
    std::vector<uint8_t> p(size, 0);
    p[0] = uint8_t(((size / 24 - 1) << 6) | (firstLast << 2) | (address >> 8));
    p[1] = uint8_t(address);
    p[2] = uint8_t(useful);
    for (int i = 3; i < 3 + useful; ++i) p[i] = fill;
    const uint16_t crc = gen::CrcCcitt16(p.data(), size_t(size - 2));
    p[size - 2] = uint8_t(crc >> 8);
    p[size - 1] = uint8_t(crc);
    return p;
}

// The recovery rules, without FEC: what comes out after packets whose CRC
// fails, by the packet lengths that follow.
TEST_F(PacketExtraction, RecoveryAfterADamagedPacket) {
    const auto good96 = MakePacket(96, 9, 3, 50, 0xAA);
    auto damaged24 = MakePacket(24, 7, 3, 10, 0x11);
    auto damagedFull48 = MakePacket(48, 9, 2, 43, 0x22);  // a first packet of a group, full
    auto damagedShort48 = MakePacket(48, 9, 2, 20, 0x22);
    damaged24[5] ^= 1, damagedFull48[10] ^= 1, damagedShort48[10] ^= 1;
    const auto good48 = MakePacket(48, 9, 3, 30, 0x33);
    const auto other96 = MakePacket(96, 11, 3, 50, 0xBB);
    // Every 24 bytes a header of a 96-byte packet of address 9 that is
    // neither CRC-valid nor plausible.
    std::vector<uint8_t> badRun(24 * 20);
    for (size_t i = 0; i < badRun.size(); ++i) badRun[i] = uint8_t(i * 37 + 11);
    for (size_t i = 0; i < badRun.size(); i += 24) badRun[i] = 0xC0, badRun[i + 1] = 9, badRun[i + 2] = 0x7F;
    struct Case {
        const char* name;
        std::vector<std::vector<uint8_t>> stream;
        std::vector<std::pair<int, int>> expected;  // (size, address), in order
    };
    const Case cases[] = {
        // 24 bytes under the address of the good packet that follows them.
        {"damaged 24 then good 48", {damaged24, good48, good96, good96}, {{24, 9}, {48, 9}, {96, 9}, {96, 9}}},
        // A full first packet passes on its useful length alone, under its own address.
        {"damaged full first packet", {damagedFull48, other96, good96}, {{48, 9}, {96, 9}}},
        // Not full: found again 48 bytes on; the 48 go out under the next
        // packet's address, here not a wanted one.
        {"damaged short first packet", {damagedShort48, other96, good96}, {{96, 9}}},
        {"damaged short first packet, wanted next", {damagedShort48, good96}, {{48, 9}, {96, 9}}},
        // Two while fewer than three in a row have failed, then the bytes
        // before the packet found again; in between the decoder steps 24
        // bytes at a time until a CRC passes.
        {"three damaged packets in a row", {badRun, good96, good96}, {{96, 9}, {96, 9}, {96, 9}, {96, 9}, {96, 9}}},
    };
    uint16_t address = 9;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ResetPacketProbe(0);
        delivered.clear();
        std::vector<uint8_t> bytes;
        for (const auto& p : c.stream) bytes.insert(bytes.end(), p.begin(), p.end());
        bytes.resize(bytes.size() + 192, 0xFF);  // the look-ahead of the last packets
        ASSERT_EQ(ExtractPackets(0, bytes.data(), kId, int(bytes.size()), &address, 1, 0), 1);
        std::vector<std::pair<int, int>> got;
        for (const Delivered& d : delivered) got.push_back({int(d.bytes.size()), d.address});
        EXPECT_EQ(got, c.expected);
    }
}

// The probe answers 2 (FEC) or 1 (none) once it has seen a table's 2,448 bytes.
TEST_F(PacketExtraction, ProbeCountsFecPackets) {
    for (bool fec : {true, false}) {
        const SentPackets s(fec, 60);
        ResetPacketProbe(1);
        int result = 0, fed = 0;
        for (; result == 0 && fed < int(s.bytes.size()); fed += 500) result = ProbePacketFec(&s.bytes[fed], 500, 1);
        EXPECT_EQ(result, fec ? 2 : 1);
        EXPECT_EQ(fed, 2500);
    }
}

TEST_F(PacketExtraction, BadArgumentsChangeNothing) {
    uint8_t bytes[4] = {};
    for (int instance : {2, -1}) EXPECT_EQ(ExtractPackets(instance, bytes, kId, 4, wanted, 2, 1), 0);
    EXPECT_EQ(ExtractPackets(0, nullptr, kId, 4, wanted, 2, 1), 0);
    EXPECT_EQ(ExtractPackets(0, bytes, kId, -4, wanted, 2, 1), 0);
    EXPECT_EQ(ExtractPackets(0, bytes, kId, 4, nullptr, 2, 1), 0);
    EXPECT_EQ(ExtractPackets(0, nullptr, kId, 0, nullptr, 0, 1), 1);
    EXPECT_EQ(ProbePacketFec(bytes, 4, 2), -1);
    EXPECT_EQ(ExtractPacketFrame(nullptr, wanted, 2), 0);
    EXPECT_EQ(packetDecoders[0].state, 0);
    FreePacketDecoders();
    EXPECT_EQ(ExtractPackets(0, bytes, kId, 4, wanted, 2, 1), 0);
}

// Random bytes of any length, damaged FEC streams and wild address lists:
// nothing read or written out of bounds (under the sanitizers), every
// delivery one packet of a wanted address.
TEST_F(PacketExtraction, RandomInputOfAnyLength) {
    SentPackets s(true, 100);
    std::mt19937 rng(23);
    std::vector<uint8_t> bytes(6000);
    uint16_t addresses[4] = {kWanted, kOther, 1022, 0};
    for (int r = 0; r < 1200; ++r) {
        const int length = int(rng() % (r % 7 == 0 ? 6000 : 300)), instance = int(rng() % 2);
        std::memcpy(bytes.data(), &s.bytes[rng() % (s.bytes.size() - 6000)], size_t(length));
        for (int e = rng() % 2 ? length : int(rng() % 20); e > 0 && length > 0; --e) bytes[rng() % length] ^= uint8_t(rng());
        switch (rng() % 8) {
            case 0: ProbePacketFec(bytes.data(), length, instance); break;
            case 1: RestartPacketSearch(instance); break;
            case 2: ResetPacketDecoder(instance); break;
            default: ExtractPackets(instance, bytes.data(), kId, length, addresses, uint16_t(rng() % 5), uint8_t(rng() % 2));
        }
    }
    for (const Delivered& d : delivered)
        ASSERT_TRUE(d.bytes.size() >= 24 && d.bytes.size() <= 96 && (d.address == kWanted || d.address == kOther || d.address == 1022 || d.address == 0));
}

}  // namespace
}  // namespace mvdab
