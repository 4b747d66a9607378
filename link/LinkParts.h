#pragma once

// What a link consists of; for its own sources.
#include <deque>
#include <tuple>

#include "link/Bounds.h"
#include "link/Link.h"
#include "platform/MessagePort.h"

namespace convey_link {

// A port of this machine, and what holds back those who send to it.
struct Link::Port {
    std::unique_ptr<platform::LocalPort> port;
    size_t waitingBytes = 0; // taken from it and not delivered
    size_t waitingMessages = 0;
    uint64_t number = 0; // by which a wait tells of it
    bool look = true;    // there may be texts, also when no wait has told of it

    bool isFull() const {
        return waitingBytes >= bounds::kWaitingBytes || waitingMessages >= bounds::kWaitingMessages;
    }
    void waits(size_t bytes) {
        waitingBytes += bytes;
        ++waitingMessages;
    }
};

struct Link::Used {
    Used(const Use& its, Peer& usedAt) : use(its), at(usedAt) {}

    const Use& use;
    Peer& at;
    AppState state = AppState::away;
    bool local = false; // registered here by somebody else
    bool registered = false;
    bool told = false;            // that the port has an owner here
    int64_t launchAt = INT64_MAX; // without parameters, if none have come by then
    int64_t launchEnd = 0;        // until when it is being launched
    Port requests;
    Port pings;
};

struct Link::Alias {
    std::string name; // here
    Peer& peer;
    std::string remote; // its name there
    int64_t usedAt = 0;
    Port port;
};

// A message that was given to a channel and of whose end nothing is known yet.
struct Link::Outgoing {
    Asked asked;
    bool isRequest = false;
    std::string port; // the used application or alias that it was taken from; empty for one on disk
    size_t bytes = 0;
    int64_t until = INT64_MAX; // of a kept one, of which nobody else says that its time is over

    bool isKept() const { return until != INT64_MAX; }
};

// The kept requests of another link, of which one at a time is here.
struct Link::KeptLine {
    enum class State { none, waits, handedOver, done } state = State::none;
    uint64_t life = 0;
    uint64_t message = 0;
    std::string frame; // while it waits for the time, or until this link has its name
    std::string reply; // where it is acknowledged
    int64_t arrivedAt = 0;
    bool isAsked = false;          // what the time is, for this one
    int64_t aheadMilliseconds = 0; // the servers' clock, of this one's
    int64_t aheadUntil = 0;        // 0: not known
};

struct Link::Peer {
    Peer(const std::string& itsName, const std::string& realm, uint64_t ownLife)
        : name(itsName), vouch(itsName + "@" + realm), channel(ownLife) {}

    const std::string name;
    const std::string vouch; // for what came by it
    Channel channel;
    std::unordered_map<uint64_t, Outgoing> outgoing; // by message
    std::map<std::string, int64_t, std::less<>>
        contacts;                                       // who wrote to it, and until when it counts
    std::map<std::string, Alias*, std::less<>> aliases; // by the name there
    bool here = false;
    bool isUsed = false;      // by this link
    bool absenceTold = false; // of one that was never there
    int64_t doubtEnd = 0; // not 0: it was there, nobody listens, and until then it may come back
    int64_t heardAt = 0;
    int64_t greetAt = 0;
    std::vector<std::string> wanted; // the applications that it asks about
    std::string presence;            // what it was told last
    KeptLine kept;
    // How kept requests of it ended while it was not heard; with its life and their numbers.
    std::deque<std::tuple<uint64_t, uint64_t, Outcome>> untold;
    uint64_t framesSent = 0;
    uint64_t framesReceived = 0;
};

// A request of an application here that somebody elsewhere has, or will have.
struct Link::Conversation {
    Asked asked;
    std::string link;
    uint64_t message = 0;
    bool delivered = false;
    int64_t until = 0;
};

// A request from elsewhere that an application here has.
struct Link::Owed {
    Asked asked; // the asker is the alias
    std::shared_ptr<platform::TargetWatch> taker;
    int64_t until = 0;
    bool ended = false; // it has been seen that the taker has ended
};

// A message from elsewhere that is being delivered.
struct Link::Ticket {
    Peer& peer;
    uint64_t life = 0; // of that link
    uint64_t message = 0;
    bool isKept = false; // it lies on a disk
    Asked asked = {};    // of a request
    int64_t until = 0;
};

// A question to a background thread of another link's machine, or of this one from there.
struct Link::Ping {
    Peer* peer;
    std::string asker;
    std::string target;
    int64_t until;
    uint64_t number;    // that travels
    std::string serial; // of one that is asked here, as the next
    std::string text;   // empty for one that is asked once
};

// As people read it, and programs in the status.
const char* word(AppState state);

} // namespace convey_link
