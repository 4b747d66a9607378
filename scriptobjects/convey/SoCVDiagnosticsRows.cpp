#include "scriptobjects/convey/SoCVDiagnosticsRows.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>

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

// Above 0 when one of the eight bytes is `c`.
uint64_t has(uint64_t bytes, char c) {
    constexpr uint64_t kEach = 0x0101010101010101;
    const uint64_t zeroWhereEqual = bytes ^ (kEach * static_cast<unsigned char>(c));
    return (zeroWhereEqual - kEach) & ~zeroWhereEqual & (kEach << 7);
}

bool hasMark(const char* eight) {
    uint64_t bytes;
    std::memcpy(&bytes, eight, sizeof bytes);
    return (has(bytes, ';') | has(bytes, '\n') | has(bytes, '\\')) != 0;
}

// As a rule there is none, in thousands of rows: so eight bytes at a time.
bool hasMark(std::string_view text) {
    constexpr size_t kStep = sizeof(uint64_t);
    if (text.size() < kStep) {
        return std::any_of(text.begin(), text.end(), isMark);
    }
    for (size_t i = 0; i + kStep < text.size(); i += kStep) {
        if (hasMark(text.data() + i)) {
            return true;
        }
    }
    return hasMark(text.data() + text.size() - kStep);
}

// The text as it may stand in a row: itself, or written anew into `room`.
std::string_view escaped(std::string_view text, std::string& room) {
    if (!hasMark(text)) {
        return text;
    }
    for (const char c : text) {
        if (isMark(c)) {
            room += c == '\n' ? "\\n" : c == ';' ? "\\3b" : "\\\\";
        } else {
            room += c;
        }
    }
    return room;
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

void CVDiagnosticsRows::add(std::string_view name, char level, std::string_view label,
                            std::string_view value, std::string_view mark) {
    std::string length; // of a value that is cut
    if (value.size() > kLongestValue && !gWhole) {
        length = "... (" + std::to_string(value.size()) + " bytes)";
        size_t end = kLongestValue; // between two characters
        while (end > 0 && isContinuation(value[end])) {
            --end;
        }
        value = value.substr(0, end);
    }
    std::array<std::string, 3> rooms;
    const char levelField[] = {';', level, ';'};
    const std::string_view parts[] = {root_.view(),
                                      escaped(name, rooms[0]),
                                      {levelField, sizeof levelField},
                                      escaped(label, rooms[1]),
                                      ";",
                                      escaped(value, rooms[2]),
                                      length,
                                      mark};
    size_t bytes = 0;
    for (const std::string_view part : parts) {
        bytes += part.size();
    }
    if (bytes > INT32_MAX) {
        throw std::bad_alloc(); // as for any text that is too long for a string
    }
    // Straight to where it stands: thousands of messages have seventeen rows each.
    char* place = out_.extend(static_cast<int32_t>(bytes));
    for (const std::string_view part : parts) {
        place = std::copy(part.begin(), part.end(), place);
    }
}

} // namespace ScObjects
