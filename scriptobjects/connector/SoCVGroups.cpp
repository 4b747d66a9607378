#include "scriptobjects/connector/SoCVGroups.h"

#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/core/SoNumber.h"

namespace ScObjects {
namespace {

constexpr size_t kShortestWildcard = 3; // one byte and ".*"

bool isWildcard(std::string_view pattern) {
    return pattern.size() >= kShortestWildcard && pattern.ends_with(CVGroups::kAnyMinorVersion);
}

// True when `pattern` is `key`, a final ".*" standing for the key's text from its last '.' on.
bool matches(std::string_view pattern, std::string_view key) {
    const size_t dot = key.rfind('.');
    if (!isWildcard(pattern) || dot == std::string_view::npos) {
        return pattern == key;
    }
    pattern.remove_suffix(CVGroups::kAnyMinorVersion.size());
    return pattern == key.substr(0, dot);
}

std::string appNameOf(std::string_view specifier) {
    return std::string(CVSpecifierParts::of(specifier).appName);
}

} // namespace

CVGroups::~CVGroups() {
    while (texts_.count() > 0) {
        delete texts_.removeAt(texts_.count() - 1);
    }
}

void CVGroups::split() {
    entries_.clear();
    byAppName_.clear();
    withoutVersion_.clear();
    for (int32_t i = 0; i < texts_.count(); ++i) {
        CVGroupEntry entry;
        // Passed over: a mistake of one registration must not cost the others their group.
        if (!parseEntry(*texts_[i], entry.name, entry.numberText, entry.pattern)) {
            continue;
        }
        // Once, on reading: a question compares the numbers of many entries.
        entry.number = parseNumber(entry.numberText.c_str());
        // The entry first: when memory runs out, no position may lead to none.
        entries_.push_back(std::move(entry));
        const size_t position = entries_.size() - 1;
        const std::string_view pattern = entries_.back().pattern.view();
        if (isWildcard(pattern) && pattern.find('-') == std::string_view::npos) {
            withoutVersion_.push_back(position);
        }
        byAppName_[appNameOf(pattern)].push_back(position);
    }
}

const CVGroupEntry* CVGroups::findGroupOf(const SoString& key) const {
    const CVGroupEntry* best = nullptr;
    size_t bestPosition = 0;
    const auto look = [&](const Positions& positions) {
        for (const size_t position : positions) {
            const CVGroupEntry& entry = entries_[position];
            // Only numbers above 0 give a group, so 0 stands for none so far. Each list is in the
            // order of registration, but one is not behind the other: positions tell the later
            // entry.
            const double number = best == nullptr ? 0.0 : best->number;
            const bool wins = entry.number > number || (best != nullptr && entry.number == number &&
                                                        position > bestPosition);
            if (wins && matches(entry.pattern.view(), key.view())) {
                best = &entry;
                bestPosition = position;
            }
        }
    };
    if (const auto found = byAppName_.find(appNameOf(key.view())); found != byAppName_.end()) {
        look(found->second);
    }
    look(withoutVersion_);
    return best;
}

const CVGroupEntry* CVGroups::findMember(const SoString& group, const SoString& appName,
                                         double lowest, double highest) const {
    const auto found = byAppName_.find(std::string(appName.view()));
    if (found == byAppName_.end()) {
        return nullptr;
    }
    // A group that is asked for by number: "7" and "7.0" are the same one, "seven" is none.
    const char first = group.isEmpty() ? '\0' : *group.c_str();
    const bool isNumber = (first >= '0' && first <= '9') || first == '.';
    const double number = parseNumber(group.c_str());
    const Positions& positions = found->second;
    // From the end: of several entries the last registration counts.
    for (auto position = positions.rbegin(); position != positions.rend(); ++position) {
        const CVGroupEntry& entry = entries_[*position];
        if (entry.name != group && !(isNumber && entry.number == number)) {
            continue;
        }
        const CVSpecifierParts parts = CVSpecifierParts::of(entry.pattern.view());
        // A pattern such as "7.*" counts as 7: a number ends where its digits do.
        double version = parseNumber(parts.version);
        if (version < 0.0) {
            version = highest;
        }
        if (version >= lowest && version < highest) {
            return &entry;
        }
    }
    return nullptr;
}

} // namespace ScObjects
