#include "platform/linux/PortName.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "limits/Limits.h"
#include "platform/Log.h"
#include "platform/linux/Descriptor.h"

namespace platform {
namespace {

constexpr int kLockAttempts = limits::of("port.claims");
constexpr mode_t kLockMode = S_ISVTX | S_IRUSR | S_IWUSR; // no cleaner of old files takes it away
// Two numbers of 64 bits and their marks fit.
constexpr size_t kRecordBytes = 64;

// The first byte is the owner's; what is behind it, that of whoever changes or judges what stands
// in the file: an owner until its number does, and who takes the name from one that has ended.
struct flock lockFrom(off_t byte, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    return lock;
}

// Which numbering of processes this one is in: the numbers of another mean nothing here. Asked once
// in each process, which stays in its numbering; only its children can come to be in another.
std::string processSpace() {
    static constinit std::atomic<ino_t> known{0};
    static constinit std::atomic<uint32_t> knownBy{0}; // what was asked before a fork is not
    const uint32_t generation = PortDescriptor::generation();
    struct stat status {};
    if (knownBy.load(std::memory_order_acquire) == generation) {
        status.st_ino = known.load(std::memory_order_relaxed);
    } else if (stat("/proc/self/ns/pid", &status) == 0) {
        known.store(status.st_ino, std::memory_order_relaxed);
        knownBy.store(generation, std::memory_order_release);
    } else {
        return "";
    }
    return std::to_string(status.st_ino);
}

using Found = PortName::Found;

// What is at a name: the file that was opened, another one or none, or that cannot be found out.
Found whatIsAt(const struct stat& opened, const PortFolder& folder, const std::string& file) {
    struct stat named {};
    if (fstatat(folder.fd(), file.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? Found::other : Found::unknown;
    }
    // Numbers of files are good for one file system only.
    return named.st_ino == opened.st_ino && named.st_dev == opened.st_dev ? Found::same
                                                                          : Found::other;
}

// What stands in the way of the first attempt (memory, a signal) is mostly gone with the second,
// and what stays behind here stays for good.
void removeFrom(const PortFolder& folder, const std::string& file) {
    const auto remove = [&] { return unlinkat(folder.fd(), file.c_str(), 0) == 0; };
    if (!remove() && errno != ENOENT && !remove() && errno != ENOENT) {
        Log::system().problem("cannot remove " + folder.path() + "/" + file + ": " +
                              systemReason());
    }
}

} // namespace

bool isOwnerGone(int lockFile) {
    char record[kRecordBytes];
    const ssize_t bytes = pread(lockFile, record, sizeof record, 0);
    const std::string_view text(record, static_cast<size_t>(bytes > 0 ? bytes : 0));
    const size_t blank = text.find(' ');
    const size_t end = text.find('\n');
    pid_t process = 0;
    if (end == std::string_view::npos || blank > end ||
        std::from_chars(record, record + blank, process).ec != std::errc() || process <= 0 ||
        // One that may not be signalled is there all the same.
        kill(process, 0) == 0 || errno != ESRCH) {
        return false; // it lives, or nobody has said who it is
    }
    return text.substr(blank + 1, end - blank - 1) == processSpace();
}

PortState portState(const PortFolder& folder, const std::string& fileName) {
    const std::string name = fileName + kLockEnding;
    const auto unknown = [&] {
        const int error = errno;
        Log::system().problem("cannot find out who owns " + folder.path() + "/" + name + ": " +
                              systemReason());
        errno = error;
        return PortState::unknown;
    };
    const Descriptor file(
        openat(folder.fd(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file) {
        return errno == ENOENT ? PortState::free : unknown();
    }
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fcntl(file.get(), F_OFD_GETLK, &lock) != 0) {
        return unknown();
    }
    return lock.l_type == F_UNLCK || isOwnerGone(file.get()) ? PortState::free : PortState::owned;
}

PortName::PortName(PortFolder folder, const std::string& portName)
    : folder_(std::move(folder)),
      socketFile_(portFileName(portName) + kSocketEnding),
      lockFile_(portFileName(portName) + kLockEnding) {}

bool PortName::own() {
    for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
        PortDescriptor lock(openat(folder_.fd(), lockFile_.c_str(),
                                   O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                                   kLockMode));
        // Held by the open file, not by the process: a second port of this process is refused too,
        // and closing any other descriptor of the file does not release it.
        struct flock whole = lockFrom(0, F_WRLCK);
        const bool isHeld = lock && fcntl(lock.get(), F_OFD_SETLK, &whole) == 0;
        const int refusal = errno;
        struct stat status {}; // with the lock held, so that nobody else writes the file
        const bool isKnown = lock && fstat(lock.get(), &status) == 0;
        if (lock && !isKnown && attempt == 0) {
            continue; // once more, rather than leave a file that nobody owns
        }
        if (!isKnown) {
            Log::system().problem("cannot open " + folder_.path() + "/" + lockFile_ + ": " +
                                  systemReason());
            return false;
        }
        if (!S_ISREG(status.st_mode) || status.st_uid != folder_.owner()) {
            Log::system().problem("refused " + folder_.path() + "/" + lockFile_ +
                                  ": not a file of this user's own");
            return false;
        }
        if (isHeld) {
            if (takeLock(std::move(lock), status)) {
                return true;
            }
            continue; // an owner has just removed it, and a lock on a removed file is worth nothing
        }
        if (refusal != EAGAIN && refusal != EACCES) {
            if (attempt == 0) {
                continue;
            }
            errno = refusal;
            Log::system().problem("cannot lock " + folder_.path() + "/" + lockFile_ + ": " +
                                  systemReason());
            return false;
        }
        // Judged with the lock behind the first byte: an owner that is about to write its number
        // holds that, too.
        struct flock judging = lockFrom(1, F_WRLCK);
        if (!isOwnerGone(lock.get()) || fcntl(lock.get(), F_OFD_SETLK, &judging) != 0 ||
            !isOwnerGone(lock.get())) {
            return false; // owned, or another process is about to own it
        }
        // A child of an owner that has ended holds the file. It keeps it; the name goes on with a
        // new one. Nobody else removes it meanwhile: who would must hold the same lock.
        if (whatIsAt(status, folder_, lockFile_) == Found::same) {
            (void)unlinkat(folder_.fd(), lockFile_.c_str(), 0);
        }
    }
    return false;
}

bool PortName::takeLock(PortDescriptor lock, const struct stat& status) {
    // With the lock held: from here on nobody else removes the file. Asked once more where it could
    // not be found out.
    Found found = whatIsAt(status, folder_, lockFile_);
    if (found == Found::unknown) {
        found = whatIsAt(status, folder_, lockFile_);
    }
    if (found != Found::same) {
        return false;
    }
    lock_ = std::move(lock);
    process_ = getpid();
    // An owner that died may have left its own. Without the record, and without the mark that keeps
    // cleaners off, the name is owned all the same.
    const std::string record = std::to_string(process_) + " " + processSpace() + "\n";
    if ((status.st_mode & 07777) != kLockMode) { // by a mask, or by who made it
        (void)!fchmod(lock_.get(), kLockMode);
    }
    if (pwrite(lock_.get(), record.data(), record.size(), 0) ==
        static_cast<ssize_t>(record.size())) {
        if (status.st_size > static_cast<off_t>(record.size())) {
            (void)!ftruncate(lock_.get(), static_cast<off_t>(record.size()));
        }
    } else {
        (void)!ftruncate(lock_.get(), 0); // on a full disk
    }
    struct flock written = lockFrom(1, F_UNLCK);
    (void)fcntl(lock_.get(), F_OFD_SETLK, &written);
    return true;
}

void PortName::noteSocket() {
    struct stat status {};
    if (fstatat(folder_.fd(), socketFile_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        socketDevice_ = status.st_dev;
        socketNumber_ = status.st_ino;
    }
}

// The locked file, or what is in its place. Asked once more where it could not be found out: as a
// rule it then can.
PortName::Found PortName::whatIsAtLockFile() const {
    const auto look = [this] {
        struct stat locked {};
        return fstat(lock_.get(), &locked) != 0 ? Found::unknown
                                                : whatIsAt(locked, folder_, lockFile_);
    };
    const Found found = look();
    return found == Found::unknown ? look() : found;
}

bool PortName::isOwner() const {
    return lock_ && process_ == getpid();
}

bool PortName::holdsLockFile() const {
    return whatIsAtLockFile() != Found::other;
}

bool PortName::holdsSocket() const {
    struct stat noted {};
    noted.st_dev = socketDevice_;
    noted.st_ino = socketNumber_;
    return whatIsAt(noted, folder_, socketFile_) != Found::other;
}

void PortName::removeFiles() const {
    // Files that somebody has put in the place of ours are theirs.
    if (isOwner() && whatIsAtLockFile() == Found::same) {
        removeFrom(folder_, socketFile_);
        // Last, and while it is still held: whoever opened it before sees that it is gone.
        removeFrom(folder_, lockFile_);
    }
}

} // namespace platform
