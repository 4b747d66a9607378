// Requests that wait on the servers' disks: what is given to them, and what comes from them.
#include <algorithm>

#include "link/LinkParts.h"

namespace convey_link {
namespace {

// How long the difference of the servers' clock and this one's is relied on.
constexpr int64_t kClockMilliseconds = 60'000;

} // namespace

void Link::takeKept() {
    if (!joined_) {
        return; // another may have the name
    }
    for (const Keeper::Ended& end : keeper_.step(around_.now())) {
        statusChanged_ = statusChanged_ || keeper_.waiting() == 0;
        Peer& to = peer(end.link);
        const auto found = to.outgoing.find(end.message);
        if (end.result == KeptAnswer::kept && found != to.outgoing.end()) {
            Outgoing& outgoing = found->second;
            giveBack(outgoing);
            outgoing.port.clear();
            if (!isEndWanted(outgoing.asked.wanted)) { // nobody here is told of its end
                to.outgoing.erase(found);
            }
            continue;
        }
        const bool isFull = end.result == KeptAnswer::full;
        if (isFull || end.result == KeptAnswer::notNow) {
            around_.log("a request for " + end.link +
                        " is not kept: " + (isFull ? "the stream is full" : "no stream takes it"));
        }
        ended(to, end.message,
              isFull                              ? Outcome::tooMuch
              : end.result == KeptAnswer::expired ? Outcome::expired
              : end.result == KeptAnswer::notNow  ? Outcome::notRunning
                                                  : Outcome::refused);
    }
}

// Those of which nobody has told how they ended, such as those that still lie on a disk: their time
// is over, and their link does not hand them over any more.
void Link::forgetKept(int64_t now) {
    for (const auto& [name, known] : peers_) {
        Peer& peer = *known;
        std::set<uint64_t> over; // and told in their order
        for (const auto& [message, outgoing] : peer.outgoing) {
            if (outgoing.until <= now && outgoing.port.empty()) {
                over.insert(message);
            }
        }
        for (const uint64_t message : over) {
            const Asked& asked = peer.outgoing.at(message).asked;
            if (conversations_.count({asked.asker, asked.serial}) != 0) {
                ended(peer, message, Outcome::expired);
            } else {
                peer.outgoing.erase(message); // it has been answered
            }
        }
    }
}

void Link::keptArrived(const std::string& from, const std::string& bytes,
                       const std::string& reply) {
    Frame frame;
    if (!decode(bytes, frame) || frame.kind != FrameKind::kept ||
        frame.head.kind != MessageKind::request) {
        around_.log("refused: bad frame from " + from);
        (void)around_.wire.acknowledge(reply); // else it comes again
        return;
    }
    if (knownPeer(from) == nullptr && peers_.size() >= bounds::kLinks) {
        return; // it comes again
    }
    Peer& peer = this->peer(from);
    KeptLine& line = peer.kept;
    if (!joined_) {
        line.frame = bytes; // one of each sender, until the name is sure
        line.reply = reply;
        return;
    }
    const bool isSame = frame.senderLife == line.life && frame.number == line.message;
    if (isSame && line.state == KeptLine::State::handedOver) {
        line.reply = reply;
        return; // its end acknowledges it
    }
    const Journal::State state = journal_.state(from, frame.senderLife, frame.number);
    if (state == Journal::State::over || (isSame && line.state == KeptLine::State::done)) {
        (void)around_.wire.acknowledge(reply); // the last one was lost
        return;
    }
    if (line.state == KeptLine::State::handedOver) {
        return; // another one is; this comes again
    }
    line.isAsked = isSame && line.isAsked;
    line.reply = reply;
    line.life = frame.senderLife;
    line.message = frame.number;
    if (state == Journal::State::begun) {
        around_.log("a request from " + from +
                    " is not handed over again: it may have been, before this link's start");
        finish({peer, line.life, line.message, true}, Outcome::lost);
        return;
    }
    line.state = KeptLine::State::waits;
    line.arrivedAt = around_.now();
    line.frame = bytes;
    if (frame.head.remainingMilliseconds < 0 || line.arrivedAt < line.aheadUntil) {
        handOver(peer);
        return;
    }
    if (std::exchange(line.isAsked, true)) {
        around_.log("kept requests from " + from +
                    " wait: the servers do not say how long they did");
    }
    (void)around_.wire.askClock(from); // lost: it comes again, and is asked again
}

// What the servers said of the last one that they gave: both times are of their clock, so that no
// clock of another machine is relied on.
void Link::clockArrived(const std::string& from, const std::string& answer) {
    Peer* const peer = knownPeer(from);
    const int64_t served =
        servedAt(answer, streamOf(configuration_.realm, from), configuration_.name);
    if (peer == nullptr || served < 0 || peer->kept.state != KeptLine::State::waits) {
        return;
    }
    peer->kept.aheadMilliseconds = served - peer->kept.arrivedAt;
    peer->kept.aheadUntil = peer->kept.arrivedAt + kClockMilliseconds;
    handOver(*peer);
}

void Link::handOver(Peer& peer) {
    KeptLine& line = peer.kept;
    Frame frame;
    if (!decode(line.frame, frame)) {
        return; // it has been looked at
    }
    Channel::Arrival arrival{frame.number, frame.head, std::string(frame.text), frame.senderLife};
    line.frame.clear();
    int64_t& left = arrival.head.remainingMilliseconds;
    if (left >= 0) {
        const int64_t waited = line.arrivedAt + line.aheadMilliseconds - storedAt(line.reply);
        left -= std::clamp<int64_t>(waited, 0, left);
        if (left == 0) {
            finish({peer, line.life, line.message, true}, Outcome::expired);
            return;
        }
    }
    if (!journal_.begin(peer.name, line.life, line.message)) {
        around_.log("kept requests from " + peer.name + " wait: the journal cannot be written");
        line.state = KeptLine::State::none; // it comes again
        return;
    }
    line.state = KeptLine::State::handedOver;
    requestArrived(peer, arrival, around_.now());
}

// A request from elsewhere has ended here: its sender is told, as soon as it is heard, and it need
// not be kept any more.
void Link::finish(const Ticket& ticket, Outcome outcome) {
    Peer& peer = ticket.peer;
    if (peer.channel.otherLife() == ticket.life) {
        peer.channel.tell(ticket.message, outcome, around_.now());
    } else if (ticket.isKept) {
        peer.untold.emplace_back(ticket.life, ticket.message, outcome);
        if (peer.untold.size() > bounds::kUntold) {
            peer.untold.pop_front();
        }
    }
    if (ticket.isKept) {
        peer.kept.state = KeptLine::State::done;
        (void)around_.wire.acknowledge(peer.kept.reply); // lost: it comes again
    }
}

void Link::tellUntold(Peer& peer) {
    for (const auto& [life, message, outcome] : std::exchange(peer.untold, {})) {
        if (life == peer.channel.otherLife()) {
            peer.channel.tell(message, outcome, around_.now());
        }
    }
}

} // namespace convey_link
