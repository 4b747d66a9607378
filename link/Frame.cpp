#include "link/Frame.h"

#include <algorithm>
#include <type_traits>
#include <utility>

#include "link/Bounds.h"

namespace convey_link {
namespace {

constexpr std::string_view kMark = "CVL2";
// Before small texts went together. Its requests may lie on the servers' disks still, and are the
// same in both.
constexpr std::string_view kFormerMark = "CVL1";

// In a frame of small ones, while many are sent.
constexpr size_t kUsualTexts = 64;

// The first and the last of those that may come.
template <class Enum>
constexpr std::pair<Enum, Enum> kRange;
template <>
constexpr auto kRange<FrameKind> = std::pair(FrameKind::claim, FrameKind::kept);
template <>
constexpr auto kRange<CargoKind> = std::pair(CargoKind::part, CargoKind::texts);
template <>
constexpr auto kRange<MessageKind> = std::pair(MessageKind::request, MessageKind::pong);
template <>
constexpr auto kRange<Outcome> = std::pair(Outcome::delivered, Outcome::lost);
template <>
constexpr auto kRange<AppState> = std::pair(AppState::away, AppState::refused);

// Says what a frame has; `Reader` has the same operations.
class Writer {
public:
    Writer() = default;
    // Goes on behind what is there.
    explicit Writer(std::string&& begun) : out_(std::move(begun)) {}

    // One behind the other.
    template <class... Numbers>
    void numbers(const Numbers&... values) {
        char bytes[(sizeof values + ...)];
        char* at = bytes;
        const auto put = [&at](auto value) {
            for (size_t i = 0; i < sizeof value; ++i) {
                *at++ = static_cast<char>(static_cast<uint64_t>(value) >> (8 * i));
            }
        };
        (put(values), ...);
        out_.append(bytes, sizeof bytes);
    }
    void text(std::string_view value, size_t /*atMost*/ = 0) {
        numbers(static_cast<uint32_t>(value.size()));
        rest(value);
    }
    void portName(std::string_view value) { text(value); }
    void rest(std::string_view value) { out_ += value; }
    template <class List, class Each>
    void list(const List& all, size_t /*atMost*/, const Each& each) {
        numbers(static_cast<uint32_t>(all.size()));
        toEnd(all, each);
    }
    template <class List, class Each>
    void toEnd(const List& all, const Each& each) {
        std::for_each(all.begin(), all.end(), each);
    }
    void require(bool /*holds*/) {}

    void reserve(size_t bytes) { out_.reserve(bytes); }
    std::string take() { return std::move(out_); }

private:
    std::string out_;
};

// Reads from what is there; after the first failure everything is zero and empty.
class Reader {
public:
    explicit Reader(std::string_view in) : in_(in) {}

    template <class... Numbers>
    void numbers(Numbers&... values) {
        (number(values), ...);
    }
    template <class Text>
    void text(Text& value, size_t atMost) {
        uint32_t size = 0;
        number(size);
        require(size <= atMost);
        value = bytes(size);
    }
    void portName(std::string& value) {
        text(value, bounds::kSpecifierBytes);
        require(isPortName(value));
    }
    void rest(std::string_view& value) { value = bytes(in_.size()); }
    template <class List, class Each>
    void list(List& all, size_t atMost, const Each& each) {
        uint32_t left = 0;
        number(left);
        require(left <= atMost);
        for (; left > 0 && good_; --left) {
            each(all.emplace_back());
        }
    }
    template <class List, class Each>
    void toEnd(List& all, const Each& each) {
        all.reserve(kUsualTexts);
        do {
            each(all.emplace_back());
        } while (good_ && !in_.empty());
    }
    void require(bool holds) { good_ = good_ && holds; }

    std::string_view bytes(size_t count) {
        require(count <= in_.size());
        if (!good_) {
            return {};
        }
        const std::string_view read = in_.substr(0, count);
        in_.remove_prefix(count);
        return read;
    }
    // Also that nothing is left over: no two writers may differ in what they mean.
    bool isDone() const { return good_ && in_.empty(); }

private:
    template <class Number>
    void number(Number& value) {
        uint64_t all = 0;
        const std::string_view read = bytes(sizeof(Number));
        for (size_t i = 0; i < read.size(); ++i) {
            all |= static_cast<uint64_t>(static_cast<unsigned char>(read[i])) << (8 * i);
        }
        if constexpr (std::is_enum_v<Number>) {
            require(all >= static_cast<uint64_t>(kRange<Number>.first) &&
                    all <= static_cast<uint64_t>(kRange<Number>.second));
        }
        value = good_ ? static_cast<Number>(all) : Number();
    }

    std::string_view in_;
    bool good_ = true;
};

// What each has, once for who writes (it is constant then) and who reads.

template <class Io, class Head>
void fieldsOfHead(Io& io, Head& head) {
    io.numbers(head.kind, head.pingOutcome, head.remainingMilliseconds, head.pingNumber);
    io.portName(head.source);
    io.portName(head.target);
    io.require(head.remainingMilliseconds >= -1 &&
               head.remainingMilliseconds <= bounds::kTimeMilliseconds);
}

template <class Io, class APart>
void fieldsOfPart(Io& io, APart& part) {
    io.numbers(part.message, part.total, part.offset);
    if (part.offset == 0) {
        fieldsOfHead(io, part.head);
    }
    io.rest(part.bytes);
    io.require(part.message != 0 && part.total <= bounds::kTextBytes && part.offset < part.total &&
               !part.bytes.empty() && part.bytes.size() <= part.total - part.offset);
}

template <class Io, class Number, class Head, class Bytes>
void fieldsOfText(Io& io, Number& message, Head& head, Bytes& text) {
    io.numbers(message);
    fieldsOfHead(io, head);
    io.text(text, bounds::kSmallBytes);
    io.require(message != 0 && !text.empty());
}

template <class Io, class AFrame>
void fieldsOfCargo(Io& io, AFrame& frame) {
    io.numbers(frame.cargo);
    switch (frame.cargo) {
    case CargoKind::part:
        fieldsOfPart(io, frame.part);
        break;
    case CargoKind::outcomes:
        io.list(frame.outcomes, SIZE_MAX, [&](auto& one) { io.numbers(one.first, one.second); });
        break;
    case CargoKind::launch:
        io.portName(frame.app);
        io.text(frame.parameters, bounds::kWholeBytes);
        break;
    case CargoKind::texts:
        io.toEnd(frame.texts,
                 [&](auto& one) { fieldsOfText(io, one.message, one.head, one.bytes); });
        break;
    }
}

template <class Io, class AFrame>
void fieldsOf(Io& io, AFrame& frame) {
    io.numbers(frame.kind, frame.senderLife, frame.receiverLife);
    io.require(frame.senderLife != 0);
    switch (frame.kind) {
    case FrameKind::hello:
    case FrameKind::presence:
        io.list(frame.apps, bounds::kEntries, [&](auto& one) {
            io.portName(one.first);
            io.numbers(one.second);
        });
        break;
    case FrameKind::cargo:
        io.numbers(frame.number, frame.acknowledged);
        io.require(frame.number != 0);
        fieldsOfCargo(io, frame);
        break;
    case FrameKind::acknowledgement:
        io.numbers(frame.acknowledged, frame.gap);
        break;
    case FrameKind::kept:
        io.numbers(frame.number);
        io.require(frame.number != 0);
        [[fallthrough]];
    case FrameKind::ping:
    case FrameKind::pong:
        fieldsOfHead(io, frame.head);
        io.rest(frame.text);
        break;
    default:
        break;
    }
}

} // namespace

void addText(std::string& cargo, uint64_t message, const MessageHead& head, std::string_view text) {
    const bool isNew = cargo.empty();
    Writer out(std::move(cargo));
    if (isNew) {
        out.reserve(bounds::kFrameBytes);
        out.numbers(CargoKind::texts);
    }
    fieldsOfText(out, message, head, text);
    cargo = out.take();
}

std::string encodeCargo(const Frame& frame) {
    Writer out;
    fieldsOfCargo(out, frame);
    return out.take();
}

std::string encodeAround(std::string_view cargo, uint64_t senderLife, uint64_t receiverLife,
                         uint64_t number, uint64_t acknowledged, size_t more) {
    Writer out;
    out.reserve(cargo.size() + more + 64);
    out.rest(kMark);
    out.numbers(FrameKind::cargo, senderLife, receiverLife, number, acknowledged);
    out.rest(cargo);
    return out.take();
}

std::string encode(const Frame& frame) {
    Writer out;
    out.rest(kMark);
    fieldsOf(out, frame);
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
    in.require(mark == kMark || mark == kFormerMark);
    fieldsOf(in, out);
    in.require(mark == kMark || out.kind == FrameKind::kept);
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
