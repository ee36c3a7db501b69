// Fault injection: makes chosen entries of the emulated device fail, so that
// tests can walk every failure path of a host. Parsed from MVC900_FAULT, a
// comma-separated list:
//
//   no-device            MVA_BDAFilterInit returns 0 (no device)
//   tuner-type           MVA_Get_TunerType returns 0
//   event                MVA_SetDABEventHandle returns 0
//   event-after=N        ... the first N calls succeed, later ones fail
//   release-event        MVA_ReleaseDABEventHandle returns 0, streaming goes on
//   release              MVA_BDAFilterRelease returns 0 (it still closes everything)
//   set-frequency        MVA_Set_Frequency returns 0 and records nothing
//   set-bandwidth        MVA_Set_Bandwidth returns 0 and records nothing
//   update               MVA_DeviceUpdate returns 0 and the tuner stays as it was
//   update-after=N       ... the first N calls succeed, later ones fail
//   demod-read=P:AA      a demodulator read touching page P, address AA (hex) fails
//   demod-write=P:AA     the same for writes (the registers keep their value)
//   sys-read=AA          a system register read touching AA (hex) fails
//   sys-write=AA         the same for writes
//   demod-read-after=N   the first N demodulator reads succeed, later ones fail
//   demod-write-after=N, sys-read-after=N, sys-write-after=N: likewise
//   stream-stop=N        the stream ends for good after N bytes
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace emu {

enum class RegisterAccessKind : int32_t { DemodRead = 0, DemodWrite = 1, SysRead = 2, SysWrite = 3 };

struct AddressFault {
    RegisterAccessKind kind;  // which access fails
    int32_t page;             // demodulator page; -1 for system registers
    int32_t addr;             // register address
};

// A limit on calls: the first `allowed` succeed; -1 means no limit.
struct CallLimit {
    int64_t allowed = -1;
    std::atomic<int64_t> calls{0};  // calls so far
    // Counts this call; true when it must fail.
    bool Fails() {
        const int64_t n = calls.fetch_add(1) + 1;
        return allowed >= 0 && n > allowed;
    }
};

struct FaultPlan {
    bool noDevice = false;
    bool tunerType = false;
    bool releaseEvent = false;
    bool release = false;
    bool setFrequency = false;
    bool setBandwidth = false;
    CallLimit eventRegistration;   // MVA_SetDABEventHandle
    CallLimit deviceUpdate;        // MVA_DeviceUpdate
    CallLimit registerAccess[4];   // by RegisterAccessKind
    std::vector<AddressFault> addresses;
    int64_t streamStopBytes = -1;  // bytes before the stream ends; -1 never
};

// Fills `plan` from the list; 0 with `error` naming each unknown or
// malformed item, which is skipped (the others still count).
int32_t ParseFaultPlan(const std::string& text, FaultPlan* plan, std::string* error);

// True when an access of `count` registers from `addr` must fail; counts the
// call towards the "-after" limit of its kind.
bool RegisterAccessFails(FaultPlan* plan, RegisterAccessKind kind, int32_t page, int32_t addr, int32_t count);

}  // namespace emu
