#include "tools/convey/Tool.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <functional>
#include <iostream>
#include <numeric>
#include <utility>

#include "scriptobjects/convey/SoConvey.h"
#include "tools/convey/Commands.h"
#include "tools/convey/Session.h"

namespace convey_tool {
namespace {

constexpr const char* kFooter =
    "Exit status: 0 done, or the answer is yes; 1 the answer is no (not running, not installed, "
    "an\n"
    "error, no answer in time); 2 the command line is not understood; 3 the messaging layer, the\n"
    "database, a file or standard output cannot be used; 130 interrupted. Results go to standard\n"
    "output, problems to standard error.";

// The commands with their options. `chosen` is set to the one that the command line names.
class CommandLine {
public:
    explicit CommandLine(Output& output) : output_(output) {
        app_.require_subcommand(1);
        app_.footer(kFooter);
        app_.set_version_flag("--version",
                              std::string("convey ") + ScObjects::Convey::kVersion + ".0");
        app_.fallthrough();
        addCommonOptions(app_);
        addRegistryCommands();
        addMessageCommands();
        addDiagnosis();
    }

    CLI::App& app() { return app_; }

    // Takes the command line apart and runs what it names. Throws CLI::ParseError and Failure.
    Exit run(std::vector<std::string> words) {
        requireCommand(words);
        std::reverse(words.begin(), words.end()); // as the parser wants them
        app_.parse(words);
        if (output_.quiet) {
            output_.out.rdbuf(nullptr); // which takes nothing
        }
        return chosen_();
    }

    // What stands behind the specifier of `launch` is the application's, whatever it looks like.
    void takeLaunchParameters(std::vector<std::string>& words) {
        size_t i = commandIn(words);
        if (i == words.size() || words[i] != "launch") {
            return;
        }
        for (++i; i < words.size() && words[i].size() > 1 && words[i][0] == '-'; ++i) {
            if (words[i] == "--") {
                ++i;
                break;
            }
            i += words[i] == "--wait" ? 1 : 0;
        }
        for (size_t word = i + 1; word < words.size(); ++word) {
            launch_.parameters += (launch_.parameters.empty() ? "" : " ") + words[word];
        }
        words.resize(std::min(words.size(), i + 1));
    }

private:
    using Subcommand = CLI::App;

    Subcommand& add(const char* name, const char* what, std::function<Exit()> run) {
        Subcommand* const command = app_.add_subcommand(name, what);
        command->callback([this, run = std::move(run)] { chosen_ = run; });
        return *command;
    }
    void addCommonOptions(CLI::App& app) {
        app.add_flag("--json", output_.json, "Print one JSON document, also when it fails");
        app.add_flag("-q,--quiet", output_.quiet, "Print nothing but problems");
        app.add_flag("!--no-legend", output_.legend, "Leave out headings and sums");
    }
    // An option behind one that wants a value is not that value.
    static std::string isNoOption(const std::string& value) {
        return value.size() > 1 && value[0] == '-'
                   ? "\"" + value + "\" is an option; write ./" + value + " for a file of that name"
                   : "";
    }

    // The word of the command, or the number of words when there is none.
    static size_t commandIn(const std::vector<std::string>& words) {
        const auto isWord = [](const std::string& word) { return word.empty() || word[0] != '-'; };
        return static_cast<size_t>(std::find_if(words.begin(), words.end(), isWord) -
                                   words.begin());
    }

    void requireCommand(const std::vector<std::string>& words) const {
        const size_t at = commandIn(words);
        if (at == words.size()) {
            return; // --help, --version, or nothing: the parser's own
        }
        std::string nearest;
        size_t least = words[at].size() / 2 + 1; // farther ones are no slips
        for (const CLI::App* command : app_.get_subcommands(nullptr)) {
            const size_t far = distance(words[at], command->get_name());
            if (far == 0) {
                return;
            }
            if (far < least) {
                least = far;
                nearest = command->get_name();
            }
        }
        throw Failure(kUsage, "there is no command \"" + words[at] + "\"" +
                                  (nearest.empty() ? ";" : "; did you mean " + nearest + "?") +
                                  " convey --help lists them");
    }

    // How many letters must be put in, left out or changed.
    static size_t distance(const std::string& from, const std::string& to) {
        std::vector<size_t> row(to.size() + 1);
        std::iota(row.begin(), row.end(), size_t{0});
        for (size_t i = 0; i < from.size(); ++i) {
            size_t corner = std::exchange(row[0], i + 1);
            for (size_t j = 0; j < to.size(); ++j) {
                const size_t changed = corner + (from[i] == to[j] ? 0 : 1);
                corner = row[j + 1];
                row[j + 1] = std::min({changed, row[j] + 1, corner + 1});
            }
        }
        return row.back();
    }

    static void addSpecifier(Subcommand& command, std::string& specifier, const char* what) {
        command.add_option("SPECIFIER", specifier, what)->required();
    }

    void addRegistryCommands() {
        auto& listing = add("list", "Show the registered applications",
                            [this] { return list(output_, list_); });
        listing.add_flag("--running", list_.running, "Only those that run");
        listing.add_flag("--names", list_.names, "Nothing but their specifiers");

        auto& resolving = add("resolve", "Show what an incomplete specifier becomes, and why",
                              [this] { return resolve(output_, specifier_); });
        addSpecifier(resolving, specifier_, "For example lumen");

        auto& launching = add("launch",
                              "Launch an application that does not run; what stands behind the "
                              "specifier are its parameters, word by word",
                              [this] { return launch(output_, launch_); });
        addSpecifier(launching, launch_.specifier, "The application");
        launching.add_flag("--behind", launch_.behind, "Do not bring it to the front");
        launching
            .add_option("--wait", launch_.waitSeconds, "Seconds for it to take its parameters")
            ->capture_default_str();

        auto& raising = add("front", "Bring an application to the front",
                            [this] { return front(output_, specifier_); });
        addSpecifier(raising, specifier_, "The application");

        auto& waiting = add("wait", "Wait until an application runs, or has gone", [this] {
            wait_.untilRunning = until_ == "running";
            return wait(output_, wait_);
        });
        addSpecifier(waiting, wait_.specifier, "The application");
        waiting.add_option("--until", until_, "What to wait for")
            ->check(CLI::IsMember({"running", "gone"}))
            ->capture_default_str();
        waiting.add_option("--timeout", wait_.timeoutSeconds, "Seconds")
            ->check(CLI::Range(0.0, 1e6))
            ->capture_default_str();
    }

    void addMessageCommands() {
        auto& asking = add("ping", "Ask whether an application runs, and how fast it answers",
                           [this] { return ping(output_, ping_); });
        addSpecifier(asking, ping_.specifier, "The application, or allRunningApps");
        asking.add_option("--key", ping_.key, "The key to ask for, for example STATUS or INFO")
            ->check(isNoOption);
        asking.add_option("--timeout", ping_.timeoutSeconds, "Seconds for an answer")
            ->check(CLI::Range(1, 3600))
            ->capture_default_str();
        asking.add_option("--count", ping_.count, "How often")
            ->check(CLI::Range(1, 1'000'000'000))
            ->capture_default_str();
        asking.add_option("--interval", ping_.intervalSeconds, "Seconds between two")
            ->check(CLI::Range(0.0, 3600.0))
            ->capture_default_str();

        auto& sending = add("send", "Send one message and show what comes back",
                            [this] { return send(output_, send_); });
        addSpecifier(sending, send_.specifier, "The target");
        sending.add_option("--type", send_.type, "Its type")->capture_default_str();
        sending.add_option("--header", send_.headers, "NAME=VALUE, as often as wanted")
            ->allow_extra_args(false);
        sending.add_option_function<std::string>(
            "--body",
            [this](const std::string& body) {
                send_.body = body;
                send_.hasBody = true;
            },
            "Its text; - reads standard input");
        sending.add_option("--wait", send_.waitSeconds, "Seconds for replies; 0 asks for none")
            ->check(CLI::Range(0, 86400))
            ->capture_default_str();
        sending.add_flag("--launch", send_.launch, "Launch the target when it does not run");

        auto& watching = add("monitor", "Show the messages that applications handle, as they come",
                             [this] { return monitor(output_, monitor_); });
        watching.add_option("SPECIFIER", monitor_.specifiers, "The applications");
        watching.add_flag("--all", monitor_.all, "All that run, and those that start later");
        watching.add_flag("--errors", monitor_.errors, "What fails");
        watching.add_flag("--logs", monitor_.logs, "Each step of each message");
        watching
            .add_option("--match", monitor_.match,
                        "type=,from=,to=,header=NAME[=VALUE],body=: patterns that all must hold")
            ->allow_extra_args(false)
            ->check(isNoOption);
        watching.add_flag("--headers", monitor_.headers, "With their headers");
        watching.add_flag("--bodies", monitor_.bodies, "With their whole bodies");
        watching.add_option("--count", monitor_.count, "End after so many");
        watching.add_option("--timeout", monitor_.timeoutSeconds, "End after so many seconds");
        watching.add_option("--capture", monitor_.captureFile, "Record them, for convey report")
            ->check(isNoOption);
        auto& reporting = add("report", "Draw a captured conversation as a page, and its times",
                              [this] { return report(output_, report_); });
        reporting.add_option("FILE", report_.file, "What monitor --capture has written")
            ->required();
        reporting.add_option("--html", report_.htmlFile, "The page; else FILE.html")
            ->check(isNoOption);
        addKeys();
    }

    void addKeys() {
        auto& listing = add("keys", "Show an application's ping keys and the types it handles",
                            [this] { return keys(output_, key_); });
        addSpecifier(listing, key_.specifier, "The application");
        auto& one =
            add("key", "Read, set or follow one ping key", [this] { return key(output_, key_); });
        addSpecifier(one, key_.specifier, "The application");
        one.add_option("NAME", key_.name, "The key")->required();
        one.add_option_function<std::string>(
            "VALUE",
            [this](const std::string& value) {
                key_.value = value;
                key_.hasValue = true;
            },
            "Its new value");
        one.add_flag("--watch", key_.watch, "Again and again, whenever it changes");
        one.add_option("--interval", key_.intervalSeconds, "Seconds between two looks")
            ->check(CLI::Range(0.01, 3600.0))
            ->capture_default_str();
        for (Subcommand* command : {&listing, &one}) {
            command->add_option("--timeout", key_.timeoutSeconds, "Seconds for an answer")
                ->check(CLI::Range(1, 3600))
                ->capture_default_str();
        }
    }

    void addDiagnosis() {
        auto& diagnosing = add("diagnose", "Show the whole state of an application's messaging",
                               [this] { return diagnose(output_, diagnose_); });
        diagnosing.add_option("SPECIFIER", diagnose_.specifier, "The application; none: this tool");
        diagnosing.add_flag("--raw", diagnose_.raw, "The rows as they are");
        diagnosing.add_option("--path", diagnose_.path, "Show the rows below this path only")
            ->type_name("PREFIX");
        diagnosing.add_flag("--whole", diagnose_.whole, "Long texts, too, are shown to their end");
        diagnosing.add_flag("--watch", diagnose_.watch, "Again and again, until Ctrl-C");
        diagnosing.add_option("--html", diagnose_.htmlFile, "Write a page that folds and searches")
            ->check(isNoOption);
        diagnosing.add_option("--timeout", diagnose_.timeoutSeconds, "Seconds for an answer")
            ->check(CLI::Range(1, 3600))
            ->capture_default_str();

        auto& examining =
            add("doctor", "Look at all that runs and at the installation, and say what to do",
                [this] { return doctor(output_, doctor_); });
        examining.add_option("SPECIFIER", doctor_.specifiers, "The applications; none: all");
        examining.add_option("--timeout", doctor_.timeoutSeconds, "Seconds for the answers")
            ->check(CLI::Range(1, 3600))
            ->capture_default_str();

        auto& live = add("top", "Show the applications that run, live; q or Ctrl-C ends it",
                         [this] { return top(output_, top_); });
        live.add_option("--interval", top_.intervalSeconds, "Seconds between two looks")
            ->check(CLI::Range(0.1, 3600.0))
            ->capture_default_str();
        live.add_option("--sort", top_.sortBy, "By what")
            ->check(CLI::IsMember(topKeys()))
            ->capture_default_str();

        auto& listing =
            add("ports", "Show this user's ports", [this] { return ports(output_, ports_); });
        listing.add_flag("--clean", ports_.clean, "Remove what dead processes have left");

        add("limits", "Show every bound of the system, and why it is what it is",
            [this] { return limits(output_); });
    }

    Output& output_;
    CLI::App app_{"Shows and uses the messaging between applications.", "convey"};
    std::function<Exit()> chosen_;
    std::string specifier_;
    std::string until_ = "running";
    ListOptions list_;
    PingOptions ping_;
    SendOptions send_;
    LaunchOptions launch_;
    WaitOptions wait_;
    DiagnoseOptions diagnose_;
    DoctorOptions doctor_;
    MonitorOptions monitor_;
    ReportOptions report_;
    TopOptions top_;
    KeyOptions key_;
    PortsOptions ports_;
};

} // namespace
} // namespace convey_tool

int conveyToolMain(int argc, char** argv) {
    using namespace convey_tool;
    std::ostream results(std::cout.rdbuf());
    static Output output = standardOutput(results, std::cerr); // until the end of the process
    CommandLine commandLine(output);
    // An error of the command line is told in JSON as well, wherever the option stands.
    std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    commandLine.takeLaunchParameters(words);
    output.json = std::find(words.begin(), words.end(), "--json") != words.end();
    Ending::listen(output.json);
    const auto fail = [](Exit status, const std::string& text, Json document) {
        if (output.json) {
            document["error"] = text;
            document["status"] = static_cast<int>(status);
            output.print(document);
        } else if (!text.empty()) {
            output.err << "convey: " << output.show(text) << std::endl;
        }
        return status;
    };
    int status = kNoLayer;
    try {
        status = commandLine.run(words);
    } catch (const CLI::Success& wish) { // help and version are no errors
        status = commandLine.app().exit(wish, results, std::cerr);
    } catch (const CLI::ParseError& error) {
        status = fail(kUsage, std::string(error.what()) + "; convey --help explains", {});
    } catch (const Failure& failure) {
        status = fail(failure.status, failure.what(), failure.details);
    } catch (const std::exception& error) {
        status = fail(kNoLayer, error.what(), {});
    }
    results.flush();
    return status;
}
