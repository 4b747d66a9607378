// What concerns registered applications and whether they run.
#include <chrono>
#include <iomanip>
#include <map>
#include <ostream>
#include <sstream>

#include "cmd/HostProductInfoFromCapsLib.h"
#include "platform/Locale.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "tools/convey/Commands.h"
#include "tools/convey/Model.h"
#include "tools/convey/Session.h"

namespace convey_tool {

using ScObjects::Convey;
using ScObjects::SoString;
using ScObjects::SoVector;

namespace {

constexpr int64_t kPollMilliseconds = 50;
constexpr std::string_view kWebScheme = "https://";

struct Application {
    std::string specifier;
    std::string name;
    std::string version;
    std::string locale;
    std::string path;
    std::string languages;
    bool runs = false;
    uint32_t process = 0; // 0: not known
    std::string program;
    std::string link; // where it runs, when that is another machine
};

std::string languagesAt(const std::string& path) {
    std::string languages;
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos) {
        CHostProductInfoFromCapsLib::getInstance()->LookupInstalledLanguages(path.substr(0, slash),
                                                                             languages);
    }
    if (languages.empty()) {
        languages = "en_US";
        (void)platform::Locale::system().identifier(languages); // else it stays
    }
    return languages;
}

std::vector<Application> applications(const ListOptions& options) {
    std::vector<Application> result;
    std::map<std::string, uint32_t> owners;
    std::map<std::string, std::string> elsewhere;
    if (!options.names) {
        owners = portOwners();
        elsewhere = usedElsewhere();
    }
    const int32_t count = Convey::getNumberOfRegisteredApplications();
    for (int32_t i = 0; i < count; ++i) {
        const Convey::Specifier specifier(Convey::getApplicationSpecifier(i).c_str(), false);
        Application application;
        application.specifier = toStd(specifier);
        if (!options.names || options.running) {
            application.runs = specifier.isRunning();
        }
        if (options.running && !application.runs) {
            continue;
        }
        if (!options.names) {
            application.version = toStd(specifier.version());
            application.locale = toStd(specifier.locale());
            application.name = toStd(Convey::getDisplayName(
                specifier.appName(), specifier.version(), specifier.locale()));
            application.path = toStd(specifier.getApplicationPath(nullptr));
            application.languages = languagesAt(application.path);
        }
        const uint32_t owner = ownerOf(owners, application.specifier);
        const auto used = elsewhere.find(application.specifier);
        if (used != elsewhere.end()) {
            application.link = used->second; // its ports here are the link's
        } else if (owner != 0 && application.runs) {
            application.process = owner;
            application.program = lookAt(owner).program;
        }
        result.push_back(std::move(application));
    }
    return result;
}

std::string orDash(const std::string& text) {
    return text.empty() ? "-" : text;
}

} // namespace

Exit list(const Output& output, const ListOptions& options) {
    const Session session;
    requireRegistry();
    const std::vector<Application> all = applications(options);
    if (options.names && !output.json) {
        for (const Application& application : all) {
            output.out << output.show(application.specifier) << '\n';
        }
        return kDone;
    }
    if (output.json) {
        Json json = Json::array();
        for (const Application& application : all) {
            if (options.names) {
                json.push_back(application.specifier);
                continue;
            }
            json.push_back({{"specifier", application.specifier},
                            {"name", application.name},
                            {"version", application.version},
                            {"locale", application.locale},
                            {"path", application.path},
                            {"languages", application.languages},
                            {"running", application.runs}});
            if (application.process != 0) {
                json.back()["process"] = application.process;
                json.back()["program"] = application.program;
            }
            if (!application.link.empty()) {
                json.back()["link"] = application.link;
            }
        }
        output.print(json);
        return kDone;
    }
    Table table({"SPECIFIER", "NAME", "RUNS", "PROGRAM", "LANGUAGES", "PATH"});
    for (const Application& application : all) {
        table.add({application.specifier, orDash(application.name),
                   application.process != 0 ? std::to_string(application.process)
                   : application.runs       ? "yes"
                                            : "no",
                   application.link.empty()
                       ? orDash(application.program.substr(application.program.rfind('/') + 1))
                       : "at " + application.link,
                   application.languages, orDash(application.path)});
    }
    table.print(output);
    return kDone;
}

Exit resolve(const Output& output, const std::string& specifier) {
    const Session session;
    requireRegistry();
    SoVector<SoString> steps;
    const Convey::Specifier result = Convey::Specifier::explain(specifier.c_str(), steps);
    std::vector<std::string> lines;
    while (steps.count() > 0) {
        const std::unique_ptr<SoString> step(steps.removeAt(0));
        lines.push_back(toStd(*step));
    }
    const std::string path = toStd(result.getApplicationPath(nullptr));
    const bool runs = result.isRunning();
    if (output.json) {
        output.print({{"given", specifier},
                      {"result", toStd(result)},
                      {"steps", lines},
                      {"installed", !path.empty()},
                      {"path", path},
                      {"running", runs}});
        return path.empty() ? kNo : kDone;
    }
    output.out << output.show(toStd(result), Style::heading) << '\n';
    for (const std::string& line : lines) {
        output.out << "  - " << output.show(line) << '\n';
    }
    output.out << (path.empty() ? output.show("not installed", Style::bad)
                                : "installed at " + output.show(path))
               << '\n'
               << (runs ? output.show("runs", Style::good) : "does not run") << '\n';
    return path.empty() ? kNo : kDone;
}

Exit launch(const Output& output, const LaunchOptions& options) {
    Session session;
    requireRegistry();
    const Convey::Specifier target = known(options.specifier);
    const bool ranBefore = target.isRunning();
    Json json = {
        {"specifier", toStd(target)}, {"ranBefore", ranBefore}, {"parameters", options.parameters}};
    const int32_t result = Convey::launchTarget(target.c_str(), options.parameters.c_str(),
                                                options.behind ? 1 : 0, nullptr);
    if (result != 1) {
        throw Failure(kNo, toStd(target) + " could not be launched", json);
    }
    // What it is given must be handed over before this process ends. Who opens in a browser takes
    // nothing.
    const SoString path = target.getApplicationPath(nullptr);
    const bool isWeb = path.view().starts_with(kWebScheme);
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + std::chrono::seconds(isWeb ? 0 : options.waitSeconds);
    while (session.instance().outgoingMessagePending() && steady_clock::now() < end &&
           !Session::isEnding()) {
        Session::pumpFor(20);
    }
    const bool taken = !session.instance().outgoingMessagePending();
    const uint32_t process = Convey::getProcessID(target.c_str());
    json["process"] = process;
    json["parametersTaken"] = taken && !ranBefore && !isWeb;
    if (!output.json) {
        output.out << (ranBefore ? "" : "launched ") << output.show(toStd(target))
                   << (ranBefore      ? " runs already"
                       : isWeb        ? " in the browser"
                       : process != 0 ? ", process " + std::to_string(process)
                                      : "")
                   << std::endl;
    }
    if (ranBefore && !options.parameters.empty()) {
        throw Failure(kNo, toStd(target) + " runs already and takes no parameters", json);
    }
    if (isWeb && !options.parameters.empty()) {
        throw Failure(kNo, toStd(target) + " opens in the browser and takes no parameters", json);
    }
    if (!taken && !isWeb && options.waitSeconds != 0) {
        throw Failure(kNo,
                      toStd(target) + " has not taken its parameters within " +
                          std::to_string(options.waitSeconds) + " seconds; --wait waits longer",
                      json);
    }
    if (output.json) {
        output.print(json);
    }
    return kDone;
}

Exit front(const Output& output, const std::string& specifier) {
    const Session session;
    requireRegistry();
    const Convey::Specifier target = known(specifier);
    const bool installed = Convey::bringToFront(target.c_str(), nullptr);
    const bool runs = target.isRunning();
    const Json json = {{"specifier", toStd(target)}, {"installed", installed}, {"running", runs}};
    if (!installed || !runs) {
        throw Failure(kNo,
                      toStd(target) + (installed ? " does not run; convey launch launches it"
                                                 : " is not installed"),
                      json);
    }
    if (output.json) {
        output.print(json);
    }
    return kDone;
}

Exit wait(const Output& output, const WaitOptions& options) {
    const Session session;
    const Convey::Specifier target = completed(options.specifier);
    using std::chrono::steady_clock;
    const auto start = steady_clock::now();
    const auto end = start + std::chrono::duration<double>(options.timeoutSeconds);
    bool reached = target.isRunning() == options.untilRunning;
    while (!reached && steady_clock::now() < end && !Session::isEnding()) {
        Session::pumpFor(kPollMilliseconds);
        reached = target.isRunning() == options.untilRunning;
    }
    const char* const state = reached == options.untilRunning ? "running" : "gone";
    const double seconds = std::chrono::duration<double>(steady_clock::now() - start).count();
    const Json json = {{"specifier", toStd(target)},
                       {"until", options.untilRunning ? "running" : "gone"},
                       {"state", state},
                       {"seconds", seconds}};
    if (!reached) {
        std::ostringstream text;
        text << "waited " << std::setprecision(3) << seconds << " s for " << toStd(target)
             << (options.untilRunning ? " to run; it does not" : " to go; it still runs");
        throw Failure(kNo, text.str(), json);
    }
    if (output.json) {
        output.print(json);
    } else {
        output.out << output.show(toStd(target)) << " is " << state << '\n';
    }
    return kDone;
}

} // namespace convey_tool
