// Who has the name of a port: races, forks, ends of all kinds, and what is left of files and
// descriptors.
#include <sys/syscall.h>

#include "tests/platform/PortFixture.h"

namespace {

using PortOwnersTest = MessagePortTest;

// Also while a child lives that the bare system call has made: it gives the handlers of fork no
// occasion to close what a child must not keep.
TEST_F(PortOwnersTest, aNameIsFreeWhenItsOwnerIsKilled) {
    for (const bool hasChild : {false, true}) {
        SCOPED_TRACE(hasChild);
        const Pipe ready;
        Pipe end;
        const pid_t owner = startChild([&] {
            const auto port = ports.open(kName);
            end.endTelling();
            const bool isOwner =
                !hasChild || syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr) != 0;
            if (isOwner != hasChild) {
                ready.tell(port != nullptr ? 'y' : 'n');
            }
            return isOwner ? pause() : end.hear();
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
        EXPECT_TRUE(hasChild || wait->wait(kGenerous)) << "its end ends a wait";
        EXPECT_EQ(endOf(owner), 255);
        EXPECT_TRUE(hasChild || watch->ended());
        EXPECT_TRUE(ports.isFree(kName));
        EXPECT_EQ(files(), 2U) << "it could not clear away";
        EXPECT_TRUE(hasChild || ports.send(kName, "x", kGenerous) == SendResult::noReceiver);
        // Its record was longer and its mark another: the next owner's are its own.
        const std::string lock = fileOf(".lock");
        ASSERT_EQ(truncate(lock.c_str(), 60), 0);
        ASSERT_EQ(chmod(lock.c_str(), S_IRUSR | S_IWUSR), 0);
        const auto port = opened();
        struct stat status {};
        ASSERT_EQ(stat(lock.c_str(), &status), 0);
        EXPECT_LT(status.st_size, 60);
        EXPECT_EQ(status.st_mode & 07777U, unsigned{S_ISVTX | S_IRUSR | S_IWUSR});
        EXPECT_EQ(ports.send(kName, "y", kGenerous), SendResult::delivered);
        EXPECT_TRUE(watch->ended());
        EXPECT_EQ(takeAll(*port), std::vector<std::string>{"y"});
    }
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
    auto port = opened();
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

// Registered before all else, so that it runs behind the handler that gives the ports back.
const Pipe* gEnding = nullptr; // of such an owner: to it, and from it
const int kEndingHandler = std::atexit([] {
    if (gEnding != nullptr) {
        gEnding[1].tell('e');
        (void)gEnding[0].hear();
        _exit(0);
    }
});

// An owner may take seconds for the rest of its end; what is sent meanwhile is its successor's.
TEST_F(PortOwnersTest, whatIsSentWhileAnOwnerEndsGoesToItsSuccessor) {
    const Pipe pipes[2];
    const Pipe& to = pipes[0];
    const Pipe& from = pipes[1];
    const pid_t owner = startChild([&] {
        gEnding = pipes;
        const auto port = MessagePorts::own().open(kName);
        from.tell(port != nullptr ? 'y' : 'n');
        (void)to.hear();
        std::exit(0);
        return 0;
    });
    ASSERT_EQ(from.hear(), 'y');
    std::shared_ptr<platform::TargetWatch> watch;
    EXPECT_EQ(ports.send(kName, "first", kGenerous, &watch), SendResult::delivered);
    EXPECT_FALSE(watch->ended());
    ASSERT_EQ(kEndingHandler, 0);
    to.tell('e');
    ASSERT_EQ(from.hear(), 'e');
    EXPECT_TRUE(watch->ended());
    const auto port = opened();
    EXPECT_EQ(ports.send(kName, "second", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeAll(*port), std::vector<std::string>{"second"});
    to.tell('e');
    EXPECT_EQ(endOf(owner), 0);
}

TEST_F(PortOwnersTest, filesAreKeptFromCleanersAndTheLossOfEitherIsReportedOnce) {
    for (const auto& [ending, isWhole] :
         {std::pair(".lock", false), {".socket", false}, {".socket", true}}) {
        SCOPED_TRACE(ending);
        const auto port = opened();
        struct stat status {};
        ASSERT_EQ(stat(fileOf(ending).c_str(), &status), 0);
        const mode_t more = ending == std::string(".socket") ? 0100 : 0; // what the owner knows
        EXPECT_EQ(status.st_mode & 07777, 01600 | more) << "the mark that cleaners respect";
        const auto wait = ports.newWait();
        wait->add(*port, 0);
        (void)wait->wait(0);
        EXPECT_TRUE(log.lines.empty());
        ASSERT_GT(std::filesystem::remove_all(isWhole ? folder() : fileOf(ending)), 0U);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (log.lines.empty() && std::chrono::steady_clock::now() < end) {
            (void)wait->wait(100);
        }
        (void)wait->wait(0);
        ASSERT_EQ(log.lines.size(), 1U);
        EXPECT_NE(log.lines[0].find("was removed"), std::string::npos);
        EXPECT_FALSE(wait->wait(300)) << "nobody looks for it all the time";
        log.lines.clear();
        std::filesystem::remove_all(folder());
    }
}

TEST_F(PortOwnersTest, noDescriptorSurvivesExec) {
    const auto inherited = [this] { // by who is started without the handlers of fork
        const std::string file = runtime.file("/descriptors");
        EXPECT_EQ(std::system(("ls /proc/self/fd > " + file).c_str()), 0);
        const std::string numbers = TemporaryFolder::read(file);
        return std::count(numbers.begin(), numbers.end(), '\n');
    };
    const auto before = inherited();
    const size_t own = openDescriptors();
    const auto port = opened();
    EXPECT_EQ(ports.send(kName, "x", kGenerous), SendResult::delivered);
    EXPECT_EQ(takeOne(*port), "x");
    EXPECT_GT(openDescriptors(), own);
    EXPECT_EQ(inherited(), before);
}

} // namespace
