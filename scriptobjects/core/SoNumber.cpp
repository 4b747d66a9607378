#include "scriptobjects/core/SoNumber.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>

namespace ScObjects {
namespace {

bool isBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Skips blanks and a sign; true for a minus sign.
bool skipSign(const char*& p) {
    while (isBlank(*p)) {
        ++p;
    }
    if (*p == '+' || *p == '-') {
        return *p++ == '-';
    }
    return false;
}

// "0x" begins a hexadecimal number only when a digit follows, perhaps behind the point.
bool isHexadecimal(const char* p) {
    return p[0] == '0' && (p[1] == 'x' || p[1] == 'X') &&
           (isHexDigit(p[2]) || (p[2] == '.' && isHexDigit(p[3])));
}

// What lies beyond the range of a double: too large, or too close to zero.
double outOfRange(std::string_view digits, bool hexadecimal) {
    const std::string_view marks = hexadecimal ? "pP" : "eE";
    const size_t mark = digits.find_first_of(marks);
    const bool negativeExponent =
        mark != std::string_view::npos && mark + 1 < digits.size() && digits[mark + 1] == '-';
    if (negativeExponent) {
        return 0.0;
    }
    // Without an exponent a number is too small when its first non-zero digit is behind the point.
    const size_t point = digits.find('.');
    const size_t digit = digits.find_first_not_of("0.");
    return mark == std::string_view::npos && point != std::string_view::npos && digit > point
               ? 0.0
               : std::numeric_limits<double>::infinity();
}

} // namespace

double parseNumber(const char* text) {
    if (text == nullptr) {
        return 0.0;
    }
    const bool negative = skipSign(text);
    if (*text == '+' || *text == '-') {
        return 0.0; // from_chars would take a second minus sign
    }
    const bool hexadecimal = isHexadecimal(text);
    if (hexadecimal) {
        text += 2;
    }
    double value = 0.0;
    const char* end = text + std::strlen(text);
    const auto result = std::from_chars(
        text, end, value, hexadecimal ? std::chars_format::hex : std::chars_format::general);
    if (result.ec == std::errc::invalid_argument) {
        return 0.0;
    }
    if (result.ec == std::errc::result_out_of_range) {
        value = outOfRange({text, static_cast<size_t>(result.ptr - text)}, hexadecimal);
    }
    return negative ? -value : value;
}

uint32_t parseUnsigned32(const char* text) {
    if (text == nullptr) {
        return 0;
    }
    const bool negative = skipSign(text);
    constexpr uint64_t kMaximum = std::numeric_limits<uint32_t>::max();
    uint64_t value = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        value = value * 10 + static_cast<uint64_t>(*text - '0');
        if (value > kMaximum) {
            return std::numeric_limits<uint32_t>::max();
        }
    }
    const auto narrow = static_cast<uint32_t>(value);
    return negative ? 0U - narrow : narrow;
}

} // namespace ScObjects
