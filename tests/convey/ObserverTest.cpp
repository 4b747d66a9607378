// What an instance tells those that watch it.
#include <mutex>

#include "tests/convey/EngineFixture.h"

namespace {

using Handler = TestHandler;
using ObserverTest = EngineTest;

TEST_F(ObserverTest, forwardsWhatItHandlesToAnObserver) {
    Convey own("own-1.0", nullptr, true, nullptr);
    InterAppStream observer("observer-1.0");
    InterAppStream asker("asker-1.0#ping");
    const auto set = [&](const char* pair) {
        tellThread(asker, pair);
        return answerTo(asker);
    };
    EXPECT_EQ(set("FWDMESSAGES=observer-1.0"), "observer-1.0");
    EXPECT_EQ(set("FWDMESSAGES"), "observer-1.0");
    EXPECT_TRUE(sendFrom(own, request("own-1.0", "watched", "", "query")));
    pumpAll();
    // As one says it that is observed by this process in turn.
    EXPECT_TRUE(sendFrom(observer, request("own-1.0", "observed", "", "FWDMESSAGES")));
    EXPECT_TRUE(sendFrom(observer, request("own-1.0", "arrived", "", "query")));
    std::string seen;
    const auto sees = [&](const char* text) {
        if (observer.messagePending() && observer.receive()) {
            seen += observer.getMessages().c_str();
        }
        return seen.find(text) != std::string::npos;
    };
    pumpUntil([&] { return sees(";Text;arrived\n"); });
    Message last = request("own-1.0", "last", "", "query");
    EXPECT_TRUE(own.send(last, false, 0, nullptr)); // behind what the others have brought about
    pumpUntil([&] { return sees(";Text;last\n"); });
    EXPECT_THAT(seen, testing::Not(testing::HasSubstr("observed")));
    EXPECT_THAT(seen, testing::HasSubstr(";Text;watched\n"));
    EXPECT_THAT(seen, testing::HasSubstr(";Text;arrived\n"));
    EXPECT_THAT(seen, testing::HasSubstr(";Text;last\n"));
    EXPECT_THAT(seen, testing::HasSubstr("];added;\n"));
    EXPECT_THAT(seen, testing::HasSubstr("MsgRoot:/own-1.0/instances/own-1.0/in\n"));
    size_t at = 0;
    for (const char* number : {"1", "2", "3", "4"}) { // so that it sees where one is missing
        at = seen.find("Event-Number:" + std::string(number) + "\n", at);
        ASSERT_NE(at, std::string::npos) << number << "\n" << seen;
    }
    EXPECT_EQ(set("FWDMESSAGES="), "");
    EXPECT_EQ(own.findHandler("FWDMESSAGES", Convey::kAnySerialNumber), nullptr);
}

// What observes is a handler as any other: no lock of the layer is held while it runs.
TEST_F(ObserverTest, anObserverOfWhatArrivesMayReceive) {
    // The background thread receives, too, may be on its way here still when the test has ended,
    // and what it calls pumps.
    struct Noted {
        std::mutex mutex;
        Strings handled;
        Strings labels;
        size_t count() {
            const std::lock_guard<std::mutex> guard(mutex);
            return handled.size();
        }
    };
    const auto noted = std::make_shared<Noted>();
    Convey own("own-1.0", new Handler([noted](int, Message& message, SoString*) {
                   const std::lock_guard<std::mutex> guard(noted->mutex);
                   noted->handled.emplace_back(message.getBody().view());
                   return 0;
               }),
               true, nullptr);
    (void)own.changeHandler(new Handler(
        [noted](int, Message& message, SoString*) {
            const bool received = message.getBody().view().find("];RECEIVE;") != std::string::npos;
            {
                const std::lock_guard<std::mutex> guard(noted->mutex);
                noted->labels.emplace_back(received ? "RECEIVE" : "");
            }
            return Convey::pump(ScObjects::kProcessBoth) ? 0 : 1;
        },
        "FWDLOGS"));
    const InterAppStream peer("peer-1.0");
    for (const char* body : {"first", "second"}) {
        EXPECT_TRUE(sendFrom(peer, request("own-1.0", body)));
    }
    pumpUntil([&] { return noted->count() == 2; });
    const std::lock_guard<std::mutex> guard(noted->mutex);
    EXPECT_THAT(noted->handled, testing::UnorderedElementsAre("first", "second"));
    EXPECT_THAT(noted->labels, testing::Contains("RECEIVE"));
}

} // namespace
