// The background thread: its table, pings, and when it makes its rounds.
#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoCVThreadRounds.h"
#include "tests/convey/EngineFixture.h"

namespace {

using ScObjects::Convey;
using ScObjects::InterAppStream;
using ScObjects::SoString;
using Message = Convey::Message;
using ScObjects::ConveyThread;
using ThreadTest = EngineTest;

// The background thread of another application, played by a stream.
class PlayedTarget {
public:
    explicit PlayedTarget(const char* name) : stream_((std::string(name) + "#thread").c_str()) {}
    // The next ping that arrives; its type is not "ping" when none does.
    Message next(int32_t milliseconds = 10'000) { return nextMessage(stream_, milliseconds); }
    void answer(const Message& ping, const char* value, const char* sender = nullptr,
                bool numbered = true) {
        Message message;
        message.setTarget(ping.getSender());
        message.setSender(sender != nullptr ? SoString(sender) : stream_.getName());
        message.setType("ping");
        message.setHeader("ECHO_REQUEST", value);
        message.setBody("the body");
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
    std::vector<std::thread> threads;
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
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
}

} // namespace
