#include <signal.h>
#include <sys/stat.h>

#include "tests/e2e/Scene.h"
#include "tests/support/Peers.h"

namespace {

using testing::HasSubstr;

// The tool and hosts, on a registry of the test's own.
class CheckRunningTest : public Scene {
protected:
    CheckRunningTest() {
        for (const char* application : {"kivra-7.0", "lumen-2.0-en_us", "viewer-1.0"}) {
            add(application);
        }
    }
    static std::string check(const char* specifier) {
        const ProcessResult result = runProcess({KIVRA_CONVEY_CMD, "check_running", specifier});
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(result.err, "");
        const std::string start =
            "<product specifier='" + std::string(specifier) + "' running_response='";
        EXPECT_EQ(result.out.substr(0, start.size()), start);
        return result.out.substr(start.size(), result.out.find('\'', start.size()) - start.size());
    }
};

TEST_F(CheckRunningTest, saysWhatBecameOfTheTarget) {
    const auto running = host("lumen-2.0-en_us");
    const std::string tooLong(256, 'x');
    const std::pair<const char*, const char*> cases[] = {
        {"lumen-2.0-en_us", "ECHO_RESPONSE"},
        {"lumen", "ECHO_RESPONSE"},
        {"viewer-1.0", "ISNOTRUNNING"},
        {"viewer-1.0#x", "ISNOTRUNNING"},
        {"nosuch-1.0", "ISNOTINSTALLED"},
        {"lumen_3-2.0-en_us", "ISNOTRUNNING"},
        {"", "INVALIDSPEC"},
        {tooLong.c_str(), "INVALIDSPEC"},
        {"kivra-7.0", "UNDEFINED"},
    };
    for (const auto& [specifier, expected] : cases) {
        EXPECT_EQ(check(specifier), expected) << specifier;
    }
    running->signal(SIGSTOP);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(check("lumen-2.0-en_us"), "Timeout");
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken, std::chrono::milliseconds(1900));
    EXPECT_LT(taken, std::chrono::seconds(6));
    running->signal(SIGCONT);
    EXPECT_EQ(check("lumen-2.0-en_us"), "ECHO_RESPONSE");
    EXPECT_EQ(running->finish(SIGTERM), 0);
    EXPECT_EQ(check("lumen-2.0-en_us"), "ISNOTRUNNING");

    ASSERT_EQ(chmod(folder.file("convey").c_str(), 0755), 0);
    const ProcessResult refused =
        runProcess({KIVRA_CONVEY_CMD, "check_running", "lumen-2.0-en_us"});
    EXPECT_THAT(refused.out, HasSubstr("'NOINTERAPPSTREAM'"));
    EXPECT_THAT(refused.err, HasSubstr("it is open to other users"));
    EXPECT_EQ(refused.exitStatus, 0);
}

// A target whose name is complete answers for itself; what else a name stands for, and whether a
// target that does not run is installed, only the registry says.
TEST_F(CheckRunningTest, asksTheRegistryWhereTheTargetCannotAnswer) {
    const auto running = host("lumen-2.0-en_us");
    // Complete as a name, but not what it stands for where another is registered.
    RunningProcess squatter({RECEIVE, "viewer-1#thread"});
    EXPECT_EQ(squatter.readLine(), "receiving at viewer-1#thread");
    EXPECT_EQ(check("viewer-1"), "ISNOTRUNNING");
    setenv("OVREL_CAPS_DB", folder.file("notes").c_str(), 1);
    std::ofstream(folder.file("notes")) << "no database";
    EXPECT_EQ(check("lumen-2.0-en_us"), "ECHO_RESPONSE");
    EXPECT_EQ(check("LUMEN-2.0-en_US#x"), "ECHO_RESPONSE");
    for (const char* specifier : {"lumen-2.0", "viewer-1.0-en_us"}) {
        const ProcessResult result = runProcess({KIVRA_CONVEY_CMD, "check_running", specifier});
        EXPECT_THAT(result.out, HasSubstr("'UNDEFINED'")) << specifier;
        EXPECT_THAT(result.err, HasSubstr("the registry cannot be read")) << specifier;
    }
}

TEST_F(CheckRunningTest, twoHundredToolsAtOnceEndAndLeaveNothing) {
    const auto running = host("lumen-2.0-en_us");
    const int count = std::getenv("CONVEY_TEST_DIVISOR") == nullptr ? 200 : 40;
    int answered = 0;
    // Once more when others keep the machine so busy that names come free too slowly for the last.
    for (int round = 0; round < 3 && answered < count - count / 40; ++round) {
        std::vector<std::unique_ptr<RunningProcess>> tools;
        for (int i = 0; i < count; ++i) {
            tools.push_back(std::make_unique<RunningProcess>(
                std::vector<std::string>{KIVRA_CONVEY_CMD, "check_running", "lumen-2.0-en_us"}));
        }
        answered = 0;
        for (const auto& tool : tools) {
            EXPECT_EQ(tool->finish(), 0);
            answered += tool->rest().find("'ECHO_RESPONSE'") != std::string::npos ? 1 : 0;
            // A process has at most nine names of either kind to choose from, and waits for one.
            EXPECT_THAT(tool->rest(),
                        testing::AnyOf(HasSubstr("'ECHO_RESPONSE'"),
                                       HasSubstr("'NOINTERAPPSTREAM'"), HasSubstr("'Timeout'")));
        }
    }
    EXPECT_GE(answered, count - count / 40) << "of " << count;
    EXPECT_EQ(check("lumen-2.0-en_us"), "ECHO_RESPONSE");
    EXPECT_EQ(running->finish(SIGTERM), 0);
    EXPECT_TRUE(std::filesystem::is_empty(folder.file("convey")));
    EXPECT_EQ(check("kivra-7.0"), "UNDEFINED") << "the names are free again";
}

// Pings from within a process, as an application makes them.
TEST_F(CheckRunningTest, pingsToAStoppedTargetKeepTheirTime) {
    const auto stopped = host("lumen-2.0-en_us");
    ASSERT_TRUE(Convey::InitTerm::init("viewer-1.0", true));
    EXPECT_EQ(Convey::Thread::ping("lumen", nullptr, 5, nullptr), "ECHO_RESPONSE");
    stopped->signal(SIGSTOP);
    // Until its queue is full, and on; several at once, as they wait for the same connection.
    const ScObjects::SoString large(std::string(1 << 20, 'x').c_str());
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&large] {
            for (int i = 0; i < 5; ++i) {
                const auto start = std::chrono::steady_clock::now();
                const ScObjects::SoString answer =
                    Convey::Thread::ping("lumen", nullptr, 1, &large);
                // Less than two that wait for each other; other programs run beside.
                EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
                EXPECT_TRUE(answer == "Timeout" || answer == "UNDEFINED") << answer.c_str();
            }
        });
    }
    threads.clear(); // joins them
    stopped->signal(SIGCONT);
    EXPECT_EQ(Convey::Thread::ping("lumen", "STATUS", 20, nullptr), "IDLE");
    const ScObjects::SoString body = Convey::Thread::ping("lumen", "INFO", 20, nullptr);
    EXPECT_THAT(body.c_str(), testing::StartsWith("lumen-2.0-en_us\n"));
    EXPECT_THAT(body.c_str(), HasSubstr("\n" + std::to_string(stopped->pid()) + "\n2.0\n"));
    EXPECT_THAT(Convey::Thread::ping("lumen", "DIAGNOSTICS", 20, nullptr).c_str(),
                HasSubstr("/lumen-2.0-en_us/instances;1;Instances;1;\n"));
    EXPECT_EQ(Convey::Thread::ping("lumen", "LAUNCHED", 20, nullptr), "LAUNCHED");
    EXPECT_EQ(Convey::Thread::ping("lumen", "word=value", 20, nullptr), "value");
    EXPECT_EQ(Convey::Thread::ping("lumen", "word", 20, nullptr), "value");
    const ScObjects::SoString key("word");
    EXPECT_EQ(Convey::Thread::ping("lumen", "MAIN", 20, &key), "value");
    EXPECT_EQ(Convey::Thread::ping("allRunningApps", nullptr, 5, nullptr), "UNDEFINED")
        << "the last one is this process";
    EXPECT_TRUE(Convey::targetIsRunning("lumen-2.0-en_us"));
    EXPECT_FALSE(Convey::targetIsRunning("kivra-7.0"));
    EXPECT_TRUE(Convey::InitTerm::exit());
    // Nothing of the layer is left that counts as its user: the next start's thread is the main
    // one.
    std::thread([] {
        using LayerThread = ScObjects::Thread;
        EXPECT_TRUE(LayerThread::InitTerm::init());
        EXPECT_EQ(LayerThread::getCurrentID(), 0U);
        EXPECT_TRUE(LayerThread::InitTerm::exit());
    }).join();
}

// One thread pumps while another waits for its answers: each goes to its handler, before the wait
// ends.
TEST_F(CheckRunningTest, twoThreadsThatPumpDoNotTearAConversationApart) {
    const auto counting = [](std::atomic<int>& results, const char* type,
                             uint32_t number = Convey::kAnySerialNumber) {
        return new TestHandler(
            [&results](int event, Convey::Message&, ScObjects::SoString*) {
                return results += event == 3 ? 1 : 0, 0;
            },
            type, number);
    };
    const auto running = host("lumen-2.0-en_us", {"--quiet"});
    ASSERT_TRUE(Convey::InitTerm::init("viewer-1.0", true));
    std::atomic<int> strays{0};
    int64_t unanswered = 0;
    int64_t unheard = 0;
    std::vector<std::atomic<int>> heard(static_cast<size_t>(scaled(20'000)));
    {
        Convey instance("viewer-1.0", counting(strays, "Tessaly"), true, nullptr);
        std::atomic<bool> stop{false};
        std::thread pumping([&stop] {
            while (!stop) {
                (void)Convey::pumpOrWait(10);
            }
        });
        for (std::atomic<int>& answer : heard) {
            Convey::Message message = request("lumen-2.0-en_us", "x", "Result");
            message.setSerialNumber(message.getNextSerialNumber(nullptr));
            delete instance.changeHandler(counting(answer, "Result", message.getSerialNumber()));
            const bool answered = instance.send(message, false, 20, nullptr);
            unanswered += answered ? 0 : 1;
            unheard += answered && answer != 1 ? 1 : 0;
        }
        stop = true;
        pumping.join();
    }
    EXPECT_EQ(unanswered, 0);
    EXPECT_EQ(unheard, 0) << "waits that ended well without the handler";
    EXPECT_EQ(strays, 0) << "results that went to the default handler";
    EXPECT_TRUE(Convey::InitTerm::exit());
}

TEST_F(CheckRunningTest, aNameThatAnotherProgramTookFirstStaysWithIt) {
    // Of the same user: whoever opens a name first has it, and what is sent to it.
    RunningProcess squatter({RECEIVE, "lumen-2.0-en_us"});
    EXPECT_EQ(squatter.readLine(), "receiving at lumen-2.0-en_us");
    RunningProcess late({HOST, "lumen-2.0-en_us"});
    EXPECT_EQ(late.readLine(), "running as lumen_1-2.0-en_us") << "and the application is told";
    ASSERT_EQ(runProcess({SEND, "lumen-2.0-en_us", "for lumen"}).exitStatus, 0);
    EXPECT_THAT(squatter.readLine(), HasSubstr("for lumen"));
    // The other one can be reached by the name that it got; and by its own again, once it is free.
    EXPECT_EQ(runProcess({HOST, "kivra-7.0", "--ask", "lumen_1-2.0-en_us", "hello"}).out,
              "result: echo: hello\n");
    EXPECT_EQ(squatter.finish(SIGTERM), 0);
    const auto again = host("lumen-2.0-en_us");
    EXPECT_EQ(check("lumen-2.0-en_us"), "ECHO_RESPONSE");
}

TEST_F(CheckRunningTest, aFloodedTargetAnswersOthers) {
    const auto running = host("lumen-2.0-en_us", {"--quiet"});
    // One floods the application, another the thread that answers pings, and takes no answer.
    RunningProcess flood(
        {SEND, "lumen-2.0-en_us", "--from", "flood-1.0", "--count", "100000000", "--size", "1000"});
    RunningProcess pings({SEND, "lumen-2.0-en_us#thread", "--from", "pings-1.0", "--type", "ping",
                          "--count", "100000000"});
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(check("lumen-2.0-en_us"), "ECHO_RESPONSE") << i;
    }
    EXPECT_EQ(pings.finish(SIGKILL), -1);
    EXPECT_EQ(check("lumen-2.0-en_us"), "ECHO_RESPONSE");
    EXPECT_THAT(runProcess({HOST, "asker-1.0", "--ask", "lumen-2.0-en_us", "amid it all"}).out,
                HasSubstr("result: echo: amid it all"));
    EXPECT_EQ(flood.finish(SIGKILL), -1);
    EXPECT_EQ(running->finish(SIGTERM), 0);
}

} // namespace
