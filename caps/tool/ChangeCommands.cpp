// The commands that change the database.
#include <fstream>

#include "caps/tool/Commands.h"
#include "caps/tool/Consequences.h"
#include "caps/tool/DesktopEntries.h"
#include "caps/tool/Source.h"
#include "caps/tool/Table.h"
#include "caps/tool/TomlFile.h"

namespace caps::tool {
namespace {

// By removing and adding, so that it moves to the end of the order, as an application that is
// imported again does.
Status replaceProduct(Store& store, const Product& product, bool& replaced) {
    const Status status = store.removeProduct(product.code);
    replaced = status == Status::ok;
    return status == Status::ok || status == Status::nothingThere ? store.addProduct(product)
                                                                  : status;
}

Status writeData(Store& store, const Subdomain& subdomain, bool& replaced) {
    Status status = store.addSubdomain(subdomain.domain, subdomain.name);
    for (const KeyValue& entry : subdomain.data) {
        if (status == Status::ok) {
            status = store.setDomainData(subdomain.domain, subdomain.name, entry.key, entry.value);
        }
    }
    replaced = false; // merged with what is there
    return status;
}

Status write(Store& store, const TomlEntry& entry, bool& replaced) {
    if (const auto* application = std::get_if<Application>(&entry.content)) {
        return writeApplication(store, *application, replaced);
    }
    if (const auto* group = std::get_if<Group>(&entry.content)) {
        return writeGroup(store, *group, replaced);
    }
    if (const auto* product = std::get_if<Product>(&entry.content)) {
        return replaceProduct(store, *product, replaced);
    }
    return writeData(store, std::get<Subdomain>(entry.content), replaced);
}

void refuseOtherThanUtf8(const Contents& contents) {
    if (const auto where = firstThatIsNotUtf8(contents)) {
        throw Failure(printable(*where) + " is no UTF-8");
    }
}

// Refuses an application that nobody could start: no path, and nothing that gives one.
void requirePath(Context& context, const Application& application) {
    const std::string* basename = find(application.keys, kBasenameKey);
    if (find(application.keys, kPathKey) == nullptr &&
        find(application.keys, kRedirectKey) == nullptr &&
        (basename == nullptr || !isMakersAddress(*basename)) &&
        specifiersOfPayloads(context.readAll()).count(application.specifier) == 0) {
        throw Failure(application.specifier + " has no path and no redirect");
    }
}

} // namespace

int init(Context& context) {
    context.open(Store::Access::create);
    context.out << context.path() << '\n';
    return 0;
}

int importToml(Context& context, const std::string& file) {
    std::vector<TomlEntry> entries;
    if (file == "-") {
        entries = parseToml(context.in, "standard input");
    } else {
        std::ifstream stream = openFile(file);
        entries = parseToml(stream, file);
    }
    context.open(Store::Access::create);
    context.inTransaction([&] {
        const Consequences consequences(context);
        Counts counts;
        for (const TomlEntry& entry : entries) {
            bool replaced = false;
            const Status status = write(context.store(), entry, replaced);
            if (status != Status::ok) {
                throw Failure(entry.position + ": " + context.store().lastError());
            }
            counts.count(replaced);
        }
        consequences.tell();
        context.out << counts.text("entries") << '\n';
    });
    return 0;
}

int addApplication(Context& context, Application application) {
    application.specifier = lowerCase(application.specifier);
    refuse(specifierFault(application.specifier), application.specifier);
    for (const KeyValue& entry : application.keys) {
        refuse(keyKind(entry.key) && entry.key != kSpecifierKey
                   ? std::nullopt
                   : std::optional<std::string>("is no key of an application"),
               entry.key);
        refuse(valueFault(entry.key, entry.value), entry.key);
    }
    context.open(Store::Access::create);
    context.inTransaction([&] {
        bool replaced = false;
        // A path of its own leaves nobody without one: the whole registry need not be looked at.
        const std::optional<Consequences> consequences = find(application.keys, kPathKey) == nullptr
                                                             ? std::optional<Consequences>(context)
                                                             : std::nullopt;
        context.expect(writeApplication(context.store(), application, replaced));
        // Inside of the transaction and after the writing: what is judged is the registry as it
        // would be, and a refusal takes it back.
        requirePath(context, application);
        if (consequences) {
            consequences->tell();
        }
    });
    return 0;
}

int removeApplication(Context& context, const std::string& specifier) {
    if (isUtf8(specifier)) { // what came in otherwise must go out again
        refuse(specifierFault(lowerCase(specifier)), specifier);
    }
    context.open(Store::Access::write);
    context.inTransaction([&] {
        const Consequences consequences(context);
        context.expect(context.store().removeSubdomain(kRegistryDomain, subdomainOf(specifier)),
                       specifier + " is not registered");
        consequences.tell();
    });
    return 0;
}

int addProduct(Context& context, const Product& product) {
    refuseOtherThanUtf8({{product}, {}, {}});
    context.open(Store::Access::create);
    context.inTransaction([&] {
        bool replaced = false;
        context.expect(replaceProduct(context.store(), product, replaced));
    });
    return 0;
}

int removeProduct(Context& context, const std::string& code) {
    context.open(Store::Access::write);
    context.inTransaction([&] {
        const Consequences consequences(context);
        context.expect(context.store().removeProduct(code), code + " is not registered");
        consequences.tell();
    });
    return 0;
}

int set(Context& context, int32_t domain, const std::string& name, const std::string& key,
        const std::string& value) {
    const Subdomain subdomain{domain, subdomainName(name), {}};
    if (isApplicationSubdomain(subdomain)) {
        refuse(valueFault(key, value), key);
    }
    refuseOtherThanUtf8({{}, {{domain, subdomain.name, {{key, value}}}}, {}});
    context.open(Store::Access::write);
    if (subdomain.name != name) { // of an application: a misspelt one must not come to be
        (void)context.readSubdomain(domain, name);
    }
    context.expect(context.store().setDomainData(domain, subdomain.name, key, value));
    return 0;
}

int remove(Context& context, int32_t domain, const std::string& name, const std::string& key) {
    context.open(Store::Access::write);
    context.inTransaction([&] {
        const Consequences consequences(context);
        context.expect(context.store().removeDomainData(domain, subdomainName(name), key),
                       subdomainName(name) + " has no " + key);
        consequences.tell();
    });
    return 0;
}

int addGroup(Context& context, const Group& group) {
    for (const std::string& part : {group.name, group.number, group.pattern}) {
        if (part.empty() || part.find('/') != std::string::npos) {
            throw Failure("\"" + part + "\": each part has 1 character or more, and no '/'");
        }
        refuse(isUtf8(part) ? std::nullopt : std::optional<std::string>("is no UTF-8"), part);
    }
    if (const std::optional<double> number = decimal(group.number); !number || *number <= 0.0) {
        throw Failure("\"" + group.number + "\": the number must be above 0");
    }
    context.open(Store::Access::create);
    context.inTransaction([&] {
        bool replaced = false;
        context.expect(writeGroup(context.store(), group, replaced));
    });
    return 0;
}

int removeGroup(Context& context, const Group& group) {
    context.open(Store::Access::write);
    // The layer reads groups in lower case, so entries that differ in their letters' case alone are
    // the same one.
    const std::string value = lowerCase(groupValue(group));
    context.inTransaction([&] {
        bool found = false;
        for (const KeyValue& entry : context.groupEntries()) {
            if (lowerCase(entry.value) == value) {
                context.expect(
                    context.store().removeDomainData(kRegistryDomain, kGroupsSubdomain, entry.key));
                found = true;
            }
        }
        if (!found) {
            throw Failure(group.pattern + " is not in the group " + group.name + " " +
                          group.number);
        }
    });
    return 0;
}

int importDesktop(Context& context, const std::string& folder) {
    const DesktopImport found = readDesktopFolder(folder);
    for (const std::string& skipped : found.skipped) {
        context.err << "ovrel-caps: " << printable(skipped) << '\n';
    }
    // Before the database is opened, which would make one for nothing.
    if (found.applications.empty()) {
        throw Failure(folder + ": no application found");
    }
    context.open(Store::Access::create);
    context.inTransaction([&] {
        const Consequences consequences(context);
        Counts counts;
        for (const Application& application : found.applications) {
            bool replaced = false;
            context.expect(writeApplication(context.store(), application, replaced));
            counts.count(replaced);
        }
        consequences.tell();
        context.out << counts.text("applications") << '\n';
    });
    return 0;
}

} // namespace caps::tool
