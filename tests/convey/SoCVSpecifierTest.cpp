#include "scriptobjects/convey/SoCVSpecifier.h"

#include <random>

#include "platform/fake/Fakes.h"
#include "tests/support/TableConnector.h"

using ScObjects::Convey;
using ScObjects::SoString;
using Specifier = ScObjects::Convey::Specifier;

namespace {

class SpecifierTest : public testing::Test {
protected:
    static std::string fixedUp(const std::string& text) {
        return Specifier(text.c_str(), true).c_str();
    }

    platform::InForce<platform::Locale, platform::FakeLocale> locale; // en_US
};

TEST_F(SpecifierTest, findsItsParts) {
    // A text, and its name, instance, version, locale and suffix.
    const std::pair<const char*, const char*> cases[] = {
        {"kivra", "kivra||||"},
        {"App_2-3.0-de_DE#Ping", "app|2|3.0|de_de|ping"},
        {"app-suite", "app|||suite|"},
        {"app-en_us", "app|||en_us|"},
        {"app#x-1.0", "app||||x-1.0"},
        {"app_3", "app|3|||"},
        {"app-1.0_3", "app||1.0_3||"},
        {"app-1.0#", "app||1.0||"},
        {"app_1#a#b", "app|1|||a#b"},
        {"app-1.0-x-y", "app||1.0|x-y|"},
        {"app--1.0", "app|||-1.0|"},
        {"#s", "||||s"},
        {"_-#", "||||"},
        {"", "||||"},
    };
    for (const auto& [text, expected] : cases) {
        const Specifier specifier(text, false);
        SoString parts = specifier.appName();
        parts << '|' << specifier.instance() << '|' << specifier.version() << '|'
              << specifier.locale() << '|' << specifier.suffix();
        EXPECT_STREQ(parts.c_str(), expected) << text;
    }
}

TEST_F(SpecifierTest, acceptsUpTo255Bytes) {
    EXPECT_EQ(Specifier(std::string(255, 'a').c_str(), true).length(), 255);
    EXPECT_TRUE(Specifier(std::string(256, 'a').c_str(), true).isEmpty());
    EXPECT_TRUE(Specifier(nullptr, true).isEmpty());
    EXPECT_FALSE(Specifier(nullptr, true).isInstalled());
}

TEST_F(SpecifierTest, isRebuiltInCanonicalOrder) {
    const struct {
        const char* text;
        void (*change)(Specifier&);
        const char* expected;
    } cases[] = {
        {"app-1.0#", [](Specifier& s) { s.setInstance(""); }, "app-1.0"},
        {"app-1.0-x#s", [](Specifier& s) { s.setInstance("2"); }, "app_2-1.0-x#s"},
        {"app_2-1.0#s", [](Specifier& s) { s.setSuffix(""); }, "app_2-1.0"},
        {"app-suite", [](Specifier& s) { s.setSuffix("s"); }, "app-suite#s"},
        {"app_1-1.0-x#s", [](Specifier& s) { s.setAppName("other"); }, "other_1-1.0-x#s"},
        {"app#s", [](Specifier& s) { s.setSuffix(s.suffix()); }, "app#s"},
        {"app-x", [](Specifier& s) { s.setGroup("SUITE"); }, "app-suite"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        Specifier specifier(c.text, false);
        c.change(specifier);
        EXPECT_STREQ(specifier.c_str(), c.expected);
    }
}

TEST_F(SpecifierTest, isCompletedFromTheRegistry) {
    const StartedLayer layer("own-1.0",
                             {"app-10.0-en_us", "app-10.5-en_us", "app-11.0-en_us",
                              "multi-1.0-de_de", "multi-1.0-en_us", "multi-1.0", "multi-2.0-fr_fr",
                              "bare", "Caps-3.0", "own-1.0", "late-1.0", "late-1.0-en_us"});
    ASSERT_TRUE(layer.started);
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"App-10", "app-10.5-en_us", "the last of the highest within the major version"},
        {"App-10#S", "app-10.5-en_us#s", "the suffix stays"},
        {"app_7-10", "app_7-10.5-en_us", "the instance stays"},
        {"app", "app-11.0-en_us", "any version"},
        {"app-10.0", "app-10.0-en_us", "an exact version"},
        {"app-10.00", "app-10.0-en_us", "versions are numbers"},
        {"app-12", "app-12", "no such major version"},
        {"app-9.9", "app-9.9", "no such version"},
        {"app-10.0-de_de", "app-10.0-de_de", "an explicit locale is not resolved"},
        {"multi-1.0", "multi-1.0-en_us", "the first for the user's locale, or for all"},
        {"multi-2.0", "multi-2.0-fr_fr", "another locale is better than none"},
        {"multi", "multi-2.0-fr_fr", "a higher version in another locale wins"},
        {"multi-1", "multi-1.0", "the last of the highest in the user's locale, or for all"},
        {"bare", "bare", "registered without a version"},
        {"caps-3.0", "caps-3.0", "compared in lower case"},
        {"late", "late-1.0-en_us", "a later registration of the same version replaces"},
        {"NoSuch_1-2#X", "nosuch_1-2#x", "unknown names are only lower-cased"},
        {"own", "own-1.0", "the caller's own application runs"},
    };
    for (const auto& [text, expected, why] : cases) {
        SCOPED_TRACE(testing::Message() << text << ": " << why);
        EXPECT_EQ(fixedUp(text), expected);
    }
    locale.text = "de_DE";
    EXPECT_EQ(fixedUp("multi-1.0"), "multi-1.0-de_de");
    locale.readable = false;
    EXPECT_EQ(fixedUp("multi-1.0"), "multi-1.0-en_us");
}

TEST_F(SpecifierTest, choosesRegisteredVersionsAndLocales) {
    const StartedLayer layer("own-1.0", {"app-8.0-en_us", "app-9.0-en_us", "app-9.5-en_us",
                                         "app-10.0-en_us", "app-9.2-de_de", "all-2.0"});
    const std::tuple<const char*, const char*, bool, const char*> cases[] = {
        {"app", "-9", true, "app-9.0-en_us"},
        {"app#s", "-9.99", true, "app-9.5-en_us#s"},
        {"app_3", "8", true, "app_3-8.0-en_us"},
        {"app", "8.5", false, "app"},
        {"app-1.0-de_de", "-99", true, "app-9.2-de_de"},
        {"app", "-0.5", false, "app"},
        {"app", "", false, "app"},
        {"all-1.0-fr_fr", "2", true, "all-2.0"},
        {"other", "-9", false, "other"},
    };
    for (const auto& [text, version, found, expected] : cases) {
        SCOPED_TRACE(testing::Message() << text << " to " << version);
        Specifier specifier(text, false);
        EXPECT_EQ(specifier.setVersion(version), found);
        EXPECT_STREQ(specifier.c_str(), expected);
    }
    Specifier specifier("app-9.2#s", false);
    EXPECT_FALSE(specifier.setLocale("fr_fr"));
    EXPECT_STREQ(specifier.c_str(), "app-9.2#s");
    EXPECT_TRUE(specifier.setLocale("de_de"));
    EXPECT_STREQ(specifier.c_str(), "app-9.2-de_de#s");
    Specifier all("all-2.0-xx", false);
    EXPECT_TRUE(all.setLocale(""));
    EXPECT_STREQ(all.c_str(), "all-2.0");
}

TEST_F(SpecifierTest, completesOtherApplicationsByTheGroupOfTheCaller) {
    const std::vector<std::string> groups = {"suite/7.0/kivra-7.*", "suite/7.0/lumen-2.*",
                                             "old/6.0/lumen-1.0"};
    {
        const StartedLayer layer(
            "kivra-7.0", {"kivra-7.0", "lumen-1.0", "lumen-2.0", "lumen-2.5", "lumen-3.0"}, groups);
        EXPECT_EQ(fixedUp("lumen"), "lumen-2.5") << "the highest 2.x, not 3.0 and never a kivra";
        EXPECT_EQ(fixedUp("lumen_4#s"), "lumen_4-2.5#s");
        EXPECT_EQ(fixedUp("kivra"), "kivra-7.0");
        const Specifier own("kivra-7.0", false);
        SoString number;
        EXPECT_STREQ(own.group(&number).c_str(), "suite");
        EXPECT_STREQ(number.c_str(), "7.0");
        EXPECT_STREQ(own.preferred("lumen", "old").c_str(), "lumen-1.0");
        EXPECT_STREQ(own.preferred("lumen", "6").c_str(), "lumen-1.0") << "a group by its number";
        EXPECT_STREQ(own.preferred("lumen", "").c_str(), "lumen-2.5");
        EXPECT_STREQ(own.preferred("nosuch", "suite").c_str(), "nosuch");
    }
    {
        const StartedLayer layer("lumen-2.0", {"lumen-2.0", "lumen-2.5"}, {"g/2.0/lumen-2.*"});
        EXPECT_EQ(fixedUp("lumen"), "lumen-2.0") << "the one that runs, not the highest";
    }
}

TEST_F(SpecifierTest, endsForACallerWithoutAVersion) {
    const StartedLayer layer("tool", {"tool", "app", "app-8.0", "app-7.2"},
                             {"suite/1.0/tool-1.0", "suite/7.0/app-7.*"});
    ASSERT_TRUE(layer.started);
    EXPECT_STREQ(Convey::getSharedAppName().c_str(), "tool");
    // The group's pattern is not installed as it stands, so every registration of the application
    // is looked at, among them one that would need completing itself.
    EXPECT_EQ(fixedUp("app"), "app-7.2");
    EXPECT_EQ(fixedUp("tool"), "tool");
    EXPECT_FALSE(Specifier::isFixUpUnderWay());
}

TEST_F(SpecifierTest, answersNeutrallyWithoutALayer) {
    const Specifier specifier("app", true);
    EXPECT_STREQ(specifier.c_str(), "app");
    EXPECT_TRUE(specifier.getApplicationPath(nullptr).isEmpty());
    EXPECT_FALSE(specifier.isInstalled());
    EXPECT_FALSE(specifier.isRunning());
    SoString detail("old");
    EXPECT_TRUE(specifier.group(&detail).isEmpty());
    EXPECT_TRUE(detail.isEmpty());
    EXPECT_STREQ(specifier.preferred("other", "").c_str(), "app");
    EXPECT_FALSE(specifier.registerApplication("/x", nullptr, true));
    EXPECT_EQ(Convey::getNumberOfRegisteredApplications(), 0);
    EXPECT_TRUE(Convey::getApplicationSpecifier(0).isEmpty());
    EXPECT_TRUE(Convey::Thread::ping("app", nullptr, 2, nullptr).isEmpty());
    EXPECT_FALSE(Convey::InitTerm::exit());
}

TEST_F(SpecifierTest, partsOfRandomTextsPutTogetherGiveTheSameParts) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const std::string alphabet = "ab19.-_#";
    for (int i = 0; i < 20'000; ++i) {
        std::string text;
        for (size_t n = random() % 16; n > 0; --n) {
            text += alphabet[random() % alphabet.size()];
        }
        SCOPED_TRACE(text);
        const Specifier before(text.c_str(), false);
        Specifier after(text.c_str(), false);
        after.setSuffix(after.suffix());
        // Marks without a part behind them go; what is there stays where it was.
        ASSERT_EQ(after.appName(), before.appName());
        ASSERT_EQ(after.instance(), before.instance());
        ASSERT_EQ(after.suffix(), before.suffix());
        Specifier again = after;
        again.setSuffix(again.suffix());
        ASSERT_EQ(again.compare(after), 0);
    }
}

TEST(Convey, startsOnceAndAnswersFromTheRegistry) {
    const StartedLayer layer("kivra-7.0", {"kivra-7.0", "lumen-2.0"});
    ASSERT_TRUE(layer.started);
    EXPECT_FALSE(Convey::InitTerm::init("kivra-7.0", true)) << "it is started already";
    EXPECT_EQ(layer.connector->readings, 1) << "the registry is read once";
    EXPECT_STREQ(Convey::getApplicationSpecifier(-1).c_str(), "test");
    EXPECT_STREQ(Convey::getApplicationSpecifier(1).c_str(), "lumen-2.0");
    EXPECT_TRUE(Convey::getApplicationSpecifier(2).isEmpty());
    EXPECT_TRUE(Convey::getApplicationSpecifier(-2).isEmpty());
    EXPECT_STREQ(Convey::getDisplayName("lumen", "", "").c_str(), "lumen-2")
        << "the last component of the path, without its extension";
    layer.connector->clearCache();
    EXPECT_EQ(Convey::getNumberOfRegisteredApplications(), 2);
    EXPECT_EQ(layer.connector->readings, 2);
}

} // namespace
