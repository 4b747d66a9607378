// Requests by way of a disk, which gives what it has again and again until it is acknowledged.

#include "scriptobjects/convey/SoCVWords.h"
#include "tests/link/LinkOnFakes.h"

namespace convey_link {
namespace {

constexpr int64_t kStored = 1'795'381'596'883; // 2026-11-22T21:06:36.883Z

class KeptTest : public LinkOnFakes {
protected:
    KeptTest() {
        configuration.uses.push_back({"kivra-7.0", "workshop", true});
        configuration.offers.push_back({kLumen, {"workshop"}, false});
        begin();
    }
    static std::string text(const std::string& sender, const std::string& target,
                            const std::string& serial,
                            const char* wanted = "Processed Error Timeout Result") {
        Text request;
        request.set(kTarget, target);
        request.set(kSender, sender);
        request.set(kType, "note");
        request.set(kSerial, serial);
        request.set(kTimeoutLine, "60");
        request.set(kWanted, wanted);
        request.setBody("read this");
        return request.write();
    }
    // The disk gives the request of that number of the other link, for the time that is left.
    void comes(uint64_t number, int64_t remaining = -1, const std::string& sender = "diary-1.0",
               const char* wanted = "Processed Error Timeout Result") {
        Frame frame;
        frame.kind = FrameKind::kept;
        frame.senderLife = kOtherLife;
        frame.number = number;
        frame.head.source = sender;
        frame.head.target = kLumen;
        frame.head.remainingMilliseconds = remaining;
        const std::string bytes = text(sender, kLumen, std::to_string(number), wanted);
        frame.text = bytes;
        const std::string reply =
            "$JS.ACK.convey=studio=workshop.desk.1.9.1." + std::to_string(kStored) + "529648.0";
        happens({Wire::EventKind::stored, "workshop", encode(frame), 0, reply});
        (void)link->step(true); // its end is seen
    }
    void ask(const std::string& serial) {
        std::string request = text("asker-1.0", "kivra-7.0", serial);
        std::replace(request.begin(), request.end(), '\n', '\0'); // to readers the same
        ASSERT_EQ(ports.send(prefix + "kivra-7.0", request, 0), platform::SendResult::delivered);
        (void)link->step(true);
    }
    std::unique_ptr<platform::LocalPort> lumen = ports.open(prefix + kLumen);
};

TEST_F(KeptTest, whatComesAgainIsHandedOverOnceInAllLives) {
    comes(1);
    EXPECT_NE(taken(*lumen).find("read this"), std::string::npos);
    EXPECT_EQ(wire.acknowledged.size(), 1u);
    comes(1);
    EXPECT_EQ(taken(*lumen), "");
    EXPECT_EQ(wire.acknowledged.size(), 2u);
    comes(2);
    EXPECT_NE(taken(*lumen), "");
    begin();
    for (const uint64_t number : {uint64_t{2}, uint64_t{1}}) {
        comes(number);
        EXPECT_EQ(taken(*lumen), "") << number;
    }
    EXPECT_EQ(wire.acknowledged.size(), 5u);
    comes(3);
    EXPECT_NE(taken(*lumen), "");
    begin(0);
    comes(4);
    EXPECT_EQ(taken(*lumen), "") << "another may have the name";
    passes(1000);
    EXPECT_NE(taken(*lumen), "");
}

TEST_F(KeptTest, whatCannotBeNotedIsNotHandedOverYet) {
    (void)folder.write("journal", "a file where the folder is to be");
    comes(1);
    EXPECT_EQ(taken(*lumen), "");
    EXPECT_EQ(wire.acknowledged.size(), 0u);
    std::filesystem::remove(folder.file("journal"));
    comes(1);
    EXPECT_NE(taken(*lumen), "");
}

// By the servers' clock, which says when it was stored and when it was given.
TEST_F(KeptTest, theTimeOnDiskIsTimeToo) {
    const auto serves = [&](const std::string& time, const std::string& stream = "workshop",
                            const std::string& consumer = "desk") {
        happens({Wire::EventKind::clock, "workshop",
                 R"({"stream_name":"convey=studio=)" + stream + R"(","name":")" + consumer +
                     R"(","delivered":{"last_active":"2026-11-22T21:06:)" + time + "Z\"}}"});
        (void)link->step(true);
    };
    comes(1, 10'000);
    EXPECT_EQ(taken(*lumen), "") << "how long it has waited is not known";
    EXPECT_EQ(wire.asked.size(), 1u);
    serves("58.883", "attic"); // another may have asked, and have the answer come here
    serves("58.883", "workshop", "attic");
    EXPECT_EQ(taken(*lumen), "") << "of another stream";
    serves("40.883");
    EXPECT_NE(taken(*lumen).find("Timeout:6\n"), std::string::npos);
    now += 7000; // of which the clock need not be asked again
    comes(2, 10'000);
    EXPECT_EQ(taken(*lumen), "") << "its time is over";
    EXPECT_EQ(wire.acknowledged.size(), 2u);
    EXPECT_EQ(wire.asked.size(), 1u);
}

TEST_F(KeptTest, goesToTheDiskOneByOneUntilItIsThere) {
    const auto says = [&](uint64_t number, const char* answer) {
        happens({Wire::EventKind::kept, {}, answer, number});
    };
    ask("5");
    ask("6");
    ASSERT_EQ(wire.kept.size(), 1u) << "the second one waits for the first";
    EXPECT_EQ(wire.kept[0].frame.head.remainingMilliseconds, 60'000);
    passes(bounds::kKeepMilliseconds);
    ASSERT_EQ(wire.kept.size(), 2u);
    EXPECT_EQ(wire.kept[1].number, wire.kept[0].number) << "the disk knows it again";
    // What another has given to its own stream, and had the answer come here.
    says(wire.kept[0].number, R"({"stream":"convey=studio=attic","seq":2})");
    says(wire.kept[0].number, R"({"stream":2,"seq":2})");
    for (const char* noAnswer :
         {R"("seq":"two")", R"("seq":-2)", R"("error":2)", R"("error":{"err_code":{}},"seq":2)"}) {
        says(wire.kept[0].number,
             (std::string(R"({"stream":"convey=studio=desk",)") + noAnswer + "}").c_str());
    }
    EXPECT_EQ(wire.kept.size(), 2u);
    says(wire.kept[0].number, "{\"stream\":\"convey=studio=desk\", \"seq\":2}");
    ASSERT_EQ(wire.kept.size(), 3u);
    EXPECT_EQ(wire.kept[2].frame.number, wire.kept[0].frame.number + 1);
    EXPECT_EQ(told(), "");
    says(wire.kept[2].number,
         "{\"error\":{\"code\":503,\"err_code\":10077,\"description\":"
         "\"maximum bytes exceeded\"},\"stream\":\"convey=studio=desk\",\"seq\":0}");
    const auto isTold = [&](const std::string& end) {
        const std::string all = told();
        return all.find("Type:" + end) < all.find("Type:Processed") &&
               all.find("Type:Processed") != std::string::npos;
    };
    EXPECT_TRUE(isTold("Error"));
    // Of the first one nobody tells how it ended.
    passes(62'000);
    EXPECT_TRUE(isTold("Timeout"));
    // Nobody keeps: tried for a while, and then told.
    ask("7");
    while (told().empty() && wire.kept.size() < 100) {
        says(wire.kept.back().number, "");
        passes(500);
    }
    EXPECT_GE(wire.kept.size(), 3u + 10'000 / 600);
    EXPECT_LT(wire.kept.size(), 30u);
    EXPECT_NE(log.back().find("no stream"), std::string::npos) << log.back();
}

// Each program that sends once and ends is a sender of its own.
TEST_F(KeptTest, theQuietestSenderThatWaitsForNothingMakesRoom) {
    const auto isThere = [&](const std::string& sender) {
        int error = 0;
        return ports.look(prefix + sender, error) != platform::PortState::free;
    };
    uint64_t number = 0;
    for (size_t i = 0; i < bounds::kAliases; ++i, ++now) {
        ++number;
        comes(number, -1, "asker" + std::to_string(number) + "-1.0",
              number == 2 ? "" : "Processed Error Timeout Result");
        ASSERT_NE(taken(*lumen), "") << number;
    }
    EXPECT_TRUE(isThere("asker2-1.0"));
    comes(++number, -1, "another-1.0");
    EXPECT_NE(taken(*lumen), "");
    EXPECT_FALSE(isThere("asker2-1.0"));
    EXPECT_TRUE(isThere("asker1-1.0") && isThere("another-1.0"));
    comes(++number, -1, "yetanother-1.0");
    EXPECT_EQ(taken(*lumen), "") << "all wait for answers";
    EXPECT_NE(log.back().find("too many senders"), std::string::npos) << log.back();
}

} // namespace
} // namespace convey_link
