// Sub-channels of generated ensembles through the whole frame step: the bytes
// that reach the MSC callback are the bytes the transmitter sent, and the
// first of them come with the frame that completes the time
// de-interleaver's fill.
#include <gtest/gtest.h>

#include <algorithm>
#include <complex>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "generator/channel_model.h"
#include "generator/ensemble_description.h"
#include "generator/frame_transmitter.h"
#include "generator/multiplex.h"
#include "generator/protection_profiles.h"
#include "mvxdab.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
#include "services/service_component.h"
#include "services/service_requests.h"
#include "tests/support/frame_harness.h"
#include "tests/support/generated_subchannels.h"

namespace mvdab {
namespace {

struct Delivery {
    int32_t id;
    int64_t ficFrame;  // FIC frames delivered before it, its own included
    std::vector<uint8_t> bytes;
};
int64_t ficFrames = 0;
std::vector<Delivery> deliveries;
void CountFic(uint8_t*, int32_t, int32_t) { ++ficFrames; }
void RecordMsc(uint8_t* bytes, int32_t length, int32_t flags) {
    deliveries.push_back({flags, ficFrames, std::vector<uint8_t>(bytes, bytes + length)});
}

// A generated ensemble played into the frame harness, noise-free, with every
// sub-channel's payload recorded as sent.
struct Feed {
    test::FrameHarness h;
    gen::EnsembleDescription d;  // start addresses resolved
    std::map<int32_t, std::shared_ptr<std::vector<uint8_t>>> sent;
    std::unique_ptr<gen::FrameTransmitter> tx;
    std::unique_ptr<gen::ChannelModel> channel;
    int64_t iqFrames = 0;

    explicit Feed(gen::EnsembleDescription description) {
        for (gen::SubChannelDesc& s : description.subChannels) s.record = sent[s.id] = std::make_shared<std::vector<uint8_t>>();
        std::string error;
        std::unique_ptr<gen::Multiplex> multiplex = gen::Multiplex::Make(description, &error);
        if (multiplex == nullptr || !h.ready() || h.Tune(227360) != 1) return;
        d = multiplex->Description();
        tx = std::make_unique<gen::FrameTransmitter>(std::move(multiplex), d.mode);
        channel = std::make_unique<gen::ChannelModel>(gen::ChannelParams{}, tx->MeanPower());
        ficFrames = 0;
        deliveries.clear();
        ficCallback.store(CountFic);
        mscCallback.store(RecordMsc);
    }
    ~Feed() {
        ficCallback.store(nullptr);
        mscCallback.store(nullptr);
    }
    void Push(int64_t count) {
        std::vector<std::complex<float>> samples(kIqFrameSamples);
        std::vector<uint8_t> bytes;
        for (int64_t i = 0; i < count; ++i, ++iqFrames) {
            tx->Read(samples.data(), samples.size());
            channel->ProcessU8(samples.data(), samples.size(), bytes);
            h.PushIqFrame(bytes.data());
        }
    }
    bool PushUntilLocked(int64_t limit) {
        while (tx != nullptr && iqFrames < limit && receiverStatus.syncState.load() != 4) Push(1);
        return receiverStatus.syncState.load() == 4;
    }
    // MVDAB_AddServiceCom or, with `changeCif` set, MVDAB_ChangeSCOrg for
    // sub-channel `id` with the parameters the FIC gives for it.
    int32_t Add(int32_t id, int32_t changeCif = -1) {
        test::SubChannelParameters p;
        if (!test::DescribeSubChannel(d, id, changeCif >= 0, &p)) return -1;
        if (changeCif < 0)
            return MVDAB_AddServiceCom(0, int8_t(id), p.startAddress, p.longForm, p.tableIndex, p.optionAndLevel,
                                       p.size, 0, 0);
        return MVDAB_ChangeSCOrg(0, int8_t(id), p.startAddress, p.longForm, p.tableIndex, p.optionAndLevel, p.size, 0,
                                 0, int8_t(changeCif / 250), int8_t(changeCif % 250));
    }
    // The logical frames of `n` bytes that the deliveries carried, in order,
    // as indices into what `id` sent; -1 for one that it never sent.
    std::vector<int64_t> DeliveredLogicalFrames(int32_t id, size_t n) const {
        std::map<std::vector<uint8_t>, int64_t> index;
        const std::vector<uint8_t>& all = *sent.at(id);
        for (size_t k = 0; (k + 1) * n <= all.size(); ++k) index.emplace(std::vector<uint8_t>(&all[k * n], &all[k * n] + n), k);
        std::vector<int64_t> frames;
        for (const Delivery& x : deliveries) {
            for (size_t at = 0; at + n <= x.bytes.size(); at += n) {
                const auto found = index.find(std::vector<uint8_t>(&x.bytes[at], &x.bytes[at] + n));
                frames.push_back(x.id == id && found != index.end() ? found->second : -1);
            }
        }
        return frames;
    }
};

// Frames after the take-over up to the one that brings the first delivery:
// 16 CIFs fill the de-interleaver, and the frame that completes them is not
// delivered.
int64_t FirstDeliveryFrame(int32_t mode) { return 16 / kModeTable[mode - 1].cifsPerFrame + 1; }

// Every UEP row and every EEP set and level (set A level 2 at 8 kbit/s takes
// other puncturing indices), packed into as few ensembles as the 864
// capacity units allow; the ensembles take the four modes in turn.
TEST(SubChannelSignal, EveryUepRowAndEepLevelDecodesBitExactlyInEveryMode) {
    // One protection to try and its bit rate in kbit/s.
    std::vector<std::pair<gen::Protection, int32_t>> cases;
    for (int32_t i = 0; i < 64; ++i) cases.push_back({{gen::ProtectionKind::kUep, gen::UepTableRow(i).level}, gen::UepTableRow(i).bitrateKbps});
    const gen::ProtectionKind a = gen::ProtectionKind::kEepA, b = gen::ProtectionKind::kEepB;
    cases.insert(cases.end(), {{{a, 1}, 16}, {{a, 2}, 8}, {{a, 2}, 24}, {{a, 3}, 48}, {{a, 4}, 32},
                               {{b, 1}, 32}, {{b, 2}, 64}, {{b, 3}, 32}, {{b, 4}, 96}});
    size_t next = 0;
    int32_t tried = 0;
    for (int32_t ensemble = 0; next < cases.size(); ++ensemble) {
        gen::EnsembleDescription d;
        d.mode = 1 + ensemble % 4;
        for (int32_t used = 0; next < cases.size(); ++next) {
            gen::SubChannelProfile profile;
            std::string error;
            ASSERT_TRUE(gen::MakeProfile(cases[next].first, cases[next].second, &profile, &error)) << error;
            if ((used += profile.sizeCu) > 864) break;
            gen::SubChannelDesc s;
            s.id = int32_t(d.subChannels.size());
            s.startCu = used - profile.sizeCu;
            s.protection = cases[next].first;
            s.bitrateKbps = cases[next].second;
            s.payload = "random:" + std::to_string(100 + next);
            d.subChannels.push_back(s);
        }
        Feed feed(d);
        ASSERT_TRUE(feed.PushUntilLocked(50)) << "mode " << d.mode;
        const int32_t cifs = kModeTable[d.mode - 1].cifsPerFrame;
        for (const gen::SubChannelDesc& s : d.subChannels) {
            SCOPED_TRACE("mode " + std::to_string(d.mode) + ", " + gen::ProtectionText(s.protection));
            deliveries.clear();
            const int64_t added = ficFrames;
            ASSERT_EQ(feed.Add(s.id), 1);
            // At least two logical frames delivered.
            while (ficFrames < added + FirstDeliveryFrame(d.mode) + (cifs == 1)) feed.Push(1);
            ASSERT_FALSE(deliveries.empty());
            EXPECT_EQ(deliveries.front().ficFrame - added, FirstDeliveryFrame(d.mode));
            for (const Delivery& got : deliveries) EXPECT_EQ(int32_t(got.bytes.size()), 3 * s.bitrateKbps * cifs);
            const std::vector<int64_t> frames = feed.DeliveredLogicalFrames(s.id, size_t(3 * s.bitrateKbps));
            ASSERT_GE(frames.size(), 2u);
            ASSERT_GE(frames[0], 0);
            for (size_t i = 0; i < frames.size(); ++i) ASSERT_EQ(frames[i], frames[0] + int64_t(i));
            ASSERT_EQ(MVDAB_DelServiceCom(0, int8_t(s.id), 0), 1);
            ++tried;
        }
    }
    EXPECT_EQ(tried, 73);
}

TEST(SubChannelSignal, AnnouncedReconfigurationIsFollowedAtItsCif) {
    // Sub-channel 0 moves from CU 0 (EEP 3-A) to CU 400 (EEP 2-A) at CIF 117,
    // the second CIF of a mode I frame. Logical frame k leaves the
    // de-interleaver in CIF k + 15, so the old record's last CIF, 116, holds
    // logical frame 101, and the transmitter's interleaver, restarted for the
    // new size, never completes 102..116. The new record is set up at the
    // next frame (CIF 120) and delivers from its fifth frame (CIF 136) on,
    // that is logical frame 121 on.
    gen::EnsembleDescription d;
    std::string error;
    ASSERT_TRUE(gen::MakePresetDescription("reconfigure", gen::PresetOptions{}, &d, &error)) << error;
    d.reconfiguration.cifCount = 117;
    d.reconfiguration.announceCifs = 100;
    Feed feed(d);
    ASSERT_TRUE(feed.PushUntilLocked(25));
    ASSERT_EQ(feed.Add(0), 1);
    feed.Push(8);
    ASSERT_LT(feed.iqFrames, 42);  // the change is due at 2.8 s
    ASSERT_EQ(feed.Add(0, 117), 1);
    feed.Push(94 - feed.iqFrames);
    ASSERT_NE(receiverStatus.activeServices, nullptr);
    EXPECT_EQ(receiverStatus.activeServices->startAddress, 400);
    EXPECT_EQ(cifCountWanted, 0);
    // The frame of the change brought the one CIF decoded before it.
    EXPECT_TRUE(std::any_of(deliveries.begin(), deliveries.end(), [](const Delivery& x) { return x.bytes.size() == 3 * 64; }));
    const std::vector<int64_t> frames = feed.DeliveredLogicalFrames(0, 3 * 64);
    ASSERT_GT(frames.size(), 100u);
    std::vector<std::pair<int64_t, int64_t>> gaps;  // (last before, first after)
    for (size_t i = 1; i < frames.size(); ++i)
        if (frames[i] != frames[i - 1] + 1) gaps.push_back({frames[i - 1], frames[i]});
    EXPECT_EQ(gaps, (std::vector<std::pair<int64_t, int64_t>>{{101, 121}}));
    EXPECT_GE(frames[0], 0);
    EXPECT_GT(frames.back(), 121);
}

}  // namespace
}  // namespace mvdab
