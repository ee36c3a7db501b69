// Factories for the sub-channel payloads of the transmitter. Every source is
// deterministic: building a second source with the same arguments gives the
// same bytes, frame for frame, which is how a test regenerates what was sent.
// A factory that cannot build its source (unreadable file, sizes that do not
// fit the sub-channel) returns nullptr and, if `error` is given, says why.
//
// `bitrateKbps` is the sub-channel's bit rate; a logical frame is 3 * bitrate
// bytes. A source asked for another length than it was built for fills the
// frame with zeros.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "generator/payload.h"

namespace gen {

// Pseudo-random bytes from a seed; any frame length.
PayloadPtr MakeRandomPayload(uint32_t seed);
// The bytes of a file, looping at its end; any frame length.
PayloadPtr MakeFilePayload(const std::string& path, std::string* error = nullptr);

// Classic DAB audio: an MPEG layer II file at 48 kHz (one frame per logical
// frame) or 24 kHz (one frame per two logical frames), whose every frame has
// the sub-channel's bit rate. Loops over the file's whole frames.
PayloadPtr MakeMp2Payload(const std::string& path, int bitrateKbps, std::string* error = nullptr);

// The audio parameters of a DAB+ sub-channel (header byte 2 of the superframe).
struct DabPlusAudio {
    bool dac48k = true;        // dac_rate: true 48 kHz, false 32 kHz output
    bool sbr = true;           // sbr_flag
    bool stereo = true;        // aac_channel_mode: true stereo, false mono core
    bool ps = false;           // ps_flag (SBR with mono core only)
    int mpegSurround = 0;      // mpeg_surround_config, 0..7
};

// DAB+ from a file of finished superframes (120 * s bytes each, s = bitrate/8),
// sent as they are; the file size must be a whole number of superframes.
PayloadPtr MakeDabPlusSuperframeFilePayload(const std::string& path, int bitrateKbps,
                                            std::string* error = nullptr);
// DAB+ built from a file of access units, each preceded by its length as a
// 16-bit big-endian number. Each superframe takes the next num_aus units
// (2, 3, 4 or 6 by the audio parameters); the last one of a superframe is
// padded with zero bytes to fill it. Units that would overflow a superframe
// make the factory fail; a trailing incomplete group is ignored.
PayloadPtr MakeDabPlusAuFilePayload(const std::string& path, int bitrateKbps, const DabPlusAudio& audio,
                                    std::string* error = nullptr);
// DAB+ with synthetic access units of plausible, varying sizes and
// pseudo-random content from a seed.
PayloadPtr MakeDabPlusSyntheticPayload(int bitrateKbps, const DabPlusAudio& audio, uint32_t seed,
                                       std::string* error = nullptr);

// One packet-mode service component in a packet stream.
struct PacketComponent {
    uint16_t address = 1;        // packet address, 1..1021
    int packetBytes = 96;        // 24, 48, 72 or 96
    bool dataGroups = true;      // useful data are MSC data groups (with their CRC); else raw chunks
    int weight = 1;              // relative share of the packets
};

struct PacketStreamParams {
    std::vector<PacketComponent> components;  // empty = one component with the defaults
    bool fec = false;                 // FEC frames with RS(204,188) parity in 9 FEC packets
    double paddingShare = 0.1;        // fraction of packet slots sent as 24-byte padding packets
    uint32_t seed = 1;                // content and scheduling
    // If set, every ordinary packet (not FEC packets) is appended here as sent,
    // header and CRC included, in stream order.
    std::shared_ptr<std::vector<std::vector<uint8_t>>> packetLog;
};
PayloadPtr MakePacketPayload(int bitrateKbps, const PacketStreamParams& params, std::string* error = nullptr);

struct TdmbStreamParams {
    uint32_t seed = 1;           // content of the synthetic transport packets
    uint16_t pid = 0x100;        // PID of the synthetic transport packets
    std::string tsFile;          // if set: 188-byte transport packets from this file, looping
    // If set, every 188-byte transport packet is appended here as sent.
    std::shared_ptr<std::vector<std::vector<uint8_t>>> tsLog;
};
// T-DMB stream: transport packets, RS(204,188), convolutional interleaver of
// 12 branches with 17-byte steps (delay lines start filled with zeros), sent as
// a continuous byte stream.
PayloadPtr MakeTdmbPayload(int bitrateKbps, const TdmbStreamParams& params, std::string* error = nullptr);

// Wraps a source so that every byte it sends is also appended to `record`.
PayloadPtr MakeRecordingPayload(PayloadPtr inner, std::shared_ptr<std::vector<uint8_t>> record);
// Wraps a source so that its first `skipFrames` logical frames are dropped:
// the stream starts at another phase (e.g. mid-superframe).
PayloadPtr MakeSkippingPayload(PayloadPtr inner, int skipFrames);

// A source from a one-line description, for tools and configuration files:
//   random:SEED              file:PATH               mp2:PATH
//   dabp:PATH                (file of finished superframes)
//   dabplus-au:PATH[,opts]   dabplus-synth:SEED[,opts]
//       opts: rate=48|32, sbr=0|1, stereo=0|1, ps=0|1
//   packet:SEED[,opts]       opts: address=N, size=24|48|72|96, fec=0|1, groups=0|1, padding=R
//   tdmb:SEED[,pid=N]        tdmb-file:PATH
PayloadPtr MakePayloadFromText(const std::string& text, int bitrateKbps, std::string* error = nullptr);

}  // namespace gen
