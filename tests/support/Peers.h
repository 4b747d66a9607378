#pragma once

#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/stream/InterAppStream.h"
#include "tests/support/TestHandler.h"

// What tests of the engine share: what an instance hears, and what another process says, played by
// a stream of this one.

// A handler that notes each call as kind, type and body.
inline TestHandler* noting(std::vector<std::string>& calls, const char* type = "Tessaly",
                           uint32_t serial = ScObjects::ConveyData::CV_INVALID_MESSAGE_NUMBER) {
    return new TestHandler(
        [&calls](int event, ScObjects::Convey::Message& message, ScObjects::SoString*) {
            calls.push_back(std::to_string(event) + " " + message.getType().c_str() + " " +
                            message.getBody().c_str());
            return 0;
        },
        type, serial);
}

// A message of these parts.
inline ScObjects::Convey::Message request(const char* target, const char* body,
                                          const char* replies = "", const char* type = "Tessaly") {
    ScObjects::Convey::Message message;
    message.setTarget(target);
    message.setBody(ScObjects::SoString(body));
    message.setResponseRequest(replies);
    message.setType(type);
    return message;
}

// Until nothing happens any more.
inline void pumpAll() {
    while (ScObjects::Convey::pump(ScObjects::kProcessBoth)) {
    }
}

// Until this holds, or for twenty seconds.
template <class Condition>
void pumpUntil(Condition&& holds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!holds() && std::chrono::steady_clock::now() < end) {
        (void)ScObjects::Convey::pumpOrWait(50);
    }
}

// A message from this stream to its target; false when it was not taken.
inline bool sendFrom(const ScObjects::InterAppStream& stream, ScObjects::Convey::Message message) {
    ScObjects::SoString text;
    message.setSender(stream.getName());
    return message.writeToString(text) && stream.send(message.getTarget(), text);
}

// The next message that arrives; without a target when none does in time.
inline ScObjects::Convey::Message nextMessage(ScObjects::InterAppStream& stream,
                                              int32_t milliseconds = 10'000) {
    ScObjects::Convey::Message message;
    if (stream.receive() || (stream.waitForMessage(milliseconds, false) && stream.receive())) {
        (void)message.readFromString(stream.getMessages().c_str());
    }
    return message;
}

// Says something to the background thread of "own-1.0".
inline void tellThread(const ScObjects::InterAppStream& from, const char* pair,
                       const char* number = nullptr) {
    ScObjects::Convey::Message ping;
    ping.setTarget("own-1.0#thread");
    ping.setType("ping");
    ping.setHeader("ECHO_REQUEST", pair);
    if (number != nullptr) {
        ping.setHeader("Ping-Number", number);
    }
    EXPECT_TRUE(sendFrom(from, ping));
}

// What it says to that; "-" for nothing.
inline std::string answerTo(ScObjects::InterAppStream& asker, int32_t milliseconds = 10'000) {
    const ScObjects::Convey::Message answer = nextMessage(asker, milliseconds);
    return answer.getTarget().isEmpty() ? "-" : answer.getUserHeaderValue("ECHO_REQUEST").c_str();
}
