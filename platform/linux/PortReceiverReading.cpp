// The connections of a port: they are accepted, read in the order that their process wrote in, held
// back, and closed to make room for others.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <poll.h>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

#include "limits/Limits.h"
#include "platform/Log.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/PortPacket.h"
#include "platform/linux/PortReceiver.h"

namespace platform {
namespace {

// A process has one connection to us for each copy of the layer in it.
constexpr size_t kMaximumConnectionsOfProcess = limits::of("port.connections.process");
// Half of the descriptors that a process may open as a rule; the host needs some for itself.
constexpr size_t kMaximumConnections = limits::of("port.connections");
constexpr size_t kProgressBytes = limits::of("port.half-sent.progress");
constexpr int kAcceptsAtOnce = 64;
constexpr int kRoundsAtOnce = 64; // more than it takes to see the end of all connections
// The others are looked at again after so many texts of the same connection.
constexpr uint32_t kHotRuns = 8;

} // namespace

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
    // Not just behind a look that found no more there: all are asked below.
    if (!std::exchange(isHotEmpty_, false) && readHot(kPacketsAtOnce)) {
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

bool PortReceiver::hasNewcomer() const {
    pollfd newcomer = {listener_.get(), POLLIN, 0};
    return poll(&newcomer, 1, 0) > 0;
}

void PortReceiver::acceptAll() {
    for (int i = 0; i < kAcceptsAtOnce; ++i) {
        if (connections_.size() >= kMaximumConnections) {
            if (!hasNewcomer()) {
                return; // nobody is closed for a newcomer that does not come
            }
            if (!makeRoom(0)) {
                pauseListening(); // what newcomers have sent waits with them
                return;
            }
        }
        sockaddr_un sender{};
        socklen_t length = sizeof sender;
        PortDescriptor socket(accept4(listener_.get(), reinterpret_cast<sockaddr*>(&sender),
                                      &length, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket) {
            // The newcomer stays in the queue, and so would its event.
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                Log::system().problem("cannot accept a connection: " + systemReason());
                ++statistics_.notAccepted;
                pauseListening();
            }
            return;
        }
        ++accepted_;
        int32_t process = 0;
        if (!isOwnPeer(socket.get(), process)) {
            ++statistics_.strangers;
            continue;
        }
        (void)makeRoom(process); // else all of them wait for room themselves
        admit(std::move(socket), process, PortBatch::isPromise(sender, length));
    }
}

void PortReceiver::admit(PortDescriptor socket, int32_t process, bool promises) {
    const uint64_t number = ++lastNumber_;
    Connection connection;
    connection.socket = std::move(socket);
    connection.process = process;
    connection.promises = promises;
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
    if (reading == Reading::open && connection->second.waiting == 0 && hasMoreLocked()) {
        // What has been told once is told again: who waits for changes only must not wait now. A
        // change of what is watched for tells nobody, since the rest is known to be there.
        (void)epoll_ctl(events_.get(), EPOLL_CTL_DEL, connection->second.socket.get(), nullptr);
        (void)watch(connection->first, connection->second); // it has just given back what it needs
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
    isHotEmpty_ = false;
    if (connection.batch != nullptr) { // there is room now for what it waited behind
        if (takeBatch(connection, *connection.batch) == Reading::closed) {
            return Reading::closed;
        }
        if (!connection.batch->isDone()) {
            return Reading::open;
        }
        connection.batch.reset();
    }
    if (mayBatch(connection)) {
        const int drawn = batch_->draw(connection.socket.get());
        if (drawn > 0) {
            isHotEmpty_ = drawn < PortBatch::kPackets;
            const Reading reading = takeBatch(connection, *batch_);
            if (reading == Reading::open && !batch_->isDone()) {
                connection.batch = std::move(batch_);
            } else if (!connection.comesInRows) {
                batch_.reset(); // the memory in which parts of a large text were
            }
            return reading;
        }
        connection.comesInRows = false; // one by one shows what is wrong, if anything is
        if (errno == EAGAIN) {
            isHotEmpty_ = true;
            return Reading::open;
        }
    }
    for (int small = 0; packets > 0 && connection.waiting == 0; --packets) {
        iovec place = {buffer_.get(), PortPacket::kHeaderBytes + PortPacket::kMaximumWholeBytes};
        if (connection.part.size() != 0 && !connection.wantsSeal()) {
            place = {connection.part.place(connection.received),
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
            isHotEmpty_ = errno == EAGAIN;
            return isHotEmpty_ ? Reading::open : Reading::closed;
        }
        const bool inParts = connection.part.size() != 0;
        const PortBatch::Packet packet = {static_cast<const unsigned char*>(place.iov_base),
                                          static_cast<size_t>(bytes), message.msg_flags};
        if (takePacket(connection, packet) == Reading::closed) {
            return Reading::closed;
        }
        if (inParts && connection.part.size() == 0) {
            break; // memory for the next large text only when this one has been taken
        }
        small = connection.isHalf() ? 0 : small + 1;
        connection.comesInRows = connection.comesInRows || small > 1;
        if (hasMoreLocked()) {
            break;
        }
    }
    return Reading::open;
}

// Behind small texts only, of which more are likely to follow. Not while one is being taken (a
// connection is closed to make room for what it announces), or waits with its connection: there are
// never two.
bool PortReceiver::mayBatch(const Connection& connection) {
    if (!connection.comesInRows || !connection.promises || makesRoom_ || waiting_ != 0) {
        return false;
    }
    if (batch_ == nullptr) {
        batch_ = PortBatch::make();
    }
    return batch_ != nullptr;
}

// As far as there is room for what is announced in it.
PortReceiver::Reading PortReceiver::takeBatch(Connection& connection, PortBatch& batch) {
    while (!batch.isDone() && connection.waiting == 0) {
        PortBatch::Packet packet = batch.next();
        if (connection.part.size() != 0 && !connection.wantsSeal()) {
            const size_t left = connection.part.size() - connection.received;
            packet.flags |= packet.size > left ? MSG_TRUNC : 0;
            std::memcpy(connection.part.place(connection.received), packet.bytes,
                        std::min(packet.size, left));
        }
        if (takePacket(connection, packet) == Reading::closed) {
            return Reading::closed;
        }
    }
    return Reading::open;
}

// A packet as the system gave it. A part of a text lies in its place already.
PortReceiver::Reading PortReceiver::takePacket(Connection& connection,
                                               const PortBatch::Packet& packet) {
    // No room is given for descriptors, so the system has closed those that came.
    if ((packet.flags & MSG_CTRUNC) != 0) {
        ++statistics_.descriptors;
        return Reading::closed;
    }
    if (packet.size == 0) {
        return Reading::closed; // the end; no packet of ours is empty
    }
    if ((packet.flags & MSG_TRUNC) != 0) {
        ++statistics_.malformed;
        return Reading::closed;
    }
    if (connection.part.size() == 0) {
        return takeFirst(connection, packet.bytes, packet.size);
    }
    return connection.wantsSeal() ? takeSeal(connection, packet.bytes, packet.size)
                                  : takePart(connection, packet.size);
}

PortReceiver::Reading PortReceiver::takeFirst(Connection& connection, const unsigned char* in,
                                              size_t bytes) {
    PortPacket packet;
    if (!packet.read(in, bytes)) {
        ++statistics_.malformed;
        return Reading::closed;
    }
    const size_t textBytes = bytes - PortPacket::kHeaderBytes;
    if (packet.kind == PortPacket::whole) {
        PortText text;
        // A batch has room for more.
        if (packet.length != textBytes || textBytes > PortPacket::kMaximumWholeBytes) {
            ++statistics_.malformed;
            return Reading::closed;
        }
        if (!text.allocate(textBytes)) { // it counts as delivered for its sender
            ++statistics_.withoutMemory;
            Log::system().problem("out of memory: a text was dropped that had arrived at port " +
                                  name_.socketFile());
            return Reading::open;
        }
        std::memcpy(text.data(), in + PortPacket::kHeaderBytes, textBytes);
        ++statistics_.texts;
        statistics_.bytes += textBytes;
        text.setProcess(connection.process);
        ready_.push_back(std::move(text));
        return Reading::open;
    }
    const bool isSealed = packet.kind == PortPacket::sealed;
    const size_t most = MessagePorts::kMaximumTextBytes - (isSealed ? PortSeal::kMaximumBytes : 0);
    if (textBytes != 0 || packet.length == 0 || packet.length > most) {
        ++statistics_.malformed;
        return Reading::closed;
    }
    connection.isSealed = isSealed;
    connection.comesInRows = false;
    return startPart(connection, static_cast<size_t>(packet.length));
}

PortReceiver::Reading PortReceiver::takePart(Connection& connection, size_t bytes) {
    noteArrived(connection, bytes);
    connection.received += bytes;
    connection.progressBytes += bytes;
    if (connection.progressBytes >= kProgressBytes) {
        connection.progressAt = now();
        connection.progressBytes = 0;
    }
    if (connection.wantsSeal() && !connection.isSealed) {
        release(connection);
        finishPart(connection);
    }
    return Reading::open;
}

PortReceiver::Reading PortReceiver::takeSeal(Connection& connection, const unsigned char* in,
                                             size_t bytes) {
    const std::string_view seal(reinterpret_cast<const char*>(in), bytes);
    if (bytes > PortSeal::kMaximumBytes) {
        ++statistics_.malformed;
        return Reading::closed;
    }
    PortText& part = connection.part;
    const bool fits = connection.seal != nullptr && connection.seal->finish() == seal;
    connection.seal.reset();
    part.setMayHaveZero(part.mayHaveZero() || seal.find('\0') != std::string_view::npos);
    release(connection);
    if (part.setSeal(seal, fits)) {
        finishPart(connection);
        return Reading::open;
    }
    ++statistics_.withoutMemory;
    Log::system().problem("out of memory: a text was dropped that had arrived at port " +
                          name_.socketFile());
    part = PortText();
    connection.received = 0;
    return Reading::open;
}

void PortReceiver::finishPart(Connection& connection) {
    ++statistics_.texts;
    statistics_.bytes += connection.part.size();
    connection.part.setProcess(connection.process);
    ready_.push_back(std::move(connection.part));
    connection.received = 0;
}

} // namespace platform
