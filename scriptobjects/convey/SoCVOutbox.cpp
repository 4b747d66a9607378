#include "scriptobjects/convey/SoCVOutbox.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVInstanceParts.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVSteadyTime.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/core/SoNumber.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects::ConveyData {
namespace {

using platform::SendResult;
using Message = Convey::Message;

constexpr int64_t kPassMilliseconds = limits::of("send.pass");
constexpr int64_t kLongestPause = limits::of("thread.round");
constexpr int32_t kLargeMilliseconds = limits::of("send.large");
// With its header such a text may still be a packet; if not, its parts are few.
constexpr int32_t kLargeBytes = limits::of("port.packet");
// A message that finds no target is kept alive for this long.
constexpr uint32_t kQueueSeconds = limits::of("queue.age");
// Before its time is over: it is done once in each second, and seconds may begin late.
constexpr int64_t kAliveMilliseconds = 2000;

// A target that takes nothing must not fill this process's memory.
struct Bounds {
    int32_t messages;
    int64_t bytes;
    bool reachedBy(const MessageQueue::Load& load) const {
        return load.messages >= messages || load.bytes >= bytes;
    }
};
constexpr Bounds kOwners{limits::of("queue.outgoing.messages"), limits::of("queue.outgoing.bytes")};
constexpr Bounds kAnswers{limits::of("queue.answers.messages"), limits::of("queue.answers.bytes")};
constexpr Bounds kShare{limits::of("queue.answers.share.messages"),
                        limits::of("queue.answers.share.bytes")};
constexpr Bounds kPings{limits::of("thread.unsent.answers"), limits::of("thread.unsent.bytes")};

bool isLogged() {
    return ConveyUtils::isForwarding(CV_FORWARD_LOGS);
}

} // namespace

// The right to send from a line, for the life of the object, when there is one.
class Outbox::Turn {
public:
    // At once, when the line is due.
    Turn(Outbox& outbox, std::string target, Carrier carrier, Left& left)
        : outbox_(outbox), target_(std::move(target)) {
        const std::lock_guard<std::mutex> guard(outbox_.mutex_);
        // Made where there is none: it is forgotten again at the end of the pass.
        Line& line = outbox_.lineOf(target_).first;
        if (outbox_.isDue(line, carrier, platform::monotonicNow(), left)) {
            take(line);
        }
    }
    // Whether it is due or not, once no other thread has the turn.
    Turn(Outbox& outbox, std::string target, int64_t milliseconds)
        : outbox_(outbox), target_(std::move(target)) {
        std::unique_lock<std::mutex> lock(outbox_.mutex_);
        // The line is looked up each time: while nobody has its turn it may be forgotten, and made
        // anew.
        const bool free =
            outbox_.given_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                                    [this] { return !outbox_.lineOf(target_).first.busy; });
        if (free) {
            take(outbox_.lineOf(target_).first);
        }
    }
    ~Turn() {
        if (line_ != nullptr) {
            {
                const std::lock_guard<std::mutex> guard(outbox_.mutex_);
                line_->busy = false;
            }
            // All of them: they wait for turns of different lines by the one condition.
            outbox_.given_.notify_all();
        }
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    explicit operator bool() const { return line_ != nullptr; }
    Line& line() { return *line_; }
    const std::string& target() const { return target_; }

private:
    void take(Line& line) {
        line.busy = true;
        line_ = &line;
    }

    Outbox& outbox_;
    const std::string target_;
    Line* line_ = nullptr; // stays where it is: a busy line is not forgotten
};

// The first message of a line, as far as it is wanted.
struct Outbox::Attempt {
    bool found = false;
    bool large = false;
    bool written = false;
    uint64_t position = 0;
    Message::Text text;
    std::unique_ptr<Message> copy; // of a large one, whose body the text has; or for who watches
    bool watched = false;          // events
    std::optional<AwaitedRequest> request; // that its asker is to be told of
};

void Outbox::Left::join(const Left& other) {
    more = more || other.more;
    large = large || other.large;
    sent = sent || other.sent;
    if (other.retryMilliseconds >= 0) {
        retryMilliseconds = retryMilliseconds < 0
                                ? other.retryMilliseconds
                                : std::min(retryMilliseconds, other.retryMilliseconds);
    }
}

// A message stays in its line until it has been handed over, so that nothing overtakes the one that
// is being sent at the moment.
bool Outbox::isFree(const SoString& target) const {
    return queue_.loadOf(target.view()).messages == 0;
}

// What it answers does not count for an owner: an asker that takes nothing must not keep it from
// sending to others.
bool Outbox::hasRoom() const {
    const MessageQueue::Load answers = queue_.answers();
    return !kOwners.reachedBy(
        {queue_.count() - answers.messages, queue_.bodyBytes() - answers.bytes});
}

// Nothing is refused to who has nothing kept: of many that take nothing, none is left out.
bool Outbox::mayKeep(const std::string& target) const {
    const Bounds& bounds = kind_ == Kind::messages ? kAnswers : kPings;
    return queue_.loadOf(target).messages == 0 || !bounds.reachedBy(queue_.answers());
}

bool Outbox::isHeldUp(const SoString& asker) const {
    const MessageQueue::Load own = queue_.loadOf(asker.view());
    const MessageQueue::Load all = queue_.answers();
    // Who has nothing kept takes its answers, however much others leave.
    return own.messages != 0 &&
           (kShare.reachedBy(own) || kAnswers.reachedBy({2 * all.messages, 2 * all.bytes}));
}

bool Outbox::queue(std::unique_ptr<Message>& message) {
    if (!queue_.append(message.get())) {
        return false;
    }
    (void)message.release(); // the queue's now
    return true;
}

Delivery Outbox::post(const InterAppStream* stream, std::unique_ptr<Message>& message) {
    if (stream == nullptr) {
        return Delivery::refused;
    }
    // Tried before it is asked who is there: as a rule the target takes it, and asking costs more
    // than sending.
    const Delivery delivery = handAtOnce(*stream, *message, nullptr);
    return delivery == Delivery::queued ? keep(*stream, message) : delivery;
}

Delivery Outbox::handAtOnce(const InterAppStream& stream, const Message& message,
                            const Message* next) const {
    const SoString& target = message.getTarget();
    if (message.getBody().length() > kLargeBytes || !isFree(target)) {
        return Delivery::queued;
    }
    if (next == nullptr) {
        Message::Text text;
        return !text.write(message) ? Delivery::refused
               : stream.send(target, text.pieces(), 0, nullptr) == SendResult::delivered
                   ? Delivery::delivered
                   : Delivery::queued;
    }
    SoString both;
    if (!message.writeToString(both) || !next->writeToString(both)) {
        return Delivery::refused;
    }
    // No more than a packet, which passes whole or not at all.
    return both.length() <= kLargeBytes && stream.send(target, both, 0) ? Delivery::delivered
                                                                        : Delivery::queued;
}

Delivery Outbox::keep(const InterAppStream& stream, std::unique_ptr<Message>& message) {
    const SoString target = message->getTarget();
    const bool large = message->getBody().length() > kLargeBytes;
    if (stream.presenceOf(target) == InterAppStream::Presence::absent) {
        return Delivery::refused; // it is gone, and nobody else is meant
    }
    const std::string name(target.view());
    if (!mayKeep(name)) {
        // Said here, since nobody else can: the asker takes nothing, and who answers has not
        // waited.
        platform::Log::system().problem("answers to " + name +
                                        " are lost: it takes none, and no more are kept");
        return Delivery::refused;
    }
    if (!queue_.append(message.get(), true)) {
        return Delivery::refused;
    }
    (void)message.release(); // the queue's now
    noteKept(name, large);
    return Delivery::queued;
}

void Outbox::noteKept(const std::string& target, bool large) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto [line, isNew] = lineOf(target);
    if (isNew && !large) { // it has just taken nothing
        line.pause = 1;
        line.failingSince = platform::monotonicNow();
        line.retryAt = line.failingSince + 1;
    }
}

// The line, and whether it is new. Under the mutex.
std::pair<Outbox::Line&, bool> Outbox::lineOf(const std::string& target) {
    const uint64_t number = queue_.numberOfLine(target);
    const auto [found, isNew] = lines_.try_emplace(target);
    Line& line = found->second;
    const bool begins = isNew || (line.number != number && !line.busy);
    if (begins) {
        line = {};
        line.number = number;
    }
    return {line, begins};
}

bool Outbox::isDue(const Line& line, Carrier carrier, int64_t now, Left& left) const {
    // Nobody waits in a pass: who has the turn does the work of this one, too, and may leave some.
    if (line.busy) {
        left.join({.retryMilliseconds = kLongestPause});
        return false;
    }
    // What is first in a line says whose it is, so that its order holds whoever sends from it.
    if (line.large != (carrier == Carrier::courier)) {
        left.large = left.large || line.large;
        return false;
    }
    if (line.retryAt > now) {
        left.join({.retryMilliseconds = line.retryAt - now});
        return false;
    }
    return true;
}

// What is kept of lines whose last message has gone.
void Outbox::forgetEmptyLines() {
    // The lock of the lines first, then the queue's, which its load is asked with: never the other
    // way round.
    const std::lock_guard<std::mutex> guard(mutex_);
    std::erase_if(lines_, [this](const auto& line) {
        return !line.second.busy && queue_.loadOf(line.first).messages == 0;
    });
}

Outbox::Left Outbox::pass(const InterAppStream* stream, Carrier carrier) {
    Left left;
    queue_.removeExpiredMessages();
    // A list of its own: other threads queue and send meanwhile, and no lock is held while a stream
    // is asked.
    const std::vector<std::string> targets = queue_.targets();
    // The courier's passes have no end of their own, since nobody waits for them.
    const int64_t end =
        carrier == Carrier::round ? platform::monotonicNow() + kPassMilliseconds : INT64_MAX;
    size_t first = 0;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        first = first_;
    }
    for (size_t i = 0; i < targets.size() && !left.more; ++i) {
        Turn turn(*this, targets[(first + i) % targets.size()], carrier, left);
        if (turn) {
            send(stream, turn, carrier, end, left);
            left.more = left.more || platform::monotonicNow() >= end;
        }
        // The next pass begins behind this line: with the same ones first each time, targets that
        // take much would leave the others without a turn.
        if (left.more) {
            const std::lock_guard<std::mutex> guard(mutex_);
            first_ = first + i + 1;
        }
    }
    forgetEmptyLines();
    return left;
}

Outbox::Attempt Outbox::nextOf(Turn& turn, Carrier carrier) {
    Attempt next;
    Line& line = turn.line();
    std::unique_ptr<Message>& copy = next.copy;
    const bool logged = kind_ == Kind::messages && isLogged();
    next.found = queue_.visitNextFor(turn.target(), next.position, [&](const Message& message) {
        next.large = message.getBody().length() > kLargeBytes;
        // Neither copied nor written for nothing: the courier does both.
        if (next.large && carrier == Carrier::round) {
            return;
        }
        next.request = begin_ ? AwaitedRequest::of(message, 0) : std::nullopt;
        if (next.large || logged) {
            copy = std::make_unique<Message>(message); // with a share in a large body
        }
        // A target that takes nothing would have the same text written for each attempt.
        if (line.textPosition == next.position) {
            next.text = line.text;
            next.written = true;
        } else if (!next.large) {
            next.written = next.text.write(message); // small: all of it
        }
    });
    // What takes long is not done under the queue's lock, which others wait for.
    if (next.found && next.large && copy != nullptr) {
        next.written = next.text.write(*copy);
    }
    next.watched = logged && copy != nullptr;
    return next;
}

SendResult Outbox::hand(const InterAppStream& stream, Attempt& next, const SoString& target,
                        int32_t timeoutMilliseconds) const {
    const auto sending = next.request ? begin_(std::move(*next.request)) : nullptr;
    return sending != nullptr
               ? sending->send(stream, next.text, timeoutMilliseconds)
               : stream.send(target, next.text.pieces(), timeoutMilliseconds, nullptr);
}

void Outbox::send(const InterAppStream* stream, Turn& turn, Carrier carrier, int64_t end,
                  Left& left) {
    Line& line = turn.line();
    const SoString target(turn.target());
    for (bool sentAny = false;; sentAny = true) {
        Attempt next = nextOf(turn, carrier);
        line.large = next.large;
        if (!next.found) {
            return;
        }
        if (next.large && carrier == Carrier::round) {
            left.large = true;
            return;
        }
        if (stream == nullptr || !next.written) {
            (void)queue_.drop(turn.target(), next.position);
        } else if (hand(*stream, next, target, next.large ? kLargeMilliseconds : 0) ==
                   SendResult::delivered) {
            (void)queue_.drop(turn.target(), next.position);
            left.sent = true;
            if (next.watched) {
                logEvent("SEND ENQUEUED MESSAGE", *next.copy);
            }
        } else {
            // A large text is not kept: that would double what a target that takes nothing costs.
            if (!next.large) {
                line.text = std::move(next.text);
                line.textPosition = next.position;
            }
            noteFailure(*stream, turn, sentAny, left);
            return;
        }
        line.text = {};
        line.textPosition = 0;
        line.pause = line.retryAt = 0;
        noteState(line, 0, false);
        if (platform::monotonicNow() >= end) {
            left.more = true;
            return;
        }
    }
}

void Outbox::noteState(Line& line, int64_t failingSince, bool absent) {
    if (line.failingSince != failingSince || line.absent != absent) {
        const std::lock_guard<std::mutex> guard(mutex_);
        line.failingSince = failingSince;
        line.absent = absent;
    }
}

void Outbox::appendDiagnostics(CVDiagnosticsRows& rows) const {
    struct Target {
        std::string name;
        int64_t milliseconds;
        bool absent;
        MessageQueue::Load load;
    };
    std::vector<Target> failing;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        for (const auto& [name, line] : lines_) {
            const MessageQueue::Load load = queue_.loadOf(name);
            if (line.failingSince != 0 && load.messages != 0 &&
                line.number == queue_.numberOfLine(name)) {
                failing.push_back(
                    {name, platform::monotonicNow() - line.failingSince, line.absent, load});
            }
        }
    }
    std::sort(failing.begin(), failing.end(),
              [](const Target& a, const Target& b) { return a.milliseconds > b.milliseconds; });
    rows.count("/blocked", "Targets that take nothing", failing.size());
    for (size_t i = 0; i < failing.size(); ++i) {
        const std::string own = "/blocked/" + std::to_string(i);
        const Target& target = failing[i];
        rows.node(own, "Target", target.name.c_str());
        rows.leaf(own + "/for", "For", static_cast<uint32_t>(target.milliseconds), "ms");
        rows.leaf(own + "/messages", "Messages", static_cast<uint32_t>(target.load.messages));
        rows.leaf(own + "/reason", "Reason", target.absent ? "does not run" : "is full");
    }
}

// A target that has just taken something takes more in a moment. One that is absent is tried in
// each pass, since a name that appears is told, and passes are few until then.
void Outbox::noteFailure(const InterAppStream& stream, Turn& turn, bool sentAny, Left& left) {
    Line& line = turn.line();
    const bool absent =
        stream.presenceOf(SoString(turn.target())) == InterAppStream::Presence::absent;
    noteState(line,
              line.failingSince == 0 || sentAny ? platform::monotonicNow() : line.failingSince,
              absent);
    if (absent) {
        (void)queue_.dropAnswersFor(turn.target()); // whoever has the name next did not ask
        line.pause = line.retryAt = 0;
    } else {
        line.pause = sentAny ? 1 : std::clamp<int64_t>(2 * line.pause, 1, kLongestPause);
        line.retryAt = platform::monotonicNow() + line.pause;
        left.join({.retryMilliseconds = line.pause});
    }
    // Once a second is enough, as stamps count seconds, while attempts may follow each other by one
    // millisecond.
    const uint32_t second = ConveyUtils::getTimeSeconds();
    if (kind_ == Kind::messages && line.requeuedSecond != second) {
        line.requeuedSecond = second;
        requeue(turn.target());
    }
}

// Kept alive while it is young, then given a time at which it ends.
void Outbox::requeue(const std::string& target) {
    const bool logged = isLogged();
    const uint32_t seconds = ConveyUtils::getTimeSeconds();
    const int64_t steady =
        ConveyUtils::getSteadyMilliseconds(); // when the time of day is set, nobody ages
    uint64_t position = 0;
    for (;;) {
        uint32_t stamp = 0;
        uint32_t timeout = 0;
        std::unique_ptr<Message> event;
        if (!queue_.visitNextFor(target, position, [&](const Message& message) {
                const SoString queued = message.getUserHeaderValue(CV_QUEUESTAMP);
                stamp = queued.isEmpty() ? message.getTimestamp() : parseUnsigned32(queued.c_str());
                timeout = message.getTimeout();
                event = logged ? std::make_unique<Message>(message) : nullptr;
            })) {
            return;
        }
        if (steady < queue_.waitsSince(target, position, stamp) + kQueueSeconds * 1000LL) {
            (void)queue_.keep(target, position, seconds, timeout, stamp);
        } else {
            // Counted from its first stamp, any of these is over: it ends at the next look by the
            // way of all that expire, which tells its sender.
            const uint32_t last = timeout == 0               ? 1
                                  : timeout >= kQueueSeconds ? kQueueSeconds - 1
                                                             : timeout;
            (void)queue_.end(target, position, stamp, last);
        }
        if (event != nullptr) {
            logEvent("REQUEUED MESSAGE ", *event);
        }
    }
}

int64_t Outbox::nextLook() {
    if (queue_.isEmpty()) {
        return INT64_MAX;
    }
    const int64_t first = queue_.firstDeadline();
    const int64_t oldest = queue_.oldest();
    // 0, at once, for one that was never tried.
    const int64_t old = oldest == INT64_MAX ? oldest : oldest + int64_t{1000} * kQueueSeconds;
    return first < kAliveMilliseconds ? 0 : std::min(first - kAliveMilliseconds, old);
}

SendResult Outbox::drain(const InterAppStream& stream, const SoString& target,
                         int64_t milliseconds) {
    const int64_t end = platform::monotonicNow() + milliseconds;
    const auto left = [end] { return std::max<int64_t>(end - platform::monotonicNow(), 0); };
    for (bool sentAny = false; !isFree(target); sentAny = true) {
        Turn turn(*this, std::string(target.view()), left());
        if (!turn) {
            return SendResult::timedOut;
        }
        // As the courier, who takes large texts as well: an owner waits for its own.
        Attempt next = nextOf(turn, Carrier::courier);
        if (next.found && next.written) {
            const SendResult result = hand(stream, next, target, static_cast<int32_t>(left()));
            if (result != SendResult::delivered) {
                // The line keeps the pause, which the next pass finds there.
                Left ignored;
                noteFailure(stream, turn, sentAny, ignored);
                return isFree(target) ? SendResult::delivered : result;
            }
        }
        (void)queue_.drop(turn.target(), next.position);
        if (next.watched && next.written) {
            logEvent("SEND ENQUEUED MESSAGE", *next.copy);
        }
    }
    return SendResult::delivered;
}

} // namespace ScObjects::ConveyData
