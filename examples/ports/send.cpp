// Sends messages to a name. See usage below.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace {

using ScObjects::Convey;
using ScObjects::InterAppStream;
using ScObjects::SoString;

constexpr const char* kUsage =
    "usage: send TARGET [--from NAME] [--type TYPE] [--count N] [--size BYTES] [--timeout MS] "
    "[BODY]\n"
    "Sends BODY, or BYTES bytes, N times (once) to the owner of TARGET, numbered from 1. Ends "
    "with\n"
    "1 at the first that is not delivered, for which it waits at most MS milliseconds (10000).\n";

} // namespace

int main(int argc, char** argv) {
    const char* target = nullptr;
    const char* from = "sender-1.0";
    const char* type = "Tessaly";
    std::string body;
    long count = 1;
    int timeoutMilliseconds = InterAppStream::kSendTimeoutMilliseconds;
    for (int i = 1; i < argc; ++i) {
        const auto option = [&](const char* name) {
            return std::strcmp(argv[i], name) == 0 && i + 1 < argc;
        };
        if (option("--from")) {
            from = argv[++i];
        } else if (option("--type")) {
            type = argv[++i];
        } else if (option("--count")) {
            count = std::atol(argv[++i]);
        } else if (option("--size")) {
            body.assign(static_cast<size_t>(std::atol(argv[++i])), 'b');
        } else if (option("--timeout")) {
            timeoutMilliseconds = std::atoi(argv[++i]);
        } else if (argv[i][0] == '-') {
            std::fputs(kUsage, stderr);
            return 2;
        } else if (target == nullptr) {
            target = argv[i];
        } else {
            body = argv[i];
        }
    }
    if (target == nullptr) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    const InterAppStream stream(from);
    if (!stream.isGood()) {
        std::fprintf(stderr, "send: %s is taken\n", from);
        return 1;
    }
    Convey::Message message;
    message.setTarget(target);
    message.setSender(from);
    message.setType(type);
    message.setBody(SoString(body.data(), static_cast<int32_t>(body.size())));
    for (long i = 1; i <= count; ++i) {
        message.setSerialNumber(static_cast<uint32_t>(i));
        SoString text;
        if (!message.writeToString(text) || !stream.send(target, text, timeoutMilliseconds)) {
            std::printf("delivered %ld\n", i - 1);
            std::fprintf(stderr, "send: message %ld was not delivered\n", i);
            return 1;
        }
    }
    std::printf("delivered %ld\n", count);
    return 0;
}
