// The SoapySDR device library: its conversion of the stream formats, then
// its 13 entry points on the test module through the real SoapySDR module
// search (bytes as the module sent them in every stream format, tuning, both
// ways of clock correction, a device that is unplugged or stalls while
// streaming), and the receiver on it through the public interface (an
// unplugged device fails tuning, a close completes and a new open brings
// reception back; the choice of the device library).
#include <dlfcn.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "device/device_interface.h"
#include "emulator/clock_resampler.h"
#include "emulator/sample_sources.h"
#include "mvxdab.h"
#include "soapydevice/sample_conversion.h"
#include "tests/soapy/test_module_state.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

std::string LibraryPath() {
    const char* dir = std::getenv("MVDAB_LIB_DIR");
    return std::string(dir != nullptr ? dir : ".") + "/libMVC900ACCESS_soapy.so";
}

// The device library's 13 entries, looked up in the built library.
#define MVDAB_DEVICE_ENTRIES(X)                                                                                       \
    X(BDAFilterInit) X(BDAFilterRelease) X(SetDABEventHandle) X(ReleaseDABEventHandle) X(GetData) X(Get_TunerType) \
    X(Set_Frequency) X(Set_Bandwidth) X(DeviceUpdate) X(Demod_Byte_Read) X(Demod_Byte_Write) X(SYS_Byte_Read)       \
    X(SYS_Byte_Write)
struct DeviceEntries {
#define MVDAB_ENTRY_FIELD(name) MVA_##name##_t name = nullptr;
    MVDAB_DEVICE_ENTRIES(MVDAB_ENTRY_FIELD)
    std::string missing;
    bool Load() {
        void* module = dlopen(LibraryPath().c_str(), RTLD_NOW);
        if (module == nullptr) return missing = dlerror(), false;
#define MVDAB_ENTRY_FIND(name)                                                               \
    name = reinterpret_cast<MVA_##name##_t>(dlsym(module, "MVA_" #name));                  \
    if (name == nullptr) missing += #name " ";
        MVDAB_DEVICE_ENTRIES(MVDAB_ENTRY_FIND)
        return missing.empty();
    }
};

// The test module's state (zeros before it is loaded).
const MvxTestState& ModuleState() {
    static const MvxTestState none;
    const char* dir = std::getenv("SOAPY_SDR_PLUGIN_PATH");
    const std::string path = std::string(dir != nullptr ? dir : ".") + "/libmvxtest_soapy_module.so";
    void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    const void* state = module != nullptr ? dlsym(module, "mvxtest_state") : nullptr;
    return state != nullptr ? *static_cast<const MvxTestState*>(state) : none;
}

// Clears the variables of the device library and of the test module.
void ClearTestEnvironment() {
    for (const char* name : {"MVSOAPY_DEVICE", "MVSOAPY_TUNER_TYPE", "MVSOAPY_STALL_MS", "MVXTEST_SOURCE",
                             "MVXTEST_CLOCK_PPM", "MVXTEST_FORMAT", "MVXTEST_CORRECTION", "MVXTEST_SPEED",
                             "MVXTEST_UNPLUG_MS", "MVXTEST_STALL_MS", "MVDAB_DEVICE_LIBRARY"})
        unsetenv(name);
}

soapydev::StreamFormat Format(const std::string& native, double fullScale = 0.0) {
    soapydev::StreamFormat f{};
    EXPECT_TRUE(soapydev::ChooseStreamFormat(native, fullScale, {native}, &f)) << native;
    return f;
}

TEST(SampleConversion, ScalingRoundsDownAndClipsOutOfRangeValues) {
    // A 12-bit device in 16-bit words reports a full scale of 2048.
    static const int16_t twelveBit[6] = {2047, -2048, 16, -16, 15, -17};
    // Float values beyond full scale, infinities and NaN stay in the byte range.
    static const float wild[6] = {4.0f, -4.0f, INFINITY, -INFINITY, std::nanf(""), 0.0f};
    // A digital gain of 2 doubles the distance from the centre, and clips.
    static const int8_t small[4] = {10, -10, 100, -100};
    const struct {
        soapydev::StreamFormat format;
        double gain;
        const void* in;
        Bytes expected;
    } cases[] = {{Format("CS16", 2048.0), 1.0, twelveBit, {255, 0, 129, 127, 128, 126}},
                 {Format("CF32"), 1.0, wild, {255, 0, 255, 0, 0, 128}},
                 {Format("CS8"), 2.0, small, {148, 108, 255, 0}}};
    for (const auto& c : cases) {
        Bytes out(c.expected.size());
        soapydev::ConvertToBytes(c.format, c.gain, c.in, out.size() / 2, out.data());
        EXPECT_EQ(out, c.expected) << c.format.name;
    }
}

TEST(SampleConversion, NativeFormatFirstThenEightBitsThenWider) {
    const struct {
        const char* native;
        double nativeScale;
        std::vector<std::string> offered;
        const char* chosen;  // empty: none fits
        double fullScale;
    } cases[] = {
        {"CS16", 2048.0, {"CS8", "CS16", "CF32"}, "CS16", 2048.0},  // native, with the device's scale
        {"CS16", 0.0, {"CS16"}, "CS16", 32768.0},                   // no scale given: the format's own
        {"CS12", 2048.0, {"CF32", "CS16", "CS12"}, "CS16", 32768.0},  // packed native: a converted format
        {"CS12", 2048.0, {"CF32", "CS12"}, "CF32", 1.0},
        {"CF64", 1.0, {"CF64", "CU8"}, "CU8", 128.0},
        {"CS12", 2048.0, {"CS12", "CF64"}, "", 0.0},
    };
    for (const auto& c : cases) {
        soapydev::StreamFormat f{};
        ASSERT_EQ(soapydev::ChooseStreamFormat(c.native, c.nativeScale, c.offered, &f), *c.chosen != '\0') << c.native;
        if (*c.chosen != '\0') {
            EXPECT_EQ(std::tuple(std::string(f.name), f.fullScale), std::tuple(c.chosen, c.fullScale));
        }
    }
}

class SoapyDeviceTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(d_.Load()) << d_.missing;
        ClearTestEnvironment();
        setenv("MVSOAPY_DEVICE", "driver=mvxtest", 1);
        setenv("MVXTEST_SPEED", "4", 1);
        // A file of seeded random bytes for the module to play, looped.
        std::mt19937 random(7);
        for (uint8_t& b : file_) b = uint8_t(random());
        std::FILE* f = std::fopen(path_.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        std::fwrite(file_.data(), 1, file_.size(), f);
        std::fclose(f);
        setenv("MVXTEST_SOURCE", ("file:" + path_).c_str(), 1);
    }
    void TearDown() override {
        d_.BDAFilterRelease(0);
        close(event_);
        std::remove(path_.c_str());
        ClearTestEnvironment();
    }
    // Opens the device and starts its stream.
    void Start() {
        ASSERT_EQ(d_.BDAFilterInit(0), 1);
        ASSERT_EQ(d_.SetDABEventHandle(&handle_), 1);
    }
    // As the receiver's capture thread does: waits for the event, then one
    // read; until `bytes` are together, a read fails or `limit` passes.
    Bytes Read(size_t bytes, std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
        lastGetData_ = 1;
        Bytes out, buffer(MVA_READ_CAPACITY);
        for (const auto end = Clock::now() + limit; out.size() < bytes && lastGetData_ == 1 && Clock::now() < end;) {
            pollfd p{event_, POLLIN, 0};
            uint64_t count = 0;
            int32_t got = 0, reserved = 0;
            if (poll(&p, 1, 50) <= 0 || read(event_, &count, sizeof count) < 0) continue;
            lastGetData_ = d_.GetData(buffer.data(), MVA_READ_CAPACITY, &got, &reserved);
            out.insert(out.end(), buffer.begin(), buffer.begin() + got);
        }
        return out;
    }

    DeviceEntries d_;
    Bytes file_ = Bytes(200000);
    std::string path_ = testing::TempDir() + "soapy_device_test.u8";
    int event_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    MVA_EventHandle handle_ = event_;
    int32_t lastGetData_ = 1;
};

TEST_F(SoapyDeviceTest, EveryStreamFormatDeliversTheSentBytesAndTheDeviceIsSetUp) {
    for (const char* format : {"CS16", "CF32"}) {
        SCOPED_TRACE(format);
        setenv("MVXTEST_FORMAT", format, 1);
        setenv("MVSOAPY_TUNER_TYPE", format[1] == 'F' ? "14" : "1", 1);
        ASSERT_NO_FATAL_FAILURE(Start());
        int32_t tunerType = 0;
        EXPECT_EQ(d_.Get_TunerType(&tunerType), 1);
        EXPECT_EQ(tunerType, format[1] == 'F' ? 14 : 1);
        // Twice the file: the loop joins without a gap.
        const Bytes got = Read(2 * file_.size());
        ASSERT_GE(got.size(), 2 * file_.size());
        EXPECT_TRUE(std::equal(file_.begin(), file_.end(), got.begin()));
        EXPECT_TRUE(std::equal(file_.begin(), file_.end(), got.begin() + long(file_.size())));
        EXPECT_EQ(d_.Set_Frequency(222064) + d_.Set_Bandwidth(6) + d_.DeviceUpdate(), 3);
        EXPECT_EQ(ModuleState().frequencyHz, 222064000.0);
        EXPECT_EQ(ModuleState().automaticGain, 1);
        EXPECT_EQ(d_.ReleaseDABEventHandle(&handle_), 1);
        EXPECT_EQ(d_.BDAFilterRelease(0), 1);
    }
}

// The register written before streaming starts acts on the samples from the
// first one on: through the module's frequency correction (opposite sign, as
// the reference error it declares), or, where the device has none, by
// resampling in the library, exactly as the shared resampler does.
TEST_F(SoapyDeviceTest, SampleRateRegisterActsThroughTheDeviceOrTheResampler) {
    // -300 ppm: code floor(-300 x 16.777216) = -5034, 14-bit two's complement.
    const int32_t code = -5034 & 0x3FFF;
    uint8_t offset[2] = {uint8_t(code >> 8), uint8_t(code & 0xFF)};
    const double ppm = -5034 * 1.0e6 / 16777216.0;
    for (const char* correction : {"1", "0"}) {
        setenv("MVXTEST_CORRECTION", correction, 1);
        ASSERT_EQ(d_.BDAFilterInit(0), 1);
        ASSERT_EQ(d_.Demod_Byte_Write(1, 0x3E, 2, offset), 1);
        ASSERT_EQ(d_.SetDABEventHandle(&handle_), 1);
        const Bytes got = Read(file_.size());
        if (*correction == '1') {
            EXPECT_NEAR(ModuleState().correctionPpm, -ppm, 1e-9);
            d_.BDAFilterRelease(0);
            continue;
        }
        EXPECT_EQ(ModuleState().correctionPpm, 0.0);
        std::string error;
        const auto source = emu::FileSource::Open(path_, true, &error);
        ASSERT_TRUE(source) << error;
        Bytes expected(got.size());
        ASSERT_EQ(emu::ClockResampler().Produce(source.get(), ppm, expected.data(), expected.size() / 2),
                  expected.size() / 2);
        EXPECT_EQ(got, expected);
    }
}

TEST_F(SoapyDeviceTest, UnpluggedOrStalledStreamLosesTheDeviceUntilItIsOpenedAgain) {
    setenv("MVSOAPY_STALL_MS", "300", 1);
    for (const auto& [variable, reason] : {std::pair{"MVXTEST_UNPLUG_MS", "reading the stream failed"},
                                           {"MVXTEST_STALL_MS", "no samples for"}}) {
        SCOPED_TRACE(variable);
        setenv(variable, "100", 1);
        ASSERT_NO_FATAL_FAILURE(Start());
        testing::internal::CaptureStderr();
        // The bytes before the failure arrive; then reads fail and the event stays quiet.
        const Bytes before = Read(size_t(1) << 30, std::chrono::milliseconds(10000));
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_GE(before.size(), size_t(100 * 2048 * 2));
        int32_t count = -1, reserved = 0, tunerType = 0;
        Bytes buffer(MVA_READ_CAPACITY);
        EXPECT_EQ(d_.GetData(buffer.data(), MVA_READ_CAPACITY, &count, &reserved), 0);
        EXPECT_EQ(count, 0);
        EXPECT_NE(said.find("device lost: " + std::string(reason)), std::string::npos) << said;
        uint8_t b = 0;
        EXPECT_EQ(d_.Set_Frequency(227360) + d_.DeviceUpdate() + d_.Demod_Byte_Read(1, 0x3E, 1, &b) +
                      d_.SYS_Byte_Write(1, 1, &b) + d_.Get_TunerType(&tunerType) + d_.SetDABEventHandle(&handle_),
                  0);
        // Stopping and closing complete.
        EXPECT_EQ(d_.ReleaseDABEventHandle(&handle_) + d_.BDAFilterRelease(0), 2);

        unsetenv(variable);  // plugged in again
        ASSERT_NO_FATAL_FAILURE(Start());
        EXPECT_GE(Read(100000).size(), size_t(100000));
        EXPECT_EQ(lastGetData_, 1);
        EXPECT_EQ(d_.BDAFilterRelease(0), 1);
    }
}

// Waits until the receiver reports lock; false after `seconds`.
bool LocksWithin(double seconds) {
    for (const auto end = Clock::now() + std::chrono::duration<double>(seconds); Clock::now() < end;) {
        int32_t locked = 0;
        if (MVDAB_GetSignalLock(&locked) == 1 && locked == 1) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

// Waits until the module has played `seconds` of signal in all (a
// sanitized build may generate it slower than its pace), or `until` holds.
template <typename Done>
void PlayUntil(double seconds, Done until) {
    for (const auto end = Clock::now() + std::chrono::seconds(120);
         Clock::now() < end && ModuleState().samples < seconds * 2048000.0 && !until();)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// The receiver on the module playing the generated ensemble, faster than
// real time but paced (sanitized builds play it slowed down). With the
// module's converter 40 ppm fast, the receiver measures that and writes -40
// ppm into the sample-rate register, which the device library hands to the
// module as a reference error of +40 ppm (the first measurement comes after
// about 15 s of signal; sanitized builds are too slow for it). After the
// device is unplugged a new tuning fails and so does a start after a stop;
// a close completes, and a new open brings reception back.
TEST(SoapyReceiver, CorrectsItsClockThroughTheDeviceAndRecoversFromAnUnpluggedDevice) {
    ClearTestEnvironment();
    const double speed = kSanitized ? 0.3 : 3.0;
    setenv("MVDAB_DEVICE_LIBRARY", "libMVC900ACCESS_soapy.so", 1);
    setenv("MVSOAPY_DEVICE", "driver=mvxtest", 1);
    setenv("MVXTEST_SOURCE", "generated:preset=default,snr=25", 1);
    setenv("MVXTEST_SPEED", kSanitized ? "0.3" : "3", 1);
    if (!kSanitized) {
        setenv("MVXTEST_CLOCK_PPM", "40", 1);
        ASSERT_EQ(MVDAB_OpenDevice(), 1);
        ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
        EXPECT_EQ(ModuleState().frequencyHz, 227360000.0);
        PlayUntil(30.0, [] { return std::fabs(ModuleState().correctionPpm - 40.0) <= 2.0; });
        EXPECT_NEAR(ModuleState().correctionPpm, 40.0, 2.0);
        MVDAB_CloseDevice();
        unsetenv("MVXTEST_CLOCK_PPM");
    }
    setenv("MVXTEST_UNPLUG_MS", "2000", 1);
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    EXPECT_TRUE(LocksWithin(15.0 / speed));
    PlayUntil(2.0, [] { return false; });  // until the module has failed
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(MVDAB_SetFreqAndBW(222064), 0);
    EXPECT_EQ(MVDAB_Stop(), 1);
    EXPECT_EQ(MVDAB_Start(), 0);
    const auto closing = Clock::now();
    EXPECT_EQ(MVDAB_CloseDevice(), 1);
    EXPECT_LT(Clock::now() - closing, std::chrono::seconds(3));

    unsetenv("MVXTEST_UNPLUG_MS");  // plugged in again
    ASSERT_EQ(MVDAB_OpenDevice(), 1);
    ASSERT_EQ(MVDAB_SetFreqAndBW(227360), 1);
    EXPECT_TRUE(LocksWithin(15.0 / speed));
    MVDAB_CloseDevice();

    // MVDAB_DEVICE_LIBRARY chooses the device library by file name or path;
    // one that isn't there fails the open instead of falling back to the
    // default, and the SoapySDR library with no such device says "no device"
    // (its open fails, and so does every entry after it but the release).
    setenv("MVDAB_DEVICE_LIBRARY", "libMVC900ACCESS_none.so", 1);
    EXPECT_EQ(MVDAB_OpenDevice(), 0);
    setenv("MVDAB_DEVICE_LIBRARY", LibraryPath().c_str(), 1);
    setenv("MVSOAPY_DEVICE", "driver=none-such", 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(MVDAB_OpenDevice(), 2);
    testing::internal::GetCapturedStderr();
    ClearTestEnvironment();
}

}  // namespace
