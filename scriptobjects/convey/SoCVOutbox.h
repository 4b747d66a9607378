#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "scriptobjects/convey/SoCVMessageQueue.h"
#include "scriptobjects/convey/SoCVTakers.h"
#include "scriptobjects/core/SoExport.h"
#include "scriptobjects/core/SoString.h"

namespace ScObjects {

class CVDiagnosticsRows;
class InterAppStream;

namespace ConveyData {

// How far a message came.
enum class Delivery {
    refused,   // it goes nowhere: nobody owns the target's name, or nothing more is kept
    queued,    // it waits for its target, in order, and is sent when that takes it
    delivered, // it lies in the target's queue
};

// What waits to be sent to other processes: a line for each target, in order.
//
// Who sends chooses the patience. An owner who sends may wait for a target (`drain`, then its own
// send). Everything else - acknowledgements, results, notices, answers to pings, forwarding and the
// passes over what was kept - never waits: what a target does not take at once is kept, within
// bounds, and tried again at growing intervals until it is taken, its time is over or the target is
// gone. Only a text that does not fit into a packet needs its target's help to pass; the courier
// (see SoCVCourier.h) carries these, so that whoever else sends waits for none of them.
//
// A target that takes nothing holds up what is behind it in its own line, and nothing else.
//
// Owns its messages. Threads: any. A line is sent from by one thread at a time; no lock is held
// while a stream is asked or an observer is told.
class SO_EXPORT Outbox {
public:
    enum class Kind {
        messages, // of an instance: what finds no target is kept alive for ten minutes
        pings,    // of the background thread: each ends with its own time-out
    };
    // Who makes a pass: the background and the owner's pump wait for nobody; the courier takes the
    // lines that begin with a large text, and waits a moment for these.
    enum class Carrier { round, courier };

    // What is left after a pass.
    struct Left {
        bool more = false;  // the pass's time was up: there is more that may be sent now
        bool large = false; // there is work for the courier
        bool sent = false;  // something went out: who was held up may go on
        int64_t retryMilliseconds = -1; // until a line is tried again; -1: none waits for time
        void join(const Left& other);
    };

    // `begin` is asked how to send a request whose asker is to know when its taker ends; it may be
    // empty, and may answer null.
    using BeginSending = std::function<std::unique_ptr<Takers::Sending>(AwaitedRequest&&)>;
    explicit Outbox(Kind kind, BeginSending begin = {}) : kind_(kind), begin_(std::move(begin)) {}
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    // The background's way out. Takes the message over, and leaves it null, when it is queued.
    // `stream`: null when there is none, which refuses.
    Delivery post(const InterAppStream* stream, std::unique_ptr<Convey::Message>& message);
    // Its two halves. Hands the message, and `next` (null: nothing) behind it in the same text, to
    // a target for which nothing waits and that takes it at once: delivered. Else the message stays
    // the caller's: refused when it cannot be written, queued when it is to be kept.
    Delivery handAtOnce(const InterAppStream& stream, const Convey::Message& message,
                        const Convey::Message* next) const;
    Delivery keep(const InterAppStream& stream, std::unique_ptr<Convey::Message>& message);

    // The owner's way: makes sure that nothing waits for `target` any more, for at most so many
    // milliseconds. Else why something does.
    platform::SendResult drain(const InterAppStream& stream, const SoString& target,
                               int64_t milliseconds);
    // Whether nothing waits for `target`, so that a send overtakes nothing.
    bool isFree(const SoString& target) const;
    // Queues an owner's message for a target that cannot be reached yet. False, and it stays the
    // caller's, without sender or target.
    bool queue(std::unique_ptr<Convey::Message>& message);
    // Whether an owner may queue one more.
    bool hasRoom() const;

    // Sends what can be sent, in a short time; see Left. Without a stream it is deleted.
    Left pass(const InterAppStream* stream, Carrier carrier);

    // Whether a pass has something to do.
    bool hasWork() const { return !queue_.isEmpty(); }

    // The steady millisecond by which a pass is needed when nothing else happens than that names
    // appear: what waits has to be kept alive before its time is over. INT64_MAX for none.
    int64_t nextLook();

    // True while so much is kept for `asker` that its further requests had better wait.
    bool isHeldUp(const SoString& asker) const;

    // The targets that take nothing: since when, and how many messages wait for them.
    void appendDiagnostics(CVDiagnosticsRows& rows) const;

    // What waits, for diagnostics and for taking messages back.
    MessageQueue& messages() { return queue_; }
    const MessageQueue& messages() const { return queue_; }

private:
    // The state of a line that has messages, or had some a moment ago.
    struct Line {
        // That of the queue's line: what is below does not hold for another one. Messages also go
        // while nobody sends from here, taken back or because their time is over.
        uint64_t number = 0;
        bool busy = false;  // a thread sends from it: what is below is that thread's
        bool large = false; // its first text is the courier's
        int64_t pause = 0;  // milliseconds between attempts, doubled each time
        int64_t retryAt = 0;
        // Since when it takes nothing, 0 while it does, and whether nobody has its name; changed
        // under the mutex by who has the turn, for others to read.
        int64_t failingSince = 0;
        bool absent = false;
        uint32_t requeuedSecond = 0;
        uint64_t textPosition = 0; // of the message that `text` is: written once for many attempts
        Convey::Message::Text text;
    };
    class Turn;
    struct Attempt;

    bool mayKeep(const std::string& target) const;
    void noteKept(const std::string& target, bool large);
    bool isDue(const Line& line, Carrier carrier, int64_t now, Left& left) const;
    void send(const InterAppStream* stream, Turn& turn, Carrier carrier, int64_t end, Left& left);
    Attempt nextOf(Turn& turn, Carrier carrier);
    platform::SendResult hand(const InterAppStream& stream, Attempt& next, const SoString& target,
                              int32_t timeoutMilliseconds) const;
    void noteState(Line& line, int64_t failingSince, bool absent);
    void noteFailure(const InterAppStream& stream, Turn& turn, bool sentAny, Left& left);
    void requeue(const std::string& target);
    void forgetEmptyLines();
    std::pair<Line&, bool> lineOf(const std::string& target);

    const Kind kind_;
    const BeginSending begin_;
    MessageQueue queue_;
    mutable std::mutex mutex_;      // guards the lines; never held while anything else is called
    std::condition_variable given_; // a turn was given back
    std::unordered_map<std::string, Line> lines_;
    size_t first_ = 0; // the line that a pass begins with: each has its turn
};

} // namespace ConveyData
} // namespace ScObjects
