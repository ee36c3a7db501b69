#include "tests/support/frame_harness.h"

#include <cstdio>
#include <cstring>
#include <random>

#include "device/access_library.h"
#include "device/demodulator_init.h"
#include "device/tuning.h"
#include "receiver/capture.h"
#include "receiver/frame_step.h"
#include "receiver/receiver_lifecycle.h"
#include "receiver/receiver_memory.h"
#include "receiver/receiver_state.h"
#include "receiver/request_mailbox.h"
#include "receiver/sync_objects.h"

namespace mvdab::test {

namespace {

FakeDevice device;

bool Touches(int32_t page, int32_t addr, int32_t count, int32_t failPage, int32_t failAddr) {
    return failPage == page && failAddr >= addr && failAddr < addr + count;
}

void Log(char kind, int32_t page, int32_t addr, const uint8_t* bytes, int32_t count) {
    if (!device.logAccesses) return;
    device.log.push_back({kind, page, addr, std::vector<uint8_t>(bytes, bytes + count)});
}

bool Valid(int32_t page, int32_t addr, int32_t count, const uint8_t* bytes) {
    return bytes != nullptr && page >= 0 && page <= 1 && addr >= 0 && count > 0 && addr + count <= 256;
}

extern "C" {
int32_t FakeFilterInit(int32_t) { return 1; }
int32_t FakeFilterRelease(int32_t) { return 1; }
int32_t FakeSetEventHandle(MVA_EventHandle*) { return 1; }
int32_t FakeReleaseEventHandle(MVA_EventHandle*) { return 1; }
int32_t FakeGetData(uint8_t*, int32_t, int32_t* count, int32_t*) {
    if (count != nullptr) *count = 0;
    return 1;
}
int32_t FakeGetTunerType(int32_t* type) {
    *type = device.tunerType;
    return 1;
}
int32_t FakeSetFrequency(int32_t frequency) {
    if (device.failSetFrequency) return 0;
    device.frequency = frequency;
    return 1;
}
int32_t FakeSetBandwidth(int32_t code) {
    device.bandwidth = code;
    return 1;
}
int32_t FakeDeviceUpdate() {
    ++device.updates;
    return device.failDeviceUpdate ? 0 : 1;
}
int32_t FakeDemodRead(int32_t page, int32_t addr, int32_t count, uint8_t* bytes) {
    if (!Valid(page, addr, count, bytes) || Touches(page, addr, count, device.failReadPage, device.failReadAddr)) return 0;
    std::memcpy(bytes, &device.demod[page][addr], size_t(count));
    Log('R', page, addr, bytes, count);
    return 1;
}
int32_t FakeDemodWrite(int32_t page, int32_t addr, int32_t count, uint8_t* bytes) {
    if (!Valid(page, addr, count, bytes)) return 0;
    Log('W', page, addr, bytes, count);
    if (device.failAllWrites || Touches(page, addr, count, device.failWritePage, device.failWriteAddr)) return 0;
    std::memcpy(&device.demod[page][addr], bytes, size_t(count));
    return 1;
}
int32_t FakeSysRead(int32_t addr, int32_t count, uint8_t* bytes) {
    if (!Valid(0, addr, count, bytes)) return 0;
    std::memcpy(bytes, &device.system[addr], size_t(count));
    Log('r', -1, addr, bytes, count);
    return 1;
}
int32_t FakeSysWrite(int32_t addr, int32_t count, uint8_t* bytes) {
    if (!Valid(0, addr, count, bytes)) return 0;
    Log('w', -1, addr, bytes, count);
    if (device.failAllWrites) return 0;
    std::memcpy(&device.system[addr], bytes, size_t(count));
    return 1;
}
}  // extern "C"

// Sink of PushBytes: one frame step per finished IqFrame.
int32_t* stepsRun = nullptr;
void StepSink(const uint8_t* frame) {
    std::memcpy(captureBuffers.handOverBuffer, frame, kIqFrameBytes);
    RunFrameStep();
    if (stepsRun != nullptr) ++*stepsRun;
}

}  // namespace

FakeDevice& Device() { return device; }

void ResetFakeDevice(int32_t tunerType) {
    device = FakeDevice{};
    device.tunerType = tunerType;
    device.failReadPage = device.failReadAddr = -1;
    device.failWritePage = device.failWriteAddr = -1;
}

void InstallFakeDevice() {
    AccessLibrary& a = accessLibrary;
    a = AccessLibrary{};
    a.filterInit = FakeFilterInit, a.filterRelease = FakeFilterRelease;
    a.setEventHandle = FakeSetEventHandle, a.releaseEventHandle = FakeReleaseEventHandle;
    a.getData = FakeGetData, a.getTunerType = FakeGetTunerType;
    a.setFrequency = FakeSetFrequency, a.setBandwidth = FakeSetBandwidth, a.deviceUpdate = FakeDeviceUpdate;
    a.demodRead = FakeDemodRead, a.demodWrite = FakeDemodWrite, a.sysRead = FakeSysRead, a.sysWrite = FakeSysWrite;
}

int32_t SampleRateRegister() {
    const int32_t code = (device.demod[1][0x3E] & 0x3F) * 256 + device.demod[1][0x3F];
    return code >= 0x2000 ? code - 0x4000 : code;
}

std::string FormatLog(const std::vector<RegisterAccess>& log) {
    std::string out;
    char text[16];
    for (const RegisterAccess& a : log) {
        if (a.page >= 0) {
            std::snprintf(text, sizeof text, "%c%d:%02X=", a.kind, a.page, a.addr);
        } else {
            std::snprintf(text, sizeof text, "%c:%02X=", a.kind, a.addr);
        }
        out += text;
        for (size_t i = 0; i < a.bytes.size(); ++i) {
            std::snprintf(text, sizeof text, i == 0 ? "%02X" : " %02X", a.bytes[i]);
            out += text;
        }
        out += '\n';
    }
    return out;
}

FrameHarness::FrameHarness(int32_t tunerType) {
    ResetFakeDevice(tunerType);
    InstallFakeDevice();
    // The steps of an open that matter without threads: the tuner type, the
    // tuning record, the status, the work blocks and the request lock.
    mvdab::tunerType = tunerType;
    tuningStorage.currentFrequency = 0;
    tuningStorage.tunedFrequency = 0;
    tuningStorage.bandwidthCode = 0;
    tuningRecord = &tuningStorage;
    FreeFrequencyCache();
    clockWritten = 0;
    deviceEventRegistered = 1;
    receiverRunning = 1;
    AllocCaptureBuffers();
    ResetReceiverStatus();
    ready_ = InitReceiverState() == 1 && captureBuffers.handOverBuffer != nullptr;
    platform::CreateEvent(&requestMailbox);
    platform::SetEvent(&requestMailbox);
    DeclareThreadlessReceiverOpen(true);
}

FrameHarness::~FrameHarness() {
    DeclareThreadlessReceiverOpen(false);
    FreeReceiverState();
    platform::CloseEvent(&requestMailbox);
    FreeCaptureBuffers();
    receiverRunning = 0;
    deviceEventRegistered = 0;
    tuningRecord = nullptr;
    mvdab::tunerType = 0;
    FreeFrequencyCache();
    UnbindAccessLibrary();
    receptionLine.ledMode = 0;
    receptionLine.goodReceptionCount = 0;
}

int32_t FrameHarness::Tune(int32_t frequencyKhz) { return SetFrequency(frequencyKhz); }

void FrameHarness::PostRetune() { mvdab::PostRetune(); }

int32_t FrameHarness::PushIqFrame(const uint8_t* frame) {
    std::memcpy(captureBuffers.handOverBuffer, frame, kIqFrameBytes);
    ++frames_;
    return RunFrameStep();
}

void FrameHarness::PushSilentFrames(int32_t count) {
    std::vector<uint8_t> frame(kIqFrameBytes);
    for (int32_t i = 0; i < kIqFrameBytes; ++i) frame[size_t(i)] = uint8_t(127 + (i & 1));
    for (int32_t i = 0; i < count; ++i) PushIqFrame(frame.data());
}

void FrameHarness::PushNoiseFrames(int32_t count, uint32_t seed, double rms) {
    std::mt19937 random(seed);
    std::normal_distribution<double> gauss(127.5, rms);
    std::vector<uint8_t> frame(kIqFrameBytes);
    for (int32_t f = 0; f < count; ++f) {
        for (uint8_t& b : frame) {
            const double v = gauss(random);
            b = uint8_t(v < 0.0 ? 0 : v > 255.0 ? 255 : int(v));
        }
        PushIqFrame(frame.data());
    }
}

int32_t FrameHarness::PushBytes(const uint8_t* bytes, int32_t count) {
    int32_t steps = 0;
    stepsRun = &steps;
    GatherIqBytes(&captureBuffers, bytes, count, StepSink);
    stepsRun = nullptr;
    frames_ += steps;
    return steps;
}

}  // namespace mvdab::test
