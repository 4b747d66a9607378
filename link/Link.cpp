#include "link/Link.h"

#include <algorithm>

#include "link/LinkParts.h"

namespace convey_link {
namespace {

// How long a name is asked for before it counts as free.
constexpr int64_t kClaimMilliseconds = 300;
// Between the claims of one that has its name: two that meet later are found by it.
constexpr int64_t kClaimAgainMilliseconds = 30'000;
// What is due so soon is done with what is due now, so that an idle link wakes once for all.
constexpr int64_t kTogetherMilliseconds = 1000;
// Between looks at which of the offered applications run, while much happens.
constexpr int64_t kLookMilliseconds = 100;
// Of one link's frames that go out in one step: then the others have their turn.
constexpr int kFramesAtOnce = 64;

} // namespace

Link::Link(const Configuration& configuration, uint64_t life, const Surroundings& surroundings)
    : configuration_(configuration),
      life_(life),
      around_(surroundings),
      keeper_(surroundings.wire, life, streamOf(configuration.realm, configuration.name)),
      journal_(surroundings.journalFolder),
      deliveries_(
          surroundings.ports, [this] { around_.wait.wake(); },
          [this](const std::string& app) { return around_.launch(app, {}); }) {
    pingPort_ = std::make_unique<Port>();
    open(*pingPort_, kPingPort);
    controlPort_ = std::make_unique<Port>();
    open(*controlPort_, kControlPort);
    around_.wait.watchNames(!configuration.offers.empty());
    around_.registrations.remove({}); // what one that was killed has left
    for (const Use& use : configuration.uses) {
        Peer& at = peer(use.at);
        at.isUsed = true;
        used_.emplace(use.app, std::make_unique<Used>(use, at));
    }
}

Link::~Link() {
    for (const auto& [name, peer] : peers_) {
        if (peer->here) {
            (void)publish(*peer, frame(FrameKind::bye, peer.get())); // else it is seen as silence
        }
    }
    around_.registrations.remove({});
}

Link::Peer* Link::knownPeer(const std::string& name) {
    const auto found = peers_.find(name);
    return found == peers_.end() ? nullptr : found->second.get();
}

Link::Peer& Link::peer(const std::string& name) {
    std::unique_ptr<Peer>& peer = peers_[name];
    if (peer == nullptr) {
        peer = std::make_unique<Peer>(name, configuration_.realm, life_);
    }
    return *peer;
}

Frame Link::frame(FrameKind kind, const Peer* peer) const {
    Frame frame;
    frame.kind = kind;
    frame.senderLife = life_;
    frame.receiverLife = peer == nullptr ? 0 : peer->channel.otherLife();
    return frame;
}

bool Link::publish(Peer& peer, const Frame& frame) {
    ++peer.framesSent;
    return connected_ && around_.wire.publish(peer.name, encode(frame));
}

int64_t Link::step(bool ofPorts) {
    lookForNames_ = lookForNames_ || ofPorts;
    const int64_t due = work();
    if (deliveries_.handOver()) {
        around_.wait.wake(); // their ends are told in the next turn
    }
    around_.wire.flush();
    return std::max<int64_t>(due - around_.now(), 0);
}

// When there is something to do again.
int64_t Link::work() {
    takeEvents();
    (void)deliveries_.handOver(); // before other work; what has ended is taken below
    takeTexts();
    takeDelivered();
    takeKept();
    int64_t due = regularly();
    if (!joined_) {
        return std::min(due, joinAt_);
    }
    due = std::min(due, connected_ ? keeper_.due() : INT64_MAX);
    for (const auto& [name, peer] : peers_) {
        if (connected_ && peer->here) {
            flush(*peer);
            due = std::min(due, peer->channel.due());
        }
    }
    return due;
}

void Link::flush(Peer& peer) {
    const size_t partBytes = std::min(
        bounds::kPartBytes,
        std::max(around_.wire.maximumFrame(), 2 * bounds::kFrameBytes) - bounds::kFrameBytes);
    std::vector<uint64_t> expired;
    for (int i = 0; i < kFramesAtOnce; ++i) {
        const std::string next = peer.channel.next(around_.now(), partBytes, expired);
        if (next.empty()) {
            break;
        }
        ++peer.framesSent;
        // One that is refused is lost like any other; what is not acknowledged goes again.
        if (!around_.wire.publish(peer.name, next)) {
            break;
        }
    }
    for (const uint64_t message : expired) {
        ended(peer, message, Outcome::expired);
    }
}

void Link::takeEvents() {
    for (const Wire::Event& event : around_.wire.take()) {
        switch (event.kind) {
        case Wire::EventKind::frame:
            takeFrame(event.link, event.frame());
            break;
        case Wire::EventKind::absent:
            if (Peer* const peer = knownPeer(event.link)) {
                missed(*peer);
            }
            break;
        case Wire::EventKind::connected:
            connected(event.text);
            break;
        case Wire::EventKind::disconnected:
            if (connected_ || server_.empty()) {
                around_.log("disconnected: " + event.text);
            }
            connected_ = false;
            server_ = "-";
            for (const auto& [name, peer] : peers_) {
                leave(*peer, "disconnected");
                peer->doubtEnd = 0;
            }
            break;
        case Wire::EventKind::refused:
            around_.log("refused by the servers: " + event.text);
            state_ = State::refused;
            break;
        case Wire::EventKind::noted:
            around_.log(event.text);
            break;
        case Wire::EventKind::kept:
            keeper_.take(event.number, event.text, around_.now());
            break;
        case Wire::EventKind::stored:
            keptArrived(event.link, event.text, event.reply);
            break;
        case Wire::EventKind::clock:
            clockArrived(event.link, event.text);
            break;
        }
    }
}

void Link::connected(const std::string& server) {
    around_.log((joined_ ? "reconnected to " : "connected to ") + server);
    connected_ = true;
    server_ = server;
    statusChanged_ = true;
    claimAt_ = 0;
    const int64_t now = around_.now();
    if (!joined_) {
        joinAt_ = now + kClaimMilliseconds;
    }
    keeper_.again();
    for (const auto& [name, peer] : peers_) {
        peer->kept.aheadUntil = 0; // another server, perhaps
        peer->channel.sendAgain();
        peer->greetAt = now;
        if (joined_ && !peer->wanted.empty()) {
            sendPresence(*peer, true); // they have missed this one
        }
    }
}

// Of two that claim a name at once the lower life has it; one that has it keeps it.
void Link::takeClaim(const Frame& frame) {
    if (frame.senderLife == life_) {
        return;
    }
    if (frame.kind == FrameKind::claim && (joined_ || life_ < frame.senderLife)) {
        (void)publish(peer(configuration_.name), this->frame(FrameKind::taken, nullptr));
    }
    if (frame.kind == FrameKind::taken && (!joined_ || frame.senderLife < life_)) {
        state_ = State::nameTaken;
    } else if (frame.kind == FrameKind::claim && joined_) {
        around_.log("name \"" + configuration_.name + "\" is used twice in realm \"" +
                    configuration_.realm + "\": the other one is refused");
    }
}

void Link::takeFrame(const std::string& from, std::string_view bytes) {
    Frame frame;
    if (!decode(bytes, frame)) {
        around_.log(isOfOtherVersion(bytes)
                        ? "refused: " + from + " has another version of convey-link than this one"
                        : "refused: bad frame from " + from);
        return;
    }
    if (from == configuration_.name) {
        takeClaim(frame);
        return;
    }
    Peer* known = knownPeer(from);
    const bool isMet = known != nullptr && (known->isUsed || known->channel.otherLife() != 0);
    if (!isMet && (frame.kind == FrameKind::cargo || frame.kind == FrameKind::ping)) {
        askToBeGreeted(from); // now, or when this link has its name
    }
    if (!joined_) {
        return;
    }
    // Only those that something is used at, or who may use something, cost memory here.
    if (known == nullptr) {
        if (frame.kind != FrameKind::hello || peers_.size() >= bounds::kLinks) {
            return;
        }
        known = &peer(from);
    }
    Peer& peer = *known;
    ++peer.framesReceived;
    if (frame.kind == FrameKind::bye) {
        if (frame.senderLife == peer.channel.otherLife()) {
            leave(peer, "ended");
            peer.heardAt = INT64_MIN; // it will not come back in this life
            peer.doubtEnd = 0;
        }
        return;
    }
    if (!meet(peer, frame)) {
        return;
    }
    const int64_t now = around_.now();
    switch (frame.kind) {
    case FrameKind::hello:
        peer.wanted.clear();
        for (const auto& [app, state] : frame.apps) {
            peer.wanted.push_back(app);
        }
        sendPresence(peer, true);
        break;
    case FrameKind::presence:
        takePresence(peer, frame);
        break;
    case FrameKind::cargo:
    case FrameKind::acknowledgement: {
        Channel::Arrivals arrivals;
        peer.channel.take(frame, now, arrivals);
        for (const auto& [message, outcome] : arrivals.outcomes) {
            ended(peer, message, outcome);
        }
        for (Channel::Arrival& arrival : arrivals.messages) {
            arrived(peer, arrival, now);
        }
        for (const Channel::Launch& launch : arrivals.launches) {
            if (configuration_.offered(launch.app, from) == Offered::launch && !isOwn(launch.app)) {
                around_.log(launch.app + " is launched for " + from);
                (void)around_.launch(launch.app, launch.parameters); // reports
            } else {
                around_.log("refused: " + from + " may not launch " + launch.app);
            }
        }
        break;
    }
    case FrameKind::ping:
        if (frame.head.kind == MessageKind::ping) {
            pingArrived(peer, frame.head, frame.text, now);
        }
        break;
    case FrameKind::pong:
        if (frame.head.kind == MessageKind::pong) {
            pongArrived(peer, frame.head, frame.text);
        }
        break;
    default:
        break;
    }
}

// It takes this link for the life before, which it did not miss, and greets it after seconds only.
void Link::askToBeGreeted(const std::string& link) {
    if (unmet_.size() < bounds::kLinks && unmet_.insert(link).second && joined_ && connected_) {
        (void)around_.wire.publish(link, encode(frame(FrameKind::hello, nullptr)));
    }
}

// Notes that the other link is there; false for a frame of a life that is over.
bool Link::meet(Peer& peer, const Frame& frame) {
    const bool greets = frame.kind == FrameKind::hello || frame.kind == FrameKind::presence;
    const bool isNewLife = frame.senderLife != peer.channel.otherLife();
    if (isNewLife) {
        if (!greets) {
            return false; // late; or a greeting was lost, and the next one comes
        }
        const bool hadOne = peer.channel.otherLife() != 0;
        peer.channel.meet(frame.senderLife);
        if (hadOne) {
            lifeEnded(peer);
        }
        tellUntold(peer);
    }
    peer.heardAt = around_.now();
    if (greets) {
        comeBack(peer, frame.kind == FrameKind::hello, isNewLife);
    }
    return true;
}

// It has been heard: what was sent while it was not, or to the life before, may be lost.
void Link::comeBack(Peer& peer, bool greeted, bool isNewLife) {
    const bool wasMissed = std::exchange(peer.doubtEnd, 0) != 0;
    if (peer.here && !wasMissed && !isNewLife) {
        return;
    }
    if (!std::exchange(peer.here, true)) {
        peer.absenceTold = true; // from now on each change is
        statusChanged_ = true;
        around_.log(peer.name + " is here");
    }
    peer.channel.sendAgain();
    // It may be new: then it does not know what is wanted of it.
    if (peer.isUsed && greeted) {
        greet(peer);
    }
    askAgain(peer);
}

// Nobody listens for it. One that was heard just now may be on its way to another server: until it
// must have come back it counts as it did, and is asked again.
void Link::missed(Peer& peer) {
    const int64_t now = around_.now();
    if (peer.doubtEnd == 0 && peer.heardAt > now - bounds::kSilentMilliseconds) {
        peer.doubtEnd = now + bounds::kDoubtMilliseconds;
    }
    if (now < peer.doubtEnd) {
        peer.greetAt = std::min(peer.greetAt, now + bounds::kDoubtHelloMilliseconds);
        return;
    }
    peer.doubtEnd = 0;
    peer.heardAt = INT64_MIN;
    if (peer.isUsed && !peer.here && !std::exchange(peer.absenceTold, true)) {
        around_.log(peer.name + " is away: no responders");
    }
    leave(peer, "no responders");
    notRunning(peer);
}

void Link::leave(Peer& peer, const std::string& why) {
    if (!peer.here) {
        return;
    }
    peer.here = false;
    peer.presence.clear();
    statusChanged_ = true;
    around_.log(peer.name + " is away: " + why);
    for (const auto& [app, used] : used_) {
        if (used->use.at == peer.name) {
            setState(*used, AppState::away, {});
        }
    }
}

void Link::greet(Peer& peer) {
    Frame hello = frame(FrameKind::hello, &peer);
    for (const auto& [app, used] : used_) {
        if (used->use.at == peer.name) {
            hello.apps.emplace_back(app, AppState::away);
        }
    }
    (void)publish(peer, hello); // the next one is sent in any case
    peer.greetAt = around_.now() + (peer.doubtEnd != 0 ? bounds::kDoubtHelloMilliseconds
                                    : peer.here        ? bounds::kHelloMilliseconds
                                                       : bounds::kAwayMilliseconds);
}

void Link::takePresence(Peer& peer, const Frame& frame) {
    for (const auto& [app, state] : frame.apps) {
        const auto found = used_.find(app);
        if (found != used_.end() && found->second->use.at == peer.name) {
            setState(*found->second, state,
                     state == AppState::refused ? " to " + configuration_.name : std::string());
        }
    }
}

void Link::sendPresence(Peer& peer, bool always) {
    Frame presence = frame(FrameKind::presence, &peer);
    for (const std::string& app : peer.wanted) {
        AppState state = AppState::refused;
        // What is used from elsewhere is not passed on: two links could do so in a circle.
        if (configuration_.offered(app, peer.name) != Offered::nothing && used_.count(app) == 0) {
            state = isRunning(app) ? AppState::running : AppState::absent;
        }
        presence.apps.emplace_back(app, state);
    }
    const std::string bytes = encode(presence);
    if (always || bytes != peer.presence) {
        // Lost: the next hello is answered again.
        peer.presence = publish(peer, presence) ? bytes : std::string();
    }
}

void Link::setState(Used& used, AppState state, const std::string& why) {
    if (used.state != state) {
        used.state = state;
        statusChanged_ = true;
        if (!used.local) {
            around_.log(used.use.app + " at " + used.use.at + ": " + word(state) + why);
        }
    }
    if (state == AppState::running) {
        used.launchEnd = 0;
    }
    openPorts(used);
}

// The ports are owned while the application may be reached there: without an owner the layer itself
// says that it does not run, and launches it by its path.
void Link::openPorts(Used& used) {
    // Who waits for an answer is watching the port, too: the answer of an application that ends
    // with it may still be on the way, and is followed by the news when there is none.
    const bool isAwaited =
        used.requests.port != nullptr &&
        std::any_of(conversations_.begin(), conversations_.end(), [&used](const auto& entry) {
            return entry.second.asked.target == used.use.app;
        });
    const bool wanted = used.registered && !used.local &&
                        (used.state == AppState::running || used.state == AppState::away ||
                         isAwaited || around_.now() < used.launchEnd);
    if (!wanted) {
        used.requests.port.reset();
        used.pings.port.reset();
        return;
    }
    if (used.requests.port == nullptr) {
        open(used.requests, used.use.app, !used.use.durable);
    }
    if (used.pings.port == nullptr && used.requests.port != nullptr) {
        open(used.pings, used.use.app + std::string(kThreadSuffix));
    }
    if (used.requests.port == nullptr || used.pings.port == nullptr) {
        used.requests.port.reset();
        if (!used.told) {
            used.told = true;
            around_.log(used.use.app + " is not used: its port is owned here");
        }
    } else {
        used.told = false;
    }
}

int64_t Link::regularly() {
    const int64_t now = around_.now();
    if (!joined_ && connected_ && joinAt_ <= now && state_ == State::goesOn) {
        joined_ = true;
        statusChanged_ = true;
        around_.log("ready: " + configuration_.realm + "/" + configuration_.name + " at " +
                    server_);
        regularAt_ = 0;
        for (const std::string& link : std::exchange(unmet_, {})) {
            askToBeGreeted(link);
        }
        for (const auto& [name, peer] : peers_) {
            if (!peer->kept.frame.empty()) {
                keptArrived(name, std::string(peer->kept.frame), std::string(peer->kept.reply));
            }
        }
    }
    if (connected_ && claimAt_ <= now) {
        // One may be lost: so it is said again, and two that meet later are found as well.
        (void)publish(peer(configuration_.name), frame(FrameKind::claim, nullptr));
        claimAt_ = now + (joined_ ? kClaimAgainMilliseconds : kClaimMilliseconds / 3);
    }
    int64_t due = std::min(regularAt_, connected_ ? claimAt_ : INT64_MAX);
    if (lookForNames_ && lookedAt_ + kLookMilliseconds <= now) {
        lookForOffered();
    }
    if (lookForNames_) {
        due = std::min(due, lookedAt_ + kLookMilliseconds);
    }
    const int64_t together = regularAt_ <= now ? now + kTogetherMilliseconds : now;
    for (const auto& [name, peer] : peers_) {
        if (joined_ && peer->isUsed) {
            if (peer->greetAt <= (peer->here ? together : now)) {
                greet(*peer);
            }
            due = std::min(due, peer->greetAt);
        }
    }
    for (const auto& [app, used] : used_) {
        if (used->launchAt <= now) {
            launch(*used, {});
        }
        due = std::min(due, used->launchAt);
    }
    if (regularAt_ > now) {
        return due;
    }
    const bool anyWaits = !owed_.empty() || !askedPings_.empty() || !conversations_.empty() ||
                          std::any_of(peers_.begin(), peers_.end(), [](const auto& entry) {
                              return !entry.second->outgoing.empty();
                          });
    // Just before the next greetings, which go with it.
    regularAt_ = now + (anyWaits ? 1000 : bounds::kHelloMilliseconds - kTogetherMilliseconds / 2);
    for (const auto& [name, peer] : peers_) {
        if (peer->here && peer->heardAt + bounds::kSilentMilliseconds <= now) {
            leave(*peer, "silent for 12 s");
        }
    }
    for (const auto& [app, used] : used_) {
        const bool local = around_.registrations.isLocal(app);
        if (local != used->local) {
            used->local = local;
            statusChanged_ = true;
            around_.log(app + (local ? " is not used: registered here" : " is used again"));
            if (local) {
                around_.registrations.remove(app);
                used->registered = false;
            }
        }
        if (!local && !used->registered) {
            used->registered = around_.registrations.add(app, used->use.at);
        }
        openPorts(*used);
    }
    lookForOffered();
    forget(now);
    due = lookForNames_ ? std::min(due, lookedAt_ + kLookMilliseconds) : due;
    return std::min(due, regularAt_);
}

void Link::lookForOffered() {
    lookForNames_ = false;
    lookedAt_ = around_.now();
    for (const auto& [name, peer] : peers_) {
        if (peer->here && !peer->wanted.empty()) {
            sendPresence(*peer, false);
        }
    }
    tellOfEndedTargets();
}

bool Link::statusChanged() {
    return std::exchange(statusChanged_, false);
}

} // namespace convey_link
