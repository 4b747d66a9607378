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

// All findings, in the order of registration.
std::vector<Finding> checkRegistry(const Contents& contents);

} // namespace caps::tool
