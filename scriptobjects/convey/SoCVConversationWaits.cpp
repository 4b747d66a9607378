// Who waits for what a conversation brings: the watchers of its time, and those in `send`.
#include <algorithm>
#include <utility>

#include "scriptobjects/convey/SoCVConversation.h"
#include "scriptobjects/convey/SoCVSteadyTime.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVWords.h"

namespace ScObjects::ConveyData {
namespace {

using Message = Convey::Message;

constinit thread_local const Conversations::Wait* gInnermostWait = nullptr;

} // namespace

// Watchers.

void Conversations::unwatchLocked(Conversation& conversation) {
    if (!conversation.watched_) {
        return;
    }
    conversation.watched_ = false;
    // Each watch knows its place among those of its second, so that ending one takes the same time
    // however many there are.
    const auto second = deadlines_.find(conversation.deadline_);
    second->second.erase(conversation.deadlinePlace_);
    if (second->second.empty()) {
        deadlines_.erase(second);
        noteFirstSecondLocked();
    }
}

void Conversations::noteFirstSecondLocked() {
    firstSecond_.store(deadlines_.empty() ? INT64_MAX : deadlines_.begin()->first);
}

void Conversations::unwatch(uint32_t number) {
    const ObjectLock guard(*this);
    if (Conversation* const conversation = findLocked(number)) {
        unwatchLocked(*conversation);
        closeIfDoneLocked(*conversation);
    }
}

void Conversations::watch(const Message& request, const SoString& watcher, uint32_t seconds) {
    const uint32_t now = ConveyUtils::getTimeSeconds();
    const int64_t steady = ConveyUtils::getSteadyMilliseconds() / 1000;
    const auto life = static_cast<int32_t>(seconds);
    // One that never ends has a place as well: it is shown, and ended by an answer, as the others
    // are.
    const int64_t deadline = life < 0 ? INT64_MAX : steady + life;
    std::string name(watcher.view());
    std::list<Conversation*> place{nullptr};
    const ObjectLock guard(*this);
    const std::shared_ptr<Conversation> conversation = openLocked(request.getSerialNumber());
    if (conversation->watched_ && conversation->deadline_ <= deadline) {
        return; // the first to end tells of all
    }
    // All that can fail, before anything has changed: a second without a conversation would be
    // looked into when it has come.
    auto second = deadlines_.end();
    try {
        second = deadlines_.try_emplace(deadline).first;
    } catch (const std::bad_alloc&) {
        closeIfDoneLocked(*conversation);
        throw;
    }
    unwatchLocked(*conversation);
    noteFirstSecondLocked();
    place.front() = conversation.get();
    second->second.splice(second->second.end(), place);
    conversation->watched_ = true;
    conversation->watcher_ = std::move(name);
    conversation->watchedSince_ = now;
    conversation->watchSeconds_ = seconds;
    conversation->watchOrder_ = ++lastWatch_;
    conversation->deadline_ = deadline;
    conversation->deadlinePlace_ = std::prev(second->second.end());
}

std::unique_ptr<Message> Conversation::watcherMessage() const {
    auto message = std::make_unique<Message>();
    message->setTarget(SoString(watcher_));
    message->setSender(SoString(watcher_));
    message->setType(CV_TYPE_WATCHER);
    message->setResponseRequest(CV_WANTS_TIMEOUT);
    message->setSerialNumber(number_);
    message->setTimestamp(watchedSince_);
    message->setTimeout(watchSeconds_);
    return message;
}

std::unique_ptr<Message> Conversations::watcherOf(uint32_t number) const {
    const ObjectLock guard(*this);
    const Conversation* const conversation = findLocked(number);
    return conversation == nullptr || !conversation->watched_ ? nullptr
                                                              : conversation->watcherMessage();
}

std::vector<std::unique_ptr<Message>> Conversations::takeExpired() {
    std::vector<std::unique_ptr<Message>> messages;
    const int64_t first = firstSecond_.load();
    if (first == INT64_MAX) {
        return messages;
    }
    const int64_t now = ConveyUtils::getSteadyMilliseconds() / 1000;
    if (now < first) {
        return messages;
    }
    std::vector<std::pair<uint64_t, std::unique_ptr<Message>>> expired;
    {
        const ObjectLock guard(*this);
        // The first second that has not come ends it: what is not over is not looked at.
        const auto end = deadlines_.upper_bound(now);
        for (auto second = deadlines_.begin(); second != end; ++second) {
            for (const Conversation* const conversation : second->second) {
                expired.emplace_back(conversation->watchOrder_, conversation->watcherMessage());
            }
        }
        // From here on nothing fails: a watch that is taken out is told of.
        messages.reserve(expired.size());
        while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
            Conversation& conversation = *deadlines_.begin()->second.front();
            unwatchLocked(conversation);
            closeIfDoneLocked(conversation);
        }
    }
    // As queues retire their messages from the end, observers have always seen the newest first.
    std::sort(expired.begin(), expired.end(),
              [](const auto& a, const auto& b) { return a.first > b.first; });
    for (auto& [order, message] : expired) {
        messages.push_back(std::move(message));
    }
    return messages;
}

int64_t Conversations::firstDeadline() const {
    const int64_t second = firstSecond_.load();
    return second == INT64_MAX ? INT64_MAX : second * 1000;
}

std::vector<std::unique_ptr<Message>> Conversations::watchers() const {
    std::map<uint64_t, std::unique_ptr<Message>> ordered;
    {
        const ObjectLock guard(*this);
        for (const auto& [deadline, watched] : deadlines_) {
            for (const Conversation* const conversation : watched) {
                ordered.emplace(conversation->watchOrder_, conversation->watcherMessage());
            }
        }
    }
    std::vector<std::unique_ptr<Message>> messages;
    messages.reserve(ordered.size());
    for (auto& [order, message] : ordered) {
        messages.push_back(std::move(message));
    }
    return messages;
}

bool Conversations::isWatching() const {
    const ObjectLock guard(*this);
    return !deadlines_.empty();
}

// Waits.

bool Conversations::noteRequest(const Message& request) {
    const uint32_t number = request.getSerialNumber();
    const ObjectLock guard(*this);
    Conversation* const conversation = findLocked(number);
    if (conversation != nullptr && request.isUserType()) {
        conversation->requestType_ = request.getType().view();
    }
    return findForLocked({}, number) != nullptr;
}

Conversations::Wait::Wait(Conversations& table, const Message& request)
    : table_(table),
      conversation_([&] {
          const ObjectLock guard(table);
          auto conversation = table.openLocked(request.getSerialNumber());
          // In the same step, as a conversation that nobody needs goes with the lock.
          ++conversation->waiting_;
          return conversation;
      }()),
      asker_(request.getSender().view()),
      outer_(gInnermostWait) {
    const ObjectLock guard(table_);
    // Within a handler of its own number the turn is this thread's, and what ends the wait can come
    // only within that: `enter` and `state` make it an exception.
    inside_ =
        conversation_->insideDepth_ != 0 && conversation_->inside_ == std::this_thread::get_id();
    conversation_->waitingInside_ += inside_ ? 1 : 0;
    // Linked through the object itself, on the stack: noting a wait needs no memory.
    next_ = table_.newestWait_;
    if (next_ != nullptr) {
        next_->previous_ = this;
    }
    table_.newestWait_ = this;
    gInnermostWait = this;
}

Conversations::Wait::~Wait() {
    // The waits of a thread end in the reverse order of their beginnings, those of a table in any
    // order.
    gInnermostWait = outer_;
    const ObjectLock guard(table_);
    --conversation_->waiting_;
    conversation_->waitingInside_ -= inside_ ? 1 : 0;
    (previous_ == nullptr ? table_.newestWait_ : previous_->next_) = next_;
    if (next_ != nullptr) {
        next_->previous_ = previous_;
    }
    table_.closeIfDoneLocked(*conversation_);
}

std::vector<uint32_t> Conversations::awaitedNumbers() const {
    std::vector<uint32_t> numbers;
    // Without the lock: the chain is this thread's alone.
    for (const Wait* wait = gInnermostWait; wait != nullptr; wait = wait->outer_) {
        numbers.push_back(wait->conversation_->number());
    }
    {
        const ObjectLock guard(*this);
        for (const Wait* wait = newestWait_; wait != nullptr; wait = wait->next_) {
            numbers.push_back(wait->conversation_->number());
        }
    }
    // Each once: a taker that was given one twice would come by its messages twice, and the first
    // time may take them out.
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    return numbers;
}

Conversations::Wait::State Conversations::Wait::state() const {
    const ObjectLock guard(table_);
    const Conversation& conversation = *conversation_;
    if (conversation.insideDepth_ != 0 && !inside_) {
        return State::open; // not before the handler has returned
    }
    if (conversation.end_ != Conversation::End::none) {
        return conversation.end_ == Conversation::End::answered ? State::answered : State::failed;
    }
    if (!conversation.slots_.empty()) {
        return State::open;
    }
    // Handlers that are gone without having been called were taken out by somebody.
    return conversation.handlerRan_ || !conversation.hadHandler_ ? State::answered : State::failed;
}

// By the asker, too: numbers of two processes meet, and so would a request of a peer pass for the
// nested one that this thread has sent to another instance of its own.
bool Conversations::Wait::isAwaitedHere(const Message& request) {
    for (const Wait* wait = gInnermostWait; wait != nullptr; wait = wait->outer_) {
        if (wait->conversation_->number() == request.getSerialNumber() &&
            wait->asker_ == request.getSender().view()) {
            return true;
        }
    }
    return false;
}

} // namespace ScObjects::ConveyData
