#include "caps/tool/Registry.h"
#include "limits/InWords.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace caps::tool {
namespace {

struct KnownKey {
    std::string_view key;
    KeyKind kind;
};

constexpr KnownKey kKnownKeys[] = {
    {kSpecifierKey, KeyKind::text},
    {"ProductCode", KeyKind::text},
    {kPathKey, KeyKind::text},
    {"WindowClassName", KeyKind::text},
    {kDisplayNameKey, KeyKind::text},
    {"BundleIdentifier", KeyKind::text},
    {kVersionKey, KeyKind::decimal},
    {"AllowMultipleInstances", KeyKind::boolean},
    {"IsShellTool", KeyKind::boolean},
    {"MessageAuthentication", KeyKind::boolean},
    {"MessageDigest", KeyKind::boolean},
    {"SupportsDBGK", KeyKind::boolean},
    {kBasenameKey, KeyKind::text},
    {"ExecutableExtensionWin", KeyKind::text},
    {"ExecutableExtensionMac", KeyKind::text},
    {"ExecutableExtensionUnix", KeyKind::text},
    {"OMVDictionary", KeyKind::text},
    {"DeveloperInstallPath", KeyKind::text},
    {kRedirectKey, KeyKind::text},
    {"ExecutablePath", KeyKind::text},
    {kIconKey, KeyKind::text},
};

constexpr const char* kNoUtf8 = "is no UTF-8";

} // namespace

std::optional<std::string> firstThatIsNotUtf8(const Contents& contents) {
    const auto is = [](std::initializer_list<std::string_view> texts) {
        return std::all_of(texts.begin(), texts.end(), isUtf8);
    };
    for (const Product& product : contents.products) {
        if (!is({product.code})) {
            return "product " + product.code;
        }
        for (const Payload& payload : product.payloads) {
            if (!is({payload.code, payload.kind, payload.launchPath})) {
                return "payload " + payload.code + " of " + product.code;
            }
            for (const PayloadValue& entry : payload.data) {
                if (!is({entry.key, entry.value})) {
                    return "payload " + payload.code + " " + entry.key;
                }
            }
        }
    }
    for (const Subdomain& subdomain : contents.subdomains) {
        if (!is({subdomain.name})) {
            return subdomain.name;
        }
        for (const KeyValue& entry : subdomain.data) {
            if (!is({entry.key, entry.value})) {
                return subdomain.name + " " + entry.key;
            }
        }
    }
    return std::nullopt;
}

std::optional<double> decimal(std::string_view text) {
    double number = 0.0;
    const auto result =
        std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    const bool whole = result.ec == std::errc() && result.ptr == text.data() + text.size();
    return whole && std::isfinite(number) ? std::optional(number) : std::nullopt;
}

bool isLocalizedName(std::string_view key) {
    const size_t name = kDisplayNameKey.size();
    return key.starts_with(kDisplayNameKey) && key.size() > name + 2 && key[name] == '[' &&
           key.ends_with(']');
}

std::optional<KeyKind> keyKind(std::string_view key) {
    if (isLocalizedName(key)) {
        return KeyKind::text;
    }
    const auto* found = std::find_if(std::begin(kKnownKeys), std::end(kKnownKeys),
                                     [key](const KnownKey& known) { return known.key == key; });
    return found == std::end(kKnownKeys) ? std::nullopt : std::optional(found->kind);
}

std::optional<std::string> specifierFault(std::string_view specifier) {
    if (specifier.empty()) {
        return "a specifier cannot be empty";
    }
    if (specifier.size() > kMaxSpecifierBytes) {
        return "a specifier has at most " + limits::inWords("specifier.length");
    }
    if (specifier.find('#') != std::string_view::npos) {
        return "a registered specifier has no suffix ('#')";
    }
    if (!isUtf8(specifier)) {
        return kNoUtf8;
    }
    if (specifier.find_first_of("-_") == 0) {
        return "a specifier begins with the application's name";
    }
    if (std::any_of(specifier.begin(), specifier.end(),
                    [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; })) {
        return "a specifier has no control characters";
    }
    if ((std::string(kAppPrefix) + lowerCase(specifier) + "/").starts_with(kGroupPrefix)) {
        return "the name \"groups\" is taken by the groups";
    }
    return std::nullopt;
}

std::optional<std::string> valueFault(std::string_view key, std::string_view value) {
    if (value.size() > kMaxValueBytes) {
        return "a value has at most " + limits::inWords("database.value");
    }
    if (!isUtf8(key) || !isUtf8(value)) {
        return kNoUtf8;
    }
    if (key == kPathKey && value.find('/') == std::string_view::npos) {
        return "a path holds a '/' (a listing would end abnormally at this one)";
    }
    if (key == kSpecifierKey || key == "ProductCode" || key == kRedirectKey) {
        if (std::optional<std::string> fault = specifierFault(value)) {
            return fault;
        }
    }
    const std::optional<KeyKind> kind = keyKind(key);
    if (kind == KeyKind::boolean && value != "true" && value != "false") {
        return "must be \"true\" or \"false\" (any other spelling counts as false)";
    }
    if (kind == KeyKind::decimal && !decimal(value)) {
        return "must be a decimal number";
    }
    return std::nullopt;
}

bool isMakersAddress(std::string_view text) {
    constexpr std::string_view scheme = "https://";
    if (!text.starts_with(scheme)) {
        return false;
    }
    text.remove_prefix(scheme.size());
    const std::string_view host = text.substr(0, text.find('/'));
    return host.ends_with(".ovrel.example") &&
           host.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                  "0123456789.-") == std::string_view::npos;
}

std::set<std::string> specifiersOfPayloads(const Contents& contents) {
    std::set<std::string> specifiers;
    for (const Subdomain& subdomain : contents.subdomains) {
        if (subdomain.domain != kRegistryDomain || !subdomain.name.starts_with('{')) {
            continue;
        }
        for (const KeyValue& entry : subdomain.data) {
            if (entry.key.starts_with(kConveyCodeKey) && entry.value.starts_with(kAppPrefix)) {
                specifiers.insert(entry.value.substr(kAppPrefix.size()));
            }
        }
    }
    return specifiers;
}

Status writeApplication(Store& store, const Application& application, bool& replaced) {
    const std::string subdomain = subdomainOf(application.specifier);
    // Written anew from the beginning: keys that are not said any more must go.
    Status status = store.removeSubdomain(kRegistryDomain, subdomain);
    if (status != Status::ok && status != Status::nothingThere) {
        return status;
    }
    replaced = status == Status::ok;
    status = store.setDomainData(kRegistryDomain, subdomain, kSpecifierKey, application.specifier);
    for (const KeyValue& entry : application.keys) {
        if (status == Status::ok) {
            status = store.setDomainData(kRegistryDomain, subdomain, entry.key, entry.value);
        }
    }
    return status;
}

Status writeGroup(Store& store, const Group& group, bool& replaced) {
    std::vector<Subdomain> subdomains;
    const Status status = store.readDomain(kRegistryDomain, subdomains);
    if (status != Status::ok && status != Status::nothingThere) {
        return status;
    }
    const std::string value = groupValue(group);
    std::set<std::string> keys;
    replaced = false;
    for (const Subdomain& subdomain : subdomains) {
        if (subdomain.name != kGroupsSubdomain) {
            continue;
        }
        for (const KeyValue& entry : subdomain.data) {
            keys.insert(entry.key);
            replaced = replaced || entry.key == group.key;
            if (group.key.empty() && entry.value == value) {
                replaced = true;
                return Status::ok; // said before
            }
        }
    }
    std::string key = group.key;
    for (size_t n = keys.size() + 1; key.empty() || (group.key.empty() && keys.count(key) != 0);
         ++n) {
        key = std::string(kGroupKeyPrefix) + std::to_string(n);
    }
    return store.setDomainData(kRegistryDomain, kGroupsSubdomain, key, value);
}

} // namespace caps::tool
