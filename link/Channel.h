#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "link/Frame.h"
#include "link/Text.h"

namespace convey_link {

// The promises between this link and one other: what is queued here arrives there once and in
// order, for each pair of names, or its end is told.
//
// NATS forgets messages without a word. So cargo has numbers, is kept until it is acknowledged, is
// sent again when it is not, and is dropped where it comes twice. A window bounds what is under
// way. Texts go in parts; the pairs take turns part by part, so that a small text waits for one
// part of another pair's large one and never for the whole.
//
// A life is one run of a link. Numbers count within a pair of lives: when the other link begins
// another, what was not wholly sent is sent to it anew, and of the rest nobody can know.
//
// Pure: no clock, no network. Times are in milliseconds of any steady clock. One thread.
class Channel {
public:
    struct Arrival {
        uint64_t message; // the sender's number, for the outcome
        MessageHead head;
        std::string text;
        uint64_t keptLife = 0; // of its sender, when it has lain on a disk; else 0
    };
    struct Launch {
        std::string app;
        std::string parameters;
    };
    // What a frame brought.
    struct Arrivals {
        std::vector<Arrival> messages;
        std::vector<std::pair<uint64_t, Outcome>> outcomes; // of messages queued here, it says
        std::vector<Launch> launches;
    };

    explicit Channel(uint64_t ownLife) : ownLife_(ownLife) {}

    // Queues a message behind those of the same pair; its number.
    uint64_t queue(MessageHead head, Travelling text, int64_t deadline);
    // A number for a message that goes another way, and whose end the other link tells here.
    uint64_t reserve() { return ++lastMessage_; }
    void queueLaunch(const std::string& app, const std::string& parameters);
    // Tells the other link how one of its messages ended; many go together.
    void tell(uint64_t message, Outcome outcome, int64_t now);

    // Of whom it is. When that is another life than before, all is begun anew: what waits goes to
    // it, and the life before may have delivered the rest.
    void meet(uint64_t otherLife);
    uint64_t otherLife() const { return otherLife_; }

    // Takes a cargo or an acknowledgement of the life that was met, meant for this one; others are
    // ignored.
    void take(const Frame& frame, int64_t now, Arrivals& out);

    // The next frame that is to go out, empty for none now. `partBytes`: of a text at most.
    // Messages whose time was over before their first part went out are left out, and in `expired`.
    std::string next(int64_t now, size_t partBytes, std::vector<uint64_t>& expired);
    // Gives up what waits and whose time is over, also while nothing may go out.
    void expire(int64_t now, std::vector<uint64_t>& expired);
    // When `next` is to be asked again if nothing happens; INT64_MAX for never.
    int64_t due() const;
    // What was sent may not have arrived: the connection was another, or the other was away.
    void sendAgain();

    // Messages not wholly sent, and their bytes.
    std::set<uint64_t> waiting() const;
    size_t waitingBytes() const { return queuedBytes_; }
    // Bytes of texts that are half there.
    size_t halfBytes() const { return halfBytes_; }

private:
    struct Queued {
        uint64_t message;
        MessageHead head;
        Travelling whole;
        int64_t deadline;
        size_t sent = 0; // bytes of it, in numbered cargo
        // Of one that goes in parts, which have it, too.
        std::shared_ptr<const Travelling> inParts = nullptr;

        const Travelling& text() const { return inParts == nullptr ? whole : *inParts; }
    };
    // A part of a text stays in the text until it is acknowledged.
    struct Sent {
        uint64_t number;
        std::string cargo;
        std::shared_ptr<const Travelling> text = nullptr;
        size_t place = 0;
        size_t bytes = 0;

        size_t size() const { return cargo.size() + bytes; }
    };
    struct Half {
        MessageHead head;
        uint64_t total;
        std::string text;
    };
    using Flow = std::pair<std::string, std::string>; // source and target
    using Flows = std::map<Flow, std::deque<Queued>>;

    std::string number(Sent sent, int64_t now);
    std::string around(const Sent& sent);
    Queued* upNext(int64_t now, std::vector<uint64_t>& expired);
    void goesOn(size_t bytes);
    static bool fitsWhole(const Queued& queued, size_t partBytes);
    std::string nextPart(int64_t now, size_t partBytes, std::vector<uint64_t>& expired);
    std::string nextTexts(int64_t now, size_t partBytes, std::vector<uint64_t>& expired);
    void acknowledge(uint64_t upTo, int64_t now);
    void takePart(const Part& part, int64_t now, Arrivals& out);
    bool mayGo() const;

    const uint64_t ownLife_;
    uint64_t otherLife_ = 0;

    // What goes out.
    uint64_t lastMessage_ = 0;
    Flows flows_;
    std::list<Flows::iterator> turns_; // those that have something, in the order of their turns
    std::deque<Launch> launches_;
    std::vector<std::pair<uint64_t, Outcome>> outcomes_;
    int64_t tellAt_ = INT64_MAX;
    int64_t toldAt_ = INT64_MIN / 2; // no time before it
    size_t queuedBytes_ = 0;
    uint64_t lastNumber_ = 0;
    std::deque<Sent> sent_; // not acknowledged
    size_t sentBytes_ = 0;
    size_t again_ = SIZE_MAX; // of `sent_`, from where it is being sent again
    int64_t repeatAt_ = INT64_MAX;
    int64_t repeatAfter_ = 0;

    // What comes in.
    uint64_t arrived_ = 0; // all up to this
    bool gap_ = false;
    uint64_t gapTold_ = UINT64_MAX; // told once for each place, else each later frame tells it
    int64_t acknowledgeAt_ = INT64_MAX;
    size_t unacknowledgedBytes_ = 0;
    std::map<uint64_t, Half> halves_;
    size_t halfBytes_ = 0;
};

} // namespace convey_link
