#include "scriptobjects/convey/SoCVMessageQueue.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVWords.h"

namespace ScObjects::ConveyData {
namespace {

using Message = Convey::Message;

constexpr int64_t kNever = INT64_MAX;

bool isWatcher(const Message& message) {
    return message.getType() == CV_TYPE_WATCHER;
}

// The second at which the message expires; 0 for one that has expired from the start.
int64_t deadlineOf(const Message& message) {
    const auto timeout = static_cast<int32_t>(message.getTimeout());
    if (timeout == 0) {
        return isWatcher(message) ? 0 : kNever;
    }
    if (timeout < 0 || message.getTimestamp() == 0) {
        return kNever;
    }
    return static_cast<int64_t>(message.getTimestamp()) + timeout;
}

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
        if (listener_ != nullptr && !root.isEmpty() &&
            !(message.getType().view() == CV_TYPE_DEBUG) && listener_->watchesTraffic()) {
            reports_.push_back({std::make_unique<Message>(message), event, root});
        }
    }
    void retire(std::unique_ptr<Message> message, const SoString& root) {
        const bool isNoticed = asksForNotice(*message);
        if (isNoticed) {
            report(*message, "timed out", root);
        }
        (isNoticed ? noticed_ : retired_).push_back(std::move(message));
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
            if (listener_ != nullptr) {
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

bool MessageQueue::isEmpty() const {
    const ObjectLock guard(*this);
    return entries_.empty();
}

int32_t MessageQueue::count() const {
    const ObjectLock guard(*this);
    return static_cast<int32_t>(entries_.size());
}

int64_t MessageQueue::bodyBytes() const {
    const ObjectLock guard(*this);
    return bodyBytes_;
}

void MessageQueue::noteDeadlineLocked(const Message& message) {
    firstDeadline_ = std::min(firstDeadline_, deadlineOf(message));
}

// The queue's from the end of the call on: what needs memory comes first.
void MessageQueue::appendLocked(Message* message, bool isAnswer) {
    const uint64_t position = lastPosition_ + 1;
    entries_.push_back({position, nullptr, isAnswer});
    try {
        Line& line = lines_[std::string(message->getTarget().view())];
        line.positions.push_back(position);
        line.bytes += message->getBody().length();
    } catch (...) {
        entries_.pop_back();
        std::erase_if(lines_, [](const auto& line) { return line.second.positions.empty(); });
        throw;
    }
    entries_.back().message.reset(message);
    lastPosition_ = position;
    bodyBytes_ += message->getBody().length();
    if (isAnswer) {
        ++answers_.messages;
        answers_.bytes += message->getBody().length();
    }
    watchers_ += isWatcher(*message) ? 1 : 0;
    noteDeadlineLocked(*message);
}

void MessageQueue::forgetLocked(const Entry& entry) {
    const Message& message = *entry.message;
    const auto line = lines_.find(std::string(message.getTarget().view()));
    if (line != lines_.end()) {
        auto& positions = line->second.positions;
        // As a rule it is the first or the last.
        positions.erase(std::lower_bound(positions.begin(), positions.end(), entry.position));
        line->second.bytes -= message.getBody().length();
        if (positions.empty()) {
            lines_.erase(line);
        }
    }
    bodyBytes_ -= message.getBody().length();
    if (entry.isAnswer) {
        --answers_.messages;
        answers_.bytes -= message.getBody().length();
    }
    watchers_ -= isWatcher(message) ? 1 : 0;
}

std::unique_ptr<Message> MessageQueue::takeLocked(const Entries::const_iterator& entry) {
    const auto place = entries_.begin() + (entry - entries_.cbegin());
    forgetLocked(*place);
    std::unique_ptr<Message> message = std::move(place->message);
    entries_.erase(place);
    return message;
}

bool MessageQueue::append(Message* message, bool isAnswer) {
    if (message == nullptr || message->getSender().isEmpty() || message->getTarget().isEmpty()) {
        return false;
    }
    if (message->getTimestamp() == 0) {
        message->setTimestamp(ConveyUtils::getTimeSeconds());
    }
    if (message->getTimeout() == 0 && !isWatcher(*message)) {
        message->setTimeout(kDefaultTimeoutSeconds);
    }
    Notices notices(listener_);
    const ObjectLock guard(*this);
    notices.report(*message, "added", diagnosticsRoot_);
    appendLocked(message, isAnswer);
    return true;
}

std::unique_ptr<Message>
MessageQueue::takeLocked(Notices& notices, uint32_t serial,
                         const std::function<bool(const Message&)>& wanted) {
    const int64_t now = ConveyUtils::getTimeSeconds();
    std::vector<std::unique_ptr<Message>> setAside;
    std::unique_ptr<Message> result;
    for (size_t i = 0; result == nullptr && i < entries_.size();) {
        const auto entry = entries_.cbegin() + static_cast<std::ptrdiff_t>(i);
        const Message& message = *entry->message;
        if (now >= deadlineOf(message)) {
            notices.retire(takeLocked(entry), diagnosticsRoot_);
        } else if (isWatcher(message) && isRelated(message, serial)) {
            setAside.push_back(takeLocked(entry));
        } else if (wanted(message)) {
            result = takeLocked(entry);
        } else {
            ++i;
        }
    }
    for (auto& watcher : setAside) {
        appendLocked(watcher.get(), false);
        (void)watcher.release(); // the queue's now
    }
    if (result != nullptr) {
        notices.report(*result, "picked", diagnosticsRoot_);
    }
    return result;
}

Message* MessageQueue::getNextMessage(uint32_t serial) {
    Notices notices(listener_);
    const ObjectLock guard(*this);
    return takeLocked(notices, serial, [](const Message&) { return true; }).release();
}

std::unique_ptr<Message>
MessageQueue::takeWanted(uint32_t serial, const std::function<bool(const Message&)>& wanted) {
    Notices notices(listener_);
    const ObjectLock guard(*this);
    return takeLocked(notices, serial, wanted);
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
    if (watchers_ == 0) {
        return;
    }
    for (size_t i = entries_.size(); i-- > 0;) {
        if (isSelfWatcher(*entries_[i].message, serial)) {
            (void)takeLocked(entries_.cbegin() + static_cast<std::ptrdiff_t>(i));
        }
    }
}

void MessageQueue::removeExpiredMessages() {
    const int64_t now = ConveyUtils::getTimeSeconds();
    Notices notices(listener_);
    const ObjectLock guard(*this);
    if (now < firstDeadline_) {
        return; // looking at each of many, each time, would take long
    }
    firstDeadline_ = kNoDeadline;
    Entries kept;
    // From the newest to the oldest: their senders are told in that order.
    while (!entries_.empty()) {
        Entry entry = std::move(entries_.back());
        entries_.pop_back();
        if (now >= deadlineOf(*entry.message)) {
            forgetLocked(entry);
            notices.retire(std::move(entry.message), diagnosticsRoot_);
        } else {
            noteDeadlineLocked(*entry.message);
            kept.push_front(std::move(entry));
        }
    }
    entries_ = std::move(kept);
}

Message* MessageQueue::findMessageForTarget(const SoString& target) const {
    const ObjectLock guard(*this);
    const auto line = lines_.find(std::string(target.view()));
    return line == lines_.end() ? nullptr
                                : findLocked(line->second.positions.front())->message.get();
}

MessageQueue::Entries::const_iterator MessageQueue::findLocked(uint64_t position) const {
    const auto found = std::lower_bound(
        entries_.begin(), entries_.end(), position,
        [](const Entry& entry, uint64_t wanted) { return entry.position < wanted; });
    return found;
}

void MessageQueue::forEach(const std::function<void(const Message&)>& visit) const {
    const ObjectLock guard(*this);
    for (const Entry& entry : entries_) {
        visit(*entry.message);
    }
}

void MessageQueue::dropNumber(uint32_t serial) {
    Notices notices(listener_);
    const ObjectLock guard(*this);
    for (size_t i = entries_.size(); i-- > 0;) {
        if (entries_[i].message->getSerialNumber() == serial) {
            notices.report(*entries_[i].message, "picked", diagnosticsRoot_);
            (void)takeLocked(entries_.cbegin() + static_cast<std::ptrdiff_t>(i));
        }
    }
}

bool MessageQueue::drop(std::string_view target, uint64_t position) {
    Notices notices(listener_);
    const ObjectLock guard(*this);
    const auto found = findLocked(position);
    if (found == entries_.end() || found->position != position ||
        found->message->getTarget().view() != target) {
        return false;
    }
    notices.report(*found->message, "picked", diagnosticsRoot_);
    (void)takeLocked(found);
    return true;
}

bool MessageQueue::visitNextFor(std::string_view target, uint64_t& position,
                                const std::function<void(const Message&)>& visit) const {
    const ObjectLock guard(*this);
    const auto line = lines_.find(std::string(target));
    if (line == lines_.end()) {
        return false;
    }
    const auto& positions = line->second.positions;
    const auto next = std::upper_bound(positions.begin(), positions.end(), position);
    if (next == positions.end()) {
        return false;
    }
    position = *next;
    visit(*findLocked(position)->message);
    return true;
}

std::vector<std::string> MessageQueue::targets() const {
    std::vector<std::string> names;
    const ObjectLock guard(*this);
    names.reserve(lines_.size());
    for (const auto& line : lines_) {
        names.push_back(line.first);
    }
    return names;
}

MessageQueue::Load MessageQueue::loadOf(std::string_view target) const {
    const ObjectLock guard(*this);
    const auto line = lines_.find(std::string(target));
    return line == lines_.end()
               ? Load{}
               : Load{static_cast<int32_t>(line->second.positions.size()), line->second.bytes};
}

MessageQueue::Load MessageQueue::answers() const {
    const ObjectLock guard(*this);
    return answers_;
}

int32_t MessageQueue::dropAnswersFor(const std::string& target) {
    std::vector<std::unique_ptr<Message>> dropped; // deleted when the lock has been given up
    Notices notices(listener_);
    const ObjectLock guard(*this);
    const auto line = lines_.find(target);
    if (line == lines_.end()) {
        return 0;
    }
    const std::deque<uint64_t> positions = line->second.positions;
    for (const uint64_t position : positions) {
        const auto entry = findLocked(position);
        if (entry->isAnswer) {
            notices.report(*entry->message, "picked", diagnosticsRoot_);
            dropped.push_back(takeLocked(entry));
        }
    }
    return static_cast<int32_t>(dropped.size());
}

bool MessageQueue::keep(std::string_view target, uint64_t position, uint32_t timestamp,
                        uint32_t timeoutSeconds, uint32_t queueStamp) {
    Notices notices(listener_);
    const ObjectLock guard(*this);
    const auto found = findLocked(position);
    if (found == entries_.end() || found->position != position ||
        found->message->getTarget().view() != target) {
        return false;
    }
    Message& message = *found->message;
    message.setTimestamp(timestamp);
    message.setTimeout(timeoutSeconds);
    message.setHeader(CV_QUEUESTAMP, static_cast<unsigned long>(queueStamp));
    noteDeadlineLocked(message);
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
    const ObjectLock guard(*this);
    for (const Entry& entry : entries_) {
        if ((entry.message->getType() == CV_TYPE_LOG) == wantsLogs) {
            entry.message->appendDiagnostics(out, path);
            ++written;
        }
    }
    return written;
}

} // namespace ScObjects::ConveyData
