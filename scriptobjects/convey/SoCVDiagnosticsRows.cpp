#include "scriptobjects/convey/SoCVDiagnosticsRows.h"

#include "limits/Limits.h"

namespace ScObjects {
namespace {

constexpr size_t kLongestValue = limits::of("rows.value");

// Of the thread, as everything that has rows would have to hand it on otherwise.
constinit thread_local bool gWhole = false;

// They end a field and a row, and the backslash stands for them.
bool isMark(char c) {
    return c == ';' || c == '\n' || c == '\\';
}

// In pieces: as a rule there is one.
void addEscaped(std::string& row, std::string_view text) {
    size_t begin = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (isMark(text[i])) {
            row += text.substr(begin, i - begin);
            row += text[i] == '\n' ? "\\n" : text[i] == ';' ? "\\3b" : "\\\\";
            begin = i + 1;
        }
    }
    row += text.substr(begin);
}

bool isContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

} // namespace

CVDiagnosticsRows::Whole::Whole(bool on) : before_(gWhole) {
    gWhole = on;
}

CVDiagnosticsRows::Whole::~Whole() {
    gWhole = before_;
}

void CVDiagnosticsRows::addValue(std::string_view value) {
    if (value.size() <= kLongestValue || gWhole) {
        addEscaped(row_, value);
        return;
    }
    size_t end = kLongestValue; // between two characters
    while (end > 0 && isContinuation(value[end])) {
        --end;
    }
    addEscaped(row_, value.substr(0, end));
    row_ += "... (" + std::to_string(value.size()) + " bytes)";
}

void CVDiagnosticsRows::begin(std::string_view name, char level, std::string_view label) {
    row_ = root_.view();
    addEscaped(row_, name);
    row_ += {';', level, ';'};
    addEscaped(row_, label);
    row_ += ';';
}

void CVDiagnosticsRows::end(std::string_view mark) {
    row_ += mark;
    out_ << std::string_view(row_);
}

void CVDiagnosticsRows::add(std::string_view name, char level, std::string_view label,
                            const SoString& value) {
    begin(name, level, label);
    addValue(value.view());
    end(";\n");
}

void CVDiagnosticsRows::unclosedLeaf(std::string_view name, std::string_view label,
                                     std::string_view value) {
    begin(name, '0', label);
    addValue(value);
    end("\n");
}

} // namespace ScObjects
