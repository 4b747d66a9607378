#pragma once

#include <string>
#include <vector>

namespace platform {

// The variable that names the path from which a process was started.
constexpr const char* kStartedFrom = "CONVEY_STARTED_FROM";
// And the one that tells which files that path was about: the root folder of who started it.
constexpr const char* kStartedRoot = "CONVEY_STARTED_ROOT";

// What an application that this process starts changes in this process's environment: the names of
// the variables that concern this process alone, and "NAME=value" of those that a desktop session
// has and this process lacks.
struct SessionEnvironment {
    std::vector<std::string> removed;
    std::vector<std::string> added;

    // The variable's value in this environment, empty for none.
    std::string value(const std::string& name) const;
    // All of it, as "NAME=value".
    std::vector<std::string> whole() const;
};

// `behind`: tells toolkits that the user did not ask for the application's windows just now.
SessionEnvironment sessionEnvironment(bool behind);

} // namespace platform
