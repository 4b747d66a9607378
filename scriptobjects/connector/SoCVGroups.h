#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "scriptobjects/core/SoString.h"
#include "scriptobjects/core/SoVector.h"

namespace ScObjects {

// One group entry, split: the group's name, its number and the pattern of a member application.
struct CVGroupEntry {
    SoString name;
    SoString numberText;
    double number = 0.0;
    SoString pattern; // app-7.0 or app-7.*
};

// The groups of applications, read once and then asked for each incomplete specifier: the entries
// are split on reading and indexed by the application of their pattern, so that a question costs
// the entries of one application.
//
// Owned by the connector and used under its lock. Owns the entries and their texts.
class CVGroups {
public:
    // The end of a pattern that any minor version fits.
    static constexpr std::string_view kAnyMinorVersion = ".*";

    CVGroups() = default;
    ~CVGroups();
    CVGroups(const CVGroups&) = delete;
    CVGroups& operator=(const CVGroups&) = delete;

    // What a connector fills, in the order of registration; `split` reads it.
    SoVector<SoString>& texts() { return texts_; }
    void split();

    bool isEmpty() const { return texts_.count() == 0; }

    // The entry that gives the application `key` (name, '-', version) its group: the highest number
    // above 0 whose pattern is the key, the last among equals. Null for none.
    const CVGroupEntry* findGroupOf(const SoString& key) const;

    // The last entry of `group` (a name, or a number as text) whose pattern names the application
    // `appName` and whose version lies in [lowest, highest). Null for none.
    const CVGroupEntry* findMember(const SoString& group, const SoString& appName, double lowest,
                                   double highest) const;

private:
    using Positions = std::vector<size_t>;

    SoVector<SoString> texts_; // owned
    std::vector<CVGroupEntry> entries_;
    std::unordered_map<std::string, Positions> byAppName_;
    // Patterns such as "app.*": what the ".*" stands for can reach into the application's name.
    Positions withoutVersion_;
};

} // namespace ScObjects
