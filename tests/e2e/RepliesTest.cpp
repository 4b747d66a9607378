// Requests and replies between processes, by the messenger: what becomes of a request, whatever
// its target does with the reply.

#include "scriptobjects/convey/SoConvey.h"
#include "tests/e2e/Scene.h"

namespace {

using ScObjects::Convey;
using Outcome = Convey::Outcome;

constexpr const char* kTarget = "target-1.0";

std::string shown(const Outcome& outcome) {
    return std::to_string(outcome.kind()) + " " + std::to_string(outcome.code()) + " " +
           outcome.text().c_str();
}
const std::string kAnswered = "0 0 kept answer";

class RepliesTest : public Scene {
protected:
    static std::unique_ptr<RunningProcess> target() { return started({TARGET_PROGRAM, kTarget}); }
    // Asks, and counts what comes of it.
    void ask(const char* body) {
        asked.push_back(asker.request(kTarget, body)
                            .onOutcome([this](const Outcome& how) { ++heard[shown(how)]; })
                            .send());
    }
    // Until these outcomes, and no others, have been heard.
    bool hears(const std::map<std::string, int>& expected) {
        return eventually([&] {
            (void)Convey::pumpOrWait(1);
            return heard == expected;
        });
    }

    Convey::Messenger asker{"asker-1.0"};
    std::vector<Convey::Pending> asked;
    std::map<std::string, int> heard;
};

TEST_F(RepliesTest, whateverBecomesOfTheReplyTheAskerHearsOnce) {
    auto running = target();
    const std::pair<const char*, const char*> cases[] = {
        {"x", "0 0 answer"},
        {"drop", "1 64 ERROR: NOT ANSWERED"},
        {"throw", "1 61 ERROR: HANDLER FAILED"},
    };
    for (const auto& [body, expected] : cases) {
        EXPECT_EQ(shown(asker.request(kTarget, body).wait()), expected) << body;
        EXPECT_EQ(running->readLine(), std::string("got ") + body);
    }
    // Kept, the target goes on with others; from another thread it answers them.
    ask("keep");
    ask("keep");
    EXPECT_EQ(shown(asker.request(kTarget, "y").wait()), "0 0 answer");
    EXPECT_EQ(Convey::Thread::ping(kTarget, nullptr, 30, nullptr), "ECHO_RESPONSE");
    EXPECT_TRUE(heard.empty());
    EXPECT_EQ(shown(asker.request(kTarget, "give").wait()), "0 0 answer");
    EXPECT_TRUE(hears({{kAnswered, 2}}));
    // What is owed when the application ends is answered; after that nothing is.
    heard.clear();
    ask("keep");
    EXPECT_EQ(shown(asker.request(kTarget, "end").wait()), "0 0 answer");
    EXPECT_TRUE(hears({{"1 62 ERROR: TARGET HAS ENDED", 1}}));
    for (const char* line : {"got y", "got give", "got end", "too late: 0"}) {
        EXPECT_EQ(running->readLine(), line);
    }
}

TEST_F(RepliesTest, tenThousandAreInFlightAndSomeAreCancelled) {
    auto running = target();
    const auto count = static_cast<int>(scaled(10'000));
    for (int i = 0; i < count; ++i) {
        ask("keep");
        (void)Convey::pump(ScObjects::kProcessBoth);
    }
    EXPECT_TRUE(heard.empty());
    for (int i = 0; i < count; i += 10) { // every tenth, and some while the answers come
        asked[static_cast<size_t>(i)].cancel();
    }
    EXPECT_EQ(shown(asker.request(kTarget, "give").wait()), "0 0 answer");
    EXPECT_TRUE(hears({{kAnswered, count - count / 10}}));
    // Killed with as many, each is told.
    asked.clear();
    heard.clear();
    for (int i = 0; i < count / 10; ++i) {
        ask("keep");
    }
    EXPECT_EQ(shown(asker.request(kTarget, "x").wait()), "0 0 answer");
    running->signal(SIGKILL);
    EXPECT_TRUE(hears({{"1 62 ERROR: TARGET HAS ENDED", count / 10}}));
}

TEST_F(RepliesTest, anAskerThatHasDiedCostsItsTargetNothing) {
    auto running = target();
    auto other = started({TARGET_PROGRAM, "other-1.0"});
    // The other one asks, and dies while it is owed the answer.
    const auto pending = asker.request("other-1.0", "ask target-1.0 keep").send();
    EXPECT_EQ(other->readLine(), "got ask target-1.0 keep");
    EXPECT_TRUE(eventually([] {
        const auto state = Convey::Thread::ping(kTarget, "DIAGNOSTICS", 30, nullptr);
        return state.view().find("Replies owed;1;") != std::string_view::npos;
    }));
    (void)other->finish(SIGKILL);
    ask("keep");
    EXPECT_EQ(shown(asker.request(kTarget, "give").wait()), "0 0 answer");
    EXPECT_TRUE(hears({{kAnswered, 1}}));
    const auto state = Convey::Thread::ping(kTarget, "DIAGNOSTICS", 30, nullptr);
    EXPECT_EQ(state.view().find("Replies owed"), std::string_view::npos) << state.c_str();
}

// The same interface in C, and the two with each other.
TEST_F(RepliesTest, theCInterfaceAsksAndAnswers) {
    RunningProcess clock({CLOCK, "clock-1.0"});
    ASSERT_EQ(clock.readLine(), "running as clock-1.0");
    const auto outcome = asker.request("clock-1.0", "time").wait();
    EXPECT_TRUE(outcome.isResult());
    EXPECT_EQ(outcome.text().length(), 8) << outcome.text().c_str();
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"clock-1.0", "drop"}, "error 64 ERROR: NOT ANSWERED\n"},
        {{"clock-1.0", "fail"}, "error 7 failed as asked\n"},
        {{"nobody-1.0", "x"}, "not installed 59 ERROR: LAUNCHING IS SUPPRESSED\n"},
        {{"clock-1.0", ""}, "refused 59 ERROR: CAN'T STREAM MESSAGE TO STRING\n"},
    };
    for (const auto& [words, expected] : cases) {
        const ProcessResult asking = runProcess({CLOCK, "asking-1.0", words[0], words[1]});
        EXPECT_EQ(asking.out, expected) << asking.err;
        EXPECT_EQ(asking.exitStatus, 1);
    }
    EXPECT_EQ(clock.finish(SIGTERM), 0);
}

} // namespace
