#include "caps/tool/Tool.h"

#include <CLI/CLI.hpp>
#include <functional>

#include "caps/config/Document.h"
#include "caps/tool/Commands.h"
#include "caps/tool/TomlFile.h"

namespace caps::tool {
namespace {

constexpr const char* kVersion = "ovrel-caps 2.0.0";

// "KEY=VALUE" as two texts.
KeyValue keyValue(const std::string& text) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0) {
        throw CLI::ValidationError(text, "must be KEY=VALUE");
    }
    return {text.substr(0, equals), text.substr(equals + 1)};
}

// What the options of add-app say.
struct ApplicationOptions {
    std::string path;
    std::string displayName;
    std::string redirect;
    bool shellTool = false;

    Application application(const std::string& specifier,
                            const std::vector<std::string>& pairs) const {
        Application result{specifier, {}};
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
};

// What the options of add-product say.
struct ProductOptions {
    Payload payload; // without a code: the product has none
    std::string languages;
    std::string configPath;
    std::string installFolder;

    Product product(const std::string& code, const std::vector<std::string>& pairs) const {
        Product result{code, {}};
        if (payload.code.empty()) {
            return result;
        }
        Payload one = payload;
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

// The commands with their options. `chosen` is set to the one that the command line names.
class CommandLine {
public:
    explicit CommandLine(Context& context) : context_(context) {
        app_.set_version_flag("--version", kVersion);
        app_.add_option("--database", context_.databasePath,
                        "The database file (default: $OVREL_CAPS_DB, the user's, the system's)");
        app_.require_subcommand(1);
        app_.fallthrough();
        addWholeDatabase();
        addApplications();
        addProducts();
        addEntries();
        addGroups();
        addQueries();
    }

    CLI::App& app() { return app_; }
    const std::function<int()>& chosen() const { return chosen_; }

private:
    using Subcommand = CLI::App;

    Subcommand& add(CLI::App& parent, const char* name, const char* what,
                    std::function<int()> run) {
        Subcommand* const command = parent.add_subcommand(name, what);
        command->callback([this, run = std::move(run)] { chosen_ = run; });
        return *command;
    }
    Subcommand& add(const char* name, const char* what, std::function<int()> run) {
        return add(app_, name, what, std::move(run));
    }
    // A command that prints rows, or JSON.
    Subcommand& addQuery(CLI::App& parent, const char* name, const char* what,
                         std::function<int()> run) {
        Subcommand& command = add(parent, name, what, std::move(run));
        command.add_flag("--json", context_.json, "Print JSON");
        return command;
    }

    // A change that may leave others behind without a path.
    Subcommand& addChange(const char* name, const char* what, std::function<int()> run) {
        Subcommand& command = add(name, what, std::move(run));
        command.add_flag("--strict", context_.strict,
                         "Change nothing when that leaves entries behind that are ignored, or at "
                         "which a listing ends");
        return command;
    }

    void addWholeDatabase() {
        add("init", "Make an empty database, or bring one up to date",
            [this] { return init(context_); });
        auto& importing = addChange("import", "Read registrations from a file, all or none",
                                    [this] { return import(context_, file_, importOptions_); });
        importing
            .add_option("FILE", file_,
                        "TOML, an exported XML document or another database; - for standard input")
            ->required();
        importing.add_option("--rule", importOptions_.rule,
                             "What wins where both have an entry: keep, replace or newer");
        importing.add_flag("--dry-run", importOptions_.dryRun, "Only tell what would change");
        auto& exporting = add("export", "Write the whole database as TOML for import", [this] {
            return asXml_ ? exportXml(context_) : exportAll(context_);
        });
        exporting.add_flag("--xml", asXml_, "As an XML document");
        auto& syncing =
            add("sync", "Bring what packages' files register into the system's database",
                [this] { return sync(context_, folders_, importOptions_.dryRun); });
        syncing.add_option("--from", folders_,
                           "A folder of NAME.toml files; one of a later folder replaces its "
                           "namesake (default: /usr/share/ovrel/caps.d, /etc/ovrel/caps.d)");
        syncing.add_flag("--dry-run", importOptions_.dryRun, "Only tell what would change");
        auto& comparing = addQuery(app_, "diff", "Compare two registries; 1 when they differ",
                                   [this] { return diff(context_, file_, value_); });
        comparing.add_option("A", file_, "A database, an XML document or a TOML file")->required();
        comparing.add_option("B", value_, "Another one")->required();
        auto& desktop =
            addChange("import-desktop", "Register the applications of a folder of .desktop files",
                      [this] { return importDesktop(context_, file_); });
        desktop.add_option("FOLDER", file_)->required();
    }

    void addApplications() {
        auto& adding =
            addChange("add-app", "Register an application, replacing what was said", [this] {
                return addApplication(context_, application_.application(name_, pairs_));
            });
        adding.add_option("SPECIFIER", name_, "For example lumen-2.0-en_us")->required();
        adding.add_option("--path", application_.path, "The application's path");
        adding.add_option("--name", application_.displayName, "The name for people");
        adding.add_option("--redirect", application_.redirect,
                          "The specifier that stands in for it");
        adding.add_flag("--shell-tool", application_.shellTool, "It is a tool for the terminal");
        adding.add_option("--set", pairs_, "Another key of the registry")
            ->type_name("KEY=VALUE")
            ->allow_extra_args(false);

        auto& removing = addChange("remove-app", "Remove an application's registration",
                                   [this] { return removeApplication(context_, name_); });
        removing.add_option("SPECIFIER", name_)->required();
    }

    void addProducts() {
        auto& adding = add("add-product", "Register a product with one payload, or none", [this] {
            return addProduct(context_, product_.product(name_, pairs_));
        });
        Payload& payload = product_.payload;
        adding.add_option("PRODUCT", name_, "The product's identifier")->required();
        adding.add_option("--payload", payload.code, "The payload's identifier");
        adding.add_option("--kind", payload.kind, "The payload's kind")->capture_default_str();
        adding.add_option("--launch-path", payload.launchPath, "The program's path");
        adding.add_option("--install-state", payload.installState)->capture_default_str();
        adding.add_option("--languages", product_.languages,
                          "Installed languages, or keys of them");
        adding.add_option("--config-path", product_.configPath, "The configuration file's path");
        adding.add_option("--install-folder", product_.installFolder,
                          "Where products are installed");
        adding.add_option("--language", pairs_, "The language that a key stands for")
            ->type_name("KEY=LANGUAGE")
            ->allow_extra_args(false);

        auto& removing = addChange("remove-product", "Remove a product and its payloads",
                                   [this] { return removeProduct(context_, name_); });
        removing.add_option("PRODUCT", name_)->required();
    }

    void addEntries() {
        const auto addEntry = [this](const char* name, const char* what,
                                     std::function<int()> run) -> Subcommand& {
            auto& command = add(name, what, std::move(run));
            command.add_option("NAME", name_, "A specifier, or a subdomain (/... or {...)")
                ->required();
            command.add_option("KEY", key_)->required();
            command.add_option("--domain", domain_, "The domain's number")->capture_default_str();
            return command;
        };
        addEntry("set", "Write one value",
                 [this] { return set(context_, domain_, name_, key_, value_); })
            .add_option("VALUE", value_)
            ->required();
        addEntry("get", "Print one value", [this] { return get(context_, domain_, name_, key_); });
        auto& removing = addChange(
            "remove", "Remove an application, those of a product or a folder, or one value",
            [this] { return removeWhatIsSaid(); });
        auto* name = removing.add_option("NAME", name_, "A specifier, or a subdomain");
        removing.add_option("KEY", key_, "Only this value of it")->needs(name);
        removing.add_option("--domain", domain_, "The domain's number")->capture_default_str();
        auto* product = removing.add_option("--product", selection_.product,
                                            "The product and the applications of its payloads");
        auto* folder = removing.add_option("--folder", selection_.folder,
                                           "The applications that lie in the folder");
        auto* all = removing.add_flag("--all", selection_.all, "All applications and groups");
        name->excludes(product)->excludes(folder)->excludes(all);
        product->excludes(folder)->excludes(all);
        folder->excludes(all);
        removing.add_flag("--yes", removeOptions_.yes, "Remove all, not only tell what that is")
            ->needs(all);
        removing.add_flag("--dry-run", removeOptions_.dryRun, "Only tell what would go");
    }

    void addGroups() {
        CLI::App& group = *app_.add_subcommand("group", "Groups of applications that go together");
        group.require_subcommand(1);
        const auto addMember = [&](const char* name, const char* what, std::function<int()> run) {
            auto& command = add(group, name, what, std::move(run));
            command.add_option("NAME", group_.name, "The group's name")->required();
            command.add_option("NUMBER", group_.number, "The group's number, above 0")->required();
            command.add_option("APPLICATION", group_.pattern, "For example lumen-2.*")->required();
        };
        addMember("add", "Put an application into a group",
                  [this] { return addGroup(context_, group_); });
        addMember("remove", "Take an application out of a group",
                  [this] { return removeGroup(context_, group_); });
        addQuery(group, "list", "List the groups", [this] { return listGroups(context_); });
    }

    void addQueries() {
        addQuery(app_, "list", "List the registered applications",
                 [this] { return list(context_); });
        addQuery(app_, "show", "Print what is registered of an application",
                 [this] { return show(context_, name_); })
            .add_option("SPECIFIER", name_)
            ->required();
        addQuery(app_, "check", "Find registrations that are ignored or do harm; 1 if any",
                 [this] { return check(context_); });
    }

    int removeWhatIsSaid() {
        if (!key_.empty()) {
            return remove(context_, domain_, name_, key_);
        }
        selection_.specifier = name_;
        if (name_.empty() && selection_.product.empty() && selection_.folder.empty() &&
            !selection_.all) {
            throw CLI::RequiredError("NAME, --product, --folder or --all");
        }
        return removeEntries(context_, selection_, removeOptions_);
    }

    Context& context_;
    CLI::App app_{"Reads and writes the installed-product database.", "ovrel-caps"};
    std::function<int()> chosen_;
    std::string file_;
    std::string name_;
    std::string key_;
    std::string value_;
    int32_t domain_ = kRegistryDomain;
    Group group_;
    ImportOptions importOptions_;
    std::vector<std::string> folders_;
    bool asXml_ = false;
    config::Selection selection_;
    RemoveOptions removeOptions_;
    ApplicationOptions application_;
    ProductOptions product_;
    std::vector<std::string> pairs_;
};

} // namespace

int run(const std::vector<std::string>& arguments, std::istream& in, std::ostream& out,
        std::ostream& err) {
    Context context(in, out, err);
    CommandLine commandLine(context);
    try {
        std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
        commandLine.app().parse(reversed);
        return commandLine.chosen()();
    } catch (const CLI::Success& success) { // --help or --version
        return commandLine.app().exit(success, out, err);
    } catch (const CLI::ParseError& error) {
        err << "ovrel-caps: " << error.what() << "\nTry 'ovrel-caps --help'.\n";
        return 2;
    } catch (const Failure& failure) {
        err << "ovrel-caps: " << failure.what() << '\n';
        return 1;
    } catch (const config::DocumentError& error) {
        err << "ovrel-caps: " << error.what() << '\n';
        return 1;
    } catch (const TomlError& error) {
        err << "ovrel-caps: " << error.what() << '\n';
        return 1;
    }
}

} // namespace caps::tool
