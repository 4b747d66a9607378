#include "caps/tool/DropIns.h"
#include "caps/Store.h"
#include "tests/support/Database.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using caps::Contents;
using caps::Status;
using caps::Store;
using namespace caps::tool;

class DropInsTest : public testing::Test {
protected:
    DropInsTest() {
        std::filesystem::create_directory(folder.file("usr"));
        std::filesystem::create_directory(folder.file("etc"));
    }
    void write(const std::string& file, const std::string& text) const {
        std::ofstream(folder.file(file)) << text;
    }
    static std::string application(const std::string& name, const std::string& path) {
        return "[[application]]\nspecifier = \"" + name + "\"\nPath = \"" + path + "\"\n";
    }
    // What is registered after a synchronisation: "name path", "Group1 value", ...
    std::vector<std::string> synchronised() {
        remarks.clear();
        EXPECT_EQ(applyDropIns(
                      *store,
                      readDropIns({folder.file("usr"), folder.file("etc"), folder.file("missing")}),
                      remarks),
                  Status::ok)
            << store->lastError();
        Contents contents;
        EXPECT_EQ(store->readAll(contents), Status::ok);
        std::vector<std::string> lines;
        for (const caps::Product& product : contents.products) {
            lines.push_back(product.code);
        }
        for (const caps::Subdomain& subdomain : contents.subdomains) {
            for (const caps::KeyValue& entry : subdomain.data) {
                if (entry.key != "Specifier") {
                    lines.push_back(subdomain.name.substr(subdomain.name.rfind('/') + 1) + " " +
                                    entry.value);
                }
            }
        }
        return lines;
    }

    using Lines = std::vector<std::string>;

    TemporaryFolder folder;
    std::unique_ptr<Store> store = openStore(folder.file("caps.db"));
    std::vector<std::string> remarks;
};

TEST_F(DropInsTest, followsWhatPackagesBringAndTake) {
    const std::string group = "[[group]]\nname = \"g\"\nnumber = 7\napplication = ";
    write("usr/a.toml", application("a-1.0", "/a") + group + "\"a-1.*\"\n" +
                            "[[data]]\nsubdomain = \"{x}\"\nvalues = { k = \"of a\" }\n" +
                            "[[product]]\nid = \"P\"\n");
    write("usr/b.toml", application("b-1.0", "/b") + group + "\"b-1.*\"\n" +
                            "[[data]]\nsubdomain = \"{x}\"\nvalues = { l = \"of b\" }\n");
    const std::string groups = "groups /ovrel/convey/groups/g/7/";
    Lines all = {"P",        "a-1.0 /a", groups + "a-1.*", groups + "b-1.*",
                 "{x} of a", "{x} of b", "b-1.0 /b"};
    EXPECT_EQ(synchronised(), all);
    EXPECT_EQ(synchronised(), all) << "and again";

    write("etc/b.toml", application("b-1.0", "/changed") + group + "\"b-1.*\"\n");
    EXPECT_EQ(synchronised(), (Lines{"P", "a-1.0 /a", groups + "a-1.*", groups + "b-1.*",
                                     "{x} of a", "b-1.0 /changed"}))
        << "the administrator's file is in its place";
    write("usr/a.toml", "[[application");
    EXPECT_EQ(synchronised().size(), 6U) << "what a broken file brought stays";
    ASSERT_EQ(remarks.size(), 1U);
    EXPECT_NE(remarks[0].find("a.toml:1:"), std::string::npos) << remarks[0];
    std::filesystem::remove(folder.file("usr/a.toml"));
    EXPECT_EQ(synchronised(), (Lines{groups + "b-1.*", "b-1.0 /changed"}));
    write("etc/b.toml", "");
    EXPECT_EQ(synchronised(), Lines{}) << "masked";
}

TEST_F(DropInsTest, leavesAloneWhatWasWrittenByHand) {
    ASSERT_EQ(store->setDomainData(1, "/ovrel/convey/a-1.0", "Path", "/mine"), Status::ok);
    ASSERT_EQ(store->setDomainData(1, "{x}", "k", "mine"), Status::ok);
    ASSERT_EQ(store->addProduct({"P", {}}), Status::ok);
    write("usr/a.toml", application("a-1.0", "/a") + application("c-1.0", "/c") +
                            "[[data]]\nsubdomain = \"{x}\"\nvalues = { k = \"v\" }\n" +
                            "[[product]]\nid = \"P\"\n[[product.payload]]\nid = \"p\"\n");
    write("usr/b.toml", application("c-1.0", "/second"));
    const Lines mine = {"P", "a-1.0 /mine", "{x} mine", "c-1.0 /c"};
    EXPECT_EQ(synchronised(), mine);
    EXPECT_EQ(remarks.size(), 4U) << "three entries by hand, and one that two files have";
    ASSERT_EQ(store->setDomainData(1, "/ovrel/convey/c-1.0", "DisplayName", "C"), Status::ok);
    std::filesystem::remove(folder.file("usr/a.toml"));
    std::filesystem::remove(folder.file("usr/b.toml"));
    EXPECT_EQ(synchronised(), (Lines{"P", "a-1.0 /mine", "{x} mine", "c-1.0 /c", "c-1.0 C"}))
        << "a value by hand makes the whole entry so";
}

} // namespace
