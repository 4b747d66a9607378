// What concerns registered applications and whether they run.
#include <chrono>
#include <ostream>
#include <thread>

#include "cmd/HostProductInfoFromCapsLib.h"
#include "platform/Locale.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "tools/convey/Commands.h"
#include "tools/convey/Session.h"

namespace convey_tool {

using ScObjects::Convey;
using ScObjects::SoString;
using ScObjects::SoVector;

namespace {

constexpr auto kPoll = std::chrono::milliseconds(50);

struct Application {
    std::string specifier;
    std::string name;
    std::string version;
    std::string locale;
    std::string path;
    std::string languages;
    bool runs = false;
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
        result.push_back(std::move(application));
    }
    return result;
}

std::string orDash(const std::string& text) {
    return text.empty() ? "-" : text;
}

void requireRegistry() {
    if (Convey::getSharedContext()->getConnector() == nullptr) {
        throw Failure(kNoLayer, "there is no database of installed products; ovrel-caps makes one");
    }
}

} // namespace

Exit list(const Output& output, const ListOptions& options) {
    const Session session;
    requireRegistry();
    const std::vector<Application> all = applications(options);
    if (options.names) {
        for (const Application& application : all) {
            output.out << output.show(application.specifier) << '\n';
        }
        return kDone;
    }
    if (output.json) {
        Json json = Json::array();
        for (const Application& application : all) {
            json.push_back({{"specifier", application.specifier},
                            {"name", application.name},
                            {"version", application.version},
                            {"locale", application.locale},
                            {"path", application.path},
                            {"languages", application.languages},
                            {"running", application.runs}});
        }
        output.print(json);
        return kDone;
    }
    Table table({"SPECIFIER", "NAME", "VERSION", "LOCALE", "RUNS", "LANGUAGES", "PATH"});
    for (const Application& application : all) {
        table.add({application.specifier, orDash(application.name), orDash(application.version),
                   orDash(application.locale), application.runs ? "yes" : "no",
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
    const Convey::Specifier target = completed(options.specifier);
    const bool ranBefore = target.isRunning();
    const int32_t result = Convey::launchTarget(target.c_str(), options.parameters.c_str(),
                                                options.behind ? 1 : 0, nullptr);
    if (result != 1) {
        throw Failure(kNo, toStd(target) + (target.isInstalled() ? " could not be launched"
                                                                 : " is not installed"));
    }
    // What it is given must be handed over before this process ends.
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + std::chrono::seconds(options.waitSeconds);
    while (session.instance().outgoingMessagePending() && steady_clock::now() < end &&
           !Session::isEnding()) {
        Session::pumpFor(20);
    }
    const bool taken = !session.instance().outgoingMessagePending();
    const uint32_t process = Convey::getProcessID(target.c_str());
    if (output.json) {
        output.print({{"specifier", toStd(target)},
                      {"ranBefore", ranBefore},
                      {"process", process},
                      {"parametersTaken", taken}});
    } else if (ranBefore) {
        output.out << output.show(toStd(target)) << " runs already\n";
    } else {
        output.out << "launched " << output.show(toStd(target));
        if (process != 0) {
            output.out << ", process " << process;
        }
        output.out << '\n';
    }
    if (!taken) {
        throw Failure(kNo, toStd(target) + " has not taken its parameters within " +
                               std::to_string(options.waitSeconds) + " seconds");
    }
    return kDone;
}

Exit front(const Output& output, const std::string& specifier) {
    const Session session;
    requireRegistry();
    const Convey::Specifier target = completed(specifier);
    const bool installed = Convey::bringToFront(target.c_str(), nullptr);
    const bool runs = target.isRunning();
    if (output.json) {
        output.print({{"specifier", toStd(target)}, {"installed", installed}, {"running", runs}});
    }
    if (!installed || !runs) {
        throw Failure(kNo, toStd(target) + (installed ? " does not run" : " is not installed"));
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
        std::this_thread::sleep_for(kPoll);
        reached = target.isRunning() == options.untilRunning;
    }
    const char* const state = reached == options.untilRunning ? "running" : "gone";
    if (output.json) {
        output.print(
            {{"specifier", toStd(target)},
             {"state", state},
             {"seconds", std::chrono::duration<double>(steady_clock::now() - start).count()}});
    } else {
        output.out << output.show(toStd(target)) << " is " << state << '\n';
    }
    return reached ? kDone : kNo;
}

} // namespace convey_tool
