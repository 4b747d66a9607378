#include "caps/tool/Checks.h"

#include <algorithm>
#include <set>
#include <unordered_map>

#include "caps/Reading.h"
#include "caps/tool/Registry.h"

namespace caps::tool {
namespace {

constexpr size_t kShownBytes = 40; // of a text in a finding

// Why a text cannot stand in an attribute of the listing, which escapes only &, < and >.
std::optional<std::string> listingFault(std::string_view text) {
    if (text.find('\'') != std::string_view::npos) {
        return "an apostrophe";
    }
    if (std::any_of(text.begin(), text.end(),
                    [](char c) { return static_cast<unsigned char>(c) < ' '; })) {
        return "a control character";
    }
    if (!isUtf8(text)) {
        return "bytes that are no UTF-8";
    }
    return std::nullopt;
}

class Checker {
public:
    Checker(const Contents& contents, const std::string& locale)
        : contents_(contents), reading_(contents, locale) {
        for (const Subdomain& subdomain : contents.subdomains) {
            if (isApplicationSubdomain(subdomain)) {
                applications_.try_emplace(effectiveSpecifier(subdomain), &subdomain);
            }
        }
        for (const Reading::Record& record : reading_.records()) {
            records_.emplace(record.subdomain, &record);
        }
        for (const Reading::Ignored& ignored : reading_.ignored()) {
            ignored_.emplace(ignored.subdomain, &ignored);
        }
        for (const Product& product : contents.products) {
            for (const Payload& payload : product.payloads) {
                payloads_.emplace(payload.code, &payload);
            }
        }
    }

    std::vector<Finding> run() {
        for (const std::string& refused : contents_.refused) {
            report(refused, "has no name, or is over its limit", "it is not read", Harm::ignored);
        }
        for (const Subdomain& subdomain : contents_.subdomains) {
            checkTexts(subdomain);
            if (isApplicationSubdomain(subdomain)) {
                checkApplication(subdomain);
            } else if (const auto ignored = ignored_.find(&subdomain); ignored != ignored_.end()) {
                report(subdomain.name, ignored->second->why, "it is ignored", Harm::ignored);
            } else if (subdomain.domain == kRegistryDomain && subdomain.name == kGroupsSubdomain) {
                checkGroups(subdomain);
            } else if (subdomain.domain == kRegistryDomain && subdomain.name.starts_with('{')) {
                checkPayload(subdomain);
            }
        }
        for (const Product& product : contents_.products) {
            checkProduct(product);
        }
        return std::move(findings_);
    }

private:
    void report(std::string where, std::string what, std::string why, Harm harm = Harm::none) {
        findings_.push_back({std::move(where), std::move(what), std::move(why), harm});
    }

    void checkApplication(const Subdomain& subdomain) {
        const std::string specifier = effectiveSpecifier(subdomain);
        for (const KeyValue& entry : subdomain.data) {
            checkValue(specifier, entry);
        }
        if (const auto ignored = ignored_.find(&subdomain); ignored != ignored_.end()) {
            report(subdomain.name, ignored->second->why, "it is ignored", Harm::ignored);
            return;
        }
        if (const auto fault = specifierFault(specifier)) {
            report(subdomain.name, "specifier \"" + specifier + "\": " + *fault,
                   "it cannot be addressed");
        } else if (specifier != lowerCase(specifier)) {
            report(subdomain.name, "has capital letters and no \"Specifier\"",
                   "specifiers are looked up in lower case, so nobody finds it");
        }
        if (applications_.at(specifier) != &subdomain) {
            report(subdomain.name, "is registered as " + specifier + " again",
                   "searches find the first registration only");
        }
        const Reading::Record& record = *records_.at(&subdomain);
        checkListing(record);
        checkRedirect(record);
    }

    // What a listing prints of the record, and whether it goes on after it.
    void checkListing(const Reading::Record& record) {
        const Reading::Record* const shown = reading_.shown(record);
        const std::string path = shown != nullptr ? shown->path : "";
        // The listing looks for the last '/' of the path without asking whether there is one.
        if (path.find('/') == std::string::npos) {
            report(record.specifier,
                   path.empty()
                       ? "has no path" + std::string(shown == nullptr ? " that is found by "
                                                                        "its specifier"
                                                                      : "")
                       : "the path \"" + path + "\" has no '/'",
                   "a listing ends abnormally at it", Harm::listingEnds);
        }
        if (shown != nullptr && shown != &record) {
            report(record.specifier, "is shown with the path of " + shown->specifier,
                   "its specifier is looked up as that one");
        }
        for (const std::string& text : {record.specifier, path}) {
            if (const auto fault = listingFault(text)) {
                report(record.specifier, "\"" + text.substr(0, kShownBytes) + "\" has " + *fault,
                       "the listing is no XML");
            }
        }
    }

    void checkValue(const std::string& specifier, const KeyValue& entry) {
        if (entry.key == kPathKey || entry.key == kSpecifierKey || entry.key == kRedirectKey ||
            !isUtf8(entry.key) || !isUtf8(entry.value)) {
            return; // judged with the rest of the entry
        }
        if (const auto fault = valueFault(entry.key, entry.value)) {
            const bool flag = keyKind(entry.key) == KeyKind::boolean;
            report(specifier + " " + entry.key,
                   "\"" + entry.value.substr(0, kShownBytes) + "\": " + *fault,
                   flag ? "it counts as false" : "it does not say what it seems to");
        }
    }

    void checkRedirect(const Reading::Record& record) {
        if (record.redirect.empty()) {
            return;
        }
        const std::string where = record.specifier + " " + std::string(kRedirectKey);
        const Reading::Record* current = reading_.find(record.redirect);
        if (current == nullptr) {
            report(where, "\"" + record.redirect + "\" is not registered",
                   record.path.empty() ? "it has no path" : "the application keeps its own path");
            return;
        }
        if (!record.loops || reported_.count(&record) != 0) {
            return;
        }
        // A loop is reported once, at its first member; a chain that leads into it is not one.
        std::vector<const Reading::Record*> members = {&record};
        std::set<const Reading::Record*> met = {&record};
        while (current != nullptr && met.insert(current).second) {
            members.push_back(current);
            current = reading_.find(current->redirect);
        }
        if (current == &record) {
            reported_.insert(met.begin(), met.end());
            std::string text;
            for (const Reading::Record* member : members) {
                text += member->specifier + " -> ";
            }
            report(where, "redirect loop " + text + record.specifier, "the redirects are refused");
        }
    }

    // What joins an application to a payload: "ConveyCode", "ConveyCode1", "ConveyCode2", ...
    void checkPayload(const Subdomain& subdomain) {
        std::set<std::string_view> codes;
        for (const KeyValue& entry : subdomain.data) {
            if (entry.key.starts_with(kConveyCodeKey)) {
                codes.insert(entry.key);
            }
        }
        if (codes.empty()) {
            return;
        }
        std::string key(kConveyCodeKey);
        for (size_t n = 1;; ++n) {
            const std::string* value = codes.count(key) != 0 ? find(subdomain.data, key) : nullptr;
            if (value == nullptr || value->empty()) {
                break;
            }
            checkCode(subdomain, key, *value);
            codes.erase(key);
            key = std::string(kConveyCodeKey) + std::to_string(n);
        }
        for (const std::string_view left : codes) {
            report(subdomain.name + " " + std::string(left),
                   "comes behind a gap: there is no " + key, "it is ignored", Harm::ignored);
        }
    }

    void checkCode(const Subdomain& subdomain, const std::string& key, const std::string& code) {
        const auto payload = payloads_.find(subdomain.name);
        const bool launches = payload != payloads_.end() && !payload->second->launchPath.empty();
        const auto isConfigPath = [](const auto& entry) {
            return entry.key == "PYLConfigPath" && !entry.value.empty();
        };
        const bool configures =
            std::any_of(subdomain.data.begin(), subdomain.data.end(), isConfigPath) ||
            (payload != payloads_.end() &&
             std::any_of(payload->second->data.begin(), payload->second->data.end(), isConfigPath));
        if (payload == payloads_.end()) {
            report(subdomain.name, "there is no such payload",
                   configures ? "only its configuration path counts" : "it gives nobody a path");
        } else if (!launches && !configures) {
            report(subdomain.name, "has neither launch path nor configuration path",
                   "it gives nobody a path");
        }
        const auto application = code.starts_with(kAppPrefix)
                                     ? applications_.find(code.substr(kAppPrefix.size()))
                                     : applications_.end();
        if (application == applications_.end()) {
            report(subdomain.name + " " + key, "\"" + code + "\" is no registered application",
                   "it is ignored", Harm::ignored);
        } else if (!launches && configures) {
            const std::string* basename = find(application->second->data, kBasenameKey);
            if (basename == nullptr || basename->empty()) {
                report(subdomain.name + " " + key,
                       "gives a configuration path, and " + application->first + " has no " +
                           std::string(kBasenameKey),
                       "it gives it no path");
            }
        }
    }

    // The languages of a product stand in the listing, too.
    void checkProduct(const Product& product) {
        bool exported = isUtf8(product.code);
        for (const Payload& payload : product.payloads) {
            exported = exported && isUtf8(payload.code) && isUtf8(payload.kind) &&
                       isUtf8(payload.launchPath);
            for (const PayloadValue& entry : payload.data) {
                if (!isUtf8(entry.key) || !isUtf8(entry.value)) {
                    report(payload.code + " " + entry.key, "is no UTF-8", kNoExport);
                }
                const bool language =
                    (entry.domain == 0 && entry.key == "installedLanguages") || entry.domain == 6;
                if (const auto fault = listingFault(entry.value); language && fault) {
                    report(payload.code + " " + entry.key, "has " + *fault,
                           "the listing is no XML");
                }
            }
        }
        if (!exported) {
            report(product.code, "is no UTF-8", kNoExport);
        }
    }

    void checkTexts(const Subdomain& subdomain) {
        if (!isUtf8(subdomain.name)) {
            report(subdomain.name, "is no UTF-8", kNoExport);
        }
        for (const KeyValue& entry : subdomain.data) {
            if (!isUtf8(entry.key) || !isUtf8(entry.value)) {
                report(subdomain.name + " " + entry.key, "is no UTF-8", kNoExport);
            }
        }
    }

    void checkGroups(const Subdomain& subdomain) {
        for (const KeyValue& entry : subdomain.data) {
            const std::string where = "group " + entry.key;
            if (!entry.key.starts_with(kGroupKeyPrefix)) {
                report(where, "the key does not begin with \"Group\"", "it is ignored",
                       Harm::ignored);
                continue;
            }
            const std::optional<Group> group = parseGroup(entry);
            if (!group) {
                report(where,
                       "\"" + entry.value + "\" is not " + std::string(kGroupPrefix) +
                           "NAME/NUMBER/APPLICATION",
                       "it is ignored", Harm::ignored);
                continue;
            }
            const std::optional<double> number = decimal(group->number);
            if (!number || *number <= 0.0) {
                report(where, "the number \"" + group->number + "\" is not above 0",
                       "the group never wins");
            }
        }
    }

    static constexpr const char* kNoExport = "the database cannot be exported";

    const Contents& contents_;
    const Reading reading_;
    std::unordered_map<std::string, const Subdomain*> applications_; // the first of each specifier
    std::unordered_map<const Subdomain*, const Reading::Record*> records_;
    std::unordered_map<const Subdomain*, const Reading::Ignored*> ignored_;
    std::unordered_map<std::string, const Payload*> payloads_;
    std::set<const Reading::Record*> reported_; // members of loops
    std::vector<Finding> findings_;
};

} // namespace

std::vector<Finding> checkRegistry(const Contents& contents, const std::string& locale) {
    return Checker(contents, locale).run();
}

} // namespace caps::tool
