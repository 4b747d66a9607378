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
    const std::tuple<const char*, const char*, Offered> cases[] = {
        {"lumen-2.5-en_us", "desk", Offered::launch},   {"lumen-2.5", "anna-2", Offered::launch},
        {"lumen-2.5", "anna", Offered::nothing},        {"lumen", "desk", Offered::nothing},
        {"xlumen-2.5", "desk", Offered::nothing},       {"kivra-7.0", "anybody", Offered::use},
        {"kivra-7.0#thread", "desk", Offered::nothing}, {"kivra-7x0", "desk", Offered::nothing},
    };
    for (const auto& [app, link, offered] : cases) {
        EXPECT_EQ(configuration.offered(app, link), offered) << app;
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
    EXPECT_TRUE(matches("a*bc*c", "abbcc"));
    EXPECT_FALSE(matches("ab*ba", "aba"));
    EXPECT_FALSE(matches("a?b", "axb")); // only the star means anything
}

} // namespace
} // namespace convey_link
