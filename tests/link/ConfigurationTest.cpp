#include "link/Configuration.h"

namespace convey_link {
namespace {

constexpr const char* kWhole = R"(
realm = "studio"
name = "workshop"
servers = ["tls://n1.example:4222"]
[tls]
ca = "ca.pem"
cert = "/etc/workshop.pem"
key = "workshop.key"
[[offer]]
app = "lumen-*"
to = ["desk", "anna-*"]
launch = true
[[offer]]
app = "kivra-7.0"
to = ["*"]
[[use]]
app = "diary-1.0"
at = "desk"
)";

TEST(ConfigurationTest, offersWhatIsWrittenAndNothingElse) {
    Configuration configuration;
    std::vector<std::string> faults;
    ASSERT_TRUE(parseConfiguration(kWhole, "/home/x", configuration, faults)) << faults[0];
    EXPECT_TRUE(configuration.tls);
    EXPECT_EQ(configuration.ca, "/home/x/ca.pem");
    EXPECT_EQ(configuration.certificate, "/etc/workshop.pem");
    const std::tuple<const char*, const char*, bool, bool> cases[] = {
        {"lumen-2.5-en_us", "desk", true, true},    {"lumen-2.5", "anna-2", true, true},
        {"lumen-2.5", "anna", false, false},        {"lumen", "desk", false, false},
        {"xlumen-2.5", "desk", false, false},       {"kivra-7.0", "anybody", true, false},
        {"kivra-7.0#thread", "desk", false, false}, {"kivra-7x0", "desk", false, false},
    };
    for (const auto& [app, link, offered, launches] : cases) {
        bool launch = false;
        EXPECT_EQ(configuration.isOffered(app, link, launch), offered) << app;
        EXPECT_EQ(launch, launches) << app;
    }
}

TEST(ConfigurationTest, saysWhatIsWrong) {
    const struct {
        const char* from;
        const char* to;
        const char* fault;
    } cases[] = {
        {"realm = \"studio\"", "", "realm: "},
        {"\"studio\"", "\"a.b\"", "realm: "},
        {"\"workshop\"", "\"work shop\"", "name: "},
        {"tls://n1.example:4222", "n1.example", "servers: "},
        {"[\"tls://n1.example:4222\"]", "[]", "servers: "},
        {"key = \"workshop.key\"", "", "tls: "},
        {"launch = true", "launch = \"yes\"", "launch: "},
        {"launch = true", "lunch = true", "offer: lunch"},
        {"\"anna-*\"", "\"anna.*\"", "offer: "},
        {"\"diary-1.0\"", "\"diary\"", "use: "},
        {"\"diary-1.0\"", "\"diary-*\"", "use: "},
        {"\"diary-1.0\"", "\"Diary-1.0\"", "use: "},
        {"at = \"desk\"", "at = \"workshop\"", "use: "},
        {"at = \"desk\"", "at = \"desk\"\ndurable = 1", "durable: "},
        {"at = \"desk\"", "at = \"desk\"\n[[use]]\napp = \"diary-1.0\"\nat = \"x\"", "use: "},
        {"[[use]]", "[[use", "line "},
        {"[[use]]", "[.use]", "line "}, // no key where one begins
    };
    for (const auto& one : cases) {
        std::string text = kWhole;
        text.replace(text.find(one.from), std::string(one.from).size(), one.to);
        Configuration configuration;
        std::vector<std::string> faults;
        EXPECT_FALSE(parseConfiguration(text, "/", configuration, faults)) << one.to;
        EXPECT_TRUE(
            std::any_of(faults.begin(), faults.end(),
                        [&one](const std::string& fault) { return fault.starts_with(one.fault); }))
            << one.to << ": " << (faults.empty() ? "" : faults[0]);
    }
}

TEST(ConfigurationTest, matchesPatternsWithoutTryingForEver) {
    const std::string stars(200, '*');
    EXPECT_TRUE(matches(stars, std::string(10'000, 'a')));
    std::string many;
    for (int i = 0; i < 100; ++i) {
        many += "*a";
    }
    EXPECT_FALSE(matches(many + "b", std::string(10'000, 'a')));
    EXPECT_TRUE(matches("a*b*", "axxbyy"));
    EXPECT_FALSE(matches("a?b", "axb")); // only the star means anything
}

} // namespace
} // namespace convey_link
