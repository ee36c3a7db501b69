// Sub-channel bytes through the public interface in all four transmission
// modes: the emulated device plays the generated "default" ensemble faster
// than real time, the host selects the UEP MP2 sub-channel and then an EEP
// one, and every byte the MSC callback delivers is the byte the transmitter
// sent, with no frame lost or doubled; the first delivery comes with the
// frame that completes the time de-interleaver's 16 CIFs.
//
// MVDAB_LONG_TESTS=1 runs 60 s of signal per sub-channel and mode.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "generator/ensemble_description.h"
#include "generator/multiplex.h"
#include "mvxdab.h"
#include "tests/support/api_session.h"
#include "tests/support/generated_subchannels.h"

namespace {

std::mutex mscMutex;
std::vector<uint8_t> received;
std::vector<int64_t> deliveryFicFrame;  // FIC frames seen before each delivery
int32_t wrongFlags = 0;
std::atomic<int64_t> ficFrames{0};
int32_t wantedId = 0;

void OnFic(uint8_t*, int32_t, int32_t) { ++ficFrames; }
void OnMsc(uint8_t* bytes, int32_t length, int32_t flags) {
    std::lock_guard<std::mutex> lock(mscMutex);
    if (flags != wantedId) ++wrongFlags;
    received.insert(received.end(), bytes, bytes + length);
    deliveryFicFrame.push_back(ficFrames.load());
}

using mvdab::test::kCifsPerFrame;
using mvdab::test::kFrameSeconds;
using mvdab::test::kFramesPerStep;
using mvdab::test::LongTestsWanted;

TEST(ApiMscModes, PlainSubChannelBytesAreTheBytesSentInEveryMode) {
    // Real time, as from a stick (see ApiFicModes for what a faster pace
    // does to the first entry); sanitized builds, several times slower,
    // play the signal slowed down as much.
    const double speed = mvdab::test::kSanitized ? 0.3 : 1.0;
    const double signalSeconds = LongTestsWanted() ? 60.0 : mvdab::test::kSanitized ? 1.5 : 3.0;
    mvdab::test::SetDevicePace(speed);
    ASSERT_EQ(MVDAB_SetFICCallBack(OnFic), 1);
    ASSERT_EQ(MVDAB_SetMSCCallBack(OnMsc), 1);
    for (int32_t mode = 1; mode <= 4; ++mode) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        gen::PresetOptions options;
        options.mode = mode;
        gen::EnsembleDescription d;
        std::string error;
        ASSERT_TRUE(gen::MakePresetDescription("default", options, &d, &error)) << error;
        std::unique_ptr<gen::Multiplex> multiplex = gen::Multiplex::Make(d, &error);
        ASSERT_NE(multiplex, nullptr) << error;
        d = multiplex->Description();

        const int32_t found =
            mvdab::test::OpenOnSignal("generated:preset=default,snr=20,mode=" + std::to_string(mode));
        if (found < 0) GTEST_SKIP() << "emulated device or generator not available";
        ASSERT_EQ(found, 1);

        // Sub-channel 2: MP2, 128 kbit/s UEP level 3; sub-channel 1: EEP 3-A.
        for (int32_t id : {2, 1}) {
            SCOPED_TRACE("sub-channel " + std::to_string(id));
            mvdab::test::SubChannelParameters p;
            ASSERT_TRUE(mvdab::test::DescribeSubChannel(d, id, false, &p));
            {
                std::lock_guard<std::mutex> lock(mscMutex);
                received.clear();
                deliveryFicFrame.clear();
                wrongFlags = 0;
                wantedId = id;
            }
            const int64_t addedAt = ficFrames.load();
            ASSERT_EQ(MVDAB_AddServiceCom(0, int8_t(id), p.startAddress, p.longForm, p.tableIndex, p.optionAndLevel,
                                          p.size, 0, 0),
                      1);
            const int64_t wantFrames = addedAt + int64_t((signalSeconds + 0.5) / kFrameSeconds[mode]);
            const auto end = std::chrono::steady_clock::now() +
                             std::chrono::duration<double>(2.0 * (signalSeconds + 1.0) / speed + 2.0);
            while (ficFrames.load() < wantFrames && std::chrono::steady_clock::now() < end)
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            ASSERT_EQ(MVDAB_DelServiceCom(0, int8_t(id), 0), 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));  // a delivery under way ends

            std::lock_guard<std::mutex> lock(mscMutex);
            EXPECT_EQ(wrongFlags, 0);
            ASSERT_FALSE(deliveryFicFrame.empty());
            // The request is taken over at the next IqFrame, after the frames
            // of the step under way.
            const int64_t firstAfter = deliveryFicFrame.front() - addedAt;
            const int64_t fill = 16 / kCifsPerFrame[mode] + 1;
            EXPECT_GE(firstAfter, fill);
            EXPECT_LE(firstAfter, fill + kFramesPerStep[mode]);
            // A logical frame carries 24 ms of the sub-channel.
            const double seconds = 0.024 * double(received.size()) / (3.0 * (id == 2 ? 128 : 48));
            EXPECT_GE(seconds, signalSeconds - 1.0) << "too little delivered";

            // One stretch of what was sent, from the logical frame where it
            // starts: nothing lost, doubled or altered.
            const std::vector<uint8_t> sent =
                mvdab::test::SentPayload(d, id, int64_t((ficFrames.load() + 64) * kCifsPerFrame[mode]));
            const size_t key = std::min<size_t>(received.size(), 64);
            auto at = std::search(sent.begin(), sent.end(), received.begin(), received.begin() + key);
            ASSERT_NE(at, sent.end()) << "the first bytes delivered were never sent";
            ASSERT_LE(size_t(at - sent.begin()) + received.size(), sent.size());
            auto diff = std::mismatch(received.begin(), received.end(), at);
            const size_t bad = size_t(diff.first - received.begin());
            if (diff.first != received.end()) {
                // Corrupt logical frames, and whether the stream carries on
                // further along what was sent (frames lost on the way).
                const size_t lf = size_t(3 * (id == 2 ? 128 : 48));
                const size_t firstBad = bad / lf;
                size_t badFrames = 0;
                for (size_t f = firstBad; (f + 1) * lf <= received.size(); ++f)
                    badFrames += std::equal(received.begin() + f * lf, received.begin() + (f + 1) * lf, at + f * lf) ? 0 : 1;
                const size_t next = (firstBad + 20) * lf;
                std::string skip = "no realignment";
                if (next + lf <= received.size()) {
                    auto again = std::search(sent.begin(), sent.end(), received.begin() + next, received.begin() + next + lf);
                    if (again != sent.end())
                        skip = "realigned " + std::to_string((again - sent.begin() - (at - sent.begin()) - long(next)) /
                                                             long(lf)) + " logical frames later";
                }
                ADD_FAILURE() << "logical frame " << firstBad << " (" << 0.024 * firstBad << " s in) differs, "
                              << badFrames << " differ in all, " << skip;
            }
            std::printf("    mode %d, sub-channel %d: %zu bytes (%.1f s of programme) from logical frame %zd, %s\n",
                        mode, id, received.size(), seconds, (at - sent.begin()) / (3 * (id == 2 ? 128 : 48)),
                        bad == received.size() ? "bit-exact" : "DIFFERENT");
        }
        MVDAB_CloseDevice();
    }
    MVDAB_SetMSCCallBack(OnMsc);
    unsetenv("MVC900_SPEED");
    unsetenv("MVC900_SOURCE");
}

}  // namespace
