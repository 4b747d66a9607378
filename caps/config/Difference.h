#pragma once

#include <string>
#include <vector>

#include "caps/Store.h"

namespace caps::config {

// One thing in which two registries differ.
struct Difference {
    enum class Kind { added, removed, changed, moved };
    Kind kind;
    std::string entry; // "application kivra-7.0", "group suite lumen-2.*", "product {...}", ...
    std::string field; // empty: the whole entry
    std::string before{};
    std::string after{};
    friend bool operator==(const Difference&, const Difference&) = default;
};

const char* kindText(Difference::Kind kind);
// One line for a person: "changed application kivra-7.0 Path: /a -> /b".
std::string lineOf(const Difference& difference);

// What turns `before` into `after`; nothing when both say the same in the same order. When an entry
// was written, where it comes from and the keys of group entries are not compared. Of entries that
// changed places with others the fewest are told. Takes time in proportion to the entries.
std::vector<Difference> compare(const Contents& before, const Contents& after);

} // namespace caps::config
