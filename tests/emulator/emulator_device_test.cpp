// The emulated device through its entry points, as a receiver drives it:
// streaming and the event, tuning between per-frequency sources, settling
// noise, overflow, the stream-stop fault and the sample-clock register.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "device/device_interface.h"

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
int32_t MVA_SYS_Byte_Read(int32_t, int32_t, uint8_t*);
int32_t MVA_SYS_Byte_Write(int32_t, int32_t, uint8_t*);
}

namespace {

constexpr int32_t kIqFrameBytes = 240640;

// Sets the MVC900_* variables of one test and clears all others it knows.
void Configure(std::initializer_list<std::pair<const char*, const char*>> values) {
    for (const char* name : {"MVC900_SOURCE", "MVC900_GENERATED", "MVC900_LOOP", "MVC900_SPEED", "MVC900_TUNER_TYPE",
                             "MVC900_CLOCK_PPM", "MVC900_SETTLE_MS", "MVC900_FIFO_KB", "MVC900_FAULT",
                             "MVC900_VERBOSE", "MVC900_NOISE_RMS", "MVC900_SEED"})
        unsetenv(name);
    for (const auto& [name, value] : values) setenv(name, value, 1);
}

// An open, streaming device with the receiver's side of the event.
class Device {
public:
    Device() {
        opened_ = MVA_BDAFilterInit(0) == 1;
        event_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
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
    // Waits for the event (at most `timeoutMs`) and reads once, as the
    // capture thread does; the bytes are appended. The count, -1 on timeout.
    int32_t WaitAndRead(std::vector<uint8_t>* out, int timeoutMs = 500) {
        pollfd p{int(event_), POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0) return -1;
        uint64_t count = 0;
        if (read(int(event_), &count, sizeof count) != sizeof count) return -1;
        return ReadNow(out);
    }
    // Waits for the event without reading data; false on timeout.
    bool WaitForSignal(int timeoutMs) {
        pollfd p{int(event_), POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0) return false;
        uint64_t count = 0;
        return read(int(event_), &count, sizeof count) == sizeof count;
    }
    int32_t ReadNow(std::vector<uint8_t>* out) {
        std::vector<uint8_t> buffer(MVA_READ_CAPACITY);
        int32_t n = -7;
        int32_t reserved = 0;
        MVA_GetData(buffer.data(), MVA_READ_CAPACITY, &n, &reserved);
        if (out != nullptr && n > 0) out->insert(out->end(), buffer.begin(), buffer.begin() + n);
        return n;
    }
    // Reads until `bytes` are together (or a timeout); the bytes.
    std::vector<uint8_t> Collect(size_t bytes) {
        std::vector<uint8_t> out;
        while (out.size() < bytes && WaitAndRead(&out) >= 0) {
        }
        return out;
    }

private:
    bool opened_ = false;
    bool streaming_ = false;
    MVA_EventHandle event_ = -1;
};

std::string TempDirectory() {
    char name[] = "/tmp/emulator_band_XXXXXX";
    return mkdtemp(name);
}

void WriteConstantFile(const std::string& path, uint8_t value, size_t bytes) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::vector<uint8_t> data(bytes, value);
    std::fwrite(data.data(), 1, data.size(), f);
    std::fclose(f);
}

// Bytes in [from, to) equal to `value`.
size_t CountValue(const std::vector<uint8_t>& bytes, size_t from, size_t to, uint8_t value) {
    size_t n = 0;
    for (size_t i = from; i < to && i < bytes.size(); ++i) n += bytes[i] == value;
    return n;
}

TEST(EmulatorDevice, StreamsPacedTransfersBelowAnIqFrame) {
    Configure({{"MVC900_SOURCE", "noise"}});
    Device d;
    ASSERT_TRUE(d.ready());
    int32_t type = 0;
    EXPECT_EQ(MVA_Get_TunerType(&type), 1);
    EXPECT_EQ(type, 1);
    std::vector<uint8_t> bytes;
    const auto start = std::chrono::steady_clock::now();
    int32_t reads = 0;
    int32_t largest = 0;
    while (bytes.size() < 409600) {  // 100 ms of samples
        const int32_t n = d.WaitAndRead(&bytes);
        ASSERT_GE(n, 0) << "event not signalled";
        EXPECT_EQ(n % 2, 0);
        largest = std::max(largest, n);
        ++reads;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GT(seconds, 0.07) << "real-time pacing";
    EXPECT_LT(seconds, 2.0);
    EXPECT_GE(reads, 4);
    EXPECT_LT(largest, kIqFrameBytes);
}

TEST(EmulatorDevice, TuningSwitchesPerFrequencyFilesAfterSettlingNoise) {
    const std::string dir = TempDirectory();
    WriteConstantFile(dir + "/227360.u8", 0x10, 1 << 20);
    WriteConstantFile(dir + "/222064.u8", 0xF0, 1 << 20);
    const std::string source = "perfreq:" + dir;
    Configure({{"MVC900_SOURCE", source.c_str()}, {"MVC900_SPEED", "0"}, {"MVC900_SETTLE_MS", "5"},
               {"MVC900_FIFO_KB", "256"}});
    Device d;
    ASSERT_TRUE(d.ready());
    const size_t settle = 2 * 10240;  // 5 ms of samples
    const size_t buffered = 256 * 1024;
    for (const auto& [khz, value] : {std::pair{227360, 0x10}, std::pair{222064, 0xF0}, std::pair{227360, 0x10}}) {
        ASSERT_EQ(d.Tune(khz), 1);
        // What was buffered before the tuning comes first, then settling
        // noise, then only the file.
        std::vector<uint8_t> bytes = d.Collect(buffered + 200000);
        ASSERT_GE(bytes.size(), buffered + 200000);
        size_t last = bytes.size();
        while (last > 0 && bytes[last - 1] == value) --last;
        EXPECT_GE(bytes.size() - last, 200000u) << khz;
        ASSERT_GE(last, settle);
        EXPECT_LT(CountValue(bytes, last - settle + 64, last, 0x10) + CountValue(bytes, last - settle + 64, last, 0xF0),
                  settle / 20)
            << "no settling noise at " << khz;
    }
    // A frequency without a file gives noise.
    ASSERT_EQ(d.Tune(100000), 1);
    std::vector<uint8_t> noise = d.Collect(buffered + 100000);
    EXPECT_LT(CountValue(noise, buffered, noise.size(), 0x10) + CountValue(noise, buffered, noise.size(), 0xF0),
              noise.size() / 50);
    std::remove((dir + "/227360.u8").c_str());
    std::remove((dir + "/222064.u8").c_str());
    rmdir(dir.c_str());
}

TEST(EmulatorDevice, UnpacedStreamLosesNothing) {
    // A counting file: any lost or repeated byte breaks the sequence.
    const std::string dir = TempDirectory();
    const std::string path = dir + "/ramp.u8";
    std::vector<uint8_t> ramp(1 << 20);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = uint8_t(i * 7 + i / 251);
    std::FILE* f = std::fopen(path.c_str(), "wb");
    std::fwrite(ramp.data(), 1, ramp.size(), f);
    std::fclose(f);
    const std::string source = "file:" + path;
    Configure({{"MVC900_SOURCE", source.c_str()}, {"MVC900_SPEED", "0"}, {"MVC900_LOOP", "0"},
               {"MVC900_FIFO_KB", "256"}});
    Device d;
    ASSERT_TRUE(d.ready());
    std::vector<uint8_t> bytes;
    // A slow reader: the producer has to wait, not drop.
    while (d.WaitAndRead(&bytes) >= 0) std::this_thread::sleep_for(std::chrono::milliseconds(3));
    EXPECT_EQ(bytes, ramp);
    std::remove(path.c_str());
    rmdir(dir.c_str());
}

TEST(EmulatorDevice, SlowReaderLosesTheOldestBytesWithinBoundedMemory) {
    // 3 MB at 20 times real time, then the stream stops; nobody reads meanwhile.
    Configure({{"MVC900_SOURCE", "noise"}, {"MVC900_SPEED", "20"}, {"MVC900_FIFO_KB", "256"},
               {"MVC900_FAULT", "stream-stop=3000000"}});
    Device d;
    ASSERT_TRUE(d.ready());
    // Wait until the stream has ended: no signal for 300 ms.
    while (d.WaitForSignal(300)) {
    }
    std::vector<uint8_t> bytes;
    size_t total = 0;
    int32_t n = 0;
    while ((n = d.ReadNow(&bytes)) > 0) {
        EXPECT_LE(n, MVA_READ_CAPACITY);
        total += size_t(n);
    }
    EXPECT_EQ(total, 256u * 1024u) << "the buffer full of the newest bytes, the rest dropped";
}

TEST(EmulatorDevice, StreamStopFaultEndsTheStream) {
    Configure({{"MVC900_SOURCE", "noise"}, {"MVC900_SPEED", "0"}, {"MVC900_FAULT", "stream-stop=100000"}});
    Device d;
    ASSERT_TRUE(d.ready());
    std::vector<uint8_t> bytes;
    while (d.WaitAndRead(&bytes, 200) >= 0) {
    }
    EXPECT_EQ(bytes.size(), 100000u);
}

// Frequency of a complex tone of about 0.1 cycles per sample in `bytes`,
// from the phase turn over 1,000 samples (100 cycles and the small rest).
double ToneFrequency(const std::vector<uint8_t>& bytes) {
    constexpr size_t kLag = 1000;
    std::complex<double> sum = 0.0;
    for (size_t n = 0; 2 * (n + kLag) + 1 < bytes.size(); ++n) {
        const std::complex<double> a(bytes[2 * n] - 127.5, bytes[2 * n + 1] - 127.5);
        const std::complex<double> b(bytes[2 * (n + kLag)] - 127.5, bytes[2 * (n + kLag) + 1] - 127.5);
        sum += b * std::conj(a);
    }
    return (100.0 + std::arg(sum) / (2.0 * M_PI)) / double(kLag);
}

TEST(EmulatorDevice, SampleRateRegisterCorrectsTheClockError) {
    // A tone of 0.1 cycles per sample; a device clock 200 ppm fast makes it
    // 0.1 / (1 + 200e-6) cycles per sample. Writing minus that error into
    // the sample-rate register takes it away.
    const std::string dir = TempDirectory();
    const std::string path = dir + "/tone.u8";
    std::vector<uint8_t> tone(2 * 100000);
    for (size_t n = 0; n < tone.size() / 2; ++n) {
        tone[2 * n] = uint8_t(std::lround(127.5 + 80.0 * std::cos(2.0 * M_PI * 0.1 * double(n))));
        tone[2 * n + 1] = uint8_t(std::lround(127.5 + 80.0 * std::sin(2.0 * M_PI * 0.1 * double(n))));
    }
    std::FILE* f = std::fopen(path.c_str(), "wb");
    std::fwrite(tone.data(), 1, tone.size(), f);
    std::fclose(f);
    const std::string source = "file:" + path;
    Configure({{"MVC900_SOURCE", source.c_str()}, {"MVC900_SPEED", "0"}, {"MVC900_CLOCK_PPM", "200"},
               {"MVC900_SETTLE_MS", "0"}, {"MVC900_FIFO_KB", "256"}});
    Device d;
    ASSERT_TRUE(d.ready());
    ASSERT_EQ(d.Tune(227360), 1);
    auto measure = [&] {
        // Past what was buffered before; one tone period holds 10 samples,
        // so a loop of the file doesn't break the phase.
        std::vector<uint8_t> bytes = d.Collect(256 * 1024 + 400000);
        bytes.erase(bytes.begin(), bytes.end() - 400000);
        return ToneFrequency(bytes);
    };
    const double uncorrected = measure();
    EXPECT_NEAR((0.1 / uncorrected - 1.0) * 1.0e6, 200.0, 1.0);
    uint8_t code[2] = {0x32, 0xE4};  // floor(-200 x 16.777216) = -3356, 14-bit two's complement
    ASSERT_EQ(MVA_Demod_Byte_Write(1, 0x3E, 2, code), 1);
    const double corrected = measure();
    EXPECT_NEAR((0.1 / corrected - 1.0) * 1.0e6, 0.0, 1.0);
    std::remove(path.c_str());
    rmdir(dir.c_str());
}

TEST(EmulatorDevice, EntriesRefuseWhenClosedOrFaulty) {
    Configure({{"MVC900_FAULT", "no-device"}});
    EXPECT_EQ(MVA_BDAFilterInit(0), 0);
    uint8_t b = 0;
    int32_t v = 5;
    EXPECT_EQ(MVA_Demod_Byte_Read(0, 0, 1, &b), 0);
    EXPECT_EQ(MVA_GetData(&b, 1, &v, nullptr), 0);
    EXPECT_EQ(v, 0);

    Configure({{"MVC900_TUNER_TYPE", "14"}, {"MVC900_FAULT", "update-after=1,demod-read=0:20"}});
    ASSERT_EQ(MVA_BDAFilterInit(0), 1);
    EXPECT_EQ(MVA_Get_TunerType(&v), 1);
    EXPECT_EQ(v, 14);
    EXPECT_EQ(MVA_DeviceUpdate(), 0) << "no frequency recorded yet";
    EXPECT_EQ(MVA_Set_Frequency(227360), 1);
    EXPECT_EQ(MVA_DeviceUpdate(), 1);
    EXPECT_EQ(MVA_DeviceUpdate(), 0);
    uint8_t two[2] = {0xAB, 0xCD};
    EXPECT_EQ(MVA_Demod_Byte_Write(0, 0x1F, 2, two), 1);
    EXPECT_EQ(MVA_Demod_Byte_Read(0, 0x1F, 2, two), 0) << "the range covers the faulty register";
    EXPECT_EQ(MVA_Demod_Byte_Read(0, 0x1F, 1, two), 1);
    EXPECT_EQ(two[0], 0xAB);
    MVA_BDAFilterRelease(0);
    EXPECT_EQ(MVA_Demod_Byte_Read(0, 0x1F, 1, two), 0) << "released";
}

TEST(EmulatorDevice, ReleasingTheEventStopsSignalling) {
    Configure({{"MVC900_SOURCE", "noise"}, {"MVC900_FAULT", "release-event"}});
    ASSERT_EQ(MVA_BDAFilterInit(0), 1);
    MVA_EventHandle e = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    ASSERT_EQ(MVA_SetDABEventHandle(&e), 1);
    EXPECT_EQ(MVA_ReleaseDABEventHandle(&e), 0) << "fault: streaming goes on";
    // Release of the device stops the stream in any case.
    MVA_BDAFilterRelease(0);
    uint64_t count = 0;
    while (read(int(e), &count, sizeof count) == sizeof count) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_NE(read(int(e), &count, sizeof count), ssize_t(sizeof count)) << "signalled after release";
    close(int(e));
}

}  // namespace
