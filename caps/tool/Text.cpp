#include "caps/tool/Text.h"

#include <algorithm>
#include <charconv>

namespace caps::tool {
namespace {

// Bytes of the UTF-8 character at the beginning of the text; 0 when there is none.
size_t characterBytes(std::string_view text) {
    const auto byte = [text](size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const auto follows = [&byte](size_t i) { return (byte(i) & 0xC0U) == 0x80U; };
    const unsigned first = byte(0);
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xC2 && first <= 0xDF) {
        return follows(1) ? 2 : 0;
    }
    if (first >= 0xE0 && first <= 0xEF) {
        const bool overlong = first == 0xE0 && byte(1) < 0xA0;
        const bool surrogate = first == 0xED && byte(1) > 0x9F;
        return follows(1) && follows(2) && !overlong && !surrogate ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        const bool overlong = first == 0xF0 && byte(1) < 0x90;
        const bool beyond = first == 0xF4 && byte(1) > 0x8F;
        return follows(1) && follows(2) && follows(3) && !overlong && !beyond ? 4 : 0;
    }
    return 0;
}

} // namespace

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
    });
    return lower;
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const size_t bytes = characterBytes(text);
        if (bytes == 0) {
            return false;
        }
        text.remove_prefix(bytes);
    }
    return true;
}

std::string printable(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const size_t bytes = characterBytes(text);
        const auto first = static_cast<unsigned char>(text[0]);
        // U+0080 to U+009F are control characters too: terminals obey them.
        const bool control = first < 0x20 || first == 0x7f ||
                             (first == 0xC2 && bytes == 2 &&
                              static_cast<unsigned char>(text[1]) < 0xA0);
        if (bytes == 0 || control) {
            out += '?';
        } else {
            out += text.substr(0, bytes);
        }
        text.remove_prefix(std::max<size_t>(bytes, 1));
    }
    return out;
}

bool isDecimal(std::string_view text) {
    constexpr std::string_view digits = "0123456789";
    if (text.starts_with('-')) {
        text.remove_prefix(1);
    }
    const size_t point = text.find('.');
    const auto isWhole = [](std::string_view part) {
        return !part.empty() && part.find_first_not_of(digits) == std::string_view::npos;
    };
    return isWhole(text.substr(0, point)) &&
           (point == std::string_view::npos || isWhole(text.substr(point + 1)));
}

double leadingNumber(std::string_view text) {
    double number = 0.0;
    (void)std::from_chars(text.data(), text.data() + text.size(), number); // 0 without a number
    return number;
}

} // namespace caps::tool
