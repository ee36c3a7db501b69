// Run-time binding of the device library and thin, checked calls into it.
//
// The table holds the 13 entry points of the device library (the contract is
// device/device_interface.h). It is filled by BindAccessLibrary at open and
// cleared by UnbindAccessLibrary at close. Tests may fill it with in-process
// fakes instead; `module` then stays null and unbinding only clears the table.
#pragma once

#include <cstdint>

#include "device/device_interface.h"

namespace mvdab {

// File name of the device library on this system.
#if defined(_WIN32)
constexpr const char* kAccessLibraryName = "MVC900ACCESS.dll";
#else
constexpr const char* kAccessLibraryName = "libMVC900ACCESS.so";
#endif
// Environment variable that chooses another device library: a path, or a file
// name looked for like the default one (e.g. "libMVC900ACCESS_soapy.so").
constexpr const char* kDeviceLibraryVariable = "MVDAB_DEVICE_LIBRARY";

struct AccessLibrary {
    void* module;  // loader handle; null while nothing is loaded
    MVA_BDAFilterInit_t filterInit;
    MVA_BDAFilterRelease_t filterRelease;
    MVA_SetDABEventHandle_t setEventHandle;
    MVA_ReleaseDABEventHandle_t releaseEventHandle;
    MVA_GetData_t getData;
    MVA_Get_TunerType_t getTunerType;
    MVA_Set_Frequency_t setFrequency;
    MVA_Set_Bandwidth_t setBandwidth;
    MVA_DeviceUpdate_t deviceUpdate;
    MVA_Demod_Byte_Read_t demodRead;
    MVA_Demod_Byte_Write_t demodWrite;
    MVA_SYS_Byte_Read_t sysRead;
    MVA_SYS_Byte_Write_t sysWrite;
};
extern AccessLibrary accessLibrary;

// Clears the table, loads the library (the chosen one or the default; a file
// name first beside our own library file, then by the loader's ordinary
// search) and looks up all 13 names. 1, or 0 when the library can't be loaded
// or a name is missing (nothing stays loaded).
int32_t BindAccessLibrary();
// Frees the library and clears the table. Harmless when nothing is bound.
void UnbindAccessLibrary();

// Register access. Each returns 1 on success and 0 on failure, also when the
// entry is missing from the table or an argument is out of range, so that no
// caller ever jumps through a null pointer.
int32_t ReadDemodRegisters(int32_t page, int32_t addr, int32_t count, uint8_t* bytes);
int32_t WriteDemodRegisters(int32_t page, int32_t addr, int32_t count, const uint8_t* bytes);
int32_t WriteDemodRegister(int32_t page, int32_t addr, uint8_t value);
int32_t ReadSystemRegister(int32_t addr, uint8_t* value);
int32_t WriteSystemRegister(int32_t addr, uint8_t value);

}  // namespace mvdab
