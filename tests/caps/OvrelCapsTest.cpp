#include "caps/include/ovrel_caps.h"

#include <chrono>
#include <dlfcn.h>
#include <thread>
#include <unistd.h>

#include "caps/Store.h"
#include "tests/support/Database.h"
#include "tests/support/TemporaryFolder.h"

namespace {

// The library as its callers have it: loaded, and bound by name.
class OvrelCapsTest : public testing::Test {
protected:
    OvrelCapsTest() : library(dlopen(OVREL_CAPS_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
        setenv("OVREL_CAPS_DB", path.c_str(), 1);
        using caps::Status;
        EXPECT_EQ(
            store->addProduct({"P1",
                               {{"{a}", "normal", "/x/A", 4, {{6, "L2", "b"}, {6, "L1", "a"}}},
                                {"{b}", "other", "", 2, {}}}}),
            Status::ok);
        EXPECT_EQ(store->addProduct({"P0", {{"{c}", "normal", "", 4, {}}}}), Status::ok);
        EXPECT_EQ(store->setDomainData(1, "/s2", "k2", "v2"), Status::ok);
        EXPECT_EQ(store->setDomainData(1, "/s1", "k", "v"), Status::ok);
        EXPECT_EQ(store->setDomainData(1, "/s2", "k1", "v1"), Status::ok);
    }
    ~OvrelCapsTest() override { dlclose(library); }

    template <class Function>
    Function* bind(const char* name) {
        void* function = dlsym(library, name);
        EXPECT_NE(function, nullptr) << name;
        return reinterpret_cast<Function*>(function);
    }
#define BOUND(function) (*bind<decltype(::function)>(#function))

    using Texts = std::vector<std::string>;
    static Texts texts(const char* const* list) {
        Texts all;
        for (; list != nullptr && *list != nullptr; ++list) {
            all.emplace_back(*list);
        }
        return all;
    }
    // What a function gives by its last argument.
    template <class Result, class Function, class... Arguments>
    static Result given(Function& function, Arguments... arguments) {
        Result result{};
        EXPECT_EQ(function(arguments..., &result), CAPS_OK);
        return result;
    }
    template <class Function, class... Arguments>
    static Texts listOf(Function& function, Arguments... arguments) {
        return texts(given<const char**>(function, arguments...));
    }
    template <class Function, class... Arguments>
    static std::string textOf(Function& function, Arguments... arguments) {
        const auto* const text = given<const char*>(function, arguments...);
        return text != nullptr ? text : "(none)";
    }
    template <class Function>
    static capsiSession* opened(Function& function) {
        capsiSession* session = nullptr;
        EXPECT_EQ(function(&session, 1), CAPS_OK);
        return session;
    }

    TemporaryFolder folder;
    std::string path = folder.file("caps.db");
    std::unique_ptr<caps::Store> store = openStore(path);
    void* library;
};

TEST_F(OvrelCapsTest, answersFromTheDomainsInTheOrderOfRegistration) {
    capsiSession* session = opened(BOUND(pcdOpenSessionNoCreate));
    const char** list = nullptr;
    const char* value = nullptr;
    EXPECT_EQ(listOf(BOUND(pcdGetDomainDataSubdomains), session, 1), (Texts{"/s2", "/s1"}));
    EXPECT_EQ(listOf(BOUND(pcdGetDomainDataKeys), session, 1, "/s2"), (Texts{"k2", "k1"}));
    for (const char* key : {"k1", "k2", "k1"}) {
        ASSERT_EQ(BOUND(pcdGetDomainData)(session, 1, "/s2", key, &value), CAPS_OK);
        EXPECT_EQ(value[1], key[1]);
    }
    const char** values = nullptr;
    for (const char* key : {"one", "two", "six"}) { // of one length, each in the first place
        const std::string subdomain = std::string("/") + key;
        ASSERT_EQ(store->setDomainData(2, subdomain, key, "v"), caps::Status::ok);
        ASSERT_EQ(BOUND(pcdGetDomainDataSubdomains)(session, 2, &list), CAPS_OK);
        ASSERT_EQ(BOUND(pcdGetDomainDataPairs)(session, 2, subdomain.c_str(), &list, &values),
                  CAPS_OK);
        EXPECT_EQ(texts(list), Texts{key});
    }
    for (const char* subdomain : {"/s1", "/s2", "/s2"}) {
        ASSERT_EQ(BOUND(pcdGetDomainDataPairs)(session, 1, subdomain, &list, &values), CAPS_OK);
        size_t count = 0;
        for (; list[count] != nullptr; ++count) {
            ASSERT_EQ(BOUND(pcdGetDomainData)(session, 1, subdomain, list[count], &value), CAPS_OK);
            EXPECT_STREQ(values[count], value);
        }
        EXPECT_EQ(values[count], nullptr);
        EXPECT_EQ(BOUND(pcdGetDomainDataPairs)(session, 1, "/s3", &list, &values),
                  CAPS_NOTHING_THERE);
        EXPECT_EQ(BOUND(pcdGetDomainDataPairs)(session, 1, "/s1", nullptr, &values),
                  CAPS_INVALID_ARGUMENT);
    }
    EXPECT_EQ(BOUND(pcdGetDomainDataSubdomains)(session, 9, &list), CAPS_NOTHING_THERE);
    EXPECT_EQ(BOUND(pcdGetDomainDataKeys)(session, 1, "/s3", &list), CAPS_NOTHING_THERE);
    EXPECT_EQ(BOUND(pcdGetDomainData)(session, 1, "/s1", "k2", &value), CAPS_NOTHING_THERE);
    EXPECT_EQ(BOUND(pcdGetDomainData)(nullptr, 1, "/s1", "k", &value), CAPS_NO_SESSION);
    EXPECT_EQ(BOUND(pcdGetDomainData)(session, 1, nullptr, "k", &value), CAPS_INVALID_ARGUMENT);
    EXPECT_EQ(BOUND(pcdGetDomainData)(session, 1, "/s1", "k", nullptr), CAPS_INVALID_ARGUMENT);
    EXPECT_EQ(BOUND(pcdCloseSession)(session), CAPS_OK);
    EXPECT_EQ(BOUND(pcdCloseSession)(nullptr), CAPS_NO_SESSION);
}

TEST_F(OvrelCapsTest, keepsWhatItHandedOutUntilTheNextListSeesAChange) {
    capsiSession* session = opened(BOUND(pcdOpenSessionNoCreate));
    const char** list = nullptr;
    const char* value = nullptr;
    ASSERT_EQ(BOUND(pcdGetDomainDataSubdomains)(session, 1, &list), CAPS_OK);
    ASSERT_EQ(BOUND(pcdGetDomainData)(session, 1, "/s1", "k", &value), CAPS_OK);
    const auto before = given<uint32_t>(BOUND(pcdGetLastModTime), session);
    ASSERT_EQ(store->setDomainData(1, "/s1", "k", "changed"), caps::Status::ok);
    uint32_t products = 0;
    uint32_t after = 0;
    ASSERT_EQ(BOUND(capsGetLastModTimes)(session, &products, &after), CAPS_OK);
    EXPECT_GT(after, before);
    EXPECT_EQ(products, given<uint32_t>(BOUND(capsGetLastModTime), session));
    EXPECT_STREQ(value, "v");
    EXPECT_EQ(textOf(BOUND(pcdGetDomainData), session, 1, "/s1", "k"), "v")
        << "a walk sees one state";
    ASSERT_EQ(BOUND(pcdGetDomainDataSubdomains)(session, 1, &list), CAPS_OK);
    EXPECT_EQ(textOf(BOUND(pcdGetDomainData), session, 1, "/s1", "k"), "changed");

    ASSERT_EQ(BOUND(pcdSetDomainData)(session, 1, "/s1", "k", "own"), CAPS_OK);
    EXPECT_EQ(textOf(BOUND(pcdGetDomainData), session, 1, "/s1", "k"), "own")
        << "who writes reads what was written";
    ASSERT_EQ(BOUND(pcdRemoveDomainData)(session, 1, "/s1", "k"), CAPS_OK);
    EXPECT_EQ(BOUND(pcdGetDomainData)(session, 1, "/s1", "k", &value), CAPS_NOTHING_THERE);
    EXPECT_EQ(BOUND(pcdRemoveDomainData)(session, 1, "/s1", "k"), CAPS_NOTHING_THERE);
    EXPECT_EQ(BOUND(pcdSetDomainData)(session, 1, "/s1", "", "x"), CAPS_INVALID_ARGUMENT);
    BOUND(pcdCloseSession)(session);

    // Of a file that nobody was writing when it was opened, and that is written before it is read.
    store.reset();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    do {
        store = openStore(path, caps::Store::Access::glance);
        ASSERT_LT(std::chrono::steady_clock::now(), end);
    } while (!store->glances());
    session = opened(BOUND(pcdOpenSessionNoCreate));
    store = openStore(path, caps::Store::Access::write);
    ASSERT_EQ(store->setDomainData(1, "/s2", "k1", "later"), caps::Status::ok);
    store.reset();
    EXPECT_EQ(textOf(BOUND(pcdGetDomainData), session, 1, "/s2", "k1"), "later");
    BOUND(pcdCloseSession)(session);
}

TEST_F(OvrelCapsTest, answersFromProductsAndPayloads) {
    capsiSession* session = opened(BOUND(mdbOpenSessionNoCreate));
    const char** list = nullptr;
    EXPECT_EQ(listOf(BOUND(mdbGetProductIDList), session), (Texts{"P1", "P0"}));
    const capsProduct* product = nullptr;
    ASSERT_EQ(BOUND(mdbGetProduct)(session, "P1", &product), CAPS_OK);
    EXPECT_EQ(listOf(BOUND(mdbGetProductPayloads), session, product), (Texts{"{a}", "{b}"}));
    const capsPayload* payload = nullptr;
    ASSERT_EQ(BOUND(mdbGetPayload)(session, "{b}", &payload), CAPS_OK);
    EXPECT_STREQ(payload->identifier, "{b}");
    EXPECT_STREQ(payload->kind, "other");
    EXPECT_STREQ(payload->product, "P1");
    EXPECT_EQ(payload->installState, 2);
    EXPECT_EQ(BOUND(mdbGetPayload)(session, "{z}", &payload), CAPS_NOTHING_THERE);
    EXPECT_EQ(BOUND(mdbGetProduct)(session, "P9", &product), CAPS_NOTHING_THERE);

    EXPECT_EQ(listOf(BOUND(capsGetPayloads), session, 4), (Texts{"{a}", "{c}"}));
    EXPECT_EQ(BOUND(capsGetPayloads)(session, 9, &list), CAPS_NOTHING_THERE);
    EXPECT_EQ(listOf(BOUND(capsGetCollectionPayloads), session, "P1", 2), (Texts{"{b}"}));
    EXPECT_EQ(BOUND(capsGetCollectionPayloads)(session, "P9", 2, &list), CAPS_NOTHING_THERE);
    EXPECT_EQ(listOf(BOUND(capsGetPayloadDataKeys), session, "{a}", 6), (Texts{"L2", "L1"}));
    const char* value = nullptr;
    EXPECT_EQ(textOf(BOUND(pdbGetPayloadData), session, "{a}", 6, "L1"), "a");
    EXPECT_EQ(BOUND(capsGetPayloadData)(session, "{a}", 0, "L1", &value), CAPS_NOTHING_THERE);
    BOUND(mdbCloseSession)(session);
}

TEST_F(OvrelCapsTest, neverWritesPastTheCallersAreas) {
    capsiSession* session = opened(BOUND(pdbOpenSessionNoCreate));
    const char guard = 0;
    const struct {
        uint32_t slots;
        int32_t status;
        uint32_t answer;
        size_t keys;
    } cases[] = {{0, CAPS_TOO_SMALL, 3, 0},
                 {1, CAPS_TOO_SMALL, 3, 0},
                 {2, CAPS_TOO_SMALL, 3, 1},
                 {3, CAPS_OK, 2, 2},
                 {9, CAPS_OK, 2, 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.slots);
        std::vector<const char*> keys(10, &guard);
        uint32_t slots = c.slots;
        EXPECT_EQ(BOUND(pdbGetPayloadDataKeys)(session, "{a}", 6, keys.data(), &slots), c.status);
        EXPECT_EQ(slots, c.answer);
        for (size_t i = 0; i < keys.size(); ++i) {
            if (i < c.keys) {
                EXPECT_EQ(*keys[i], 'L');
            } else if (i == c.keys && c.slots > 0) {
                EXPECT_EQ(keys[i], nullptr);
            } else {
                EXPECT_EQ(keys[i], &guard);
            }
        }
    }
    for (const uint32_t room : {0U, 4U, 5U}) {
        char buffer[8] = {'#', '#', '#', '#', '#', '#', '#', '#'};
        uint32_t size = room;
        const int32_t status = BOUND(pdbGetAppLaunchPath)("{a}", buffer, &size);
        EXPECT_EQ(status, room < 5 ? CAPS_TOO_SMALL : CAPS_OK);
        EXPECT_EQ(size, 5U);
        EXPECT_EQ(std::string(buffer, 8),
                  status == CAPS_OK ? std::string("/x/A\0###", 8) : "########");
    }
    BOUND(pdbCloseSession)(session);
    char buffer[8];
    uint32_t size = sizeof buffer;
    EXPECT_EQ(BOUND(pdbGetAppLaunchPath)("{a}", buffer, &size), CAPS_OK) << "without a session";
    EXPECT_EQ(BOUND(pdbGetAppLaunchPath)("{b}", buffer, &size), CAPS_NOTHING_THERE);
    EXPECT_EQ(BOUND(pdbGetAppLaunchPath)(nullptr, buffer, &size), CAPS_INVALID_ARGUMENT);
}

TEST_F(OvrelCapsTest, opensNothingWhereThereIsNoDatabaseOfOurs) {
    capsiSession* session = nullptr;
    for (const char* content : {"", "garbage garbage garbage"}) {
        setenv("OVREL_CAPS_DB", folder.write("other.db", content).c_str(), 1);
        EXPECT_EQ(BOUND(pcdOpenSessionNoCreate)(&session, 1), CAPS_DAMAGED);
    }
    setenv("OVREL_CAPS_DB", folder.file("none.db").c_str(), 1);
    EXPECT_EQ(BOUND(capsOpenSession)(&session, 1), CAPS_NO_DATABASE);
    EXPECT_FALSE(std::filesystem::exists(folder.file("none.db")));
    EXPECT_EQ(BOUND(mdbOpenSessionNoCreate)(nullptr, 1), CAPS_INVALID_ARGUMENT);
    EXPECT_EQ(session, nullptr);
}

TEST_F(OvrelCapsTest, servesSessionsOfSeveralThreadsWhileAWriterWorks) {
    auto& open = BOUND(pcdOpenSessionNoCreate);
    auto& close = BOUND(pcdCloseSession);
    auto& subdomains = BOUND(pcdGetDomainDataSubdomains);
    auto& value = BOUND(pcdGetDomainData);
    std::vector<std::jthread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                capsiSession* session = nullptr;
                ASSERT_EQ(open(&session, 1), CAPS_OK);
                const char** list = nullptr;
                ASSERT_EQ(subdomains(session, 1, &list), CAPS_OK);
                const char* text = nullptr;
                EXPECT_EQ(value(session, 1, "/s2", "k1", &text), CAPS_OK);
                close(session);
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(store->setDomainData(1, "/s2", "k1", std::to_string(i)), caps::Status::ok);
    }
    readers.clear(); // joins them
}

TEST_F(OvrelCapsTest, readsTheUsersDatabaseOverTheSystems) {
    unsetenv("OVREL_CAPS_DB");
    setenv("XDG_DATA_HOME", folder.file("data").c_str(), 1);
    setenv("OVREL_CAPS_SYSTEM_DB", folder.file("system.db").c_str(), 1);
    auto system = openStore(folder.file("system.db"));
    const auto own = openStore(folder.file("data/ovrel/caps.db"));
    const std::string groups = "/ovrel/convey/groups";
    const auto write = [](caps::Store& into, const std::string& name, const char* key,
                          const char* value) {
        ASSERT_EQ(into.setDomainData(1, name, key, value), caps::Status::ok);
    };
    write(*system, "/ovrel/convey/a-1.0", "Path", "/system");
    write(*system, "/ovrel/convey/Alias", "Specifier", "c-1.0");
    write(*system, "/ovrel/convey/b-1.0", "Path", "/system");
    write(*system, groups, "Group1", "of the system");
    write(*own, groups, "Group1", "of the user");
    write(*own, "/ovrel/convey/a-1.0", "Path", "/mine");
    write(*own, "/ovrel/convey/c-1.0", "Path", "/mine");
    ASSERT_EQ(system->addProduct({"P", {{"{p}", "normal", "/system", 4, {}}}}), caps::Status::ok);
    ASSERT_EQ(own->addProduct({"Q", {{"{p}", "normal", "/mine", 4, {}}}}), caps::Status::ok);

    capsiSession* session = opened(BOUND(pcdOpenSessionNoCreate));
    const auto before = given<uint32_t>(BOUND(pcdGetLastModTime), session);
    const auto names = [&] {
        const char** list = nullptr;
        EXPECT_EQ(BOUND(pcdGetDomainDataSubdomains)(session, 1, &list), CAPS_OK);
        return texts(list);
    };
    EXPECT_EQ(names(),
              (Texts{"/ovrel/convey/b-1.0", groups, "/ovrel/convey/a-1.0", "/ovrel/convey/c-1.0"}));
    EXPECT_EQ(textOf(BOUND(pcdGetDomainData), session, 1, "/ovrel/convey/a-1.0", "Path"), "/mine");
    const char** keys = nullptr;
    ASSERT_EQ(BOUND(pcdGetDomainDataKeys)(session, 1, groups.c_str(), &keys), CAPS_OK);
    ASSERT_EQ(texts(keys).size(), 2U);
    EXPECT_EQ(textOf(BOUND(pcdGetDomainData), session, 1, groups.c_str(), keys[1]), "of the user")
        << "the last one wins";
    char launchPath[1024];
    uint32_t bytes = sizeof launchPath;
    ASSERT_EQ(BOUND(pdbGetAppLaunchPath)("{p}", launchPath, &bytes), CAPS_OK);
    EXPECT_STREQ(launchPath, "/mine");

    write(*system, "/ovrel/convey/d-1.0", "Path", "/system");
    const auto after = given<uint32_t>(BOUND(pcdGetLastModTime), session);
    EXPECT_GT(after, before) << "a change below is one";
    EXPECT_EQ(names().size(), 5U);
    system.reset();
    ASSERT_EQ(unlink(folder.file("system.db").c_str()), 0);
    EXPECT_EQ(names(), (Texts{groups, "/ovrel/convey/a-1.0", "/ovrel/convey/c-1.0"}));
    EXPECT_EQ(BOUND(pcdCloseSession)(session), CAPS_OK);

    setenv("OVREL_CAPS_DB", path.c_str(), 1);
    session = opened(BOUND(pcdOpenSessionNoCreate));
    EXPECT_EQ(names(), (Texts{"/s2", "/s1"})) << "one that is named stands alone";
    EXPECT_EQ(BOUND(pcdCloseSession)(session), CAPS_OK);
}

} // namespace
