// What the link does with texts: from ports to links and back.
#include <algorithm>
#include <tuple>

#include "link/LinkParts.h"
#include "platform/Clock.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/stream/BaseInterAppStream.h"

namespace convey_link {
namespace {

using namespace ScObjects;

// Taken from one port in a turn: then the others have theirs.
constexpr int kTurnTexts = 64;
// For replies that are made here, to askers that are busy.
constexpr int64_t kFailureMilliseconds = 30'000;
// For the parameters of a launch whose launcher has some, and is busy.
constexpr int64_t kParametersMilliseconds = 15'000;
constexpr int kInstances = limits::of("stream.instances");

// A message that only shows that somebody takes it.
bool isLook(const Text& message) {
    const std::string_view type = message.get(kType);
    return (type.empty() || type == ConveyData::CV_TYPE_PLAIN) && message.body().empty();
}

} // namespace

// `forTravel`: nobody here reads what comes. The other link's machine makes digests anew, so those
// of this one would be dropped, and a large text takes longer to digest than to carry.
void Link::open(Port& port, const std::string& name, bool forTravel) {
    const std::string portName = BaseInterAppStream::kPortNamePrefix + name;
    port.port = forTravel ? around_.ports.openUnsealed(portName) : around_.ports.open(portName);
    if (port.port != nullptr) {
        port.number = ++lastPort_;
        port.look = true;
        around_.wait.add(*port.port, port.number);
    }
}

// Whether the link itself owns the name: what came by a link must not go on by one.
bool Link::isOwn(std::string_view name) const {
    constexpr std::string_view kPing = kPingPort;
    const std::string_view app = name.substr(0, name.find('#'));
    return used_.count(app) != 0 || aliases_.count(name) != 0 ||
           app == kPing.substr(0, kPing.find('#'));
}

bool Link::takeFrom(Port& port, const Handler& handle) {
    const auto told = around_.wait.reported();
    port.look =
        port.look || asksAll_ || std::find(told.begin(), told.end(), port.number) != told.end();
    if (port.port == nullptr || !port.look) {
        return false;
    }
    Text message; // has room for the lines of the next one, too
    for (int i = 0; i < kTurnTexts; ++i) {
        platform::PortText taken;
        if (port.isFull()) {
            return false; // what it has is delivered first; its senders wait
        }
        if (!port.port->take(taken)) {
            const bool more = port.port->hasMore();
            port.look = more || !port.port->tellsAll();
            return more;
        }
        takeText(std::move(taken), message, handle);
    }
    return true;
}

void Link::takeText(platform::PortText taken, Text& message, const Handler& handle) {
    const size_t headBytes = taken.headSize();
    const size_t bodyBytes = taken.size() - headBytes;
    platform::PortText::Block block;
    std::string joined;
    std::string_view rest;
    if (headBytes == 0) {
        if (taken.mayHaveZero()) {
            normalise(taken.data(), taken.size());
        }
        rest = taken.view();
    } else {
        // Of a large one the body came by itself, and goes on from where it lies.
        const bool mayHaveZero = taken.mayHaveZero();
        platform::PortText::Block head;
        std::tie(head, block) = taken.releasePieces();
        if (mayHaveZero) {
            normalise(head.get(), headBytes);
            normalise(block.get(), bodyBytes);
        }
        if (Text::read({head.get(), headBytes}, {block.get(), bodyBytes}, message)) {
            handle(message, block);
            return;
        }
        joined.reserve(headBytes + bodyBytes); // cut elsewhere
        rest = joined.append(head.get(), headBytes).append(block.get(), bodyBytes);
        block.reset();
    }
    while (Text::read(rest, message)) {
        handle(message, block);
    }
}

void Link::takeTexts() {
    asksAll_ = !around_.wait.tellsAll();
    bool more = takeFrom(*pingPort_, [this](Text& message, auto&) { pingAnswered(message); });
    more = takeFrom(*controlPort_, [this](Text& message, auto&) { launchTaken(message); }) || more;
    for (const auto& [app, used] : used_) {
        Used& one = *used;
        more = takeFrom(one.pings, [&](Text& message, auto&) { pingTaken(one, message); }) || more;
        more = takeFrom(one.requests,
                        [&](Text& message, auto& block) { requestTaken(one, message, block); }) ||
               more;
    }
    for (const auto& [name, alias] : aliases_) {
        Alias& one = *alias;
        more = takeFrom(one.port,
                        [&](Text& message, auto& block) { replyTaken(one, message, block); }) ||
               more;
    }
    if (more) {
        around_.wait.wake(); // after the others' turn
    }
}

void Link::fail(const Asked& asked, Outcome outcome) {
    failure(asked, outcome, [&](Text& reply) {
        deliveries_.post(asked.asker, reply.write(), around_.now() + kFailureMilliseconds, false,
                         0);
    });
}

void Link::requestTaken(Used& used, Text& message, platform::PortText::Block& block) {
    Asked asked = askedBy(message);
    if (isLook(message) || !isPortName(asked.asker)) {
        return;
    }
    if (message.get(kType) == ConveyData::CV_TYPE_LAUNCH_PARAMETERS) {
        if (used.launchAt != INT64_MAX) { // a launcher leaves them in more than one place
            launch(used, std::string(message.body().substr(0, bounds::kWholeBytes / 2)));
        }
        return;
    }
    const bool reply = isReply(message);
    if (message.has(kVouch) && !reply) {
        around_.log("refused: " + asked.asker + " to " + used.use.app + ": came by a link");
        fail(asked, Outcome::refused);
        return;
    }
    const int64_t now = around_.now();
    if (conversations_.size() >= bounds::kPending) {
        fail(asked, Outcome::tooMuch);
        return;
    }
    const int64_t deadline = deadlineOf(message, now);
    message.remove({kVouch, kSender, kTarget});
    MessageHead head{reply ? MessageKind::reply : MessageKind::request, asked.asker, used.use.app};
    const bool isKept = used.use.durable && !reply;
    Travelling text = message.writePlain(isKept ? nullptr : std::move(block));
    const size_t bytes = text.size();
    if (bytes > bounds::kTextBytes) {
        fail(asked, Outcome::refused);
        return;
    }
    Peer& to = used.at;
    uint64_t number = 0;
    if (isKept) {
        number = to.channel.reserve();
        keeper_.queue(to.name, number, std::move(head), std::move(text.head), deadline);
    } else {
        number = to.channel.queue(std::move(head), std::move(text), deadline);
    }
    used.requests.waits(bytes);
    // On a disk it may wait for longer than anything is remembered here.
    const int64_t wait = isKept ? std::min(deadline, now + bounds::kStreamMilliseconds) : now;
    to.contacts[asked.asker] = wait + bounds::kAliasMilliseconds;
    if (!reply && isEndWanted(asked.wanted)) {
        // Kept a while behind its end, since its answer is on the way.
        const int64_t until = deadline == INT64_MAX ? wait + bounds::kAliasMilliseconds
                                                    : deadline + bounds::kPingMilliseconds;
        conversations_[{asked.asker, asked.serial}] = {asked, to.name, number, false, until};
    }
    to.outgoing.try_emplace(
        number, Outgoing{std::move(asked), !reply, used.use.app, bytes, isKept ? wait : INT64_MAX});
}

void Link::arrived(Peer& peer, Channel::Arrival& arrival, int64_t now) {
    switch (arrival.head.kind) {
    case MessageKind::request:
        requestArrived(peer, arrival, now);
        break;
    case MessageKind::reply:
        replyArrived(peer, arrival, now);
        break;
    case MessageKind::ping:
        pingArrived(peer, arrival.head, arrival.text, now);
        break;
    case MessageKind::pong:
        pongArrived(peer, arrival.head, arrival.text);
        break;
    }
}

void Link::requestArrived(Peer& peer, Channel::Arrival& arrival, int64_t now) {
    const bool isKept = arrival.keptLife != 0;
    const Ticket ticket{peer, isKept ? arrival.keptLife : peer.channel.otherLife(), arrival.message,
                        isKept};
    const std::string& target = arrival.head.target;
    const Offered offered = configuration_.offered(target, peer.name);
    Text message;
    if (!Text::readForeign(arrival.text, message) || offered == Offered::nothing || isOwn(target) ||
        isReply(message)) {
        around_.log("refused: " + arrival.head.source + " at " + peer.name + " to " + target);
        finish(ticket, Outcome::refused);
        return;
    }
    Alias* const alias = aliasFor(peer, arrival.head.source);
    if (alias == nullptr) {
        finish(ticket, Outcome::tooMuch);
        return;
    }
    alias->usedAt = now;
    deliver(ticket, arrival, message, alias->name, offered == Offered::launch, now);
}

// Under the names that both ends have here.
void Link::deliver(const Ticket& ticket, Channel::Arrival& arrival, Text& message,
                   std::string_view sender, bool mayLaunch, int64_t now) {
    const std::string& target = arrival.head.target;
    message.remove({kVouch});
    message.setTo(kTarget, target);
    message.setTo(kSender, sender);
    message.setTo(kVouch, ticket.peer.vouch);
    const int64_t deadline = setTime(message, arrival.head.remainingMilliseconds, now);
    const int64_t until = deadline == INT64_MAX ? now + bounds::kAliasMilliseconds
                                                : deadline + bounds::kPingMilliseconds;
    const bool isRequest = arrival.head.kind == MessageKind::request;
    tickets_.emplace(++lastTicket_, Ticket{ticket.peer, ticket.life, ticket.message, ticket.isKept,
                                           isRequest ? askedBy(message) : Asked(), until});
    deliveries_.post(target, message.write(std::move(arrival.text)), deadline, mayLaunch,
                     lastTicket_);
}

void Link::replyArrived(Peer& peer, Channel::Arrival& arrival, int64_t now) {
    Text message;
    const std::string& asker = arrival.head.target;
    const auto used = used_.find(arrival.head.source);
    if (!Text::readForeign(arrival.text, message) || !isReply(message) || used == used_.end() ||
        used->second->use.at != peer.name || peer.contacts.count(asker) == 0) {
        around_.log("refused: " + arrival.head.source + " at " + peer.name + " to " + asker);
        peer.channel.tell(arrival.message, Outcome::refused, now);
        return;
    }
    const auto conversation = conversations_.find({asker, std::string(message.get(kSerial))});
    if (conversation != conversations_.end() &&
        isLastReply(message, conversation->second.asked.wanted)) {
        conversations_.erase(conversation);
    }
    deliver({peer, peer.channel.otherLife(), arrival.message}, arrival, message,
            arrival.head.source, false, now);
}

// Makes room for a sender from elsewhere. Programs that send one message and end are many; who
// waits for an answer keeps its port, and false means that all do.
bool Link::forgetQuietest() {
    std::set<std::string_view>
        awaited; // by senders whose requests are under way, or were handed over
    for (const auto& [asked, owed] : owed_) {
        awaited.insert(asked.first);
    }
    for (const auto& [number, ticket] : tickets_) {
        awaited.insert(ticket.asked.asker);
    }
    auto quietest = aliases_.end();
    for (auto one = aliases_.begin(); one != aliases_.end(); ++one) {
        if (awaited.count(one->first) == 0 && one->second->port.waitingMessages == 0 &&
            (quietest == aliases_.end() || one->second->usedAt < quietest->second->usedAt)) {
            quietest = one;
        }
    }
    if (quietest == aliases_.end()) {
        return false;
    }
    forgetAlias(*quietest->second);
    return true;
}

void Link::forgetAlias(Alias& alias) {
    alias.peer.aliases.erase(alias.remote);
    aliases_.erase(aliases_.find(alias.name));
}

// The name under which a sender from elsewhere appears here: its own, or the next instance. One
// that is registered here belongs to that application also while it does not run.
Link::Alias* Link::aliasFor(Peer& peer, const std::string& source) {
    const auto known = peer.aliases.find(source);
    if (known != peer.aliases.end()) {
        return known->second;
    }
    if (aliases_.size() >= bounds::kAliases && !forgetQuietest()) {
        around_.log("refused: too many senders from elsewhere");
        return nullptr;
    }
    const Convey::Specifier own(source.c_str(), false);
    for (int instance = 0; instance <= kInstances; ++instance) {
        Convey::Specifier name = own;
        if (instance > 0 && !name.setInstance(SoString(std::to_string(instance).c_str()))) {
            break;
        }
        const std::string text(name.view());
        if (!isPortName(text) || isOwn(text) || around_.registrations.isLocal(text)) {
            continue;
        }
        Port port;
        open(port, text, true);
        if (port.port != nullptr) {
            auto alias = std::make_unique<Alias>(Alias{text, peer, source, 0, std::move(port)});
            peer.aliases[source] = alias.get();
            return (aliases_[text] = std::move(alias)).get();
        }
    }
    around_.log("refused: no name is free here for " + source + " at " + peer.name);
    return nullptr;
}

void Link::replyTaken(Alias& alias, Text& message, platform::PortText::Block& block) {
    const int64_t now = around_.now();
    const Asked asked = askedBy(message);
    if (isLook(message) || !isPortName(asked.asker)) {
        return;
    }
    alias.usedAt = now;
    if (!isReply(message)) {
        around_.log("refused: " + asked.asker + " to " + alias.remote + " at " + alias.peer.name +
                    ": answers only; to be asked it must be used");
        fail(asked, Outcome::refused);
        return;
    }
    const auto owed = owed_.find({alias.name, std::string(message.get(kSerial))});
    if (owed != owed_.end() && isLastReply(message, owed->second.asked.wanted)) {
        owed_.erase(owed);
    }
    const int64_t deadline = deadlineOf(message, now);
    message.remove({kVouch, kSender, kTarget});
    MessageHead head{MessageKind::reply, asked.asker, alias.remote};
    Travelling text = message.writePlain(std::move(block));
    const size_t bytes = text.size();
    const uint64_t number = alias.peer.channel.queue(std::move(head), std::move(text), deadline);
    alias.peer.outgoing[number] = {{}, false, alias.name, bytes};
    alias.port.waits(bytes);
}

// A stub was started in the place of a used application. Its launcher has left parameters, which
// come to the application's port as soon as it has an owner.
void Link::launchTaken(const Text& message) {
    const auto used = used_.find(std::string(message.get(kType)));
    if (used != used_.end()) {
        const int64_t now = around_.now();
        used->second->launchEnd = now + bounds::kLaunchMilliseconds;
        used->second->launchAt =
            numberOf(message.get(kParametersLine)) == 1 ? now + kParametersMilliseconds : now;
        openPorts(*used->second);
    }
}

void Link::launch(Used& used, std::string parameters) {
    used.launchAt = INT64_MAX;
    // What the layer over there says itself, of the application's name there.
    const std::string own = "-specifier " + used.use.app + " -nostartupscreen";
    if (parameters.starts_with(own)) {
        parameters.erase(0, std::min(own.size() + 1, parameters.size()));
    }
    around_.log(used.use.app + " is launched at " + used.use.at);
    used.at.channel.queueLaunch(used.use.app, parameters);
}

// What was taken from a port is not here any more: its senders have that room again.
void Link::giveBack(const Outgoing& outgoing) {
    const auto used = used_.find(outgoing.port);
    const auto alias = aliases_.find(outgoing.port);
    if (Port* const port = used != used_.end()       ? &used->second->requests
                           : alias != aliases_.end() ? &alias->second->port
                                                     : nullptr) {
        port->waitingBytes -= std::min(port->waitingBytes, outgoing.bytes);
        port->waitingMessages -= std::min<size_t>(port->waitingMessages, 1);
    }
}

// How a message from here ended at the other link.
void Link::ended(Peer& peer, uint64_t message, Outcome outcome) {
    const auto taken = peer.outgoing.extract(message);
    if (taken.empty()) {
        return; // a ping or its answer
    }
    const Outgoing& outgoing = taken.mapped();
    giveBack(outgoing);
    if (!outgoing.isRequest) {
        // The asker has gone: nobody here need write to it any more.
        const auto alias = aliases_.find(outgoing.port);
        if (outcome == Outcome::notRunning && alias != aliases_.end()) {
            forgetAlias(*alias->second);
        }
        return;
    }
    if (outgoing.asked.wanted.empty()) {
        return; // nobody is told
    }
    const auto conversation = conversations_.find({outgoing.asked.asker, outgoing.asked.serial});
    const bool isOpen =
        conversation != conversations_.end() && conversation->second.message == message;
    if (outcome == Outcome::delivered) {
        if (isOpen) {
            conversation->second.delivered = true;
        }
        return;
    }
    if (isOpen) {
        conversations_.erase(conversation);
    }
    fail(outgoing.asked, outcome);
}

// The other link has begun another life: what the one before had may have been handled, and its
// answers have no way back.
void Link::lifeEnded(Peer& peer) {
    const std::set<uint64_t> waiting = peer.channel.waiting();
    std::set<uint64_t> lost; // and told in their order
    for (const auto& [message, outgoing] : peer.outgoing) {
        if (!outgoing.isKept() && waiting.count(message) == 0) {
            lost.insert(message);
        }
    }
    for (const uint64_t message : lost) {
        ended(peer, message, Outcome::lost);
    }
    for (auto one = conversations_.begin(); one != conversations_.end();) {
        if (one->second.link == peer.name && one->second.delivered) {
            fail(one->second.asked, Outcome::lost);
            one = conversations_.erase(one);
        } else {
            ++one;
        }
    }
}

void Link::takeDelivered() {
    for (Deliveries::Ended& end : deliveries_.take()) {
        const auto taken = tickets_.extract(end.ticket);
        if (taken.empty()) {
            continue;
        }
        const Ticket& ticket = taken.mapped();
        if (!ticket.isKept && ticket.peer.channel.otherLife() != ticket.life) {
            continue;
        }
        finish(ticket, end.outcome);
        if (end.outcome == Outcome::delivered && isEndWanted(ticket.asked.wanted) &&
            end.taker != nullptr && owed_.size() < bounds::kPending) {
            around_.wait.add(*end.taker);
            owed_[{ticket.asked.asker, ticket.asked.serial}] = {ticket.asked, std::move(end.taker),
                                                                ticket.until};
        }
    }
}

void Link::forget(int64_t now) {
    for (const auto& [name, peer] : peers_) {
        std::vector<uint64_t> expired;
        peer->channel.expire(now, expired);
        for (const uint64_t message : expired) {
            ended(*peer, message, Outcome::expired);
        }
        std::erase_if(peer->contacts, [now](const auto& entry) { return entry.second <= now; });
    }
    forgetKept(now);
    unmet_.clear();
    const auto isOver = [now](const auto& entry) { return entry.second.until <= now; };
    std::erase_if(conversations_, isOver);
    std::erase_if(owed_, isOver);
    std::erase_if(askedPings_, isOver);
    std::erase_if(foreignPings_, isOver);
    std::erase_if(aliases_, [&](const auto& entry) {
        const Alias& alias = *entry.second;
        if (alias.usedAt + bounds::kAliasMilliseconds > now) {
            return false;
        }
        alias.peer.aliases.erase(alias.remote);
        return true;
    });
}

// An application that took a request and ended: its asker hears of it as one on this machine does.
// What it sent before its end is in the alias's port by the time that the end is seen, so it is
// told one look later.
void Link::tellOfEndedTargets() {
    std::map<platform::TargetWatch*, bool> looked; // many requests have one taker
    for (auto one = owed_.begin(); one != owed_.end();) {
        platform::TargetWatch* const taker = one->second.taker.get();
        const auto known = looked.find(taker);
        const bool hasEnded = known != looked.end() ? known->second : taker->ended();
        looked[taker] = hasEnded;
        if (!hasEnded || !std::exchange(one->second.ended, true)) {
            lookForNames_ = lookForNames_ || hasEnded;
            ++one;
            continue;
        }
        const auto alias = aliases_.find(one->second.asked.asker);
        const Asked asked = one->second.asked;
        one = owed_.erase(one);
        if (alias != aliases_.end()) {
            platform::PortText::Block none;
            failure(asked, Outcome::lost,
                    [&](Text& reply) { replyTaken(*alias->second, reply, none); });
        }
    }
}

} // namespace convey_link
