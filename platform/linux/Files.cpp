#include "platform/Files.h"

#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

#include "platform/Log.h"
#include "platform/linux/Descriptor.h"

namespace platform {
namespace {

void report(const char* operation, const std::string& path) {
    // Building the line takes memory and may change it.
    const int error = errno;
    const std::string line =
        std::string("cannot ") + operation + " " + path + ": " + strerrordesc_np(error);
    // What this process lacks others may have; a full disk or a home of somebody else's is the same
    // for all of the user's.
    if (error == EMFILE || error == ENFILE || error == ENOMEM) {
        Log::system().problem(line);
    } else {
        Log::system().problemOfUser(line);
    }
}

bool writeAll(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written =
            uninterrupted([&] { return write(fd, content.data(), content.size()); });
        if (written <= 0) {
            return false;
        }
        content.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

struct CloseFolder {
    void operator()(DIR* folder) const { (void)closedir(folder); }
};

class LinuxFiles final : public Files {
public:
    bool exists(const std::string& path) const override {
        struct stat status {};
        return stat(path.c_str(), &status) == 0;
    }

    bool makeFolder(const std::string& path, uint32_t mode) override {
        if (mkdir(path.c_str(), static_cast<mode_t>(mode)) == 0) {
            return true;
        }
        struct stat status {};
        // Another process may have been faster, and a link to a folder serves as well as one.
        return errno == EEXIST && stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    }

    bool removeFolder(const std::string& path) override { return rmdir(path.c_str()) == 0; }

    bool removeFile(const std::string& path) override { return unlink(path.c_str()) == 0; }

    bool makeLink(const std::string& target, const std::string& path) override {
        return symlink(target.c_str(), path.c_str()) == 0;
    }

    bool resolve(const std::string& path, std::string& out) const override {
        const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr),
                                                               &std::free);
        if (real != nullptr) {
            out = real.get();
        }
        return real != nullptr;
    }

    Reading readOwn(const std::string& path, size_t maximumBytes, std::string& out) const override {
        // Not blocking: a pipe in the file's place must not hold its reader.
        const Descriptor file(uninterrupted([&] {
            return open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        }));
        if (!file) {
            if (errno == ENOENT || errno == ENOTDIR) {
                return Reading::missing;
            }
            report("read", path);
            return Reading::refused;
        }
        const uid_t user = geteuid();
        // Who owns the folder can put another file in this one's place.
        struct stat status {};
        if (stat(path.substr(0, path.rfind('/') + 1).c_str(), &status) != 0 ||
            status.st_uid != user) {
            Log::system().problemOfUser("refused to read " + path +
                                        ": its folder is not this user's own");
            return Reading::refused;
        }
        if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != user ||
            status.st_size > static_cast<off_t>(maximumBytes)) {
            Log::system().problemOfUser("refused to read " + path +
                                        ": not a small file of this user's own");
            return Reading::refused;
        }
        // To its end, as far as that was known: who replaces a file puts another in its place.
        std::string content(maximumBytes, '\0');
        size_t length = 0;
        while (length < maximumBytes &&
               (length == 0 || length != static_cast<size_t>(status.st_size))) {
            const ssize_t bytes = uninterrupted(
                [&] { return read(file.get(), content.data() + length, maximumBytes - length); });
            if (bytes < 0) {
                report("read", path);
                return Reading::refused;
            }
            if (bytes == 0) {
                break;
            }
            length += static_cast<size_t>(bytes);
        }
        content.resize(length);
        out = std::move(content);
        return Reading::done;
    }

    bool publish(const std::string& path, std::string_view content) override {
        // In the same folder, since neither a link nor a renaming leaves its file system.
        std::string aside = path + ".XXXXXX";
        const Descriptor file(mkostemp(aside.data(), O_CLOEXEC)); // made with mode 0600
        if (!file) {
            report("write", path);
            return false;
        }
        // On the disk before it has its name: after a loss of power there is the whole file or
        // none. A full disk often shows in the writing back only.
        bool published = writeAll(file.get(), content) && fsync(file.get()) == 0;
        if (!published) {
            report("write", path);
            // Not renamed over what is there: of several processes the first one's content counts
            // for all.
        } else if (link(aside.c_str(), path.c_str()) != 0) {
            // File systems without hard links can still rename without replacing.
            published = errno != EEXIST && renameat2(AT_FDCWD, aside.c_str(), AT_FDCWD,
                                                     path.c_str(), RENAME_NOREPLACE) == 0;
            if (!published && errno != EEXIST) {
                report("write", path);
            }
        }
        (void)unlink(aside.c_str()); // gone already when it was renamed
        return published;
    }

    bool list(const std::string& path, std::vector<FolderEntry>& entries,
              std::string& identity) const override {
        const std::unique_ptr<DIR, CloseFolder> folder(opendir(path.c_str()));
        struct stat status {};
        // Of the open folder, so that number and entries are of the same one even when its path has
        // another by now.
        if (folder == nullptr || fstat(dirfd(folder.get()), &status) != 0) {
            return false;
        }
        std::vector<FolderEntry> found;
        while (const dirent* entry = readdir(folder.get())) { // NOLINT(concurrency-mt-unsafe): own
            if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) {
                continue;
            }
            // File systems need not tell the type with the name; where they do, no question is
            // asked for it.
            bool isFolder = entry->d_type == DT_DIR;
            if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) {
                struct stat target {};
                isFolder = fstatat(dirfd(folder.get()), entry->d_name, &target, 0) == 0 &&
                           S_ISDIR(target.st_mode);
            }
            found.push_back({entry->d_name, isFolder});
        }
        entries = std::move(found);
        identity = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
        return true;
    }
};

} // namespace

Files& Files::own() {
    static auto* const files = new LinuxFiles;
    return *files;
}

} // namespace platform
