#include "platform/linux/PortList.h"

#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <map>
#include <netinet/tcp.h>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/linux/Descriptor.h"
#include "platform/linux/PortFolder.h"
#include "platform/linux/PortName.h"
#include "platform/linux/ProcessTable.h"

namespace platform {
namespace {

constexpr size_t kAnswerBytes = 1 << 15; // what the kernel writes at a time

// What waits at the sockets of one path.
struct Fill {
    int64_t connections = 0;
    int64_t bytes = 0;
};

// A socket's file: by the end of the path that it was bound to, which may have led through links or
// a descriptor, and the number of the file.
using SocketFile = std::pair<std::string, uint64_t>;
using Fills = std::map<SocketFile, Fill>;

// What the kernel says of all sockets of this machine.
struct Sockets {
    Fills fills;
    // Connections that no owner has accepted have no number, and are not told of; their peers are:
    // by the numbers of these, where they wait.
    std::map<uint32_t, SocketFile> unaccepted;
    std::map<uint32_t, uint32_t> unread; // what each peer has sent, as memory, which is more
};

// The record behind one of `length` bytes in a block of which `left` bytes are left.
template <class Record>
const Record* recordBehind(const Record* record, size_t length, unsigned& left) {
    constexpr size_t kAlignment = 4; // of both kinds
    const size_t step = (length + kAlignment - 1) / kAlignment * kAlignment;
    left = step < left ? left - static_cast<unsigned>(step) : 0;
    const void* const next = reinterpret_cast<const char*>(record) + step;
    return static_cast<const Record*>(next);
}

// Adds what the kernel says of one socket.
void addSocket(const nlmsghdr* header, Sockets& sockets) {
    const auto* const message = static_cast<const unix_diag_msg*>(NLMSG_DATA(header));
    std::string path;
    unix_diag_rqlen queue{};
    unix_diag_vfs file{};
    std::vector<uint32_t> peers;
    auto left = static_cast<unsigned>(header->nlmsg_len - NLMSG_LENGTH(sizeof *message));
    for (const auto* attribute = reinterpret_cast<const rtattr*>(message + 1);
         RTA_OK(attribute, left); attribute = recordBehind(attribute, attribute->rta_len, left)) {
        const auto* const data = static_cast<const char*>(RTA_DATA(attribute));
        if (attribute->rta_type == UNIX_DIAG_NAME) {
            path.assign(data, strnlen(data, RTA_PAYLOAD(attribute)));
        } else if (attribute->rta_type == UNIX_DIAG_RQLEN &&
                   RTA_PAYLOAD(attribute) >= sizeof queue) {
            std::memcpy(&queue, data, sizeof queue);
        } else if (attribute->rta_type == UNIX_DIAG_VFS && RTA_PAYLOAD(attribute) >= sizeof file) {
            std::memcpy(&file, data, sizeof file);
        } else if (attribute->rta_type == UNIX_DIAG_ICONS) {
            peers.resize(RTA_PAYLOAD(attribute) / sizeof(uint32_t));
            if (!peers.empty()) {
                std::memcpy(peers.data(), data, peers.size() * sizeof(uint32_t));
            }
        }
    }
    if (message->udiag_state == TCP_ESTABLISHED && queue.udiag_wqueue != 0) {
        sockets.unread[message->udiag_ino] = queue.udiag_wqueue;
    }
    if (!path.empty()) {
        // Connections have the path of the socket that accepted them; what waits at that one itself
        // is connections, not bytes.
        const SocketFile own(path.substr(path.rfind('/') + 1), file.udiag_vfs_ino);
        Fill& fill = sockets.fills[own];
        if (message->udiag_state == TCP_ESTABLISHED) {
            ++fill.connections;
            fill.bytes += queue.udiag_rqueue;
        } else {
            fill.connections += static_cast<int64_t>(peers.size());
            for (const uint32_t peer : peers) {
                sockets.unaccepted.emplace(peer, own);
            }
        }
    }
}

// All sockets of this machine that have a path; false when the kernel does not say.
bool readSockets(Sockets& sockets) {
    const Descriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    struct {
        nlmsghdr header;
        unix_diag_req body;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.body.sdiag_family = AF_UNIX;
    request.body.udiag_states = ~0U;
    request.body.udiag_show =
        UDIAG_SHOW_NAME | UDIAG_SHOW_RQLEN | UDIAG_SHOW_VFS | UDIAG_SHOW_ICONS;
    if (!socket || send(socket.get(), &request, sizeof request, 0) < 0) {
        return false;
    }
    // As many blocks as it takes: a dump of a busy machine does not fit in one, and only its end
    // says that it is whole.
    alignas(nlmsghdr) char answer[kAnswerBytes];
    for (;;) {
        const ssize_t length =
            uninterrupted([&] { return recv(socket.get(), answer, sizeof answer, 0); });
        if (length <= 0) {
            return false;
        }
        auto left = static_cast<unsigned>(length);
        for (const auto* header = static_cast<const nlmsghdr*>(static_cast<const void*>(answer));
             NLMSG_OK(header, left); header = recordBehind(header, header->nlmsg_len, left)) {
            if (header->nlmsg_type == NLMSG_DONE) {
                return true;
            }
            if (header->nlmsg_type == NLMSG_ERROR) {
                return false;
            }
            addSocket(header, sockets);
        }
    }
}

int valueOf(char digit) {
    return digit >= '0' && digit <= '9'   ? digit - '0'
           : digit >= 'A' && digit <= 'F' ? digit - 'A' + 10
                                          : -1;
}

// The port's name that a file name stands for.
std::string portNameOf(const std::string& file) {
    std::string name;
    // A digest at the end of a long name stays as it is: what it stands for cannot be computed.
    for (size_t i = 0; i < file.size(); ++i) {
        const int high = file[i] == '%' && i + 2 < file.size() ? valueOf(file[i + 1]) : -1;
        const int low = high >= 0 ? valueOf(file[i + 2]) : -1;
        if (low >= 0) {
            name += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            name += file[i];
        }
    }
    return name;
}

// The names of the ports that have a file in the folder, without ending.
std::set<std::string> fileNames(const PortFolder& folder) {
    std::set<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.path().c_str()), closedir);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the folder is this call's own
    while (const dirent* entry = entries == nullptr ? nullptr : readdir(entries.get())) {
        const std::string_view name(entry->d_name);
        // Either of the two: what a killed owner or a cleaner of old files left may be one alone.
        for (const std::string_view ending : {kSocketEnding, kLockEnding}) {
            if (name.size() > ending.size() && name.ends_with(ending)) {
                names.emplace(name.substr(0, name.size() - ending.size()));
            }
        }
    }
    return names;
}

std::string realPath(const PortFolder& folder) {
    char path[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(folder.fd());
    const ssize_t length = readlink(link.c_str(), path, sizeof path);
    return length > 0 && static_cast<size_t>(length) < sizeof path
               ? std::string(path, static_cast<size_t>(length))
               : folder.path();
}

// Becomes the owner for a moment, so that nobody else does while the files are removed.
bool removeIfStale(const PortFolder& folder, const std::string& file) {
    const std::string lockFile = file + kLockEnding;
    const Descriptor lock(openat(folder.fd(), lockFile.c_str(),
                                 O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                                 S_IRUSR | S_IWUSR));
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    struct stat opened {};
    struct stat named {};
    struct flock second = whole; // of an owner that has ended, whose child keeps the first byte
    second.l_start = 1;
    const auto isTaken = [&] {
        return fcntl(lock.get(), F_OFD_SETLK, &whole) == 0 ||
               (isOwnerGone(lock.get()) && fcntl(lock.get(), F_OFD_SETLK, &second) == 0 &&
                isOwnerGone(lock.get()));
    };
    // Compared after the lock was taken: a removed file can still be locked, and a new owner's
    // would then be removed by its name.
    if (!lock || !isTaken() || fstat(lock.get(), &opened) != 0 ||
        fstatat(folder.fd(), lockFile.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
        opened.st_ino != named.st_ino || opened.st_dev != named.st_dev) {
        return false; // somebody owns it, or has removed it meanwhile
    }
    // The socket first, while the lock keeps others from binding their own there.
    (void)unlinkat(folder.fd(), (file + kSocketEnding).c_str(), 0); // it may have none
    return unlinkat(folder.fd(), lockFile.c_str(), 0) == 0;
}

} // namespace

std::vector<PortDescription> listPorts() {
    std::vector<PortDescription> ports;
    PortFolder folder;
    if (folder.open(PortFolder::Use::ifThere) != PortFolder::State::usable) {
        return ports;
    }
    // The lock does not tell its owner: one that belongs to the open file has no process. Whoever
    // has the file open is taken for it.
    const std::map<std::string, uint32_t> owners = openFilesBelow(realPath(folder));
    Sockets sockets;
    const bool known = readSockets(sockets);
    Fills& fills = sockets.fills;
    for (const auto& [peer, file] : sockets.unaccepted) {
        const auto unread = sockets.unread.find(peer);
        fills[file].bytes += unread == sockets.unread.end() ? 0 : unread->second;
    }
    for (const std::string& file : fileNames(folder)) {
        PortDescription port;
        port.name = portNameOf(file);
        port.stale = portState(folder, file) == PortState::free;
        const auto owner = owners.find(realPath(folder) + "/" + file + kLockEnding);
        port.owner = port.stale || owner == owners.end() ? 0 : owner->second;
        const std::string socket = file + kSocketEnding;
        struct stat status {};
        if (known && fstatat(folder.fd(), socket.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
            // The kernel tells 32 bits of the number.
            const auto fill = fills.find({socket, static_cast<uint32_t>(status.st_ino)});
            port.connections = fill == fills.end() ? 0 : fill->second.connections;
            port.waitingBytes = fill == fills.end() ? 0 : fill->second.bytes;
        }
        PortIncarnation found;
        port.dropsSeals = findIncarnation(folder, socket, found) && found.seals == PortSeals::none;
        ports.push_back(std::move(port));
    }
    return ports;
}

size_t removeStalePorts() {
    PortFolder folder;
    if (folder.open(PortFolder::Use::ifThere) != PortFolder::State::usable) {
        return 0;
    }
    size_t removed = 0;
    for (const std::string& file : fileNames(folder)) {
        removed += removeIfStale(folder, file) ? 1 : 0;
    }
    return removed;
}

} // namespace platform
