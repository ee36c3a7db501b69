// Deterministic test harness for the receiver core: no threads, no device
// library.
//
// FrameHarness sets the receiver up as an open device would, but with the
// device's entry points replaced by in-process fakes (FakeDevice) that keep
// the demodulator and system registers as bytes, so that tuning, the
// sample-rate register and the reception line behave as on a device. Tests
// then push IqFrames (240,640 bytes of unsigned 8-bit I/Q) and each push runs
// one RunFrameStep on the calling thread, exactly as the demodulation thread
// would, deterministically.
//
//   mvdab::test::FrameHarness h;          // tuner type 1, samples "flowing"
//   h.Tune(227360);                       // as MVDAB_SetFreqAndBW: posts a retune
//   h.PushIqFrame(frame.data());          // one frame step
//   EXPECT_EQ(mvdab::receiverStatus.syncState, 1);
//
// Only one harness may exist at a time (the receiver is one per process).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace mvdab::test {

// One access of the fake device, in call order.
struct RegisterAccess {
    char kind;                   // 'R' demod read, 'W' demod write, 'r' system read, 'w' system write
    int32_t page;                // demodulator page; -1 for system registers
    int32_t addr;                // first register
    std::vector<uint8_t> bytes;  // bytes read or written
};

// The fake device's state; reset by FrameHarness and by ResetFakeDevice.
struct FakeDevice {
    uint8_t demod[2][256];       // demodulator registers, pages 0 and 1
    uint8_t system[256];         // system registers
    int32_t tunerType;           // reported by MVA_Get_TunerType
    int32_t frequency;           // last MVA_Set_Frequency
    int32_t bandwidth;           // last MVA_Set_Bandwidth
    int32_t updates;             // MVA_DeviceUpdate calls
    bool logAccesses;            // append every register access to `log`
    std::vector<RegisterAccess> log;
    // Faults.
    bool failSetFrequency;       // MVA_Set_Frequency returns 0
    bool failDeviceUpdate;       // MVA_DeviceUpdate returns 0
    bool failAllWrites;          // every register write returns 0 (and changes nothing)
    int32_t failReadPage;        // a demod read touching (page, addr) returns 0; -1 none
    int32_t failReadAddr;
    int32_t failWritePage;       // a demod write touching (page, addr) returns 0; -1 none
    int32_t failWriteAddr;
};
FakeDevice& Device();
void ResetFakeDevice(int32_t tunerType);
// Fills the receiver's access table with the fake device's entry points.
void InstallFakeDevice();
// Sample-rate register page 1, 0x3E..0x3F as a signed 14-bit code.
int32_t SampleRateRegister();

// Renders the log as "W1:3E=00 00" lines, one per access, for readable diffs.
std::string FormatLog(const std::vector<RegisterAccess>& log);

class FrameHarness {
public:
    explicit FrameHarness(int32_t tunerType = 1);
    ~FrameHarness();
    FrameHarness(const FrameHarness&) = delete;
    FrameHarness& operator=(const FrameHarness&) = delete;

    // True when InitReceiverState succeeded.
    bool ready() const { return ready_; }

    // MVDAB_SetFreqAndBW on the calling thread: tunes the fake device and
    // posts a retune or service reset for the next frame step. Its result.
    int32_t Tune(int32_t frequencyKhz);
    // Posts a retune without touching the device.
    void PostRetune();

    // One IqFrame (kIqFrameBytes bytes) through the hand-over buffer, then
    // one RunFrameStep. Returns its result.
    int32_t PushIqFrame(const uint8_t* frame);
    // A frame of constant bytes (127/128 alternate: no power, no structure).
    void PushSilentFrames(int32_t count);
    // Seeded white noise of about `rms` per rail around 127.5.
    void PushNoiseFrames(int32_t count, uint32_t seed = 1, double rms = 20.0);
    // Arbitrary bytes as a device would deliver them: gathered into IqFrames,
    // each finished one running a frame step. Returns the steps run.
    int32_t PushBytes(const uint8_t* bytes, int32_t count);

    // IqFrames pushed so far.
    int64_t frames() const { return frames_; }

private:
    bool ready_ = false;
    int64_t frames_ = 0;
};

}  // namespace mvdab::test
