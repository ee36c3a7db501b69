// POSIX implementation of the platform layer (Linux: eventfd, pthreads, dlopen).
#include "platform/platform.h"

#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <stdint.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <new>

namespace platform {

int CreateEvent(Event* event) {
    if (event == nullptr) return 0;
    event->fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return event->fd >= 0 ? 1 : 0;
}

void CloseEvent(Event* event) {
    if (event != nullptr && event->fd >= 0) {
        close(event->fd);
        event->fd = -1;
    }
}

int SetEvent(Event* event) {
    if (event == nullptr || event->fd < 0) return 0;
    const uint64_t one = 1;
    // A full counter (EAGAIN) means the event is already set: still a success.
    ssize_t n = write(event->fd, &one, sizeof one);
    return (n == sizeof one || errno == EAGAIN) ? 1 : 0;
}

int64_t MonotonicMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int WaitEvent(Event* event, int32_t timeoutMs) {
    if (event == nullptr || event->fd < 0) return -1;
    const int64_t deadline = timeoutMs < 0 ? -1 : MonotonicMs() + timeoutMs;
    for (;;) {
        uint64_t count;
        // Reading resets the counter: this is what makes the event auto-reset.
        if (read(event->fd, &count, sizeof count) == sizeof count) return 1;
        if (errno != EAGAIN && errno != EINTR) return -1;
        int wait = -1;
        if (deadline >= 0) {
            int64_t left = deadline - MonotonicMs();
            if (left <= 0) return 0;
            wait = int(left);
        }
        pollfd p{event->fd, POLLIN, 0};
        int r = poll(&p, 1, wait);
        if (r < 0 && errno != EINTR) return -1;
        // r == 0: timeout; loop once more so that a late set is not lost.
        if (r == 0) {
            if (read(event->fd, &count, sizeof count) == sizeof count) return 1;
            return 0;
        }
        // Another waiter may have taken the count first: wait again.
    }
}

intptr_t NativeEventHandle(const Event* event) {
    return event != nullptr ? event->fd : -1;
}

namespace {
struct ThreadStart {
    ThreadRoutine routine;
};

void* ThreadTrampoline(void* arg) {
    ThreadRoutine routine = static_cast<ThreadStart*>(arg)->routine;
    delete static_cast<ThreadStart*>(arg);
    uint32_t code = routine();
    return reinterpret_cast<void*>(uintptr_t(code));
}
}  // namespace

int CreateThread(Thread* thread, ThreadRoutine routine) {
    if (thread == nullptr || routine == nullptr) return 0;
    auto* start = new (std::nothrow) ThreadStart{routine};
    if (start == nullptr) return 0;
    pthread_t t;
    if (pthread_create(&t, nullptr, ThreadTrampoline, start) != 0) {
        delete start;
        return 0;
    }
    thread->handle = uintptr_t(t);
    thread->id = 0;
    return 1;
}

uint32_t JoinThread(Thread* thread) {
    if (thread == nullptr || thread->handle == 0) return 0;
    void* result = nullptr;
    pthread_join(pthread_t(thread->handle), &result);
    thread->handle = 0;
    thread->id = 0;
    return uint32_t(uintptr_t(result));
}

int SetCurrentThreadPriority(ThreadPriority priority) {
    // Best effort throughout: without the privilege the thread keeps its
    // normal priority, and no error reaches the caller.
    if (priority == ThreadPriority::TimeCritical) {
        // The capture thread only copies, so a real-time class is safe for it.
        sched_param param{};
        param.sched_priority = 10;
        if (pthread_setschedparam(pthread_self(), SCHED_RR, &param) == 0) return 1;
    }
    if (priority != ThreadPriority::Normal) {
        // "Highest normal": a little better than normal inside the ordinary
        // class, never a real-time class for the heavy signal processing.
        setpriority(PRIO_PROCESS, pid_t(syscall(SYS_gettid)), -2);
    }
    return 1;
}

int SetCurrentThreadName(const char* name) {
    if (name == nullptr) return 0;
    // The kernel keeps 15 characters and the terminator.
    char shortName[16];
    strncpy(shortName, name, sizeof shortName - 1);
    shortName[sizeof shortName - 1] = '\0';
    return pthread_setname_np(pthread_self(), shortName) == 0 ? 1 : 0;
}

int InitCriticalSection(CriticalSection* section) {
    if (section == nullptr) return 0;
    auto* m = new (std::nothrow) pthread_mutex_t;
    if (m == nullptr) return 0;
    if (pthread_mutex_init(m, nullptr) != 0) {
        delete m;
        return 0;
    }
    section->mutex = m;
    return 1;
}

void DeleteCriticalSection(CriticalSection* section) {
    if (section == nullptr || section->mutex == nullptr) return;
    auto* m = static_cast<pthread_mutex_t*>(section->mutex);
    pthread_mutex_destroy(m);
    delete m;
    section->mutex = nullptr;
}

void EnterCriticalSection(CriticalSection* section) {
    pthread_mutex_lock(static_cast<pthread_mutex_t*>(section->mutex));
}

void LeaveCriticalSection(CriticalSection* section) {
    pthread_mutex_unlock(static_cast<pthread_mutex_t*>(section->mutex));
}

void* LoadLibrary(const char* path) {
    if (path == nullptr) return nullptr;
    return dlopen(path, RTLD_NOW | RTLD_LOCAL);
}

void* FindSymbol(void* library, const char* name) {
    if (library == nullptr || name == nullptr) return nullptr;
    return dlsym(library, name);
}

void FreeLibrary(void* library) {
    if (library != nullptr) dlclose(library);
}

int ModuleDirectory(const void* address, char* out, int32_t capacity) {
    if (out == nullptr || capacity <= 0) return 0;
    Dl_info info;
    if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return 0;
    const char* slash = strrchr(info.dli_fname, '/');
    if (slash == nullptr) return 0;
    size_t length = size_t(slash - info.dli_fname);
    if (length + 1 > size_t(capacity)) return 0;
    memcpy(out, info.dli_fname, length);
    out[length] = '\0';
    return 1;
}

int SystemDirectory(char* out, int32_t capacity) {
    (void)out;
    (void)capacity;
    return 0;
}

}  // namespace platform
