#include "link/Text.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

#include "link/Bounds.h"
#include "platform/Processes.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVTextSeal.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "scriptobjects/convey/SoCVWords.h"

namespace convey_link {
namespace {

using namespace ScObjects;

// Lines that are made anew for each way.
constexpr std::string_view kMade[] = {ConveyData::CV_MD5, ConveyData::CV_DIGEST,
                                      ConveyData::CV_TIMESTAMP, ConveyData::CV_CONTENT_LENGTH,
                                      ConveyData::CV_SENDER_ID};
// What goes in one packet is digested before it is sent.
constexpr size_t kLargeBytes = limits::of("port.packet");
// Of a request with headers of its own and what a link adds; more cost another allocation.
constexpr size_t kUsualLines = 16;
// What a reader takes off in front of a user header's name.
constexpr std::string_view kEscape = "@HDR>";
// Of replies that are made here.
constexpr std::string_view kErrorCode = "@HDR>Error-Code";
static_assert(kErrorCode.substr(kEscape.size()) == ConveyData::CV_ERROR_CODE);

// What an asker is told of each end that is one, by its outcome.
constexpr std::pair<int32_t, const char*> kErrors[] = {
    {0, ""}, // delivered
    {0, ""}, // expired, which has a type of its own
    {ConveyData::CV_CODE_NOT_SENT, ConveyData::CV_ERROR_NOT_LAUNCHED},
    {ConveyData::CV_CODE_NOT_SENT, ConveyData::CV_ERROR_LAUNCH_FAILED},
    {ConveyData::CV_CODE_REJECTED, ConveyData::CV_ERROR_REJECTED},
    {ConveyData::CV_CODE_NOT_SENT, ConveyData::CV_ERROR_TOO_MANY_WAIT},
    {ConveyData::CV_CODE_TARGET_ENDED, ConveyData::CV_ERROR_TARGET_ENDED},
};
static_assert(std::size(kErrors) == static_cast<size_t>(Outcome::lost) + 1);

bool isMade(std::string_view name) {
    return std::find(std::begin(kMade), std::end(kMade), name) != std::end(kMade);
}

std::string_view lineEnd(std::string_view& text) {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return line;
}

} // namespace

// Takes the lines off, and the empty one behind them; false when there are none.
bool Text::readHead(std::string_view& text, size_t& announced) {
    text.remove_prefix(std::min(text.find_first_not_of('\n'), text.size()));
    lines_.clear();
    lines_.reserve(kUsualLines);
    made_.clear();
    timestamp_ = -1;
    announced = 0;
    bool any = false;
    const char* const end = text.end();
    while (!text.empty()) {
        const std::string_view line = lineEnd(text);
        if (line.empty()) {
            break;
        }
        any = true;
        const size_t colon = std::min(line.find(':'), line.size());
        const std::string_view name = line.substr(0, colon);
        const std::string_view value = line.substr(std::min(colon + 1, line.size()));
        if (name == ConveyData::CV_CONTENT_LENGTH) {
            announced = static_cast<size_t>(std::max<int64_t>(numberOf(value), 0));
        } else if (name == ConveyData::CV_TIMESTAMP) {
            timestamp_ = numberOf(value);
        } else if (!isMade(name) && lines_.size() < bounds::kLines) {
            const bool isWhole = name.size() != line.size() && line.end() != end;
            lines_.push_back({name, value, {line.data(), isWhole ? line.size() + 1 : 0}});
        }
    }
    return any;
}

bool Text::read(std::string_view& text, Text& out) {
    size_t announced = 0;
    const bool any = out.readHead(text, announced);
    out.body_ = text.substr(0, announced);
    text.remove_prefix(out.body_.size());
    return any;
}

bool Text::read(std::string_view head, std::string_view body, Text& out) {
    size_t announced = 0;
    const bool any = out.readHead(head, announced);
    out.body_ = body;
    return any && head.empty() && announced == body.size();
}

bool Text::readForeign(std::string& text, Text& out) {
    normalise(text);
    std::string_view rest = text;
    return read(rest, out);
}

std::string_view Text::get(std::string_view name) const {
    const auto found = std::find_if(lines_.rbegin(), lines_.rend(),
                                    [name](const Line& line) { return line.name == name; });
    return found == lines_.rend() ? std::string_view() : found->value;
}

bool Text::has(std::string_view name) const {
    return std::ranges::any_of(lines_, [name](const Line& line) { return line.name == name; });
}

void Text::setTo(std::string_view name, std::string_view value) {
    const auto first =
        std::ranges::find_if(lines_, [name](const Line& line) { return line.name == name; });
    if (first == lines_.end()) {
        lines_.push_back({name, value, {}});
        return;
    }
    *first = {name, value, {}};
    lines_.erase(std::remove_if(first + 1, lines_.end(),
                                [name](const Line& line) { return line.name == name; }),
                 lines_.end());
}

void Text::remove(std::initializer_list<std::string_view> names) {
    std::erase_if(lines_, [names](const Line& line) {
        const size_t escape = line.name.starts_with(kEscape) ? kEscape.size() : 0;
        return std::ranges::find(names, line.name.substr(escape)) != names.end();
    });
}

void Text::setBody(std::string body) {
    ownBody_ = std::move(body);
    body_ = ownBody_;
}

// At least as many as the head has, with the lines that are made anew and a digest.
size_t Text::headBytes() const {
    size_t bytes = 256;
    for (const Line& line : lines_) {
        bytes += line.name.size() + line.value.size() + 2;
    }
    return bytes;
}

// The lines that travel, to the empty one. As a rule most have come one behind the other.
void Text::addHead(std::string& out) const {
    std::string_view run;
    for (const Line& line : lines_) {
        if (!line.whole.empty() && line.whole.begin() == run.end()) {
            run = {run.data(), run.size() + line.whole.size()};
            continue;
        }
        out.append(std::exchange(run, line.whole));
        if (line.whole.empty()) {
            out.append(line.name).push_back(':');
            out.append(line.value).push_back('\n');
        }
    }
    out.append(run).append(std::string_view(ConveyData::CV_CONTENT_LENGTH)).push_back(':');
    out.append(std::to_string(body_.size())).append(2, '\n');
}

Travelling Text::writePlain(platform::PortText::Block block) const {
    Travelling out{std::string()};
    out.head.reserve(headBytes() + (block == nullptr ? body_.size() : 0)); // is copied once
    addHead(out.head);
    if (block == nullptr) {
        out.head.append(body_);
    } else {
        out.body = body_;
        out.block = std::move(block);
    }
    return out;
}

void Travelling::append(std::string& out, size_t place, size_t count) const {
    if (place < head.size()) {
        const size_t ofHead = std::min(count, head.size() - place);
        out.append(head, place, ofHead);
        place += ofHead;
        count -= ofHead;
    }
    if (count > 0) {
        out.append(body.substr(place - head.size(), count));
    }
}

// With the lines that are made anew, but the digest.
void Text::addPortHead(std::string& out) const {
    constexpr std::string_view kHost = ":localhost:mac";
    out.append(std::string_view(ConveyData::CV_SENDER_ID)).append(kHost);
    out.append(std::to_string(platform::Processes::system().ownNumber())).push_back('\n');
    out.append(std::string_view(ConveyData::CV_TIMESTAMP)).append(std::string_view(": "));
    out.append(std::to_string(ConveyUtils::getTimeSeconds())).push_back('\n');
    addHead(out);
}

std::string Text::write() const {
    constexpr std::string_view kName = ConveyData::CV_MD5;
    constexpr size_t kDigits = 32;
    const bool isDigested = Convey::Message::getCreateDigest();
    std::string out;
    out.reserve(headBytes() + body_.size());
    if (isDigested) { // room for it
        out.append(kName).push_back(':');
        out.append(kDigits, '0').push_back('\n');
    }
    const size_t begin = out.size();
    addPortHead(out);
    out.append(body_);
    if (isDigested) {
        const SoString digest = ConveyUtils::getMD5({std::string_view(out).substr(begin)});
        out.replace(kName.size() + 1, kDigits, digest.view());
    }
    return out;
}

PortMessage Text::write(std::string&& arrived) const {
    if (body_.size() <= kLargeBytes) {
        return write();
    }
    PortMessage out{std::string()};
    addPortHead(out.head);
    out.arrived = std::move(arrived);
    out.body = body_;
    if (Convey::Message::getCreateDigest()) {
        out.seal = std::make_unique<ConveyData::TextSeal>();
    }
    return out;
}

void normalise(char* text, size_t lengthBytes) {
    // As a rule there is none, and a search for it is many times as fast as a look at each byte.
    char* const end = text + lengthBytes;
    for (char* at = text; at != end; ++at) {
        at = static_cast<char*>(std::memchr(at, '\0', static_cast<size_t>(end - at)));
        if (at == nullptr) {
            return;
        }
        *at = '\n';
    }
}

int64_t numberOf(std::string_view value) {
    value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
    int64_t number = -1;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    return error == std::errc() && end == value.data() + value.size() ? number : -1;
}

bool isReply(const Text& message) {
    if (message.has(ConveyData::CV_RECEIVED) || message.has(ConveyData::CV_RESULT) ||
        message.has(ConveyData::CV_ERROR)) {
        return true;
    }
    const std::string_view type = message.get(kType);
    return type == ConveyData::CV_TYPE_RECEIVED || type == ConveyData::CV_TYPE_PROCESSED ||
           type == ConveyData::CV_TYPE_TIMEOUT || type.starts_with(ConveyData::CV_FORWARD_PREFIX);
}

bool isEndWanted(std::string_view wanted) {
    return wanted.find(ConveyData::CV_WANTS_PROCESSED) != std::string_view::npos ||
           wanted.find(ConveyData::CV_WANTS_ERROR) != std::string_view::npos;
}

bool isLastReply(const Text& reply, std::string_view wanted) {
    const std::string_view type = reply.get(kType);
    if (wanted.find(ConveyData::CV_WANTS_PROCESSED) != std::string_view::npos) {
        return type == ConveyData::CV_TYPE_PROCESSED || type == ConveyData::CV_TYPE_TIMEOUT;
    }
    return type != ConveyData::CV_TYPE_RECEIVED;
}

int64_t deadlineOf(const Text& message, int64_t now) {
    const int64_t seconds = numberOf(message.get(kTimeoutLine));
    if (seconds > INT32_MAX || message.get(kTimeoutLine).starts_with('-')) {
        return INT64_MAX; // as a signed number below 0: for ever
    }
    if (seconds <= 0) {
        return now + bounds::kMessageMilliseconds;
    }
    const int64_t since = message.timestamp();
    const int64_t age = since < 0 ? 0 : int64_t{ConveyUtils::getTimeSeconds()} - since;
    return now + 1000 * std::max<int64_t>(seconds - std::max<int64_t>(age, 0), 0);
}

int64_t setTime(Text& message, int64_t remaining, int64_t now) {
    if (remaining < 0) {
        return INT64_MAX;
    }
    if (numberOf(message.get(kTimeoutLine)) > 0) {
        message.set(kTimeoutLine, std::to_string(std::max<int64_t>((remaining + 999) / 1000, 1)));
    }
    return now + remaining;
}

Asked askedBy(const Text& request) {
    Asked asked{std::string(request.get(kSender)), {}, {}, {}, std::string(request.get(kWanted))};
    if (!asked.wanted.empty()) {
        asked.target = request.get(kTarget);
        asked.serial = request.get(kSerial);
        asked.life = request.get(kLife);
    }
    return asked;
}

void failure(const Asked& request, Outcome outcome, const std::function<void(Text&)>& reply) {
    const auto& error = kErrors[static_cast<size_t>(outcome)];
    const auto say = [&](const std::string& type) {
        if (request.wanted.find(type) == std::string::npos) {
            return;
        }
        Text answer;
        answer.set(ConveyData::CV_VERSION, "2.05");
        answer.set(kTarget, request.asker);
        answer.set(kSender, request.target);
        answer.set(kType, type);
        if (!request.life.empty()) {
            answer.set(kLife, request.life);
        }
        answer.set(kSerial, request.serial);
        if (type == ConveyData::CV_TYPE_ERROR) {
            answer.set(kErrorCode, std::to_string(error.first));
            answer.set(ConveyData::CV_ERROR, request.serial);
            // Said here, as here the port may be owned for an application that does not run there.
            if (outcome == Outcome::notRunning || outcome == Outcome::notLaunched) {
                answer.set(ConveyData::CV_ERROR_TARGET, ConveyData::CV_TARGET_ABSENT);
            }
            answer.setBody(error.second);
        }
        reply(answer);
    };
    say(outcome == Outcome::expired ? ConveyData::CV_TYPE_TIMEOUT : ConveyData::CV_TYPE_ERROR);
    say(ConveyData::CV_TYPE_PROCESSED);
}

} // namespace convey_link
