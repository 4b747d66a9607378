#include "scriptobjects/connector/PCDConnector.h"

#include "caps/include/ovrel_caps.h"
#include "platform/fake/Fakes.h"
#include "scriptobjects/connector/PCDWrapper.h"
#include "tests/support/FailingAllocations.h"

using ScObjects::ConveyConnector;
using ScObjects::PCDConnector;
using ScObjects::PCDWrapper;
using ScObjects::SoString;

// A database library that a test fills and breaks.
namespace {

struct Entry {
    std::string subdomain;
    std::vector<std::pair<std::string, std::string>> data;
};

struct Library {
    std::vector<Entry> entries;                     // of domain 1
    std::map<std::string, std::string> launchPaths; // by payload
    std::string failingKeys;                        // of this subdomain
    uint32_t productTime = 10;
    uint32_t domainTime = 20;
    std::function<void()> afterLaunchPath; // another program's change in the middle of a walk
    int openSessions = 0;
    std::vector<const char*> list;
    std::map<std::string, std::vector<const char*>> keys;
};

Library* gLibrary = nullptr;
int gSession = 0;

int32_t openSession(capsiSession** session, int32_t) {
    ++gLibrary->openSessions;
    *session = reinterpret_cast<capsiSession*>(&gSession);
    return CAPS_OK;
}

int32_t refuseSession(capsiSession**, int32_t) {
    return CAPS_DAMAGED;
}

int32_t closeSession(capsiSession*) {
    --gLibrary->openSessions;
    return CAPS_OK;
}

int32_t subdomains(capsiSession*, capsDomain domain, const char*** out) {
    if (domain != 1 || gLibrary->entries.empty()) {
        return CAPS_NOTHING_THERE;
    }
    gLibrary->list.clear();
    for (const Entry& entry : gLibrary->entries) {
        gLibrary->list.push_back(entry.subdomain.c_str());
    }
    gLibrary->list.push_back(nullptr);
    *out = gLibrary->list.data();
    return CAPS_OK;
}

int32_t keysOf(capsiSession*, capsDomain, const char* subdomain, const char*** out) {
    if (gLibrary->failingKeys == subdomain) {
        return CAPS_DAMAGED;
    }
    std::vector<const char*>& keys = gLibrary->keys[subdomain];
    keys.clear();
    for (const Entry& entry : gLibrary->entries) {
        if (entry.subdomain == subdomain) {
            for (const auto& [key, value] : entry.data) {
                keys.push_back(key.c_str());
            }
        }
    }
    keys.push_back(nullptr);
    *out = keys.data();
    return CAPS_OK;
}

int32_t valueOf(capsiSession*, capsDomain, const char* subdomain, const char* key,
                const char** out) {
    for (const Entry& entry : gLibrary->entries) {
        for (const auto& [candidate, value] : entry.data) {
            if (entry.subdomain == subdomain && candidate == key) {
                if (value == "<fails>") {
                    return CAPS_FAILED;
                }
                *out = value.c_str();
                return CAPS_OK;
            }
        }
    }
    return CAPS_NOTHING_THERE;
}

int32_t launchPath(const char* payload, char* buffer, uint32_t* size) {
    const auto found = gLibrary->launchPaths.find(payload);
    if (found == gLibrary->launchPaths.end() || found->second.size() >= *size) {
        return CAPS_NOTHING_THERE;
    }
    found->second.copy(buffer, found->second.size());
    if (gLibrary->afterLaunchPath) {
        gLibrary->afterLaunchPath();
    }
    return CAPS_OK;
}

int32_t productTime(capsiSession*, uint32_t* time) {
    *time = gLibrary->productTime;
    return CAPS_OK;
}

int32_t domainTime(capsiSession*, uint32_t* time) {
    *time = gLibrary->domainTime;
    return CAPS_OK;
}

class PCDConnectorTest : public testing::Test {
protected:
    PCDConnectorTest() {
        gLibrary = &library;
        const auto pointer = [](auto* function) { return reinterpret_cast<void*>(function); };
        functions() = {{"pcdOpenSessionNoCreate", pointer(openSession)},
                       {"pcdCloseSession", pointer(closeSession)},
                       {"capsOpenSession", pointer(openSession)},
                       {"capsCloseSession", pointer(closeSession)},
                       {"pcdGetDomainDataSubdomains", pointer(subdomains)},
                       {"pcdGetDomainDataKeys", pointer(keysOf)},
                       {"pcdGetDomainData", pointer(valueOf)},
                       {"pdbGetAppLaunchPath", pointer(launchPath)},
                       {"capsGetLastModTime", pointer(productTime)},
                       {"pcdGetLastModTime", pointer(domainTime)}};
    }
    ~PCDConnectorTest() override {
        EXPECT_EQ(library.openSessions, 0);
        EXPECT_EQ(frameworks.loaded, 0);
        EXPECT_EQ(PCDWrapper::getLibRefCount(), 0);
        gLibrary = nullptr;
    }

    platform::FakeFrameworks::Functions& functions() {
        return frameworks.bundles["/fake/program/ovrel_caps.framework"];
    }

    static std::unique_ptr<ConveyConnector> connector() {
        return std::unique_ptr<ConveyConnector>(
            ScObjects::ConveyUtils::createConnector("test", ""));
    }

    // "specifier path|..." of all records.
    static std::string listing(const ConveyConnector& connector) {
        std::string text;
        for (int32_t i = 0; i < connector.getNumberOfRegisteredApplications(); ++i) {
            const SoString specifier = connector.getApplicationSpecifier(i);
            text += std::string(specifier.c_str()) + " " +
                    connector.getApplicationPath(specifier, nullptr).c_str() + "|";
        }
        return text;
    }

    Library library;
    platform::InForce<platform::Frameworks, platform::FakeFrameworks> frameworks;
};

TEST_F(PCDConnectorTest, readsEveryFieldOfARegistration) {
    library.entries = {{"/ovrel/convey/app-1.0",
                        {{"Specifier", "APP-1.0"},
                         {"Path", "/Apps/App.app"},
                         {"DisplayName", "App"},
                         {"BundleIdentifier", "id"},
                         {"ExecutableBasename", "base"},
                         {"ExecutableExtensionMac", "ext"},
                         {"ExecutableExtensionWin", "exe"},
                         {"OMVDictionary", "dict"},
                         {"DeveloperInstallPath", "dev"},
                         {"IsShellTool", "True"},
                         {"SupportsDBGK", "true"},
                         {"MessageDigest", "no"},
                         {"RedirectTo", "<fails>"},
                         {"path", "/ignored"}}}};
    const auto c = connector();
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(listing(*c), "app-1.0 /Apps/App.app|");
    const SoString app("app-1.0");
    EXPECT_STREQ(c->getDisplayName("app", "1.0", "").c_str(), "App");
    EXPECT_STREQ(c->getBundleIdentifier(app).c_str(), "id");
    EXPECT_STREQ(c->getExecutableBasename(app).c_str(), "base");
    EXPECT_STREQ(c->getExecutableExtension(app).c_str(), "ext");
    EXPECT_STREQ(c->getOMVDictionary(app).c_str(), "dict");
    EXPECT_STREQ(c->getDeveloperInstallPath(app).c_str(), "dev");
    EXPECT_STREQ(c->getRedirectTo(app).c_str(), "") << "a value that cannot be read";
    EXPECT_FALSE(c->isShellTool(app)) << "only the spelling \"true\" is true";
    EXPECT_TRUE(c->supportsDBGK(app));
    EXPECT_FALSE(c->getMessageDigest(app));
    EXPECT_TRUE(c->getMessageAuthentication(app));
    EXPECT_TRUE(c->getMessageDigest("unknown"));
    EXPECT_EQ(c->getProcessID(app), 0U);
    c->setProcessID(app, 77);
    EXPECT_EQ(c->getProcessID(app), 77U);
    EXPECT_STREQ(c->getName().c_str(), "PCD");
    EXPECT_EQ(c->getTimestamp(), 20U);
    EXPECT_FALSE(c->registerApplication(app, "/x", nullptr, true));
    EXPECT_FALSE(c->addToGroup(app, "g", nullptr));
}

// A record had two owners once: the list, and who heard that its index found no memory.
TEST_F(PCDConnectorTest, readsTheRegistryWhenMemoryIsThereAgain) {
    std::string expected;
    for (int i = 0; i < 40; ++i) {
        const std::string name = "application" + std::to_string(i);
        library.entries.push_back({"/ovrel/convey/" + name,
                                   {{"Path", "/some/where/that/is/long/enough/" + name},
                                    {"RedirectTo", i % 5 == 4 ? "application0" : ""}}});
        expected +=
            name + " /some/where/that/is/long/enough/" + (i % 5 == 4 ? "application0" : name) + "|";
    }
    library.entries.push_back({"/ovrel/convey/groups", {{"Group1", "/ovrel/convey/groups/a/1/b"}}});
    bool failed = true;
    int number = 0;
    for (; failed; ++number) {
        const auto c = connector();
        ASSERT_NE(c, nullptr);
        failed = fails(number, [&c] {
            try {
                (void)c->getNumberOfRegisteredApplications();
                (void)c->updateCache(true);
            } catch (const std::bad_alloc&) {
            }
        });
        ASSERT_EQ(listing(*c), expected) << "after allocation " << number;
    }
    EXPECT_GT(number, 200) << "reading takes more allocations than that";
}

TEST_F(PCDConnectorTest, readsGroups) {
    library.entries = {{"/ovrel/convey/groups",
                        {{"Group1", "/ovrel/convey/groups/Suite/7.0/App-7.*"},
                         {"Group2", "/ovrel/convey/groups/"},
                         {"NoGroup", "/ovrel/convey/groups/x/9/app-7.*"}}},
                       {"/ovrel/convey/app-7.5", {{"Path", "/a/a"}}}};
    const auto c = connector();
    SoString number;
    EXPECT_STREQ(c->findGroupForSpecifier("app-7.5", &number).c_str(), "suite");
    EXPECT_STREQ(number.c_str(), "7.0");
    EXPECT_STREQ(c->findGroupForSpecifier("other", &number).c_str(), "");
    EXPECT_STREQ(number.c_str(), "");
}

TEST_F(PCDConnectorTest, seesWhatChangesWhileItReads) {
    library.entries = {{"/ovrel/convey/aa", {{"Specifier", "aa"}}},
                       {"{P}", {{"ConveyCode", "/ovrel/convey/aa"}}}};
    library.launchPaths = {{"{P}", "/a/a"}};
    library.afterLaunchPath = [this] {
        library.afterLaunchPath = nullptr;
        library.launchPaths["{P}"] = "/b/b";
        ++library.productTime;
    };
    const auto c = connector();
    EXPECT_FALSE(c->updateCache(false)) << "nothing was read yet";
    EXPECT_EQ(listing(*c), "aa /a/a|");
    EXPECT_TRUE(c->updateCache(false));
    EXPECT_EQ(listing(*c), "aa /b/b|");
    EXPECT_FALSE(c->updateCache(false));
}

TEST_F(PCDConnectorTest, keepsWhatWasReadBeforeAFailure) {
    library.entries = {{"/ovrel/convey/aa", {{"Path", "/a/a"}}},
                       {"/ovrel/convey/bb", {{"Path", "/b/b"}}},
                       {"/ovrel/convey/cc", {{"Path", "/c/c"}}}};
    library.failingKeys = "/ovrel/convey/bb";
    EXPECT_EQ(listing(*connector()), "aa /a/a|");
}

TEST_F(PCDConnectorTest, isEmptyOrAbsentWhateverTheLibraryLacks) {
    library.entries = {{"/ovrel/convey/aa", {{"Path", "/a/a"}}}};
    const platform::FakeFrameworks::Functions all = functions();
    for (const auto& [name, function] : all) {
        SCOPED_TRACE(name);
        functions() = all;
        functions().erase(name);
        if (const auto c = connector()) {
            const std::string text = listing(*c);
            EXPECT_TRUE(text == "aa /a/a|" || text.empty()) << text;
        } else {
            EXPECT_EQ(name, "pcdOpenSessionNoCreate");
        }
        library.openSessions = 0; // without its function a session cannot be closed
    }
    functions() = all;
    functions()["pcdOpenSessionNoCreate"] = reinterpret_cast<void*>(refuseSession);
    EXPECT_EQ(connector(), nullptr);
    frameworks.loadFails = true;
    EXPECT_EQ(connector(), nullptr);
    EXPECT_EQ(ScObjects::ConveyUtils::createConnector("test", "other"), nullptr);
}

TEST_F(PCDConnectorTest, hasNoConfigurationsWithALibraryOfBeforeThem) {
    library.entries = {{"/ovrel/convey/aa", {{"Path", "/a/a"}}}};
    platform::InForce<platform::Log, platform::FakeLog> log;
    const auto c = connector();
    EXPECT_STREQ(c->getConnectorConfig("").c_str(), "");
    EXPECT_FALSE(c->importFrom("<registry/>"));
    EXPECT_FALSE(c->removeAll());
    ASSERT_EQ(log.lines.size(), 3U) << "each says why";
    EXPECT_EQ(log.lines.back(), "the registry cannot be removed: the database library has no part "
                                "for configurations, or the database is not open");
    EXPECT_EQ(listing(*c), "aa /a/a|");
}

TEST_F(PCDConnectorTest, isNamedByItsKindAndDomain) {
    const std::tuple<bool, int32_t, const char*> cases[] = {
        {true, 1, "PCD"},        {true, 0, "PCD-master-installer"}, {true, 4, "PCD-master-pyl"},
        {true, 5, "PCD-master"}, {false, 3, "PCD-cache-wex"},       {false, 1, "PCD-cache-ivor"}};
    for (const auto& [master, key, name] : cases) {
        const PCDConnector pcd("test", master, static_cast<PCDConnector::DomainKey>(key));
        EXPECT_STREQ(pcd.getName().c_str(), name);
        EXPECT_EQ(pcd.isGood(), master) << "a connector that is no master reads nothing";
    }
}

TEST_F(PCDConnectorTest, looksInTheFolderThatTheHostHasSet) {
    frameworks.bundles["/elsewhere/ovrel_caps.framework"] = functions();
    functions().clear();
    PCDConnector::setCapsFolder("/elsewhere");
    EXPECT_NE(connector(), nullptr);
    EXPECT_STREQ(PCDConnector::getCapsFolder().c_str(), "") << "forgotten with the last connector";
    EXPECT_EQ(connector(), nullptr);
}

TEST_F(PCDConnectorTest, tellsWhatIsMissing) {
    const PCDWrapper wrapper(true, 0);
    const char* const* list = nullptr;
    EXPECT_EQ(wrapper.pcdGetDomainDataSubdomains(0, list), 9) << "no function for collections";
    PCDWrapper closed(false, 1);
    const char* value = nullptr;
    EXPECT_FALSE(closed.isGood());
    EXPECT_EQ(closed.pcdGetDomainData(1, "s", "k", value), 1);
    EXPECT_EQ(closed.pcdSetDomainData(1, "s", "k", "v"), 1);
    PCDWrapper open(true, 1);
    EXPECT_EQ(open.pcdSetDomainData(0, "s", "k", "v"), 11);
    EXPECT_EQ(open.capsGetPayloads(4, list), 9);
    SoString path("old");
    EXPECT_EQ(open.pdbGetAppLaunchPath("{nosuch}", path), 8);
    EXPECT_TRUE(path.isEmpty());
}

} // namespace
