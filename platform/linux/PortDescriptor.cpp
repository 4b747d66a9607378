#include "platform/linux/PortDescriptor.h"

#include <atomic>
#include <mutex>
#include <pthread.h>
#include <set>
#include <unistd.h>
#include <utility>

namespace platform {
namespace {

constinit std::atomic<uint32_t> gGeneration{1};

// All descriptors of this kind that are open. The lock is held across fork, so that the child finds
// the set whole.
struct OpenDescriptors {
    std::mutex mutex;
    std::set<int> numbers;
};

OpenDescriptors& openDescriptors();

void beforeFork() {
    openDescriptors().mutex.lock();
}

void afterForkInParent() {
    openDescriptors().mutex.unlock();
}

void afterForkInChild() {
    OpenDescriptors& open = openDescriptors();
    for (const int number : open.numbers) {
        close(number);
    }
    open.numbers.clear();
    gGeneration.fetch_add(1, std::memory_order_relaxed);
    open.mutex.unlock();
}

OpenDescriptors& openDescriptors() {
    static auto* const open = [] {
        auto* const created = new OpenDescriptors;
        // Fails only without memory; then children keep what exec would have closed.
        (void)pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
        return created;
    }();
    return *open;
}

} // namespace

PortDescriptor::PortDescriptor(int fd) : fd_(fd), generation_(generation()) {
    if (fd_ >= 0) {
        OpenDescriptors& open = openDescriptors();
        const std::lock_guard<std::mutex> guard(open.mutex);
        open.numbers.insert(fd_);
    }
}

PortDescriptor::PortDescriptor(PortDescriptor&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), generation_(other.generation_) {}

PortDescriptor& PortDescriptor::operator=(PortDescriptor&& other) noexcept {
    if (this != &other) {
        reset();
        fd_ = std::exchange(other.fd_, -1);
        generation_ = other.generation_;
    }
    return *this;
}

uint32_t PortDescriptor::generation() {
    return gGeneration.load(std::memory_order_relaxed);
}

int PortDescriptor::get() const {
    return generation_ == generation() ? fd_ : -1;
}

void PortDescriptor::reset() {
    if (get() >= 0) {
        // Closed with the lock held: in a child born between the two the number could be another's.
        OpenDescriptors& open = openDescriptors();
        const std::lock_guard<std::mutex> guard(open.mutex);
        open.numbers.erase(fd_);
        close(fd_);
    }
    fd_ = -1;
}

} // namespace platform
