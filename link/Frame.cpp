#include "link/Frame.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "link/Bounds.h"

namespace convey_link {
namespace {

constexpr std::string_view kMark = "CVL2";
// Before small texts went together. Its requests may lie on the servers' disks still, and are the
// same in both.
constexpr std::string_view kFormerMark = "CVL1";

// In a frame of small ones, while many are sent.
constexpr size_t kUsualTexts = 64;

class Writer {
public:
    Writer() = default;
    // Goes on behind what is there.
    explicit Writer(std::string&& begun) : out_(std::move(begun)) {}

    // One behind the other.
    template <class... Numbers>
    Writer& numbers(Numbers... values) {
        char bytes[(sizeof values + ...)];
        char* at = bytes;
        const auto put = [&at](auto value) {
            for (size_t i = 0; i < sizeof value; ++i) {
                *at++ = static_cast<char>(static_cast<uint64_t>(value) >> (8 * i));
            }
        };
        (put(values), ...);
        out_.append(bytes, sizeof bytes);
        return *this;
    }
    template <class Number>
    Writer& number(Number value) {
        return numbers(value);
    }
    Writer& text(std::string_view value) {
        number(static_cast<uint32_t>(value.size()));
        return bytes(value);
    }
    Writer& bytes(std::string_view value) {
        out_ += value;
        return *this;
    }
    Writer& head(const MessageHead& head) {
        numbers(head.kind, head.pingOutcome, head.remainingMilliseconds, head.pingNumber);
        return text(head.source).text(head.target);
    }
    void reserve(size_t bytes) { out_.reserve(bytes); }
    bool isEmpty() const { return out_.empty(); }
    std::string take() { return std::move(out_); }

private:
    std::string out_;
};

// Reads from what is there; after the first failure everything is zero and empty.
class Reader {
public:
    explicit Reader(std::string_view in) : in_(in) {}

    template <class Number>
    Number number() {
        uint64_t value = 0;
        const std::string_view read = bytes(sizeof(Number));
        for (size_t i = 0; i < read.size(); ++i) {
            value |= static_cast<uint64_t>(static_cast<unsigned char>(read[i])) << (8 * i);
        }
        return static_cast<Number>(value);
    }
    template <class Enum>
    Enum choice(Enum first, Enum last) {
        const auto value = number<uint8_t>();
        if (value < static_cast<uint8_t>(first) || value > static_cast<uint8_t>(last)) {
            good_ = false;
            return first;
        }
        return static_cast<Enum>(value);
    }
    std::string_view text(size_t atMost) {
        const auto size = number<uint32_t>();
        good_ = good_ && size <= atMost;
        return bytes(size);
    }
    std::string_view bytes(size_t count) {
        good_ = good_ && count <= in_.size();
        if (!good_) {
            return {};
        }
        const std::string_view read = in_.substr(0, count);
        in_.remove_prefix(count);
        return read;
    }
    std::string_view rest() { return bytes(in_.size()); }
    std::string portName() {
        const std::string_view name = text(bounds::kSpecifierBytes);
        good_ = good_ && isPortName(name);
        return std::string(name);
    }
    MessageHead head() {
        MessageHead head;
        head.kind = choice(MessageKind::request, MessageKind::pong);
        head.pingOutcome = choice(Outcome::delivered, Outcome::lost);
        head.remainingMilliseconds = number<int64_t>();
        head.pingNumber = number<uint64_t>();
        head.source = portName();
        head.target = portName();
        good_ = good_ && head.remainingMilliseconds >= -1 &&
                head.remainingMilliseconds <= bounds::kTimeMilliseconds;
        return head;
    }
    void require(bool holds) { good_ = good_ && holds; }
    // Also that nothing is left over: no two writers may differ in what they mean.
    bool isDone() const { return good_ && in_.empty(); }
    bool isGood() const { return good_; }

private:
    std::string_view in_;
    bool good_ = true;
};

void readPart(Reader& in, Part& part) {
    part.message = in.number<uint64_t>();
    part.total = in.number<uint64_t>();
    part.offset = in.number<uint64_t>();
    if (part.offset == 0) {
        part.head = in.head();
    }
    part.bytes = in.rest();
    in.require(part.message != 0 && part.total != 0 && part.total <= bounds::kTextBytes);
    in.require(part.offset < part.total && !part.bytes.empty() &&
               part.bytes.size() <= part.total - part.offset);
}

Part readText(Reader& in) {
    Part text;
    text.message = in.number<uint64_t>();
    text.head = in.head();
    text.bytes = in.text(bounds::kSmallBytes);
    text.total = text.bytes.size();
    in.require(text.message != 0 && !text.bytes.empty());
    return text;
}

void readCargo(Reader& in, Frame& frame) {
    frame.cargo = in.choice(CargoKind::part, CargoKind::texts);
    switch (frame.cargo) {
    case CargoKind::part:
        readPart(in, frame.part);
        break;
    case CargoKind::outcomes:
        for (auto left = in.number<uint32_t>(); left > 0 && in.isGood(); --left) {
            const auto message = in.number<uint64_t>();
            frame.outcomes.emplace_back(message, in.choice(Outcome::delivered, Outcome::lost));
        }
        break;
    case CargoKind::launch:
        frame.app = in.portName();
        frame.parameters = in.text(bounds::kWholeBytes);
        break;
    case CargoKind::texts:
        frame.texts.reserve(kUsualTexts);
        do {
            frame.texts.push_back(readText(in));
        } while (in.isGood() && !in.isDone());
        break;
    }
}

} // namespace

void addText(std::string& cargo, uint64_t message, const MessageHead& head, std::string_view text) {
    Writer out(std::move(cargo));
    if (out.isEmpty()) {
        out.reserve(bounds::kFrameBytes);
        out.number(static_cast<uint8_t>(CargoKind::texts));
    }
    cargo = out.number(message).head(head).text(text).take();
}

std::string encodeCargo(const Frame& frame) {
    if (frame.cargo == CargoKind::texts) {
        std::string cargo;
        for (const Part& text : frame.texts) {
            addText(cargo, text.message, text.head, text.bytes);
        }
        return cargo;
    }
    Writer out;
    out.number(static_cast<uint8_t>(frame.cargo));
    switch (frame.cargo) {
    case CargoKind::part:
        out.reserve(bounds::kFrameBytes + frame.part.bytes.size());
        out.number(frame.part.message).number(frame.part.total).number(frame.part.offset);
        if (frame.part.offset == 0) {
            out.head(frame.part.head);
        }
        out.bytes(frame.part.bytes);
        break;
    case CargoKind::outcomes:
        out.number(static_cast<uint32_t>(frame.outcomes.size()));
        for (const auto& [message, outcome] : frame.outcomes) {
            out.number(message).number(static_cast<uint8_t>(outcome));
        }
        break;
    case CargoKind::launch:
        out.text(frame.app).text(frame.parameters);
        break;
    case CargoKind::texts:
        break; // above
    }
    return out.take();
}

std::string encodeAround(std::string_view cargo, uint64_t senderLife, uint64_t receiverLife,
                         uint64_t number, uint64_t acknowledged, size_t more) {
    Writer out;
    out.reserve(cargo.size() + more + 64);
    out.bytes(kMark).number(static_cast<uint8_t>(FrameKind::cargo));
    out.number(senderLife).number(receiverLife);
    return out.number(number).number(acknowledged).bytes(cargo).take();
}

std::string encode(const Frame& frame) {
    Writer out;
    out.bytes(kMark).number(static_cast<uint8_t>(frame.kind));
    out.number(frame.senderLife).number(frame.receiverLife);
    switch (frame.kind) {
    case FrameKind::hello:
    case FrameKind::presence:
        out.number(static_cast<uint32_t>(frame.apps.size()));
        for (const auto& [app, state] : frame.apps) {
            out.text(app).number(static_cast<uint8_t>(state));
        }
        break;
    case FrameKind::cargo:
        return encodeAround(encodeCargo(frame), frame.senderLife, frame.receiverLife, frame.number,
                            frame.acknowledged);
    case FrameKind::acknowledgement:
        out.number(frame.acknowledged).number(static_cast<uint8_t>(frame.gap ? 1 : 0));
        break;
    case FrameKind::kept:
        out.number(frame.number);
        [[fallthrough]];
    case FrameKind::ping:
    case FrameKind::pong:
        out.head(frame.head).bytes(frame.text);
        break;
    default:
        break;
    }
    return out.take();
}

bool isOfOtherVersion(std::string_view bytes) {
    return bytes.size() > kMark.size() && bytes.starts_with(kMark.substr(0, kMark.size() - 1)) &&
           !bytes.starts_with(kMark);
}

bool decode(std::string_view bytes, Frame& out) {
    out = Frame();
    Reader in(bytes);
    const std::string_view mark = in.bytes(kMark.size());
    out.kind = in.choice(FrameKind::claim, FrameKind::kept);
    in.require(mark == kMark || (mark == kFormerMark && out.kind == FrameKind::kept));
    out.senderLife = in.number<uint64_t>();
    out.receiverLife = in.number<uint64_t>();
    in.require(out.senderLife != 0);
    switch (out.kind) {
    case FrameKind::hello:
    case FrameKind::presence: {
        const auto count = in.number<uint32_t>();
        in.require(count <= bounds::kEntries);
        for (uint32_t i = 0; i < count && in.isGood(); ++i) {
            std::string app = in.portName();
            out.apps.emplace_back(std::move(app), in.choice(AppState::away, AppState::refused));
        }
        break;
    }
    case FrameKind::cargo:
        out.number = in.number<uint64_t>();
        out.acknowledged = in.number<uint64_t>();
        in.require(out.number != 0);
        readCargo(in, out);
        break;
    case FrameKind::acknowledgement:
        out.acknowledged = in.number<uint64_t>();
        out.gap = in.number<uint8_t>() != 0;
        break;
    case FrameKind::kept:
        out.number = in.number<uint64_t>();
        in.require(out.number != 0);
        [[fallthrough]];
    case FrameKind::ping:
    case FrameKind::pong:
        out.head = in.head();
        out.text = in.rest();
        break;
    default:
        break;
    }
    return in.isDone();
}

bool isName(std::string_view text) {
    return !text.empty() && text.size() <= bounds::kNameBytes &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || c == '-';
           });
}

bool isPortName(std::string_view text) {
    return !text.empty() && text.size() <= bounds::kSpecifierBytes &&
           std::none_of(text.begin(), text.end(), [](char c) {
               return static_cast<unsigned char>(c) <= 0x20 || c == 0x7F || c == '/';
           });
}

} // namespace convey_link
