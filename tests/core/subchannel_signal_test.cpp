// Sub-channels of generated ensembles through the whole frame step: the bytes
// that reach the MSC callback are the bytes the transmitter sent, and the
// first of them come with the frame that completes the time
// de-interleaver's fill.
#include <gtest/gtest.h>

#include <string>

#include "generator/ensemble_description.h"
#include "mvxdab.h"
#include "receiver/receiver_state.h"
#include "services/service_component.h"
#include "tests/support/msc_feed.h"

namespace mvdab {
namespace {

using test::MscFeed;

gen::EnsembleDescription Preset(const std::string& name, int32_t mode) {
    gen::PresetOptions options;
    options.mode = mode;
    gen::EnsembleDescription d;
    std::string error;
    EXPECT_TRUE(gen::MakePresetDescription(name, options, &d, &error)) << error;
    return d;
}

// Frames after the take-over up to the one that brings the first delivery:
// 16 CIFs fill the de-interleaver, and the frame that completes them is not
// delivered.
int64_t FirstDeliveryFrame(int32_t mode) { return 16 / kModeTable[mode - 1].cifsPerFrame + 1; }

TEST(SubChannelSignal, UepAndEepSubChannelsArriveAsSentInEveryMode) {
    for (int32_t mode = 1; mode <= 4; ++mode) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        gen::ChannelParams channel;
        channel.snrDb = 20.0;
        MscFeed feed(Preset("default", mode), channel);
        ASSERT_TRUE(feed.ok()) << feed.error();
        ASSERT_TRUE(feed.PushUntilLocked(3.0));
        // Sub-channel 2: 128 kbit/s, UEP level 3; sub-channel 1: EEP 3-A.
        for (int32_t id : {2, 1}) {
            SCOPED_TRACE("sub-channel " + std::to_string(id));
            feed.ClearDeliveries();
            const int64_t added = feed.ficFrames();
            ASSERT_EQ(feed.Add(id, 0), 1);
            feed.Push(1.2);
            ASSERT_FALSE(feed.deliveries().empty());
            EXPECT_EQ(feed.deliveries().front().ficFrame - added, FirstDeliveryFrame(mode));
            const int32_t frameBytes = receiverStatus.activeServices->bitsPerCif * kModeTable[mode - 1].cifsPerFrame / 8;
            for (const test::MscDelivery& d : feed.deliveries()) EXPECT_EQ(int32_t(d.bytes.size()), frameBytes);
            std::string why;
            EXPECT_TRUE(feed.MatchesSent(id, 4 * size_t(frameBytes), &why)) << why;
            ASSERT_EQ(MVDAB_DelServiceCom(0, int8_t(id), 0), 1);
        }
    }
}

}  // namespace
}  // namespace mvdab
