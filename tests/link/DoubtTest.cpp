// A link over a network, ports and a clock of the test's own: what is said of one that nobody
// hears.

#include "link/Silence.h"
#include "scriptobjects/convey/SoCVWords.h"
#include "tests/link/LinkOnFakes.h"

namespace convey_link {
namespace {

class DoubtTest : public LinkOnFakes {
protected:
    DoubtTest() {
        configuration.uses.push_back({kLumen, "workshop"});
        begin();
        greets();
    }

    void nobodyListens() { happens({Wire::EventKind::absent, "workshop", {}}); }
    // The workshop says that lumen runs.
    void greets(uint64_t itsLife = kOtherLife) {
        Frame presence;
        presence.kind = FrameKind::presence;
        presence.senderLife = itsLife;
        presence.apps = {{kLumen, AppState::running}};
        happens({Wire::EventKind::frame, "workshop", encode(presence)});
    }
    void ask() {
        Text ping;
        ping.set(kTarget, kLumen + "#thread");
        ping.set(kSender, "asker-1.0");
        ping.set(kType, ScObjects::ConveyData::CV_TYPE_PING);
        ping.set(kEcho, "STATUS");
        ping.set(kSerial, "5");
        ping.set(kTimeoutLine, "60");
        ASSERT_EQ(ports.send(prefix + kLumen + "#thread", ping.write(), 0),
                  platform::SendResult::delivered);
        (void)link->step(true);
    }
    void request(const char* serial) {
        Text request;
        request.set(kTarget, kLumen);
        request.set(kSender, "asker-1.0");
        request.set(kType, "note");
        request.set(kSerial, serial);
        request.set(kWanted, "Error");
        ASSERT_EQ(ports.send(prefix + kLumen, request.write(), 0), platform::SendResult::delivered);
        (void)link->step(true);
    }
    void goes() {
        Frame bye;
        bye.kind = FrameKind::bye;
        bye.senderLife = kOtherLife;
        happens({Wire::EventKind::frame, "workshop", encode(bye)});
    }
    size_t sent(FrameKind kind) const {
        return static_cast<size_t>(
            std::count_if(wire.sent.begin(), wire.sent.end(),
                          [kind](const auto& one) { return one.first == kind; }));
    }
    size_t pingsSent() const { return sent(FrameKind::ping); }
};

TEST_F(DoubtTest, oneThatChangesServersIsAskedAgainAndNotSaidToBeAbsent) {
    ask();
    ASSERT_EQ(pingsSent(), 1u);
    nobodyListens();
    passes(bounds::kDoubtMilliseconds - 200);
    nobodyListens();
    EXPECT_EQ(told(), "");
    EXPECT_NE(link->status().find("\"state\":\"here\""), std::string::npos) << link->status();
    greets();
    ASSERT_EQ(pingsSent(), 2u);
    Frame pong;
    pong.kind = FrameKind::pong;
    pong.senderLife = kOtherLife;
    pong.head = {
        MessageKind::pong, kLumen + "#thread", "asker-1.0", 0, wire.sent.back().second.pingNumber,
        Outcome::delivered};
    const std::string text = "STATUS: IDLE\nContent-Length: 0\n\n";
    pong.text = text;
    happens({Wire::EventKind::frame, "workshop", encode(pong)});
    const std::string answer = told();
    EXPECT_NE(answer.find("STATUS: IDLE"), std::string::npos) << answer;
    // The next absence is looked at for as long as the first.
    ask();
    nobodyListens();
    EXPECT_EQ(told(), "");
}

TEST_F(DoubtTest, oneThatDoesNotComeBackIsAbsentAndAtOnceFromThenOn) {
    ask();
    nobodyListens();
    passes(bounds::kDoubtMilliseconds);
    nobodyListens();
    EXPECT_NE(told().find("ISNOTRUNNING"), std::string::npos);
    EXPECT_NE(link->status().find("\"state\":\"away\""), std::string::npos) << link->status();
    ask();
    nobodyListens();
    EXPECT_NE(told().find("ISNOTRUNNING"), std::string::npos);
}

TEST_F(DoubtTest, oneThatSaidGoodbyeIsAbsentAtOnce) {
    goes();
    ask();
    nobodyListens();
    EXPECT_NE(told().find("ISNOTRUNNING"), std::string::npos);
}

// What had gone to the life before may have been handled; what waited goes to the next one.
TEST_F(DoubtTest, anotherLifeIsGivenWhatWaitsAndAskersHearOfTheRest) {
    request("1");
    goes();
    request("2");
    EXPECT_EQ(sent(FrameKind::cargo), 1u);
    greets(kOtherLife + 1);
    EXPECT_EQ(sent(FrameKind::cargo), 2u);
    const std::string answer = told();
    EXPECT_NE(answer.find("Serial-Number:1\n"), std::string::npos) << answer;
    EXPECT_NE(answer.find("62"), std::string::npos) << answer;
    EXPECT_EQ(answer.find("Serial-Number:2\n"), std::string::npos) << answer;
}

TEST_F(DoubtTest, anotherLifeThatNobodyMissedIsAskedAgainAndGreeted) {
    ask();
    const size_t greeted = sent(FrameKind::hello);
    greets(kOtherLife + 1);
    EXPECT_EQ(pingsSent(), 2u);
    Frame hello;
    hello.kind = FrameKind::hello;
    hello.senderLife = kOtherLife + 2;
    happens({Wire::EventKind::frame, "workshop", encode(hello)});
    EXPECT_EQ(pingsSent(), 3u);
    EXPECT_EQ(sent(FrameKind::hello), greeted + 1);
}

// By who does not know that it has begun another life.
TEST_F(DoubtTest, oneThatIsAskedBeforeItIsGreetedSaysThatItIsThereOnceInAWhile) {
    link.reset();
    configuration.uses.clear();
    begin(0);
    // A kept request of it is no greeting.
    Frame kept;
    kept.kind = FrameKind::kept;
    kept.senderLife = kOtherLife;
    kept.number = 1;
    kept.head = {MessageKind::request, "asker-1.0", kLumen};
    happens({Wire::EventKind::stored, "workshop", encode(kept)});
    const size_t said = sent(FrameKind::hello);
    const auto saidWhenAsked = [&] {
        Frame ping;
        ping.kind = FrameKind::ping;
        ping.senderLife = kOtherLife;
        ping.head = {MessageKind::ping, "asker-1.0", kLumen + "#thread", 1000, 1,
                     Outcome::delivered};
        happens({Wire::EventKind::frame, "workshop", encode(ping)});
        return sent(FrameKind::hello) - said;
    };
    EXPECT_EQ(saidWhenAsked(), 0u) << "it has no name yet";
    passes(1000);
    EXPECT_EQ(sent(FrameKind::hello) - said, 1u);
    EXPECT_EQ(saidWhenAsked(), 2u);
    EXPECT_EQ(saidWhenAsked(), 2u);
    passes(bounds::kHelloMilliseconds);
    EXPECT_EQ(saidWhenAsked(), 3u);
}

TEST(SilenceTest, isOfAServerThatWasAskedAndNotOfWhoDidNotListen) {
    constexpr int64_t kAsked = 1000;
    Silence silence(kAsked);
    int64_t now = 100'000;
    EXPECT_FALSE(silence.isSilent(now));
    silence.heard(now);
    const auto isSilentAfter = [&](int64_t milliseconds) {
        for (const int64_t end = now + milliseconds; now < end;) {
            now += 500;
            if (silence.isSilent(now)) {
                return true;
            }
        }
        return false;
    };
    EXPECT_FALSE(isSilentAfter(3 * kAsked));
    EXPECT_TRUE(isSilentAfter(500));
    silence.heard(now);
    now += 10 * kAsked; // its process stood still
    EXPECT_FALSE(isSilentAfter(3 * kAsked));
    EXPECT_TRUE(isSilentAfter(1000));
}

} // namespace
} // namespace convey_link
