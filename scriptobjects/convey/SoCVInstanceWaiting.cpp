// How an instance waits for what its messages bring back.
#include <algorithm>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVInstanceParts.h"
#include "scriptobjects/convey/SoCVPollSignal.h"
#include "scriptobjects/convey/SoCVSteadyTime.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects::ConveyData {
namespace {

using Message = Convey::Message;

// For a message that gives none, or one that never ends: its asker is told all the same.
constexpr uint32_t kWatchSeconds = limits::of("message.watch");

} // namespace

// Who waits for a reply always learns when the message was processed. A reply is not waited for:
// its number is that of somebody else's request. What asks for replies to this process says which
// life of it is meant.
void PrivateData::requestProcessed(Message& message) {
    if (message.getType() == CV_TYPE_WATCHER || replyOf(message).kind != Reply::kNone) {
        return;
    }
    const bool isAwaited = conversations_.noteRequest(message);
    const bool asks = !message.getResponseRequest().isEmpty() || isAwaited;
    if (asks && !contains(message.getResponseRequest(), CV_WANTS_PROCESSED) &&
        !(message.getType() == CV_TYPE_DEBUG)) {
        SoString request = message.getResponseRequest();
        request << " " << CV_WANTS_PROCESSED;
        message.setResponseRequest(request);
    }
    const ConveyContext* const context = this->context();
    const auto comesBackHere = [&] {
        return message.getSender() == appName() ||
               (context != nullptr && context->pin(message.getSender()) != nullptr);
    };
    message.setAskersLife(asks && comesBackHere() ? ownLife() : 0);
}

// This side finds out by itself when no answer came in time.
void PrivateData::watchTime(const Message& message) {
    if (!contains(message.getResponseRequest(), CV_WANTS_TIMEOUT) ||
        message.getUserHeaderValue(CV_TIMEOUT_DETECTOR) == CV_DETECTOR_TARGET) {
        return;
    }
    const uint32_t timeout = message.getTimeout();
    watchTime(message, static_cast<int32_t>(timeout) > 0 ? timeout + 1 : kWatchSeconds);
}

void PrivateData::watchTime(const Message& message, uint32_t seconds) {
    conversations_.watch(message, message.getSender(), seconds);
    if (static_cast<int32_t>(seconds) >= 0) {
        noteDue(ConveyUtils::getSteadyMilliseconds() + int64_t{1000} * seconds);
    }
    if (HandlerSlot::anyForwards()) {
        if (const auto watcher = conversations_.watcherOf(message.getSerialNumber())) {
            traffic(*watcher, infoRoot("in"), "added");
        }
    }
}

void PrivateData::noteDue(int64_t steadyMilliseconds) const {
    if (const ConveyContext* const context = this->context()) {
        context->getThread()->noteDue(steadyMilliseconds, number());
    }
}

// Whatever `nextLook` looks for is here, and is asked for without a look at each message.
PrivateData::Looks PrivateData::neededLooks() const {
    if (isClosed()) {
        return Looks::none;
    }
    if (!arrivals_.isEmpty() || !takers_->isEmpty() || !outbox_.messages().isEmpty()) {
        return Looks::each;
    }
    const auto stream = this->stream();
    return !incoming_.isEmpty() || conversations_.isWatching() ||
                   (stream != nullptr && !stream->tellsAll())
               ? Looks::regular
               : Looks::none;
}

int64_t PrivateData::nextLook() {
    if (isClosed()) {
        return INT64_MAX;
    }
    // Nothing tells that there is room again for what is held back, that a target's end was not
    // told, or that a handler may run that the host's main loop was not woken for.
    const auto stream = this->stream();
    if (!arrivals_.isEmpty() || !takers_->isEmpty() || (stream != nullptr && !stream->tellsAll()) ||
        (PollSignal::isWatched() && !incoming_.isEmpty())) {
        return 0;
    }
    return std::min(
        {incoming_.firstDeadline(), conversations_.firstDeadline(), outbox_.nextLook()});
}

void PrivateData::unwatchTime(uint32_t serialNumber) {
    conversations_.unwatch(serialNumber);
}

bool PrivateData::waitForResponse(const Conversations::Wait& wait, const Message& message,
                                  uint32_t seconds) {
    if (seconds == 0) {
        return false;
    }
    const Occupations::Entry waiting(occupations_, Occupations::Kind::waiting, message);
    const int64_t end = platform::monotonicNow() + int64_t{1000} * seconds;
    for (;;) {
        // Read before the pump: what happens between the pump and the wait then ends the wait at
        // once. Time-outs are nobody's activity, so no wait is longer than the poll.
        const ConveyContext* before = context();
        const uint64_t seen = before == nullptr ? 0 : before->activity();
        Convey::pump(kProcessBoth, nullptr);
        // Asked for anew: a handler in the pump may have ended the instance or moved it to another
        // context.
        ConveyContext* const context = this->context();
        if (isClosed() || context == nullptr) {
            return false;
        }
        // Before the time is looked at: an answer that came in the last moment counts.
        const auto state = wait.state();
        if (state != Conversations::Wait::State::open) {
            return state == Conversations::Wait::State::answered;
        }
        const int64_t left = end - platform::monotonicNow();
        if (left <= 0) {
            return false;
        }
        context->waitForActivity(seen, std::min(left, kPollMilliseconds));
    }
}

} // namespace ScObjects::ConveyData
