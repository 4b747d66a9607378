#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace caps::tool {

// Rows of text in columns as wide as their widest cell, one row a line, two blanks between columns.
// Widths count UTF-8 characters; cells are written as `printable` gives them.
class Table {
public:
    explicit Table(const std::vector<std::string>& headings) { add(headings); }
    void add(const std::vector<std::string>& row);
    void print(std::ostream& out) const;

private:
    std::vector<std::vector<std::string>> rows_;
};

} // namespace caps::tool
