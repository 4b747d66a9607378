#pragma once

#include <string>

#include "limits/Limits.h"

namespace limits {

// A limit by its name; a name that is not there does not compile.
struct Known {
    consteval Known(const char* name) { // NOLINT(google-explicit-constructor): a name is one
        const int64_t value = of(name);
        for (const Limit& each : kAll) {
            const char* a = each.name;
            const char* b = name;
            while (*a != '\0' && *a == *b) {
                ++a;
                ++b;
            }
            if (*a == *b && each.value == value) {
                limit = &each;
            }
        }
    }
    const Limit* limit = nullptr;
};

// A limit as the text of an error says it: "255 bytes", "64 MiB". A number that is spelled in a text
// says what held when it was written.
inline std::string inWords(Known known) {
    const Limit& limit = *known.limit;
    return limit.value % kMiB == 0 ? std::to_string(limit.value / kMiB) + " MiB"
                                   : std::to_string(limit.value) + " " + limit.unit;
}

} // namespace limits
