#include "caps/tool/Commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "caps/Store.h"
#include "caps/tool/Checks.h"
#include "caps/tool/DesktopEntries.h"
#include "caps/tool/Registry.h"
#include "caps/tool/Table.h"
#include "caps/tool/TomlFile.h"

namespace caps::tool {
namespace {

using Json = nlohmann::ordered_json;

// A command that cannot be carried out; `what` is for the person.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

constexpr const char* kVersion = "ovrel-caps 2.0.0";

// Invalid UTF-8 in a value becomes U+FFFD: a listing must not fail because of one entry.
std::string dump(const Json& json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace);
}

struct Counts {
    size_t added = 0;
    size_t replaced = 0;

    void count(bool wasThere) { ++(wasThere ? replaced : added); }
    std::string text(const std::string& what) const {
        return std::to_string(added) + " " + what + " added, " + std::to_string(replaced) +
               " replaced";
    }
};

// The commands and what they share. One object runs one command.
class Tool {
public:
    Tool(std::istream& in, std::ostream& out, std::ostream& err) : in_(in), out_(out), err_(err) {}

    std::string databasePath;

    void init() {
        open(Store::Access::create);
        out_ << path_ << '\n';
    }

    void import(const std::string& file) {
        std::vector<TomlEntry> entries;
        if (file == "-") {
            entries = parseToml(in_, "standard input");
        } else {
            std::ifstream stream = openFile(file);
            entries = parseToml(stream, file);
        }
        open(Store::Access::create);
        inTransaction([&] {
            Counts counts;
            for (const TomlEntry& entry : entries) {
                bool replaced = false;
                const Status status = write(entry, replaced);
                if (status != Status::ok) {
                    throw Failure(entry.position + ": " + store_->lastError());
                }
                counts.count(replaced);
            }
            out_ << counts.text("entries") << '\n';
        });
    }

    void addApplication(Application application) {
        application.specifier = lowerCase(application.specifier);
        refuse(specifierFault(application.specifier), application.specifier);
        for (const KeyValue& entry : application.keys) {
            refuse(keyKind(entry.key) && entry.key != kSpecifierKey
                       ? std::nullopt
                       : std::optional<std::string>("is no key of an application"),
                   entry.key);
            refuse(valueFault(entry.key, entry.value), entry.key);
        }
        open(Store::Access::create);
        inTransaction([&] {
            bool replaced = false;
            expect(writeApplication(*store_, application, replaced));
            requirePath(application);
        });
    }

    void removeApplication(const std::string& specifier) {
        refuse(specifierFault(lowerCase(specifier)), specifier);
        open(Store::Access::write);
        expect(store_->removeSubdomain(kRegistryDomain, subdomainOf(specifier)),
               specifier + " is not registered");
    }

    void addProduct(const Product& product) {
        open(Store::Access::create);
        inTransaction([&] {
            bool replaced = false;
            expect(replaceProduct(product, replaced));
        });
    }

    void removeProduct(const std::string& code) {
        open(Store::Access::write);
        expect(store_->removeProduct(code), code + " is not registered");
    }

    void set(int32_t domain, const std::string& name, const std::string& key,
             const std::string& value) {
        const Subdomain subdomain{domain, subdomainName(name), {}};
        if (isApplicationSubdomain(subdomain)) {
            refuse(valueFault(key, value), key);
        }
        open(Store::Access::write);
        if (subdomain.name != name) { // of an application: a misspelt one must not come to be
            (void)readSubdomain(domain, name);
        }
        expect(store_->setDomainData(domain, subdomain.name, key, value));
    }

    void get(int32_t domain, const std::string& name, const std::string& key) {
        open(Store::Access::read);
        const Subdomain subdomain = readSubdomain(domain, name);
        const std::string* value = find(subdomain.data, key);
        if (value == nullptr) {
            throw Failure(subdomain.name + " has no " + key);
        }
        out_ << *value << '\n';
    }

    void remove(int32_t domain, const std::string& name, const std::string& key) {
        open(Store::Access::write);
        expect(store_->removeDomainData(domain, subdomainName(name), key),
               subdomainName(name) + " has no " + key);
    }

    void addGroup(const Group& group) {
        for (const std::string& part : {group.name, group.number, group.pattern}) {
            if (part.empty() || part.find('/') != std::string::npos) {
                throw Failure("\"" + part + "\": each part has 1 character or more, and no '/'");
            }
        }
        if (const std::optional<double> number = decimal(group.number); !number || *number <= 0.0) {
            throw Failure("\"" + group.number + "\": the number must be above 0");
        }
        open(Store::Access::create);
        inTransaction([&] {
            bool replaced = false;
            expect(writeGroup(*store_, group, replaced));
        });
    }

    void removeGroup(const Group& group) {
        open(Store::Access::write);
        const std::string value = lowerCase(groupValue(group));
        inTransaction([&] {
            bool found = false;
            for (const KeyValue& entry : groupEntries()) {
                if (lowerCase(entry.value) == value) {
                    expect(store_->removeDomainData(kRegistryDomain, kGroupsSubdomain, entry.key));
                    found = true;
                }
            }
            if (!found) {
                throw Failure(group.pattern + " is not in the group " + group.name + " " +
                              group.number);
            }
        });
    }

    void listGroups(bool json) {
        open(Store::Access::read);
        Table table({"NAME", "NUMBER", "APPLICATION"});
        Json list = Json::array();
        for (const KeyValue& entry : groupEntries()) {
            if (const std::optional<Group> group = parseGroup(entry)) {
                table.add({group->name, group->number, group->pattern});
                list.push_back({{"name", group->name},
                                {"number", group->number},
                                {"application", group->pattern}});
            }
        }
        print(json, list, table);
    }

    void list(bool json) {
        open(Store::Access::read);
        const Contents contents = readAll();
        Table table({"SPECIFIER", "NAME", "PATH"});
        Json list = Json::array();
        for (const Subdomain& subdomain : contents.subdomains) {
            if (!isApplicationSubdomain(subdomain)) {
                continue;
            }
            const auto value = [&subdomain](std::string_view key) {
                const std::string* found = find(subdomain.data, key);
                return found != nullptr ? *found : std::string();
            };
            std::string specifier = value(kSpecifierKey);
            if (specifier.empty()) {
                specifier = subdomain.name.substr(kAppPrefix.size());
            }
            const std::string redirect = value(kRedirectKey);
            table.add({specifier, value(kDisplayNameKey),
                       redirect.empty() ? value(kPathKey) : "-> " + redirect});
            Json one = {{"specifier", specifier}};
            for (const KeyValue& entry : subdomain.data) {
                if (entry.key != kSpecifierKey) {
                    one[entry.key] = entry.value;
                }
            }
            list.push_back(std::move(one));
        }
        print(json, list, table);
    }

    void show(const std::string& specifier, bool json) {
        open(Store::Access::read);
        const Subdomain subdomain = readSubdomain(kRegistryDomain, specifier);
        Table table({"KEY", "VALUE"});
        Json object = Json::object();
        for (const KeyValue& entry : subdomain.data) {
            table.add({entry.key, entry.value});
            object[entry.key] = entry.value;
        }
        print(json, object, table);
    }

    void exportAll() {
        open(Store::Access::read);
        const Contents contents = readAll();
        if (!contents.refused.empty()) { // an export that silently lacks something is no backup
            throw Failure(contents.refused.front() + " is over its limit and cannot be exported");
        }
        writeToml(out_, contents);
    }

    // Exit status 1 when there is something to report.
    int check(bool json) {
        open(Store::Access::read);
        const std::vector<Finding> findings = checkRegistry(readAll());
        Json list = Json::array();
        for (const Finding& finding : findings) {
            list.push_back(
                {{"where", finding.where}, {"what", finding.what}, {"why", finding.why}});
        }
        if (json) {
            out_ << dump(list) << '\n';
        } else if (findings.empty()) {
            out_ << "nothing to report\n";
        } else {
            for (const Finding& finding : findings) {
                out_ << printable(finding.where + ": " + finding.what + "; " + finding.why) << '\n';
            }
        }
        return findings.empty() ? 0 : 1;
    }

    void importDesktop(const std::string& folder) {
        const DesktopImport found = readDesktopFolder(folder);
        for (const std::string& skipped : found.skipped) {
            err_ << "ovrel-caps: " << printable(skipped) << '\n';
        }
        if (found.applications.empty()) {
            throw Failure(folder + ": no application found");
        }
        open(Store::Access::create);
        inTransaction([&] {
            Counts counts;
            for (const Application& application : found.applications) {
                bool replaced = false;
                expect(writeApplication(*store_, application, replaced));
                counts.count(replaced);
            }
            out_ << counts.text("applications") << '\n';
        });
    }

private:
    void open(Store::Access access) {
        path_ = databasePath;
        if (path_.empty()) {
            path_ = findDatabase();
        }
        if (path_.empty()) {
            path_ = defaultDatabasePath();
        }
        std::string error;
        if (Store::open(path_, access, store_, &error) != Status::ok) {
            throw Failure(error);
        }
    }

    static std::ifstream openFile(const std::string& file) {
        struct stat status {};
        if (stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
            throw Failure(file + ": not a file");
        }
        std::ifstream stream(file, std::ios::binary);
        if (!stream) {
            throw Failure(file + ": cannot be read");
        }
        return stream;
    }

    void expect(Status status, const std::string& nothingThere = "there is no such entry") {
        if (status != Status::ok) {
            throw Failure(status == Status::nothingThere ? nothingThere : store_->lastError());
        }
    }

    static void refuse(const std::optional<std::string>& fault, const std::string& where) {
        if (fault) {
            throw Failure(where + ": " + *fault);
        }
    }

    // All or nothing: a Failure on the way leaves the database as it was.
    template <class Work>
    void inTransaction(Work&& work) {
        Store::Transaction transaction(*store_);
        expect(transaction.begin());
        work();
        expect(transaction.commit());
    }

    Contents readAll() {
        Contents contents;
        expect(store_->readAll(contents));
        return contents;
    }

    // A subdomain as it is, or an application's by its specifier.
    static std::string subdomainName(const std::string& name) {
        return name.starts_with('/') || name.starts_with('{') ? name : subdomainOf(name);
    }

    Subdomain readSubdomain(int32_t domain, const std::string& name) {
        std::vector<Subdomain> subdomains;
        const Status status = store_->readDomain(domain, subdomains);
        if (status != Status::nothingThere) {
            expect(status);
        }
        const auto found =
            std::find_if(subdomains.begin(), subdomains.end(),
                         [&](const Subdomain& one) { return one.name == subdomainName(name); });
        if (found == subdomains.end()) {
            throw Failure(name + " is not registered");
        }
        return *found;
    }

    std::vector<KeyValue> groupEntries() {
        std::vector<Subdomain> subdomains;
        const Status status = store_->readDomain(kRegistryDomain, subdomains);
        if (status != Status::nothingThere) {
            expect(status);
        }
        for (Subdomain& subdomain : subdomains) {
            if (subdomain.name == kGroupsSubdomain) {
                return std::move(subdomain.data);
            }
        }
        return {};
    }

    Status replaceProduct(const Product& product, bool& replaced) {
        const Status status = store_->removeProduct(product.code);
        replaced = status == Status::ok;
        return status == Status::ok || status == Status::nothingThere ? store_->addProduct(product)
                                                                      : status;
    }

    Status writeData(const Subdomain& subdomain, bool& replaced) {
        Status status = store_->addSubdomain(subdomain.domain, subdomain.name);
        for (const KeyValue& entry : subdomain.data) {
            if (status == Status::ok) {
                status =
                    store_->setDomainData(subdomain.domain, subdomain.name, entry.key, entry.value);
            }
        }
        replaced = false; // merged with what is there
        return status;
    }

    Status write(const TomlEntry& entry, bool& replaced) {
        if (const auto* application = std::get_if<Application>(&entry.content)) {
            return writeApplication(*store_, *application, replaced);
        }
        if (const auto* group = std::get_if<Group>(&entry.content)) {
            return writeGroup(*store_, *group, replaced);
        }
        if (const auto* product = std::get_if<Product>(&entry.content)) {
            return replaceProduct(*product, replaced);
        }
        return writeData(std::get<Subdomain>(entry.content), replaced);
    }

    // Refuses an application that nobody could start: no path, and nothing that gives one.
    void requirePath(const Application& application) {
        const std::string* basename = find(application.keys, kBasenameKey);
        if (find(application.keys, kPathKey) == nullptr &&
            find(application.keys, kRedirectKey) == nullptr &&
            (basename == nullptr || !isMakersAddress(*basename)) &&
            specifiersOfPayloads(readAll()).count(application.specifier) == 0) {
            throw Failure(application.specifier + " has no path and no redirect");
        }
    }

    void print(bool json, const Json& value, const Table& table) {
        if (json) {
            out_ << dump(value) << '\n';
        } else {
            table.print(out_);
        }
    }

    std::istream& in_;
    std::ostream& out_;
    std::ostream& err_;
    std::string path_;
    std::unique_ptr<Store> store_;
};

// "KEY=VALUE" as two texts.
KeyValue keyValue(const std::string& text) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0) {
        throw CLI::ValidationError(text, "must be KEY=VALUE");
    }
    return {text.substr(0, equals), text.substr(equals + 1)};
}

// What the command line may say, and the command that it chose.
struct CommandLine {
    std::string file;
    std::string name;
    std::string key;
    std::string value;
    int32_t domain = kRegistryDomain;
    bool json = false;
    Group group;
    std::string path;
    std::string displayName;
    std::string redirect;
    bool shellTool = false;
    std::vector<std::string> pairs;
    std::string payload;
    Payload details;
    std::string languages;
    std::string configPath;
    std::string installFolder;

    Application application() const {
        Application result{name, {}};
        const auto add = [&result](std::string_view field, const std::string& text) {
            if (!text.empty()) {
                result.keys.push_back({std::string(field), text});
            }
        };
        add(kPathKey, path);
        add(kDisplayNameKey, displayName);
        add(kRedirectKey, redirect);
        add("IsShellTool", shellTool ? "true" : "");
        for (const std::string& pair : pairs) {
            result.keys.push_back(keyValue(pair));
        }
        return result;
    }

    Product product() const {
        Product result{name, {}};
        if (payload.empty()) {
            return result;
        }
        Payload one = details;
        one.code = payload;
        const auto add = [&one](const char* field, const std::string& text) {
            if (!text.empty()) {
                one.data.push_back({0, field, text});
            }
        };
        add("installedLanguages", languages);
        add("PYLConfigPath", configPath);
        add("INSTALLDIR", installFolder);
        for (const std::string& pair : pairs) {
            KeyValue entry = keyValue(pair);
            one.data.push_back({6, std::move(entry.key), std::move(entry.value)});
        }
        result.payloads.push_back(std::move(one));
        return result;
    }
};

} // namespace

int run(const std::vector<std::string>& arguments, std::istream& in, std::ostream& out,
        std::ostream& err) {
    Tool tool(in, out, err);
    CommandLine line;
    int status = 0;

    CLI::App app("Reads and writes the installed-product database.", "ovrel-caps");
    app.set_version_flag("--version", kVersion);
    app.add_option("--database", tool.databasePath,
                   "The database file (default: $OVREL_CAPS_DB, the user's, the system's)");
    app.require_subcommand(1);
    app.fallthrough();

    const auto command = [](CLI::App& parent, const char* name, const char* help, auto&& work) {
        CLI::App* added = parent.add_subcommand(name, help);
        added->callback(work);
        return added;
    };
    const auto withJson = [&line](CLI::App* added) {
        added->add_flag("--json", line.json, "Print JSON");
    };

    command(app, "init", "Make an empty database, or bring one up to date", [&] { tool.init(); });

    CLI::App* import = command(app, "import", "Read registrations from a TOML file, all or none",
                               [&] { tool.import(line.file); });
    import->add_option("FILE", line.file, "The file, or - for standard input")->required();

    CLI::App* addApp = command(app, "add-app", "Register an application, replacing what was said",
                               [&] { tool.addApplication(line.application()); });
    addApp->add_option("SPECIFIER", line.name, "For example lumen-2.0-en_us")->required();
    addApp->add_option("--path", line.path, "The application's path");
    addApp->add_option("--name", line.displayName, "The name for people");
    addApp->add_option("--redirect", line.redirect, "The specifier that stands in for it");
    addApp->add_flag("--shell-tool", line.shellTool, "It is a tool for the terminal");
    addApp->add_option("--set", line.pairs, "Another key of the registry")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false);

    CLI::App* removeApp = command(app, "remove-app", "Remove an application's registration",
                                  [&] { tool.removeApplication(line.name); });
    removeApp->add_option("SPECIFIER", line.name)->required();

    CLI::App* addProduct =
        command(app, "add-product", "Register a product with one payload, or none",
                [&] { tool.addProduct(line.product()); });
    addProduct->add_option("PRODUCT", line.name, "The product's identifier")->required();
    addProduct->add_option("--payload", line.payload, "The payload's identifier");
    addProduct->add_option("--kind", line.details.kind, "The payload's kind")
        ->capture_default_str();
    addProduct->add_option("--launch-path", line.details.launchPath, "The program's path");
    addProduct->add_option("--install-state", line.details.installState)->capture_default_str();
    addProduct->add_option("--languages", line.languages, "Installed languages, or keys of them");
    addProduct->add_option("--config-path", line.configPath, "The configuration file's path");
    addProduct->add_option("--install-folder", line.installFolder, "Where products are installed");
    addProduct->add_option("--language", line.pairs, "The language that a key stands for")
        ->type_name("KEY=LANGUAGE")
        ->allow_extra_args(false);

    CLI::App* removeProduct = command(app, "remove-product", "Remove a product and its payloads",
                                      [&] { tool.removeProduct(line.name); });
    removeProduct->add_option("PRODUCT", line.name)->required();

    const auto entryCommand = [&](const char* name, const char* help, auto&& work) {
        CLI::App* added = command(app, name, help, work);
        added->add_option("NAME", line.name, "A specifier, or a subdomain (/... or {...)")
            ->required();
        added->add_option("KEY", line.key)->required();
        added->add_option("--domain", line.domain, "The domain's number")->capture_default_str();
        return added;
    };
    CLI::App* set = entryCommand("set", "Write one value",
                                 [&] { tool.set(line.domain, line.name, line.key, line.value); });
    set->add_option("VALUE", line.value)->required();
    entryCommand("get", "Print one value", [&] { tool.get(line.domain, line.name, line.key); });
    entryCommand("remove", "Remove one value",
                 [&] { tool.remove(line.domain, line.name, line.key); });

    CLI::App* group = app.add_subcommand("group", "Groups of applications that go together");
    group->require_subcommand(1);
    const auto groupCommand = [&](const char* name, const char* help, auto&& work) {
        CLI::App* added = command(*group, name, help, work);
        added->add_option("NAME", line.group.name, "The group's name")->required();
        added->add_option("NUMBER", line.group.number, "The group's number, above 0")->required();
        added->add_option("APPLICATION", line.group.pattern, "For example lumen-2.*")->required();
    };
    groupCommand("add", "Put an application into a group", [&] { tool.addGroup(line.group); });
    groupCommand("remove", "Take an application out of a group",
                 [&] { tool.removeGroup(line.group); });
    withJson(command(*group, "list", "List the groups", [&] { tool.listGroups(line.json); }));

    withJson(
        command(app, "list", "List the registered applications", [&] { tool.list(line.json); }));
    CLI::App* show = command(app, "show", "Print what is registered of an application",
                             [&] { tool.show(line.name, line.json); });
    show->add_option("SPECIFIER", line.name)->required();
    withJson(show);
    command(app, "export", "Write the whole database as TOML for import",
            [&] { tool.exportAll(); });
    withJson(command(app, "check", "Find registrations that are ignored or do harm; 1 if any",
                     [&] { status = tool.check(line.json); }));
    CLI::App* desktop =
        command(app, "import-desktop", "Register the applications of a folder of .desktop files",
                [&] { tool.importDesktop(line.file); });
    desktop->add_option("FOLDER", line.file)->required();

    try {
        std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
        app.parse(reversed);
    } catch (const CLI::Success& success) { // --help or --version
        return app.exit(success, out, err);
    } catch (const CLI::ParseError& error) {
        err << "ovrel-caps: " << error.what() << "\nTry 'ovrel-caps --help'.\n";
        return 2;
    } catch (const Failure& failure) {
        err << "ovrel-caps: " << failure.what() << '\n';
        return 1;
    } catch (const TomlError& error) {
        err << "ovrel-caps: " << error.what() << '\n';
        return 1;
    }
    return status;
}

} // namespace caps::tool
