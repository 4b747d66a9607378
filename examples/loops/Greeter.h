#pragma once

#include <functional>
#include <string>
#include <utility>

#include "scriptobjects/convey/SoConvey.h"

// The application of these examples: answers each request with "good day, " and its body, and shows
// the body.
inline void greet(ScObjects::Convey::Messenger& messenger,
                  std::function<void(const std::string&)> show) {
    messenger.on(ScObjects::ConveyData::CV_TYPE_PLAIN,
                 [show = std::move(show)](const ScObjects::Convey::Message& message) {
                     const std::string body(message.getBody().view());
                     show(body);
                     return "good day, " + body;
                 });
}
