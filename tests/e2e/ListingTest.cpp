#include <csignal>

#include "tests/support/Database.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using caps::Status;
using caps::Store;

constexpr const char* kEmptyListing = "<products>\n</products>\n";

// The real program on a database of the test's own.
class ListingTest : public testing::Test {
protected:
    void add(const std::string& specifier, const std::string& path) const {
        const std::string subdomain = "/ovrel/convey/" + specifier;
        EXPECT_EQ(store->setDomainData(1, subdomain, "Specifier", specifier), Status::ok);
        EXPECT_EQ(store->setDomainData(1, subdomain, "Path", path), Status::ok);
    }

    ProcessResult run(std::vector<std::string> arguments = {},
                      std::map<std::string, std::string> environment = {}) const {
        arguments.insert(arguments.begin(), program);
        // Nothing of the user's own gets in, and nothing of the machine's.
        std::map<std::string, std::string> all = {
            {"OVREL_CAPS_DB", database},
            {"OVREL_CAPS_SYSTEM_DB", folder.file("system.db")},
            {"HOME", folder.file("home")},
            {"XDG_DATA_HOME", ""},
            {"LC_ALL", "en_US.UTF-8"}};
        for (const auto& [name, value] : environment) {
            all[name] = value;
        }
        return runProcess(arguments, all);
    }

    void expectListing(const std::string& listing,
                       const std::map<std::string, std::string>& environment = {}) const {
        const ProcessResult result = run({}, environment);
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(result.signal, 0);
        EXPECT_EQ(result.out, listing);
        EXPECT_EQ(result.err, "");
    }

    // What was not found may be there all the same: the status says so, and one line why.
    void expectUnknown(const std::string& reason, const std::string& file) const {
        SCOPED_TRACE(file);
        for (const bool checks : {false, true}) {
            const ProcessResult result =
                run(checks ? std::vector<std::string>{"check_running", "viewer-1.0"}
                           : std::vector<std::string>{},
                    {{"OVREL_CAPS_DB", file}});
            EXPECT_EQ(result.exitStatus, checks ? 0 : 1);
            EXPECT_EQ(result.out, checks ? "<product specifier='viewer-1.0' "
                                           "running_response='UNDEFINED' />\n"
                                         : kEmptyListing);
            EXPECT_EQ(result.err.find("convey: the registry cannot be read: " + file + ": "), 0U)
                << result.err;
            EXPECT_NE(result.err.find(reason), std::string::npos) << result.err;
            EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        }
    }

    TemporaryFolder folder;
    std::string database = folder.file("caps.db");
    std::string program = KIVRA_CONVEY_CMD;
    std::unique_ptr<Store> store = openStore(database);
};

TEST_F(ListingTest, printsEachApplicationOnALine) {
    add("kivra-7.0", "/opt/Kivra & <Co>/Kivra's.app");
    add("lumen-2.0-en_us", "/opt/L\xC3\xBCmen/L.app");
    add("a&b<c>", "/x/\"y\"");
    const caps::Payload payload{"{p}",
                                "normal",
                                "",
                                4,
                                {{0, "installedLanguages", "L1,de_DE"},
                                 {0, "PYLConfigPath", "/opt/L\xC3\xBCmen/PYL/a.xml"},
                                 {0, "INSTALLDIR", "/opt"},
                                 {6, "L1", "fr_FR"}}};
    ASSERT_EQ(store->addProduct({"P", {payload}}), Status::ok);
    std::string listing =
        "<products>\n"
        "<product specifier='kivra-7.0' path='/opt/Kivra &amp; &lt;Co&gt;/Kivra's.app' "
        "locale='de_DE'/>\n"
        "<product specifier='lumen-2.0-en_us' path='/opt/L\xC3\xBCmen/L.app' "
        "locale='fr_FR,de_DE'/>\n"
        "<product specifier='a&amp;b&lt;c&gt;' path='/x/\"y\"' locale='de_DE'/>\n"
        "</products>\n";
    expectListing(listing, {{"LC_ALL", "de_DE.UTF-8"}});
    // Of products of which nothing is known: where the user has no locale, either.
    for (size_t at = 0; (at = listing.find("'de_DE'", at)) != std::string::npos;) {
        listing.replace(at, 7, "'en_US'");
    }
    expectListing(listing, {{"LC_ALL", "C"}, {"LANG", "de_DE"}});
    EXPECT_EQ(
        run({"check_running", "no<&amp;>'such"}).out,
        "<product specifier='no&lt;&amp;amp;&gt;'such' running_response='ISNOTINSTALLED' />\n");
}

TEST_F(ListingTest, listsForAnyArgumentsButTwo) {
    add("kivra-7.0", "/opt/k/K.app");
    const std::string listing = run().out;
    EXPECT_NE(listing.find("kivra-7.0"), std::string::npos);
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"check_running"},
                                                      {"a", "b", "c"},
                                                      {"a", "b", "c", "d"},
                                                      {"--help"}}) {
        EXPECT_EQ(run(arguments).out, listing) << arguments[0];
    }
    for (const char* command : {"CHECK_RUNNING", "check_runnin", "", "list"}) {
        const ProcessResult result = run({command, "kivra-7.0"});
        EXPECT_EQ(result.out + result.err, "");
        EXPECT_EQ(result.exitStatus, 0);
    }
}

TEST_F(ListingTest, isEmptyWithoutADatabaseAndSaysWhenOneCannotBeRead) {
    expectListing(kEmptyListing);
    add("kivra-7.0", "/opt/k/K.app");
    store.reset();
    expectListing(kEmptyListing, {{"OVREL_CAPS_DB", folder.file("none.db")}});
    EXPECT_FALSE(std::filesystem::exists(folder.file("none.db")));
    expectListing(kEmptyListing, {{"OVREL_CAPS_DB", ""}});
    expectUnknown("not a file", folder.file(""));
    const std::string whole = TemporaryFolder::read(database);
    for (const size_t length : {0UL, 1UL, 100UL, 4096UL, 5000UL}) {
        expectUnknown("", folder.write("cut.db", whole.substr(0, length)));
    }
    expectUnknown("file is not a database", folder.write("junk.db", std::string(9999, '?')));
    // A user's own lies over a system's that cannot be read: what is the user's is listed.
    std::filesystem::create_directories(folder.file("home/.local/share/ovrel"));
    std::filesystem::copy_file(database, folder.file("home/.local/share/ovrel/caps.db"));
    const ProcessResult both = run({}, {{"OVREL_CAPS_DB", ""},
                                        {"XDG_DATA_HOME", "relative"}, // which does not count
                                        {"OVREL_CAPS_SYSTEM_DB", folder.file("junk.db")}});
    EXPECT_EQ(both.exitStatus, 1);
    EXPECT_EQ(both.out, "<products>\n<product specifier='kivra-7.0' path='/opt/k/K.app' "
                        "locale='en_US'/>\n</products>\n");
    EXPECT_NE(both.err.find("junk.db"), std::string::npos) << both.err;
}

TEST_F(ListingTest, isEmptyWithoutTheDatabaseLibrary) {
    add("kivra-7.0", "/opt/k/K.app");
    std::filesystem::copy_file(KIVRA_CONVEY_CMD, folder.file("KivraConveyCmd"));
    program = folder.file("KivraConveyCmd");
    const auto expectNone = [this](int status) {
        const auto result = run();
        EXPECT_EQ(result.exitStatus, status);
        EXPECT_EQ(result.out, kEmptyListing);
        EXPECT_EQ(result.err.find("convey: no database library: tried " + folder.file("")), 0U)
            << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << "said once";
    };
    expectNone(0);
    const std::string framework = folder.file("Frameworks/ovrel_caps.framework");
    std::filesystem::create_directories(framework);
    folder.write("Frameworks/ovrel_caps.framework/ovrel_caps", "no library");
    expectNone(1); // one that is there and does not load
    std::filesystem::copy_file(OVREL_CAPS_LIBRARY, framework + "/ovrel_caps",
                               std::filesystem::copy_options::overwrite_existing);
    EXPECT_NE(run().out, kEmptyListing) << "found in the program's Frameworks";
}

TEST_F(ListingTest, isWholeWhileAWriterHoldsTheDatabase) {
    add("kivra-7.0", "/opt/k/K.app");
    const std::string listing = run().out;
    Store::Transaction transaction(*store);
    ASSERT_EQ(transaction.begin(), Status::ok);
    add("lumen-2.0", "/opt/l/L.app");
    EXPECT_EQ(run().out, listing);
    ASSERT_EQ(transaction.commit(), Status::ok);
    EXPECT_NE(run().out, listing);
}

TEST_F(ListingTest, saysWhenAnotherProgramHasTheDatabaseForItself) {
    add("kivra-7.0", "/opt/k/K.app");
    store.reset();
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(database.c_str(), &other), SQLITE_OK);
    // What it has written lies beside the database, and nobody else may look there.
    ASSERT_EQ(sqlite3_exec(other,
                           "PRAGMA locking_mode = EXCLUSIVE; UPDATE domain_data SET value = value",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    expectUnknown("locked", database);
    sqlite3_close(other);
}

TEST_F(ListingTest, endsAbnormallyAtAPathWithoutAFolder) {
    add("kivra-7.0", "/opt/k/K.app");
    add("bad-1.0", "nofolder");
    add("lumen-2.0", "/opt/l/L.app");
    const ProcessResult result = run();
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(result.out, "<products>\n<product specifier='kivra-7.0' path='/opt/k/K.app' "
                          "locale='en_US'/>\n");
}

TEST_F(ListingTest, isWellFormedAndCompleteForTenThousandApplications) {
    {
        Store::Transaction transaction(*store);
        ASSERT_EQ(transaction.begin(), Status::ok);
        for (int i = 0; i < 10'000; ++i) {
            add("app" + std::to_string(i) + "-1." + std::to_string(i % 10),
                "/opt/<" + std::to_string(i) + ">&\xC3\xA4/A.app");
        }
        ASSERT_EQ(transaction.commit(), Status::ok);
    }
    const ProcessResult result = run();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 10'002);
    EXPECT_NE(result.out.find("<product specifier='app9999-1.9' "
                              "path='/opt/&lt;9999&gt;&amp;\xC3\xA4/A.app' locale='en_US'/>"),
              std::string::npos);
    const ProcessResult check =
        runProcess({XMLLINT, "--noout", folder.write("listing.xml", result.out)});
    EXPECT_EQ(check.exitStatus, 0) << check.err;
}

} // namespace
