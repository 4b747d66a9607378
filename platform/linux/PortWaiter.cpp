#include "platform/linux/PortWaiter.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>

#include "platform/linux/PortFolder.h"
#include "platform/linux/PortReceiver.h"

namespace platform {
namespace {

constexpr uint64_t kPort = 0;
constexpr uint64_t kWake = 1;
constexpr uint64_t kNames = 2;
constexpr int kEventsAtOnce = 16;
constexpr int64_t kLongestMilliseconds = 3'600'000; // what an int holds

// Reads until nothing is left; what it was does not matter.
void drain(int fd) {
    char block[4096];
    while (read(fd, block, sizeof block) > 0) {
    }
}

} // namespace

PortWaiter::PortWaiter(PortDescriptor events, PortDescriptor wakes)
    : events_(std::move(events)), wakes_(std::move(wakes)) {}

std::unique_ptr<PortWaiter> PortWaiter::make() {
    PortDescriptor events(epoll_create1(EPOLL_CLOEXEC));
    PortDescriptor wakes(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!events || !wakes) {
        return nullptr;
    }
    std::unique_ptr<PortWaiter> waiter(new PortWaiter(std::move(events), std::move(wakes)));
    return waiter->watch(waiter->wakes_.get(), kWake) ? std::move(waiter) : nullptr;
}

// Each event is told once: what a thread does not take away must not keep it awake. A descriptor
// that is closed is forgotten by itself.
bool PortWaiter::watch(int fd, uint64_t kind) const {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.u64 = kind;
    return epoll_ctl(events_.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

void PortWaiter::add(const LocalPort& port) {
    (void)watch(static_cast<const PortReceiver&>(port).events(), kPort); // else it is polled
}

void PortWaiter::watchNames(bool on) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (on == static_cast<bool>(names_)) {
        return;
    }
    names_.reset();
    PortFolder folder;
    if (!on || folder.open(PortFolder::Use::ifThere) != PortFolder::State::usable) {
        return;
    }
    PortDescriptor names(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (names && inotify_add_watch(names.get(), folder.path().c_str(), IN_ATTRIB) >= 0 &&
        watch(names.get(), kNames)) {
        names_ = std::move(names);
        wake(); // for a name that came before the watch
    }
}

void PortWaiter::wake() {
    const uint64_t one = 1;
    (void)!write(wakes_.get(), &one, sizeof one); // full means that it is awake already
}

bool PortWaiter::wait(int64_t timeoutMilliseconds) {
    const int64_t timeout = std::clamp<int64_t>(timeoutMilliseconds, 0, kLongestMilliseconds);
    if (!events_) { // a child after fork
        std::this_thread::sleep_for(std::chrono::milliseconds(timeout));
        return false;
    }
    epoll_event events[kEventsAtOnce];
    const int count = epoll_wait(events_.get(), events, kEventsAtOnce, static_cast<int>(timeout));
    for (int i = 0; i < count; ++i) {
        const uint64_t kind = events[i].data.u64;
        if (kind == kWake) {
            drain(wakes_.get());
        } else if (kind == kNames) {
            const std::lock_guard<std::mutex> guard(mutex_);
            drain(names_.get());
        }
    }
    return count > 0;
}

} // namespace platform
