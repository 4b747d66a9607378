#pragma once

#include <cstddef>
#include <string_view>

#include "platform/linux/PortPacket.h"

namespace platform {

class Deadline;

// Writes texts into one connection, in packets as the system takes them. The socket stays its
// owner's. One thread at a time.
class PortWriter {
public:
    enum class Outcome {
        done,
        gone,     // nobody reads at the other end
        timedOut, // nothing was sent
        failed    // see lastError
    };

    static constexpr size_t kSmallestPartBytes = 4096;

    // For a socket that was just made and is not connected yet: makes room for large texts.
    void prepare(int socket);
    // The errno of the last packet that was not sent.
    int lastError() const { return lastError_; }

    Outcome sendPacket(const PortPacket* header, std::string_view bytes, Deadline& deadline);
    size_t partBytes() const { return partBytes_; }
    void setPartBytes(size_t bytes) { partBytes_ = bytes; }

private:
    int socket_ = -1;
    size_t partBytes_ = kSmallestPartBytes;
    int lastError_ = 0;
};

} // namespace platform
