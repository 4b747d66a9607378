// The texts of a port of which some packets have arrived: room for them, and the end of those that
// do not move.
#include <cstring>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/timerfd.h>
#include <tuple>
#include <utility>
#include <vector>

#include "limits/Limits.h"
#include "platform/linux/PortReceiver.h"

namespace platform {
namespace {

constexpr int64_t kHalfSentMilliseconds = limits::of("port.half-sent.age");
// Announced bytes of half-sent texts: two of the largest a process, eight in all.
constexpr size_t kMaximumHalfSentOfProcess = limits::of("port.half-sent.process");
constexpr size_t kMaximumHalfSent = limits::of("port.half-sent");
// Of a piece at the beginning of a text that is kept apart: the lines of a message, as a rule.
constexpr size_t kMaximumHeadBytes = limits::of("port.packet");
// A digest of so many bytes takes so much longer than reading them.
constexpr size_t kSealingCost = 3;

} // namespace

// Room for an announced text. The system gives memory as it is written to, so an announcement
// alone costs addresses only; those are counted. Without room the connection waits unread, so that
// its bytes stay with the sender: they may be a whole text that is delivered for it.
PortReceiver::Reading PortReceiver::startPart(Connection& connection, size_t length) {
    if (makeRoomForPart(connection, length, true) &&
        connection.part.allocate(length, connection.isSealed)) {
        connection.seal = connection.isSealed && makeSeal_ ? makeSeal_() : nullptr;
        announcedBytes_ += length;
        announcedBy_[connection.process] += length;
        connection.part.setMayHaveZero(false);
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

// What is asked of all bytes is asked while they are at hand: later they have to be fetched again.
void PortReceiver::noteArrived(Connection& connection, size_t bytes) {
    PortText& part = connection.part;
    const char* const place = part.place(connection.received);
    part.setMayHaveZero(part.mayHaveZero() || std::memchr(place, '\0', bytes) != nullptr);
    partBytesRead_ += bytes;
    if (connection.seal != nullptr) {
        connection.seal->take({place, bytes});
        partBytesRead_ += kSealingCost * bytes;
    }
    // The first packet is what the sender has cut off, if it has cut the text at all; what follows
    // comes to where the block begins.
    if (connection.received == 0 && bytes <= kMaximumHeadBytes && bytes < part.size()) {
        (void)part.splitOff(bytes); // one piece does without memory
    }
}

// True when the text that waits for room is there, and so was delivered for its sender.
bool PortReceiver::isWholeInQueue(const Connection& connection) {
    int bytes = 0;
    return connection.waiting != 0 && ioctl(connection.socket.get(), FIONREAD, &bytes) == 0 &&
           // The seal, of a sealed one, has one byte at least.
           static_cast<size_t>(bytes) +
                   (connection.batch != nullptr ? connection.batch->leftBytes() : 0) >=
               connection.waiting + (connection.isSealed ? 1 : 0);
}

// Whether it has brought something that is not read and is, or may come to be, a whole text.
bool PortReceiver::hasUnread(const Connection& connection) {
    pollfd end = {connection.socket.get(), POLLRDHUP, 0};
    if (connection.isHalf() && poll(&end, 1, 0) == 0) {
        return true; // its sender may go on
    }
    if (connection.waiting != 0) {
        return isWholeInQueue(connection);
    }
    int bytes = 0;
    return ioctl(connection.socket.get(), FIONREAD, &bytes) == 0 && bytes > 0;
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
        if (found == connections_.end() || found->second.waiting == 0 || // by one that was read on
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
        } else if (found->second.batch != nullptr) {
            read(found, kPacketsAtOnce); // no event tells of what is drawn
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

} // namespace platform
