// Messages within one process and over its ports: who handles them, in which order, what is
// refused.

#include "limits/Limits.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "tests/convey/EngineFixture.h"

namespace {

using Handler = TestHandler;
constexpr uint32_t kAny = Convey::kAnySerialNumber;

TEST_F(EngineTest, aConversationWithinTheProcess) {
    Strings server;
    Strings client;
    Convey other("other-2.0", nullptr, false, nullptr);
    delete other.changeHandler(new Handler([&](int event, Message& message, SoString* result) {
        server.push_back(std::to_string(event) + " " + message.getBody().c_str());
        *result = "result text";
        return message.getBody() == "fail" ? 9 : 0;
    }));
    Convey own("own-1.0", noting(client), true, nullptr);
    const std::tuple<const char*, const char*, Strings> cases[] = {
        {"plain", "", {}},
        {"a", "Received", {"2 Tessaly a", "0 Processed "}},
        {"b", "Result", {"3 Tessaly result text", "0 Processed "}},
        {"c", "Received Result Error", {"2 Tessaly c", "3 Tessaly result text", "0 Processed "}},
        {"fail", "Result", {"0 Processed "}},
        {"fail", "Error Result", {"4 Tessaly result text", "0 Processed "}},
    };
    for (const auto& [body, replies, expected] : cases) {
        SCOPED_TRACE(std::string(body) + ": " + replies);
        server.clear();
        client.clear();
        Message message = request("other-2.0", body, replies);
        EXPECT_TRUE(own.send(message, false, 0, nullptr));
        EXPECT_NE(message.getSerialNumber(), 0U);
        EXPECT_EQ(message.getSender(), "own-1.0");
        pumpAll();
        EXPECT_EQ(server, Strings{std::string("1 ") + body});
        EXPECT_EQ(client, expected);
    }
    client.clear();
    Message message = request("other-2.0", "with headers", "Result");
    message.setHeader("First", "1");
    message.setHeader("Second", "2");
    delete own.changeHandler(new Handler([&](int event, Message& result, SoString*) {
        const Convey::Header* header = event == 3 ? result.getHeaders() : nullptr;
        for (; header != nullptr; header = header->next) {
            client.emplace_back(header->name.view());
        }
        return 0;
    }));
    EXPECT_TRUE(own.send(message, false, 0, nullptr));
    pumpAll();
    EXPECT_EQ(client, (Strings{"Second", "First"})) << "as an answer has always had them";
    client.clear();
    EXPECT_FALSE(sendFrom(own, request("nobody-1.0", "body")));
    pumpAll();
    EXPECT_EQ(client, Strings()) << "who does not ask for errors gets none";
    EXPECT_FALSE(own.messagePending());
}

TEST_F(EngineTest, tellsHandlersTheKindOfMessage) {
    Strings calls;
    Convey own("own-1.0", noting(calls), true, nullptr);
    const std::pair<const char*, const char*> cases[] = {
        {"Tessaly", "1 Tessaly x"},  {"Debug", "1 Debug x"},    {"Timeout", "5 Timeout x"},
        {"Log", "6 Log x"},          {"Idle", "7 Idle x"},      {"query", "0 query x"},
        {"Received", "2 Tessaly x"}, {"Result", "3 Tessaly x"}, {"Error", "4 Tessaly x"},
    };
    for (const auto& [type, expected] : cases) {
        calls.clear();
        EXPECT_TRUE(sendFrom(own, request("own-1.0", "x", "", type)));
        pumpAll();
        EXPECT_EQ(calls, Strings{expected}) << type;
    }
    calls.clear();
    EXPECT_FALSE(sendFrom(own, request("own-1.0", ""))) << "there is nothing to send";
    pumpAll();
    EXPECT_EQ(calls, Strings());
}

TEST_F(EngineTest, findsTheHandlerThatFitsBest) {
    Convey own("own-1.0", nullptr, true, nullptr);
    const Handler::Body nothing = [](int, Message&, SoString*) { return 0; };
    auto* const anyQuery = new Handler(nothing, "query");
    auto* const newerQuery = new Handler(nothing, "query", 6);
    auto* const exact = new Handler(nothing, "query", 5);
    auto* const otherType = new Handler(nothing, "Result", 5);
    for (auto* handler : {anyQuery, newerQuery, exact, otherType}) {
        EXPECT_EQ(own.changeHandler(handler), nullptr);
        EXPECT_EQ(own.changeHandler(handler), nullptr) << "registered already";
    }
    const std::tuple<const char*, uint32_t, Convey::MsgHandler*> cases[] = {
        {"query", 5, exact},       {"query", 6, newerQuery}, {"query", 7, anyQuery},
        {"query", kAny, anyQuery}, {"", 5, otherType},       {"", 6, newerQuery},
        {"", 8, nullptr},          {"Result", 6, nullptr},   {"Result", 5, otherType},
        {"unknown", 5, nullptr},
    };
    for (const auto& [type, serial, expected] : cases) {
        EXPECT_EQ(own.findHandler(type, serial), expected) << type << " " << serial;
    }
    auto* const replacement = new Handler(nothing, "query", 5);
    EXPECT_EQ(own.changeHandler(replacement), exact);
    EXPECT_FALSE(own.deleteHandler(exact));
    delete exact;
    EXPECT_EQ(own.removeHandler("query", 7), anyQuery) << "the one that would handle it";
    delete anyQuery;
    EXPECT_TRUE(own.deleteHandlers(5));
    EXPECT_FALSE(own.deleteHandlers(5));
    EXPECT_EQ(own.findHandler("", 5), nullptr);
    EXPECT_TRUE(own.deleteHandler(newerQuery));
}

TEST_F(EngineTest, waitsUntilItsRequestIsDoneAndNoLonger) {
    Strings calls;
    const Convey other("other-2.0", noting(calls), false, nullptr);
    Convey own("own-1.0", nullptr, true, nullptr);
    Message unanswered = request("other-2.0", "question");
    unanswered.setSerialNumber(78);
    delete own.changeHandler(noting(calls, "Received", 78));
    unanswered.setResponseRequest("none Processed"); // and processed it is, at once
    EXPECT_TRUE(own.send(unanswered, false, 20, nullptr)) << "who waits learns that it is done";

    InterAppStream silent("silent-1.0");
    Message lost = request("silent-1.0", "question", "Result");
    lost.setSerialNumber(79);
    delete own.changeHandler(noting(calls, "Result", 79));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(own.send(lost, false, 1, nullptr));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
    EXPECT_TRUE(own.deleteHandlers(79));
}

TEST_F(EngineTest, refusesMessagesWhenTooManyWaitForTheirTargets) {
    layer.connector->launchResult = 1;
    Strings calls;
    Convey own("own-1.0", noting(calls), true, nullptr);
    for (int64_t i = 0; i < limits::of("queue.outgoing.messages"); ++i) {
        auto message = std::make_unique<Message>(request("other-2.0", "x"));
        message->setSender("own-1.0");
        ASSERT_TRUE(own.data()->outgoing().append(message.release()));
    }
    Message message = request("other-2.0", "one more", "Error");
    EXPECT_FALSE(own.send(message, true, 0, nullptr));
    EXPECT_EQ(own.data()->outgoing().count(), limits::of("queue.outgoing.messages"));
    EXPECT_TRUE(own.processIncomingMessage(kAny, true));
    EXPECT_EQ(calls, Strings{"4 Tessaly ERROR: TOO MANY MESSAGES WAIT"});
}

TEST_F(EngineTest, leavesWithItsSendersWhatAnOwnerWhoDoesNotPumpHasNoRoomFor) {
    int64_t handled = 0;
    Convey own("own-1.0", new Handler([&](int, Message&, SoString*) { return ++handled, 0; }), true,
               nullptr);
    const InterAppStream sender("sender-1.0");
    Message message = request("own-1.0", "x");
    message.setSender("sender-1.0");
    SoString text;
    ASSERT_TRUE(message.writeToString(text));
    const int64_t bound = limits::of("queue.incoming.messages");
    int64_t taken = 0;
    while (taken < 2 * bound && sender.send("own-1.0", text, 1000)) {
        ++taken;
    }
    EXPECT_LT(taken, 2 * bound) << "the last one waited for room";
    pumpUntil([&] { return handled == taken; });
    EXPECT_EQ(handled, taken) << "and nothing is lost";
}

TEST_F(EngineTest, aMessageThatFindsNoTargetEndsAfterTenMinutes) {
    static platform::FakeClock clock; // the background thread may be in it at the end
    const platform::ScopedReplacement<platform::Clock> inForce(clock);
    Convey own("own-1.0", nullptr, true, nullptr);
    Convey::getSharedContext()->removeInstance(&own); // no other pass than those that are made here
    auto& queue = own.data()->outgoing();
    const auto state = [&] {
        std::string text;
        queue.forEach([&](const Message& message) {
            text = std::to_string(message.getTimestamp()) + " " +
                   std::to_string(message.getTimeout()) + " " +
                   message.getUserHeaderValue("QUEUESTAMP").c_str();
        });
        return text;
    };
    // A time-out, and what the message gets when its time has come.
    const std::pair<int32_t, const char*> cases[] = {{-1, "1000000 599 1000000"},
                                                     {60, "1000000 60 1000000"}};
    for (const auto& [timeout, last] : cases) {
        clock.utc = 1'000'000'000;
        auto* const message = new Message(request("nobody-1.0", "x"));
        message->setSender("own-1.0");
        message->setTimeout(static_cast<uint32_t>(timeout));
        ASSERT_TRUE(queue.append(message));
        for (int i = 0; i < 20; ++i) {
            clock.pass(29'000);
            EXPECT_FALSE(own.processOutgoingMessage());
        }
        EXPECT_EQ(state(), "1000580 " + std::to_string(static_cast<uint32_t>(timeout)) + " 1000000")
            << "kept alive";
        clock.pass(29'000);
        EXPECT_FALSE(own.processOutgoingMessage());
        EXPECT_EQ(state(), last);
        EXPECT_FALSE(own.processOutgoingMessage());
        EXPECT_TRUE(queue.isEmpty());
    }
}

TEST_F(EngineTest, messagesOfOneSenderStayInOrderWhileTwoThreadsReceive) {
    int next = 0;
    int outOfOrder = 0;
    Convey own("own-1.0", nullptr, true, nullptr);
    delete own.changeHandler(new Handler([&](int, Message& message, SoString*) {
        outOfOrder += message.getBody() == std::to_string(next++).c_str() ? 0 : 1;
        return 0;
    }));
    constexpr int kCount = 5000;
    std::thread sending([] {
        const InterAppStream sender("sender-1.0");
        for (int i = 0; i < kCount; ++i) {
            EXPECT_TRUE(sendFrom(sender, request("own-1.0", std::to_string(i).c_str())));
        }
    });
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (next < kCount && std::chrono::steady_clock::now() < end) {
        (void)Convey::pump(ScObjects::kProcessIncoming); // the background receives as well
    }
    sending.join();
    EXPECT_EQ(next, kCount);
    EXPECT_EQ(outOfOrder, 0);
}

TEST_F(EngineTest, handlersMayDoAnything) {
    std::atomic<int> alive{0};
    auto* instance = new Convey("own-1.0", nullptr, true, nullptr);
    bool ran = false;
    delete instance->changeHandler(new Handler(
        [&](int, Message&, SoString*) {
            EXPECT_EQ(Convey::Thread::ping("other-2.0", nullptr, 1, nullptr), "ISNOTRUNNING");
            EXPECT_TRUE(sendFrom(*instance, request("own-1.0", "nested", "", "quiet")));
            delete instance->changeHandler(
                new Handler([](int, Message&, SoString*) { return 0; }, "more", kAny, &alive));
            EXPECT_TRUE(instance->deleteHandler(instance->findHandler("Tessaly", kAny)));
            delete instance;
            instance = nullptr;
            ran = true;
            return 0;
        },
        "Tessaly", kAny, &alive));
    EXPECT_TRUE(sendFrom(*instance, request("own-1.0", "go", "Result Error")));
    pumpAll();
    EXPECT_TRUE(ran);
    EXPECT_EQ(instance, nullptr);
    EXPECT_EQ(alive, 0) << "every handler is gone";
    const Convey again("own-1.0", nullptr, true, nullptr);
    EXPECT_EQ(again.getAppName(), "own-1.0") << "and the name is free";
}

TEST_F(EngineTest, removingAHandlerWaitsForTheThreadThatIsInIt) {
    Convey own("own-1.0", nullptr, true, nullptr);
    std::atomic<bool> inside{false};
    std::atomic<bool> leave{false};
    std::atomic<bool> left{false};
    delete own.changeHandler(new Handler([&](int, Message&, SoString*) {
        inside = true;
        while (!leave) {
            std::this_thread::yield();
        }
        left = true;
        return 0;
    }));
    EXPECT_TRUE(sendFrom(own, request("own-1.0", "x")));
    std::thread pumping([] { (void)Convey::pump(ScObjects::kProcessIncoming); });
    while (!inside) {
        std::this_thread::yield();
    }
    const auto* const thread = ScObjects::ConveyThread::getMainThread();
    EXPECT_EQ(thread->getValueForKey("STATUS"), "PUMPING") << "a host that stays in a handler";
    std::thread leaving([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        leave = true;
    });
    delete own.removeHandler("Tessaly", kAny);
    EXPECT_TRUE(left);
    pumping.join();
    EXPECT_EQ(thread->getValueForKey("STATUS"), "IDLE");
    EXPECT_TRUE(Convey::Thread::setPingValue("STATUS", "BUSY"));
    EXPECT_EQ(thread->getValueForKey("STATUS"), "BUSY") << "said last";
    leaving.join();
}

// The messages of each text that comes to a peer, until the one of that type.
std::vector<Strings> textsUntil(InterAppStream& peer, const char* type) {
    std::vector<Strings> texts;
    while (texts.empty() || texts.back().back().rfind(type, 0) != 0) {
        const auto data = peer.waitForMessage(20'000, false) ? peer.take() : nullptr;
        if (data == nullptr) {
            ADD_FAILURE() << "no " << type << " behind " << texts.size() << " texts";
            return texts;
        }
        Strings messages;
        for (const char* next = data->text.c_str(); *next != '\0';) {
            Message message;
            next = message.readFromString(next);
            messages.push_back(std::string(message.getType().view()) + " " +
                               std::to_string(message.getBody().length()));
        }
        if (messages != Strings{"Tessaly 0"}) { // whether the peer is there, asked by who completes
            texts.push_back(messages);
        }
    }
    return texts;
}

TEST_F(EngineTest, aResultAndItsEndGoInOneTextToWhoeverHasTheNameOfTheAsker) {
    const Convey own("own-1.0", new Handler([](int, Message& message, SoString* result) {
                         *result = message.getBody();
                         return message.getBody() == "fail" ? 7 : 0;
                     }),
                     true, nullptr);
    const std::string large(65'200, 'x'); // with the end more than a packet
    const struct {
        const char* sender;
        const std::string body;
        const char* replies;
        const char* last;
        std::vector<Strings> expected;
    } cases[] = {
        {"docsafe-8.0", "x", "Result Processed", "Processed", {{"Result 1", "Processed 0"}}},
        {"docsafe-8.0", "x", "Result", "Result", {{"Result 1"}}},
        {"docsafe-8.0", "x", "Received Processed", "Processed", {{"Received 0"}, {"Processed 0"}}},
        {"docsafe-8.0", "fail", "Error Processed", "Processed", {{"Error 4"}, {"Processed 0"}}},
        {"docsafe-8.0",
         large,
         "Result Processed",
         "Processed",
         {{"Result 65200"}, {"Processed 0"}}},
        // A name that nobody has: it is completed to that of the peer.
        {"docsafe", "x", "Result Processed", "Processed", {{"Result 1"}, {"Processed 0"}}},
    };
    InterAppStream peer("docsafe-8.0");
    uint32_t number = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.sender) + ": " + c.replies);
        Message message = request("own-1.0", c.body.c_str(), c.replies);
        message.setSender(c.sender);
        message.setSerialNumber(++number);
        SoString text;
        EXPECT_TRUE(message.writeToString(text) && peer.send("own-1.0", text));
        std::atomic<bool> heard{false};
        std::thread host([&] {
            while (!heard) {
                (void)Convey::pumpOrWait(20);
            }
        });
        EXPECT_EQ(textsUntil(peer, c.last), c.expected);
        heard = true;
        host.join();
    }
}

TEST_F(EngineTest, launchesWithinItsLimits) {
    Convey own("own-1.0", nullptr, true, nullptr);
    const std::string longTarget(257, 'x');
    const std::string longParameters(65'537, 'p');
    EXPECT_EQ(Convey::launchTarget(longTarget.c_str(), "", 0, nullptr), 0);
    EXPECT_EQ(Convey::launchTarget("other-2.0", longParameters.c_str(), 0, nullptr), 0);
    EXPECT_EQ(Convey::launchTarget(nullptr, "", 0, nullptr), 0);
    EXPECT_EQ(Convey::launchTarget("unknown-1.0", "", 0, nullptr), 0);
    EXPECT_TRUE(layer.connector->launches.empty());
    layer.connector->launchResult = 1;
    EXPECT_EQ(Convey::launchTarget("other_3-2.0", "-extra", 1, nullptr), 1);
    EXPECT_EQ(Convey::launchTarget("docsafe-8.0", "-extra", 0, nullptr), 1);
    EXPECT_EQ(layer.connector->launches,
              (Strings{"other_3-2.0 behind: -specifier other_3-2.0 -nostartupscreen -instance 3 "
                       "-extra",
                       "docsafe-8.0 front: "}));
    EXPECT_EQ(Convey::Thread::getPingValue("LAUNCHPARAMS:docsafe-8.0"),
              "-specifier docsafe-8.0 -nostartupscreen -extra");
    EXPECT_EQ(own.data()->outgoing().count(), 2) << "both find their parameters in the queue";
    const InterAppStream running("other-2.0");
    EXPECT_EQ(Convey::launchTarget("other-2.0", "", 0, nullptr), 1) << "it runs already";
    EXPECT_EQ(layer.connector->launches.size(), 2U);
}

} // namespace
