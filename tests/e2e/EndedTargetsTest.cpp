// What an asker is told when the process that took its request ends.
#include <poll.h>

#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "tests/e2e/Scene.h"
#include "tests/support/Peers.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kTarget = "target-1.0";
constexpr uint32_t kOwn = 1'000'000;

// An asker that writes down what it hears of each request.
class EndedTargetsTest : public Scene {
protected:
    EndedTargetsTest() {
        EXPECT_TRUE(Convey::InitTerm::init("asker-1.0", true));
        asker = new Convey("asker-1.0", listener("Tessaly"), true, nullptr);
    }
    ~EndedTargetsTest() override { (void)Convey::InitTerm::exit(); }

    static std::unique_ptr<RunningProcess> target() { return started({TARGET_PROGRAM, kTarget}); }
    static Convey::Message request(uint32_t number, const char* body,
                                   const char* replies = "Result Error",
                                   const char* target = kTarget) {
        Convey::Message message = ::request(target, body, replies);
        message.setSender("asker-1.0");
        message.setSerialNumber(number);
        return message;
    }
    bool ask(uint32_t number, const char* body, const char* replies = "Result Error") const {
        Convey::Message message = request(number, body, replies);
        return asker->send(message, false, 0, nullptr);
    }
    // Pumps until this has been heard; what has been heard otherwise when it takes too long.
    bool hears(uint32_t number, const std::string& expected) {
        return eventually([&] {
            pumpAll();
            return heard[number] == expected;
        });
    }

    TestHandler* listener(const char* type, uint32_t serial = Convey::kAnySerialNumber) {
        const auto hear = [this](int event, Convey::Message& message, SoString*) {
            if (event == 1) { // of neighbours
                ++floods;
                return 0;
            }
            std::string& said = heard[message.getSerialNumber()];
            order.push_back(message.getSerialNumber());
            if (event == 4) {
                said += std::string(message.getBody().view()) + " " +
                        message.getUserHeaderValue("Error-Code").c_str() + " from " +
                        message.getSender().c_str() + ";";
            } else {
                const std::string body(message.getBody().view());
                said += std::string(message.getType().view()) +
                        (body.size() < 100 ? body : std::to_string(body.size())) + ";";
            }
            return 0;
        };
        return new TestHandler(hear, type, serial);
    }

    const std::string ended = "ERROR: TARGET HAS ENDED 62 from target-1.0;";
    std::map<uint32_t, std::string> heard;
    std::vector<uint32_t> order;
    int floods = 0;
    Convey* asker = nullptr; // the layer's
};

TEST_F(EndedTargetsTest, whoeverHasTheRequestAndHoweverManyAreUnderWay) {
    const auto count = static_cast<uint32_t>(scaled(200));
    auto holding = target();
    ASSERT_TRUE(ask(1, "hold"));
    ASSERT_EQ(holding->readLine(), "got hold");
    ASSERT_TRUE(ask(1000, "not told of errors", "Result"));
    for (uint32_t number = 2; number <= count; ++number) {
        ASSERT_TRUE(ask(number, "waits in the queue"));
    }
    holding->signal(SIGKILL);
    const auto killed = Clock::now();
    ASSERT_TRUE(hears(1, ended)) << heard[1];
    EXPECT_LT(Clock::now() - killed, std::chrono::seconds(5)) << "the time-out is 600 s";
    (void)holding->finish();
    // Its successor has nothing to do with them.
    const auto successor = target();
    ASSERT_TRUE(ask(1001, "answered"));
    ASSERT_TRUE(hears(1001, "Tessalyanswer;Processed;")) << heard[1001];
    for (uint32_t number = 1; number <= count; ++number) {
        EXPECT_EQ(heard[number], ended) << number << ", once";
        EXPECT_EQ(order[number - 1], number) << "in the order of sending";
    }
    EXPECT_EQ(heard[1000], "");
}

// Whether the asker pumps meanwhile, waits in its send, or does nothing.
TEST_F(EndedTargetsTest, whatAnAskerDoesMeanwhileMakesNoDifference) {
    auto holding = target();
    const auto kill = [&holding] {
        EXPECT_EQ(holding->readLine(), "got hold");
        holding->signal(SIGKILL);
    };
    std::thread killing(kill);
    delete asker->changeHandler(listener("Error", 1));
    Convey::Message waiting = request(1, "hold");
    const auto start = Clock::now();
    EXPECT_TRUE(asker->send(waiting, false, 60, nullptr));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
    killing.join();
    EXPECT_EQ(heard[1], ended);

    holding = target();
    ASSERT_TRUE(ask(2, "hold"));
    kill();
    EXPECT_TRUE(eventually([&] { return asker->data()->incoming().count() == 1; }))
        << "nobody pumps: the background has to see it";
    EXPECT_TRUE(hears(2, ended)) << heard[2];

    // What waits for its target is sent by the background, and watched from then on.
    (void)holding->finish();
    auto late = std::make_unique<Convey::Message>(request(3, "hold"));
    late->setAskersLife(ScObjects::ConveyData::ownLife());
    ASSERT_TRUE(asker->data()->queueOutgoing(std::move(late)));
    holding = target();
    kill();
    EXPECT_TRUE(hears(3, ended)) << heard[3];
}

// An answer that was sent is heard, however soon its sender ends: there is no error then.
TEST_F(EndedTargetsTest, theLastAnswersOfATargetAreHeardInsteadOfAnError) {
    const auto rounds = static_cast<uint32_t>(scaled(60));
    for (uint32_t number = 1; number <= rounds; ++number) {
        SCOPED_TRACE(number);
        auto answering = target();
        ASSERT_TRUE(ask(number, "last"));
        if (number % 2 == 0) { // the background alone receives, and sees the end
            ASSERT_EQ(answering->finish(), 0);
        }
        ASSERT_TRUE(hears(number, "Tessalyanswer;Processed;")) << heard[number];
        if (number % 2 != 0) {
            ASSERT_EQ(answering->finish(), 0);
        }
    }
    EXPECT_EQ(order.size(), 2 * rounds);

    // Nor while the answers lie unread in the system's queue, since this side is full.
    for (int64_t i = 0; i < limits::of("queue.incoming.messages"); ++i) {
        ASSERT_TRUE(sendFrom(*asker, request(kOwn, "to myself", "", "asker-1.0")));
    }
    auto answering = target();
    ASSERT_TRUE(ask(1, "last"));
    ASSERT_EQ(answering->finish(), 0);
    for (int pings = 0; pings < 2; ++pings) { // rounds of the background: each ping takes one
        EXPECT_EQ(runProcess({CONVEY_PROGRAM, "ping", "asker-1.0"}).exitStatus, 0);
    }
    heard.clear();
    ASSERT_TRUE(hears(1, "Tessalyanswer;Processed;")) << heard[1];
}

// Nor does what others send without end put off what is heard of a target: its last answer where
// it gave one, and an error where it did not.
TEST_F(EndedTargetsTest, aFloodOfNeighboursPutsNothingOff) {
    std::vector<std::unique_ptr<RunningProcess>> neighbours;
    for (int i = 1; i <= 3; ++i) {
        const std::string name = "neighbour-" + std::to_string(i) + ".0";
        neighbours.push_back(started({TARGET_PROGRAM, name}));
        Convey::Message flood = request(kOwn, "push asker-1.0", "", name.c_str());
        ASSERT_TRUE(asker->send(flood, false, 0, nullptr));
        ASSERT_EQ(neighbours.back()->readLine(), "got push asker-1.0");
    }
    const auto flooded = [this](int more) {
        return eventually([this, until = floods + more] {
            while (floods < until &&
                   asker->data()->processIncoming(Convey::kAnySerialNumber, true)) {
            }
            return floods >= until;
        });
    };
    ASSERT_TRUE(flooded(100));
    const struct {
        const char* body;
        std::string expected;
    } ends[] = {{"hold", ended},
                {"last", "Tessalyanswer;Processed;"},
                {"last large", "Tessaly1048576;Processed;"}};
    uint32_t number = 0;
    for (const auto& end : ends) {
        const std::string& expected = end.expected;
        SCOPED_TRACE(end.body);
        auto ending = target();
        ASSERT_TRUE(ask(++number, end.body));
        ASSERT_EQ(ending->readLine(), std::string("got ") + end.body);
        if (number == 1) {
            ending->signal(SIGKILL);
        }
        EXPECT_TRUE(eventually([&] {
            // The flood goes on all the time, and lets no queue here be empty.
            for (int i = 0; i < 100 && heard[number] != expected; ++i) {
                (void)asker->data()->processIncoming(Convey::kAnySerialNumber, true);
            }
            return heard[number] == expected;
        })) << heard[number];
        ASSERT_TRUE(flooded(10)) << "there is no flood";
    }
}

// A host's loop has its turn though each message that it handles brings another.
TEST_F(EndedTargetsTest, aPumpEndsBesideAFlood) {
    int handled = 0;
    const auto sendOn = [&](int, Convey::Message&, SoString*) {
        ++handled;
        Convey::Message next =
            request(kOwn + static_cast<uint32_t>(handled), "and on", "", "asker-1.0");
        (void)asker->send(next, false, 0, nullptr);
        return 0;
    };
    delete asker->changeHandler(new TestHandler(sendOn));
    ASSERT_TRUE(sendFrom(*asker, request(kOwn, "the first", "", "asker-1.0")));
    pollfd loop = {Convey::getPollDescriptor(), POLLIN, 0};
    EXPECT_TRUE(Convey::pump(ScObjects::kProcessBoth));
    EXPECT_EQ(handled, limits::of("pump.messages"));
    EXPECT_EQ(poll(&loop, 1, 0), 1) << "what is left, and nobody announces any more";
    EXPECT_TRUE(Convey::pump(ScObjects::kProcessBoth));
    EXPECT_GT(handled, limits::of("pump.messages"));
}

} // namespace
