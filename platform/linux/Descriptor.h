#pragma once

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace platform {

// The descriptor, moved where it is no standard stream; -1, and `errno` says why, when there is no
// room. A host that has closed one of its streams is given that number for the next file that is
// opened: whatever it then prints would be written into a lock or an identifier, and what is
// started from it would get that file as its stream.
inline int behindStandardStreams(int fd) noexcept {
    if (fd < 0 || fd > STDERR_FILENO) {
        return fd;
    }
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    close(fd);
    errno = error;
    return moved;
}

// Owns a file descriptor, which is none of the standard streams. Used by one thread at a time.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(behindStandardStreams(fd)) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    // Closes it; Linux releases the number even when close reports an interruption.
    void reset() {
        if (fd_ >= 0) {
            close(std::exchange(fd_, -1));
        }
    }

private:
    int fd_ = -1;
};

// Repeats a system call that a signal interrupts.
template <class Call>
auto uninterrupted(Call&& call) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

} // namespace platform
