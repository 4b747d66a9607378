// Where the messages of a queue are: how they are found, linked and taken out.
#include <algorithm>
#include <utility>

#include "scriptobjects/convey/SoCVMessageQueue.h"
#include "scriptobjects/convey/SoCVSteadyTime.h"
#include "scriptobjects/convey/SoCVWords.h"

namespace ScObjects::ConveyData {

bool isWatcher(const Convey::Message& message) {
    return message.getType() == CV_TYPE_WATCHER;
}

// From the newest: as a rule it is one itself.
template <MessageQueue::Order order>
void MessageQueue::Chain<order>::insert(Entry& entry) {
    Entry* before = last;
    while (before != nullptr && before->position > entry.position) {
        before = before->links[order].previous;
    }
    Entry*& next = before == nullptr ? first : before->links[order].next;
    Entry*& previous = next == nullptr ? last : next->links[order].previous;
    entry.links[order] = {before, next};
    next = previous = &entry;
}

template <MessageQueue::Order order>
void MessageQueue::Chain<order>::remove(Entry& entry) {
    Link& link = entry.links[order];
    (link.previous == nullptr ? first : link.previous->links[order].next) = link.next;
    (link.next == nullptr ? last : link.next->links[order].previous) = link.previous;
    link = {};
}

int64_t MessageQueue::deadlineOf(const Convey::Message& message) {
    // Read as a signed number: peers write one below 0 for a message that is to live for ever.
    const auto timeout = static_cast<int32_t>(message.getTimeout());
    if (timeout == 0) {
        return isWatcher(message) ? 0 : kNoDeadline;
    }
    if (timeout < 0 || message.getTimestamp() == 0) {
        return kNoDeadline;
    }
    return ConveyUtils::toSteadyMilliseconds(int64_t{message.getTimestamp()} + timeout);
}

void MessageQueue::setDeadlineLocked(Entry& entry, int64_t deadline) {
    entry.deadline = deadline;
    // Under the lock. Who reads it without asks only whether to look, and looks with the lock held.
    if (deadline < firstDeadline_.load(std::memory_order_relaxed)) {
        firstDeadline_.store(deadline, std::memory_order_relaxed);
    }
}

MessageQueue::Entry& MessageQueue::Pool::take() {
    if (free_ == nullptr) {
        blocks_.reserve(blocks_.size() + 1);
        blocks_.push_back(std::make_unique<Entry[]>(kBlock));
        for (size_t i = 0; i < kBlock; ++i) {
            giveBack(blocks_.back()[i]);
        }
    }
    Entry& entry = *free_;
    free_ = entry.links[ofAll].next;
    entry.links[ofAll] = {};
    return entry;
}

void MessageQueue::Pool::giveBack(Entry& entry) noexcept {
    entry.links[ofAll] = {nullptr, free_};
    free_ = &entry;
}

void MessageQueue::Pool::shrink() noexcept {
    // A burst must not cost its memory for ever. Nothing points into the blocks now.
    if (blocks_.size() > 1) {
        blocks_.resize(1);
        free_ = nullptr;
        for (size_t i = 0; i < kBlock; ++i) {
            giveBack(blocks_.front()[i]);
        }
    }
}

const MessageQueue::Line* MessageQueue::findLineLocked(std::string_view target) const {
    const auto found = lines_.find(target);
    return found == lines_.end() ? nullptr : &found->second;
}

// The first one behind a position.
MessageQueue::Entry* MessageQueue::findBehind(const Line& line, uint64_t position) {
    Entry* next = line.visited != nullptr && line.visited->position <= position
                      ? line.visited
                      : line.entries.first;
    while (next != nullptr && next->position <= position) {
        next = next->links[ofTarget].next;
    }
    return next;
}

MessageQueue::Entry* MessageQueue::findLocked(std::string_view target, uint64_t position) const {
    const Line* const line = findLineLocked(target);
    // Positions begin with 1.
    Entry* const found =
        line == nullptr || position == 0 ? nullptr : findBehind(*line, position - 1);
    return found == nullptr || found->position != position ? nullptr : found;
}

// Many in a row are for one target, and a name takes longer to find than to compare.
MessageQueue::Line& MessageQueue::lineLocked(std::string_view target) {
    // It has a last message to look at: no line is empty, and this one is forgotten with its line.
    if (newestLine_ == nullptr ||
        newestLine_->entries.last->message->getTarget().view() != target) {
        // Entries point to their lines: what is in the table stays in its place when that grows.
        const auto found = lines_.find(target);
        newestLine_ = found != lines_.end() ? &found->second : &lines_[std::string(target)];
    }
    return *newestLine_;
}

// The queue's from the end of the call on: what needs memory comes first.
void MessageQueue::insertLocked(Taken& added) {
    const Convey::Message& message = *added.message;
    Entry& entry = pool_.take();
    try {
        if (numbersKnown_) {
            (void)numbers_[message.getSerialNumber()];
        }
        entry.line = &lineLocked(message.getTarget().view());
    } catch (...) {
        pool_.giveBack(entry);
        tidyLocked();
        throw;
    }
    entry.position = added.position;
    if (entry.line->number == 0) {
        entry.line->number = added.position;
    }
    entry.since = 0;
    entry.isAnswer = added.isAnswer;
    entry.isWatcher = isWatcher(message);
    entry.turn = &ready_;
    entry.message = std::move(added.message);
    linkLocked(entry);
    const int32_t bytes = message.getBody().length();
    bodyBytes_ += bytes;
    for (Load* load : {&entry.line->load, entry.isAnswer ? &answers_ : nullptr}) {
        if (load != nullptr) {
            ++load->messages;
            load->bytes += bytes;
        }
    }
    watchers_ += entry.isWatcher ? 1 : 0;
    setDeadlineLocked(entry, added.deadline);
    count_.fetch_add(1);
}

// What is left of an insertion that ran out of memory.
void MessageQueue::tidyLocked() {
    newestLine_ = nullptr;
    std::erase_if(lines_, [](const auto& line) { return line.second.entries.first == nullptr; });
    std::erase_if(numbers_, [](const auto& chain) { return chain.second.first == nullptr; });
}

// Needs no memory, as what it is inserted into is there.
void MessageQueue::linkLocked(Entry& entry) {
    all_.insert(entry);
    entry.line->entries.insert(entry);
    entry.turn->insert(entry);
    if (numbersKnown_) {
        numbers_.find(entry.message->getSerialNumber())->second.insert(entry);
    }
}

void MessageQueue::unlinkLocked(Entry& entry) {
    // A pass that was here begins with the first of the line again.
    if (entry.line->visited == &entry) {
        entry.line->visited = nullptr;
    }
    shown_ = shown_ == &entry ? nullptr : shown_;
    all_.remove(entry);
    entry.line->entries.remove(entry);
    entry.turn->remove(entry);
    if (numbersKnown_) {
        numbers_.find(entry.message->getSerialNumber())->second.remove(entry);
    }
}

std::unique_ptr<Convey::Message> MessageQueue::removeLocked(Entry& entry) {
    unlinkLocked(entry);
    // Its names and number are what the indexes are left by below.
    std::unique_ptr<Convey::Message> message = std::move(entry.message);
    const int32_t bytes = message->getBody().length();
    bodyBytes_ -= bytes;
    for (Load* load : {&entry.line->load, entry.isAnswer ? &answers_ : nullptr}) {
        if (load != nullptr) {
            --load->messages;
            load->bytes -= bytes;
        }
    }
    watchers_ -= entry.isWatcher ? 1 : 0;
    if (entry.line->entries.first == nullptr) {
        newestLine_ = newestLine_ == entry.line ? nullptr : newestLine_;
        lines_.erase(lines_.find(message->getTarget().view()));
    }
    if (entry.turn != &ready_ && entry.turn->first == nullptr) {
        heldUp_.erase(heldUp_.find(message->getSender().view()));
    }
    const auto number = numbersKnown_ ? numbers_.find(message->getSerialNumber()) : numbers_.end();
    if (number != numbers_.end() && number->second.first == nullptr) {
        numbers_.erase(number);
    }
    pool_.giveBack(entry);
    // The index went with the last entry of each number, and the next to ask by one makes it anew.
    if (count_.fetch_sub(1) == 1) {
        numbersKnown_ = false;
        firstDeadline_.store(kNoDeadline, std::memory_order_relaxed);
        pool_.shrink();
    }
    return message;
}

void MessageQueue::retireLocked(Entry& entry, std::unique_ptr<Convey::Message>& place) {
    if (!entry.isWatcher) {
        dropped_.fetch_add(1, std::memory_order_relaxed);
    }
    place = removeLocked(entry);
}

// Needs no memory: what it is linked into is there.
void MessageQueue::moveToEndLocked(Entry& entry) {
    unlinkLocked(entry);
    entry.position = ++lastPosition_;
    linkLocked(entry);
}

// Out of the way of who takes, until its sender is held up no more. A watcher stays where all who
// pass find it.
void MessageQueue::parkLocked(Entry& entry) {
    if (entry.turn == &ready_ && !entry.isWatcher) {
        const std::string_view sender = entry.message->getSender().view();
        const auto found = heldUp_.find(sender);
        // The chain first: without memory for it the entry stays where it was.
        auto& chain = found != heldUp_.end() ? found->second : heldUp_[std::string(sender)];
        ready_.remove(entry);
        entry.turn = &chain;
        chain.insert(entry);
    }
}

void MessageQueue::knowNumbersLocked() {
    if (numbersKnown_) {
        return;
    }
    // First all that needs memory, so that without it nothing is half known; then what cannot fail.
    try {
        for (const Entry* entry = all_.first; entry != nullptr; entry = entry->links[ofAll].next) {
            (void)numbers_[entry->message->getSerialNumber()];
        }
    } catch (...) {
        numbers_.clear();
        throw;
    }
    for (Entry* entry = all_.first; entry != nullptr; entry = entry->links[ofAll].next) {
        numbers_.find(entry->message->getSerialNumber())->second.insert(*entry);
    }
    numbersKnown_ = true;
}

} // namespace ScObjects::ConveyData
