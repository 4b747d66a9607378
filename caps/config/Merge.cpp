#include "caps/config/Merge.h"

#include <map>
#include <set>
#include <unordered_map>

#include "caps/RegistryLayout.h"

namespace caps::config {
namespace {

std::string groupName(const KeyValue& entry) {
    const auto group = parseGroup(entry);
    return group ? lowerCase(group->name + "/" + group->pattern) : "\n" + entry.key;
}

class Merger {
public:
    Merger(Store& store, Rule rule, Merged& merged, std::string& reason)
        : store_(store), rule_(rule), merged_(merged), reason_(reason) {}

    Status run(const Contents& incoming) {
        Status status = store_.readAll(there_);
        for (const Product& product : there_.products) {
            products_.emplace(product.code, &product);
            for (const Payload& payload : product.payloads) {
                payloads_.emplace(payload.code, &product);
            }
        }
        for (const Subdomain& subdomain : there_.subdomains) {
            subdomains_.emplace(nameOf(subdomain), &subdomain);
            if (isApplicationSubdomain(subdomain)) {
                // Of two registrations of one specifier the first counts, as for everybody who
                // searches.
                applications_.emplace(effectiveSpecifier(subdomain), &subdomain);
            }
        }
        for (const Product& product : incoming.products) {
            status = status == Status::ok ? take(product) : status;
        }
        for (const Subdomain& subdomain : incoming.subdomains) {
            if (status != Status::ok) {
                break;
            }
            if (isApplicationSubdomain(subdomain)) {
                status = takeApplication(subdomain);
            } else if (subdomain.domain == kRegistryDomain && subdomain.name == kGroupsSubdomain) {
                status = takeGroups(subdomain);
            } else {
                status = takeData(subdomain);
            }
        }
        return status;
    }

private:
    static std::string nameOf(const Subdomain& subdomain) {
        return std::to_string(subdomain.domain) + " " + subdomain.name;
    }

    bool isTaken(int64_t there, int64_t incoming) const {
        // 0 stands for a time that is not known, and is older than nothing.
        return rule_ == Rule::replace || (rule_ == Rule::newer && incoming > there && there != 0);
    }

    Status take(const Product& product) {
        for (const Payload& payload : product.payloads) {
            // Payloads are found by their identifiers alone, so two products cannot have the same
            // one.
            const auto owner = payloads_.find(payload.code);
            if (owner != payloads_.end() && owner->second->code != product.code) {
                reason_ = "payload " + payload.code + " belongs to product " + owner->second->code;
                return Status::invalidArgument;
            }
        }
        const auto found = products_.find(product.code);
        if (found != products_.end() &&
            // What says the same is not written again: its time, and that of the whole, would
            // change for nothing.
            (*found->second == product || !isTaken(found->second->changed, product.changed))) {
            ++merged_.kept;
            return Status::ok;
        }
        ++(found == products_.end() ? merged_.added : merged_.replaced);
        const Status status =
            found == products_.end() ? store_.addProduct(product) : store_.replaceProduct(product);
        // The time comes with the entry: written as of now, it would pass for newer than where it
        // came from.
        return status == Status::ok && product.changed > 0
                   ? store_.setProductChanged(product.code, product.changed)
                   : status;
    }

    Status write(const Subdomain& subdomain) {
        const Status status = store_.writeSubdomain(subdomain);
        return status == Status::ok && subdomain.changed > 0
                   ? store_.setChanged(subdomain.domain, subdomain.name, subdomain.changed)
                   : status;
    }

    Status takeApplication(const Subdomain& subdomain) {
        const std::string* skip = find(subdomain.data, kSkipImportKey);
        if (skip != nullptr && *skip == "true") {
            ++merged_.skipped;
            return Status::ok;
        }
        // Either may be the same application: the name of the subdomain is not always its
        // specifier.
        const auto byName = subdomains_.find(nameOf(subdomain));
        const auto bySpecifier = applications_.find(effectiveSpecifier(subdomain));
        const Subdomain* there = byName != subdomains_.end()          ? byName->second
                                 : bySpecifier != applications_.end() ? bySpecifier->second
                                                                      : nullptr;
        if (there == nullptr) {
            ++merged_.added;
            return write(subdomain);
        }
        if (there->data == subdomain.data || !isTaken(there->changed, subdomain.changed)) {
            ++merged_.kept;
            return Status::ok;
        }
        ++merged_.replaced;
        // Under the same name the row stays, and with it its place in the order. Under another name
        // both would register the application.
        const Status status = there->name == subdomain.name
                                  ? store_.clearSubdomain(there->domain, there->name)
                                  : store_.removeSubdomain(there->domain, there->name);
        return status == Status::ok ? write(subdomain) : status;
    }

    Status takeGroups(const Subdomain& groups) {
        const auto found = subdomains_.find(nameOf(groups));
        if (found == subdomains_.end()) {
            merged_.added += groups.data.size();
            return write(groups);
        }
        const Subdomain& there = *found->second;
        std::unordered_map<std::string, const KeyValue*> entries;
        std::set<std::string> keys;
        for (const KeyValue& entry : there.data) {
            entries.emplace(groupName(entry), &entry);
            keys.insert(entry.key);
        }
        Subdomain changes{groups.domain, groups.name, {}, groups.changed};
        for (const KeyValue& entry : groups.data) {
            const auto known = entries.find(groupName(entry));
            if (known == entries.end()) {
                // Its own key may belong to another entry here.
                changes.data.push_back({freeKey(entry.key, keys), entry.value});
                ++merged_.added;
            } else if (known->second->value != entry.value &&
                       isTaken(there.changed, groups.changed)) {
                // Under the key that it has here: keys of group entries are names of their lines
                // only.
                changes.data.push_back({known->second->key, entry.value});
                ++merged_.replaced;
            } else {
                ++merged_.kept;
            }
        }
        return changes.data.empty() ? Status::ok : store_.writeSubdomain(changes);
    }

    static std::string freeKey(std::string key, std::set<std::string>& keys) {
        for (size_t n = keys.size() + 1; !keys.insert(key).second; ++n) {
            key = std::string(kGroupKeyPrefix) + std::to_string(n);
        }
        return key;
    }

    Status takeData(const Subdomain& subdomain) {
        const auto found = subdomains_.find(nameOf(subdomain));
        if (found == subdomains_.end()) {
            ++merged_.added;
            return write(subdomain);
        }
        const Subdomain& there = *found->second;
        Subdomain changes{subdomain.domain, subdomain.name, {}};
        bool replaces = false;
        for (const KeyValue& entry : subdomain.data) {
            const std::string* value = find(there.data, entry.key);
            const bool differs = value != nullptr && *value != entry.value;
            if (value == nullptr || (differs && isTaken(there.changed, subdomain.changed))) {
                changes.data.push_back(entry);
                replaces = replaces || differs;
            }
        }
        ++(replaces ? merged_.replaced : changes.data.empty() ? merged_.kept : merged_.added);
        return changes.data.empty() ? Status::ok : store_.writeSubdomain(changes);
    }

    Store& store_;
    const Rule rule_;
    Merged& merged_;
    std::string& reason_;
    Contents there_;
    std::unordered_map<std::string, const Product*> products_;
    std::unordered_map<std::string, const Product*> payloads_;
    std::unordered_map<std::string, const Subdomain*> subdomains_;
    std::unordered_map<std::string, const Subdomain*> applications_;
};

bool liesIn(const std::string& path, std::string folder) {
    while (folder.size() > 1 && folder.ends_with('/')) {
        folder.pop_back();
    }
    // With the mark: a neighbour whose name only begins the same is not meant.
    return path == folder || folder == "/" || path.starts_with(folder + "/");
}

// What a product's payloads have in the domain data, and the applications that they name.
std::set<std::string> subdomainsOfProduct(const Contents& contents, const std::string& code) {
    std::set<std::string> payloads;
    for (const Product& product : contents.products) {
        if (product.code == code) {
            for (const Payload& payload : product.payloads) {
                payloads.insert(payload.code);
            }
        }
    }
    std::set<std::string> names = payloads;
    for (const Subdomain& subdomain : contents.subdomains) {
        if (subdomain.domain != kRegistryDomain || !payloads.contains(subdomain.name)) {
            continue;
        }
        for (const KeyValue& entry : subdomain.data) {
            if (entry.key.starts_with(kConveyCodeKey)) {
                names.insert(entry.value); // "/ovrel/convey/" and the specifier
            }
        }
    }
    return names;
}

} // namespace

std::optional<Rule> ruleOf(std::string_view name) {
    return name == "keep"      ? std::optional(Rule::keep)
           : name == "replace" ? std::optional(Rule::replace)
           : name == "newer"   ? std::optional(Rule::newer)
                               : std::nullopt;
}

Status merge(Store& store, const Contents& incoming, Rule rule, Merged& merged,
             std::string& reason) {
    return Merger(store, rule, merged, reason).run(incoming);
}

Status removeSelected(Store& store, const Selection& selection) {
    Contents contents;
    Status status = store.readAll(contents);
    if (status != Status::ok) {
        return status;
    }
    bool removed = false;
    std::set<std::string> ofProduct;
    if (!selection.product.empty()) {
        ofProduct = subdomainsOfProduct(contents, selection.product);
        status = store.removeProduct(selection.product);
        removed = status == Status::ok;
    }
    const std::string specifier = lowerCase(selection.specifier);
    for (const Subdomain& subdomain : contents.subdomains) {
        if (status != Status::ok || subdomain.domain != kRegistryDomain) {
            continue;
        }
        const bool application = isApplicationSubdomain(subdomain);
        const std::string* path = find(subdomain.data, "Path");
        const bool chosen =
            ofProduct.contains(subdomain.name) ||
            (selection.all && (application || subdomain.name == kGroupsSubdomain)) ||
            (application && !specifier.empty() && effectiveSpecifier(subdomain) == specifier) ||
            (application && !selection.folder.empty() && path != nullptr &&
             liesIn(*path, selection.folder));
        if (chosen) {
            status = store.removeSubdomain(subdomain.domain, subdomain.name);
            removed = true;
        }
    }
    return status == Status::ok && !removed ? Status::nothingThere : status;
}

} // namespace caps::config
