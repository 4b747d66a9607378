// Prints the messages that arrive at a name. See usage below.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/stream/InterAppStream.h"

namespace {

using ScObjects::Convey;
using ScObjects::InterAppStream;
using ScObjects::SoString;

constexpr const char* kUsage =
    "usage: receive NAME [--count N] [--summary]\n"
    "Prints each message that arrives at NAME until N have come or SIGTERM does. With --summary "
    "it\n"
    "prints one line at the end instead: how many came, of how many senders, and how many of them\n"
    "did not have the number that follows the one before.\n";

volatile std::sig_atomic_t gEnd = 0;

struct Summary {
    long messages = 0;
    long outOfOrder = 0;
    long rejected = 0;
    std::map<std::string, uint32_t> lastNumbers;

    void add(const Convey::Message& message) {
        ++messages;
        rejected += message.getDigestState() == "REJECTED" ? 1 : 0;
        uint32_t& last = lastNumbers[message.getSender().c_str()];
        outOfOrder += message.getSerialNumber() != last + 1 ? 1 : 0;
        last = message.getSerialNumber();
    }
};

} // namespace

int main(int argc, char** argv) {
    const char* name = nullptr;
    long count = -1;
    bool summaryOnly = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--count") == 0 && i + 1 < argc) {
            count = std::atol(argv[++i]);
        } else if (std::strcmp(argv[i], "--summary") == 0) {
            summaryOnly = true;
        } else if (argv[i][0] != '-' && name == nullptr) {
            name = argv[i];
        } else {
            std::fputs(kUsage, stderr);
            return 2;
        }
    }
    if (name == nullptr) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::signal(SIGTERM, [](int) { gEnd = 1; });
    std::signal(SIGINT, [](int) { gEnd = 1; });

    InterAppStream stream(name);
    if (!stream.isGood()) {
        std::fprintf(stderr, "receive: %s is taken\n", name);
        return 1;
    }
    std::printf("receiving at %s\n", name);
    std::fflush(stdout);
    Summary summary;
    while (gEnd == 0 && (count < 0 || summary.messages < count)) {
        if (!stream.receive()) {
            (void)stream.waitForMessage(100, false); // looks for SIGTERM ten times a second
            continue;
        }
        SoString text = stream.getMessages();
        for (int32_t next = 0; next < text.length();) {
            Convey::Message message;
            next = message.readFromString(text, next);
            summary.add(message);
            if (!summaryOnly) {
                std::printf("%s %s %u: %s\n", message.getSender().c_str(),
                            message.getType().c_str(), message.getSerialNumber(),
                            message.getBody().c_str());
                std::fflush(stdout);
            }
        }
    }
    if (summaryOnly) {
        std::printf("%ld messages of %zu senders, %ld out of order, %ld rejected\n",
                    summary.messages, summary.lastNumbers.size(), summary.outOfOrder,
                    summary.rejected);
    }
    return 0;
}
