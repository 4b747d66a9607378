#include "platform/linux/PortFolder.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <nettle/sha2.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "limits/Limits.h"
#include "platform/Log.h"

namespace platform {
namespace {

// With the ending and "/proc/self/fd/" and a number it fits the 108 bytes of a socket's address.
constexpr size_t kMaximumFileNameBytes = limits::of("port.file-name");
constexpr size_t kDigestBytes = 16; // enough that two names never meet by chance

// Fixed by the protocol, so that a peer in another language makes the same names of files.
bool isPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.' || c == '#' || c == '+' || c == '=' || c == ',';
}

void appendHexadecimal(std::string& out, unsigned char byte) {
    constexpr const char* digits = "0123456789ABCDEF";
    out += digits[byte >> 4];
    out += digits[byte & 0xF];
}

enum class Runtime { own, none, unknown };

// Whether it is a folder that only this user can change: one that others could would let them put
// their own in the place of ours. `unknown`, with the reason in errno, decides nothing: the others
// may be there.
Runtime lookAt(const std::string& path, uid_t user) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return errno == ENOENT || errno == ENOTDIR ? Runtime::none : Runtime::unknown;
    }
    return S_ISDIR(status.st_mode) && status.st_uid == user && (status.st_mode & 022) == 0
               ? Runtime::own
               : Runtime::none;
}

std::string_view runtimeVariable() {
    const char* const variable = std::getenv("XDG_RUNTIME_DIR"); // NOLINT(concurrency-mt-unsafe)
    return variable == nullptr ? "" : variable;
}

// False, with the reason in errno, when that cannot be found out of the folder that `path` names
// then.
bool choosePath(std::string& path, uid_t ofUser) {
    const std::string user = std::to_string(ofUser);
    // A process that was started without the variable must still meet the others.
    // The same places in the same order as every peer looks: with another choice nobody would be
    // found.
    for (const std::string& runtime : {std::string(runtimeVariable()), "/run/user/" + user}) {
        if (runtime.empty() || runtime.front() != '/') {
            continue;
        }
        const Runtime found = lookAt(runtime, ofUser);
        if (found != Runtime::none) {
            path = runtime + "/convey";
            return found == Runtime::own;
        }
    }
    path = "/tmp/convey-" + user;
    return true;
}

// What the folder must be; the reason why it is not.
const char* faultOf(const struct stat& status, uid_t user) {
    return status.st_uid != user         ? "it belongs to another user"
           : (status.st_mode & 077) != 0 ? "it is open to other users"
                                         : nullptr;
}

// The folder that was used last. Nobody waits for the mutex, so that a child whose parent was in
// here at the fork is not stuck.
struct KnownFolder {
    std::mutex mutex;
    std::string variable;
    std::string path;
    std::shared_ptr<const PortDescriptor> folder;
    dev_t device = 0;
    ino_t file = 0;
};

KnownFolder& knownFolder() {
    static auto* const known = new KnownFolder;
    return *known;
}

} // namespace

std::string systemReason() {
    return strerrordesc_np(errno);
}

PortFolder::State PortFolder::open(Use use) {
    KnownFolder& known = knownFolder();
    const std::unique_lock<std::mutex> lock(known.mutex, std::try_to_lock);
    // Each time, since a process may become another user.
    const uid_t user = geteuid();
    struct stat status {};
    // The path is looked at each time: a folder that was removed and made again is another one,
    // where the others are now. The descriptor of a parent is none here.
    if (lock.owns_lock() && known.folder != nullptr && *known.folder &&
        known.variable == runtimeVariable() && lstat(known.path.c_str(), &status) == 0 &&
        status.st_dev == known.device && status.st_ino == known.file &&
        faultOf(status, user) == nullptr) {
        folder_ = known.folder;
        path_ = known.path;
        owner_ = status.st_uid;
        return State::usable;
    }
    const State state = openAnew(use, user, status);
    if (lock.owns_lock() && state == State::usable) {
        known.variable = runtimeVariable();
        known.path = path_;
        known.folder = folder_;
        known.device = status.st_dev;
        known.file = status.st_ino;
    }
    return state;
}

std::string PortFolder::currentPath() {
    std::string path;
    (void)choosePath(path, geteuid()); // why it cannot be used is told by who opens it
    return path;
}

PortFolder::State PortFolder::openAnew(Use use, uid_t user, struct stat& status) {
    const bool isChosen = choosePath(path_, user);
    const int choosing = errno;
    const auto refuse = [this](const std::string& reason, int error) {
        Log::system().problem("cannot use the port folder " + path_ + ": " + reason);
        errno = error;
        return State::refused;
    };
    const auto refuseForSystem = [&] {
        const int error = errno;
        return refuse(systemReason(), error);
    };
    // Enough to name what is in it and to ask for its owner; nothing more is needed of a folder,
    // and a link in its place is refused by the system itself.
    const auto openPath = [this] {
        return PortDescriptor(::open(path_.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    };
    if (!isChosen) {
        errno = choosing;
        return refuseForSystem();
    }
    PortDescriptor folder = openPath();
    if (!folder && errno == ENOENT && use == Use::create) {
        // Another process may have made it between the two; whose it is and how open, is asked
        // below in any case.
        if (mkdir(path_.c_str(), 0700) != 0 && errno != EEXIST) {
            return refuseForSystem();
        }
        folder = openPath();
    }
    if (!folder) {
        return errno == ENOENT ? State::missing : refuseForSystem();
    }
    if (fstat(folder.get(), &status) != 0) {
        return refuseForSystem();
    }
    // Asked of the open folder: what stands at the path may change behind a look.
    if (const char* const fault = faultOf(status, user)) {
        return refuse(fault, EPERM);
    }
    folder_ = std::make_shared<const PortDescriptor>(std::move(folder));
    owner_ = status.st_uid;
    return State::usable;
}

bool findIncarnation(const PortFolder& folder, const std::string& socketFile,
                     PortIncarnation& out) {
    struct stat status {};
    if (fstatat(folder.fd(), socketFile.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    const mode_t mode = status.st_mode & 07777;
    out = {status.st_dev, status.st_ino, status.st_ctim.tv_sec, status.st_ctim.tv_nsec,
           mode == kTakesSealedMode     ? PortSeals::last
           : mode == kTakesUnsealedMode ? PortSeals::none
                                        : PortSeals::first};
    return true;
}

PortFolder::Address PortFolder::addressOf(const std::string& file) const {
    Address result{};
    result.address.sun_family = AF_UNIX;
    std::string full = path_ + "/" + file;
    if (full.size() >= sizeof result.address.sun_path) {
        full = "/proc/self/fd/" + std::to_string(fd()) + "/" + file;
    }
    // Never cut in fact: the bound of a file's name is made for this room.
    const size_t bytes = std::min(full.size(), sizeof result.address.sun_path - 1);
    std::memcpy(result.address.sun_path, full.data(), bytes);
    result.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + bytes + 1);
    return result;
}

std::string portFileName(const std::string& portName) {
    std::string file;
    for (const char c : portName) {
        if (isPlain(c)) {
            file += c;
        } else {
            file += '%';
            appendHexadecimal(file, static_cast<unsigned char>(c));
        }
    }
    // Behind the escaping: the bound is one of the bytes that the system sees.
    if (file.size() <= kMaximumFileNameBytes) {
        return file;
    }
    sha256_ctx context;
    sha256_init(&context);
    sha256_update(&context, portName.size(), reinterpret_cast<const uint8_t*>(portName.data()));
    uint8_t digest[kDigestBytes];
    sha256_digest(&context, sizeof digest, digest);
    file.resize(kMaximumFileNameBytes - 2 * kDigestBytes - 1);
    file += '~'; // escaped in every name that is given whole
    for (const uint8_t byte : digest) {
        appendHexadecimal(file, byte);
    }
    return file;
}

bool isOwnPeer(int socket, int32_t& process) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    // Once more: of who is refused, what it has sent already is lost, and it hears nothing of that.
    for (int attempts = 2;
         getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0;) {
        if (--attempts == 0) {
            return false;
        }
    }
    process = credentials.pid;
    // Root may read and stop this process in any case, so refusing it would defend nothing.
    return credentials.uid == geteuid() || credentials.uid == 0;
}

} // namespace platform
