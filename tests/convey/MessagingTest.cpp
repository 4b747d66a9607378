// Replies that are given later, and the messenger, within one process.
#include <coroutine>
#include <mutex>
#include <optional>
#include <stdexcept>

#include "adapters/ConveyAwait.h"
#include "tests/support/FailingAllocations.h"
#include "tests/support/Peers.h"
#include "tests/support/TableConnector.h"

namespace {

using Outcome = Convey::Outcome;
using Reply = Convey::Reply;
using namespace ScObjects::ConveyData;

std::string shown(const Outcome& outcome) {
    const char* const kinds[] = {"result",        "error",   "timeout",  "not running",
                                 "not installed", "refused", "cancelled"};
    return std::string(kinds[outcome.kind()]) + " " + std::to_string(outcome.code()) + " " +
           outcome.text().c_str();
}

class MessagingTest : public testing::Test {
protected:
    MessagingTest() : layer("own-1.0", {"own-1.0", "other-2.0", "absent-1.0"}) {
        EXPECT_TRUE(layer.started);
    }

    // What becomes of a request to the messenger "other" with this body.
    std::string outcomeOf(const std::string& body) {
        std::string outcome = "none";
        const auto pending = asker.request("other-2.0", body.c_str())
                                 .onOutcome([&](const Outcome& how) { outcome = shown(how); })
                                 .send();
        pumpUntil([&] { return outcome != "none"; });
        return outcome;
    }

    StartedLayer layer;
    Convey::Messenger asker{"own-1.0"};
    std::optional<Convey::Messenger> other{std::in_place, "other-2.0"};
};

TEST_F(MessagingTest, aReplyThatIsGivenLaterHoldsBackTheEndOfItsRequest) {
    Strings heard;
    Reply kept;
    delete other->instance().changeHandler(new TestHandler([&](int, Message&, SoString* result) {
        *result = "of the handler";
        kept = Reply::take();
        EXPECT_FALSE(Reply::take().isOpen()) << "there is one";
        return 0;
    }));
    delete asker.instance().changeHandler(noting(heard));
    const std::pair<const char*, Strings> cases[] = {
        {"Result", {"3 Tessaly later", "0 Processed "}},
        {"Error", {"0 Processed "}},
        {"Received Result", {"2 Tessaly question", "3 Tessaly later", "0 Processed "}},
        {"", {}},
    };
    for (const auto& [wanted, expected] : cases) {
        SCOPED_TRACE(wanted);
        heard.clear();
        Message question = request("other-2.0", "question", wanted);
        EXPECT_TRUE(asker.instance().send(question, false, 0, nullptr));
        pumpAll();
        EXPECT_THAT(heard, testing::Not(testing::Contains("0 Processed ")));
        ASSERT_TRUE(kept.isOpen());
        std::thread([&] {
            EXPECT_TRUE(kept.result("later"));
            EXPECT_FALSE(kept.error(7, "twice"));
        }).join();
        pumpAll();
        EXPECT_EQ(heard, expected);
    }
}

TEST_F(MessagingTest, everyRequestHasOneOutcome) {
    Reply kept;
    const auto handle = [&](const Message& request, Reply reply) {
        const std::string body = request.getBody().c_str();
        if (body == "result") {
            (void)reply.result("as asked");
        } else if (body == "error") {
            (void)reply.error(7, "as asked");
        } else if (body == "throw" || body == "answer and throw") {
            (void)(body == "throw" || reply.result("too early"));
            throw std::runtime_error("as asked");
        } else if (body == "keep") {
            kept = std::move(reply);
        } else if (body == "end" || body == "answer and end") {
            (void)(body == "end" || reply.result("the last"));
            other.reset();
            (void)reply.result("too late");
        }
    };
    other->on(CV_TYPE_PLAIN, handle);
    const char* const rows[][2] = {
        {"result", "result 0 as asked"},
        {"error", "error 7 as asked"},
        {"throw", "error 61 ERROR: HANDLER FAILED"},
        {"answer and throw", "error 61 ERROR: HANDLER FAILED"},
        {"drop", "error 64 ERROR: NOT ANSWERED"},
        {"", "refused 59 ERROR: CAN'T STREAM MESSAGE TO STRING"},
    };
    for (const auto& [body, expected] : rows) {
        EXPECT_EQ(outcomeOf(body), expected) << body;
    }
    const struct {
        std::string target;
        bool launches;
        const char* expected;
    } targets[] = {
        {"absent-1.0", false, "not running 59 ERROR: LAUNCHING IS SUPPRESSED"},
        {"absent-1.0", true, "not running 59 ERROR: TARGET COULD NOT BE LAUNCHED"},
        {"nobody-1.0", false, "not installed 59 ERROR: LAUNCHING IS SUPPRESSED"},
        {std::string(300, 'x'), false, "refused 59 ERROR: INVALID SPECIFIER"},
        {"", false, "refused 59 ERROR: INVALID SPECIFIER"},
    };
    for (const auto& c : targets) {
        auto request = asker.request(c.target.c_str(), "x");
        if (c.launches) {
            request.launch();
        }
        EXPECT_EQ(shown(request.wait()), c.expected) << c.target;
    }
    // What it was when it was sent counts, and not who has come since.
    auto tooEarly = asker.request("absent-1.0", "x").future();
    std::optional<InterAppStream> started(std::in_place, "absent-1.0");
    pumpAll();
    ASSERT_EQ(tooEarly.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    EXPECT_EQ(shown(tooEarly.get()), targets[0].expected);
    started.reset();
    EXPECT_EQ(shown(asker.request("other-2.0", "x").type("unknown").wait()),
              "error 64 ERROR: NOT ANSWERED")
        << "the function for plain messages is that for all without one";
    const InterAppStream silent("silent-1.0");
    EXPECT_EQ(shown(asker.request("silent-1.0", "x").within(std::chrono::milliseconds(1)).wait()),
              "timeout 0 ");
    auto future = asker.request("other-2.0", "keep").future();
    pumpUntil([&] { return kept.isOpen(); });
    other.reset();
    EXPECT_FALSE(kept.isOpen());
    pumpAll();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    EXPECT_EQ(shown(future.get()), "error 62 ERROR: TARGET HAS ENDED");
    EXPECT_FALSE(kept.result("too late"));
    EXPECT_EQ(outcomeOf("result"), "not running 59 ERROR: LAUNCHING IS SUPPRESSED");
    // One that ends within a handler, with and without an answer.
    const char* const ends[][2] = {{"end", "error 62 ERROR: TARGET HAS ENDED"},
                                   {"answer and end", "result 0 the last"}};
    for (const auto& [body, expected] : ends) {
        other.emplace("other-2.0").on(CV_TYPE_PLAIN, handle);
        EXPECT_EQ(outcomeOf(body), expected) << body;
    }
    // And one of the given classes, whose handler has no such reply.
    auto* const given = new Convey("other-2.0", nullptr, false, nullptr);
    delete given->changeHandler(new TestHandler([&](int, Message&, SoString*) {
        delete given;
        return 0;
    }));
    EXPECT_EQ(outcomeOf("x"), "error 62 ERROR: TARGET HAS ENDED");
}

// What is sent at once is sent once; what is not can be sent by another way.
TEST_F(MessagingTest, whatIsNotSentAtOnceIsUntouched) {
    const std::string large(100'000, 'x');
    int handled = 0;
    other->on(CV_TYPE_PLAIN, [&](const Message&) { ++handled; });
    const std::tuple<const char*, std::string, bool> cases[] = {
        {"other", "x", true}, // within the process
        {"absent-1.0", "x", false}, {"other-2.0", "", false},     {"", "x", false},
        {"silent-1.0", "x", true},  {"silent-1.0", large, false},
    };
    const InterAppStream silent("silent-1.0");
    for (const auto& [target, body, expected] : cases) {
        SCOPED_TRACE(target);
        std::string outcome = "none";
        auto request = asker.request(target, body.c_str());
        request.onOutcome([&](const Outcome& how) { outcome = shown(how); });
        Convey::Pending pending;
        EXPECT_EQ(request.trySend(pending), expected);
        EXPECT_EQ(pending.isOpen(), expected);
        if (target == std::string("other")) {
            pumpUntil([&] { return outcome != "none"; });
            EXPECT_EQ(outcome, "result 0 ");
        } else if (expected) {
            EXPECT_TRUE(silent.messagePending());
        } else {
            pumpAll();
            EXPECT_EQ(outcome, "none");
            if (body == large) {
                continue; // nobody reads it
            }
            EXPECT_EQ(shown(request.wait()), outcome); // with the same function
            EXPECT_THAT(outcome, testing::EndsWith(body.empty() ? "TO STRING"
                                                   : *target    ? "SUPPRESSED"
                                                                : "SPECIFIER"));
        }
        EXPECT_EQ(asker.request(target, body.c_str()).tryPost(), expected);
    }
    pumpUntil([&] { return handled == 2; });
    EXPECT_EQ(handled, 2);
}

TEST_F(MessagingTest, functionsOfManyKindsAnswer) {
    other->on("nothing", [](const Message&) {});
    other->on("text", [](const Message& request) {
        return "text " + std::string(request.getBody().c_str());
    });
    other->on("moved",
              [own = std::make_unique<int>(7)](const Message&) { return std::to_string(*own); });
    const char* const rows[][2] = {{"nothing", "result 0 "},
                                   {"text", "result 0 text x"},
                                   {"moved", "result 0 7"},
                                   {"none", "error 66 ERROR: NOBODY HANDLES THIS TYPE"}};
    for (const auto& [type, expected] : rows) {
        EXPECT_EQ(shown(asker.request("other-2.0", "x").type(type).wait()), expected);
    }
    EXPECT_TRUE(other->off("text"));
    EXPECT_FALSE(other->off("text"));
    auto future = asker.request("other-2.0", "x").type("moved").header("Page", "12").future();
    pumpUntil(
        [&] { return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
    const Outcome outcome = future.get();
    ASSERT_NE(outcome.message(), nullptr);
    EXPECT_EQ(outcome.message()->getUserHeaderValue("Page"), "12") << "given back";
}

// A coroutine that runs until it awaits, and then on its own.
struct Task {
    struct promise_type {
        Task get_return_object() {
            return {std::coroutine_handle<promise_type>::from_promise(*this)};
        }
        static std::suspend_never initial_suspend() noexcept { return {}; }
        static std::suspend_always final_suspend() noexcept { return {}; }
        static void return_void() {}
        static void unhandled_exception() { std::terminate(); }
    };
    std::coroutine_handle<promise_type> handle;
};

Task askTwice(Convey::Messenger& asker, const char* second, Strings& heard) {
    for (const char* target : {"other-2.0", second}) {
        heard.push_back(shown(co_await asker.request(target, target).type("echo")));
    }
    heard.push_back(shown(co_await asker.request(second, ""))); // told within the sending
}

TEST_F(MessagingTest, coroutinesAwaitRequests) {
    Reply kept;
    other->on("echo", [](const Message& request) { return request.getBody(); });
    Strings heard;
    const Task task = askTwice(asker, "absent-1.0", heard);
    EXPECT_TRUE(heard.empty());
    pumpUntil([&] { return task.handle.done(); });
    task.handle.destroy();
    EXPECT_EQ(heard, (Strings{"result 0 other-2.0", "not running 59 ERROR: LAUNCHING IS SUPPRESSED",
                              "refused 59 ERROR: CAN'T STREAM MESSAGE TO STRING"}));
    // One that is destroyed while it awaits is not gone on with.
    heard.clear();
    other->on("echo", [&](const Message&, Reply reply) { kept = std::move(reply); });
    const Task cancelled = askTwice(asker, "absent-1.0", heard);
    pumpUntil([&] { return kept.isOpen(); });
    cancelled.handle.destroy();
    EXPECT_TRUE(kept.result("too late"));
    pumpAll();
    EXPECT_TRUE(heard.empty());
}

// What a peer sends without being asked must not pass for the end of a request.
TEST_F(MessagingTest, anUnaskedAcknowledgementIsNoOutcome) {
    InterAppStream peer("peer-1.0");
    std::string outcome;
    const auto pending = asker.request("peer-1.0", "x")
                             .onOutcome([&](const Outcome& how) { outcome = shown(how); })
                             .send();
    Message answer = nextMessage(peer);
    const uint32_t number = answer.getSerialNumber();
    for (const char* type : {"Received", "Received", "Result"}) {
        Message reply = request("own-1.0", type, "", type);
        reply.setSerialNumber(number);
        reply.setAskersLife(answer.getAskersLife());
        EXPECT_TRUE(sendFrom(peer, reply));
    }
    pumpUntil([&] { return !outcome.empty(); });
    EXPECT_EQ(outcome, "result 0 Result");
}

TEST_F(MessagingTest, aCancelledRequestIsNeverHeardOfAgain) {
    other->on(CV_TYPE_PLAIN, [](const Message&) { return "answer"; });
    std::atomic<bool> end{false};
    std::thread pump([&] {
        while (!end) {
            (void)Convey::pumpOrWait(1);
        }
    });
    int told = 0;
    for (int i = 0; i < 300; ++i) {
        // Freed as soon as the cancellation has returned: whoever still calls is caught.
        auto heard = std::make_unique<int>(0);
        auto pending = asker.request("other-2.0", "x")
                           .onOutcome([raw = heard.get()](const Outcome&) { ++*raw; })
                           .send();
        for (int spin = 0; spin < i * 20 && pending.isOpen(); ++spin) {
            std::this_thread::yield();
        }
        pending.cancel();
        told += *heard;
        EXPECT_LE(*heard, 1);
    }
    end = true;
    pump.join();
    EXPECT_LE(told, 300);
    // From within its own function, too, and with the messenger.
    Convey::Pending own;
    std::string outcome;
    own = asker.request("other-2.0", "x")
              .onOutcome([&](const Outcome& how) {
                  own.cancel();
                  outcome = shown(how);
              })
              .send();
    pumpUntil([&] { return !outcome.empty(); });
    EXPECT_EQ(outcome, "result 0 answer");
    std::optional<Convey::Messenger> brief(std::in_place, "brief-1.0");
    auto left = brief->request("other-2.0", "x")
                    .onOutcome([&](const Outcome& how) { outcome = shown(how); })
                    .send();
    brief.reset();
    EXPECT_EQ(outcome, "cancelled 0 ");
    EXPECT_FALSE(left.isOpen());
}

// The answer comes while the handler returns, before, and behind: each time there is one outcome.
TEST_F(MessagingTest, repliesOfOtherThreadsMeetTheEndOfTheirHandlers) {
    std::mutex mutex;
    std::vector<Reply> given;
    std::atomic<bool> end{false};
    std::atomic<int> answered{0};
    int i = 0;
    other->on(CV_TYPE_PLAIN, [&](const Message&, Reply reply) {
        {
            const std::lock_guard<std::mutex> guard(mutex);
            given.push_back(std::move(reply));
        }
        while (i % 2 != 0 && answered <= i) { // surely before the handler returns
            std::this_thread::yield();
        }
    });
    std::thread worker([&] {
        while (!end) {
            std::vector<Reply> mine;
            {
                const std::lock_guard<std::mutex> guard(mutex);
                mine.swap(given);
            }
            for (Reply& reply : mine) {
                EXPECT_TRUE(reply.result("answer"));
                ++answered;
            }
            std::this_thread::yield();
        }
    });
    for (; i < 500; ++i) {
        ASSERT_EQ(outcomeOf("x"), "result 0 answer") << i;
    }
    end = true;
    worker.join();
}

TEST_F(MessagingTest, whatIsOwedToOneAskerHasABound) {
    std::vector<Reply> kept;
    other->on(CV_TYPE_PLAIN,
              [&](const Message&, Reply reply) { kept.push_back(std::move(reply)); });
    const std::string header(1 << 20, 'h');
    const int requests = 34; // of a MiB each; 32 may be owed
    Strings outcomes;
    std::vector<Convey::Pending> pending;
    for (int i = 0; i < requests; ++i) {
        pending.push_back(
            asker.request("other-2.0", "x")
                .header("Large", header.c_str())
                .onOutcome([&](const Outcome& how) { outcomes.push_back(shown(how)); })
                .send());
        pumpAll();
    }
    EXPECT_THAT(outcomes, testing::SizeIs(testing::AllOf(testing::Ge(1U), testing::Le(4U))));
    EXPECT_THAT(outcomes, testing::Each("error 65 ERROR: TOO MANY REPLIES ARE OWED"));
    SoString state;
    Convey::getDiagnostics(state, true);
    EXPECT_THAT(state.c_str(), testing::HasSubstr("Replies owed = 3"));
    outcomes.clear();
    kept.erase(kept.begin(), kept.begin() + 3); // answers them, and makes room
    pumpAll();
    EXPECT_THAT(outcomes, testing::Each("error 64 ERROR: NOT ANSWERED"));
    EXPECT_THAT(outcomes, testing::SizeIs(3));
    const auto more = asker.request("other-2.0", "x").header("Large", header.c_str()).send();
    pumpAll();
    EXPECT_TRUE(kept.back().isOpen());
}

// Whatever fails: the asker hears of it, and nothing is left behind.
TEST_F(MessagingTest, withoutMemoryThereIsAnOutcomeAllTheSame) {
    other->on(CV_TYPE_PLAIN, [](const Message&, Reply reply) {
        static Reply kept;
        kept = std::move(reply);
        if (kept.isOpen()) {
            Reply(std::move(kept)).result("answer"); // in the call; the next in the one behind
        }
    });
    Reply later;
    other->on("later", [&](const Message&, Reply reply) { later = std::move(reply); });
    const SoString answer("answer"); // made while there is memory
    for (const char* type : {CV_TYPE_PLAIN, "later"}) {
        bool failed = true;
        for (int number = 0; failed; ++number) {
            SCOPED_TRACE(std::string(type) + " " + std::to_string(number));
            int told = 0;
            auto request = asker.request("other-2.0", "x");
            request.type(type).onOutcome([&](const Outcome& how) {
                // Nobody has cancelled it.
                told += how.kind() == Outcome::kCancelled ? 100 : 1;
            });
            Convey::Pending pending;
            failed = fails(number, [&] {
                pending = request.send();
                pumpAll();
                (void)later.result(answer);
            });
            pumpUntil([&] {
                (void)later.result(answer);
                return told != 0;
            });
            ASSERT_EQ(told, 1);
        }
    }
}

} // namespace
