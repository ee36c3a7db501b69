// The FIC queue between the receiver's callback thread and dabhost's thread:
// counts from the CRC flags, parsing on drain, a full ring, and two threads.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <tuple>

#include "fic_queue.h"
#include "test_ensembles.h"

namespace {

TEST(FicQueue, CountsCrcFailuresFromTheFlagsAndParsesOnDrain) {
    FicQueue queue;
    ficparse::FicParser parser;
    int32_t flags = 0;
    // FIB 0 (with all the FIGs) marked bad: the parser must ignore it.
    const auto frame = hosttest::ModeIFrame(hosttest::TwoServiceFigs(true, true), &flags, 0x7FF);
    queue.Push(frame.data(), int32_t(frame.size()), flags);
    const FicCounts c = queue.counts();
    EXPECT_EQ(std::tuple(c.frames, c.fibs, c.fibsBad, c.mode), std::tuple(1u, 12u, 1u, 1));
    EXPECT_NEAR(c.FailureRate(), 1.0 / 12.0, 1e-12);
    EXPECT_EQ(parser.statistics().fibsGood, 0u);  // nothing parsed before the drain
    EXPECT_EQ(queue.Drain(parser), 1);
    EXPECT_EQ(parser.statistics().fibsBad, 1u);
    EXPECT_EQ(parser.statistics().fibsGood, 11u);
    EXPECT_FALSE(parser.ensemble().idKnown);
    EXPECT_EQ(queue.Drain(parser), 0);
    // A mode II frame: 3 FIBs, CRC bits 15..13, mode 2 in the low bits.
    queue.Push(frame.data(), 96, (0x5 << 13) | 2);
    EXPECT_EQ(std::tuple(queue.counts().fibs, queue.counts().fibsBad, queue.counts().mode), std::tuple(15u, 2u, 2));
    // Discard drops the waiting frames but keeps the counts; Clear resets both.
    queue.Discard();
    EXPECT_EQ(queue.Drain(parser), 0);
    EXPECT_EQ(queue.counts().frames, 2u);
    queue.Push(frame.data(), 96, (0x5 << 13) | 2);
    queue.Clear();
    EXPECT_EQ(queue.counts().frames, 0u);
    EXPECT_EQ(queue.Drain(parser), 0);
}

TEST(FicQueue, FullRingDropsAndCountsNewFrames) {
    FicQueue queue;
    int32_t flags = 0;
    const auto frame = hosttest::ModeIFrame(hosttest::TwoServiceFigs(true, true), &flags);
    for (int i = 0; i < FicQueue::kSlots + 5; ++i) queue.Push(frame.data(), int32_t(frame.size()), flags);
    queue.Push(nullptr, 384, flags);     // ignored
    queue.Push(frame.data(), 0, flags);  // ignored
    EXPECT_EQ(queue.counts().frames, uint64_t(FicQueue::kSlots + 5));
    EXPECT_EQ(queue.counts().dropped, 5u);
    ficparse::FicParser parser;
    EXPECT_EQ(queue.Drain(parser), FicQueue::kSlots);
    EXPECT_TRUE(parser.ensemble().Complete());
}

TEST(FicQueue, CallbackThreadAndHostThreadLoseNothingUncounted) {
    FicQueue queue;
    int32_t flags = 0;
    const auto frame = hosttest::ModeIFrame(hosttest::TwoServiceFigs(true, true), &flags);
    constexpr int kFrames = 3000;
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
