// The receiver's small operating-system layer: auto-reset events, threads with
// priorities, one kind of lock, and run-time loading of a library. Everything
// the receiver needs of the system goes through here, so that a port touches
// only this folder.
#pragma once

#include <cstdint>

namespace platform {

// ---------------------------------------------------------------------------
// Auto-reset event. Set wakes one waiter, or the next one to wait; several sets
// before a wait count as one. On Linux the event is an eventfd, so that a
// device library in another module can signal it with a plain write() of an
// 8-byte 1, knowing nothing of this layer (see device/access_library.h).
// On Windows it is a Win32 auto-reset event that the device library sets
// with SetEvent.
struct Event {
#if defined(_WIN32)
    void* handle = nullptr;  // Win32 event HANDLE; null while not created
#else
    int fd = -1;  // eventfd descriptor; -1 while not created
#endif
};

int  CreateEvent(Event* event);        // 1 created, not signalled; 0 failure
void CloseEvent(Event* event);         // harmless on an event never created
int  SetEvent(Event* event);           // 1 or 0
// 1 the event was signalled (and is reset now); 0 timeout; -1 failure.
// timeoutMs < 0 waits without limit.
int  WaitEvent(Event* event, int32_t timeoutMs);
// The value a device library gets for the event: the descriptor it signals.
intptr_t NativeEventHandle(const Event* event);

// Milliseconds of a monotonic clock with an arbitrary origin.
int64_t MonotonicMs();

// ---------------------------------------------------------------------------
// Threads. The routine receives no parameter, like the receiver's threads.
enum class ThreadPriority { Normal, HighestNormal, TimeCritical };

struct Thread {
    uintptr_t handle = 0;   // pthread_t (Win32: thread HANDLE) while running, 0 when none
    int64_t   id = 0;       // kernel thread id, for diagnostics; 0 before it has run
};

using ThreadRoutine = uint32_t (*)();

int  CreateThread(Thread* thread, ThreadRoutine routine);  // 1 running; 0 failure
// Waits for the end of the thread without a time limit and clears the record.
// Returns the routine's exit code, or 0 when no thread was running.
uint32_t JoinThread(Thread* thread);
// Best effort: without the privilege the thread stays at normal priority and
// the call still returns 1. Applies to the calling thread.
int  SetCurrentThreadPriority(ThreadPriority priority);
// Names the calling thread for the system's tools (top -H, ps -L, debuggers).
// Names longer than 15 characters are cut. Best effort: 1 or 0.
int  SetCurrentThreadName(const char* name);

// ---------------------------------------------------------------------------
// One critical section kind: a non-recursive mutex.
struct CriticalSection {
    void* mutex = nullptr;  // owned pthread mutex (Win32: CRITICAL_SECTION); null while not initialised
};

int  InitCriticalSection(CriticalSection* section);  // 1 or 0
void DeleteCriticalSection(CriticalSection* section);
void EnterCriticalSection(CriticalSection* section);
void LeaveCriticalSection(CriticalSection* section);

// ---------------------------------------------------------------------------
// Run-time loading.
void* LoadLibrary(const char* path);                   // null on failure
void* FindSymbol(void* library, const char* name);     // null when missing
void  FreeLibrary(void* library);
// Directory holding the module that contains `address` (for the receiver,
// the MVXDAB library file itself), with no trailing slash. Writes at most
// `capacity` bytes including the terminator. 1 or 0.
int   ModuleDirectory(const void* address, char* out, int32_t capacity);
// The system's own library directory, searched after the receiver's own
// directory (Windows: GetSystemDirectoryA). 0 where the system has no such
// single directory (POSIX, where the loader's search covers it).
int   SystemDirectory(char* out, int32_t capacity);

}  // namespace platform
