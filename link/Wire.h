#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "link/Configuration.h"

namespace convey_link {

// The network as the link sees it: frames to and from other links of the realm, by name.
//
// Delivers at most once: what was sent may be lost without a word. Who a frame is from is what its
// subject says. Threads: all from one; the implementation calls `wake` from any.
class Wire {
public:
    enum class EventKind {
        frame,        // `frame` from `link`
        absent,       // nobody listens for what was sent to `link`
        connected,    // to the server `text`; what was sent before may be lost
        disconnected, // `text` says why
        refused,      // for good: `text` says why
        noted,        // what a person should read
        kept,         // `text` is what a disk says of the one of `number`; empty for no disk
        stored,       // a frame `text` of `link` from a disk, acknowledged at `reply`
        clock         // `text` is what the disk of `link` says of the last one that it gave
    };
    struct Event {
        EventKind kind;
        std::string link;
        std::string text;
        uint64_t number = 0;
        std::string reply = {};
        // A frame that is not copied lies here, until the next `flush`.
        std::string_view bytes = {};

        std::string_view frame() const { return bytes.empty() ? text : bytes; }
    };

    virtual ~Wire() = default;
    // Goes out with the next `flush` at the latest. False when it is not connected; nothing is kept
    // for later then.
    virtual bool publish(const std::string& link, std::string_view frame) = 0;
    // The same by way of a disk of the servers, which knows a number of a life again; what it says
    // is an event.
    virtual bool keep(const std::string& link, uint64_t life, uint64_t number,
                      std::string_view frame) = 0;
    // The frame that was stored need not come again.
    virtual bool acknowledge(const std::string& reply) = 0;
    virtual bool askClock(const std::string& link) = 0;
    // Sends what was said since the last call, all in one, and lets what was taken go. Waits while
    // the server takes nothing, for two seconds at most: then it counts as ended.
    virtual void flush() = 0;
    // What has happened since the last call, and has come from the server by now.
    virtual std::vector<Event> take() = 0;
    // Bytes of a frame at most.
    virtual size_t maximumFrame() const = 0;
};

// What calls `Wire::take`: waits for descriptors, and can be woken.
struct WireLoop {
    // From any thread: there is something to take.
    std::function<void()> wake;
    // From any thread, on and off: `take` is to be called as long as the descriptor can be read.
    std::function<void(int descriptor, bool on)> watch;
};

// A connection to a NATS server, which it looks for until it is destroyed. It is read and written
// by the thread that calls it. Null, and `error` says why, when what is configured cannot be used
// at all.
std::shared_ptr<Wire> connectToNats(const Configuration& configuration, WireLoop loop,
                                    std::string& error);

// The stream in which the requests of a link wait.
std::string streamOf(const std::string& realm, const std::string& link);
// Has the servers make it, and what hands it on to each of the links `to`, as whom the
// configuration names; who may do that is no ordinary link. False, and `error` says why.
[[nodiscard]] bool makeStream(const Configuration& configuration, const std::string& from,
                              const std::vector<std::string>& to, std::string& error);

} // namespace convey_link
