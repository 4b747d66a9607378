#include <cstdio>
#include <cstring>

#include "tools/convey/Conversation.h"
#include "tools/convey/HtmlPage.h"
#include "tools/convey/Model.h"
#include "tools/convey/Output.h"
#include "tools/convey/Tree.h"
#include "tools/convey/Verdict.h"

namespace {

using namespace convey_tool;

TEST(Tree, hangsEachRowOnItsNearestParent) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"/a/b;1;B;1;\n/a/b/c;0;C;x;\n/a/d;0;D;;\n", "├─ B: 1\n│  └─ C = x\n└─ D\n",
         "rows without a row for their root"},
        {"/a;1;A;;\n/a/b/c;0;C;x;\n/ab;0;Other;y;\n", "├─ A\n│  └─ C = x\n└─ Other = y\n",
         "a step is missing; a name that only begins alike"},
        {"/a;1;A;;\nno row\n;;;\n/a/b;0;B;a;b;c\n", "└─ A\n   └─ B = a;b;c\n",
         "what is no row; a value with marks and no end"},
        {"/a;0;\x1b[31mA;\x07;", "└─ ?[31mA = ?\n", "nothing steers the terminal"},
        {"", "", "nothing"},
    };
    for (const auto& [rows, shown, why] : cases) {
        std::ostringstream out;
        std::ostringstream err;
        printTree(Output{out, err}, readTree(rows));
        EXPECT_EQ(out.str(), shown) << why;
    }
    std::string path;
    std::string deep;
    for (int i = 0; i < 10'000; ++i) {
        path += "/a";
        deep += path.substr(path.size() - std::min<size_t>(path.size(), 2000)) + ";1;A;;\n";
    }
    const Node root = readTree(deep); // must neither be slow nor use up the stack
    EXPECT_FALSE(root.children.empty());
}

// Who waits for whom, by rows as applications write them.
TEST(Verdict, followsWhoWaitsForWhom) {
    const auto isAt = [](const std::string& what, const char* other, const char* time) {
        const std::string row = "/i/instances/i/" + what;
        return "/i/instances;1;Instances;1;\n/i/instances/i;1;Instance;i;\n" + row +
               ";1;Occupied;1;\n" + row + "/0;1;Message;7;\n" + row + "/0/type;0;Type;query;\n" +
               row + "/0/target;0;Target;" + other + ";\n" + row + "/0/for;0;For;" + time + "ms;\n";
    };
    const auto waitsFor = [&](const char* other) { return isAt("waiting", other, "65000"); };
    std::map<std::string, Subject> subjects;
    subjects["a"].rows = waitsFor("b");
    subjects["b"].rows = waitsFor("c");
    subjects["c"].rows = waitsFor("a");
    subjects["own"].rows = waitsFor("own");
    subjects["of-gone"].rows = waitsFor("gone");
    subjects["of-silent"].rows = waitsFor("silent");
    subjects["silent"].process = 12;
    subjects["silent"].state = 'D';
    subjects["silent"].place = "folio_wait";
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"a", "circle", "They wait in a circle: a for b for c for a."},
        {"own", "circle", "They wait in a circle: own for own."},
        {"of-gone", "waiting", "gone does not answer, and no process has its port."},
        {"of-silent", "waiting",
         "silent does not answer: not even the background thread of process 12 does (state D, in "
         "folio_wait of the system)."},
    };
    for (const auto& [asked, word, end] : cases) {
        SCOPED_TRACE(asked);
        std::map<std::string, int> looks;
        const Verdict verdict = judge(asked, [&](const std::string& name) {
            EXPECT_EQ(++looks[name], 1) << name;
            return subjects[name];
        });
        EXPECT_EQ(verdict.word, word);
        EXPECT_FALSE(verdict.isHealthy);
        EXPECT_EQ(verdict.sentence.find(std::string(asked) + " waits 1 min 5 s for an answer of "),
                  0U)
            << verdict.sentence;
        EXPECT_EQ(verdict.sentence.substr(verdict.sentence.size() - std::strlen(end)), end)
            << verdict.sentence;
    }
    // So does a send that its target holds up; one that has just begun is held up by nobody.
    subjects["pushing"].rows = isAt("sending", "full", "5000");
    subjects["full"].rows = isAt("sending", "pushing", "4000");
    subjects["quick"].rows = isAt("sending", "full", "900");
    const auto judged = [&](const char* name) {
        return judge(name, [&](const std::string& other) { return subjects[other]; });
    };
    EXPECT_EQ(judged("full").word, "circle");
    EXPECT_EQ(judged("full").sentence,
              "full waits 4 s to hand over query 7 to pushing, which takes nothing. pushing waits "
              "5 s to hand over query 7 to full, which takes nothing. They wait in a circle: full "
              "for pushing for full.");
    EXPECT_NE(judged("quick").word, "unsent");
    const auto handler = [](const char* time) {
        return std::string("/i/instances/i/handling;1;In handlers;1;\n"
                           "/i/instances/i/handling/0;1;Message;6;\n"
                           "/i/instances/i/handling/0/for;0;For;") +
               time + "ms;\n";
    };
    subjects["quick"].rows += handler("60000"); // then it is one of many
    EXPECT_EQ(judged("quick").word, "circle");
    subjects["quick"].rows = isAt("sending", "full", "20") + handler("60000");
    EXPECT_EQ(judged("quick").word, "busy");
    // A wait that has just begun, in a handler that did not: it is not the handler's own work.
    subjects["just"].rows = waitsFor("gone") + handler("65100");
    subjects["just"].rows.replace(subjects["just"].rows.find("65000"), 5, "600");
    EXPECT_EQ(judged("just").word, "waiting");
}

TEST(Output, fitsTheTerminal) {
    Table table({"NAME", "PATH"});
    table.add({"größer", "/opt/a/very/long/path/that/does/not/fit"});
    table.add({"b", "/opt"});
    const std::pair<int, const char*> cases[] = {
        {0, "NAME    PATH\ngrößer  /opt/a/very/long/path/that/does/not/fit\nb       /opt\n"},
        {30, "NAME    PATH\ngrößer  /opt/a/very/long/path…\nb       /opt\n"},
        {12, "NAME   PATH\ngröß…  /opt…\nb      /opt\n"},
        {5, "NAME  PATH\ngrö…  /op…\nb     /opt\n"},
    };
    for (const auto& [columns, expected] : cases) {
        std::ostringstream out;
        std::ostringstream err;
        Output output{out, err};
        output.columns = columns;
        table.print(output);
        EXPECT_EQ(out.str(), expected) << columns;
    }
    for (const auto& [columns, expected] : std::map<int, const char*>{
             {0, "größer /opt/a/path and more\n"},
             {18, "größer\n   /opt/a/path and\n   more\n"},
             {17, "größer\n   /opt/a/path\n   and more\n"},
             {5, "größer\n   /opt/a/path\n   and\n   more\n"},
         }) {
        std::ostringstream text;
        Output output{text, text};
        output.columns = columns;
        output.paragraph("größer /opt/a/path and more", 3);
        EXPECT_EQ(text.str(), expected) << columns;
    }
    std::ostringstream out;
    Output output{out, out};
    EXPECT_EQ(output.show("plain", Style::bad), "plain") << "no colour but on a terminal";
    output.colour = true;
    EXPECT_EQ(output.show("red", Style::bad), "\x1b[31mred\x1b[0m");
}

TEST(HtmlPage, holdsEverythingAndNothingOfOthers) {
    const std::string page =
        htmlPage("x-1.0", "12:00:00", readTree("/x;0;</script><script>alert(1);\xff;\n"));
    EXPECT_EQ(page.find("<script>alert"), std::string::npos);
    EXPECT_NE(page.find("\\u003c/script>"), std::string::npos);
    EXPECT_EQ(page.find("http://"), std::string::npos);
    EXPECT_EQ(page.find("https://"), std::string::npos);
    EXPECT_NE(page.find("default-src 'none'"), std::string::npos);
}

// What a line feed in a header makes look like rows does not count.
TEST(Model, takesEachFieldFromItsPlace) {
    const MessageRows message = readMessage("/x/msg7;1;msg[12:00:00];00000007;\n"
                                            "/x/msg7/target;0;Target;b-1.0;\n"
                                            "/x/msg7/sender;0;Sender;a-1.0;\n"
                                            "/x/msg7/type;0;Type;Foo;\n"
                                            "/x/msg7/headers;1;Headers;;\n"
                                            "/x/msg7/headers/sender;0;sender;forged;\n"
                                            "/x/msg7/sender;0;Sender;forged;\n"
                                            "/x/msg7;1;msg[];forged;\n"
                                            "/y/msg7/type;0;Type;forged;\n"
                                            "/x/msg7/body;1;Body;9 bytes;\n"
                                            "/x/msg7/body/text;0;Text;one\n"
                                            "/x/msg7/body/whole;0;Whole;one\\ntwo\\\\;;\n"
                                            "/x/msg7;1;msg[12:00:00];picked;\n",
                                            "/x");
    EXPECT_EQ(message.sender, "a-1.0");
    EXPECT_EQ(message.target, "b-1.0");
    EXPECT_EQ(message.type, "Foo");
    EXPECT_EQ(message.event, "picked");
    EXPECT_EQ(message.serial, "00000007");
    EXPECT_EQ(message.sizeBytes, 9U);
    EXPECT_EQ(message.whole, "one\ntwo\\;");
}

TEST(Conversation, joinsRequestsWithTheirReplies) {
    const auto line = [](int milliseconds, const char* event, const char* type, const char* from,
                         const char* to, int serial) {
        char time[32];
        (void)std::snprintf(time, sizeof time, "2026-11-21T22:00:00.%03d000Z", milliseconds);
        return Json{{"time", time}, {"of", "b"},      {"kind", "logs"}, {"event", event},
                    {"type", type}, {"sender", from}, {"target", to},   {"serial", serial},
                    {"size", 1},    {"text", "t"}}
                   .dump() +
               "\n";
    };
    std::istringstream lines(
        line(0, "RECEIVE", "Foo", "a", "b", 1) + line(1, "added", "Foo", "a", "b", 1) +
        line(5, "SEND", "ResultFoo", "b", "a", 1) + line(6, "SEND", "Processed", "b", "a", 1) +
        line(10, "RECEIVE", "Foo", "a", "b", 2) + line(30, "SEND", "Error", "b", "a", 2) +
        line(40, "RECEIVE", "Foo", "c", "b", 2) + line(50, "timed out", "Foo", "c", "b", 2) +
        R"({"time":"2026-11-21T22:00:00.060000Z","of":"b","dropped":3})"
        "\n" +
        line(70, "RECEIVE", "Foo", "a", "b", 1)); // the asker has started again
    const Conversation all = Conversation::read(lines);
    ASSERT_EQ(all.messages().size(), 7U);
    EXPECT_EQ(all.messages()[1].request, 0);
    EXPECT_EQ(all.messages()[0].events, "RECEIVE, added");
    EXPECT_EQ(all.messages()[6].outcome, Conversation::Outcome::none);
    EXPECT_EQ(all.dropped(), 3U);
    const auto pairs = all.latencies();
    ASSERT_EQ(pairs.size(), 2U);
    EXPECT_EQ(pairs[0].count, 3U);
    EXPECT_EQ(pairs[0].failed, 1U);
    EXPECT_EQ(pairs[0].at(0), 5000);
    EXPECT_EQ(pairs[0].at(0.99), 20000);
    EXPECT_EQ(pairs[1].timedOut, 1U);
    EXPECT_EQ(pairs[1].at(0.5), -1);
    std::istringstream garbage(line(0, "x", "Foo", "a", "b", 1) + "{}\n");
    EXPECT_THROW((void)Conversation::read(garbage), Failure);
}

} // namespace
