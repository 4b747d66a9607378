#include "link/Frame.h"

#include "link/Bounds.h"

namespace convey_link {
namespace {

Frame part(uint64_t total, uint64_t offset, std::string_view bytes) {
    Frame frame;
    frame.kind = FrameKind::cargo;
    frame.senderLife = 1;
    frame.receiverLife = 2;
    frame.number = 3;
    frame.part.message = 4;
    frame.part.total = total;
    frame.part.offset = offset;
    frame.part.bytes = bytes;
    if (offset == 0) {
        frame.part.head.source = "diary-1.0";
        frame.part.head.target = "lumen-2.5-en_us#thread";
        frame.part.head.remainingMilliseconds = -1;
    }
    return frame;
}

// Small texts in one frame.
Frame together(const std::vector<std::string_view>& texts) {
    Frame frame = part(1, 0, "x");
    frame.cargo = CargoKind::texts;
    for (const std::string_view text : texts) {
        frame.texts.push_back(frame.part);
        frame.texts.back().bytes = text;
    }
    return frame;
}

std::vector<Frame> frames() {
    std::vector<Frame> all;
    for (const FrameKind kind :
         {FrameKind::claim, FrameKind::taken, FrameKind::bye, FrameKind::hello, FrameKind::presence,
          FrameKind::acknowledgement, FrameKind::ping, FrameKind::pong, FrameKind::kept}) {
        Frame frame;
        frame.kind = kind;
        frame.senderLife = UINT64_MAX;
        if (kind == FrameKind::presence || kind == FrameKind::hello) {
            frame.apps = {{"lumen-2.5", AppState::running}, {"kivra-7.0", AppState::refused}};
        }
        if (kind == FrameKind::ping || kind == FrameKind::pong || kind == FrameKind::kept) {
            frame.number = 9;
            frame.head = {MessageKind::ping, "a-1.0#ping", "b-1.0#thread", 2000, 7, Outcome::lost};
            frame.text = "text";
        }
        all.push_back(frame);
    }
    all.push_back(part(5, 0, "hello"));
    all.push_back(part(10, 5, "hello"));
    Frame outcomes = part(5, 0, "hello");
    outcomes.cargo = CargoKind::outcomes;
    outcomes.outcomes = {{1, Outcome::delivered}, {UINT64_MAX, Outcome::expired}};
    all.push_back(outcomes);
    all.push_back(together({"hello"}));
    Frame launch = part(5, 0, "hello");
    launch.cargo = CargoKind::launch;
    launch.app = "lumen-2.5";
    launch.parameters = "-open x";
    all.push_back(launch);
    return all;
}

TEST(FrameTest, saysTheSameAgainAndNothingWhenItIsCut) {
    for (const Frame& frame : frames()) {
        const std::string bytes = encode(frame);
        SCOPED_TRACE(static_cast<int>(frame.kind));
        Frame again;
        ASSERT_TRUE(decode(bytes, again));
        EXPECT_EQ(encode(again), bytes);
        EXPECT_FALSE(isOfOtherVersion(bytes));
        // What a former link has left on the servers' disks is taken, and nothing else of it.
        std::string former = bytes;
        former[3] = '1';
        EXPECT_EQ(decode(former, again), frame.kind == FrameKind::kept);
        EXPECT_TRUE(isOfOtherVersion(former));
        // A text may be shorter; whatever else is cut off is missed, and what is added noticed.
        const bool endsWithText =
            frame.kind == FrameKind::ping || frame.kind == FrameKind::pong ||
            frame.kind == FrameKind::kept ||
            (frame.kind == FrameKind::cargo && frame.cargo == CargoKind::part);
        for (size_t size = 0; size + (endsWithText ? 5 : 0) < bytes.size(); ++size) {
            EXPECT_FALSE(decode(bytes.substr(0, size), again)) << size;
        }
        if (!endsWithText) {
            EXPECT_FALSE(decode(bytes + "x", again));
        }
    }
}

TEST(FrameTest, refusesWhatNoLinkWouldSay) {
    const std::string tooLarge(bounds::kSmallBytes + 1, 'x');
    const std::pair<const char*, Frame> cases[] = {
        {"more text than was announced", part(3, 0, "hello")},
        {"a part behind the end", part(5, 5, "x")},
        {"a place that overflows", part(5, UINT64_MAX - 1, "hello")},
        {"a text above the bound", part(bounds::kTextBytes + 1, 1, "x")},
        {"a text of nothing", part(0, 0, "")},
        {"a small text above the bound", together({tooLarge})},
        {"a small text of nothing", together({""})},
        {"no small text", together({})},
    };
    for (const auto& [why, frame] : cases) {
        Frame out;
        EXPECT_FALSE(decode(encode(frame), out)) << why;
    }
    for (const char* name : {"", "a b", "a\nTarget:b", "../a", "a\x7F"}) {
        Frame frame = part(5, 0, "hello");
        frame.part.head.target = name;
        Frame out;
        EXPECT_FALSE(decode(encode(frame), out)) << name;
    }
    for (const int64_t time : {int64_t{-2}, INT64_MAX}) {
        Frame frame = part(5, 0, "hello");
        frame.part.head.remainingMilliseconds = time;
        Frame out;
        EXPECT_FALSE(decode(encode(frame), out)) << time;
    }
    Frame counted;
    counted.kind = FrameKind::hello;
    counted.senderLife = 1;
    std::string bytes = encode(counted);
    bytes.replace(bytes.size() - 4, 4, "\xFF\xFF\xFF\xFF"); // applications that are not there
    EXPECT_FALSE(decode(bytes, counted));
}

} // namespace
} // namespace convey_link
