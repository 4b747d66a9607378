// The commands that read the database and leave it as it is.
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "caps/Reading.h"
#include "caps/tool/Checks.h"
#include "caps/tool/Commands.h"
#include "caps/tool/Registry.h"
#include "caps/tool/Table.h"
#include "caps/tool/TomlFile.h"

namespace caps::tool {

using Json = nlohmann::ordered_json;

namespace {

// The user's locale as the layer knows it, which decides between registrations of one version.
std::string userLocale() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* const value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): one thread
        if (value != nullptr && *value != '\0') {
            const std::string_view text(value);
            const std::string_view identifier = text.substr(0, text.find_first_of(".@"));
            return identifier.find('_') != std::string_view::npos ? lowerCase(identifier) : "en_us";
        }
    }
    return "en_us";
}

// The name for people in the user's language, where it was registered.
std::string nameFor(const Subdomain& subdomain, std::string_view locale) {
    std::string_view best;
    size_t fits = 0;
    for (const KeyValue& entry : subdomain.data) {
        std::string key = lowerCase(entry.key);
        if (entry.key == kDisplayNameKey && fits == 0) {
            best = entry.value;
        } else if (isLocalizedName(entry.key)) {
            const std::string of = key.substr(kDisplayNameKey.size() + 1);
            for (const std::string& wanted :
                 {std::string(locale.substr(0, locale.find('_'))), std::string(locale)}) {
                if (of == wanted + "]" && wanted.size() > fits) {
                    best = entry.value;
                    fits = wanted.size();
                }
            }
        }
    }
    return std::string(best);
}

} // namespace

int get(Context& context, int32_t domain, const std::string& name, const std::string& key) {
    context.open(Store::Access::read);
    const Subdomain subdomain = context.readSubdomain(domain, name);
    const std::string* value = find(subdomain.data, key);
    if (value == nullptr) {
        throw Failure(subdomain.name + " has no " + key);
    }
    context.out << *value << '\n';
    return 0;
}

int listGroups(Context& context) {
    context.open(Store::Access::read);
    Table table({"NAME", "NUMBER", "APPLICATION"});
    Json rows = Json::array();
    for (const KeyValue& entry : context.groupEntries()) {
        if (const std::optional<Group> group = parseGroup(entry)) {
            table.add({group->name, group->number, group->pattern});
            rows.push_back({{"name", group->name},
                            {"number", group->number},
                            {"application", group->pattern}});
        }
    }
    context.print(rows, table);
    return 0;
}

// The paths are those that a listing shows: after redirects, from payloads, of web applications.
int list(Context& context) {
    context.open(Store::Access::read);
    const Contents contents = context.readLayers();
    const std::string locale = userLocale();
    const Reading reading(contents, locale);
    std::unordered_map<const Subdomain*, const Reading::Record*> records;
    for (const Reading::Record& record : reading.records()) {
        records.emplace(record.subdomain, &record);
    }
    Table table({"SPECIFIER", "NAME", "PATH", "FROM"});
    Json rows = Json::array();
    for (const Subdomain& subdomain : contents.subdomains) {
        if (!isApplicationSubdomain(subdomain)) {
            continue;
        }
        const std::string specifier = effectiveSpecifier(subdomain);
        const auto record = records.find(&subdomain);
        const Reading::Record* const shown =
            record == records.end() ? nullptr : reading.shown(*record->second);
        std::string path = shown == nullptr ? "" : shown->path;
        const std::string* const redirect = find(subdomain.data, kRedirectKey);
        const std::string origin = originOf(subdomain);
        Json one = {{"specifier", specifier}};
        if (!path.empty()) {
            one["shownPath"] = path;
        }
        if (!origin.empty()) {
            one["origin"] = origin;
        }
        for (const KeyValue& entry : subdomain.data) {
            if (entry.key != kSpecifierKey) {
                one[entry.key] = entry.value;
            }
        }
        rows.push_back(std::move(one));
        if (redirect != nullptr && !redirect->empty()) {
            path += (path.empty() ? "-> " : " -> ") + *redirect;
        }
        table.add(
            {specifier, nameFor(subdomain, locale), path, origin.empty() ? "by hand" : origin});
    }
    context.print(rows, table);
    return 0;
}

int show(Context& context, const std::string& specifier) {
    context.open(Store::Access::read);
    const Subdomain subdomain = context.readSubdomain(kRegistryDomain, specifier);
    Table table({"KEY", "VALUE"});
    Json object = Json::object();
    for (const KeyValue& entry : subdomain.data) {
        table.add({entry.key, entry.value});
        object[entry.key] = entry.value;
    }
    context.print(object, table);
    return 0;
}

int exportAll(Context& context) {
    context.open(Store::Access::read);
    const Contents contents = context.readAll();
    if (!contents.refused.empty()) { // an export that silently lacks something is no backup
        throw Failure(contents.refused.front() + " is over its limit and cannot be exported");
    }
    writeToml(context.out, contents);
    return 0;
}

// Exit status 1 when there is something to report.
int check(Context& context) {
    context.open(Store::Access::read);
    const std::vector<Finding> findings = checkRegistry(context.readLayers(), userLocale());
    Json rows = Json::array();
    for (const Finding& finding : findings) {
        rows.push_back({{"where", finding.where}, {"what", finding.what}, {"why", finding.why}});
    }
    if (context.json) {
        context.out << dump(rows) << '\n';
    } else if (findings.empty()) {
        context.out << "nothing to report\n";
    } else {
        for (const Finding& finding : findings) {
            context.out << printable(finding.where + ": " + finding.what + "; " + finding.why)
                        << '\n';
        }
    }
    return findings.empty() ? 0 : 1;
}

} // namespace caps::tool
