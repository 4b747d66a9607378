// How an instance waits for what its messages bring back.
#include <algorithm>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVInstanceParts.h"

namespace ScObjects::ConveyData {
namespace {

using Message = Convey::Message;

constexpr int64_t kPollMilliseconds = 100;
constexpr uint32_t kWatchSeconds = limits::of("message.watch");

int64_t monotonicNow() {
    return platform::Clock::system().monotonicMilliseconds();
}

} // namespace

// Who waits for a reply always learns when the message was processed.
void PrivateData::requestProcessed(Message& message) const {
    if (message.getType() == "Ignore" ||
        (message.getResponseRequest().isEmpty() &&
         findSlot(SoString(), message.getSerialNumber()) == nullptr)) {
        return;
    }
    if (!contains(message.getResponseRequest(), "Processed") && !(message.getType() == "Debug")) {
        SoString request = message.getResponseRequest();
        request << " Processed";
        message.setResponseRequest(request);
    }
}

// A watcher in the own queue tells this side that no answer came in time.
void PrivateData::watchTime(const Message& message) {
    if (!contains(message.getResponseRequest(), "Timeout") ||
        message.getUserHeaderValue("TIMEOUT_DETECTOR") == "TARGET") {
        return;
    }
    auto watcher = std::make_unique<Message>();
    watcher->setTarget(message.getSender());
    watcher->setSender(message.getSender());
    watcher->setType("Ignore");
    watcher->setResponseRequest("Timeout");
    watcher->setSerialNumber(message.getSerialNumber());
    const uint32_t timeout = message.getTimeout();
    watcher->setTimeout(static_cast<int32_t>(timeout) > 0 ? timeout + 1 : kWatchSeconds);
    accept(std::move(watcher));
}

bool PrivateData::waitForResponse(const Message& message, uint32_t seconds) {
    if (seconds == 0) {
        return false;
    }
    const int64_t end = monotonicNow() + int64_t{1000} * seconds;
    const SoString anyType;
    ConveyContext* const context = this->context();
    for (;;) {
        const uint64_t seen = context == nullptr ? 0 : context->activity();
        Convey::pump(kProcessBoth, nullptr);
        const auto slot = findSlot(anyType, message.getSerialNumber());
        if (slot == nullptr || slot->handler() == nullptr ||
            slot->handler()->getSerialNumber() != message.getSerialNumber()) {
            return true; // it has run, and is gone
        }
        const int64_t left = end - monotonicNow();
        if (left <= 0 || isClosed() || context == nullptr) {
            return false;
        }
        context->waitForActivity(seen, std::min(left, kPollMilliseconds));
    }
}

} // namespace ScObjects::ConveyData
