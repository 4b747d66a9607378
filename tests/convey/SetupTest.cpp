// How the layer starts and ends.
#include <cstdlib>
#include <filesystem>
#include <unistd.h>

#include "scriptobjects/convey/SoCVSetupThread.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "tests/convey/EngineFixture.h"

namespace {

using ScObjects::ConveySetupThread;

TEST(Setup, runsInTheBackgroundOnce) {
    EXPECT_TRUE(ConveySetupThread::syncWithSetupThread()) << "there is nothing to wait for";
    EXPECT_FALSE(ConveySetupThread::isSetupThreadRunning());
    ScObjects::ConveyConnector::set(new TableConnector({"own-1.0"}, {}));
    EXPECT_TRUE(Convey::InitTerm::init("own-1.0", false));
    EXPECT_FALSE(Convey::InitTerm::init("own-1.0", false));
    EXPECT_EQ(Convey::getSharedAppName(), "own-1.0") << "waits for the context";
    EXPECT_FALSE(ConveySetupThread::startSetupThread("own-1.0"));
    EXPECT_THAT(Convey::Thread::getPingValue("SETUPTIME").c_str(),
                testing::MatchesRegex("thread=[0-9]+ms, (left|lost)=[0-9]+ms"));
    EXPECT_EQ(Convey::getLaunchOptions(), "");
    EXPECT_FALSE(Convey::suppressStartupScreen());
    EXPECT_TRUE(Convey::InitTerm::exit());
    EXPECT_FALSE(Convey::InitTerm::exit());
    ScObjects::ConveyConnector::InitTerm::exit();
}

TEST(Setup, takesTheParametersThatALauncherLeft) {
    ScObjects::ConveyConnector::set(new TableConnector({"own-1.0"}, {}));
    const InterAppStream pending("own-1.0#haslaunchparams");
    const InterAppStream launcher("launcher-1.0");
    std::thread sending([&] {
        const std::string queue = "own#" + std::to_string(getpid());
        while (!sendFrom(launcher,
                         request(queue.c_str(), "-instance 2 -specifier other-1.0 -nostartupscreen",
                                 "", "LaunchParams"))) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(Convey::InitTerm::init("own-1.0", true));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3))
        << "wakes when they arrive";
    sending.join();
    EXPECT_EQ(Convey::getSharedAppName(), "own_2-1.0") << "the first option decides";
    EXPECT_TRUE(Convey::suppressStartupScreen());
    EXPECT_EQ(Convey::Thread::getPingValue("SETUPTIME").view().substr(0, 7), "thread=");
    EXPECT_TRUE(Convey::InitTerm::exit());
    ScObjects::ConveyConnector::InitTerm::exit();
}

TEST(Setup, startsWithoutPortsHomeOrSpecifier) {
    platform::InForce<platform::MessagePorts, platform::FakeMessagePorts> ports;
    ports.unusable = true;
    setenv("HOME", "/nonexistent", 1);
    platform::InForce<platform::Log, platform::FakeLog> log;
    EXPECT_FALSE(Convey::InitTerm::init("", true));
    EXPECT_EQ(Convey::getSharedContext(), nullptr);
    EXPECT_FALSE(Convey::InitTerm::exit()) << "nothing to stop";
    EXPECT_TRUE(Convey::InitTerm::init("", false)) << "is told later";
    EXPECT_EQ(Convey::getSharedContext(), nullptr);
    EXPECT_TRUE(Convey::InitTerm::exit()) << "a background setup that failed can be stopped";
    EXPECT_FALSE(Convey::InitTerm::exit());
    EXPECT_TRUE(Convey::InitTerm::init("own-1.0", true));
    EXPECT_EQ(Convey::Thread::ping("other-1.0", nullptr, 1, nullptr), "NOINTERAPPSTREAM");
    {
        const Convey instance("own-1.0", nullptr, true, nullptr);
        EXPECT_FALSE(sendFrom(instance, request("nobody-1.0", "x")));
        EXPECT_FALSE(Convey::pump(ScObjects::kProcessBoth));
    }
    EXPECT_TRUE(Convey::InitTerm::exit());
    ScObjects::ConveyConnector::InitTerm::exit();
}

// A process whose port nobody serves would keep its name from others and answer no ping.
TEST(Setup, failsWithoutItsThreadAndLeavesTheNameFree) {
    for (const bool synchronous : {true, false}) {
        SCOPED_TRACE(synchronous);
        ScObjects::ConveyConnector::set(new TableConnector({"own-1.0"}, {}));
        platform::FakeThreads threads;
        threads.fails = true;
        {
            const platform::ScopedReplacement<platform::Threads> inForce(threads);
            EXPECT_FALSE(Convey::InitTerm::init("own-1.0", synchronous));
            EXPECT_EQ(Convey::getSharedContext(), nullptr);
        }
        EXPECT_TRUE(InterAppStream("own-1.0").canOpen("own-1.0#thread", false));
        EXPECT_TRUE(Convey::InitTerm::init("own-1.0", synchronous));
        EXPECT_EQ(Convey::Thread::getPingValue("ECHO_REQUEST"), "ECHO_RESPONSE");
        EXPECT_TRUE(Convey::InitTerm::exit());
    }
    ScObjects::ConveyConnector::InitTerm::exit();
}

TEST(Setup, aThousandStartsLeaveNothingBehind) {
    const auto entries = [](const char* folder) {
        return std::distance(std::filesystem::directory_iterator(folder),
                             std::filesystem::directory_iterator());
    };
    const char* const divisor = std::getenv("CONVEY_TEST_DIVISOR");
    const int starts = divisor == nullptr ? 1000 : 100;
    std::ptrdiff_t descriptors = 0;
    std::ptrdiff_t threads = 0;
    for (int i = 0; i < starts; ++i) {
        const StartedLayer layer("own-1.0", {"own-1.0"});
        ASSERT_TRUE(layer.started);
        const Convey instance("own-1.0", nullptr, true, nullptr);
        ASSERT_EQ(instance.getAppName(), "own-1.0") << "start " << i;
        if (i == 10) {
            descriptors = entries("/proc/self/fd");
            threads = entries("/proc/self/task");
        } else if (i == starts - 1) {
            EXPECT_LE(entries("/proc/self/fd"), descriptors);
            // A thread that has been joined may still be seen for a moment, at either look.
            for (int tries = 0; tries < 1000 && entries("/proc/self/task") > threads; ++tries) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            EXPECT_LE(entries("/proc/self/task"), threads);
        }
    }
    EXPECT_EQ(entries((std::string(std::getenv("XDG_RUNTIME_DIR")) + "/convey").c_str()), 0);
}

} // namespace
