// What becomes of a request: which handler hears which answer, how a wait ends, and that threads,
// depths and exceptions change nothing about it.
#include <stdexcept>

#include "limits/Limits.h"
#include "platform/fake/Fakes.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "tests/support/FailingAllocations.h"
#include "tests/support/Peers.h"
#include "tests/support/TableConnector.h"

namespace {

using Handler = TestHandler;

class ConversationTest : public testing::Test {
protected:
    ConversationTest() : layer("own-1.0", {"own-1.0", "other-2.0", "third-3.0"}) {
        delete other.changeHandler(new Handler(
            [](int, Message&, SoString* result) {
                *result = "answer";
                return 0;
            },
            "Tessaly"));
    }
    void handle(Handler::Body body, const char* type = "Tessaly",
                uint32_t serial = Convey::kAnySerialNumber) {
        delete own.changeHandler(new Handler(std::move(body), type, serial));
    }
    static Message request(uint32_t serial, const char* replies, const char* type = "Tessaly",
                           const char* target = "other-2.0") {
        Message message = ::request(target, "question", replies, type);
        message.setSerialNumber(serial);
        return message;
    }

    StartedLayer layer;
    Convey own{"own-1.0", nullptr, true, nullptr};
    Convey other{"other-2.0", nullptr, false, nullptr};
};

TEST_F(ConversationTest, answersOfAnyTypeReachTheirHandlerByOneRule) {
    const struct {
        const char* registered;
        uint32_t serial;
    } order[] = {{"Result", 5},
                 {"Resultquery", 5},
                 {"", 5},
                 {"Result", Convey::kAnySerialNumber},
                 {"Resultquery", Convey::kAnySerialNumber},
                 {"", Convey::kAnySerialNumber}};
    const struct {
        const char* lines; // of a peer's text; null: an instance of this process answers
        const char* seen;
    } peers[] = {{nullptr, "3 Resultquery 3"},
                 {"@CV>Version:2.05\nType:Resultquery\n", "3 Resultquery 3"},
                 {"@CV>Version:2.05\nType:ResultResultquery\n", "3 Resultquery 3"},
                 {"Type:query\n", "3 Resultquery 3"}};
    const InterAppStream peer("peer-1.0");
    for (const auto& answering : peers) {
        for (size_t first = 0; first < std::size(order); ++first) {
            SCOPED_TRACE(std::string(answering.lines == nullptr ? "local" : answering.lines) +
                         order[first].registered);
            std::string seen;
            std::string which;
            for (size_t i = first; i < std::size(order); ++i) {
                handle(
                    [&, i](int event, Message& message, SoString*) {
                        if (event == 3) { // "Received" and "Processed" are for others
                            seen = std::to_string(event) + " " + message.getType().c_str() + " " +
                                   std::to_string(message.getResult());
                            which = std::to_string(i);
                        }
                        return 0;
                    },
                    order[i].registered, order[i].serial);
            }
            if (answering.lines == nullptr) {
                EXPECT_TRUE(sendFrom(own, request(5, "Result", "query")));
            } else {
                std::string text = answering.lines;
                text += "Target:own-1.0\nSender:peer-1.0\nSerial-Number:9\nResult:5\n\n";
                EXPECT_TRUE(peer.send("own-1.0", SoString(text.c_str())));
            }
            pumpUntil([&] { return !seen.empty(); });
            pumpAll();
            EXPECT_EQ(seen, answering.seen);
            EXPECT_EQ(which, std::to_string(first));
            (void)own.deleteHandlers(5);
            (void)own.deleteHandlers(Convey::kAnySerialNumber);
        }
    }
}

// What peers, new and old, say of a request of the type "query" with the number 5.
TEST_F(ConversationTest, whatIsSaidOfARequestOfAUserTypeReachesItsAsker) {
    const std::tuple<const char*, const char*, const char*, int> cases[] = {
        {"Error", "Errorquery", "Serial-Number:9\nError:5\n", 4},
        {"Error", "ErrorErrorquery", "Serial-Number:9\nError:5\n", 4},
        {"Errorquery", "Errorquery", "Serial-Number:9\nError:5\n", 4},
        {"Error", "query", "Serial-Number:9\nError:5\n", 4},
        {"Received", "Receivedquery", "Serial-Number:9\nReceived:5\n", 2},
        {"Received", "ReceivedReceivedquery", "Serial-Number:9\nReceived:5\n", 2},
        {"Receivedquery", "query", "Serial-Number:9\nReceived:5\n", 2},
        {"Processed", "Processedquery", "Serial-Number:5\n", 0},
        {"Processed", "ProcessedProcessedquery", "Serial-Number:5\n", 0},
        {"Timeout", "Timeoutquery", "Serial-Number:5\n", 5},
        {"Timeout", "TimeoutTimeoutquery", "Serial-Number:5\n", 5},
    };
    const InterAppStream peer("third-3.0");
    for (const char* version : {"@CV>Version:2.05\n", ""}) {
        for (const auto& [handler, type, numbers, expected] : cases) {
            SCOPED_TRACE(std::string(version) + handler + " for " + type);
            int heard = -1;
            handle([&](int event, Message&, SoString*) { return heard = event, 0; }, handler, 5);
            EXPECT_TRUE(sendFrom(own, request(5, "", "query", "third-3.0")));
            std::string text = version;
            text += std::string("Type:") + type + "\n";
            text += std::string("Target:own-1.0\nSender:third-3.0\n") + numbers + "\n";
            EXPECT_TRUE(peer.send("own-1.0", SoString(text.c_str())));
            pumpUntil([&] { return heard >= 0; });
            EXPECT_EQ(heard, expected);
            (void)own.deleteHandlers(5);
        }
    }
}

TEST_F(ConversationTest, aHandlerForAnyTypeIsTheDefault) {
    int calls = 0;
    handle([&](int event, Message&, SoString*) { return calls += event, 0; }, "");
    EXPECT_TRUE(sendFrom(own, request(0, "", "Tessaly", "own-1.0")));
    pumpAll();
    EXPECT_EQ(calls, 1);
}

TEST_F(ConversationTest, aWaitTellsHowItEnded) {
    const struct {
        const char* why;
        std::function<void(uint32_t)> meanwhile; // what the target's handler does
        bool expected;
    } cases[] = {
        {"answered", [](uint32_t) {}, true},
        {"its handler was taken out", [&](uint32_t n) { (void)own.deleteHandlers(n); }, false},
        {"timed out",
         [&](uint32_t n) { EXPECT_TRUE(sendFrom(own, request(n, "", "Timeout", "own-1.0"))); },
         false},
    };
    uint32_t number = 100;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        ++number;
        int calls = 0;
        delete other.changeHandler(new Handler(
            [&](int, Message&, SoString*) {
                c.meanwhile(number);
                return 0;
            },
            "Tessaly"));
        handle([&](int, Message&, SoString*) { return ++calls, 0; }, "Result", number);
        Message message = request(number, "Result");
        EXPECT_EQ(own.send(message, false, 20, nullptr), c.expected);
        EXPECT_EQ(calls, c.expected ? 1 : 0);
        EXPECT_TRUE(!c.expected || own.findHandler("", number) == nullptr)
            << "its message has come";
        pumpAll();
    }
}

// Whoever ends them, a wait ends with its instance and with the layer, and at once.
TEST_F(ConversationTest, aWaitEndsWithItsInstanceAndWithTheLayer) {
    InterAppStream silent("third-3.0"); // takes requests, and answers none
    auto* asker = new Convey("own-1.0", nullptr, false, nullptr);
    Convey local("own-1.0", nullptr, false, nullptr);
    const std::tuple<const char*, std::function<Convey*()>, std::function<void()>> cases[] = {
        {"a handler deletes the instance", [&] { return asker; },
         [&] {
             handle([&](int, Message&, SoString*) { return delete asker, 0; });
             EXPECT_TRUE(sendFrom(own, request(0, "", "Tessaly", "own-1.0")));
         }},
        {"another thread deletes it",
         [&] { return asker = new Convey("own-1.0", nullptr, false, nullptr); },
         [&] { delete asker; }},
        {"the layer ends, and with it the instance",
         [] { return new Convey("own-1.0", nullptr, false, nullptr); },
         [] { EXPECT_TRUE(Convey::InitTerm::exit()); }},
        {"the layer has ended before", [&] { return &local; }, [] {}},
    };
    uint32_t number = 100;
    for (const auto& [why, chosen, meanwhile] : cases) {
        SCOPED_TRACE(why);
        Convey* const instance = chosen();
        delete instance->changeHandler(
            new Handler([](int, Message&, SoString*) { return 0; }, "Result", ++number));
        bool answered = true;
        std::atomic<bool> isOver{false};
        const auto start = std::chrono::steady_clock::now();
        std::thread asking([&] {
            Message message = request(number, "Result", "Tessaly", "third-3.0");
            answered = instance->send(message, false, 60, nullptr);
            isOver = true;
        });
        while (!silent.messagePending() && !isOver) {
            std::this_thread::yield();
        }
        if (!isOver) {
            (void)silent.receive();
        }
        meanwhile();
        asking.join();
        EXPECT_FALSE(answered);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    }
}

TEST_F(ConversationTest, anInstanceThatIsNotOnTheHeapOutlivesTheLayer) {
    class Host { // what is part of something else is not its own block of memory
    public:
        Convey instance{"own-1.0", nullptr, false, nullptr};
    };
    auto host = std::make_unique<Host>();
    std::atomic<int> deleted{0};
    class Derived : public Convey {
    public:
        explicit Derived(std::atomic<int>& deleted)
            : Convey("own-1.0", nullptr, false, nullptr), deleted_(deleted) {}
        ~Derived() override { ++deleted_; }

    private:
        std::atomic<int>& deleted_;
    };
    const Derived local(deleted);
    (void)new Derived(deleted);
    EXPECT_TRUE(sendFrom(own, request(0, "", "Tessaly", "own-1.0")));
    EXPECT_TRUE(own.messagePending());
    EXPECT_TRUE(Convey::InitTerm::exit());
    EXPECT_EQ(deleted, 1) << "what nobody else owns";
    for (const bool again : {false, true}) {
        if (again) {
            EXPECT_TRUE(Convey::InitTerm::init("own-1.0", true));
            own.setContext(Convey::getSharedContext());
        }
        Message message = request(0, "Result Timeout Error");
        EXPECT_FALSE(own.send(message, true, 1, nullptr));
        EXPECT_FALSE(own.processIncomingMessage(Convey::kAnySerialNumber, true));
        EXPECT_FALSE(own.processOutgoingMessage());
        EXPECT_FALSE(own.messagePending());
        EXPECT_EQ(own.getContext(), nullptr);
        EXPECT_EQ(own.getAppName(), "own-1.0");
        handle([](int, Message&, SoString*) { return 0; });
        EXPECT_NE(own.findHandler("Tessaly", Convey::kAnySerialNumber), nullptr);
        EXPECT_TRUE(own.deleteHandlers(Convey::kAnySerialNumber));
        host.reset();
    }
    const Convey successor("own-1.0", nullptr, true, nullptr);
    EXPECT_EQ(successor.getAppName(), "own-1.0") << "the name is free";
}

TEST_F(ConversationTest, waitingInHandlersHasADepth) {
    int64_t depth = 0;
    int64_t deepest = 0;
    int handled = 0;
    handle([&](int event, Message&, SoString*) {
        if (event != 1) {
            return 0;
        }
        deepest = std::max(deepest, ++depth);
        ++handled;
        Message nested = request(0, "Result");
        nested.setSerialNumber(nested.getNextSerialNumber(nullptr));
        delete own.changeHandler(new Handler([](int, Message&, SoString*) { return 0; }, "Result",
                                             nested.getSerialNumber()));
        EXPECT_TRUE(own.send(nested, false, 20, nullptr)) << "what is waited for still comes";
        --depth;
        return 0;
    });
    constexpr int kRequests = 5000;
    for (int i = 0; i < kRequests; ++i) {
        ASSERT_TRUE(sendFrom(own, request(0, "", "Tessaly", "own-1.0")));
    }
    pumpAll();
    EXPECT_EQ(handled, kRequests);
    EXPECT_LE(deepest, limits::of("handler.depth"));
    EXPECT_GT(deepest, 1);
}

TEST_F(ConversationTest, aHandlerMayThrowAndMayNotEndTheLayer) {
    platform::InForce<platform::Log, platform::FakeLog> log;
    bool ended = true;
    delete other.changeHandler(new Handler(
        [&](int, Message&, SoString*) -> int32_t {
            ended = Convey::InitTerm::exit();
            throw std::runtime_error("no");
        },
        "Tessaly"));
    std::string error;
    handle(
        [&](int, Message& message, SoString*) {
            error = message.getBody().c_str();
            error += message.getUserHeaderValue("Error-Code").c_str();
            return 0;
        },
        "Error", 7);
    Message message = request(7, "Error");
    EXPECT_TRUE(own.send(message, false, 20, nullptr));
    EXPECT_EQ(error, "ERROR: HANDLER FAILED61");
    EXPECT_FALSE(ended);
    EXPECT_EQ(log.lines,
              std::vector<std::string>{"a handler for messages of type \"Tessaly\" threw: no"});
    delete other.removeHandler(
        "Tessaly", Convey::kAnySerialNumber); // would wait for ever for a slot that is not left
}

// Each allocation of each operation fails once: nothing is thrown, no handler is lost or deleted
// twice, and the operation works again when there is memory.
TEST_F(ConversationTest, noOperationThrowsWhenMemoryRunsOut) {
    std::atomic<int> handlers{0};
    const SoString type("a type that does not fit into a small text");
    const auto counted = [&] {
        return new Handler([](int, Message&, SoString*) { return 0; }, type.c_str(),
                           Convey::kAnySerialNumber, &handlers);
    };
    Message local = request(0, "Received Result Timeout Error", "Tessaly", "own-1.0");
    Message port = local;
    port.setTarget("third-3.0");
    std::unique_ptr<Convey::MsgHandler> handler;
    InterAppStream third("third-3.0");
    const auto fresh = [](const Message& message) {
        auto copy = std::make_unique<Message>(message);
        copy->setSerialNumber(0);
        return copy;
    };
    std::unique_ptr<Message> sent;
    bool done = false; // whether the operation did what it is for
    const std::tuple<const char*, std::function<void()>, std::function<void()>> cases[] = {
        {"constructor", [&] { handler.reset(counted()); },
         [&] {
             auto* const given = handler.release();
             Convey instance("own-1.0", given, false, nullptr);
             done = instance.getContext() != nullptr &&
                    instance.findHandler(type, Convey::kAnySerialNumber) == given;
         }},
        {"changeHandler", [&] { handler.reset(counted()); },
         [&] {
             auto* const given = handler.release();
             delete own.changeHandler(given);
             done = own.findHandler(type, Convey::kAnySerialNumber) == given;
         }},
        {"removeHandler", [&] { delete own.changeHandler(counted()); },
         [&] {
             handler.reset(own.removeHandler(type, Convey::kAnySerialNumber)),
                 done = handler != nullptr;
         }},
        {"deleteHandler", [&] { delete own.changeHandler(counted()); },
         [&] { done = own.deleteHandler(own.findHandler(type, Convey::kAnySerialNumber)); }},
        {"deleteHandlers", [&] { delete own.changeHandler(counted()); },
         [&] { done = own.deleteHandlers(Convey::kAnySerialNumber); }},
        {"send within the process", [&] { sent = fresh(local); },
         [&] { done = own.send(*sent, false, 0, nullptr); }},
        {"send through a port", [&] { sent = fresh(port); },
         [&] { done = own.send(*sent, false, 0, nullptr); }},
        {"sendResult", [&] { sent = fresh(port), sent->setSender("third-3.0"); },
         [&] { done = own.sendResult(*sent, type); }},
        {"pump",
         [&] {
             sent = fresh(request(0, "Received Result Timeout Error"));
             EXPECT_TRUE(own.send(*sent, false, 0, nullptr));
         },
         [&] { done = Convey::pump(ScObjects::kProcessBoth); }},
        {"getAppName", [] {}, [&] { done = own.getAppName() == "own-1.0"; }},
    };
    for (const auto& [name, prepare, operation] : cases) {
        bool failed = true;
        for (int number = 0; failed; ++number) {
            SCOPED_TRACE(std::string(name) + " " + std::to_string(number));
            prepare();
            done = false;
            failed = fails(number, [&operation = operation] { EXPECT_NO_THROW(operation()); });
            EXPECT_TRUE(failed || done);
            ASSERT_LT(number, 5000);
            handler.reset();
            (void)own.deleteHandlers(Convey::kAnySerialNumber);
            EXPECT_EQ(handlers, 0) << "every handler is deleted, once";
            while (third.messagePending()) {
                (void)third.receive();
                (void)third.getMessages();
            }
            pumpAll();
        }
    }
}

// Whichever allocation fails as a request is handled: it is handled once, now or when there is
// memory, or its asker hears of an error.
TEST_F(ConversationTest, aMessageIsNotLostWhenMemoryRunsOut) {
    bool failed = true;
    for (uint32_t number = 1; failed; ++number) {
        SCOPED_TRACE(number);
        int calls = 0;
        std::string heard;
        delete other.changeHandler(new Handler(
            [&](int, Message&, SoString* result) {
                *result = "a result that does not fit into a small text";
                return ++calls, 0;
            },
            "Tessaly"));
        for (const char* type : {"Result", "Error"}) {
            handle([&heard, type](int, Message&, SoString*) { return heard += type, 0; }, type,
                   number);
        }
        ASSERT_TRUE(sendFrom(own, request(number, "Result Error")));
        failed = fails(static_cast<int>(number) - 1,
                       [] { (void)Convey::pump(ScObjects::kProcessBoth); });
        pumpAll();
        EXPECT_LE(calls, 1);
        EXPECT_NE(heard, "");
        EXPECT_TRUE(calls == 1 || heard == "Error") << heard;
        ASSERT_LT(number, 5000U);
        (void)own.deleteHandlers(number);
    }
}

// Whichever allocation fails: a watch is there or not, and one that ends is told of once.
TEST_F(ConversationTest, noWatchIsHalfMadeOrLostWhenMemoryRunsOut) {
    ScObjects::ConveyData::Conversations conversations;
    const Message message = request(5, "Timeout");
    const auto attempt = [](int number, const std::function<void()>& operation) {
        const FailingAllocation failing(number);
        try {
            operation();
        } catch (const std::bad_alloc&) {
            return false;
        }
        return true;
    };
    for (int number = 0;; ++number) {
        ASSERT_LT(number, 100);
        const bool made = attempt(number, [&] { conversations.watch(message, "own-1.0", 0); });
        EXPECT_EQ(conversations.isWatching(), made) << number;
        size_t told = 0;
        (void)attempt(number, [&] { told += conversations.takeExpired().size(); });
        told += conversations.takeExpired().size();
        ASSERT_EQ(told, made ? 1U : 0U) << number;
        if (made && number > 20) {
            break;
        }
    }
}

TEST_F(ConversationTest, dropsAnswersToAPredecessor) {
    const InterAppStream peer("peer-1.0");
    int results = 0;
    handle([&](int event, Message&, SoString*) { return results += event == 3 ? 1 : 0, 0; });
    for (const char* life : {"@CV>Life:0123456789abcdef\n", ""}) {
        std::string text = *life == '\0' ? "@CV>MD5:0123456789ABCDEF0123456789ABCDEF\n" : "";
        text += "@CV>Version:2.05\nTarget:own-1.0\nSender:peer-1.0\n";
        text += life;
        text += "Result:5\n\n";
        EXPECT_TRUE(peer.send("own-1.0", SoString(text.c_str())));
    }
    pumpUntil([&] { return results != 0; });
    EXPECT_EQ(results, 1) << "without a mark it is taken as it is";
    SoString rows;
    Convey::getDiagnostics(rows, false);
    EXPECT_NE(rows.view().find("/own-1.0/predecessor;0;Answers to a predecessor;1;"),
              std::string_view::npos);
    EXPECT_NE(rows.view().find("/own-1.0/rejected;0;REJECTED;1;"), std::string_view::npos)
        << "a digest that does not fit";
}

} // namespace
