// dabhost's own logic without a device: the command line, and the FIC queue
// between the receiver's callback thread and dabhost's thread. Choosing a
// service, waiting for the ensemble and following a reconfiguration are
// proven by the end-to-end runs on the emulated device.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "band_channels.h"
#include "fic_queue.h"
#include "host_options.h"
#include "tools/ficparse/tests/fig_writer.h"

namespace {

using figwriter::Bytes;

// One mode I frame (12 FIBs) of an ensemble 0xCE15 with two labelled audio
// services; FIB k's CRC flag is bit 11 - k of `goodMask`.
Bytes ModeIFrame(int32_t* flags, uint16_t goodMask = 0xFFF) {
    std::vector<Bytes> fibs = figwriter::PackFibs({
        figwriter::Fig00(0xCE15, 0, false, 0, 10),
        figwriter::Fig01({{1, 0, false, 26, 0, 0, 0}, {2, 70, true, 0, 0, 3, 48}}),
        figwriter::Fig02({{0xC221, 0, {{0, 0, 1, true, false}}}, {0xC222, 0, {{0, 63, 2, true, false}}}}, false),
        figwriter::Fig1(0, 0xCE15, "Test Mux", 0xFF00), figwriter::Fig1(1, 0xC221, "First", 0xF800),
        figwriter::Fig1(1, 0xC222, "Second", 0xFC00)});
    fibs.resize(12, figwriter::Fib({}));
    Bytes frame;
    for (const Bytes& fib : fibs) frame.insert(frame.end(), fib.begin(), fib.end());
    *flags = (goodMask << 4) | 1;
    return frame;
}

bool Parse(std::vector<const char*> args, HostOptions* o) {
    args.insert(args.begin(), "dabhost");
    std::string error;
    const bool ok = ParseHostOptions(int(args.size()), const_cast<char**>(args.data()), o, &error);
    EXPECT_EQ(ok, error.empty()) << error;
    return ok;
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

TEST(FicQueue, CountsFromTheFlagsAndAFullRingDropsNewFrames) {
    FicQueue queue;
    ficparse::FicParser parser;
    int32_t flags = 0;
    // FIB 0 (with all the FIGs) marked bad: the parser must ignore it.
    const auto frame = ModeIFrame(&flags, 0x7FF);
    queue.Push(frame.data(), int32_t(frame.size()), flags);
    queue.Push(frame.data(), 96, (0x3 << 13) | 2);  // mode II: 3 FIBs, CRC bits 15..13
    const FicCounts c = queue.counts();
    EXPECT_EQ(std::tuple(c.frames, c.fibs, c.fibsBad, c.mode), std::tuple(2u, 15u, 2u, 2));
    EXPECT_EQ(queue.Drain(parser), 2);
    EXPECT_FALSE(parser.ensemble().idKnown);
    queue.Clear();
    const auto good = ModeIFrame(&flags);
    for (int i = 0; i < FicQueue::kSlots + 5; ++i) queue.Push(good.data(), int32_t(good.size()), flags);
    queue.Push(nullptr, 384, flags);  // ignored
    EXPECT_EQ(std::tuple(queue.counts().frames, queue.counts().dropped), std::tuple(uint64_t(FicQueue::kSlots + 5), 5u));
    EXPECT_EQ(queue.Drain(parser), FicQueue::kSlots);
    EXPECT_TRUE(parser.ensemble().Complete());
}

TEST(FicQueue, CallbackThreadAndHostThreadLoseNothingUncounted) {
    FicQueue queue;
    int32_t flags = 0;
    const auto frame = ModeIFrame(&flags);
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

}  // namespace
