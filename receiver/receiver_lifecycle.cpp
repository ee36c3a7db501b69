#include "receiver/receiver_lifecycle.h"

#include "delivery/worker.h"
#include "device/access_library.h"
#include "device/demodulator_init.h"
#include "device/tuning.h"
#include "receiver/capture.h"
#include "receiver/frame_step.h"
#include "receiver/receiver_memory.h"
#include "receiver/receiver_state.h"
#include "receiver/request_mailbox.h"
#include "receiver/sync_objects.h"
#include "services/service_component.h"
#include "services/service_requests.h"

namespace mvdab {

platform::Event deviceEvent;
platform::Event frameEvent;
platform::Event workerEvent;
platform::Event requestMailbox;
platform::Event captureHoldEvent;
platform::CriticalSection workerLock;
platform::CriticalSection frameStepLock;
platform::CriticalSection handOverLock;
MVA_EventHandle deviceEventHandle = -1;
std::atomic<int32_t> accessLibraryLoaded;
std::atomic<int32_t> deviceEventRegistered;
std::atomic<int32_t> receiverRunning;
ReceiverThreads receiverThreads;

namespace {
thread_local bool onReceiverThread = false;

// The lifecycle: closed -> opening -> open or closed; open -> closing ->
// closed. Every change is published with notify_all, for opens and closes
// that wait for one another.
enum : int32_t { kClosed, kOpening, kOpen, kClosing };
std::atomic<int32_t> lifecycleState{kClosed};
// Exported calls between EnterReceiverCall and LeaveReceiverCall, counted
// also for the moment in which a refused call looks at the state.
std::atomic<int32_t> callsInFlight{0};

void PublishState(int32_t state) {
    lifecycleState.store(state);
    lifecycleState.notify_all();
}

// Moves the state from `from` to `to`, waiting while it holds one of the
// passing states. False when it holds any other state: nothing moved.
bool MoveState(int32_t from, int32_t to, int32_t passing1, int32_t passing2) {
    for (;;) {
        int32_t found = lifecycleState.load();
        if (found == passing1 || found == passing2) {
            lifecycleState.wait(found);
            continue;
        }
        if (found != from) return false;
        if (lifecycleState.compare_exchange_weak(found, to)) return true;
    }
}

// Longest waits of the threads, ms.
constexpr int32_t kCaptureWaitMs = 300;
constexpr int32_t kDemodulationWaitMs = 300;
constexpr int32_t kWorkerWaitMs = 1000;
}  // namespace

bool OnReceiverThread() { return onReceiverThread; }

// The count goes up before the state is read, and a close changes the state
// before it reads the count (both sequentially consistent): either the call
// sees the close and backs out, or the close sees the call and waits for it.
void DeclareThreadlessReceiverOpen(bool open) { PublishState(open ? kOpen : kClosed); }

bool EnterReceiverCall() {
    callsInFlight.fetch_add(1);
    if (lifecycleState.load() == kOpen) return true;
    LeaveReceiverCall();
    return false;
}

void LeaveReceiverCall() {
    if (callsInFlight.fetch_sub(1) == 1 && lifecycleState.load() == kClosing) callsInFlight.notify_all();
}
void MarkReceiverThread() { onReceiverThread = true; }

void EnterIfInitialised(platform::CriticalSection* section) {
    if (section->mutex != nullptr) platform::EnterCriticalSection(section);
}
void LeaveIfInitialised(platform::CriticalSection* section) {
    if (section->mutex != nullptr) platform::LeaveCriticalSection(section);
}

// ---------------------------------------------------------------------------
// Threads. Each tests receiverRunning at every wake-up. The close path sets
// their events after clearing receiverRunning, so that they end at once
// instead of at the end of their longest wait.

uint32_t CaptureThread() {
    MarkReceiverThread();
    platform::SetCurrentThreadName("mvdab-capture");
    platform::SetCurrentThreadPriority(platform::ThreadPriority::TimeCritical);
    CapturePacing pacing = kCapturePacingStart;
    while (receiverRunning != 0) {
        if (platform::WaitEvent(&deviceEvent, kCaptureWaitMs) != 1) continue;
        if (receiverRunning == 0) break;
        const int32_t read = CaptureDeviceData();
        // Only a close sets the hold event: it ends the hold at once.
        const int64_t now = platform::MonotonicMs();
        if (const int32_t holdMs = NextCaptureHold(&pacing, read, captureBuffers.remaining, now)) {
            platform::WaitEvent(&captureHoldEvent, holdMs);
        }
    }
    return 1;
}

uint32_t DemodulationThread() {
    MarkReceiverThread();
    platform::SetCurrentThreadName("mvdab-demod");
    platform::SetCurrentThreadPriority(platform::ThreadPriority::HighestNormal);
    while (receiverRunning != 0) {
        if (platform::WaitEvent(&frameEvent, kDemodulationWaitMs) != 1) continue;
        if (receiverRunning == 0) break;
        // MVDAB_Stop takes the same lock before it frees what a frame step
        // uses, so it waits for the end of this step, and the next step
        // finds the records gone and the state machine parked.
        platform::EnterCriticalSection(&frameStepLock);
        RunFrameStep();
        platform::LeaveCriticalSection(&frameStepLock);
    }
    return 1;
}

uint32_t WorkerThread() {
    MarkReceiverThread();
    platform::SetCurrentThreadName("mvdab-worker");
    platform::SetCurrentThreadPriority(platform::ThreadPriority::HighestNormal);
    while (receiverRunning != 0) {
        if (platform::WaitEvent(&workerEvent, kWorkerWaitMs) != 1) continue;
        if (receiverRunning == 0) break;
        RunWorkerStep();
    }
    return 1;
}

// ---------------------------------------------------------------------------

int32_t ResetReceiverStatus() {
    // The lists are empty at open and after StopReceiver; anything a host
    // added in between is freed here rather than lost.
    ReleaseAllServices();
    ReceiverStatus& s = receiverStatus;
    s.retuneRequest = 0;
    s.signalPresent = 0;
    s.syncState = 0;
    s.signalQualityDb = 0.0f;
    s.serviceResetRequest = 0;
    cifCountWanted = 0;
    return 1;
}

int32_t ResumeSamples() {
    if (OnReceiverThread()) return 0;
    EnterIfInitialised(&frameStepLock);
    const int32_t locked = TakeRequestMailbox();
    ResetReceiverStatus();
    pipeline.selectedCount = 0;
    if (locked == 1) GiveRequestMailbox();
    LeaveIfInitialised(&frameStepLock);
    if (accessLibrary.setEventHandle == nullptr || accessLibrary.setEventHandle(&deviceEventHandle) == 0) {
        return 0;
    }
    deviceEventRegistered = 1;
    return InitDemodulator();
}

namespace {

void JoinAndClear(platform::Thread* thread) { platform::JoinThread(thread); }

// The one unwinding sequence of a failed open and of a close. Closes only
// what exists.
void Unwind(bool closing) {
    receiverRunning = 0;
    platform::SetEvent(&workerEvent);
    platform::SetEvent(&frameEvent);
    platform::SetEvent(&deviceEvent);
    platform::SetEvent(&captureHoldEvent);
    JoinAndClear(&receiverThreads.worker);
    JoinAndClear(&receiverThreads.demodulation);
    FreeReceiverState();
    platform::CloseEvent(&requestMailbox);
    platform::DeleteCriticalSection(&workerLock);
    platform::CloseEvent(&workerEvent);
    JoinAndClear(&receiverThreads.capture);
    platform::CloseEvent(&captureHoldEvent);
    FreeCaptureBuffers();
    platform::DeleteCriticalSection(&handOverLock);
    platform::DeleteCriticalSection(&frameStepLock);
    platform::CloseEvent(&frameEvent);
    if (deviceEventRegistered != 0) {
        if (accessLibrary.releaseEventHandle != nullptr) accessLibrary.releaseEventHandle(&deviceEventHandle);
        deviceEventRegistered = 0;
    }
    if (accessLibraryLoaded != 0 && accessLibrary.filterRelease != nullptr) accessLibrary.filterRelease(0);
    platform::CloseEvent(&deviceEvent);
    deviceEventHandle = -1;
    tunerType = 0;
    tuningRecord = nullptr;
    if (closing) FreeFrequencyCache();
    UnbindAccessLibrary();
    accessLibraryLoaded = 0;
}

int32_t FailOpen(int32_t code) {
    Unwind(false);
    return code;
}

// The steps of an open, in their order; any failure unwinds what exists.
int32_t OpenSteps() {
    receiverThreads = ReceiverThreads{};
    if (BindAccessLibrary() != 1) return FailOpen(kOpenFailed);
    accessLibraryLoaded = 1;
    if (platform::CreateEvent(&deviceEvent) != 1) return FailOpen(kOpenFailed);
    deviceEventHandle = platform::NativeEventHandle(&deviceEvent);
    if (accessLibrary.filterInit(0) == 0) return FailOpen(kOpenNoDevice);
    if (accessLibrary.setEventHandle(&deviceEventHandle) == 0) return FailOpen(kOpenFailed);
    deviceEventRegistered = 1;
    int32_t type = 0;
    if (accessLibrary.getTunerType(&type) == 0) return FailOpen(kOpenFailed);
    tunerType = type;
    tuningStorage.currentFrequency = 0;
    tuningRecord = &tuningStorage;
    if (InitDemodulator() != 1) return FailOpen(kOpenFailed);
    receiverRunning = 1;
    if (AllocCaptureBuffers() != 1) return FailOpen(kOpenFailed);
    // The two locks of our own come before the first thread that uses them.
    if (platform::InitCriticalSection(&handOverLock) != 1) return FailOpen(kOpenFailed);
    if (platform::InitCriticalSection(&frameStepLock) != 1) return FailOpen(kOpenFailed);
    if (platform::CreateEvent(&frameEvent) != 1) return FailOpen(kOpenFailed);
    if (platform::CreateEvent(&captureHoldEvent) != 1) return FailOpen(kOpenFailed);
    if (platform::CreateThread(&receiverThreads.capture, CaptureThread) != 1) return FailOpen(kOpenFailed);
    if (platform::InitCriticalSection(&workerLock) != 1) return FailOpen(kOpenFailed);
    if (platform::CreateEvent(&workerEvent) != 1) return FailOpen(kOpenFailed);
    if (platform::CreateThread(&receiverThreads.worker, WorkerThread) != 1) return FailOpen(kOpenFailed);
    ResetReceiverStatus();
    if (InitReceiverState() != 1) return FailOpen(kOpenFailed);
    if (platform::CreateEvent(&requestMailbox) != 1) return FailOpen(kOpenFailed);
    platform::SetEvent(&requestMailbox);
    if (platform::CreateThread(&receiverThreads.demodulation, DemodulationThread) != 1) {
        return FailOpen(kOpenFailed);
    }
    return kOpenRunning;
}

}  // namespace

int32_t OpenReceiver() {
    // A receiver thread exists only while the receiver is open or closing;
    // there an open would wait for the close that is joining its thread.
    if (OnReceiverThread()) return kOpenFailed;
    // The device library gives no guard against a second open: the state
    // does. Only the thread that moved it to opening runs the steps.
    if (!MoveState(kClosed, kOpening, kClosing, kClosing)) return kOpenFailed;
    const int32_t result = OpenSteps();
    PublishState(result == kOpenRunning ? kOpen : kClosed);
    return result;
}

int32_t CloseReceiver() {
    if (OnReceiverThread()) return 0;
    if (!MoveState(kOpen, kClosing, kOpening, kClosing)) return 1;  // closed already
    // New calls are turned away from here on; those inside finish first.
    for (int32_t inside = callsInFlight.load(); inside != 0; inside = callsInFlight.load()) {
        callsInFlight.wait(inside);
    }
    Unwind(true);
    PublishState(kClosed);
    return 1;
}

int32_t StartSamples() {
    if (receiverRunning == 0) return 0;
    if (deviceEventRegistered != 0) return 1;
    return ResumeSamples();
}

int32_t StopSamples() {
    if (receiverRunning == 0) return 1;
    if (OnReceiverThread()) return 0;
    if (deviceEventRegistered != 0) {
        if (accessLibrary.releaseEventHandle == nullptr || accessLibrary.releaseEventHandle(&deviceEventHandle) == 0) {
            return 0;
        }
        deviceEventRegistered = 0;
        StopReceiver();
    }
    if (TuningRecord* t = tuningRecord.load()) t->currentFrequency = 0;
    return 1;
}

}  // namespace mvdab
