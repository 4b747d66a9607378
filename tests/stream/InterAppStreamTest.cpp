
#include "scriptobjects/stream/InterAppStream.h"
#include "platform/fake/Fakes.h"

namespace {

using ScObjects::InterAppStream;
using ScObjects::SoString;
using Stream = std::unique_ptr<InterAppStream>;

class InterAppStreamTest : public testing::Test {
protected:
    ~InterAppStreamTest() override { InterAppStream::InitTerm::exit(); }

    static std::string port(const char* stream) {
        return std::string("\\\\.\\port\\Nord_and_Sud_") + stream;
    }
    static Stream next(const char* name) {
        return Stream(ScObjects::ConveyUtils::createNextAvailableInterAppStream(name));
    }

    platform::InForce<platform::MessagePorts, platform::FakeMessagePorts> ports;
};

TEST_F(InterAppStreamTest, takesTheFirstInstanceOfANameThatIsFree) {
    std::vector<Stream> streams;
    for (const char* expected :
         {"app-1.0#x", "app_1-1.0#x", "app_2-1.0#x", "app_3-1.0#x", "app_4-1.0#x", "app_5-1.0#x",
          "app_6-1.0#x", "app_7-1.0#x", "app_8-1.0#x"}) {
        streams.push_back(next("app-1.0#x"));
        ASSERT_NE(streams.back(), nullptr) << expected;
        EXPECT_EQ(streams.back()->getName(), expected);
        EXPECT_FALSE(ports.isFree(port(expected)));
    }
    platform::FakeLog log;
    {
        const platform::ScopedReplacement<platform::Log> replaced(log);
        EXPECT_EQ(next("app-1.0#x"), nullptr) << "all are taken";
    }
    EXPECT_EQ(log.lines, std::vector<std::string>{"app-1.0#x and its 8 instances are all taken"});
    EXPECT_EQ(next("app_2-1.0#x"), nullptr) << "a name with an instance is not numbered";
    streams.erase(streams.begin() + 3);
    EXPECT_EQ(next("app-1.0#x")->getName(), "app_3-1.0#x");
    EXPECT_EQ(next(""), nullptr);
    // A name that is free and cannot be had is no reason to go by another one.
    ports.failures = 1;
    EXPECT_EQ(next("other-1.0")->getName(), "other-1.0");
    ports.failures = 2;
    EXPECT_EQ(next("other-1.0"), nullptr);
    EXPECT_EQ(next(std::string(300, 'n').c_str())->getName().length(), 300);
    const Stream longName = next(std::string(300, 'n').c_str());
    EXPECT_EQ(next(std::string(300, 'n').c_str()), nullptr) << "too long to be numbered";
}

TEST_F(InterAppStreamTest, handsOnWhatArrivedInItsOrder) {
    InterAppStream stream("app");
    ASSERT_TRUE(stream.isGood());
    EXPECT_FALSE(stream.messagePending());
    EXPECT_FALSE(stream.receive());
    EXPECT_TRUE(stream.isEmpty());
    for (const std::string& text : {std::string("abc\0", 4), std::string("\0\0x\0y", 5),
                                    std::string(), std::string("last")}) {
        EXPECT_TRUE(stream.send("app", SoString(text)));
    }
    EXPECT_FALSE(stream.receive()) << "nobody has looked yet";
    EXPECT_TRUE(stream.messagePending());
    EXPECT_TRUE(stream.receive());
    EXPECT_TRUE(stream.receive());
    EXPECT_FALSE(stream.receive()) << "the empty one";
    EXPECT_TRUE(stream.messagePending()) << "one is left";
    EXPECT_TRUE(stream.receive());
    EXPECT_FALSE(stream.messagePending());
    EXPECT_FALSE(stream.isEmpty());
    EXPECT_EQ(stream.getMessages(), "abc\n\n\nx\nylast");
    EXPECT_TRUE(stream.isEmpty());
    EXPECT_EQ(stream.getMessages(), "");
}

TEST_F(InterAppStreamTest, drawsWithinABound) {
    ports.queueBound = 10'000;
    InterAppStream stream("app");
    for (int i = 0; i < 1000; ++i) {
        EXPECT_TRUE(stream.send("app", "x"));
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(stream.messagePending()) << "drawing again takes no more";
    }
    int received = 0;
    while (stream.receive()) {
        ++received;
    }
    EXPECT_EQ(received, InterAppStream::kMaximumDrawnTexts);
    const std::string large(size_t{3} << 20, 'x');
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(stream.send("app", large.c_str()));
    }
    do {
        while (stream.receive()) {
            ++received;
        }
    } while (stream.messagePending());
    EXPECT_EQ(received, 1004);
}

TEST_F(InterAppStreamTest, aStreamWithoutAPortDoesNothing) {
    const InterAppStream owner("app");
    InterAppStream second("app");
    EXPECT_FALSE(second.isGood());
    EXPECT_FALSE(second.send("app", "x"));
    EXPECT_FALSE(second.messagePending());
    EXPECT_FALSE(second.receive());
    EXPECT_FALSE(second.waitForMessage(0, true));
    EXPECT_EQ(second.statistics().texts, 0U);
    EXPECT_FALSE(owner.send("nobody", "x"));
    EXPECT_FALSE(owner.canOpen("app", false));
    EXPECT_TRUE(owner.canOpen("nobody", false));
    ports.unusable = true;
    EXPECT_EQ(next("other"), nullptr);
    EXPECT_FALSE(owner.canOpen("nobody", true));
}

TEST_F(InterAppStreamTest, theProcessHasOneStreamOfItsOwn) {
    const InterAppStream* const fallback = InterAppStream::get();
    ASSERT_NE(fallback, nullptr);
    EXPECT_EQ(fallback->getName(), "interappstream-1.0");
    EXPECT_EQ(InterAppStream::get(), fallback);
    InterAppStream::InitTerm::init("Kivra_2-7.0#other");
    EXPECT_EQ(InterAppStream::get()->getName(), "kivra_2-7.0#ping");
    EXPECT_TRUE(ports.isFree(port("interappstream-1.0")));
    InterAppStream::InitTerm::init("kivra_2-7.0");
    EXPECT_EQ(InterAppStream::get()->getName(), "kivra_2-7.0#ping") << "the old one made room";
    InterAppStream::InitTerm::exit();
    EXPECT_TRUE(ports.isFree(port("kivra_2-7.0#ping")));
    ports.unusable = true;
    InterAppStream::InitTerm::init("kivra-7.0");
    EXPECT_EQ(InterAppStream::get(), nullptr);
    ports.unusable = false;
    EXPECT_EQ(InterAppStream::get()->getName(), "interappstream-1.0");
}

} // namespace
