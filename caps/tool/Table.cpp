#include "caps/tool/Table.h"

#include <algorithm>

#include "caps/tool/Text.h"

namespace caps::tool {
namespace {

size_t width(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80; // continuation bytes take no room
    }));
}

} // namespace

void Table::add(const std::vector<std::string>& row) {
    std::vector<std::string> cells;
    cells.reserve(row.size());
    for (const std::string& cell : row) {
        cells.push_back(printable(cell));
    }
    rows_.push_back(std::move(cells));
}

void Table::print(std::ostream& out) const {
    std::vector<size_t> widths;
    for (const auto& row : rows_) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], width(row[i]));
        }
    }
    for (const auto& row : rows_) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            line.append(widths[i] - width(row[i]) + 2, ' ');
        }
        line.resize(line.find_last_not_of(' ') + 1);
        out << line << '\n';
    }
}

} // namespace caps::tool
