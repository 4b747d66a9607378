#include "platform/Log.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <deque>
#include <exception>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "limits/Limits.h"
#include "platform/Clock.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/PortFolder.h"

namespace platform {
namespace {

constexpr size_t kRememberedLines = limits::of("log.remembered");
constexpr int64_t kRepeatMilliseconds = limits::of("log.repeat") * 1000;
constexpr int64_t kLinesAtOnce = limits::of("log.lines");
constexpr int64_t kPauseMilliseconds = limits::of("log.pause");
constexpr size_t kMaximumLineBytes = limits::of("log.length");

// How many bytes from here on are one character of UTF-8; 0 for none.
size_t characterBytes(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    // C0 and C1 could only begin a form that is longer than needed, and what is above F4 lies
    // beyond the last character.
    const size_t bytes = first < 0x80   ? 1
                         : first < 0xC2 ? 0
                         : first < 0xE0 ? 2
                         : first < 0xF0 ? 3
                         : first < 0xF5 ? 4
                                        : 0;
    if (bytes > text.size()) {
        return 0;
    }
    const bool whole = std::all_of(text.begin() + 1, text.begin() + std::max<size_t>(bytes, 1),
                                   [](char c) { return (c & 0xC0) == 0x80; });
    return whole ? bytes : 0;
}

// Names and reasons come from others too, and must not steer the terminal or begin a line.
std::string printable(std::string_view text) {
    constexpr const char* digits = "0123456789abcdef";
    // Escaped, not left out: who reads it sees that there was something.
    std::string result;
    while (!text.empty() && result.size() < kMaximumLineBytes) {
        const auto first = static_cast<unsigned char>(text.front());
        const size_t bytes = characterBytes(text);
        // U+0080 to U+009F steer some terminals as well.
        const bool steers =
            first < 0x20 || first == 0x7F || (bytes == 2 && first == 0xC2 && (text[1] & 0x20) == 0);
        if (bytes != 0 && !steers) {
            result.append(text.substr(0, bytes));
        }
        for (size_t i = 0; (bytes == 0 || steers) && i < std::max<size_t>(bytes, 1); ++i) {
            const auto byte = static_cast<unsigned char>(text[i]);
            result.append("\\x").append(1, digits[byte >> 4]).append(1, digits[byte & 0xF]);
        }
        text.remove_prefix(std::max<size_t>(bytes, 1));
    }
    return text.empty() ? result : result + "...";
}

// Keeps SIGPIPE from the process while this thread writes; one that the write raised is taken away.
class WithoutPipeSignal {
public:
    WithoutPipeSignal() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        // One that was pending before is not ours to take away: somebody waits for it.
        sigset_t pending;
        sigpending(&pending);
        wasPending_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
    }
    ~WithoutPipeSignal() {
        // Taken while it is still blocked: unblocked first, it would end the process.
        const timespec now{};
        if (!wasPending_) {
            (void)uninterrupted([&] { return sigtimedwait(&pipe_, nullptr, &now); });
        }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    WithoutPipeSignal(const WithoutPipeSignal&) = delete;
    WithoutPipeSignal& operator=(const WithoutPipeSignal&) = delete;

private:
    sigset_t pipe_{};
    sigset_t before_{};
    bool wasPending_ = false;
};

// Writes to standard error what it takes at once; false when that is nothing. Whether a descriptor
// waits is shared with everybody who has it, so it is not ours to change.
bool writeAtOnce(const std::string& text) {
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) != 0) {
        return false; // closed
    }
    // A socket cannot be opened again by its path below /proc, but each call may ask not to wait.
    if (S_ISSOCK(status.st_mode)) {
        return send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0;
    }
    const WithoutPipeSignal blocked;
    // Only these make a writer wait for a reader. A file is written at once.
    if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
        // The same pipe or terminal, without waiting. Where that cannot be had (no descriptor left,
        // another user's) a look has to do.
        const Descriptor own(
            ::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (own) {
            return write(own.get(), text.data(), text.size()) > 0;
        }
        pollfd room = {STDERR_FILENO, POLLOUT, 0};
        if (poll(&room, 1, 0) <= 0 || (room.revents & POLLOUT) == 0) {
            return false;
        }
    }
    return write(STDERR_FILENO, text.data(), text.size()) > 0;
}

class LinuxLog final : public Log {
public:
    void problem(const std::string& line) override {
        try {
            // Outside of the lock: what others wait for is short.
            const std::string text = printable(line);
            const std::lock_guard<std::mutex> guard(mutex_);
            const int64_t now = Clock::own().monotonicMilliseconds();
            if (wasSaid(text, now)) {
                return;
            }
            std::string whole = "convey: " + text;
            if (leftOut_ != 0) {
                whole += " (" + std::to_string(leftOut_) + " lines before this were left out)";
            }
            // What could not be written is counted, and not remembered as said, so that it is tried
            // again when it happens again.
            if (!mayWrite(now) || !writeAtOnce(whole + "\n")) {
                ++leftOut_;
                return;
            }
            leftOut_ = 0;
            said_.push_back({text, now});
        } catch (const std::exception&) {
            return; // no memory for it: what is reported matters less than what is going on
        }
    }

    void problemOfUser(const std::string& line) override {
        if (isFirstOfUser(line)) {
            problem(line);
        }
    }

private:
    struct Said {
        std::string line;
        int64_t time;
    };

    // A mark of this user's session, in the folder that goes with it. Where none can be made,
    // saying it again is the smaller harm.
    static bool isFirstOfUser(const std::string& line) {
        try {
            PortFolder folder;
            if (folder.open(PortFolder::Use::create) != PortFolder::State::usable) {
                return true;
            }
            // Port files end otherwise, so that no mark passes for one.
            const std::string name = portFileName("said " + line) + ".said";
            const Descriptor mark(openat(folder.fd(), name.c_str(),
                                         O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                         0600));
            return mark || errno != EEXIST;
        } catch (const std::exception&) {
            return false;
        }
    }

    bool wasSaid(const std::string& text, int64_t now) {
        while (!said_.empty() && (said_.size() >= kRememberedLines ||
                                  now - said_.front().time >= kRepeatMilliseconds)) {
            said_.pop_front();
        }
        return std::any_of(said_.begin(), said_.end(),
                           [&](const Said& one) { return one.line == text; });
    }

    // So many at once, and then one after each pause.
    bool mayWrite(int64_t now) {
        const int64_t earned = (now - lastEarned_) / kPauseMilliseconds;
        // Moved only when something was earned: a host that reports more often than that would
        // otherwise never earn another line.
        if (earned > 0) {
            left_ = std::min(kLinesAtOnce, left_ + earned);
            lastEarned_ = now;
        }
        return left_ > 0 && left_-- > 0;
    }

    std::mutex mutex_;
    std::deque<Said> said_; // the oldest first
    int64_t left_ = kLinesAtOnce;
    int64_t lastEarned_ = 0;
    uint64_t leftOut_ = 0;
};

} // namespace

Log& Log::own() {
    static auto* const log = new LinuxLog;
    return *log;
}

} // namespace platform
