#pragma once

#include <new>
#include <string_view>

#include "scriptobjects/convey/SoCVConversation.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "scriptobjects/convey/SoCVWords.h"

// What the sources of the instance share.
namespace ScObjects::ConveyData {

// The path under which observers of errors get their rows, whatever brought the error about.
inline constexpr const char* kErrorRoot = "/errors";

// How long who waits for something that may come unannounced leaves it at most before it looks
// again.
inline constexpr int64_t kPollMilliseconds = 100;

// The value of `operation`, or `neutral` when memory ran out: nothing is thrown at the host.
template <class Value, class Operation>
Value guarded(Value neutral, Operation&& operation) noexcept {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        return neutral;
    }
}

inline bool contains(const SoString& text, const char* word) {
    return text.view().find(word) != std::string_view::npos;
}

// Makes `reply` the answer of that type to `request`. New peers are answered under the request's
// number; those that came before replies had types get the request's type under a number of its
// own.
inline void addressReply(const Convey::Message& request, const SoString& type,
                         Convey::Message& reply, const SoString& sender) {
    const SoString version = request.getVersion();
    const bool isNewPeer = !version.isEmpty() && !(version == "1.0");
    reply.setTarget(request.getSender());
    reply.setSender(sender);
    reply.setAskersLife(request.getAskersLife());
    reply.setType(isNewPeer ? type : request.getType());
    reply.setSerialNumber(isNewPeer ? request.getSerialNumber()
                                    : request.getNextSerialNumber(nullptr));
}

// A request that asks for nothing: it is not sent, and not handled.
inline bool isEmptyRequest(const Convey::Message& message) {
    return message.getType() == CV_TYPE_PLAIN && replyOf(message).kind == Reply::kNone &&
           message.getBody().isEmpty();
}

// Records an event with a message, and shows it to who watches events.
inline void logEvent(const char* label, const Convey::Message& message) {
    ConveyUtils::logMessage(label, message, true);
    if (ConveyUtils::isForwarding(CV_FORWARD_LOGS)) {
        (void)ConveyUtils::forwardMessage(message, CV_FORWARD_LOGS, "/log", label);
    }
}

} // namespace ScObjects::ConveyData
