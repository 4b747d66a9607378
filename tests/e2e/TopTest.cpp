#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/e2e/Scene.h"

namespace {

using testing::HasSubstr;
using testing::Matches;
using testing::MatchesRegex;
using testing::StartsWith;
using Json = nlohmann::json;

// A program on a terminal of its own, and what that shows: of the sequences those of a VT52, which
// are few; of another type of terminal, the bytes alone.
class Terminal {
public:
    Terminal(const std::vector<std::string>& command, unsigned short columns) {
        std::vector<char*> arguments;
        for (const std::string& word : command) {
            arguments.push_back(const_cast<char*>(word.c_str()));
        }
        arguments.push_back(nullptr);
        winsize size = sized(columns);
        pid_ = forkpty(&terminal_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            execv(arguments[0], arguments.data());
            _exit(127);
        }
        EXPECT_EQ(fcntl(terminal_, F_SETFL, O_NONBLOCK), 0);
    }
    ~Terminal() {
        if (pid_ > 0) {
            (void)kill(pid_, SIGKILL);
            (void)waitpid(pid_, nullptr, 0);
        }
        (void)close(terminal_);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    void resize(unsigned short columns) const {
        const winsize size = sized(columns);
        EXPECT_EQ(ioctl(terminal_, TIOCSWINSZ, &size), 0);
    }
    void press(char key) const { EXPECT_EQ(write(terminal_, &key, 1), 1); }

    // The lines that are shown now, without blanks at their ends.
    std::vector<std::string> lines() {
        char text[4096];
        for (ssize_t n = 0; (n = read(terminal_, text, sizeof text)) > 0;) {
            for (const char each : std::string_view(text, static_cast<size_t>(n))) {
                take(each);
            }
        }
        std::vector<std::string> shown = screen_;
        for (std::string& line : shown) {
            line.erase(line.find_last_not_of(' ') + 1);
        }
        return shown;
    }
    const std::string& bytes() const { return bytes_; }
    bool hasEnded() {
        (void)lines(); // it may wait for its last words to be read
        int status = 0;
        if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        return pid_ < 0;
    }

    int exitStatus = -1;

private:
    static constexpr unsigned short kLines = 12;

    static winsize sized(unsigned short columns) {
        winsize size{};
        size.ws_row = kLines;
        size.ws_col = columns;
        return size;
    }
    void take(char c) {
        bytes_ += c;
        if (sequence_ == "\033Y") {
            row_ = static_cast<size_t>(c - ' ');
            sequence_ += c;
        } else if (sequence_.size() == 3) {
            column_ = static_cast<size_t>(c - ' ');
            sequence_.clear();
        } else if (sequence_ == "\033") {
            sequence_ = c == 'Y' ? "\033Y" : "";
            column_ = c == 'H' ? 0 : c == 'C' ? column_ + 1 : c == 'D' ? column_ - 1 : column_;
            row_ = c == 'H' ? 0 : c == 'A' ? row_ - 1 : c == 'B' ? row_ + 1 : row_;
            if (c == 'J' || c == 'K') { // the rest: of the screen, of the line
                screen_.at(row_).resize(column_);
                screen_.resize(c == 'J' ? row_ + 1 : kLines);
                screen_.resize(kLines);
            }
        } else if (c == '\033') {
            sequence_ = c;
        } else if (c == '\r' || c == '\b') {
            column_ = c == '\r' ? 0 : column_ - 1;
        } else if (c == '\n') {
            row_ += row_ + 1 < kLines ? 1 : 0;
        } else if (c >= ' ') {
            std::string& line = screen_.at(std::min<size_t>(row_, kLines - 1));
            line.resize(std::max(line.size(), column_ + 1), ' ');
            line[column_++] = c;
        }
    }

    pid_t pid_ = -1;
    int terminal_ = -1;
    std::string bytes_;
    std::string sequence_; // as far as it has come
    std::vector<std::string> screen_ = std::vector<std::string>(kLines);
    size_t row_ = 0;
    size_t column_ = 0;
};

// The sequence that says how the text at `position` looks.
std::string lookAt(const std::string& bytes, size_t position) {
    while ((position = bytes.rfind("\033[", position - 1)) != std::string::npos) {
        const size_t end = bytes.find_first_not_of("0123456789;", position + 2);
        if (bytes[end] == 'm') {
            return bytes.substr(position, end + 1 - position);
        }
    }
    return "";
}

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
    std::string row(const char* name, const RunningProcess& process, const char* state) const {
        return std::string(name) + " +" + std::to_string(process.pid()) + " " + state + " .*";
    }

    static void ends(Terminal& terminal, char key, int status) {
        const auto start = std::chrono::steady_clock::now();
        terminal.press(key);
        EXPECT_TRUE(eventually([&] { return terminal.hasEnded(); }));
        // A tenth of a second on a machine with nothing else to do.
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        EXPECT_EQ(terminal.exitStatus, status);
    }

    std::unique_ptr<RunningProcess> anvil;
    std::unique_ptr<RunningProcess> middle;
    std::unique_ptr<RunningProcess> zebra;
};

TEST_F(TopTest, showsWhoRunsOnATerminal) {
    setenv("TERM", "vt52", 1);
    std::vector<std::string> sorted = command();
    sorted.insert(sorted.end(), {"--sort", "name"});
    Terminal terminal(sorted, 80);
    const std::vector<std::string> rows = {row("anvil-1.0", *anvil, "idle"),
                                           row("middle-1.0", *middle, "stopped"),
                                           row("zebra-1.0", *zebra, "unpumped")};
    std::vector<std::string> lines;
    const auto shows = [&](const char* order, const std::vector<std::string>& expected) {
        return eventually([&] {
            lines = terminal.lines();
            bool all = Matches(StartsWith(std::string("3 run, by ") + order + ";"))(lines[0]) &&
                       Matches(StartsWith("APPLICATION "))(lines[1]);
            for (size_t i = 0; i < expected.size(); ++i) {
                all = all && Matches(MatchesRegex(expected[i]))(lines[i + 2]);
            }
            return all;
        });
    };
    EXPECT_TRUE(shows("name", rows)) << testing::PrintToString(lines);
    terminal.press('w');
    EXPECT_TRUE(shows("waiting", {rows[2]})) << testing::PrintToString(lines);
    terminal.press('n');
    EXPECT_TRUE(shows("name", rows)) << testing::PrintToString(lines);
    terminal.resize(120); // as wide as this, it has room for the programs
    EXPECT_TRUE(shows("name", {rows[0] + " host", rows[1] + " host", rows[2] + " target_program"}))
        << testing::PrintToString(lines);
    ends(terminal, 'q', 0);
}

TEST_F(TopTest, marksWhatIsWrongByColourWhereItMay) {
    setenv("TERM", "xterm", 1);
    for (const bool plain : {false, true}) {
        SCOPED_TRACE(plain);
        if (plain) {
            setenv("NO_COLOR", "1", 1);
        }
        Terminal terminal(command(), 80);
        const std::string& bytes = terminal.bytes();
        const auto isMarked = [&](const char* name) { // as it was drawn last
            return lookAt(bytes, bytes.rfind(name)) == (plain ? "\033[0;7m" : "\033[31m");
        };
        EXPECT_TRUE(eventually([&] {
            (void)terminal.lines();
            return bytes.find("unpumped") != std::string::npos && isMarked("zebra-1.0") &&
                   !isMarked("anvil-1.0");
        })) << bytes;
        EXPECT_EQ(bytes.find("\033[31m") == std::string::npos, plain);
        constexpr char kControlC = 3;
        ends(terminal, kControlC, 130);
        EXPECT_THAT(terminal.bytes(), HasSubstr("\033[?1049l")) << "what was there before is back";
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
