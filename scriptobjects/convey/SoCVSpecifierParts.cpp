#include "scriptobjects/convey/SoCVSpecifierParts.h"

namespace ScObjects {
namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

} // namespace

CVSpecifierParts CVSpecifierParts::of(std::string_view text) {
    CVSpecifierParts parts;
    // First, since all other marks may stand behind it.
    const size_t hash = text.find('#');
    if (hash != std::string_view::npos) {
        parts.suffix = text.substr(hash + 1);
        text = text.substr(0, hash);
    }
    const size_t dash = text.find('-');
    std::string_view name = text.substr(0, dash);
    // In the name only: locales have an underscore, too.
    const size_t underscore = name.find('_');
    if (underscore != std::string_view::npos) {
        parts.instance = name.substr(underscore + 1);
        name = name.substr(0, underscore);
    }
    parts.appName = name;
    if (dash == std::string_view::npos) {
        return parts;
    }
    std::string_view fields = text.substr(dash + 1);
    // A first field without a digit in front is a locale or a group.
    if (!fields.empty() && isDigit(fields.front())) {
        const size_t second = fields.find('-');
        parts.version = fields.substr(0, second);
        fields = second == std::string_view::npos ? std::string_view() : fields.substr(second + 1);
    }
    parts.locale = fields;
    return parts;
}

SoString CVSpecifierParts::text() const {
    SoString text(appName);
    const auto add = [&text](char mark, std::string_view part) {
        // No mark without its part: names are compared byte for byte, so each has one spelling
        // only.
        if (!part.empty()) {
            text << mark << part;
        }
    };
    add('_', instance);
    add('-', version);
    add('-', locale);
    add('#', suffix);
    return text;
}

SoString CVSpecifierParts::applicationText() const {
    CVSpecifierParts parts = *this;
    // All processes of the application have this name in common, whichever instances they are.
    parts.instance = {};
    return parts.textWithSuffix({});
}

SoString CVSpecifierParts::textWithSuffix(std::string_view other) const {
    CVSpecifierParts parts = *this;
    parts.suffix = other;
    return parts.text();
}

} // namespace ScObjects
