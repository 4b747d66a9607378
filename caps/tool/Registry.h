#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "caps/RegistryLayout.h"
#include "caps/Store.h"

#include "limits/Limits.h"

// The registry of applications as it lies in the database's domain data: what a packager says of an
// application or a group, and how that is written there.
namespace caps::tool {

inline constexpr size_t kMaxSpecifierBytes = limits::of("specifier.length");

// What the desktop shows of an application; no reader of the layer knows it.
inline constexpr std::string_view kIconKey = "Icon";

// What a key's value must look like.
enum class KeyKind { text, boolean, decimal };

// True for "DisplayName[de]": the name for people in a language.
bool isLocalizedName(std::string_view key);
// The kind of a key that registrations have; none for other keys.
std::optional<KeyKind> keyKind(std::string_view key);

struct Application {
    std::string specifier;      // lower case
    std::vector<KeyValue> keys; // without the specifier's own
};

// Where the first text is that is no UTF-8, such as a subdomain and its key; none when all are.
std::optional<std::string> firstThatIsNotUtf8(const Contents& contents);

// The number that the whole text is, or none.
std::optional<double> decimal(std::string_view text);

// Why the text cannot be registered as a specifier, or none.
std::optional<std::string> specifierFault(std::string_view specifier);
// Why the value cannot be stored under the key of an application, or none. An empty value is one.
std::optional<std::string> valueFault(std::string_view key, std::string_view value);
// True for an address of the maker's own, which serves as a path.
bool isMakersAddress(std::string_view text);
// The specifiers whose path products' payloads give ("ConveyCode" of the payload's domain data).
std::set<std::string> specifiersOfPayloads(const Contents& contents);

// Write one entry; the caller holds the transaction. `replaced` tells whether it was there before.
[[nodiscard]] Status writeApplication(Store& store, const Application& application, bool& replaced);
[[nodiscard]] Status writeGroup(Store& store, const Group& group, bool& replaced);

} // namespace caps::tool
