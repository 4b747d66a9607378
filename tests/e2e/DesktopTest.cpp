#include <array>

#include "platform/Desktop.h"
#include "platform/Processes.h"
#include "platform/linux/WindowManager.h"
#include "scriptobjects/convey/SoCVLauncher.h"
#include "tests/e2e/Scene.h"

namespace {

using ScObjects::ConveyUtils::Launcher;

// An X server of the test's own with a real window manager, two applications with a window each.
// Pictures of what is shown go to the folder $CONVEY_ARTIFACTS, when that is set.
class DesktopTest : public Scene {
protected:
    void SetUp() override {
        // The server chooses a display that is free and writes its number down.
        const std::string number = folder.file("display");
        server = std::make_unique<RunningProcess>(std::vector<std::string>{
            "/bin/sh", "-c",
            "exec " XVFB " -noreset -displayfd 3 -screen 0 640x480x24 -nolisten tcp 3> '" + number +
                "' 2>&1"});
        ASSERT_TRUE(eventually([&] { return TemporaryFolder::read(number).ends_with('\n'); }));
        std::string display = ":" + TemporaryFolder::read(number);
        display.pop_back();
        setenv("DISPLAY", display.c_str(), 1);
        unsetenv("WAYLAND_DISPLAY");
        EXPECT_EQ(platform::WindowManager::connect(), nullptr) << "there is none yet";
        EXPECT_FALSE(platform::Desktop::own().bringToFront(1));
        // What comes to openbox before it is ready may wait until something else comes.
        const std::string ready = folder.file("ready");
        manager = std::make_unique<RunningProcess>(
            std::vector<std::string>{OPENBOX, "--sm-disable", "--startup", "/bin/touch " + ready});
        ASSERT_TRUE(eventually([&] { return std::filesystem::exists(ready); }));
        windows = platform::WindowManager::connect();
        ASSERT_NE(windows, nullptr);
        red = launch("red", "d03030", Launcher::kInFront);
        ASSERT_TRUE(eventually([&] { return isActive(red); }));
    }
    void TearDown() override {
        for (const uint32_t process : processes) {
            (void)kill(static_cast<pid_t>(process), SIGKILL);
        }
    }
    // Holds for half a second on end: a window that takes the focus is put back a moment later.
    template <class Condition>
    static bool comesToStay(Condition holds) {
        int inARow = 0;
        for (int i = 0; i < 1000 && inARow < 50; ++i) {
            inARow = holds() ? inARow + 1 : 0;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return inARow == 50;
    }

    uint32_t launch(const std::string& name, const std::string& colour, Launcher::Focus focus) {
        const std::string bundle = folder.file(name + ".app");
        std::filesystem::create_directories(bundle + "/Contents/MacOS");
        const std::string program =
            folder.write(name + ".app/Contents/MacOS/" + name,
                         "#!/bin/sh\nexec '" WINDOW_PROGRAM "' " + name + " " + colour + "\n");
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
        uint32_t process = 0;
        EXPECT_TRUE(Launcher::launch(name.c_str(), bundle.c_str(), nullptr, focus, &process));
        processes.push_back(process);
        return process;
    }
    std::vector<uint32_t> windowsOf(uint32_t process) const {
        return windows->windowsOf([process](uint32_t other) { return other == process; });
    }
    bool isActive(uint32_t process) const {
        const auto own = windowsOf(process);
        return !own.empty() && windows->activeWindow() == own.front();
    }
    // The process whose window is on top.
    uint32_t onTop() const {
        uint32_t last = 0;
        (void)windows->windowsOf([&last](uint32_t process) {
            last = process;
            return true;
        });
        return last;
    }
    void takePicture(const char* name) const {
        const char* const kept = std::getenv("CONVEY_ARTIFACTS");
        const std::string path = (kept != nullptr ? kept : folder.file("")) + "/" + name + ".png";
        const ProcessResult taken = runProcess({IMPORT, "-window", "root", path});
        EXPECT_EQ(taken.exitStatus, 0) << taken.err;
        EXPECT_GT(std::filesystem::file_size(path), 0U);
    }

    std::unique_ptr<RunningProcess> server;
    std::unique_ptr<RunningProcess> manager;
    std::unique_ptr<platform::WindowManager> windows;
    std::vector<uint32_t> processes;
    uint32_t red = 0;
};

TEST_F(DesktopTest, aWindowOpensInFrontOrBehindAndIsRaised) {
    const uint32_t green = launch("green", "30a030", Launcher::kInFront);
    EXPECT_TRUE(eventually([&] { return isActive(green) && onTop() == green; }));

    const uint32_t blue = launch("blue", "3030d0", Launcher::kBehind);
    EXPECT_TRUE(eventually([&] { return !windowsOf(blue).empty(); }));
    EXPECT_TRUE(comesToStay([&] { return isActive(green) && onTop() == green; }));
    takePicture("launched-behind");

    Launcher::bringToFront(folder.file("blue.app").c_str(), Launcher::kByBundlePath);
    EXPECT_TRUE(eventually([&] { return isActive(blue) && onTop() == blue; }));
    takePicture("brought-to-front");

    Launcher::bringToFront(folder.file("red.app").c_str(), static_cast<Launcher::SearchHint>(1));
    Launcher::bringToFront(folder.file("gone.app").c_str(), Launcher::kByBundlePath);
    EXPECT_FALSE(platform::Desktop::own().bringToFront(platform::Processes::own().ownNumber()))
        << "no window";
    EXPECT_TRUE(isActive(blue));

    uint32_t again = 0;
    EXPECT_TRUE(Launcher::launch("red", folder.file("red.app").c_str(), nullptr, Launcher::kInFront,
                                 &again));
    EXPECT_EQ(again, red) << "a bundle that runs is raised";
    EXPECT_TRUE(eventually([&] { return isActive(red); }));
}

TEST_F(DesktopTest, aServerThatDoesNotAnswerHoldsNobodyUpForLong) {
    server->signal(SIGSTOP);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(platform::Desktop::own().bringToFront(red));
    EXPECT_EQ(platform::Desktop::own().frontWindow(), 0U);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    server->signal(SIGCONT);
}

TEST_F(DesktopTest, withoutADisplayNothingHappens) {
    unsetenv("DISPLAY");
    EXPECT_FALSE(platform::Desktop::own().bringToFront(red));
    EXPECT_EQ(platform::Desktop::own().frontWindow(), 0U);
    uint32_t process = 0;
    const std::string sleeper = folder.write("sleeper", "#!/bin/sh\nexec sleep 60\n");
    std::filesystem::permissions(sleeper, std::filesystem::perms::owner_all);
    EXPECT_TRUE(Launcher::launch("x", sleeper.c_str(), nullptr, Launcher::kBehind, &process));
    processes.push_back(process);
    EXPECT_TRUE(Launcher::isProcessRunning(process));
}

} // namespace
