#pragma once

// What the wire needs of the NATS client: its handles with owners, and whom it is to reach.
#include <memory>
#include <nats/nats.h>
#include <string>

#include "link/Configuration.h"

namespace convey_link {

// Behind a link's own subject. One for all senders, since the servers look for exactly this one
// before they hand anything to it.
inline constexpr const char* kStoredSubject = ".kept.from";

struct FreeNats {
    void operator()(natsOptions* options) const { natsOptions_Destroy(options); }
    void operator()(natsConnection* connection) const { natsConnection_Destroy(connection); }
    void operator()(natsSubscription* subscription) const {
        natsSubscription_Destroy(subscription);
    }
    void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
    void operator()(jsCtx* context) const { jsCtx_Destroy(context); }
};
template <class Handle>
using Owned = std::unique_ptr<Handle, FreeNats>;

// What a status means, and the words that the client has for it, null for none.
std::string natsErrorText(natsStatus status, const char* words);
// What the last call of this thread that gave `status` says, for people.
std::string lastNatsError(natsStatus status);
// Whom to reach, and as whom.
natsStatus makeNatsOptions(const Configuration& configuration, Owned<natsOptions>& options);

} // namespace convey_link
