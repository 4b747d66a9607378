// How an instance receives, and what becomes of what it has received.
#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVInstanceParts.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace ScObjects::ConveyData {
namespace {

using Message = Convey::Message;
using MsgHandler = Convey::MsgHandler;

constexpr int32_t kRejected = 53;
// What the background receives for an instance whose owner does not pump; the rest stays in the
// system's queue, and holds its senders.
constexpr int32_t kMaximumReceivedAhead = limits::of("queue.incoming.messages");
constexpr int64_t kMaximumReceivedBytes = limits::of("queue.incoming.bytes");
constexpr int kTextsAtOnce = limits::of("receive.texts");

// The kinds that handlers are told.
enum Kind : int { kUserType, kRequest, kReceived, kResult, kError, kTimeout, kLog, kIdle };

Kind kindOf(const Message& message) {
    const SoString& type = message.getType();
    if (type == "Received" || message.getReceived() != CV_INVALID_MESSAGE_NUMBER) {
        return kReceived;
    }
    if (type == "Result" || message.getResult() != CV_INVALID_MESSAGE_NUMBER) {
        return kResult;
    }
    if (type == "Error" || message.getError() != CV_INVALID_MESSAGE_NUMBER) {
        return kError;
    }
    if (type.isEmpty() || type == "Tessaly" || type == "Debug") {
        return kRequest;
    }
    if (type == "Timeout") {
        return kTimeout;
    }
    if (type == "Log") {
        return kLog;
    }
    return type == "Idle" ? kIdle : kUserType;
}

} // namespace

bool PrivateData::incomingPending() const {
    if (!incoming_.isEmpty()) {
        return true;
    }
    const auto stream = this->stream();
    return stream != nullptr && (!stream->isEmpty() || stream->messagePending());
}

void PrivateData::receiveTexts(SoString&& text) {
    for (int32_t next = 0; next < text.length();) {
        auto message = std::make_unique<Message>();
        next = message->readFromString(text, next);
        if (message->getType() == "Ignore") {
            continue;
        }
        (void)sendResponse(*message, "Received", nullptr);
        logEvent("RECEIVE", *message);
        accept(std::move(message));
    }
}

bool PrivateData::receiveArrived() {
    incoming_.removeExpiredMessages(); // the owner may not pump for long
    const auto stream = this->stream();
    for (int texts = 0; stream != nullptr && texts < kTextsAtOnce; ++texts) {
        if (incoming_.count() >= kMaximumReceivedAhead ||
            incoming_.bodyBytes() >= kMaximumReceivedBytes || !stream->messagePending()) {
            return false;
        }
        const std::lock_guard<std::mutex> turn(receivingTurn_);
        (void)stream->receive();
        receiveTexts(stream->getMessages());
    }
    return stream != nullptr;
}

bool PrivateData::processIncoming(uint32_t serialNumber, bool process) {
    incoming_.removeExpiredMessages();
    const auto stream = this->stream();
    const bool arrived = stream != nullptr && (stream->messagePending() || !stream->isEmpty());
    if (!arrived && incoming_.isEmpty()) {
        return false;
    }
    if (arrived) {
        const std::lock_guard<std::mutex> turn(receivingTurn_);
        (void)stream->receive();
        while (!stream->isEmpty()) {
            receiveTexts(stream->getMessages());
        }
    }
    if (!process) {
        return false;
    }
    const std::unique_ptr<Message> message(incoming_.getNextMessage(serialNumber));
    if (message == nullptr || message->getTarget().isEmpty()) {
        return false;
    }
    if (!isEmptyRequest(*message)) {
        dispatch(*message);
    }
    finish(*message);
    return true;
}

void PrivateData::dispatch(const Message& message) {
    Message copy(message);
    if (Message::getAuthentication() && message.isRejected()) {
        sendError(copy, "ERROR: MESSAGE REJECTED", kRejected, 0);
        return;
    }
    auto slot = findSlot(message.getType(), message.getSerialNumber());
    if (slot == nullptr) {
        slot = findSlot("Tessaly", CV_INVALID_MESSAGE_NUMBER);
    }
    if (slot == nullptr) {
        return;
    }
    const Kind kind = kindOf(message);
    // Replies reach the handler as plain messages that say which kind of reply they are.
    if (message.getType() == "Received") {
        copy.setType("Tessaly");
        copy.setReceived(kReceived);
    } else if (message.getType() == "Result") {
        copy.setType("Tessaly");
        copy.setResult(kResult);
    } else if (message.getType() == "Error") {
        copy.setType("Tessaly");
        copy.setError(kError);
    }
    const MsgHandler* const handler = slot->handler();
    const uint32_t awaited =
        handler == nullptr ? CV_INVALID_MESSAGE_NUMBER : handler->getSerialNumber();
    SoString result;
    const int32_t code = slot->call(kind, copy, &result);
    if (message.getSerialNumber() != CV_INVALID_MESSAGE_NUMBER &&
        awaited == message.getSerialNumber()) {
        (void)deleteHandler(slot->handler());
    }
    if (code != 0) {
        if (contains(message.getResponseRequest(), "Error")) {
            sendError(message, result.c_str(), code, 0);
        } else if (ConveyUtils::isForwarding("FWDERRORS")) {
            (void)ConveyUtils::forwardMessage(message, "FWDERRORS", kErrorRoot, result);
        }
    } else if (contains(message.getResponseRequest(), "Result")) {
        (void)sendResult(message, result);
    }
}

void PrivateData::finish(const Message& message) {
    const SoString& type = message.getType();
    const uint32_t serial = message.getSerialNumber();
    if (type == "Ignore") {
        return;
    }
    if (type == "Processed" || type == "Error" || type == "Timeout") {
        // The answer has come, one way or another: nothing is left to wait for.
        incoming_.removeTimeoutMessage(serial);
        if (serial != CV_INVALID_MESSAGE_NUMBER) { // which would be all that wait for no message
            (void)deleteHandlers(serial);
        }
        logEvent(type == "Processed" ? "PROCESSED CLEANUP"
                 : type == "Error"   ? "PROCESSED ERROR"
                                     : "PROCESSED TIMEOUT",
                 message);
    } else {
        (void)sendResponse(message, "Processed", nullptr);
        logEvent("PROCESSED INCOMING MESSAGE", message);
    }
    if (ConveyUtils::isForwarding("FWDMESSAGES")) {
        (void)ConveyUtils::forwardMessage(message, "FWDMESSAGES", infoRoot("in"), SoString());
    }
}

} // namespace ScObjects::ConveyData
