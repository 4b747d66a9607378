// What the tool shows of messages between others.

#include "tests/e2e/ConveyToolFixture.h"

namespace {

using testing::HasSubstr;
using MonitorTest = ConveyToolTest;

TEST_F(MonitorTest, monitorsAConversation) {
    auto monitor = std::make_unique<RunningProcess>(std::vector<std::string>{
        CONVEY_PROGRAM, "monitor", "lumen", "--match", "type=Tessaly", "--count", "3", "--json"});
    const auto isForwarding = [] {
        return !json({"ping", "lumen", "--key", "FWDMESSAGES"})["answer"]
                    .get<std::string>()
                    .empty();
    };
    ASSERT_TRUE(eventually(isForwarding));
    const ProcessResult asked =
        runProcess({HOST, "kivra-7.0", "--ask", "lumen-2.5-en_us", "what is\nthe time?"});
    EXPECT_THAT(asked.out, HasSubstr("result: echo: what is")) << "a conversation of two others";
    std::vector<std::string> events;
    while (events.size() < 3) {
        const Json event = Json::parse(monitor->readLine());
        EXPECT_EQ(event["sender"], "kivra-7.0");
        EXPECT_EQ(event["text"], "what is");
        EXPECT_EQ(event["size"], 17);
        events.push_back(event["event"]);
    }
    EXPECT_THAT(events, testing::ElementsAre("added", "picked", "processed"));
    EXPECT_EQ(monitor->finish(), 0);
    const auto isDone = [&] { return !isForwarding(); };
    EXPECT_TRUE(eventually(isDone)) << "it takes its forwarding back";

    monitor = std::make_unique<RunningProcess>(
        std::vector<std::string>{CONVEY_PROGRAM, "monitor", "lumen"});
    EXPECT_TRUE(eventually(isForwarding));
    (void)monitor->finish(SIGKILL);
    EXPECT_TRUE(isForwarding());
    EXPECT_EQ(tool({"send", "lumen", "--body", "anything"}).exitStatus, 0);
    EXPECT_TRUE(eventually(isDone)) << "the target sees that nobody is there";
}

// What is forwarded has its number, and a gap is told where it is.
TEST_F(MonitorTest, saysWhereItHasMissedEvents) {
    RunningProcess monitor({CONVEY_PROGRAM, "monitor", "lumen", "--json"});
    ASSERT_TRUE(eventually([] {
        return json({"ping", "lumen", "--key", "FWDMESSAGES"})["answer"] != "";
    }));
    const auto forward = [&](const char* number) { // as an application does it, each time another
        const ProcessResult sent = tool(
            {"send", "monitor" + std::to_string(monitor.pid()) + "-2.0", "--type", "FWDMESSAGES",
             "--header", "Event-Number=" + std::string(number), "--body", "x", "--wait", "0"});
        EXPECT_EQ(sent.exitStatus, 0) << sent.err;
        return sent.exitStatus == 0;
    };
    ASSERT_TRUE(forward("1"));
    Json line = Json::parse(monitor.readLine());
    EXPECT_FALSE(line.contains("dropped")) << line;
    ASSERT_TRUE(forward("5"));
    line = Json::parse(monitor.readLine());
    EXPECT_EQ(line.value("dropped", 0), 4) << line;
    EXPECT_EQ(Json::parse(monitor.readLine())["of"], line["of"]);
}

TEST_F(MonitorTest, monitorsErrorsAndSteps) {
    for (const char* option : {"--errors", "--logs"}) {
        RunningProcess monitor({CONVEY_PROGRAM, "monitor", "lumen", option, "--json"});
        const char* const key = std::string(option) == "--errors" ? "FWDERRORS" : "FWDLOGS";
        ASSERT_TRUE(eventually([&] {
            return json({"ping", "lumen", "--key", key})["answer"] != "";
        }));
        (void)tool({"send", "lumen", "--body", "fail"});
        Json event;
        do { // the answers are steps too, and may come before
            event = Json::parse(monitor.readLine());
        } while (event["text"] != "fail");
        EXPECT_EQ(event["event"],
                  std::string(option) == "--errors" ? "failed as asked" : "RECEIVE");
        EXPECT_EQ(monitor.finish(SIGINT), 130);
    }
}

// Two applications, of whose messages some are shown; what a header calls itself is no field.
TEST_F(MonitorTest, watchesSeveralAndRecordsThem) {
    const auto viewer = host("viewer-1.0", {"--quiet"});
    const std::string file = folder.file("capture");
    RunningProcess monitor({CONVEY_PROGRAM, "monitor", "lumen", "viewer", "--match",
                            "type=Tess*,to=*", "--match", "header=sender=x,body=*two*", "--count",
                            "10", "--timeout", "40", "--headers", "--bodies", "--capture", file,
                            "--json"});
    for (const char* target : {"lumen", "viewer"}) {
        ASSERT_TRUE(eventually([&] {
            return json({"ping", target, "--key", "FWDBODIES"})["answer"] != "";
        }));
        (void)tool({"send", target, "--body", "unseen"});
        (void)tool({"send", target, "--body", "one\ntwo\\n;", "--header", "sender=x", "--header",
                    "target=forged", "--header", "body=forged"});
    }
    EXPECT_EQ(monitor.finish(), 0) << monitor.rest();
    EXPECT_EQ(monitor.rest(), TemporaryFolder::read(file)) << "the same lines";
    std::istringstream lines(monitor.rest());
    std::map<std::string, int> of;
    for (std::string line; std::getline(lines, line);) {
        const Json event = Json::parse(line);
        ++of[event["of"]];
        EXPECT_THAT(event["sender"].get<std::string>(), testing::StartsWith("convey"));
        EXPECT_EQ(event["target"], event["of"]);
        EXPECT_EQ(event["headers"]["target"], "forged");
        EXPECT_EQ(event["text"], "one");
        EXPECT_EQ(event["body"], "one\ntwo\\n;");
        EXPECT_THAT(event["time"].get<std::string>(),
                    testing::ContainsRegex("^[0-9-]+T[0-9:]+\\.[0-9]{6}Z$"));
    }
    EXPECT_THAT(of, testing::ElementsAre(testing::Pair("lumen-2.5-en_us", 5),
                                         testing::Pair("viewer-1.0", 5)));
}

} // namespace
