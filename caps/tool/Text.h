#pragma once

#include <string>
#include <string_view>

namespace caps::tool {

// 'A' to 'Z' become small; other bytes stay, whatever the locale.
std::string lowerCase(std::string_view text);

// True for well-formed UTF-8.
bool isUtf8(std::string_view text);

// The text with '?' for each control character and each byte that is no UTF-8: what lies in a
// database or a file name must not steer the terminal of who looks at it.
std::string printable(std::string_view text);

// A whole number or a decimal fraction, as people write them: "7", "7.0", "-0.5".
bool isDecimal(std::string_view text);

// The number at the beginning of the text, 0 without one, as C programs read it but the same under
// every locale.
double leadingNumber(std::string_view text);

} // namespace caps::tool
