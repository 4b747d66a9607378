#include "scriptobjects/core/SoNumber.h"

#include <clocale>
#include <cmath>
#include <random>

#include "scriptobjects/core/SoString.h"
#include "tests/support/TemporaryFolder.h"

using ScObjects::parseNumber;
using ScObjects::parseUnsigned32;

namespace {

// The tests run in the "C" locale, in which the C library's own strtod is the model: for what
// random texts do not hit, and for these.
TEST(SoNumber, readsWhatStrtodReadsInTheCLocale) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const std::string alphabet = "0123456789..eEpP+-xa ";
    std::vector<std::string> texts = {"inf",      "-INF",     "infinity",  "nan",
                                      "abc",      "1e400",    "-1e400",    "1e-400",
                                      "7,5",      "0x1p5000", "0x1p-5000", "99999999999999999999",
                                      "4.9e-324", "\t\n\v9"};
    // The exponent against the place of the digits.
    const std::string zeros(400, '0');
    for (const std::string& text :
         {"0." + zeros + "1", "0." + zeros + "1e5", "0." + zeros + "1e401", "1" + zeros,
          "-1" + zeros + "e-10", "1" + zeros + "e-400", std::string("1e99999999999999999999"),
          std::string("1e-99999999999999999999"), "0x0." + zeros + "1p+5", "0x1" + zeros + "p-10",
          std::string("0x7P+-2")}) {
        texts.push_back(text);
    }
    for (int i = 0; i < 50'000; ++i) {
        texts.emplace_back(i % 2 == 0 ? "" : "0x");
        for (size_t n = random() % 12; n > 0; --n) {
            texts.back() += alphabet[random() % alphabet.size()];
        }
    }
    for (const std::string& text : texts) {
        const double expected = std::strtod(text.c_str(), nullptr);
        const double actual = parseNumber(text.c_str());
        ASSERT_TRUE(actual == expected || (std::isnan(actual) && std::isnan(expected))) << text;
    }
    EXPECT_EQ(parseNumber(nullptr), 0.0);
}

TEST(SoNumber, readsTheSameUnderALocaleWithADecimalComma) {
    const TemporaryFolder folder;
    const std::string command =
        "localedef -i de_DE -f UTF-8 " + folder.file("de_DE.UTF-8") + " >/dev/null 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0) << "the package \"locales\" is missing";
    setenv("LOCPATH", folder.file("").c_str(), 1);
    ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr);
    ASSERT_EQ(std::strtod("7,5", nullptr), 7.5) << "the locale is in force";
    EXPECT_EQ(parseNumber("7.5"), 7.5);
    EXPECT_EQ(parseNumber("7,5"), 7.0);
    ScObjects::SoString text;
    text << 1234567.0 << ' ' << 1234567;
    EXPECT_STREQ(text.c_str(), "1234567 1234567");
    std::setlocale(LC_ALL, "C");
}

TEST(SoNumber, readsWholeNumbersAs32BitStrtoulDoes) {
    const std::pair<const char*, uint32_t> cases[] = {{"", 0},
                                                      {"12abc", 12},
                                                      {"  7", 7},
                                                      {" ", 0},
                                                      {" 1234567890", 1234567890},
                                                      {" 4294967296", 4294967295},
                                                      {" -1", 4294967295},
                                                      {"-1", 4294967295},
                                                      {"4294967295", 4294967295},
                                                      {"4294967296", 4294967295},
                                                      {"99999999999999999999999", 4294967295},
                                                      {"-4294967296", 4294967295},
                                                      {"+5", 5},
                                                      {"--5", 0},
                                                      {"0x10", 0}};
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(parseUnsigned32(text), expected);
    }
    EXPECT_EQ(parseUnsigned32(nullptr), 0U);
}

} // namespace
