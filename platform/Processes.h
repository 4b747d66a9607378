#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/Service.h"

namespace platform {

// Processes of this machine, and how applications are started.
//
// What is started is a session of its own: it survives the process that started it, inherits no
// descriptor, no signal setting and nothing of the environment that is meant for its starter alone,
// has no terminal, begins in the user's home folder and never becomes a zombie of this process.
//
// A path that ends in ".app" is a bundle; its program is the one that its Contents/Info.plist
// names, else the one that is called like it. A path that ends in ".desktop" is a desktop entry.
// Any other path is a program. All are absolute.
//
// Porting contract: starting waits until the new program is loaded or could not be, nothing else
// blocks. The calling process may be told of a child of its own that has ended. No text reaches a
// shell. Threads: any.
class Processes : public Service<Processes> {
public:
    virtual ~Processes() = default;

    // The number of the calling process; another one in a child after fork.
    virtual uint32_t ownNumber() const = 0;

    // The file of the calling process's program; empty when the system does not tell.
    virtual std::string ownProgram() const = 0;

    // True while the process with this number runs: false for 0, for one that has ended and waits
    // for its parent, and for another process that was given the number of one that has been
    // started or asked about here.
    virtual bool isRunning(uint32_t number) = 0;

    // The running processes of this user that run the program `path`, or the program of the bundle,
    // or were started by the desktop entry, in no order. A script is run by its interpreter, a
    // program also after another file has taken its place, and links are followed. Who has the file
    // open, or runs another program of the bundle, does not count.
    virtual std::vector<uint32_t> find(const std::string& path) const = 0;

    // Starts the application; its number, or 0 when it could not be started, which is reported.
    // `behind`: asks it not to take the user's attention.
    virtual uint32_t startApplication(const std::string& path, bool behind) = 0;

    // Starts the program `name`, looked for on the search path of the environment; false when there
    // is none or it could not be started, which is reported.
    virtual bool startProgram(const std::string& name,
                              const std::vector<std::string>& arguments) = 0;

    static Processes& own();
};

} // namespace platform
