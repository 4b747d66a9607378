#pragma once

#include <map>
#include <string>
#include <vector>

// What a program did.
struct ProcessResult {
    int exitStatus = -1; // -1 when a signal ended it
    int signal = 0;
    std::string out;
    std::string err;
};

// Runs a program to its end, without standard input, with this process's environment and, over it,
// `environment` (an empty value removes the variable). It is killed, and the result says so by its
// signal, when it takes longer than a minute. Throws std::runtime_error when it cannot be started.
ProcessResult runProcess(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment = {});
