#pragma once

#include <string>
#include <vector>

#include "caps/Store.h"

namespace caps::tool {

// Something in the registry that the messaging layer ignores or trips over.
struct Finding {
    std::string where; // a specifier or a subdomain, and the key
    std::string what;
    std::string why; // what it does to whoever reads the registry
};

// All findings, in the order of registration; what a listing shows is told for a user of `locale`.
// Takes time in proportion to the entries.
std::vector<Finding> checkRegistry(const Contents& contents, const std::string& locale = "en_us");

} // namespace caps::tool
