// The 13 entry points of the device library on a SoapySDR device. These are
// the library's only exported symbols; all else stays hidden.
#include <memory>
#include <mutex>

#include "device/device_interface.h"
#include "soapydevice/soapy_device.h"

#define MVA_EXPORT extern "C" __attribute__((visibility("default")))

namespace soapydev {
namespace {

// Serialises opening, closing, streaming and tuning; register accesses and
// reads of data don't take it.
std::mutex lifecycleLock;
// The open device; null while closed. Read by the other entries without the
// lock: it is only replaced while nobody may call them (the contract allows
// no call before Init returns or after Release).
std::atomic<SoapyDevice*> openDevice{nullptr};

void CloseOpenDevice() {
    SoapyDevice* d = openDevice.exchange(nullptr);
    if (d == nullptr) return;
    CloseSoapyDevice(d);
    delete d;
}

// The open device while it works; null when closed or lost.
SoapyDevice* WorkingDevice() {
    SoapyDevice* d = openDevice.load();
    return d != nullptr && !d->lost ? d : nullptr;
}

}  // namespace
}  // namespace soapydev

using soapydev::lifecycleLock;
using soapydev::openDevice;
using soapydev::SoapyDevice;
using soapydev::WorkingDevice;

MVA_EXPORT int32_t MVA_BDAFilterInit(int32_t /*reserved*/) {
    std::lock_guard<std::mutex> hold(lifecycleLock);
    soapydev::CloseOpenDevice();
    std::unique_ptr<SoapyDevice> d(new SoapyDevice());
    d->settings = soapydev::ReadSoapySettings();
    if (soapydev::OpenSoapyDevice(d.get()) == 0) return 0;
    openDevice = d.release();
    return 1;
}

MVA_EXPORT int32_t MVA_BDAFilterRelease(int32_t /*reserved*/) {
    std::lock_guard<std::mutex> hold(lifecycleLock);
    soapydev::CloseOpenDevice();
    return 1;
}

MVA_EXPORT int32_t MVA_SetDABEventHandle(MVA_EventHandle* event) {
    std::lock_guard<std::mutex> hold(lifecycleLock);
    SoapyDevice* d = WorkingDevice();
    if (d == nullptr || event == nullptr || *event < 0) return 0;
    return soapydev::StartStreaming(d, int(*event));
}

MVA_EXPORT int32_t MVA_ReleaseDABEventHandle(MVA_EventHandle* event) {
    std::lock_guard<std::mutex> hold(lifecycleLock);
    SoapyDevice* d = openDevice.load();
    if (d == nullptr || event == nullptr) return 0;
    // Also on a lost device: afterwards the event is not signalled, as promised.
    soapydev::StopStreaming(d);
    return 1;
}

MVA_EXPORT int32_t MVA_GetData(uint8_t* buffer, int32_t capacity, int32_t* byteCount, int32_t* /*reserved*/) {
    if (byteCount == nullptr) return 0;
    *byteCount = 0;
    SoapyDevice* d = openDevice.load();
    if (d == nullptr || buffer == nullptr) return 0;
    // What was read before a loss is still delivered; after it, failure.
    *byteCount = soapydev::TakeBytes(d, buffer, capacity);
    return *byteCount > 0 || !d->lost ? 1 : 0;
}

MVA_EXPORT int32_t MVA_Get_TunerType(int32_t* tunerType) {
    SoapyDevice* d = WorkingDevice();
    if (d == nullptr || tunerType == nullptr) return 0;
    *tunerType = d->settings.tunerType;
    return 1;
}

MVA_EXPORT int32_t MVA_Set_Frequency(int32_t frequencyKhz) {
    SoapyDevice* d = WorkingDevice();
    if (d == nullptr || frequencyKhz <= 0) return 0;
    d->frequencyKhz = frequencyKhz;
    return 1;
}

MVA_EXPORT int32_t MVA_Set_Bandwidth(int32_t bandwidthCode) {
    SoapyDevice* d = WorkingDevice();
    if (d == nullptr || bandwidthCode < 1 || bandwidthCode > 8) return 0;
    d->bandwidthCode = bandwidthCode;
    return 1;
}

MVA_EXPORT int32_t MVA_DeviceUpdate(void) {
    std::lock_guard<std::mutex> hold(lifecycleLock);
    SoapyDevice* d = WorkingDevice();
    return d != nullptr ? soapydev::TuneSoapyDevice(d) : 0;
}

MVA_EXPORT int32_t MVA_Demod_Byte_Read(int32_t page, int32_t addr, int32_t count, uint8_t* buffer) {
    SoapyDevice* d = WorkingDevice();
    return d != nullptr ? d->registers.ReadDemod(page, addr, count, buffer) : 0;
}

MVA_EXPORT int32_t MVA_Demod_Byte_Write(int32_t page, int32_t addr, int32_t count, uint8_t* buffer) {
    SoapyDevice* d = WorkingDevice();
    return d != nullptr ? d->registers.WriteDemod(page, addr, count, buffer) : 0;
}

MVA_EXPORT int32_t MVA_SYS_Byte_Read(int32_t addr, int32_t count, uint8_t* buffer) {
    SoapyDevice* d = WorkingDevice();
    return d != nullptr ? d->registers.ReadSystem(addr, count, buffer) : 0;
}

MVA_EXPORT int32_t MVA_SYS_Byte_Write(int32_t addr, int32_t count, uint8_t* buffer) {
    SoapyDevice* d = WorkingDevice();
    return d != nullptr ? d->registers.WriteSystem(addr, count, buffer) : 0;
}
