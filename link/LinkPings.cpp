// Pings: asked here and answered there, by nobody else than the process that is asked. And who
// runs.
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

// Whether an application of this machine runs. Its end is watched, and ends the wait.
bool Link::isRunning(const std::string& app) {
    const std::string port = BaseInterAppStream::kPortNamePrefix + app;
    for (const std::string& name : {port + std::string(kThreadSuffix), port}) {
        int error = 0;
        if ((name == port && aliases_.count(app) != 0) ||
            around_.ports.look(name, error) == platform::PortState::free) {
            continue;
        }
        std::shared_ptr<platform::TargetWatch>& watch = watched_[app];
        if (watch == nullptr || watch->ended()) {
            // A look, which nobody answers: who takes it is watched.
            Text look;
            look.set(kTarget, name.substr(port.size() - app.size()));
            look.set(kSender, kLookPort);
            look.set(kType, ConveyData::CV_TYPE_PING);
            watch.reset();
            if (around_.ports.send(name, look.write(), 0, &watch) ==
                    platform::SendResult::delivered &&
                watch != nullptr) {
                around_.wait.add(*watch);
            }
        }
        return true;
    }
    watched_.erase(app);
    return false;
}

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
    Ping ping{&to,
              std::string(asker),
              used.use.app + std::string(kThreadSuffix),
              std::min(deadlineOf(message, now), now + bounds::kPingMilliseconds),
              ++lastPing_,
              std::string(message.get(kSerial)),
              {}};
    message.remove({kVouch, kSender, kTarget, kSerial});
    std::string text = message.writePlain().head;
    if (!ask(ping, text)) {
        to.greetAt = std::min(to.greetAt, now + bounds::kDoubtHelloMilliseconds);
    }
    if (text.size() <= bounds::kPingBytes) {
        ping.text = std::move(text);
    }
    askedPings_.emplace(lastPing_, std::move(ping));
}

// False when it cannot go out now. One that is lost is asked again when its link is heard, or its
// asker is told by its own time.
bool Link::ask(const Ping& ping, std::string_view text) {
    const int64_t remaining = std::max<int64_t>(ping.until - around_.now(), 0);
    return sendPing(*ping.peer,
                    {MessageKind::ping, ping.asker, ping.target, remaining, ping.number}, text,
                    ping.until);
}

bool Link::sendPing(Peer& peer, MessageHead head, std::string_view text, int64_t until) {
    if (text.size() > bounds::kWholeBytes) {
        (void)peer.channel.queue(std::move(head), std::string(text), until);
        return true;
    }
    Frame frame =
        this->frame(head.kind == MessageKind::ping ? FrameKind::ping : FrameKind::pong, &peer);
    frame.head = std::move(head);
    frame.text = text;
    return publish(peer, frame);
}

void Link::askAgain(Peer& peer) {
    for (const auto& [number, ping] : askedPings_) {
        if (ping.peer == &peer && !ping.text.empty()) {
            (void)ask(ping, ping.text);
        }
    }
}

void Link::pingArrived(Peer& peer, const MessageHead& head, std::string_view text, int64_t now) {
    const std::string app = head.target.substr(0, head.target.find('#'));
    const Ping ping{&peer,           head.source, head.target, now + bounds::kPingMilliseconds,
                    head.pingNumber, {},          {}};
    Text question;
    std::string whole(text);
    if (!head.target.ends_with(kThreadSuffix) || isOwn(app) ||
        !Text::readForeign(whole, question) ||
        configuration_.offered(app, peer.name) == Offered::nothing) {
        sendPong(ping, Outcome::refused);
        return;
    }
    const std::string echo(question.get(kEcho));
    const size_t mark = echo.find('=');
    if (isForwarding(echo) && mark != std::string::npos && mark + 1 < echo.size()) {
        // The observer is a name over there: here it is that of its port.
        Alias* const alias =
            isPortName(echo.substr(mark + 1)) ? aliasFor(peer, echo.substr(mark + 1)) : nullptr;
        if (alias == nullptr) {
            sendPong(ping, Outcome::refused);
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
        sendPong(ping, Outcome::notRunning);
        sendPresence(peer, false);
        return;
    }
    foreignPings_.insert_or_assign(number, ping);
}

void Link::pingAnswered(Text& message) {
    const int64_t number = numberOf(message.get(kPingNumber));
    const auto found = foreignPings_.find(static_cast<uint64_t>(number));
    if (number < 0 || found == foreignPings_.end() ||
        message.get(kSender) != found->second.target) {
        return;
    }
    message.remove({kVouch, kSender, kTarget, kSerial, kPingNumber});
    sendPong(found->second, Outcome::delivered, message.writePlain().head);
    foreignPings_.erase(found);
}

// One that is lost: its asker is told by its own time.
void Link::sendPong(const Ping& ping, Outcome outcome, std::string_view text) {
    (void)sendPing(*ping.peer,
                   {MessageKind::pong, ping.target, ping.asker, 0, ping.number, outcome}, text,
                   around_.now() + bounds::kPingMilliseconds);
}

void Link::pongArrived(Peer& peer, const MessageHead& head, std::string_view text) {
    const auto found = askedPings_.find(head.pingNumber);
    if (found == askedPings_.end() || found->second.peer != &peer) {
        return;
    }
    Text answer;
    std::string whole(text);
    if (head.pingOutcome != Outcome::delivered || !Text::readForeign(whole, answer)) {
        answer = Text();
        answer.set(kEcho, ConveyThread::CV_ISNOTRUNNING);
    }
    answer.setTo(kVouch, peer.vouch);
    answerPing(found->second, answer);
    askedPings_.erase(found);
}

void Link::answerPing(const Ping& ping, Text& answer) {
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
    std::erase_if(askedPings_, [&](const auto& entry) {
        Text answer;
        answer.set(kEcho, ConveyThread::CV_ISNOTRUNNING);
        if (entry.second.peer == &peer) {
            answerPing(entry.second, answer);
        }
        return entry.second.peer == &peer;
    });
}

} // namespace convey_link
