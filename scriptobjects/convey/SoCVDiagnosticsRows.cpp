#include "scriptobjects/convey/SoCVDiagnosticsRows.h"

namespace ScObjects {
namespace {

// They end a field and a row: a foreign text that kept them could bring rows of its own.
constexpr std::string_view kSeparators = ";\n";

// In pieces: as a rule there is one.
void addCleaned(SoString& out, std::string_view text) {
    for (size_t end = 0; (end = text.find_first_of(kSeparators)) != std::string_view::npos;) {
        out << text.substr(0, end) << ' ';
        text.remove_prefix(end + 1);
    }
    out << text;
}

} // namespace

void CVDiagnosticsRows::begin(std::string_view name, char level, std::string_view label) {
    out_ << root_;
    addCleaned(out_, name);
    out_ << ';' << level << ';';
    addCleaned(out_, label);
    out_ << ';';
}

void CVDiagnosticsRows::add(std::string_view name, char level, std::string_view label,
                            const SoString& value) {
    begin(name, level, label);
    addCleaned(out_, value.view());
    out_ << ";\n";
}

void CVDiagnosticsRows::unclosedLeaf(std::string_view name, std::string_view label,
                                     std::string_view value) {
    begin(name, '0', label);
    addCleaned(out_, value);
    out_ << '\n';
}

} // namespace ScObjects
