#include "scriptobjects/convey/SoCVDiagnosticsRows.h"

#include "limits/Limits.h"

namespace ScObjects {
namespace {

constexpr size_t kLongestValue = limits::of("rows.value");

// Of the thread, as everything that has rows would have to hand it on otherwise.
constinit thread_local bool gWhole = false;

// They end a field and a row, and the backslash stands for them.
constexpr std::string_view kMarks = ";\n\\";

// In pieces: as a rule there is one.
void addEscaped(SoString& out, std::string_view text) {
    for (size_t end = 0; (end = text.find_first_of(kMarks)) != std::string_view::npos;) {
        const char mark = text[end];
        out << text.substr(0, end) << (mark == '\n' ? "\\n" : mark == ';' ? "\\3b" : "\\\\");
        text.remove_prefix(end + 1);
    }
    out << text;
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
        addEscaped(out_, value);
        return;
    }
    size_t end = kLongestValue; // between two characters
    while (end > 0 && isContinuation(value[end])) {
        --end;
    }
    addEscaped(out_, value.substr(0, end));
    out_ << "... (" << static_cast<uint32_t>(value.size()) << " bytes)";
}

void CVDiagnosticsRows::begin(std::string_view name, char level, std::string_view label) {
    out_ << root_;
    addEscaped(out_, name);
    out_ << ';' << level << ';';
    addEscaped(out_, label);
    out_ << ';';
}

void CVDiagnosticsRows::add(std::string_view name, char level, std::string_view label,
                            const SoString& value) {
    begin(name, level, label);
    addValue(value.view());
    out_ << ";\n";
}

void CVDiagnosticsRows::unclosedLeaf(std::string_view name, std::string_view label,
                                     std::string_view value) {
    begin(name, '0', label);
    addValue(value);
    out_ << '\n';
}

} // namespace ScObjects
