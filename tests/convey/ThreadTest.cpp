// The background thread: its table, pings, and when it makes its rounds.

#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVThreadRounds.h"
#include "tests/convey/EngineFixture.h"

namespace {

using ScObjects::ConveyThread;
using ThreadTest = EngineTest;

TEST_F(ThreadTest, theTableAnswersPings) {
    ConveyThread* const thread = ConveyThread::getMainThread();
    ASSERT_NE(thread, nullptr);
    EXPECT_FALSE(thread->setKeyValuePair("", "x"));
    EXPECT_FALSE(thread->setTimeout("none", 1));
    EXPECT_TRUE(thread->setKeyValuePair("short", "x"));
    EXPECT_TRUE(thread->setTimeout("short", -1));
    thread->removeExpiredPingData();
    EXPECT_EQ(thread->locateKey("short"), -1);
    {
        static platform::FakeClock clock; // the background thread may be in it at the end
        clock.utc = 1'000'000'000;
        const platform::ScopedReplacement<platform::Clock> inForce(clock);
        EXPECT_TRUE(thread->setKeyValuePair("minute", "x"));
        EXPECT_TRUE(thread->setTimeout("minute", 60));
        for (const int64_t step : {3'600'000, -7'200'000}) {
            clock.utc += step; // who sets the clock lets no time pass
            thread->removeExpiredPingData();
            EXPECT_NE(thread->locateKey("minute"), -1) << step;
        }
        clock.pass(60'000);
        thread->removeExpiredPingData();
        EXPECT_EQ(thread->locateKey("minute"), -1);
    }
    SoString longest(std::string(limits::of("thread.key"), 'v').c_str());
    int64_t large = 0;
    while (thread->setKeyValuePair(("l" + std::to_string(large)).c_str(), longest)) {
        ASSERT_LT(++large, limits::of("thread.table"));
    }
    EXPECT_EQ(large, limits::of("thread.table") / limits::of("thread.key") - 1) << "with the keys";
    while (large-- > 0) {
        EXPECT_TRUE(thread->setTimeout(("l" + std::to_string(large)).c_str(), -1));
    }
    thread->removeExpiredPingData();
    EXPECT_TRUE(thread->setKeyValuePair(longest, "as long"));
    longest << "v";
    EXPECT_FALSE(thread->setKeyValuePair(longest, "too long"));
    EXPECT_FALSE(thread->setKeyValuePair("too long", longest));
    for (const char* own : {"ECHO_REQUEST", "STATUS", "MAIN", "INFO", "LAUNCHPARAMS"}) {
        Message ping; // of another process
        ping.setType("ping");
        ping.setHeader("ECHO_REQUEST", (std::string(own) + "=ISNOTRUNNING").c_str());
        const SoString before = thread->getValueForKey(own);
        SoString answer;
        EXPECT_EQ(thread->findHandler("MAIN")->handleMessage(1, ping, &answer), 0);
        EXPECT_EQ(answer, before) << own;
        EXPECT_EQ(thread->getValueForKey(own), before) << own;
    }
    size_t keys = 0;
    while (thread->setKeyValuePair(("k" + std::to_string(keys)).c_str(), "v")) {
        ASSERT_LT(++keys, 2 * ConveyThread::kMaximumKeys);
    }
    EXPECT_TRUE(thread->setKeyValuePair("k0", "other")) << "a key that is there has its place";

    for (const auto& [text, expected] : {std::pair("kivra-7.0", "kivra-7.0#thread"),
                                         {"a_2-1.0-en_us#x", "a_2-1.0-en_us#thread"},
                                         {"", ""},
                                         {"app-group", "app-group#thread"}}) {
        EXPECT_EQ(ConveyThread::createThreadSpecifier(text), expected);
    }
}

TEST(ThreadRounds, thoseThatWereLeftOutCountAsMadeOnTime) {
    ScObjects::ConveyData::ThreadRounds rounds;
    EXPECT_EQ(rounds.last(500), 0) << "none was made";
    rounds.note(1000);
    EXPECT_EQ(rounds.average(1000), 0);
    rounds.note(1200); // late
    EXPECT_EQ(rounds.average(1200), 200);
    EXPECT_EQ(rounds.last(9999), 1200) << "a thread that hangs shows";
    rounds.beginRest();
    EXPECT_EQ(rounds.last(1299), 1200);
    EXPECT_EQ(rounds.last(1450), 1400);
    EXPECT_NEAR(rounds.average(1450), 181, 1e-9) << "two of them, a tenth each";
    rounds.endRest(61'250);
    EXPECT_EQ(rounds.last(99'999), 61'200);
    EXPECT_NEAR(rounds.average(99'999), 100, 0.1);
}

// The background thread of another application, played by a stream.
class PlayedTarget {
public:
    explicit PlayedTarget(const char* name) : stream_((std::string(name) + "#thread").c_str()) {}
    // The next ping that arrives; its type is not "ping" when none does.
    Message next(int32_t milliseconds = 10'000) { return nextMessage(stream_, milliseconds); }
    void answer(const Message& ping, const char* value, const char* sender = nullptr,
                bool numbered = true) {
        Message message = request(ping.getSender().c_str(), "the body", "", "ping");
        message.setSender(sender != nullptr ? SoString(sender) : stream_.getName());
        message.setHeader("ECHO_REQUEST", value);
        if (numbered) {
            message.setHeader("Ping-Number", static_cast<unsigned long>(ping.getSerialNumber()));
        }
        SoString text;
        EXPECT_TRUE(message.writeToString(text));
        EXPECT_TRUE(stream_.send(ping.getSender(), text));
    }

private:
    InterAppStream stream_;
};

TEST_F(ThreadTest, takesOnlyTheAnswerToItsPing) {
    PlayedTarget target("other-2.0");
    const auto ping = [](int32_t seconds) {
        return std::string(Convey::Thread::ping("other-2.0", "KEY", seconds, nullptr).c_str());
    };
    EXPECT_EQ(ping(0), "NOERROR");
    const Message first = target.next();
    EXPECT_EQ(first.getUserHeaderValue("ECHO_REQUEST"), "KEY");
    EXPECT_EQ(ping(1), "Timeout");
    const Message second = target.next();
    target.answer(first, "late");
    target.answer(second, "late as well");
    std::string result;
    std::thread asking([&] { result = ping(20); });
    const Message third = target.next();
    target.answer(second, "late answer");
    target.answer(third, "a stranger's", "stranger-1.0#thread");
    target.answer(third, "yes");
    asking.join();
    EXPECT_EQ(result, "yes");
    // A peer that does not number its answers, and an answer in the body.
    std::thread again([&] { result = ping(20); });
    target.answer(target.next(), "SEE BODY", nullptr, false);
    again.join();
    EXPECT_EQ(result, "the body");
}

TEST_F(ThreadTest, threadsThatPingTogetherGetTheirOwnAnswers) {
    PlayedTarget target("other-2.0");
    std::atomic<int> wrong{0};
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&wrong, thread] {
            for (int i = 0; i < 25; ++i) {
                const std::string key = std::to_string(thread) + "." + std::to_string(i);
                const SoString answer = Convey::Thread::ping("other-2.0", key.c_str(), 20, nullptr);
                wrong += answer == key.c_str() ? 0 : 1;
            }
        });
    }
    // Two at a time where there are two, the later one first.
    for (int answered = 0; answered < 100;) {
        std::vector<Message> waiting;
        waiting.push_back(target.next());
        ASSERT_EQ(waiting[0].getType(), "ping");
        const Message second = target.next(20);
        if (second.getType() == "ping") {
            waiting.push_back(second);
        }
        for (size_t i = waiting.size(); i-- > 0; ++answered) {
            target.answer(waiting[i], waiting[i].getUserHeaderValue("ECHO_REQUEST").c_str());
        }
    }
    threads.clear(); // joins them
    EXPECT_EQ(wrong, 0);
}

} // namespace
