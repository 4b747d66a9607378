#include "scriptobjects/convey/SoCVMessageQueue.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "scriptobjects/convey/SoCVMessageDiagnostics.h"
#include "scriptobjects/convey/SoCVSteadyTime.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVWords.h"

namespace ScObjects::ConveyData {
namespace {

using Message = Convey::Message;

constexpr size_t kShownAtOnce = limits::of("rows.messages");
// The same in bodies, which are copied, too: as much as takes about as long.
constexpr int64_t kShownBytesAtOnce = 64 * limits::kKiB;

bool isRelated(const Message& message, uint32_t serial) {
    return serial == CV_INVALID_MESSAGE_NUMBER || message.getReceived() == serial ||
           message.getResult() == serial || message.getError() == serial;
}

bool isSelfWatcher(const Message& message, uint32_t serial) {
    return message.getSerialNumber() == serial && static_cast<int32_t>(message.getTimeout()) > 0 &&
           isWatcher(message) && message.getResponseRequest() == CV_WANTS_TIMEOUT &&
           message.getTarget() == message.getSender();
}

// Whether the sender of an expired message is to be told: it has asked, and does not watch the time
// itself.
bool asksForNotice(const Message& message) {
    return message.getResponseRequest().view().find(CV_WANTS_TIMEOUT) != std::string_view::npos &&
           !(message.getUserHeaderValue(CV_TIMEOUT_DETECTOR) == CV_DETECTOR_SENDER);
}

} // namespace

// Collected under the lock, told by the destructor, which runs after the lock is given up: declared
// before the guard.
class MessageQueue::Notices {
public:
    explicit Notices(Listener* listener) : listener_(listener) {}
    Notices(const Notices&) = delete;
    Notices& operator=(const Notices&) = delete;
    ~Notices() {
        try {
            tell();
        } catch (...) {
            return; // nobody to tell it to, and nothing to tell it with
        }
    }

    void report(const Message& message, const char* event, const SoString& root) {
        // As a rule nobody watches, and then nothing is copied.
        if (listener_ != nullptr && !root.isEmpty() &&
            !(message.getType().view() == CV_TYPE_DEBUG) && listener_->watchesTraffic()) {
            // A copy: the message may be gone by the time that this is told.
            reports_.push_back({std::make_unique<Message>(message), event, root});
        }
    }
    // The place of a message that is about to be retired: made before it leaves the queue, so that
    // it is not lost when memory runs out.
    std::unique_ptr<Message>& placeFor(const Message& message, const SoString& root) {
        const bool isNoticed = asksForNotice(message);
        if (isNoticed) {
            report(message, "timed out", root);
        }
        return (isNoticed ? noticed_ : retired_).emplace_back();
    }

private:
    struct Report {
        std::unique_ptr<Message> message;
        const char* event;
        SoString root;
    };

    void tell() {
        for (const Report& report : reports_) {
            listener_->traffic(*report.message, report.root, report.event);
        }
        for (const auto& message : noticed_) {
            if (listener_ != nullptr && message != nullptr) {
                listener_->expired(*message);
            }
        }
    }

    Listener* const listener_;
    std::vector<Report> reports_;
    std::vector<std::unique_ptr<Message>> noticed_;
    std::vector<std::unique_ptr<Message>> retired_;
};

MessageQueue::Listener::~Listener() = default;
MessageQueue::~MessageQueue() = default;

int64_t MessageQueue::bodyBytes() const {
    const ObjectLock guard(*this);
    return bodyBytes_;
}

bool MessageQueue::append(Message* message, bool isAnswer) {
    // Without both nobody could be told what has become of it.
    if (message == nullptr || message->getSender().isEmpty() || message->getTarget().isEmpty()) {
        return false;
    }
    // Its time runs from there.
    if (message->getTimestamp() == 0) {
        message->setTimestamp(ConveyUtils::getTimeSeconds());
    }
    if (message->getTimeout() == 0 && !isWatcher(*message)) {
        message->setTimeout(kDefaultTimeoutSeconds);
    }
    Notices notices(listener_);
    const ObjectLock guard(*this);
    notices.report(*message, "added", diagnosticsRoot_);
    Taken added{std::unique_ptr<Message>(message), lastPosition_ + 1, isAnswer,
                deadlineOf(*message)};
    try {
        insertLocked(added);
    } catch (...) {
        (void)added.message.release(); // still the caller's
        throw;
    }
    ++lastPosition_;
    return true;
}

// The messages that a taker looks at, by position: those that are not held up and those of senders
// that are so no more, or those of some numbers.
class MessageQueue::Walk {
public:
    explicit Walk(Order order) : order_(order) {}
    void add(Entry* first) { others_.push_back(first); }
    void addReady(Entry* first) { first_ = first; }

    // Null at the end. The entry before may have been taken out meanwhile, and no other.
    Entry* next() {
        Entry** oldest = &first_;
        for (Entry*& other : others_) {
            if (other != nullptr && (*oldest == nullptr || other->position < (*oldest)->position)) {
                oldest = &other;
            }
        }
        Entry* const found = *oldest;
        if (found != nullptr) {
            // Gone on from before it is shown, since who is shown it may take it out or move it.
            *oldest = found->links[order_].next;
        }
        return found;
    }

private:
    const Order order_;
    Entry* first_ = nullptr;
    std::vector<Entry*> others_;
};

MessageQueue::Taken MessageQueue::takeLocked(Notices& notices, uint32_t serial,
                                             const Choice* choice) {
    const bool byNumber = choice != nullptr && choice->numbers != nullptr;
    Walk walk(byNumber ? ofNumber : ofTurn);
    if (byNumber) {
        knowNumbersLocked();
        for (const uint32_t number : *choice->numbers) {
            if (const auto found = numbers_.find(number); found != numbers_.end()) {
                walk.add(found->second.first);
            }
        }
    } else {
        // Only the first of each sender is asked about: that is what keeps a take from looking at
        // all that is held up, each time.
        walk.addReady(ready_.first);
        for (const auto& [sender, chain] : heldUp_) {
            if (choice == nullptr || !choice->isHeldUp(*chain.first->message)) {
                walk.add(chain.first);
            }
        }
    }
    const int64_t now = ConveyUtils::getSteadyMilliseconds();
    const uint64_t last = lastPosition_; // watchers that move come behind it
    for (Entry* entry = walk.next(); entry != nullptr && entry->position <= last;
         entry = walk.next()) {
        const Message& message = *entry->message;
        // Also where expired ones have just been retired: the second may have changed meanwhile.
        if (now >= entry->deadline) {
            retireLocked(*entry, notices.placeFor(message, diagnosticsRoot_));
        } else if (entry->isWatcher && isRelated(message, serial)) {
            moveToEndLocked(*entry);
        } else if (choice != nullptr && choice->isHeldUp(message)) {
            parkLocked(*entry);
        } else if (choice == nullptr || choice->wants(message)) {
            // Before it is taken out: without memory for what is to be told of it, it stays.
            notices.report(message, "picked", diagnosticsRoot_);
            Taken taken{nullptr, entry->position, entry->isAnswer, entry->deadline};
            taken.message = removeLocked(*entry);
            return taken;
        }
    }
    return {};
}

Message* MessageQueue::getNextMessage(uint32_t serial) {
    Notices notices(listener_);
    const ObjectLock guard(*this);
    return takeLocked(notices, serial, nullptr).message.release();
}

MessageQueue::Taken MessageQueue::takeWanted(uint32_t serial, const Choice& choice) {
    Notices notices(listener_);
    const ObjectLock guard(*this);
    return takeLocked(notices, serial, &choice);
}

void MessageQueue::putBack(Taken& taken) {
    const ObjectLock guard(*this);
    insertLocked(taken);
}

bool MessageQueue::removeMessage(uint32_t serial) {
    if (serial == CV_INVALID_MESSAGE_NUMBER) {
        return false;
    }
    const std::unique_ptr<Message> message(getNextMessage(serial));
    return message != nullptr;
}

void MessageQueue::removeTimeoutMessage(uint32_t serial) {
    if (serial == CV_INVALID_MESSAGE_NUMBER) {
        return;
    }
    const ObjectLock guard(*this);
    // As a rule there are none, and looking at all messages for each answer would make many
    // requests dear.
    if (watchers_ == 0) {
        return;
    }
    for (Entry* next = all_.first; next != nullptr;) {
        Entry& entry = *next;
        next = entry.links[ofAll].next;
        if (isSelfWatcher(*entry.message, serial)) {
            (void)removeLocked(entry);
        }
    }
}

void MessageQueue::removeExpiredMessages() {
    const int64_t mayBeOver = firstDeadline_.load(std::memory_order_relaxed);
    if (mayBeOver == kNoDeadline) {
        return; // without a look at the clock
    }
    const int64_t now = ConveyUtils::getSteadyMilliseconds();
    if (now < mayBeOver) {
        return; // looking at each of many, each time, would take long
    }
    Notices notices(listener_);
    const ObjectLock guard(*this);
    int64_t first = kNoDeadline;
    // From the newest to the oldest: their senders are told in that order.
    for (Entry* next = all_.last; next != nullptr;) {
        Entry& entry = *next;
        next = entry.links[ofAll].previous;
        if (now >= entry.deadline) {
            retireLocked(entry, notices.placeFor(*entry.message, diagnosticsRoot_));
        } else {
            first = std::min(first, entry.deadline);
        }
    }
    // Here and in `firstDeadline` it becomes later. A message that is taken leaves it as it is,
    // which costs one look for nothing at most.
    firstDeadline_.store(first, std::memory_order_relaxed);
}

int64_t MessageQueue::firstDeadline() {
    const ObjectLock guard(*this);
    int64_t first = kNoDeadline;
    for (const Entry* entry = all_.first; entry != nullptr; entry = entry->links[ofAll].next) {
        first = std::min(first, entry->deadline);
    }
    firstDeadline_.store(first, std::memory_order_relaxed);
    return first;
}

int64_t MessageQueue::oldest() const {
    const ObjectLock guard(*this);
    int64_t first = INT64_MAX;
    for (const Entry* entry = all_.first; entry != nullptr; entry = entry->links[ofAll].next) {
        first = std::min(first, entry->since);
    }
    return first;
}

Message* MessageQueue::findMessageForTarget(const SoString& target) const {
    const ObjectLock guard(*this);
    const Line* const line = findLineLocked(target.view());
    // No line is empty.
    return line == nullptr ? nullptr : line->entries.first->message.get();
}

void MessageQueue::forEach(const std::function<void(const Message&)>& visit) const {
    const ObjectLock guard(*this);
    for (const Entry* entry = all_.first; entry != nullptr; entry = entry->links[ofAll].next) {
        visit(*entry->message);
    }
}

void MessageQueue::dropNumber(uint32_t serial) {
    Notices notices(listener_);
    const ObjectLock guard(*this);
    for (Entry* next = all_.first; next != nullptr;) {
        Entry& entry = *next;
        next = entry.links[ofAll].next;
        if (entry.message->getSerialNumber() == serial) {
            notices.report(*entry.message, "picked", diagnosticsRoot_);
            (void)removeLocked(entry);
        }
    }
}

bool MessageQueue::drop(std::string_view target, uint64_t position) {
    Notices notices(listener_);
    const ObjectLock guard(*this);
    Entry* const found = findLocked(target, position);
    if (found == nullptr) {
        return false;
    }
    notices.report(*found->message, "picked", diagnosticsRoot_);
    (void)removeLocked(*found);
    return true;
}

bool MessageQueue::visitNextFor(std::string_view target, uint64_t& position,
                                const std::function<void(const Message&)>& visit) const {
    const ObjectLock guard(*this);
    const Line* const line = findLineLocked(target);
    Entry* const next = line == nullptr ? nullptr : findBehind(*line, position);
    if (next == nullptr) {
        return false;
    }
    // A pass asks for one after the other: the next call goes on from here instead of from the
    // first.
    line->visited = next;
    position = next->position;
    visit(*next->message);
    return true;
}

std::vector<std::string> MessageQueue::targets() const {
    // Names and no lines, which change as soon as the lock is given up.
    std::vector<std::string> names;
    const ObjectLock guard(*this);
    names.reserve(lines_.size());
    for (const auto& line : lines_) {
        names.push_back(line.first);
    }
    return names;
}

MessageQueue::Load MessageQueue::loadOf(std::string_view target) const {
    if (isEmpty()) {
        return {};
    }
    const ObjectLock guard(*this);
    const Line* const line = findLineLocked(target);
    return line == nullptr ? Load{} : line->load;
}

uint64_t MessageQueue::numberOfLine(std::string_view target) const {
    const ObjectLock guard(*this);
    const Line* const line = findLineLocked(target);
    return line == nullptr ? 0 : line->number;
}

MessageQueue::Load MessageQueue::answers() const {
    const ObjectLock guard(*this);
    return answers_;
}

int32_t MessageQueue::dropAnswersFor(const std::string& target) {
    std::vector<std::unique_ptr<Message>> dropped; // deleted when the lock has been given up
    Notices notices(listener_);
    const ObjectLock guard(*this);
    const Line* const line = findLineLocked(target);
    Entry* next = line == nullptr ? nullptr : line->entries.first;
    while (next != nullptr) {
        Entry& entry = *next;
        next = entry.links[ofTarget].next; // the line goes with its last
        if (entry.isAnswer) {
            notices.report(*entry.message, "picked", diagnosticsRoot_);
            retireLocked(entry, dropped.emplace_back());
        }
    }
    return static_cast<int32_t>(dropped.size());
}

int64_t MessageQueue::waitsSince(std::string_view target, uint64_t position, uint32_t queueStamp) {
    const int64_t steady = ConveyUtils::toSteadyMilliseconds(queueStamp);
    const ObjectLock guard(*this);
    Entry* const found = findLocked(target, position);
    if (found == nullptr) {
        return steady;
    }
    if (found->since == 0) {
        found->since = steady;
    }
    return found->since;
}

bool MessageQueue::keep(std::string_view target, uint64_t position, uint32_t timestamp,
                        uint32_t timeoutSeconds, uint32_t queueStamp) {
    return restamp(target, position, timestamp, timeoutSeconds, queueStamp, false);
}

bool MessageQueue::end(std::string_view target, uint64_t position, uint32_t timestamp,
                       uint32_t timeoutSeconds) {
    return restamp(target, position, timestamp, timeoutSeconds, timestamp, true);
}

bool MessageQueue::restamp(std::string_view target, uint64_t position, uint32_t timestamp,
                           uint32_t timeoutSeconds, uint32_t queueStamp, bool isOver) {
    Notices notices(listener_);
    const ObjectLock guard(*this);
    Entry* const found = findLocked(target, position);
    if (found == nullptr) {
        return false;
    }
    Message& message = *found->message;
    // Its time changes and its place does not, so that nothing overtakes it.
    message.setTimestamp(timestamp);
    message.setTimeout(timeoutSeconds);
    message.setHeader(CV_QUEUESTAMP, static_cast<unsigned long>(queueStamp));
    setDeadlineLocked(*found, isOver ? kOver : deadlineOf(message));
    notices.report(message, "requeued", diagnosticsRoot_);
    return true;
}

void MessageQueue::setDiagnosticsRoot(const SoString& root) {
    const ObjectLock guard(*this);
    diagnosticsRoot_ = root;
}

int32_t MessageQueue::appendDiagnostics(SoString& out, const SoString& path) const {
    const bool wantsLogs = path.view().substr(0, 4) == "/log";
    int32_t written = 0;
    uint64_t position = 0;
    for (bool more = true; more;) {
        // Copies of a few at a time, written without the lock: with all of them under it an owner
        // with a long queue would stand still as long as somebody looks at it. And so it would with
        // rows written under it: who lets go of a lock for a moment only has it again before the
        // owner is awake.
        std::vector<Shown> some;
        more = copySome(position, wantsLogs, path, some);
        MessageRows rows(path);
        for (const Shown& one : some) {
            if (one.message != nullptr) {
                rows.append(*one.message, out);
            }
            out << one.rows;
            ++written;
        }
    }
    return written;
}

bool MessageQueue::copySome(uint64_t& position, bool wantsLogs, const SoString& path,
                            std::vector<Shown>& some) const {
    const ObjectLock guard(*this);
    const Entry* entry = shown_ != nullptr && shown_->position == position ? shown_ : all_.first;
    while (entry != nullptr && entry->position <= position) {
        entry = entry->links[ofAll].next;
    }
    int64_t bytes = 0;
    for (; entry != nullptr; entry = entry->links[ofAll].next) {
        const Message& message = *entry->message;
        if ((message.getType() == CV_TYPE_LOG) == wantsLogs) {
            Shown& one = some.emplace_back();
            const int32_t length = message.getBody().length();
            if (length > kShownBytesAtOnce) { // to write the little that is shown of it takes less
                message.appendDiagnostics(one.rows, path);
            } else {
                one.message = std::make_unique<Message>(message);
            }
            bytes += length;
        }
        position = entry->position;
        shown_ = entry;
        if (some.size() >= kShownAtOnce || bytes >= kShownBytesAtOnce) {
            return true;
        }
    }
    return false;
}

} // namespace ScObjects::ConveyData
