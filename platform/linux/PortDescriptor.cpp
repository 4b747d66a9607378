#include "platform/linux/PortDescriptor.h"

#include <atomic>
#include <mutex>
#include <pthread.h>
#include <unistd.h>
#include <utility>

#include "platform/linux/Descriptor.h"

namespace platform {
namespace {

// Compared instead of a process's number, which costs a system call at each use.
constinit std::atomic<uint32_t> gGeneration{1};

} // namespace

// All descriptors of this kind that are open. The lock is held across fork, so that the child finds
// the list whole.
struct OpenDescriptors {
    std::mutex mutex;
    PortDescriptor* first = nullptr;

    void addLocked(PortDescriptor& descriptor) {
        descriptor.previous_ = nullptr;
        descriptor.next_ = first;
        if (first != nullptr) {
            first->previous_ = &descriptor;
        }
        first = &descriptor;
    }
    void removeLocked(PortDescriptor& descriptor) {
        (descriptor.previous_ == nullptr ? first : descriptor.previous_->next_) = descriptor.next_;
        if (descriptor.next_ != nullptr) {
            descriptor.next_->previous_ = descriptor.previous_;
        }
    }
    void closeAllLocked() {
        for (PortDescriptor* open = first; open != nullptr; open = open->next_) {
            close(open->fd_);
        }
        first = nullptr; // what has been in it is of the parent's generation, and stays out
    }

    static OpenDescriptors& instance();
};

namespace {

// Ready before any constructor runs and never destroyed: ports may be opened in one of a library
// and closed at the very end.
constinit OpenDescriptors gOpen;

void beforeFork() {
    gOpen.mutex.lock();
}

void afterForkInParent() {
    gOpen.mutex.unlock();
}

void afterForkInChild() {
    gOpen.closeAllLocked();
    // Alone here: the child has this one thread.
    gGeneration.fetch_add(1, std::memory_order_relaxed);
    gOpen.mutex.unlock();
}

} // namespace

OpenDescriptors& OpenDescriptors::instance() {
    // Fails only without memory; then children keep what exec would have closed.
    [[maybe_unused]] static const int registered =
        pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
    return gOpen;
}

PortDescriptor::PortDescriptor(int fd) noexcept
    : fd_(behindStandardStreams(fd)), generation_(generation()) {
    if (fd_ >= 0) {
        OpenDescriptors& open = OpenDescriptors::instance();
        const std::lock_guard<std::mutex> guard(open.mutex);
        open.addLocked(*this);
    }
}

PortDescriptor::PortDescriptor(PortDescriptor&& other) noexcept {
    *this = std::move(other);
}

PortDescriptor& PortDescriptor::operator=(PortDescriptor&& other) noexcept {
    if (this == &other) {
        return *this;
    }
    reset();
    OpenDescriptors& open = OpenDescriptors::instance();
    const std::lock_guard<std::mutex> guard(open.mutex);
    // One of the parent's is in no list, and its number may be a file of this process by now.
    const bool isOpen = other.get() >= 0;
    fd_ = std::exchange(other.fd_, -1);
    // Of the process that opened it, whichever moves it.
    generation_ = other.generation_;
    if (isOpen) {
        open.removeLocked(other);
        open.addLocked(*this);
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
        OpenDescriptors& open = OpenDescriptors::instance();
        const std::lock_guard<std::mutex> guard(open.mutex);
        open.removeLocked(*this);
        close(fd_);
    }
    fd_ = -1;
}

} // namespace platform
