// A generated ensemble played into a FrameHarness, with the payload of every
// sub-channel recorded as sent and the bytes the MSC callback delivers
// collected per sub-channel, so that tests can compare the two.
//
//   gen::EnsembleDescription d = ...;            // or a preset
//   mvdab::test::MscFeed feed(d, channel);
//   feed.PushUntilLocked(3.0);
//   feed.Add(subChannelId, 0);                   // as MVDAB_AddServiceCom
//   feed.Push(1.0);
//   feed.MatchesSent(subChannelId);              // delivered bytes == sent bytes
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "generator/channel_model.h"
#include "generator/ensemble_description.h"
#include "tests/support/frame_harness.h"
#include "tests/support/generated_subchannels.h"

namespace gen {
class FrameTransmitter;
}

namespace mvdab::test {

// One call of the MSC callback.
struct MscDelivery {
    int32_t flags;            // the sub-channel id
    int64_t ficFrame;         // FIC frames delivered before it (the same frame's included)
    std::vector<uint8_t> bytes;
};

class MscFeed {
public:
    // Builds the multiplex of `description` (mode and seed inside) and tunes
    // the harness; every sub-channel gets a recording of what it sends.
    MscFeed(gen::EnsembleDescription description, const gen::ChannelParams& channel);
    ~MscFeed();
    bool ok() const { return ok_; }
    const std::string& error() const { return error_; }

    // Pushes `seconds` of signal, IqFrame by IqFrame.
    void Push(double seconds);
    // Pushes until the FIC is locked (syncState 4) or `limitSeconds` passed.
    bool PushUntilLocked(double limitSeconds);

    // MVDAB_AddServiceCom with the parameters that the FIC gives for the
    // sub-channel `id` of the ensemble as sent now. Its result.
    int32_t Add(int32_t id, int8_t type);
    // MVDAB_ChangeSCOrg for `id` with its parameters after the ensemble's
    // reconfiguration, due at the low part of CIF count `cifCount`.
    int32_t AnnounceChange(int32_t id, int32_t cifCount);

    // Transmission frames whose FIC was delivered so far.
    int64_t ficFrames() const;
    // Deliveries so far, in order; cleared by ClearDeliveries.
    const std::vector<MscDelivery>& deliveries() const;
    void ClearDeliveries();
    // All bytes sent in sub-channel `id`, logical frame after logical frame.
    const std::vector<uint8_t>& Sent(int32_t id) const;
    // Whether the delivered bytes of `id`, concatenated, are one stretch of
    // what was sent, with at least `minBytes`; `why` says what differs.
    bool MatchesSent(int32_t id, size_t minBytes, std::string* why) const;
    // Seconds of signal pushed.
    double seconds() const { return seconds_; }

    FrameHarness harness;

private:
    bool ok_ = false;
    std::string error_;
    gen::EnsembleDescription description_;
    std::map<int32_t, std::shared_ptr<std::vector<uint8_t>>> sent_;
    std::unique_ptr<gen::FrameTransmitter> tx_;
    std::unique_ptr<gen::ChannelModel> channel_;
    double seconds_ = 0.0;
};

}  // namespace mvdab::test
