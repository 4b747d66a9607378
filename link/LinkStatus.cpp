// What a link says of itself, to people and to programs.
#include <nlohmann/json.hpp>

#include "link/LinkParts.h"

namespace convey_link {

const char* word(AppState state) {
    switch (state) {
    case AppState::running:
        return "runs";
    case AppState::absent:
        return "does not run";
    case AppState::refused:
        return "not offered";
    case AppState::away:
        break;
    }
    return "away";
}

std::string Link::status() const {
    using Json = nlohmann::json;
    Json json = {{"realm", configuration_.realm},
                 {"name", configuration_.name},
                 {"connected", connected_ && joined_},
                 {"server", server_},
                 {"requests_here", owed_.size()},
                 {"requests_elsewhere", conversations_.size()},
                 {"requests_kept", keeper_.kept()},
                 {"requests_to_keep", keeper_.waiting()},
                 {"links", Json::array()},
                 {"uses", Json::array()},
                 {"offers", Json::array()}};
    for (const auto& [name, peer] : peers_) {
        if (name != configuration_.name) {
            json["links"].push_back({{"name", name},
                                     {"state", peer->here ? "here" : "away"},
                                     {"sent", peer->framesSent},
                                     {"received", peer->framesReceived},
                                     {"waiting_bytes", peer->channel.waitingBytes()}});
        }
    }
    for (const auto& [app, used] : used_) {
        json["uses"].push_back({{"app", app},
                                {"at", used->use.at},
                                {"state", used->local ? "registered here" : word(used->state)}});
    }
    for (const Offer& offer : configuration_.offers) {
        json["offers"].push_back({{"app", offer.app}, {"to", offer.to}, {"launch", offer.launch}});
    }
    return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

} // namespace convey_link
