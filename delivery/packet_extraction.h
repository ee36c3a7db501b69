// Packet-mode data: the sub-channel bytes of a packet-mode data service cut
// into packets, with or without the Reed-Solomon FEC frames of packet mode,
// and every packet of a wanted address handed to the packet callback.
//
// Packet, 24, 48, 72 or 96 bytes:
//
//   byte 0   | lengthCode 7..6 | continuityIndex 5..4 | firstLast 3..2 | address 9..8 |
//   byte 1   | address 7..0 |
//   byte 2   | command 7 | usefulLength 6..0 |
//   ...      useful data, padding
//   last 2   CRC (x^16 + x^12 + x^5 + 1, preset ones, sent complemented)
//
// fecIndex is bits 5..2 of byte 0 read as one number. Address 1022 marks an
// FEC packet, always 24 bytes and without CRC.
//
// FEC frame: 2,256 bytes of whole packets (the table), then nine FEC packets
// with fecIndex 0..8 whose bytes 2..23 (2..17 in the ninth) carry 192 parity
// bytes. fecTable holds both, 2,448 bytes, as 12 columns of RS(204,188):
//
//   byte  0       12      24     ...  2,244  | 2,256   2,268  ...  2,436
//         col 0   col 0   col 0       col 0  | par 0   par 0       par 0     (col c: + c)
//         <------ 188 rows of data ---------> <------ 16 rows of parity ---->
//
// Two independent decoders, chosen by `instance`, each with its own table.
//
// Input arrives in pieces of any length (one transmission frame of the
// sub-channel each), and packets run across the pieces. A decoder therefore
// keeps the position in the stream from one call to the next: a pass that
// steps beyond the end of a piece continues in the next one, and the bytes
// of a pass that needs more than the piece still holds (a header, a packet
// whose CRC must be tested, the 192 bytes that the recovery may look ahead)
// are carried over and joined with the start of the next piece.
#pragma once

#include <cstdint>

namespace mvdab {

struct ServiceComponent;

constexpr int32_t kPacketInstances = 2;
constexpr int32_t kFecDataBytes = 2256;
constexpr int32_t kFecParityBytes = 192;
constexpr int32_t kFecTableBytes = kFecDataBytes + kFecParityBytes;  // 2,448
constexpr int32_t kFecPacketBytes = 24;
constexpr int32_t kFecPacketsPerFrame = 9;
constexpr uint16_t kFecAddress = 1022;
constexpr int32_t kPacketSearchLimit = 500;       // packets in state 0 before the stream counts as unprotected
constexpr int32_t kPacketLookahead = 192;         // the recovery reads at most two 96-byte packets
constexpr int32_t kPacketCarryBytes = 2 * kPacketLookahead;

// The FEC frame under assembly, one allocation per decoder.
struct FecFrame {
    int32_t fecTableCount;               // bytes now in fecTable
    uint8_t fecTable[kFecTableBytes];    // table, then parity
};
static_assert(sizeof(FecFrame) == 2452);

struct PacketDecoder {
    uint8_t state;              // 0 searching, 1 saw FEC 6, 2 saw FEC 7, 3 filling, 4 taking parity, 5 skipping parity, 6 no FEC
    FecFrame* fec;              // owned from open to close
    uint8_t fecCount;           // FEC packets taken for the current table
    uint8_t fecMatches;         // of those, with address 1022 and the expected fecIndex
    uint8_t errorRun;           // consecutive packets without CRC or recovery
    uint8_t tableDamaged;       // a packet of the full table failed its CRC
    uint8_t checkFirstPacket;   // the next packet's CRC must confirm the alignment
    uint16_t searchCount;       // packets seen while searching for FEC packets
    uint8_t noFec;              // set after 500 packets without FEC packets
    int32_t step;               // bytes of the last advance
    uint8_t probeFecPackets;    // FEC packets counted by ProbePacketFec
    int32_t skipBytes;          // bytes of the last pass that lie beyond the last piece
    int32_t carryCount;         // bytes in carry
    uint8_t* carry;             // kPacketCarryBytes, owned: the start of a pass held over to the next piece
};
extern PacketDecoder packetDecoders[kPacketInstances];

// Open and close: both decoders' tables and carries, zeroed, then
// ResetPacketProbe, RestartPacketSearch and ResetPacketDecoder for both. 1,
// or 0 if an allocation fails (what exists stays until the free).
int32_t AllocatePacketDecoders();
void FreePacketDecoders();

// Cuts `length` bytes of sub-channel `subChannelId` into packets and
// delivers the wanted ones (callback(packet, size, address, subChannelId),
// one call at most per packet; none for addressCount 0 or without a
// callback). `fecEnabled` 0: a stream without FEC frames. 1; 0 for an
// instance other than 0 or 1, a decoder not allocated, or a null pointer
// with a length or count above 0, all of which change nothing.
int32_t ExtractPackets(int32_t instance, const uint8_t* bytes, uint8_t subChannelId, int32_t length,
                       const uint16_t* addresses, uint16_t addressCount, uint8_t fecEnabled);
// The frame pipeline's entry: the component's decoded bytes of one
// transmission frame through decoder 0, FEC by the component's fecScheme.
int32_t ExtractPacketFrame(const ServiceComponent* component, const uint16_t* addresses, uint16_t addressCount);

// Collects input until the table's 2,448 bytes are full: 0 while
// collecting; then 1 if the table held fewer than 3 FEC packets, 2 if 3 or
// more. -1 for a bad instance or a decoder not allocated.
int32_t ProbePacketFec(const uint8_t* bytes, int32_t length, int32_t instance);
// Clears the counters and the table (the stream position is kept).
void ResetPacketDecoder(int32_t instance);
// Clears the probe's count and the table, and forgets the stream position:
// the start of a new stream.
void ResetPacketProbe(int32_t instance);
// Back to state 0 with FEC expected.
void RestartPacketSearch(int32_t instance);

bool PacketCrcValid(const uint8_t* packet, int32_t size);
// RS(204,188) over the 12 columns of a full table, parity at byte 2,256. 1.
int32_t CorrectFecTable(uint8_t* table);

}  // namespace mvdab
