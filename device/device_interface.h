// The contract between the receiver and a device library.
//
// The receiver reaches the tuner stick only through a separate shared library,
// loaded at run time by file name: "libMVC900ACCESS.so", or the path or file
// name in the environment variable MVDAB_DEVICE_LIBRARY. A file name is looked
// for first in the directory of the receiver's own library file, then by the
// ordinary search path of the dynamic loader. Any library that exports these
// 13 C functions with these signatures can stand in: the project's own are
// the emulated device in emulator/ and the SoapySDR one in soapydevice/.
//
// Results: 0 means failure, anything else success, unless noted.
//
// Event handle. The receiver owns an auto-reset event and passes the address
// of its handle, an `MVA_EventHandle`, to MVA_SetDABEventHandle. On POSIX
// systems the handle is the descriptor of a Linux eventfd. The device library
// signals "data can be read" by writing the 8-byte unsigned integer 1 to that
// descriptor, from any thread of its own:
//
//     uint64_t one = 1;  write((int)*handle, &one, sizeof one);
//
// It needs nothing else of the receiver and must not close the descriptor.
// Several signals before the receiver wakes count as one; the receiver then
// calls MVA_GetData once per wake-up, so a library should deliver everything
// it holds (up to the capacity) per call.
//
// Threads. Register calls come from the host's thread and from the receiver's
// demodulation thread with no lock around them: every entry must be safe to
// call from several threads at once. MVA_GetData is called from one thread.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef intptr_t MVA_EventHandle;

// Bytes the receiver offers to each MVA_GetData call.
#define MVA_READ_CAPACITY 240648

// Opens the device; 0 means there is no device. The argument is always 0.
typedef int32_t (*MVA_BDAFilterInit_t)(int32_t reserved);
// Closes what Init opened; the receiver ignores the result.
typedef int32_t (*MVA_BDAFilterRelease_t)(int32_t reserved);
// Starts streaming; from now on the event is signalled when data can be read.
typedef int32_t (*MVA_SetDABEventHandle_t)(MVA_EventHandle* event);
// Stops streaming (same address as registered); the event is not signalled any more.
typedef int32_t (*MVA_ReleaseDABEventHandle_t)(MVA_EventHandle* event);
// Copies up to `capacity` bytes of interleaved unsigned 8-bit I/Q (I first,
// value b - 127.5) at 2.048 MS/s into `buffer` and stores the count in
// *byteCount (an even number, possibly 0). *reserved is set to 0 by the
// caller and not read afterwards. The receiver ignores the result.
typedef int32_t (*MVA_GetData_t)(uint8_t* buffer, int32_t capacity, int32_t* byteCount, int32_t* reserved);
// Stores the tuner type (1..6, 13, 14 are known types).
typedef int32_t (*MVA_Get_TunerType_t)(int32_t* tunerType);
// Records the frequency to tune, in kHz. Applied by MVA_DeviceUpdate.
typedef int32_t (*MVA_Set_Frequency_t)(int32_t frequencyKhz);
// Records the bandwidth code, 6 or 1. Applied by MVA_DeviceUpdate.
typedef int32_t (*MVA_Set_Bandwidth_t)(int32_t bandwidthCode);
// Applies frequency and bandwidth to the tuner.
typedef int32_t (*MVA_DeviceUpdate_t)(void);
// Reads / writes `count` consecutive demodulator registers from `addr` of page 0 or 1.
typedef int32_t (*MVA_Demod_Byte_Read_t)(int32_t page, int32_t addr, int32_t count, uint8_t* buffer);
typedef int32_t (*MVA_Demod_Byte_Write_t)(int32_t page, int32_t addr, int32_t count, uint8_t* buffer);
// Reads / writes `count` system registers from `addr`.
typedef int32_t (*MVA_SYS_Byte_Read_t)(int32_t addr, int32_t count, uint8_t* buffer);
typedef int32_t (*MVA_SYS_Byte_Write_t)(int32_t addr, int32_t count, uint8_t* buffer);

#ifdef __cplusplus
}
#endif
