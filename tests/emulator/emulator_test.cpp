// The emulated device: its registers on their own
// (its configuration texts and faults are used by every test that runs on
// it), and its entry points as a receiver drives them (streaming and the
// event, overflow; tuning between the sources of several frequencies is the
// scan's end-to-end run). Its model of a converter clock error
// (MVC900_CLOCK_PPM) is not tried here; the SoapySDR tests prove the
// resampler it shares with their module.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "device/device_interface.h"
#include "emulator/register_file.h"
#include "emulator/sample_sources.h"

extern "C" {
int32_t MVA_BDAFilterInit(int32_t);
int32_t MVA_BDAFilterRelease(int32_t);
int32_t MVA_SetDABEventHandle(MVA_EventHandle*);
int32_t MVA_ReleaseDABEventHandle(MVA_EventHandle*);
int32_t MVA_GetData(uint8_t*, int32_t, int32_t*, int32_t*);
int32_t MVA_Get_TunerType(int32_t*);
int32_t MVA_Set_Frequency(int32_t);
int32_t MVA_Set_Bandwidth(int32_t);
int32_t MVA_DeviceUpdate(void);
int32_t MVA_Demod_Byte_Read(int32_t, int32_t, int32_t, uint8_t*);
int32_t MVA_Demod_Byte_Write(int32_t, int32_t, int32_t, uint8_t*);
}

namespace emu {
namespace {

using Bytes = std::vector<uint8_t>;

// Sets the MVC900_* variables of one test and clears all others it knows.
void Configure(std::initializer_list<std::pair<const char*, std::string>> values) {
    for (const char* name : {"MVC900_SOURCE", "MVC900_GENERATED", "MVC900_LOOP", "MVC900_SPEED", "MVC900_TUNER_TYPE",
                             "MVC900_CLOCK_PPM", "MVC900_SETTLE_MS", "MVC900_FIFO_KB", "MVC900_FAULT",
                             "MVC900_VERBOSE", "MVC900_NOISE_RMS", "MVC900_SEED"})
        unsetenv(name);
    for (const auto& [name, value] : values) setenv(name, value.c_str(), 1);
}

// An open, streaming device with the receiver's side of the event.
class Device {
public:
    Device() {
        opened_ = MVA_BDAFilterInit(0) == 1;
        if (opened_) streaming_ = MVA_SetDABEventHandle(&event_) == 1;
    }
    ~Device() {
        if (streaming_) MVA_ReleaseDABEventHandle(&event_);
        if (opened_) MVA_BDAFilterRelease(0);
        close(int(event_));
    }
    bool ready() const { return opened_ && streaming_; }
    int32_t Tune(int32_t khz) {
        return MVA_Set_Frequency(khz) == 1 && MVA_Set_Bandwidth(6) == 1 ? MVA_DeviceUpdate() : 0;
    }
    // Waits for the event without reading data; false on timeout.
    bool WaitForSignal(int timeoutMs) {
        pollfd p{int(event_), POLLIN, 0};
        uint64_t count = 0;
        return poll(&p, 1, timeoutMs) > 0 && read(int(event_), &count, sizeof count) == sizeof count;
    }
    // One read, its bytes appended to `out`; the count.
    int32_t ReadNow(Bytes* out) {
        Bytes buffer(MVA_READ_CAPACITY);
        int32_t n = -7, reserved = 0;
        MVA_GetData(buffer.data(), MVA_READ_CAPACITY, &n, &reserved);
        if (n > 0) out->insert(out->end(), buffer.begin(), buffer.begin() + n);
        return n;
    }
    // Waits for the event and reads once, as the capture thread does; -1 on timeout.
    int32_t WaitAndRead(Bytes* out, int timeoutMs = 500) { return WaitForSignal(timeoutMs) ? ReadNow(out) : -1; }
    // Reads until `bytes` are together (or a timeout).
    Bytes Collect(size_t bytes) {
        Bytes out;
        while (out.size() < bytes && WaitAndRead(&out) >= 0) {
        }
        return out;
    }

private:
    bool opened_ = false;
    bool streaming_ = false;
    MVA_EventHandle event_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
};

// Tests with files of samples in a temporary directory.
class EmulatorFiles : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/emulator_band_XXXXXX";
        dir_ = mkdtemp(name);
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string Write(const std::string& name, const Bytes& bytes) {
        std::ofstream(dir_ + "/" + name, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return dir_ + "/" + name;
    }
    std::string dir_;
};

TEST(EmulatorRegisters, ResetStateRangesLineAndSampleRateCode) {
    RegisterFile r;
    uint8_t b[4] = {9, 9, 9, 9};
    ASSERT_EQ(r.ReadDemod(1, 0x3E, 2, b), 1);
    ASSERT_EQ(r.ReadSystem(4, 1, b + 2), 1);
    EXPECT_EQ(std::vector<uint8_t>(b, b + 3), (std::vector<uint8_t>{0, 0, 0x04}));
    EXPECT_EQ(std::vector<int32_t>({r.ReadDemod(2, 0, 1, b), r.ReadDemod(0, 255, 2, b), r.WriteDemod(0, -1, 1, b),
                                    r.ReadSystem(0, 0, b), r.ReadDemod(0, 0, 1, nullptr), r.ReadDemod(0, 0xFC, 4, b)}),
              std::vector<int32_t>({0, 0, 0, 0, 0, 1}));

    // The line (bit 2) drives only once it is configured as an output: system
    // register, value written, line after the write.
    for (const auto& [addr, value, line] : {std::tuple{1, 0x04, 0}, {4, 0x00, 0}, {3, 0x04, 1}, {1, 0x00, 0}}) {
        const uint8_t byte = uint8_t(value);
        ASSERT_EQ(r.WriteSystem(addr, 1, &byte), 1);
        EXPECT_EQ(r.GoodReceptionLine(), line) << addr << " " << value;
    }

    // Soft reset: counted on the falling edge of bit 2 of page 1, 0x01.
    for (const auto& [value, resets] : {std::pair{0x05, 0}, {0x01, 1}}) {
        const uint8_t byte = uint8_t(value);
        r.WriteDemod(1, 0x01, 1, &byte);
        EXPECT_EQ(r.SoftResets(), resets);
    }
    r.Reset();
    EXPECT_EQ(r.SoftResets(), 0);
    EXPECT_EQ(r.GoodReceptionLine(), 0);

    // The sample-rate offset: 14-bit two's complement in units of 2^-24.
    EXPECT_DOUBLE_EQ(SampleRateCodeToPpm(0x3F, 0xFF), -1.0e6 / 16777216.0);
    EXPECT_DOUBLE_EQ(SampleRateCodeToPpm(0x20, 0x00), -8192.0e6 / 16777216.0);
    EXPECT_DOUBLE_EQ(SampleRateCodeToPpm(0x1F, 0xFF), 8191.0e6 / 16777216.0);
    EXPECT_DOUBLE_EQ(SampleRateCodeToPpm(0xC0, 0x10), 16.0e6 / 16777216.0) << "top bits are not part of the code";
}

TEST(EmulatorDevice, StreamsPacedTransfersBelowAnIqFrame) {
    Configure({{"MVC900_SOURCE", "noise"}});
    Device d;
    ASSERT_TRUE(d.ready());
    int32_t type = 0;
    EXPECT_EQ(MVA_Get_TunerType(&type), 1);
    EXPECT_EQ(type, 1);
    Bytes bytes;
    const auto start = std::chrono::steady_clock::now();
    int32_t reads = 0;
    while (bytes.size() < 409600) {  // 100 ms of samples
        const int32_t n = d.WaitAndRead(&bytes);
        ASSERT_GE(n, 0) << "event not signalled";
        EXPECT_EQ(n % 2, 0);
        EXPECT_LT(n, 240640) << "below an IqFrame";
        ++reads;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GT(seconds, 0.07) << "real-time pacing";
    EXPECT_LT(seconds, 2.0);
    EXPECT_GE(reads, 4);
}

TEST_F(EmulatorFiles, UnpacedStreamLosesNothing) {
    // A counting file: any lost or repeated byte breaks the sequence.
    Bytes ramp(600000);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = uint8_t(i * 7 + i / 251);
    Configure({{"MVC900_SOURCE", "file:" + Write("ramp.u8", ramp)}, {"MVC900_SPEED", "0"}, {"MVC900_LOOP", "0"},
               {"MVC900_FIFO_KB", "256"}});
    Device d;
    ASSERT_TRUE(d.ready());
    Bytes bytes;
    // A slow reader: the producer has to wait, not drop.
    while (d.WaitAndRead(&bytes, 200) >= 0) std::this_thread::sleep_for(std::chrono::milliseconds(3));
    EXPECT_EQ(bytes, ramp);
}

// The stream-stop fault itself is proven by the receiver's tests.
TEST(EmulatorDevice, OverflowDropsWhatTheFullBufferCannotTake) {
    // 3 MB at 20 times real time with nobody reading: the buffer ends full,
    // the rest is dropped.
    Configure({{"MVC900_SOURCE", "noise"}, {"MVC900_SPEED", "20"}, {"MVC900_FIFO_KB", "256"},
               {"MVC900_FAULT", "stream-stop=3000000"}});
    Device d;
    ASSERT_TRUE(d.ready());
    while (d.WaitForSignal(150)) {  // until the stream has ended
    }
    Bytes bytes;
    for (int32_t n = 0; (n = d.ReadNow(&bytes)) > 0;) EXPECT_LE(n, MVA_READ_CAPACITY);
    EXPECT_EQ(bytes.size(), 256u * 1024u);
}

// The faults the receiver's tests inject (no-device, update-after, the
// event's release, ...) are proven by what the receiver does with them; here
// what they can't see: which register a read fault covers, and that a
// closed device refuses.
TEST(EmulatorDevice, EntriesRefuseWhenClosedOrFaulty) {
    Configure({{"MVC900_TUNER_TYPE", "14"}, {"MVC900_FAULT", "demod-read=0:20"}});
    ASSERT_EQ(MVA_BDAFilterInit(0), 1);
    uint8_t two[2] = {0xAB, 0xCD};
    int32_t v = 5;
    EXPECT_EQ(MVA_Get_TunerType(&v), 1);
    EXPECT_EQ(v, 14);
    EXPECT_EQ(MVA_DeviceUpdate(), 0) << "no frequency recorded yet";
    EXPECT_EQ(MVA_Demod_Byte_Write(0, 0x1F, 2, two), 1);
    EXPECT_EQ(MVA_Demod_Byte_Read(0, 0x1F, 2, two), 0) << "the range covers the faulty register";
    EXPECT_EQ(MVA_Demod_Byte_Read(0, 0x1F, 1, two), 1);
    EXPECT_EQ(two[0], 0xAB);
    MVA_BDAFilterRelease(0);
    EXPECT_EQ(MVA_Demod_Byte_Read(0, 0x1F, 1, two), 0) << "released";
    EXPECT_EQ(MVA_GetData(two, 1, &v, nullptr), 0);
    EXPECT_EQ(v, 0);
}

}  // namespace
}  // namespace emu
