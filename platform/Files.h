#pragma once

#include <string>

#include "platform/Service.h"

namespace platform {

// Files and folders. Paths are bytes; an empty path names nothing.
//
// Porting contract: a call may wait for the disk, not for other processes. Threads: any.
class Files : public Service<Files> {
public:
    virtual ~Files() = default;

    // True when `path` names an existing file or folder, through links too; false when it does not
    // or when that cannot be found out.
    virtual bool exists(const std::string& path) const = 0;

    static Files& own();
};

} // namespace platform
