#pragma once

#include <cstddef>
#include <memory>
#include <sys/socket.h>
#include <sys/un.h>

#include "platform/linux/PortPacket.h"

namespace platform {

// Packets that one call draws from a connection. What does not fit into the room that a packet is
// given is lost, and how long one is shows when it is drawn: behind a small text there may be a
// large one. So each has room for the largest, which takes memory only where it is written to, and
// only the connections of senders that have promised to send no larger ones are drawn from so.
//
// Belongs to one port, under its lock; while a text that is announced in it waits for room, to the
// connection that brought it.
class PortBatch {
public:
    static constexpr int kPackets = 8;

    struct Packet {
        const unsigned char* bytes;
        size_t size;
        int flags; // of the message
    };

    // The sender's promise: no packet has more than a header, or none, and `kMaximumPartBytes`. It
    // is the address of its end, which the other one is told when the connection is made; a peer
    // that does not know of it has no address, or another. For a socket that is not connected yet.
    // Without memory nothing is promised.
    static void promise(int socket);
    static bool isPromise(const sockaddr_un& address, socklen_t length);

    // Null without memory.
    static std::unique_ptr<PortBatch> make();
    ~PortBatch();
    PortBatch(const PortBatch&) = delete;
    PortBatch& operator=(const PortBatch&) = delete;

    // Draws what is there, at most `kPackets`; their number, or -1 and errno. Those of the draw
    // before are gone.
    int draw(int socket);
    bool isDone() const { return next_ == count_; }
    Packet next();
    // Of those that `next` has not given.
    size_t leftBytes() const;

private:
    explicit PortBatch(unsigned char* room);

    unsigned char* const room_;
    mmsghdr messages_[kPackets];
    iovec places_[kPackets];
    int next_ = 0;
    int count_ = 0;
};

} // namespace platform
