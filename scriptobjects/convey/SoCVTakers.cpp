#include "scriptobjects/convey/SoCVTakers.h"

#include <algorithm>
#include <new>
#include <utility>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVArrivals.h"
#include "scriptobjects/convey/SoCVConversation.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects::ConveyData {
namespace {

using Message = Convey::Message;
using platform::TargetWatch;

constexpr uint32_t kUsualSeconds = limits::of("message.timeout");

} // namespace

// Only what answers come to can be told that they will not come: that is known of this process, in
// this life. A message of type "Debug" is not answered with "Processed", so it would never end.
std::optional<AwaitedRequest> AwaitedRequest::of(const Message& message, uint32_t seconds) {
    if (message.getAskersLife() != ownLife() ||
        message.getResponseRequest().view().find(CV_WANTS_ERROR) == std::string_view::npos ||
        message.getType() == CV_TYPE_DEBUG || replyOf(message).kind != Reply::kNone) {
        return std::nullopt;
    }
    AwaitedRequest request;
    request.number = message.getSerialNumber();
    request.asker = message.getSender().view();
    request.target = message.getTarget().view();
    if (message.isUserType()) {
        request.type = message.getType().view();
    }
    // The queue of its target gives a message without a time-out this one.
    const uint32_t timeout = message.getTimeout() == 0 ? kUsualSeconds : message.getTimeout();
    request.until = static_cast<int32_t>(timeout) < 0
                        ? INT64_MAX
                        : platform::monotonicNow() + int64_t{1000} * std::max(timeout, seconds);
    return request;
}

std::unique_ptr<Message> AwaitedRequest::message() const {
    auto request = std::make_unique<Message>();
    request->setSender(SoString(asker));
    request->setTarget(SoString(target));
    request->setSerialNumber(number);
    request->setResponseRequest(CV_WANTS_ERROR);
    // As the request had it: the error is then one for this life of the process.
    request->setAskersLife(ownLife());
    request->setBody("(not kept)"); // who watches errors is shown no empty ones
    if (!type.empty()) {
        request->setType(SoString(type));
    }
    return request;
}

Takers::Sending::Sending(std::shared_ptr<Takers> takers, AwaitedRequest request,
                         std::function<void(TargetWatch&)> watch)
    : takers_(std::move(takers)),
      watch_(std::move(watch)),
      target_(SoString(request.target)),
      number_(request.number) {
    place_ = takers_->begin(std::move(request));
}

Takers::Sending::~Sending() {
    takers_->abandon(number_, place_);
}

platform::SendResult Takers::Sending::send(const InterAppStream& stream,
                                           const Convey::Message::Text& text,
                                           int32_t timeoutMilliseconds) {
    std::shared_ptr<TargetWatch> taker;
    const platform::SendResult result =
        stream.send(target_, text.pieces(), timeoutMilliseconds, &taker);
    // Watched with no lock held: that goes to the background thread.
    if (taker != nullptr && takers_->taken(number_, place_, taker)) {
        watch_(*taker);
    }
    return result;
}

Takers::Takers() = default;
Takers::~Takers() = default;

void Takers::eraseLocked(Entries::iterator entry) {
    if (Taker* const taker = entry->second.taker) {
        taker->numbers.erase(entry->second.inTaker);
    }
    entries_.erase(entry);
    anyRequests_.store(!entries_.empty());
}

uint64_t Takers::begin(AwaitedRequest&& request) {
    const uint32_t number = request.number;
    const ObjectLock guard(*this);
    // The instance has ended: nobody would take it out again.
    if (closed_) {
        return 0;
    }
    const auto old = entries_.find(number);
    if (old != entries_.end()) { // the host gives its numbers as it likes
        eraseLocked(old);
    }
    request.place = ++lastPlace_;
    entries_.emplace(number, Entry{std::move(request), nullptr, {}});
    anyRequests_.store(true);
    return lastPlace_;
}

// True for a taker that had no request. Without memory the request is delivered all the same, and
// nobody watches its taker.
bool Takers::taken(uint32_t number, uint64_t place, const std::shared_ptr<TargetWatch>& by) try {
    const ObjectLock guard(*this);
    const auto entry = entries_.find(number);
    // An answer may be quicker than the sender's return to here. The place tells a later request of
    // the same number.
    if (entry == entries_.end() || entry->second.request.place != place) {
        return false; // answered already
    }
    // What is left of this without memory is a taker without requests, which the next round
    // forgets.
    const auto [taker, isNew] = takers_.try_emplace(by.get());
    taker->second.watch = by;
    taker->second.numbers.push_back(number);
    // The table leaves it in its place, and a taker that has requests is not forgotten.
    entry->second.taker = &taker->second;
    entry->second.inTaker = std::prev(taker->second.numbers.end());
    return isNew;
} catch (const std::bad_alloc&) {
    return false;
}

void Takers::abandon(uint32_t number, uint64_t place) {
    const ObjectLock guard(*this);
    const auto entry = entries_.find(number);
    // What has a taker was delivered, and stays until it is answered.
    if (entry != entries_.end() && entry->second.request.place == place &&
        entry->second.taker == nullptr) {
        eraseLocked(entry);
    }
}

bool Takers::isEmpty() const {
    const ObjectLock guard(*this);
    return entries_.empty() && takers_.empty();
}

void Takers::noteReceived(const Message& message) {
    if (!anyRequests_.load()) {
        return;
    }
    const ObjectLock guard(*this);
    const auto entry = entries_.find(message.getSerialNumber());
    if (entry == entries_.end()) {
        return;
    }
    // A request of a peer may have the number, too; and "Received" says only that the target has
    // it, which may end with it unanswered.
    switch (replyOf(message, entry->second.request.type).kind) {
    case Reply::kNone:
    case Reply::kReceived:
        return;
    default:
        eraseLocked(entry);
    }
}

std::vector<std::shared_ptr<TargetWatch>> Takers::watchesLocked() const {
    // Shares, so that they can be asked when the lock has been given up.
    std::vector<std::shared_ptr<TargetWatch>> watches;
    for (const auto& [address, taker] : takers_) {
        if (!taker.numbers.empty() && !taker.ended) {
            watches.push_back(taker.watch);
        }
    }
    return watches;
}

bool Takers::haveEnded() {
    std::vector<std::shared_ptr<TargetWatch>> watches; // given back without the lock
    bool ended = false;
    {
        const ObjectLock guard(*this);
        // As a rule nothing is waited for, and each round of the background comes by.
        if (takers_.empty()) {
            return false;
        }
        watches = watchesLocked();
        // Noted before and not told yet: what had arrived until then was not all.
        ended = std::any_of(takers_.begin(), takers_.end(), [](const auto& taker) {
            return taker.second.ended && !taker.second.numbers.empty();
        });
    }
    for (const auto& watch : watches) {
        if (watch->ended()) {
            ended = true;
            // Looked for anew: it may have been forgotten while no lock was held.
            const ObjectLock guard(*this);
            const auto taker = takers_.find(watch.get());
            if (taker != takers_.end()) {
                taker->second.ended = true;
                anyEnded_.store(true);
            }
        }
    }
    return ended;
}

void Takers::noteRead(const InterAppStream& stream, const Arrivals& arrivals) {
    if (!anyEnded_.load()) {
        return; // as a rule
    }
    struct Ended {
        std::shared_ptr<TargetWatch> watch;
        std::optional<platform::PortPlace> end;
    };
    std::vector<Ended> all; // asked when the lock has been given up
    {
        const ObjectLock guard(*this);
        for (const auto& [address, taker] : takers_) {
            if (taker.ended && !taker.isRead) {
                all.push_back({taker.watch, taker.end});
            }
        }
    }
    for (Ended& one : all) {
        const int32_t process = one.watch->process();
        if (!one.end) {
            one.end = stream.placeBehind(process);
        }
        const bool isRead = !arrivals.hasTextOf(process) && stream.isPast(*one.end);
        const ObjectLock guard(*this);
        const auto taker = takers_.find(one.watch.get()); // it may have been forgotten meanwhile
        if (taker != takers_.end()) {
            taker->second.end = one.end;
            taker->second.isRead = isRead;
        }
    }
}

// By what `haveEnded` has noted, not by asking once more: a taker that has ended since may have
// sent answers that nobody has received yet.
std::vector<AwaitedRequest> Takers::takeLost() {
    std::vector<AwaitedRequest> lost;
    {
        const ObjectLock guard(*this);
        size_t count = 0;
        for (const auto& [watch, taker] : takers_) {
            count += taker.isRead ? taker.numbers.size() : 0;
        }
        lost.reserve(count); // what is taken out must not be lost itself
        bool anyLeft = false;
        for (auto& [watch, taker] : takers_) {
            while (taker.isRead && !taker.numbers.empty()) {
                const auto entry = entries_.find(taker.numbers.front());
                lost.push_back(std::move(entry->second.request));
                eraseLocked(entry);
            }
            anyLeft = anyLeft || (taker.ended && !taker.isRead);
        }
        anyEnded_.store(anyLeft);
    }
    std::sort(lost.begin(), lost.end(),
              [](const auto& a, const auto& b) { return a.place < b.place; });
    return lost;
}

void Takers::watchAgain(const std::function<void(TargetWatch&)>& watch) {
    std::vector<std::shared_ptr<TargetWatch>> watches;
    {
        const ObjectLock guard(*this);
        watches = watchesLocked();
    }
    for (const auto& each : watches) {
        watch(*each);
    }
}

void Takers::forgetOld() {
    std::vector<std::shared_ptr<TargetWatch>> forgotten; // given back without the lock
    const int64_t time = platform::monotonicNow();
    const ObjectLock guard(*this);
    for (auto entry = entries_.begin(); entry != entries_.end();) {
        const auto next = std::next(entry);
        // One that is being sent belongs to its `Sending` until that is over.
        if (entry->second.request.until <= time && entry->second.taker != nullptr) {
            eraseLocked(entry);
        }
        entry = next;
    }
    for (auto taker = takers_.begin(); taker != takers_.end();) {
        if (taker->second.numbers.empty()) {
            forgotten.push_back(std::move(taker->second.watch));
            taker = takers_.erase(taker);
        } else {
            ++taker;
        }
    }
}

void Takers::close() {
    Entries entries; // given back without the lock
    std::unordered_map<const TargetWatch*, Taker> takers;
    const ObjectLock guard(*this);
    entries.swap(entries_);
    takers.swap(takers_);
    closed_ = true;
}

} // namespace ScObjects::ConveyData
