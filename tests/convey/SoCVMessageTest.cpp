#include <random>

#include "tests/convey/MessageFixture.h"
#include "tests/support/TemporaryFolder.h"

namespace {

constexpr uint32_t kNone = ScObjects::ConveyData::CV_INVALID_MESSAGE_NUMBER;

TEST_F(MessageTest, keepsHeadersNewestFirstAndOneOfAName) {
    Message message = MessageTest::message();
    for (const char* name : {"a", "b", "c"}) {
        message.setHeader(name, name);
    }
    message.setHeader("b", "new");
    message.setHeader("A", -5L);
    message.setHeader("n", 4294967295UL);
    message.setHeader("", "ignored");
    message.setHeader(nullptr, "ignored");
    EXPECT_EQ(headersOf(message), (Strings{"n=4294967295", "A=-5", "c=c", "b=new", "a=a"}));
    EXPECT_EQ(headersOf(Message(message)), (Strings{"a=a", "b=new", "c=c", "A=-5", "n=4294967295"}))
        << "a copy adds each in front";
    message.removeHeader("c");
    message.removeHeader("c");
    message.removeHeader(nullptr);
    EXPECT_EQ(headersOf(message), (Strings{"n=4294967295", "A=-5", "b=new", "a=a"}));
    EXPECT_EQ(message.getUserHeaderValue("b"), "new");
    EXPECT_EQ(message.getUserHeaderValue("none"), "");
}

TEST_F(MessageTest, writesEveryLineInItsPlace) {
    Message message = MessageTest::message("the\nbody");
    EXPECT_EQ(written(message), "@CV>Version:2.05\nTarget:kivra-7.0\nSender:lumen-2.0\n"
                                "Sender-ID:localhost:mac4711\nType:Tessaly\n"
                                "Timestamp: 1700000000\nSerial-Number:0\nContent-Length:8\n\n"
                                "the\nbody");
    message.setTimeout(static_cast<uint32_t>(-1));
    message.setType("query");
    message.setResponseRequest("Received Result");
    message.setHeader("Sender", "x");
    message.setHeader("@CV>MD5", "y");
    message.setHeader("plain", "z:1");
    message.setTimestamp(5);
    message.setSerialNumber(4294967294U);
    message.setReceived(0);
    message.setResult(7);
    message.setError(8);
    EXPECT_EQ(written(message),
              "@CV>Version:2.05\nTarget:kivra-7.0\nSender:lumen-2.0\n"
              "Sender-ID:localhost:mac4711\nTimeout:-1\nType:query\n"
              "Response-Request:Received Result\nplain:z:1\n@CV>MD5:y\n@HDR>Sender:x\n"
              "Timestamp: 1700000000\nSerial-Number:4294967294\nReceived:0\nResult:7\nError:8\n"
              "Content-Length:8\n\nthe\nbody");
    message.setVersion("2.0");
    EXPECT_NE(written(message).find("\nSender:x\n"), std::string::npos) << "before the escape";

    SoString text("kept");
    message.setSender("");
    EXPECT_FALSE(message.writeToString(text));
    EXPECT_FALSE(Message().writeToString(text));
    EXPECT_EQ(text, "kept");
}

TEST_F(MessageTest, readsWhatTheLinesSay) {
    // A text, and its type, number, time-out, body, version and headers.
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"", "Tessaly|0|0||1.0", "nothing leaves a fresh message as it is"},
        {"Type:a", "a|0|0||1.0", "a text may end behind a line"},
        {"Type:a\n", "a|0|0||1.0", "no empty line, no body"},
        {"Content-Length:3\n\nabcd", "Tessaly|0|0|abc|1.0", "as long as announced"},
        {"Content-Length:9\n\nabcd", "Tessaly|0|0|abcd|1.0", "as long as there is"},
        {"Content-Length:4294967295\n\nab", "Tessaly|0|0|ab|1.0", "the largest"},
        {"\nbody", "Tessaly|0|0||1.0", "no length, no body"},
        {"Timeout:-5\n", "Tessaly|0|4294967291||1.0", "a minus sign wraps"},
        {"Timeout:99999999999\n", "Tessaly|0|4294967295||1.0", "beyond 32 bits"},
        {"Timeout: 12x\n", "Tessaly|0|12||1.0", "blank before, rest behind"},
        {"Serial-Number:x\n", "Tessaly|0|0||1.0", "no number is 0"},
        {"Type: a\n", " a|0|0||1.0", "a text keeps its blank"},
        {"type:a\nTYPE:b\n", "Tessaly|0|0||1.0|TYPE=b|type=a", "exact names"},
        {"x:1\ny:2\nx:3\n", "Tessaly|0|0||1.0|y=2|x=3", "one of a name"},
        {"lost\nType:b\n", "Tessaly|0|0||1.0|lost\nType=b", "no colon, next line's"},
        {"lost", "Tessaly|0|0||1.0|lost=", "no colon at all"},
        {":v\nType:b\n", "b|0|0||1.0", "no name"},
        {"Response-Requests:a\nTargets:b\nTyp:c\n",
         "Tessaly|0|0||1.0|Typ=c|Targets=b|Response-Requests=a", "nearly one"},
        {"Sender-ID:me\nx:5\n", "Tessaly|0|0||1.0|x=5|Sender-ID=me", "the caller's"},
        {"@HDR>Type:q\n", "Tessaly|0|0||1.0|Type=q", "no version line is no old one"},
        {"@CV>Version:2.05\n@HDR>Type:q\n", "Tessaly|0|0||2.05|Type=q", "new format"},
        {"@CV>Version:2.0\n@HDR>Type:q\n", "Tessaly|0|0||2.0|@HDR>Type=q", "old"},
        {"@CV>Version:\n@CV>Version:2.05\n@HDR>Type:q\n", "Tessaly|0|0||2.05|@HDR>Type=q",
         "once old, always old"},
        {"Version:2.05\n", "Tessaly|0|0||@CV>2.05", "passes for no newer one"},
        {"Received:3\n", "Received|3|0||1.0", "the number moves"},
        {"Type:Tessaly\nResult:7\n", "Result|7|0||1.0", "a system type gives way"},
        {"Type:query\nResult:7\n", "Resultquery|7|0||1.0", "a user type follows"},
        {"Type:Resultquery\nResult:7\n", "Resultquery|7|0||1.0", "it stands there"},
        {"Type:ResultResultquery\nResult:7\n", "Resultquery|7|0||1.0", "and once"},
        {"Type:Resultquery\n", "Resultquery|0|0||1.0", "a user type like any other"},
        {"Type:Result\nResult:7\n", "Result|7|0||1.0", "it matches already"},
        {"Type:Error\nError:7\n", "Error|7|0||1.0", "it matches already"},
        {"Type:\nResult:7\n", "Result|7|0||1.0", "the empty type is a user type"},
        {"Received:3\nResult:4\nError:5\n", "Error|5|0||1.0", "the last one stays"},
        {"Type:debug\nResult:7\n", "debug|0|0||1.0", "not for this type"},
        {"Type:Debug\nResult:7\n", "Result|7|0||1.0", "for this it is"},
        {"Result:4294967295\n", "Tessaly|0|0||1.0", "no number"},
    };
    // Lines behind which the text goes on are looked at by the word.
    const std::string last = "last:" + std::string(40, 'v');
    for (const auto& [text, expected, why] : cases) {
        const std::string_view lines = text;
        for (const std::string& behind : {std::string(), last}) {
            if (!behind.empty() && (lines.starts_with('\n') || !lines.ends_with('\n'))) {
                continue; // it would be something else there
            }
            SCOPED_TRACE(text + behind + ": " + why);
            Message message;
            message.readFromString((text + behind).c_str());
            SoString read = message.getType();
            read << '|' << message.getSerialNumber() << '|' << message.getTimeout() << '|'
                 << message.getBody() << '|' << message.getVersion();
            for (const std::string& header : headersOf(message)) {
                if (!header.starts_with("last=")) {
                    read << '|' << header.c_str();
                }
            }
            EXPECT_EQ(std::string(read.view()), expected);
            EXPECT_EQ(message.getDigestState(), "NODIGEST");
        }
    }
    Message message;
    EXPECT_EQ(*message.readFromString(nullptr), '\0');
}

TEST_F(MessageTest, carriesTheAskersLifePastHandlers) {
    const uint64_t lives[] = {0, 1, 0xFEDC'BA98'7654'3210};
    for (const uint64_t life : lives) {
        Message message = MessageTest::message("x");
        message.setAskersLife(life);
        message.setHeader("@CV>Life", "0000000000000007"); // a handler's, and nothing else
        SoString text;
        ASSERT_TRUE(message.writeToString(text));
        Message read;
        (void)read.readFromString(text.c_str());
        EXPECT_EQ(read.getAskersLife(), life);
        EXPECT_EQ(headersOf(read)[0], "@CV>Life=0000000000000007");
        EXPECT_EQ(Message(read).getAskersLife(), life);
        (void)read.readFromString("Target:t\n@CV>Life:xyz\n");
        EXPECT_EQ(read.getAskersLife(), 0U) << "the next message has none";
    }
}

TEST_F(MessageTest, readsOneMessageAfterTheOther) {
    Message first = MessageTest::message("one\n");
    first.setHeader("only", "here");
    first.setResult(3);
    SoString text;
    ASSERT_TRUE(first.writeToString(text));
    text << "\n\n";
    ASSERT_TRUE(MessageTest::message("two").writeToString(text));
    Message message;
    const char* next = message.readFromString(text.c_str());
    EXPECT_EQ(message.getBody(), "one\n");
    EXPECT_EQ(message.getSerialNumber(), 3U);
    ASSERT_EQ(std::string(next, 4), "@CV>") << "the line feeds between them are skipped";
    next = message.readFromString(next);
    EXPECT_EQ(message.getBody(), "two");
    EXPECT_EQ(message.getSerialNumber(), 0U) << "a message that was used before is cleared";
    EXPECT_EQ(message.getUserHeaderValue("only"), "");
    EXPECT_EQ(message.getResult(), kNone);
    EXPECT_EQ(*next, '\0');

    Message fresh;
    fresh.setHeader("mine", "survives");
    fresh.setTimestamp(0);
    fresh.readFromString("Timeout:1\n");
    EXPECT_EQ(fresh.getUserHeaderValue("mine"), "survives")
        << "without a target nothing is cleared";
    EXPECT_EQ(fresh.getTimestamp(), 1'700'000'000U) << "a time-out counts from now";
    fresh.readFromString("Timestamp: 1234\n");
    EXPECT_EQ(fresh.getTimestamp(), 1234U);
}

TEST_F(MessageTest, digestTellsAChangedByte) {
    Message::setCreateDigest(true);
    const std::string text = written(message("body"));
    const std::string signedPart = text.substr(text.find('\n') + 1);
    EXPECT_EQ(text.substr(0, text.find('\n')),
              std::string("@CV>MD5:") + ScObjects::ConveyUtils::getMD5(signedPart.c_str()).c_str());

    const auto stateOf = [](const std::string& received) {
        Message message;
        message.readFromString(received.c_str());
        return std::string(message.getDigestState().c_str());
    };
    std::string changed = text;
    changed.back() = 'Y';
    EXPECT_EQ(stateOf(text), "");
    EXPECT_EQ(stateOf(text + "\n\nnext"), "") << "what follows is not signed";
    EXPECT_EQ(stateOf(changed), "REJECTED");
    EXPECT_EQ(stateOf(signedPart), "NODIGEST");
    EXPECT_EQ(stateOf("@CV>Digest:x\n" + signedPart), "NODIGEST") << "is never checked";
    EXPECT_EQ(stateOf("@CV>Digest:x\n" + text), "NODIGEST") << "a digest line comes before MD5";
    EXPECT_EQ(stateOf(text.substr(0, text.find('\n') + 1) + "@CV>Digest:x\n" + signedPart), "")
        << "the signed region begins behind the later line";
    Message::setAuthentication(false);
    EXPECT_EQ(stateOf(changed), "NODIGEST");
    Message::setAuthentication(true);
    Message rejected;
    rejected.readFromString(changed.c_str());
    EXPECT_FALSE(rejected.isRejected()) << "the state alone tells";
}

TEST_F(MessageTest, writtenMessagesComeBack) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const char* const names[] = {"a",    "Sender",  "Type",      "Error-Code", "@HDR>b",
                                 "Body", "Result",  "Sender-ID", "é",          "@CV>Version",
                                 "x y",  "Timeout", "Version2",  "Target"};
    for (int round = 0; round < 500; ++round) {
        Message::setCreateDigest(random() % 2 == 0);
        Message message = MessageTest::message();
        Strings expected;
        for (size_t i = random() % 12; i > 0; --i) {
            const char* const name = names[random() % std::size(names)];
            message.setHeader(name, std::to_string(random()).c_str());
        }
        for (auto* header = message.getHeaders(); header != nullptr; header = header->next) {
            if (header->name.view() == "@HDR>b") {
                continue; // an escape that the sender wrote itself does not survive
            }
            expected.insert(expected.begin(),
                            std::string(header->name.view()) + "=" + header->value.c_str());
        }
        message.removeHeader("@HDR>b");
        // Present in every text, and a user header for its reader, unless the sender has its own.
        std::erase_if(expected, [](const std::string& h) { return h.rfind("Sender-ID=", 0) == 0; });
        std::string body(random() % 3000, '\0');
        for (char& c : body) {
            c = static_cast<char>(1 + random() % 255);
        }
        message.setBody(body.c_str());
        message.setTimeout(static_cast<uint32_t>(random()));
        message.setSerialNumber(static_cast<uint32_t>(random()));
        const std::string text = written(message);
        Message back;
        EXPECT_EQ(*back.readFromString((text + "\n").c_str()), '\0');
        back.removeHeader("Sender-ID");
        EXPECT_EQ(back.getTarget(), message.getTarget());
        EXPECT_EQ(back.getSender(), message.getSender());
        EXPECT_EQ(back.getTimeout(), message.getTimeout());
        EXPECT_EQ(back.getSerialNumber(), message.getSerialNumber());
        EXPECT_EQ(back.getBody(), message.getBody());
        EXPECT_EQ(headersOf(back), expected);
        EXPECT_EQ(back.getDigestState(), Message::getCreateDigest() ? "" : "NODIGEST");
    }
}

TEST_F(MessageTest, readsRepeatedHeadersAsIfTheyWereSetOneByOne) {
    std::mt19937 random(4711);
    std::string text;
    Message expected;
    for (int i = 0; i < 400; ++i) { // far more than are searched one by one, with most names twice
        const std::string name = "h" + std::to_string(random() % 200);
        const std::string value = std::to_string(i);
        text += name + ":" + value + "\n" + (i % 50 == 0 ? ":no name\n" : "");
        expected.setHeader(name.c_str(), value.c_str());
    }
    Message message;
    message.readFromString(text.c_str());
    EXPECT_EQ(headersOf(message), headersOf(expected));
}

TEST_F(MessageTest, aFloodOfHeadersDoesNotHoldItsReader) {
    std::string text;
    for (int i = 0; i < 300'000; ++i) {
        text += "h" + std::to_string(i) + ":\n";
    }
    Message message;
    message.readFromString((text + "Type:last\n").c_str());
    EXPECT_EQ(headersOf(message).size(), static_cast<size_t>(Message::kMaximumReadHeaders));
    EXPECT_EQ(message.getType(), "last") << "the layer's own lines count wherever they stand";
}

TEST_F(MessageTest, userTypesAreAllOthers) {
    Message message;
    for (const char* type : {"Tessaly", "Debug", "Receive", "Received", "Result", "Error", "Idle",
                             "Timeout", "Log", "Ignore", "Processed", "Launched"}) {
        message.setType(type);
        EXPECT_FALSE(message.isUserType()) << type;
    }
    for (const char* type : {"", "debug", "Tessaly ", "query"}) {
        message.setType(type);
        EXPECT_TRUE(message.isUserType()) << type;
    }
    EXPECT_EQ(Message(MessageTest::message()).getType(), "Tessaly");
}

TEST_F(MessageTest, isWrittenAsTheDocumentShows) {
    files.files["/home/user/.ovrel/md5"] = "AB12";
    Message::setCreateDigest(true);
    Message message = MessageTest::message("hello");
    message.setType("query");
    message.setResponseRequest("Result");
    message.setHeader("Page", 12L);
    message.setSerialNumber(1);
    const std::string text = written(message);
    const std::string document = TemporaryFolder::read(PROTOCOL_DOCUMENT);
    EXPECT_NE(document.find("```\n" + text + "\n```"), std::string::npos) << text;
    EXPECT_NE(document.find("It has " + std::to_string(text.size()) + " bytes"), std::string::npos);
}

TEST_F(MessageTest, isDumpedForPeople) {
    Message message = MessageTest::message("text");
    SoString dump("replaced");
    EXPECT_TRUE(message.logToString("SEND ", dump, true));
    EXPECT_EQ(dump, "CV SEND ------------------\nTarget: kivra-7.0\nSender: lumen-2.0\n"
                    "Type: Tessaly\nNow: 1700000000\nSerial-Number:0\nVersion:2.05\n"
                    "Content-Length: 4\n\ntext\n");
    message.setTimeout(10);
    message.setResponseRequest("Result");
    message.setError(5);
    message.setHeader("a", "1");
    message.setHeader("b", "2");
    message.logToString("X", dump, false);
    EXPECT_EQ(dump, "CV X------------------\nTarget: kivra-7.0\nSender: lumen-2.0\n"
                    "Type: Tessaly\nResponse-Request: Result\nTimeout: 10\nDeadline: 1700000010\n"
                    "Now: 1700000000\nSerial-Number:0\nVersion:2.05\nError: 5\n"
                    "Content-Length: 4\nCustom Headers:\n   b: 2\n   a: 1\n\n<<BODY OMITTED>>\n");
}

} // namespace
