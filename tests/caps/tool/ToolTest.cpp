#include <random>
#include <sys/stat.h>

#include "caps/Store.h"
#include "caps/config/Merge.h"
#include "caps/tool/Checks.h"
#include "caps/tool/DesktopEntries.h"
#include "caps/tool/TomlFile.h"
#include "caps/tool/Tool.h"
#include "tests/caps/RandomRegistry.h"
#include "tests/support/Database.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using caps::Contents;
using caps::Status;
using caps::Store;

class ToolTest : public testing::Test {
protected:
    // Runs a command on the test's database; the standard error goes to `errors`.
    int run(std::vector<std::string> arguments, const std::string& input = "") {
        arguments.insert(arguments.begin(), {"--database", database});
        std::istringstream in(input);
        std::ostringstream out;
        std::ostringstream err;
        const int status = caps::tool::run(arguments, in, out, err);
        output = out.str();
        errors = err.str();
        return status;
    }

    Contents contents() {
        Contents all;
        auto store = openStore(database, caps::Store::Access::read);
        EXPECT_EQ(store->readAll(all), Status::ok);
        return all;
    }

    TemporaryFolder folder;
    std::string database = folder.file("caps.db");
    std::string output;
    std::string errors;
};

TEST_F(ToolTest, tellsFailuresFromMisuse) {
    const std::pair<std::vector<std::string>, int> cases[] = {
        {{}, 2},
        {{"nosuch"}, 2},
        {{"import"}, 2},
        {{"list", "--yaml"}, 2},
        {{"list"}, 1},
        {{"--help"}, 0},
        {{"--version"}, 0},
        {{"import", "/nosuch.toml"}, 1},
        {{"init"}, 0},
        {{"list"}, 0},
        {{"show", "x"}, 1},
        {{"add-app", "x"}, 1},
        {{"remove-app", "x"}, 1},
        {{"group", "list"}, 0},
        {{"group"}, 2},
        {{"add-app", "x", "--path", "noslash"}, 1},
        {{"add-app", "x#y", "--path", "/a"}, 1},
        {{"add-app", "x", "--path", "/a/b", "--set", "nokey"}, 2},
        {{"add-app", "x", "--path", "/a/b", "--set", "IsShellTool=yes"}, 1},
        {{"add-app", "X-1.0", "--path", "/a/b"}, 0},
        {{"show", "x-1.0"}, 0},
        {{"set", "x-1.0", "Path", "noslash"}, 1},
        {{"get", "x-1.0", "Path"}, 0},
        {{"remove", "x-1.0", "nosuch"}, 1},
        {{"remove-app", "x-1.0"}, 0},
        {{"import-desktop", "/nosuch"}, 1},
        {{"remove-app", "groups"}, 1},
        {{"set", "misspelt", "Path", "/a/b"}, 1},
        {{"group", "add", "g", "0", "a"}, 1},
        {{"add-product", "P"}, 0},
        {{"remove-product", "P"}, 0},
        {{"remove-product", "P"}, 1},
        {{"add-app", std::string(256, 'x'), "--path", "/a"}, 1},
    };
    for (const auto& [arguments, status] : cases) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        EXPECT_EQ(run(arguments), status) << errors;
        EXPECT_EQ(errors.empty(), status == 0);
        if (status != 0) {
            EXPECT_TRUE(errors.starts_with("ovrel-caps: ")) << errors;
            EXPECT_EQ(output, "");
        }
    }
}

TEST_F(ToolTest, registersAndShows) {
    ASSERT_EQ(run({"add-app", "Lumen-2.0", "--path", "/opt/L\xC3\xBCmen", "--name", "L & \x1b[31m",
                   "--shell-tool", "--set", "MessageDigest=false"}),
              0);
    ASSERT_EQ(run({"add-app", "viewer-1.0", "--redirect", "lumen-2.0"}), 0);
    ASSERT_EQ(run({"list"}), 0);
    EXPECT_EQ(output, "SPECIFIER   NAME       PATH                     FROM\n"
                      "lumen-2.0   L & ?[31m  /opt/L\xC3\xBCmen               by hand\n"
                      "viewer-1.0             /opt/L\xC3\xBCmen -> lumen-2.0  by hand\n");
    ASSERT_EQ(run({"list", "--json"}), 0);
    EXPECT_EQ(
        output,
        "[\n  {\n    \"specifier\": \"lumen-2.0\",\n    \"shownPath\": \"/opt/L\xC3\xBCmen\",\n"
        "    \"Path\": \"/opt/L\xC3\xBCmen\",\n"
        "    \"DisplayName\": \"L & \\u001b[31m\",\n    \"IsShellTool\": \"true\",\n"
        "    \"MessageDigest\": \"false\"\n  },\n  {\n"
        "    \"specifier\": \"viewer-1.0\",\n"
        "    \"shownPath\": \"/opt/L\xC3\xBCmen\",\n    \"RedirectTo\": \"lumen-2.0\"\n  }\n]\n");
    ASSERT_EQ(run({"set", "lumen-2.0", "DisplayName", "Lumen"}), 0);
    ASSERT_EQ(run({"get", "LUMEN-2.0", "DisplayName"}), 0);
    EXPECT_EQ(output, "Lumen\n");
    ASSERT_EQ(run({"group", "add", "Suite", "7.0", "lumen-2.*"}), 0);
    ASSERT_EQ(run({"group", "add", "Suite", "7.0", "lumen-2.*"}), 0) << "said twice";
    ASSERT_EQ(run({"group", "list"}), 0);
    EXPECT_EQ(output, "NAME   NUMBER  APPLICATION\nSuite  7.0     lumen-2.*\n");
    ASSERT_EQ(run({"group", "remove", "suite", "7.0", "lumen-2.*"}), 0);
    EXPECT_EQ(run({"group", "remove", "suite", "7.0", "lumen-2.*"}), 1);
    ASSERT_EQ(run({"add-product", "P", "--payload", "{p}", "--languages", "L1", "--config-path",
                   "/o/c.xml", "--install-folder", "/o", "--language", "L1=fr_FR"}),
              0);
    EXPECT_EQ(contents().products[0].payloads[0].data.back(),
              (caps::PayloadValue{6, "L1", "fr_FR"}));
}

TEST_F(ToolTest, pointsAtWhatIsWrongInAFileAndImportsNoneOfIt) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"[[application]]\nspecifier = \"a-1.0\"\nPath = \"/a\"\n[[application]\n", "4:", ""},
        {"[[application]]\nPath = \"/a\"\n", "1:1", "\"specifier\" is missing"},
        {"[[application]]\nspecifier = \"a#b\"\n", "2:13", "suffix"},
        {"[[application]]\nspecifier = \"a\"\n  Path = \"noslash\"\n", "3:10", "'/'"},
        {"[[application]]\nspecifier = \"a\"\nColour = \"red\"\n", "3:10",
         "unknown field \"Colour\""},
        {"[[application]]\nspecifier = \"a\"\nIsShellTool = \"yes\"\n", "3:15", "\"true\""},
        {"[[application]]\nspecifier = \"a\"\nPath = \"/a\"\n[[application]]\nspecifier = \"A\"\n",
         "4:1", "said twice"},
        {"[[application]]\nspecifier = \"a\"\nConveyVersion = nan\n", "3:17", "number"},
        {"[[product]]\nid = \"P\"\n[[product.payload]]\nid = \"{x}\"\n"
         "data = [ {values = {a = 1}}, {values = {a = 2}} ]\n",
         "5:", "said twice"},
        {"[[group]]\nname = \"a/b\"\nnumber = \"1\"\napplication = \"x\"\n", "2:8", "no '/'"},
        {"[[product]]\nid = \"P\"\ncolour = 1\n", "3:10", "unknown field"},
        {"[[product]]\nid = \"P\"\n[[product.payload]]\nid = \"{x}\"\ninstall-state = \"four\"\n",
         "5:17", "whole number"},
        {"a = \xC3\xA4\n", "1:", ""}, // an umlaut where a value begins
        {"application = 7\n", "1:15", "[[application]]"},
        {"colour = 7\n", "1:10", "unknown field"},
        {"[[data]]\nsubdomain = \"s\"\nvalues = { a = [1] }\n", "3:16",
         "text, a boolean or a number"},
    };
    ASSERT_EQ(run({"init"}), 0);
    for (const auto& [toml, position, message] : cases) {
        SCOPED_TRACE(toml);
        const std::string good = "[[application]]\nspecifier = \"good\"\nPath = \"/g\"\n";
        EXPECT_EQ(run({"import", folder.write("in.toml", toml)}), 1);
        EXPECT_NE(errors.find("in.toml:" + std::string(position)), std::string::npos) << errors;
        EXPECT_NE(errors.find(message), std::string::npos) << errors;
        EXPECT_EQ(run({"import", "-"}, toml + good), 1);
        EXPECT_TRUE(contents().subdomains.empty()) << "the whole file or nothing";
    }
    std::string deep;
    for (int i = 0; i < 300'000; ++i) {
        deep += "a.";
    }
    EXPECT_EQ(run({"import", "-"}, "\n" + deep + "a = 1\n"), 1) << "and does not crash";
    EXPECT_NE(errors.find(":2:1: more than 1000 dots"), std::string::npos) << errors;
    ASSERT_EQ(mkfifo(folder.file("fifo").c_str(), 0600), 0);
    EXPECT_EQ(run({"import", folder.file("fifo")}), 1) << "does not wait for a writer";
}

TEST_F(ToolTest, takesBooleansAndNumbersAsTomlHasThem) {
    ASSERT_EQ(run({"import", "-"},
                  "[[application]]\nspecifier = \"A-1.0\"\nPath = \"/a\"\n"
                  "IsShellTool = true\nConveyVersion = 2.0\nSupportsDBGK = false\n"),
              0)
        << errors;
    const std::vector<caps::KeyValue> expected = {{"Specifier", "a-1.0"},
                                                  {"Path", "/a"},
                                                  {"IsShellTool", "true"},
                                                  {"ConveyVersion", "2.0"},
                                                  {"SupportsDBGK", "false"}};
    EXPECT_EQ(contents().subdomains[0].data, expected);
}

TEST_F(ToolTest, importsItsOwnExportToTheSameDatabase) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    RandomRegistry registry(seed);
    size_t applications = 0;
    for (int round = 0; round < 20; ++round) {
        database = folder.file("random" + std::to_string(round) + ".db");
        caps::config::Merged merged;
        std::string reason;
        ASSERT_EQ(
            merge(*openStore(database), registry.make(), caps::config::Rule::keep, merged, reason),
            Status::ok)
            << reason;
        const Contents before = contents();
        ASSERT_EQ(run({"export"}), 0) << errors;
        const std::string exported = output;
        database = folder.file("copy" + std::to_string(round) + ".db");
        ASSERT_EQ(run({"init"}), 0);
        ASSERT_EQ(run({"import", "-"}, exported), 0) << errors << exported;
        ASSERT_EQ(contents(), before) << exported;
        applications += exported.find("[[application]]") != std::string::npos ? 1 : 0;
    }
    EXPECT_GT(applications, 0U) << "as data only";
}

TEST_F(ToolTest, findsWhatTheLayerWouldIgnoreOrTripOver) {
    const auto app = [](const char* specifier, std::vector<caps::KeyValue> keys) {
        keys.insert(keys.begin(), {"Specifier", specifier});
        return caps::Subdomain{1, std::string("/ovrel/convey/") + specifier, std::move(keys)};
    };
    const struct {
        std::vector<caps::Subdomain> subdomains;
        std::vector<std::string> findings; // a piece of each, in order
    } cases[] = {
        {{app("ok", {{"Path", "/a"}, {"IsShellTool", "false"}})}, {}},
        {{app("a", {})}, {"no path and no redirect"}},
        {{app("a", {{"Path", "noslash"}})}, {"has no '/'"}},
        {{app("a", {{"RedirectTo", "b"}})}, {"has no path", "\"b\" is not registered"}},
        {{app("a", {{"RedirectTo", "b_2"}}), app("b", {{"Path", "/b"}})}, {}},
        {{app("x", {{"RedirectTo", "a"}}), app("a", {{"RedirectTo", "b"}}),
          app("b", {{"RedirectTo", "a"}})},
         {"has no path", "has no path", "redirect loop a -> b -> a", "has no path"}},
        {{app("a", {{"Path", "/a"}, {"IsShellTool", "True"}})}, {"\"True\""}},
        {{app("a", {{"Path", "/a"}, {"ConveyVersion", "two"}})}, {"decimal"}},
        {{app("a", {{"Path", "/a"}}), {1, "/ovrel/convey/b", {{"Specifier", "A"}, {"Path", "/b"}}}},
         {"is registered as a again", "is shown with the path of a"}},
        {{{1, "/ovrel/convey/Caps", {{"Path", "/a"}}}}, {"capital letters", "has no path"}},
        {{{1, "/ovrel/convey/z", {{"Path", "/a"}}}}, {"one letter"}},
        {{app("a", {{"Path", "/it's"}}), app("b", {{"Path", "/\x01"}}),
          app("c", {{"Path", "/\xff"}})},
         {"an apostrophe", "a control character", "is no UTF-8", "bytes that are no UTF-8"}},
        {{{1,
           "/ovrel/convey/groups",
           {{"Group1", "/ovrel/convey/groups/g/1/a"},
            {"Group2", "/ovrel/convey/groups/g/a"},
            {"Group3", "/ovrel/convey/groups/g/0/a"},
            {"Other", "x"}}}},
         {"NAME/NUMBER/APPLICATION", "not above 0", "does not begin"}},
        {{app("w", {{"ExecutableBasename", "https://x.ovrel.example/"}})}, {}},
        {{app("p", {}), {1, "{p}", {{"ConveyCode", "/ovrel/convey/p"}}}},
         {"no payload gives it one", "there is no such payload"}},
        {{app("p", {}),
          {1,
           "{p}",
           {{"PYLConfigPath", "/c"},
            {"ConveyCode", "/ovrel/convey/p"},
            {"ConveyCode2", "/ovrel/convey/p"}}}},
         {"no payload gives it one", "there is no such payload", "gives a configuration path",
          "behind a gap"}},
        {{{1, "/other", {{"IsShellTool", "True"}}}}, {}},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        const auto findings = caps::tool::checkRegistry({{}, cases[i].subdomains, {}});
        ASSERT_EQ(findings.size(), cases[i].findings.size());
        for (size_t k = 0; k < findings.size(); ++k) {
            EXPECT_NE(findings[k].what.find(cases[i].findings[k]), std::string::npos)
                << findings[k].what;
        }
    }
    EXPECT_EQ(caps::tool::checkRegistry({{}, {}, {"key x y"}}).size(), 1U) << "over the limits";
    ASSERT_EQ(run({"init"}), 0);
    EXPECT_EQ(run({"check"}), 0);
    EXPECT_EQ(output, "nothing to report\n");
    EXPECT_EQ(run({"check", "--json"}), 0);
    EXPECT_EQ(output, "[]\n");
    ASSERT_EQ(run({"set", "/ovrel/convey/a", "IsShellTool", "true"}), 0);
    EXPECT_EQ(run({"check"}), 1);
    EXPECT_EQ(output, "/ovrel/convey/a: has one letter and no \"Specifier\"; it is ignored\n");
    EXPECT_EQ(run({"check", "--json"}), 1);
    EXPECT_EQ(output, "[\n  {\n    \"where\": \"/ovrel/convey/a\",\n"
                      "    \"what\": \"has one letter and no \\\"Specifier\\\"\",\n"
                      "    \"why\": \"it is ignored\"\n  }\n]\n");
}

TEST_F(ToolTest, listsThePathsThatAListingShows) {
    setenv("LC_ALL", "de_AT.UTF-8", 1);
    ASSERT_EQ(
        run({"import", "-"},
            "[[application]]\nspecifier = \"web-1.0\"\n"
            "ExecutableBasename = \"https://w.ovrel.example/a\"\n"
            "[[product]]\nid = \"P\"\n[[product.payload]]\nid = \"{P}\"\n"
            "launch-path = \"/opt/Pay.app/Contents/MacOS/Pay\"\n"
            "[[data]]\nsubdomain = \"{P}\"\nvalues = { ConveyCode = \"/ovrel/convey/pay-1.0\" }\n"
            "[[application]]\nspecifier = \"pay-1.0\"\nDisplayName = \"Pay\"\n"
            "\"DisplayName[de]\" = \"Zahl\"\n\"DisplayName[de_CH]\" = \"Zahle\"\n"
            "[[application]]\nspecifier = \"lost-1.0\"\nRedirectTo = \"nobody\"\n"),
        0)
        << errors;
    ASSERT_EQ(run({"list"}), 0);
    EXPECT_EQ(output, "SPECIFIER  NAME  PATH                       FROM\n"
                      "web-1.0          https://w.ovrel.example/a  by hand\n"
                      "pay-1.0    Zahl  /opt/Pay.app               by hand\n"
                      "lost-1.0         -> nobody                  by hand\n");
    unsetenv("LC_ALL");
}

TEST_F(ToolTest, saysWhatAChangeLeavesBehind) {
    ASSERT_EQ(run({"add-app", "a-1.0", "--path", "/a/a"}), 0);
    ASSERT_EQ(run({"add-app", "b-1.0", "--redirect", "a-1.0"}), 0);
    EXPECT_EQ(errors, "") << "nothing is wrong with that";
    ASSERT_EQ(run({"add-app", "kept-1.0", "--redirect", "a-1.0", "--path", "/k/k"}), 0);
    ASSERT_EQ(run({"import", "-"}, "[[product]]\nid = \"P\"\n[[product.payload]]\nid = \"{P}\"\n"
                                   "launch-path = \"/p/p\"\n[[data]]\nsubdomain = \"{P}\"\n"
                                   "values = { ConveyCode = \"/ovrel/convey/pay-1.0\" }\n"
                                   "[[application]]\nspecifier = \"pay-1.0\"\n"),
              0);
    ASSERT_EQ(run({"import", "-"}, "[[data]]\nsubdomain = \"/ovrel/convey/foo\"\n"
                                   "values = { Specifier = \"bar-1.0\", Path = \"/f/f\" }\n"),
              0);
    ASSERT_EQ(run({"add-app", "baz-1.0", "--redirect", "bar-1.0"}), 0);
    EXPECT_EQ(errors, "");
    (void)folder.write("foo.desktop",
                       "[Desktop Entry]\nType=Application\nName=Foo\nExec=/bin/sh\n");
    const std::string ends = "a listing ends abnormally at it";
    const std::tuple<std::vector<std::string>, std::string, std::vector<std::string>> cases[] = {
        {{"add-app", "c-1.0", "--redirect", "nobody"}, "", {"c-1.0: has no path; " + ends}},
        {{"remove-app", "a-1.0"},
         "",
         {"b-1.0 redirects to a-1.0, which is registered no more",
          "kept-1.0 redirects to a-1.0, which is registered no more",
          "b-1.0: has no path; " + ends}},
        {{"remove", "a-1.0"}, "", {"b-1.0: has no path; " + ends}},
        {{"remove", "a-1.0", "Path"}, "", {"it is ignored"}},
        {{"remove-product", "P"}, "", {"pay-1.0: has no path and no redirect, and no payload"}},
        {{"import", "-"},
         "[[application]]\nspecifier = \"a-1.0\"\nRedirectTo = \"b-1.0\"\n",
         {"a-1.0: has no path; " + ends, "b-1.0: has no path; " + ends}},
        {{"import-desktop", folder.file("")},
         "",
         {"baz-1.0 redirects to bar-1.0, which is registered no more",
          "baz-1.0: has no path; " + ends}},
        {{"import", "--rule", "replace", "-"},
         "[[data]]\nsubdomain = \"/ovrel/convey/d-1.0\"\nvalues = { DisplayName = \"D\" }\n",
         {"d-1.0: has no path and no redirect"}},
    };
    for (const auto& [command, input, told] : cases) {
        SCOPED_TRACE(command[0] + " " + command[1]);
        const Contents before = contents();
        const std::string whole = database;
        std::vector<std::string> strictly = command;
        strictly.emplace_back("--strict");
        EXPECT_EQ(run(strictly, input), 1);
        EXPECT_NE(errors.find("nothing was changed, because of --strict"), std::string::npos);
        EXPECT_EQ(contents(), before);
        database = folder.file("copy.db"); // each case begins with the same
        ASSERT_EQ(run({"import", whole}), 0) << errors;
        EXPECT_EQ(run(command, input), 0) << errors;
        for (const std::string& said : told) {
            EXPECT_NE(errors.find(said), std::string::npos) << errors << "lacks " << said;
        }
        EXPECT_NE(contents(), before);
        for (const char* suffix : {"", "-wal", "-shm"}) {
            (void)unlink((database + suffix).c_str());
        }
        database = whole;
    }
}

TEST_F(ToolTest, takesOnlyTextsInUtf8) {
    ASSERT_EQ(run({"add-app", "a-1.0", "--path", "/a"}), 0);
    const std::vector<std::string> commands[] = {
        {"add-app", "b\xff-1.0", "--path", "/b"},
        {"add-app", "b-1.0", "--path", "/\xff"},
        {"add-app", "b-1.0", "--path", "/b", "--name", "\xC3"},
        {"set", "a-1.0", "DisplayName", "\xff"},
        {"set", "/other", "k\xff", "v"},
        {"group", "add", "g\xff", "1", "a-1.*"},
        {"add-product", "\xff"},
    };
    const Contents before = contents();
    for (const auto& command : commands) {
        EXPECT_EQ(run(command), 1) << command[1];
        EXPECT_NE(errors.find("is no UTF-8"), std::string::npos) << errors;
    }
    EXPECT_EQ(run({"import", "-"}, "[[data]]\nsubdomain = \"s\"\nvalues = { k = \"\xff\" }\n"), 1);
    EXPECT_EQ(contents(), before);

    // What another program wrote is named, and can be removed.
    const std::string other = folder.file("other.db");
    {
        auto store = openStore(other);
        ASSERT_EQ(store->setDomainData(1, "/ovrel/convey/c\xff", "DisplayName", "\xff"),
                  Status::ok);
    }
    EXPECT_EQ(run({"import", other}), 1);
    EXPECT_NE(errors.find("other.db: /ovrel/convey/c\xff is no UTF-8"), std::string::npos)
        << errors;
    database = other;
    ASSERT_EQ(run({"set", "/ovrel/convey/d", "DisplayName", "D"}), 0);
    ASSERT_EQ(run({"remove-app", "c\xff"}), 0) << errors;
    {
        auto store = openStore(other, caps::Store::Access::write);
        ASSERT_EQ(store->setDomainData(1, "/ovrel/convey/d", "DisplayName", "\xff"), Status::ok);
    }
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"export"}, {"export", "--xml"}}) {
        EXPECT_EQ(run(command), 1);
        EXPECT_NE(errors.find("/ovrel/convey/d"), std::string::npos) << errors;
        EXPECT_NE(errors.find("DisplayName"), std::string::npos) << errors;
        EXPECT_EQ(output, "");
    }
}

TEST_F(ToolTest, readsDesktopEntriesByTheFormatsRules) {
    const std::tuple<const char*, const char*, bool> execs[] = {
        {"/bin/cat %U", "/bin/cat", true},
        {"\"/a b/c\"  %i %c", "/a b/c", true},
        {"\"/a b/c\" --x", "/a b/c", false},
        {"\"/a\\\\$b\" x", "/a$b", false},
        {"\"unfinished", "", true},
        {"", "", true},
        {"$(evil)", "", true},
        {"  sh  -c x", "sh", false},
        {"env A=1 p %U", "env", false},
        {"/bin/cat %%", "/bin/cat", false},
        {"/with\\sblank x", "/with", false}};
    for (const auto& [exec, program, alone] : execs) {
        EXPECT_EQ(caps::tool::programOf(exec), program) << exec;
        EXPECT_EQ(caps::tool::startsProgramAlone(exec), alone) << exec;
    }
    const char* const file = "/usr/share/applications/org.x.My-App.desktop";
    const std::string head = "[Desktop Entry]\nType=Application\nName=N\nName[de]=M\n";
    const struct {
        std::string content;
        const char* specifier;
        const char* reason;
        const char* path = "";
    } entries[] = {
        {head + "Exec=/bin/sh %f\nVersion=1.5\n", "org.x.my.app", "", "/bin/sh"},
        {head + "Exec=/bin/sh\nX-Foo-Version=3.2\n", "org.x.my.app-3.2", "", "/bin/sh"},
        {head + "Exec=/bin/sh\nX-Desktop-File-Install-Version=0.26\n", "org.x.my.app", "",
         "/bin/sh"},
        {head + "Exec=/bin/sh\n[Desktop Action a]\nHidden=true\n", "org.x.my.app", "", "/bin/sh"},
        {head + "Exec=/bin/sh -c x\n", "org.x.my.app", "", file},
        {head + "Exec=/bin/sh\nTerminal=true\n", "org.x.my.app", "", file},
        {head + "Exec=/bin/sh\nTerminal=false\n", "org.x.my.app", "", "/bin/sh"},
        {head + "Exec=/bin/sh\nDBusActivatable=true\n", "org.x.my.app", "", file},
        {head + "Exec=/bin/sh\nTryExec=sh\n", "org.x.my.app", "", file},
        {"[Desktop Entry]\nType=Application\nName=\xff\nExec=/bin/sh\n", "", "is no UTF-8"},
        {head + "Exec=/nosuch/program\n", "", "not installed"},
        {head + "Exec=/bin/sh\nTryExec=nosuchprogram\n", "", "not installed"},
        {head + "Exec=/bin/sh\nNoDisplay=true\n", "", "hidden"},
        {head, "", "Exec"},
        {"[Desktop Entry]\nType=Link\n", "", "no application"},
        {"[Desktop Entry]\nrubbish\n", "", "line 2"},
        {"", "", "[Desktop Entry]"},
    };
    for (const auto& c : entries) {
        SCOPED_TRACE(c.content);
        std::istringstream in(c.content);
        std::string reason;
        const auto application = caps::tool::readDesktopEntry(in, file, reason);
        EXPECT_EQ(application ? application->specifier : "", c.specifier);
        EXPECT_NE(reason.find(c.reason), std::string::npos) << reason;
        EXPECT_EQ(reason.empty(), application.has_value());
        EXPECT_EQ(application ? application->keys[0].value : "", c.path);
    }
    std::istringstream in(head + "Exec=/bin/sh\nIcon=brush\nName[fr]=\xff\nStartupWMClass=Win\n");
    std::string reason;
    EXPECT_EQ(caps::tool::readDesktopEntry(in, file, reason)->keys,
              (std::vector<caps::KeyValue>{{"Path", "/bin/sh"},
                                           {"DisplayName", "N"},
                                           {"DisplayName[de]", "M"},
                                           {"Icon", "brush"},
                                           {"WindowClassName", "Win"}}));
    ASSERT_EQ(run({"import-desktop", EXAMPLE_APPLICATIONS}), 0);
    EXPECT_EQ(output, "2 applications added, 0 replaced\n");
    EXPECT_NE(errors.find("settings.desktop: is hidden"), std::string::npos) << errors;
}

} // namespace
