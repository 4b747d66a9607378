#include "platform/Processes.h"

#include <chrono>
#include <csignal>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "platform/fake/Fakes.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;

// Applications that write down how they were started, and stay until they are killed.
class ProcessesTest : public testing::Test {
protected:
    ~ProcessesTest() override {
        for (const uint32_t number : started) {
            (void)kill(static_cast<pid_t>(number), SIGKILL); // gone already is as well
        }
    }
    static platform::Processes& processes() { return platform::Processes::own(); }

    uint32_t start(const std::string& path, bool behind = false) {
        const uint32_t number = processes().startApplication(path, behind);
        if (number != 0) {
            started.push_back(number);
        }
        return number;
    }
    std::string program(const std::string& name, const std::string& commands) const {
        std::filesystem::create_directories(std::filesystem::path(folder.file(name)).parent_path());
        const std::string path = folder.write(name, "#!/bin/sh\n" + commands);
        EXPECT_EQ(chmod(path.c_str(), 0755), 0);
        return path;
    }
    // Writes `lines` to the file "note" when it is complete, then stays.
    std::string notingProgram(const std::string& name, const std::string& lines) const {
        const std::string note = folder.file("note");
        return program(name, "{\n" + lines + "\n} > '" + note + ".new'\nmv '" + note + ".new' '" +
                                 note + "'\nexec sleep 300\n");
    }
    static bool eventually(const std::function<bool()>& holds) {
        for (int i = 0; i < 1000 && !holds(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return holds();
    }
    std::string note() const {
        const std::string path = folder.file("note");
        EXPECT_TRUE(eventually([&] { return std::filesystem::exists(path); }));
        std::string text = TemporaryFolder::read(path);
        std::filesystem::remove(path);
        return text;
    }

    TemporaryFolder folder;
    platform::InForce<platform::Log, platform::FakeLog> log;
    std::vector<uint32_t> started;
};

TEST_F(ProcessesTest, startsASessionOfItsOwn) {
    // The shell reads its state itself: to start another program it blocks all signals for a
    // moment.
    const std::string path = notingProgram(
        "app", "echo $$ $(ps -o ppid=,sid=,tty= -p $$)\nls /proc/$$/fd\npwd\n"
               "while read -r line; do case $line in Sig*) echo \"$line\" ;; esac; done "
               "</proc/$$/status\necho \"$# words\"\nenv");
    const int left = open("/dev/null", O_RDONLY); // NOLINT: left open at exec on purpose
    ASSERT_GE(left, 0);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blocked, nullptr), 0);
    std::signal(SIGPIPE, SIG_IGN);
    setenv("NOTIFY_SOCKET", "/of/this/process", 1);
    setenv("LISTEN_FDS", "3", 1);
    setenv("KEPT", "for it", 1);
    const uint32_t number = start(path);
    ASSERT_NE(number, 0U) << testing::PrintToString(log.lines);
    const std::string text = note();
    close(left);
    const std::string own = std::to_string(number);
    EXPECT_THAT(text, testing::StartsWith(own + " "));
    EXPECT_THAT(text, HasSubstr(" " + own + " ?\n")) << "its own session, without terminal";
    EXPECT_THAT(text, Not(HasSubstr(" " + std::to_string(getpid()) + " ")));
    EXPECT_THAT(text, HasSubstr("\n0\n1\n")) << "the standard descriptors";
    EXPECT_THAT(text, Not(HasSubstr("\n" + std::to_string(left) + "\n")));
    EXPECT_THAT(text, HasSubstr("SigBlk:\t0000000000000000\n"));
    EXPECT_THAT(text, HasSubstr("SigIgn:\t0000000000000000\n"));
    EXPECT_THAT(text, HasSubstr("\n" + std::string(std::getenv("HOME")) + "\n"));
    EXPECT_THAT(text, HasSubstr("\n0 words\n"));
    EXPECT_THAT(text, HasSubstr("\nKEPT=for it\n"));
    EXPECT_THAT(text, Not(HasSubstr("NOTIFY_SOCKET")));
    EXPECT_THAT(text, Not(HasSubstr("LISTEN_FDS")));
    EXPECT_THAT(text, Not(HasSubstr("DESKTOP_STARTUP_ID")));
    (void)start(path, true);
    EXPECT_THAT(note(), HasSubstr("_TIME0\n")) << "toolkits leave the focus where it is";
}

TEST_F(ProcessesTest, givesWhatAHostHasClosed) {
    const std::string path = notingProgram("app", "ls /proc/$$/fd");
    int kept[3];
    for (int fd = 0; fd < 3; ++fd) {
        kept[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 10);
        close(fd);
    }
    const uint32_t number = start(path);
    for (int fd = 0; fd < 3; ++fd) {
        dup2(kept[fd], fd);
        close(kept[fd]);
    }
    ASSERT_NE(number, 0U) << testing::PrintToString(log.lines);
    EXPECT_THAT(note(), testing::StartsWith("0\n1\n"));
}

TEST_F(ProcessesTest, knowsWhatRuns) {
    const std::string path = notingProgram("app", "sleep 300 & echo $!");
    const uint32_t number = start(path);
    const auto child = static_cast<uint32_t>(std::stoul(note()));
    started.push_back(child);
    EXPECT_TRUE(processes().isRunning(number));
    for (const uint32_t shell : {number, child}) {
        const std::string program = "/proc/" + std::to_string(shell) + "/comm";
        EXPECT_TRUE(eventually([&] { return TemporaryFolder::read(program) == "sleep\n"; }));
    }
    EXPECT_THAT(processes().find(path), testing::ElementsAre(number))
        << "though the script has ended in sleep, and not its child";
    EXPECT_THAT(processes().find(folder.file("other")), Not(Contains(number)));
    ASSERT_EQ(kill(static_cast<pid_t>(number), SIGKILL), 0);
    EXPECT_TRUE(eventually([&] { return !processes().isRunning(number); }));
    EXPECT_THAT(processes().find(path), Not(Contains(number)));
    EXPECT_FALSE(processes().isRunning(0));
    EXPECT_TRUE(processes().isRunning(processes().ownNumber()));
    // Also when it was asked for often, and in children that no handler of fork is called for.
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(processes().ownNumber(), static_cast<uint32_t>(getpid()));
    }
    for (const bool bare : {false, true}) {
        const auto born = bare ? static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr,
                                                            nullptr, nullptr))
                               : fork();
        if (born == 0) {
            const auto own = static_cast<uint32_t>(syscall(SYS_getpid));
            _exit(processes().ownNumber() == own && processes().ownNumber() == own ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(waitpid(born, &status, 0), born);
        EXPECT_EQ(status, 0) << (bare ? "by the bare system call" : "by fork");
    }

    const pid_t ended = fork();
    if (ended == 0) {
        _exit(0);
    }
    EXPECT_TRUE(eventually([&] { return !processes().isRunning(static_cast<uint32_t>(ended)); }))
        << "it only waits for its parent";
}

TEST_F(ProcessesTest, saysWhyItDoesNotStart) {
    const std::string notExecutable = folder.write("data", "#!/bin/sh\n");
    const std::string noFormat = folder.write("empty", "");
    ASSERT_EQ(chmod(noFormat.c_str(), 0755), 0);
    const std::string lost = folder.write("lost", "#!/nonexistent/interpreter\n");
    ASSERT_EQ(chmod(lost.c_str(), 0755), 0);
    std::filesystem::create_directories(folder.file("Empty.app"));
    const std::pair<std::string, const char*> cases[] = {
        {"", "not absolute"},
        {"sleep", "not absolute"},
        {folder.file("gone"), "No such file or directory"},
        {notExecutable, "Permission denied"},
        {noFormat, "Exec format error"},
        {lost, "No such file or directory"},
        {folder.file("Empty.app"), "Contents/MacOS/Empty: No such file or directory"},
        {folder.file(""), "Permission denied"},
        {folder.write("broken.desktop", "nothing"), "broken.desktop: "},
    };
    for (const auto& [path, reason] : cases) {
        SCOPED_TRACE(path);
        log.lines.clear();
        EXPECT_EQ(start(path), 0U);
        ASSERT_EQ(log.lines.size(), 1U);
        EXPECT_THAT(log.lines.front(), HasSubstr(reason));
    }
}

std::string propertyList(const std::string& content) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + content +
           "</dict></plist>\n";
}

TEST_F(ProcessesTest, findsTheProgramOfABundle) {
    const std::string named = "<key>CFBundleExecutable</key><string>Other &amp; more</string>";
    // An empty list: none.
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"no property list", "", "Painter"},
        {"one that names it", propertyList(named), "Other & more"},
        {"one that does not", propertyList("<key>CFBundleName</key><string>x</string>"), "Painter"},
        {"a name that is no text",
         propertyList("<key>CFBundleExecutable</key><integer>3</integer>"), "Painter"},
        {"not a property list", "garbage", "Painter"},
        {"a name that leads out",
         propertyList("<key>CFBundleExecutable</key><string>../../x</string>"), ""},
        {"a name that stays", propertyList("<key>CFBundleExecutable</key><string>..</string>"), ""},
    };
    const std::string bundle = folder.file("Painter.app");
    for (const auto& [why, list, program] : cases) {
        SCOPED_TRACE(why);
        std::filesystem::remove_all(bundle);
        for (const char* name : {"Painter", "Other & more"}) {
            (void)notingProgram("Painter.app/Contents/MacOS/" + std::string(name),
                                std::string("echo '") + name + "'");
        }
        if (!list.empty()) {
            (void)folder.write("Painter.app/Contents/Info.plist", list);
        }
        const uint32_t number = start(bundle + "/");
        EXPECT_EQ(number != 0, !program.empty()) << testing::PrintToString(log.lines);
        if (number != 0) {
            EXPECT_EQ(note(), program + "\n");
            EXPECT_THAT(processes().find(bundle), Contains(number));
        }
    }
}

TEST_F(ProcessesTest, onlyAProgramOfItsOwnMakesABundleRun) {
    const std::string folderOfPrograms = folder.file("Clock.app/Contents/MacOS/");
    std::filesystem::create_directories(folderOfPrograms);
    const std::string clock = folderOfPrograms + "Clock";
    const std::string helper = folderOfPrograms + "Helper";
    const std::string replacement = folderOfPrograms + "Clock.new";
    for (const std::string& path : {clock, helper, replacement}) {
        std::filesystem::copy_file("/bin/sleep", path);
    }
    const std::string notes = folder.write("Clock.app/Contents/notes.txt", "tick\n");
    const std::string shell = program("Shell.app/Contents/MacOS/Shell", "sleep 300\n");
    (void)program("Env.app/Contents/MacOS/Env", "");
    const std::string env =
        folder.write("Env.app/Contents/MacOS/Env", "#!/usr/bin/env -S sh -e\nsleep 300\n");
    std::filesystem::create_directory_symlink(folder.file("Shell.app"), folder.file("Link.app"));
    struct Case {
        const char* why;
        std::vector<std::string> command;
        const char* bundle;
        bool runs;
        const char* startedRoot = nullptr; // in which it was started from the bundle's path
    };
    const auto sees = [&](const Case& c) {
        const pid_t number = fork();
        if (number == 0) {
            (void)setsid(); // what a shell waits for ends with it
            (void)chdir(folder.file("Shell.app").c_str());
            if (c.startedRoot != nullptr) {
                (void)setenv("CONVEY_STARTED_FROM", folder.file(c.bundle).c_str(), 1);
                (void)setenv("CONVEY_STARTED_PID", std::to_string(getpid()).c_str(), 1);
                (void)setenv("CONVEY_STARTED_ROOT", c.startedRoot, 1);
            }
            (void)dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
            std::vector<char*> words;
            for (const std::string& word : c.command) {
                words.push_back(const_cast<char*>(word.c_str()));
            }
            words.push_back(nullptr);
            execv(words[0], words.data());
            _exit(1);
        }
        // Until the child has become the command, which is what its first word then says.
        const std::string commandLine = "/proc/" + std::to_string(number) + "/cmdline";
        const std::string last = c.command.back() + '\0';
        EXPECT_TRUE(eventually([&] { return TemporaryFolder::read(commandLine).ends_with(last); }))
            << c.why;
        started.push_back(static_cast<uint32_t>(number));
        const auto finds = [&] {
            const auto found = processes().find(folder.file(c.bundle));
            return std::find(found.begin(), found.end(), static_cast<uint32_t>(number)) !=
                   found.end();
        };
        // A script's line may name a program that becomes the interpreter a moment later.
        EXPECT_EQ(c.runs ? eventually(finds) : finds(), c.runs) << c.why;
        if (c.why == std::string("its program")) {
            std::filesystem::rename(replacement, clock);
            EXPECT_TRUE(finds()) << "another file was put in its place";
        }
        EXPECT_EQ(kill(-number, SIGKILL), 0);
    };
    const std::string tail = "/usr/bin/tail";
    struct stat root {};
    ASSERT_EQ(stat("/", &root), 0);
    const std::string here = std::to_string(root.st_dev) + ":" + std::to_string(root.st_ino);
    const Case cases[] = {
        {"its program", {clock, "300"}, "Clock.app", true},
        {"a helper that lies beside it", {helper, "300"}, "Clock.app", false},
        {"who reads a file of the bundle", {tail, "-f", notes}, "Clock.app", false},
        {"who reads the program", {tail, "-f", clock}, "Clock.app", false},
        {"a script", {shell}, "Shell.app", true},
        {"a script through a link", {shell}, "Link.app", true},
        {"a script as a person types it",
         {"/bin/sh", "-e", "Contents/MacOS/Shell"},
         "Shell.app",
         true},
        {"a script that looks for its interpreter", {env}, "Env.app", true},
        {"an editor of the script", {tail, shell, "-f"}, "Shell.app", false},
        {"an editor of the other script", {tail, env, "-f"}, "Env.app", false},
        {"its interpreter with another script",
         {"/bin/sh", "-c", "sleep 300; :", shell},
         "Shell.app",
         false},
        {"what a script has become", {tail, "-f", notes}, "Shell.app", true, here.c_str()},
        {"and one that a container has there", {tail, "-f", notes}, "Shell.app", false, "0:1"},
    };
    for (const Case& c : cases) {
        sees(c);
    }
}

TEST_F(ProcessesTest, startsDesktopEntries) {
    (void)notingProgram("app", "pwd\nprintf '%s|' \"$0\" \"$@\"\necho\nps -o sid= -p $$\nenv");
    const std::string entry = folder.write(
        "painter.desktop",
        "[Desktop Entry]\nType=Application\nName=Painter of Things\nIcon=brush\nPath=" +
            folder.file("") + "\nExec=\"" + folder.file("app") +
            "\" --title %c %i %F \"two words; \\\\$HOME\" 100%% %k\n");
    const uint32_t number = start(entry);
    void* const library = dlopen("libgio-2.0.so.0", RTLD_LAZY);
    if (library == nullptr) { // as on machines whose other architecture lacks it
        EXPECT_EQ(number, 0U);
        EXPECT_THAT(log.lines, testing::ElementsAre(HasSubstr("GIO library is not installed")));
        return;
    }
    ASSERT_NE(number, 0U) << testing::PrintToString(log.lines);
    const std::string text = note();
    EXPECT_THAT(text, HasSubstr("|--title|Painter of Things|--icon|brush|two words; $HOME|100%|" +
                                entry + "|\n"));
    EXPECT_THAT(text, HasSubstr(std::filesystem::path(folder.file("x")).parent_path().string()));
    EXPECT_THAT(text, testing::ContainsRegex("\n *" + std::to_string(number) + "\n"))
        << "a session of its own";
    EXPECT_THAT(text, Not(HasSubstr("NOTIFY_SOCKET")));
    EXPECT_TRUE(processes().isRunning(number));
    EXPECT_THAT(processes().find(entry), Contains(number));
    EXPECT_EQ(start(folder.write("hollow.desktop", "[Desktop Entry]\nType=Application\nName=x\n"
                                                   "Exec=/nonexistent/program\n")),
              0U);
}

} // namespace
