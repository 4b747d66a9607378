#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "caps/Store.h"

// How the registry of applications lies in the database's domain data.
namespace caps {

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

struct Group {
    std::string key; // "Group1"; empty: the next free one
    std::string name;
    std::string number;
    std::string pattern;
};

std::string lowerCase(std::string_view text);
// True for text that everybody can read: no overlong forms, no surrogates.
bool isUtf8(std::string_view text);
std::string subdomainOf(std::string_view specifier);
// True for the subdomain of an application, not of the groups.
bool isApplicationSubdomain(const Subdomain& subdomain);
const std::string* find(const std::vector<KeyValue>& keys, std::string_view key);
// The parts of a group's value, or none when it does not split into three.
std::optional<Group> parseGroup(const KeyValue& entry);
std::string groupValue(const Group& group);
// What the layer takes an application's specifier to be.
std::string effectiveSpecifier(const Subdomain& subdomain);
// The file that an application comes from: that of all its values, none (by hand) as soon as one of
// them was written by hand.
std::string originOf(const Subdomain& subdomain);

} // namespace caps
