#include "platform/linux/PortReceiver.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <set>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/PortPacket.h"

namespace platform {
namespace {

using Time = std::chrono::steady_clock;

// Of large texts; then the caller goes on, since one takes as long as its sender has bytes for it.
constexpr size_t kPartBytesAtOnce = limits::of("receive.bytes");
constexpr int64_t kListeningPauseMilliseconds = limits::of("port.accept-pause");
constexpr int kWaitingConnections = SOMAXCONN; // at most; the system may allow fewer
constexpr int64_t kLongestSliceMilliseconds = limits::of("port.wait");

// About what going to sleep and being woken costs, and so what it may save at most. One that finds
// nothing costs more than it can save, so it is given up after some of them, and tried again from
// time to time.
constexpr auto kSpin = std::chrono::microseconds(60);
constexpr int kFullSpinCredit = 8;
constexpr int kSpinRest = -64;
// After so many waits that found nothing at once the next ones, but for each eighth, do not look.
constexpr uint32_t kWaitsWithLook = 2;
constexpr uint32_t kWaitsWithoutLook = 8;

bool hasSeveralProcessors() {
    static const bool several = [] {
        cpu_set_t set;
        return sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 1;
    }();
    return several;
}

} // namespace

int64_t PortReceiver::now() {
    return Clock::own().monotonicMilliseconds();
}

// The ports that are open. A process that ends without closing them removes their files all the
// same, so that they do not pile up; its names are free in any case. Files come and go under one
// lock, and none come once the process has begun to end: another thread may be opening a port then.
class PortReceiver::OpenPorts {
public:
    static OpenPorts& instance() {
        static auto* const ports = [] {
            auto* const created = new OpenPorts;
            (void)std::atexit([] { instance().end(); }); // else the files stay
            (void)std::at_quick_exit([] { instance().removeFilesAtOnce(); });
            // Registered behind the handlers of the descriptors, so that this lock is taken first,
            // as it is when a port is opened.
            (void)pthread_atfork([] { instance().mutex_.lock(); },
                                 [] { instance().mutex_.unlock(); },
                                 [] {
                                     instance().ports_.clear(); // the parent's
                                     instance().mutex_.unlock();
                                 });
            return created;
        }();
        return *ports;
    }
    bool open(PortReceiver* port) {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (ended_ || !port->name_.own()) {
            return false;
        }
        // With its name and before its socket: whatever of it exists is removed at the end of the
        // process.
        ports_.insert(port);
        return port->listen();
    }
    void close(PortReceiver* port) {
        const std::lock_guard<std::mutex> guard(mutex_);
        ports_.erase(port);
        giveBack(port);
    }

    std::vector<std::string> lostFiles(const std::vector<const PortReceiver*>* ports) {
        const std::lock_guard<std::mutex> guard(mutex_);
        std::vector<std::string> files;
        const auto look = [&](PortReceiver* port) {
            const PortName& name = port->name_;
            const bool locked = name.holdsLockFile();
            if (!ended_ && (!locked || !name.holdsSocket()) &&
                !port->lossIsReported_.exchange(true)) {
                files.push_back(name.folder().path() + "/" +
                                (locked ? name.socketFile() : name.lockFile()));
            }
        };
        if (ports == nullptr) {
            std::for_each(ports_.begin(), ports_.end(), look);
            return files;
        }
        for (const PortReceiver* const port : *ports) {
            // At the place of one that was closed there may be another, looked at for nothing.
            if (const auto found = ports_.find(port); found != ports_.end()) {
                look(*found);
            }
        }
        return files;
    }

private:
    void end() {
        const std::lock_guard<std::mutex> guard(mutex_);
        ended_ = true;
        for (PortReceiver* port : ports_) {
            giveBack(port);
        }
    }

    // For an end at any point of the program, also while a thread that will not go on holds a lock:
    // nobody is waited for.
    void removeFilesAtOnce() {
        const std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
        if (lock.owns_lock()) {
            ended_ = true;
            for (PortReceiver* port : ports_) {
                port->name_.removeFiles();
            }
        }
    }

    // In this order: what is sent to the name once somebody else may have it must not come here.
    // A child that was born by the bare system call leaves its parent's port alone.
    static void giveBack(PortReceiver* port) {
        if (port->name_.isOwner()) {
            port->deafen();
            port->name_.removeFiles();
        }
    }

    std::mutex mutex_;
    std::set<PortReceiver*, std::less<>> ports_;
    bool ended_ = false;
};

PortReceiver::PortReceiver(PortFolder folder, const std::string& name, PortSeals seals)
    : name_(std::move(folder), name),
      seals_(seals),
      buffer_(new unsigned char[PortPacket::kHeaderBytes + PortPacket::kMaximumWholeBytes]),
      spinCredit_(kFullSpinCredit) {}

std::unique_ptr<PortReceiver> PortReceiver::open(const std::string& name, PortSeals seals) {
    PortFolder folder;
    if (name.empty() || name.find('\0') != std::string::npos ||
        folder.open(PortFolder::Use::create) != PortFolder::State::usable) {
        return nullptr;
    }
    std::unique_ptr<PortReceiver> port(new PortReceiver(std::move(folder), name, seals));
    return OpenPorts::instance().open(port.get()) ? std::move(port) : nullptr;
}

void PortReceiver::reportLost(const std::vector<const PortReceiver*>* ports) {
    for (const std::string& file : OpenPorts::instance().lostFiles(ports)) {
        Log::system().problem(file +
                              " was removed: no other process finds this port until this one "
                              "is started again");
    }
}

PortReceiver::~PortReceiver() {
    OpenPorts::instance().close(this);
}

// Nothing can be sent to this port from now on. The sockets themselves stay: another thread may be
// reading from them.
void PortReceiver::deafen() {
    const std::lock_guard<std::mutex> guard(mutex_);
    // First, since it is an event for ever from the next step on: a thread that still looks at this
    // port would do nothing else.
    (void)epoll_ctl(events_.get(), EPOLL_CTL_DEL, listener_.get(), nullptr);
    // Those who have connected and were not accepted yet see the end, too, when what they wait at
    // is taken and closed.
    (void)shutdown(listener_.get(), SHUT_RDWR);
    while (PortDescriptor(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC))) {
    }
    for (auto& [number, connection] : connections_) {
        (void)shutdown(connection.socket.get(), SHUT_RDWR);
    }
}

bool PortReceiver::listen() {
    const PortFolder& folder = name_.folder();
    const std::string& file = name_.socketFile();
    const auto refuse = [&](const char* what) {
        Log::system().problem(std::string("cannot ") + what + " " + folder.path() + "/" + file +
                              ": " + systemReason());
        return false;
    };
    PortDescriptor listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    PortDescriptor events(epoll_create1(EPOLL_CLOEXEC));
    if (!listener || !events) {
        return refuse("make the socket");
    }
    const PortFolder::Address address = folder.addressOf(file);
    const auto isBound = [&] {
        return bind(listener.get(), reinterpret_cast<const sockaddr*>(&address.address),
                    address.length) == 0;
    };
    // One that is there was left by an owner that died.
    if (!isBound() &&
        (errno != EADDRINUSE || unlinkat(folder.fd(), file.c_str(), 0) != 0 || !isBound())) {
        return refuse("bind");
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kListener;
    if (epoll_ctl(events.get(), EPOLL_CTL_ADD, listener.get(), &event) != 0 ||
        ::listen(listener.get(), kWaitingConnections) != 0) {
        return refuse("listen at");
    }
    // Tells those who watch the folder that the port is there: the file itself was too early.
    (void)!fchmodat(folder.fd(), file.c_str(),
                    seals_ == PortSeals::none ? kTakesUnsealedMode : kTakesSealedMode, 0);
    name_.noteSocket();
    listener_ = std::move(listener);
    events_ = std::move(events);
    return true;
}

bool PortReceiver::take(PortText& out) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (ready_.empty() && !fill()) {
        return false;
    }
    out = std::move(ready_.front());
    ready_.pop_front();
    return true;
}

bool PortReceiver::hasMore() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return hasMoreLocked();
}

bool PortReceiver::tellsAll() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return tendAt_ == 0 || timer_;
}

bool PortReceiver::hasMoreLocked() const {
    return partBytesRead_ >= kPartBytesAtOnce;
}

void PortReceiver::checkSeals(const std::function<std::unique_ptr<PortSeal>()>& make) {
    const std::lock_guard<std::mutex> guard(mutex_);
    makeSeal_ = make;
}

PortStatistics PortReceiver::statistics() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    PortStatistics result = statistics_;
    result.connections = connections_.size();
    return result;
}

// Behind those that may wait to be accepted: the system counts one more than it was told.
PortPlace PortReceiver::placeBehind(int32_t process) const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return {process, accepted_ + kWaitingConnections + 1};
}

bool PortReceiver::isPast(const PortPlace& place) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto waits = [&] { return accepted_ < place.connections && hasNewcomer(); };
    // Not left to the events, among which it comes behind those of everybody's connections.
    if (waits()) {
        acceptAll();
    }
    const auto isOfPlace = [&](int32_t process) {
        return place.process == 0 || process == place.process;
    };
    return !waits() && std::none_of(ready_.begin(), ready_.end(), [&](const PortText& text) {
        return isOfPlace(text.process());
    }) && std::none_of(connections_.begin(), connections_.end(), [&](const auto& numbered) {
        return isOfPlace(numbered.second.process) && hasUnread(numbered.second);
    });
}

// New connections stay in the system's queue meanwhile; being told of them without end would keep
// the processor busy for nothing.
void PortReceiver::pauseListening() {
    epoll_event event{};
    event.data.u64 = kListener;
    if (epoll_ctl(events_.get(), EPOLL_CTL_MOD, listener_.get(), &event) == 0) {
        listenAgain_ = now() + kListeningPauseMilliseconds;
        tendLater(kListeningPauseMilliseconds); // who waits for several ports is told, too
        listeningPaused_.store(true, std::memory_order_relaxed);
    }
}

void PortReceiver::resumeListening() {
    if (!listeningPaused_.load(std::memory_order_relaxed) || now() < listenAgain_) {
        return;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kListener;
    if (epoll_ctl(events_.get(), EPOLL_CTL_MOD, listener_.get(), &event) == 0) {
        listeningPaused_.store(false, std::memory_order_relaxed);
    }
}

// Looks for a text for a moment without giving up the processor.
bool PortReceiver::spin() {
    if (!hasSeveralProcessors()) {
        return false;
    }
    int credit = spinCredit_.load(std::memory_order_relaxed);
    if (credit <= 0) {
        // At the end of the rest one spin may show that times have changed.
        credit = credit == -1 ? 1 : credit + 1;
        spinCredit_.store(credit, std::memory_order_relaxed);
        return false;
    }
    const auto end = Time::now() + kSpin;
    do {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (readHot(1)) {
            spinCredit_.store(kFullSpinCredit, std::memory_order_relaxed);
            return true;
        }
    } while (Time::now() < end);
    spinCredit_.store(credit == 1 ? kSpinRest : credit - 1, std::memory_order_relaxed);
    return false;
}

// What is there at once is drawn by the handful. What had to be waited for comes alone as a rule,
// and looking for a second text would cost a system call.
bool PortReceiver::wait(int64_t timeoutMilliseconds, bool soon) {
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (!ready_.empty()) {
            return true;
        }
        // Who waits for each text would find nothing here, for a fourth of what a wait costs;
        // asking for all connections finds the same. Who has stopped looking looks from time to
        // time, as texts may come faster than they are taken, and then it is done by the handful.
        const bool looks = !std::exchange(isHotEmpty_, false) &&
                           (soon || waits_ < kWaitsWithLook || waits_ % kWaitsWithoutLook == 0);
        if (looks && readHot(kPacketsAtOnce)) {
            waits_ = 0;
            return true;
        }
        ++waits_;
    }
    if (soon && timeoutMilliseconds > 0 && spin()) {
        return true;
    }
    const int64_t end = now() + std::max<int64_t>(timeoutMilliseconds, 0);
    for (int64_t left = std::max<int64_t>(timeoutMilliseconds, 0);; left = end - now()) {
        if (!events_) { // a child after fork: nothing will ever arrive
            std::this_thread::sleep_for(std::chrono::milliseconds(std::max<int64_t>(left, 0)));
            return false;
        }
        int64_t slice = std::clamp<int64_t>(left, 0, kLongestSliceMilliseconds);
        if (listeningPaused_.load(std::memory_order_relaxed)) { // nobody reports new connections
            slice = std::min(slice, kListeningPauseMilliseconds);
        }
        epoll_event events[kEventsAtOnce];
        const int count = epoll_wait(events_.get(), events, kEventsAtOnce, static_cast<int>(slice));
        const std::lock_guard<std::mutex> guard(mutex_);
        resumeListening();
        readEvents(events, count, 1);
        if (!ready_.empty() || (count > 0 && fill())) {
            return true;
        }
        if (left <= 0) {
            return false;
        }
    }
}

} // namespace platform
