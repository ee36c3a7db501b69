// Packet-mode payload: packets of one or more addresses with headers and
// CRCs, carrying MSC data groups or raw chunks, padding packets, and
// optionally FEC frames (2,256 bytes of packets then 9 FEC packets of
// RS(204,188) parity). The stream runs on across logical frames.
#include <cstring>

#include "generator/payload_coding.h"
#include "generator/payload_rng.h"
#include "generator/payload_sources.h"

namespace gen {
namespace {

constexpr int kFecTableBytes = 2256;     // application data table: 12 rows x 188 columns
constexpr int kFecRows = 12;             // RS codewords per FEC frame
constexpr int kFecParityBytes = 192;     // 12 codewords x 16 parity bytes
constexpr uint16_t kFecAddress = 1022;   // address of FEC packets
constexpr int kMaxGroupData = 400;       // bytes, upper bound of a synthetic data group's data field

struct ComponentState {
    PacketComponent config;
    std::vector<uint8_t> unit;     // data group (or raw chunk) being sent
    size_t sent = 0;               // bytes of `unit` already in packets
    int continuity = 0;            // packet continuity index, 0..3
    int groupContinuity = 0;       // data group continuity index, 0..15
};

void WritePacket(std::vector<uint8_t>& packet, int size, int continuity, int firstLast, uint16_t address,
                 const uint8_t* useful, int usefulLength) {
    packet.assign(static_cast<size_t>(size), 0);
    packet[0] = static_cast<uint8_t>(((size / 24 - 1) << 6) | ((continuity & 3) << 4) | ((firstLast & 3) << 2) |
                                     ((address >> 8) & 3));
    packet[1] = static_cast<uint8_t>(address);
    packet[2] = static_cast<uint8_t>(usefulLength & 0x7F);  // command bit 0: data packet
    if (usefulLength > 0) std::memcpy(&packet[3], useful, static_cast<size_t>(usefulLength));
    const uint16_t crc = CrcCcitt16(packet.data(), static_cast<size_t>(size - 2));
    packet[size - 2] = static_cast<uint8_t>(crc >> 8);
    packet[size - 1] = static_cast<uint8_t>(crc);
}

class PacketPayload final : public PayloadSource {
public:
    PacketPayload(int bitrate, const PacketStreamParams& params)
        : bitrate_(bitrate), params_(params), rng_(0x9AC7'E700'0000'0000ull ^ params.seed), rs_(16) {
        for (const PacketComponent& c : params.components) components_.push_back({c, {}, 0, 0, 0});
        for (const ComponentState& c : components_) totalWeight_ += c.config.weight;
    }

    void NextLogicalFrame(uint8_t* out, size_t length) override {
        while (stream_.size() - read_ < length) Generate();
        std::memcpy(out, stream_.data() + read_, length);
        read_ += length;
        if (read_ > 65536) {
            stream_.erase(stream_.begin(), stream_.begin() + static_cast<long>(read_));
            read_ = 0;
        }
    }

    std::string Describe() const override {
        std::string t = "packet mode " + std::to_string(bitrate_) + " kbit/s, seed " + std::to_string(params_.seed) + (params_.fec ? ", FEC" : "") + ":";
        for (const ComponentState& c : components_)
            t += " address " + std::to_string(c.config.address) + " (" + std::to_string(c.config.packetBytes) + "-byte, " +
                 (c.config.dataGroups ? "data groups" : "raw") + ")";
        return t;
    }

private:
    void Log(const std::vector<uint8_t>& packet) {
        if (params_.packetLog) params_.packetLog->push_back(packet);
    }

    // The next ordinary packet: padding, or the next piece of a component.
    void MakePacket(std::vector<uint8_t>& packet) {
        if (rng_.Uniform() < params_.paddingShare || totalWeight_ <= 0) {
            WritePacket(packet, 24, 0, 0, 0, nullptr, 0);
            return;
        }
        int pick = static_cast<int>(rng_.Below(static_cast<uint64_t>(totalWeight_)));
        size_t i = 0;
        while (pick >= components_[i].config.weight) pick -= components_[i++].config.weight;
        ComponentState& c = components_[i];
        if (c.sent == c.unit.size()) NewUnit(c);
        const int room = c.config.packetBytes - 5;
        const int useful = static_cast<int>(std::min<size_t>(static_cast<size_t>(room), c.unit.size() - c.sent));
        const bool first = c.sent == 0;
        const bool last = c.sent + static_cast<size_t>(useful) == c.unit.size();
        const int firstLast = (first ? 2 : 0) | (last ? 1 : 0);
        WritePacket(packet, c.config.packetBytes, c.continuity, firstLast, c.config.address, c.unit.data() + c.sent, useful);
        c.continuity = (c.continuity + 1) & 3;
        c.sent += static_cast<size_t>(useful);
    }

    // A data group: 2-byte header (CRC flag set, type 0, continuity index),
    // a data field of random length and content, the group CRC. Without data
    // groups, a raw chunk of random length.
    void NewUnit(ComponentState& c) {
        const size_t data = 1 + rng_.Below(kMaxGroupData);
        c.sent = 0;
        if (!c.config.dataGroups) {
            c.unit.resize(data);
            for (uint8_t& b : c.unit) b = rng_.Byte();
            return;
        }
        c.unit.resize(2 + data + 2);
        c.unit[0] = 0x40;  // no extension, CRC present, no segment field, no user access field, type 0
        c.unit[1] = static_cast<uint8_t>(c.groupContinuity << 4);
        c.groupContinuity = (c.groupContinuity + 1) & 15;
        for (size_t k = 0; k < data; ++k) c.unit[2 + k] = rng_.Byte();
        const uint16_t crc = CrcCcitt16(c.unit.data(), 2 + data);
        c.unit[2 + data] = static_cast<uint8_t>(crc >> 8);
        c.unit[3 + data] = static_cast<uint8_t>(crc);
    }

    void Generate() {
        std::vector<uint8_t> packet;
        if (!params_.fec) {
            MakePacket(packet);
            Log(packet);
            stream_.insert(stream_.end(), packet.begin(), packet.end());
            return;
        }
        // One FEC frame: whole packets up to 2,256 bytes, a packet that does
        // not fit waits for the next frame and padding packets fill the gap.
        std::vector<uint8_t> table;
        table.reserve(kFecTableBytes);
        while (table.size() < kFecTableBytes) {
            if (held_.empty()) MakePacket(held_);
            if (table.size() + held_.size() > kFecTableBytes) {
                WritePacket(packet, 24, 0, 0, 0, nullptr, 0);
            } else {
                packet.swap(held_);
                held_.clear();
            }
            Log(packet);
            table.insert(table.end(), packet.begin(), packet.end());
        }
        // Codeword r holds table bytes r, r + 12, ...; its 16 parity bytes go
        // to parity stream bytes r, r + 12, ...
        uint8_t parity[kFecParityBytes];
        for (int r = 0; r < kFecRows; ++r) rs_.Encode(table.data() + r, 188, kFecRows, parity + r, kFecRows);
        stream_.insert(stream_.end(), table.begin(), table.end());
        for (int c = 0; c < 9; ++c) {
            uint8_t fec[24] = {};
            fec[0] = static_cast<uint8_t>((c << 2) | (kFecAddress >> 8));
            fec[1] = static_cast<uint8_t>(kFecAddress & 0xFF);
            const int count = c < 8 ? 22 : 16;
            std::memcpy(fec + 2, parity + 22 * c, static_cast<size_t>(count));
            stream_.insert(stream_.end(), fec, fec + 24);
        }
    }

    int bitrate_;
    PacketStreamParams params_;
    Rng rng_;
    RsEncoder rs_;
    std::vector<ComponentState> components_;
    int totalWeight_ = 0;
    std::vector<uint8_t> held_;    // packet waiting for the next FEC frame
    std::vector<uint8_t> stream_;  // bytes made but not yet sent, from read_
    size_t read_ = 0;
};

}  // namespace

PayloadPtr MakePacketPayload(int bitrateKbps, const PacketStreamParams& params, std::string* error) {
    PacketStreamParams p = params;
    if (p.components.empty()) p.components.push_back(PacketComponent{});
    if (bitrateKbps < 8) {
        if (error) *error = "packet mode needs a bit rate of at least 8 kbit/s";
        return nullptr;
    }
    for (const PacketComponent& c : p.components) {
        if (c.address < 1 || c.address > 1021 || c.packetBytes % 24 != 0 || c.packetBytes < 24 || c.packetBytes > 96 ||
            c.weight < 0) {
            if (error)
                *error = "packet component: address must be 1..1021, size 24/48/72/96, weight >= 0 (address " +
                         std::to_string(c.address) + ", size " + std::to_string(c.packetBytes) + ")";
            return nullptr;
        }
    }
    if (!(p.paddingShare >= 0 && p.paddingShare <= 1)) {
        if (error) *error = "packet padding share must lie in 0..1";
        return nullptr;
    }
    return std::make_unique<PacketPayload>(bitrateKbps, p);
}

}  // namespace gen
