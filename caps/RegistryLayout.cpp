#include "caps/RegistryLayout.h"

#include <algorithm>

namespace caps {

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    // Letters of ASCII only, in every locale: two processes must agree on what is the same.
    std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
    });
    return lower;
}

bool isUtf8(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        const auto first = static_cast<unsigned char>(text[i]);
        const size_t length = first < 0x80   ? 1
                              : first < 0xC2 ? 0
                              : first < 0xE0 ? 2
                              : first < 0xF0 ? 3
                              : first < 0xF5 ? 4
                                             : 0;
        if (length == 0 || length > text.size() - i) {
            return false;
        }
        for (size_t j = 1; j < length; ++j) {
            const auto next = static_cast<unsigned char>(text[i + j]);
            // The second byte tells overlong forms, surrogates and what is beyond the last one.
            const unsigned low = j > 1 ? 0x80 : first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
            const unsigned high = j > 1 ? 0xBF : first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
            if (next < low || next > high) {
                return false;
            }
        }
        i += length;
    }
    return true;
}

std::string subdomainOf(std::string_view specifier) {
    return std::string(kAppPrefix) + lowerCase(specifier);
}

bool isApplicationSubdomain(const Subdomain& subdomain) {
    // With the mark behind the name: "groups" itself is taken, "groupsoft-1.0" is an application.
    return subdomain.domain == kRegistryDomain && subdomain.name.starts_with(kAppPrefix) &&
           subdomain.name.size() > kAppPrefix.size() &&
           !(subdomain.name + "/").starts_with(kGroupPrefix);
}

const std::string* find(const std::vector<KeyValue>& keys, std::string_view key) {
    const auto found = std::find_if(keys.begin(), keys.end(),
                                    [key](const KeyValue& entry) { return entry.key == key; });
    return found == keys.end() ? nullptr : &found->value;
}

std::optional<Group> parseGroup(const KeyValue& entry) {
    std::string_view value = entry.value;
    if (!entry.key.starts_with(kGroupKeyPrefix) || !value.starts_with(kGroupPrefix)) {
        return std::nullopt;
    }
    value.remove_prefix(kGroupPrefix.size());
    const size_t first = value.find('/');
    // The number is what lies between the first and the last mark, as for who reads the registry.
    const size_t last = value.rfind('/');
    if (first == last) {
        return std::nullopt;
    }
    return Group{entry.key, std::string(value.substr(0, first)),
                 std::string(value.substr(first + 1, last - first - 1)),
                 std::string(value.substr(last + 1))};
}

std::string groupValue(const Group& group) {
    return std::string(kGroupPrefix) + group.name + "/" + group.number + "/" + group.pattern;
}

std::string effectiveSpecifier(const Subdomain& subdomain) {
    std::string specifier;
    for (const KeyValue& entry : subdomain.data) {
        // The last one of either counts, as for who reads the registry.
        if (entry.key == kSpecifierKey || entry.key == "ProductCode") {
            specifier = lowerCase(entry.value);
        }
    }
    return specifier.empty() ? subdomain.name.substr(kAppPrefix.size()) : specifier;
}

std::string originOf(const Subdomain& subdomain) {
    // One value that was written by hand makes the whole entry a person's: no file may take it back
    // then.
    const bool byHand = subdomain.data.empty() ||
                        std::any_of(subdomain.data.begin(), subdomain.data.end(),
                                    [](const KeyValue& entry) { return entry.origin.empty(); });
    return byHand ? std::string() : subdomain.data.front().origin;
}

} // namespace caps
