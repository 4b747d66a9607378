#pragma once

#include <cstddef>
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
// subject says. Threads: `publish` and `take` from one; the implementation calls `wake` from any.
class Wire {
public:
    enum class EventKind {
        frame,        // `text` from `link`
        absent,       // nobody listens for what was sent to `link`
        connected,    // to the server `text`; what was sent before may be lost
        disconnected, // `text` says why
        refused,      // for good: `text` says why
        noted         // what a person should read
    };
    struct Event {
        EventKind kind;
        std::string link;
        std::string text;
    };

    virtual ~Wire() = default;
    // False when it is not connected; nothing is kept for later then.
    virtual bool publish(const std::string& link, std::string_view frame) = 0;
    // What has happened since the last call.
    virtual std::vector<Event> take() = 0;
    // Bytes of a frame at most.
    virtual size_t maximumFrame() const = 0;
};

// A connection to a NATS server, which it looks for until it is destroyed. `wake` is called from
// the client's threads when there is something to take. Null, and `error` says why, when what is
// configured cannot be used at all.
std::unique_ptr<Wire> connectToNats(const Configuration& configuration, std::function<void()> wake,
                                    std::string& error);

} // namespace convey_link
