
#include "caps/Schema.h"
#include "caps/Store.h"
#include "scriptobjects/connector/PCDConnector.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoCVThread.h"
#include "scriptobjects/convey/SoConvey.h"
#include "tests/support/Database.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using caps::Status;
using caps::Store;
using ScObjects::Convey;
using ScObjects::ConveyConnector;
using ScObjects::PCDConnector;
using ScObjects::SoString;

// The real library, through the operations that applications have.
TEST(WholeRegistry, isExportedTakenOverComparedAndRemoved) {
    const TemporaryFolder folder;
    const std::string paths[] = {folder.file("one.db"), folder.file("two.db")};
    PCDConnector::setCapsFolder(PROGRAMS);
    for (const std::string& path : paths) {
        auto store = openStore(path);
        const bool isFirst = path == paths[0];
        ASSERT_EQ(store->setDomainData(1, "/ovrel/convey/a-1.0", "Path", isFirst ? "/a" : "/b"),
                  Status::ok);
        if (isFirst) {
            ASSERT_EQ(store->setDomainData(1, "/ovrel/convey/b-1.0", "Path", "/b<"), Status::ok);
            ASSERT_EQ(store->setDomainData(1, "/ovrel/convey/groups", "Group1",
                                           "/ovrel/convey/groups/suite/7/b-1.*"),
                      Status::ok);
        }
    }
    const auto open = [](const std::string& path) {
        setenv("OVREL_CAPS_DB", path.c_str(), 1);
        return std::make_unique<PCDConnector>("own-1.0", true, PCDConnector::kIvorDomain);
    };
    const auto one = open(paths[0]);
    const auto two = open(paths[1]);
    ASSERT_TRUE(one->isGood());
    const SoString document = one->getConnectorConfig("");
    EXPECT_NE(document.view().find("<value key=\"Path\">/b&lt;</value>"), std::string_view::npos)
        << document.c_str();
    const SoString single = one->getConnectorConfig("b-1.0");
    EXPECT_EQ(single.view().find("a-1.0"), std::string_view::npos) << single.c_str();
    EXPECT_TRUE(one->isEqual(*open(paths[0])));
    EXPECT_FALSE(one->isEqual(*two));

    ConveyConnector* const process = open(paths[1]).release();
    ConveyConnector::set(process);
    EXPECT_EQ(process->getNumberOfRegisteredApplications(), 1);
    EXPECT_FALSE(Convey::importFromConnector("<registry/>"));
    EXPECT_FALSE(Convey::importFromConnector("/nowhere/x.xml"));
    EXPECT_TRUE(Convey::importFromConnector(paths[0].c_str()));
    EXPECT_EQ(process->getNumberOfRegisteredApplications(), 2);
    EXPECT_EQ(process->getApplicationPath("a-1.0", nullptr), "/b") << "what is there stays";
    EXPECT_EQ(process->findSpecifierInGroup("b", "suite"), "b-1.0");
    EXPECT_EQ(process->findSpecifierInGroup("a", "suite"), "");
    std::ofstream(folder.file("x.xml")) << document.c_str();
    EXPECT_TRUE(Convey::importFromConnector(folder.file("x.xml").c_str())) << "again";
    EXPECT_NE(Convey::getConnectorConfig("", "").view().find("b-1.0"), std::string_view::npos);
    EXPECT_TRUE(Convey::useConnector("removeAll"));
    EXPECT_EQ(process->getNumberOfRegisteredApplications(), 0);
    EXPECT_FALSE(Convey::useConnector("removeAll")) << "nothing is left to remove";
    ConveyConnector::InitTerm::exit();
}

// An administrator moves the database away and back; one of the first version keeps no times.
TEST(WholeRegistry, followsAFileThatComesBackAndOneOfTheFirstVersion) {
    const TemporaryFolder folder;
    PCDConnector::setCapsFolder(PROGRAMS);
    const std::string path = folder.file("caps.db");
    executeSql(path,
               std::string(caps::kMigrations[0]) +
                   "PRAGMA user_version = 1; PRAGMA application_id = " +
                   std::to_string(caps::kApplicationId) +
                   "; INSERT INTO subdomain (domain, name) VALUES (1, '/ovrel/convey/old-1.0');"
                   "INSERT INTO domain_data (subdomain, key, value, position) SELECT id, 'Path', "
                   "'/old', 1 FROM subdomain");
    setenv("OVREL_CAPS_DB", path.c_str(), 1);
    PCDConnector connector("own-1.0", true, PCDConnector::kIvorDomain);
    const auto sees = [&connector] {
        std::string text;
        for (int32_t i = 0; i < connector.getNumberOfRegisteredApplications(); ++i) {
            const SoString specifier = connector.getApplicationSpecifier(i);
            text += connector.getApplicationPath(specifier, nullptr).c_str();
        }
        return text;
    };
    EXPECT_EQ(sees(), "/old");
    for (const char* value : {"/first", "/second", "/third"}) { // by a program of that time
        executeSql(path, std::string("UPDATE domain_data SET value = '") + value + "'");
        EXPECT_TRUE(connector.updateCache(false)) << value;
        EXPECT_EQ(sees(), value);
        EXPECT_FALSE(connector.updateCache(false)) << "nothing changed since";
    }
    const std::string away = folder.file("away.db");
    for (int round = 0; round < 2; ++round) { // then again, brought up to date
        std::filesystem::rename(path, away);
        EXPECT_FALSE(connector.updateCache(false));
        EXPECT_EQ(sees(), "/third") << "what was read stays, unless it is asked for anew";
        EXPECT_TRUE(connector.updateCache(true));
        EXPECT_EQ(sees(), "");
        std::filesystem::rename(away, path);
        EXPECT_TRUE(connector.updateCache(false)) << "it is back";
        EXPECT_EQ(sees(), "/third");
        auto store = openStore(path, caps::Store::Access::write);
        EXPECT_EQ(connector.updateCache(false), round == 0) << "a new version is a change";
        EXPECT_EQ(sees(), "/third");
        store.reset();
        for (const char* suffix : {"-wal", "-shm"}) {
            std::filesystem::remove(path + suffix);
        }
    }
    const std::string other = folder.file("other.db");
    ASSERT_EQ(openStore(other)->setDomainData(1, "/ovrel/convey/new-1.0", "Path", "/new"),
              Status::ok);
    for (const std::string& file : {path, other}) { // as if made in the same second
        executeSql(file, "UPDATE modification SET time = 7");
    }
    EXPECT_TRUE(connector.updateCache(false));
    std::filesystem::rename(other, path);
    EXPECT_TRUE(connector.updateCache(false)) << "another one in its place";
    EXPECT_EQ(sees(), "/new");
    executeSql(path, "VACUUM");
    (void)connector.updateCache(false);
    EXPECT_EQ(sees(), "/new");
    std::ofstream(path, std::ios::trunc) << "no database any more";
    (void)connector.updateCache(false);
    EXPECT_THAT(sees(), testing::AnyOf("/new", ""));
}

// A shell tool is often started by a name without version.
TEST(WholeRegistry, givesAnIncompleteStartNameWhatItStandsFor) {
    const TemporaryFolder folder;
    const std::string path = folder.file("caps.db");
    auto store = openStore(path);
    const auto add = [&store](const std::string& specifier, const char* authentication,
                              const char* digest) {
        const std::string name = "/ovrel/convey/" + specifier;
        EXPECT_EQ(store->setDomainData(1, name, "Path", "/p"), Status::ok);
        EXPECT_EQ(store->setDomainData(1, name, "MessageAuthentication", authentication),
                  Status::ok);
        EXPECT_EQ(store->setDomainData(1, name, "MessageDigest", digest), Status::ok);
    };
    add("kivratool-7.0", "false", "false");
    add("doc-7", "false", "true");
    add("doc-7.50", "true", "false");
    setenv("OVREL_CAPS_DB", path.c_str(), 1);
    const std::tuple<const char*, const char*, bool, bool> cases[] = {
        {"kivratool", "kivratool-7.0", false, false},
        {"kivratool-7", "kivratool-7.0", false, false},
        {"kivratool_2", "kivratool_2-7.0", false, false},
        {"doc-7.0", "doc-7", false, true},
        {"doc-7", "doc-7.50", true, false},
        {"unknown-1", "unknown-1", true, true},
    };
    for (const auto& [start, name, authentication, digest] : cases) {
        SCOPED_TRACE(start);
        for (const bool hostSets : {false, true}) {
            PCDConnector::setCapsFolder(PROGRAMS);
            ASSERT_TRUE(Convey::InitTerm::init(start, !hostSets));
            if (hostSets) { // while the start is under way
                Convey::Message::setCreateDigest(!digest);
            }
            EXPECT_EQ(Convey::getSharedAppName(), name);
            EXPECT_EQ(ScObjects::ConveyThread::getMainThread()->getSpecifier(),
                      (std::string(name) + "#thread").c_str())
                << "the name of its port";
            EXPECT_EQ(Convey::Message::getAuthentication(), authentication);
            EXPECT_EQ(Convey::Message::getCreateDigest(), digest != hostSets);
            EXPECT_TRUE(Convey::InitTerm::exit());
        }
    }
}

} // namespace
