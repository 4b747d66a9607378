#include "caps/Layers.h"

#include <algorithm>
#include <set>

#include "caps/RegistryLayout.h"

namespace caps {
namespace {

bool isGroups(const Subdomain& subdomain) {
    return subdomain.domain == kRegistryDomain && subdomain.name == kGroupsSubdomain;
}

// The entries of both, each once; a key that both use becomes another one for the top's entry.
void appendGroups(Subdomain& below, const Subdomain& top) {
    std::set<std::string> values;
    // Which of two entries says the same is told by the value: keys are only names that must
    // differ.
    for (const KeyValue& entry : top.data) {
        values.insert(entry.value);
    }
    // The one below goes, so that the user's stands behind all of the system's, where it counts
    // more.
    std::erase_if(below.data, [&](const KeyValue& entry) { return values.contains(entry.value); });
    std::set<std::string> keys;
    for (const KeyValue& entry : below.data) {
        keys.insert(entry.key);
    }
    size_t n = below.data.size() + top.data.size();
    for (KeyValue entry : top.data) {
        while (!keys.insert(entry.key).second) {
            entry.key = std::string(kGroupKeyPrefix) + std::to_string(++n);
        }
        below.data.push_back(std::move(entry));
    }
}

class Top {
public:
    explicit Top(const Contents& contents) {
        for (const Product& product : contents.products) {
            codes_.insert(product.code);
            for (const Payload& payload : product.payloads) {
                codes_.insert(payload.code);
            }
        }
        for (const Subdomain& subdomain : contents.subdomains) {
            names_.emplace(subdomain.domain, subdomain.name);
            // By the specifier, too: a subdomain of another name may register the same application,
            // and the user's must win there as well.
            if (isApplicationSubdomain(subdomain)) {
                specifiers_.insert(effectiveSpecifier(subdomain));
            }
            groups_ = isGroups(subdomain) ? &subdomain : groups_;
        }
    }

    const Subdomain* groups() const { return groups_; }
    bool has(const std::string& code) const { return codes_.contains(code); }
    bool has(const Subdomain& subdomain) const {
        return names_.contains({subdomain.domain, subdomain.name}) ||
               (isApplicationSubdomain(subdomain) &&
                specifiers_.contains(effectiveSpecifier(subdomain)));
    }

private:
    std::set<std::string> codes_;
    std::set<std::pair<int32_t, std::string>> names_;
    std::set<std::string> specifiers_;
    const Subdomain* groups_ = nullptr;
};

} // namespace

Contents layered(Contents below, Contents top, const std::string& belowPath) {
    const Top known(top);
    Contents both;
    for (Product& product : below.products) {
        // Payloads are found by their identifiers alone, so one of the user's takes the place of
        // the one below even in a product that stays.
        std::erase_if(product.payloads,
                      [&](const Payload& payload) { return known.has(payload.code); });
        if (!known.has(product.code)) {
            both.products.push_back(std::move(product));
        }
    }
    bool merged = false;
    for (Subdomain& subdomain : below.subdomains) {
        for (KeyValue& entry : subdomain.data) {
            entry.origin = entry.origin.empty() ? belowPath : entry.origin;
        }
        if (isGroups(subdomain)) {
            // One subdomain holds the groups of all applications, so the two are joined where
            // others are replaced.
            if (known.groups() != nullptr) {
                appendGroups(subdomain, *known.groups());
                merged = true;
            }
            both.subdomains.push_back(std::move(subdomain));
        } else if (!known.has(subdomain)) {
            both.subdomains.push_back(std::move(subdomain));
        }
    }
    std::move(top.products.begin(), top.products.end(), std::back_inserter(both.products));
    for (Subdomain& subdomain : top.subdomains) {
        if (!merged || !isGroups(subdomain)) {
            both.subdomains.push_back(std::move(subdomain));
        }
    }
    both.refused = std::move(top.refused);
    return both;
}

} // namespace caps
