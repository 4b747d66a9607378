#include "platform/linux/PortWriter.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <thread>

#include "platform/linux/Deadline.h"
#include "platform/linux/PortBatch.h"
#include "platform/linux/PortFolder.h"
#include "platform/linux/PortPacket.h"

namespace platform {
namespace {

constexpr int kSendBufferBytes = 4 << 20; // what makes large texts fast where it was measured
constexpr size_t kSmallestPartBytes = 4096;
constexpr size_t kJoinedBytes = 1024;
constexpr size_t kSealStepBytes = 65'536; // a tenth of a millisecond
// While the system is short of memory there is nothing to wait for but time.
constexpr auto kMemoryPause = std::chrono::milliseconds(1);

// The ways in which a socket tells that nobody reads at its other end.
bool isGone(int error) {
    return error == EPIPE || error == ECONNRESET || error == ENOTCONN || error == ECONNREFUSED ||
           error == EBADF;
}

// Of what goes in the middle of a text: the receiver expects nothing but the rest of it.
PortWriter::Outcome inTheMiddle(PortWriter::Outcome outcome) {
    return outcome == PortWriter::Outcome::timedOut ? PortWriter::Outcome::brokenOff : outcome;
}

} // namespace

void PortWriter::prepare(int socket) {
    socket_ = socket;
    PortBatch::promise(socket);
    // The first way goes beyond the system's bound, but is for privileged processes only; what the
    // second asks for is cut to that bound without an error.
    int bufferBytes = kSendBufferBytes;
    if (setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &bufferBytes, sizeof bufferBytes) != 0) {
        (void)setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bufferBytes, sizeof bufferBytes);
    }
    socklen_t length = sizeof bufferBytes;
    // What was granted counts, not what was asked for: a packet larger than the buffer is refused.
    (void)getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bufferBytes, &length);
    // Several packets in flight, so that one is written while another is read.
    partBytes_ = std::clamp(static_cast<size_t>(std::max(bufferBytes, 0)) / 4, kSmallestPartBytes,
                            PortPacket::kMaximumPartBytes);
}

PortWriter::Outcome PortWriter::send(const PortPieces& text, PortSeals seals, Deadline& deadline) {
    if (text.seal != nullptr && seals != PortSeals::none) {
        return sendSealed(text, seals, deadline);
    }
    // A small text comes in one piece.
    return text.body.empty() && text.size() <= PortPacket::kMaximumWholeBytes
               ? sendWhole(text.head, deadline)
               : sendInParts(text, deadline);
}

PortWriter::Outcome PortWriter::sendPacket(const PortPacket* header, std::string_view bytes,
                                           Deadline& deadline) {
    // Copying a small text behind its header costs less than describing two pieces to the system.
    unsigned char joined[PortPacket::kHeaderBytes + kJoinedBytes];
    iovec pieces[2] = {{joined, 0}, {const_cast<char*>(bytes.data()), bytes.size()}};
    const iovec* first = &pieces[1];
    if (header != nullptr) {
        header->write(joined);
        pieces[0].iov_len = PortPacket::kHeaderBytes;
        first = &pieces[0];
        if (!bytes.empty() && bytes.size() <= kJoinedBytes) {
            std::memcpy(joined + PortPacket::kHeaderBytes, bytes.data(), bytes.size());
            pieces[0].iov_len += bytes.size();
        }
    }
    const bool single = header == nullptr || bytes.size() <= kJoinedBytes;
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    for (;;) {
        const ssize_t sent =
            single ? ::send(socket_, first->iov_base, first->iov_len, MSG_NOSIGNAL | MSG_DONTWAIT)
                   : sendmsg(socket_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            return Outcome::done;
        }
        lastError_ = errno;
        if (lastError_ == EINTR) {
            continue;
        }
        if (isGone(lastError_)) {
            return Outcome::gone;
        }
        const bool outOfMemory = lastError_ == ENOBUFS || lastError_ == ENOMEM;
        if (lastError_ != EAGAIN && !outOfMemory) {
            return Outcome::failed;
        }
        if (outOfMemory && bytes.size() > kSmallestPartBytes) {
            return Outcome::failed; // a smaller packet may do
        }
        if (deadline.passed()) {
            return Outcome::timedOut;
        }
        if (outOfMemory) {
            std::this_thread::sleep_for(kMemoryPause);
        } else {
            pollfd writable = {socket_, POLLOUT, 0};
            (void)poll(&writable, 1, deadline.leftMilliseconds());
        }
    }
}

PortWriter::Outcome PortWriter::sendWhole(std::string_view text, Deadline& deadline) {
    const PortPacket header{PortPacket::whole, text.size()};
    const Outcome outcome = sendPacket(&header, text, deadline);
    // A packet of this size may be more than the system has in one piece, or allows.
    return outcome == Outcome::failed && text.size() > kSmallestPartBytes
               ? sendInParts({text, {}}, deadline)
               : outcome;
}

// Each piece in packets of its own: a receiver has the second one where it is used, so.
PortWriter::Outcome PortWriter::sendInParts(const PortPieces& text, Deadline& deadline) {
    // From here on the receiver expects nothing but the text's bytes on this connection: whatever
    // stops in the middle leaves a connection that is good for nothing else.
    const PortPacket header{PortPacket::announced, text.size()};
    Outcome outcome = sendPacket(&header, {}, deadline);
    if (outcome != Outcome::done) {
        return outcome; // nothing was sent
    }
    deadline.begun();
    outcome = sendParts(text.head, deadline);
    if (outcome == Outcome::done) {
        outcome = sendParts(text.body, deadline);
    }
    return inTheMiddle(outcome);
}

// A seal takes as long as its digest, and the receiver makes the same one: both at once, when the
// seal comes last.
PortWriter::Outcome PortWriter::sendSealed(const PortPieces& text, PortSeals seals,
                                           Deadline& deadline) {
    if (seals != PortSeals::last || text.size() == 0 ||
        text.size() > MessagePorts::kMaximumTextBytes - PortSeal::kMaximumBytes) {
        // In one piece with what stands behind it: to the receiver that is the head.
        std::string head(text.sealed());
        head += text.head;
        return text.body.empty() && head.size() <= PortPacket::kMaximumWholeBytes
                   ? sendWhole(head, deadline)
                   : sendInParts({head, text.body}, deadline);
    }
    const PortPacket header{PortPacket::sealed, text.size()};
    Outcome outcome = sendPacket(&header, {}, deadline);
    if (outcome != Outcome::done) {
        return outcome; // nothing was sent
    }
    deadline.begun();
    outcome = sendParts(text.head, text, deadline);
    if (outcome == Outcome::done) {
        outcome = sendParts(text.body, text, deadline);
    }
    if (outcome == Outcome::done) {
        outcome = sendPacket(nullptr, text.sealed(), deadline);
    }
    return inTheMiddle(outcome);
}

PortWriter::Outcome PortWriter::sendParts(std::string_view piece, Deadline& deadline) {
    return sendParts(piece, PortPacket::kMaximumPartBytes,
                     [&](std::string_view part) { return sendPacket(nullptr, part, deadline); });
}

// As far as the system takes parts at once these go first, so that the receiver has work; the seal
// takes its own while there is no room.
PortWriter::Outcome PortWriter::sendParts(std::string_view piece, const PortPieces& sealed,
                                          Deadline& deadline) {
    return sendParts(piece, PortPacket::kSealedPartBytes, [&](std::string_view part) {
        Deadline atOnce(0);
        bool more = true;
        for (;;) {
            const Outcome outcome = sendPacket(nullptr, part, more ? atOnce : deadline);
            if (outcome != Outcome::timedOut || !more || deadline.passed()) {
                return outcome;
            }
            more = sealed.sealOn(kSealStepBytes);
        }
    });
}

template <class SendPart>
PortWriter::Outcome PortWriter::sendParts(std::string_view piece, size_t partBytes,
                                          SendPart&& sendPart) {
    while (!piece.empty()) {
        const std::string_view part = piece.substr(0, std::min(partBytes, partBytes_));
        const Outcome outcome = sendPart(part);
        if (outcome == Outcome::done) {
            piece.remove_prefix(part.size());
        } else if (outcome == Outcome::failed && part.size() > kSmallestPartBytes) {
            // Kept for the texts that come after, which would meet the same.
            partBytes_ = std::max(part.size() / 2, kSmallestPartBytes);
        } else {
            return outcome;
        }
    }
    return Outcome::done;
}

} // namespace platform
