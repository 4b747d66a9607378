#pragma once

#include <map>
#include <string>
#include <vector>

#include "caps/Store.h"

// Registrations that packages bring as files: NAME.toml in a folder of theirs, and in a folder of
// the administrator's to change or mask one.
namespace caps::tool {

inline constexpr const char* kPackagesFolder = "/usr/share/ovrel/caps.d";
inline constexpr const char* kAdministratorsFolder = "/etc/ovrel/caps.d";

struct DropIn {
    std::string path; // from where its entries are said to come
    Contents contents;
    std::string fault; // why it cannot be read: what it brought before stays
};

// The files of the folders in the order of their names. A file of a later folder stands for the one
// of the same name in an earlier one; an empty one, or a link to /dev/null, masks it.
std::vector<DropIn> readDropIns(const std::vector<std::string>& folders);

// Makes the store hold what the files say: new entries are added, those of files that have gone are
// removed, changed ones replaced at their place. An entry that was written by hand, or of which a
// value was, stays as it is. Of two files with the same entry the first has it. What was not done
// is told in `remarks`. The caller holds the transaction.
[[nodiscard]] Status applyDropIns(Store& store, const std::vector<DropIn>& files,
                                  std::vector<std::string>& remarks);

} // namespace caps::tool
