#include "platform/LargeHeap.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <malloc.h>
#include <sys/mman.h>

namespace platform {
namespace {

constexpr int kExpectedBytes = 32 << 20; // of addresses, which cost nothing; beyond is as ever
constexpr int kLaterBytes = 128 << 10;   // as the library has it
constexpr size_t kSmallBytes = 1 << 20;  // a short program never needs a large page
constexpr size_t kLargePageBytes = 2 << 20;
constexpr size_t kFirstBytes = 192 << 10; // more than the heap has left at the start

} // namespace

void expectLargeHeap() noexcept {
    // NOLINTBEGIN(concurrency-mt-unsafe): there is no second thread yet
    // One heap that grows once, and no block beside it, so that the pages of what was freed serve
    // again.
    (void)mallopt(M_TOP_PAD, kExpectedBytes);
    (void)mallopt(M_MMAP_THRESHOLD, kExpectedBytes);
    (void)mallopt(M_TRIM_THRESHOLD, 2 * kExpectedBytes);
    auto* const first = static_cast<char*>(std::malloc(kFirstBytes));
    // Once: where addresses are few, growing by so much more each time would fail for want of them.
    (void)mallopt(M_TOP_PAD, kLaterBytes);
    // NOLINTEND(concurrency-mt-unsafe)
    if (first == nullptr) {
        return;
    }
    const uintptr_t address = reinterpret_cast<uintptr_t>(first) + kSmallBytes;
    const size_t skipped =
        kSmallBytes + (kLargePageBytes - address % kLargePageBytes) % kLargePageBytes;
    const size_t pages = (kExpectedBytes - skipped) / kLargePageBytes;
    // Where the heap could not grow so far the range is not mapped, and the call does nothing.
    (void)madvise(first + skipped, pages * kLargePageBytes, MADV_HUGEPAGE);
    std::free(first);
}

} // namespace platform
