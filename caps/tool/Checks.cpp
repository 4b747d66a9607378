#include "caps/tool/Checks.h"

#include <algorithm>
#include <map>
#include <set>

#include "caps/tool/Registry.h"

namespace caps::tool {
namespace {

const std::string* redirectOf(const Subdomain& subdomain) {
    const std::string* target = find(subdomain.data, kRedirectKey);
    return target != nullptr && !target->empty() ? target : nullptr;
}

class Checker {
public:
    explicit Checker(const Contents& contents)
        : contents_(contents), ofPayloads_(specifiersOfPayloads(contents)) {
        for (const Subdomain& subdomain : contents.subdomains) {
            if (isApplicationSubdomain(subdomain)) {
                applications_.try_emplace(effectiveSpecifier(subdomain), &subdomain);
            }
        }
    }

    std::vector<Finding> run() {
        for (const std::string& refused : contents_.refused) {
            report(refused, "has no name, or is over its limit", "it is not read");
        }
        for (const Subdomain& subdomain : contents_.subdomains) {
            if (isApplicationSubdomain(subdomain)) {
                checkApplication(subdomain);
            } else if (subdomain.domain == kRegistryDomain && subdomain.name == kGroupsSubdomain) {
                checkGroups(subdomain);
            }
        }
        return std::move(findings_);
    }

private:
    void report(std::string where, std::string what, std::string why) {
        findings_.push_back({std::move(where), std::move(what), std::move(why)});
    }

    void checkApplication(const Subdomain& subdomain) {
        const std::string specifier = effectiveSpecifier(subdomain);
        const bool named = find(subdomain.data, kSpecifierKey) != nullptr ||
                           find(subdomain.data, "ProductCode") != nullptr;
        if (!named && specifier != lowerCase(specifier)) {
            report(subdomain.name, "has capital letters and no \"Specifier\"",
                   "specifiers are looked up in lower case, so nobody finds it and a listing ends "
                   "at it");
        }
        if (!named && specifier.size() == 1) {
            report(subdomain.name, "has one letter and no \"Specifier\"", "it is ignored");
        }
        if (const auto fault = specifierFault(specifier)) {
            report(subdomain.name, "specifier \"" + specifier + "\": " + *fault,
                   "it cannot be addressed");
        }
        if (applications_.at(specifier) != &subdomain) {
            report(subdomain.name, "is registered as " + specifier + " again",
                   "searches find the first registration only");
        }
        for (const KeyValue& entry : subdomain.data) {
            checkValue(specifier, entry);
        }
        checkPath(specifier, subdomain);
    }

    void checkValue(const std::string& specifier, const KeyValue& entry) {
        if (entry.key == kPathKey || entry.key == kSpecifierKey || entry.key == kRedirectKey) {
            return; // judged with the rest of the entry
        }
        if (const auto fault = valueFault(entry.key, entry.value)) {
            const bool flag = keyKind(entry.key) == KeyKind::boolean;
            report(specifier + " " + entry.key, "\"" + entry.value.substr(0, 40) + "\": " + *fault,
                   flag ? "it counts as false" : "it does not say what it seems to");
        }
    }

    void checkPath(const std::string& specifier, const Subdomain& subdomain) {
        const std::string* path = find(subdomain.data, kPathKey);
        const std::string* basename = find(subdomain.data, kBasenameKey);
        const std::string* redirect = redirectOf(subdomain);
        const bool hasPath = path != nullptr && !path->empty();
        if (hasPath && path->find('/') == std::string::npos) {
            report(specifier + " " + std::string(kPathKey), "\"" + *path + "\" has no '/'",
                   "a listing ends abnormally at it");
        }
        const bool found = hasPath || ofPayloads_.count(specifier) != 0 ||
                           (basename != nullptr && isMakersAddress(*basename));
        if (redirect == nullptr) {
            if (!found) {
                report(specifier, "has no path and no redirect", "it is ignored");
            }
            return;
        }
        checkRedirect(specifier, *redirect, found);
    }

    // The application that a redirect names, as the layer looks it up.
    const Subdomain* target(const std::string& text) const {
        auto found = applications_.find(text);
        if (found == applications_.end()) {
            std::string bare = lowerCase(text);
            bare = bare.substr(0, bare.find('#'));
            const size_t instance = bare.find_first_of("_-");
            if (instance != std::string::npos && bare[instance] == '_') {
                const size_t end = bare.find('-', instance);
                bare.erase(instance, end == std::string::npos ? end : end - instance);
            }
            found = applications_.find(bare);
        }
        return found == applications_.end() ? nullptr : found->second;
    }

    void checkRedirect(const std::string& specifier, const std::string& redirect, bool hasPath) {
        std::set<const Subdomain*> met;
        std::vector<const Subdomain*> chain;
        const Subdomain* current = target(redirect);
        if (current == nullptr) {
            report(specifier + " " + std::string(kRedirectKey),
                   "\"" + redirect + "\" is not registered",
                   hasPath ? "the application keeps its own path" : "a listing ends at it");
            return;
        }
        current = applications_.at(specifier);
        while (current != nullptr && met.insert(current).second) {
            chain.push_back(current);
            const std::string* next = redirectOf(*current);
            current = next == nullptr ? nullptr : target(*next);
        }
        // A loop is reported once, at its first member; a chain that leads into it is not one.
        if (current != nullptr && current == applications_.at(specifier) &&
            std::none_of(chain.begin(), chain.end(),
                         [this](const Subdomain* one) { return reported_.count(one) != 0; })) {
            reported_.insert(chain.begin(), chain.end());
            std::string members;
            for (const Subdomain* one : chain) {
                members += effectiveSpecifier(*one) + " -> ";
            }
            report(specifier + " " + std::string(kRedirectKey),
                   "redirect loop " + members + specifier, "the redirects are refused");
        }
    }

    void checkGroups(const Subdomain& subdomain) {
        for (const KeyValue& entry : subdomain.data) {
            const std::string where = "group " + entry.key;
            if (!entry.key.starts_with(kGroupKeyPrefix)) {
                report(where, "the key does not begin with \"Group\"", "it is ignored");
                continue;
            }
            const std::optional<Group> group = parseGroup(entry);
            if (!group) {
                report(where,
                       "\"" + entry.value + "\" is not " + std::string(kGroupPrefix) +
                           "NAME/NUMBER/APPLICATION",
                       "it is ignored");
                continue;
            }
            const std::optional<double> number = decimal(group->number);
            if (!number || *number <= 0.0) {
                report(where, "the number \"" + group->number + "\" is not above 0",
                       "the group never wins");
            }
        }
    }

    const Contents& contents_;
    const std::set<std::string> ofPayloads_;
    std::map<std::string, const Subdomain*> applications_; // the first of each specifier
    std::set<const Subdomain*> reported_;                  // members of loops
    std::vector<Finding> findings_;
};

} // namespace

std::vector<Finding> checkRegistry(const Contents& contents) {
    return Checker(contents).run();
}

} // namespace caps::tool
