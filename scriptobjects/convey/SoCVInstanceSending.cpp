// How an instance sends: within the process, to other processes, and later.
//
// Who sends chooses the patience. An owner's `send` may wait for its target, and may launch it.
// `post` is the way of everything that nobody asked to wait for: acknowledgements, results, errors,
// notices. It takes what it sends as it is (no launch, no watcher, no request for "Processed").
#include <algorithm>
#include <optional>
#include <set>
#include <string>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "platform/MessagePort.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVInstanceParts.h"
#include "scriptobjects/convey/SoCVLaunching.h"
#include "scriptobjects/convey/SoCVOutbox.h"
#include "scriptobjects/convey/SoCVPollSignal.h"
#include "scriptobjects/convey/SoCVResolution.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects::ConveyData {
namespace {

using platform::SendResult;
using Message = Convey::Message;
using Specifier = Convey::Specifier;

constexpr int64_t kTargetWaitMilliseconds = limits::of("send.target");
constexpr int32_t kPacketBytes = limits::of("port.packet");

// Who watches its own time is not told by us.
bool isUnwantedNotice(const Message& message) {
    return message.getType() == CV_TYPE_TIMEOUT && !(message.getTarget() == message.getSender()) &&
           message.getUserHeaderValue(CV_TIMEOUT_DETECTOR) == CV_DETECTOR_SENDER;
}

} // namespace

void PrivateData::complete(Message& message) const {
    if (message.getSerialNumber() == 0) {
        message.setSerialNumber(message.getNextSerialNumber(context()));
    }
    if (message.getSender().isEmpty()) {
        const ObjectLock guard(*this);
        message.setSender(appName_);
    }
}

// Completes a message, and writes it unless its target is in this process: then that is found.
// Null, or why it is not sent: empty when nobody is to be told.
const char* PrivateData::prepare(Message& message, Message::Text& text,
                                 std::shared_ptr<PrivateData>& receiver) {
    if (isClosed() || isEmptyRequest(message)) {
        return "";
    }
    complete(message); // before anything can fail: the error has to find its way back
    const bool isWhole = CVResolution::isWhole(message.getTarget());
    const Specifier target(isWhole ? nullptr : message.getTarget().c_str(), true);
    if (!isWhole && target.isEmpty()) {
        return CV_ERROR_INVALID_SPECIFIER;
    }
    if (isUnwantedNotice(message)) {
        return "";
    }
    // The complete name, which an instance and its port have: they are found, and what waits for
    // them is kept, by just that.
    if (!isWhole) {
        message.setTarget(target);
    }
    // Before it is written: what it asks for, and for which life, goes with the text.
    requestProcessed(message);
    // What does not leave the process needs no text, and no digest.
    receiver = receiverOf(message);
    if (receiver != nullptr) {
        return message.getSender().isEmpty() ? CV_ERROR_NO_TEXT : nullptr;
    }
    return text.write(message) ? nullptr : CV_ERROR_NO_TEXT;
}

bool PrivateData::sendAtOnce(Message& message) {
    Message::Text text;
    std::shared_ptr<PrivateData> receiver;
    // A text that does not fit into a packet needs its target's help to pass.
    if (prepare(message, text, receiver) != nullptr || text.length() > kPacketBytes) {
        return false;
    }
    watchTime(message); // before it is sent, as below
    const auto stream = this->stream();
    if (!deliverTo(receiver, message) &&
        (stream == nullptr || !outbox_.isFree(message.getTarget()) ||
         handOver(message, *stream, text, 0, 0) != SendResult::delivered)) {
        unwatchTime(message.getSerialNumber());
        return false;
    }
    traffic_.noteOut();
    return true;
}

bool PrivateData::send(Message& message, bool mayLaunch, uint32_t waitSeconds,
                       const SoString* launchParameters) {
    Message::Text text;
    std::shared_ptr<PrivateData> receiver;
    if (const char* const error = prepare(message, text, receiver)) {
        if (*error != '\0') {
            sendError(message, error, CV_CODE_NOT_SENT, waitSeconds);
        }
        return false;
    }
    // Before it is sent: the answer may be here at once.
    std::optional<Conversations::Wait> wait;
    if (waitSeconds != 0) {
        wait.emplace(conversations_, message);
    }
    // Before it is sent, too: another thread may have the answer before this one goes on, and a
    // watch that begins behind it would never be ended.
    watchTime(message);
    const Delivery delivery = deliverTo(receiver, message) ? Delivery::delivered
                                                           : deliver(message, text, mayLaunch,
                                                                     waitSeconds, launchParameters);
    if (delivery == Delivery::refused) {
        // The caller hears it from the result: a time-out for what was never sent would come on
        // top.
        unwatchTime(message.getSerialNumber());
        traffic_.noteDropped();
        return false;
    }
    traffic_.noteOut();
    if (waitSeconds == 0) {
        return delivery == Delivery::delivered;
    }
    // A target that is being launched has a time of its own to appear; the seconds of the caller
    // are those for its answer.
    return (delivery == Delivery::delivered || waitForTarget(message)) &&
           waitForResponse(*wait, message, waitSeconds);
}

// An asker is known by the name of its port, which it has made complete itself. Only a name that
// nobody has is completed, since that may ask other processes, which may take their time. For what
// could not be handed over: that it could has shown that somebody has the name.
SoString PrivateData::nameOfAsker(const SoString& name) const {
    const ConveyContext* const context = this->context();
    if ((context != nullptr && context->pin(name) != nullptr) || !outbox_.isFree(name)) {
        return name;
    }
    const auto stream = this->stream();
    return stream != nullptr && stream->presenceOf(name) != InterAppStream::Presence::absent
               ? name
               : static_cast<const SoString&>(Specifier(name.c_str(), true));
}

Delivery PrivateData::post(std::unique_ptr<Message> message) {
    if (isEmptyRequest(*message) || isUnwantedNotice(*message) || message->getTarget().isEmpty()) {
        return Delivery::refused;
    }
    complete(*message);
    if (handTo(receiverOf(*message), message)) {
        traffic_.noteOut();
        return Delivery::delivered;
    }
    const auto stream = this->stream();
    Delivery delivery =
        stream == nullptr ? Delivery::queued : outbox_.handAtOnce(*stream, *message, nullptr);
    bool isRenamed = false;
    if (delivery == Delivery::queued) {
        const SoString name = nameOfAsker(message->getTarget());
        isRenamed = !(name == message->getTarget());
        message->setTarget(name);
        if (name.isEmpty()) {
            return Delivery::refused;
        }
        if (isRenamed && handTo(receiverOf(*message), message)) {
            traffic_.noteOut();
            return Delivery::delivered;
        }
    }
    // The message may be the outbox's in a moment, so who looks at events is shown a copy; as a
    // rule nobody looks.
    const auto event =
        ConveyUtils::isForwarding(CV_FORWARD_LOGS) ? std::make_unique<Message>(*message) : nullptr;
    if (delivery == Delivery::queued) {
        delivery = isRenamed || stream == nullptr ? outbox_.post(stream.get(), message)
                                                  : outbox_.keep(*stream, message);
    }
    if (delivery == Delivery::refused) {
        traffic_.noteDropped();
    } else {
        traffic_.noteOut();
    }
    if (delivery == Delivery::queued) {
        if (const ConveyContext* context = this->context()) {
            context->getThread()->wake(number());
        }
    }
    if (event != nullptr && delivery != Delivery::refused) {
        logEvent(delivery == Delivery::delivered ? "SEND" : "ENQUEUED OUTGOING MESSAGE", *event);
    }
    return delivery;
}

// A result and the "Processed" behind it go to the same target in the same moment: in one text they
// cost half as much at both ends. `sent` says that they have gone; else nothing has happened.
void PrivateData::postWithEnd(const Message& request, Message& result, bool& sent) {
    // Peers of old, whose replies have numbers of their own, get them as they always did.
    if (!(result.getSerialNumber() == request.getSerialNumber())) {
        return;
    }
    const auto end = replyTo(request, CV_TYPE_PROCESSED, nullptr);
    const auto stream = this->stream();
    if (end == nullptr || stream == nullptr || result.getTarget().isEmpty() ||
        isUnwantedNotice(result) || isEmptyRequest(result) || receiverOf(result) != nullptr) {
        return;
    }
    complete(result);
    complete(*end);
    if (outbox_.handAtOnce(*stream, result, end.get()) != Delivery::delivered) {
        return;
    }
    sent = true;
    traffic_.noteOut();
    traffic_.noteOut();
    logEvent("SEND", result);
    logEvent("SEND", *end);
}

// The instance of this process that has the target's name; null for none.
std::shared_ptr<PrivateData> PrivateData::receiverOf(const Message& message) const {
    const ConveyContext* const context = this->context();
    return context == nullptr ? nullptr : context->pin(message.getTarget());
}

// Hands the message to that instance; false when there is none.
// Not through its port: a process that sends to itself would wait for itself when that is full.
bool PrivateData::deliverTo(const std::shared_ptr<PrivateData>& receiver, const Message& message) {
    const ConveyContext* const context = this->context();
    if (receiver == nullptr || context == nullptr) {
        return false;
    }
    // Before the message itself: its receiver may be done with it at once, and "Processed" must not
    // come before "Received".
    if (contains(message.getResponseRequest(), CV_WANTS_RECEIVED)) {
        auto received = std::make_unique<Message>(message);
        received->setTarget(message.getSender());
        received->setSender(message.getTarget());
        received->setResponseRequest(SoString());
        received->setTimeout(0);
        received->setType(CV_TYPE_RECEIVED);
        const std::shared_ptr<PrivateData> sender = context->pin(message.getSender());
        (sender != nullptr ? *sender : *this).accept(std::move(received));
    }
    receiver->accept(std::make_unique<Message>(message));
    logEvent("RECEIVED", message);
    return true;
}

// The same with a message that is not needed any more: uncopied, as a rule. A copy has its headers
// the other way round and its type filled in; what asks for replies has its receipt made of it; and
// who watches events is shown the message when its receiver may be done with it.
bool PrivateData::handTo(const std::shared_ptr<PrivateData>& receiver,
                         std::unique_ptr<Message>& message) {
    const Convey::Header* const headers = message->getHeaders();
    if (receiver == nullptr || this->context() == nullptr || message->getType().isEmpty() ||
        (headers != nullptr && headers->next != nullptr) ||
        !message->getResponseRequest().isEmpty() || ConveyUtils::isForwarding(CV_FORWARD_LOGS)) {
        return deliverTo(receiver, *message);
    }
    receiver->accept(std::move(message));
    return true;
}

void PrivateData::accept(std::unique_ptr<Message> message, Told told) {
    // On arrival, and not when the owner handles it: an answer that lies in the queue is there,
    // even if its sender has ended since.
    takers_->noteReceived(*message);
    traffic_.noteIn(*message);
    if (incoming_.append(message.get())) {
        (void)message.release(); // the queue's now
        if (told == Told::all) {
            noteActivity();
        } else if (ConveyContext* const context = this->context()) {
            context->noteActivity();
        }
        noteDue(PollSignal::isWatched() ? 0 : incoming_.nextDeadline());
    }
}

// Hands the text to the target's process, or queues the message until that can be done.
Delivery PrivateData::deliver(const Message& message, const Message::Text& text, bool mayLaunch,
                              uint32_t waitSeconds, const SoString* launchParameters) {
    SendResult result = SendResult::failed;
    if (const auto stream = this->stream()) {
        // As a rule a small one goes at once: nobody could see that it is being sent, and no clock
        // is asked. Any other attempt may leave a part of it on the way.
        result = text.length() <= kPacketBytes && outbox_.isFree(message.getTarget())
                     ? handOver(message, *stream, text, 0, waitSeconds)
                     : SendResult::timedOut;
        if (result == SendResult::timedOut || result == SendResult::noReceiver) {
            result = handOverInTime(message, *stream, text, mayLaunch, waitSeconds);
        }
        if (result == SendResult::delivered) {
            return Delivery::delivered;
        }
    }
    if (!mayLaunch) {
        sendError(message, CV_ERROR_NOT_LAUNCHED, CV_CODE_NOT_SENT, waitSeconds,
                  result == SendResult::noReceiver);
        return Delivery::refused;
    }
    return queueForLaunch(message, waitSeconds, launchParameters);
}

// Behind those that wait for the target already: none is overtaken. What may not be queued waits
// for these, too.
SendResult PrivateData::handOverInTime(const Message& message, const InterAppStream& stream,
                                       const Message::Text& text, bool mayLaunch,
                                       uint32_t waitSeconds) {
    const SoString& target = message.getTarget();
    if (mayLaunch && !outbox_.isFree(target)) {
        return SendResult::timedOut;
    }
    // One end for both steps, so that a caller waits no longer for a target with a line than for
    // one without.
    const int64_t end = platform::monotonicNow() + InterAppStream::kSendTimeoutMilliseconds;
    const auto left = [end] { return std::max<int64_t>(end - platform::monotonicNow(), 0); };
    // Until it is kept, or told to be refused.
    const Occupations::Entry sending(occupations_, Occupations::Kind::sending, message);
    const SendResult result =
        mayLaunch ? SendResult::delivered : outbox_.drain(stream, target, left());
    return result != SendResult::delivered
               ? result
               : handOver(message, stream, text, static_cast<int32_t>(left()), waitSeconds);
}

SendResult PrivateData::handOver(const Message& message, const InterAppStream& stream,
                                 const Message::Text& text, int32_t timeoutMilliseconds,
                                 uint32_t waitSeconds) {
    const auto sending = beginSending(AwaitedRequest::of(message, waitSeconds));
    const SendResult result = sending != nullptr ? sending->send(stream, text, timeoutMilliseconds)
                                                 : stream.send(message.getTarget(), text.pieces(),
                                                               timeoutMilliseconds, nullptr);
    if (result == SendResult::delivered) {
        logEvent("SEND", message);
    }
    return result;
}

// A request that has no answer yet belongs to the instance that asked. Null for none, and when the
// asker is not in this process.
std::unique_ptr<Takers::Sending> PrivateData::beginSending(std::optional<AwaitedRequest> request) {
    const ConveyContext* const context = this->context();
    if (!request || context == nullptr) {
        return nullptr;
    }
    const SoString name(request->asker);
    const auto asker = name == appName() ? shared_from_this() : context->pin(name);
    return asker == nullptr
               ? nullptr
               : std::make_unique<Takers::Sending>(
                     asker->takers_, std::move(*request),
                     [asker](platform::TargetWatch& taker) { asker->watchTaker(taker); });
}

void PrivateData::watchTaker(platform::TargetWatch& taker) const {
    if (const ConveyContext* const context = this->context()) {
        context->getThread()->watch(taker, number());
    }
}

Delivery PrivateData::queueForLaunch(const Message& message, uint32_t waitSeconds,
                                     const SoString* launchParameters) {
    // Before a process is started for a message that would not be kept for it.
    if (!outbox_.hasRoom()) {
        sendError(message, CV_ERROR_TOO_MANY_WAIT, CV_CODE_NOT_SENT, waitSeconds);
        return Delivery::refused;
    }
    // Looked for anew, since the attempt to send may have taken seconds; and once for both.
    CVResolution target = CVResolution::ofCompleted(message.getTarget());
    if (!target.isRunning()) {
        logEvent("TARGET IS NOT RUNNING", message);
        ConveyContext* const own = this->context();
        ConveyContext* const context = own != nullptr ? own : ConveyContext::getCurrentContext();
        if (context == nullptr ||
            ConveyUtils::launchResolved(
                target, launchParameters != nullptr ? launchParameters->c_str() : "", 0,
                *context) != 1) {
            sendError(message, CV_ERROR_LAUNCH_FAILED, CV_CODE_NOT_SENT, waitSeconds, true);
            return Delivery::refused;
        }
        logEvent("LAUNCHING TARGET", message);
    }
    if (!queueOutgoing(std::make_unique<Message>(message))) {
        return Delivery::refused;
    }
    logEvent("ENQUEUED OUTGOING MESSAGE", message);
    noteActivity();
    return Delivery::queued;
}

bool PrivateData::queueOutgoing(std::unique_ptr<Message> message) {
    if (!outbox_.queue(message)) {
        return false;
    }
    if (const ConveyContext* context = this->context()) {
        context->getThread()->wake(number());
    }
    return true;
}

bool PrivateData::waitForTarget(const Message& message) {
    const Specifier target(message.getTarget().c_str(), false);
    const int64_t end = platform::monotonicNow() + kTargetWaitMilliseconds;
    while (!target.isRunning() && !isClosed()) {
        const int64_t left = end - platform::monotonicNow();
        if (left <= 0) {
            break;
        }
        ConveyUtils::sleep(static_cast<uint32_t>(std::min(left, kPollMilliseconds)));
    }
    // Also without the target: its message is in the outbox, and the wait for the answer decides.
    return true;
}

// The reply of that type, made of `response` (null: of nothing); null when it is not asked for.
std::unique_ptr<Message> PrivateData::replyTo(const Message& request, const char* type,
                                              std::unique_ptr<Message> response) const {
    if (!contains(request.getResponseRequest(), type)) {
        return nullptr;
    }
    if (response == nullptr) {
        response = std::make_unique<Message>();
    }
    Message& answer = *response;
    SoString answerType(type);
    if (answer.isUserType()) {
        answerType << request.getType();
    }
    // An answer asks for none, or two processes would acknowledge what the other acknowledges for
    // ever.
    answer.setResponseRequest(SoString());
    answer.setTimeout(0);
    addressReply(request, answerType, answer,
                 request.getTarget().isEmpty() ? appName() : request.getTarget());
    return response;
}

bool PrivateData::sendResponse(const Message& request, const char* type,
                               std::unique_ptr<Message> response) {
    auto reply = replyTo(request, type, std::move(response));
    return reply != nullptr && post(std::move(reply)) != Delivery::refused;
}

std::unique_ptr<Message> PrivateData::resultOf(const Message& request,
                                               const SoString& result) const {
    auto answer = std::make_unique<Message>(request, SoString(result));
    answer->setResult(request.getSerialNumber());
    return replyTo(request, CV_WANTS_RESULT, std::move(answer));
}

bool PrivateData::sendResult(const Message& request, const SoString& result) {
    auto reply = resultOf(request, result);
    return reply != nullptr && post(std::move(reply)) != Delivery::refused;
}

// `isAbsent`: nobody had the target's name then. Who is told may find it running again by now.
void PrivateData::sendError(const Message& request, const char* text, int32_t code,
                            uint32_t waitSeconds, bool isAbsent) {
    auto answer = std::make_unique<Message>();
    answer->setError(request.getSerialNumber());
    answer->setBody(SoString(text));
    answer->setHeader(CV_ERROR_CODE, static_cast<long>(code));
    if (isAbsent) {
        answer->setHeader(CV_ERROR_TARGET, CV_TARGET_ABSENT);
    }
    if (sendResponse(request, CV_WANTS_ERROR, std::move(answer))) {
        traffic_.noteErrorTold();
    }
    // Who waits for an answer has its handler for errors called before `send` returns.
    if (waitSeconds != 0 && findSlot(CV_TYPE_ERROR, request.getSerialNumber()) != nullptr) {
        (void)waitForResponse(Conversations::Wait(conversations_, request), request, waitSeconds);
    }
    logEvent(text, request);
    if (ConveyUtils::isForwarding(CV_FORWARD_ERRORS)) {
        (void)ConveyUtils::forwardMessage(request, CV_FORWARD_ERRORS, kErrorRoot, text);
    }
}

Outbox::Left PrivateData::processOutgoing() {
    if (!outbox_.hasWork()) {
        return {};
    }
    const Outbox::Left left = outbox_.pass(stream().get(), Outbox::Carrier::round);
    const ConveyContext* const context = this->context();
    if (left.large && context != nullptr) {
        context->getThread()->wakeCourier(number());
    }
    letHeldUpGoOn(left);
    return left;
}

// Requests that wait until their asker takes what it is owed are looked at again.
void PrivateData::letHeldUpGoOn(const Outbox::Left& left) const {
    if (left.sent && !incoming_.isEmpty()) {
        noteActivity();
    }
}

// A request whose asker takes no answers waits in the queue, so that the answers have a bound; and
// with it those behind it, also when the asker takes some while the queue is looked through.
bool PrivateData::isHeldUp(const Message& message, std::set<std::string>& heldUp) const {
    if (message.getResponseRequest().isEmpty() || outbox_.messages().isEmpty()) {
        return false;
    }
    const std::string asker(message.getSender().view());
    if (heldUp.count(asker) != 0) {
        return true;
    }
    return outbox_.isHeldUp(message.getSender()) && heldUp.insert(asker).second;
}

Outbox::Left PrivateData::carryOutgoing() {
    const Outbox::Left left = outbox_.pass(stream().get(), Outbox::Carrier::courier);
    letHeldUpGoOn(left);
    return left;
}

} // namespace ScObjects::ConveyData
