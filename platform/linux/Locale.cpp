#include "platform/Locale.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace platform {
namespace {

// As the identifiers of languages are written, however the variable is.
char inLowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

char inUpperCase(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// The identifier is printed into other programs' input: nothing but the agreed form gets through.
bool isIdentifier(std::string_view text) {
    const size_t underscore = text.find('_');
    if (underscore == std::string_view::npos) {
        return false;
    }
    const std::string_view language = text.substr(0, underscore);
    const std::string_view region = text.substr(underscore + 1);
    return language.size() >= 2 && language.size() <= 8 &&
           std::all_of(language.begin(), language.end(), isLetter) &&
           ((region.size() == 2 && std::all_of(region.begin(), region.end(), isLetter)) ||
            (region.size() == 3 && std::all_of(region.begin(), region.end(), isDigit)));
}

class LinuxLocale final : public Locale {
public:
    bool identifier(std::string& out) const override {
        // The first variable that is set and not empty decides, as it does for the C library: a
        // user who sets LC_ALL=C means it.
        for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
            const char* value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): see the header
            if (value == nullptr || *value == '\0') {
                continue;
            }
            std::string_view text(value);
            // The encoding and the variant behind these say nothing about the language.
            text = text.substr(0, text.find_first_of(".@"));
            // Not the next variable: this one has decided.
            if (!isIdentifier(text)) {
                return false; // "C" and "POSIX" among others
            }
            out.assign(text);
            const auto region = out.begin() + static_cast<ptrdiff_t>(text.find('_'));
            std::transform(out.begin(), region, out.begin(), inLowerCase);
            std::transform(region, out.end(), region, inUpperCase);
            return true;
        }
        return false;
    }
};

} // namespace

Locale& Locale::own() {
    static auto* const locale = new LinuxLocale;
    return *locale;
}

} // namespace platform
