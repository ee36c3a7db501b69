// dabhost's own logic without a device: the command line, the decision when
// to show the ensemble, the FIC queue between the receiver's callback thread
// and dabhost's thread, choosing a service and following an announced
// reconfiguration.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "band_channels.h"
#include "ensemble_wait.h"
#include "fic_queue.h"
#include "host_options.h"
#include "service_select.h"
#include "test_ensembles.h"

namespace {

using namespace figwriter;

bool Parse(std::vector<const char*> args, HostOptions* o) {
    args.insert(args.begin(), "dabhost");
    std::string error;
    const bool ok = ParseHostOptions(int(args.size()), const_cast<char**>(args.data()), o, &error);
    EXPECT_EQ(ok, error.empty()) << error;
    return ok;
}

ficparse::FicParser Parsed(const std::vector<Bytes>& figs) {
    ficparse::FicParser parser;
    int32_t flags = 0;
    const Bytes frame = hosttest::ModeIFrame(figs, &flags);
    parser.PushFibs(frame.data(), int32_t(frame.size()), flags);
    return parser;
}

TEST(HostOptions, AcceptedAndRefused) {
    HostOptions o, p, q;
    ASSERT_TRUE(Parse({"-f", "11d", "--json", "-d", "3"}, &o));
    EXPECT_EQ(std::tuple(o.frequencyKhz, o.json, o.durationSeconds), std::tuple(222064, true, 3.0));
    ASSERT_TRUE(Parse({"--freqs", "227360,11D,5a", "-t", "4"}, &p));
    EXPECT_TRUE(p.scan);  // a list alone asks for a scan
    EXPECT_EQ(p.scanFrequenciesKhz, (std::vector<int32_t>{227360, 222064, 174928}));
    ASSERT_TRUE(Parse({"--scan", "--web", "0.0.0.0:0"}, &q));
    EXPECT_EQ(std::tuple(q.scanFrequenciesKhz.size(), q.scanFrequenciesKhz.back(), q.webPort, q.webHost),
              std::tuple(size_t(38), 239200, 0, std::string("0.0.0.0")));
    for (auto args : std::vector<std::vector<const char*>>{
             {"-f", "227.36"}, {"-f", "227360.5"}, {"-f", "14Z"}, {"-f"}, {"-t", "-1"}, {"-t", "abc"},
             {"--freqs", "227360,,222064"}, {"--freqs", ""}, {"--bogus"}, {"--wav", "x.wav"}, {"--service", ""},
             {"--scan", "--service", "A"}, {"--service", "A", "--wav", "-", "--json"}, {"--frames", "3"},
             {"--service", "A", "--wav", "-", "--record", "-"}, {"--service", "A", "--frames", "2.5"},
             {"--web", "65536"}, {"--web", ":80"}, {"--web", "host:"}, {"--web", "80", "--json"}}) {
        HostOptions fresh;
        EXPECT_FALSE(Parse(args, &fresh)) << args[0] << " " << args.size();
    }
    for (const BandChannel& c : BandIIIChannels()) EXPECT_EQ(ChannelName(ChannelFrequency(c.name)), c.name);
    EXPECT_EQ(ChannelName(227361), "");
}

// Each case: the rule, then polls (time, signal present, lock answered,
// locked, FIC frames, which ensemble: 0 none, 1 without service labels, 2
// whole, 3 without the ensemble label) and the outcome after each.
TEST(EnsembleWait, Decisions) {
    const ficparse::Ensemble kinds[4] = {{},
                                         Parsed(hosttest::TwoServiceFigs(true, false)).ensemble(),
                                         Parsed(hosttest::TwoServiceFigs(true, true)).ensemble(),
                                         Parsed(hosttest::TwoServiceFigs(false, true)).ensemble()};
    using W = WaitOutcome;
    struct Poll {
        double t;
        int32_t present;
        bool lockKnown, locked;
        uint64_t frames;
        int kind;
        W outcome;
    };
    const struct {
        const char* name;
        WaitRule rule;
        std::vector<Poll> polls;
    } cases[] = {
        {"settles", {20.0, 1.0}, {{0.5, 1, true, true, 1, 2, W::Waiting}, {1.1, 1, true, true, 9, 1, W::Waiting},
                                  {1.2, 1, true, true, 10, 2, W::Waiting}, {2.1, 1, true, true, 20, 2, W::Waiting},
                                  {2.2, 1, true, true, 21, 2, W::Complete}, {3.0, 1, true, true, 30, 0, W::Complete}}},
        {"partial at timeout", {5.0}, {{4.9, 1, true, true, 50, 1, W::Waiting}, {5.0, 1, true, true, 51, 1, W::Partial}}},
        {"no ensemble label", {2.0}, {{2.5, 1, true, true, 20, 3, W::NoEnsemble}}},
        {"no lock", {2.0}, {{1.0, 1, false, false, 0, 0, W::Waiting}, {2.0, 1, false, false, 0, 0, W::NoLock}}},
        {"no signal held", {20.0, 1.0, 1.0}, {{0.8, -1, false, false, 0, 0, W::Waiting},
                                             {1.0, 0, false, false, 0, 0, W::Waiting},
                                             {1.5, -1, false, false, 0, 0, W::Waiting},
                                             {2.5, -1, false, false, 0, 0, W::NoSignal}}},
        {"scan: label", {20.0, 1.0, 0.0, true}, {{0.7, 1, true, true, 3, 3, W::Waiting},
                                                  {0.8, 1, true, true, 4, 1, W::LabelFound}}},
        {"scan: no signal", {20.0, 1.0, 0.0, true}, {{0.9, -1, true, false, 0, 0, W::NoSignal}}},
        {"lost after reading", {2.0, 1.0, 0.0}, {{0.9, -1, true, false, 0, 1, W::Waiting}}},
    };
    for (const auto& c : cases) {
        EnsembleWait wait(c.rule);
        for (const Poll& p : c.polls)
            EXPECT_EQ(wait.Update(WaitPoll{p.t, p.present, p.lockKnown, p.locked, p.frames, 1}, kinds[p.kind]),
                      p.outcome)
                << c.name << " at " << p.t;
    }
    // A stop decides as the timeout would; complete but unsettled counts.
    EnsembleWait partial(WaitRule{}), unsettled(WaitRule{});
    EXPECT_EQ(partial.Stop(0.4, kinds[1]), WaitOutcome::Partial);
    EXPECT_EQ(unsettled.Stop(0.4, kinds[2]), WaitOutcome::Complete);
}

TEST(FicQueue, CountsFromTheFlagsAndAFullRingDropsNewFrames) {
    FicQueue queue;
    ficparse::FicParser parser;
    int32_t flags = 0;
    // FIB 0 (with all the FIGs) marked bad: the parser must ignore it.
    const auto frame = hosttest::ModeIFrame(hosttest::TwoServiceFigs(true, true), &flags, 0x7FF);
    queue.Push(frame.data(), int32_t(frame.size()), flags);
    queue.Push(frame.data(), 96, (0x3 << 13) | 2);  // mode II: 3 FIBs, CRC bits 15..13
    const FicCounts c = queue.counts();
    EXPECT_EQ(std::tuple(c.frames, c.fibs, c.fibsBad, c.mode), std::tuple(2u, 15u, 2u, 2));
    EXPECT_EQ(queue.Drain(parser), 2);
    EXPECT_FALSE(parser.ensemble().idKnown);
    queue.Clear();
    const auto good = hosttest::ModeIFrame(hosttest::TwoServiceFigs(true, true), &flags);
    for (int i = 0; i < FicQueue::kSlots + 5; ++i) queue.Push(good.data(), int32_t(good.size()), flags);
    queue.Push(nullptr, 384, flags);  // ignored
    EXPECT_EQ(std::tuple(queue.counts().frames, queue.counts().dropped), std::tuple(uint64_t(FicQueue::kSlots + 5), 5u));
    EXPECT_EQ(queue.Drain(parser), FicQueue::kSlots);
    EXPECT_TRUE(parser.ensemble().Complete());
}

TEST(FicQueue, CallbackThreadAndHostThreadLoseNothingUncounted) {
    FicQueue queue;
    int32_t flags = 0;
    const auto frame = hosttest::ModeIFrame(hosttest::TwoServiceFigs(true, true), &flags);
    constexpr int kFrames = 1000;
    std::atomic<bool> done{false};
    std::thread receiver([&] {
        for (int i = 0; i < kFrames; ++i) queue.Push(frame.data(), int32_t(frame.size()), flags);
        done = true;
    });
    ficparse::FicParser parser;
    uint64_t drained = 0;
    while (!done) drained += uint64_t(queue.Drain(parser));
    receiver.join();
    drained += uint64_t(queue.Drain(parser));
    EXPECT_EQ(drained + queue.counts().dropped, uint64_t(kFrames));
    EXPECT_EQ(parser.statistics().fibsGood, drained * 12);
}

TEST(ChooseService, ByLabelOrIdWithTheRequestOfItsPrimaryComponent) {
    std::vector<Bytes> figs = hosttest::TwoServiceFigs(true, true);
    // A data service of packet mode in sub-channel 3, and one in the FIDC.
    figs.push_back(Fig01({{3, 200, true, 0, 1, 2, 24}}));
    figs.push_back(Fig02({{0xE1E00203, 0, {{3, 7, 0, true, false}}}, {0xE1E00204, 0, {{2, 1, 0, true, false}}}}, true));
    figs.push_back(Fig03({{7, false, true, 5, 3, 9}}));
    const ficparse::FicParser parser = Parsed(figs);
    // Short form: the table index; long form: option in bit 2, level - 1 below.
    const std::tuple<const char*, uint32_t, ServiceKind, std::vector<int>> cases[] = {
        {"First", 0xC221, ServiceKind::Mp2, {0, 1, 0, 0, 26, 0, 0}},
        {"  second ", 0xC222, ServiceKind::DabPlus, {3, 2, 70, 1, 0, 2, 48}},
        {"C221", 0xC221, ServiceKind::Mp2, {0, 1, 0, 0, 26, 0, 0}},
        {"E1E00203", 0xE1E00203, ServiceKind::Data, {0, 3, 200, 1, 0, 0b101, 24}},
        {"Third", 0, ServiceKind::Data, {}}, {"E1E00204", 0, ServiceKind::Data, {}}, {"", 0, ServiceKind::Data, {}}};
    for (const auto& [wanted, id, kind, request] : cases) {
        ServiceChoice choice;
        std::string why;
        ASSERT_EQ(ChooseService(parser.ensemble(), wanted, &choice, &why), id != 0) << wanted << ": " << why;
        if (id == 0) continue;
        const ServiceRequest r = RequestFor(choice.kind, choice.subChannel);
        EXPECT_EQ(std::tuple(choice.serviceId, choice.kind), std::tuple(id, kind)) << wanted;
        EXPECT_EQ(std::vector<int>({r.type, r.subChannelId, r.startAddress, r.longForm, r.tableIndex, r.optionAndLevel,
                                    r.size}),
                  request)
            << wanted;
    }
}

TEST(ReconfigurationFollower, PassesOnEachAnnouncedChangeOnceWithItsCifCount) {
    ficparse::FicParser parser = Parsed({Fig01({{0, 0, true, 0, 0, 3, 48}})});
    ReconfigurationFollower follower;
    follower.Select(parser.ensemble().subChannels.at(0));
    ReconfigurationFollower::Change change;
    auto push = [&](const std::vector<Bytes>& figs) {
        int32_t flags = 0;
        const Bytes frame = hosttest::ModeIFrame(figs, &flags);
        parser.PushFibs(frame.data(), int32_t(frame.size()), flags);
        return follower.Due(parser.ensemble(), &change);
    };
    // The next configuration alone, or the announcement alone, is not enough.
    EXPECT_FALSE(push({Fig01({{0, 400, true, 0, 0, 2, 64}}, 0x81)}));
    // Announced at CIF count 4 x 250 + 240 for low part 167: the next period.
    ASSERT_TRUE(push({Fig00(0xE1A6, 1, false, 4, 240, 167)}));
    EXPECT_EQ(change.next.startAddress, 400);
    EXPECT_EQ(change.cifCountHigh * 250 + change.cifCountLow, 5 * 250 + 167);
    follower.Passed(change);
    EXPECT_FALSE(follower.Due(parser.ensemble(), &change));
    // A change that keeps the sub-channel as it is needs nothing; the CIF
    // count wraps from 4999 to 0.
    EXPECT_FALSE(push({Fig00(0xE1A6, 1, false, 19, 100, 50), Fig01({{0, 400, true, 0, 0, 2, 64}}, 0x81)}));
    ASSERT_TRUE(push({Fig01({{0, 500, true, 0, 0, 2, 64}}, 0x81)}));
    EXPECT_EQ(change.cifCountHigh * 250 + change.cifCountLow, 50);
}

}  // namespace
