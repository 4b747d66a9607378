#include <fstream>
#include <gtest/gtest.h>
#include <string>

#include "caps/Store.h"
#include "scriptobjects/connector/PCDConnector.h"
#include "scriptobjects/convey/SoConvey.h"
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
        std::unique_ptr<Store> store;
        ASSERT_EQ(Store::open(path, Store::Access::create, store), Status::ok);
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

} // namespace
