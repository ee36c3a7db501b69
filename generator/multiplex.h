// The transmitter's multiplex: an ensemble description turned into the
// channel bits of consecutive transmission frames (frame_bits.h). Per CIF:
// one FIB group coded as a FIC block, and every sub-channel's next logical
// frame coded and time-interleaved into its place in the CIF.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "generator/ensemble_description.h"
#include "generator/fic_encoder.h"
#include "generator/frame_bits.h"
#include "generator/msc_encoder.h"
#include "generator/payload.h"

namespace gen {

constexpr int kCifCountCycle = 5000;  // the CIF count runs 0..4999

class Multiplex final : public FrameBitSource {
public:
    // nullptr with `error` set when the description is inconsistent: ids,
    // overlapping or oversized sub-channels, protections that do not fit the
    // bit rate, payloads that can't be built, components without a sub-channel.
    static std::unique_ptr<Multiplex> Make(const EnsembleDescription& description, std::string* error);
    ~Multiplex() override;

    void NextFrame(std::vector<uint8_t>& bits) override;

    // Writes the next CIF: its FIB group (FibsPerCif x 32 bytes) and its
    // 55,296 MSC bits. NextFrame is made of these.
    void NextCif(uint8_t* fibs, uint8_t* mscBits);

    // CIF count of the next CIF to be sent.
    int CifCount() const;
    // If set, every FIB sent is appended here (32 bytes each, in order).
    void RecordFibs(std::shared_ptr<std::vector<uint8_t>> record) { fibRecord_ = std::move(record); }
    // The description as filled in (start addresses resolved).
    const EnsembleDescription& Description() const { return description_; }
    // What is sent: ensemble, services, sub-channels, payloads, reconfiguration.
    std::string Listing() const;

private:
    Multiplex() = default;
    struct SubChannel;
    void UpdateCarousel();
    std::vector<SubChannelOrganisation> Organisation(bool afterChange) const;

    EnsembleDescription description_;
    std::vector<std::unique_ptr<SubChannel>> subChannels_;
    FibScheduler scheduler_{1};
    uint64_t cifIndex_ = 0;           // CIFs sent
    int64_t changeAtCif_ = -1;        // CIF index of the reconfiguration, -1 none
    bool changed_ = false;            // reconfiguration applied
    bool announcing_ = false;         // carousel holds the next organisation
    std::shared_ptr<std::vector<uint8_t>> fibRecord_;
    std::vector<uint8_t> fibs_, msc_, ficBits_;
};

}  // namespace gen
