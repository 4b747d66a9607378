#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

// The variable that tells the process that was started from the children that inherit it.
constexpr const char* kStartedNumber = "CONVEY_STARTED_PID";

// Starts the program `path` (absolute) as a session of its own, reparented at once; see
// platform::Processes. `environment` is "NAME=value"; the process finds its own number there, too,
// as `kStartedNumber`. The new process's number; 0, and `error` the system's error number, when it
// could not be started.
uint32_t startProcess(const std::string& path, const std::vector<std::string>& arguments,
                      const std::vector<std::string>& environment, const std::string& folder,
                      int& error);

// What a child that is about to exec does with what it has inherited: a session of its own, no
// signal handled, ignored or blocked. Async-signal-safe.
void becomeSession();

} // namespace platform
