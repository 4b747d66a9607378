#include "platform/linux/PortSender.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <linux/sockios.h>
#include <new>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "limits/Limits.h"
#include "platform/Log.h"
#include "platform/linux/Deadline.h"
#include "platform/linux/PortDescriptor.h"
#include "platform/linux/PortFolder.h"
#include "platform/linux/PortName.h"
#include "platform/linux/PortWriter.h"

namespace platform {
namespace {

using Time = Deadline::Time;

constexpr size_t kMaximumKept = limits::of("port.kept");
// While the system is short of memory, or of places in a target's queue of new connections, there
// is nothing to wait for but time.
constexpr auto kPause = std::chrono::milliseconds(1);
constexpr auto kOpeningTime = std::chrono::milliseconds(limits::of("port.opening"));
constexpr auto kLookPause = std::chrono::microseconds(limits::of("port.look-pause"));
constexpr auto kFolderLookPause = std::chrono::milliseconds(limits::of("port.look-folder"));

} // namespace

// One connection, used by one send at a time. Its socket is opened by the first send and again when
// the target has been replaced by another owner of the name.
class PortSender::Connection : public std::enable_shared_from_this<Connection> {
public:
    explicit Connection(const std::string& name)
        : name_(name), socketFile_(portFileName(name) + kSocketEnding) {}

    // Waits for the other sends to this target; false when the time is up.
    [[nodiscard]] bool takeTurn(Deadline& deadline) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (busy_) {
            if (!turn_.wait_until(lock, deadline.end(), [this] { return !busy_; })) {
                return false;
            }
            deadline.goOn();
        }
        busy_ = true;
        return true;
    }
    void giveTurn() {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            busy_ = false;
        }
        // Without the lock, which the woken one would only run into.
        turn_.notify_one();
    }

    // With the turn only.
    SendResult send(const PortPieces& text, Deadline& deadline);
    bool isOpen() const { return static_cast<bool>(socket_); }
    std::shared_ptr<Watch> watch();

    // With the turn, or when nobody can have it. Whether the target lives and has not read
    // everything that went here.
    bool hasUnread() const;

    // Any thread. True when `owner` is at the other end no more and does not have the name either.
    bool hasLost(const PortIncarnation& owner);
    void report(int events, uint64_t kind, const PortIncarnation& owner);

private:
    using Outcome = PortWriter::Outcome;

    bool hasSuccessor(Time::time_point now);
    SendResult open(Deadline& deadline);
    SendResult openOnce(Deadline& deadline, bool& mayBeStarting);
    void close();
    bool closeBrokenOff(Deadline& deadline);

    const std::string name_;
    const std::string socketFile_;

    std::mutex mutex_;
    std::condition_variable turn_;
    bool busy_ = false;

    // What follows belongs to whoever has the turn. The first two are read by others, too, so
    // they change with this mutex held only.
    std::mutex peerMutex_;
    PortDescriptor socket_;
    PortIncarnation owner_;
    int32_t process_ = 0; // the owner's
    std::weak_ptr<Watch> watch_;
    PortFolder folder_; // in which the owner was found
    Time::time_point lookedAt_;
    Time::time_point folderLookedAt_;
    bool brokenOff_ = false; // in the middle of a text that will not be completed
    PortWriter writer_;
};

class PortSender::Watch final : public TargetWatch {
public:
    Watch(std::shared_ptr<Connection> connection, const PortIncarnation& owner, int32_t process)
        : connection_(std::move(connection)), owner_(owner), process_(process) {}

    bool ended() override {
        if (!ended_.load(std::memory_order_relaxed) && connection_->hasLost(owner_)) {
            ended_.store(true, std::memory_order_relaxed);
        }
        return ended_.load(std::memory_order_relaxed);
    }
    int32_t process() const override { return process_; }
    void report(int events, uint64_t kind) { connection_->report(events, kind, owner_); }
    bool isOf(const PortIncarnation& owner) const { return owner_ == owner; }

private:
    const std::shared_ptr<Connection> connection_; // in use by this, so it stays
    const PortIncarnation owner_;
    const int32_t process_;
    std::atomic<bool> ended_{false};
};

void PortSender::report(TargetWatch& watch, int events, uint64_t kind) {
    static_cast<Watch&>(watch).report(events, kind);
}

SendResult PortSender::Connection::send(const PortPieces& text, Deadline& deadline) {
    if (brokenOff_ && !closeBrokenOff(deadline)) {
        return SendResult::timedOut;
    }
    for (;;) {
        if (socket_ && hasSuccessor(deadline.seen())) {
            close();
        }
        // A connection that was kept may have been closed by the target for good reasons, so its
        // loss says nothing about the target and is tried again at once.
        const bool fresh = !socket_;
        if (fresh) {
            const SendResult opened = open(deadline);
            if (opened != SendResult::delivered) {
                return opened;
            }
        }
        const Outcome outcome = writer_.send(text, owner_.seals, deadline);
        if (outcome == Outcome::done) {
            return SendResult::delivered;
        }
        if (outcome == Outcome::timedOut || outcome == Outcome::brokenOff) {
            brokenOff_ = outcome == Outcome::brokenOff; // stays open for now, see closeBrokenOff
            return SendResult::timedOut;
        }
        close();
        if (outcome == Outcome::failed) {
            errno = writer_.lastError();
            Log::system().problem("cannot send to port " + name_ + ": " + systemReason());
            return SendResult::failed;
        }
        // The target has ended, which the next attempt finds, or made room for somebody else.
        if (fresh) {
            if (deadline.passed()) {
                return SendResult::timedOut;
            }
            std::this_thread::sleep_for(kPause);
        }
    }
}

// Whether the name has another owner by now: something may keep the socket of an owner that has
// ended open, and what is sent there is lost. To open a port takes longer than the pause between
// two looks, so an owner that this process can know of is always noticed.
bool PortSender::Connection::hasSuccessor(Time::time_point now) {
    if (now - lookedAt_ < kLookPause) {
        return false;
    }
    lookedAt_ = now;
    // One question, in the folder that the owner was found in, answers nearly every look; whether
    // that is still the user's folder takes several and is asked now and then.
    PortIncarnation current;
    if (now - folderLookedAt_ < kFolderLookPause &&
        findIncarnation(folder_, socketFile_, current) && current == owner_) {
        return false;
    }
    folderLookedAt_ = now;
    PortFolder folder; // perhaps another one by now
    return folder.open(PortFolder::Use::ifThere) == PortFolder::State::usable &&
           findIncarnation(folder, socketFile_, current) && !(current == owner_);
}

void PortSender::Connection::close() {
    const std::lock_guard<std::mutex> guard(peerMutex_);
    socket_.reset();
}

std::shared_ptr<PortSender::Watch> PortSender::Connection::watch() {
    std::shared_ptr<Watch> watch = watch_.lock();
    if (watch == nullptr || !watch->isOf(owner_)) {
        watch = std::make_shared<Watch>(shared_from_this(), owner_, process_);
        watch_ = watch;
    }
    return watch;
}

bool PortSender::Connection::hasLost(const PortIncarnation& owner) {
    {
        const std::lock_guard<std::mutex> guard(peerMutex_);
        pollfd end = {socket_.get(), POLLRDHUP, 0};
        if (socket_ && owner == owner_ && poll(&end, 1, 0) == 0) {
            return false;
        }
    }
    PortFolder folder;
    // That the connection has ended proves nothing: its owner may have closed it to make room. So
    // the name is asked.
    const PortFolder::State state = folder.open(PortFolder::Use::ifThere);
    if (state != PortFolder::State::usable) {
        return state == PortFolder::State::missing;
    }
    PortIncarnation current;
    // Asked before the lock: where another owner has the name, that one holds it.
    if (findIncarnation(folder, socketFile_, current) && !(current == owner)) {
        return true;
    }
    return portState(folder, portFileName(name_)) == PortState::free;
}

void PortSender::Connection::report(int events, uint64_t kind, const PortIncarnation& owner) {
    const std::lock_guard<std::mutex> guard(peerMutex_);
    if (socket_ && owner == owner_) {
        epoll_event event{};
        event.events = EPOLLRDHUP | EPOLLET; // of its end alone, and once
        event.data.u64 = kind;
        (void)epoll_ctl(events, EPOLL_CTL_ADD, socket_.get(), &event); // there already, or polled
    }
}

// An owner that is about to start has the name before it listens: who looks just then must not hear
// that nobody is there.
SendResult PortSender::Connection::open(Deadline& deadline) {
    const Time::time_point end = std::min(deadline.end(), Time::now() + kOpeningTime);
    for (;;) {
        bool mayBeStarting = false;
        const SendResult result = openOnce(deadline, mayBeStarting);
        if (!mayBeStarting || Time::now() >= end) {
            return result;
        }
        std::this_thread::sleep_for(kPause);
    }
}

SendResult PortSender::Connection::openOnce(Deadline& deadline, bool& mayBeStarting) {
    PortFolder folder;
    const PortFolder::State state = folder.open(PortFolder::Use::ifThere);
    if (state != PortFolder::State::usable) {
        return state == PortFolder::State::missing ? SendResult::noReceiver : SendResult::failed;
    }
    // Something may keep the socket of a dead owner alive; nobody can keep its lock.
    const PortState ownership = portState(folder, portFileName(name_));
    if (ownership != PortState::owned) {
        return ownership == PortState::free ? SendResult::noReceiver : SendResult::failed;
    }
    // Before the connection is made: a successor that comes between the two is noticed then.
    PortIncarnation owner;
    if (!findIncarnation(folder, socketFile_, owner)) {
        mayBeStarting = errno == ENOENT;
        return mayBeStarting ? SendResult::noReceiver : SendResult::failed;
    }
    PortDescriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) {
        Log::system().problem("cannot make a socket: " + systemReason());
        return SendResult::failed;
    }
    writer_.prepare(socket.get());

    const PortFolder::Address address = folder.addressOf(socketFile_);
    while (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address.address),
                   address.length) != 0) {
        if (errno == EAGAIN || errno == EINTR) { // its queue of new connections is full
            if (deadline.passed()) {
                return SendResult::timedOut;
            }
            std::this_thread::sleep_for(kPause);
            continue;
        }
        // The target ended between the look at its lock and here, or does not listen yet.
        if (errno == ENOENT || errno == ECONNREFUSED) {
            mayBeStarting = true;
            return SendResult::noReceiver;
        }
        Log::system().problem("cannot connect to port " + name_ + ": " + systemReason());
        return SendResult::failed;
    }
    // A link in the place of the socket may have led to anybody's.
    int32_t process = 0;
    if (!isOwnPeer(socket.get(), process)) {
        Log::system().problem("port " + name_ + " belongs to another user");
        return SendResult::failed;
    }
    // A successor that wants seals must not be sent a text without.
    PortIncarnation current;
    if (owner.seals == PortSeals::none &&
        (!findIncarnation(folder, socketFile_, current) || !(current == owner))) {
        mayBeStarting = true;
        return SendResult::noReceiver;
    }
    const std::lock_guard<std::mutex> guard(peerMutex_);
    socket_ = std::move(socket);
    owner_ = owner;
    process_ = process;
    folder_ = std::move(folder);
    // The next send looks at once: the socket may have changed hands before the connection was
    // made.
    lookedAt_ = folderLookedAt_ = Time::time_point();
    return SendResult::delivered;
}

bool PortSender::Connection::hasUnread() const {
    int unread = 0;
    pollfd end = {socket_.get(), 0, 0}; // only its end is reported
    return socket_ && ioctl(socket_.get(), SIOCOUTQ, &unread) == 0 && unread != 0 &&
           poll(&end, 1, 0) == 0;
}

// Closes a connection that a text was broken off on, so that the receiver drops the part, but only
// when it has read all of that part: for a receiver that reads nothing, each new connection would
// keep as much again in the system's memory. False when the time is up.
bool PortSender::Connection::closeBrokenOff(Deadline& deadline) {
    for (;;) {
        if (!hasUnread()) {
            close();
            brokenOff_ = false;
            return true;
        }
        if (deadline.passed()) {
            return false;
        }
        std::this_thread::sleep_for(kPause);
    }
}

PortSender::PortSender() = default;

PortSender::~PortSender() = default;

std::shared_ptr<PortSender::Connection> PortSender::connectionTo(const std::string& name) {
    std::shared_ptr<Connection> closed; // outside of the lock
    const std::lock_guard<std::mutex> guard(mutex_);
    if (last_ == nullptr || last_->first != name) {
        last_ = &*cache_.try_emplace(name).first;
    }
    Entry& entry = last_->second;
    entry.lastUse = ++uses_;
    if (entry.connection == nullptr) {
        entry.connection = std::make_shared<Connection>(name);
    }
    std::shared_ptr<Connection> found = entry.connection;
    if (cache_.size() > kMaximumKept) {
        // Not one that a send is using: its next one would overtake what it is sending. Nor one
        // whose target has not read it all: for a target that reads nothing, each new connection
        // would take, and keep in the system's memory, as much again.
        auto oldest = cache_.end();
        for (auto i = cache_.begin(); i != cache_.end(); ++i) {
            if (i->second.connection.use_count() == 1 &&
                (oldest == cache_.end() || i->second.lastUse < oldest->second.lastUse) &&
                !i->second.connection->hasUnread()) {
                oldest = i;
            }
        }
        // Where all are in use, by sends or by watches over a target, or not read, there are more
        // than the bound for a while.
        if (oldest != cache_.end()) {
            closed = std::move(oldest->second.connection);
            cache_.erase(oldest); // not the last one, which is in use here
        }
    }
    return found;
}

void PortSender::forget(const std::string& name, const std::shared_ptr<Connection>& connection) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto found = cache_.find(name);
    // Others that wait for their turn go on with the connection that they have.
    if (found != cache_.end() && found->second.connection == connection &&
        connection.use_count() == 2) {
        last_ = nullptr;
        cache_.erase(found);
    }
}

void PortSender::closeIdle() {
    std::vector<std::shared_ptr<Connection>> closed; // outside of the lock
    const std::lock_guard<std::mutex> guard(mutex_);
    last_ = nullptr;
    for (auto i = cache_.begin(); i != cache_.end();) {
        if (i->second.connection.use_count() == 1) {
            closed.push_back(std::move(i->second.connection));
            i = cache_.erase(i);
        } else {
            ++i;
        }
    }
}

SendResult PortSender::send(const std::string& name, const PortPieces& text, SendTime time,
                            std::shared_ptr<TargetWatch>* taker) {
    // A name that nobody can own has no receiver.
    if (name.empty() || name.find('\0') != std::string::npos) {
        return SendResult::noReceiver;
    }
    size_t bytes = text.size();
    if (text.seal != nullptr && bytes <= MessagePorts::kMaximumTextBytes &&
        bytes > MessagePorts::kMaximumTextBytes - PortSeal::kMaximumBytes) {
        bytes += text.sealed().size();
    }
    if (bytes > MessagePorts::kMaximumTextBytes) {
        return SendResult::tooLarge;
    }
    Deadline deadline(time);
    const std::shared_ptr<Connection> connection = connectionTo(name);
    if (!connection->takeTurn(deadline)) {
        return SendResult::timedOut;
    }
    // Given back also when memory runs out on the way: all who send here would wait for it.
    const std::unique_ptr<Connection, void (*)(Connection*)> turn(
        connection.get(), [](Connection* taken) { taken->giveTurn(); });
    const SendResult result = connection->send(text, deadline);
    if (taker != nullptr && result == SendResult::delivered) {
        try {
            *taker = connection->watch();
        } catch (const std::bad_alloc&) {
            taker->reset(); // delivered all the same
        }
    }
    if (!connection->isOpen()) {
        forget(name, connection); // names that nobody owns must not fill the cache
    }
    return result;
}

} // namespace platform
