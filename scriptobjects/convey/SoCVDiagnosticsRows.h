#pragma once

#include <string>
#include <string_view>

#include "scriptobjects/core/SoString.h"

namespace ScObjects {

// Writes rows of the diagnostics text below one path: path, level, label and value, each closed by
// ';', and a line feed. Level 1 announces rows below, 0 is a leaf.
//
// Names, labels and values come from anybody. So that no text passes for a row or a field of its
// own, and a reader can tell what it was, a line feed is written as \n, a ';' as \3b and a
// backslash twice. Values of more than `rows.value` bytes (`convey limits`) are cut, and say how
// long they are. The root is taken as it is. Appends to the text that it was made with, which must
// outlive it; one thread. Throws std::bad_alloc only.
class CVDiagnosticsRows {
public:
    // While one lives, the values of this thread's rows are whole.
    class Whole {
    public:
        explicit Whole(bool on);
        ~Whole();
        Whole(const Whole&) = delete;
        Whole& operator=(const Whole&) = delete;

    private:
        const bool before_;
    };

    CVDiagnosticsRows(SoString& out, const SoString& root) : out_(out), root_(root) {}

    // `name` is the path below the root, with its '/'; empty for the root itself. The value is all
    // parts behind each other.
    template <class... Parts>
    void node(std::string_view name, std::string_view label, const Parts&... value) {
        add(name, '1', label, joined(value...));
    }
    template <class... Parts>
    void leaf(std::string_view name, std::string_view label, const Parts&... value) {
        add(name, '0', label, joined(value...));
    }
    // The number of rows below: readers take a node for one that has some.
    void count(std::string_view name, std::string_view label, size_t rowsBelow) {
        const auto value = static_cast<uint32_t>(rowsBelow);
        rowsBelow != 0 ? node(name, label, value) : leaf(name, label, value);
    }
    // A leaf for what has no value.
    void undefined(std::string_view name, std::string_view label) {
        add(name, '0', label, SoString("undefined"));
    }
    // A leaf without the last ';', which readers know of a few rows.
    void unclosedLeaf(std::string_view name, std::string_view label, std::string_view value);

private:
    template <class... Parts>
    static SoString joined(const Parts&... parts) {
        SoString text;
        (void)(text << ... << parts);
        return text;
    }
    void addValue(std::string_view value);
    void add(std::string_view name, char level, std::string_view label, const SoString& value);
    void begin(std::string_view name, char level, std::string_view label);
    void end(std::string_view mark);

    SoString& out_;
    std::string row_; // is put together here, which takes less than nine steps of a large text
    const SoString root_;
};

} // namespace ScObjects
