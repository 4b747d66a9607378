#pragma once

#include <cstddef>
#include <string_view>

#include "platform/MessagePort.h"

namespace platform {

class Deadline;
struct PortPacket;
enum class PortSeals;

// Writes texts into one connection, in packets as the system takes them. The socket stays its
// owner's. One thread at a time.
class PortWriter {
public:
    enum class Outcome {
        done,
        gone,      // nobody reads at the other end
        timedOut,  // nothing was sent
        brokenOff, // timed out in the middle of a text: the connection is good for nothing else
        failed     // see lastError
    };

    // For a socket that was just made and is not connected yet: makes room for large texts.
    void prepare(int socket);
    // The errno of the last packet that was not sent.
    int lastError() const { return lastError_; }

    // `seals`: what the receiver makes of them.
    Outcome send(const PortPieces& text, PortSeals seals, Deadline& deadline);

private:
    Outcome sendPacket(const PortPacket* header, std::string_view bytes, Deadline& deadline);
    Outcome sendWhole(std::string_view text, Deadline& deadline);
    Outcome sendInParts(const PortPieces& text, Deadline& deadline);
    Outcome sendSealed(const PortPieces& text, PortSeals seals, Deadline& deadline);
    Outcome sendParts(std::string_view piece, Deadline& deadline);
    Outcome sendParts(std::string_view piece, const PortPieces& sealed, Deadline& deadline);
    template <class SendPart>
    Outcome sendParts(std::string_view piece, size_t partBytes, SendPart&& sendPart);

    int socket_ = -1;
    size_t partBytes_ = 0; // of a packet at most
    int lastError_ = 0;
};

} // namespace platform
