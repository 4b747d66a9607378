#include <csignal>
#include <future>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include "tests/support/Peers.h"
#include "tests/support/TableConnector.h"

namespace {

constexpr int kLong = 30000; // milliseconds that a test waits for what has to come

// A handler that only says that it was called.
TestHandler* telling(std::function<void()> called) {
    return new TestHandler(
        [called = std::move(called)](int, Message&, SoString*) { return called(), 0; });
}

// A host whose main loop is poll.
class MainLoopTest : public testing::Test {
protected:
    MainLoopTest()
        : layer("own-1.0", {"own-1.0", "other-2.0"}), descriptor(Convey::getPollDescriptor()) {
        EXPECT_TRUE(layer.started);
        EXPECT_GE(descriptor, 0);
        settle();
    }

    bool readable(int milliseconds) const {
        pollfd watched{descriptor, POLLIN, 0};
        return poll(&watched, 1, milliseconds) == 1;
    }
    // Until nothing is left, as a loop does.
    void settle() const {
        while (readable(0)) {
            (void)Convey::pump(ScObjects::kProcessBoth);
        }
    }
    static bool send(const Convey& from, const char* target, const char* body,
                     const char* replies = "", uint32_t timeoutSeconds = 60) {
        Message message = request(target, body, replies);
        message.setTimeout(timeoutSeconds);
        return from.send(message, false, 0, nullptr);
    }

    StartedLayer layer;
    std::atomic<int> handled{0};
    Convey own{"own-1.0", telling([this] { ++handled; }), true, nullptr};
    const int descriptor;
};

TEST_F(MainLoopTest, theDescriptorTellsWhenAPumpHasSomethingToDo) {
    EXPECT_EQ(Convey::getPollDescriptor(), descriptor) << "one for the process";
    Convey other("other-2.0", nullptr, false, nullptr);
    ScObjects::InterAppStream peer("peer-1.0"); // as another process reaches this one
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"another thread sends",
         [&] { std::thread([&] { EXPECT_TRUE(send(other, "own-1.0", "x")); }).join(); }},
        {"another process sends", [&] { EXPECT_TRUE(sendFrom(peer, request("own-1.0", "x"))); }},
        {"its own request runs out of time", // which its handler is told
         [&] { EXPECT_TRUE(send(own, "peer-1.0", "x", "Timeout", 1)); }},
    };
    for (const auto& [what, happens] : cases) {
        SCOPED_TRACE(what);
        EXPECT_FALSE(readable(0)) << "nothing to do before";
        handled = 0;
        happens();
        EXPECT_TRUE(readable(kLong));
        settle();
        EXPECT_EQ(handled, 1);
        EXPECT_FALSE(readable(0));
    }
}

// A pump looks at the instances in turn: what a handler sends on is handled by the same pump, or is
// left for the next.
TEST_F(MainLoopTest, whatAHandlerSendsOnKeepsItReadableUntilItIsHandled) {
    int forwarded = 0;
    std::unique_ptr<Convey> other;
    other = std::make_unique<Convey>("other-2.0", telling([&] {
                                         ++forwarded;
                                         if (forwarded == 1) {
                                             EXPECT_TRUE(send(*other, "own-1.0", "back"));
                                         }
                                     }),
                                     false, nullptr);
    EXPECT_TRUE(send(own, "other-2.0", "x"));
    EXPECT_TRUE(readable(kLong));
    (void)Convey::pump(ScObjects::kProcessBoth);
    EXPECT_EQ(handled, 0) << "it comes before the other, and has had its turn";
    EXPECT_TRUE(readable(0));
    delete own.changeHandler(telling([&] { EXPECT_TRUE(send(own, "other-2.0", "again")); }));
    (void)Convey::pump(ScObjects::kProcessBoth);
    EXPECT_EQ(forwarded, 2) << "in the same turn";
    EXPECT_FALSE(readable(0));
}

// A request's answer is waited for while others arrive, which stay in the queue.
TEST_F(MainLoopTest, whatIsLeftBehindKeepsItReadable) {
    for (const char* body : {"a", "b", "c"}) {
        EXPECT_TRUE(send(own, "own-1.0", body));
    }
    for (int left = 3; left > 0; --left) {
        EXPECT_TRUE(readable(kLong)) << left;
        EXPECT_TRUE(own.processIncomingMessage(Convey::kAnySerialNumber, true));
    }
    settle();
    EXPECT_EQ(handled, 3);
    EXPECT_FALSE(readable(300)) << "also after rounds of the background thread";
}

// What a loop that comes at once is left to draw itself is drawn for it when it does not come any
// more, and while it waits within the layer.
TEST_F(MainLoopTest, whatArrivesIsReceivedWhetherTheLoopComesOrNot) {
    ScObjects::InterAppStream peer("peer-1.0");
    const auto ask = [&](const char* body) {
        EXPECT_TRUE(sendFrom(peer, request("own-1.0", body, "Received")));
    };
    for (int round = 1; round <= 3; ++round) {
        SCOPED_TRACE(round);
        handled = 0;
        for (int i = 1; i <= 50; ++i) { // the loop comes at once
            ask("x");
            EXPECT_TRUE(readable(kLong)) << i;
            while (handled < i && readable(kLong)) {
                (void)Convey::pump(ScObjects::kProcessBoth);
            }
            EXPECT_EQ(nextMessage(peer).getType(), "Received") << i;
        }
        settle();
        EXPECT_EQ(handled, 50);
        ask("while it does not come");
        EXPECT_EQ(nextMessage(peer).getType(), "Received");
        EXPECT_EQ(handled, 50);
        ask("while it waits in the layer");
        pumpUntil([&] { return handled == 52; });
        EXPECT_EQ(handled, 52);
        EXPECT_EQ(nextMessage(peer).getType(), "Received");
        settle();
        EXPECT_FALSE(readable(300)) << "nothing is left";
    }
}

TEST_F(MainLoopTest, runSleepsUntilItIsToldToEnd) {
    // As a host does at its start, so that a request to end is not lost before `run`.
    sigset_t requests;
    sigset_t before;
    sigemptyset(&requests);
    sigaddset(&requests, SIGTERM);
    sigaddset(&requests, SIGINT);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &requests, &before), 0);
    const struct {
        const char* what;
        std::function<void()> ends;
        int result;
    } cases[] = {
        {"a thread quits", [] { Convey::quit(); }, 0},
        {"SIGTERM", [] { kill(getpid(), SIGTERM); }, SIGTERM},
        {"SIGINT", [] { kill(getpid(), SIGINT); }, SIGINT},
    };
    for (const auto& c : cases) {
        for (const bool early : {false, true}) {
            SCOPED_TRACE(std::string(c.what) + (early ? ", before it runs" : ", while it runs"));
            std::thread other([&] {
                if (!early) {
                    handled = 0;
                    EXPECT_TRUE(send(own, "own-1.0", "x"));
                    while (handled == 0) { // so it runs
                        std::this_thread::yield();
                    }
                    c.ends();
                }
            });
            if (early) {
                c.ends();
            }
            EXPECT_EQ(Convey::run(), c.result);
            other.join();
        }
    }
    std::thread ending([] { EXPECT_TRUE(Convey::InitTerm::exit()); });
    EXPECT_EQ(Convey::run(), -1) << "the layer has ended";
    ending.join();
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace
