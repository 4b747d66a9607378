#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "caps/Store.h"

#include "limits/Limits.h"

// The registry of applications as it lies in the database's domain data: what a packager says of an
// application or a group, and how that is written there.
namespace caps::tool {

inline constexpr int32_t kRegistryDomain = 1;
inline constexpr std::string_view kAppPrefix = "/ovrel/convey/";
inline constexpr std::string_view kGroupsSubdomain = "/ovrel/convey/groups";
inline constexpr std::string_view kGroupPrefix = "/ovrel/convey/groups/";
inline constexpr std::string_view kGroupKeyPrefix = "Group";
inline constexpr std::string_view kSpecifierKey = "Specifier";
inline constexpr std::string_view kPathKey = "Path";
inline constexpr std::string_view kDisplayNameKey = "DisplayName";
inline constexpr std::string_view kRedirectKey = "RedirectTo";
inline constexpr std::string_view kBasenameKey = "ExecutableBasename";
inline constexpr std::string_view kVersionKey = "ConveyVersion";
inline constexpr std::string_view kConveyCodeKey = "ConveyCode";
inline constexpr size_t kMaxSpecifierBytes = limits::of("specifier.length");

// What a key's value must look like.
enum class KeyKind { text, boolean, decimal };

// The kind of a key that registrations have; none for other keys.
std::optional<KeyKind> keyKind(std::string_view key);

struct Application {
    std::string specifier;      // lower case
    std::vector<KeyValue> keys; // without the specifier's own
};

struct Group {
    std::string key; // "Group1"; empty: the next free one
    std::string name;
    std::string number;
    std::string pattern;
};

std::string lowerCase(std::string_view text);
// The number that the whole text is, or none.
std::optional<double> decimal(std::string_view text);
std::string subdomainOf(std::string_view specifier);
// True for the subdomain of an application, not of the groups.
bool isApplicationSubdomain(const Subdomain& subdomain);
const std::string* find(const std::vector<KeyValue>& keys, std::string_view key);

// Why the text cannot be registered as a specifier, or none.
std::optional<std::string> specifierFault(std::string_view specifier);
// Why the value cannot be stored under the key of an application, or none. An empty value is one.
std::optional<std::string> valueFault(std::string_view key, std::string_view value);
// True for an address of the maker's own, which serves as a path.
bool isMakersAddress(std::string_view text);
// The specifiers whose path products' payloads give ("ConveyCode" of the payload's domain data).
std::set<std::string> specifiersOfPayloads(const Contents& contents);
// The parts of a group's value, or none when it does not split into three.
std::optional<Group> parseGroup(const KeyValue& entry);
std::string groupValue(const Group& group);

// Write one entry; the caller holds the transaction. `replaced` tells whether it was there before.
[[nodiscard]] Status writeApplication(Store& store, const Application& application, bool& replaced);
[[nodiscard]] Status writeGroup(Store& store, const Group& group, bool& replaced);

} // namespace caps::tool
