#include "link/Deliveries.h"

#include <algorithm>
#include <semaphore>

#include "scriptobjects/convey/SoCVTextSeal.h"
#include "scriptobjects/stream/BaseInterAppStream.h"
#include "tests/platform/PortFixture.h"

namespace convey_link {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kLongerThanATry = std::chrono::milliseconds(1300);

class DeliveriesTest : public MessagePortTest {
protected:
    void post(const std::string& body, uint64_t ticket) {
        std::string whole = "Target:lumen\nContent-Length:" + std::to_string(body.size()) + "\n\n";
        whole += body;
        std::string_view rest = whole;
        Text text;
        ASSERT_TRUE(Text::read(rest, text));
        const int64_t deadline =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
                .count() +
            3 * kGenerous;
        deliveries->post("lumen", text.write(std::move(whole)), deadline, false, ticket);
    }
    DeliveriesTest() { wait->add(*port, 0); }
    // The next text, or with `portions` what of a large one is drawn at a time: false in its
    // middle, also for a reader who is as fast as the sender.
    bool draw(PortText& text, bool portions = false) const {
        for (bool waited = false; !port->take(text); waited = true) {
            if ((portions && (waited || port->hasMore())) || !wait->wait(kGenerous)) {
                return false;
            }
        }
        return true;
    }

    platform::MessagePorts& ports = platform::MessagePorts::own();
    std::counting_semaphore<> ended{0};
    std::unique_ptr<Deliveries> deliveries = std::make_unique<Deliveries>(
        ports, [this] { ended.release(); }, [](const std::string&) { return false; });
    const std::unique_ptr<LocalPort> port =
        ports.open(std::string(ScObjects::BaseInterAppStream::kPortNamePrefix) + "lumen");
    const std::unique_ptr<platform::PortWait> wait = ports.newWait();
};

TEST_F(DeliveriesTest, whatATargetDrawsSlowlyOrWithAPauseComesOnceAndWhole) {
    port->checkSeals([] { return std::make_unique<ScObjects::ConveyData::TextSeal>(); });
    std::string body(size_t{24} << 20, 'b');
    for (size_t i = 0; i < body.size(); i += 1009) {
        body[i] = static_cast<char>('a' + i / 1009 % 26);
    }
    for (const bool pauses : {false, true}) {
        SCOPED_TRACE(pauses ? "with a pause" : "slowly");
        post(body, 1);
        post("behind it", 2);
        PortText text;
        int portions = 0;
        const auto begun = Clock::now();
        while (!draw(text, true)) {
            ASSERT_LT(Clock::now() - begun, std::chrono::milliseconds(2 * kGenerous))
                << "it is begun again and again";
            // Its pace; nothing waits for that.
            std::this_thread::sleep_for(!pauses           ? kLongerThanATry / 10
                                        : portions++ == 2 ? kLongerThanATry
                                                          : Clock::duration(0));
        }
        EXPECT_GT(Clock::now() - begun, kLongerThanATry) << "it was not slow";
        EXPECT_GT(text.sealBytes(), 0U) << "a right digest";
        EXPECT_TRUE(text.view().ends_with("\n\n" + body));
        ASSERT_TRUE(draw(text));
        EXPECT_TRUE(text.view().ends_with("\n\nbehind it"));
        ASSERT_TRUE(ended.try_acquire_for(std::chrono::milliseconds(kGenerous)));
        ASSERT_TRUE(ended.try_acquire_for(std::chrono::milliseconds(kGenerous)));
        const auto ends = deliveries->take();
        ASSERT_EQ(ends.size(), 2U);
        for (size_t i = 0; i < ends.size(); ++i) {
            EXPECT_EQ(ends[i].ticket, i + 1);
            EXPECT_EQ(ends[i].outcome, Outcome::delivered);
        }
    }
    EXPECT_EQ(takeAll(*port).size(), 0U);
}

// While the end of the last one is told its line has somebody who works at it.
TEST_F(DeliveriesTest, whatComesWhileAnEndIsToldIsHandedOverOnce) {
    const std::string body(size_t{24} << 20, 'b');
    bool again = true;
    deliveries = std::make_unique<Deliveries>(
        ports,
        [&] {
            if (std::exchange(again, false)) {
                post(body, 2);
            }
            ended.release();
        },
        [](const std::string&) { return false; });
    post(body, 1);
    PortText text;
    ASSERT_TRUE(draw(text));
    ASSERT_TRUE(ended.try_acquire_for(std::chrono::milliseconds(kGenerous)));
    ASSERT_TRUE(draw(text));
    ASSERT_TRUE(ended.try_acquire_for(std::chrono::milliseconds(kGenerous)));
    deliveries.reset(); // whoever else works ends
    EXPECT_EQ(takeAll(*port).size(), 0U);
}

// In order also around one that goes by itself, and no more in one text than a packet holds. Those
// for which the target's queue had no room come one by one.
TEST_F(DeliveriesTest, smallOnesThatComeTogetherAreOneTextForTheirTarget) {
    struct Case {
        std::vector<std::string> bodies;
        std::vector<size_t> texts = {}; // messages in each; empty for whatever there is room for
    };
    Case full;
    for (size_t i = 0; i < 400; ++i) {
        full.bodies.emplace_back(30'000, static_cast<char>('a' + i % 26));
    }
    const Case cases[] = {
        full,
        {{"a"}, {1}},
        {{"a", "b", "c"}, {3}},
        {{"a", "b", std::string(size_t{24} << 20, 'c'), "d", "e"}, {2, 1, 1, 1}},
        {{std::string(40'000, 'a'), "b", std::string(40'000, 'c'), "d"}, {2, 2}},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.bodies.size());
        for (size_t i = 0; i < one.bodies.size(); ++i) {
            post(one.bodies[i], i + 1);
        }
        (void)deliveries->handOver();
        std::vector<std::string> bodies;
        std::vector<size_t> texts;
        while (bodies.size() < one.bodies.size()) {
            PortText text;
            ASSERT_TRUE(draw(text));
            std::string_view rest = text.view();
            Text message;
            const size_t before = bodies.size();
            while (Text::read(rest, message)) {
                bodies.emplace_back(message.body());
            }
            texts.push_back(bodies.size() - before);
        }
        EXPECT_TRUE(bodies == one.bodies);
        if (one.texts.empty()) {
            EXPECT_TRUE(texts.front() == 2 && texts.back() == 1) << "there was room for all";
        } else {
            EXPECT_EQ(texts, one.texts);
        }
        std::vector<uint64_t> tickets;
        const auto begun = Clock::now();
        while (tickets.size() < one.bodies.size()) {
            ASSERT_LT(Clock::now() - begun, std::chrono::milliseconds(kGenerous));
            for (const auto& end : deliveries->take()) {
                EXPECT_EQ(end.outcome, Outcome::delivered);
                EXPECT_NE(end.taker, nullptr);
                tickets.push_back(end.ticket);
            }
        }
        std::sort(tickets.begin(), tickets.end());
        EXPECT_EQ(tickets.back(), tickets.size()) << "each has its end, once";
    }
}

TEST_F(DeliveriesTest, endWhileATargetStandsStillInTheMiddleOfAText) {
    post(std::string(size_t{24} << 20, 'b'), 1);
    PortText text;
    for (int portion = 0; portion < 3; ++portion) { // of which one may be the connection
        ASSERT_FALSE(draw(text, true)) << "it was not the middle";
    }
    const auto begun = Clock::now();
    deliveries.reset();
    EXPECT_LT(Clock::now() - begun, std::chrono::milliseconds(kGenerous));
    EXPECT_EQ(takeAll(*port).size(), 0U);
}

} // namespace
} // namespace convey_link
