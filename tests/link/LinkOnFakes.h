#pragma once

// A link over a network, ports and a clock of the test's own.

#include "link/Bounds.h"
#include "link/Link.h"
#include "platform/fake/Fakes.h"
#include "scriptobjects/stream/BaseInterAppStream.h"
#include "tests/support/TemporaryFolder.h"

namespace convey_link {

inline const std::string kLumen = "lumen-2.5-en_us";
inline constexpr uint64_t kOtherLife = 7;

class FakeWire : public Wire {
public:
    struct Kept {
        uint64_t number;
        Frame frame;
        std::string text;
    };

    bool publish(const std::string& link, std::string_view bytes) override {
        Frame frame;
        unsaid = true;
        EXPECT_TRUE(decode(bytes, frame));
        if (link == "workshop") {
            sent.push_back({frame.kind, frame.head});
        }
        return true;
    }
    bool keep(const std::string&, uint64_t, uint64_t number, std::string_view bytes) override {
        Frame frame;
        EXPECT_TRUE(decode(bytes, frame));
        kept.push_back({number, frame, std::string(frame.text)});
        return true;
    }
    bool acknowledge(const std::string& reply) override {
        acknowledged.push_back(reply);
        return true;
    }
    bool askClock(const std::string& link) override {
        asked.push_back(link);
        return true;
    }
    void flush() override { unsaid = false; }
    std::vector<Event> take() override { return std::exchange(events, {}); }
    size_t maximumFrame() const override { return bounds::kMiB; }

    bool unsaid = false; // what was published has not gone
    std::vector<Event> events;
    std::vector<std::pair<FrameKind, MessageHead>> sent;
    std::vector<Kept> kept;
    std::vector<std::string> acknowledged;
    std::vector<std::string> asked; // for the clock
};

class NoRegistrations : public Registrations {
public:
    bool isLocal(const std::string&) override { return false; }
    bool add(const std::string&, const std::string&) override { return true; }
    void remove(const std::string&) override {}
};

class LinkOnFakes : public ::testing::Test {
protected:
    // A new life, which has its name after half a second.
    void begin(int64_t milliseconds = 1000) {
        link.reset();
        link = std::make_unique<Link>(
            configuration, ++life,
            Link::Surroundings{wire, ports, *wait, registrations,
                               [](const auto&, const auto&) { return true; },
                               [this](const std::string& line) { log.push_back(line); },
                               [this] { return now; }, folder.file("journal")});
        happens({Wire::EventKind::connected, {}, "nats://here"});
        passes(milliseconds);
    }
    void happens(Wire::Event event) {
        wire.events.push_back(std::move(event));
        (void)link->step(true);
        EXPECT_FALSE(wire.unsaid) << "it would wait for the next turn";
    }
    void passes(int64_t milliseconds) {
        for (int64_t i = 0; i < milliseconds; i += 100) {
            now += 100;
            (void)link->step(false);
            EXPECT_FALSE(wire.unsaid) << "it would wait for the next turn";
        }
    }
    // What has come to a port since the last look; empty for nothing.
    static std::string taken(platform::LocalPort& port) {
        platform::PortText text;
        std::string all;
        while (port.take(text)) {
            all += text.view();
        }
        return all;
    }
    std::string told() const { return taken(*asker); }

    const std::string prefix = ScObjects::BaseInterAppStream::kPortNamePrefix;
    TemporaryFolder folder;
    Configuration configuration = [] {
        Configuration made;
        made.realm = "studio";
        made.name = "desk";
        return made;
    }();
    int64_t now = 1'000'000;
    uint64_t life = 2;
    std::vector<std::string> log;
    FakeWire wire;
    platform::FakeMessagePorts ports;
    std::unique_ptr<platform::PortWait> wait = ports.newWait();
    NoRegistrations registrations;
    std::unique_ptr<Link> link;
    std::unique_ptr<platform::LocalPort> asker = ports.open(prefix + "asker-1.0");
};

} // namespace convey_link
