#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "link/Frame.h"

namespace convey_link {

class Wire;

// What a disk says of a message that it was given: `ofAnother` when it is of another stream,
// `notNow` for nothing, for what is no such answer, and for an error that may pass. What became of
// one: `notNow` when nothing has kept it for too long, or `expired`.
enum class KeptAnswer { kept, full, tooLarge, notNow, ofAnother, expired };
KeptAnswer keptAnswer(std::string_view answer, const std::string& stream);

// Requests of this link on their way to the servers' disks, from which their links take them: one
// at a time, and each until a disk has said that it has it, so that they lie there in order. What
// is repeated has its number, which the disk knows. One thread.
class Keeper {
public:
    struct Ended {
        std::string link;
        uint64_t message;
        KeptAnswer result;
    };

    // `stream`: of the requests of this link, on the disks.
    Keeper(Wire& wire, uint64_t life, std::string stream)
        : wire_(wire), life_(life), stream_(std::move(stream)) {}

    void queue(const std::string& link, uint64_t message, MessageHead head, std::string text,
               int64_t deadline);
    // What a disk has answered, or nothing for nobody there. What is of another stream says
    // nothing: who may give something to that chooses where the answer goes.
    void take(uint64_t number, std::string_view answer, int64_t now);
    // The connection is another.
    void again() { sendAt_ = 0; }
    // Sends what is to be sent; what has ended since the last call.
    std::vector<Ended> step(int64_t now);
    // When to step again if nothing happens.
    int64_t due() const { return !ended_.empty() ? 0 : line_.empty() ? INT64_MAX : sendAt_; }
    size_t waiting() const { return line_.size(); }
    uint64_t kept() const { return kept_; }

private:
    struct Waiting {
        uint64_t number; // for the disk; a message's is of its link only
        std::string link;
        uint64_t message;
        MessageHead head;
        std::string text;
        int64_t deadline;
    };
    void end(KeptAnswer result);

    Wire& wire_;
    const uint64_t life_;
    const std::string stream_;
    std::deque<Waiting> line_;
    std::vector<Ended> ended_;
    bool isSent_ = false; // the front one: it may lie on a disk
    int64_t sendAt_ = 0;
    int64_t missedAt_ = INT64_MAX; // since when nothing keeps; stays until something does
    uint64_t lastNumber_ = 0;
    uint64_t kept_ = 0;
};

// Which of the kept requests of other links this one has begun to hand over, in files: what comes
// again after this link has died was handed over, or nobody can know, and is not handed over twice.
//
// Disks send the next one of a link only behind the last one's acknowledgement, so a number for
// each life is enough. One thread.
class Journal {
public:
    // Nothing is made in the folder before it is needed.
    explicit Journal(std::string folder) : folder_(std::move(folder)) {}

    enum class State { fresh, begun, over }; // over: a later one of that life was begun
    State state(const std::string& link, uint64_t life, uint64_t message);
    // False, and it must not be handed over, when the file cannot be written.
    [[nodiscard]] bool begin(const std::string& link, uint64_t life, uint64_t message);

private:
    using Lives = std::deque<std::pair<uint64_t, uint64_t>>; // with the last message, oldest first
    Lives& lives(const std::string& link);

    const std::string folder_;
    std::map<std::string, Lives> links_;
};

// Of a subject for acknowledgements: when the message was stored, by the servers' clock in
// milliseconds since 1970; -1 for no such subject.
int64_t storedAt(std::string_view acknowledgement);
// Of what the servers tell about the consumer of that name: when it was given something last,
// likewise. -1 also for what they tell about another one, for which anybody may have asked here.
int64_t servedAt(std::string_view answer, const std::string& stream, const std::string& consumer);

} // namespace convey_link
