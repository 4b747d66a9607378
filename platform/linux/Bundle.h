#pragma once

#include <string>

namespace platform {

inline constexpr const char* kBundleExtension = ".app";

// The program of the bundle folder `bundle` (absolute, ends in ".app"): what its Info.plist names
// as CFBundleExecutable, else what the bundle is called, in Contents/MacOS. Empty, which is
// reported, when the name that the bundle gives is no plain file name.
std::string programOfBundle(const std::string& bundle);

} // namespace platform
