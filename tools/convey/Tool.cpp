#include "tools/convey/Tool.h"

#include <CLI/CLI.hpp>
#include <functional>
#include <iostream>

#include "scriptobjects/convey/SoConvey.h"
#include "tools/convey/Commands.h"

namespace convey_tool {
namespace {

constexpr const char* kFooter =
    "Exit status: 0 done, or the answer is yes; 1 the answer is no (not running, not installed, "
    "an\n"
    "error, no answer in time), or standard output did not take all of it; 2 the command line is\n"
    "not understood; 3 the messaging layer, the database or a file cannot be used. Results go to\n"
    "standard output, problems to standard error.";

// The commands with their options. `chosen` is set to the one that the command line names.
class CommandLine {
public:
    explicit CommandLine(Output& output) : output_(output) {
        app_.require_subcommand(1);
        app_.footer(kFooter);
        app_.set_version_flag("--version",
                              std::string("convey ") + ScObjects::Convey::kVersion + ".0");
        app_.fallthrough();
        app_.add_flag("--json", output_.json, "Print JSON");
        addRegistryCommands();
        addMessageCommands();
        addDiagnosis();
    }

    CLI::App& app() { return app_; }
    const std::function<Exit()>& chosen() const { return chosen_; }

private:
    using Subcommand = CLI::App;

    Subcommand& add(const char* name, const char* what, std::function<Exit()> run) {
        Subcommand* const command = app_.add_subcommand(name, what);
        command->callback([this, run = std::move(run)] { chosen_ = run; });
        return *command;
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

        auto& launching = add(
            "launch", "Launch an application that does not run; further words are its parameters",
            nullptr);
        launching.callback([this, &launching] {
            for (const std::string& word : launching.remaining()) {
                launch_.parameters += (launch_.parameters.empty() ? "" : " ") + word;
            }
            chosen_ = [this] { return launch(output_, launch_); };
        });
        // Parameters look like options, and are the target's.
        launching.fallthrough(false)->allow_extras();
        launching.add_flag("--json", output_.json, "Print JSON");
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
        asking.add_option("--key", ping_.key, "The key to ask for, for example STATUS or INFO");
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
        sending.add_option("--body", send_.body, "Its text; - reads standard input");
        sending.add_option("--wait", send_.waitSeconds, "Seconds for replies; 0 asks for none")
            ->check(CLI::Range(0, 86400))
            ->capture_default_str();
        sending.add_flag("--launch", send_.launch, "Launch the target when it does not run");

        auto& watching =
            add("monitor", "Show the messages that an application handles, as they come",
                [this] { return monitor(output_, monitor_); });
        addSpecifier(watching, monitor_.specifier, "The application");
        watching.add_flag("--errors", monitor_.errors, "What fails");
        watching.add_flag("--logs", monitor_.logs, "Each step of each message");
    }

    void addDiagnosis() {
        auto& diagnosing = add("diagnose", "Show the whole state of an application's messaging",
                               [this] { return diagnose(output_, diagnose_); });
        diagnosing.add_option("SPECIFIER", diagnose_.specifier, "The application; none: this tool");
        diagnosing.add_flag("--raw", diagnose_.raw, "The rows as they are");
        diagnosing.add_flag("--watch", diagnose_.watch, "Again and again, until Ctrl-C");
        diagnosing.add_option("--html", diagnose_.htmlFile, "Write a page that folds and searches");
        diagnosing.add_option("--timeout", diagnose_.timeoutSeconds, "Seconds for an answer")
            ->check(CLI::Range(1, 3600))
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
    MonitorOptions monitor_;
    PortsOptions ports_;
};

} // namespace
} // namespace convey_tool

int conveyToolMain(int argc, char** argv) {
    using namespace convey_tool;
    Output output = standardOutput(std::cout, std::cerr);
    CommandLine commandLine(output);
    try {
        commandLine.app().parse(argc, argv);
        return commandLine.chosen()();
    } catch (const CLI::ParseError& error) {
        const int status = commandLine.app().exit(error, std::cout, std::cerr);
        return status == 0 ? kDone : kUsage;
    } catch (const Failure& failure) {
        std::cerr << "convey: " << output.show(failure.what()) << std::endl;
        return failure.status;
    } catch (const std::exception& error) {
        std::cerr << "convey: " << output.show(error.what()) << std::endl;
        return kNoLayer;
    }
}
