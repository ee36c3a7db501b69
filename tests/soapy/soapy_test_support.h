// What the SoapySDR tests share: the device library's entry points, the test
// module's state, and the environment both read.
#pragma once

#include <dlfcn.h>
#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "device/device_interface.h"
#include "emulator/sample_sources.h"

// The device library's 13 entries, looked up in the built library.
struct DeviceEntries {
    void* module = nullptr;
    std::string error;
    MVA_BDAFilterInit_t filterInit = nullptr;
    MVA_BDAFilterRelease_t filterRelease = nullptr;
    MVA_SetDABEventHandle_t setEventHandle = nullptr;
    MVA_ReleaseDABEventHandle_t releaseEventHandle = nullptr;
    MVA_GetData_t getData = nullptr;
    MVA_Get_TunerType_t getTunerType = nullptr;
    MVA_Set_Frequency_t setFrequency = nullptr;
    MVA_Set_Bandwidth_t setBandwidth = nullptr;
    MVA_DeviceUpdate_t deviceUpdate = nullptr;
    MVA_Demod_Byte_Read_t demodRead = nullptr;
    MVA_Demod_Byte_Write_t demodWrite = nullptr;
    MVA_SYS_Byte_Read_t sysRead = nullptr;
    MVA_SYS_Byte_Write_t sysWrite = nullptr;

    bool Load() {
        const char* dir = std::getenv("MVDAB_LIB_DIR");
        const std::string path = std::string(dir != nullptr ? dir : ".") + "/libMVC900ACCESS_soapy.so";
        module = dlopen(path.c_str(), RTLD_NOW);
        if (module == nullptr) {
            error = dlerror();
            return false;
        }
        bool ok = Find("MVA_BDAFilterInit", &filterInit);
        ok = Find("MVA_BDAFilterRelease", &filterRelease) && ok;
        ok = Find("MVA_SetDABEventHandle", &setEventHandle) && ok;
        ok = Find("MVA_ReleaseDABEventHandle", &releaseEventHandle) && ok;
        ok = Find("MVA_GetData", &getData) && ok;
        ok = Find("MVA_Get_TunerType", &getTunerType) && ok;
        ok = Find("MVA_Set_Frequency", &setFrequency) && ok;
        ok = Find("MVA_Set_Bandwidth", &setBandwidth) && ok;
        ok = Find("MVA_DeviceUpdate", &deviceUpdate) && ok;
        ok = Find("MVA_Demod_Byte_Read", &demodRead) && ok;
        ok = Find("MVA_Demod_Byte_Write", &demodWrite) && ok;
        ok = Find("MVA_SYS_Byte_Read", &sysRead) && ok;
        ok = Find("MVA_SYS_Byte_Write", &sysWrite) && ok;
        return ok;
    }

private:
    template <typename Entry>
    bool Find(const char* name, Entry* entry) {
        *entry = reinterpret_cast<Entry>(dlsym(module, name));
        if (*entry == nullptr) error += std::string(name) + " missing; ";
        return *entry != nullptr;
    }
};

// As the receiver's capture thread does: waits up to `timeoutMs` for the
// event, then makes one MVA_GetData call into `buffer` (MVA_READ_CAPACITY
// bytes) and stores the count in *got. The call's result, or -1 when the
// event didn't come.
inline int32_t WaitAndFetch(const DeviceEntries& entries, int eventFd, int timeoutMs, uint8_t* buffer, int32_t* got) {
    *got = 0;
    pollfd p{eventFd, POLLIN, 0};
    uint64_t count = 0;
    if (poll(&p, 1, timeoutMs) <= 0 || read(eventFd, &count, sizeof count) < 0) return -1;
    int32_t reserved = 0;
    return entries.getData(buffer, MVA_READ_CAPACITY, got, &reserved);
}

// The test module's state (see test_module.cpp); zeros when it isn't loaded.
struct ModuleState {
    double correctionPpm = 0.0;  // last frequency correction the device was given
    int64_t samples = 0;         // samples delivered by the newest device
    int32_t automaticGain = 0;   // automatic gain switched on
    double frequencyHz = 0.0;    // last tuning
    int32_t devicesMade = 0;     // devices made in this process
};

inline ModuleState ReadModuleState() {
    ModuleState s;
    const char* dir = std::getenv("SOAPY_SDR_PLUGIN_PATH");
    const std::string path = std::string(dir != nullptr ? dir : ".") + "/libmvxtest_soapy_module.so";
    void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (module == nullptr) return s;
    using StateEntry = int32_t (*)(double*, int64_t*, int32_t*, double*, int32_t*);
    if (auto entry = reinterpret_cast<StateEntry>(dlsym(module, "MvxTestModuleState")))
        entry(&s.correctionPpm, &s.samples, &s.automaticGain, &s.frequencyHz, &s.devicesMade);
    dlclose(module);
    return s;
}

// Clears the variables of the device library and of the test module.
inline void ClearTestEnvironment() {
    for (const char* name : {"MVSOAPY_DEVICE", "MVSOAPY_TUNER_TYPE", "MVSOAPY_STALL_MS", "MVSOAPY_CLOCK",
                             "MVSOAPY_GAIN", "MVXTEST_SOURCE", "MVXTEST_CLOCK_PPM", "MVXTEST_FORMAT",
                             "MVXTEST_CORRECTION", "MVXTEST_SPEED", "MVXTEST_UNPLUG_MS", "MVXTEST_STALL_MS"})
        unsetenv(name);
}

// Bytes from memory, looped, for the shared resampler.
class MemorySource : public emu::SampleSource {
public:
    explicit MemorySource(const std::vector<uint8_t>& bytes) : bytes_(bytes) {}
    size_t Read(uint8_t* out, size_t count) override {
        for (size_t i = 0; i < count; ++i) {
            out[i] = bytes_[position_];
            position_ = (position_ + 1) % bytes_.size();
        }
        return count;
    }

private:
    const std::vector<uint8_t>& bytes_;
    size_t position_ = 0;
};
