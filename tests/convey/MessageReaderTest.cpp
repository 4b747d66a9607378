// How texts are read: in steps, in pieces, and with what is known of them already.

#include "tests/convey/MessageFixture.h"

namespace {

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
    const std::pair<const char*, std::string> cases[] = {
        {"zero bytes become line feeds, which are passed over",
         head + "\n" + std::string(500'000, '\0') + head + "x:after\n\n"},
        {"a body that takes the text's buffer over", large},
        {"a body that another message follows", large + "\n" + head + "x:after\n\n"}};
    for (const auto& [why, bytes] : cases) {
        SCOPED_TRACE(why);
        std::string clean = bytes;
        std::replace(clean.begin(), clean.end(), '\0', '\n');
        Message::Reader reader{SoString(bytes.data(), static_cast<int32_t>(bytes.size()))};
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

// What comes in two pieces is the same text, wherever it is cut: also where the first looks like
// the lines of a message and is none, or the second is not just a body.
TEST_F(MessageReaderTest, isReadInTwoPiecesAsInOne) {
    Message::setCreateDigest(true);
    Message::setAuthentication(true);
    const std::string head = "Target:t\nSender:s\n";
    const std::pair<const char*, std::string> cases[] = {
        {"as it is written", written(message("the body"))},
        {"a zero byte in lines and body", written(message("a\nb")) + std::string("\0c", 2)},
        {"two messages", head + "Content-Length:3\n\nabc" + head + "Content-Length:1\n\nx"},
        {"an empty line before the last length", head + "\n\nx:y\nContent-Length:4\n\nabcd"},
        {"a line without colon that takes the length in", head + "x\nContent-Length:4\n\nabcd"},
        {"more than the length", head + "Content-Length:3\n\nabcd"},
        {"less than the length", head + "Content-Length:5\n\nabcd"},
        {"line feeds behind the body", head + "Content-Length:2\n\nab\n\n"},
        {"a digest that does not fit", "@CV>MD5:00\n" + head + "Content-Length:4\n\nabcd"},
    };
    const auto readAll = [](Message::Reader&& reader, size_t step) {
        std::string all;
        while (!reader.isAtEnd()) {
            Message message;
            while (!reader.read(message, step)) {
            }
            for (const std::string& header : headersOf(message)) {
                all += header + "|";
            }
            for (const SoString& field : {message.getTarget(), message.getBody(),
                                          message.getDigestState(), message.getVersion()}) {
                all.append(field.view()) += "|";
            }
            all += std::to_string(message.getContentLength()) + "\n";
        }
        return all;
    };
    const auto piece = [](std::string_view bytes) { return SoString(bytes); };
    for (const auto& [why, bytes] : cases) {
        SCOPED_TRACE(why);
        const std::string_view text = bytes;
        const std::string expected = readAll(Message::Reader(piece(text)), 1000);
        const bool hasZero = text.find('\0') != std::string_view::npos;
        for (size_t cut = 1; cut < text.size(); ++cut) {
            for (const size_t step : {size_t{3}, size_t{1000}}) {
                for (const bool mayHaveZero : {true, hasZero}) {
                    EXPECT_EQ(readAll(Message::Reader(piece(text.substr(0, cut)),
                                                      piece(text.substr(cut)), mayHaveZero),
                                      step),
                              expected)
                        << cut;
                }
            }
        }
    }
    // The body of a large one is sent, and read, where it is.
    Message large;
    large.setTarget("t");
    large.setSender("s");
    large.setBody(SoString(std::string(100'000, 'x')));
    Message::Text text;
    ASSERT_TRUE(text.write(large) && text.isLarge());
    EXPECT_EQ(text.pieces().body.data(), large.getBody().c_str());
    SoString body = large.getBody();
    const char* const place = body.c_str();
    Message::Reader reader(
        piece(std::string(text.pieces().sealed()) + std::string(text.pieces().head)),
        std::move(body), false);
    Message read;
    EXPECT_TRUE(reader.read(read, SIZE_MAX) && reader.isAtEnd());
    EXPECT_EQ(read.getBody().c_str(), place);
    EXPECT_EQ(read.getDigestState(), "");
}

// What was found to fit while it arrived is not digested again, and nothing else is left out.
TEST_F(MessageReaderTest, aSealSparesTheDigestOfWhatItCovers) {
    Message large = message(std::string(100'000, 'x').c_str());
    const std::string plain = written(large);
    Message::setCreateDigest(true);
    const std::string whole = written(large);
    Message::Text text;
    ASSERT_TRUE(text.write(large));
    const platform::PortPieces pieces = text.pieces();
    ASSERT_NE(pieces.seal, nullptr);
    EXPECT_EQ(pieces.seal->taken(), 0U) << "it is made while the text is sent";
    const std::string seal(pieces.sealed());
    EXPECT_EQ(pieces.sealed(), seal) << "also when it is sent once more";
    EXPECT_TRUE(seal + std::string(pieces.head) + std::string(pieces.body) == whole);
    Message::setCreateDigest(false);
    Message::Text unsealed;
    EXPECT_TRUE(unsealed.write(large) && unsealed.pieces().seal == nullptr);

    const size_t sealed = seal.size();
    std::string changed = whole;
    changed.back() = 'y';
    const struct {
        const char* why;
        std::string text;
        size_t sealBytes;
        bool mayHaveZero;
        const char* state;
    } cases[] = {
        // What would be rejected when looked at shows whether that was done.
        {"known to fit", changed, sealed, false, ""},
        {"not known", changed, 0, false, "REJECTED"},
        {"changed when it is read", changed, sealed, true, "REJECTED"},
        {"more than the message", changed + "\n" + plain, sealed, false, "REJECTED"},
        {"another digest behind it", "@CV>MD5:1\n" + changed, 10, false, "REJECTED"},
        {"a line before the digest", "a:b\n" + changed, sealed, false, "REJECTED"},
        {"none", plain, sealed, false, "NODIGEST"},
        {"not known, and fits", whole, 0, false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        for (const size_t cut : {size_t{0}, c.text.find("\n\n") + 2, size_t{20}}) {
            SCOPED_TRACE(cut);
            Message::Reader reader(SoString(c.text.substr(0, cut == 0 ? c.text.size() : cut)),
                                   SoString(cut == 0 ? "" : c.text.substr(cut)), c.mayHaveZero,
                                   c.sealBytes);
            Message read;
            ASSERT_TRUE(reader.read(read, SIZE_MAX));
            EXPECT_EQ(read.getDigestState(), c.state);
            EXPECT_EQ(read.getBody().length(), 100'000);
        }
    }
}

} // namespace
