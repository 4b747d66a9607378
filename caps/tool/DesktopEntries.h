#pragma once

#include <istream>
#include <optional>
#include <string>
#include <vector>

#include "caps/tool/Registry.h"

// Applications that the desktop knows: freedesktop .desktop files.
namespace caps::tool {

struct DesktopImport {
    std::vector<Application> applications; // in the order of the files' names
    std::vector<std::string> skipped;      // "FILE: reason"
};

// Reads every .desktop file below `folder`. The specifier is the file's name without extension in
// lower case, '-', '_' and '#' replaced by '.', and the application's version where the file gives
// one (X-...-Version; the format's own "Version" is that of the file format). Where two files would
// get one specifier, the second is skipped.
DesktopImport readDesktopFolder(const std::string& folder);

// One file. Gives the application, or says in `reason` why there is none.
std::optional<Application> readDesktopEntry(std::istream& in, const std::string& fileName,
                                            std::string& reason);

// The program of an Exec line: its first word by the format's quoting rules; empty for a malformed
// line.
std::string programOf(const std::string& execLine);

} // namespace caps::tool
