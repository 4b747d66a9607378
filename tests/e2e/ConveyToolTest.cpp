#include "tests/e2e/ConveyToolFixture.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

TEST_F(ConveyToolTest, answersByItsExitStatus) {
    const std::tuple<std::vector<std::string>, int, const char*, const char*> cases[] = {
        {{"ping", "lumen"}, 0, "lumen-2.5-en_us: ECHO_RESPONSE time=", ""},
        {{"ping", "viewer"}, 1, "viewer-1.0: ISNOTRUNNING\n", ""},
        {{"ping", "nosuch"}, 1, "nosuch: ISNOTINSTALLED\n", ""},
        {{"ping", "lumen", "--key", "LAUNCHPARAMS"}, 0, "lumen-2.5-en_us: (empty) time=", ""},
        {{"ping", "lumen", "--key", "--json"}, 2, "{\"error\":\"--key: \\\"--json", ""},
        {{"ping", "lumen", "--quiet"}, 0, nullptr, ""},
        {{"ping", "allRunningApps", "--count", "2", "--interval", "0"},
         0,
         "--- allRunningApps: 2 asked, 2 answered\nround trip min/median/max = ",
         ""},
        {{"ping", "lumen", "--key", "STATUS"}, 0, "time=", ""},
        {{"ping", "lumen", "--count", "0"}, 2, "", "--count"},
        {{"resolve", "lumen"}, 0, "lumen-2.5-en_us\n", ""},
        {{"resolve", "lumen-2.0"}, 0, "exactly version 2.0 is asked for\n", ""},
        {{"resolve", "nosuch"}, 1, "nothing to complete it to", ""},
        {{"send", "lumen", "--body", "hi"}, 0, "sent\nreceived\nresult: echo: hi\nprocessed\n", ""},
        {{"send", "lumen", "--body", "one\ntwo"},
         0,
         "result:\n  echo: one\n  two\nprocessed\n",
         ""},
        {{"send", "lumen", "--body", "hi", "--type", "Foo"}, 0, "result: echo: hi\n", ""},
        {{"send", "lumen"}, 2, nullptr, "the body is missing: --body TEXT, or --body -"},
        {{"send", "nosuch", "--body", "hi"}, 1, nullptr, "nosuch is not installed; convey list"},
        {{"send", "lumen", "--body", "fail"}, 1, "error: failed as asked\n", ""},
        {{"send", "lumen", "--body", "hi", "--wait", "0"}, 0, "sent\n", ""},
        {{"send", "viewer", "--body", "hi"}, 1, nullptr, "viewer-1.0 does not run; --launch"},
        {{"send", "viewer", "--body", "hi", "--launch"}, 1, "COULD NOT BE LAUNCHED\n", ""},
        {{"send", "lumen", "--body", "", "--header", "nothing"},
         2,
         "",
         "\"nothing\" is no NAME=VALUE"},
        {{"launch", "viewer", "-open", "x"}, 1, "", "viewer-1.0 could not be launched"},
        {{"launch", "nosuch"}, 1, "", "nosuch is not installed"},
        {{"launch", "nosuch", "--json"}, 1, "", "nosuch is not installed"},
        {{"launch", "lumen"}, 0, "lumen-2.5-en_us runs already\n", ""},
        {{"launch", "lumen", "--help"}, 1, "runs already", "takes no parameters"},
        {{"launch", "--json", "--", "lumen", "-x", "--behind", "--json", "--", "-open y"},
         1,
         "\"parameters\":\"-x --behind --json -- -open y\"",
         ""},
        {{"launch", "--wait", "3", "--help"}, 0, "Usage: convey launch", ""},
        {{"front", "lumen"}, 0, "", ""},
        {{"front", "viewer"}, 1, "", "viewer-1.0 does not run"},
        {{"wait", "lumen"}, 0, "lumen-2.5-en_us is running\n", ""},
        {{"wait", "lumen", "--until", "gone", "--timeout", "0"},
         1,
         nullptr,
         "to go; it still runs"},
        {{"wait", "viewer", "--timeout", "0.1"}, 1, nullptr, "for viewer-1.0 to run; it does not"},
        {{"wait", "lumen", "--until", "soon"}, 2, "", "--until"},
        // One that no other test runs: this user has more than one port folder.
        {{"diagnose", "docsafe"}, 1, "", "docsafe-8.0: ISNOTRUNNING"},
        {{"diagnose", "lumen", "--html", "/nonexistent/page"}, 3, "", "cannot write"},
        {{"diagnose", "lumen", "--html", "--raw"}, 2, nullptr, "\"--raw\" is an option"},
        {{"monitor", "viewer"}, 1, "", "viewer-1.0: ISNOTRUNNING"},
        {{"monitor", "lumen", "--match", "size=3"}, 2, nullptr, "not \"size=3\""},
        {{"monitor"}, 2, nullptr, "or --all"},
        {{"monitor", "lumen", "--count", "1", "--timeout", "0.1"}, 1, "", "watching lumen-2.5"},
        {{"key", "lumen", "MOOD", "-good"}, 2, "", ""},
        {{"key", "lumen", "MOOD", "good"}, 0, "good\n", ""},
        {{"key", "lumen", "MOOD"}, 0, "good\n", ""},
        {{"key", "lumen", "MOOD=bad"}, 2, nullptr, "the value stands by itself"},
        {{"key", "lumen", "STATUS", "x"}, 1, nullptr, "does not take the value; it stays IDLE"},
        {{"keys", "lumen"}, 0, "MOOD          value        good\n", ""},
        {{"keys", "lumen"}, 0, "\n\nTYPE     INSTANCE\nTessaly  lumen-2.5-en_us\n", ""},
        {{"ports", "--no-legend"}, 0, "  lumen-2.5-en_us#ping\n", ""},
        {{"--version"}, 0, "convey 2.0.0\n", ""},
        {{"send", "--help"}, 0, "--launch", ""},
        {{}, 2, "", "subcommand is required"},
        {{"nothing"}, 2, nullptr, "no command \"nothing\"; convey --help"},
        {{"lst"}, 2, nullptr, "no command \"lst\"; did you mean list?"},
    };
    for (const auto& [arguments, status, out, err] : cases) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const ProcessResult result = tool(arguments);
        EXPECT_EQ(result.exitStatus, status);
        EXPECT_THAT(result.out, out == nullptr ? testing::Matcher<std::string>("")
                                               : testing::Matcher<std::string>(HasSubstr(out)));
        EXPECT_THAT(result.err, HasSubstr(err));
        EXPECT_THAT(result.out, Not(HasSubstr("\x1b"))) << "no terminal, no colour";
    }
    const std::string text = folder.file("text");
    std::ofstream(text) << "a text";
    const std::pair<std::string, const char*> unreadable[] = {
        {folder.file("gone.db"), "there is no such database"}, {text, "file is not a database"}};
    for (const auto& [file, reason] : unreadable) {
        setenv("OVREL_CAPS_DB", file.c_str(), 1);
        const ProcessResult without = tool({"list"});
        EXPECT_EQ(without.exitStatus, 3);
        EXPECT_THAT(without.err, testing::AllOf(HasSubstr(file), HasSubstr(reason)));
    }
}

// Whatever it waits for, and whether anybody answers.
TEST_F(ConveyToolTest, endsAtOnceWhenItIsInterrupted) {
    auto viewer = host("viewer-1.0", {"--quiet"});
    viewer->signal(SIGSTOP);
    const std::vector<std::string> commands[] = {
        {"ping", "viewer", "--timeout", "20"},
        {"ping", "lumen", "--count", "1000"},
        {"diagnose", "lumen", "--watch"},
        {"send", "viewer", "--body", "x", "--wait", "20"},
        {"monitor", "lumen"},
        {"key", "viewer", "STATUS", "--timeout", "20", "--json"},
        {"wait", "docsafe"},
    };
    for (auto command : commands) {
        SCOPED_TRACE(testing::PrintToString(command));
        command.insert(command.begin(), CONVEY_PROGRAM);
        RunningProcess running(command);
        const auto ports = [number = std::to_string(running.pid())] {
            const Json all = json({"ports"});
            return std::count_if(all["ports"].begin(), all["ports"].end(), [&](const auto& port) {
                return port["name"].template get<std::string>().find(number) != std::string::npos;
            });
        };
        ASSERT_TRUE(eventually([&] { return ports() >= 3; }));
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(running.finish(SIGINT), 130);
        // A tenth of a second on a machine with nothing else to do; half of the time-outs above.
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        EXPECT_EQ(ports(), 0) << "it has given its ports back";
        if (command.back() == "--json") {
            EXPECT_EQ(Json::parse(running.rest())["error"], "interrupted");
        }
    }
}

// `| head -1` is no error: nothing is said, no port stays, and the status is the answer's.
TEST_F(ConveyToolTest, aReaderMayLeave) {
    const struct {
        const char* command;
        const char* status;
    } cases[] = {
        {"ping lumen --count 100000 --interval 0.01", "0"},
        {"diagnose lumen", "0"},
        {"diagnose docsafe", "1"},
        {"limits", "0"},
        {"send lumen --body x", "0"},
    };
    for (const auto& [command, status] : cases) {
        SCOPED_TRACE(command);
        const ProcessResult result = runProcess(
            {"/bin/bash", "-c",
             "'" CONVEY_PROGRAM "' " + std::string(command) + " | head -1 >&2; echo $PIPESTATUS"});
        EXPECT_EQ(result.out, std::string(status) + "\n");
        EXPECT_THAT(result.err, Not(HasSubstr("written")));
        const Json left = json({"ports"});
        EXPECT_EQ(left["ports"].size(), 3U) << left; // those of lumen
    }
}

// What is wrong with the installation, and what to do.
TEST_F(ConveyToolTest, examinesTheInstallation) {
    const auto says = [](const std::string& text, const std::string& advice) {
        const ProcessResult result = tool({"doctor", "lumen-2.5-en_us"});
        EXPECT_EQ(result.exitStatus, advice.empty() ? 0 : 1) << result.out;
        EXPECT_THAT(result.out, HasSubstr(text));
        EXPECT_THAT(result.out, HasSubstr(advice));
    };
    says("lumen-2.5-en_us is idle and well.", "");
    add("sleeper-3.0-en_us"); // of its own: what runs beside this test elsewhere is seen, too
    EXPECT_THAT(
        tool({"doctor", "sleeper"}).out,
        AllOf(
            HasSubstr("sleeper-3.0-en_us does not run\n       -> convey launch sleeper-3.0-en_us"),
            Not(HasSubstr("lumen"))));
    // One that was started by an incomplete name, and has its port under that.
    const auto typed = host("sleeper-3.0");
    typed->signal(SIGSTOP);
    EXPECT_THAT(tool({"doctor", "sleeper"}).out,
                HasSubstr("sleeper-3.0-en_us is stopped: process " + std::to_string(typed->pid())));
    typed->signal(SIGCONT);
    EXPECT_EQ(typed->finish(SIGTERM), 0);
    const std::string ports = folder.file("convey");
    std::filesystem::permissions(ports, std::filesystem::perms::all);
    says("is open to other users", "convey, or remove it");
    std::filesystem::permissions(ports, std::filesystem::perms::owner_all);
    setenv("OVREL_CAPS_DB", folder.file("gone.db").c_str(), 1);
    says("gone.db", "OVREL_CAPS_DB");
    std::ofstream(folder.file("text")) << "a text";
    setenv("OVREL_CAPS_DB", folder.file("text").c_str(), 1);
    says("file is not a database", "restore it");
}

// Whether what runs on other machines can be reached: with what a link says of itself, and without
// one.
TEST_F(ConveyToolTest, examinesWhatIsUsedElsewhere) {
    ASSERT_TRUE(std::filesystem::create_directory(folder.file(".config")) &&
                std::filesystem::create_directory(folder.file(".config/convey")));
    unsetenv("XDG_CONFIG_HOME");
    EXPECT_THAT(tool({"doctor"}).out, Not(HasSubstr("link:")))
        << "there is none, and no need of one";
    std::ofstream(folder.file(".config/convey/link.toml")) << "realm = \"studio\"";
    EXPECT_THAT(
        tool({"doctor", "lumen"}).out,
        testing::ContainsRegex("note +link: none runs, and there is .*link.toml\n +-> sys"));
    // As a link registers it.
    // Of its own: applications that run beside this test, with other folders, are seen, too.
    const std::string viewer = "distant-1.0";
    add(viewer);
    ASSERT_EQ(runProcess({OVREL_CAPS_TOOL, "set", viewer, "Link", "attic"}).exitStatus, 0);
    EXPECT_THAT(
        tool({"doctor", "lumen"}).out,
        HasSubstr("WRONG  link: none runs, and distant-1.0 is used at attic\n       -> sys"));
    EXPECT_EQ(json({"list"}).back()["link"], "attic") << json({"list"});
    EXPECT_THAT(tool({"list"}).out, testing::ContainsRegex("distant-1.0 .* no +at attic "));
    const auto link = host("conveylink-2.0", {"--quiet"});
    const std::tuple<const char*, int, const char*> cases[] = {
        {"a text", 1, "WRONG  link: it runs, and does not say who is there: a text\n"},
        {"[1]", 1, "WRONG  link: it runs, and does not say who is there: [1]\n"},
        {R"({"realm":1,"name":[],"links":{},"uses":7})", 1, "WRONG  link: / is not connected"},
        {R"({"realm":"r","name":"n","connected":false,"server":"tls://s:1"})", 1,
         "WRONG  link: r/n is not connected to any of its servers\n       -> journalctl"},
        {R"({"realm":"r","name":"n","connected":true,"server":"tls://s:1","links":[7]})", 0,
         "ok     link: r/n is connected to tls://s:1;  is\n"},
        {R"({"realm":"r","name":"n","connected":true,"server":"tls://s:1","links":[{"name":"attic",)"
         R"("state":"here"},{"name":"b","state":"away"}],)"
         R"("uses":[{"app":"distant-1.0","at":"attic","state":"runs"}]})",
         0, "ok     link: r/n is connected to tls://s:1; attic is here, b is away\n"},
        {R"({"realm":"r","name":"n","connected":true,)"
         R"("uses":[{"app":"distant-1.0","at":"attic","state":"not offered"}]})",
         1, "WRONG  link: distant-1.0 is not offered by attic to r/n\n       -> an [[offer]]"},
        {R"({"realm":"r","name":"n","connected":true,)"
         R"("uses":[{"app":"distant-1.0","at":"attic","state":"registered here"}]})",
         0, "note   link: distant-1.0 is used here, not at attic\n"},
    };
    for (const auto& [status, exit, said] : cases) {
        SCOPED_TRACE(status);
        EXPECT_EQ(tool({"key", "conveylink-2.0", "LINK", status}).exitStatus, 0);
        const ProcessResult result = tool({"doctor", "distant", "lumen"});
        EXPECT_EQ(result.exitStatus, exit) << result.out;
        EXPECT_THAT(result.out, HasSubstr(said));
    }
    EXPECT_THAT(tool({"doctor", "lumen"}).out, Not(HasSubstr("distant"))) << "it was not asked for";
}

// On a terminal of each width every line fits, and every column is there.
TEST_F(ConveyToolTest, fitsTheTerminal) {
    for (const size_t width : {60U, 80U, 120U}) {
        SCOPED_TRACE(width);
        const ProcessResult shown = runProcess(
            {"/usr/bin/script", "-qc",
             "stty cols " + std::to_string(width) + "; '" CONVEY_PROGRAM "' list", "/dev/null"},
            {{"NO_COLOR", "1"}, {"SHELL", "/bin/sh"}});
        std::istringstream lines(shown.out);
        int rows = 0;
        for (std::string line; std::getline(lines, line); ++rows) {
            line.erase(line.find_last_not_of('\r') + 1);
            const auto columns = static_cast<size_t>( // a character begins with no 10xxxxxx
                std::count_if(line.begin(), line.end(), [](char c) { return (c & 0xC0) != 0x80; }));
            EXPECT_LE(columns, width) << line;
            EXPECT_THAT(line, testing::ContainsRegex(rows == 0 ? "^SPECIF.*RUNS.*PATH"
                                                               : "^[a-z]+.* (no|[0-9]+) "));
        }
        EXPECT_EQ(rows, 8) << shown.out;
    }
}

TEST_F(ConveyToolTest, speaksJson) {
    const Json running = json({"list", "--running"});
    ASSERT_EQ(running.size(), 1U);
    EXPECT_EQ(running[0]["specifier"], "lumen-2.5-en_us");
    EXPECT_EQ(running[0]["languages"], "fr_FR,ja_JP");
    EXPECT_EQ(json({"list"}).size(), 7U);
    EXPECT_EQ(json({"resolve", "kivra"})["path"], "/opt/ovrel/Kivra 7/Kivra.app");
    EXPECT_EQ(json({"ping", "lumen"})["answer"], "ECHO_RESPONSE");
    EXPECT_EQ(json({"wait", "lumen"})["state"], "running");
    const Json tree = json({"diagnose", "lumen"});
    EXPECT_EQ(tree["children"].back()["label"], "Connector");
    std::vector<std::string> events;
    const Json sent = json({"send", "lumen", "--body", "hi"});
    for (const auto& event : sent["events"]) {
        events.push_back(event["event"]);
    }
    EXPECT_EQ(json({"ping", "lumen", "--count", "2", "--interval", "0"})["answers"].size(), 2U);
    EXPECT_EQ(json({"list", "--running"})[0]["process"], lumen->pid());
    // What fails is one document as well, in one line where a program reads.
    for (const std::vector<std::string>& failing :
         {std::vector<std::string>{"send", "viewer", "--body", "x"},
          {"send", "lumen"},
          {"lst"},
          {"diagnose", "docsafe"},
          {"launch", "nosuch"},
          {"front", "viewer"},
          {"wait", "viewer", "--timeout", "0"},
          {"monitor", "nosuch"},
          {"key", "viewer", "A"}}) {
        auto arguments = failing;
        arguments.insert(arguments.begin(), "--json");
        const ProcessResult result = tool(arguments);
        SCOPED_TRACE(testing::PrintToString(failing) + result.out);
        EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1);
        EXPECT_EQ(Json::parse(result.out)["status"], result.exitStatus);
        EXPECT_NE(Json::parse(result.out)["error"], "");
    }
    EXPECT_THAT(events, testing::ElementsAre("sent", "received", "result", "processed"));
    const Json bounds = json({"limits"});
    EXPECT_GE(bounds["limits"].size(), 70U);
    for (const auto& limit : bounds["limits"]) {
        EXPECT_GT(limit["value"], 0) << limit;
        EXPECT_NE(limit["reason"], "") << limit;
    }
    EXPECT_NE(bounds.dump().find("\"link.doubt\""), std::string::npos) << "the link's, too";
    const Json all = json({"ports"});
    ASSERT_EQ(all["ports"].size(), 3U) << all;
    EXPECT_EQ(all["ports"][0]["name"], "lumen-2.5-en_us");
    EXPECT_EQ(all["ports"][0]["process"], lumen->pid());
    EXPECT_EQ(all["ports"][0]["waitingBytes"], 0);
}

TEST_F(ConveyToolTest, showsWhatWaitsAndRemovesWhatIsStale) {
    lumen->signal(SIGSTOP);
    RunningProcess sender({SEND, "lumen-2.5-en_us", "--from", "sender-1.0", "--count", "3"});
    EXPECT_EQ(sender.finish(), 0);
    // A sender that has ended is no connection, but what it has sent still waits.
    const Json seenPorts = json({"ports"});
    for (const auto& port : seenPorts["ports"]) {
        if (port["name"] == "lumen-2.5-en_us") {
            EXPECT_EQ(port["process"], lumen->pid());
            EXPECT_TRUE(port.contains("waitingBytes"));
        }
    }
    (void)lumen->finish(SIGKILL);
    const ProcessResult seen = tool({"ports"});
    EXPECT_THAT(seen.out, testing::ContainsRegex("stale +[0-9?]+ +[0-9?]+ +lumen-2.5-en_us\n"));
    EXPECT_THAT(seen.err, HasSubstr("3 stale ports; --clean removes them"));
    lumen = host("kivra-7.0", {"--quiet"});
    EXPECT_THAT(tool({"ports", "--clean"}).out, HasSubstr("3 stale ports removed\n"));
    EXPECT_EQ(json({"ports"})["ports"].size(), 3U) << "those of the host that runs";
    EXPECT_EQ(tool({"ping", "kivra"}).exitStatus, 0);
}

} // namespace
