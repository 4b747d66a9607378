#include <chrono>
#include <ctime>
#include <future>

#include "limits/Limits.h"
#include "platform/fake/Fakes.h"
#include "scriptobjects/convey/SoCVDiagnosticsRows.h"
#include "scriptobjects/convey/SoCVMessageQueue.h"
#include "scriptobjects/convey/SoCVUtils.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;
using ScObjects::ConveyData::MessageQueue;

class MessageQueueTest : public testing::Test {
protected:
    MessageQueueTest() { clock.utc = 1'000'000'000; }

    // A message for whoever reads its body: type, seconds of life, what it answers.
    static Convey::Message* make(const char* body, const char* type = "query", int32_t timeout = 60,
                                 uint32_t result = Convey::kAnySerialNumber) {
        auto* message = new Convey::Message;
        message->setTarget("target");
        message->setSender("sender");
        message->setType(type);
        message->setBody(SoString(body));
        message->setTimeout(static_cast<uint32_t>(timeout));
        message->setResult(result);
        return message;
    }
    static std::string next(MessageQueue& queue, uint32_t serial = Convey::kAnySerialNumber) {
        const std::unique_ptr<Convey::Message> message(queue.getNextMessage(serial));
        return message == nullptr ? "-" : message->getBody().c_str();
    }
    static std::string rest(MessageQueue& queue) {
        std::string bodies;
        queue.forEach([&](const Convey::Message& message) {
            bodies += message.getBody().c_str();
            bodies += ' ';
        });
        return bodies;
    }
    void pass(int64_t seconds) { clock.pass(seconds * 1000); }

    platform::InForce<platform::Clock, platform::FakeClock> clock;
};

TEST_F(MessageQueueTest, refusesWhatCannotBeAnswered) {
    MessageQueue queue;
    EXPECT_FALSE(queue.append(nullptr));
    Convey::Message nobody;
    nobody.setTarget("target");
    EXPECT_FALSE(queue.append(&nobody));
    nobody.setTarget("");
    nobody.setSender("sender");
    EXPECT_FALSE(queue.append(&nobody));
    EXPECT_TRUE(queue.isEmpty());
}

// However much waits for others, or for nobody, who takes something else is not kept by it.
TEST_F(MessageQueueTest, looksOnceAtWhatIsHeldUpAndAtNothingOfOtherNumbers) {
    constexpr uint32_t kMany = 5000;
    MessageQueue queue;
    uint32_t asked = 0;
    std::string held = "held-1.0";
    MessageQueue::Choice choice;
    choice.isHeldUp = [&](const Convey::Message& message) {
        return ++asked, message.getSender() == held.c_str();
    };
    choice.wants = [&](const Convey::Message&) { return ++asked, true; };
    const auto append = [&](const char* sender, uint32_t number) {
        Convey::Message* const message = make(std::to_string(number).c_str());
        message->setSender(sender);
        message->setSerialNumber(number);
        ASSERT_TRUE(queue.append(message));
    };
    const auto taken = [&] {
        const MessageQueue::Taken one = queue.takeWanted(Convey::kAnySerialNumber, choice);
        return one.message == nullptr ? "-" : std::string(one.message->getBody().c_str());
    };
    for (uint32_t i = 0; i < kMany; ++i) {
        append("held-1.0", i);
    }
    for (uint32_t i = kMany; i < 2 * kMany; ++i) {
        append("free-1.0", i);
        ASSERT_EQ(taken(), std::to_string(i));
    }
    EXPECT_LE(asked, 5 * kMany) << "once each, and of a few each time";
    asked = 0;
    for (const uint32_t i : {kMany - 1, 7U}) {
        const std::vector<uint32_t> numbers = {i, 2 * kMany};
        choice.numbers = &numbers;
        held = "";
        EXPECT_EQ(taken(), std::to_string(i));
        held = "held-1.0";
        EXPECT_EQ(taken(), "-");
    }
    EXPECT_LE(asked, 20U);
    held = "";
    choice.numbers = nullptr;
    append("free-1.0", 0);
    for (uint32_t i = 0; i < kMany - 2; ++i) {
        ASSERT_EQ(taken(), std::to_string(i + (i >= 7 ? 1 : 0))) << "in their order";
    }
    EXPECT_EQ(taken(), "0");
    EXPECT_LE(asked, 6 * kMany);
}

TEST_F(MessageQueueTest, writesTheRowsOfItsMessages) {
    MessageQueue queue;
    Convey::Message* const message = make("one\ntwo");
    message->setSerialNumber(42);
    message->setHeader("a;\nb", "1;\n/y;1;passes;for a row;");
    message->setHeader("long", ("\\" + std::string(4094, 'x') + "ä").c_str());
    ASSERT_TRUE(queue.append(message));
    ASSERT_TRUE(queue.append(make("", "Log")));
    platform::InForce<platform::Processes, platform::FakeProcesses> processes;
    processes.number = 4294967295U;
    message->setTimestamp(86'400 + 3'723);
    SoString rows;
    EXPECT_EQ(queue.appendDiagnostics(rows, "/x"), 1);
    for (const char* row :
         {"/x/msg42;1;msg[01:02:03];00000042;\n", ";Sender-ID;localhost:mac4294967295;\n",
          ";Response-Request;undefined;\n",
          "/headers/a\\3b\\nb;0;a\\3b\\nb;1\\3b\\n/y\\3b1\\3bpasses\\3bfor a row\\3b;\n",
          "x... (4097 bytes);\n", ";long;\\\\x"}) {
        EXPECT_NE(rows.view().find(row), std::string_view::npos) << rows.c_str();
    }
    rows = SoString();
    {
        const ScObjects::CVDiagnosticsRows::Whole whole(true);
        EXPECT_EQ(queue.appendDiagnostics(rows, "/x"), 1);
    }
    EXPECT_NE(rows.view().find("xä;\n"), std::string_view::npos);
    rows = SoString();
    EXPECT_EQ(queue.appendDiagnostics(rows, "/log/x"), 1);
    EXPECT_NE(rows.view().find(";Headers;(no headers);\n"), std::string_view::npos);
    EXPECT_NE(rows.view().find("/body;0;Body;(empty);\n"), std::string_view::npos);
}

// Does something while the rows of a message are written, which say the number of the process.
class HookedProcesses : public platform::FakeProcesses {
public:
    std::function<void()> hook;
    uint32_t ownNumber() const override {
        hook();
        return number;
    }
};

TEST_F(MessageQueueTest, givesItsOwnerATurnWhileItsRowsAreWritten) {
    constexpr uint32_t kMessages = 10'000;
    MessageQueue queue;
    for (uint32_t i = 0; i < kMessages; ++i) {
        Convey::Message* const message = make("body");
        message->setSerialNumber(i + 1);
        ASSERT_TRUE(queue.append(message));
    }
    platform::InForce<platform::Processes, HookedProcesses> processes;
    // In the middle of it another thread takes half of them, also the one that was shown last.
    std::future<void> owner;
    int shown = 0;
    processes.hook = [&] {
        if (++shown == kMessages / 4 / limits::of("rows.messages")) {
            owner = std::async(std::launch::async, [&] {
                for (uint32_t i = 0; i < kMessages / 2; ++i) {
                    (void)next(queue);
                }
            });
            EXPECT_EQ(owner.wait_for(std::chrono::seconds(10)), std::future_status::ready)
                << "the owner waits";
        }
    };
    SoString rows;
    (void)queue.appendDiagnostics(rows, "/x");
    owner.get();
    const std::string text(rows.view());
    const std::string row = "/serialnumber;0;Serial-Number;";
    uint32_t last = 0;
    for (size_t at = 0; (at = text.find(row, at)) != std::string::npos;) {
        at += row.size();
        const auto number = static_cast<uint32_t>(std::stoul(text.substr(at, 6)));
        ASSERT_GT(number, last) << "once, and in order";
        last = number;
    }
    EXPECT_EQ(last, kMessages) << "none of those that are left is missing";
}

} // namespace
