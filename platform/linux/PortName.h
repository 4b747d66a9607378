#pragma once

#include <string>
#include <sys/stat.h>
#include <sys/types.h>

#include "platform/MessagePort.h"
#include "platform/linux/PortDescriptor.h"
#include "platform/linux/PortFolder.h"

namespace platform {

// A port's name as its owner has it: two files, of which the locked one says that the name is
// owned, and by which process. A lock is held by the open file; a child that was born without the
// handlers of fork (by the bare system call) would keep it, so the process's number stands in it.
//
// Used by one thread at a time, but for the questions.
class PortName {
public:
    PortName(PortFolder folder, const std::string& portName);
    ~PortName() = default;
    PortName(const PortName&) = delete;
    PortName& operator=(const PortName&) = delete;

    // Becomes the owner of the name, or not; reports only what is wrong with the folder.
    [[nodiscard]] bool own();
    // Notes the socket that the owner has made, so that its loss shows.
    void noteSocket();

    const PortFolder& folder() const { return folder_; }
    const std::string& socketFile() const { return socketFile_; }
    const std::string& lockFile() const { return lockFile_; }

    // True in the process that owns the name: not in its children.
    bool isOwner() const;
    // False when the file that is locked, or the socket, is known not to be at the name any more.
    bool holdsLockFile() const;
    bool holdsSocket() const;
    // Removes the files, as far as they are this owner's.
    void removeFiles() const;

    // What is at a name.
    enum class Found { same, other, unknown };

private:
    Found whatIsAtLockFile() const;
    bool takeLock(PortDescriptor lock, const struct stat& status);

    const PortFolder folder_;
    const std::string socketFile_;
    const std::string lockFile_;
    PortDescriptor lock_;
    pid_t process_ = 0;
    dev_t socketDevice_ = 0;
    ino_t socketNumber_ = 0;
};

// Whether somebody, this process included, holds the lock of the name. Takes nothing. `unknown` is
// reported; errno has the reason.
PortState portState(const PortFolder& folder, const std::string& fileName);

// True when the process that is written in a lock file has ended, whoever holds the lock.
bool isOwnerGone(int lockFile);

} // namespace platform
