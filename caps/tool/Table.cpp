#include "caps/tool/Table.h"

#include <algorithm>

namespace caps::tool {
namespace {

size_t width(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80; // continuation bytes take no room
    }));
}

} // namespace

std::string printable(const std::string& text) {
    std::string out = text;
    for (char& c : out) {
        const auto byte = static_cast<unsigned char>(c);
        c = byte < 0x20 || byte == 0x7f ? '?' : c;
    }
    return out;
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
            line += printable(row[i]);
            line.append(widths[i] - width(row[i]) + 2, ' ');
        }
        line.resize(line.find_last_not_of(' ') + 1);
        out << line << '\n';
    }
}

} // namespace caps::tool
