#pragma once

#include <string>
#include <vector>

#include "caps/Store.h"

namespace caps::tool {

// Whom a finding harms most.
enum class Harm {
    none,       // nobody who lists the registry
    ignored,    // a reader passes over what was registered
    listingEnds // a listing ends abnormally there
};

// Something in the registry that the messaging layer ignores or trips over.
struct Finding {
    std::string where; // a specifier or a subdomain, and the key
    std::string what;
    std::string why; // what it does to whoever reads the registry
    Harm harm = Harm::none;
};

// All findings, in the order of registration; what a listing shows is told for a user of `locale`.
// Takes time in proportion to the entries.
std::vector<Finding> checkRegistry(const Contents& contents, const std::string& locale = "en_us");

} // namespace caps::tool
