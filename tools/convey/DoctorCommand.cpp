// Whether all is well: every application that runs, and the installation.
#include <algorithm>
#include <cstdlib>
#include <map>
#include <ostream>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "caps/Layers.h"
#include "caps/Store.h"
#include "caps/tool/Checks.h"
#include "limits/Limits.h"
#include "platform/Locale.h"
#include "platform/MessagePort.h"
#include "scriptobjects/connector/SoCVConnector.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVSpecifier.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVUtilsCore.h"
#include "tools/convey/Commands.h"
#include "tools/convey/Look.h"
#include "tools/convey/Model.h"
#include "tools/convey/Session.h"

namespace convey_tool {

using ScObjects::Convey;

namespace {

constexpr size_t kShownFindings = 5; // `ovrel-caps check` has all

// What joins this machine to others, and the ping key that it describes itself under, in JSON.
constexpr const char* kLink = "conveylink-2.0";
constexpr const char* kLinkKey = "LINK";
constexpr const char* kStartLink = "systemctl --user restart convey-link";

enum class Health { good, note, wrong };

// One line: what was looked at, how it is, and what to do when it is not well.
struct Check {
    Health health;
    std::string subject;
    std::string text;
    std::string advice;
};

// Of an object that another process wrote; empty when there is none.
std::string textIn(const Json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

template <class Each>
void eachIn(const Json& object, const char* key, Each&& each) {
    const auto found = object.find(key);
    if (found != object.end() && found->is_array()) {
        for (const Json& one : *found) {
            each(one);
        }
    }
}

class Doctor {
public:
    // `wanted`: those that are looked at, all when there are none.
    Doctor(std::string own, std::set<std::string> wanted, int32_t timeoutSeconds)
        : own_(std::move(own)), wanted_(std::move(wanted)), timeoutSeconds_(timeoutSeconds) {}

    std::vector<Check> examine() {
        elsewhere_ = usedElsewhere();
        portFolder();
        otherFolders();
        stalePorts();
        database();
        framework();
        link();
        running();
        for (const std::string& name : wanted_) {
            if (seen_.count(name) == 0) {
                add(Health::note, "application", name + " does not run", "convey launch " + name);
            }
        }
        return checks_;
    }

private:
    void add(Health health, const char* subject, const std::string& text,
             const std::string& advice = "") {
        checks_.push_back({health, subject, text, advice});
    }

    void portFolder() {
        const std::string place = platform::MessagePorts::system().place();
        struct stat status {};
        if (lstat(place.c_str(), &status) != 0) {
            add(Health::wrong, "port folder", place + " is not there",
                "set XDG_RUNTIME_DIR to a folder of yours that can be written");
        } else if (!S_ISDIR(status.st_mode) || status.st_uid != geteuid() ||
                   (status.st_mode & 077) != 0) {
            add(Health::wrong, "port folder",
                place + (S_ISDIR(status.st_mode) && status.st_uid == geteuid()
                             ? " is open to other users"
                             : " is no folder of yours"),
                "chmod 700 " + place + ", or remove it when it is not yours");
        } else {
            add(Health::good, "port folder", place + ", yours alone");
        }
    }

    // The most confusing case: both run, and neither sees the other.
    void otherFolders() {
        const auto here = portOwners();
        for (const auto& [folder, ports] : portsElsewhere()) {
            for (const auto& [port, process] : ports) {
                const std::string name = port.substr(0, port.find('#'));
                // One verdict for each name: it is of one of those that have it.
                if (port.ends_with("#thread") && here.count(port) == 0 && isWanted(name) &&
                    seen_.count(name) == 0 &&
                    Convey::Specifier(name.c_str(), false).isInstalled()) {
                    application(name, process, {});
                }
            }
        }
    }

    void stalePorts() {
        const auto ports = platform::MessagePorts::system().list();
        for (const auto& port : ports) {
            const std::string name(ScObjects::ConveyUtils::getStreamName(port.name.c_str()).view());
            const std::string target = name.substr(0, name.find('#'));
            if (port.stale && name.ends_with("#thread") && !name.starts_with("convey") &&
                isWanted(target) && elsewhere_.count(target) == 0) {
                application(target, 0, {});
            }
        }
        const auto stale =
            std::count_if(ports.begin(), ports.end(), [](const auto& port) { return port.stale; });
        if (stale != 0) {
            add(Health::note, "ports",
                std::to_string(stale) + " of processes that have died; what waited there is lost",
                "convey ports --clean removes them");
        } else {
            add(Health::good, "ports", "none of processes that have died");
        }
    }

    void database() {
        const std::string path = caps::findDatabase();
        std::unique_ptr<caps::Store> store;
        std::string reason;
        caps::Contents contents;
        if (path.empty()) {
            add(Health::wrong, "database", "there is none at " + caps::defaultDatabasePath(),
                "ovrel-caps import FILE makes one; OVREL_CAPS_DB names another");
            return;
        }
        if (caps::Store::open(path, caps::Store::Access::read, store, &reason) !=
                caps::Status::ok ||
            store->readAll(contents) != caps::Status::ok) {
            add(Health::wrong, "database",
                path + ": " + (store == nullptr ? reason : store->lastError()),
                "restore it, or name another by OVREL_CAPS_DB");
            return;
        }
        std::unique_ptr<caps::Store> lower;
        caps::Contents below;
        const std::string system = caps::databaseBelow(path);
        if (!system.empty() &&
            caps::Store::open(system, caps::Store::Access::read, lower) == caps::Status::ok &&
            lower->readAll(below) == caps::Status::ok) {
            contents = caps::layered(std::move(below), std::move(contents), system);
        }
        std::string locale = "en_US";
        (void)platform::Locale::system().identifier(locale); // else it stays
        const auto findings = caps::tool::checkRegistry(contents, locale);
        if (findings.empty()) {
            add(Health::good, "database", path + ", its checks report nothing");
        }
        for (size_t i = 0; i < std::min(findings.size(), kShownFindings); ++i) {
            add(findings[i].harm == caps::tool::Harm::none ? Health::note : Health::wrong,
                "database", findings[i].where + ": " + findings[i].what + "; " + findings[i].why,
                i + 1 == kShownFindings && findings.size() > kShownFindings
                    ? "ovrel-caps check shows all " + std::to_string(findings.size())
                    : "ovrel-caps check, then mend the registration");
        }
    }

    void framework() {
        const ScObjects::ConveyContext* const context = Convey::getSharedContext();
        const auto* const connector = context == nullptr ? nullptr : context->getConnector();
        if (connector == nullptr || !connector->isGood()) {
            add(Health::wrong, "framework", "ovrel_caps.framework does not open the database",
                "install it beside the program, or set CONVEY_CAPS_FOLDER");
        } else {
            add(Health::good, "framework",
                "version " + std::string(Convey::kVersion) + ", " +
                    std::to_string(Convey::getNumberOfRegisteredApplications()) +
                    " applications registered");
        }
    }

    void link() {
        const auto owners = portOwners();
        if (owners.count(std::string(kLink) + "#thread") == 0) {
            linkIsMissing();
            return;
        }
        const std::string answer =
            toStd(Convey::Thread::ping(kLink, kLinkKey, timeoutSeconds_, nullptr));
        const Json status = Json::parse(answer, nullptr, false);
        if (!status.is_object()) {
            add(Health::wrong, "link", "it runs, and does not say who is there: " + answer,
                "convey diagnose " + std::string(kLink));
            return;
        }
        const std::string own = textIn(status, "realm") + "/" + textIn(status, "name");
        const auto connected = status.find("connected");
        if (connected == status.end() || *connected != true) {
            for (const auto& [app, at] : elsewhere_) {
                seen_.insert(app);
            }
            add(Health::wrong, "link", own + " is not connected to any of its servers",
                "journalctl --user -u convey-link says why; see whether they and the network are "
                "up");
            return;
        }
        std::string who;
        eachIn(status, "links", [&who](const Json& other) {
            who += (who.empty() ? "; " : ", ") + textIn(other, "name") + " is " +
                   textIn(other, "state");
        });
        add(Health::good, "link", own + " is connected to " + textIn(status, "server") + who);
        eachIn(status, "uses", [this, &own](const Json& use) {
            const std::string app = textIn(use, "app");
            const std::string at = textIn(use, "at");
            const std::string state = textIn(use, "state");
            if (!isWanted(app)) {
                return;
            }
            if (state == "away") {
                seen_.insert(app); // there is no more to be said of it
                add(Health::wrong, "link", app + " cannot be reached: " + at + " is away",
                    "start convey-link at " + at + ", or see whether its network is up");
            } else if (state == "not offered") {
                seen_.insert(app);
                add(Health::wrong, "link", app + " is not offered by " + at + " to " + own,
                    "an [[offer]] in the file of " + at + ", or no [[use]] in the one here");
            } else if (state == "registered here") {
                add(Health::note, "link", app + " is used here, not at " + at,
                    "one of this machine wins; remove it, or its [[use]]");
            }
        });
    }

    // There may be no need for one.
    void linkIsMissing() {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing here changes the environment
        const char* const set = std::getenv("XDG_CONFIG_HOME");
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the same
        const char* const home = std::getenv("HOME");
        const std::string file = (set != nullptr && *set == '/'
                                      ? set
                                      : std::string(home == nullptr ? "" : home) + "/.config") +
                                 "/convey/link.toml";
        if (!elsewhere_.empty()) {
            for (const auto& [app, at] : elsewhere_) {
                seen_.insert(app); // whatever the link has left of it
            }
            const auto& [app, at] = *elsewhere_.begin();
            add(Health::wrong, "link", "none runs, and " + app + " is used at " + at, kStartLink);
        } else if (access(file.c_str(), F_OK) == 0) {
            add(Health::note, "link", "none runs, and there is " + file, kStartLink);
        }
    }

    bool isWanted(const std::string& name) const {
        return wanted_.empty() || wanted_.count(name) != 0;
    }

    void running() {
        std::map<std::string, uint32_t> processes;
        std::vector<std::string> names;
        for (const auto& [port, process] : portOwners()) {
            const std::string name = port.substr(0, port.find('#'));
            if (port.ends_with("#thread") && name != own_ && isWanted(name) &&
                seen_.count(name) == 0) {
                processes[name] = process;
                names.push_back(name);
            }
        }
        const Subjects subjects = lookAtAll(names, timeoutSeconds_);
        for (const auto& [name, process] : processes) {
            if (!Session::isEnding()) {
                application(name, process, subjects);
            }
        }
    }

    void application(const std::string& name, uint32_t process, const Subjects& subjects) {
        std::string rows;
        Verdict verdict;
        seen_.insert(name);
        try {
            verdict = judgeRunning(name, timeoutSeconds_, false, &rows, subjects);
        } catch (const Failure& failure) {
            add(Health::note, "application", failure.what(), "it may have ended just now");
            return;
        }
        add(verdict.isHealthy ? Health::good : Health::wrong, "application", verdict.sentence,
            verdict.isHealthy ? "" : "convey diagnose " + name);
        const auto used = elsewhere_.find(name);
        if (used != elsewhere_.end()) {
            checks_.back().text += " (at " + used->second + ")";
        } else if (process != 0 && verdict.sentence.find(" process ") == std::string::npos) {
            checks_.back().text += " (process " + std::to_string(process) + ")";
        }
        const Node tree = readTree(rows);
        for (const Node& row : tree.children) {
            if (row.path.ends_with("/version") && row.value != Convey::kVersion) {
                add(Health::note, "version",
                    name + " has version " + row.value + " of the layer, this tool " +
                        Convey::kVersion,
                    "start it again when it was updated");
            }
        }
        for (const InstanceFacts& facts : readInstances(tree)) {
            if (facts.sendersWithoutRoom != 0) {
                add(Health::wrong, "limit",
                    facts.name + ": " + std::to_string(facts.incoming) + " messages wait, of " +
                        std::to_string(facts.incomingBytes) + " bytes; senders without room: " +
                        std::to_string(facts.sendersWithoutRoom) + " (queue.incoming...)",
                    "have it pump, or its senders wait for their answers");
            }
            if (static_cast<int64_t>(facts.outgoing) >= ::limits::of("queue.outgoing.messages")) {
                add(Health::wrong, "limit",
                    facts.name + ": " + std::to_string(facts.outgoing) +
                        " messages that are to go out wait (queue.outgoing.messages)",
                    "convey diagnose " + name + " says for whom");
            }
        }
    }

    const std::string own_;
    const std::set<std::string> wanted_;
    const int32_t timeoutSeconds_;
    std::set<std::string> seen_;
    std::map<std::string, std::string> elsewhere_; // with the name of the link where it runs
    std::vector<Check> checks_;
};

const char* wordOf(Health health) {
    return health == Health::good ? "ok" : health == Health::note ? "note" : "WRONG";
}

} // namespace

Exit doctor(const Output& output, const DoctorOptions& options) {
    const Session session;
    std::set<std::string> wanted;
    for (const std::string& specifier : options.specifiers) {
        wanted.insert(toStd(completed(specifier)));
    }
    const std::vector<Check> checks =
        Doctor(session.name(), std::move(wanted), options.timeoutSeconds).examine();
    const bool isHealthy = std::none_of(checks.begin(), checks.end(), [](const Check& check) {
        return check.health == Health::wrong;
    });
    if (output.json) {
        Json all = Json::array();
        for (const Check& check : checks) {
            all.push_back(
                {{"subject", check.subject},
                 {"state", check.health == Health::wrong ? "wrong" : wordOf(check.health)},
                 {"text", check.text},
                 {"advice", check.advice}});
        }
        output.print({{"healthy", isHealthy}, {"checks", std::move(all)}});
    } else {
        for (const Check& check : checks) {
            const Style style = check.health == Health::wrong  ? Style::bad
                                : check.health == Health::good ? Style::good
                                                               : Style::plain;
            std::string word = wordOf(check.health);
            word.resize(5, ' ');
            output.out << output.show(word, style) << "  ";
            output.paragraph(check.subject + ": " + check.text, 7);
            if (!check.advice.empty()) {
                output.out << "       -> ";
                output.paragraph(check.advice, 10);
            }
        }
        output.out.flush();
    }
    return isHealthy ? kDone : kNo;
}

} // namespace convey_tool
