#include "tests/support/FailingAllocations.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

// Below 0: none fails, or one has.
thread_local constinit int gUntilFailure = -1;
thread_local constinit bool gFailed = false;

bool failsNow() {
    if (gUntilFailure < 0 || gUntilFailure-- > 0) {
        return false;
    }
    gFailed = true;
    return true;
}

} // namespace

FailingAllocation::FailingAllocation(int number) {
    gFailed = false;
    gUntilFailure = number;
}

FailingAllocation::~FailingAllocation() {
    gUntilFailure = -1;
}

bool FailingAllocation::hasFailed() {
    return gFailed;
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {
void* __real_malloc(size_t size);
void* __real_realloc(void* block, size_t size);

void* __wrap_malloc(size_t size) {
    return failsNow() ? nullptr : __real_malloc(size);
}

void* __wrap_realloc(void* block, size_t size) {
    return failsNow() ? nullptr : __real_realloc(block, size);
}
}
// NOLINTEND(bugprone-reserved-identifier)

void* operator new(size_t size) {
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size == 0 ? 1 : size);
}

void operator delete(void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, size_t) noexcept {
    std::free(block);
}
