// How texts are read: in steps, in pieces, and with what is known of them already.
#include <algorithm>

#include "tests/convey/MessageFixture.h"

namespace {

using ScObjects::Convey;
using ScObjects::SoString;
using Message = Convey::Message;
using MessageReaderTest = MessageTest;

TEST_F(MessageReaderTest, aLargeBodyTakesOverItsText) {
    Message::setCreateDigest(true);
    const std::string large(100'000, 'L');
    SoString text;
    for (const char* body : {"small", large.c_str(), large.c_str()}) {
        ASSERT_TRUE(MessageTest::message(body).writeToString(text));
        text << "\n";
    }
    std::vector<std::string> bodies;
    for (int32_t next = 0; next < text.length();) {
        Message message;
        next = message.readFromString(text, next);
        bodies.emplace_back(message.getBody().view());
        EXPECT_EQ(message.getBody().view().size(), std::string(message.getBody().c_str()).size());
        EXPECT_EQ(message.getDigestState(), "");
    }
    EXPECT_TRUE(bodies == (std::vector<std::string>{"small", large, large}));
    EXPECT_TRUE(text.isEmpty());
    Message rest;
    SoString cutOff = "Content-Length:9\n\nabc";
    EXPECT_EQ(rest.readFromString(cutOff, 0), cutOff.length());
    EXPECT_EQ(rest.getBody(), "abc");
}

// Steps of any size end wherever they may: in a name, at its colon, in a value or in its copy.
TEST_F(MessageReaderTest, isReadInStepsAsAtOnceAndNoStepTakesAll) {
    std::string text;
    for (const size_t size :
         std::initializer_list<size_t>{0, 1, 99, 100, 101, 70'000, 65'536, 200'000}) {
        const std::string name = "n" + std::to_string(size);
        text += "Target:t\nSender:s\n" + name + ":" + std::string(size, 'v') + "\n" +
                std::string(size % 65'000, 'x') + "y:1\n" + name + ":" + std::string(size, 'w') +
                "\nType:" + std::string(size % 70'000, 'T') + "\nContent-Length:3\n\nabc";
    }
    text += "Target:t\nSender:s\n" + std::string(300'000, 'x'); // no colon and no line feed
    const auto dump = [](const Message& message) {
        std::string all = written(message);
        for (const std::string& header : headersOf(message)) {
            all += "|" + header;
        }
        return all;
    };
    std::vector<std::string> atOnce;
    for (const char* next = text.c_str(); *next != '\0';) {
        Message message;
        next = message.readFromString(next);
        atOnce.push_back(dump(message));
    }
    ASSERT_EQ(atOnce.size(), 9U);
    for (const size_t step : std::initializer_list<size_t>{97, 1000, 65'536}) {
        SCOPED_TRACE(step);
        Message::Reader reader{SoString(text.c_str())};
        size_t steps = 0;
        for (const std::string& expected : atOnce) {
            Message message;
            for (++steps; !reader.read(message, step); ++steps) {
            }
            EXPECT_TRUE(dump(message) == expected);
        }
        EXPECT_TRUE(reader.isAtEnd());
        EXPECT_GT(steps, text.size() / (step + 65'536));
    }

    // Each of these has two ways through all of it: the search for zero bytes is one.
    const std::string head = "Target:t\nSender:s\n";
    const std::string large = head + "Content-Length:500000\n\n" + std::string(500'000, 'b');
    const struct {
        const char* why;
        std::string text;
    } cases[] = {{"zero bytes become line feeds, which are passed over",
                  head + "\n" + std::string(500'000, '\0') + head + "x:after\n\n"},
                 {"a body that takes the text's buffer over", large},
                 {"a body that another message follows", large + "\n" + head + "x:after\n\n"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        std::string clean = c.text;
        std::replace(clean.begin(), clean.end(), '\0', '\n');
        Message::Reader reader{SoString(c.text.data(), static_cast<int32_t>(c.text.size()))};
        size_t steps = 0;
        for (const char* next = clean.c_str(); *next != '\0';) {
            Message expected;
            next = expected.readFromString(next);
            Message message;
            for (++steps; !reader.read(message, 1000); ++steps) {
            }
            EXPECT_TRUE(dump(message) == dump(expected));
        }
        EXPECT_TRUE(reader.isAtEnd());
        EXPECT_GE(steps, 2 * 500U);
    }
}

} // namespace
