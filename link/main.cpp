// convey-link: joins this user's Convey to that of other machines, over NATS.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <unistd.h>

#include "link/Bounds.h"
#include "link/Configuration.h"
#include "link/Frame.h"
#include "link/Link.h"
#include "link/Registrations.h"
#include "link/Wire.h"
#include "platform/Clock.h"
#include "platform/LargeHeap.h"
#include "platform/MessagePort.h"
#include "platform/Random.h"
#include "platform/StandardStreams.h"
#include "scriptobjects/convey/SoCVLaunchParameters.h"
#include "scriptobjects/convey/SoConvey.h"
#include "scriptobjects/stream/BaseInterAppStream.h"

namespace {

using namespace convey_link;
using platform::monotonicNow;
using ScObjects::Convey;
using ScObjects::SoString;

constexpr const char* kProgram = "convey-link";
constexpr const char* kOwnSpecifier = "conveylink-2.0";
constexpr const char* kOwnThread = "conveylink-2.0#thread";
constexpr const char* kAskersSpecifier = "conveylinkstatus-2.0";
constexpr const char* kStatusKey = "LINK";
constexpr int32_t kStatusSeconds = 3;
// Without anything to do, after which what large texts have left of the heap is given back.
constexpr int64_t kIdleMilliseconds = 500;
constexpr int64_t kStubMilliseconds = 3000;
constexpr int64_t kStubLookMilliseconds = 20;

enum Exit {
    kDone = 0,
    kNo = 1,
    kUsage = 2,
    kBadFile = 3,
    kNameTaken = 4,
    kRefused = 5,
    kInUse = 6
};

void say(const std::string& line) {
    // One write a line, so that those of several threads do not mix.
    std::string whole = kProgram;
    whole.append(": ").append(line).append("\n");
    (void)std::fwrite(whole.data(), 1, whole.size(), stderr);
}

bool isOwned(const std::string& name) {
    int error = 0;
    return platform::MessagePorts::system().look(
               ScObjects::BaseInterAppStream::kPortNamePrefix + name, error) ==
           platform::PortState::owned;
}

// A folder that the environment names; empty for none.
std::string folderIn(const char* variable) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing here changes the environment
    const char* const set = std::getenv(variable);
    return set != nullptr && *set == '/' ? set : "";
}

// Where the paths of used applications lie: of this user alone, and gone with the session.
std::string placesFolder() {
    const std::string set = folderIn("XDG_RUNTIME_DIR");
    const std::string users = "/run/user/" + std::to_string(getuid());
    return !set.empty()                           ? set + "/convey-link"
           : std::filesystem::is_directory(users) ? users + "/convey-link"
                                                  : "/tmp/convey-link-" + std::to_string(getuid());
}

// What must outlive the session and the link.
std::string journalFolder(const Configuration& configuration) {
    const std::string state = folderIn("XDG_STATE_HOME");
    return (state.empty() ? folderIn("HOME") + "/.local/state" : state) + "/convey-link/" +
           streamOf(configuration.realm, configuration.name);
}

// Says on standard error what is wrong with a file.
bool isRead(const std::string& file, Configuration& configuration) {
    std::vector<std::string> faults;
    const bool good = readConfiguration(file, configuration, faults);
    for (const std::string& fault : faults) {
        std::string line = file;
        say(line.append(": ").append(fault));
    }
    return good;
}

int check(const std::string& file) {
    Configuration configuration;
    std::vector<std::string> faults;
    const bool good = readConfiguration(file, configuration, faults);
    for (const std::string& fault : faults) {
        std::cout << file << ": " << fault << '\n';
    }
    if (!good) {
        return kNo;
    }
    std::cout << "joins realm " << configuration.realm << " as " << configuration.name << '\n';
    for (const std::string& server : configuration.servers) {
        std::cout << "server " << server << (configuration.tls ? ", encrypted" : "") << '\n';
    }
    if (!configuration.certificate.empty()) {
        std::cout << "shows the certificate " << configuration.certificate << '\n';
    }
    for (const Offer& offer : configuration.offers) {
        for (const std::string& to : offer.to) {
            std::cout << "offers " << offer.app << " to " << to
                      << (offer.launch ? ", which may launch it" : "") << '\n';
        }
    }
    for (const Use& use : configuration.uses) {
        std::cout << "uses " << use.app << " at " << use.at
                  << (use.durable ? ", and requests wait on the servers' disks" : "") << '\n';
    }
    return kDone;
}

int status(bool asJson) {
    (void)Convey::InitTerm::init(kAskersSpecifier, true); // fails only when it has been started
    const std::string answer(
        Convey::Thread::ping(kOwnSpecifier, kStatusKey, kStatusSeconds, nullptr).view());
    Convey::InitTerm::exit();
    const auto json = nlohmann::json::parse(answer, nullptr, false);
    if (!json.is_object()) {
        std::cerr << kProgram << ": no link of this user "
                  << (answer == "Timeout" ? "answers" : "runs") << '\n';
        return kNo;
    }
    if (asJson) {
        std::cout << json.dump(2) << '\n';
        return kDone;
    }
    std::cout << json.value("realm", "") << '/' << json.value("name", "")
              << (json.value("connected", false) ? " at " + json.value("server", "")
                                                 : std::string(" is not connected"))
              << '\n';
    for (const auto& link : json["links"]) {
        std::cout << "link " << link.value("name", "") << ' ' << link.value("state", "") << '\n';
    }
    for (const auto& use : json["uses"]) {
        std::cout << "use " << use.value("app", "") << " at " << use.value("at", "") << ' '
                  << use.value("state", "") << '\n';
    }
    for (const auto& offer : json["offers"]) {
        std::cout << "offer " << offer.value("app", "") << " to";
        for (const auto& to : offer["to"]) {
            std::cout << ' ' << to.get<std::string>();
        }
        std::cout << (offer.value("launch", false) ? ", may be launched" : "") << '\n';
    }
    return kDone;
}

// Started in the place of a used application: the link has it launched over there, with the
// parameters that come to its port here.
//
// To its launcher this process is the application: what is left for it under its number must be
// taken, and as long as nobody has the application's own port it counts as running by this process
// alone, which must not end before.
int launchInItsPlace(const std::string& app) {
    platform::MessagePorts& ports = platform::MessagePorts::system();
    const std::string prefix = ScObjects::BaseInterAppStream::kPortNamePrefix;
    const Convey::Specifier specifier(app.c_str(), false);
    Convey::Specifier pending(specifier);
    (void)pending.setSuffix(ScObjects::ConveyUtils::kPendingSuffix); // else nobody has that port
    const std::string pendingName(pending.view());
    const bool isLeftSomething = isOwned(pendingName);
    const auto own = ports.open(prefix + std::string(specifier.appName().view()) + "#" +
                                std::to_string(getpid()));
    Text message;
    message.set(kTarget, Link::kControlPort);
    message.set(kSender, app);
    message.set(kType, app);
    message.set(kParametersLine, isLeftSomething ? "1" : "0");
    if (ports.send(prefix + Link::kControlPort, message.write(), kStubMilliseconds) !=
        platform::SendResult::delivered) {
        say(app + " cannot be launched: no link runs");
        return kNo;
    }
    bool isTaken = own == nullptr || !isLeftSomething;
    const int64_t end = monotonicNow() + bounds::kLaunchMilliseconds;
    while (monotonicNow() < end && (!isTaken || !isOwned(app))) {
        platform::PortText taken;
        if (isTaken) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kStubLookMilliseconds));
        } else {
            isTaken =
                own->wait(kStubLookMilliseconds, false) ? own->take(taken) : !isOwned(pendingName);
        }
    }
    return kDone;
}

int store(const std::string& file, const std::string& from, const std::vector<std::string>& to) {
    Configuration configuration;
    if (!isRead(file, configuration)) {
        return kBadFile;
    }
    std::vector<std::string> all = to;
    all.push_back(from);
    if (!std::all_of(all.begin(), all.end(), isName)) {
        say("names of links are letters, digits, _ and -");
        return kUsage;
    }
    std::string error;
    if (!makeStream(configuration, from, to, error)) {
        say("the servers make no stream: " + error);
        return kRefused;
    }
    std::cout << "requests from " << from << " wait in " << streamOf(configuration.realm, from)
              << '\n';
    return kDone;
}

// Answers the question of `convey-link status`, from the layer's thread.
class StatusHandler : public Convey::MsgHandler {
public:
    void set(const std::string& text) {
        const std::lock_guard<std::mutex> guard(mutex_);
        text_.assign(text);
    }
    int32_t handleMessage(int, Convey::Message& message, SoString* result) override {
        const std::lock_guard<std::mutex> guard(mutex_);
        message.setBody(text_);
        if (result != nullptr) {
            *result = "SEE BODY";
        }
        return 0;
    }

private:
    std::mutex mutex_;
    SoString text_;
};

int run(const std::string& file) {
    platform::keepFreedHeap();
    Configuration configuration;
    if (!isRead(file, configuration)) {
        return kBadFile;
    }
    if (isOwned(kOwnThread)) {
        say("another link of this user runs");
        return kInUse;
    }
    // Before any thread is made, so that all have them blocked.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    (void)std::signal(SIGPIPE, SIG_IGN);
    if (!Convey::InitTerm::init(kOwnSpecifier, true)) {
        say("the layer cannot be started");
        return kInUse;
    }
    auto* const handler = new StatusHandler; // the layer's
    Convey::Thread::setPingHandler(kStatusKey, handler);
    platform::MessagePorts& ports = platform::MessagePorts::system();
    const std::shared_ptr<platform::PortWait> wait = ports.newWait();
    uint64_t life = 0;
    if (wait == nullptr || !platform::Random::system().fill(&life, sizeof life)) {
        say("the system gives no means to wait for ports");
        return kInUse;
    }
    std::atomic<bool> stop{false};
    std::thread([&stop, wait, signals] {
        int number = 0;
        while (sigwait(&signals, &number) != 0) {
        }
        stop = true;
        wait->wake();
    }).detach();
    int result = kDone;
    {
        std::string error;
        const std::shared_ptr<Wire> wire =
            connectToNats(configuration,
                          {[wait] { wait->wake(); },
                           [wait](int descriptor, bool on) {
                               if (!wait->watch(descriptor, on) && on) {
                                   say("the system watches no more descriptors");
                               }
                           }},
                          error);
        if (wire == nullptr) {
            say("cannot connect: " + error);
            return kRefused;
        }
        std::error_code ignored;
        DatabaseRegistrations registrations(
            placesFolder(), std::filesystem::read_symlink("/proc/self/exe", ignored).string());
        Convey main(kOwnSpecifier, nullptr, true, nullptr); // launches need one
        const auto launch = [](const std::string& app, const std::string& parameters) {
            const bool done =
                Convey::launchTarget(app.c_str(), parameters.c_str(), 0, nullptr) == 1;
            if (!done) {
                say(app + " cannot be launched");
            }
            return done;
        };
        Link link(configuration, life | 1,
                  {*wire, ports, *wait, registrations, launch, say, monotonicNow,
                   journalFolder(configuration)});
        bool ofPorts = true;
        int64_t toldAt = 0;
        while (!stop && link.state() == Link::State::goesOn) {
            const int64_t due = link.step(ofPorts);
            if (link.statusChanged() || toldAt + 1000 <= monotonicNow()) {
                handler->set(link.status());
                toldAt = monotonicNow();
            }
            Convey::pump(ScObjects::kProcessBoth); // the layer's own: launches
            const int64_t waitsAt = monotonicNow();
            ofPorts = wait->wait(due) && wait->wasOfPorts();
            if (monotonicNow() - waitsAt >= kIdleMilliseconds) {
                platform::giveBackFreedHeap();
            }
        }
        if (link.state() == Link::State::nameTaken) {
            say("name \"" + configuration.name + "\" is used twice in realm \"" +
                configuration.realm + "\"");
        }
        result = link.state() == Link::State::nameTaken ? kNameTaken
                 : link.state() == Link::State::refused ? kRefused
                                                        : kDone;
    }
    Convey::InitTerm::exit();
    // The thread that waits for signals is left; nothing that it uses goes.
    std::_Exit(result);
}

int start(int argc, char** argv) {
    if (argc > 2 && std::string(argv[1]) == DatabaseRegistrations::kInPlace) {
        return launchInItsPlace(argv[2]);
    }
    CLI::App app("Joins this user's Convey to that of other machines, over NATS.", kProgram);
    app.set_version_flag("--version", std::string(kProgram) + " " + Convey::kVersion);
    std::string file;
    std::string checked;
    bool asJson = false;
    app.add_option("FILE", file, "what to join, to offer and to use (man convey-link.toml)");
    app.add_option("--check", checked, "say what FILE does, or what is wrong with it")
        ->type_name("FILE");
    CLI::App* const asks = app.add_subcommand("status", "say who is there");
    asks->add_flag("--json", asJson, "as JSON");
    std::string from;
    std::vector<std::string> to;
    CLI::App* const stores =
        app.add_subcommand("store", "have the servers keep the requests of a link for others");
    stores->add_option("FILE", file, "whom to reach, and as whom")->required();
    stores->add_option("FROM", from, "the link whose uses are durable")->required();
    stores->add_option("TO", to, "the links at which they are")->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    if (asks->parsed()) {
        return status(asJson);
    }
    if (stores->parsed()) {
        return store(file, from, to);
    }
    if (!checked.empty()) {
        return check(checked);
    }
    if (file.empty()) {
        std::cerr << app.help();
        return kUsage;
    }
    return run(file);
}

} // namespace

int main(int argc, char** argv) {
    return platform::StandardStreams::run(kProgram, kInUse, kBadFile,
                                          [&] { return start(argc, argv); });
}
