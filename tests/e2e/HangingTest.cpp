// What the tool says of applications that hang.
#include <cctype>
#include <cstring>

#include "tests/e2e/ConveyToolFixture.h"

namespace {

// A sentence of the documents, with any numbers and anything for "...".
std::string patternOf(const std::string& sentence) {
    std::string pattern;
    for (size_t i = 0; i < sentence.size(); ++i) {
        const size_t digits = sentence.find_first_not_of("0123456789", i);
        if (digits != i) {
            pattern += "[0-9]+";
            i = std::min(digits, sentence.size()) - 1;
        } else if (sentence.compare(i, 3, "...") == 0) {
            pattern += ".*";
            i += 2;
        } else if (sentence.compare(i, 2, " s") == 0 && i != 0 && std::isdigit(sentence[i - 1])) {
            pattern += " (s|min [0-9]+ s)"; // not milliseconds: all have hung for some time
            ++i;
        } else {
            pattern += std::strchr(".()+*?[]{}|^$\\", sentence[i]) != nullptr ? "\\" : "";
            pattern += sentence[i];
        }
    }
    return pattern;
}

// The ways to hang that the documents list, each made with real processes, and what is said of
// them there is what the tool says.
class HangingTest : public ConveyToolTest {
protected:
    struct Application {
        const char* name;
        const char* body; // told to hang by this; null: it never pumps
        std::map<std::string, std::string> environment;
    };
    struct Verdict {
        std::string word;
        std::string pattern;
    };

    HangingTest() {
        std::istringstream table(TemporaryFolder::read(TROUBLESHOOTING));
        for (std::string line; std::getline(table, line);) {
            std::vector<std::string> cells; // "| way | `word` | `name-1.0 sentence` |"
            for (size_t at = 0; (at = line.find('`', at)) != std::string::npos;) {
                const size_t end = line.find('`', at + 1);
                cells.push_back(line.substr(at + 1, end - at - 1));
                at = end == std::string::npos ? end : end + 1;
            }
            if (cells.size() == 2 && cells[1].find("-1.0 ") != std::string::npos) {
                listed[cells[1].substr(0, cells[1].find(' '))] = {cells[0], patternOf(cells[1])};
            }
        }
        EXPECT_EQ(listed.size(), 14U) << "twelve ways, one twice, and one that does not hang";
    }

    void start(const std::vector<Application>& applications) {
        for (const Application& one : applications) {
            add(one.name);
            std::vector<std::string> arguments = {TARGET_PROGRAM, one.name};
            if (one.body == nullptr) {
                arguments.emplace_back("never");
            }
            running[one.name] = std::make_unique<RunningProcess>(arguments, one.environment);
        }
        for (const auto& [name, process] : running) {
            EXPECT_EQ(process->readLine(), "running") << name;
        }
    }
    static void send(const std::string& name, const std::string& body) {
        EXPECT_EQ(tool({"send", name, "--body", body, "--wait", "0"}).exitStatus, 0) << name;
    }
    void checkEach(const std::vector<std::string>& names) const {
        for (const std::string& name : names) {
            SCOPED_TRACE(name);
            const Verdict& verdict = listed.at(name);
            Json document;
            EXPECT_TRUE(eventually([&] {
                const ProcessResult shown =
                    tool({"diagnose", name, "--path", "/name", "--timeout", "30", "--json"});
                document = Json::parse(shown.out);
                const Json& said = document.contains("verdict") ? document["verdict"] : document;
                return said.value("word", "") == verdict.word &&
                       shown.exitStatus == (verdict.word == "idle" ? 0 : 1) &&
                       testing::Matches(testing::MatchesRegex(verdict.pattern))(
                           said.value("sentence", ""));
            })) << verdict.pattern
                << "\n"
                << document;
        }
    }
    // All in one look, each said as it is said alone.
    void checkAllAtOnce(const std::vector<std::string>& names) const {
        std::vector<std::string> command = {"doctor", "--timeout", "30", "--json"};
        command.insert(command.end(), names.begin(), names.end());
        const ProcessResult examined = tool(command);
        EXPECT_EQ(examined.exitStatus, 1);
        std::map<std::string, std::string> states; // of the applications' lines
        const Json all = Json::parse(examined.out);
        for (const Json& check : all["checks"]) {
            const auto text = check["text"].get<std::string>();
            for (const std::string& name : names) {
                if (testing::Matches(testing::MatchesRegex(listed.at(name).pattern +
                                                           "( \\(process [0-9]+\\))?"))(text)) {
                    states[name] = check["state"];
                }
            }
        }
        for (const std::string& name : names) {
            EXPECT_EQ(states[name], listed.at(name).word == "idle" ? "ok" : "wrong")
                << name << "\n"
                << examined.out;
        }
    }

    std::map<std::string, Verdict> listed; // by the application's name
    std::map<std::string, std::unique_ptr<RunningProcess>> running;
};

TEST_F(HangingTest, saysFirstWhyAnApplicationHangs) {
    const std::string elsewhere = folder.file("elsewhere");
    ASSERT_TRUE(std::filesystem::create_directory(elsewhere));
    std::filesystem::permissions(elsewhere, std::filesystem::perms::owner_all);
    const std::vector<Application> applications = {
        {"calm-1.0", "x", {}},
        {"held-1.0", "hold", {}},
        {"asking-1.0", "ask held-1.0 x", {}},
        {"left-1.0", "", {}},
        {"right-1.0", "bounce left-1.0 right-1.0", {}},
        {"one-1.0", "", {}},
        {"two-1.0", "", {}},
        {"three-1.0", "bounce one-1.0 two-1.0 three-1.0", {}},
        {"never-1.0", nullptr, {}},
        {"stuck-1.0", "stuck", {}},
        {"killed-1.0", nullptr, {}},
        {"far-1.0", "", {{"XDG_RUNTIME_DIR", elsewhere}}},
        {"alone-1.0", "", {{"OVREL_CAPS_DB", folder.file("gone.db")}}},
    };
    start(applications);
    for (const Application& one : applications) {
        if (one.body != nullptr && *one.body != '\0') {
            send(one.name, one.body);
        }
    }
    EXPECT_EQ(running["stuck-1.0"]->readLine(), "got stuck"); // else it handles the next one, too
    for (const char* name : {"held-1.0", "stuck-1.0", "never-1.0", "killed-1.0"}) {
        send(name, "what waits");
    }
    (void)running["killed-1.0"]->finish(SIGKILL);
    const std::vector<std::string> names = {"calm-1.0",  "held-1.0",  "asking-1.0", "right-1.0",
                                            "three-1.0", "never-1.0", "stuck-1.0",  "killed-1.0",
                                            "far-1.0",   "alone-1.0"};
    checkEach(names);
    checkAllAtOnce(names);
}

// A send waits ten seconds for a target that takes nothing, before it leaves the message to others.
TEST_F(HangingTest, followsWhoTakesNothing) {
    start({{"halted-1.0", "", {}},
           {"giver-1.0", "", {}},
           {"full-1.0", nullptr, {}},
           {"pushing-1.0", "", {}}});
    running["halted-1.0"]->signal(SIGSTOP);
    send("giver-1.0", "flood halted-1.0");
    send("pushing-1.0", "push full-1.0"); // then in one send or the next, most of the time
    checkEach({"halted-1.0", "full-1.0", "pushing-1.0", "giver-1.0"});
    // From outside, too: of connections that it has not accepted, either.
    const Json ports = json({"ports"})["ports"];
    const auto port = std::find_if(ports.begin(), ports.end(),
                                   [](const Json& one) { return one["name"] == "halted-1.0"; });
    ASSERT_NE(port, ports.end()) << ports;
    EXPECT_GE(port->value("connections", 0), 1) << ports;
    EXPECT_GE(port->value("waitingBytes", 0), 60'000) << ports;
    checkAllAtOnce({"halted-1.0", "giver-1.0", "full-1.0"});
}

} // namespace
