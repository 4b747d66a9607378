#include <sys/stat.h>

#include "tests/e2e/Scene.h"

namespace {

using testing::HasSubstr;
using testing::Not;

// Hosts that launch others, on a registry of the test's own. What is launched writes its output to
// the file "log" and its number to "pids".
class LaunchTest : public Scene {
protected:
    ~LaunchTest() override {
        std::ifstream pids(folder.file("pids"));
        for (pid_t pid = 0; pids >> pid;) {
            (void)kill(pid, SIGKILL); // gone already is as well
        }
    }
    std::string script(const std::string& name, const std::string& commands) const {
        std::filesystem::create_directories(std::filesystem::path(folder.file(name)).parent_path());
        const std::string path = folder.write(
            name, "#!/bin/sh\necho $$ >> '" + folder.file("pids") + "'\n" + commands + "\n");
        EXPECT_EQ(chmod(path.c_str(), 0755), 0);
        return path;
    }
    std::string asHost(const std::string& specifier) const {
        return "exec '" HOST "' " + specifier + " >> '" + folder.file("log") + "' 2>&1";
    }
    // The bundle of an application that is a host.
    std::string bundle(const std::string& name, const std::string& specifier) const {
        (void)script(name + ".app/Contents/MacOS/" + name, asHost(specifier));
        return folder.file(name + ".app");
    }
    static ProcessResult launch(const std::string& target, const std::string& parameters = "",
                                const std::string& own = "kivra-7.0") {
        return runProcess({HOST, own, "--launch", target, "good day", parameters});
    }
    std::string log() const { return TemporaryFolder::read(folder.file("log")); }
    size_t started() const {
        const std::string pids = TemporaryFolder::read(folder.file("pids"));
        return static_cast<size_t>(std::count(pids.begin(), pids.end(), '\n'));
    }
};

TEST_F(LaunchTest, aTargetThatDoesNotRunGetsItsParametersAndTheMessage) {
    add("painter-1.0", bundle("Painter", "painter-1.0"));
    const ProcessResult first = launch("painter", "-open \"a picture.png\" `touch owned` $(id)");
    EXPECT_EQ(first.exitStatus, 0) << first.err;
    EXPECT_THAT(first.out, HasSubstr("result: echo: good day\n"));
    EXPECT_THAT(log(), HasSubstr("launched with: -specifier painter-1.0 -nostartupscreen -open \"a "
                                 "picture.png\" `touch owned` $(id)\n"));
    EXPECT_THAT(log(), HasSubstr("kivra-7.0 Tessaly: good day\n"));
    EXPECT_FALSE(std::filesystem::exists(folder.file("owned")));
    EXPECT_THAT(launch("painter").out, HasSubstr("result: echo: good day\n"));
    EXPECT_EQ(started(), 1U) << "it runs now";
}

TEST_F(LaunchTest, programsAndThoseThatAreSlowToStart) {
    add("program-1.0", script("program", asHost("program-1.0")));
    EXPECT_THAT(launch("program-1.0").out, HasSubstr("result: echo: good day\n"));
    EXPECT_THAT(log(), HasSubstr("launched with: -specifier program-1.0 -nostartupscreen\n"));

    add("slow-1.0", script("slow", "sleep 2\n" + asHost("slow-1.0")));
    EXPECT_THAT(launch("slow-1.0").out, HasSubstr("result: echo: good day\n"));
}

TEST_F(LaunchTest, aLaunchThatFailsSaysSoAndKeepsNobodyWaiting) {
    const std::string notExecutable = folder.write("data", "#!/bin/sh\n");
    add("gone-1.0", folder.file("Gone.app"));
    add("data-1.0", notExecutable);
    for (const char* target : {"gone-1.0", "data-1.0"}) {
        SCOPED_TRACE(target);
        const ProcessResult result = launch(target);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(result.out, "no answer\n");
    }
    EXPECT_THAT(launch("data-1.0").err, HasSubstr("/data: Permission denied\n"));
    RunningProcess launcher({HOST, "kivra-7.0", "--launch-behind", "data-1.0"});
    EXPECT_EQ(launcher.readLine(), "not launched");
    RunningProcess byHand({HOST, "data-1.0"});
    EXPECT_EQ(byHand.readLine(), "running as data-1.0");
}

TEST_F(LaunchTest, aLauncherThatDiesHoldsUpNobodyForLong) {
    add("crash-1.0", script("crash", "exit 1"));
    RunningProcess launcher({HOST, "kivra-7.0", "--launch-behind", "crash-1.0"});
    EXPECT_EQ(launcher.readLine(), "launched");
    // Started by hand, it finds that parameters wait, though none are for it.
    RunningProcess byHand({HOST, "crash-1.0"});
    const std::string queue = "crash#" + std::to_string(byHand.pid()) + ".lock";
    EXPECT_TRUE(eventually([&] {
        const std::filesystem::directory_iterator ports(folder.file("convey"));
        return std::any_of(begin(ports), end(ports), [&](const auto& entry) {
            return entry.path().string().find(queue) != std::string::npos;
        });
    })) << "it does not wait";
    // With the launcher the port goes that says so; it waits for minutes otherwise.
    launcher.signal(SIGKILL);
    EXPECT_EQ(byHand.readLine(), "running as crash-1.0");
}

TEST_F(LaunchTest, opensWebAddresses) {
    (void)script("bin/xdg-open", "printf '%s|' \"$@\" >> '" + folder.file("opened.new") +
                                     "'\nmv '" + folder.file("opened.new") + "' '" +
                                     folder.file("opened") + "'");
    const ProcessResult added =
        runProcess({OVREL_CAPS_TOOL, "add-app", "gallery-1.0", "--set",
                    "ExecutableBasename=https://gallery.ovrel.example/app"});
    ASSERT_EQ(added.exitStatus, 0) << added.err;
    setenv("PATH", ("/nonexistent::relative:" + folder.file("bin") + ":/usr/bin:/bin").c_str(), 1);
    RunningProcess launcher({HOST, "kivra-7.0", "--launch-behind", "gallery-1.0"});
    EXPECT_EQ(launcher.readLine(), "launched");
    const auto opened = [this](const std::string& sender) {
        const std::string path = folder.file("opened");
        EXPECT_TRUE(eventually([&] { return std::filesystem::exists(path); }));
        EXPECT_THAT(TemporaryFolder::read(path),
                    HasSubstr("https://gallery.ovrel.example/app?sender=" + sender));
        std::filesystem::remove(path);
    };
    opened("kivra-7.0|");

    // From the command line, where nobody would come for parameters.
    const ProcessResult web = runProcess({CONVEY_PROGRAM, "launch", "--wait", "300", "gallery"});
    EXPECT_EQ(web.exitStatus, 0) << web.err;
    EXPECT_EQ(web.out, "launched gallery-1.0 in the browser\n");
    opened("convey");
    const ProcessResult given = runProcess({CONVEY_PROGRAM, "launch", "gallery", "-open", "x"});
    EXPECT_EQ(given.exitStatus, 1);
    EXPECT_THAT(given.err, HasSubstr("takes no parameters"));
    opened("convey");
    std::filesystem::remove(folder.file("bin/xdg-open"));
    EXPECT_EQ(runProcess({CONVEY_PROGRAM, "launch", "gallery"}, {{"PATH", folder.file("bin")}})
                  .exitStatus,
              1)
        << "no browser";
}

TEST_F(LaunchTest, theToolWaitsForNothingWhenItIsToldSo) {
    add("deaf-1.0", script("deaf", "exec sleep 300"));
    const ProcessResult result = runProcess({CONVEY_PROGRAM, "launch", "--wait", "0", "deaf"});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("launched deaf-1.0, process "));
    add("deaf-2.0", script("deafer", "exec sleep 300"));
    EXPECT_EQ(runProcess({CONVEY_PROGRAM, "launch", "--wait", "1", "deaf-2.0"}).exitStatus, 1)
        << "one that waits says that nothing was taken";
}

// Two names for one bundle, whose one process launches the other name: a second process.
TEST_F(LaunchTest, theCallersOwnBundleIsStartedAgain) {
    const std::string bundle = folder.file("Kivra.app");
    (void)script("Kivra.app/Contents/MacOS/Kivra",
                 "exec \"${0%/*}/program\" lumen-2.0 >> '" + folder.file("log") + "' 2>&1");
    std::filesystem::copy_file(HOST, bundle + "/Contents/MacOS/program");
    std::filesystem::create_directory_symlink(
        std::filesystem::path(OVREL_CAPS_LIBRARY).parent_path(),
        folder.file("ovrel_caps.framework"));
    add("kivra-7.0", bundle);
    add("lumen-2.0", bundle);
    const ProcessResult result = runProcess(
        {bundle + "/Contents/MacOS/program", "kivra-7.0", "--launch", "lumen-2.0", "good day"});
    EXPECT_THAT(result.out, HasSubstr("result: echo: good day\n")) << result.err;
    EXPECT_EQ(started(), 1U);
}

TEST_F(LaunchTest, tenLaunchersAtOnceAllGetAnAnswer) {
    add("painter-1.0", bundle("Painter", "painter-1.0"));
    std::vector<std::unique_ptr<RunningProcess>> launchers;
    for (int i = 0; i < 10; ++i) {
        launchers.push_back(std::make_unique<RunningProcess>(
            std::vector<std::string>{HOST, "launcher" + std::to_string(i) + "-1.0", "--launch",
                                     "painter-1.0", "good day", "-from " + std::to_string(i)}));
    }
    for (const auto& launcher : launchers) {
        EXPECT_EQ(launcher->finish(), 0);
        EXPECT_THAT(launcher->rest(), HasSubstr("result: echo: good day\n"));
    }
    EXPECT_GE(started(), 1U);
    EXPECT_THAT(log(), HasSubstr("launched with: -specifier painter-1.0"));
}

} // namespace
