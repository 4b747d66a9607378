#include "tools/convey/Session.h"

#include <algorithm>
#include <chrono>
#include <csignal>

#include "platform/Processes.h"
#include "platform/StandardStreams.h"
#include "tools/convey/Output.h"

namespace convey_tool {

using ScObjects::Convey;

namespace {

constexpr int64_t kLookMilliseconds = 100; // how soon the wish to end is seen

volatile std::sig_atomic_t gEnding = 0;

} // namespace

Session::Session() {
    for (const int number : {SIGINT, SIGTERM}) {
        (void)std::signal(number, [](int) { gEnding = 1; }); // both can be handled
    }
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

bool Session::isEnding() {
    return gEnding != 0 || platform::StandardStreams::failure() != 0;
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

} // namespace convey_tool
