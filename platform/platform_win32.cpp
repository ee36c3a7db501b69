// Win32 implementation of the platform layer: kernel events, Win32 threads,
// critical sections, LoadLibraryA. Built instead of platform_posix.cpp when
// the target is Windows.
#include "platform/platform.h"

#include <windows.h>

#include <string.h>

#include <new>

// <windows.h> maps these names to their ANSI or wide variants; the layer's
// own functions of the same names live in namespace platform.
#undef CreateEvent
#undef LoadLibrary

namespace platform {

int CreateEvent(Event* event) {
    if (event == nullptr) return 0;
    // Auto-reset, not signalled, unnamed: a set wakes one waiter and several
    // sets before a wait count as one, as on Linux.
    event->handle = ::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    return event->handle != nullptr ? 1 : 0;
}

void CloseEvent(Event* event) {
    if (event != nullptr && event->handle != nullptr) {
        ::CloseHandle(event->handle);
        event->handle = nullptr;
    }
}

int SetEvent(Event* event) {
    if (event == nullptr || event->handle == nullptr) return 0;
    return ::SetEvent(event->handle) ? 1 : 0;
}

int WaitEvent(Event* event, int32_t timeoutMs) {
    if (event == nullptr || event->handle == nullptr) return -1;
    const DWORD wait = timeoutMs < 0 ? INFINITE : DWORD(timeoutMs);
    switch (::WaitForSingleObject(event->handle, wait)) {
        case WAIT_OBJECT_0: return 1;
        case WAIT_TIMEOUT: return 0;
        default: return -1;
    }
}

intptr_t NativeEventHandle(const Event* event) {
    return event != nullptr ? reinterpret_cast<intptr_t>(event->handle) : 0;
}

namespace {
struct ThreadStart {
    ThreadRoutine routine;
};

DWORD WINAPI ThreadTrampoline(LPVOID arg) {
    ThreadRoutine routine = static_cast<ThreadStart*>(arg)->routine;
    delete static_cast<ThreadStart*>(arg);
    return routine();
}
}  // namespace

int CreateThread(Thread* thread, ThreadRoutine routine) {
    if (thread == nullptr || routine == nullptr) return 0;
    auto* start = new (std::nothrow) ThreadStart{routine};
    if (start == nullptr) return 0;
    DWORD id = 0;
    HANDLE h = ::CreateThread(nullptr, 0, ThreadTrampoline, start, 0, &id);
    if (h == nullptr) {
        delete start;
        return 0;
    }
    thread->handle = reinterpret_cast<uintptr_t>(h);
    thread->id = int64_t(id);
    return 1;
}

uint32_t JoinThread(Thread* thread) {
    if (thread == nullptr || thread->handle == 0) return 0;
    HANDLE h = reinterpret_cast<HANDLE>(thread->handle);
    ::WaitForSingleObject(h, INFINITE);
    DWORD code = 0;
    ::GetExitCodeThread(h, &code);
    ::CloseHandle(h);
    thread->handle = 0;
    thread->id = 0;
    return uint32_t(code);
}

int64_t MonotonicMs() { return int64_t(::GetTickCount64()); }

int SetCurrentThreadName(const char* name) {
    if (name == nullptr) return 0;
    // SetThreadDescription exists from Windows 10 1607 on: looked up at run
    // time, so that the DLL still loads on older systems.
    using SetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
    const HMODULE kernel = ::GetModuleHandleA("kernel32.dll");
    if (kernel == nullptr) return 0;
    const auto set = reinterpret_cast<SetDescription>(
        reinterpret_cast<void*>(::GetProcAddress(kernel, "SetThreadDescription")));
    if (set == nullptr) return 0;
    // Same limit as elsewhere: 15 characters, ASCII.
    wchar_t wide[16];
    int i = 0;
    for (; i < 15 && name[i] != 0; ++i) wide[i] = wchar_t(static_cast<unsigned char>(name[i]));
    wide[i] = 0;
    return SUCCEEDED(set(::GetCurrentThread(), wide)) ? 1 : 0;
}

int SetCurrentThreadPriority(ThreadPriority priority) {
    // Best effort: a refused priority leaves the thread at normal priority.
    int level = THREAD_PRIORITY_NORMAL;
    if (priority == ThreadPriority::TimeCritical) level = THREAD_PRIORITY_TIME_CRITICAL;
    if (priority == ThreadPriority::HighestNormal) level = THREAD_PRIORITY_HIGHEST;
    ::SetThreadPriority(::GetCurrentThread(), level);
    return 1;
}

int InitCriticalSection(CriticalSection* section) {
    if (section == nullptr) return 0;
    auto* cs = new (std::nothrow) CRITICAL_SECTION;
    if (cs == nullptr) return 0;
    ::InitializeCriticalSection(cs);
    section->mutex = cs;
    return 1;
}

void DeleteCriticalSection(CriticalSection* section) {
    if (section == nullptr || section->mutex == nullptr) return;
    auto* cs = static_cast<CRITICAL_SECTION*>(section->mutex);
    ::DeleteCriticalSection(cs);
    delete cs;
    section->mutex = nullptr;
}

void EnterCriticalSection(CriticalSection* section) {
    ::EnterCriticalSection(static_cast<CRITICAL_SECTION*>(section->mutex));
}

void LeaveCriticalSection(CriticalSection* section) {
    ::LeaveCriticalSection(static_cast<CRITICAL_SECTION*>(section->mutex));
}

void* LoadLibrary(const char* path) {
    if (path == nullptr) return nullptr;
    return reinterpret_cast<void*>(::LoadLibraryA(path));
}

void* FindSymbol(void* library, const char* name) {
    if (library == nullptr || name == nullptr) return nullptr;
    return reinterpret_cast<void*>(::GetProcAddress(static_cast<HMODULE>(library), name));
}

void FreeLibrary(void* library) {
    if (library != nullptr) ::FreeLibrary(static_cast<HMODULE>(library));
}

int ModuleDirectory(const void* address, char* out, int32_t capacity) {
    if (out == nullptr || capacity <= 0) return 0;
    HMODULE module = nullptr;
    if (!::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                  GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                              static_cast<LPCSTR>(address), &module))
        return 0;
    char file[MAX_PATH + 1];
    const DWORD n = ::GetModuleFileNameA(module, file, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) return 0;
    file[n] = '\0';
    const char* slash = strrchr(file, '\\');
    const char* forward = strrchr(file, '/');
    if (forward != nullptr && (slash == nullptr || forward > slash)) slash = forward;
    if (slash == nullptr) return 0;
    const size_t length = size_t(slash - file);
    if (length + 1 > size_t(capacity)) return 0;
    memcpy(out, file, length);
    out[length] = '\0';
    return 1;
}

int SystemDirectory(char* out, int32_t capacity) {
    if (out == nullptr || capacity <= 0) return 0;
    const UINT n = ::GetSystemDirectoryA(out, UINT(capacity));
    return n != 0 && n < UINT(capacity) ? 1 : 0;
}

}  // namespace platform
