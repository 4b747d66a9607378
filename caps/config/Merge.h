#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "caps/Store.h"

namespace caps::config {

// What becomes of an entry that is on both sides and differs.
enum class Rule {
    keep,    // what is there stays
    replace, // what comes takes its place
    newer,   // the one that was written later, what is there when that is not known
};
// By its name; none for another text.
std::optional<Rule> ruleOf(std::string_view name);

// A registration with this key, "true", is of its machine alone: imports leave it out.
inline constexpr std::string_view kSkipImportKey = "SkipImport";

struct Merged {
    size_t added = 0;
    size_t replaced = 0;
    size_t kept = 0;    // that differ, or say the same already
    size_t skipped = 0; // by their own wish
};

// Takes the entries of `incoming` into the store, each with the time at which it was written.
// Applications are the same when their specifiers are, group entries when group and application
// are, products by their identifiers, other data value by value; what is replaced keeps its place.
// The caller holds the transaction, which a failure leaves half done; `lastError` of the store or
// `reason` then says why.
[[nodiscard]] Status merge(Store& store, const Contents& incoming, Rule rule, Merged& merged,
                           std::string& reason);

// Which registrations go: of the ways to say it exactly one is used.
struct Selection {
    std::string specifier;
    std::string product; // with the applications that its payloads name
    std::string folder;  // the applications whose path lies in it
    bool all = false;    // every application and every group; products stay
};

// Removes them; the caller holds the transaction. nothingThere when there are none.
[[nodiscard]] Status removeSelected(Store& store, const Selection& selection);

} // namespace caps::config
