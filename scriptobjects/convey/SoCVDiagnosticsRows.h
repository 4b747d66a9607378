#pragma once

#include <string_view>
#include <type_traits>

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
        add(name, '1', label, viewOf(joined(value...)));
    }
    template <class... Parts>
    void leaf(std::string_view name, std::string_view label, const Parts&... value) {
        add(name, '0', label, viewOf(joined(value...)));
    }
    // The number of rows below: readers take a node for one that has some.
    void count(std::string_view name, std::string_view label, size_t rowsBelow) {
        const auto value = static_cast<uint32_t>(rowsBelow);
        rowsBelow != 0 ? node(name, label, value) : leaf(name, label, value);
    }
    // A leaf for what has no value.
    void undefined(std::string_view name, std::string_view label) {
        add(name, '0', label, "undefined");
    }
    // A leaf without the last ';', which readers know of a few rows.
    void unclosedLeaf(std::string_view name, std::string_view label, std::string_view value) {
        add(name, '0', label, value, "\n");
    }

private:
    static std::string_view viewOf(std::string_view text) { return text; }
    static std::string_view viewOf(const SoString& text) { return text.view(); }
    // All parts behind each other; a text alone is taken as it is.
    static const SoString& joined(const SoString& text) { return text; }
    template <class... Parts>
    static auto joined(const Parts&... parts) {
        if constexpr (sizeof...(parts) == 1 &&
                      (std::is_convertible_v<const Parts&, std::string_view> && ...)) {
            return (std::string_view(parts), ...);
        } else {
            SoString text;
            (void)(text << ... << parts);
            return text;
        }
    }
    void add(std::string_view name, char level, std::string_view label, std::string_view value,
             std::string_view mark = ";\n");

    SoString& out_;
    const SoString root_;
};

} // namespace ScObjects
