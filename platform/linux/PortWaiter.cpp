#include "platform/linux/PortWaiter.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "platform/linux/PortFolder.h"
#include "platform/linux/PortReceiver.h"
#include "platform/linux/PortSender.h"

namespace platform {
namespace {

// What an event is of, in its lowest bits. Those above are a port's number.
constexpr uint64_t kPort = 0;
constexpr uint64_t kWake = 1;
constexpr uint64_t kFiles = 2;
constexpr uint64_t kTarget = 3;
constexpr uint64_t kOther = 4;
constexpr int kKindBits = 3;
constexpr int64_t kWatchAfterMilliseconds = limits::of("port.watch-after");
constexpr int64_t kLongestLookAgainMilliseconds = limits::of("port.look-again");
constexpr int64_t kLongestMilliseconds = limits::of("port.wait");

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
    // Without it nobody could end a wait, so there is none.
    return waiter->tellOnce(waiter->wakes_.get(), kWake) ? std::move(waiter) : nullptr;
}

// Each event is told once: what a thread does not take away must not keep it awake. A descriptor
// that is closed is forgotten by itself.
bool PortWaiter::tellOnce(int fd, uint64_t what) const {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.u64 = what;
    // One that is there already is told of by what it is now.
    return epoll_ctl(events_.get(), EPOLL_CTL_ADD, fd, &event) == 0 ||
           (errno == EEXIST && epoll_ctl(events_.get(), EPOLL_CTL_MOD, fd, &event) == 0);
}

// Every change of the file's state, the removal of its last name among them, is an event.
bool PortWaiter::watchFile(const std::string& path, int& number) {
    if (!files_) {
        PortDescriptor files(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
        if (!files || !tellOnce(files.get(), kFiles)) {
            return false;
        }
        files_ = std::move(files);
    }
    number = inotify_add_watch(files_.get(), path.c_str(), IN_ATTRIB);
    return number >= 0;
}

void PortWaiter::add(const LocalPort& port, uint64_t number) {
    const auto& receiver = static_cast<const PortReceiver&>(port);
    pause(port, number, false);
    const std::lock_guard<std::mutex> guard(mutex_);
    const std::string folder = receiver.name().folder().path() + "/";
    unwatched_.push_back(
        {&receiver, folder + receiver.name().lockFile(), folder + receiver.name().socketFile()});
    // The first port decides: later ones are watched with it, at most that much too early.
    if (watchAt_ == 0) {
        watchAt_ = Clock::own().monotonicMilliseconds() + kWatchAfterMilliseconds;
    }
}

void PortWaiter::pause(const LocalPort& port, uint64_t number, bool on) {
    if (on) {
        (void)epoll_ctl(events_.get(), EPOLL_CTL_DEL, port.descriptor(), nullptr);
    } else if (!tellOnce(port.descriptor(), number << kKindBits | kPort)) {
        portsMissed_.store(true); // it is polled
    }
}

// The end of a process with a watch takes the system 15 milliseconds, so one that lives for a
// moment makes none.
void PortWaiter::watchFiles() try {
    std::vector<const PortReceiver*> added;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        for (const Files& files : unwatched_) {
            for (const std::string* const file : {&files.lock, &files.socket}) {
                int number = -1; // the watch ends with the file
                if (watchFile(*file, number)) {
                    watched_[number] = files.port;
                } else if (errno != ENOENT) { // its loss shows later
                    unwatchable_.insert(files.port);
                }
            }
            added.push_back(files.port);
        }
        unwatched_.clear();
        watchAt_ = 0;
    }
    PortReceiver::reportLost(&added); // before there was a watch
} catch (const std::bad_alloc&) {     // tried again: to watch one once more changes nothing
    const std::lock_guard<std::mutex> guard(mutex_);
    watchAt_ = Clock::own().monotonicMilliseconds() + kWatchAfterMilliseconds;
}

void PortWaiter::add(TargetWatch& watch) {
    PortSender::report(watch, events_.get(), kTarget);
}

// Told as long as there is something, since its reader may take it in portions.
bool PortWaiter::watch(int descriptor, bool on) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kOther;
    return epoll_ctl(events_.get(), on ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, descriptor, &event) == 0;
}

void PortWaiter::watchNames(bool on) {
    const std::lock_guard<std::mutex> guard(mutex_);
    namesMissed_ = on && names_ < 0;
    // Only while something is queued for a target that is not there: each file that comes or goes
    // in the folder would wake every process otherwise.
    if (on == (names_ >= 0)) {
        return;
    }
    if (!on) {
        (void)inotify_rm_watch(files_.get(), names_); // gone already when the folder is
        names_ = -1;
        return;
    }
    PortFolder folder;
    if (folder.open(PortFolder::Use::ifThere) == PortFolder::State::usable &&
        watchFile(folder.path(), names_)) {
        namesMissed_ = false;
        wake(); // for a name that came before the watch
    }
}

bool PortWaiter::tellsAll() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return !portsMissed_.load() && !namesMissed_;
}

// The ports to whose files something has happened: a look at all, whenever one of many is closed,
// would take ever longer.
std::vector<const PortReceiver*> PortWaiter::readFileEvents() {
    const std::lock_guard<std::mutex> guard(mutex_);
    std::vector<const PortReceiver*> ports;
    alignas(inotify_event) char block[4096];
    for (ssize_t bytes; (bytes = read(files_.get(), block, sizeof block)) > 0;) {
        for (ssize_t at = 0; at < bytes;) {
            inotify_event event{};
            // The names behind the events are of no use: who was woken looks for itself.
            std::memcpy(&event, block + at, sizeof event);
            at += static_cast<ssize_t>(sizeof event + event.len);
            if (event.wd == names_ && (event.mask & IN_IGNORED) != 0) {
                names_ = -1; // the folder is gone: one that is made anew is another
                namesMissed_ = true;
                continue;
            }
            if ((event.mask & IN_Q_OVERFLOW) != 0) { // of any
                for (const auto& [number, port] : watched_) {
                    ports.push_back(port);
                }
            }
            const auto watched = watched_.find(event.wd);
            if (watched == watched_.end()) {
                continue;
            }
            if (ports.empty() || ports.back() != watched->second) {
                ports.push_back(watched->second);
            }
            if ((event.mask & IN_IGNORED) != 0) {
                watched_.erase(watched); // the file is gone, and its watch with it
            }
        }
    }
    if (!ports.empty()) {
        ports.insert(ports.end(), unwatchable_.begin(), unwatchable_.end());
    }
    return ports;
}

void PortWaiter::reportChanged() {
    try {
        const auto ports = readFileEvents();
        PortReceiver::reportLost(&ports);
    } catch (const std::bad_alloc&) { // what was read is forgotten
        PortReceiver::reportLost(nullptr);
    }
}

void PortWaiter::wake() {
    const uint64_t one = 1;
    (void)!write(wakes_.get(), &one, sizeof one); // full means that it is awake already
}

bool PortWaiter::wait(int64_t timeoutMilliseconds) {
    int64_t timeout = std::clamp<int64_t>(timeoutMilliseconds, 0, kLongestMilliseconds);
    // The system closes the connections of a process that is killed before it gives its locks back,
    // so whoever is told of the end looks again shortly after.
    if (watchAt_ != 0) {
        const int64_t left = watchAt_ - Clock::own().monotonicMilliseconds();
        if (left <= 0) {
            watchFiles();
        } else {
            timeout = std::min(timeout, left);
        }
    }
    const bool looksAgain = lookAgain_ > 0 && lookAgain_ <= timeout;
    if (looksAgain) {
        timeout = lookAgain_;
        // Ever more seldom, since the locks follow within milliseconds as a rule, and then no more:
        // an owner that has them still is no dying one.
        lookAgain_ = lookAgain_ < kLongestLookAgainMilliseconds ? lookAgain_ * 2 : 0;
    }
    reportedCount_ = 0;
    if (!events_) { // a child after fork
        std::this_thread::sleep_for(std::chrono::milliseconds(timeout));
        return false;
    }
    epoll_event events[kEventsAtOnce];
    const int count = epoll_wait(events_.get(), events, kEventsAtOnce, static_cast<int>(timeout));
    wasOfPorts_ = looksAgain;
    for (int i = 0; i < count; ++i) {
        const uint64_t what = events[i].data.u64; // a copy: the system packs its structure
        const uint64_t kind = what & ((uint64_t{1} << kKindBits) - 1);
        wasOfPorts_ = wasOfPorts_ || (kind != kWake && kind != kOther);
        if (kind == kPort) {
            reported_[reportedCount_++] = what >> kKindBits;
        } else if (kind == kWake) {
            uint64_t wakes = 0; // all of them
            (void)!read(wakes_.get(), &wakes, sizeof wakes);
        } else if (kind == kFiles) {
            reportChanged();
        } else if (kind == kTarget) {
            lookAgain_ = 1;
        }
    }
    return count > 0 || looksAgain;
}

} // namespace platform
