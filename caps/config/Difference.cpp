#include "caps/config/Difference.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

#include "caps/RegistryLayout.h"

namespace caps::config {
namespace {

struct Field {
    std::string name;
    std::string value;
};

struct Item {
    std::string name;
    std::vector<Field> fields;
};

// What has one order of its own: products, payloads, groups, and what lies in the domains.
using Section = std::vector<Item>;

// Payloads stand apart from their products, so that one that went from one product to another is
// one change and not a removal and an addition.
struct Sections {
    Section products;
    Section payloads;
    Section subdomains;
    Section groups;
};

void addPayloads(Section& out, const Product& product) {
    for (const Payload& payload : product.payloads) {
        Item item{"payload " + payload.code,
                  {{"product", product.code},
                   {"kind", payload.kind},
                   {"launch path", payload.launchPath},
                   {"install state", std::to_string(payload.installState)}}};
        for (const PayloadValue& value : payload.data) {
            // Behind the number of the domain no key is called as one of the fields above.
            item.fields.push_back({std::to_string(value.domain) + " " + value.key, value.value});
        }
        out.push_back(std::move(item));
    }
}

// An entry that is there twice is two entries.
void addGroups(Section& out, const Subdomain& groups) {
    std::unordered_map<std::string, int> met;
    for (const KeyValue& entry : groups.data) {
        const auto group = parseGroup(entry);
        Item item =
            group ? Item{"group " + group->name + " " + group->pattern, {{"number", group->number}}}
                  : Item{"group " + entry.key, {{"value", entry.value}}};
        // Names tell entries apart below, so each must stand once.
        if (const int times = ++met[item.name]; times > 1) {
            item.name += " (" + std::to_string(times) + ")";
        }
        out.push_back(std::move(item));
    }
}

Sections sectionsOf(const Contents& contents) {
    Sections sections;
    for (const Product& product : contents.products) {
        sections.products.push_back({"product " + product.code, {}});
        addPayloads(sections.payloads, product);
    }
    for (const Subdomain& subdomain : contents.subdomains) {
        if (subdomain.domain == kRegistryDomain && subdomain.name == kGroupsSubdomain) {
            addGroups(sections.groups, subdomain);
            continue;
        }
        Item item{isApplicationSubdomain(subdomain)
                      ? "application " + subdomain.name.substr(kAppPrefix.size())
                      : "data " + std::to_string(subdomain.domain) + " " + subdomain.name,
                  {}};
        for (const KeyValue& entry : subdomain.data) {
            item.fields.push_back({entry.key, entry.value});
        }
        sections.subdomains.push_back(std::move(item));
    }
    return sections;
}

// Which of the positions are not part of a longest ascending series: the fewest that must move to
// put the others in order.
std::vector<bool> outOfOrder(const std::vector<size_t>& positions) {
    std::vector<size_t> ends;                               // of the best series of each length
    std::vector<size_t> before(positions.size(), SIZE_MAX); // each one's predecessor
    for (size_t i = 0; i < positions.size(); ++i) {
        // Of each length the series whose end is smallest can be continued by the most, so that one
        // is kept.
        const auto place =
            std::lower_bound(ends.begin(), ends.end(), i, [&](size_t end, size_t one) {
                return positions[end] < positions[one];
            });
        before[i] = place == ends.begin() ? SIZE_MAX : *(place - 1);
        if (place == ends.end()) {
            ends.push_back(i);
        } else {
            *place = i;
        }
    }
    std::vector<bool> out(positions.size(), true);
    for (size_t i = ends.empty() ? SIZE_MAX : ends.back(); i != SIZE_MAX; i = before[i]) {
        out[i] = false;
    }
    return out;
}

// Walks two lists of what has a name. Calls `removed`, `added` and `both` in the order of the
// lists, then `moved` for what stands elsewhere among what both have.
template <class Named, class Removed, class Added, class Both, class Moved>
void match(const std::vector<Named>& before, const std::vector<Named>& after, Removed&& removed,
           Added&& added, Both&& both, Moved&& moved) {
    std::unordered_map<std::string_view, size_t> places;
    places.reserve(after.size());
    for (size_t i = 0; i < after.size(); ++i) {
        places.emplace(after[i].name, i);
    }
    std::vector<size_t> positions; // in `after`, of what both have, in the order of `before`
    std::vector<bool> known(after.size(), false);
    for (const Named& one : before) {
        const auto found = places.find(one.name);
        if (found == places.end()) {
            removed(one);
        } else {
            positions.push_back(found->second);
            known[found->second] = true;
            both(one, after[found->second]);
        }
    }
    for (size_t i = 0; i < after.size(); ++i) {
        if (!known[i]) {
            added(after[i]);
        }
    }
    const std::vector<bool> out = outOfOrder(positions);
    for (size_t i = 0; i < positions.size(); ++i) {
        if (out[i]) {
            moved(after[positions[i]]);
        }
    }
}

class Comparison {
public:
    void add(const Section& before, const Section& after) {
        using Kind = Difference::Kind;
        const auto whole = [this](Kind kind) {
            return [this, kind](const Item& item) { rows.push_back({kind, item.name, {}}); };
        };
        match(
            before, after, whole(Kind::removed), whole(Kind::added),
            [this](const Item& a, const Item& b) { addFields(a, b); }, whole(Kind::moved));
    }

    std::vector<Difference> rows;

private:
    void addFields(const Item& before, const Item& after) {
        using Kind = Difference::Kind;
        const std::string& entry = before.name;
        match(
            before.fields, after.fields,
            [&](const Field& field) {
                rows.push_back({Kind::removed, entry, field.name, field.value, {}});
            },
            [&](const Field& field) {
                rows.push_back({Kind::added, entry, field.name, {}, field.value});
            },
            [&](const Field& a, const Field& b) {
                if (a.value != b.value) {
                    rows.push_back({Kind::changed, entry, a.name, a.value, b.value});
                }
            },
            [&](const Field& field) {
                rows.push_back({Kind::moved, entry, field.name});
            });
    }
};

} // namespace

const char* kindText(Difference::Kind kind) {
    switch (kind) {
    case Difference::Kind::added:
        return "added";
    case Difference::Kind::removed:
        return "removed";
    case Difference::Kind::changed:
        return "changed";
    case Difference::Kind::moved:
        return "moved";
    }
    return "unknown";
}

std::string lineOf(const Difference& difference) {
    std::string line = std::string(kindText(difference.kind)) + " " + difference.entry;
    if (difference.field.empty()) {
        return line;
    }
    line += " " + difference.field;
    switch (difference.kind) {
    case Difference::Kind::added:
        return line + ": " + difference.after;
    case Difference::Kind::removed:
        return line + ": " + difference.before;
    case Difference::Kind::changed:
        return line + ": " + difference.before + " -> " + difference.after;
    case Difference::Kind::moved:
        break;
    }
    return line;
}

std::vector<Difference> compare(const Contents& before, const Contents& after) {
    const Sections a = sectionsOf(before);
    const Sections b = sectionsOf(after);
    Comparison comparison;
    for (const auto section :
         {&Sections::products, &Sections::payloads, &Sections::subdomains, &Sections::groups}) {
        comparison.add(a.*section, b.*section);
    }
    return std::move(comparison.rows);
}

} // namespace caps::config
