#pragma once

#include <cstdint>
#include <string>

#include "platform/linux/SessionEnvironment.h"

namespace platform {

inline constexpr const char* kDesktopEntryExtension = ".desktop";

// Starts what the desktop entry `path` says, without files. The number of its process; 0, and
// `reason` why, when it could not be started.
uint32_t startDesktopEntry(const std::string& path, const SessionEnvironment& environment,
                           std::string& reason);

} // namespace platform
