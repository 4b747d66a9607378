#pragma once

#include <cstdint>
#include <string_view>

#include "scriptobjects/core/SoExport.h"

namespace ScObjects {

// Numbers in the layer's texts. They read the same in every locale of the host program and on
// every width of `long`. Null counts as the empty text. Any thread; nothing is thrown.

// The number that `text` begins with, after blanks: what strtod gives in the "C" locale, exponents,
// hexadecimal, "inf" and "nan" included. 0 without a number, infinity beyond the range.
SO_EXPORT double parseNumber(std::string_view text);
inline double parseNumber(const char* text) {
    return text == nullptr ? 0.0 : parseNumber(std::string_view(text));
}

// The decimal number that `text` begins with, after blanks and a sign: what strtoul gives where
// `unsigned long` has 32 bits. 4294967295 for a larger one, 0 without a number; a minus sign gives
// the value modulo 2^32.
SO_EXPORT uint32_t parseUnsigned32(std::string_view text);
inline uint32_t parseUnsigned32(const char* text) {
    return text == nullptr ? 0 : parseUnsigned32(std::string_view(text));
}

} // namespace ScObjects
