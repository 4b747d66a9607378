// Texts whose digest is made while they are under way.
#include <cstdint>
#include <string_view>

#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/stream/InterAppStream.h"
#include "tests/platform/PortFixture.h"

namespace {

using PortSealsTest = MessagePortTest;

// A sum of some bytes, their places and their number.
class SumSeal : public platform::PortSeal {
public:
    std::string_view finish() override {
        line_ =
            "sum:" + std::to_string((sum_ + at_) * 31 + static_cast<unsigned char>(last_)) + "\n";
        return line_;
    }

private:
    void add(std::string_view bytes) override {
        // Also in a debug build as fast as texts are carried.
        for (size_t i = (kStep - at_ % kStep) % kStep; i < bytes.size(); i += kStep) {
            sum_ = sum_ * 31 + static_cast<unsigned char>(bytes[i]);
        }
        at_ += bytes.size();
        last_ = bytes.empty() ? last_ : bytes.back();
    }
    static constexpr size_t kStep = 61;
    size_t at_ = 0;
    uint64_t sum_ = 1;
    char last_ = 0;
    std::string line_;
};

std::string sumOf(const std::string& text) {
    SumSeal seal;
    seal.take(text);
    return std::string(seal.finish());
}

// The same text arrives whoever its owner is; one that knows sealed texts hears that the seal fits.
TEST_F(PortSealsTest, aSealIsMadeAtBothEndsAndStandsInFront) {
    const auto port = opened();
    enum class Owner { sealing, ofAnotherSeal, notAsking, ofOld, dropping };
    constexpr size_t kPart = 65'536;
    const std::pair<size_t, size_t> sizes[] = {{300, kPart - 300},
                                               {300, kPart - 1},
                                               {1, kPart},
                                               {kPart, kPart + 1},
                                               {kPart + 1, 2 * kPart},
                                               {300, 5'000'000},
                                               {40'000'000, 20},
                                               {300, MessagePorts::kMaximumTextBytes - 364},
                                               {400'000, 0},
                                               {300, MessagePorts::kMaximumTextBytes - 325}};
    for (const Owner owner :
         {Owner::sealing, Owner::ofAnotherSeal, Owner::notAsking, Owner::ofOld, Owner::dropping}) {
        port->checkSeals([owner]() -> std::unique_ptr<platform::PortSeal> {
            auto seal = owner == Owner::notAsking ? nullptr : std::make_unique<SumSeal>();
            if (owner == Owner::ofAnotherSeal) {
                seal->take("x");
            }
            return seal;
        });
        // A new time of change: senders look at the owner again.
        std::filesystem::permissions(fileOf(".socket"),
                                     std::filesystem::perms(owner == Owner::ofOld      ? 01600
                                                            : owner == Owner::dropping ? 01710
                                                                                       : 01700));
        for (const auto& [headBytes, bodyBytes] : sizes) {
            SCOPED_TRACE(std::to_string(static_cast<int>(owner)) + ": " +
                         std::to_string(headBytes) + " + " + std::to_string(bodyBytes));
            if (headBytes + bodyBytes > 10'000'000 && owner != Owner::sealing &&
                owner != Owner::ofOld) {
                continue; // the same bounds as for the others
            }
            std::string text(headBytes + bodyBytes, 'x');
            for (size_t i = 0; i < text.size(); i += 509) {
                text[i] = static_cast<char>(i / 509 % 100 + 1);
            }
            const std::string head = text.substr(0, headBytes);
            const std::string body = text.substr(headBytes);
            // Without one for whom it would be made in vain.
            const std::string sum = owner == Owner::dropping ? std::string() : sumOf(text);
            SumSeal seal;
            std::thread sender([&] {
                EXPECT_EQ(ports.send(kName, {head, body, &seal}, kGenerous, nullptr),
                          SendResult::delivered);
            });
            PortText received;
            ASSERT_TRUE(port->wait(kGenerous, false) && port->take(received));
            sender.join();
            EXPECT_EQ(seal.taken() == 0, sum.empty());
            const bool hasRoom = text.size() + 64 <= MessagePorts::kMaximumTextBytes;
            EXPECT_EQ(received.sealBytes(), owner == Owner::sealing && hasRoom ? sum.size() : 0);
            // The body, without what is in front of it, is where a string can have it.
            const size_t cut =
                hasRoom && owner != Owner::ofOld ? headBytes : headBytes + sum.size();
            const bool isApart = cut <= kPart && bodyBytes != 0;
            EXPECT_EQ(received.headSize(), isApart ? headBytes + sum.size() : 0);
            EXPECT_FALSE(received.mayHaveZero());
            EXPECT_TRUE(received.view() == sum + text);
        }
    }
    // Its successor has them again, also of a sender that has been there.
    for (const bool isUnsealed : {true, false, true}) {
        const auto other = isUnsealed ? ports.openUnsealed("other") : ports.open("other");
        const std::string text(100'000, 't');
        SumSeal seal;
        EXPECT_EQ(ports.send("other", {text, {}, &seal}, kGenerous, nullptr),
                  SendResult::delivered);
        EXPECT_TRUE(takeOne(*other) == (isUnsealed ? "" : sumOf(text)) + text) << isUnsealed;
        const auto listed = ports.list();
        EXPECT_EQ(std::count_if(listed.begin(), listed.end(),
                                [](const auto& one) { return one.dropsSeals; }),
                  isUnsealed ? 2 : 1);
    }
    const std::string tooLong(MessagePorts::kMaximumTextBytes - 10, 'x');
    SumSeal seal;
    EXPECT_EQ(ports.send(kName, {tooLong, {}, &seal}, 0, nullptr), SendResult::tooLarge);
    EXPECT_EQ(log.lines, std::vector<std::string>());
}

// Who takes a text in portions, and waits for changes only, is told as long as there are any.
TEST_F(PortSealsTest, aWaitEndsWhileThereIsMoreOfALargeText) {
    const auto port = ports.open(kName);
    const auto wait = ports.newWait();
    ASSERT_TRUE(port != nullptr && wait != nullptr);
    port->checkSeals([] { return std::make_unique<SumSeal>(); });
    wait->add(*port, 3);
    const std::string text(size_t{48} << 20, 't');
    SumSeal seal;
    std::thread sender([&] {
        EXPECT_EQ(ports.send(kName, {text, {}, &seal}, kGenerous, nullptr), SendResult::delivered);
    });
    PortText received;
    while (!port->take(received) && wait->wait(kGenerous)) {
        EXPECT_EQ(wait->reported().size(), 1U);
    }
    EXPECT_EQ(received.size(), sumOf(text).size() + text.size());
    sender.join();
}

// Nothing is a text before its seal is there, and a send that is given up leaves none.
TEST_F(PortSealsTest, aSealIsWaitedFor) {
    const auto port = opened();
    port->checkSeals([] { return std::make_unique<SumSeal>(); });
    const std::string text(100'000, 't');
    const int fd = rawConnection();
    for (const bool fits : {true, false}) {
        EXPECT_TRUE(sendRaw(fd, header(3, text.size())) && sendRaw(fd, text.substr(0, 70'000)));
        EXPECT_FALSE(port->wait(0, false));
        EXPECT_EQ(ports.send(kName, "others are served", kGenerous), SendResult::delivered);
        EXPECT_EQ(takeOne(*port), "others are served");
        EXPECT_TRUE(sendRaw(fd, text.substr(70'000)));
        EXPECT_FALSE(port->wait(0, false));
        const std::string seal = fits ? sumOf(text) : std::string("another", 8);
        EXPECT_TRUE(sendRaw(fd, seal) && sendRaw(fd, packet("behind it")));
        PortText received;
        ASSERT_TRUE(port->wait(kGenerous, false) && port->take(received));
        EXPECT_EQ(received.sealBytes(), fits ? seal.size() : 0);
        EXPECT_EQ(received.mayHaveZero(), !fits) << "it ends with one";
        EXPECT_TRUE(received.view() == seal + text);
        EXPECT_EQ(takeOne(*port), "behind it");
    }
    close(fd);
    // More than the system takes; the seal goes on where it was when the text is sent again.
    const std::string large(size_t{40} << 20, 'l');
    SumSeal seal;
    const platform::PortPieces pieces{large, {}, &seal};
    EXPECT_EQ(ports.send(kName, pieces, 20, nullptr), SendResult::timedOut);
    EXPECT_FALSE(port->wait(0, false));
    std::thread sender(
        [&] { EXPECT_EQ(ports.send(kName, pieces, kGenerous, nullptr), SendResult::delivered); });
    PortText received;
    ASSERT_TRUE(port->wait(kGenerous, false) && port->take(received));
    sender.join();
    EXPECT_EQ(received.sealBytes(), sumOf(large).size());
    EXPECT_TRUE(received.view() == sumOf(large) + large);
}

// A stream's messages: what is digested while it arrives is not digested again, and what does not
// fit is noted as ever.
TEST_F(PortSealsTest, aStreamChecksTheDigestsOfLargeMessagesAsTheyArrive) {
    using ScObjects::Convey;
    Convey::Message::setCreateDigest(true);
    ScObjects::InterAppStream stream("app-1.0");
    for (const bool isCompared : {true, false}) {
        Convey::Message::setAuthentication(isCompared);
        for (const bool isDamaged : {false, true}) {
            SCOPED_TRACE(std::to_string(isCompared) + std::to_string(isDamaged));
            Convey::Message message;
            message.setTarget("app-1.0");
            message.setSender("app-1.0");
            message.setBody(ScObjects::SoString(std::string(300'000, 'b')));
            Convey::Message::Text text;
            ASSERT_TRUE(text.write(message));
            platform::PortPieces pieces = text.pieces();
            ASSERT_NE(pieces.seal, nullptr);
            const std::string body(300'000, 'c');
            if (isDamaged) {
                (void)pieces.sealed();
                pieces.body = body;
            }
            ASSERT_EQ(stream.send("app-1.0", pieces, 20'000, nullptr), SendResult::delivered);
            ASSERT_TRUE(stream.waitForMessage(20'000, false));
            const auto arrived = stream.take();
            ASSERT_NE(arrived, nullptr);
            EXPECT_EQ(arrived->sealBytes, isCompared && !isDamaged ? pieces.sealed().size() : 0);
            Convey::Message::Reader reader(std::move(arrived->text), std::move(arrived->rest),
                                           arrived->mayHaveZero, arrived->sealBytes);
            Convey::Message read;
            ASSERT_TRUE(reader.read(read, SIZE_MAX));
            EXPECT_EQ(read.getDigestState(), !isCompared ? "NODIGEST"
                                             : isDamaged ? "REJECTED"
                                                         : "");
            EXPECT_TRUE(read.getBody().view() == pieces.body);
        }
    }
    Convey::Message::setAuthentication(true);
}

} // namespace
