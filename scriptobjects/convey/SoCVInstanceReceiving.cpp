// How an instance receives, and what becomes of what it has received.
#include <chrono>
#include <climits>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVInstanceParts.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects::ConveyData {
namespace {

using Message = Convey::Message;
using MsgHandler = Convey::MsgHandler;

constexpr int64_t kReceiveMilliseconds = limits::of("receive.time");
constexpr auto kTurnPause = std::chrono::milliseconds(1);
constexpr int kMessagesAtOnce = limits::of("receive.messages");
// Handlers that call each other by waiting; deeper ones dispatch only what is waited for.
constexpr int32_t kDeepestWait = limits::of("handler.depth");

// What the handler is told.
int32_t eventOf(const Message& message, const Reply& reply) {
    switch (reply.kind) {
    case Reply::kReceived:
        return CV_EVENT_RECEIVED;
    case Reply::kResult:
        return CV_EVENT_RESULT;
    case Reply::kError:
        return CV_EVENT_ERROR;
    case Reply::kTimeout:
        return CV_EVENT_TIMEOUT;
    default:
        break;
    }
    const SoString& type = message.getType();
    if (type.isEmpty() || type == CV_TYPE_PLAIN || type == CV_TYPE_DEBUG) {
        return CV_EVENT_REQUEST;
    }
    if (type == CV_TYPE_LOG) {
        return CV_EVENT_LOG;
    }
    return type == CV_TYPE_IDLE ? CV_EVENT_IDLE : CV_EVENT_USER;
}

// Replies reach the handler as plain messages, or as those of the user type, that say which kind of
// reply they are.
void presentReply(Message& message, const Reply& reply, int32_t event) {
    const auto number = static_cast<uint32_t>(event);
    if (event == CV_EVENT_RECEIVED) {
        message.setReceived(number);
    } else if (event == CV_EVENT_RESULT) {
        message.setResult(number);
    } else if (event == CV_EVENT_ERROR) {
        message.setError(number);
    } else {
        return;
    }
    message.setType(reply.userType.empty() ? SoString(CV_TYPE_PLAIN) : reply.type());
}

// Runs a step; false when memory ran out in it.
template <class Step>
bool attempt(Step&& step) {
    return guarded(false, [&] { return step(), true; });
}

} // namespace

bool PrivateData::incomingPending() const {
    if (isClosed()) {
        return false; // what it has is nobody's any more
    }
    // Watchers count: it is the owner's pump that tells of the time-outs.
    if (!incoming_.isEmpty() || conversations_.isWatching()) {
        return true;
    }
    const auto stream = this->stream();
    return !arrivals_.isEmpty() || (stream != nullptr && stream->messagePending());
}

// An answer to a process that had this name before is no answer to this one.
bool PrivateData::isForThisLife(const Message& message) {
    const uint64_t life = message.getAskersLife();
    if (life == 0 || life == ownLife() || replyOf(message).kind == Reply::kNone) {
        return true;
    }
    answersToPredecessor_.fetch_add(1, std::memory_order_relaxed);
    return false;
}

// What has expired while nobody looked.
void PrivateData::removeExpired() {
    for (const auto& watcher : conversations_.takeExpired()) {
        if (HandlerSlot::anyForwards()) {
            traffic(*watcher, infoRoot("in"), "timed out");
        }
        expired(*watcher);
    }
    incoming_.removeExpiredMessages();
}

void PrivateData::receiveMessage(std::unique_ptr<Message> message, Told told) {
    if (message->getDigestState() == CV_DIGEST_REJECTED) {
        rejected_.fetch_add(1, std::memory_order_relaxed);
    }
    // A watcher is a message to oneself: one from outside would have a time-out told that nobody
    // has asked for.
    if (message->getType() == CV_TYPE_WATCHER || !isForThisLife(*message)) {
        return;
    }
    // Before the queue has it: another thread may handle it at once, and "Processed" must not come
    // to the asker before "Received".
    (void)sendResponse(*message, CV_WANTS_RECEIVED, nullptr);
    logEvent("RECEIVE", *message);
    accept(std::move(message), told);
}

// For the host's pump, which handles what there is: its main loop is not told of each. True when
// something has come in.
bool PrivateData::receive(int messages, bool needed) {
    const ConveyUtils::DelayedForwarding delayed; // an observer may receive, too
    const std::lock_guard<std::mutex> turn(receivingTurn_);
    const bool any = receiveInTurn(messages, needed, Told::notTheLoop).any;
    if (!arrivals_.isEmpty()) {
        noteDue(0); // nothing tells that there is room again
    }
    return any;
}

// Receives for a moment, as far as there is room.
PrivateData::Received PrivateData::receiveInTurn(int messages, bool needed, Told told) {
    Received received;
    if (const auto stream = this->stream()) {
        // As one reference, for which the function needs no block of the heap.
        const auto take = [this, told, &received](std::unique_ptr<Message> message) {
            received.any = true;
            receiveMessage(std::move(message), told);
        };
        received.more = arrivals_.read(*stream, kReceiveMilliseconds, messages, needed,
                                       std::ref(take)) == Arrivals::Stop::time;
        takers_->noteRead(*stream, arrivals_);
    }
    return received;
}

PrivateData::Received PrivateData::receiveArrived() {
    removeExpired();                              // the owner may not pump for long
    const ConveyUtils::DelayedForwarding delayed; // an observer may receive, too
    // A pump that receives takes the turn again and again, as quickly as it gives it back: the
    // background thread, which has pings to answer, would get it after seconds.
    const std::unique_lock<std::mutex> turn(receivingTurn_, std::try_to_lock);
    if (!turn.owns_lock()) {
        std::this_thread::sleep_for(kTurnPause);
        return {.more = true};
    }
    return receiveInTurn(INT_MAX, false, Told::all);
}

bool PrivateData::tellOfEndedTakers() {
    if (!takers_->haveEnded()) {
        return false;
    }
    // Once more, now that the end is known: what the target sent before it has all arrived. Whoever
    // receives notes when that has been read, so that a thread that has the turn again and again
    // puts nothing off.
    const bool more = receiveArrived().more;
    // Without the turn: what observers and askers are told of it may have them receive.
    for (const AwaitedRequest& request : takers_->takeLost()) {
        sendError(*request.message(), Convey::kTargetEndedText, Convey::kTargetEndedCode, 0);
    }
    return more;
}

void PrivateData::tidyTakers() {
    takers_->forgetOld();
    takers_->watchAgain([this](platform::TargetWatch& taker) { watchTaker(taker); });
}

MessageQueue::Taken PrivateData::takeWanted(uint32_t serialNumber, Conversations::Turn& turn) {
    if (incoming_.isEmpty()) {
        return {};
    }
    // Handlers that wait within handlers must not fill the stack.
    const bool awaitedOnly = handlerDepth() >= kDeepestWait;
    std::set<std::string> heldUp;
    // Captured as one reference, for which the functions need no block of the heap: they are made
    // for each message that is handled.
    const struct {
        Conversations& conversations;
        Conversations::Turn& turn;
        bool awaitedOnly;
        const PrivateData& instance;
        std::set<std::string>& heldUp;
    } call = {conversations_, turn, awaitedOnly, *this, heldUp};
    MessageQueue::Choice choice;
    choice.isHeldUp = [&call](const Message& candidate) {
        return call.instance.isHeldUp(candidate, call.heldUp);
    };
    choice.wants = [&call](const Message& candidate) {
        return call.conversations.enter(candidate, call.awaitedOnly, call.turn);
    };
    std::vector<uint32_t> awaited;
    if (awaitedOnly) { // what nobody waits for is not looked at, however much of it is queued
        awaited = conversations_.awaitedNumbers();
        choice.numbers = &awaited;
    }
    return incoming_.takeWanted(serialNumber, choice);
}

// Whether nothing is behind it but its end, as a result brings that: no handler waits for it.
bool PrivateData::isLastOf(const MessageQueue::Taken& taken) const {
    const int32_t left = incoming_.count();
    if (left == 0 || left > 1 || taken.message == nullptr) {
        return left == 0;
    }
    bool is = true;
    incoming_.forEach([&](const Message& message) {
        is = is && message.getType() == CV_TYPE_PROCESSED &&
             message.getSerialNumber() == taken.message->getSerialNumber();
    });
    return is;
}

bool PrivateData::processIncoming(uint32_t serialNumber, bool process) {
    if (isClosed()) {
        return false;
    }
    removeExpired();
    if (!process) {
        if (receive(kMessagesAtOnce, false)) {
            remindHost();
        }
        return false;
    }
    Conversations::Turn turn;
    MessageQueue::Taken taken = takeWanted(serialNumber, turn);
    bool any = false;
    // Only now: to ask the port for more costs as much as to handle what is there.
    if (taken.message == nullptr) {
        any = receive(kMessagesAtOnce, false);
        taken = takeWanted(serialNumber, turn);
    }
    // What somebody waits for may lie behind what fills the queue and cannot be handled now.
    const auto isBehindMore = [&] { return taken.message == nullptr && !arrivals_.isEmpty(); };
    if (isBehindMore()) {
        const int64_t end = platform::monotonicNow() + kReceiveMilliseconds;
        do {
            any = receive(1, true) || any;
            taken = takeWanted(serialNumber, turn);
        } while (isBehindMore() && platform::monotonicNow() < end);
    }
    // Of what has come in and is left: the handler may sit in a main loop of its own.
    if (any && !isLastOf(taken)) {
        remindHost();
    }
    if (taken.message == nullptr || taken.message->getTarget().isEmpty()) {
        return false;
    }
    const bool handled = handle(taken, turn);
    // Who waits for its end looks again; not for what went back, or it would look all the time.
    if (turn.leave() && handled) {
        noteActivity();
    }
    return handled;
}

// What memory does not suffice for is not lost in silence: a message that no handler has seen goes
// back to its place, which is false, and the asker of one that was handled hears of an error.
bool PrivateData::handle(MessageQueue::Taken& taken, Conversations::Turn& turn) {
    bool called = false;
    Result result;
    if (!isEmptyRequest(*taken.message) &&
        !attempt([&] { result = dispatch(taken, turn, called); })) {
        if (!called && attempt([&] { incoming_.putBack(taken); })) {
            noteDue(0);
            return false;
        }
        answerLost(*taken.message);
    }
    // Not when the handler has taken the reply over: the end then comes with that.
    if (taken.message != nullptr) {
        finishSurely(*taken.message, turn.reply, std::move(result));
    }
    return true;
}

void PrivateData::answerLost(const Message& request) {
    answersLost_.fetch_add(1, std::memory_order_relaxed);
    (void)attempt([&] { sendError(request, CV_ERROR_OUT_OF_MEMORY, CV_CODE_OUT_OF_MEMORY, 0); });
}

// Whatever became of it before: without its end a conversation would be waited for until the time
// of the wait is up.
void PrivateData::finishSurely(const Message& message, const Reply& reply, Result result) {
    bool endIsSent = false;
    if (result != nullptr) {
        (void)attempt([&] { postWithEnd(message, *result, endIsSent); });
        if (!endIsSent && !attempt([&] { (void)post(std::move(result)); })) {
            answerLost(message);
        }
    }
    if (!attempt([&] { finish(message, reply, endIsSent); })) {
        answersLost_.fetch_add(1, std::memory_order_relaxed);
    }
}

void PrivateData::giveOwed(const OwedReply& reply, const Message& request, int32_t code,
                           const SoString& text) noexcept {
    owed_.remove(reply);
    Result result;
    if (!attempt([&] { result = answer(request, code, text); })) {
        answerLost(request);
    }
    finishSurely(request, {}, std::move(result));
}

// Sends an error; a result is the caller's to send, since its end comes with it.
PrivateData::Result PrivateData::answer(const Message& request, int32_t code,
                                        const SoString& text) {
    if (code != 0) {
        if (contains(request.getResponseRequest(), CV_WANTS_ERROR)) {
            sendError(request, text.c_str(), code, 0);
        } else if (ConveyUtils::isForwarding(CV_FORWARD_ERRORS)) {
            (void)ConveyUtils::forwardMessage(request, CV_FORWARD_ERRORS, kErrorRoot, text);
        }
    } else if (contains(request.getResponseRequest(), CV_WANTS_RESULT)) {
        return resultOf(request, text);
    }
    return nullptr;
}

PrivateData::Result PrivateData::dispatch(MessageQueue::Taken& taken, Conversations::Turn& turn,
                                          bool& called) {
    const Message& message = *taken.message;
    // Handlers may change what they are given; the answer and "Processed" are made from the request
    // as it came.
    Message copy(message);
    if (Message::getAuthentication() && message.isRejected()) {
        sendError(copy, CV_ERROR_REJECTED, CV_CODE_REJECTED, 0);
        return nullptr;
    }
    const auto slot = conversations_.handlerFor(message, turn.reply);
    if (slot == nullptr) {
        return nullptr;
    }
    const int32_t event = eventOf(message, turn.reply);
    presentReply(copy, turn.reply, event);
    SoString result;
    int32_t code = 0;
    // Only what asks for a reply can have it later.
    const bool isRequest = turn.reply.kind == Reply::kNone;
    OwedReply::Call call(isRequest ? weak_from_this() : std::weak_ptr<PrivateData>(),
                         isRequest ? &owed_ : nullptr, message);
    {
        const Occupations::Entry handling(occupations_, Occupations::Kind::handling, message);
        // What leaves the call was thrown before the handler: nothing that a handler throws does.
        code = slot->call(event, copy, &result);
        called = true;
    }
    const auto done = conversations_.handled(turn, message, slot); // a handler for one message
    if (!call.end()) {
        taken.message.reset();
        return nullptr;
    }
    if (const auto& reply = call.taken()) {
        const auto kept =
            code != 0 ? OwedReplies::Kept::answered : owed_.keep(reply, taken.message);
        if (kept == OwedReplies::Kept::kept) {
            return nullptr;
        }
        if (kept == OwedReplies::Kept::refused) {
            (void)reply->give(CV_CODE_TOO_MANY_OWED, CV_ERROR_TOO_MANY_OWED);
        }
        reply->takeGiven(code, result);
    }
    return answer(message, code, result);
}

void PrivateData::finish(const Message& message, const Reply& reply, bool endIsSent) {
    if (message.getType() == CV_TYPE_WATCHER) {
        return;
    }
    const char* event = nullptr;
    switch (reply.kind) {
    case Reply::kProcessed:
        event = "PROCESSED CLEANUP";
        break;
    case Reply::kError:
        event = "PROCESSED ERROR";
        break;
    case Reply::kTimeout:
        event = "PROCESSED TIMEOUT";
        break;
    default:
        if (!endIsSent) {
            (void)sendResponse(message, CV_TYPE_PROCESSED, nullptr);
        }
        logEvent("PROCESSED INCOMING MESSAGE", message);
        break;
    }
    if (event != nullptr) {
        // The answer has come, one way or another: nothing is left to wait for.
        incoming_.removeTimeoutMessage(message.getSerialNumber());
        // Let go of at the end of the block, with no lock held: their destructors are the host's.
        const HandlerSlots left = conversations_.end(message.getSerialNumber(), reply.kind);
        logEvent(event, message);
    }
    if (ConveyUtils::isForwarding(CV_FORWARD_MESSAGES)) {
        (void)ConveyUtils::forwardMessage(message, CV_FORWARD_MESSAGES, infoRoot("in"), SoString());
    }
}

// What the queues tell.

bool PrivateData::watchesTraffic() const {
    return ConveyUtils::isForwarding(CV_FORWARD_MESSAGES);
}

void PrivateData::traffic(const Message& message, const SoString& root, const char* event) {
    (void)ConveyUtils::forwardMessage(message, CV_FORWARD_MESSAGES, root, event);
}

void PrivateData::expired(const Message& message) {
    auto notice = std::make_unique<Message>();
    addressReply(message, CV_TYPE_TIMEOUT, *notice, message.getTarget());
    ConveyUtils::logMessage("REMOVING MSG - NOTIFYING SENDER", *notice, true);
    const ConveyContext* const context = this->context();
    const auto main = context == nullptr ? nullptr : context->pinMain();
    (void)(main != nullptr ? *main : *this).post(std::move(notice));
}

} // namespace ScObjects::ConveyData
