#include "link/Text.h"

#include "scriptobjects/convey/SoCVMessage.h"

namespace convey_link {
namespace {

using ScObjects::Convey;
using ScObjects::SoString;

Convey::Message layerReads(const std::string& text) {
    Convey::Message message;
    SoString whole(text.c_str());
    EXPECT_EQ(message.readFromString(whole, 0), whole.length());
    return message;
}

TEST(TextTest, changesWhoAMessageIsFromAndNothingElse) {
    Convey::Message original;
    original.setTarget("lumen-2.0");
    original.setSender("diary-1.0");
    original.setType("query");
    original.setResponseRequest("Result Error");
    original.setSerialNumber(7);
    original.setAskersLife(99);
    original.setHeader("Target", "mine"); // travels behind a mark
    original.setHeader("Page", "12");
    original.setBody("a\n\nb");
    SoString written;
    ASSERT_TRUE(original.writeToString(written));
    std::string whole(written.view());
    whole += "\n\nTarget:second\nContent-Length:2\n\nhi";
    std::string_view rest = whole;
    Text text;
    ASSERT_TRUE(Text::read(rest, text));
    EXPECT_EQ(text.get(kTarget), "lumen-2.0");
    EXPECT_EQ(text.body(), "a\n\nb");
    text.set(kTarget, "lumen-2.5");
    text.set(kSender, "diary_1-1.0");
    const Convey::Message read = layerReads(text.write());
    EXPECT_EQ(read.getTarget(), "lumen-2.5");
    EXPECT_EQ(read.getSender(), "diary_1-1.0");
    EXPECT_EQ(read.getType(), "query");
    EXPECT_EQ(read.getResponseRequest(), "Result Error");
    EXPECT_EQ(read.getSerialNumber(), 7U);
    EXPECT_EQ(read.getAskersLife(), 99U);
    EXPECT_EQ(read.getUserHeaderValue("Target"), "mine");
    EXPECT_EQ(read.getUserHeaderValue("Page"), "12");
    EXPECT_EQ(read.getBody(), "a\n\nb");
    EXPECT_EQ(read.getDigestState(), "") << "the digest must be this user's";
    ASSERT_TRUE(Text::read(rest, text));
    EXPECT_EQ(text.get(kTarget), "second");
    EXPECT_FALSE(Text::read(rest, text));
}

// The body of a large one stays where it arrived, and its digest is made while it is sent.
TEST(TextTest, leavesALargeBodyWhereItArrived) {
    Convey::Message original;
    original.setTarget("lumen-2.0");
    original.setSender("diary-1.0");
    original.setBody(SoString(std::string(100'000, 'b').c_str()));
    SoString written;
    ASSERT_TRUE(original.writeToString(written));
    std::string whole = std::string(written.view()) + "\n\nTarget:second\n\n";
    const char* const place = whole.data();
    std::string_view rest = whole;
    Text text;
    ASSERT_TRUE(Text::read(rest, text));
    text.set(kTarget, "lumen-2.5");
    // The same text, with the same digest, as when it is written in one piece.
    PortMessage port = text.write(std::move(whole));
    const PortMessage moved = std::move(port);
    EXPECT_TRUE(moved.body.data() > place && moved.body.data() < place + 1000) << "not copied";
    ASSERT_NE(moved.seal, nullptr);
    const std::string before = text.write();
    const std::string sent =
        std::string(moved.pieces().sealed()).append(moved.head).append(moved.body);
    EXPECT_TRUE(sent == before || sent == text.write()) << "a second may have passed";
    // To another link, from a port that has it in a block of its own.
    const size_t headBytes = written.view().size() - 100'000;
    const std::string_view head = written.view().substr(0, headBytes);
    char* const block = static_cast<char*>(platform::TextMemory::allocate(100'000));
    written.view().copy(block, 100'000, headBytes);
    ASSERT_TRUE(Text::read(head, {block, 100'000}, text));
    const Travelling travels = text.writePlain(platform::PortText::Block(block));
    EXPECT_TRUE(travels.body.data() == block && travels.block.get() == block) << "not copied";
    std::string joined;
    travels.append(joined, 0, travels.size());
    EXPECT_EQ(joined, text.writePlain().head);
    EXPECT_FALSE(Text::read(head, {block, 99'999}, text)) << "not all that it announces";
    EXPECT_FALSE(Text::read(std::string(head) + "x", {block, 100'000}, text)) << "cut elsewhere";
}

// What another machine says must not bring a second line of a name that the link vouches for, in
// whatever way readers would take it for one.
TEST(TextTest, leavesNoSecondLineThatAReaderWouldTake) {
    std::string whole =
        std::string("Target:a\nSender:x\nSender:y\nConvey-Link:me\n@HDR>Convey-Link:me\n"
                    "@CV>Version:2.05\nPage:1") +
        '\0' + "Sender:z\nSender-ID:localhost:mac1\nContent-Length:99\n\nbo" + '\0' + "dy";
    normalise(whole);
    std::string_view rest = whole;
    Text text;
    ASSERT_TRUE(Text::read(rest, text));
    EXPECT_EQ(text.get(kSender), "z") << "the last counts";
    text.remove({kVouch});
    text.set(kSender, "mine");
    text.set(kVouch, "desk@studio");
    const Convey::Message read = layerReads(text.write());
    EXPECT_EQ(read.getSender(), "mine");
    EXPECT_EQ(read.getUserHeaderValue("Convey-Link"), "desk@studio");
    EXPECT_EQ(read.getBody(), "bo\ndy") << "no longer than what is there";
}

TEST(TextTest, failsARequestWithWhatWasAskedForAndNoMore) {
    const struct {
        const char* wanted;
        Outcome outcome;
        int32_t code;
        const char* text;
        std::vector<std::string> types;
        const char* where = "";
    } cases[] = {
        {"Result Error Processed",
         Outcome::lost,
         62,
         "ERROR: TARGET HAS ENDED",
         {"Error", "Processed"}},
        {"Error",
         Outcome::notRunning,
         59,
         "ERROR: LAUNCHING IS SUPPRESSED",
         {"Error"},
         "ISNOTRUNNING"},
        {"Error", Outcome::tooMuch, 59, "ERROR: TOO MANY MESSAGES WAIT", {"Error"}},
        {"Result Error Timeout", Outcome::expired, 0, "", {"Timeout"}},
        {"Result", Outcome::lost, 62, "ERROR: TARGET HAS ENDED", {}},
        {"", Outcome::expired, 0, "", {}},
    };
    for (const auto& one : cases) {
        std::vector<std::string> types;
        const Asked asked{"diary-1.0", "lumen-2.0", "5", "00000000000000ff", one.wanted};
        failure(asked, one.outcome, [&](Text& reply) {
            const Convey::Message read = layerReads(reply.write());
            types.emplace_back(read.getType().view());
            EXPECT_EQ(read.getTarget(), "diary-1.0");
            EXPECT_EQ(read.getSender(), "lumen-2.0");
            EXPECT_EQ(read.getSerialNumber(), 5U);
            EXPECT_EQ(read.getAskersLife(), 255U);
            if (read.getType() == "Error") {
                EXPECT_EQ(read.getUserHeaderValue("Error-Code"), std::to_string(one.code).c_str());
                EXPECT_EQ(read.getUserHeaderValue("Error-Target"), one.where);
                EXPECT_EQ(read.getBody(), one.text);
            }
        });
        EXPECT_EQ(types, one.types) << one.wanted;
    }
}

} // namespace
} // namespace convey_link
