#include "device/access_library.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

namespace mvdab {

AccessLibrary accessLibrary;

namespace {

// Loads the device library: the one named by MVDAB_DEVICE_LIBRARY when that
// is set (a path, or a file name looked for like the default), else the
// default name. A file name is looked for first in the directory of our own
// library file, where an installation puts its device libraries beside the
// receiver, then in the system's library directory where there is one
// (Windows), then by the loader's ordinary search.
void* LoadFrom(const char* directory, const char* name) {
    char path[4096 + 256];
    std::snprintf(path, sizeof path, "%s/%s", directory, name);
    return platform::LoadLibrary(path);
}

void* LoadAccessModule() {
    const char* chosen = std::getenv(kDeviceLibraryVariable);
    const char* name = chosen != nullptr && chosen[0] != '\0' ? chosen : kAccessLibraryName;
    if (std::strpbrk(name, "/\\") != nullptr) return platform::LoadLibrary(name);
    char directory[4096];
    if (platform::ModuleDirectory(reinterpret_cast<const void*>(&BindAccessLibrary), directory,
                                  sizeof directory) == 1) {
        if (void* module = LoadFrom(directory, name)) return module;
    }
    if (platform::SystemDirectory(directory, sizeof directory) == 1) {
        if (void* module = LoadFrom(directory, name)) return module;
    }
    return platform::LoadLibrary(name);
}

template <typename Entry>
bool Find(void* module, const char* name, Entry* entry) {
    *entry = reinterpret_cast<Entry>(platform::FindSymbol(module, name));
    return *entry != nullptr;
}

}  // namespace

int32_t BindAccessLibrary() {
    accessLibrary = AccessLibrary{};
    void* module = LoadAccessModule();
    if (module == nullptr) return 0;
    AccessLibrary t{};
    t.module = module;
    // Every lookup is tried, so that the result does not depend on which
    // names are missing.
    bool ok = Find(module, "MVA_BDAFilterInit", &t.filterInit);
    ok = Find(module, "MVA_BDAFilterRelease", &t.filterRelease) && ok;
    ok = Find(module, "MVA_SetDABEventHandle", &t.setEventHandle) && ok;
    ok = Find(module, "MVA_ReleaseDABEventHandle", &t.releaseEventHandle) && ok;
    ok = Find(module, "MVA_GetData", &t.getData) && ok;
    ok = Find(module, "MVA_Get_TunerType", &t.getTunerType) && ok;
    ok = Find(module, "MVA_Set_Frequency", &t.setFrequency) && ok;
    ok = Find(module, "MVA_Set_Bandwidth", &t.setBandwidth) && ok;
    ok = Find(module, "MVA_DeviceUpdate", &t.deviceUpdate) && ok;
    ok = Find(module, "MVA_Demod_Byte_Read", &t.demodRead) && ok;
    ok = Find(module, "MVA_Demod_Byte_Write", &t.demodWrite) && ok;
    ok = Find(module, "MVA_SYS_Byte_Read", &t.sysRead) && ok;
    ok = Find(module, "MVA_SYS_Byte_Write", &t.sysWrite) && ok;
    if (!ok) {
        platform::FreeLibrary(module);
        return 0;
    }
    accessLibrary = t;
    return 1;
}

void UnbindAccessLibrary() {
    if (accessLibrary.module != nullptr) platform::FreeLibrary(accessLibrary.module);
    accessLibrary = AccessLibrary{};
}

namespace {
constexpr int32_t kMaxRegisterCount = 256;
bool RegisterArgumentsValid(int32_t addr, int32_t count, const void* bytes) {
    return bytes != nullptr && addr >= 0 && addr <= 0xFF && count > 0 && count <= kMaxRegisterCount;
}
}  // namespace

int32_t ReadDemodRegisters(int32_t page, int32_t addr, int32_t count, uint8_t* bytes) {
    if (accessLibrary.demodRead == nullptr || !RegisterArgumentsValid(addr, count, bytes)) return 0;
    return accessLibrary.demodRead(page, addr, count, bytes) != 0 ? 1 : 0;
}

int32_t WriteDemodRegisters(int32_t page, int32_t addr, int32_t count, const uint8_t* bytes) {
    if (accessLibrary.demodWrite == nullptr || !RegisterArgumentsValid(addr, count, bytes)) return 0;
    // The entry takes a non-const buffer; it only reads it. A copy keeps
    // the caller's constant tables out of the device library's reach.
    uint8_t copy[kMaxRegisterCount];
    for (int32_t i = 0; i < count; ++i) copy[i] = bytes[i];
    return accessLibrary.demodWrite(page, addr, count, copy) != 0 ? 1 : 0;
}

int32_t WriteDemodRegister(int32_t page, int32_t addr, uint8_t value) {
    return WriteDemodRegisters(page, addr, 1, &value);
}

int32_t ReadSystemRegister(int32_t addr, uint8_t* value) {
    if (accessLibrary.sysRead == nullptr || !RegisterArgumentsValid(addr, 1, value)) return 0;
    return accessLibrary.sysRead(addr, 1, value) != 0 ? 1 : 0;
}

int32_t WriteSystemRegister(int32_t addr, uint8_t value) {
    if (accessLibrary.sysWrite == nullptr || !RegisterArgumentsValid(addr, 1, &value)) return 0;
    return accessLibrary.sysWrite(addr, 1, &value) != 0 ? 1 : 0;
}

}  // namespace mvdab
