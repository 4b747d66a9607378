#include "link/Channel.h"

#include <random>

#include "link/Bounds.h"

namespace convey_link {
namespace {

constexpr int64_t kForever = INT64_MAX;

MessageHead head(const std::string& source, const std::string& target) {
    MessageHead result;
    result.source = source;
    result.target = target;
    return result;
}

// As it comes from a port: in one, or with its body in a block of its own.
Travelling inPieces(const std::string& text, size_t headBytes) {
    Travelling pieces(text.substr(0, headBytes));
    const size_t bodyBytes = text.size() - pieces.size();
    if (bodyBytes > 0) {
        char* const block = static_cast<char*>(platform::TextMemory::allocate(bodyBytes));
        text.copy(block, bodyBytes, headBytes);
        pieces.block.reset(block);
        pieces.body = {block, bodyBytes};
    }
    return pieces;
}

// Two ends and what is between them, in which time passes only when nothing else can happen.
class ChannelTest : public testing::Test {
protected:
    // Carries a frame over, or does with it what a network may do.
    void carry(Channel& to, const std::string& bytes, Channel::Arrivals& out) {
        Frame frame;
        ASSERT_TRUE(decode(bytes, frame));
        to.take(frame, now, out);
    }
    void meet() {
        left.meet(2);
        right.meet(1);
    }
    // Frames of one end until it has none now.
    std::vector<std::string> drain(Channel& from, size_t partBytes = 1000) {
        std::vector<std::string> frames;
        for (std::string one = from.next(now, partBytes, expired); !one.empty();
             one = from.next(now, partBytes, expired)) {
            frames.push_back(std::move(one));
        }
        return frames;
    }

    int64_t now = 1000;
    Channel left{1};
    Channel right{2};
    std::vector<uint64_t> expired;
};

// The model: what was queued for a pair comes out once, whole and in order, whatever the network
// loses, doubles or delays.
TEST_F(ChannelTest, carriesEachMessageOnceAndInOrderOverABadNetwork) {
    const auto seed = static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed()) + 1;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    meet();
    std::map<std::string, std::vector<std::string>> queued;
    std::map<std::string, std::vector<std::string>> arrived;
    std::vector<std::string> under[2]; // way: frames on the way to the right, to the left
    int open = 0;
    for (int i = 0; i < 200'000 && (i < 300 || open > 0); ++i) {
        if (i < 300) {
            const std::string pair = "app" + std::to_string(random() % 3);
            std::string text(1 + random() % (random() % 4 == 0 ? 20'000 : 300),
                             static_cast<char>('a' + i % 26));
            for (size_t place = 0; place < text.size(); place += 7) {
                text[place] = static_cast<char>('A' + place % 26);
            }
            (void)left.queue(head(pair, "target"), inPieces(text, random() % 3000), kForever);
            queued[pair].push_back(std::move(text));
            ++open;
        }
        for (Channel* from : {&left, &right}) {
            std::vector<std::string>& way = under[from == &left ? 0 : 1];
            for (std::string& frame : drain(*from)) {
                const auto fate = random() % 20;
                if (fate == 0) {
                    continue; // lost
                }
                if (fate == 1) {
                    way.push_back(frame); // twice
                }
                const size_t place = fate == 2 ? random() % (way.size() + 1) : way.size();
                way.insert(way.begin() + static_cast<std::ptrdiff_t>(place), std::move(frame));
            }
        }
        for (Channel* to : {&right, &left}) {
            std::vector<std::string>& way = under[to == &right ? 0 : 1];
            Channel::Arrivals arrivals;
            for (const std::string& frame : way) {
                carry(*to, frame, arrivals);
            }
            way.clear();
            for (Channel::Arrival& message : arrivals.messages) {
                arrived[message.head.source].push_back(std::move(message.text));
                to->tell(message.message, Outcome::delivered, now);
            }
            open -= static_cast<int>(arrivals.outcomes.size());
        }
        now = std::max(now + 1, std::min({left.due(), right.due(), now + 10'000}));
    }
    EXPECT_EQ(open, 0) << "messages of which no end was told";
    EXPECT_EQ(arrived, queued);
    EXPECT_TRUE(left.waiting().empty());
}

TEST_F(ChannelTest, holdsNoSmallTextUpBehindALargeOneOfAnotherPair) {
    meet();
    (void)left.queue(head("large", "target"), std::string(1'000'000, 'x'), kForever);
    (void)left.next(now, 1000, expired); // it has begun
    (void)left.queue(head("small", "target"), std::string("hello"), kForever);
    Channel::Arrivals arrivals;
    for (int i = 0; i < 3; ++i) {
        Frame frame;
        ASSERT_TRUE(decode(left.next(now, 1000, expired), frame));
        if (!frame.texts.empty() && frame.texts[0].head.source == "small") {
            return;
        }
    }
    FAIL() << "three parts of the large text went first";
}

TEST_F(ChannelTest, sendsNoMoreThanTheWindowUntilItIsAcknowledged) {
    meet();
    (void)left.queue(head("a", "b"), std::string(3 * bounds::kWindowBytes, 'x'), kForever);
    size_t bytes = 0;
    std::vector<std::string> frames = drain(left, bounds::kPartBytes);
    for (const std::string& frame : frames) {
        bytes += frame.size();
    }
    EXPECT_LE(bytes, bounds::kWindowBytes + 2 * bounds::kPartBytes);
    Channel::Arrivals arrivals;
    for (const std::string& frame : frames) {
        carry(right, frame, arrivals);
    }
    for (const std::string& frame : drain(right)) {
        carry(left, frame, arrivals);
    }
    EXPECT_FALSE(drain(left, bounds::kPartBytes).empty());
}

// Of a life that has ended nobody can know what it did with what it had; the rest waits for the
// next.
TEST_F(ChannelTest, givesAnotherLifeOnlyWhatTheFirstCannotHaveDelivered) {
    meet();
    (void)left.queue(head("a", "b"), std::string("sent"), kForever);
    (void)drain(left);
    const uint64_t begun =
        left.queue(head("c", "b"), std::string(bounds::kWindowBytes + 5000, 'x'), kForever);
    (void)drain(left); // and not wholly sent
    left.meet(3);
    EXPECT_EQ(left.waiting(), std::set<uint64_t>{begun});
    Channel other(3);
    other.meet(1);
    Channel::Arrivals arrivals;
    for (int i = 0; i < 100 && arrivals.messages.empty(); ++i) {
        for (const std::string& frame : drain(left, bounds::kPartBytes)) {
            carry(other, frame, arrivals);
        }
        for (const std::string& frame : drain(other)) {
            carry(left, frame, arrivals);
        }
        now += bounds::kRepeatMilliseconds;
    }
    ASSERT_EQ(arrivals.messages.size(), 1U);
    EXPECT_EQ(arrivals.messages[0].head.source, "c");
    EXPECT_EQ(arrivals.messages[0].text.size(), bounds::kWindowBytes + 5000);
}

TEST_F(ChannelTest, tellsWhatGrewTooOldBeforeItWasSent) {
    const uint64_t old = left.queue(head("a", "b"), std::string("old"), now + 10);
    (void)left.queue(head("a", "b"), std::string("new"), now + 1000);
    left.expire(now + 20, expired);
    EXPECT_EQ(expired, std::vector<uint64_t>{old});
    now += 20;
    meet();
    Channel::Arrivals arrivals;
    for (const std::string& frame : drain(left)) {
        carry(right, frame, arrivals);
    }
    ASSERT_EQ(arrivals.messages.size(), 1U);
    EXPECT_EQ(arrivals.messages[0].text, "new");
    EXPECT_EQ(arrivals.messages[0].head.remainingMilliseconds, 980);
    // Of a pair of which nothing is left meanwhile.
    (void)left.queue(head("a", "b"), std::string("old"), now + 10);
    left.expire(now + 20, expired);
    (void)left.queue(head("a", "b"), std::string("newer"), kForever);
    for (const std::string& frame : drain(left)) {
        carry(right, frame, arrivals);
    }
    EXPECT_EQ(arrivals.messages.back().text, "newer");
}

// One frame for small texts that wait, in their order; each is told of, the first at once.
TEST_F(ChannelTest, smallTextsThatWaitGoTogether) {
    meet();
    constexpr size_t kTexts = 300;
    size_t bytes = 0;
    for (size_t i = 0; i < kTexts; ++i) {
        const std::string text(i == 50 ? 20'000 : 300, static_cast<char>('a' + i % 26));
        bytes += text.size();
        (void)left.queue(head(i % 2 == 0 ? "a" : "c", "b"), std::string(text), kForever);
    }
    Channel::Arrivals arrivals;
    // One part of a server whose frames are smaller.
    carry(right, left.next(now, 100, expired), arrivals);
    const std::vector<std::string> frames = drain(left, bounds::kPartBytes);
    for (const std::string& frame : frames) {
        EXPECT_LE(frame.size(), bounds::kTogetherBytes + bounds::kFrameBytes);
        carry(right, frame, arrivals);
    }
    EXPECT_LE(frames.size(), 1 + 2 * bytes / bounds::kTogetherBytes);
    ASSERT_EQ(arrivals.messages.size(), kTexts);
    std::map<std::string, uint64_t> last;
    Channel::Arrivals told;
    const auto hear = [&] {
        for (const std::string& frame : drain(right)) {
            carry(left, frame, told);
        }
        return told.outcomes.size();
    };
    for (const Channel::Arrival& one : arrivals.messages) {
        EXPECT_EQ(one.text[0], static_cast<char>('a' + (one.message - 1) % 26));
        EXPECT_GT(one.message, std::exchange(last[one.head.source], one.message));
        right.tell(one.message, Outcome::delivered, now);
        EXPECT_EQ(hear(), 1U) << "those behind it go together";
    }
    now += bounds::kAcknowledgeMilliseconds;
    EXPECT_EQ(hear(), kTexts);
    EXPECT_TRUE(left.waiting().empty());
}

} // namespace
} // namespace convey_link
