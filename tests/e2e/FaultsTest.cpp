// What the system below takes away: disk, home, descriptors, readers, the time of day.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/e2e/Scene.h"

namespace {

using testing::HasSubstr;

class FaultsTest : public Scene {
protected:
    FaultsTest() {
        add("kivra-7.0");
        add("lumen-2.0");
    }
    // A command as a shell runs it: "$@" in a script.
    static ProcessResult inShell(const std::string& script, std::vector<std::string> command,
                                 const std::map<std::string, std::string>& environment = {}) {
        command.insert(command.begin(), {"/bin/bash", "-c", script, "bash"});
        return runProcess(command, environment);
    }
    // As on a disk on which no file can grow beyond so many blocks of 1024 bytes.
    static ProcessResult onAFullDisk(int blocks, const std::vector<std::string>& command) {
        return inShell("trap '' XFSZ; ulimit -f " + std::to_string(blocks) + "; exec \"$@\"",
                       command);
    }
    static ProcessResult onto(const std::string& redirection,
                              const std::vector<std::string>& command,
                              const std::map<std::string, std::string>& environment = {}) {
        return inShell("exec \"$@\" " + redirection, command, environment);
    }
    // A file of so many applications.
    std::string fillers(int count) const {
        std::string many;
        for (int i = 0; i < count; ++i) {
            many += "[[application]]\nspecifier = \"filler" + std::to_string(i) +
                    "-1.0\"\nPath = \"/opt/filler/Filler.app\"\n";
        }
        return folder.write("many.toml", many);
    }
    // A shell that may mount what nobody else sees: a disk of its own to fill. Who is not root
    // there is the root of a user namespace that holds nobody else.
    static ProcessResult inOwnMounts(const std::string& script,
                                     const std::vector<std::string>& words) {
        std::vector<std::string> command = {"/usr/bin/unshare", geteuid() == 0 ? "-m" : "-rm",
                                            "/bin/sh", "-c", script};
        command.insert(command.end(), words.begin(), words.end());
        return runProcess(command);
    }
    static std::string listing() {
        const ProcessResult result = runProcess({KIVRA_CONVEY_CMD});
        EXPECT_EQ(result.exitStatus, 0);
        return result.out;
    }
};

TEST_F(FaultsTest, aFullDiskLeavesTheDatabaseAsItWas) {
    const std::string import = fillers(2000);
    const std::string before = listing();
    std::filesystem::create_directory(folder.file("disk"));
    const ProcessResult mounted = inOwnMounts(
        "mount -t tmpfs -o size=160K none \"$1\" && cp \"$2\" \"$1/caps.db\" && "
        "export OVREL_CAPS_DB=\"$1/caps.db\"; before=$(\"$3\"); "
        "\"$0\" import \"$4\"; status=$?; [ \"$before\" = \"$(\"$3\")\" ] && exit $status",
        {OVREL_CAPS_TOOL, folder.file("disk"), database, KIVRA_CONVEY_CMD, import});
    EXPECT_EQ(mounted.exitStatus, 1);
    EXPECT_THAT(mounted.err, HasSubstr("caps.db: "));
    const ProcessResult full = onAFullDisk(50, {OVREL_CAPS_TOOL, "import", import});
    EXPECT_NE(full.exitStatus, 0);
    EXPECT_EQ(full.signal, 0);
    EXPECT_THAT(full.err, HasSubstr("caps.db: "));
    EXPECT_EQ(listing(), before);
    const ProcessResult checked = runProcess({OVREL_CAPS_TOOL, "list"});
    EXPECT_EQ(checked.exitStatus, 0) << checked.err;
    const ProcessResult room = runProcess({OVREL_CAPS_TOOL, "import", import});
    EXPECT_EQ(room.exitStatus, 0) << "once there is room: " << room.err;
    EXPECT_THAT(listing(), HasSubstr("filler1999-1.0"));
}

TEST_F(FaultsTest, onAFullDiskARegistryIsReadAsItStands) {
    const std::string before = listing();
    // 20 KB are left: too few for the file through which readers and writers agree.
    std::filesystem::remove(database + "-shm");
    EXPECT_EQ(onAFullDisk(20, {KIVRA_CONVEY_CMD}).out, before);
    EXPECT_THAT(onAFullDisk(20, {KIVRA_CONVEY_CMD, "check_running", "lumen-2.0"}).out,
                HasSubstr("'ISNOTRUNNING'"));
    EXPECT_EQ(onAFullDisk(20, {OVREL_CAPS_TOOL, "list", "--json"}).exitStatus, 0);
    std::filesystem::create_directory(folder.file("disk"));
    const ProcessResult full = inOwnMounts(
        "mount -t tmpfs -o size=1M none \"$1/disk\" && cp \"$1/caps.db\" \"$1/disk\" && "
        "{ cat /dev/zero >\"$1/disk/filling\"; truncate -s -20K \"$1/disk/filling\"; } "
        "2>/dev/null; OVREL_CAPS_DB=\"$1/disk/caps.db\" exec \"$0\"",
        {KIVRA_CONVEY_CMD, folder.file("")});
    EXPECT_EQ(full.out, before) << full.err;
}

TEST_F(FaultsTest, whoHasNoDescriptorsLeftDoesNotSayThatNobodyRuns) {
    const auto running = host("lumen-2.0");
    const auto check = [this](int count) {
        return std::make_unique<RunningProcess>(
            std::vector<std::string>{
                "/bin/sh", "-c",
                "exec 2>\"$1\"; ulimit -n \"$2\"; exec \"$0\" check_running lumen-2.0",
                KIVRA_CONVEY_CMD, folder.file(std::to_string(count)), std::to_string(count)},
            // The sanitizer's look for leaks takes descriptors of its own.
            std::map<std::string, std::string>{{"ASAN_OPTIONS", "detect_leaks=0"}});
    };
    // Beside each other, as some wait for two seconds; so many that each finds a name.
    for (const auto& counts : {std::vector<int>{5, 7, 8, 9, 11, 12}, {13, 14, 16, 17, 18, 25}}) {
        std::map<int, std::unique_ptr<RunningProcess>> tools;
        for (const int count : counts) {
            tools[count] = check(count);
        }
        for (const auto& [count, tool] : tools) {
            SCOPED_TRACE(count);
            const int status = tool->finish();
            const std::string& said = tool->rest();
            EXPECT_EQ(status == 0, !said.empty()) << "nothing when it could not even start";
            if (said.empty() || said.find("'ECHO_RESPONSE'") != std::string::npos) {
                continue;
            }
            EXPECT_THAT(said, testing::AnyOf(HasSubstr("'UNDEFINED'"), HasSubstr("'Timeout'"),
                                             HasSubstr("'NOINTERAPPSTREAM'")));
            const std::string reason = TemporaryFolder::read(folder.file(std::to_string(count)));
            EXPECT_THAT(reason, HasSubstr("Too many open files"));
            if (said.find("'Timeout'") != std::string::npos) { // as on a machine that is busy
                EXPECT_THAT(reason, testing::Not(HasSubstr("cannot accept")))
                    << "it did not hear the answer";
            }
        }
    }
}

TEST_F(FaultsTest, anAnswerIsWrittenOrTheStatusSaysThatItIsNot) {
    const std::vector<std::vector<std::string>> commands = {
        {KIVRA_CONVEY_CMD},
        {KIVRA_CONVEY_CMD, "check_running", "lumen-2.0"},
        {CONVEY_PROGRAM, "limits"},
        {CONVEY_PROGRAM, "list", "--json"},
        {CONVEY_PROGRAM, "--version"},
        {OVREL_CAPS_TOOL, "list"},
    };
    for (const auto& command : commands) {
        const int lost = command[0] == CONVEY_PROGRAM ? 3 : 1;
        const bool forPrograms = command.front() == KIVRA_CONVEY_CMD;
        for (const char* redirection : {">/dev/full", ">&-", ">&- <&-"}) {
            SCOPED_TRACE(command.front() + " " + command.back() + " " + redirection);
            const ProcessResult result = onto(redirection, command);
            EXPECT_EQ(result.exitStatus, lost);
            EXPECT_EQ(result.err.empty(), forPrograms) << result.err;
        }
        SCOPED_TRACE(command.front() + " " + command.back());
        EXPECT_EQ(onto(">&- 2>&-", command).exitStatus, lost);
        EXPECT_EQ(onto("2>&- <&-", command).out, onto("2>/dev/null", command).out);
        int gone[2];
        ASSERT_EQ(pipe(gone), 0);
        close(gone[0]);
        const ProcessResult unread = onto(">&" + std::to_string(gone[1]), command);
        close(gone[1]);
        EXPECT_EQ(unread.exitStatus, forPrograms ? lost : 0) << "nobody reads";
        EXPECT_EQ(unread.err, "");
    }
}

TEST_F(FaultsTest, aReaderThatTakesItsTimeGetsAllOfAnAnswer) {
    ASSERT_EQ(runProcess({OVREL_CAPS_TOOL, "import", fillers(500)}).exitStatus, 0);
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{KIVRA_CONVEY_CMD}, {CONVEY_PROGRAM, "list", "--json"}}) {
        int ends[2]; // a pipe whose owner made it non-blocking, as event loops do
        ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
        ASSERT_EQ(fcntl(ends[0], F_SETFL, 0), 0);
        ASSERT_GT(fcntl(ends[1], F_SETPIPE_SZ, 4096), 0);
        std::string taken;
        std::thread reader([&] {
            char block[1000];
            for (ssize_t bytes = 0; (bytes = read(ends[0], block, sizeof block)) > 0;) {
                taken.append(block, static_cast<size_t>(bytes));
                std::this_thread::yield();
            }
        });
        EXPECT_EQ(onto(">&" + std::to_string(ends[1]), command).exitStatus, 0);
        close(ends[1]);
        reader.join();
        close(ends[0]);
        EXPECT_EQ(taken, runProcess(command).out);
    }
}

TEST_F(FaultsTest, aLineForStandardErrorHarmsNobody) {
    // /proc takes no folders, so whoever needs the identifiers there has something to say.
    for (const bool full : {false, true}) {
        SCOPED_TRACE(full ? "a pipe that is full" : "a pipe without reader");
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
        const std::vector<char> filling(65536, 'x');
        if (full) {
            while (write(ends[1], filling.data(), filling.size()) > 0) {
            }
        } else {
            close(ends[0]);
        }
        ASSERT_EQ(fcntl(ends[1], F_SETFL, 0), 0);
        std::filesystem::remove_all(folder.file("convey")); // nobody has said it
        RunningProcess host({HOST, "lumen-2.0"}, {{"HOME", "/proc"}}, ends[1]);
        ASSERT_EQ(host.readLine(), "running as lumen-2.0");
        const ProcessResult asked = runProcess({HOST, "asker-1.0", "--ask", "lumen", "hello"});
        EXPECT_EQ(asked.out, "result: echo: hello\n") << "the host had to say something";
        EXPECT_EQ(onto(">/dev/null 2>&" + std::to_string(ends[1]),
                       {KIVRA_CONVEY_CMD, "check_running", "lumen-2.0"}, {{"HOME", "/proc"}})
                      .exitStatus,
                  0);
        EXPECT_EQ(host.finish(SIGTERM), 0);
        close(ends[1]);
        if (full) {
            close(ends[0]);
        }
    }
}

TEST_F(FaultsTest, withoutAPlaceForIdentifiersMessagesPassAndSomebodyIsTold) {
    const auto ask = [](const ProcessResult& result) {
        EXPECT_EQ(result.out, "result: echo: hello\n");
        EXPECT_EQ(result.exitStatus, 0);
    };
    // /proc takes no folders, not even root's.
    const std::map<std::string, std::string> homes[] = {{{"HOME", "/proc"}}, {}};
    for (const auto& home : homes) {
        RunningProcess host({HOST, "lumen-2.0"}, home);
        ASSERT_EQ(host.readLine(), "running as lumen-2.0");
        const std::vector<std::string> question = {HOST, "kivra-7.0", "--ask", "lumen", "hello"};
        const ProcessResult result =
            home.empty() ? onAFullDisk(0, question) : runProcess(question, home);
        ask(result);
        EXPECT_THAT(result.err, HasSubstr(home.empty() ? "/.ovrel/md5: " : "/proc/.ovrel"));
        if (!home.empty()) {
            const ProcessResult again = runProcess(question, home);
            ask(again);
            EXPECT_EQ(again.err, "") << "once for a user, not for each run";
        }
    }
    // What could not be written was not left half written.
    for (const auto& entry : std::filesystem::directory_iterator(folder.file(".ovrel"))) {
        EXPECT_GE(entry.file_size(), 16U) << entry.path();
    }
}

// Real processes whose time of day is set while they wait.
TEST_F(FaultsTest, aClockThatIsSetEndsNoWaitAndProlongsNone) {
    const std::string clock = folder.file("clock");
    const std::map<std::string, std::string> environment = {
        {"LD_PRELOAD", "/usr/$LIB/faketime/libfaketimeMT.so.1"}, // as the loader finds it
        {"FAKETIME_TIMESTAMP_FILE", clock},
        {"FAKETIME_NO_CACHE", "1"},
        {"FAKETIME_DONT_FAKE_MONOTONIC", "1"},
        // Else the sanitizer's allocator asks the clock, which allocates when it is first asked.
        {"ASAN_OPTIONS", "allocator_release_to_os_interval_ms=-1"}};
    const auto set = [&](const std::string& time) {
        (void)folder.write("clock.new", time + "\n");
        std::filesystem::rename(folder.file("clock.new"), clock);
    };
    for (const char* step : {"+1d", "-1d"}) {
        SCOPED_TRACE(step);
        set("+0");
        EXPECT_EQ(runProcess({CONVEY_PROGRAM, "--version"}, environment).err, "")
            << "the library is missing";
        RunningProcess target({TARGET_PROGRAM, "lumen-2.0"}, environment);
        ASSERT_EQ(target.readLine(), "running");
        const auto ask = [&](const char* seconds, const std::string& body) {
            auto asker = std::make_unique<RunningProcess>(
                std::vector<std::string>{CONVEY_PROGRAM, "send", "lumen-2.0", "--wait", seconds,
                                         "--body", body},
                environment);
            EXPECT_EQ(asker->readLine(), "sent");
            EXPECT_EQ(asker->readLine(), "received"); // on its way it ages by the time of day
            return asker;
        };
        const std::string end = folder.file(step);
        const auto patient = ask("50", "until " + end);
        EXPECT_EQ(target.readLine(), "got until " + end);
        const auto impatient = ask("2", "hello");
        set(step);
        EXPECT_EQ(impatient->readLine(), "timeout");
        EXPECT_EQ(impatient->finish(), 1);
        (void)folder.write(step, "");
        EXPECT_EQ(patient->finish(), 0);
        EXPECT_EQ(patient->rest(), "result: answer\nprocessed\n");
    }
}

} // namespace
