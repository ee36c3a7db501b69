// The 13 entry points of the device library, on the emulated device. These
// are the library's only exported symbols; all else stays hidden.
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "device/device_interface.h"
#include "emulator/emulator_settings.h"
#include "emulator/fault_plan.h"
#include "emulator/register_file.h"
#include "emulator/sample_sources.h"
#include "emulator/sample_stream.h"

#if defined(_WIN32)
#define MVA_EXPORT extern "C" __declspec(dllexport)
#else
#define MVA_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace emu {
namespace {

// Everything of one open device. Created by MVA_BDAFilterInit, destroyed by
// MVA_BDAFilterRelease.
struct EmulatedDevice {
    EmulatorSettings settings;
    SourcePlan plan;
    FaultPlan faults;
    RegisterFile registers;
    std::unique_ptr<SampleStream> stream;
    TunedSource shared;              // the one source of a file, stdin or generated plan
    std::atomic<int32_t> frequency{0};       // recorded by MVA_Set_Frequency, kHz; 0 none
    std::atomic<int32_t> bandwidth{0};       // recorded by MVA_Set_Bandwidth
    std::atomic<int32_t> tunedFrequency{0};  // applied by MVA_DeviceUpdate, kHz
    std::atomic<int32_t> tunedBandwidth{0};
};

// Serialises opening, closing, streaming and tuning; register accesses and
// reads of data don't take it.
std::mutex lifecycleLock;
// The open device; null while closed. Read by the register entries without
// the lock: it is only replaced while nobody may call them (the contract
// allows no call before Init returns or after Release).
std::atomic<EmulatedDevice*> device{nullptr};
std::atomic<bool> lineVerbose{false};

void ReportLine(int32_t level) {
    if (lineVerbose) std::fprintf(stderr, "emulator: good-reception line %s\n", level ? "high" : "low");
}

void CloseDevice() {
    EmulatedDevice* d = device.exchange(nullptr);
    if (d == nullptr) return;
    if (d->stream) d->stream->Stop();
    if (d->settings.verbose && d->stream && d->stream->droppedBytes() > 0)
        std::fprintf(stderr, "emulator: %lld bytes dropped in all\n", (long long)d->stream->droppedBytes());
    delete d;
}

}  // namespace
}  // namespace emu

using emu::device;
using emu::lifecycleLock;

MVA_EXPORT int32_t MVA_BDAFilterInit(int32_t /*reserved*/) {
    std::lock_guard<std::mutex> hold(lifecycleLock);
    emu::CloseDevice();
    std::unique_ptr<emu::EmulatedDevice> d(new emu::EmulatedDevice());
    d->settings = emu::ReadSettings();
    std::string error;
    if (emu::ParseFaultPlan(d->settings.fault, &d->faults, &error) == 0)
        std::fprintf(stderr, "emulator: MVC900_FAULT: %s\n", error.c_str());
    if (d->faults.noDevice) return 0;
    if (emu::ParseSourcePlan(d->settings.source, d->settings.generated, &d->plan, &error) == 0) {
        std::fprintf(stderr, "emulator: MVC900_SOURCE: %s; no device\n", error.c_str());
        return 0;
    }
    emu::StreamSettings s;
    s.speed = d->settings.speed;
    s.bufferBytes = d->settings.fifoBytes;
    s.settleSamples = int64_t(d->settings.settleMs * 1.0e-3 * emu::kSampleRate);
    s.stopAfterBytes = d->faults.streamStopBytes;
    s.noiseRms = d->settings.noiseRms;
    s.seed = d->settings.seed;
    s.verbose = d->settings.verbose;
    d->stream = std::make_unique<emu::SampleStream>(s, &d->registers);
    if (emu::MakeSharedSource(d->plan, d->settings, d->stream->stopFlag(), &d->shared, &error) == 0) {
        std::fprintf(stderr, "emulator: MVC900_SOURCE: %s; no device\n", error.c_str());
        return 0;
    }
    // Untuned, the device hears the shared source or noise.
    d->stream->Tune(emu::SelectSource(d->plan, d->settings, 0, d->shared), false);
    emu::lineVerbose = d->settings.verbose;
    d->registers.SetLineObserver(emu::ReportLine);
    if (d->settings.verbose)
        std::fprintf(stderr, "emulator: device open, source %s, tuner type %d, speed %g\n",
                     d->settings.source.c_str(), d->settings.tunerType, d->settings.speed);
    device = d.release();
    return 1;
}

MVA_EXPORT int32_t MVA_BDAFilterRelease(int32_t /*reserved*/) {
    std::lock_guard<std::mutex> hold(lifecycleLock);
    emu::EmulatedDevice* d = device.load();
    const bool fail = d != nullptr && d->faults.release;
    emu::CloseDevice();
    return fail ? 0 : 1;
}

MVA_EXPORT int32_t MVA_SetDABEventHandle(MVA_EventHandle* event) {
    std::lock_guard<std::mutex> hold(lifecycleLock);
    emu::EmulatedDevice* d = device.load();
    if (d == nullptr || event == nullptr || *event < 0) return 0;
    if (d->faults.eventRegistration.Fails()) return 0;
    return d->stream->Start(*event);
}

MVA_EXPORT int32_t MVA_ReleaseDABEventHandle(MVA_EventHandle* event) {
    std::lock_guard<std::mutex> hold(lifecycleLock);
    emu::EmulatedDevice* d = device.load();
    if (d == nullptr || event == nullptr) return 0;
    if (d->faults.releaseEvent) return 0;
    d->stream->Stop();
    return 1;
}

MVA_EXPORT int32_t MVA_GetData(uint8_t* buffer, int32_t capacity, int32_t* byteCount, int32_t* /*reserved*/) {
    if (byteCount == nullptr) return 0;
    *byteCount = 0;
    emu::EmulatedDevice* d = device.load();
    if (d == nullptr || buffer == nullptr) return 0;
    *byteCount = d->stream->Read(buffer, capacity);
    return 1;
}

MVA_EXPORT int32_t MVA_Get_TunerType(int32_t* tunerType) {
    emu::EmulatedDevice* d = device.load();
    if (d == nullptr || tunerType == nullptr || d->faults.tunerType) return 0;
    *tunerType = d->settings.tunerType;
    return 1;
}

MVA_EXPORT int32_t MVA_Set_Frequency(int32_t frequencyKhz) {
    emu::EmulatedDevice* d = device.load();
    if (d == nullptr || d->faults.setFrequency || frequencyKhz <= 0) return 0;
    d->frequency = frequencyKhz;
    return 1;
}

MVA_EXPORT int32_t MVA_Set_Bandwidth(int32_t bandwidthCode) {
    emu::EmulatedDevice* d = device.load();
    if (d == nullptr || d->faults.setBandwidth || bandwidthCode < 1 || bandwidthCode > 8) return 0;
    d->bandwidth = bandwidthCode;
    return 1;
}

MVA_EXPORT int32_t MVA_DeviceUpdate(void) {
    std::lock_guard<std::mutex> hold(lifecycleLock);
    emu::EmulatedDevice* d = device.load();
    if (d == nullptr || d->frequency == 0) return 0;
    if (d->faults.deviceUpdate.Fails()) return 0;
    d->tunedFrequency = d->frequency.load();
    d->tunedBandwidth = d->bandwidth.load();
    emu::TunedSource source = emu::SelectSource(d->plan, d->settings, d->tunedFrequency, d->shared);
    if (d->settings.verbose)
        std::fprintf(stderr, "emulator: tuned %d kHz (bandwidth code %d): %s\n", d->tunedFrequency.load(),
                     d->tunedBandwidth.load(), source.name.c_str());
    d->stream->Tune(std::move(source));
    return 1;
}

MVA_EXPORT int32_t MVA_Demod_Byte_Read(int32_t page, int32_t addr, int32_t count, uint8_t* buffer) {
    emu::EmulatedDevice* d = device.load();
    if (d == nullptr) return 0;
    if (emu::RegisterAccessFails(&d->faults, emu::RegisterAccessKind::DemodRead, page, addr, count)) return 0;
    return d->registers.ReadDemod(page, addr, count, buffer);
}

MVA_EXPORT int32_t MVA_Demod_Byte_Write(int32_t page, int32_t addr, int32_t count, uint8_t* buffer) {
    emu::EmulatedDevice* d = device.load();
    if (d == nullptr) return 0;
    if (emu::RegisterAccessFails(&d->faults, emu::RegisterAccessKind::DemodWrite, page, addr, count)) return 0;
    return d->registers.WriteDemod(page, addr, count, buffer);
}

MVA_EXPORT int32_t MVA_SYS_Byte_Read(int32_t addr, int32_t count, uint8_t* buffer) {
    emu::EmulatedDevice* d = device.load();
    if (d == nullptr) return 0;
    if (emu::RegisterAccessFails(&d->faults, emu::RegisterAccessKind::SysRead, -1, addr, count)) return 0;
    return d->registers.ReadSystem(addr, count, buffer);
}

MVA_EXPORT int32_t MVA_SYS_Byte_Write(int32_t addr, int32_t count, uint8_t* buffer) {
    emu::EmulatedDevice* d = device.load();
    if (d == nullptr) return 0;
    if (emu::RegisterAccessFails(&d->faults, emu::RegisterAccessKind::SysWrite, -1, addr, count)) return 0;
    return d->registers.WriteSystem(addr, count, buffer);
}
