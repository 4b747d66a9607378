#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Service.h"

namespace platform {

// An entry of a folder.
struct FolderEntry {
    std::string name;
    bool isFolder = false; // links followed
};

// Files and folders. Paths are bytes; an empty path names nothing.
//
// Porting contract: a call may wait for the disk, not for other processes. Threads: any.
class Files : public Service<Files> {
public:
    enum class Reading { done, missing, refused };

    virtual ~Files() = default;

    // True when `path` names an existing file or folder, through links too; false when it does not
    // or when that cannot be found out.
    virtual bool exists(const std::string& path) const = 0;

    // True when the folder was made, with this mode less the process's own mask, or exists.
    virtual bool makeFolder(const std::string& path, uint32_t mode) = 0;

    // True when the empty folder, or the file (a link itself, not what it points to), was there and
    // is removed.
    virtual bool removeFolder(const std::string& path) = 0;
    virtual bool removeFile(const std::string& path) = 0;

    // Makes a symbolic link at `path`; false when something is there already.
    virtual bool makeLink(const std::string& target, const std::string& path) = 0;

    // The absolute path without links that `path` comes to; false, and `out` left alone, when it
    // names nothing.
    [[nodiscard]] virtual bool resolve(const std::string& path, std::string& out) const = 0;

    // Reads a file that this user keeps for itself. done: `out` is its whole content. missing:
    // there is none. refused: it is a link, no file, another user's or in another user's folder,
    // larger than `maximumBytes`, or cannot be read.
    virtual Reading readOwn(const std::string& path, size_t maximumBytes,
                            std::string& out) const = 0;

    // Makes the file `path`, readable by this user only, with all of `content` at once: no reader
    // ever sees a part, and of several callers one wins. False when it exists already (as anything)
    // or cannot be made; nothing is left behind then.
    virtual bool publish(const std::string& path, std::string_view content) = 0;

    // The entries of a folder, in no order, and what identifies the folder whatever path led to it.
    // False when it cannot be read; the outputs are left alone then.
    [[nodiscard]] virtual bool list(const std::string& path, std::vector<FolderEntry>& entries,
                                    std::string& identity) const = 0;

    static Files& own();
};

} // namespace platform
