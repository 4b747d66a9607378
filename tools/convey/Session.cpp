#include "tools/convey/Session.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <semaphore.h>
#include <thread>
#include <unistd.h>

#include "caps/Store.h"
#include "platform/Processes.h"
#include "platform/StandardStreams.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "tools/convey/Output.h"

namespace convey_tool {

using ScObjects::Convey;

namespace {

constexpr int64_t kLookMilliseconds = 20; // how soon the wish to end is seen
// What a command has to end by itself, and then the process: together less than a person notices.
constexpr auto kGrace = std::chrono::milliseconds(50);
constexpr auto kLastGrace = std::chrono::milliseconds(30);
constexpr int kSignalStatus = 128; // and the signal's number, as shells say it

// The signal, which a handler sets and any thread reads.
std::atomic<int> gEnding{0};
static_assert(std::atomic<int>::is_always_lock_free);
sem_t gWanted;
std::atomic<bool> gFinishing{false};

} // namespace

void Ending::listen(const bool& inJson) {
    if (sem_init(&gWanted, 0, 0) != 0) {
        return; // never, for 0
    }
    std::thread([&inJson] {
        // A handler of a signal may do little more than raise a semaphore, so a thread does the
        // rest.
        while (sem_wait(&gWanted) != 0) {
        }
        std::this_thread::sleep_for(kGrace);
        if (gFinishing.exchange(true)) {
            return;
        }
        if (inJson && !Output::hasPrinted()) {
            static constexpr char kDocument[] = "{\"error\":\"interrupted\",\"status\":130}\n";
            (void)!write(STDOUT_FILENO, kDocument, sizeof kDocument - 1); // no more can be done
        }
        // Another thread may hold what the end of the process wants, such as a full standard
        // output.
        std::thread([] {
            std::this_thread::sleep_for(kLastGrace);
            _exit(kSignalStatus + gEnding);
        }).detach();
        // Gives the ports back.
        std::exit(kSignalStatus + gEnding); // NOLINT(concurrency-mt-unsafe): one thread comes here
    }).detach();
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        (void)std::signal(number, [](int signal) { // all can be handled
            gEnding = signal;
            (void)sem_post(&gWanted);
        });
    }
}

bool Ending::isInterrupted() {
    return gEnding != 0;
}

bool Ending::isAsked() {
    return isInterrupted() || platform::StandardStreams::failure() != 0;
}

void Ending::finish(int status) {
    while (gFinishing.exchange(true)) {
        std::this_thread::sleep_for(kGrace); // the other thread ends the process meanwhile
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread comes here
    std::exit(gEnding != 0 ? kSignalStatus + gEnding : status);
}

Session::Session() {
    // With its number, so that any number of them can run at once.
    const std::string name = "convey" + std::to_string(platform::Processes::system().ownNumber()) +
                             "-" + Convey::kVersion;
    if (!Convey::InitTerm::init(name.c_str(), true)) {
        throw Failure(kNoLayer, "the messaging layer does not start");
    }
    instance_ = std::make_unique<Convey>(name.c_str(), nullptr, true, nullptr);
}

Session::~Session() {
    instance_.reset();
    (void)Convey::InitTerm::exit();
}

std::string Session::name() const {
    return toStd(instance_->getAppName());
}

void Session::pumpFor(int64_t milliseconds) {
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!isEnding()) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - steady_clock::now());
        if (left.count() <= 0) {
            return;
        }
        (void)Convey::pumpOrWait(
            static_cast<uint32_t>(std::min<int64_t>(left.count(), kLookMilliseconds)));
    }
}

Convey::Specifier completed(const std::string& text) {
    Convey::Specifier specifier(text.c_str(), true);
    if (specifier.isEmpty() || specifier.appName().isEmpty()) {
        throw Failure(kUsage, "\"" + text + "\" is no specifier");
    }
    return specifier;
}

Convey::Specifier known(const std::string& text) {
    Convey::Specifier target = completed(text);
    if (!target.isInstalled() && !target.isRunning()) {
        requireRegistry();
        throw Failure(kNo, toStd(target) +
                               " is not installed; convey list shows what is, ovrel-caps add-app "
                               "registers it");
    }
    return target;
}

void requireRegistry() {
    const ScObjects::ConveyContext* const context = Convey::getSharedContext();
    const bool isKnown = Convey::isRegistryKnown();
    if (context != nullptr && context->getConnector() != nullptr) {
        if (isKnown) {
            return;
        }
        // The layer has said why: what is missing may be registered all the same.
        throw Failure(kNoLayer, "the database of installed products could not be read to its end");
    }
    const std::string path = caps::findDatabase();
    std::unique_ptr<caps::Store> store;
    std::string reason = "its library ovrel_caps.framework is not found beside the program";
    if (path.empty()) {
        reason = "there is none at " + caps::defaultDatabasePath() + "; ovrel-caps makes one";
    } else if (caps::Store::open(path, caps::Store::Access::read, store, &reason) ==
                   caps::Status::ok &&
               !isKnown) {
        reason = path + ": could not be read a moment ago";
    }
    throw Failure(kNoLayer, "there is no database of installed products: " + reason);
}

} // namespace convey_tool
