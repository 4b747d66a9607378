#pragma once

#include <string_view>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"

// What the sources of the instance share.
namespace ScObjects::ConveyData {

// The path under which observers of errors get their rows, whatever brought the error about.
inline constexpr const char* kErrorRoot = "/errors";

inline bool contains(const SoString& text, const char* word) {
    return text.view().find(word) != std::string_view::npos;
}

inline bool isResponse(const Convey::Message& message) {
    return message.getReceived() != CV_INVALID_MESSAGE_NUMBER ||
           message.getResult() != CV_INVALID_MESSAGE_NUMBER ||
           message.getError() != CV_INVALID_MESSAGE_NUMBER;
}

// A request that asks for nothing: it is not sent, and not handled.
inline bool isEmptyRequest(const Convey::Message& message) {
    return message.getType() == "Tessaly" && !isResponse(message) && message.getBody().isEmpty();
}

// Records an event with a message, and shows it to who watches events.
inline void logEvent(const char* label, const Convey::Message& message) {
    ConveyUtils::logMessage(label, message, true);
    if (ConveyUtils::isForwarding("FWDLOGS")) {
        (void)ConveyUtils::forwardMessage(message, "FWDLOGS", "/log", label);
    }
}

} // namespace ScObjects::ConveyData
