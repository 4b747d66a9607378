// How an instance sends: within the process, to other processes, and later.
#include <algorithm>
#include <set>
#include <string>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVInstanceParts.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/core/SoNumber.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects::ConveyData {
namespace {

using Message = Convey::Message;
using Specifier = Convey::Specifier;

constexpr int32_t kSendFailed = 59;
constexpr int64_t kPollMilliseconds = 100;
constexpr int64_t kTargetWaitMilliseconds = limits::of("send.target");
// A message that finds no target is kept alive for this long.
constexpr uint32_t kQueueSeconds = limits::of("queue.age");
// A target that takes nothing must not fill this process's memory.
constexpr int32_t kMaximumQueued = limits::of("queue.outgoing.messages");
constexpr int64_t kMaximumQueuedBytes = limits::of("queue.outgoing.bytes");
// What the background gives a target whose queue is full: nothing, unless the text is larger than a
// queue and so can only pass with the target's help.
constexpr int32_t kBackgroundSendMilliseconds = 0;
constexpr int32_t kBackgroundLargeSendMilliseconds = limits::of("send.background");
constexpr int32_t kLargeTextBytes = 1 << 20;

// A peer that numbers its answers like the request.
bool isNewPeer(const Message& message) {
    const SoString version = message.getVersion();
    return !version.isEmpty() && !(version == "1.0");
}

int64_t monotonicNow() {
    return platform::Clock::system().monotonicMilliseconds();
}

} // namespace

bool PrivateData::send(Message& message, bool mayLaunch, uint32_t waitSeconds,
                       const SoString* launchParameters) {
    if (isEmptyRequest(message)) {
        return false;
    }
    const Specifier target(message.getTarget().c_str(), true);
    if (target.isEmpty()) {
        sendError(message, "ERROR: INVALID SPECIFIER", kSendFailed, waitSeconds);
        return false;
    }
    if (message.getType() == "Timeout" && !(message.getTarget() == message.getSender()) &&
        message.getUserHeaderValue("TIMEOUT_DETECTOR") == "SENDER") {
        return false;
    }
    if (message.getSerialNumber() == 0) {
        message.setSerialNumber(message.getNextSerialNumber(context()));
    }
    if (message.getSender().isEmpty()) {
        message.setSender(appName());
    }
    message.setTarget(target);
    requestProcessed(message);
    SoString text;
    if (!message.writeToString(text)) {
        sendError(message, "ERROR: CAN'T STREAM MESSAGE TO STRING", kSendFailed, waitSeconds);
        return false;
    }
    bool queued = false;
    const bool delivered = deliverLocally(message) ||
                           deliver(message, text, mayLaunch, waitSeconds, launchParameters, queued);
    if (!delivered && !queued) {
        return false;
    }
    watchTime(message);
    if (waitSeconds == 0) {
        return delivered;
    }
    return (delivered || waitForTarget(message)) && waitForResponse(message, waitSeconds);
}

// Hands the message to an instance of this process; false when none has its target's name.
bool PrivateData::deliverLocally(const Message& message) {
    ConveyContext* const context = this->context();
    const std::shared_ptr<PrivateData> receiver =
        context == nullptr ? nullptr : context->pin(message.getTarget());
    if (receiver == nullptr) {
        return false;
    }
    if (contains(message.getResponseRequest(), "Received")) {
        auto received = std::make_unique<Message>(message);
        received->setTarget(message.getSender());
        received->setSender(message.getTarget());
        received->setResponseRequest(SoString());
        received->setTimeout(0);
        received->setType("Received");
        const std::shared_ptr<PrivateData> sender = context->pin(message.getSender());
        (sender != nullptr ? *sender : *this).accept(std::move(received));
    }
    receiver->accept(std::make_unique<Message>(message));
    logEvent("RECEIVED", message);
    return true;
}

void PrivateData::accept(std::unique_ptr<Message> message) {
    if (incoming_.append(message.get())) {
        (void)message.release(); // the queue's now
        noteActivity();
    }
}

// Hands the text to the target's process, or queues the message until that can be done.
bool PrivateData::deliver(Message& message, const SoString& text, bool mayLaunch,
                          uint32_t waitSeconds, const SoString* launchParameters, bool& queued) {
    const SoString& target = message.getTarget();
    // Behind those that wait for the target already: none is overtaken.
    if (outgoing_.findMessageForTarget(target) == nullptr) {
        const auto stream = this->stream();
        if (stream != nullptr && stream->send(target, text)) {
            logEvent("SEND", message);
            return true;
        }
    }
    if (!mayLaunch) {
        sendError(message, "ERROR: LAUNCHING IS SUPPRESSED", kSendFailed, waitSeconds);
        return false;
    }
    if (outgoing_.count() >= kMaximumQueued || outgoing_.bodyBytes() >= kMaximumQueuedBytes) {
        sendError(message, "ERROR: TOO MANY MESSAGES WAIT", kSendFailed, waitSeconds);
        return false;
    }
    if (!Specifier(target.c_str(), false).isRunning()) {
        logEvent("TARGET IS NOT RUNNING", message);
        if (Convey::launchTarget(target.c_str(),
                                 launchParameters != nullptr ? launchParameters->c_str() : "", 0,
                                 context()) != 1) {
            sendError(message, "ERROR: TARGET COULD NOT BE LAUNCHED", kSendFailed, waitSeconds);
            return false;
        }
        logEvent("LAUNCHING TARGET", message);
    }
    queued = queueOutgoing(std::make_unique<Message>(message));
    if (queued) {
        logEvent("ENQUEUED OUTGOING MESSAGE", message);
        noteActivity();
    }
    return false;
}

bool PrivateData::queueOutgoing(std::unique_ptr<Message> message) {
    if (!outgoing_.append(message.get())) {
        return false;
    }
    (void)message.release(); // the queue's now
    if (const ConveyContext* context = this->context()) {
        context->getThread()->wake();
    }
    return true;
}

bool PrivateData::waitForTarget(const Message& message) {
    const Specifier target(message.getTarget().c_str(), false);
    const int64_t end = monotonicNow() + kTargetWaitMilliseconds;
    while (!target.isRunning() && !isClosed()) {
        const int64_t left = end - monotonicNow();
        if (left <= 0) {
            break;
        }
        ConveyUtils::sleep(static_cast<uint32_t>(std::min(left, kPollMilliseconds)));
    }
    return true;
}

bool PrivateData::sendResponse(const Message& request, const char* type, Message* response) {
    if (!contains(request.getResponseRequest(), type)) {
        return false;
    }
    Message fresh;
    Message& answer = response != nullptr ? *response : fresh;
    SoString answerType(type);
    if (answer.isUserType()) {
        answerType << request.getType();
    }
    answer.setTarget(request.getSender());
    answer.setSender(request.getTarget().isEmpty() ? appName() : request.getTarget());
    answer.setResponseRequest(SoString());
    answer.setTimeout(0);
    if (isNewPeer(request)) {
        answer.setSerialNumber(request.getSerialNumber());
        answer.setType(answerType);
    } else {
        answer.setType(request.getType());
        answer.setSerialNumber(request.getNextSerialNumber(context()));
    }
    return send(answer, false, 0, nullptr);
}

bool PrivateData::sendResult(const Message& request, const SoString& result) {
    Message answer(request);
    answer.setResult(request.getSerialNumber());
    answer.setBody(result);
    return sendResponse(request, "Result", &answer);
}

void PrivateData::sendError(const Message& request, const char* text, int32_t code,
                            uint32_t waitSeconds) {
    Message answer;
    answer.setError(request.getSerialNumber());
    answer.setBody(SoString(text));
    answer.setHeader(CV_ERROR_CODE, static_cast<long>(code));
    (void)sendResponse(request, "Error", &answer);
    if (waitSeconds != 0 && findSlot("Error", request.getSerialNumber()) != nullptr) {
        (void)waitForResponse(request, waitSeconds);
    }
    logEvent(text, request);
    if (ConveyUtils::isForwarding("FWDERRORS")) {
        (void)ConveyUtils::forwardMessage(request, "FWDERRORS", "/errors", text);
    }
}

void PrivateData::processOutgoing(bool inBackground) {
    if (outgoing_.isEmpty()) {
        return;
    }
    // While another thread makes its pass there is nothing to add to it.
    const std::unique_lock<std::mutex> turn(outgoingTurn_, std::try_to_lock);
    if (!turn.owns_lock()) {
        return;
    }
    outgoing_.removeExpiredMessages();
    std::set<std::string> failedTargets;
    uint64_t position = 0;
    for (;;) {
        const auto stream = this->stream();
        SoString target;
        SoString text;
        bool written = false;
        uint32_t stamp = 0;
        uint32_t timeout = 0;
        const bool found = outgoing_.visitAfter(position, [&](const Message& message) {
            target = message.getTarget();
            const SoString queued = message.getUserHeaderValue("QUEUESTAMP");
            stamp = queued.isEmpty() ? message.getTimestamp() : parseUnsigned32(queued.c_str());
            timeout = message.getTimeout();
            written = failedTargets.count(target.c_str()) != 0 || message.writeToString(text);
        });
        if (!found) {
            return;
        }
        if (stream == nullptr || !written) {
            (void)outgoing_.drop(position);
            continue;
        }
        if (failedTargets.count(target.c_str()) == 0) {
            const int32_t patience = !inBackground ? InterAppStream::kSendTimeoutMilliseconds
                                     : text.length() > kLargeTextBytes
                                         ? kBackgroundLargeSendMilliseconds
                                         : kBackgroundSendMilliseconds;
            if (stream->send(target, text, patience)) {
                (void)outgoing_.drop(position);
                continue;
            }
            failedTargets.insert(target.c_str());
        }
        // Kept alive while it is young, then given a time at which it ends.
        const uint32_t now = ConveyUtils::getTimeSeconds();
        if (now < stamp + kQueueSeconds) {
            (void)outgoing_.keep(position, now, timeout, stamp);
        } else {
            const uint32_t last = timeout == 0               ? 1
                                  : timeout >= kQueueSeconds ? kQueueSeconds - 1
                                                             : timeout;
            (void)outgoing_.keep(position, stamp, last, stamp);
        }
    }
}

} // namespace ScObjects::ConveyData
