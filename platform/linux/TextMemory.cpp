#include "platform/TextMemory.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <malloc.h>
#include <mutex>
#include <utility>

#include "limits/Limits.h"
#include "platform/MessagePort.h"

namespace platform {
namespace {

// Of smaller ones the heap keeps enough by itself; it gives its end back when that is 128 KiB long.
constexpr size_t kSmallestKept = size_t{16} << 10;
constexpr size_t kMaximumKeptBytes = limits::of("memory.kept.bytes");
constexpr size_t kMaximumKeptBlocks = limits::of("memory.kept.blocks");

// The blocks that are kept, the newest last. Nobody waits for the mutex: who does not get it at
// once goes to the heap, so that a child whose parent was in here at the fork is not stuck.
class KeptBlocks {
public:
    void* take(size_t size) {
        const std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
        if (!lock.owns_lock()) {
            return nullptr;
        }
        ++uses_;
        for (size_t i = count_; i-- > 0;) {
            const size_t bytes = blocks_[i].bytes;
            if (bytes >= size && bytes / 2 <= size) { // not much more than what is asked for
                void* const found = blocks_[i].block;
                remove(i);
                return found;
            }
        }
        return nullptr;
    }

    // False when the block is not kept.
    bool put(void* block, size_t bytes) {
        const std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
        if (!lock.owns_lock() || bytes > kMaximumKeptBytes) {
            return false;
        }
        ++uses_;
        // Those that were of no use for the longest make room.
        while (count_ == blocks_.size() || bytes_ + bytes > kMaximumKeptBytes) {
            std::free(blocks_[0].block);
            remove(0);
        }
        blocks_[count_++] = {block, bytes};
        bytes_ += bytes;
        if (PortWait* const keeper = std::exchange(keeper_, nullptr)) {
            keeper->wake(); // under the mutex: it may end as soon as it is none any more
        }
        return true;
    }

    void setKeeper(PortWait* keeper) {
        const std::lock_guard<std::mutex> lock(mutex_);
        keeper_ = keeper;
    }

    void clear(bool onlyWhenIdle) {
        const std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
        if (!lock.owns_lock() || (std::exchange(usesBefore_, uses_) != uses_ && onlyWhenIdle)) {
            return;
        }
        while (count_ > 0) {
            std::free(blocks_[count_ - 1].block);
            remove(count_ - 1);
        }
    }

    size_t bytes() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return bytes_;
    }

private:
    struct Block {
        void* block;
        size_t bytes;
    };

    void remove(size_t index) {
        bytes_ -= blocks_[index].bytes;
        for (--count_; index < count_; ++index) {
            blocks_[index] = blocks_[index + 1];
        }
    }

    std::mutex mutex_; // guards what follows
    std::array<Block, kMaximumKeptBlocks> blocks_{};
    size_t count_ = 0;
    size_t bytes_ = 0;
    uint64_t uses_ = 0;
    uint64_t usesBefore_ = 0;
    PortWait* keeper_ = nullptr;
};

// Used until the process ends, and without a destructor of its own.
constinit KeptBlocks gKept;

} // namespace

void* TextMemory::allocate(size_t size) {
    void* const kept = size < kSmallestKept ? nullptr : gKept.take(size);
    return kept != nullptr ? kept : std::malloc(size);
}

void* TextMemory::reallocate(void* block, size_t size) {
    // The system moves the pages of a large block, which no copy of ours could do.
    return std::realloc(block, size);
}

size_t TextMemory::roomOf(void* block) {
    return malloc_usable_size(block);
}

void TextMemory::free(void* block) {
    // The heap knows how large its blocks are: nothing is kept beside them, so that any block of
    // the heap's may be given here.
    const size_t bytes = malloc_usable_size(block); // 0 for null
    if (bytes < kSmallestKept || !gKept.put(block, bytes)) {
        std::free(block);
    }
}

void TextMemory::giveBackWhenIdle() {
    gKept.clear(true);
}

void TextMemory::giveBack() {
    gKept.clear(false);
}

void TextMemory::wakeWhenKept(PortWait* keeper) {
    gKept.setKeeper(keeper);
}

size_t TextMemory::keptBytes() {
    return gKept.bytes();
}

} // namespace platform
