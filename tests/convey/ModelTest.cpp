// The queue against a model that is simple enough to be believed, on a clock that moves when the
// test says so. CONVEY_TEST_SEED repeats a run; CONVEY_TEST_STEPS makes it longer.
#include <cstdio>
#include <random>

#include "platform/fake/Fakes.h"
#include "scriptobjects/convey/SoCVMessageQueue.h"
#include "tests/support/Peers.h"

namespace {

using ScObjects::ConveyData::MessageQueue;

unsigned seed() {
    const char* const given = std::getenv("CONVEY_TEST_SEED");
    const unsigned seed = given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10))
                                           : std::random_device()();
    std::printf("CONVEY_TEST_SEED=%u\n", seed);
    return seed;
}

int steps(int usual) {
    if (const char* const given = std::getenv("CONVEY_TEST_STEPS")) {
        return std::atoi(given);
    }
    const char* const divisor = std::getenv("CONVEY_TEST_DIVISOR");
    return divisor == nullptr ? usual : usual / std::atoi(divisor);
}

class ModelTest : public testing::Test {
protected:
    void pass(uint32_t seconds) {
        now += seconds;
        clock.pass(int64_t{seconds} * 1000);
    }
    // Moves no time for what waits or is taken.
    void setTimeOfDay() { clock.utc = int64_t{1000} * (1 + upTo(10'000)); }
    uint32_t upTo(uint32_t most) { return static_cast<uint32_t>(random() % (most + 1)); }

    // The background thread may look at the clock until the process ends.
    static platform::FakeClock& aClock() {
        static platform::FakeClock clock;
        return clock;
    }
    platform::FakeClock& clock = aClock();
    platform::ScopedReplacement<platform::Clock> clockInForce{clock};
    int64_t now = clock.monotonic / 1000;
    const unsigned usedSeed = seed();
    std::mt19937 random{usedSeed};
    testing::ScopedTrace trace{__FILE__, __LINE__, "CONVEY_TEST_SEED=" + std::to_string(usedSeed)};
};

// What a queue holds, in a vector that is searched from one end to the other.
struct Queued {
    std::string body;
    std::string target;
    std::string sender;
    bool wantsAnswer;
    bool watcher;
    bool selfWatcher;
    uint32_t serial;
    uint32_t result;
    int64_t deadline; // 0: none
    uint64_t position;
    bool answer;
};

TEST_F(ModelTest, queue) {
    std::vector<Queued> model;
    uint64_t lastPosition = 0;
    MessageQueue queue;
    const auto expire = [&] {
        std::erase_if(model, [&](const Queued& m) { return m.deadline != 0 && now >= m.deadline; });
    };
    const auto bodies = [&] {
        std::string all;
        for (const Queued& m : model) {
            all += m.body + " ";
        }
        return all;
    };
    const auto append = [&](int step) {
        const bool watcher = upTo(2) == 0;
        const bool self = upTo(2) == 0; // to whoever sent it
        const bool selfWatcher = watcher && self;
        // Without a time: a watcher ends at once, another after ten minutes; -1 is for ever.
        const auto timeout =
            upTo(99) == 0 ? INT32_MAX : static_cast<int32_t>(upTo(19)) - (watcher ? 0 : 1);
        auto message = std::make_unique<Message>();
        const Queued added{std::to_string(step),
                           self ? "me" : "target" + std::to_string(upTo(3)),
                           self ? "me" : "sender" + std::to_string(upTo(2)),
                           self || upTo(1) == 0,
                           watcher,
                           selfWatcher,
                           upTo(3),
                           upTo(2),
                           timeout < 0 ? 0 : now + (timeout == 0 && !watcher ? 600 : timeout),
                           ++lastPosition,
                           !watcher && upTo(1) == 0};
        message->setTarget(added.target.c_str());
        message->setSender(added.sender.c_str());
        message->setType(watcher ? "Ignore" : "query");
        message->setResponseRequest(added.wantsAnswer ? "Timeout" : "");
        message->setHeader("TIMEOUT_DETECTOR", "SENDER");
        message->setBody(SoString(added.body.c_str()));
        message->setSerialNumber(added.serial);
        message->setResult(added.result);
        message->setTimeout(static_cast<uint32_t>(timeout));
        ASSERT_TRUE(queue.append(message.release(), added.answer));
        model.push_back(added);
    };
    const auto take = [&](uint32_t serial) {
        expire();
        std::vector<Queued> aside;
        std::string expected = "-";
        while (!model.empty() && expected == "-") {
            const Queued front = model.front();
            model.erase(model.begin());
            if (front.watcher && (serial == Convey::kAnySerialNumber || front.result == serial)) {
                aside.push_back(front);
            } else {
                expected = front.body;
            }
        }
        for (Queued& m : aside) {
            m.position = ++lastPosition;
            model.push_back(m);
        }
        if (serial != Convey::kAnySerialNumber && upTo(3) == 0) {
            ASSERT_EQ(queue.removeMessage(serial), expected != "-");
            return;
        }
        const std::unique_ptr<Message> message(queue.getNextMessage(serial));
        ASSERT_EQ(message == nullptr ? "-" : message->getBody().c_str(), expected);
    };
    // Of senders that are not held up, of some numbers, and only what is wanted.
    std::set<std::string> heldUp;
    const auto takeWanted = [&] {
        expire();
        if (const std::string sender = "sender" + std::to_string(upTo(2)); upTo(2) == 0) {
            heldUp.erase(sender);
        } else {
            heldUp.insert(sender);
        }
        const uint32_t serial = upTo(3) == 0 ? Convey::kAnySerialNumber : upTo(3);
        const uint32_t unwanted = upTo(4); // of this number
        std::vector<uint32_t> numbers;
        for (uint32_t number = 0; number <= 4; ++number) {
            if (upTo(1) == 0) {
                numbers.push_back(number);
            }
        }
        MessageQueue::Choice choice;
        choice.isHeldUp = [&](const Message& m) {
            return !m.getResponseRequest().isEmpty() && heldUp.count(m.getSender().c_str()) != 0;
        };
        choice.wants = [&](const Message& m) { return m.getSerialNumber() != unwanted; };
        choice.numbers = upTo(1) == 0 ? &numbers : nullptr;
        const uint64_t last = lastPosition;
        std::string expected = "-";
        for (auto m = model.begin(); expected == "-" && m != model.end() && m->position <= last;) {
            if (choice.numbers != nullptr &&
                std::find(numbers.begin(), numbers.end(), m->serial) == numbers.end()) {
                ++m;
            } else if (m->watcher && (serial == Convey::kAnySerialNumber || m->result == serial)) {
                Queued moved = *m;
                moved.position = ++lastPosition;
                m = model.erase(m);
                const auto next = m - model.begin();
                model.push_back(moved);
                m = model.begin() + next;
            } else if ((m->wantsAnswer && heldUp.count(m->sender) != 0) || m->serial == unwanted) {
                ++m;
            } else {
                expected = m->body;
            }
        }
        MessageQueue::Taken taken = queue.takeWanted(serial, choice);
        ASSERT_EQ(taken.message == nullptr ? "-" : taken.message->getBody().c_str(), expected);
        if (taken.message != nullptr && upTo(2) == 0) {
            setTimeOfDay();
            queue.putBack(taken);
        } else {
            std::erase_if(model, [&](const Queued& m) { return m.body == expected; });
        }
    };
    const auto visit = [&] {
        expire();
        queue.removeExpiredMessages();
        // A pass from a random place; what it sees is dropped, kept with a new time, or left.
        uint64_t position = lastPosition == 0 ? 0 : random() % lastPosition;
        const std::string target = "target" + std::to_string(upTo(3));
        auto expected = std::find_if(model.begin(), model.end(), [&](const Queued& m) {
            return m.position > position && m.target == target;
        });
        std::string seen = "-";
        const bool found = queue.visitNextFor(
            target, position, [&](const Message& message) { seen = message.getBody().c_str(); });
        ASSERT_EQ(found, expected != model.end());
        if (!found) {
            return;
        }
        ASSERT_EQ(seen, expected->body);
        ASSERT_EQ(position, expected->position);
        const uint32_t choice = upTo(2);
        if (choice == 0) {
            ASSERT_TRUE(queue.drop(target, position));
            ASSERT_FALSE(queue.drop(target, position));
            model.erase(expected);
        } else if (choice == 1 && !expected->watcher) {
            const uint32_t seconds = 1 + upTo(20);
            const auto stamp = static_cast<uint32_t>(clock.utc / 1000);
            ASSERT_TRUE(queue.keep(target, position, stamp, seconds, 7));
            expected->deadline = now + seconds;
        }
    };
    const int count = steps(1'000'000);
    for (int step = 0; step < count && !HasFatalFailure(); ++step) {
        switch (upTo(11)) {
        case 0:
        case 1:
        case 2:
        case 3:
            append(step);
            break;
        case 4:
        case 5:
            take(upTo(4) == 0 ? Convey::kAnySerialNumber : upTo(3));
            break;
        case 6:
            takeWanted();
            break;
        case 7:
            pass(upTo(2));
            if (upTo(2) == 0) {
                setTimeOfDay();
            }
            break;
        case 8:
            visit();
            break;
        case 9: {
            const uint32_t serial = upTo(9) == 0 ? Convey::kAnySerialNumber : upTo(3);
            queue.removeTimeoutMessage(serial);
            std::erase_if(model,
                          [&](const Queued& m) { return m.selfWatcher && m.serial == serial; });
            break;
        }
        case 10: {
            expire();
            queue.removeExpiredMessages();
            const std::string target = "target" + std::to_string(upTo(4));
            const auto ofTarget = [&](const Queued& m) { return m.target == target; };
            if (upTo(9) == 0) {
                const size_t answers =
                    std::erase_if(model, [&](const Queued& m) { return m.answer && ofTarget(m); });
                ASSERT_EQ(queue.dropAnswersFor(target), static_cast<int32_t>(answers));
            }
            std::string expected;
            for (const Queued& m : model) {
                expected += ofTarget(m) ? m.body + " " : "";
            }
            const Message* const first = queue.findMessageForTarget(target.c_str());
            ASSERT_EQ(first == nullptr ? "" : first->getBody().c_str(),
                      expected.substr(0, expected.find(' ')));
            std::string seen;
            uint64_t position = 0;
            while (queue.visitNextFor(target, position, [&](const Message& message) {
                seen += message.getBody().c_str();
                seen += " ";
            })) {
            }
            ASSERT_EQ(seen, expected);
            const MessageQueue::Load load = queue.loadOf(target);
            ASSERT_EQ(load.messages, std::count(seen.begin(), seen.end(), ' '));
            ASSERT_EQ(load.bytes, static_cast<int64_t>(seen.size()) - load.messages);
            ASSERT_EQ(queue.answers().messages,
                      std::count_if(model.begin(), model.end(),
                                    [](const Queued& m) { return m.answer; }));
            const std::vector<std::string> targets = queue.targets();
            ASSERT_EQ(std::count(targets.begin(), targets.end(), target), seen.empty() ? 0 : 1);
            break;
        }
        default: {
            expire();
            queue.removeExpiredMessages();
            std::string seen;
            int64_t bytes = 0;
            queue.forEach([&](const Message& message) {
                seen += message.getBody().c_str();
                seen += " ";
                bytes += message.getBody().length();
            });
            ASSERT_EQ(seen, bodies());
            ASSERT_EQ(queue.count(), static_cast<int32_t>(model.size()));
            ASSERT_EQ(queue.bodyBytes(), bytes);
        }
        }
    }
}

} // namespace
