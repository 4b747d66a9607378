#include <sys/stat.h>
#include <thread>

#include "platform/fake/Fakes.h"
#include "scriptobjects/convey/SoCVUtils.h"
#include "tests/support/Root.h"
#include "tests/support/TemporaryFolder.h"

namespace {

namespace Utils = ScObjects::ConveyUtils;
using ScObjects::SoString;

// A home folder on the disk.
class HomeTest : public testing::Test {
protected:
    HomeTest() {
        setenv("HOME", home.file("").c_str(), 1);
        Utils::exit(); // what another test had is forgotten
    }

    std::string file(const char* name) const { return home.file(std::string("/.ovrel/") + name); }

    TemporaryFolder home;
    platform::InForce<platform::Log, platform::FakeLog> log;
};

TEST_F(HomeTest, identifiersAreMadeOnceAndKept) {
    const std::string identifier = Utils::getUserID().c_str();
    EXPECT_THAT(identifier, testing::MatchesRegex("[0-9A-F]{16,32}"));
    EXPECT_EQ(TemporaryFolder::read(file("userid")), identifier);
    struct stat status {};
    ASSERT_EQ(stat(file("userid").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    EXPECT_EQ(Utils::getSecurityID(), identifier.c_str());
    EXPECT_EQ(Utils::getSignature(), identifier.c_str());
    Utils::exit();
    EXPECT_EQ(Utils::getUserID(), identifier.c_str());
    Utils::exit();
    home.write("/.ovrel/userid", "other");
    EXPECT_EQ(Utils::getUserID(), "other");
}

TEST_F(HomeTest, processesThatStartTogetherAgree) {
    // Each thread goes the whole way, as a process of its own does, since nothing is cached between
    // their looks at the folder.
    for (int round = 0; round < 20; ++round) {
        const std::string name = home.file("race" + std::to_string(round));
        std::vector<std::string> read(8);
        std::vector<std::jthread> threads;
        for (size_t i = 0; i < read.size(); ++i) {
            threads.emplace_back([&read, &name, i] {
                platform::Files& files = platform::Files::own();
                (void)files.publish(name, std::string(3000, static_cast<char>('a' + i)));
                EXPECT_EQ(files.readOwn(name, 4096, read[i]), platform::Files::Reading::done);
            });
        }
        threads.clear(); // joins them
        for (const std::string& content : read) {
            EXPECT_EQ(content, read[0]);
            EXPECT_EQ(content.size(), 3000U) << "nobody sees a part";
        }
    }
    EXPECT_EQ(log.lines, std::vector<std::string>());
}

TEST_F(HomeTest, whatIsNotTheUsersOwnFileIsRefused) {
    ASSERT_TRUE(Utils::mkdir(home.file("/.ovrel").c_str()));
    home.write("elsewhere", "FEED");
    ASSERT_EQ(symlink(home.file("elsewhere").c_str(), file("userid").c_str()), 0);
    EXPECT_EQ(Utils::getUserID(), "") << "a link";
    ASSERT_EQ(unlink(file("userid").c_str()), 0);
    ASSERT_EQ(mkfifo(file("userid").c_str(), 0600), 0);
    EXPECT_EQ(Utils::getUserID(), "") << "a pipe, which would hold its reader";
    ASSERT_EQ(unlink(file("userid").c_str()), 0);
    home.write("/.ovrel/userid", std::string(5000, 'A'));
    EXPECT_EQ(Utils::getUserID(), "") << "too large";
    home.write("/.ovrel/userid", std::string(41, 'A'));
    EXPECT_EQ(Utils::getUserID().length(), 41) << "long, given, and not cached";
    home.write("/.ovrel/userid", "");
    EXPECT_EQ(Utils::getUserID(), "") << "empty";
    EXPECT_EQ(log.lines.back(), file("userid") + " is empty: messages carry no digest");
    if (alsoAsRoot()) {
        home.write("/.ovrel/userid", "CAFE");
        ASSERT_EQ(chown(file("userid").c_str(), 65534, 65534), 0);
        EXPECT_EQ(Utils::getUserID(), "") << "another user's";
        ASSERT_EQ(chown(file("userid").c_str(), 0, 0), 0);
        EXPECT_EQ(Utils::getUserID(), "CAFE");
        Utils::exit(); // forgets what was read
        ASSERT_EQ(chown(home.file("/.ovrel").c_str(), 65534, 65534), 0);
        EXPECT_EQ(Utils::getUserID(), "") << "in another user's folder";
        EXPECT_EQ(log.lines.back(),
                  "refused to read " + file("userid") + ": its folder is not this user's own");
    }
    EXPECT_FALSE(log.lines.empty()) << "somebody must be told";
}

TEST_F(HomeTest, withoutAHomeThereIsNoIdentifierAndNoDigest) {
    setenv("HOME", "/nonexistent", 1);
    EXPECT_EQ(Utils::getUserID(), "");
    EXPECT_EQ(Utils::getMD5(SoString("x")), "");
    EXPECT_TRUE(log.lines.empty()) << "a user may have none";
    setenv("HOME", "/proc", 1);
    EXPECT_EQ(Utils::getUserID(), "");
    EXPECT_EQ(log.lines.size(), 1U) << "a home that takes no folder is a fault";
    unsetenv("HOME");
    EXPECT_EQ(Utils::getUserID(), "");
}

TEST_F(HomeTest, aFullDiskLeavesNothingBehind) {
    platform::InForce<platform::Files, platform::FakeFiles> files;
    files.readOnly = true;
    EXPECT_EQ(Utils::getUserID(), "");
    files.readOnly = false;
    platform::InForce<platform::Random, platform::FakeRandom> random;
    random.fails = true;
    EXPECT_EQ(Utils::getUserID(), "");
    random.fails = false;
    EXPECT_EQ(Utils::getUserID(), "0123456789ABCDEF") << "one digit for bytes below 16";
}

TEST_F(HomeTest, digestIsTheShortFormOfSaltedMD5) {
    ASSERT_TRUE(Utils::mkdir(home.file("/.ovrel").c_str()));
    home.write("/.ovrel/md5", "AB12");
    const struct {
        const char* text;
        const char* expected; // of AB12+text+AB12, leading zeros of bytes left out
    } cases[] = {
        {"", "36129A54F4F99F0B0824AEE847AD05E"},
        {"text", "552BFF7713166DB92672219F8EC330A5"},
        {"abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyz0123456789+-*/",
         "1D91F7903A1EB68D0689967AC416714"},
        {"ä", "1C58A78AF1D029C4799444BE5251A27B"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Utils::getMD5(SoString(c.text)), c.expected) << c.text;
    }
    EXPECT_EQ(Utils::getMD5({"te", "", "xt"}), Utils::getMD5(SoString("text")));
    Utils::exit();
    home.write("/.ovrel/md5", "other");
    EXPECT_FALSE(Utils::getMD5(SoString("text")) == cases[1].expected);
}

TEST_F(HomeTest, foldersFilesAndAliases) {
    const SoString folder(home.file("f").c_str());
    EXPECT_TRUE(Utils::mkdir(folder));
    EXPECT_TRUE(Utils::mkdir(folder)) << "exists already";
    home.write("plain", "x");
    EXPECT_FALSE(Utils::mkdir(home.file("plain").c_str())) << "a file is no folder";
    EXPECT_FALSE(Utils::mkdir(home.file("no/such").c_str()));

    const SoString alias(home.file("alias").c_str());
    home.write("alias", "in the way");
    EXPECT_TRUE(Utils::createAlias(folder, alias));
    EXPECT_EQ(Utils::resolveAlias(alias), Utils::resolveAlias(folder));
    for (const char* leadsNowhere : {"/nonexistent", "relative", ".", ""}) {
        EXPECT_FALSE(Utils::createAlias(leadsNowhere, alias)) << leadsNowhere;
    }
    EXPECT_FALSE(Utils::createAlias(alias, alias));
    EXPECT_EQ(Utils::resolveAlias(alias), Utils::resolveAlias(folder)) << "still";
    EXPECT_TRUE(Utils::createAlias(home.file("plain").c_str(), alias)) << "in place of a link";
    EXPECT_EQ(Utils::resolveAlias(alias), Utils::resolveAlias(home.file("plain").c_str()));
    EXPECT_FALSE(Utils::createAlias(alias, folder)) << "a folder is in the way";
    EXPECT_FALSE(Utils::deleteFile(folder));
    EXPECT_TRUE(Utils::deleteFile(alias));
    EXPECT_FALSE(Utils::deleteFile(alias));
    EXPECT_FALSE(Utils::rmdir(home.file("plain").c_str()));
    EXPECT_TRUE(Utils::rmdir(folder));
    EXPECT_FALSE(Utils::rmdir(folder));
    for (const auto operation : {Utils::mkdir, Utils::rmdir, Utils::deleteFile}) {
        EXPECT_FALSE(operation(SoString()));
    }
}

TEST_F(HomeTest, walksATreeOnceWhateverItsLinks) {
    class Collect : public Utils::FileFilter {
    public:
        void onFile(const SoString& path) override { files.emplace_back(path.c_str()); }
        void onFolder(const SoString& path) override { folders.emplace_back(path.c_str()); }
        std::vector<std::string> files;
        std::vector<std::string> folders;
    } found;
    const std::string root = home.file("tree");
    for (const char* folder : {"", "/a", "/a/b", "/c"}) {
        ASSERT_TRUE(Utils::mkdir((root + folder).c_str()));
    }
    home.write("tree/one", "");
    home.write("tree/a/b/two", "");
    ASSERT_EQ(symlink(root.c_str(), (root + "/a/loop").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (root + "/c/dangling").c_str()), 0);
    found.run(root.c_str());
    EXPECT_THAT(found.files, testing::UnorderedElementsAre(root + "/one", root + "/a/b/two",
                                                           root + "/c/dangling"));
    EXPECT_THAT(found.folders, testing::UnorderedElementsAre(root + "/a", root + "/a/b",
                                                             root + "/a/loop", root + "/c"));
    Collect nothing;
    nothing.run("/nonexistent");
    EXPECT_TRUE(nothing.files.empty() && nothing.folders.empty());
}

TEST(Utils, findsTheNextInstanceThatIsNotThere) {
    platform::InForce<platform::Files, platform::FakeFiles> files;
    const std::string folder = "/Library/Application Support/Ovrel/Launch/";
    EXPECT_EQ(Utils::getNextAppInstance("x"), "x");
    files.files[folder + "x"];
    files.files[folder + "x_1"];
    files.files[folder + "x_3"];
    EXPECT_EQ(Utils::getNextAppInstance("x"), "x_2");
}

TEST(Utils, splitsOptionsAtEveryMark) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"", {}},
        {" =;\"':", {}},
        {"a=b; c:'d e'", {"a", "b", "c", "d", "e"}},
        {"-specifier kivra-7.0 -nostartupscreen", {"-specifier", "kivra-7.0", "-nostartupscreen"}},
        {"a\tb\nc", {"a\tb\nc"}},
    };
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text);
        ScObjects::SoVector<SoString> words;
        EXPECT_EQ(Utils::parseOptions(text, words), static_cast<int32_t>(expected.size()));
        std::vector<std::string> found;
        while (words.count() > 0) {
            const std::unique_ptr<SoString> word(words.removeAt(0));
            found.emplace_back(word->c_str());
        }
        EXPECT_EQ(found, expected);
    }
}

} // namespace
