#include <random>

#include "caps/Reading.h"
#include "caps/RegistryLayout.h"
#include "caps/Store.h"
#include "caps/tool/Checks.h"
#include "scriptobjects/connector/PCDConnector.h"
#include "scriptobjects/convey/SoConvey.h"
#include "tests/support/Database.h"
#include "tests/support/TemporaryFolder.h"

// What the database's tool says of a registry, beside what the layer makes of it through the
// library itself.
namespace {

using caps::Reading;
using caps::Status;
using caps::Store;
using ScObjects::Convey;
using ScObjects::ConveyConnector;

class RandomRegistry {
public:
    explicit RandomRegistry(uint32_t seed) : random_(seed) {}

    // Few words, so that specifiers, redirects, groups and payloads meet each other.
    void fill(Store& store, int applications) {
        std::vector<std::string> specifiers;
        for (int i = 0; i < applications; ++i) {
            specifiers.push_back(specifier());
        }
        for (int i = 0; i < 3; ++i) {
            const std::string code = "{P" + std::to_string(i) + "}";
            caps::Payload payload{code,
                                  "normal",
                                  one({"", "", "", "/opt/P.App/Contents/MacOS/P", "/opt/bin/p"}),
                                  4,
                                  {}};
            if (chance(7)) {
                payload.data.push_back({one({"0", "4"}) == "0" ? 0 : 4, "PYLConfigPath",
                                        one({"/opt/P/a/b/c/d/x.xml", "/opt/P", "x.xml", ""})});
            }
            if (chance(8)) {
                EXPECT_EQ(store.addProduct({"product" + code, {payload}}), Status::ok);
            }
            std::string key = "ConveyCode";
            for (int n = 1; n < 4; ++n) {
                if (chance(8)) { // else a gap
                    set(store, code, key, caps::lowerCase("/ovrel/convey/" + one(specifiers)));
                }
                key = "ConveyCode" + std::to_string(n);
            }
            if (chance(3)) {
                set(store, code, "PYLConfigPath", "/etc/p/1/2/3/4/5.xml");
            }
        }
        for (int i = 0; i < applications; ++i) {
            application(store, specifiers, static_cast<size_t>(i));
        }
        for (int i = 0; i < 4; ++i) {
            set(store, "/ovrel/convey/groups", one({"Group", "x"}) + std::to_string(i),
                "/ovrel/convey/groups/" + one({"7.0", "suite", "g"}) + "/" + one({"7", "8", "x"}) +
                    "/" + one({one(specifiers), "doc-7.*", "kivra-7.*", "lumen"}));
        }
    }

private:
    bool chance(int outOfTen) { return std::uniform_int_distribution(0, 9)(random_) < outOfTen; }
    template <class Word = std::string>
    Word one(const std::vector<Word>& words) {
        return words[std::uniform_int_distribution<size_t>(0, words.size() - 1)(random_)];
    }
    std::string specifier() {
        return one({"kivra", "doc", "Doc", "lumen", "a", "x_2", ""}) +
               one({"", "-7", "-7.0", "-7.00", "-7.50", "-8.1", "-7.", "-0x8.0"}) +
               one({"", "", "", "-en_us", "-de_de", "-EN_US"}) + one({"", "", "", "#1", "#"});
    }
    static void set(Store& store, const std::string& subdomain, const std::string& key,
                    const std::string& value) {
        EXPECT_EQ(store.setDomainData(1, subdomain, key, value), Status::ok);
    }
    void application(Store& store, const std::vector<std::string>& specifiers, size_t position) {
        const std::string subdomain =
            std::string("/ovrel/convey/") + (chance(1) && chance(3) ? "groups/" : "") +
            (chance(3) ? specifiers[position] : std::to_string(position) + one({"", "A", "-7.0"}));
        EXPECT_EQ(store.addSubdomain(1, subdomain), Status::ok);
        struct Field {
            std::vector<std::string> keys;
            std::vector<std::string> values;
        };
        const std::vector<Field> fields = {
            {{"Specifier", "ProductCode"}, {chance(9) ? specifiers[position] : ""}},
            {{"Specifier"}, {specifiers[position]}},
            {{"Path"}, {"/a/b", "/c/D.app", "none", "", "/é'\x01"}},
            {{"Path"}, {"/a/b", "/c/D.app"}},
            {{"RedirectTo"}, {one(specifiers), one(specifiers) + "#9", "nobody", ""}},
            {{"ExecutableBasename"},
             {"prog", "tool", "https://x.ovrel.example/", "https://evil.example/?.ovrel.example",
              "https://evil.example#.ovrel.example", ""}},
            {{"ExecutableExtensionMac"}, {"", "bin"}},
            {{"ConveyVersion"}, {"2.0", "2", "nan", "x"}},
            {{"IsShellTool", "MessageDigest", "DisplayName"}, {"true", "True"}},
        };
        for (int i = 0; i < 5; ++i) {
            const Field field = one(fields);
            set(store, subdomain, one(field.keys), one(field.values));
        }
        if (chance(1)) { // too rare by chance
            set(store, subdomain, "ExecutableBasename", "shell");
            set(store, subdomain, "ExecutableExtensionMac", "");
            set(store, subdomain, "IsShellTool", one({"true", "True"}));
        }
    }

    std::mt19937 random_;
};

TEST(Reading, isThatOfTheLayerForTenThousandRandomRegistrations) {
    // Instrumented builds are slower by an order of magnitude.
    const int registries = std::getenv("CONVEY_TEST_DIVISOR") == nullptr ? 100 : 20;
    constexpr int kApplications = 100;
    const TemporaryFolder folder;
    ScObjects::PCDConnector::setCapsFolder(OVREL_CAPS_FOLDER);
    setenv("LC_ALL", "de_DE.UTF-8", 1);
    int registrations = 0;
    int ignored = 0;
    int withoutPath = 0;
    int others = 0;
    for (uint32_t seed = 1; seed <= static_cast<uint32_t>(registries); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const std::string database = folder.file(std::to_string(seed) + ".db");
        auto store = openStore(database);
        {
            Store::Transaction transaction(*store);
            ASSERT_EQ(transaction.begin(), Status::ok);
            RandomRegistry(seed).fill(*store, kApplications);
            ASSERT_EQ(transaction.commit(), Status::ok);
        }
        caps::Contents contents;
        ASSERT_EQ(store->readAll(contents), Status::ok);
        store.reset();
        const Reading reading(contents, "de_de");

        setenv("OVREL_CAPS_DB", database.c_str(), 1);
        ScObjects::PCDConnector::setCapsFolder(OVREL_CAPS_FOLDER);
        ConveyConnector::InitTerm::init("kivra-7.0");
        ASSERT_TRUE(Convey::InitTerm::init("kivra-7.0", true));
        ASSERT_EQ(Convey::getNumberOfRegisteredApplications(),
                  static_cast<int32_t>(reading.records().size()));
        // And check tells each: the records without a usable path, and those ignored.
        std::multiset<std::string> ends;
        std::multiset<std::string> passedOver;
        for (const auto& finding : caps::tool::checkRegistry(contents, "de_de")) {
            if (finding.harm == caps::tool::Harm::listingEnds) {
                ends.insert(finding.where);
            } else if (finding.why == "it is ignored" && finding.where.starts_with("/ovrel/")) {
                passedOver.insert(finding.where);
            }
        }
        std::multiset<std::string> expected;
        for (const Reading::Ignored& one : reading.ignored()) {
            expected.insert(one.subdomain->name);
        }
        EXPECT_EQ(passedOver, expected);
        expected.clear();
        for (size_t i = 0; i < reading.records().size(); ++i) {
            const Reading::Record& record = reading.records()[i];
            const std::string specifier =
                Convey::getApplicationSpecifier(static_cast<int32_t>(i)).c_str();
            ASSERT_EQ(record.specifier, specifier) << i;
            const Reading::Record* const shown = reading.shown(record);
            ASSERT_EQ(
                shown != nullptr ? shown->path : "",
                Convey::Specifier(specifier.c_str(), true).getApplicationPath(nullptr).c_str())
                << specifier << " of " << record.subdomain->name;
            if (shown == nullptr || shown->path.find('/') == std::string::npos) {
                expected.insert(specifier);
            }
            withoutPath += shown == nullptr || shown->path.find('/') == std::string::npos ? 1 : 0;
            others += shown != nullptr && shown != &record ? 1 : 0;
        }
        EXPECT_EQ(ends, expected);
        registrations += static_cast<int>(reading.records().size() + reading.ignored().size());
        ignored += static_cast<int>(reading.ignored().size());
        Convey::InitTerm::exit();
        ConveyConnector::InitTerm::exit();
    }
    // The generator must not lose what it is there to find.
    EXPECT_GT(registrations, 80 * registries);
    EXPECT_GT(ignored, 5 * registries);
    EXPECT_GT(withoutPath, 5 * registries);
    EXPECT_GT(others, 5 * registries);
}

} // namespace
