#include "tools/convey/Output.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ostream>
#include <sstream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace convey_tool {
namespace {

constexpr size_t kNarrowest = 4; // no column is cut below this

std::atomic<bool> gHasPrinted{false};

bool isContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

size_t width(const std::string& text) {
    // Of characters, not of bytes: columns of other alphabets stay in line.
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return !isContinuation(c); }));
}

std::string cut(const std::string& text, size_t columns) {
    if (width(text) <= columns) {
        return text;
    }
    size_t end = 0;
    for (size_t shown = 0; end < text.size(); ++end) {
        if (!isContinuation(text[end]) && ++shown == columns) {
            break;
        }
    }
    return text.substr(0, end) + "…";
}

const char* codeOf(Style style) {
    switch (style) {
    case Style::heading:
        return "\x1b[1m";
    case Style::good:
        return "\x1b[32m";
    case Style::bad:
        return "\x1b[31m";
    case Style::dim:
        return "\x1b[2m";
    default:
        return "";
    }
}

} // namespace

std::string Output::show(const std::string& text, Style style) const {
    std::string shown;
    shown.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        // U+0080 to U+009F steer some terminals as well.
        const bool isSecondRange = byte == 0xC2 && next >= 0x80 && next < 0xA0;
        i += isSecondRange ? 1 : 0;
        shown += byte < 0x20 || byte == 0x7f || isSecondRange ? '?' : text[i];
    }
    return colour && style != Style::plain ? codeOf(style) + shown + "\x1b[0m" : shown;
}

void Output::paragraph(const std::string& text, size_t indent, Style style) const {
    const auto room = columns > static_cast<int>(indent) ? static_cast<size_t>(columns) - indent
                                                         : std::string::npos;
    std::string line;
    std::istringstream words(text);
    for (std::string word; std::getline(words, word, ' ');) {
        if (!line.empty() && width(line) + 1 + width(word) > room) {
            out << show(line, style) << '\n' << std::string(indent, ' ');
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
    }
    out << show(line, style) << '\n';
}

void Output::print(const Json& value, bool inOneLine) const {
    // Invalid UTF-8 becomes U+FFFD: what others say must not make the output fail.
    gHasPrinted = true;
    out << value.dump(inOneLine || !isTerminal ? -1 : 2, ' ', false, Json::error_handler_t::replace)
        << std::endl;
}

bool Output::hasPrinted() {
    return gHasPrinted;
}

void Output::note(const std::string& text) const {
    if (!quiet) {
        err << "convey: " << show(text) << std::endl;
    }
}

Output standardOutput(std::ostream& out, std::ostream& err) {
    Output output{out, err};
    output.isTerminal = isatty(STDOUT_FILENO) != 0;
    if (output.isTerminal) {
        const char* const noColour = std::getenv("NO_COLOR"); // NOLINT(concurrency-mt-unsafe)
        const char* const terminal = std::getenv("TERM");     // NOLINT(concurrency-mt-unsafe)
        output.colour = (noColour == nullptr || *noColour == '\0') &&
                        (terminal == nullptr || std::string(terminal) != "dumb");
        winsize size{};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
            output.columns = size.ws_col;
        }
    }
    return output;
}

void Table::print(const Output& output) const {
    std::vector<size_t> widths;
    for (const auto& row : rows_) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], width(row[i]));
        }
    }
    size_t sum = widths.empty() ? 0 : 2 * (widths.size() - 1);
    for (const size_t each : widths) {
        sum += each;
    }
    const auto columns = static_cast<size_t>(std::max(output.columns, 0));
    while (columns != 0 && sum > columns) {
        size_t& widest = *std::max_element(widths.begin(), widths.end());
        if (widest <= kNarrowest) {
            break;
        }
        --widest;
        --sum;
    }
    bool isHeading = true;
    for (const auto& row : rows_) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string shown = cut(row[i], widths[i]);
            line += shown;
            if (i + 1 < row.size()) {
                line.append(widths[i] - width(shown) + 2, ' ');
            }
        }
        line.resize(line.find_last_not_of(' ') + 1);
        if (isHeading && !output.legend) {
            isHeading = false;
            continue;
        }
        output.out << output.show(line, isHeading ? Style::heading : Style::plain) << '\n';
        isHeading = false;
    }
    output.out.flush();
}

} // namespace convey_tool
