#include "scriptobjects/convey/SoCVResolution.h"

#include <mutex>

#include "platform/fake/Fakes.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "tests/support/TableConnector.h"

namespace {

using ScObjects::Convey;

// Counts how often the port of each background thread but the caller's own is looked for.
class CountingPorts : public platform::FakeMessagePorts {
public:
    platform::PortState look(const std::string& name, int& error) override {
        const std::string end = "#thread";
        const size_t begin = name.rfind("app");
        if (begin != std::string::npos && name.ends_with(end)) {
            const std::lock_guard<std::mutex> guard(mutex_);
            ++looks_[name.substr(begin, name.size() - begin - end.size())];
        }
        return FakeMessagePorts::look(name, error);
    }
    std::map<std::string, int> takeLooks() {
        const std::lock_guard<std::mutex> guard(mutex_);
        return std::exchange(looks_, {});
    }

private:
    std::mutex mutex_;
    std::map<std::string, int> looks_;
};

// Whatever an operation needs the answer for (completing, choosing by the caller's group, asking,
// launching), each application is looked for once. A second look also costs the target a message.
TEST(Resolution, looksForEachApplicationOnce) {
    platform::InForce<platform::MessagePorts, CountingPorts> ports;
    const StartedLayer layer(
        "own-1.0", {"own-1.0", "app-1.0", "app-2.0", "appbare", "appold-3.0", "appold-3.5"},
        {"g/1.0/appold-3.*"});
    ASSERT_TRUE(layer.started);
    const Convey instance("own-1.0", nullptr, true, nullptr);
    const auto ping = [](const char* target) {
        return std::string(Convey::Thread::ping(target, nullptr, 0, nullptr).c_str());
    };
    const auto isRunning = [](const char* target) {
        return std::string(Convey::targetIsRunning(target) ? "runs" : "does not");
    };
    const auto launch = [](const char* target) {
        return std::to_string(Convey::launchTarget(target, "", 0, nullptr));
    };
    const auto send = [](const char* target) {
        Convey::Message message;
        message.setTarget(target);
        message.setBody("x");
        return std::string(Convey::get()->send(message, true, 0, nullptr) ? "sent" : "not sent");
    };
    using Looks = std::map<std::string, int>;
    const struct {
        const char* runs; // null for none
        std::string (*operation)(const char*);
        const char* target;
        const char* result;
        Looks looks;
    } cases[] = {
        {nullptr, ping, "app", "ISNOTRUNNING", {{"app-1.0", 1}, {"app-2.0", 1}}},
        {nullptr, ping, "appbare", "ISNOTRUNNING", {{"appbare", 1}}},
        {nullptr, ping, "app-1.0", "ISNOTRUNNING", {{"app-1.0", 1}}},
        {nullptr, ping, "app-9.0", "ISNOTINSTALLED", {{"app-9.0", 1}}},
        {"app-2.0", ping, "app", "NOERROR", {{"app-1.0", 1}, {"app-2.0", 1}}},
        {"app-1.0", ping, "app", "NOERROR", {{"app-1.0", 1}}},
        {"appold-3.0", ping, "appold", "NOERROR", {{"appold-3.0", 1}}},
        {nullptr, ping, "appold", "ISNOTRUNNING", {{"appold-3.0", 1}, {"appold-3.5", 1}}},
        {nullptr, isRunning, "app", "does not", {{"app-1.0", 1}, {"app-2.0", 1}}},
        {"app-2.0", isRunning, "app", "runs", {{"app-1.0", 1}, {"app-2.0", 1}}},
        {nullptr, launch, "app", "0", {{"app-1.0", 1}, {"app-2.0", 1}}},
        {"app-1.0", launch, "app", "1", {{"app-1.0", 1}}},
        {nullptr, launch, "app-2.0#queue", "0", {{"app-2.0", 1}}},
        {nullptr, send, "app-2.0", "not sent", {{"app-2.0", 1}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.target) + " while there runs " + (c.runs ? c.runs : "nothing") +
                     ", row " + std::to_string(&c - cases));
        const auto thread =
            c.runs == nullptr
                ? nullptr
                : ports.open("\\\\.\\port\\Nord_and_Sud_" + std::string(c.runs) + "#thread");
        (void)ports.takeLooks();
        EXPECT_EQ(c.operation(c.target), c.result);
        EXPECT_EQ(ports.takeLooks(), c.looks);
    }
}

} // namespace
