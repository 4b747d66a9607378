#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "bench/BareSocket.h"
#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVMessage.h"

// The worst texts of a neighbour, each of about so many bytes.
namespace bench {

inline constexpr const char* kHead = "Target:a\nSender:hog-1.0\n";

inline std::string repeated(size_t bytes, const std::string& part, const std::string& front = "") {
    std::string text = front;
    text.reserve(bytes);
    while (text.size() + part.size() <= bytes) {
        text += part;
    }
    return text;
}

inline std::string emptyMessages(size_t bytes) {
    return repeated(bytes, "Target:a\n\n");
}

inline std::string manyHeaders(size_t bytes) {
    std::string message = kHead;
    for (int i = 0; i < limits::of("message.headers"); ++i) {
        message += std::to_string(i) + ":\n";
    }
    return repeated(bytes, message + "\n");
}

inline std::string manyLines(size_t bytes) {
    return repeated(bytes, "a:\n", kHead);
}

inline std::string oneHeader(size_t bytes) {
    const std::string front = std::string(kHead) + "a:";
    return front + std::string(bytes - front.size() - 2, 'a') + "\n\n";
}

inline std::string oneName(size_t bytes) {
    return kHead + std::string(bytes - std::strlen(kHead), 'a');
}

inline std::string withDigest(size_t bytes) {
    ScObjects::Convey::Message message;
    ScObjects::Convey::Message::setCreateDigest(true);
    message.setTarget("a");
    message.setSender("hog-1.0");
    message.setBody(std::string(bytes - bytes / 64, 'b').c_str());
    ScObjects::SoString text;
    if (!message.writeToString(text) || text.view().find("@CV>MD5:") == std::string_view::npos) {
        fail("no digest");
    }
    return std::string(text.view());
}

inline std::string lineFeeds(size_t bytes) {
    return repeated(bytes, "\n", std::string(kHead) + "\n");
}

inline std::string zeroBytes(size_t bytes) {
    return repeated(bytes, std::string(1, '\0'), std::string(kHead) + "\n");
}

inline std::string pings(size_t bytes) {
    return repeated(bytes, "Target:a\nSender:b\nType:ping\n\n");
}

inline std::string longKey(size_t bytes) {
    const std::string front = std::string(kHead) + "Type:ping\nECHO_REQUEST:";
    return front + std::string(bytes - front.size() - 4, 'k') + "=v\n\n";
}

inline std::string longBody(size_t bytes) {
    const std::string body(bytes - bytes / 64, 'b');
    return std::string(kHead) + "Type:ping\nContent-Length:" + std::to_string(body.size()) +
           "\n\n" + body;
}

inline std::string manyKeys(size_t bytes) {
    std::string text;
    for (int i = 0; text.size() < bytes - 100'000; ++i) {
        text += std::string(kHead) + "Type:ping\nECHO_REQUEST:" + std::to_string(i) + "=" +
                std::string(static_cast<size_t>(i) % 60'000, 'v') + "\n\n";
    }
    return text;
}

struct HeavyText {
    const char* name;
    const char* what;
    std::string (*make)(size_t bytes);
    bool isForThread;
};

inline constexpr HeavyText kHeavyTexts[] = {
    {"empty-messages", "empty messages", emptyMessages, false},
    {"many-headers", "messages with 4,096 headers", manyHeaders, false},
    {"many-lines", "one message with a line every three bytes", manyLines, false},
    {"one-header", "one header", oneHeader, false},
    {"one-name", "no end of a name", oneName, false},
    {"digest", "a body with a digest", withDigest, false},
    {"line-feeds", "line feeds", lineFeeds, false},
    {"zero-bytes", "zero bytes", zeroBytes, false},
    {"pings", "tiny pings", pings, true},
    {"long-key", "a ping with a key of so much", longKey, true},
    {"long-body", "a ping with a body of so much", longBody, true},
    {"many-keys", "pings that set keys", manyKeys, true},
};

} // namespace bench
