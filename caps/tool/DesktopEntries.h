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
//
// The path is the program when that alone is what the file starts; where there is more to it (words
// of its own, a terminal, an activation by the bus, a program that must be there) it is the file's
// own, which the launcher starts as it stands. Localized names, the icon and the class of the
// windows are kept.
DesktopImport readDesktopFolder(const std::string& folder);

// One file, which lies at `path` (absolute). Gives the application, or says in `reason` why there
// is none.
std::optional<Application> readDesktopEntry(std::istream& in, const std::string& path,
                                            std::string& reason);

// The program of an Exec line: its first word by the format's quoting rules; empty for a malformed
// line.
std::string programOf(const std::string& execLine);

// True when nothing follows the program but places for what the desktop hands over ("%U").
bool startsProgramAlone(const std::string& execLine);

} // namespace caps::tool
