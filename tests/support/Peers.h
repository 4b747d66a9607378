#pragma once

#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/stream/InterAppStream.h"
#include "tests/support/TestHandler.h"

// What tests of the engine share: what an instance hears, and what another process says, played by
// a stream of this one.

namespace ScObjects {
// So that a failure shows the text, and not the bytes of the object.
inline void PrintTo(const SoString& text, std::ostream* out) {
    *out << testing::PrintToString(text.view());
}
} // namespace ScObjects

using ScObjects::Convey;
using ScObjects::InterAppStream;
using ScObjects::SoString;
using Message = Convey::Message;
using Strings = std::vector<std::string>;

// A handler that notes each call as kind, type and body.
inline TestHandler* noting(Strings& calls, const char* type = "Tessaly",
                           uint32_t serial = ScObjects::ConveyData::CV_INVALID_MESSAGE_NUMBER) {
    return new TestHandler(
        [&calls](int event, Message& message, SoString*) {
            calls.push_back(std::to_string(event) + " " + message.getType().c_str() + " " +
                            message.getBody().c_str());
            return 0;
        },
        type, serial);
}

// A message of these parts.
inline Message request(const char* target, const char* body, const char* replies = "",
                       const char* type = "Tessaly") {
    Message message;
    message.setTarget(target);
    message.setBody(SoString(body));
    message.setResponseRequest(replies);
    message.setType(type);
    return message;
}

// Until nothing happens any more.
inline void pumpAll() {
    while (Convey::pump(ScObjects::kProcessBoth)) {
    }
}

// Until this holds, or for a minute.
template <class Condition>
void pumpUntil(Condition&& holds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!holds() && std::chrono::steady_clock::now() < end) {
        (void)Convey::pumpOrWait(50);
    }
}

// A message from this stream to its target; false when it was not taken.
inline bool sendFrom(const InterAppStream& stream, Message message) {
    SoString text;
    message.setSender(stream.getName());
    return message.writeToString(text) && stream.send(message.getTarget(), text);
}

// And one from an instance, which asks nobody to launch its target.
inline bool sendFrom(const Convey& instance, Message message) {
    return instance.send(message, false, 0, nullptr);
}

// The next message that arrives; without a target when none does in time.
inline Message nextMessage(InterAppStream& stream, int32_t milliseconds = 10'000) {
    Message message;
    if (stream.receive() || (stream.waitForMessage(milliseconds, false) && stream.receive())) {
        (void)message.readFromString(stream.getMessages().c_str());
    }
    return message;
}

// Says something to the background thread of "own-1.0".
inline void tellThread(const InterAppStream& from, const char* pair, const char* number = nullptr) {
    Message ping;
    ping.setTarget("own-1.0#thread");
    ping.setType("ping");
    ping.setHeader("ECHO_REQUEST", pair);
    if (number != nullptr) {
        ping.setHeader("Ping-Number", number);
    }
    EXPECT_TRUE(sendFrom(from, ping));
}

// What it says to that; "-" for nothing.
inline std::string answerTo(InterAppStream& asker, int32_t milliseconds = 10'000) {
    const Message answer = nextMessage(asker, milliseconds);
    return answer.getTarget().isEmpty() ? "-" : answer.getUserHeaderValue("ECHO_REQUEST").c_str();
}
