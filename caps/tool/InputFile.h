#pragma once

#include <istream>
#include <optional>
#include <string>

// What others wrote, taken whole and with a bound.
namespace caps::tool {

// Reads a regular file of at most `maximumBytes`; on failure nothing, and `reason` says why. Never
// waits: a FIFO or a device in the file's place is refused.
std::optional<std::string> readFile(const std::string& path, size_t maximumBytes,
                                    std::string& reason);

// The same for a stream, to its end.
std::optional<std::string> readStream(std::istream& in, size_t maximumBytes, std::string& reason);

} // namespace caps::tool
