// Processes with nothing to do sleep, and what ends their sleep.
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/TextMemory.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "tests/e2e/Scene.h"
#include "tests/support/Peers.h"

namespace {

using ScObjects::ConveyThread;

class IdleTest : public Scene {
protected:
    // The one that was due, and two rounds in which nothing is left to be looked at; a round may
    // wait for a lock as well.
    static constexpr long kRoundsOfOneWakeUp = 6;

    // How often the threads of a process have given up a processor to wait for something; the
    // calling thread, which looks, does not count.
    static std::map<std::string, long> waits(pid_t process) {
        std::map<std::string, long> all;
        for (const auto& task :
             std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
            std::ifstream status(task.path() / "status");
            for (std::string line; std::getline(status, line);) {
                if (line.starts_with("voluntary_ctxt_switches:") &&
                    task.path().filename() != std::to_string(syscall(SYS_gettid))) {
                    all[task.path().filename()] = std::atol(line.c_str() + 24);
                }
            }
        }
#ifdef __SANITIZE_THREAD__
        all.erase(all.upper_bound(std::to_string(process))); // the sanitizer's own is the second
#endif
        return all;
    }

    static long sum(const std::map<std::string, long>& waits) {
        long all = 0;
        for (const auto& [thread, count] : waits) {
            all += count;
        }
        return all;
    }

    // Whether it comes to do nothing at all for so long: the rounds that it makes while something
    // is to be looked at are a tenth of a second apart.
    static bool comesToSleep(pid_t process = getpid(), int milliseconds = 500) {
        return eventually([&] {
            const auto before = waits(process);
            std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
            return waits(process) == before;
        });
    }
    ~IdleTest() override {
        (void)Convey::InitTerm::exit();
    }
};

TEST_F(IdleTest, aHostWithNothingToDoMakesNoWakeUp) {
    const auto quiet = host("lumen-2.0", {"--quiet"});
    EXPECT_TRUE(comesToSleep(quiet->pid(), 1000));
    EXPECT_EQ(runProcess({KIVRA_CONVEY_CMD, "check_running", "lumen-2.0"}).out,
              "<product specifier='lumen-2.0' running_response='ECHO_RESPONSE' />\n");
    EXPECT_TRUE(comesToSleep(quiet->pid(), 1000)) << "it goes to sleep again";
}

TEST_F(IdleTest, whatIsDueOrAppearsEndsTheSleep) {
    // What is launched by that name opens its port when it may.
    const std::string program = folder.file("late");
    std::ofstream(program) << "#!/bin/sh\necho $$ > " << folder.file("process") << "\nuntil [ -e "
                           << folder.file("go") << " ]; do sleep 0.05; done\nexec "
                           << TARGET_PROGRAM << " target-1.0 > " << folder.file("said") << "\n";
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    add("target-1.0", program);
    ASSERT_TRUE(Convey::InitTerm::init("asker-1.0", true));
    Convey asker("asker-1.0", nullptr, true, nullptr);
    Convey other("other-1.0", nullptr, false, nullptr);
    ConveyThread& thread = *ConveyThread::getMainThread();
    const auto diagnostics = [] {
        SoString text;
        Convey::getDiagnostics(text, false);
        return std::string(text.view());
    };
    const auto message = [](const char* target, const char* replies) {
        Convey::Message made = request(target, "text", replies);
        made.setTimeout(1);
        return made;
    };

    ASSERT_TRUE(comesToSleep());
    ASSERT_TRUE(thread.setKeyValuePair("KEY", "value"));
    ASSERT_TRUE(thread.setTimeout("KEY", 1));
    EXPECT_TRUE(eventually([&] { return thread.getValueForKey("KEY").isEmpty(); }))
        << "an entry of the table";

    ASSERT_TRUE(comesToSleep());
    Convey::Message expiring = message("other-1.0", "");
    expiring.setTimeout(6);
    ASSERT_TRUE(asker.send(expiring, false, 0, nullptr));
    const auto isDropped = [&] {
        return diagnostics().find("/other-1.0/counts/dropped;0;Dropped;1;") != std::string::npos;
    };
    ASSERT_TRUE(comesToSleep()) << "with a message that is due";
    const long before = sum(waits(getpid()));
    EXPECT_FALSE(isDropped()) << "it came to sleep only when nothing was due";
    EXPECT_TRUE(eventually(isDropped)) << "a message whose time is over, and nobody pumps";
    ASSERT_TRUE(comesToSleep());
    EXPECT_LE(sum(waits(getpid())) - before, kRoundsOfOneWakeUp);

    platform::TextMemory::free(platform::TextMemory::allocate(1 << 20));
    EXPECT_TRUE(eventually([] { return platform::TextMemory::keptBytes() == 0; }))
        << "memory that is kept";

    Convey::Message late = message("target-1.0", "");
    late.setBody("late");
    late.setTimeout(600);
    EXPECT_FALSE(asker.send(late, true, 0, nullptr)) << "it is queued";
    ASSERT_TRUE(comesToSleep()) << "with a message that waits for its target";
    std::ofstream(folder.file("go")) << "go";
    EXPECT_TRUE(eventually([&] {
        return TemporaryFolder::read(folder.file("said")).find("got late") != std::string::npos;
    })) << "a name that appears";
    kill(std::atoi(TemporaryFolder::read(folder.file("process")).c_str()), SIGKILL);

    ASSERT_TRUE(comesToSleep());
    EXPECT_NE(diagnostics().find("/thread/lastpump;0;Last pump;"), std::string::npos);
    EXPECT_TRUE(thread.setKeyValuePair("STATUS", "IDLE"));
    EXPECT_TRUE(thread.isIdle()) << "a thread that sleeps is not one that hangs";
}

} // namespace
