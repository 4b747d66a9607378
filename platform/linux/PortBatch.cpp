#include "platform/linux/PortBatch.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <numeric>
#include <sys/mman.h>
#include <sys/stat.h>

namespace platform {
namespace {

// Behind the zero byte that keeps it out of the file system.
constexpr char kPromise[] = "CVMP1-parts-of-1-MiB-";
constexpr size_t kPromiseBytes = sizeof kPromise - 1;
constexpr size_t kPacketBytes = PortPacket::kHeaderBytes + PortPacket::kMaximumPartBytes;
// A few lines of the processor's cache more, of which packets would all begin at the same place.
constexpr size_t kStep = kPacketBytes + 560;
constexpr size_t kRoomBytes = PortBatch::kPackets * kStep;

} // namespace

void PortBatch::promise(int socket) {
    struct stat own {}; // the system numbers its sockets, and an address has one owner
    if (fstat(socket, &own) != 0) {
        return;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const int bytes = std::snprintf(address.sun_path + 1, sizeof address.sun_path - 1, "%s%llx",
                                    kPromise, static_cast<unsigned long long>(own.st_ino));
    const auto length = offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(bytes);
    (void)bind(socket, reinterpret_cast<const sockaddr*>(&address),
               static_cast<socklen_t>(length)); // else it is read packet by packet
}

bool PortBatch::isPromise(const sockaddr_un& address, socklen_t length) {
    return length > offsetof(sockaddr_un, sun_path) + 1 + kPromiseBytes &&
           address.sun_path[0] == '\0' &&
           std::memcmp(address.sun_path + 1, kPromise, kPromiseBytes) == 0;
}

// Not from the heap, which keeps what was written to.
std::unique_ptr<PortBatch> PortBatch::make() {
    void* const room = mmap(nullptr, kRoomBytes, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (room == MAP_FAILED) {
        return nullptr;
    }
    std::unique_ptr<PortBatch> batch(new (std::nothrow)
                                         PortBatch(static_cast<unsigned char*>(room)));
    if (batch == nullptr) {
        (void)munmap(room, kRoomBytes);
    }
    return batch;
}

PortBatch::~PortBatch() {
    (void)munmap(room_, kRoomBytes);
}

// Once for all: the system leaves what it is told as it is.
PortBatch::PortBatch(unsigned char* room) : room_(room), messages_{} {
    for (size_t i = 0; i < kPackets; ++i) {
        places_[i] = {room + i * kStep, kPacketBytes};
        messages_[i].msg_hdr.msg_iov = &places_[i];
        messages_[i].msg_hdr.msg_iovlen = 1;
    }
}

int PortBatch::draw(int socket) {
    const int drawn = recvmmsg(socket, messages_, kPackets, MSG_DONTWAIT, nullptr);
    next_ = 0;
    count_ = std::max(drawn, 0);
    return drawn;
}

PortBatch::Packet PortBatch::next() {
    const int at = next_++;
    return {static_cast<const unsigned char*>(places_[at].iov_base), messages_[at].msg_len,
            messages_[at].msg_hdr.msg_flags};
}

size_t PortBatch::leftBytes() const {
    return std::accumulate(messages_ + next_, messages_ + count_, size_t{0},
                           [](size_t sum, const mmsghdr& one) { return sum + one.msg_len; });
}

} // namespace platform
