
#include "scriptobjects/convey/SoCVLauncher.h"
#include "platform/fake/Fakes.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVLaunchParameters.h"
#include "tests/support/Peers.h"
#include "tests/support/TableConnector.h"

namespace {

using ScObjects::ConveyUtils::Launcher;
using testing::ElementsAre;

constexpr const char* kPath = "/apps/other-2.0.app";
constexpr const char* kPending = "other-2.0#haslaunchparams";

// The layer with processes, files and a desktop that are the test's. They outlive it, because its
// background thread may be in them to the end.
class LauncherTest : public testing::Test {
protected:
    struct Fakes {
        platform::InForce<platform::Processes, platform::FakeProcesses> processes;
        platform::InForce<platform::Desktop, platform::FakeDesktop> desktop;
        platform::InForce<platform::Files, platform::FakeFiles> files;
    };

    LauncherTest() : own("own-1.0", nullptr, true, nullptr) {
        fakes.files.files[kPath] = "";
        EXPECT_TRUE(layer.started);
    }
    static bool launch(const char* path, const SoString* parameters,
                       Launcher::Focus focus = Launcher::kInFront, uint32_t* pid = nullptr,
                       const char* specifier = "other-2.0") {
        return Launcher::launch(specifier, path, parameters, focus, pid);
    }
    // What waits for its target: target, type and body of each message.
    Strings waiting() {
        Strings messages;
        own.data()->outgoing().forEach([&](const Message& message) {
            messages.push_back(std::string(message.getTarget().c_str()) + " " +
                               message.getType().c_str() + " " + message.getBody().c_str());
            EXPECT_EQ(message.getSender(), "own-1.0");
        });
        return messages;
    }
    static bool isPending() { return !InterAppStream::get()->canOpen(kPending, false); }

    Fakes fakes;
    StartedLayer layer{"own-1.0", {"own-1.0", "other-2.0"}};
    Convey own;
};

TEST_F(LauncherTest, queuesTheParametersThreeWays) {
    const SoString parameters("-a 1 `rm -rf /` $HOME");
    EXPECT_TRUE(launch(kPath, &parameters));
    EXPECT_THAT(waiting(), ElementsAre("other-2.0 LaunchParams -a 1 `rm -rf /` $HOME",
                                       "other-2.0 Tessaly // LAUNCHPARAMS:own-1.0\n"
                                       "// -a 1 `rm -rf /` $HOME\n",
                                       "other#5000 LaunchParams -a 1 `rm -rf /` $HOME"));
    EXPECT_TRUE(isPending());
    EXPECT_TRUE(Launcher::isProcessRunning(5000));
    fakes.processes.running.clear();
    EXPECT_FALSE(Launcher::isProcessRunning(5000));
    EXPECT_FALSE(Launcher::isProcessRunning(0));
    fakes.processes.cannotStart = true;
    EXPECT_FALSE(launch(kPath, &parameters, Launcher::kInFront, nullptr, "third-1.0"));
    EXPECT_TRUE(InterAppStream::get()->canOpen("third-1.0#haslaunchparams", false))
        << "a launch that has failed keeps nobody waiting";
    EXPECT_EQ(waiting().size(), 5U) << "messages stay until their time is up";
}

TEST_F(LauncherTest, theAcknowledgementEndsThePending) {
    const SoString parameters("-a");
    EXPECT_TRUE(launch(kPath, &parameters));
    EXPECT_TRUE(isPending());
    Convey target("other-2.0", nullptr, false, nullptr); // the script reaches it by its port
    pumpUntil([] { return !isPending(); });
    EXPECT_FALSE(isPending());
}

TEST_F(LauncherTest, theTimeOutEndsThePending) {
    static platform::FakeClock clock; // the background thread may be in it at the end
    const platform::ScopedReplacement<platform::Clock> inForce(clock);
    const SoString parameters("-a");
    EXPECT_TRUE(launch(kPath, &parameters));
    clock.pass(299'000);
    pumpAll();
    EXPECT_TRUE(isPending());
    clock.pass(2'000);
    pumpUntil([] { return !isPending(); });
    EXPECT_FALSE(isPending());
}

TEST_F(LauncherTest, aBundleRunsOnce) {
    fakes.processes.running[6000] = kPath;
    uint32_t pid = 0;
    EXPECT_TRUE(launch(kPath, nullptr, Launcher::kInFront, &pid));
    EXPECT_EQ(pid, 6000U);
    EXPECT_THAT(fakes.processes.started, ElementsAre());
    EXPECT_THAT(fakes.desktop.wishes, ElementsAre("front 6000"));
    EXPECT_TRUE(launch(kPath, nullptr, Launcher::kBehind, &pid));
    EXPECT_EQ(fakes.desktop.wishes.size(), 1U) << "it stays where it is";

    EXPECT_TRUE(launch(kPath, nullptr, Launcher::kInFront, &pid, "other_2-2.0"));
    EXPECT_EQ(pid, 5000U) << "an instance is another one";

    fakes.processes.running = {{fakes.processes.number, kPath}};
    EXPECT_TRUE(launch(kPath, nullptr, Launcher::kInFront, &pid));
    EXPECT_EQ(pid, 5001U) << "what runs is the caller itself";

    fakes.files.files["/apps/program"] = "";
    fakes.processes.running = {{6001, "/apps/program"}};
    EXPECT_TRUE(launch("/apps/program", nullptr, Launcher::kInFront, &pid));
    EXPECT_EQ(pid, 5002U) << "a program is no bundle";
    // Refused, or as good as in front.
    for (const char* path : {"", "/apps/gone", "HTTPS://web.example/app"}) {
        EXPECT_FALSE(launch(path, nullptr, Launcher::kInFront, &pid)) << path;
        EXPECT_EQ(pid, 0U) << path;
    }
    fakes.desktop.wishes.clear();
    EXPECT_TRUE(launch(kPath, nullptr, static_cast<Launcher::Focus>(7), &pid));
    EXPECT_THAT(fakes.desktop.wishes, ElementsAre());
    EXPECT_THAT(waiting(), ElementsAre()) << "nothing is queued without parameters";
}

TEST_F(LauncherTest, theRegistryKnowsWhatItLaunched) {
    const auto launchTarget = [&](const char* target) {
        return layer.connector->ConveyConnector::launchTarget(target, "-a", true, nullptr);
    };
    EXPECT_EQ(launchTarget("other-2.0"), 0) << "it does not lie where it is registered";
    fakes.files.files["/apps/other-2.0"] = "";
    EXPECT_FALSE(Convey::targetIsRunning("other-2.0"));
    EXPECT_EQ(launchTarget("nosuch-1.0"), 0);
    EXPECT_EQ(launchTarget("other-2.0"), 1);
    EXPECT_EQ(layer.connector->getProcessID("other-2.0"), 5000U);
    EXPECT_TRUE(Convey::targetIsRunning("other-2.0")) << "before it has opened anything";
    fakes.processes.running.clear();
    EXPECT_FALSE(Convey::targetIsRunning("other-2.0"));

    const int32_t before = Convey::getNumberOfRegisteredApplications();
    EXPECT_EQ(launchTarget("other_2-2.0"), 1);
    EXPECT_EQ(launchTarget("other_2-2.0"), 1);
    EXPECT_EQ(Convey::getNumberOfRegisteredApplications(), before + 1) << "the instance's record";
    EXPECT_EQ(layer.connector->getProcessID("other_2-2.0"), 5002U);
    EXPECT_EQ(layer.connector->getProcessID("other-2.0"), 5000U);
}

// A target whose process is not the one that was started finds its parameters at its launch queue,
// where the messages behind them must not be lost with it.
TEST(LaunchQueue, keepsTheMessagesBehindTheParameters) {
    ScObjects::ConveyConnector::set(new TableConnector({"own-1.0"}, {}));
    const auto send = [](const InterAppStream& from, const char* type, const char* body) {
        return sendFrom(from, request("own-1.0", body, "", type));
    };
    std::thread launcher([&] {
        const InterAppStream pending("own-1.0#haslaunchparams");
        const InterAppStream stream("launcher-1.0");
        // What says nothing ends the wait at the process's own queue, which takes long otherwise.
        SoString ownQueue("own#");
        ownQueue << platform::Processes::system().ownNumber();
        while (!stream.send(ownQueue, SoString())) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        while (stream.canOpen("own-1.0", false)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        EXPECT_TRUE(send(stream, "LaunchParams", "-specifier own-1.0 -late"));
        EXPECT_TRUE(send(stream, "Tessaly", "first"));
        EXPECT_TRUE(send(stream, "Tessaly", "second"));
    });
    while (InterAppStream("probe-1.0").canOpen("own-1.0#haslaunchparams", false)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(Convey::InitTerm::init("own-1.0", true));
    launcher.join();
    EXPECT_EQ(Convey::getLaunchOptions(), "-specifier own-1.0 -late");
    Strings bodies;
    {
        const Convey own("own-1.0", noting(bodies), true, nullptr);
        EXPECT_EQ(own.getAppName(), "own-1.0") << "no instance of it: the name was kept for it";
        pumpUntil([&] { return bodies.size() == 2; });
    }
    EXPECT_THAT(bodies, ElementsAre("1 Tessaly first", "1 Tessaly second"));
    EXPECT_TRUE(Convey::InitTerm::exit());
    ScObjects::ConveyConnector::InitTerm::exit();
}

} // namespace
