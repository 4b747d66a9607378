#include "link/Channel.h"

#include <algorithm>

#include "link/Bounds.h"

namespace convey_link {

uint64_t Channel::queue(MessageHead head, Travelling text, int64_t deadline) {
    const auto [flow, isNew] = flows_.try_emplace({head.source, head.target});
    if (isNew) { // one whose messages have grown too old still has its turn
        turns_.push_back(flow);
    }
    queuedBytes_ += text.size();
    flow->second.push_back({++lastMessage_, std::move(head), std::move(text), deadline});
    return lastMessage_;
}

std::set<uint64_t> Channel::waiting() const {
    std::set<uint64_t> messages;
    for (const auto& [flow, line] : flows_) {
        for (const Queued& queued : line) {
            messages.insert(queued.message);
        }
    }
    return messages;
}

void Channel::queueLaunch(const std::string& app, const std::string& parameters) {
    launches_.push_back({app, parameters});
}

void Channel::tell(uint64_t message, Outcome outcome, int64_t now) {
    outcomes_.emplace_back(message, outcome);
    // One by itself goes at once, since its sender may hold back the next: those that follow it go
    // together.
    tellAt_ = std::min(tellAt_, std::max(now, toldAt_ + bounds::kAcknowledgeMilliseconds));
}

bool Channel::mayGo() const {
    return sentBytes_ < bounds::kWindowBytes;
}

void Channel::meet(uint64_t otherLife) {
    if (otherLife == otherLife_) {
        return;
    }
    otherLife_ = otherLife;
    sent_.clear();
    sentBytes_ = 0;
    lastNumber_ = 0;
    again_ = SIZE_MAX;
    repeatAt_ = INT64_MAX;
    arrived_ = 0;
    gap_ = false;
    gapTold_ = UINT64_MAX;
    acknowledgeAt_ = INT64_MAX;
    halves_.clear();
    halfBytes_ = 0;
    // These were of that life's messages.
    outcomes_.clear();
    tellAt_ = INT64_MAX;
    for (auto& [flow, line] : flows_) {
        for (Queued& queued : line) {
            queuedBytes_ += queued.sent;
            queued.sent = 0;
        }
    }
}

void Channel::acknowledge(uint64_t upTo, int64_t now) {
    if (upTo > lastNumber_) {
        return; // nothing of ours: somebody plays
    }
    size_t count = 0;
    while (!sent_.empty() && sent_.front().number <= upTo) {
        sentBytes_ -= sent_.front().size();
        sent_.pop_front();
        ++count;
    }
    if (count > 0) {
        again_ = again_ == SIZE_MAX || again_ < count ? SIZE_MAX : again_ - count;
        repeatAfter_ = bounds::kRepeatMilliseconds;
        repeatAt_ = sent_.empty() ? INT64_MAX : now + repeatAfter_;
    }
}

void Channel::sendAgain() {
    if (!sent_.empty()) {
        again_ = 0;
        repeatAfter_ = bounds::kRepeatMilliseconds;
    }
    if (arrived_ > 0) {
        acknowledgeAt_ = 0; // the last one may be lost, too
    }
}

void Channel::take(const Frame& frame, int64_t now, Arrivals& out) {
    if (frame.senderLife != otherLife_ || frame.receiverLife != ownLife_) {
        return;
    }
    acknowledge(frame.acknowledged, now);
    if (frame.kind == FrameKind::acknowledgement) {
        if (frame.gap && !sent_.empty() && sent_.front().number == frame.acknowledged + 1) {
            again_ = 0;
        }
        return;
    }
    if (frame.number != arrived_ + 1) {
        // One that came before: its acknowledgement may be lost. One from behind a gap: what is
        // missing is told once, and all behind it comes again.
        if (frame.number <= arrived_) {
            acknowledgeAt_ = std::min(acknowledgeAt_, now + bounds::kAcknowledgeMilliseconds);
        } else if (gapTold_ != arrived_) {
            gapTold_ = arrived_;
            gap_ = true;
            acknowledgeAt_ = now;
        }
        return;
    }
    arrived_ = frame.number;
    unacknowledgedBytes_ += frame.part.bytes.size();
    for (const Part& text : frame.texts) {
        unacknowledgedBytes_ += text.bytes.size();
    }
    acknowledgeAt_ = unacknowledgedBytes_ >= bounds::kWindowBytes / 4
                         ? now
                         : std::min(acknowledgeAt_, now + bounds::kAcknowledgeMilliseconds);
    switch (frame.cargo) {
    case CargoKind::part:
        takePart(frame.part, now, out);
        break;
    case CargoKind::outcomes:
        out.outcomes.insert(out.outcomes.end(), frame.outcomes.begin(), frame.outcomes.end());
        break;
    case CargoKind::launch:
        out.launches.push_back({frame.app, frame.parameters});
        break;
    case CargoKind::texts:
        out.messages.reserve(frame.texts.size());
        for (const Part& text : frame.texts) {
            out.messages.push_back({text.message, text.head, std::string(text.bytes)});
        }
        break;
    }
}

void Channel::takePart(const Part& part, int64_t now, Arrivals& out) {
    auto half = halves_.find(part.message);
    if (part.offset == 0) {
        if (half != halves_.end()) {
            return;
        }
        if (part.bytes.size() == part.total) {
            out.messages.push_back({part.message, part.head, std::string(part.bytes)});
            return;
        }
        // A text that is not finished keeps memory: only so many at a time.
        if (halfBytes_ + part.total > bounds::kKeptBytes) {
            tell(part.message, Outcome::tooMuch, now);
            return;
        }
        half = halves_.emplace(part.message, Half{part.head, part.total, {}}).first;
        half->second.text.reserve(part.total); // counted, and the system's only as it is filled
        halfBytes_ += part.total;
    }
    // What is not the next part of a text that has begun belongs to one that was refused.
    if (half == halves_.end() || half->second.text.size() != part.offset ||
        half->second.total != part.total) {
        return;
    }
    half->second.text += part.bytes;
    if (half->second.text.size() == half->second.total) {
        halfBytes_ -= half->second.total;
        out.messages.push_back(
            {part.message, std::move(half->second.head), std::move(half->second.text)});
        halves_.erase(half);
    }
}

std::string Channel::around(const Sent& sent) {
    acknowledgeAt_ = INT64_MAX;
    unacknowledgedBytes_ = 0;
    std::string frame =
        encodeAround(sent.cargo, ownLife_, otherLife_, sent.number, arrived_, sent.bytes);
    if (sent.text != nullptr) {
        sent.text->append(frame, sent.place, sent.bytes);
    }
    return frame;
}

std::string Channel::number(Sent sent, int64_t now) {
    if (sent_.empty()) {
        repeatAfter_ = bounds::kRepeatMilliseconds;
        repeatAt_ = now + repeatAfter_;
    }
    sent.number = ++lastNumber_;
    sentBytes_ += sent.size();
    sent_.push_back(std::move(sent));
    return around(sent_.back());
}

// The text whose turn it is; null for none. Those before it whose time is over are left out.
Channel::Queued* Channel::upNext(int64_t now, std::vector<uint64_t>& expired) {
    while (!turns_.empty()) {
        std::deque<Queued>& line = turns_.front()->second;
        while (!line.empty() && line.front().sent == 0 && line.front().deadline <= now) {
            expired.push_back(line.front().message);
            queuedBytes_ -= line.front().text().size();
            line.pop_front();
        }
        if (!line.empty()) {
            Queued& queued = line.front();
            // A duration travels, since the clocks of two machines differ.
            queued.head.remainingMilliseconds =
                queued.deadline == INT64_MAX ? -1 : queued.deadline - now;
            return &queued;
        }
        flows_.erase(turns_.front());
        turns_.pop_front();
    }
    return nullptr;
}

// So many bytes of it are in a cargo: another flow has its turn.
void Channel::goesOn(size_t bytes) {
    std::deque<Queued>& line = turns_.front()->second;
    Queued& queued = line.front();
    queued.sent += bytes;
    queuedBytes_ -= bytes;
    if (queued.sent == queued.text().size()) {
        line.pop_front();
    }
    if (line.empty()) {
        flows_.erase(turns_.front());
        turns_.pop_front();
    } else {
        turns_.splice(turns_.end(), turns_, turns_.begin());
    }
}

// The parts may have been smaller at the server before: what is begun goes on in parts.
bool Channel::fitsWhole(const Queued& queued, size_t partBytes) {
    return queued.sent == 0 && queued.text().size() <= std::min(partBytes, bounds::kSmallBytes);
}

std::string Channel::nextPart(int64_t now, size_t partBytes, std::vector<uint64_t>& expired) {
    Queued* const queued = upNext(now, expired);
    if (queued == nullptr) {
        return {};
    }
    if (fitsWhole(*queued, partBytes)) {
        return nextTexts(now, partBytes, expired);
    }
    Frame frame;
    frame.cargo = CargoKind::part;
    frame.part.message = queued->message;
    frame.part.total = queued->text().size();
    frame.part.offset = queued->sent;
    frame.part.head = queued->head;
    if (queued->inParts == nullptr) {
        queued->inParts = std::make_shared<const Travelling>(std::move(queued->whole));
    }
    const size_t bytes = std::min(partBytes, queued->inParts->size() - queued->sent);
    Sent sent{0, encodeCargo(frame), queued->inParts, queued->sent, bytes};
    goesOn(bytes);
    return number(std::move(sent), now);
}

// Small texts, of any flows, as far as their turns come one after another.
std::string Channel::nextTexts(int64_t now, size_t partBytes, std::vector<uint64_t>& expired) {
    std::string cargo;
    for (const Queued* queued = upNext(now, expired);
         queued != nullptr && fitsWhole(*queued, partBytes) &&
         (cargo.empty() ||
          cargo.size() + queued->text().size() <= std::min(partBytes, bounds::kTogetherBytes));
         queued = upNext(now, expired)) {
        std::string joined;
        std::string_view text = queued->text().head;
        if (!queued->text().body.empty()) {
            queued->text().append(joined, 0, queued->text().size());
            text = joined;
        }
        addText(cargo, queued->message, queued->head, text);
        goesOn(text.size());
    }
    return number({0, std::move(cargo)}, now);
}

std::string Channel::next(int64_t now, size_t partBytes, std::vector<uint64_t>& expired) {
    if (otherLife_ == 0) {
        return {};
    }
    if (!sent_.empty() && repeatAt_ <= now) {
        repeatAfter_ = std::min(2 * repeatAfter_, bounds::kSlowRepeatMilliseconds);
        again_ = 0;
    }
    if (again_ < sent_.size()) {
        if (again_ == 0) {
            repeatAt_ = now + repeatAfter_;
        }
        const Sent& sent = sent_[again_++];
        again_ = again_ == sent_.size() ? SIZE_MAX : again_;
        return around(sent);
    }
    const bool tells = mayGo() && tellAt_ <= now;
    // A bare acknowledgement goes first, since it opens the other's window; outcomes bring one.
    if (gap_ || (acknowledgeAt_ <= now && !tells)) {
        Frame frame;
        frame.kind = FrameKind::acknowledgement;
        frame.senderLife = ownLife_;
        frame.receiverLife = otherLife_;
        frame.acknowledged = arrived_;
        frame.gap = gap_;
        gap_ = false;
        acknowledgeAt_ = INT64_MAX;
        unacknowledgedBytes_ = 0;
        return encode(frame);
    }
    if (!mayGo()) {
        return {};
    }
    Frame frame;
    if (tells) {
        frame.cargo = CargoKind::outcomes;
        const size_t count = std::min(outcomes_.size(), bounds::kWholeBytes / 16);
        const auto end = outcomes_.begin() + static_cast<std::ptrdiff_t>(count);
        frame.outcomes.assign(outcomes_.begin(), end);
        outcomes_.erase(outcomes_.begin(), end);
        toldAt_ = now;
        tellAt_ = outcomes_.empty() ? INT64_MAX : now;
        return number({0, encodeCargo(frame)}, now);
    }
    if (!launches_.empty()) {
        frame.cargo = CargoKind::launch;
        frame.app = std::move(launches_.front().app);
        frame.parameters = std::move(launches_.front().parameters);
        launches_.pop_front();
        return number({0, encodeCargo(frame)}, now);
    }
    return nextPart(now, partBytes, expired);
}

void Channel::expire(int64_t now, std::vector<uint64_t>& expired) {
    for (auto& [flow, line] : flows_) { // an empty line ends with its turn
        std::erase_if(line, [&](const Queued& queued) {
            if (queued.sent != 0 || queued.deadline > now) {
                return false;
            }
            expired.push_back(queued.message);
            queuedBytes_ -= queued.text().size();
            return true;
        });
    }
}

int64_t Channel::due() const {
    if (otherLife_ == 0) {
        return INT64_MAX;
    }
    if (again_ < sent_.size() || gap_) {
        return 0;
    }
    if (mayGo() && (!launches_.empty() || !turns_.empty())) {
        return 0;
    }
    return std::min({repeatAt_, acknowledgeAt_, mayGo() ? tellAt_ : INT64_MAX});
}

} // namespace convey_link
