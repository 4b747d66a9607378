// Who has the name of a port: races, forks, ends of all kinds, and what is left of files and
// descriptors.
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/platform/PortFixture.h"

namespace {

using PortOwnersTest = MessagePortTest;

TEST_F(PortOwnersTest, aNameIsFreeWhenItsOwnerIsKilled) {
    const Pipe ready;
    const pid_t owner = startChild([&] {
        const auto port = ports.open(kName);
        ready.tell(port != nullptr ? 'y' : 'n');
        return pause();
    });
    ASSERT_EQ(ready.hear(), 'y');
    EXPECT_FALSE(ports.isFree(kName));
    EXPECT_EQ(ports.open(kName), nullptr);
    const auto wait = ports.newWait();
    std::shared_ptr<platform::TargetWatch> watch;
    EXPECT_EQ(ports.send(kName, "x", kGenerous, &watch), SendResult::delivered);
    ASSERT_NE(watch, nullptr);
    wait->add(*watch);
    wait->add(*watch);
    EXPECT_FALSE(wait->wait(0));
    EXPECT_FALSE(watch->ended());
    kill(owner, SIGKILL);
    EXPECT_TRUE(wait->wait(kGenerous)) << "its end ends a wait";
    EXPECT_EQ(endOf(owner), 255);
    EXPECT_TRUE(watch->ended());
    EXPECT_TRUE(ports.isFree(kName));
    EXPECT_EQ(files(), 2U) << "it could not clear away";
    EXPECT_EQ(ports.send(kName, "x", kGenerous), SendResult::noReceiver);
    const auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(ports.send(kName, "y", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeAll(*port), std::vector<std::string>{"y"});
}

TEST_F(PortOwnersTest, oneOfFiftyProcessesGetsTheName) {
    for (int round = 0; round < 5; ++round) {
        Pipe start;
        Pipe end;
        const Pipe results;
        std::vector<pid_t> children;
        for (int i = 0; i < 50; ++i) {
            children.push_back(startChild([&, i] {
                start.endTelling();
                end.endTelling();
                (void)start.hear(); // all begin when the parent ends it
                // Those that only ask must not keep anybody from the name.
                const bool asked = i % 2 == 0 && !ports.isFree(kName);
                const auto port = i % 2 == 0 ? nullptr : ports.open(kName);
                results.tell(port != nullptr ? 'w' : asked ? 'a' : 'l');
                (void)end.hear();
                return 0;
            }));
        }
        start.endTelling();
        int winners = 0;
        for (size_t i = 0; i < children.size(); ++i) {
            const char result = results.hear();
            ASSERT_NE(result, '\0');
            winners += result == 'w' ? 1 : 0;
        }
        EXPECT_EQ(winners, 1) << "round " << round;
        end.endTelling();
        for (const pid_t child : children) {
            EXPECT_EQ(endOf(child), 0);
        }
        EXPECT_TRUE(ports.isFree(kName));
    }
}

TEST_F(PortOwnersTest, aChildAfterForkTakesNothingAndSendsForItself) {
    auto port = ports.open(kName);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(ports.send(kName, "parent", kGenerous), SendResult::delivered);
    Pipe end;
    const pid_t child = startChild([&] {
        PortText text;
        const bool stolen = port->take(text) || port->wait(10, true);
        const bool sent =
            MessagePorts::own().send(kName, "child", kGenerous) == SendResult::delivered;
        port.reset(); // must not remove the parent's files
        end.endTelling();
        (void)end.hear();
        return !stolen && sent ? 0 : 1;
    });
    EXPECT_EQ(takeOne(*port), "parent");
    EXPECT_EQ(takeOne(*port), "child");
    EXPECT_EQ(ports.send(kName, "again", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeOne(*port), "again");
    port.reset();
    EXPECT_TRUE(ports.isFree(kName)) << "although the child lives";
    EXPECT_EQ(ports.send(kName, "x", kGenerous), SendResult::noReceiver);
    end.endTelling();
    EXPECT_EQ(endOf(child), 0);
}

TEST_F(PortOwnersTest, aProcessThatEndsWhileItOpensPortsLeavesNoFile) {
    ASSERT_NE(ports.open(kName), nullptr);
    for (int round = 0; round < 40; ++round) {
        EXPECT_EQ(inChild([&] {
                      const auto kept = ports.open("kept");
                      std::thread([this] {
                          for (;;) {
                              (void)ports.open("opened and closed");
                          }
                      }).detach();
                      std::this_thread::sleep_for(std::chrono::microseconds(100 * round));
                      std::exit(kept != nullptr ? 0 : 1); // with all ports open
                      return 2;
                  }),
                  0);
        EXPECT_EQ(files(), 0U) << "round " << round;
    }
}

} // namespace
