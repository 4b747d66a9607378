#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "tests/e2e/Scene.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

// The example programs, with a home and a port folder of the test's own.
class PortsTest : public Scene {
protected:
    static std::unique_ptr<RunningProcess> receiver(const char* name,
                                                    const std::vector<std::string>& options,
                                                    const std::string& program = RECEIVE) {
        std::vector<std::string> arguments = {program, name};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return started(arguments, std::string("receiving at ") + name);
    }
};

TEST_F(PortsTest, processesWithoutTheVariableMeetTheOthers) {
    // With a folder of the user's as a login makes it, in a view of the files that is theirs alone.
    // Who is not root there is the root of a user namespace that holds nobody else.
    std::vector<std::string> command = {"/usr/bin/unshare", "-m"};
    if (geteuid() != 0) {
        command.push_back("-r");
    }
    const std::vector<std::string> shell = {
        "/bin/sh", "-c",
        "mount -t tmpfs none /run && runtime=/run/user/$(id -u) && mkdir -p -m 700 \"$runtime\" && "
        "{ XDG_RUNTIME_DIR=$runtime \"$0\" port-1.0 --count 1 & } && "
        "until [ -e \"$runtime\"/convey/*port-1.0.socket ]; do sleep 0.01; done && "
        "env -u XDG_RUNTIME_DIR \"$1\" port-1.0 x && wait",
        RECEIVE, SEND};
    command.insert(command.end(), shell.begin(), shell.end());
    const ProcessResult result = runProcess(command);
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("x"));
}

TEST_F(PortsTest, floodsOfManySendersArriveOnceAndInOrder) {
    const long each = scaled(40'000);
    const auto receiving =
        receiver("target-1.0", {"--summary", "--count", std::to_string(8 * each + 40)});
    std::vector<std::unique_ptr<RunningProcess>> senders;
    for (int i = 0; i < 9; ++i) { // the last one's come in parts between those of the others
        senders.push_back(std::make_unique<RunningProcess>(
            std::vector<std::string>{SEND, "target-1.0", "--from", "sender_" + std::to_string(i),
                                     "--count", std::to_string(i < 8 ? each : 40), "--size",
                                     i < 8 ? "10" : "200000", "--timeout", "60000"}));
    }
    for (size_t i = 0; i < senders.size(); ++i) {
        EXPECT_EQ(senders[i]->finish(), 0);
        EXPECT_EQ(senders[i]->rest(), "delivered " + std::to_string(i < 8 ? each : 40) + "\n");
    }
    EXPECT_EQ(receiving->finish(), 0);
    EXPECT_EQ(receiving->rest(), std::to_string(8 * each + 40) +
                                     " messages of 9 senders, 0 out of order, 0 rejected\n");
}

TEST_F(PortsTest, aStoppedReceiverHoldsItsSenderAndLosesNothing) {
    const auto receiving = receiver("stopped-1.0", {"--summary"});
    receiving->signal(SIGSTOP);
    const auto start = std::chrono::steady_clock::now();
    const ProcessResult sent = runProcess(
        {SEND, "stopped-1.0", "--count", "1000000", "--size", "3000", "--timeout", "200"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(sent.exitStatus, 1) << "the queue has a bound";
    ASSERT_THAT(sent.out, StartsWith("delivered "));
    const long delivered = std::atol(sent.out.c_str() + sizeof "delivered");
    EXPECT_GT(delivered, 10);
    receiving->signal(SIGCONT);
    EXPECT_EQ(receiving->finish(SIGTERM), 0);
    // It may end before it has taken all of them, so ask a second one that is not told to end.
    const auto counting =
        receiver("stopped-1.0", {"--summary", "--count", std::to_string(delivered)});
    counting->signal(SIGSTOP);
    EXPECT_EQ(runProcess({SEND, "stopped-1.0", "--count", std::to_string(delivered), "--size",
                          "3000", "--timeout", "200"})
                  .exitStatus,
              0);
    EXPECT_EQ(counting->finish(SIGCONT), 0);
    EXPECT_EQ(counting->rest(),
              std::to_string(delivered) + " messages of 1 senders, 0 out of order, 0 rejected\n");
}

TEST_F(PortsTest, aReceiverKilledInMidMessageEndsItsSender) {
    for (int round = 0; round < 5; ++round) {
        const auto receiving = receiver("victim-1.0", {"--summary"});
        RunningProcess sender({SEND, "victim-1.0", "--count", "1000000", "--size", "3000000"});
        std::this_thread::sleep_for(std::chrono::milliseconds(10 * round));
        EXPECT_EQ(receiving->finish(SIGKILL), -1);
        EXPECT_EQ(sender.finish(), 1);
    }
}

#ifdef OTHER_WIDTH_PROGRAMS // in the build that knows of another
TEST_F(PortsTest, a32BitAnd64BitProcessTalk) {
    const std::string other = OTHER_WIDTH_PROGRAMS;
    ASSERT_TRUE(std::filesystem::exists(other + "/receive"))
        << "no programs of another width in '" << other << "': the preset dev builds them";
    const std::pair<std::string, std::string> pairs[] = {{RECEIVE, other + "/send"},
                                                         {other + "/receive", SEND}};
    for (const auto& [receive, send] : pairs) {
        SCOPED_TRACE(send);
        const auto receiving = receiver("width-1.0", {"--summary", "--count", "300"}, receive);
        for (const char* size : {"10", "70000", "5000000"}) {
            EXPECT_EQ(runProcess({send, "width-1.0", "--from", std::string("s") + size, "--count",
                                  "100", "--size", size})
                          .exitStatus,
                      0);
        }
        EXPECT_EQ(receiving->finish(), 0);
        EXPECT_EQ(receiving->rest(), "300 messages of 3 senders, 0 out of order, 0 rejected\n");
    }
}
#endif

} // namespace
