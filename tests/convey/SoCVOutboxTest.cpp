#include <cstdlib>
#include <optional>

#include "limits/Limits.h"
#include "platform/fake/Fakes.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVOutbox.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "tests/support/FailingAllocations.h"
#include "tests/support/Peers.h"
#include "tests/support/TableConnector.h"

namespace {

using ScObjects::ConveyData::Delivery;
using ScObjects::ConveyData::Outbox;

constexpr size_t kAlmostAPacket = 60'000;

// Targets that take nothing are ports of this process that nobody reads.
class OutboxTest : public testing::Test {
protected:
    OutboxTest() : layer("own-1.0", {"own-1.0"}), stream("sender-1.0") {}

    // A message that says which one it is, with so much behind it.
    static std::unique_ptr<Message> make(const std::string& target, size_t number,
                                         size_t bytes = 0) {
        const std::string body = std::to_string(number) + " " + std::string(bytes, 'x');
        auto message =
            std::make_unique<Message>(request(target.c_str(), body.c_str(), "", "query"));
        message->setSender("sender-1.0");
        message->setSerialNumber(static_cast<uint32_t>(number + 1));
        return message;
    }
    Delivery post(const std::string& target, size_t number, size_t bytes = 0) {
        auto message = make(target, number, bytes);
        return outbox.post(&stream, message);
    }
    std::string rows() const {
        SoString text;
        ScObjects::CVDiagnosticsRows rows(text, "/x");
        outbox.appendDiagnostics(rows);
        return text.c_str();
    }
    // Of the next message that arrives; SIZE_MAX for none.
    static size_t nextNumber(InterAppStream& target) {
        const std::string body = nextMessage(target).getBody().c_str();
        EXPECT_NE(body, "") << "nothing arrives";
        return body.empty() ? SIZE_MAX : std::stoul(body);
    }
    // Reads so many messages, with passes in between: their numbers.
    std::vector<size_t> read(InterAppStream& target, size_t count) {
        std::vector<size_t> numbers;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (numbers.size() < count && std::chrono::steady_clock::now() < end) {
            (void)outbox.pass(&stream, Outbox::Carrier::round);
            (void)outbox.pass(&stream, Outbox::Carrier::courier);
            if (!target.waitForMessage(5, false) || !target.receive()) {
                continue;
            }
            const SoString text = target.getMessages();
            for (const char* next = text.c_str(); *next != '\0';) {
                Message message;
                next = message.readFromString(next);
                numbers.push_back(std::stoul(message.getBody().c_str()));
            }
        }
        return numbers;
    }
    static std::vector<size_t> upTo(size_t count) {
        std::vector<size_t> numbers(count);
        for (size_t i = 0; i < count; ++i) {
            numbers[i] = i;
        }
        return numbers;
    }

    StartedLayer layer;
    InterAppStream stream;
    Outbox outbox{Outbox::Kind::messages};
};

// Small ones would find room where a large one does not: they must not take it.
TEST_F(OutboxTest, keepsTheOrderOfATargetThatTakesNothing) {
    InterAppStream target("full-1.0");
    InterAppStream other("other-1.0");
    size_t count = 0;
    while (post("full-1.0", count, kAlmostAPacket) == Delivery::delivered) {
        ++count;
    }
    ++count; // it was queued
    for (int i = 0; i < 20; ++i) {
        const size_t bytes = i % 4 == 3 ? kAlmostAPacket : 0;
        EXPECT_EQ(post("full-1.0", count++, bytes), Delivery::queued);
        (void)outbox.pass(&stream, Outbox::Carrier::round);
    }
    EXPECT_EQ(post("full-1.0", count++, 300'000), Delivery::queued) << "one for the courier";
    EXPECT_THAT(rows(), testing::MatchesRegex("/x/blocked;1;Targets that take nothing;1;\n"
                                              "/x/blocked/0;1;Target;full-1.0;\n"
                                              "/x/blocked/0/for;0;For;[0-9]+ms;\n"
                                              "/x/blocked/0/messages;0;Messages;22;\n"
                                              "/x/blocked/0/reason;0;Reason;is full;\n"));
    std::vector<size_t> early;
    for (int i = 0; i < 3; ++i) { // now there is room
        early.push_back(nextNumber(target));
    }
    EXPECT_EQ(early, upTo(3));
    EXPECT_EQ(post("full-1.0", count++), Delivery::queued);
    EXPECT_EQ(post("other-1.0", 0), Delivery::delivered) << "others are not held up";
    for (const size_t number : read(target, count - early.size())) {
        early.push_back(number);
    }
    EXPECT_EQ(early, upTo(count));
    EXPECT_TRUE(outbox.messages().isEmpty());
    EXPECT_EQ(rows(), "/x/blocked;0;Targets that take nothing;0;\n");
    EXPECT_EQ(post("full-1.0", 0), Delivery::delivered);
    // An owner may wait for the line, and for no longer than it says.
    EXPECT_EQ(read(target, 1), upTo(1));
    for (count = 0; post("full-1.0", count, kAlmostAPacket) == Delivery::delivered; ++count) {
    }
    EXPECT_EQ(outbox.drain(stream, "full-1.0", 20), platform::SendResult::timedOut);
    std::vector<size_t> numbers;
    std::thread reader([&] {
        while (numbers.size() <= count && (numbers.empty() || numbers.back() != SIZE_MAX)) {
            numbers.push_back(nextNumber(target));
        }
    });
    EXPECT_EQ(outbox.drain(stream, "full-1.0", 10'000), platform::SendResult::delivered);
    reader.join();
    EXPECT_EQ(numbers, upTo(count + 1));
}

// Ports that take nothing for so many sends, whatever room there is.
struct MoodyPorts : platform::FakeMessagePorts {
    using FakeMessagePorts::send;
    platform::SendResult send(const std::string& name, const platform::PortPieces& text,
                              platform::SendTime time,
                              std::shared_ptr<platform::TargetWatch>* taker) override {
        return failures > 0 && failures-- > 0 ? platform::SendResult::timedOut
                                              : FakeMessagePorts::send(name, text, time, taker);
    }
    int failures = 0;
};

TEST_F(OutboxTest, aTargetThatHasJustFailedIsLeftAlone) {
    static MoodyPorts ports; // the background thread may be in it at the end
    const platform::ScopedReplacement<platform::MessagePorts> inForce(ports);
    const InterAppStream sender("moody-1.0");
    InterAppStream target("full-1.0");
    ports.failures = 1;
    for (size_t i = 0; i < 3; ++i) {
        auto message = make("full-1.0", i);
        EXPECT_EQ(outbox.post(&sender, message), Delivery::queued);
    }
    ports.failures = 1;
    while (ports.failures == 1) {
        (void)outbox.pass(&sender, Outbox::Carrier::round);
    }
    EXPECT_FALSE(target.messagePending()) << "none behind the one that failed";
    constexpr int kMany = 1'000'000;
    ports.failures = kMany;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
    while (std::chrono::steady_clock::now() < end) {
        (void)outbox.pass(&sender, Outbox::Carrier::round);
    }
    EXPECT_LT(kMany - ports.failures, 50) << "it is asked again after pauses that grow";
    for (uint32_t number = 1; number <= 3; ++number) {
        outbox.messages().dropNumber(number); // taken back
    }
    for (size_t i = 0; i < 3; ++i) {
        auto message = make("full-1.0", i);
        EXPECT_TRUE(outbox.queue(message));
    }
    EXPECT_EQ(rows(), "/x/blocked;0;Targets that take nothing;0;\n");
    ports.failures = kMany;
    const Outbox::Left left = outbox.pass(&sender, Outbox::Carrier::round);
    EXPECT_EQ(left.retryMilliseconds, 1) << "what waits anew begins with the shortest pause";
    EXPECT_EQ(ports.failures, kMany - 1);
    ports.failures = 0;
    std::vector<size_t> numbers;
    for (size_t i = 0; i < 3; ++i) {
        while (!target.messagePending()) {
            (void)outbox.pass(&sender, Outbox::Carrier::round);
        }
        numbers.push_back(nextNumber(target));
    }
    EXPECT_EQ(numbers, upTo(3));
}

TEST_F(OutboxTest, keepsAnswersForWhoIsThereAndWithinBounds) {
    EXPECT_EQ(post("nobody-1.0", 0), Delivery::refused);
    auto owners = make("nobody-1.0", 0);
    EXPECT_TRUE(outbox.queue(owners)) << "an owner's may wait for its target";
    EXPECT_EQ(owners, nullptr);
    auto target = std::make_unique<InterAppStream>("full-1.0");
    while (post("full-1.0", 0, kAlmostAPacket) == Delivery::delivered) {
    }
    const auto bytes = [&] { return outbox.messages().answers().bytes; };
    EXPECT_FALSE(outbox.isHeldUp("full-1.0"));
    while (!outbox.isHeldUp("full-1.0") && bytes() < 40'000'000) {
        ASSERT_EQ(post("full-1.0", 0, kAlmostAPacket), Delivery::queued);
    }
    EXPECT_NEAR(static_cast<double>(bytes()), limits::of("queue.answers.share.bytes"), 70'000);
    EXPECT_FALSE(outbox.isHeldUp("other-1.0"));
    while (post("full-1.0", 0, kAlmostAPacket) == Delivery::queued && bytes() < 400'000'000) {
    }
    EXPECT_NEAR(static_cast<double>(bytes()), limits::of("queue.answers.bytes"), 70'000);
    InterAppStream other("other-1.0");
    while (post("other-1.0", 0, kAlmostAPacket) == Delivery::delivered) {
    }
    EXPECT_EQ(outbox.messages().loadOf("other-1.0").messages, 1) << "nobody is left out";
    EXPECT_TRUE(outbox.isHeldUp("other-1.0")) << "but all together are too many";
    EXPECT_TRUE(outbox.hasRoom()) << "for an owner's";
    for (int64_t i = 1; i < limits::of("queue.outgoing.messages"); ++i) {
        auto message = make("nobody-1.0", 0);
        ASSERT_TRUE(outbox.queue(message));
    }
    EXPECT_FALSE(outbox.hasRoom());
    // What a process was owed is of no use to the next one of its name.
    target.reset();
    for (int i = 0; i < 100 && outbox.messages().loadOf("full-1.0").messages != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        (void)outbox.pass(&stream, Outbox::Carrier::round);
    }
    EXPECT_EQ(outbox.messages().loadOf("full-1.0").messages, 0);
    EXPECT_EQ(outbox.messages().loadOf("nobody-1.0").messages,
              limits::of("queue.outgoing.messages"));
}

// What the engine posts, and how it is told of; the answers to pings with it.
class WayOutTest : public testing::Test {
protected:
    WayOutTest() : layer("own-1.0", {"own-1.0", "other-2.0"}) {}

    StartedLayer layer;
};

TEST_F(WayOutTest, whatAThreadSaysIsNoQuestion) {
    InterAppStream peer("peer-1.0#thread");
    InterAppStream asker("asker-1.0#ping");
    tellThread(peer, "ECHO_RESPONSE");     // of an old peer
    tellThread(peer, "word=set", "7");     // of a new one
    tellThread(asker, "word=answer", "7"); // an answer, whoever sends it
    tellThread(asker, "word");
    EXPECT_EQ(answerTo(asker), "") << "the first answer, and no key was set";
    EXPECT_EQ(answerTo(peer, 100), "-");
}

TEST_F(WayOutTest, handlersThatThrowEndNothing) {
    Convey own("own-1.0", nullptr, true, nullptr);
    InterAppStream asker("asker-1.0#ping");
    const TestHandler::Body throws = [](int, Message&, SoString*) -> int32_t {
        throw std::runtime_error("as the test wants it");
    };
    EXPECT_TRUE(Convey::Thread::setPingHandler("bad", new TestHandler(throws)));
    tellThread(asker, "bad");
    EXPECT_EQ(answerTo(asker), "ERROR: HANDLER FAILED");
    delete own.changeHandler(new TestHandler(throws, "FWDLOGS")); // is told events now
    EXPECT_TRUE(sendFrom(own, request("own-1.0", "watched", "", "query")));
    pumpAll();
    EXPECT_FALSE(own.incomingMessagePending());
    tellThread(asker, "STATUS");
    EXPECT_EQ(answerTo(asker), "IDLE") << "the thread lives";
}

// The background thread, which would send what waits, is held meanwhile.
TEST_F(WayOutTest, whatAnOwnerSendsDoesNotOvertakeWhatWaits) {
    layer.connector->launchResult = 1;
    Convey own("own-1.0", nullptr, true, nullptr);
    std::atomic<bool> inside{false};
    std::atomic<bool> leave{false};
    auto* const holding = new TestHandler([&](int, Message&, SoString*) {
        for (inside = true; !leave;) {
            std::this_thread::yield();
        }
        return 0;
    });
    EXPECT_TRUE(Convey::Thread::setPingHandler("hold", holding));
    InterAppStream asker("asker-1.0#ping");
    tellThread(asker, "hold");
    while (!inside) {
        std::this_thread::yield();
    }
    std::unique_ptr<InterAppStream> target;
    for (const char* body : {"first", "second"}) {
        Message message = request("other-2.0", body);
        EXPECT_FALSE(own.send(message, true, 0, nullptr)) << body << " is not delivered yet";
        target = target ? std::move(target) : std::make_unique<InterAppStream>("other-2.0");
    }
    leave = true;
    std::string received;
    while (received.find("second") == std::string::npos &&
           (target->receive() || target->waitForMessage(10'000, false))) {
        received += target->getMessages().c_str();
    }
    EXPECT_LT(received.find("\n\nfirst"), received.find("\n\nsecond"));
}

// Any allocation of the background thread may fail: a round or a text is lost, and it goes on.
TEST_F(WayOutTest, memoryThatRunsOutEndsNothing) {
    class Fails : public Convey::MsgHandler {
    public:
        int32_t handleMessage(int, Message& message, SoString*) override {
            next_.emplace(std::atoi(message.getUserHeaderValue("after").c_str()));
            return 0;
        }

    private:
        std::optional<FailingAllocation> next_; // of the background thread, which alone calls this
    };
    Convey own("own-1.0", nullptr, true, nullptr);
    InterAppStream asker("asker-1.0#ping");
    EXPECT_TRUE(Convey::Thread::setPingHandler("fail", new Fails));
    for (int after = 0; after < 40; ++after) {
        Message ping = request("own-1.0#thread", "", "", "ping");
        ping.setHeader("ECHO_REQUEST", "fail");
        ping.setHeader("after", static_cast<long>(after));
        EXPECT_TRUE(sendFrom(asker, ping));
        std::string answer;
        for (int tries = 0; tries < 50 && answer != "IDLE"; ++tries) {
            tellThread(asker, "STATUS");
            do {
                answer = answerTo(asker, 200);
            } while (answer != "IDLE" && answer != "-");
        }
        ASSERT_EQ(answer, "IDLE") << "after " << after << " allocations";
    }
    EXPECT_TRUE(Convey::Thread::setPingHandler("fail", nullptr));
}

TEST_F(WayOutTest, observersThatCameBeforeTheMainInstanceAreServed) {
    InterAppStream observer("observer-1.0");
    InterAppStream asker("asker-1.0#ping");
    for (const char* pair : {"FWDLOGS=observer-1.0", "FWDERRORS=observer-1.0"}) {
        tellThread(asker, pair);
        EXPECT_EQ(answerTo(asker), "observer-1.0");
    }
    layer.connector->launchResult = 1;
    Convey own("own-1.0", nullptr, true, nullptr);
    Message message = request("other-2.0", "late", "", "query");
    EXPECT_FALSE(own.send(message, true, 0, nullptr));
    EXPECT_FALSE(own.processOutgoingMessage()); // requeues it, unless the background was first
    InterAppStream other("other-2.0");
    EXPECT_FALSE(sendFrom(own, request("absent-1.0", "refused", "", "query")));
    std::string seen;
    while ((seen.find("SEND ENQUEUED MESSAGE") == std::string::npos ||
            seen.find("MsgRoot:/errors") == std::string::npos) &&
           (observer.receive() || observer.waitForMessage(10'000, false))) {
        seen += observer.getMessages().c_str();
    }
    for (const char* row :
         {"];ENQUEUED OUTGOING MESSAGE;\n", "];REQUEUED MESSAGE ;\n", "];SEND ENQUEUED MESSAGE;\n",
          "];ERROR: LAUNCHING IS SUPPRESSED;\n", "MsgRoot:/errors\n"}) {
        EXPECT_NE(seen.find(row), std::string::npos) << row << " in\n" << seen;
    }
    other.close();
}

} // namespace
