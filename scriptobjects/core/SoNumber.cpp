#include "scriptobjects/core/SoNumber.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <string_view>

namespace ScObjects {
namespace {

// As isspace says in the "C" locale: the host's locale must not change what a number is.
bool isBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Removes blanks and a sign; true for a minus sign.
bool takeSign(std::string_view& text) {
    while (!text.empty() && isBlank(text.front())) {
        text.remove_prefix(1);
    }
    if (text.empty() || (text.front() != '+' && text.front() != '-')) {
        return false;
    }
    const bool negative = text.front() == '-';
    text.remove_prefix(1);
    return negative;
}

// "0x" begins a hexadecimal number only when a digit follows, perhaps behind the point.
bool isHexadecimal(std::string_view text) {
    return text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') &&
           (isHexDigit(text[2]) || (text.size() > 3 && text[2] == '.' && isHexDigit(text[3])));
}

// A number that is no zero and has no double: infinity, or 0 where it is too close to zero. Beyond
// the range the place of the first digit that counts decides, the exponent added.
double outOfRange(std::string_view number, bool hexadecimal) {
    const size_t mark = number.find_first_of(hexadecimal ? "pP" : "eE");
    int32_t exponent = 0;
    if (mark != std::string_view::npos) {
        std::string_view text = number.substr(mark + 1);
        if (!text.empty() && text.front() == '+') {
            text.remove_prefix(1);
        }
        const auto result = std::from_chars(text.data(), text.data() + text.size(), exponent);
        // The exponent is left as it was then. Which end it lies beyond is all that matters.
        if (result.ec == std::errc::result_out_of_range) {
            exponent = text.front() == '-' ? std::numeric_limits<int32_t>::min()
                                           : std::numeric_limits<int32_t>::max();
        }
    }
    // A hexadecimal digit stands for four of the binary places that the exponent counts. In 64 bits
    // the places of the longest text and any exponent add up without overflow.
    const std::string_view digits = number.substr(0, mark);
    const auto point = static_cast<int64_t>(std::min(digits.find('.'), digits.size()));
    const auto first = static_cast<int64_t>(digits.find_first_not_of("0."));
    return (point - first) * (hexadecimal ? 4 : 1) + exponent > 0
               ? std::numeric_limits<double>::infinity()
               : 0.0;
}

} // namespace

double parseNumber(std::string_view text) {
    // from_chars knows neither blanks nor a plus sign, which strtod takes.
    const bool negative = takeSign(text);
    if (text.empty() || text.front() == '+' || text.front() == '-') {
        return 0.0; // from_chars would take a second minus sign
    }
    const bool hexadecimal = isHexadecimal(text);
    if (hexadecimal) {
        text.remove_prefix(2);
        // Some from_chars take a minus sign behind a plus sign here: such an exponent is none.
        const size_t mark = text.find_first_of("pP");
        if (mark != std::string_view::npos && text.substr(mark + 1, 2) == "+-") {
            text = text.substr(0, mark);
        }
    }
    double value = 0.0;
    const auto result =
        std::from_chars(text.data(), text.data() + text.size(), value,
                        hexadecimal ? std::chars_format::hex : std::chars_format::general);
    if (result.ec == std::errc::invalid_argument) {
        return 0.0;
    }
    // from_chars does not say which end it was: infinity and zero are told apart here.
    if (result.ec == std::errc::result_out_of_range) {
        value =
            outOfRange(text.substr(0, static_cast<size_t>(result.ptr - text.data())), hexadecimal);
    }
    return negative ? -value : value;
}

uint32_t parseUnsigned32(std::string_view text) {
    constexpr uint64_t kMaximum = std::numeric_limits<uint32_t>::max();
    // Most are a few digits, perhaps behind a blank, and nothing else.
    constexpr size_t kFewDigits = 18; // which 64 bits hold
    if (text.size() <= kFewDigits) {
        uint64_t few = 0;
        size_t read = !text.empty() && text.front() == ' ' ? 1 : 0;
        for (; read < text.size(); ++read) {
            const auto digit = static_cast<uint32_t>(static_cast<unsigned char>(text[read])) - '0';
            if (digit > 9) {
                break;
            }
            few = few * 10 + digit;
        }
        if (read == text.size()) {
            return static_cast<uint32_t>(std::min(few, kMaximum));
        }
    }
    // Not strtoul, whose `unsigned long` is wider on some machines: a number in a message means the
    // same on all of them.
    const bool negative = takeSign(text);
    uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            break;
        }
        value = value * 10 + static_cast<uint64_t>(c - '0');
        // At each digit, so that 64 bits do however many there are. The sign does not count then,
        // as with strtoul.
        if (value > kMaximum) {
            return std::numeric_limits<uint32_t>::max();
        }
    }
    const auto narrow = static_cast<uint32_t>(value);
    return negative ? 0U - narrow : narrow;
}

} // namespace ScObjects
