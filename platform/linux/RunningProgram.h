#pragma once

#include <cstdint>
#include <string>

namespace platform {

// The path with its links resolved; as it is given where nothing is there any more, which may still
// run.
std::string resolvedPath(const std::string& path);

// A program, to be found among the processes that run it: those whose executable it is, also after
// an upgrade has put another file in its place, and, for a script, its interpreter while the script
// is the first thing that it was given. Whoever only has it open (an editor, a pager), and other
// programs that lie beside it, do not run it.
//
// Used by one thread. What the file says is read once, when this is made.
class RunningProgram {
public:
    // `path` is absolute.
    explicit RunningProgram(const std::string& path);

    bool isRunBy(uint32_t process) const;

private:
    bool interprets(uint32_t process, const std::string& running) const;

    std::string program_;     // links resolved
    std::string interpreter_; // as the script names it, links resolved; empty for no script
    std::string name_;        // what an interpreter is called when "env" looks for it
};

} // namespace platform
