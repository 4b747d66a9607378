#include <nlohmann/json.hpp>

#include "tests/e2e/Scene.h"

namespace {

using testing::Contains;
using testing::Matches;
using testing::MatchesRegex;
using testing::StartsWith;
using Json = nlohmann::json;

// A program on a terminal of its own, which tmux plays: what a person sees there.
class Terminal {
public:
    // On what a shell has written before, and says behind it how the program has ended.
    Terminal(const TemporaryFolder& folder, const std::string& command, int columns)
        : socket_(folder.file("tmux" + std::to_string(++made_))),
          server_({TMUX, "-u", "-D", "-f", "/dev/null", "-S", socket_}, {{"TMUX", ""}}) {
        for (int looks = 0; looks < 3000 && !std::filesystem::is_socket(socket_); ++looks) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        (void)tmux({"new-session", "-d", "-x", std::to_string(columns), "-y", "12",
                    "echo before; " + command + "; echo status $?; exec cat"});
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    void resize(int columns) const {
        (void)tmux({"resize-window", "-x", std::to_string(columns), "-y", "12"});
    }
    void press(const char* key) const { (void)tmux({"send-keys", key}); }
    // The lines that are shown now; with the sequences that say how they look.
    std::vector<std::string> lines(bool withLook = false) const {
        std::istringstream shown(tmux({"capture-pane", withLook ? "-pe" : "-p"}));
        std::vector<std::string> all;
        for (std::string line; std::getline(shown, line);) {
            all.push_back(line);
        }
        return all;
    }

private:
    std::string tmux(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {TMUX, "-u", "-S", socket_});
        const ProcessResult result = runProcess(arguments, {{"TMUX", ""}});
        EXPECT_EQ(result.exitStatus, 0) << testing::PrintToString(arguments) << result.err;
        return result.out;
    }
    static inline int made_ = 0; // what ends must not be met by what begins
    const std::string socket_;
    RunningProcess server_; // not in the background, where a test that is killed would leave it
};

// An application that is well, one that is stopped and one that never handles what it gets.
class TopTest : public Scene {
protected:
    TopTest() {
        unsetenv("NO_COLOR");
        unsetenv("COLUMNS");
        unsetenv("LINES");
        setenv("LC_ALL", "C.UTF-8", 1);
        for (const char* name : {"anvil-1.0", "middle-1.0", "zebra-1.0"}) {
            add(name);
        }
        anvil = host("anvil-1.0", {"--quiet"});
        middle = host("middle-1.0", {"--quiet"});
        zebra = started({TARGET_PROGRAM, "zebra-1.0", "never"});
        EXPECT_EQ(runProcess({CONVEY_PROGRAM, "send", "zebra-1.0", "--body", "x", "--wait", "0"})
                      .exitStatus,
                  0);
        middle->signal(SIGSTOP);
    }
    static std::vector<std::string> command() {
        return {CONVEY_PROGRAM, "top", "--interval", "0.2"};
    }
    static std::string commandLine() { return "'" CONVEY_PROGRAM "' top --interval 0.2"; }
    std::string row(const char* name, const RunningProcess& process, const char* state) const {
        return std::string(name) + " +" + std::to_string(process.pid()) + " " + state + " .*";
    }

    static void ends(const Terminal& terminal, const char* key, const char* status) {
        const auto start = std::chrono::steady_clock::now();
        terminal.press(key);
        EXPECT_TRUE(eventually([&] { return Matches(Contains(status))(terminal.lines()); }));
        // A tenth of a second on a machine with nothing else to do.
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    }

    std::unique_ptr<RunningProcess> anvil;
    std::unique_ptr<RunningProcess> middle;
    std::unique_ptr<RunningProcess> zebra;
};

TEST_F(TopTest, showsWhoRunsOnATerminal) {
    const Terminal terminal(folder, commandLine() + " --sort name", 80);
    const std::vector<std::string> rows = {row("anvil-1.0", *anvil, "idle"),
                                           row("middle-1.0", *middle, "stopped"),
                                           row("zebra-1.0", *zebra, "unpumped")};
    std::vector<std::string> lines;
    const auto shows = [&](const char* order, const std::vector<std::string>& expected) {
        return eventually([&] {
            lines = terminal.lines();
            lines.resize(12);
            bool all = Matches(StartsWith(std::string("3 run, by ") + order + ";"))(lines[0]) &&
                       Matches(StartsWith("APPLICATION "))(lines[1]);
            for (size_t i = 0; i < expected.size(); ++i) {
                all = all && Matches(MatchesRegex(expected[i]))(lines[i + 2]);
            }
            return all;
        });
    };
    EXPECT_TRUE(shows("name", rows)) << testing::PrintToString(lines);
    terminal.press("w");
    EXPECT_TRUE(shows("waiting", {rows[2]})) << testing::PrintToString(lines);
    terminal.press("n");
    EXPECT_TRUE(shows("name", rows)) << testing::PrintToString(lines);
    terminal.resize(120); // as wide as this, it has room for the programs
    EXPECT_TRUE(shows("name", {rows[0] + " host", rows[1] + " host", rows[2] + " target_program"}))
        << testing::PrintToString(lines);
    ends(terminal, "q", "status 0");
}

TEST_F(TopTest, marksWhatIsWrongByColourWhereItMay) {
    for (const bool plain : {false, true}) {
        SCOPED_TRACE(plain);
        if (plain) {
            setenv("NO_COLOR", "1", 1);
        }
        const Terminal terminal(folder, commandLine(), 80);
        std::string shown;
        const auto isMarked = [&](const char* name) { // a look lasts until the next one
            const std::string before = shown.substr(0, shown.find(name));
            const auto last = [&](const char* look) { return before.rfind(look) + 1; };
            return last(plain ? "\033[7m" : "\033[31m") >
                   std::max(last("\033[0m"), last("\033[39m"));
        };
        EXPECT_TRUE(eventually([&] {
            shown.clear();
            for (const std::string& line : terminal.lines(true)) {
                shown += line + "\n";
            }
            return shown.find("unpumped") != std::string::npos && isMarked("zebra-1.0") &&
                   !isMarked("anvil-1.0");
        })) << shown;
        EXPECT_EQ(shown.find("\033[31m") == std::string::npos, plain);
        ends(terminal, "C-c", "status 130");
        EXPECT_EQ(terminal.lines()[0], "before") << "what was there before is back";
    }
}

TEST_F(TopTest, tellsOnceAsJson) {
    Json all;
    EXPECT_TRUE(eventually([&] {
        std::vector<std::string> once = command();
        once.emplace_back("--json");
        all = Json::parse(runProcess(once).out);
        return all.size() == 3 && all[0]["state"] == "idle" && all[2]["state"] == "unpumped";
    })) << all;
    EXPECT_EQ(all[0]["specifier"], "anvil-1.0");
    EXPECT_EQ(all[0]["process"], anvil->pid());
    EXPECT_GT(all[0]["memoryBytes"], 0);
    EXPECT_GE(all[0]["answerMilliseconds"], 0.0);
    EXPECT_EQ(all[1]["state"], "stopped");
    EXPECT_TRUE(all[1]["incoming"].is_null()) << "it cannot say";
    EXPECT_GE(all[2]["incoming"], 1);
}

} // namespace
