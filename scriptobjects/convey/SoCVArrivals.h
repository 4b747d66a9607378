#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "scriptobjects/convey/SoCVMessage.h"

namespace ScObjects {

class InterAppStream;

namespace ConveyData {

// What other processes make an instance keep: for each the messages that it has not handled yet,
// with all that they cost. A message is charged when it is received and gives its charge back with
// its own end, whoever ends it. Threads: any.
class IncomingAccounts {
public:
    struct Load {
        int32_t messages = 0;
        int64_t bytes = 0;
    };

    // Whether one more is taken from the process. Nothing is refused to who has nothing kept, so
    // that a neighbour's fill keeps nobody out.
    bool hasRoom(int32_t process) const;
    Load load() const;
    // Processes from which no more is taken, whichever bound it is that they have reached.
    int32_t withoutRoom() const;

    void charge(int32_t process, int64_t bytes);
    void giveBack(int32_t process, int64_t bytes);

private:
    mutable std::mutex mutex_; // a leaf
    bool hasRoomLocked(const Load& own) const;
    void noteKeptLocked();
    std::map<int32_t, Load> processes_;
    Load all_;
    // The same; change under the mutex, read without.
    std::atomic<int32_t> keptMessages_{0};
    std::atomic<int64_t> keptBytes_{0};
};

// The texts that have arrived and are not read yet. They are read message by message, for as long
// as there is room for what they bring, and in steps, so that no text keeps its reader from other
// work. The rest of a text waits here, and what else its sender sends in the system's queue.
//
// One thread at a time, but for `isEmpty` and `accounts`.
class Arrivals {
public:
    using Take = std::function<void(std::unique_ptr<Convey::Message>)>;
    enum class Stop {
        nothing, // there is nothing more to read
        full,    // what there is has no room now
        time     // there is more, and the time is up
    };

    Arrivals();
    ~Arrivals();
    Arrivals(const Arrivals&) = delete;
    Arrivals& operator=(const Arrivals&) = delete;

    // Gives messages to `take`, for about so long and at most so many. `needed`: one that there is
    // no room for is read all the same, when there is no other.
    Stop read(InterAppStream& stream, int64_t milliseconds, int messages, bool needed,
              const Take& take);
    // Whether all has been read that has arrived, as far as the stream knows: nothing is held back.
    bool isEmpty() const { return bytes_.load() == 0 && held_.load() == 0; }
    // Whether a text of this process, of any for 0, is held here. In the reader's turn.
    bool hasTextOf(int32_t process) const;
    // The messages that were received and are still there.
    IncomingAccounts::Load load() const { return accounts_->load(); }
    int32_t withoutRoom() const { return accounts_->withoutRoom(); }
    // Texts that were dropped because memory ran out.
    uint32_t dropped() const { return dropped_.load(); }

private:
    class Received;
    struct Sender {
        std::vector<std::unique_ptr<Convey::Message::Reader>> texts; // a handful
        std::unique_ptr<Received> message;                           // that is being read
        bool held = false;
    };
    using Senders = std::map<int32_t, Sender>;

    struct Look {
        bool isDue = true;
        int texts = 0; // drawn since the reader came
        int64_t bytes = 0;
    };
    void draw(InterAppStream& stream, Look& look);
    Senders::iterator next(bool needed);
    std::unique_ptr<Convey::Message> readSome(InterAppStream& stream, Senders::iterator sender);
    std::unique_ptr<Convey::Message> readStep(InterAppStream& stream, Senders::iterator sender);
    void drop(InterAppStream& stream, Senders::iterator sender);
    void hold(InterAppStream& stream, Senders::iterator sender, bool on);
    void letGoOn(InterAppStream& stream, bool needed);

    const std::shared_ptr<IncomingAccounts> accounts_ = std::make_shared<IncomingAccounts>();
    Senders senders_;              // by process; those with texts or held
    int32_t last_ = 0;             // whose turn was the last
    std::atomic<int32_t> held_{0}; // senders that are
    std::atomic<uint32_t> dropped_{0};
    std::atomic<int64_t> bytes_{0}; // of the texts, at least 1 for each
};

} // namespace ConveyData
} // namespace ScObjects
