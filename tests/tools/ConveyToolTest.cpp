#include <gtest/gtest.h>
#include <sstream>

#include "tools/convey/HtmlPage.h"
#include "tools/convey/Output.h"
#include "tools/convey/Tree.h"

namespace {

using namespace convey_tool;

TEST(Tree, hangsEachRowOnItsNearestParent) {
    const struct {
        const char* rows;
        const char* shown;
        const char* why;
    } cases[] = {
        {"/a/b;1;B;1;\n/a/b/c;0;C;x;\n/a/d;0;D;;\n", "├─ B: 1\n│  └─ C = x\n└─ D\n",
         "rows without a row for their root"},
        {"/a;1;A;;\n/a/b/c;0;C;x;\n/ab;0;Other;y;\n", "├─ A\n│  └─ C = x\n└─ Other = y\n",
         "a step is missing; a name that only begins alike"},
        {"/a;1;A;;\nno row\n;;;\n/a/b;0;B;a;b;c\n", "└─ A\n   └─ B = a;b;c\n",
         "what is no row; a value with marks and no end"},
        {"/a;0;\x1b[31mA;\x07;", "└─ ?[31mA = ?\n", "nothing steers the terminal"},
        {"", "", "nothing"},
    };
    for (const auto& c : cases) {
        std::ostringstream out;
        std::ostringstream err;
        printTree(Output{out, err}, readTree(c.rows));
        EXPECT_EQ(out.str(), c.shown) << c.why;
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

TEST(Output, fitsTheTerminal) {
    Table table({"NAME", "PATH"});
    table.add({"größer", "/opt/a/very/long/path/that/does/not/fit"});
    table.add({"b", "/opt"});
    const struct {
        int columns;
        const char* expected;
    } cases[] = {
        {0, "NAME    PATH\ngrößer  /opt/a/very/long/path/that/does/not/fit\nb       /opt\n"},
        {30, "NAME    PATH\ngrößer  /opt/a/very/long/path…\nb       /opt\n"},
        {12, "NAME  PATH\ngröß…  /opt…\nb     /opt\n"},
        {5, "NAME  PATH\ngrö…  /op…\nb     /opt\n"},
    };
    for (const auto& c : cases) {
        std::ostringstream out;
        std::ostringstream err;
        Output output{out, err};
        output.columns = c.columns;
        table.print(output);
        EXPECT_EQ(out.str(), c.expected) << c.columns;
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

} // namespace
