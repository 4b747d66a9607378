#pragma once

#include <cstddef>
#include <cstring>

namespace ScObjects {

// Turns the NUL bytes of a text into line feeds. A sender's terminator would end the text for
// whoever reads it as one of C, and hide what follows; as a line feed between two messages it is
// passed over. Any thread.
inline void replaceTerminators(char* text, size_t bytes) {
    // As a rule there is none, and to look for it costs a fraction of going through all bytes.
    if (std::memchr(text, '\0', bytes) == nullptr) {
        return;
    }
    for (char* const end = text + bytes; text != end; ++text) {
        *text = *text == '\0' ? '\n' : *text; // written always: the compiler takes many at once
    }
}

} // namespace ScObjects
