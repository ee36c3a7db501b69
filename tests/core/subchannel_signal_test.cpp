// Sub-channels of generated ensembles through the whole frame step: the bytes
// that reach the MSC callback are the bytes the transmitter sent, and the
// first of them come with the frame that completes the time
// de-interleaver's fill.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "generator/channel_model.h"
#include "generator/ensemble_description.h"
#include "generator/protection_profiles.h"
#include "mvxdab.h"
#include "receiver/receiver_state.h"
#include "services/service_component.h"
#include "services/service_requests.h"
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

// One protection to try: a UEP row, or an EEP set and level at a bit rate.
struct ProtectionCase {
    gen::Protection protection;
    int32_t bitrateKbps;
};

// Every UEP row, and every EEP set and level, among them set A level 2 at
// 8 kbit/s, whose runs take other puncturing indices.
std::vector<ProtectionCase> AllProtections() {
    std::vector<ProtectionCase> cases;
    for (int32_t i = 0; i < 64; ++i) {
        const gen::UepRow& row = gen::UepTableRow(i);
        cases.push_back({{gen::ProtectionKind::kUep, row.level}, row.bitrateKbps});
    }
    const ProtectionCase eep[] = {
        {{gen::ProtectionKind::kEepA, 1}, 16}, {{gen::ProtectionKind::kEepA, 2}, 8},
        {{gen::ProtectionKind::kEepA, 2}, 24}, {{gen::ProtectionKind::kEepA, 3}, 48},
        {{gen::ProtectionKind::kEepA, 4}, 32}, {{gen::ProtectionKind::kEepB, 1}, 32},
        {{gen::ProtectionKind::kEepB, 2}, 64}, {{gen::ProtectionKind::kEepB, 3}, 32},
        {{gen::ProtectionKind::kEepB, 4}, 96},
    };
    cases.insert(cases.end(), std::begin(eep), std::end(eep));
    return cases;
}

TEST(SubChannelSignal, EveryUepRowAndEepLevelDecodesBitExactly) {
    // Packed into as few ensembles as the 864 capacity units allow; mode II
    // has the shortest fill, 16 frames of one CIF.
    std::vector<ProtectionCase> cases = AllProtections();
    size_t next = 0;
    int32_t tried = 0;
    while (next < cases.size()) {
        gen::EnsembleDescription d;
        d.mode = 2;
        d.label = "TABLE";
        int32_t used = 0;
        for (; next < cases.size(); ++next) {
            gen::SubChannelProfile profile;
            std::string error;
            ASSERT_TRUE(gen::MakeProfile(cases[next].protection, cases[next].bitrateKbps, &profile, &error)) << error;
            if (used + profile.sizeCu > 864) break;
            gen::SubChannelDesc s;
            s.id = int32_t(d.subChannels.size());
            s.startCu = used;
            s.protection = cases[next].protection;
            s.bitrateKbps = cases[next].bitrateKbps;
            s.payload = "random:" + std::to_string(100 + next);
            d.subChannels.push_back(s);
            used += profile.sizeCu;
        }
        MscFeed feed(d, gen::ChannelParams{});
        ASSERT_TRUE(feed.ok()) << feed.error();
        ASSERT_TRUE(feed.PushUntilLocked(2.0));
        for (const gen::SubChannelDesc& s : d.subChannels) {
            SCOPED_TRACE("sub-channel " + std::to_string(s.id) + ", " + gen::ProtectionText(s.protection) + " at " +
                         std::to_string(s.bitrateKbps) + " kbit/s");
            feed.ClearDeliveries();
            const int64_t added = feed.ficFrames();
            ASSERT_EQ(feed.Add(s.id, 0), 1);
            // Two frames beyond the fill.
            while (feed.ficFrames() < added + FirstDeliveryFrame(2) + 1) feed.Push(0.024);
            std::string why;
            EXPECT_TRUE(feed.MatchesSent(s.id, size_t(2 * 3 * s.bitrateKbps), &why)) << why;
            ASSERT_EQ(MVDAB_DelServiceCom(0, int8_t(s.id), 0), 1);
            ++tried;
        }
    }
    EXPECT_EQ(tried, 73);
}

// The logical frames of sub-channel `id` that the deliveries carried, in
// order; -1 for a logical frame that was never sent.
std::vector<int64_t> DeliveredLogicalFrames(const MscFeed& feed, int32_t id, size_t frameBytes) {
    std::vector<int64_t> frames;
    const std::vector<uint8_t>& sent = feed.Sent(id);
    for (const test::MscDelivery& d : feed.deliveries()) {
        for (size_t at = 0; at + frameBytes <= d.bytes.size(); at += frameBytes) {
            int64_t found = -1;
            for (size_t k = 0; (k + 1) * frameBytes <= sent.size() && found < 0; ++k)
                if (std::equal(d.bytes.begin() + at, d.bytes.begin() + at + frameBytes, sent.begin() + k * frameBytes))
                    found = int64_t(k);
            frames.push_back(found);
        }
    }
    return frames;
}

TEST(SubChannelSignal, AnnouncedReconfigurationIsFollowedAtItsCif) {
    // Sub-channel 0 moves from CU 0 (EEP 3-A) to CU 400 (EEP 2-A) at CIF 417,
    // the second CIF of a mode I frame. Logical frame k leaves the
    // de-interleaver in CIF k + 15, so the old record's last CIF, 416, holds
    // logical frame 401, and the transmitter's interleaver, restarted for the
    // new size, never completes 402..416. The new record is set up at the
    // next frame (CIF 420) and delivers from its fifth frame (CIF 436) on,
    // that is logical frame 421 on.
    MscFeed feed(Preset("reconfigure", 1), gen::ChannelParams{});
    ASSERT_TRUE(feed.ok()) << feed.error();
    ASSERT_TRUE(feed.PushUntilLocked(2.0));
    ASSERT_EQ(feed.Add(0, 0), 1);
    feed.Push(4.0);
    ASSERT_EQ(feed.AnnounceChange(0, 417), 1);
    feed.Push(11.5 - feed.seconds());
    ASSERT_NE(receiverStatus.activeServices, nullptr);
    EXPECT_EQ(receiverStatus.activeServices->startAddress, 400);
    EXPECT_EQ(receiverStatus.activeServices->reconfiguration, nullptr);
    EXPECT_EQ(cifCountWanted, 0);

    const std::vector<int64_t> frames = DeliveredLogicalFrames(feed, 0, 3 * 64);
    ASSERT_GT(frames.size(), 100u);
    int64_t gaps = 0;
    for (size_t i = 0; i < frames.size(); ++i) {
        ASSERT_GE(frames[i], 0) << "delivered logical frame " << i << " was never sent";
        if (i == 0 || frames[i] == frames[i - 1] + 1) continue;
        ++gaps;
        EXPECT_EQ(frames[i - 1], 401) << "last logical frame of the old organisation";
        EXPECT_EQ(frames[i], 421) << "first logical frame of the new organisation";
    }
    EXPECT_EQ(gaps, 1);
    EXPECT_GT(frames.back(), 421);
    // The frame of the change brought the one CIF decoded before it.
    bool single = false;
    for (const test::MscDelivery& d : feed.deliveries()) single = single || d.bytes.size() == 3 * 64;
    EXPECT_TRUE(single);
}

bool LongTestsWanted() {
    const char* v = std::getenv("MVDAB_LONG_TESTS");
    return v != nullptr && std::strcmp(v, "1") == 0;
}

// Share of the logical frames of sub-channel `id` that arrive bit-exactly, of
// all those the transmitter sent from the first that could be delivered
// (the take-over plus the de-interleaver's fill) to the end; frames never
// delivered, for want of a lock or after a resynchronisation, count as lost.
double ExactShare(int32_t mode, double snrDb, const std::string& profile, int32_t id, double seconds) {
    gen::ChannelParams channel;
    channel.snrDb = snrDb;
    channel.seed = 11;
    if (profile != "awgn") {
        EXPECT_TRUE(gen::MultipathProfile(profile, &channel.taps));
    }
    MscFeed feed(Preset("default", mode), channel);
    if (!feed.ok() || !feed.PushUntilLocked(3.0)) return 0.0;
    if (feed.Add(id, 0) != 1) return 0.0;
    const double start = feed.seconds() + 16 * 0.024 + 2 * kModeTable[mode - 1].framePeriod / 2048000.0;
    feed.Push(seconds);
    const size_t frameBytes = size_t(3 * (id == 2 ? 128 : 48));
    std::vector<uint8_t> got;
    for (const test::MscDelivery& d : feed.deliveries()) got.insert(got.end(), d.bytes.begin(), d.bytes.end());
    const size_t good = test::ExactLogicalFrames(feed.Sent(id), got, frameBytes);
    const double expected = (feed.seconds() - start) / 0.024;
    return expected > 0 ? std::min(1.0, double(good) / expected) : 0.0;
}

TEST(SubChannelSignal, ExactFrameShareAgainstSnr) {
    if (!LongTestsWanted()) GTEST_SKIP() << "set MVDAB_LONG_TESTS=1";
    constexpr double kSeconds = 8.0;
    std::printf("    logical frames delivered bit-exactly, %% of those sent in %.0f s after the fill\n", kSeconds);
    std::printf("    mode channel sub-channel  ");
    for (int32_t snr = 2; snr <= 14; ++snr) std::printf(" %3d dB", snr);
    std::printf("  99%% from\n");
    for (int32_t mode = 1; mode <= 4; ++mode) {
        for (const std::string profile : {"awgn", "urban"}) {
            for (int32_t id : {2, 1}) {
                std::printf("    %-4d %-7s %-12s", mode, profile.c_str(), id == 2 ? "UEP 3" : "EEP 3-A");
                int32_t passFrom = -1;
                for (int32_t snr = 2; snr <= 14; ++snr) {
                    const double share = ExactShare(mode, snr, profile, id, kSeconds);
                    std::printf(" %6.1f", 100.0 * share);
                    if (share >= 0.99 && passFrom < 0) passFrom = snr;
                    if (share < 0.99) passFrom = -1;
                }
                if (passFrom >= 0)
                    std::printf("  %d dB\n", passFrom);
                else
                    std::printf("  none\n");
                std::fflush(stdout);
            }
        }
    }
}

}  // namespace
}  // namespace mvdab
