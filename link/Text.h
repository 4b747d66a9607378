#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "link/Frame.h"
#include "platform/MessagePort.h"

namespace convey_link {

// A text as it goes to a port: all of a small one; of a large one what stands in front of its body,
// and the body where it arrived. That is not copied, and the digest is made while it is sent.
struct PortMessage {
    PortMessage(std::string text) : head(std::move(text)) {}
    platform::PortPieces pieces() const { return {head, body, seal.get()}; }
    size_t size() const { return head.size() + body.size(); }

    std::string head;
    std::string arrived;   // too long to lie in the string itself, so that moving it moves nothing
    std::string_view body; // a piece of that
    std::unique_ptr<platform::PortSeal> seal;
};

// A text on its way to another link: all of a small one; of a large one what stands in front of its
// body, and the body in the block in which it came from a port. That is not copied.
struct Travelling {
    Travelling(std::string text) : head(std::move(text)) {}
    size_t size() const { return head.size() + body.size(); }
    // Appends `count` bytes of it, from `place` on.
    void append(std::string& out, size_t place, size_t count) const;

    std::string head;
    platform::PortText::Block block;
    std::string_view body; // all of that
};

// The lines of one message's text (docs/protocol.md, "Message texts"), to be looked at and changed
// without reading the body: what a link does not understand passes through it unchanged.
//
// Points into the text that it was read from. One thread.
class Text {
public:
    // Reads the first message of `text`, and takes it off there. Line feeds in front are skipped.
    // False when nothing is left. NUL bytes count as line feeds: `normalise` has turned them.
    [[nodiscard]] static bool read(std::string_view& text, Text& out);
    // The same of one message whose body is a piece of its own. False when that is not all that it
    // announces, and when something is left behind its head.
    [[nodiscard]] static bool read(std::string_view head, std::string_view body, Text& out);
    // The same of one that has come from elsewhere, whatever ends its lines.
    [[nodiscard]] static bool readForeign(std::string& text, Text& out);
    // A text with these lines, in which nothing is yet.
    Text() = default;
    Text(Text&&) = default;
    Text& operator=(Text&&) = default;

    // The last line of that name, as readers take it; empty without one.
    std::string_view get(std::string_view name) const;
    bool has(std::string_view name) const;
    // One line of that name, in the place of all others of it. The name is good as long as this.
    void set(std::string_view name, std::string value) { setTo(name, keep(std::move(value))); }
    // The same with a value that is not copied, and is good as long as this, too.
    void setTo(std::string_view name, std::string_view value);
    void remove(std::initializer_list<std::string_view> names);
    void setBody(std::string body);
    std::string_view body() const { return body_; }
    // Seconds since 1970; -1 without one.
    int64_t timestamp() const { return timestamp_; }

    // The text, with a timestamp of now; with the digest of this user in front when the layer makes
    // some.
    std::string write() const;
    // The same for a port. `arrived` is what this was read from, and is good as long as the result.
    PortMessage write(std::string&& arrived) const;
    // Without digest and timestamp: what travels. `block`, where it is not null, has the body alone
    // and is taken over.
    Travelling writePlain(platform::PortText::Block block = nullptr) const;

private:
    bool readHead(std::string_view& text, size_t& announced);
    size_t headBytes() const;
    void addHead(std::string& out) const;
    void addPortHead(std::string& out) const;

    struct Line {
        std::string_view name;
        std::string_view value;
        std::string_view whole; // with its end, as it was read; empty for one that was set
    };
    std::string_view keep(std::string piece) { return made_.emplace_back(std::move(piece)); }

    std::vector<Line> lines_;
    std::list<std::string> made_; // values that were set, each of which stays where it is
    std::string ownBody_;
    std::string_view body_;
    int64_t timestamp_ = -1;
};

// Turns what readers take for the end of a line into one.
void normalise(char* text, size_t lengthBytes);
inline void normalise(std::string& text) {
    normalise(text.data(), text.size());
}

// The number that a line says; -1 for none.
int64_t numberOf(std::string_view value);

// Header lines that the link reads and writes.
inline constexpr std::string_view kTarget = "Target";
inline constexpr std::string_view kSender = "Sender";
inline constexpr std::string_view kType = "Type";
inline constexpr std::string_view kTimeoutLine = "Timeout";
inline constexpr std::string_view kSerial = "Serial-Number";
inline constexpr std::string_view kWanted = "Response-Request";
inline constexpr std::string_view kLife = "@CV>Life";
inline constexpr std::string_view kEcho = "ECHO_REQUEST";
inline constexpr std::string_view kPingNumber = "Ping-Number";
// The end of the name of a background thread's port.
inline constexpr std::string_view kThreadSuffix = "#thread";
// Says which link vouches for what it delivers: "desk@studio".
inline constexpr std::string_view kVouch = "Convey-Link";
// To the link, of a launch in a used application's place: whether its launcher leaves parameters.
inline constexpr std::string_view kParametersLine = "Parameters";

// True for what answers a request, and for what an observer is forwarded.
bool isReply(const Text& message);
// Whether somebody is told of the end of a request of which these replies are wanted, also of one
// that its target does not answer any more.
bool isEndWanted(std::string_view wanted);
// What ends a request of which these replies are wanted.
bool isLastReply(const Text& reply, std::string_view wanted);

// When the message's time is over, of the steady clock that says `now`: INT64_MAX for never. One
// without a time-out has the one that the layer gives.
int64_t deadlineOf(const Text& message, int64_t now);
// The time that is left, -1 for all, becomes the message's own; its end.
int64_t setTime(Text& message, int64_t remaining, int64_t now);

// Who asks, and what of an answer is wanted.
struct Asked {
    std::string asker; // the name that the request has as sender
    // What follows is empty where no replies are wanted: nobody is told of such a request.
    std::string target; // the name that it has as target
    std::string serial;
    std::string life;
    std::string wanted;
};
Asked askedBy(const Text& request);
// Calls with the replies to a request that has ended so and has no other: an error, or "Timeout"
// for one whose time was over; then "Processed". Those that are wanted, each a text of its own.
void failure(const Asked& request, Outcome outcome, const std::function<void(Text&)>& reply);

} // namespace convey_link
