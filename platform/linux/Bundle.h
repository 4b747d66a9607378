#pragma once

#include <string>

namespace platform {

inline constexpr const char* kBundleExtension = ".app";

// The program of the bundle folder `bundle` (absolute, ends in ".app"): what its Info.plist names
// as CFBundleExecutable, else what the bundle is called, in Contents/MacOS. Empty when the name
// that the bundle gives is no plain file name. `remark` is what there is to say of that, or of an
// Info.plist that could not be read; else it is left alone.
std::string programOfBundle(const std::string& bundle, std::string& remark);

} // namespace platform
