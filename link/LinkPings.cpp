// Pings: asked here and answered there, by nobody else than the process that is asked.
#include <algorithm>

#include "link/LinkParts.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "scriptobjects/stream/BaseInterAppStream.h"

namespace convey_link {
namespace {

using namespace ScObjects;

// For answers to askers that are busy.
constexpr int64_t kAnswerMilliseconds = 30'000;

bool isForwarding(std::string_view echo) {
    return echo.starts_with(ConveyData::CV_FORWARD_PREFIX);
}

} // namespace

void Link::pingTaken(Used& used, Text& message) {
    const std::string_view asker = message.get(kSender);
    if (message.get(kType) != ConveyData::CV_TYPE_PING || !message.has(kEcho) ||
        !message.get(kPingNumber).empty() || asker.ends_with(kThreadSuffix) || !isPortName(asker)) {
        return; // a look, or an answer
    }
    const int64_t now = around_.now();
    Peer& to = used.at;
    if (askedPings_.size() >= bounds::kPings) {
        return; // its asker is told by its own time
    }
    const std::string_view echo = message.get(kEcho);
    const size_t mark = echo.find('=');
    if (isForwarding(echo) && mark != std::string_view::npos) {
        to.contacts[std::string(echo.substr(mark + 1))] = now + bounds::kAliasMilliseconds;
    }
    AskedPing ping{to.name,
                   std::string(asker),
                   used.use.app + std::string(kThreadSuffix),
                   std::string(message.get(kSerial)),
                   std::min(deadlineOf(message, now), now + bounds::kPingMilliseconds),
                   {}};
    message.remove({kVouch, kSender, kTarget, kSerial});
    const std::string text = message.writePlain();
    const uint64_t number = ++lastPing_;
    if (!sendPing(to, number, ping, text)) {
        to.greetAt = std::min(to.greetAt, now + bounds::kDoubtHelloMilliseconds);
    }
    if (text.size() <= bounds::kPingBytes) {
        ping.text = text;
    }
    askedPings_[number] = std::move(ping);
}

// False when it cannot go out now. One that is lost is asked again when its link is heard, or its
// asker is told by its own time.
bool Link::sendPing(Peer& peer, uint64_t number, const AskedPing& ping, std::string_view text) {
    const int64_t remaining = std::max<int64_t>(ping.until - around_.now(), 0);
    Frame frame = this->frame(FrameKind::ping, &peer);
    frame.head = {MessageKind::ping, ping.asker, ping.target,
                  remaining,         number,     Outcome::delivered};
    if (text.size() > bounds::kWholeBytes) {
        (void)peer.channel.queue(frame.head, std::string(text), ping.until);
        return true;
    }
    frame.text = text;
    return publish(peer, frame);
}

void Link::askAgain(Peer& peer) {
    for (const auto& [number, ping] : askedPings_) {
        if (ping.link == peer.name && !ping.text.empty()) {
            (void)sendPing(peer, number, ping, ping.text);
        }
    }
}

void Link::pingArrived(Peer& peer, const MessageHead& head, std::string_view text, int64_t now) {
    const std::string app = head.target.substr(0, head.target.find('#'));
    const ForeignPing ping{peer.name, head.target, head.source, head.pingNumber,
                           now + bounds::kPingMilliseconds};
    Text question;
    std::string whole(text);
    if (!head.target.ends_with(kThreadSuffix) || isOwn(app) ||
        !Text::readForeign(whole, question) ||
        configuration_.offered(app, peer.name) == Offered::nothing) {
        sendPong(peer, ping, Outcome::refused, {});
        return;
    }
    const std::string echo(question.get(kEcho));
    const size_t mark = echo.find('=');
    if (isForwarding(echo) && mark != std::string::npos && mark + 1 < echo.size()) {
        // The observer is a name over there: here it is that of its port.
        Alias* const alias =
            isPortName(echo.substr(mark + 1)) ? aliasFor(peer, echo.substr(mark + 1)) : nullptr;
        if (alias == nullptr) {
            sendPong(peer, ping, Outcome::refused, {});
            return;
        }
        alias->usedAt = now;
        question.set(kEcho, echo.substr(0, mark + 1) + alias->name);
    }
    if (foreignPings_.size() >= bounds::kPings) {
        return;
    }
    const uint64_t number = ++lastPing_ & INT32_MAX;
    question.set(kTarget, head.target);
    question.set(kSender, kPingPort);
    question.set(kSerial, std::to_string(number));
    question.setTo(kVouch, peer.vouch);
    const std::string port = BaseInterAppStream::kPortNamePrefix + head.target;
    // One that takes nothing is not waited for: then the asker's time runs out, as it should.
    if (around_.ports.send(port, question.write(), 0) == platform::SendResult::noReceiver) {
        sendPong(peer, ping, Outcome::notRunning, {});
        sendPresence(peer, false);
        return;
    }
    foreignPings_[number] = ping;
}

void Link::pingAnswered(Text& message) {
    const int64_t number = numberOf(message.get(kPingNumber));
    const auto found = foreignPings_.find(static_cast<uint64_t>(number));
    if (number < 0 || found == foreignPings_.end() ||
        message.get(kSender) != found->second.target) {
        return;
    }
    const ForeignPing ping = found->second;
    foreignPings_.erase(found);
    Peer* const to = knownPeer(ping.link);
    if (to != nullptr) {
        message.remove({kVouch, kSender, kTarget, kSerial, kPingNumber});
        sendPong(*to, ping, Outcome::delivered, message.writePlain());
    }
}

void Link::sendPong(Peer& peer, const ForeignPing& ping, Outcome outcome, std::string text) {
    Frame pong = frame(FrameKind::pong, &peer);
    pong.head = {MessageKind::pong, ping.target, ping.source, 0, ping.number, outcome};
    if (text.size() > bounds::kWholeBytes) {
        (void)peer.channel.queue(pong.head, std::move(text),
                                 around_.now() + bounds::kPingMilliseconds);
        return;
    }
    pong.text = text;
    (void)publish(peer, pong); // lost: its asker is told by its own time
}

void Link::pongArrived(Peer& peer, const MessageHead& head, std::string_view text) {
    const auto found = askedPings_.find(head.pingNumber);
    if (found == askedPings_.end() || found->second.link != peer.name) {
        return;
    }
    const AskedPing ping = found->second;
    askedPings_.erase(found);
    Text answer;
    std::string whole(text);
    if (head.pingOutcome != Outcome::delivered || !Text::readForeign(whole, answer)) {
        answer = Text();
        answer.set(kEcho, ConveyThread::CV_ISNOTRUNNING);
    }
    answer.setTo(kVouch, peer.vouch);
    answerPing(ping, answer);
}

void Link::answerPing(const AskedPing& ping, Text& answer) {
    answer.set(ConveyData::CV_VERSION, "2.05");
    answer.set(kTarget, ping.asker);
    answer.set(kSender, ping.target);
    answer.set(kType, ConveyData::CV_TYPE_PING);
    answer.set(kPingNumber, ping.serial);
    answer.set(kSerial, "1");
    deliveries_.post(ping.asker, answer.write(), around_.now() + kAnswerMilliseconds, false, 0);
}

// Nobody is there: whoever asked is told at once.
void Link::notRunning(Peer& peer) {
    for (auto ping = askedPings_.begin(); ping != askedPings_.end();) {
        if (ping->second.link != peer.name) {
            ++ping;
            continue;
        }
        Text answer;
        answer.set(kEcho, ConveyThread::CV_ISNOTRUNNING);
        answerPing(ping->second, answer);
        ping = askedPings_.erase(ping);
    }
}

} // namespace convey_link
