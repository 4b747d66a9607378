#include "platform/StandardStreams.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <new>
#include <poll.h>
#include <streambuf>
#include <string_view>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace platform {
namespace {

constexpr int kStatusWithoutMemory = 1;
constinit std::terminate_handler gTerminate = nullptr; // what was there before

// Memory can run out where nobody catches it: in the libraries' own start before `main`, in what
// they have declared to throw nothing, in a thread. A program that then says so and ends is no
// crash to be looked into. Nothing here takes memory.
[[noreturn]] void endWithoutMemory() {
    try {
        throw; // the one that nobody caught
    } catch (const std::bad_alloc&) {
        static constexpr char kReason[] = ": no memory\n";
        for (const std::string_view text :
             {std::string_view(program_invocation_short_name), std::string_view(kReason)}) {
            (void)!write(STDERR_FILENO, text.data(), text.size());
        }
        std::quick_exit(kStatusWithoutMemory); // the files of ports go with the process
    } catch (...) { // NOLINT(bugprone-empty-catch): a fault of the program, told as such below
    }
    gTerminate();
    std::abort();
}

// Before the constructors of any library that is written in this language.
[[gnu::constructor(101)]] void prepareForTheEnd() {
    gTerminate = std::set_terminate(endWithoutMemory);
}

constexpr size_t kBufferBytes = 8192; // a few lines of a listing

// Writes to standard output, and nothing more after a failure: what follows a gap would pass for
// the answer. It is the thread's that has opened it: when another one ends the process, and
// std::cout is flushed for that, the owner may be in the middle of a text.
class OutputBuffer final : public std::streambuf {
public:
    OutputBuffer() { setp(buffer_.data(), buffer_.data() + buffer_.size()); }

    int failure() const { return failure_; }

protected:
    int_type overflow(int_type c) override {
        if (!isOwners() || sync() != 0) {
            return traits_type::eof();
        }
        if (!traits_type::eq_int_type(c, traits_type::eof())) {
            *pptr() = traits_type::to_char_type(c);
            pbump(1);
        }
        return traits_type::not_eof(c);
    }

    int sync() override {
        if (!isOwners()) {
            return 0;
        }
        const char* next = pbase();
        while (failure_ == 0 && next != pptr()) {
            const ssize_t written = write(STDOUT_FILENO, next, static_cast<size_t>(pptr() - next));
            if (written >= 0) {
                next += written;
                // Whoever shares the pipe may have set it not to wait; that is no failure of what
                // is written.
            } else if (errno == EAGAIN) {
                pollfd room = {STDOUT_FILENO, POLLOUT, 0};
                if (poll(&room, 1, -1) < 0 && errno != EINTR) {
                    failure_ = errno;
                }
            } else if (errno != EINTR) {
                failure_ = errno;
            }
        }
        setp(buffer_.data(), buffer_.data() + buffer_.size());
        return failure_ == 0 ? 0 : -1;
    }

private:
    bool isOwners() const { return std::this_thread::get_id() == owner_; }

    const std::thread::id owner_ = std::this_thread::get_id();
    std::array<char, kBufferBytes> buffer_;
    int failure_ = 0;
};

// Never destroyed: std::cout is flushed at the very end.
OutputBuffer& outputBuffer() {
    static auto* const buffer = new OutputBuffer;
    return *buffer;
}

} // namespace

bool StandardStreams::open() {
    // Else the next file that is opened, perhaps the lock of a port, has the number of a standard
    // stream and is written to by whoever prints.
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) {
            continue; // open, as far as can be found out
        }
        // The other direction than the one it is used in, so that using it fails as before. The
        // lowest free number is the one that is missing.
        const int opened = ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        if (opened != fd) {
            return false;
        }
    }
    // That the reader has gone is told by the failure of the next writing, and the program ends by
    // its own status.
    (void)std::signal(SIGPIPE, SIG_IGN); // cannot fail for it
    std::cout.flush();
    std::cout.rdbuf(&outputBuffer());
    return true;
}

bool StandardStreams::finish() {
    return !std::cout.flush().fail() && outputBuffer().failure() == 0;
}

int StandardStreams::run(const char* program, int failed, int unwritten,
                         const std::function<int()>& work) {
    if (!open()) {
        return failed;
    }
    int status = failed;
    try {
        status = work();
    } catch (const std::exception& error) { // without the memory to say it nicely
        std::cerr << program << ": " << error.what() << std::endl;
    }
    // A reader that has gone (`| head -1`) has what it wants, and the answer stays what it is.
    if (!finish() && failure() != EPIPE) {
        std::cerr << program << ": the output cannot be written: "
                  << std::generic_category().message(failure()) << std::endl;
        status = unwritten;
    }
    return status;
}

int StandardStreams::failure() {
    return outputBuffer().failure();
}

} // namespace platform
