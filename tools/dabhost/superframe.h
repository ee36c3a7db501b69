// The audio part of a DAB+ superframe as the receiver hands it to the MSC
// callback (110 s bytes, Reed-Solomon parity already removed), and the ways
// of wrapping its access units for a standard AAC decoder or a file.
//
//   byte 0   1   2                    3 ...                     auStart[1] ...
//   +-------+-------+--------------------+--------------------------+---------+----+-----
//   | firecode      | rfa dac sbr ch ps  | au_start[1..n-1], 12 bits | AU 0    |CRC | AU 1 ...
//   |               |      mpeg surround | each, 4 zero bits if odd  | payload |16 b|
//   +-------+-------+--------------------+--------------------------+---------+----+-----
//
// AU k runs from auStart[k] to auStart[k+1] - 1 (auStart[n] = the end of the
// audio part); its last two bytes are the CRC of the rest. Everything here is
// broadcast input and is read with bounds checks only: no start address,
// count or length can make a reader leave the bytes it was given.
#pragma once

#include <cstdint>
#include <vector>

namespace dabplus {

constexpr int kMaxAus = 6;          // AUs per superframe: 2, 3, 4 or 6
constexpr int kAuCrcBytes = 2;

// Byte 2 of the audio superframe.
struct AudioParameters {
    bool dac48k = false;       // output sampling rate 48 kHz (else 32 kHz)
    bool sbr = false;          // spectral band replication: AAC core at half the rate
    bool stereo = false;       // AAC core channel mode stereo (else mono)
    bool ps = false;           // parametric stereo (SBR with a mono core only)
    int mpegSurround = 0;      // mpeg_surround_config, 0..7; 0 none

    int AuCount() const;             // 2, 3, 4 or 6
    int HeaderBytes() const;         // where AU 0 starts: 5, 6, 8 or 11
    int CoreRateHz() const;          // 16000, 24000, 32000 or 48000
    int OutputRateHz() const { return dac48k ? 48000 : 32000; }
    bool operator==(const AudioParameters&) const = default;
};

struct AccessUnit {
    int offset = 0;        // first byte of the AU in the audio part
    int payloadBytes = 0;  // AU without its CRC; 0 when the AU holds no more than the CRC
    bool crcGood = false;  // the last two bytes hold the CRC of the payload
};

struct Superframe {
    AudioParameters audio;
    int auCount = 0;                 // AUs found, 0 when the header is unusable
    AccessUnit aus[kMaxAus];
};

// Reads the header and the AU table of one audio part of `length` bytes.
// False when the start addresses do not rise strictly inside the audio part
// (a header the firecode let through by chance, or bytes that are no
// superframe at all); `out->auCount` is then 0. Each AU's CRC is checked.
bool ParseSuperframe(const uint8_t* bytes, int length, Superframe* out);

// The CRC of an AU (the same as the FIB CRC): x^16 + x^12 + x^5 + 1, preset
// all ones, complemented.
uint16_t AuCrc(const uint8_t* bytes, int length);

// The AudioSpecificConfig bytes for a raw AAC decoder: AAC LC with 960-sample frames,
// SBR and PS signalled explicitly.
std::vector<uint8_t> DecoderConfig(const AudioParameters& audio);

// One AU as a LOAS/LATM frame (AudioSyncStream with the stream's
// configuration in every frame): carries the 960-sample framing, SBR and PS,
// so that a player decodes it as sent. The configuration inside is the
// hierarchical form (SBR or PS object type first): LATM readers of
// audioMuxVersion 0 do not look for the sync extensions of the explicit
// form above and would misread everything after the core's 16 bits. False, with nothing appended, for a
// payload too long for the frame's 13-bit length.
bool AppendLoasFrame(const AudioParameters& audio, const uint8_t* payload, int payloadBytes,
                     std::vector<uint8_t>* out);

// One AU as an ADTS frame (7-byte header, no CRC). ADTS implies 1024-sample
// frames and cannot signal SBR or PS, so a decoder reading it mistimes DAB+
// audio; it is written only when asked for by name. False as for LOAS.
bool AppendAdtsFrame(const AudioParameters& audio, const uint8_t* payload, int payloadBytes,
                     std::vector<uint8_t>* out);

}  // namespace dabplus
