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
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <unordered_map>
#include <vector>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/PortPacket.h"

namespace platform {
namespace {

using Time = std::chrono::steady_clock;

constexpr uint64_t kListener = 0; // among the events; connections are numbered from 1
// Above every number that a connection can reach.
constexpr uint64_t kTimer = UINT64_MAX;

// A process has one connection to us for each copy of the layer in it.
constexpr size_t kMaximumConnectionsOfProcess = limits::of("port.connections.process");
// Half of the descriptors that a process may open as a rule; the host needs some for itself.
constexpr size_t kMaximumConnections = limits::of("port.connections");
constexpr int64_t kStalledMilliseconds = limits::of("port.half-sent.stalled");
constexpr int64_t kHalfSentMilliseconds = limits::of("port.half-sent.age");
constexpr size_t kProgressBytes = limits::of("port.half-sent.progress");
// Announced bytes of half-sent texts: two of the largest a process, eight in all.
constexpr size_t kMaximumHalfSentOfProcess = limits::of("port.half-sent.process");
constexpr size_t kMaximumHalfSent = limits::of("port.half-sent");
// What one call draws ahead of its caller: some packets of some connections.
constexpr int kEventsAtOnce = 8;
constexpr int kPacketsAtOnce = 16;
constexpr int kAcceptsAtOnce = 64;
constexpr int kRoundsAtOnce = 64; // more than it takes to see the end of all connections
// Of large texts; then the caller goes on, since one takes as long as its sender has bytes for it.
constexpr size_t kPartBytesAtOnce = limits::of("receive.bytes");
// The others are looked at again after so many texts of the same connection.
constexpr uint32_t kHotRuns = 8;
constexpr int64_t kListeningPauseMilliseconds = limits::of("port.accept-pause");
constexpr int64_t kLongestSliceMilliseconds = limits::of("port.wait");

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

    std::vector<std::string> lostFiles() {
        const std::lock_guard<std::mutex> guard(mutex_);
        std::vector<std::string> files;
        for (PortReceiver* port : ports_) {
            const PortName& name = port->name_;
            const bool locked = name.holdsLockFile();
            if (!ended_ && (!locked || !name.holdsSocket()) &&
                !port->lossIsReported_.exchange(true)) {
                files.push_back(name.folder().path() + "/" +
                                (locked ? name.socketFile() : name.lockFile()));
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
    std::set<PortReceiver*> ports_;
    bool ended_ = false;
};

PortReceiver::PortReceiver(PortFolder folder, const std::string& name)
    : name_(std::move(folder), name),
      buffer_(new unsigned char[PortPacket::kHeaderBytes + PortPacket::kMaximumWholeBytes]),
      spinCredit_(kFullSpinCredit) {}

std::unique_ptr<PortReceiver> PortReceiver::open(const std::string& name) {
    PortFolder folder;
    if (name.empty() || name.find('\0') != std::string::npos ||
        folder.open(PortFolder::Use::create) != PortFolder::State::usable) {
        return nullptr;
    }
    std::unique_ptr<PortReceiver> port(new PortReceiver(std::move(folder), name));
    return OpenPorts::instance().open(port.get()) ? std::move(port) : nullptr;
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

// Nothing can be sent to this port from now on. The sockets themselves stay: another thread may be
// reading from them.
void PortReceiver::deafen() {
    const std::lock_guard<std::mutex> guard(mutex_);
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
    (void)unlinkat(folder.fd(), file.c_str(), 0); // left by an owner that died
    const PortFolder::Address address = folder.addressOf(file);
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
    // Tells those who watch the folder that the port is there: the file itself was too early. The
    // mark keeps cleaners of old files off.
    (void)!fchmodat(folder.fd(), file.c_str(), S_ISVTX | S_IRUSR | S_IWUSR, 0);
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

bool PortReceiver::hasMoreLocked() const {
    return partBytesRead_ >= kPartBytesAtOnce;
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
    if (hot != connections_.end() && !hot->second.mustWait && hot->second.waiting == 0 &&
        !isHeld(hot->second) && ++hotRuns_ % kHotRuns != 0) {
        read(hot, packets);
    }
    return !ready_.empty();
}

// Draws what has arrived, within bounds; true when a text is ready.
bool PortReceiver::fill() {
    partBytesRead_ = 0;
    if (readHot(kPacketsAtOnce)) {
        return true;
    }
    resumeListening();
    if (tendAt_ != 0 && now() >= tendAt_) {
        tend();
    }
    // What is reported first may be new connections, whose texts are then reported, or ends.
    for (int round = 0; round < kRoundsAtOnce; ++round) {
        epoll_event events[kEventsAtOnce];
        const int count = epoll_wait(events_.get(), events, kEventsAtOnce, 0);
        readEvents(events, count, kPacketsAtOnce);
        if (!ready_.empty() || count <= 0 || hasMoreLocked()) {
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
        if (number == kTimer) {
            uint64_t times = 0;
            (void)!::read(timer_.get(), &times, sizeof times);
            tend();
            continue;
        }
        // An earlier event of these may have closed it.
        const auto connection = connections_.find(number);
        if (connection != connections_.end() && !isHeld(connection->second) &&
            olderOnesAreRead(connection)) {
            read(connection, packets);
        }
    }
}

void PortReceiver::acceptAll() {
    for (int i = 0; i < kAcceptsAtOnce; ++i) {
        if (connections_.size() >= kMaximumConnections) {
            pollfd newcomer = {listener_.get(), POLLIN, 0};
            if (poll(&newcomer, 1, 0) <= 0) {
                return; // nobody is closed for a newcomer that does not come
            }
            if (!makeRoom(0)) {
                pauseListening(); // what newcomers have sent waits with them
                return;
            }
        }
        PortDescriptor socket(
            accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket) {
            // The newcomer stays in the queue, and so would its event.
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
        (void)makeRoom(process); // else all of them wait for room themselves
        admit(std::move(socket), process);
    }
}

void PortReceiver::admit(PortDescriptor socket, int32_t process) {
    const uint64_t number = ++lastNumber_;
    Connection connection;
    connection.socket = std::move(socket);
    connection.process = process;
    if (!watch(number, connection)) {
        Log::system().problem("cannot watch a connection: " + systemReason());
        return;
    }
    // As if it had just sent: a newcomer must not be the quietest at once.
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

bool PortReceiver::isHeld(const Connection& connection) const {
    return !held_.empty() && held_.count(connection.process) != 0;
}

// Lets what arrives there be an event. What is held back must not be one: it would be reported
// again and again.
bool PortReceiver::watch(uint64_t number, const Connection& connection) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = number;
    return isHeld(connection) ||
           epoll_ctl(events_.get(), EPOLL_CTL_ADD, connection.socket.get(), &event) == 0 ||
           errno == EEXIST;
}

void PortReceiver::hold(int32_t process, bool on) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (on ? !held_.insert(process).second : held_.erase(process) == 0) {
        return;
    }
    for (auto& [number, connection] : connections_) {
        if (connection.process != process || connection.waiting != 0) {
            continue;
        }
        connection.progressAt = now(); // it could make none
        if (on) {
            (void)epoll_ctl(events_.get(), EPOLL_CTL_DEL, connection.socket.get(), nullptr);
        } else {
            (void)watch(number, connection); // it fails without memory of the system's only
        }
    }
}

bool PortReceiver::olderOnesAreRead(Connections::iterator connection) {
    if (!connection->second.mustWait) {
        return true;
    }
    std::vector<uint64_t> older; // reading one may close others
    for (auto i = connections_.begin(); i != connection; ++i) {
        if (i->second.process == connection->second.process && i->second.hungUp) {
            older.push_back(i->first);
        }
    }
    for (const uint64_t number : older) {
        const auto found = connections_.find(number);
        if (found != connections_.end()) {
            read(found, kPacketsAtOnce);
            if (connections_.count(number) != 0) {
                return false; // it had more than one call reads
            }
        }
    }
    connection->second.mustWait = false;
    return true;
}

// Keeps the number of connections within bounds, of the process (0: of all) that has a new one, by
// closing one of the process that has the most: the one that was quiet the longest or, when all of
// its texts are half sent, the half that has not moved for the longest time. Whoever is new is
// served. False when no connection can be closed without breaking off one that moves.
bool PortReceiver::makeRoom(int32_t process) {
    std::map<int32_t, size_t> numbers;
    for (const auto& [number, c] : connections_) {
        ++numbers[c.process];
    }
    if (process != 0 ? numbers[process] < kMaximumConnectionsOfProcess
                     : connections_.size() < kMaximumConnections) {
        return true;
    }
    const int64_t stalled = now() - kStalledMilliseconds;
    auto chosen = connections_.end();
    const auto rank = [&](const Connection& c) {
        return std::tuple(numbers[c.process], !c.isHalf(), -static_cast<int64_t>(c.lastText),
                          -c.progressAt);
    };
    for (auto i = connections_.begin(); i != connections_.end(); ++i) {
        const Connection& c = i->second;
        const bool fits =
            process != 0 ? c.process == process : !c.isHalf() || c.progressAt <= stalled;
        if (fits && !isWholeInQueue(c) &&
            (chosen == connections_.end() || rank(c) > rank(chosen->second))) {
            chosen = i;
        }
    }
    if (chosen == connections_.end()) {
        return false;
    }
    readOut(chosen);
    return true;
}

// Closes a connection. No text is lost by that: its sender cannot send any more from the first step
// on, what it had sent is read in the second, and its next packet finds the connection closed, so
// that it makes a new one and sends the text from its beginning.
void PortReceiver::readOut(Connections::iterator connection) {
    statistics_.overLimit += connection->second.isHalf() ? 1 : 0;
    (void)shutdown(connection->second.socket.get(), SHUT_RD);
    const uint64_t number = connection->first;
    // What was sent ends with the sender's buffer, or at a text for which there is no room yet.
    while (connections_.count(number) != 0 && connection->second.waiting == 0) {
        read(connection, kPacketsAtOnce);
    }
    const auto left = connections_.find(number);
    if (left != connections_.end() && !isWholeInQueue(left->second)) {
        --waiting_;
        connections_.erase(left);
    }
}

void PortReceiver::read(Connections::iterator connection, int packets) {
    const size_t before = ready_.size();
    const size_t announcedBefore = announcedBytes_;
    const Reading reading = readPackets(connection->second, packets);
    if (reading == Reading::open && hasMoreLocked()) {
        // What has been told once is told again: who waits for changes only must not wait now.
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = connection->first;
        (void)epoll_ctl(events_.get(), EPOLL_CTL_MOD, connection->second.socket.get(), &event);
    }
    if (ready_.size() != before) {
        hot_ = connection->first;
        connection->second.lastText = lastText_ = lastText_ + 1;
    }
    if (reading == Reading::closed) {
        release(connection->second);
        // Not left to the closing: a child that was not born by fork may hold it open.
        (void)epoll_ctl(events_.get(), EPOLL_CTL_DEL, connection->second.socket.get(), nullptr);
        connections_.erase(connection);
    }
    if (announcedBytes_ < announcedBefore) {
        giveRoom(false);
    }
}

PortReceiver::Reading PortReceiver::readPackets(Connection& connection, int packets) {
    for (; packets > 0 && connection.waiting == 0; --packets) {
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
        if (hasMoreLocked()) {
            break;
        }
    }
    return Reading::open;
}

PortReceiver::Reading PortReceiver::takePacket(Connection& connection, size_t bytes) {
    if (connection.part.size() != 0) {
        connection.received += bytes;
        connection.progressBytes += bytes;
        partBytesRead_ += bytes;
        if (connection.progressBytes >= kProgressBytes) {
            connection.progressAt = now();
            connection.progressBytes = 0;
        }
        if (connection.received == connection.part.size()) {
            release(connection);
            ++statistics_.texts;
            statistics_.bytes += connection.part.size();
            connection.part.setProcess(connection.process);
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
        if (packet.length != textBytes) {
            ++statistics_.malformed;
            return Reading::closed;
        }
        if (!text.allocate(textBytes)) { // it counts as delivered for its sender
            ++statistics_.withoutMemory;
            Log::system().problem("out of memory: a text was dropped that had arrived at port " +
                                  name_.socketFile());
            return Reading::open;
        }
        std::memcpy(text.data(), buffer_.get() + PortPacket::kHeaderBytes, textBytes);
        ++statistics_.texts;
        statistics_.bytes += textBytes;
        text.setProcess(connection.process);
        ready_.push_back(std::move(text));
        return Reading::open;
    }
    if (textBytes != 0 || packet.length == 0 || packet.length > MessagePorts::kMaximumTextBytes) {
        ++statistics_.malformed;
        return Reading::closed;
    }
    return startPart(connection, static_cast<size_t>(packet.length));
}

// Room for an announced text. The system gives memory as it is written to, so an announcement
// alone costs addresses only; those are counted. Without room the connection waits unread, so that
// its bytes stay with the sender: they may be a whole text that is delivered for it.
PortReceiver::Reading PortReceiver::startPart(Connection& connection, size_t length) {
    if (makeRoomForPart(connection, length, true) && connection.part.allocate(length)) {
        announcedBytes_ += length;
        announcedBy_[connection.process] += length;
        connection.received = 0;
        connection.progressAt = now();
        connection.progressBytes = 0;
        if (tendAt_ == 0) {
            tendLater(kHalfSentMilliseconds);
        }
    } else {
        // Not left among the events, which would tell its end again and again.
        (void)epoll_ctl(events_.get(), EPOLL_CTL_DEL, connection.socket.get(), nullptr);
        connection.waiting = length;
        connection.progressAt = now();
        ++waiting_;
        tendLater(kStalledMilliseconds);
    }
    return Reading::open;
}

// True when the text that waits for room is there, and so was delivered for its sender.
bool PortReceiver::isWholeInQueue(const Connection& connection) {
    int bytes = 0;
    return connection.waiting != 0 && ioctl(connection.socket.get(), FIONREAD, &bytes) == 0 &&
           static_cast<size_t>(bytes) >= connection.waiting;
}

void PortReceiver::release(const Connection& connection) {
    const size_t bytes = connection.part.size();
    if (bytes != 0) {
        announcedBytes_ -= bytes;
        const auto found = announcedBy_.find(connection.process);
        found->second -= bytes;
        if (found->second == 0) {
            announcedBy_.erase(found);
        }
    }
}

size_t PortReceiver::announcedBy(int32_t process) const {
    const auto found = announcedBy_.find(process);
    return found == announcedBy_.end() ? 0 : found->second;
}

// Closes stalled halves of the process that has announced the most, or of this one when it has
// announced too much itself. With `byClosing` only. False when those do not suffice.
bool PortReceiver::makeRoomForPart(const Connection& connection, size_t length, bool byClosing) {
    for (;;) {
        const bool tooMuchOfProcess =
            announcedBy(connection.process) + length > kMaximumHalfSentOfProcess;
        if (!tooMuchOfProcess && announcedBytes_ + length <= kMaximumHalfSent) {
            return true;
        }
        const int64_t stalled = now() - kStalledMilliseconds;
        auto chosen = connections_.end();
        const auto rank = [&](const Connection& c) {
            return std::tuple(announcedBy(c.process), -c.progressAt);
        };
        for (auto i = connections_.begin(); i != connections_.end() && byClosing && !makesRoom_;
             ++i) {
            const Connection& c = i->second;
            if (&c != &connection && c.part.size() != 0 && c.progressAt <= stalled &&
                (!tooMuchOfProcess || c.process == connection.process) &&
                (chosen == connections_.end() || rank(c) > rank(chosen->second))) {
                chosen = i;
            }
        }
        if (chosen == connections_.end()) {
            return false;
        }
        makesRoom_ = true;
        readOut(chosen);
        makesRoom_ = false;
    }
}

// Reads on from those that waited for room, in the order of their arrival, as far as there is some.
void PortReceiver::giveRoom(bool byClosing) {
    if (waiting_ == 0 || makesRoom_) {
        return;
    }
    std::vector<uint64_t> waiting; // making room may close others
    for (const auto& [number, connection] : connections_) {
        if (connection.waiting != 0) {
            waiting.push_back(number);
        }
    }
    for (const uint64_t number : waiting) {
        const auto found = connections_.find(number);
        if (found == connections_.end() ||
            !makeRoomForPart(found->second, found->second.waiting, byClosing)) {
            continue;
        }
        --waiting_;
        (void)startPart(found->second, std::exchange(found->second.waiting, 0));
        if (found->second.waiting == 0 && !watch(number, found->second)) {
            found->second.waiting = found->second.part.size(); // tried again
            release(found->second);
            found->second.part = PortText();
            ++waiting_;
        }
    }
}

void PortReceiver::tendLater(int64_t milliseconds) {
    const int64_t at = now() + milliseconds;
    if (tendAt_ != 0 && tendAt_ <= at) {
        return;
    }
    tendAt_ = at;
    if (!timer_) {
        PortDescriptor timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = kTimer;
        if (!timer || epoll_ctl(events_.get(), EPOLL_CTL_ADD, timer.get(), &event) != 0) {
            return; // then the next text that arrives is the occasion
        }
        timer_ = std::move(timer);
    }
    itimerspec time{};
    time.it_value.tv_sec = milliseconds / 1000;
    time.it_value.tv_nsec = static_cast<long>(milliseconds % 1000 * 1'000'000);
    (void)timerfd_settime(timer_.get(), 0, &time, nullptr);
}

// Closes the halves that have been there for too long without progress, and serves those that wait.
void PortReceiver::tend() {
    tendAt_ = 0;
    std::vector<uint64_t> old;
    bool halves = false;
    for (const auto& [number, connection] : connections_) {
        if (connection.isHalf()) {
            halves = true;
            if (now() - connection.progressAt >= kHalfSentMilliseconds &&
                !isWholeInQueue(connection) && !isHeld(connection)) {
                old.push_back(number);
            }
        }
    }
    for (const uint64_t number : old) {
        const auto found = connections_.find(number);
        if (found != connections_.end()) {
            readOut(found);
        }
    }
    giveRoom(true);
    if (waiting_ > 0) {
        tendLater(kStalledMilliseconds);
    } else if (halves) {
        tendLater(kHalfSentMilliseconds / 4);
    }
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
