#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What links send each other: the bytes of one NATS message, and their meaning.
//
// Little-endian; lengths are checked against what is there and against the bounds. Who sends a
// frame is not in it: the subject says so, which the server guards.
namespace convey_link {

enum class FrameKind : uint8_t {
    claim = 1, // is anybody of this name there?
    taken,     // yes, with another life
    hello,     // a user of applications asks for a presence
    presence,  // what the asker may use, and whether it runs
    bye,       // the link ends
    cargo,     // numbered: comes once and in order (Channel)
    acknowledgement,
    ping, // a question to a background thread; may be lost, as the network may be cut
    pong,
    kept // a whole request, by way of the disks of the servers
};

// What is known of an application over there.
enum class AppState : uint8_t { away, running, absent, refused };

// How a message, or a ping, ended at the other link.
enum class Outcome : uint8_t {
    delivered,   // in the target's port
    expired,     // its time was over
    notRunning,  // and may not be launched
    notLaunched, // could not be
    refused,     // not offered, no reply, or a loop
    tooMuch,     // is kept for the target already
    lost         // the other link ended meanwhile: it may have been delivered
};

// What a cargo carries.
enum class CargoKind : uint8_t { part = 1, outcomes, launch, texts };

// What a message is for the links.
enum class MessageKind : uint8_t { request = 1, reply, ping, pong };

struct MessageHead {
    MessageKind kind = MessageKind::request;
    std::string source;                // the name at its sender's machine
    std::string target;                // the name at its receiver's
    int64_t remainingMilliseconds = 0; // -1: for ever
    uint64_t pingNumber = 0;           // of a ping and its answer
    Outcome pingOutcome = Outcome::delivered;
};

struct Part {
    uint64_t message = 0; // its number, from 1, in its sender's life
    uint64_t total = 0;
    uint64_t offset = 0;
    MessageHead head; // with the first part only
    std::string_view bytes;
};

struct Frame {
    FrameKind kind = FrameKind::claim;
    uint64_t senderLife = 0;
    uint64_t receiverLife = 0; // as far as the sender knows it; 0: not
    // cargo; kept: the message's number in its sender's life
    uint64_t number = 0;
    // cargo and acknowledgement: all up to this have arrived
    uint64_t acknowledged = 0;
    bool gap = false; // an acknowledgement: what follows did not arrive in order, send it again
    CargoKind cargo = CargoKind::part;
    Part part;
    std::vector<Part> texts; // whole small ones, each with its head
    std::vector<std::pair<uint64_t, Outcome>> outcomes;
    // launch: the application and its parameters
    std::string app;
    std::string parameters;
    // hello: the applications asked for (their state means nothing); presence: their states
    std::vector<std::pair<std::string, AppState>> apps;
    // ping, pong and kept: the head, and the text
    MessageHead head;
    std::string_view text;
};

std::string encode(const Frame& frame);
// A cargo in two steps, since it may be sent again with other acknowledgements: its body, and the
// frame around it, with room for `more` bytes of its part, which may be appended to it.
std::string encodeCargo(const Frame& frame);
// Adds a text to a cargo of texts; an empty one becomes that.
void addText(std::string& cargo, uint64_t message, const MessageHead& head, std::string_view text);
std::string encodeAround(std::string_view cargo, uint64_t senderLife, uint64_t receiverLife,
                         uint64_t number, uint64_t acknowledged, size_t more = 0);
// Whether it looks like a frame of a link that is older or newer than this one.
bool isOfOtherVersion(std::string_view bytes);
// False, and `out` is not to be used, for what is no frame. The views point into `bytes`.
[[nodiscard]] bool decode(std::string_view bytes, Frame& out);

// True for the name of a realm or a link: 1 to 64 letters, digits, `_` and `-`.
bool isName(std::string_view text);
// True for what may be a port's name: not too long, without blanks, control characters and slashes.
bool isPortName(std::string_view text);

} // namespace convey_link
