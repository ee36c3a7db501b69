// The SoapySDR device library through its 13 entry points, on the test
// module through the real SoapySDR module search: bytes as the module sent
// them in every stream format, the register model, tuning, both ways of clock
// correction, and a device that is unplugged or stalls while streaming.
#include <dlfcn.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "device/device_interface.h"
#include "emulator/clock_resampler.h"
#include "tests/soapy/soapy_test_support.h"

namespace {

using Clock = std::chrono::steady_clock;

// A file of seeded random bytes for the module to play, looped.
class RandomFile {
public:
    explicit RandomFile(size_t bytes) : bytes_(bytes) {
        std::mt19937 random(7);
        for (uint8_t& b : bytes_) b = uint8_t(random());
        path_ = testing::TempDir() + "soapy_device_test.u8";
        std::FILE* f = std::fopen(path_.c_str(), "wb");
        EXPECT_NE(f, nullptr);
        std::fwrite(bytes_.data(), 1, bytes_.size(), f);
        std::fclose(f);
    }
    ~RandomFile() { std::remove(path_.c_str()); }
    const std::vector<uint8_t>& bytes() const { return bytes_; }
    const std::string& path() const { return path_; }

private:
    std::vector<uint8_t> bytes_;
    std::string path_;
};

class SoapyDeviceTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(entries_.Load()) << entries_.error;
        ClearTestEnvironment();
        setenv("MVSOAPY_DEVICE", "driver=mvxtest", 1);
        setenv("MVXTEST_SPEED", "4", 1);
        event_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        handle_ = event_;
    }
    void TearDown() override {
        if (entries_.filterRelease != nullptr) entries_.filterRelease(0);
        close(event_);
        ClearTestEnvironment();
    }

    // Reads from the stream until `bytes` are together, a read fails or
    // `limit` passes, as the receiver's capture thread does: wait for the
    // event, then one read.
    std::vector<uint8_t> Read(size_t bytes, std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
        lastGetData_ = 1;
        std::vector<uint8_t> out;
        std::vector<uint8_t> buffer(MVA_READ_CAPACITY);
        const auto end = Clock::now() + limit;
        while (out.size() < bytes && lastGetData_ == 1 && Clock::now() < end) {
            int32_t got = 0;
            if (WaitAndFetch(entries_, event_, 50, buffer.data(), &got) == 0) lastGetData_ = 0;
            out.insert(out.end(), buffer.begin(), buffer.begin() + got);
        }
        return out;
    }

    DeviceEntries entries_;
    int event_ = -1;
    MVA_EventHandle handle_ = -1;
    int32_t lastGetData_ = 1;
};

TEST_F(SoapyDeviceTest, EveryStreamFormatDeliversTheSentBytesAndTheDeviceIsSetUp) {
    RandomFile file(300000);
    setenv("MVXTEST_SOURCE", ("file:" + file.path()).c_str(), 1);
    for (const char* format : {"CU8", "CS8", "CS16", "CF32"}) {
        SCOPED_TRACE(format);
        setenv("MVXTEST_FORMAT", format, 1);
        ASSERT_EQ(entries_.filterInit(0), 1);
        int32_t tunerType = 0;
        EXPECT_EQ(entries_.getTunerType(&tunerType), 1);
        EXPECT_EQ(tunerType, 1);
        ASSERT_EQ(entries_.setEventHandle(&handle_), 1);
        // Twice the file: the loop joins without a gap.
        const std::vector<uint8_t> got = Read(2 * file.bytes().size());
        ASSERT_GE(got.size(), 2 * file.bytes().size());
        EXPECT_EQ(std::memcmp(got.data(), file.bytes().data(), file.bytes().size()), 0);
        EXPECT_EQ(std::memcmp(got.data() + file.bytes().size(), file.bytes().data(), file.bytes().size()), 0);

        EXPECT_EQ(entries_.setFrequency(222064), 1);
        EXPECT_EQ(entries_.setBandwidth(6), 1);
        EXPECT_EQ(entries_.deviceUpdate(), 1);
        const ModuleState m = ReadModuleState();
        EXPECT_EQ(m.frequencyHz, 222064000.0);
        EXPECT_EQ(m.automaticGain, 1);
        EXPECT_EQ(entries_.releaseEventHandle(&handle_), 1);
        EXPECT_EQ(entries_.filterRelease(0), 1);
    }
}

TEST_F(SoapyDeviceTest, TunerTypeIsConfigurable) {
    setenv("MVSOAPY_TUNER_TYPE", "14", 1);
    ASSERT_EQ(entries_.filterInit(0), 1);
    int32_t tunerType = 0;
    EXPECT_EQ(entries_.getTunerType(&tunerType), 1);
    EXPECT_EQ(tunerType, 14);
}

TEST_F(SoapyDeviceTest, NoDeviceFailsInitAndEveryEntryAfterIt) {
    setenv("MVSOAPY_DEVICE", "driver=none-such", 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(entries_.filterInit(0), 0);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("no SoapySDR device"), std::string::npos) << said;
    int32_t tunerType = 0;
    uint8_t b = 0;
    EXPECT_EQ(entries_.getTunerType(&tunerType), 0);
    EXPECT_EQ(entries_.setEventHandle(&handle_), 0);
    EXPECT_EQ(entries_.deviceUpdate(), 0);
    EXPECT_EQ(entries_.demodRead(1, 0x3E, 1, &b), 0);
    EXPECT_EQ(entries_.filterRelease(0), 1);
}

// The register written before streaming starts acts on the samples from the
// first one on: through the module's frequency correction (opposite sign, as
// the reference error it declares), or, where the device has none, by
// resampling in the library, exactly as the shared resampler does.
TEST_F(SoapyDeviceTest, SampleRateRegisterActsThroughTheDeviceOrTheResampler) {
    RandomFile file(200000);
    setenv("MVXTEST_SOURCE", ("file:" + file.path()).c_str(), 1);
    // -300 ppm: code floor(-300 x 16.777216) = -5034, 14-bit two's complement.
    const int32_t code = -5034 & 0x3FFF;
    uint8_t offset[2] = {uint8_t(code >> 8), uint8_t(code & 0xFF)};
    const double ppm = -5034 * 1.0e6 / 16777216.0;

    ASSERT_EQ(entries_.filterInit(0), 1);
    ASSERT_EQ(entries_.demodWrite(1, 0x3E, 2, offset), 1);
    ASSERT_EQ(entries_.setEventHandle(&handle_), 1);
    Read(100000);
    EXPECT_NEAR(ReadModuleState().correctionPpm, -ppm, 1e-9);
    entries_.filterRelease(0);

    setenv("MVXTEST_CORRECTION", "0", 1);
    ASSERT_EQ(entries_.filterInit(0), 1);
    ASSERT_EQ(entries_.demodWrite(1, 0x3E, 2, offset), 1);
    ASSERT_EQ(entries_.setEventHandle(&handle_), 1);
    const std::vector<uint8_t> got = Read(file.bytes().size());
    EXPECT_EQ(ReadModuleState().correctionPpm, 0.0);
    MemorySource source(file.bytes());
    emu::ClockResampler resampler;
    std::vector<uint8_t> expected(got.size());
    ASSERT_EQ(resampler.Produce(&source, ppm, expected.data(), expected.size() / 2), expected.size() / 2);
    EXPECT_EQ(got, expected);
}

TEST_F(SoapyDeviceTest, UnpluggedOrStalledStreamLosesTheDeviceUntilItIsOpenedAgain) {
    const struct {
        const char* variable;
        const char* reason;
    } cases[] = {{"MVXTEST_UNPLUG_MS", "reading the stream failed"}, {"MVXTEST_STALL_MS", "no samples for"}};
    RandomFile file(100000);
    setenv("MVXTEST_SOURCE", ("file:" + file.path()).c_str(), 1);
    setenv("MVSOAPY_STALL_MS", "300", 1);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.variable);
        setenv(c.variable, "200", 1);
        ASSERT_EQ(entries_.filterInit(0), 1);
        ASSERT_EQ(entries_.setEventHandle(&handle_), 1);
        testing::internal::CaptureStderr();
        // The bytes before the failure arrive; then reads fail and the event stays quiet.
        const std::vector<uint8_t> before = Read(size_t(1) << 30, std::chrono::milliseconds(10000));
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_GE(before.size(), size_t(200 * 2048 * 2));
        int32_t count = -1;
        int32_t reserved = 0;
        std::vector<uint8_t> buffer(MVA_READ_CAPACITY);
        EXPECT_EQ(entries_.getData(buffer.data(), MVA_READ_CAPACITY, &count, &reserved), 0);
        EXPECT_EQ(count, 0);
        EXPECT_NE(said.find("device lost: " + std::string(c.reason)), std::string::npos) << said;
        uint8_t b = 0;
        int32_t tunerType = 0;
        EXPECT_EQ(entries_.setFrequency(227360), 0);
        EXPECT_EQ(entries_.deviceUpdate(), 0);
        EXPECT_EQ(entries_.demodRead(1, 0x3E, 1, &b), 0);
        EXPECT_EQ(entries_.sysWrite(1, 1, &b), 0);
        EXPECT_EQ(entries_.getTunerType(&tunerType), 0);
        EXPECT_EQ(entries_.setEventHandle(&handle_), 0);
        // Stopping and closing complete.
        EXPECT_EQ(entries_.releaseEventHandle(&handle_), 1);
        EXPECT_EQ(entries_.filterRelease(0), 1);

        // Plugged in again.
        unsetenv(c.variable);
        ASSERT_EQ(entries_.filterInit(0), 1);
        ASSERT_EQ(entries_.setEventHandle(&handle_), 1);
        EXPECT_GE(Read(100000).size(), size_t(100000));
        EXPECT_EQ(lastGetData_, 1);
        EXPECT_EQ(entries_.filterRelease(0), 1);
    }
}

}  // namespace
