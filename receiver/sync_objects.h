// The receiver's threads, events, locks and lifecycle flags.
//
//   deviceEvent     signalled by the device library when data can be read
//   frameEvent      the capture thread finished an IqFrame
//   workerEvent     wakes the worker thread
//   requestMailbox  an auto-reset event used as a lock over the request words
//                   and service lists of ReceiverStatus: whoever gets it holds
//                   it and gives it back with a set
//   workerLock      guards the worker's ring indices and the copy into a slot
//   frameStepLock   held by the demodulation thread for one frame step, and
//                   by MVDAB_Stop while it frees what a frame step uses
//   handOverLock    held for the exchange of the gathering and hand-over
//                   buffers and the copy out of the hand-over buffer, so that
//                   a late demodulation thread never reads an IqFrame half
//                   overwritten by the next one
//   captureHoldEvent  set only by a close: ends the capture thread's hold
//                   between two reads (NextCaptureHold) at once
//
// Lock order: frameStepLock before requestMailbox; no other lock is taken
// while requestMailbox is held, and none is held across a callback except
// frameStepLock (which only MVDAB_Stop and MVDAB_CloseDevice wait for, and
// neither may be called from a callback).
#pragma once

#include <atomic>
#include <cstdint>

#include "device/device_interface.h"
#include "platform/platform.h"

namespace mvdab {

extern platform::Event deviceEvent;
extern platform::Event frameEvent;
extern platform::Event workerEvent;
extern platform::Event requestMailbox;
extern platform::Event captureHoldEvent;
extern platform::CriticalSection workerLock;
extern platform::CriticalSection frameStepLock;
extern platform::CriticalSection handOverLock;

// The handle value registered with the device library; its address is what
// MVA_SetDABEventHandle and MVA_ReleaseDABEventHandle receive.
extern MVA_EventHandle deviceEventHandle;

// Lifecycle flags, 0 at load. receiverRunning is tested by every thread at
// each wake-up.
extern std::atomic<int32_t> accessLibraryLoaded;
extern std::atomic<int32_t> deviceEventRegistered;
extern std::atomic<int32_t> receiverRunning;

struct ReceiverThreads {
    platform::Thread demodulation;  // handle 0: not running
    platform::Thread capture;
    platform::Thread worker;
};
extern ReceiverThreads receiverThreads;

// True on the receiver's own threads (where callbacks run).
bool OnReceiverThread();
void MarkReceiverThread();

// Critical sections that tolerate not having been initialised, as in the
// thread-less test harness: then they do nothing.
void EnterIfInitialised(platform::CriticalSection* section);
void LeaveIfInitialised(platform::CriticalSection* section);

}  // namespace mvdab
