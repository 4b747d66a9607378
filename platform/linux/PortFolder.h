#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "platform/linux/PortDescriptor.h"

namespace platform {

// The folder in which this user's ports live: of this user only, and no link. Two files a name, a
// socket and the lock that its owner holds. The process keeps it open, so that it is looked for
// once; each `open` makes sure, with one question, that it is still the one at its path.
class PortFolder {
public:
    enum class Use { create, ifThere };
    enum class State { usable, missing, refused };

    // Opens the folder: "convey" in the user's runtime folder, or in /tmp with the user's number
    // when there is none. `refused` is reported; errno has the reason.
    State open(Use use);

    // The path that `open` would take now; nothing is looked at but what leads to it.
    static std::string currentPath();

    int fd() const { return folder_ == nullptr ? -1 : folder_->get(); }
    const std::string& path() const { return path_; }
    // The user whose folder it is, and this process's when it was opened.
    uid_t owner() const { return owner_; }

    // The address of a file in the folder; one that is too long is given by way of the descriptor,
    // so it is good while the folder is open.
    struct Address {
        sockaddr_un address;
        socklen_t length;
    };
    Address addressOf(const std::string& file) const;

private:
    // `status` is that of the folder when it is usable.
    State openAnew(Use use, uid_t user, struct stat& status);

    std::shared_ptr<const PortDescriptor> folder_; // one for all while the folder stays the same
    std::string path_;
    uid_t owner_ = 0;
};

// What the owner of a port makes of seals.
enum class PortSeals {
    first, // they stand in front of their texts; all that an owner says nothing of
    last,  // come behind them
    none   // are not wanted
};

// Which socket is at a name: each owner of the name makes one of its own.
struct PortIncarnation {
    uint64_t device = 0;
    uint64_t file = 0;
    int64_t seconds = 0; // of its last change: numbers of files are used again
    int64_t nanoseconds = 0;
    PortSeals seals = PortSeals::first; // what its owner has said
    bool operator==(const PortIncarnation&) const = default;
};

// The rights of a socket whose owner listens: the mark that keeps cleaners of old files off, which
// no new file has, and, as the socket's own right to be executed means nothing, what its owner
// knows.
inline constexpr mode_t kListeningMode = S_ISVTX | S_IRUSR | S_IWUSR;
inline constexpr mode_t kTakesSealedMode = kListeningMode | S_IXUSR;
// Another mode than who knows only the former looks for: it puts the seal in front.
inline constexpr mode_t kTakesUnsealedMode = kTakesSealedMode | S_IXGRP;

// False, with the reason in errno, when nothing can be found out or nothing is there.
[[nodiscard]] bool findIncarnation(const PortFolder& folder, const std::string& socketFile,
                                   PortIncarnation& out);

// The name of a port's files without ending: the port's name with everything but letters, digits
// and a few marks escaped, its tail replaced by a digest when it is long.
std::string portFileName(const std::string& portName);

inline constexpr const char* kSocketEnding = ".socket";
inline constexpr const char* kLockEnding = ".lock";

// True when the process at the other end of a connected socket is this user's or root's; `process`
// receives its number.
bool isOwnPeer(int socket, int32_t& process);

// The reason that the system gives for its last refusal.
std::string systemReason();

} // namespace platform
