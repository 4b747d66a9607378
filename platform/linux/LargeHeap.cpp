#include "platform/LargeHeap.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

namespace platform {
namespace {

// Of addresses, which cost nothing until they are used: enough for some hundred thousand
// applications, or what a process of few addresses can spare.
constexpr int kRoomBytes = sizeof(void*) > 4 ? 512 << 20 : 32 << 20;
constexpr int kLittleRoomBytes = 32 << 20;
constexpr int kBlockBytes = 32 << 20;   // the library's own bound
constexpr int kLaterBytes = 128 << 10;  // as the library has it
constexpr int kKeptBytes = 128 << 20;   // a text of the largest size, and its copy
constexpr size_t kSmallBytes = 1 << 20; // a short program never needs a large page
constexpr size_t kLargePageBytes = 2 << 20;
constexpr size_t kFirstBytes = 192 << 10; // more than the heap has left at the start

// A block behind which the heap has as much room as it can be given; null without memory.
void* growHeap() noexcept {
    // NOLINTBEGIN(concurrency-mt-unsafe): there is no second thread yet
    void* first = nullptr;
    for (int bytes = kRoomBytes; first == nullptr && bytes >= kLittleRoomBytes; bytes /= 2) {
        (void)mallopt(M_TOP_PAD, bytes);
        first = std::malloc(kFirstBytes);
    }
    // Once: where addresses are few, growing by so much more each time would fail for want of them.
    (void)mallopt(M_TOP_PAD, kLaterBytes);
    // NOLINTEND(concurrency-mt-unsafe)
    return first;
}

} // namespace

void expectLargeHeap() noexcept {
    // NOLINTBEGIN(concurrency-mt-unsafe): there is no second thread yet
    // One heap that grows once, and no block beside it, so that the pages of what was freed serve
    // again.
    (void)mallopt(M_MMAP_THRESHOLD, kBlockBytes);
    (void)mallopt(M_TRIM_THRESHOLD, 2 * kRoomBytes); // what was given is not taken back
    // NOLINTEND(concurrency-mt-unsafe)
    void* const first = growHeap();
    const auto begin = reinterpret_cast<uintptr_t>(first);
    const auto end = reinterpret_cast<uintptr_t>(sbrk(0));
    // Another heap than the system's gives blocks of elsewhere, which are none of ours to advise
    // on.
    if (first != nullptr && begin < end && end - begin <= size_t{2} * kRoomBytes) {
        const uintptr_t address =
            (begin + kSmallBytes + kLargePageBytes - 1) / kLargePageBytes * kLargePageBytes;
        const uintptr_t last = end / kLargePageBytes * kLargePageBytes;
        if (address < last) {
            // A refusal leaves small pages.
            (void)madvise(static_cast<char*>(first) + (address - begin), last - address,
                          MADV_HUGEPAGE);
        }
    }
    std::free(first);
}

void keepFreedHeap() noexcept {
    // NOLINTBEGIN(concurrency-mt-unsafe): there is no second thread yet
    (void)mallopt(M_MMAP_THRESHOLD, kBlockBytes);
    (void)mallopt(M_TRIM_THRESHOLD, kKeptBytes);
    // NOLINTEND(concurrency-mt-unsafe)
}

void giveBackFreedHeap() noexcept {
    (void)malloc_trim(0);
}

} // namespace platform
