#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace platform {

// When a process started, in ticks since the machine did; 0 when it does not run, also when it has
// ended and waits for its parent.
uint64_t processStartTime(uint32_t number);

// The running processes of this user.
std::vector<uint32_t> ownProcesses();

// The program that a process runs, links resolved; empty when that cannot be found out. One whose
// file has gone or was replaced ends in " (deleted)".
std::string programOfProcess(uint32_t number);

// The folder that it works in; empty when that cannot be found out.
std::string workingFolderOf(uint32_t number);

// The words of its command line, at most so many.
std::vector<std::string> commandLineOf(uint32_t number, size_t maximumWords);

// Which of this user's processes has which file below a folder open, by the file's path.
std::map<std::string, uint32_t> openFilesBelow(const std::string& folder);

// A variable of the environment that it was started with, empty for none.
std::string startVariableOf(uint32_t number, const std::string& name);

} // namespace platform
