// Every allocation that MVDAB_OpenDevice makes can fail, and each failure
// must unwind the whole open: the result is 0, nothing the library
// allocated stays behind, and a clean open works afterwards.
//
// The receiver is linked statically into this test with its calls of
// malloc, calloc, aligned_alloc and free routed through the wrappers below
// (the linker's --wrap): they count the library's allocations, fail the
// n-th one on request and keep the set of blocks still live. The emulated
// device and the system libraries allocate as usual.
#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <set>

#include "mvxdab.h"

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_aligned_alloc(size_t alignment, size_t size);
void __real_free(void* block);
}

namespace {

std::mutex lock;
bool armed = false;          // count and track only while the test says so
int allocations = 0;         // counted since arming
int failAt = 0;              // the allocation that returns null, 1-based; 0 none
std::set<void*>* live;       // blocks the library allocated and has not freed

// Null when this allocation is to fail; else the real allocator's block.
template <typename Allocate>
void* Counted(Allocate allocate) {
    std::lock_guard<std::mutex> guard(lock);
    if (!armed) return allocate();
    if (++allocations == failAt) return nullptr;
    void* block = allocate();
    if (block != nullptr) live->insert(block);
    return block;
}

}  // namespace

extern "C" {
void* __wrap_malloc(size_t size) { return Counted([&] { return __real_malloc(size); }); }
void* __wrap_calloc(size_t count, size_t size) { return Counted([&] { return __real_calloc(count, size); }); }
void* __wrap_aligned_alloc(size_t alignment, size_t size) {
    return Counted([&] { return __real_aligned_alloc(alignment, size); });
}
void __wrap_free(void* block) {
    {
        std::lock_guard<std::mutex> guard(lock);
        if (live != nullptr) live->erase(block);
    }
    __real_free(block);
}
}

namespace {

void Arm(int failing) {
    std::lock_guard<std::mutex> guard(lock);
    armed = true;
    allocations = 0;
    failAt = failing;
}
int Disarm() {
    std::lock_guard<std::mutex> guard(lock);
    armed = false;
    return allocations;
}
size_t Live() {
    std::lock_guard<std::mutex> guard(lock);
    return live->size();
}

TEST(ApiAllocationFaults, EveryFailingAllocationOfOpenIsUnwound) {
    setenv("MVC900_SOURCE", "noise", 1);
    unsetenv("MVC900_FAULT");
    live = new std::set<void*>;
    // A clean open: how many allocations it makes, and all are gone at close.
    Arm(0);
    if (MVDAB_OpenDevice() != 1) {
        Disarm();
        GTEST_SKIP() << "emulated device not available";
    }
    ASSERT_EQ(MVDAB_CloseDevice(), 1);
    const int total = Disarm();
    EXPECT_EQ(Live(), 0u) << "a close frees everything";
    ASSERT_GE(total, 19) << "the work blocks, the tables and the decoders' buffers";
    for (int n = 1; n <= total; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n) + " of " + std::to_string(total) + " fails");
        Arm(n);
        EXPECT_EQ(MVDAB_OpenDevice(), 0);
        int32_t present = 77;
        EXPECT_EQ(MVDAB_GetSignalPresent(&present), 0) << "the receiver is closed";
        Disarm();
        EXPECT_EQ(Live(), 0u) << "the failed open left blocks behind";
        // And the process can open again.
        ASSERT_EQ(MVDAB_OpenDevice(), 1);
        ASSERT_EQ(MVDAB_CloseDevice(), 1);
    }
}

}  // namespace
