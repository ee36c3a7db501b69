// T-DMB stream payload: MPEG-2 transport packets, each extended to 204 bytes
// by RS(204,188) parity, then a convolutional byte interleaver of 12
// branches, branch j delaying by 17 * j cells of 12 bytes. The interleaved
// bytes run on continuously across logical frames.
#include <array>
#include <cstring>

#include "generator/payload_coding.h"
#include "generator/payload_file.h"
#include "generator/payload_rng.h"
#include "generator/payload_sources.h"

namespace gen {
namespace {

constexpr int kTsBytes = 188;
constexpr int kCodedBytes = 204;
constexpr int kBranches = 12;
constexpr int kCellStep = 17;  // cells added per branch

class TdmbPayload final : public PayloadSource {
public:
    TdmbPayload(const TdmbStreamParams& params, std::vector<uint8_t> file)
        : params_(params), file_(std::move(file)), rng_(0x7D3B'0000'0000'0000ull ^ params.seed), rs_(16) {
        for (int j = 0; j < kBranches; ++j) fifo_[j].assign(static_cast<size_t>(kCellStep * j), 0);
    }

    void NextLogicalFrame(uint8_t* out, size_t length) override {
        for (size_t i = 0; i < length; ++i) {
            if (wordPos_ == kCodedBytes) NextWord();
            out[i] = Interleave(word_[wordPos_++]);
        }
    }

    std::string Describe() const override {
        if (!params_.tsFile.empty())
            return "T-DMB stream from " + params_.tsFile + " (" + std::to_string(file_.size() / kTsBytes) + " TS packets, looping)";
        return "T-DMB stream, synthetic TS on PID " + std::to_string(params_.pid) + ", seed " + std::to_string(params_.seed);
    }

private:
    // Synthetic packets: PID, payload only, continuity counter, the payload
    // unit start flag every 16 packets, and random payload bytes that avoid
    // the sync value so that a receiver's sync search meets no decoys there.
    void MakeTsPacket(uint8_t* ts) {
        if (!file_.empty()) {
            std::memcpy(ts, file_.data() + filePos_, kTsBytes);
            filePos_ = (filePos_ + kTsBytes) % file_.size();
            return;
        }
        ts[0] = 0x47;
        ts[1] = static_cast<uint8_t>(((packets_ % 16 == 0) ? 0x40 : 0) | ((params_.pid >> 8) & 0x1F));
        ts[2] = static_cast<uint8_t>(params_.pid);
        ts[3] = static_cast<uint8_t>(0x10 | (packets_ & 0x0F));
        for (int k = 4; k < kTsBytes; ++k) {
            uint8_t b = rng_.Byte();
            ts[k] = b == 0x47 ? 0x46 : b;
        }
    }

    void NextWord() {
        MakeTsPacket(word_.data());
        ++packets_;
        if (params_.tsLog) params_.tsLog->emplace_back(word_.begin(), word_.begin() + kTsBytes);
        rs_.Encode(word_.data(), kTsBytes, 1, word_.data() + kTsBytes, 1);
        wordPos_ = 0;
    }

    // Byte k of the coded stream enters branch k mod 12; the branch returns
    // the byte that entered it 17 * j visits earlier (zeros at first).
    uint8_t Interleave(uint8_t in) {
        const int j = branch_;
        branch_ = (branch_ + 1) % kBranches;
        if (j == 0) return in;
        std::vector<uint8_t>& f = fifo_[j];
        size_t& head = head_[j];
        const uint8_t out = f[head];
        f[head] = in;
        head = (head + 1) % f.size();
        return out;
    }

    TdmbStreamParams params_;
    std::vector<uint8_t> file_;   // whole TS packets, or empty for synthetic ones
    size_t filePos_ = 0;
    Rng rng_;
    RsEncoder rs_;
    std::array<uint8_t, kCodedBytes> word_{};
    int wordPos_ = kCodedBytes;   // next byte of word_ to send
    uint64_t packets_ = 0;
    std::array<std::vector<uint8_t>, kBranches> fifo_;
    std::array<size_t, kBranches> head_{};
    int branch_ = 0;
};

}  // namespace

PayloadPtr MakeTdmbPayload(int bitrateKbps, const TdmbStreamParams& params, std::string* error) {
    if (bitrateKbps < 8) {
        if (error) *error = "T-DMB needs a bit rate of at least 8 kbit/s";
        return nullptr;
    }
    std::vector<uint8_t> file;
    if (!params.tsFile.empty()) {
        if (!ReadWholeFile(params.tsFile, &file, error)) return nullptr;
        if (file.empty() || file.size() % kTsBytes != 0) {
            if (error) *error = params.tsFile + ": not a whole number of 188-byte transport packets";
            return nullptr;
        }
        for (size_t p = 0; p < file.size(); p += kTsBytes) {
            if (file[p] != 0x47) {
                if (error) *error = params.tsFile + ": packet at byte " + std::to_string(p) + " lacks the sync byte 0x47";
                return nullptr;
            }
        }
    }
    if (params.pid > 0x1FFF) {
        if (error) *error = "PID must be below 8192";
        return nullptr;
    }
    return std::make_unique<TdmbPayload>(params, std::move(file));
}

}  // namespace gen
