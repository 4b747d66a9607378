#pragma once

#include <istream>
#include <ostream>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "caps/Store.h"
#include "caps/tool/Registry.h"
#include "limits/Limits.h"

// The text form of a database: TOML with [[application]], [[group]], [[product]] and [[data]].
namespace caps::tool {

// A text that cannot be imported; `what` names file, line and column.
class TomlError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One entry of a file, in the order in which the file has them, with where it stands.
struct TomlEntry {
    std::variant<Application, Group, Product, Subdomain> content;
    std::string position; // "FILE:LINE:COLUMN"
};

inline constexpr size_t kMaxTomlBytes = limits::of("import.file");

// Reads a whole text; `name` stands for it in errors. Throws TomlError.
std::vector<TomlEntry> parseToml(std::istream& in, const std::string& name);

// Writes a whole database so that importing the text into an empty one gives the same. Throws
// TomlError for texts that TOML cannot hold (no UTF-8).
void writeToml(std::ostream& out, const Contents& contents);

} // namespace caps::tool
