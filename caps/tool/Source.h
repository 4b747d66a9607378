#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "caps/Store.h"
#include "caps/tool/TomlFile.h"

namespace caps::tool {

// What a registry is kept in.
enum class SourceKind { document, toml, database };

// By its first bytes; a stream is left where it was.
SourceKind kindOf(std::istream& in);
SourceKind kindOfFile(const std::string& file);

// The file, opened. Throws Failure for what is no file or cannot be read.
std::ifstream openFile(const std::string& file);

// A whole registry out of a file, whatever it is kept in; "-" is `in`. Throws Failure, TomlError or
// config::DocumentError.
Contents readSource(const std::string& file, std::istream& in);

// What the entries of a text say, as if they were imported into an empty database.
Contents contentsOf(const std::vector<TomlEntry>& entries);

} // namespace caps::tool
