#include "platform/linux/PortReceiver.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <set>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/PortPacket.h"

namespace platform {
namespace {

using Time = std::chrono::steady_clock;

constexpr uint64_t kListener = 0; // among the events; connections are numbered from 1

// A process has one connection to us for each copy of the layer in it.
constexpr size_t kMaximumConnectionsOfProcess = limits::of("port.connections.process");
// Half of the descriptors that a process may open as a rule; the host needs some for itself.
constexpr size_t kMaximumConnections = limits::of("port.connections");
// Announced bytes of half-sent texts: two of the largest a process, eight in all.
constexpr size_t kMaximumHalfSentOfProcess = limits::of("port.half-sent.process");
constexpr size_t kMaximumHalfSent = limits::of("port.half-sent");
// What one call draws ahead of its caller: some packets of some connections.
constexpr int kEventsAtOnce = 8;
constexpr int kPacketsAtOnce = 16;
constexpr int kAcceptsAtOnce = 64;
constexpr int kRoundsAtOnce = 64; // more than it takes to see the end of all connections
// The others are looked at again after so many texts of the same connection.
constexpr uint32_t kHotRuns = 8;
constexpr int64_t kListeningPauseMilliseconds = limits::of("port.accept-pause");
constexpr int64_t kLongestSliceMilliseconds = limits::of("port.wait");
constexpr int kLockAttempts = limits::of("port.claims");

// About what going to sleep and being woken costs, and so what it may save at most. One that finds
// nothing costs more than it can save, so it is given up after some of them, and tried again from
// time to time.
constexpr auto kSpin = std::chrono::microseconds(60);
constexpr int kFullSpinCredit = 8;
constexpr int kSpinRest = -64;

bool hasSeveralProcessors() {
    static const bool several = [] {
        cpu_set_t set;
        return sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 1;
    }();
    return several;
}

int64_t now() {
    return Clock::own().monotonicMilliseconds();
}

} // namespace

// The ports that are open. A process that ends without closing them removes their files all the
// same, so that they do not pile up; its names are free in any case. Files come and go under one
// lock, and none come once the process has begun to end: another thread may be opening a port then.
class PortReceiver::OpenPorts {
public:
    static OpenPorts& instance() {
        static auto* const ports = [] {
            auto* const created = new OpenPorts;
            (void)std::atexit([] { instance().end(); }); // else the files stay
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
        if (ended_ || !port->lockName()) {
            return false;
        }
        ports_.insert(port);
        return port->listen();
    }
    void close(PortReceiver* port) {
        const std::lock_guard<std::mutex> guard(mutex_);
        ports_.erase(port);
        port->removeFiles();
    }

    std::vector<std::string> lostFiles() {
        const std::lock_guard<std::mutex> guard(mutex_);
        std::vector<std::string> files;
        for (const PortReceiver* port : ports_) {
            if (!ended_ && !port->holdsLockFile()) {
                files.push_back(port->lockPath());
            }
        }
        return files;
    }

private:
    void end() {
        const std::lock_guard<std::mutex> guard(mutex_);
        ended_ = true;
        for (const PortReceiver* port : ports_) {
            port->removeFiles();
        }
    }

    std::mutex mutex_;
    std::set<PortReceiver*> ports_;
    bool ended_ = false;
};

PortReceiver::PortReceiver(PortFolder folder, std::string fileName)
    : folder_(std::move(folder)),
      fileName_(std::move(fileName)),
      buffer_(new unsigned char[PortPacket::kHeaderBytes + PortPacket::kMaximumWholeBytes]),
      spinCredit_(kFullSpinCredit) {}

std::unique_ptr<PortReceiver> PortReceiver::open(const std::string& name) {
    PortFolder folder;
    if (name.empty() || name.find('\0') != std::string::npos ||
        folder.open(PortFolder::Use::create) != PortFolder::State::usable) {
        return nullptr;
    }
    std::unique_ptr<PortReceiver> port(new PortReceiver(std::move(folder), portFileName(name)));
    return OpenPorts::instance().open(port.get()) ? std::move(port) : nullptr;
}

std::string PortReceiver::lockPath() const {
    return folder_.path() + "/" + fileName_ + kLockEnding;
}

void PortReceiver::reportLost() {
    for (const std::string& file : OpenPorts::instance().lostFiles()) {
        Log::system().problem(file +
                              " was removed: no other process finds this port until this one "
                              "is started again");
    }
}

PortReceiver::~PortReceiver() {
    OpenPorts::instance().close(this);
}

void PortReceiver::removeFiles() const {
    // In a child after fork the descriptors are gone and the files are the parent's; files that
    // somebody has put in the place of ours are theirs.
    if (lock_ && holdsLockFile()) {
        (void)unlinkat(folder_.fd(), (fileName_ + kSocketEnding).c_str(), 0);
        // Last, and while it is still held: whoever opened it before sees that it is gone.
        (void)unlinkat(folder_.fd(), (fileName_ + kLockEnding).c_str(), 0);
    }
}

// True when the file that is locked is still the one at the name.
bool PortReceiver::holdsLockFile() const {
    struct stat locked {};
    struct stat current {};
    return fstat(lock_.get(), &locked) == 0 &&
           fstatat(folder_.fd(), (fileName_ + kLockEnding).c_str(), &current,
                   AT_SYMLINK_NOFOLLOW) == 0 &&
           current.st_ino == locked.st_ino && current.st_dev == locked.st_dev;
}

// Becomes the owner of the name, or not; reports only what is wrong with the folder.
bool PortReceiver::lockName() {
    const std::string file = fileName_ + kLockEnding;
    for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
        PortDescriptor lock(openat(folder_.fd(), file.c_str(),
                                   O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
        struct stat status {};
        if (!lock || fstat(lock.get(), &status) != 0) {
            Log::system().problem("cannot open " + folder_.path() + "/" + file + ": " +
                                  systemReason());
            return false;
        }
        if (!S_ISREG(status.st_mode) || status.st_uid != geteuid()) {
            Log::system().problem("refused " + folder_.path() + "/" + file +
                                  ": not a file of this user's own");
            return false;
        }
        // Held by the open file, not by the process: a second port of this process is refused too,
        // and closing any other descriptor of the file does not release it.
        struct flock whole {};
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        if (fcntl(lock.get(), F_OFD_SETLK, &whole) != 0) {
            if (errno != EAGAIN && errno != EACCES) {
                Log::system().problem("cannot lock " + folder_.path() + "/" + file + ": " +
                                      systemReason());
            }
            return false;
        }
        // An owner that ends removes its file, and a lock on a removed file is worth nothing.
        lock_ = std::move(lock);
        if (holdsLockFile()) {
            return true;
        }
        lock_.reset();
    }
    return false;
}

bool PortReceiver::listen() {
    const std::string file = fileName_ + kSocketEnding;
    const auto refuse = [&](const char* what) {
        Log::system().problem(std::string("cannot ") + what + " " + folder_.path() + "/" + file +
                              ": " + systemReason());
        return false;
    };
    PortDescriptor listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    PortDescriptor events(epoll_create1(EPOLL_CLOEXEC));
    if (!listener || !events) {
        return refuse("make the socket");
    }
    (void)unlinkat(folder_.fd(), file.c_str(), 0); // left by an owner that died
    const PortFolder::Address address = folder_.addressOf(file);
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address.address), address.length) !=
        0) {
        return refuse("bind");
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kListener;
    if (epoll_ctl(events.get(), EPOLL_CTL_ADD, listener.get(), &event) != 0 ||
        ::listen(listener.get(), SOMAXCONN) != 0) {
        return refuse("listen at");
    }
    // Tells those who watch the folder that the port is there: the file itself was too early.
    (void)!fchmodat(folder_.fd(), file.c_str(), S_IRUSR | S_IWUSR, 0);
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

PortStatistics PortReceiver::statistics() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    PortStatistics result = statistics_;
    result.connections = connections_.size();
    return result;
}

// Reads on from the connection that brought the last text, without asking for the others: a
// conversation goes to and fro on one. Not so often that the others would have to wait for long.
bool PortReceiver::readHot(int packets) {
    const auto hot = connections_.find(hot_);
    if (hot != connections_.end() && !hot->second.mustWait && ++hotRuns_ % kHotRuns != 0) {
        read(hot, packets);
    }
    return !ready_.empty();
}

// Draws what has arrived, within bounds; true when a text is ready.
bool PortReceiver::fill() {
    if (readHot(kPacketsAtOnce)) {
        return true;
    }
    resumeListening();
    // What is reported first may be new connections, whose texts are then reported, or ends.
    for (int round = 0; round < kRoundsAtOnce; ++round) {
        epoll_event events[kEventsAtOnce];
        const int count = epoll_wait(events_.get(), events, kEventsAtOnce, 0);
        readEvents(events, count, kPacketsAtOnce);
        if (!ready_.empty() || count <= 0) {
            break;
        }
    }
    return !ready_.empty();
}

void PortReceiver::readEvents(const epoll_event* events, int count, int packets) {
    for (int i = 0; i < count; ++i) {
        const uint64_t number = events[i].data.u64; // a copy: the system packs its structure
        if (number == kListener) {
            acceptAll();
            continue;
        }
        // An earlier event of these may have closed it.
        const auto connection = connections_.find(number);
        if (connection != connections_.end() && olderOnesAreRead(connection)) {
            read(connection, packets);
        }
    }
}

void PortReceiver::acceptAll() {
    for (int i = 0; i < kAcceptsAtOnce; ++i) {
        PortDescriptor socket(
            accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                Log::system().problem("cannot accept a connection: " + systemReason());
                pauseListening();
            }
            return;
        }
        int32_t process = 0;
        if (!isOwnPeer(socket.get(), process)) {
            ++statistics_.strangers;
            continue;
        }
        if (!makeRoom(process)) {
            ++statistics_.overLimit;
            continue;
        }
        admit(std::move(socket), process);
    }
}

void PortReceiver::admit(PortDescriptor socket, int32_t process) {
    const uint64_t number = ++lastNumber_;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = number;
    if (epoll_ctl(events_.get(), EPOLL_CTL_ADD, socket.get(), &event) != 0) {
        Log::system().problem("cannot watch a connection: " + systemReason());
        return;
    }
    Connection connection;
    connection.socket = std::move(socket);
    connection.process = process;
    connection.lastText = lastText_;
    // A process that closed one connection before it made this one wants them read in that order.
    for (auto& [olderNumber, older] : connections_) {
        pollfd end = {older.socket.get(), POLLRDHUP, 0};
        if (older.process == process && poll(&end, 1, 0) > 0) {
            older.hungUp = true;
            connection.mustWait = true;
        }
    }
    connections_.emplace(number, std::move(connection));
}

bool PortReceiver::olderOnesAreRead(Connections::iterator connection) {
    if (!connection->second.mustWait) {
        return true;
    }
    for (auto older = connections_.begin(); older != connection;) {
        const auto next = std::next(older);
        if (older->second.process == connection->second.process && older->second.hungUp) {
            const uint64_t number = older->first;
            read(older, kPacketsAtOnce);
            if (connections_.count(number) != 0) {
                return false; // it had more than one call reads
            }
        }
        older = next;
    }
    connection->second.mustWait = false;
    return true;
}

// Keeps the number of connections within bounds by closing the one that was quiet the longest, of
// the process that has too many or of all. No text is lost by that: its sender cannot send any more
// from the first step on, what it had sent is read in the second, and its next send finds the
// connection closed and makes a new one. False when all have sent half a text.
bool PortReceiver::makeRoom(int32_t process) {
    const auto ofProcess = static_cast<size_t>(
        std::count_if(connections_.begin(), connections_.end(),
                      [process](const auto& c) { return c.second.process == process; }));
    const bool tooManyOfProcess = ofProcess >= kMaximumConnectionsOfProcess;
    if (!tooManyOfProcess && connections_.size() < kMaximumConnections) {
        return true;
    }
    auto quiet = connections_.end();
    for (auto i = connections_.begin(); i != connections_.end(); ++i) {
        const Connection& c = i->second;
        if (c.part.size() == 0 && (!tooManyOfProcess || c.process == process) &&
            (quiet == connections_.end() || c.lastText < quiet->second.lastText)) {
            quiet = i;
        }
    }
    if (quiet == connections_.end()) {
        return false;
    }
    (void)shutdown(quiet->second.socket.get(), SHUT_RD);
    const uint64_t number = quiet->first;
    while (connections_.count(number) != 0) { // what was sent ends with the sender's buffer
        read(quiet, kPacketsAtOnce);
    }
    return true;
}

void PortReceiver::read(Connections::iterator connection, int packets) {
    const size_t before = ready_.size();
    const Reading reading = readPackets(connection->second, packets);
    if (ready_.size() != before) {
        hot_ = connection->first;
        connection->second.lastText = lastText_ = lastText_ + 1;
    }
    if (reading == Reading::closed) {
        announcedBytes_ -= connection->second.part.size();
        // Not left to the closing: a child that was not born by fork may hold it open.
        (void)epoll_ctl(events_.get(), EPOLL_CTL_DEL, connection->second.socket.get(), nullptr);
        connections_.erase(connection);
    }
}

PortReceiver::Reading PortReceiver::readPackets(Connection& connection, int packets) {
    for (; packets > 0; --packets) {
        iovec place = {buffer_.get(), PortPacket::kHeaderBytes + PortPacket::kMaximumWholeBytes};
        if (connection.part.size() != 0) {
            place = {connection.part.data() + connection.received,
                     connection.part.size() - connection.received};
        }
        msghdr message{};
        message.msg_iov = &place;
        message.msg_iovlen = 1;
        const ssize_t bytes = recvmsg(connection.socket.get(), &message, MSG_DONTWAIT);
        if (bytes < 0) {
            if (errno == EINTR || errno == ECONNRESET) {
                continue; // what was sent before the reset can still be read
            }
            return errno == EAGAIN ? Reading::open : Reading::closed;
        }
        // No room is given for descriptors, so the system has closed those that came.
        if ((message.msg_flags & MSG_CTRUNC) != 0) {
            ++statistics_.descriptors;
            return Reading::closed;
        }
        if (bytes == 0) {
            return Reading::closed; // the end; no packet of ours is empty
        }
        if ((message.msg_flags & MSG_TRUNC) != 0) {
            ++statistics_.malformed;
            return Reading::closed;
        }
        const bool inParts = connection.part.size() != 0;
        if (takePacket(connection, static_cast<size_t>(bytes)) == Reading::closed) {
            return Reading::closed;
        }
        if (inParts && connection.part.size() == 0) {
            break; // memory for the next large text only when this one has been taken
        }
    }
    return Reading::open;
}

PortReceiver::Reading PortReceiver::takePacket(Connection& connection, size_t bytes) {
    if (connection.part.size() != 0) {
        connection.received += bytes;
        if (connection.received == connection.part.size()) {
            announcedBytes_ -= connection.part.size();
            ++statistics_.texts;
            statistics_.bytes += connection.part.size();
            ready_.push_back(std::move(connection.part));
            connection.received = 0;
        }
        return Reading::open;
    }
    PortPacket packet;
    if (!packet.read(buffer_.get(), bytes)) {
        ++statistics_.malformed;
        return Reading::closed;
    }
    const size_t textBytes = bytes - PortPacket::kHeaderBytes;
    if (packet.kind == PortPacket::whole) {
        PortText text;
        if (packet.length != textBytes || !text.allocate(textBytes)) {
            ++statistics_.malformed;
            return Reading::closed;
        }
        std::memcpy(text.data(), buffer_.get() + PortPacket::kHeaderBytes, textBytes);
        ++statistics_.texts;
        statistics_.bytes += textBytes;
        ready_.push_back(std::move(text));
        return Reading::open;
    }
    if (textBytes != 0 || packet.length == 0 || packet.length > MessagePorts::kMaximumTextBytes) {
        ++statistics_.malformed;
        return Reading::closed;
    }
    if (!startPart(connection, static_cast<size_t>(packet.length))) {
        ++statistics_.overLimit;
        return Reading::closed;
    }
    return Reading::open;
}

// Room for an announced text. The system gives memory as it is written to, so an announcement
// alone costs addresses only; those are counted.
bool PortReceiver::startPart(Connection& connection, size_t length) {
    size_t ofProcess = length;
    for (const auto& [number, other] : connections_) {
        ofProcess += other.process == connection.process ? other.part.size() : 0;
    }
    if (ofProcess > kMaximumHalfSentOfProcess || announcedBytes_ + length > kMaximumHalfSent ||
        !connection.part.allocate(length)) {
        return false;
    }
    announcedBytes_ += connection.part.size();
    connection.received = 0;
    return true;
}

// New connections stay in the system's queue meanwhile; being told of them without end would keep
// the processor busy for nothing.
void PortReceiver::pauseListening() {
    epoll_event event{};
    event.data.u64 = kListener;
    if (epoll_ctl(events_.get(), EPOLL_CTL_MOD, listener_.get(), &event) == 0) {
        listenAgain_ = now() + kListeningPauseMilliseconds;
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
        if (!ready_.empty() || readHot(kPacketsAtOnce)) {
            return true;
        }
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
