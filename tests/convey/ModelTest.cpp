// The queue and the instance against models that are simple enough to be believed, on a clock that
// moves when the test says so. CONVEY_TEST_SEED repeats a run; CONVEY_TEST_STEPS makes it longer.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/fake/Fakes.h"
#include "scriptobjects/convey/SoCVInstance.h"
#include "scriptobjects/convey/SoCVMessageQueue.h"
#include "tests/support/TableConnector.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;
using ScObjects::ConveyData::MessageQueue;
using Message = Convey::Message;
constexpr uint32_t kAny = ScObjects::ConveyData::CV_INVALID_MESSAGE_NUMBER;

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
        clock.utc = now * 1000;
    }
    uint32_t upTo(uint32_t most) { return static_cast<uint32_t>(random() % (most + 1)); }

    // The background thread may look at the clock until the process ends.
    static platform::FakeClock& aClock() {
        static platform::FakeClock clock;
        return clock;
    }
    platform::FakeClock& clock = aClock();
    platform::ScopedReplacement<platform::Clock> clockInForce{clock};
    int64_t now = clock.utc / 1000;
    const unsigned usedSeed = seed();
    std::mt19937 random{usedSeed};
    testing::ScopedTrace trace{__FILE__, __LINE__, "CONVEY_TEST_SEED=" + std::to_string(usedSeed)};
};

// What a queue holds, in a vector that is searched from one end to the other.
struct Queued {
    std::string body;
    std::string target;
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
        const bool selfWatcher = watcher && upTo(1) == 0;
        const auto timeout =
            watcher ? 1 + static_cast<int32_t>(upTo(18)) : static_cast<int32_t>(upTo(19)) - 1;
        auto message = std::make_unique<Message>();
        const Queued added{std::to_string(step),
                           selfWatcher ? "me" : "target" + std::to_string(upTo(3)),
                           watcher,
                           selfWatcher,
                           upTo(3),
                           upTo(2),
                           timeout < 0 ? 0 : now + (timeout == 0 ? 600 : timeout),
                           ++lastPosition,
                           !watcher && upTo(1) == 0};
        message->setTarget(added.target.c_str());
        message->setSender("me");
        message->setType(watcher ? "Ignore" : "query");
        message->setResponseRequest(selfWatcher ? "Timeout" : "");
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
            if (front.watcher && (serial == kAny || front.result == serial)) {
                aside.push_back(front);
            } else {
                expected = front.body;
            }
        }
        for (Queued& m : aside) {
            m.position = ++lastPosition;
            model.push_back(m);
        }
        const std::unique_ptr<Message> message(queue.getNextMessage(serial));
        ASSERT_EQ(message == nullptr ? "-" : message->getBody().c_str(), expected);
    };
    const auto visit = [&] {
        expire();
        queue.removeExpiredMessages();
        // A pass from a random place; what it sees is dropped, kept with a new time, or left.
        uint64_t position = lastPosition == 0 ? 0 : random() % lastPosition;
        auto expected = std::find_if(model.begin(), model.end(),
                                     [&](const Queued& m) { return m.position > position; });
        std::string seen = "-";
        const bool found = queue.visitAfter(
            position, [&](const Message& message) { seen = message.getBody().c_str(); });
        ASSERT_EQ(found, expected != model.end());
        if (!found) {
            return;
        }
        ASSERT_EQ(seen, expected->body);
        ASSERT_EQ(position, expected->position);
        const uint32_t choice = upTo(2);
        if (choice == 0) {
            ASSERT_TRUE(queue.drop(position));
            ASSERT_FALSE(queue.drop(position));
            model.erase(expected);
        } else if (choice == 1 && !expected->watcher) {
            const uint32_t seconds = 1 + upTo(20);
            ASSERT_TRUE(queue.keep(position, static_cast<uint32_t>(now), seconds, 7));
            expected->deadline = now + seconds;
        }
    };
    const int count = steps(2'000'000);
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
        case 6:
            take(upTo(4) == 0 ? kAny : upTo(3));
            break;
        case 7:
            pass(upTo(2));
            break;
        case 8:
            visit();
            break;
        case 9: {
            const uint32_t serial = upTo(3);
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
            uint64_t position = 0;
            while (queue.visitAfter(position, [&](const Message& message) {
                seen += message.getBody().c_str();
                seen += " ";
                bytes += message.getBody().length();
            })) {
            }
            ASSERT_EQ(seen, bodies());
            ASSERT_EQ(queue.count(), static_cast<int32_t>(model.size()));
            ASSERT_EQ(queue.bodyBytes(), bytes);
        }
        }
    }
}

// Two instances of one process that send each other requests, each with the replies that it asks
// for. An instance is modelled by what waits in it and by what its handlers were told.
class InstanceModel {
public:
    struct Waiting {
        enum class Kind { request, reply, watcher } kind;
        uint32_t serial;
        std::string type; // of a reply
        std::string body;
        std::set<std::string> replies; // that a request asks for
        int64_t deadline;
    };
    std::vector<Waiting> incoming;
    std::vector<std::string> events;
    std::set<uint32_t> awaited; // numbers with a handler of their own, for "Result"
    bool hasHandler = true;
    InstanceModel* peer = nullptr;

    void send(uint32_t serial, const std::string& body, std::set<std::string> replies,
              uint32_t timeout, int64_t now) {
        if (!replies.empty() || awaited.count(serial) != 0) {
            replies.insert("Processed");
        }
        if (replies.count("Received") != 0) {
            reply(serial, "Received", body, now);
        }
        peer->incoming.push_back(
            {Waiting::Kind::request, serial, "", body, replies, now + timeout});
        if (replies.count("Timeout") != 0) {
            incoming.push_back({Waiting::Kind::watcher, serial, "", "", {}, now + timeout + 1});
        }
    }
    // One message; false when there is none.
    bool process(int64_t now) {
        expire(now);
        size_t index = 0;
        while (index < incoming.size() && incoming[index].kind == Waiting::Kind::watcher) {
            ++index;
        }
        std::rotate(incoming.begin(), incoming.begin() + static_cast<std::ptrdiff_t>(index),
                    incoming.end());
        if (incoming.empty() || incoming.front().kind == Waiting::Kind::watcher) {
            return false;
        }
        const Waiting message = incoming.front();
        incoming.erase(incoming.begin());
        if (message.kind == Waiting::Kind::request) {
            handle(message, now);
        } else {
            hear(message);
        }
        return true;
    }
    void expire(int64_t now) {
        for (size_t i = incoming.size(); i-- > 0;) {
            const Waiting message = incoming[i];
            if (now < message.deadline) {
                continue;
            }
            incoming.erase(incoming.begin() + static_cast<std::ptrdiff_t>(i));
            if (message.kind == Waiting::Kind::watcher) {
                reply(message.serial, "Timeout", "", now);
            } else if (message.replies.count("Timeout") != 0) {
                peer->reply(message.serial, "Timeout", "", now);
            }
        }
    }

private:
    void reply(uint32_t serial, const std::string& type, const std::string& body, int64_t now) {
        incoming.push_back({Waiting::Kind::reply, serial, type, body, {}, now + 600});
    }
    void handle(const Waiting& message, int64_t now) {
        if (hasHandler) {
            events.push_back("1 " + message.body);
            const bool failed = message.body.ends_with("fail");
            const char* const wanted = failed ? "Error" : "Result";
            if (message.replies.count(wanted) != 0) {
                peer->reply(message.serial, wanted, "re " + message.body, now);
            }
        }
        if (message.replies.count("Processed") != 0) {
            peer->reply(message.serial, "Processed", "", now);
        }
    }
    void hear(const Waiting& message) {
        static const std::map<std::string, std::string> kinds = {{"Received", "2 "},
                                                                 {"Result", "3 "},
                                                                 {"Error", "4 "},
                                                                 {"Timeout", "5 "},
                                                                 {"Processed", "0 "}};
        if (message.type == "Result" && awaited.erase(message.serial) != 0) {
            events.push_back("awaited " + message.body);
        } else if (hasHandler) {
            events.push_back(kinds.at(message.type) + message.body);
        }
        if (message.type == "Processed" || message.type == "Error" || message.type == "Timeout") {
            std::erase_if(incoming, [&](const Waiting& m) {
                return m.kind == Waiting::Kind::watcher && m.serial == message.serial;
            });
            awaited.erase(message.serial);
        }
    }
};

// Notes what it is told and answers requests.
class ModelledHandler : public Convey::MsgHandler {
public:
    ModelledHandler(std::vector<std::string>& events, uint32_t serial)
        : events_(events), serial_(serial) {}
    int32_t handleMessage(int event, Message& message, SoString* result) override {
        const std::string body = message.getBody().c_str();
        if (serial_ != kAny) {
            events_.push_back("awaited " + body);
            return 0;
        }
        events_.push_back(std::to_string(event) + " " + body);
        if (event == 1) {
            *result = ("re " + body).c_str();
        }
        return event == 1 && body.ends_with("fail") ? 7 : 0;
    }
    SoString getMsgType() const override { return serial_ == kAny ? "Tessaly" : "Result"; }
    uint32_t getSerialNumber() const override { return serial_; }

private:
    std::vector<std::string>& events_;
    const uint32_t serial_;
};

TEST_F(ModelTest, instances) {
    const StartedLayer layer("own-1.0", {"own-1.0", "other-2.0"});
    ASSERT_TRUE(layer.started);
    const char* const names[] = {"own-1.0", "other-2.0"};
    std::vector<std::string> events[2];
    InstanceModel models[2];
    models[0].peer = &models[1];
    models[1].peer = &models[0];
    Convey own(names[0], new ModelledHandler(events[0], kAny), true, nullptr);
    Convey other(names[1], new ModelledHandler(events[1], kAny), false, nullptr);
    Convey* const instances[] = {&own, &other};

    const auto toggleHandler = [&](size_t side) {
        if (models[side].hasHandler) {
            ASSERT_TRUE(
                instances[side]->deleteHandler(instances[side]->findHandler("Tessaly", kAny)));
        } else {
            ASSERT_EQ(instances[side]->changeHandler(new ModelledHandler(events[side], kAny)),
                      nullptr);
        }
        models[side].hasHandler = !models[side].hasHandler;
    };
    const auto settle = [&] {
        for (const size_t side : {size_t{0}, size_t{1}}) { // each notice is seen to have come
            if (!models[side].hasHandler) {
                toggleHandler(side);
            }
        }
        for (bool more = true; more;) {
            const bool first = models[0].process(now);
            more = models[1].process(now) || first;
        }
        // Not only this thread retires what has expired: the layer's own one does, too, and may be
        // about to tell the sender. So the order is not known, and the time not exactly.
        const auto sorted = [](std::vector<std::string> list) {
            std::sort(list.begin(), list.end());
            return list;
        };
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        for (;;) {
            while (own.processIncomingMessage(kAny, true) ||
                   other.processIncomingMessage(kAny, true)) {
            }
            if (sorted(events[0]) == sorted(models[0].events) &&
                sorted(events[1]) == sorted(models[1].events)) {
                break;
            }
            if (std::chrono::steady_clock::now() > end) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(sorted(events[i]), sorted(models[i].events));
            ASSERT_EQ(instances[i]->data()->incoming().count(), std::ssize(models[i].incoming));
            events[i].clear();
            models[i].events.clear();
        }
    };
    uint32_t lastSerial = 0;
    const int count = steps(500'000);
    for (int step = 0; step < count && !HasFatalFailure(); ++step) {
        const uint32_t side = upTo(1);
        Convey& instance = *instances[side];
        InstanceModel& model = models[side];
        const uint32_t choice = upTo(39);
        if (choice < 11) {
            if (model.peer->incoming.size() > 50) {
                continue;
            }
            const bool fails = upTo(3) == 0;
            const std::string body = std::to_string(step) + (fails ? " fail" : " do");
            const uint32_t serial = ++lastSerial;
            const uint32_t timeout = 1 + upTo(9);
            std::set<std::string> replies;
            std::string request;
            for (const char* reply : {"Received", "Result", "Error", "Timeout"}) {
                if (upTo(2) == 0) {
                    replies.insert(reply);
                    request += std::string(request.empty() ? "" : " ") + reply;
                }
            }
            if (upTo(4) == 0) {
                ASSERT_EQ(instance.changeHandler(new ModelledHandler(events[side], serial)),
                          nullptr);
                model.awaited.insert(serial);
            }
            Message message;
            message.setTarget(names[1 - side]);
            message.setSerialNumber(serial);
            message.setTimeout(timeout);
            message.setResponseRequest(request.c_str());
            message.setBody(SoString(body.c_str()));
            ASSERT_TRUE(instance.send(message, false, 0, nullptr));
            model.send(serial, body, replies, timeout, now);
        } else if (choice < 35) {
            ASSERT_EQ(instance.processIncomingMessage(kAny, true), model.process(now));
        } else if (choice < 37) {
            toggleHandler(side);
        } else if (choice < 39) {
            // Up to here the order is the model's to the letter.
            for (int i = 0; i < 2; ++i) {
                ASSERT_EQ(events[i], models[i].events);
            }
            pass(1 + upTo(3));
            settle();
        } else if (!model.awaited.empty()) {
            const uint32_t serial = *model.awaited.begin();
            ASSERT_TRUE(instance.deleteHandlers(serial));
            model.awaited.erase(serial);
        }
    }
    pass(1000);
    settle();
    EXPECT_EQ(own.findHandler("Result", kAny), nullptr);
}

} // namespace
