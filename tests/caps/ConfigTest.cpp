#include <random>

#include "caps/config/Difference.h"
#include "caps/config/Document.h"
#include "caps/config/Merge.h"
#include "tests/caps/RandomRegistry.h"
#include "tests/support/Database.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using caps::Contents;
using caps::Status;
using caps::Store;
using caps::Subdomain;
using namespace caps::config;

Subdomain application(const std::string& name, const std::string& path, int64_t changed = 0) {
    return {1, "/ovrel/convey/" + name, {{"Specifier", name}, {"Path", path}}, changed};
}

} // namespace
namespace caps::config {
void PrintTo(const Difference& difference, std::ostream* out) {
    *out << lineOf(difference);
}
} // namespace caps::config
namespace {

class ConfigTest : public testing::Test {
protected:
    Store& store() { return *opened; }
    Contents stored() {
        Contents contents;
        EXPECT_EQ(store().readAll(contents), Status::ok);
        return contents;
    }
    Merged take(const Contents& contents, Rule rule) {
        Merged merged;
        std::string reason;
        EXPECT_EQ(merge(store(), contents, rule, merged, reason), Status::ok) << reason;
        return merged;
    }

    TemporaryFolder folder;
    const std::unique_ptr<Store> opened = openStore(folder.file("caps.db"));
};

TEST_F(ConfigTest, comesBackAsTheSameBytesThroughAnEmptyDatabase) {
    const uint32_t seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomRegistry registry(seed);
    for (int round = 0; round < 300; ++round) {
        const Contents contents = registry.make();
        const std::string document = writeDocument(contents);
        SCOPED_TRACE(document);
        ASSERT_EQ(compare(contents, readDocument(document, "d")), std::vector<Difference>{});
        if (round % 20 != 0) {
            continue;
        }
        ASSERT_EQ(store().clear(), Status::ok);
        take(readDocument(document, "d"), Rule::keep);
        Contents again = stored();
        for (size_t i = 0; i < again.subdomains.size(); ++i) { // none is not an old time
            again.subdomains[i].changed *= contents.subdomains[i].changed == 0 ? 0 : 1;
        }
        for (size_t i = 0; i < again.products.size(); ++i) {
            again.products[i].changed *= contents.products[i].changed == 0 ? 0 : 1;
        }
        ASSERT_EQ(writeDocument(again), document);
        std::ofstream(folder.file("d.xml")) << document;
        const ProcessResult result =
            runProcess({XMLLINT, "--noout", "--relaxng", REGISTRY_SCHEMA, folder.file("d.xml")});
        ASSERT_EQ(result.exitStatus, 0) << result.err;
    }
}

TEST_F(ConfigTest, refusesWhatItCannotReadWithLineAndColumn) {
    const std::string head = "<registry xmlns='https://ovrel.example/ns/registry' version='1'>\n";
    const std::pair<std::string, const char*> cases[] = {
        {"", "d:1:1: "},
        {"<registry/>", "d:1:2: not a registry"},
        {"<!DOCTYPE registry [<!ENTITY a 'b'>]>" + head, "d:1:1: a document type"},
        {head + "<application name='a'>&a;</application></registry>", "d:2:23: a reference"},
        {head + "<application name='&#0;'/></registry>", "d:2:20: a reference"},
        {head + "<application name='\xFF'/></registry>", "d:2:20: not a character"},
        {head + "<application name='\x02'/></registry>", "d:2:20: not a character"},
        {head + "<application name='a<'/></registry>", "d:2:21: a '<'"},
        {head + "<application name='a' name='b'/></registry>", "d:2:2: the attribute is said"},
        {head + "<application name='a' size='b'/></registry>", "d:2:2: unknown attribute"},
        {head + "<application name=''/></registry>", "d:2:2: \"name\" has 1"},
        {head + "<application name='groups/x'/></registry>", "d:2:2: the name \"groups\""},
        {head + "<application name='a'/>\n <application name='a'/></registry>", "d:3:3: 1 /ovrel"},
        {head + "<thing/></registry>", "d:2:2: unknown element"},
        {head + "text</registry>", "d:2:1: text where"},
        {head + "</registry>x", "d:2:12: text outside"},
        {head + "</registry><registry/>", "d:2:13: a document has one"},
        {head + "<data subdomain='x' domain='1x'/></registry>", "d:2:2: \"domain\" must be"},
        {head + "<data subdomain='x' changed='2026-02-30T00:00:00Z'/></registry>",
         "d:2:2: \"changed\""},
        {head + "<data subdomain='x'><value key='k' encoding='base64'>/w==</value></data>"
                "</registry>",
         "d:2:22: not a UTF-8 text"},
        {head + "<data subdomain='x'><value key='k'><b/></value></data></registry>",
         "d:2:37: a value is a text"},
        {head + "<a><a><a><a><a><a><a><a>", "d:2:22: more than 8 elements"},
        {head + "<application name='a'>", "d:2:"},
        {"<?xml version='1.0' encoding='latin1'?>" + head + "</registry>", "d:1:3: a config"},
        {"<registry xmlns='https://ovrel.example/ns/registry' version='2'/>",
         "d:1:2: written by a later"},
        {std::string("\xFF\xFE<\0r\0", 6), "d:1:1: not a character"},
    };
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text);
        try {
            (void)readDocument(text, "d");
            ADD_FAILURE() << "read";
        } catch (const DocumentError& error) {
            EXPECT_EQ(std::string(error.what()).rfind(expected, 0), 0U) << error.what();
        }
    }
    EXPECT_EQ(readDocument("<o:registry xmlns:o='https://ovrel.example/ns/registry' version='1'>"
                           "<!-- <&x; --><o:data subdomain='x'><o:value key='k'><![CDATA[&a;<]]>b"
                           "</o:value></o:data></o:registry>",
                           "d")
                  .subdomains,
              (std::vector<Subdomain>{{1, "x", {{"k", "&a;<b"}}}}))
        << "prefixes, comments and sections are XML too";
    for (const Contents& contents :
         {Contents{{}, {{1, "/ovrel/convey/a", {{"Path", "\xFF"}}}}},
          Contents{{}, {{1, "/ovrel/convey/a\x01", {}}}}, Contents{{}, {}, {"subdomain x"}}}) {
        EXPECT_THROW((void)writeDocument(contents), DocumentError);
    }
}

TEST_F(ConfigTest, tellsWhatTurnsOneRegistryIntoAnother) {
    using Kind = Difference::Kind;
    const Contents before{{{"P", {{"{p}", "normal", "/p", 4, {{0, "l", "en"}}}}}},
                          {application("a", "/a"), application("b", "/b"), application("c", "/c"),
                           groups({"suite/7/a", "suite/7/b"})}};
    EXPECT_TRUE(compare(before, before).empty());
    Contents after = before;
    after.products[0].payloads[0].data[0].value = "de";
    after.subdomains[0].data[1].value = "/x";
    after.subdomains[0].data.push_back({"DisplayName", "A"});
    std::swap(after.subdomains[1], after.subdomains[2]);
    after.subdomains.push_back(application("d", "/d"));
    after.subdomains[3] = groups({"suite/8/a"});
    const std::vector<Difference> rows = {
        {Kind::changed, "payload {p}", "0 l", "en", "de"},
        {Kind::changed, "application a", "Path", "/a", "/x"},
        {Kind::added, "application a", "DisplayName", "", "A"},
        {Kind::added, "application d", ""},
        {Kind::moved, "application b", ""},
        {Kind::removed, "group suite b", ""},
        {Kind::changed, "group suite a", "number", "7", "8"},
    };
    std::vector<Difference> told = compare(before, after);
    EXPECT_EQ(told.size(), rows.size());
    for (const Difference& row : rows) {
        EXPECT_NE(std::find(told.begin(), told.end(), row), told.end()) << lineOf(row);
    }
    EXPECT_EQ(compare(after, before).size(), rows.size()) << "as many in the other direction";
}

TEST_F(ConfigTest, mergesByTheRuleThatIsChosen) {
    const Contents here{{}, {application("a", "/here", 2000), groups({"suite/7/a", "suite/7/b"})}};
    Contents other{{},
                   {application("a", "/other", 1000), application("b", "/b"),
                    groups({"suite/8/a", "suite/7/c"})}};
    other.subdomains[1].data.push_back({"SkipImport", "true"});
    const std::tuple<Rule, int64_t, const char*, const char*> cases[] = {
        {Rule::keep, 3000, "/here", "7"},
        {Rule::replace, 1000, "/other", "8"},
        {Rule::newer, 1000, "/here", "7"},
        {Rule::newer, 0, "/here", "7"},
        {Rule::newer, 3000, "/other", "7"}};
    for (const auto& [rule, changed, path, number] : cases) {
        ASSERT_EQ(store().clear(), Status::ok);
        take(here, Rule::keep);
        other.subdomains[0].changed = changed;
        const Merged merged = take(other, rule);
        const Contents result = stored();
        ASSERT_EQ(result.subdomains.size(), 2U) << "what is to be skipped is left out";
        EXPECT_EQ(merged.skipped, 1U);
        EXPECT_EQ(result.subdomains[0].data[1].value, path);
        const std::string group = "/ovrel/convey/groups/suite/";
        EXPECT_EQ(result.subdomains[1].data,
                  (std::vector<caps::KeyValue>{{"Group1", group + number + "/a"},
                                               {"Group2", group + "7/b"},
                                               {"Group3", group + "7/c"}}))
            << "a key that is taken is another one";
    }
    ASSERT_EQ(store().addProduct({"P", {{"{p}", "normal", "/p", 4, {}}}}), Status::ok);
    Merged merged;
    std::string reason;
    EXPECT_EQ(merge(store(), {{{"Q", {{"{p}", "normal", "/q", 4, {}}}}}, {}}, Rule::replace, merged,
                    reason),
              Status::invalidArgument);
    EXPECT_EQ(reason, "payload {p} belongs to product P");
}

TEST_F(ConfigTest, removesOneThoseOfAProductOfAFolderOrAll) {
    const Contents all{{{"P", {{"{p}", "normal", "/p", 4, {}}}}},
                       {application("a", "/opt/x/a"),
                        application("b", "/opt/xy/b"),
                        application("c", "/c"),
                        {1, "{p}", {{"ConveyCode", "/ovrel/convey/c"}}},
                        groups({"suite/7/a"}),
                        {2, "/other", {{"k", "v"}}}}};
    const std::tuple<Selection, std::vector<std::string>, size_t> cases[] = {
        {{"A", "", "", false}, {"b", "c", "{p}", "groups", "/other"}, 1},
        {{"", "P", "", false}, {"a", "b", "groups", "/other"}, 0},
        {{"", "", "/opt/x/", false}, {"b", "c", "{p}", "groups", "/other"}, 1},
        {{"", "", "", true}, {"{p}", "/other"}, 1},
    };
    for (const auto& [selection, remaining, products] : cases) {
        ASSERT_EQ(store().clear(), Status::ok);
        take(all, Rule::keep);
        EXPECT_EQ(removeSelected(store(), selection), Status::ok);
        const Contents result = stored();
        std::vector<std::string> left;
        for (const Subdomain& subdomain : result.subdomains) {
            const std::string prefix = "/ovrel/convey/";
            left.push_back(subdomain.name.rfind(prefix, 0) == 0
                               ? subdomain.name.substr(prefix.size())
                               : subdomain.name);
        }
        EXPECT_EQ(left, remaining);
        EXPECT_EQ(result.products.size(), products);
        EXPECT_EQ(removeSelected(store(), selection), Status::nothingThere);
    }
}

} // namespace
