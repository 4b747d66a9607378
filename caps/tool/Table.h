#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace caps::tool {

// Rows of text in columns as wide as their widest cell, one row a line, two blanks between columns.
// Widths count UTF-8 characters. Control characters are written as '?': a database must not steer
// the terminal of who looks at it.
class Table {
public:
    explicit Table(std::vector<std::string> headings) : rows_{std::move(headings)} {}
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    void print(std::ostream& out) const;

private:
    std::vector<std::vector<std::string>> rows_;
};

// The text with '?' for each control character.
std::string printable(const std::string& text);

} // namespace caps::tool
