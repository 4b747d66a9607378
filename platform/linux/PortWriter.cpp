#include "platform/linux/PortWriter.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <thread>

#include "platform/linux/Deadline.h"

namespace platform {
namespace {

constexpr int kSendBufferBytes = 4 << 20; // what makes large texts fast where it was measured
constexpr size_t kJoinedBytes = 1024;
// While the system is short of memory there is nothing to wait for but time.
constexpr auto kPause = std::chrono::milliseconds(1);

// The ways in which a socket tells that nobody reads at its other end.
bool isGone(int error) {
    return error == EPIPE || error == ECONNRESET || error == ENOTCONN || error == ECONNREFUSED ||
           error == EBADF;
}

} // namespace

void PortWriter::prepare(int socket) {
    socket_ = socket;
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
            std::this_thread::sleep_for(kPause);
        } else {
            pollfd writable = {socket_, POLLOUT, 0};
            (void)poll(&writable, 1, deadline.leftMilliseconds());
        }
    }
}

} // namespace platform
