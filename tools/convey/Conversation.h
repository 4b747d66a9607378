#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "tools/convey/Output.h"

namespace convey_tool {

// What a capture tells: messages in the order in which they were seen first, joined with what
// happened to them and with their replies.
class Conversation {
public:
    enum class Outcome { none, answered, failed, timedOut };

    struct Sent {
        int64_t microseconds = 0; // since the first event
        std::string type;
        std::string sender;
        std::string target;
        uint64_t serial = 0;
        uint64_t sizeBytes = 0;
        std::string text;
        std::string events;              // what was seen of it, for people
        int64_t request = -1;            // the index of what it replies to
        int64_t answerMicroseconds = -1; // of a request, from there to its result or error
        Outcome outcome = Outcome::none;
        bool isReply = false;
    };

    // Requests of one type from one application to another.
    struct Latency {
        std::string sender;
        std::string target;
        std::string type;
        uint64_t count = 0;
        uint64_t failed = 0;
        uint64_t timedOut = 0;
        std::vector<int64_t> microseconds; // of those that were answered, sorted
        int64_t at(double share) const;    // -1 without any
    };

    // Reads the lines that `monitor --capture` writes. Throws Failure, with the number of the line,
    // for anything else.
    static Conversation read(std::istream& lines);

    const std::vector<Sent>& messages() const { return messages_; }
    std::vector<Latency> latencies() const;
    const std::string& start() const { return start_; }
    uint64_t dropped() const { return dropped_; }

private:
    class Reader;

    std::vector<Sent> messages_;
    std::string start_;
    int64_t startMicroseconds_ = 0;
    uint64_t dropped_ = 0;
};

} // namespace convey_tool
