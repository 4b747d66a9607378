// Loaded before the system's library, loses every 200th small packet and says that it was sent: a
// fault of the kind that the soak is there to find.
#include <atomic>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
constexpr size_t kSmallBytes = 2048;
constexpr unsigned kOneOf = 200;
std::atomic<unsigned> gSent{0};
} // namespace

extern "C" __attribute__((visibility("default"))) ssize_t send(int socket, const void* bytes,
                                                               size_t length, int flags) {
    if (length < kSmallBytes && gSent.fetch_add(1) % kOneOf == kOneOf - 1) {
        return static_cast<ssize_t>(length);
    }
    return syscall(SYS_sendto, socket, bytes, length, flags, nullptr, 0);
}
